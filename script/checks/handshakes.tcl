# handshakes.tcl serve count -- a server with keys, authentication and a monitor, one peer
# that it knows, whose numbered messages must arrive once and in order, and another process
# that makes so many handshakes which must fail.  Memory and descriptors stay level.

package require zmq::extra
set self [file normalize [info script]]

# The peer with the right key: numbers until standard input ends, then "end" and how many.
proc peer {endpoint public own} {
    ::zmq::socket create out PUSH
    ::zmq::curve client out $public {*}$own
    out connect $endpoint
    fconfigure stdin -blocking 0
    for {set n 1} {![eof stdin]} {incr n} {
        out send $n
        read stdin
        after 1
    }
    out configure -linger 20000
    out send end [expr {$n - 1}]
    out close
}

# Strangers one after the other, of four kinds: a key that the server does not know, the
# wrong key of the server, no key, and no ZeroMQ at all.  Each waits until it is refused.
proc strangers {endpoint public count} {
    lassign [::zmq::curve keypair] wrong
    ::zmq::socket create events PAIR
    for {set n 0} {$n < $count} {incr n} {
        if {$n % 4 == 3} {
            set channel [socket 127.0.0.1 [lindex [split $endpoint :] end]]
            fconfigure $channel -translation binary -buffering none
            puts -nonewline $channel [string repeat \xff 100]
            catch {read $channel}
            close $channel
            continue
        }
        set s [::zmq::socket new PUSH]
        if {$n % 4 < 2} {::zmq::curve client $s [lindex [list $public $wrong] [expr {$n % 4}]]}
        ::zmq::monitor start $s inproc://events$n handshake_failed_auth handshake_failed_protocol \
            handshake_failed_no_detail disconnected
        set events [::zmq::socket new PAIR]
        $events connect inproc://events$n
        $s connect $endpoint
        $events recv
        ::zmq::monitor stop $s
        $s close
        $events close
    }
}

proc memory {} {
    set f [open /proc/self/smaps_rollup]
    set text [read $f]
    close $f
    lindex [regexp -inline {Rss:\s+(\d+)} $text] 1
}
proc descriptors {} {llength [glob -directory /proc/self/fd *]}

# A program of another role.  Its words go in hexadecimal: a key may begin with ">", which
# would name a file.
proc started {role words mode} {
    open |[list [info nameofexecutable] $::self $role [binary encode hex $words] 2>@stderr] $mode
}

proc serve {count} {
    package require zmq::auth
    global known public secret others right
    lassign [::zmq::curve keypair] public secret
    set known [::zmq::curve keypair]
    set directory /tmp/handshakes-[pid]-[clock microseconds]
    file mkdir $directory
    set f [open $directory/right.key w]
    puts $f "public-key = \"[lindex $known 0]\""
    close $f
    ::zmq::auth start -keys $directory -refused {apply {request {incr ::refused([dict get $request reason])}}}
    file delete -force $directory

    ::zmq::socket create in PULL
    ::zmq::curve server in $secret
    ::zmq::monitor start in inproc://events accepted
    ::zmq::socket create events PAIR
    events connect inproc://events
    in bind tcp://127.0.0.1:*
    ::qel::reactor event in readable {arrived {*}[in recv]}
    ::qel::reactor event events readable accepted
    set endpoint [in configure -last_endpoint]
    set right [started peer [list $endpoint $public $known] r+]
    set others [started strangers [list $endpoint $public $count] r]
    ::qel::reactor event $others readable stopped
    ::qel::reactor bgerror {apply {{message options} {puts "FAIL: $message"; exit 1}}}
    ::qel::reactor start
}

# A number of the right peer's, or its last message.
proc arrived {number {last {}}} {
    if {$number ne "end"} {
        if {$number != [incr ::arrived]} {error "$number instead of message $::arrived"}
    } elseif {$last != $::arrived} {
        error "the last message of $last is missing, $::arrived are there"
    } else {
        ::qel::reactor stop
    }
}
# The library has all that it keeps after a fifth of the handshakes.
proc accepted {} {
    events recv
    if {[incr ::accepted] == $::count / 5} {set ::before [list [memory] [descriptors]]}
}
# The strangers have ended.  Connections that are just closing are waited for.
proc stopped {} {
    ::qel::reactor event $::others readable {}
    close $::others
    look 500
}
proc look {tries} {
    lassign $::before kib fds
    # One descriptor less: the pipe of the strangers.  Some may be on their way out then.
    if {[descriptors] <= $fds || $tries == 0} {
        set ::grown [list [expr {[memory] - $kib}] [expr {[descriptors] - $fds}]]
        close $::right write
    } else {
        ::qel::reactor after 10 [list look [expr {$tries - 1}]]
    }
}

lassign $argv role
if {$role ne "serve"} {
    $role {*}[binary decode hex [lindex $argv 1]]
    exit
}
set count [lindex $argv 1]
serve $count
lassign $grown kib fds
set good [expr {$accepted > $count && $refused(unknown\ key) >= ($count + 3) / 4 && $arrived > 0
    && $kib < 512 && $fds <= 0}]
puts "$count handshakes failed, $refused(unknown key) by an unknown key, while $arrived messages\
    of a known peer arrived once and in order; memory $kib KiB, descriptors $fds more"
exit [expr {!$good}]
