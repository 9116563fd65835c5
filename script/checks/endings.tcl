# endings.tcl quick|full half ?type unsent ending place?
#
# Ends programs in every way, from every place, with a socket of every type that holds
# unsent messages or none, and with handlers, timers and traps that are never told.  Each
# case is a tclsh of its own; it says where it is and when it begins to end, and must be
# gone two seconds later with the right status and the right standard error.  half: 0 or 1,
# the cases with even or odd numbers.

source [file join [file dirname [info script]] .. .. tests support.tcl]
lassign $argv form half
set limit 2000 ; # milliseconds from the beginning of the end to the end

# How messages get stuck: where nobody listens, or in a peer that does not receive them.  A
# connection that is refused meanwhile takes the message that is being sent with it.
proc nowhere {what} {return "\$s connect tcp://127.0.0.1:1\ncatch {$what}"}
proc peer {type what} {
    return "\$s bind inproc://peer\nset peer \[::zmq::socket new $type]\n[string map \
        {CONNECT {$peer connect inproc://peer}} $what]"
}
set unsent [dict create \
    PAIR   [nowhere {foreach i {1 2 3} {$s send -nowait $i}}] \
    PUSH   [nowhere {foreach i {1 2 3} {$s send -nowait $i}}] \
    DEALER [nowhere {foreach i {1 2 3} {$s send -nowait $i {} $big}}] \
    REQ    [nowhere {$s send -nowait question}] \
    SUB    [nowhere {$s configure -subscribe topic}] \
    XSUB   [nowhere {$s send -nowait \1topic}] \
    PUB    [peer SUB {CONNECT; $peer configure -subscribe {}; until {$s send news}}] \
    XPUB   [peer XSUB {CONNECT; $peer send \1; $s recv; until {$s send news}}] \
    REP    [peer REQ {CONNECT; $peer send question; $s recv; until {$s send answer}}] \
    ROUTER [peer DEALER {CONNECT; $peer send x; set id [lindex [$s recv] 0]; until {$s send $id $big}}] \
    PULL   [peer PUSH {CONNECT; $peer send work; $peer send work}] \
    STREAM {set listener [socket -server list -myaddr 127.0.0.1 0]
        $s connect tcp://127.0.0.1:[lindex [fconfigure $listener -sockname] 2]
        set id [lindex [$s recv] 0]
        for {set i 0} {$i < 40} {incr i} {$s send $id $big}}]

# ending -> what begins it, what runs the program, its status
set endings {
    script      {{::qel::reactor stop} plain 0}
    exit        {{exit 3} plain 3}
    error       {{::qel::reactor stop; error boom} plain 0}
    term        {{signal_self TERM; after 10000} plain SIGTERM}
    term-trap   {{signal_self TERM; catch {::qel::reactor start}} plain 4}
    interp      {{vanish} interp 0}
    thread      {{::qel::reactor stop} thread 0}
    thread-exit {{thread::exit} thread 0}
}
set places {
    top      {::qel::reactor after 0 {::qel::reactor stop}; ::qel::reactor start; begin_end}
    readable {::a send x; ::qel::reactor event ::b readable begin_end}
    writable {::qel::reactor event ::a writable begin_end}
    channel-readable {lassign [chan pipe] r w; puts $w x; flush $w; ::qel::reactor event $r readable begin_end}
    channel-writable {lassign [chan pipe] r w; ::qel::reactor event $w writable begin_end}
    timer    {::qel::reactor after 0 begin_end}
    trap     {signal_self USR1}
    bgerror  {::qel::reactor bgerror begin_end; ::qel::reactor after 0 {error first}}
}

# A main thread that blocks the signals leaves them to the trap of the other thread.
set runners {
    plain  {BODY}
    interp {
        set i [interp create]
        interp alias $i vanish {} interp delete $i
        catch {interp eval $i {BODY}}
    }
    thread {
        package require zmq
        ::qel::reactor signal block {USR1 TERM}
        package require Thread
        thread::join [thread::create -joinable {BODY}]
    }
}
set body {
package require zmq
proc begin_end {args} {
    if {[incr ::begun] > 1} return
    puts "PLACE [clock milliseconds]"
    flush stdout
    FINISH
}
proc signal_self {signal} {exec sh -c "kill -$signal [pid]"}
proc until {script} {
    while {!([$::peer configure -events] & 1)} {uplevel #0 $script}
}
proc stopped {signal} {
    set ::stopped 1
    ::qel::reactor stop
}
namespace eval ::Lib {proc logicalname {} {return endings}}
::qel::reactor signal trap USR1 begin_end
TRAP
set big [string repeat x 1000000]
set s [::zmq::socket new TYPE]
UNSENT
::zmq::socket create ::a PAIR
::zmq::socket create ::b PAIR
::a bind inproc://ab
::b connect inproc://ab
::qel::reactor event $s readable {list}
::qel::reactor event $s writable {list}
foreach ms {50000 100000} {::qel::reactor after $ms {error late}}
AT
if {{PLACE} ne "top"} {::qel::reactor start}
if {[info exists stopped]} {exit 4}
}

# What standard error must hold, as a pattern for all of it, and the status where the
# place changes it: an error in a handler is reported and the program goes on.
set trace {(?:\n(?:    |")[^\n]*)+}
proc due {ending place} {
    global trace
    set status [lindex [dict get $::endings $ending] 2]
    switch -glob $ending-$place {
        error-top {return [list 1 "boom$trace\\n"]}
        error-bgerror {
            return [list $status "\\S+ \\S+:-:\\\[\\d+\]:-:error:bgerror:-: error <boom> occurred while\
                reporting on\\n\\terror <first>\\n\\toptions <\[^\\n]*{first$trace}\[^\\n]*>\\n"]
        }
        error-* {
            return [list $status "\\S+ \\S+:endings:error:\\\[\\d+\]:\[^\\n:]+:::qel::BgError boom\
                \{\[^\\n]*\{boom$trace\}\[^\\n]*\}\\n"]
        }
    }
    list $status {}
}

proc program {type held ending place} {
    lassign [dict get $::endings $ending] finish runner
    set body [string map [list PLACE $place FINISH $finish TYPE $type AT [dict get $::places $place] \
        TRAP [expr {$ending eq "term-trap" ? "::qel::reactor signal trap TERM stopped" : ""}] \
        UNSENT [expr {$held ? [dict get $::unsent $type] : ""}]] $::body]
    string map [list BODY $body] [dict get $::runners $runner]
}

proc run {case} {
    lassign $case - - ending place
    lassign [due $ending $place] wanted pattern
    lassign [child [program {*}$case]] out errors status
    set took [expr {[llength $out] == 2 ? [clock milliseconds] - [lindex $out 1] : 0}]
    set ::slowest [expr {max($::slowest, $took)}]
    foreach {what right} [list \
        "said \"$out\"" [expr {[lindex $out 0] eq $place && [llength $out] == 2}] \
        "took $took ms" [expr {$took <= $::limit}] \
        "ended with $status, not $wanted" [expr {$status eq $wanted}] \
        "standard error: $errors" [regexp "^$pattern\$" $errors]] {
        if {!$right} {lappend ::wrong "$case: $what"}
    }
}

# All cases; in the quick form each ending from each place with one type, a different one
# each time.
proc all_cases {} {
    set types [dict keys $::unsent]
    foreach held {0 1} {
        foreach ending [dict keys $::endings] {
            foreach place [dict keys $::places] {
                set one [lindex $types [expr {(7 * [incr number] + $number / 12) % [llength $types]}]]
                foreach type [expr {$::form eq "quick" ? [list $one] : $types}] {
                    lappend cases [list $type $held $ending $place]
                }
            }
        }
    }
    return $cases
}

lassign {0 0 {}} cases slowest wrong
foreach case [expr {[llength $argv] > 2 ? [list [lrange $argv 2 end]] : [all_cases]}] {
    if {[incr number] % 2 == $half && [llength $wrong] < 20} {
        run $case
        incr cases
    }
}
foreach line $wrong {puts $line}
puts "half $half: $cases endings, [llength $wrong] wrong, the slowest $slowest ms"
file delete -force $support(dir)
exit [expr {$wrong ne ""}]
