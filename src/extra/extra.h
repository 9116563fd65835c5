/*
 * extra.h -- the entry point of the companion library, and what its commands share.
 */
#ifndef PARVO_EXTRA_H
#define PARVO_EXTRA_H

#include "../command.h"
#include "../socket_access.h"
#include "../socket_record.h"
#include "../tclsupport.h"

#include <zmq.h>

/*
 * Called by Tcl's load, once per interpreter.  Loads the package "zmq" of the same
 * version, creates ::zmq::curve and ::zmq::monitor and provides the package
 * "zmq::extra".  Returns TCL_OK, or TCL_ERROR with an error left in interp and nothing
 * created.
 */
extern "C" __attribute__((visibility("default"))) int
Parvoextra_Init(Tcl_Interp* interp);

/* Command procedures; the client data is a PVSocketAccess. */
int ParvoCurveCmd(ClientData clientData, Tcl_Interp* interp, int objc,
                  Tcl_Obj* const objv[]);
int ParvoMonitorCmd(ClientData clientData, Tcl_Interp* interp, int objc,
                    Tcl_Obj* const objv[]);

/* A subcommand of theirs. */
using ExtraRow = CommandRow<const PVSocketAccess>;

/* Runs the row of the table that objv[1] names.  Returns a Tcl code. */
inline int extra_command(const ExtraRow* rows, ClientData clientData,
                         Tcl_Interp* interp, int objc, Tcl_Obj* const objv[]) {
    if (objc < 2) {
        return wrong_count(interp, 1, objv, "subcommand ?arg ...?");
    }
    const ExtraRow* row = command_row(interp, rows, objv[1], "subcommand");
    return row != nullptr
               ? command_run(row, 2, static_cast<const PVSocketAccess*>(clientData),
                             interp, objc, objv)
               : TCL_ERROR;
}

/*
 * The record of the socket that a word names; null with an error
 * ("ZMQ" area "SOCKET" word) left in interp when it names none of this thread.
 */
inline PVSockData* extra_socket(const PVSocketAccess* access, Tcl_Interp* interp,
                                Tcl_Obj* word, const char* area) {
    PVSockData* d = access->find(interp, word);
    if (d == nullptr) {
        const char* name = Tcl_GetString(word);
        fail(interp, Tcl_ObjPrintf("\"%s\" is no socket of this thread", name), "ZMQ",
             area, "SOCKET", name);
    }
    return d;
}

/*
 * Leaves a failure of ZeroMQ in interp: what, the text of ZeroMQ's last error, and the
 * error code "ZMQ" words.  Returns TCL_ERROR.
 */
template <typename... Words>
int fail_extra(Tcl_Interp* interp, const char* what, Words... words) {
    const int error = zmq_errno();
    return fail(interp, Tcl_ObjPrintf("%s: %s", what, zmq_strerror(error)), "ZMQ",
                words...);
}

#endif
