/*
 * reactor_signal_trap.cpp -- the subcommand signal trap.
 *
 * Setting a trap blocks the signal, adds it to the descriptor's mask, opening the
 * descriptor for the first one, and registers the descriptor with the reactor; the
 * command is stored last.  Whatever was done before a step that fails is taken back.
 */
#include "debugging.h"
#include "reactor.h"
#include "reactor_signal_catalogue.h"
#include "reactor_signal_record.h"
#include "tclsupport.h"

#include <errno.h>
#include <sys/signalfd.h>
#include <zmq.h>

namespace {

constexpr int descriptorFlags = SFD_NONBLOCK | SFD_CLOEXEC;

/* The traps of one signal, of all for 0, as a dictionary. */
int pv_signal_trap_get(PVSignal* s, Tcl_Obj* signal) {
    const int selected = signal != nullptr ? signal_parse(s->interp, signal) : 0;
    if (selected == -1) {
        return TCL_ERROR;
    }
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

/*
 * Takes a blocking back, without a report of its own: the step that failed gives the
 * message, and a report runs scripts.
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
    if (s->fd == -1 && debugging()) {
        log_output("pv_signal_fd_add", "created signalfd instance at fd=%d", fd);
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

void pv_signal_handler_add(PVSignal* s, int sig, Tcl_Obj* cmd) {
    set_slot(s->handler[sig], unshared(cmd));
}

int pv_signal_trap_set(PVSignal* s, Tcl_Obj* signal, Tcl_Obj* cmd) {
    const int sig = signal_parse(s->interp, signal);
    if (sig == -1) {
        return TCL_ERROR;
    }
    if (sig == 0) {
        return fail(s->interp, "specific signal required", "QEL", "SIGNAL", "TRAP");
    }
    if (pv_signal_fd_add(s, sig) != TCL_OK) {
        return TCL_ERROR;
    }
    pv_signal_handler_add(s, sig, cmd);
    if (debugging()) {
        log_output("pv_signal_trap_set", "set handler for signal '%s'",
                   signal_name(sig));
    }
    return TCL_OK;
}

} // namespace

/* ::qel::reactor signal trap ?signal ?command?? */
int pv_signal_cmd_trap(PVSignal* s, int objc, Tcl_Obj* const objv[]) {
    if (objc > 5) {
        Tcl_WrongNumArgs(s->interp, 3, objv, "?signal ?command??");
        return TCL_ERROR;
    }
    if (objc == 5) {
        return pv_signal_trap_set(s, objv[3], objv[4]);
    }
    return pv_signal_trap_get(s, objc == 4 ? objv[3] : nullptr);
}
