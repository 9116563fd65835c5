#!/usr/bin/env tclsh
# linepush.tcl -- sends each line of standard input to PULL sockets, in bounded memory.
#
#     producer | linepush.tcl bind|connect endpoint ?hwm?
#
# While no peer takes messages, the program queues at most "hwm" lines for each peer and
# holds one more.  Then it stops reading: the pipe fills up and the producer waits.
# At the end of the input the program stays until the last line has left.
#
# SIGTERM and SIGINT end it after a second, in which the queued lines can leave.  It counts
# the lines that it has read and not sent.

source [file join [file dirname [info script]] common.tcl]
need zmq tcl-parvo

foreach signal {SIGINT SIGTERM} {
    ::qel::reactor signal trap $signal interrupted
}

# Without its input or its socket the program cannot go on.
proc failed {message {options {}}} {
    complain $message
    if {![string match "*unhandled ZMQ_POLLERR*" $message]} {
        set ::status 1
        finish
    }
}
::qel::reactor bgerror failed

set longest 1000000 ;# bytes of a line: one without an end would fill the memory
set held 0          ;# a line waits in "line" for room in the socket
set status 0

# Reads what is there, a thousand lines at most before timers and signals have their turn.
# Tcl reads ahead: lines can wait in the channel's own buffer, which the reactor cannot
# see, so this goes on until the channel has none left.
proc readable {} {
    for {set i 0} {$i < 1000} {incr i} {
        if {[gets stdin ::line] < 0} {
            if {[eof stdin]} {
                finish
            } elseif {[chan pending input stdin] > $::longest} {
                error "a line is longer than $::longest bytes"
            }
            return
        }
        if {![push_line]} {
            # No more input until the socket takes messages again.
            ::qel::reactor event stdin readable {}
            ::qel::reactor event push writable writable
            return
        }
    }
    ::qel::reactor event stdin readable {}
    ::qel::reactor after 0 go_on
}
proc go_on {} {
    if {![info exists ::descriptor]} {
        ::qel::reactor event stdin readable readable
        readable
    }
}

proc push_line {} {
    set ::held [catch {push send -nowait $::line}]
    expr {!$::held}
}

proc writable {} {
    if {[push_line]} {
        ::qel::reactor event push writable {}
        go_on
    }
}

# Closes the socket, whose queued lines go on leaving.  ZeroMQ closes the descriptor of a
# socket when the last of them has left.
proc finish {} {
    if {[info exists ::descriptor]} {
        return
    }
    ::qel::reactor event stdin readable {}
    set ::descriptor [push configure -fd]
    set ::queued [dict get [push stats] sent messages]
    if {$::queued > [push configure -sndhwm]} {
        set ::queued [push configure -sndhwm]
    }
    push configure -linger -1
    push close
    settle
}
proc settle {} {
    if {[catch {file readlink /proc/self/fd/$::descriptor}]} {
        set ::queued 0
        ::qel::reactor stop
    } else {
        ::qel::reactor after 20 settle
    }
}

proc interrupted {signal} {
    set ::signal $signal
    finish
    ::qel::reactor after 1000 {::qel::reactor stop}
}

arguments {
    {method {choice bind connect}}
    {endpoint endpoint}
    {hwm {number 1} 1000}
}
::zmq::socket create push PUSH
push configure -sndhwm $arg(hwm)
attach push $arg(method) $arg(endpoint)
say "push [push configure -last_endpoint]" stderr

# Lines are passed on as the bytes that they are.
fconfigure stdin -blocking 0 -translation binary
::qel::reactor event stdin readable readable
::qel::reactor start

# What Tcl has read ahead is lost for the producer, too.
set ahead [read stdin [chan pending input stdin]]
incr held [regexp -all {[^\n]*\n|[^\n]+$} $ahead]
if {$held + $queued > 0} {
    say "$program: lines not sent: $held held, up to $queued queued for each peer" stderr
    set status 1
}
if {$queued > 0} {
    # The end of a process waits for what is queued; a signal that is not trapped does not.
    ::qel::reactor signal default $signal
    exec sh -c "kill -[string range $signal 3 end] [pid]"
}
exit $status
