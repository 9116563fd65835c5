# Where things go, and the packages made from them.
#
# Debian's tclsh looks below PREFIX/lib/tcltk for the prefixes /usr and /usr/local, and
# for /usr also in the directory of the architecture, which is where packages put
# libraries.

set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(parvo_libdir lib/tcltk)
if(CMAKE_INSTALL_PREFIX STREQUAL "/usr" AND CMAKE_LIBRARY_ARCHITECTURE)
  set(parvo_libdir "lib/tcltk/${CMAKE_LIBRARY_ARCHITECTURE}")
endif()
set(PARVO_LIBDIR "${parvo_libdir}" CACHE STRING "Tcl's package directory below the prefix")
set(PARVO_MAN_SECTION n CACHE STRING "Section of the manual pages (3tcl in Debian)")
set(PARVO_DOCDIR share/doc/tcl-parvo CACHE STRING "Documentation below the prefix")

install(TARGETS parvo DESTINATION "${PARVO_LIBDIR}/zmq${PROJECT_VERSION}")
install(FILES "${PROJECT_BINARY_DIR}/pkgIndex.tcl"
  DESTINATION "${PARVO_LIBDIR}/zmq${PROJECT_VERSION}")
install(FILES README.md DESTINATION "${PARVO_DOCDIR}")
install(DIRECTORY examples DESTINATION "${PARVO_DOCDIR}"
  USE_SOURCE_PERMISSIONS PATTERN "__pycache__" EXCLUDE)
install(PROGRAMS script/info DESTINATION "${PARVO_DOCDIR}/examples")

# Debian keeps changelogs compressed, and wants a copyright file.
find_program(GZIP gzip REQUIRED)
add_custom_command(OUTPUT changelog.gz
  COMMAND "${GZIP}" -9nc "${PROJECT_SOURCE_DIR}/CHANGELOG.md" > changelog.gz
  DEPENDS CHANGELOG.md VERBATIM)
add_custom_target(changelog ALL DEPENDS changelog.gz)
install(FILES "${PROJECT_BINARY_DIR}/changelog.gz" DESTINATION "${PARVO_DOCDIR}")
install(FILES LICENSE RENAME copyright DESTINATION "${PARVO_DOCDIR}")

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME tcl-parvo)
set(CPACK_PACKAGE_VENDOR "Parvo")
set(CPACK_PACKAGE_CONTACT "Parvo maintainers <maintainers@parvo.invalid>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "ZeroMQ sockets and a reactor for Tcl")
set(CPACK_PACKAGE_DESCRIPTION
"Gives Tcl scripts ZeroMQ sockets as object commands, a one-shot poll, and a
 single-threaded reactor for worker processes: sockets, channels, timers, POSIX
 signals and background errors.")
set(CPACK_PACKAGE_FILE_NAME "tcl-parvo_${PROJECT_VERSION}")
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION interpreters)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_DEPENDS "tcl (>= 8.5)")
set(CPACK_DEBIAN_PACKAGE_SUGGESTS "tcl-thread, tcllib, python3-zmq")
set(CPACK_STRIP_FILES ON)
set(CPACK_SOURCE_GENERATOR TGZ)
set(CPACK_SOURCE_PACKAGE_FILE_NAME "parvo-${PROJECT_VERSION}")
set(CPACK_SOURCE_IGNORE_FILES "/build[^/]*/;/\\\\.git/;/_CPack_Packages/;\\\\.deb$;\\\\.tar\\\\.gz$;__pycache__")
include(CPack)
