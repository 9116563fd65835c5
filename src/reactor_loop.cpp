/*
 * reactor_loop.cpp -- the reactor's loop.
 *
 * Any script may add, replace and delete handlers, close sockets and channels, stop
 * the reactor or delete the interpreter.  So the table is addressed by position, read
 * again after every script, and the pass ends at once when the reactor that it began
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

/* What began a pass: the reactor, the set-up that it belongs to and its poll. */
struct Pass {
    PVReactor* r;
    unsigned long generation;
    unsigned long polls;     // number of the poll that the pass dispatches
    const PVBgerror* errors; // the thread's store; it lives as long as the thread
};

bool pass_lives(const Pass& pass) {
    return pv_reactor_alive(pass.r, pass.generation);
}

/* Polls the table; returns what zmq_poll returns. */
int table_poll(Pass* pass, long timeout) {
    PVReactor* r = pass->r;
    pass->polls = ++r->polls;
    return pv_poll_wait(r->poll.items, r->poll.nitems, timeout);
}

/*
 * A loop that ran inside a handler, after a stop, has polled and dispatched for itself.
 * The pass goes on with what is ready now: what that loop left in the table may have
 * been dealt with, and a handler that receives once more would block.
 */
void poll_again_after_others(Pass* pass) {
    PVReactor* r = pass->r;
    if (pass->polls == r->polls || r->poll.nitems == 0 || table_poll(pass, 0) >= 0) {
        return;
    }
    for (int i = 0; i < r->poll.nitems; i++) {
        r->poll.items[i].revents = 0;
    }
}

/* Events that the entry at a position reports after a script; none without an entry. */
int revents_at(Pass* pass, int i) {
    if (!pass_lives(*pass)) {
        return 0;
    }
    poll_again_after_others(pass);
    return i < pass->r->poll.nitems ? pass->r->poll.items[i].revents : 0;
}

/* Evaluates a handler (null: deleted meanwhile), held while it runs. */
void evaluate(PVReactor* r, Tcl_Obj* script) {
    if (script == nullptr) {
        return;
    }
    const ObjRef held(script);
    pv_bgerror_eval(r->interp, script, TCL_EVAL_GLOBAL);
}

void pv_reactor_dispatch_pollin(PVReactor* r, int i) {
    if (pv_signal_fd(r->signal, r->poll.items[i].fd)) {
        pv_signal_dispatch(r->signal);
    } else {
        evaluate(r, r->poll.infos[i].read);
    }
}

void pv_reactor_dispatch_pollout(PVReactor* r, int i) {
    evaluate(r, r->poll.infos[i].write);
}

/* An error goes to a script that would not run anyway, so that somebody sees it. */
void dispatch_error(PVReactor* r, int i) {
    const int rev = r->poll.items[i].revents;
    const int ev = r->poll.items[i].events;
    if ((ev & ~rev & ZMQ_POLLIN) != 0) {
        pv_reactor_dispatch_pollin(r, i);
    } else if ((ev & ~rev & ZMQ_POLLOUT) != 0) {
        pv_reactor_dispatch_pollout(r, i);
    } else {
        pv_bgerror_msg("%s: unhandled ZMQ_POLLERR for poll item %d",
                       "pv_reactor_dispatch", i + 1);
    }
}

/*
 * Runs the entry at a position.  Each check looks at the entry that stands there then:
 * one that moved in is seen with the remaining checks, and again in the next pass.
 */
void dispatch_entry(Pass* pass, int i) {
    int rev = i < pass->r->poll.nitems ? pass->r->poll.items[i].revents : 0;
    if ((rev & ZMQ_POLLERR) != 0) {
        dispatch_error(pass->r, i);
        rev = revents_at(pass, i);
    }
    if ((rev & ZMQ_POLLIN) != 0) {
        pv_reactor_dispatch_pollin(pass->r, i);
        rev = revents_at(pass, i);
    }
    if ((rev & ZMQ_POLLOUT) != 0) {
        pv_reactor_dispatch_pollout(pass->r, i);
    }
}

/* The next position from i on whose entry reports events, or the number of entries. */
int next_ready(const PVReactor* r, int i) {
    while (i < r->poll.nitems && r->poll.items[i].revents == 0) {
        i++;
    }
    return i;
}

void pv_reactor_dispatch(Pass* pass) {
    for (int i = 0; pass_lives(*pass); i++) {
        poll_again_after_others(pass);
        i = next_ready(pass->r, i);
        if (i >= pass->r->poll.nitems) {
            return;
        }
        pv_event_refresh(pass->r, i);
        dispatch_entry(pass, i);
    }
}

/* The texts stay letter by letter, as whoever watches a log searches for them. */
void pv_reactor_poll_error(int error) {
    char now[timestampMax];
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

/*
 * How long a poll may take, in milliseconds, negative without limit: what the timers
 * allow, and no longer than the interpreter has left of a time limit.
 */
long poll_timeout(const PVReactor* r) {
    const long timeout = pv_schedule_timeout(r->timer);
    if (Tcl_LimitTypeEnabled(r->interp, TCL_LIMIT_TIME) == 0) {
        return timeout;
    }
    Tcl_Time now;
    Tcl_Time limit;
    Tcl_GetTime(&now);
    Tcl_LimitGetTime(r->interp, &limit);
    const long left = diff_for_timeout(now, limit);
    return timeout < 0 || left < timeout ? left : timeout;
}

/* Waits for events and dispatches them; tells whether there were any. */
bool poll_once(Pass* pass, Backoff* backoff) {
    const int ready = table_poll(pass, poll_timeout(pass->r));
    if (ready < 0) {
        const int error = errno;
        pv_reactor_poll_error(error);
        if (error != EINTR) { // after a signal handler the next poll may well succeed
            backoff_grow(backoff);
        }
        return false;
    }
    backoff->pause = 0;
    if (ready > 0 && pass->r->running) {
        pv_reactor_dispatch(pass);
    }
    return ready > 0;
}

/* One iteration; tells whether scripts ran, and all of them succeeded. */
bool iterate(Pass* pass, Backoff* backoff) {
    const PVBgerror* errors = pass->errors;
    const unsigned long failures = pv_bgerror_failures(errors);
    bool busy = !backoff_wait(*backoff, pass->r) && poll_once(pass, backoff);
    if (pass_lives(*pass) && pv_schedule_dispatch(pass->r->timer)) {
        busy = true;
    }
    return busy && pv_bgerror_failures(errors) == failures;
}

/*
 * Tells whether both interpreters may go on evaluating scripts, with the error in
 * caller if not.  sound: an iteration has shown it for the reactor's interpreter, which
 * costs nothing; another interpreter that called start has to be asked.
 */
bool may_evaluate(const PVReactor* r, Tcl_Interp* caller, bool sound) {
    if (!sound && !pv_interp_evaluates(r->interp)) {
        pv_interp_pass_error(caller, r->interp);
        return false;
    }
    return caller == r->interp || Tcl_InterpDeleted(caller) != 0 ||
           pv_interp_evaluates(caller);
}

} // namespace

void pv_reactor_running(PVReactor* r, bool running) {
    r->running = running;
    pv_timer_running(r->timer, running);
    pv_signal_running(r->signal, running);
}

int pv_reactor_loop(PVReactor* r, Tcl_Interp* caller) {
    const InterpHold interp(r->interp);
    const InterpHold callerHold(caller);
    Pass pass = {r, r->generation, r->polls, pv_bgerror(nullptr)};
    Backoff backoff;
    int code = TCL_OK;
    DEBUG_LINE("pv_reactor_loop", "entering");
    while (pass_lives(pass) && r->running) {
        const bool sound = iterate(&pass, &backoff);
        if (pass_lives(pass) && !may_evaluate(r, caller, sound)) {
            code = TCL_ERROR;
            if (!pass_lives(pass)) { // the callbacks of a limit are scripts
                break;
            }
            pv_reactor_running(r, false);
        }
    }
    DEBUG_LINE("pv_reactor_loop", "exiting");
    return code;
}
