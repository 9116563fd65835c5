/*
 * socket_methods.h -- the object command of a socket.
 */
#ifndef PARVO_SOCKET_METHODS_H
#define PARVO_SOCKET_METHODS_H

#include <tcl.h>

/*
 * Command procedure of every socket; client data: its PVSockData.  Runs one method
 * and leaves its result or error in interp.
 */
int pv_socket_command(ClientData clientData, Tcl_Interp* interp, int objc,
                      Tcl_Obj* const objv[]);

#endif
