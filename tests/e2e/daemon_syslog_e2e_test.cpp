/* End to end: the real pellin_mgr on a simulated board whose /dev/log
 * reader stops reading. Requests are still answered; the lines that could
 * not be delivered are counted and the count reported once the reader
 * reads again. */
#include <stdlib.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "plat_ipc.h"
#include "sim_board_fixture.hpp"
#include "simboard.hpp"

namespace {

using namespace std::chrono_literals;

constexpr int start_timeout_ms = 10000;
constexpr int reply_timeout_ms = 3000;
constexpr uint32_t read_register_op = 0xdb0002;
constexpr uint32_t version_offset = 0x10;
constexpr uint32_t version_value = 0x24031510;
constexpr int requests_while_stopped = 200;
constexpr const char *read_line =
    "read register - addr 0xf0000010, data 0x24031510";

struct ClientClose {
    void operator()(ipc_client *client) const { ipc_client_close(client); }
};
using Client = std::unique_ptr<ipc_client, ClientClose>;

class DaemonSyslogE2e : public SimBoardTest {
protected:
    void start_daemon()
    {
        ASSERT_NO_FATAL_FAILURE(board_.create("plm_syslog", SIM_BOARD_BASE2));
        log_path_ = board_.log_file("pellin_mgr.log");
        ASSERT_TRUE(syslog_.open(board_.parent() + "/log.sock"));
        const sim_sandbox_opts opts = syslog_.sandbox_opts();
        ASSERT_TRUE(board_.spawn(&opts, {PELLIN_MGR_PATH}, &daemon_));
        ASSERT_TRUE(text_appears(
            log_path_, ": Pellin Manager IPC server thread started...\n",
            start_timeout_ms));
        const std::string socket_path =
            board_.path(SIM_PATH_RUN) + "/ipc/219.sock";
        const auto deadline = std::chrono::steady_clock::now() +
                              std::chrono::milliseconds(start_timeout_ms);
        ipc_client *client = nullptr;
        while (ipc_client_open(socket_path.c_str(), &client) != 0) {
            ASSERT_LT(std::chrono::steady_clock::now(), deadline)
                << "no daemon socket at " << socket_path;
            std::this_thread::sleep_for(20ms);
        }
        client_.reset(client);
    }

    /* One read of the version register, answered with its value. */
    ::testing::AssertionResult read_version()
    {
        uint32_t words[2] = {version_offset, 0};
        ipc_msg_t request{};
        ipc_msg_t reply{};

        request.addr0 = 0xDEAD;
        request.addr1 = 0xBEEF;
        request.op_id = read_register_op;
        request.msg_type = 1;
        request.payload_len = sizeof(words);
        request.payload = words;
        if (int rc = ipc_client_send(client_.get(), &request); rc != 0)
            return ::testing::AssertionFailure()
                   << "send: " << std::strerror(-rc);
        if (int rc = ipc_client_recv(client_.get(), &reply, reply_timeout_ms);
            rc != 0)
            return ::testing::AssertionFailure()
                   << "no reply: " << std::strerror(-rc);
        std::unique_ptr<void, decltype(&free)> payload(reply.payload, free);
        uint32_t answer[2] = {};
        if (reply.op_id != read_register_op ||
            reply.payload_len != sizeof(answer))
            return ::testing::AssertionFailure()
                   << "reply op 0x" << std::hex << reply.op_id << ", "
                   << std::dec << reply.payload_len << " bytes";
        std::memcpy(answer, reply.payload, sizeof(answer));
        if (answer[0] != version_offset || answer[1] != version_value)
            return ::testing::AssertionFailure()
                   << "reply 0x" << std::hex << answer[0] << " 0x"
                   << answer[1];
        return ::testing::AssertionSuccess();
    }

    /* The messages waiting at the listener now. */
    int drain()
    {
        int count = 0;

        while (syslog_.next(200))
            count++;
        return count;
    }

    SimBoard board_;
    SyslogListener syslog_;
    BoardProcess daemon_; /* ends before the board and the listener go */
    Client client_;
    std::string log_path_;
};

TEST_F(DaemonSyslogE2e, StoppedReaderNeitherStallsRequestsNorLosesTheCount)
{
    ASSERT_NO_FATAL_FAILURE(start_daemon());

    for (int i = 0; i < requests_while_stopped; i++)
        ASSERT_TRUE(read_version()) << "request " << i;
    const int delivered = drain();
    const int file_lines = count_in_file(log_path_, "\n");
    EXPECT_EQ(count_in_file(log_path_, std::string(": ") + read_line + "\n"),
              requests_while_stopped);
    ASSERT_GT(file_lines, delivered);

    ASSERT_TRUE(read_version());
    const std::optional<sim_syslog_msg> report = syslog_.next(start_timeout_ms);
    ASSERT_TRUE(report.has_value());
    EXPECT_STREQ(report->ident, "larks-hollow-fpga");
    EXPECT_EQ(report->severity, 4);
    EXPECT_EQ(report->facility, 3);
    EXPECT_EQ(std::string(report->text),
              "syslog: " + std::to_string(file_lines - delivered) +
                  " lines dropped while the log socket was full");
    const std::optional<sim_syslog_msg> line = syslog_.next(start_timeout_ms);
    ASSERT_TRUE(line.has_value());
    EXPECT_STREQ(line->text, read_line);
    EXPECT_FALSE(syslog_.next(300).has_value());
}

} // namespace
