# odd.tcl seed count -- calls every command, method and option with valid, boundary and
# absurd words, from top level and from inside handlers.
#
# The generator is seeded: the same seed makes the same commands.  Three rules keep it from
# waiting for ever: blocking calls are made with time-outs, the loop is always stopped by a
# handler that the generator does not know, and no socket lingers.

package require zmq
lassign $argv seed count
expr {srand($seed)}
set done 0

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
    inproc:// ipc:// ipc:///nonexistent/x tcp://127.0.0.1:99999 foo://x tcp://%s:%d]
set types {PAIR PUB SUB REQ REP DEALER ROUTER PULL PUSH XPUB XSUB STREAM pub NONE}
set options {}
set f [open [file join [file dirname [info script]] .. .. src socket_options.cpp]]
while {[gets $f line] >= 0} {
    if {[regexp {^\s*\{"(-\w+)", ZMQ} $line -> option]} {lappend options $option}
}
close $f
if {[llength $options] != 43} {error "[llength $options] options found"}
# The debug log may be sent to a file of any name.
set scratch [file normalize $::env(ODD_SCRATCH)]
cd $scratch
set signals {HUP SIGHUP INT USR1 SIGUSR2 10 12 17 SIGCLD 0 32 * WINCH URG SIGRTMIN}
set names {s0 s1 s2 s3 ::s4 "a b" "\u20ac" x::y}

proc word {} {
    switch [pick {word word word name signal option small socket}] {
        name {pick $::names}
        signal {pick $::signals}
        option {pick $::options}
        small {expr {int(rand() * 40) - 5}}
        socket {pick [concat [::zmq::socket names] none]}
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

# One command: the words of a call.
proc generate {} {
    switch [pick {new create create method method method method send recv configure
        configure poll debug reactor event event after after signal signal bgerror run
        utility close trace interp rename}] {
        new {list ::zmq::socket new [pick $::types]}
        create {list ::zmq::socket create [pick [concat $::names [list [word]]]] [pick $::types]}
        method {list [live] [pick {bind unbind connect disconnect stats destroy x {}}] \
            [pick $::endpoints] {*}[some 0 1]}
        send {set s [live]; timed $s; list $s send {*}[pick {{} -nowait}] {*}[some 0 4]}
        recv {set s [live]; timed $s; list $s recv {*}[pick {{} -nowait x}]}
        configure {list [live] configure {*}[lrange [list [pick [concat $::options [list [word]]]] \
            [word] [word]] 0 [pick {-1 0 1 1 1 2}]]}
        poll {list ::zmq::poll {*}[some 0 3] [live] [pick {0 0 0 x}]}
        debug {list ::zmq::debug {*}[pick [list {} 0 off [list worker [word]] [list node [word]] \
            [list [word] [word]] {file /nonexistent/x} worker {a b c}]]}
        reactor {list ::qel::reactor [pick {events stop timeout xx ev st event {}}] {*}[some 0 2]}
        event {list ::qel::reactor event [pick [list [live] [live] [word]]] \
            [pick {readable writable read x}] [handler]}
        after {list ::qel::reactor after [pick [list 0 1 5 -1 info cancel [word]]] {*}[pick \
            [list {} [list [handler]] [list after#[expr {int(rand() * 50)}]] [some 0 3]]]}
        signal {list ::qel::reactor signal [pick {default ignore trap status block unblock x}] \
            {*}[pick [list {} [list [pick $::signals]] [list [pick $::signals] [handler]] [some 0 3]]]}
        bgerror {list ::qel::reactor bgerror {*}[pick [list {} ::qel::BgError swallow [list [word]]]]}
        run {list run_reactor}
        utility {list [pick {::zmq::build ::zmq::version ::qel::timestamp ::zmq::socket ::zmq::poll
            ::zmq::debug ::qel::reactor}] {*}[some 0 3]}
        close {list [live] close}
        trace {list trace add command [live] delete {apply {args {catch {step 1}}}}}
        interp {list [expr {rand() < 0.1 ? "interp_round" : "::qel::timestamp"}]}
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
    if {$name eq "::zmq::poll" && [string is wideinteger -strict [lindex $command end]]
        && [lindex $command end] ni {0 1}} {return 0}
    if {$name eq "rename" && ![string match ::zmq::zsock* $sub] && $sub ni $::names} {return 0}
    # A long linger time holds the end of the program up, as it is meant to.
    if {[lindex $command 2] eq "-linger" && [string is wideinteger -strict [lindex $command 3]]
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
proc step {n} {
    for {} {$n > 0 && $::done < $::count} {incr n -1} {
        incr ::done
        set command [generate]
        if {![harmless $command]} continue
        if {[info exists ::env(ODD_TRACE)]} {puts stderr [string range $command 0 300]}
        if {[catch {uplevel #0 $command} message] == 1 && $message eq ""} {
            puts "no message: [string range $command 0 200]"
            exit 1
        }
        if {[llength [::zmq::socket names]] > 40} {
            foreach s [::zmq::socket names] {if {![string match ::guard* $s]} {catch {$s close}}}
        }
    }
}

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
puts "$done commands"
exit 0
