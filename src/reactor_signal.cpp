/*
 * reactor_signal.cpp -- the signal store, its traps, their descriptor and the delivery.
 *
 * Setting a trap blocks the signal, adds it to the descriptor's mask, opening the
 * descriptor for the first one, and registers the descriptor with the reactor; the
 * command is stored last.  Ending one goes the other way: the mask shrinks first, then
 * the command goes, then, with the last trap, the descriptor, and the signal is
 * unblocked last of all.  Whatever was done before a step of a setting that fails is
 * taken back.
 *
 * A trapped signal stays pending until it is read from the descriptor, one record and
 * one command at a time.  A trap command may end any trap, its own and the last one
 * included, stop the reactor or delete the interpreter: the store is looked at again
 * after each.
 */
#include "reactor_signal.h"

#include "command.h"
#include "debugging.h"
#include "reactor.h"
#include "reactor_bgerror.h"
#include "reactor_signal_record.h"
#include "tclsupport.h"

#include <errno.h>
#include <sys/signalfd.h>
#include <unistd.h>
#include <zmq.h>

namespace {

constexpr int descriptorFlags = SFD_NONBLOCK | SFD_CLOEXEC;

Tcl_ThreadDataKey dataKey;

PVSignal* thread_signal() {
    return static_cast<PVSignal*>(Tcl_GetThreadData(&dataKey, sizeof(PVSignal)));
}

// The store's life.

PVSignal* pv_signal_init(Tcl_Interp* interp, PVSignal* s, PVReactor* reactor) {
    *s = PVSignal();
    s->initialized = true;
    s->interp = interp;
    s->reactor = reactor;
    s->fd = -1;
    return s;
}

void pv_signal_handler_remove(PVSignal* s, int sig) {
    set_slot(s->handler[sig], nullptr);
}

// Setting a trap.

/* Fills mask with the trapped signals. */
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

/*
 * Unblocks a signal whose trap failed, also when it was blocked before: a signal that
 * neither a trap nor its disposition receives would be lost.  The step that failed
 * gives the message.
 */
void signal_unblock_again(int sig) {
    sigset_t mask;
    if (sigemptyset(&mask) == 0 && sigaddset(&mask, sig) == 0) {
        pthread_sigmask(SIG_UNBLOCK, &mask, nullptr);
    }
}

/*
 * Registers the descriptor with the reactor.  When that fails the signal leaves the
 * descriptor's mask and is unblocked again; the descriptor stays open for the next
 * trap.
 */
int descriptor_register(PVSignal* s, int sig, sigset_t* mask) {
    if (pv_event_register_fd(s->reactor, s->fd, ZMQ_POLLIN) >= 0) {
        return TCL_OK;
    }
    if (sigdelset(mask, sig) == 0 && signalfd(s->fd, mask, descriptorFlags) != -1) {
        signal_unblock_again(sig);
    }
    return fail(s->interp, "failed to register signal descriptor", "QEL", "SIGNAL",
                "FD", "REGISTER");
}

/* Puts a blocked signal into the descriptor, which the first one opens. */
int descriptor_add(PVSignal* s, int sig, sigset_t* mask) {
    const int fd = signalfd(s->fd, mask, descriptorFlags);
    if (fd == -1) {
        const int error = errno;
        signal_unblock_again(sig);
        return fail(s->interp,
                    Tcl_ObjPrintf("failed signalfd: %s", Tcl_ErrnoMsg(error)), "QEL",
                    "SIGNAL", "FD");
    }
    if (s->fd == -1) {
        DEBUG_LINE("pv_signal_fd_add", "created signalfd instance at fd=%d", fd);
    }
    s->fd = fd;
    return descriptor_register(s, sig, mask);
}

/* Makes a signal come through the descriptor; nothing changes when it does already. */
int pv_signal_fd_add(PVSignal* s, int sig) {
    sigset_t mask;
    if (pv_signal_fd_mask(s, &mask) != TCL_OK) {
        return TCL_ERROR;
    }
    const int trapped = sigismember(&mask, sig);
    if (trapped == 1) {
        return TCL_OK;
    }
    if (trapped == -1) {
        return fail(s->interp,
                    Tcl_ObjPrintf("failed to check signal %d against mask", sig), "QEL",
                    "SIGNAL", "FD", "ADD");
    }
    if (sigaddset(&mask, sig) == -1) {
        return fail(s->interp, Tcl_ObjPrintf("failed to add signal %d in mask", sig),
                    "QEL", "SIGNAL", "FD", "ADD");
    }
    if (pv_signal_block_sig(s, SIG_BLOCK, sig) != TCL_OK) {
        return TCL_ERROR;
    }
    return descriptor_add(s, sig, &mask);
}

// Ending a trap.

bool pv_signal_fd_empty(const PVSignal* s) {
    for (int sig = 1; sig <= signalMax; sig++) {
        if (s->handler[sig] != nullptr) {
            return false;
        }
    }
    return true;
}

void pv_signal_fd_unregister(PVSignal* s) {
    pv_event_unregister_fd(s->reactor, s->fd, ZMQ_POLLIN);
    close(s->fd);
    s->fd = -1;
}

int fail_remove(PVSignal* s, Tcl_Obj* message) {
    return fail(s->interp, message, "QEL", "SIGNAL", "FD", "REMOVE");
}

// The subcommand trap.

/* The traps of one signal, of all for 0, as a dictionary. */
int pv_signal_trap_get(PVSignal* s, int selected) {
    const ObjRef traps(Tcl_NewDictObj());
    for (int sig = 1; sig <= signalMax; sig++) {
        if (s->handler[sig] == nullptr || (selected != 0 && selected != sig)) {
            continue;
        }
        const ObjRef name(Tcl_NewStringObj(signal_name(sig), -1));
        if (Tcl_DictObjPut(nullptr, traps.get(), name.get(), s->handler[sig]) !=
            TCL_OK) {
            return fail(
                s->interp,
                Tcl_ObjPrintf("failed to get handler for signal %s", signal_name(sig)),
                "QEL", "SIGNAL", "TRAP", "GET");
        }
    }
    Tcl_SetObjResult(s->interp, traps.get());
    return TCL_OK;
}

int pv_signal_trap_set(PVSignal* s, int sig, Tcl_Obj* cmd) {
    if (sig == 0) {
        return fail(s->interp, "specific signal required", "QEL", "SIGNAL", "TRAP");
    }
    if (pv_signal_fd_add(s, sig) != TCL_OK) {
        return TCL_ERROR;
    }
    set_slot(s->handler[sig], unshared(cmd));
    DEBUG_LINE("pv_signal_trap_set", "set handler for signal '%s'", signal_name(sig));
    return TCL_OK;
}

/* ::qel::reactor signal trap ?signal ?command?? */
int pv_signal_cmd_trap(PVSignal* s, Tcl_Interp* interp, int objc,
                       Tcl_Obj* const objv[]) {
    const int sig = objc > 3 ? signal_parse(interp, objv[3]) : 0;
    if (sig == -1) {
        return TCL_ERROR;
    }
    return objc == 5 ? pv_signal_trap_set(s, sig, objv[4]) : pv_signal_trap_get(s, sig);
}

constexpr CommandRow<PVSignal> signal_words[] = {
    {"default", 3, 4, "?signal?", pv_signal_cmd_default},
    {"ignore", 3, 4, "?signal?", pv_signal_cmd_ignore},
    {"trap", 3, 5, "?signal ?command??", pv_signal_cmd_trap},
    {"status", 3, 4, "?signals?", pv_signal_cmd_status},
    {"block", 4, 4, "signals", pv_signal_cmd_block},
    {"unblock", 4, 4, "signals", pv_signal_cmd_unblock},
    {nullptr, 0, 0, nullptr, nullptr},
};
static_assert(table_ends(signal_words));

// The delivery.

/*
 * Runs the trap command of a signal with Tcl's name of it as its last word, or words:
 * Tcl calls SIGSTKFLT "unknown signal".
 */
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

PVSignal* pv_signal(Tcl_Interp* interp, PVReactor* reactor) {
    PVSignal* s = thread_signal();
    if (s == nullptr) {
        if (interp != nullptr) {
            fail(interp, "failed to get signal thread data", "QEL", "SIGNAL", "THREAD",
                 "DATA");
        }
        return nullptr;
    }
    if (s->initialized) {
        return s;
    }
    return interp != nullptr ? pv_signal_init(interp, s, reactor) : nullptr;
}

void pv_signal_destroy() {
    PVSignal* s = thread_signal();
    if (!s->initialized) {
        return;
    }
    for (int sig = 1; sig <= signalMax; sig++) {
        pv_signal_handler_remove(s, sig);
    }
    if (s->fd != -1) {
        close(s->fd);
        s->fd = -1;
    }
    s->running = false;
    s->interp = nullptr;
    s->initialized = false;
    DEBUG_LINE("pv_signal_destroy", "released signal data");
}

void pv_signal_running(PVSignal* s, bool which) {
    s->running = which;
}

bool pv_signal_fd(const PVSignal* s, int fd) {
    return s->fd != -1 && s->fd == fd;
}

void pv_signal_dispatch(PVSignal* s) {
    while (signal_active(s)) {
        struct signalfd_siginfo info;
        const ssize_t length = read(s->fd, &info, sizeof info);
        if (length == -1) {
            const int error = errno;
            if (error != EAGAIN) {
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

Tcl_Obj* pv_signal_handlers(const PVSignal* s) {
    Tcl_Obj* handlers = Tcl_NewDictObj();
    for (int sig = 1; sig <= signalMax; sig++) {
        if (s->handler[sig] != nullptr) {
            Tcl_DictObjPut(s->interp, handlers, Tcl_NewStringObj(signal_name(sig), -1),
                           s->handler[sig]);
        }
    }
    return handlers;
}

int pv_signal_fd_remove(PVSignal* s, int sig) {
    sigset_t mask;
    if (pv_signal_fd_mask(s, &mask) != TCL_OK) {
        return TCL_ERROR;
    }
    const int trapped = sigismember(&mask, sig);
    if (trapped == -1) {
        return fail_remove(
            s, Tcl_ObjPrintf("failed to check signal %d against mask", sig));
    }
    if (trapped == 0) {
        return TCL_OK;
    }
    if (sigdelset(&mask, sig) == -1) {
        return fail_remove(s,
                           Tcl_ObjPrintf("failed to remove signal %d from mask", sig));
    }
    if (signalfd(s->fd, &mask, descriptorFlags) == -1) {
        return fail_remove(s, Tcl_ObjPrintf("failed to remove signal %d from mask: %s",
                                            sig, Tcl_ErrnoMsg(errno)));
    }
    pv_signal_handler_remove(s, sig);
    if (pv_signal_fd_empty(s)) {
        pv_signal_fd_unregister(s);
    }
    return pv_signal_block_sig(s, SIG_UNBLOCK, sig);
}

/* ::qel::reactor signal action ?arg ...? */
int pv_cmd_signal(PVSignal* s, Tcl_Interp* interp, int objc, Tcl_Obj* const objv[]) {
    const auto* row = command_row(interp, signal_words, objv[2], "subcommand");
    return row != nullptr ? command_run(row, 3, s, s->interp, objc, objv) : TCL_ERROR;
}
