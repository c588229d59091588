/* The IPC server thread against a fake transport: a receive error never
 * ends it, and an endpoint that cannot be opened does. */
#include <pthread.h>

#include <gtest/gtest.h>

#include "fake_ipc.hpp"
#include "ipc_server.hpp"
#include "log_expect.hpp"
#include "plm_log.hpp"
#include "private_tmp.hpp"

namespace {

class IpcServerTest : public PrivateTmpTest {
protected:
    void SetUp() override
    {
        PrivateTmpTest::SetUp();
        if (IsSkipped())
            return;
        fake_ipc_reset();
        log_expect_start(&plm_log_file);
    }

    void TearDown() override
    {
        log_expect_stop();
    }
};

/* Runs the server thread until it ends: by itself, or in the fake's
 * ipc_recv once the scripted results are used up. */
void run_server_thread()
{
    pthread_t thread;

    ASSERT_EQ(pthread_create(&thread, nullptr, plm_ipc_server_thread, nullptr),
              0);
    ASSERT_EQ(pthread_join(thread, nullptr), 0);
}

TEST_F(IpcServerTest, ReceiveErrorsDoNotEndTheThread)
{
    fake_ipc.recv_results = { 5, 110, 0 };
    ASSERT_NO_FATAL_FAILURE(run_server_thread());
    /* Two errors, one message, then the fourth receive ended the test. */
    EXPECT_EQ(fake_ipc.recv_calls, 4u);
    expect_log(LOG_ERR, "Error during ipc_recv: 5");
    expect_log(LOG_ERR, "Error during ipc_recv: 110");
    expect_no_more_logs();
}

TEST_F(IpcServerTest, EndpointFailureEndsTheThread)
{
    fake_ipc.add_endpoint_result = -98;
    ASSERT_NO_FATAL_FAILURE(run_server_thread());
    EXPECT_EQ(fake_ipc.recv_calls, 0u);
    expect_log(LOG_ERR, "Error adding IPC_SOCK_SERVER endpoint");
    expect_log(LOG_CRIT, "Error initializing IPC for Pellin Manager\n");
    expect_no_more_logs();
}

} // namespace

/* The first failure of an interval is logged; the rest are counted and
 * their number comes with the next one logged. */
TEST(LogThrottle, FirstOfEachIntervalWithTheCountHeldBack)
{
    plm::LogThrottle throttle;
    uint64_t unlogged = 99;

    EXPECT_TRUE(throttle.admit(1000, &unlogged));
    EXPECT_EQ(unlogged, 0u);
    EXPECT_FALSE(throttle.admit(1001, &unlogged));
    EXPECT_FALSE(throttle.admit(60999, &unlogged));
    EXPECT_TRUE(throttle.admit(61000, &unlogged));
    EXPECT_EQ(unlogged, 2u);
    EXPECT_TRUE(throttle.admit(200000, &unlogged));
    EXPECT_EQ(unlogged, 0u);
}
