#!/usr/bin/env tclsh
# request.tcl -- sends requests, and sends each again while no answer comes.
#
#     request.tcl endpoint text ?text ...? ?-server file? ?-key file?
#
# Prints one answer a line.  The server may get a request twice, when its answer is lost
# or late, so doing it twice must do no harm.

source [file join [file dirname [info script]] common.tcl]
need zmq tcl-parvo

set patience 1000 ;# milliseconds to wait for an answer
set tries 5

proc ask {text} {
    for {set try 1} {$try <= $::tries} {incr try} {
        if {$try > 1} {
            say "\"$text\": no answer in $::patience ms, try $try of $::tries" stderr
        }
        # Sending fails when there is no server to queue for, receiving when the time
        # is up.  Polling first would not do: what makes the socket readable can be an
        # answer to an earlier try, which recv passes over to wait for the right one.
        if {![catch {
            server send [encoding convertto utf-8 $text]
            server recv
        } answer]} {
            return [frame_text [lindex $answer 0]]
        }
    }
    return -code error "\"$text\": no answer after $::tries tries"
}

arguments [concat {
    {endpoint endpoint}
    {text... text}
} $keyOptions]
::zmq::socket create server REQ
# A plain REQ socket is stuck after a lost answer.  A relaxed one may send again, and a
# correlating one takes only the answer to the request that it sent last.
server configure -req_relaxed 1
server configure -req_correlate 1
server configure -sndtimeo $patience
server configure -rcvtimeo $patience
guard server
attach server connect $arg(endpoint)

set status 0
foreach text $arg(text) {
    if {[catch {ask $text} answer]} {
        say $answer stderr
        set status 1
    } else {
        show $answer
    }
}
server close
exit $status
