# report.tcl -- what the driver makes of its samples: rows, tables, plots.

set titles {raw "raw C" bare "bare commands" pyzmq pyzmq plain "pyzmq, one frame"
    after "Tcl's after" tclsh "tclsh alone" index "by pkgIndex.tcl"}

proc title {subject} {
    return [expr {[dict exists $::titles $subject] ? [dict get $::titles $subject] : $subject}]
}

proc median {values} {
    set sorted [lsort -real $values]
    set middle [expr {[llength $sorted] / 2}]
    return [expr {[llength $sorted] % 2 ? [lindex $sorted $middle]
            : ([lindex $sorted $middle-1] + [lindex $sorted $middle]) / 2.0}]
}

# What the quietest round gave.
proc best {values unit} {
    return [lindex [lsort -real $values] [expr {$unit eq "op/s" ? "end" : 0}]]
}

# How one subject's value compares with another's: milliseconds more, else how many times.
proc comparison {ours theirs unit} {
    if {$unit eq "ms"} {
        return [expr {$ours - $theirs}]
    }
    return [expr {$theirs == 0 ? 0 : double($ours) / $theirs}]
}

# The median of the rounds' comparisons, and the comparison of the best rounds.
proc compared {name unit subject reference} {
    set ours $::samples($name,$subject)
    set theirs $::samples($name,$reference)
    set each [lmap a $ours b $theirs {comparison $a $b $unit}]
    return [list [format %.3f [median $each]] \
        [format %.3f [comparison [best $ours $unit] [best $theirs $unit] $unit]]]
}

# A target is met by the median, by the best rounds only, or not.
proc verdict {ratios target unit} {
    foreach ratio $ratios word {yes best} {
        if {$unit eq "op/s" ? $ratio >= $target : $ratio <= $target} {
            return $word
        }
    }
    return no
}

# A dict for each output and subject of a measurement.
proc results_of {measurement} {
    lassign $measurement section - - outputs references
    set rows {}
    foreach output $outputs {
        lassign $output name title unit own_target
        foreach subject [concat package [dict keys $references]] {
            set values $::samples($name,$subject)
            set row [dict create section $section name $name title $title unit $unit \
                subject $subject median [format %.6g [median $values]] \
                best [format %.6g [best $values $unit]] \
                least [format %.6g [lindex [lsort -real $values] 0]] \
                greatest [format %.6g [lindex [lsort -real $values] end]] \
                ratio "" best_ratio "" target "" met "" \
                load [format %.2f [median $::loads($name)]]]
            if {$subject ne "package"} {
                set ratios [compared $name $unit package $subject]
                lassign $ratios median best
                dict set row ratio $median
                dict set row best_ratio $best
                set target [dict get $references $subject]
                set target [expr {$target eq "" ? $own_target : $target}]
                if {$target ne "-"} {
                    dict set row target $target
                    dict set row met [verdict $ratios $target $unit]
                }
            }
            lappend rows $row
        }
    }
    return $rows
}

# The rows whose fields have these values.
proc select {rows args} {
    foreach {field value} $args {
        set rows [lmap row $rows {
            if {[dict get $row $field] ne $value} continue
            set row
        }]
    }
    return $rows
}

# A field of the row with this name and subject, NaN where there is none.
proc cell {rows field name {subject package}} {
    set found [select $rows name $name subject $subject]
    if {[llength $found] == 0} {return NaN}
    return [dict get [lindex $found 0] $field]
}

# Writing.

proc short {value unit} {
    if {$unit eq "op/s"} {
        foreach {limit divisor suffix} {1e6 1e6 " M" 1e4 1e3 " k"} {
            if {$value >= $limit} {
                return [format %.3g%s [expr {$value / $divisor}] $suffix]
            }
        }
        return [format %.0f $value]
    }
    return [format [expr {$unit eq "bytes" ? "%.0f" : "%.3g"}] $value]
}

proc first_match {pattern path} {
    return [string trim [lindex [regexp -line -inline $pattern [read_file $path]] 1]]
}

proc machine {} {
    set cores [llength [regexp -all -inline -line {^processor} [read_file /proc/cpuinfo]]]
    set versions [exec /usr/bin/python3 -c \
        "import sys, zmq; print(zmq.zmq_version(), 'pyzmq', zmq.__version__, 'on Python', sys.version.split()\[0\])"]
    return "[first_match {^model name\s*: (.*)$} /proc/cpuinfo], $cores cores, [first_match \
        {^PRETTY_NAME="(.*)"$} /etc/os-release], Linux $::tcl_platform(osVersion), Tcl\
        [info patchlevel], libzmq [string map {{ pyzmq} {, pyzmq}} $versions]"
}

# A ratio as its median and best, with its target.
proc aimed {ratios {target ""}} {
    return "[join [lmap ratio $ratios {format %.2f $ratio}] {, }][expr {
        $target eq "" ? "" : " ($target)"}]"
}

# One Markdown table: a line an output; for each reference its median, the package's ratio
# to it and, where bare commands took part, theirs.
proc table {rows section} {
    set rows [select $rows section $section]
    set columns {}
    foreach row $rows {
        if {[dict get $row subject] ni [concat package bare $columns]} {
            lappend columns [dict get $row subject]
        }
    }
    set floor [expr {[llength [select $rows subject bare]] > 0}]
    set head "| workload | unit | median, best |"
    set rule "|---|---|---:|"
    foreach c $columns {
        append head " [title $c] | ratio (target) |"
        append head [expr {$floor ? " bare commands |" : ""}]
        append rule [expr {$floor ? "---:|---:|---:|" : "---:|---:|"}]
    }
    set lines [list "$head load | met |" "$rule---:|---|"]
    foreach own [select $rows subject package] {
        dict with own {}
        set line "| $title | $unit | [short $median $unit], [short $best $unit] |"
        set verdicts {}
        foreach c $columns {
            set other [lindex [select $rows name $name subject $c] 0]
            if {$other eq ""} {
                append line [expr {$floor ? " | | |" : " | |"}]
                continue
            }
            dict with other {
                append line " [short $median $unit] | [aimed [list $ratio $best_ratio] $target] |"
                if {$met ne ""} {lappend verdicts $met}
            }
            if {$floor} {
                append line [expr {[info exists ::samples($name,bare)]
                    ? " [aimed [compared $name $unit bare $c]] |" : " |"}]
            }
        }
        lappend lines "$line $load | [join $verdicts {, }] |"
    }
    return [join $lines \n]
}

# What one costs, by how many there are.  Of few, memory is the size of a page.
proc growth_table {rows} {
    set lines {"| one of so many | 10 | 100 | 1,000 | 10,000 |" "|---|---:|---:|---:|---:|"}
    foreach {kind what unit} {
        sockets create us  sockets delete us  sockets memory bytes
        timers create us  timers delete us  timers memory bytes
        handlers create us  handlers delete us  handlers memory bytes
    } {
        lappend lines "| $kind: $what, $unit | [join [lmap count {10 100 1000 10000} {
            set value [cell $rows median grow-$kind-$what-$count]
            if {$value eq "NaN" || ($unit eq "bytes" && $count < 1000)} {
                list
            } else {
                short $value $unit
            }
        }] { | }] |"
    }
    return [join $lines \n]
}

proc report {rows rounds} {
    set text "# Results\n\n[machine]; [clock format [clock seconds] -format %Y-%m-%d -gmt 1].\n
$rounds rounds, the subjects interleaved. A value is the median and the best of the rounds; a
ratio compares this package (or, in its column, bare commands) with the subject to its left:
the median of the rounds' ratios, and that of the best rounds. A target is met by the median
(yes), by the best rounds only (best), or missed (no), in the order of the columns. The load
is the number of processors that other programs kept busy meanwhile, the median of the
rounds. [file tail $::here]/README.md tells what each row measures."
    append text [expr {$::quick ? "\n\n**Quick form: for a look, not for conclusions.**" : ""}] \n
    dict for {section title} $::sections {
        if {[llength [select $rows section $section]] > 0} {
            append text "\n## $title\n\n[expr {$section eq "growth" ? [growth_table $rows]
                : [table $rows $section]}]\n"
        }
    }
    return $text
}

# A ratio and its target, in words.
proc wanted {rows name subject} {
    set target [cell $rows target $name $subject]
    return "[format %.2f [cell $rows ratio $name $subject]][expr {
        $target eq "" ? "" : " ($target wanted)"}]"
}

# What the README shows: five lines and a plot.
proc summary {rows} {
    set loads [lmap row [select $rows subject package] {dict get $row load}]
    set lines [list "[machine]; medians of the rounds, and the best, while other programs kept\
        [median $loads] processors busy:" ""]
    foreach {name what} {
        inproc-64 "64 B to itself over inproc, sent and received"
        recv-64 "64 B received over tcp" reactor-0 "64 B over tcp, each by a handler of the reactor"
        jobs "jobs of 1 KiB through examples/worker.tcl"
    } {
        lappend lines "* $what: [short [cell $rows median $name] op/s] a second, [short \
            [cell $rows best $name] op/s] at best; [wanted $rows $name raw] of raw C, bare\
            commands [format %.2f [lindex [compared $name op/s bare raw] 0]];\
            [wanted $rows $name pyzmq] times pyzmq."
    }
    lappend lines "* One more timer where 100,000 stand: [wanted $rows \
        timers-random-100000 after] times Tcl's `after`; `package require zmq` and exit,\
        installed: [wanted $rows start-end tclsh] ms." "" \
        "!\[Messages per second as a share of raw C\](bench/throughput.svg)"
    return [join $lines \n]
}

# Replaces what stands between the two marks.
proc show_in {path text} {
    set old [read_file $path]
    lassign {"<!-- measured -->\n" "\n\n<!-- end of measured -->"} from to
    set start [expr {[string first $from $old] + [string length $from]}]
    write_file $path "[string range $old 0 $start-1]$text[string range $old \
        [string first $to $old] end]"
}

proc write_file {path text} {
    set f [open $path w]
    puts -nonewline $f $text
    close $f
}

proc csv {rows} {
    set lines [list [join [dict keys [lindex $rows 0]] ,]]
    foreach row $rows {
        lappend lines [join [lmap field [dict values $row] {
            expr {[string match *,* $field] ? "\"$field\"" : $field}
        }] ,]
    }
    return "[join $lines \n]\n"
}

# The plots.

# A gnuplot data block: a line an x, its quoted label first, then a value a column.
proc datablock {name xs columns cell} {
    set text "\$$name << END\n"
    foreach x $xs {
        append text "\"$x\""
        foreach column $columns {
            append text " [{*}$cell $x $column]"
        }
        append text \n
    }
    return "${text}END\n"
}

proc gnuplot {path lines} {
    exec gnuplot << "set terminal svg noenhanced size 900,420 font 'sans-serif,12' \
        background 'white'\n set output '$path'\n set grid y\n set key below\n $lines" 2>@stderr
}

# Each workload as a share of what raw C reaches.
proc share {name subject} {
    if {![info exists ::samples($name,$subject)]} {return NaN}
    return [lindex [compared $name op/s $subject raw] 0]
}

proc idle_cell {rows count column} {
    lassign $column workload subject
    return [cell $rows median $workload-$count $subject]
}

proc grow_cell {rows count column} {
    return [cell $rows median grow-$column-$count]
}

proc plot {directory rows} {
    set names [lmap row [select $rows section throughput subject raw] {dict get $row name}]
    set names [lsearch -all -inline -not -regexp $names {^(reactor|poll)-[1-9]}]
    gnuplot [file join $directory throughput.svg] "[datablock d $names \
        {package bare pyzmq plain} share]
        set title 'Messages per second as a share of raw C'
        set style data histogram\n set style fill solid 0.8\n set yrange \[0:*\]
        set arrow 1 from graph 0, first 1 to graph 1, first 1 nohead
        plot \$d using 2:xtic(1) title 'this package', '' using 3 title 'bare commands', \\
            '' using 4 title 'pyzmq, multipart', '' using 5 title 'pyzmq, one frame'"
    set columns {{reactor package} {poll package} {reactor raw} {reactor pyzmq}}
    gnuplot [file join $directory idle.svg] "[datablock d {0 30 1000} $columns \
        [list idle_cell $rows]]
        set title 'One busy socket beside idle ones'\n set xlabel 'idle sockets'
        set ylabel 'messages per second'\n set logscale y\n set style data linespoints
        plot \$d using 2:xtic(1) title 'reactor', '' using 3 title '::zmq::poll', \\
            '' using 4 title 'raw C', '' using 5 title 'pyzmq'"
    set columns [concat {sockets-create sockets-delete timers-create timers-delete} \
        {handlers-create handlers-delete}]
    gnuplot [file join $directory growth.svg] "[datablock d {10 100 1000 10000} $columns \
        [list grow_cell $rows]]
        set title 'Microseconds for one of so many'\n set xlabel 'how many'
        set ylabel 'microseconds'\n set logscale y\n set style data linespoints
        plot for \[i=2:7\] \$d using i:xtic(1) title word('$columns', i - 1)"
}
