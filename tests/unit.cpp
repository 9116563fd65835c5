/*
 * unit.cpp -- what a script cannot reach: arithmetic on times at the ends of the range,
 * the stores without an interpreter, and the reports of a thread without a store.
 */
#undef USE_TCL_STUBS // the tests call libtcl itself, the library under test its stubs

#include "parvo.h"
#include "reactor.h"
#include "reactor_bgerror.h"
#include "reactor_signal.h"
#include "reactor_timer.h"
#include "reactor_timer_clock.h"
#include "socket.h"

#include <gtest/gtest.h>
#include <limits.h>
#include <string>
#include <thread>

namespace {

Tcl_Time at(long sec, long usec) {
    Tcl_Time time;
    time.sec = sec;
    time.usec = usec;
    return time;
}

/* An interpreter with the package, for tests that need the stubs. */
Tcl_Interp* unit_interp() {
    static Tcl_Interp* interp = [] {
        Tcl_FindExecutable(nullptr);
        Tcl_Interp* fresh = Tcl_CreateInterp();
        EXPECT_EQ(Parvo_Init(fresh), TCL_OK) << Tcl_GetStringResult(fresh);
        return fresh;
    }();
    return interp;
}

} // namespace

TEST(Clock, DifferenceForTimeout) {
    const struct {
        Tcl_Time from;
        Tcl_Time to;
        long ms;
    } rows[] = {
        {at(10, 0), at(10, 400), 1},
        {at(10, 0), at(10, 1999), 1},
        {at(10, 0), at(10, 2000), 2},
        {at(10, 999500), at(11, 0), 1},
        {at(10, 0), at(11, 500), 1000},
        {at(10, 0), at(10, 0), 0},
        {at(11, 0), at(10, 999999), 0},
        {at(0, 0), at(LONG_MAX / 1000 + 1, 0), LONG_MAX},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(diff_for_timeout(row.from, row.to), row.ms)
            << row.from.sec << "." << row.from.usec << " to " << row.to.sec;
    }
}

TEST(Clock, DueTime) {
    const struct {
        long ms;
        Tcl_Time due;
    } rows[] = {
        {0, at(100, 500000)},
        {499, at(100, 999000)},
        {500, at(101, 0)},
        {1499, at(101, 999000)},
        {-1, at(100, 499000)},
        {-501, at(99, 999000)},
        {-1500, at(99, 0)},
        {LONG_MAX, at(100 + LONG_MAX / 1000 + 1, 307000)},
        {LONG_MIN, at(100 + LONG_MIN / 1000 - 1, 692000)},
    };
    for (const auto& row : rows) {
        const Tcl_Time due = pv_clock_after(at(100, 500000), row.ms);
        EXPECT_EQ(due.sec, row.due.sec) << row.ms;
        EXPECT_EQ(due.usec, row.due.usec) << row.ms;
    }
    EXPECT_EQ(pv_clock_milliseconds(pv_clock_after(at(100, 500000), LONG_MAX)),
              LONG_MAX);
}

TEST(Stores, NothingIsSetUpWithoutAnInterpreter) {
    unit_interp();
    EXPECT_EQ(Parvo_Init(nullptr), TCL_ERROR);
    pv_socket_register_with_reactor(nullptr, nullptr);
    pv_socket_unregister_from_reactor(nullptr);
    EXPECT_EQ(pv_reactor(nullptr), nullptr);
    EXPECT_EQ(pv_signal(nullptr, nullptr), nullptr);
    EXPECT_EQ(pv_timer(nullptr), nullptr);
    EXPECT_EQ(pv_bgerror(nullptr), nullptr);
}

TEST(Stores, ReportsWithoutAStoreGoToStandardError) {
    unit_interp();
    testing::internal::CaptureStderr();
    pv_bgerror_code(TCL_BREAK);
    pv_bgerror_msg("%s: %d%%", "percent", 5);
    const std::string text = testing::internal::GetCapturedStderr();
    EXPECT_EQ(text.find("-- pv_bgerror_code: failed to get bgerror instance for error "
                        "code 3\n"),
              0U)
        << text;
    EXPECT_NE(text.find("]:-:bgerror: percent: 5%"), std::string::npos) << text;
    EXPECT_NE(text.back(), '\n');
}

TEST(Stores, OneSignalStoreAThread) {
    Tcl_Interp* interp = unit_interp();
    PVReactor* reactor = pv_reactor(interp);
    ASSERT_NE(reactor, nullptr);
    PVSignal* store = pv_signal(nullptr, nullptr);
    EXPECT_EQ(pv_signal(interp, nullptr), store);
    EXPECT_FALSE(pv_signal_fd(store, -1));
    EXPECT_FALSE(pv_signal_fd(store, 0));
    pv_reactor_unregister_socket(nullptr, store);
    pv_event_unregister_fd(reactor, 12345, 1);
    const int first = pv_event_register_fd(reactor, 12345, 1);
    EXPECT_EQ(pv_event_register_fd(reactor, 12345, 1), first);
    pv_event_unregister_fd(reactor, 12345, 2);
    EXPECT_EQ(pv_event_register_fd(reactor, 12346, 1), first);
    pv_event_unregister_fd(reactor, 12346, 1);
}

namespace {

struct Outliving {
    Tcl_Interp* interp = nullptr;
    int code = TCL_OK;
    std::string message;
};

/* Runs after the thread's sockets are closed, as it was registered before the first. */
void use_after_close(ClientData clientData) {
    auto* o = static_cast<Outliving*>(clientData);
    o->code = Tcl_EvalEx(o->interp, "outliving recv", -1, TCL_EVAL_GLOBAL);
    o->message = Tcl_GetStringResult(o->interp);
    Tcl_DeleteInterp(o->interp);
}

} // namespace

TEST(Sockets, CommandsThatOutliveTheirThreadsSocketsAreHarmless) {
    unit_interp();
    Outliving o;
    std::thread([&o] {
        o.interp = Tcl_CreateInterp();
        Parvo_Init(o.interp);
        Tcl_EvalEx(o.interp, "::qel::reactor stop", -1, TCL_EVAL_GLOBAL);
        Tcl_CreateThreadExitHandler(use_after_close, &o);
        EXPECT_EQ(Tcl_EvalEx(o.interp,
                             "::zmq::socket create outliving PULL\n"
                             "::qel::reactor event outliving readable x",
                             -1, TCL_EVAL_GLOBAL),
                  TCL_OK)
            << Tcl_GetStringResult(o.interp);
        Tcl_FinalizeThread();
    }).join();
    EXPECT_EQ(o.code, TCL_ERROR);
    EXPECT_EQ(o.message, "socket was closed when its thread ended");
}
