#!/usr/bin/env tclsh
# threads.tcl -- a pool of threads that work over inproc.
#
#     threads.tcl count file ?file ...?
#
# Prints the CRC-32 and the size of each file, in the order in which they are done.
# The threads ask for work, so the busy ones get none and no queue grows.

package require Tcl 8.6-
source [file join [file dirname [info script]] common.tcl]
need zmq tcl-parvo

# The traps stand before the threads, which inherit the blocked signals: so a signal
# always reaches the loop below, never a thread that would die of it.
foreach signal {SIGINT SIGTERM} {
    ::qel::reactor signal trap $signal stop
}
proc stop {signal} {
    set ::files {} ;# what is being worked on is finished
}
need Thread tcl-thread
::qel::reactor bgerror complain

set body {
    package require zmq

    proc checksum {name} {
        set channel [open $name rb]
        try {
            set size 0
            set crc 0
            while {[set bytes [read $channel 65536]] ne {}} {
                incr size [string length $bytes]
                set crc [zlib crc32 $bytes $crc]
            }
            return [format {%08x %d} $crc $size]
        } finally {
            close $channel
        }
    }

    set s [::zmq::socket new REQ]
    $s connect inproc://pool
    set result [list ready]
    while 1 {
        $s send {*}$result
        set job [$s recv]
        if {[lindex $job 0] ne "file"} {
            break
        }
        # A failure is answered, too: the main thread waits for an answer to each job.
        set name [encoding convertfrom utf-8 [lindex $job 1]]
        set failed [catch {checksum $name} text]
        set result [list [lindex {done failed} $failed] [lindex $job 1] \
                        [encoding convertto utf-8 $text]]
    }
    thread::wait
}

proc asked {} {
    # The thread that asks, the empty frame of its REQ socket, its last result.
    lassign [pool recv] thread - kind name text
    if {$kind eq "failed"} {
        set ::status 1
    }
    # Without its output the program ends as on a signal; nothing more is printed.
    if {$kind ne "ready" && !$::mute && ![printed \
            "[encoding convertfrom utf-8 $text] [encoding convertfrom utf-8 $name]"]} {
        set ::mute 1
        set ::status 1
        set ::files {}
    }
    if {[llength $::files] > 0} {
        set ::files [lassign $::files name]
        pool send $thread {} file [encoding convertto utf-8 $name]
        return
    }
    pool send $thread {} stop
    if {[incr ::working -1] == 0} {
        ::qel::reactor stop
    }
}

arguments {
    {count {number 1}}
    {file... file}
}
set files $arg(file)
set status 0
set mute 0
set working $arg(count)
::zmq::socket create pool ROUTER
pool bind inproc://pool
::qel::reactor event pool readable asked
for {set i 0} {$i < $arg(count)} {incr i} {
    lappend threads [thread::create -joinable $body]
}
::qel::reactor start
pool close
# All sockets are closed before the first thread ends: with the end of a thread the
# package ends ZeroMQ's context too, and warns when it still has sockets.
foreach thread $threads {
    thread::send $thread {$s close}
}
foreach thread $threads {
    thread::release $thread
    thread::join $thread
}
exit $status
