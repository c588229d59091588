/* Gives the test process a private, empty /tmp (a tmpfs in a mount
 * namespace of its own), so tests can write the system's fixed paths such
 * as /tmp/idprom_cache.conf without touching the host's. */
#ifndef PRIVATE_TMP_H
#define PRIVATE_TMP_H

#include <string>

#include <gtest/gtest.h>

/* Returns 0, or -1 with a message on stderr. */
int enter_private_tmp(void);

/* enter_private_tmp, and an empty /opt/orvel/platform/logs of the test's
 * own (a tmpfs over /opt) for the log and dump files. */
int enter_private_dirs(void);

/* Writes `text` to `path` (null: removes the file). Asserts on failure. */
void write_text_file(const char *path, const char *text);

/* Enters a private /tmp (enter_private_tmp, or with the log directories
 * too) once per process. False, with the reason, when this user cannot
 * have a mount namespace here. */
bool private_tmp_ready(std::string *why);
bool private_dirs_ready(std::string *why);

/* A test that runs in a private /tmp, or is skipped with the reason. */
class PrivateTmpTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        std::string why;

        if (!private_tmp_ready(&why))
            GTEST_SKIP() << why;
    }
};

/* The same, with an empty /opt/orvel/platform/logs of its own too. */
class PrivateDirsTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        std::string why;

        if (!private_dirs_ready(&why))
            GTEST_SKIP() << why;
    }
};

#endif
