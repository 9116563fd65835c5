#!/usr/bin/env tclsh
# worker.tcl -- takes jobs from one socket and sends what they yield to another.
#
#   worker.tcl -jobs endpoint -results endpoint -dead endpoint
#              ?-name name? ?-job script? ?-config file?
#              ?-server file? ?-key file?
#
# This is the smallest example of a pipeline: when the worker is stopped, jobs in the buffers
# of its connection are lost, and when it is killed, those that it has received, too, while
# jobs/worker.tcl behind jobs/queue.tcl loses none.
#
# The worker connects; the endpoints are bound by those that give it work.
#   jobs     PULL  one message is one job, lost if on its way when the worker goes
#   results  PUSH  {result name frame ...}       what a job returned
#                  {heartbeat name state stats}  now and then, and when the worker stops
#   dead     PUSH  {name error frame ...}        a job that failed, after the reason
#
# SIGTERM, SIGINT: take no new job, finish those accepted, exit once what they yield has
# found room.  SIGHUP: read the configuration file again.  SIGUSR1: show statistics.
source [file join [file dirname [info script]] common.tcl]
need zmq tcl-parvo

# Traps come first: they protect the process only from here on, and only if no other
# thread was started before.  What arrives now waits until the reactor runs.
foreach {signal handler} {SIGTERM stop SIGINT stop SIGHUP reload SIGUSR1 report} {
    ::qel::reactor signal trap $signal $handler
}

# What a job does: write your own here, or in the script named by -job.  Its arguments are
# the frames of the job, its result is a list of frames, all of them bytes (text passes
# encoding convertfrom and convertto); after an error the job is a dead letter.
proc job {args} {return $args}

set kept {}       ;# {socket frame ...}: a message that found no room
set backlog {}    ;# jobs accepted but not begun when the worker was told to stop
set stopping 0
proc log {message} {say "$::arg(name): $message" stderr}

# The settings, in milliseconds, with what a configuration file says about them: one
# "name number" to a line.  The file is data, nothing in it is evaluated.
proc read_settings {file} {
    set settings {heartbeat 1000 linger 900}
    if {$file eq ""} {return $settings}
    set channel [open [file normalize $file]]
    foreach line [split [read $channel][close $channel] \n] {
        if {[regexp {^\s*(heartbeat|linger)\s+([1-9]\d{0,3})\s*$} $line -> name value]} {
            dict set settings $name $value
        } elseif {![regexp {^\s*(#|$)} $line]} {
            error "$file: not a setting: \"$line\""
        }
    }
    return $settings
}

# The settings change all together or, if a line is bad, not at all.
proc reload {signal} {
    if {[catch {read_settings $::arg(config)} settings]} {
        return [log "old settings stay: $settings"]
    }
    set ::settings $settings
    ::qel::reactor after cancel beat
    beat
    log "new settings: $settings"
}

proc statistics {} {
    list jobs [$::jobs stats] results [$::results stats] dead [$::dead stats]
}
proc report {signal} {log "statistics: [statistics] settings: $::settings"}

# Shows that the worker lives; a heartbeat that finds no room is left out.
proc beat {{state running}} {
    ::qel::reactor after [dict get $::settings heartbeat] beat
    catch {$::results send -nowait heartbeat $::name $state [statistics]}
}

# What finds no room is kept, and no job begun: a send that blocks would hold up signals.
proc keep {socket args} {
    set ::kept [list $socket {*}$args]
    ::qel::reactor event $::jobs readable {}
    ::qel::reactor event $socket writable resume
}
proc resume {} {
    set message [lassign $::kept socket]
    if {[catch {$socket send -nowait {*}$message}]} return
    set ::kept {}
    ::qel::reactor event $socket writable {}
    if {$::stopping} drain else {::qel::reactor event $::jobs readable $::work}
}

# Does one job, all of it.  Arguments are quicker than "::name", looked up every time.
proc work {jobs results name {draining 0}} {
    if {$draining} {
        ::qel::reactor after 0 drain
        set ::backlog [lassign $::backlog frames]
    } else {
        set frames [$jobs recv -nowait]
    }
    if {[catch {list {*}[job {*}$frames]} yield]} {
        return -code error -errorinfo $::errorInfo -errorcode [list JOB $frames] $yield
    }
    if {[catch {$results send -nowait result $name {*}$yield}]} {
        keep $results result $name {*}$yield
    }
}
proc drain {} {
    if {[llength $::kept]} return
    if {[llength $::backlog]} {{*}$::work 1} else {::qel::reactor stop}
}

# The background-error handler.  The code of a job's error holds the frames of the job.
proc failed {message options} {
    log "error: $message"
    if {[catch {dict get $options -errorcode} code] || ![string match "JOB *" $code]} return
    set letter [list $::name [encoding convertto utf-8 $message] {*}[lindex $code 1]]
    if {[catch {$::dead send -nowait {*}$letter}]} {keep $::dead {*}$letter}
}

# Disconnecting discards what waits in the socket's queue, so that is received first, but
# no more than the queue holds: the others may go on sending.
proc stop {signal} {
    if {[incr ::stopping] > 1} return
    ::qel::reactor after 0 drain
    ::qel::reactor event $::jobs readable {}
    set n [$::jobs configure -rcvhwm]
    while {[incr n -1] >= 0 && [$::jobs configure -events] & 1} {
        lappend ::backlog [$::jobs recv -nowait]
    }
    $::jobs disconnect $::arg(jobs)
}

arguments [concat {
    {-jobs endpoint} {-results endpoint} {-dead endpoint}
    {-name text worker} {-job file {}} {-config file {}}
} $keyOptions]
if {[catch {read_settings $arg(config)} settings]} {
    refuse -config $arg(config) "a file of settings" $settings
}
if {$arg(job) ne "" && [catch {source $arg(job)} message options]} {
    refuse -job $arg(job) "a script that runs" "line [dict get $options -errorline]: $message"
}
set name [encoding convertto utf-8 $arg(name)]
foreach {socket type} {jobs PULL results PUSH dead PUSH} {
    set $socket [::zmq::socket new $type]
}
# A short queue: jobs go to the workers that are free.  Over tcp the kernel's buffers hold
# more; -rcvbuf 4096 here and -sndbuf 4096 at the sender, set first, keep that short, too.
$jobs configure -rcvhwm 50
guard $jobs $results $dead
foreach socket {jobs results dead} {attach [set $socket] connect $arg($socket) -$socket}
::qel::reactor bgerror failed
::qel::reactor event $jobs readable [set work [list work $jobs $results $name]]
beat
::qel::reactor start
beat stopped
foreach socket [list $jobs $results $dead] {
    $socket configure -linger [dict get $settings linger]
    $socket close
}
