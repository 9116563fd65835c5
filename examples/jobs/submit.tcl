#!/usr/bin/env tclsh
# submit.tcl -- hands jobs to queue.tcl and writes their results.
#
#   submit.tcl -queue endpoint ?-name name? ?-results file?  <jobs >results
#   submit.tcl -queue endpoint -status
#   submit.tcl -queue endpoint -name name -forget
#
# Each also takes ?-server file? ?-key file?, for a queue with keys.
#
# Each line of standard input is a job; its number is that of the line.  Each result is a
# line "number result" of standard output, in any order; in it a line feed is written \n
# and a backslash \\.  Jobs that cannot be done are named on standard error.
#
# Stopped in whatever way and run again with the same name and input, it submits no job
# twice and writes the results that are missing.  After kill -9 the last lines of standard
# output may come a second time; with -results they go to a file instead, which is read
# first, so that each result is there once.  At the end the name is free again.
#
# Exit status: 0 when every job has its result, 1 when some are dead letters or the work
# is not complete, 2 for a wrong command line.
package require zmq

# Traps come first, see worker.tcl.
foreach signal {SIGTERM SIGINT} {::qel::reactor signal trap $signal interrupt}
source [file join [file dirname [file normalize [info script]]] jobs.tcl]

set window 10000     ;# jobs without a result at most
set windowBytes 16000000
set number 0         ;# of the last line read
set eof 0
set unfinished 0     ;# jobs without a result: Tcl counts those of an array one by one
set bytes 0          ;# of these
set reading 0
set forgetting 0     ;# the queue is asked to forget the name
set status 0
set refusal ""
array set line {}    ;# number -> job without a result
array set have {}    ;# number -> 1: its result is written, the line was not read yet
set dead 0           ;# dead letters

proc finish {code} {
    set ::status $code
    ::qel::reactor stop
}
proc interrupt {signal} {
    log "stopped by $signal, $::unfinished jobs without a result: run again as -name $::option(-name)"
    finish 1
}

# Reads standard input while there is room for its jobs.
proc read_jobs {} {
    upvar #0 line line number number
    set numbers {}
    set jobs {}
    set size 0
    while {[llength $jobs] < 200 && $size < 1000000} {
        if {[catch {gets stdin job} length]} {
            log "cannot read the jobs: $length"
            return [finish 1]
        }
        if {$length < 0} break
        incr number
        if {[info exists ::have($number)]} {
            unset ::have($number)
            continue
        }
        set line($number) $job
        lappend numbers $number
        lappend jobs $job
        incr size $length
    }
    if {[llength $numbers]} {
        incr ::unfinished [llength $numbers]
        incr ::bytes $size
        inform submit $numbers {*}$jobs
    }
    if {[eof stdin]} {set ::eof 1}
    arrange
}
proc arrange {} {
    set want [expr {!$::eof && $::greeted && $::refusal eq ""
        && $::unfinished < $::window && $::bytes < $::windowBytes}]
    if {$want != $::reading} {
        set ::reading $want
        ::qel::reactor event stdin readable [expr {$want ? "read_jobs" : ""}]
    }
    if {$::eof && $::greeted && !$::unfinished} forget
}
# Once for each welcome: whatever follows it finds a queue that does not know us any more.
proc forget {} {
    if {!$::forgetting} {inform forget}
    set ::forgetting 1
}
proc submit_again {numbers} {
    while {[llength $numbers]} {
        set some {}
        set jobs {}
        foreach n [lrange $numbers 0 199] {
            if {[info exists ::line($n)]} {
                lappend some $n
                lappend jobs $::line($n)
            }
        }
        set numbers [lrange $numbers 200 end]
        if {[llength $some]} {inform submit $some {*}$jobs}
    }
}

proc hear_hello {version} {
    if {$version != 1} {hear_error "the queue speaks version $version, this program version 1"}
    inform hello 1 submitter $::option(-name) $::token
}
proc welcomed {} {
    set ::forgetting 0
    if {$::option(-forget)} {return [forget]}
    submit_again [lsort -integer [array names ::line]]
    arrange
}
proc hear_accepted {numbers} {
    if {$::refusal ne ""} {
        log "the queue accepts jobs again"
        set ::refusal ""
        arrange
    }
}
proc hear_refused {numbers reason} {
    if {$::refusal eq ""} {
        set ::refusal [from_bytes $reason]
        log "the queue accepts no job now: $::refusal"
        arrange
    }
    ::qel::reactor after 1000 [list submit_again $numbers]
}
# Notes the end of a job; true if it is news.  After a restart results can come before
# their lines were read.
proc settle {number} {
    upvar #0 line line
    if {[info exists line($number)]} {
        incr ::unfinished -1
        incr ::bytes -[string length $line($number)]
        unset line($number)
        return 1
    }
    if {$number <= $::number || [info exists ::have($number)]} {return 0}
    set ::have($number) 1
}
proc hear_finished {numbers} {
    foreach number $numbers {settle $number}
    arrange
}
# What is written is written before it is acknowledged.
proc hear_results {numbers args} {
    upvar #0 line line bytes bytes unfinished unfinished
    set text ""
    foreach number $numbers result $args {
        if {[info exists line($number)]} {
            incr unfinished -1
            incr bytes -[string length $line($number)]
            unset line($number)
        } elseif {![settle $number]} continue
        append text $number " " [string map {\\ \\\\ \n \\n} $result] \n
    }
    if {[catch {puts -nonewline $::results $text; flush $::results} message]} {
        log "cannot write results: $message: run again as -name $::option(-name)"
        return [finish 1]
    }
    inform acknowledge $numbers
    arrange
}
proc hear_dead {numbers args} {
    foreach number $numbers reasons $args {
        if {[settle $number]} {
            incr ::dead
            log "job $number is dead: [join [from_bytes $reasons] {; }]"
        }
    }
    inform acknowledge $numbers
    arrange
}
# A question that came behind this one is left unanswered: the answer would enter the name again.
proc hear_forgotten {} {
    disconnect_queue 0
    finish [expr {$::dead > 0}]
}

proc hear_status {text} {
    set status [from_bytes $text]
    catch {
        foreach {word value} $status {
            if {$word ni {workers submitters}} {puts [format "%-12s %s" $word $value]}
        }
        foreach word {workers submitters} {
            puts "$word:"
            foreach entry [dict get $status $word] {puts "  $entry"}
        }
    }
    finish 0
}

# Results known from an earlier run; an end that was cut off is not a result.  What another
# submitter of this name still writes, before it learns that it was replaced, is added.
proc open_results {file} {
    set ::results [open $file {RDWR CREAT APPEND} 0666]
    fconfigure $::results -translation binary
    seek $::results 0
    set end 0
    while {[gets $::results text] >= 0} {
        if {[eof $::results]} break
        set end [tell $::results]
        if {[regexp {^(\d+) } $text -> number]} {set ::have($number) 1}
    }
    chan truncate $::results $end
    seek $::results 0 end
}

proc draw_progress {} {
    set seen [expr {$::number - $::unfinished}]
    set part [expr {double($seen) / max(1, $::number)}]
    catch {
        puts -nonewline stderr [format "\r\[%-40s\] %d of %d%s" \
            [string repeat # [expr {round(40 * $part)}]] $seen $::number \
            [expr {$::eof ? "" : "+"}]]
    }
    ::qel::reactor after 200 draw_progress
}

read_options "submit.tcl -queue endpoint ?-name name? ?-results file? | -status | -forget\
    ?-server file? ?-key file?" [list [list -server {*}$keyRow] [list -key {*}$keyRow] \
    [list -queue {*}$endpointRow] [list -name [pid]@[info hostname] {*}$nameRow] \
    {-results "" . {the name of a file}} {-status 0} {-forget 0}]
foreach channel {stdin stdout} {fconfigure $channel -translation binary}
fconfigure stdin -blocking 0
set results stdout
if {$option(-results) ne "" && [catch {open_results $option(-results)} message]} {
    misused "-results \"$option(-results)\": $message"
}
::qel::reactor bgerror complain
connect_queue
if {$option(-status)} {
    proc hear_hello {version} {inform status}
} elseif {!$option(-forget) && [dict exists [fconfigure stderr] -mode]} {
    draw_progress
}
watch
::qel::reactor start
disconnect_queue 1000
if {[dict exists [fconfigure stderr] -mode]} {catch {puts stderr ""}}
exit $status
