#!/usr/bin/env tclsh
# boss.tcl -- gives the lines of standard input to workers and prints what they yield.
#
#     boss.tcl ?-patience ms? ?-key file? ?-known directory? jobs results dead
#
# The three arguments are endpoints to bind.  Any number of workers connect:
#
#     worker.tcl -jobs endpoint -results endpoint -dead endpoint -job script
#
# A job has two frames, its number and the line in UTF-8.  The worker's procedure "job"
# returns the number, then frames of its own, as the one that is built in does.  A job
# without an answer after "patience" milliseconds is given out again, since the worker that
# had it may have ended: so a job can be done twice, and is printed once.
#
# The program ends when the input has ended and every job has an answer; with status 1 if
# a job failed.

source [file join [file dirname [info script]] common.tcl]
need zmq tcl-parvo

foreach signal {SIGINT SIGTERM} {
    ::qel::reactor signal trap $signal stop
}
proc stop {signal} {
    set ::status 1
    ::qel::reactor stop
}
::qel::reactor bgerror complain

set limit 1000  ;# jobs without an answer, at most
set open {}     ;# number -> line, of these jobs
set given {}    ;# number -> when it was given out, longest ago first
set waiting {}  ;# numbers of jobs that are to be given out
set number 0
set status 0
set ended 0     ;# there is no more input

# Input is read only while there is room for it.  After an error the rest is not read.
proc readable {} {
    if {[catch {
        while {[dict size $::open] < $::limit && [gets stdin line] >= 0} {
            dict set ::open [incr ::number] $line
            lappend ::waiting $::number
        }
    } message]} {
        complain $message
        set ::status 1
        set ::ended 1
    } elseif {[eof stdin]} {
        set ::ended 1
    }
    go_on
}

# Decides what the program waits for.
proc go_on {} {
    ::qel::reactor event jobs writable [expr {[llength $::waiting] > 0 ? "give" : ""}]
    ::qel::reactor event stdin readable \
        [expr {[dict size $::open] < $::limit && !$::ended ? "readable" : ""}]
    if {$::ended && [dict size $::open] == 0} {
        ::qel::reactor stop
    }
}

proc give {} {
    while {[llength $::waiting] > 0} {
        set job [lindex $::waiting 0]
        if {[dict exists $::open $job]} {
            set line [encoding convertto utf-8 [dict get $::open $job]]
            if {[catch {jobs send -nowait $job $line}]} {
                break
            }
            dict set ::given $job [clock milliseconds]
        }
        set ::waiting [lrange $::waiting 1 end]
    }
    go_on
}

# An answer: a result, or a job that failed.  Only the first one to a job counts.
proc answer {job text failed} {
    if {[dict exists $::open $job]} {
        dict unset ::open $job
        dict unset ::given $job
        set ::status [expr {$::status || $failed}]
        show "$job $text"
        go_on
    }
}
proc result {} {
    set frames [lassign [results recv -nowait] kind worker job]
    if {$kind eq "result"} {
        set text "[frame_text $worker]:"
        foreach frame $frames {
            append text " [frame_text $frame]"
        }
        answer $job $text 0
    }
}
proc failure {} {
    lassign [dead recv -nowait] worker reason job
    answer $job "[frame_text $worker] failed: [frame_text $reason]" 1
}

proc look_after {} {
    ::qel::reactor after 1000 look_after
    set late [expr {[clock milliseconds] - $::arg(patience)}]
    dict for {job time} $::given {
        if {$time > $late} {
            break
        }
        dict unset ::given $job
        lappend ::waiting $job
    }
    go_on
}

arguments [concat {
    {jobs endpoint}
    {results endpoint}
    {dead endpoint}
    {-patience {number 1} 10000}
} $keyOptions]
foreach {socket type} {jobs PUSH results PULL dead PULL} {
    ::zmq::socket create $socket $type
    $socket configure -sndhwm 10 ;# jobs wait here, and not for one worker among many
}
guard jobs results dead
foreach {socket event} {jobs {} results result dead failure} {
    attach $socket bind $arg($socket) $socket
    say "$socket [$socket configure -last_endpoint]" stderr
    if {$event ne {}} {
        ::qel::reactor event $socket readable $event
    }
}
fconfigure stdin -blocking 0
take_any_bytes stdin
::qel::reactor event stdin readable readable
look_after
::qel::reactor start
if {[dict size $open] > 0} {
    say "$program: jobs without an answer: [dict size $open]" stderr
}
exit $status
