/*
 * socket.h -- the per-thread socket registry and the command ::zmq::socket.
 *
 * The registry is where a Tcl word is recognised as a socket: poll and the reactor
 * take a name that it does not know as the name of a channel.
 */
#ifndef PARVO_SOCKET_H
#define PARVO_SOCKET_H

#include <tcl.h>

struct PVReactor;
struct PVSockData;

/* Command procedure of ::zmq::socket; no client data. */
int ParvoSocketCmd(ClientData unused, Tcl_Interp* interp, int objc,
                   Tcl_Obj* const objv[]);

/*
 * The ZeroMQ socket of the socket command that name resolves to in interp, or null
 * when name is no socket command of this thread.  Leaves an error only when the
 * thread's registry cannot be made.
 */
void* pv_socket_get(Tcl_Interp* interp, const char* name);

/*
 * The same for a word of a script, without any error.  The word remembers the command
 * that it named, as the first word of any command does, so that the next look-up is
 * short.
 */
void* pv_socket_get_word(Tcl_Interp* interp, Tcl_Obj* word);

/*
 * The record of the socket command that name resolves to in interp.  Any command's
 * client data would be returned: callers ask pv_socket_get first.  Returns null
 * with an error ("ZMQ" "SOCKET" "DATA" name) when there is no such command.
 */
PVSockData* pv_socket_data(Tcl_Interp* interp, const char* name);

/*
 * A new object, without a reference, that holds the full name of the socket's
 * command as it is now.  The name is read in the command's own interpreter: another
 * one would take its global namespace for a foreign one.
 */
Tcl_Obj* pv_socket_name(const PVSockData* d);

/*
 * Tells whether the socket's command has no name any more: its deletion is under way
 * and a trace on it looks.  Its full name must not be asked for then: the namespace may
 * have been freed.
 */
bool pv_socket_nameless(const PVSockData* d);

/* The record (null allowed) remembers reactor r, which forgets the socket on deletion.
 */
void pv_socket_register_with_reactor(PVSockData* d, PVReactor* r);

/* The record (null allowed) forgets its reactor. */
void pv_socket_unregister_from_reactor(PVSockData* d);

/* Account one whole message of so many payload bytes; d is not null. */
void pv_socket_sent_bytes(PVSockData* d, Tcl_WideInt bytes);
void pv_socket_received_bytes(PVSockData* d, Tcl_WideInt bytes);

/* Lets a companion library that interp loads find sockets: see socket_access.h. */
void pv_socket_access_offer(Tcl_Interp* interp);

/* The name of a ZeroMQ socket type, such as "PUB", or "UNKNOWN"; static text. */
const char* pv_socket_type_name(int type);

#endif
