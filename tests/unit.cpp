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
        Tcl_Time from, to;
        long ms;
    } rows[] = {
        {{10, 0}, {10, 400}, 1},    {{10, 0}, {10, 1999}, 1},
        {{10, 0}, {10, 2000}, 2},   {{10, 999500}, {11, 0}, 1},
        {{10, 0}, {11, 500}, 1000}, {{10, 0}, {10, 0}, 0},
        {{11, 0}, {10, 999999}, 0}, {{0, 0}, {LONG_MAX / 1000 + 1, 0}, LONG_MAX},
    };
    for (const auto& [from, to, ms] : rows) {
        EXPECT_EQ(diff_for_timeout(from, to), ms) << from.usec << " to " << to.sec;
    }
}

TEST(Clock, DueTime) {
    const struct {
        long ms;
        Tcl_Time due;
    } rows[] = {
        {0, {100, 500000}},
        {1499, {101, 999000}},
        {500, {101, 0}},
        {-501, {99, 999000}},
        {LONG_MAX, {100 + LONG_MAX / 1000 + 1, 307000}},
        {LONG_MIN, {100 + LONG_MIN / 1000 - 1, 692000}},
    };
    for (const auto& [ms, due] : rows) {
        const Tcl_Time after = pv_clock_after({100, 500000}, ms);
        EXPECT_EQ(after.sec, due.sec) << ms;
        EXPECT_EQ(after.usec, due.usec) << ms;
    }
    EXPECT_EQ(pv_clock_milliseconds(pv_clock_after({100, 500000}, LONG_MAX)), LONG_MAX);
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
    const std::string first = "-- pv_bgerror_code: failed to get bgerror instance for "
                              "error code 3\n";
    EXPECT_EQ(text.find(first), 0U) << text;
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

TEST(Sockets, CommandsThatOutliveTheirThreadsSocketsAreHarmless) {
    unit_interp();
    std::string message;
    std::thread([&message] {
        static thread_local Tcl_Interp* interp = Tcl_CreateInterp();
        Parvo_Init(interp);
        Tcl_EvalEx(interp, "::qel::reactor stop", -1, TCL_EVAL_GLOBAL);
        // This runs after the sockets are closed, as it is registered before the first.
        const auto use_after_close = [](ClientData result) {
            EXPECT_EQ(Tcl_EvalEx(interp, "outliving recv", -1, TCL_EVAL_GLOBAL),
                      TCL_ERROR);
            *static_cast<std::string*>(result) = Tcl_GetStringResult(interp);
            Tcl_DeleteInterp(interp);
        };
        Tcl_CreateThreadExitHandler(use_after_close, &message);
        const char* script = "::zmq::socket create outliving PULL\n"
                             "::qel::reactor event outliving readable x";
        EXPECT_EQ(Tcl_EvalEx(interp, script, -1, TCL_EVAL_GLOBAL), TCL_OK)
            << Tcl_GetStringResult(interp);
        Tcl_FinalizeThread();
    }).join();
    EXPECT_EQ(message, "socket was closed when its thread ended");
}
