/*
 * socket_access.h -- what the library offers to a companion library of the same build.
 *
 * A library exports its entry point alone, so its companion finds this record through
 * the interpreter that loaded both.
 */
#ifndef PARVO_SOCKET_ACCESS_H
#define PARVO_SOCKET_ACCESS_H

#include <stddef.h>
#include <tcl.h>

struct PVSockData;

/* The name under which an interpreter keeps the record (Tcl_GetAssocData). */
constexpr char pv_access_name[] = "parvo-socket-access";

struct PVSocketAccess {
    size_t size;        // of this record
    size_t record_size; // of PVSockData: a companion of another build differs
    /*
     * The record of the socket of this thread that a word of a script names, which
     * stays the library's and lasts as long as the socket's command; null, without an
     * error, when the word names no socket.
     */
    PVSockData* (*find)(Tcl_Interp* interp, Tcl_Obj* word);
    /*
     * A new PAIR socket in the default context, with linger 0, that the caller closes.
     * It is not counted: the context's end makes its calls fail with ETERM and waits
     * for its close.  Called while a counted socket is there.  Null with errno set
     * after a failure.
     */
    void* (*open_pair)();
};

#endif
