# kernel.tcl -- for scripts that deal with signals: what the kernel reports, signals sent
# to oneself, and a reactor that runs until a condition holds.

set kernel [file normalize [info script]]
interp alias {} reactor {} ::qel::reactor
interp alias {} signal {} ::qel::reactor signal

# Names of 1 to 31, written down here once more so that the catalogue can be wrong.
set names [list {*}{
    SIGHUP SIGINT SIGQUIT SIGILL SIGTRAP SIGABRT SIGBUS SIGFPE SIGKILL SIGUSR1 SIGSEGV
    SIGUSR2 SIGPIPE SIGALRM SIGTERM SIGSTKFLT SIGCHLD SIGCONT SIGSTOP SIGTSTP SIGTTIN
    SIGTTOU SIGURG SIGXCPU SIGXFSZ SIGVTALRM SIGPROF SIGWINCH SIGIO SIGPWR SIGSYS
}]

# Valgrind does not let a program block the signals that faults raise.
set unblockable {SIGKILL SIGSTOP}
if {[info exists ::env(LD_PRELOAD)] && [string match *vgpreload* $::env(LD_PRELOAD)]} {
    lappend unblockable SIGILL SIGTRAP SIGBUS SIGFPE SIGSEGV
}

proc contents {path} {return [read [set f [open $path]]][close $f]}

# The signals in one mask of a file below /proc.
proc mask_in {path label} {
    regexp -line "^$label:\\s*(\[0-9a-f]+)$" [contents $path] -> mask
    set signals {}
    scan $mask %llx bits
    foreach name $::names {
        if {$bits & 1} {lappend signals $name}
        set bits [expr {$bits >> 1}]
    }
    return $signals
}

proc mask {label} {mask_in /proc/thread-self/status $label}

proc pending {} {lsort -unique [concat [mask SigPnd] [mask ShdPnd]]}

# What is left of a list of signals without those of another.
proc without {list others} {
    foreach signal $others {set list [lsearch -all -inline -exact -not $list $signal]}
    return $list
}

proc descriptors {} {
    set found {}
    foreach link [glob /proc/self/fd/*] {
        if {![catch {file readlink $link} target] && [string match *signalfd* $target]} {
            lappend found [file tail $link]
        }
    }
    return $found
}

# Names of the trapped signals, after a check that each is blocked and comes through one
# descriptor, which is registered with the reactor.
proc trapped {} {
    set traps [signal trap]
    set fds [descriptors]
    if {![dict size $traps]} {
        if {"signals" in [dict keys [reactor events]] || [llength $fds]} {
            error "no trap, but descriptors $fds and events [reactor events]"
        }
        return {}
    }
    set catchable [without [dict keys $traps] {SIGKILL SIGSTOP}]
    if {[dict get [reactor events] signals] ne $traps || [llength $fds] != 1 ||
        [mask_in /proc/self/fdinfo/$fds sigmask] ne $catchable ||
        [llength [without $catchable [mask SigBlk]]]} {
        error "traps $traps, blocked [mask SigBlk], descriptors $fds: [reactor events]"
    }
    scan [contents /proc/self/fdinfo/$fds] "pos: %*d flags: %o" flags
    if {($flags & 0x80800) != 0x80800} {
        error "the descriptor is blocking or survives exec: [format %o $flags]"
    }
    return [dict keys $traps]
}

# Sends signals to the process, one after the other.
proc raise {args} {
    set script :
    foreach name $args {append script ";kill -[expr {[lsearch $::names $name] + 1}] [pid]"}
    exec sh -c $script
}

# Runs the reactor until the condition holds at a look every 2 ms.
proc spin {condition {end {}}} {
    if {$end eq ""} {
        set end [expr {[clock milliseconds] + 20000}]
        reactor after 0 [list spin $condition $end]
        reactor start
    } elseif {[uplevel #0 [list expr $condition]] || [clock milliseconds] > $end} {
        reactor stop
    } else {
        reactor after 2 [list spin $condition $end]
    }
}

# Runs a script in a child that has this file, and gives what it logged or returned and
# how it ended; the child must write nothing to standard error.
proc isolated {script} {
    lassign [child "source [list $::kernel]\nproc failure script [list [info body failure]]
        puts -nonewline \[apply {{} {\n$script\n}}]"] out err status
    if {$err ne ""} {error $err}
    expr {$status == 0 ? $out : $status}
}

set log {}
proc note {args} {lappend ::log [join $args]}
proc report {message {options {-code none}}} {
    note bgerror [dict get $options -code] $message
}
