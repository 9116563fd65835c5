/*
 * reactor_bgerror.h -- background errors of the reactor's scripts.
 */
#ifndef PARVO_REACTOR_BGERROR_H
#define PARVO_REACTOR_BGERROR_H

#include <tcl.h>

struct PVBgerror;

/*
 * The calling thread's background-error store.  Without an interpreter (null): the
 * store if it is set up and its interpreter still evaluates scripts, else null.  With
 * one: set up for it when there is none, which defines the procedures of the default
 * handler there; null with an error ("QEL" "REACTOR" "BGERROR" ...) left in interp
 * after a failure.
 */
PVBgerror* pv_bgerror(Tcl_Interp* interp);

/* Ends the calling thread's store, when its interpreter or the thread ends. */
void pv_bgerror_destroy();

/* How many failures a thread's store has reported so far, in all its set-ups. */
unsigned long pv_bgerror_failures(const PVBgerror* s);

/*
 * Tells whether an interpreter may evaluate scripts: none of its limits is exceeded,
 * and it is not being unwound (interp cancel -unwind).  If not, that very error is left
 * in it.  A plain cancellation of the store's interpreter ends here, reported as a
 * script that fails; one of another interpreter counts as unwinding.
 */
bool pv_interp_evaluates(Tcl_Interp* interp);

/*
 * Gives an error of one interpreter to another, which may be the same: message and
 * code, not the error stack, which tells what the first one did before.
 */
void pv_interp_pass_error(Tcl_Interp* to, Tcl_Interp* from);

/* The subcommand bgerror, with 2 or 3 words; objv: all words of the reactor command. */
int pv_cmd_bgerror(Tcl_Interp* interp, int objc, Tcl_Obj* const objv[]);

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
 * handler ran.  Nothing is reported when the interpreter may no longer evaluate
 * scripts: the loop ends with that error.
 */
void pv_bgerror_code(int code);

/* Reports a failure without a script, formatted as printf does. */
void pv_bgerror_msg(const char* fmt, ...) __attribute__((format(printf, 1, 2)));

#endif
