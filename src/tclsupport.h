/*
 * tclsupport.h -- what every source file needs around Tcl's C interface.
 *
 * The scopes release in their destructor and are never copied.  They are for
 * the stack only: records in zero-filled thread data hold raw pointers, changed
 * through set_slot.  A thread that ends inside a script unwinds the stack without
 * running destructors, so no scope guards anything that must survive that.
 */
#ifndef PARVO_TCLSUPPORT_H
#define PARVO_TCLSUPPORT_H

#include <tcl.h>

#ifndef TCL_THREADS
#error "compile with TCL_THREADS defined: without it Tcl's mutex calls are empty"
#endif

/*
 * Sets message and error code and gives the result of the failed command.
 * interp: where both are left.  message: a fresh object, owned by the result
 * afterwards.  words: the error code, word by word, C strings that must not lie in
 * interp's result.  Returns TCL_ERROR.
 *
 * A write trace on ::errorCode runs here and may delete what the caller works on,
 * sockets included: this is the last thing a caller does.
 */
template <typename... Words>
int fail(Tcl_Interp* interp, Tcl_Obj* message, Words... words) {
    Tcl_IncrRefCount(message);
    Tcl_SetErrorCode(interp, static_cast<const char*>(words)...,
                     static_cast<const char*>(nullptr));
    Tcl_SetObjResult(interp, message);
    Tcl_DecrRefCount(message);
    return TCL_ERROR;
}

/* The message of a failure whose text has no variable part. */
template <typename... Words>
int fail(Tcl_Interp* interp, const char* message, Words... words) {
    return fail(interp, Tcl_NewStringObj(message, -1), words...);
}

/*
 * Stores value (null allowed) in a slot that owns one reference.  The new reference
 * is taken first, so that storing the object that is there already is safe.
 */
inline void set_slot(Tcl_Obj*& slot, Tcl_Obj* value) {
    Tcl_Obj* old = slot;
    if (value != nullptr) {
        Tcl_IncrRefCount(value);
    }
    slot = value;
    if (old != nullptr) {
        Tcl_DecrRefCount(old);
    }
}

/* The object itself, or a duplicate while somebody else holds it too. */
inline Tcl_Obj* unshared(Tcl_Obj* obj) {
    return Tcl_IsShared(obj) ? Tcl_DuplicateObj(obj) : obj;
}

/* Holds one reference on an object (null allowed) for a scope. */
class ObjRef {
  public:
    explicit ObjRef(Tcl_Obj* obj) : obj_(obj) {
        if (obj_ != nullptr) {
            Tcl_IncrRefCount(obj_);
        }
    }
    ~ObjRef() {
        if (obj_ != nullptr) {
            Tcl_DecrRefCount(obj_);
        }
    }
    ObjRef(const ObjRef&) = delete;
    ObjRef& operator=(const ObjRef&) = delete;
    Tcl_Obj* get() const {
        return obj_;
    }

  private:
    Tcl_Obj* obj_;
};

/* Keeps an interpreter's memory for a scope, whoever deletes it meanwhile. */
class InterpHold {
  public:
    explicit InterpHold(Tcl_Interp* interp) : interp_(interp) {
        Tcl_Preserve(interp_);
    }
    ~InterpHold() {
        Tcl_Release(interp_);
    }
    InterpHold(const InterpHold&) = delete;
    InterpHold& operator=(const InterpHold&) = delete;
    Tcl_Interp* get() const {
        return interp_;
    }

  private:
    Tcl_Interp* interp_;
};

/* A dynamic string for a scope; good tells whether memory was there for it. */
class DString {
  public:
    DString() : text_(reinterpret_cast<Tcl_DString*>(Tcl_AttemptAlloc(sizeof *text_))) {
        if (text_ != nullptr) {
            Tcl_DStringInit(text_);
        }
    }
    ~DString() {
        if (text_ != nullptr) {
            Tcl_DStringFree(text_);
            Tcl_Free(reinterpret_cast<char*>(text_));
        }
    }
    DString(const DString&) = delete;
    DString& operator=(const DString&) = delete;
    bool good() const {
        return text_ != nullptr;
    }
    DString& append(const char* text) {
        Tcl_DStringAppend(text_, text, -1);
        return *this;
    }
    const char* value() const {
        return Tcl_DStringValue(text_);
    }

  private:
    Tcl_DString* text_;
};

/* Holds a Tcl mutex for a scope. */
class MutexLock {
  public:
    explicit MutexLock(Tcl_Mutex* mutex) : mutex_(mutex) {
        Tcl_MutexLock(mutex_);
    }
    ~MutexLock() {
        Tcl_MutexUnlock(mutex_);
    }
    MutexLock(const MutexLock&) = delete;
    MutexLock& operator=(const MutexLock&) = delete;

  private:
    Tcl_Mutex* mutex_;
};

/*
 * The two ends of a per-thread store's life besides its own: the exit of its thread
 * (destroy) and the deletion of the interpreter that set it up (deleted).
 * A store that is released for either reason takes both back.
 */
inline void store_watch(void* store, Tcl_Interp* interp, Tcl_ExitProc* destroy,
                        Tcl_InterpDeleteProc* deleted) {
    Tcl_CreateThreadExitHandler(destroy, store);
    Tcl_CallWhenDeleted(interp, deleted, store);
}

inline void store_unwatch(void* store, Tcl_Interp* interp, Tcl_ExitProc* destroy,
                          Tcl_InterpDeleteProc* deleted) {
    Tcl_DontCallWhenDeleted(interp, deleted, store);
    Tcl_DeleteThreadExitHandler(destroy, store);
}

#endif
