# jobs.tcl -- jobs through four workers and back: tclsh jobs.tcl system size count
#
#   queue, journal       examples/jobs without and with a journal; submit.tcl reads the jobs
#                        from a file, and its start is part of the time
#   pushpull             examples/worker.tcl; this program sends and receives
#   beanstalkd, binlog   beanstalkd without and with its log: a process puts the jobs, the
#                        workers reserve each, put its result and delete it, this program
#                        reserves and deletes the results
#
# Prints "value", the jobs done in a second, and with half of that rate the microseconds
# from handing in a job to its result, for half of the jobs and for 99 of a hundred.
#
# The other forms, "worker", "put" and "pace", are the processes of beanstalkd's side.
set here [file dirname [file normalize [info script]]]
set examples [file join [file dirname $here] examples]
set channels {}    ;# pipes of processes
set children {}    ;# numbers of the others

proc spawn {args} {
    set channel [open |[list [info nameofexecutable] {*}$args]]
    lappend ::channels $channel
    return $channel
}
# A channel that is closed has waited for its process.
proc finish {} {
    foreach process [concat $::children {*}[lmap channel $::channels {pid $channel}]] {
        catch {exec sh -c "kill -KILL $process" 2>/dev/null}
    }
    foreach channel $::channels {
        fconfigure $channel -blocking 1
        catch {close $channel}
    }
    file delete -force $::dir
}
# A job is its number, the time and filling.
proc job {number size} {
    set text "$number [clock microseconds] "
    append text [string repeat x [expr {$size - [string length $text]}]]
}
proc seconds_since {start} {expr {([clock microseconds] - $start) / 1e6}}
proc percentile {values share} {
    lindex [lsort -integer $values] [expr {int($share * ([llength $values] - 1))}]
}
# Calls "send_job job" at a rate for a second, and "receive" in between: it returns the times
# at which the jobs were handed in that have come back.
proc paced {rate size} {
    set latencies {}
    set sent 0
    set total [expr {int($rate)}]
    set start [clock microseconds]
    while {[llength $latencies] < $total} {
        set due [expr {min($total, int([seconds_since $start] * $rate))}]
        for {} {$sent < $due} {incr sent} {send_job [job $sent $size]}
        flush_jobs
        set times [receive]
        set now [clock microseconds]
        foreach time $times {lappend latencies [expr {$now - $time}]}
        if {![llength $times]} {after 1}
        if {[seconds_since $start] > 30} {error "[llength $latencies] of $total results in 30 s"}
    }
    return [list [percentile $latencies 0.5] [percentile $latencies 0.99]]
}
proc flush_jobs {} {}

# ---- The job queue.

proc run_queue {size count args} {
    set queue [spawn $::examples/jobs/queue.tcl -submit tcp://127.0.0.1:* \
        -workers tcp://127.0.0.1:* {*}$args 2>@1]
    while {![regexp {submitters at (\S+), workers at (\S+)} [gets $queue] -> submit workers]} {}
    for {set i 0} {$i < 4} {incr i} {spawn $::examples/jobs/worker.tcl -queue $workers}
    set command [list [info nameofexecutable] $::examples/jobs/submit.tcl -queue $submit]
    while {[regexp -all {\n  worker} [exec {*}$command -status]] < 4} {}
    set channel [open $::dir/jobs w]
    for {set i 0} {$i < $count} {incr i} {puts $channel [job $i $size]}
    close $channel
    set start [clock microseconds]
    exec {*}$command <$::dir/jobs >/dev/null
    set rate [expr {$count / [seconds_since $start]}]
    lappend ::channels [set ::pipe [open |$command r+]]
    fconfigure $::pipe -blocking 0 -translation binary -buffersize 1000000
    proc send_job {job} {puts $::pipe $job}
    proc flush_jobs {} {
        flush $::pipe
        update
    }
    proc receive {} {
        set times {}
        while {[gets $::pipe line] >= 0} {lappend times [lindex [split $line " "] 2]}
        return $times
    }
    concat $rate [paced [expr {$rate / 2}] $size]
}

# ---- PUSH and PULL.

proc run_pushpull {size count} {
    package require zmq
    set arguments {}
    foreach {name type} {jobs PUSH results PULL dead PULL} {
        set ::$name [::zmq::socket new $type]
        [set ::$name] configure -linger 0
        [set ::$name] bind tcp://127.0.0.1:*
        lappend arguments -$name [[set ::$name] configure -last_endpoint]
    }
    for {set i 0} {$i < 4} {incr i} {spawn $::examples/worker.tcl {*}$arguments -name $i}
    array set seen {}
    while {[array size seen] < 4} {set seen([lindex [$::results recv] 1]) 1}
    proc send_job {job} {$::jobs send $job}
    proc receive {} {
        set times {}
        for {set n 0} {$n < 500 && ![catch {$::results recv -nowait} frames]} {incr n} {
            if {[lindex $frames 0] eq "result"} {
                lappend times [lindex [split [lindex $frames 2] " "] 1]
            }
        }
        return $times
    }
    set start [clock microseconds]
    for {set sent 0; set done 0} {$done < $count} {} {
        for {set n 0} {$n < 200 && $sent < $count} {incr n; incr sent} {
            if {[catch {$::jobs send -nowait [job $sent $size]}]} break
        }
        incr done [llength [receive]]
    }
    set rate [expr {$count / [seconds_since $start]}]
    concat $rate [paced [expr {$rate / 2}] $size]
}

# ---- beanstalkd.

proc beanstalk {port args} {
    set channel [socket 127.0.0.1 $port]
    fconfigure $channel -translation binary -buffersize 100000
    foreach command $args {ask $channel $command}
    return $channel
}
proc ask {channel command} {
    puts -nonewline $channel $command\r\n
    flush $channel
    gets $channel
}
proc put {channel text} {ask $channel "put 0 0 60 [string length $text]\r\n$text"}
# Gives the number of a job; its text goes into a variable.
proc reserve {channel textName} {
    upvar 1 $textName text
    lassign [ask $channel reserve] - id length
    set text [read $channel $length]
    gets $channel
    return $id
}
proc run_beanstalkd {size count args} {
    set server [socket -server {} -myaddr 127.0.0.1 0]
    set port [lindex [fconfigure $server -sockname] 2]
    close $server
    lappend ::children [exec beanstalkd -l 127.0.0.1 -p $port {*}$args &]
    for {set n 0} {[catch {set results [beanstalk $port "watch results" "ignore default"]}]} {incr n} {
        if {$n > 500} {error "beanstalkd does not start"}
        after 10
    }
    for {set i 0} {$i < 4} {incr i} {gets [spawn $::here/jobs.tcl worker $port]}
    set start [clock microseconds]
    spawn $::here/jobs.tcl put $port $size $count
    for {set done 0} {$done < $count} {incr done} {ask $results "delete [reserve $results text]"}
    set rate [expr {$count / [seconds_since $start]}]
    spawn $::here/jobs.tcl pace $port $size [set paced [expr {int($rate / 2)}]]
    set latencies {}
    while {[llength $latencies] < $paced} {
        set id [reserve $results text]
        lappend latencies [expr {[clock microseconds] - [lindex [split $text " "] 1]}]
        ask $results "delete $id"
    }
    list $rate [percentile $latencies 0.5] [percentile $latencies 0.99]
}

lassign $argv system size count
if {$system eq "worker"} {
    set channel [beanstalk $size "watch jobs" "ignore default" "use results"]
    puts ready
    flush stdout
    while 1 {
        set id [reserve $channel text]
        put $channel $text
        ask $channel "delete $id"
    }
}
if {$system in {put pace}} {
    lassign $argv - port size count
    set channel [beanstalk $port "use jobs"]
    set start [clock microseconds]
    for {set i 0} {$i < $count} {incr i} {
        while {$system eq "pace" && $i > [seconds_since $start] * $count} {after 1}
        put $channel [job $i $size]
    }
    exit
}
set dir [file join [expr {[info exists env(TMPDIR)] ? $env(TMPDIR) : "/tmp"}] bench-jobs-[pid]]
file mkdir $dir/log
set code [catch {
    switch $system {
        queue {run_queue $size $count}
        journal {run_queue $size $count -journal $dir/journal}
        pushpull {run_pushpull $size $count}
        beanstalkd {run_beanstalkd $size $count}
        binlog {run_beanstalkd $size $count -b $dir/log}
    }
} result]
finish
if {$code} {
    puts stderr "jobs.tcl $system: $result"
    exit 1
}
puts "value $result"
