/*
 * curve.h -- the command ::zmq::curve: keys of ZeroMQ's CURVE encryption.
 */
#ifndef PARVO_EXTRA_CURVE_H
#define PARVO_EXTRA_CURVE_H

#include <tcl.h>

/* Command procedure of ::zmq::curve; the client data is a PVSocketAccess. */
int ParvoCurveCmd(ClientData clientData, Tcl_Interp* interp, int objc,
                  Tcl_Obj* const objv[]);

#endif
