/* End to end: the real pellin_mgr on a simulated board, started as a
 * service manager starts a notify service: NOTIFY_SOCKET names a datagram
 * socket of the test's own, which reads what the daemon reports. */
#include <poll.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "owned.hpp"
#include "plat_ipc.h"
#include "sim_board_fixture.hpp"
#include "simboard.hpp"

namespace {

using Clock = std::chrono::steady_clock;

constexpr int start_timeout_ms = 10000;
/* The supervision loop goes round every 3 s. */
constexpr int watchdog_window_ms = 7500;

class DaemonNotifyE2e : public SimBoardTest {
protected:
    void TearDown() override { unsetenv("NOTIFY_SOCKET"); }

    /* An abstract socket: it needs no path inside the sandbox. */
    void listen_for_notifications()
    {
        const std::string name =
            "pellin-notify-test-" + std::to_string(getpid());
        sockaddr_un address{};

        address.sun_family = AF_UNIX;
        memcpy(address.sun_path + 1, name.data(), name.size());
        notify_.reset(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
        ASSERT_TRUE(notify_.valid()) << strerror(errno);
        ASSERT_EQ(bind(notify_.get(),
                       reinterpret_cast<const sockaddr *>(&address),
                       offsetof(sockaddr_un, sun_path) + 1 + name.size()),
                  0)
            << strerror(errno);
        setenv("NOTIFY_SOCKET", ("@" + name).c_str(), 1);
    }

    void start_daemon()
    {
        ASSERT_NO_FATAL_FAILURE(listen_for_notifications());
        ASSERT_NO_FATAL_FAILURE(board_.create("plm_notify", SIM_BOARD_BASE2));
        ASSERT_TRUE(board_.spawn(nullptr, {PELLIN_MGR_PATH}, &daemon_));
    }

    /* The next notification, or nothing within timeout_ms. */
    std::optional<std::string> next(int timeout_ms)
    {
        pollfd waiting = {notify_.get(), POLLIN, 0};
        char bytes[256];

        if (poll(&waiting, 1, timeout_ms) != 1)
            return std::nullopt;
        const ssize_t got = recv(notify_.get(), bytes, sizeof(bytes), 0);
        if (got < 0)
            return std::nullopt;
        return std::string(bytes, static_cast<size_t>(got));
    }

    /* Every notification within ms. */
    std::vector<std::string> collect(int ms)
    {
        std::vector<std::string> got;
        const auto until = Clock::now() + std::chrono::milliseconds(ms);

        while (Clock::now() < until) {
            const auto left = std::chrono::duration_cast<
                std::chrono::milliseconds>(until - Clock::now());
            if (std::optional<std::string> n = next(int(left.count()) + 1))
                got.push_back(*n);
        }
        return got;
    }

    std::string socket_path() const
    {
        return board_.path(SIM_PATH_RUN) + "/ipc/219.sock";
    }

    pellin::UniqueFd notify_;
    SimBoard board_;
    BoardProcess daemon_; /* ends before the board goes */
};

TEST_F(DaemonNotifyE2e, ReadyOnceTheEndpointAcceptsConnections)
{
    ASSERT_NO_FATAL_FAILURE(start_daemon());
    std::optional<std::string> n;

    do
        n = next(start_timeout_ms);
    while (n.has_value() && *n == "WATCHDOG=1");
    ASSERT_TRUE(n.has_value()) << "no READY=1 within " << start_timeout_ms
                               << " ms";
    EXPECT_EQ(*n, "READY=1");

    ipc_client *client = nullptr;
    ASSERT_EQ(ipc_client_open(socket_path().c_str(), &client), 0);
    ipc_client_close(client);
    for (const std::string &later : collect(watchdog_window_ms))
        EXPECT_EQ(later, "WATCHDOG=1");
}

TEST_F(DaemonNotifyE2e, WatchdogFromEveryRoundOfTheSupervisionLoop)
{
    ASSERT_NO_FATAL_FAILURE(start_daemon());
    int watchdogs = 0;

    for (const std::string &n : collect(watchdog_window_ms))
        watchdogs += n == "WATCHDOG=1";
    EXPECT_GE(watchdogs, 2);
    EXPECT_LE(watchdogs, 4);
}

} // namespace
