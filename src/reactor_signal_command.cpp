/*
 * reactor_signal_command.cpp -- the subcommand signal: dispositions and blocking.
 *
 * Dispositions belong to the process, masks to the calling thread.  Giving a signal a
 * disposition also ends its trap: the descriptor's mask shrinks first, then the trap
 * command goes, then, with the last one, the descriptor, and the signal is unblocked
 * last of all.
 */
#include "debugging.h"
#include "reactor.h"
#include "reactor_signal.h"
#include "reactor_signal_catalogue.h"
#include "reactor_signal_record.h"
#include "tclsupport.h"

#include <errno.h>
#include <sys/signalfd.h>
#include <unistd.h>
#include <zmq.h>

namespace {

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

void pv_signal_handler_remove(PVSignal* s, int sig) {
    set_slot(s->handler[sig], nullptr);
}

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

template <typename Message> int fail_remove(PVSignal* s, Message message) {
    return fail(s->interp, message, "QEL", "SIGNAL", "FD", "REMOVE");
}

/* Ends the trap of a signal, if it has one, and unblocks the signal. */
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
    if (signalfd(s->fd, &mask, SFD_NONBLOCK | SFD_CLOEXEC) == -1) {
        return fail_remove(s, Tcl_ObjPrintf("failed to remove signal %d from mask: %s",
                                            sig, Tcl_ErrnoMsg(errno)));
    }
    pv_signal_handler_remove(s, sig);
    if (pv_signal_fd_empty(s) && s->fd != -1) {
        pv_signal_fd_unregister(s);
    }
    return pv_signal_block_sig(s, SIG_UNBLOCK, sig);
}

/* Gives one signal a disposition and ends its trap. */
int signal_trap_end(PVSignal* s, Tcl_Obj* signal, PVSigHandler handler) {
    const int sig = signal_parse(s->interp, signal);
    if (sig == -1 || pv_signal_action(s, sig, handler) != TCL_OK) {
        return TCL_ERROR;
    }
    return pv_signal_fd_remove(s, sig);
}

int pv_signal_trap_default(PVSignal* s, Tcl_Obj* signal) {
    return signal_trap_end(s, signal, SIG_DFL);
}

int pv_signal_trap_ignore(PVSignal* s, Tcl_Obj* signal) {
    return signal_trap_end(s, signal, SIG_IGN);
}

int wrong_disposition_arguments(PVSignal* s, Tcl_Obj* const objv[]) {
    Tcl_WrongNumArgs(s->interp, 3, objv, "?signal?");
    return TCL_ERROR;
}

/* ::qel::reactor signal default ?signal? */
int pv_signal_cmd_default(PVSignal* s, int objc, Tcl_Obj* const objv[]) {
    if (objc > 4) {
        return wrong_disposition_arguments(s, objv);
    }
    return objc == 3 ? pv_signal_state_get(s->interp, SIG_DFL)
                     : pv_signal_trap_default(s, objv[3]);
}

/* ::qel::reactor signal ignore ?signal? */
int pv_signal_cmd_ignore(PVSignal* s, int objc, Tcl_Obj* const objv[]) {
    if (objc > 4) {
        return wrong_disposition_arguments(s, objv);
    }
    return objc == 3 ? pv_signal_state_get(s->interp, SIG_IGN)
                     : pv_signal_trap_ignore(s, objv[3]);
}

/* A trapped signal that were unblocked would meet its disposition instead. */
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
int pv_signal_cmd_block(PVSignal* s, int objc, Tcl_Obj* const objv[], int how) {
    sigset_t mask;
    if (objc != 4) {
        Tcl_WrongNumArgs(s->interp, 3, objv, "signals");
        return TCL_ERROR;
    }
    if (sigemptyset(&mask) == -1) {
        return fail(s->interp, "failed to empty signal set", "QEL", "SIGNAL",
                    how == SIG_UNBLOCK ? "UNBLOCK" : "BLOCK");
    }
    if (signal_parse_list(s->interp, objv[3], &mask) != TCL_OK) {
        return TCL_ERROR;
    }
    if (how == SIG_UNBLOCK && pv_signal_unblock_trap_check(s, &mask) != TCL_OK) {
        return TCL_ERROR;
    }
    return pv_signal_block_mask(s, how, &mask);
}

/* ::qel::reactor signal block signals */
int signal_block(PVSignal* s, int objc, Tcl_Obj* const objv[]) {
    return pv_signal_cmd_block(s, objc, objv, SIG_BLOCK);
}

/* ::qel::reactor signal unblock signals */
int signal_unblock(PVSignal* s, int objc, Tcl_Obj* const objv[]) {
    return pv_signal_cmd_block(s, objc, objv, SIG_UNBLOCK);
}

struct SignalWord {
    const char* word;
    int (*proc)(PVSignal* s, int objc, Tcl_Obj* const objv[]);
};

constexpr SignalWord signal_words[] = {
    {"default", pv_signal_cmd_default},
    {"ignore", pv_signal_cmd_ignore},
    {"trap", pv_signal_cmd_trap},
    {"status", pv_signal_cmd_status},
    {"block", signal_block},
    {"unblock", signal_unblock},
    {nullptr, nullptr},
};

} // namespace

int pv_signal_block_mask(PVSignal* s, int how, const sigset_t* mask) {
    const int error = pthread_sigmask(how, mask, nullptr);
    if (error == 0) {
        return TCL_OK;
    }
    return fail(s->interp,
                Tcl_ObjPrintf("failed to set signal mask: %s", Tcl_ErrnoMsg(error)),
                "QEL", "SIGNAL", "BLOCK");
}

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

/* ::qel::reactor signal action ?arg ...? */
int pv_cmd_signal(ClientData store, Tcl_Interp* interp, int objc,
                  Tcl_Obj* const objv[]) {
    int index;
    if (objc < 3) {
        Tcl_WrongNumArgs(interp, 2, objv, "action signal ?command?");
        return TCL_ERROR;
    }
    if (Tcl_GetIndexFromObjStruct(interp, objv[2], signal_words, sizeof(SignalWord),
                                  "subcommand", 0, &index) != TCL_OK) {
        return TCL_ERROR;
    }
    return signal_words[index].proc(static_cast<PVSignal*>(store), objc, objv);
}
