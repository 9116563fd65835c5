# sanitized.sh -- sourced by checks that run scripts on a sanitized library.
#
#   sanitized asan|tsan ?compiler?   builds it and sets the environment of "run"
#   run script ?arg ...?             runs a tclsh on it; a report ends it with status 99
#
# Tcl's allocator becomes malloc, so that the sanitizers see every block.

. "$(dirname "${BASH_SOURCE[0]}")/../common.sh"
plain=$build

sanitized() {
    local preset=$1 compiler=${2:-g++} runtime
    build=$plain-$preset
    [ "$compiler" = g++ ] || build=$build-$compiler
    # Checks that run at the same time share the build.
    mkdir -p "$build"
    exec 9>"$build/.lock"
    flock 9
    # Configured once: naming the compiler again would make CMake start all over, while
    # another check may be using what was built.
    [ -f "$build/CMakeCache.txt" ] ||
        CC=$([ "$compiler" = clang++ ] && echo clang || echo gcc) CXX=$compiler \
            configure "$build" --preset "$preset" >/dev/null
    cmake --build "$build" >/dev/null
    exec 9>&-
    case $preset-$compiler in
        asan-g++) runtime=libasan.so ;;
        tsan-g++) runtime=libtsan.so ;;
        asan-clang++) runtime=libclang_rt.asan-$(uname -m).so ;;
        tsan-clang++) runtime=libclang_rt.tsan-$(uname -m).so ;;
    esac
    # Names of libraries to load first cannot hold blanks, but the search path can.
    search=$build/tests${LD_LIBRARY_PATH:+:$LD_LIBRARY_PATH}
    preload="$("$compiler" -print-file-name=$runtime) tclmalloc.so"
}

run() {
    local under=(env LD_PRELOAD="$preload" LD_LIBRARY_PATH="$search" PARVO_SANITIZED=1
        ASAN_OPTIONS=detect_leaks=0:exitcode=99
        UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1:exitcode=99
        TSAN_OPTIONS="exitcode=99:suppressions='$top/script/checks/tsan.supp'" "${prefix[@]}")
    tcl "$@"
}
prefix=()
