# Where things go, and the packages made from them.
#
# Debian's tclsh looks below PREFIX/lib/tcltk for the prefixes /usr and /usr/local, and
# for /usr also in the directory of the architecture.  That one is the place of packaged
# libraries, whose manual pages are in section 3tcl.  These are no cache entries: a
# build directory that is configured again for another prefix must not keep them.

set(parvo_libdir lib/tcltk)
set(parvo_section n)
if(CMAKE_INSTALL_PREFIX STREQUAL "/usr" AND CMAKE_LIBRARY_ARCHITECTURE)
  set(parvo_libdir "lib/tcltk/${CMAKE_LIBRARY_ARCHITECTURE}")
  set(parvo_section 3tcl)
endif()
if(NOT DEFINED PARVO_LIBDIR) # Tcl's package directory below the prefix
  set(PARVO_LIBDIR "${parvo_libdir}")
endif()
if(NOT DEFINED PARVO_MAN_SECTION)
  set(PARVO_MAN_SECTION "${parvo_section}")
endif()
set(PARVO_DOCDIR share/doc/tcl-parvo)

# What is installed is for everyone, whatever the umasks were.  CMake obeys the umask where
# it makes a directory on its way; those that are there already stay as they are.
set(parvo_file OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)
set(parvo_program ${parvo_file} OWNER_EXECUTE GROUP_EXECUTE WORLD_EXECUTE)
string(SUBSTRING "${PARVO_MAN_SECTION}" 0 1 parvo_man)
set(parvo_mandir "share/man/man${parvo_man}")
set(parvo_places "${PARVO_LIBDIR}/zmq${PROJECT_VERSION};${PARVO_DOCDIR};${parvo_mandir}")
if(CMAKE_INSTALL_PREFIX STREQUAL "/usr")
  list(APPEND parvo_places "${parvo_tmdir}/zmq")
endif()
install(CODE "
  foreach(place IN ITEMS ${parvo_places})
    set(place \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/\${place}\")
    set(missing \"\")
    while(place AND NOT EXISTS \"\${place}\")
      list(PREPEND missing \"\${place}\")
      get_filename_component(place \"\${place}\" DIRECTORY)
    endwhile()
    foreach(directory IN LISTS missing)
      file(MAKE_DIRECTORY \"\${directory}\")
      file(CHMOD \"\${directory}\" PERMISSIONS ${parvo_program})
    endforeach()
  endforeach()")

install(TARGETS parvo parvoextra DESTINATION "${PARVO_LIBDIR}/zmq${PROJECT_VERSION}")
install(FILES "${PROJECT_BINARY_DIR}/pkgIndex.tcl"
  "${PROJECT_BINARY_DIR}/auth-${PROJECT_VERSION}.tm"
  DESTINATION "${PARVO_LIBDIR}/zmq${PROJECT_VERSION}")
# A Tcl module beside it: Tcl looks for modules first, and for a package reads the index of
# every package on the machine.  The default module paths of Debian's tclsh are below /usr.
if(CMAKE_INSTALL_PREFIX STREQUAL "/usr")
  function(parvo_module name library prefix)
    set(module "${parvo_tmdir}/${name}-${PROJECT_VERSION}.tm")
    get_filename_component(directory "${module}" DIRECTORY)
    file(RELATIVE_PATH place "/${directory}" "/${PARVO_LIBDIR}/zmq${PROJECT_VERSION}")
    file(WRITE "${PROJECT_BINARY_DIR}/modules/${module}"
      "load [file join [file dirname [info script]] ${place} lib${library}.so] ${prefix}\n")
    install(FILES "${PROJECT_BINARY_DIR}/modules/${module}" DESTINATION "${directory}")
  endfunction()
  parvo_module(zmq "${parvo_library}" Parvo)
  parvo_module(zmq/extra "${parvo_library}extra" Parvoextra)
  install(FILES "${PROJECT_BINARY_DIR}/auth-${PROJECT_VERSION}.tm"
    DESTINATION "${parvo_tmdir}/zmq")
endif()
# The scripts at the top are programs, and so are a main.tcl and those of the job queue.
install(DIRECTORY examples DESTINATION "${PARVO_DOCDIR}"
  FILE_PERMISSIONS ${parvo_file} DIRECTORY_PERMISSIONS ${parvo_program}
  PATTERN "__pycache__" EXCLUDE
  REGEX "/(examples/[^/]*\\.(tcl|py)|main\\.tcl|jobs/(queue|worker|submit)\\.tcl)$"
    PERMISSIONS ${parvo_program})
install(FILES examples/common.tcl examples/keyring.tcl # no programs
  DESTINATION "${PARVO_DOCDIR}/examples")
install(PROGRAMS script/info DESTINATION "${PARVO_DOCDIR}/examples")

# The README's links lead to the manual that is installed, not to its sources; what they
# say of files that stay behind is plain text.
add_custom_command(OUTPUT README.md
  COMMAND sed -E -e "s,\\]\\(doc/([a-z_]+)\\.man\\),](html/files/\\1.html),g"
    -e "s,!?\\[([^]]*)\\]\\((bench/[^)]*|[A-Z]+\\.md)\\),\\1,g"
    "${PROJECT_SOURCE_DIR}/README.md" > README.md
  DEPENDS "${PROJECT_SOURCE_DIR}/README.md" VERBATIM)

# Debian keeps changelogs compressed, has one of its own, and wants a copyright file.
find_program(GZIP gzip REQUIRED)
set(parvo_contact "Parvo maintainers <maintainers@parvo.invalid>")
string(TIMESTAMP parvo_date "%a, %d %b %Y %H:%M:%S +0000" UTC)
file(WRITE "${PROJECT_BINARY_DIR}/changelog.Debian"
"tcl-parvo (${PROJECT_VERSION}-1) unstable; urgency=medium

  * Package of version ${PROJECT_VERSION}; what has changed is in changelog.gz.

 -- ${parvo_contact}  ${parvo_date}
")
add_custom_command(OUTPUT changelog.gz changelog.Debian.gz
  COMMAND "${GZIP}" -9nc "${PROJECT_SOURCE_DIR}/CHANGELOG.md" > changelog.gz
  COMMAND "${GZIP}" -9nc changelog.Debian > changelog.Debian.gz
  DEPENDS "${PROJECT_SOURCE_DIR}/CHANGELOG.md" VERBATIM)
add_custom_target(installed_texts ALL DEPENDS "${PROJECT_BINARY_DIR}/README.md" changelog.gz)
# All that is installed, and no test.
add_custom_target(installable)
add_dependencies(installable parvo parvoextra installed_texts)
install(FILES "${PROJECT_BINARY_DIR}/README.md" "${PROJECT_BINARY_DIR}/changelog.gz"
  DESTINATION "${PARVO_DOCDIR}")
install(FILES LICENSE RENAME copyright DESTINATION "${PARVO_DOCDIR}")
if(CMAKE_INSTALL_PREFIX STREQUAL "/usr")
  install(FILES "${PROJECT_BINARY_DIR}/changelog.Debian.gz" DESTINATION "${PARVO_DOCDIR}")
endif()

set(CPACK_VERBATIM_VARIABLES ON)
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME tcl-parvo)
set(CPACK_PACKAGE_VENDOR "Parvo")
set(CPACK_PACKAGE_CONTACT "${parvo_contact}")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "ZeroMQ sockets and a reactor for Tcl")
set(CPACK_PACKAGE_DESCRIPTION
"Gives Tcl scripts ZeroMQ sockets as object commands, a one-shot poll, and a
single-threaded reactor for worker processes: sockets, channels, timers, POSIX
signals and background errors.")
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_PACKAGE_SECTION interpreters)
# The dynamic linker's view is inspected; it does not see Tcl, which comes by its stubs.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_DEPENDS "${parvo_tcl_depends}")
set(CPACK_DEBIAN_PACKAGE_SUGGESTS "${parvo_tcl_suggests}")
set(CPACK_STRIP_FILES ON)

# A tree configured for another prefix would put things into the wrong places of /usr.
file(WRITE "${PROJECT_BINARY_DIR}/CPackPrefix.cmake"
"if(CPACK_GENERATOR STREQUAL \"DEB\" AND NOT \"${CMAKE_INSTALL_PREFIX}\" STREQUAL \"/usr\")
  message(FATAL_ERROR \"Use script/package, or configure with -DCMAKE_INSTALL_PREFIX=/usr\")
endif()
")
set(CPACK_PROJECT_CONFIG_FILE "${PROJECT_BINARY_DIR}/CPackPrefix.cmake")

# The source is this directory, whose own name may hold anything, without what is made in it.
string(REGEX REPLACE "([][+.*()^$?|\\\\])" "\\\\\\1" parvo_here "${PROJECT_SOURCE_DIR}")
set(CPACK_SOURCE_GENERATOR TGZ)
set(CPACK_SOURCE_PACKAGE_FILE_NAME "parvo-${PROJECT_VERSION}")
set(CPACK_SOURCE_IGNORE_FILES "^${parvo_here}/build[^/]*/" "^${parvo_here}/_CPack_Packages/"
  "^${parvo_here}/\\.git(/|$)" "^${parvo_here}/[^/]*\\.(deb|tar\\.gz)$" "/__pycache__/")
include(CPack)
