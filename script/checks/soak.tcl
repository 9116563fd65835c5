# soak.tcl directory count
#
# Sends messages of 1, 3 and 20 frames and 0 B to 64 kB over inproc, ipc and tcp through
# reactor handlers and checks what comes back, while 200 timers and 100 signals a second
# arrive.  With peers that stay up each message must be there and back once, in order and
# whole.  Two peers are killed and started again: what was on its way then is counted.
# Counted are arrivals, there and back.

source [file join [file dirname [info script]] soak_peer.tcl]
package require zmq
interp alias {} reactor {} ::qel::reactor
lassign $argv work total
set window 32    ; # messages on their way at most, for each stream
set patience 20  ; # seconds without a message, timer or signal until the check gives up
# The check fails with fewer a second over the whole run: a tenth of what is asked for, since
# a busy machine delays timers and merges signals of one kind.
set least {timers 20 signals 10}
set growth 1024  ; # KiB that memory may grow by between the first tenth and the last
set begin [clock milliseconds]
set streams {inproc ipc tcp ipc-mortal tcp-mortal}
set state running ; # then draining, then ending
lassign {0 0 0 0} kills ticks signals counted

proc failed {message {options {}}} {
    if {[dict exists $options -errorinfo]} {puts [dict get $options -errorinfo]}
    puts "failed: $message"
    exit 1
}
reactor bgerror failed
proc signalled {name} {incr ::signals}
foreach name {USR1 USR2 WINCH URG} {reactor signal trap $name signalled}

# The data of a message and its checksum: most are small, some have the largest size.
proc data {number} {
    set size [expr {$number % 500 == 0 ? 65520 : $number % 100 == 1 ? int(rand() * 65520)
        : $number % 10 == 2 ? int(rand() * 2000) : $number % 10 == 3 ? 0 : int(rand() * 200)}]
    set count [lindex {1 3 1 20 1 1 1} [expr {$number % 7}]]
    for {set i 1; set from 0} {$i <= $count} {incr i; set from $to} {
        set to [expr {$i == $count ? $size : int($from + rand() * ($size - $from) / 4)}]
        lappend frames [string range $::pool $from [expr {$to - 1}]]
    }
    list [checksum $frames] $frames
}
expr {srand(1)}
for {set i 0} {$i < 16384} {incr i} {append pool [binary format I [expr {int(rand() * 2**32)}]]}
for {set i 0} {$i < 1000} {incr i} {lappend samples [data $i]}

# A stream has a socket, the next number to send, the number that this life of its peer
# began with, the number expected back from each life, and whether it is up (1), dying or
# still to come (0).
proc open_stream {name endpoint} {
    set s [set ::socket($name) [::zmq::socket new DEALER]]
    $s bind $endpoint
    lassign {1 1 1 0} ::next($name) ::base($name) ::expect($name,0) ::life($name)
    set ::returned($name) [set ::up($name) 0]
    reactor event $s readable [list drain $name]
}
proc in_flight {name} {expr {$::next($name) - $::expect($name,$::life($name))}}

# Sends while the socket takes messages and the window is open.
proc feed {name} {
    for {set i 0} {$i < 16} {incr i} {
        set seq $::next($name)
        if {$::state ne "running" || [in_flight $name] >= $::window} {
            reactor event $::socket($name) writable {}
            return
        }
        lassign [lindex $::samples [expr {$seq % 1000}]] sum frames
        if {[catch {$::socket($name) send -nowait {*}[pack $seq 0 $sum $frames]}]} return
        incr ::next($name)
    }
}
proc drain {name} {
    for {set i 0} {$i < 16 && ![catch {$::socket($name) recv -nowait} message]} {incr i} {
        switch [lindex $message 0] {
            hello {set ::up($name) 1}
            end {peer_ended $name [lindex $message 1]}
            default {arrival $name {*}[unpack $message]}
        }
    }
    if {$::state eq "running" && $::up($name) != 0} {
        reactor event $::socket($name) writable [list feed $name]
    }
}
# Each life of a peer sends back everything from its first message on.  What a killed
# one has sent may still come when the next one is there.
proc arrival {name seq life sum frames} {
    if {$seq != $::expect($name,$life)} {
        error "$name: message $seq instead of $::expect($name,$life) from life $life"
    }
    if {$sum != [lindex $::samples [expr {$seq % 1000}] 0]} {error "$name: wrong message $seq"}
    incr ::expect($name,$life)
    incr ::returned($name)
    if {2 * [incr ::counted] >= $::total && $::state eq "running"} {set ::state draining}
}

proc start_peer {name} {
    set ::pipe($name) [open |[list [info nameofexecutable] [file join [file dirname [info script]] \
        soak_peer.tcl] [$::socket($name) configure -last_endpoint] $::life($name) 2>@stderr] w]
}
# The signal comes in the middle of the traffic, which goes on until the peer is seen to be
# gone.  Then nothing is sent until the next life says hello.  That begins only when the
# socket has no connection to write to: while ZeroMQ takes down the old one, it would
# still get its share of the messages.
proc kill_peer {name} {
    if {$::up($name) != 1} return
    set ::up($name) dying
    exec sh -c "kill -KILL [pid $::pipe($name)]" &
    reactor after 50 [list next_life $name]
}
proc next_life {name} {
    set ::up($name) 0
    reactor event $::socket($name) writable {}
    if {[$::socket($name) configure -events] & 2} {
        reactor after 5 [list next_life $name]
        return
    }
    catch {close $::pipe($name)}
    incr ::kills
    unset -nocomplain ::expect($name,[expr {$::life($name) - 2}])
    set ::expect($name,[incr ::life($name)]) [set ::base($name) $::next($name)]
    start_peer $name
}
proc kill_turn {name other} {
    if {$::state ne "running"} return
    reactor after 300 [list kill_turn $other $name]
    kill_peer $name
}
proc peer_ended {name count} {
    if {$count != $::next($name) - $::base($name)} {error "$name: its peer counted $count"}
    set ::up($name) 0
    if {1 ni [lmap name $::streams {set ::up($name)}]} {reactor stop}
}
proc ended {dealer} {}

# Sends a signal every 10 ms, until its standard input ends: a different one each time, since
# a second one of the same kind is lost while the first waits.
set clock_program {
    LC_ALL=C
    due=${EPOCHREALTIME/./}
    names=(USR1 USR2 WINCH URG)
    while kill -${names[n++ % 4]} $0; do
        ((due += 10000, left = due - ${EPOCHREALTIME/./}))
        printf -v left 0.%06d $((left > 0 ? left : 1))
        read -rt $left
        (($? > 128)) || exit
    done
}
proc tick {due} {
    set now [clock milliseconds]
    if {$now < $due} {error "a timer came [expr {$due - $now}] ms early"}
    incr ::ticks
    incr due 100
    reactor after [expr {max(0, $due - $now)}] [list tick $due]
}
# Resident memory in KiB of this program and of the peers that stay up.
proc memory {} {
    lmap pid [list [pid] [pid $::pipe(ipc)] [pid $::pipe(tcp)]] {
        set f [open /proc/$pid/status]
        set text [read $f]
        close $f
        lindex [regexp -inline {VmRSS:\s+(\d+)} $text] 1
    }
}
# What a tenth of the run (1: the second) needed: queues fill and empty, so the median.
proc typical {tenth} {
    lmap column {0 1 2} {
        lindex [lsort -integer -index $column $::used($tenth)] [expr {[llength $::used($tenth)] / 2}] $column
    }
}
proc drained {} {
    foreach name $::streams {
        if {$::up($name) != 1 || [in_flight $name] > 0} {return 0}
    }
    return 1
}
proc sample {last moved} {
    set now [clock milliseconds]
    set tenth [expr {20 * $::counted / $::total}]
    if {$tenth in {1 9}} {lappend ::used($tenth) [memory]}
    # Each of the three must have changed since it was looked at last.
    set idle [lmap a [lrange $last 1 end] b [list $::counted $::ticks $::signals] {expr {$a == $b}}]
    if {1 ni $idle || $::state eq "ending"} {
        set moved $now
    } elseif {$now - $moved > $::patience * 1000} {
        failed "nothing moves: $::state, [lmap name $::streams {list $name [in_flight $name]}]"
    }
    reactor after 250 [list sample [list $now $::counted $::ticks $::signals] $moved]
    if {$::state eq "draining" && [drained]} {
        set ::state ending
        foreach name $::streams {$::socket($name) send end}
    }
}

foreach name $streams endpoint [list inproc://soak ipc://$work/steady tcp://127.0.0.1:* \
        ipc://$work/mortal tcp://127.0.0.1:*] {
    open_stream $name $endpoint
    if {$name ne "inproc"} {start_peer $name}
}
set dealer [::zmq::socket new DEALER]
$dealer connect inproc://soak
reactor event $dealer readable [list echo $dealer 0]
$dealer send hello
set clock [open |[list bash -c $clock_program [pid] 2>@stderr] w]
for {set i 0} {$i < 20} {incr i} {reactor after [expr {5 * $i}] [list tick [expr {$begin + 5 * $i}]]}
reactor after 300 {kill_turn ipc-mortal tcp-mortal}
sample [list $begin 0 0 0] $begin
reactor start

foreach {name channel} [array get pipe] {close $channel}
catch {close $clock}
set seconds [expr {([clock milliseconds] - $begin) / 1000.0}]
set grown [lmap warm [typical 1] cool [typical 9] {expr {$cool - $warm}}]
set lost 0
foreach name $streams {
    set missing [expr {$next($name) - 1 - $returned($name)}]
    puts "$name: [expr {$next($name) - 1}] sent, $returned($name) back"
    incr lost $missing
    set statistics [$socket($name) stats]
    if {[dict get $statistics sent messages] != $next($name)} { # and the end
        failed "$name: its statistics are $statistics"
    }
    if {[string match *-mortal $name]} continue
    if {$missing != 0} {failed "$name: $missing lost"}
    if {[dict get $statistics received messages] != $returned($name) + 2} { # hello and end
        failed "$name: its statistics are $statistics"
    }
}
puts [format "%d messages in %.1f s: sent and sent back, each once, in order and whole;\
    %d timers and %d signals; %d peers killed, with %d in flight; memory grew by %s of %d KiB" \
    [expr {2 * $counted}] $seconds $ticks $signals $kills $lost [join $grown ", "] $growth]
exit [expr {[lindex [lsort -integer $grown] end] >= $growth || $kills == 0
    || $ticks < $seconds * [dict get $least timers]
    || $signals < $seconds * [dict get $least signals]}]
