/*
 * reactor_bgerror.h -- background errors of the reactor's scripts.
 */
#ifndef PARVO_REACTOR_BGERROR_H
#define PARVO_REACTOR_BGERROR_H

#include <tcl.h>

/*
 * The calling thread's background-error store.  Without an interpreter (null): the
 * store if it is set up and its interpreter still evaluates scripts, else null.  With
 * one: set up for it when there is none, which defines the procedures of the default
 * handler there; null with an error ("QEL" "REACTOR" "BGERROR" ...) left in interp
 * after a failure.
 */
void* pv_bgerror(Tcl_Interp* interp);

/* The subcommand bgerror; objv holds all words of the reactor command. */
int pv_cmd_bgerror(ClientData unused, Tcl_Interp* interp, int objc,
                   Tcl_Obj* const objv[]);

/*
 * Evaluates a script, held by the caller, and reports any code but TCL_OK as
 * pv_bgerror_code does.  flags: as Tcl_EvalObjEx takes them.  When the script deleted
 * interp, which the caller holds, the report goes to standard error even if another
 * interpreter has set up a store meanwhile.
 */
void pv_bgerror_eval(Tcl_Interp* interp, Tcl_Obj* script, int flags);

/*
 * Reports a script that returned code, any but TCL_OK, while the interpreter's result
 * and return options still describe the failure: to the handler, or to standard error
 * when there is none or it fails.  Leaves the interpreter's result empty when a
 * handler ran.
 */
void pv_bgerror_code(int code);

/* Reports a failure without a script, formatted as printf does. */
void pv_bgerror_msg(const char* fmt, ...) __attribute__((format(printf, 1, 2)));

#endif
