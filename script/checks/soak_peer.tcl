# soak_peer.tcl endpoint life -- sends back, from a reactor handler, what arrives in order
# and whole.  It ends when it is told to, or when the program that started it is gone.
#
# soak.tcl sources this for the form of a message.  Its first frame begins with 16 bytes:
# a sequence number, the life of the peer that sends it (a peer that was started again has
# the next one) and a checksum of these two and of all data.

# A message of frames whose own checksum is known.
proc pack {seq life sum frames} {
    set rest [lassign $frames first]
    set sum [zlib crc32 [binary format wI $seq $life] $sum]
    list [binary format wIIa* $seq $life $sum $first] {*}$rest
}
proc checksum {frames} {
    set sum 0
    foreach frame $frames {
        set sum [zlib crc32 $frame $sum]
    }
    return $sum
}
# Gives sequence number, life, checksum of the data and data of a message, or fails.
proc unpack {message} {
    set rest [lassign $message first]
    set frames [list [string range $first 16 end] {*}$rest]
    set data [checksum $frames]
    if {[binary scan $first wIuIu seq life sum] != 3
            || $sum != [zlib crc32 [binary format wI $seq $life] $data]} {
        error "damaged message of [llength $message] frames"
    }
    list $seq $life $data $frames
}

# A few messages at a time: the other handlers have their turn.
proc echo {dealer life} {
    for {set i 0} {$i < 16 && ![catch {$dealer recv -nowait} message]} {incr i} {
        if {$message eq "end"} {
            $dealer send end $::count
            ended $dealer
            return
        }
        lassign [unpack $message] seq - sum frames
        if {[info exists ::last] && $seq != $::last + 1} {error "$seq after $::last"}
        set ::last $seq
        incr ::count
        $dealer send {*}[pack $seq $life $sum $frames]
    }
}
set count 0

if {[file tail $argv0] ne "soak_peer.tcl"} return

package require zmq
proc ended {dealer} {
    $dealer configure -linger 10000
    ::qel::reactor stop
}
proc failed {message args} {
    puts stderr "peer of $::argv: $message"
    exit 1
}
set dealer [::zmq::socket new DEALER]
$dealer connect [lindex $argv 0]
fconfigure stdin -blocking 0
::qel::reactor bgerror failed
::qel::reactor event stdin readable {read stdin; if {[eof stdin]} {exit 1}}
::qel::reactor event $dealer readable [list echo $dealer [lindex $argv 1]]
$dealer send hello [lindex $argv 1]
::qel::reactor start
