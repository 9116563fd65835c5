/*
 * tclsupport.h -- what every source file needs around Tcl's C interface, and all that
 * is different between Tcl 8 and 9.
 *
 * The scopes release in their destructor and are never copied.  They are for
 * the stack only: records in zero-filled thread data hold raw pointers, changed
 * through set_slot.  A thread that ends inside a script unwinds the stack without
 * running destructors, so no scope guards anything that must survive that.
 */
#ifndef PARVO_TCLSUPPORT_H
#define PARVO_TCLSUPPORT_H

#include <limits.h>
#include <stddef.h>
#include <stdint.h>
#include <tcl.h>

#ifndef TCL_THREADS
#error "compile with TCL_THREADS defined: without it Tcl's mutex calls are empty"
#endif

// What is different between Tcl 8 and 9.  Lengths are Tcl_Size, which is int in Tcl 8.

#if TCL_MAJOR_VERSION >= 9

constexpr char tclWanted[] = "9.0";      // the oldest Tcl that may load the library
constexpr bool bytesMayBeRefused = true; // a character above U+00FF is no byte

/* Memory from Tcl; the second one gives null when there is none left. */
inline void* allocate(size_t size) {
    return Tcl_Alloc(size);
}
inline void* allocate_or_null(size_t size) {
    return Tcl_AttemptAlloc(size);
}
inline void release(void* memory) {
    Tcl_Free(memory);
}

/*
 * The bytes of a word, which owns them, and their number.  Null when a character is
 * above U+00FF, with Tcl's reason left in interp (null: nowhere).
 */
inline unsigned char* word_bytes(Tcl_Interp* interp, Tcl_Obj* word, Tcl_Size* length) {
    return Tcl_GetBytesFromObj(interp, word, length);
}

#else

#ifndef TCL_SIZE_MAX
#define TCL_SIZE_MAX INT_MAX
using Tcl_Size = int;
#endif

constexpr char tclWanted[] = "8.5";
constexpr bool bytesMayBeRefused = false; // the low 8 bits of every character are taken

inline void* allocate(size_t size) {
    return Tcl_Alloc(static_cast<unsigned>(size));
}
inline void* allocate_or_null(size_t size) {
    return Tcl_AttemptAlloc(static_cast<unsigned>(size));
}
inline void release(void* memory) {
    Tcl_Free(static_cast<char*>(memory));
}

inline unsigned char* word_bytes(Tcl_Interp* /*interp*/, Tcl_Obj* word,
                                 Tcl_Size* length) {
    return Tcl_GetByteArrayFromObj(word, length);
}

#endif

/*
 * The most bytes of one byte array: its length also counts the array's own header,
 * which is smaller than this allowance in every Tcl.
 */
constexpr Tcl_Size bytesMax = TCL_SIZE_MAX - 64;

/*
 * Sets message and error code and gives the result of the failed command.
 * interp: where both are left.  message: a fresh object, owned by the result
 * afterwards.  words: the error code, word by word, C strings that must not lie in
 * interp's result.  Returns TCL_ERROR.
 *
 * No script runs here: Tcl writes the variable ::errorCode, whose traces may delete
 * anything, when the result is next reset, which is after the command has returned.
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

/*
 * The descriptor of a channel for one direction, TCL_READABLE or TCL_WRITABLE, or -1
 * when the channel is not open that way.  A TCP channel goes on giving its descriptor
 * for a half that was closed, only its mode tells.  A server socket has no mode at all,
 * and a descriptor that is readable when a connection waits.
 */
inline int channel_descriptor(Tcl_Channel channel, int direction) {
    ClientData handle;
    const int mode = Tcl_GetChannelMode(channel);
    if ((mode != 0 && (mode & direction) == 0) ||
        Tcl_GetChannelHandle(channel, direction, &handle) != TCL_OK) {
        return -1;
    }
    return static_cast<int>(reinterpret_cast<intptr_t>(handle));
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

/* Keeps an interpreter's memory for a scope, also when a script deletes it. */
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
    DString() : text_(static_cast<Tcl_DString*>(allocate_or_null(sizeof *text_))) {
        if (text_ != nullptr) {
            Tcl_DStringInit(text_);
        }
    }
    ~DString() {
        if (text_ != nullptr) {
            Tcl_DStringFree(text_);
            release(text_);
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

#endif
