/*
 * reactor_loop.cpp -- the reactor's loop.
 *
 * Any script may add, replace and delete handlers, close sockets and channels, stop
 * the reactor or delete the interpreter.  So the table is addressed by position, read
 * anew after every script, and the pass ends at once when the reactor that it began
 * with is gone.
 */
#include "reactor_loop.h"

#include "debugging.h"
#include "poll.h"
#include "reactor.h"
#include "reactor_bgerror.h"
#include "reactor_record.h"
#include "reactor_signal.h"
#include "reactor_timer.h"
#include "reactor_timer_clock.h"
#include "tclsupport.h"
#include "utils.h"

#include <errno.h>
#include <poll.h>
#include <stdio.h>
#include <unistd.h>

namespace {

constexpr long pauseMax = 1000; // milliseconds between reports of a lasting poll error

/* What began a pass: the reactor, and the set-up that it belongs to. */
struct Pass {
    PVReactor* r;
    unsigned long generation;
};

bool pass_lives(const Pass& pass) {
    return pv_reactor_alive(pass.r, pass.generation);
}

/* Events that the entry at a position reports now; none when there is no entry. */
int revents_at(const Pass& pass, size_t i) {
    return pass_lives(pass) && i < pass.r->poll.nitems ? pass.r->poll.items[i].revents
                                                       : 0;
}

/* Evaluates a handler (null: deleted meanwhile), held while it runs. */
void evaluate(PVReactor* r, Tcl_Obj* script) {
    if (script == nullptr) {
        return;
    }
    const ObjRef held(script);
    pv_bgerror_eval(r->interp, script, TCL_EVAL_GLOBAL);
}

void pv_reactor_dispatch_pollin(PVReactor* r, int fd, Tcl_Obj* script) {
    if (pv_signal_fd(r->signal, fd)) {
        pv_signal_dispatch(r->signal);
    } else {
        evaluate(r, script);
    }
}

void pv_reactor_dispatch_pollout(PVReactor* r, Tcl_Obj* script) {
    evaluate(r, script);
}

void dispatch_readable(PVReactor* r, size_t i) {
    pv_reactor_dispatch_pollin(r, r->poll.items[i].fd, r->poll.infos[i].read);
}

void dispatch_writable(PVReactor* r, size_t i) {
    pv_reactor_dispatch_pollout(r, r->poll.infos[i].write);
}

/* An error goes to a script that would not run anyway, so that somebody sees it. */
void dispatch_error(PVReactor* r, size_t i) {
    const int rev = r->poll.items[i].revents;
    const int ev = r->poll.items[i].events;
    if ((ev & ~rev & ZMQ_POLLIN) != 0) {
        dispatch_readable(r, i);
    } else if ((ev & ~rev & ZMQ_POLLOUT) != 0) {
        dispatch_writable(r, i);
    } else {
        pv_bgerror_msg("%s: unhandled ZMQ_POLLERR for poll item %d",
                       "pv_reactor_dispatch", static_cast<int>(i) + 1);
    }
}

/*
 * Runs the entry at a position.  Each check looks at the entry that stands there then:
 * one that moved in is seen with the remaining checks, and again in the next pass.
 */
void dispatch_entry(const Pass& pass, size_t i) {
    if ((revents_at(pass, i) & ZMQ_POLLERR) != 0) {
        dispatch_error(pass.r, i);
    }
    if ((revents_at(pass, i) & ZMQ_POLLIN) != 0) {
        dispatch_readable(pass.r, i);
    }
    if ((revents_at(pass, i) & ZMQ_POLLOUT) != 0) {
        dispatch_writable(pass.r, i);
    }
}

/* The next position from i on whose entry reports events, or the number of entries. */
size_t next_ready(const PVReactor* r, size_t i) {
    while (i < r->poll.nitems && r->poll.items[i].revents == 0) {
        i++;
    }
    return i;
}

void pv_reactor_dispatch(const Pass& pass) {
    for (size_t i = 0; pass_lives(pass); i++) {
        i = next_ready(pass.r, i);
        if (i >= pass.r->poll.nitems) {
            return;
        }
        pv_event_refresh(pass.r, i);
        dispatch_entry(pass, i);
    }
}

void pv_reactor_poll_error(int error) {
    char now[128];
    const char* what = "some poll error";
    if (error == EFAULT) {
        what = "one of the poll itemsis not valid";
    } else if (error == ETERM) {
        what = "one of the poll itemsis a zmq socket whose ctx was terminated";
    } else if (error == EINTR) {
        what = "poll was interruptedby a signal";
    }
    timestamp(now, sizeof now);
    fprintf(stderr, "%s:-:reactor:error:[%d]:-: %s: %s\n", now, getpid(), what,
            zmq_strerror(error));
}

/* Between failed polls nothing but timers runs, a little longer each time. */
struct Backoff {
    long pause = 0;          // milliseconds of the last pause, 0 after a success
    Tcl_Time until = {0, 0}; // its end
};

void backoff_grow(Backoff* backoff) {
    Tcl_Time now;
    backoff->pause = backoff->pause == 0 ? 1 : backoff->pause * 2;
    if (backoff->pause > pauseMax) {
        backoff->pause = pauseMax;
    }
    Tcl_GetTime(&now);
    backoff->until = pv_clock_after(now, backoff->pause);
}

/*
 * Waits for what is left of the pause, no longer than until the next due timer; false:
 * there is no pause, or it is over.
 */
bool backoff_wait(const Backoff& backoff, PVReactor* r) {
    Tcl_Time now;
    if (backoff.pause == 0) {
        return false;
    }
    Tcl_GetTime(&now);
    const long left = diff_for_timeout(now, backoff.until);
    if (left == 0 || left > backoff.pause) {
        return false; // over, or the clock was set back
    }
    const long due = pv_schedule_due(r->timer);
    poll(nullptr, 0, static_cast<int>(due >= 0 && due < left ? due : left));
    return true;
}

/* Waits for events and dispatches them. */
void poll_once(const Pass& pass, Backoff* backoff) {
    PVReactor* r = pass.r;
    const long timeout = pv_schedule_timeout(r->timer);
    const int ready =
        pv_poll_wait(r->poll.items, static_cast<int>(r->poll.nitems), timeout);
    if (ready < 0) {
        const int error = errno;
        pv_reactor_poll_error(error);
        if (error != EINTR) { // after a signal handler the next poll may well succeed
            backoff_grow(backoff);
        }
        return;
    }
    backoff->pause = 0;
    if (ready > 0 && r->running) {
        pv_reactor_dispatch(pass);
    }
}

/*
 * A loop that ran inside a handler of another one, after a stop, has polled and
 * dispatched for both: what the table reports is done with.
 */
void forget_events(PVReactor* r) {
    for (size_t i = 0; i < r->poll.nitems; i++) {
        r->poll.items[i].revents = 0;
    }
}

} // namespace

void pv_reactor_running(PVReactor* r, bool running) {
    r->running = running;
    pv_timer_running(r->timer, running);
    pv_signal_running(r->signal, running);
}

void pv_reactor_loop(PVReactor* r) {
    const InterpHold interp(r->interp);
    const Pass pass = {r, r->generation};
    Backoff backoff;
    if (debugging()) {
        log_output("pv_reactor_loop", "entering");
    }
    while (pass_lives(pass) && r->running) {
        if (!backoff_wait(backoff, r)) {
            poll_once(pass, &backoff);
        }
        if (pass_lives(pass)) {
            pv_schedule_dispatch(r->timer);
        }
    }
    if (pass_lives(pass)) {
        forget_events(r);
    }
    if (debugging()) {
        log_output("pv_reactor_loop", "exiting");
    }
}
