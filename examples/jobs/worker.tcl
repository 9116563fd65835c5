#!/usr/bin/env tclsh
# worker.tcl -- takes jobs from queue.tcl, does them, and hands in what they yield.
#
#   worker.tcl -queue endpoint ?-name name? ?-job script? ?-config file?
#              ?-server file? ?-key file?
#
# The script defines the procedure "job": its argument is the text of a job, its result the
# text of the result; after an error the queue lets the job be tried again, a few times.
# A job that takes longer than the queue's -silence calls "beat" now and then.
#
# SIGTERM, SIGINT: finish the job in hand, give back those not begun, exit when the queue
# has every result.  SIGHUP: read the configuration file again.  SIGUSR1: show statistics.
package require zmq

# Traps come first: they protect the process only from here on, and only if no other
# thread was started before.  What arrives now waits until the reactor runs.
foreach {signal handler} {SIGTERM stop SIGINT stop SIGHUP reload SIGUSR1 report} {
    ::qel::reactor signal trap $signal $handler
}
source [file join [file dirname [file normalize [info script]]] jobs.tcl]

proc job {text} {return $text}

set backlog {}      ;# {{submitter numbers jobs} ...}: not begun
set working 0       ;# a slice of work is scheduled
set stopping 0
set status 0
set credit 2        ;# jobs that this worker takes
set average 1000.0  ;# microseconds that a job takes
array set open {}   ;# {submitter numbers} -> {kind outcomes}, not yet safe at the queue
array set total {done 0 failed 0}

# The settings, with what a configuration file says about them: one "name number" to a
# line.  The file is data, nothing in it is evaluated.
#   credit  jobs held here at most: they wait while other workers may be free
#   ahead   milliseconds of work to hold
#   linger  milliseconds that the queue has to take the last results
proc read_settings {file} {
    set settings {credit 100 ahead 20 linger 5000}
    if {$file eq ""} {return $settings}
    set channel [open [file normalize $file]]
    foreach line [split [read $channel][close $channel] \n] {
        if {[regexp {^\s*(credit|ahead|linger)\s+([1-9]\d{0,5})\s*$} $line -> name value]} {
            dict set settings $name $value
        } elseif {![regexp {^\s*(#|$)} $line]} {
            error "$file: not a setting: \"$line\""
        }
    }
    return $settings
}
proc reload {signal} {
    if {[catch {read_settings $::option(-config)} limits]} {
        return [log "old settings stay: $limits"]
    }
    set ::limits $limits
    log "new settings: $limits"
}
proc report {signal} {
    set waiting [concat {*}[lmap batch $::backlog {lindex $batch 1}]]
    log "statistics: [array get ::total] waiting [llength $waiting] credit $::credit\
        unconfirmed [array size ::open] settings: $::limits"
}

# The queue asks who we are: it learns what is held here, done or not.
proc hear_hello {version} {
    if {$version != 1} {hear_error "the queue speaks version $version, this worker version 1"}
    set ::greeted 0
    array set held {}
    foreach batch [concat [array names ::open] $::backlog] {
        lassign $batch submitter numbers
        lappend held($submitter) {*}$numbers
    }
    inform hello 1 worker $::option(-name) $::token $::credit {*}[array get held]
}
proc welcomed {} {
    foreach key [array names ::open] {
        lassign $key submitter numbers
        lassign $::open($key) kind outcomes
        inform $kind $submitter $::credit $numbers {*}$outcomes
    }
    if {$::stopping} {inform bye}
}
# The queue confirms a message under the numbers that this one had.
proc hear_kept {submitter numbers} {unset -nocomplain ::open([list $submitter $numbers])}
# What is done already is confirmed in any case.
proc hear_drop {submitter dropped} {
    set rest {}
    foreach batch $::backlog {
        lassign $batch name numbers jobs
        if {$name eq $submitter} {
            set left {}
            foreach number $numbers job $jobs {
                if {$number ni $dropped} {lappend left $number $job}
            }
            set numbers [lmap {number job} $left {set number}]
            set jobs [lmap {number job} $left {set job}]
        }
        if {[llength $numbers]} {lappend rest [list $name $numbers $jobs]}
    }
    set ::backlog $rest
}
proc hear_jobs {submitter numbers args} {
    # Jobs that arrive after our "bye" or before the welcome of a new connection are no
    # longer ours: the queue gives them out again.
    if {$::stopping || !$::greeted} return
    lappend ::backlog [list $submitter $numbers $args]
    if {!$::working} {
        set ::working 1
        ::qel::reactor after 0 work
    }
}

# Works on one batch for a few milliseconds, hands in what came out, and lets the reactor
# look at signals and messages.
proc work {} {
    set ::working 0
    if {![llength $::backlog] || $::stopping} return
    set ::backlog [lassign $::backlog batch]
    lassign $batch submitter numbers jobs
    set start [clock microseconds]
    set begun 0
    foreach kind {done failed} {
        set ${kind}Numbers {}
        set ${kind}Outcomes {}
    }
    foreach number $numbers job $jobs {
        incr begun
        if {[catch {job [from_bytes $job]} outcome]} {
            lappend failedNumbers $number
            lappend failedOutcomes [to_bytes $outcome]
        } else {
            lappend doneNumbers $number
            lappend doneOutcomes [to_bytes $outcome]
        }
        if {[set spent [expr {[clock microseconds] - $start}]] > 3000} break
    }
    if {$begun < [llength $numbers]} {
        set rest [list $submitter [lrange $numbers $begun end] [lrange $jobs $begun end]]
        set ::backlog [linsert $::backlog 0 $rest]
    }
    set ::average [expr {0.8 * $::average + 0.2 * $spent / $begun}]
    set ahead [expr {int(1000.0 * [dict get $::limits ahead] / max(1.0, $::average))}]
    set ::credit [expr {max(2, min([dict get $::limits credit], $ahead))}]
    hand_in done $submitter $doneNumbers $doneOutcomes
    hand_in failed $submitter $failedNumbers $failedOutcomes
    if {[llength $::backlog]} {
        set ::working 1
        ::qel::reactor after 0 work
    }
}
proc hand_in {kind submitter numbers outcomes} {
    if {![llength $numbers]} return
    incr ::total($kind) [llength $numbers]
    set ::open([list $submitter $numbers]) [list $kind $outcomes]
    if {$::greeted} {inform $kind $submitter $::credit $numbers {*}$outcomes}
}

# The jobs not begun go back with "bye"; the queue's answer comes behind the confirmation
# of every result.
proc stop {signal} {
    if {[incr ::stopping] > 1} return
    set ::backlog {}
    ::qel::reactor after [expr {[array size ::open] ? [dict get $::limits linger] : 1000}] give_up
    if {$::greeted} {inform bye}
}
proc hear_bye {} {
    if {!$::stopping} return
    disconnect_queue 0
    ::qel::reactor stop
}
proc give_up {} {
    if {[array size ::open]} {
        set ::status 1
        log "the queue did not take all results: other workers do these jobs again"
    }
    ::qel::reactor stop
}

read_options "worker.tcl -queue endpoint ?-name name? ?-job script? ?-config file?\
    ?-server file? ?-key file?" [list [list -server {*}$keyRow] [list -key {*}$keyRow] \
    [list -queue {*}$endpointRow] [list -name worker-[pid] {*}$nameRow] \
    {-job "" . {the name of a Tcl script}} {-config "" . {the name of a file of settings}}]
if {[catch {set limits [read_settings $option(-config)]} message]} {misused "-config: $message"}
if {$option(-job) ne "" && [catch {source $option(-job)} message]} {
    misused "-job \"$option(-job)\": $message"
}
::qel::reactor bgerror complain
connect_queue
watch
::qel::reactor start
disconnect_queue 1000
exit $status
