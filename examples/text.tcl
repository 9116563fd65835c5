# text.tcl -- sourced by the examples: text from the command line and on standard output.
#
# Tcl converts both between the locale's encoding and its own strings.  In the POSIX
# locale, which a machine has where nothing is set, only ASCII is text; Tcl takes it for
# ISO 8859-1, and would let every other character pass, as something else.

set userEncoding [encoding system]
if {$userEncoding eq "iso8859-1" && ![catch {exec locale charmap 2>/dev/null} charmap]
        && $charmap eq "ANSI_X3.4-1968"} {
    set userEncoding ascii
}

# Ends the program when one of these words of the command line is no text in the locale.
proc check_text {words} {
    foreach word $words {
        if {$::userEncoding eq "ascii" && ![string is ascii $word]} {
            puts stderr "\"[shown $word]\" is not ASCII, which is all that this locale has:\
                set LC_ALL to one that has more, such as C.UTF-8"
            exit 2
        }
    }
}

# A text as standard output can show it: characters that the locale does not have become
# their numbers, as in Tcl's own \u20ac.
proc shown {text} {
    if {[survives $text]} {return $text}
    set shown {}
    foreach character [split $text {}] {
        append shown [expr {[survives $character] ? $character
            : [format {\u%04x} [scan $character %c]]}]
    }
    return $shown
}

# Whether a text is the same after a conversion to the locale's encoding and back.
proc survives {text} {
    expr {![catch {encoding convertfrom $::userEncoding \
        [encoding convertto $::userEncoding $text]} back] && $back eq $text}
}
