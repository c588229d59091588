/* The ingress packet classifier driver (pkt_class) against a model of the
 * block's hardware: clear-on-read counters, three status registers that can
 * change between reads, a count of the reads of every register and the
 * order in which the status registers are read. */
#include <array>
#include <cstdint>
#include <cstring>
#include <iterator>

#include <gtest/gtest.h>

#include "block_fixture.hpp"
#include "fake_device.hpp"
#include "lh_drivers.hpp"
#include "lh_log.hpp"
#include "log_expect.hpp"
#include "mutex_wrap.hpp"
#include "pkt_class.hpp"

namespace {

/* Block registers, offsets from the block base. */
constexpr uint32_t kStatus0 = 0x000;
constexpr uint32_t kStatus1 = 0x200;
constexpr uint32_t kStatus2 = 0x700;
constexpr uint32_t kBlockSpan = 0x800;

constexpr size_t kStatsBytes = 568;
constexpr size_t kCounters = 71;
constexpr size_t kCounterRegisters = 83;
constexpr size_t kErrorRows = 62;
/* Rows per status register. */
constexpr size_t kStatus0Rows = 31;
constexpr size_t kStatus1Rows = 14;
constexpr size_t kStatus2Rows = 17;

using Counters = std::array<uint64_t, kCounters>;

/* The statistics rule: 12 pairs, then runs of single registers. */
constexpr uint32_t kPairs = 12;
struct SingleRun {
    uint32_t first;
    uint32_t count;
};
constexpr SingleRun single_runs[] = {
    {0x80, 11}, {0xF0, 13}, {0x220, 19}, {0x288, 10}, {0x720, 6},
};

/* The number of counters the rule gives. */
constexpr size_t rule_counters()
{
    size_t n = kPairs;

    for (const SingleRun &run : single_runs)
        n += run.count;
    return n;
}
static_assert(rule_counters() == kCounters, "the rule gives every counter");

/* The register of bits 63..32 (0: none) and of bits 31..0 of each counter,
 * built from the rule. */
constexpr std::array<bt_counter, kCounters> counter_sources = [] {
    std::array<bt_counter, kCounters> sources{};
    size_t n = 0;

    for (uint32_t k = 0; k < kPairs; k++, n++)
        sources[n] = {0x20 + 8 * k, 0x24 + 8 * k};
    for (const SingleRun &run : single_runs)
        for (uint32_t i = 0; i < run.count; i++, n++)
            sources[n] = {0, run.first + 4 * i};
    return sources;
}();

/* Loads every counter register, and the registers inside the counter
 * ranges' gaps, which are not counters. */
void load_counters(int site, uint32_t poll)
{
    for (uint32_t reg = 0x04; reg < kBlockSpan; reg += 4)
        if (reg != kStatus1 && reg != kStatus2)
            bt_store(site, reg, bt_value_by_site(site, reg, poll));
}

/* The classifier blocks of the base window, pipe 0's and pipe 1's. */
const bt_layout layout = {
    .sites = {0x17000, 0x27000},
    .site_count = 2,
    .span = kBlockSpan,
    .status = {kStatus0, kStatus1, kStatus2},
    .status_count = 3,
    .counters = counter_sources.data(),
    .counter_count = kCounters,
    .value = bt_value_by_site,
    .load = load_counters,
};

const bt_driver pkt_class = {
    .name = "Ingress Pkt Classifier",
    .ops = &pkt_class_ops,
    .device = &lh_desc_base_two_pipes,
    .stats_bytes = kStatsBytes,
};

const bt_call refusals[] = {
    BT_STATS_REFUSALS("clear stats", "fatal error detection"),
};

const bt_call null_refusals[] = {
    {"get stats", LOG_ERR, -1, bt_null_get_stats_wrong_size},
    {"fatal error detection", LOG_ERR, 0, bt_null_fatal_error_detect},
};

/* The block's fatal error table, in test order. */
const bt_error_row error_rows[kErrorRows] = {
    {kStatus0, 24, "VF/DMA QID RAM Double bit ECC Error"},
    {kStatus0, 23,
     "Ingress Packet Classification Packet Bus Missing EOP Error"},
    {kStatus0, 22,
     "Ingress Packet Classification Packet Bus Missing SOP Error"},
    {kStatus0, 21, "Response FIFO4 Overflow"},
    {kStatus0, 20, "Response FIFO4 Underflow"},
    {kStatus0, 19, "Control FIFO4 Overflow"},
    {kStatus0, 18, "Control FIFO4 Underflow"},
    {kStatus0, 17, "Response FIFO3 Overflow"},
    {kStatus0, 16, "Response FIFO3 Underflow"},
    {kStatus0, 15, "Control FIFO3 Overflow"},
    {kStatus0, 14, "Control FIFO3 Underflow"},
    {kStatus0, 13, "Four Tuple Table Double bit ECC Error"},
    {kStatus0, 12, "Response FIFO2 Overflow"},
    {kStatus0, 11, "Response FIFO2 Underflow"},
    {kStatus0, 10, "Control FIFO2 Overflow"},
    {kStatus0, 9, "Control FIFO2 Underflow"},
    {kStatus0, 8, "Six Tuple Table Double bit ECC Error"},
    {kStatus0, 7, "Response FIFO1 Overflow"},
    {kStatus0, 6, "Response FIFO1 Underflow"},
    {kStatus0, 5, "Control FIFO1 Overflow"},
    {kStatus0, 4, "Control FIFO1 Underflow"},
    {kStatus0, 3, "Tunnel Table Double bit ECC Error"},
    {kStatus0, 2, "Control FIFO0 Overflow"},
    {kStatus0, 1, "Control FIFO0 Underflow"},
    {kStatus0, 0, "Option Table Double bit ECC Error"},
    {kStatus0, 30, "In-band Access Action Table Timeout Error"},
    {kStatus0, 29, "Inband Flow Manager Packet Bus Missing EOP Error"},
    {kStatus0, 28, "Inband Flow Manager Packet Bus Missing SOP Error"},
    {kStatus0, 27, "Inband Flow Manager FIFO Overflow"},
    {kStatus0, 26, "Inband Flow Manager FIFO Underflow"},
    {kStatus0, 25, "Inband Flow Manager RAM/FIFO Double bit ECC Error"},
    {kStatus1, 13, "Inband Stat Collection Timeout Error"},
    {kStatus1, 12, "Inband Stat Manager Packet Bus Missing EOP Error"},
    {kStatus1, 11, "Inband Stat Manager Packet Bus Missing SOP Error"},
    {kStatus1, 10, "Inband Stat Manager FIFO Overflow"},
    {kStatus1, 9, "Inband Stat Manager FIFO Underflow"},
    {kStatus1, 8, "Inband Stat Manager RAM/FIFO Double bit ECC Error"},
    {kStatus1, 7,
     "Time-out Error when reading statitics from hbm and acc_cache"},
    {kStatus1, 6,
     "Stat Read Flow Missing Error. Flow id mismatch between read request "
     "and response from stat table"},
    {kStatus1, 5, "Stat FIFO Overflow"},
    {kStatus1, 4, "Stat FIFO Underflow"},
    {kStatus1, 3, "Stat FIFO Parity Error"},
    {kStatus1, 2, "Statistics AG RAM Double bit ECC Error"},
    {kStatus1, 1, "Statistics ACC RAM Double bit ECC Error"},
    {kStatus1, 0, "Statistics HBM_RL RAM Double bit ECC Error"},
    {kStatus2, 16, "Key Table (Cache) Double bit ECC Error"},
    {kStatus2, 15, "Timestamp Table (Cache) Double bit ECC Error"},
    {kStatus2, 14, "Action Rule Table (Cache) Double bit ECC error"},
    {kStatus2, 13, "Lookup FIFO Overflow"},
    {kStatus2, 12, "Lookup FIFO Underflow"},
    {kStatus2, 11, "Key Pending FIFO Overflow"},
    {kStatus2, 10, "Key Pending FIFO Underflow"},
    {kStatus2, 9, "DDR4 Read FIFO Overflow"},
    {kStatus2, 8, "DDR4 Read FIFO Underflow"},
    {kStatus2, 7, "Reorder FIFO Overflow"},
    {kStatus2, 6, "Reorder FIFO Underflow"},
    {kStatus2, 5, "Insert FIFO Overflow"},
    {kStatus2, 4, "Reorder FIFO Underflow"},
    {kStatus2, 3, "Cache Response FIFO Overflow"},
    {kStatus2, 2, "Cache Response FIFO Underflow"},
    {kStatus2, 1, "DDR4 Response FIFO Overflow"},
    {kStatus2, 0, "DDR4 Response FIFO Underflow"},
};
class PktClassTest : public BlockTest {
protected:
    void TearDown() override
    {
        mutex_init_fails = false;
        BlockTest::TearDown();
    }

    void start(lh_device_desc *desc) { model = bt_start(&layout, desc); }

    void start_both_pipes()
    {
        start(&lh_desc_base_two_pipes);
        bt_create(&pkt_class, 0, 0);
        bt_create(&pkt_class, 1, 1);
    }

    /* The status registers of pipe 0 read the three words, and a call
     * reports `text`. */
    static void expect_fatal_from(uint32_t status0, uint32_t status1,
                                  uint32_t status2, const char *text)
    {
        bt_set_statuses(0, status0, status1, status2);
        bt_expect_fatal(&pkt_class, 0, text);
    }

    /* With the three words, pipe 0 reports nothing after reading each
     * register once a row of it, and writes nothing. */
    void expect_no_fatal(uint32_t status0, uint32_t status1, uint32_t status2)
    {
        unsigned long writes = model->writes;

        bt_set_statuses(0, status0, status1, status2);
        bt_forget_reads();
        bt_expect_no_fatal(&pkt_class, 0);
        ASSERT_EQ(bt_reads(0, kStatus0), kStatus0Rows);
        ASSERT_EQ(bt_reads(0, kStatus1), kStatus1Rows);
        ASSERT_EQ(bt_reads(0, kStatus2), kStatus2Rows);
        ASSERT_EQ(model->writes, writes);
    }

    reg_model *model = nullptr;
};

/* ---- Contexts never created before ---- */

TEST_F(PktClassTest, MutexFailureLeavesContextInvalid)
{
    start(&lh_desc_base_two_pipes);
    mutex_init_fails = true;
    bt_expect_mutex_failure(&pkt_class, 0, bt_site_base(0));
    mutex_init_fails = false;
    ASSERT_EQ(model->reads, 0u);
    ASSERT_EQ(model->writes, 0u);
    bt_expect_refusals(&pkt_class, refusals, std::size(refusals), 0,
                       "context");
    expect_no_more_logs();
}

TEST_F(PktClassTest, Pipe1RefusedOnOnePipeDevice)
{
    start(&lh_desc_base_one_pipe);
    bt_expect_create_refused(&pkt_class, 1, bt_site_base(1));
    ASSERT_EQ(model->writes, 0u);
    bt_expect_refusals(&pkt_class, refusals, std::size(refusals), 1,
                       "context");
    expect_no_more_logs();
}

TEST_F(PktClassTest, ExactInvalidContextLines)
{
    Counters stats{};
    lh_fatal_error_t report{};

    start(&lh_desc_base_one_pipe);
    pkt_class_update_stats(1);
    expect_log(LOG_CRIT, "Error - Ingress Pkt Classifier update stats - "
                         "invalid context 1");
    ASSERT_EQ(pkt_class_get_stats(1, stats.data(), kStatsBytes), -1);
    expect_log(LOG_CRIT, "Error - Ingress Pkt Classifier get stats - "
                         "invalid context 1");
    ASSERT_EQ(pkt_class_clear_stats(1), -1);
    expect_log(LOG_CRIT, "Error - Ingress Pkt Classifier clear stats - "
                         "invalid context 1");
    ASSERT_EQ(pkt_class_fatal_error_detect(1, &report), 0);
    expect_log(LOG_CRIT, "Error - Ingress Pkt Classifier fatal error "
                         "detection - invalid context 1");
    expect_no_more_logs();
}

/* ---- Context creation ---- */

TEST_F(PktClassTest, OpsTableWiresTheOperations)
{
    static const lh_block_ops expected = {
        .context_create = pkt_class_context_create,
        .update_stats = pkt_class_update_stats,
        .get_stats = pkt_class_get_stats,
        .clear_stats = pkt_class_clear_stats,
        .fatal_error_detect = pkt_class_fatal_error_detect,
    };

    bt_assert_ops(&pkt_class_ops, &expected);
}

TEST_F(PktClassTest, CreateLogsTheCreatedLine)
{
    start(&lh_desc_base_two_pipes);
    ASSERT_EQ(pkt_class_context_create(0, bt_site_base(0)), 0);
    expect_log(LOG_INFO, "Informational - Ingress Pkt Classifier module 0 "
                         "context created");
    ASSERT_EQ(pkt_class_context_create(1, bt_site_base(1)), 0);
    expect_log(LOG_INFO, "Informational - Ingress Pkt Classifier module 1 "
                         "context created");
    ASSERT_EQ(model->reads, 0u);
    ASSERT_EQ(model->writes, 0u);
    expect_no_more_logs();
}

TEST_F(PktClassTest, CreateZeroesTheCounters)
{
    start(&lh_desc_base_two_pipes);
    bt_create(&pkt_class, 0, 0);
    bt_check_create_zeroes(&pkt_class, 0, 0);
    expect_no_more_logs();
}

TEST_F(PktClassTest, CreateRefusals)
{
    start(&lh_desc_base_two_pipes);
    bt_expect_create_refusals(&pkt_class);
    ASSERT_EQ(model->writes, 0u);
    expect_no_more_logs();
}

TEST_F(PktClassTest, CreateBeforeInitialisation)
{
    bt_expect_create_before_init(&layout, &pkt_class);
}

/* ---- Statistics ---- */

TEST_F(PktClassTest, EveryCounterComposedFromItsRegisters)
{
    /* The first and last counter of each row of the rule, written out. */
    static const bt_total spot_checks[] = {
        {0, 0x1000208510002481},  {11, 0x100078DD10007CD9},
        {12, 0x0000000010008025}, {22, 0x000000001000A80D},
        {23, 0x000000001000F055}, {35, 0x0000000010012085},
        {36, 0x0000000010022085}, {54, 0x00000000100268CD},
        {55, 0x000000001002882D}, {64, 0x000000001002AC09},
        {65, 0x0000000010072085}, {70, 0x0000000010073491},
    };
    Counters expected{};
    Counters stats{};

    start(&lh_desc_base_two_pipes);
    bt_create(&pkt_class, 0, 0);
    bt_add_expected(expected.data(), 0, 0);
    bt_check_composition(&pkt_class, 0, 0, expected.data(),
                         kCounterRegisters);
    bt_get_stats(&pkt_class, 0, stats.data());
    for (const bt_total &check : spot_checks)
        ASSERT_EQ(stats[check.index], check.value) << "counter " << check.index;
    expect_no_more_logs();
}

TEST_F(PktClassTest, CountersAccumulateOverPolls)
{
    start(&lh_desc_base_two_pipes);
    bt_create(&pkt_class, 0, 0);
    bt_check_polls_accumulate(&pkt_class, 0, 0);
    bt_assert_counter_reads(0, 4, kCounterRegisters);
    expect_no_more_logs();
}

TEST_F(PktClassTest, CounterTotalsWrap)
{
    static const bt_word all_ones[] = {
        {0x78, 0xFFFFFFFF}, {0x7C, 0xFFFFFFFF}, {0x734, 0xFFFFFFFF}};
    static const bt_total totals[] = {{11, 0xFFFFFFFFFFFFFFFE},
                                      {70, 0x1FFFFFFFE}};

    start(&lh_desc_base_two_pipes);
    bt_create(&pkt_class, 0, 0);
    bt_check_totals(&pkt_class, 0, 0, all_ones, std::size(all_ones), totals,
                    std::size(totals));
    expect_no_more_logs();
}

TEST_F(PktClassTest, ClearThenGetYieldsZeros)
{
    start(&lh_desc_base_two_pipes);
    bt_create(&pkt_class, 0, 0);
    bt_check_clear(&pkt_class, 0, 0);
    expect_no_more_logs();
}

TEST_F(PktClassTest, GetStatsWantsExactly568Bytes)
{
    static const uint64_t sizes[] = {560, 576, 567, 569, 0};
    std::array<uint8_t, kStatsBytes> record{};
    std::array<uint8_t, 8> untouched{};

    start(&lh_desc_base_two_pipes);
    bt_create(&pkt_class, 0, 0);
    load_counters(0, 0);
    pkt_class_update_stats(0);
    bt_expect_wrong_sizes(&pkt_class, 0, sizes, std::size(sizes));
    untouched.fill(0xEE);
    bt_get_stats(&pkt_class, 0, record.data());
    /* The last counter was copied too. */
    ASSERT_NE(memcmp(record.data() + kStatsBytes - 8, untouched.data(), 8), 0);
    expect_no_more_logs();
}

TEST_F(PktClassTest, PipesKeepTheirOwnCounters)
{
    start_both_pipes();
    bt_check_pipes_apart(&pkt_class, 2);
    expect_no_more_logs();
}

/* ---- Fatal error detection ---- */

TEST_F(PktClassTest, EachErrorBitAloneReportsItsText)
{
    start_both_pipes();
    /* Each walk stops at its row: the two rows of "Reorder FIFO
     * Underflow" are told apart by their reads. The status registers are
     * only ever read. */
    bt_walk_error_rows(&pkt_class, 0, 0, error_rows, kErrorRows);
    bt_walk_error_rows(&pkt_class, 1, 1, error_rows, kErrorRows);
    expect_no_more_logs();
}

TEST_F(PktClassTest, FirstSetBitWins)
{
    start_both_pipes();
    /* Bit 0 is tested before bit 30. */
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

TEST_F(PktClassTest, Status2Bit4ReportsReorderUnderflow)
{
    start_both_pipes();
    expect_fatal_from(0, 0, 1u << 4, "Reorder FIFO Underflow");
    expect_no_more_logs();
}

TEST_F(PktClassTest, UnlistedBitsReportNothing)
{
    start_both_pipes();
    expect_no_fatal(0, 0, 0);
    expect_no_fatal(1u << 31, 0, 0);
    for (unsigned int bit = 14; bit < 32; bit++) {
        SCOPED_TRACE(format_text("status 1 bit %u", bit));
        expect_no_fatal(0, 1u << bit, 0);
    }
    for (unsigned int bit = 17; bit < 32; bit++) {
        SCOPED_TRACE(format_text("status 2 bit %u", bit));
        expect_no_fatal(0, 0, 1u << bit);
    }
    expect_no_fatal(1u << 31, 0xFFFFC000, 0xFFFE0000);
    expect_no_more_logs();
}

TEST_F(PktClassTest, StatusRegistersReadInTableOrder)
{
    std::array<uint32_t, kErrorRows> table_order{};

    start_both_pipes();
    for (size_t i = 0; i < kErrorRows; i++)
        table_order[i] = error_rows[i].reg;
    bt_set_statuses(0, 0, 0, 0);
    bt_forget_reads();
    bt_expect_no_fatal(&pkt_class, 0);
    bt_assert_status_trace(0, table_order.data(), table_order.size());
    expect_no_more_logs();
}

TEST_F(PktClassTest, StatusIsReadAgainForEveryRow)
{
    /* Status 1 bit 0 only at its 14th read, the row of bit 0. */
    static const uint32_t late[] = {0, 0, 0, 0, 0, 0, 0,
                                    0, 0, 0, 0, 0, 0, 1u << 0};
    /* Status 0 bit 0 at the first read only: gone when its row reads. */
    static const uint32_t gone[] = {1u << 0, 0};
    /* Status 2 bits 16 and 15 from the second read on. */
    static const uint32_t second[] = {0, 1u << 16 | 1u << 15};
    lh_fatal_error_t report = {0, 0, nullptr};

    start_both_pipes();
    bt_set_statuses(0, 0, 0, 0);
    bt_script(kStatus1, late, std::size(late));
    bt_expect_fatal(&pkt_class, 0,
                    "Statistics HBM_RL RAM Double bit ECC Error");
    ASSERT_EQ(bt_reads(0, kStatus1), kStatus1Rows);
    ASSERT_EQ(bt_reads(0, kStatus2), 0u);

    bt_script(kStatus0, gone, std::size(gone));
    ASSERT_EQ(pkt_class_fatal_error_detect(0, &report), 0);
    ASSERT_EQ(report.error_text, nullptr);

    bt_script(kStatus2, second, std::size(second));
    bt_expect_fatal(&pkt_class, 0,
                    "Timestamp Table (Cache) Double bit ECC Error");
    ASSERT_EQ(bt_reads(0, kStatus2), 2u);
    expect_no_more_logs();
}

/* ---- Refusals ---- */

TEST_F(PktClassTest, NullPointersComeFirst)
{
    start(&lh_desc_base_two_pipes);
    bt_expect_null_refusals(&pkt_class, null_refusals,
                            std::size(null_refusals), 2);
    expect_no_more_logs();
}

TEST_F(PktClassTest, InvalidPipeRefusedByEveryOperation)
{
    start_both_pipes();
    bt_expect_refusals(&pkt_class, refusals, std::size(refusals), 2, "pipe");
    expect_no_more_logs();
}

TEST_F(PktClassTest, ExactInvalidPipeLines)
{
    Counters stats{};
    lh_fatal_error_t report{};

    start(&lh_desc_base_two_pipes);
    pkt_class_update_stats(2);
    expect_log(LOG_CRIT, "Error - Ingress Pkt Classifier update stats - "
                         "invalid pipe 2");
    ASSERT_EQ(pkt_class_get_stats(3, stats.data(), kStatsBytes), -1);
    expect_log(LOG_CRIT, "Error - Ingress Pkt Classifier get stats - "
                         "invalid pipe 3");
    ASSERT_EQ(pkt_class_clear_stats(2), -1);
    expect_log(LOG_CRIT, "Error - Ingress Pkt Classifier clear stats - "
                         "invalid pipe 2");
    ASSERT_EQ(pkt_class_fatal_error_detect(2, &report), 0);
    expect_log(LOG_CRIT, "Error - Ingress Pkt Classifier fatal error "
                         "detection - invalid pipe 2");
    expect_no_more_logs();
}

} // namespace
