# words.tcl -- what a word is, for the job and for the check alike.

# Letters with their combining accents; apostrophes inside, as in "don't".
set word {[[:alpha:]][[:alpha:]\u0300-\u036f]*}
set wordPattern "$word\(?:\['\u2019\]$word)*"

# Counts the words of a text: a dictionary of word and number.
proc tally {text} {
    set counts {}
    foreach word [regexp -all -inline $::wordPattern [string tolower $text]] {
        dict incr counts $word
    }
    return $counts
}
