/* The sandbox: a private mount namespace in which the board is the PCI bus. */
#ifndef _GNU_SOURCE
#endif

#include "simboard.hpp"
#include "simboard_internal.hpp"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <sched.h>
#include <signal.h>
#include <stdbool.h>
#include <stdio.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

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
    int board[SRC_COUNT];
    int dev[NELEM(dev_entries)];
    int log;
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

static int open_path(const char *path, int *fd)
{
    *fd = open(path, O_PATH | O_CLOEXEC);
    return *fd < 0 ? fail("open", path) : 0;
}

static void close_sources(struct sources *s)
{
    for (size_t i = 0; i < SRC_COUNT; i++)
        if (s->board[i] >= 0)
            close(s->board[i]);
    for (size_t i = 0; i < NELEM(dev_entries); i++)
        if (s->dev[i] >= 0)
            close(s->dev[i]);
    if (s->log >= 0)
        close(s->log);
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

static int add_dev_entry(const struct dev_entry *d, int fd)
{
    char path[PATH_MAX];

    if (fd < 0)
        return 0;
    dev_path(path, sizeof(path), d->name);
    if (d->dir) {
        if (mkdir(path, 0755) < 0)
            return fail("mkdir", path);
    } else if (make_file(path, 0666) < 0) {
        return -1;
    }
    return bind_fd(fd, path);
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
    return bind_fd(s->log, TARGET_DEV_LOG);
}

static int mount_all(const struct sources *s)
{
    for (size_t i = 0; i < SRC_COUNT; i++) {
        if (ensure_dir(board_targets[i]) < 0 ||
            bind_fd(s->board[i], board_targets[i]) < 0)
            return -1;
    }
    if (s->log >= 0)
        return setup_dev(s);
    return 0;
}

int sim_board_enter(const struct sim_board *b,
                    const struct sim_sandbox_opts *opts)
{
    struct sources s;
    int rc, e;

    last_error[0] = '\0';
    if (!b) {
        errno = EINVAL;
        return fail("enter", "(no board)");
    }
    memset(&s, -1, sizeof(s));
    if (sim_enter_mount_namespace() < 0)
        return -1;
    /* A bind source must belong to the namespace doing the mount. */
    rc = open_sources(b, opts, &s);
    if (rc == 0)
        rc = mount_all(&s);
    e = errno;
    close_sources(&s);
    if (rc == 0)
        last_error[0] = '\0'; /* optional /dev entries may be absent */
    errno = e;
    return rc;
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

pid_t sim_board_spawn(const struct sim_board *b,
                      const struct sim_sandbox_opts *opts, char *const argv[])
{
    int program_fd;
    pid_t pid;

    if (!b || !argv || !argv[0]) {
        errno = EINVAL;
        return -1;
    }
    pid = fork();
    if (pid != 0)
        return pid;
    program_fd = open_program(argv[0]);
    if (sim_board_enter(b, opts) < 0) {
        dprintf(STDERR_FILENO, "simboard: sandbox: %s\n", last_error);
        _exit(127);
    }
    exec_program(program_fd, argv);
    dprintf(STDERR_FILENO, "simboard: exec %s: %s\n", argv[0], strerror(errno));
    _exit(127);
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
