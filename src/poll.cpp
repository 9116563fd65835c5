/*
 * poll.cpp -- the one-shot command ::zmq::poll.
 *
 * Nothing outlives a call: everything that it builds hangs from one record, which is
 * released on every path.
 */
#include "poll.h"

#include "command.h"
#include "socket.h"
#include "tclsupport.h"

#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>

namespace {

constexpr long defaultTimeout = 1; // milliseconds

/*
 * Without items zmq_poll counts its time-out in microseconds and 32 bits, so that -1
 * would end after 71 minutes and others at once: long waits are made of such slices.
 */
constexpr long sliceMax = 3600000; // milliseconds: one hour

/*
 * poll(2) refuses more entries than the process may have descriptors, and libzmq 4.3
 * ends the process when it does.  Asking for the limit takes as long as polling one
 * descriptor, so it is asked only where a poll takes many times that.  A process whose
 * limit is below this number cannot open a ZeroMQ socket beside its standard
 * descriptors: ZeroMQ's own threads take nine.
 */
constexpr int itemsUnchecked = 16; // items

bool too_many(int nitems) {
    rlimit limit;
    return nitems > itemsUnchecked && getrlimit(RLIMIT_NOFILE, &limit) == 0 &&
           static_cast<rlim_t>(nitems) > limit.rlim_cur;
}

struct PVPollArgs {
    size_t nitems;         // handles to poll
    long timeout;          // milliseconds, as zmq_poll takes it
    zmq_pollitem_t* items; // owned, nitems of them
    char* handles[1];      // nitems owned copies of the names as written, or null
};

void pv_poll_args_destroy(PVPollArgs* args) {
    if (args == nullptr) {
        return;
    }
    for (size_t i = 0; i < args->nitems; i++) {
        free(args->handles[i]);
        args->handles[i] = nullptr;
    }
    release(args->items);
    release(args);
}

void* allocate_zeroed(size_t size) {
    void* memory = allocate(size);
    memset(memory, 0, size);
    return memory;
}

PVPollArgs* pv_poll_args_new(size_t nitems) {
    auto* args = static_cast<PVPollArgs*>(
        allocate_zeroed(sizeof(PVPollArgs) + nitems * sizeof(char*)));
    args->items = static_cast<zmq_pollitem_t*>(
        allocate_zeroed((nitems + 1) * sizeof(zmq_pollitem_t)));
    args->nitems = nitems;
    args->timeout = defaultTimeout;
    return args;
}

/* The channel's readable descriptor; false with an error left in interp. */
bool channel_fd(Tcl_Interp* interp, const char* name, int* fd) {
    Tcl_Channel channel = Tcl_GetChannel(interp, name, nullptr);
    if (channel == nullptr) {
        fail(interp, Tcl_ObjPrintf("\"%s\" is neither a socket nor a channel", name),
             "ZMQ", "POLL", "HANDLE", name);
        return false;
    }
    *fd = channel_descriptor(channel, TCL_READABLE);
    if (*fd == -1) {
        fail(interp, Tcl_ObjPrintf("no readable channel for '%s'", name), "ZMQ", "POLL",
             "HANDLE", name);
        return false;
    }
    return true;
}

/* Fills one item and its name; null with an error left in interp. */
PVPollArgs* pv_poll_args_item(Tcl_Interp* interp, Tcl_Obj* handle, size_t index,
                              PVPollArgs* args) {
    const char* name = Tcl_GetString(handle);
    zmq_pollitem_t* item = &args->items[index];
    item->socket = pv_socket_get_word(interp, handle);
    if (item->socket == nullptr && !channel_fd(interp, name, &item->fd)) {
        return nullptr;
    }
    item->events = ZMQ_POLLIN;
    args->handles[index] = strdup(name);
    if (args->handles[index] == nullptr) {
        fail(interp, Tcl_ObjPrintf("failed to copy handle name \"%s\"", name), "ZMQ",
             "POLL", "HANDLE", name);
        return nullptr;
    }
    return args;
}

/* The record of one call; null with an error left in interp and nothing built. */
PVPollArgs* pv_poll_args_parse(Tcl_Interp* interp, int objc, Tcl_Obj* const objv[]) {
    long timeout = defaultTimeout;
    const bool timed = Tcl_GetLongFromObj(nullptr, objv[objc - 1], &timeout) == TCL_OK;
    PVPollArgs* args =
        pv_poll_args_new(static_cast<size_t>(timed ? objc - 2 : objc - 1));
    args->timeout = timed ? timeout : defaultTimeout;
    for (size_t i = 0; i < args->nitems; i++) {
        if (pv_poll_args_item(interp, objv[i + 1], i, args) == nullptr) {
            pv_poll_args_destroy(args);
            return nullptr;
        }
    }
    return args;
}

int pv_poll_results(Tcl_Interp* interp, PVPollArgs* args) {
    const int ready =
        pv_poll_wait(args->items, static_cast<int>(args->nitems), args->timeout);
    if (ready < 0) {
        Tcl_Obj* message = Tcl_ObjPrintf("poll failed: %s", zmq_strerror(zmq_errno()));
        return fail(interp, message, "ZMQ", "POLL");
    }
    if (ready == 0) {
        return TCL_OK;
    }
    const ObjRef names(Tcl_NewListObj(0, nullptr));
    for (size_t i = 0; i < args->nitems; i++) {
        if ((args->items[i].revents & (ZMQ_POLLIN | ZMQ_POLLERR)) != 0 &&
            Tcl_ListObjAppendElement(interp, names.get(),
                                     Tcl_NewStringObj(args->handles[i], -1)) !=
                TCL_OK) {
            return TCL_ERROR;
        }
    }
    Tcl_SetObjResult(interp, names.get());
    return TCL_OK;
}

} // namespace

/* ::zmq::poll ?handle...? ?timeout? */
int ParvoPollCmd(ClientData /*unused*/, Tcl_Interp* interp, int objc,
                 Tcl_Obj* const objv[]) {
    if (objc < 2) {
        return wrong_count(interp, 1, objv, "?handle...? ?timeout?");
    }
    PVPollArgs* args = pv_poll_args_parse(interp, objc, objv);
    if (args == nullptr) {
        return TCL_ERROR;
    }
    const int code = pv_poll_results(interp, args);
    pv_poll_args_destroy(args);
    return code;
}

int pv_poll_wait(zmq_pollitem_t* items, int nitems, long timeout) {
    if (too_many(nitems)) {
        errno = EINVAL;
        return -1;
    }
    while (nitems == 0 && (timeout < 0 || timeout > sliceMax)) {
        const int rc = zmq_poll(items, 0, sliceMax);
        if (rc < 0) {
            return rc;
        }
        timeout -= timeout < 0 ? 0 : sliceMax;
    }
    return zmq_poll(items, nitems, timeout);
}
