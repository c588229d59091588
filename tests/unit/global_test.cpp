/* Part 3.2: the global block drivers (global, lhx_global) against a model of
 * the block's SEM status registers, one per die, that records every read
 * and can change its value from one read to the next. */
#include <stdbool.h>

#include "block_fixture.hpp"
#include "cmocka_all.h"
#include "fake_device.hpp"
#include "global.hpp"
#include "lh_drivers.hpp"
#include "lh_log.hpp"
#include "log_expect.hpp"
#include "mutex_wrap.hpp"

#define DIE0 0x100u
#define DIE1 0x140u
#define DIE2 0x180u

#define HEARTBEAT_BIT 0
#define FATAL_BIT     1
#define HEARTBEAT     (1u << HEARTBEAT_BIT)
#define FATAL         (1u << FATAL_BIT)

/* The block sits at window offset 0 on both images (Part 2.4); a second
 * site, 0x800, lets a test give another context a block of its own. */
#define GLOBAL_SITE 0
#define OTHER_SITE  1

static const struct bt_layout layout = {
    .sites = {0x0000, 0x0800},
    .site_count = 2,
    .span = 0x800,
    .status = {DIE0, DIE1, DIE2},
    .status_count = 3,
    .max_status_reads = 64,
};

static const struct bt_driver global = {
    .name = "Global",
    .ops = &global_ops,
    .device = &lh_desc_base_two_pipes,
};
static const struct bt_driver lhx = {
    .name = "LHX Global",
    .ops = &lhx_global_ops,
    .device = &lh_desc_lhx,
};
static const struct bt_driver *const drivers[] = {&global, &lhx};

static const struct bt_call refusals[] = {
    {"module fatal error detection", LOG_CRIT, 0, bt_call_fatal_error_detect},
};

static const struct bt_call null_refusals[] = {
    {"module fatal error detection", LOG_ERR, 0, bt_null_fatal_error_detect},
};

static const struct bt_error_row sem_rows[] = {
    {DIE0, HEARTBEAT_BIT, "die 0 SEM controller 0 heartbeat has stopped"},
    {DIE0, FATAL_BIT, "die 0 SEM controller 0 has detected a fatal error"},
    {DIE1, HEARTBEAT_BIT, "die 1 SEM controller 0 heartbeat has stopped"},
    {DIE1, FATAL_BIT, "die 1 SEM controller 0 has detected a fatal error"},
    {DIE2, HEARTBEAT_BIT, "die 2 SEM controller 0 heartbeat has stopped"},
    {DIE2, FATAL_BIT, "die 2 SEM controller 0 has detected a fatal error"},
};

/* lhx_global's rows: die 0's. */
#define LHX_ROWS 2

static const uint32_t all_global_reads[] = {DIE0, DIE0, DIE1, DIE1, DIE2, DIE2};

static struct reg_model *model;

static void start(lh_device_desc *desc)
{
    model = bt_start(&layout, desc);
    mutex_inits = 0;
}

static int teardown(void **state)
{
    mutex_init_fails = false;
    return fake_device_teardown(state);
}

static void store(uint32_t reg, uint32_t value)
{
    bt_store(GLOBAL_SITE, reg, value);
}

/* Ends a device mid-test, every message accounted for. */
static void finish(void)
{
    expect_no_more_logs();
    fake_device_teardown(NULL);
}

static void start_created(const struct bt_driver *driver)
{
    start(driver->device);
    bt_create(driver, 0, GLOBAL_SITE);
    bt_forget_reads();
}

/* ---- Contexts never created before: these run first, in this order. ---- */

static void test_detect_before_create_is_invalid_context(void **state)
{
    (void)state;
    start(&lh_desc_base_two_pipes);
    store(DIE0, HEARTBEAT | FATAL);
    for (size_t d = 0; d < BT_ARRAY_SIZE(drivers); d++) {
        bt_expect_refusals(drivers[d], refusals, 1, 0, "context");
        bt_expect_refusals(drivers[d], refusals, 1, 1, "context");
    }
    assert_int_equal(model->reads, 0);
    expect_no_more_logs();
}

static void test_pipe_1_refused_on_one_pipe_devices(void **state)
{
    (void)state;
    start(&lh_desc_base_one_pipe);
    bt_expect_create_refused(&global, 1, bt_site_base(OTHER_SITE));
    bt_expect_refusals(&global, refusals, 1, 1, "context");
    finish();

    start(&lh_desc_lhx);
    bt_expect_create_refused(&lhx, 1, bt_site_base(OTHER_SITE));
    bt_expect_refusals(&lhx, refusals, 1, 1, "context");
    assert_int_equal(model->writes, 0);
    expect_no_more_logs();
}

/* ---- Context creation. lhx_global pipe 1 is never created anywhere. ---- */

static void test_ops_tables_wire_the_two_operations(void **state)
{
    static const struct lh_block_ops expected_global = {
        .context_create = global_context_create,
        .fatal_error_detect = global_fatal_error_detect,
    };
    static const struct lh_block_ops expected_lhx = {
        .context_create = lhx_global_context_create,
        .fatal_error_detect = lhx_global_fatal_error_detect,
    };

    (void)state;
    bt_assert_ops(&global_ops, &expected_global);
    bt_assert_ops(&lhx_global_ops, &expected_lhx);
}

static void test_create_logs_the_created_line(void **state)
{
    (void)state;
    start(&lh_desc_base_two_pipes);
    assert_int_equal(global_context_create(0, bt_site_base(GLOBAL_SITE)), 0);
    expect_log(LOG_INFO, "Informational - Global module 0 context created");
    assert_int_equal(global_context_create(1, bt_site_base(OTHER_SITE)), 0);
    expect_log(LOG_INFO, "Informational - Global module 1 context created");
    finish();

    start(&lh_desc_lhx);
    assert_int_equal(lhx_global_context_create(0, bt_site_base(GLOBAL_SITE)),
                     0);
    expect_log(LOG_INFO, "Informational - LHX Global module 0 context "
                         "created");
    assert_int_equal(model->reads, 0);
    assert_int_equal(model->writes, 0);
    expect_no_more_logs();
}

static void test_create_makes_no_mutex(void **state)
{
    (void)state;
    start(&lh_desc_base_two_pipes);
    mutex_init_fails = true;
    bt_create(&global, 0, GLOBAL_SITE);
    bt_create(&lhx, 0, GLOBAL_SITE);
    assert_int_equal(mutex_inits, 0);
    store(DIE0, FATAL);
    bt_expect_fatal(&global, 0,
                    "die 0 SEM controller 0 has detected a fatal error");
    expect_no_more_logs();
}

static void test_create_refusals(void **state)
{
    (void)state;
    start(&lh_desc_base_two_pipes);
    for (size_t d = 0; d < BT_ARRAY_SIZE(drivers); d++)
        bt_expect_create_refusals(drivers[d]);
    assert_int_equal(model->reads, 0);
    assert_int_equal(model->writes, 0);
    expect_no_more_logs();
}

static void test_create_before_initialisation(void **state)
{
    (void)state;
    bt_expect_create_before_init(&layout, &global);
}

/* ---- Fatal error detection ---- */

static void test_each_global_bit_alone_reports_its_text(void **state)
{
    (void)state;
    start_created(&global);
    bt_walk_error_rows(&global, 0, GLOBAL_SITE, sem_rows,
                       BT_ARRAY_SIZE(sem_rows));
    assert_int_equal(model->writes, 0);
    expect_no_more_logs();
}

static void test_each_lhx_global_bit_alone_reports_its_text(void **state)
{
    (void)state;
    start_created(&lhx);
    bt_walk_error_rows(&lhx, 0, GLOBAL_SITE, sem_rows, LHX_ROWS);
    assert_int_equal(model->writes, 0);
    expect_no_more_logs();
}

static void test_heartbeat_wins_over_fatal_of_its_die(void **state)
{
    (void)state;
    start_created(&global);
    store(DIE0, HEARTBEAT | FATAL);
    bt_expect_fatal(&global, 0, "die 0 SEM controller 0 heartbeat has stopped");
    bt_set_statuses(GLOBAL_SITE, 0, 0, 0);
    store(DIE1, HEARTBEAT | FATAL);
    bt_expect_fatal(&global, 0, "die 1 SEM controller 0 heartbeat has stopped");
    bt_set_statuses(GLOBAL_SITE, 0, 0, 0);
    store(DIE2, HEARTBEAT | FATAL);
    bt_expect_fatal(&global, 0, "die 2 SEM controller 0 heartbeat has stopped");
    finish();

    start_created(&lhx);
    store(DIE0, HEARTBEAT | FATAL);
    bt_expect_fatal(&lhx, 0, "die 0 SEM controller 0 heartbeat has stopped");
    expect_no_more_logs();
}

static void test_die_2_reported_only_when_dies_0_and_1_are_clear(void **state)
{
    (void)state;
    start_created(&global);
    store(DIE2, HEARTBEAT);
    store(DIE1, FATAL);
    bt_expect_fatal(&global, 0,
                    "die 1 SEM controller 0 has detected a fatal error");
    store(DIE0, FATAL);
    bt_expect_fatal(&global, 0,
                    "die 0 SEM controller 0 has detected a fatal error");
    store(DIE0, 0);
    store(DIE1, 0);
    bt_expect_fatal(&global, 0, "die 2 SEM controller 0 heartbeat has stopped");
    /* A fatal error of die 0 outranks die 1's stopped heartbeat. */
    store(DIE0, FATAL);
    store(DIE1, HEARTBEAT);
    bt_expect_fatal(&global, 0,
                    "die 0 SEM controller 0 has detected a fatal error");
    expect_no_more_logs();
}

static void test_lhx_global_ignores_dies_1_and_2(void **state)
{
    static const uint32_t die0_only[] = {DIE0, DIE0};

    (void)state;
    start_created(&lhx);
    store(DIE1, HEARTBEAT | FATAL);
    store(DIE2, 0xFFFFFFFF);
    bt_expect_no_fatal(&lhx, 0);
    bt_assert_status_trace(GLOBAL_SITE, die0_only, BT_ARRAY_SIZE(die0_only));
    expect_no_more_logs();
}

static void test_other_bits_report_nothing(void **state)
{
    static const uint32_t die0_only[] = {DIE0, DIE0};

    (void)state;
    start_created(&global);
    bt_set_statuses(GLOBAL_SITE, 0xFFFFFFFC, 0xFFFFFFFC, 0xFFFFFFFC);
    store(0x0FC, 0xFFFFFFFF);
    store(0x104, 0xFFFFFFFF);
    store(0x1C0, 0xFFFFFFFF);
    bt_expect_no_fatal(&global, 0);
    bt_assert_status_trace(GLOBAL_SITE, all_global_reads,
                           BT_ARRAY_SIZE(all_global_reads));
    finish();

    start_created(&lhx);
    store(DIE0, 0xFFFFFFFC);
    bt_expect_no_fatal(&lhx, 0);
    bt_assert_status_trace(GLOBAL_SITE, die0_only, BT_ARRAY_SIZE(die0_only));
    assert_int_equal(model->writes, 0);
    expect_no_more_logs();
}

static void test_each_row_reads_the_register_anew(void **state)
{
    /* The fatal bit appears between the heartbeat test and the fatal test
     * of the same register. */
    static const uint32_t late_fatal[] = {0, FATAL};
    /* The fatal bit is gone by the time its row reads the register. */
    static const uint32_t fatal_gone[] = {FATAL, 0};

    (void)state;
    start_created(&global);
    bt_script(BT_EVERY_STATUS, late_fatal, BT_ARRAY_SIZE(late_fatal));
    bt_expect_fatal(&global, 0,
                    "die 0 SEM controller 0 has detected a fatal error");
    bt_assert_status_trace(GLOBAL_SITE, all_global_reads, 2);

    bt_script(BT_EVERY_STATUS, fatal_gone, BT_ARRAY_SIZE(fatal_gone));
    bt_expect_no_fatal(&global, 0);
    bt_assert_status_trace(GLOBAL_SITE, all_global_reads,
                           BT_ARRAY_SIZE(all_global_reads));
    finish();

    start_created(&lhx);
    bt_script(BT_EVERY_STATUS, late_fatal, BT_ARRAY_SIZE(late_fatal));
    bt_expect_fatal(&lhx, 0,
                    "die 0 SEM controller 0 has detected a fatal error");
    bt_assert_status_trace(GLOBAL_SITE, all_global_reads, 2);
    expect_no_more_logs();
}

static void test_standing_error_reported_on_every_call(void **state)
{
    (void)state;
    start_created(&global);
    store(DIE1, FATAL);
    for (int call = 0; call < 3; call++)
        bt_expect_fatal(&global, 0,
                        "die 1 SEM controller 0 has detected a fatal error");
    assert_int_equal(bt_peek(GLOBAL_SITE, DIE1), FATAL);
    assert_int_equal(model->writes, 0);
    expect_no_more_logs();
}

static void test_each_pipe_reads_its_own_block(void **state)
{
    lh_fatal_error_t report = {0, 0, NULL};

    (void)state;
    start_created(&global);
    bt_create(&global, 1, OTHER_SITE);
    bt_store(OTHER_SITE, DIE2, FATAL);
    bt_expect_no_fatal(&global, 0);
    assert_int_equal(global_fatal_error_detect(1, &report), 1);
    assert_string_equal(report.error_text,
                        "die 2 SEM controller 0 has detected a fatal error");
    expect_log(LOG_CRIT, "FATAL - Global pipe 1: die 2 SEM controller 0 has "
                         "detected a fatal error");
    expect_no_more_logs();
}

static void test_global_and_lhx_global_keep_apart(void **state)
{
    (void)state;
    start_created(&global);
    bt_create(&lhx, 0, OTHER_SITE);
    store(DIE1, HEARTBEAT);
    bt_expect_no_fatal(&lhx, 0);
    bt_expect_fatal(&global, 0, "die 1 SEM controller 0 heartbeat has stopped");
    bt_store(OTHER_SITE, DIE0, FATAL);
    bt_expect_fatal(&lhx, 0,
                    "die 0 SEM controller 0 has detected a fatal error");
    expect_no_more_logs();
}

/* ---- Refusals ---- */

static void test_null_report_reads_nothing(void **state)
{
    (void)state;
    start_created(&global);
    bt_create(&lhx, 0, GLOBAL_SITE);
    store(DIE0, HEARTBEAT);
    for (size_t d = 0; d < BT_ARRAY_SIZE(drivers); d++) {
        bt_expect_null_refusals(drivers[d], null_refusals, 1, 0);
        /* Before the pipe check. */
        bt_expect_null_refusals(drivers[d], null_refusals, 1, 2);
    }
    assert_int_equal(model->reads, 0);
    expect_no_more_logs();
}

static void test_invalid_pipe_reads_nothing(void **state)
{
    (void)state;
    start_created(&global);
    bt_create(&lhx, 0, GLOBAL_SITE);
    store(DIE0, HEARTBEAT);
    for (size_t d = 0; d < BT_ARRAY_SIZE(drivers); d++) {
        bt_expect_refusals(drivers[d], refusals, 1, 2, "pipe");
        bt_expect_refusals(drivers[d], refusals, 1, 0xFFFFFFFF, "pipe");
    }
    assert_int_equal(model->reads, 0);
    expect_no_more_logs();
}

static void test_exact_refusal_lines(void **state)
{
    lh_fatal_error_t report;

    (void)state;
    start_created(&global);
    assert_int_equal(global_fatal_error_detect(2, &report), 0);
    expect_log(LOG_CRIT, "Error - Global module fatal error detection - "
                         "invalid pipe 2");
    assert_int_equal(global_fatal_error_detect(0xFFFFFFFF, &report), 0);
    expect_log(LOG_CRIT, "Error - Global module fatal error detection - "
                         "invalid pipe -1");
    assert_int_equal(lhx_global_fatal_error_detect(1, &report), 0);
    expect_log(LOG_CRIT, "Error - LHX Global module fatal error detection - "
                         "invalid context 1");
    assert_int_equal(lhx_global_fatal_error_detect(0, NULL), 0);
    expect_log(LOG_ERR, "Null pointer - LHX Global module fatal error "
                        "detection");
    expect_no_more_logs();
}

int main(void)
{
#define T(name) cmocka_unit_test_teardown(name, teardown)
    const struct CMUnitTest never_created[] = {
        T(test_detect_before_create_is_invalid_context),
        T(test_pipe_1_refused_on_one_pipe_devices),
    };
    const struct CMUnitTest tests[] = {
        T(test_ops_tables_wire_the_two_operations),
        T(test_create_logs_the_created_line),
        T(test_create_makes_no_mutex),
        T(test_create_refusals),
        T(test_create_before_initialisation),
        T(test_each_global_bit_alone_reports_its_text),
        T(test_each_lhx_global_bit_alone_reports_its_text),
        T(test_heartbeat_wins_over_fatal_of_its_die),
        T(test_die_2_reported_only_when_dies_0_and_1_are_clear),
        T(test_lhx_global_ignores_dies_1_and_2),
        T(test_other_bits_report_nothing),
        T(test_each_row_reads_the_register_anew),
        T(test_standing_error_reported_on_every_call),
        T(test_each_pipe_reads_its_own_block),
        T(test_global_and_lhx_global_keep_apart),
        T(test_null_report_reads_nothing),
        T(test_invalid_pipe_reads_nothing),
        T(test_exact_refusal_lines),
    };

    return BT_RUN_GROUPS("global", never_created, tests);
}
