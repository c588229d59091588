/* End to end (Parts 2.4, 2.6): lh_fpga_init on simulated boards with the
 * real libpciaccess, the poll thread finding a fatal bit written into the
 * window file, the dump file, the callback, and shutdown. */
#include <dirent.h>
#include <limits.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include "cmocka_all.h"
#include "file_watch.hpp"
#include "lh_log.hpp"
#include "log_expect.hpp"
#include "log_file.hpp"
#include "simboard.hpp"

#define START_TIMEOUT_MS 10000
#define FOUND_WITHIN_MS 1000
#define EXIT_TIMEOUT_MS 5000
#define LH_ARRAY_COUNT(a) (sizeof(a) / sizeof((a)[0]))

struct probe {
    struct sim_board *board;
    char parent[PATH_MAX];
    char log_path[PATH_MAX + 32];
    char callbacks_path[PATH_MAX + 32];
    pid_t pid;
};

static struct probe probe;

static void start_probe(enum sim_board_kind kind)
{
    char root[PATH_MAX + 16];
    char *const argv[] = { (char *)LIBRARY_PROBE_PATH, NULL };

    strcpy(probe.parent, "/tmp/lh_lib_e2e_XXXXXX");
    assert_non_null(mkdtemp(probe.parent));
    snprintf(root, sizeof(root), "%s/board", probe.parent);
    if (sim_board_create(root, kind, &probe.board) != 0)
        fail_msg("board: %s", sim_board_last_error());
    snprintf(probe.log_path, sizeof(probe.log_path),
             "%s/larks_hollow_fpga.log",
             sim_board_path(probe.board, SIM_PATH_LOGS));
    snprintf(probe.callbacks_path, sizeof(probe.callbacks_path),
             "%s/callbacks.txt", sim_board_path(probe.board, SIM_PATH_LOGS));
    probe.pid = sim_board_spawn(probe.board, NULL, argv);
    assert_true(probe.pid > 0);
    wait_for_text(probe.log_path, "Larks Hollow FPGA Initialized",
                  START_TIMEOUT_MS);
}

static int stop_probe(void)
{
    int status = -1;

    kill(probe.pid, SIGTERM);
    if (sim_wait(probe.pid, EXIT_TIMEOUT_MS, &status) != 0)
        return -1;
    probe.pid = 0;
    return status;
}

static int teardown(void **state)
{
    (void)state;
    if (probe.pid > 0)
        stop_probe();
    if (probe.board != NULL)
        sim_board_destroy(probe.board);
    probe.board = NULL;
    rmdir(probe.parent);
    return 0;
}

static uint32_t window_word(uint32_t offset)
{
    uint32_t value = 0;

    assert_int_equal(sim_board_read(probe.board, offset, &value), 0);
    return value;
}

static void set_window_bit(uint32_t offset, unsigned int bit)
{
    assert_int_equal(
        sim_board_write(probe.board, offset, window_word(offset) | 1u << bit),
        0);
}

/* The dump files in the log directory; the first one's content. */
static int dump_files(char **first_content)
{
    const char *logs = sim_board_path(probe.board, SIM_PATH_LOGS);
    DIR *dir = opendir(logs);
    struct dirent *entry;
    char path[PATH_MAX + 256];
    int count = 0;

    assert_non_null(dir);
    while ((entry = readdir(dir)) != NULL) {
        if (strncmp(entry->d_name, "lark_hollow_dump__", 18) != 0)
            continue;
        if (count++ == 0 && first_content != NULL) {
            snprintf(path, sizeof(path), "%s/%s", logs, entry->d_name);
            *first_content = read_whole_file(path, NULL);
        }
    }
    closedir(dir);
    return count;
}

/* Waits for the snapshot register of a port to be written again by the
 * poll thread's update_stats. */
static int snapshot_rewritten(uint32_t snapshot_offset, int timeout_ms)
{
    long long start = now_ms();

    assert_int_equal(sim_board_write(probe.board, snapshot_offset, 0), 0);
    while (now_ms() - start < timeout_ms) {
        if (window_word(snapshot_offset) == 1)
            return 1;
        usleep(10000);
    }
    return 0;
}

static void test_fatal_error_found_dumped_and_reported_once(void **state)
{
    char *dump = NULL;
    long long took;

    (void)state;
    start_probe(SIM_BOARD_BASE2);
    /* CAUI pipe 1, fatal status 0x800 bit 9. */
    set_window_bit(0x20800, 9);
    took = wait_for_text(probe.log_path,
                         "FATAL - CAUI pipe 1: TX Buffer FIFO Underflow",
                         FOUND_WITHIN_MS);
    assert_true(took <= FOUND_WITHIN_MS);
    wait_for_text(probe.callbacks_path,
                  "module 3 pipe 1: TX Buffer FIFO Underflow\n", 2000);
    /* Two more polls: the failed block is left alone, the others go on. */
    assert_true(snapshot_rewritten(0x102B0, 2000));
    assert_false(snapshot_rewritten(0x202B0, 1200));
    assert_int_equal(count_in(probe.callbacks_path, "module "), 1);
    assert_int_equal(count_in(probe.log_path, "FATAL - "), 1);
    assert_int_equal(dump_files(&dump), 1);
    assert_non_null(dump);
    assert_non_null(strstr(dump, "module: caui, pipe: 0, status: OK\n"
                                 "module: caui, pipe: 1, status: FAILED\n"));
    assert_non_null(strstr(dump, "\n----------- Register Dump -----------\n"
                                 "0x00000: 0x00010203\n"));
    free(dump);
    assert_int_equal(stop_probe(), 0);
    assert_log_file_has_line(probe.log_path, LH_LOG_STAMP_FORMAT,
                             "Larks Hollow FPGA system poll thread "
                             "terminated...");
}

static void test_lhx_fatal_error(void **state)
{
    (void)state;
    start_probe(SIM_BOARD_LHX);
    /* Eth fatal status 0x1000 bits 3 and 8: bit 8 is tested first. */
    set_window_bit(0x11000, 3);
    set_window_bit(0x11000, 8);
    wait_for_text(probe.callbacks_path,
                  "module 11 pipe 0: RX Straddle AXI4 Interface Multiple SOP "
                  "error\n",
                  2000);
    assert_int_equal(dump_files(NULL), 1);
    assert_int_equal(stop_probe(), 0);
    assert_int_equal(count_in(probe.callbacks_path, "module "), 1);
}

static void test_one_pipe_board_starts_and_stops(void **state)
{
    (void)state;
    start_probe(SIM_BOARD_BASE1);
    assert_log_file_has_line(probe.log_path, LH_LOG_STAMP_FORMAT,
                             "Informational - CAUI module 0 context created");
    assert_true(snapshot_rewritten(0x102B0, 2000));
    assert_int_equal(stop_probe(), 0);
    assert_int_equal(dump_files(NULL), 0);
    assert_log_file_has_line(probe.log_path, LH_LOG_STAMP_FORMAT,
                             "Larks Hollow FPGA system poll thread "
                             "terminated...");
}

/* A fatal bit of one block instance and what it must produce. */
struct injected_error {
    uint32_t offset; /* of the status register in the window */
    unsigned int bit;
    const char *fatal_line;
    const char *callback_line;
    const char *status_line; /* in the dump */
};

static const struct injected_error base_errors[] = {
    { 0x00100, 0, "FATAL - Global pipe 0: die 0 SEM controller 0 heartbeat "
                  "has stopped",
      "module 0 pipe 0: die 0 SEM controller 0 heartbeat has stopped",
      "module: global, pipe: 0, status: FAILED" },
    { 0x01000, 5, "FATAL - PCIe pipe 0: PBUS Trgt FIFO Overflow",
      "module 1 pipe 0: PBUS Trgt FIFO Overflow",
      "module: pcie, pipe: 0, status: FAILED" },
    { 0x2A000, 16, "FATAL - DDR4 pipe 1: Uncorrectable ecc error has been "
                   "detected in the DDR4",
      "module 2 pipe 1: Uncorrectable ecc error has been detected in the DDR4",
      "module: ddr4, pipe: 1, status: FAILED" },
    { 0x10800, 9, "FATAL - CAUI pipe 0: TX Buffer FIFO Underflow",
      "module 3 pipe 0: TX Buffer FIFO Underflow",
      "module: caui, pipe: 0, status: FAILED" },
    { 0x22020, 29, "FATAL - NIC pipe 1: BudM Linked List Parity Error",
      "module 4 pipe 1: BudM Linked List Parity Error",
      "module: nic, pipe: 1, status: FAILED" },
    { 0x16000, 16, "FATAL - Ingress Pkt Parser pipe 0: Meta Data FIFO Parity "
                   "Error",
      "module 5 pipe 0: Meta Data FIFO Parity Error",
      "module: ingress-pkt-parser, pipe: 0, status: FAILED" },
    { 0x27700, 4, "FATAL - Ingress Pkt Classifier pipe 1: Reorder FIFO "
                  "Underflow",
      "module 6 pipe 1: Reorder FIFO Underflow",
      "module: ingress-pkt-classifier, pipe: 1, status: FAILED" },
    { 0x18000, 30, "FATAL - Ingress Pkt Processor pipe 0: Input Packet FIFO "
                   "Double bit ECC error",
      "module 7 pipe 0: Input Packet FIFO Double bit ECC error",
      "module: ingress-pkt-processor, pipe: 0, status: FAILED" },
    { 0x29000, 13, "FATAL - Egress Scheduler pipe 1: SCHE Out FIFO Overflow",
      "module 8 pipe 1: SCHE Out FIFO Overflow",
      "module: egress-scheduler, pipe: 1, status: FAILED" },
};

static const struct injected_error lhx_errors[] = {
    { 0x00100, 1, "FATAL - LHX Global pipe 0: die 0 SEM controller 0 has "
                  "detected a fatal error",
      "module 9 pipe 0: die 0 SEM controller 0 has detected a fatal error",
      "module: lhx-global, pipe: 0, status: FAILED" },
    { 0x01000, 0, "FATAL - LHX PCIe pipe 0: AXI-lite Command FIFO Underflow",
      "module 10 pipe 0: AXI-lite Command FIFO Underflow",
      "module: lhx-pcie, pipe: 0, status: FAILED" },
    { 0x11000, 0, "FATAL - Eth pipe 0: Eth IP TX Underflow",
      "module 11 pipe 0: Eth IP TX Underflow",
      "module: eth, pipe: 0, status: FAILED" },
    { 0x12030, 4, "FATAL - LHX NIC pipe 0: QDMA H2C Data Parity Error",
      "module 12 pipe 0: QDMA H2C Data Parity Error",
      "module: lhx-nic, pipe: 0, status: FAILED" },
    { 0x16000, 0, "FATAL - LHX Ingress Pkt Parser pipe 0: Priority Table "
                  "Parity Error",
      "module 13 pipe 0: Priority Table Parity Error",
      "module: lhx-ingress-pkt-parser, pipe: 0, status: FAILED" },
    { 0x19000, 0, "FATAL - LHX Egress Scheduler pipe 0: SCHE FIFO (Ingress "
                  "Path) Underflow",
      "module 14 pipe 0: SCHE FIFO (Ingress Path) Underflow",
      "module: lhx-egress-scheduler, pipe: 0, status: FAILED" },
};

/* Every dump file's content, one after the other. */
static char *all_dumps(void)
{
    const char *logs = sim_board_path(probe.board, SIM_PATH_LOGS);
    DIR *dir = opendir(logs);
    struct dirent *entry;
    char path[PATH_MAX + 256];
    char *all = strdup("");

    assert_non_null(dir);
    while ((entry = readdir(dir)) != NULL) {
        char *content, *joined;

        if (strncmp(entry->d_name, "lark_hollow_dump__", 18) != 0)
            continue;
        snprintf(path, sizeof(path), "%s/%s", logs, entry->d_name);
        content = read_whole_file(path, NULL);
        assert_non_null(content);
        assert_true(asprintf(&joined, "%s%s", all, content) > 0);
        free(all);
        free(content);
        all = joined;
    }
    closedir(dir);
    return all;
}

/* One block after the other fails; each gives its FATAL line, one more
 * callback and one more dump (two dumps in one second share a file, so
 * dumps are counted by their status sections). */
static void inject_one_by_one(const struct injected_error *errors,
                              size_t count)
{
    for (size_t i = 0; i < count; i++) {
        const struct injected_error *e = &errors[i];
        char callback[256];
        char *dumps;

        set_window_bit(e->offset, e->bit);
        wait_for_text(probe.log_path, e->fatal_line, FOUND_WITHIN_MS);
        snprintf(callback, sizeof(callback), "%s\n", e->callback_line);
        wait_for_text(probe.callbacks_path, callback, 2000);
        assert_int_equal(count_in(probe.callbacks_path, "module "),
                         (int)i + 1);
        dumps = all_dumps();
        assert_non_null(strstr(dumps, e->status_line));
        assert_int_equal(count_in_text(dumps, "----------- Module Status"),
                         (int)i + 1);
        free(dumps);
    }
    assert_int_equal(count_in(probe.log_path, "FATAL - "),
                     (int)count);
}

static void test_every_base_block_type_reports_once(void **state)
{
    (void)state;
    start_probe(SIM_BOARD_BASE2);
    inject_one_by_one(base_errors, LH_ARRAY_COUNT(base_errors));
    assert_int_equal(stop_probe(), 0);
}

static void test_every_lhx_block_type_reports_once(void **state)
{
    (void)state;
    start_probe(SIM_BOARD_LHX);
    inject_one_by_one(lhx_errors, LH_ARRAY_COUNT(lhx_errors));
    assert_int_equal(stop_probe(), 0);
}

/* The context-created lines of a bring-up, in list order, and no module
 * refused. */
static void assert_contexts_created(const char *const *lines, size_t count)
{
    char *log = read_whole_file(probe.log_path, NULL);
    const char *at = log;

    assert_non_null(log);
    for (size_t i = 0; i < count; i++) {
        at = strstr(at, lines[i]);
        if (at == NULL)
            fail_msg("no \"%s\" after the earlier contexts", lines[i]);
    }
    assert_int_equal(count_in_text(log, "context created"), (int)count);
    assert_null(strstr(log, "unsupported module"));
    free(log);
}

static void test_two_pipe_board_creates_16_contexts_in_list_order(void **state)
{
    static const char *const lines[] = {
        "Informational - Global module 0 context created\n",
        "Informational - PCIe module 0 context created\n",
        "Informational - DDR4 module 0 context created\n",
        "Informational - DDR4 module 1 context created\n",
        "Informational - CAUI module 0 context created\n",
        "Informational - CAUI module 1 context created\n",
        "Informational - NIC module 0 context created\n",
        "Informational - NIC module 1 context created\n",
        "Informational - Ingress Pkt Parser module 0 context created\n",
        "Informational - Ingress Pkt Parser module 1 context created\n",
        "Informational - Ingress Pkt Classifier module 0 context created\n",
        "Informational - Ingress Pkt Classifier module 1 context created\n",
        "Informational - Ingress Pkt Processor module 0 context created\n",
        "Informational - Ingress Pkt Processor module 1 context created\n",
        "Informational - Egress Scheduler module 0 context created\n",
        "Informational - Egress Scheduler module 1 context created\n",
    };

    (void)state;
    start_probe(SIM_BOARD_BASE2);
    assert_contexts_created(lines, LH_ARRAY_COUNT(lines));
}

static void test_one_pipe_board_creates_9_contexts(void **state)
{
    static const char *const lines[] = {
        "Informational - Global module 0 context created\n",
        "Informational - PCIe module 0 context created\n",
        "Informational - DDR4 module 0 context created\n",
        "Informational - CAUI module 0 context created\n",
        "Informational - NIC module 0 context created\n",
        "Informational - Ingress Pkt Parser module 0 context created\n",
        "Informational - Ingress Pkt Classifier module 0 context created\n",
        "Informational - Ingress Pkt Processor module 0 context created\n",
        "Informational - Egress Scheduler module 0 context created\n",
    };

    (void)state;
    start_probe(SIM_BOARD_BASE1);
    assert_contexts_created(lines, LH_ARRAY_COUNT(lines));
}

static void test_lhx_board_creates_6_contexts(void **state)
{
    static const char *const lines[] = {
        "Informational - LHX Global module 0 context created\n",
        "Informational - LHX PCIe module 0 context created\n",
        "Informational - Eth module 0 context created\n",
        "Informational - LHX NIC module 0 context created\n",
        "Informational - LHX Ingress Pkt Parser module 0 context created\n",
        "Informational - LHX Egress Scheduler module 0 context created\n",
    };

    (void)state;
    start_probe(SIM_BOARD_LHX);
    assert_contexts_created(lines, LH_ARRAY_COUNT(lines));
}

int main(void)
{
#define T(name) cmocka_unit_test_teardown(name, teardown)
    const struct CMUnitTest tests[] = {
        T(test_fatal_error_found_dumped_and_reported_once),
        T(test_lhx_fatal_error),
        T(test_one_pipe_board_starts_and_stops),
        T(test_every_base_block_type_reports_once),
        T(test_every_lhx_block_type_reports_once),
        T(test_two_pipe_board_creates_16_contexts_in_list_order),
        T(test_one_pipe_board_creates_9_contexts),
        T(test_lhx_board_creates_6_contexts),
    };

    return cmocka_run_group_tests(tests, NULL, NULL);
}
