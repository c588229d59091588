#include "log_sink.hpp"

#include <stdarg.h>
#include <time.h>

#define STAMP_SIZE 64

int log_sink_open(struct log_sink *sink, const char *path)
{
    FILE *stream = fopen(path, "a+");

    pthread_rwlock_wrlock(&sink->guard);
    if (sink->stream != NULL)
        fclose(sink->stream);
    sink->stream = stream;
    pthread_rwlock_unlock(&sink->guard);
    return stream == NULL ? -1 : 0;
}

void log_sink_close(struct log_sink *sink)
{
    pthread_rwlock_wrlock(&sink->guard);
    if (sink->stream != NULL)
        fclose(sink->stream);
    sink->stream = NULL;
    pthread_rwlock_unlock(&sink->guard);
}

int log_sink_is_open(struct log_sink *sink)
{
    int open;

    pthread_rwlock_rdlock(&sink->guard);
    open = sink->stream != NULL;
    pthread_rwlock_unlock(&sink->guard);
    return open;
}

static void format_stamp(const char *stamp_format, char stamp[STAMP_SIZE])
{
    time_t now = time(NULL);
    struct tm local;

    stamp[0] = '\0';
    if (localtime_r(&now, &local) != NULL)
        strftime(stamp, STAMP_SIZE, stamp_format, &local);
}

void log_sink_write_line(struct log_sink *sink, const char *format, ...)
{
    char stamp[STAMP_SIZE];
    va_list args;

    pthread_rwlock_rdlock(&sink->guard);
    if (sink->stream != NULL) {
        format_stamp(sink->stamp_format, stamp);
        va_start(args, format);
        flockfile(sink->stream);
        fprintf(sink->stream, "%s: ", stamp);
        vfprintf(sink->stream, format, args);
        fflush(sink->stream);
        funlockfile(sink->stream);
        va_end(args);
    }
    pthread_rwlock_unlock(&sink->guard);
}
