/*
 * ctx.h -- the default ZeroMQ context, shared by all threads of the process.
 */
#ifndef PARVO_CTX_H
#define PARVO_CTX_H

#include <tcl.h>

/*
 * The default context, created when there is none.  Returns null after a failure,
 * with an error ("ZMQ" "CTX" "DEFAULT") left in interp.  Takes no lock when the
 * context is there.
 */
void* pv_ctx_default_new(Tcl_Interp* interp);

/*
 * Terminates the context, as a thread's exit handler asks for it, unless a socket is
 * counted; standard error then tells that sockets are left.  Its argument is ignored.
 * Holds the lock for the whole termination: 100 ms, and as long as a closed socket
 * lingers; meanwhile no thread can create or close a socket.
 */
void pv_ctx_default_destroy(ClientData unused);

/*
 * The default context with one more socket counted: the caller owes one call of
 * pv_ctx_default_for_socket_destroy.  Returns null after a failure, with an error
 * ("ZMQ" "CTX" "DEFAULT") left in interp and nothing counted.
 */
void* pv_ctx_default_for_socket_new(Tcl_Interp* interp);

/*
 * The version of libzmq that was loaded, as ZMQ_MAKE_VERSION gives it: 40304 is 4.3.4.
 * Versions differ in what they survive.
 */
int pv_zmq_version();

/*
 * Opens the null device on each standard descriptor that is closed, so that ZeroMQ is
 * not given one: what the program writes to its standard error would go into ZeroMQ's
 * connection and end the process.  Called before ZeroMQ opens descriptors.
 */
void pv_ctx_standard_descriptors();

/* Counts one socket less; its argument is ignored.  Never ends the context. */
void pv_ctx_default_for_socket_destroy(ClientData unused);

#endif
