/* The PCIe block drivers (pcie, lhx_pcie) against a model of the block's
 * hardware: two counters that clear when read and a fatal error status
 * register that can change between reads. */
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
#include "pcie.hpp"

namespace {

/* Block registers, offsets from the block base. */
constexpr uint32_t kStatus = 0x00;
constexpr uint32_t kCounter0 = 0x50;
constexpr uint32_t kCounter1 = 0x54;

constexpr size_t kStatsBytes = 16;
constexpr size_t kCounters = 2;
constexpr size_t kRows = 6;

using Counters = std::array<uint64_t, kCounters>;

const bt_counter counter_sources[kCounters] = {
    {0, kCounter0},
    {0, kCounter1},
};

/* The two counters and their neighbours, which must never be read. */
void load_counters(int site, uint32_t poll)
{
    for (uint32_t reg = kCounter0 - 8; reg <= kCounter1 + 8; reg += 4)
        bt_store(site, reg, bt_value_by_reg(site, reg, poll));
}

/* The block sits at window offset 0x1000 on both images; the second site
 * gives another context a block of its own. */
const bt_layout layout = {
    .sites = {0x1000, 0x3000},
    .site_count = 2,
    .span = 0x100,
    .status = {kStatus},
    .status_count = 1,
    .counters = counter_sources,
    .counter_count = kCounters,
    .value = bt_value_by_reg,
    .load = load_counters,
};

const bt_driver pcie = {
    .name = "PCIe",
    .ops = &pcie_ops,
    .site = 0,
    .device = &lh_desc_base_two_pipes,
    .one_pipe_device = &lh_desc_base_one_pipe,
    .stats_bytes = kStatsBytes,
};
const bt_driver lhx = {
    .name = "LHX PCIe",
    .ops = &lhx_pcie_ops,
    .site = 1,
    .device = &lh_desc_lhx,
    .one_pipe_device = &lh_desc_lhx,
    .stats_bytes = kStatsBytes,
};
const bt_driver *const drivers[] = {&pcie, &lhx};

const bt_call refusals[] = {
    BT_STATS_REFUSALS("clear stats", "module fatal error detection"),
};

const bt_call null_refusals[] = {
    {"get stats", LOG_ERR, -1, bt_null_get_stats},
    {"get stats", LOG_ERR, -1, bt_null_get_stats_wrong_size},
    {"module fatal error detection", LOG_ERR, 0, bt_null_fatal_error_detect},
};

/* The block's error table, in test order. */
const bt_error_row rows[kRows] = {
    {kStatus, 5, "PBUS Trgt FIFO Overflow"},
    {kStatus, 4, "PBUS Trgt FIFO Underflow"},
    {kStatus, 3, "AXI-lite Read Return FIFO Overflow"},
    {kStatus, 2, "AXI-lite Read Return FIFO Underflow"},
    {kStatus, 1, "AXI-lite Command FIFO Overflow"},
    {kStatus, 0, "AXI-lite Command FIFO Underflow"},
};

class PcieTest : public BlockTest {
protected:
    void TearDown() override
    {
        mutex_init_fails = false;
        BlockTest::TearDown();
    }

    void start(lh_device_desc *desc)
    {
        model = bt_start(&layout, desc);
        mutex_inits = 0;
    }

    /* Ends a device mid-case, every message accounted for. */
    void finish()
    {
        expect_no_more_logs();
        fake_device_stop();
    }

    /* Both drivers on one base device: pcie at the real site, lhx_pcie at
     * the other. */
    void start_both()
    {
        start(&lh_desc_base_two_pipes);
        bt_create(&pcie, 0, pcie.site);
        bt_create(&lhx, 0, lhx.site);
    }

    /* The status register reads `status`, and a call reports `text`. */
    static void expect_fatal(const bt_driver *driver, uint32_t status,
                             const char *text)
    {
        bt_store(driver->site, kStatus, status);
        bt_expect_fatal(driver, 0, text);
    }

    reg_model *model = nullptr;
};

/* ---- Contexts never created before ---- */

TEST_F(PcieTest, MutexFailureLeavesContextInvalid)
{
    for (const bt_driver *driver : drivers) {
        SCOPED_TRACE(driver->name);
        start(driver->device);
        load_counters(0, 0);
        bt_store(0, kStatus, 1u << 5);
        mutex_init_fails = true;
        bt_expect_mutex_failure(driver, 0, bt_site_base(0));
        mutex_init_fails = false;
        ASSERT_EQ(mutex_inits, 1u);
        bt_expect_refusals(driver, refusals, std::size(refusals), 0,
                           "context");
        ASSERT_EQ(model->writes, 0u);
        finish();
    }
}

TEST_F(PcieTest, Pipe1RefusedOnOnePipeDevices)
{
    for (const bt_driver *driver : drivers) {
        SCOPED_TRACE(driver->name);
        start(driver->one_pipe_device);
        bt_expect_create_refused(driver, 1, bt_site_base(1));
        ASSERT_EQ(mutex_inits, 0u);
        bt_expect_refusals(driver, refusals, std::size(refusals), 1,
                           "context");
        ASSERT_EQ(model->writes, 0u);
        finish();
    }
}

/* ---- Context creation. lhx_pcie pipe 1 is never created anywhere. ---- */

TEST_F(PcieTest, OpsTablesWireTheOperations)
{
    static const lh_block_ops expected_pcie = {
        .context_create = pcie_context_create,
        .update_stats = pcie_update_stats,
        .get_stats = pcie_get_stats,
        .clear_stats = pcie_clear_stats,
        .fatal_error_detect = pcie_fatal_error_detect,
    };
    static const lh_block_ops expected_lhx = {
        .context_create = lhx_pcie_context_create,
        .update_stats = lhx_pcie_update_stats,
        .get_stats = lhx_pcie_get_stats,
        .clear_stats = lhx_pcie_clear_stats,
        .fatal_error_detect = lhx_pcie_fatal_error_detect,
    };

    bt_assert_ops(&pcie_ops, &expected_pcie);
    bt_assert_ops(&lhx_pcie_ops, &expected_lhx);
}

TEST_F(PcieTest, CreateLogsTheCreatedLine)
{
    start(&lh_desc_base_two_pipes);
    ASSERT_EQ(pcie_context_create(0, bt_site_base(0)), 0);
    expect_log(LOG_INFO, "Informational - PCIe module 0 context created");
    ASSERT_EQ(pcie_context_create(1, bt_site_base(1)), 0);
    expect_log(LOG_INFO, "Informational - PCIe module 1 context created");
    ASSERT_EQ(mutex_inits, 2u);
    finish();

    start(&lh_desc_lhx);
    ASSERT_EQ(lhx_pcie_context_create(0, bt_site_base(0)), 0);
    expect_log(LOG_INFO, "Informational - LHX PCIe module 0 context created");
    ASSERT_EQ(mutex_inits, 1u);
    ASSERT_EQ(model->reads, 0u);
    ASSERT_EQ(model->writes, 0u);
    expect_no_more_logs();
}

TEST_F(PcieTest, CreateZeroesTheCounters)
{
    start_both();
    bt_check_create_zeroes(&pcie, 0, 0);
    expect_no_more_logs();
}

TEST_F(PcieTest, CreateRefusals)
{
    start(&lh_desc_base_two_pipes);
    for (const bt_driver *driver : drivers)
        bt_expect_create_refusals(driver);
    ASSERT_EQ(mutex_inits, 0u);
    ASSERT_EQ(model->reads, 0u);
    ASSERT_EQ(model->writes, 0u);
    expect_no_more_logs();
}

TEST_F(PcieTest, CreateBeforeInitialisation)
{
    bt_expect_create_before_init(&layout, &pcie);
}

/* ---- Statistics ---- */

TEST_F(PcieTest, EachCounterFromItsRegister)
{
    /* Counter 0 from 0x50, counter 1 from 0x54, zero-extended; the record
     * is the two counters, counter 0 first. */
    static const Counters expected = {0x00000000010050F5,
                                      0x00000000010054F1};

    start_both();
    /* Each counter once, nothing else: no status, no neighbour. */
    for (const bt_driver *driver : drivers) {
        SCOPED_TRACE(driver->name);
        bt_check_composition(driver, 0, driver->site, expected.data(),
                             kCounters);
    }
    ASSERT_EQ(model->writes, 0u);
    expect_no_more_logs();
}

TEST_F(PcieTest, CountersAccumulateOverPolls)
{
    start_both();
    bt_check_polls_accumulate(&pcie, 0, 0);
    expect_no_more_logs();
}

TEST_F(PcieTest, CountersWidenPast32Bits)
{
    static const bt_word words[] = {{kCounter0, 0xFFFFFFFF},
                                    {kCounter1, 0xC0000000}};
    static const bt_total totals[] = {{0, 0x1FFFFFFFE}, {1, 0x180000000}};

    start_both();
    bt_check_totals(&pcie, 0, 0, words, std::size(words), totals,
                    std::size(totals));
    expect_no_more_logs();
}

TEST_F(PcieTest, GetStatsRefusesOtherSizes)
{
    static const uint64_t sizes[] = {8, 32, 15, 17, 0, 0x100000010};

    start_both();
    load_counters(0, 0);
    load_counters(1, 1);
    pcie_update_stats(0);
    lhx_pcie_update_stats(0);
    for (const bt_driver *driver : drivers)
        bt_expect_wrong_sizes(driver, 0, sizes, std::size(sizes));
    expect_no_more_logs();
}

TEST_F(PcieTest, GetStatsCopiesExactly16Bytes)
{
    Counters expected{};

    start_both();
    load_counters(0, 2);
    pcie_update_stats(0);
    bt_add_expected(expected.data(), 0, 2);
    /* The 16 bytes, and not one past them. */
    bt_assert_stats(&pcie, 0, expected.data());
    expect_no_more_logs();
}

TEST_F(PcieTest, ClearZeroesWithoutTouchingHardware)
{
    start_both();
    bt_check_clear(&pcie, 0, 0);
    expect_no_more_logs();
}

TEST_F(PcieTest, PcieAndLhxPcieKeepSeparateCounters)
{
    static const Counters zeros{};
    Counters expected_pcie{};
    Counters expected_lhx{};

    start_both();
    load_counters(0, 0);
    load_counters(1, 1);
    pcie_update_stats(0);
    lhx_pcie_update_stats(0);
    bt_add_expected(expected_pcie.data(), 0, 0);
    bt_add_expected(expected_lhx.data(), 1, 1);
    bt_assert_stats(&pcie, 0, expected_pcie.data());
    bt_assert_stats(&lhx, 0, expected_lhx.data());

    ASSERT_EQ(pcie_clear_stats(0), 0);
    bt_assert_stats(&pcie, 0, zeros.data());
    bt_assert_stats(&lhx, 0, expected_lhx.data());

    load_counters(0, 2);
    pcie_update_stats(0);
    ASSERT_EQ(lhx_pcie_clear_stats(0), 0);
    expected_pcie = {};
    bt_add_expected(expected_pcie.data(), 0, 2);
    bt_assert_stats(&pcie, 0, expected_pcie.data());
    bt_assert_stats(&lhx, 0, zeros.data());
    expect_no_more_logs();
}

TEST_F(PcieTest, PipesKeepTheirOwnCounters)
{
    start(&lh_desc_base_two_pipes);
    bt_create(&pcie, 0, 0);
    bt_create(&pcie, 1, 1);
    bt_check_pipes_apart(&pcie, 3);
    expect_no_more_logs();
}

/* ---- Fatal error detection ---- */

TEST_F(PcieTest, EachErrorBitAloneReportsItsText)
{
    start_both();
    for (const bt_driver *driver : drivers) {
        SCOPED_TRACE(driver->name);
        bt_walk_error_rows(driver, 0, driver->site, rows, kRows);
    }
    ASSERT_EQ(model->writes, 0u);
    expect_no_more_logs();
}

TEST_F(PcieTest, FirstBitInTableOrderWins)
{
    start_both();
    for (const bt_driver *driver : drivers) {
        SCOPED_TRACE(driver->name);
        expect_fatal(driver, 1u << 5 | 1u << 0, "PBUS Trgt FIFO Overflow");
        expect_fatal(driver, 0xFFFFFFFF, "PBUS Trgt FIFO Overflow");
        expect_fatal(driver, 1u << 3 | 1u << 2,
                     "AXI-lite Read Return FIFO Overflow");
        expect_fatal(driver, 1u << 4 | 1u << 1, "PBUS Trgt FIFO Underflow");
    }
    expect_no_more_logs();
}

TEST_F(PcieTest, EachRowOutranksTheNext)
{
    start_both();
    for (const bt_driver *driver : drivers) {
        SCOPED_TRACE(driver->name);
        for (size_t i = 0; i + 1 < kRows; i++)
            expect_fatal(driver, 1u << rows[i].bit | 1u << rows[i + 1].bit,
                         rows[i].text);
    }
    expect_no_more_logs();
}

TEST_F(PcieTest, Bits6To31ReportNothing)
{
    start_both();
    for (const bt_driver *driver : drivers) {
        SCOPED_TRACE(driver->name);
        bt_store(driver->site, kStatus, 0xFFFFFFC0);
        bt_forget_reads();
        bt_expect_no_fatal(driver, 0);
        ASSERT_EQ(bt_status_reads(driver->site), kRows);
    }
    bt_store(0, kStatus, 0);
    bt_expect_no_fatal(&pcie, 0);
    ASSERT_EQ(model->writes, 0u);
    expect_no_more_logs();
}

TEST_F(PcieTest, EachRowReadsTheRegisterAnew)
{
    /* Bit 0 appears only at the sixth read, the last row's. */
    static const uint32_t late[] = {0, 0, 0, 0, 0, 1u << 0};
    /* Bit 4 shows at the first read (bit 5's row), gone by its own. */
    static const uint32_t gone[] = {1u << 4, 0};
    lh_fatal_error_t report = {0, 0, nullptr};

    start_both();
    bt_script(kStatus, late, std::size(late));
    ASSERT_EQ(lhx_pcie_fatal_error_detect(0, &report), 1);
    ASSERT_STREQ(report.error_text, "AXI-lite Command FIFO Underflow");
    expect_log(LOG_CRIT, "FATAL - LHX PCIe pipe 0: AXI-lite Command FIFO "
                         "Underflow");
    ASSERT_EQ(bt_script_reads(), kRows);

    bt_script(kStatus, gone, std::size(gone));
    bt_expect_no_fatal(&pcie, 0);
    ASSERT_EQ(bt_script_reads(), kRows);
    expect_no_more_logs();
}

TEST_F(PcieTest, StandingErrorReportedOnEveryCall)
{
    start_both();
    for (int call = 0; call < 3; call++)
        expect_fatal(&pcie, 1u << 2, "AXI-lite Read Return FIFO Underflow");
    ASSERT_EQ(bt_peek(0, kStatus), 1u << 2);
    ASSERT_EQ(model->writes, 0u);
    expect_no_more_logs();
}

TEST_F(PcieTest, PcieAndLhxPcieReadTheirOwnBlocks)
{
    start_both();
    bt_store(1, kStatus, 1u << 1);
    bt_expect_no_fatal(&pcie, 0);
    expect_fatal(&lhx, 1u << 1, "AXI-lite Command FIFO Overflow");
    expect_no_more_logs();
}

/* ---- Refusals ---- */

TEST_F(PcieTest, NullPointersComeFirst)
{
    start_both();
    bt_store(0, kStatus, 1u << 5);
    for (const bt_driver *driver : drivers) {
        SCOPED_TRACE(driver->name);
        bt_expect_null_refusals(driver, null_refusals,
                                std::size(null_refusals), 0);
        bt_expect_null_refusals(driver, null_refusals,
                                std::size(null_refusals), 2);
    }
    ASSERT_EQ(model->reads, 0u);
    expect_no_more_logs();
}

TEST_F(PcieTest, InvalidPipeRefusedByEveryOperation)
{
    start_both();
    load_counters(0, 0);
    load_counters(1, 0);
    bt_store(0, kStatus, 1u << 5);
    bt_store(1, kStatus, 1u << 5);
    for (const bt_driver *driver : drivers) {
        SCOPED_TRACE(driver->name);
        bt_expect_refusals(driver, refusals, std::size(refusals), 2, "pipe");
        bt_expect_refusals(driver, refusals, std::size(refusals), 0xFFFFFFFF,
                           "pipe");
    }
    expect_no_more_logs();
}

TEST_F(PcieTest, InvalidContextRefusedByEveryOperation)
{
    start_both();
    bt_expect_refusals(&lhx, refusals, std::size(refusals), 1, "context");
    expect_no_more_logs();
}

TEST_F(PcieTest, SizeCheckedAfterPipeAndContext)
{
    Counters stats{};

    start_both();
    ASSERT_EQ(pcie_get_stats(2, stats.data(), 8), -1);
    expect_log(LOG_CRIT, "Error - PCIe get stats - invalid pipe 2");
    ASSERT_EQ(lhx_pcie_get_stats(1, stats.data(), 32), -1);
    expect_log(LOG_CRIT, "Error - LHX PCIe get stats - invalid context 1");
    expect_no_more_logs();
}

TEST_F(PcieTest, ExactRefusalLines)
{
    Counters stats{};
    lh_fatal_error_t report{};

    start_both();
    pcie_update_stats(2);
    expect_log(LOG_CRIT, "Error - PCIe update stats - invalid pipe 2");
    ASSERT_EQ(pcie_get_stats(3, stats.data(), kStatsBytes), -1);
    expect_log(LOG_CRIT, "Error - PCIe get stats - invalid pipe 3");
    ASSERT_EQ(pcie_clear_stats(2), -1);
    expect_log(LOG_CRIT, "Error - PCIe clear stats - invalid pipe 2");
    ASSERT_EQ(pcie_fatal_error_detect(2, &report), 0);
    expect_log(LOG_CRIT, "Error - PCIe module fatal error detection - "
                         "invalid pipe 2");
    lhx_pcie_update_stats(1);
    expect_log(LOG_CRIT, "Error - LHX PCIe update stats - invalid context 1");
    ASSERT_EQ(lhx_pcie_clear_stats(1), -1);
    expect_log(LOG_CRIT, "Error - LHX PCIe clear stats - invalid context 1");
    ASSERT_EQ(lhx_pcie_fatal_error_detect(1, &report), 0);
    expect_log(LOG_CRIT, "Error - LHX PCIe module fatal error detection - "
                         "invalid context 1");
    ASSERT_EQ(pcie_get_stats(0, stats.data(), 8), -1);
    expect_log(LOG_ERR, "Error - PCIe get stats failed, unexpected memory "
                        "size 8");
    ASSERT_EQ(lhx_pcie_get_stats(0, nullptr, kStatsBytes), -1);
    expect_log(LOG_ERR, "Null pointer - LHX PCIe get stats");
    expect_no_more_logs();
}

} // namespace
