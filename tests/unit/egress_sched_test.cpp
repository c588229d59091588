/* The egress scheduler drivers (egress_sched, lhx_egress_sched) against a
 * model of the block's hardware: clear-on-read counters, a status register
 * that can change between reads, and a count of the reads of every
 * register. */
#include <array>
#include <cstdint>
#include <cstring>
#include <iterator>

#include <gtest/gtest.h>

#include "block_fixture.hpp"
#include "egress_sched.hpp"
#include "fake_device.hpp"
#include "lh_drivers.hpp"
#include "lh_log.hpp"
#include "log_expect.hpp"
#include "mutex_wrap.hpp"

namespace {

/* Block registers, offsets from the block base. */
constexpr uint32_t kStatus = 0x00;

constexpr size_t kStatsBytes = 144;
constexpr size_t kCounters = 18;
constexpr size_t kCounterRegisters = 24;
constexpr size_t kErrorRows = 14;

using Counters = std::array<uint64_t, kCounters>;

/* The statistics table: the register of bits 63..32 (0: none) and the
 * register of bits 31..0. */
const bt_counter counter_sources[kCounters] = {
    {0x30, 0x34}, {0x38, 0x3C}, {0x40, 0x44}, {0, 0x50},    {0, 0x54},
    {0, 0x60},    {0, 0x64},    {0x70, 0x74}, {0x78, 0x7C}, {0x80, 0x84},
    {0, 0x90},    {0, 0x94},    {0, 0x98},    {0, 0x9C},    {0, 0xA0},
    {0, 0xA4},    {0, 0xA8},    {0, 0xAC},
};

/* The two egress scheduler blocks of the base window, pipe 0's and pipe
 * 1's; the LHX window has only the first. A case may put either driver's
 * context on either site. */
const bt_layout layout = {
    .sites = {0x19000, 0x29000},
    .site_count = 2,
    .span = 0x100,
    .status = {kStatus},
    .status_count = 1,
    .counters = counter_sources,
    .counter_count = kCounters,
    .value = bt_value_by_site,
};

const bt_driver sched = {
    .name = "Egress Scheduler",
    .ops = &egress_sched_ops,
    .site = 0,
    .device = &lh_desc_base_two_pipes,
    .stats_bytes = kStatsBytes,
};
const bt_driver lhx = {
    .name = "LHX Egress Scheduler",
    .ops = &lhx_egress_sched_ops,
    .site = 1,
    .device = &lh_desc_lhx,
    .stats_bytes = kStatsBytes,
};
const bt_driver *const drivers[] = {&sched, &lhx};

/* clear stats words its refusal as update stats. */
const bt_call refusals[] = {
    BT_STATS_REFUSALS("update stats", "fatal error detection"),
};

const bt_call null_refusals[] = {
    {"get stats", LOG_ERR, -1, bt_null_get_stats_wrong_size},
    {"fatal error detection", LOG_ERR, 0, bt_null_fatal_error_detect},
};

/* The block's fatal error table, in test order. */
const bt_error_row error_rows[kErrorRows] = {
    {kStatus, 13, "SCHE Out FIFO Overflow"},
    {kStatus, 12, "SCHE Out FIFO Underflow"},
    {kStatus, 11, "Packet Buffer FIFO (x86 Path) Double bit ECC error"},
    {kStatus, 10, "Packet Buffer (x86 Path) Overflow"},
    {kStatus, 9, "Packet Buffer (x86 Path) Underflow"},
    {kStatus, 8, "SCHE FIFO (x86 Path) Double bit ECC error"},
    {kStatus, 7, "SCHE FIFO (x86 Path) Overflow"},
    {kStatus, 6, "SCHE FIFO (x86 Path) Underflow"},
    {kStatus, 5, "Packet Buffer FIFO (Ingress Path) Double bit ECC error"},
    {kStatus, 4, "Packet Buffer (Ingress Path) Overflow"},
    {kStatus, 3, "Packet Buffer (Ingress Path) Underflow"},
    {kStatus, 2, "SCHE FIFO (Ingress Path) Double bit ECC error"},
    {kStatus, 1, "SCHE FIFO (Ingress Path) Overflow"},
    {kStatus, 0, "SCHE FIFO (Ingress Path) Underflow"},
};

class EgressSchedTest : public BlockTest {
protected:
    void TearDown() override
    {
        mutex_init_fails = false;
        BlockTest::TearDown();
    }

    void start(lh_device_desc *desc) { model = bt_start(&layout, desc); }

    void start_both_on_pipe_0()
    {
        start(&lh_desc_base_two_pipes);
        bt_create(&sched, 0, sched.site);
        bt_create(&lhx, 0, lhx.site);
    }

    /* The status register at `site` reads `status`, and a call reports
     * `text`. */
    static void expect_fatal_on(const bt_driver *driver, uint32_t pipe,
                                int site, uint32_t status, const char *text)
    {
        bt_store(site, kStatus, status);
        bt_expect_fatal(driver, pipe, text);
    }

    /* With `status`, egress_sched pipe 0 reports nothing after reading
     * the register once a row, and writes nothing. */
    void expect_no_fatal(uint32_t status)
    {
        unsigned long writes = model->writes;

        bt_store(0, kStatus, status);
        bt_forget_reads();
        bt_expect_no_fatal(&sched, 0);
        ASSERT_EQ(bt_reads(0, kStatus), kErrorRows);
        ASSERT_EQ(model->writes, writes);
    }

    reg_model *model = nullptr;
};

/* ---- Contexts never created before ---- */

TEST_F(EgressSchedTest, MutexFailureLeavesContextInvalid)
{
    start(&lh_desc_base_two_pipes);
    mutex_init_fails = true;
    for (const bt_driver *driver : drivers)
        bt_expect_mutex_failure(driver, 0, bt_site_base(0));
    mutex_init_fails = false;
    ASSERT_EQ(model->reads, 0u);
    ASSERT_EQ(model->writes, 0u);
    bt_expect_refusals(&sched, refusals, std::size(refusals), 0, "context");
    bt_expect_refusals(&lhx, refusals, std::size(refusals), 0, "context");
    expect_no_more_logs();
}

TEST_F(EgressSchedTest, Pipe1RefusedOnOnePipeDevice)
{
    start(&lh_desc_base_one_pipe);
    bt_expect_create_refused(&sched, 1, bt_site_base(1));
    ASSERT_EQ(model->writes, 0u);
    bt_expect_refusals(&sched, refusals, std::size(refusals), 1, "context");
    expect_no_more_logs();
}

TEST_F(EgressSchedTest, LhxContextIsNotTheBaseContext)
{
    Counters stats{};

    start(&lh_desc_lhx);
    bt_create(&lhx, 0, 0);
    ASSERT_EQ(lhx_egress_sched_get_stats(0, stats.data(), kStatsBytes), 0);
    ASSERT_EQ(egress_sched_get_stats(0, stats.data(), kStatsBytes), -1);
    expect_log(LOG_CRIT,
               "Error - Egress Scheduler get stats - invalid context 0");
    expect_no_more_logs();
}

/* ---- Context creation. lhx_egress_sched pipe 1 is never created. ---- */

TEST_F(EgressSchedTest, OpsTablesWireTheOperations)
{
    static const lh_block_ops expected_sched = {
        .context_create = egress_sched_context_create,
        .update_stats = egress_sched_update_stats,
        .get_stats = egress_sched_get_stats,
        .clear_stats = egress_sched_clear_stats,
        .fatal_error_detect = egress_sched_fatal_error_detect,
    };
    static const lh_block_ops expected_lhx = {
        .context_create = lhx_egress_sched_context_create,
        .update_stats = lhx_egress_sched_update_stats,
        .get_stats = lhx_egress_sched_get_stats,
        .clear_stats = lhx_egress_sched_clear_stats,
        .fatal_error_detect = lhx_egress_sched_fatal_error_detect,
    };

    bt_assert_ops(&egress_sched_ops, &expected_sched);
    bt_assert_ops(&lhx_egress_sched_ops, &expected_lhx);
}

TEST_F(EgressSchedTest, CreateLogsTheCreatedLine)
{
    start(&lh_desc_base_two_pipes);
    ASSERT_EQ(egress_sched_context_create(0, bt_site_base(0)), 0);
    expect_log(LOG_INFO,
               "Informational - Egress Scheduler module 0 context created");
    ASSERT_EQ(egress_sched_context_create(1, bt_site_base(1)), 0);
    expect_log(LOG_INFO,
               "Informational - Egress Scheduler module 1 context created");
    ASSERT_EQ(lhx_egress_sched_context_create(0, bt_site_base(1)), 0);
    expect_log(LOG_INFO, "Informational - LHX Egress Scheduler module 0 "
                         "context created");
    ASSERT_EQ(model->reads, 0u);
    ASSERT_EQ(model->writes, 0u);
    expect_no_more_logs();
}

TEST_F(EgressSchedTest, CreateZeroesTheCounters)
{
    start(&lh_desc_base_two_pipes);
    for (const bt_driver *driver : drivers) {
        SCOPED_TRACE(driver->name);
        bt_create(driver, 0, 0);
        bt_check_create_zeroes(driver, 0, 0);
    }
    expect_no_more_logs();
}

TEST_F(EgressSchedTest, CreateRefusals)
{
    start(&lh_desc_base_two_pipes);
    for (const bt_driver *driver : drivers)
        bt_expect_create_refusals(driver);
    ASSERT_EQ(model->writes, 0u);
    expect_no_more_logs();
}

TEST_F(EgressSchedTest, CreateBeforeInitialisation)
{
    bt_expect_create_before_init(&layout, &sched);
}

/* ---- Statistics ---- */

TEST_F(EgressSchedTest, EveryCounterComposedFromItsRegisters)
{
    static const Counters expected = {
        0x1000309510003491, 0x1000389D10003C99, 0x100040E5100044E1,
        0x00000000100050F5, 0x00000000100054F1, 0x00000000100060C5,
        0x00000000100064C1, 0x100070D5100074D1, 0x100078DD10007CD9,
        0x1000802510008421, 0x0000000010009035, 0x0000000010009431,
        0x000000001000983D, 0x0000000010009C39, 0x000000001000A005,
        0x000000001000A401, 0x000000001000A80D, 0x000000001000AC09,
    };

    start(&lh_desc_base_two_pipes);
    for (const bt_driver *driver : drivers) {
        SCOPED_TRACE(driver->name);
        bt_create(driver, 0, 0);
        bt_check_composition(driver, 0, 0, expected.data(),
                             kCounterRegisters);
    }
    expect_no_more_logs();
}

TEST_F(EgressSchedTest, CountersAccumulateOverPolls)
{
    start_both_on_pipe_0();
    for (const bt_driver *driver : drivers) {
        SCOPED_TRACE(driver->name);
        bt_forget_reads();
        bt_check_polls_accumulate(driver, 0, driver->site);
        bt_assert_counter_reads(driver->site, 4, kCounterRegisters);
    }
    expect_no_more_logs();
}

TEST_F(EgressSchedTest, CounterTotalsWrap)
{
    static const bt_word all_ones[] = {
        {0x30, 0xFFFFFFFF}, {0x34, 0xFFFFFFFF}, {0x50, 0xFFFFFFFF}};
    static const bt_total totals[] = {{0, 0xFFFFFFFFFFFFFFFE},
                                      {3, 0x1FFFFFFFE}};

    start(&lh_desc_base_two_pipes);
    bt_create(&sched, 0, 0);
    bt_check_totals(&sched, 0, 0, all_ones, std::size(all_ones), totals,
                    std::size(totals));
    expect_no_more_logs();
}

TEST_F(EgressSchedTest, ClearThenGetYieldsZeros)
{
    start_both_on_pipe_0();
    for (const bt_driver *driver : drivers) {
        SCOPED_TRACE(driver->name);
        bt_check_clear(driver, 0, driver->site);
    }
    expect_no_more_logs();
}

TEST_F(EgressSchedTest, GetStatsWantsExactly144Bytes)
{
    static const uint64_t sizes[] = {120, 143, 145, 0, 152};
    std::array<uint8_t, kStatsBytes> record{};
    std::array<uint8_t, kStatsBytes> untouched{};

    start_both_on_pipe_0();
    bt_load_counters(0, 0);
    bt_load_counters(1, 0);
    egress_sched_update_stats(0);
    lhx_egress_sched_update_stats(0);
    untouched.fill(0xEE);
    for (const bt_driver *driver : drivers) {
        SCOPED_TRACE(driver->name);
        bt_expect_wrong_sizes(driver, 0, sizes, std::size(sizes));
        bt_get_stats(driver, 0, record.data());
        ASSERT_NE(record, untouched);
    }
    expect_no_more_logs();
}

TEST_F(EgressSchedTest, PipesKeepTheirOwnCounters)
{
    start(&lh_desc_base_two_pipes);
    bt_create(&sched, 0, 0);
    bt_create(&sched, 1, 1);
    bt_check_pipes_apart(&sched, 2);
    expect_no_more_logs();
}

TEST_F(EgressSchedTest, LhxAndBaseKeepApart)
{
    static const Counters zeros{};
    Counters expected_lhx{};
    lh_fatal_error_t report = {0, 0, nullptr};

    start_both_on_pipe_0();
    bt_load_counters(0, 0);
    bt_load_counters(1, 1);
    egress_sched_update_stats(0);
    lhx_egress_sched_update_stats(0);
    ASSERT_EQ(egress_sched_clear_stats(0), 0);
    bt_add_expected(expected_lhx.data(), 1, 1);
    bt_assert_stats(&sched, 0, zeros.data());
    bt_assert_stats(&lhx, 0, expected_lhx.data());

    bt_store(1, kStatus, 1u << 13);
    ASSERT_EQ(egress_sched_fatal_error_detect(0, &report), 0);
    ASSERT_EQ(report.error_text, nullptr);
    ASSERT_EQ(lhx_egress_sched_fatal_error_detect(0, &report), 1);
    expect_log(LOG_CRIT,
               "FATAL - LHX Egress Scheduler pipe 0: SCHE Out FIFO Overflow");
    expect_no_more_logs();
}

/* ---- Fatal error detection ---- */

TEST_F(EgressSchedTest, EachErrorBitAloneReportsItsText)
{
    start_both_on_pipe_0();
    bt_create(&sched, 1, 1);
    /* The status register is only ever read. */
    bt_walk_error_rows(&sched, 0, 0, error_rows, kErrorRows);
    bt_walk_error_rows(&sched, 1, 1, error_rows, kErrorRows);
    bt_walk_error_rows(&lhx, 0, 1, error_rows, kErrorRows);
    expect_no_more_logs();
}

TEST_F(EgressSchedTest, FirstSetBitWins)
{
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

TEST_F(EgressSchedTest, Bits31To14ReportNothing)
{
    start_both_on_pipe_0();
    expect_no_fatal(0);
    for (unsigned int bit = 14; bit < 32; bit++) {
        SCOPED_TRACE(format_text("bit %u", bit));
        expect_no_fatal(1u << bit);
    }
    expect_no_fatal(0xFFFFC000);
    expect_no_more_logs();
}

TEST_F(EgressSchedTest, StatusIsReadAgainForEveryRow)
{
    /* Bit 0 only at the fourteenth read, the row of bit 0. */
    static const uint32_t late[] = {0, 0, 0, 0, 0, 0, 0,
                                    0, 0, 0, 0, 0, 0, 1u << 0};
    /* Bit 0 at the first read only: gone when its row reads again. */
    static const uint32_t gone[] = {1u << 0, 0};
    /* Bit 12 from the second read on: found by its own row's read. */
    static const uint32_t second[] = {0, 1u << 12 | 1u << 13};
    lh_fatal_error_t report = {0, 0, nullptr};

    start_both_on_pipe_0();
    bt_script(kStatus, late, std::size(late));
    ASSERT_EQ(egress_sched_fatal_error_detect(0, &report), 1);
    ASSERT_STREQ(report.error_text, "SCHE FIFO (Ingress Path) Underflow");
    ASSERT_EQ(bt_reads(0, kStatus), 14u);
    expect_log(LOG_CRIT, "FATAL - Egress Scheduler pipe 0: SCHE FIFO "
                         "(Ingress Path) Underflow");

    report.error_text = nullptr;
    bt_script(kStatus, gone, std::size(gone));
    ASSERT_EQ(egress_sched_fatal_error_detect(0, &report), 0);
    ASSERT_EQ(report.error_text, nullptr);
    ASSERT_EQ(bt_reads(0, kStatus), 14u);

    bt_script(kStatus, second, std::size(second));
    ASSERT_EQ(egress_sched_fatal_error_detect(0, &report), 1);
    ASSERT_STREQ(report.error_text, "SCHE Out FIFO Underflow");
    ASSERT_EQ(bt_reads(0, kStatus), 2u);
    expect_log(LOG_CRIT,
               "FATAL - Egress Scheduler pipe 0: SCHE Out FIFO Underflow");
    expect_no_more_logs();
}

/* ---- Refusals ---- */

TEST_F(EgressSchedTest, NullPointersComeFirst)
{
    start(&lh_desc_base_two_pipes);
    for (const bt_driver *driver : drivers)
        bt_expect_null_refusals(driver, null_refusals,
                                std::size(null_refusals), 2);
    expect_no_more_logs();
}

TEST_F(EgressSchedTest, InvalidPipeRefusedByEveryOperation)
{
    start_both_on_pipe_0();
    for (const bt_driver *driver : drivers)
        bt_expect_refusals(driver, refusals, std::size(refusals), 2, "pipe");
    expect_no_more_logs();
}

TEST_F(EgressSchedTest, InvalidContextRefusedByEveryOperation)
{
    start(&lh_desc_lhx);
    bt_expect_create_refused(&lhx, 1, bt_site_base(0));
    bt_expect_refusals(&lhx, refusals, std::size(refusals), 1, "context");
    expect_no_more_logs();
}

TEST_F(EgressSchedTest, ClearStatsRefusesWithUpdateWords)
{
    Counters expected{};

    start_both_on_pipe_0();
    bt_load_counters(0, 0);
    egress_sched_update_stats(0);
    ASSERT_EQ(egress_sched_clear_stats(2), -1);
    expect_log(LOG_CRIT, "Error - Egress Scheduler update stats - invalid "
                         "pipe 2");
    ASSERT_EQ(lhx_egress_sched_clear_stats(1), -1);
    expect_log(LOG_CRIT, "Error - LHX Egress Scheduler update stats - "
                         "invalid context 1");
    bt_add_expected(expected.data(), 0, 0);
    bt_assert_stats(&sched, 0, expected.data());
    expect_no_more_logs();
}

TEST_F(EgressSchedTest, ExactInvalidLines)
{
    Counters stats{};
    lh_fatal_error_t report{};

    start(&lh_desc_base_two_pipes);
    egress_sched_update_stats(2);
    expect_log(LOG_CRIT, "Error - Egress Scheduler update stats - "
                         "invalid pipe 2");
    ASSERT_EQ(egress_sched_get_stats(3, stats.data(), kStatsBytes), -1);
    expect_log(LOG_CRIT, "Error - Egress Scheduler get stats - "
                         "invalid pipe 3");
    ASSERT_EQ(egress_sched_fatal_error_detect(2, &report), 0);
    expect_log(LOG_CRIT, "Error - Egress Scheduler fatal error detection "
                         "- invalid pipe 2");
    lhx_egress_sched_update_stats(1);
    expect_log(LOG_CRIT, "Error - LHX Egress Scheduler update stats - "
                         "invalid context 1");
    ASSERT_EQ(lhx_egress_sched_get_stats(1, stats.data(), kStatsBytes), -1);
    expect_log(LOG_CRIT, "Error - LHX Egress Scheduler get stats - "
                         "invalid context 1");
    ASSERT_EQ(lhx_egress_sched_fatal_error_detect(1, &report), 0);
    expect_log(LOG_CRIT, "Error - LHX Egress Scheduler fatal error detection "
                         "- invalid context 1");
    expect_no_more_logs();
}

} // namespace
