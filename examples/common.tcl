# common.tcl -- sourced by the examples: packages, arguments, lines of output, text.
#
# A program that is copied elsewhere needs this file beside it, and keyring.tcl if it is
# given keys.

set program [file tail $argv0]
foreach channel {stdout stderr} {
    catch {fconfigure $channel -buffering line}
}

# Loads a package, or ends the program with the name of the Debian package that has it.
proc need {package debian} {
    if {[catch {package require $package} message]} {
        fail 2 "package $package is missing ($message): install Debian's package $debian,\
            or set TCLLIBPATH to the package's directory"
    }
}

# Ends the program with a status and one line on standard error.
proc fail {status message} {
    say "$::program: [shown $message]" stderr
    exit $status
}

# The background-error handler: a line with the time on standard error.  The reactor calls
# the end of a pipe unhandled when the last data arrive with it: the handler sees both.
proc complain {message {options {}}} {
    if {![string match "*unhandled ZMQ_POLLERR*" $message]} {
        say "[::qel::timestamp] $::program: [shown $message]" stderr
    }
}

# ---- Output

# Writes a line about the work, which goes on when that fails, because a disk is full or the
# reader has gone.  A reader that is there and does not read makes the program wait.
proc say {text {channel stdout}} {
    catch {puts $channel $text}
}

# Writes a line that is the purpose of the program; ends it with status 1 when that fails.
proc show {text} {
    if {![printed $text]} {
        exit 1
    }
}
# Writes a line; returns whether it could.  A reader that has gone, as "head" does, is not
# reported; every other failure is.
proc printed {text} {
    if {![catch {puts $text} message]} {
        return 1
    }
    if {[lindex $::errorCode 1] ne "EPIPE"} {
        say "$::program: $message" stderr
    }
    return 0
}

# ---- Arguments

# Reads the command line into the global array "arg".  A row is {name kind ?default?}; one
# without a default is required.  A name that begins with "-" is an option, and stands in
# the array without the "-"; one that ends with "..." takes all words that are left.  A
# kind is one of the procedures kind_* below, with its arguments.  No word after "--" or
# after the first of a command is an option.
#
# -h and --help print the comment at the head of the program.  A wrong argument ends the
# program with status 2 and a line that says what is wanted.
proc arguments {rows} {
    set options {}
    set positions {}
    foreach row $rows {
        lassign $row name kind default
        if {[llength $row] > 2} {
            set ::arg([string trim $name -.]) $default
        }
        lappend [expr {[string match -* $name] ? "options" : "positions"}] $name $kind
    }
    set words [take_options $options $::argv \
        [expr {$kind eq "command" ? [llength $positions] / 2 : [llength $::argv]}]]
    foreach {name kind} $positions {
        set last [expr {[string match *... $name] ? "end" : 0}]
        foreach word [lrange $words 0 $last] {
            check [string trim $name .] $kind $word
            set ::arg([string trim $name .]) [expr {$last eq "end" ? $words : $word}]
        }
        set words [lreplace $words 0 $last]
    }
    if {[llength $words] > 0} {
        refuse argument [lindex $words 0] "nothing more"
    }
    foreach {name kind} [concat $options $positions] {
        if {![info exists ::arg([string trim $name -.])]} {
            fail 2 "[string trim $name .] is missing: [lindex [checked $kind {}] 1] is wanted"
        }
    }
}

# Takes the options from the words up to the position given; returns the other words.
proc take_options {options words position} {
    set others {}
    while {[llength $words] > 0 && [llength $others] < $position} {
        set words [lassign $words word]
        if {$word eq "--"} {
            break
        } elseif {$word in {-h --help}} {
            usage
        } elseif {![regexp {^--?[[:alpha:]]} $word]} {
            lappend others $word
        } elseif {![dict exists $options $word]} {
            lappend wanted {*}[dict keys $options] "\"--\" before an argument"
            refuse option $word [join $wanted " or "]
        } else {
            set words [lassign $words value]
            check $word [dict get $options $word] $value
            set ::arg([string trim $word -]) $value
        }
    }
    concat $others $words
}

# Prints the comment at the head of the program.
proc usage {} {
    set channel [open [info script]]
    gets $channel ;# the line that names the interpreter
    while {[regexp {^# ?(.*)} [gets $channel] -> line]} {
        show $line
    }
    exit 0
}

proc checked {kind value} {
    kind_[lindex $kind 0] $value {*}[lrange $kind 1 end]
}
proc check {name kind value} {
    lassign [checked $kind $value] fits wanted
    if {!$fits} {
        refuse $name $value $wanted
    }
}
proc refuse {name value wanted {reason {}}} {
    fail 2 "$name \"$value\": $wanted is wanted[expr {$reason eq {} ? {} : " ($reason)"}]"
}

# Binds or connects a socket to an endpoint, the argument of this name.
proc attach {socket method endpoint {name endpoint}} {
    if {[catch {$socket $method $endpoint} message]} {
        refuse $name $endpoint "an endpoint to $method" $message
    }
}

# What an argument may be: each returns whether a value fits, and what is wanted.
proc kind_endpoint {value} {
    set fits [regexp {^(?!tcp:)\w+://.|^tcp://.+:(\d+|\*)$} $value -> port]
    # ZeroMQ takes a port modulo 65536.
    list [expr {$fits && ($port in {{} *} || $port < 65536)}] \
        "an endpoint such as tcp://127.0.0.1:5555"
}
proc kind_number {value {low 0}} {
    set high 2147483647
    list [expr {[regexp {^(0|[1-9]\d{0,9})$} $value] && $value >= $low && $value <= $high}] \
        "a whole number from $low to $high"
}
proc kind_choice {value args} {
    list [expr {$value in $args}] [join $args " or "]
}
# Text has a meaning only in an encoding that the locale names.
proc kind_text {value} {
    if {$::userEncoding ne "ascii"} {
        return {1 "a text"}
    }
    list [string is ascii $value] "ASCII text, or a locale that has more (LC_ALL=C.UTF-8),"
}
proc kind_file {value} {
    list [expr {$value ne {}}] "the name of a file"
}
proc kind_command {value} {
    list [expr {$value ne {}}] "a command"
}

# ---- Keys

# What programs that can encrypt their connections add to the rows of "arguments".
set keyOptions {{-key file {}} {-server file {}} {-known file {}}}
set keyring [file join [file dirname [info script]] keyring.tcl]

# Gives sockets keys before they are bound or connected, as the options tell.
proc guard {args} {
    global arg
    if {"$arg(key)$arg(server)$arg(known)" eq {}} {
        return
    }
    need zmq::extra tcl-parvo
    source $::keyring
    if {[catch {set_keys $arg(key) $arg(server) $arg(known) $args} message]} {
        fail 2 $message
    }
}

# ---- Text

# Tcl converts words and lines between the locale's encoding and its own strings.  In the
# POSIX locale, which a machine has where nothing is set, only ASCII is text; Tcl takes it
# for ISO 8859-1, and would let every other character pass, as something else.
set userEncoding [encoding system]
if {$userEncoding eq "iso8859-1" && ![catch {exec locale charmap 2>/dev/null} charmap]
        && $charmap eq "ANSI_X3.4-1968"} {
    set userEncoding ascii
}

# The text of a frame in UTF-8, as a line on standard output can show it: see "shown".
proc frame_text {frame} {
    if {[catch {encoding convertfrom utf-8 $frame} text]} {
        set text $frame ;# Tcl 9 refuses what is not UTF-8; its bytes are shown
    }
    return [shown $text]
}

# Lets a channel read lines that are not valid in its encoding, which are errors in Tcl 9.
# Tcl 8 takes them, and does not have the option.
proc take_any_bytes {channel} {
    catch {fconfigure $channel -profile tcl8}
}

# A text as a line on standard output can show it: control characters, and those that the
# locale does not have, become their numbers, as in Tcl's own \u20ac.
proc shown {text} {
    if {[printable $text]} {
        return $text
    }
    set shown {}
    foreach character [split $text {}] {
        append shown [expr {[printable $character]
            ? $character : [format {\u%04x} [scan $character %c]]}]
    }
    return $shown
}
# Whether a text holds no control character and is the same after a conversion to the
# locale's encoding and back.
proc printable {text} {
    expr {![regexp {[[:cntrl:]]} $text] && ![catch {encoding convertfrom $::userEncoding \
        [encoding convertto $::userEncoding $text]} back] && $back eq $text}
}
