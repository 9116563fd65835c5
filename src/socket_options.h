/*
 * socket_options.h -- the three forms of a socket's configure method.
 */
#ifndef PARVO_SOCKET_OPTIONS_H
#define PARVO_SOCKET_OPTIONS_H

#include <tcl.h>

struct PVSockData;

/*
 * Each takes the record of an open socket, sets interp's result and returns TCL_OK, or
 * TCL_ERROR with an error ("ZMQ" "SOCKET" "GET" or "SET" ...) left in interp.
 */

/* Result: a dictionary of all readable options and their values, in table order. */
int pv_socket_option_get_all(Tcl_Interp* interp, const PVSockData* d);

/* Result: the value of the option of exactly this name. */
int pv_socket_option_get(Tcl_Interp* interp, const PVSockData* d, const char* name);

/* Sets the option of exactly this name; the result is left empty. */
int pv_socket_option_set(Tcl_Interp* interp, const PVSockData* d, const char* name,
                         Tcl_Obj* value);

#endif
