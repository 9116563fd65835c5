# run.tcl -- the driver: tclsh run.tcl build-directory ?--quick? ?name ...?
#
# The files in rows/ declare sections and measurements.  In a round every measurement is
# made once by each subject that takes part, one after the other, the subject that begins
# changing from round to round: what the machine does meanwhile meets all alike, and a
# busy minute spoils one round of a row and not all of them.  A name is a pattern over the
# rows, or a section.

set here [file dirname [file normalize [info script]]]
set names [lassign $argv build]
set quick [expr {"--quick" in $names}]
set names [lsearch -all -inline -not -exact $names --quick]
set seconds [expr {$quick ? 0.04 : 0.4}] ;# that one measurement takes, about
set least 3                              ;# rounds
set most [expr {$quick ? 3 : 15}]        ;# rounds
set limit 500                            ;# seconds in which a round begins
set env(TCLLIBPATH) [list $build]
set tclsh [info nameofexecutable]
set raw [file join $build bench raw]

# What is measured, and on what.

# section name title: a table of the report, in the order of the declarations
set sections {}
proc section {name title} {
    dict set ::sections $name $title
}

# measurement section pilot command outputs references
#   pilot       operations of the short run by which the number is found that takes as
#               long as wanted; 0: the command needs no number
#   command     is called with a subject and that number, and returns a value an output
#   outputs     a list of {name title unit ?target?}; op/s is better when it is higher,
#               ms (compared by the difference) and other units when they are lower
#   references  the subjects beside "package", each with the target of the package's
#               ratio to it: "" the output's own, "-" none
set measurements {}
proc measurement {args} {
    lappend ::measurements $args
}

# The programs that the commands run.

proc start {command} {
    return [open |[concat timeout 60 $command [list 2>@stderr]] r]
}

# The values that a program prints; it and those that serve it are ended.
proc values {program {helpers {}}} {
    set line ""
    while {[lindex $line 0] ne "value" && [gets $program line] >= 0} {}
    if {[lindex $line 0] ne "value"} {
        catch {close $program} - how
        finish {*}$helpers
        error "a program ended without a value: [dict get $how -errorcode]"
    }
    finish $program {*}$helpers
    return [lrange $line 1 end]
}

proc finish {args} {
    foreach program $args {
        catch {exec sh -c "kill [pid $program]"}
        catch {close $program}
    }
}

# Processors that others kept busy since the last call, from the counters of the kernel.
# What it does for interrupts belongs to nobody, so it is left out.
proc others {} {
    lassign [lrange [read_file /proc/stat] 1 8] user nice system - - - - steal
    set own 0
    foreach ticks [lrange [regsub {.*\) } [read_file /proc/self/stat] ""] 11 14] {
        incr own $ticks
    }
    set busy [expr {$user + $nice + $system + $steal - $own}]
    set now [clock microseconds]
    lassign [expr {[info exists ::before] ? $::before : [list $busy $now]}] busy0 then
    set ::before [list $busy $now]
    return [expr {max(0, ($busy - $busy0) * 1e4 / max(1, $now - $then))}] ;# 100 ticks a second
}

proc read_file {path} {
    set f [open $path]
    set text [read $f]
    close $f
    return $text
}

proc calibrate {subject measurement} {
    lassign $measurement - pilot command
    if {$pilot == 0} {
        return 0
    }
    set rate [lindex [{*}$command $subject $pilot] 0]
    return [expr {max($pilot, int($rate * $::seconds))}]
}

# samples(output,subject): one value a round; loads(output): one for each subject's turn.
proc measure {measurement round} {
    lassign $measurement - - command outputs references
    set order [concat package [dict keys $references]]
    set first [expr {$round % [llength $order]}]
    foreach subject [concat [lrange $order $first end] [lrange $order 0 $first-1]] {
        if {![info exists ::operations($measurement,$subject)]} {
            set ::operations($measurement,$subject) [calibrate $subject $measurement]
        }
        others
        set values [{*}$command $subject $::operations($measurement,$subject)]
        set load [others]
        foreach output $outputs value $values {
            lappend ::samples([lindex $output 0],$subject) $value
            lappend ::loads([lindex $output 0]) $load
        }
    }
}

# Running.

source [file join $here report.tcl]
foreach file {messages curve queue timers start} {
    source [file join $here rows $file.tcl]
}
set selected {}
foreach measurement $measurements {
    set rows [concat [list [lindex $measurement 0]] [lmap output [lindex $measurement 3] {
        lindex $output 0
    }]]
    foreach name [expr {[llength $names] > 0 ? $names : "*"}] {
        if {[lsearch -glob $rows $name] >= 0} {
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
puts [machine]
set failed {}
set begin [clock seconds]
for {set round 0} {$round < $most} {incr round} {
    if {$round >= $least && [clock seconds] - $begin > $limit * $round / ($round + 1.0)} break
    foreach measurement $selected {
        # One that takes long must not leave the others without rounds.
        if {$round >= 2 && $took($measurement) > 20} continue
        set took($measurement) [clock seconds]
        set code [catch {measure $measurement $round} message]
        set took($measurement) [expr {[clock seconds] - $took($measurement)}]
        if {$code} {
            puts stderr "bench: left out: $measurement: $message"
            lappend failed $measurement
        }
    }
    set selected [lmap measurement $selected {
        if {$measurement in $failed} continue
        set measurement
    }]
    puts "round [expr {$round + 1}]: [expr {[clock seconds] - $begin}] s,\
        load average [lindex [read_file /proc/loadavg] 0]"
}
set rows [concat {*}[lmap measurement $selected {results_of $measurement}]]
foreach row $rows {
    dict with row {
        puts [format "%-26s %-9s %10s best %10s %-5s %8s best %8s %5s %4s load %.2f" $name \
            $subject [short $median $unit] [short $best $unit] $unit $ratio $best_ratio \
            $target $met $load]
    }
}

# Only a full run, of all rows, replaces what the documentation shows.
set full [expr {!$quick && [llength $names] == 0 && [llength $failed] == 0}]
set directory [expr {$full ? $here : [file join $build bench]}]
write_file [file join $directory results.csv] [csv $rows]
write_file [file join $directory results.md] [report $rows $round]
if {[llength $names] == 0 && [llength $failed] == 0} {
    plot $directory $rows
}
if {$full} {
    show_in [file join [file dirname $here] README.md] [summary $rows]
}
puts "written: [file join $directory results.md]"
exit [expr {[llength $failed] > 0}]
