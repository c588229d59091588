#define _GNU_SOURCE
#include "private_tmp.h"

#include <errno.h>
#include <fcntl.h>
#include <sched.h>
#include <stdio.h>
#include <string.h>
#include <sys/mount.h>
#include <unistd.h>

#include "cmocka_all.h"

static int write_proc_file(const char *path, const char *text)
{
    int fd = open(path, O_WRONLY);
    ssize_t written;

    if (fd < 0)
        return -1;
    written = write(fd, text, strlen(text));
    close(fd);
    return written == (ssize_t)strlen(text) ? 0 : -1;
}

/* Without privilege a user namespace makes the caller root inside it. */
static int unshare_as_user(void)
{
    char map[64];
    uid_t uid = getuid();
    gid_t gid = getgid();

    if (unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0)
        return -1;
    snprintf(map, sizeof(map), "0 %u 1", (unsigned)uid);
    if (write_proc_file("/proc/self/uid_map", map) != 0)
        return -1;
    write_proc_file("/proc/self/setgroups", "deny");
    snprintf(map, sizeof(map), "0 %u 1", (unsigned)gid);
    return write_proc_file("/proc/self/gid_map", map);
}

int enter_private_tmp(void)
{
    if (unshare(CLONE_NEWNS) != 0 &&
        (errno != EPERM || unshare_as_user() != 0)) {
        fprintf(stderr, "private /tmp: unshare: %s\n", strerror(errno));
        return -1;
    }
    if (mount(NULL, "/", NULL, MS_REC | MS_PRIVATE, NULL) != 0 ||
        mount("tmpfs", "/tmp", "tmpfs", 0, "mode=1777") != 0) {
        fprintf(stderr, "private /tmp: mount: %s\n", strerror(errno));
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
    assert_non_null(file);
    assert_int_equal(fputs(text, file) >= 0, 1);
    assert_int_equal(fclose(file), 0);
}
