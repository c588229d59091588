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

#include <optional>
#include <string>
#include <vector>

#include "lhsim.hpp"

namespace lhsim {

#define TAIL_INTERVAL_US 100000
#define STOP_TIMEOUT_MS  5000
#define DAEMON_LOG       "pellin_mgr.log"

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
        return {static_cast<int>(Exit::failed), true};
    }
    const bool clean =
        (WIFEXITED(status) && WEXITSTATUS(status) == 0) ||
        (WIFSIGNALED(status) &&
         (WTERMSIG(status) == SIGTERM || WTERMSIG(status) == SIGINT));
    return {clean ? 0 : exit_status(status), true};
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
    const Kind &row = kind_of(kind);
    const std::string bin = own_directory();
    /* Both port blocks know this error, under their own names. */
    const char *port = kind == SIM_BOARD_LHX ? "eth" : "caui";
    const unsigned last_pipe = row.pipes - 1;

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

/* Where run makes its board: DIR, or a new /tmp/lhsim_XXXXXX/board. */
static bool make_root(const Args &a, std::string *root)
{
    char made[] = "/tmp/lhsim_XXXXXX";

    if (!a.dir.empty()) {
        *root = a.dir;
        return true;
    }
    *root = made;
    if (mkdtemp(made) == nullptr)
        return false;
    *root = std::string(made) + "/board";
    return true;
}

/* Removes the directory make_root made for the board (none when --dir
 * named the board's place). */
static void remove_made_root(const Args &a, const std::string &root)
{
    if (a.dir.empty())
        rmdir(root.substr(0, root.rfind('/')).c_str());
}

/* The program's words as exec takes them. */
static std::vector<char *> argv_of(const std::vector<std::string> &words)
{
    std::vector<char *> argv;

    for (const std::string &word : words)
        argv.push_back(const_cast<char *>(word.c_str()));
    argv.push_back(nullptr);
    return argv;
}

[[noreturn]] static void cannot_create(const std::string &root)
{
    throw Failure(Exit::failed, format("cannot create the board in %s: %s",
                                       root.c_str(), strerror(errno)));
}

/* A board of its own, removed afterwards unless --keep. */
static Exit run_created(const Args &a, KindId kind)
{
    std::string root;
    struct sim_board *board;

    if (!make_root(a, &root))
        cannot_create(root);
    if (sim_board_create(root.c_str(), kind, &board) != 0) {
        int error = errno;
        remove_made_root(a, root);
        errno = error;
        cannot_create(root);
    }
    const std::string log_path =
        std::string(sim_board_path(board, SIM_PATH_LOGS)) + "/" DAEMON_LOG;
    announce(kind, sim_board_path(board, SIM_PATH_ROOT), stderr);
    suggest_commands(kind, sim_board_path(board, SIM_PATH_ROOT), !a.keep,
                     stderr);
    pid_t pid = sim_board_spawn(board, nullptr, argv_of(a.program).data());
    if (pid < 0) {
        std::string why = *sim_board_last_error() ? sim_board_last_error()
                                                  : strerror(errno);
        sim_board_destroy(board);
        remove_made_root(a, root);
        throw Failure(Exit::failed, format("cannot start %s: %s",
                                           a.program[0].c_str(), why.c_str()));
    }
    const struct run_end end = follow(a.program[0].c_str(), pid, log_path.c_str());
    if (a.keep) {
        sim_board_free(board);
    } else {
        sim_board_destroy(board);
        remove_made_root(a, root);
    }
    if (end.stopped)
        say_stopped(!a.keep, root.c_str());
    return static_cast<Exit>(end.status);
}

/* A board made earlier (lhsim create, or a kept run): it stays. */
static Exit run_existing(const Args &a, std::optional<KindId> kind)
{
    std::string root, log_path;
    pid_t pid;
    {
        Board board(a.dir);

        if (kind && *kind != board.kind().kind)
            throw Failure(Exit::usage,
                          format("the board in %s is %s, not %s",
                                 board.root().c_str(),
                                 sim_board_kind_name(board.kind().kind),
                                 sim_board_kind_name(*kind)));
        root = board.root();
        log_path = root + "/" LHSIM_DAEMON_LOG;
        announce(board.kind().kind, root.c_str(), stderr);
        suggest_commands(board.kind().kind, root.c_str(), false, stderr);
        pid = board.spawn(argv_of(a.program).data());
    }
    if (pid < 0)
        throw Failure(Exit::failed, format("cannot start %s: %s",
                                           a.program[0].c_str(),
                                           strerror(errno)));
    const struct run_end end = follow(a.program[0].c_str(), pid, log_path.c_str());
    if (end.stopped)
        say_stopped(false, root.c_str());
    return static_cast<Exit>(end.status);
}

Exit run(const Args &a)
{
    std::optional<KindId> kind;
    std::string why;

    if (!a.board.empty())
        kind = parse_kind(a.board);
    /* Said at once, before any board is made. */
    if (!sim_sandbox_available(&why))
        throw Failure(Exit::failed, why);
    TerminalForeground terminal;
    terminal.take();
    catch_stop_signals();
    if (!a.dir.empty() && Board::exists(a.dir))
        return run_existing(a, kind);
    return run_created(a, kind.value_or(SIM_BOARD_BASE2));
}

Exit create(const Args &a)
{
    KindId kind = a.board.empty() ? SIM_BOARD_BASE2 : parse_kind(a.board);
    struct sim_board *board;

    if (sim_board_create(a.dir.c_str(), kind, &board) != 0)
        cannot_create(a.dir);
    announce(kind, sim_board_path(board, SIM_PATH_ROOT), stdout);
    sim_board_free(board);
    return Exit::ok;
}

static Exit wait_child(pid_t pid)
{
    int status = 0;
    pid_t done;

    do
        done = waitpid(pid, &status, 0);
    while (done < 0 && errno == EINTR);
    return done == pid ? static_cast<Exit>(exit_status(status)) : Exit::failed;
}

Exit shell(const Args &a)
{
    const char *shell = getenv("SHELL");
    std::string program = shell != nullptr && *shell != '\0' ? shell : "/bin/sh";
    pid_t pid = Board(a.dir).spawn(argv_of({program}).data());

    if (pid < 0)
        throw Failure(Exit::failed, format("cannot start %s: %s",
                                           program.c_str(), strerror(errno)));
    /* The terminal's Ctrl-C and Ctrl-\ are the shell's. */
    signal(SIGINT, SIG_IGN);
    signal(SIGQUIT, SIG_IGN);
    return wait_child(pid);
}

Exit destroy(const Args &a)
{
    Board board(a.dir);

    if (board.served())
        throw Failure(Exit::failed, format("a daemon is serving %s; stop it first",
                                           board.root().c_str()));
    if (!board.remove())
        throw Failure(Exit::failed, format("cannot remove %s: %s",
                                           board.root().c_str(), strerror(errno)));
    return Exit::ok;
}

} // namespace lhsim
