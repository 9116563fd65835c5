/*
 * reactor_timer.h -- the timers of a thread's reactor.
 */
#ifndef PARVO_REACTOR_TIMER_H
#define PARVO_REACTOR_TIMER_H

#include <tcl.h>

/*
 * The calling thread's timer store, set up for interp on first use and again after
 * the interpreter that had set it up was deleted.  Returns null with an error
 * ("QEL" "TIMER" "THREAD" "DATA") left in interp after a failure, and null for a null
 * interp when there is none.
 */
void* pv_timer(Tcl_Interp* interp);

/* The reactor starts (true) or stops; timers only run while it is true. */
void pv_timer_running(void* store, bool running);

/*
 * How long zmq_poll may wait, in milliseconds: until the first task is due, no longer
 * than the timeout setting; negative without limit; 0 while the store does not run.
 */
long pv_schedule_timeout(void* store);

/* Milliseconds until the first task is due; negative when none is scheduled. */
long pv_schedule_due(void* store);

/*
 * Runs the tasks that are due and were scheduled before this call, in due order.
 * Scripts may do anything; their failures go to the background-error handler.
 */
void pv_schedule_dispatch(void* store);

/* The subcommands timeout and after; client data: the store. */
int pv_cmd_timeout(ClientData store, Tcl_Interp* interp, int objc,
                   Tcl_Obj* const objv[]);
int pv_cmd_after(ClientData store, Tcl_Interp* interp, int objc, Tcl_Obj* const objv[]);

#endif
