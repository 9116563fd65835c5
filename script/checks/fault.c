/*
 * fault.c -- makes the N-th call of a chosen function fail, once or for good.
 *
 * Preloaded, it stands before libzmq and libc; loaded as a package, it also puts itself
 * into Tcl's stubs table and gives a command.  Only calls that come from libparvo.so count.
 *
 *   fault arm function n error ?forgood?   fails the n-th call from here on
 *   fault off                              gives how often the armed function failed
 *
 * A function that releases something releases it before it reports failure.
 */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <signal.h>
#include <stdarg.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/signalfd.h>
#include <sys/time.h>
#include <tcl.h>
#include <time.h>
#include <unistd.h>
#include <zmq.h>

static struct {
    char function[64]; /* armed function, empty: none */
    int left;          /* calls until the failure */
    int error;
    int forgood;
    int failed; /* failures so far */
} armed;

/* Tells whether this call fails; caller: the address that it returns to. */
static int fails(const char* function, const void* caller) {
    Dl_info info;
    if (strcmp(function, armed.function) != 0) {
        return 0;
    }
    if (dladdr(caller, &info) == 0 || strstr(info.dli_fname, "libparvo.so") == NULL) {
        return 0;
    }
    if (armed.left > 1) {
        armed.left--;
        return 0;
    }
    if (armed.left == 0 && !armed.forgood) {
        return 0;
    }
    armed.left = 0;
    armed.failed++;
    errno = armed.error;
    return 1;
}

#define FAILS(name) fails(name, __builtin_return_address(0))

/* The next definition of a function behind this one. */
#define REAL(name) ((__typeof__(&name)) dlsym(RTLD_NEXT, #name))

#define INT_CALL(name, params, args)                                                   \
    int name params {                                                                  \
        return FAILS(#name) ? -1 : REAL(name) args;                                    \
    }

INT_CALL(zmq_setsockopt, (void* s, int o, const void* v, size_t n), (s, o, v, n))
INT_CALL(zmq_getsockopt, (void* s, int o, void* v, size_t* n), (s, o, v, n))
INT_CALL(zmq_bind, (void* s, const char* e), (s, e))
INT_CALL(zmq_unbind, (void* s, const char* e), (s, e))
INT_CALL(zmq_connect, (void* s, const char* e), (s, e))
INT_CALL(zmq_disconnect, (void* s, const char* e), (s, e))
INT_CALL(zmq_send, (void* s, const void* b, size_t n, int f), (s, b, n, f))
INT_CALL(zmq_msg_init, (zmq_msg_t * m), (m))
INT_CALL(zmq_msg_recv, (zmq_msg_t * m, void* s, int f), (m, s, f))
INT_CALL(zmq_poll, (zmq_pollitem_t * i, int n, long t), (i, n, t))
INT_CALL(signalfd, (int fd, const sigset_t* m, int f), (fd, m, f))
INT_CALL(sigaction, (int s, const struct sigaction* a, struct sigaction* o), (s, a, o))
INT_CALL(sigpending, (sigset_t * s), (s))
INT_CALL(sigemptyset, (sigset_t * s), (s))
INT_CALL(sigfillset, (sigset_t * s), (s))
INT_CALL(sigaddset, (sigset_t * s, int n), (s, n))
INT_CALL(sigdelset, (sigset_t * s, int n), (s, n))
INT_CALL(sigismember, (const sigset_t* s, int n), (s, n))
INT_CALL(usleep, (useconds_t u), (u))
INT_CALL(gettimeofday, (struct timeval * t, void* z), (t, z))

/* These release before they fail. */
#define RELEASING_CALL(name, param, arg)                                               \
    int name(param) {                                                                  \
        const int rc = REAL(name)(arg);                                                \
        return FAILS(#name) ? -1 : rc;                                                 \
    }

RELEASING_CALL(zmq_msg_close, zmq_msg_t* m, m)
RELEASING_CALL(zmq_close, void* s, s)
RELEASING_CALL(zmq_ctx_term, void* c, c)
RELEASING_CALL(fclose, FILE* f, f)
RELEASING_CALL(close, int fd, fd)

#define POINTER_CALL(type, name, params, args)                                         \
    type name params {                                                                 \
        return FAILS(#name) ? NULL : REAL(name) args;                                  \
    }

POINTER_CALL(void*, zmq_ctx_new, (void), ())
POINTER_CALL(void*, zmq_socket, (void* c, int t), (c, t))
POINTER_CALL(FILE*, fopen, (const char* p, const char* m), (p, m))
POINTER_CALL(struct tm*, localtime_r, (const time_t* t, struct tm* r), (t, r))
POINTER_CALL(char*, strdup, (const char* s), (s))

size_t strftime(char* t, size_t n, const char* f, const struct tm* m) {
    return FAILS("strftime") ? 0 : REAL(strftime)(t, n, f, m);
}

/* Returns its error instead of leaving it in errno. */
int pthread_sigmask(int how, const sigset_t* set, sigset_t* old) {
    return FAILS("pthread_sigmask") ? armed.error : REAL(pthread_sigmask)(how, set, old);
}

/* A frame that claims more bytes than Tcl can hold. */
size_t zmq_msg_size(const zmq_msg_t* m) {
    return FAILS("zmq_msg_size") ? SIZE_MAX / 2 : REAL(zmq_msg_size)(m);
}

/* Error 0 makes a short read. */
ssize_t read(int fd, void* buffer, size_t size) {
    if (FAILS("read")) {
        return armed.error != 0 ? -1 : 7;
    }
    return REAL(read)(fd, buffer, size);
}

int vasprintf(char** text, const char* fmt, va_list args) {
    return FAILS("vasprintf") ? -1 : REAL(vasprintf)(text, fmt, args);
}

/* What a fortified library calls. */
int __vasprintf_chk(char** text, int flag, const char* fmt, va_list args) {
    (void) flag;
    return FAILS("vasprintf") ? -1 : REAL(vasprintf)(text, fmt, args);
}

/* Functions of Tcl, which the library calls through the stubs table. */
static TclStubs real;

#define STUB(type, slot, params, args, failure)                                        \
    static type fault_##slot params {                                                  \
        return FAILS(#slot) ? failure : real.slot args;                                \
    }

STUB(char*, tcl_AttemptAlloc, (unsigned n), (n), NULL)
STUB(void*, tcl_GetThreadData, (Tcl_ThreadDataKey * k, int n), (k, n), NULL)
STUB(Tcl_Obj*, tcl_NewStringObj, (const char* t, int n), (t, n), NULL)
STUB(int, tcl_ListObjAppendElement, (Tcl_Interp * i, Tcl_Obj* l, Tcl_Obj* e), (i, l, e),
     TCL_ERROR)
STUB(int, tcl_DictObjPut, (Tcl_Interp * i, Tcl_Obj* d, Tcl_Obj* k, Tcl_Obj* v),
     (i, d, k, v), TCL_ERROR)
STUB(int, tcl_GetCommandInfo, (Tcl_Interp * i, const char* n, Tcl_CmdInfo* c), (i, n, c), 0)
STUB(Tcl_Command, tcl_CreateObjCommand,
     (Tcl_Interp * i, const char* n, Tcl_ObjCmdProc* p, ClientData c, Tcl_CmdDeleteProc* d),
     (i, n, p, c, d), NULL)

static void stubs_replace(void) {
    TclStubs* stubs = (TclStubs*) (uintptr_t) tclStubsPtr;
    const uintptr_t page = (uintptr_t) sysconf(_SC_PAGESIZE);
    const uintptr_t first = (uintptr_t) stubs / page * page;
    if (real.magic != 0) {
        return;
    }
    real = *stubs;
    mprotect((void*) first, (uintptr_t) (stubs + 1) - first, PROT_READ | PROT_WRITE);
    stubs->tcl_AttemptAlloc = fault_tcl_AttemptAlloc;
    stubs->tcl_GetThreadData = fault_tcl_GetThreadData;
    stubs->tcl_NewStringObj = fault_tcl_NewStringObj;
    stubs->tcl_ListObjAppendElement = fault_tcl_ListObjAppendElement;
    stubs->tcl_DictObjPut = fault_tcl_DictObjPut;
    stubs->tcl_GetCommandInfo = fault_tcl_GetCommandInfo;
    stubs->tcl_CreateObjCommand = fault_tcl_CreateObjCommand;
}

static int FaultCmd(ClientData unused, Tcl_Interp* interp, int objc,
                    Tcl_Obj* const objv[]) {
    (void) unused;
    if (objc == 2) {
        armed.function[0] = '\0';
        Tcl_SetObjResult(interp, Tcl_NewIntObj(armed.failed));
        return TCL_OK;
    }
    if (objc < 5 || Tcl_GetIntFromObj(interp, objv[3], &armed.left) != TCL_OK ||
        Tcl_GetIntFromObj(interp, objv[4], &armed.error) != TCL_OK) {
        return TCL_ERROR;
    }
    armed.forgood = objc > 5;
    armed.failed = 0;
    snprintf(armed.function, sizeof armed.function, "%s", Tcl_GetString(objv[2]));
    return TCL_OK;
}

int Fault_Init(Tcl_Interp* interp) {
    if (Tcl_InitStubs(interp, "8.5", 0) == NULL) {
        return TCL_ERROR;
    }
    stubs_replace();
    Tcl_CreateObjCommand(interp, "fault", FaultCmd, NULL, NULL);
    return TCL_OK;
}
