#!/usr/bin/env tclsh
# main.tcl -- counts the words of text files with several worker processes.
#
#   main.tcl ?-workers number? ?-patience milliseconds? ?file ...?
#
# The files, those of /usr/share/common-licenses if none is given, are cut into jobs for
# the programs in ../jobs: a submitter gets the jobs, a queue keeps them, workers count.
# When a quarter is done, one worker is killed and replaced: not a word may be missing.
# Whatever worker ends or is silent for longer than the patience is replaced, too.
#
# The exit status is 0 only if a plain count of the files finds the same.
set here [file dirname [file normalize [info script]]]
source [file join $here .. common.tcl]
need zmq tcl-parvo

# Traps come first, see ../worker.tcl.
foreach signal {SIGINT SIGTERM SIGHUP} {
    ::qel::reactor signal trap $signal interrupt
}
source [file join $here words.tcl]
source [file join $here report.tcl]

set jobBytes 4096    ;# a job is cut at the first end of a line beyond this
set spare 20         ;# workers that may be started in place of others
set failed 0         ;# something went wrong, the exit status is 1
set stopping 0       ;# the processes have been told to stop
set errors 0         ;# background errors
set dead 0           ;# jobs that ended as dead letters
set done 0           ;# jobs that ended with a result
set doneBytes 0      ;# their size
set killed 0         ;# the worker has been killed
set lastWorker 0     ;# number of the worker started last
set number 0         ;# of the job cut last
set source {}        ;# the file that is being cut
set unsent {}        ;# of a job, bytes that the submitter did not get
set counts {}        ;# word -> number of times
array set bytes {}   ;# number of a job without a result -> its size
array set jobsOf {}  ;# worker -> jobs done
array set bytesOf {} ;# worker -> their size
# Of each process, by name: its channel until it has ended, its number.
array set pipes {}
array set process {}

proc background {message {options {}}} {
    if {[string match "*unhandled ZMQ_POLLERR*" $message]} return
    incr ::errors
    warn "background error: $message"
}

# Starts a program of ../jobs.  It gets SIGTERM when this process ends, however that comes
# (the shell looks whether that was too early to be noticed), and none of the signals
# blocked for our traps.
proc launch {name program args} {
    set command [list setpriv --pdeathsig TERM sh -c {[ "$PPID" = "$0" ] && exec "$@"} [pid] \
        env --default-signal=INT,TERM,HUP \
        [info nameofexecutable] [file join $::here .. jobs $program.tcl] {*}$args]
    set pipe [open |[concat $command 2>@1]]
    fconfigure $pipe -blocking 0 -translation binary
    set ::pipes($name) $pipe
    set ::process($name) [pid $pipe]
    ::qel::reactor event $pipe readable [list listen $name $program]
    note "started $name (process $::process($name))"
}
proc launch_worker {} {
    set name worker-[incr ::lastWorker]
    launch $name worker -queue $::workersAt -name $name -job [file join $::here count.tcl]
}

# Passes on what a process writes; the end of its output is the end of the process.
proc listen {name program} {
    set pipe $::pipes($name)
    while {[gets $pipe line] >= 0} {hear_$program $name $line}
    if {[eof $pipe]} {
        ::qel::reactor event $pipe readable {}
        # A blocking channel is closed once the process has ended.
        fconfigure $pipe -blocking 1
        set status [catch {close $pipe}]
        unset ::pipes($name)
        if {$::stopping} {
            stop_queue
        } else {
            ended_$program $name $status
        }
    }
}

proc hear_queue {name line} {
    note "queue: $line"
    if {[regexp {submitters at (\S+), workers at (\S+)$} $line -> at ::workersAt]} {
        for {set i 0} {$i < $::arg(workers)} {incr i} launch_worker
        note "counting the words of [llength $::files] file(s), $::size bytes"
        set ::began [clock microseconds]
        lassign [chan pipe] jobs ::jobs
        launch submitter submit -queue $at <@$jobs
        close $jobs
        fconfigure $::jobs -translation binary -buffering none
        ::qel::reactor event $::jobs writable feed
    } elseif {[regexp {worker (\S+) is lost .*: silent} $line -> worker]} {
        signal KILL $worker
    }
}
proc ended_queue {name status} {give_up "the queue has ended"}

proc hear_worker {name line} {note "$name: $line"}
proc ended_worker {name status} {
    if {[incr ::spare -1] < 0} {return [give_up "$name has ended, and so have all before it"]}
    note "$name has ended: another one takes its place"
    launch_worker
}

# A result, or a line about the work.
proc hear_submit {name line} {
    if {![regexp {^(\d+) (.*)} $line -> number result]} {
        if {[regexp {: job \d+ is dead: } $line]} {incr ::dead}
        return [warn "submitter: $line"]
    }
    lassign [encoding convertfrom utf-8 [string map {\\\\ \\ \\n \n} $result]] worker words
    dict for {word count} $words {dict incr ::counts $word $count}
    incr ::done
    incr ::doneBytes $::bytes($number)
    incr ::jobsOf($worker)
    incr ::bytesOf($worker) $::bytes($number)
    unset ::bytes($number)
    if {!$::killed && $::doneBytes * 4 >= $::size && [info exists ::pipes(worker-1)]} {
        set ::killed 1
        note "killing worker-1 (process $::process(worker-1))"
        signal KILL worker-1
    }
}
# The submitter ends when every job has its result, or is a dead letter.
proc ended_submit {name status} {
    if {[array size ::bytes] != $::dead || $::source ne "" || [llength $::left]} {
        return [give_up "the submitter has ended before the count was complete"]
    }
    set ::ended [clock microseconds]
    stop_processes
}

# Gives the submitter more of a job when it has room.  A pipe that is writable has room for
# 4096 bytes, so this never waits; a non-blocking channel needs Tcl's own event loop.
proc feed {} {
    if {$::unsent eq ""} {
        if {[catch {next_text} text]} {return [end_of_jobs $text]}
        if {$text eq ""} {return [end_of_jobs]}
        set ::bytes([incr ::number]) [string length $text]
        # A job is one line; for words a blank is as good as the end of a line.
        set ::unsent [string map {\n { }} $text]\n
    }
    # When the submitter has ended, that is noticed where its output ends.
    if {[catch {puts -nonewline $::jobs [string range $::unsent 0 4095]}]} end_of_jobs
    set ::unsent [string range $::unsent 4096 end]
}
proc end_of_jobs {{problem ""}} {
    ::qel::reactor event $::jobs writable {}
    close $::jobs
    if {$problem ne ""} {give_up $problem}
}
# The text of the next job, of one file; empty after the last file.
proc next_text {} {
    while {$::source ne "" || [llength $::left]} {
        if {$::source eq ""} {
            set ::left [lassign $::left ::file]
            set ::source [open $::file rb]
        }
        set text ""
        while {[string length $text] < $::jobBytes} {
            if {[catch {gets $::source line} length]} {
                # The message of a failed read names the channel only.
                error "error reading \"$::file\": [lindex $::errorCode end]"
            }
            if {$length < 0} break
            append text $line \n
        }
        if {$text ne ""} {return $text}
        close $::source
        set ::source {}
    }
}

# Sends a signal; a process that has just ended does not mind.
proc signal {signal name} {
    if {[info exists ::pipes($name)]} {
        catch {exec sh -c "kill -$signal $::process($name) 2>/dev/null"}
    }
}
# A process that does not end when it is told to is killed.
proc stop_processes {{signal TERM}} {
    if {$::stopping && $signal eq "TERM"} return
    set ::stopping 1
    foreach name [array names ::pipes] {
        if {$name ne "queue" || $signal eq "KILL"} {signal $signal $name}
    }
    if {$signal eq "TERM"} {
        ::qel::reactor after $::arg(patience) {stop_processes KILL}
        stop_queue
    }
}
# The queue stops last, so that the others need not look for it.
proc stop_queue {} {
    if {[array names ::pipes] eq "queue"} {signal TERM queue}
    if {![array size ::pipes]} {::qel::reactor stop}
}
# Something went wrong: says what, and ends the count.
proc give_up {message} {
    warn $message
    set ::failed 1
    stop_processes
}
proc interrupt {signal} {
    give_up "interrupted by $signal"
}

arguments {{-workers {number 1} 3} {-patience {number 1} 5000} {file... file {}}}
if {![llength $arg(file)]} {
    # Links are left out: they would count a text twice.
    set arg(file) [lsort [glob -nocomplain -types f /usr/share/common-licenses/*]]
}
if {![llength $arg(file)]} {fail 2 "no file to count"}
set files {}
set size 0
foreach file $arg(file) {
    # Files are read twice, so pipes and terminals will not do.
    set path [file normalize $file]
    if {[file exists $path] && ![file isfile $path]} {
        fail 1 "couldn't read \"$file\": not a regular file"
    }
    if {[catch {close [open $path]} message]} {fail 1 $message}
    lappend files $path
    incr size [file size $path]
}
set left $files      ;# files that have not been cut

::qel::reactor bgerror background
launch queue queue -submit tcp://127.0.0.1:* -workers tcp://127.0.0.1:* -beat 100 \
    -silence $arg(patience) -patience $arg(patience)
draw_progress
::qel::reactor start

# Nothing is left that an interrupt would have to clean up.
foreach signal {SIGINT SIGTERM SIGHUP} {
    ::qel::reactor signal default $signal
}
clear_progress
if {$failed} {exit 1}
exit [expr {![print_report]}]
