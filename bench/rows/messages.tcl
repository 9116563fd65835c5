# messages.tcl -- rows: throughput, round trips and the worker.

section throughput "Messages"

set zmq [list $tclsh [file join $here zmq.tcl]]
set python [list /usr/bin/python3 [file join $here pyzmq.py]]
set worker [file join [file dirname $here] examples worker.tcl]
set message_subjects [dict create \
    package [concat $zmq zmq] bare [concat $zmq bare] raw [list $raw] \
    pyzmq [concat $python multipart] plain [concat $python plain]]
set workers [dict create \
    package [list $tclsh $worker] bare [concat $zmq bare worker [list $worker]] \
    raw [list $raw worker] pyzmq [list /usr/bin/python3 [file join $here worker.py]]]

# A subject by itself.
proc run_alone {workload subject count} {
    return [values [start [concat [dict get $::message_subjects $subject] $workload $count]]]
}

# A subject and a C program at the other end, a source or a sink.
proc run_with {peer workload subject count} {
    set program [start [concat [dict get $::message_subjects $subject] $workload $count]]
    set peer [linsert $peer 1 [gets $program]]
    if {[lindex $peer 0] eq "source"} {
        lappend peer $count
    }
    return [values $program [list [start [concat [list $::raw] $peer]]]]
}

# A subject and its own echo, with messages of so many bytes.
proc run_echo {size subject count} {
    set command [dict get $::message_subjects $subject]
    set echo [start [concat $command echo]]
    return [values [start [concat $command rtt [gets $echo] $size $count]] [list $echo]]
}

# A subject as worker of a C program.
proc run_job {size subject count} {
    set program [start [list $::raw jobs $size $count]]
    set worker [start [concat [dict get $::workers $subject] [list -jobs [gets $program] \
        -results [gets $program] -dead [gets $program]]]]
    return [values $program [list $worker]]
}

proc throughput {name title pilot command raw pyzmq args} {
    measurement throughput $pilot $command [list [list $name $title op/s]] \
        [dict create raw $raw bare - pyzmq $pyzmq {*}$args]
}

throughput inproc-64 "one thread, inproc, 64 B: send, then receive" 2000 \
    {run_alone {inproc 64 1 0}} 0.38 6 plain -
throughput inproc-64k "one thread, inproc, 64 KiB: send, then receive" 2000 \
    {run_alone {inproc 65536 1 1}} 0.80 1.3 plain -
throughput multipart "one thread, inproc, 10 frames of 64 B" 2000 \
    {run_alone {inproc 64 10 0}} 0.70 4
foreach {name title size raw_target pyzmq_target} {
    64 "64 B" 64 0.75 5  1k "1 KiB" 1024 0.95 2  64k "64 KiB" 65536 0.85 1.05
} {
    throughput recv-$name "receive over tcp, $title" 2000 \
        [list run_with [list source $size] recv] $raw_target $pyzmq_target plain -
}
# What is sent must outgrow the queues and buffers on its way.
throughput send-64 "send over tcp, 64 B" 20000 {run_with sink {send 64}} 0.80 4 plain -
throughput send-1k "send over tcp, 1 KiB" 20000 {run_with sink {send 1024}} 0.95 1.2 plain -
throughput rtt "REQ/REP echo round trip over tcp" 2000 {run_echo 64} 0.97 1.05 plain -
throughput reactor-0 "reactor: a message per handler call, tcp, 64 B" 2000 \
    {run_with {source 64} {reactor 0}} 0.60 2 plain -
throughput poll-0 "::zmq::poll and a receive, tcp, 64 B" 2000 \
    {run_with {source 64} {poll 0}} 0.50 1.5
foreach {idle pilot reactor poll} {30 2000 0.95 0.85  1000 300 0.98 0.95} {
    throughput reactor-$idle "reactor, beside $idle idle sockets" $pilot \
        [list run_with {source 64} [list reactor $idle]] $reactor 1.1
    throughput poll-$idle "::zmq::poll, beside $idle idle sockets" $pilot \
        [list run_with {source 64} [list poll $idle]] $poll 1.1
}
measurement throughput 20000 {run_job 1024} \
    {{jobs "a job of 1 KiB through examples/worker.tcl, end to end" op/s}} \
    {raw - bare - pyzmq 2}
