# odd.tcl seed count -- calls every command, method and option with valid, boundary and
# absurd words, from top level and from inside handlers.
#
# The generator is seeded: the same seed makes the same commands.  Four rules keep it from
# waiting for ever: blocking calls are made with time-outs, the loop is always stopped by a
# handler that the generator does not know, no socket lingers, and the pipe does not block.

package require zmq::extra
lassign $argv seed count
expr {srand($seed)}
set done 0
set raised 0

proc pick {list} {lindex $list [expr {int(rand() * [llength $list])}]}

set megabyte [string repeat x 1000000]
set shared "shared value"
set words [list {} "\0" "a\0b" 0 1 -1 31 32 2147483647 2147483648 -2147483649 \
    9223372036854775807 9223372036854775808 -9223372036854775808 1e10 0x1f 007 true "\{" \
    "a \{b" "\}" "\"" {a b c} {{}} %s%n%d %99999999d :: ::: a::b ::zmq ::zmq::socket * ? \
    {[} {$x} {;} \u20ac \ud800 \uffff -nowait -linger "- " $shared [list $shared $shared] \
    [string repeat ": " 600] after#0 after#-1 {after# 1} after#99999999999999999999 \
    stdin stdout stderr file5]
set endpoints [list tcp://127.0.0.1:* inproc://a inproc://b inproc://c tcp://127.0.0.1:1 tcp:// \
    inproc:// ipc:// ipc:///nonexistent/x tcp://127.0.0.1:99999 inproc://events foo://x tcp://%s:%d]
set types {PAIR PUB SUB REQ REP DEALER ROUTER PULL PUSH XPUB XSUB STREAM pub NONE}
set options {}
set f [open [file join [file dirname [info script]] .. .. src socket_options.cpp]]
while {[gets $f line] >= 0} {
    if {[regexp {^\s*\{"(-\w+)", (?:ZMQ|opt)} $line -> option]} {lappend options $option}
}
close $f
if {$options eq {}} {error "no options found in the table"}
# The debug log may be sent to a file of any name.
set scratch [file normalize $::env(ODD_SCRATCH)]
cd $scratch
set keys [list [string repeat 0 40] [string repeat a 40] [string repeat "#" 40]]
set signals {HUP SIGHUP INT USR1 SIGUSR2 10 12 17 SIGCLD 0 32 * WINCH URG SIGRTMIN}
set names {s0 s1 s2 s3 ::s4 "a b" "\u20ac" x::y}
# A pipe whose ends are polled like sockets; only "traffic" reads and writes it.
lassign [chan pipe] source sink
foreach end [list $source $sink] {chan configure $end -blocking 0 -translation binary}

proc word {} {
    switch [pick {word word word name signal option small socket}] {
        name {pick $::names}
        signal {pick $::signals}
        option {pick $::options}
        small {expr {int(rand() * 40) - 5}}
        socket {pick [concat [::zmq::socket names] none $::source $::sink]}
        default {
            if {rand() < 0.01} {return $::megabyte}
            pick $::words
        }
    }
}
proc some {from to} {
    set list {}
    for {set i [expr {$from + int(rand() * ($to - $from + 1))}]} {$i > 0} {incr i -1} {
        lappend list [word]
    }
    return $list
}
proc live {} {pick [concat [::zmq::socket names] [pick $::names]]}
proc handler {} {
    pick [list {} {step 1} {step 2; error [word]} {return -code 7 x} {break} "\{" [word] \
        {step 1; ::qel::reactor stop} {update; step 1}]
}
# A socket never waits.
proc timed {s} {
    catch {$s configure -rcvtimeo 0}
    catch {$s configure -sndtimeo 0}
}
proc run_reactor {} {
    if {[llength [::qel::reactor event ::guard writable]] > 0} {
        ::qel::reactor start ;# refused: the loop that runs keeps its guard
    }
    set ::rounds 0
    ::qel::reactor event ::guard writable {
        if {[incr ::rounds] > 3} {::qel::reactor stop}
    }
    catch {::qel::reactor start}
    ::qel::reactor event ::guard writable {}
}
# Empties the pipe or writes to it, which may fill it; what does not fit waits in Tcl, once.
proc traffic {size} {
    if {$size == 0} {
        read $::source
    } elseif {[chan pending output $::sink] == 0} {
        puts -nonewline $::sink [string repeat x $size]
        flush $::sink
    }
}
# Raises a signal that is trapped now, for its handler to run.
proc raise {} {
    set trapped [dict keys [::qel::reactor signal trap]]
    foreach name {USR1 USR2} {
        if {"SIG$name" in $trapped} {
            # It is there even if exec fails, as it does while SIGCHLD is ignored.
            catch {exec sh -c "kill -$name [pid]"}
            incr ::raised
        }
    }
}
# Whether a raised signal waits for its handler.
proc pending {} {
    set f [open /proc/self/status]
    regexp {ShdPnd:\s+(\w+)} [read $f] -> set
    close $f
    expr {"0x$set" & 0xa00}
}
# Tcl writes what waits in the pipe when it exits, and would wait for a reader.  Its event
# loop writes it before: a flush does nothing once that has begun.
proc finish {status} {
    while {[chan pending output $::sink] > 0} {
        read $::source
        update
    }
    exit $status
}

# One command: the words of a call.
proc generate {} {
    if {rand() < 0.002} {return raise}
    switch [pick {new create create method method method method send recv configure
        configure poll debug reactor event event after after signal signal bgerror run
        utility extra traffic close trace interp rename curve monitor}] {
        new {list ::zmq::socket new [pick $::types]}
        create {list ::zmq::socket create [pick [concat $::names [list [word]]]] [pick $::types]}
        method {list [live] [pick {bind unbind connect disconnect stats destroy x {}}] \
            [pick $::endpoints] {*}[some 0 1]}
        send {set s [live]; timed $s; list $s send {*}[pick {{} -nowait}] {*}[some 0 4]}
        recv {set s [live]; timed $s; list $s recv {*}[pick {{} -nowait x}]}
        configure {list [live] configure {*}[lrange [list [pick [concat $::options [list [word]]]] \
            [word] [word]] 0 [pick {-1 0 1 1 1 2}]]}
        poll {list ::zmq::poll {*}[some 0 3] [pick [list [live] [live] $::source $::sink]] \
            [pick {0 0 0 x}]}
        debug {list ::zmq::debug {*}[pick [list {} 0 off [list worker [word]] [list node [word]] \
            [list [word] [word]] {file /nonexistent/x} worker {a b c}]]}
        reactor {list ::qel::reactor [pick {events stop timeout xx ev st event {}}] {*}[some 0 2]}
        event {list ::qel::reactor event [pick [list [live] [live] [word] $::source $::sink]] \
            [pick {readable writable read x}] [handler]}
        after {list ::qel::reactor after [pick [list 0 1 5 -1 info cancel [word]]] {*}[pick \
            [list {} [list [handler]] [list after#[expr {int(rand() * 50)}]] [some 0 3]]]}
        signal {list ::qel::reactor signal [pick {default ignore trap status block unblock x}] \
            {*}[pick [list {} [list [pick $::signals]] [list [pick $::signals] [handler]] [some 0 3]]]}
        bgerror {list ::qel::reactor bgerror {*}[pick [list {} ::qel::BgError swallow {{step 1}} \
            [list [word]]]]}
        run {list run_reactor}
        utility {list [pick {::zmq::build ::zmq::version ::qel::timestamp ::zmq::socket ::zmq::poll
            ::zmq::debug ::qel::reactor}] {*}[some 0 3]}
        extra {list {*}[pick {{::zmq::socket names} {::qel::reactor start}}] {*}[some 1 3]}
        traffic {list traffic [pick {0 0 1 100000}]}
        close {list [live] close}
        trace {list trace add command [live] delete {apply {args {catch {step 1}}}}}
        interp {list [expr {rand() < 0.1 ? "interp_round" : "::qel::timestamp"}]}
        curve {list ::zmq::curve [pick {server client server client keypair x}] [live] \
            {*}[lrange [list [pick $::keys] [pick $::keys] [pick $::keys]] 0 [pick {-1 0 0 1 2}]] {*}[some 0 1]}
        monitor {list ::zmq::monitor [pick {start start stop event x}] [live] [pick $::endpoints] \
            {*}[pick {{} accepted {closed listening} x}]}
        rename {list rename [live] [pick [concat $::names [list {}]]]}
    }
}
# Another interpreter of the thread uses and leaves everything that the two share.
proc interp_round {} {
    set i [interp create]
    interp eval $i {package require zmq; ::zmq::socket new PAIR}
    interp alias $i step {} step
    catch {interp eval $i [list ::qel::reactor after 0 {step 1}]}
    interp delete $i
}
proc swallow {args} {}
# Commands that would end, stop or mislead the check itself.
proc harmless {command} {
    lassign $command name sub
    foreach word $command {
        if {[string match *guard* $word]} {return 0}
    }
    if {$name eq "::zmq::poll" && [string is entier -strict [lindex $command end]]
        && [lindex $command end] ni {0 1}} {return 0}
    if {$name eq "rename" && ![string match ::zmq::zsock* $sub] && $sub ni $::names} {return 0}
    # Without its trap a signal that waits would end the process.
    if {$name eq "::qel::reactor" && [string match s* $sub] && [llength $command] > 3
        && $::raised && [pending]} {return 0}
    # A long linger time holds the end of the program up, as it is meant to.
    if {[lindex $command 2] eq "-linger" && [string is entier -strict [lindex $command 3]]
        && [lindex $command 3] ni {0 1}} {return 0}
    # A connection over inproc that waits for its endpoint while sockets close and bind can
    # meet an assertion of libzmq (pipe.cpp:87): the guards hold a and b.
    if {[string match con* $sub] && [string match inproc:* [lindex $command 2]]
        && [lindex $command 2] ni {inproc://a inproc://b}} {
        return 0
    }
    # libzmq ends the process by an assertion when a STREAM socket is given a message of
    # several frames, which a peer over inproc can do.
    return [expr {![string match inproc:* [lindex $command 2]]
        || [catch {$name configure -type} type] || $type ne "STREAM"}]
}
# Background errors come with the error's words.
proc step {n args} {
    for {} {$n > 0 && $::done < $::count} {incr n -1} {
        set command [generate]
        if {![harmless $command]} continue
        incr ::done
        if {[info exists ::env(ODD_TRACE)]} {puts stderr [string range $command 0 300]}
        if {[catch {uplevel #0 $command} message] == 1 && $message eq ""} {
            puts "no message: [string range $command 0 200]"
            finish 1
        }
        if {[llength [::zmq::socket names]] > 40} {
            foreach s [::zmq::socket names] {if {![string match ::guard* $s]} {catch {$s close}}}
        }
    }
}

# Tcl's notifier thread starts here, and must never take the signals that are raised: a
# thread that does not block them would meet their disposition.
::qel::reactor signal block {USR1 USR2}
after 0 {set started 1}
vwait started
::zmq::socket create ::guard PUSH
::guard bind inproc://guard
::zmq::socket create ::guarded PULL
foreach {name type} {a ROUTER b PAIR} {
    ::zmq::socket create ::guard-$name $type
    ::guard-$name bind inproc://$name
}
::guarded connect inproc://guard
while {$done < $count} {
    step 1
}
puts "$done commands, $raised signals raised"
finish 0
