# support.tcl -- what the test files share.  A test file sources this, runs its tests and
# ends with "finish", which exits with 1 when a test failed or none ran.

package require tcltest 2.3
namespace import ::tcltest::test ::tcltest::makeFile ::tcltest::removeFile
package require zmq
# The encoding of file names and of words and lines for other processes, in any locale.
encoding system utf-8
set ::env(LC_ALL) C.UTF-8
foreach channel {stdout stderr} {fconfigure $channel -encoding utf-8}

set ::support(dir) [file normalize [file join [expr {[info exists ::env(TMPDIR)] ? $::env(TMPDIR) : "/tmp"}] \
    parvo-[pid]-[clock microseconds]]]
set ::support(root) [file dirname [file dirname [file normalize [info script]]]]
file mkdir $::support(dir)
::tcltest::configure -verbose {body error skip} -tmpdir $::support(dir)

# What a machine may lack.  script/test shows the tests that were skipped, and why.
proc has_program {args} {expr {{} ni [lmap name $args {auto_execok $name}]}}
proc has_package {name} {
    catch {package require "no such package"} ; # this reads every index
    expr {[package versions $name] ne {}}
}
proc has_python_module {name} {expr {![catch {exec /usr/bin/python3 -c "import $name"}]}}
::tcltest::testConstraint Thread [has_package Thread]
::tcltest::testConstraint dtplite [has_program dtplite]
::tcltest::testConstraint python3 [has_program python3]
::tcltest::testConstraint valgrind [has_program valgrind]
::tcltest::testConstraint unsanitized [expr {![info exists ::env(PARVO_SANITIZED)]}]

# The file of the library.
proc library {} {
    foreach loaded [info loaded] {
        if {[string match */lib*parvo.so [lindex $loaded 0]]} {return [lindex $loaded 0]}
    }
}

# Skips a whole file.
proc requires {what present} {
    if {!$present} {
        puts "++++ [file rootname [file tail [info script]]] SKIPPED: $what"
        file delete -force $::support(dir)
        exit 77
    }
}

# Runs a script and gives its message and error code.
proc failure {script} {
    if {[uplevel 1 [list catch $script ::support(message) ::support(options)]] != 1} {
        error "no failure but: $::support(message)"
    }
    list $::support(message) [dict get $::support(options) -errorcode]
}

# Waits until a condition holds, with Tcl's events served meanwhile.
proc wait_until {condition {ms 15000}} {
    set end [expr {[clock milliseconds] + $ms}]
    while {![uplevel 1 [list expr $condition]]} {
        if {[clock milliseconds] > $end} {
            error "gave up waiting for $condition"
        }
        after 5
        update
    }
}

# A scratch directory that goes with the process.
proc scratch {args} {
    file mkdir $::support(dir)
    file join $::support(dir) {*}$args
}

# A socket of some type that waits 15 seconds at most.
proc made {type} {
    set s [::zmq::socket new $type]
    $s configure -rcvtimeo 15000
    $s configure -sndtimeo 15000
    return $s
}

# A socket bound to a free loopback port; the endpoint goes into a variable.
proc bound {type endpointName} {
    upvar 1 $endpointName endpoint
    set s [::zmq::socket new $type]
    $s bind tcp://127.0.0.1:*
    set endpoint [$s configure -last_endpoint]
    return $s
}

# Closes every socket of the thread that this interpreter knows; a failed test may have
# left others in an interpreter of its own.
proc close_all {} {foreach s [::zmq::socket names] {catch {$s close}}}

# The text of a file.
proc file_text {path} {return [read [set f [open $path]]][close $f]}
# The version of the package, which CMake knows.
regexp {project\(\w+ VERSION ([\d.]+)} [file_text [file join $::support(root) CMakeLists.txt]] -> ::support(version)

# Runs a script in a tclsh of its own, with the package loaded; gives what it wrote to
# standard output and error and its exit status, or the signal that ended it.
proc child {script} {
    set file [makeFile "encoding system utf-8\npackage require zmq\n$script" child-[clock microseconds].tcl [scratch]]
    set status 0
    if {[catch {exec -keepnewline timeout -s KILL 100 [info nameofexecutable] $file 2>$file.err} out options]} {
        set status [lindex [dict get $options -errorcode] 2]
        set out [regsub {\n?child (process exited abnormally|killed: [^\n]*)\n?$} $out {}]
    }
    set err [file_text $file.err]
    removeFile [file tail $file] [scratch]
    file delete $file.err
    list $out $err $status
}

# Evaluates a script in the reactor's interpreter and runs the loop until it is
# stopped, or for ten seconds.
proc react {script} {
    set guard [::qel::reactor after 10000 {set ::support(late) 1; ::qel::reactor stop}]
    unset -nocomplain ::support(late)
    uplevel #0 $script
    ::qel::reactor start
    ::qel::reactor after cancel $guard
    if {[info exists ::support(late)]} {error "the reactor was not stopped"}
}

# A test that is known by its description and whose sockets are closed at the end.
proc check {description body result {match exact} {constraints {}}} {
    set name [file rootname [file tail [info script]]]-[incr ::support(checks)]
    uplevel 1 [list test $name $description -constraints $constraints -body $body -cleanup close_all \
        -match $match -result $result]
}

# Runs a table of rows {script message code} in the caller's scope and gives the rows
# that went otherwise, with what they gave.
proc misfits {rows} {
    set bad {}
    foreach {script message code} $rows {
        if {[catch {uplevel 1 [list failure $script]} got]
                || [lindex $got 0] ne $message || [lindex $got 1] ne $code} {
            lappend bad $script $got
        }
    }
    return $bad
}

# The debug lines of a text without their prefix, which must name this node and worker.
# Lines of any other form stay as they are.
proc debug_lines {text {node (null)} {worker (null)}} {
    set form {^\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3}[-+]\d{4}:(.*):debug:\[\d+\]:(.*?):(pv_\w+: .*)$}
    lmap line [split [string trimright $text \n] \n] {
        expr {[regexp $form $line -> itsNode itsWorker rest]
              && $itsNode eq $node && $itsWorker eq $worker ? $rest : $line}
    }
}

# The debug lines that a script causes.
proc logged {script} {
    close [open [scratch log] w]
    ::zmq::debug file [scratch log]
    ::zmq::debug on
    uplevel 1 $script
    ::zmq::debug off
    debug_lines [file_text [scratch log]]
}

proc finish {} {
    set failed [expr {$::tcltest::numTests(Failed) > 0 || $::tcltest::numTests(Total) == 0}]
    close_all
    file delete -force $::support(dir)
    file mkdir $::support(dir)
    if {$::tcltest::numTests(Skipped) == $::tcltest::numTests(Total) && !$failed} {set failed 77}
    ::tcltest::cleanupTests
    file delete $::support(dir)
    exit $failed
}
