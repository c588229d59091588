#include "log_expect.hpp"

#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include <gtest/gtest.h>


#include "syslog_capture.hpp"

static struct log_sink *current_sink;
static char file_path[] = "/tmp/log_expect_XXXXXX";
static size_t next_message;
static size_t file_position;

std::string format_text(const char *format, ...)
{
    char text[1024];
    va_list args;

    va_start(args, format);
    vsnprintf(text, sizeof(text), format, args);
    va_end(args);
    return text;
}

char *read_whole_file(const char *path, size_t *length_out)
{
    FILE *file = fopen(path, "r");
    char *content = NULL;
    size_t length = 0;
    size_t capacity = 0;

    if (file == NULL)
        return NULL;
    for (;;) {
        if (length + 4096 + 1 > capacity) {
            capacity = (capacity + 4096) * 2;
            content = static_cast<char *>(realloc(content, capacity));
            if (content == NULL)
                break;
        }
        size_t got = fread(content + length, 1, 4096, file);
        length += got;
        if (got == 0)
            break;
    }
    fclose(file);
    if (content != NULL)
        content[length] = '\0';
    if (length_out != NULL)
        *length_out = length;
    return content;
}

/* The stamp is "%Y %b %d %X" and then the component's own words. */
const char *after_log_stamp(const char *line, const char *stamp_format)
{
    static const char time_part[] = "%Y %b %d %X";
    const char *suffix = stamp_format + strlen(time_part);
    struct tm parsed;
    const char *rest;

    if (strncmp(stamp_format, time_part, strlen(time_part)) != 0)
        return NULL;
    memset(&parsed, 0, sizeof(parsed));
    rest = strptime(line, "%Y %b %d %H:%M:%S", &parsed);
    if (rest == NULL || rest - line != 20)
        return NULL;
    if (strncmp(rest, suffix, strlen(suffix)) != 0)
        return NULL;
    rest += strlen(suffix);
    if (strncmp(rest, ": ", 2) != 0)
        return NULL;
    return rest + 2;
}

void log_expect_start(struct log_sink *sink)
{
    int fd;

    strcpy(file_path, "/tmp/log_expect_XXXXXX");
    fd = mkstemp(file_path);
    ASSERT_GE(fd, 0) << file_path;
    close(fd);
    ASSERT_EQ(log_sink_open(sink, file_path), 0) << file_path;
    current_sink = sink;
    next_message = 0;
    file_position = 0;
    syslog_capture_reset();
}

const char *log_expect_path(void)
{
    return file_path;
}

void log_expect_stop(void)
{
    if (current_sink != NULL)
        log_sink_close(current_sink);
    current_sink = NULL;
    unlink(file_path);
}

static void expect_file_line(const char *text)
{
    char *content = read_whole_file(file_path, NULL);
    const char *message;
    size_t text_length = strlen(text);

    ASSERT_NE(content, nullptr) << "no log file " << file_path;
    message = after_log_stamp(content + file_position,
                              current_sink->stamp_format);
    if (message == NULL) {
        ADD_FAILURE() << "no stamped file line for \"" << text << "\" at: \""
                      << content + file_position << "\"";
    } else if (strncmp(message, text, text_length) != 0 ||
               message[text_length] != '\n') {
        ADD_FAILURE() << "file line \"" << message << "\", expected \"" << text
                      << "\"";
    } else {
        file_position = (size_t)(message - content) + text_length + 1;
    }
    free(content);
}

void expect_log(int severity, const char *text)
{
    const struct captured_syslog *entry = syslog_capture_get(next_message);

    ASSERT_NE(entry, nullptr) << "no message, expected \"" << text << "\"";
    EXPECT_STREQ(entry->text, text);
    EXPECT_EQ(entry->severity, severity) << text;
    EXPECT_STREQ(entry->ident, current_sink->ident) << text;
    next_message++;
    expect_file_line(text);
}

void expect_logf(int severity, const char *format, ...)
{
    char text[CAPTURED_TEXT_SIZE];
    va_list args;

    va_start(args, format);
    vsnprintf(text, sizeof(text), format, args);
    va_end(args);
    expect_log(severity, text);
}

void expect_no_more_logs(void)
{
    const struct captured_syslog *entry = syslog_capture_get(next_message);
    char *content = read_whole_file(file_path, NULL);

    if (entry != NULL)
        ADD_FAILURE() << "unexpected message \"" << entry->text << "\"";
    EXPECT_NE(content, nullptr) << "no log file " << file_path;
    if (content != NULL) {
        EXPECT_STREQ(content + file_position, "");
    }
    free(content);
}

void skip_logs_through(const char *text)
{
    for (;;) {
        const struct captured_syslog *entry =
            syslog_capture_get(next_message);

        ASSERT_NE(entry, nullptr) << "no message \"" << text << "\"";
        expect_log(entry->severity, entry->text);
        if (strcmp(entry->text, text) == 0)
            return;
    }
}
