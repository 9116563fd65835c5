/*
 * socket_options.cpp -- socket options: the table, the readers and the writers.
 *
 * Adding an option is one row.  Names are matched whole; values are neither
 * range-tested nor read back: ZeroMQ alone accepts or rejects them, but for those whose
 * acceptance would end the process.
 */
#include "socket_options.h"

#include "socket.h"
#include "tclsupport.h"

#include <errno.h>
#include <stdint.h>
#include <string.h>
#include <sys/poll.h>
#include <zmq.h>

// Later versions of ZeroMQ renamed these and may drop the old names one day.
#ifndef ZMQ_IDENTITY
#define ZMQ_IDENTITY ZMQ_ROUTING_ID
#endif
#ifndef ZMQ_CONNECT_RID
#define ZMQ_CONNECT_RID ZMQ_CONNECT_ROUTING_ID
#endif

namespace {

enum zo_types { ZO_NONE, ZO_INT, ZO_I64, ZO_U64, ZO_BIN, ZO_STR, ZO_Z85 };

struct PVSockOpt {
    const char* name; // Tcl option name, with its "-"
    int code;         // ZeroMQ option number
    bool read;        // configure may read it
    bool write;       // configure may write it
    zo_types type;    // conversion between Tcl's and ZeroMQ's value
};

constexpr PVSockOpt pv_socket_options[] = {
    {"-affinity", ZMQ_AFFINITY, true, true, ZO_U64},
    {"-backlog", ZMQ_BACKLOG, true, true, ZO_INT},
    {"-conflate", ZMQ_CONFLATE, false, true, ZO_INT},
    {"-connect_rid", ZMQ_CONNECT_RID, false, true, ZO_BIN},
    {"-events", ZMQ_EVENTS, true, false, ZO_INT},
    {"-fd", ZMQ_FD, true, false, ZO_INT},
    {"-handshake_ivl", ZMQ_HANDSHAKE_IVL, true, true, ZO_INT},
    {"-identity", ZMQ_IDENTITY, true, true, ZO_BIN},
    {"-immediate", ZMQ_IMMEDIATE, true, true, ZO_INT},
    {"-ipv6", ZMQ_IPV6, true, true, ZO_INT},
    {"-last_endpoint", ZMQ_LAST_ENDPOINT, true, false, ZO_STR},
    {"-linger", ZMQ_LINGER, true, true, ZO_INT},
    {"-maxmsgsize", ZMQ_MAXMSGSIZE, true, true, ZO_I64},
    {"-multicast_hops", ZMQ_MULTICAST_HOPS, true, true, ZO_INT},
    {"-probe_router", ZMQ_PROBE_ROUTER, false, true, ZO_INT},
    {"-rate", ZMQ_RATE, true, true, ZO_INT},
    {"-rcvbuf", ZMQ_RCVBUF, true, true, ZO_INT},
    {"-rcvhwm", ZMQ_RCVHWM, true, true, ZO_INT},
    {"-rcvmore", ZMQ_RCVMORE, true, false, ZO_INT},
    {"-rcvtimeo", ZMQ_RCVTIMEO, true, true, ZO_INT},
    {"-reconnect_ivl", ZMQ_RECONNECT_IVL, true, true, ZO_INT},
    {"-reconnect_ivl_max", ZMQ_RECONNECT_IVL_MAX, true, true, ZO_INT},
    {"-recovery_ivl", ZMQ_RECOVERY_IVL, true, true, ZO_INT},
    {"-req_correlate", ZMQ_REQ_CORRELATE, false, true, ZO_INT},
    {"-req_relaxed", ZMQ_REQ_RELAXED, false, true, ZO_INT},
    {"-router_handover", ZMQ_ROUTER_HANDOVER, false, true, ZO_INT},
    {"-router_mandatory", ZMQ_ROUTER_MANDATORY, false, true, ZO_INT},
    {"-router_raw", ZMQ_ROUTER_RAW, false, true, ZO_INT},
    {"-sndbuf", ZMQ_SNDBUF, true, true, ZO_INT},
    {"-sndhwm", ZMQ_SNDHWM, true, true, ZO_INT},
    {"-sndtimeo", ZMQ_SNDTIMEO, true, true, ZO_INT},
    {"-socks_proxy", ZMQ_SOCKS_PROXY, false, true, ZO_STR},
    {"-subscribe", ZMQ_SUBSCRIBE, false, true, ZO_BIN},
    {"-tcp_keepalive", ZMQ_TCP_KEEPALIVE, true, true, ZO_INT},
    {"-tcp_keepalive_cnt", ZMQ_TCP_KEEPALIVE_CNT, true, true, ZO_INT},
    {"-tcp_keepalive_idle", ZMQ_TCP_KEEPALIVE_IDLE, true, true, ZO_INT},
    {"-tcp_keepalive_intvl", ZMQ_TCP_KEEPALIVE_INTVL, true, true, ZO_INT},
    {"-tos", ZMQ_TOS, true, true, ZO_INT},
    {"-type", ZMQ_TYPE, true, false, ZO_INT},
    {"-unsubscribe", ZMQ_UNSUBSCRIBE, false, true, ZO_BIN},
    {"-xpub_nodrop", ZMQ_XPUB_NODROP, false, true, ZO_INT},
    {"-xpub_verbose", ZMQ_XPUB_VERBOSE, false, true, ZO_INT},
    {"-zap_domain", ZMQ_ZAP_DOMAIN, true, true, ZO_STR},
    {nullptr, -1, false, false, ZO_NONE},
};

constexpr size_t optionCount =
    sizeof pv_socket_options / sizeof pv_socket_options[0] - 1;
static_assert(optionCount == 43 && pv_socket_options[optionCount].name == nullptr,
              "43 rows and the terminating one");

constexpr size_t valueMax = 256; // bytes of the longest text or binary option value
constexpr int z85Length = 40;    // characters of an encoded 32-byte key

const PVSockOpt* pv_option_by_name(const char* name) {
    for (const PVSockOpt* opt = pv_socket_options; opt->name != nullptr; opt++) {
        if (strcmp(opt->name, name) == 0) {
            return opt;
        }
    }
    return nullptr;
}

// The readers: a new object, or null when ZeroMQ refuses.

Tcl_Obj* pv_option_get_int(void* socket, int code) {
    int value = 0;
    size_t size = sizeof value;
    if (zmq_getsockopt(socket, code, &value, &size) == -1) {
        return nullptr;
    }
    return code == ZMQ_TYPE ? Tcl_NewStringObj(pv_socket_type_name(value), -1)
                            : Tcl_NewIntObj(value);
}

/* Both 64-bit types: an unsigned value above the signed range reads back negative. */
Tcl_Obj* pv_option_get_i64(void* socket, int code) {
    int64_t value = 0;
    size_t size = sizeof value;
    return zmq_getsockopt(socket, code, &value, &size) == 0 ? Tcl_NewWideIntObj(value)
                                                            : nullptr;
}

Tcl_Obj* pv_option_get_u64(void* socket, int code) {
    return pv_option_get_i64(socket, code);
}

Tcl_Obj* pv_option_get_bin(void* socket, int code) {
    unsigned char value[valueMax] = {};
    size_t size = sizeof value;
    return zmq_getsockopt(socket, code, value, &size) == 0
               ? Tcl_NewByteArrayObj(value, static_cast<int>(size))
               : nullptr;
}

/* ZeroMQ counts the terminating NUL of a text. */
Tcl_Obj* pv_option_get_str(void* socket, int code) {
    char value[valueMax] = {};
    size_t size = sizeof value;
    return zmq_getsockopt(socket, code, value, &size) == 0
               ? Tcl_NewStringObj(value, size > 0 ? static_cast<int>(size) - 1 : 0)
               : nullptr;
}

Tcl_Obj* pv_option_get_z85(void* socket, int code) {
    char value[z85Length + 1] = {};
    size_t size = sizeof value;
    return zmq_getsockopt(socket, code, value, &size) == 0
               ? Tcl_NewStringObj(value, static_cast<int>(strnlen(value, z85Length)))
               : nullptr;
}

// The writers.

/*
 * Bytes of a topic that one may subscribe to.  libzmq 4.3 releases a topic by a nested
 * call for each byte, on a thread of its own, whose stack would overrun and end the
 * process: 8 MiB hold some 100,000 calls, and 2 MiB are the least a thread has by
 * default.
 */
constexpr size_t topicMax = 16384;

/*
 * libzmq 4.3 tells the other end of each connection of new high-water marks.  An end
 * that goes is freed once the socket has agreed, but the socket has the connection
 * until it is told that this is done; marks set between the two are written to freed
 * memory, which can crash the process.  So the socket answers what has come, until
 * nothing has come for a time in which ZeroMQ's own thread surely replies.
 */
constexpr int quietTime = 10;    // milliseconds; a reply takes some hundredth of that
constexpr int answersMax = 1000; // connections that are busy never get quiet

void settle_connections(void* socket) {
    char endpoint[valueMax];
    size_t size = sizeof endpoint;
    if (zmq_getsockopt(socket, ZMQ_LAST_ENDPOINT, endpoint, &size) == 0 && size <= 1) {
        return; // neither bound nor connected yet
    }
    pollfd commands = {-1, POLLIN, 0};
    size = sizeof commands.fd;
    if (zmq_getsockopt(socket, ZMQ_FD, &commands.fd, &size) == -1) {
        return;
    }
    for (int i = 0; i < answersMax; i++) {
        int events;
        size = sizeof events;
        if (zmq_getsockopt(socket, ZMQ_EVENTS, &events, &size) == -1 ||
            poll(&commands, 1, quietTime) <= 0) {
            return;
        }
    }
}

int set_unless_fatal(void* socket, const PVSockOpt* opt, const void* value,
                     size_t size) {
    if (opt->code == ZMQ_SNDHWM || opt->code == ZMQ_RCVHWM) {
        settle_connections(socket);
    }
    if (opt->code == ZMQ_SUBSCRIBE && size > topicMax) {
        errno = EINVAL;
        return -1;
    }
    return zmq_setsockopt(socket, opt->code, value, size);
}

int option_set(Tcl_Interp* interp, void* socket, const PVSockOpt* opt,
               const void* value, size_t size, const char* word) {
    if (set_unless_fatal(socket, opt, value, size) == 0) {
        return TCL_OK;
    }
    Tcl_Obj* message = Tcl_ObjPrintf("failed to set option \"%s\": %s", opt->name,
                                     zmq_strerror(zmq_errno()));
    return fail(interp, message, "ZMQ", "SOCKET", "SET", word);
}

int pv_option_set_int(Tcl_Interp* interp, void* socket, const PVSockOpt* opt,
                      Tcl_Obj* obj) {
    int value;
    return Tcl_GetIntFromObj(interp, obj, &value) == TCL_OK
               ? option_set(interp, socket, opt, &value, sizeof value, "INT")
               : TCL_ERROR;
}

int option_set_wide(Tcl_Interp* interp, void* socket, const PVSockOpt* opt,
                    Tcl_Obj* obj, const char* word) {
    Tcl_WideInt value;
    return Tcl_GetWideIntFromObj(interp, obj, &value) == TCL_OK
               ? option_set(interp, socket, opt, &value, sizeof value, word)
               : TCL_ERROR;
}

int pv_option_set_i64(Tcl_Interp* interp, void* socket, const PVSockOpt* opt,
                      Tcl_Obj* obj) {
    return option_set_wide(interp, socket, opt, obj, "I64");
}

int pv_option_set_u64(Tcl_Interp* interp, void* socket, const PVSockOpt* opt,
                      Tcl_Obj* obj) {
    return option_set_wide(interp, socket, opt, obj, "U64");
}

int pv_option_set_bin(Tcl_Interp* interp, void* socket, const PVSockOpt* opt,
                      Tcl_Obj* obj) {
    int length;
    const unsigned char* bytes = Tcl_GetByteArrayFromObj(obj, &length);
    return option_set(interp, socket, opt, bytes, static_cast<size_t>(length), "BIN");
}

int pv_option_set_str(Tcl_Interp* interp, void* socket, const PVSockOpt* opt,
                      Tcl_Obj* obj) {
    int length;
    const char* text = Tcl_GetStringFromObj(obj, &length);
    return option_set(interp, socket, opt, text, static_cast<size_t>(length), "STR");
}

int pv_option_set_z85(Tcl_Interp* interp, void* socket, const PVSockOpt* opt,
                      Tcl_Obj* obj) {
    int length;
    const char* text = Tcl_GetStringFromObj(obj, &length);
    if (length != z85Length) {
        return fail(interp,
                    Tcl_ObjPrintf("failed to set option \"%s\": key must be a z85 "
                                  "string of 40 characters",
                                  opt->name),
                    "ZMQ", "SOCKET", "SET", "Z85");
    }
    // No type word: the error code ends with "SET".
    return option_set(interp, socket, opt, text, static_cast<size_t>(z85Length),
                      nullptr);
}

/* Reader and writer of each type, indexed by zo_types. */
constexpr struct {
    Tcl_Obj* (*get)(void* socket, int code);
    int (*set)(Tcl_Interp* interp, void* socket, const PVSockOpt* opt, Tcl_Obj* value);
} converters[] = {
    {nullptr, nullptr},
    {pv_option_get_int, pv_option_set_int},
    {pv_option_get_i64, pv_option_set_i64},
    {pv_option_get_u64, pv_option_set_u64},
    {pv_option_get_bin, pv_option_set_bin},
    {pv_option_get_str, pv_option_set_str},
    {pv_option_get_z85, pv_option_set_z85},
};
static_assert(sizeof converters / sizeof converters[0] == ZO_Z85 + 1,
              "one row a type, in the order of zo_types");

int fail_type(Tcl_Interp* interp, const PVSockOpt* opt, const char* direction) {
    return fail(interp,
                Tcl_ObjPrintf("unknown type %d for option \"%s\"",
                              static_cast<int>(opt->type), opt->name),
                "ZMQ", "SOCKET", direction, opt->name);
}

/* A new object with the option's value, or null with an error left in interp. */
Tcl_Obj* pv_socket_option_get_val(Tcl_Interp* interp, void* socket,
                                  const PVSockOpt* opt) {
    if (converters[opt->type].get == nullptr) {
        fail_type(interp, opt, "GET");
        return nullptr;
    }
    Tcl_Obj* value = converters[opt->type].get(socket, opt->code);
    if (value == nullptr) {
        Tcl_Obj* message =
            Tcl_ObjPrintf("failed to retrieve value for option \"%s\": %s", opt->name,
                          zmq_strerror(zmq_errno()));
        fail(interp, message, "ZMQ", "SOCKET", "GET", opt->name);
    }
    return value;
}

int option_set_val(Tcl_Interp* interp, void* socket, const PVSockOpt* opt,
                   Tcl_Obj* value) {
    return converters[opt->type].set != nullptr
               ? converters[opt->type].set(interp, socket, opt, value)
               : fail_type(interp, opt, "SET");
}

/* The row of an option that direction allows, or null with an error left. */
const PVSockOpt* option_for(Tcl_Interp* interp, const char* name,
                            bool PVSockOpt::*allowed, const char* able,
                            const char* direction) {
    const PVSockOpt* opt = pv_option_by_name(name);
    if (opt == nullptr) {
        fail(interp, Tcl_ObjPrintf("unknown socket option \"%s\"", name), "ZMQ",
             "SOCKET", direction, name);
        return nullptr;
    }
    if (!(opt->*allowed)) {
        fail(interp, Tcl_ObjPrintf("option \"%s\" is not %s", name, able), "ZMQ",
             "SOCKET", direction, name);
        return nullptr;
    }
    return opt;
}

} // namespace

int pv_socket_option_get_all(Tcl_Interp* interp, void* socket) {
    const ObjRef dict(Tcl_NewDictObj());
    for (const PVSockOpt* opt = pv_socket_options; opt->name != nullptr; opt++) {
        if (!opt->read) {
            continue;
        }
        Tcl_Obj* value = pv_socket_option_get_val(interp, socket, opt);
        if (value == nullptr) {
            return TCL_ERROR;
        }
        const ObjRef held(value);
        const ObjRef key(Tcl_NewStringObj(opt->name, -1));
        if (Tcl_DictObjPut(nullptr, dict.get(), key.get(), value) != TCL_OK) {
            return fail(interp,
                        Tcl_ObjPrintf("failed to add option %s to result", opt->name),
                        "ZMQ", "SOCKET", "GET");
        }
    }
    Tcl_SetObjResult(interp, dict.get());
    return TCL_OK;
}

int pv_socket_option_get(Tcl_Interp* interp, void* socket, const char* name) {
    const PVSockOpt* opt =
        option_for(interp, name, &PVSockOpt::read, "readable", "GET");
    Tcl_Obj* value =
        opt != nullptr ? pv_socket_option_get_val(interp, socket, opt) : nullptr;
    if (value == nullptr) {
        return TCL_ERROR;
    }
    Tcl_SetObjResult(interp, value);
    return TCL_OK;
}

int pv_socket_option_set(Tcl_Interp* interp, void* socket, const char* name,
                         Tcl_Obj* value) {
    const PVSockOpt* opt =
        option_for(interp, name, &PVSockOpt::write, "writable", "SET");
    return opt != nullptr ? option_set_val(interp, socket, opt, value) : TCL_ERROR;
}
