/*
 * socket_settle.h -- waits until no connection of a socket is half gone.
 */
#ifndef PARVO_SOCKET_SETTLE_H
#define PARVO_SOCKET_SETTLE_H

/*
 * Makes a change of high-water marks safe for a bound or connected ZeroMQ socket, at
 * the cost of about half a millisecond; does nothing where libzmq needs no such care.
 * Returns 0, or -1 with errno set (EMFILE, EAGAIN ...) when it could not be done.
 */
int pv_socket_settle(void* socket);

#endif
