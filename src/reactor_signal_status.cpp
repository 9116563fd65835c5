/*
 * reactor_signal_status.cpp -- the subcommand signal status.
 *
 * It changes nothing: dispositions, mask and pending signals are read from the
 * system, traps from the store.
 */
#include "reactor_signal_catalogue.h"
#include "reactor_signal_record.h"
#include "tclsupport.h"

namespace {

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

int pv_signal_status_blocked(PVSignal* s, int sig, const sigset_t* set,
                             Tcl_Obj* record) {
    return status_flag(s, sig, set, record, "blocked?", "blocked", "BLOCKED");
}

int pv_signal_status_pending(PVSignal* s, int sig, const sigset_t* set,
                             Tcl_Obj* record) {
    return status_flag(s, sig, set, record, "pending?", "pending", "PENDING");
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
        pv_signal_status_blocked(s, sig, blocked, record.get()) != TCL_OK ||
        pv_signal_status_pending(s, sig, pending, record.get()) != TCL_OK) {
        return TCL_ERROR;
    }
    record_put(result, signal_name(sig), record.get());
    return TCL_OK;
}

} // namespace

/* ::qel::reactor signal status ?signals? */
int pv_signal_cmd_status(PVSignal* s, int objc, Tcl_Obj* const objv[]) {
    sigset_t selected;
    sigset_t blocked;
    sigset_t pending;
    if (objc > 4) {
        Tcl_WrongNumArgs(s->interp, 3, objv, "?signals?");
        return TCL_ERROR;
    }
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
