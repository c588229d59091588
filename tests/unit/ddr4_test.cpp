/* Part 3.4: the DDR4 block driver against a model of the block's fatal
 * error status register, which counts its reads and can change its value
 * from one read to the next. */
#include <stdbool.h>

#include "block_fixture.hpp"
#include "cmocka_all.h"
#include "ddr4.hpp"
#include "fake_device.hpp"
#include "lh_drivers.hpp"
#include "lh_log.hpp"
#include "log_expect.hpp"
#include "mutex_wrap.hpp"

#define STATUS 0x00u
#define ROWS   17

/* The block of each pipe on the base image (Part 2.4); the status register
 * is at offset 0 of the block. */
static const struct bt_layout layout = {
    .sites = {0x1A000, 0x2A000},
    .site_count = 2,
    .span = 0x100,
    .status = {STATUS},
    .status_count = 1,
};

static const struct bt_driver ddr4 = {
    .name = "DDR4",
    .ops = &ddr4_ops,
    .device = &lh_desc_base_two_pipes,
};

static const struct bt_call refusals[] = {
    {"module fatal error detection", LOG_CRIT, 0, bt_call_fatal_error_detect},
};

static const struct bt_call null_refusals[] = {
    {"module fatal error detection", LOG_ERR, 0, bt_null_fatal_error_detect},
};

/* Part 3.4's table, in test order. */
static const struct bt_error_row rows[ROWS] = {
    {STATUS, 16, "Uncorrectable ecc error has been detected in the DDR4"},
    {STATUS, 15, "Agent1 rdata fifo overflow"},
    {STATUS, 14, "Agent1 rdata fifo underflow"},
    {STATUS, 13, "Agent0 rdata fifo overflow"},
    {STATUS, 12, "Agent0 rdata fifo underflow"},
    {STATUS, 11, "Agent1 cmd fifo overflow"},
    {STATUS, 10, "Agent1 cmd fifo underflow"},
    {STATUS, 9, "Agent0 cmd fifo overflow"},
    {STATUS, 8, "Agent0 cmd fifo underflow"},
    {STATUS, 7, "Agent1 wdata fifo overflow"},
    {STATUS, 6, "Agent1 wdata fifo underflow"},
    {STATUS, 5, "Agent0 wdata fifo overflow"},
    {STATUS, 4, "Agent0 wdata fifo underflow"},
    {STATUS, 3, "Cmd fifo overflow"},
    {STATUS, 2, "Cmd fifo underflow"},
    {STATUS, 1, "Read info fifo overflow"},
    {STATUS, 0, "Read info fifo underflow"},
};

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

static void start_created(void)
{
    start(&lh_desc_base_two_pipes);
    bt_create(&ddr4, 0, 0);
    bt_create(&ddr4, 1, 1);
}

static void expect_fatal(uint32_t pipe, uint32_t status, const char *text)
{
    bt_store((int)pipe, STATUS, status);
    bt_expect_fatal(&ddr4, pipe, text);
}

/* ---- Contexts never created before: these run first, in this order. ---- */

static void test_detect_before_create_is_invalid_context(void **state)
{
    (void)state;
    start(&lh_desc_base_two_pipes);
    bt_store(0, STATUS, 1u << 16);
    bt_store(1, STATUS, 1u << 16);
    bt_expect_refusals(&ddr4, refusals, BT_ARRAY_SIZE(refusals), 0, "context");
    bt_expect_refusals(&ddr4, refusals, BT_ARRAY_SIZE(refusals), 1, "context");
    assert_int_equal(model->reads, 0);
    expect_no_more_logs();
}

static void test_pipe_1_refused_on_one_pipe_device(void **state)
{
    (void)state;
    start(&lh_desc_base_one_pipe);
    bt_create(&ddr4, 0, 0);
    bt_expect_create_refused(&ddr4, 1, bt_site_base(1));
    bt_store(1, STATUS, 1u << 16);
    bt_expect_refusals(&ddr4, refusals, BT_ARRAY_SIZE(refusals), 1, "context");
    assert_int_equal(model->reads, 0);
    assert_int_equal(model->writes, 0);
    expect_no_more_logs();
}

/* ---- Context creation ---- */

static void test_ops_table_wires_the_two_operations(void **state)
{
    static const struct lh_block_ops expected = {
        .context_create = ddr4_context_create,
        .fatal_error_detect = ddr4_fatal_error_detect,
    };

    (void)state;
    bt_assert_ops(&ddr4_ops, &expected);
}

static void test_create_logs_the_created_line(void **state)
{
    (void)state;
    start(&lh_desc_base_two_pipes);
    assert_int_equal(ddr4_context_create(0, bt_site_base(0)), 0);
    expect_log(LOG_INFO, "Informational - DDR4 module 0 context created");
    assert_int_equal(ddr4_context_create(1, bt_site_base(1)), 0);
    expect_log(LOG_INFO, "Informational - DDR4 module 1 context created");
    assert_int_equal(model->reads, 0);
    assert_int_equal(model->writes, 0);
    expect_no_more_logs();
}

static void test_create_makes_no_mutex(void **state)
{
    (void)state;
    start(&lh_desc_base_two_pipes);
    mutex_init_fails = true;
    bt_create(&ddr4, 0, 0);
    assert_int_equal(mutex_inits, 0);
    expect_fatal(0, 1u << 3, "Cmd fifo overflow");
    expect_no_more_logs();
}

static void test_create_refusals(void **state)
{
    (void)state;
    start(&lh_desc_base_two_pipes);
    bt_expect_create_refusals(&ddr4);
    assert_int_equal(model->reads, 0);
    assert_int_equal(model->writes, 0);
    expect_no_more_logs();
}

static void test_create_before_initialisation(void **state)
{
    (void)state;
    bt_expect_create_before_init(&layout, &ddr4);
}

/* ---- Fatal error detection ---- */

static void test_each_error_bit_alone_reports_its_text(void **state)
{
    (void)state;
    start_created();
    for (uint32_t pipe = 0; pipe < LH_MAX_PIPES; pipe++)
        bt_walk_error_rows(&ddr4, pipe, (int)pipe, rows, ROWS);
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
    bt_store(0, STATUS, 0xFFFE0000);
    bt_expect_no_fatal(&ddr4, 0);
    assert_int_equal(bt_status_reads(0), ROWS);
    bt_store(0, STATUS, 0);
    bt_expect_no_fatal(&ddr4, 0);
    assert_int_equal(bt_status_reads(0), 2 * ROWS);
    assert_int_equal(bt_other_reads(), 0);
    assert_int_equal(model->writes, 0);
    expect_no_more_logs();
}

static void test_each_row_reads_the_register_anew(void **state)
{
    /* Bit 0 appears only at the seventeenth read, the last row's. */
    static const uint32_t late[] = {0, 0, 0, 0, 0, 0, 0, 0,      0,
                                    0, 0, 0, 0, 0, 0, 0, 1u << 0};
    /* Bit 15 shows at the first read (bit 16's row), gone by its own. */
    static const uint32_t changing[] = {1u << 15, 0};
    lh_fatal_error_t report = {0, 0, NULL};

    (void)state;
    start_created();
    bt_script(STATUS, late, BT_ARRAY_SIZE(late));
    assert_int_equal(ddr4_fatal_error_detect(0, &report), 1);
    assert_string_equal(report.error_text, "Read info fifo underflow");
    expect_log(LOG_CRIT, "FATAL - DDR4 pipe 0: Read info fifo underflow");
    assert_int_equal(bt_script_reads(), ROWS);

    bt_script(STATUS, changing, BT_ARRAY_SIZE(changing));
    bt_expect_no_fatal(&ddr4, 0);
    assert_int_equal(bt_script_reads(), ROWS);
    expect_no_more_logs();
}

static void test_standing_error_reported_on_every_call(void **state)
{
    (void)state;
    start_created();
    for (int call = 0; call < 3; call++)
        expect_fatal(1, 1u << 9, "Agent0 cmd fifo overflow");
    assert_int_equal(bt_peek(1, STATUS), 1u << 9);
    assert_int_equal(model->writes, 0);
    expect_no_more_logs();
}

static void test_each_pipe_reads_its_own_block(void **state)
{
    (void)state;
    start_created();
    bt_store(1, STATUS, 1u << 12);
    bt_expect_no_fatal(&ddr4, 0);
    assert_int_equal(bt_status_reads(1), 0);
    expect_fatal(1, 1u << 12, "Agent0 rdata fifo underflow");
    assert_int_equal(bt_status_reads(0), ROWS);
    expect_no_more_logs();
}

/* ---- Refusals ---- */

static void test_null_report_reads_nothing(void **state)
{
    (void)state;
    start_created();
    bt_store(0, STATUS, 1u << 16);
    bt_expect_null_refusals(&ddr4, null_refusals, 1, 0);
    /* Before the pipe check. */
    bt_expect_null_refusals(&ddr4, null_refusals, 1, 2);
    assert_int_equal(model->reads, 0);
    expect_no_more_logs();
}

static void test_invalid_pipe_reads_nothing(void **state)
{
    (void)state;
    start_created();
    bt_store(0, STATUS, 1u << 16);
    bt_expect_refusals(&ddr4, refusals, BT_ARRAY_SIZE(refusals), 2, "pipe");
    bt_expect_refusals(&ddr4, refusals, BT_ARRAY_SIZE(refusals), 0xFFFFFFFF,
                       "pipe");
    assert_int_equal(model->reads, 0);
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

    return BT_RUN_GROUPS("ddr4", never_created, tests);
}
