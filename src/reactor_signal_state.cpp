/*
 * reactor_signal_state.cpp -- dispositions, blocking and the status of signals.
 *
 * Dispositions belong to the process, masks to the calling thread.  The status changes
 * nothing: dispositions, mask and pending signals are read from the system, traps from
 * the store.
 */
#include "reactor_signal_record.h"
#include "tclsupport.h"

#include <errno.h>

namespace {

/* A signal disposition as sigaction takes it; here only SIG_DFL and SIG_IGN. */
using PVSigHandler = void (*)(int);

// Dispositions.

/* Names of a set's members, ascending, as interp's result. */
int pv_signal_state_report(Tcl_Interp* interp, const sigset_t* set) {
    const ObjRef names(Tcl_NewListObj(0, nullptr));
    for (int sig = 1; sig <= signalMax; sig++) {
        const int member = sigismember(set, sig);
        if (member == -1) {
            return fail(interp, "failed to build result list", "QEL", "SIGNAL", "STATE",
                        "GET");
        }
        if (member == 1 && Tcl_ListObjAppendElement(
                               interp, names.get(),
                               Tcl_NewStringObj(signal_name(sig), -1)) != TCL_OK) {
            return TCL_ERROR;
        }
    }
    Tcl_SetObjResult(interp, names.get());
    return TCL_OK;
}

/* The signals whose disposition is action, ascending, as interp's result. */
int pv_signal_state_get(Tcl_Interp* interp, PVSigHandler action) {
    sigset_t set;
    struct sigaction current;
    if (sigemptyset(&set) == -1) {
        return fail(interp, "failed to empty sigset", "QEL", "SIGNAL", "STATE", "GET");
    }
    for (int sig = 1; sig <= signalMax; sig++) {
        if (sigaction(sig, nullptr, &current) == -1) {
            return fail(interp, Tcl_ObjPrintf("failed to query signal %d", sig), "QEL",
                        "SIGNAL", "STATE", "GET");
        }
        if (current.sa_handler == action && sigaddset(&set, sig) == -1) {
            return fail(interp, Tcl_ObjPrintf("failed to add signal %d", sig), "QEL",
                        "SIGNAL", "STATE", "GET");
        }
    }
    return pv_signal_state_report(interp, &set);
}

/* Installs SIG_DFL or SIG_IGN for a signal. */
int pv_signal_action(PVSignal* s, int sig, PVSigHandler handler) {
    struct sigaction action = {};
    action.sa_handler = handler;
    if (sigaction(sig, &action, nullptr) == 0) {
        return TCL_OK;
    }
    return fail(s->interp,
                Tcl_ObjPrintf("failed to set handler for signal %d: %s", sig,
                              Tcl_ErrnoMsg(errno)),
                "QEL", "SIGNAL", "DEFAULT", "SET");
}

/* Lists the signals with a disposition, or gives it to one, whose trap ends. */
int disposition(PVSignal* s, int objc, Tcl_Obj* const objv[], PVSigHandler handler) {
    if (objc == 3) {
        return pv_signal_state_get(s->interp, handler);
    }
    const int sig = signal_parse(s->interp, objv[3]);
    if (sig == -1 || pv_signal_action(s, sig, handler) != TCL_OK) {
        return TCL_ERROR;
    }
    return pv_signal_fd_remove(s, sig);
}

// Blocking.

/* Changes the calling thread's mask; how: SIG_BLOCK or SIG_UNBLOCK. */
int pv_signal_block_mask(PVSignal* s, int how, const sigset_t* mask) {
    const int error = pthread_sigmask(how, mask, nullptr);
    if (error == 0) {
        return TCL_OK;
    }
    return fail(s->interp,
                Tcl_ObjPrintf("failed to set signal mask: %s", Tcl_ErrnoMsg(error)),
                "QEL", "SIGNAL", "BLOCK");
}

/* Refuses to unblock trapped signals: their dispositions would act instead of the
 * traps. */
int pv_signal_unblock_trap_check(PVSignal* s, const sigset_t* mask) {
    for (int sig = 1; sig <= signalMax; sig++) {
        const int member = sigismember(mask, sig);
        if (member == -1) {
            return fail(s->interp,
                        Tcl_ObjPrintf("failed to check signal %d against mask", sig),
                        "QEL", "SIGNAL", "TRAPPED");
        }
        if (member == 1 && s->handler[sig] != nullptr) {
            return fail(
                s->interp,
                Tcl_ObjPrintf("can't unblock trapped signal %s", signal_name(sig)),
                "QEL", "SIGNAL", "TRAPPED");
        }
    }
    return TCL_OK;
}

/* What block and unblock share; how: SIG_BLOCK or SIG_UNBLOCK. */
int change_mask(PVSignal* s, Tcl_Obj* signals, int how) {
    sigset_t mask;
    if (sigemptyset(&mask) == -1) {
        return fail(s->interp, "failed to empty signal set", "QEL", "SIGNAL",
                    how == SIG_UNBLOCK ? "UNBLOCK" : "BLOCK");
    }
    if (signal_parse_list(s->interp, signals, &mask) != TCL_OK) {
        return TCL_ERROR;
    }
    if (how == SIG_UNBLOCK && pv_signal_unblock_trap_check(s, &mask) != TCL_OK) {
        return TCL_ERROR;
    }
    return pv_signal_block_mask(s, how, &mask);
}

// Status.

/* message: a C string, or a fresh object. */
template <typename Message> int fail_status(PVSignal* s, Message message) {
    return fail(s->interp, message, "QEL", "SIGNAL", "STATUS");
}

void record_put(Tcl_Obj* record, const char* key, Tcl_Obj* value) {
    Tcl_DictObjPut(nullptr, record, Tcl_NewStringObj(key, -1), value);
}

/* Puts "action", "handler" and "restart?". */
int pv_signal_status_action(PVSignal* s, int sig, Tcl_Obj* record) {
    struct sigaction current;
    const char* action = "trap";
    const char* handler = "UNKNOWN";
    if (sigaction(sig, nullptr, &current) == -1) {
        return fail(s->interp,
                    Tcl_ObjPrintf("failed to query action for signal %d", sig), "QEL",
                    "SIGNAL", "STATE");
    }
    if (current.sa_handler == SIG_DFL) {
        action = "default";
        handler = "";
    } else if (current.sa_handler == SIG_IGN) {
        action = "ignore";
        handler = "";
    }
    const bool trapped = s->handler[sig] != nullptr;
    record_put(record, "action", Tcl_NewStringObj(trapped ? "trap" : action, -1));
    record_put(record, "handler",
               trapped ? s->handler[sig] : Tcl_NewStringObj(handler, -1));
    record_put(record, "restart?",
               Tcl_NewIntObj((current.sa_flags & SA_RESTART) != 0 ? 1 : 0));
    return TCL_OK;
}

/* Puts one flag: the signal's membership in a set. */
int status_flag(PVSignal* s, int sig, const sigset_t* set, Tcl_Obj* record,
                const char* key, const char* what, const char* word) {
    const int member = sigismember(set, sig);
    if (member == -1) {
        return fail(s->interp,
                    Tcl_ObjPrintf("failed to query %s status for signal %d", what, sig),
                    "QEL", "SIGNAL", "STATUS", word);
    }
    record_put(record, key, Tcl_NewIntObj(member));
    return TCL_OK;
}

/* Fills selected with all signals, or with those of a list. */
int status_select(PVSignal* s, Tcl_Obj* list, sigset_t* selected) {
    if (sigemptyset(selected) == -1) {
        return fail_status(s, "failed to empty sigset");
    }
    if (list != nullptr) {
        return signal_parse_list(s->interp, list, selected);
    }
    return sigfillset(selected) == 0 ? TCL_OK : fail_status(s, "failed to fill sigset");
}

/* Adds the record of a signal to the result if it is selected. */
int status_add(PVSignal* s, int sig, const sigset_t* selected, const sigset_t* blocked,
               const sigset_t* pending, Tcl_Obj* result) {
    const int member = sigismember(selected, sig);
    if (member == -1) {
        return fail_status(
            s, Tcl_ObjPrintf("failed to check signal %s", signal_name(sig)));
    }
    if (member == 0) {
        return TCL_OK;
    }
    const ObjRef record(Tcl_NewDictObj());
    if (pv_signal_status_action(s, sig, record.get()) != TCL_OK ||
        status_flag(s, sig, blocked, record.get(), "blocked?", "blocked", "BLOCKED") !=
            TCL_OK ||
        status_flag(s, sig, pending, record.get(), "pending?", "pending", "PENDING") !=
            TCL_OK) {
        return TCL_ERROR;
    }
    record_put(result, signal_name(sig), record.get());
    return TCL_OK;
}

} // namespace

int pv_signal_block_sig(PVSignal* s, int how, int sig) {
    sigset_t mask;
    if (sigemptyset(&mask) == -1) {
        return fail(s->interp, "failed to empty sigset", "QEL", "SIGNAL", "BLOCK");
    }
    if (sigaddset(&mask, sig) == -1) {
        return fail(s->interp, Tcl_ObjPrintf("failed to add signal %d to mask", sig),
                    "QEL", "SIGNAL", "BLOCK");
    }
    return pv_signal_block_mask(s, how, &mask);
}

/* ::qel::reactor signal default ?signal? */
int pv_signal_cmd_default(PVSignal* s, Tcl_Interp* /*interp*/, int objc,
                          Tcl_Obj* const objv[]) {
    return disposition(s, objc, objv, SIG_DFL);
}

/* ::qel::reactor signal ignore ?signal? */
int pv_signal_cmd_ignore(PVSignal* s, Tcl_Interp* /*interp*/, int objc,
                         Tcl_Obj* const objv[]) {
    return disposition(s, objc, objv, SIG_IGN);
}

/* ::qel::reactor signal block signals */
int pv_signal_cmd_block(PVSignal* s, Tcl_Interp* /*interp*/, int /*objc*/,
                        Tcl_Obj* const objv[]) {
    return change_mask(s, objv[3], SIG_BLOCK);
}

/* ::qel::reactor signal unblock signals */
int pv_signal_cmd_unblock(PVSignal* s, Tcl_Interp* /*interp*/, int /*objc*/,
                          Tcl_Obj* const objv[]) {
    return change_mask(s, objv[3], SIG_UNBLOCK);
}

/* ::qel::reactor signal status ?signals? */
int pv_signal_cmd_status(PVSignal* s, Tcl_Interp* /*interp*/, int objc,
                         Tcl_Obj* const objv[]) {
    sigset_t selected;
    sigset_t blocked;
    sigset_t pending;
    if (status_select(s, objc == 4 ? objv[3] : nullptr, &selected) != TCL_OK) {
        return TCL_ERROR;
    }
    if (pthread_sigmask(SIG_BLOCK, nullptr, &blocked) != 0) {
        return fail_status(s, "failed to query signal mask");
    }
    if (sigpending(&pending) == -1) {
        return fail_status(s, "failed to query pending signals");
    }
    const ObjRef result(Tcl_NewDictObj());
    for (int sig = 1; sig <= signalMax; sig++) {
        if (status_add(s, sig, &selected, &blocked, &pending, result.get()) != TCL_OK) {
            return TCL_ERROR;
        }
    }
    Tcl_SetObjResult(s->interp, result.get());
    return TCL_OK;
}
