/* The DDR4 block driver against a model of the block's fatal error status
 * register, which counts its reads and can change its value from one read
 * to the next. */
#include <gtest/gtest.h>

#include "block_fixture.hpp"
#include "ddr4.hpp"
#include "fake_device.hpp"
#include "lh_drivers.hpp"
#include "lh_log.hpp"
#include "log_expect.hpp"
#include "mutex_wrap.hpp"

namespace {

constexpr uint32_t STATUS = 0x00u;
constexpr size_t ROWS = 17;

/* The block of each pipe on the base image; the status register is at
 * offset 0 of the block. */
constexpr bt_layout layout = {
    .sites = {0x1A000, 0x2A000},
    .site_count = 2,
    .span = 0x100,
    .status = {STATUS},
    .status_count = 1,
};

constexpr bt_driver ddr4 = {
    .name = "DDR4",
    .ops = &ddr4_ops,
    .device = &lh_desc_base_two_pipes,
};

constexpr bt_call refusals[] = {
    {"module fatal error detection", LOG_CRIT, 0, bt_call_fatal_error_detect},
};

constexpr bt_call null_refusals[] = {
    {"module fatal error detection", LOG_ERR, 0, bt_null_fatal_error_detect},
};

/* The block's error table, in test order. */
constexpr bt_error_row rows[ROWS] = {
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

/* Contexts last as long as the process. ctest runs each case in a process
 * of its own; a run of the whole program skips the cases that need
 * contexts nobody created once another case has run before them. */
int cases_started;
constexpr const char *NEEDS_OWN_PROCESS =
    "needs contexts no earlier case created: run it alone, as ctest does";

class Ddr4Test : public BlockTest {
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
        mutex_inits = 0;
    }

    void start_created()
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

    reg_model *model = nullptr;
};

/* ---- Contexts nobody created ---- */

TEST_F(Ddr4Test, DetectBeforeCreateIsInvalidContext)
{
    if (!first_case_of_process())
        GTEST_SKIP() << NEEDS_OWN_PROCESS;
    start(&lh_desc_base_two_pipes);
    bt_store(0, STATUS, 1u << 16);
    bt_store(1, STATUS, 1u << 16);
    bt_expect_refusals(&ddr4, refusals, BT_ARRAY_SIZE(refusals), 0, "context");
    bt_expect_refusals(&ddr4, refusals, BT_ARRAY_SIZE(refusals), 1, "context");
    EXPECT_EQ(model->reads, 0u);
    expect_no_more_logs();
}

TEST_F(Ddr4Test, Pipe1RefusedOnOnePipeDevice)
{
    if (!first_case_of_process())
        GTEST_SKIP() << NEEDS_OWN_PROCESS;
    start(&lh_desc_base_one_pipe);
    bt_create(&ddr4, 0, 0);
    bt_expect_create_refused(&ddr4, 1, bt_site_base(1));
    bt_store(1, STATUS, 1u << 16);
    bt_expect_refusals(&ddr4, refusals, BT_ARRAY_SIZE(refusals), 1, "context");
    EXPECT_EQ(model->reads, 0u);
    EXPECT_EQ(model->writes, 0u);
    expect_no_more_logs();
}

/* ---- Context creation ---- */

TEST_F(Ddr4Test, OpsTableWiresTheTwoOperations)
{
    static const lh_block_ops expected = {
        .context_create = ddr4_context_create,
        .fatal_error_detect = ddr4_fatal_error_detect,
    };

    bt_assert_ops(&ddr4_ops, &expected);
}

TEST_F(Ddr4Test, CreateLogsTheCreatedLine)
{
    start(&lh_desc_base_two_pipes);
    ASSERT_EQ(ddr4_context_create(0, bt_site_base(0)), 0);
    expect_log(LOG_INFO, "Informational - DDR4 module 0 context created");
    ASSERT_EQ(ddr4_context_create(1, bt_site_base(1)), 0);
    expect_log(LOG_INFO, "Informational - DDR4 module 1 context created");
    EXPECT_EQ(model->reads, 0u);
    EXPECT_EQ(model->writes, 0u);
    expect_no_more_logs();
}

TEST_F(Ddr4Test, CreateMakesNoMutex)
{
    start(&lh_desc_base_two_pipes);
    mutex_init_fails = true;
    bt_create(&ddr4, 0, 0);
    EXPECT_EQ(mutex_inits, 0u);
    expect_fatal(0, 1u << 3, "Cmd fifo overflow");
    expect_no_more_logs();
}

TEST_F(Ddr4Test, CreateRefusals)
{
    start(&lh_desc_base_two_pipes);
    bt_expect_create_refusals(&ddr4);
    EXPECT_EQ(model->reads, 0u);
    EXPECT_EQ(model->writes, 0u);
    expect_no_more_logs();
}

TEST_F(Ddr4Test, CreateBeforeInitialisation)
{
    bt_expect_create_before_init(&layout, &ddr4);
}

/* ---- Fatal error detection ---- */

TEST_F(Ddr4Test, EachErrorBitAloneReportsItsText)
{
    start_created();
    for (uint32_t pipe = 0; pipe < LH_MAX_PIPES; pipe++)
        bt_walk_error_rows(&ddr4, pipe, (int)pipe, rows, ROWS);
    EXPECT_EQ(model->writes, 0u);
    expect_no_more_logs();
}

TEST_F(Ddr4Test, EccErrorOutranksEveryFifoError)
{
    start_created();
    expect_fatal(0, 1u << 16 | 1u << 0,
                 "Uncorrectable ecc error has been detected in the DDR4");
    expect_fatal(0, 0x1FFFF,
                 "Uncorrectable ecc error has been detected in the DDR4");
    expect_fatal(1, 0xFFFFFFFF,
                 "Uncorrectable ecc error has been detected in the DDR4");
    expect_no_more_logs();
}

TEST_F(Ddr4Test, HigherBitWinsBetweenFifoErrors)
{
    start_created();
    expect_fatal(0, 1u << 1 | 1u << 0, "Read info fifo overflow");
    expect_fatal(0, 1u << 15 | 1u << 14, "Agent1 rdata fifo overflow");
    expect_fatal(0, 1u << 8 | 1u << 7 | 1u << 2, "Agent0 cmd fifo underflow");
    expect_fatal(1, 0xFFFF, "Agent1 rdata fifo overflow");
    expect_no_more_logs();
}

TEST_F(Ddr4Test, EachRowOutranksTheNext)
{
    start_created();
    for (size_t i = 0; i + 1 < ROWS; i++)
        expect_fatal(0, 1u << rows[i].bit | 1u << rows[i + 1].bit,
                     rows[i].text);
    expect_no_more_logs();
}

TEST_F(Ddr4Test, Bits17To31AreIgnored)
{
    start_created();
    bt_store(0, STATUS, 0xFFFE0000);
    bt_expect_no_fatal(&ddr4, 0);
    EXPECT_EQ(bt_status_reads(0), ROWS);
    bt_store(0, STATUS, 0);
    bt_expect_no_fatal(&ddr4, 0);
    EXPECT_EQ(bt_status_reads(0), 2 * ROWS);
    EXPECT_EQ(bt_other_reads(), 0u);
    EXPECT_EQ(model->writes, 0u);
    expect_no_more_logs();
}

TEST_F(Ddr4Test, EachRowReadsTheRegisterAnew)
{
    /* Bit 0 appears only at the seventeenth read, the last row's. */
    static const uint32_t late[] = {0, 0, 0, 0, 0, 0, 0, 0,      0,
                                    0, 0, 0, 0, 0, 0, 0, 1u << 0};
    /* Bit 15 shows at the first read (bit 16's row), gone by its own. */
    static const uint32_t changing[] = {1u << 15, 0};
    lh_fatal_error_t report = {0, 0, nullptr};

    start_created();
    bt_script(STATUS, late, BT_ARRAY_SIZE(late));
    ASSERT_EQ(ddr4_fatal_error_detect(0, &report), 1);
    EXPECT_STREQ(report.error_text, "Read info fifo underflow");
    expect_log(LOG_CRIT, "FATAL - DDR4 pipe 0: Read info fifo underflow");
    EXPECT_EQ(bt_script_reads(), ROWS);

    bt_script(STATUS, changing, BT_ARRAY_SIZE(changing));
    bt_expect_no_fatal(&ddr4, 0);
    EXPECT_EQ(bt_script_reads(), ROWS);
    expect_no_more_logs();
}

TEST_F(Ddr4Test, StandingErrorReportedOnEveryCall)
{
    start_created();
    for (int call = 0; call < 3; call++)
        expect_fatal(1, 1u << 9, "Agent0 cmd fifo overflow");
    EXPECT_EQ(bt_peek(1, STATUS), 1u << 9);
    EXPECT_EQ(model->writes, 0u);
    expect_no_more_logs();
}

TEST_F(Ddr4Test, EachPipeReadsItsOwnBlock)
{
    start_created();
    bt_store(1, STATUS, 1u << 12);
    bt_expect_no_fatal(&ddr4, 0);
    EXPECT_EQ(bt_status_reads(1), 0u);
    expect_fatal(1, 1u << 12, "Agent0 rdata fifo underflow");
    EXPECT_EQ(bt_status_reads(0), ROWS);
    expect_no_more_logs();
}

/* ---- Refusals ---- */

TEST_F(Ddr4Test, NullReportReadsNothing)
{
    start_created();
    bt_store(0, STATUS, 1u << 16);
    bt_expect_null_refusals(&ddr4, null_refusals, 1, 0);
    /* Before the pipe check. */
    bt_expect_null_refusals(&ddr4, null_refusals, 1, 2);
    EXPECT_EQ(model->reads, 0u);
    expect_no_more_logs();
}

TEST_F(Ddr4Test, InvalidPipeReadsNothing)
{
    start_created();
    bt_store(0, STATUS, 1u << 16);
    bt_expect_refusals(&ddr4, refusals, BT_ARRAY_SIZE(refusals), 2, "pipe");
    bt_expect_refusals(&ddr4, refusals, BT_ARRAY_SIZE(refusals), 0xFFFFFFFF,
                       "pipe");
    EXPECT_EQ(model->reads, 0u);
    expect_no_more_logs();
}

TEST_F(Ddr4Test, ExactRefusalLines)
{
    lh_fatal_error_t report;

    start_created();
    EXPECT_EQ(ddr4_fatal_error_detect(2, &report), 0);
    expect_log(LOG_CRIT, "Error - DDR4 module fatal error detection - "
                         "invalid pipe 2");
    EXPECT_EQ(ddr4_fatal_error_detect(0x80000000, &report), 0);
    expect_log(LOG_CRIT, "Error - DDR4 module fatal error detection - "
                         "invalid pipe -2147483648");
    expect_no_more_logs();
}

} // namespace
