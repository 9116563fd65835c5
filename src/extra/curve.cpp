/*
 * curve.cpp -- the command ::zmq::curve: keys of ZeroMQ's CURVE encryption.
 *
 * Every key is checked before the first one is given to the socket: a command that
 * fails leaves the socket as it was.  Copies of keys are erased; those in the script's
 * own values are the script's to guard.
 */
#include "extra.h"

#include <errno.h>
#include <string.h>

namespace {

constexpr size_t keyBytes = 32;
constexpr int textLength = 40; // characters of a key in Z85

/* What holds a key, erased with its scope. */
template <typename Unit, size_t count> struct Erased {
    Unit at[count] = {};
    Erased() = default;
    ~Erased() {
        explicit_bzero(at, sizeof at);
    }
    Erased(const Erased&) = delete;
    Erased& operator=(const Erased&) = delete;
};

using Key = Erased<uint8_t, keyBytes>;        // as the socket takes it
using KeyText = Erased<char, textLength + 1>; // as scripts write it, with a null byte

/* A socket option on its way. */
struct Setting {
    int option;
    const void* value;
    size_t size; // bytes
};

/*
 * Reads a key.  libzmq's decoders differ in what they refuse, and early ones read
 * beyond their table: only printable characters are given to them, and what they made
 * must give the same text again.
 */
bool key_read(const char* text, Key& key) {
    KeyText again;
    if (strlen(text) != textLength) {
        return false;
    }
    for (const char* c = text; *c != '\0'; c++) {
        if (*c < '!' || *c > '~') {
            return false;
        }
    }
    return zmq_z85_decode(key.at, text) != nullptr &&
           zmq_z85_encode(again.at, key.at, keyBytes) != nullptr &&
           memcmp(again.at, text, textLength) == 0;
}

/* The same with an error, which must not show the key: it may be a secret. */
bool key_take(Tcl_Interp* interp, const char* text, const char* which, Key& key) {
    if (key_read(text, key)) {
        return true;
    }
    fail(interp,
         Tcl_ObjPrintf("bad %s key: a key has 40 characters and is valid Z85", which),
         "ZMQ", "CURVE", "KEY");
    return false;
}

/* Whether the libzmq that was loaded encrypts; if not, an error is left in interp. */
bool supported(Tcl_Interp* interp) {
    if (zmq_has("curve") == 1) {
        return true;
    }
    fail(interp, "this ZeroMQ was built without CURVE", "ZMQ", "CURVE", "SUPPORT");
    return false;
}

bool keypair_make(Tcl_Interp* interp, KeyText& publicKey, KeyText& secretKey) {
    if (!supported(interp)) {
        return false;
    }
    if (zmq_curve_keypair(publicKey.at, secretKey.at) == 0) {
        return true;
    }
    fail_extra(interp, "failed to make keys", "CURVE", "KEYPAIR");
    return false;
}

/*
 * The record of a socket that can take keys.  Null with an error left in interp: keys
 * do nothing for connections that there are already, and a STREAM socket never
 * encrypts, which libzmq does not say.
 */
PVSockData* socket_before(const PVSocketAccess* access, Tcl_Interp* interp,
                          Tcl_Obj* word) {
    int type;
    size_t size = sizeof type;
    PVSockData* d = extra_socket(access, interp, word, "CURVE");
    if (d == nullptr || !supported(interp)) {
        return nullptr;
    }
    if (zmq_getsockopt(d->socket, ZMQ_TYPE, &type, &size) == -1) {
        fail_extra(interp, "failed to set keys", "CURVE", "OPTION");
    } else if (type == ZMQ_STREAM) {
        fail(interp, "a STREAM socket cannot encrypt", "ZMQ", "CURVE", "TYPE");
    } else if (d->attached) {
        fail(interp, "keys must be set before the socket is bound or connected", "ZMQ",
             "CURVE", "ATTACHED");
    } else {
        return d;
    }
    return nullptr;
}

/*
 * Sets options until one fails.  Then a socket that was without CURVE is so again; one
 * that had keys still encrypts, and at worst nobody can connect to it.
 */
template <size_t count>
int settings_apply(Tcl_Interp* interp, void* socket, const Setting (&settings)[count]) {
    int before = ZMQ_CURVE;
    size_t size = sizeof before;
    zmq_getsockopt(socket, ZMQ_MECHANISM, &before, &size);
    for (const Setting& setting : settings) {
        if (zmq_setsockopt(socket, setting.option, setting.value, setting.size) == -1) {
            const int error = zmq_errno();
            const int off = 0;
            if (before == ZMQ_NULL) {
                zmq_setsockopt(socket, ZMQ_CURVE_SERVER, &off, sizeof off);
            }
            errno = error;
            return fail_extra(interp, "failed to set keys", "CURVE", "OPTION");
        }
    }
    return TCL_OK;
}

/* ::zmq::curve keypair */
int pv_cmd_keypair(const PVSocketAccess* /*access*/, Tcl_Interp* interp, int /*objc*/,
                   Tcl_Obj* const /*objv*/[]) {
    KeyText publicKey;
    KeyText secretKey;
    if (!keypair_make(interp, publicKey, secretKey)) {
        return TCL_ERROR;
    }
    Tcl_Obj* const keys[] = {Tcl_NewStringObj(publicKey.at, textLength),
                             Tcl_NewStringObj(secretKey.at, textLength)};
    Tcl_SetObjResult(interp, Tcl_NewListObj(2, keys));
    return TCL_OK;
}

/* ::zmq::curve server socket secretKey */
int pv_cmd_server(const PVSocketAccess* access, Tcl_Interp* interp, int /*objc*/,
                  Tcl_Obj* const objv[]) {
    Key secret;
    const int on = 1;
    const PVSockData* d = socket_before(access, interp, objv[2]);
    if (d == nullptr || !key_take(interp, Tcl_GetString(objv[3]), "secret", secret)) {
        return TCL_ERROR;
    }
    const Setting settings[] = {{ZMQ_CURVE_SECRETKEY, secret.at, keyBytes},
                                {ZMQ_CURVE_SERVER, &on, sizeof on}};
    return settings_apply(interp, d->socket, settings);
}

/* The client's own keys: those given in two words, or a fresh pair. */
bool own_keys(Tcl_Interp* interp, int objc, Tcl_Obj* const objv[], Key& publicKey,
              Key& secretKey) {
    if (objc == 6) {
        return key_take(interp, Tcl_GetString(objv[4]), "public", publicKey) &&
               key_take(interp, Tcl_GetString(objv[5]), "secret", secretKey);
    }
    KeyText publicText;
    KeyText secretText;
    return keypair_make(interp, publicText, secretText) &&
           key_take(interp, publicText.at, "public", publicKey) &&
           key_take(interp, secretText.at, "secret", secretKey);
}

/* ::zmq::curve client socket serverKey ?publicKey secretKey? */
int pv_cmd_client(const PVSocketAccess* access, Tcl_Interp* interp, int objc,
                  Tcl_Obj* const objv[]) {
    Key server;
    Key publicKey;
    Key secretKey;
    if (objc == 5) {
        return wrong_count(interp, 2, objv, "socket serverKey ?publicKey secretKey?");
    }
    const PVSockData* d = socket_before(access, interp, objv[2]);
    if (d == nullptr || !key_take(interp, Tcl_GetString(objv[3]), "server", server) ||
        !own_keys(interp, objc, objv, publicKey, secretKey)) {
        return TCL_ERROR;
    }
    const Setting settings[] = {{ZMQ_CURVE_PUBLICKEY, publicKey.at, keyBytes},
                                {ZMQ_CURVE_SECRETKEY, secretKey.at, keyBytes},
                                {ZMQ_CURVE_SERVERKEY, server.at, keyBytes}};
    return settings_apply(interp, d->socket, settings);
}

constexpr ExtraRow subcommands[] = {
    {"keypair", 2, 2, nullptr, pv_cmd_keypair},
    {"server", 4, 4, "socket secretKey", pv_cmd_server},
    {"client", 4, 6, "socket serverKey ?publicKey secretKey?", pv_cmd_client},
    {nullptr, 0, 0, nullptr, nullptr},
};
static_assert(table_ends(subcommands));

} // namespace

/* ::zmq::curve subcommand ?arg ...? */
int ParvoCurveCmd(ClientData clientData, Tcl_Interp* interp, int objc,
                  Tcl_Obj* const objv[]) {
    return extra_command(subcommands, clientData, interp, objc, objv);
}
