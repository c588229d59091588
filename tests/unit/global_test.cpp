/* The global block drivers (global, lhx_global) against a model of the
 * block's SEM status registers, one per die, that records every read and
 * can change its value from one read to the next. */
#include <gtest/gtest.h>

#include "block_fixture.hpp"
#include "fake_device.hpp"
#include "global.hpp"
#include "lh_drivers.hpp"
#include "lh_log.hpp"
#include "log_expect.hpp"
#include "mutex_wrap.hpp"

namespace {

constexpr uint32_t DIE0 = 0x100u;
constexpr uint32_t DIE1 = 0x140u;
constexpr uint32_t DIE2 = 0x180u;

constexpr unsigned int HEARTBEAT_BIT = 0;
constexpr unsigned int FATAL_BIT = 1;
constexpr uint32_t HEARTBEAT = 1u << HEARTBEAT_BIT;
constexpr uint32_t FATAL = 1u << FATAL_BIT;

/* The block sits at window offset 0 on both images; a second site, 0x800,
 * lets a test give another context a block of its own. */
constexpr int GLOBAL_SITE = 0;
constexpr int OTHER_SITE = 1;

constexpr bt_layout layout = {
    .sites = {0x0000, 0x0800},
    .site_count = 2,
    .span = 0x800,
    .status = {DIE0, DIE1, DIE2},
    .status_count = 3,
    .max_status_reads = 64,
};

constexpr bt_driver global = {
    .name = "Global",
    .ops = &global_ops,
    .device = &lh_desc_base_two_pipes,
};
constexpr bt_driver lhx = {
    .name = "LHX Global",
    .ops = &lhx_global_ops,
    .device = &lh_desc_lhx,
};
constexpr const bt_driver *drivers[] = {&global, &lhx};

constexpr bt_call refusals[] = {
    {"module fatal error detection", LOG_CRIT, 0, bt_call_fatal_error_detect},
};

constexpr bt_call null_refusals[] = {
    {"module fatal error detection", LOG_ERR, 0, bt_null_fatal_error_detect},
};

constexpr bt_error_row sem_rows[] = {
    {DIE0, HEARTBEAT_BIT, "die 0 SEM controller 0 heartbeat has stopped"},
    {DIE0, FATAL_BIT, "die 0 SEM controller 0 has detected a fatal error"},
    {DIE1, HEARTBEAT_BIT, "die 1 SEM controller 0 heartbeat has stopped"},
    {DIE1, FATAL_BIT, "die 1 SEM controller 0 has detected a fatal error"},
    {DIE2, HEARTBEAT_BIT, "die 2 SEM controller 0 heartbeat has stopped"},
    {DIE2, FATAL_BIT, "die 2 SEM controller 0 has detected a fatal error"},
};

/* lhx_global's rows: die 0's. */
constexpr size_t LHX_ROWS = 2;

constexpr uint32_t all_global_reads[] = {DIE0, DIE0, DIE1, DIE1, DIE2, DIE2};
constexpr uint32_t die0_only[] = {DIE0, DIE0};

/* Contexts last as long as the process. ctest runs each case in a process
 * of its own; a run of the whole program skips the cases that need
 * contexts nobody created once another case has run before them. */
int cases_started;
constexpr const char *NEEDS_OWN_PROCESS =
    "needs contexts no earlier case created: run it alone, as ctest does";

class GlobalTest : public BlockTest {
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

    /* Ends a device mid-case, every message accounted for. */
    static void finish()
    {
        expect_no_more_logs();
        fake_device_stop();
    }

    void start_created(const bt_driver *driver)
    {
        start(driver->device);
        bt_create(driver, 0, GLOBAL_SITE);
        bt_forget_reads();
    }

    static void store(uint32_t reg, uint32_t value)
    {
        bt_store(GLOBAL_SITE, reg, value);
    }

    reg_model *model = nullptr;
};

/* ---- Contexts nobody created ---- */

TEST_F(GlobalTest, DetectBeforeCreateIsInvalidContext)
{
    if (!first_case_of_process())
        GTEST_SKIP() << NEEDS_OWN_PROCESS;
    start(&lh_desc_base_two_pipes);
    store(DIE0, HEARTBEAT | FATAL);
    for (const bt_driver *driver : drivers) {
        bt_expect_refusals(driver, refusals, 1, 0, "context");
        bt_expect_refusals(driver, refusals, 1, 1, "context");
    }
    EXPECT_EQ(model->reads, 0u);
    expect_no_more_logs();
}

TEST_F(GlobalTest, Pipe1RefusedOnOnePipeDevices)
{
    if (!first_case_of_process())
        GTEST_SKIP() << NEEDS_OWN_PROCESS;
    start(&lh_desc_base_one_pipe);
    bt_expect_create_refused(&global, 1, bt_site_base(OTHER_SITE));
    bt_expect_refusals(&global, refusals, 1, 1, "context");
    finish();

    start(&lh_desc_lhx);
    bt_expect_create_refused(&lhx, 1, bt_site_base(OTHER_SITE));
    bt_expect_refusals(&lhx, refusals, 1, 1, "context");
    EXPECT_EQ(model->writes, 0u);
    expect_no_more_logs();
}

/* ---- Context creation. lhx_global pipe 1 is never created anywhere. ---- */

TEST_F(GlobalTest, OpsTablesWireTheTwoOperations)
{
    static const lh_block_ops expected_global = {
        .context_create = global_context_create,
        .fatal_error_detect = global_fatal_error_detect,
    };
    static const lh_block_ops expected_lhx = {
        .context_create = lhx_global_context_create,
        .fatal_error_detect = lhx_global_fatal_error_detect,
    };

    bt_assert_ops(&global_ops, &expected_global);
    bt_assert_ops(&lhx_global_ops, &expected_lhx);
}

TEST_F(GlobalTest, CreateLogsTheCreatedLine)
{
    start(&lh_desc_base_two_pipes);
    ASSERT_EQ(global_context_create(0, bt_site_base(GLOBAL_SITE)), 0);
    expect_log(LOG_INFO, "Informational - Global module 0 context created");
    ASSERT_EQ(global_context_create(1, bt_site_base(OTHER_SITE)), 0);
    expect_log(LOG_INFO, "Informational - Global module 1 context created");
    finish();

    start(&lh_desc_lhx);
    ASSERT_EQ(lhx_global_context_create(0, bt_site_base(GLOBAL_SITE)), 0);
    expect_log(LOG_INFO, "Informational - LHX Global module 0 context "
                         "created");
    EXPECT_EQ(model->reads, 0u);
    EXPECT_EQ(model->writes, 0u);
    expect_no_more_logs();
}

TEST_F(GlobalTest, CreateMakesNoMutex)
{
    start(&lh_desc_base_two_pipes);
    mutex_init_fails = true;
    bt_create(&global, 0, GLOBAL_SITE);
    bt_create(&lhx, 0, GLOBAL_SITE);
    EXPECT_EQ(mutex_inits, 0u);
    store(DIE0, FATAL);
    bt_expect_fatal(&global, 0,
                    "die 0 SEM controller 0 has detected a fatal error");
    expect_no_more_logs();
}

TEST_F(GlobalTest, CreateRefusals)
{
    start(&lh_desc_base_two_pipes);
    for (const bt_driver *driver : drivers)
        bt_expect_create_refusals(driver);
    EXPECT_EQ(model->reads, 0u);
    EXPECT_EQ(model->writes, 0u);
    expect_no_more_logs();
}

TEST_F(GlobalTest, CreateBeforeInitialisation)
{
    bt_expect_create_before_init(&layout, &global);
}

/* ---- Fatal error detection ---- */

TEST_F(GlobalTest, EachGlobalBitAloneReportsItsText)
{
    start_created(&global);
    bt_walk_error_rows(&global, 0, GLOBAL_SITE, sem_rows,
                       BT_ARRAY_SIZE(sem_rows));
    EXPECT_EQ(model->writes, 0u);
    expect_no_more_logs();
}

TEST_F(GlobalTest, EachLhxGlobalBitAloneReportsItsText)
{
    start_created(&lhx);
    bt_walk_error_rows(&lhx, 0, GLOBAL_SITE, sem_rows, LHX_ROWS);
    EXPECT_EQ(model->writes, 0u);
    expect_no_more_logs();
}

TEST_F(GlobalTest, HeartbeatWinsOverFatalOfItsDie)
{
    start_created(&global);
    store(DIE0, HEARTBEAT | FATAL);
    bt_expect_fatal(&global, 0, "die 0 SEM controller 0 heartbeat has stopped");
    bt_set_statuses(GLOBAL_SITE, 0, 0, 0);
    store(DIE1, HEARTBEAT | FATAL);
    bt_expect_fatal(&global, 0, "die 1 SEM controller 0 heartbeat has stopped");
    bt_set_statuses(GLOBAL_SITE, 0, 0, 0);
    store(DIE2, HEARTBEAT | FATAL);
    bt_expect_fatal(&global, 0, "die 2 SEM controller 0 heartbeat has stopped");
    finish();

    start_created(&lhx);
    store(DIE0, HEARTBEAT | FATAL);
    bt_expect_fatal(&lhx, 0, "die 0 SEM controller 0 heartbeat has stopped");
    expect_no_more_logs();
}

TEST_F(GlobalTest, Die2ReportedOnlyWhenDies0And1AreClear)
{
    start_created(&global);
    store(DIE2, HEARTBEAT);
    store(DIE1, FATAL);
    bt_expect_fatal(&global, 0,
                    "die 1 SEM controller 0 has detected a fatal error");
    store(DIE0, FATAL);
    bt_expect_fatal(&global, 0,
                    "die 0 SEM controller 0 has detected a fatal error");
    store(DIE0, 0);
    store(DIE1, 0);
    bt_expect_fatal(&global, 0, "die 2 SEM controller 0 heartbeat has stopped");
    /* A fatal error of die 0 outranks die 1's stopped heartbeat. */
    store(DIE0, FATAL);
    store(DIE1, HEARTBEAT);
    bt_expect_fatal(&global, 0,
                    "die 0 SEM controller 0 has detected a fatal error");
    expect_no_more_logs();
}

TEST_F(GlobalTest, LhxGlobalIgnoresDies1And2)
{
    start_created(&lhx);
    store(DIE1, HEARTBEAT | FATAL);
    store(DIE2, 0xFFFFFFFF);
    bt_expect_no_fatal(&lhx, 0);
    bt_assert_status_trace(GLOBAL_SITE, die0_only, BT_ARRAY_SIZE(die0_only));
    expect_no_more_logs();
}

TEST_F(GlobalTest, OtherBitsReportNothing)
{
    start_created(&global);
    bt_set_statuses(GLOBAL_SITE, 0xFFFFFFFC, 0xFFFFFFFC, 0xFFFFFFFC);
    store(0x0FC, 0xFFFFFFFF);
    store(0x104, 0xFFFFFFFF);
    store(0x1C0, 0xFFFFFFFF);
    bt_expect_no_fatal(&global, 0);
    bt_assert_status_trace(GLOBAL_SITE, all_global_reads,
                           BT_ARRAY_SIZE(all_global_reads));
    finish();

    start_created(&lhx);
    store(DIE0, 0xFFFFFFFC);
    bt_expect_no_fatal(&lhx, 0);
    bt_assert_status_trace(GLOBAL_SITE, die0_only, BT_ARRAY_SIZE(die0_only));
    EXPECT_EQ(model->writes, 0u);
    expect_no_more_logs();
}

TEST_F(GlobalTest, EachRowReadsTheRegisterAnew)
{
    /* The fatal bit appears between the heartbeat test and the fatal test
     * of the same register. */
    static const uint32_t late_fatal[] = {0, FATAL};
    /* The fatal bit is gone by the time its row reads the register. */
    static const uint32_t fatal_gone[] = {FATAL, 0};

    start_created(&global);
    bt_script(BT_EVERY_STATUS, late_fatal, BT_ARRAY_SIZE(late_fatal));
    bt_expect_fatal(&global, 0,
                    "die 0 SEM controller 0 has detected a fatal error");
    bt_assert_status_trace(GLOBAL_SITE, all_global_reads, 2);

    bt_script(BT_EVERY_STATUS, fatal_gone, BT_ARRAY_SIZE(fatal_gone));
    bt_expect_no_fatal(&global, 0);
    bt_assert_status_trace(GLOBAL_SITE, all_global_reads,
                           BT_ARRAY_SIZE(all_global_reads));
    finish();

    start_created(&lhx);
    bt_script(BT_EVERY_STATUS, late_fatal, BT_ARRAY_SIZE(late_fatal));
    bt_expect_fatal(&lhx, 0,
                    "die 0 SEM controller 0 has detected a fatal error");
    bt_assert_status_trace(GLOBAL_SITE, all_global_reads, 2);
    expect_no_more_logs();
}

TEST_F(GlobalTest, StandingErrorReportedOnEveryCall)
{
    start_created(&global);
    store(DIE1, FATAL);
    for (int call = 0; call < 3; call++)
        bt_expect_fatal(&global, 0,
                        "die 1 SEM controller 0 has detected a fatal error");
    EXPECT_EQ(bt_peek(GLOBAL_SITE, DIE1), FATAL);
    EXPECT_EQ(model->writes, 0u);
    expect_no_more_logs();
}

TEST_F(GlobalTest, EachPipeReadsItsOwnBlock)
{
    lh_fatal_error_t report = {0, 0, nullptr};

    start_created(&global);
    bt_create(&global, 1, OTHER_SITE);
    bt_store(OTHER_SITE, DIE2, FATAL);
    bt_expect_no_fatal(&global, 0);
    ASSERT_EQ(global_fatal_error_detect(1, &report), 1);
    EXPECT_STREQ(report.error_text,
                 "die 2 SEM controller 0 has detected a fatal error");
    expect_log(LOG_CRIT, "FATAL - Global pipe 1: die 2 SEM controller 0 has "
                         "detected a fatal error");
    expect_no_more_logs();
}

TEST_F(GlobalTest, GlobalAndLhxGlobalKeepApart)
{
    start_created(&global);
    bt_create(&lhx, 0, OTHER_SITE);
    store(DIE1, HEARTBEAT);
    bt_expect_no_fatal(&lhx, 0);
    bt_expect_fatal(&global, 0, "die 1 SEM controller 0 heartbeat has stopped");
    bt_store(OTHER_SITE, DIE0, FATAL);
    bt_expect_fatal(&lhx, 0,
                    "die 0 SEM controller 0 has detected a fatal error");
    expect_no_more_logs();
}

/* ---- Refusals ---- */

TEST_F(GlobalTest, NullReportReadsNothing)
{
    start_created(&global);
    bt_create(&lhx, 0, GLOBAL_SITE);
    store(DIE0, HEARTBEAT);
    for (const bt_driver *driver : drivers) {
        bt_expect_null_refusals(driver, null_refusals, 1, 0);
        /* Before the pipe check. */
        bt_expect_null_refusals(driver, null_refusals, 1, 2);
    }
    EXPECT_EQ(model->reads, 0u);
    expect_no_more_logs();
}

TEST_F(GlobalTest, InvalidPipeReadsNothing)
{
    start_created(&global);
    bt_create(&lhx, 0, GLOBAL_SITE);
    store(DIE0, HEARTBEAT);
    for (const bt_driver *driver : drivers) {
        bt_expect_refusals(driver, refusals, 1, 2, "pipe");
        bt_expect_refusals(driver, refusals, 1, 0xFFFFFFFF, "pipe");
    }
    EXPECT_EQ(model->reads, 0u);
    expect_no_more_logs();
}

TEST_F(GlobalTest, ExactRefusalLines)
{
    lh_fatal_error_t report;

    start_created(&global);
    EXPECT_EQ(global_fatal_error_detect(2, &report), 0);
    expect_log(LOG_CRIT, "Error - Global module fatal error detection - "
                         "invalid pipe 2");
    EXPECT_EQ(global_fatal_error_detect(0xFFFFFFFF, &report), 0);
    expect_log(LOG_CRIT, "Error - Global module fatal error detection - "
                         "invalid pipe -1");
    EXPECT_EQ(lhx_global_fatal_error_detect(1, &report), 0);
    expect_log(LOG_CRIT, "Error - LHX Global module fatal error detection - "
                         "invalid context 1");
    EXPECT_EQ(lhx_global_fatal_error_detect(0, nullptr), 0);
    expect_log(LOG_ERR, "Null pointer - LHX Global module fatal error "
                        "detection");
    expect_no_more_logs();
}

} // namespace
