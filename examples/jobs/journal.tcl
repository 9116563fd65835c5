# journal.tcl -- what queue.tcl keeps on disk: an SQLite database, written by one
# transaction for all the messages that the queue has taken in at a time.
#
# The queue changes its memory first and notes here what to write; what it says to others
# about that leaves after the transaction.  An entry names numbers only, their jobs and
# results are looked up when it is written.  When a transaction fails, the jobs that came
# with it are refused and taken out of memory; all other entries stay and are tried again.
#
# A reserve file gives back its room when the disk is full, so that the jobs accepted before
# can be finished; nothing more is accepted until it could be written again, with as much room
# left.  For this the reserve is twice what SQLite's log can hold, because emptying the log
# into the database needs the room of the log once more: a transaction takes in about
# "chunkBytes" and the log is emptied when it has "logPages" of 4096 bytes.

set journaling 0
set entries {}           ;# {procedure argument ...}: not written yet
set stalled 0            ;# a transaction has failed, the next attempt is scheduled
set reserveBytes 8000000
set chunkBytes 1000000
set logPages 500
set written 0            ;# bytes of jobs and results in the transaction
set lastSid 0
array set sid {}         ;# name of a submitter -> its number in the database
array set expected {}    ;# token of a worker that may still hold recovered jobs
array set recovered {}   ;# name of a submitter -> numbers that wait for these workers

foreach name {jobs results attempt acknowledged forget worker} {
    proc journal_$name args "if {\$::journaling} {lappend ::entries \[list write_$name {*}\$args\]}"
}

# Opens the journal and takes what it holds into memory.  SQLite's exclusive lock keeps a
# second queue out.
proc journal_open {file} {
    package require sqlite3
    sqlite3 db $file
    db cache size 40
    db eval "PRAGMA wal_autocheckpoint = $::logPages"
    db eval {PRAGMA locking_mode = EXCLUSIVE; PRAGMA auto_vacuum = INCREMENTAL}
    db eval {PRAGMA journal_mode = WAL}
    db eval "PRAGMA synchronous = [expr {$::option(-sync) ? "FULL" : "NORMAL"}]"
    # The id of a job is the number of its submitter times 2**40 and its own number.
    db eval {
        CREATE TABLE IF NOT EXISTS submitter(sid INTEGER PRIMARY KEY, name TEXT, low INTEGER);
        CREATE TABLE IF NOT EXISTS job(id INTEGER PRIMARY KEY, body BLOB);
        CREATE TABLE IF NOT EXISTS result(id INTEGER PRIMARY KEY, kind TEXT, body BLOB);
        CREATE TABLE IF NOT EXISTS attempt(id INTEGER, made INTEGER, reason TEXT);
        CREATE TABLE IF NOT EXISTS acked(sid INTEGER, top INTEGER, numbers TEXT);
        CREATE TABLE IF NOT EXISTS worker(token TEXT PRIMARY KEY);
        CREATE INDEX IF NOT EXISTS attempt_id ON attempt(id);
        CREATE INDEX IF NOT EXISTS acked_sid ON acked(sid, top);
    }
    set ::journaling 1
    set ::reserve $file-reserve
    recover
    if {[catch make_reserve reason]} {lack_room $reason}
}
proc journal_close {} {
    if {!$::journaling} return
    db close
    file delete $::reserve
}

proc recover {} {
    db eval {SELECT sid, name, low FROM submitter} {
        new_submitter $name
        array set ::sid [list $name $sid]
        array set ::low [list $name $low]
        array set ::top [list $name $low]
        set names($sid) $name
        set ::lastSid [expr {max($::lastSid, $sid)}]
    }
    db eval {SELECT sid, numbers FROM acked} {
        foreach number $numbers {
            if {$number > $::low($names($sid))} {set ::acked:$names($sid)($number) 1}
        }
    }
    db eval {SELECT id >> 40 AS sid, id & 0xffffffffff AS number, body FROM job ORDER BY id} {
        set ::job:$names($sid)($number) $body
        lappend ::recovered($names($sid)) $number
        incr ::unfinished
    }
    db eval {SELECT id >> 40 AS sid, id & 0xffffffffff AS number, kind, body FROM result} {
        set ::$kind:$names($sid)($number) $body
    }
    db eval {SELECT id >> 40 AS sid, id & 0xffffffffff AS number, made, reason FROM attempt} {
        upvar #0 tries:$names($sid) tries
        if {![info exists tries($number)]} {set tries($number) 0}
        lset tries($number) 0 [expr {[lindex $tries($number) 0] + $made}]
        lappend tries($number) $reason
    }
    foreach sid [array names names] {
        foreach array {job result dead acked} {
            set numbers [array names ::$array:$names($sid)]
            set ::top($names($sid)) [tcl::mathfunc::max $::top($names($sid)) {*}$numbers]
        }
    }
    db eval {SELECT token FROM worker} {set ::expected($token) 1}
    if {$::unfinished || [array size names]} {
        log "the journal holds $::unfinished jobs of [array size names] submitters;\
            [array size ::expected] workers may hold some of them"
    }
    ::qel::reactor after $::option(-silence) expect_nobody
    expect_no_more ""
}
proc expect_nobody {} {
    foreach token [array names ::expected] {journal_worker $token 0}
    array unset ::expected
    expect_no_more ""
}
# Recovered jobs are given out when every worker of before has said what it holds of them,
# or has had the time for it.
proc expect_no_more {token} {
    unset -nocomplain ::expected($token)
    if {[array size ::expected]} return
    foreach name [array names ::recovered] {
        if {![info exists ::low($name)]} continue
        put_first $name $::recovered($name)
    }
    array unset ::recovered
}

# Writes all entries; false when that is not possible now.
proc journal_write {} {
    if {![llength $::entries]} {
        accept_fresh
        return 1
    }
    if {[catch write_entries reason]} {
        lack_room $reason
        refuse_fresh $::refusing
        if {[catch write_entries reason]} {
            if {!$::stalled} {::qel::reactor after 500 unstall}
            set ::stalled 1
            return 0
        }
    }
    accept_fresh
    return 1
}
proc unstall {} {
    catch {db eval {PRAGMA wal_checkpoint(TRUNCATE)}}
    set ::stalled 0
    settle
}
# What is in an earlier transaction than the one that fails stays written: a job that is
# refused all the same is submitted again, and a second time is harmless.
proc write_entries {} {
    while {[llength $::entries]} {
        set ::written 0
        set done 0
        db transaction {
            foreach entry $::entries {
                {*}$entry
                incr done
                if {$::written > $::chunkBytes} break
            }
        }
        set ::entries [lrange $::entries $done end]
    }
}
proc lack_room {reason} {
    if {$::refusing eq ""} {
        set ::refusing "the journal cannot be written: $reason"
        log "no more jobs are accepted: $::refusing"
    }
    file delete $::reserve
}
proc make_reserve {} {
    set channel [open $::reserve w]
    if {[catch {
        puts -nonewline $channel [string repeat 0 [expr {2 * $::reserveBytes}]]
        chan truncate $channel $::reserveBytes
        close $channel
    } reason]} {
        catch {close $channel}
        file delete $::reserve
        error $reason
    }
}
# Looks whether there is room again, also that which finished jobs have left in the file: what
# is moved for this goes through the log.
proc journal_watch {} {
    if {!$::journaling || $::stopping || $::refusing eq "" || $::stalled} return
    catch {db eval "PRAGMA incremental_vacuum([expr {$::logPages / 2}])"}
    catch {db eval {PRAGMA wal_checkpoint(TRUNCATE)}}
    if {![catch make_reserve]} {
        set ::refusing ""
        log "jobs are accepted again"
    }
}
# At an orderly end no worker holds a job.
proc journal_leave {} {
    if {$::journaling} {catch {db eval {DELETE FROM worker}}}
}

# The entries.  Numbers that follow each other are deleted by one statement.
proc base {name} {expr {$::sid($name) << 40}}
proc delete_rows {table name numbers} {
    set base [base $name]
    set numbers [lsort -integer $numbers]
    set first [lindex $numbers 0]
    foreach number $numbers next [lrange $numbers 1 end] {
        if {$next eq "" || $next != $number + 1} {
            set from [expr {$base + $first}]
            set to [expr {$base + $number}]
            db eval "DELETE FROM $table WHERE id BETWEEN \$from AND \$to"
            set first $next
        }
    }
}
proc write_jobs {name numbers} {
    upvar #0 job:$name job
    if {![info exists ::low($name)]} return
    if {![info exists ::sid($name)]} {set ::sid($name) [incr ::lastSid]}
    set sid $::sid($name)
    db eval {INSERT OR IGNORE INTO submitter VALUES($sid, $name, 0)}
    set base [base $name]
    foreach number $numbers {
        if {![info exists job($number)]} continue
        set id [expr {$base + $number}]
        set body $job($number)
        incr ::written [string length $body]
        db eval {INSERT OR REPLACE INTO job VALUES($id, @body)}
    }
}
proc write_results {name kind numbers} {
    upvar #0 $kind:$name outcome
    if {![info exists ::low($name)]} return
    # The results take the room of their jobs.
    delete_rows job $name $numbers
    delete_rows attempt $name $numbers
    set base [base $name]
    foreach number $numbers {
        if {![info exists outcome($number)]} continue
        set id [expr {$base + $number}]
        set body $outcome($number)
        incr ::written [string length $body]
        db eval {INSERT OR REPLACE INTO result VALUES($id, $kind, @body)}
    }
}
proc write_attempt {name number made reason} {
    if {![info exists ::low($name)]} return
    set id [expr {[base $name] + $number}]
    db eval {INSERT INTO attempt VALUES($id, $made, $reason)}
}
proc write_acknowledged {name numbers} {
    if {![info exists ::low($name)]} return
    delete_rows result $name $numbers
    set sid $::sid($name)
    set low $::low($name)
    set above {}
    foreach number $numbers {if {$number > $low} {lappend above $number}}
    if {[llength $above]} {
        set top [lindex [lsort -integer $above] end]
        db eval {INSERT INTO acked VALUES($sid, $top, $above)}
    }
    db eval {
        UPDATE submitter SET low = $low WHERE sid = $sid;
        DELETE FROM acked WHERE sid = $sid AND top <= $low;
    }
}
proc write_forget {name} {
    if {![info exists ::sid($name)]} return
    set sid $::sid($name)
    set from [base $name]
    set to [expr {$from + (1 << 40) - 1}]
    db eval {
        DELETE FROM job WHERE id BETWEEN $from AND $to;
        DELETE FROM result WHERE id BETWEEN $from AND $to;
        DELETE FROM attempt WHERE id BETWEEN $from AND $to;
        DELETE FROM acked WHERE sid = $sid;
        DELETE FROM submitter WHERE sid = $sid;
    }
}
proc write_worker {token present} {
    if {$present} {
        db eval {INSERT OR REPLACE INTO worker VALUES($token)}
    } else {
        db eval {DELETE FROM worker WHERE token = $token}
    }
}
