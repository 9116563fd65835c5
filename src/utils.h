/*
 * utils.h -- the package's one time format.
 */
#ifndef PARVO_UTILS_H
#define PARVO_UTILS_H

/* Bytes that hold every timestamp, with room for years beyond 9999. */
constexpr int timestampMax = 64;

/*
 * Writes the current local time, such as 2022-09-07 13:30:52.045+0200, into buffer,
 * which holds size bytes (at least 1): 28 characters, cut to fit, always
 * terminated.  Milliseconds are truncated.  When the clock or a conversion fails
 * the buffer holds an empty string.
 */
void timestamp(char* buffer, int size);

#endif
