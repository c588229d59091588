#include "syslog_capture.hpp"

#include <pthread.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>

#include "plat_syslog.h"

#define CAPTURE_CAPACITY 4096

static struct captured_syslog captured[CAPTURE_CAPACITY];
static size_t captured_count;
static pthread_mutex_t capture_lock = PTHREAD_MUTEX_INITIALIZER;

void plat_syslog(int severity, const char *ident, int option,
                 const char *format, ...)
{
    va_list args;

    (void)option;
    pthread_mutex_lock(&capture_lock);
    if (captured_count < CAPTURE_CAPACITY) {
        struct captured_syslog *entry = &captured[captured_count++];

        entry->severity = severity;
        snprintf(entry->ident, sizeof(entry->ident), "%s", ident);
        va_start(args, format);
        vsnprintf(entry->text, sizeof(entry->text), format, args);
        va_end(args);
    }
    pthread_mutex_unlock(&capture_lock);
}

void syslog_capture_reset(void)
{
    pthread_mutex_lock(&capture_lock);
    captured_count = 0;
    pthread_mutex_unlock(&capture_lock);
}

size_t syslog_capture_count(void)
{
    size_t count;

    pthread_mutex_lock(&capture_lock);
    count = captured_count;
    pthread_mutex_unlock(&capture_lock);
    return count;
}

const struct captured_syslog *syslog_capture_get(size_t index)
{
    return index < syslog_capture_count() ? &captured[index] : NULL;
}
