#!/usr/bin/env tclsh
# subscribe.tcl -- prints what is published under some topics.
#
#     subscribe.tcl endpoint ?topic ...? ?-monitor endpoint?
#
# Without a topic it prints everything.  A topic stands for all topics that begin with
# it.  With the endpoint of a monitor.tcl it reports its counts there.

package require zmq

foreach signal {SIGINT SIGTERM} {
    ::qel::reactor signal trap $signal stop
}
proc stop {signal} {::qel::reactor stop}
source [file join [file dirname [info script]] text.tcl]

proc complain {message {options {}}} {
    puts stderr "[::qel::timestamp] subscribe: $message"
}
::qel::reactor bgerror complain

# Takes what is there, but not without end: timers and signals want their turn too.
proc received {} {
    for {set i 0} {$i < 100 && [::zmq::poll subscriber 0] ne {}} {incr i} {
        set words {}
        foreach frame [subscriber recv -nowait] {
            lappend words [encoding convertfrom utf-8 $frame]
        }
        puts [shown [join $words { }]]
    }
}

proc report_counts {} {
    ::qel::reactor after 1000 report_counts
    report send stats host subscriber-[pid] [subscriber stats]
}

set topics [lassign $argv endpoint]
if {[lindex $topics end-1] eq "-monitor"} {
    set monitor [lindex $topics end]
    set topics [lrange $topics 0 end-2]
}
if {$endpoint eq {}} {
    puts stderr "usage: subscribe.tcl endpoint ?topic ...? ?-monitor endpoint?"
    exit 2
}
check_text $topics
fconfigure stdout -buffering line

::zmq::socket create subscriber SUB
subscriber configure -maxmsgsize 1000000
# Subscriptions come before the connection, so that none of the first messages is
# missed for want of them.
foreach topic [expr {[llength $topics] > 0 ? $topics : [list {}]}] {
    subscriber configure -subscribe [encoding convertto utf-8 $topic]
}
subscriber connect $endpoint
if {[info exists monitor]} {
    ::zmq::socket create report PUB
    report connect $monitor
    report_counts
}
::qel::reactor event subscriber readable received
::qel::reactor start
foreach socket [::zmq::socket names] {
    $socket close
}
