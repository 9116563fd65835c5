/*
 * reactor_table.cpp -- the handler table of a reactor.
 *
 * Every operation leaves the table as zmq_poll may read it at once: live entries
 * contiguous and in the order in which they were added, events matching scripts.
 */
#include "reactor_table.h"

#include "tclsupport.h"

#include <assert.h>
#include <limits.h>
#include <string.h>

namespace {

constexpr zmq_pollitem_t freeItem = {nullptr, -1, 0, 0};
constexpr PVPollInfo freeInfo = {EntryKind::none, nullptr, nullptr,
                                 nullptr,         nullptr, nullptr};

/* Tcl 8 counts the bytes of an allocation in 32 bits. */
constexpr int entriesMax = INT_MAX / static_cast<int>(sizeof(PVPollInfo));

template <typename Slot> Slot* slots(int count) {
    return static_cast<Slot*>(allocate(static_cast<size_t>(count) * sizeof(Slot)));
}

/* Doubles the capacity; false when there is no room for that many entries. */
bool pv_reactor_resize(PVReactor* r) {
    if (r->poll.size > entriesMax / 2) {
        return false;
    }
    const int size = r->poll.size == 0 ? 1 : 2 * r->poll.size;
    assert(r->poll.nitems <= size && "wrong initialisation?");
    auto* items = slots<zmq_pollitem_t>(size);
    auto* infos = slots<PVPollInfo>(size);
    for (int i = 0; i < size; i++) {
        items[i] = i < r->poll.nitems ? r->poll.items[i] : freeItem;
        infos[i] = i < r->poll.nitems ? r->poll.infos[i] : freeInfo;
    }
    if (r->poll.size > 0) {
        release(r->poll.items);
        release(r->poll.infos);
    }
    r->poll.items = items;
    r->poll.infos = infos;
    r->poll.size = size;
    return true;
}

} // namespace

int pv_event_find_sock(const PVReactor* r, const void* socket) {
    for (int i = 0; i < r->poll.nitems; i++) {
        if (r->poll.items[i].socket == socket) {
            return i;
        }
    }
    return -1;
}

int pv_event_find_chan(const PVReactor* r, int fd) {
    for (int i = 0; fd >= 0 && i < r->poll.nitems; i++) {
        if (r->poll.items[i].fd == fd) {
            return i;
        }
    }
    return -1;
}

int pv_event_append(PVReactor* r, EntryKind kind, void* socket, int fd) {
    if (r->poll.nitems == r->poll.size && !pv_reactor_resize(r)) {
        return -1;
    }
    const int position = r->poll.nitems++;
    r->poll.infos[position].kind = kind;
    r->poll.items[position].socket = socket;
    r->poll.items[position].fd = fd;
    return position;
}

void pv_event_set_script(PVReactor* r, int position, short event, Tcl_Obj* script) {
    zmq_pollitem_t* item = &r->poll.items[position];
    PVPollInfo* info = &r->poll.infos[position];
    item->events = static_cast<short>(item->events | event);
    set_slot(event == ZMQ_POLLIN ? info->read : info->write, unshared(script));
}

void pv_event_clear(PVReactor* r, int position, int events) {
    if ((events & ZMQ_POLLIN) != 0) {
        set_slot(r->poll.infos[position].read, nullptr);
    }
    if ((events & ZMQ_POLLOUT) != 0) {
        set_slot(r->poll.infos[position].write, nullptr);
    }
    zmq_pollitem_t* item = &r->poll.items[position];
    item->events =
        static_cast<short>(item->events & ~(events & (ZMQ_POLLIN | ZMQ_POLLOUT)));
}

void pv_event_remove(PVReactor* r, int position) {
    zmq_pollitem_t* items = r->poll.items;
    PVPollInfo* infos = r->poll.infos;
    set_slot(infos[position].name, nullptr);
    const int last = --r->poll.nitems;
    const auto behind = static_cast<size_t>(last - position);
    memmove(&items[position], &items[position + 1], behind * sizeof *items);
    memmove(&infos[position], &infos[position + 1], behind * sizeof *infos);
    items[last] = freeItem;
    infos[last] = freeInfo;
}

void pv_event_free(PVReactor* r) {
    if (r->poll.size > 0) {
        release(r->poll.items);
        release(r->poll.infos);
    }
    r->poll = PVPoll();
}
