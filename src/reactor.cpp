/*
 * reactor.cpp -- the reactor's record and its handler table.
 *
 * Every operation leaves the table as zmq_poll may read it at once: live entries
 * contiguous and in the order in which they were added, events matching scripts, no
 * entry without one.  Scripts may change the table while the loop walks it, so nobody
 * keeps a pointer into it across a script.  A channel that is closed and a socket that
 * is deleted leave the table by themselves.
 */
#include "reactor.h"

#include "debugging.h"
#include "reactor_bgerror.h"
#include "reactor_record.h"
#include "reactor_signal.h"
#include "reactor_timer.h"
#include "socket.h"
#include "tclsupport.h"

#include <assert.h>
#include <limits.h>
#include <stdint.h>
#include <string.h>

namespace {

constexpr int allEvents = -1; // mask that names every event
constexpr zmq_pollitem_t freeItem = {nullptr, -1, 0, 0};
constexpr PVPollInfo freeInfo = {nullptr, nullptr, nullptr, nullptr};

Tcl_ThreadDataKey dataKey;

PVReactor* thread_reactor() {
    return static_cast<PVReactor*>(Tcl_GetThreadData(&dataKey, sizeof(PVReactor)));
}

// The table.

/* Doubles the capacity; false when zmq_poll could not count that many entries. */
bool pv_reactor_resize(PVReactor* r) {
    const size_t size = r->poll.size == 0 ? 1 : 2 * r->poll.size;
    assert(r->poll.nitems <= size && "wrong initialisation?");
    if (size > INT_MAX / sizeof(PVPollInfo)) {
        return false;
    }
    auto* items = reinterpret_cast<zmq_pollitem_t*>(
        Tcl_Alloc(static_cast<unsigned>(size * sizeof(zmq_pollitem_t))));
    auto* infos = reinterpret_cast<PVPollInfo*>(
        Tcl_Alloc(static_cast<unsigned>(size * sizeof(PVPollInfo))));
    for (size_t i = 0; i < size; i++) {
        items[i] = i < r->poll.nitems ? r->poll.items[i] : freeItem;
        infos[i] = i < r->poll.nitems ? r->poll.infos[i] : freeInfo;
    }
    if (r->poll.size > 0) {
        Tcl_Free(reinterpret_cast<char*>(r->poll.items));
        Tcl_Free(reinterpret_cast<char*>(r->poll.infos));
    }
    r->poll.items = items;
    r->poll.infos = infos;
    r->poll.size = size;
    return true;
}

int pv_event_find_sock(const PVReactor* r, const void* socket) {
    for (size_t i = 0; i < r->poll.nitems; i++) {
        if (r->poll.items[i].socket == socket) {
            return static_cast<int>(i);
        }
    }
    return -1;
}

/* Socket entries carry -1, which is no descriptor. */
int pv_event_find_chan(const PVReactor* r, int fd) {
    for (size_t i = 0; fd >= 0 && i < r->poll.nitems; i++) {
        if (r->poll.items[i].fd == fd) {
            return static_cast<int>(i);
        }
    }
    return -1;
}

int entry_append(PVReactor* r, void* socket, int fd) {
    if (r->poll.nitems == r->poll.size && !pv_reactor_resize(r)) {
        return -1;
    }
    const size_t position = r->poll.nitems++;
    r->poll.items[position].socket = socket;
    r->poll.items[position].fd = fd;
    return static_cast<int>(position);
}

/* The position of the socket's entry, appended when there is none; -1: no room. */
int pv_event_set_sock(PVReactor* r, void* socket) {
    const int position = pv_event_find_sock(r, socket);
    return position != -1 ? position : entry_append(r, socket, -1);
}

/* The same for a descriptor. */
int pv_event_set_chan(PVReactor* r, int fd) {
    const int position = pv_event_find_chan(r, fd);
    return position != -1 ? position : entry_append(r, nullptr, fd);
}

void pv_event_set_script(PVReactor* r, int position, short event, Tcl_Obj* script) {
    zmq_pollitem_t* item = &r->poll.items[position];
    PVPollInfo* info = &r->poll.infos[position];
    item->events = static_cast<short>(item->events | event);
    if (script != nullptr) {
        script = unshared(script);
    }
    set_slot(event == ZMQ_POLLIN ? info->read : info->write, script);
}

void pv_event_clear(PVReactor* r, int position, int event) {
    if ((event & ZMQ_POLLIN) != 0) {
        set_slot(r->poll.infos[position].read, nullptr);
    }
    if ((event & ZMQ_POLLOUT) != 0) {
        set_slot(r->poll.infos[position].write, nullptr);
    }
    zmq_pollitem_t* item = &r->poll.items[position];
    item->events =
        static_cast<short>(item->events & ~(event & (ZMQ_POLLIN | ZMQ_POLLOUT)));
}

void pv_event_delete(PVReactor* r, int position, int event);

/*
 * Called by Tcl when a channel is closed that has, or had, an entry for each of its
 * descriptors.  One that had may have given its descriptor to another channel already.
 */
void channel_closed(ClientData channel) {
    PVReactor* r = thread_reactor();
    for (size_t i = r->poll.nitems; i-- > 0;) {
        if (r->poll.infos[i].data == channel) {
            r->poll.infos[i].data = nullptr; // Tcl drops the close handler
            pv_event_delete(r, static_cast<int>(i), allEvents);
        }
    }
}

/* The entry of a descriptor is for this channel from now on. */
void channel_watch(PVReactor* r, int position, Tcl_Channel channel) {
    PVPollInfo* info = &r->poll.infos[position];
    if (info->data != channel) {
        info->data = channel;
        set_slot(info->name, Tcl_NewStringObj(Tcl_GetChannelName(channel), -1));
        Tcl_CreateCloseHandler(channel, channel_closed, channel);
    }
}

/* Removes the entry when it has no script left; later entries move down. */
void pv_event_compact(PVReactor* r, int position) {
    zmq_pollitem_t* items = r->poll.items;
    PVPollInfo* infos = r->poll.infos;
    if (infos[position].read != nullptr || infos[position].write != nullptr) {
        return;
    }
    if (items[position].socket != nullptr) {
        pv_socket_unregister_from_reactor(
            static_cast<PVSockData*>(infos[position].data));
    } else if (infos[position].data != nullptr) {
        Tcl_DeleteCloseHandler(static_cast<Tcl_Channel>(infos[position].data),
                               channel_closed, infos[position].data);
    }
    set_slot(infos[position].name, nullptr);
    const size_t last = r->poll.nitems - 1;
    const size_t behind = last - static_cast<size_t>(position);
    memmove(&items[position], &items[position + 1], behind * sizeof *items);
    memmove(&infos[position], &infos[position + 1], behind * sizeof *infos);
    items[last] = freeItem;
    infos[last] = freeInfo;
    r->poll.nitems = last;
}

/* Deletes the handlers that event names; position -1: nothing. */
void pv_event_delete(PVReactor* r, int position, int event) {
    if (position != -1) {
        pv_event_clear(r, position, event);
        pv_event_compact(r, position);
    }
}

void pv_event_delete_sock_handler(PVReactor* r, const void* socket, int event) {
    pv_event_delete(r, pv_event_find_sock(r, socket), event);
}

void pv_event_delete_chan_handler(PVReactor* r, int fd, short event) {
    pv_event_delete(r, pv_event_find_chan(r, fd), event);
}

// Channels that have gone.

/* The channel that has a name in interp, or null; leaves interp as it was. */
Tcl_Channel channel_by_name(Tcl_Interp* interp, Tcl_Obj* name) {
    const ObjRef held(name);
    Tcl_InterpState state = Tcl_SaveInterpState(interp, TCL_OK);
    Tcl_Channel channel = Tcl_GetChannel(interp, Tcl_GetString(name), nullptr);
    Tcl_RestoreInterpState(interp, state);
    return channel;
}

/* Tells whether a channel no longer has the entry's descriptor for one of its events.
 */
bool event_gone(const zmq_pollitem_t& item, Tcl_Channel channel, int event) {
    ClientData handle;
    const int direction = event == ZMQ_POLLIN ? TCL_READABLE : TCL_WRITABLE;
    return (item.events & event) != 0 &&
           (Tcl_GetChannelHandle(channel, direction, &handle) != TCL_OK ||
            static_cast<int>(reinterpret_cast<intptr_t>(handle)) != item.fd);
}

/* All such events of an entry. */
int events_gone(const PVReactor* r, int position, Tcl_Channel channel) {
    const zmq_pollitem_t& item = r->poll.items[position];
    return (event_gone(item, channel, ZMQ_POLLIN) ? ZMQ_POLLIN : 0) |
           (event_gone(item, channel, ZMQ_POLLOUT) ? ZMQ_POLLOUT : 0);
}

// Handlers by name.

/*
 * The descriptor of a channel for the direction of event, or -1 with an error left in
 * interp.  channel (may be null) receives the channel.
 */
int chan_to_fd(Tcl_Interp* interp, const char* name, short event, Tcl_Channel* found) {
    ClientData handle;
    const bool readable = event == ZMQ_POLLIN;
    Tcl_Channel channel = Tcl_GetChannel(interp, name, nullptr);
    if (channel == nullptr) {
        fail(interp, Tcl_ObjPrintf("\"%s\" is neither a socket nor a channel", name),
             "ZMQ", "REACTOR", "EVENT", "CHAN", name);
        return -1;
    }
    if (Tcl_GetChannelHandle(channel, readable ? TCL_READABLE : TCL_WRITABLE,
                             &handle) != TCL_OK) {
        fail(interp,
             Tcl_ObjPrintf("no %s channel for \"%s\"",
                           readable ? "readable" : "writable", name),
             "ZMQ", "REACTOR", "EVENT", "CHAN", name);
        return -1;
    }
    if (found != nullptr) {
        *found = channel;
    }
    return static_cast<int>(reinterpret_cast<intptr_t>(handle));
}

/*
 * The same, once what had gone of the descriptor's entry has left the table.  The
 * look-up is repeated, since a trace on a failed one may close the channel.
 */
int chan_to_fresh_fd(PVReactor* r, const char* name, short event, Tcl_Channel* found) {
    const int fd = chan_to_fd(r->interp, name, event, found);
    const int position = pv_event_find_chan(r, fd);
    if (position == -1) {
        return fd;
    }
    pv_event_refresh(r, static_cast<size_t>(position));
    return chan_to_fd(r->interp, name, event, found);
}

/* Passes a position on; -1, for no room in the table, leaves an error. */
int position_or_error(const PVReactor* r, int position, const char* name) {
    if (position == -1) {
        fail(r->interp, Tcl_ObjPrintf("too many handlers to add \"%s\"", name), "ZMQ",
             "REACTOR", "EVENT", "FULL", name);
    }
    return position;
}

int pv_event_set_sock_handler(PVReactor* r, void* socket, short event, Tcl_Obj* script,
                              const char* name) {
    PVSockData* data = pv_socket_data(r->interp, name);
    if (data == nullptr) {
        return TCL_ERROR;
    }
    const int position = position_or_error(r, pv_event_set_sock(r, socket), name);
    if (position == -1) {
        return TCL_ERROR;
    }
    r->poll.infos[position].data = data;
    pv_socket_register_with_reactor(data, r);
    pv_event_set_script(r, position, event, script);
    if (debugging()) {
        log_output("pv_event_set_sock_handler", "set handler for socket '%s'", name);
    }
    return TCL_OK;
}

int pv_event_set_chan_handler(PVReactor* r, const char* name, short event,
                              Tcl_Obj* script) {
    Tcl_Channel channel;
    const int fd = chan_to_fresh_fd(r, name, event, &channel);
    if (fd == -1) {
        return TCL_ERROR;
    }
    const int position = position_or_error(r, pv_event_set_chan(r, fd), name);
    if (position == -1) {
        return TCL_ERROR;
    }
    channel_watch(r, position, channel);
    pv_event_set_script(r, position, event, script);
    if (debugging()) {
        log_output("pv_event_set_chan_handler", "set handler for channel '%s'", name);
    }
    return TCL_OK;
}

int handler_delete(PVReactor* r, void* socket, const char* name, short event) {
    if (socket != nullptr) {
        pv_event_delete_sock_handler(r, socket, event);
        if (debugging()) {
            log_output("pv_event_set_sock_handler", "deleted handler for socket '%s'",
                       name);
        }
        return TCL_OK;
    }
    const int fd = chan_to_fresh_fd(r, name, event, nullptr);
    if (fd == -1) {
        return TCL_ERROR;
    }
    pv_event_delete_chan_handler(r, fd, event);
    if (debugging()) {
        log_output("pv_event_set_chan_handler", "deleted handler for channel '%s'",
                   name);
    }
    return TCL_OK;
}

// The record's life.

/*
 * Ends a set-up.  The sockets are told to forget the reactor unless the thread ends:
 * their records may then be about to go themselves, and a withdrawal from an empty
 * table is harmless.
 */
void reactor_release(PVReactor* r, bool threadEnds);

void pv_reactor_destroy(ClientData clientData) {
    if (clientData != nullptr) {
        reactor_release(static_cast<PVReactor*>(clientData), true);
    }
}

void reactor_interp_deleted(ClientData clientData, Tcl_Interp* interp) {
    auto* r = static_cast<PVReactor*>(clientData);
    if (r->interp == interp) {
        reactor_release(r, false);
    }
}

/*
 * An entry of a reactor that ends: its scripts are released, its socket forgets it.  A
 * channel keeps its close handler, which will find no entry: whether the channel is
 * still there cannot be asked in an interpreter that is being deleted.
 */
void entry_release(PVReactor* r, int position, bool threadEnds) {
    pv_event_clear(r, position, allEvents);
    set_slot(r->poll.infos[position].name, nullptr);
    if (r->poll.items[position].socket != nullptr && !threadEnds) {
        pv_socket_unregister_from_reactor(
            static_cast<PVSockData*>(r->poll.infos[position].data));
    }
}

void reactor_release(PVReactor* r, bool threadEnds) {
    if (!r->initialized) {
        return;
    }
    store_unwatch(r, r->interp, pv_reactor_destroy, reactor_interp_deleted);
    r->signal = nullptr;
    r->timer = nullptr;
    for (size_t i = 0; i < r->poll.nitems; i++) {
        entry_release(r, static_cast<int>(i), threadEnds);
    }
    if (r->poll.size > 0) {
        Tcl_Free(reinterpret_cast<char*>(r->poll.items));
        Tcl_Free(reinterpret_cast<char*>(r->poll.infos));
    }
    r->poll = {0, 0, nullptr, nullptr};
    r->running = false;
    r->interp = nullptr;
    r->initialized = false;
    r->generation++;
    if (debugging()) {
        log_output("pv_reactor_destroy", "destroyed reactor");
    }
}

PVReactor* pv_reactor_init(PVReactor* r, Tcl_Interp* interp) {
    r->interp = interp;
    r->running = false;
    r->poll = {0, 0, nullptr, nullptr};
    if (pv_bgerror(interp) == nullptr) {
        return nullptr;
    }
    if (r->initialized) {
        return r; // a trace on the default handler's definition came here first
    }
    r->timer = pv_timer(interp);
    if (r->timer == nullptr) {
        return nullptr;
    }
    r->signal = pv_signal(interp, r);
    if (r->signal == nullptr) {
        return nullptr;
    }
    r->initialized = true;
    store_watch(r, interp, pv_reactor_destroy, reactor_interp_deleted);
    if (debugging()) {
        log_output("pv_reactor_init", "initialized reactor");
    }
    return r;
}

} // namespace

PVReactor* pv_reactor(Tcl_Interp* interp) {
    PVReactor* r = thread_reactor();
    if (r == nullptr) {
        if (interp != nullptr) {
            fail(interp, "failed to get reactor thread data", "ZMQ", "REACTOR",
                 "THREAD", "DATA");
        }
        return nullptr;
    }
    if (r->initialized && Tcl_InterpDeleted(r->interp) != 0) {
        reactor_release(r, false);
    }
    if (r->initialized) {
        return r;
    }
    return interp != nullptr ? pv_reactor_init(r, interp) : nullptr;
}

bool pv_reactor_alive(const PVReactor* r, unsigned long generation) {
    return r->initialized && r->generation == generation &&
           Tcl_InterpDeleted(r->interp) == 0;
}

int pv_event_get(PVReactor* r, const char* name, short event) {
    void* socket = pv_socket_get(r->interp, name);
    int position;
    if (socket != nullptr) {
        position = pv_event_find_sock(r, socket);
    } else {
        const int fd = chan_to_fresh_fd(r, name, event, nullptr);
        if (fd == -1) {
            return TCL_ERROR;
        }
        position = pv_event_find_chan(r, fd);
    }
    if (position == -1) {
        Tcl_ResetResult(r->interp);
        return TCL_OK;
    }
    const PVPollInfo* info = &r->poll.infos[position];
    Tcl_Obj* script = event == ZMQ_POLLIN ? info->read : info->write;
    Tcl_SetObjResult(r->interp, script != nullptr ? script : Tcl_NewObj());
    return TCL_OK;
}

int pv_event_set(PVReactor* r, const char* name, short event, Tcl_Obj* script) {
    void* socket = pv_socket_get(r->interp, name);
    int length;
    Tcl_GetStringFromObj(script, &length);
    if (length == 0) {
        return handler_delete(r, socket, name, event);
    }
    return socket != nullptr ? pv_event_set_sock_handler(r, socket, event, script, name)
                             : pv_event_set_chan_handler(r, name, event, script);
}

void pv_event_refresh_all(PVReactor* r) {
    for (size_t i = 0; i < r->poll.nitems; i++) {
        const size_t nitems = r->poll.nitems;
        pv_event_refresh(r, i);
        i -= r->poll.nitems < nitems ? 1 : 0;
    }
}

void pv_event_refresh(PVReactor* r, size_t position) {
    if (r->poll.infos[position].name == nullptr) {
        return;
    }
    const int fd = r->poll.items[position].fd;
    Tcl_Channel channel = channel_by_name(r->interp, r->poll.infos[position].name);
    const int found = pv_event_find_chan(r, fd);
    if (found == -1 || r->poll.infos[found].name == nullptr) {
        return; // a trace on the failed look-up changed the table
    }
    if (channel == r->poll.infos[found].data) {
        const int gone = events_gone(r, found, channel);
        if (gone != 0) {
            pv_event_delete(r, found, gone);
        }
        return;
    }
    r->poll.infos[found].data = nullptr; // no longer ours to look at
    pv_event_delete(r, found, allEvents);
}

Tcl_Obj* pv_reactor_item_name(const PVReactor* r, size_t position) {
    void* data = r->poll.infos[position].data;
    if (r->poll.items[position].socket != nullptr) {
        return pv_socket_name(r->interp, static_cast<PVSockData*>(data));
    }
    return Tcl_NewStringObj(Tcl_GetChannelName(static_cast<Tcl_Channel>(data)), -1);
}

int pv_event_register_fd(void* reactor, int fd, short event) {
    auto* r = static_cast<PVReactor*>(reactor);
    int position = pv_event_find_chan(r, fd);
    if (position != -1) { // the number may be that of a channel that has gone
        pv_event_refresh(r, static_cast<size_t>(position));
        position = pv_event_find_chan(r, fd);
    }
    if (position != -1) {
        return position;
    }
    position = pv_event_set_chan(r, fd);
    if (position == -1) {
        return -1;
    }
    zmq_pollitem_t* item = &r->poll.items[position];
    item->events = static_cast<short>(item->events | event);
    if (debugging()) {
        log_output("pv_event_register_fd", "registered fd=%d in reactor", fd);
    }
    return position;
}

void pv_event_unregister_fd(void* reactor, int fd, short event) {
    auto* r = static_cast<PVReactor*>(reactor);
    const int position = pv_event_find_chan(r, fd);
    if (position == -1) {
        return;
    }
    pv_event_delete(r, position, event);
    if (debugging()) {
        log_output("pv_event_unregister_fd", "unregistered fd=%d from reactor", fd);
    }
}

void pv_reactor_unregister_socket(void* reactor, void* socket) {
    if (reactor != nullptr) {
        pv_event_delete_sock_handler(static_cast<PVReactor*>(reactor), socket,
                                     allEvents);
    }
}
