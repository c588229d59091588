/* The ingress packet processor driver (pkt_proc) against a model of the
 * block's hardware: clear-on-read counters, a status register that can
 * change between reads, and a count of the reads of every register. */
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
#include "pkt_proc.hpp"

namespace {

/* Block registers, offsets from the block base. */
constexpr uint32_t kStatus = 0x00;

constexpr size_t kStatsBytes = 136;
constexpr size_t kCounters = 17;
/* The counter registers, as the register map and the statistics table
 * name them: 0x20..0x44 and 0x50..0x84. */
constexpr size_t kCounterRegisters = 24;
constexpr size_t kErrorRows = 31;

using Counters = std::array<uint64_t, kCounters>;

/* The statistics table: the register of bits 63..32 (0: none) and the
 * register of bits 31..0. */
const bt_counter counter_sources[kCounters] = {
    {0x20, 0x24}, {0x28, 0x2C}, {0x30, 0x34}, {0x38, 0x3C}, {0x40, 0x44},
    {0x50, 0x54}, {0x58, 0x5C}, {0, 0x60},    {0, 0x64},    {0, 0x68},
    {0, 0x6C},    {0, 0x70},    {0, 0x74},    {0, 0x78},    {0, 0x7C},
    {0, 0x80},    {0, 0x84},
};

/* Loads every counter register, and the two registers between them that
 * are not counters. */
void load_counters(int site, uint32_t poll)
{
    bt_load_counters(site, poll);
    bt_store(site, 0x48, bt_value_by_site(site, 0x48, poll));
    bt_store(site, 0x4C, bt_value_by_site(site, 0x4C, poll));
}

/* The processor blocks of the base window, pipe 0's and pipe 1's. */
const bt_layout layout = {
    .sites = {0x18000, 0x28000},
    .site_count = 2,
    .span = 0x100,
    .status = {kStatus},
    .status_count = 1,
    .counters = counter_sources,
    .counter_count = kCounters,
    .value = bt_value_by_site,
    .load = load_counters,
};

const bt_driver pkt_proc = {
    .name = "Ingress Pkt Processor",
    .ops = &pkt_proc_ops,
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
    {kStatus, 30, "Input Packet FIFO Double bit ECC error"},
    {kStatus, 29, "Input Packet FIFO Overflow"},
    {kStatus, 28, "Input Packet FIFO Underflow"},
    {kStatus, 27, "Action Rule Instruction FIFO Double bit ECC error"},
    {kStatus, 26, "Action Rule Instruction FIFO Overflow"},
    {kStatus, 25, "Action Rule Instruction FIFO Underflow"},
    {kStatus, 24, "Rwe Data FIFO Double bit ECC error"},
    {kStatus, 23, "Rwe Data FIFO Overflow"},
    {kStatus, 22, "Rwe Data FIFO Underflow"},
    {kStatus, 21, "Checksum FIFO Double bit ECC error"},
    {kStatus, 20, "Checksum FIFO Overflow"},
    {kStatus, 19, "Checksum FIFO Underflow"},
    {kStatus, 18, "Output Packet FIFO Double bit ECC error"},
    {kStatus, 17, "Output Packet FIFO Overflow"},
    {kStatus, 16, "Output Packet FIFO Underflow"},
    {kStatus, 15, "Delete Replace Skip Insert FIFO Overflow"},
    {kStatus, 14, "Delete Replace Skip Insert FIFO Underflow"},
    {kStatus, 13, "Dh Shadow FIFO Overflow"},
    {kStatus, 12, "Dh Shadow FIFO Underflow"},
    {kStatus, 11, "Rwe Data Shadow FIFO Overflow"},
    {kStatus, 10, "Rwe Data Shadow FIFO Underflow"},
    {kStatus, 9, "Instruction Transform FIFO Overflow"},
    {kStatus, 8, "Instruction Transform FIFO Underflow"},
    {kStatus, 7, "Control Message FIFO Overflow"},
    {kStatus, 6, "Control Message FIFO Underflow"},
    {kStatus, 5, "Increase Decrease Command FIFO Overflow"},
    {kStatus, 4, "Increase Decrease Command FIFO Underflow"},
    {kStatus, 3, "Ingress Parser Packet Bus Missing SOP Error"},
    {kStatus, 2, "Ingress Parser Packet Bus Missing EOP Error"},
    {kStatus, 1, "Ingress Classification Packet Bus Missing SOP Error"},
    {kStatus, 0, "Ingress Classification Packet Bus Missing EOP Error"},
};

class PktProcTest : public BlockTest {
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
        bt_create(&pkt_proc, 0, 0);
        bt_create(&pkt_proc, 1, 1);
    }

    /* The status register of `pipe` reads `status`, and a call reports
     * `text`. */
    static void expect_fatal(uint32_t pipe, uint32_t status, const char *text)
    {
        bt_store(static_cast<int>(pipe), kStatus, status);
        bt_expect_fatal(&pkt_proc, pipe, text);
    }

    /* With `status`, pipe 0 reports nothing after reading the register
     * once a row, and writes nothing. */
    void expect_no_fatal(uint32_t status)
    {
        unsigned long writes = model->writes;

        bt_store(0, kStatus, status);
        bt_forget_reads();
        bt_expect_no_fatal(&pkt_proc, 0);
        ASSERT_EQ(bt_reads(0, kStatus), kErrorRows);
        ASSERT_EQ(model->writes, writes);
    }

    reg_model *model = nullptr;
};

/* ---- Contexts never created before ---- */

TEST_F(PktProcTest, MutexFailureLeavesContextInvalid)
{
    start(&lh_desc_base_two_pipes);
    mutex_init_fails = true;
    bt_expect_mutex_failure(&pkt_proc, 0, bt_site_base(0));
    mutex_init_fails = false;
    ASSERT_EQ(model->reads, 0u);
    ASSERT_EQ(model->writes, 0u);
    bt_expect_refusals(&pkt_proc, refusals, std::size(refusals), 0, "context");
    expect_no_more_logs();
}

TEST_F(PktProcTest, Pipe1RefusedOnOnePipeDevice)
{
    start(&lh_desc_base_one_pipe);
    bt_expect_create_refused(&pkt_proc, 1, bt_site_base(1));
    ASSERT_EQ(model->writes, 0u);
    bt_expect_refusals(&pkt_proc, refusals, std::size(refusals), 1, "context");
    expect_no_more_logs();
}

TEST_F(PktProcTest, ExactInvalidContextLines)
{
    Counters stats{};
    lh_fatal_error_t report{};

    start(&lh_desc_base_one_pipe);
    pkt_proc_update_stats(1);
    expect_log(LOG_CRIT, "Error - Ingress Pkt Processor update stats - "
                         "invalid context 1");
    ASSERT_EQ(pkt_proc_get_stats(1, stats.data(), kStatsBytes), -1);
    expect_log(LOG_CRIT, "Error - Ingress Pkt Processor get stats - "
                         "invalid context 1");
    ASSERT_EQ(pkt_proc_clear_stats(1), -1);
    expect_log(LOG_CRIT, "Error - Ingress Pkt Processor clear stats - "
                         "invalid context 1");
    ASSERT_EQ(pkt_proc_fatal_error_detect(1, &report), 0);
    expect_log(LOG_CRIT, "Error - Ingress Pkt Processor fatal error detection "
                         "- invalid context 1");
    expect_no_more_logs();
}

/* ---- Context creation ---- */

TEST_F(PktProcTest, OpsTableWiresTheOperations)
{
    static const lh_block_ops expected = {
        .context_create = pkt_proc_context_create,
        .update_stats = pkt_proc_update_stats,
        .get_stats = pkt_proc_get_stats,
        .clear_stats = pkt_proc_clear_stats,
        .fatal_error_detect = pkt_proc_fatal_error_detect,
    };

    bt_assert_ops(&pkt_proc_ops, &expected);
}

TEST_F(PktProcTest, CreateLogsTheCreatedLine)
{
    start(&lh_desc_base_two_pipes);
    ASSERT_EQ(pkt_proc_context_create(0, bt_site_base(0)), 0);
    expect_log(LOG_INFO,
               "Informational - Ingress Pkt Processor module 0 context "
               "created");
    ASSERT_EQ(pkt_proc_context_create(1, bt_site_base(1)), 0);
    expect_log(LOG_INFO,
               "Informational - Ingress Pkt Processor module 1 context "
               "created");
    ASSERT_EQ(model->reads, 0u);
    ASSERT_EQ(model->writes, 0u);
    expect_no_more_logs();
}

TEST_F(PktProcTest, CreateZeroesTheCounters)
{
    start(&lh_desc_base_two_pipes);
    bt_create(&pkt_proc, 0, 0);
    bt_check_create_zeroes(&pkt_proc, 0, 0);
    expect_no_more_logs();
}

TEST_F(PktProcTest, CreateRefusals)
{
    start(&lh_desc_base_two_pipes);
    bt_expect_create_refusals(&pkt_proc);
    ASSERT_EQ(model->writes, 0u);
    expect_no_more_logs();
}

TEST_F(PktProcTest, CreateBeforeInitialisation)
{
    bt_expect_create_before_init(&layout, &pkt_proc);
}

/* ---- Statistics ---- */

TEST_F(PktProcTest, EveryCounterComposedFromItsRegisters)
{
    static const Counters expected = {
        0x1000208510002481, 0x1000288D10002C89, 0x1000309510003491,
        0x1000389D10003C99, 0x100040E5100044E1, 0x100050F5100054F1,
        0x100058FD10005CF9, 0x00000000100060C5, 0x00000000100064C1,
        0x00000000100068CD, 0x0000000010006CC9, 0x00000000100070D5,
        0x00000000100074D1, 0x00000000100078DD, 0x0000000010007CD9,
        0x0000000010008025, 0x0000000010008421,
    };

    start(&lh_desc_base_two_pipes);
    bt_create(&pkt_proc, 0, 0);
    bt_check_composition(&pkt_proc, 0, 0, expected.data(), kCounterRegisters);
    expect_no_more_logs();
}

TEST_F(PktProcTest, CountersAccumulateOverPolls)
{
    start(&lh_desc_base_two_pipes);
    bt_create(&pkt_proc, 0, 0);
    bt_check_polls_accumulate(&pkt_proc, 0, 0);
    bt_assert_counter_reads(0, 4, kCounterRegisters);
    expect_no_more_logs();
}

TEST_F(PktProcTest, CounterTotalsWrap)
{
    static const bt_word all_ones[] = {
        {0x20, 0xFFFFFFFF}, {0x24, 0xFFFFFFFF}, {0x60, 0xFFFFFFFF}};
    static const bt_total totals[] = {{0, 0xFFFFFFFFFFFFFFFE},
                                      {7, 0x1FFFFFFFE}};

    start(&lh_desc_base_two_pipes);
    bt_create(&pkt_proc, 0, 0);
    bt_check_totals(&pkt_proc, 0, 0, all_ones, std::size(all_ones), totals,
                    std::size(totals));
    expect_no_more_logs();
}

TEST_F(PktProcTest, ClearThenGetYieldsZeros)
{
    start(&lh_desc_base_two_pipes);
    bt_create(&pkt_proc, 0, 0);
    bt_check_clear(&pkt_proc, 0, 0);
    expect_no_more_logs();
}

TEST_F(PktProcTest, GetStatsWantsExactly136Bytes)
{
    static const uint64_t sizes[] = {144, 135, 137, 0, 128};
    std::array<uint8_t, kStatsBytes> record{};
    std::array<uint8_t, kStatsBytes> untouched{};

    start(&lh_desc_base_two_pipes);
    bt_create(&pkt_proc, 0, 0);
    load_counters(0, 0);
    pkt_proc_update_stats(0);
    bt_expect_wrong_sizes(&pkt_proc, 0, sizes, std::size(sizes));
    untouched.fill(0xEE);
    bt_get_stats(&pkt_proc, 0, record.data());
    ASSERT_NE(record, untouched);
    expect_no_more_logs();
}

TEST_F(PktProcTest, PipesKeepTheirOwnCounters)
{
    start_both_pipes();
    bt_check_pipes_apart(&pkt_proc, 2);
    expect_no_more_logs();
}

/* ---- Fatal error detection ---- */

TEST_F(PktProcTest, EachErrorBitAloneReportsItsText)
{
    start_both_pipes();
    /* The status register is only ever read. */
    bt_walk_error_rows(&pkt_proc, 0, 0, error_rows, kErrorRows);
    bt_walk_error_rows(&pkt_proc, 1, 1, error_rows, kErrorRows);
    expect_no_more_logs();
}

TEST_F(PktProcTest, FirstSetBitWins)
{
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

TEST_F(PktProcTest, Bit31ReportsNothing)
{
    start_both_pipes();
    expect_no_fatal(0);
    expect_no_fatal(1u << 31);
    expect_no_more_logs();
}

TEST_F(PktProcTest, StatusIsReadAgainForEveryRow)
{
    /* Bit 0 only from the 31st read, the row of bit 0. */
    std::array<uint32_t, kErrorRows> late{};
    /* Bit 0 at the first read only: gone when its row reads again. */
    static const uint32_t gone[] = {1u << 0, 0};
    /* Bits 30 and 29 from the second read on: found by bit 29's read. */
    static const uint32_t second[] = {0, 1u << 30 | 1u << 29};
    lh_fatal_error_t report = {0, 0, nullptr};

    start_both_pipes();
    late.back() = 1u << 0;
    bt_script(kStatus, late.data(), late.size());
    ASSERT_EQ(pkt_proc_fatal_error_detect(0, &report), 1);
    ASSERT_STREQ(report.error_text,
                 "Ingress Classification Packet Bus Missing EOP Error");
    ASSERT_EQ(bt_reads(0, kStatus), kErrorRows);
    expect_log(LOG_CRIT, "FATAL - Ingress Pkt Processor pipe 0: Ingress "
                         "Classification Packet Bus Missing EOP Error");

    report.error_text = nullptr;
    bt_script(kStatus, gone, std::size(gone));
    ASSERT_EQ(pkt_proc_fatal_error_detect(0, &report), 0);
    ASSERT_EQ(report.error_text, nullptr);
    ASSERT_EQ(bt_reads(0, kStatus), kErrorRows);

    bt_script(kStatus, second, std::size(second));
    ASSERT_EQ(pkt_proc_fatal_error_detect(0, &report), 1);
    ASSERT_STREQ(report.error_text, "Input Packet FIFO Overflow");
    ASSERT_EQ(bt_reads(0, kStatus), 2u);
    expect_log(LOG_CRIT,
               "FATAL - Ingress Pkt Processor pipe 0: Input Packet FIFO "
               "Overflow");
    expect_no_more_logs();
}

/* ---- Refusals ---- */

TEST_F(PktProcTest, NullPointersComeFirst)
{
    start(&lh_desc_base_two_pipes);
    bt_expect_null_refusals(&pkt_proc, null_refusals, std::size(null_refusals),
                            2);
    expect_no_more_logs();
}

TEST_F(PktProcTest, InvalidPipeRefusedByEveryOperation)
{
    start_both_pipes();
    bt_expect_refusals(&pkt_proc, refusals, std::size(refusals), 2, "pipe");
    expect_no_more_logs();
}

TEST_F(PktProcTest, ExactInvalidPipeLines)
{
    Counters stats{};
    lh_fatal_error_t report{};

    start(&lh_desc_base_two_pipes);
    pkt_proc_update_stats(2);
    expect_log(LOG_CRIT, "Error - Ingress Pkt Processor update stats - "
                         "invalid pipe 2");
    ASSERT_EQ(pkt_proc_get_stats(3, stats.data(), kStatsBytes), -1);
    expect_log(LOG_CRIT, "Error - Ingress Pkt Processor get stats - "
                         "invalid pipe 3");
    ASSERT_EQ(pkt_proc_clear_stats(2), -1);
    expect_log(LOG_CRIT, "Error - Ingress Pkt Processor clear stats - "
                         "invalid pipe 2");
    ASSERT_EQ(pkt_proc_fatal_error_detect(2, &report), 0);
    expect_log(LOG_CRIT, "Error - Ingress Pkt Processor fatal error detection "
                         "- invalid pipe 2");
    expect_no_more_logs();
}

} // namespace
