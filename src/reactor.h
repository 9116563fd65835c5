/*
 * reactor.h -- the reactor's life and its handlers, by name and by descriptor.
 *
 * Everything belongs to one interpreter thread and is touched by it alone.
 */
#ifndef PARVO_REACTOR_H
#define PARVO_REACTOR_H

#include <tcl.h>

struct PVReactor;

/*
 * The calling thread's reactor, set up for interp on first use and again after the
 * interpreter that had set it up was deleted.  Returns null with an error left in
 * interp after a failure, and null for a null interp when there is none.
 */
PVReactor* pv_reactor(Tcl_Interp* interp);

/*
 * Tells whether the reactor is still the one of the generation that the caller
 * noted, and its interpreter still evaluates scripts.  Asked after every script.
 */
bool pv_reactor_alive(const PVReactor* r, unsigned long generation);

/*
 * Sets the result of the reactor's interpreter to the script that the socket or
 * channel name has for event, ZMQ_POLLIN or ZMQ_POLLOUT; empty when it has none.
 * Returns TCL_ERROR with an error ("ZMQ" "REACTOR" "EVENT" "CHAN" name) in that
 * interpreter when name is neither, or not open in that direction.
 */
int pv_event_get(PVReactor* r, const char* name, short event);

/*
 * Sets the script of name for event, or deletes it when the script is empty.  The
 * table stores script itself, or a duplicate when somebody else holds it too, with a
 * reference of its own.  Returns and reports as pv_event_get; the result is empty.
 * A table that zmq_poll could not count gives "ZMQ" "REACTOR" "EVENT" "FULL" name.
 */
int pv_event_set(PVReactor* r, const char* name, short event, Tcl_Obj* script);

/*
 * Handlers leave with the descriptor of their channel: a channel may be closed in one
 * direction only, closed in this interpreter while another one keeps it, or handed to
 * another thread, and none of these is announced.  Drops what has gone of the entry at
 * position, or of all; later entries may move down.
 */
void pv_event_refresh(PVReactor* r, int position);
void pv_event_refresh_all(PVReactor* r);

/*
 * A new object, without a reference, with the name of the entry at position: a
 * socket command's full name, or a channel's name.  Null for an entry that is not
 * listed under a name: a bare descriptor, or a socket whose command is being deleted.
 */
Tcl_Obj* pv_reactor_item_name(const PVReactor* r, int position);

/*
 * Enters a descriptor to be polled for event; it has no scripts.  Returns its
 * position, the one it has when it is entered already, or -1 when it could not be
 * entered.  The descriptor stays the caller's.
 */
int pv_event_register_fd(PVReactor* r, int fd, short event);

/*
 * Takes a descriptor out of the table, whatever event says, as it has no scripts;
 * nothing happens when it is not entered.
 */
void pv_event_unregister_fd(PVReactor* r, int fd, short event);

/*
 * Takes a ZeroMQ socket out of the table with both its scripts; its record forgets the
 * reactor.  Nothing happens when it has no entry or r is null.
 */
void pv_reactor_unregister_socket(PVReactor* r, void* socket);

#endif
