# run.tcl -- the driver: tclsh run.tcl build-directory ?--quick? ?name ...?
#
# A measurement is run once by every subject that takes part, one after the other, and
# all that again in each round, the subject that begins changing from round to round:
# what the machine does meanwhile meets all alike.  A ratio is the median of the rounds'
# own ratios.  A name is a pattern over the rows.

set here [file dirname [file normalize [info script]]]
set names [lassign $argv build]
set quick [expr {"--quick" in $names}]
set names [lsearch -all -inline -not -exact $names --quick]
set rounds [expr {$quick ? 3 : 9}]
set seconds [expr {$quick ? 0.04 : 0.5}] ;# that one measurement takes, about
set env(TCLLIBPATH) [list $build]
set raw [file join $build bench raw]
set tcl [list [info nameofexecutable] [file join $here zmq.tcl]]
set python [list /usr/bin/python3 [file join $here pyzmq.py]]
set subjects [dict create \
    package [concat $tcl zmq] bare [concat $tcl bare] raw $raw \
    copying [concat env BARE_COPIES=1 $tcl bare] \
    pyzmq [concat $python multipart] plain [concat $python plain] after [concat $tcl zmq]]
set worker [file join [file dirname $here] examples worker.tcl]
set workers [dict create \
    package [list [info nameofexecutable] $worker] bare [concat $tcl bare worker [list $worker]] \
    raw [list $raw worker] pyzmq [list /usr/bin/python3 [file join $here worker.py]]]
source [file join $here report.tcl]

# The rows.  A measurement is {section workload peer outputs references}: workload is what
# the subject's program is called with (the number of operations follows unless the peer
# is "none"), peer the C program at the other end, an output {name title unit}, a
# reference {subject target}, the target "-" where the value is shown for information.

set measurements {}

proc throughput {name title workload peer raw pyzmq args} {
    lappend ::measurements [list throughput $workload $peer \
        [list [list $name $title op/s]] [dict create raw $raw pyzmq $pyzmq bare - {*}$args]]
}

throughput inproc-64 "one thread, inproc, 64 B: send, then receive" \
    {inproc 64 1 0} "" 0.40 6 plain -
throughput inproc-64k "one thread, inproc, 64 KiB: send, then receive" \
    {inproc 65536 1 1} "" 0.80 1.3 plain -
foreach {name title size target pyzmq} {
    64 "64 B" 64 0.60 5  1k "1 KiB" 1024 0.95 2  64k "64 KiB" 65536 0.85 1.05
} {
    throughput recv-$name "receive over tcp, $title" recv [list source $size] \
        $target $pyzmq plain -
}
throughput send-64 "send over tcp, 64 B" {send 64} sink 0.80 4 plain -
throughput send-1k "send over tcp, 1 KiB" {send 1024} sink 0.95 1.2 plain -
throughput multipart "one thread, inproc, 10 frames of 64 B" {inproc 64 10 0} "" 0.40 4
throughput reactor "reactor: a message per handler call, tcp, 64 B" {reactor 0} \
    {source 64} 0.60 2 plain -
throughput rtt "REQ/REP echo round trip over tcp" rtt echo 0.97 1.05 plain -
foreach {idle target pyzmq polled} {
    0 0.75 1.5 0.50  30 0.95 1.1 0.85  200 0.98 1.1 0.95  1000 0.98 1.1 0.95
} {
    throughput reactor-$idle "reactor, $idle idle sockets and a busy one" \
        [list reactor $idle] {source 64} $target $pyzmq
    throughput poll-$idle "::zmq::poll, $idle idle sockets and a busy one" \
        [list poll $idle] {source 64} $polled $pyzmq copying -
}

lappend measurements {throughput {jobs 1024} job
    {{jobs "a job through examples/worker.tcl, end to end, 1 KiB" op/s}}
    {raw - pyzmq 2 bare -}}

set repeat [expr {$quick ? 10 : 100}]
foreach {count workload repeat one} [list 1000 timers $repeat ""  100000 standing {} "one more, "] {
    set outputs {}
    foreach {name title target} {
        rising "later than all" 5  random "at random" 1  cancel "cancel by id at random" 1
    } {
        set what [expr {$name eq "cancel" ? "" : "schedule "}]
        lappend outputs [list timers-$name-$count "$count timers: $one$what$title" op/s $target]
    }
    lappend measurements \
        [list timers [list $workload @subject $count {*}$repeat] none $outputs {after {}}]
    lappend measurements [list timers [list due @subject $count] none \
        [list [list timers-run-$count "$count timers: run all" op/s 1]] {after {}}]
}

lappend measurements [list floor [list floor [file join $build bench libfloor.so]] none {
    {floor-loop "an empty turn of a loop" ns}
    {floor-send "a command that does nothing, called as send is" ns}
    {floor-recv "a command that returns a list of fixed bytes, called as recv is" ns}
    {floor-handler "a handler that calls it, evaluated after a poll" ns}
} {}]

lappend measurements [list start "" start {
    {start "start: until the package is there" ms -}
    {end "end: from exit until the process is gone" ms -}
    {start-end "start and end, without the pause of 100 ms" ms 5}
} {tclsh {} floor - bare -}]

foreach {kind counts references} {
    sockets {10 100 1000} {raw - pyzmq -}
    timers {10 100 1000 10000} {}
    handlers {10 100 1000 10000} {}
} {
    foreach count $counts {
        set outputs {}
        foreach {what unit} {create us delete us memory bytes} {
            lappend outputs [list grow-$kind-$what-$count "$count $kind: $what one" $unit]
        }
        lappend measurements \
            [list growth [list grow $kind $count] none $outputs $references]
    }
}

# Measuring.

# The values that a subject prints; its peer is started in between when it has one.
proc run {subject workload peer count} {
    set command [concat timeout 300 [dict get $::subjects $subject] $workload]
    set peers {}
    if {$peer eq "echo"} {
        set server [open |[concat timeout 300 [dict get $::subjects $subject] echo] r]
        lappend command [gets $server]
    }
    if {$peer ne "none"} {
        lappend command $count
    }
    if {$peer eq "job"} {
        set command [list timeout 300 $::raw {*}$workload $count]
    }
    set f [open |[concat $command 2>@stderr] r]
    if {$peer eq "job"} {
        set peers [exec timeout 300 {*}[dict get $::workers $subject] -jobs [gets $f] \
            -results [gets $f] -dead [gets $f] &]
    } elseif {[lindex $peer 0] in {source sink}} {
        set peers [exec $::raw [lindex $peer 0] [gets $f] {*}[lrange $peer 1 end] &]
    }
    set got [gets $f line]
    foreach process [concat $peers [pid $f]] {
        catch {exec sh -c "kill $process"}
    }
    catch {close $f}
    if {[info exists server]} {
        exec sh -c "kill [pid $server]"
        catch {close $server}
    }
    if {$got < 0 || [lindex $line 0] ne "value"} {
        error "no value from $subject $workload"
    }
    return [lrange $line 1 end]
}

# Milliseconds to start a tclsh, without or with a package, to end it, and their sum
# without the pause that the end of the context takes.  The package "floor" is empty: what
# it costs is Tcl's own search for packages; "bare" loads libzmq as well.
proc run_start {subject} {
    set load [dict get {tclsh "" floor "package require floor" bare "package require bare"
        package "package require zmq"} $subject]
    set start [clock microseconds]
    set ready [exec [info nameofexecutable] << "$load\nputs \[clock microseconds\]\nexit"]
    set end [clock microseconds]
    set pause [expr {$subject eq "package" ? 100000 : 0}]
    return [lmap us [list [expr {$ready - $start}] [expr {$end - $ready}] \
            [expr {$end - $start - $pause}]] {expr {$us / 1e3}}]
}

proc measure {subject workload peer count} {
    if {$peer eq "start"} {
        return [run_start $subject]
    }
    set workload [string map [list @subject $subject] $workload]
    if {[lindex $workload 1] eq "sockets" && $subject ne "package"} {
        set workload [lrange $workload 1 end]
    }
    return [run $subject $workload $peer $count]
}

# Operations that take about the time wanted, by a short run.  What is sent must outgrow
# the queues and buffers on its way.
proc calibrate {subject workload peer} {
    if {$peer in {none start}} {
        return 0
    }
    lassign $workload name idle
    set pilot [expr {$name in {send jobs} ? 20000 : 2000}]
    if {$name in {reactor poll} && $idle >= 200} {
        set pilot 300
    }
    set rate [lindex [measure $subject $workload $peer $pilot] 0]
    return [expr {max($pilot, int($rate * $::seconds))}]
}

# samples(output,subject): one value a round.
proc measure_all {measurement} {
    lassign $measurement section workload peer outputs references
    set order [concat package [dict keys $references]]
    set counts {}
    foreach subject $order {
        dict set counts $subject [calibrate $subject $workload $peer]
    }
    for {set round 0} {$round < $::rounds} {incr round} {
        foreach subject $order {
            set values [measure $subject $workload $peer [dict get $counts $subject]]
            foreach output $outputs value $values {
                lappend ::samples([lindex $output 0],$subject) $value
            }
        }
        set order [concat [lrange $order 1 end] [list [lindex $order 0]]]
    }
}

# Running.

set selected {}
foreach measurement $measurements {
    set outputs [lmap output [lindex $measurement 3] {lindex $output 0}]
    foreach name [expr {[llength $names] > 0 ? $names : "*"}] {
        if {$name eq [lindex $measurement 0] || [lsearch -glob $outputs $name] >= 0} {
            lappend selected $measurement
            break
        }
    }
}
if {[llength $selected] == 0} {
    puts stderr "bench: no row is named $names; there are:"
    foreach measurement $measurements {
        puts stderr "  [lmap output [lindex $measurement 3] {lindex $output 0}]"
    }
    exit 1
}
set machine [machine]
puts "$machine, $rounds rounds"
set rows {}
foreach measurement $selected {
    measure_all $measurement
    set new [results_of $measurement]
    foreach row $new {
        lassign $row - name - unit subject median low high ratio target met
        puts [format "%-26s %-8s %12s %-5s  %9s to %-9s %8s %5s %s" $name $subject \
            [short $median $unit] $unit [short $low $unit] [short $high $unit] \
            $ratio $target $met]
    }
    lappend rows {*}$new
}

# Only a full run replaces what the documentation shows.
set directory [expr {$quick || [llength $names] > 0 ? [file join $build bench] : $here}]
write_file [file join $directory results.csv] [csv $rows]
write_file [file join $directory results.md] [report $rows $machine]
if {[llength $names] == 0} {
    plot $directory $rows
}
if {$directory eq $here} {
    show_in [file join [file dirname $here] README.md] [summary $rows $machine]
}
puts "written: [file join $directory results.md]"
