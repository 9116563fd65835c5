/*
 * reactor_signal_record.h -- the signal store and what the signal files share.
 *
 * Only the classic signals 1 to 31 are handled.  Every failure leaves its message and
 * error code in the store's interpreter.
 */
#ifndef PARVO_REACTOR_SIGNAL_RECORD_H
#define PARVO_REACTOR_SIGNAL_RECORD_H

#include <signal.h>
#include <tcl.h>

constexpr int signalMax = 31; // highest classic signal

/*
 * One per thread, in zero-filled thread data.  A signal is trapped exactly when its
 * handler is set: it is then blocked in the thread, in the mask of the descriptor, and
 * the descriptor is open and registered with the reactor.
 */
struct PVSignal {
    bool initialized;                // set up
    Tcl_Interp* interp;              // evaluates trap commands, holds all messages
    bool running;                    // the reactor's loop runs
    void* reactor;                   // where the descriptor is registered
    int fd;                          // from signalfd, -1 while none is open
    Tcl_Obj* handler[signalMax + 1]; // trap commands by number, one reference each
};

/* A signal disposition as sigaction takes it; here only SIG_DFL and SIG_IGN. */
using PVSigHandler = void (*)(int);

/*
 * Fills mask with the trapped signals.  Returns TCL_ERROR with an error ("QEL"
 * "SIGNAL" "FD" "MASK") after a failure.
 */
int pv_signal_fd_mask(PVSignal* s, sigset_t* mask);

/*
 * Change the calling thread's signal mask; how: SIG_BLOCK or SIG_UNBLOCK.  Return
 * TCL_ERROR with an error ("QEL" "SIGNAL" "BLOCK") after a failure.
 */
int pv_signal_block_mask(PVSignal* s, int how, const sigset_t* mask);
int pv_signal_block_sig(PVSignal* s, int how, int sig);

/*
 * The subcommands that have a file of their own.  objv: all words of the reactor
 * command, the subcommand at index 2.
 */
int pv_signal_cmd_status(PVSignal* s, int objc, Tcl_Obj* const objv[]);
int pv_signal_cmd_trap(PVSignal* s, int objc, Tcl_Obj* const objv[]);

#endif
