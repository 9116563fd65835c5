# What a sanitized library needs in the tests: its run-time library loaded first, and
# Tcl's pool allocator, which hides what happens to memory, turned into malloc.  Reports
# go to files of the build directory, reports/report.PID, because many tests look at
# something else than a child process's standard error or status.  (Those of gcc's
# undefined-behaviour sanitizer go to standard error all the same.)

if(PARVO_SANITIZE)
  add_library(tclmalloc MODULE tclmalloc.c)
  set_target_properties(tclmalloc PROPERTIES PREFIX "")
  set(runtime asan)
  if(PARVO_SANITIZE MATCHES "thread")
    set(runtime tsan)
  endif()
  if(CMAKE_CXX_COMPILER_ID MATCHES "Clang")
    set(runtime "libclang_rt.${runtime}-${CMAKE_SYSTEM_PROCESSOR}.so")
  else()
    set(runtime "lib${runtime}.so")
  endif()
  execute_process(COMMAND "${CMAKE_CXX_COMPILER}" "-print-file-name=${runtime}"
    OUTPUT_VARIABLE runtime OUTPUT_STRIP_TRAILING_WHITESPACE)
  set(reports "${PROJECT_BINARY_DIR}/reports")
  file(MAKE_DIRECTORY "${reports}")
  # The options of sanitizers may be quoted; names of libraries to load first may not hold
  # blanks, but the search path may.
  set(common "exitcode=99:log_path='${reports}/report'")
  set(search "${CMAKE_CURRENT_BINARY_DIR}")
  if(DEFINED ENV{LD_LIBRARY_PATH})
    string(APPEND search ":$ENV{LD_LIBRARY_PATH}")
  endif()
  list(APPEND parvo_environment
    "LD_PRELOAD=${runtime} tclmalloc.so"
    "LD_LIBRARY_PATH=${search}"
    "PARVO_SANITIZED=1"
    "ASAN_OPTIONS=detect_leaks=0:abort_on_error=0:${common}"
    "UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1:${common}"
    "TSAN_OPTIONS=suppressions='${CMAKE_CURRENT_SOURCE_DIR}/tsan.supp':${common}")
endif()
