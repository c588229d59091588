#include "private_tmp.h"

#include <errno.h>
#include <stdio.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include "cmocka_all.h"
#include "simboard.h"

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
    assert_non_null(file);
    assert_int_equal(fputs(text, file) >= 0, 1);
    assert_int_equal(fclose(file), 0);
}
