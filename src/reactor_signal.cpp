/*
 * reactor_signal.cpp -- the signal store and the delivery of trapped signals.
 *
 * A trapped signal stays pending until it is read from the descriptor, one record and
 * one command at a time.  A trap command may end any trap, its own and the last one
 * included, stop the reactor or delete the interpreter: the store is looked at anew
 * after each.
 */
#include "reactor_signal.h"

#include "debugging.h"
#include "reactor.h"
#include "reactor_bgerror.h"
#include "reactor_signal_catalogue.h"
#include "reactor_signal_record.h"
#include "tclsupport.h"

#include <errno.h>
#include <sys/signalfd.h>
#include <unistd.h>
#include <zmq.h>

namespace {

Tcl_ThreadDataKey dataKey;

void signal_interp_deleted(ClientData clientData, Tcl_Interp* interp);

/*
 * At thread exit, or when the store's interpreter is gone.  Masks and dispositions
 * stay as they are: a pending signal must not meet its default action here.
 */
void pv_signal_destroy(ClientData clientData) {
    auto* s = static_cast<PVSignal*>(clientData);
    if (s == nullptr || !s->initialized) {
        return;
    }
    store_unwatch(s, s->interp, pv_signal_destroy, signal_interp_deleted);
    for (int sig = 1; sig <= signalMax; sig++) {
        set_slot(s->handler[sig], nullptr);
    }
    if (s->fd != -1) {
        close(s->fd);
        s->fd = -1;
    }
    s->running = false;
    s->interp = nullptr;
    s->initialized = false;
    if (debugging()) {
        log_output("pv_signal_destroy", "released signal data");
    }
}

/* The thread lives on, and with it perhaps the reactor that polls the descriptor. */
void signal_release(PVSignal* s) {
    if (s->initialized && s->fd != -1) {
        pv_event_unregister_fd(s->reactor, s->fd, ZMQ_POLLIN);
    }
    pv_signal_destroy(s);
}

void signal_interp_deleted(ClientData clientData, Tcl_Interp* interp) {
    auto* s = static_cast<PVSignal*>(clientData);
    if (s->interp == interp) {
        signal_release(s);
    }
}

PVSignal* pv_signal_init(Tcl_Interp* interp, PVSignal* s, void* reactor) {
    *s = PVSignal();
    s->initialized = true;
    s->interp = interp;
    s->reactor = reactor;
    s->fd = -1;
    store_watch(s, interp, pv_signal_destroy, signal_interp_deleted);
    return s;
}

/* Runs the trap command of a signal with the signal's name as its last word. */
void pv_signal_dispatch_handler(const PVSignal* s, int sig) {
    if (sig < 1 || sig > signalMax || s->handler[sig] == nullptr) {
        return;
    }
    const ObjRef command(Tcl_NewListObj(0, nullptr));
    const ObjRef name(Tcl_NewStringObj(Tcl_SignalId(sig), -1));
    if (Tcl_ListObjAppendList(nullptr, command.get(), s->handler[sig]) != TCL_OK ||
        Tcl_ListObjAppendList(nullptr, command.get(), name.get()) != TCL_OK) {
        pv_bgerror_msg("%s: failed to call signal handler for signal %s",
                       "pv_signal_dispatch_handler", signal_name(sig));
        return;
    }
    pv_bgerror_eval(s->interp, command.get(), TCL_EVAL_GLOBAL | TCL_EVAL_DIRECT);
}

/* Tells whether signals may be read: the reactor runs, and a descriptor is open. */
bool signal_active(const PVSignal* s) {
    return s->running && s->fd != -1 && Tcl_InterpDeleted(s->interp) == 0;
}

} // namespace

void* pv_signal(Tcl_Interp* interp, void* reactor) {
    auto* s = static_cast<PVSignal*>(Tcl_GetThreadData(&dataKey, sizeof(PVSignal)));
    if (s == nullptr) {
        if (interp != nullptr) {
            fail(interp, "failed to get signal thread data", "QEL", "SIGNAL", "THREAD",
                 "DATA");
        }
        return nullptr;
    }
    if (s->initialized && Tcl_InterpDeleted(s->interp) == 0) {
        return s;
    }
    if (interp == nullptr) {
        return nullptr;
    }
    signal_release(s);
    return pv_signal_init(interp, s, reactor);
}

void pv_signal_running(void* store, bool which) {
    static_cast<PVSignal*>(store)->running = which;
}

bool pv_signal_fd(const void* store, int fd) {
    const auto* s = static_cast<const PVSignal*>(store);
    return s->fd != -1 && s->fd == fd;
}

void pv_signal_dispatch(void* store) {
    const auto* s = static_cast<const PVSignal*>(store);
    while (signal_active(s)) {
        struct signalfd_siginfo info;
        const ssize_t length = read(s->fd, &info, sizeof info);
        if (length == -1) {
            const int error = errno;
            if (error != EAGAIN) {
                errno = error;
                pv_bgerror_msg("%s: error handling signals: %s %s",
                               "pv_signal_dispatch", Tcl_ErrnoId(),
                               Tcl_ErrnoMsg(error));
            }
            return;
        }
        if (length != sizeof info) {
            pv_bgerror_msg("%s: bad read from signal fd", "pv_signal_dispatch");
            return;
        }
        pv_signal_dispatch_handler(s, static_cast<int>(info.ssi_signo));
    }
}

Tcl_Obj* pv_signal_handlers(const void* store) {
    const auto* s = static_cast<const PVSignal*>(store);
    Tcl_Obj* handlers = Tcl_NewDictObj();
    for (int sig = 1; sig <= signalMax; sig++) {
        if (s->handler[sig] != nullptr) {
            Tcl_DictObjPut(s->interp, handlers, Tcl_NewStringObj(signal_name(sig), -1),
                           s->handler[sig]);
        }
    }
    return handlers;
}

int pv_signal_fd_mask(PVSignal* s, sigset_t* mask) {
    if (sigemptyset(mask) == -1) {
        return fail(s->interp, "failed to empty signal mask", "QEL", "SIGNAL", "FD",
                    "MASK");
    }
    for (int sig = 1; sig <= signalMax; sig++) {
        if (s->handler[sig] != nullptr && sigaddset(mask, sig) == -1) {
            return fail(s->interp,
                        Tcl_ObjPrintf("failed to add signal %d to mask", sig), "QEL",
                        "SIGNAL", "FD", "MASK");
        }
    }
    return TCL_OK;
}
