#include "log_file.h"

#include <stdlib.h>
#include <string.h>

#include "cmocka_all.h"
#include "log_expect.h"

/* Splits at newlines in place; a trailing newline ends the last line. */
static size_t split_lines(char *content, char ***lines_out)
{
    size_t count = 0;
    char **lines = NULL;
    char *line = content;

    while (*line != '\0') {
        char *end = strchr(line, '\n');

        lines = realloc(lines, (count + 1) * sizeof(*lines));
        assert_non_null(lines);
        lines[count++] = line;
        if (end == NULL)
            break;
        *end = '\0';
        line = end + 1;
    }
    *lines_out = lines;
    return count;
}

static const char *line_text(const char *line, const char *stamp_format)
{
    const char *text;

    if (line[0] == '\0')
        return line;
    text = after_log_stamp(line, stamp_format);
    if (text == NULL)
        fail_msg("log line without a stamp: \"%s\"", line);
    return text;
}

void assert_log_file_lines(const char *path, const char *stamp_format,
                           const char *const *expected, size_t count)
{
    char *content = read_whole_file(path, NULL);
    char **lines = NULL;
    size_t found;

    if (content == NULL)
        fail_msg("no log file %s", path);
    found = split_lines(content, &lines);
    for (size_t i = 0; i < found && i < count; i++)
        assert_string_equal(line_text(lines[i], stamp_format), expected[i]);
    if (found != count)
        fail_msg("%zu log lines, expected %zu; line %zu is \"%s\"", found,
                 count, found < count ? found : count,
                 found < count ? expected[found] : lines[count]);
    free(lines);
    free(content);
}

void assert_log_file_has_line(const char *path, const char *stamp_format,
                              const char *text)
{
    char *content = read_whole_file(path, NULL);
    char **lines = NULL;
    size_t found;
    int seen = 0;

    if (content == NULL)
        fail_msg("no log file %s", path);
    found = split_lines(content, &lines);
    for (size_t i = 0; i < found && !seen; i++)
        seen = strcmp(line_text(lines[i], stamp_format), text) == 0;
    free(lines);
    free(content);
    if (!seen)
        fail_msg("no log line \"%s\" in %s", text, path);
}
