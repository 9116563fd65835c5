/*
 * reactor.cpp -- the reactor's life and its handlers.
 *
 * No entry of the table is without a script, but for bare descriptors.  Scripts may
 * change the table while the loop walks it, so nobody keeps a pointer into it across a
 * script.  A channel that is closed and a socket that is deleted leave the table by
 * themselves.
 */
#include "reactor.h"

#include "debugging.h"
#include "reactor_bgerror.h"
#include "reactor_record.h"
#include "reactor_signal.h"
#include "reactor_table.h"
#include "reactor_timer.h"
#include "socket.h"
#include "tclsupport.h"

namespace {

constexpr int allEvents = -1; // mask that names every event

Tcl_ThreadDataKey dataKey;

PVReactor* thread_reactor() {
    return static_cast<PVReactor*>(Tcl_GetThreadData(&dataKey, sizeof(PVReactor)));
}

// Entries.

void channel_closed(ClientData channel);

/* Removes the entry when it has no script left. */
void pv_event_compact(PVReactor* r, int position) {
    const PVPollInfo& info = r->poll.infos[position];
    if (info.read != nullptr || info.write != nullptr) {
        return;
    }
    if (info.kind == EntryKind::socket) {
        pv_socket_unregister_from_reactor(info.socket);
    }
    if (info.channel != nullptr) {
        Tcl_DeleteCloseHandler(info.channel, channel_closed, info.channel);
    }
    pv_event_remove(r, position);
}

/* Deletes the handlers of the entry at position (-1: none) that events names. */
void pv_event_delete(PVReactor* r, int position, int events) {
    if (position != -1) {
        pv_event_clear(r, position, events);
        pv_event_compact(r, position);
    }
}

/* Deletes all handlers of an entry whose channel is no longer ours to look at. */
void channel_entry_delete(PVReactor* r, int position) {
    r->poll.infos[position].channel = nullptr;
    pv_event_delete(r, position, allEvents);
}

/*
 * Called by Tcl when a channel is closed that has, or had, an entry for each of its
 * descriptors.  One that had may have given its descriptor to another channel already.
 */
void channel_closed(ClientData channel) {
    PVReactor* r = thread_reactor();
    for (int i = r->poll.nitems - 1; i >= 0; i--) {
        if (r->poll.infos[i].channel == channel) {
            channel_entry_delete(r, i);
        }
    }
}

/* The entry of a descriptor is for this channel from now on. */
void channel_watch(PVReactor* r, int position, Tcl_Channel channel) {
    PVPollInfo* info = &r->poll.infos[position];
    if (info->channel != channel) {
        info->channel = channel;
        set_slot(info->name, Tcl_NewStringObj(Tcl_GetChannelName(channel), -1));
        Tcl_CreateCloseHandler(channel, channel_closed, channel);
    }
}

// Channels.

/* Tcl's word for the direction of an event. */
int direction_of(int event) {
    return event == ZMQ_POLLIN ? TCL_READABLE : TCL_WRITABLE;
}

/* The channel that has a name in interp, or null; leaves interp as it was. */
Tcl_Channel channel_by_name(Tcl_Interp* interp, Tcl_Obj* name) {
    const ObjRef held(name);
    Tcl_InterpState state = Tcl_SaveInterpState(interp, TCL_OK);
    Tcl_Channel channel = Tcl_GetChannel(interp, Tcl_GetString(name), nullptr);
    Tcl_RestoreInterpState(interp, state);
    return channel;
}

/* The events of an entry for which its channel no longer has the entry's descriptor. */
int events_gone(const PVReactor* r, int position) {
    int gone = 0;
    const zmq_pollitem_t& item = r->poll.items[position];
    constexpr int events[] = {ZMQ_POLLIN, ZMQ_POLLOUT};
    for (const int event : events) {
        if ((item.events & event) != 0 &&
            channel_descriptor(r->poll.infos[position].channel, direction_of(event)) !=
                item.fd) {
            gone |= event;
        }
    }
    return gone;
}

/*
 * The descriptor of a channel for the direction of event, or -1 with an error left in
 * interp.  found (may be null) receives the channel.
 */
int chan_to_fd(Tcl_Interp* interp, const char* name, short event, Tcl_Channel* found) {
    Tcl_Channel channel = Tcl_GetChannel(interp, name, nullptr);
    if (channel == nullptr) {
        fail(interp, Tcl_ObjPrintf("\"%s\" is neither a socket nor a channel", name),
             "ZMQ", "REACTOR", "EVENT", "CHAN", name);
        return -1;
    }
    const int fd = channel_descriptor(channel, direction_of(event));
    if (fd == -1) {
        fail(interp,
             Tcl_ObjPrintf("no %s channel for \"%s\"",
                           event == ZMQ_POLLIN ? "readable" : "writable", name),
             "ZMQ", "REACTOR", "EVENT", "CHAN", name);
        return -1;
    }
    if (found != nullptr) {
        *found = channel;
    }
    return fd;
}

/* The same, once what had gone of the descriptor's entry has left the table. */
int chan_to_fresh_fd(PVReactor* r, const char* name, short event, Tcl_Channel* found) {
    const int fd = chan_to_fd(r->interp, name, event, found);
    const int position = pv_event_find_chan(r, fd);
    if (position != -1) {
        pv_event_refresh(r, position);
    }
    return fd;
}

// Handlers.

int fail_full(const PVReactor* r, const char* name) {
    return fail(r->interp, Tcl_ObjPrintf("too many handlers to add \"%s\"", name),
                "ZMQ", "REACTOR", "EVENT", "FULL", name);
}

int pv_event_set_sock_handler(PVReactor* r, void* socket, short event, Tcl_Obj* script,
                              const char* name) {
    PVSockData* data = pv_socket_data(r->interp, name);
    if (data == nullptr) {
        return TCL_ERROR;
    }
    int position = pv_event_find_sock(r, socket);
    if (position == -1) {
        position = pv_event_append(r, EntryKind::socket, socket, -1);
    }
    if (position == -1) {
        return fail_full(r, name);
    }
    r->poll.infos[position].socket = data;
    pv_socket_register_with_reactor(data, r);
    pv_event_set_script(r, position, event, script);
    DEBUG_LINE("pv_event_set_sock_handler", "set handler for socket '%s'", name);
    return TCL_OK;
}

int pv_event_set_chan_handler(PVReactor* r, const char* name, short event,
                              Tcl_Obj* script) {
    Tcl_Channel channel;
    const int fd = chan_to_fresh_fd(r, name, event, &channel);
    if (fd == -1) {
        return TCL_ERROR;
    }
    int position = pv_event_find_chan(r, fd);
    if (position == -1) {
        position = pv_event_append(r, EntryKind::channel, nullptr, fd);
    }
    if (position == -1) {
        return fail_full(r, name);
    }
    channel_watch(r, position, channel);
    pv_event_set_script(r, position, event, script);
    DEBUG_LINE("pv_event_set_chan_handler", "set handler for channel '%s'", name);
    return TCL_OK;
}

/* socket: null when name is to be a channel. */
int handler_delete(PVReactor* r, void* socket, const char* name, short event) {
    if (socket != nullptr) {
        pv_event_delete(r, pv_event_find_sock(r, socket), event);
        DEBUG_LINE("pv_event_set_sock_handler", "deleted handler for socket '%s'",
                   name);
        return TCL_OK;
    }
    const int fd = chan_to_fresh_fd(r, name, event, nullptr);
    if (fd == -1) {
        return TCL_ERROR;
    }
    pv_event_delete(r, pv_event_find_chan(r, fd), event);
    DEBUG_LINE("pv_event_set_chan_handler", "deleted handler for channel '%s'", name);
    return TCL_OK;
}

// The record's life.

/*
 * An entry of a reactor that ends: its scripts are released, its socket forgets it,
 * unless the thread ends: the record may then be about to go itself, and leaving an
 * empty table is harmless.  A channel keeps its close handler, which will find no
 * entry: whether the channel is still there cannot be asked in an interpreter that is
 * being deleted.
 */
void entry_release(PVReactor* r, int position, bool threadEnds) {
    const PVPollInfo& info = r->poll.infos[position];
    pv_event_clear(r, position, allEvents);
    set_slot(r->poll.infos[position].name, nullptr);
    if (info.kind == EntryKind::socket && !threadEnds) {
        pv_socket_unregister_from_reactor(info.socket);
    }
}

/* Ends the reactor itself. */
void table_release(PVReactor* r, bool threadEnds) {
    r->signal = nullptr;
    r->timer = nullptr;
    for (int i = 0; i < r->poll.nitems; i++) {
        entry_release(r, i, threadEnds);
    }
    pv_event_free(r);
    r->running = false;
    r->initialized = false;
    r->generation++;
    DEBUG_LINE("pv_reactor_destroy", "destroyed reactor");
}

void reactor_interp_deleted(ClientData clientData, Tcl_Interp* interp);
void pv_reactor_destroy(ClientData clientData);

/* Ends a set-up, whole or begun, and the stores with it. */
void reactor_release(PVReactor* r, bool threadEnds) {
    Tcl_DontCallWhenDeleted(r->interp, reactor_interp_deleted, r);
    Tcl_DeleteThreadExitHandler(pv_reactor_destroy, r);
    if (r->initialized) {
        table_release(r, threadEnds);
    }
    r->interp = nullptr;
    pv_signal_destroy();
    pv_timer_destroy();
    pv_bgerror_destroy();
}

void pv_reactor_destroy(ClientData clientData) {
    reactor_release(static_cast<PVReactor*>(clientData), true);
}

void reactor_interp_deleted(ClientData clientData, Tcl_Interp* /*interp*/) {
    reactor_release(static_cast<PVReactor*>(clientData), false);
}

/*
 * The ends of the thread and of the interpreter are watched from the first step on,
 * here alone: Tcl calls the watchers of an interpreter's deletion in any order, and the
 * stores are to end in one, also after a set-up that failed half-way.
 */
PVReactor* pv_reactor_init(PVReactor* r, Tcl_Interp* interp) {
    if (r->interp == nullptr) {
        r->interp = interp;
        r->running = false;
        r->poll = PVPoll();
        Tcl_CreateThreadExitHandler(pv_reactor_destroy, r);
        Tcl_CallWhenDeleted(interp, reactor_interp_deleted, r);
    }
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
    DEBUG_LINE("pv_reactor_init", "initialized reactor");
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
    if (r->initialized && Tcl_InterpDeleted(r->interp) == 0) {
        return r;
    }
    if (interp == nullptr) {
        return nullptr;
    }
    if (r->interp != nullptr && r->interp != interp) {
        reactor_release(r, false); // it was deleted, or its set-up failed half-way
    }
    return pv_reactor_init(r, interp);
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
    if (*Tcl_GetString(script) == '\0') {
        return handler_delete(r, socket, name, event);
    }
    return socket != nullptr ? pv_event_set_sock_handler(r, socket, event, script, name)
                             : pv_event_set_chan_handler(r, name, event, script);
}

void pv_event_refresh_all(PVReactor* r) {
    int i = 0;
    while (i < r->poll.nitems) {
        const int nitems = r->poll.nitems;
        pv_event_refresh(r, i);
        i += r->poll.nitems < nitems ? 0 : 1; // the next one may have moved here
    }
}

void pv_event_refresh(PVReactor* r, int position) {
    if (r->poll.infos[position].kind != EntryKind::channel) {
        return;
    }
    Tcl_Channel channel = channel_by_name(r->interp, r->poll.infos[position].name);
    if (channel != r->poll.infos[position].channel) {
        channel_entry_delete(r, position);
        return;
    }
    const int gone = events_gone(r, position);
    if (gone != 0) {
        pv_event_delete(r, position, gone);
    }
}

Tcl_Obj* pv_reactor_item_name(const PVReactor* r, int position) {
    const PVPollInfo& info = r->poll.infos[position];
    if (info.kind == EntryKind::channel) {
        return Tcl_NewStringObj(Tcl_GetChannelName(info.channel), -1);
    }
    return info.kind == EntryKind::socket && !pv_socket_nameless(info.socket)
               ? pv_socket_name(info.socket)
               : nullptr;
}

int pv_event_register_fd(PVReactor* r, int fd, short event) {
    int position = pv_event_find_chan(r, fd);
    if (position != -1) { // the number may be that of a channel that has gone
        pv_event_refresh(r, position);
        position = pv_event_find_chan(r, fd);
    }
    if (position != -1) {
        return position;
    }
    position = pv_event_append(r, EntryKind::descriptor, nullptr, fd);
    if (position == -1) {
        return -1;
    }
    r->poll.items[position].events = event;
    DEBUG_LINE("pv_event_register_fd", "registered fd=%d in reactor", fd);
    return position;
}

void pv_event_unregister_fd(PVReactor* r, int fd, short event) {
    const int position = pv_event_find_chan(r, fd);
    if (position == -1) {
        return;
    }
    pv_event_delete(r, position, event);
    DEBUG_LINE("pv_event_unregister_fd", "unregistered fd=%d from reactor", fd);
}

void pv_reactor_unregister_socket(PVReactor* r, void* socket) {
    if (r != nullptr) {
        pv_event_delete(r, pv_event_find_sock(r, socket), allEvents);
    }
}
