/*
 * socket_reuse.h -- objects that a thread keeps from one call of a method to the next.
 *
 * Making and releasing the list of a message and its byte arrays is a quarter of what a
 * message costs.  A thread keeps a reference on a few of those that recv has made, and
 * fills one again when nobody else holds it, so that no script can tell.
 */
#ifndef PARVO_SOCKET_REUSE_H
#define PARVO_SOCKET_REUSE_H

#include "command.h"

#include <stddef.h>
#include <tcl.h>

struct PVSockData;

constexpr int keptMessages = 4;         // a loop holds one and receives the next
constexpr int keptFrames = 16;          // of a message: the first ones
constexpr size_t keptFrameBytes = 1024; // a larger frame is not kept
constexpr int keptWords = 4;            // send, recv and what stands beside them

/* The parts of a message that are kept. */
struct PVKeptMessage {
    Tcl_Obj* list;               // one reference, or null
    Tcl_Obj* frames[keptFrames]; // one reference each, or null
};

/* A method's word, as a script's code holds it, and what it was found to be. */
struct PVKeptWord {
    Tcl_Obj* word; // one reference, or null
    const CommandRow<PVSockData>* row;
};

/*
 * What a thread keeps: with every frame at its limit some 70 KiB.  Zero-filled at
 * first.
 */
struct PVReuse {
    PVKeptMessage messages[keptMessages];
    unsigned next; // the message to use next
    PVKeptWord words[keptWords];
    const Tcl_ObjType* listType;  // what Tcl gives to a new list; null until first use
    const Tcl_ObjType* bytesType; // and to a new byte array
};

/*
 * Begins a message: its list is empty, and only the store has a reference to it.  The
 * record belongs to the store and is valid until the next call; a caller that keeps the
 * list takes a reference.
 */
PVKeptMessage* pv_reuse_message(PVReuse* reuse);

/*
 * An object with size bytes, for frame number i of a message, in which it is kept if
 * that is worth while.  The caller appends it to the list or releases it, as a new
 * object.
 */
Tcl_Obj* pv_reuse_frame(const PVReuse* reuse, PVKeptMessage* message, int i,
                        const void* bytes, size_t size);

/* Empties the list of a message. */
void pv_reuse_clear(PVKeptMessage* message);

/* Gives back everything that is kept. */
void pv_reuse_release(PVReuse* reuse);

#endif
