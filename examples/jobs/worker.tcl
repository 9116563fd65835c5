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

set backlog {}      ;# {submitter number job ...}: not begun
set head 0          ;# index of the next one
set working 0       ;# a slice of work is scheduled
set stopping 0
set status 0
set credit 2        ;# jobs that this worker takes
set average 1000.0  ;# microseconds that a job takes
array set open {}   ;# submitter/number -> {kind outcome}, not yet safe at the queue
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
    log "statistics: [array get ::total] waiting [waiting] credit $::credit\
        unconfirmed [array size ::open] settings: $::limits"
}
proc waiting {} {expr {([llength $::backlog] - $::head) / 3}}

# The queue asks who we are: it learns what is held here, done or not.
proc hear_hello {version} {
    if {$version != 1} {hear_error "the queue speaks version $version, this worker version 1"}
    set ::greeted 0
    array set held {}
    foreach key [array names ::open] {
        regexp {^(.*)/(\d+)$} $key -> submitter number
        lappend held($submitter) $number
    }
    foreach {submitter number job} [lrange $::backlog $::head end] {
        lappend held($submitter) $number
    }
    inform hello 1 worker $::option(-name) $::token $::credit {*}[array get held]
}
proc welcomed {} {
    foreach key [array names ::open] {
        regexp {^(.*)/(\d+)$} $key -> submitter number
        lassign $::open($key) kind outcome
        inform $kind $submitter $::credit $number $outcome
    }
    if {$::stopping} {inform bye}
}
proc hear_kept {submitter numbers} {
    foreach number $numbers {unset -nocomplain ::open($submitter/$number)}
}
proc hear_drop {submitter numbers} {
    hear_kept $submitter $numbers
    set rest {}
    foreach {name number job} [lrange $::backlog $::head end] {
        if {$name ne $submitter || $number ni $numbers} {lappend rest $name $number $job}
    }
    set ::backlog $rest
    set ::head 0
}
proc hear_jobs {submitter numbers args} {
    # Jobs that arrive after our "bye" or before the welcome of a new connection are no
    # longer ours: the queue gives them out again.
    if {$::stopping || !$::greeted} return
    foreach number $numbers job $args {lappend ::backlog $submitter $number $job}
    if {!$::working} {
        set ::working 1
        ::qel::reactor after 0 work
    }
}

# Works for a few milliseconds, hands in what came out, and lets the reactor look at
# signals and messages.
proc work {} {
    upvar #0 backlog backlog head head open open
    set ::working 0
    set start [clock microseconds]
    set begun 0
    while {$head < [llength $backlog] && !$::stopping} {
        set submitter [lindex $backlog $head]
        set number [lindex $backlog $head+1]
        set text [from_bytes [lindex $backlog $head+2]]
        incr head 3
        set kind [expr {[catch {job $text} outcome] ? "failed" : "done"}]
        set outcome [to_bytes $outcome]
        set open($submitter/$number) [list $kind $outcome]
        lappend numbers($kind,$submitter) $number
        lappend outcomes($kind,$submitter) $outcome
        incr begun
        if {[set spent [expr {[clock microseconds] - $start}]] > 3000} break
    }
    if {!$begun} return
    if {$head >= [llength $backlog]} {
        set backlog {}
        set head 0
    }
    set ::average [expr {0.8 * $::average + 0.2 * $spent / $begun}]
    set ahead [expr {int(1000.0 * [dict get $::limits ahead] / max(1.0, $::average))}]
    set ::credit [expr {max(2, min([dict get $::limits credit], $ahead))}]
    foreach key [array names numbers] {
        regexp {^(\w+),(.*)$} $key -> kind submitter
        incr ::total($kind) [llength $numbers($key)]
        if {$::greeted} {inform $kind $submitter $::credit $numbers($key) {*}$outcomes($key)}
    }
    if {$head < [llength $backlog] && !$::working} {
        set ::working 1
        ::qel::reactor after 0 work
    }
}

# The jobs not begun go back with "bye"; the queue's answer comes behind the confirmation
# of every result.
proc stop {signal} {
    if {[incr ::stopping] > 1} return
    set ::backlog {}
    set ::head 0
    ::qel::reactor after [expr {[array size ::open] ? [dict get $::limits linger] : 1000}] give_up
    if {$::greeted} {inform bye}
}
proc hear_bye {} {
    if {$::stopping} {::qel::reactor stop}
}
proc give_up {} {
    if {[array size ::open]} {
        set ::status 1
        log "the queue did not take [array size ::open] results: other workers do these jobs again"
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
