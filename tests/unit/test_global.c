/* Part 3.2: the global block drivers (global, lhx_global) against a model of
 * the block's SEM status registers, one per die, that records every read
 * and can change its value from one read to the next. */
#include <errno.h>
#include <pthread.h>
#include <stdarg.h>
#include <stdbool.h>
#include <stdio.h>
#include <string.h>

#include "cmocka_all.h"
#include "mutex_wrap.h"
#include "fake_device.h"
#include "global.h"
#include "lh_drivers.h"
#include "lh_log.h"
#include "log_expect.h"
#include "private_tmp.h"
#include "syslog_capture.h"


#define ARRAY_SIZE(a) (sizeof(a) / sizeof((a)[0]))

/* The block sits at window offset 0 on both images (Part 2.4); a second
 * site lets a test give another context a block of its own. */
#define GLOBAL_BASE 0x0000u
#define OTHER_BASE  0x0800u

#define DIE0 0x100u
#define DIE1 0x140u
#define DIE2 0x180u

#define HEARTBEAT (1u << 0)
#define FATAL     (1u << 1)

#define MAX_TRACE 64

static struct reg_model *model;
/* Window offsets read, in order. */
static uint32_t read_trace[MAX_TRACE];
static size_t read_count;
/* Successive reads return these, then the last one; none: the stored word. */
static uint32_t script[MAX_TRACE];
static size_t script_length;


struct driver {
    const char *name;
    const struct lh_block_ops *ops;
    lh_device_desc *device;
};

static const struct driver global = { "Global", &global_ops,
                                      &lh_desc_base_two_pipes };
static const struct driver lhx = { "LHX Global", &lhx_global_ops,
                                   &lh_desc_lhx };
static const struct driver *const drivers[] = { &global, &lhx };

static uint32_t traced_read(struct reg_model *window, uint32_t offset,
                            uint32_t stored)
{
    size_t read = read_count++;

    (void)window;
    assert_true(read < MAX_TRACE);
    read_trace[read] = offset;
    if (script_length == 0)
        return stored;
    if (read >= script_length)
        read = script_length - 1;
    return script[read];
}

static void start(lh_device_desc *desc)
{
    model = fake_device_start(desc, 1);
    model->on_read = traced_read;
    read_count = 0;
    script_length = 0;
    mutex_inits = 0;
}

static int teardown(void **state)
{
    mutex_init_fails = false;
    return fake_device_teardown(state);
}

static volatile void *block_at(uint32_t offset)
{
    return (uint8_t *)model->words + offset;
}

static void store(uint32_t offset, uint32_t value)
{
    reg_model_store(model, offset, value);
}

static void create(const struct driver *driver, uint32_t pipe, uint32_t base)
{
    assert_int_equal(driver->ops->context_create(pipe, block_at(base)), 0);
    expect_logf(LOG_INFO, "Informational - %s module %u context created",
                driver->name, pipe);
}

/* Ends a device mid-test, every message accounted for. */
static void finish(void)
{
    expect_no_more_logs();
    fake_device_teardown(NULL);
}

static void start_created(const struct driver *driver)
{
    start(driver->device);
    create(driver, 0, GLOBAL_BASE);
    read_count = 0;
}

/* One call on pipe 0 reports `text` with its FATAL line. */
static void expect_fatal(const struct driver *driver, const char *text)
{
    lh_fatal_error_t report = { 0, 0, NULL };

    assert_int_equal(driver->ops->fatal_error_detect(0, &report), 1);
    assert_non_null(report.error_text);
    assert_string_equal(report.error_text, text);
    expect_logf(LOG_CRIT, "FATAL - %s pipe 0: %s", driver->name, text);
}

static void expect_no_fatal(const struct driver *driver, uint32_t pipe)
{
    lh_fatal_error_t report = { 0, 0, "untouched" };

    assert_int_equal(driver->ops->fatal_error_detect(pipe, &report), 0);
    assert_string_equal(report.error_text, "untouched");
}

static void assert_reads(const uint32_t *offsets, size_t count)
{
    assert_int_equal(read_count, count);
    for (size_t i = 0; i < count; i++)
        assert_int_equal(read_trace[i], offsets[i]);
}

static void expect_invalid(const struct driver *driver, uint32_t pipe,
                           const char *what)
{
    expect_no_fatal(driver, pipe);
    expect_logf(LOG_CRIT, "Error - %s module fatal error detection - "
                          "invalid %s %d",
                driver->name, what, (int)pipe);
}

/* ---- Contexts never created before: these run first, in this order. ---- */

static void test_detect_before_create_is_invalid_context(void **state)
{
    (void)state;
    start(&lh_desc_base_two_pipes);
    store(DIE0, HEARTBEAT | FATAL);
    for (size_t d = 0; d < ARRAY_SIZE(drivers); d++) {
        expect_invalid(drivers[d], 0, "context");
        expect_invalid(drivers[d], 1, "context");
    }
    assert_int_equal(read_count, 0);
    expect_no_more_logs();
}

static void test_pipe_1_refused_on_one_pipe_devices(void **state)
{
    (void)state;
    start(&lh_desc_base_one_pipe);
    assert_int_equal(global_context_create(1, block_at(OTHER_BASE)), -1);
    expect_log(LOG_CRIT, "Error - Global module context create - "
                         "invalid pipe 1");
    expect_invalid(&global, 1, "context");
    finish();

    start(&lh_desc_lhx);
    assert_int_equal(lhx_global_context_create(1, block_at(OTHER_BASE)), -1);
    expect_log(LOG_CRIT, "Error - LHX Global module context create - "
                         "invalid pipe 1");
    expect_invalid(&lhx, 1, "context");
    assert_int_equal(model->writes, 0);
    expect_no_more_logs();
}

/* ---- Context creation. lhx_global pipe 1 is never created anywhere. ---- */

static void test_ops_tables_wire_the_two_operations(void **state)
{
    (void)state;
    assert_true(global_ops.context_create == global_context_create);
    assert_true(global_ops.fatal_error_detect == global_fatal_error_detect);
    assert_true(lhx_global_ops.context_create == lhx_global_context_create);
    assert_true(lhx_global_ops.fatal_error_detect ==
                lhx_global_fatal_error_detect);
    for (size_t d = 0; d < ARRAY_SIZE(drivers); d++) {
        const struct lh_block_ops *ops = drivers[d]->ops;

        assert_null(ops->set_interface_state);
        assert_null(ops->get_interface_state);
        assert_null(ops->set_loopback);
        assert_null(ops->get_loopback);
        assert_null(ops->update_stats);
        assert_null(ops->get_stats);
        assert_null(ops->clear_stats);
        assert_null(ops->qos_set_profile);
        assert_null(ops->qos_get_profile);
        assert_null(ops->rx_align_monitor);
    }
}

static void test_create_logs_the_created_line(void **state)
{
    (void)state;
    start(&lh_desc_base_two_pipes);
    assert_int_equal(global_context_create(0, block_at(GLOBAL_BASE)), 0);
    expect_log(LOG_INFO, "Informational - Global module 0 context created");
    assert_int_equal(global_context_create(1, block_at(OTHER_BASE)), 0);
    expect_log(LOG_INFO, "Informational - Global module 1 context created");
    finish();

    start(&lh_desc_lhx);
    assert_int_equal(lhx_global_context_create(0, block_at(GLOBAL_BASE)), 0);
    expect_log(LOG_INFO, "Informational - LHX Global module 0 context "
                         "created");
    assert_int_equal(read_count, 0);
    assert_int_equal(model->writes, 0);
    expect_no_more_logs();
}

static void test_create_makes_no_mutex(void **state)
{
    (void)state;
    start(&lh_desc_base_two_pipes);
    mutex_init_fails = true;
    create(&global, 0, GLOBAL_BASE);
    create(&lhx, 0, GLOBAL_BASE);
    assert_int_equal(mutex_inits, 0);
    store(DIE0, FATAL);
    expect_fatal(&global, "die 0 SEM controller 0 has detected a fatal error");
    expect_no_more_logs();
}

static void test_create_refusals(void **state)
{
    (void)state;
    start(&lh_desc_base_two_pipes);
    for (size_t d = 0; d < ARRAY_SIZE(drivers); d++) {
        const struct driver *driver = drivers[d];

        assert_int_equal(driver->ops->context_create(2, NULL), -1);
        expect_logf(LOG_ERR, "Null pointer - %s module context create",
                    driver->name);
        assert_int_equal(driver->ops->context_create(0, NULL), -1);
        expect_logf(LOG_ERR, "Null pointer - %s module context create",
                    driver->name);
        assert_int_equal(driver->ops->context_create(2, block_at(0)), -1);
        expect_logf(LOG_CRIT, "Error - %s module context create - "
                              "invalid pipe 2",
                    driver->name);
    }
    assert_int_equal(read_count, 0);
    assert_int_equal(model->writes, 0);
    expect_no_more_logs();
}

static void test_create_before_initialisation(void **state)
{
    (void)state;
    model = fake_device_start(&lh_desc_base_two_pipes, 0);
    assert_int_equal(global_context_create(0, block_at(GLOBAL_BASE)), -1);
    expect_log(LOG_ERR, "Error - get traffic pipe count failed, - system not "
                        "initialized");
    expect_log(LOG_CRIT, "Error - Global module context create - "
                         "invalid pipe 0");
    expect_no_more_logs();
}

/* ---- Fatal error detection ---- */

static const struct {
    uint32_t reg;
    uint32_t bit;
    const char *text;
} sem_rows[] = {
    { DIE0, HEARTBEAT, "die 0 SEM controller 0 heartbeat has stopped" },
    { DIE0, FATAL, "die 0 SEM controller 0 has detected a fatal error" },
    { DIE1, HEARTBEAT, "die 1 SEM controller 0 heartbeat has stopped" },
    { DIE1, FATAL, "die 1 SEM controller 0 has detected a fatal error" },
    { DIE2, HEARTBEAT, "die 2 SEM controller 0 heartbeat has stopped" },
    { DIE2, FATAL, "die 2 SEM controller 0 has detected a fatal error" },
};

static const uint32_t all_global_reads[] = { DIE0, DIE0, DIE1,
                                             DIE1, DIE2, DIE2 };

static void clear_dies(void)
{
    store(DIE0, 0);
    store(DIE1, 0);
    store(DIE2, 0);
}

static void test_each_global_bit_alone_reports_its_text(void **state)
{
    (void)state;
    start_created(&global);
    for (size_t i = 0; i < ARRAY_SIZE(sem_rows); i++) {
        clear_dies();
        store(sem_rows[i].reg, sem_rows[i].bit);
        read_count = 0;
        expect_fatal(&global, sem_rows[i].text);
        /* Stops at its own row. */
        assert_reads(all_global_reads, i + 1);
    }
    assert_int_equal(model->writes, 0);
    expect_no_more_logs();
}

static void test_each_lhx_global_bit_alone_reports_its_text(void **state)
{
    (void)state;
    start_created(&lhx);
    store(DIE0, HEARTBEAT);
    expect_fatal(&lhx, "die 0 SEM controller 0 heartbeat has stopped");
    store(DIE0, FATAL);
    expect_fatal(&lhx, "die 0 SEM controller 0 has detected a fatal error");
    assert_int_equal(model->writes, 0);
    expect_no_more_logs();
}

static void test_heartbeat_wins_over_fatal_of_its_die(void **state)
{
    (void)state;
    start_created(&global);
    store(DIE0, HEARTBEAT | FATAL);
    expect_fatal(&global, "die 0 SEM controller 0 heartbeat has stopped");
    clear_dies();
    store(DIE1, HEARTBEAT | FATAL);
    expect_fatal(&global, "die 1 SEM controller 0 heartbeat has stopped");
    clear_dies();
    store(DIE2, HEARTBEAT | FATAL);
    expect_fatal(&global, "die 2 SEM controller 0 heartbeat has stopped");
    finish();

    start_created(&lhx);
    store(DIE0, HEARTBEAT | FATAL);
    expect_fatal(&lhx, "die 0 SEM controller 0 heartbeat has stopped");
    expect_no_more_logs();
}

static void test_die_2_reported_only_when_dies_0_and_1_are_clear(void **state)
{
    (void)state;
    start_created(&global);
    store(DIE2, HEARTBEAT);
    store(DIE1, FATAL);
    expect_fatal(&global, "die 1 SEM controller 0 has detected a fatal error");
    store(DIE0, FATAL);
    expect_fatal(&global, "die 0 SEM controller 0 has detected a fatal error");
    store(DIE0, 0);
    store(DIE1, 0);
    expect_fatal(&global, "die 2 SEM controller 0 heartbeat has stopped");
    /* A fatal error of die 0 outranks die 1's stopped heartbeat. */
    store(DIE0, FATAL);
    store(DIE1, HEARTBEAT);
    expect_fatal(&global, "die 0 SEM controller 0 has detected a fatal error");
    expect_no_more_logs();
}

static void test_lhx_global_ignores_dies_1_and_2(void **state)
{
    static const uint32_t die0_only[] = { DIE0, DIE0 };

    (void)state;
    start_created(&lhx);
    store(DIE1, HEARTBEAT | FATAL);
    store(DIE2, 0xFFFFFFFF);
    expect_no_fatal(&lhx, 0);
    assert_reads(die0_only, ARRAY_SIZE(die0_only));
    expect_no_more_logs();
}

static void test_other_bits_report_nothing(void **state)
{
    static const uint32_t die0_only[] = { DIE0, DIE0 };

    (void)state;
    start_created(&global);
    store(DIE0, 0xFFFFFFFC);
    store(DIE1, 0xFFFFFFFC);
    store(DIE2, 0xFFFFFFFC);
    store(0x0FC, 0xFFFFFFFF);
    store(0x104, 0xFFFFFFFF);
    store(0x1C0, 0xFFFFFFFF);
    expect_no_fatal(&global, 0);
    assert_reads(all_global_reads, ARRAY_SIZE(all_global_reads));
    finish();

    start_created(&lhx);
    store(DIE0, 0xFFFFFFFC);
    expect_no_fatal(&lhx, 0);
    assert_reads(die0_only, ARRAY_SIZE(die0_only));
    assert_int_equal(model->writes, 0);
    expect_no_more_logs();
}

static void run_script(const uint32_t *values, size_t length)
{
    memcpy(script, values, length * sizeof(*values));
    script_length = length;
    read_count = 0;
}

static void test_each_row_reads_the_register_anew(void **state)
{
    /* The fatal bit appears between the heartbeat test and the fatal test
     * of the same register. */
    static const uint32_t late_fatal[] = { 0, FATAL };
    /* The fatal bit is gone by the time its row reads the register. */
    static const uint32_t fatal_gone[] = { FATAL, 0 };

    (void)state;
    start_created(&global);
    run_script(late_fatal, ARRAY_SIZE(late_fatal));
    expect_fatal(&global, "die 0 SEM controller 0 has detected a fatal error");
    assert_reads(all_global_reads, 2);

    run_script(fatal_gone, ARRAY_SIZE(fatal_gone));
    expect_no_fatal(&global, 0);
    assert_reads(all_global_reads, ARRAY_SIZE(all_global_reads));
    finish();

    start_created(&lhx);
    run_script(late_fatal, ARRAY_SIZE(late_fatal));
    expect_fatal(&lhx, "die 0 SEM controller 0 has detected a fatal error");
    assert_reads(all_global_reads, 2);
    expect_no_more_logs();
}

static void test_standing_error_reported_on_every_call(void **state)
{
    (void)state;
    start_created(&global);
    store(DIE1, FATAL);
    for (int call = 0; call < 3; call++)
        expect_fatal(&global,
                     "die 1 SEM controller 0 has detected a fatal error");
    assert_int_equal(reg_model_peek(model, DIE1), FATAL);
    assert_int_equal(model->writes, 0);
    expect_no_more_logs();
}

static void test_each_pipe_reads_its_own_block(void **state)
{
    lh_fatal_error_t report = { 0, 0, NULL };

    (void)state;
    start_created(&global);
    create(&global, 1, OTHER_BASE);
    store(OTHER_BASE + DIE2, FATAL);
    expect_no_fatal(&global, 0);
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
    create(&lhx, 0, OTHER_BASE);
    store(DIE1, HEARTBEAT);
    expect_no_fatal(&lhx, 0);
    expect_fatal(&global, "die 1 SEM controller 0 heartbeat has stopped");
    store(OTHER_BASE + DIE0, FATAL);
    expect_fatal(&lhx, "die 0 SEM controller 0 has detected a fatal error");
    expect_no_more_logs();
}

/* ---- Refusals ---- */

static void test_null_report_reads_nothing(void **state)
{
    (void)state;
    start_created(&global);
    create(&lhx, 0, GLOBAL_BASE);
    store(DIE0, HEARTBEAT);
    for (size_t d = 0; d < ARRAY_SIZE(drivers); d++) {
        assert_int_equal(drivers[d]->ops->fatal_error_detect(0, NULL), 0);
        expect_logf(LOG_ERR, "Null pointer - %s module fatal error detection",
                    drivers[d]->name);
        /* Before the pipe check. */
        assert_int_equal(drivers[d]->ops->fatal_error_detect(2, NULL), 0);
        expect_logf(LOG_ERR, "Null pointer - %s module fatal error detection",
                    drivers[d]->name);
    }
    assert_int_equal(read_count, 0);
    expect_no_more_logs();
}

static void test_invalid_pipe_reads_nothing(void **state)
{
    (void)state;
    start_created(&global);
    create(&lhx, 0, GLOBAL_BASE);
    store(DIE0, HEARTBEAT);
    for (size_t d = 0; d < ARRAY_SIZE(drivers); d++) {
        expect_invalid(drivers[d], 2, "pipe");
        expect_invalid(drivers[d], 0xFFFFFFFF, "pipe");
    }
    assert_int_equal(read_count, 0);
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
    /* Contexts are static and never cleared, so the cases that need a
     * context nobody has created run first, in this order. */
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
    int failed;

    if (enter_private_tmp() != 0)
        return 1;
    failed = cmocka_run_group_tests_name("never created contexts",
                                         never_created, NULL, NULL);
    failed += cmocka_run_group_tests_name("global", tests, NULL, NULL);
    return failed;
}
