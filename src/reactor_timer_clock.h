/*
 * reactor_timer_clock.h -- arithmetic on times, as the timers use it.  Pure functions.
 */
#ifndef PARVO_REACTOR_TIMER_CLOCK_H
#define PARVO_REACTOR_TIMER_CLOCK_H

#include <tcl.h>

/* Tells whether a is strictly earlier than b. */
inline bool pv_clock_earlier(const Tcl_Time& a, const Tcl_Time& b) {
    return a.sec < b.sec || (a.sec == b.sec && a.usec < b.usec);
}

/*
 * The time ms milliseconds after now, negative ones before it, with 0 to 999999
 * microseconds.  No value of ms overflows.
 */
Tcl_Time pv_clock_after(const Tcl_Time& now, long ms);

/*
 * Milliseconds from t1 to t2 for a poll time-out: 0 when t2 is not later, at least 1
 * within the same second, otherwise each second's part truncated by itself; LONG_MAX
 * when a long holds no more.
 */
long diff_for_timeout(const Tcl_Time& t1, const Tcl_Time& t2);

/* A time in whole milliseconds, at the ends of the range the nearest that fits. */
Tcl_WideInt pv_clock_milliseconds(const Tcl_Time& time);

#endif
