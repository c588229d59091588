/* Part 1.7: pipe states at start and on change, the fatal-error handler and
 * the one-time FAILED alarm, against the fake library. */
#include <stdlib.h>
#include <string.h>

#include "cmocka_all.h"
#include "fake_lh.hpp"
#include "log_expect.hpp"
#include "plm_log.hpp"
#include "private_tmp.hpp"
#include "sys_poll.hpp"

static lh_module_entry module_list[4];

static int setup(void **state)
{
    (void)state;
    fake_lh_reset();
    memset(module_list, 0, sizeof(module_list));
    module_list[0] = (lh_module_entry){ LH_MOD_CAUI, 0 };
    module_list[1] = (lh_module_entry){ LH_MOD_CAUI, 1 };
    module_list[2] = (lh_module_entry){ LH_MOD_END, 0 };
    fake_lh.module_list = module_list;
    atomic_store(&plm_fatal_flag, 0);
    atomic_store(&plm_fatal_reported, 0);
    log_expect_start(&plm_log_file);
    return 0;
}

static int teardown(void **state)
{
    (void)state;
    log_expect_stop();
    return 0;
}

static void test_start_reports_every_pipe_and_registers_handler(void **state)
{
    uint32_t count = 0;
    uint8_t *last;

    (void)state;
    fake_lh.pipe_count = 2;
    fake_lh.pipe_states[0] = 1;
    last = plm_sys_poll_setup(&count);
    assert_non_null(last);
    assert_int_equal(count, 2);
    assert_int_equal(last[0], 1);
    assert_int_equal(last[1], 0);
    expect_log(LOG_INFO, "Informational - traffic pipe 0 is UP");
    expect_log(LOG_INFO, "Informational - traffic pipe 1 is DOWN");
    expect_no_more_logs();
    assert_ptr_equal(fake_lh.fatal_error_cb, plm_fatal_error_handler);
    assert_int_equal(atomic_load(&plm_fatal_flag), 0);
    free(last);
}

static void test_pipe_change_is_logged_once_each_way(void **state)
{
    uint8_t last[2] = { 1, 1 };

    (void)state;
    fake_lh.pipe_states[0] = 1;
    fake_lh.pipe_states[1] = 0;
    plm_sys_poll_pass(last, 2);
    plm_sys_poll_pass(last, 2);
    expect_log(LOG_INFO, "Informational - traffic pipe 1 changed to DOWN");
    expect_no_more_logs();
    fake_lh.pipe_states[1] = 1;
    plm_sys_poll_pass(last, 2);
    plm_sys_poll_pass(last, 2);
    expect_log(LOG_INFO, "Informational - traffic pipe 1 changed to UP");
    expect_no_more_logs();
}

static void test_unreadable_pipe_is_skipped(void **state)
{
    uint8_t last[2] = { 1, 1 };

    (void)state;
    fake_lh.result = -1;
    plm_sys_poll_pass(last, 2);
    assert_int_equal(last[0], 1);
    assert_int_equal(last[1], 1);
    expect_no_more_logs();
}

static void test_no_pipes_polls_nothing(void **state)
{
    uint8_t last[1] = { 0 };
    uint32_t count = 7;
    uint8_t *start;

    (void)state;
    start = plm_sys_poll_setup(&count);
    assert_non_null(start);
    assert_int_equal(count, 0);
    fake_lh.call_count = 0;
    plm_sys_poll_pass(last, 0);
    assert_int_equal(fake_lh.call_count, 0);
    expect_no_more_logs();
    free(start);
}

static void test_handler_names_the_module(void **state)
{
    lh_fatal_error_t report = { LH_MOD_INGRESS_PKT_PARSER, 1,
                                "Meta Data FIFO Overflow" };

    (void)state;
    plm_fatal_error_handler(report);
    expect_log(LOG_CRIT, "NPU fatal error handler: ingress-pkt-parser pipe 1 "
                         "(Meta Data FIFO Overflow)");
    assert_int_equal(atomic_load(&plm_fatal_flag), 1);
}

static void test_handler_accepts_any_module_id(void **state)
{
    lh_fatal_error_t report = { 99, 0, "odd" };

    (void)state;
    plm_fatal_error_handler(report);
    report.module_id = 15;
    plm_fatal_error_handler(report);
    expect_log(LOG_CRIT,
               "NPU fatal error handler: (unknown module) 99 pipe 0 (odd)");
    expect_log(LOG_CRIT,
               "NPU fatal error handler: (unknown module) 15 pipe 0 (odd)");
}

static void test_two_fatal_errors_one_failed_line(void **state)
{
    lh_fatal_error_t first = { LH_MOD_CAUI, 0, "TX Buffer FIFO Underflow" };
    lh_fatal_error_t second = { LH_MOD_NIC, 1, "QM Queue Underflow" };
    uint8_t last[1] = { 0 };

    (void)state;
    plm_sys_poll_pass(last, 0);
    plm_fatal_error_handler(first);
    plm_sys_poll_pass(last, 0);
    plm_fatal_error_handler(second);
    plm_sys_poll_pass(last, 0);
    plm_sys_poll_pass(last, 0);
    expect_log(LOG_CRIT, "NPU fatal error handler: caui pipe 0 (TX Buffer "
                         "FIFO Underflow)");
    expect_log(LOG_CRIT, "FATAL - Pellin FAILED");
    expect_log(LOG_CRIT,
               "NPU fatal error handler: nic pipe 1 (QM Queue Underflow)");
    expect_no_more_logs();
}

static void test_module_failed_before_start_raises_the_alarm(void **state)
{
    uint32_t count = 0;
    uint8_t *last;

    (void)state;
    fake_lh.module_states[LH_MOD_CAUI][1] = 1;
    last = plm_sys_poll_setup(&count);
    assert_non_null(last);
    assert_int_equal(atomic_load(&plm_fatal_flag), 1);
    plm_sys_poll_pass(last, count);
    expect_log(LOG_CRIT, "FATAL - Pellin FAILED");
    expect_no_more_logs();
    free(last);
}

int main(void)
{
#define T(name) cmocka_unit_test_setup_teardown(name, setup, teardown)
    const struct CMUnitTest tests[] = {
        T(test_start_reports_every_pipe_and_registers_handler),
        T(test_pipe_change_is_logged_once_each_way),
        T(test_unreadable_pipe_is_skipped),
        T(test_no_pipes_polls_nothing),
        T(test_handler_names_the_module),
        T(test_handler_accepts_any_module_id),
        T(test_two_fatal_errors_one_failed_line),
        T(test_module_failed_before_start_raises_the_alarm),
    };

    if (enter_private_tmp() != 0)
        return 1;
    return cmocka_run_group_tests(tests, NULL, NULL);
}
