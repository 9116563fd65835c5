/*
 * poll.h -- the one-shot command ::zmq::poll.
 */
#ifndef PARVO_POLL_H
#define PARVO_POLL_H

#include <tcl.h>
#include <zmq.h>

/* Command procedure of ::zmq::poll; no client data. */
int ParvoPollCmd(ClientData unused, Tcl_Interp* interp, int objc,
                 Tcl_Obj* const objv[]);

/*
 * Waits in zmq_poll until one of nitems items is ready or timeout milliseconds are
 * over; negative: without limit.  Returns what zmq_poll returns, -1 with errno set
 * after a failure: EINVAL with more items than RLIMIT_NOFILE.  Without items it waits
 * as long as asked for, which zmq_poll alone does not.
 */
int pv_poll_wait(zmq_pollitem_t* items, int nitems, long timeout);

#endif
