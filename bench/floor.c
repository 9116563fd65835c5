/*
 * floor.c -- the least that a Tcl command costs: commands that do nothing.
 *
 * ::floor::nothing has the form of a socket's send and returns at once.
 * ::floor::list has the form of recv and returns what recv has to: a new list of one
 * new byte array of 64 bytes.  ::floor::evaluate has the form of the reactor's dispatch:
 * it evaluates a script so many times, as a handler is evaluated.  The package "floor"
 * is the least that package require costs.
 */
#include <tcl.h>

static int nothing(ClientData data, Tcl_Interp* interp, int objc, Tcl_Obj* const objv[]) {
    (void) data, (void) interp, (void) objc, (void) objv;
    return TCL_OK;
}

static int list(ClientData data, Tcl_Interp* interp, int objc, Tcl_Obj* const objv[]) {
    static const unsigned char bytes[64];
    Tcl_Obj* frame = Tcl_NewByteArrayObj(bytes, sizeof bytes);
    (void) data, (void) objc, (void) objv;
    Tcl_SetObjResult(interp, Tcl_NewListObj(1, &frame));
    return TCL_OK;
}

static int evaluate(ClientData data, Tcl_Interp* interp, int objc, Tcl_Obj* const objv[]) {
    int count;
    (void) data;
    if (objc != 3 || Tcl_GetIntFromObj(interp, objv[2], &count) != TCL_OK) {
        return TCL_ERROR;
    }
    while (count-- > 0) {
        if (Tcl_EvalObjEx(interp, objv[1], TCL_EVAL_GLOBAL) != TCL_OK) {
            return TCL_ERROR;
        }
    }
    return TCL_OK;
}

int Floor_Init(Tcl_Interp* interp) {
    if (Tcl_InitStubs(interp, "8.5", 0) == NULL) {
        return TCL_ERROR;
    }
    Tcl_CreateObjCommand(interp, "::floor::nothing", nothing, NULL, NULL);
    Tcl_CreateObjCommand(interp, "::floor::list", list, NULL, NULL);
    Tcl_CreateObjCommand(interp, "::floor::evaluate", evaluate, NULL, NULL);
    return Tcl_PkgProvide(interp, "floor", "1.0");
}
