/* The sandbox: a private mount namespace in which the board is the PCI bus. */
#include "simboard.hpp"
#include "simboard_internal.hpp"
#include "owned.hpp"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <sched.h>
#include <signal.h>
#include <stddef.h>
#include <stdio.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <string>
#include <utility>

#define NELEM(a) (sizeof(a) / sizeof((a)[0]))

#define TARGET_PCI_DEVICES "/sys/bus/pci/devices"
#define TARGET_OPT         "/opt/orvel"
#define TARGET_RUN         "/run/orvel"
#define TARGET_TMP         "/tmp"
#define TARGET_DEV         "/dev"
#define TARGET_DEV_LOG     "/dev/log"

#define WAIT_STEP_MIN_MS 1
#define WAIT_STEP_MAX_MS 20

static __thread char last_error[PATH_MAX + 256];

using pellin::UniqueFd;

/* Nodes of the real /dev that the sandbox's /dev shows again. */
static const struct dev_entry {
    const char *name;
    bool dir;
    bool required;
} dev_entries[] = {
    {"null", false, true},   {"zero", false, true},    {"full", false, true},
    {"random", false, true}, {"urandom", false, true}, {"tty", false, false},
    {"pts", true, false},    {"shm", true, false},
};

static const struct dev_link {
    const char *name;
    const char *target;
} dev_links[] = {
    {"ptmx", "pts/ptmx"},          {"fd", "/proc/self/fd"},
    {"stdin", "/proc/self/fd/0"},  {"stdout", "/proc/self/fd/1"},
    {"stderr", "/proc/self/fd/2"},
};

/* Board directories, opened before any mount so none can hide another. */
enum board_src { SRC_SYS, SRC_OPT, SRC_RUN, SRC_TMP, SRC_COUNT };

static const char *const board_targets[SRC_COUNT] = {
    [SRC_SYS] = TARGET_PCI_DEVICES,
    [SRC_OPT] = TARGET_OPT,
    [SRC_RUN] = TARGET_RUN,
    [SRC_TMP] = TARGET_TMP,
};

struct sources {
    UniqueFd board[SRC_COUNT];
    UniqueFd dev[NELEM(dev_entries)];
    UniqueFd log;
};

static int fail(const char *what, const char *path)
{
    int e = errno;

    snprintf(last_error, sizeof(last_error), "%s %s: %s", what, path,
             strerror(e));
    errno = e;
    return -1;
}

const char *sim_board_last_error(void)
{
    return last_error;
}

static int write_proc(const char *path, const char *text)
{
    int fd = open(path, O_WRONLY | O_CLOEXEC);
    size_t len = strlen(text);
    ssize_t n;
    int e;

    if (fd < 0)
        return fail("open", path);
    n = write(fd, text, len);
    e = errno;
    close(fd);
    errno = e;
    if (n != (ssize_t)len)
        return fail("write", path);
    return 0;
}

/* Without CAP_SYS_ADMIN, a user namespace in which the caller is root. */
static int unshare_mounts(void)
{
    uid_t uid = getuid();
    gid_t gid = getgid();
    char map[64];

    if (unshare(CLONE_NEWNS) == 0)
        return 0;
    if (errno != EPERM)
        return fail("unshare", "(mount namespace)");
    if (unshare(CLONE_NEWUSER | CLONE_NEWNS) < 0)
        return fail("unshare", "(user and mount namespace)");
    snprintf(map, sizeof(map), "0 %u 1\n", (unsigned)uid);
    if (write_proc("/proc/self/uid_map", map) < 0 ||
        write_proc("/proc/self/setgroups", "deny") < 0)
        return -1;
    snprintf(map, sizeof(map), "0 %u 1\n", (unsigned)gid);
    return write_proc("/proc/self/gid_map", map);
}

int sim_enter_mount_namespace(void)
{
    if (unshare_mounts() < 0)
        return -1;
    if (mount(NULL, "/", NULL, MS_REC | MS_PRIVATE, NULL) < 0)
        return fail("make private", "/");
    return 0;
}

static int open_path(const char *path, UniqueFd *fd)
{
    fd->reset(open(path, O_PATH | O_CLOEXEC));
    return fd->valid() ? 0 : fail("open", path);
}

static int open_dev_sources(struct sources *s, const char *socket)
{
    char path[PATH_MAX];

    for (size_t i = 0; i < NELEM(dev_entries); i++) {
        snprintf(path, sizeof(path), "%s/%s", TARGET_DEV, dev_entries[i].name);
        if (open_path(path, &s->dev[i]) < 0 &&
            (dev_entries[i].required || errno != ENOENT))
            return -1;
    }
    return open_path(socket, &s->log);
}

static int open_sources(const struct sim_board *b,
                        const struct sim_sandbox_opts *opts, struct sources *s)
{
    const char *dirs[SRC_COUNT] = {
        [SRC_SYS] = sim_board_path(b, SIM_PATH_SYS),
        [SRC_OPT] = sim_board_path(b, SIM_PATH_OPT),
        [SRC_RUN] = sim_board_path(b, SIM_PATH_RUN),
        [SRC_TMP] = sim_board_path(b, SIM_PATH_TMP),
    };

    for (size_t i = 0; i < SRC_COUNT; i++)
        if (open_path(dirs[i], &s->board[i]) < 0)
            return -1;
    if (opts && opts->syslog_socket)
        return open_dev_sources(s, opts->syslog_socket);
    return 0;
}

static int bind_fd(int fd, const char *target)
{
    char src[64];

    snprintf(src, sizeof(src), "/proc/self/fd/%d", fd);
    if (mount(src, target, NULL, MS_BIND, NULL) < 0)
        return fail("bind mount over", target);
    return 0;
}

/*
 * A mount point that does not exist and cannot be made (read-only or not
 * ours) is made on a tmpfs over its parent, visible only in the namespace.
 */
static int ensure_dir(const char *path)
{
    char parent[PATH_MAX];
    char *slash;
    struct stat st;

    if (stat(path, &st) == 0 && S_ISDIR(st.st_mode))
        return 0;
    if (sim_mkdir_p(path, 0755) == 0)
        return 0;
    snprintf(parent, sizeof(parent), "%s", path);
    slash = strrchr(parent, '/');
    if (!slash || slash == parent)
        return fail("mkdir", path);
    *slash = '\0';
    if (mount("tmpfs", parent, "tmpfs", 0, "mode=0755") < 0)
        return fail("mount tmpfs on", parent);
    if (mkdir(path, 0755) < 0)
        return fail("mkdir", path);
    return 0;
}

static int make_file(const char *path, mode_t mode)
{
    int fd = open(path, O_WRONLY | O_CREAT | O_CLOEXEC, mode);

    if (fd < 0)
        return fail("create", path);
    close(fd);
    return 0;
}

static int dev_path(char *buf, size_t size, const char *name)
{
    int n = snprintf(buf, size, "%s/%s", TARGET_DEV, name);

    return n < 0 || (size_t)n >= size ? -1 : 0;
}

static int add_dev_entry(const struct dev_entry *d, const UniqueFd &fd)
{
    char path[PATH_MAX];

    if (!fd.valid())
        return 0;
    dev_path(path, sizeof(path), d->name);
    if (d->dir) {
        if (mkdir(path, 0755) < 0)
            return fail("mkdir", path);
    } else if (make_file(path, 0666) < 0) {
        return -1;
    }
    return bind_fd(fd.get(), path);
}

/* A fresh /dev whose "log" is the test's datagram socket. */
static int setup_dev(const struct sources *s)
{
    char path[PATH_MAX];

    if (mount("tmpfs", TARGET_DEV, "tmpfs", MS_NOSUID, "mode=0755") < 0)
        return fail("mount tmpfs on", TARGET_DEV);
    for (size_t i = 0; i < NELEM(dev_entries); i++)
        if (add_dev_entry(&dev_entries[i], s->dev[i]) < 0)
            return -1;
    for (size_t i = 0; i < NELEM(dev_links); i++) {
        dev_path(path, sizeof(path), dev_links[i].name);
        if (symlink(dev_links[i].target, path) < 0)
            return fail("symlink", path);
    }
    if (make_file(TARGET_DEV_LOG, 0666) < 0)
        return -1;
    return bind_fd(s->log.get(), TARGET_DEV_LOG);
}

static int mount_all(const struct sources *s)
{
    for (size_t i = 0; i < SRC_COUNT; i++) {
        if (ensure_dir(board_targets[i]) < 0 ||
            bind_fd(s->board[i].get(), board_targets[i]) < 0)
            return -1;
    }
    if (s->log.valid())
        return setup_dev(s);
    return 0;
}

int sim_board_enter(const struct sim_board *b,
                    const struct sim_sandbox_opts *opts)
{
    struct sources s;

    last_error[0] = '\0';
    if (!b) {
        errno = EINVAL;
        return fail("enter", "(no board)");
    }
    if (sim_enter_mount_namespace() < 0)
        return -1;
    /* A bind source must belong to the namespace doing the mount. */
    if (open_sources(b, opts, &s) < 0 || mount_all(&s) < 0)
        return -1;
    last_error[0] = '\0'; /* optional /dev entries may be absent */
    return 0;
}

/* A program named by a path is opened before the sandbox's mounts, which
 * may hide it (a build under /tmp), and run from that descriptor; a bare
 * name is looked up in PATH inside the sandbox. */
static int open_program(const char *program)
{
    if (strchr(program, '/') == NULL)
        return -1;
    return open(program, O_PATH);
}

static void exec_program(int program_fd, char *const argv[])
{
    extern char **environ;

    if (program_fd >= 0)
        fexecve(program_fd, argv, environ);
    else
        execvp(argv[0], argv);
}

/*
 * How a child tells its parent that it could not enter the sandbox: errno,
 * then the text of sim_board_last_error, on a close-on-exec pipe.  End of
 * file with nothing read means the child got as far as exec.
 */
struct child_report {
    int error;
    char text[sizeof(last_error)];
};

static void send_report(int fd)
{
    struct child_report r;
    size_t len = strlen(last_error);

    r.error = errno;
    memcpy(r.text, last_error, len);
    (void)!write(fd, &r, offsetof(struct child_report, text) + len);
}

/* True when the child sent a report; r->text is then terminated. */
static bool receive_report(int fd, struct child_report *r)
{
    char *p = reinterpret_cast<char *>(r);
    size_t room = sizeof(*r) - 1, got = 0;

    for (;;) {
        ssize_t n = read(fd, p + got, room - got);

        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0 || (got += (size_t)n) == room)
            break;
    }
    if (got < offsetof(struct child_report, text))
        return false;
    p[got] = '\0';
    return true;
}

/* The child that failed to enter the sandbox is reaped; its reason becomes
 * this thread's last error. */
static int child_failed(pid_t pid, const struct child_report *r)
{
    int status;

    while (waitpid(pid, &status, 0) < 0 && errno == EINTR)
        ;
    snprintf(last_error, sizeof(last_error), "%s", r->text);
    errno = r->error;
    return -1;
}

pid_t sim_board_spawn(const struct sim_board *b,
                      const struct sim_sandbox_opts *opts, char *const argv[])
{
    struct child_report report;
    UniqueFd report_read, report_write;
    int fds[2];
    pid_t pid;

    last_error[0] = '\0';
    if (!b || !argv || !argv[0]) {
        errno = EINVAL;
        return fail("spawn", "(no board or no program)");
    }
    if (pipe2(fds, O_CLOEXEC) < 0)
        return fail("pipe", "(spawn)");
    report_read.reset(fds[0]);
    report_write.reset(fds[1]);
    pid = fork();
    if (pid < 0)
        return fail("fork", argv[0]);
    if (pid == 0) {
        int program_fd = open_program(argv[0]);

        if (sim_board_enter(b, opts) < 0) {
            send_report(report_write.get());
            _exit(127);
        }
        exec_program(program_fd, argv);
        dprintf(STDERR_FILENO, "simboard: exec %s: %s\n", argv[0],
                strerror(errno));
        _exit(127);
    }
    report_write.reset();
    if (receive_report(report_read.get(), &report))
        return child_failed(pid, &report);
    return pid;
}

/* What the sandbox needs, tried in a child: a mount namespace of its own,
 * a tmpfs and a bind mount in it. */
static int probe_sandbox(void)
{
    if (sim_enter_mount_namespace() < 0)
        return -1;
    if (mount("tmpfs", TARGET_TMP, "tmpfs", 0, "mode=0700") < 0)
        return fail("mount tmpfs on", TARGET_TMP);
    if (mount(TARGET_TMP, TARGET_TMP, NULL, MS_BIND, NULL) < 0)
        return fail("bind mount over", TARGET_TMP);
    return 0;
}

#define SANDBOX_ADVICE                                                         \
    "run as root, or allow unprivileged user namespaces (sysctl "              \
    "kernel.unprivileged_userns_clone=1 / user.max_user_namespaces), or in a " \
    "container grant CAP_SYS_ADMIN"

bool sim_sandbox_available(std::string *why)
{
    struct child_report report;
    UniqueFd report_read, report_write;
    int fds[2];
    int status = 0;
    pid_t pid;
    bool failed;

    if (pipe2(fds, O_CLOEXEC) < 0) {
        report.error = errno;
        snprintf(report.text, sizeof(report.text), "pipe: %s",
                 strerror(report.error));
        failed = true;
    } else {
        report_read.reset(fds[0]);
        report_write.reset(fds[1]);
        pid = fork();
        if (pid == 0) {
            if (probe_sandbox() < 0) {
                send_report(report_write.get());
                _exit(1);
            }
            _exit(0);
        }
        report_write.reset();
        if (pid < 0) {
            snprintf(report.text, sizeof(report.text), "fork: %s",
                     strerror(errno));
            failed = true;
        } else {
            failed = receive_report(report_read.get(), &report);
            while (waitpid(pid, &status, 0) < 0 && errno == EINTR)
                ;
            if (!failed && !(WIFEXITED(status) && WEXITSTATUS(status) == 0)) {
                snprintf(report.text, sizeof(report.text),
                         "the probe ended with status 0x%x", status);
                failed = true;
            }
        }
    }
    if (failed && why)
        *why = std::string("the sandbox cannot be entered here: ") +
               report.text + "; " SANDBOX_ADVICE;
    return !failed;
}

static long long now_ms(void)
{
    struct timespec ts;

    clock_gettime(CLOCK_MONOTONIC, &ts);
    return (long long)ts.tv_sec * 1000 + ts.tv_nsec / 1000000;
}

static void sleep_ms(int ms)
{
    struct timespec ts = {ms / 1000, (long)(ms % 1000) * 1000000};

    nanosleep(&ts, NULL);
}

static int reap(pid_t pid, int *status)
{
    int st;
    pid_t r;

    do
        r = waitpid(pid, &st, 0);
    while (r < 0 && errno == EINTR);
    if (r < 0)
        return -1;
    if (status)
        *status = st;
    return 0;
}

int sim_wait(pid_t pid, int timeout_ms, int *status)
{
    long long deadline;
    int step = WAIT_STEP_MIN_MS;
    int st;

    if (pid <= 0 || timeout_ms < 0) {
        errno = EINVAL;
        return -1;
    }
    deadline = now_ms() + timeout_ms;
    for (;;) {
        pid_t r = waitpid(pid, &st, WNOHANG);

        if (r == pid) {
            if (status)
                *status = st;
            return 0;
        }
        if (r < 0 && errno != EINTR)
            return -1;
        if (now_ms() >= deadline)
            break;
        sleep_ms(step);
        step = step * 2 > WAIT_STEP_MAX_MS ? WAIT_STEP_MAX_MS : step * 2;
    }
    kill(pid, SIGKILL);
    reap(pid, status);
    errno = ETIMEDOUT;
    return -1;
}
