/*
 * fault.c -- makes the N-th call of a chosen function fail, once or for good.
 *
 * Preloaded, it stands before libzmq and libc; loaded as a package, it also puts itself
 * into Tcl's stubs table and gives a command.  Only calls from our two libraries count.
 *
 *   fault arm function n error ?forgood?   fails the n-th call from here on
 *   fault off                              gives how often the armed function failed
 *   fault left                             gives how many of its calls it has let pass
 *   fault version major minor patch        what zmq_version tells the library from here on
 *   fault waits ?on?                       from "on": the library waits for no descriptor, as
 *                                          a list of milliseconds, and only that moves the
 *                                          clock; without it: gives the list and ends this
 *
 * A function that releases something releases it before it reports failure.
 */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <stdarg.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/signalfd.h>
#include <sys/time.h>
#include <tcl.h>
#include <time.h>
#include <unistd.h>
#include <zmq.h>

static struct {
    char function[64]; /* armed function, empty: none */
    int first;         /* number of the call that fails */
    int left;          /* calls until then */
    int error;
    int forgood;
    int failed; /* failures so far */
} armed;

/* Tells whether an address lies in the library or its companion. */
static int ours(const void* caller) {
    Dl_info info;
    return dladdr(caller, &info) != 0 && (strstr(info.dli_fname, "parvo.so") != NULL ||
                                          strstr(info.dli_fname, "parvoextra.so") != NULL);
}

/* Tells whether this call fails; caller: the address that it returns to. */
static int fails(const char* function, const void* caller) {
    if (strcmp(function, armed.function) != 0 || !ours(caller)) {
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

static int version[3]; /* what zmq_version tells, 0.0.0: the truth */

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
INT_CALL(zmq_recv, (void* s, void* b, size_t n, int f), (s, b, n, f))
INT_CALL(zmq_socket_monitor, (void* s, const char* e, int n), (s, e, n))
INT_CALL(zmq_msg_send, (zmq_msg_t * m, void* s, int f), (m, s, f))
INT_CALL(zmq_has, (const char* n), (n))
INT_CALL(zmq_curve_keypair, (char* p, char* s), (p, s))
INT_CALL(zmq_msg_init, (zmq_msg_t * m), (m))
INT_CALL(zmq_msg_recv, (zmq_msg_t * m, void* s, int f), (m, s, f))
INT_CALL(signalfd, (int fd, const sigset_t* m, int f), (fd, m, f))
INT_CALL(sigaction, (int s, const struct sigaction* a, struct sigaction* o), (s, a, o))
INT_CALL(sigpending, (sigset_t * s), (s))
INT_CALL(sigemptyset, (sigset_t * s), (s))
INT_CALL(sigfillset, (sigset_t * s), (s))
INT_CALL(sigaddset, (sigset_t * s, int n), (s, n))
INT_CALL(sigdelset, (sigset_t * s, int n), (s, n))
INT_CALL(sigismember, (const sigset_t* s, int n), (s, n))
INT_CALL(usleep, (useconds_t u), (u))
INT_CALL(getrlimit, (__rlimit_resource_t r, struct rlimit* l), (r, l))
INT_CALL(setvbuf, (FILE * f, char* b, int m, size_t n), (f, b, m, n))
INT_CALL(gettimeofday, (struct timeval * t, void* z), (t, z))

/* Waits that move a clock instead; a wait beyond the last is interrupted after an hour. */
#define WAITS_MAX 30
static struct {
    int on;
    int count;
    long ms[WAITS_MAX];
    Tcl_Time now;
} waits;

static int wait_instead(long ms) {
    const int full = waits.count == WAITS_MAX;
    if (!full) {
        waits.ms[waits.count++] = ms;
    }
    ms = full ? 3600000 : ms;
    waits.now.sec += ms / 1000 + (waits.now.usec + ms % 1000 * 1000) / 1000000;
    waits.now.usec = (waits.now.usec + ms % 1000 * 1000) % 1000000;
    errno = EINTR;
    return full ? -1 : 0;
}

static void waits_clock(Tcl_Time* now, ClientData unused) {
    (void) unused;
    *now = waits.now;
}

static void waits_scale(Tcl_Time* time, ClientData unused) {
    (void) unused;
    (void) time;
}

int zmq_poll(zmq_pollitem_t* items, int n, long ms) {
    if (FAILS("zmq_poll")) {
        return -1;
    }
    return waits.on && n == 0 ? wait_instead(ms) : REAL(zmq_poll)(items, n, ms);
}

int poll(struct pollfd* items, nfds_t n, int ms) {
    const int theirs = !waits.on || n > 0 || !ours(__builtin_return_address(0));
    return theirs ? REAL(poll)(items, n, ms) : wait_instead(ms);
}

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
POINTER_CALL(uint8_t*, zmq_z85_decode, (uint8_t * d, const char* s), (d, s))
POINTER_CALL(char*, zmq_z85_encode, (char* d, const uint8_t* s, size_t n), (d, s, n))

/* Called by everybody all the time. */
void* malloc(size_t size) {
    static void* (*real_malloc)(size_t);
    if (real_malloc == NULL) {
        real_malloc = (void* (*)(size_t)) dlsym(RTLD_NEXT, "malloc");
    }
    return FAILS("malloc") ? NULL : real_malloc(size);
}

size_t strftime(char* t, size_t n, const char* f, const struct tm* m) {
    return FAILS("strftime") ? 0 : REAL(strftime)(t, n, f, m);
}

/* These return their error instead of leaving it in errno. */
int pthread_create(pthread_t* t, const pthread_attr_t* a, void* (*run)(void*), void* arg) {
    return FAILS("pthread_create") ? armed.error : REAL(pthread_create)(t, a, run, arg);
}

int pthread_sigmask(int how, const sigset_t* set, sigset_t* old) {
    return FAILS("pthread_sigmask") ? armed.error : REAL(pthread_sigmask)(how, set, old);
}

/* Of their uses here, none takes a third argument. */
int fcntl(int fd, int command, ...) {
    va_list args;
    va_start(args, command);
    void* argument = va_arg(args, void*);
    va_end(args);
    return FAILS("fcntl") ? -1 : REAL(fcntl)(fd, command, argument);
}

int open(const char* path, int flags, ...) {
    va_list args;
    va_start(args, flags);
    const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(args, mode_t) : 0;
    va_end(args);
    return FAILS("open") ? -1 : REAL(open)(path, flags, mode);
}

size_t fwrite(const void* p, size_t size, size_t n, FILE* f) {
    return FAILS("fwrite") ? 0 : REAL(fwrite)(p, size, n, f);
}

void zmq_version(int* major, int* minor, int* patch) {
    REAL(zmq_version)(major, minor, patch);
    if (version[0] != 0 && ours(__builtin_return_address(0))) {
        *major = version[0];
        *minor = version[1];
        *patch = version[2];
    }
}

/* A frame that claims more bytes than Tcl can hold. */
size_t zmq_msg_size(const zmq_msg_t* m) {
    return FAILS("zmq_msg_size") ? SIZE_MAX / 2 : REAL(zmq_msg_size)(m);
}

/* Error 0 makes a short read, -1 a report of a signal whose number no signal has. */
ssize_t read(int fd, void* buffer, size_t size) {
    if (!FAILS("read")) {
        return REAL(read)(fd, buffer, size);
    }
    if (armed.error == -1) {
        memset(buffer, 0x3f, size);
        return (ssize_t) size;
    }
    return armed.error != 0 ? -1 : 7;
}

int vasprintf(char** text, const char* fmt, va_list args) {
    return FAILS("vasprintf") ? -1 : REAL(vasprintf)(text, fmt, args);
}

int asprintf(char** text, const char* fmt, ...) {
    va_list args;
    va_start(args, fmt);
    const int rc = FAILS("asprintf") ? -1 : REAL(vasprintf)(text, fmt, args);
    va_end(args);
    return rc;
}

/* What a fortified library calls. */
int __asprintf_chk(char** text, int flag, const char* fmt, ...) {
    va_list args;
    (void) flag;
    va_start(args, fmt);
    const int rc = FAILS("asprintf") ? -1 : REAL(vasprintf)(text, fmt, args);
    va_end(args);
    return rc;
}

int __vasprintf_chk(char** text, int flag, const char* fmt, va_list args) {
    (void) flag;
    return FAILS("vasprintf") ? -1 : REAL(vasprintf)(text, fmt, args);
}

/* Functions of Tcl, which the library calls through the stubs table. */
static TclStubs real;
typedef __typeof__(((Tcl_DString*) NULL)->length) Length; /* int in Tcl 8, Tcl_Size in 9 */

#define STUB(type, slot, params, args, failure)                                        \
    static type fault_##slot params {                                                  \
        return FAILS(#slot) ? failure : real.slot args;                                \
    }

STUB(void*, tcl_AttemptAlloc, (Length n), (n), NULL)
STUB(void*, tcl_GetThreadData, (Tcl_ThreadDataKey * k, Length n), (k, n), NULL)
STUB(Tcl_Obj*, tcl_NewStringObj, (const char* t, Length n), (t, n), NULL)
STUB(int, tcl_ListObjAppendElement, (Tcl_Interp * i, Tcl_Obj* l, Tcl_Obj* e), (i, l, e),
     TCL_ERROR)
STUB(int, tcl_DictObjPut, (Tcl_Interp * i, Tcl_Obj* d, Tcl_Obj* k, Tcl_Obj* v),
     (i, d, k, v), TCL_ERROR)
STUB(int, tcl_GetCommandInfo, (Tcl_Interp * i, const char* n, Tcl_CmdInfo* c), (i, n, c), 0)
STUB(Tcl_Command, tcl_CreateObjCommand,
     (Tcl_Interp * i, const char* n, Tcl_ObjCmdProc* p, ClientData c, Tcl_CmdDeleteProc* d),
     (i, n, p, c, d), NULL)

/* Without the type: Tcl 8 and 9 differ in those of lengths and of memory. */
#define REPLACE(slot) stubs->slot = (void*) fault_##slot

static void stubs_replace(void) {
    TclStubs* stubs = (TclStubs*) (uintptr_t) tclStubsPtr;
    const uintptr_t page = (uintptr_t) sysconf(_SC_PAGESIZE);
    const uintptr_t first = (uintptr_t) stubs / page * page;
    if (real.magic != 0) {
        return;
    }
    real = *stubs;
    mprotect((void*) first, (uintptr_t) (stubs + 1) - first, PROT_READ | PROT_WRITE);
    REPLACE(tcl_AttemptAlloc);
    REPLACE(tcl_GetThreadData);
    REPLACE(tcl_NewStringObj);
    REPLACE(tcl_ListObjAppendElement);
    REPLACE(tcl_DictObjPut);
    REPLACE(tcl_GetCommandInfo);
    REPLACE(tcl_CreateObjCommand);
}

/* Begins to write down waits, or ends it and gives them. */
static int waits_switch(Tcl_Interp* interp, int on) {
    static Tcl_GetTimeProc* get;
    static Tcl_ScaleTimeProc* scale;
    Tcl_Obj* list = Tcl_NewListObj(0, NULL);
    if (on) {
        Tcl_QueryTimeProc(&get, &scale, NULL);
        waits.count = 0;
        waits.now.sec = 1000000000;
        waits.now.usec = 0;
    }
    waits.on = on;
    Tcl_SetTimeProc(on ? waits_clock : get, on ? waits_scale : scale, NULL);
    for (int i = 0; i < waits.count; i++) {
        Tcl_ListObjAppendElement(NULL, list, Tcl_NewLongObj(waits.ms[i]));
    }
    Tcl_SetObjResult(interp, list);
    return TCL_OK;
}

static int FaultCmd(ClientData unused, Tcl_Interp* interp, int objc,
                    Tcl_Obj* const objv[]) {
    (void) unused;
    if (objc == 5 && strcmp(Tcl_GetString(objv[1]), "version") == 0) {
        for (int i = 0; i < 3; i++) {
            if (Tcl_GetIntFromObj(interp, objv[i + 2], &version[i]) != TCL_OK) {
                return TCL_ERROR;
            }
        }
        return TCL_OK;
    }
    if (objc > 1 && strcmp(Tcl_GetString(objv[1]), "waits") == 0) {
        return waits_switch(interp, objc > 2);
    }
    if (objc == 2) {
        const int left = strcmp(Tcl_GetString(objv[1]), "left") == 0;
        armed.function[0] = '\0';
        Tcl_SetObjResult(interp, Tcl_NewIntObj(left ? armed.first - armed.left
                                                    : armed.failed));
        return TCL_OK;
    }
    if (objc < 5 || Tcl_GetIntFromObj(interp, objv[3], &armed.left) != TCL_OK ||
        Tcl_GetIntFromObj(interp, objv[4], &armed.error) != TCL_OK) {
        return TCL_ERROR;
    }
    armed.first = armed.left;
    armed.forgood = objc > 5;
    armed.failed = 0;
    snprintf(armed.function, sizeof armed.function, "%s", Tcl_GetString(objv[2]));
    return TCL_OK;
}

int Fault_Init(Tcl_Interp* interp) {
    if (Tcl_InitStubs(interp, TCL_VERSION, 0) == NULL) {
        return TCL_ERROR;
    }
    stubs_replace();
    Tcl_CreateObjCommand(interp, "fault", FaultCmd, NULL, NULL);
    return TCL_OK;
}
