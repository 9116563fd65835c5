/*
 * parvo.h -- the library's entry point.
 */
#ifndef PARVO_PARVO_H
#define PARVO_PARVO_H

#include <tcl.h>

/*
 * Called by Tcl's load, once per interpreter.  Makes sure that the default context
 * exists, registers the thread exit handler that ends it, creates the seven
 * commands and provides the package "zmq".  Returns TCL_OK, or TCL_ERROR with an
 * error left in interp and nothing registered or created.
 */
extern "C" __attribute__((visibility("default"))) int Parvo_Init(Tcl_Interp* interp);

#endif
