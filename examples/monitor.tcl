#!/usr/bin/env tclsh
# monitor.tcl -- shows live rates and losses of programs that report their counts.
#
#     monitor.tcl ?endpoint? ?ms?
#
# Programs connect a PUB socket to the endpoint and send, every second or so,
#
#     stats stream name [$socket stats]
#
# A receiver's loss is what the senders of its stream have sent and it did not get; for
# one that joined late or wants some topics only, that includes what it never asked for.
# Peers that come and go are shown by the descriptor of their connection.  On a terminal
# the screen is redrawn every "ms" milliseconds; elsewhere lines are printed as often.

source [file join [file dirname [info script]] common.tcl]
need zmq::extra tcl-parvo

foreach signal {SIGINT SIGTERM} {
    ::qel::reactor signal trap $signal stop
}
proc stop {signal} {::qel::reactor stop}
::qel::reactor bgerror complain

set forget 5000 ;# milliseconds of silence after which a program is shown no more
set limit 1000  ;# programs shown at most
set rows {}     ;# {stream name} -> what is known of it, a dictionary
set peers {}    ;# descriptors of the connections that there are
set change {}   ;# who came or left last

# Reports come from outside.  They are taken apart as data and every figure is tested;
# nothing of them is ever evaluated.
proc reported {} {
    lassign [reports recv -nowait] - stream name stats
    set now [clock milliseconds]
    foreach {direction count} {sent messages received messages sent bytes received bytes} {
        set value [dict get $stats $direction $count]
        if {![string is wideinteger -strict $value] || $value < 0} {
            error "bad report of \"$name\""
        }
        lappend counts $value
    }
    set key [list $stream $name]
    if {[dict exists $::rows $key]} {
        dict set ::rows $key before [dict get $::rows $key counts]
        dict set ::rows $key ms [expr {$now - [dict get $::rows $key time]}]
    } elseif {[dict size $::rows] < $::limit} {
        dict set ::rows $key [dict create before $counts ms 1]
    } else {
        return
    }
    dict set ::rows $key counts $counts
    dict set ::rows $key time $now
}

# Messages sent in a stream, as of the senders' report before the last: what is newer
# may still be on its way.
proc sent_before {stream} {
    set sent 0
    dict for {key row} $::rows {
        if {[lindex $key 0] eq $stream} {
            incr sent [lindex [dict get $row before] 0]
        }
    }
    return $sent
}

proc line {key row} {
    lassign $key stream name
    foreach now [dict get $row counts] before [dict get $row before] {
        lappend rates [expr {($now - $before) * 1000.0 / max(1, [dict get $row ms])}]
    }
    lassign $rates sent received sentBytes receivedBytes
    set got [lindex [dict get $row counts] 1]
    set lost [expr {$got > 0 ? max(0, [sent_before $stream] - $got) : 0}]
    format {%-12.12s %-22.22s %10.1f %10.1f %10.1f %10d} [frame_text $stream] \
        [frame_text $name] $sent $received \
        [expr {($sentBytes + $receivedBytes) / 1000.0}] $lost
}

# Connections to this program, by descriptor; a number that is used again is a new peer.
proc peers_changed {} {
    set event [::zmq::monitor event [events recv -nowait]]
    set peer [dict get $event value]
    if {[dict get $event event] eq "accepted"} {
        set ::peers [lsort -unique [concat $::peers $peer]]
        set ::change "peer $peer came"
    } else {
        set ::peers [lsearch -all -inline -exact -not $::peers $peer]
        set ::change "peer $peer left"
    }
    append ::change ", [llength $::peers] now, [::qel::timestamp]"
    if {!$::terminal} {
        show $::change
    }
}

proc show_rows {} {
    ::qel::reactor after $::arg(ms) show_rows
    set now [clock milliseconds]
    set lines [list [format {%-12s %-22s %10s %10s %10s %10s} \
                         stream program sent/s received/s kB/s lost]]
    dict for {key row} $::rows {
        if {$now - [dict get $row time] > $::forget} {
            dict unset ::rows $key
        } else {
            lappend lines [line $key $row]
        }
    }
    if {$::terminal} {
        lappend lines $::change
    }
    # Home, each line with what was right of it erased, and everything below erased.
    show [expr {$::terminal ? "\x1b\[H[join $lines \x1b\[K\n]\x1b\[J" : [join $lines \n]}]
}

arguments {
    {endpoint endpoint tcp://127.0.0.1:5559}
    {ms {number 1} 1000}
}
set terminal [dict exists [fconfigure stdout] -mode]
::zmq::socket create reports SUB
reports configure -maxmsgsize 10000
reports configure -subscribe stats
::zmq::monitor start reports inproc://events accepted disconnected
::zmq::socket create events PAIR
events connect inproc://events
::qel::reactor event events readable peers_changed
attach reports bind $arg(endpoint)
show "[expr {$terminal ? "\x1b\[2J\x1b\[H" : {}}]reports [reports configure -last_endpoint]"
::qel::reactor event reports readable reported
::qel::reactor after $arg(ms) show_rows
::qel::reactor start
reports close
events close
