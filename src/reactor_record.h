/*
 * reactor_record.h -- the reactor's record, for the reactor's own files: its table
 * (reactor.cpp), its command and its loop.  Everybody else takes it as opaque.
 */
#ifndef PARVO_REACTOR_RECORD_H
#define PARVO_REACTOR_RECORD_H

#include <stddef.h>
#include <tcl.h>
#include <zmq.h>

/* What belongs to one entry of the handler table. */
struct PVPollInfo {
    void* data;     // socket: PVSockData; channel: Tcl_Channel; descriptor: null
    Tcl_Obj* name;  // channel: its name, one reference; others: null
    Tcl_Obj* read;  // script for readable, one reference, or null
    Tcl_Obj* write; // script for writable, one reference, or null
};

/*
 * The handler table: two parallel arrays.  Entries 0 to nitems - 1 are live, in the
 * order in which they were added; the slots behind them are free.
 */
struct PVPoll {
    size_t size;           // capacity of both arrays, only grows
    size_t nitems;         // live entries
    zmq_pollitem_t* items; // as zmq_poll reads them; fd -1 for sockets
    PVPollInfo* infos;     // same index
};

/* One per thread, in zero-filled thread data. */
struct PVReactor {
    bool initialized;         // set up
    Tcl_Interp* interp;       // evaluates all scripts; set it up
    bool running;             // the loop runs
    void* timer;              // the thread's timer store
    void* signal;             // the thread's signal store
    PVPoll poll;              // the handler table
    unsigned long generation; // set-ups ended so far; survives them
};

#endif
