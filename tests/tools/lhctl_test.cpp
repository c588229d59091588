/* lhctl against the real pellin_mgr on simulated boards: every command in
 * text and JSON, the counters named by their register sources, the
 * Prometheus exposition and every exit code. lhctl runs as a child
 * process outside the sandbox and reaches the daemon through --socket. */
#include <errno.h>
#include <fcntl.h>
#include <grp.h>
#include <inttypes.h>
#include <limits.h>
#include <poll.h>
#include <signal.h>
#include <stdbool.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include "cmocka_all.h"
#include "file_watch.hpp"
#include "log_expect.hpp"
#include "plat_ipc.h"
#include "simboard.hpp"

#define START_TIMEOUT_MS 10000
#define RUN_TIMEOUT_MS   10000
#define REPLY_TIMEOUT_MS 3000
#define POLL_WAIT_MS     3000  /* several 500 ms poll cycles of the daemon */
#define NOBODY           65534 /* uid of nobody, gid of nogroup */
#define MAX_ARGS         16
#define ARRAY_COUNT(a)   (sizeof(a) / sizeof((a)[0]))

#define OP_GET_STATS 0xdb0006u
#define MOD_CAUI     3u
#define MOD_LHX_NIC  12u

#define USAGE_PREFIX                                                           \
    "usage: lhctl [--socket PATH] [--timeout SECONDS] [--json] "
#define NO_SOCKET "/nonexistent/lhctl.sock"

struct daemon {
    struct sim_board *board;
    char parent[PATH_MAX];
    char socket_path[PATH_MAX + 32];
    char out_path[PATH_MAX + 32];
    pid_t pid;
};

struct run {
    int status; /* the exit code, -1 when killed */
    char *out;
    char *err;
};

#define SCRATCH_MAX (PATH_MAX + 32)

static struct daemon base, lhx;
static char scratch[PATH_MAX]; /* captured output of the children */
static char out_file[SCRATCH_MAX], err_file[SCRATCH_MAX];

/* A file in the scratch directory; buf holds SCRATCH_MAX bytes. */
static char *scratch_file(char *buf, const char *name)
{
    snprintf(buf, SCRATCH_MAX, "%s/%s", scratch, name);
    return buf;
}

/* Child processes */

/* Runs argv with stdout and stderr in files, as `uid` unless it is 0. */
static pid_t spawn(const char *const *argv, uid_t uid)
{
    pid_t pid;

    fflush(stdout);
    fflush(stderr);
    pid = fork();
    assert_true(pid >= 0);
    if (pid == 0) {
        int o = open(out_file, O_WRONLY | O_CREAT | O_TRUNC, 0644);
        int e = open(err_file, O_WRONLY | O_CREAT | O_TRUNC, 0644);

        if (o < 0 || e < 0 || dup2(o, STDOUT_FILENO) < 0 ||
            dup2(e, STDERR_FILENO) < 0)
            _exit(126);
        if (uid != 0 &&
            (setgroups(0, NULL) != 0 || setgid(uid) != 0 || setuid(uid) != 0))
            _exit(126);
        execv(argv[0], (char *const *)argv);
        _exit(127);
    }
    return pid;
}

static void finish(pid_t pid, struct run *r)
{
    int status = 0;

    assert_int_equal(sim_wait(pid, RUN_TIMEOUT_MS, &status), 0);
    r->status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    r->out = file_text(out_file);
    r->err = file_text(err_file);
}

static void free_run(struct run *r)
{
    free(r->out);
    free(r->err);
}

/* lhctl --socket SOCKET args... */
static pid_t spawn_ctl(const char *socket, uid_t uid, const char *const *args)
{
    const char *argv[MAX_ARGS + 4] = {LHCTL_PATH, "--socket", socket};
    size_t n = 3;

    while (*args != NULL && n < MAX_ARGS + 3)
        argv[n++] = *args++;
    argv[n] = NULL;
    return spawn(argv, uid);
}

static void run_ctl(struct run *r, const char *socket, const char *const *args)
{
    finish(spawn_ctl(socket, 0, args), r);
}

#define ARGS(...) ((const char *const[]){__VA_ARGS__, NULL})

/* An expected output of null is not compared. */
static void expect_ctl(const char *socket, int status, const char *out,
                       const char *err, const char *const *args)
{
    struct run r;

    run_ctl(&r, socket, args);
    if (err != NULL)
        assert_string_equal(r.err, err);
    if (out != NULL)
        assert_string_equal(r.out, out);
    assert_int_equal(r.status, status);
    free_run(&r);
}

#define EXPECT_CTL(d, status, out, err, ...)                                   \
    expect_ctl((d)->socket_path, (status), (out), (err), ARGS(__VA_ARGS__))

/* The daemon on a board, as tests/e2e/test_daemon_e2e.c starts it */

static void make_board(struct daemon *d, enum sim_board_kind kind)
{
    char root[PATH_MAX + 16];
    char command[2 * PATH_MAX];

    memset(d, 0, sizeof(*d));
    strcpy(d->parent, "/tmp/lhctl_test_XXXXXX");
    assert_non_null(mkdtemp(d->parent));
    snprintf(root, sizeof(root), "%s/board", d->parent);
    if (sim_board_create(root, kind, &d->board) != 0)
        fail_msg("board: %s", sim_board_last_error());
    snprintf(d->socket_path, sizeof(d->socket_path), "%s/ipc/219.sock",
             sim_board_path(d->board, SIM_PATH_RUN));
    snprintf(d->out_path, sizeof(d->out_path), "%s/daemon.txt", d->parent);
    /* The service controller, where the sandbox's PATH finds it. */
    snprintf(command, sizeof(command),
             "mkdir -p %s/bin && cp %s %s/bin/keeper_svc",
             sim_board_path(d->board, SIM_PATH_TMP), KEEPER_SVC_PATH,
             sim_board_path(d->board, SIM_PATH_TMP));
    assert_int_equal(system(command), 0);
}

static void spawn_daemon(struct daemon *d)
{
    char *const argv[] = {(char *)PELLIN_MGR_PATH, NULL};
    int out = open(d->out_path, O_WRONLY | O_CREAT | O_TRUNC, 0644);
    int saved_stdout = dup(STDOUT_FILENO);
    char *saved_path = strdup(getenv("PATH"));

    assert_true(out >= 0 && saved_stdout >= 0);
    fflush(stdout);
    dup2(out, STDOUT_FILENO);
    setenv("PATH", "/tmp/bin:/usr/sbin:/usr/bin:/sbin:/bin", 1);
    d->pid = sim_board_spawn(d->board, NULL, argv);
    setenv("PATH", saved_path, 1);
    dup2(saved_stdout, STDOUT_FILENO);
    close(saved_stdout);
    close(out);
    free(saved_path);
    assert_true(d->pid > 0);
}

static struct ipc_client *connect_client(const struct daemon *d)
{
    struct ipc_client *client = NULL;
    long long start = now_ms();

    while (ipc_client_open(d->socket_path, &client) != 0) {
        if (now_ms() - start > START_TIMEOUT_MS)
            fail_msg("no daemon socket at %s", d->socket_path);
        usleep(20000);
    }
    return client;
}

static void start_daemon(struct daemon *d, enum sim_board_kind kind)
{
    make_board(d, kind);
    spawn_daemon(d);
    ipc_client_close(connect_client(d));
}

static void stop_daemon(struct daemon *d)
{
    if (d->pid > 0) {
        kill(d->pid, SIGKILL);
        sim_wait(d->pid, RUN_TIMEOUT_MS, NULL);
    }
    if (d->board != NULL)
        sim_board_destroy(d->board);
    unlink(d->out_path);
    if (d->parent[0] != '\0')
        rmdir(d->parent);
    memset(d, 0, sizeof(*d));
}

/* The daemon's statistics record, straight from the socket */

/* The record of a module instance (caller frees); its size in *size. */
static uint8_t *raw_stats(const struct daemon *d, uint32_t module,
                          uint32_t pipe, size_t *size)
{
    uint32_t words[4] = {module, pipe, 0, 0};
    ipc_msg_t request = {
        .op_id = OP_GET_STATS,
        .msg_type = 1,
        .payload_len = sizeof(words),
        .payload = words,
    };
    ipc_msg_t reply;
    struct ipc_client *client = connect_client(d);
    uint8_t *record;

    assert_int_equal(ipc_client_send(client, &request), 0);
    assert_int_equal(ipc_client_recv(client, &reply, REPLY_TIMEOUT_MS), 0);
    ipc_client_close(client);
    assert_int_equal(reply.op_id, OP_GET_STATS);
    assert_true(reply.payload_len >= 16);
    *size = reply.payload_len - 16;
    record = malloc(*size);
    assert_non_null(record);
    memcpy(record, (uint8_t *)reply.payload + 16, *size);
    free(reply.payload);
    return record;
}

static uint64_t raw_word(const struct daemon *d, uint32_t module, uint32_t pipe,
                         size_t offset)
{
    size_t size;
    uint8_t *record = raw_stats(d, module, pipe, &size);
    uint64_t value = 0;

    assert_true(offset + 8 <= size);
    memcpy(&value, record + offset, sizeof(value));
    free(record);
    return value;
}

static uint64_t wait_raw_word(const struct daemon *d, uint32_t module,
                              uint32_t pipe, size_t offset)
{
    long long start = now_ms();
    uint64_t value;

    while ((value = raw_word(d, module, pipe, offset)) == 0) {
        if (now_ms() - start > POLL_WAIT_MS)
            fail_msg("module %u pipe %u: word %zu still 0", module, pipe,
                     offset);
        usleep(20000);
    }
    return value;
}

static void write_window(const struct daemon *d, uint32_t offset,
                         uint32_t value)
{
    assert_int_equal(sim_board_write(d->board, offset, value), 0);
}

/* Expected text */

static bool has_line(const char *text, const char *line)
{
    size_t len = strlen(line);

    for (const char *at = text; (at = strstr(at, line)) != NULL; at++)
        if ((at == text || at[-1] == '\n') && at[len] == '\n')
            return true;
    return false;
}

static void assert_has_line(const char *text, const char *line)
{
    if (!has_line(text, line))
        fail_msg("no line \"%s\"", line);
}

static size_t count_lines(const char *text)
{
    size_t count = 0;

    for (; *text != '\0'; text++)
        count += *text == '\n';
    return count;
}

/* A statistics table as lhctl prints it: names padded to the widest. */
static char *stats_text(const char *const *names, const uint64_t *values,
                        size_t count)
{
    size_t width = strlen("COUNTER");
    char *text;
    size_t size;
    FILE *out = open_memstream(&text, &size);

    for (size_t i = 0; i < count; i++)
        if (strlen(names[i]) > width)
            width = strlen(names[i]);
    fprintf(out, "%-*s%s\n", (int)width + 2, "COUNTER", "VALUE");
    for (size_t i = 0; i < count; i++)
        fprintf(out, "%-*s%" PRIu64 "\n", (int)width + 2, names[i], values[i]);
    fclose(out);
    return text;
}

static char *stats_json(const char *module, unsigned id, unsigned pipe,
                        const char *const *names, const uint64_t *values,
                        size_t count, bool cleared)
{
    char *text;
    size_t size;
    FILE *out = open_memstream(&text, &size);

    fprintf(out,
            "{\"module\":\"%s\",\"module_id\":%u,\"pipe\":%u,"
            "\"counters\":{",
            module, id, pipe);
    for (size_t i = 0; i < count; i++)
        fprintf(out, "%s\"%s\":%" PRIu64, i > 0 ? "," : "", names[i],
                values[i]);
    fprintf(out, "},\"cleared\":%s}\n", cleared ? "true" : "false");
    fclose(out);
    return text;
}

/* Part 3.1: CAUI counters by register source, high word first. */
static const char *const caui_names[32] = {
    "reg_0x504_0x500", "reg_0x50c_0x508", "reg_0x514_0x510", "reg_0x51c_0x518",
    "reg_0x5f4_0x5f0", "reg_0x5fc_0x5f8", "reg_0x60c_0x608", "reg_0x614_0x610",
    "reg_0x61c_0x618", "reg_0x624_0x620", "reg_0x69c_0x698", "reg_0x6a4_0x6a0",
    "reg_0x6ac_0x6a8", "reg_0x6b4_0x6b0", "reg_0x6bc_0x6b8", "reg_0x6c4_0x6c0",
    "reg_0x6cc_0x6c8", "reg_0x6d4_0x6d0", "reg_0x6dc_0x6d8", "reg_0x6e4_0x6e0",
    "reg_0x6ec_0x6e8", "reg_0x6fc_0x6f8", "reg_0x704_0x700", "reg_0x70c_0x708",
    "reg_0x714_0x710", "reg_0x850_0x854", "reg_0x858",       "reg_0x85c_0x860",
    "reg_0x864",       "reg_0x868",       "reg_0x86c",       "reg_0x870",
};

/* Part 4.3: the 21 global NIC counters in record order. */
static const char *const nic_global_names[21] = {
    "reg_0x50_0x54", "reg_0x58_0x5c", "reg_0x60_0x64", "reg_0x68_0x6c",
    "reg_0x88",      "reg_0x8c",      "reg_0x70",      "reg_0x74",
    "reg_0x78",      "reg_0x7c",      "reg_0x80",      "reg_0x84",
    "reg_0xf8",      "reg_0x90",      "reg_0x94",      "reg_0x98",
    "reg_0x9c",      "reg_0xa0",      "reg_0xa4",      "reg_0xa8",
    "reg_0xac",
};

/* Part 4.2: egress scheduler counters. */
static const char *const egress_names[18] = {
    "reg_0x30_0x34", "reg_0x38_0x3c", "reg_0x40_0x44", "reg_0x50",
    "reg_0x54",      "reg_0x60",      "reg_0x64",      "reg_0x70_0x74",
    "reg_0x78_0x7c", "reg_0x80_0x84", "reg_0x90",      "reg_0x94",
    "reg_0x98",      "reg_0x9c",      "reg_0xa0",      "reg_0xa4",
    "reg_0xa8",      "reg_0xac",
};

/* The NIC names: the globals, then three per queue below `queues`. */
static char **nic_names(size_t queues, size_t *count)
{
    static const char *const suffixes[3] = {
        "reg_0xc4_hi16",
        "reg_0xc4_0xc8",
        "reg_0xc4_0xc8_bank2",
    };
    char **names = calloc(21 + 3 * queues, sizeof(*names));

    assert_non_null(names);
    for (size_t i = 0; i < 21; i++)
        names[i] = strdup(nic_global_names[i]);
    for (size_t q = 0; q < queues; q++)
        for (size_t k = 0; k < 3; k++)
            assert_true(asprintf(&names[21 + 3 * q + k], "queue_%zu_%s", q,
                                 suffixes[k]) > 0);
    *count = 21 + 3 * queues;
    return names;
}

static void free_names(char **names, size_t count)
{
    for (size_t i = 0; i < count; i++)
        free(names[i]);
    free(names);
}

/* CAUI counters with known values: the port is down (no snapshot, Part
 * 3.1) while the registers change, so every counter gets the same whole
 * number of polls k; the per-poll values below are what a poll adds. */
struct window_word {
    uint32_t offset;
    uint32_t value;
};

static const struct window_word caui_registers[] = {
    {0x500, 12}, {0x504, 1}, /* counter 0: high 0x504, low 0x500 */
    {0x854, 5},              /* counter 25: high 0x850, low 0x854 */
    {0x858, 7},              /* counter 26: 32-bit */
    {0x85C, 2},  {0x860, 3}, /* counter 27: high 0x85C, low 0x860 */
};

static void caui_per_poll(uint64_t values[32])
{
    memset(values, 0, 32 * sizeof(values[0]));
    values[0] = (1ull << 32) | 12;
    values[25] = 5;
    values[26] = 7;
    values[27] = (2ull << 32) | 3;
}

static void write_caui_registers(const struct daemon *d, uint32_t pipe,
                                 bool set)
{
    for (size_t i = 0; i < ARRAY_COUNT(caui_registers); i++)
        write_window(d, 0x10000 + 0x10000 * pipe + caui_registers[i].offset,
                     set ? caui_registers[i].value : 0);
}

/* The CAUI counters of `pipe` after k polls of caui_registers: values. */
static void load_caui_counters(const struct daemon *d, uint32_t pipe,
                               uint64_t values[32])
{
    const char *p = pipe == 0 ? "0" : "1";
    uint64_t k;

    EXPECT_CTL(d, 0, "down\n", "", "pipe", p, "down");
    EXPECT_CTL(d, 0, NULL, "", "stats", "caui", p, "--clear");
    write_caui_registers(d, pipe, true);
    EXPECT_CTL(d, 0, "up\n", "", "pipe", p, "up");
    wait_raw_word(d, MOD_CAUI, pipe, 0);
    EXPECT_CTL(d, 0, "down\n", "", "pipe", p, "down");
    usleep(100000); /* a poll that still saw the port up has ended */
    write_caui_registers(d, pipe, false);
    EXPECT_CTL(d, 0, "up\n", "", "pipe", p, "up");
    caui_per_poll(values);
    k = raw_word(d, MOD_CAUI, pipe, 0) / values[0];
    assert_true(k >= 1);
    assert_int_equal(raw_word(d, MOD_CAUI, pipe, 0), k * values[0]);
    for (size_t i = 0; i < 32; i++)
        values[i] *= k;
}

/* Base board (two pipes) */

static void test_modules(void **state)
{
    static const char text[] = "ID  NAME                    PIPE  STATE\n"
                               "0   global                  0     OK\n"
                               "1   pcie                    0     OK\n"
                               "2   ddr4                    0     OK\n"
                               "2   ddr4                    1     OK\n"
                               "3   caui                    0     OK\n"
                               "3   caui                    1     OK\n"
                               "4   nic                     0     OK\n"
                               "4   nic                     1     OK\n"
                               "5   ingress-pkt-parser      0     OK\n"
                               "5   ingress-pkt-parser      1     OK\n"
                               "6   ingress-pkt-classifier  0     OK\n"
                               "6   ingress-pkt-classifier  1     OK\n"
                               "7   ingress-pkt-processor   0     OK\n"
                               "7   ingress-pkt-processor   1     OK\n"
                               "8   egress-scheduler        0     OK\n"
                               "8   egress-scheduler        1     OK\n";
    static const char json[] =
        "{\"modules\":["
        "{\"id\":0,\"name\":\"global\",\"pipe\":0,\"state\":\"OK\"},"
        "{\"id\":1,\"name\":\"pcie\",\"pipe\":0,\"state\":\"OK\"},"
        "{\"id\":2,\"name\":\"ddr4\",\"pipe\":0,\"state\":\"OK\"},"
        "{\"id\":2,\"name\":\"ddr4\",\"pipe\":1,\"state\":\"OK\"},"
        "{\"id\":3,\"name\":\"caui\",\"pipe\":0,\"state\":\"OK\"},"
        "{\"id\":3,\"name\":\"caui\",\"pipe\":1,\"state\":\"OK\"},"
        "{\"id\":4,\"name\":\"nic\",\"pipe\":0,\"state\":\"OK\"},"
        "{\"id\":4,\"name\":\"nic\",\"pipe\":1,\"state\":\"OK\"},"
        "{\"id\":5,\"name\":\"ingress-pkt-parser\",\"pipe\":0,\"state\":"
        "\"OK\"},"
        "{\"id\":5,\"name\":\"ingress-pkt-parser\",\"pipe\":1,\"state\":"
        "\"OK\"},"
        "{\"id\":6,\"name\":\"ingress-pkt-classifier\",\"pipe\":0,\"state\":"
        "\"OK\"},"
        "{\"id\":6,\"name\":\"ingress-pkt-classifier\",\"pipe\":1,\"state\":"
        "\"OK\"},"
        "{\"id\":7,\"name\":\"ingress-pkt-processor\",\"pipe\":0,\"state\":"
        "\"OK\"},"
        "{\"id\":7,\"name\":\"ingress-pkt-processor\",\"pipe\":1,\"state\":"
        "\"OK\"},"
        "{\"id\":8,\"name\":\"egress-scheduler\",\"pipe\":0,\"state\":\"OK\"},"
        "{\"id\":8,\"name\":\"egress-scheduler\",\"pipe\":1,\"state\":\"OK\"}"
        "]}\n";

    (void)state;
    EXPECT_CTL(&base, 0, text, "", "modules");
    EXPECT_CTL(&base, 0, json, "", "--json", "modules");
    EXPECT_CTL(&base, 0, json, "", "modules", "--json");
}

static void test_pipes_down_and_up(void **state)
{
    (void)state;
    EXPECT_CTL(&base, 0, "PIPE  STATE\n0     up\n1     up\n", "", "pipes");
    EXPECT_CTL(&base, 0, "down\n", "", "pipe", "1", "down");
    EXPECT_CTL(&base, 0, "PIPE  STATE\n0     up\n1     down\n", "", "pipes");
    EXPECT_CTL(&base, 0,
               "{\"pipes\":[{\"pipe\":0,\"state\":\"up\"},"
               "{\"pipe\":1,\"state\":\"down\"}]}\n",
               "", "--json", "pipes");
    EXPECT_CTL(&base, 0, "{\"pipe\":1,\"state\":\"up\"}\n", "", "--json",
               "pipe", "1", "up");
    EXPECT_CTL(&base, 0, "PIPE  STATE\n0     up\n1     up\n", "", "pipes");
}

static void test_reg_read_and_write(void **state)
{
    uint32_t value = 0;

    (void)state;
    EXPECT_CTL(&base, 0, "0x24031510\n", "", "reg", "read", "0x10");
    EXPECT_CTL(&base, 0, "0xcafe0001\n", "", "reg", "write", "0xfc",
               "0xCAFE0001");
    assert_int_equal(sim_board_read(base.board, 0xfc, &value), 0);
    assert_int_equal(value, 0xcafe0001);
    EXPECT_CTL(&base, 0, "0xcafe0001\n", "", "reg", "read", "252");
    EXPECT_CTL(&base, 0, "{\"offset\":252,\"value\":3405643777}\n", "",
               "--json", "reg", "read", "0xfc");
    EXPECT_CTL(&base, 0, "{\"offset\":252,\"value\":7}\n", "", "--json", "reg",
               "write", "0xfc", "7");
    assert_int_equal(sim_board_read(base.board, 0xfc, &value), 0);
    assert_int_equal(value, 7);
}

static void test_stats_named_by_register_source(void **state)
{
    uint64_t values[32], zeros[32] = {0};
    char *text, *json, *zero_text, *zero_json;

    (void)state;
    load_caui_counters(&base, 0, values);
    text = stats_text(caui_names, values, 32);
    json = stats_json("caui", 3, 0, caui_names, values, 32, false);
    zero_text = stats_text(caui_names, zeros, 32);
    zero_json = stats_json("caui", 3, 0, caui_names, zeros, 32, true);
    EXPECT_CTL(&base, 0, text, "", "stats", "caui", "0");
    EXPECT_CTL(&base, 0, text, "", "stats", "3", "0");
    EXPECT_CTL(&base, 0, json, "", "--json", "stats", "caui", "0");
    /* --clear prints what was there, then it is gone. */
    EXPECT_CTL(&base, 0, text, "", "stats", "caui", "0", "--clear");
    EXPECT_CTL(&base, 0, zero_text, "", "stats", "caui", "0");
    EXPECT_CTL(&base, 0, zero_json, "", "stats", "--clear", "caui", "0",
               "--json");
    free(text);
    free(json);
    free(zero_text);
    free(zero_json);
}

/* One row per block with statistics on the base image (pipe 0). */
static const struct block_row {
    const char *name;
    const char *id;
    size_t counters;
    const char *first;
    const char *last;
} base_blocks[] = {
    {"pcie", "1", 2, "reg_0x50", "reg_0x54"},
    {"caui", "3", 32, "reg_0x504_0x500", "reg_0x870"},
    {"nic", "4", 21 + 3 * 256, "reg_0x50_0x54",
     "queue_255_reg_0xc4_0xc8_bank2"},
    {"ingress-pkt-parser", "5", 15, "reg_0x50_0x54", "reg_0x94"},
    {"ingress-pkt-classifier", "6", 71, "reg_0x20_0x24", "reg_0x734"},
    {"ingress-pkt-processor", "7", 17, "reg_0x20_0x24", "reg_0x84"},
    {"egress-scheduler", "8", 18, "reg_0x30_0x34", "reg_0xac"},
};

static void assert_block_names(const struct block_row *row)
{
    struct run by_name, by_id;
    const char *last_line;

    run_ctl(&by_name, base.socket_path, ARGS("stats", row->name, "0"));
    run_ctl(&by_id, base.socket_path, ARGS("stats", row->id, "0"));
    assert_int_equal(by_name.status, 0);
    assert_int_equal(count_lines(by_name.out), row->counters + 1);
    assert_true(strncmp(by_name.out, "COUNTER ", 8) == 0);
    assert_true(strncmp(strchr(by_name.out, '\n') + 1, row->first,
                        strlen(row->first)) == 0);
    last_line = by_name.out + strlen(by_name.out) - 1;
    while (last_line > by_name.out && last_line[-1] != '\n')
        last_line--;
    assert_true(strncmp(last_line, row->last, strlen(row->last)) == 0);
    assert_int_equal(last_line[strlen(row->last)], ' ');
    assert_int_equal(by_id.status, 0);
    free_run(&by_name);
    free_run(&by_id);
}

static void test_stats_of_every_base_block(void **state)
{
    uint64_t zeros[21 + 3 * 256] = {0};
    size_t count;
    char **names = nic_names(256, &count);
    char *text;

    (void)state;
    for (size_t i = 0; i < ARRAY_COUNT(base_blocks); i++)
        assert_block_names(&base_blocks[i]);
    text = stats_text(egress_names, zeros, 18);
    EXPECT_CTL(&base, 0, text, "", "stats", "egress-scheduler", "1");
    free(text);
    /* Every queue up to the max queue id 255 is present once polled. */
    wait_raw_word(&base, 4, 1, 21 * 8 + 255 * 32);
    text = stats_text((const char *const *)names, zeros, count);
    EXPECT_CTL(&base, 0, text, "", "stats", "nic", "1");
    free(text);
    free_names(names, count);
}

static void test_loopback_get_and_set(void **state)
{
    (void)state;
    EXPECT_CTL(&base, 0, "disable-all\n", "", "loopback", "1");
    EXPECT_CTL(&base, 0, "pma-near\n", "", "loopback", "1", "pma-near");
    EXPECT_CTL(&base, 0, "pma-near\n", "", "loopback", "1");
    EXPECT_CTL(&base, 0, "{\"pipe\":1,\"mask\":4,\"types\":[\"pma-near\"]}\n",
               "", "--json", "loopback", "1");
    /* Another type needs disable-all first (Part 3.1). */
    EXPECT_CTL(&base, 1, "", "lhctl: LOOPBACK FAILED\n", "loopback", "1",
               "pcs-far");
    EXPECT_CTL(&base, 0,
               "{\"pipe\":1,\"mask\":0,\"types\":[\"disable-all\"]}\n", "",
               "--json", "loopback", "1", "disable-all");
    EXPECT_CTL(&base, 0, "{\"pipe\":1,\"mask\":16,\"types\":[\"pcs-far\"]}\n",
               "", "--json", "loopback", "1", "pcs-far");
    EXPECT_CTL(&base, 0, "pcs-far\n", "", "loopback", "1");
    EXPECT_CTL(&base, 0, "disable-all\n", "", "loopback", "1", "disable-all");
    EXPECT_CTL(&base, 0,
               "{\"pipe\":1,\"mask\":0,\"types\":[\"disable-all\"]}\n", "",
               "--json", "loopback", "1");
}

static void test_qos_get_and_set(void **state)
{
    (void)state;
    EXPECT_CTL(&base, 0, "high\n", "", "qos", "1", "9", "high");
    EXPECT_CTL(&base, 0, "high\n", "", "qos", "1", "9");
    EXPECT_CTL(&base, 0, "{\"pipe\":1,\"profile\":9,\"priority\":\"med\"}\n",
               "", "--json", "qos", "1", "9", "med");
    EXPECT_CTL(&base, 0, "{\"pipe\":1,\"profile\":9,\"priority\":\"med\"}\n",
               "", "--json", "qos", "1", "9");
    EXPECT_CTL(&base, 0, "low\n", "", "qos", "1", "0x9", "low");
    EXPECT_CTL(&base, 0, "low\n", "", "qos", "1", "9");
}

static void test_error_replies_exit_1(void **state)
{
    static const struct {
        const char *const args[5];
        const char *err;
    } cases[] = {
        {{"reg", "read", "0x2A100"}, "lhctl: READ FAILED\n"},
        {{"reg", "write", "0x2A100", "1"}, "lhctl: WRITE FAILED\n"},
        {{"loopback", "2"}, "lhctl: LOOPBACK FAILED\n"},
        {{"loopback", "2", "pma-far"}, "lhctl: LOOPBACK FAILED\n"},
        {{"stats", "ddr4", "0"}, "lhctl: GET STATS FAILED\n"},
        {{"stats", "eth", "0"}, "lhctl: GET STATS FAILED\n"},
        {{"stats", "caui", "2", "--clear"}, "lhctl: GET STATS FAILED\n"},
        {{"pipe", "2", "up"}, "lhctl: SET PIPE FAILED\n"},
        {{"qos", "0", "200", "high"}, "lhctl: SET INGR QOS FAILED\n"},
        {{"qos", "2", "5"}, "lhctl: GET INGR QOS FAILED\n"},
    };

    (void)state;
    for (size_t i = 0; i < ARRAY_COUNT(cases); i++)
        expect_ctl(base.socket_path, 1, "", cases[i].err, cases[i].args);
    EXPECT_CTL(&base, 1, "", "lhctl: READ FAILED\n", "--json", "reg", "read",
               "0x2A100");
}

#define METRICS_CHECK                                                          \
    "import re, sys\n"                                                         \
    "from prometheus_client.parser import text_string_to_metric_families\n"    \
    "text = open(sys.argv[1]).read()\n"                                        \
    "assert text.endswith('\\n')\n"                                            \
    "name = r'[a-zA-Z_:][a-zA-Z0-9_:]*'\n"                                     \
    "label = r'[a-zA-Z_][a-zA-Z0-9_]*=\"(?:[^\"\\\\\\n]|\\\\[\\\\\"n])*\"'\n"  \
    "sample = re.compile(name + r'(\\{' + label + r'(,' + label + "            \
    "r')*\\})? [0-9]+$')\n"                                                    \
    "seen = set()\n"                                                           \
    "for line in text.splitlines():\n"                                         \
    "    if line.startswith('#'):\n"                                           \
    "        kind, metric = line.split(' ')[1:3]\n"                            \
    "        assert kind in ('HELP', 'TYPE') and re.fullmatch(name, metric)\n" \
    "        assert (kind, metric) not in seen, line\n"                        \
    "        seen.add((kind, metric))\n"                                       \
    "    else:\n"                                                              \
    "        assert sample.match(line), line\n"                                \
    "families, keys = set(), set()\n"                                          \
    "for f in text_string_to_metric_families(text):\n"                         \
    "    assert f.name not in families and f.documentation, f.name\n"          \
    "    assert f.type in ('gauge', 'counter'), f.name\n"                      \
    "    families.add(f.name)\n"                                               \
    "    for s in f.samples:\n"                                                \
    "        key = (s.name, tuple(sorted(s.labels.items())))\n"                \
    "        assert key not in keys, key\n"                                    \
    "        keys.add(key)\n"                                                  \
    "    print(f.name, f.type, len(f.samples))\n"

#define JSON_CHECK                                                             \
    "import json, sys\n"                                                       \
    "d = json.load(open(sys.argv[1]))\n"                                       \
    "print(sorted(d), len(d['modules']), len(d['pipes']), len(d['stats']))\n"  \
    "print(sum(len(s['counters']) for s in d['stats']))\n"

/* /usr/bin/python3 -c SCRIPT FILE: its standard output, exit 0 asserted. */
static char *python_check(const char *script, const char *text)
{
    char buf[SCRATCH_MAX];
    const char *path = scratch_file(buf, "checked.txt");
    const char *argv[] = {"/usr/bin/python3", "-c", script, path, NULL};
    FILE *f = fopen(path, "w");
    struct run r;
    char *out;

    assert_non_null(f);
    fputs(text, f);
    fclose(f);
    finish(spawn(argv, 0), &r);
    assert_string_equal(r.err, "");
    assert_int_equal(r.status, 0);
    out = r.out;
    free(r.err);
    unlink(path);
    return out;
}

static void test_metrics_prometheus(void **state)
{
    uint64_t values[32];
    struct run r;
    char *checked, *line;

    (void)state;
    load_caui_counters(&base, 1, values);
    run_ctl(&r, base.socket_path, ARGS("metrics"));
    assert_string_equal(r.err, "");
    assert_int_equal(r.status, 0);
    checked = python_check(METRICS_CHECK, r.out);
    assert_string_equal(checked, "pellin_module_failed gauge 16\n"
                                 "pellin_pipe_up gauge 2\n"
                                 "pellin_block_counter counter 1886\n");
    free(checked);
    assert_true(strncmp(r.out, "# HELP pellin_module_failed ", 28) == 0);
    assert_has_line(r.out, "# TYPE pellin_module_failed gauge");
    assert_has_line(r.out, "# TYPE pellin_pipe_up gauge");
    assert_has_line(r.out, "# TYPE pellin_block_counter_total counter");
    assert_has_line(r.out,
                    "pellin_module_failed{module=\"caui\",pipe=\"1\"} 0");
    assert_has_line(r.out, "pellin_module_failed{module=\"global\",pipe=\"0\"} "
                           "0");
    assert_has_line(r.out, "pellin_pipe_up{pipe=\"0\"} 1");
    assert_has_line(r.out, "pellin_pipe_up{pipe=\"1\"} 1");
    assert_has_line(r.out,
                    "pellin_block_counter_total{module=\"nic\",pipe="
                    "\"0\",counter=\"queue_255_reg_0xc4_0xc8_bank2\"} 0");
    assert_true(asprintf(&line,
                         "pellin_block_counter_total{module=\"caui\",pipe="
                         "\"1\",counter=\"reg_0x504_0x500\"} %" PRIu64,
                         values[0]) > 0);
    assert_has_line(r.out, line);
    free(line);
    assert_true(asprintf(&line,
                         "pellin_block_counter_total{module=\"caui\",pipe="
                         "\"1\",counter=\"reg_0x858\"} %" PRIu64,
                         values[26]) > 0);
    assert_has_line(r.out, line);
    free(line);
    assert_false(strstr(r.out, "module=\"ddr4\",pipe=\"0\",counter"));
    free_run(&r);
}

static void test_metrics_json(void **state)
{
    static const char first_module[] =
        "{\"modules\":[{\"id\":0,\"name\":\"global\",\"pipe\":0,"
        "\"state\":\"OK\"},";
    struct run r;
    char *checked;

    (void)state;
    run_ctl(&r, base.socket_path, ARGS("--json", "metrics"));
    assert_int_equal(r.status, 0);
    assert_true(strncmp(r.out, first_module, strlen(first_module)) == 0);
    assert_non_null(strstr(r.out, "],\"pipes\":[{\"pipe\":0,\"state\":\"up\"},"
                                  "{\"pipe\":1,\"state\":\"up\"}],\"stats\":"
                                  "[{\"module\":\"pcie\",\"module_id\":1,"
                                  "\"pipe\":0,\"counters\":{\"reg_0x50\":"));
    checked = python_check(JSON_CHECK, r.out);
    assert_string_equal(checked, "['modules', 'pipes', 'stats'] 16 2 13\n"
                                 "1886\n");
    free(checked);
    free_run(&r);
}

static void test_usage_errors_exit_2(void **state)
{
    static const struct {
        const char *const args[5];
        const char *err;
    } cases[] = {
        {{"reg", "read", "0xZZ"},
         "lhctl: bad OFFSET \"0xZZ\"\n" USAGE_PREFIX "reg read OFFSET\n"},
        {{"reg", "write", "0x10", "-1"},
         "lhctl: bad VALUE \"-1\"\n" USAGE_PREFIX "reg write OFFSET VALUE\n"},
        {{"reg", "write", "0x10", "0x100000000"},
         "lhctl: bad VALUE \"0x100000000\"\n" USAGE_PREFIX
         "reg write OFFSET VALUE\n"},
        {{"stats", "foo", "0"},
         "lhctl: unknown module \"foo\"\n" USAGE_PREFIX
         "stats MODULE PIPE [--clear]\n"},
        {{"stats", "15", "0"},
         "lhctl: unknown module \"15\"\n" USAGE_PREFIX
         "stats MODULE PIPE [--clear]\n"},
        {{"stats", "caui", "x"},
         "lhctl: bad PIPE \"x\"\n" USAGE_PREFIX
         "stats MODULE PIPE [--clear]\n"},
        {{"loopback", "0", "far"},
         "lhctl: unknown loopback type \"far\"\n" USAGE_PREFIX
         "loopback PIPE [disable-all|pcs-near|pma-near|pma-far|pcs-far]\n"},
        {{"qos", "0", "5", "urgent"},
         "lhctl: unknown priority \"urgent\"\n" USAGE_PREFIX
         "qos PIPE PROFILE [low|med|high]\n"},
        {{"pipe", "0", "sideways"},
         "lhctl: unknown pipe state \"sideways\"\n" USAGE_PREFIX
         "pipe PIPE up|down\n"},
        {{"pipe", "0"},
         "lhctl: missing argument\n" USAGE_PREFIX "pipe PIPE up|down\n"},
        {{"modules", "extra"},
         "lhctl: unexpected argument \"extra\"\n" USAGE_PREFIX "modules\n"},
        {{"metrics", "--clear"},
         "lhctl: unexpected argument \"--clear\"\n" USAGE_PREFIX "metrics\n"},
    };
    /* Errors before a command is known print the whole usage. */
    static const struct {
        const char *const args[4];
        const char *first_line;
    } general[] = {
        {{"frobnicate"}, "lhctl: unknown command \"frobnicate\"\n"},
        {{"reg"}, "lhctl: unknown command \"reg\"\n"},
        {{"--bogus", "modules"}, "lhctl: unknown option \"--bogus\"\n"},
        {{"--timeout", "abc", "modules"}, "lhctl: bad timeout \"abc\"\n"},
        {{"--timeout", "0", "modules"}, "lhctl: bad timeout \"0\"\n"},
        {{"modules", "--timeout"}, "lhctl: option --timeout needs a value\n"},
        {{NULL}, "lhctl: no command\n"},
    };

    (void)state;
    /* Never a request: the socket does not exist, yet the exit is 2. */
    for (size_t i = 0; i < ARRAY_COUNT(cases); i++)
        expect_ctl(NO_SOCKET, 2, "", cases[i].err, cases[i].args);
    for (size_t i = 0; i < ARRAY_COUNT(general); i++) {
        struct run r;
        size_t len = strlen(general[i].first_line);

        run_ctl(&r, NO_SOCKET, general[i].args);
        assert_int_equal(r.status, 2);
        assert_string_equal(r.out, "");
        assert_true(strncmp(r.err, general[i].first_line, len) == 0);
        assert_true(strncmp(r.err + len, USAGE_PREFIX "COMMAND ...\n",
                            strlen(USAGE_PREFIX) + 12) == 0);
        assert_non_null(strstr(r.err, "\n  metrics "));
        free_run(&r);
    }
}

static void test_help_exit_0(void **state)
{
    struct run r;

    (void)state;
    run_ctl(&r, NO_SOCKET, ARGS("--help"));
    assert_int_equal(r.status, 0);
    assert_string_equal(r.err, "");
    assert_true(strncmp(r.out, USAGE_PREFIX "COMMAND ...\n",
                        strlen(USAGE_PREFIX) + 12) == 0);
    assert_non_null(strstr(r.out, "\n  stats MODULE PIPE [--clear] "));
    assert_non_null(strstr(r.out, "\n  --timeout SECONDS "));
    free_run(&r);
}

static int bind_socket(const char *path, int backlog)
{
    struct sockaddr_un address = {.sun_family = AF_UNIX};
    int fd = socket(AF_UNIX, SOCK_STREAM, 0);

    assert_true(fd >= 0);
    assert_true(strlen(path) < sizeof(address.sun_path));
    strcpy(address.sun_path, path);
    assert_int_equal(bind(fd, (struct sockaddr *)&address, sizeof(address)), 0);
    if (backlog > 0)
        assert_int_equal(listen(fd, backlog), 0);
    return fd;
}

static void test_daemon_not_running_exit_3(void **state)
{
    char buf[SCRATCH_MAX];
    const char *dead = scratch_file(buf, "dead.sock");
    char *err;

    (void)state;
    assert_true(asprintf(&err, "lhctl: daemon not running: no socket at %s\n",
                         NO_SOCKET) > 0);
    expect_ctl(NO_SOCKET, 3, "", err, ARGS("pipes"));
    free(err);
    /* A socket file that nobody serves. */
    close(bind_socket(dead, 0));
    assert_true(asprintf(&err,
                         "lhctl: daemon not running: nothing serves "
                         "%s\n",
                         dead) > 0);
    expect_ctl(dead, 3, "", err, ARGS("--json", "modules"));
    free(err);
    unlink(dead);
}

static void test_permission_denied_exit_3(void **state)
{
    struct stat st;
    struct run r;
    char *err;

    (void)state;
    if (getuid() != 0)
        skip();
    assert_int_equal(stat(base.socket_path, &st), 0);
    assert_int_equal(st.st_mode & 0777, 0660);
    /* Only the socket's own mode stands in the way. */
    assert_int_equal(chmod(base.parent, 0755), 0);
    assert_int_equal(chmod(sim_board_path(base.board, SIM_PATH_ROOT), 0755), 0);
    assert_int_equal(chmod(sim_board_path(base.board, SIM_PATH_RUN), 0755), 0);
    finish(spawn_ctl(base.socket_path, NOBODY, ARGS("modules")), &r);
    assert_true(
        asprintf(&err, "lhctl: permission denied: %s\n", base.socket_path) > 0);
    assert_string_equal(r.err, err);
    assert_string_equal(r.out, "");
    assert_int_equal(r.status, 3);
    free(err);
    free_run(&r);
}

static void receive_exactly(int conn, uint8_t *buf, size_t length)
{
    size_t got = 0;

    while (got < length) {
        struct pollfd c = {.fd = conn, .events = POLLIN};
        ssize_t n;

        assert_int_equal(poll(&c, 1, REPLY_TIMEOUT_MS), 1);
        n = recv(conn, buf + got, length - got, 0);
        assert_true(n > 0);
        got += (size_t)n;
    }
}

/* Accepts one connection and reads one whole request from it (the
 * connection stays open, unanswered). Returns the request's op id. */
static uint32_t read_request_op(int listener, int *conn)
{
    struct pollfd p = {.fd = listener, .events = POLLIN};
    uint8_t header[32], payload[64];
    uint32_t op, length;

    assert_int_equal(poll(&p, 1, REPLY_TIMEOUT_MS), 1);
    *conn = accept(listener, NULL, NULL);
    assert_true(*conn >= 0);
    receive_exactly(*conn, header, sizeof(header));
    memcpy(&op, header + 8, sizeof(op));
    memcpy(&length, header + 16, sizeof(length));
    assert_true(length <= sizeof(payload));
    receive_exactly(*conn, payload, length);
    return op;
}

/* A reply record of Part 1.4 and its payload, as a daemon would send. */
static void send_reply(int conn, uint32_t op, const void *payload,
                       uint32_t length)
{
    uint8_t header[32] = {0};

    memcpy(header + 8, &op, sizeof(op));
    header[12] = 1;
    header[13] = 2;
    memcpy(header + 16, &length, sizeof(length));
    assert_int_equal(send(conn, header, sizeof(header), MSG_NOSIGNAL), 32);
    assert_int_equal(send(conn, payload, length, MSG_NOSIGNAL),
                     (ssize_t)length);
}

static void test_no_answer_times_out_exit_3(void **state)
{
    char buf[SCRATCH_MAX];
    const char *path = scratch_file(buf, "silent.sock");
    int listener = bind_socket(path, 4);
    long long start = now_ms();
    pid_t pid;
    struct run r;
    int conn;

    (void)state;
    pid = spawn_ctl(path, 0, ARGS("--timeout", "1", "pipes"));
    assert_int_equal(read_request_op(listener, &conn), 0xdb000a);
    finish(pid, &r);
    assert_true(now_ms() - start >= 950);
    assert_true(now_ms() - start < 5000);
    assert_string_equal(r.err, "lhctl: no answer from the daemon within 1 s\n");
    assert_string_equal(r.out, "");
    assert_int_equal(r.status, 3);
    free_run(&r);
    close(conn);
    close(listener);
    unlink(path);
}

/* Answers the daemon never gives, from a server of the test's own. */
static const struct fake_case {
    const char *const args[4];
    uint32_t request_op;
    uint32_t reply_op; /* 0: the connection closes instead */
    uint32_t reply[3];
    uint32_t reply_length;
    int status;
    const char *out;
    const char *err;
} fake_cases[] = {
    {{"--timeout=1.5", "pipes"},
     0xdb000a,
     0,
     {0},
     0,
     3,
     "",
     "lhctl: the daemon closed the connection\n"},
    {{"reg", "read", "0x10"},
     0xdb0002,
     0xdb0002,
     {0x10},
     4,
     1,
     "",
     "lhctl: malformed reply to op 0xdb0002: unexpected length\n"},
    {{"reg", "read", "0x10"},
     0xdb0002,
     0xdb0001,
     {0xdb0002, 8, 99},
     12,
     1,
     "",
     "lhctl: --\n"},
    {{"pipes"},
     0xdb000a,
     0xdb0002,
     {0, 1},
     8,
     1,
     "",
     "lhctl: malformed reply to op 0xdb000a: reply to another operation\n"},
    {{"modules"},
     0xdb0008,
     0xdb0008,
     {20, 0, 1},
     12,
     0,
     "ID  NAME  PIPE  STATE\n20  20    0     FAILED\n",
     ""},
};

static void test_unusable_answers(void **state)
{
    char buf[SCRATCH_MAX];
    const char *path = scratch_file(buf, "fake.sock");
    int listener = bind_socket(path, 4);

    (void)state;
    for (size_t i = 0; i < ARRAY_COUNT(fake_cases); i++) {
        const struct fake_case *c = &fake_cases[i];
        pid_t pid = spawn_ctl(path, 0, c->args);
        struct run r;
        int conn;

        assert_int_equal(read_request_op(listener, &conn), c->request_op);
        if (c->reply_op == 0)
            close(conn);
        else
            send_reply(conn, c->reply_op, c->reply, c->reply_length);
        finish(pid, &r);
        if (c->reply_op != 0)
            close(conn);
        assert_string_equal(r.err, c->err);
        assert_string_equal(r.out, c->out);
        assert_int_equal(r.status, c->status);
        free_run(&r);
    }
    close(listener);
    unlink(path);
}

/* LHX board */

static void test_lhx_modules(void **state)
{
    (void)state;
    EXPECT_CTL(&lhx, 0,
               "ID  NAME                    PIPE  STATE\n"
               "9   lhx-global              0     OK\n"
               "10  lhx-pcie                0     OK\n"
               "11  eth                     0     OK\n"
               "12  lhx-nic                 0     OK\n"
               "13  lhx-ingress-pkt-parser  0     OK\n"
               "14  lhx-egress-scheduler    0     OK\n",
               "", "modules");
    EXPECT_CTL(&lhx, 0, "PIPE  STATE\n0     up\n", "", "pipes");
}

/* Part 3.1: the eth counters, MAC pairs (low word first) then wrappers. */
static char **eth_names(void)
{
    static const uint32_t singles[] = {0x508, 0x510, 0x518, 0x520, 0x5A8,
                                       0x5B0, 0x5B8, 0x5C0, 0x660, 0x6A0};
    static const struct {
        uint32_t first;
        size_t count;
    } runs[] = {{0x700, 18}, {0x7B8, 1}, {0x7D0, 6}, {0x808, 17}, {0x898, 16}};
    static const char *const wrappers[] = {
        "reg_0x1050_0x1054", "reg_0x1058", "reg_0x105c_0x1060", "reg_0x1064",
        "reg_0x1068",        "reg_0x106c", "reg_0x1070",
    };
    char **names = calloc(75, sizeof(*names));
    size_t n = 0;

    assert_non_null(names);
    for (size_t i = 0; i < ARRAY_COUNT(singles); i++, n++)
        assert_true(asprintf(&names[n], "reg_0x%x_0x%x", singles[i] + 4,
                             singles[i]) > 0);
    for (size_t r = 0; r < ARRAY_COUNT(runs); r++)
        for (size_t i = 0; i < runs[r].count; i++, n++)
            assert_true(asprintf(&names[n], "reg_0x%x_0x%x",
                                 runs[r].first + 8 * (uint32_t)i + 4,
                                 runs[r].first + 8 * (uint32_t)i) > 0);
    for (size_t i = 0; i < ARRAY_COUNT(wrappers); i++, n++)
        names[n] = strdup(wrappers[i]);
    assert_int_equal(n, 75);
    return names;
}

static void test_lhx_eth_stats(void **state)
{
    uint64_t zeros[75] = {0};
    char **names = eth_names();
    char *text = stats_text((const char *const *)names, zeros, 75);
    char *json =
        stats_json("eth", 11, 0, (const char *const *)names, zeros, 75, false);

    (void)state;
    assert_string_equal(names[0], "reg_0x50c_0x508");
    EXPECT_CTL(&lhx, 0, text, "", "stats", "eth", "0");
    EXPECT_CTL(&lhx, 0, json, "", "--json", "stats", "11", "0");
    free(text);
    free(json);
    free_names(names, 75);
}

static void wait_module_failed(const struct daemon *d, const char *entry)
{
    long long start = now_ms();
    struct run r;

    for (;;) {
        run_ctl(&r, d->socket_path, ARGS("--json", "modules"));
        if (strstr(r.out, entry) != NULL)
            break;
        free_run(&r);
        if (now_ms() - start > POLL_WAIT_MS)
            fail_msg("%s not in the module list", entry);
        usleep(50000);
    }
    free_run(&r);
}

/* The LHX NIC polls queues 0..128 (Part 4.3). The simulated select does
 * not change the data words, so every queue adds the same per poll; a
 * fatal error then stops polling the block (Part 2.3), which freezes its
 * counters and shows FAILED. */
static void test_lhx_nic_queues_and_failed_module(void **state)
{
    const size_t queues = 129, queue0 = 21 * 8 + 8;
    size_t count;
    char **names = nic_names(queues, &count);
    uint64_t *values = calloc(count, sizeof(*values));
    uint64_t k;
    char *text;

    (void)state;
    assert_non_null(values);
    write_window(&lhx, 0x120C4, 0x00050002); /* counter 0: 5; 1 and 2: 2 */
    write_window(&lhx, 0x120C8, 3);          /* above 3 */
    wait_raw_word(&lhx, MOD_LHX_NIC, 0, queue0);
    write_window(&lhx, 0x12000, 1); /* "NIC TOP TM RX Missing SOP Error" */
    wait_module_failed(&lhx, "{\"id\":12,\"name\":\"lhx-nic\",\"pipe\":0,"
                             "\"state\":\"FAILED\"}");
    k = raw_word(&lhx, MOD_LHX_NIC, 0, queue0) / 5;
    for (size_t q = 0; q < queues; q++) {
        values[21 + 3 * q] = 5 * k;
        values[21 + 3 * q + 1] = ((2ull << 32) | 3) * k;
        values[21 + 3 * q + 2] = ((2ull << 32) | 3) * k;
    }
    text = stats_text((const char *const *)names, values, count);
    EXPECT_CTL(&lhx, 0, text, "", "stats", "lhx-nic", "0");
    free(text);
    EXPECT_CTL(&lhx, 0,
               "ID  NAME                    PIPE  STATE\n"
               "9   lhx-global              0     OK\n"
               "10  lhx-pcie                0     OK\n"
               "11  eth                     0     OK\n"
               "12  lhx-nic                 0     FAILED\n"
               "13  lhx-ingress-pkt-parser  0     OK\n"
               "14  lhx-egress-scheduler    0     OK\n",
               "", "modules");
    free(values);
    free_names(names, count);
}

/* Groups: one daemon each */

static int setup_base(void **state)
{
    (void)state;
    start_daemon(&base, SIM_BOARD_BASE2);
    return 0;
}

static int teardown_base(void **state)
{
    (void)state;
    stop_daemon(&base);
    return 0;
}

static int setup_lhx(void **state)
{
    (void)state;
    start_daemon(&lhx, SIM_BOARD_LHX);
    return 0;
}

static int teardown_lhx(void **state)
{
    (void)state;
    stop_daemon(&lhx);
    return 0;
}

int main(void)
{
    const struct CMUnitTest base_tests[] = {
        cmocka_unit_test(test_modules),
        cmocka_unit_test(test_pipes_down_and_up),
        cmocka_unit_test(test_reg_read_and_write),
        cmocka_unit_test(test_stats_named_by_register_source),
        cmocka_unit_test(test_stats_of_every_base_block),
        cmocka_unit_test(test_loopback_get_and_set),
        cmocka_unit_test(test_qos_get_and_set),
        cmocka_unit_test(test_error_replies_exit_1),
        cmocka_unit_test(test_metrics_prometheus),
        cmocka_unit_test(test_metrics_json),
        cmocka_unit_test(test_permission_denied_exit_3),
    };
    const struct CMUnitTest lhx_tests[] = {
        cmocka_unit_test(test_lhx_modules),
        cmocka_unit_test(test_lhx_eth_stats),
        cmocka_unit_test(test_lhx_nic_queues_and_failed_module),
    };
    const struct CMUnitTest offline_tests[] = {
        cmocka_unit_test(test_usage_errors_exit_2),
        cmocka_unit_test(test_help_exit_0),
        cmocka_unit_test(test_daemon_not_running_exit_3),
        cmocka_unit_test(test_no_answer_times_out_exit_3),
        cmocka_unit_test(test_unusable_answers),
    };
    char command[PATH_MAX + 16];
    int failed;

    signal(SIGPIPE, SIG_IGN);
    strcpy(scratch, "/tmp/lhctl_out_XXXXXX");
    if (mkdtemp(scratch) == NULL)
        return 1;
    scratch_file(out_file, "out.txt");
    scratch_file(err_file, "err.txt");
    failed = cmocka_run_group_tests_name("offline", offline_tests, NULL, NULL);
    failed += cmocka_run_group_tests_name("base2", base_tests, setup_base,
                                          teardown_base);
    failed +=
        cmocka_run_group_tests_name("lhx", lhx_tests, setup_lhx, teardown_lhx);
    /* Whatever a failed test left there goes too. */
    snprintf(command, sizeof(command), "rm -rf %s", scratch);
    if (system(command) != 0)
        failed++;
    return failed;
}
