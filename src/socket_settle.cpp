/*
 * socket_settle.cpp -- waits until each connection of a socket has both of its ends.
 *
 * libzmq up to 4.3.5 tells the other end of each connection of new high-water marks,
 * also an end that is about to be freed, or has been: ZeroMQ's I/O thread frees its end
 * of a tcp or ipc connection once the socket has agreed to its end, while the socket
 * keeps the connection until it hears of that.  A change of marks in between ends the
 * process.
 *
 * The I/O thread does what it is told in the order in which it was told.  So a message
 * between two other sockets, through the same thread, comes after everything that this
 * socket had agreed to before, and after the answers to that.  When the socket has no
 * command waiting then, no connection is half gone.  The context has one I/O thread,
 * the number that libzmq starts unless it is told otherwise.
 *
 * The other end of an inproc connection belongs to the peer's own thread: nothing short
 * of that thread's next call tells whether it has been freed.
 */
#include "socket_settle.h"

#include "ctx.h"

#include <errno.h>
#include <poll.h>
#include <stdio.h>
#include <sys/time.h>
#include <unistd.h>
#include <zmq.h>

namespace {

constexpr int firstHarmless = ZMQ_MAKE_VERSION(4, 3, 6); // checks the other end
constexpr int roundTripMax = 5000; // milliseconds; a round trip takes some 0.4
constexpr int roundsMax = 1000;    // each meets a peer that has just come or gone

/* A short-lived PAIR socket; null with errno set after a failure. */
void* pair_open(void* ctx) {
    const int linger = 0;
    const int wait = roundTripMax;
    void* socket = zmq_socket(ctx, ZMQ_PAIR);
    if (socket != nullptr) {
        zmq_setsockopt(socket, ZMQ_LINGER, &linger, sizeof linger);
        zmq_setsockopt(socket, ZMQ_RCVTIMEO, &wait, sizeof wait);
    }
    return socket;
}

void pair_close(void* socket) {
    const int error = errno;
    if (socket != nullptr) {
        zmq_close(socket);
    }
    errno = error;
}

/* Sends an empty message through the I/O thread; false with errno set after a failure.
 */
bool round_trip(void* from, void* to) {
    char endpoint[96]; // the prefix, three numbers and a pointer
    struct timeval now;
    gettimeofday(&now, nullptr);
    // A name outside the file system that no other process or thread takes.
    snprintf(endpoint, sizeof endpoint, "ipc://@parvo-%d-%p-%ld%06ld", getpid(), from,
             static_cast<long>(now.tv_sec), static_cast<long>(now.tv_usec));
    return zmq_bind(to, endpoint) == 0 && zmq_connect(from, endpoint) == 0 &&
           zmq_send(from, "", 0, ZMQ_DONTWAIT) == 0 && zmq_recv(to, nullptr, 0, 0) == 0;
}

/* Returns once the I/O thread has done all that it was told before. */
bool io_thread_catch_up(void* ctx) {
    void* from = pair_open(ctx);
    void* to = pair_open(ctx);
    const bool done = from != nullptr && to != nullptr && round_trip(from, to);
    pair_close(from);
    pair_close(to);
    return done;
}

} // namespace

int pv_socket_settle(void* socket) {
    pollfd commands = {-1, POLLIN, 0};
    size_t size = sizeof commands.fd;
    if (pv_zmq_version() >= firstHarmless) {
        return 0;
    }
    if (zmq_getsockopt(socket, ZMQ_FD, &commands.fd, &size) == -1) {
        return -1;
    }
    pv_ctx_standard_descriptors();
    for (int i = 0; i < roundsMax; i++) {
        int events; // asking for them makes the socket do what it is told
        size = sizeof events;
        if (zmq_getsockopt(socket, ZMQ_EVENTS, &events, &size) == -1 ||
            !io_thread_catch_up(pv_ctx_default_new(nullptr))) {
            return -1;
        }
        if (poll(&commands, 1, 0) == 0) {
            return 0;
        }
    }
    errno = EAGAIN; // an error is better than a change that may end the process
    return -1;
}
