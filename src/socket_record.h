/*
 * socket_record.h -- the record of one socket, for the socket files and the
 * companion library alone.  Everybody else takes it as opaque.
 */
#ifndef PARVO_SOCKET_RECORD_H
#define PARVO_SOCKET_RECORD_H

#include <tcl.h>

struct PVMonitor;
struct PVReactor;
struct PVReuse;

/* Statistics of one direction; only whole messages count. */
struct PVCounts {
    Tcl_WideInt count = 0; // messages
    Tcl_WideInt bytes = 0; // payload bytes
};

struct PVStats {
    PVCounts sent;
    PVCounts received;
};

/*
 * Client data of the socket's object command, created with it and freed by its
 * deletion procedure.
 */
struct PVSockData {
    void* socket = nullptr;         // ZeroMQ socket, null once it is closed
    char* name = nullptr;           // owned copy of the name given, for debug lines
    Tcl_Command token = nullptr;    // the object command
    Tcl_HashEntry* entry = nullptr; // entry in the thread's registry, or null
    PVReactor* reactor = nullptr;   // reactor that holds a handler for it, or null
    PVStats stats;                  // never reset
    Tcl_Interp* interp = nullptr;   // interpreter of the object command
    bool attached = false;          // was bound or connected: may have connections
    PVReuse* reuse = nullptr;       // what its thread keeps, in the registry
    PVMonitor* monitor = nullptr;   // the companion's, or null
    void (*monitor_end)(PVMonitor* monitor) = nullptr; // told when the socket is closed
};

#endif
