/*
 * debugging.h -- the debug log: one process-wide record, one line per call.
 *
 * Any thread may change the record while others write lines.  A lock guards it, which
 * is never held while a line is written.
 */
#ifndef PARVO_DEBUGGING_H
#define PARVO_DEBUGGING_H

/*
 * Set the worker and the node name of every later line.  The text is copied; null
 * leaves the name as it is.  The process stops when the copy cannot be made.
 */
void debugging_worker(const char* name);
void debugging_node(const char* name);

/*
 * Sets the file that every later line is appended to.  The path is copied.  With
 * null, or when the copy fails, lines go to standard error.
 */
void debugging_file(const char* path);

/* Switch the log on and off. */
void debugging_on();
void debugging_off();

/* Tells whether debug lines are wanted. */
bool debugging();

/* Forgets file, node and worker and switches the log off. */
void debugging_reset();

/*
 * Writes one line, whether or not the log is on.  fn: the name of the operation, which
 * stays when a function is renamed: people search logs for it.  fmt and what follows:
 * the message, as printf takes them.  A log file that cannot be opened is no error: the
 * line goes to standard error.
 */
void log_output(const char* fn, const char* fmt, ...)
    __attribute__((format(printf, 2, 3)));

/*
 * Writes a line if the log is on; otherwise nothing of it is evaluated.  fn: as for
 * log_output.
 */
#define DEBUG_LINE(fn, ...)                                                            \
    do {                                                                               \
        if (debugging()) {                                                             \
            log_output(fn, __VA_ARGS__);                                               \
        }                                                                              \
    } while (false)

#endif
