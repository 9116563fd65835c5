/*
 * reactor_timer.cpp -- timers.
 *
 * The tasks stand in a skip list by due time; equal times keep the order of creation. A
 * task leaves the list before its script runs, so that the script may cancel, schedule
 * or release anything.  The epoch keeps a task that was scheduled during a pass out of
 * that pass: a task that reschedules itself with no delay cannot starve the poll.
 */
#include "reactor_timer.h"

#include "command.h"
#include "debugging.h"
#include "reactor_bgerror.h"
#include "reactor_timer_clock.h"
#include "tclsupport.h"

#include <ctype.h>
#include <errno.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

namespace {

constexpr long defaultTimeout = 5000; // milliseconds
constexpr long nearlyDue = 1000;      // microseconds; so short a wait is made in full
constexpr char idPrefix[] = "after#";
constexpr size_t idPrefixLength = sizeof idPrefix - 1;
constexpr size_t idMax = 32;  // bytes of an id with a 64-bit number
constexpr int levelsMax = 12; // of the list; each serves four times as many tasks

} // namespace

struct ScheduledTask {
    unsigned long id;       // number of its public id; never used again
    unsigned long epoch;    // schedule's epoch when it was created
    Tcl_Time time;          // due
    Tcl_Obj* proc;          // script, one reference
    Tcl_HashEntry* entry;   // in the index by id
    int levels;             // of the list that it stands in, 1 or more
    ScheduledTask* next[1]; // by level: the next in due order, or null; levels of them
};

/*
 * The tasks in due order: a list with shortcuts.  Level 0 links all of them, each
 * further level about a quarter of those of the one below.
 */
struct PVSchedule {
    unsigned long epoch;             // passes over a list that was not empty
    ScheduledTask* first[levelsMax]; // by level, null when the level is empty
    Tcl_HashTable ids;               // id -> task
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

namespace {

Tcl_ThreadDataKey dataKey;

PVTimer* thread_timer() {
    return static_cast<PVTimer*>(Tcl_GetThreadData(&dataKey, sizeof(PVTimer)));
}

// The list.

/* Spread by a multiplication, so that no order of scheduling makes the levels uneven.
 */
int levels_of(unsigned long id) {
    constexpr uint64_t spread =
        0x9E3779B97F4A7C15; // 2 to the 64, over the golden ratio
    const int zeros = __builtin_clzll((id + 1) * spread | 1);
    return zeros / 2 < levelsMax ? zeros / 2 + 1 : levelsMax;
}

bool task_before(const ScheduledTask* task, const Tcl_Time& time, unsigned long id) {
    return pv_clock_earlier(task->time, time) ||
           (task->id < id && !pv_clock_earlier(time, task->time));
}

/*
 * By level, the link that a task with this time and id stands behind, or would stand.
 * O(log n).
 */
void find_links(PVSchedule* schedule, const Tcl_Time& time, unsigned long id,
                ScheduledTask** links[]) {
    ScheduledTask** row = schedule->first;
    for (int level = levelsMax - 1; level >= 0; level--) {
        while (row[level] != nullptr && task_before(row[level], time, id)) {
            row = row[level]->next;
        }
        links[level] = &row[level];
    }
}

const char* key_of(unsigned long id) {
    // A key of one word is the word itself.
    return reinterpret_cast<const char*>(id); // NOLINT(performance-no-int-to-ptr)
}

/* Adds a task with a reference on its script. */
ScheduledTask* pv_schedule_insert(PVSchedule* schedule, unsigned long id,
                                  const Tcl_Time& time, Tcl_Obj* proc) {
    int fresh;
    ScheduledTask** links[levelsMax];
    const int levels = levels_of(id);
    const auto further = static_cast<size_t>(levels - 1);
    auto* task = static_cast<ScheduledTask*>(
        allocate(sizeof(ScheduledTask) + further * sizeof(void*)));
    *task = {id, schedule->epoch, time, nullptr, nullptr, levels, {}};
    set_slot(task->proc, proc);
    task->entry = Tcl_CreateHashEntry(&schedule->ids, key_of(id), &fresh);
    Tcl_SetHashValue(task->entry, task);
    find_links(schedule, time, id, links);
    for (int level = 0; level < levels; level++) {
        task->next[level] = *links[level];
        *links[level] = task;
    }
    return task;
}

/* Removes a task and frees it. */
void pv_task_destroy(PVSchedule* schedule, ScheduledTask* task) {
    ScheduledTask** links[levelsMax];
    const bool first = task == schedule->first[0]; // on every level that it is on
    if (!first) {
        find_links(schedule, task->time, task->id, links);
    }
    for (int level = 0; level < task->levels; level++) {
        ScheduledTask** link = first ? &schedule->first[level] : links[level];
        *link = task->next[level];
    }
    Tcl_DeleteHashEntry(task->entry);
    set_slot(task->proc, nullptr);
    release(task);
}

// Tasks by name.

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

ScheduledTask* pv_task_find_by_id(PVTimer* s, Tcl_Obj* word) {
    unsigned long id;
    Tcl_HashEntry* entry = after_id(Tcl_GetString(word), &id)
                               ? Tcl_FindHashEntry(&s->schedule.ids, key_of(id))
                               : nullptr;
    return entry != nullptr ? static_cast<ScheduledTask*>(Tcl_GetHashValue(entry))
                            : nullptr;
}

/* The first task with exactly this script.  O(n): scripts have no index. */
ScheduledTask* pv_task_find_by_code(const PVTimer* s, Tcl_Obj* script) {
    Tcl_Size length;
    const char* text = Tcl_GetStringFromObj(script, &length);
    for (ScheduledTask* task = s->schedule.first[0]; task != nullptr;
         task = task->next[0]) {
        Tcl_Size size;
        const char* code = Tcl_GetStringFromObj(task->proc, &size);
        if (size == length && memcmp(code, text, static_cast<size_t>(size)) == 0) {
            return task;
        }
    }
    return nullptr;
}

/* Made by snprintf: Tcl's own formatting costs several times the scheduling. */
Tcl_Obj* task_id(const ScheduledTask* task) {
    char text[idMax];
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
    Tcl_GetTime(&now);
    const ScheduledTask* task = pv_schedule_insert(
        &s->schedule, s->nextId++, pv_clock_after(now, ms), script_words(objc, objv));
    Tcl_SetObjResult(interp, task_id(task));
    return TCL_OK;
}

/* ::qel::reactor after cancel id|command */
int pv_after_cancel(PVTimer* s, Tcl_Interp* /*interp*/, int objc,
                    Tcl_Obj* const objv[]) {
    const ObjRef word(script_words(objc, objv));
    ScheduledTask* task = pv_task_find_by_id(s, word.get());
    if (task == nullptr) {
        task = pv_task_find_by_code(s, word.get());
    }
    if (task != nullptr) {
        pv_task_destroy(&s->schedule, task);
    }
    return TCL_OK;
}

int pv_after_info_all(const PVTimer* s) {
    Tcl_Obj* ids = Tcl_NewListObj(0, nullptr);
    for (const ScheduledTask* task = s->schedule.first[0]; task != nullptr;
         task = task->next[0]) {
        Tcl_ListObjAppendElement(nullptr, ids, task_id(task));
    }
    Tcl_SetObjResult(s->interp, ids);
    return TCL_OK;
}

int pv_after_info_task(PVTimer* s, Tcl_Obj* id) {
    const ScheduledTask* task = pv_task_find_by_id(s, id);
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
int pv_after_info(PVTimer* s, Tcl_Interp* /*interp*/, int objc, Tcl_Obj* const objv[]) {
    return objc == 3 ? pv_after_info_all(s) : pv_after_info_task(s, objv[3]);
}

constexpr CommandRow<PVTimer> after_options[] = {
    {"cancel", 4, anyNumber, "id|command", pv_after_cancel},
    {"info", 3, 4, "?id?", pv_after_info},
    {nullptr, 0, 0, nullptr, nullptr},
};
static_assert(table_ends(after_options));

// The store's life.

void pv_timer_init(PVTimer* s, Tcl_Interp* interp) {
    s->initialized = true;
    s->interp = interp;
    s->timeout = defaultTimeout;
    Tcl_InitHashTable(&s->schedule.ids, TCL_ONE_WORD_KEYS);
}

/* Tells whether tasks may run: the reactor runs, in an interpreter that still does. */
bool timer_active(const PVTimer* s) {
    return s->running && Tcl_InterpDeleted(s->interp) == 0;
}

/* The first task if it is due and belongs to the pass of this epoch, or null. */
ScheduledTask* task_due(const PVTimer* s, unsigned long epoch) {
    Tcl_Time now;
    ScheduledTask* first = s->schedule.first[0];
    if (first == nullptr) {
        return nullptr;
    }
    Tcl_GetTime(&now);
    return pv_clock_earlier(now, first->time) || first->epoch > epoch ? nullptr : first;
}

} // namespace

PVTimer* pv_timer(Tcl_Interp* interp) {
    PVTimer* s = thread_timer();
    if (s == nullptr) {
        if (interp != nullptr) {
            fail(interp, "failed to get timer thread data", "QEL", "TIMER", "THREAD",
                 "DATA");
        }
        return nullptr;
    }
    if (!s->initialized && interp != nullptr) {
        pv_timer_init(s, interp);
    }
    return s->initialized ? s : nullptr;
}

void pv_timer_destroy() {
    PVTimer* s = thread_timer();
    if (!s->initialized) {
        return;
    }
    // Ids go on counting: one that a script still holds must not come to name a task of
    // the next set-up.
    const unsigned long nextId = s->nextId;
    while (s->schedule.first[0] != nullptr) {
        pv_task_destroy(&s->schedule, s->schedule.first[0]);
    }
    Tcl_DeleteHashTable(&s->schedule.ids);
    *s = PVTimer();
    s->nextId = nextId;
    DEBUG_LINE("pv_timer_destroy", "released timer data");
}

void pv_timer_running(PVTimer* s, bool running) {
    s->running = running;
}

long pv_schedule_timeout(const PVTimer* s) {
    Tcl_Time now;
    if (!s->running) {
        return 0;
    }
    if (s->schedule.first[0] == nullptr) {
        return s->timeout;
    }
    const Tcl_Time due = s->schedule.first[0]->time;
    Tcl_GetTime(&now);
    if (now.sec > due.sec || (now.sec == due.sec && now.usec + nearlyDue >= due.usec) ||
        s->timeout < 0) {
        return diff_for_timeout(now, due);
    }
    const Tcl_Time cap = pv_clock_after(now, s->timeout);
    return diff_for_timeout(now, pv_clock_earlier(cap, due) ? cap : due);
}

long pv_schedule_due(const PVTimer* s) {
    Tcl_Time now;
    if (s->schedule.first[0] == nullptr) {
        return -1;
    }
    Tcl_GetTime(&now);
    return diff_for_timeout(now, s->schedule.first[0]->time);
}

bool pv_schedule_dispatch(PVTimer* s) {
    bool ran = false;
    if (s->schedule.first[0] == nullptr) {
        return false;
    }
    const unsigned long epoch = s->schedule.epoch++;
    while (timer_active(s)) {
        ScheduledTask* task = task_due(s, epoch);
        if (task == nullptr) {
            return ran;
        }
        ran = true;
        // The task goes first: a script that ends its thread never comes back here.
        const ObjRef script(task->proc);
        pv_task_destroy(&s->schedule, task);
        pv_bgerror_eval(s->interp, script.get(), TCL_EVAL_GLOBAL);
    }
    return ran;
}

/* ::qel::reactor timeout ?timeout? */
int pv_cmd_timeout(PVTimer* s, Tcl_Interp* interp, int objc, Tcl_Obj* const objv[]) {
    long timeout = s->timeout;
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
int pv_cmd_after(PVTimer* s, Tcl_Interp* interp, int objc, Tcl_Obj* const objv[]) {
    long ms;
    if (Tcl_GetLongFromObj(nullptr, objv[2], &ms) == TCL_OK) {
        return objc > 3 ? pv_after_ms(s, interp, ms, objc, objv)
                        : wrong_count(interp, 2, objv, "ms script ?script ...?");
    }
    const auto* row = command_row(nullptr, after_options, objv[2], "subcommand");
    if (row == nullptr) {
        const char* word = Tcl_GetString(objv[2]);
        return fail(
            interp,
            Tcl_ObjPrintf("bad argument \"%s\": must be cancel, info, or an integer",
                          word),
            "TCL", "LOOKUP", "INDEX", "argument", word);
    }
    return command_run(row, 3, s, interp, objc, objv);
}
