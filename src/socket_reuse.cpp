/*
 * socket_reuse.cpp -- objects that a thread keeps from one call of a method to the
 * next.
 *
 * An object is filled again only while the store's reference is the only one.  A list
 * is emptied first, by Tcl_ListObjReplace, which leaves alone what a duplicate of the
 * list shares with it.  A frame that is still in such a duplicate, or in a variable,
 * then has another reference, and is replaced; so is an object that a script has given
 * another type.  Filling the elements of a list in place would change its duplicates.
 */
#include "socket_reuse.h"

#include "tclsupport.h"

#include <limits.h>
#include <string.h>

namespace {

bool reusable(const Tcl_Obj* obj, const Tcl_ObjType* type) {
    return obj != nullptr && obj->refCount == 1 && obj->typePtr == type;
}

void types_learn(PVReuse* reuse) {
    Tcl_Obj* element = Tcl_NewByteArrayObj(nullptr, 0);
    const ObjRef list(Tcl_NewListObj(1, &element));
    reuse->bytesType = element->typePtr;
    reuse->listType = list.get()->typePtr;
}

} // namespace

PVKeptMessage* pv_reuse_message(PVReuse* reuse) {
    if (reuse->listType == nullptr) {
        types_learn(reuse);
    }
    PVKeptMessage* message = &reuse->messages[reuse->next];
    reuse->next = (reuse->next + 1) % keptMessages;
    if (reusable(message->list, reuse->listType)) {
        pv_reuse_clear(message);
    } else {
        set_slot(message->list, Tcl_NewListObj(0, nullptr));
    }
    return message;
}

Tcl_Obj* pv_reuse_frame(const PVReuse* reuse, PVKeptMessage* message, int i,
                        const void* bytes, size_t size) {
    const auto length = static_cast<Tcl_Size>(size);
    if (i >= keptFrames || size > keptFrameBytes) {
        return Tcl_NewByteArrayObj(static_cast<const unsigned char*>(bytes), length);
    }
    Tcl_Obj*& frame = message->frames[i];
    if (reusable(frame, reuse->bytesType)) {
        memcpy(Tcl_SetByteArrayLength(frame, length), bytes, size);
    } else {
        set_slot(frame,
                 Tcl_NewByteArrayObj(static_cast<const unsigned char*>(bytes), length));
    }
    return frame;
}

void pv_reuse_clear(PVKeptMessage* message) {
    Tcl_ListObjReplace(nullptr, message->list, 0, INT_MAX, 0, nullptr); // all there are
}

void pv_reuse_release(PVReuse* reuse) {
    for (PVKeptMessage& message : reuse->messages) {
        set_slot(message.list, nullptr);
        for (Tcl_Obj*& frame : message.frames) {
            set_slot(frame, nullptr);
        }
    }
    for (PVKeptWord& kept : reuse->words) {
        set_slot(kept.word, nullptr);
    }
}
