# auth.tcl -- the package zmq::auth: decides, in the reactor, who may connect.
#
# libzmq asks a REP socket at one inproc endpoint about each new connection of a socket
# that has a CURVE secret key or a -zap_domain, and waits for the answer before anything
# else passes.  Each request must be answered, or the REP socket takes no other one: so
# the answer goes out before anything can fail that a script has a part in.

package require Tcl 8.5-
package require zmq @PROJECT_VERSION@
package provide zmq::auth @PROJECT_VERSION@

namespace eval ::zmq::auth {
    namespace export start stop allow deny reload
    namespace ensemble create

    variable directory {}  ;# of public keys, {} for none
    variable names {}      ;# public key -> name of its file, without .key
    variable allowed {}    ;# patterns of addresses that need no key
    variable denied {}     ;# patterns of addresses that do not come in at all
    variable refused {}    ;# command prefix, called about each refusal
    variable alphabet 0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ.-:+=^!/*?&<>()\[\]{}@%$#
}

proc ::zmq::auth::Fail {message args} {
    return -code error -level 2 -errorcode [list ZMQ AUTH {*}$args] $message
}

proc ::zmq::auth::Running {} {
    expr {[namespace which -command ::zmq::auth::zap] ne {}}
}

# start ?-keys directory? ?-refused command?
# Once this returns, nobody connects but those with a key of the directory and those whose
# address is allowed.
proc ::zmq::auth::start {args} {
    variable directory
    variable names
    variable refused
    set options {-keys {} -refused {}}
    foreach {option value} $args {
        if {![dict exists $options $option]} {
            Fail "bad option \"$option\": must be -keys or -refused" START
        }
        dict set options $option $value
    }
    if {[llength $args] % 2} {
        Fail "no value for option \"$option\"" START
    }
    if {[Running]} {
        Fail "authentication runs already" START
    }
    set found [Keys [dict get $options -keys]]
    ::zmq::socket create ::zmq::auth::zap REP
    if {[catch {
        zap bind inproc://zeromq.zap.01
        ::qel::reactor event ::zmq::auth::zap readable ::zmq::auth::Answer
    } message]} {
        zap close
        Fail "failed to start authentication: $message" START
    }
    set directory [dict get $options -keys]
    set names $found
    set refused [dict get $options -refused]
    return
}

# stop
# From here on everybody connects who has the server's key, or finds a socket without one.
proc ::zmq::auth::stop {} {
    if {![Running]} {
        Fail "authentication does not run" STOP
    }
    catch {zap unbind inproc://zeromq.zap.01} ;# a close frees it a little later
    zap close
    variable names {} allowed {} denied {} directory {} refused {}
}

# reload
# Reads the directory of keys again; after a failure the keys stay as they were.
proc ::zmq::auth::reload {} {
    variable directory
    variable names
    if {![Running]} {
        Fail "authentication does not run" RELOAD
    }
    set names [Keys $directory]
    return
}

# allow ?pattern ...?
# deny ?pattern ...?
# Put patterns of addresses, as for "string match", on one list and take them off the
# other.
proc ::zmq::auth::allow {args} {
    List allowed denied $args
}
proc ::zmq::auth::deny {args} {
    List denied allowed $args
}
proc ::zmq::auth::List {onName offName patterns} {
    variable $onName
    variable $offName
    foreach pattern $patterns {
        set $offName [lsearch -all -inline -exact -not [set $offName] $pattern]
        if {$pattern ni [set $onName]} {
            lappend $onName $pattern
        }
    }
}

# The public keys in the files *.key of a directory, each with the name of its file.
proc ::zmq::auth::Keys {directory} {
    set found {}
    if {$directory ne {} && ![file isdirectory $directory]} {
        Fail "\"$directory\" is no directory of keys" KEYS
    }
    if {$directory eq {}} {
        return {}
    }
    foreach file [glob -nocomplain -types f -directory $directory *.key] {
        if {[catch {
            set channel [open $file rb]
            set text [read $channel 10000]
            close $channel
        } message]} {
            Fail "failed to read keys: $message" KEYS
        }
        if {![regexp -line {^\s*public-key\s*=\s*"([!#-&(-~]{40})"\s*$} $text -> key]} {
            Fail "no public key in \"$file\"" KEYS
        }
        dict set found $key [file rootname [file tail $file]]
    }
    return $found
}

# The readable handler of the socket that libzmq asks.
proc ::zmq::auth::Answer {} {
    variable refused
    if {[catch {zap recv -nowait} request]} {
        return ;# nothing there after all
    }
    lassign $request - id domain address identity mechanism key
    set key [expr {$mechanism eq "CURVE" && [string length $key] == 32 ? [Z85 $key] : {}}]
    lassign [Decide $request $key] reason name
    if {$reason eq {}} {
        zap send 1.0 $id 200 OK [encoding convertto utf-8 $name] {}
        return
    }
    zap send 1.0 $id 400 $reason {} {}
    if {$refused ne {}} {
        uplevel #0 $refused [list [dict create reason $reason mechanism $mechanism \
            domain $domain address $address identity $identity key $key]]
    }
}

# Why a request is refused, {} when it is not, and the name that goes with its key.
proc ::zmq::auth::Decide {request key} {
    variable names
    variable allowed
    variable denied
    lassign $request version - - address - mechanism
    set frames [dict create NULL 6 CURVE 7]
    if {$version ne "1.0" || [llength $request] < 6} {
        return {{malformed request}}
    } elseif {![dict exists $frames $mechanism]} {
        return {{unknown mechanism}}
    } elseif {[llength $request] != [dict get $frames $mechanism]
            || ($mechanism eq "CURVE" && $key eq {})} {
        return {{malformed request}}
    } elseif {[Matches $denied $address]} {
        return {{address denied}}
    } elseif {$mechanism eq "NULL"} {
        return [list [expr {[Matches $allowed $address] ? {} : "address not allowed"}] {}]
    } elseif {![dict exists $names $key]} {
        return {{unknown key}}
    }
    list {} [dict get $names $key]
}

proc ::zmq::auth::Matches {patterns address} {
    foreach pattern $patterns {
        if {[string match $pattern $address]} {
            return 1
        }
    }
    return 0
}

# The 40 characters of a key of 32 bytes.
proc ::zmq::auth::Z85 {bytes} {
    variable alphabet
    binary scan $bytes Iu8 numbers
    foreach number $numbers {
        set five {}
        foreach place {1 2 3 4 5} {
            set five [string index $alphabet [expr {$number % 85}]]$five
            set number [expr {$number / 85}]
        }
        append text $five
    }
    return $text
}
