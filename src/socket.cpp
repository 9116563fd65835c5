/*
 * socket.cpp -- the per-thread socket registry and the command ::zmq::socket.
 *
 * A socket has one record, owned by its object command, and one count on the default
 * context.  Both end in the command's deletion procedure, however the command goes:
 * by close, rename, or the deletion of its namespace or interpreter.  The registry
 * is keyed by the command's token, so a renamed socket stays known.  When the thread
 * exits, sockets that still stand in the registry are closed; their records stay with
 * their commands, marked as closed.
 */
#include "socket.h"

#include "command.h"
#include "ctx.h"
#include "debugging.h"
#include "reactor.h"
#include "signal_block.h"
#include "socket_access.h"
#include "socket_methods.h"
#include "socket_record.h"
#include "socket_reuse.h"
#include "tclsupport.h"

#include <new>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <zmq.h>

namespace {

struct pv_socket_type {
    const char* name; // as scripts write it
    int type;         // ZeroMQ socket type
};

/* Adding a type is one row: the message about unknown types is made from them. */
constexpr pv_socket_type socket_types[] = {
    {"PAIR", ZMQ_PAIR},     {"PUB", ZMQ_PUB},   {"SUB", ZMQ_SUB},
    {"REQ", ZMQ_REQ},       {"REP", ZMQ_REP},   {"DEALER", ZMQ_DEALER},
    {"ROUTER", ZMQ_ROUTER}, {"PULL", ZMQ_PULL}, {"PUSH", ZMQ_PUSH},
    {"XPUB", ZMQ_XPUB},     {"XSUB", ZMQ_XSUB}, {"STREAM", ZMQ_STREAM},
    {nullptr, -1},
};

/* The registry: one per thread, in zero-filled thread data. */
struct PVSockets {
    Tcl_HashTable* table; // command token -> ZeroMQ socket; null until first use
    uint64_t counter;     // number of the next generated name; only grows
    PVReuse reuse;        // objects kept for the methods of all its sockets
};

Tcl_ThreadDataKey dataKey;

constexpr int nameMax = 37; // bytes; a generated name with a 64-bit number has 33

int pv_socket_type_code(const char* arg) {
    for (const pv_socket_type* row = socket_types; row->name != nullptr; row++) {
        if (strcmp(row->name, arg) == 0) {
            return row->type;
        }
    }
    return -1;
}

/* "A, B, or C", from the table. */
Tcl_Obj* unknown_type(const char* word) {
    Tcl_Obj* message = Tcl_ObjPrintf("unknown type \"%s\": must be ", word);
    for (const pv_socket_type* row = socket_types; row->name != nullptr; row++) {
        const bool last = row[1].name == nullptr;
        Tcl_AppendPrintfToObj(message, "%s%s%s", last ? "or " : "", row->name,
                              last ? "" : ", ");
    }
    return message;
}

/* The record of a registered token. */
PVSockData* record_of(Tcl_Command token) {
    Tcl_CmdInfo info;
    return Tcl_GetCommandInfoFromToken(token, &info) != 0
               ? static_cast<PVSockData*>(info.objClientData)
               : nullptr;
}

Tcl_Command token_of(Tcl_HashTable* table, Tcl_HashEntry* entry) {
    return reinterpret_cast<Tcl_Command>(Tcl_GetHashKey(table, entry));
}

/* Closes a ZeroMQ socket, and tells the monitor of its record (null allowed). */
void socket_close(void* socket, PVSockData* d) {
    zmq_close(socket);
    if (d == nullptr) {
        return;
    }
    d->socket = nullptr;
    if (d->monitor != nullptr) {
        d->monitor_end(d->monitor);
        d->monitor = nullptr;
    }
}

/* Closes what is still in the table and marks the records, which stay. */
void pv_sockets_destroy_entries(Tcl_HashTable* table) {
    Tcl_HashSearch search;
    for (Tcl_HashEntry* entry = Tcl_FirstHashEntry(table, &search); entry != nullptr;
         entry = Tcl_NextHashEntry(&search)) {
        PVSockData* d = record_of(token_of(table, entry));
        if (d != nullptr) {
            pv_reactor_unregister_socket(d->reactor, d->socket);
            d->entry = nullptr;
        }
        pv_ctx_default_for_socket_destroy(nullptr);
        socket_close(Tcl_GetHashValue(entry), d);
    }
}

void pv_sockets_destroy(ClientData clientData) {
    auto* sockets = static_cast<PVSockets*>(clientData);
    if (sockets == nullptr || sockets->table == nullptr) {
        return;
    }
    pv_sockets_destroy_entries(sockets->table);
    Tcl_DeleteHashTable(sockets->table);
    release(sockets->table);
    sockets->table = nullptr;
    pv_reuse_release(&sockets->reuse);
    DEBUG_LINE("pv_sockets_destroy", "released sockets");
}

PVSockets* pv_sockets(Tcl_Interp* interp) {
    auto* sockets =
        static_cast<PVSockets*>(Tcl_GetThreadData(&dataKey, sizeof(PVSockets)));
    if (sockets == nullptr) {
        fail(interp, "failed to get sockets thread data", "ZMQ", "SOCKETS", "THREAD",
             "DATA");
        return nullptr;
    }
    if (sockets->table != nullptr) {
        return sockets;
    }
    auto* table = static_cast<Tcl_HashTable*>(allocate_or_null(sizeof(Tcl_HashTable)));
    if (table == nullptr) {
        fail(interp, "failed to allocate sockets table", "ZMQ", "SOCKETS", "THREAD",
             "DATA", "TABLE");
        return nullptr;
    }
    sockets->table = table;
    Tcl_InitHashTable(table, TCL_ONE_WORD_KEYS);
    Tcl_CreateThreadExitHandler(pv_sockets_destroy, sockets);
    return sockets;
}

/*
 * The object command's deletion procedure.  The debug lines come in the order socket,
 * then count, and the count is given back here and nowhere else: this runs exactly
 * once for every command.
 */
void pv_socket_delete(ClientData clientData) {
    auto* d = static_cast<PVSockData*>(clientData);
    const bool counted = d->socket != nullptr;
    if (d->socket != nullptr) {
        if (d->reactor != nullptr) {
            pv_reactor_unregister_socket(d->reactor, d->socket);
        }
        socket_close(d->socket, d);
        DEBUG_LINE("pv_socket_delete", "destroyed socket %s", d->name);
    }
    free(d->name);
    d->name = nullptr;
    d->token = nullptr;
    if (d->entry != nullptr) {
        Tcl_DeleteHashEntry(d->entry);
        d->entry = nullptr;
    }
    release(d);
    if (counted) {
        pv_ctx_default_for_socket_destroy(nullptr);
    }
}

bool pv_socket_name_exists(Tcl_Interp* interp, const char* name) {
    return Tcl_FindCommand(interp, name, nullptr, 0) != nullptr;
}

/* Appends the full name of the command that name would create here. */
void pv_socket_name_fq(Tcl_Interp* interp, const char* name, DString& full) {
    if (strncmp(name, "::", 2) != 0) {
        const char* current = Tcl_GetCurrentNamespace(interp)->fullName;
        full.append(current);
        if (strcmp(current, "::") != 0) {
            full.append("::");
        }
    }
    full.append(name);
}

/* Writes the next free generated name into name, which holds len bytes. */
void pv_socket_name_default(Tcl_Interp* interp, char* name, size_t len,
                            uint64_t* counter) {
    do {
        snprintf(name, len, "%s%lu", "::zmq::zsock",
                 static_cast<unsigned long>((*counter)++));
    } while (pv_socket_name_exists(interp, name));
}

/* A fresh record with its copy of the name, or null when memory is short. */
PVSockData* record_new(Tcl_Interp* interp, const char* name, void* socket) {
    void* memory = allocate_or_null(sizeof(PVSockData));
    if (memory == nullptr) {
        return nullptr;
    }
    auto* d = new (memory) PVSockData;
    d->name = strdup(name);
    if (d->name == nullptr) {
        release(memory);
        return nullptr;
    }
    d->socket = socket;
    d->interp = interp;
    return d;
}

/* Ends a socket that has no command yet. */
void socket_give_back(void* socket) {
    zmq_close(socket);
    pv_ctx_default_for_socket_destroy(nullptr);
}

/*
 * Gives an open, counted socket its record, command and registry entry.  The socket
 * is closed and its count given back when this fails.
 */
int pv_socket_register(Tcl_Interp* interp, const char* name, const DString& full,
                       void* socket, PVSockets* p) {
    PVSockData* d = record_new(interp, name, socket);
    if (d == nullptr) {
        socket_give_back(socket);
        return fail(interp, "failed to allocate data for socket", "ZMQ", "SOCKET",
                    "DATA", "ALLOC");
    }
    d->reuse = &p->reuse;
    d->token = Tcl_CreateObjCommand(interp, full.value(), pv_socket_command, d,
                                    pv_socket_delete);
    if (d->token == nullptr) {
        pv_socket_delete(d);
        return fail(interp,
                    Tcl_ObjPrintf("failed to create command \"%s\"", full.value()),
                    "ZMQ", "SOCKET", "CREATE");
    }
    int fresh;
    Tcl_HashEntry* entry =
        Tcl_CreateHashEntry(p->table, reinterpret_cast<const char*>(d->token), &fresh);
    if (fresh == 0) {
        Tcl_DeleteHashEntry(entry);
        Tcl_DeleteCommandFromToken(interp, d->token);
        return fail(interp, Tcl_ObjPrintf("key \"%s\" already exists", full.value()),
                    "ZMQ", "SOCKET", "DATA", "REGISTER");
    }
    d->entry = entry;
    Tcl_SetHashValue(entry, socket);
    return TCL_OK;
}

/* Applies what every new socket starts with: unsent messages end with it. */
int pv_socket_option_defaults(Tcl_Interp* interp, void* socket) {
    const int linger = 0;
    if (zmq_setsockopt(socket, ZMQ_LINGER, &linger, sizeof linger) == 0) {
        return TCL_OK;
    }
    Tcl_Obj* message = Tcl_ObjPrintf("failed to set option \"%s\": %s", "-linger",
                                     zmq_strerror(zmq_errno()));
    socket_give_back(socket);
    return fail(interp, message, "ZMQ", "SOCKET", "DEFAULTS");
}

/*
 * Opens a ZeroMQ socket.  The first one of a context starts ZeroMQ's own threads:
 * they inherit a mask with every signal blocked, so that not even a signal in their
 * first instructions reaches them instead of this program.
 */
void* socket_open(void* ctx, int type) {
    SignalBlock block;
    return zmq_socket(ctx, type);
}

int pv_socket_cmd_create(Tcl_Interp* interp, const char* name, Tcl_Obj* otype) {
    PVSockets* p = pv_sockets(interp);
    if (p == nullptr) {
        return fail(interp, "failed to get sockets thread data", "ZMQ", "SOCKET",
                    "CREATE", "DATA");
    }
    DString full;
    if (!full.good()) {
        return fail(interp, "failed to allocate DString", "ZMQ", "NAME", "FQ", name);
    }
    pv_socket_name_fq(interp, name, full);
    // A name such as ":x" becomes ":::x", which is "::x": both are looked at.
    if (pv_socket_name_exists(interp, name) ||
        pv_socket_name_exists(interp, full.value())) {
        return fail(interp,
                    Tcl_ObjPrintf("can't create socket \"%s\": command already exists "
                                  "with that name",
                                  name),
                    "ZMQ", "LOOKUP", "COMMAND", name);
    }
    const char* word = Tcl_GetString(otype);
    const int type = pv_socket_type_code(word);
    if (type == -1) {
        return fail(interp, unknown_type(word), "ZMQ", "SOCKET", "TYPE", word);
    }
    void* ctx = pv_ctx_default_for_socket_new(interp);
    if (ctx == nullptr) {
        return TCL_ERROR;
    }
    void* socket = socket_open(ctx, type);
    if (socket == nullptr) {
        const int error = zmq_errno();
        pv_ctx_default_for_socket_destroy(nullptr);
        return fail(interp,
                    Tcl_ObjPrintf("failed to create socket: %s", zmq_strerror(error)),
                    "ZMQ", "SOCKET", "CREATE");
    }
    if (pv_socket_option_defaults(interp, socket) != TCL_OK) {
        return TCL_ERROR;
    }
    DEBUG_LINE("pv_socket_cmd_create", "created socket '%s'", name);
    return pv_socket_register(interp, name, full, socket, p);
}

/* ::zmq::socket create name type */
int socket_create(void* /*unused*/, Tcl_Interp* interp, int /*objc*/,
                  Tcl_Obj* const objv[]) {
    return pv_socket_cmd_create(interp, Tcl_GetString(objv[2]), objv[3]);
}

int pv_socket_cmd_new(Tcl_Interp* interp, Tcl_Obj* otype) {
    char name[nameMax];
    PVSockets* p = pv_sockets(interp);
    if (p == nullptr) {
        return fail(interp, "failed to get sockets thread data", "ZMQ", "SOCKET", "NEW",
                    "DATA");
    }
    pv_socket_name_default(interp, name, sizeof name, &p->counter);
    if (pv_socket_cmd_create(interp, name, otype) != TCL_OK) {
        return TCL_ERROR;
    }
    Tcl_SetObjResult(interp, Tcl_ObjPrintf("%s", name));
    return TCL_OK;
}

/* ::zmq::socket new type */
int socket_new(void* /*unused*/, Tcl_Interp* interp, int /*objc*/,
               Tcl_Obj* const objv[]) {
    return pv_socket_cmd_new(interp, objv[2]);
}

/* ::zmq::socket names */
int pv_socket_cmd_names(void* /*unused*/, Tcl_Interp* interp, int /*objc*/,
                        Tcl_Obj* const /*objv*/[]) {
    Tcl_HashSearch search;
    PVSockets* p = pv_sockets(interp);
    if (p == nullptr) {
        return fail(interp, "failed to get sockets thread data", "ZMQ", "SOCKET",
                    "NAMES", "DATA");
    }
    Tcl_Obj* names = Tcl_NewListObj(0, nullptr);
    for (Tcl_HashEntry* entry = Tcl_FirstHashEntry(p->table, &search); entry != nullptr;
         entry = Tcl_NextHashEntry(&search)) {
        const PVSockData* d = record_of(token_of(p->table, entry));
        if (d != nullptr && !pv_socket_nameless(d)) {
            Tcl_ListObjAppendElement(nullptr, names, pv_socket_name(d));
        }
    }
    Tcl_SetObjResult(interp, names);
    return TCL_OK;
}

PVSockData* access_find(Tcl_Interp* interp, Tcl_Obj* word) {
    return pv_socket_get_word(interp, word) != nullptr
               ? record_of(Tcl_GetCommandFromObj(interp, word))
               : nullptr;
}

void* access_open_pair() {
    const int linger = 0;
    pv_ctx_standard_descriptors();
    void* socket = socket_open(pv_ctx_default_new(nullptr), ZMQ_PAIR);
    if (socket != nullptr) {
        zmq_setsockopt(socket, ZMQ_LINGER, &linger, sizeof linger);
    }
    return socket;
}

constexpr PVSocketAccess socketAccess = {sizeof(PVSocketAccess), sizeof(PVSockData),
                                         access_find, access_open_pair};

constexpr CommandRow<void> subcommands[] = {
    {"new", 3, 3, "type", socket_new},
    {"create", 4, 4, "name type", socket_create},
    {"names", 2, 2, nullptr, pv_socket_cmd_names},
    {nullptr, 0, 0, nullptr, nullptr},
};
static_assert(table_ends(subcommands));

} // namespace

/* ::zmq::socket subcommand ?arg ...? */
int ParvoSocketCmd(ClientData /*unused*/, Tcl_Interp* interp, int objc,
                   Tcl_Obj* const objv[]) {
    if (objc < 2 || objc > 4) {
        return wrong_count(interp, 1, objv, "subcommand ?arg ...?");
    }
    const auto* row = command_row(interp, subcommands, objv[1], "subcommand");
    return row != nullptr ? command_run<void>(row, 2, nullptr, interp, objc, objv)
                          : TCL_ERROR;
}

void* pv_socket_get(Tcl_Interp* interp, const char* name) {
    Tcl_Command token = Tcl_FindCommand(interp, name, nullptr, 0);
    PVSockets* p = token != nullptr ? pv_sockets(interp) : nullptr;
    if (p == nullptr) {
        return nullptr;
    }
    Tcl_HashEntry* entry =
        Tcl_FindHashEntry(p->table, reinterpret_cast<const char*>(token));
    return entry != nullptr ? Tcl_GetHashValue(entry) : nullptr;
}

/* The record knows whether it stands in the registry: nothing is looked up there. */
void* pv_socket_get_word(Tcl_Interp* interp, Tcl_Obj* word) {
    Tcl_CmdInfo info;
    Tcl_Command token = Tcl_GetCommandFromObj(interp, word);
    if (token == nullptr || Tcl_GetCommandInfoFromToken(token, &info) == 0 ||
        info.objProc != pv_socket_command) {
        return nullptr;
    }
    const auto* d = static_cast<const PVSockData*>(info.objClientData);
    return d->entry != nullptr ? d->socket : nullptr;
}

PVSockData* pv_socket_data(Tcl_Interp* interp, const char* name) {
    Tcl_CmdInfo info;
    if (Tcl_GetCommandInfo(interp, name, &info) == 0) {
        fail(interp, Tcl_ObjPrintf("invalid command name \"%s\"", name), "ZMQ",
             "SOCKET", "DATA", name);
        return nullptr;
    }
    return static_cast<PVSockData*>(info.objClientData);
}

/*
 * Tcl gives no last part of the name for a command that has gone, and for one that was
 * created without any, such as "" or "::n::", which is then found under that name.
 */
bool pv_socket_nameless(const PVSockData* d) {
    return *Tcl_GetCommandName(d->interp, d->token) == '\0' &&
           Tcl_FindCommand(d->interp, d->name, nullptr, TCL_GLOBAL_ONLY) != d->token;
}

Tcl_Obj* pv_socket_name(const PVSockData* d) {
    Tcl_Obj* name = Tcl_NewObj();
    Tcl_GetCommandFullName(d->interp, d->token, name);
    return name;
}

void pv_socket_access_offer(Tcl_Interp* interp) {
    // Its readers take it as constant, too.
    Tcl_SetAssocData(interp, pv_access_name, nullptr,
                     const_cast<PVSocketAccess*>(&socketAccess));
}

void pv_socket_register_with_reactor(PVSockData* d, PVReactor* r) {
    if (d != nullptr) {
        d->reactor = r;
    }
}

void pv_socket_unregister_from_reactor(PVSockData* d) {
    if (d != nullptr) {
        d->reactor = nullptr;
    }
}

void pv_socket_sent_bytes(PVSockData* d, Tcl_WideInt bytes) {
    d->stats.sent.bytes += bytes;
    d->stats.sent.count++;
}

void pv_socket_received_bytes(PVSockData* d, Tcl_WideInt bytes) {
    d->stats.received.bytes += bytes;
    d->stats.received.count++;
}

const char* pv_socket_type_name(int type) {
    for (const pv_socket_type* row = socket_types; row->name != nullptr; row++) {
        if (row->type == type) {
            return row->name;
        }
    }
    return "UNKNOWN";
}
