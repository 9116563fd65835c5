/*
 * reactor_signal_catalogue.h -- names and numbers of signals.
 */
#ifndef PARVO_REACTOR_SIGNAL_CATALOGUE_H
#define PARVO_REACTOR_SIGNAL_CATALOGUE_H

#include <signal.h>
#include <tcl.h>

constexpr int signalMax = 31; // highest classic signal

/* The name of a signal, such as "SIGINT", or "invalid signal"; static text. */
const char* signal_name(int sig);

/* The number for a name with or without "SIG", upper case; -1: no such name. */
int signal_to_int(const char* name);

/*
 * The number, 1 to 31, of a signal that a script named or numbered; 0 for "*".
 * Returns -1 with an error ("QEL" "SIGNAL" "PARSE") left in interp for anything else.
 */
int signal_parse(Tcl_Interp* interp, Tcl_Obj* signal);

/*
 * Adds the signals of a list to signals, which the caller has emptied; a null list
 * stands for all.  Returns TCL_OK, or TCL_ERROR with an error left in interp; what was
 * added before the failure stays.
 */
int signal_parse_list(Tcl_Interp* interp, Tcl_Obj* list, sigset_t* signals);

#endif
