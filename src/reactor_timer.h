/*
 * reactor_timer.h -- the timers of a thread's reactor.
 */
#ifndef PARVO_REACTOR_TIMER_H
#define PARVO_REACTOR_TIMER_H

#include <tcl.h>

struct PVTimer;

/*
 * The calling thread's timer store, set up for interp when there is none.  Returns null
 * with an error ("QEL" "TIMER" "THREAD" "DATA") left in interp after a failure, and
 * null for a null interp when there is none.
 */
PVTimer* pv_timer(Tcl_Interp* interp);

/* Ends the calling thread's store, when its interpreter or the thread ends. */
void pv_timer_destroy();

/* The reactor starts (true) or stops; timers only run while it is true. */
void pv_timer_running(PVTimer* s, bool running);

/*
 * How long zmq_poll may wait, in milliseconds: until the first task is due, no longer
 * than the timeout setting (but 1 for a task due within a millisecond); negative
 * without limit; 0 while the store does not run.
 */
long pv_schedule_timeout(const PVTimer* s);

/* Milliseconds until the first task is due; negative when none is scheduled. */
long pv_schedule_due(const PVTimer* s);

/*
 * Runs the tasks that are due and were scheduled before this call, in due order.  A
 * task scheduled meanwhile ends the pass where it stands first: those behind it wait
 * for the next one.  The caller holds the interpreter; scripts may do anything, and
 * their failures go to the background-error handler.  Tells whether a task ran.
 */
bool pv_schedule_dispatch(PVTimer* s);

/*
 * The subcommands timeout, with 2 or 3 words, and after, with 3 or more; objv: all
 * words of the reactor command.
 */
int pv_cmd_timeout(PVTimer* s, Tcl_Interp* interp, int objc, Tcl_Obj* const objv[]);
int pv_cmd_after(PVTimer* s, Tcl_Interp* interp, int objc, Tcl_Obj* const objv[]);

#endif
