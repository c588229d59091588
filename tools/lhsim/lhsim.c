/* lhsim: the simulated Larks Hollow board as a tool.
 *
 *   lhsim run [--board base2|base1|lhx] [--dir DIR] [--keep] -- PROGRAM [ARG...]
 *
 * Creates a board (in DIR, or a fresh directory under /tmp), runs PROGRAM
 * on it in its sandbox and streams the daemon's log file to standard output
 * while PROGRAM runs. Ctrl-C or SIGTERM stop PROGRAM; the board is then
 * removed unless --keep. The exit status is PROGRAM's. */
#define _GNU_SOURCE
#include <errno.h>
#include <fcntl.h>
#include <getopt.h>
#include <libgen.h>
#include <limits.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include "simboard.h"

#define TAIL_INTERVAL_US 100000
#define STOP_TIMEOUT_MS 5000
#define DAEMON_LOG "pellin_mgr.log"

static volatile sig_atomic_t stop_signal;

static void usage(void)
{
    fprintf(stderr, "usage: lhsim run [--board base2|base1|lhx] [--dir DIR] "
                    "[--keep] -- PROGRAM [ARG...]\n");
}

static void on_stop(int signal_number)
{
    stop_signal = signal_number;
}

/* Copies what the log file gained since `*offset` to standard output. */
static void tail_log(const char *path, off_t *offset)
{
    char buffer[4096];
    int fd = open(path, O_RDONLY | O_CLOEXEC);
    ssize_t got;

    if (fd < 0)
        return;
    while ((got = pread(fd, buffer, sizeof(buffer), *offset)) > 0) {
        if (write(STDOUT_FILENO, buffer, (size_t)got) != got)
            break;
        *offset += got;
    }
    close(fd);
}

/* Streams the log until the program ends; forwards a stop request. */
static int follow(pid_t pid, const char *log_path)
{
    off_t offset = 0;
    int status = 0;

    for (;;) {
        pid_t done = waitpid(pid, &status, WNOHANG);

        tail_log(log_path, &offset);
        if (done == pid)
            break;
        if (stop_signal != 0) {
            kill(pid, SIGTERM);
            sim_wait(pid, STOP_TIMEOUT_MS, &status);
            tail_log(log_path, &offset);
            break;
        }
        usleep(TAIL_INTERVAL_US);
    }
    if (WIFEXITED(status))
        return WEXITSTATUS(status);
    return 128 + (WIFSIGNALED(status) ? WTERMSIG(status) : 0);
}

static int make_root(const char *dir, char *root, size_t size)
{
    if (dir != NULL) {
        snprintf(root, size, "%s", dir);
        return 0;
    }
    snprintf(root, size, "/tmp/lhsim_XXXXXX");
    if (mkdtemp(root) == NULL)
        return -1;
    strncat(root, "/board", size - strlen(root) - 1);
    return 0;
}

static int run(int argc, char **argv)
{
    static const struct option options[] = {
        { "board", required_argument, NULL, 'b' },
        { "dir", required_argument, NULL, 'd' },
        { "keep", no_argument, NULL, 'k' },
        { NULL, 0, NULL, 0 },
    };
    enum sim_board_kind kind = SIM_BOARD_BASE2;
    const char *dir = NULL;
    int keep = 0, option, status;
    char root[PATH_MAX], log_path[PATH_MAX + 32];
    struct sim_board *board;
    pid_t pid;

    while ((option = getopt_long(argc, argv, "+b:d:k", options, NULL)) != -1) {
        if (option == 'b' && sim_board_kind_from_name(optarg, &kind) == 0)
            continue;
        if (option == 'd') {
            dir = optarg;
            continue;
        }
        if (option == 'k') {
            keep = 1;
            continue;
        }
        usage();
        return 2;
    }
    if (optind >= argc) {
        usage();
        return 2;
    }
    if (make_root(dir, root, sizeof(root)) != 0 ||
        sim_board_create(root, kind, &board) != 0) {
        fprintf(stderr, "lhsim: cannot create the board in %s: %s\n", root,
                strerror(errno));
        return 1;
    }
    snprintf(log_path, sizeof(log_path), "%s/" DAEMON_LOG,
             sim_board_path(board, SIM_PATH_LOGS));
    fprintf(stderr, "lhsim: %s board in %s; socket %s/ipc/219.sock\n",
            sim_board_kind_name(kind), root,
            sim_board_path(board, SIM_PATH_RUN));
    signal(SIGINT, on_stop);
    signal(SIGTERM, on_stop);
    pid = sim_board_spawn(board, NULL, &argv[optind]);
    if (pid < 0) {
        fprintf(stderr, "lhsim: cannot start %s: %s\n", argv[optind],
                strerror(errno));
        sim_board_destroy(board);
        return 1;
    }
    status = follow(pid, log_path);
    if (keep) {
        sim_board_free(board);
        return status;
    }
    sim_board_destroy(board);
    if (dir == NULL)
        rmdir(dirname(root)); /* the directory make_root made */
    return status;
}

int main(int argc, char **argv)
{
    if (argc >= 2 && strcmp(argv[1], "run") == 0)
        return run(argc - 1, argv + 1);
    usage();
    return 2;
}
