/*
 * reactor_command.cpp -- the command ::qel::reactor.
 *
 * All interpreters of a thread share its reactor.  The handler, timer and signal
 * operations look names up and leave results in the interpreter that set the reactor
 * up; a call from another interpreter is given a copy of what they left.
 */
#include "reactor_command.h"

#include "reactor.h"
#include "reactor_bgerror.h"
#include "reactor_loop.h"
#include "reactor_record.h"
#include "reactor_signal.h"
#include "reactor_timer.h"
#include "tclsupport.h"

namespace {

struct EventType {
    const char* word; // as scripts write it
    short event;      // as zmq_poll takes it
};

constexpr EventType event_types[] = {
    {"readable", ZMQ_POLLIN},
    {"writable", ZMQ_POLLOUT},
    {nullptr, 0},
};

/* ::qel::reactor timeout ?timeout? */
int reactor_timeout(PVReactor* r, Tcl_Interp* interp, int objc, Tcl_Obj* const objv[]) {
    return pv_cmd_timeout(r->timer, interp, objc, objv);
}

/* ::qel::reactor bgerror ?cmdPrefix? */
int reactor_bgerror(PVReactor* /*r*/, Tcl_Interp* interp, int objc,
                    Tcl_Obj* const objv[]) {
    return pv_cmd_bgerror(nullptr, interp, objc, objv);
}

/* ::qel::reactor signal action ?arg ...? */
int reactor_signal(PVReactor* r, Tcl_Interp* interp, int objc, Tcl_Obj* const objv[]) {
    return pv_cmd_signal(r->signal, interp, objc, objv);
}

/* ::qel::reactor after option ?arg ...? */
int reactor_after(PVReactor* r, Tcl_Interp* interp, int objc, Tcl_Obj* const objv[]) {
    return pv_cmd_after(r->timer, interp, objc, objv);
}

/* ::qel::reactor event name type ?script? */
int pv_cmd_event(PVReactor* r, Tcl_Interp* interp, int objc, Tcl_Obj* const objv[]) {
    int index;
    if (objc != 4 && objc != 5) {
        Tcl_WrongNumArgs(interp, 2, objv, "(zsock|chan) event ?script?");
        return TCL_ERROR;
    }
    if (Tcl_GetIndexFromObjStruct(interp, objv[3], event_types, sizeof(EventType),
                                  "event type", 0, &index) != TCL_OK) {
        return TCL_ERROR;
    }
    const char* name = Tcl_GetString(objv[2]);
    const short event = event_types[index].event;
    return objc == 4 ? pv_event_get(r, name, event)
                     : pv_event_set(r, name, event, objv[4]);
}

/* The two scripts of an entry. */
Tcl_Obj* entry_scripts(const PVPollInfo* info) {
    Tcl_Obj* scripts = Tcl_NewDictObj();
    Tcl_DictObjPut(nullptr, scripts, Tcl_NewStringObj("read", -1),
                   info->read != nullptr ? info->read : Tcl_NewObj());
    Tcl_DictObjPut(nullptr, scripts, Tcl_NewStringObj("write", -1),
                   info->write != nullptr ? info->write : Tcl_NewObj());
    return scripts;
}

/* ::qel::reactor events */
int pv_cmd_events(PVReactor* r, Tcl_Interp* interp, int objc, Tcl_Obj* const objv[]) {
    if (objc != 2) {
        Tcl_WrongNumArgs(interp, 2, objv, nullptr);
        return TCL_ERROR;
    }
    pv_event_refresh_all(r);
    Tcl_Obj* events = Tcl_NewDictObj();
    for (size_t i = 0; i < r->poll.nitems; i++) {
        const bool signals = pv_signal_fd(r->signal, r->poll.items[i].fd);
        // A channel with two descriptors names its key twice, and the dictionary
        // keeps the first key object: the second needs a holder.
        const ObjRef key(signals ? Tcl_NewStringObj("signals", -1)
                                 : pv_reactor_item_name(r, i));
        Tcl_DictObjPut(nullptr, events, key.get(),
                       signals ? pv_signal_handlers(r->signal)
                               : entry_scripts(&r->poll.infos[i]));
    }
    Tcl_SetObjResult(interp, events);
    return TCL_OK;
}

/* ::qel::reactor start */
int pv_cmd_start(PVReactor* r, Tcl_Interp* interp, int objc, Tcl_Obj* const objv[]) {
    if (objc != 2) {
        Tcl_WrongNumArgs(interp, 2, objv, nullptr);
        return TCL_ERROR;
    }
    if (r->running) {
        return fail(interp, "reactor is already running", "ZMQ", "REACTOR", "RUNNING");
    }
    pv_reactor_running(r, true);
    pv_reactor_loop(r);
    return TCL_OK;
}

/* ::qel::reactor stop */
int pv_cmd_stop(PVReactor* r, Tcl_Interp* interp, int objc, Tcl_Obj* const objv[]) {
    if (objc != 2) {
        Tcl_WrongNumArgs(interp, 2, objv, nullptr);
        return TCL_ERROR;
    }
    pv_reactor_running(r, false);
    return TCL_OK;
}

struct Subcommand {
    const char* word;
    int (*proc)(PVReactor* r, Tcl_Interp* interp, int objc, Tcl_Obj* const objv[]);
    bool reportsToOwner; // leaves results in the reactor's interpreter
};

constexpr Subcommand subcommands[] = {
    {"timeout", reactor_timeout, false}, {"bgerror", reactor_bgerror, true},
    {"event", pv_cmd_event, true},       {"events", pv_cmd_events, false},
    {"signal", reactor_signal, true},    {"after", reactor_after, true},
    {"start", pv_cmd_start, false},      {"stop", pv_cmd_stop, false},
    {nullptr, nullptr, false},
};

/* The code of an error alone: its trace tells what the owner did before. */
void copy_error_code(Tcl_Interp* to, Tcl_Interp* from) {
    Tcl_Obj* word = nullptr;
    const ObjRef key(Tcl_NewStringObj("-errorcode", -1));
    const ObjRef options(Tcl_GetReturnOptions(from, TCL_ERROR));
    Tcl_DictObjGet(nullptr, options.get(), key.get(), &word);
    if (word != nullptr) {
        Tcl_SetObjErrorCode(to, word);
    }
}

/* Runs a subcommand for an interpreter other than the reactor's own. */
int run_for_guest(const Subcommand* subcommand, PVReactor* r, Tcl_Interp* guest,
                  int objc, Tcl_Obj* const objv[]) {
    const InterpHold owner(r->interp);
    Tcl_ResetResult(owner.get());
    const int code = subcommand->proc(r, guest, objc, objv);
    const ObjRef result(Tcl_GetObjResult(owner.get()));
    if (*Tcl_GetString(result.get()) == '\0') {
        return code;
    }
    if (code == TCL_ERROR) {
        copy_error_code(guest, owner.get());
    }
    Tcl_SetObjResult(guest, result.get());
    return code;
}

} // namespace

/* ::qel::reactor subcommand ?arg ...? */
int ParvoReactorCmd(ClientData /*unused*/, Tcl_Interp* interp, int objc,
                    Tcl_Obj* const objv[]) {
    int index;
    if (objc < 2) {
        Tcl_WrongNumArgs(interp, 1, objv, "subcommand ?arg ...?");
        return TCL_ERROR;
    }
    if (Tcl_GetIndexFromObjStruct(interp, objv[1], subcommands, sizeof(Subcommand),
                                  "subcommand", 0, &index) != TCL_OK) {
        return TCL_ERROR;
    }
    PVReactor* r = pv_reactor(interp);
    if (r == nullptr) {
        return TCL_ERROR;
    }
    const Subcommand* subcommand = &subcommands[index];
    return subcommand->reportsToOwner && r->interp != interp
               ? run_for_guest(subcommand, r, interp, objc, objv)
               : subcommand->proc(r, interp, objc, objv);
}
