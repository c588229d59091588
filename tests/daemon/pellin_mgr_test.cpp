/* Part 1.1: board gating, start-up provisioning, pipe enabling, thread
 * start and supervision, and the unrecoverable path, against the fake
 * library. Threads are started by a wrap that can fail them or run bodies
 * that end at once. */
#include <errno.h>
#include <pthread.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "board_stub.hpp"
#include "cmocka_all.h"
#include "daemon_support.hpp"
#include "fake_lh.hpp"
#include "log_file.hpp"
#include "pellin_mgr.hpp"
#include "plm_log.hpp"
#include "private_tmp.hpp"
#include "syslog_capture.hpp"

static char system_commands[4][64];
static int system_calls;
static int failing_thread; /* 1-based pthread_create that fails; 0: none */
static int thread_calls;

int __wrap_system(const char *command)
{
    if (system_calls < 4)
        snprintf(system_commands[system_calls], 64, "%s", command);
    system_calls++;
    return 0;
}

int __real_pthread_create(pthread_t *thread, const pthread_attr_t *attr,
                          void *(*start)(void *), void *arg);

static void *end_at_once(void *arg)
{
    return arg;
}

/* The threads the wrap started, and whether the monitor joined them. */
static pthread_t started[2];
static int joined[2];
static int started_count;

/* The daemon's threads end at once, so that main's supervision finds
 * them; the one numbered `failing_thread` is not started at all. */
int __wrap_pthread_create(pthread_t *thread, const pthread_attr_t *attr,
                          void *(*start)(void *), void *arg)
{
    int result;

    (void)start;
    if (++thread_calls == failing_thread)
        return EAGAIN;
    result = __real_pthread_create(thread, attr, end_at_once, arg);
    if (result == 0 && started_count < 2)
        started[started_count++] = *thread;
    return result;
}

int __real_pthread_tryjoin_np(pthread_t thread, void **result);

int __wrap_pthread_tryjoin_np(pthread_t thread, void **result)
{
    int outcome = __real_pthread_tryjoin_np(thread, result);

    for (int i = 0; i < started_count; i++)
        if (outcome == 0 && pthread_equal(started[i], thread))
            joined[i] = 1;
    return outcome;
}

/* Joins what main left running, so no test leaves a thread behind. */
static void join_started_threads(void)
{
    for (int i = 0; i < started_count; i++)
        if (!joined[i])
            pthread_join(started[i], NULL);
    started_count = 0;
    joined[0] = joined[1] = 0;
}

static lh_module_entry module_list[8];

static void set_module_list(const lh_module_entry *entries, size_t count)
{
    memcpy(module_list, entries, count * sizeof(*entries));
    module_list[count] = (lh_module_entry){ LH_MOD_END, 0 };
    fake_lh.module_list = module_list;
}

static int setup(void **state)
{
    static const lh_module_entry two_parsers[] = {
        { LH_MOD_CAUI, 0 }, { LH_MOD_INGRESS_PKT_PARSER, 0 },
        { LH_MOD_INGRESS_PKT_PARSER, 1 },
    };

    (void)state;
    fake_lh_reset();
    set_module_list(two_parsers, 3);
    fake_lh.pipe_count = 2;
    stub_board_type = 4;
    stub_board_type_calls = 0;
    stub_bramble_sim = 0;
    system_calls = 0;
    thread_calls = 0;
    failing_thread = 0;
    syslog_capture_reset();
    unlink(PLM_LOG_PATH);
    return 0;
}

static int teardown(void **state)
{
    (void)state;
    join_started_threads();
    free_monitor_entries();
    return 0;
}

static void assert_service_taken_down(int board_type_reads)
{
    assert_int_equal(plm_main(), 0);
    assert_int_equal(system_calls, 1);
    assert_string_equal(system_commands[0], "keeper_svc down pellin_mgr");
    assert_int_equal(stub_board_type_calls, board_type_reads);
    assert_int_equal(syslog_capture_count(), 0);
    assert_int_equal(fake_lh.call_count, 0);
    assert_int_equal(access(PLM_LOG_PATH, F_OK), -1);
}

static void test_other_boards_are_not_served(void **state)
{
    static const int boards[] = { 0, 3, 6, 7 };

    (void)state;
    for (size_t i = 0; i < sizeof(boards) / sizeof(boards[0]); i++) {
        teardown(NULL);
        setup(NULL);
        stub_board_type = boards[i];
        assert_service_taken_down(2);
    }
}

static void test_simulator_is_not_served(void **state)
{
    (void)state;
    stub_bramble_sim = 1;
    assert_service_taken_down(1);
}

static void assert_calls(const char *const *calls, size_t count)
{
    for (size_t i = 0; i < count && i < fake_lh.call_count; i++)
        assert_string_equal(fake_lh.calls[i], calls[i]);
    assert_int_equal(fake_lh.call_count, count);
}

#define DAEMON_LOG PLM_LOG_PATH
#define STAMP PLM_LOG_STAMP_FORMAT

static void test_board_5_starts_and_provisions(void **state)
{
    static const char *const calls[] = {
        "lh_fpga_init(/opt/orvel/platform/logs/pellin_mgr.log)",
        "lh_get_module_list()",
        "lh_set_ingress_qos(0, 5, 2)",
        "lh_set_ingress_qos(0, 4, 1)",
        "lh_set_ingress_qos(0, 3, 1)",
        "lh_set_ingress_qos(0, 2, 0)",
        "lh_set_ingress_qos(0, 0, 0)",
        "lh_set_ingress_qos(1, 5, 2)",
        "lh_set_ingress_qos(1, 4, 1)",
        "lh_set_ingress_qos(1, 3, 1)",
        "lh_set_ingress_qos(1, 2, 0)",
        "lh_set_ingress_qos(1, 0, 0)",
        "lh_get_traffic_pipe_count()",
        "lh_set_traffic_pipe_state(0, 1)",
        "lh_set_traffic_pipe_state(1, 1)",
        "lh_fpga_shutdown()",
    };
    static const char *const lines[] = {
        "Informational - LH FPGA initialization start",
        "Informational - LH FPGA initialization complete",
        "Informational - Found 2 traffic pipes",
        "Informational - Traffic pipe 0 enabled",
        "Informational - Traffic pipe 1 enabled",
        "Pellin Manager: create system poll thread failed",
        "Unrecoverable program error detected, exiting - Unrecoverable error",
    };

    (void)state;
    stub_board_type = 5;
    failing_thread = 1;
    assert_int_equal(plm_main(), -1);
    assert_int_equal(stub_board_type_calls, 2);
    assert_int_equal(system_calls, 0);
    assert_calls(calls, sizeof(calls) / sizeof(calls[0]));
    assert_log_file_lines(DAEMON_LOG, STAMP, lines, 7);
    assert_int_equal(syslog_capture_get(5)->severity, LOG_CRIT);
}

static void test_failed_fpga_init_is_unrecoverable(void **state)
{
    static const char *const lines[] = {
        "Informational - LH FPGA initialization start",
        "Unrecoverable program error detected, exiting - Failed to "
        "initialize FPGA",
        "Unrecoverable program error detected, exiting - Unrecoverable error",
    };
    static const char *const calls[] = {
        "lh_fpga_init(/opt/orvel/platform/logs/pellin_mgr.log)",
        "lh_fpga_shutdown()",
    };

    (void)state;
    fake_lh.fail_call = 1;
    assert_int_equal(plm_main(), -1);
    assert_log_file_lines(DAEMON_LOG, STAMP, lines, 3);
    assert_calls(calls, 2);
    assert_int_equal(syslog_capture_get(1)->severity, LOG_CRIT);
}

static void test_failed_module_list_is_unrecoverable(void **state)
{
    static const char *const lines[] = {
        "Informational - LH FPGA initialization start",
        "Informational - LH FPGA initialization complete",
        "Unrecoverable program error detected, exiting - Failed to "
        "retrieve module list",
        "Unrecoverable program error detected, exiting - Unrecoverable error",
    };

    (void)state;
    fake_lh.module_list_result = -1;
    assert_int_equal(plm_main(), -1);
    assert_log_file_lines(DAEMON_LOG, STAMP, lines, 4);
}

static void test_failed_qos_row_does_not_stop_start_up(void **state)
{
    static const char *const lines[] = {
        "Informational - LH FPGA initialization start",
        "Informational - LH FPGA initialization complete",
        "Error - Failed to set QoS profile for pipe 0",
        "Informational - Found 2 traffic pipes",
        "Informational - Traffic pipe 0 enabled",
        "Informational - Traffic pipe 1 enabled",
        "Pellin Manager: create system poll thread failed",
        "Unrecoverable program error detected, exiting - Unrecoverable error",
    };

    (void)state;
    failing_thread = 1;
    fake_lh.fail_call = 3; /* the first QoS row of pipe 0 */
    assert_int_equal(plm_main(), -1);
    assert_log_file_lines(DAEMON_LOG, STAMP, lines, 8);
    assert_int_equal(syslog_capture_get(2)->severity, LOG_ERR);
    assert_string_equal(fake_lh.calls[11], "lh_set_ingress_qos(1, 0, 0)");
}

static void test_failed_pipe_enable_does_not_stop_start_up(void **state)
{
    static const char *const lines[] = {
        "Informational - LH FPGA initialization start",
        "Informational - LH FPGA initialization complete",
        "Informational - Found 2 traffic pipes",
        "Informational - Traffic pipe 0 enabled",
        "Error - Failed to enable traffc pipe 1",
        "Pellin Manager: create system poll thread failed",
        "Unrecoverable program error detected, exiting - Unrecoverable error",
    };

    (void)state;
    failing_thread = 1;
    fake_lh.fail_call = 15; /* init, list, ten QoS rows, count, pipe 0 */
    assert_int_equal(plm_main(), -1);
    assert_log_file_lines(DAEMON_LOG, STAMP, lines, 7);
    assert_int_equal(syslog_capture_get(4)->severity, LOG_CRIT);
}

static void test_no_parser_no_qos_and_no_pipes(void **state)
{
    static const lh_module_entry no_parser[] = { { LH_MOD_CAUI, 0 } };
    static const char *const calls[] = {
        "lh_fpga_init(/opt/orvel/platform/logs/pellin_mgr.log)",
        "lh_get_module_list()",
        "lh_get_traffic_pipe_count()",
        "lh_fpga_shutdown()",
    };

    (void)state;
    set_module_list(no_parser, 1);
    fake_lh.pipe_count = 0;
    failing_thread = 1;
    assert_int_equal(plm_main(), -1);
    assert_calls(calls, 4);
    assert_log_file_has_line(DAEMON_LOG, STAMP,
                             "Informational - Found 0 traffic pipes");
}

static void test_both_parser_ids_on_one_pipe_provision_twice(void **state)
{
    static const lh_module_entry both[] = {
        { LH_MOD_INGRESS_PKT_PARSER, 0 }, { LH_MOD_LHX_INGRESS_PKT_PARSER, 0 },
    };

    (void)state;
    set_module_list(both, 2);
    fake_lh.pipe_count = 0;
    failing_thread = 1;
    assert_int_equal(plm_main(), -1);
    assert_int_equal(fake_lh.call_count, 2 + 10 + 2);
    assert_string_equal(fake_lh.calls[2], "lh_set_ingress_qos(0, 5, 2)");
    assert_string_equal(fake_lh.calls[7], "lh_set_ingress_qos(0, 5, 2)");
    assert_string_equal(fake_lh.calls[11], "lh_set_ingress_qos(0, 0, 0)");
}

static void test_failed_ipc_thread_is_unrecoverable(void **state)
{
    (void)state;
    failing_thread = 2;
    assert_int_equal(plm_main(), -1);
    assert_log_file_has_line(DAEMON_LOG, STAMP,
                             "Pellin Manager: create IPC server thread failed");
    assert_log_file_has_line(DAEMON_LOG, STAMP,
                             "Pellin Manager system poll thread started...");
}

static void test_thread_that_returned_ends_the_daemon(void **state)
{
    (void)state;
    assert_int_equal(plm_main(), -1);
    /* Newest first: the IPC server is found before the poll thread. */
    assert_log_file_has_line(DAEMON_LOG, STAMP,
                             "pellin IPC server: Thread monitor detected "
                             "failure");
    assert_log_file_has_line(
        DAEMON_LOG, STAMP,
        "Unrecoverable program error detected, exiting - Unrecoverable error");
    assert_string_equal(fake_lh.calls[fake_lh.call_count - 1],
                        "lh_fpga_shutdown()");
}

int main(void)
{
#define T(name) cmocka_unit_test_setup_teardown(name, setup, teardown)
    const struct CMUnitTest tests[] = {
        T(test_other_boards_are_not_served),
        T(test_simulator_is_not_served),
        T(test_board_5_starts_and_provisions),
        T(test_failed_fpga_init_is_unrecoverable),
        T(test_failed_module_list_is_unrecoverable),
        T(test_failed_qos_row_does_not_stop_start_up),
        T(test_failed_pipe_enable_does_not_stop_start_up),
        T(test_no_parser_no_qos_and_no_pipes),
        T(test_both_parser_ids_on_one_pipe_provision_twice),
        T(test_failed_ipc_thread_is_unrecoverable),
        T(test_thread_that_returned_ends_the_daemon),
    };

    if (enter_private_dirs() != 0)
        return 1;
    return cmocka_run_group_tests(tests, NULL, NULL);
}
