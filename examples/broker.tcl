#!/usr/bin/env tclsh
# broker.tcl -- hands each request to the worker that has been idle longest.
#
#     broker.tcl ?frontend? ?backend? ?-key file? ?-known directory?
#
# Both arguments are endpoints to bind; with -key peers must encrypt to that key, and with
# -known be among those whose keys are there.  At the frontend are clients with REQ sockets
# (request.tcl), at the backend workers with DEALER sockets (broker_worker.tcl,
# broker_worker.py).  A worker sends
#
#     READY taken              while idle, again and again: this is the heartbeat
#     REPLY taken frame ...    with the frames up to the empty one as they came
#
# where "taken" counts the requests that it has had, and gets
#
#     REQUEST frame ...        the client, other routing frames, an empty one, the body
#
# The broker forgets an idle worker whose heartbeats stop.  A request whose worker dies is
# lost; the client sends it again.

source [file join [file dirname [info script]] common.tcl]
need zmq tcl-parvo

# Traps come first, before any thread exists that could catch the signals instead.
foreach signal {SIGINT SIGTERM} {
    ::qel::reactor signal trap $signal stop
}
proc stop {signal} {::qel::reactor stop}
::qel::reactor bgerror complain

set expiry 2000  ;# milliseconds of silence after which an idle worker is gone
set limit 60000  ;# and a busy one, whose request takes at most so long
set workers {}   ;# worker -> when it was heard last, requests that it has had
set idle {}      ;# workers without a request, longest idle first

proc from_worker {} {
    global workers idle
    set frames [lassign [backend recv -nowait] worker kind count]
    if {$kind ni {READY REPLY} || ![string is integer -strict $count]} {
        return
    }
    if {$kind eq "REPLY"} {
        frontend send {*}$frames ;# a ROUTER drops what is for a client that has left
    }
    if {![dict exists $workers $worker]} {
        tell $worker joined
    } elseif {$count < [lindex [dict get $workers $worker] 1]} {
        return ;# a heartbeat that crossed a request on its way
    }
    dict set workers $worker [list [clock milliseconds] $count]
    if {$worker ni $idle} {
        lappend idle $worker
    }
    admit
}

proc from_client {} {
    global workers idle
    set request [frontend recv -nowait]
    foreach worker $idle {
        set idle [lrange $idle 1 end]
        # -router_mandatory makes this fail for a worker that is no longer connected.
        if {![catch {backend send -nowait $worker REQUEST {*}$request}]} {
            set count [lindex [dict get $workers $worker] 1]
            dict set workers $worker [list [clock milliseconds] [incr count]]
            break
        }
        forget $worker
    }
    admit
}

# Requests are read only while somebody can take one.  Otherwise they wait in the
# queues of ZeroMQ, whose high-water marks bound them, and not in this program.
proc admit {} {
    ::qel::reactor event frontend readable \
        [expr {[llength $::idle] > 0 ? "from_client" : ""}]
}

# A worker's address is a name in UTF-8.
proc tell {worker what} {
    say "worker [frame_text $worker] $what"
}

proc forget {worker} {
    tell $worker left
    dict unset ::workers $worker
    set ::idle [lsearch -all -inline -exact -not $::idle $worker]
}

proc expire {} {
    set now [clock milliseconds]
    dict for {worker state} $::workers {
        set silent [expr {$now - [lindex $state 0]}]
        if {$silent > ($worker in $::idle ? $::expiry : $::limit)} {
            forget $worker
        }
    }
    admit
    ::qel::reactor after 500 expire
}

arguments [concat {
    {frontend endpoint tcp://127.0.0.1:5555}
    {backend endpoint tcp://127.0.0.1:5556}
} $keyOptions]
foreach socket {frontend backend} {
    ::zmq::socket create $socket ROUTER
    $socket configure -maxmsgsize 1000000
}
guard frontend backend
foreach socket {frontend backend} {
    attach $socket bind $arg($socket) $socket
    say "$socket [$socket configure -last_endpoint]"
}
backend configure -router_mandatory 1
::qel::reactor event backend readable from_worker
expire
::qel::reactor start

# The last replies have two seconds to leave.
frontend configure -linger 2000
frontend close
backend close
