/* Part 4.5: the ingress packet classifier driver (pkt_class) against a
 * model of the block's hardware: clear-on-read counters, three status
 * registers that can change between reads, a count of the reads of every
 * register and the order in which the status registers are read. */
#include <stdbool.h>
#include <string.h>

#include "block_fixture.hpp"
#include "cmocka_all.h"
#include "fake_device.hpp"
#include "lh_drivers.hpp"
#include "lh_log.hpp"
#include "log_expect.hpp"
#include "mutex_wrap.hpp"
#include "pkt_class.hpp"

/* Block registers, offsets from the block base (Part 4.5). */
#define STATUS0    0x000u
#define STATUS1    0x200u
#define STATUS2    0x700u
#define BLOCK_SPAN 0x800u

#define STATS_BYTES       568
#define COUNTERS          71
#define COUNTER_REGISTERS 83
#define ERROR_ROWS        62
/* Rows per status register. */
#define STATUS0_ROWS 31
#define STATUS1_ROWS 14
#define STATUS2_ROWS 17

/* Part 4.5's statistics rule: 12 pairs, then runs of single registers. */
#define PAIRS 12
static const struct {
    uint32_t first;
    size_t count;
} single_runs[] = {
    {0x80, 11}, {0xF0, 13}, {0x220, 19}, {0x288, 10}, {0x720, 6},
};

/* The register of bits 63..32 (0: none) and of bits 31..0, built from the
 * rule by build_counter_sources. */
static struct bt_counter counter_sources[COUNTERS];

/* Returns the number of counters the rule gives. */
static size_t build_counter_sources(void)
{
    size_t n = 0;

    for (uint32_t k = 0; k < PAIRS; k++, n++) {
        counter_sources[n].high = 0x20 + 8 * k;
        counter_sources[n].low = 0x24 + 8 * k;
    }
    for (size_t run = 0; run < BT_ARRAY_SIZE(single_runs); run++) {
        for (uint32_t i = 0; i < single_runs[run].count; i++, n++) {
            counter_sources[n].high = 0;
            counter_sources[n].low = single_runs[run].first + 4 * i;
        }
    }
    return n;
}

/* Loads every counter register, and the registers inside the counter
 * ranges' gaps, which are not counters. */
static void load_counters(int site, uint32_t poll)
{
    for (uint32_t reg = 0x04; reg < BLOCK_SPAN; reg += 4)
        if (reg != STATUS1 && reg != STATUS2)
            bt_store(site, reg, bt_value_by_site(site, reg, poll));
}

/* The classifier blocks of the base window, pipe 0's and pipe 1's
 * (Part 2.4). */
static const struct bt_layout layout = {
    .sites = {0x17000, 0x27000},
    .site_count = 2,
    .span = BLOCK_SPAN,
    .status = {STATUS0, STATUS1, STATUS2},
    .status_count = 3,
    .counters = counter_sources,
    .counter_count = COUNTERS,
    .value = bt_value_by_site,
    .load = load_counters,
};

static const struct bt_driver pkt_class = {
    .name = "Ingress Pkt Classifier",
    .ops = &pkt_class_ops,
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

/* Part 4.5's fatal error table, in test order. */
static const struct bt_error_row error_rows[ERROR_ROWS] = {
    {STATUS0, 24, "VF/DMA QID RAM Double bit ECC Error"},
    {STATUS0, 23, "Ingress Packet Classification Packet Bus Missing EOP Error"},
    {STATUS0, 22, "Ingress Packet Classification Packet Bus Missing SOP Error"},
    {STATUS0, 21, "Response FIFO4 Overflow"},
    {STATUS0, 20, "Response FIFO4 Underflow"},
    {STATUS0, 19, "Control FIFO4 Overflow"},
    {STATUS0, 18, "Control FIFO4 Underflow"},
    {STATUS0, 17, "Response FIFO3 Overflow"},
    {STATUS0, 16, "Response FIFO3 Underflow"},
    {STATUS0, 15, "Control FIFO3 Overflow"},
    {STATUS0, 14, "Control FIFO3 Underflow"},
    {STATUS0, 13, "Four Tuple Table Double bit ECC Error"},
    {STATUS0, 12, "Response FIFO2 Overflow"},
    {STATUS0, 11, "Response FIFO2 Underflow"},
    {STATUS0, 10, "Control FIFO2 Overflow"},
    {STATUS0, 9, "Control FIFO2 Underflow"},
    {STATUS0, 8, "Six Tuple Table Double bit ECC Error"},
    {STATUS0, 7, "Response FIFO1 Overflow"},
    {STATUS0, 6, "Response FIFO1 Underflow"},
    {STATUS0, 5, "Control FIFO1 Overflow"},
    {STATUS0, 4, "Control FIFO1 Underflow"},
    {STATUS0, 3, "Tunnel Table Double bit ECC Error"},
    {STATUS0, 2, "Control FIFO0 Overflow"},
    {STATUS0, 1, "Control FIFO0 Underflow"},
    {STATUS0, 0, "Option Table Double bit ECC Error"},
    {STATUS0, 30, "In-band Access Action Table Timeout Error"},
    {STATUS0, 29, "Inband Flow Manager Packet Bus Missing EOP Error"},
    {STATUS0, 28, "Inband Flow Manager Packet Bus Missing SOP Error"},
    {STATUS0, 27, "Inband Flow Manager FIFO Overflow"},
    {STATUS0, 26, "Inband Flow Manager FIFO Underflow"},
    {STATUS0, 25, "Inband Flow Manager RAM/FIFO Double bit ECC Error"},
    {STATUS1, 13, "Inband Stat Collection Timeout Error"},
    {STATUS1, 12, "Inband Stat Manager Packet Bus Missing EOP Error"},
    {STATUS1, 11, "Inband Stat Manager Packet Bus Missing SOP Error"},
    {STATUS1, 10, "Inband Stat Manager FIFO Overflow"},
    {STATUS1, 9, "Inband Stat Manager FIFO Underflow"},
    {STATUS1, 8, "Inband Stat Manager RAM/FIFO Double bit ECC Error"},
    {STATUS1, 7,
     "Time-out Error when reading statitics from hbm and acc_cache"},
    {STATUS1, 6,
     "Stat Read Flow Missing Error. Flow id mismatch between read request "
     "and response from stat table"},
    {STATUS1, 5, "Stat FIFO Overflow"},
    {STATUS1, 4, "Stat FIFO Underflow"},
    {STATUS1, 3, "Stat FIFO Parity Error"},
    {STATUS1, 2, "Statistics AG RAM Double bit ECC Error"},
    {STATUS1, 1, "Statistics ACC RAM Double bit ECC Error"},
    {STATUS1, 0, "Statistics HBM_RL RAM Double bit ECC Error"},
    {STATUS2, 16, "Key Table (Cache) Double bit ECC Error"},
    {STATUS2, 15, "Timestamp Table (Cache) Double bit ECC Error"},
    {STATUS2, 14, "Action Rule Table (Cache) Double bit ECC error"},
    {STATUS2, 13, "Lookup FIFO Overflow"},
    {STATUS2, 12, "Lookup FIFO Underflow"},
    {STATUS2, 11, "Key Pending FIFO Overflow"},
    {STATUS2, 10, "Key Pending FIFO Underflow"},
    {STATUS2, 9, "DDR4 Read FIFO Overflow"},
    {STATUS2, 8, "DDR4 Read FIFO Underflow"},
    {STATUS2, 7, "Reorder FIFO Overflow"},
    {STATUS2, 6, "Reorder FIFO Underflow"},
    {STATUS2, 5, "Insert FIFO Overflow"},
    {STATUS2, 4, "Reorder FIFO Underflow"},
    {STATUS2, 3, "Cache Response FIFO Overflow"},
    {STATUS2, 2, "Cache Response FIFO Underflow"},
    {STATUS2, 1, "DDR4 Response FIFO Overflow"},
    {STATUS2, 0, "DDR4 Response FIFO Underflow"},
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
    bt_create(&pkt_class, 0, 0);
    bt_create(&pkt_class, 1, 1);
}

/* ---- Contexts never created before: these run first, in this order. ---- */

static void test_mutex_failure_leaves_context_invalid(void **state)
{
    (void)state;
    start(&lh_desc_base_two_pipes);
    mutex_init_fails = true;
    bt_expect_mutex_failure(&pkt_class, 0, bt_site_base(0));
    mutex_init_fails = false;
    assert_int_equal(model->reads, 0);
    assert_int_equal(model->writes, 0);
    bt_expect_refusals(&pkt_class, refusals, BT_ARRAY_SIZE(refusals), 0,
                       "context");
    expect_no_more_logs();
}

static void test_pipe_1_refused_on_one_pipe_device(void **state)
{
    (void)state;
    start(&lh_desc_base_one_pipe);
    bt_expect_create_refused(&pkt_class, 1, bt_site_base(1));
    assert_int_equal(model->writes, 0);
    bt_expect_refusals(&pkt_class, refusals, BT_ARRAY_SIZE(refusals), 1,
                       "context");
    expect_no_more_logs();
}

static void test_exact_invalid_context_lines(void **state)
{
    uint64_t stats[COUNTERS];
    lh_fatal_error_t report;

    (void)state;
    start(&lh_desc_base_one_pipe);
    pkt_class_update_stats(1);
    expect_log(LOG_CRIT, "Error - Ingress Pkt Classifier update stats - "
                         "invalid context 1");
    assert_int_equal(pkt_class_get_stats(1, stats, STATS_BYTES), -1);
    expect_log(LOG_CRIT, "Error - Ingress Pkt Classifier get stats - "
                         "invalid context 1");
    assert_int_equal(pkt_class_clear_stats(1), -1);
    expect_log(LOG_CRIT, "Error - Ingress Pkt Classifier clear stats - "
                         "invalid context 1");
    assert_int_equal(pkt_class_fatal_error_detect(1, &report), 0);
    expect_log(LOG_CRIT, "Error - Ingress Pkt Classifier fatal error "
                         "detection - invalid context 1");
    expect_no_more_logs();
}

/* ---- Context creation ---- */

static void test_ops_table_wires_the_operations(void **state)
{
    static const struct lh_block_ops expected = {
        .context_create = pkt_class_context_create,
        .update_stats = pkt_class_update_stats,
        .get_stats = pkt_class_get_stats,
        .clear_stats = pkt_class_clear_stats,
        .fatal_error_detect = pkt_class_fatal_error_detect,
    };

    (void)state;
    bt_assert_ops(&pkt_class_ops, &expected);
}

static void test_create_logs_the_created_line(void **state)
{
    (void)state;
    start(&lh_desc_base_two_pipes);
    assert_int_equal(pkt_class_context_create(0, bt_site_base(0)), 0);
    expect_log(LOG_INFO, "Informational - Ingress Pkt Classifier module 0 "
                         "context created");
    assert_int_equal(pkt_class_context_create(1, bt_site_base(1)), 0);
    expect_log(LOG_INFO, "Informational - Ingress Pkt Classifier module 1 "
                         "context created");
    assert_int_equal(model->reads, 0);
    assert_int_equal(model->writes, 0);
    expect_no_more_logs();
}

static void test_create_zeroes_the_counters(void **state)
{
    (void)state;
    start(&lh_desc_base_two_pipes);
    bt_create(&pkt_class, 0, 0);
    bt_check_create_zeroes(&pkt_class, 0, 0);
    expect_no_more_logs();
}

static void test_create_refusals(void **state)
{
    (void)state;
    start(&lh_desc_base_two_pipes);
    bt_expect_create_refusals(&pkt_class);
    assert_int_equal(model->writes, 0);
    expect_no_more_logs();
}

static void test_create_before_initialisation(void **state)
{
    (void)state;
    bt_expect_create_before_init(&layout, &pkt_class);
}

/* ---- Statistics ---- */

static void test_every_counter_composed_from_its_registers(void **state)
{
    /* The first and last counter of each row of the rule, written out. */
    static const struct {
        size_t index;
        uint64_t value;
    } spot_checks[] = {
        {0, 0x1000208510002481},  {11, 0x100078DD10007CD9},
        {12, 0x0000000010008025}, {22, 0x000000001000A80D},
        {23, 0x000000001000F055}, {35, 0x0000000010012085},
        {36, 0x0000000010022085}, {54, 0x00000000100268CD},
        {55, 0x000000001002882D}, {64, 0x000000001002AC09},
        {65, 0x0000000010072085}, {70, 0x0000000010073491},
    };
    uint64_t expected[COUNTERS] = {0};
    uint64_t stats[COUNTERS];

    (void)state;
    start(&lh_desc_base_two_pipes);
    bt_create(&pkt_class, 0, 0);
    bt_add_expected(expected, 0, 0);
    bt_check_composition(&pkt_class, 0, 0, expected, COUNTER_REGISTERS);
    bt_get_stats(&pkt_class, 0, stats);
    for (size_t i = 0; i < BT_ARRAY_SIZE(spot_checks); i++)
        assert_int_equal(stats[spot_checks[i].index], spot_checks[i].value);
    expect_no_more_logs();
}

static void test_counters_accumulate_over_polls(void **state)
{
    (void)state;
    start(&lh_desc_base_two_pipes);
    bt_create(&pkt_class, 0, 0);
    bt_check_polls_accumulate(&pkt_class, 0, 0);
    bt_assert_counter_reads(0, 4, COUNTER_REGISTERS);
    expect_no_more_logs();
}

static void test_counter_totals_wrap(void **state)
{
    static const struct bt_word all_ones[] = {
        {0x78, 0xFFFFFFFF}, {0x7C, 0xFFFFFFFF}, {0x734, 0xFFFFFFFF}};
    static const struct bt_total totals[] = {{11, 0xFFFFFFFFFFFFFFFE},
                                             {70, 0x1FFFFFFFE}};

    (void)state;
    start(&lh_desc_base_two_pipes);
    bt_create(&pkt_class, 0, 0);
    bt_check_totals(&pkt_class, 0, 0, all_ones, BT_ARRAY_SIZE(all_ones), totals,
                    BT_ARRAY_SIZE(totals));
    expect_no_more_logs();
}

static void test_clear_then_get_yields_zeros(void **state)
{
    (void)state;
    start(&lh_desc_base_two_pipes);
    bt_create(&pkt_class, 0, 0);
    bt_check_clear(&pkt_class, 0, 0);
    expect_no_more_logs();
}

static void test_get_stats_wants_exactly_568_bytes(void **state)
{
    static const uint64_t sizes[] = {560, 576, 567, 569, 0};
    uint8_t record[STATS_BYTES];
    uint8_t untouched[8];

    (void)state;
    start(&lh_desc_base_two_pipes);
    bt_create(&pkt_class, 0, 0);
    load_counters(0, 0);
    pkt_class_update_stats(0);
    bt_expect_wrong_sizes(&pkt_class, 0, sizes, BT_ARRAY_SIZE(sizes));
    memset(untouched, 0xEE, sizeof(untouched));
    bt_get_stats(&pkt_class, 0, record);
    assert_memory_not_equal(record + STATS_BYTES - 8, untouched, 8);
    expect_no_more_logs();
}

static void test_pipes_keep_their_own_counters(void **state)
{
    (void)state;
    start_both_pipes();
    bt_check_pipes_apart(&pkt_class, 2);
    expect_no_more_logs();
}

/* ---- Fatal error detection ---- */

static void expect_fatal_from(uint32_t status0, uint32_t status1,
                              uint32_t status2, const char *text)
{
    bt_set_statuses(0, status0, status1, status2);
    bt_expect_fatal(&pkt_class, 0, text);
}

static void test_each_error_bit_alone_reports_its_text(void **state)
{
    (void)state;
    start_both_pipes();
    /* Each walk stops at its row: the two rows of "Reorder FIFO
     * Underflow" are told apart by their reads. The status registers are
     * only ever read. */
    bt_walk_error_rows(&pkt_class, 0, 0, error_rows, ERROR_ROWS);
    bt_walk_error_rows(&pkt_class, 1, 1, error_rows, ERROR_ROWS);
    expect_no_more_logs();
}

static void test_first_set_bit_wins(void **state)
{
    (void)state;
    start_both_pipes();
    /* Bit 0 is tested before bit 30 (Part 4.5). */
    expect_fatal_from(1u << 30 | 1u << 0, 0, 0,
                      "Option Table Double bit ECC Error");
    expect_fatal_from(1u << 25 | 1u << 24, 0, 0,
                      "VF/DMA QID RAM Double bit ECC Error");
    expect_fatal_from(0xFFFFFFFF, 0xFFFFFFFF, 0xFFFFFFFF,
                      "VF/DMA QID RAM Double bit ECC Error");
    expect_fatal_from(0xFE000000, 0xFFFFFFFF, 0xFFFFFFFF,
                      "In-band Access Action Table Timeout Error");
    expect_fatal_from(1u << 25, 1u << 13, 1u << 16,
                      "Inband Flow Manager RAM/FIFO Double bit ECC Error");
    expect_fatal_from(1u << 31, 1u << 0, 1u << 16,
                      "Statistics HBM_RL RAM Double bit ECC Error");
    expect_fatal_from(1u << 31, 0xFFFFC000, 1u << 0 | 1u << 16,
                      "Key Table (Cache) Double bit ECC Error");
    expect_fatal_from(0, 0, 1u << 5 | 1u << 4, "Insert FIFO Overflow");
    expect_fatal_from(0, 0, 1u << 4 | 1u << 3, "Reorder FIFO Underflow");
    expect_fatal_from(0, 1u << 7 | 1u << 6, 0,
                      "Time-out Error when reading statitics from hbm and "
                      "acc_cache");
    expect_no_more_logs();
}

static void test_status2_bit_4_reports_reorder_underflow(void **state)
{
    (void)state;
    start_both_pipes();
    expect_fatal_from(0, 0, 1u << 4, "Reorder FIFO Underflow");
    expect_no_more_logs();
}

static void expect_no_fatal(uint32_t status0, uint32_t status1,
                            uint32_t status2)
{
    unsigned long writes = model->writes;

    bt_set_statuses(0, status0, status1, status2);
    bt_forget_reads();
    bt_expect_no_fatal(&pkt_class, 0);
    assert_int_equal(bt_reads(0, STATUS0), STATUS0_ROWS);
    assert_int_equal(bt_reads(0, STATUS1), STATUS1_ROWS);
    assert_int_equal(bt_reads(0, STATUS2), STATUS2_ROWS);
    assert_int_equal(model->writes, writes);
}

static void test_unlisted_bits_report_nothing(void **state)
{
    (void)state;
    start_both_pipes();
    expect_no_fatal(0, 0, 0);
    expect_no_fatal(1u << 31, 0, 0);
    for (unsigned int bit = 14; bit < 32; bit++)
        expect_no_fatal(0, 1u << bit, 0);
    for (unsigned int bit = 17; bit < 32; bit++)
        expect_no_fatal(0, 0, 1u << bit);
    expect_no_fatal(1u << 31, 0xFFFFC000, 0xFFFE0000);
    expect_no_more_logs();
}

static void test_status_registers_read_in_table_order(void **state)
{
    uint32_t table_order[ERROR_ROWS];

    (void)state;
    start_both_pipes();
    for (size_t i = 0; i < ERROR_ROWS; i++)
        table_order[i] = error_rows[i].reg;
    bt_set_statuses(0, 0, 0, 0);
    bt_forget_reads();
    bt_expect_no_fatal(&pkt_class, 0);
    bt_assert_status_trace(0, table_order, ERROR_ROWS);
    expect_no_more_logs();
}

static void test_status_is_read_again_for_every_row(void **state)
{
    /* Status 1 bit 0 only at its 14th read, the row of bit 0. */
    static const uint32_t late[] = {0, 0, 0, 0, 0, 0, 0,
                                    0, 0, 0, 0, 0, 0, 1u << 0};
    /* Status 0 bit 0 at the first read only: gone when its row reads. */
    static const uint32_t gone[] = {1u << 0, 0};
    /* Status 2 bits 16 and 15 from the second read on. */
    static const uint32_t second[] = {0, 1u << 16 | 1u << 15};
    lh_fatal_error_t report = {0, 0, NULL};

    (void)state;
    start_both_pipes();
    bt_set_statuses(0, 0, 0, 0);
    bt_script(STATUS1, late, BT_ARRAY_SIZE(late));
    bt_expect_fatal(&pkt_class, 0,
                    "Statistics HBM_RL RAM Double bit ECC Error");
    assert_int_equal(bt_reads(0, STATUS1), STATUS1_ROWS);
    assert_int_equal(bt_reads(0, STATUS2), 0);

    bt_script(STATUS0, gone, BT_ARRAY_SIZE(gone));
    assert_int_equal(pkt_class_fatal_error_detect(0, &report), 0);
    assert_null(report.error_text);

    bt_script(STATUS2, second, BT_ARRAY_SIZE(second));
    bt_expect_fatal(&pkt_class, 0,
                    "Timestamp Table (Cache) Double bit ECC Error");
    assert_int_equal(bt_reads(0, STATUS2), 2);
    expect_no_more_logs();
}

/* ---- Refusals ---- */

static void test_null_pointers_come_first(void **state)
{
    (void)state;
    start(&lh_desc_base_two_pipes);
    bt_expect_null_refusals(&pkt_class, null_refusals,
                            BT_ARRAY_SIZE(null_refusals), 2);
    expect_no_more_logs();
}

static void test_invalid_pipe_refused_by_every_operation(void **state)
{
    (void)state;
    start_both_pipes();
    bt_expect_refusals(&pkt_class, refusals, BT_ARRAY_SIZE(refusals), 2,
                       "pipe");
    expect_no_more_logs();
}

static void test_exact_invalid_pipe_lines(void **state)
{
    uint64_t stats[COUNTERS];
    lh_fatal_error_t report;

    (void)state;
    start(&lh_desc_base_two_pipes);
    pkt_class_update_stats(2);
    expect_log(LOG_CRIT, "Error - Ingress Pkt Classifier update stats - "
                         "invalid pipe 2");
    assert_int_equal(pkt_class_get_stats(3, stats, STATS_BYTES), -1);
    expect_log(LOG_CRIT, "Error - Ingress Pkt Classifier get stats - "
                         "invalid pipe 3");
    assert_int_equal(pkt_class_clear_stats(2), -1);
    expect_log(LOG_CRIT, "Error - Ingress Pkt Classifier clear stats - "
                         "invalid pipe 2");
    assert_int_equal(pkt_class_fatal_error_detect(2, &report), 0);
    expect_log(LOG_CRIT, "Error - Ingress Pkt Classifier fatal error "
                         "detection - invalid pipe 2");
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
        T(test_get_stats_wants_exactly_568_bytes),
        T(test_pipes_keep_their_own_counters),
        T(test_each_error_bit_alone_reports_its_text),
        T(test_first_set_bit_wins),
        T(test_status2_bit_4_reports_reorder_underflow),
        T(test_unlisted_bits_report_nothing),
        T(test_status_registers_read_in_table_order),
        T(test_status_is_read_again_for_every_row),
        T(test_null_pointers_come_first),
        T(test_invalid_pipe_refused_by_every_operation),
        T(test_exact_invalid_pipe_lines),
    };

    if (build_counter_sources() != COUNTERS)
        return 1;
    return BT_RUN_GROUPS("ingress packet classifier", never_created, tests);
}
