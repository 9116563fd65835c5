/*
 * monitor.cpp -- the command ::zmq::monitor: the life of a socket's connections.
 *
 * The socket's record knows its monitor and lets go of it when the socket is closed:
 * see monitor_relay.cpp.
 */
#include "extra.h"

#include "monitor_relay.h"

#include <string.h>

namespace {

constexpr char scheme[] = "inproc://";
constexpr size_t headBytes = 6; // of an event: 16 bits of number, 32 bits of value

/*
 * libzmq's numbers, which its headers do not all have.  The value of those marked is an
 * error number, as libzmq's manual says.
 */
constexpr struct Event {
    const char* word;
    int number;
    bool tells_error;
} events[] = {
    {"connected", 0x0001, false},
    {"connect_delayed", 0x0002, false},
    {"connect_retried", 0x0004, false},
    {"listening", 0x0008, false},
    {"bind_failed", 0x0010, true},
    {"accepted", 0x0020, false},
    {"accept_failed", 0x0040, true},
    {"closed", 0x0080, false},
    {"close_failed", 0x0100, true},
    {"disconnected", 0x0200, false},
    {"monitor_stopped", monitorStopped, false},
    {"handshake_failed_no_detail", 0x0800, true},
    {"handshake_succeeded", 0x1000, false},
    {"handshake_failed_protocol", 0x2000, false},
    {"handshake_failed_auth", 0x4000, false},
    {nullptr, 0, false},
};
static_assert(table_ends(events));

constexpr int allEvents = 0x7fff;

/* The numbers of the events named, together; -1 with Tcl's message left in interp. */
int events_wanted(Tcl_Interp* interp, int count, Tcl_Obj* const words[]) {
    int wanted = count == 0 ? allEvents : 0;
    for (int i = 0; i < count; i++) {
        const Event* event = command_row(interp, events, words[i], "event");
        if (event == nullptr) {
            return -1;
        }
        wanted |= event->number;
    }
    return wanted;
}

/* ::zmq::monitor start socket endpoint ?event ...? */
int pv_cmd_start(const PVSocketAccess* access, Tcl_Interp* interp, int objc,
                 Tcl_Obj* const objv[]) {
    const char* endpoint = Tcl_GetString(objv[3]);
    PVSockData* d = extra_socket(access, interp, objv[2], "MONITOR");
    if (d == nullptr) {
        return TCL_ERROR;
    }
    if (strncmp(endpoint, scheme, strlen(scheme)) != 0) {
        return fail(interp, Tcl_ObjPrintf("\"%s\" is no inproc endpoint", endpoint),
                    "ZMQ", "MONITOR", "ENDPOINT", endpoint);
    }
    const int wanted = events_wanted(interp, objc - 4, objv + 4);
    if (wanted == -1) {
        return TCL_ERROR;
    }
    if (d->monitor != nullptr) {
        return fail(interp, "the socket is monitored already", "ZMQ", "MONITOR",
                    "START", "AGAIN");
    }
    d->monitor = pv_monitor_start(access, d->socket, endpoint, wanted);
    if (d->monitor == nullptr) {
        return fail_extra(interp, "failed to monitor socket", "MONITOR", "START");
    }
    d->monitor_end = pv_monitor_leave;
    return TCL_OK;
}

/* ::zmq::monitor stop socket */
int pv_cmd_stop(const PVSocketAccess* access, Tcl_Interp* interp, int /*objc*/,
                Tcl_Obj* const objv[]) {
    PVSockData* d = extra_socket(access, interp, objv[2], "MONITOR");
    if (d == nullptr) {
        return TCL_ERROR;
    }
    if (d->monitor == nullptr) {
        return fail(interp, "the socket is not monitored", "ZMQ", "MONITOR", "STOP");
    }
    if (pv_monitor_stop(d->monitor, d->socket) == -1) {
        return fail_extra(interp, "failed to stop monitor", "MONITOR", "STOP");
    }
    d->monitor = nullptr;
    return TCL_OK;
}

/* Puts one entry into a dictionary that is being made. */
void entry_put(Tcl_Obj* dict, const char* key, Tcl_Obj* value) {
    Tcl_DictObjPut(nullptr, dict, Tcl_NewStringObj(key, -1), value);
}

/* What an event's message says. */
Tcl_Obj* event_dict(int number, int value, Tcl_Obj* address) {
    Tcl_Obj* dict = Tcl_NewDictObj();
    const Event* event = events;
    while (event->word != nullptr && event->number != number) {
        event++;
    }
    const bool error = event->word != nullptr && event->tells_error && value != 0;
    entry_put(dict, "event",
              event->word != nullptr ? Tcl_NewStringObj(event->word, -1)
                                     : Tcl_NewIntObj(number));
    entry_put(dict, "value", Tcl_NewIntObj(value));
    entry_put(dict, "error", Tcl_NewStringObj(error ? zmq_strerror(value) : "", -1));
    entry_put(dict, "address", address);
    return dict;
}

/* ::zmq::monitor event frames */
int pv_cmd_event(const PVSocketAccess* /*access*/, Tcl_Interp* interp, int /*objc*/,
                 Tcl_Obj* const objv[]) {
    Tcl_Size count;
    Tcl_Obj** frames;
    Tcl_Size length = 0;
    uint16_t number;
    int32_t value;
    if (Tcl_ListObjGetElements(interp, objv[2], &count, &frames) != TCL_OK) {
        return TCL_ERROR;
    }
    const unsigned char* head =
        count == 2 ? word_bytes(nullptr, frames[0], &length) : nullptr;
    if (head == nullptr || length != headBytes) {
        return fail(interp, "the frames are no event of a monitor", "ZMQ", "MONITOR",
                    "EVENT");
    }
    memcpy(&number, head, sizeof number);
    memcpy(&value, head + sizeof number, sizeof value);
    Tcl_SetObjResult(interp, event_dict(number, value, frames[1]));
    return TCL_OK;
}

constexpr ExtraRow subcommands[] = {
    {"start", 4, anyNumber, "socket endpoint ?event ...?", pv_cmd_start},
    {"stop", 3, 3, "socket", pv_cmd_stop},
    {"event", 3, 3, "frames", pv_cmd_event},
    {nullptr, 0, 0, nullptr, nullptr},
};
static_assert(table_ends(subcommands));

} // namespace

/* ::zmq::monitor subcommand ?arg ...? */
int ParvoMonitorCmd(ClientData clientData, Tcl_Interp* interp, int objc,
                    Tcl_Obj* const objv[]) {
    return extra_command(subcommands, clientData, interp, objc, objv);
}
