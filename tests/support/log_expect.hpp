/* Whole-message assertions on both sinks of a component: the
 * captured syslog message (severity, ident, text) and the file line
 * "<stamp>: <text>\n" with a stamp of the sink's format. */
#ifndef LOG_EXPECT_H
#define LOG_EXPECT_H

#include <stddef.h>

#include <string>

#include "log_sink.hpp"

/* Points the sink at a fresh file and forgets earlier messages. */
void log_expect_start(struct log_sink *sink);
/* The file the sink writes to, for code that opens the sink itself. */
const char *log_expect_path(void);
/* Closes the sink's file and removes it. */
void log_expect_stop(void);

/* The next message, in both sinks, is `text` at `severity`. */
void expect_log(int severity, const char *text);
/* expect_log with a printf-style text. */
void expect_logf(int severity, const char *format, ...)
    __attribute__((format(printf, 2, 3)));
/* Every message so far has been expected. */
void expect_no_more_logs(void);
/* Skips messages up to and including the first whose text is `text`;
 * fails when there is none. */
void skip_logs_through(const char *text);

/* Checks that `line` begins with a stamp of `stamp_format` followed by ": "
 * and returns what follows, or null. */
const char *after_log_stamp(const char *line, const char *stamp_format);

/* printf into a string, for failure messages. */
std::string format_text(const char *format, ...)
    __attribute__((format(printf, 1, 2)));

/* The whole content of a file, null-terminated (caller frees), or null. */
char *read_whole_file(const char *path, size_t *length_out);

#endif
