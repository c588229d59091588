/* A board's life: create, run a program on it, a shell in its sandbox,
 * destroy.
 *
 * run creates a board (in DIR, or a fresh directory under /tmp) unless DIR
 * already holds one, runs PROGRAM on it in its sandbox and streams the
 * daemon's log file to standard output while PROGRAM runs. Ctrl-C or
 * SIGTERM stop PROGRAM; a board created by the run is then removed unless
 * --keep, one that was there before stays. The exit status is PROGRAM's. */
#include <errno.h>
#include <fcntl.h>
#include <getopt.h>
#include <libgen.h>
#include <limits.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "lhsim.hpp"

#define TAIL_INTERVAL_US 100000
#define STOP_TIMEOUT_MS  5000
#define DAEMON_LOG       "pellin_mgr.log"

struct run_options {
    enum sim_board_kind kind = {};
    int kind_given = {};
    const char *dir = {};
    int keep = {};
};

static volatile sig_atomic_t stop_signal;

static void on_stop(int signal_number)
{
    stop_signal = signal_number;
}

/* Set before the board is made, so that a stop request never leaves it
 * behind: follow() acts on one that came early. */
static void catch_stop_signals(void)
{
    signal(SIGINT, on_stop);
    signal(SIGTERM, on_stop);
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

static off_t file_size(const char *path)
{
    struct stat st;

    return stat(path, &st) == 0 ? st.st_size : 0;
}

static int exit_status(int status)
{
    if (WIFEXITED(status))
        return WEXITSTATUS(status);
    return 128 + (WIFSIGNALED(status) ? WTERMSIG(status) : 0);
}

#define STOP_RETRY_US 50000

/* Sends SIGTERM until the program has ended: one sent before the child
 * dropped lhsim's own handlers (between fork and exec) would be lost.
 * SIGKILL after STOP_TIMEOUT_MS. */
static void stop_program(pid_t pid, int *status)
{
    for (int waited_us = 0; waited_us < STOP_TIMEOUT_MS * 1000;
         waited_us += STOP_RETRY_US) {
        kill(pid, SIGTERM);
        if (waitpid(pid, status, WNOHANG) == pid)
            return;
        usleep(STOP_RETRY_US);
    }
    kill(pid, SIGKILL);
    waitpid(pid, status, 0);
}

/* Streams the log's new lines until the program ends; forwards a stop
 * request. */
static int follow(pid_t pid, const char *log_path)
{
    off_t offset = file_size(log_path);
    int status = 0;

    for (;;) {
        pid_t done = waitpid(pid, &status, WNOHANG);

        tail_log(log_path, &offset);
        if (done == pid)
            break;
        if (stop_signal != 0) {
            stop_program(pid, &status);
            tail_log(log_path, &offset);
            break;
        }
        usleep(TAIL_INTERVAL_US);
    }
    return exit_status(status);
}

static void announce(enum sim_board_kind kind, const char *root, FILE *to)
{
    fprintf(to, "lhsim: %s board in %s; socket %s/" LHSIM_SOCKET "\n",
            sim_board_kind_name(kind), root, root);
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

/* Options up to "--"; the index of PROGRAM, or -1 for a usage error. */
static int parse_run(int argc, char **argv, struct run_options *options)
{
    static const struct option long_options[] = {
        {"board", required_argument, NULL, 'b'},
        {"dir", required_argument, NULL, 'd'},
        {"keep", no_argument, NULL, 'k'},
        {NULL, 0, NULL, 0},
    };
    int option;

    *options = (struct run_options){.kind = SIM_BOARD_BASE2};
    while ((option = getopt_long(argc, argv, "+b:d:k", long_options, NULL)) !=
           -1) {
        if (option == 'b' &&
            sim_board_kind_from_name(optarg, &options->kind) == 0)
            options->kind_given = 1;
        else if (option == 'd')
            options->dir = optarg;
        else if (option == 'k')
            options->keep = 1;
        else
            return -1;
    }
    return optind < argc ? optind : -1;
}

/* The existing behaviour: a board of its own, removed afterwards. */
static int run_created(const struct run_options *options, char **program)
{
    char root[PATH_MAX], log_path[PATH_MAX + 32];
    struct sim_board *board;
    int status;
    pid_t pid;

    if (make_root(options->dir, root, sizeof(root)) != 0 ||
        sim_board_create(root, options->kind, &board) != 0) {
        fprintf(stderr, "lhsim: cannot create the board in %s: %s\n", root,
                strerror(errno));
        return LHSIM_FAILED;
    }
    snprintf(log_path, sizeof(log_path), "%s/" DAEMON_LOG,
             sim_board_path(board, SIM_PATH_LOGS));
    announce(options->kind, sim_board_path(board, SIM_PATH_ROOT), stderr);
    pid = sim_board_spawn(board, NULL, program);
    if (pid < 0) {
        fprintf(stderr, "lhsim: cannot start %s: %s\n", program[0],
                strerror(errno));
        sim_board_destroy(board);
        return LHSIM_FAILED;
    }
    status = follow(pid, log_path);
    if (options->keep) {
        sim_board_free(board);
        return status;
    }
    sim_board_destroy(board);
    if (options->dir == NULL)
        rmdir(dirname(root)); /* the directory make_root made */
    return status;
}

/* A board made earlier (lhsim create, or a kept run): it stays. */
static int run_existing(const struct run_options *options, char **program)
{
    char log_path[PATH_MAX + 64];
    struct lhsim_board board;
    pid_t pid;

    if (lhsim_board_open(options->dir, &board) < 0)
        return LHSIM_FAILED;
    if (options->kind_given && options->kind != board.kind->kind) {
        fprintf(stderr, "lhsim: the board in %s is %s, not %s\n", board.root,
                sim_board_kind_name(board.kind->kind),
                sim_board_kind_name(options->kind));
        lhsim_board_close(&board);
        return LHSIM_USAGE;
    }
    snprintf(log_path, sizeof(log_path), "%s/" LHSIM_DAEMON_LOG, board.root);
    announce(board.kind->kind, board.root, stderr);
    pid = lhsim_board_spawn(&board, program);
    lhsim_board_close(&board);
    if (pid < 0) {
        fprintf(stderr, "lhsim: cannot start %s: %s\n", program[0],
                strerror(errno));
        return LHSIM_FAILED;
    }
    return follow(pid, log_path);
}

int lhsim_run(const struct lhsim_command *command, int argc, char **argv)
{
    struct run_options options;
    int program = parse_run(argc, argv, &options);

    if (program < 0)
        return lhsim_usage(command);
    catch_stop_signals();
    if (options.dir != NULL && lhsim_board_exists(options.dir))
        return run_existing(&options, &argv[program]);
    return run_created(&options, &argv[program]);
}

int lhsim_create(const struct lhsim_command *command, int argc, char **argv)
{
    static const struct option long_options[] = {
        {"board", required_argument, NULL, 'b'},
        {NULL, 0, NULL, 0},
    };
    enum sim_board_kind kind = SIM_BOARD_BASE2;
    struct sim_board *board;
    int option;

    while ((option = getopt_long(argc, argv, "b:", long_options, NULL)) != -1)
        if (option != 'b' || sim_board_kind_from_name(optarg, &kind) != 0)
            return lhsim_usage(command);
    if (optind != argc - 1)
        return lhsim_usage(command);
    if (sim_board_create(argv[optind], kind, &board) != 0) {
        fprintf(stderr, "lhsim: cannot create the board in %s: %s\n",
                argv[optind], strerror(errno));
        return LHSIM_FAILED;
    }
    announce(kind, sim_board_path(board, SIM_PATH_ROOT), stdout);
    sim_board_free(board);
    return LHSIM_OK;
}

static int wait_child(pid_t pid)
{
    int status = 0;
    pid_t done;

    do
        done = waitpid(pid, &status, 0);
    while (done < 0 && errno == EINTR);
    return done == pid ? exit_status(status) : LHSIM_FAILED;
}

int lhsim_shell(const struct lhsim_command *command, int argc, char **argv)
{
    const char *shell = getenv("SHELL");
    char *program[2] = {NULL, NULL};
    struct lhsim_board board;
    pid_t pid;

    if (argc != 2)
        return lhsim_usage(command);
    if (lhsim_board_open(argv[1], &board) < 0)
        return LHSIM_FAILED;
    program[0] = (char *)(shell != NULL && *shell != '\0' ? shell : "/bin/sh");
    pid = lhsim_board_spawn(&board, program);
    lhsim_board_close(&board);
    if (pid < 0) {
        fprintf(stderr, "lhsim: cannot start %s: %s\n", program[0],
                strerror(errno));
        return LHSIM_FAILED;
    }
    /* The terminal's Ctrl-C and Ctrl-\ are the shell's. */
    signal(SIGINT, SIG_IGN);
    signal(SIGQUIT, SIG_IGN);
    return wait_child(pid);
}

int lhsim_destroy(const struct lhsim_command *command, int argc, char **argv)
{
    struct lhsim_board board;
    int rc = LHSIM_OK;

    if (argc != 2)
        return lhsim_usage(command);
    if (lhsim_board_open(argv[1], &board) < 0)
        return LHSIM_FAILED;
    if (lhsim_board_served(&board)) {
        fprintf(stderr, "lhsim: a daemon is serving %s; stop it first\n",
                board.root);
        rc = LHSIM_FAILED;
    } else if (lhsim_board_remove(&board) != 0) {
        fprintf(stderr, "lhsim: cannot remove %s: %s\n", board.root,
                strerror(errno));
        rc = LHSIM_FAILED;
    }
    lhsim_board_close(&board);
    return rc;
}
