/*
 * reactor_command.h -- the command ::qel::reactor.
 */
#ifndef PARVO_REACTOR_COMMAND_H
#define PARVO_REACTOR_COMMAND_H

#include <tcl.h>

/* Command procedure of ::qel::reactor; no client data. */
int ParvoReactorCmd(ClientData unused, Tcl_Interp* interp, int objc,
                    Tcl_Obj* const objv[]);

#endif
