/*
 * reactor_signal_record.h -- the signal store's record, and what its two files call of
 * each other.
 *
 * Only the classic signals 1 to 31 are handled.  Every failure leaves its message and
 * error code in the store's interpreter.
 */
#ifndef PARVO_REACTOR_SIGNAL_RECORD_H
#define PARVO_REACTOR_SIGNAL_RECORD_H

#include "reactor_signal_catalogue.h"

#include <tcl.h>

struct PVReactor;

/*
 * One per thread, in zero-filled thread data.  A signal is trapped exactly when its
 * handler is set: it is then blocked in the thread, in the mask of the descriptor, and
 * the descriptor is open and registered with the reactor.
 */
struct PVSignal {
    bool initialized;                // set up
    Tcl_Interp* interp;              // evaluates trap commands, holds all messages
    bool running;                    // the reactor's loop runs
    PVReactor* reactor;              // where the descriptor is registered
    int fd;                          // from signalfd, -1 while none is open
    Tcl_Obj* handler[signalMax + 1]; // trap commands by number, one reference each
};

// Of reactor_signal.cpp.

/*
 * Ends the trap of a signal, if it has one, and unblocks the signal.  Returns TCL_ERROR
 * with an error ("QEL" "SIGNAL" "FD" ...) after a failure.
 */
int pv_signal_fd_remove(PVSignal* s, int sig);

// Of reactor_signal_state.cpp.

/*
 * Changes the calling thread's signal mask; how: SIG_BLOCK or SIG_UNBLOCK.  Returns
 * TCL_ERROR with an error ("QEL" "SIGNAL" "BLOCK") after a failure.
 */
int pv_signal_block_sig(PVSignal* s, int how, int sig);

/* The subcommands but trap; objv: all words of the reactor command, checked in number.
 */
int pv_signal_cmd_default(PVSignal* s, Tcl_Interp* interp, int objc,
                          Tcl_Obj* const objv[]);
int pv_signal_cmd_ignore(PVSignal* s, Tcl_Interp* interp, int objc,
                         Tcl_Obj* const objv[]);
int pv_signal_cmd_status(PVSignal* s, Tcl_Interp* interp, int objc,
                         Tcl_Obj* const objv[]);
int pv_signal_cmd_block(PVSignal* s, Tcl_Interp* interp, int objc,
                        Tcl_Obj* const objv[]);
int pv_signal_cmd_unblock(PVSignal* s, Tcl_Interp* interp, int objc,
                          Tcl_Obj* const objv[]);

#endif
