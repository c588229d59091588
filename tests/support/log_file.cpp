#include "log_file.hpp"

#include <stdlib.h>
#include <string.h>

#include <gtest/gtest.h>

#include "log_expect.hpp"

/* Splits at newlines in place; a trailing newline ends the last line. */
static size_t split_lines(char *content, char ***lines_out)
{
    size_t count = 0;
    char **lines = NULL;
    char *line = content;

    while (*line != '\0') {
        char *end = strchr(line, '\n');

        lines = static_cast<char **>(realloc(lines, (count + 1) * sizeof(*lines)));
        if (lines == NULL)
            break;
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
    if (text == NULL) {
        ADD_FAILURE() << "log line without a stamp: \"" << line << "\"";
        return "";
    }
    return text;
}

void assert_log_file_lines(const char *path, const char *stamp_format,
                           const char *const *expected, size_t count)
{
    char *content = read_whole_file(path, NULL);
    char **lines = NULL;
    size_t found;

    ASSERT_NE(content, nullptr) << "no log file " << path;
    found = split_lines(content, &lines);
    for (size_t i = 0; i < found && i < count; i++)
        EXPECT_STREQ(line_text(lines[i], stamp_format), expected[i])
            << "line " << i << " of " << path;
    if (found != count)
        ADD_FAILURE() << found << " log lines, expected " << count << "; line "
                      << (found < count ? found : count) << " is \""
                      << (found < count ? expected[found] : lines[count])
                      << "\"";
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

    ASSERT_NE(content, nullptr) << "no log file " << path;
    found = split_lines(content, &lines);
    for (size_t i = 0; i < found && !seen; i++)
        seen = strcmp(line_text(lines[i], stamp_format), text) == 0;
    free(lines);
    free(content);
    EXPECT_TRUE(seen) << "no log line \"" << text << "\" in " << path;
}
