/* Part 3.3: the PCIe block drivers (pcie, lhx_pcie) against a model of the
 * block's hardware: two counters that clear when read and a fatal error
 * status register that can change between reads. */
#include <stdbool.h>
#include <string.h>

#include "block_fixture.hpp"
#include "cmocka_all.h"
#include "fake_device.hpp"
#include "lh_drivers.hpp"
#include "lh_log.hpp"
#include "log_expect.hpp"
#include "mutex_wrap.hpp"
#include "pcie.hpp"

/* Block registers, offsets from the block base (Part 3.3). */
#define STATUS    0x00u
#define COUNTER_0 0x50u
#define COUNTER_1 0x54u

#define STATS_BYTES 16
#define COUNTERS    2
#define ROWS        6

static const struct bt_counter counter_sources[COUNTERS] = {
    {0, COUNTER_0},
    {0, COUNTER_1},
};

/* The two counters and their neighbours, which must never be read. */
static void load_counters(int site, uint32_t poll)
{
    for (uint32_t reg = COUNTER_0 - 8; reg <= COUNTER_1 + 8; reg += 4)
        bt_store(site, reg, bt_value_by_reg(site, reg, poll));
}

/* The block sits at window offset 0x1000 on both images (Part 2.4); the
 * second site gives another context a block of its own. */
static const struct bt_layout layout = {
    .sites = {0x1000, 0x3000},
    .site_count = 2,
    .span = 0x100,
    .status = {STATUS},
    .status_count = 1,
    .counters = counter_sources,
    .counter_count = COUNTERS,
    .value = bt_value_by_reg,
    .load = load_counters,
};

static const struct bt_driver pcie = {
    .name = "PCIe",
    .ops = &pcie_ops,
    .site = 0,
    .device = &lh_desc_base_two_pipes,
    .one_pipe_device = &lh_desc_base_one_pipe,
    .stats_bytes = STATS_BYTES,
};
static const struct bt_driver lhx = {
    .name = "LHX PCIe",
    .ops = &lhx_pcie_ops,
    .site = 1,
    .device = &lh_desc_lhx,
    .one_pipe_device = &lh_desc_lhx,
    .stats_bytes = STATS_BYTES,
};
static const struct bt_driver *const drivers[] = {&pcie, &lhx};

static const struct bt_call refusals[] = {
    BT_STATS_REFUSALS("clear stats", "module fatal error detection"),
};

static const struct bt_call null_refusals[] = {
    {"get stats", LOG_ERR, -1, bt_null_get_stats},
    {"get stats", LOG_ERR, -1, bt_null_get_stats_wrong_size},
    {"module fatal error detection", LOG_ERR, 0, bt_null_fatal_error_detect},
};

/* Part 3.3's table, in test order. */
static const struct bt_error_row rows[ROWS] = {
    {STATUS, 5, "PBUS Trgt FIFO Overflow"},
    {STATUS, 4, "PBUS Trgt FIFO Underflow"},
    {STATUS, 3, "AXI-lite Read Return FIFO Overflow"},
    {STATUS, 2, "AXI-lite Read Return FIFO Underflow"},
    {STATUS, 1, "AXI-lite Command FIFO Overflow"},
    {STATUS, 0, "AXI-lite Command FIFO Underflow"},
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

/* Ends a device mid-test, every message accounted for. */
static void finish(void)
{
    expect_no_more_logs();
    fake_device_teardown(NULL);
}

/* Both drivers on one base device: pcie at the real site, lhx_pcie at the
 * other. */
static void start_both(void)
{
    start(&lh_desc_base_two_pipes);
    bt_create(&pcie, 0, pcie.site);
    bt_create(&lhx, 0, lhx.site);
}

/* ---- Contexts never created before: these run first, in this order. ---- */

static void test_mutex_failure_leaves_context_invalid(void **state)
{
    (void)state;
    for (size_t d = 0; d < BT_ARRAY_SIZE(drivers); d++) {
        const struct bt_driver *driver = drivers[d];

        start(driver->device);
        load_counters(0, 0);
        bt_store(0, STATUS, 1u << 5);
        mutex_init_fails = true;
        bt_expect_mutex_failure(driver, 0, bt_site_base(0));
        mutex_init_fails = false;
        assert_int_equal(mutex_inits, 1);
        bt_expect_refusals(driver, refusals, BT_ARRAY_SIZE(refusals), 0,
                           "context");
        assert_int_equal(model->writes, 0);
        finish();
    }
}

static void test_pipe_1_refused_on_one_pipe_devices(void **state)
{
    (void)state;
    for (size_t d = 0; d < BT_ARRAY_SIZE(drivers); d++) {
        const struct bt_driver *driver = drivers[d];

        start(driver->one_pipe_device);
        bt_expect_create_refused(driver, 1, bt_site_base(1));
        assert_int_equal(mutex_inits, 0);
        bt_expect_refusals(driver, refusals, BT_ARRAY_SIZE(refusals), 1,
                           "context");
        assert_int_equal(model->writes, 0);
        finish();
    }
}

/* ---- Context creation. lhx_pcie pipe 1 is never created anywhere. ---- */

static void test_ops_tables_wire_the_operations(void **state)
{
    static const struct lh_block_ops expected_pcie = {
        .context_create = pcie_context_create,
        .update_stats = pcie_update_stats,
        .get_stats = pcie_get_stats,
        .clear_stats = pcie_clear_stats,
        .fatal_error_detect = pcie_fatal_error_detect,
    };
    static const struct lh_block_ops expected_lhx = {
        .context_create = lhx_pcie_context_create,
        .update_stats = lhx_pcie_update_stats,
        .get_stats = lhx_pcie_get_stats,
        .clear_stats = lhx_pcie_clear_stats,
        .fatal_error_detect = lhx_pcie_fatal_error_detect,
    };

    (void)state;
    bt_assert_ops(&pcie_ops, &expected_pcie);
    bt_assert_ops(&lhx_pcie_ops, &expected_lhx);
}

static void test_create_logs_the_created_line(void **state)
{
    (void)state;
    start(&lh_desc_base_two_pipes);
    assert_int_equal(pcie_context_create(0, bt_site_base(0)), 0);
    expect_log(LOG_INFO, "Informational - PCIe module 0 context created");
    assert_int_equal(pcie_context_create(1, bt_site_base(1)), 0);
    expect_log(LOG_INFO, "Informational - PCIe module 1 context created");
    assert_int_equal(mutex_inits, 2);
    finish();

    start(&lh_desc_lhx);
    assert_int_equal(lhx_pcie_context_create(0, bt_site_base(0)), 0);
    expect_log(LOG_INFO, "Informational - LHX PCIe module 0 context created");
    assert_int_equal(mutex_inits, 1);
    assert_int_equal(model->reads, 0);
    assert_int_equal(model->writes, 0);
    expect_no_more_logs();
}

static void test_create_zeroes_the_counters(void **state)
{
    (void)state;
    start_both();
    bt_check_create_zeroes(&pcie, 0, 0);
    expect_no_more_logs();
}

static void test_create_refusals(void **state)
{
    (void)state;
    start(&lh_desc_base_two_pipes);
    for (size_t d = 0; d < BT_ARRAY_SIZE(drivers); d++)
        bt_expect_create_refusals(drivers[d]);
    assert_int_equal(mutex_inits, 0);
    assert_int_equal(model->reads, 0);
    assert_int_equal(model->writes, 0);
    expect_no_more_logs();
}

static void test_create_before_initialisation(void **state)
{
    (void)state;
    bt_expect_create_before_init(&layout, &pcie);
}

/* ---- Statistics ---- */

static void test_each_counter_from_its_register(void **state)
{
    /* Counter 0 from 0x50, counter 1 from 0x54, zero-extended; the record
     * is the two counters, counter 0 first. */
    static const uint64_t expected[COUNTERS] = {0x00000000010050F5,
                                                0x00000000010054F1};

    (void)state;
    start_both();
    /* Each counter once, nothing else: no status, no neighbour. */
    for (size_t d = 0; d < BT_ARRAY_SIZE(drivers); d++)
        bt_check_composition(drivers[d], 0, drivers[d]->site, expected,
                             COUNTERS);
    assert_int_equal(model->writes, 0);
    expect_no_more_logs();
}

static void test_counters_accumulate_over_polls(void **state)
{
    (void)state;
    start_both();
    bt_check_polls_accumulate(&pcie, 0, 0);
    expect_no_more_logs();
}

static void test_counters_widen_past_32_bits(void **state)
{
    static const struct bt_word words[] = {{COUNTER_0, 0xFFFFFFFF},
                                           {COUNTER_1, 0xC0000000}};
    static const struct bt_total totals[] = {{0, 0x1FFFFFFFE},
                                             {1, 0x180000000}};

    (void)state;
    start_both();
    bt_check_totals(&pcie, 0, 0, words, BT_ARRAY_SIZE(words), totals,
                    BT_ARRAY_SIZE(totals));
    expect_no_more_logs();
}

static void test_get_stats_refuses_other_sizes(void **state)
{
    static const uint64_t sizes[] = {8, 32, 15, 17, 0, 0x100000010};

    (void)state;
    start_both();
    load_counters(0, 0);
    load_counters(1, 1);
    pcie_update_stats(0);
    lhx_pcie_update_stats(0);
    for (size_t d = 0; d < BT_ARRAY_SIZE(drivers); d++)
        bt_expect_wrong_sizes(drivers[d], 0, sizes, BT_ARRAY_SIZE(sizes));
    expect_no_more_logs();
}

static void test_get_stats_copies_exactly_16_bytes(void **state)
{
    uint64_t expected[COUNTERS] = {0};

    (void)state;
    start_both();
    load_counters(0, 2);
    pcie_update_stats(0);
    bt_add_expected(expected, 0, 2);
    /* The 16 bytes, and not one past them. */
    bt_assert_stats(&pcie, 0, expected);
    expect_no_more_logs();
}

static void test_clear_zeroes_without_touching_hardware(void **state)
{
    (void)state;
    start_both();
    bt_check_clear(&pcie, 0, 0);
    expect_no_more_logs();
}

static void test_pcie_and_lhx_pcie_keep_separate_counters(void **state)
{
    static const uint64_t zeros[COUNTERS];
    uint64_t expected_pcie[COUNTERS] = {0};
    uint64_t expected_lhx[COUNTERS] = {0};

    (void)state;
    start_both();
    load_counters(0, 0);
    load_counters(1, 1);
    pcie_update_stats(0);
    lhx_pcie_update_stats(0);
    bt_add_expected(expected_pcie, 0, 0);
    bt_add_expected(expected_lhx, 1, 1);
    bt_assert_stats(&pcie, 0, expected_pcie);
    bt_assert_stats(&lhx, 0, expected_lhx);

    assert_int_equal(pcie_clear_stats(0), 0);
    bt_assert_stats(&pcie, 0, zeros);
    bt_assert_stats(&lhx, 0, expected_lhx);

    load_counters(0, 2);
    pcie_update_stats(0);
    assert_int_equal(lhx_pcie_clear_stats(0), 0);
    memset(expected_pcie, 0, sizeof(expected_pcie));
    bt_add_expected(expected_pcie, 0, 2);
    bt_assert_stats(&pcie, 0, expected_pcie);
    bt_assert_stats(&lhx, 0, zeros);
    expect_no_more_logs();
}

static void test_pipes_keep_their_own_counters(void **state)
{
    (void)state;
    start(&lh_desc_base_two_pipes);
    bt_create(&pcie, 0, 0);
    bt_create(&pcie, 1, 1);
    bt_check_pipes_apart(&pcie, 3);
    expect_no_more_logs();
}

/* ---- Fatal error detection ---- */

static void expect_fatal(const struct bt_driver *driver, uint32_t status,
                         const char *text)
{
    bt_store(driver->site, STATUS, status);
    bt_expect_fatal(driver, 0, text);
}

static void test_each_error_bit_alone_reports_its_text(void **state)
{
    (void)state;
    start_both();
    for (size_t d = 0; d < BT_ARRAY_SIZE(drivers); d++)
        bt_walk_error_rows(drivers[d], 0, drivers[d]->site, rows, ROWS);
    assert_int_equal(model->writes, 0);
    expect_no_more_logs();
}

static void test_first_bit_in_table_order_wins(void **state)
{
    (void)state;
    start_both();
    for (size_t d = 0; d < BT_ARRAY_SIZE(drivers); d++) {
        expect_fatal(drivers[d], 1u << 5 | 1u << 0, "PBUS Trgt FIFO Overflow");
        expect_fatal(drivers[d], 0xFFFFFFFF, "PBUS Trgt FIFO Overflow");
        expect_fatal(drivers[d], 1u << 3 | 1u << 2,
                     "AXI-lite Read Return FIFO Overflow");
        expect_fatal(drivers[d], 1u << 4 | 1u << 1, "PBUS Trgt FIFO Underflow");
    }
    expect_no_more_logs();
}

static void test_each_row_outranks_the_next(void **state)
{
    (void)state;
    start_both();
    for (size_t d = 0; d < BT_ARRAY_SIZE(drivers); d++)
        for (size_t i = 0; i + 1 < ROWS; i++)
            expect_fatal(drivers[d], 1u << rows[i].bit | 1u << rows[i + 1].bit,
                         rows[i].text);
    expect_no_more_logs();
}

static void test_bits_6_to_31_report_nothing(void **state)
{
    (void)state;
    start_both();
    for (size_t d = 0; d < BT_ARRAY_SIZE(drivers); d++) {
        bt_store(drivers[d]->site, STATUS, 0xFFFFFFC0);
        bt_forget_reads();
        bt_expect_no_fatal(drivers[d], 0);
        assert_int_equal(bt_status_reads(drivers[d]->site), ROWS);
    }
    bt_store(0, STATUS, 0);
    bt_expect_no_fatal(&pcie, 0);
    assert_int_equal(model->writes, 0);
    expect_no_more_logs();
}

static void test_each_row_reads_the_register_anew(void **state)
{
    /* Bit 0 appears only at the sixth read, the last row's. */
    static const uint32_t late[] = {0, 0, 0, 0, 0, 1u << 0};
    /* Bit 4 shows at the first read (bit 5's row), gone by its own. */
    static const uint32_t gone[] = {1u << 4, 0};
    lh_fatal_error_t report = {0, 0, NULL};

    (void)state;
    start_both();
    bt_script(STATUS, late, BT_ARRAY_SIZE(late));
    assert_int_equal(lhx_pcie_fatal_error_detect(0, &report), 1);
    assert_string_equal(report.error_text, "AXI-lite Command FIFO Underflow");
    expect_log(LOG_CRIT, "FATAL - LHX PCIe pipe 0: AXI-lite Command FIFO "
                         "Underflow");
    assert_int_equal(bt_script_reads(), ROWS);

    bt_script(STATUS, gone, BT_ARRAY_SIZE(gone));
    bt_expect_no_fatal(&pcie, 0);
    assert_int_equal(bt_script_reads(), ROWS);
    expect_no_more_logs();
}

static void test_standing_error_reported_on_every_call(void **state)
{
    (void)state;
    start_both();
    for (int call = 0; call < 3; call++)
        expect_fatal(&pcie, 1u << 2, "AXI-lite Read Return FIFO Underflow");
    assert_int_equal(bt_peek(0, STATUS), 1u << 2);
    assert_int_equal(model->writes, 0);
    expect_no_more_logs();
}

static void test_pcie_and_lhx_pcie_read_their_own_blocks(void **state)
{
    (void)state;
    start_both();
    bt_store(1, STATUS, 1u << 1);
    bt_expect_no_fatal(&pcie, 0);
    expect_fatal(&lhx, 1u << 1, "AXI-lite Command FIFO Overflow");
    expect_no_more_logs();
}

/* ---- Refusals ---- */

static void test_null_pointers_come_first(void **state)
{
    (void)state;
    start_both();
    bt_store(0, STATUS, 1u << 5);
    for (size_t d = 0; d < BT_ARRAY_SIZE(drivers); d++) {
        bt_expect_null_refusals(drivers[d], null_refusals,
                                BT_ARRAY_SIZE(null_refusals), 0);
        bt_expect_null_refusals(drivers[d], null_refusals,
                                BT_ARRAY_SIZE(null_refusals), 2);
    }
    assert_int_equal(model->reads, 0);
    expect_no_more_logs();
}

static void test_invalid_pipe_refused_by_every_operation(void **state)
{
    (void)state;
    start_both();
    load_counters(0, 0);
    load_counters(1, 0);
    bt_store(0, STATUS, 1u << 5);
    bt_store(1, STATUS, 1u << 5);
    for (size_t d = 0; d < BT_ARRAY_SIZE(drivers); d++) {
        bt_expect_refusals(drivers[d], refusals, BT_ARRAY_SIZE(refusals), 2,
                           "pipe");
        bt_expect_refusals(drivers[d], refusals, BT_ARRAY_SIZE(refusals),
                           0xFFFFFFFF, "pipe");
    }
    expect_no_more_logs();
}

static void test_invalid_context_refused_by_every_operation(void **state)
{
    (void)state;
    start_both();
    bt_expect_refusals(&lhx, refusals, BT_ARRAY_SIZE(refusals), 1, "context");
    expect_no_more_logs();
}

static void test_size_checked_after_pipe_and_context(void **state)
{
    uint64_t stats[COUNTERS];

    (void)state;
    start_both();
    assert_int_equal(pcie_get_stats(2, stats, 8), -1);
    expect_log(LOG_CRIT, "Error - PCIe get stats - invalid pipe 2");
    assert_int_equal(lhx_pcie_get_stats(1, stats, 32), -1);
    expect_log(LOG_CRIT, "Error - LHX PCIe get stats - invalid context 1");
    expect_no_more_logs();
}

static void test_exact_refusal_lines(void **state)
{
    uint64_t stats[COUNTERS];
    lh_fatal_error_t report;

    (void)state;
    start_both();
    pcie_update_stats(2);
    expect_log(LOG_CRIT, "Error - PCIe update stats - invalid pipe 2");
    assert_int_equal(pcie_get_stats(3, stats, STATS_BYTES), -1);
    expect_log(LOG_CRIT, "Error - PCIe get stats - invalid pipe 3");
    assert_int_equal(pcie_clear_stats(2), -1);
    expect_log(LOG_CRIT, "Error - PCIe clear stats - invalid pipe 2");
    assert_int_equal(pcie_fatal_error_detect(2, &report), 0);
    expect_log(LOG_CRIT, "Error - PCIe module fatal error detection - "
                         "invalid pipe 2");
    lhx_pcie_update_stats(1);
    expect_log(LOG_CRIT, "Error - LHX PCIe update stats - invalid context 1");
    assert_int_equal(lhx_pcie_clear_stats(1), -1);
    expect_log(LOG_CRIT, "Error - LHX PCIe clear stats - invalid context 1");
    assert_int_equal(lhx_pcie_fatal_error_detect(1, &report), 0);
    expect_log(LOG_CRIT, "Error - LHX PCIe module fatal error detection - "
                         "invalid context 1");
    assert_int_equal(pcie_get_stats(0, stats, 8), -1);
    expect_log(LOG_ERR, "Error - PCIe get stats failed, unexpected memory "
                        "size 8");
    assert_int_equal(lhx_pcie_get_stats(0, NULL, STATS_BYTES), -1);
    expect_log(LOG_ERR, "Null pointer - LHX PCIe get stats");
    expect_no_more_logs();
}

int main(void)
{
#define T(name) cmocka_unit_test_teardown(name, teardown)
    const struct CMUnitTest never_created[] = {
        T(test_mutex_failure_leaves_context_invalid),
        T(test_pipe_1_refused_on_one_pipe_devices),
    };
    const struct CMUnitTest tests[] = {
        T(test_ops_tables_wire_the_operations),
        T(test_create_logs_the_created_line),
        T(test_create_zeroes_the_counters),
        T(test_create_refusals),
        T(test_create_before_initialisation),
        T(test_each_counter_from_its_register),
        T(test_counters_accumulate_over_polls),
        T(test_counters_widen_past_32_bits),
        T(test_get_stats_refuses_other_sizes),
        T(test_get_stats_copies_exactly_16_bytes),
        T(test_clear_zeroes_without_touching_hardware),
        T(test_pcie_and_lhx_pcie_keep_separate_counters),
        T(test_pipes_keep_their_own_counters),
        T(test_each_error_bit_alone_reports_its_text),
        T(test_first_bit_in_table_order_wins),
        T(test_each_row_outranks_the_next),
        T(test_bits_6_to_31_report_nothing),
        T(test_each_row_reads_the_register_anew),
        T(test_standing_error_reported_on_every_call),
        T(test_pcie_and_lhx_pcie_read_their_own_blocks),
        T(test_null_pointers_come_first),
        T(test_invalid_pipe_refused_by_every_operation),
        T(test_invalid_context_refused_by_every_operation),
        T(test_size_checked_after_pipe_and_context),
        T(test_exact_refusal_lines),
    };

    return BT_RUN_GROUPS("pcie", never_created, tests);
}
