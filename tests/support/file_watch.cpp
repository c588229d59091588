#include "file_watch.hpp"

#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "log_expect.hpp"

long long now_ms(void)
{
    struct timespec now;

    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * 1000LL + now.tv_nsec / 1000000;
}

char *file_text(const char *path)
{
    char *text = read_whole_file(path, NULL);

    return text != NULL ? text : strdup("");
}

int count_in_text(const char *content, const char *text)
{
    int count = 0;

    for (const char *at = content;
         at != NULL && (at = strstr(at, text)) != NULL; at += strlen(text))
        count++;
    return count;
}

int count_in(const char *path, const char *text)
{
    char *content = file_text(path);
    int count = count_in_text(content, text);

    free(content);
    return count;
}

long long wait_for_text(const char *path, const char *text, int timeout_ms)
{
    long long start = now_ms();

    while (count_in(path, text) == 0) {
        if (now_ms() - start > timeout_ms) {
            ADD_FAILURE() << "\"" << text << "\" not in " << path << " after "
                          << timeout_ms << " ms";
            break;
        }
        usleep(10000);
    }
    return now_ms() - start;
}
