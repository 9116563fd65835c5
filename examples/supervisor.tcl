#!/usr/bin/env tclsh
# supervisor.tcl -- starts workers, restarts those that end, stops them with itself.
#
#     supervisor.tcl count command ?arg ...?
#
# The standard output of the workers is printed line by line, with the worker's number.
# A worker that ends is started again: at once after a long life, after longer and
# longer pauses when it keeps ending early.

source [file join [file dirname [info script]] common.tcl]
need zmq tcl-parvo

foreach signal {SIGINT SIGTERM} {
    ::qel::reactor signal trap $signal shut_down
}

::qel::reactor bgerror complain

set longLife 10000 ;# milliseconds after which a worker counts as healthy
set pauseMin 100   ;# milliseconds before a restart, doubled each time
set pauseMax 30000
set patience 5000  ;# milliseconds that workers have to end after SIGTERM
set stopping 0
set workers {}     ;# worker's channel -> dictionary: number, began, pause

proc start {number pause} {
    if {$::stopping} {
        return
    }
    # A child inherits the blocked signals of this thread; env lets them through again.
    # The pipe is also how the end of a worker is noticed: it reports end of file.
    set command [list env --default-signal=INT --default-signal=TERM {*}$::arg(command)]
    if {[catch {open |[concat $command [list 2>@stderr <@stdin]]} channel]} {
        say "$number: cannot start: $channel"
        ::qel::reactor after $::pauseMax [list start $number $pause]
        return
    }
    fconfigure $channel -blocking 0
    take_any_bytes $channel
    dict set ::workers $channel \
        [dict create number $number began [clock milliseconds] pause $pause]
    listen $channel
    say "$number: started, process [pid $channel]"
}

proc listen {channel} {
    ::qel::reactor event $channel readable [list output $channel]
}

# Prints the lines that are there, a hundred at most before timers and signals have their
# turn.  Lines that Tcl has read ahead do not make the pipe readable, so a timer goes on.
proc output {channel} {
    listen $channel
    set number [dict get $::workers $channel number]
    for {set i 0} {$i < 100} {incr i} {
        if {[gets $channel line] < 0} {
            if {[eof $channel]} {
                ended $channel
            }
            return
        }
        say "$number: $line"
    }
    ::qel::reactor event $channel readable {}
    ::qel::reactor after 0 [list output $channel]
}

# A process can close its output and go on; it has ended when it is gone or a zombie.
proc running {process} {
    expr {![catch {open /proc/$process/stat} stat]
          && ![regexp {\) [ZX] } [read $stat][close $stat]]}
}

proc ended {channel} {
    # The handler goes before the channel does.
    ::qel::reactor event $channel readable {}
    if {[running [pid $channel]]} {
        ::qel::reactor after 50 [list ended $channel]
        return
    }
    set worker [dict get $::workers $channel]
    dict unset ::workers $channel
    # Only closing a blocking pipe gets the status of the process.
    fconfigure $channel -blocking 1
    set how "status 0"
    if {[catch {close $channel} message options]} {
        # Either CHILDSTATUS, process, status or CHILDKILLED, process, signal, text.
        lassign [dict get $options -errorcode] kind - how
        set how [expr {$kind eq "CHILDSTATUS" ? "status $how" : $how}]
    }
    set number [dict get $worker number]
    say "$number: ended, $how"
    if {$::stopping} {
        if {[dict size $::workers] == 0} {
            ::qel::reactor stop
        }
        return
    }
    set pause [dict get $worker pause]
    if {[clock milliseconds] - [dict get $worker began] > $::longLife} {
        set pause 0
    }
    set next [expr {min($::pauseMax, max($::pauseMin, 2 * $pause))}]
    ::qel::reactor after $pause [list start $number $next]
}

proc signal_all {name} {
    foreach channel [dict keys $::workers] {
        catch {exec sh -c "kill -$name [join [pid $channel]]"}
    }
}

proc shut_down {signal} {
    set ::stopping 1
    say "stopping on $signal"
    if {[dict size $::workers] == 0} {
        ::qel::reactor stop
    }
    signal_all TERM
    ::qel::reactor after $::patience {signal_all KILL}
}

arguments {
    {count {number 1}}
    {command... command}
}
for {set number 1} {$number <= $arg(count)} {incr number} {
    start $number 0
}
::qel::reactor start
