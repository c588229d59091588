/* A board's life: create, run a program on it, a shell in its sandbox,
 * destroy.
 *
 * run creates a board (in DIR, or a fresh directory under /tmp) unless DIR
 * already holds one, runs PROGRAM on it in its sandbox and streams the
 * daemon's log file to standard output while PROGRAM runs. Ctrl-C or
 * SIGTERM stop PROGRAM; a board created by the run is then removed unless
 * --keep, one that was there before stays. The exit status is PROGRAM's
 * when it ends by itself, 0 when it stopped cleanly on request. */
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
#include <termios.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>

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

/* A terminal sends Ctrl-C to its foreground process group. While the run
 * lasts, lhsim and its program are that group on their own, so that the
 * stop reaches them and not the make or script that started lhsim; the
 * terminal goes back to that group when the run ends. */
class TerminalForeground {
public:
    void take()
    {
        const pid_t group = getpgrp();

        if (!isatty(STDIN_FILENO) || tcgetpgrp(STDIN_FILENO) != group ||
            group == getpid() || setpgid(0, 0) != 0)
            return;
        if (hand_to(getpid()))
            previous_ = group;
    }

    ~TerminalForeground()
    {
        if (previous_ > 0)
            hand_to(previous_);
    }

private:
    /* SIGTTOU is blocked meanwhile: a process group not yet in the
     * foreground may then still take the terminal. */
    static bool hand_to(pid_t group)
    {
        sigset_t ttou, old;

        sigemptyset(&ttou);
        sigaddset(&ttou, SIGTTOU);
        sigprocmask(SIG_BLOCK, &ttou, &old);
        const bool done = tcsetpgrp(STDIN_FILENO, group) == 0;
        sigprocmask(SIG_SETMASK, &old, NULL);
        return done;
    }

    pid_t previous_ = 0;
};

#define STOP_RETRY_US 50000

/* Sends SIGTERM until the program has ended: one sent before the child
 * dropped lhsim's own handlers (between fork and exec) would be lost.
 * SIGKILL after STOP_TIMEOUT_MS; false then. */
static bool stop_program(pid_t pid, int *status)
{
    for (int waited_us = 0; waited_us < STOP_TIMEOUT_MS * 1000;
         waited_us += STOP_RETRY_US) {
        kill(pid, SIGTERM);
        if (waitpid(pid, status, WNOHANG) == pid)
            return true;
        usleep(STOP_RETRY_US);
    }
    kill(pid, SIGKILL);
    waitpid(pid, status, 0);
    return false;
}

/* How the program ended: its exit status, and whether it was stopped on
 * request. */
struct run_end {
    int status;
    bool stopped;
};

/* A stop is clean when the program ends on it, by its own exit 0 or by
 * the signal itself; the run then exits 0. */
static struct run_end stopped_on_request(const char *program, pid_t pid)
{
    int status = 0;

    if (!stop_program(pid, &status)) {
        fprintf(stderr, "lhsim: %s did not stop within %d s; killed\n",
                program, STOP_TIMEOUT_MS / 1000);
        return {LHSIM_FAILED, true};
    }
    const bool clean =
        (WIFEXITED(status) && WEXITSTATUS(status) == 0) ||
        (WIFSIGNALED(status) &&
         (WTERMSIG(status) == SIGTERM || WTERMSIG(status) == SIGINT));
    return {clean ? LHSIM_OK : exit_status(status), true};
}

/* Streams the log's new lines until the program ends; forwards a stop
 * request. */
static struct run_end follow(const char *program, pid_t pid,
                             const char *log_path)
{
    off_t offset = file_size(log_path);
    int status = 0;

    for (;;) {
        pid_t done = waitpid(pid, &status, WNOHANG);

        tail_log(log_path, &offset);
        if (done == pid)
            return {exit_status(status), false};
        if (stop_signal != 0) {
            /* The terminal echoed ^C; what follows starts a line. */
            if (stop_signal == SIGINT && isatty(STDOUT_FILENO))
                (void)!write(STDOUT_FILENO, "\n", 1);
            struct run_end end = stopped_on_request(program, pid);

            tail_log(log_path, &offset);
            return end;
        }
        usleep(TAIL_INTERVAL_US);
    }
}

/* The directory lhsim itself was started from, where lhctl lies too. */
static std::string own_directory(void)
{
    char self[PATH_MAX];
    ssize_t length = readlink("/proc/self/exe", self, sizeof(self) - 1);

    if (length <= 0)
        return "";
    self[length] = '\0';
    return dirname(self);
}

static void announce(enum sim_board_kind kind, const char *root, FILE *to)
{
    fprintf(to, "lhsim: %s board in %s; socket %s/" LHSIM_SOCKET "\n",
            sim_board_kind_name(kind), root, root);
}

/* What to try on the running board, with this run's paths. */
static void suggest_commands(enum sim_board_kind kind, const char *root,
                             bool removed_after, FILE *to)
{
    const struct lhsim_kind *row = lhsim_kind_of(kind);
    const std::string bin = own_directory();
    /* Both port blocks know this error, under their own names. */
    const char *port = kind == SIM_BOARD_LHX ? "eth" : "caui";
    const unsigned last_pipe = row->pipes - 1;

    if (bin.empty())
        return;
    fprintf(to, "lhsim: try from another terminal:\n");
    for (const char *what : {"modules", "pipes"})
        fprintf(to, "lhsim:   %s/lhctl --socket %s/" LHSIM_SOCKET " %s\n",
                bin.c_str(), root, what);
    fprintf(to, "lhsim:   %s/lhctl --socket %s/" LHSIM_SOCKET " stats %s %u\n",
            bin.c_str(), root, port, last_pipe);
    for (const char *state : {"down", "up"})
        fprintf(to, "lhsim:   %s/lhsim link %s %u %s\n", bin.c_str(), root,
                last_pipe, state);
    fprintf(to,
            "lhsim:   %s/lhsim fatal %s %s %u \"TX Buffer FIFO Underflow\"\n",
            bin.c_str(), root, port, last_pipe);
    fprintf(to, "lhsim: Ctrl-C stops the program and %s the board\n",
            removed_after ? "removes" : "keeps");
}

/* The run's last line when the user stopped it. */
static void say_stopped(bool removed, const char *root)
{
    if (removed)
        fprintf(stderr, "lhsim: stopped; the board is removed\n");
    else
        fprintf(stderr, "lhsim: stopped; the board stays in %s\n", root);
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

/* Removes the directory make_root made for the board (none when --dir
 * named the board's place). */
static void remove_made_root(const struct run_options *options, char *root)
{
    if (options->dir == NULL)
        rmdir(dirname(root));
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
    pid_t pid;

    if (make_root(options->dir, root, sizeof(root)) != 0) {
        fprintf(stderr, "lhsim: cannot create the board in %s: %s\n", root,
                strerror(errno));
        return LHSIM_FAILED;
    }
    if (sim_board_create(root, options->kind, &board) != 0) {
        fprintf(stderr, "lhsim: cannot create the board in %s: %s\n", root,
                strerror(errno));
        remove_made_root(options, root);
        return LHSIM_FAILED;
    }
    snprintf(log_path, sizeof(log_path), "%s/" DAEMON_LOG,
             sim_board_path(board, SIM_PATH_LOGS));
    announce(options->kind, sim_board_path(board, SIM_PATH_ROOT), stderr);
    suggest_commands(options->kind, sim_board_path(board, SIM_PATH_ROOT),
                     !options->keep, stderr);
    pid = sim_board_spawn(board, NULL, program);
    if (pid < 0) {
        fprintf(stderr, "lhsim: cannot start %s: %s\n", program[0],
                *sim_board_last_error() ? sim_board_last_error()
                                        : strerror(errno));
        sim_board_destroy(board);
        remove_made_root(options, root);
        return LHSIM_FAILED;
    }
    const struct run_end end = follow(program[0], pid, log_path);
    if (options->keep) {
        sim_board_free(board);
    } else {
        sim_board_destroy(board);
        remove_made_root(options, root);
    }
    if (end.stopped)
        say_stopped(!options->keep, root);
    return end.status;
}

/* A board made earlier (lhsim create, or a kept run): it stays. */
static int run_existing(const struct run_options *options, char **program)
{
    char log_path[PATH_MAX + 64], root[PATH_MAX];
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
    snprintf(root, sizeof(root), "%s", board.root);
    announce(board.kind->kind, board.root, stderr);
    suggest_commands(board.kind->kind, board.root, false, stderr);
    pid = lhsim_board_spawn(&board, program);
    lhsim_board_close(&board);
    if (pid < 0) {
        fprintf(stderr, "lhsim: cannot start %s: %s\n", program[0],
                strerror(errno));
        return LHSIM_FAILED;
    }
    const struct run_end end = follow(program[0], pid, log_path);
    if (end.stopped)
        say_stopped(false, root);
    return end.status;
}

int lhsim_run(const struct lhsim_command *command, int argc, char **argv)
{
    struct run_options options;
    int program = parse_run(argc, argv, &options);
    std::string why;

    if (program < 0)
        return lhsim_usage(command);
    /* Said at once, before any board is made. */
    if (!sim_sandbox_available(&why)) {
        fprintf(stderr, "lhsim: %s\n", why.c_str());
        return LHSIM_FAILED;
    }
    TerminalForeground terminal;
    terminal.take();
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
