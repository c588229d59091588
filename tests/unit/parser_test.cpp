/* The ingress packet parser drivers (parser, lhx_parser) against a model
 * of the block's hardware: a QoS table behind the index and priority
 * registers, clear-on-read counters and a status register that can change
 * between reads. */
#include <string.h>

#include <gtest/gtest.h>

#include "block_fixture.hpp"
#include "fake_device.hpp"
#include "lh_drivers.hpp"
#include "lh_log.hpp"
#include "log_expect.hpp"
#include "mutex_wrap.hpp"
#include "parser.hpp"

namespace {

/* Block registers, offsets from the block base. */
constexpr uint32_t STATUS = 0x00u;
constexpr uint32_t QOS_INDEX = 0xE0u;
constexpr uint32_t QOS_PRIO = 0xE4u;

constexpr int QOS_ROWS = 128;
constexpr size_t STATS_BYTES = 120;
constexpr size_t COUNTERS = 15;
constexpr size_t ERROR_ROWS = 17;
constexpr int SITES = 2;

/* The statistics record: the register of bits 63..32 (0: none) and the
 * register of bits 31..0 of each counter. */
constexpr bt_counter counter_sources[COUNTERS] = {
    {0x50, 0x54}, {0, 0x58},    {0, 0x5C}, {0x60, 0x64}, {0, 0x68},
    {0, 0x6C},    {0x70, 0x74}, {0, 0x78}, {0, 0x7C},    {0, 0x80},
    {0, 0x84},    {0, 0x88},    {0, 0x8C}, {0, 0x90},    {0, 0x94},
};

/* The QoS table of each site, seen through the index and priority
 * registers. */
uint8_t qos_rows[SITES][QOS_ROWS];

uint32_t selected_row(int site)
{
    return bt_peek(site, QOS_INDEX) & 0x7Fu;
}

uint32_t qos_read(int site, uint32_t reg, uint32_t stored)
{
    if (reg == QOS_PRIO)
        return (stored & ~3u) | qos_rows[site][selected_row(site)];
    return stored;
}

void qos_write(int site, uint32_t reg, uint32_t value)
{
    if (site >= 0 && reg == QOS_PRIO)
        qos_rows[site][selected_row(site)] = value & 3u;
}

/* Two parser blocks of the window: pipe 0's and pipe 1's on the base
 * image. A case may put either driver's context on either site. */
constexpr bt_layout layout = {
    .sites = {0x16000, 0x26000},
    .site_count = SITES,
    .span = 0x100,
    .status = {STATUS},
    .status_count = 1,
    .counters = counter_sources,
    .counter_count = COUNTERS,
    .value = bt_value_by_reg,
    .on_read = qos_read,
    .on_write = qos_write,
};

constexpr bt_driver parser = {
    .name = "Ingress Pkt Parser",
    .ops = &parser_ops,
    .site = 0,
    .device = &lh_desc_base_two_pipes,
    .stats_bytes = STATS_BYTES,
};
constexpr bt_driver lhx = {
    .name = "LHX Ingress Pkt Parser",
    .ops = &lhx_parser_ops,
    .site = 1,
    .device = &lh_desc_lhx,
    .stats_bytes = STATS_BYTES,
};
constexpr const bt_driver *drivers[] = {&parser, &lhx};

int call_qos_set_profile(const bt_driver *d, uint32_t pipe)
{
    lh_qos_profile_t qos = {1, LH_QOS_PRIO_HIGH};

    return d->ops->qos_set_profile(pipe, qos);
}

int call_qos_get_profile(const bt_driver *d, uint32_t pipe)
{
    lh_qos_profile_t qos = {1, LH_QOS_PRIO_HIGH};
    int result = d->ops->qos_get_profile(pipe, &qos);

    EXPECT_EQ(qos.profile_id, 1u);
    EXPECT_EQ(qos.priority, (uint32_t)LH_QOS_PRIO_HIGH);
    return result;
}

int null_qos_get_profile(const bt_driver *d, uint32_t pipe)
{
    return d->ops->qos_get_profile(pipe, nullptr);
}

/* At 2 for statistics and fatal detection, at 3 for QoS. */
constexpr bt_call refusals[] = {
    BT_STATS_REFUSALS("clear stats", "fatal error detection"),
    {"QoS set profile", LOG_ERR, -1, call_qos_set_profile},
    {"QoS get profile", LOG_ERR, -1, call_qos_get_profile},
};

constexpr bt_call null_refusals[] = {
    {"get stats", LOG_ERR, -1, bt_null_get_stats_wrong_size},
    {"fatal error detection", LOG_ERR, 0, bt_null_fatal_error_detect},
    {"QoS get profile", LOG_ERR, -1, null_qos_get_profile},
};

/* The block's fatal error table, in test order: bit 9 twice, so its second
 * row needs a register that changes between reads (see below), and bit 8
 * never. */
constexpr bt_error_row error_rows[ERROR_ROWS] = {
    {STATUS, 16, "Meta Data FIFO Parity Error"},
    {STATUS, 15, "Packet Length FIFO Parity Error"},
    {STATUS, 14, "Meta Data FIFO Overflow"},
    {STATUS, 13, "Packet Length FIFO Overflow"},
    {STATUS, 12, "High Priority Burst buffer Overflow"},
    {STATUS, 11, "Medium Priority Burst buffer Overflow"},
    {STATUS, 10, "Low Priority Burst buffer Overflow"},
    {STATUS, 9, "Meta Data FIFO Underflow"},
    {STATUS, 9, "Packet Length FIFO Underflow"},
    {STATUS, 7, "High Priority Burst buffer Underflow"},
    {STATUS, 6, "Medium Priority Burst buffer Underflow"},
    {STATUS, 5, "Low Priority Burst buffer Underflow"},
    {STATUS, 4, "High Priority Burst buffer Double bit ECC Error"},
    {STATUS, 3, "Medium Priority Burst buffer Double bit ECC Error"},
    {STATUS, 2, "Low Priority Burst buffer Double bit ECC Error"},
    {STATUS, 1, "Parser Engine Meta Data Cycle Number Error"},
    {STATUS, 0, "Priority Table Parity Error"},
};

/* Contexts last as long as the process. ctest runs each case in a process
 * of its own; a run of the whole program skips the cases that need
 * contexts nobody created once another case has run before them. */
int cases_started;
constexpr const char *NEEDS_OWN_PROCESS =
    "needs contexts no earlier case created: run it alone, as ctest does";

class ParserTest : public BlockTest {
protected:
    void SetUp() override
    {
        cases_started++;
        BlockTest::SetUp();
    }

    void TearDown() override
    {
        mutex_init_fails = false;
        BlockTest::TearDown();
    }

    static bool first_case_of_process() { return cases_started == 1; }

    void start(lh_device_desc *desc)
    {
        model = bt_start(&layout, desc);
        memset(qos_rows, 0, sizeof(qos_rows));
    }

    void start_both_on_pipe_0()
    {
        start(&lh_desc_base_two_pipes);
        bt_create(&parser, 0, parser.site);
        bt_create(&lhx, 0, lhx.site);
    }

    static void fill_qos_rows(int site, uint8_t priority)
    {
        memset(qos_rows[site], priority, QOS_ROWS);
    }

    static void assert_qos_rows(int site, uint8_t priority)
    {
        for (int id = 0; id < QOS_ROWS; id++)
            ASSERT_EQ(qos_rows[site][id], priority) << "profile id " << id;
    }

    static void expect_fatal(const bt_driver *driver, uint32_t status,
                             const char *text)
    {
        bt_store(driver->site, STATUS, status);
        bt_expect_fatal(driver, 0, text);
    }

    static void expect_no_fatal(uint32_t status)
    {
        bt_store(0, STATUS, status);
        bt_forget_reads();
        bt_expect_no_fatal(&parser, 0);
        EXPECT_EQ(bt_status_reads(0), ERROR_ROWS);
    }

    reg_model *model = nullptr;
};

/* ---- Contexts nobody created ---- */

TEST_F(ParserTest, MutexFailureLeavesContextInvalid)
{
    if (!first_case_of_process())
        GTEST_SKIP() << NEEDS_OWN_PROCESS;
    start(&lh_desc_base_two_pipes);
    fill_qos_rows(0, LH_QOS_PRIO_HIGH);
    mutex_init_fails = true;
    bt_expect_mutex_failure(&parser, 0, bt_site_base(0));
    mutex_init_fails = false;
    assert_qos_rows(0, LH_QOS_PRIO_LOW);
    bt_expect_refusals(&parser, refusals, BT_ARRAY_SIZE(refusals), 0,
                       "context");
    expect_no_more_logs();
}

TEST_F(ParserTest, Pipe1RefusedOnOnePipeDevice)
{
    if (!first_case_of_process())
        GTEST_SKIP() << NEEDS_OWN_PROCESS;
    start(&lh_desc_base_one_pipe);
    fill_qos_rows(1, LH_QOS_PRIO_HIGH);
    bt_expect_create_refused(&parser, 1, bt_site_base(1));
    EXPECT_EQ(model->writes, 0u);
    assert_qos_rows(1, LH_QOS_PRIO_HIGH);
    bt_expect_refusals(&parser, refusals, BT_ARRAY_SIZE(refusals), 1,
                       "context");
    expect_no_more_logs();
}

TEST_F(ParserTest, LhxContextIsNotTheParserContext)
{
    uint64_t stats[COUNTERS];

    if (!first_case_of_process())
        GTEST_SKIP() << NEEDS_OWN_PROCESS;
    start(&lh_desc_lhx);
    bt_create(&lhx, 0, 0);
    EXPECT_EQ(lhx_parser_get_stats(0, stats, STATS_BYTES), 0);
    EXPECT_EQ(parser_get_stats(0, stats, STATS_BYTES), -1);
    expect_log(LOG_CRIT,
               "Error - Ingress Pkt Parser get stats - invalid context 0");
    expect_no_more_logs();
}

/* ---- Context creation. lhx_parser pipe 1 is never created anywhere. ---- */

TEST_F(ParserTest, OpsTablesWireTheOperations)
{
    static const lh_block_ops expected_parser = {
        .context_create = parser_context_create,
        .update_stats = parser_update_stats,
        .get_stats = parser_get_stats,
        .clear_stats = parser_clear_stats,
        .fatal_error_detect = parser_fatal_error_detect,
        .qos_set_profile = parser_qos_set_profile,
        .qos_get_profile = parser_qos_get_profile,
    };
    static const lh_block_ops expected_lhx = {
        .context_create = lhx_parser_context_create,
        .update_stats = lhx_parser_update_stats,
        .get_stats = lhx_parser_get_stats,
        .clear_stats = lhx_parser_clear_stats,
        .fatal_error_detect = lhx_parser_fatal_error_detect,
        .qos_set_profile = lhx_parser_qos_set_profile,
        .qos_get_profile = lhx_parser_qos_get_profile,
    };

    bt_assert_ops(&parser_ops, &expected_parser);
    bt_assert_ops(&lhx_parser_ops, &expected_lhx);
}

TEST_F(ParserTest, CreateLogsTheCreatedLine)
{
    start(&lh_desc_base_two_pipes);
    ASSERT_EQ(parser_context_create(0, bt_site_base(0)), 0);
    expect_log(LOG_INFO,
               "Informational - Ingress Pkt Parser module 0 context created");
    ASSERT_EQ(parser_context_create(1, bt_site_base(1)), 0);
    expect_log(LOG_INFO,
               "Informational - Ingress Pkt Parser module 1 context created");
    ASSERT_EQ(lhx_parser_context_create(0, bt_site_base(1)), 0);
    expect_log(LOG_INFO, "Informational - LHX Ingress Pkt Parser module 0 "
                         "context created");
    expect_no_more_logs();
}

TEST_F(ParserTest, CreateResetsEveryQosRowToLow)
{
    start(&lh_desc_base_two_pipes);
    for (int site = 0; site < SITES; site++) {
        fill_qos_rows(site, LH_QOS_PRIO_HIGH);
        bt_store(site, QOS_INDEX, 0xA5A5A533);
        bt_store(site, QOS_PRIO, 0x5A5A5A58);
    }
    bt_create(&parser, 0, 0);
    bt_create(&lhx, 0, 1);
    for (int site = 0; site < SITES; site++) {
        assert_qos_rows(site, LH_QOS_PRIO_LOW);
        EXPECT_EQ(bt_peek(site, QOS_INDEX), 0xA5A5A500u | 0x7F);
        EXPECT_EQ(bt_peek(site, QOS_PRIO) & ~3u, 0x5A5A5A58u);
    }
    expect_no_more_logs();
}

TEST_F(ParserTest, CreateZeroesTheCounters)
{
    start(&lh_desc_base_two_pipes);
    bt_create(&parser, 0, 0);
    bt_check_create_zeroes(&parser, 0, 0);
    expect_no_more_logs();
}

TEST_F(ParserTest, CreateRefusals)
{
    start(&lh_desc_base_two_pipes);
    for (const bt_driver *driver : drivers)
        bt_expect_create_refusals(driver);
    EXPECT_EQ(model->writes, 0u);
    expect_no_more_logs();
}

TEST_F(ParserTest, CreateBeforeInitialisation)
{
    bt_expect_create_before_init(&layout, &parser);
}

/* ---- Statistics ---- */

TEST_F(ParserTest, EveryCounterComposedFromItsRegisters)
{
    static const uint64_t expected[COUNTERS] = {
        0x010050F5010054F1, 0x00000000010058FD, 0x0000000001005CF9,
        0x010060C5010064C1, 0x00000000010068CD, 0x0000000001006CC9,
        0x010070D5010074D1, 0x00000000010078DD, 0x0000000001007CD9,
        0x0000000001008025, 0x0000000001008421, 0x000000000100882D,
        0x0000000001008C29, 0x0000000001009035, 0x0000000001009431,
    };

    start(&lh_desc_base_two_pipes);
    for (size_t d = 0; d < BT_ARRAY_SIZE(drivers); d++) {
        bt_create(drivers[d], 0, (int)d);
        bt_check_composition(drivers[d], 0, (int)d, expected, 18);
    }
    expect_no_more_logs();
}

TEST_F(ParserTest, CountersAccumulateOverPolls)
{
    start(&lh_desc_base_two_pipes);
    bt_create(&parser, 0, 0);
    bt_check_polls_accumulate(&parser, 0, 0);
    expect_no_more_logs();
}

TEST_F(ParserTest, CounterTotalsWrap)
{
    static const bt_word all_ones[] = {
        {0x50, 0xFFFFFFFF}, {0x54, 0xFFFFFFFF}, {0x58, 0xFFFFFFFF}};
    static const bt_total totals[] = {{0, 0xFFFFFFFFFFFFFFFE},
                                      {1, 0x1FFFFFFFE}};

    start(&lh_desc_base_two_pipes);
    bt_create(&parser, 0, 0);
    bt_check_totals(&parser, 0, 0, all_ones, BT_ARRAY_SIZE(all_ones), totals,
                    BT_ARRAY_SIZE(totals));
    expect_no_more_logs();
}

TEST_F(ParserTest, ClearThenGetYieldsZeros)
{
    start(&lh_desc_base_two_pipes);
    bt_create(&parser, 0, 0);
    bt_check_clear(&parser, 0, 0);
    expect_no_more_logs();
}

TEST_F(ParserTest, GetStatsRefusesOtherSizes)
{
    static const uint64_t sizes[] = {112, 128, 0};

    start_both_on_pipe_0();
    bt_load_counters(0, 0);
    parser_update_stats(0);
    for (const bt_driver *driver : drivers)
        bt_expect_wrong_sizes(driver, 0, sizes, BT_ARRAY_SIZE(sizes));
    expect_no_more_logs();
}

TEST_F(ParserTest, PipesKeepTheirOwnCounters)
{
    start(&lh_desc_base_two_pipes);
    bt_create(&parser, 0, 0);
    bt_create(&parser, 1, 1);
    bt_check_pipes_apart(&parser, 2);
    expect_no_more_logs();
}

TEST_F(ParserTest, LhxAndParserKeepApart)
{
    static const uint64_t zeros[COUNTERS] = {};
    uint64_t expected_lhx[COUNTERS] = {};
    lh_fatal_error_t report = {0, 0, nullptr};
    lh_qos_profile_t qos = {3, LH_QOS_PRIO_HIGH};

    start_both_on_pipe_0();
    bt_load_counters(0, 0);
    bt_load_counters(1, 1);
    parser_update_stats(0);
    lhx_parser_update_stats(0);
    EXPECT_EQ(parser_clear_stats(0), 0);
    bt_add_expected(expected_lhx, 1, 1);
    bt_assert_stats(&parser, 0, zeros);
    bt_assert_stats(&lhx, 0, expected_lhx);

    EXPECT_EQ(lhx_parser_qos_set_profile(0, qos), 0);
    expect_log(LOG_INFO, "Informational - LHX Ingress Pkt Parser set QoS "
                         "profile id 0x03 on pipe 0 with priority HIGH");
    EXPECT_EQ(qos_rows[1][3], LH_QOS_PRIO_HIGH);
    EXPECT_EQ(qos_rows[0][3], LH_QOS_PRIO_LOW);

    bt_store(1, STATUS, 1u << 16);
    EXPECT_EQ(parser_fatal_error_detect(0, &report), 0);
    EXPECT_EQ(lhx_parser_fatal_error_detect(0, &report), 1);
    expect_log(LOG_CRIT, "FATAL - LHX Ingress Pkt Parser pipe 0: "
                         "Meta Data FIFO Parity Error");
    expect_no_more_logs();
}

/* ---- Fatal error detection ---- */

TEST_F(ParserTest, EachErrorBitAloneReportsItsText)
{
    start_both_on_pipe_0();
    for (const bt_driver *driver : drivers)
        bt_walk_error_rows(driver, 0, driver->site, error_rows, ERROR_ROWS);
    expect_no_more_logs();
}

TEST_F(ParserTest, FirstRowInTableOrderWins)
{
    start_both_on_pipe_0();
    expect_fatal(&parser, 1u << 9 | 1u << 0, "Meta Data FIFO Underflow");
    expect_fatal(&parser, 0x1FFFF, "Meta Data FIFO Parity Error");
    expect_fatal(&parser, 1u << 10 | 1u << 11,
                 "Medium Priority Burst buffer Overflow");
    expect_fatal(&lhx, 1u << 9 | 1u << 0, "Meta Data FIFO Underflow");
    expect_no_more_logs();
}

TEST_F(ParserTest, UnlistedBitsReportNothing)
{
    start_both_on_pipe_0();
    unsigned long writes = model->writes;

    expect_no_fatal(0);
    expect_no_fatal(1u << 8);
    expect_no_fatal(0xFFFE0000 | 1u << 8);
    EXPECT_EQ(model->writes, writes);
    expect_no_more_logs();
}

TEST_F(ParserTest, Bit9IsReadAgainForTheSecondRow)
{
    /* Rows 1-8 read 0; the ninth read (row 9) sees bit 9. */
    static const uint32_t late[] = {0, 0, 0, 0, 0, 0, 0, 0, 1u << 9};
    /* Bit 9 already at the eighth read (row 8). */
    static const uint32_t early[] = {0, 0, 0, 0, 0, 0, 0, 1u << 9};

    start_both_on_pipe_0();
    unsigned long writes = model->writes;

    for (const bt_driver *driver : drivers) {
        lh_fatal_error_t report = {0, 0, nullptr};

        bt_script(STATUS, late, BT_ARRAY_SIZE(late));
        EXPECT_EQ(driver->ops->fatal_error_detect(0, &report), 1);
        EXPECT_STREQ(report.error_text, "Packet Length FIFO Underflow");
        EXPECT_EQ(bt_script_reads(), 9u);
        expect_logf(LOG_CRIT, "FATAL - %s pipe 0: Packet Length FIFO Underflow",
                    driver->name);

        bt_script(STATUS, early, BT_ARRAY_SIZE(early));
        EXPECT_EQ(driver->ops->fatal_error_detect(0, &report), 1);
        EXPECT_STREQ(report.error_text, "Meta Data FIFO Underflow");
        EXPECT_EQ(bt_script_reads(), 8u);
        expect_logf(LOG_CRIT, "FATAL - %s pipe 0: Meta Data FIFO Underflow",
                    driver->name);
    }
    EXPECT_EQ(model->writes, writes);
    expect_no_more_logs();
}

/* ---- Refusals ---- */

TEST_F(ParserTest, NullPointersComeFirst)
{
    start(&lh_desc_base_two_pipes);
    for (const bt_driver *driver : drivers)
        bt_expect_null_refusals(driver, null_refusals,
                                BT_ARRAY_SIZE(null_refusals), 2);
    expect_no_more_logs();
}

TEST_F(ParserTest, InvalidPipeRefusedByEveryOperation)
{
    start_both_on_pipe_0();
    for (const bt_driver *driver : drivers)
        bt_expect_refusals(driver, refusals, BT_ARRAY_SIZE(refusals), 2,
                           "pipe");
    expect_no_more_logs();
}

TEST_F(ParserTest, InvalidContextRefusedByEveryOperation)
{
    start(&lh_desc_lhx);
    bt_expect_create_refused(&lhx, 1, bt_site_base(0));
    bt_expect_refusals(&lhx, refusals, BT_ARRAY_SIZE(refusals), 1, "context");
    EXPECT_EQ(model->writes, 0u);
    expect_no_more_logs();
}

TEST_F(ParserTest, ExactInvalidLines)
{
    uint64_t stats[COUNTERS];
    lh_fatal_error_t report;
    lh_qos_profile_t qos = {0, 0};

    start(&lh_desc_base_two_pipes);
    parser_update_stats(2);
    expect_log(LOG_CRIT, "Error - Ingress Pkt Parser update stats - "
                         "invalid pipe 2");
    EXPECT_EQ(parser_get_stats(3, stats, STATS_BYTES), -1);
    expect_log(LOG_CRIT, "Error - Ingress Pkt Parser get stats - "
                         "invalid pipe 3");
    EXPECT_EQ(parser_clear_stats(2), -1);
    expect_log(LOG_CRIT, "Error - Ingress Pkt Parser clear stats - "
                         "invalid pipe 2");
    EXPECT_EQ(parser_fatal_error_detect(2, &report), 0);
    expect_log(LOG_CRIT, "Error - Ingress Pkt Parser fatal error detection "
                         "- invalid pipe 2");
    EXPECT_EQ(lhx_parser_qos_set_profile(1, qos), -1);
    expect_log(LOG_ERR, "Error - LHX Ingress Pkt Parser QoS set profile - "
                        "invalid context 1");
    EXPECT_EQ(lhx_parser_qos_get_profile(1, &qos), -1);
    expect_log(LOG_ERR, "Error - LHX Ingress Pkt Parser QoS get profile - "
                        "invalid context 1");
    expect_no_more_logs();
}

/* ---- QoS profiles ---- */

TEST_F(ParserTest, ProfileId0x7fAccepted0x80Refused)
{
    lh_qos_profile_t qos = {0x7F, LH_QOS_PRIO_HIGH};

    start_both_on_pipe_0();
    EXPECT_EQ(parser_qos_set_profile(0, qos), 0);
    expect_log(LOG_INFO, "Informational - Ingress Pkt Parser set QoS profile "
                         "id 0x7f on pipe 0 with priority HIGH");
    EXPECT_EQ(qos_rows[0][0x7F], LH_QOS_PRIO_HIGH);
    qos.priority = LH_QOS_PRIO_LOW;
    EXPECT_EQ(parser_qos_get_profile(0, &qos), 0);
    EXPECT_EQ(qos.priority, (uint32_t)LH_QOS_PRIO_HIGH);

    unsigned long writes = model->writes;

    qos = lh_qos_profile_t{0x80, LH_QOS_PRIO_MED};
    EXPECT_EQ(parser_qos_set_profile(0, qos), -1);
    expect_log(LOG_ERR, "Error - Ingress Pkt Parser QoS set profile on pipe 0 "
                        "- invalid QoS profile id 0x80 (valid range is "
                        "[0x00-0x7f])");
    EXPECT_EQ(parser_qos_get_profile(0, &qos), -1);
    expect_log(LOG_ERR, "Error - Ingress Pkt Parser QoS get profile on pipe 0 "
                        "- invalid QoS profile id 0x80 (valid range is "
                        "[0x00-0x7f])");
    EXPECT_EQ(qos.priority, (uint32_t)LH_QOS_PRIO_MED);
    qos.profile_id = 0x80000000;
    EXPECT_EQ(lhx_parser_qos_set_profile(0, qos), -1);
    expect_log(LOG_ERR, "Error - LHX Ingress Pkt Parser QoS set profile on "
                        "pipe 0 - invalid QoS profile id 0x80000000 (valid "
                        "range is [0x00-0x7f])");
    EXPECT_EQ(model->writes, writes);
    expect_no_more_logs();
}

TEST_F(ParserTest, Priority3Refused)
{
    lh_qos_profile_t qos = {5, 3};

    start_both_on_pipe_0();
    unsigned long writes = model->writes;

    EXPECT_EQ(parser_qos_set_profile(0, qos), -1);
    expect_log(LOG_ERR, "Error - Ingress Pkt Parser QoS set profile on pipe 0 "
                        "- invalid QoS priority 3 for profile id 0x05");
    /* The profile id is checked before the priority. */
    qos.profile_id = 0x80;
    EXPECT_EQ(lhx_parser_qos_set_profile(0, qos), -1);
    expect_log(LOG_ERR, "Error - LHX Ingress Pkt Parser QoS set profile on "
                        "pipe 0 - invalid QoS profile id 0x80 (valid range "
                        "is [0x00-0x7f])");
    EXPECT_EQ(model->writes, writes);
    assert_qos_rows(0, LH_QOS_PRIO_LOW);
    expect_no_more_logs();
}

TEST_F(ParserTest, FieldValue3ReadsLow)
{
    lh_qos_profile_t qos = {9, 7};

    start_both_on_pipe_0();
    qos_rows[0][9] = 3;
    EXPECT_EQ(parser_qos_get_profile(0, &qos), 0);
    EXPECT_EQ(qos.profile_id, 9u);
    EXPECT_EQ(qos.priority, (uint32_t)LH_QOS_PRIO_LOW);
    expect_no_more_logs();
}

TEST_F(ParserTest, SetNamesEveryPriority)
{
    static const char *const names[] = {"LOW", "MED", "HIGH"};

    start_both_on_pipe_0();
    fill_qos_rows(0, 3);
    fill_qos_rows(1, 3);
    for (const bt_driver *driver : drivers) {
        for (uint32_t priority = 0; priority < 3; priority++) {
            lh_qos_profile_t qos = {0x10 + priority, priority};

            EXPECT_EQ(driver->ops->qos_set_profile(0, qos), 0);
            expect_logf(LOG_INFO,
                        "Informational - %s set QoS profile id "
                        "0x%02x on pipe 0 with priority %s",
                        driver->name, 0x10 + priority, names[priority]);
        }
    }
    for (int site = 0; site < SITES; site++)
        for (int id = 0; id < QOS_ROWS; id++)
            EXPECT_EQ(qos_rows[site][id],
                      id >= 0x10 && id <= 0x12 ? id - 0x10 : 3)
                << "site " << site << ", profile id " << id;
    expect_no_more_logs();
}

TEST_F(ParserTest, GetReadsTheRowItSelects)
{
    static const uint32_t rows[] = {LH_QOS_PRIO_MED, LH_QOS_PRIO_HIGH,
                                    LH_QOS_PRIO_LOW};
    static const uint32_t ids[] = {0x40, 0x00, 0x41};

    start_both_on_pipe_0();
    qos_rows[0][0x40] = LH_QOS_PRIO_MED;
    qos_rows[0][0x00] = LH_QOS_PRIO_HIGH;
    for (size_t i = 0; i < BT_ARRAY_SIZE(ids); i++) {
        lh_qos_profile_t qos = {ids[i], 7};

        EXPECT_EQ(parser_qos_get_profile(0, &qos), 0);
        EXPECT_EQ(qos.priority, rows[i]);
        EXPECT_EQ(bt_peek(0, QOS_INDEX) & 0x7F, ids[i]);
    }
    expect_no_more_logs();
}

TEST_F(ParserTest, QosKeepsBitsOutsideTheFields)
{
    lh_qos_profile_t qos = {0x2A, LH_QOS_PRIO_HIGH};

    start_both_on_pipe_0();
    bt_store(0, QOS_INDEX, 0xDEADBE80 | 0x15);
    bt_store(0, QOS_PRIO, 0xCAFEF00C | 1);
    EXPECT_EQ(parser_qos_set_profile(0, qos), 0);
    expect_log(LOG_INFO, "Informational - Ingress Pkt Parser set QoS profile "
                         "id 0x2a on pipe 0 with priority HIGH");
    EXPECT_EQ(bt_peek(0, QOS_INDEX), 0xDEADBE80u | 0x2A);
    EXPECT_EQ(bt_peek(0, QOS_PRIO), 0xCAFEF00Cu | LH_QOS_PRIO_HIGH);

    qos = lh_qos_profile_t{0x33, 7};
    EXPECT_EQ(parser_qos_get_profile(0, &qos), 0);
    EXPECT_EQ(qos.priority, (uint32_t)LH_QOS_PRIO_LOW);
    EXPECT_EQ(bt_peek(0, QOS_INDEX), 0xDEADBE80u | 0x33);
    EXPECT_EQ(bt_peek(0, QOS_PRIO), 0xCAFEF00Cu | LH_QOS_PRIO_HIGH);
    expect_no_more_logs();
}

TEST_F(ParserTest, EachPipeHasItsOwnTable)
{
    lh_qos_profile_t qos = {0x22, LH_QOS_PRIO_MED};

    start(&lh_desc_base_two_pipes);
    bt_create(&parser, 0, 0);
    bt_create(&parser, 1, 1);
    EXPECT_EQ(parser_qos_set_profile(1, qos), 0);
    expect_log(LOG_INFO, "Informational - Ingress Pkt Parser set QoS profile "
                         "id 0x22 on pipe 1 with priority MED");
    EXPECT_EQ(qos_rows[1][0x22], LH_QOS_PRIO_MED);
    assert_qos_rows(0, LH_QOS_PRIO_LOW);
    qos.priority = 7;
    EXPECT_EQ(parser_qos_get_profile(0, &qos), 0);
    EXPECT_EQ(qos.priority, (uint32_t)LH_QOS_PRIO_LOW);
    EXPECT_EQ(parser_qos_get_profile(1, &qos), 0);
    EXPECT_EQ(qos.priority, (uint32_t)LH_QOS_PRIO_MED);
    expect_no_more_logs();
}

} // namespace
