/* Part 3.4: the DDR4 block driver against a model of the block's fatal
 * error status register, which counts its reads and can change its value
 * from one read to the next. */
#include <errno.h>
#include <pthread.h>
#include <stdarg.h>
#include <stdbool.h>
#include <stdio.h>
#include <string.h>

#include "cmocka_all.h"
#include "mutex_wrap.h"
#include "ddr4.h"
#include "fake_device.h"
#include "lh_drivers.h"
#include "lh_log.h"
#include "log_expect.h"
#include "private_tmp.h"
#include "syslog_capture.h"


#define ARRAY_SIZE(a) (sizeof(a) / sizeof((a)[0]))

/* The block of each pipe on the base image (Part 2.4); the status register
 * is at offset 0 of the block. */
static const uint32_t pipe_base[LH_MAX_PIPES] = { 0x1A000, 0x2A000 };

#define ROWS 17

static struct reg_model *model;
static unsigned long status_reads[LH_MAX_PIPES];
static unsigned long other_reads;
/* Successive reads of a status register return these, then the last one;
 * none: the stored word. */
static uint32_t script[32];
static size_t script_length;
static size_t script_reads;


static uint32_t scripted(uint32_t stored)
{
    size_t read = script_reads++;

    if (script_length == 0)
        return stored;
    if (read >= script_length)
        read = script_length - 1;
    return script[read];
}

static uint32_t status_read(struct reg_model *window, uint32_t offset,
                            uint32_t stored)
{
    (void)window;
    for (uint32_t pipe = 0; pipe < LH_MAX_PIPES; pipe++) {
        if (offset == pipe_base[pipe]) {
            status_reads[pipe]++;
            return scripted(stored);
        }
    }
    other_reads++;
    return stored;
}

static void start(lh_device_desc *desc)
{
    model = fake_device_start(desc, 1);
    model->on_read = status_read;
    memset(status_reads, 0, sizeof(status_reads));
    other_reads = 0;
    script_length = 0;
    script_reads = 0;
    mutex_inits = 0;
}

static int teardown(void **state)
{
    mutex_init_fails = false;
    return fake_device_teardown(state);
}

static volatile void *block(uint32_t pipe)
{
    return (uint8_t *)model->words + pipe_base[pipe];
}

static void store_status(uint32_t pipe, uint32_t value)
{
    reg_model_store(model, pipe_base[pipe], value);
}

static void create(uint32_t pipe)
{
    assert_int_equal(ddr4_context_create(pipe, block(pipe)), 0);
    expect_logf(LOG_INFO, "Informational - DDR4 module %u context created",
                pipe);
}

static void start_created(void)
{
    start(&lh_desc_base_two_pipes);
    create(0);
    create(1);
}

static void expect_fatal(uint32_t pipe, uint32_t status, const char *text)
{
    lh_fatal_error_t report = { 0, 0, NULL };

    store_status(pipe, status);
    assert_int_equal(ddr4_fatal_error_detect(pipe, &report), 1);
    assert_non_null(report.error_text);
    assert_string_equal(report.error_text, text);
    expect_logf(LOG_CRIT, "FATAL - DDR4 pipe %u: %s", pipe, text);
}

static void expect_no_fatal(uint32_t pipe)
{
    lh_fatal_error_t report = { 0, 0, "untouched" };

    assert_int_equal(ddr4_fatal_error_detect(pipe, &report), 0);
    assert_string_equal(report.error_text, "untouched");
}

static void expect_invalid(uint32_t pipe, const char *what)
{
    expect_no_fatal(pipe);
    expect_logf(LOG_CRIT, "Error - DDR4 module fatal error detection - "
                          "invalid %s %d",
                what, (int)pipe);
}

static unsigned long all_reads(void)
{
    return status_reads[0] + status_reads[1] + other_reads;
}

/* ---- Contexts never created before: these run first, in this order. ---- */

static void test_detect_before_create_is_invalid_context(void **state)
{
    (void)state;
    start(&lh_desc_base_two_pipes);
    store_status(0, 1u << 16);
    store_status(1, 1u << 16);
    expect_invalid(0, "context");
    expect_invalid(1, "context");
    assert_int_equal(all_reads(), 0);
    expect_no_more_logs();
}

static void test_pipe_1_refused_on_one_pipe_device(void **state)
{
    (void)state;
    start(&lh_desc_base_one_pipe);
    create(0);
    assert_int_equal(ddr4_context_create(1, block(1)), -1);
    expect_log(LOG_CRIT, "Error - DDR4 module context create - "
                         "invalid pipe 1");
    store_status(1, 1u << 16);
    expect_invalid(1, "context");
    assert_int_equal(all_reads(), 0);
    assert_int_equal(model->writes, 0);
    expect_no_more_logs();
}

/* ---- Context creation ---- */

static void test_ops_table_wires_the_two_operations(void **state)
{
    (void)state;
    assert_true(ddr4_ops.context_create == ddr4_context_create);
    assert_true(ddr4_ops.fatal_error_detect == ddr4_fatal_error_detect);
    assert_null(ddr4_ops.set_interface_state);
    assert_null(ddr4_ops.get_interface_state);
    assert_null(ddr4_ops.set_loopback);
    assert_null(ddr4_ops.get_loopback);
    assert_null(ddr4_ops.update_stats);
    assert_null(ddr4_ops.get_stats);
    assert_null(ddr4_ops.clear_stats);
    assert_null(ddr4_ops.qos_set_profile);
    assert_null(ddr4_ops.qos_get_profile);
    assert_null(ddr4_ops.rx_align_monitor);
}

static void test_create_logs_the_created_line(void **state)
{
    (void)state;
    start(&lh_desc_base_two_pipes);
    assert_int_equal(ddr4_context_create(0, block(0)), 0);
    expect_log(LOG_INFO, "Informational - DDR4 module 0 context created");
    assert_int_equal(ddr4_context_create(1, block(1)), 0);
    expect_log(LOG_INFO, "Informational - DDR4 module 1 context created");
    assert_int_equal(all_reads(), 0);
    assert_int_equal(model->writes, 0);
    expect_no_more_logs();
}

static void test_create_makes_no_mutex(void **state)
{
    (void)state;
    start(&lh_desc_base_two_pipes);
    mutex_init_fails = true;
    create(0);
    assert_int_equal(mutex_inits, 0);
    expect_fatal(0, 1u << 3, "Cmd fifo overflow");
    expect_no_more_logs();
}

static void test_create_refusals(void **state)
{
    (void)state;
    start(&lh_desc_base_two_pipes);
    assert_int_equal(ddr4_context_create(2, NULL), -1);
    expect_log(LOG_ERR, "Null pointer - DDR4 module context create");
    assert_int_equal(ddr4_context_create(0, NULL), -1);
    expect_log(LOG_ERR, "Null pointer - DDR4 module context create");
    assert_int_equal(ddr4_context_create(2, block(0)), -1);
    expect_log(LOG_CRIT, "Error - DDR4 module context create - "
                         "invalid pipe 2");
    assert_int_equal(all_reads(), 0);
    assert_int_equal(model->writes, 0);
    expect_no_more_logs();
}

static void test_create_before_initialisation(void **state)
{
    (void)state;
    model = fake_device_start(&lh_desc_base_two_pipes, 0);
    assert_int_equal(ddr4_context_create(0, block(0)), -1);
    expect_log(LOG_ERR, "Error - get traffic pipe count failed, - system not "
                        "initialized");
    expect_log(LOG_CRIT, "Error - DDR4 module context create - "
                         "invalid pipe 0");
    expect_no_more_logs();
}

/* ---- Fatal error detection ---- */

/* Part 3.4's table, in test order. */
static const struct {
    unsigned int bit;
    const char *text;
} rows[ROWS] = {
    { 16, "Uncorrectable ecc error has been detected in the DDR4" },
    { 15, "Agent1 rdata fifo overflow" },
    { 14, "Agent1 rdata fifo underflow" },
    { 13, "Agent0 rdata fifo overflow" },
    { 12, "Agent0 rdata fifo underflow" },
    { 11, "Agent1 cmd fifo overflow" },
    { 10, "Agent1 cmd fifo underflow" },
    { 9, "Agent0 cmd fifo overflow" },
    { 8, "Agent0 cmd fifo underflow" },
    { 7, "Agent1 wdata fifo overflow" },
    { 6, "Agent1 wdata fifo underflow" },
    { 5, "Agent0 wdata fifo overflow" },
    { 4, "Agent0 wdata fifo underflow" },
    { 3, "Cmd fifo overflow" },
    { 2, "Cmd fifo underflow" },
    { 1, "Read info fifo overflow" },
    { 0, "Read info fifo underflow" },
};

static void test_each_error_bit_alone_reports_its_text(void **state)
{
    (void)state;
    start_created();
    for (uint32_t pipe = 0; pipe < LH_MAX_PIPES; pipe++) {
        for (size_t i = 0; i < ROWS; i++) {
            status_reads[pipe] = 0;
            expect_fatal(pipe, 1u << rows[i].bit, rows[i].text);
            /* One read per row up to its own. */
            assert_int_equal(status_reads[pipe], i + 1);
        }
    }
    assert_int_equal(other_reads, 0);
    assert_int_equal(model->writes, 0);
    expect_no_more_logs();
}

static void test_ecc_error_outranks_every_fifo_error(void **state)
{
    (void)state;
    start_created();
    expect_fatal(0, 1u << 16 | 1u << 0,
                 "Uncorrectable ecc error has been detected in the DDR4");
    expect_fatal(0, 0x1FFFF,
                 "Uncorrectable ecc error has been detected in the DDR4");
    expect_fatal(1, 0xFFFFFFFF,
                 "Uncorrectable ecc error has been detected in the DDR4");
    expect_no_more_logs();
}

static void test_higher_bit_wins_between_fifo_errors(void **state)
{
    (void)state;
    start_created();
    expect_fatal(0, 1u << 1 | 1u << 0, "Read info fifo overflow");
    expect_fatal(0, 1u << 15 | 1u << 14, "Agent1 rdata fifo overflow");
    expect_fatal(0, 1u << 8 | 1u << 7 | 1u << 2, "Agent0 cmd fifo underflow");
    expect_fatal(1, 0xFFFF, "Agent1 rdata fifo overflow");
    expect_no_more_logs();
}

static void test_each_row_outranks_the_next(void **state)
{
    (void)state;
    start_created();
    for (size_t i = 0; i + 1 < ROWS; i++)
        expect_fatal(0, 1u << rows[i].bit | 1u << rows[i + 1].bit,
                     rows[i].text);
    expect_no_more_logs();
}

static void test_bits_17_to_31_are_ignored(void **state)
{
    (void)state;
    start_created();
    store_status(0, 0xFFFE0000);
    expect_no_fatal(0);
    assert_int_equal(status_reads[0], ROWS);
    store_status(0, 0);
    expect_no_fatal(0);
    assert_int_equal(status_reads[0], 2 * ROWS);
    assert_int_equal(other_reads, 0);
    assert_int_equal(model->writes, 0);
    expect_no_more_logs();
}

static void run_script(const uint32_t *values, size_t length)
{
    memcpy(script, values, length * sizeof(*values));
    script_length = length;
    script_reads = 0;
}

static void test_each_row_reads_the_register_anew(void **state)
{
    /* Bit 0 appears only at the seventeenth read, the last row's. */
    static const uint32_t late[] = { 0, 0, 0, 0, 0, 0, 0, 0, 0,
                                     0, 0, 0, 0, 0, 0, 0, 1u << 0 };
    /* Bit 15 shows at the first read (bit 16's row), gone by its own. */
    static const uint32_t changing[] = { 1u << 15, 0 };
    lh_fatal_error_t report = { 0, 0, NULL };

    (void)state;
    start_created();
    run_script(late, ARRAY_SIZE(late));
    assert_int_equal(ddr4_fatal_error_detect(0, &report), 1);
    assert_string_equal(report.error_text, "Read info fifo underflow");
    expect_log(LOG_CRIT, "FATAL - DDR4 pipe 0: Read info fifo underflow");
    assert_int_equal(script_reads, ROWS);

    run_script(changing, ARRAY_SIZE(changing));
    expect_no_fatal(0);
    assert_int_equal(script_reads, ROWS);
    expect_no_more_logs();
}

static void test_standing_error_reported_on_every_call(void **state)
{
    (void)state;
    start_created();
    for (int call = 0; call < 3; call++)
        expect_fatal(1, 1u << 9, "Agent0 cmd fifo overflow");
    assert_int_equal(reg_model_peek(model, pipe_base[1]), 1u << 9);
    assert_int_equal(model->writes, 0);
    expect_no_more_logs();
}

static void test_each_pipe_reads_its_own_block(void **state)
{
    (void)state;
    start_created();
    store_status(1, 1u << 12);
    expect_no_fatal(0);
    assert_int_equal(status_reads[1], 0);
    expect_fatal(1, 1u << 12, "Agent0 rdata fifo underflow");
    assert_int_equal(status_reads[0], ROWS);
    expect_no_more_logs();
}

/* ---- Refusals ---- */

static void test_null_report_reads_nothing(void **state)
{
    (void)state;
    start_created();
    store_status(0, 1u << 16);
    assert_int_equal(ddr4_fatal_error_detect(0, NULL), 0);
    expect_log(LOG_ERR, "Null pointer - DDR4 module fatal error detection");
    /* Before the pipe check. */
    assert_int_equal(ddr4_fatal_error_detect(2, NULL), 0);
    expect_log(LOG_ERR, "Null pointer - DDR4 module fatal error detection");
    assert_int_equal(all_reads(), 0);
    expect_no_more_logs();
}

static void test_invalid_pipe_reads_nothing(void **state)
{
    (void)state;
    start_created();
    store_status(0, 1u << 16);
    expect_invalid(2, "pipe");
    expect_invalid(0xFFFFFFFF, "pipe");
    assert_int_equal(all_reads(), 0);
    expect_no_more_logs();
}

static void test_exact_refusal_lines(void **state)
{
    lh_fatal_error_t report;

    (void)state;
    start_created();
    assert_int_equal(ddr4_fatal_error_detect(2, &report), 0);
    expect_log(LOG_CRIT, "Error - DDR4 module fatal error detection - "
                         "invalid pipe 2");
    assert_int_equal(ddr4_fatal_error_detect(0x80000000, &report), 0);
    expect_log(LOG_CRIT, "Error - DDR4 module fatal error detection - "
                         "invalid pipe -2147483648");
    expect_no_more_logs();
}

int main(void)
{
#define T(name) cmocka_unit_test_teardown(name, teardown)
    /* Contexts are static and never cleared, so the cases that need a
     * context nobody has created run first, in this order. */
    const struct CMUnitTest never_created[] = {
        T(test_detect_before_create_is_invalid_context),
        T(test_pipe_1_refused_on_one_pipe_device),
    };
    const struct CMUnitTest tests[] = {
        T(test_ops_table_wires_the_two_operations),
        T(test_create_logs_the_created_line),
        T(test_create_makes_no_mutex),
        T(test_create_refusals),
        T(test_create_before_initialisation),
        T(test_each_error_bit_alone_reports_its_text),
        T(test_ecc_error_outranks_every_fifo_error),
        T(test_higher_bit_wins_between_fifo_errors),
        T(test_each_row_outranks_the_next),
        T(test_bits_17_to_31_are_ignored),
        T(test_each_row_reads_the_register_anew),
        T(test_standing_error_reported_on_every_call),
        T(test_each_pipe_reads_its_own_block),
        T(test_null_report_reads_nothing),
        T(test_invalid_pipe_reads_nothing),
        T(test_exact_refusal_lines),
    };
    int failed;

    if (enter_private_tmp() != 0)
        return 1;
    failed = cmocka_run_group_tests_name("never created contexts",
                                         never_created, NULL, NULL);
    failed += cmocka_run_group_tests_name("ddr4", tests, NULL, NULL);
    return failed;
}
