/*
 * extra.cpp -- the entry point of the companion library.
 *
 * The library holds nothing of its own for an interpreter or a thread: its commands
 * work on the sockets of the package "zmq", which it finds through that package's
 * record in the interpreter.
 */
#include "extra.h"

namespace {

/* The record that the package "zmq" of this build has left in interp, or null. */
PVSocketAccess* access_of(Tcl_Interp* interp) {
    auto* access =
        static_cast<PVSocketAccess*>(Tcl_GetAssocData(interp, pv_access_name, nullptr));
    return access != nullptr && access->size == sizeof(PVSocketAccess) &&
                   access->record_size == sizeof(PVSockData)
               ? access
               : nullptr;
}

} // namespace

int Parvoextra_Init(Tcl_Interp* interp) {
    if (interp == nullptr || Tcl_InitStubs(interp, tclWanted, 0) == nullptr ||
        Tcl_PkgRequireEx(interp, "zmq", PARVO_VERSION, 1, nullptr) == nullptr) {
        return TCL_ERROR;
    }
    PVSocketAccess* access = access_of(interp);
    if (access == nullptr) {
        return fail(interp, "package zmq was not built together with zmq::extra", "ZMQ",
                    "INIT", "EXTRA");
    }
    Tcl_CreateObjCommand(interp, "::zmq::curve", ParvoCurveCmd, access, nullptr);
    Tcl_CreateObjCommand(interp, "::zmq::monitor", ParvoMonitorCmd, access, nullptr);
    Tcl_PkgProvideEx(interp, "zmq::extra", PARVO_VERSION, nullptr);
    return TCL_OK;
}
