# zmq.tcl -- the workloads on this package: tclsh zmq.tcl package workload argument...
#
# Each proc is what a user would write, compiled by Tcl as any other.  Every workload
# prints one line "value ..."; those with a peer print the endpoint that they are bound
# to before.  The driver gives the directory of the package as ::env(TCLLIBPATH).  The
# package is "zmq" or, for what such procs cost by themselves, "bare", whose commands do the
# same with little beyond the calls of libzmq.

proc ops_per_second {count script} {
    uplevel 1 [list set count [expr {$count / 10}]]
    uplevel 1 $script
    uplevel 1 [list set count $count]
    set start [clock microseconds]
    uplevel 1 $script
    return [expr {$count * 1e6 / ([clock microseconds] - $start)}]
}

# Keys from the environment, public and secret, are those of both ends.
proc keys_set {s side} {
    if {[info exists ::env(BENCH_KEYS)]} {
        package require zmq::extra
        lassign [split $::env(BENCH_KEYS)] public secret
        zmq::curve $side $s {*}[dict get [list server [list $secret] \
            client [list $public $public $secret]] $side]
    }
}

proc bound {type} {
    set s [zmq::socket new $type]
    keys_set $s server
    $s bind tcp://127.0.0.1:*
    puts [$s configure -last_endpoint]
    flush stdout
    return $s
}

proc connected {type endpoint} {
    set s [zmq::socket new $type]
    keys_set $s client
    $s connect $endpoint
    return $s
}

proc idle_sockets {count} {
    set sockets {}
    for {set i 0} {$i < $count} {incr i} {
        lappend sockets [zmq::socket new PULL]
    }
    return $sockets
}

proc payload {size} {
    return [binary format a* [string repeat x $size]]
}

# What a user's loops look like.

proc through {out in bytes count} {
    for {set i 0} {$i < $count} {incr i} {
        $out send $bytes
        set message [$in recv]
    }
}

proc through_frames {out in frames count} {
    for {set i 0} {$i < $count} {incr i} {
        $out send {*}$frames
        set message [$in recv]
    }
}

proc receive {in count} {
    for {set i 0} {$i < $count} {incr i} {
        set message [$in recv]
    }
}

proc transmit {out bytes count} {
    for {set i 0} {$i < $count} {incr i} {
        $out send $bytes
    }
}

# A message of two frames is the last one.
proc on_message {in} {
    if {[llength [$in recv]] == 2} {
        qel::reactor stop
    }
}

proc react {in} {
    qel::reactor event $in readable [list on_message $in]
    qel::reactor start
}

proc poll {sockets count} {
    while {$count > 0} {
        foreach s [zmq::poll {*}$sockets 5000] {
            set message [$s recv]
            incr count -1
        }
    }
}

proc ask {s bytes count} {
    for {set i 0} {$i < $count} {incr i} {
        $s send $bytes
        set answer [$s recv]
    }
}

# The workloads.

proc workload_inproc {size frames copy count} {
    set in [zmq::socket new PULL]
    set out [zmq::socket new PUSH]
    $in bind inproc://self
    $out connect inproc://self
    set bytes [payload $size]
    if {$frames == 1} {
        return [ops_per_second $count {through $out $in $bytes $count}]
    }
    set all [lrepeat $frames $bytes]
    return [ops_per_second $count {through_frames $out $in $all $count}]
}

proc workload_recv {count} {
    set in [bound PULL]
    return [ops_per_second $count {receive $in $count}]
}

proc workload_send {size count} {
    set out [bound PUSH]
    set bytes [payload $size]
    return [ops_per_second $count {transmit $out $bytes $count}]
}

proc workload_reactor {idle count} {
    foreach s [idle_sockets $idle] {
        qel::reactor event $s readable [list $s recv]
    }
    set in [bound PULL]
    return [ops_per_second $count {react $in}]
}

proc workload_poll {idle count} {
    set sockets [idle_sockets $idle]
    lappend sockets [bound PULL]
    return [ops_per_second $count {poll $sockets $count}]
}

proc workload_rtt {endpoint size count} {
    set s [connected REQ $endpoint]
    set bytes [payload $size]
    return [ops_per_second $count {ask $s $bytes $count}]
}

proc workload_echo {} {
    set s [bound REP]
    while {1} {
        $s send {*}[$s recv]
    }
}

# The example as it stands, on the commands that are there.
proc workload_worker {file args} {
    package provide zmq 1.0
    set ::argv $args
    uplevel #0 [list source $file]
}

# Timers, and Tcl's own for comparison: the same procs, once with either command.

foreach {name after start stop} {
    package {qel::reactor after} {qel::reactor start} {qel::reactor stop}
    after   after                {vwait ::done}       {set ::done 1}
} {
    set map [list @name $name @after $after @start $start @stop $stop]
    eval [string map $map {
        proc schedule-@name {delays} {
            foreach delay $delays {
                lappend ids [@after $delay tick-@name]
            }
            return $ids
        }
        proc cancel-@name {ids} {
            foreach id $ids {
                @after cancel $id
            }
        }
        proc tick-@name {} {
            if {[incr ::left -1] == 0} {
                @stop
            }
        }
        proc run-@name {} {
            @start
        }
    }]
}

proc rate {count start} {
    return [expr {$count * 1e6 / ([clock microseconds] - $start)}]
}

proc shuffled {values} {
    set keyed [lmap value $values {list [expr {rand()}] $value}]
    return [lmap pair [lsort -real -index 0 $keyed] {lindex $pair 1}]
}

# Calls a proc in the caller and adds the microseconds it takes to a variable there.
proc timed {variable command} {
    upvar 1 $variable total
    set start [clock microseconds]
    set result [uplevel 1 $command]
    incr total [expr {[clock microseconds] - $start}]
    return $result
}

# Count timers scheduled each later than all before, scheduled at random, and cancelled at
# random, all that so many times.
proc workload_timers {which count times} {
    expr {srand(1)}
    for {set i 1} {$i <= $count} {incr i} {
        lappend delays [expr {100000 * $i}]
    }
    for {set i 0} {$i < $times} {incr i} {
        cancel-$which [shuffled [timed rising {schedule-$which $delays}]]
        set order [shuffled $delays]
        set ids [shuffled [timed random {schedule-$which $order}]]
        timed cancelled {cancel-$which $ids}
    }
    return [lmap us [list $rising $random $cancelled] {expr {1e6 * $times * $count / $us}}]
}

# What one more timer costs where count stand: scheduled later than all others, at random,
# and cancelled by id, any of them.  Tcl's own are filled in latest first, for they are kept in
# lists, and so many in another order take minutes; that is also why it has fewer more.
proc workload_standing {which count} {
    set sample [expr {$which eq "after" ? 300 : 10000}]
    set ms 100000
    for {set i $count} {$i > 0} {incr i -1} {
        lappend delays [expr {$ms * $i}]
    }
    cancel-$which [schedule-$which {1000000 2000000}]
    expr {srand(1)}
    for {set i 0} {$i < $sample} {incr i} {
        lappend rising [expr {$ms * ($count + $i + 1)}]
        lappend random [expr {int($ms * rand() * $count)}]
    }
    set ids [schedule-$which $delays]
    set start [clock microseconds]
    schedule-$which $rising
    set rates [rate $sample $start]
    set start [clock microseconds]
    schedule-$which $random
    lappend rates [rate $sample $start]
    set ids [lrange [shuffled $ids] 1 $sample]
    set start [clock microseconds]
    cancel-$which $ids
    return [lappend rates [rate $sample $start]]
}

# Runs timers that are all due.  They too were scheduled latest first, so that Tcl finds
# each at the head of its lists, and by the clock: a machine that is busy meanwhile must
# not make the next one due later than those before.
proc workload_due {which count} {
    set first [expr {[clock milliseconds] + 20 + $count / 50}]
    for {set i $count} {$i > 0} {incr i -1} {
        schedule-$which [list [expr {$first + $i / 200 - [clock milliseconds]}]]
    }
    after [expr {$first + $count / 200 + 1 - [clock milliseconds]}]
    set ::left $count
    set start [clock microseconds]
    run-$which
    return [rate $count $start]
}

# Growth: microseconds to create and to delete one of count, and the bytes one holds.  Timers
# fall due at random, and everything is deleted at random; handlers are those of channels,
# of which there can be more than sockets.  What is to be deleted is what create gives.

proc resident {} {
    set f [open /proc/self/smaps_rollup] ;# exact, which VmRSS is not
    regexp {Rss:\s+(\d+)} [read $f] -> kilobytes
    close $f
    return [expr {$kilobytes * 1024}]
}

proc create_sockets {names} {
    foreach name $names {
        zmq::socket create $name PULL
    }
    return $names
}

proc delete_sockets {names} {
    foreach name $names {
        $name close
    }
}

proc create_handlers {names} {
    foreach name $names {
        qel::reactor event $name readable [list on_message $name]
    }
    return $names
}

proc delete_handlers {names} {
    foreach name $names {
        qel::reactor event $name readable {}
    }
}

proc create_timers {delays} {
    schedule-package $delays
}

proc delete_timers {ids} {
    cancel-package $ids
}

proc names_sockets {count} {
    for {set i 0} {$i < $count} {incr i} {
        lappend names s$i
    }
    return $names
}

proc names_handlers {count} {
    for {set i 0} {$i < $count} {incr i} {
        lappend names [open /dev/null]
    }
    return $names
}

proc names_timers {count} {
    for {set i 0} {$i < $count} {incr i} {
        # Each delay once, in no order; shuffling would leave memory behind for the timers.
        lappend delays [expr {100000 + $i * 7919 % $count}]
    }
    return $delays
}

proc workload_grow {kind count} {
    delete_$kind [create_$kind [names_$kind 1]]
    set names [names_$kind $count]
    set before [resident]
    set start [clock microseconds]
    set made [create_$kind $names]
    set created [expr {([clock microseconds] - $start) / double($count)}]
    set held [expr {([resident] - $before) / double($count)}]
    set made [shuffled $made]
    set start [clock microseconds]
    delete_$kind $made
    set deleted [expr {([clock microseconds] - $start) / double($count)}]
    return [list $created $deleted $held]
}

lassign $argv package workload
package require $package
puts "value [workload_$workload {*}[lrange $argv 2 end]]"
flush stdout
if {$package eq "zmq"} {
    foreach s [zmq::socket names] {
        $s close
    }
}
