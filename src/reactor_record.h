/*
 * reactor_record.h -- the reactor's record, for the reactor's own files: its table, its
 * handlers, its command and its loop.  Everybody else takes it as opaque.
 */
#ifndef PARVO_REACTOR_RECORD_H
#define PARVO_REACTOR_RECORD_H

#include <tcl.h>
#include <zmq.h>

struct PVSignal;
struct PVSockData;
struct PVTimer;

/* What an entry of the handler table is polled for. */
enum class EntryKind {
    none,       // a free slot
    socket,     // a ZeroMQ socket with scripts
    channel,    // a descriptor of a Tcl channel with scripts
    descriptor, // a bare descriptor without scripts: that of the signals
};

/* What belongs to one entry of the handler table. */
struct PVPollInfo {
    EntryKind kind;
    PVSockData* socket;  // socket: its record; others: null
    Tcl_Channel channel; // channel: while Tcl has it; others: null
    Tcl_Obj* name;       // channel: its name, one reference; others: null
    Tcl_Obj* read;       // script for readable, one reference, or null
    Tcl_Obj* write;      // script for writable, one reference, or null
};

/*
 * The handler table: two parallel arrays.  Entries 0 to nitems - 1 are live, in the
 * order in which they were added; the slots behind them are free.  Counts are ints, as
 * zmq_poll takes them.
 */
struct PVPoll {
    int size;              // capacity of both arrays, only grows
    int nitems;            // live entries
    zmq_pollitem_t* items; // as zmq_poll reads them; fd -1 for sockets
    PVPollInfo* infos;     // same index
};

/* One per thread, in zero-filled thread data. */
struct PVReactor {
    bool initialized;         // set up
    Tcl_Interp* interp;       // evaluates all scripts; set it up, or is about to
    bool running;             // the loop runs
    PVTimer* timer;           // the thread's timer store
    PVSignal* signal;         // the thread's signal store
    PVPoll poll;              // the handler table
    unsigned long generation; // set-ups ended so far; survives them
    unsigned long polls;      // polls of the table so far, nested loops included
};

#endif
