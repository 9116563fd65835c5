# jobs.tcl -- what the programs of the job queue share: the protocol, the connection to the
# queue, the command line and the log.
#
# A message is a command and its frames.  Numbers are a list of whole numbers in one frame,
# followed by as many frames as numbers where "..." stands: jobs and results are bytes.
#
#   to any peer     {hello 1}            who are you?  1 is the version of the protocol
#                   {welcome settings}   you are known; settings: beat and silence, in ms
#                   {error text}         this peer cannot be served: it ends
#   from any peer   {hello 1 kind name token ...}   kind: submitter or worker.  The token
#                                        is another one in each process.
#   either way      {beat}               a sign of life
#
#   submitter to queue                       queue to submitter
#   {submit numbers job ...}                 {accepted numbers}: the queue keeps them now
#                                            {refused numbers reason}: ask again later
#                                            {finished numbers}: acknowledged already
#   {acknowledge numbers}: are safe here     {results numbers result ...}
#                                            {dead numbers reasons ...}
#   {forget}: drop all under this name       {forgotten}
#   {status}, even before a hello            {status dictionary}
#
#   worker to queue                          queue to worker
#   {hello 1 worker name token credit        {jobs submitter numbers job ...}
#       submitter numbers ...}: held here    {drop submitter numbers}: not yours any more
#   {done submitter credit numbers           {kept submitter numbers}: outcomes are safe
#       result ...}; the credit is how
#       many jobs the worker takes
#   {failed submitter credit numbers         {bye}: go
#       reason ...}
#   {bye}: begins no more job
package require zmq

# Text travels in UTF-8.  Bytes that are none must stop no work: Tcl 8 takes each for a
# character, and Tcl 9, which makes an error of them unless told otherwise, does the same.
set utf8 [expr {[package vsatisfies [package provide Tcl] 9-] ? {-profile tcl8 utf-8} : "utf-8"}]
interp alias {} to_bytes {} encoding convertto {*}$utf8
interp alias {} from_bytes {} encoding convertfrom {*}$utf8

# Writes a line for people.  That nobody can read it (full disk, closed pipe) stops no work.
proc log {text} {catch {puts stderr "[::qel::timestamp] $::program: $text"}}

# The reactor calls the end of a pipe unhandled when the last data arrive with it.
proc complain {message {options {}}} {
    if {[string match "*unhandled ZMQ_POLLERR*" $message]} return
    log "error: $message"
    catch {log [dict get $options -errorinfo]}
}

# The command line.  A row is {option default pattern what}: the pattern is a regular
# expression for the value, and what says in words which value is wanted; a default of "!"
# means that the option must be given; an option without a pattern is a flag.
proc read_options {synopsis rows} {
    set ::program [file rootname [file tail $::argv0]]
    foreach row $rows {
        lassign $row option default
        set known($option) $row
        set ::option($option) $default
    }
    if {[lsearch -regexp $::argv {^(-h|--help)$}] >= 0} {
        catch {puts "usage: $synopsis"}
        exit 0
    }
    for {set words $::argv} {[llength $words]} {} {
        set words [lassign $words word]
        if {![info exists known($word)]} {
            misused "unknown option \"$word\": it is one of [join [array names ::option] {, }]"
        }
        lassign $known($word) - - pattern what
        if {$pattern eq ""} {
            set ::option($word) 1
        } elseif {![llength $words]} {
            misused "$word has no value: it wants $what"
        } else {
            set words [lassign $words value]
            if {![regexp -- $pattern $value]} {misused "$word \"$value\": it wants $what"}
            set ::option($word) $value
        }
    }
    foreach row $rows {
        lassign $row option default - what
        if {$default eq "!" && $::option($option) eq "!"} {
            misused "$option is missing: it wants $what"
        }
    }
}
proc misused {text} {
    catch {puts stderr "$::program: $text"}
    exit 2
}
set endpointRow {! {^\w+://.} {an endpoint such as tcp://127.0.0.1:5555}}
set nameRow {{^[\w.:@-]{1,64}$} {a name of letters, digits and . : @ _ -}}
set keyRow {"" . {a file of keys}}
set countRow {{^[1-9]\d{0,8}$} {a whole number from 1 on}}

# Gives sockets keys before they are bound or connected: see ../keyring.tcl.
proc guard {args} {
    foreach option {-key -server -known} {
        lappend files [expr {[info exists ::option($option)] ? $::option($option) : ""}]
    }
    if {[join $files ""] eq ""} return
    source $::keyring
    if {[catch {set_keys {*}$files $args} message]} {misused $message}
}
set keyring [file join [file dirname [file dirname [file normalize [info script]]]] keyring.tcl]

# Two programs of one name are told apart by this.
set token [info hostname]/[pid]/[clock microseconds]

# The connection of a submitter or worker.  A socket that sends only to a queue which is
# there (-immediate), and says so each time a connection is made (-probe_router), is asked
# by the queue who it is: after any interruption both sides start from what they hold.
set queue {}
set greeted 0                              ;# the queue knows us
set silent 0                               ;# looks in a row without a message from it
set settings {beat 1000 silence 60000}     ;# until the queue tells its own
proc connect_queue {} {
    disconnect_queue 0
    set ::queue [::zmq::socket new DEALER]
    foreach {name value} {-immediate 1 -probe_router 1 -sndhwm 0 -rcvhwm 0
            -reconnect_ivl 50 -reconnect_ivl_max 1000} {
        $::queue configure $name $value
    }
    guard $::queue
    if {[catch {$::queue connect $::option(-queue)} message]} {misused $message}
    ::qel::reactor event $::queue readable hear
}
proc disconnect_queue {linger} {
    set ::greeted 0
    if {$::queue ne ""} {
        ::qel::reactor event $::queue readable {}
        $::queue configure -linger $linger
        $::queue close
        set ::queue {}
    }
}

# What finds no connection may be dropped: all is said again after the next hello.
proc inform {args} {
    if {[catch {$::queue send -nowait {*}$args}]} {set ::greeted 0}
}

# Runs hear_COMMAND for each message; only what is needed to be known before the welcome.
proc hear {} {
    for {set left 100} {$left > 0 && ![catch {$::queue recv -nowait} message]} {incr left -1} {
        set ::silent 0
        set frames [lassign $message command]
        if {[llength [info procs hear_$command]]} {hear_$command {*}$frames}
    }
}
proc hear_beat {} {}
proc hear_error {text} {
    log [from_bytes $text]
    exit 1
}
proc hear_welcome {settings} {
    set ::settings $settings
    set ::greeted 1
    welcomed
}

# Looks are counted, not time: a process that was suspended blames nobody when it goes on.
proc beat {} {if {$::greeted} {inform beat}}
proc watch {} {
    ::qel::reactor after [dict get $::settings beat] watch
    beat
    if {[incr ::silent] * [dict get $::settings beat] > [dict get $::settings silence]} {
        log "no word from the queue at $::option(-queue): connecting again"
        set ::silent 0
        connect_queue
    } elseif {!$::greeted && $::silent == 3} {
        log "waiting for the queue at $::option(-queue)"
    }
}
