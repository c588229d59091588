/* lhsim, the simulated board as a tool: every subcommand as a user runs it,
 * and each injection reaching the real pellin_mgr, started with
 * "lhsim run" on a board made by "lhsim create" (issue 6). */
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <libgen.h>
#include <limits.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include "cmocka_all.h"
#include "file_watch.hpp"
#include "log_expect.hpp"
#include "plat_ipc.h"
#include "simboard.hpp"

#define COMMAND_TIMEOUT_MS 10000
#define START_TIMEOUT_MS   15000
#define LOG_TIMEOUT_MS     5000
#define STOP_TIMEOUT_MS    15000
#define REPLY_TIMEOUT_MS   3000
#define ARRAY_COUNT(a)     (sizeof(a) / sizeof((a)[0]))

#define DUMP_PREFIX "lark_hollow_dump__"

struct fixture {
    char parent[PATH_MAX];
    char dir[PATH_MAX + 16]; /* parent/board */
    char log[PATH_MAX + 64];
    char socket[PATH_MAX + 64];
    char run_out[PATH_MAX + 16]; /* lhsim run's standard output */
    char run_err[PATH_MAX + 16];
    char out[PATH_MAX + 16]; /* the last command's */
    char err[PATH_MAX + 16];
    char *out_text;
    char *err_text;
    pid_t run_pid;
};

static struct fixture f;

static void wait_for_count(const char *path, const char *text, int count)
{
    long long start = now_ms();

    while (count_in(path, text) < count) {
        if (now_ms() - start > LOG_TIMEOUT_MS)
            fail_msg("\"%s\" not %d times in %s after %d ms", text, count, path,
                     LOG_TIMEOUT_MS);
        usleep(20000);
    }
}

static int setup(void **state)
{
    (void)state;
    memset(&f, 0, sizeof(f));
    strcpy(f.parent, "/tmp/lhsim_test_XXXXXX");
    assert_non_null(mkdtemp(f.parent));
    snprintf(f.dir, sizeof(f.dir), "%s/board", f.parent);
    snprintf(f.log, sizeof(f.log), "%s/opt/platform/logs/pellin_mgr.log",
             f.dir);
    snprintf(f.socket, sizeof(f.socket), "%s/run/ipc/219.sock", f.dir);
    snprintf(f.run_out, sizeof(f.run_out), "%s/run.out", f.parent);
    snprintf(f.run_err, sizeof(f.run_err), "%s/run.err", f.parent);
    snprintf(f.out, sizeof(f.out), "%s/cmd.out", f.parent);
    snprintf(f.err, sizeof(f.err), "%s/cmd.err", f.parent);
    return 0;
}

static void stop_run_quietly(void)
{
    if (f.run_pid <= 0)
        return;
    kill(f.run_pid, SIGINT);
    sim_wait(f.run_pid, STOP_TIMEOUT_MS, NULL);
    f.run_pid = 0;
}

static int teardown(void **state)
{
    char command[PATH_MAX + 16];

    (void)state;
    stop_run_quietly();
    free(f.out_text);
    free(f.err_text);
    snprintf(command, sizeof(command), "rm -rf %s", f.parent);
    assert_int_equal(system(command), 0);
    return 0;
}

static void redirect(const char *path, int fd, int flags)
{
    int opened = open(path, flags, 0644);

    if (opened < 0 || dup2(opened, fd) < 0)
        _exit(126);
    close(opened);
}

/* Where the daemon's "keeper_svc" is found, inside the sandbox too. */
static void put_keeper_on_path(void)
{
    char keeper[] = KEEPER_SVC_PATH;
    char path[PATH_MAX * 2];

    snprintf(path, sizeof(path), "%s:%s", dirname(keeper), getenv("PATH"));
    setenv("PATH", path, 1);
}

static pid_t spawn_lhsim(const char *const *args, const char *input,
                         const char *out, const char *err)
{
    const char *argv[24] = {"lhsim"};
    size_t n = 1;
    pid_t pid;

    for (; args[n - 1] != NULL && n < ARRAY_COUNT(argv) - 1; n++)
        argv[n] = args[n - 1];
    argv[n] = NULL;
    fflush(NULL);
    pid = fork();
    assert_true(pid >= 0);
    if (pid > 0)
        return pid;
    redirect(input != NULL ? input : "/dev/null", STDIN_FILENO, O_RDONLY);
    redirect(out, STDOUT_FILENO, O_WRONLY | O_CREAT | O_TRUNC);
    redirect(err, STDERR_FILENO, O_WRONLY | O_CREAT | O_TRUNC);
    put_keeper_on_path();
    execv(LHSIM_PATH, (char *const *)argv);
    _exit(127);
}

/* Runs lhsim to its end; its output is in f.out_text and f.err_text. */
static int lhsim_with_input(const char *input, const char *const *args)
{
    int status = 0;
    pid_t pid = spawn_lhsim(args, input, f.out, f.err);

    assert_int_equal(sim_wait(pid, COMMAND_TIMEOUT_MS, &status), 0);
    free(f.out_text);
    free(f.err_text);
    f.out_text = file_text(f.out);
    f.err_text = file_text(f.err);
    assert_true(WIFEXITED(status));
    return WEXITSTATUS(status);
}

#define LHSIM(...)                                                             \
    lhsim_with_input(NULL, (const char *const[]){__VA_ARGS__, NULL})

static uint32_t peek(const char *offset)
{
    unsigned value = 0;

    assert_int_equal(LHSIM("peek", f.dir, offset), 0);
    assert_int_equal(sscanf(f.out_text, "0x%x", &value), 1);
    return value;
}

static void assert_err_has(const char *text)
{
    if (strstr(f.err_text, text) == NULL)
        fail_msg("\"%s\" not in: %s", text, f.err_text);
}

static void create_board(const char *kind)
{
    assert_int_equal(LHSIM("create", "--board", kind, f.dir), 0);
}

static void start_run(const char *const *args)
{
    unlink(f.run_err); /* only this run's banner counts */
    f.run_pid = spawn_lhsim(args, NULL, f.run_out, f.run_err);
}

static struct ipc_client *connect_client(void)
{
    struct ipc_client *client = NULL;
    long long start = now_ms();

    while (ipc_client_open(f.socket, &client) != 0) {
        if (waitpid(f.run_pid, NULL, WNOHANG) == f.run_pid) {
            f.run_pid = 0;
            fail_msg("lhsim run ended: %s", file_text(f.run_err));
        }
        if (now_ms() - start > START_TIMEOUT_MS)
            fail_msg("no daemon socket at %s", f.socket);
        usleep(20000);
    }
    return client;
}

/* The daemon on the board in f.dir, up with its pipes reported. */
static void start_daemon(void)
{
    const char *const args[] = {"run", "--dir",         f.dir,
                                "--",  PELLIN_MGR_PATH, NULL};
    int before = count_in(f.log, "Informational - traffic pipe 0 is ");

    start_run(args);
    ipc_client_close(connect_client());
    wait_for_count(f.log, "Informational - traffic pipe 0 is ", before + 1);
}

static int stop_run(void)
{
    int status = 0;

    assert_int_equal(kill(f.run_pid, SIGINT), 0);
    assert_int_equal(sim_wait(f.run_pid, STOP_TIMEOUT_MS, &status), 0);
    f.run_pid = 0;
    if (!WIFEXITED(status))
        fail_msg("lhsim run ended by signal %d", WTERMSIG(status));
    return WEXITSTATUS(status);
}

static void assert_nothing_mounted(const char *dir)
{
    char *mounts = file_text("/proc/self/mountinfo");

    if (strstr(mounts, dir) != NULL)
        fail_msg("%s is still mounted: %s", dir, mounts);
    free(mounts);
}

static int count_dumps(void)
{
    char logs[sizeof(f.dir) + 32];
    struct dirent *entry;
    int count = 0;
    DIR *d;

    snprintf(logs, sizeof(logs), "%s/opt/platform/logs", f.dir);
    d = opendir(logs);
    assert_non_null(d);
    while ((entry = readdir(d)) != NULL)
        count += strncmp(entry->d_name, DUMP_PREFIX, strlen(DUMP_PREFIX)) == 0;
    closedir(d);
    return count;
}

static int is_empty_dir(const char *path)
{
    DIR *d = opendir(path);
    struct dirent *entry;
    int empty = 1;

    assert_non_null(d);
    while ((entry = readdir(d)) != NULL)
        if (strcmp(entry->d_name, ".") != 0 && strcmp(entry->d_name, "..") != 0)
            empty = 0;
    closedir(d);
    return empty;
}

/* --- Without a daemon ------------------------------------------------- */

static void test_errors_lists_caui_in_test_order(void **state)
{
    static const char expected[] =
        "0x0800  9 TX Buffer FIFO Underflow\n"
        "0x0800  8 RX Buffer FIFO Underflow\n"
        "0x0800  7 CAUI RX LBus Multiple SOP error\n"
        "0x0800  6 TX Buffer FIFO Double bit ECC error\n"
        "0x0800  5 TX Buffer FIFO Overflow\n"
        "0x0800  4 RX Buffer FIFO Double bit ECC error\n"
        "0x0800  3 RX Buffer FIFO Overflow\n"
        "0x0800  2 CAUI IP TX Overflow\n"
        "0x0800  1 CAUI IP TX Underflow\n";

    (void)state;
    assert_int_equal(LHSIM("errors", "caui"), 0);
    assert_string_equal(f.out_text, expected);
    assert_int_equal(LHSIM("errors", "3"), 0);
    assert_string_equal(f.out_text, expected);
    assert_int_equal(LHSIM("errors", "nosuch"), 2);
    assert_err_has("no module \"nosuch\"");
    assert_int_equal(LHSIM("errors", "15"), 2);
}

static void test_usage_errors_exit_2(void **state)
{
    static const char *const cases[][8] = {
        {NULL},
        {"bogus", NULL},
        {"create", NULL},
        {"create", "--board", "base3", "DIR", NULL},
        {"create", "DIR", "extra", NULL},
        {"run", "--dir", "DIR", NULL},
        {"run", "--speed", "--", "/bin/true", NULL},
        {"shell", NULL},
        {"destroy", "DIR", "extra", NULL},
        {"fatal", "DIR", "caui", "1", NULL},
        {"fatal", "DIR", "caui", "1", "--bit", "32", NULL},
        {"fatal", "DIR", "caui", "one", "--bit", "9", NULL},
        {"fatal", "DIR", "caui", "1", "--bit", "9", "text", NULL},
        {"clear-fatal", "DIR", "caui", NULL},
        {"link", "DIR", "1", "sideways", NULL},
        {"link", "DIR", "-1", "up", NULL},
        {"counter", "DIR", "caui", "0", "1", NULL},
        {"counter", "DIR", "caui", "0", "1", "lots", NULL},
        {"peek", "DIR", NULL},
        {"peek", "DIR", "0x1g", NULL},
        {"poke", "DIR", "0", NULL},
        {"poke", "DIR", "0", "0x100000000", NULL},
        {"errors", NULL},
    };

    (void)state;
    for (size_t i = 0; i < ARRAY_COUNT(cases); i++) {
        const char *args[9] = {NULL};

        for (size_t j = 0; cases[i][j] != NULL; j++)
            args[j] = strcmp(cases[i][j], "DIR") == 0 ? f.dir : cases[i][j];
        if (lhsim_with_input(NULL, args) != 2)
            fail_msg("case %zu (%s) did not exit 2", i,
                     args[0] ? args[0] : "none");
        assert_err_has("usage: lhsim ");
    }
}

/* Every command on a board directory says so when there is none. */
static void test_missing_or_non_board_dir_exits_1(void **state)
{
    static const char *const cases[][6] = {
        {"shell", "DIR", NULL},
        {"destroy", "DIR", NULL},
        {"fatal", "DIR", "caui", "0", "--bit", "9"},
        {"clear-fatal", "DIR", "caui", "0", NULL},
        {"link", "DIR", "0", "down", NULL},
        {"counter", "DIR", "caui", "0", "0", "1"},
        {"peek", "DIR", "0", NULL},
        {"poke", "DIR", "0", "1", NULL},
    };
    char missing[PATH_MAX + 16];

    (void)state;
    snprintf(missing, sizeof(missing), "%s/none", f.parent);
    for (size_t i = 0; i < ARRAY_COUNT(cases); i++) {
        const char *args[7] = {NULL};

        for (size_t j = 0; j < 6 && cases[i][j] != NULL; j++)
            args[j] = strcmp(cases[i][j], "DIR") == 0 ? f.parent : cases[i][j];
        assert_int_equal(lhsim_with_input(NULL, args), 1);
        assert_err_has(": not a simulated board");
        args[1] = missing;
        assert_int_equal(lhsim_with_input(NULL, args), 1);
        assert_err_has(": no such directory");
    }
}

static void test_create_and_destroy_leave_nothing(void **state)
{
    static const struct {
        const char *kind;
        const char *window;
        const char *device;
    } kinds[] = {
        {"base2", "resource0", "0x01d7"},
        {"base1", "resource0", "0x01d7"},
        {"lhx", "resource2", "0x01d9"},
    };
    char path[PATH_MAX * 2];

    (void)state;
    for (size_t i = 0; i < ARRAY_COUNT(kinds); i++) {
        create_board(kinds[i].kind);
        assert_non_null(strstr(f.out_text, kinds[i].kind));
        assert_non_null(strstr(f.out_text, "/run/ipc/219.sock"));
        snprintf(path, sizeof(path), "%s/sys/0000:03:00.0/%s", f.dir,
                 kinds[i].window);
        assert_int_equal(access(path, R_OK | W_OK), 0);
        snprintf(path, sizeof(path), "%s/sys/0000:03:00.0/device", f.dir);
        assert_int_equal(count_in(path, kinds[i].device), 1);
        assert_int_equal(LHSIM("create", f.dir), 1); /* not empty now */
        assert_int_equal(LHSIM("destroy", f.dir), 0);
        assert_int_equal(access(f.dir, F_OK), -1);
    }
    unlink(f.out);
    unlink(f.err);
    assert_true(is_empty_dir(f.parent));
}

static void test_peek_and_poke_any_word(void **state)
{
    (void)state;
    create_board("base2");
    assert_int_equal(peek("0x000"), 0x00010203);
    assert_int_equal(peek("0x10"), 0x24031510);
    assert_int_equal(peek("0x2A100"), 0xDEADBEEF); /* no block there */
    assert_int_equal(peek("0x3fffc"), 0xDEADBEEF);
    assert_int_equal(LHSIM("poke", f.dir, "0x2A0FC", "0x12345678"), 0);
    assert_int_equal(peek("0x2A0FC"), 0x12345678);
    assert_int_equal(LHSIM("poke", f.dir, "4", "305419896"), 0);
    assert_int_equal(peek("4"), 305419896);
    assert_int_equal(LHSIM("peek", f.dir, "0x2"), 2);
    assert_int_equal(LHSIM("peek", f.dir, "0x40000"), 2);
    assert_err_has("not a word of the 0x40000-byte window");
    assert_int_equal(LHSIM("destroy", f.dir), 0);
    create_board("lhx");
    assert_int_equal(peek("0"), 0x00010203);
    assert_int_equal(peek("0x1fffc"), 0xDEADBEEF);
    assert_int_equal(LHSIM("poke", f.dir, "0x20000", "1"), 2);
}

/* Each injection sets exactly the register and bit the driver tests. */
static void test_injections_land_where_the_driver_looks(void **state)
{
    (void)state;
    create_board("base2");
    assert_int_equal(
        LHSIM("fatal", f.dir, "caui", "1", "TX Buffer FIFO Underflow"), 0);
    assert_string_equal(f.out_text, "CAUI pipe 1: 0x20800 bit 9 set (TX "
                                    "Buffer FIFO Underflow)\n");
    assert_int_equal(peek("0x20800"), 1u << 9);
    assert_int_equal(LHSIM("clear-fatal", f.dir, "caui", "1"), 0);
    assert_int_equal(peek("0x20800"), 0);
    /* A repeated text takes its first row; --bit picks exactly. */
    assert_int_equal(LHSIM("fatal", f.dir, "ingress-pkt-classifier", "0",
                           "Reorder FIFO Underflow"),
                     0);
    assert_int_equal(peek("0x17700"), 1u << 6);
    assert_int_equal(LHSIM("fatal", f.dir, "6", "0", "--bit", "0x700:4"), 0);
    assert_int_equal(peek("0x17700"), 1u << 6 | 1u << 4);
    assert_int_equal(LHSIM("fatal", f.dir, "6", "0", "--bit", "4"), 2);
    assert_err_has("bit 4 is in more than one register: 0x0 0x200 0x700");
    assert_int_equal(LHSIM("clear-fatal", f.dir, "6", "0"), 0);
    assert_int_equal(peek("0x17700"), 0);
    assert_int_equal(LHSIM("fatal", f.dir, "global", "0", "--bit", "1"), 2);
    assert_err_has("bit 1 is in more than one register: 0x100 0x140 0x180");
    assert_int_equal(LHSIM("fatal", f.dir, "global", "0", "--bit", "0x140:1"),
                     0);
    assert_int_equal(peek("0x140"), 1u << 1);
    /* The link: bit 24 of the CAUI port status. */
    assert_int_equal(LHSIM("link", f.dir, "1", "down"), 0);
    assert_int_equal(peek("0x20824"), 0);
    assert_int_equal(LHSIM("link", f.dir, "1", "up"), 0);
    assert_int_equal(peek("0x20824"), 1u << 24);
    /* MAC counters: low word first; wrapper counters: high word first. */
    assert_int_equal(LHSIM("counter", f.dir, "caui", "0", "0", "0x500000009"),
                     0);
    assert_int_equal(peek("0x10500"), 9);
    assert_int_equal(peek("0x10504"), 5);
    assert_int_equal(LHSIM("counter", f.dir, "caui", "1", "25", "0x300000007"),
                     0);
    assert_int_equal(peek("0x20850"), 3);
    assert_int_equal(peek("0x20854"), 7);
    assert_int_equal(LHSIM("counter", f.dir, "caui", "1", "26", "0xffffffff"),
                     0);
    assert_int_equal(peek("0x20858"), 0xffffffff);
}

static void test_eth_on_lhx(void **state)
{
    (void)state;
    create_board("lhx");
    assert_int_equal(LHSIM("link", f.dir, "0", "down"), 0);
    assert_string_equal(f.out_text,
                        "Eth pipe 0: link down (0x11024 bit 3 clear)\n");
    assert_int_equal(peek("0x11024"), 0);
    assert_int_equal(LHSIM("link", f.dir, "0", "up"), 0);
    assert_int_equal(peek("0x11024"), 1u << 3);
    assert_int_equal(LHSIM("fatal", f.dir, "eth", "0", "--bit", "0"), 0);
    assert_int_equal(peek("0x11000"), 1);
    assert_int_equal(LHSIM("counter", f.dir, "eth", "0", "68", "0x100000002"),
                     0);
    assert_int_equal(peek("0x11050"), 1);
    assert_int_equal(peek("0x11054"), 2);
}

/* Targets the board does not have are refused, exit 2, nothing written. */
static void test_targets_the_board_lacks_are_refused(void **state)
{
    static const struct {
        const char *kind;
        const char *args[7];
        const char *message;
    } cases[] = {
        {"lhx",
         {"fatal", "DIR", "caui", "0", "--bit", "9"},
         "of the base image"},
        {"base2",
         {"fatal", "DIR", "eth", "0", "--bit", "2"},
         "of the LHX image"},
        {"base1",
         {"fatal", "DIR", "caui", "1", "--bit", "9"},
         "no caui pipe 1"},
        {"base2",
         {"fatal", "DIR", "global", "1", "--bit", "1"},
         "no global pipe 1"},
        {"lhx", {"link", "DIR", "1", "down"}, "no eth pipe 1"},
        {"base1", {"link", "DIR", "1", "down"}, "no caui pipe 1"},
        {"base2",
         {"fatal", "DIR", "caui", "0", "No Such Error"},
         "caui has no fatal error \"No Such Error\""},
        {"base2",
         {"fatal", "DIR", "caui", "0", "--bit", "0"},
         "no fatal error at bit 0"},
        {"base2", {"counter", "DIR", "caui", "0", "32", "1"}, "no counter 32"},
        {"base2",
         {"counter", "DIR", "caui", "0", "26", "0x100000000"},
         "is 32-bit"},
        {"base2", {"counter", "DIR", "ddr4", "0", "0", "1"}, "no counter 0"},
        {"base2", {"clear-fatal", "DIR", "nosuch", "0"}, "no module"},
    };

    (void)state;
    for (size_t i = 0; i < ARRAY_COUNT(cases); i++) {
        const char *args[8] = {NULL};

        create_board(cases[i].kind);
        for (size_t j = 0; cases[i].args[j] != NULL; j++)
            args[j] =
                strcmp(cases[i].args[j], "DIR") == 0 ? f.dir : cases[i].args[j];
        if (lhsim_with_input(NULL, args) != 2)
            fail_msg("case %zu did not exit 2", i);
        assert_err_has(cases[i].message);
        assert_int_equal(LHSIM("destroy", f.dir), 0);
    }
}

static void test_shell_runs_in_the_sandbox(void **state)
{
    char input[PATH_MAX + 16];
    FILE *script;

    (void)state;
    create_board("lhx");
    snprintf(input, sizeof(input), "%s/script", f.parent);
    script = fopen(input, "w");
    assert_non_null(script);
    fputs("cat /sys/bus/pci/devices/0000:03:00.0/device\n"
          "ls /opt/orvel\n"
          "exit 7\n",
          script);
    fclose(script);
    setenv("SHELL", "/bin/sh", 1);
    assert_int_equal(
        lhsim_with_input(input, (const char *const[]){"shell", f.dir, NULL}),
        7);
    assert_string_equal(f.out_text, "0x01d9\nplatform\n");
    assert_nothing_mounted(f.dir);
}

/* --- With the daemon -------------------------------------------------- */

static void test_fatal_error_reaches_the_daemon(void **state)
{
    (void)state;
    create_board("base2");
    start_daemon();
    assert_int_equal(
        LHSIM("fatal", f.dir, "caui", "1", "TX Buffer FIFO Underflow"), 0);
    wait_for_text(f.log, ": FATAL - Pellin FAILED\n", LOG_TIMEOUT_MS);
    assert_int_equal(
        count_in(f.log, ": FATAL - CAUI pipe 1: TX Buffer FIFO Underflow\n"),
        1);
    assert_int_equal(count_in(f.log, ": NPU fatal error handler: caui pipe 1 "
                                     "(TX Buffer FIFO Underflow)\n"),
                     1);
    assert_int_equal(count_dumps(), 1);
    /* Another block, by bit. */
    assert_int_equal(
        LHSIM("fatal", f.dir, "ingress-pkt-parser", "0", "--bit", "16"), 0);
    wait_for_text(f.log,
                  ": NPU fatal error handler: ingress-pkt-parser pipe 0 "
                  "(Meta Data FIFO Parity Error)\n",
                  LOG_TIMEOUT_MS);
    assert_int_equal(count_in(f.log, "Pellin FAILED"), 1);
    /* lhsim run streamed the log as it grew. */
    wait_for_text(f.run_out, ": FATAL - Pellin FAILED\n", LOG_TIMEOUT_MS);
    assert_int_equal(LHSIM("destroy", f.dir), 1);
    assert_err_has("a daemon is serving");
    stop_run();
    assert_nothing_mounted(f.dir);
    assert_int_equal(access(f.dir, F_OK), 0); /* made by create: it stays */
}

/* After clear-fatal, a later daemon on the same board sees it healthy. */
static void test_cleared_board_is_healthy_for_a_later_daemon(void **state)
{
    (void)state;
    create_board("base2");
    assert_int_equal(LHSIM("fatal", f.dir, "caui", "0", "--bit", "5"), 0);
    start_daemon();
    wait_for_text(f.log, ": FATAL - Pellin FAILED\n", LOG_TIMEOUT_MS);
    stop_run();
    assert_int_equal(LHSIM("clear-fatal", f.dir, "caui", "0"), 0);
    start_daemon();
    usleep(1500000); /* three poll cycles */
    assert_int_equal(count_in(f.log, "FATAL"), 2);
    assert_int_equal(count_in(f.log, "Informational - traffic pipe 0 is UP"),
                     2);
    assert_int_equal(count_dumps(), 1);
    stop_run();
    assert_int_equal(LHSIM("destroy", f.dir), 0);
    assert_int_equal(access(f.dir, F_OK), -1);
}

static void test_link_change_is_seen_by_the_daemon_poll(void **state)
{
    (void)state;
    create_board("base2");
    start_daemon();
    assert_int_equal(LHSIM("link", f.dir, "1", "down"), 0);
    wait_for_text(f.log, ": Informational - traffic pipe 1 changed to DOWN\n",
                  LOG_TIMEOUT_MS);
    assert_int_equal(LHSIM("link", f.dir, "1", "up"), 0);
    wait_for_text(f.log, ": Informational - traffic pipe 1 changed to UP\n",
                  LOG_TIMEOUT_MS);
    assert_int_equal(count_in(f.log, "traffic pipe 0 changed"), 0);
}

/* The statistics record of a block, from the daemon (op 0xdb0006). */
static uint64_t daemon_counter(uint32_t module, uint32_t pipe, size_t index)
{
    const uint32_t words[4] = {module, pipe, 0, 0};
    ipc_msg_t request = {
        .op_id = 0xdb0006,
        .msg_type = 1,
        .payload_len = sizeof(words),
        .payload = (void *)words,
    };
    ipc_msg_t reply;
    struct ipc_client *client = connect_client();
    uint64_t value;

    assert_int_equal(ipc_client_send(client, &request), 0);
    assert_int_equal(ipc_client_recv(client, &reply, REPLY_TIMEOUT_MS), 0);
    ipc_client_close(client);
    assert_int_equal(reply.op_id, 0xdb0006);
    assert_true(reply.payload_len >= 16 + 8 * (index + 1));
    memcpy(&value, (uint8_t *)reply.payload + 16 + 8 * index, sizeof(value));
    free(reply.payload);
    return value;
}

static void wait_counter_nonzero(uint32_t module, uint32_t pipe, size_t index)
{
    long long start = now_ms();

    while (daemon_counter(module, pipe, index) == 0) {
        if (now_ms() - start > LOG_TIMEOUT_MS)
            fail_msg("counter %zu of module %u pipe %u stayed 0", index, module,
                     pipe);
        usleep(50000);
    }
}

/* The window's counters are counts since the last snapshot and reads have
 * no side effect, so every poll adds VALUE again (host.md 4): the daemon's
 * sum is a whole multiple of it, which only the right high/low split
 * gives. The value is written while the link is down, when the driver
 * reads no counter, so that no poll sees half of it. */
static void test_counter_reaches_the_daemon_statistics(void **state)
{
    const uint64_t value = 0x300000007ull;
    uint64_t sum;

    (void)state;
    create_board("base2");
    start_daemon();
    assert_int_equal(daemon_counter(3, 1, 25), 0);
    assert_int_equal(LHSIM("link", f.dir, "1", "down"), 0);
    wait_for_text(f.log, "traffic pipe 1 changed to DOWN\n", LOG_TIMEOUT_MS);
    assert_int_equal(LHSIM("counter", f.dir, "caui", "1", "25", "0x300000007"),
                     0);
    assert_int_equal(LHSIM("link", f.dir, "1", "up"), 0);
    wait_counter_nonzero(3, 1, 25);
    assert_int_equal(LHSIM("link", f.dir, "1", "down"), 0);
    wait_for_count(f.log, "traffic pipe 1 changed to DOWN\n", 2);
    sum = daemon_counter(3, 1, 25);
    assert_int_equal(sum % value, 0);
    assert_true(sum / value >= 1 && sum / value < 100);
    assert_int_equal(daemon_counter(3, 0, 25), 0);
    /* A 32-bit counter of another block. */
    assert_int_equal(
        LHSIM("counter", f.dir, "ingress-pkt-parser", "0", "1", "0x2a"), 0);
    wait_counter_nonzero(5, 0, 1);
    assert_int_equal(daemon_counter(5, 0, 1) % 0x2a, 0);
}

static void wait_banner(char *root, size_t size)
{
    long long start = now_ms();
    char *text, *at, *end;

    while ((at = strstr(text = file_text(f.run_err), " board in ")) == NULL ||
           strstr(at, "; socket ") == NULL) {
        free(text);
        if (now_ms() - start > START_TIMEOUT_MS)
            fail_msg("no banner from lhsim run");
        usleep(20000);
    }
    at += strlen(" board in ");
    end = strstr(at, "; socket ");
    snprintf(root, size, "%.*s", (int)(end - at), at);
    free(text);
}

/* A board made by the run goes with it, unless --keep; nothing stays
 * mounted. */
static void test_sigint_stops_run_and_removes_its_board(void **state)
{
    const char *const fresh[] = {"run", "--board",       "base1",
                                 "--",  PELLIN_MGR_PATH, NULL};
    const char *const kept[] = {"run", "--dir",         f.dir, "--keep",
                                "--",  PELLIN_MGR_PATH, NULL};
    char root[PATH_MAX];

    (void)state;
    start_run(fresh);
    wait_banner(root, sizeof(root));
    snprintf(f.socket, sizeof(f.socket), "%s/run/ipc/219.sock", root);
    ipc_client_close(connect_client());
    stop_run();
    assert_int_equal(access(root, F_OK), -1);
    assert_int_equal(access(dirname(root), F_OK), -1); /* /tmp/lhsim_XXXXXX */
    assert_nothing_mounted(root);

    snprintf(f.socket, sizeof(f.socket), "%s/run/ipc/219.sock", f.dir);
    start_run(kept);
    ipc_client_close(connect_client());
    stop_run();
    assert_nothing_mounted(f.dir);
    assert_int_equal(peek("0"), 0x00010203); /* kept, still a board */
    assert_int_equal(count_in(f.log, "Found 2 traffic pipes"), 1);
}

/* A board made in --dir by the run goes too; one made before stays. */
static void test_run_removes_only_the_board_it_made(void **state)
{
    char made[PATH_MAX + 16];
    const char *const in_dir[] = {"run",        "--dir", made, "--",
                                  "/bin/sleep", "30",    NULL};
    const char *const in_board[] = {"run",        "--dir", f.dir, "--",
                                    "/bin/sleep", "30",    NULL};

    (void)state;
    snprintf(made, sizeof(made), "%s/made", f.parent);
    start_run(in_dir);
    wait_for_text(f.run_err, "; socket ", LOG_TIMEOUT_MS);
    assert_int_equal(stop_run(), 128 + SIGTERM);
    assert_int_equal(access(made, F_OK), -1);
    assert_nothing_mounted(made);
    create_board("base1");
    start_run(in_board);
    wait_for_text(f.run_err, "; socket ", LOG_TIMEOUT_MS);
    assert_int_equal(stop_run(), 128 + SIGTERM);
    assert_nothing_mounted(f.dir);
    assert_int_equal(peek("0"), 0x00010203);
}

static void test_run_keeps_the_kind_of_an_existing_board(void **state)
{
    const char *const args[] = {"run", "--board", "base2",     "--dir",
                                f.dir, "--",      "/bin/true", NULL};
    const char *const lhx[] = {"run", "--board", "lhx",       "--dir",
                               f.dir, "--",      "/bin/true", NULL};

    (void)state;
    create_board("lhx");
    assert_int_equal(lhsim_with_input(NULL, args), 2);
    assert_err_has("is lhx, not base2");
    assert_int_equal(lhsim_with_input(NULL, lhx), 0);
    assert_int_equal(access(f.dir, F_OK), 0);
}

int main(void)
{
#define T(name) cmocka_unit_test_setup_teardown(name, setup, teardown)
    const struct CMUnitTest tests[] = {
        T(test_errors_lists_caui_in_test_order),
        T(test_usage_errors_exit_2),
        T(test_missing_or_non_board_dir_exits_1),
        T(test_create_and_destroy_leave_nothing),
        T(test_peek_and_poke_any_word),
        T(test_injections_land_where_the_driver_looks),
        T(test_eth_on_lhx),
        T(test_targets_the_board_lacks_are_refused),
        T(test_shell_runs_in_the_sandbox),
        T(test_fatal_error_reaches_the_daemon),
        T(test_cleared_board_is_healthy_for_a_later_daemon),
        T(test_link_change_is_seen_by_the_daemon_poll),
        T(test_counter_reaches_the_daemon_statistics),
        T(test_sigint_stops_run_and_removes_its_board),
        T(test_run_removes_only_the_board_it_made),
        T(test_run_keeps_the_kind_of_an_existing_board),
    };

    signal(SIGPIPE, SIG_IGN);
    return cmocka_run_group_tests(tests, NULL, NULL);
}
