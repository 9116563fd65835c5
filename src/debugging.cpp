/*
 * debugging.cpp -- the debug log.
 *
 * One lock guards the three strings of the record.  A line copies them under it and is
 * made and written outside it, so that no thread waits for another thread's file.  A
 * line is one write: other threads and processes may write to the same file.
 */
#include "debugging.h"

#include "utils.h"

#include <assert.h>
#include <atomic>
#include <pthread.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

namespace {

struct debug_data {
    char* worker;                // owned copy, null while unset
    char* node;                  // owned copy, null while unset
    char* path;                  // owned copy, null: standard error
    std::atomic<bool> debugging; // debug lines are wanted; read without the lock
};

debug_data debug;
pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER; // guards the strings

char* copy_of(const char* text) {
    return text != nullptr ? strdup(text) : nullptr;
}

/* A copy of a string of the record, to be freed; null where it is unset. */
char* taken(char* const* field) {
    pthread_mutex_lock(&lock);
    char* copy = copy_of(*field);
    pthread_mutex_unlock(&lock);
    return copy;
}

/* Puts a copy (null allowed) in place of a string of the record, which is released. */
void replace(char** field, char* copy) {
    pthread_mutex_lock(&lock);
    char* old = *field;
    *field = copy;
    pthread_mutex_unlock(&lock);
    free(old);
}

/* The copy is tested before other threads see it, and may reset what it becomes. */
char* copy_or_stop(const char* text, const char* condition) {
    char* copy = strdup(text);
    if (copy == nullptr) {
        __assert_fail(condition, __FILE__, __LINE__, __func__);
    }
    return copy;
}

FILE* log_file_stream_open() {
    char* path = taken(&debug.path);
    // Closed on exec: another thread may start a program meanwhile.
    FILE* stream = path != nullptr ? fopen(path, "ae") : nullptr;
    free(path);
    if (stream == nullptr) {
        return stderr;
    }
    setvbuf(stream, nullptr, _IONBF, 0); // what is written goes out at once, and whole
    return stream;
}

/* An unset name is shown as the printf family shows a null string. */
const char* shown(const char* name) {
    return name != nullptr ? name : "(null)";
}

/* The whole line, to be freed; null without memory. */
char* log_entry(const char* fn, const char* message) {
    char now[timestampMax];
    char* node = taken(&debug.node);
    char* worker = taken(&debug.worker);
    char* line;
    timestamp(now, sizeof now);
    if (asprintf(&line, "%s:%s:debug:[%d]:%s:%s: %s\n", now, shown(node), getpid(),
                 shown(worker), fn, message) == -1) {
        line = nullptr;
    }
    free(node);
    free(worker);
    return line;
}

/* Closes the stream; written: whether the line has gone out. */
void log_file_stream_close(FILE* stream, bool written) {
    if (stream != stderr && (fclose(stream) == -1 || !written)) {
        perror("log_stream_close: failed to close log stream");
    }
}

} // namespace

void debugging_worker(const char* name) {
    if (name != nullptr) {
        replace(&debug.worker,
                copy_or_stop(name, "debug.worker != 0 && \"strdup failed\""));
    }
}

void debugging_node(const char* name) {
    if (name != nullptr) {
        replace(&debug.node,
                copy_or_stop(name, "debug.node != 0 && \"strdup failed\""));
    }
}

void debugging_file(const char* path) {
    replace(&debug.path, copy_of(path));
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
    replace(&debug.path, nullptr);
    replace(&debug.node, nullptr);
    replace(&debug.worker, nullptr);
    debug.debugging = false;
}

void log_output(const char* fn, const char* fmt, ...) {
    va_list args;
    char* message;
    va_start(args, fmt);
    // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized): va_start is not seen
    const int length = vasprintf(&message, fmt, args);
    va_end(args);
    if (length == -1) {
        return;
    }
    FILE* stream = log_file_stream_open();
    char* line = log_entry(fn, message);
    const size_t size = line != nullptr ? strlen(line) : 0;
    log_file_stream_close(stream, fwrite(line, 1, size, stream) == size);
    free(line);
    free(message);
}
