/*
 * monitor.h -- the command ::zmq::monitor: the life of a socket's connections.
 */
#ifndef PARVO_EXTRA_MONITOR_H
#define PARVO_EXTRA_MONITOR_H

#include <tcl.h>

/* Command procedure of ::zmq::monitor; the client data is a PVSocketAccess. */
int ParvoMonitorCmd(ClientData clientData, Tcl_Interp* interp, int objc,
                    Tcl_Obj* const objv[]);

#endif
