/*
 * reactor_signal.h -- the signal store of a thread's reactor, as the reactor uses it.
 */
#ifndef PARVO_REACTOR_SIGNAL_H
#define PARVO_REACTOR_SIGNAL_H

#include <tcl.h>

/*
 * The calling thread's signal store, set up for interp and reactor on first use and
 * again after the interpreter that had set it up was deleted.  Returns null with an
 * error ("QEL" "SIGNAL" "THREAD" "DATA") left in interp after a failure, and null for
 * a null interp when there is none.
 */
void* pv_signal(Tcl_Interp* interp, void* reactor);

/* The reactor starts (true) or stops; signals are only read while it is true. */
void pv_signal_running(void* store, bool which);

/* Tells whether fd is the store's open descriptor. */
bool pv_signal_fd(const void* store, int fd);

/*
 * Reads the queued signals and runs their trap commands, until none is left, the
 * reactor stops or the last trap ends.  Failures go to the background-error handler.
 * The descriptor must be open on entry, and the caller holds the interpreter.
 */
void pv_signal_dispatch(void* store);

/*
 * A new dictionary, without a reference: signal name to trap command, ascending.
 */
Tcl_Obj* pv_signal_handlers(const void* store);

/*
 * The subcommand signal; client data: the store.  objv: all words of the reactor
 * command.  Messages about words 1 and 2 are left in interp, everything else in the
 * store's interpreter.
 */
int pv_cmd_signal(ClientData store, Tcl_Interp* interp, int objc,
                  Tcl_Obj* const objv[]);

#endif
