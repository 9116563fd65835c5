/*
 * ctx.cpp -- the default ZeroMQ context.
 *
 * mutexForCtx guards both fields of global and is held for each whole operation,
 * debug lines and termination included.  The first look of pv_ctx_default_new goes
 * without it, which is why the handle is atomic, and so does the line that ends
 * pv_ctx_default_destroy, written also where sockets keep the context.  The context is
 * terminated only while no socket is counted, and a terminated handle is never kept.
 */
#include "ctx.h"

#include "debugging.h"
#include "tclsupport.h"

#include <atomic>
#include <fcntl.h>
#include <stdio.h>
#include <unistd.h>
#include <zmq.h>

namespace {

// Microseconds that ZeroMQ's thread has for what closed sockets leave to it.
constexpr useconds_t terminationPause = 100000;

struct {
    std::atomic<void*> ctx; // the context, null while there is none
    size_t sockets;         // sockets counted as using it
} global;

Tcl_Mutex mutexForCtx; // guards both fields

/*
 * Creates the context if there is none; the lock is held.  Returns false after a
 * failure; the error is left to the caller, which sets it once the lock is released.
 */
bool ctx_ensure(const char* fn) {
    if (global.ctx.load(std::memory_order_relaxed) != nullptr) {
        return true;
    }
    pv_ctx_standard_descriptors();
    void* ctx = zmq_ctx_new();
    if (ctx == nullptr) {
        return false;
    }
    global.ctx.store(ctx, std::memory_order_release);
    DEBUG_LINE(fn, "created default ZeroMQ context");
    return true;
}

void* ctx_failed(Tcl_Interp* interp) {
    fail(interp, "failed to create default ctx", "ZMQ", "CTX", "DEFAULT");
    return nullptr;
}

/* Ends the context; the lock is held and no socket is counted. */
void ctx_terminate(const char* fn) {
    void* ctx = global.ctx.load(std::memory_order_relaxed);
    if (ctx == nullptr) {
        return;
    }
    DEBUG_LINE(fn, "waiting 100 ms");
    usleep(terminationPause);
    DEBUG_LINE(fn, "before destroying default ZeroMQ context...");
    zmq_ctx_term(ctx);
    global.ctx.store(nullptr, std::memory_order_release);
}

} // namespace

void* pv_ctx_default_new(Tcl_Interp* interp) {
    void* ctx = global.ctx.load(std::memory_order_acquire);
    if (ctx != nullptr) {
        return ctx;
    }
    {
        MutexLock lock(&mutexForCtx);
        ctx_ensure("pv_ctx_default_new");
        ctx = global.ctx.load(std::memory_order_relaxed);
    }
    return ctx != nullptr ? ctx : ctx_failed(interp);
}

int pv_zmq_version() {
    int major;
    int minor;
    int patch;
    zmq_version(&major, &minor, &patch);
    return ZMQ_MAKE_VERSION(major, minor, patch);
}

void pv_ctx_standard_descriptors() {
    for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; fd++) {
        if (fcntl(fd, F_GETFD) != -1) {
            continue;
        }
        // The lowest free number is taken: this one, unless another thread was quicker.
        const int null = open("/dev/null", O_RDWR);
        if (null > STDERR_FILENO) {
            close(null);
        }
    }
}

void* pv_ctx_default_for_socket_new(Tcl_Interp* interp) {
    void* ctx;
    pv_ctx_standard_descriptors();
    {
        MutexLock lock(&mutexForCtx);
        if (ctx_ensure("pv_ctx_default_for_socket_new")) {
            global.sockets++;
        }
        DEBUG_LINE("pv_ctx_default_for_socket_new",
                   "sockets now using the default context: %zu", global.sockets);
        ctx = global.ctx.load(std::memory_order_relaxed);
    }
    return ctx != nullptr ? ctx : ctx_failed(interp);
}

void pv_ctx_default_for_socket_destroy(ClientData /*unused*/) {
    MutexLock lock(&mutexForCtx);
    if (global.sockets > 0) {
        global.sockets--;
    }
    DEBUG_LINE("pv_ctx_default_for_socket_destroy", "sockets left: %zu",
               global.sockets);
}

void pv_ctx_default_destroy(ClientData /*unused*/) {
    const char* fn = "pv_ctx_default_destroy";
    {
        MutexLock lock(&mutexForCtx);
        if (global.sockets > 1) {
            fprintf(stderr, "%s: there are still %zu sockets registered\n", fn,
                    global.sockets);
        } else if (global.sockets == 1) {
            fprintf(stderr, "%s: there is still one socket registered\n", fn);
        } else {
            ctx_terminate(fn);
        }
    }
    DEBUG_LINE(fn, "destroyed default ZeroMQ context");
}
