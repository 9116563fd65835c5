# programs.tcl -- for the test files that run programs of the tree.  They work in the scratch
# directory: sockets and files have short names there, whatever the path.
source [file join [file dirname [file normalize [info script]]] support.tcl]
cd [scratch]

# Starts a program; what it writes, errors included, goes to ::out, as text.
proc start {name args} {run {*}[program $name] {*}$args}
proc program {name} {
    foreach file [list $name examples/$name.tcl examples/$name script/$name] {
        if {[file isfile [set file [file join $::support(root) $file]]]} break
    }
    list {*}[if {[string match *.py $file]} {list env -u LD_PRELOAD} {info nameofexecutable}] $file
}
# The same with redirections in bash's words.
proc redirected {how name args} {run bash -c "$how; exec \"\$@\"" - {*}[program $name] {*}$args}
proc run {args} {
    set channel [open |[list {*}$args 2>@1] r+]
    fconfigure $channel -blocking 0 -buffering none -encoding utf-8
    set ::out($channel) {}
    fileevent $channel readable "append ::out($channel) \[read $channel\]
        if {\[eof $channel\]} {fileevent $channel readable {}}"
    return $channel
}

# Waits until a program has written what matches; gives the last part.
proc said {channel expression} {
    wait_until {[regexp -line $expression $::out($channel)]} 30000
    lindex [regexp -line -inline $expression $::out($channel)] end
}
proc signal {name channel} {exec sh -c "kill -$name [pid $channel]"}

# Waits for the end of programs, which SIGTERM may bring about, one after the other; gives
# their statuses or signals.
proc ending {args} {
    lmap channel $args {
        wait_until {[eof $channel]} 60000
        fconfigure $channel -blocking 1
        catch {close $channel} - options
        lindex [dict get [dict merge {-errorcode {- - 0}} $options] -errorcode] 2
    }
}
proc terminated {args} {lmap channel $args {signal TERM $channel; ending $channel}}

# Whatever a test left running does not outlive it, nor its files but those named.
proc clear {args} {
    foreach channel [array names ::out] {
        catch {signal KILL $channel}
        catch {ending $channel}
    }
    array unset ::out
    close_all
    file delete -force {*}[lmap file [glob -nocomplain *] {if {$file in $args} continue; set file}]
}
