/* Part 4.2: the egress scheduler drivers (egress_sched, lhx_egress_sched)
 * against a model of the block's hardware: clear-on-read counters, a
 * status register that can change between reads, and a count of the reads
 * of every register. */
#include <stdbool.h>
#include <string.h>

#include "block_fixture.hpp"
#include "cmocka_all.h"
#include "egress_sched.hpp"
#include "fake_device.hpp"
#include "lh_drivers.hpp"
#include "lh_log.hpp"
#include "log_expect.hpp"
#include "mutex_wrap.hpp"

/* Block registers, offsets from the block base (Part 4.2). */
#define STATUS 0x00u

#define STATS_BYTES       144
#define COUNTERS          18
#define COUNTER_REGISTERS 24
#define ERROR_ROWS        14

/* Part 4.2's statistics table: the register of bits 63..32 (0: none) and
 * the register of bits 31..0. */
static const struct bt_counter counter_sources[COUNTERS] = {
    {0x30, 0x34}, {0x38, 0x3C}, {0x40, 0x44}, {0, 0x50},    {0, 0x54},
    {0, 0x60},    {0, 0x64},    {0x70, 0x74}, {0x78, 0x7C}, {0x80, 0x84},
    {0, 0x90},    {0, 0x94},    {0, 0x98},    {0, 0x9C},    {0, 0xA0},
    {0, 0xA4},    {0, 0xA8},    {0, 0xAC},
};

/* The two egress scheduler blocks of the base window, pipe 0's and pipe
 * 1's (Part 2.4); the LHX window has only the first. A test may put either
 * driver's context on either site. */
static const struct bt_layout layout = {
    .sites = {0x19000, 0x29000},
    .site_count = 2,
    .span = 0x100,
    .status = {STATUS},
    .status_count = 1,
    .counters = counter_sources,
    .counter_count = COUNTERS,
    .value = bt_value_by_site,
};

static const struct bt_driver sched = {
    .name = "Egress Scheduler",
    .ops = &egress_sched_ops,
    .site = 0,
    .device = &lh_desc_base_two_pipes,
    .stats_bytes = STATS_BYTES,
};
static const struct bt_driver lhx = {
    .name = "LHX Egress Scheduler",
    .ops = &lhx_egress_sched_ops,
    .site = 1,
    .device = &lh_desc_lhx,
    .stats_bytes = STATS_BYTES,
};
static const struct bt_driver *const drivers[] = {&sched, &lhx};

/* clear stats words its refusal as update stats (Part 4.2). */
static const struct bt_call refusals[] = {
    BT_STATS_REFUSALS("update stats", "fatal error detection"),
};

static const struct bt_call null_refusals[] = {
    {"get stats", LOG_ERR, -1, bt_null_get_stats_wrong_size},
    {"fatal error detection", LOG_ERR, 0, bt_null_fatal_error_detect},
};

/* Part 4.2's fatal error table, in test order. */
static const struct bt_error_row error_rows[ERROR_ROWS] = {
    {STATUS, 13, "SCHE Out FIFO Overflow"},
    {STATUS, 12, "SCHE Out FIFO Underflow"},
    {STATUS, 11, "Packet Buffer FIFO (x86 Path) Double bit ECC error"},
    {STATUS, 10, "Packet Buffer (x86 Path) Overflow"},
    {STATUS, 9, "Packet Buffer (x86 Path) Underflow"},
    {STATUS, 8, "SCHE FIFO (x86 Path) Double bit ECC error"},
    {STATUS, 7, "SCHE FIFO (x86 Path) Overflow"},
    {STATUS, 6, "SCHE FIFO (x86 Path) Underflow"},
    {STATUS, 5, "Packet Buffer FIFO (Ingress Path) Double bit ECC error"},
    {STATUS, 4, "Packet Buffer (Ingress Path) Overflow"},
    {STATUS, 3, "Packet Buffer (Ingress Path) Underflow"},
    {STATUS, 2, "SCHE FIFO (Ingress Path) Double bit ECC error"},
    {STATUS, 1, "SCHE FIFO (Ingress Path) Overflow"},
    {STATUS, 0, "SCHE FIFO (Ingress Path) Underflow"},
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

static void start_both_on_pipe_0(void)
{
    start(&lh_desc_base_two_pipes);
    bt_create(&sched, 0, sched.site);
    bt_create(&lhx, 0, lhx.site);
}

/* ---- Contexts never created before: these run first, in this order. ---- */

static void test_mutex_failure_leaves_context_invalid(void **state)
{
    (void)state;
    start(&lh_desc_base_two_pipes);
    mutex_init_fails = true;
    for (size_t d = 0; d < BT_ARRAY_SIZE(drivers); d++)
        bt_expect_mutex_failure(drivers[d], 0, bt_site_base(0));
    mutex_init_fails = false;
    assert_int_equal(model->reads, 0);
    assert_int_equal(model->writes, 0);
    bt_expect_refusals(&sched, refusals, BT_ARRAY_SIZE(refusals), 0, "context");
    bt_expect_refusals(&lhx, refusals, BT_ARRAY_SIZE(refusals), 0, "context");
    expect_no_more_logs();
}

static void test_pipe_1_refused_on_one_pipe_device(void **state)
{
    (void)state;
    start(&lh_desc_base_one_pipe);
    bt_expect_create_refused(&sched, 1, bt_site_base(1));
    assert_int_equal(model->writes, 0);
    bt_expect_refusals(&sched, refusals, BT_ARRAY_SIZE(refusals), 1, "context");
    expect_no_more_logs();
}

static void test_lhx_context_is_not_the_base_context(void **state)
{
    uint64_t stats[COUNTERS];

    (void)state;
    start(&lh_desc_lhx);
    bt_create(&lhx, 0, 0);
    assert_int_equal(lhx_egress_sched_get_stats(0, stats, STATS_BYTES), 0);
    assert_int_equal(egress_sched_get_stats(0, stats, STATS_BYTES), -1);
    expect_log(LOG_CRIT,
               "Error - Egress Scheduler get stats - invalid context 0");
    expect_no_more_logs();
}

/* ---- Context creation. lhx_egress_sched pipe 1 is never created. ---- */

static void test_ops_tables_wire_the_operations(void **state)
{
    static const struct lh_block_ops expected_sched = {
        .context_create = egress_sched_context_create,
        .update_stats = egress_sched_update_stats,
        .get_stats = egress_sched_get_stats,
        .clear_stats = egress_sched_clear_stats,
        .fatal_error_detect = egress_sched_fatal_error_detect,
    };
    static const struct lh_block_ops expected_lhx = {
        .context_create = lhx_egress_sched_context_create,
        .update_stats = lhx_egress_sched_update_stats,
        .get_stats = lhx_egress_sched_get_stats,
        .clear_stats = lhx_egress_sched_clear_stats,
        .fatal_error_detect = lhx_egress_sched_fatal_error_detect,
    };

    (void)state;
    bt_assert_ops(&egress_sched_ops, &expected_sched);
    bt_assert_ops(&lhx_egress_sched_ops, &expected_lhx);
}

static void test_create_logs_the_created_line(void **state)
{
    (void)state;
    start(&lh_desc_base_two_pipes);
    assert_int_equal(egress_sched_context_create(0, bt_site_base(0)), 0);
    expect_log(LOG_INFO,
               "Informational - Egress Scheduler module 0 context created");
    assert_int_equal(egress_sched_context_create(1, bt_site_base(1)), 0);
    expect_log(LOG_INFO,
               "Informational - Egress Scheduler module 1 context created");
    assert_int_equal(lhx_egress_sched_context_create(0, bt_site_base(1)), 0);
    expect_log(LOG_INFO, "Informational - LHX Egress Scheduler module 0 "
                         "context created");
    assert_int_equal(model->reads, 0);
    assert_int_equal(model->writes, 0);
    expect_no_more_logs();
}

static void test_create_zeroes_the_counters(void **state)
{
    (void)state;
    start(&lh_desc_base_two_pipes);
    for (size_t d = 0; d < BT_ARRAY_SIZE(drivers); d++) {
        bt_create(drivers[d], 0, 0);
        bt_check_create_zeroes(drivers[d], 0, 0);
    }
    expect_no_more_logs();
}

static void test_create_refusals(void **state)
{
    (void)state;
    start(&lh_desc_base_two_pipes);
    for (size_t d = 0; d < BT_ARRAY_SIZE(drivers); d++)
        bt_expect_create_refusals(drivers[d]);
    assert_int_equal(model->writes, 0);
    expect_no_more_logs();
}

static void test_create_before_initialisation(void **state)
{
    (void)state;
    bt_expect_create_before_init(&layout, &sched);
}

/* ---- Statistics ---- */

static void test_every_counter_composed_from_its_registers(void **state)
{
    static const uint64_t expected[COUNTERS] = {
        0x1000309510003491, 0x1000389D10003C99, 0x100040E5100044E1,
        0x00000000100050F5, 0x00000000100054F1, 0x00000000100060C5,
        0x00000000100064C1, 0x100070D5100074D1, 0x100078DD10007CD9,
        0x1000802510008421, 0x0000000010009035, 0x0000000010009431,
        0x000000001000983D, 0x0000000010009C39, 0x000000001000A005,
        0x000000001000A401, 0x000000001000A80D, 0x000000001000AC09,
    };

    (void)state;
    start(&lh_desc_base_two_pipes);
    for (size_t d = 0; d < BT_ARRAY_SIZE(drivers); d++) {
        bt_create(drivers[d], 0, 0);
        bt_check_composition(drivers[d], 0, 0, expected, COUNTER_REGISTERS);
    }
    expect_no_more_logs();
}

static void test_counters_accumulate_over_polls(void **state)
{
    (void)state;
    start_both_on_pipe_0();
    for (size_t d = 0; d < BT_ARRAY_SIZE(drivers); d++) {
        bt_forget_reads();
        bt_check_polls_accumulate(drivers[d], 0, drivers[d]->site);
        bt_assert_counter_reads(drivers[d]->site, 4, COUNTER_REGISTERS);
    }
    expect_no_more_logs();
}

static void test_counter_totals_wrap(void **state)
{
    static const struct bt_word all_ones[] = {
        {0x30, 0xFFFFFFFF}, {0x34, 0xFFFFFFFF}, {0x50, 0xFFFFFFFF}};
    static const struct bt_total totals[] = {{0, 0xFFFFFFFFFFFFFFFE},
                                             {3, 0x1FFFFFFFE}};

    (void)state;
    start(&lh_desc_base_two_pipes);
    bt_create(&sched, 0, 0);
    bt_check_totals(&sched, 0, 0, all_ones, BT_ARRAY_SIZE(all_ones), totals,
                    BT_ARRAY_SIZE(totals));
    expect_no_more_logs();
}

static void test_clear_then_get_yields_zeros(void **state)
{
    (void)state;
    start_both_on_pipe_0();
    for (size_t d = 0; d < BT_ARRAY_SIZE(drivers); d++)
        bt_check_clear(drivers[d], 0, drivers[d]->site);
    expect_no_more_logs();
}

static void test_get_stats_wants_exactly_144_bytes(void **state)
{
    static const uint64_t sizes[] = {120, 143, 145, 0, 152};
    uint8_t record[STATS_BYTES];
    uint8_t untouched[STATS_BYTES];

    (void)state;
    start_both_on_pipe_0();
    bt_load_counters(0, 0);
    bt_load_counters(1, 0);
    egress_sched_update_stats(0);
    lhx_egress_sched_update_stats(0);
    memset(untouched, 0xEE, sizeof(untouched));
    for (size_t d = 0; d < BT_ARRAY_SIZE(drivers); d++) {
        bt_expect_wrong_sizes(drivers[d], 0, sizes, BT_ARRAY_SIZE(sizes));
        bt_get_stats(drivers[d], 0, record);
        assert_memory_not_equal(record, untouched, STATS_BYTES);
    }
    expect_no_more_logs();
}

static void test_pipes_keep_their_own_counters(void **state)
{
    (void)state;
    start(&lh_desc_base_two_pipes);
    bt_create(&sched, 0, 0);
    bt_create(&sched, 1, 1);
    bt_check_pipes_apart(&sched, 2);
    expect_no_more_logs();
}

static void test_lhx_and_base_keep_apart(void **state)
{
    static const uint64_t zeros[COUNTERS];
    uint64_t expected_lhx[COUNTERS] = {0};
    lh_fatal_error_t report = {0, 0, NULL};

    (void)state;
    start_both_on_pipe_0();
    bt_load_counters(0, 0);
    bt_load_counters(1, 1);
    egress_sched_update_stats(0);
    lhx_egress_sched_update_stats(0);
    assert_int_equal(egress_sched_clear_stats(0), 0);
    bt_add_expected(expected_lhx, 1, 1);
    bt_assert_stats(&sched, 0, zeros);
    bt_assert_stats(&lhx, 0, expected_lhx);

    bt_store(1, STATUS, 1u << 13);
    assert_int_equal(egress_sched_fatal_error_detect(0, &report), 0);
    assert_null(report.error_text);
    assert_int_equal(lhx_egress_sched_fatal_error_detect(0, &report), 1);
    expect_log(LOG_CRIT,
               "FATAL - LHX Egress Scheduler pipe 0: SCHE Out FIFO Overflow");
    expect_no_more_logs();
}

/* ---- Fatal error detection ---- */

static void expect_fatal_on(const struct bt_driver *driver, uint32_t pipe,
                            int site, uint32_t status, const char *text)
{
    bt_store(site, STATUS, status);
    bt_expect_fatal(driver, pipe, text);
}

static void test_each_error_bit_alone_reports_its_text(void **state)
{
    (void)state;
    start_both_on_pipe_0();
    bt_create(&sched, 1, 1);
    /* The status register is only ever read. */
    bt_walk_error_rows(&sched, 0, 0, error_rows, ERROR_ROWS);
    bt_walk_error_rows(&sched, 1, 1, error_rows, ERROR_ROWS);
    bt_walk_error_rows(&lhx, 0, 1, error_rows, ERROR_ROWS);
    expect_no_more_logs();
}

static void test_first_set_bit_wins(void **state)
{
    (void)state;
    start_both_on_pipe_0();
    expect_fatal_on(&sched, 0, 0, 1u << 13 | 1u << 0, "SCHE Out FIFO Overflow");
    expect_fatal_on(&lhx, 0, 1, 1u << 13 | 1u << 0, "SCHE Out FIFO Overflow");
    expect_fatal_on(&sched, 0, 0, 0xFFFFFFFF, "SCHE Out FIFO Overflow");
    expect_fatal_on(&sched, 0, 0, 1u << 4 | 1u << 5,
                    "Packet Buffer FIFO (Ingress Path) Double bit ECC error");
    expect_fatal_on(&sched, 0, 0, 1u << 0 | 1u << 1,
                    "SCHE FIFO (Ingress Path) Overflow");
    expect_fatal_on(&sched, 0, 0, 0xFFFFC000 | 1u << 0,
                    "SCHE FIFO (Ingress Path) Underflow");
    expect_no_more_logs();
}

static void expect_no_fatal(uint32_t status)
{
    unsigned long writes = model->writes;

    bt_store(0, STATUS, status);
    bt_forget_reads();
    bt_expect_no_fatal(&sched, 0);
    assert_int_equal(bt_reads(0, STATUS), ERROR_ROWS);
    assert_int_equal(model->writes, writes);
}

static void test_bits_31_to_14_report_nothing(void **state)
{
    (void)state;
    start_both_on_pipe_0();
    expect_no_fatal(0);
    for (unsigned int bit = 14; bit < 32; bit++)
        expect_no_fatal(1u << bit);
    expect_no_fatal(0xFFFFC000);
    expect_no_more_logs();
}

static void test_status_is_read_again_for_every_row(void **state)
{
    /* Bit 0 only at the fourteenth read, the row of bit 0. */
    static const uint32_t late[] = {0, 0, 0, 0, 0, 0, 0,
                                    0, 0, 0, 0, 0, 0, 1u << 0};
    /* Bit 0 at the first read only: gone when its row reads again. */
    static const uint32_t gone[] = {1u << 0, 0};
    /* Bit 12 from the second read on: found by its own row's read. */
    static const uint32_t second[] = {0, 1u << 12 | 1u << 13};
    lh_fatal_error_t report = {0, 0, NULL};

    (void)state;
    start_both_on_pipe_0();
    bt_script(STATUS, late, BT_ARRAY_SIZE(late));
    assert_int_equal(egress_sched_fatal_error_detect(0, &report), 1);
    assert_string_equal(report.error_text,
                        "SCHE FIFO (Ingress Path) Underflow");
    assert_int_equal(bt_reads(0, STATUS), 14);
    expect_log(LOG_CRIT, "FATAL - Egress Scheduler pipe 0: SCHE FIFO "
                         "(Ingress Path) Underflow");

    report.error_text = NULL;
    bt_script(STATUS, gone, BT_ARRAY_SIZE(gone));
    assert_int_equal(egress_sched_fatal_error_detect(0, &report), 0);
    assert_null(report.error_text);
    assert_int_equal(bt_reads(0, STATUS), 14);

    bt_script(STATUS, second, BT_ARRAY_SIZE(second));
    assert_int_equal(egress_sched_fatal_error_detect(0, &report), 1);
    assert_string_equal(report.error_text, "SCHE Out FIFO Underflow");
    assert_int_equal(bt_reads(0, STATUS), 2);
    expect_log(LOG_CRIT,
               "FATAL - Egress Scheduler pipe 0: SCHE Out FIFO Underflow");
    expect_no_more_logs();
}

/* ---- Refusals ---- */

static void test_null_pointers_come_first(void **state)
{
    (void)state;
    start(&lh_desc_base_two_pipes);
    for (size_t d = 0; d < BT_ARRAY_SIZE(drivers); d++)
        bt_expect_null_refusals(drivers[d], null_refusals,
                                BT_ARRAY_SIZE(null_refusals), 2);
    expect_no_more_logs();
}

static void test_invalid_pipe_refused_by_every_operation(void **state)
{
    (void)state;
    start_both_on_pipe_0();
    for (size_t d = 0; d < BT_ARRAY_SIZE(drivers); d++)
        bt_expect_refusals(drivers[d], refusals, BT_ARRAY_SIZE(refusals), 2,
                           "pipe");
    expect_no_more_logs();
}

static void test_invalid_context_refused_by_every_operation(void **state)
{
    (void)state;
    start(&lh_desc_lhx);
    bt_expect_create_refused(&lhx, 1, bt_site_base(0));
    bt_expect_refusals(&lhx, refusals, BT_ARRAY_SIZE(refusals), 1, "context");
    expect_no_more_logs();
}

static void test_clear_stats_refuses_with_update_words(void **state)
{
    uint64_t expected[COUNTERS] = {0};

    (void)state;
    start_both_on_pipe_0();
    bt_load_counters(0, 0);
    egress_sched_update_stats(0);
    assert_int_equal(egress_sched_clear_stats(2), -1);
    expect_log(LOG_CRIT, "Error - Egress Scheduler update stats - invalid "
                         "pipe 2");
    assert_int_equal(lhx_egress_sched_clear_stats(1), -1);
    expect_log(LOG_CRIT, "Error - LHX Egress Scheduler update stats - "
                         "invalid context 1");
    bt_add_expected(expected, 0, 0);
    bt_assert_stats(&sched, 0, expected);
    expect_no_more_logs();
}

static void test_exact_invalid_lines(void **state)
{
    uint64_t stats[COUNTERS];
    lh_fatal_error_t report;

    (void)state;
    start(&lh_desc_base_two_pipes);
    egress_sched_update_stats(2);
    expect_log(LOG_CRIT, "Error - Egress Scheduler update stats - "
                         "invalid pipe 2");
    assert_int_equal(egress_sched_get_stats(3, stats, STATS_BYTES), -1);
    expect_log(LOG_CRIT, "Error - Egress Scheduler get stats - "
                         "invalid pipe 3");
    assert_int_equal(egress_sched_fatal_error_detect(2, &report), 0);
    expect_log(LOG_CRIT, "Error - Egress Scheduler fatal error detection "
                         "- invalid pipe 2");
    lhx_egress_sched_update_stats(1);
    expect_log(LOG_CRIT, "Error - LHX Egress Scheduler update stats - "
                         "invalid context 1");
    assert_int_equal(lhx_egress_sched_get_stats(1, stats, STATS_BYTES), -1);
    expect_log(LOG_CRIT, "Error - LHX Egress Scheduler get stats - "
                         "invalid context 1");
    assert_int_equal(lhx_egress_sched_fatal_error_detect(1, &report), 0);
    expect_log(LOG_CRIT, "Error - LHX Egress Scheduler fatal error detection "
                         "- invalid context 1");
    expect_no_more_logs();
}

int main(void)
{
#define T(name) cmocka_unit_test_teardown(name, teardown)
    const struct CMUnitTest never_created[] = {
        T(test_mutex_failure_leaves_context_invalid),
        T(test_pipe_1_refused_on_one_pipe_device),
        T(test_lhx_context_is_not_the_base_context),
    };
    const struct CMUnitTest tests[] = {
        T(test_ops_tables_wire_the_operations),
        T(test_create_logs_the_created_line),
        T(test_create_zeroes_the_counters),
        T(test_create_refusals),
        T(test_create_before_initialisation),
        T(test_every_counter_composed_from_its_registers),
        T(test_counters_accumulate_over_polls),
        T(test_counter_totals_wrap),
        T(test_clear_then_get_yields_zeros),
        T(test_get_stats_wants_exactly_144_bytes),
        T(test_pipes_keep_their_own_counters),
        T(test_lhx_and_base_keep_apart),
        T(test_each_error_bit_alone_reports_its_text),
        T(test_first_set_bit_wins),
        T(test_bits_31_to_14_report_nothing),
        T(test_status_is_read_again_for_every_row),
        T(test_null_pointers_come_first),
        T(test_invalid_pipe_refused_by_every_operation),
        T(test_invalid_context_refused_by_every_operation),
        T(test_clear_stats_refuses_with_update_words),
        T(test_exact_invalid_lines),
    };

    return BT_RUN_GROUPS("egress scheduler", never_created, tests);
}
