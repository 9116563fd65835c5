#!/usr/bin/env tclsh
# publish.tcl -- publishes this host's load and memory by topic.
#
#     publish.tcl bind|connect endpoint ?ms? ?monitor?
#
# A publisher binds for subscribers that connect (subscribe.tcl), or connects to a
# program between them (cache.tcl).  Topics are host/load/1, host/load/5, host/load/15
# and host/memory/available; the second frame is the value.  A figure goes out every
# "ms" milliseconds.  With the endpoint of a monitor.tcl it reports its counts there.

package require zmq

foreach signal {SIGINT SIGTERM} {
    ::qel::reactor signal trap $signal stop
}
proc stop {signal} {::qel::reactor stop}

proc complain {message {options {}}} {
    puts stderr "[::qel::timestamp] publish: $message"
}
::qel::reactor bgerror complain

proc file_text {name} {
    set channel [open $name]
    set text [read $channel]
    close $channel
    return $text
}

# A subscription is compared with the beginning of the first frame, byte by byte: the
# topic is a frame of its own, and ends where its last name ends.
proc publish {topic value} {
    publisher send [encoding convertto utf-8 $topic] [encoding convertto utf-8 $value]
}

proc measure {} {
    ::qel::reactor after $::interval measure ;# first, so that an error ends nothing
    lassign [file_text /proc/loadavg] one five fifteen
    publish host/load/1 $one
    publish host/load/5 $five
    publish host/load/15 $fifteen
    if {[regexp -line {^MemAvailable:\s+(\d+) kB} [file_text /proc/meminfo] -> kB]} {
        publish host/memory/available $kB
    }
}

# What a monitor wants to know: the stream, who speaks, and the socket's counts.
proc report_counts {} {
    ::qel::reactor after 1000 report_counts
    report send stats host publisher-[pid] [publisher stats]
}

lassign $argv method endpoint interval monitor
if {$method ni {bind connect} || $endpoint eq {}} {
    puts stderr "usage: publish.tcl bind|connect endpoint ?ms? ?monitor?"
    exit 2
}
if {![string is integer -strict $interval]} {
    set interval 1000
}
fconfigure stdout -buffering line

::zmq::socket create publisher PUB
publisher $method $endpoint
puts "publisher [publisher configure -last_endpoint]"
if {$monitor ne {}} {
    ::zmq::socket create report PUB
    report connect $monitor
    report_counts
}
measure
::qel::reactor start
foreach socket [::zmq::socket names] {
    $socket configure -linger 500
    $socket close
}
