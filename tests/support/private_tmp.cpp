#include "private_tmp.hpp"

#include <errno.h>
#include <stdio.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "simboard.hpp"

int enter_private_tmp(void)
{
    if (sim_enter_mount_namespace() != 0) {
        fprintf(stderr, "private /tmp: %s\n", sim_board_last_error());
        return -1;
    }
    if (mount("tmpfs", "/tmp", "tmpfs", 0, "mode=1777") != 0) {
        fprintf(stderr, "private /tmp: mount: %s\n", strerror(errno));
        return -1;
    }
    return 0;
}

int enter_private_dirs(void)
{
    if (enter_private_tmp() != 0)
        return -1;
    if (mount("tmpfs", "/opt", "tmpfs", 0, "mode=0755") != 0 ||
        mkdir("/opt/orvel", 0755) != 0 ||
        mkdir("/opt/orvel/platform", 0755) != 0 ||
        mkdir("/opt/orvel/platform/logs", 0755) != 0) {
        fprintf(stderr, "private /opt: %s\n", strerror(errno));
        return -1;
    }
    return 0;
}

void write_text_file(const char *path, const char *text)
{
    FILE *file;

    if (text == NULL) {
        unlink(path);
        return;
    }
    file = fopen(path, "w");
    ASSERT_NE(file, nullptr) << path;
    EXPECT_GE(fputs(text, file), 0) << path;
    EXPECT_EQ(fclose(file), 0) << path;
}

/* Entered at most once a process: 0 not tried, 1 entered, -1 refused. */
static int entered_tmp;
static int entered_dirs;
static std::string refusal;

static bool enter_once(int *state, int (*enter)(void), std::string *why)
{
    if (*state == 0) {
        *state = enter() == 0 ? 1 : -1;
        if (*state < 0)
            refusal = std::string("needs a private mount namespace, which "
                                  "this user cannot have here: ") +
                      sim_board_last_error() +
                      " (run as root, or allow unprivileged user namespaces)";
    }
    if (*state < 0 && why != NULL)
        *why = refusal;
    return *state > 0;
}

bool private_tmp_ready(std::string *why)
{
    return entered_dirs > 0 || enter_once(&entered_tmp, enter_private_tmp, why);
}

bool private_dirs_ready(std::string *why)
{
    return enter_once(&entered_dirs, enter_private_dirs, why);
}
