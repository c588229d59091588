/* End to end on simulated boards (Parts 2.1, 2.2, 1.2): the real
 * libpciaccess finds and maps the board, the real setpci writes its
 * configuration space, syslog(3) carries the lines. */
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "cmocka_all.h"
#include "lh_log.hpp"
#include "log_file.hpp"
#include "simboard.hpp"

#define PROBE_TIMEOUT_MS 20000

struct run {
    struct sim_board *board;
    char root[PATH_MAX];
    char log_path[PATH_MAX];
    int status;
};

static struct run run;

static int setup_board(enum sim_board_kind kind)
{
    strcpy(run.root, "/tmp/lh_e2e_XXXXXX");
    assert_non_null(mkdtemp(run.root));
    strcat(run.root, "/board");
    if (sim_board_create(run.root, kind, &run.board) != 0)
        fail_msg("board: %s", sim_board_last_error());
    snprintf(run.log_path, sizeof(run.log_path), "%s/larks_hollow_fpga.log",
             sim_board_path(run.board, SIM_PATH_LOGS));
    return 0;
}

static int teardown(void **state)
{
    char parent[PATH_MAX];

    (void)state;
    snprintf(parent, sizeof(parent), "%s", run.root);
    *strrchr(parent, '/') = '\0';
    if (run.board != NULL)
        sim_board_destroy(run.board);
    run.board = NULL;
    rmdir(parent);
    return 0;
}

static void run_probe(const struct sim_sandbox_opts *opts)
{
    char *const argv[] = { (char *)BRINGUP_PROBE_PATH, NULL };
    pid_t pid = sim_board_spawn(run.board, opts, argv);

    if (pid < 0)
        fail_msg("spawn: %s", sim_board_last_error());
    assert_int_equal(sim_wait(pid, PROBE_TIMEOUT_MS, &run.status), 0);
    assert_true(WIFEXITED(run.status));
}

static uint32_t window_word(uint32_t offset)
{
    uint32_t value = 0;

    assert_int_equal(sim_board_read(run.board, offset, &value), 0);
    return value;
}

static uint16_t command_word(void)
{
    uint16_t value = 0xFFFF;

    assert_int_equal(sim_board_config_read16(run.board, 4, &value), 0);
    return value;
}

/* What bring-up logs and leaves on each kind of board. */
struct board_case {
    enum sim_board_kind kind;
    const char *lines[5];
    uint16_t command_word; /* after bring-up */
};

static const struct board_case base_two_pipes = {
    SIM_BOARD_BASE2,
    { "Informational - pci get map, found controller type 0x1106",
      "Informational - PCI device found: name 'Control Status', fs: "
      "/sys/bus/pci/devices/0000:03:00.0, addr 0xf0000000, "
      "size(bytes) 262144",
      "Found CSR device - Control Status, type (0)",
      "revision: 0x00010203, image timestamp (M/D/Y Hour): 03/15/2024 10:00",
      "read register - addr 0xf0000010, data 0x24031510" },
    0x0000,
};

static const struct board_case base_one_pipe = {
    SIM_BOARD_BASE1,
    { "Informational - pci get map, found controller type 0x1109",
      "Informational - PCI device found: name 'Control Status', fs: "
      "/sys/bus/pci/devices/0000:03:00.0, addr 0xf0000000, "
      "size(bytes) 262144",
      "Found CSR device - Control Status, type (0)",
      "revision: 0x00010203, image timestamp (M/D/Y Hour): 03/15/2024 10:00",
      "read register - addr 0xf0000010, data 0x24031510" },
    0x0000,
};

/* setpci enables memory space; the read line shows region 0's address,
 * which the LHX image does not use (Part 2.2). */
static const struct board_case lhx = {
    SIM_BOARD_LHX,
    { "Informational - pci get map, found controller type 0x1126",
      "Informational - PCI device found: name 'Control Status', fs: "
      "/sys/bus/pci/devices/0000:03:00.0, addr 0xf1000000, "
      "size(bytes) 131072",
      "Found CSR device - Control Status, type (2)",
      "revision: 0x00010203, image timestamp (M/D/Y Hour): 03/15/2024 10:00",
      "read register - addr 0x00000010, data 0x24031510" },
    0x0002,
};

static void assert_bringup(const struct board_case *c)
{
    setup_board(c->kind);
    assert_int_equal(command_word(), 0x0000);
    run_probe(NULL);
    assert_int_equal(WEXITSTATUS(run.status), 0);
    assert_log_file_lines(run.log_path, LH_LOG_STAMP_FORMAT, c->lines, 5);
    assert_int_equal(window_word(0x0FC), 0x80000000);
    assert_int_equal(command_word(), c->command_word);
}

static void test_base_two_pipe_board(void **state)
{
    (void)state;
    assert_bringup(&base_two_pipes);
}

static void test_base_one_pipe_board(void **state)
{
    (void)state;
    assert_bringup(&base_one_pipe);
}

static void test_lhx_board(void **state)
{
    (void)state;
    assert_bringup(&lhx);
}

static void test_unmappable_board_has_no_csr_device(void **state)
{
    static const char *const lines[] = {
        "Informational - pci get map, found controller type 0x1106",
        "PCI - PCI device mapping failed for 'Control Status' failed",
        "",
        "Control Status Register device not found",
    };

    (void)state;
    setup_board(SIM_BOARD_BASE2);
    assert_int_equal(sim_board_break_window(run.board), 0);
    run_probe(NULL);
    assert_int_equal(WEXITSTATUS(run.status), 4);
    assert_log_file_lines(run.log_path, LH_LOG_STAMP_FORMAT, lines, 4);
}

static void test_missing_idprom_is_unknown_type_zero(void **state)
{
    static const char *const lines[] = {
        "Informational - pci get map, found controller type 0x0000",
        "PCI - pci get map, unknown controller type 0x0000",
    };

    (void)state;
    setup_board(SIM_BOARD_BASE2);
    assert_int_equal(sim_board_set_idprom(run.board, NULL), 0);
    run_probe(NULL);
    assert_int_equal(WEXITSTATUS(run.status), 2);
    assert_log_file_lines(run.log_path, LH_LOG_STAMP_FORMAT, lines, 2);
    assert_int_equal(window_word(0x0FC), 0);
}

static void test_1124_outside_simulation_finds_nothing(void **state)
{
    static const char *const lines[] = {
        "Informational - pci get map, found controller type 0x1124",
    };

    (void)state;
    setup_board(SIM_BOARD_BASE2);
    assert_int_equal(
        sim_board_set_idprom(run.board, "CONTROLLER_TYPE=4388\nQRN_SIM=0\n"),
        0);
    run_probe(NULL);
    assert_int_equal(WEXITSTATUS(run.status), 2);
    assert_log_file_lines(run.log_path, LH_LOG_STAMP_FORMAT, lines, 1);
}

static void test_1124_in_simulation_maps_the_base_board(void **state)
{
    (void)state;
    setup_board(SIM_BOARD_BASE2);
    assert_int_equal(
        sim_board_set_idprom(run.board, "CONTROLLER_TYPE=4388\nQRN_SIM=1\n"),
        0);
    run_probe(NULL);
    assert_int_equal(WEXITSTATUS(run.status), 0);
    assert_int_equal(window_word(0x0FC), 0x80000000);
}

struct expected_syslog {
    int severity;
    const char *text;
};

static void test_syslog_carries_ident_severity_and_text(void **state)
{
    static const struct expected_syslog expected[] = {
        { 6, "Informational - pci get map, found controller type 0x1106" },
        { 6, "Informational - PCI device found: name 'Control Status', fs: "
             "/sys/bus/pci/devices/0000:03:00.0, addr 0xf0000000, "
             "size(bytes) 262144" },
        { 7, "Found CSR device - Control Status, type (0)" },
        { 6, "revision: 0x00010203, image timestamp (M/D/Y Hour): "
             "03/15/2024 10:00" },
        { 7, "read register - addr 0xf0000010, data 0x24031510" },
    };
    char socket_path[PATH_MAX + 16];
    struct sim_sandbox_opts opts;
    struct sim_syslog_msg message;
    int fd;

    (void)state;
    setup_board(SIM_BOARD_BASE2);
    snprintf(socket_path, sizeof(socket_path), "%s/log.sock", run.root);
    fd = sim_syslog_open(socket_path);
    assert_true(fd >= 0);
    opts.syslog_socket = socket_path;
    run_probe(&opts);
    assert_int_equal(WEXITSTATUS(run.status), 0);
    for (size_t i = 0; i < sizeof(expected) / sizeof(expected[0]); i++) {
        assert_int_equal(sim_syslog_next(fd, 2000, &message), 0);
        assert_string_equal(message.ident, "larks-hollow-fpga");
        assert_int_equal(message.facility, 3);
        assert_int_equal(message.severity, expected[i].severity);
        assert_string_equal(message.text, expected[i].text);
        assert_true(message.pid > 0);
    }
    assert_int_equal(sim_syslog_next(fd, 100, &message), -1);
    sim_syslog_close(fd, socket_path);
}

int main(void)
{
#define T(name) cmocka_unit_test_teardown(name, teardown)
    const struct CMUnitTest tests[] = {
        T(test_base_two_pipe_board),
        T(test_base_one_pipe_board),
        T(test_lhx_board),
        T(test_unmappable_board_has_no_csr_device),
        T(test_missing_idprom_is_unknown_type_zero),
        T(test_1124_outside_simulation_finds_nothing),
        T(test_1124_in_simulation_maps_the_base_board),
        T(test_syslog_carries_ident_severity_and_text),
    };

    return cmocka_run_group_tests(tests, NULL, NULL);
}
