/*
 * utils.cpp -- the package's one time format.
 */
#include "utils.h"

#include <stdio.h>
#include <sys/time.h>
#include <time.h>

void timestamp(char* buffer, int size) {
    struct timeval now;
    struct tm local;
    char date[64];
    char zone[64];

    buffer[0] = '\0';
    if (gettimeofday(&now, nullptr) == -1) {
        return;
    }
    if (localtime_r(&now.tv_sec, &local) == nullptr) {
        return;
    }
    if (strftime(date, sizeof date, "%F %T", &local) == 0 ||
        strftime(zone, sizeof zone, "%z", &local) == 0) {
        return;
    }
    snprintf(buffer, static_cast<size_t>(size), "%s.%03u%s", date,
             static_cast<unsigned>(now.tv_usec / 1000), zone);
}
