#!/usr/bin/env tclsh
# main.tcl -- counts the words of text files with several worker processes.
#
#   main.tcl ?-workers number? ?-patience milliseconds? ?file ...?
#
# This program is the sink.  It starts a ventilator, which cuts the files into jobs, and
# workers from ../worker.tcl; adds up their results; stops all of them with SIGTERM;
# prints what came out.  A process whose heartbeat is missing for too long is named, and
# ends the count.  The exit status is 0 only if every word was counted.
package require zmq

# Traps come first, see ../worker.tcl.
foreach signal {SIGINT SIGTERM SIGHUP} {
    ::qel::reactor signal trap $signal interrupt
}

set here [file dirname [file normalize [info script]]]
source [file join $here words.tcl]
source [file join $here report.tcl]

set interval 250     ;# milliseconds from one look at the processes to the next
set failed 0         ;# something went wrong, the exit status is 1
set stopping 0       ;# the processes have been told to stop
set errors 0         ;# background errors
set dead 0           ;# jobs that ended as dead letters
set done 0           ;# jobs that ended with a result
set doneBytes 0      ;# their size
set total -1         ;# number of jobs, once known
set counts {}        ;# word -> number of times
# Of each process, by name: its channel until it has ended, its number, how many looks
# in a row found no heartbeat, its last statistics.
array set channel {}
array set process {}
array set silent {}
array set statistics {}

proc background {message {options {}}} {
    incr ::errors
    complain "background error: $message"
}

# Starts a Tcl program.  A child inherits the signals blocked for our traps: env gives
# it the usual ones.  Our end of its standard input tells it whether we live.
proc launch {name args} {
    set command [list env --default-signal=INT,TERM,HUP [info nameofexecutable] {*}$args]
    set pipe [open |[concat $command 2>@stderr] r+]
    fconfigure $pipe -blocking 0
    set ::channel($name) $pipe
    set ::process($name) [pid $pipe]
    set ::silent($name) 0
    ::qel::reactor event $pipe readable [list listen $name]
    say "started $name (process $::process($name))"
}

# Passes on what a process writes; the end of its output is the end of the process.
proc listen {name} {
    set pipe $::channel($name)
    while {[gets $pipe line] >= 0} {say "$name: $line"}
    if {[eof $pipe]} {
        ::qel::reactor event $pipe readable {}
        # A blocking channel is closed once the process has ended.  The error of one
        # that was killed is no news to the watch.
        fconfigure $pipe -blocking 1
        catch {close $pipe}
        unset ::channel($name)
        settle
    }
}

# Sends a signal; a process that has just ended does not mind.
proc signal {signal name} {
    if {[info exists ::channel($name)]} {
        catch {exec sh -c "kill -$signal $::process($name) 2>/dev/null"}
    }
}

# Once the processes have been told to stop: ends the loop when all have ended and, if
# all is well, their last heartbeats are here.
proc settle {} {
    if {$::stopping && ![array size ::channel] && ($::failed || ![array size ::silent])} {
        ::qel::reactor stop
    }
}

proc stop_processes {} {
    if {$::stopping} return
    set ::stopping 1
    foreach name [array names ::channel] {signal TERM $name}
    settle
}

# Something went wrong: says what, and ends the count.
proc give_up {message} {
    complain $message
    set ::failed 1
    stop_processes
    settle
}

proc interrupt {signal} {
    give_up "interrupted by $signal"
}

# Looks whether every process has sent a heartbeat lately.  Looks are counted instead of
# time, so that a suspended program does not blame the others when it continues.
proc watch {} {
    ::qel::reactor after $::interval watch
    foreach name [lsort -dictionary [array names ::silent]] {
        if {[incr ::silent($name)] * $::interval > $::patience} {
            unset ::silent($name)
            signal KILL $name
            give_up "$name (process $::process($name)) has sent no heartbeat for\
                $::patience ms: the count cannot be completed"
        }
    }
}

# A message from the ventilator or a worker: data, whose first frame says what it means.
proc receive {} {
    set frames [lassign [$::results recv -nowait] kind]
    switch -- $kind {
        result     {add_result {*}$frames}
        heartbeat  {note_heartbeat {*}$frames}
        jobs       {start_workers {*}$frames}
        total      {set ::total [lindex $frames 0]; check_end}
        unreadable {give_up [encoding convertfrom utf-8 [lindex $frames 0]]}
        default    {error "unknown message \"$kind\""}
    }
}

proc start_workers {endpoint} {
    if {$::stopping} return
    for {set i 1} {$i <= $::workers} {incr i} {
        launch worker-$i [file join $::here .. worker.tcl] -name worker-$i \
            -jobs $endpoint -results [$::results configure -last_endpoint] \
            -dead [$::letters configure -last_endpoint] \
            -job [file join $::here count.tcl] \
            -config [file join $::here .. worker.conf]
    }
}

# The work begins when every process has shown that it is there: else the first worker
# would be given most of the jobs.
proc note_heartbeat {name state stats} {
    if {![info exists ::silent($name)]} return
    set ::silent($name) 0
    set ::statistics($name) $stats
    if {$state eq "stopped"} {
        unset ::silent($name)
        settle
    }
    if {![info exists ::began] && [array size ::statistics] == $::workers + 1} {
        set ::began [clock microseconds]
        say "counting the words of [llength $::files] file(s), $::size bytes"
        puts $::channel(ventilator) go
        flush $::channel(ventilator)
    }
}

proc add_result {name number bytes words} {
    foreach {word count} [encoding convertfrom utf-8 $words] {
        dict incr ::counts $word $count
    }
    incr ::doneBytes $bytes
    incr ::done
    check_end
}

# A job that failed.
proc receive_letter {} {
    lassign [$::letters recv -nowait] name message number
    incr ::dead
    complain "$name could not do job $number: [encoding convertfrom utf-8 $message]"
    check_end
}

proc check_end {} {
    if {$::done + $::dead == $::total} {
        set ::ended [clock microseconds]
        stop_processes
    }
}

# The command line.
array set option {-workers 3 -patience 5000}
while {[info exists option([lindex $argv 0])]} {
    set argv [lassign $argv word option($word)]
}
set workers $option(-workers)
set patience $option(-patience)
if {!([string is integer -strict $workers] && $workers > 0
        && [string is integer -strict $patience])} {
    complain "usage: main.tcl ?-workers number? ?-patience milliseconds? ?file ...?"
    exit 2
}
if {![llength $argv]} {
    # Links are left out: they would count a text twice.
    set argv [lsort [glob -nocomplain -types f /usr/share/common-licenses/*]]
}
if {![llength $argv]} {
    complain "no file to count"
    exit 2
}
set files {}
set size 0
foreach file $argv {
    # Files are read twice, so pipes and terminals will not do.
    set path [file normalize $file]
    if {[file exists $path] && ![file isfile $path]} {
        complain "couldn't read \"$file\": not a regular file"
        exit 1
    }
    if {[catch {close [open $path]} message]} {
        complain $message
        exit 1
    }
    lappend files $path
    incr size [file size $path]
}

::qel::reactor bgerror background
set results [::zmq::socket new PULL]
set letters [::zmq::socket new PULL]
foreach socket [list $results $letters] handler {receive receive_letter} {
    $socket bind tcp://127.0.0.1:*
    ::qel::reactor event $socket readable $handler
}
launch ventilator [file join $here ventilator.tcl] \
    -results [$results configure -last_endpoint] {*}$files
watch
draw_progress
::qel::reactor start

# Nothing is left that an interrupt would have to clean up.
foreach signal {SIGINT SIGTERM SIGHUP} {
    ::qel::reactor signal default $signal
}
$results close
$letters close
clear_progress
if {$failed} {exit 1}
exit [expr {![print_report]}]
