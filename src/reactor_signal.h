/*
 * reactor_signal.h -- the signal store of a thread's reactor, as the reactor uses it.
 */
#ifndef PARVO_REACTOR_SIGNAL_H
#define PARVO_REACTOR_SIGNAL_H

#include <tcl.h>

struct PVReactor;
struct PVSignal;

/*
 * The calling thread's signal store, set up for interp and reactor when there is none.
 * Returns null with an error ("QEL" "SIGNAL" "THREAD" "DATA") left in interp after a
 * failure, and null for a null interp when there is none.
 */
PVSignal* pv_signal(Tcl_Interp* interp, PVReactor* reactor);

/*
 * Ends the calling thread's store, when its interpreter or the thread ends, and closes
 * the descriptor, which the reactor no longer polls.  Masks and dispositions stay as
 * they are: a pending signal must not meet its default action here.
 */
void pv_signal_destroy();

/* The reactor starts (true) or stops; signals are only read while it is true. */
void pv_signal_running(PVSignal* s, bool which);

/* Tells whether fd is the store's open descriptor. */
bool pv_signal_fd(const PVSignal* s, int fd);

/*
 * Reads the queued signals and runs their trap commands, until none is left, the
 * reactor stops or the last trap ends.  Failures go to the background-error handler.
 * The descriptor must be open on entry, and the caller holds the interpreter.
 */
void pv_signal_dispatch(PVSignal* s);

/*
 * A new dictionary, without a reference: signal name to trap command, ascending.
 */
Tcl_Obj* pv_signal_handlers(const PVSignal* s);

/*
 * The subcommand signal, with 3 words or more; objv: all words of the reactor command.
 * A message about word 2 is left in interp, everything else in the store's interpreter.
 */
int pv_cmd_signal(PVSignal* s, Tcl_Interp* interp, int objc, Tcl_Obj* const objv[]);

#endif
