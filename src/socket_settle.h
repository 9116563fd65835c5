/*
 * socket_settle.h -- waits until each connection of a socket has both of its ends.
 */
#ifndef PARVO_SOCKET_SETTLE_H
#define PARVO_SOCKET_SETTLE_H

/*
 * Makes a change of high-water marks safe for a bound or connected ZeroMQ socket, at
 * the cost of a round trip through ZeroMQ's I/O thread, about half a millisecond, and
 * of one more for each time that a peer comes or goes meanwhile; does nothing where
 * libzmq needs no such care.  Returns 0, or -1 with errno set: EMFILE without
 * descriptors for the round trip, EAGAIN when the thread does not answer within 5 s or
 * when peers have come and gone in each of 1,000 round trips.
 */
int pv_socket_settle(void* socket);

#endif
