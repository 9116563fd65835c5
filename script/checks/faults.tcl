# faults.tcl -- makes the N-th call of each function that the library calls fail, for
# N = 1, 2, ... until the command makes no further call, once and for good.
#
# After each failure: the exact message and code, or the documented silence; the same
# descriptors and signal mask as before; and the same command then succeeds.

load $::env(FAULT_LIBRARY) Fault
set ::red 0
set ::cases 0
set ::work [file dirname $::env(FAULT_STDERR)]

proc complain {what} {
    puts "FAIL: $what"
    incr ::red
}

proc expect {what got want} {
    incr ::cases
    if {$got ne $want} {complain "$what\n   got  $got\n   want $want"}
}

# What must be as before: open descriptors but for ZeroMQ's own, and the signal mask.
proc process_state {} {
    set f [open /proc/self/status]
    regexp {SigBlk:\s*(\S+)} [read $f] -> mask
    close $f
    set kinds {}
    foreach fd [glob -tails -directory /proc/self/fd *] {
        if {![catch {file readlink /proc/self/fd/$fd} target] &&
            ![string match *eventfd* $target] && ![string match *eventpoll* $target] &&
            ![string match socket:* $target] && ![string match */proc/* $target]} {
            lappend kinds [regsub {[0-9]+$} $target {}]
        }
    }
    list mask $mask fds [lsort $kinds]
}

# Standard error goes to a file; gives what came since the last call, times taken out.
proc stderr_news {} {
    flush stderr
    set f [open $::env(FAULT_STDERR)]
    seek $f [expr {[info exists ::stderr_seen] ? $::stderr_seen : 0}]
    set news [read $f]
    set ::stderr_seen [tell $f]
    close $f
    regsub -all {\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3}[+-]\d{4}} $news TIME
}

# Runs a command with the n-th call of a function failing; gives what came of it, and in
# failures how often the function failed.
proc run_armed {function n error forgood command failuresName} {
    upvar 1 $failuresName failures
    fault arm $function $n $error {*}[expr {$forgood ? "forgood" : ""}]
    set code [catch {uplevel #0 $command} result options]
    set failures [fault off]
    if {$code == 1} {
        return [list $result [dict get $options -errorcode]]
    }
    return ok
}

# One row.  wants: what each N leads to, a failure or "ok"; "*" stands for one want that
# all N share.
proc walk {name function error setup command cleanup wants modes} {
    foreach forgood $modes {
        for {set n 1} {1} {incr n} {
            set what "$name: $function call $n fails with $error [expr {$forgood ? {for good} : {once}}]"
            uplevel #0 $setup
            set before [process_state]
            set got [run_armed $function $n $error $forgood $command failures]
            if {$failures == 0} {
                uplevel #0 $cleanup
                break
            }
            set shared [expr {[lindex $wants 0] eq "*"}]
            expect $what $got [lindex $wants [expr {$shared ? 1 : $n - 1}]]
            uplevel #0 $cleanup
            uplevel #0 $setup
            expect "$what: state" [process_state] $before
            expect "$what: again" [run_armed none 1 0 0 $command failures] ok
            uplevel #0 $cleanup
        }
        if {$n == 1} {complain "$name: $function is never called"}
        if {[lindex $wants 0] ne "*" && $n - 1 != [llength $wants]} {
            complain "$name: $function is called [expr {$n - 1}] times, not [llength $wants]"
        }
    }
}

# The load itself, before anything else is there.
fault arm zmq_ctx_new 1 24
expect load [list [catch {package require zmq} m o] $m [dict get $o -errorcode]] \
    {1 {failed to create default ctx} {ZMQ INIT CTX}}
fault off
package require zmq::extra
package require Thread

proc new_pair {{from PUSH} {to PULL}} {
    ::zmq::socket create pull $to
    pull bind inproc://fault[incr ::endpoint]
    ::zmq::socket create push $from
    push connect inproc://fault$::endpoint
}
proc close_pair {} {
    foreach s {pull push} {catch {$s close}}
}
proc lose_context {} {
    set t [thread::create -joinable {package require zmq; thread::wait}]
    thread::release $t
    thread::join $t
}
proc signals_default {args} {
    foreach sig {USR1 USR2} {
        ::qel::reactor signal default $sig
    }
    ::qel::reactor signal unblock {USR1 USR2}
}
proc remember {args} {lappend ::reported {*}$args}
proc run_reactor {ms} {
    ::qel::reactor after $ms {::qel::reactor stop}
    ::qel::reactor start
}
::qel::reactor bgerror remember
foreach signal [::qel::reactor signal ignore] {::qel::reactor signal default $signal}

# The texts of error numbers: ZeroMQ's and Tcl's.
set einval {22 {Invalid argument} {invalid argument}}
lassign $einval EINVAL zmqInvalid tclInvalid

set readable [dict keys [[::zmq::socket create s PAIR; set x s] configure]]
s close
set getAll {}
foreach option $readable {
    lappend getAll [list "failed to retrieve value for option \"$option\": $zmqInvalid" \
        [list ZMQ SOCKET GET $option]]
}
set signals [dict keys [::qel::reactor signal status]] ; # in the order of their numbers from 1 on
proc numbered {format code} {
    set n 0
    lmap name $::signals {list [format $format [incr n]] $code}
}
proc one {message args} {list [list $message $args]}
proc all {message args} {list * [list $message $args]}
set ok {{} ok}

set create {{} {::zmq::socket create s PUSH} {catch {s close}}}
set recvWith {{new_pair; push send a bb ccc; push send next} {pull recv -nowait} close_pair}
set trap {{::qel::reactor signal trap USR1 a} {::qel::reactor signal trap USR2 b} signals_default}
set untrap {{::qel::reactor signal trap USR1 a; ::qel::reactor signal trap USR2 b}
    {::qel::reactor signal default USR2} signals_default}
proc command {command} {list {} $command {}}
lassign [::zmq::curve keypair] publicKey secretKey
set noKeys {failed to set keys: Invalid argument}
set noMonitor "failed to monitor socket: Invalid argument"
set server {{::zmq::socket create s PULL} {::zmq::curve server s $secretKey} {s close}}
set client {{::zmq::socket create s PUSH} {::zmq::curve client s $publicKey} {s close}}
set monitor {{::zmq::socket create s PULL} {::zmq::monitor start s inproc://events[incr ::endpoint]}
    {catch {::zmq::monitor stop s}; s close}}
set usr2Set {failed to set handler for signal 12: invalid argument}
set maskError "failed to set signal mask: $tclInvalid"
set both {0 1}

# name, function, error, {setup command cleanup}, wants, modes
set rows [list \
  create zmq_socket 24 $create [one {failed to create socket: Too many open files} ZMQ SOCKET CREATE] $both \
  create zmq_setsockopt 22 $create [one {failed to set option "-linger": Invalid argument} ZMQ SOCKET DEFAULTS] $both \
  create strdup 12 $create [one {failed to allocate data for socket} ZMQ SOCKET DATA ALLOC] $both \
  create sigfillset 22 $create {ok} $both \
  create pthread_sigmask 22 $create {ok ok} 0 \
  create zmq_ctx_new 24 [list lose_context {::zmq::socket create s PUSH} {catch {s close}}] \
      [one {failed to create default ctx} ZMQ CTX DEFAULT] $both \
  close zmq_close 88 {{::zmq::socket create s PUSH} {s close} {}} {ok} $both]
foreach {name scenario} [list keypair {{} {::zmq::curve keypair} {}} client $client] {
    lappend rows $name zmq_has 22 $scenario [all {this ZeroMQ was built without CURVE} ZMQ CURVE SUPPORT] 0 \
        $name zmq_curve_keypair 95 $scenario [one {failed to make keys: Operation not supported} ZMQ CURVE KEYPAIR] $both
}
foreach function {zmq_z85_decode zmq_z85_encode} {
    lappend rows server $function 22 $server \
        [one {bad secret key: a key has 40 characters and is valid Z85} ZMQ CURVE KEY] $both
}
lappend rows server zmq_getsockopt 22 $server [list [list $noKeys {ZMQ CURVE OPTION}] ok] 0 \
    server zmq_setsockopt 22 $server [lrepeat 2 [list $noKeys {ZMQ CURVE OPTION}]] $both \
    client zmq_setsockopt 22 $client [lrepeat 3 [list $noKeys {ZMQ CURVE OPTION}]] $both \
    monitor zmq_setsockopt 22 $monitor {ok ok} $both \
    monitor-stop zmq_socket_monitor 22 \
        {{::zmq::socket create s PULL; ::zmq::monitor start s inproc://events[incr ::endpoint]} {::zmq::monitor stop s} {s close}} \
        [one {failed to stop monitor: Invalid argument} ZMQ MONITOR STOP] $both
foreach {function calls} {malloc 1 strdup 1 zmq_socket 2 zmq_bind 1 zmq_connect 1 zmq_socket_monitor 1 pthread_create 1} {
    # Under valgrind its own malloc stands before all others.
    if {$function eq "malloc" && [string match *vgpreload* $::env(LD_PRELOAD)]} continue
    lappend rows monitor $function 22 $monitor [lrepeat $calls [list $noMonitor {ZMQ MONITOR START}]] $both
}
foreach method {bind unbind connect disconnect} {
    set undo [dict get {unbind bind disconnect connect bind bind connect connect} $method]
    set setup [expr {$undo eq $method ? "::zmq::socket create s PUSH"
        : "::zmq::socket create s PUSH; s $undo ipc://$::work/ipc"}]
    lappend rows $method zmq_$method 22 \
        [list $setup "s $method ipc://$::work/ipc" {s close}] \
        [one "failed to $method socket: Invalid argument" ZMQ SOCKET [string toupper $method]] $both
}
lappend rows \
  send zmq_send 11 {new_pair {push send a bb ccc} close_pair} \
      [all {send failed: Resource temporarily unavailable} ZMQ SOCKET SEND] $both \
  recv zmq_msg_init 12 $recvWith [all {failed to initialize frame: Cannot allocate memory} ZMQ SOCKET RECV INIT] $both \
  recv zmq_msg_recv 4 $recvWith [all {failed to receive frame: Interrupted system call} ZMQ SOCKET RECV FRAME] $both \
  recv zmq_msg_size 0 $recvWith [all {failed to create byte array for frame} ZMQ SOCKET RECV BYTES] $both \
  recv zmq_msg_close 14 $recvWith [all {failed to release frame} ZMQ SOCKET RECV CLOSE] $both \
  recv zmq_getsockopt 22 $recvWith [all {failed to check for more frames: Invalid argument} ZMQ SOCKET RECV GETSOCKOPT] $both \
  get-all zmq_getsockopt 22 {{::zmq::socket create s SUB} {s configure} {s close}} $getAll $both
foreach {option value word} {-sndhwm 5 INT -maxmsgsize 9 I64 -affinity 1 U64 -subscribe x BIN -zap_domain z STR} {
    lappend rows set zmq_setsockopt 22 \
        [list {::zmq::socket create s SUB} "s configure $option $value" {s close}] \
        [one "failed to set option \"$option\": Invalid argument" ZMQ SOCKET SET $word] $both
}
# Marks of a socket that may have connections are set by way of two others.
set marks {{fault version 4 3 4; ::zmq::socket create s SUB; s bind ipc://$::work/ipc}
    {s configure -rcvhwm 5} {s close; fault version 0 0 0}}
foreach {function calls} {getsockopt 2 socket 2 bind 1 connect 1 send 1 recv 1} {
    lappend rows set-marks zmq_$function 22 $marks [lrepeat $calls \
        {{failed to set option "-rcvhwm": Invalid argument} {ZMQ SOCKET SET INT}}] $both
}
lappend rows set-marks zmq_setsockopt 22 $marks [list ok ok ok ok \
    {{failed to set option "-rcvhwm": Invalid argument} {ZMQ SOCKET SET INT}}] 0 \
    set-marks zmq_close 22 $marks {ok ok} $both
foreach {option} {-linger -affinity -maxmsgsize -identity -last_endpoint -type} {
    lappend rows get zmq_getsockopt 22 \
        [list {::zmq::socket create s SUB} "s configure $option" {s close}] \
        [one "failed to retrieve value for option \"$option\": Invalid argument" ZMQ SOCKET GET $option] $both
}
set polled {{new_pair} {::zmq::poll pull stdin 0} close_pair}
lappend rows \
  poll zmq_poll 4 $polled [one {poll failed: Interrupted system call} ZMQ POLL] $both \
  poll strdup 12 $polled [list {{failed to copy handle name "pull"} {ZMQ POLL HANDLE pull}} \
      {{failed to copy handle name "stdin"} {ZMQ POLL HANDLE stdin}}] $both \
  file strdup 12 [command {::zmq::debug file /tmp/x}] {ok} $both \
  list-default sigemptyset 22 [command {::qel::reactor signal default}] \
      [one {failed to empty sigset} QEL SIGNAL STATE GET] $both \
  list-default sigaction 22 [command {::qel::reactor signal default}] \
      [numbered {failed to query signal %d} {QEL SIGNAL STATE GET}] $both \
  list-ignore sigaddset 22 {{::qel::reactor signal ignore USR2} {::qel::reactor signal ignore} signals_default} \
      [all {failed to add signal 12} QEL SIGNAL STATE GET] 0 \
  list-default sigismember 22 [command {::qel::reactor signal default}] \
      [all {failed to build result list} QEL SIGNAL STATE GET] $both \
  default sigaction 22 [command {::qel::reactor signal default USR2}] \
      [one $usr2Set QEL SIGNAL DEFAULT SET] $both \
  trap sigemptyset 22 $trap {{{failed to empty signal mask} {QEL SIGNAL FD MASK}} \
      {{failed to empty sigset} {QEL SIGNAL BLOCK}}} $both \
  trap sigismember 22 $trap [one {failed to check signal 12 against mask} QEL SIGNAL FD ADD] $both \
  trap sigaddset 22 $trap {{{failed to add signal 10 to mask} {QEL SIGNAL FD MASK}} \
      {{failed to add signal 12 in mask} {QEL SIGNAL FD ADD}} \
      {{failed to add signal 12 to mask} {QEL SIGNAL BLOCK}}} $both \
  trap pthread_sigmask 22 $trap [one $maskError QEL SIGNAL BLOCK] $both \
  trap signalfd 24 $trap [one {failed signalfd: too many open files} QEL SIGNAL FD] $both \
  first-trap signalfd 24 {{} {::qel::reactor signal trap USR2 b} signals_default} \
      [one {failed signalfd: too many open files} QEL SIGNAL FD] $both \
  untrap sigemptyset 22 $untrap {{{failed to empty signal mask} {QEL SIGNAL FD MASK}} \
      {{failed to empty sigset} {QEL SIGNAL BLOCK}}} $both \
  untrap sigaddset 22 $untrap {{{failed to add signal 10 to mask} {QEL SIGNAL FD MASK}} \
      {{failed to add signal 12 to mask} {QEL SIGNAL FD MASK}} \
      {{failed to add signal 12 to mask} {QEL SIGNAL BLOCK}}} $both \
  untrap sigismember 22 $untrap [one {failed to check signal 12 against mask} QEL SIGNAL FD REMOVE] $both \
  untrap sigdelset 22 $untrap [one {failed to remove signal 12 from mask} QEL SIGNAL FD REMOVE] $both \
  untrap signalfd 22 $untrap [one {failed to remove signal 12 from mask: invalid argument} QEL SIGNAL FD REMOVE] $both \
  untrap pthread_sigmask 22 $untrap [one $maskError QEL SIGNAL BLOCK] $both \
  status sigemptyset 22 [command {::qel::reactor signal status}] [one {failed to empty sigset} QEL SIGNAL STATUS] $both \
  status sigfillset 22 [command {::qel::reactor signal status}] [one {failed to fill sigset} QEL SIGNAL STATUS] $both \
  status pthread_sigmask 22 [command {::qel::reactor signal status}] [one {failed to query signal mask} QEL SIGNAL STATUS] $both \
  status sigpending 14 [command {::qel::reactor signal status}] [one {failed to query pending signals} QEL SIGNAL STATUS] $both \
  status sigaction 22 [command {::qel::reactor signal status}] \
      [numbered {failed to query action for signal %d} {QEL SIGNAL STATE}] $both \
  status sigaddset 22 [command {::qel::reactor signal status USR2}] \
      [one {failed to add "USR2" to set} QEL SIGNAL PARSE LIST] $both \
  status-hup sigismember 22 [command {::qel::reactor signal status HUP}] \
      [list {{failed to check signal SIGHUP} {QEL SIGNAL STATUS}} \
      {{failed to query blocked status for signal 1} {QEL SIGNAL STATUS BLOCKED}} \
      {{failed to query pending status for signal 1} {QEL SIGNAL STATUS PENDING}} \
      {*}[lmap s [lrange $signals 1 end] {
          list "failed to check signal $s" {QEL SIGNAL STATUS}}]] $both
foreach {sub} {block unblock} {
    set done {{} {::qel::reactor signal %s {USR1 USR2}} signals_default}
    set done [lmap part $done {format $part $sub}]
    lappend rows \
        $sub sigemptyset 22 $done [one {failed to empty signal set} QEL SIGNAL [string toupper $sub]] $both \
        $sub pthread_sigmask 22 $done [one $maskError QEL SIGNAL BLOCK] $both \
        $sub sigaddset 22 $done {{{failed to add "USR1" to set} {QEL SIGNAL PARSE LIST}} \
            {{failed to add "USR2" to set} {QEL SIGNAL PARSE LIST}}} $both
}
lappend rows unblock sigismember 22 [command {::qel::reactor signal unblock {}}] \
    [numbered {failed to check signal %d against mask} {QEL SIGNAL TRAPPED}] $both

# Failures of Tcl's own calls.  Stores are set up once a thread: those rows run in a
# fresh one.
proc there {command} {
    if {[thread::send $::thread [list catch $command message options]] == 1} {
        return -code error -errorcode [dict get [thread::send $::thread {set options}] -errorcode] \
            [thread::send $::thread {set message}]
    }
}
proc fresh {command} {
    set setup {set ::thread [thread::create -joinable]; thread::send $::thread {package require zmq}}
    list $setup [list there $command] \
        {thread::release $::thread; thread::join $::thread}
}
set threadData {failed to get sockets thread data}
set pulled {{new_pair; push send a} {pull recv} close_pair}
lappend rows \
  create tcl_AttemptAlloc 12 $create [list {{failed to allocate DString} {ZMQ NAME FQ s}} \
      {{failed to allocate data for socket} {ZMQ SOCKET DATA ALLOC}}] $both \
  create tcl_CreateObjCommand 12 $create [one {failed to create command "::s"} ZMQ SOCKET CREATE] $both \
  create tcl_GetThreadData 12 $create [one $threadData ZMQ SOCKET CREATE DATA] $both \
  names tcl_GetThreadData 12 [command {::zmq::socket names}] [one $threadData ZMQ SOCKET NAMES DATA] $both \
  new tcl_GetThreadData 12 {{} {[::zmq::socket new PULL] close} {}} \
      [list [list $threadData {ZMQ SOCKET NEW DATA}] [list $threadData {ZMQ SOCKET CREATE DATA}]] $both \
  bgerror tcl_GetThreadData 12 [command {::qel::reactor bgerror}] [list \
      {{failed to get reactor thread data} {ZMQ REACTOR THREAD DATA}} \
      {{failed to get bgerror thread data} {QEL REACTOR BGERROR THREAD DATA}}] 0 \
  timestamp tcl_NewStringObj 12 [command {::qel::timestamp}] \
      [one {failed to allocate Tcl string} QEL TIMESTAMP] 0 \
  recv tcl_ListObjAppendElement 12 $pulled [one {failed to append bytes to list} ZMQ SOCKET RECV APPEND] $both \
  poll tcl_ListObjAppendElement 12 {{new_pair; push send a} {::zmq::poll pull 100} close_pair} [one {} NONE] $both \
  list-default tcl_ListObjAppendElement 12 [command {::qel::reactor signal default}] [all {} NONE] $both \
  get-all tcl_DictObjPut 12 {{::zmq::socket create s SUB} {s configure} {s close}} \
      [lmap o $readable {list "failed to add option $o to result" {ZMQ SOCKET GET}}] $both \
  get-trap tcl_DictObjPut 12 {{::qel::reactor signal trap USR2 x} {::qel::reactor signal trap USR2} signals_default} \
      [one {failed to get handler for signal SIGUSR2} QEL SIGNAL TRAP GET] $both \
  event tcl_GetCommandInfo 12 {{new_pair} {::qel::reactor event pull readable x} close_pair} \
      [one {invalid command name "pull"} ZMQ SOCKET DATA pull] $both

foreach {name function error scenario wants modes} $rows {
    walk $name $function $error {*}$scenario $wants $modes
}

# A mask that cannot be put back is tried twice; the thread then has every signal blocked.
expect "the mask is lost" \
    [list [run_armed pthread_sigmask 2 22 1 {::zmq::socket create s PUSH} failures] $failures] {ok 2}
s close
::qel::reactor signal unblock [dict keys [::qel::reactor signal status]]

# A message that could not be given whole is discarded whole.
foreach function {zmq_msg_init zmq_msg_recv zmq_msg_size zmq_msg_close zmq_getsockopt} {
    foreach n {2 3} {
        new_pair
        push send a bb ccc
        push send next
        run_armed $function $n 4 0 {pull recv -nowait} failures
        expect "$function $n: the next message" [pull recv -nowait] next
        expect "$function $n: statistics" [dict get [pull stats] received messages] 1
        close_pair
    }
}

# A peer that goes in the middle of a message: where messages go round-robin libzmq drops the
# rest from 4.3.1 on, and must be given it to its end; elsewhere, and in earlier versions, it
# would take the rest for a message of its own.
foreach {version from to message} {
    {4 3 1} PUSH PULL {a ccc dddd}  {4 3 1} DEALER DEALER {a ccc dddd}  {4 3 1} REQ REP {a ccc dddd}
    {4 3 1} PAIR PAIR {a next one}  {4 3 0} PUSH PULL {a next one}  {4 2 5} PUSH PULL {a next one}
} {
    new_pair $from $to
    fault version {*}$version
    expect "send in part, $version" [lindex [run_armed zmq_send 2 11 0 {push send a bb ccc dddd} failures] 0] \
        {send failed: Resource temporarily unavailable}
    catch {push send next one}
    expect "send in part, $version, $from: the message that comes" [pull recv -nowait] $message
    close_pair
}
fault version 0 0 0

# Where frames are addresses and data in turn, nothing is sent after the one that failed.
::zmq::socket create st STREAM
st bind tcp://127.0.0.1:*
set client [socket 127.0.0.1 [lindex [split [st configure -last_endpoint] :] end]]
fconfigure $client -blocking 0 -translation binary
st configure -rcvtimeo 20000
set id [lindex [st recv] 0]
run_armed zmq_send 3 11 0 {st send $id one $id two} failures
st send $id three
for {set tries 5000; set got {}} {$tries > 0 && $got ne "onethree"} {incr tries -1; after 2} {
    append got [read $client]
}
expect "send to several in part" $got onethree
close $client
st close

# Failures without a caller: silence, standard error or the background-error handler.  The
# first call's failure is looked at; later ones, and a failure for good, must leave the
# process as it was and the command able to succeed.  (A signal that can never be read
# stays pending, and would end the process when it is unblocked.)
proc observe {name function error command check want {forgood 0}} {
    unset -nocomplain ::reported
    stderr_news
    set result [run_armed $function 1 $error $forgood $command failures]
    if {$failures == 0} {complain "$name: $function is never called"}
    expect $name [list $result [uplevel #0 $check]] [list ok $want]
    foreach lasting [expr {$forgood || $function eq "read" ? 0 : {0 1}}] {
        set failures 1
        for {set n [expr {2 - $lasting}]} {$failures > 0} {incr n} {
            set before [process_state]
            expect "$name: call $n" [run_armed $function $n $error $lasting $command failures] ok
            expect "$name: call $n: state" [process_state] $before
        }
    }
    expect "$name: again" [run_armed none 1 0 0 $command failures] ok
}
proc silent {} {}
foreach function {gettimeofday localtime_r strftime} {
    observe timestamp $function 22 {set ::t [::qel::timestamp]} {set ::t} {}
}
set logFile $work/log
proc logged {} {
    ::zmq::debug file $::logFile
    ::zmq::debug on
    ::zmq::socket create s PUSH
    ::zmq::debug off
    s close
}
observe log fopen 13 logged {regexp {sockets now using the default context: 1\n} [stderr_news]} 1
observe log fclose 28 logged {stderr_news} \
    "log_stream_close: failed to close log stream: No space left on device\n"
observe log gettimeofday 22 logged {set f [open $::logFile]; set m [regexp -line {^:\(null\):debug:} [read $f]]; close $f; set m} 1
observe log-line asprintf 12 logged {stderr_news} {}
observe log-message vasprintf 12 logged {stderr_news} {}
observe log-write fwrite 28 logged {stderr_news} \
    "log_stream_close: failed to close log stream: No space left on device\n"
observe log-buffer setvbuf 12 logged {stderr_news} {}
observe descriptors fcntl 9 {[::zmq::socket new PUB] close} silent {}
observe limit getrlimit 22 {::zmq::poll {*}[lrepeat 20 stdin] 0} silent {}
observe descriptor close 5 {::qel::reactor signal trap USR1 x; signals_default} silent {}
foreach {error text} {
    14 {one of the poll itemsis not valid: Bad address}
    156384765 {one of the poll itemsis a zmq socket whose ctx was terminated: Context was terminated}
    4 {poll was interruptedby a signal: Interrupted system call}
    9 {some poll error: Bad file descriptor}
} {
    observe poll-$error zmq_poll $error {run_reactor 20} stderr_news \
        "TIME:-:reactor:error:\[[pid]\]:-: $text\n"
}
# The outer loop polls again when another has run inside a handler.
proc nested {} {
    set ::ran {}
    set ::entered 0
    new_pair
    push send x
    ::qel::reactor event push writable {
        if {[incr ::entered] == 1} {::qel::reactor stop; ::qel::reactor start}
    }
    ::qel::reactor event pull readable {lappend ::ran [catch {pull recv -nowait}]; ::qel::reactor stop}
    set guard [::qel::reactor after 20 {::qel::reactor stop}]
    ::qel::reactor start
    ::qel::reactor after cancel $guard
    close_pair
    if {1 in $::ran} {error "a handler ran without a message"}
}
observe poll-nested zmq_poll 4 nested {set ::ran} 0
# Polls that are interrupted come without a pause.
proc poll_errors {} {llength [split [string trim [stderr_news]] \n]}
observe poll-interrupted zmq_poll 4 {run_reactor 50} {expr {[poll_errors] > 20}} 1 1
proc signalled {} {
    set ::ran {}
    ::qel::reactor signal trap USR1 {apply {name {lappend ::ran $name; ::qel::reactor stop}}}
    exec sh -c "kill -USR1 [pid]"
    ::qel::reactor start
    signals_default
}
# Tcl has words of its own for errors, which differ between its versions.
catch {read [open /proc/self/mem rb] 1}
set input "pv_signal_dispatch: error handling signals: [join [lrange $errorCode 1 end]]"
foreach {function error want} [list read 5 [list [list $input] SIGUSR1] {*}{
    read 0 {{{pv_signal_dispatch: bad read from signal fd}} SIGUSR1}
    read -1 {{} SIGUSR1}
}] {
    observe dispatch-$error $function $error signalled \
        {list [expr {[info exists ::reported] ? $::reported : {}}] $::ran} $want
}
observe dispatch-format vasprintf 12 {
    ::qel::reactor signal trap USR1 "\{"
    exec sh -c "kill -USR1 [pid]"
    run_reactor 100
    signals_default
} {info exists ::reported} 0

# Messages to another thread start Tcl's notifier thread, which would take signals: these
# come last.
set threadRows [list \
  names tcl_AttemptAlloc 12 [fresh {::zmq::socket names}] [one $threadData ZMQ SOCKET NAMES DATA] $both \
  reactor tcl_GetThreadData 12 [fresh {::qel::reactor events}] [list \
      {{failed to get reactor thread data} {ZMQ REACTOR THREAD DATA}} \
      {{failed to get bgerror thread data} {QEL REACTOR BGERROR THREAD DATA}} \
      {{failed to get timer thread data} {QEL TIMER THREAD DATA}} \
      {{failed to get signal thread data} {QEL SIGNAL THREAD DATA}}] 0 \
  reactor tcl_NewStringObj 12 [fresh {::qel::reactor stop}] \
      [one {failed to create new string value} QEL REACTOR BGERROR DEFAULT] 0]
after 1 {set started 1}
vwait started
foreach {name function error scenario wants modes} $threadRows {
    walk $name $function $error {*}$scenario $wants $modes
}

# How often a command calls a function, counted by a failure that never comes.
proc calls_of {function command} {
    fault arm $function 1000000 0
    uplevel #0 $command
    fault left
}

# What waits for nothing polls once, not for ever: a handler's deletion clears its event,
# and a half-closed channel's handler leaves the table.
new_pair
set server [socket -server {apply {{channel args} {set ::half $channel}}} -myaddr 127.0.0.1 0]
set client [socket 127.0.0.1 [lindex [fconfigure $server -sockname] 2]]
vwait half
foreach {name command} {
    deleted-handler {
        ::qel::reactor event push readable x
        ::qel::reactor event push writable x
        ::qel::reactor event push writable {}
        run_reactor 300
        ::qel::reactor event push readable {}
    }
    half-closed {
        ::qel::reactor event $half readable {gets $half}
        chan close $half read
        run_reactor 300
    }
} {
    catch {calls_of zmq_poll $command} polls
    expect "$name: polls" [expr {$polls < 10}] 1
}
foreach channel [list $server $client $half] {close $channel}
close_pair

# How long waits are, with a clock that only they move.  The loop waits as long as the timer
# that stops it and the setting allow, in pauses that grow while its polls fail.
proc run_timed {timeout ms} {
    ::qel::reactor timeout $timeout
    run_reactor $ms
    ::qel::reactor timeout 5000
}
# The pause after a failed poll doubles up to 1000 ms; the timers at 3000, 3500 and 4000 ms cut it
# (977 and 23, 477, 245), and it begins at 1 again where polls fail again.
proc failing_twice {} {
    fault arm zmq_poll 1 9 forgood
    ::qel::reactor after 3000 {fault off}
    ::qel::reactor after 3500 {fault arm zmq_poll 1 9 forgood}
    run_timed 5000 4000
    fault off
}
foreach {command waits} [list \
    {::zmq::poll 3600000} 3600000 \
    {::zmq::poll 7200001} {3600000 3600000 1} \
    {catch {::zmq::poll -1}} [lrepeat 30 3600000] \
    {run_timed 5000 12000} {5000 5000 2000} \
    {run_timed -1 60000} 60000 \
    {run_timed 60000 30000} 30000 \
    {run_timed 0 1} 1 \
    {run_timed 5000 0} 0 \
    {run_timed -1 -1000} 0 \
    failing_twice {1 2 4 8 16 32 64 128 256 512 1000 977 23 477 1 2 4 8 16 32 64 128 245}] {
    fault waits on
    eval $command
    expect "waits of $command" [fault waits] $waits
}
stderr_news

# Marks are not settled before the value is known to be one, nor without an endpoint.
fault version 4 3 4
::zmq::socket create s PULL
expect "marks without an endpoint" [calls_of zmq_socket {s configure -rcvhwm 5}] 0
s bind ipc://$work/marks
expect "marks of a wrong value" [calls_of zmq_socket {catch {s configure -rcvhwm five}}] 0
expect "marks with an endpoint" [calls_of zmq_socket {s configure -rcvhwm 5}] 2
fault version 4 3 6
expect "marks where libzmq takes care" [calls_of zmq_socket {s configure -rcvhwm 5}] 0
fault version 0 0 0
s close

# The context's end ignores its result; a new context serves the next socket.
foreach function {zmq_ctx_term usleep} {
    fault arm $function 1 4 forgood
    lose_context
    expect "context ended: $function" [fault off] 1
    ::zmq::socket create s PUSH
    s close
}
::zmq::socket create s PUSH
s close

# Without memory for a name the process stops, and says why.
foreach field {worker node} {
    set script "load $::env(FAULT_LIBRARY) Fault; package require zmq
        fault arm strdup 1 12; ::zmq::debug $field x"
    catch {exec [info nameofexecutable] << $script} message options
    expect "debug $field" [list [lindex [dict get $options -errorcode] 2] \
        [regexp -all "debug.$field != 0 && \"strdup failed\"" $message]] {SIGABRT 1}
}
puts "$::cases comparisons over [expr {([llength $rows] + [llength $threadRows]) / 6}] rows, $::red red"
exit [expr {$::red > 0}]
