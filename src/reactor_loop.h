/*
 * reactor_loop.h -- the reactor's loop.
 */
#ifndef PARVO_REACTOR_LOOP_H
#define PARVO_REACTOR_LOOP_H

#include <tcl.h>

struct PVReactor;

/*
 * Sets the running state of the reactor, its timers and its signals, in this order.
 * The loop notices a cleared state; a script that runs is not interrupted.
 */
void pv_reactor_running(PVReactor* r, bool running);

/*
 * Waits for and dispatches events, signals and timers until the running state, which
 * the caller has set, is cleared or the reactor's interpreter is deleted.  Reports
 * failures of scripts and of its own, and never ends because of them: TCL_OK.
 * TCL_ERROR: the reactor's interpreter, or the one that called start, may no longer
 * evaluate scripts (interp cancel -unwind, interp limit); the running state is cleared
 * and that very error left in caller.
 */
int pv_reactor_loop(PVReactor* r, Tcl_Interp* caller);

#endif
