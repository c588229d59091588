/* End to end (Parts 2.4, 2.6): lh_fpga_init on simulated boards with the
 * real libpciaccess, the poll thread finding a fatal bit written into the
 * window file, the dump file, the callback, and shutdown. */
#define _GNU_SOURCE
#include <dirent.h>
#include <limits.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include "cmocka_all.h"
#include "lh_log.h"
#include "log_expect.h"
#include "log_file.h"
#include "simboard.h"

#define START_TIMEOUT_MS 10000
#define FOUND_WITHIN_MS 1000
#define EXIT_TIMEOUT_MS 5000

struct probe {
    struct sim_board *board;
    char parent[PATH_MAX];
    char log_path[PATH_MAX + 32];
    char callbacks_path[PATH_MAX + 32];
    pid_t pid;
};

static struct probe probe;

static long long now_ms(void)
{
    struct timespec now;

    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * 1000LL + now.tv_nsec / 1000000;
}

static int file_has(const char *path, const char *text)
{
    char *content = read_whole_file(path, NULL);
    int found = content != NULL && strstr(content, text) != NULL;

    free(content);
    return found;
}

/* Waits until the file holds `text`; returns the milliseconds it took, or
 * fails after `timeout_ms`. */
static long long wait_for_text(const char *path, const char *text,
                               int timeout_ms)
{
    long long start = now_ms();

    while (!file_has(path, text)) {
        if (now_ms() - start > timeout_ms)
            fail_msg("\"%s\" not in %s after %d ms", text, path, timeout_ms);
        usleep(10000);
    }
    return now_ms() - start;
}

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

static int count_lines_with(const char *path, const char *text)
{
    char *content = read_whole_file(path, NULL);
    int count = 0;

    for (char *at = content; at != NULL && (at = strstr(at, text)) != NULL;
         at += strlen(text))
        count++;
    free(content);
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
    assert_int_equal(count_lines_with(probe.callbacks_path, "module "), 1);
    assert_int_equal(count_lines_with(probe.log_path, "FATAL - "), 1);
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
    assert_int_equal(count_lines_with(probe.callbacks_path, "module "), 1);
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

int main(void)
{
#define T(name) cmocka_unit_test_teardown(name, teardown)
    const struct CMUnitTest tests[] = {
        T(test_fatal_error_found_dumped_and_reported_once),
        T(test_lhx_fatal_error),
        T(test_one_pipe_board_starts_and_stops),
    };

    return cmocka_run_group_tests(tests, NULL, NULL);
}
