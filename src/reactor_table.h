/*
 * reactor_table.h -- the handler table of a reactor: operations on its two arrays.
 *
 * A position is an index, valid until an entry before it is removed.  Look-ups cost
 * O(n): zmq_poll itself walks the table in each round.
 */
#ifndef PARVO_REACTOR_TABLE_H
#define PARVO_REACTOR_TABLE_H

#include "reactor_record.h"

/* The position of the entry of a ZeroMQ socket, or -1. */
int pv_event_find_sock(const PVReactor* r, const void* socket);

/* The position of the entry of a descriptor, or -1; sockets have none. */
int pv_event_find_chan(const PVReactor* r, int fd);

/*
 * Adds an entry without events and scripts.  socket: a ZeroMQ socket, or null; fd: a
 * descriptor, -1 with a socket.  Neither becomes the table's.  Returns its position, or
 * -1 when the table cannot grow.
 */
int pv_event_append(PVReactor* r, EntryKind kind, void* socket, int fd);

/*
 * Sets the script for event, ZMQ_POLLIN or ZMQ_POLLOUT, which the entry is polled for
 * from then on.  Stores script itself, or a duplicate when somebody else holds it too,
 * with a reference of its own.
 */
void pv_event_set_script(PVReactor* r, int position, short event, Tcl_Obj* script);

/* Releases the scripts of all events in a mask, and polls for them no more. */
void pv_event_clear(PVReactor* r, int position, int events);

/* Removes an entry that has no script; later entries move down, in their order. */
void pv_event_remove(PVReactor* r, int position);

/* Gives back the memory of a table whose entries hold no scripts. */
void pv_event_free(PVReactor* r);

#endif
