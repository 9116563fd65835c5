# count.tcl -- what a worker of the word count does: the script for jobs/worker.tcl -job.
source [file join [file dirname [info script]] words.tcl]

# A job is a piece of text.  It yields the name of the worker, and the words of the piece
# with their counts.
proc job {text} {
    list $::option(-name) [tally $text]
}
