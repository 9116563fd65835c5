# memory.tcl iterations ?library of planted faults? -- calls every command, on its way of
# success and on its ways of failure, and looks at what the call leaves behind:
#
#   references    each argument has as many references as before
#   memory        so many iterations take less than 256 KiB
#   descriptors   and threads are as many as before
#
# One iteration looks at the references alone.  With the library, only the faults planted
# in it are called, and each must be seen for what it is.

package require zmq::extra
package require Thread
lassign $argv iterations planted
set red 0
proc complain {what} {
    puts "FAIL: $what"
    incr ::red
}

proc descriptors {} {llength [glob -directory /proc/self/fd *]}
proc threads {} {llength [glob -directory /proc/self/task *]}
# KiB.  The account by mappings is exact; VmRSS is counted in batches for each processor.
proc memory {} {
    set f [open /proc/self/smaps_rollup]
    set text [read $f]
    close $f
    lindex [regexp -inline {Rss:\s+(\d+)} $text] 1
}
proc references {words} {
    lmap word $words {
        lindex [regexp -inline {refcount of (\d+)} [::tcl::unsupported::representation $word]] 1
    }
}

# ZeroMQ's own thread gives back what a closed socket held, a little later: waits for a
# number of descriptors, or for one that stays the same.
proc settle {base tries} {
    for {} {[descriptors] > $base && $tries > 0} {incr tries -1} {after 2}
}
proc quiet {} {
    for {set same 0} {$same < 10} {after 2} {
        set now [descriptors]
        set same [expr {[info exists before] && $now == $before ? $same + 1 : 0}]
        set before $now
    }
    return $now
}
proc once {setup command undo} {
    uplevel #0 $setup
    set code [catch {uplevel #0 $command}]
    set what [expr {$code == 1 ? $::errorCode : "ok"}]
    uplevel #0 $undo
    return $what
}
proc repeat {n base expected row} {
    for {set i 0} {$i < $n} {incr i} {
        if {[set got [once {*}$row]] ne $expected} {
            error "[lindex $row 1]: $got instead of $expected"
        }
        if {$i % 100 == 99} {settle $base 50}
    }
    settle $base 2000
}

# What one row leaves behind.  The list of the command has no string: it is evaluated
# word by word, so that the command gets these very objects.
proc examine {expected setup command undo} {
    set left {}
    set command [list {*}$command]
    if {[set got [once $setup $command $undo]] ne $expected} {
        complain "$command: $got instead of $expected"
    }
    set before [references $command]
    once $setup $command $undo
    catch {error {so that the last failure's words are let go}}
    if {[references $command] ne $before} {lappend left references}
    if {$::iterations < 2} {return $left}

    set base [quiet]
    set tasks [threads]
    set row [list $setup $command $undo]
    repeat [expr {$::iterations / 5}] $base $expected $row
    # A leak grows every time; what ZeroMQ's thread was late to give back does not.
    for {set tries 8; set grown 256} {$tries > 0 && $grown >= 256} {incr tries -1} {
        set kib [memory]
        repeat $::iterations $base $expected $row
        set grown [expr {[memory] - $kib}]
    }
    if {$grown >= 256} {
        lappend left memory
        puts "$command: $grown KiB more"
    }
    # Fewer than at the beginning is no fault: what an earlier row held may have come back late.
    if {[descriptors] > $base} {lappend left descriptors}
    for {set tries 1000} {[threads] > $tasks && $tries > 0} {incr tries -1} {after 2}
    if {[threads] > $tasks} {lappend left threads}
    return $left
}

if {$planted ne ""} {
    load $planted Planted
    foreach {fault left} {keep references leak memory open descriptors thread threads} {
        set got [examine ok {} [list planted $fault word] {}]
        if {$left ni $got} {complain "the planted \"$fault\" was taken for \"$got\""}
    }
    exit [expr {$red > 0}]
}

::zmq::socket create s PAIR
s bind inproc://s
::zmq::socket create p PAIR
p connect inproc://s
::zmq::socket create u SUB
::zmq::socket create o ROUTER
o bind inproc://o
::zmq::socket create d DEALER
lassign [chan pipe] r w
proc cancel {} {foreach id [::qel::reactor after info] {::qel::reactor after cancel $id}}
proc default {} {::qel::reactor signal default USR1}
proc ignore_s {} {::qel::reactor event s readable {}}
proc close_new {} {foreach name [info commands ::zmq::zsock*] {$name close}}
proc swallow {args} {}
::qel::reactor bgerror swallow
proc thread_exits_in_timer {} {
    thread::join [thread::create -joinable {
        package require zmq
        ::qel::reactor after 0 thread::exit
        ::qel::reactor start
    }]
}
set public [string repeat 0 40]
set secret [string repeat 1 40]
set event [list [binary format tn 0x10 98] tcp://127.0.0.1:1]
proc later {script} {::qel::reactor after 0 $script}

# expected error code or "ok", setup, command, what undoes it.  A send that does not wait
# fails when ZeroMQ has not looked yet whether the peer made room: "-events" makes it look.
set rows {}
foreach command {
    ::zmq::version ::zmq::build ::qel::timestamp ::zmq::debug {::zmq::debug off word}
    {::zmq::debug worker name} {::zmq::debug node name} {::zmq::debug file /dev/null}
    {::zmq::socket names} {s stats} {s configure} {s configure -linger}
    {s configure -identity} {s configure -last_endpoint} {s configure -linger 0}
    {s configure -affinity 3} {u configure -identity name} {u configure -maxmsgsize 99999999999}
    {::zmq::poll s p 0} {::qel::reactor timeout} {::qel::reactor timeout 100}
    {::qel::reactor bgerror} {::qel::reactor events} {::qel::reactor stop}
    {::qel::reactor event s readable} {::qel::reactor after info}
    {::qel::reactor signal default} {::qel::reactor signal ignore}
    {::qel::reactor signal status} {::qel::reactor signal status {USR1 2 SIGHUP}}
    {::qel::reactor signal trap} {::qel::reactor signal trap USR1}
    {::zmq::curve keypair} {::zmq::monitor event {$event}}
} {
    lappend rows ok {} [subst -nobackslashes -nocommands $command] {}
}
foreach {setup command undo} {
    {} {::zmq::socket create t PUB} {t close}
    {} {::zmq::socket new PUB} close_new
    {::zmq::socket create t PUB} {t close} {}
    {::zmq::socket create t PUB} {rename t {}} {}
    {::zmq::socket create t PUB; ::qel::reactor event t writable x} {t destroy} {}
    {::zmq::debug on} {::zmq::socket create t PUB} {t close; ::zmq::debug off}
    {} {u configure -subscribe topic} {u configure -unsubscribe topic}
    {::zmq::socket create t PUB} {::zmq::curve server t $secret} {t close}
    {::zmq::socket create t PUB} {::zmq::curve client t $public} {t close}
    {::zmq::socket create t PUB} {::zmq::curve client t $public $public $secret} {t close}
    {} {::zmq::monitor start s inproc://events accepted} {::zmq::monitor stop s}
    {::zmq::monitor start s inproc://events} {::zmq::monitor stop s} {}
    {::zmq::socket create t PUB; ::zmq::monitor start t inproc://events[incr closed]} {t close} {}
    {} {d connect inproc://o} {d disconnect inproc://o; catch {o recv -nowait}}
    {} {p send a bb ccc} {s recv -nowait}
    {p configure -events} {p send -nowait a} {s recv -nowait}
    {p send a bb ccc} {s recv -nowait} {}
    {p send word} {s recv} {}
    {p send a} {::zmq::poll s $r 0} {s recv}
    {} {::qel::reactor bgerror {swallow it}} {::qel::reactor bgerror swallow}
    {} {::qel::reactor after 1000 {a script} {and one more}} cancel
    {::qel::reactor after 1000 x} {::qel::reactor after cancel x} {}
    {::qel::reactor after 1000 x} {::qel::reactor after cancel nosuch} cancel
    {} {::qel::reactor event s readable {a script}} ignore_s
    {::qel::reactor event s readable x} {::qel::reactor event s readable {a script}} ignore_s
    {::qel::reactor event s readable x} {::qel::reactor event s readable {}} {}
    {::qel::reactor event s readable x; ::qel::reactor event $r readable x}
        {::qel::reactor events} {::qel::reactor event $r readable {}; ignore_s}
    {} {::qel::reactor event $r readable {a script}} {::qel::reactor event $r readable {}}
    {later {::qel::reactor stop}} {::qel::reactor start} {}
    {later {error "of a script"}; later "\{"; later {::qel::reactor stop}} {::qel::reactor start} {}
    {p send a; ::qel::reactor event s readable {s recv; ::qel::reactor stop}} {::qel::reactor start} ignore_s
    {later {catch ::qel::reactor start; ::qel::reactor stop; error x {} {MY CODE}}} {::qel::reactor start} {}
    {} {::qel::reactor signal ignore USR1} default
    {} {::qel::reactor signal default USR1} {}
    {} {::qel::reactor signal trap USR1 {a script}} default
    {::qel::reactor signal trap USR1 x} {::qel::reactor signal trap USR1 {a script}} default
    {::qel::reactor signal trap USR1 x} {::qel::reactor signal trap} default
    {} {::qel::reactor signal block {USR1 USR2}} {::qel::reactor signal unblock {USR1 USR2}}
    {::qel::reactor signal block {USR1 USR2}} {::qel::reactor signal unblock {USR1 USR2}} {}
} {
    lappend rows ok $setup [subst -nobackslashes -nocommands $command] $undo
}
set wrong {TCL WRONGARGS}
catch {string repeat x y} - options
set integer [dict get $options -errorcode]
foreach {code command} {
    $wrong {::zmq::version word}  $wrong {::zmq::build word}  $wrong {::qel::timestamp word}
    $wrong {::zmq::debug worker}  {TCL LOOKUP INDEX subcommand nosuch} {::zmq::debug nosuch name}
    $wrong {::zmq::socket create name}  {ZMQ LOOKUP COMMAND s} {::zmq::socket create s PUB}
    {ZMQ SOCKET TYPE pub} {::zmq::socket create t pub}  {ZMQ SOCKET TYPE pub} {::zmq::socket new pub}
    {TCL LOOKUP INDEX method nosuch} {s nosuch}  $wrong {s send}  $wrong {s stats word}
    {ZMQ SOCKET BIND} {s bind foo://word}  {ZMQ SOCKET BIND} {o bind inproc://s}
    {ZMQ SOCKET CONNECT} {s connect word}  {ZMQ SOCKET UNBIND} {s unbind tcp://127.0.0.1:1}
    {ZMQ SOCKET DISCONNECT} {s disconnect inproc://nosuch}
    {ZMQ SOCKET RECV FRAME} {s recv -nowait}  {ZMQ SOCKET SEND} {u send a word}
    {ZMQ SOCKET SET BIN} {s configure -subscribe topic}  $integer {s configure -linger word}
    {ZMQ SOCKET GET -nosuch} {s configure -nosuch}  {ZMQ SOCKET SET -nosuch} {s configure -nosuch word}
    {ZMQ SOCKET SET -type} {s configure -type 3}  {ZMQ SOCKET GET -subscribe} {s configure -subscribe}
    {ZMQ POLL HANDLE nosuch} {::zmq::poll s nosuch 0}  {ZMQ POLL HANDLE $w} {::zmq::poll s $w 0}
    {ZMQ POLL HANDLE word} {::zmq::poll s word}  {TCL VALUE NUMBER} {::qel::reactor timeout word}
    {TCL LOOKUP INDEX argument word} {::qel::reactor after word {a script}}
    {QEL TIMER AFTER LOOKUP after#0} {::qel::reactor after info after#0}
    {ZMQ REACTOR EVENT CHAN nosuch} {::qel::reactor event nosuch readable {a script}}
    {ZMQ REACTOR EVENT CHAN $r} {::qel::reactor event $r writable {a script}}
    {TCL LOOKUP INDEX {event type} word} {::qel::reactor event s word {a script}}
    {QEL SIGNAL PARSE} {::qel::reactor signal trap word {a script}}
    {QEL SIGNAL TRAP} {::qel::reactor signal trap * {a script}}
    {QEL SIGNAL PARSE} {::qel::reactor signal status {USR1 word}}
    {TCL VALUE LIST BRACE} {::qel::reactor signal block "\{"}
    {QEL SIGNAL PARSE} {::qel::reactor signal unblock {USR1 word}}
    {QEL SIGNAL PARSE} {::qel::reactor signal default 99}
    {TCL LOOKUP INDEX subcommand word} {::qel::reactor word}
    {TCL LOOKUP INDEX subcommand word} {::qel::reactor signal word}
    {ZMQ CURVE SOCKET word} {::zmq::curve server word $secret}  {ZMQ CURVE KEY} {::zmq::curve client u word}
    {ZMQ CURVE ATTACHED} {::zmq::curve server s $secret}  {ZMQ MONITOR STOP} {::zmq::monitor stop s}
    {ZMQ MONITOR START} {::zmq::monitor start u inproc://s}  {ZMQ MONITOR EVENT} {::zmq::monitor event word}
    $wrong {::zmq::poll}  $wrong {s configure -linger 1 word}  $wrong {s recv -nowait word}
} {
    lappend rows [subst $code] {} [subst -nocommands $command] {}
}

# Valgrind lets a program believe that it set a handler for SIGKILL.
if {![info exists ::env(LD_PRELOAD)] || ![string match *vgpreload* $::env(LD_PRELOAD)]} {
    lappend rows {QEL SIGNAL DEFAULT SET} {} {::qel::reactor signal default KILL} {}
}

# The Thread package leaves the interpreter of such a thread behind, the library nothing.
if {$iterations < 2} {
    lappend rows ok {} thread_exits_in_timer {}
}

foreach {expected setup command undo} $rows {
    foreach left [examine $expected $setup $command $undo] {
        complain "$command: $left are not what they were"
    }
}
puts "[expr {[llength $rows] / 4}] calls $iterations times, $red red"
exit [expr {$red > 0}]
