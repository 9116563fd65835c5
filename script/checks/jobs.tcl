# jobs.tcl -- see the file jobs beside this one.
lassign $argv form seed
if {$seed eq ""} {set seed [clock seconds]}
expr {srand($seed)}
lassign [expr {$form eq "full" ? {600 200000 8} : {8 12000 5}}] seconds jobs workers
set programs [file join [file dirname [info script]] ../../examples/jobs]
set dir [file join [expr {[info exists env(TMPDIR)] ? $env(TMPDIR) : "/tmp"}] jobs-[pid]]
set env(BEGUN) $dir/begun
file mkdir $dir
set silence 2000
set started 0
array set process {}      ;# name -> process number
array set excused {}      ;# workers that were killed or paused, and a submitter that was killed
array set count {jobs 0 twice 0 TERM 0 KILL 0 STOP 0 queue 0 submit 0}

proc random {n} {expr {int(rand() * $n)}}
proc pick {list} {lindex $list [random [llength $list]]}
proc wait {ms} {after $ms {set ::woken 1}; vwait ::woken}
proc contents {file} {
    if {[catch {open $file} channel]} {return ""}
    return [read $channel][close $channel]
}
proc fail {text} {
    puts "seed $::seed: $text"
    end 1
}
proc end {status} {
    foreach name [array names ::process] {
        catch {exec sh -c "kill -KILL $::process($name)"}
        while {[alive $name]} {after 10}
    }
    catch {exec umount $::dir/disk 2>/dev/null}
    if {!$status || ![info exists ::env(KEEP)]} {file delete -force $::dir}
    exit $status
}
proc alive {name} {
    catch {exec true}    ;# Tcl collects the children that have ended when it starts another
    expr {[info exists ::process($name)] && [file exists /proc/$::process($name)]}
}
proc signal {name signal} {
    if {[alive $name]} {catch {exec sh -c "kill -$signal $::process($name)"}}
}
proc start {name program args} {
    set ::process($name) [exec [info nameofexecutable] $::programs/$program.tcl {*}$args \
        2>>$::dir/$program.log &]
}
proc start_queue {} {
    start queue queue -submit ipc://$::dir/s -workers ipc://$::dir/w -journal $::journal \
        -beat 200 -silence $::silence
}
proc start_worker {} {
    set name w[incr ::started]
    start $name worker -queue ipc://$::dir/w -name $name -job $::dir/job.tcl
    return $name
}
proc start_submit {round} {
    start submit submit -queue ipc://$::dir/s -name round$round -results $::dir/out$round \
        <$::dir/in >@stderr
}
proc write {file text} {
    set channel [open $file w]
    puts -nonewline $channel $text
    close $channel
}

# One thing happens to one process.
proc disturb {} {
    set name [pick $::crew]
    switch [pick {TERM TERM KILL KILL STOP STOP queue submit}] {
        TERM {signal $name TERM; incr ::count(TERM)}
        KILL {
            set ::excused($name) 1
            signal $name KILL
            incr ::count(KILL)
        }
        STOP {
            set ::excused($name) 1
            signal $name STOP
            incr ::count(STOP)
            after [random [expr {2 * $::silence}]] [list signal $name CONT]
        }
        queue {
            if {rand() < 0.4} {
                signal queue KILL
                incr ::count(queue)
            }
        }
        submit {
            if {rand() < 0.5} {
                set ::excused(submit) 1
                signal submit KILL
                incr ::count(submit)
            }
        }
    }
}
# Starts again what has ended; a worker gets another name.
proc replace_crew {} {
    if {![alive queue]} start_queue
    set ::crew [lmap name $::crew {expr {[alive $name] ? $name : [start_worker]}}]
}

# Whether every job of a round has one result, which is right, and who began it.
proc judge {round} {
    foreach line [split [string trimright [contents $::dir/out$round]] \n] {
        lassign $line number result
        if {$result ne "done-$round-$number"} {fail "job $number of round $round has the result \"$line\""}
        if {[info exists seen($number)]} {fail "job $number of round $round has two results"}
        set seen($number) 1
    }
    set missing {}
    for {set n 1} {$n <= $::jobs} {incr n} {if {![info exists seen($n)]} {lappend missing $n}}
    if {[llength $missing]} {
        fail "[llength $missing] jobs of round $round have no result: [lrange $missing 0 9]"
    }
    incr ::count(jobs) [array size seen]
    foreach {- name} [regexp -all -inline -line {worker (\S+) is lost .*: silent} [contents $::dir/queue.log]] {
        set ::excused($name) 1
    }
    foreach file [glob $::dir/begun-*] {
        regexp {begun-(.*)} $file -> name
        foreach job [split [contents $file] \n] {
            if {[string match $round-* $job]} {lappend by($job) $name}
        }
        if {![alive $name]} {lappend old $file}
    }
    foreach job [array names by] {
        if {[llength $by($job)] < 2} continue
        incr ::count(twice)
        set sound [lmap name $by($job) {if {[info exists ::excused($name)]} continue; set name}]
        if {[llength $sound] > 1} {fail "$job was begun by $by($job), of which $sound were not disturbed"}
    }
    if {[info exists old]} {file delete {*}$old}
    file delete $::dir/out$round
}
proc until {what script seconds} {
    set end [expr {[clock seconds] + $seconds}]
    while {![uplevel 1 $script]} {
        if {[clock seconds] > $end} {fail "gave up waiting until $what\n[exec tail -n 20 $::dir/submit.log $::dir/queue.log]"}
        wait 50
    }
}
# No job is left, no name is kept.
proc empty_queue {} {
    catch {exec timeout 5 [info nameofexecutable] $::programs/submit.tcl -queue ipc://$::dir/s -status 2>/dev/null} text
    regexp {waiting +0\n.*given +0\n.*submitters:\s*$} $text
}

proc disturbed {} {
    set ::journal $::dir/journal
    set ::crew [lrepeat $::workers none]
    set end [expr {[clock seconds] + $::seconds}]
    for {set round 1} {[clock seconds] < $end || ($::form eq "full" && $::count(jobs) < 1000000)} {incr round} {
        set text {}
        for {set n 1} {$n <= $::jobs} {incr n} {append text $round-$n\n}
        write $::dir/in $text
        start_submit $round
        set limit [expr {[clock seconds] + 300}]
        while 1 {
            replace_crew
            wait [random 300]
            if {![alive submit]} {
                # One that has ended by itself has all its results, and its name is free.
                if {![info exists ::excused(submit)] && [complete $round]} break
                unset -nocomplain ::excused(submit)
                start_submit $round
            }
            if {[clock seconds] > $limit} {fail "round $round does not end\n[exec tail -n 20 $::dir/submit.log $::dir/queue.log]"}
            disturb
        }
        judge $round
    }
    foreach name $::crew {signal $name CONT; signal $name TERM}
    until "workers end" {expr {![llength [lmap name $::crew {if {![alive $name]} continue; set name}]]}} 30
    if {![alive queue]} start_queue
    until "the queue is empty" empty_queue 30
    signal queue TERM
    until "the queue ends" {expr {![alive queue]}} 30
}
# The last line of a submitter that was killed may be cut: lines are counted at their ends.
proc complete {round} {
    expr {[regexp -all {\n} [contents $::dir/out$round]] >= $::jobs}
}

# More jobs than fit on the disk, the queue killed on it, and then room by finished jobs alone.
proc full_disk {} {
    if {!$::env(PARVO_MOUNTS)} {return "a full disk not checked: no right to mount"}
    file mkdir $::dir/disk
    exec mount -t tmpfs -o size=25m none $::dir/disk
    set ::journal $::dir/disk/journal
    set ::jobs 12000
    write $::dir/in [string cat [join [lmap n [lrepeat $::jobs {}] {format disk-%d-%s [incr i] [string repeat x 1500]}] \n] \n]
    file delete $::dir/submit.log
    start_queue
    start_submit disk
    until "the journal is full" {string match "*cannot be written*full*" [contents $::dir/submit.log]} 60
    signal queue KILL
    wait 100
    start_queue
    set ::crew [list [start_worker] [start_worker]]
    until "all is done" {expr {![alive submit]}} 120
    if {![string match "*accepts jobs again*" [contents $::dir/submit.log]]} {fail "jobs were not accepted again"}
    judge disk
    until "the queue is empty" empty_queue 30
    return "a full disk refused jobs, and all were done"
}

write $dir/job.tcl {
    set begun [open $env(BEGUN)-$option(-name) a]
    proc job {text} {
        puts $::begun [set job [join [lrange [split $text -] 0 1] -]]
        flush $::begun
        if {[string match *777 $job]} {after 20}
        return done-$job
    }
}
disturbed
set disk [full_disk]
set stops [expr {$count(TERM) + $count(KILL) + $count(STOP)}]
puts "$count(jobs) jobs, none without a result, none with two; begun twice $count(twice), all of\
    workers killed or paused; $stops workers stopped ($count(KILL) killed, $count(STOP) paused),\
    queue killed $count(queue) times, submitter $count(submit); $disk (seed $seed)"
end 0
