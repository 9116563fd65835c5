/*
 * bare.c -- Tcl commands that do nothing but call libzmq, and use results again.
 *
 * The commands have the names of the package's, so that the same procs run on them, and
 * do what those procs need, and examples/worker.tcl until it is stopped, and nothing
 * else: no message on an error (the process ends), no option that they do not set, no
 * count, no timer, no signal, no log, no check that a socket or a handler still is there.
 * The calls of libzmq are those that the package makes for them.  Of what Tcl itself takes
 * remains: the call of a command, the evaluation of a handler, and, in a receive, filling
 * a list and byte arrays that are kept from an earlier one.
 */
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <tcl.h>
#include <zmq.h>

enum { handlersMax = 1023 }; // sockets that a context holds
enum { keptMessages = 2, keptFrames = 16, keptBytes = 1024 };

static void* context;
static zmq_pollitem_t items[handlersMax];
static Tcl_Obj* scripts[handlersMax];
static int handlers;
static int running;

/* Results of receives.  A script holds one while the next is made. */
static struct {
    Tcl_Obj* list;
    Tcl_Obj* frames[keptFrames];
} kept[keptMessages];

static void check(int ok) {
    if (!ok) {
        fprintf(stderr, "bare: %s\n", zmq_strerror(zmq_errno()));
        exit(1);
    }
}

/*
 * An object with these bytes: that of the slot (NULL: none) if nobody else holds it, else
 * a new one.
 */
static Tcl_Obj* filled(Tcl_Obj** slot, const void* bytes, int size) {
    if (slot == NULL || size > keptBytes) {
        return Tcl_NewByteArrayObj(bytes, size);
    }
    if (*slot != NULL && (*slot)->refCount == 1) {
        memcpy(Tcl_SetByteArrayLength(*slot, size), bytes, (size_t) size);
        return *slot;
    }
    if (*slot != NULL) {
        Tcl_DecrRefCount(*slot);
    }
    *slot = Tcl_NewByteArrayObj(bytes, size);
    Tcl_IncrRefCount(*slot);
    return *slot;
}

static Tcl_Obj* empty_list(Tcl_Obj** slot) {
    if (*slot != NULL && (*slot)->refCount == 1) {
        Tcl_ListObjReplace(NULL, *slot, 0, INT_MAX, 0, NULL);
        return *slot;
    }
    if (*slot != NULL) {
        Tcl_DecrRefCount(*slot);
    }
    *slot = Tcl_NewListObj(0, NULL);
    Tcl_IncrRefCount(*slot);
    return *slot;
}

static void socket_recv(Tcl_Interp* interp, void* socket, int flags) {
    static int next;
    next = (next + 1) % keptMessages;
    Tcl_Obj* frames = empty_list(&kept[next].list);
    int more;
    for (int i = 0;; i++) {
        zmq_msg_t frame;
        size_t size = sizeof more;
        check(zmq_msg_init(&frame) == 0 && zmq_msg_recv(&frame, socket, flags) != -1);
        Tcl_ListObjAppendElement(
            NULL, frames,
            filled(i < keptFrames ? &kept[next].frames[i] : NULL, zmq_msg_data(&frame),
                   (int) zmq_msg_size(&frame)));
        zmq_msg_close(&frame);
        zmq_getsockopt(socket, ZMQ_RCVMORE, &more, &size);
        if (more == 0) {
            break;
        }
    }
    Tcl_SetObjResult(interp, frames);
}

static void socket_send(void* socket, int count, Tcl_Obj* const words[]) {
    const int nowait = words[0]->bytes != NULL && strcmp(words[0]->bytes, "-nowait") == 0;
    const int flags = nowait ? ZMQ_DONTWAIT : 0;
    for (int i = nowait; i < count; i++) {
        int length;
        const unsigned char* bytes = Tcl_GetByteArrayFromObj(words[i], &length);
        const int more = i + 1 < count ? ZMQ_SNDMORE : 0;
        check(zmq_send(socket, bytes, (size_t) length, flags | more) != -1);
    }
}

static void configure(Tcl_Interp* interp, void* socket, int objc, Tcl_Obj* const objv[]) {
    char endpoint[64];
    size_t size = sizeof endpoint;
    int queue;
    if (objc == 3) {
        check(zmq_getsockopt(socket, ZMQ_LAST_ENDPOINT, endpoint, &size) == 0);
        Tcl_SetObjResult(interp, Tcl_NewStringObj(endpoint, -1));
    } else {
        Tcl_GetIntFromObj(interp, objv[3], &queue);
        check(zmq_setsockopt(socket, ZMQ_RCVHWM, &queue, sizeof queue) == 0);
    }
}

/*
 * A socket's command: send, recv, bind, connect, stats (which are none), and configure of
 * -last_endpoint to read and -rcvhwm to write, by their letters.
 */
static int method(ClientData socket, Tcl_Interp* interp, int objc, Tcl_Obj* const objv[]) {
    const char* word = Tcl_GetString(objv[1]);
    if (*word == 's') {
        if (word[1] == 'e') {
            socket_send(socket, objc - 2, objv + 2);
        }
    } else if (*word == 'r') {
        socket_recv(interp, socket, objc == 3 ? ZMQ_DONTWAIT : 0);
    } else if (*word == 'b') {
        check(zmq_bind(socket, Tcl_GetString(objv[2])) == 0);
    } else if (word[3] == 'n') {
        check(zmq_connect(socket, Tcl_GetString(objv[2])) == 0);
    } else {
        configure(interp, socket, objc, objv);
    }
    return TCL_OK;
}

/* ::zmq::socket new type */
static int socket_new(ClientData data, Tcl_Interp* interp, int objc, Tcl_Obj* const objv[]) {
    static const struct {
        const char* word;
        int type;
    } types[] = {
        {"PULL", ZMQ_PULL}, {"PUSH", ZMQ_PUSH}, {"REQ", ZMQ_REQ}, {"REP", ZMQ_REP}};
    static int count;
    (void) data, (void) objc;
    for (size_t i = 0; i < sizeof types / sizeof *types; i++) {
        if (strcmp(types[i].word, Tcl_GetString(objv[2])) == 0) {
            Tcl_Obj* name = Tcl_ObjPrintf("::bare%d", count++);
            void* socket = zmq_socket(context, types[i].type);
            check(socket != NULL);
            Tcl_CreateObjCommand(interp, Tcl_GetString(name), method, socket, NULL);
            Tcl_SetObjResult(interp, name);
        }
    }
    return TCL_OK;
}

static void* socket_of(Tcl_Interp* interp, Tcl_Obj* name) {
    Tcl_CmdInfo info;
    Tcl_GetCommandInfoFromToken(Tcl_GetCommandFromObj(interp, name), &info);
    return info.objClientData;
}

/* ::zmq::poll socket... timeout */
static int poll_once(ClientData data, Tcl_Interp* interp, int objc, Tcl_Obj* const objv[]) {
    static zmq_pollitem_t polled[handlersMax];
    Tcl_Obj* ready = Tcl_NewListObj(0, NULL);
    int timeout;
    (void) data;
    Tcl_GetIntFromObj(interp, objv[objc - 1], &timeout);
    for (int i = 0; i < objc - 2; i++) {
        polled[i] = (zmq_pollitem_t){socket_of(interp, objv[i + 1]), 0, ZMQ_POLLIN, 0};
    }
    check(zmq_poll(polled, objc - 2, timeout) != -1);
    for (int i = 0; i < objc - 2; i++) {
        if (polled[i].revents != 0) {
            Tcl_ListObjAppendElement(NULL, ready, objv[i + 1]);
        }
    }
    Tcl_SetObjResult(interp, ready);
    return TCL_OK;
}

/* A socket has one handler. */
static void event_set(void* socket, Tcl_Obj* script) {
    int i = 0;
    while (i < handlers && items[i].socket != socket) {
        i++;
    }
    if (i == handlers) {
        handlers++;
    } else {
        Tcl_DecrRefCount(scripts[i]);
    }
    items[i] = (zmq_pollitem_t){socket, 0, ZMQ_POLLIN, 0};
    scripts[i] = script;
    Tcl_IncrRefCount(script);
}

static void reactor_start(Tcl_Interp* interp) {
    for (running = 1; running;) {
        check(zmq_poll(items, handlers, -1) != -1);
        for (int i = 0; i < handlers; i++) {
            if (items[i].revents != 0 &&
                Tcl_EvalObjEx(interp, scripts[i], TCL_EVAL_GLOBAL) != TCL_OK) {
                check(0);
            }
        }
    }
}

/* ::qel::reactor event socket readable script, start, stop; other words do nothing */
static int reactor(ClientData data, Tcl_Interp* interp, int objc, Tcl_Obj* const objv[]) {
    (void) data;
    const char* word = Tcl_GetString(objv[1]);
    if (strcmp(word, "event") == 0) {
        event_set(socket_of(interp, objv[2]), Tcl_DuplicateObj(objv[4]));
    } else if (strcmp(word, "start") == 0) {
        reactor_start(interp);
    } else if (strcmp(word, "stop") == 0) {
        running = 0;
    }
    return TCL_OK;
}

int Bare_Init(Tcl_Interp* interp) {
    if (Tcl_InitStubs(interp, "8.5", 0) == NULL) {
        return TCL_ERROR;
    }
    context = zmq_ctx_new();
    Tcl_CreateNamespace(interp, "::zmq", NULL, NULL);
    Tcl_CreateNamespace(interp, "::qel", NULL, NULL);
    Tcl_CreateObjCommand(interp, "::zmq::socket", socket_new, NULL, NULL);
    Tcl_CreateObjCommand(interp, "::zmq::poll", poll_once, NULL, NULL);
    Tcl_CreateObjCommand(interp, "::qel::reactor", reactor, NULL, NULL);
    return Tcl_PkgProvide(interp, "bare", "1.0");
}
