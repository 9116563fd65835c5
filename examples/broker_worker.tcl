#!/usr/bin/env tclsh
# broker_worker.tcl -- a worker of broker.tcl: answers with the text in upper case.
#
#     broker_worker.tcl ?endpoint? ?name? ?-server file? ?-key file?
#
# The name and the process id together are the worker's address at the broker.

source [file join [file dirname [info script]] common.tcl]
need zmq tcl-parvo

foreach signal {SIGINT SIGTERM} {
    ::qel::reactor signal trap $signal stop
}
proc stop {signal} {::qel::reactor stop}
::qel::reactor bgerror complain

# The work: text in, text out.
proc work {text} {
    string toupper $text
}

proc request {} {
    set frames [lassign [broker recv -nowait] kind]
    if {$kind ne "REQUEST"} {
        return
    }
    incr ::taken
    # Frames up to the empty one are the way back; they are returned untouched.
    set gap [lsearch -exact $frames {}]
    set answer [work [encoding convertfrom utf-8 [lindex $frames $gap+1]]]
    broker send REPLY $::taken {*}[lrange $frames 0 $gap] \
        [encoding convertto utf-8 $answer]
}

# The heartbeat.  It may be dropped: the next one says the same.
proc ready {} {
    catch {broker send -nowait READY $::taken}
    ::qel::reactor after 500 ready
}

arguments [concat {
    {endpoint endpoint tcp://127.0.0.1:5556}
    {name text {}}
} $keyOptions]
set name [expr {$arg(name) ne {} ? $arg(name) : [info hostname]}]-[pid]
set taken 0

::zmq::socket create broker DEALER
broker configure -identity [encoding convertto utf-8 $name]
broker configure -maxmsgsize 1000000
# Heartbeats must not pile up for a broker that is away: without a connection there
# is no queue.
broker configure -immediate 1
# A reply that has no way to the broker for a second is lost: the client asks again.
broker configure -sndtimeo 1000
guard broker
attach broker connect $arg(endpoint)
::qel::reactor event broker readable request
ready
::qel::reactor start

broker configure -linger 2000
broker close
