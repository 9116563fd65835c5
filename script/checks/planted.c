/*
 * planted.c -- the faults that a check of memory or of threads must see before its
 * silence about the library means anything.
 *
 *   load planted.so Planted; planted fault ?word?
 *
 * Built and loaded in the same way as the library.
 */
#include <fcntl.h>
#include <limits.h>
#include <pthread.h>
#include <string.h>
#include <tcl.h>
#include <unistd.h>

static int shared;     /* what "race" counts, without a lock */
static char text[100]; /* what "copy" overwrites, without a lock */
static volatile int sink;

static void* planted_count(void* unused) {
    (void) unused;
    for (int i = 0; i < 1000; i++) {
        shared++;
    }
    return NULL;
}

static void* planted_fill(void* unused) {
    (void) unused;
    memset(text, 1, (size_t)sink + sizeof text);
    return NULL;
}

static void* planted_wait(void* unused) {
    for (;;) {
        pause();
    }
    return unused;
}

/* Does the same thing in two threads at once. */
static void planted_twice(void* (*proc)(void*) ) {
    pthread_t thread;
    pthread_create(&thread, NULL, proc, NULL);
    proc(NULL);
    pthread_join(thread, NULL);
}

static void planted_race(Tcl_Obj* word) {
    (void) word;
    planted_twice(planted_count);
}

static void planted_copy(Tcl_Obj* word) {
    (void) word;
    planted_twice(planted_fill);
}

static void planted_use(Tcl_Obj* word) {
    char* volatile memory = Tcl_Alloc(100);
    (void) word;
    memory[50] = 1;
    Tcl_Free(memory);
    sink = memory[50];
}

static void planted_undefined(Tcl_Obj* word) {
    volatile int most = INT_MAX;
    (void) word;
    sink = most + 1;
}

static void planted_leak(Tcl_Obj* word) {
    (void) word;
    memset(Tcl_Alloc(200), 1, 200);
}

static void planted_keep(Tcl_Obj* word) {
    Tcl_IncrRefCount(word);
}

/* Descriptors and threads are few: one in five hundred calls keeps one. */
static void planted_open(Tcl_Obj* word) {
    static int calls;
    (void) word;
    if (calls++ % 500 == 0) {
        sink = open("/dev/null", O_RDONLY | O_CLOEXEC);
    }
}

static void planted_thread(Tcl_Obj* word) {
    static int calls;
    pthread_t thread;
    (void) word;
    if (calls++ % 500 == 0 && pthread_create(&thread, NULL, planted_wait, NULL) == 0) {
        pthread_detach(thread);
    }
}

static const struct {
    const char* word;
    void (*proc)(Tcl_Obj* word);
} faults[] = {
    {"use", planted_use},   {"undefined", planted_undefined}, {"leak", planted_leak},
    {"keep", planted_keep}, {"open", planted_open},           {"race", planted_race},
    {"copy", planted_copy}, {"thread", planted_thread},       {NULL, NULL},
};

static int planted_command(ClientData unused, Tcl_Interp* interp, int objc,
                           Tcl_Obj* const objv[]) {
    int index;
    (void) unused;
    if (objc != 3) {
        Tcl_WrongNumArgs(interp, 1, objv, "fault word");
        return TCL_ERROR;
    }
    if (Tcl_GetIndexFromObjStruct(interp, objv[1], faults, sizeof faults[0], "fault", 0,
                                  &index) != TCL_OK) {
        return TCL_ERROR;
    }
    faults[index].proc(objv[2]);
    return TCL_OK;
}

int Planted_Init(Tcl_Interp* interp) {
    if (Tcl_InitStubs(interp, TCL_VERSION, 0) == NULL) {
        return TCL_ERROR;
    }
    Tcl_CreateObjCommand(interp, "planted", planted_command, NULL, NULL);
    return TCL_OK;
}
