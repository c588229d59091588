/* Pipe states at start and on change, the fatal-error handler and the
 * one-time FAILED alarm, against the fake library. */
#include <stdlib.h>

#include <array>
#include <memory>

#include <gtest/gtest.h>

#include "fake_lh.hpp"
#include "log_expect.hpp"
#include "plm_log.hpp"
#include "private_tmp.hpp"
#include "sys_poll.hpp"

namespace {

/* The last-state array plm_sys_poll_setup hands over. */
struct FreeBytes {
    void operator()(uint8_t *bytes) const
    {
        free(bytes);
    }
};
using LastStates = std::unique_ptr<uint8_t[], FreeBytes>;

std::array<lh_module_entry, 4> module_list;

class SysPollTest : public PrivateTmpTest {
protected:
    void SetUp() override
    {
        PrivateTmpTest::SetUp();
        if (IsSkipped())
            return;
        fake_lh_reset();
        module_list = {};
        module_list[0] = { LH_MOD_CAUI, 0 };
        module_list[1] = { LH_MOD_CAUI, 1 };
        module_list[2] = { LH_MOD_END, 0 };
        fake_lh.module_list = module_list.data();
        plm_fatal_flag.store(0);
        plm_fatal_reported.store(0);
        log_expect_start(&plm_log_file);
    }

    void TearDown() override
    {
        log_expect_stop();
    }
};

TEST_F(SysPollTest, StartReportsEveryPipeAndRegistersHandler)
{
    uint32_t count = 0;

    fake_lh.pipe_count = 2;
    fake_lh.pipe_states[0] = 1;
    LastStates last(plm_sys_poll_setup(&count));
    ASSERT_NE(last, nullptr);
    ASSERT_EQ(count, 2u);
    EXPECT_EQ(last[0], 1u);
    EXPECT_EQ(last[1], 0u);
    expect_log(LOG_INFO, "Informational - traffic pipe 0 is UP");
    expect_log(LOG_INFO, "Informational - traffic pipe 1 is DOWN");
    expect_no_more_logs();
    EXPECT_EQ(fake_lh.fatal_error_cb, plm_fatal_error_handler);
    EXPECT_EQ(plm_fatal_flag.load(), 0u);
}

TEST_F(SysPollTest, PipeChangeIsLoggedOnceEachWay)
{
    uint8_t last[2] = { 1, 1 };

    fake_lh.pipe_states[0] = 1;
    fake_lh.pipe_states[1] = 0;
    plm_sys_poll_pass(last, 2);
    plm_sys_poll_pass(last, 2);
    expect_log(LOG_INFO, "Informational - traffic pipe 1 changed to DOWN");
    expect_no_more_logs();
    fake_lh.pipe_states[1] = 1;
    plm_sys_poll_pass(last, 2);
    plm_sys_poll_pass(last, 2);
    expect_log(LOG_INFO, "Informational - traffic pipe 1 changed to UP");
    expect_no_more_logs();
}

TEST_F(SysPollTest, UnreadablePipeIsSkipped)
{
    uint8_t last[2] = { 1, 1 };

    fake_lh.result = -1;
    plm_sys_poll_pass(last, 2);
    EXPECT_EQ(last[0], 1u);
    EXPECT_EQ(last[1], 1u);
    expect_no_more_logs();
}

TEST_F(SysPollTest, NoPipesPollsNothing)
{
    uint8_t last[1] = { 0 };
    uint32_t count = 7;

    LastStates start(plm_sys_poll_setup(&count));
    ASSERT_NE(start, nullptr);
    EXPECT_EQ(count, 0u);
    fake_lh.calls.clear();
    plm_sys_poll_pass(last, 0);
    EXPECT_EQ(fake_lh.calls.size(), 0u);
    expect_no_more_logs();
}

TEST_F(SysPollTest, HandlerNamesTheModule)
{
    const lh_fatal_error_t report = { LH_MOD_INGRESS_PKT_PARSER, 1,
                                      "Meta Data FIFO Overflow" };

    plm_fatal_error_handler(report);
    expect_log(LOG_CRIT, "NPU fatal error handler: ingress-pkt-parser pipe 1 "
                         "(Meta Data FIFO Overflow)");
    EXPECT_EQ(plm_fatal_flag.load(), 1u);
}

TEST_F(SysPollTest, HandlerAcceptsAnyModuleId)
{
    lh_fatal_error_t report = { 99, 0, "odd" };

    plm_fatal_error_handler(report);
    report.module_id = 15;
    plm_fatal_error_handler(report);
    expect_log(LOG_CRIT,
               "NPU fatal error handler: (unknown module) 99 pipe 0 (odd)");
    expect_log(LOG_CRIT,
               "NPU fatal error handler: (unknown module) 15 pipe 0 (odd)");
}

TEST_F(SysPollTest, TwoFatalErrorsOneFailedLine)
{
    const lh_fatal_error_t first = { LH_MOD_CAUI, 0,
                                     "TX Buffer FIFO Underflow" };
    const lh_fatal_error_t second = { LH_MOD_NIC, 1, "QM Queue Underflow" };
    uint8_t last[1] = { 0 };

    plm_sys_poll_pass(last, 0);
    plm_fatal_error_handler(first);
    plm_sys_poll_pass(last, 0);
    plm_fatal_error_handler(second);
    plm_sys_poll_pass(last, 0);
    plm_sys_poll_pass(last, 0);
    expect_log(LOG_CRIT, "NPU fatal error handler: caui pipe 0 (TX Buffer "
                         "FIFO Underflow)");
    expect_log(LOG_CRIT, "FATAL - Pellin FAILED");
    expect_log(LOG_CRIT,
               "NPU fatal error handler: nic pipe 1 (QM Queue Underflow)");
    expect_no_more_logs();
}

TEST_F(SysPollTest, ModuleFailedBeforeStartRaisesTheAlarm)
{
    uint32_t count = 0;

    fake_lh.module_states[LH_MOD_CAUI][1] = 1;
    LastStates last(plm_sys_poll_setup(&count));
    ASSERT_NE(last, nullptr);
    EXPECT_EQ(plm_fatal_flag.load(), 1u);
    plm_sys_poll_pass(last.get(), count);
    expect_log(LOG_CRIT, "FATAL - Pellin FAILED");
    expect_no_more_logs();
}

} // namespace
