/* Part 4.4: the ingress packet processor driver (pkt_proc) against a model
 * of the block's hardware: clear-on-read counters, a status register that
 * can change between reads, and a count of the reads of every register. */
#include <stdbool.h>
#include <string.h>

#include "block_fixture.hpp"
#include "cmocka_all.h"
#include "fake_device.hpp"
#include "lh_drivers.hpp"
#include "lh_log.hpp"
#include "log_expect.hpp"
#include "mutex_wrap.hpp"
#include "pkt_proc.hpp"

/* Block registers, offsets from the block base (Part 4.4). */
#define STATUS 0x00u

#define STATS_BYTES 136
#define COUNTERS    17
/* Part 4.4's update_stats says 26, but its register map and statistics
 * table name 24 (0x20..0x44 and 0x50..0x84); the tables decide. */
#define COUNTER_REGISTERS 24
#define ERROR_ROWS        31

/* Part 4.4's statistics table: the register of bits 63..32 (0: none) and
 * the register of bits 31..0. */
static const struct bt_counter counter_sources[COUNTERS] = {
    {0x20, 0x24}, {0x28, 0x2C}, {0x30, 0x34}, {0x38, 0x3C}, {0x40, 0x44},
    {0x50, 0x54}, {0x58, 0x5C}, {0, 0x60},    {0, 0x64},    {0, 0x68},
    {0, 0x6C},    {0, 0x70},    {0, 0x74},    {0, 0x78},    {0, 0x7C},
    {0, 0x80},    {0, 0x84},
};

/* Loads every counter register, and the two registers between them that
 * are not counters. */
static void load_counters(int site, uint32_t poll)
{
    bt_load_counters(site, poll);
    bt_store(site, 0x48, bt_value_by_site(site, 0x48, poll));
    bt_store(site, 0x4C, bt_value_by_site(site, 0x4C, poll));
}

/* The processor blocks of the base window, pipe 0's and pipe 1's
 * (Part 2.4). */
static const struct bt_layout layout = {
    .sites = {0x18000, 0x28000},
    .site_count = 2,
    .span = 0x100,
    .status = {STATUS},
    .status_count = 1,
    .counters = counter_sources,
    .counter_count = COUNTERS,
    .value = bt_value_by_site,
    .load = load_counters,
};

static const struct bt_driver pkt_proc = {
    .name = "Ingress Pkt Processor",
    .ops = &pkt_proc_ops,
    .device = &lh_desc_base_two_pipes,
    .stats_bytes = STATS_BYTES,
};

static const struct bt_call refusals[] = {
    BT_STATS_REFUSALS("clear stats", "fatal error detection"),
};

static const struct bt_call null_refusals[] = {
    {"get stats", LOG_ERR, -1, bt_null_get_stats_wrong_size},
    {"fatal error detection", LOG_ERR, 0, bt_null_fatal_error_detect},
};

/* Part 4.4's fatal error table, in test order. */
static const struct bt_error_row error_rows[ERROR_ROWS] = {
    {STATUS, 30, "Input Packet FIFO Double bit ECC error"},
    {STATUS, 29, "Input Packet FIFO Overflow"},
    {STATUS, 28, "Input Packet FIFO Underflow"},
    {STATUS, 27, "Action Rule Instruction FIFO Double bit ECC error"},
    {STATUS, 26, "Action Rule Instruction FIFO Overflow"},
    {STATUS, 25, "Action Rule Instruction FIFO Underflow"},
    {STATUS, 24, "Rwe Data FIFO Double bit ECC error"},
    {STATUS, 23, "Rwe Data FIFO Overflow"},
    {STATUS, 22, "Rwe Data FIFO Underflow"},
    {STATUS, 21, "Checksum FIFO Double bit ECC error"},
    {STATUS, 20, "Checksum FIFO Overflow"},
    {STATUS, 19, "Checksum FIFO Underflow"},
    {STATUS, 18, "Output Packet FIFO Double bit ECC error"},
    {STATUS, 17, "Output Packet FIFO Overflow"},
    {STATUS, 16, "Output Packet FIFO Underflow"},
    {STATUS, 15, "Delete Replace Skip Insert FIFO Overflow"},
    {STATUS, 14, "Delete Replace Skip Insert FIFO Underflow"},
    {STATUS, 13, "Dh Shadow FIFO Overflow"},
    {STATUS, 12, "Dh Shadow FIFO Underflow"},
    {STATUS, 11, "Rwe Data Shadow FIFO Overflow"},
    {STATUS, 10, "Rwe Data Shadow FIFO Underflow"},
    {STATUS, 9, "Instruction Transform FIFO Overflow"},
    {STATUS, 8, "Instruction Transform FIFO Underflow"},
    {STATUS, 7, "Control Message FIFO Overflow"},
    {STATUS, 6, "Control Message FIFO Underflow"},
    {STATUS, 5, "Increase Decrease Command FIFO Overflow"},
    {STATUS, 4, "Increase Decrease Command FIFO Underflow"},
    {STATUS, 3, "Ingress Parser Packet Bus Missing SOP Error"},
    {STATUS, 2, "Ingress Parser Packet Bus Missing EOP Error"},
    {STATUS, 1, "Ingress Classification Packet Bus Missing SOP Error"},
    {STATUS, 0, "Ingress Classification Packet Bus Missing EOP Error"},
};

static struct reg_model *model;

static void start(lh_device_desc *desc)
{
    model = bt_start(&layout, desc);
}

static int teardown(void **state)
{
    mutex_init_fails = false;
    return fake_device_teardown(state);
}

static void start_both_pipes(void)
{
    start(&lh_desc_base_two_pipes);
    bt_create(&pkt_proc, 0, 0);
    bt_create(&pkt_proc, 1, 1);
}

/* ---- Contexts never created before: these run first, in this order. ---- */

static void test_mutex_failure_leaves_context_invalid(void **state)
{
    (void)state;
    start(&lh_desc_base_two_pipes);
    mutex_init_fails = true;
    bt_expect_mutex_failure(&pkt_proc, 0, bt_site_base(0));
    mutex_init_fails = false;
    assert_int_equal(model->reads, 0);
    assert_int_equal(model->writes, 0);
    bt_expect_refusals(&pkt_proc, refusals, BT_ARRAY_SIZE(refusals), 0,
                       "context");
    expect_no_more_logs();
}

static void test_pipe_1_refused_on_one_pipe_device(void **state)
{
    (void)state;
    start(&lh_desc_base_one_pipe);
    bt_expect_create_refused(&pkt_proc, 1, bt_site_base(1));
    assert_int_equal(model->writes, 0);
    bt_expect_refusals(&pkt_proc, refusals, BT_ARRAY_SIZE(refusals), 1,
                       "context");
    expect_no_more_logs();
}

static void test_exact_invalid_context_lines(void **state)
{
    uint64_t stats[COUNTERS];
    lh_fatal_error_t report;

    (void)state;
    start(&lh_desc_base_one_pipe);
    pkt_proc_update_stats(1);
    expect_log(LOG_CRIT, "Error - Ingress Pkt Processor update stats - "
                         "invalid context 1");
    assert_int_equal(pkt_proc_get_stats(1, stats, STATS_BYTES), -1);
    expect_log(LOG_CRIT, "Error - Ingress Pkt Processor get stats - "
                         "invalid context 1");
    assert_int_equal(pkt_proc_clear_stats(1), -1);
    expect_log(LOG_CRIT, "Error - Ingress Pkt Processor clear stats - "
                         "invalid context 1");
    assert_int_equal(pkt_proc_fatal_error_detect(1, &report), 0);
    expect_log(LOG_CRIT, "Error - Ingress Pkt Processor fatal error detection "
                         "- invalid context 1");
    expect_no_more_logs();
}

/* ---- Context creation ---- */

static void test_ops_table_wires_the_operations(void **state)
{
    static const struct lh_block_ops expected = {
        .context_create = pkt_proc_context_create,
        .update_stats = pkt_proc_update_stats,
        .get_stats = pkt_proc_get_stats,
        .clear_stats = pkt_proc_clear_stats,
        .fatal_error_detect = pkt_proc_fatal_error_detect,
    };

    (void)state;
    bt_assert_ops(&pkt_proc_ops, &expected);
}

static void test_create_logs_the_created_line(void **state)
{
    (void)state;
    start(&lh_desc_base_two_pipes);
    assert_int_equal(pkt_proc_context_create(0, bt_site_base(0)), 0);
    expect_log(LOG_INFO,
               "Informational - Ingress Pkt Processor module 0 context "
               "created");
    assert_int_equal(pkt_proc_context_create(1, bt_site_base(1)), 0);
    expect_log(LOG_INFO,
               "Informational - Ingress Pkt Processor module 1 context "
               "created");
    assert_int_equal(model->reads, 0);
    assert_int_equal(model->writes, 0);
    expect_no_more_logs();
}

static void test_create_zeroes_the_counters(void **state)
{
    (void)state;
    start(&lh_desc_base_two_pipes);
    bt_create(&pkt_proc, 0, 0);
    bt_check_create_zeroes(&pkt_proc, 0, 0);
    expect_no_more_logs();
}

static void test_create_refusals(void **state)
{
    (void)state;
    start(&lh_desc_base_two_pipes);
    bt_expect_create_refusals(&pkt_proc);
    assert_int_equal(model->writes, 0);
    expect_no_more_logs();
}

static void test_create_before_initialisation(void **state)
{
    (void)state;
    bt_expect_create_before_init(&layout, &pkt_proc);
}

/* ---- Statistics ---- */

static void test_every_counter_composed_from_its_registers(void **state)
{
    static const uint64_t expected[COUNTERS] = {
        0x1000208510002481, 0x1000288D10002C89, 0x1000309510003491,
        0x1000389D10003C99, 0x100040E5100044E1, 0x100050F5100054F1,
        0x100058FD10005CF9, 0x00000000100060C5, 0x00000000100064C1,
        0x00000000100068CD, 0x0000000010006CC9, 0x00000000100070D5,
        0x00000000100074D1, 0x00000000100078DD, 0x0000000010007CD9,
        0x0000000010008025, 0x0000000010008421,
    };

    (void)state;
    start(&lh_desc_base_two_pipes);
    bt_create(&pkt_proc, 0, 0);
    bt_check_composition(&pkt_proc, 0, 0, expected, COUNTER_REGISTERS);
    expect_no_more_logs();
}

static void test_counters_accumulate_over_polls(void **state)
{
    (void)state;
    start(&lh_desc_base_two_pipes);
    bt_create(&pkt_proc, 0, 0);
    bt_check_polls_accumulate(&pkt_proc, 0, 0);
    bt_assert_counter_reads(0, 4, COUNTER_REGISTERS);
    expect_no_more_logs();
}

static void test_counter_totals_wrap(void **state)
{
    static const struct bt_word all_ones[] = {
        {0x20, 0xFFFFFFFF}, {0x24, 0xFFFFFFFF}, {0x60, 0xFFFFFFFF}};
    static const struct bt_total totals[] = {{0, 0xFFFFFFFFFFFFFFFE},
                                             {7, 0x1FFFFFFFE}};

    (void)state;
    start(&lh_desc_base_two_pipes);
    bt_create(&pkt_proc, 0, 0);
    bt_check_totals(&pkt_proc, 0, 0, all_ones, BT_ARRAY_SIZE(all_ones), totals,
                    BT_ARRAY_SIZE(totals));
    expect_no_more_logs();
}

static void test_clear_then_get_yields_zeros(void **state)
{
    (void)state;
    start(&lh_desc_base_two_pipes);
    bt_create(&pkt_proc, 0, 0);
    bt_check_clear(&pkt_proc, 0, 0);
    expect_no_more_logs();
}

static void test_get_stats_wants_exactly_136_bytes(void **state)
{
    static const uint64_t sizes[] = {144, 135, 137, 0, 128};
    uint8_t record[STATS_BYTES];
    uint8_t untouched[STATS_BYTES];

    (void)state;
    start(&lh_desc_base_two_pipes);
    bt_create(&pkt_proc, 0, 0);
    load_counters(0, 0);
    pkt_proc_update_stats(0);
    bt_expect_wrong_sizes(&pkt_proc, 0, sizes, BT_ARRAY_SIZE(sizes));
    memset(untouched, 0xEE, sizeof(untouched));
    bt_get_stats(&pkt_proc, 0, record);
    assert_memory_not_equal(record, untouched, STATS_BYTES);
    expect_no_more_logs();
}

static void test_pipes_keep_their_own_counters(void **state)
{
    (void)state;
    start_both_pipes();
    bt_check_pipes_apart(&pkt_proc, 2);
    expect_no_more_logs();
}

/* ---- Fatal error detection ---- */

static void expect_fatal(uint32_t pipe, uint32_t status, const char *text)
{
    bt_store((int)pipe, STATUS, status);
    bt_expect_fatal(&pkt_proc, pipe, text);
}

static void test_each_error_bit_alone_reports_its_text(void **state)
{
    (void)state;
    start_both_pipes();
    /* The status register is only ever read. */
    bt_walk_error_rows(&pkt_proc, 0, 0, error_rows, ERROR_ROWS);
    bt_walk_error_rows(&pkt_proc, 1, 1, error_rows, ERROR_ROWS);
    expect_no_more_logs();
}

static void test_first_set_bit_wins(void **state)
{
    (void)state;
    start_both_pipes();
    expect_fatal(0, 1u << 30 | 1u << 0,
                 "Input Packet FIFO Double bit ECC error");
    expect_fatal(0, 0xFFFFFFFF, "Input Packet FIFO Double bit ECC error");
    expect_fatal(0, 1u << 15 | 1u << 16, "Output Packet FIFO Underflow");
    expect_fatal(1, 1u << 0 | 1u << 1,
                 "Ingress Classification Packet Bus Missing SOP Error");
    expect_fatal(0, 1u << 31 | 1u << 0,
                 "Ingress Classification Packet Bus Missing EOP Error");
    expect_no_more_logs();
}

static void expect_no_fatal(uint32_t status)
{
    unsigned long writes = model->writes;

    bt_store(0, STATUS, status);
    bt_forget_reads();
    bt_expect_no_fatal(&pkt_proc, 0);
    assert_int_equal(bt_reads(0, STATUS), ERROR_ROWS);
    assert_int_equal(model->writes, writes);
}

static void test_bit_31_reports_nothing(void **state)
{
    (void)state;
    start_both_pipes();
    expect_no_fatal(0);
    expect_no_fatal(1u << 31);
    expect_no_more_logs();
}

static void test_status_is_read_again_for_every_row(void **state)
{
    /* Bit 0 only from the 31st read, the row of bit 0. */
    uint32_t late[ERROR_ROWS] = {0};
    /* Bit 0 at the first read only: gone when its row reads again. */
    static const uint32_t gone[] = {1u << 0, 0};
    /* Bits 30 and 29 from the second read on: found by bit 29's read. */
    static const uint32_t second[] = {0, 1u << 30 | 1u << 29};
    lh_fatal_error_t report = {0, 0, NULL};

    (void)state;
    start_both_pipes();
    late[ERROR_ROWS - 1] = 1u << 0;
    bt_script(STATUS, late, BT_ARRAY_SIZE(late));
    assert_int_equal(pkt_proc_fatal_error_detect(0, &report), 1);
    assert_string_equal(report.error_text,
                        "Ingress Classification Packet Bus Missing EOP Error");
    assert_int_equal(bt_reads(0, STATUS), ERROR_ROWS);
    expect_log(LOG_CRIT, "FATAL - Ingress Pkt Processor pipe 0: Ingress "
                         "Classification Packet Bus Missing EOP Error");

    report.error_text = NULL;
    bt_script(STATUS, gone, BT_ARRAY_SIZE(gone));
    assert_int_equal(pkt_proc_fatal_error_detect(0, &report), 0);
    assert_null(report.error_text);
    assert_int_equal(bt_reads(0, STATUS), ERROR_ROWS);

    bt_script(STATUS, second, BT_ARRAY_SIZE(second));
    assert_int_equal(pkt_proc_fatal_error_detect(0, &report), 1);
    assert_string_equal(report.error_text, "Input Packet FIFO Overflow");
    assert_int_equal(bt_reads(0, STATUS), 2);
    expect_log(LOG_CRIT,
               "FATAL - Ingress Pkt Processor pipe 0: Input Packet FIFO "
               "Overflow");
    expect_no_more_logs();
}

/* ---- Refusals ---- */

static void test_null_pointers_come_first(void **state)
{
    (void)state;
    start(&lh_desc_base_two_pipes);
    bt_expect_null_refusals(&pkt_proc, null_refusals,
                            BT_ARRAY_SIZE(null_refusals), 2);
    expect_no_more_logs();
}

static void test_invalid_pipe_refused_by_every_operation(void **state)
{
    (void)state;
    start_both_pipes();
    bt_expect_refusals(&pkt_proc, refusals, BT_ARRAY_SIZE(refusals), 2, "pipe");
    expect_no_more_logs();
}

static void test_exact_invalid_pipe_lines(void **state)
{
    uint64_t stats[COUNTERS];
    lh_fatal_error_t report;

    (void)state;
    start(&lh_desc_base_two_pipes);
    pkt_proc_update_stats(2);
    expect_log(LOG_CRIT, "Error - Ingress Pkt Processor update stats - "
                         "invalid pipe 2");
    assert_int_equal(pkt_proc_get_stats(3, stats, STATS_BYTES), -1);
    expect_log(LOG_CRIT, "Error - Ingress Pkt Processor get stats - "
                         "invalid pipe 3");
    assert_int_equal(pkt_proc_clear_stats(2), -1);
    expect_log(LOG_CRIT, "Error - Ingress Pkt Processor clear stats - "
                         "invalid pipe 2");
    assert_int_equal(pkt_proc_fatal_error_detect(2, &report), 0);
    expect_log(LOG_CRIT, "Error - Ingress Pkt Processor fatal error detection "
                         "- invalid pipe 2");
    expect_no_more_logs();
}

int main(void)
{
#define T(name) cmocka_unit_test_teardown(name, teardown)
    const struct CMUnitTest never_created[] = {
        T(test_mutex_failure_leaves_context_invalid),
        T(test_pipe_1_refused_on_one_pipe_device),
        T(test_exact_invalid_context_lines),
    };
    const struct CMUnitTest tests[] = {
        T(test_ops_table_wires_the_operations),
        T(test_create_logs_the_created_line),
        T(test_create_zeroes_the_counters),
        T(test_create_refusals),
        T(test_create_before_initialisation),
        T(test_every_counter_composed_from_its_registers),
        T(test_counters_accumulate_over_polls),
        T(test_counter_totals_wrap),
        T(test_clear_then_get_yields_zeros),
        T(test_get_stats_wants_exactly_136_bytes),
        T(test_pipes_keep_their_own_counters),
        T(test_each_error_bit_alone_reports_its_text),
        T(test_first_set_bit_wins),
        T(test_bit_31_reports_nothing),
        T(test_status_is_read_again_for_every_row),
        T(test_null_pointers_come_first),
        T(test_invalid_pipe_refused_by_every_operation),
        T(test_exact_invalid_pipe_lines),
    };

    return BT_RUN_GROUPS("ingress packet processor", never_created, tests);
}
