#!/usr/bin/env tclsh
# subscribe.tcl -- prints what is published under some topics.
#
#     subscribe.tcl endpoint ?topic ...? ?-monitor endpoint?
#                  ?-server file? ?-key file?
#
# Without a topic it prints everything.  A topic stands for all topics that begin with
# it.  With the endpoint of a monitor.tcl it reports its counts there.

source [file join [file dirname [info script]] common.tcl]
need zmq tcl-parvo

foreach signal {SIGINT SIGTERM} {
    ::qel::reactor signal trap $signal stop
}
proc stop {signal} {::qel::reactor stop}
::qel::reactor bgerror complain

# Takes what is there, but not without end: timers and signals have their turn.
proc received {} {
    for {set i 0} {$i < 100 && [::zmq::poll subscriber 0] ne {}} {incr i} {
        set words {}
        foreach frame [subscriber recv -nowait] {
            lappend words [frame_text $frame]
        }
        show [join $words { }]
    }
}

proc report_counts {} {
    ::qel::reactor after 1000 report_counts
    report send stats host subscriber-[pid] [subscriber stats]
}

arguments [concat {
    {endpoint endpoint}
    {topic... text {{}}}
    {-monitor endpoint {}}
} $keyOptions]
::zmq::socket create subscriber SUB
subscriber configure -maxmsgsize 1000000
# Subscriptions come before the connection, so that none of the first messages is
# missed.
foreach topic $arg(topic) {
    subscriber configure -subscribe [encoding convertto utf-8 $topic]
}
guard subscriber
attach subscriber connect $arg(endpoint)
if {$arg(monitor) ne {}} {
    ::zmq::socket create report PUB
    attach report connect $arg(monitor) -monitor
    report_counts
}
::qel::reactor event subscriber readable received
::qel::reactor start
foreach socket [::zmq::socket names] {
    $socket close
}
