# What a sanitized library needs in the tests: its run-time library loaded first, and
# Tcl's pool allocator, which hides what happens to memory, turned into malloc.

if(PARVO_SANITIZE)
  add_library(tclmalloc MODULE tclmalloc.c)
  set_target_properties(tclmalloc PROPERTIES PREFIX "")
  if(PARVO_SANITIZE MATCHES "thread")
    set(runtime libtsan.so)
  else()
    set(runtime libasan.so)
  endif()
  if(CMAKE_CXX_COMPILER_ID MATCHES "Clang")
    set(runtime "libclang_rt.${runtime}")
    if(runtime MATCHES "asan")
      set(runtime libclang_rt.asan-x86_64.so)
    endif()
  endif()
  execute_process(COMMAND "${CMAKE_CXX_COMPILER}" "-print-file-name=${runtime}"
    OUTPUT_VARIABLE runtime OUTPUT_STRIP_TRAILING_WHITESPACE)
  list(APPEND parvo_environment
    "LD_PRELOAD=${runtime}:$<TARGET_FILE:tclmalloc>"
    "PARVO_SANITIZED=1"
    "ASAN_OPTIONS=detect_leaks=0:abort_on_error=0:exitcode=99"
    "UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1"
    "TSAN_OPTIONS=exitcode=99:suppressions=${CMAKE_CURRENT_SOURCE_DIR}/tsan.supp")
endif()
