/*
 * floor.c -- the least that a Tcl command costs: commands that do nothing.
 *
 * ::floor::nothing has the form of a socket's send and returns at once.
 * ::floor::list has the form of recv and returns what recv has to: a new list of one
 * new byte array of 64 bytes.
 * ::floor::evaluate script count has the form of the reactor: it polls a descriptor that
 * is ready and evaluates the script as a handler is evaluated, so many times; without a
 * script it only polls.  Code runs slower right after a system call than in a tight
 * loop, so the difference of the two is what a handler costs.  The package "floor"
 * is the least that package require costs.
 */
#include <poll.h>
#include <sys/eventfd.h>
#include <tcl.h>
#include <unistd.h>

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
    struct pollfd item = {eventfd(1, 0), POLLIN, 0};
    int count;
    int code = TCL_OK;
    (void) data;
    if (objc != 3 || Tcl_GetIntFromObj(interp, objv[2], &count) != TCL_OK) {
        return TCL_ERROR;
    }
    const int script = Tcl_GetCharLength(objv[1]) > 0;
    while (code == TCL_OK && count-- > 0) {
        poll(&item, 1, 0);
        if (script) {
            code = Tcl_EvalObjEx(interp, objv[1], TCL_EVAL_GLOBAL);
        }
    }
    close(item.fd);
    return code;
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
