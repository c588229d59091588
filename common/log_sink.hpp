/* The two sinks of every message: the platform syslog wrapper and
 * the component's log file, "<timestamp>: <message>\n", flushed at once. */
#ifndef LOG_SINK_H
#define LOG_SINK_H

#include <pthread.h>
#include <stdio.h>
#include <syslog.h>

#include "plat_syslog.h"

struct log_sink {
    const char *ident;        /* syslog ident */
    const char *stamp_format; /* strftime format of the file line's stamp */
    FILE *stream;             /* null: file lines are skipped */
    /* Writers share it; closing takes it alone, so no line meets a closed
     * stream. Lines stay whole through the stream's own lock. */
    pthread_rwlock_t guard;
};

#define LOG_SINK_INITIALIZER(ident, stamp_format) \
    { (ident), (stamp_format), NULL, PTHREAD_RWLOCK_INITIALIZER }

/* Opens `path` in mode "a+" as the sink's stream, closing an earlier one.
 * Returns 0, or -1 with the stream left null. */
int log_sink_open(struct log_sink *sink, const char *path);
void log_sink_close(struct log_sink *sink);
int log_sink_is_open(struct log_sink *sink);

/* Writes "<stamp>: " and the formatted text to the stream, if open. */
void log_sink_write_line(struct log_sink *sink, const char *format, ...)
    __attribute__((format(printf, 2, 3)));

/* One message to both sinks. The format is the syslog form; the file line
 * adds the newline. The arguments are evaluated once per sink: each sink
 * looks the tag text up itself. */
#define LOG_SINK_EMIT(sink, severity, format, ...)                            \
    do {                                                                      \
        plat_syslog((severity), (sink)->ident, 0, format, ##__VA_ARGS__);     \
        log_sink_write_line((sink), format "\n", ##__VA_ARGS__);              \
    } while (0)

#endif
