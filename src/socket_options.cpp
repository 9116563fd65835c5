/*
 * socket_options.cpp -- socket options: the table, the readers and the writers.
 *
 * Adding an option is one row.  Names are matched whole; values are neither
 * range-tested nor read back: ZeroMQ alone accepts or rejects them, but for those whose
 * acceptance would end the process.
 */
#include "socket_options.h"

#include "socket.h"
#include "socket_record.h"
#include "socket_settle.h"
#include "tclsupport.h"

#include <errno.h>
#include <stdint.h>
#include <string.h>
#include <zmq.h>

namespace {

/* What configure may do with an option: bits. */
enum Access { read_only = 1, write_only = 2, read_write = read_only | write_only };

/*
 * Kinds of values; each has a row in converters, in this order.  ZO_Z85 is for options
 * whose value is a key; no row of the table is one, as keys are set in pairs.
 */
enum zo_types { ZO_NONE, ZO_INT, ZO_I64, ZO_U64, ZO_BIN, ZO_STR, ZO_Z85 };

struct PVSockOpt {
    const char* name; // Tcl option name, with its "-"
    int code;         // ZeroMQ option number
    Access access;    // what configure may do
    zo_types type;    // conversion between Tcl's and ZeroMQ's value
};

// Later versions of ZeroMQ have other names for these, and may drop the old ones.
constexpr int optIdentity = 5;    // ZMQ_IDENTITY
constexpr int optConnectRid = 61; // ZMQ_CONNECT_RID

constexpr PVSockOpt pv_socket_options[] = {
    {"-affinity", ZMQ_AFFINITY, read_write, ZO_U64},
    {"-backlog", ZMQ_BACKLOG, read_write, ZO_INT},
    {"-conflate", ZMQ_CONFLATE, write_only, ZO_INT},
    {"-connect_rid", optConnectRid, write_only, ZO_BIN},
    {"-events", ZMQ_EVENTS, read_only, ZO_INT},
    {"-fd", ZMQ_FD, read_only, ZO_INT},
    {"-handshake_ivl", ZMQ_HANDSHAKE_IVL, read_write, ZO_INT},
    {"-identity", optIdentity, read_write, ZO_BIN},
    {"-immediate", ZMQ_IMMEDIATE, read_write, ZO_INT},
    {"-ipv6", ZMQ_IPV6, read_write, ZO_INT},
    {"-last_endpoint", ZMQ_LAST_ENDPOINT, read_only, ZO_STR},
    {"-linger", ZMQ_LINGER, read_write, ZO_INT},
    {"-maxmsgsize", ZMQ_MAXMSGSIZE, read_write, ZO_I64},
    {"-multicast_hops", ZMQ_MULTICAST_HOPS, read_write, ZO_INT},
    {"-probe_router", ZMQ_PROBE_ROUTER, write_only, ZO_INT},
    {"-rate", ZMQ_RATE, read_write, ZO_INT},
    {"-rcvbuf", ZMQ_RCVBUF, read_write, ZO_INT},
    {"-rcvhwm", ZMQ_RCVHWM, read_write, ZO_INT},
    {"-rcvmore", ZMQ_RCVMORE, read_only, ZO_INT},
    {"-rcvtimeo", ZMQ_RCVTIMEO, read_write, ZO_INT},
    {"-reconnect_ivl", ZMQ_RECONNECT_IVL, read_write, ZO_INT},
    {"-reconnect_ivl_max", ZMQ_RECONNECT_IVL_MAX, read_write, ZO_INT},
    {"-recovery_ivl", ZMQ_RECOVERY_IVL, read_write, ZO_INT},
    {"-req_correlate", ZMQ_REQ_CORRELATE, write_only, ZO_INT},
    {"-req_relaxed", ZMQ_REQ_RELAXED, write_only, ZO_INT},
    {"-router_handover", ZMQ_ROUTER_HANDOVER, write_only, ZO_INT},
    {"-router_mandatory", ZMQ_ROUTER_MANDATORY, write_only, ZO_INT},
    {"-router_raw", ZMQ_ROUTER_RAW, write_only, ZO_INT},
    {"-sndbuf", ZMQ_SNDBUF, read_write, ZO_INT},
    {"-sndhwm", ZMQ_SNDHWM, read_write, ZO_INT},
    {"-sndtimeo", ZMQ_SNDTIMEO, read_write, ZO_INT},
    {"-socks_proxy", ZMQ_SOCKS_PROXY, write_only, ZO_STR},
    {"-subscribe", ZMQ_SUBSCRIBE, write_only, ZO_BIN},
    {"-tcp_keepalive", ZMQ_TCP_KEEPALIVE, read_write, ZO_INT},
    {"-tcp_keepalive_cnt", ZMQ_TCP_KEEPALIVE_CNT, read_write, ZO_INT},
    {"-tcp_keepalive_idle", ZMQ_TCP_KEEPALIVE_IDLE, read_write, ZO_INT},
    {"-tcp_keepalive_intvl", ZMQ_TCP_KEEPALIVE_INTVL, read_write, ZO_INT},
    {"-tos", ZMQ_TOS, read_write, ZO_INT},
    {"-type", ZMQ_TYPE, read_only, ZO_INT},
    {"-unsubscribe", ZMQ_UNSUBSCRIBE, write_only, ZO_BIN},
    {"-xpub_nodrop", ZMQ_XPUB_NODROP, write_only, ZO_INT},
    {"-xpub_verbose", ZMQ_XPUB_VERBOSE, write_only, ZO_INT},
    {"-zap_domain", ZMQ_ZAP_DOMAIN, read_write, ZO_STR},
    {nullptr, -1, Access(), ZO_NONE},
};

constexpr size_t valueMax = 256; // bytes of a text or binary value; see zmq_options(n)
constexpr Tcl_Size z85Length = 40; // characters of an encoded 32-byte key

/*
 * Bytes of a topic that one may subscribe to.  libzmq 4.3 releases a topic by a nested
 * call for each byte, on a thread of its own, whose stack would overrun and end the
 * process: 8 MiB hold some 100,000 calls, and 2 MiB are the least a thread has by
 * default.
 */
constexpr size_t topicMax = 16384;

/* Makes ready for an option that libzmq might not survive; -1 with errno: refused. */
int prepare(const PVSockData* d, const PVSockOpt* opt, size_t size) {
    if (opt->code == ZMQ_SUBSCRIBE && size > topicMax) {
        errno = EINVAL;
        return -1;
    }
    const bool marks = opt->code == ZMQ_SNDHWM || opt->code == ZMQ_RCVHWM;
    return marks && d->attached ? pv_socket_settle(d->socket) : 0;
}

/*
 * Gives ZeroMQ a converted value.  word: the value's kind in the error code, null:
 * none.
 */
int write_option(Tcl_Interp* interp, const PVSockData* d, const PVSockOpt* opt,
                 const void* value, size_t size, const char* word) {
    if (prepare(d, opt, size) == 0 &&
        zmq_setsockopt(d->socket, opt->code, value, size) == 0) {
        return TCL_OK;
    }
    Tcl_Obj* message = Tcl_ObjPrintf("failed to set option \"%s\": %s", opt->name,
                                     zmq_strerror(zmq_errno()));
    return fail(interp, message, "ZMQ", "SOCKET", "SET", word);
}

Tcl_Obj* pv_option_get_int(void* socket, int code) {
    int value = 0;
    size_t size = sizeof value;
    if (zmq_getsockopt(socket, code, &value, &size) == -1) {
        return nullptr;
    }
    return code == ZMQ_TYPE ? Tcl_NewStringObj(pv_socket_type_name(value), -1)
                            : Tcl_NewIntObj(value);
}

int pv_option_set_int(Tcl_Interp* interp, const PVSockData* d, const PVSockOpt* opt,
                      Tcl_Obj* obj) {
    int value;
    return Tcl_GetIntFromObj(interp, obj, &value) == TCL_OK
               ? write_option(interp, d, opt, &value, sizeof value, "INT")
               : TCL_ERROR;
}

/* Both 64-bit types: an unsigned value above the signed range reads back negative. */
Tcl_Obj* get_wide(void* socket, int code) {
    int64_t value = 0;
    size_t size = sizeof value;
    return zmq_getsockopt(socket, code, &value, &size) == 0 ? Tcl_NewWideIntObj(value)
                                                            : nullptr;
}

int set_wide(Tcl_Interp* interp, const PVSockData* d, const PVSockOpt* opt,
             Tcl_Obj* obj, const char* word) {
    Tcl_WideInt value;
    return Tcl_GetWideIntFromObj(interp, obj, &value) == TCL_OK
               ? write_option(interp, d, opt, &value, sizeof value, word)
               : TCL_ERROR;
}

int pv_option_set_i64(Tcl_Interp* interp, const PVSockData* d, const PVSockOpt* opt,
                      Tcl_Obj* obj) {
    return set_wide(interp, d, opt, obj, "I64");
}

int pv_option_set_u64(Tcl_Interp* interp, const PVSockData* d, const PVSockOpt* opt,
                      Tcl_Obj* obj) {
    return set_wide(interp, d, opt, obj, "U64");
}

Tcl_Obj* pv_option_get_bin(void* socket, int code) {
    unsigned char value[valueMax] = {};
    size_t size = sizeof value;
    return zmq_getsockopt(socket, code, value, &size) == 0
               ? Tcl_NewByteArrayObj(value, static_cast<Tcl_Size>(size))
               : nullptr;
}

int pv_option_set_bin(Tcl_Interp* interp, const PVSockData* d, const PVSockOpt* opt,
                      Tcl_Obj* obj) {
    Tcl_Size length;
    const unsigned char* bytes = word_bytes(interp, obj, &length);
    return bytes != nullptr
               ? write_option(interp, d, opt, bytes, static_cast<size_t>(length), "BIN")
               : TCL_ERROR;
}

/* ZeroMQ counts the terminating NUL of a text. */
Tcl_Obj* pv_option_get_str(void* socket, int code) {
    char value[valueMax] = {};
    size_t size = sizeof value;
    return zmq_getsockopt(socket, code, value, &size) == 0
               ? Tcl_NewStringObj(value, size > 0 ? static_cast<Tcl_Size>(size) - 1 : 0)
               : nullptr;
}

int pv_option_set_str(Tcl_Interp* interp, const PVSockData* d, const PVSockOpt* opt,
                      Tcl_Obj* obj) {
    Tcl_Size length;
    const char* text = Tcl_GetStringFromObj(obj, &length);
    return write_option(interp, d, opt, text, static_cast<size_t>(length), "STR");
}

Tcl_Obj* pv_option_get_z85(void* socket, int code) {
    char value[z85Length + 1] = {};
    size_t size = sizeof value;
    return zmq_getsockopt(socket, code, value, &size) == 0
               ? Tcl_NewStringObj(value,
                                  static_cast<Tcl_Size>(strnlen(value, z85Length)))
               : nullptr;
}

int pv_option_set_z85(Tcl_Interp* interp, const PVSockData* d, const PVSockOpt* opt,
                      Tcl_Obj* obj) {
    Tcl_Size length;
    const char* text = Tcl_GetStringFromObj(obj, &length);
    if (length != z85Length) {
        return fail(interp,
                    Tcl_ObjPrintf("failed to set option \"%s\": key must be a z85 "
                                  "string of 40 characters",
                                  opt->name),
                    "ZMQ", "SOCKET", "SET", "Z85");
    }
    return write_option(interp, d, opt, text, static_cast<size_t>(z85Length), nullptr);
}

/* Reader and writer of each kind of value. */
constexpr struct {
    // A new object with the option's value, or null when ZeroMQ refuses.
    Tcl_Obj* (*get)(void* socket, int code);
    // A Tcl code; the error of a value that is none of the kind is left in interp.
    int (*set)(Tcl_Interp* interp, const PVSockData* d, const PVSockOpt* opt,
               Tcl_Obj* value);
} converters[] = {
    {nullptr, nullptr},
    {pv_option_get_int, pv_option_set_int},
    {get_wide, pv_option_set_i64},
    {get_wide, pv_option_set_u64},
    {pv_option_get_bin, pv_option_set_bin},
    {pv_option_get_str, pv_option_set_str},
    {pv_option_get_z85, pv_option_set_z85},
};
static_assert(sizeof converters / sizeof converters[0] == ZO_Z85 + 1,
              "one row a kind, in the order of zo_types");

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

int pv_socket_option_set_val(Tcl_Interp* interp, const PVSockData* d,
                             const PVSockOpt* opt, Tcl_Obj* value) {
    return converters[opt->type].set != nullptr
               ? converters[opt->type].set(interp, d, opt, value)
               : fail_type(interp, opt, "SET");
}

/* The row of exactly this name, or null.  O(n): few enough rows for a script's calls.
 */
const PVSockOpt* pv_option_by_name(const char* name) {
    for (const PVSockOpt* opt = pv_socket_options; opt->name != nullptr; opt++) {
        if (strcmp(opt->name, name) == 0) {
            return opt;
        }
    }
    return nullptr;
}

/* The row of an option that allows this access, or null with an error left. */
const PVSockOpt* option_for(Tcl_Interp* interp, const char* name, Access access) {
    const char* direction = access == read_only ? "GET" : "SET";
    const PVSockOpt* opt = pv_option_by_name(name);
    if (opt == nullptr) {
        fail(interp, Tcl_ObjPrintf("unknown socket option \"%s\"", name), "ZMQ",
             "SOCKET", direction, name);
        return nullptr;
    }
    if ((opt->access & access) == 0) {
        fail(interp,
             Tcl_ObjPrintf("option \"%s\" is not %s", name,
                           access == read_only ? "readable" : "writable"),
             "ZMQ", "SOCKET", direction, name);
        return nullptr;
    }
    return opt;
}

} // namespace

int pv_socket_option_get_all(Tcl_Interp* interp, const PVSockData* d) {
    const ObjRef dict(Tcl_NewDictObj());
    for (const PVSockOpt* opt = pv_socket_options; opt->name != nullptr; opt++) {
        if ((opt->access & read_only) == 0) {
            continue;
        }
        Tcl_Obj* value = pv_socket_option_get_val(interp, d->socket, opt);
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

int pv_socket_option_get(Tcl_Interp* interp, const PVSockData* d, const char* name) {
    const PVSockOpt* opt = option_for(interp, name, read_only);
    Tcl_Obj* value =
        opt != nullptr ? pv_socket_option_get_val(interp, d->socket, opt) : nullptr;
    if (value == nullptr) {
        return TCL_ERROR;
    }
    Tcl_SetObjResult(interp, value);
    return TCL_OK;
}

int pv_socket_option_set(Tcl_Interp* interp, const PVSockData* d, const char* name,
                         Tcl_Obj* value) {
    const PVSockOpt* opt = option_for(interp, name, write_only);
    return opt != nullptr ? pv_socket_option_set_val(interp, d, opt, value) : TCL_ERROR;
}
