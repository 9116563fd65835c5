/*
 * parvo.cpp -- the entry point and the utility commands.
 *
 * The part has no state of its own: the context belongs to ctx.cpp, the debug
 * settings to debugging.cpp.
 */
#include "parvo.h"

#include "command.h"
#include "ctx.h"
#include "debugging.h"
#include "poll.h"
#include "reactor_command.h"
#include "socket.h"
#include "tclsupport.h"
#include "utils.h"

#include <zmq.h>

#define BUILD_STRING                                                                   \
    "zmq " PARVO_VERSION " built " __DATE__ " " __TIME__ " on " PARVO_BUILD_HOST

namespace {

constexpr struct {
    const char* word;         // subcommand of ::zmq::debug
    void (*set)(const char*); // what takes its value
} debug_words[] = {
    {"worker", debugging_worker},
    {"node", debugging_node},
    {"file", debugging_file},
    {nullptr, nullptr},
};
static_assert(table_ends(debug_words));

constexpr bool has_percent(const char* text) {
    for (; *text != '\0'; text++) {
        if (*text == '%') {
            return true;
        }
    }
    return false;
}
static_assert(!has_percent(BUILD_STRING), "the build string is used as a format");

/* ::zmq::build */
int ParvoBuildCmd(ClientData /*unused*/, Tcl_Interp* interp, int objc,
                  Tcl_Obj* const objv[]) {
    if (objc != 1) {
        return wrong_count(interp, 1, objv, nullptr);
    }
    Tcl_SetObjResult(interp, Tcl_ObjPrintf(BUILD_STRING));
    return TCL_OK;
}

/* ::zmq::version */
int ParvoVersionCmd(ClientData /*unused*/, Tcl_Interp* interp, int objc,
                    Tcl_Obj* const objv[]) {
    int major;
    int minor;
    int patch;
    if (objc != 1) {
        return wrong_count(interp, 1, objv, nullptr);
    }
    zmq_version(&major, &minor, &patch);
    Tcl_SetObjResult(interp, Tcl_ObjPrintf("%d.%d.%d", major, minor, patch));
    return TCL_OK;
}

/*
 * ::zmq::debug
 * ::zmq::debug boolean ?word?
 * ::zmq::debug worker|node|file value
 */
int ParvoDebugCmd(ClientData /*unused*/, Tcl_Interp* interp, int objc,
                  Tcl_Obj* const objv[]) {
    int on;
    if (objc > 3) {
        return wrong_count(interp, 1, objv, nullptr);
    }
    if (objc == 1) {
        Tcl_SetObjResult(interp, Tcl_NewIntObj(debugging() ? 1 : 0));
        return TCL_OK;
    }
    if (Tcl_GetBooleanFromObj(nullptr, objv[1], &on) == TCL_OK) {
        on != 0 ? debugging_on() : debugging_off();
        return TCL_OK;
    }
    const auto* row = command_row(interp, debug_words, objv[1], "subcommand");
    if (row == nullptr) {
        return TCL_ERROR;
    }
    if (objc != 3) {
        return wrong_count(interp, 1, objv, nullptr);
    }
    row->set(Tcl_GetString(objv[2]));
    return TCL_OK;
}

/* ::qel::timestamp */
int ParvoTimestampCmd(ClientData /*unused*/, Tcl_Interp* interp, int objc,
                      Tcl_Obj* const objv[]) {
    char now[timestampMax];
    if (objc != 1) {
        return wrong_count(interp, 1, objv, nullptr);
    }
    timestamp(now, sizeof now);
    Tcl_Obj* text = Tcl_NewStringObj(now, -1);
    if (text == nullptr) {
        return fail(interp, "failed to allocate Tcl string", "QEL", "TIMESTAMP");
    }
    Tcl_SetObjResult(interp, text);
    return TCL_OK;
}

/*
 * Runs once for each load in the exiting thread.  The handler of a load after the first
 * socket runs before the sockets' own and tells that they are left; the last one finds
 * none.  The log is the process's: it ends for every thread.
 */
void pv_exit_handler(ClientData clientData) {
    DEBUG_LINE("pv_exit_handler", "thread exit handler to destroy default ctx");
    pv_ctx_default_destroy(clientData);
    DEBUG_LINE("pv_exit_handler", "thread exit handler: done");
    debugging_reset();
}

void commands_install(Tcl_Interp* interp) {
    static constexpr struct {
        const char* name;
        Tcl_ObjCmdProc* proc;
    } commands[] = {
        {"::zmq::build", ParvoBuildCmd},         {"::zmq::version", ParvoVersionCmd},
        {"::zmq::socket", ParvoSocketCmd},       {"::zmq::poll", ParvoPollCmd},
        {"::zmq::debug", ParvoDebugCmd},         {"::qel::reactor", ParvoReactorCmd},
        {"::qel::timestamp", ParvoTimestampCmd},
    };
    for (const auto& command : commands) {
        Tcl_CreateObjCommand(interp, command.name, command.proc, nullptr, nullptr);
    }
}

} // namespace

int Parvo_Init(Tcl_Interp* interp) {
    if (interp == nullptr || Tcl_InitStubs(interp, tclWanted, 0) == nullptr) {
        return TCL_ERROR;
    }
    if (pv_ctx_default_new(interp) == nullptr) {
        return fail(interp, "failed to create default ctx", "ZMQ", "INIT", "CTX");
    }
    Tcl_CreateThreadExitHandler(pv_exit_handler, nullptr);
    commands_install(interp);
    pv_socket_access_offer(interp);
    Tcl_PkgProvideEx(interp, "zmq", PARVO_VERSION, nullptr);
    return TCL_OK;
}
