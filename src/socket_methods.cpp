/*
 * socket_methods.cpp -- the methods of a socket.
 *
 * A frame is a byte array in both directions: send gives ZeroMQ the argument's own
 * bytes, recv copies each frame once.  Setting an error may run a script that deletes
 * the socket, so no method touches its record after a failure was reported.
 */
#include "socket_methods.h"

#include "socket.h"
#include "socket_options.h"
#include "socket_record.h"
#include "tclsupport.h"

#include <errno.h>
#include <limits.h>
#include <string.h>
#include <zmq.h>

namespace {

/*
 * The most bytes one Tcl byte array holds: its length is an int that also counts the
 * array's own header, which is smaller than this allowance in every Tcl 8.
 */
constexpr size_t frameMax = INT_MAX - 64;

constexpr char nowaitWord[] = "-nowait";
constexpr int nowaitLength = sizeof nowaitWord - 1;

/* A ZeroMQ message for a scope: it is open from a successful init to close. */
class Message {
  public:
    Message() = default;
    ~Message() {
        close();
    }
    Message(const Message&) = delete;
    Message& operator=(const Message&) = delete;
    int init() {
        const int rc = zmq_msg_init(&message_);
        open_ = rc == 0;
        return rc;
    }
    int close() {
        const bool was_open = open_;
        open_ = false;
        return was_open ? zmq_msg_close(&message_) : 0;
    }
    zmq_msg_t* get() {
        return &message_;
    }

  private:
    zmq_msg_t message_;
    bool open_ = false;
};

/*
 * Tells whether a word is exactly "-nowait".  Only a word of that many bytes is
 * compared as a string: making the string of a frame would copy all of it.
 */
bool is_nowait(Tcl_Obj* word) {
    int length;
    if (word->bytes == nullptr) {
        Tcl_GetByteArrayFromObj(word, &length);
        if (length != nowaitLength) {
            return false;
        }
    }
    const char* text = Tcl_GetStringFromObj(word, &length);
    return length == nowaitLength && memcmp(text, nowaitWord, nowaitLength) == 0;
}

/* The failure of an operation whose error text ZeroMQ gives. */
template <typename... Words>
int fail_zmq(Tcl_Interp* interp, const char* what, Words... words) {
    const int error = zmq_errno();
    return fail(interp, Tcl_ObjPrintf("%s: %s", what, zmq_strerror(error)), "ZMQ",
                "SOCKET", words...);
}

/*
 * $sock close
 * $sock destroy
 */
int pv_socket_meth_close(PVSockData* d, Tcl_Interp* interp, int objc,
                         Tcl_Obj* const objv[]) {
    if (objc != 2) {
        Tcl_WrongNumArgs(interp, 2, objv, nullptr);
        return TCL_ERROR;
    }
    // The command's deletion procedure does the rest, the count on the context
    // included.  The record is gone afterwards.
    Tcl_DeleteCommandFromToken(d->interp, d->token);
    return TCL_OK;
}

/* What the four endpoint methods share. */
int endpoint_method(PVSockData* d, Tcl_Interp* interp, int objc, Tcl_Obj* const objv[],
                    int (*operation)(void*, const char*), const char* what,
                    const char* word) {
    if (objc != 3) {
        Tcl_WrongNumArgs(interp, 2, objv, "endpoint");
        return TCL_ERROR;
    }
    if (operation(d->socket, Tcl_GetString(objv[2])) == -1) {
        return fail_zmq(interp, what, word);
    }
    return TCL_OK;
}

/* $sock bind endpoint */
int pv_socket_meth_bind(PVSockData* d, Tcl_Interp* interp, int objc,
                        Tcl_Obj* const objv[]) {
    return endpoint_method(d, interp, objc, objv, zmq_bind, "failed to bind socket",
                           "BIND");
}

/* $sock unbind endpoint */
int pv_socket_meth_unbind(PVSockData* d, Tcl_Interp* interp, int objc,
                          Tcl_Obj* const objv[]) {
    return endpoint_method(d, interp, objc, objv, zmq_unbind, "failed to unbind socket",
                           "UNBIND");
}

/* $sock connect endpoint */
int pv_socket_meth_connect(PVSockData* d, Tcl_Interp* interp, int objc,
                           Tcl_Obj* const objv[]) {
    return endpoint_method(d, interp, objc, objv, zmq_connect,
                           "failed to connect socket", "CONNECT");
}

/* $sock disconnect endpoint */
int pv_socket_meth_disconnect(PVSockData* d, Tcl_Interp* interp, int objc,
                              Tcl_Obj* const objv[]) {
    return endpoint_method(d, interp, objc, objv, zmq_disconnect,
                           "failed to disconnect socket", "DISCONNECT");
}

/* Sends one word as a frame; returns its length, -1 after a failure. */
int send_frame(void* socket, Tcl_Obj* word, int flags) {
    int length;
    const unsigned char* bytes = Tcl_GetByteArrayFromObj(word, &length);
    return zmq_send(socket, bytes, static_cast<size_t>(length), flags) != -1 ? length
                                                                             : -1;
}

/* Whether a socket gives each message to one of its peers in turn, unaddressed. */
bool takes_turns(void* socket) {
    int type = ZMQ_PAIR;
    size_t size = sizeof type;
    return zmq_getsockopt(socket, ZMQ_TYPE, &type, &size) == 0 &&
           (type == ZMQ_PUSH || type == ZMQ_DEALER || type == ZMQ_REQ);
}

/*
 * A peer went while a message was half sent: libzmq has taken back what it had and, on
 * sockets that take turns over their peers, drops what follows up to the end of the
 * message.  It must see that end, or it would drop the next message instead.  Others
 * drop nothing and would take the rest for something new, an address even.
 */
void send_dropped_rest(void* socket, int count, Tcl_Obj* const words[]) {
    if (!takes_turns(socket)) {
        return;
    }
    for (int i = 0; i < count; i++) {
        const int more = i + 1 < count ? ZMQ_SNDMORE : 0;
        if (send_frame(socket, words[i], ZMQ_DONTWAIT | more) == -1) {
            return;
        }
    }
}

/*
 * $sock send ?-nowait? ?string ...?
 * Without a frame nothing is sent, but a message of no bytes is counted.
 */
int pv_socket_meth_send(PVSockData* d, Tcl_Interp* interp, int objc,
                        Tcl_Obj* const objv[]) {
    if (objc < 3) {
        Tcl_WrongNumArgs(interp, 2, objv, "?-nowait? ?string ...?");
        return TCL_ERROR;
    }
    const bool nowait = is_nowait(objv[2]);
    const int flags = nowait ? ZMQ_DONTWAIT : 0;
    const int first = nowait ? 3 : 2;
    Tcl_WideInt total = 0;
    for (int i = first; i < objc; i++) {
        const int length =
            send_frame(d->socket, objv[i], i + 1 < objc ? flags | ZMQ_SNDMORE : flags);
        if (length == -1) {
            const int error = zmq_errno();
            if (error == EAGAIN && i > first) {
                send_dropped_rest(d->socket, objc - i - 1, objv + i + 1);
            }
            errno = error;
            return fail_zmq(interp, "send failed", "SEND");
        }
        total += length;
    }
    pv_socket_sent_bytes(d, total);
    return TCL_OK;
}

/* What went wrong with a frame; reported once the socket needs no more care. */
struct RecvFailure {
    const char* what = nullptr; // the message, null while all is well
    const char* word = nullptr; // last word of the error code
    int error = -1;             // ZeroMQ's error number, -1: not part of the message
};

int frames_follow(void* socket, int* more) {
    size_t size = sizeof *more;
    return zmq_getsockopt(socket, ZMQ_RCVMORE, more, &size);
}

/*
 * Takes in what is left of a message that cannot be given to the script, so that the
 * next recv begins with the first frame of a message.
 */
void discard_rest(void* socket) {
    int more = 0;
    while (frames_follow(socket, &more) == 0 && more != 0) {
        Message frame;
        if (frame.init() == -1 ||
            zmq_msg_recv(frame.get(), socket, ZMQ_DONTWAIT) == -1) {
            return;
        }
    }
}

/*
 * Receives one frame, appends it to frames, adds its size to total and tells in more
 * whether another one follows.
 */
RecvFailure recv_frame(void* socket, int flags, Tcl_Obj* frames, Tcl_WideInt* total,
                       int* more) {
    Message frame;
    if (frame.init() == -1) {
        return {"failed to initialize frame", "INIT", zmq_errno()};
    }
    if (zmq_msg_recv(frame.get(), socket, flags) == -1) {
        return {"failed to receive frame", "FRAME", zmq_errno()};
    }
    *more = 1; // until ZeroMQ tells: a failure from here on discards the rest
    const size_t size = zmq_msg_size(frame.get());
    if (size > frameMax) {
        return {"failed to create byte array for frame", "BYTES"};
    }
    const ObjRef bytes(Tcl_NewByteArrayObj(
        static_cast<const unsigned char*>(zmq_msg_data(frame.get())),
        static_cast<int>(size)));
    if (frame.close() == -1) {
        return {"failed to release frame", "CLOSE"};
    }
    if (Tcl_ListObjAppendElement(nullptr, frames, bytes.get()) != TCL_OK) {
        return {"failed to append bytes to list", "APPEND"};
    }
    if (frames_follow(socket, more) == -1) {
        return {"failed to check for more frames", "GETSOCKOPT", zmq_errno()};
    }
    *total += static_cast<Tcl_WideInt>(size);
    return {};
}

int fail_recv(Tcl_Interp* interp, const RecvFailure& failure) {
    Tcl_Obj* message = failure.error != -1 ? Tcl_ObjPrintf("%s: %s", failure.what,
                                                           zmq_strerror(failure.error))
                                           : Tcl_NewStringObj(failure.what, -1);
    return fail(interp, message, "ZMQ", "SOCKET", "RECV", failure.word);
}

/* $sock recv ?-nowait? */
int pv_socket_meth_recv(PVSockData* d, Tcl_Interp* interp, int objc,
                        Tcl_Obj* const objv[]) {
    if (objc > 3) {
        Tcl_WrongNumArgs(interp, 2, objv, "?-nowait?");
        return TCL_ERROR;
    }
    const int flags = objc == 3 && is_nowait(objv[2]) ? ZMQ_DONTWAIT : 0;
    const ObjRef frames(Tcl_NewListObj(0, nullptr));
    Tcl_WideInt total = 0;
    int more = 0;
    do {
        const RecvFailure failure =
            recv_frame(d->socket, flags, frames.get(), &total, &more);
        if (failure.what != nullptr) {
            if (more != 0) {
                discard_rest(d->socket);
            }
            return fail_recv(interp, failure);
        }
    } while (more != 0);
    pv_socket_received_bytes(d, total);
    Tcl_SetObjResult(interp, frames.get());
    return TCL_OK;
}

Tcl_Obj* counts_dict(const PVCounts& counts, Tcl_Obj* messages, Tcl_Obj* bytes) {
    Tcl_Obj* dict = Tcl_NewDictObj();
    Tcl_DictObjPut(nullptr, dict, messages, Tcl_NewWideIntObj(counts.count));
    Tcl_DictObjPut(nullptr, dict, bytes, Tcl_NewWideIntObj(counts.bytes));
    return dict;
}

/* $sock stats */
int pv_socket_meth_stats(PVSockData* d, Tcl_Interp* interp, int objc,
                         Tcl_Obj* const objv[]) {
    if (objc != 2) {
        Tcl_WrongNumArgs(interp, 2, objv, nullptr);
        return TCL_ERROR;
    }
    Tcl_Obj* messages = Tcl_NewStringObj("messages", -1);
    Tcl_Obj* bytes = Tcl_NewStringObj("bytes", -1);
    Tcl_Obj* stats = Tcl_NewDictObj();
    Tcl_DictObjPut(nullptr, stats, Tcl_NewStringObj("sent", -1),
                   counts_dict(d->stats.sent, messages, bytes));
    Tcl_DictObjPut(nullptr, stats, Tcl_NewStringObj("received", -1),
                   counts_dict(d->stats.received, messages, bytes));
    Tcl_SetObjResult(interp, stats);
    return TCL_OK;
}

/*
 * $sock configure
 * $sock configure -option
 * $sock configure -option value
 */
int pv_socket_meth_configure(PVSockData* d, Tcl_Interp* interp, int objc,
                             Tcl_Obj* const objv[]) {
    if (objc == 2) {
        return pv_socket_option_get_all(interp, d->socket);
    }
    if (objc == 3) {
        return pv_socket_option_get(interp, d->socket, Tcl_GetString(objv[2]));
    }
    if (objc == 4) {
        return pv_socket_option_set(interp, d->socket, Tcl_GetString(objv[2]), objv[3]);
    }
    Tcl_WrongNumArgs(interp, 2, objv, "?-option ?value??");
    return TCL_ERROR;
}

struct Method {
    const char* word;
    int (*proc)(PVSockData* d, Tcl_Interp* interp, int objc, Tcl_Obj* const objv[]);
};

constexpr Method methods[] = {
    {"close", pv_socket_meth_close},
    {"destroy", pv_socket_meth_close},
    {"configure", pv_socket_meth_configure},
    {"bind", pv_socket_meth_bind},
    {"unbind", pv_socket_meth_unbind},
    {"connect", pv_socket_meth_connect},
    {"disconnect", pv_socket_meth_disconnect},
    {"send", pv_socket_meth_send},
    {"recv", pv_socket_meth_recv},
    {"stats", pv_socket_meth_stats},
    {nullptr, nullptr},
};

} // namespace

/* $sock method ?arg...? */
int pv_socket_command(ClientData clientData, Tcl_Interp* interp, int objc,
                      Tcl_Obj* const objv[]) {
    auto* d = static_cast<PVSockData*>(clientData);
    int index;
    if (objc < 2) {
        Tcl_WrongNumArgs(interp, 1, objv, "method ?arg...?");
        return TCL_ERROR;
    }
    if (Tcl_GetIndexFromObjStruct(interp, objv[1], methods, sizeof(Method), "method", 0,
                                  &index) != TCL_OK) {
        return TCL_ERROR;
    }
    if (d->socket == nullptr) {
        return fail(interp, "socket was closed when its thread ended", "ZMQ", "SOCKET",
                    "CLOSED");
    }
    return methods[index].proc(d, interp, objc, objv);
}
