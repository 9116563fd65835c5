# start.tcl -- rows: how long a new tclsh takes to have the package, and to end.

section start "Start and end"

set stage [file join $build bench stage usr]
set start_modules [dict create \
    package [file dirname [lindex [glob -directory $stage lib/tcltk/*/*/zmq-*.tm] 0]] \
    bare [file join $build bench tm]]

# Milliseconds until the package is there, from exit to the end of the process, and both
# without the pause that the end of the context takes.  "package" is an installed copy,
# found as a Tcl module; "index" the same library in the build directory, found by its
# pkgIndex.tcl on TCLLIBPATH; "bare" the bare commands, found as a module; "tclsh" none.
proc run_start {subject count} {
    set load [dict get {tclsh "" package "package require zmq" index "package require zmq"
        bare "package require bare"} $subject]
    set script "$load\nputs \[clock microseconds\]\nexit"
    set variables [list -u TCLLIBPATH]
    if {$subject eq "index"} {
        set variables {}
    } elseif {[dict exists $::start_modules $subject]} {
        lappend variables "TCL[string map {. _} [info tclversion]]_TM_PATH=[dict get \
            $::start_modules $subject]"
    }
    set start [clock microseconds]
    set ready [exec env {*}$variables $::tclsh << $script]
    set end [clock microseconds]
    set pause [expr {$subject in {package index} ? 100000 : 0}]
    return [lmap us [list [expr {$ready - $start}] [expr {$end - $ready}] \
            [expr {$end - $start - $pause}]] {expr {$us / 1e3}}]
}

measurement start 0 run_start {
    {start "start: until the package is there" ms -}
    {end "end: from exit until the process is gone" ms -}
    {start-end "start and end, without the pause of 100 ms" ms 5}
} {tclsh {} bare - index -}
