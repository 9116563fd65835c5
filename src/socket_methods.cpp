/*
 * socket_methods.cpp -- the methods of a socket.
 *
 * A frame is a byte array in both directions: send gives ZeroMQ the argument's own
 * bytes, recv copies each frame once.
 */
#include "socket_methods.h"

#include "command.h"
#include "ctx.h"
#include "socket.h"
#include "socket_options.h"
#include "socket_record.h"
#include "socket_reuse.h"
#include "tclsupport.h"

#include <errno.h>
#include <limits.h>
#include <string.h>
#include <zmq.h>

namespace {

/* The first libzmq that drops the rest of a message whose peer has gone: 4.3.1. */
constexpr int dropsRest = 40301;

constexpr char nowaitWord[] = "-nowait";
constexpr Tcl_Size nowaitLength = sizeof nowaitWord - 1;

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
    Tcl_Size length;
    if (word->bytes == nullptr && word_bytes(nullptr, word, &length) != nullptr &&
        length != nowaitLength) {
        return false;
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
int pv_socket_meth_close(PVSockData* d, Tcl_Interp* /*interp*/, int /*objc*/,
                         Tcl_Obj* const /*objv*/[]) {
    // The command's deletion procedure does the rest, the count on the context
    // included.  The record is gone afterwards.
    Tcl_DeleteCommandFromToken(d->interp, d->token);
    return TCL_OK;
}

/* What the four endpoint methods share. */
int endpoint_method(PVSockData* d, Tcl_Interp* interp, Tcl_Obj* const objv[],
                    int (*operation)(void*, const char*), const char* what,
                    const char* word) {
    pv_ctx_standard_descriptors();
    if (operation(d->socket, Tcl_GetString(objv[2])) == -1) {
        return fail_zmq(interp, what, word);
    }
    d->attached = true;
    return TCL_OK;
}

/* $sock bind endpoint */
int pv_socket_meth_bind(PVSockData* d, Tcl_Interp* interp, int /*objc*/,
                        Tcl_Obj* const objv[]) {
    return endpoint_method(d, interp, objv, zmq_bind, "failed to bind socket", "BIND");
}

/* $sock unbind endpoint */
int pv_socket_meth_unbind(PVSockData* d, Tcl_Interp* interp, int /*objc*/,
                          Tcl_Obj* const objv[]) {
    return endpoint_method(d, interp, objv, zmq_unbind, "failed to unbind socket",
                           "UNBIND");
}

/* $sock connect endpoint */
int pv_socket_meth_connect(PVSockData* d, Tcl_Interp* interp, int /*objc*/,
                           Tcl_Obj* const objv[]) {
    return endpoint_method(d, interp, objv, zmq_connect, "failed to connect socket",
                           "CONNECT");
}

/* $sock disconnect endpoint */
int pv_socket_meth_disconnect(PVSockData* d, Tcl_Interp* interp, int /*objc*/,
                              Tcl_Obj* const objv[]) {
    return endpoint_method(d, interp, objv, zmq_disconnect,
                           "failed to disconnect socket", "DISCONNECT");
}

/* Sends one word, which is bytes, as a frame; returns its length, -1 after a failure.
 */
Tcl_Size send_frame(void* socket, Tcl_Obj* word, int flags) {
    Tcl_Size length;
    const unsigned char* bytes = word_bytes(nullptr, word, &length);
    return zmq_send(socket, bytes, static_cast<size_t>(length), flags) != -1 ? length
                                                                             : -1;
}

/* Tells whether all words are bytes; if not, the reason is left in interp. */
bool all_bytes(Tcl_Interp* interp, int count, Tcl_Obj* const words[]) {
    for (int i = 0; bytesMayBeRefused && i < count; i++) {
        Tcl_Size length;
        if (word_bytes(interp, words[i], &length) == nullptr) {
            return false;
        }
    }
    return true;
}

int fail_bytes(Tcl_Interp* interp) {
    return fail(interp, Tcl_ObjPrintf("send failed: %s", Tcl_GetStringResult(interp)),
                "ZMQ", "SOCKET", "SEND");
}

/* Whether a socket gives each message to one of its peers, round-robin. */
bool is_round_robin(void* socket) {
    int type = ZMQ_PAIR;
    size_t size = sizeof type;
    return zmq_getsockopt(socket, ZMQ_TYPE, &type, &size) == 0 &&
           (type == ZMQ_PUSH || type == ZMQ_DEALER || type == ZMQ_REQ);
}

/*
 * A peer went while a message was half sent: libzmq has taken back what it had and, on
 * round-robin sockets, drops what follows up to the end of the message.  It must see
 * that end, or it would drop the next message instead.  Other sockets drop nothing and
 * would take the rest for something new, an address even, and so does every socket of
 * earlier versions.
 */
void send_dropped_rest(void* socket, int count, Tcl_Obj* const words[]) {
    if (pv_zmq_version() < dropsRest || !is_round_robin(socket)) {
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
    const bool nowait = is_nowait(objv[2]);
    const int flags = nowait ? ZMQ_DONTWAIT : 0;
    const int first = nowait ? 3 : 2;
    Tcl_WideInt total = 0;
    if (!all_bytes(interp, objc - first, objv + first)) {
        return fail_bytes(interp);
    }
    for (int i = first; i < objc; i++) {
        const Tcl_Size length =
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

/* A step of receiving a frame, for the report that it failed. */
struct RecvStep {
    const char* failure; // the message
    const char* word;    // last word of the error code
};

constexpr RecvStep recvInit = {"failed to initialize frame", "INIT"};
constexpr RecvStep recvFrame = {"failed to receive frame", "FRAME"};
constexpr RecvStep recvBytes = {"failed to create byte array for frame", "BYTES"};
constexpr RecvStep recvClose = {"failed to release frame", "CLOSE"};
constexpr RecvStep recvAppend = {"failed to append bytes to list", "APPEND"};
constexpr RecvStep recvMore = {"failed to check for more frames", "GETSOCKOPT"};

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

/* A message on its way in. */
struct Received {
    PVKeptMessage* kept;   // its list and frames
    int count = 0;         // frames in the list
    Tcl_WideInt bytes = 0; // their bytes
    int more = 0;          // not 0: another frame follows
    int error = -1;        // of ZeroMQ, where the report names it
};

/* A step that ZeroMQ refused: its error number is read before anything changes it. */
const RecvStep* recv_refused(const RecvStep& step, Received* message) {
    message->error = zmq_errno();
    return &step;
}

/* Receives one frame of a message.  Returns null, or the step that failed. */
const RecvStep* recv_frame(const PVSockData* d, int flags, Received* message) {
    Message frame;
    if (frame.init() == -1) {
        return recv_refused(recvInit, message);
    }
    if (zmq_msg_recv(frame.get(), d->socket, flags) == -1) {
        return recv_refused(recvFrame, message);
    }
    message->more = 1; // until ZeroMQ tells: a failure from here on discards the rest
    const size_t size = zmq_msg_size(frame.get());
    if (size > static_cast<size_t>(bytesMax)) {
        return &recvBytes;
    }
    const ObjRef bytes(pv_reuse_frame(d->reuse, message->kept, message->count,
                                      zmq_msg_data(frame.get()), size));
    if (frame.close() == -1) {
        return &recvClose;
    }
    if (Tcl_ListObjAppendElement(nullptr, message->kept->list, bytes.get()) != TCL_OK) {
        return &recvAppend;
    }
    if (frames_follow(d->socket, &message->more) == -1) {
        return recv_refused(recvMore, message);
    }
    message->count++;
    message->bytes += static_cast<Tcl_WideInt>(size);
    return nullptr;
}

int fail_recv(Tcl_Interp* interp, const RecvStep& step, int error) {
    Tcl_Obj* message = error != -1
                           ? Tcl_ObjPrintf("%s: %s", step.failure, zmq_strerror(error))
                           : Tcl_NewStringObj(step.failure, -1);
    return fail(interp, message, "ZMQ", "SOCKET", "RECV", step.word);
}

/* $sock recv ?-nowait? */
int pv_socket_meth_recv(PVSockData* d, Tcl_Interp* interp, int objc,
                        Tcl_Obj* const objv[]) {
    const int flags = objc == 3 && is_nowait(objv[2]) ? ZMQ_DONTWAIT : 0;
    Received message = {pv_reuse_message(d->reuse)};
    do {
        const RecvStep* failed = recv_frame(d, flags, &message);
        if (failed != nullptr) {
            pv_reuse_clear(message.kept);
            if (message.more != 0) {
                discard_rest(d->socket);
            }
            return fail_recv(interp, *failed, message.error);
        }
    } while (message.more != 0);
    pv_socket_received_bytes(d, message.bytes);
    Tcl_SetObjResult(interp, message.kept->list);
    return TCL_OK;
}

Tcl_Obj* counts_dict(const PVCounts& counts, Tcl_Obj* messages, Tcl_Obj* bytes) {
    Tcl_Obj* dict = Tcl_NewDictObj();
    Tcl_DictObjPut(nullptr, dict, messages, Tcl_NewWideIntObj(counts.count));
    Tcl_DictObjPut(nullptr, dict, bytes, Tcl_NewWideIntObj(counts.bytes));
    return dict;
}

/* $sock stats */
int pv_socket_meth_stats(PVSockData* d, Tcl_Interp* interp, int /*objc*/,
                         Tcl_Obj* const /*objv*/[]) {
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
        return pv_socket_option_get_all(interp, d);
    }
    const char* name = Tcl_GetString(objv[2]);
    return objc == 3 ? pv_socket_option_get(interp, d, name)
                     : pv_socket_option_set(interp, d, name, objv[3]);
}

constexpr CommandRow<PVSockData> methods[] = {
    {"close", 2, 2, nullptr, pv_socket_meth_close},
    {"destroy", 2, 2, nullptr, pv_socket_meth_close},
    {"configure", 2, 4, "?-option ?value??", pv_socket_meth_configure},
    {"bind", 3, 3, "endpoint", pv_socket_meth_bind},
    {"unbind", 3, 3, "endpoint", pv_socket_meth_unbind},
    {"connect", 3, 3, "endpoint", pv_socket_meth_connect},
    {"disconnect", 3, 3, "endpoint", pv_socket_meth_disconnect},
    {"send", 3, anyNumber, "?-nowait? ?string ...?", pv_socket_meth_send},
    {"recv", 2, 3, "?-nowait?", pv_socket_meth_recv},
    {"stats", 2, 2, nullptr, pv_socket_meth_stats},
    {nullptr, 0, 0, nullptr, nullptr},
};
static_assert(table_ends(methods));

/*
 * The row of a method.  A script's code holds the same object for a word each time:
 * what it was found to be is kept with it.  A word that is held is never changed in
 * place.
 */
const CommandRow<PVSockData>* method_row(PVReuse* reuse, Tcl_Interp* interp,
                                         Tcl_Obj* word) {
    PVKeptWord* kept =
        &reuse->words[reinterpret_cast<uintptr_t>(word) / sizeof(Tcl_Obj) % keptWords];
    if (kept->word == word) {
        return kept->row;
    }
    const auto* row = command_row(interp, methods, word, "method");
    if (row != nullptr) {
        set_slot(kept->word, word);
        kept->row = row;
    }
    return row;
}

} // namespace

/* $sock method ?arg...? */
int pv_socket_command(ClientData clientData, Tcl_Interp* interp, int objc,
                      Tcl_Obj* const objv[]) {
    auto* d = static_cast<PVSockData*>(clientData);
    if (objc < 2) {
        return wrong_count(interp, 1, objv, "method ?arg...?");
    }
    // After its thread's store has ended nothing is kept there any more.
    const auto* row = d->socket != nullptr
                          ? method_row(d->reuse, interp, objv[1])
                          : command_row(interp, methods, objv[1], "method");
    if (row == nullptr) {
        return TCL_ERROR;
    }
    if (d->socket == nullptr) {
        return fail(interp, "socket was closed when its thread ended", "ZMQ", "SOCKET",
                    "CLOSED");
    }
    return command_run(row, 2, d, interp, objc, objv);
}
