# count.tcl -- what a worker of the word count does: the script for worker.tcl -job.
source [file join [file dirname [info script]] words.tcl]

# A job is a number and a piece of text in UTF-8, cut between lines.  It yields the
# number, the length of the piece in bytes, and its words with their counts.
proc job {number text} {
    set counts [tally [encoding convertfrom utf-8 $text]]
    list $number [string length $text] [encoding convertto utf-8 $counts]
}

# The program that started us holds the other end of standard input.  When it ends in
# whatever way, so does this process, at once: nobody waits for results any more.
fconfigure stdin -blocking 0
::qel::reactor event stdin readable {
    read stdin
    if {[eof stdin]} {
        ::qel::reactor event stdin readable {}
        ::qel::reactor stop
    }
}
