/*
 * monitor_relay.cpp -- carries the events of a socket's monitor to a script's endpoint.
 *
 * libzmq sends an event from whatever thread it happens in, and waits until the PAIR
 * socket at the other end has room for it.  While nothing is connected there, or that
 * socket is not read, ZeroMQ's I/O thread stands still, with every connection of the
 * process; a bind or close stands still likewise.  So libzmq's events go to a thread of
 * the monitor's own, which always receives them.  It passes them on while there is room
 * and keeps some until the script's socket connects; what finds no room is dropped.
 *
 * The thread ends with the event monitor_stopped, which libzmq sends when the monitor
 * is stopped and when the socket's last connection is gone, or with the context.  The
 * monitor is freed by the one that leaves it last, this thread or the socket's.  It is
 * no memory of Tcl's, for the thread is none.
 */
#include "monitor_relay.h"

#include "../signal_block.h"
#include "../socket_access.h"

#include <atomic>
#include <errno.h>
#include <new>
#include <pthread.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <zmq.h>

namespace {

constexpr size_t eventsKept = 256;        // until a socket has connected, or has room
constexpr size_t places = eventsKept + 1; // the last event is kept in any case

/* An event's two frames. */
struct Event {
    zmq_msg_t head; // number and value
    zmq_msg_t address;
};

} // namespace

struct PVMonitor {
    void* source = nullptr;   // PAIR that libzmq's events come from
    void* sink = nullptr;     // PAIR bound to the script's endpoint
    char* endpoint = nullptr; // owned copy
    pthread_t thread;
    bool tells_stop = false;          // the script wants monitor_stopped as well
    std::atomic<bool> left = {false}; // one of the two threads has done with it
    size_t first = 0;                 // place of the oldest event that is kept
    size_t count = 0;                 // how many are kept
    Event kept[places];               // a ring
};

namespace {

void event_close(Event* event) {
    zmq_msg_close(&event->head);
    zmq_msg_close(&event->address);
}

/* Receives an event, both frames or nothing. */
bool event_receive(void* source, Event* event) {
    zmq_msg_init(&event->head);
    zmq_msg_init(&event->address);
    if (zmq_msg_recv(&event->head, source, 0) != -1 &&
        zmq_msg_recv(&event->address, source, 0) != -1) {
        return true;
    }
    event_close(event);
    return false;
}

int event_number(Event* event) {
    uint16_t number = 0;
    if (zmq_msg_size(&event->head) >= sizeof number) {
        memcpy(&number, zmq_msg_data(&event->head), sizeof number);
    }
    return number;
}

/* Passes on what is kept, as far as there is room. */
void kept_send(PVMonitor* m) {
    while (m->count > 0) {
        Event* event = &m->kept[m->first];
        if (zmq_msg_send(&event->head, m->sink, ZMQ_DONTWAIT | ZMQ_SNDMORE) == -1) {
            return;
        }
        // Where the first frame found room the second one does, unless the peer has
        // gone in between: then nobody gets this event.
        zmq_msg_send(&event->address, m->sink, ZMQ_DONTWAIT);
        event_close(event);
        m->first = (m->first + 1) % places;
        m->count--;
    }
}

/*
 * Waits for something to do and does it; false once there is nothing more to come.  No
 * other failure ends the thread: without it the socket would stand still.
 */
bool pv_relay_step(PVMonitor* m) {
    zmq_pollitem_t items[] = {{m->source, 0, ZMQ_POLLIN, 0},
                              {m->sink, 0, ZMQ_POLLOUT, 0}};
    bool last = false;
    if (zmq_poll(items, m->count > 0 ? 2 : 1, -1) == -1) {
        return zmq_errno() != ETERM;
    }
    if ((items[0].revents & ZMQ_POLLIN) != 0) {
        Event* event = &m->kept[(m->first + m->count) % places];
        if (!event_receive(m->source, event)) {
            return zmq_errno() != ETERM;
        }
        last = event_number(event) == monitorStopped;
        if (last ? m->tells_stop : m->count < eventsKept) {
            m->count++;
        } else {
            event_close(event);
        }
    }
    kept_send(m);
    return !last;
}

/* Closes what a monitor has opened. */
void monitor_close(PVMonitor* m) {
    for (; m->count > 0; m->count--) {
        event_close(&m->kept[m->first]);
        m->first = (m->first + 1) % places;
    }
    if (m->source != nullptr) {
        zmq_close(m->source);
    }
    if (m->sink != nullptr) {
        // A close by itself frees the endpoint a little later.
        zmq_unbind(m->sink, m->endpoint);
        zmq_close(m->sink);
    }
}

void monitor_free(PVMonitor* m) {
    free(m->endpoint);
    m->~PVMonitor();
    free(m);
}

/* One of the two threads has done with the monitor. */
void monitor_let_go(PVMonitor* m) {
    if (m->left.exchange(true)) {
        monitor_free(m);
    }
}

void* pv_relay_run(void* argument) {
    auto* m = static_cast<PVMonitor*>(argument);
    while (pv_relay_step(m)) {
    }
    monitor_close(m);
    monitor_let_go(m);
    return nullptr;
}

/* A monitor without sockets; null with errno set when memory is short. */
PVMonitor* monitor_new(const char* endpoint) {
    void* memory = malloc(sizeof(PVMonitor));
    if (memory == nullptr) {
        return nullptr;
    }
    auto* m = new (memory) PVMonitor;
    m->endpoint = strdup(endpoint);
    if (m->endpoint == nullptr) {
        monitor_free(m);
        return nullptr;
    }
    return m;
}

/*
 * Makes libzmq send the events of a socket to the monitor's source.  The source
 * connects first: there is no moment at which an event finds nobody.
 */
bool source_attach(PVMonitor* m, void* socket, int events) {
    static std::atomic<unsigned long> number = {0};
    char inner[48]; // an endpoint that nobody else has
    snprintf(inner, sizeof inner, "inproc://parvo-monitor-%lu", number++);
    if (zmq_connect(m->source, inner) == -1) {
        return false;
    }
    if (zmq_socket_monitor(socket, inner, events | monitorStopped) == -1) {
        const int error = zmq_errno();
        zmq_bind(m->sink, inner); // a connection that nobody accepts would never close
        errno = error;
        return false;
    }
    return true;
}

/* Opens everything and starts the thread; false with errno set after a failure. */
bool monitor_open(PVMonitor* m, const PVSocketAccess* access, void* socket,
                  int events) {
    m->source = access->open_pair();
    m->sink = m->source != nullptr ? access->open_pair() : nullptr;
    if (m->sink == nullptr || zmq_bind(m->sink, m->endpoint) == -1 ||
        !source_attach(m, socket, events)) {
        return false;
    }
    SignalBlock block;
    const int error = pthread_create(&m->thread, nullptr, pv_relay_run, m);
    if (error != 0) {
        zmq_socket_monitor(socket, nullptr, 0);
        errno = error;
    }
    return error == 0;
}

} // namespace

PVMonitor* pv_monitor_start(const PVSocketAccess* access, void* socket,
                            const char* endpoint, int events) {
    PVMonitor* m = monitor_new(endpoint);
    if (m == nullptr) {
        return nullptr;
    }
    m->tells_stop = (events & monitorStopped) != 0;
    if (!monitor_open(m, access, socket, events)) {
        const int error = errno;
        monitor_close(m);
        monitor_free(m);
        errno = error;
        return nullptr;
    }
    return m;
}

int pv_monitor_stop(PVMonitor* monitor, void* socket) {
    if (zmq_socket_monitor(socket, nullptr, 0) == -1) {
        return -1;
    }
    pthread_join(monitor->thread, nullptr);
    monitor_let_go(monitor);
    return 0;
}

void pv_monitor_leave(PVMonitor* monitor) {
    pthread_detach(monitor->thread);
    monitor_let_go(monitor);
}
