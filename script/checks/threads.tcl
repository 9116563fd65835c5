# threads.tcl interpreters log ?library of planted faults? -- sixteen threads, each with so
# many interpreters, one after the other, that load the package, make sockets, exchange
# messages inside the thread and with the main thread, run the reactor, watch connections,
# write and redirect the log, and are deleted; threads end in several ways while others run.

package require zmq
package require Thread
lassign $argv interpreters log planted
set all 16

set prelude [list set auto_path $auto_path]\n[list set log $log]\n[list set last $interpreters]
append prelude {
    package require Thread
    proc attempt {script} {
        if {[catch {uplevel #0 $script} message options]} {
            tsv::lappend shared errors [dict get $options -errorinfo]
        }
    }
    proc inside {name script} {
        interp eval $name [list set ::auto_path $::auto_path]
        interp eval $name $script
    }
    proc redirect {number} {
        switch [expr {$number % 6}] {
            0 {::zmq::debug file $::log}
            1 {::zmq::debug on}
            2 {::zmq::debug worker worker$number}
            3 {::zmq::debug node [string repeat n $number]}
            4 {::zmq::debug file $::log.other}
            5 {::zmq::debug off}
        }
    }
}

# The reactor belongs to the thread's first interpreter, and runs the handlers there.
# The interpreters i1, i2, ... use it as guests.
set working {
    package require zmq
    proc failed {message options} {
        tsv::lappend shared errors [dict get $options -errorinfo]
        ::qel::reactor stop
    }
    ::qel::reactor bgerror failed
    proc answered {i} {
        if {[c$i recv] ne "$::thread-$i"} {error "another's answer"}
        if {$i % 5} {c$i close} else {::qel::reactor event c$i readable {}}
        ::qel::reactor stop
        if {$i == $::last && $::thread % 3 == 0} {thread::exit}
    }
    proc round {i} {
        ::zmq::socket create c$i DEALER
        ::qel::reactor event c$i readable [list answered $i]
        c$i connect [lindex $::endpoints [expr {$i % 2}]]
        c$i send $::thread-$i
        interp create i$i
        inside i$i [string map [list %i $i %t $::thread] {
            package require zmq::extra
            ::zmq::socket create a%i PAIR
            ::zmq::socket create b%i PAIR
            lassign [::zmq::curve keypair] public secret
            ::zmq::curve server a%i $secret
            ::zmq::curve client b%i $public
            ::zmq::monitor start a%i inproc://%t-%i.events
            a%i bind tcp://127.0.0.1:*
            a%i unbind [a%i configure -last_endpoint]
            if {%i % 2} {::zmq::monitor stop a%i}
            a%i bind inproc://%t-%i
            b%i connect inproc://%t-%i
            foreach n {1 2 3} {
                b%i send $n two
                a%i recv
                ::zmq::poll b%i 0
            }
            ::qel::reactor after 0 {set ::ticked %i}
            ::qel::reactor signal status
            ::qel::reactor start
            if {%i % 4 == 0} {a%i close}
        }]
        redirect [expr {$::thread + $i}]
        if {$i != $::last || $::thread % 3 == 1} {interp delete i$i}
    }
    attempt {for {set i 1} {$i <= $last} {incr i} {round $i}}
}

# Without a socket elsewhere, the end of a thread ends the context that others want.
set passing {
    attempt {
        package require zmq
        for {set i 1} {$i <= $last && $i <= $thread} {incr i} {
            inside [interp create] [string map [list %n $thread-$i] {
                package require zmq::extra
                ::zmq::monitor start [::zmq::socket new PUB] inproc://%n
            }]
            redirect [expr {$::thread + $i}]
            foreach name [interp slaves] {interp delete $name}
        }
    }
}

set racing "load [list $planted] Planted\nattempt {planted race word; planted copy word}"

# Starts the threads; more of the script makes some of them wait to be released.
proc start {script} {
    set threads {}
    for {set n 0} {$n < $::all} {incr n} {
        lappend threads [thread::create -joinable \
            "$::prelude\nset thread $n\n$script\nif {\$thread % 3 == 2} {thread::wait}"]
    }
    return $threads
}
proc end {threads} {
    set n 0
    foreach thread $threads {
        if {$n % 3 == 2} {thread::release $thread}
        incr n
    }
    foreach thread $threads {thread::join $thread}
}

tsv::set shared errors {}
if {$planted ne ""} {
    end [start $racing]
    exit 0
}
foreach {name endpoint} {inner inproc://server outer tcp://127.0.0.1:*} {
    ::zmq::socket create $name ROUTER
    $name bind $endpoint
    lappend endpoints [$name configure -last_endpoint]
    ::qel::reactor event $name readable [list serve $name]
}
set served 0
proc serve {name} {
    $name send {*}[$name recv]
    if {[incr ::served] == $::all * $::interpreters} {::qel::reactor stop}
}
proc watch {} {
    if {[tsv::get shared errors] ne ""} {::qel::reactor stop}
    ::qel::reactor after 200 watch
}
watch
set threads [start [list set endpoints $endpoints]\n$working]
::qel::reactor start
end $threads
foreach name {inner outer} {$name close}
end [start $passing]
set errors [tsv::get shared errors]
foreach error $errors {puts "FAIL: $error"}
puts "$all threads with $interpreters interpreters each, $served messages there and back,\
    [llength $errors] errors"
exit [expr {$errors ne ""}]
