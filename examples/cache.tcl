#!/usr/bin/env tclsh
# cache.tcl -- gives each new subscriber the last value of every topic it asks for.
#
#     cache.tcl ?publishers? ?subscribers?
#
# Both arguments are endpoints to bind.  Messages are a topic and any further frames.
# A subscription goes to everybody who holds it, so other subscribers of the same topic
# see the last value once more.

source [file join [file dirname [info script]] common.tcl]
need zmq tcl-parvo

foreach signal {SIGINT SIGTERM} {
    ::qel::reactor signal trap $signal stop
}
proc stop {signal} {::qel::reactor stop}
::qel::reactor bgerror complain

set limit 10000 ;# topics kept: publishers cannot fill the memory
set last {}     ;# topic -> message

proc published {} {
    global last
    set message [in recv -nowait]
    set topic [lindex $message 0]
    if {[dict exists $last $topic] || [dict size $last] < $::limit} {
        dict set last $topic $message
    }
    out send {*}$message
}

# An XPUB socket receives subscriptions: a byte, 1 to begin and 0 to end, and the
# beginning of the topics wanted.
proc subscribed {} {
    set request [lindex [out recv -nowait] 0]
    if {[string index $request 0] ne "\x01"} {
        return
    }
    set wanted [string range $request 1 end]
    set end [expr {[string length $wanted] - 1}]
    # No glob pattern here: a topic may hold characters that mean something in one.
    dict for {topic message} $::last {
        if {[string range $topic 0 $end] eq $wanted} {
            out send {*}$message
        }
    }
}

arguments {
    {publishers endpoint tcp://127.0.0.1:5557}
    {subscribers endpoint tcp://127.0.0.1:5558}
}
::zmq::socket create in XSUB
::zmq::socket create out XPUB
# Without this only the first subscriber of a topic would be heard of.
out configure -xpub_verbose 1
in configure -maxmsgsize 1000000
foreach {socket name} {in publishers out subscribers} {
    attach $socket bind $arg($name) $name
    say "$socket [$socket configure -last_endpoint]"
}
# An XSUB socket sends its subscriptions as messages; this one is for everything.
in send "\x01"
::qel::reactor event in readable published
::qel::reactor event out readable subscribed
::qel::reactor start
in close
out close
