# curve.tcl -- rows: messages and round trips over connections encrypted with CURVE.
#
# The programs take keys from the environment.  What encryption costs meets all subjects
# alike, so the targets are those of the rows without it.

section curve "Messages over encrypted connections"

proc encrypted {command subject count} {
    if {![info exists ::keys]} {
        set ::keys [exec $::tclsh << {package require zmq::extra; puts [join [zmq::curve keypair]]}]
    }
    set ::env(BENCH_KEYS) $::keys
    set code [catch {{*}$command $subject $count} result options]
    unset ::env(BENCH_KEYS)
    return -options $options $result
}

foreach {name title size raw_target pyzmq_target} {
    64 "64 B" 64 0.75 5  1k "1 KiB" 1024 0.95 2  64k "64 KiB" 65536 0.85 1.05
} {
    foreach {row what command targets} [list \
        curve-recv-$name "receive over tcp, encrypted" [list run_with [list source $size] recv] \
            [list raw $raw_target pyzmq $pyzmq_target] \
        curve-rtt-$name "REQ/REP echo round trip, encrypted" [list run_echo $size] {raw 0.97 pyzmq 1.05}] {
        measurement curve 1000 [list encrypted $command] \
            [list [list $row "$what, $title" op/s]] $targets
    }
}
