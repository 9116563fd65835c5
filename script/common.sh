# common.sh -- sourced by the scripts and the checks: where things are, and the build.
#
# PARVO_TCL is the major version of Tcl to build for, 8 unless set; PARVO_BUILD names
# another build directory than the usual one.

top=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
case ${PARVO_TCL:=8} in
    8) build=$top/build library=libparvo.so ;;
    *) build=$top/build-tcl$PARVO_TCL library=libtcl${PARVO_TCL}parvo.so ;;
esac
build=$(realpath -m "${PARVO_BUILD:-$build}")
library=$build/$library
companion=${library%.so}extra.so # of the package zmq::extra

# configure DIRECTORY ?option ...?     configures a build directory for this Tcl
configure() {
    CMAKE_GENERATOR=Ninja cmake -S "$top" -B "$1" -DPARVO_TCL="$PARVO_TCL" "${@:2}"
}

# cached VARIABLE     what CMake found for the build, such as TCLSH, the fitting tclsh
cached() {
    sed -n "s/^$1:[A-Z]*=//p" "$build/CMakeCache.txt"
}

# tcl_list WORD ...     the words as a Tcl list, which is what TCLLIBPATH must be
tcl_list() {
    printf '%s\n' "$@" | LC_ALL=C sed 's/[][{}"\\$; 	]/\\&/g' | paste -sd ' '
}

# tcl ?word ...?     the tclsh that fits the build, which finds the package; the words of
# the array "under" stand before it
under=()
tcl() {
    TCLLIBPATH=$(tcl_list "$build") "${under[@]}" "$(cached TCLSH)" "$@"
}

# tcl_module SOURCE OUTPUT COMPILER ?option ...?     a library in C that this tclsh loads
tcl_module() {
    local flags
    IFS=';' read -ra flags <<<"$(cached TCL_CFLAGS)"
    "${@:3}" -O1 -g -Wall -Wextra -shared -fPIC -DUSE_TCL_STUBS "${flags[@]}" -o "$2" \
        -x c "$1" -x none "$(cached TCL_STUB)"
}

# skipped FILE ...     the tests that these logs say were skipped, as "name: reason"; the
# reason that a test file gives is the word for what it needs
skipped() {
    sed -nE 's/^\++ (.*) SKIPPED: (\w+)$/\1: no \2/p; s/^\++ (.*) SKIPPED: (.* .*)$/\1: \2/p' \
        "$@" | sort -u
}

# skip REASON     ends a check that cannot be made here; ctest knows the status
skip() {
    echo "++++ check-$(basename "$0") SKIPPED: $1"
    exit 77
}
needs_command() {
    command -v "$1" >/dev/null || skip "no $1"
}
needs_package() {
    tcl <<<"exit [catch {package require $1}]" || skip "no package $1 for Tcl $PARVO_TCL"
}
