/*
 * reactor_timer_clock.cpp -- arithmetic on times.
 */
#include "reactor_timer_clock.h"

#include <limits.h>

namespace {

constexpr long secondMs = 1000;        // milliseconds of a second
constexpr long secondUsec = 1000000;   // microseconds of a second
constexpr long millisecondUsec = 1000; // microseconds of a millisecond

/* Seconds and microseconds in milliseconds, kept within the range of a long. */
long in_milliseconds(long sec, long usec) {
    long ms;
    if (__builtin_mul_overflow(sec, secondMs, &ms) ||
        __builtin_add_overflow(ms, usec / millisecondUsec, &ms)) {
        return sec < 0 ? LONG_MIN : LONG_MAX;
    }
    return ms;
}

} // namespace

Tcl_Time pv_clock_after(const Tcl_Time& now, long ms) {
    Tcl_Time time;
    time.sec = now.sec + ms / secondMs;
    time.usec = now.usec + (ms % secondMs) * millisecondUsec;
    if (time.usec >= secondUsec) {
        time.usec -= secondUsec;
        time.sec++;
    } else if (time.usec < 0) {
        time.usec += secondUsec;
        time.sec--;
    }
    return time;
}

long diff_for_timeout(const Tcl_Time& t1, const Tcl_Time& t2) {
    const long seconds = t2.sec - t1.sec;
    const long useconds = t2.usec - t1.usec;
    if (seconds > 0) {
        return in_milliseconds(seconds, useconds);
    }
    if (seconds == 0 && useconds > 0) {
        return useconds <= millisecondUsec ? 1 : useconds / millisecondUsec;
    }
    return 0;
}

Tcl_WideInt pv_clock_milliseconds(const Tcl_Time& time) {
    return in_milliseconds(time.sec, time.usec);
}
