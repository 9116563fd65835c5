/*
 * reactor_command.cpp -- the command ::qel::reactor.
 *
 * All interpreters of a thread share its reactor.  The handler, timer and signal
 * operations look names up and leave results in the interpreter that set the reactor
 * up; a call from another interpreter is given a copy of what they left.
 */
#include "reactor_command.h"

#include "command.h"
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
static_assert(table_ends(event_types));

/* ::qel::reactor timeout ?timeout? */
int reactor_timeout(PVReactor* r, Tcl_Interp* interp, int objc, Tcl_Obj* const objv[]) {
    return pv_cmd_timeout(r->timer, interp, objc, objv);
}

/* ::qel::reactor bgerror ?cmdPrefix? */
int reactor_bgerror(PVReactor* /*r*/, Tcl_Interp* interp, int objc,
                    Tcl_Obj* const objv[]) {
    return pv_cmd_bgerror(interp, objc, objv);
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
    const auto* type = command_row(interp, event_types, objv[3], "event type");
    if (type == nullptr) {
        return TCL_ERROR;
    }
    const char* name = Tcl_GetString(objv[2]);
    return objc == 4 ? pv_event_get(r, name, type->event)
                     : pv_event_set(r, name, type->event, objv[4]);
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

/* Puts the entry at a position into a listing. */
void list_entry(PVReactor* r, int i, Tcl_Obj* events) {
    const PVPollInfo* info = &r->poll.infos[i];
    const bool signals = pv_signal_fd(r->signal, r->poll.items[i].fd);
    // A channel with two descriptors names its key twice, and the dictionary keeps the
    // first key object: the second one is released here.
    const ObjRef key(signals ? Tcl_NewStringObj("signals", -1)
                             : pv_reactor_item_name(r, i));
    if (key.get() != nullptr) {
        Tcl_DictObjPut(nullptr, events, key.get(),
                       signals ? pv_signal_handlers(r->signal) : entry_scripts(info));
    }
}

/* ::qel::reactor events */
int pv_cmd_events(PVReactor* r, Tcl_Interp* interp, int /*objc*/,
                  Tcl_Obj* const /*objv*/[]) {
    pv_event_refresh_all(r);
    Tcl_Obj* events = Tcl_NewDictObj();
    for (int i = 0; i < r->poll.nitems; i++) {
        list_entry(r, i, events);
    }
    Tcl_SetObjResult(interp, events);
    return TCL_OK;
}

/* ::qel::reactor start */
int pv_cmd_start(PVReactor* r, Tcl_Interp* interp, int /*objc*/,
                 Tcl_Obj* const /*objv*/[]) {
    if (r->running) {
        return fail(interp, "reactor is already running", "ZMQ", "REACTOR", "RUNNING");
    }
    pv_reactor_running(r, true);
    return pv_reactor_loop(r, interp);
}

/* ::qel::reactor stop */
int pv_cmd_stop(PVReactor* r, Tcl_Interp* /*interp*/, int /*objc*/,
                Tcl_Obj* const /*objv*/[]) {
    pv_reactor_running(r, false);
    return TCL_OK;
}

struct ReactorRow : CommandRow<PVReactor> {
    bool reportsToOwner; // leaves results in the reactor's interpreter
};

// The usage texts are part of messages, which stay as they are.
constexpr ReactorRow subcommands[] = {
    {{"timeout", 2, 3, "?timeout?", reactor_timeout}, false},
    {{"bgerror", 2, 3, "?cmdPrefix?", reactor_bgerror}, true},
    {{"event", 4, 5, "(zsock|chan) event ?script?", pv_cmd_event}, true},
    {{"events", 2, 2, nullptr, pv_cmd_events}, false},
    {{"signal", 3, anyNumber, "action signal ?command?", reactor_signal}, true},
    {{"after", 3, anyNumber, "option ?arg ...?", reactor_after}, true},
    {{"start", 2, 2, nullptr, pv_cmd_start}, false},
    {{"stop", 2, 2, nullptr, pv_cmd_stop}, false},
    {{nullptr, 0, 0, nullptr, nullptr}, false},
};
static_assert(table_ends(subcommands));

/* Runs a subcommand for an interpreter other than the reactor's own. */
int run_for_guest(const ReactorRow* row, PVReactor* r, Tcl_Interp* guest, int objc,
                  Tcl_Obj* const objv[]) {
    const InterpHold owner(r->interp);
    Tcl_ResetResult(owner.get());
    const int code = command_run<PVReactor>(row, 2, r, guest, objc, objv);
    const ObjRef result(Tcl_GetObjResult(owner.get()));
    if (*Tcl_GetString(result.get()) == '\0') {
        return code;
    }
    if (code == TCL_ERROR) {
        pv_interp_pass_error(guest, owner.get());
    } else {
        Tcl_SetObjResult(guest, result.get());
    }
    return code;
}

} // namespace

/* ::qel::reactor subcommand ?arg ...? */
int ParvoReactorCmd(ClientData /*unused*/, Tcl_Interp* interp, int objc,
                    Tcl_Obj* const objv[]) {
    if (objc < 2) {
        return wrong_count(interp, 1, objv, "subcommand ?arg ...?");
    }
    const ReactorRow* row = command_row(interp, subcommands, objv[1], "subcommand");
    PVReactor* r = row != nullptr ? pv_reactor(interp) : nullptr;
    if (r == nullptr) {
        return TCL_ERROR;
    }
    return row->reportsToOwner && r->interp != interp
               ? run_for_guest(row, r, interp, objc, objv)
               : command_run<PVReactor>(row, 2, r, interp, objc, objv);
}
