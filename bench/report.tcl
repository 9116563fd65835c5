# report.tcl -- what the driver makes of its samples: results, tables, plots.

# The results: rows of {section name title unit subject median minimum maximum ratio
# target met ratio-minimum ratio-maximum}.

proc median {values} {
    set sorted [lsort -real $values]
    set middle [expr {[llength $sorted] / 2}]
    return [expr {[llength $sorted] % 2 ? [lindex $sorted $middle]
            : ([lindex $sorted $middle-1] + [lindex $sorted $middle]) / 2.0}]
}

# How the package, or another, compares in each round: milliseconds more for the start,
# else how many times.
proc comparisons {unit name subject {measured package}} {
    set each {}
    foreach ours $::samples($name,$measured) theirs $::samples($name,$subject) {
        if {$unit eq "ms"} {
            lappend each [expr {$ours - $theirs}]
        } elseif {$theirs != 0} {
            lappend each [expr {double($ours) / $theirs}]
        }
    }
    return [lsort -real $each]
}

proc compared {args} {
    set each [comparisons {*}$args]
    if {[llength $each] == 0} {return ""}
    return [format %.3f [median $each]]
}

proc bounds {args} {
    set each [comparisons {*}$args]
    if {[llength $each] == 0} {return {{} {}}}
    return [list [format %.3f [lindex $each 0]] [format %.3f [lindex $each end]]]
}

proc results_of {measurement} {
    lassign $measurement section workload peer outputs references
    set rows {}
    foreach output $outputs {
        lassign $output name title unit own_target
        foreach subject [concat package [dict keys $references]] {
            set values [lsort -real $::samples($name,$subject)]
            lassign {} ratio target met
            set bounds {{} {}}
            if {$subject ne "package"} {
                set ratio [compared $unit $name $subject]
                set bounds [bounds $unit $name $subject]
                set target [dict get $references $subject]
                set target [expr {$target eq "" ? $own_target : $target}]
                if {$target ne "-"} {
                    set met [expr {($unit eq "ms" ? $ratio <= $target
                            : $ratio >= $target) ? "yes" : "no"}]
                }
            }
            lappend rows [list $section $name $title $unit $subject \
                [format %.6g [median $values]] [format %.6g [lindex $values 0]] \
                [format %.6g [lindex $values end]] $ratio $target $met {*}$bounds]
        }
    }
    return $rows
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
    set f [open $path]
    set found [regexp -line -inline $pattern [read $f]]
    close $f
    return [string trim [lindex $found 1]]
}

proc machine {} {
    set cores [llength [regexp -all -inline -line {^processor} [read [set f [open /proc/cpuinfo]]]]]
    close $f
    set versions [exec /usr/bin/python3 -c \
        "import sys, zmq; print(zmq.zmq_version(), 'pyzmq', zmq.__version__, 'on Python', sys.version.split()\[0\])"]
    return "[first_match {^model name\s*: (.*)$} /proc/cpuinfo], $cores cores, [first_match \
        {^PRETTY_NAME="(.*)"$} /etc/os-release], Linux $::tcl_platform(osVersion), Tcl\
        [info patchlevel], libzmq [string map {{ pyzmq} {, pyzmq}} $versions]"
}

# One Markdown table: a line an output, a column a subject.
proc table {section rows} {
    set rows [lsearch -all -inline -index 0 $rows $section]
    set columns [lsort -unique [lmap row $rows {lindex $row 4}]]
    set columns [lmap c {raw pyzmq plain bare copying after tclsh floor} {
        if {$c ni $columns} continue
        set c
    }]
    set titles {raw "raw C" pyzmq pyzmq plain "pyzmq, plain" bare "bare commands"
        copying "bare commands that copy names" after "Tcl's after" tclsh "tclsh alone"
        floor "an empty package"}
    set how [expr {$section eq "start" ? "more" : "ratio"}]
    set own [expr {$section eq "floor" ? "Tcl" : "this package"}]
    set head "| workload | unit | $own | spread |"
    set rule "|---|---|---:|---:|"
    foreach c $columns {
        append head " [dict get $titles $c] | $how, spread (target) |"
        append rule "---:|---:|"
    }
    set lines [list "$head met |" "$rule---|"]
    foreach row $rows {
        lassign $row - name title unit subject median low high
        if {$subject ne "package"} continue
        set line "| $title | $unit | [short $median $unit] | [short $low $unit] to\
            [short $high $unit] |"
        set met ""
        foreach c $columns {
            set other [lsearch -inline -index 4 [lsearch -all -inline -index 1 $rows $name] $c]
            if {$other eq ""} {
                append line " | |"
                continue
            }
            lassign [lrange $other 8 end] ratio target ok least greatest
            append line " [short [lindex $other 5] $unit] | $ratio"
            append line [expr {$ratio eq "" ? "" : ", $least to $greatest"}]
            append line [expr {$target in {"" -} ? " |" : " ($target) |"}]
            if {$ok ne ""} {
                lappend met $ok
            }
        }
        lappend lines "$line [join $met {, }] |"
    }
    return [join $lines \n]
}

# How far raw C and bare commands come, beside the targets and what the package reaches.
proc limits {rows} {
    set lines {
        "| workload | of raw C: bare commands | target | reached | times pyzmq: raw C | bare commands | target | reached |"
        "|---|---:|---:|---:|---:|---:|---:|---:|"
    }
    foreach row $rows {
        lassign $row section name - - subject
        if {$section ne "throughput" || $subject ne "raw"} continue
        foreach {bare what} {bare "" copying ", names copied"} {
            if {![info exists ::samples($name,$bare)]} continue
            set line "| $name$what"
            foreach {peer limits} [list raw $bare pyzmq [list raw $bare]] {
                foreach limit $limits {
                    append line " | [compared op/s $name $peer $limit]"
                }
                append line " | [cell $rows 9 $name $peer] | [cell $rows 8 $name $peer]"
            }
            lappend lines "$line |"
        }
    }
    return [join $lines \n]
}

proc report {rows machine} {
    set text "# Results\n\n$machine.\n\n"
    append text "Medians of $::rounds rounds, the subjects interleaved; a spread is the least\
        and the greatest\nround; a ratio is the median of the rounds' ratios."
    append text [expr {$::quick ? "  **Quick form: for a look, not for conclusions.**" : ""}]
    append text "\n[file tail $::here]/README.md tells what each row measures.\n"
    foreach {section title} {
        throughput "Messages" timers "Timers against Tcl's own"
        limits "What raw C and bare commands reach" floor "What nothing costs" start "Start and end" growth "What one costs, and how that grows"
    } {
        if {$section eq "limits" && [lsearch -index 4 $rows raw] >= 0} {
            append text "\n## $title\n\n[limits $rows]\n"
        } elseif {[lsearch -index 0 $rows $section] >= 0} {
            append text "\n## $title\n\n[table $section $rows]\n"
        }
    }
    return $text
}

# A ratio with its target, as a field of a table.
proc aimed {rows name subject {format %.2f}} {
    set ratio [cell $rows 8 $name $subject]
    set target [cell $rows 9 $name $subject]
    if {$ratio eq "NaN"} {return ""}
    return "[format $format $ratio][expr {$target in {NaN -} ? "" : " ($target)"}]"
}

# The rows of a section that are the package's: name, title, unit, median.
proc own_rows {rows section} {
    return [lmap row $rows {
        if {[lindex $row 0] ne $section || [lindex $row 4] ne "package"} continue
        list {*}[lrange $row 1 3] [lindex $row 5]
    }]
}

# What the README shows: messages, timers, the start, and what one of so many costs.
proc summary {rows machine} {
    set lines [list "$machine; medians of $::rounds rounds." "" \
        "| workload | a second | spread | of raw C (target) | times pyzmq (target) | times pyzmq, one frame | bare commands, of raw C |" \
        "|---|---:|---:|---:|---:|---:|---:|"]
    foreach row [own_rows $rows throughput] {
        lassign $row name title unit median
        lappend lines "| $title | [short $median $unit] |\
            [short [cell $rows 6 $name package] $unit] to\
            [short [cell $rows 7 $name package] $unit] | [aimed $rows $name raw] |\
            [aimed $rows $name pyzmq] | [aimed $rows $name plain] |\
            [format %.2f [compared $unit $name raw bare]] |"
    }
    lappend lines "" "| timers | a second | times Tcl's own (target) |" "|---|---:|---:|"
    foreach row [own_rows $rows timers] {
        lassign $row name title unit median
        lappend lines "| $title | [short $median $unit] | [aimed $rows $name after] |"
    }
    lappend lines "" "A new tclsh, `package require zmq`, and exit:\
        [aimed $rows start-end tclsh %.1f] ms more than tclsh alone, without the pause of\
        100 ms at the end of the context; with bare commands\
        [format %.1f [compared ms start-end tclsh bare]] ms more." "" \
        "| one of so many | 10 | 100 | 1,000 | 10,000 |" "|---|---:|---:|---:|---:|"
    foreach kind {sockets timers handlers} {
        foreach {what unit} {create us delete us memory bytes} {
            lappend lines "| $kind: $what, $unit | [join [lmap count \
                {10 100 1000 10000} {
                    set value [cell $rows 5 grow-$kind-$what-$count package]
                    # Of few, memory is the size of a page.
                    if {$value eq "NaN" || ($unit eq "bytes" && $count < 1000)} {
                        list
                    } else {
                        short $value $unit
                    }
                }] { | }] |"
        }
    }
    return [join $lines \n]
}

# Replaces what stands between the two marks.
proc show_in {path text} {
    set f [open $path]
    set old [read $f]
    close $f
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
    set text "section,name,workload,unit,subject,median,minimum,maximum,compared,target,met"
    append text ",compared minimum,compared maximum\n"
    foreach row $rows {
        append text [join [lmap field $row {
            expr {[string match *,* $field] ? "\"$field\"" : $field}
        }] ,] \n
    }
    return $text
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

# A field of the row with this name and subject, NaN where there is none.
proc cell {rows field name subject} {
    foreach row $rows {
        if {[lindex $row 1] eq $name && [lindex $row 4] eq $subject} {
            return [lindex $row $field]
        }
    }
    return NaN
}

proc gnuplot {path lines} {
    exec gnuplot << "set terminal svg noenhanced size 900,420 font 'sans-serif,12' \
        background 'white'\n set output '$path'\n set grid y\n set key below\n $lines" 2>@stderr
}

# Each workload as a share of what raw C reaches.
proc share {name subject} {
    if {![info exists ::samples($name,$subject)]} {return NaN}
    return [compared op/s $name raw $subject]
}

proc idle_cell {rows count column} {
    lassign $column workload subject
    return [cell $rows 5 $workload-$count $subject]
}

proc grow_cell {rows count column} {
    return [cell $rows 5 grow-$column-$count package]
}

proc plot {directory rows} {
    set names [lmap row $rows {
        if {[lindex $row 0] ne "throughput" || [lindex $row 4] ne "raw"
            || [regexp {^(reactor|poll)-} [lindex $row 1]]} continue
        lindex $row 1
    }]
    gnuplot [file join $directory throughput.svg] "[datablock d $names {package pyzmq plain} \
        share]
        set title 'Messages per second as a share of raw C'
        set style data histogram\n set style fill solid 0.8\n set yrange \[0:*\]
        set arrow 1 from graph 0, first 1 to graph 1, first 1 nohead
        plot \$d using 2:xtic(1) title 'this package', '' using 3 title 'pyzmq, multipart', \\
            '' using 4 title 'pyzmq, plain'"
    set columns {{reactor package} {poll package} {reactor raw} {reactor pyzmq}}
    gnuplot [file join $directory idle.svg] "[datablock d {0 30 200 1000} $columns \
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
