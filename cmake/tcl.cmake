# The Tcl that the library is built for: headers, stub library, interpreter.
#
# Debian's development packages of Tcl 8 and 9 stand side by side, and "tcl" or "tclsh"
# may be either.

set(PARVO_TCL 8 CACHE STRING "Major version of Tcl: 8 (8.5 or later) or 9")
set_property(CACHE PARVO_TCL PROPERTY STRINGS 8 9)
if(PARVO_TCL EQUAL 8)
  set(parvo_tcl_modules "tcl<9" tcl8.6 tcl8.5)
  set(parvo_tcl_least 8.5)
  set(parvo_tcl_packages tcl-dev)
  set(parvo_tcl_depends "tcl (>= 8.5), tcl (<< 9)")
  set(parvo_tcl_suggests "tcl-thread, tcllib, libsqlite3-tcl, python3-zmq")
  set(parvo_tclsh tclsh8.6 tclsh8.5 tclsh)
  set(parvo_library parvo)
  set(parvo_tmdir lib/tcltk/tcl8/8.5) # where Tcl 8.5 and later look for modules
elseif(PARVO_TCL EQUAL 9)
  set(parvo_tcl_modules tcl9.0 "tcl>=9")
  set(parvo_tcl_least 9.0)
  set(parvo_tcl_packages "tcl9.0-dev and libtommath-dev")
  set(parvo_tcl_depends tcl9.0)
  set(parvo_tcl_suggests "tcl9.0-thread, python3-zmq")
  set(parvo_tclsh tclsh9.0 tclsh)
  set(parvo_library tcl9parvo) # the prefix that Tcl's own builds give to such libraries
  set(parvo_tmdir lib/tcltk/tcl9/9.0)
else()
  message(FATAL_ERROR "PARVO_TCL is \"${PARVO_TCL}\", and must be 8 or 9")
endif()

pkg_search_module(TCL ${parvo_tcl_modules})
if(NOT TCL_FOUND OR TCL_VERSION VERSION_LESS parvo_tcl_least)
  message(FATAL_ERROR "pkg-config knows no Tcl ${PARVO_TCL} (${parvo_tcl_least} or later);"
    " Debian has it in ${parvo_tcl_packages}")
endif()
# pkg-config names the library itself and its stub library.
foreach(library IN LISTS TCL_LINK_LIBRARIES)
  if(library MATCHES "/libtclstub[^/]*$")
    set(TCL_STUB "${library}" CACHE INTERNAL "Stub library of Tcl")
  elseif(library MATCHES "/libtcl[^/]*$")
    set(TCL_LIBRARY "${library}")
  endif()
endforeach()
if(NOT TCL_STUB)
  message(FATAL_ERROR "pkg-config names no stub library of Tcl: ${TCL_LINK_LIBRARIES}")
endif()
