/* A component's log file read back as lines: each stamped line becomes its
 * message text, so tests compare whole lines whatever the time. */
#ifndef LOG_FILE_H
#define LOG_FILE_H

#include <stddef.h>

/* Asserts that the file at `path` holds exactly `expected` lines, in
 * order, each "<stamp of stamp_format>: <text>" (an expected "" stands for
 * an empty line, as a message that ends in a newline of its own leaves). */
void assert_log_file_lines(const char *path, const char *stamp_format,
                           const char *const *expected, size_t count);

/* Asserts that `text` is one of the file's stamped lines. */
void assert_log_file_has_line(const char *path, const char *stamp_format,
                              const char *text);

#endif
