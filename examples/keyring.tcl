# keyring.tcl -- sourced by the examples: keys for their sockets, as three options tell.
#
#     -server file       connect to the owner of this public key and nobody else
#     -key file          the program's own keys; without -server, peers must know its public
#                        one
#     -known directory   and have one of the public keys in this directory
#
# keys.tcl makes the files.

# Gives sockets keys before they are bound or connected.  An option that is not used is
# empty; one that is wrong makes an error, whose message is for the user.
proc set_keys {key server known sockets} {
    if {$known ne {} && ($key eq {} || $server ne {})} {
        error "-known \"$known\": -key beside it and no -server is wanted"
    }
    if {$key eq {} && $server eq {}} {
        return
    }
    package require zmq::extra
    foreach socket $sockets {
        if {$server eq {}} {
            ::zmq::curve server $socket [key_in $key secret -key]
        } elseif {$key eq {}} {
            ::zmq::curve client $socket [key_in $server public -server]
        } else {
            ::zmq::curve client $socket [key_in $server public -server] \
                [key_in $key public -key] [key_in $key secret -key]
        }
    }
    if {$known ne {}} {
        package require zmq::auth
        if {[catch {::zmq::auth start -keys $known -refused refused} message]} {
            error "-known \"$known\": a directory of public keys is wanted ($message)"
        }
    }
}

# Called for each peer that may not connect.
proc refused {request} {
    complain "refused [dict get $request address]: [dict get $request reason]"
}

# The public or secret key in a file that keys.tcl wrote, the argument of this name.
proc key_in {file which name} {
    if {[catch {
        set channel [open [file normalize $file]]
        set text [read $channel 10000]
        close $channel
    } message]} {
        error "$name \"$file\": a file of keys is wanted ($message)"
    }
    if {![regexp -line "^\\s*$which-key\\s*=\\s*\"(\[!-~\]{40})\"" $text -> key]} {
        error "$name \"$file\": a file with a $which key is wanted"
    }
    return $key
}
