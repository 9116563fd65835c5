#!/usr/bin/env tclsh
# request.tcl -- asks until there is an answer, or for so many times.
#
#     request.tcl endpoint text ?text ...?
#
# Prints one answer a line.  The server may see a request twice, when its answer was
# lost or late: requests must be such that this does no harm.

package require zmq
source [file join [file dirname [info script]] text.tcl]

set patience 1000 ;# milliseconds to wait for an answer
set tries 5

proc ask {text} {
    for {set try 1} {$try <= $::tries} {incr try} {
        if {$try > 1} {
            puts stderr "\"$text\": no answer in $::patience ms, try $try of $::tries"
        }
        # Sending fails when there is no server to queue for, receiving when the time
        # is up.  Polling first would not do: what makes the socket readable can be an
        # answer to an earlier try, which recv passes over to wait for the right one.
        if {![catch {
            server send [encoding convertto utf-8 $text]
            server recv
        } answer]} {
            return [encoding convertfrom utf-8 [lindex $answer 0]]
        }
    }
    return -code error "\"$text\": no answer after $::tries tries"
}

set questions [lassign $argv endpoint]
if {[llength $questions] == 0} {
    puts stderr "usage: request.tcl endpoint text ?text ...?"
    exit 2
}
check_text $questions
fconfigure stdout -buffering line

::zmq::socket create server REQ
# A plain REQ socket is stuck after a lost answer.  A relaxed one may send again, and a
# correlating one takes only the answer to the request that it sent last.
server configure -req_relaxed 1
server configure -req_correlate 1
server configure -sndtimeo $patience
server configure -rcvtimeo $patience
server connect $endpoint

set status 0
foreach question $questions {
    if {[catch {ask $question} answer options]} {
        puts stderr $answer
        set status 1
    } else {
        puts [shown $answer]
    }
}
server close
exit $status
