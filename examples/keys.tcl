#!/usr/bin/env tclsh
# keys.tcl -- makes keys for encrypted connections, and shows public ones.
#
#     keys.tcl make name ?name ...?
#     keys.tcl show file ?file ...?
#
# make writes two files for each name: name.key has the public key, which the peers need,
# and name.key_secret has both, stays where it is and can be read by its owner only.  Files
# that are there already are not overwritten.  show prints the public key of each file.
#
# The other programs take the files by the options -key, -server and -known.

source [file join [file dirname [info script]] common.tcl]
need zmq::extra tcl-parvo
source $keyring

# Writes a file that was not there before, for those whom the mode allows to read it.
proc write_new {file mode text} {
    set channel [open $file {WRONLY CREAT EXCL} $mode]
    if {[catch {
        puts $channel $text
        close $channel
    } message]} {
        catch {close $channel}
        file delete $file
        error "couldn't write \"$file\": $message"
    }
}

proc make {name} {
    lassign [::zmq::curve keypair] public secret
    set text "# keys.tcl, [clock format [clock seconds]]\ncurve\n    public-key = \"$public\""
    write_new ${name}.key_secret 0600 "$text\n    secret-key = \"$secret\""
    if {[catch {write_new ${name}.key 0644 $text} message]} {
        file delete ${name}.key_secret
        error $message
    }
    show_key ${name}.key
}

proc show_key {file} {
    show "[shown $file] [key_in $file public file]"
}

arguments {
    {action {choice make show}}
    {file... file}
}
foreach file $arg(file) {
    if {[catch {[dict get {make make show show_key} $arg(action)] $file} message]} {
        fail [dict get {make 1 show 2} $arg(action)] $message
    }
}
