# ventilator.tcl -- cuts text files into jobs and hands them to the workers.
#
#   ventilator.tcl -results endpoint file ...
#
# A job is {number text}: whole lines of a file, as bytes, so that no character is cut.
# The sink is told, on the results socket:
#   {jobs endpoint}                     where workers find their jobs
#   {heartbeat ventilator state stats}  now and then, and at the end
#   {total number}                      how many jobs there were, once all are sent
#   {unreadable message}                a file cannot be read: there will be no total
# The line "go" on standard input starts the work, the end of the input ends the process.
package require zmq

# Traps come first, see worker.tcl.
foreach signal {SIGTERM SIGINT} {
    ::qel::reactor signal trap $signal stop
}

set jobBytes 4096    ;# a job is cut at the first end of a line beyond this
set interval 250     ;# milliseconds from one heartbeat to the next
set number 0         ;# of jobs sent
set channel {}       ;# the file being read

proc stop {signal} {
    ::qel::reactor stop
}

# Whatever goes wrong here, the count will not be whole: the sink has to know.
proc failed {message {options {}}} {
    ::qel::reactor event $::jobs writable {}
    $::results send unreadable [encoding convertto utf-8 $message]
}

proc beat {{state running}} {
    ::qel::reactor after $::interval beat
    set statistics [list jobs [$::jobs stats] results [$::results stats]]
    catch {$::results send -nowait heartbeat ventilator $state $statistics}
}

# Lines from the parent.
proc listen {} {
    while {[gets stdin line] >= 0} {
        if {$line eq "go"} {::qel::reactor event $::jobs writable push}
    }
    if {[eof stdin]} {
        ::qel::reactor event stdin readable {}
        stop EOF
    }
}

# A worker has room for a job.  It may be gone by now: then the job waits for another one,
# and this process goes on listening.
proc push {} {
    if {$::text eq "" && [set ::text [next_text]] eq ""} {
        ::qel::reactor event $::jobs writable {}
        $::results send total $::number
    } elseif {![catch {$::jobs send -nowait $::number $::text}]} {
        incr ::number
        set ::text ""
    }
}

# The text of the next job, of one file; empty after the last file.
proc next_text {} {
    while {$::channel ne "" || [llength $::files]} {
        if {$::channel eq ""} {
            set ::files [lassign $::files ::file]
            set ::channel [open $::file rb]
        }
        set text [read_lines]
        if {$text ne ""} {return $text}
    }
    return ""
}

# Whole lines of the open file; closes it and gives nothing at its end.
proc read_lines {} {
    set text ""
    while {[string length $text] < $::jobBytes} {
        if {[catch {gets $::channel line} length]} {
            # The message of a failed read names the channel only.
            error "error reading \"$::file\": [lindex $::errorCode end]"
        }
        if {$length < 0} break
        append text $line \n
    }
    if {$text eq ""} {
        close $::channel
        set ::channel {}
    }
    return $text
}

set files [lassign $argv option endpoint]
set text ""    ;# the job that is to be sent next
set jobs [::zmq::socket new PUSH]
$jobs configure -sndhwm 2    ;# what waits here can still go to any worker
$jobs bind tcp://127.0.0.1:*
set results [::zmq::socket new PUSH]
$results connect $endpoint
$results send jobs [$jobs configure -last_endpoint]
::qel::reactor bgerror failed
fconfigure stdin -blocking 0
::qel::reactor event stdin readable listen
beat
::qel::reactor start

beat stopped
$jobs configure -linger 0
$jobs close
$results configure -linger 900
$results close
