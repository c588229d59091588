/* End to end: the real pellin_mgr on simulated boards in the sandbox, with
 * the real libpciaccess, setpci, syslog(3) and the host IPC transport;
 * clients talk to it over its socket. */
#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <initializer_list>
#include <memory>
#include <mutex>
#include <optional>
#include <ostream>
#include <span>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "plat_ipc.h"
#include "sim_board_fixture.hpp"
#include "simboard.hpp"

namespace {

using namespace std::chrono_literals;

constexpr int start_timeout_ms = 10000;
constexpr int reply_timeout_ms = 3000;
constexpr int exit_timeout_ms = 10000;

constexpr uint32_t error_reply_op = 0xdb0001;

/* Where the sandbox's PATH finds the service controller. */
constexpr const char *sandbox_path = "/tmp/bin:/usr/sbin:/usr/bin:/sbin:/bin";

struct ClientClose {
    void operator()(ipc_client *client) const { ipc_client_close(client); }
};
using Client = std::unique_ptr<ipc_client, ClientClose>;

/* A reply: its op id and payload bytes. */
struct Reply {
    uint32_t op = 0;
    std::vector<uint8_t> payload;
};

std::vector<uint8_t> bytes_of(std::span<const uint32_t> words)
{
    std::vector<uint8_t> bytes(words.size_bytes());

    if (!bytes.empty())
        std::memcpy(bytes.data(), words.data(), bytes.size());
    return bytes;
}

std::vector<uint8_t> bytes_of(std::initializer_list<uint32_t> words)
{
    return bytes_of(std::span<const uint32_t>(words.begin(), words.size()));
}

/* A file descriptor closed with the object. */
class Fd {
public:
    explicit Fd(int fd) : fd_(fd) {}
    ~Fd() { reset(); }
    Fd(const Fd &) = delete;
    Fd &operator=(const Fd &) = delete;

    int get() const { return fd_; }
    void reset()
    {
        if (fd_ >= 0)
            close(fd_);
        fd_ = -1;
    }

private:
    int fd_;
};

/* While it lives, this process's standard output goes to a file and PATH
 * is the sandbox's, so that a program spawned meanwhile inherits both. */
class SpawnSurroundings {
public:
    explicit SpawnSurroundings(const std::string &out_path)
        : out_(open(out_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC,
                    0644)),
          saved_stdout_(fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 0))
    {
        const char *path = getenv("PATH");

        if (path != nullptr)
            saved_path_ = path;
        if (!ok())
            return;
        std::fflush(stdout);
        dup2(out_.get(), STDOUT_FILENO);
        setenv("PATH", sandbox_path, 1);
    }

    ~SpawnSurroundings()
    {
        if (saved_path_)
            setenv("PATH", saved_path_->c_str(), 1);
        else
            unsetenv("PATH");
        if (saved_stdout_.get() >= 0) {
            std::fflush(stdout);
            dup2(saved_stdout_.get(), STDOUT_FILENO);
        }
    }

    SpawnSurroundings(const SpawnSurroundings &) = delete;
    SpawnSurroundings &operator=(const SpawnSurroundings &) = delete;

    bool ok() const { return out_.get() >= 0 && saved_stdout_.get() >= 0; }

private:
    Fd out_;
    Fd saved_stdout_;
    std::optional<std::string> saved_path_;
};

class DaemonE2e : public SimBoardTest {
protected:
    static void SetUpTestSuite() { signal(SIGPIPE, SIG_IGN); }

    void make_board(enum sim_board_kind kind)
    {
        ASSERT_NO_FATAL_FAILURE(board_.create("plm_e2e", kind));
        log_path_ = board_.log_file("pellin_mgr.log");
        socket_path_ = board_.path(SIM_PATH_RUN) + "/ipc/219.sock";
        out_path_ = board_.parent() + "/out.txt";
        /* The service controller, where the sandbox's PATH finds it. */
        const std::filesystem::path bin =
            board_.path(SIM_PATH_TMP) + "/bin";
        std::error_code error;
        std::filesystem::create_directories(bin, error);
        ASSERT_FALSE(error) << bin << ": " << error.message();
        std::filesystem::copy_file(KEEPER_SVC_PATH, bin / "keeper_svc", error);
        ASSERT_FALSE(error) << KEEPER_SVC_PATH << ": " << error.message();
    }

    void listen_to_syslog()
    {
        ASSERT_TRUE(syslog_.open(board_.parent() + "/log.sock"));
    }

    /* Starts the daemon with its standard output in out.txt. */
    void spawn_daemon()
    {
        const sim_sandbox_opts opts = syslog_.sandbox_opts();
        ::testing::AssertionResult spawned = ::testing::AssertionFailure();
        {
            SpawnSurroundings surroundings(out_path_);

            ASSERT_TRUE(surroundings.ok())
                << out_path_ << ": " << std::strerror(errno);
            spawned = board_.spawn(&opts, {PELLIN_MGR_PATH}, &daemon_);
        }
        ASSERT_TRUE(spawned);
    }

    /* Connects to the daemon's socket as soon as it is there; fails at once
     * when the daemon ended first. */
    ::testing::AssertionResult connect_client(Client *out)
    {
        const auto deadline =
            std::chrono::steady_clock::now() +
            std::chrono::milliseconds(start_timeout_ms);
        ipc_client *client = nullptr;

        while (ipc_client_open(socket_path_.c_str(), &client) != 0) {
            if (const std::optional<int> status = daemon_.ended())
                return ::testing::AssertionFailure()
                       << "the daemon ended (wait status " << *status
                       << ") before its socket " << socket_path_
                       << " took a client";
            if (std::chrono::steady_clock::now() > deadline)
                return ::testing::AssertionFailure()
                       << "no daemon socket at " << socket_path_;
            std::this_thread::sleep_for(20ms);
        }
        out->reset(client);
        return ::testing::AssertionSuccess();
    }

    /* Starts the daemon and waits until it serves its socket and has
     * logged the whole start-up: the endpoint may take a client before the
     * main thread logs the IPC server thread's start. */
    void start_daemon(enum sim_board_kind kind)
    {
        Client client;

        ASSERT_NO_FATAL_FAILURE(make_board(kind));
        ASSERT_NO_FATAL_FAILURE(spawn_daemon());
        ASSERT_TRUE(connect_client(&client));
        ASSERT_TRUE(text_appears(
            log_path_, ": Pellin Manager IPC server thread started...\n",
            start_timeout_ms));
    }

    /* The daemon's exit status, once it ended by itself. */
    void wait_exit(int *exit_code)
    {
        const std::optional<int> status = daemon_.wait(exit_timeout_ms);

        ASSERT_TRUE(status.has_value())
            << "the daemon did not end within " << exit_timeout_ms << " ms";
        ASSERT_TRUE(WIFEXITED(*status)) << "wait status " << *status;
        *exit_code = WEXITSTATUS(*status);
    }

    /* Sends one request and receives the reply; `length` may differ from
     * the words' size. */
    ::testing::AssertionResult call(uint32_t op_id,
                                    std::span<const uint32_t> words,
                                    uint32_t length, Reply *out)
    {
        Client client;
        ipc_msg_t request{};
        ipc_msg_t reply{};

        request.addr0 = 0xDEAD;
        request.addr1 = 0xBEEF;
        request.op_id = op_id;
        request.msg_type = 1;
        request.payload_len = length;
        request.payload =
            length > 0 ? const_cast<uint32_t *>(words.data()) : nullptr;
        if (::testing::AssertionResult connected = connect_client(&client);
            !connected)
            return connected;
        if (int rc = ipc_client_send(client.get(), &request); rc != 0)
            return ::testing::AssertionFailure()
                   << "send: " << std::strerror(-rc);
        if (int rc = ipc_client_recv(client.get(), &reply, reply_timeout_ms);
            rc != 0)
            return ::testing::AssertionFailure()
                   << "no reply: " << std::strerror(-rc);
        std::unique_ptr<void, decltype(&free)> payload(reply.payload, free);
        if (reply.msg_type != 2 || reply.aux_byte != 1)
            return ::testing::AssertionFailure()
                   << "reply of type " << unsigned{reply.msg_type}
                   << ", aux byte " << unsigned{reply.aux_byte};
        out->op = reply.op_id;
        const auto *bytes = static_cast<const uint8_t *>(reply.payload);
        out->payload.assign(bytes, bytes + reply.payload_len);
        return ::testing::AssertionSuccess();
    }

    /* The reply to a request is `reply_op` with exactly these bytes. */
    void expect_answer(uint32_t op_id, std::span<const uint32_t> words,
                       uint32_t length, uint32_t reply_op,
                       const std::vector<uint8_t> &expected)
    {
        Reply reply;

        ASSERT_TRUE(call(op_id, words, length, &reply))
            << "op 0x" << std::hex << op_id;
        EXPECT_EQ(reply.op, reply_op) << "op 0x" << std::hex << op_id;
        EXPECT_EQ(reply.payload, expected) << "op 0x" << std::hex << op_id;
    }

    /* The request is answered with the same op id and these words. */
    void expect_call(uint32_t op_id, std::initializer_list<uint32_t> words,
                     std::initializer_list<uint32_t> expected)
    {
        const std::span<const uint32_t> request(words.begin(), words.size());

        expect_answer(op_id, request,
                      static_cast<uint32_t>(request.size_bytes()), op_id,
                      bytes_of(expected));
    }

    /* The request is refused: an error reply naming it and `code`. */
    void expect_error_call(uint32_t op_id,
                           std::initializer_list<uint32_t> words,
                           uint32_t length, uint32_t code)
    {
        expect_answer(op_id,
                      std::span<const uint32_t>(words.begin(), words.size()),
                      length, error_reply_op, bytes_of({op_id, length, code}));
    }

    /* Lines of the file, in this order, though others may come between. */
    ::testing::AssertionResult lines_in_order(
        const std::string &path, std::span<const char *const> lines) const
    {
        std::vector<std::string> texts;

        for (const char *line : lines)
            texts.push_back(std::string(": ") + line + "\n");
        const std::string content = text_of(path);
        ::testing::AssertionResult result = in_order(content, texts);
        if (!result)
            result << " in " << path << ":\n" << content;
        return result;
    }

    SimBoard board_;
    SyslogListener syslog_;
    BoardProcess daemon_; /* ends before the board and the listener go */
    std::string log_path_;
    std::string socket_path_;
    std::string out_path_;
};

constexpr const char *main_lines_two_pipes[] = {
    "Informational - LH FPGA initialization start",
    "Informational - LH FPGA initialization complete",
    "Informational - Found 2 traffic pipes",
    "Informational - Traffic pipe 0 enabled",
    "Informational - Traffic pipe 1 enabled",
    "Thread Monitoring: pellin sys poll",
    "Pellin Manager system poll thread started...",
    "Thread Monitoring: pellin IPC server",
    "Pellin Manager IPC server thread started...",
};

TEST_F(DaemonE2e, StartUpOnTwoPipeBoard)
{
    static constexpr const char *qos_lines[] = {
        "Informational - Ingress Pkt Parser set QoS profile id 0x05 on pipe 0 "
        "with priority HIGH",
        "Informational - Ingress Pkt Parser set QoS profile id 0x04 on pipe 0 "
        "with priority MED",
        "Informational - Ingress Pkt Parser set QoS profile id 0x03 on pipe 0 "
        "with priority MED",
        "Informational - Ingress Pkt Parser set QoS profile id 0x02 on pipe 0 "
        "with priority LOW",
        "Informational - Ingress Pkt Parser set QoS profile id 0x00 on pipe 0 "
        "with priority LOW",
        "Informational - Ingress Pkt Parser set QoS profile id 0x05 on pipe 1 "
        "with priority HIGH",
        "Informational - Ingress Pkt Parser set QoS profile id 0x00 on pipe 1 "
        "with priority LOW",
    };
    static constexpr const char *init_then_qos[] = {
        "Informational - Larks Hollow FPGA Initialized",
        "Informational - LH FPGA initialization complete",
        "Informational - Ingress Pkt Parser set QoS profile id 0x05 on pipe 0 "
        "with priority HIGH",
    };

    ASSERT_NO_FATAL_FAILURE(start_daemon(SIM_BOARD_BASE2));
    EXPECT_TRUE(lines_in_order(log_path_, main_lines_two_pipes));
    EXPECT_TRUE(lines_in_order(log_path_, qos_lines));
    EXPECT_TRUE(lines_in_order(log_path_, init_then_qos));
    ASSERT_TRUE(text_appears(log_path_,
                             "Informational - traffic pipe 1 is UP\n", 3000));
    EXPECT_EQ(count_in_file(log_path_, "traffic pipe 0 is UP\n"), 1);
}

/* A board with one traffic pipe and its parser's first QoS line. */
struct OnePipeBoard {
    const char *name;
    enum sim_board_kind kind;
    const char *qos_line;
};

void PrintTo(const OnePipeBoard &param, std::ostream *out)
{
    *out << param.name;
}

const OnePipeBoard one_pipe_boards[] = {
    {"OnePipeBoard", SIM_BOARD_BASE1,
     "Informational - Ingress Pkt Parser set QoS profile id 0x05 on pipe 0 "
     "with priority HIGH"},
    {"LhxBoard", SIM_BOARD_LHX,
     "Informational - LHX Ingress Pkt Parser set QoS profile id 0x05 on "
     "pipe 0 with priority HIGH"},
};

class DaemonE2eOnePipe : public DaemonE2e,
                         public ::testing::WithParamInterface<OnePipeBoard> {
};

TEST_P(DaemonE2eOnePipe, StartUpOnOnePipeAndLhxBoards)
{
    static constexpr const char *lines[] = {
        "Informational - LH FPGA initialization start",
        "Informational - LH FPGA initialization complete",
        "Informational - Found 1 traffic pipes",
        "Informational - Traffic pipe 0 enabled",
        "Pellin Manager system poll thread started...",
        "Pellin Manager IPC server thread started...",
    };
    const OnePipeBoard &board = GetParam();

    ASSERT_NO_FATAL_FAILURE(start_daemon(board.kind));
    EXPECT_TRUE(lines_in_order(log_path_, lines));
    EXPECT_EQ(count_in_file(log_path_, board.qos_line), 1);
    EXPECT_EQ(count_in_file(log_path_, "pipe 1 with priority"), 0);
}

INSTANTIATE_TEST_SUITE_P(
    Boards, DaemonE2eOnePipe, ::testing::ValuesIn(one_pipe_boards),
    [](const ::testing::TestParamInfo<OnePipeBoard> &info) {
        return std::string(info.param.name);
    });

/* An identity the daemon does not serve. */
struct GatedBoard {
    const char *name;
    const char *idprom;
};

void PrintTo(const GatedBoard &param, std::ostream *out)
{
    *out << param.name;
}

const GatedBoard gated_boards[] = {
    {"BoardType3", "CONTROLLER_TYPE=4358\nBOARD_TYPE=3\n"},
    {"BoardType6", "CONTROLLER_TYPE=4358\nBOARD_TYPE=6\n"},
    {"BoardType4InSimulation",
     "CONTROLLER_TYPE=4358\nBOARD_TYPE=4\nBRAMBLE_SIM=1\n"},
};

class DaemonE2eGated : public DaemonE2e,
                       public ::testing::WithParamInterface<GatedBoard> {};

/* The daemon asks the service controller to stop it and ends with 0,
 * with neither a log file nor a syslog line. */
TEST_P(DaemonE2eGated, BoardsNotServedExit0Quietly)
{
    int exit_code = -1;

    ASSERT_NO_FATAL_FAILURE(make_board(SIM_BOARD_BASE2));
    ASSERT_NO_FATAL_FAILURE(listen_to_syslog());
    ASSERT_EQ(sim_board_set_idprom(board_.get(), GetParam().idprom), 0);
    ASSERT_NO_FATAL_FAILURE(spawn_daemon());
    ASSERT_NO_FATAL_FAILURE(wait_exit(&exit_code));
    EXPECT_EQ(exit_code, 0);
    EXPECT_EQ(count_in_file(out_path_,
                            "keeper_svc: no systemd here; would stop service "
                            "pellin_mgr\n"),
              1)
        << text_of(out_path_);
    EXPECT_FALSE(std::filesystem::exists(log_path_));
    const std::optional<sim_syslog_msg> message = syslog_.next(200);
    EXPECT_FALSE(message.has_value()) << "syslog: " << message->raw;
}

INSTANTIATE_TEST_SUITE_P(
    Idproms, DaemonE2eGated, ::testing::ValuesIn(gated_boards),
    [](const ::testing::TestParamInfo<GatedBoard> &info) {
        return std::string(info.param.name);
    });

TEST_F(DaemonE2e, BoardType5IsServed)
{
    Client client;

    ASSERT_NO_FATAL_FAILURE(make_board(SIM_BOARD_BASE2));
    ASSERT_EQ(sim_board_set_idprom(board_.get(),
                                   "CONTROLLER_TYPE=4358\nBOARD_TYPE=5\n"),
              0);
    ASSERT_NO_FATAL_FAILURE(spawn_daemon());
    ASSERT_TRUE(connect_client(&client));
    EXPECT_TRUE(lines_in_order(
        log_path_, std::span(main_lines_two_pipes).first(3)));
}

TEST_F(DaemonE2e, EveryOpOverTheSocket)
{
    static constexpr uint32_t stats[4] = {3, 1, 0, 0};
    Reply reply;

    ASSERT_NO_FATAL_FAILURE(start_daemon(SIM_BOARD_BASE2));
    expect_call(0xdb0002, {0x10, 0}, {0x10, 0x24031510});
    expect_call(0xdb0003, {0x2A0FC, 0x12345678}, {0x2A0FC, 0x12345678});
    EXPECT_EQ(board_.read(0x2A0FC), 0x12345678u);
    expect_error_call(0xdb0002, {0x2A100, 0}, 8, 3);
    expect_error_call(0xdb0002, {0x2A100, 0}, 7, 1);
    expect_call(0xdb0004, {2, 1}, {2, 1});
    expect_call(0xdb0005, {0, 1}, {0x04, 1});
    const ::testing::AssertionResult got_stats =
        call(0xdb0006, stats, 16, &reply);
    EXPECT_TRUE(got_stats);
    if (got_stats) {
        uint64_t count = 0;

        EXPECT_EQ(reply.op, 0xdb0006u);
        ASSERT_EQ(reply.payload.size(), 16u + 256u);
        EXPECT_EQ(std::vector<uint8_t>(reply.payload.begin(),
                                       reply.payload.begin() + 8),
                  bytes_of(std::span(stats).first(2)));
        std::memcpy(&count, reply.payload.data() + 8, sizeof(count));
        EXPECT_EQ(count, 256u);
    }
    expect_call(0xdb0007, {3, 1, 0, 0}, {3, 1, 0, 0});
    expect_error_call(0xdb0006, {2, 0, 0, 0}, 16, 6);
    reply = Reply{};
    ASSERT_TRUE(call(0xdb0008, {}, 0, &reply));
    ASSERT_EQ(reply.payload.size(), 16u * 12u);
    EXPECT_EQ(reply.payload[5 * 12], 3u);     /* caui */
    EXPECT_EQ(reply.payload[5 * 12 + 4], 1u); /* pipe 1 */
    EXPECT_EQ(reply.payload[5 * 12 + 8], 0u); /* OK */
    expect_call(0xdb000b, {1, 5, 1}, {1, 5, 1});
    expect_call(0xdb000c, {1, 5, 0}, {1, 5, 1});
    expect_call(0xdb0009, {1, 0}, {1, 0});
    expect_call(0xdb000a, {}, {0, 1, 1, 0});
}

TEST_F(DaemonE2e, UnknownOpGetsNoAnswer)
{
    ipc_msg_t request{};
    ipc_msg_t reply{};
    Client client;

    request.op_id = 0xdb000d;
    request.msg_type = 1;
    ASSERT_NO_FATAL_FAILURE(start_daemon(SIM_BOARD_LHX));
    ASSERT_TRUE(connect_client(&client));
    ASSERT_EQ(ipc_client_send(client.get(), &request), 0);
    EXPECT_EQ(ipc_client_recv(client.get(), &reply, 500), -ETIMEDOUT);
    free(reply.payload);
    client.reset();
    EXPECT_TRUE(text_appears(
        log_path_, ": Error: PLM IPC request - invalid op id 14352397\n",
        2000));
}

TEST_F(DaemonE2e, PipeDownAndUpEachLoggedOnce)
{
    ASSERT_NO_FATAL_FAILURE(start_daemon(SIM_BOARD_BASE2));
    expect_call(0xdb0009, {1, 0}, {1, 0});
    EXPECT_TRUE(text_appears(
        log_path_, ": Informational - traffic pipe 1 changed to DOWN\n",
        3000));
    std::this_thread::sleep_for(1200ms);
    expect_call(0xdb0009, {1, 1}, {1, 1});
    EXPECT_TRUE(text_appears(
        log_path_, ": Informational - traffic pipe 1 changed to UP\n", 3000));
    std::this_thread::sleep_for(1200ms);
    EXPECT_EQ(count_in_file(log_path_, "traffic pipe 1 changed to DOWN"), 1);
    EXPECT_EQ(count_in_file(log_path_, "traffic pipe 1 changed to UP"), 1);
    EXPECT_EQ(count_in_file(log_path_, "traffic pipe 0 changed"), 0);
}

TEST_F(DaemonE2e, FatalErrorsRaiseFailedOnce)
{
    ASSERT_NO_FATAL_FAILURE(start_daemon(SIM_BOARD_BASE2));
    ASSERT_TRUE(board_.set_bit(0x20800, 9)); /* CAUI pipe 1 */
    ASSERT_TRUE(text_appears(log_path_, ": FATAL - Pellin FAILED\n", 3000));
    EXPECT_EQ(count_in_file(log_path_,
                            ": FATAL - CAUI pipe 1: TX Buffer FIFO "
                            "Underflow\n"),
              1);
    EXPECT_EQ(count_in_file(log_path_,
                            ": NPU fatal error handler: caui pipe 1 (TX "
                            "Buffer FIFO Underflow)\n"),
              1);
    ASSERT_TRUE(board_.set_bit(0x16000, 16)); /* parser pipe 0 */
    ASSERT_TRUE(text_appears(log_path_,
                             ": NPU fatal error handler: ingress-pkt-parser "
                             "pipe 0 (Meta Data FIFO Parity Error)\n",
                             3000));
    std::this_thread::sleep_for(1200ms);
    EXPECT_EQ(count_in_file(log_path_, "Pellin FAILED"), 1);
    EXPECT_EQ(count_in_file(log_path_, "NPU fatal error handler"), 2);
}

TEST_F(DaemonE2e, EndpointNotCreatedEndsTheDaemon)
{
    sockaddr_un address{};
    int exit_code = -1;

    ASSERT_NO_FATAL_FAILURE(make_board(SIM_BOARD_BASE2));
    /* A live socket of someone else is never taken over. */
    const std::filesystem::path directory =
        board_.path(SIM_PATH_RUN) + "/ipc";
    ASSERT_EQ(mkdir(directory.c_str(), 0755), 0)
        << directory << ": " << std::strerror(errno);
    Fd live(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    ASSERT_GE(live.get(), 0) << std::strerror(errno);
    address.sun_family = AF_UNIX;
    ASSERT_LT(socket_path_.size(), sizeof(address.sun_path));
    std::memcpy(address.sun_path, socket_path_.c_str(),
                socket_path_.size() + 1);
    ASSERT_EQ(bind(live.get(), reinterpret_cast<sockaddr *>(&address),
                   sizeof(address)),
              0)
        << std::strerror(errno);
    ASSERT_EQ(listen(live.get(), 4), 0) << std::strerror(errno);
    ASSERT_NO_FATAL_FAILURE(spawn_daemon());
    ASSERT_NO_FATAL_FAILURE(wait_exit(&exit_code));
    EXPECT_EQ(exit_code, 255);
    live.reset();
    EXPECT_EQ(count_in_file(log_path_,
                            ": Error adding IPC_SOCK_SERVER endpoint\n"),
              1);
    EXPECT_EQ(count_in_file(log_path_,
                            ": Error initializing IPC for Pellin Manager\n\n"),
              1);
    EXPECT_EQ(count_in_file(log_path_, ": pellin IPC server: Thread "
                                       "monitor detected failure\n"),
              1);
    EXPECT_EQ(count_in_file(log_path_, "exiting - Unrecoverable error\n"), 1);
}

TEST_F(DaemonE2e, NoDeviceEndsTheDaemon)
{
    int exit_code = -1;

    ASSERT_NO_FATAL_FAILURE(make_board(SIM_BOARD_BASE2));
    ASSERT_EQ(sim_board_break_window(board_.get()), 0);
    ASSERT_NO_FATAL_FAILURE(spawn_daemon());
    ASSERT_NO_FATAL_FAILURE(wait_exit(&exit_code));
    EXPECT_EQ(exit_code, 255);
    EXPECT_EQ(count_in_file(log_path_, ": Unrecoverable program error "
                                       "detected, exiting - Failed to "
                                       "initialize FPGA\n"),
              1);
}

/* The daemon's syslog(3) blocks while the listener's queue is full, so a
 * thread keeps reading it; the test looks at what it kept. Stopped and
 * joined with the object. */
class SyslogDrain {
public:
    explicit SyslogDrain(const SyslogListener &listener)
        : listener_(listener), thread_([this] { run(); })
    {
    }
    ~SyslogDrain() { stop(); }
    SyslogDrain(const SyslogDrain &) = delete;
    SyslogDrain &operator=(const SyslogDrain &) = delete;

    void stop()
    {
        draining_ = false;
        if (thread_.joinable())
            thread_.join();
    }

    /* The first kept message whose text is `text`. */
    std::optional<sim_syslog_msg> find(const char *text)
    {
        std::lock_guard<std::mutex> lock(mutex_);

        for (const sim_syslog_msg &message : kept_)
            if (std::strcmp(message.text, text) == 0)
                return message;
        return std::nullopt;
    }

private:
    static constexpr size_t max_kept = 512;

    void run()
    {
        while (draining_) {
            std::optional<sim_syslog_msg> message = listener_.next(100);
            if (!message)
                continue;
            std::lock_guard<std::mutex> lock(mutex_);
            if (kept_.size() < max_kept)
                kept_.push_back(*message);
        }
    }

    const SyslogListener &listener_;
    std::atomic<bool> draining_{true};
    std::mutex mutex_;
    std::vector<sim_syslog_msg> kept_;
    std::thread thread_; /* last: starts once the rest is ready */
};

TEST_F(DaemonE2e, WithoutLogDirectoryRunsOnSyslog)
{
    ASSERT_NO_FATAL_FAILURE(make_board(SIM_BOARD_BASE2));
    ASSERT_NO_FATAL_FAILURE(listen_to_syslog());
    std::error_code error;
    std::filesystem::remove_all(board_.path(SIM_PATH_LOGS), error);
    ASSERT_FALSE(error) << error.message();

    SyslogDrain drain(syslog_);
    ASSERT_NO_FATAL_FAILURE(spawn_daemon());
    expect_call(0xdb0002, {0x10, 0}, {0x10, 0x24031510});
    drain.stop();

    std::optional<sim_syslog_msg> message =
        drain.find("Informational - LH FPGA initialization start");
    ASSERT_TRUE(message.has_value());
    EXPECT_STREQ(message->ident, "Pellin Manager");
    EXPECT_EQ(message->severity, 6);
    EXPECT_EQ(message->facility, 3);
    message = drain.find("Informational - Larks Hollow FPGA Initialized");
    ASSERT_TRUE(message.has_value());
    EXPECT_STREQ(message->ident, "larks-hollow-fpga");
    EXPECT_TRUE(
        drain.find("read register - addr 0xf0000010, data 0x24031510"));
    EXPECT_FALSE(std::filesystem::exists(log_path_));
}

} // namespace
