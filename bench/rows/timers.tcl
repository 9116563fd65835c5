# timers.tcl -- rows: timers against Tcl's own, and what one of so many costs.

section timers "Timers against Tcl's own"
section growth "What one of so many costs"

proc run_timers {workload subject count} {
    return [values [start [list $::tclsh [file join $::here zmq.tcl] zmq {*}[string map \
        [list @subject $subject] $workload]]]]
}

foreach {count filled one} [list 1000 {timers @subject 1000 100} "" \
    100000 {standing @subject 100000} "one more, "] {
    set outputs {}
    foreach {name title targets} {
        rising "later than all" {5 1} random "at random" {1 40} cancel "cancel by id" {1 300}
    } {
        set what [expr {$name eq "cancel" ? "" : "schedule "}]
        set target [lindex $targets [expr {$one ne ""}]]
        lappend outputs [list timers-$name-$count "$count timers: $one$what$title" op/s $target]
    }
    measurement timers 0 [list run_timers $filled] $outputs {after {}}
    measurement timers 0 [list run_timers [list due @subject $count]] \
        [list [list timers-run-$count "$count timers: run all" op/s 1]] {after {}}
}

foreach {kind counts} {
    sockets {10 100 1000}  timers {10 100 1000 10000}  handlers {10 100 1000 10000}
} {
    foreach count $counts {
        measurement growth 0 [list run_timers [list grow $kind $count]] \
            [lmap {what unit} {create us delete us memory bytes} {
                list grow-$kind-$what-$count "$kind: $what one" $unit
            }] {}
    }
}
