/*
 * debugging.cpp -- the debug log.
 *
 * Each string of the record is an immutable copy that is replaced whole.  A replaced
 * copy goes on the list of retired strings, and that list is only freed at a moment
 * when no thread is reading: a reader counts itself in before it looks at the
 * record, so a copy that was unlinked before the count was seen at zero can no
 * longer be held by anybody.  Neither readers nor writers ever wait.
 */
#include "debugging.h"

#include "utils.h"

#include <assert.h>
#include <atomic>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

namespace {

struct debug_data {
    std::atomic<char*> worker;   // owned copy, null while unset
    std::atomic<char*> node;     // owned copy, null while unset
    std::atomic<char*> path;     // owned copy, null: standard error
    std::atomic<bool> debugging; // debug lines are wanted
};

struct Retired {
    char* text;    // owned copy that the record no longer shows
    Retired* next; // earlier retired string
};

debug_data debug;
std::atomic<unsigned> readers; // threads that may hold a string of the record
std::atomic<Retired*> retired; // strings that wait for a moment without readers

void retired_push(Retired* first, Retired* last) {
    last->next = retired.load();
    while (!retired.compare_exchange_weak(last->next, first)) {
    }
}

/* Takes the whole list, then looks for readers: who counts in later sees none of it. */
void retired_free() {
    Retired* first = retired.exchange(nullptr);
    if (first == nullptr) {
        return;
    }
    if (readers.load() != 0) {
        Retired* last = first;
        while (last->next != nullptr) {
            last = last->next;
        }
        retired_push(first, last);
        return;
    }
    while (first != nullptr) {
        Retired* next = first->next;
        free(first->text);
        free(first);
        first = next;
    }
}

/* Puts a copy (null allowed) in place and releases the one that stood there. */
void replace(std::atomic<char*>& field, char* copy) {
    char* old = field.exchange(copy);
    if (old == nullptr) {
        return;
    }
    auto* entry = static_cast<Retired*>(malloc(sizeof(Retired)));
    if (entry == nullptr) {
        return; // losing the old copy is harmless, freeing it here is not
    }
    entry->text = old;
    retired_push(entry, entry);
    retired_free();
}

FILE* log_file_stream_open() {
    const char* path = debug.path;
    // Closed on exec: another thread may start a program meanwhile.
    FILE* stream = path != nullptr ? fopen(path, "ae") : nullptr;
    return stream != nullptr ? stream : stderr;
}

/* An unset name is shown as the printf family shows a null string. */
const char* shown(const char* name) {
    return name != nullptr ? name : "(null)";
}

void log_entry_prefix(FILE* stream, const char* fn) {
    char now[64];
    timestamp(now, sizeof now);
    fprintf(stream, "%s:%s:debug:[%d]:%s:%s: ", now, shown(debug.node), getpid(),
            shown(debug.worker), fn);
}

void log_file_stream_close(FILE* stream) {
    if (stream != stderr && fclose(stream) == -1) {
        perror("log_stream_close: failed to close log stream");
    }
}

/* The copy is tested before it is shown: a reset meanwhile is no failed copy. */
char* copy_or_stop(const char* text, const char* condition) {
    char* copy = strdup(text);
    if (copy == nullptr) {
        __assert_fail(condition, __FILE__, __LINE__, __func__);
    }
    return copy;
}

} // namespace

void debugging_worker(const char* name) {
    if (name != nullptr) {
        replace(debug.worker,
                copy_or_stop(name, "debug.worker != 0 && \"strdup failed\""));
    }
}

void debugging_node(const char* name) {
    if (name != nullptr) {
        replace(debug.node, copy_or_stop(name, "debug.node != 0 && \"strdup failed\""));
    }
}

void debugging_file(const char* path) {
    replace(debug.path, path != nullptr ? strdup(path) : nullptr);
}

void debugging_on() {
    debug.debugging = true;
}

void debugging_off() {
    debug.debugging = false;
}

bool debugging() {
    return debug.debugging.load(std::memory_order_relaxed);
}

void debugging_reset() {
    replace(debug.path, nullptr);
    replace(debug.node, nullptr);
    replace(debug.worker, nullptr);
    debug.debugging = false;
}

void log_output(const char* fn, const char* fmt, ...) {
    va_list args;
    readers.fetch_add(1);
    FILE* stream = log_file_stream_open();
    flockfile(stream); // standard error is shared: a line stays in one piece
    log_entry_prefix(stream, fn);
    va_start(args, fmt);
    // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized): va_start is not seen
    vfprintf(stream, fmt, args);
    va_end(args);
    fputc('\n', stream);
    funlockfile(stream);
    log_file_stream_close(stream);
    readers.fetch_sub(1);
}
