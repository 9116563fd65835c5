# queue.tcl -- rows: jobs through four workers and back, by the job queue of the examples,
# beanstalkd and PUSH/PULL.  ../jobs.tcl makes the measurements, of a fixed size.

section queue "Jobs through four workers and back"

# The subject "package" is the queue in the form of the row; beanstalkd has a log when the
# queue has a journal.  A run takes each about one or two seconds.
proc run_jobs {form size subject count} {
    set system [dict get [dict create package $form pushpull pushpull \
        beanstalkd [expr {$form eq "journal" ? "binlog" : "beanstalkd"}]] $subject]
    set ::delays($form,$size,$subject) [lassign [values [start [list $::tclsh \
        [file join $::here jobs.tcl] $system $size [expr {$subject eq "beanstalkd" ? 10000 : 50000}]]]] rate]
    return $rate
}
# The same run has measured these, unless their row is asked for alone.
proc take_delays {form size subject count} {
    if {![info exists ::delays($form,$size,$subject)]} {
        run_jobs $form $size $subject $count
    }
    set delays $::delays($form,$size,$subject)
    unset ::delays($form,$size,$subject)
    return $delays
}

foreach {form what others} {
    queue "" {beanstalkd 3 pushpull 0.5}
    journal ", with a journal" {beanstalkd 3}
} {
    foreach {name title size} {100 "100 B" 100 1k "1 KiB" 1024} {
        measurement queue 0 [list run_jobs $form $size] \
            [list [list $form-$name "a job of $title$what" op/s]] $others
        measurement queue 0 [list take_delays $form $size] [list \
            [list $form-half-$name "its way at half that rate$what, $title: half of the jobs" us] \
            [list $form-99-$name "the same, 99 of 100 jobs" us]] \
            [lmap word $others {expr {[string is alpha $word] ? $word : "-"}}]
    }
}
