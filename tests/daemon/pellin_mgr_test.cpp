/* Board gating, start-up provisioning, pipe enabling, thread start and
 * supervision, and the unrecoverable path, against the fake library.
 * Threads are started by a wrap that can fail them or run bodies that end
 * at once; system() goes to a mock. */
#include <errno.h>
#include <pthread.h>
#include <sys/resource.h>
#include <unistd.h>

#include <iterator>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "board_stub.hpp"
#include "daemon_support.hpp"
#include "fake_lh.hpp"
#include "log_file.hpp"
#include "pellin_mgr.hpp"
#include "plm_log.hpp"
#include "private_tmp.hpp"
#include "syslog_capture.hpp"

namespace {

/* What system() is asked to run. */
class SystemMock {
public:
    MOCK_METHOD(int, Run, (std::string command));
};

SystemMock *system_mock;

/* The daemon's threads as the wrap of pthread_create started them. */
struct StartedThread {
    pthread_t handle;
    bool joined; /* by the thread monitor */
};

int failing_thread; /* 1-based pthread_create that fails; 0: none */
int thread_calls;
std::vector<StartedThread> started;

void *end_at_once(void *arg)
{
    return arg;
}

} // namespace

extern "C" int __wrap_system(const char *command)
{
    if (system_mock == nullptr) {
        ADD_FAILURE() << "system(\"" << command << "\") outside a test";
        return 0;
    }
    return system_mock->Run(command);
}

extern "C" int __real_pthread_create(pthread_t *thread,
                                     const pthread_attr_t *attr,
                                     void *(*start)(void *), void *arg);

/* The daemon's threads end at once, so that main's supervision finds
 * them; the one numbered `failing_thread` is not started at all. */
extern "C" int __wrap_pthread_create(pthread_t *thread,
                                     const pthread_attr_t *attr,
                                     void *(*)(void *), void *arg)
{
    if (++thread_calls == failing_thread)
        return EAGAIN;
    int result = __real_pthread_create(thread, attr, end_at_once, arg);
    if (result == 0)
        started.push_back({ *thread, false });
    return result;
}

extern "C" int __real_pthread_tryjoin_np(pthread_t thread, void **result);

extern "C" int __wrap_pthread_tryjoin_np(pthread_t thread, void **result)
{
    int outcome = __real_pthread_tryjoin_np(thread, result);

    if (outcome == 0)
        for (StartedThread &entry : started)
            if (pthread_equal(entry.handle, thread))
                entry.joined = true;
    return outcome;
}

namespace {

constexpr const char *kDaemonLog = PLM_LOG_PATH;
constexpr const char *kStamp = PLM_LOG_STAMP_FORMAT;

std::vector<lh_module_entry> module_list;

void set_module_list(std::vector<lh_module_entry> entries)
{
    module_list = std::move(entries);
    module_list.push_back({ LH_MOD_END, 0 });
    fake_lh.module_list = module_list.data();
}

/* The severity of the index-th syslog message, or -1 when there is none. */
int captured_severity(size_t index)
{
    const captured_syslog *entry = syslog_capture_get(index);

    return entry != nullptr ? entry->severity : -1;
}

void expect_calls(const std::vector<std::string> &calls)
{
    EXPECT_EQ(fake_lh.calls, calls);
}

class PellinMgrTest : public PrivateDirsTest {
protected:
    void SetUp() override
    {
        PrivateDirsTest::SetUp();
        if (IsSkipped())
            return;
        system_mock = &system_;
        fake_lh_reset();
        set_module_list({ { LH_MOD_CAUI, 0 },
                          { LH_MOD_INGRESS_PKT_PARSER, 0 },
                          { LH_MOD_INGRESS_PKT_PARSER, 1 } });
        fake_lh.pipe_count = 2;
        stub_board_type = 4;
        stub_board_type_calls = 0;
        stub_bramble_sim = 0;
        thread_calls = 0;
        failing_thread = 0;
        syslog_capture_reset();
        unlink(PLM_LOG_PATH);
    }

    /* Joins what main left running, so no test leaves a thread behind. */
    void TearDown() override
    {
        for (const StartedThread &entry : started)
            if (!entry.joined)
                pthread_join(entry.handle, nullptr);
        started.clear();
        free_monitor_entries();
        system_mock = nullptr;
    }

    /* The board is not served: the service is taken down at once, and
     * nothing else happens. */
    void expect_service_taken_down(unsigned int board_type_reads)
    {
        EXPECT_CALL(system_, Run("keeper_svc down pellin_mgr"))
            .WillOnce(::testing::Return(0));
        EXPECT_EQ(plm_main(), 0);
        EXPECT_EQ(stub_board_type_calls, board_type_reads);
        EXPECT_EQ(syslog_capture_count(), 0u);
        EXPECT_EQ(fake_lh.calls.size(), 0u);
        EXPECT_EQ(access(PLM_LOG_PATH, F_OK), -1);
    }

    /* Any system() a test does not expect fails it. */
    ::testing::StrictMock<SystemMock> system_;
};

class PellinMgrBoardTest : public PellinMgrTest,
                           public ::testing::WithParamInterface<int> {};

TEST_P(PellinMgrBoardTest, OtherBoardsAreNotServed)
{
    stub_board_type = GetParam();
    expect_service_taken_down(2);
}

INSTANTIATE_TEST_SUITE_P(
    Boards, PellinMgrBoardTest, ::testing::Values(0, 3, 6, 7),
    [](const ::testing::TestParamInfo<int> &info) {
        return "Board" + std::to_string(info.param);
    });

TEST_F(PellinMgrTest, SimulatorIsNotServed)
{
    stub_bramble_sim = 1;
    expect_service_taken_down(1);
}

TEST_F(PellinMgrTest, Board5StartsAndProvisions)
{
    static const char *const lines[] = {
        "Informational - LH FPGA initialization start",
        "Informational - LH FPGA initialization complete",
        "Informational - Found 2 traffic pipes",
        "Informational - Traffic pipe 0 enabled",
        "Informational - Traffic pipe 1 enabled",
        "Pellin Manager: create system poll thread failed",
        "Unrecoverable program error detected, exiting - Unrecoverable error",
    };

    stub_board_type = 5;
    failing_thread = 1;
    EXPECT_EQ(plm_main(), -1);
    EXPECT_EQ(stub_board_type_calls, 2u);
    expect_calls({
        "lh_fpga_init(/opt/orvel/platform/logs/pellin_mgr.log)",
        "lh_get_module_list()",
        "lh_set_ingress_qos(0, 5, 2)",
        "lh_set_ingress_qos(0, 4, 1)",
        "lh_set_ingress_qos(0, 3, 1)",
        "lh_set_ingress_qos(0, 2, 0)",
        "lh_set_ingress_qos(0, 0, 0)",
        "lh_set_ingress_qos(1, 5, 2)",
        "lh_set_ingress_qos(1, 4, 1)",
        "lh_set_ingress_qos(1, 3, 1)",
        "lh_set_ingress_qos(1, 2, 0)",
        "lh_set_ingress_qos(1, 0, 0)",
        "lh_get_traffic_pipe_count()",
        "lh_set_traffic_pipe_state(0, 1)",
        "lh_set_traffic_pipe_state(1, 1)",
        "lh_fpga_shutdown()",
    });
    assert_log_file_lines(kDaemonLog, kStamp, lines, std::size(lines));
    EXPECT_EQ(captured_severity(5), LOG_CRIT);
}

/* A served board raises the open-file soft limit to the hard limit. */
TEST_F(PellinMgrTest, OpenFileLimitIsRaisedToTheHardLimit)
{
    rlimit lim;

    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &lim), 0);
    if (lim.rlim_max < 2)
        GTEST_SKIP() << "the hard limit leaves nothing to raise";
    lim.rlim_cur = lim.rlim_max - 1;
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &lim), 0);
    failing_thread = 1;
    EXPECT_EQ(plm_main(), -1);
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &lim), 0);
    EXPECT_EQ(lim.rlim_cur, lim.rlim_max);
}

TEST_F(PellinMgrTest, FailedFpgaInitIsUnrecoverable)
{
    static const char *const lines[] = {
        "Informational - LH FPGA initialization start",
        "Unrecoverable program error detected, exiting - Failed to "
        "initialize FPGA",
        "Unrecoverable program error detected, exiting - Unrecoverable error",
    };

    fake_lh.fail_call = 1;
    EXPECT_EQ(plm_main(), -1);
    assert_log_file_lines(kDaemonLog, kStamp, lines, std::size(lines));
    expect_calls({
        "lh_fpga_init(/opt/orvel/platform/logs/pellin_mgr.log)",
        "lh_fpga_shutdown()",
    });
    EXPECT_EQ(captured_severity(1), LOG_CRIT);
}

TEST_F(PellinMgrTest, FailedModuleListIsUnrecoverable)
{
    static const char *const lines[] = {
        "Informational - LH FPGA initialization start",
        "Informational - LH FPGA initialization complete",
        "Unrecoverable program error detected, exiting - Failed to "
        "retrieve module list",
        "Unrecoverable program error detected, exiting - Unrecoverable error",
    };

    fake_lh.module_list_result = -1;
    EXPECT_EQ(plm_main(), -1);
    assert_log_file_lines(kDaemonLog, kStamp, lines, std::size(lines));
}

TEST_F(PellinMgrTest, FailedQosRowDoesNotStopStartUp)
{
    static const char *const lines[] = {
        "Informational - LH FPGA initialization start",
        "Informational - LH FPGA initialization complete",
        "Error - Failed to set QoS profile for pipe 0",
        "Informational - Found 2 traffic pipes",
        "Informational - Traffic pipe 0 enabled",
        "Informational - Traffic pipe 1 enabled",
        "Pellin Manager: create system poll thread failed",
        "Unrecoverable program error detected, exiting - Unrecoverable error",
    };

    failing_thread = 1;
    fake_lh.fail_call = 3; /* the first QoS row of pipe 0 */
    EXPECT_EQ(plm_main(), -1);
    assert_log_file_lines(kDaemonLog, kStamp, lines, std::size(lines));
    EXPECT_EQ(captured_severity(2), LOG_ERR);
    EXPECT_EQ(fake_lh.call(11), "lh_set_ingress_qos(1, 0, 0)");
}

TEST_F(PellinMgrTest, FailedPipeEnableDoesNotStopStartUp)
{
    static const char *const lines[] = {
        "Informational - LH FPGA initialization start",
        "Informational - LH FPGA initialization complete",
        "Informational - Found 2 traffic pipes",
        "Informational - Traffic pipe 0 enabled",
        "Error - Failed to enable traffc pipe 1",
        "Pellin Manager: create system poll thread failed",
        "Unrecoverable program error detected, exiting - Unrecoverable error",
    };

    failing_thread = 1;
    fake_lh.fail_call = 15; /* init, list, ten QoS rows, count, pipe 0 */
    EXPECT_EQ(plm_main(), -1);
    assert_log_file_lines(kDaemonLog, kStamp, lines, std::size(lines));
    EXPECT_EQ(captured_severity(4), LOG_CRIT);
}

TEST_F(PellinMgrTest, NoParserNoQosAndNoPipes)
{
    set_module_list({ { LH_MOD_CAUI, 0 } });
    fake_lh.pipe_count = 0;
    failing_thread = 1;
    EXPECT_EQ(plm_main(), -1);
    expect_calls({
        "lh_fpga_init(/opt/orvel/platform/logs/pellin_mgr.log)",
        "lh_get_module_list()",
        "lh_get_traffic_pipe_count()",
        "lh_fpga_shutdown()",
    });
    assert_log_file_has_line(kDaemonLog, kStamp,
                             "Informational - Found 0 traffic pipes");
}

TEST_F(PellinMgrTest, BothParserIdsOnOnePipeProvisionTwice)
{
    set_module_list({ { LH_MOD_INGRESS_PKT_PARSER, 0 },
                      { LH_MOD_LHX_INGRESS_PKT_PARSER, 0 } });
    fake_lh.pipe_count = 0;
    failing_thread = 1;
    EXPECT_EQ(plm_main(), -1);
    EXPECT_EQ(fake_lh.calls.size(), 2u + 10u + 2u);
    EXPECT_EQ(fake_lh.call(2), "lh_set_ingress_qos(0, 5, 2)");
    EXPECT_EQ(fake_lh.call(7), "lh_set_ingress_qos(0, 5, 2)");
    EXPECT_EQ(fake_lh.call(11), "lh_set_ingress_qos(0, 0, 0)");
}

TEST_F(PellinMgrTest, FailedIpcThreadIsUnrecoverable)
{
    failing_thread = 2;
    EXPECT_EQ(plm_main(), -1);
    assert_log_file_has_line(kDaemonLog, kStamp,
                             "Pellin Manager: create IPC server thread failed");
    assert_log_file_has_line(kDaemonLog, kStamp,
                             "Pellin Manager system poll thread started...");
}

TEST_F(PellinMgrTest, ThreadThatReturnedEndsTheDaemon)
{
    EXPECT_EQ(plm_main(), -1);
    /* Newest first: the IPC server is found before the poll thread. */
    assert_log_file_has_line(kDaemonLog, kStamp,
                             "pellin IPC server: Thread monitor detected "
                             "failure");
    assert_log_file_has_line(
        kDaemonLog, kStamp,
        "Unrecoverable program error detected, exiting - Unrecoverable error");
    ASSERT_FALSE(fake_lh.calls.empty());
    EXPECT_EQ(fake_lh.calls.back(), "lh_fpga_shutdown()");
}

} // namespace
