#!/usr/bin/env tclsh
# linepush.tcl -- sends each line of standard input to PULL sockets, in bounded memory.
#
#     producer | linepush.tcl bind|connect endpoint ?hwm?
#
# While nobody takes messages, at most "hwm" of them wait here for each peer, and a line
# more; then standard input is left alone, its pipe fills up and the producer waits.
# At the end of the input the program stays until the last line has left.

package require zmq

foreach signal {SIGINT SIGTERM} {
    ::qel::reactor signal trap $signal interrupted
}
proc interrupted {signal} {
    push configure -linger 1000 ;# what still waits has a second to leave
    ::qel::reactor stop
}

# Without its input or its socket this program has nothing to go on with.  But that the
# last data and the end of the input arrive at once, which the reactor calls unhandled, is
# no failure: the handler sees both.
proc fail {message {options {}}} {
    if {[string match {*unhandled ZMQ_POLLERR*} $message]} {
        return
    }
    puts stderr "[::qel::timestamp] linepush: $message"
    set ::status 1
    ::qel::reactor stop
}
::qel::reactor bgerror fail

set longest 1000000 ;# bytes of a line: one without an end would fill the memory

# Reads what is there.  Tcl reads ahead: lines can wait in the channel's own buffer,
# which the reactor cannot see, so this goes on until the channel has none left.
proc readable {} {
    while {[gets stdin ::line] >= 0} {
        if {![push_line]} {
            # Away from the input, until the socket takes messages again.
            ::qel::reactor event stdin readable {}
            ::qel::reactor event push writable writable
            return
        }
    }
    if {[eof stdin]} {
        ::qel::reactor event stdin readable {}
        push configure -linger -1 ;# every line leaves, however long it takes
        ::qel::reactor stop
    } elseif {[chan pending input stdin] > $::longest} {
        error "a line is longer than $::longest bytes"
    }
}

proc push_line {} {
    expr {![catch {push send -nowait $::line}]}
}

proc writable {} {
    if {[push_line]} {
        ::qel::reactor event push writable {}
        ::qel::reactor event stdin readable readable
        readable
    }
}

lassign $argv method endpoint hwm
if {$method ni {bind connect} || $endpoint eq {}} {
    puts stderr "usage: linepush.tcl bind|connect endpoint ?hwm?"
    exit 2
}
::zmq::socket create push PUSH
push configure -sndhwm [expr {$hwm ne {} ? $hwm : 1000}]
push $method $endpoint
puts stderr "push [push configure -last_endpoint]"

# Lines are passed on as the bytes that they are.
fconfigure stdin -blocking 0 -translation binary
set status 0
::qel::reactor event stdin readable readable
::qel::reactor start
push close
exit $status
