/*
 * reactor_timer.cpp -- timers.
 *
 * The tasks stand in one list, sorted by due time; equal times keep the order of
 * creation.  A task leaves the list before its script runs, so that the script may
 * cancel, schedule or release anything.  The epoch keeps a task that was scheduled
 * during a pass out of that pass: a task that reschedules itself with no delay cannot
 * starve the poll.
 */
#include "reactor_timer.h"

#include "debugging.h"
#include "reactor_bgerror.h"
#include "reactor_timer_clock.h"
#include "tclsupport.h"

#include <ctype.h>
#include <errno.h>
#include <new>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

namespace {

constexpr long defaultTimeout = 5000; // milliseconds
constexpr char idPrefix[] = "after#";
constexpr size_t idPrefixLength = sizeof idPrefix - 1;

struct ScheduledTask {
    unsigned long id = 0;          // number of its public id
    unsigned long epoch = 0;       // schedule's epoch when it was created
    Tcl_Time time = {0, 0};        // due
    Tcl_Obj* proc = nullptr;       // script, one reference
    ScheduledTask* next = nullptr; // next in due order
};

struct PVSchedule {
    unsigned long epoch;  // passes over a non-empty list so far
    ScheduledTask* first; // due first, null when none is scheduled
    ScheduledTask* last;  // due last, meaningful while there is a first
};

/* One per thread, in zero-filled thread data. */
struct PVTimer {
    bool initialized;     // set up
    Tcl_Interp* interp;   // evaluates the scripts
    bool running;         // the reactor's loop runs
    long timeout;         // milliseconds a poll may take; negative: no limit
    unsigned long nextId; // number of the next task
    PVSchedule schedule;
};

Tcl_ThreadDataKey dataKey;

// The list.

void pv_task_destroy(ScheduledTask* task) {
    set_slot(task->proc, nullptr);
    Tcl_Free(reinterpret_cast<char*>(task));
}

/*
 * Puts a task behind the last one that is not due later.  Rising due times take
 * constant time, others a walk.
 */
void pv_schedule_insert(PVSchedule* schedule, ScheduledTask* task) {
    if (schedule->first == nullptr) {
        schedule->first = schedule->last = task;
        return;
    }
    if (!pv_clock_earlier(task->time, schedule->last->time)) {
        schedule->last->next = task;
        schedule->last = task;
        return;
    }
    ScheduledTask** link = &schedule->first;
    while (!pv_clock_earlier(task->time, (*link)->time)) {
        link = &(*link)->next;
    }
    task->next = *link;
    *link = task;
}

/* Takes the task that follows previous (null: the first one) off the list. */
ScheduledTask* schedule_remove(PVSchedule* schedule, ScheduledTask* previous) {
    ScheduledTask** link = previous != nullptr ? &previous->next : &schedule->first;
    ScheduledTask* task = *link;
    *link = task->next;
    if (task == schedule->last) {
        schedule->last = previous;
    }
    task->next = nullptr;
    return task;
}

/* Reads "after#" and a decimal number that ends the text. */
bool after_id(const char* text, unsigned long* id) {
    char* end;
    const char* digits = text + idPrefixLength;
    // strtoul itself would take blanks and signs.
    if (strncmp(text, idPrefix, idPrefixLength) != 0 ||
        isdigit(static_cast<unsigned char>(*digits)) == 0) {
        return false;
    }
    errno = 0;
    *id = strtoul(digits, &end, 10);
    return *end == '\0' && errno == 0;
}

/* A task and the one before it in the list. */
struct Found {
    ScheduledTask* task;     // null when there is none
    ScheduledTask* previous; // null when the task is the first
};

template <typename Matches> Found task_find(const PVTimer* s, Matches matches) {
    ScheduledTask* previous = nullptr;
    ScheduledTask* task = s->schedule.first;
    while (task != nullptr && !matches(task)) {
        previous = task;
        task = task->next;
    }
    return {task, previous};
}

Found pv_task_find_by_id(const PVTimer* s, Tcl_Obj* word) {
    unsigned long id;
    int length;
    const char* text = Tcl_GetStringFromObj(word, &length);
    if (!after_id(text, &id)) {
        return {nullptr, nullptr};
    }
    return task_find(s, [id](const ScheduledTask* task) { return task->id == id; });
}

Found pv_task_find_by_code(const PVTimer* s, Tcl_Obj* script) {
    int length;
    const char* text = Tcl_GetStringFromObj(script, &length);
    return task_find(s, [text, length](const ScheduledTask* task) {
        int size;
        const char* code = Tcl_GetStringFromObj(task->proc, &size);
        return size == length && memcmp(code, text, static_cast<size_t>(size)) == 0;
    });
}

/* Made by snprintf: Tcl's own formatting costs several times the scheduling. */
Tcl_Obj* task_id(const ScheduledTask* task) {
    char text[32];
    const int length =
        snprintf(text, sizeof text, "%s%ld", idPrefix, static_cast<long>(task->id));
    return Tcl_NewStringObj(text, length);
}

/* The script of words 3 onwards: the word itself, or a fresh concatenation. */
Tcl_Obj* script_words(int objc, Tcl_Obj* const objv[]) {
    return objc == 4 ? objv[3] : Tcl_ConcatObj(objc - 3, objv + 3);
}

// The subcommand after.

/* ::qel::reactor after ms script ?script ...? */
int pv_after_ms(PVTimer* s, Tcl_Interp* interp, long ms, int objc,
                Tcl_Obj* const objv[]) {
    Tcl_Time now;
    if (objc == 3) {
        Tcl_WrongNumArgs(interp, 2, objv, "ms script ?script ...?");
        return TCL_ERROR;
    }
    auto* task = new (Tcl_Alloc(sizeof(ScheduledTask))) ScheduledTask;
    task->id = s->nextId++;
    task->epoch = s->schedule.epoch;
    Tcl_GetTime(&now);
    task->time = pv_clock_after(now, ms);
    set_slot(task->proc, script_words(objc, objv));
    pv_schedule_insert(&s->schedule, task);
    Tcl_SetObjResult(interp, task_id(task));
    return TCL_OK;
}

/* ::qel::reactor after cancel id|command */
int pv_after_cancel(PVTimer* s, Tcl_Interp* interp, int objc, Tcl_Obj* const objv[]) {
    if (objc == 3) {
        Tcl_WrongNumArgs(interp, 3, objv, "id|command");
        return TCL_ERROR;
    }
    const ObjRef word(script_words(objc, objv));
    Found found = pv_task_find_by_id(s, word.get());
    if (found.task == nullptr) {
        found = pv_task_find_by_code(s, word.get());
    }
    if (found.task != nullptr) {
        pv_task_destroy(schedule_remove(&s->schedule, found.previous));
    }
    return TCL_OK;
}

int pv_after_info_all(const PVTimer* s) {
    Tcl_Obj* ids = Tcl_NewListObj(0, nullptr);
    for (const ScheduledTask* task = s->schedule.first; task != nullptr;
         task = task->next) {
        Tcl_ListObjAppendElement(nullptr, ids, task_id(task));
    }
    Tcl_SetObjResult(s->interp, ids);
    return TCL_OK;
}

int pv_after_info_task(const PVTimer* s, Tcl_Obj* id) {
    const ScheduledTask* task = pv_task_find_by_id(s, id).task;
    if (task == nullptr) {
        const char* text = Tcl_GetString(id);
        return fail(s->interp, Tcl_ObjPrintf("event \"%s\" doesn't exist", text), "QEL",
                    "TIMER", "AFTER", "LOOKUP", text);
    }
    Tcl_Obj* const elements[] = {task->proc, Tcl_NewStringObj("timer", -1),
                                 Tcl_NewWideIntObj(pv_clock_milliseconds(task->time))};
    Tcl_SetObjResult(s->interp, Tcl_NewListObj(3, elements));
    return TCL_OK;
}

/* ::qel::reactor after info ?id? */
int pv_after_info(PVTimer* s, Tcl_Interp* interp, int objc, Tcl_Obj* const objv[]) {
    if (objc > 4) {
        Tcl_WrongNumArgs(interp, 3, objv, "?id?");
        return TCL_ERROR;
    }
    return objc == 3 ? pv_after_info_all(s) : pv_after_info_task(s, objv[3]);
}

struct AfterOption {
    const char* word;
    int (*proc)(PVTimer* s, Tcl_Interp* interp, int objc, Tcl_Obj* const objv[]);
};

constexpr AfterOption after_options[] = {
    {"cancel", pv_after_cancel},
    {"info", pv_after_info},
    {nullptr, nullptr},
};

// The store's life.

void pv_timer_interp_deleted(ClientData clientData, Tcl_Interp* interp);

/*
 * Ids go on counting: one that a script still holds must not come to name another task
 * because the store was set up anew.
 */
void timer_clear(PVTimer* s) {
    const unsigned long nextId = s->nextId;
    *s = PVTimer();
    s->nextId = nextId;
}

/* At thread exit, or when the store's interpreter is gone. */
void pv_timer_destroy(ClientData clientData) {
    auto* s = static_cast<PVTimer*>(clientData);
    if (s == nullptr || !s->initialized) {
        return;
    }
    store_unwatch(s, s->interp, pv_timer_destroy, pv_timer_interp_deleted);
    while (s->schedule.first != nullptr) {
        pv_task_destroy(schedule_remove(&s->schedule, nullptr));
    }
    timer_clear(s);
    if (debugging()) {
        log_output("pv_timer_destroy", "released timer data");
    }
}

void pv_timer_interp_deleted(ClientData clientData, Tcl_Interp* interp) {
    if (static_cast<PVTimer*>(clientData)->interp == interp) {
        pv_timer_destroy(clientData);
    }
}

void pv_timer_init(PVTimer* s, Tcl_Interp* interp) {
    s->initialized = true;
    s->interp = interp;
    s->timeout = defaultTimeout;
    store_watch(s, interp, pv_timer_destroy, pv_timer_interp_deleted);
}

/* Tells whether tasks may run: the reactor runs, in an interpreter that still does. */
bool timer_active(const PVTimer* s) {
    return s->running && Tcl_InterpDeleted(s->interp) == 0;
}

/* Takes the first task off the list if it belongs to the pass of this epoch. */
ScheduledTask* task_take_due(PVTimer* s, unsigned long epoch) {
    Tcl_Time now;
    const ScheduledTask* first = s->schedule.first;
    if (first == nullptr) {
        return nullptr;
    }
    Tcl_GetTime(&now);
    if (pv_clock_earlier(now, first->time) || first->epoch > epoch) {
        return nullptr;
    }
    return schedule_remove(&s->schedule, nullptr);
}

} // namespace

void* pv_timer(Tcl_Interp* interp) {
    auto* s = static_cast<PVTimer*>(Tcl_GetThreadData(&dataKey, sizeof(PVTimer)));
    if (s == nullptr) {
        if (interp != nullptr) {
            fail(interp, "failed to get timer thread data", "QEL", "TIMER", "THREAD",
                 "DATA");
        }
        return nullptr;
    }
    if (s->initialized && Tcl_InterpDeleted(s->interp) == 0) {
        return s;
    }
    if (interp == nullptr) {
        return nullptr;
    }
    pv_timer_destroy(s);
    pv_timer_init(s, interp);
    return s;
}

void pv_timer_running(void* store, bool running) {
    static_cast<PVTimer*>(store)->running = running;
}

long pv_schedule_timeout(void* store) {
    const auto* s = static_cast<PVTimer*>(store);
    Tcl_Time now;
    if (!s->running) {
        return 0;
    }
    if (s->schedule.first == nullptr) {
        return s->timeout;
    }
    const Tcl_Time due = s->schedule.first->time;
    Tcl_GetTime(&now);
    if (now.sec > due.sec || (now.sec == due.sec && now.usec + 1000 >= due.usec) ||
        s->timeout < 0) {
        return diff_for_timeout(now, due);
    }
    const Tcl_Time cap = pv_clock_after(now, s->timeout);
    return diff_for_timeout(now, pv_clock_earlier(cap, due) ? cap : due);
}

long pv_schedule_due(void* store) {
    const auto* s = static_cast<PVTimer*>(store);
    Tcl_Time now;
    if (s->schedule.first == nullptr) {
        return -1;
    }
    Tcl_GetTime(&now);
    return diff_for_timeout(now, s->schedule.first->time);
}

void pv_schedule_dispatch(void* store) {
    auto* s = static_cast<PVTimer*>(store);
    if (s->schedule.first == nullptr) {
        return;
    }
    const unsigned long epoch = s->schedule.epoch++;
    while (timer_active(s)) {
        ScheduledTask* task = task_take_due(s, epoch);
        if (task == nullptr) {
            return;
        }
        pv_bgerror_eval(s->interp, task->proc, TCL_EVAL_GLOBAL);
        pv_task_destroy(task);
    }
}

/* ::qel::reactor timeout ?timeout? */
int pv_cmd_timeout(ClientData store, Tcl_Interp* interp, int objc,
                   Tcl_Obj* const objv[]) {
    auto* s = static_cast<PVTimer*>(store);
    long timeout = s->timeout;
    if (objc > 3) {
        Tcl_WrongNumArgs(interp, 2, objv, "?timeout?");
        return TCL_ERROR;
    }
    if (objc == 3 && Tcl_GetLongFromObj(interp, objv[2], &timeout) != TCL_OK) {
        return TCL_ERROR;
    }
    s->timeout = timeout;
    Tcl_SetObjResult(interp, Tcl_NewLongObj(s->timeout));
    return TCL_OK;
}

/*
 * ::qel::reactor after ms script ?script ...?
 * ::qel::reactor after cancel id|command
 * ::qel::reactor after info ?id?
 */
int pv_cmd_after(ClientData store, Tcl_Interp* interp, int objc,
                 Tcl_Obj* const objv[]) {
    auto* s = static_cast<PVTimer*>(store);
    long ms;
    int index;
    if (objc < 3) {
        Tcl_WrongNumArgs(interp, 2, objv, "option ?arg ...?");
        return TCL_ERROR;
    }
    if (Tcl_GetLongFromObj(nullptr, objv[2], &ms) == TCL_OK) {
        return pv_after_ms(s, interp, ms, objc, objv);
    }
    if (Tcl_GetIndexFromObjStruct(nullptr, objv[2], after_options, sizeof(AfterOption),
                                  "subcommand", 0, &index) != TCL_OK) {
        const char* word = Tcl_GetString(objv[2]);
        return fail(
            interp,
            Tcl_ObjPrintf("bad argument \"%s\": must be cancel, info, or an integer",
                          word),
            "TCL", "LOOKUP", "INDEX", "argument", word);
    }
    return after_options[index].proc(s, interp, objc, objv);
}
