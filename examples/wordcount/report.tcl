# report.tcl -- what the word count shows: lines, a progress bar, the final tables.

# A progress bar would spoil a file or a pipe.  Only a terminal has a mode.
set terminal [dict exists [fconfigure stdout] -mode]
fconfigure stdout -encoding utf-8

# A reader that has gone away must not keep the processes from being started or stopped.
proc note {line} {
    catch {
        clear_progress
        puts $line
        flush stdout
    }
}

proc warn {line} {
    clear_progress
    say "$::program: $line" stderr
}

proc clear_progress {} {
    if {$::terminal} {
        catch {
            puts -nonewline "\r\033\[K"
            flush stdout
        }
    }
}

proc draw_progress {} {
    if {!$::terminal || $::stopping} return
    ::qel::reactor after 100 draw_progress
    set part [expr {min(1.0, double($::doneBytes) / max(1, $::size))}]
    set width [expr {round(40 * $part)}]
    catch {
        puts -nonewline [format "\r\[%-40s\] %3.0f %%" [string repeat # $width] \
                             [expr {100 * $part}]]
        flush stdout
    }
}

# Counts again without any of the machinery; gives the same kind of dictionary.
proc count_plainly {files} {
    set counts {}
    foreach file $files {
        set channel [open $file]
        fconfigure $channel -encoding utf-8
        catch {fconfigure $channel -profile tcl8} ;# Tcl 9 refuses bytes that are no text
        while {[gets $channel line] >= 0} {
            dict for {word count} [tally $line] {dict incr counts $word $count}
        }
        close $channel
    }
    return $counts
}

proc sum {counts} {
    ::tcl::mathop::+ {*}[dict values $counts]
}

# Prints the tables; true if every word was counted and nothing went wrong.
proc print_report {} {
    set words [sum $::counts]
    set seconds [expr {max(1, $::ended - $::began) / 1e6}]
    show "\n$words words, [dict size $::counts] different ones.  The most frequent:"
    set sorted [lsort -stride 2 -index 1 -integer -decreasing [lsort -stride 2 $::counts]]
    foreach {word count} [lrange $sorted 0 19] {
        show [format "%10d  %s" $count $word]
    }
    show [format "\n%-12s %8s %10s" worker jobs bytes]
    foreach name [lsort -dictionary [array names ::jobsOf]] {
        show [format "%-12s %8d %10d" $name $::jobsOf($name) $::bytesOf($name)]
    }
    show [format "\n%d jobs in %.2f s: %.0f words and %.2f MB a second" $::done $seconds \
              [expr {$words / $seconds}] [expr {$::doneBytes / $seconds / 1e6}]]
    show "background errors: $::errors, dead letters: $::dead"
    set plain [count_plainly $::files]
    set same [expr {[lsort -stride 2 $plain] eq [lsort -stride 2 $::counts]}]
    show "check: a plain count finds [sum $plain] words,\
        [expr {$same ? "each as often" : "NOT THE SAME"}]"
    return [expr {$same && $::errors + $::dead == 0}]
}
