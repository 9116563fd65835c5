#!/usr/bin/env tclsh
# publish.tcl -- publishes this host's load and memory by topic.
#
#     publish.tcl bind|connect endpoint ?ms? ?-monitor endpoint?
#                ?-key file? ?-known directory? ?-server file?
#
# A publisher binds for subscribers that connect (subscribe.tcl), or connects to a
# program between them (cache.tcl).  Topics are host/load/1, host/load/5, host/load/15
# and host/memory/available; the second frame is the value.  A figure goes out every
# "ms" milliseconds.  With the endpoint of a monitor.tcl it reports its counts there.

source [file join [file dirname [info script]] common.tcl]
need zmq tcl-parvo

foreach signal {SIGINT SIGTERM} {
    ::qel::reactor signal trap $signal stop
}
proc stop {signal} {::qel::reactor stop}
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
    ::qel::reactor after $::arg(ms) measure ;# first, so that an error ends nothing
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

arguments [concat {
    {method {choice bind connect}}
    {endpoint endpoint}
    {ms {number 1} 1000}
    {-monitor endpoint {}}
} $keyOptions]
::zmq::socket create publisher PUB
guard publisher
attach publisher $arg(method) $arg(endpoint)
say "publisher [publisher configure -last_endpoint]"
if {$arg(monitor) ne {}} {
    ::zmq::socket create report PUB
    attach report connect $arg(monitor) -monitor
    report_counts
}
measure
::qel::reactor start
foreach socket [::zmq::socket names] {
    $socket configure -linger 500
    $socket close
}
