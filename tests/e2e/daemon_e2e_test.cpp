/* End to end (Parts 1.1, 1.5, 1.6, 1.7): the real pellin_mgr on simulated
 * boards in the sandbox, with the real libpciaccess, setpci, syslog(3) and
 * the host IPC transport; clients talk to it over its socket. */
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <pthread.h>
#include <signal.h>
#include <stdatomic.h>
#include <stdbool.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include "cmocka_all.h"
#include "file_watch.hpp"
#include "log_expect.hpp"
#include "log_file.hpp"
#include "plat_ipc.h"
#include "simboard.hpp"

#define START_TIMEOUT_MS 10000
#define REPLY_TIMEOUT_MS 3000
#define EXIT_TIMEOUT_MS 10000
#define LH_ARRAY_COUNT(a) (sizeof(a) / sizeof((a)[0]))

struct daemon {
    struct sim_board *board;
    char parent[PATH_MAX];
    char log_path[PATH_MAX + 32];
    char socket_path[PATH_MAX + 32];
    char out_path[PATH_MAX + 32];
    char syslog_path[PATH_MAX + 32];
    int syslog_fd;
    pid_t pid;
};

static struct daemon d;

static void make_board(enum sim_board_kind kind)
{
    char root[PATH_MAX + 16];
    char command[2 * PATH_MAX];

    memset(&d, 0, sizeof(d));
    d.syslog_fd = -1;
    strcpy(d.parent, "/tmp/plm_e2e_XXXXXX");
    assert_non_null(mkdtemp(d.parent));
    snprintf(root, sizeof(root), "%s/board", d.parent);
    if (sim_board_create(root, kind, &d.board) != 0)
        fail_msg("board: %s", sim_board_last_error());
    snprintf(d.log_path, sizeof(d.log_path), "%s/pellin_mgr.log",
             sim_board_path(d.board, SIM_PATH_LOGS));
    snprintf(d.socket_path, sizeof(d.socket_path), "%s/ipc/219.sock",
             sim_board_path(d.board, SIM_PATH_RUN));
    snprintf(d.out_path, sizeof(d.out_path), "%s/out.txt", d.parent);
    /* The service controller, where the sandbox's PATH finds it. */
    snprintf(command, sizeof(command),
             "mkdir -p %s/bin && cp %s %s/bin/keeper_svc",
             sim_board_path(d.board, SIM_PATH_TMP), KEEPER_SVC_PATH,
             sim_board_path(d.board, SIM_PATH_TMP));
    assert_int_equal(system(command), 0);
}

static void listen_to_syslog(void)
{
    snprintf(d.syslog_path, sizeof(d.syslog_path), "%s/log.sock", d.parent);
    d.syslog_fd = sim_syslog_open(d.syslog_path);
    assert_true(d.syslog_fd >= 0);
}

/* Starts the daemon with its standard output in out.txt. */
static void spawn_daemon(void)
{
    char *const argv[] = { (char *)PELLIN_MGR_PATH, NULL };
    struct sim_sandbox_opts opts = {
        .syslog_socket = d.syslog_fd >= 0 ? d.syslog_path : NULL,
    };
    int out = open(d.out_path, O_WRONLY | O_CREAT | O_TRUNC, 0644);
    int saved_stdout = dup(STDOUT_FILENO);
    char *saved_path = strdup(getenv("PATH"));

    assert_true(out >= 0 && saved_stdout >= 0);
    fflush(stdout);
    dup2(out, STDOUT_FILENO);
    setenv("PATH", "/tmp/bin:/usr/sbin:/usr/bin:/sbin:/bin", 1);
    d.pid = sim_board_spawn(d.board, &opts, argv);
    setenv("PATH", saved_path, 1);
    dup2(saved_stdout, STDOUT_FILENO);
    close(saved_stdout);
    close(out);
    free(saved_path);
    assert_true(d.pid > 0);
}

static struct ipc_client *connect_client(void)
{
    struct ipc_client *client = NULL;
    long long start = now_ms();

    while (ipc_client_open(d.socket_path, &client) != 0) {
        if (now_ms() - start > START_TIMEOUT_MS)
            fail_msg("no daemon socket at %s", d.socket_path);
        usleep(20000);
    }
    return client;
}

static void start_daemon(enum sim_board_kind kind)
{
    make_board(kind);
    spawn_daemon();
    ipc_client_close(connect_client());
}

static int wait_exit(void)
{
    int status = -1;

    assert_int_equal(sim_wait(d.pid, EXIT_TIMEOUT_MS, &status), 0);
    d.pid = 0;
    assert_true(WIFEXITED(status));
    return WEXITSTATUS(status);
}

static int teardown(void **state)
{
    (void)state;
    if (d.pid > 0) {
        kill(d.pid, SIGKILL);
        sim_wait(d.pid, EXIT_TIMEOUT_MS, NULL);
    }
    if (d.syslog_fd >= 0)
        sim_syslog_close(d.syslog_fd, d.syslog_path);
    if (d.board != NULL)
        sim_board_destroy(d.board);
    unlink(d.out_path);
    rmdir(d.parent);
    memset(&d, 0, sizeof(d));
    return 0;
}

/* Sends one request and returns the reply's payload (caller frees), its
 * op id and length; fails when no answer comes. */
static uint8_t *call(uint32_t op_id, const uint32_t *words, uint32_t length,
                     uint32_t *reply_op, uint32_t *reply_length)
{
    ipc_msg_t request = {
        .addr0 = 0xDEAD,
        .addr1 = 0xBEEF,
        .op_id = op_id,
        .msg_type = 1,
        .payload_len = length,
        .payload = (void *)words,
    };
    ipc_msg_t reply;
    struct ipc_client *client = connect_client();

    assert_int_equal(ipc_client_send(client, &request), 0);
    assert_int_equal(ipc_client_recv(client, &reply, REPLY_TIMEOUT_MS), 0);
    ipc_client_close(client);
    assert_int_equal(reply.msg_type, 2);
    assert_int_equal(reply.aux_byte, 1);
    *reply_op = reply.op_id;
    *reply_length = reply.payload_len;
    return reply.payload;
}

/* The reply to a request is `reply_op` with exactly these bytes. */
static void assert_answer(uint32_t op_id, const uint32_t *words,
                          uint32_t length, uint32_t reply_op,
                          const void *expected, uint32_t expected_length)
{
    uint32_t got_op, got_length;
    uint8_t *payload = call(op_id, words, length, &got_op, &got_length);

    assert_int_equal(got_op, reply_op);
    assert_int_equal(got_length, expected_length);
    if (expected_length > 0)
        assert_memory_equal(payload, expected, expected_length);
    free(payload);
}

static void assert_call(uint32_t op_id, const uint32_t *words,
                        uint32_t length, const void *expected,
                        uint32_t expected_length)
{
    assert_answer(op_id, words, length, op_id, expected, expected_length);
}

static void assert_error_call(uint32_t op_id, const uint32_t *words,
                              uint32_t length, uint32_t code)
{
    const uint32_t expected[3] = { op_id, length, code };

    assert_answer(op_id, words, length, 0xdb0001, expected, sizeof(expected));
}

/* Lines of the file, in this order, though others may come between. */
static void assert_lines_in_order(const char *path, const char *const *lines,
                                  size_t count)
{
    char *content = file_text(path);
    const char *at = content;

    for (size_t i = 0; i < count; i++) {
        char *line;

        assert_true(asprintf(&line, ": %s\n", lines[i]) > 0);
        at = strstr(at, line);
        if (at == NULL)
            fail_msg("no line \"%s\" after the earlier ones in %s", lines[i],
                     path);
        free(line);
    }
    free(content);
}

static const char *const main_lines_two_pipes[] = {
    "Informational - LH FPGA initialization start",
    "Informational - LH FPGA initialization complete",
    "Informational - Found 2 traffic pipes",
    "Informational - Traffic pipe 0 enabled",
    "Informational - Traffic pipe 1 enabled",
    "Thread Monitoring: pellin sys poll",
    "Pellin Manager system poll thread started...",
    "Thread Monitoring: pellin IPC server",
    "Pellin Manager IPC server thread started...",
};

static void test_start_up_on_two_pipe_board(void **state)
{
    static const char *const qos_lines[] = {
        "Informational - Ingress Pkt Parser set QoS profile id 0x05 on pipe 0 "
        "with priority HIGH",
        "Informational - Ingress Pkt Parser set QoS profile id 0x04 on pipe 0 "
        "with priority MED",
        "Informational - Ingress Pkt Parser set QoS profile id 0x03 on pipe 0 "
        "with priority MED",
        "Informational - Ingress Pkt Parser set QoS profile id 0x02 on pipe 0 "
        "with priority LOW",
        "Informational - Ingress Pkt Parser set QoS profile id 0x00 on pipe 0 "
        "with priority LOW",
        "Informational - Ingress Pkt Parser set QoS profile id 0x05 on pipe 1 "
        "with priority HIGH",
        "Informational - Ingress Pkt Parser set QoS profile id 0x00 on pipe 1 "
        "with priority LOW",
    };

    static const char *const init_then_qos[] = {
        "Informational - Larks Hollow FPGA Initialized",
        "Informational - LH FPGA initialization complete",
        "Informational - Ingress Pkt Parser set QoS profile id 0x05 on pipe 0 "
        "with priority HIGH",
    };

    (void)state;
    start_daemon(SIM_BOARD_BASE2);
    assert_lines_in_order(d.log_path, main_lines_two_pipes,
                          LH_ARRAY_COUNT(main_lines_two_pipes));
    assert_lines_in_order(d.log_path, qos_lines, LH_ARRAY_COUNT(qos_lines));
    assert_lines_in_order(d.log_path, init_then_qos,
                          LH_ARRAY_COUNT(init_then_qos));
    wait_for_text(d.log_path, "Informational - traffic pipe 1 is UP\n", 3000);
    assert_int_equal(count_in(d.log_path, "traffic pipe 0 is UP\n"), 1);
}

static void test_start_up_on_one_pipe_and_lhx_boards(void **state)
{
    static const char *const lines[] = {
        "Informational - LH FPGA initialization start",
        "Informational - LH FPGA initialization complete",
        "Informational - Found 1 traffic pipes",
        "Informational - Traffic pipe 0 enabled",
        "Pellin Manager system poll thread started...",
        "Pellin Manager IPC server thread started...",
    };
    static const char lhx_qos[] =
        "Informational - LHX Ingress Pkt Parser set QoS profile id 0x05 on "
        "pipe 0 with priority HIGH";

    (void)state;
    start_daemon(SIM_BOARD_BASE1);
    assert_lines_in_order(d.log_path, lines, LH_ARRAY_COUNT(lines));
    teardown(NULL);
    start_daemon(SIM_BOARD_LHX);
    assert_lines_in_order(d.log_path, lines, LH_ARRAY_COUNT(lines));
    assert_int_equal(count_in(d.log_path, lhx_qos), 1);
    assert_int_equal(count_in(d.log_path, "pipe 1 with priority"), 0);
}

static void assert_gated(const char *idprom)
{
    make_board(SIM_BOARD_BASE2);
    listen_to_syslog();
    assert_int_equal(sim_board_set_idprom(d.board, idprom), 0);
    spawn_daemon();
    assert_int_equal(wait_exit(), 0);
    assert_int_equal(
        count_in(d.out_path,
                 "keeper_svc: no systemd here; would stop service "
                 "pellin_mgr\n"),
        1);
    assert_int_equal(access(d.log_path, F_OK), -1);
    {
        struct sim_syslog_msg message;

        assert_int_equal(sim_syslog_next(d.syslog_fd, 200, &message), -1);
    }
    teardown(NULL);
}

static void test_boards_not_served_exit_0_quietly(void **state)
{
    (void)state;
    assert_gated("CONTROLLER_TYPE=4358\nBOARD_TYPE=3\n");
    assert_gated("CONTROLLER_TYPE=4358\nBOARD_TYPE=6\n");
    assert_gated("CONTROLLER_TYPE=4358\nBOARD_TYPE=4\nBRAMBLE_SIM=1\n");
}

static void test_board_type_5_is_served(void **state)
{
    (void)state;
    make_board(SIM_BOARD_BASE2);
    assert_int_equal(
        sim_board_set_idprom(d.board, "CONTROLLER_TYPE=4358\nBOARD_TYPE=5\n"),
        0);
    spawn_daemon();
    ipc_client_close(connect_client());
    assert_lines_in_order(d.log_path, main_lines_two_pipes, 3);
}

static void test_every_op_over_the_socket(void **state)
{
    const uint32_t read_reg[2] = { 0x10, 0 };
    const uint32_t read_reply[2] = { 0x10, 0x24031510 };
    const uint32_t write_reg[2] = { 0x2A0FC, 0x12345678 };
    const uint32_t far_reg[2] = { 0x2A100, 0 };
    const uint32_t set_loopback[2] = { 2, 1 };
    const uint32_t get_loopback[2] = { 0, 1 };
    const uint32_t loopback_reply[2] = { 0x04, 1 };
    const uint32_t stats[4] = { 3, 1, 0, 0 };
    const uint32_t clear_reply[4] = { 3, 1, 0, 0 };
    const uint32_t ddr4_stats[4] = { 2, 0, 0, 0 };
    const uint32_t set_qos[3] = { 1, 5, 1 };
    const uint32_t get_qos[3] = { 1, 5, 0 };
    const uint32_t set_pipe_down[2] = { 1, 0 };
    const uint32_t pipes[4] = { 0, 1, 1, 0 };
    uint32_t op, length, value = 0;
    uint8_t *payload;

    (void)state;
    start_daemon(SIM_BOARD_BASE2);
    assert_call(0xdb0002, read_reg, 8, read_reply, 8);
    assert_call(0xdb0003, write_reg, 8, write_reg, 8);
    assert_int_equal(sim_board_read(d.board, 0x2A0FC, &value), 0);
    assert_int_equal(value, 0x12345678);
    assert_error_call(0xdb0002, far_reg, 8, 3);
    assert_error_call(0xdb0002, far_reg, 7, 1);
    assert_call(0xdb0004, set_loopback, 8, set_loopback, 8);
    assert_call(0xdb0005, get_loopback, 8, loopback_reply, 8);
    payload = call(0xdb0006, stats, 16, &op, &length);
    assert_int_equal(op, 0xdb0006);
    assert_int_equal(length, 16 + 256);
    assert_memory_equal(payload, stats, 8);
    assert_int_equal(*(uint64_t *)(payload + 8), 256);
    free(payload);
    assert_call(0xdb0007, stats, 16, clear_reply, 16);
    assert_error_call(0xdb0006, ddr4_stats, 16, 6);
    payload = call(0xdb0008, NULL, 0, &op, &length);
    assert_int_equal(length, 16 * 12);
    assert_int_equal(payload[5 * 12], 3);     /* caui */
    assert_int_equal(payload[5 * 12 + 4], 1); /* pipe 1 */
    assert_int_equal(payload[5 * 12 + 8], 0); /* OK */
    free(payload);
    assert_call(0xdb000b, set_qos, 12, set_qos, 12);
    assert_call(0xdb000c, get_qos, 12, set_qos, 12);
    assert_call(0xdb0009, set_pipe_down, 8, set_pipe_down, 8);
    assert_call(0xdb000a, NULL, 0, pipes, 16);
}

static void test_unknown_op_gets_no_answer(void **state)
{
    ipc_msg_t request = { .op_id = 0xdb000d, .msg_type = 1 };
    ipc_msg_t reply;
    struct ipc_client *client;

    (void)state;
    start_daemon(SIM_BOARD_LHX);
    client = connect_client();
    assert_int_equal(ipc_client_send(client, &request), 0);
    assert_int_equal(ipc_client_recv(client, &reply, 500), -ETIMEDOUT);
    ipc_client_close(client);
    wait_for_text(d.log_path,
                  ": Error: PLM IPC request - invalid op id 14352397\n", 2000);
}

static void test_pipe_down_and_up_each_logged_once(void **state)
{
    const uint32_t down[2] = { 1, 0 };
    const uint32_t up[2] = { 1, 1 };

    (void)state;
    start_daemon(SIM_BOARD_BASE2);
    assert_call(0xdb0009, down, 8, down, 8);
    wait_for_text(d.log_path,
                  ": Informational - traffic pipe 1 changed to DOWN\n", 3000);
    usleep(1200000);
    assert_call(0xdb0009, up, 8, up, 8);
    wait_for_text(d.log_path,
                  ": Informational - traffic pipe 1 changed to UP\n", 3000);
    usleep(1200000);
    assert_int_equal(count_in(d.log_path, "traffic pipe 1 changed to DOWN"),
                     1);
    assert_int_equal(count_in(d.log_path, "traffic pipe 1 changed to UP"), 1);
    assert_int_equal(count_in(d.log_path, "traffic pipe 0 changed"), 0);
}

static void set_window_bit(uint32_t offset, unsigned int bit)
{
    uint32_t value = 0;

    assert_int_equal(sim_board_read(d.board, offset, &value), 0);
    assert_int_equal(sim_board_write(d.board, offset, value | 1u << bit), 0);
}

static void test_fatal_errors_raise_failed_once(void **state)
{
    (void)state;
    start_daemon(SIM_BOARD_BASE2);
    set_window_bit(0x20800, 9); /* CAUI pipe 1 */
    wait_for_text(d.log_path, ": FATAL - Pellin FAILED\n", 3000);
    assert_int_equal(
        count_in(d.log_path, ": FATAL - CAUI pipe 1: TX Buffer FIFO "
                             "Underflow\n"),
        1);
    assert_int_equal(count_in(d.log_path,
                              ": NPU fatal error handler: caui pipe 1 (TX "
                              "Buffer FIFO Underflow)\n"),
                     1);
    set_window_bit(0x16000, 16); /* parser pipe 0 */
    wait_for_text(d.log_path,
                  ": NPU fatal error handler: ingress-pkt-parser pipe 0 (Meta "
                  "Data FIFO Parity Error)\n",
                  3000);
    usleep(1200000);
    assert_int_equal(count_in(d.log_path, "Pellin FAILED"), 1);
    assert_int_equal(count_in(d.log_path, "NPU fatal error handler"), 2);
}

static void test_endpoint_not_created_ends_the_daemon(void **state)
{
    struct sockaddr_un address = { .sun_family = AF_UNIX };
    char directory[PATH_MAX + 16];
    int live;

    (void)state;
    make_board(SIM_BOARD_BASE2);
    /* A live socket of someone else is never taken over. */
    snprintf(directory, sizeof(directory), "%s/ipc",
             sim_board_path(d.board, SIM_PATH_RUN));
    assert_int_equal(mkdir(directory, 0755), 0);
    live = socket(AF_UNIX, SOCK_STREAM, 0);
    assert_true(strlen(d.socket_path) < sizeof(address.sun_path));
    memcpy(address.sun_path, d.socket_path, strlen(d.socket_path) + 1);
    assert_int_equal(bind(live, (struct sockaddr *)&address, sizeof(address)),
                     0);
    assert_int_equal(listen(live, 4), 0);
    spawn_daemon();
    assert_int_equal(wait_exit(), 255);
    close(live);
    assert_int_equal(count_in(d.log_path,
                              ": Error adding IPC_SOCK_SERVER endpoint\n"),
                     1);
    assert_int_equal(
        count_in(d.log_path,
                 ": Error initializing IPC for Pellin Manager\n\n"),
        1);
    assert_int_equal(count_in(d.log_path, ": pellin IPC server: Thread "
                                          "monitor detected failure\n"),
                     1);
    assert_int_equal(count_in(d.log_path, "exiting - Unrecoverable error\n"),
                     1);
}

static void test_no_device_ends_the_daemon(void **state)
{
    (void)state;
    make_board(SIM_BOARD_BASE2);
    assert_int_equal(sim_board_break_window(d.board), 0);
    spawn_daemon();
    assert_int_equal(wait_exit(), 255);
    assert_int_equal(count_in(d.log_path, ": Unrecoverable program error "
                                          "detected, exiting - Failed to "
                                          "initialize FPGA\n"),
                     1);
}

/* The daemon's syslog(3) blocks while the listener's queue is full, so a
 * thread keeps reading it; the test looks at what it kept. */
#define KEPT_MESSAGES 512

static struct sim_syslog_msg kept[KEPT_MESSAGES];
static int kept_count;
static pthread_mutex_t kept_lock = PTHREAD_MUTEX_INITIALIZER;
static atomic_bool draining;

static void *drain_syslog(void *unused)
{
    struct sim_syslog_msg message;

    (void)unused;
    while (atomic_load(&draining)) {
        if (sim_syslog_next(d.syslog_fd, 100, &message) != 0)
            continue;
        pthread_mutex_lock(&kept_lock);
        if (kept_count < KEPT_MESSAGES)
            kept[kept_count++] = message;
        pthread_mutex_unlock(&kept_lock);
    }
    return NULL;
}

static const struct sim_syslog_msg *kept_message(const char *text)
{
    const struct sim_syslog_msg *found = NULL;

    pthread_mutex_lock(&kept_lock);
    for (int i = 0; i < kept_count && found == NULL; i++)
        if (strcmp(kept[i].text, text) == 0)
            found = &kept[i];
    pthread_mutex_unlock(&kept_lock);
    return found;
}

static void test_without_log_directory_runs_on_syslog(void **state)
{
    const uint32_t read_reg[2] = { 0x10, 0 };
    const uint32_t read_reply[2] = { 0x10, 0x24031510 };
    char command[PATH_MAX + 16];
    const struct sim_syslog_msg *message;
    pthread_t drain;

    (void)state;
    make_board(SIM_BOARD_BASE2);
    listen_to_syslog();
    snprintf(command, sizeof(command), "rm -rf %s",
             sim_board_path(d.board, SIM_PATH_LOGS));
    assert_int_equal(system(command), 0);
    kept_count = 0;
    atomic_store(&draining, true);
    assert_int_equal(pthread_create(&drain, NULL, drain_syslog, NULL), 0);
    spawn_daemon();
    assert_call(0xdb0002, read_reg, 8, read_reply, 8);
    atomic_store(&draining, false);
    pthread_join(drain, NULL);
    message = kept_message("Informational - LH FPGA initialization start");
    assert_non_null(message);
    assert_string_equal(message->ident, "Pellin Manager");
    assert_int_equal(message->severity, 6);
    assert_int_equal(message->facility, 3);
    message = kept_message("Informational - Larks Hollow FPGA Initialized");
    assert_non_null(message);
    assert_string_equal(message->ident, "larks-hollow-fpga");
    assert_non_null(kept_message("read register - addr 0xf0000010, data "
                                 "0x24031510"));
    assert_int_equal(access(d.log_path, F_OK), -1);
}

int main(void)
{
#define T(name) cmocka_unit_test_teardown(name, teardown)
    const struct CMUnitTest tests[] = {
        T(test_start_up_on_two_pipe_board),
        T(test_start_up_on_one_pipe_and_lhx_boards),
        T(test_boards_not_served_exit_0_quietly),
        T(test_board_type_5_is_served),
        T(test_every_op_over_the_socket),
        T(test_unknown_op_gets_no_answer),
        T(test_pipe_down_and_up_each_logged_once),
        T(test_fatal_errors_raise_failed_once),
        T(test_endpoint_not_created_ends_the_daemon),
        T(test_no_device_ends_the_daemon),
        T(test_without_log_directory_runs_on_syslog),
    };

    signal(SIGPIPE, SIG_IGN);
    return cmocka_run_group_tests(tests, NULL, NULL);
}
