/*
 * reactor_signal_catalogue.cpp -- names and numbers of signals.
 *
 * A number's first row gives its name in every output; further rows of the number are
 * accepted as input only.  A further name is one row; numbers end at
 * signalMax, the size of the records.
 */
#include "reactor_signal_catalogue.h"

#include "tclsupport.h"

#include <string.h>

namespace {

struct SignalRow {
    const char* name;        // with its "SIG"
    int sig;                 // number on Linux
    const char* description; // for readers of this table
};

constexpr SignalRow pv_signals[] = {
    {"SIGHUP", 1, "Hangup"},
    {"SIGINT", 2, "Interrupt"},
    {"SIGQUIT", 3, "Quit"},
    {"SIGILL", 4, "Illegal instruction"},
    {"SIGTRAP", 5, "Trace trap"},
    {"SIGABRT", 6, "Abort"},
    {"SIGIOT", 6, "IOT trap"},
    {"SIGBUS", 7, "BUS error"},
    {"SIGFPE", 8, "Floating-point exception"},
    {"SIGKILL", 9, "Kill, unblockable"},
    {"SIGUSR1", 10, "User-defined signal 1"},
    {"SIGSEGV", 11, "Segmentation violation"},
    {"SIGUSR2", 12, "User-defined signal 2"},
    {"SIGPIPE", 13, "Broken pipe"},
    {"SIGALRM", 14, "Alarm clock"},
    {"SIGTERM", 15, "Termination"},
    {"SIGSTKFLT", 16, "Stack fault"},
    {"SIGCHLD", 17, "Child status has changed"},
    {"SIGCLD", 17, "Child status has changed"},
    {"SIGCONT", 18, "Continue"},
    {"SIGSTOP", 19, "Stop, unblockable"},
    {"SIGTSTP", 20, "Keyboard stop"},
    {"SIGTTIN", 21, "Background read from tty"},
    {"SIGTTOU", 22, "Background write to tty"},
    {"SIGURG", 23, "Urgent condition on socket"},
    {"SIGXCPU", 24, "CPU limit exceeded"},
    {"SIGXFSZ", 25, "File size limit exceeded"},
    {"SIGVTALRM", 26, "Virtual alarm clock"},
    {"SIGPROF", 27, "Profiling alarm clock"},
    {"SIGWINCH", 28, "Window size change"},
    {"SIGIO", 29, "I/O now possible"},
    {"SIGPOLL", 29, "Pollable event occurred"},
    {"SIGPWR", 30, "Power failure restart"},
    {"SIGSYS", 31, "Bad system call"},
    {"SIGUNUSED", 31, "unused"},
    {nullptr, signalMax + 1, nullptr},
};

constexpr size_t prefixLength = 3; // of "SIG"

} // namespace

const char* signal_name(int sig) {
    for (const SignalRow* row = pv_signals; row->name != nullptr; row++) {
        if (row->sig == sig) {
            return row->name;
        }
    }
    return "invalid signal";
}

int signal_to_int(const char* name) {
    const size_t skipped = strncmp(name, "SIG", prefixLength) == 0 ? 0 : prefixLength;
    for (const SignalRow* row = pv_signals; row->name != nullptr; row++) {
        if (strcmp(row->name + skipped, name) == 0) {
            return row->sig;
        }
    }
    return -1;
}

int signal_parse(Tcl_Interp* interp, Tcl_Obj* signal) {
    int sig;
    if (Tcl_GetIntFromObj(nullptr, signal, &sig) == TCL_OK) {
        if (sig >= 1 && sig <= signalMax) {
            return sig;
        }
        fail(interp, Tcl_ObjPrintf("invalid signal number %d", sig), "QEL", "SIGNAL",
             "PARSE");
        return -1;
    }
    const char* name = Tcl_GetString(signal);
    if (strcmp(name, "*") == 0) {
        return 0;
    }
    sig = signal_to_int(name);
    if (sig == -1) {
        fail(interp, Tcl_ObjPrintf("invalid signal name %s", name), "QEL", "SIGNAL",
             "PARSE");
    }
    return sig;
}

int signal_parse_list(Tcl_Interp* interp, Tcl_Obj* list, sigset_t* signals) {
    Tcl_Size count;
    Tcl_Obj** elements;
    if (list == nullptr) {
        return sigfillset(signals) == 0 ? TCL_OK
                                        : fail(interp, "failed to fill set", "QEL",
                                               "SIGNAL", "PARSE", "LIST");
    }
    if (Tcl_ListObjGetElements(interp, list, &count, &elements) != TCL_OK) {
        return TCL_ERROR;
    }
    for (Tcl_Size i = 0; i < count; i++) {
        const int sig = signal_parse(interp, elements[i]);
        if (sig == -1) {
            return TCL_ERROR;
        }
        if (sigaddset(signals, sig) == -1) {
            return fail(interp,
                        Tcl_ObjPrintf("failed to add \"%s\" to set",
                                      Tcl_GetString(elements[i])),
                        "QEL", "SIGNAL", "PARSE", "LIST");
        }
    }
    return TCL_OK;
}
