#!/usr/bin/env tclsh
# queue.tcl -- keeps jobs until their results are there, and gives them to workers.
#
#   queue.tcl -submit endpoint -workers endpoint ?-journal file? ?-sync?
#             ?-attempts number? ?-limit number? ?-beat ms? ?-silence ms? ?-patience ms?
#             ?-key file? ?-known directory?
#
# A worker holds as many jobs as it has given credit for.  Those of one that says goodbye,
# is silent for too long or whose connection is gone are given to others.  A job is done at
# least once; the submitter gets one result, and has it kept here until it acknowledges it.
# With a journal (SQLite) all of that survives the end of this process, however it comes;
# without one the submitters send again what they have no result for.  With -sync it also
# survives a loss of power: each transaction waits for the disk.
#
# SIGTERM, SIGINT: accept no more, give out no more, exit when the workers have finished,
# after -patience at the latest.  SIGUSR1: show the status.
package require zmq

# Traps come first, see worker.tcl.
foreach {signal handler} {SIGTERM stop SIGINT stop SIGUSR1 report} {
    ::qel::reactor signal trap $signal $handler
}
source [file join [file dirname [file normalize [info script]]] jobs.tcl]
source [file join [file dirname [file normalize [info script]]] journal.tcl]

# A peer is known by its route, which is that of one connection.
#   worker(route)      {name token}       holds(route)   number of jobs it holds
#   credit(route)      jobs it takes      served(route)  results since its hello
#   rate(route)        results a second   alone(route)   it holds a suspect, nothing else
#   guest(route)       name of a submitter
#   quiet(route)       looks in a row without a message
# Of a submitter, by name: route(name), "" while it is away; tokenOf(name); low(name), up to
# which every number is acknowledged; top(name), the greatest number seen; waiting(name), its
# numbers not given out, of which the first next(name) are gone already; suspects(name), see
# lose; and in arrays of its own
#   job:NAME(number)     a job without a result
#   given:NAME(number)   the route of the worker that holds it
#   result:NAME(number), dead:NAME(number)   not acknowledged yet
#   acked:NAME(number)   acknowledged, above low
#   tries:NAME(number)   {attempts reason ...}
# A number in "waiting" may have been given out or finished meanwhile: then it is skipped.
foreach array {worker holds credit served rate alone guest quiet asked route tokenOf low top
        waiting next suspects fresh deliver} {
    array set $array {}
}
set turns {}         ;# submitters with waiting jobs: the first is next
set outbox {}        ;# {socket route frames}: leaves when the journal is written
set unfinished 0     ;# jobs without a result
set out 0            ;# of these, given out
array set total {accepted 0 done 0 dead 0 lost 0 late 0}
set refusing ""      ;# why nothing is accepted
set stopping 0

proc post {socket route args} {lappend ::outbox [list $socket $route $args]}

proc send_outbox {} {
    foreach message [set ::outbox][set ::outbox {}] {
        lassign $message socket route frames
        say $socket $route {*}$frames
    }
}
# Sends at once, as may be done with what promises nothing, whether the journal can be written
# or not.  A peer that is gone is found out here.
proc say {socket route args} {
    if {[catch {$socket send -nowait $route {*}$args}]} {gone $route "its connection is gone"}
}
proc gone {route reason} {
    if {[info exists ::worker($route)]} {
        lose $route $reason
    } elseif {[info exists ::guest($route)]} {
        set ::route($::guest($route)) ""
        unset ::guest($route) ::quiet($route)
    }
}

# Takes in what has arrived at both sockets, so that one transaction holds much of it.
proc serve {} {
    foreach {socket kind} [list $::workers worker $::submitters submitter] {
        for {set left 40} {$left > 0} {incr left -1} {
            if {[catch {$socket recv -nowait} message]} break
            set frames [lassign $message route command]
            if {[info exists ::quiet($route)]} {set ::quiet($route) 0}
            if {[catch {take $kind $socket $route $command $frames} reason]} {
                log "a message \"$command\" is in error: $reason"
            }
        }
    }
    settle
}
proc take {kind socket route command frames} {
    if {$command eq "hello"} {
        unset -nocomplain ::asked($route)
        ${kind}_hello $route {*}$frames
    } elseif {$command eq "status"} {
        say $socket $route status [to_bytes [status]]
    } elseif {[info exists ::quiet($route)]} {
        if {$command ne "beat"} {${kind}_$command $route {*}$frames}
    } elseif {![info exists ::asked($route)]} {
        set ::asked($route) 1
        post $socket $route hello 1
    }
}

# Writes the journal; then promises may be made and jobs given out.
proc settle {} {
    if {![journal_write]} return
    foreach name [array names ::deliver] {send_results $name}
    array unset ::deliver
    send_outbox
    if {$::stopping} {
        leave
    } elseif {$::unfinished > $::out} {
        give_out
        send_outbox
    }
}

# Submitters.

proc new_submitter {name} {
    array set ::low [list $name 0]
    array set ::next [list $name 0]
    array set ::top [list $name 0]
    array set ::waiting [list $name {}]
    array set ::suspects [list $name {}]
    array set ::route [list $name ""]
    foreach array {job given result dead acked tries} {array set ::$array:$name {}}
}
proc hello_fits {socket route version kind wanted} {
    if {$version == 1 && $kind eq $wanted} {return 1}
    post $socket $route error [to_bytes "this queue speaks version 1 of the protocol,\
        here to a $wanted, not version $version to a $kind"]
    return 0
}
proc settings {} {list beat $::option(-beat) silence $::option(-silence)}

proc submitter_hello {route version kind name token} {
    if {![hello_fits $::submitters $route $version $kind submitter]} return
    if {![regexp {^[\w.:@-]{1,64}$} $name]} {
        return [post $::submitters $route error "not a name for a submitter"]
    }
    if {![info exists ::low($name)]} {new_submitter $name}
    set before $::route($name)
    if {$before ne "" && $before ne $route} {
        if {$::tokenOf($name) ne $token} {
            post $::submitters $before error "another submitter has taken the name $name"
        }
        unset ::guest($before) ::quiet($before)
    }
    array set ::route [list $name $route]
    array set ::tokenOf [list $name $token]
    set ::guest($route) $name
    set ::quiet($route) 0
    post $::submitters $route welcome [settings]
    upvar #0 result:$name result dead:$name dead
    lappend ::deliver($name) {*}[array names result] {*}[array names dead]
}

proc submitter_submit {route numbers args} {
    set name $::guest($route)
    upvar #0 job:$name job result:$name result dead:$name dead acked:$name acked top($name) top
    if {$::refusing ne ""} {
        return [refuse $route $numbers $::refusing]
    }
    if {$::unfinished + [llength $numbers] > $::option(-limit)} {
        return [refuse $route $numbers "the queue holds $::unfinished jobs"]
    }
    set low $::low($name)
    set new {}
    set finished {}
    foreach number $numbers body $args {
        if {$number > $top} {
            set top $number
            set job($number) $body
            lappend new $number
        } elseif {$number <= $low || [info exists acked($number)]} {
            lappend finished $number
        } elseif {![info exists job($number)] && ![info exists result($number)]
                && ![info exists dead($number)]} {
            set job($number) $body
            lappend new $number
        }
    }
    if {[llength $new]} {
        incr ::unfinished [llength $new]
        incr ::total(accepted) [llength $new]
        enqueue $name $new
        journal_jobs $name $new
    }
    if {[llength $finished]} {post $::submitters $route finished $finished}
    lappend ::fresh($name) $route $numbers $new
}
# The journal holds all that is fresh, or cannot hold it: then it is forgotten again.
proc accept_fresh {} {
    foreach name [array names ::fresh] {
        foreach {route numbers new} $::fresh($name) {post $::submitters $route accepted $numbers}
    }
    array unset ::fresh
}
proc refuse_fresh {reason} {
    foreach name [array names ::fresh] {
        foreach {route numbers new} $::fresh($name) {
            foreach number $new {unset ::job:${name}($number)}
            incr ::unfinished -[llength $new]
            incr ::total(accepted) -[llength $new]
            refuse $route $numbers $reason
        }
    }
    array unset ::fresh
}
proc refuse {route numbers reason} {say $::submitters $route refused $numbers [to_bytes $reason]}
proc enqueue {name numbers} {
    if {$::next($name) >= [llength $::waiting($name)] && $name ni $::turns} {
        lappend ::turns $name
    }
    lappend ::waiting($name) {*}$numbers
}
proc put_first {name numbers} {
    set rest [lrange $::waiting($name) $::next($name) end]
    set ::turns [lsearch -all -inline -exact -not $::turns $name]
    array set ::waiting [list $name {}]
    set ::next($name) 0
    enqueue $name [concat $numbers $rest]
}

proc submitter_acknowledge {route numbers} {
    set name $::guest($route)
    upvar #0 result:$name result dead:$name dead acked:$name acked low($name) low
    set new {}
    foreach number $numbers {
        if {[info exists result($number)]} {
            unset result($number)
        } elseif {[info exists dead($number)]} {
            unset dead($number)
        } else continue
        set acked($number) 1
        lappend new $number
    }
    while {[info exists acked([set up [expr {$low + 1}]])]} {
        unset acked($up)
        set low $up
    }
    if {[llength $new]} {journal_acknowledged $name $new}
}

proc submitter_forget {route} {
    set name $::guest($route)
    upvar #0 job:$name job given:$name given
    foreach number [array names given] {incr ::holds($given($number)) -1}
    incr ::out -[array size given]
    incr ::unfinished -[array size job]
    foreach array {job given result dead acked tries} {unset ::$array:$name}
    foreach array {low top next waiting suspects route tokenOf} {array unset ::$array $name}
    set ::turns [lsearch -all -inline -exact -not $::turns $name]
    array unset ::fresh $name
    array unset ::deliver $name
    unset ::guest($route) ::quiet($route)
    journal_forget $name
    post $::submitters $route forgotten
}

proc send_results {name} {
    if {![info exists ::route($name)] || [set route $::route($name)] eq ""} return
    foreach {kind command} {result results dead dead} {
        upvar #0 $kind:$name outcome
        set numbers {}
        set bodies {}
        foreach number $::deliver($name) {
            if {![info exists outcome($number)]} continue
            lappend numbers $number
            lappend bodies $outcome($number)
            if {[llength $numbers] == 500} {
                post $::submitters $route $command $numbers {*}$bodies
                set numbers {}
                set bodies {}
            }
        }
        if {[llength $numbers]} {post $::submitters $route $command $numbers {*}$bodies}
    }
}

# Workers.

proc worker_hello {route version kind name token credit args} {
    if {[info exists ::worker($route)]
        || ![hello_fits $::workers $route $version $kind worker]} return
    # The same process over another connection: it keeps what it says it holds.
    set before {}
    foreach other [array names ::worker] {
        if {[lindex $::worker($other) 1] eq $token} {lappend before {*}[take_back $other]}
    }
    array set ::worker [list $route [list $name $token]]
    foreach {array value} [list holds 0 served 0 rate 0.0 quiet 0 credit $credit] {
        set ::${array}($route) $value
    }
    post $::workers $route welcome [settings]
    foreach {submitter numbers} $args {claim $route $submitter $numbers}
    # What was on its way to it has not arrived.
    foreach {submitter numbers} $before {put_first $submitter $numbers}
    journal_worker $token 1
    expect_no_more $token
}
# What a worker holds is its own unless another one has it by now.
proc claim {route submitter numbers} {
    upvar #0 job:$submitter job given:$submitter given
    set drop {}
    foreach number $numbers {
        if {![info exists job($number)] || [info exists given($number)]} {
            lappend drop $number
        } else {
            set given($number) $route
            incr ::holds($route)
            incr ::out
        }
    }
    if {[llength $drop]} {post $::workers $route drop $submitter $drop}
}

# A result counts whoever sends it; the first one counts.
proc worker_done {route submitter credit numbers args} {
    upvar #0 job:$submitter job given:$submitter given result:$submitter result
    upvar #0 tries:$submitter tries holds holds
    set ::credit($route) $credit
    incr ::served($route) [llength $numbers]
    set new {}
    set mine 0
    foreach number $numbers outcome $args {
        if {![info exists job($number)]} continue
        unset job($number)
        if {[info exists given($number)]} {
            if {$given($number) eq $route} {
                unset given($number)
                incr mine
            } else {
                post $::workers $given($number) drop $submitter $number
                release $submitter $number
            }
        }
        set result($number) $outcome
        lappend new $number
    }
    incr holds($route) -$mine
    incr ::out -$mine
    unset -nocomplain ::alone($route)
    incr ::total(done) [llength $new]
    incr ::total(late) [expr {[llength $numbers] - [llength $new]}]
    incr ::unfinished -[llength $new]
    post $::workers $route kept $submitter $numbers
    if {[llength $new]} {
        if {[array size tries]} {foreach number $new {unset -nocomplain tries($number)}}
        lappend ::deliver($submitter) {*}$new
        journal_results $submitter result $new
    }
}
proc worker_failed {route submitter credit numbers args} {
    upvar #0 given:$submitter given
    set ::credit($route) $credit
    unset -nocomplain ::alone($route)
    foreach number $numbers reason $args {
        if {![info exists given($number)] || $given($number) ne $route} continue
        release $submitter $number
        attempt $submitter $number 1 "[lindex $::worker($route) 0]: [from_bytes $reason]"
        if {[info exists ::job:${submitter}($number)]} {enqueue $submitter $number}
    }
    post $::workers $route kept $submitter $numbers
}
proc release {submitter number} {
    upvar #0 given:$submitter given
    incr ::holds($given($number)) -1
    unset given($number)
    incr ::out -1
}
# Notes why a job has no result yet, and gives it up after too many attempts.
proc attempt {submitter number count reason} {
    upvar #0 tries:$submitter tries job:$submitter job dead:$submitter dead
    if {![info exists tries($number)]} {set tries($number) 0}
    lset tries($number) 0 [set made [expr {[lindex $tries($number) 0] + $count}]]
    lappend tries($number) $reason
    if {$made < $::option(-attempts)} {
        return [journal_attempt $submitter $number $count $reason]
    }
    set reasons [lrange $tries($number) 1 end]
    unset tries($number) job($number)
    set dead($number) [to_bytes $reasons]
    log "dead letter: job $number of $submitter: [join $reasons {; }]"
    incr ::total(dead)
    incr ::unfinished -1
    lappend ::deliver($submitter) $number
    journal_results $submitter dead $number
}

# Everything this worker did came before its goodbye, and it begins no more.
proc worker_bye {route} {
    set back [take_back $route]
    foreach {submitter numbers} $back {put_first $submitter $numbers}
    post $::workers $route bye
}
# Takes a worker off the books; gives {submitter numbers ...} of what it held.
proc take_back {route} {
    set back {}
    foreach submitter [array names ::low] {
        upvar #0 given:$submitter given
        set numbers {}
        foreach number [array names given] {
            if {$given($number) eq $route} {lappend numbers $number}
        }
        foreach number $numbers {release $submitter $number}
        if {[llength $numbers]} {lappend back $submitter [lsort -integer $numbers]}
    }
    journal_worker [lindex $::worker($route) 1] 0
    foreach array {worker holds credit served rate alone quiet} {
        unset -nocomplain ::${array}($route)
    }
    return $back
}
# A job may be what its worker died of, but which one is not known: all that it held are
# suspects, and given alone to a worker from now on.  The next loss tells.
proc lose {route reason} {
    set name [lindex $::worker($route) 0]
    set sure [info exists ::alone($route)]
    log "worker $name is lost with $::holds($route) jobs: $reason"
    incr ::total(lost)
    foreach {submitter numbers} [take_back $route] {
        foreach number $numbers {
            attempt $submitter $number $sure "$name: $reason"
            if {[info exists ::job:${submitter}($number)]} {lappend ::suspects($submitter) $number}
        }
    }
}

# Gives waiting jobs to workers that have room for half of what they take, and to each the
# same share when there are few.
proc give_out {} {
    set hungry {}
    foreach {route credit} [array get ::credit] {
        set room [expr {$credit - $::holds($route)}]
        if {$room * 2 >= $credit && ![info exists ::alone($route)]} {lappend hungry $route $room}
    }
    set hungry [give_suspects $hungry]
    set left [expr {[llength $hungry] / 2}]
    foreach {route room} $hungry {
        set share [expr {($::unfinished - $::out + $left - 1) / $left}]
        incr left -1
        give $route [expr {min($room, max(1, $share))}]
    }
}
# A suspect goes to a worker that holds nothing.  While there is one and no such worker, the
# first worker gets no more.
proc give_suspects {hungry} {
    foreach name [array names ::suspects] {
        if {![llength $::suspects($name)]} continue
        upvar #0 job:$name job given:$name given
        set rest {}
        foreach {route room} $hungry {
            while {[llength $::suspects($name)]} {
                set number [lindex $::suspects($name) 0]
                if {[info exists job($number)] && ![info exists given($number)]} break
                set ::suspects($name) [lrange $::suspects($name) 1 end]
            }
            if {$::holds($route) || ![llength $::suspects($name)]} {
                lappend rest $route $room
                continue
            }
            set ::suspects($name) [lrange $::suspects($name) 1 end]
            set ::alone($route) 1
            set given($number) $route
            hand $route $name $number $job($number)
        }
        set hungry $rest
        if {[llength $::suspects($name)] && ![array size ::alone]} {set hungry [lrange $hungry 2 end]}
    }
    return $hungry
}
proc hand {route name numbers args} {
    incr ::holds($route) [llength $numbers]
    incr ::out [llength $numbers]
    post $::workers $route jobs $name $numbers {*}$args
}
proc give {route room} {
    while {$room > 0 && [llength $::turns]} {
        set ::turns [lassign $::turns name]
        upvar #0 job:$name job given:$name given waiting($name) waiting next($name) next
        set numbers {}
        set bodies {}
        set end [llength $waiting]
        while {$room > 0 && $next < $end} {
            set number [lindex $waiting $next]
            incr next
            if {![info exists job($number)] || [info exists given($number)]} continue
            lappend numbers $number
            lappend bodies $job($number)
            set given($number) $route
            incr room -1
        }
        if {$next < $end} {lappend ::turns $name}
        if {$next > 1000 && $next * 2 > $end} {
            set waiting [lrange $waiting $next end]
            set next 0
        }
        if {[llength $numbers]} {hand $route $name $numbers {*}$bodies}
    }
}

# The watch, the status, the end.

proc watch {} {
    ::qel::reactor after $::option(-beat) watch
    set seconds [expr {$::option(-beat) / 1e3}]
    foreach route [array names ::quiet] {
        if {[incr ::quiet($route)] * $::option(-beat) > $::option(-silence)} {
            gone $route "silent for $::option(-silence) ms"
        } elseif {[info exists ::worker($route)]} {
            set rate [expr {$::served($route) / $seconds}]
            set ::rate($route) [expr {0.7 * $::rate($route) + 0.3 * $rate}]
            set ::served($route) 0
            say $::workers $route beat
        } else {
            say $::submitters $route beat
        }
    }
    journal_watch
    settle
}
# Those who were asked who they are and never answered.
proc forget_strangers {} {
    array unset ::asked
    ::qel::reactor after $::option(-silence) forget_strangers
}
proc status {} {
    set workers {}
    foreach route [lsort -command {apply {{a b} {
        string compare [lindex $::worker($a) 0] [lindex $::worker($b) 0]
    }}} [array names ::worker]] {
        lappend workers [list [lindex $::worker($route) 0] rate [format %.1f $::rate($route)] \
            holds $::holds($route) credit $::credit($route)]
    }
    set submitters {}
    foreach name [lsort [array names ::low]] {
        lappend submitters [list $name jobs [array size ::job:$name] unacknowledged \
            [expr {[array size ::result:$name] + [array size ::dead:$name]}] \
            connected [expr {$::route($name) ne ""}]]
    }
    list waiting [expr {$::unfinished - $::out}] given $::out {*}[array get ::total] \
        refusing $::refusing workers $workers submitters $submitters
}
proc report {signal} {log "status: [status]"}

proc stop {signal} {
    set ::stopping 1
    set ::refusing "the queue is stopping"
    log "stopping on $signal: $::out jobs are with workers, [expr {$::unfinished - $::out}] wait"
    ::qel::reactor after $::option(-patience) {::qel::reactor stop}
    ::qel::reactor after 0 settle
}
# The last results are acknowledged by those who are there to do so.
proc leave {} {
    if {$::out} return
    foreach name [array names ::low] {
        if {$::route($name) ne "" && [array size ::result:$name] + [array size ::dead:$name]} return
    }
    journal_leave
    ::qel::reactor stop
}

read_options "queue.tcl -submit endpoint -workers endpoint ?-journal file? ?-sync?\
    ?-attempts number? ?-limit number? ?-beat ms? ?-silence ms? ?-patience ms?\
    ?-key file? ?-known directory?" [list [list -key {*}$keyRow] [list -known {*}$keyRow] \
    [list -submit {*}$endpointRow] [list -workers {*}$endpointRow] \
    {-journal "" . {the name of a file}} {-sync 0} [list -attempts 3 {*}$countRow] \
    [list -beat 1000 {*}$countRow] [list -silence 60000 {*}$countRow] \
    [list -limit 1000000 {*}$countRow] [list -patience 30000 {*}$countRow]]
::qel::reactor bgerror complain
if {$option(-journal) ne "" && [catch {journal_open $option(-journal)} message]} {
    log "cannot use the journal \"$option(-journal)\": $message"
    exit 1
}
foreach {socket word} {submitters -submit workers -workers} {
    set $socket [::zmq::socket new ROUTER]
    foreach name {-sndhwm -rcvhwm} {[set $socket] configure $name 0}
    [set $socket] configure -router_mandatory 1
}
guard $submitters $workers
foreach {socket word} {submitters -submit workers -workers} {
    if {[catch {[set $socket] bind $option($word)} message]} {misused "$word: $message"}
    ::qel::reactor event [set $socket] readable serve
}
log "submitters at [$submitters configure -last_endpoint],\
    workers at [$workers configure -last_endpoint]"
watch
forget_strangers
::qel::reactor start
journal_close
foreach socket [list $submitters $workers] {
    $socket configure -linger 1000
    $socket close
}
