/* lhctl against the real pellin_mgr on simulated boards: every command in
 * text and JSON, the counters named by their register sources, the
 * Prometheus exposition and every exit code. lhctl runs as a child
 * process outside the sandbox and reaches the daemon through --socket. */
#include <fcntl.h>
#include <inttypes.h>
#include <poll.h>
#include <signal.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "file_watch.hpp"
#include "log_expect.hpp"
#include "plat_ipc.h"
#include "simboard.hpp"
#include "tool_support.hpp"
#include "owned.hpp"

namespace {

namespace fs = std::filesystem;

constexpr int kStartTimeoutMs = 10000;
constexpr int kRunTimeoutMs = 10000;
constexpr int kReplyTimeoutMs = 3000;
constexpr int kPollWaitMs = 3000; /* several 500 ms poll cycles of the daemon */
constexpr uid_t kNobody = 65534;  /* uid of nobody, gid of nogroup */

constexpr uint32_t kModCaui = 3;
constexpr uint32_t kModLhxNic = 12;

constexpr char kUsagePrefix[] =
    "usage: lhctl [--socket PATH] [--timeout SECONDS] [--json] ";
constexpr char kNoSocket[] = "/nonexistent/lhctl.sock";

using Args = std::vector<std::string>;
using Names = std::vector<std::string>;

struct Result {
    int status = -1; /* the exit code, -1 when killed */
    std::string out;
    std::string err;
};

using pellin::UniqueFd;

struct BoardDestroy {
    void operator()(struct sim_board *b) const { sim_board_destroy(b); }
};
using BoardPtr = std::unique_ptr<struct sim_board, BoardDestroy>;

struct ClientClose {
    void operator()(struct ipc_client *c) const { ipc_client_close(c); }
};
using ClientPtr = std::unique_ptr<struct ipc_client, ClientClose>;

std::string joined(const Args &args)
{
    std::string text;

    for (const std::string &arg : args)
        text += (text.empty() ? "" : " ") + arg;
    return text;
}

/* Expected text */

bool has_line(const std::string &text, const std::string &line)
{
    std::istringstream lines(text);
    std::string each;

    while (std::getline(lines, each))
        if (each == line)
            return true;
    return false;
}

void expect_has_line(const std::string &text, const std::string &line)
{
    EXPECT_TRUE(has_line(text, line)) << "no line \"" << line << "\"";
}

Names lines_of(const std::string &text)
{
    std::istringstream in(text);
    Names lines;
    std::string line;

    while (std::getline(in, line))
        lines.push_back(line);
    return lines;
}

size_t count_lines(const std::string &text)
{
    size_t count = 0;

    for (char c : text)
        count += c == '\n';
    return count;
}

/* A statistics table as lhctl prints it: names padded to the widest. */
std::string stats_text(const Names &names, const std::vector<uint64_t> &values)
{
    int width = static_cast<int>(strlen("COUNTER"));
    std::string text;

    for (const std::string &name : names)
        width = std::max(width, static_cast<int>(name.size()));
    text = format_text("%-*s%s\n", width + 2, "COUNTER", "VALUE");
    for (size_t i = 0; i < names.size(); i++)
        text += format_text("%-*s%" PRIu64 "\n", width + 2, names[i].c_str(),
                            values[i]);
    return text;
}

std::string stats_json(const char *module, unsigned id, unsigned pipe,
                       const Names &names, const std::vector<uint64_t> &values,
                       bool cleared)
{
    std::string text = format_text(
        "{\"module\":\"%s\",\"module_id\":%u,\"pipe\":%u,\"counters\":{",
        module, id, pipe);

    for (size_t i = 0; i < names.size(); i++)
        text += format_text("%s\"%s\":%" PRIu64, i > 0 ? "," : "",
                            names[i].c_str(), values[i]);
    text += format_text("},\"cleared\":%s}\n", cleared ? "true" : "false");
    return text;
}

/* CAUI counters by register source, high word first. */
constexpr const char *kCauiNames[32] = {
    "reg_0x504_0x500", "reg_0x50c_0x508", "reg_0x514_0x510", "reg_0x51c_0x518",
    "reg_0x5f4_0x5f0", "reg_0x5fc_0x5f8", "reg_0x60c_0x608", "reg_0x614_0x610",
    "reg_0x61c_0x618", "reg_0x624_0x620", "reg_0x69c_0x698", "reg_0x6a4_0x6a0",
    "reg_0x6ac_0x6a8", "reg_0x6b4_0x6b0", "reg_0x6bc_0x6b8", "reg_0x6c4_0x6c0",
    "reg_0x6cc_0x6c8", "reg_0x6d4_0x6d0", "reg_0x6dc_0x6d8", "reg_0x6e4_0x6e0",
    "reg_0x6ec_0x6e8", "reg_0x6fc_0x6f8", "reg_0x704_0x700", "reg_0x70c_0x708",
    "reg_0x714_0x710", "reg_0x850_0x854", "reg_0x858",       "reg_0x85c_0x860",
    "reg_0x864",       "reg_0x868",       "reg_0x86c",       "reg_0x870",
};

/* The 21 global NIC counters in record order. */
constexpr const char *kNicGlobalNames[21] = {
    "reg_0x50_0x54", "reg_0x58_0x5c", "reg_0x60_0x64", "reg_0x68_0x6c",
    "reg_0x88",      "reg_0x8c",      "reg_0x70",      "reg_0x74",
    "reg_0x78",      "reg_0x7c",      "reg_0x80",      "reg_0x84",
    "reg_0xf8",      "reg_0x90",      "reg_0x94",      "reg_0x98",
    "reg_0x9c",      "reg_0xa0",      "reg_0xa4",      "reg_0xa8",
    "reg_0xac",
};

/* Egress scheduler counters. */
constexpr const char *kEgressNames[18] = {
    "reg_0x30_0x34", "reg_0x38_0x3c", "reg_0x40_0x44", "reg_0x50",
    "reg_0x54",      "reg_0x60",      "reg_0x64",      "reg_0x70_0x74",
    "reg_0x78_0x7c", "reg_0x80_0x84", "reg_0x90",      "reg_0x94",
    "reg_0x98",      "reg_0x9c",      "reg_0xa0",      "reg_0xa4",
    "reg_0xa8",      "reg_0xac",
};

template <size_t N> Names names_of(const char *const (&list)[N])
{
    return Names(std::begin(list), std::end(list));
}

/* The NIC names: the globals, then three per queue below `queues`. */
Names nic_names(size_t queues)
{
    static constexpr const char *kSuffixes[3] = {
        "reg_0xc4_hi16",
        "reg_0xc4_0xc8",
        "reg_0xc4_0xc8_bank2",
    };
    Names names = names_of(kNicGlobalNames);

    for (size_t q = 0; q < queues; q++)
        for (const char *suffix : kSuffixes)
            names.push_back(format_text("queue_%zu_%s", q, suffix));
    return names;
}

/* The eth counters, MAC pairs (low word first) then wrappers. */
Names eth_names()
{
    static constexpr uint32_t kSingles[] = {0x508, 0x510, 0x518, 0x520, 0x5A8,
                                            0x5B0, 0x5B8, 0x5C0, 0x660, 0x6A0};
    static constexpr struct {
        uint32_t first;
        uint32_t count;
    } kRuns[] = {{0x700, 18}, {0x7B8, 1}, {0x7D0, 6}, {0x808, 17}, {0x898, 16}};
    static constexpr const char *kWrappers[] = {
        "reg_0x1050_0x1054", "reg_0x1058", "reg_0x105c_0x1060", "reg_0x1064",
        "reg_0x1068",        "reg_0x106c", "reg_0x1070",
    };
    Names names;

    for (uint32_t low : kSingles)
        names.push_back(format_text("reg_0x%x_0x%x", low + 4, low));
    for (const auto &run : kRuns)
        for (uint32_t i = 0; i < run.count; i++)
            names.push_back(format_text("reg_0x%x_0x%x", run.first + 8 * i + 4,
                                        run.first + 8 * i));
    for (const char *wrapper : kWrappers)
        names.push_back(wrapper);
    return names;
}

/* CAUI counters with known values: the port is down (no snapshot) while
 * the registers change, so every counter gets the same whole number of
 * polls k; the per-poll values below are what a poll adds. */
struct WindowWord {
    uint32_t offset;
    uint32_t value;
};

constexpr WindowWord kCauiRegisters[] = {
    {0x500, 12}, {0x504, 1}, /* counter 0: high 0x504, low 0x500 */
    {0x854, 5},              /* counter 25: high 0x850, low 0x854 */
    {0x858, 7},              /* counter 26: 32-bit */
    {0x85C, 2},  {0x860, 3}, /* counter 27: high 0x85C, low 0x860 */
};

std::vector<uint64_t> caui_per_poll()
{
    std::vector<uint64_t> values(32, 0);

    values[0] = (1ull << 32) | 12;
    values[25] = 5;
    values[26] = 7;
    values[27] = (2ull << 32) | 3;
    return values;
}

/* Checks that lhctl prints metrics the Prometheus parser takes, each
 * family once with its help, each sample once. */
constexpr char kMetricsCheck[] =
    "import re, sys\n"
    "from prometheus_client.parser import text_string_to_metric_families\n"
    "text = open(sys.argv[1]).read()\n"
    "assert text.endswith('\\n')\n"
    "name = r'[a-zA-Z_:][a-zA-Z0-9_:]*'\n"
    "label = r'[a-zA-Z_][a-zA-Z0-9_]*=\"(?:[^\"\\\\\\n]|\\\\[\\\\\"n])*\"'\n"
    "sample = re.compile(name + r'(\\{' + label + r'(,' + label + "
    "r')*\\})? [0-9]+$')\n"
    "seen = set()\n"
    "for line in text.splitlines():\n"
    "    if line.startswith('#'):\n"
    "        kind, metric = line.split(' ')[1:3]\n"
    "        assert kind in ('HELP', 'TYPE') and re.fullmatch(name, metric)\n"
    "        assert (kind, metric) not in seen, line\n"
    "        seen.add((kind, metric))\n"
    "    else:\n"
    "        assert sample.match(line), line\n"
    "families, keys = set(), set()\n"
    "for f in text_string_to_metric_families(text):\n"
    "    assert f.name not in families and f.documentation, f.name\n"
    "    assert f.type in ('gauge', 'counter'), f.name\n"
    "    families.add(f.name)\n"
    "    for s in f.samples:\n"
    "        key = (s.name, tuple(sorted(s.labels.items())))\n"
    "        assert key not in keys, key\n"
    "        keys.add(key)\n"
    "    print(f.name, f.type, len(f.samples))\n";

constexpr char kJsonCheck[] =
    "import json, sys\n"
    "d = json.load(open(sys.argv[1]))\n"
    "print(sorted(d), len(d['modules']), len(d['pipes']), len(d['stats']))\n"
    "print(sum(len(s['counters']) for s in d['stats']))\n";

/* The test's own server sockets */

void bind_socket(const std::string &path, int backlog, UniqueFd *fd)
{
    struct sockaddr_un address = {};

    address.sun_family = AF_UNIX;
    *fd = UniqueFd(socket(AF_UNIX, SOCK_STREAM, 0));
    ASSERT_GE(fd->get(), 0);
    ASSERT_LT(path.size(), sizeof(address.sun_path));
    memcpy(address.sun_path, path.c_str(), path.size() + 1);
    ASSERT_EQ(bind(fd->get(), reinterpret_cast<struct sockaddr *>(&address),
                   sizeof(address)),
              0)
        << path << ": " << strerror(errno);
    if (backlog > 0) {
        ASSERT_EQ(listen(fd->get(), backlog), 0);
    }
}

void receive_exactly(int conn, uint8_t *buf, size_t length)
{
    size_t got = 0;

    while (got < length) {
        struct pollfd c = {conn, POLLIN, 0};

        ASSERT_EQ(poll(&c, 1, kReplyTimeoutMs), 1);
        ssize_t n = recv(conn, buf + got, length - got, 0);
        ASSERT_GT(n, 0);
        got += static_cast<size_t>(n);
    }
}

/* Accepts one connection and reads one whole request from it (the
 * connection stays open, unanswered); its op id in *op. */
void read_request_op(int listener, UniqueFd *conn, uint32_t *op)
{
    struct pollfd p = {listener, POLLIN, 0};
    uint8_t header[32], payload[64];
    uint32_t length;

    ASSERT_EQ(poll(&p, 1, kReplyTimeoutMs), 1) << "no request came";
    *conn = UniqueFd(accept(listener, NULL, NULL));
    ASSERT_GE(conn->get(), 0);
    ASSERT_NO_FATAL_FAILURE(
        receive_exactly(conn->get(), header, sizeof(header)));
    memcpy(op, header + 8, sizeof(*op));
    memcpy(&length, header + 16, sizeof(length));
    ASSERT_LE(length, sizeof(payload));
    ASSERT_NO_FATAL_FAILURE(receive_exactly(conn->get(), payload, length));
}

/* A reply record and its payload, as a daemon would send it: op id at 8,
 * message type at 13, payload length at 16. */
void send_reply(int conn, uint32_t op, const void *payload, uint32_t length)
{
    uint8_t header[32] = {0};

    memcpy(header + 8, &op, sizeof(op));
    header[12] = 1;
    header[13] = 2;
    memcpy(header + 16, &length, sizeof(length));
    EXPECT_EQ(send(conn, header, sizeof(header), MSG_NOSIGNAL), 32);
    EXPECT_EQ(send(conn, payload, length, MSG_NOSIGNAL),
              static_cast<ssize_t>(length));
}

/* lhctl and the other programs, with their output in scratch files. */
class LhctlTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        signal(SIGPIPE, SIG_IGN);
        ASSERT_TRUE(scratch_.made()) << "no scratch directory in /tmp";
    }

    std::string scratch_file(const char *name) const
    {
        return scratch_.file(name);
    }

    /* Runs argv with stdout and stderr in files, as `uid` unless it is 0. */
    Child spawn(const Args &argv, uid_t uid = 0) const
    {
        SpawnOptions options;

        options.out = scratch_file("out.txt");
        options.err = scratch_file("err.txt");
        options.uid = uid;
        return spawn_program(argv.at(0), argv, options);
    }

    Result finish(Child child) const
    {
        Result r;
        int status = 0;

        EXPECT_TRUE(child.wait(kRunTimeoutMs, &status))
            << "killed after " << kRunTimeoutMs << " ms";
        r.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
        r.out = text_of(scratch_file("out.txt"));
        r.err = text_of(scratch_file("err.txt"));
        return r;
    }

    /* PROGRAM --socket SOCKET args... */
    Child spawn_ctl(const std::string &socket, const Args &args, uid_t uid = 0,
                    const std::string &program = LHCTL_PATH) const
    {
        Args argv = {program, "--socket", socket};

        argv.insert(argv.end(), args.begin(), args.end());
        return spawn(argv, uid);
    }

    Result run_ctl(const std::string &socket, const Args &args) const
    {
        return finish(spawn_ctl(socket, args));
    }

    /* An expected output of null is not compared. */
    void expect_ctl(const std::string &socket, int status, const char *out,
                    const char *err, const Args &args) const
    {
        SCOPED_TRACE("lhctl " + joined(args));
        Result r = run_ctl(socket, args);

        if (err != nullptr) {
            EXPECT_EQ(r.err, err);
        }
        if (out != nullptr) {
            EXPECT_EQ(r.out, out);
        }
        EXPECT_EQ(r.status, status);
    }

    /* /usr/bin/python3 -c SCRIPT FILE: its standard output, exit 0
     * expected. */
    std::string python_check(const char *script, const std::string &text) const
    {
        std::string path = scratch_file("checked.txt");
        FILE *f = fopen(path.c_str(), "w");

        EXPECT_NE(f, nullptr) << path;
        if (f == nullptr)
            return "";
        fputs(text.c_str(), f);
        fclose(f);
        Result r = finish(spawn({"/usr/bin/python3", "-c", script, path}));
        EXPECT_EQ(r.err, "");
        EXPECT_EQ(r.status, 0);
        unlink(path.c_str());
        return r.out;
    }

private:
    TempDir scratch_{"/tmp/lhctl_out_"};
};

/* The daemon on a board of its own, with keeper_svc where the sandbox's
 * PATH finds it; everything goes when the case ends. */
class DaemonTest : public LhctlTest {
protected:
    explicit DaemonTest(enum sim_board_kind kind) : kind_(kind) {}

    void SetUp() override
    {
        std::string why;

        LhctlTest::SetUp();
        if (HasFatalFailure())
            return;
        if (!sandbox_ready(&why))
            GTEST_SKIP() << why;
        ASSERT_NO_FATAL_FAILURE(make_board());
        ASSERT_NO_FATAL_FAILURE(spawn_daemon());
        ClientPtr client = connect_client();
        ASSERT_TRUE(client != nullptr);
    }

    /* lhctl --socket (the daemon's socket) args... */
    void ctl(int status, const char *out, const char *err,
             const Args &args) const
    {
        expect_ctl(socket_, status, out, err, args);
    }

    void ctl(int status, const std::string &out, const char *err,
             const Args &args) const
    {
        expect_ctl(socket_, status, out.c_str(), err, args);
    }

    ClientPtr connect_client()
    {
        struct ipc_client *client = NULL;
        long long start = now_ms();

        while (ipc_client_open(socket_.c_str(), &client) != 0) {
            if (daemon_.ended()) {
                ADD_FAILURE() << "the daemon ended: " << text_of(out_path_);
                return nullptr;
            }
            if (now_ms() - start > kStartTimeoutMs) {
                ADD_FAILURE() << "no daemon socket at " << socket_;
                return nullptr;
            }
            usleep(20000);
        }
        return ClientPtr(client);
    }

    /* A word of a module instance's statistics record. */
    std::optional<uint64_t> raw_word(uint32_t module, uint32_t pipe,
                                     size_t offset) const
    {
        std::vector<uint8_t> record = daemon_stats(socket_, module, pipe);
        uint64_t value = 0;

        EXPECT_LE(offset + 8, record.size())
            << "module " << module << " pipe " << pipe;
        if (offset + 8 > record.size())
            return std::nullopt;
        memcpy(&value, record.data() + offset, sizeof(value));
        return value;
    }

    std::optional<uint64_t> wait_raw_word(uint32_t module, uint32_t pipe,
                                          size_t offset) const
    {
        long long start = now_ms();
        std::optional<uint64_t> value;

        while ((value = raw_word(module, pipe, offset)) == 0u) {
            if (now_ms() - start > kPollWaitMs) {
                ADD_FAILURE() << format_text("module %u pipe %u: word %zu "
                                             "still 0",
                                             module, pipe, offset);
                return std::nullopt;
            }
            usleep(20000);
        }
        return value;
    }

    void write_window(uint32_t offset, uint32_t value) const
    {
        EXPECT_EQ(sim_board_write(board_.get(), offset, value), 0)
            << format_text("0x%x", offset);
    }

    void write_caui_registers(uint32_t pipe, bool set) const
    {
        for (const WindowWord &w : kCauiRegisters)
            write_window(0x10000 + 0x10000 * pipe + w.offset,
                         set ? w.value : 0);
    }

    /* The CAUI counters of `pipe` after k polls of kCauiRegisters. */
    void load_caui_counters(uint32_t pipe, std::vector<uint64_t> *values) const
    {
        const char *p = pipe == 0 ? "0" : "1";

        ctl(0, "down\n", "", {"pipe", p, "down"});
        ctl(0, nullptr, "", {"stats", "caui", p, "--clear"});
        write_caui_registers(pipe, true);
        ctl(0, "up\n", "", {"pipe", p, "up"});
        ASSERT_TRUE(wait_raw_word(kModCaui, pipe, 0).has_value());
        ctl(0, "down\n", "", {"pipe", p, "down"});
        usleep(100000); /* a poll that still saw the port up has ended */
        write_caui_registers(pipe, false);
        ctl(0, "up\n", "", {"pipe", p, "up"});
        *values = caui_per_poll();
        std::optional<uint64_t> sum = raw_word(kModCaui, pipe, 0);
        ASSERT_TRUE(sum.has_value());
        uint64_t k = *sum / (*values)[0];
        ASSERT_GE(k, 1u);
        ASSERT_EQ(raw_word(kModCaui, pipe, 0), k * (*values)[0]);
        for (uint64_t &value : *values)
            value *= k;
    }

    /* Every NIC queue up to the max queue id 255 is in the record once
     * the daemon has polled it. */
    void wait_nic_queues_polled(uint32_t pipe) const
    {
        ASSERT_TRUE(wait_raw_word(4, pipe, 21 * 8 + 255 * 32).has_value())
            << "NIC pipe " << pipe;
    }

    void wait_module_failed(const std::string &entry) const
    {
        long long start = now_ms();

        while (run_ctl(socket_, {"--json", "modules"}).out.find(entry) ==
               std::string::npos) {
            if (now_ms() - start > kPollWaitMs)
                FAIL() << entry << " not in the module list";
            usleep(50000);
        }
    }

    struct sim_board *board() const { return board_.get(); }

    TempDir parent_{"/tmp/lhctl_test_"};
    std::string socket_;

private:
    void make_board()
    {
        struct sim_board *b = NULL;
        std::error_code error;

        ASSERT_TRUE(parent_.made()) << "no board directory in /tmp";
        ASSERT_EQ(sim_board_create(parent_.file("board").c_str(), kind_, &b),
                  0)
            << "board: " << sim_board_last_error();
        board_.reset(b);
        socket_ =
            std::string(sim_board_path(b, SIM_PATH_RUN)) + "/ipc/219.sock";
        out_path_ = parent_.file("daemon.txt");
        ASSERT_NO_FATAL_FAILURE(install_keeper_svc(b, KEEPER_SVC_PATH));
    }

    /* The daemon's standard output goes to out_path_. */
    void spawn_daemon()
    {
        const pid_t pid =
            ::spawn_daemon(board_.get(), PELLIN_MGR_PATH, out_path_);

        ASSERT_GT(pid, 0);
        daemon_ = Child(pid);
    }

    enum sim_board_kind kind_;
    BoardPtr board_;
    std::string out_path_;
    Child daemon_; /* declared last: it ends before its board goes */
};

class LhctlOffline : public LhctlTest {};

class LhctlBase2 : public DaemonTest {
protected:
    LhctlBase2() : DaemonTest(SIM_BOARD_BASE2) {}
};

class LhctlLhx : public DaemonTest {
protected:
    LhctlLhx() : DaemonTest(SIM_BOARD_LHX) {}
};

/* Base board (two pipes) */

TEST_F(LhctlBase2, Modules)
{
    static const char text[] = "ID  NAME                    PIPE  STATE\n"
                               "0   global                  0     OK\n"
                               "1   pcie                    0     OK\n"
                               "2   ddr4                    0     OK\n"
                               "2   ddr4                    1     OK\n"
                               "3   caui                    0     OK\n"
                               "3   caui                    1     OK\n"
                               "4   nic                     0     OK\n"
                               "4   nic                     1     OK\n"
                               "5   ingress-pkt-parser      0     OK\n"
                               "5   ingress-pkt-parser      1     OK\n"
                               "6   ingress-pkt-classifier  0     OK\n"
                               "6   ingress-pkt-classifier  1     OK\n"
                               "7   ingress-pkt-processor   0     OK\n"
                               "7   ingress-pkt-processor   1     OK\n"
                               "8   egress-scheduler        0     OK\n"
                               "8   egress-scheduler        1     OK\n";
    static const char json[] =
        "{\"modules\":["
        "{\"id\":0,\"name\":\"global\",\"pipe\":0,\"state\":\"OK\"},"
        "{\"id\":1,\"name\":\"pcie\",\"pipe\":0,\"state\":\"OK\"},"
        "{\"id\":2,\"name\":\"ddr4\",\"pipe\":0,\"state\":\"OK\"},"
        "{\"id\":2,\"name\":\"ddr4\",\"pipe\":1,\"state\":\"OK\"},"
        "{\"id\":3,\"name\":\"caui\",\"pipe\":0,\"state\":\"OK\"},"
        "{\"id\":3,\"name\":\"caui\",\"pipe\":1,\"state\":\"OK\"},"
        "{\"id\":4,\"name\":\"nic\",\"pipe\":0,\"state\":\"OK\"},"
        "{\"id\":4,\"name\":\"nic\",\"pipe\":1,\"state\":\"OK\"},"
        "{\"id\":5,\"name\":\"ingress-pkt-parser\",\"pipe\":0,\"state\":"
        "\"OK\"},"
        "{\"id\":5,\"name\":\"ingress-pkt-parser\",\"pipe\":1,\"state\":"
        "\"OK\"},"
        "{\"id\":6,\"name\":\"ingress-pkt-classifier\",\"pipe\":0,\"state\":"
        "\"OK\"},"
        "{\"id\":6,\"name\":\"ingress-pkt-classifier\",\"pipe\":1,\"state\":"
        "\"OK\"},"
        "{\"id\":7,\"name\":\"ingress-pkt-processor\",\"pipe\":0,\"state\":"
        "\"OK\"},"
        "{\"id\":7,\"name\":\"ingress-pkt-processor\",\"pipe\":1,\"state\":"
        "\"OK\"},"
        "{\"id\":8,\"name\":\"egress-scheduler\",\"pipe\":0,\"state\":\"OK\"},"
        "{\"id\":8,\"name\":\"egress-scheduler\",\"pipe\":1,\"state\":\"OK\"}"
        "]}\n";

    ctl(0, text, "", {"modules"});
    ctl(0, json, "", {"--json", "modules"});
    ctl(0, json, "", {"modules", "--json"});
}

TEST_F(LhctlBase2, PipesDownAndUp)
{
    ctl(0, "PIPE  STATE\n0     up\n1     up\n", "", {"pipes"});
    ctl(0, "down\n", "", {"pipe", "1", "down"});
    ctl(0, "PIPE  STATE\n0     up\n1     down\n", "", {"pipes"});
    ctl(0,
        "{\"pipes\":[{\"pipe\":0,\"state\":\"up\"},"
        "{\"pipe\":1,\"state\":\"down\"}]}\n",
        "", {"--json", "pipes"});
    ctl(0, "{\"pipe\":1,\"state\":\"up\"}\n", "",
        {"--json", "pipe", "1", "up"});
    ctl(0, "PIPE  STATE\n0     up\n1     up\n", "", {"pipes"});
}

TEST_F(LhctlBase2, RegReadAndWrite)
{
    uint32_t value = 0;

    ctl(0, "0x24031510\n", "", {"reg", "read", "0x10"});
    ctl(0, "0xcafe0001\n", "", {"reg", "write", "0xfc", "0xCAFE0001"});
    ASSERT_EQ(sim_board_read(board(), 0xfc, &value), 0);
    EXPECT_EQ(value, 0xcafe0001u);
    ctl(0, "0xcafe0001\n", "", {"reg", "read", "252"});
    ctl(0, "{\"offset\":252,\"value\":3405643777}\n", "",
        {"--json", "reg", "read", "0xfc"});
    ctl(0, "{\"offset\":252,\"value\":7}\n", "",
        {"--json", "reg", "write", "0xfc", "7"});
    ASSERT_EQ(sim_board_read(board(), 0xfc, &value), 0);
    EXPECT_EQ(value, 7u);
}

TEST_F(LhctlBase2, StatsNamedByRegisterSource)
{
    std::vector<uint64_t> values, zeros(32, 0);
    const Names names = names_of(kCauiNames);

    ASSERT_NO_FATAL_FAILURE(load_caui_counters(0, &values));
    const std::string text = stats_text(names, values);
    const std::string json = stats_json("caui", 3, 0, names, values, false);
    const std::string zero_text = stats_text(names, zeros);
    const std::string zero_json = stats_json("caui", 3, 0, names, zeros, true);
    ctl(0, text, "", {"stats", "caui", "0"});
    ctl(0, text, "", {"stats", "3", "0"});
    ctl(0, json, "", {"--json", "stats", "caui", "0"});
    /* --clear prints what was there, then it is gone. */
    ctl(0, text, "", {"stats", "caui", "0", "--clear"});
    ctl(0, zero_text, "", {"stats", "caui", "0"});
    ctl(0, zero_json, "", {"stats", "--clear", "caui", "0", "--json"});
}

TEST_F(LhctlBase2, StatsOfEveryBaseBlock)
{
    /* One row per block with statistics on the base image (pipe 0). */
    static const struct {
        const char *name;
        const char *id;
        size_t counters;
        const char *first;
        const char *last;
    } blocks[] = {
        {"pcie", "1", 2, "reg_0x50", "reg_0x54"},
        {"caui", "3", 32, "reg_0x504_0x500", "reg_0x870"},
        {"nic", "4", 21 + 3 * 256, "reg_0x50_0x54",
         "queue_255_reg_0xc4_0xc8_bank2"},
        {"ingress-pkt-parser", "5", 15, "reg_0x50_0x54", "reg_0x94"},
        {"ingress-pkt-classifier", "6", 71, "reg_0x20_0x24", "reg_0x734"},
        {"ingress-pkt-processor", "7", 17, "reg_0x20_0x24", "reg_0x84"},
        {"egress-scheduler", "8", 18, "reg_0x30_0x34", "reg_0xac"},
    };

    ASSERT_NO_FATAL_FAILURE(wait_nic_queues_polled(0));
    for (const auto &row : blocks) {
        SCOPED_TRACE(row.name);
        Result by_name = run_ctl(socket_, {"stats", row.name, "0"});
        Result by_id = run_ctl(socket_, {"stats", row.id, "0"});
        const Names lines = lines_of(by_name.out);

        EXPECT_EQ(by_name.status, 0);
        EXPECT_EQ(count_lines(by_name.out), row.counters + 1);
        ASSERT_GE(lines.size(), 2u);
        EXPECT_TRUE(lines.front().starts_with("COUNTER ")) << lines.front();
        EXPECT_TRUE(lines[1].starts_with(row.first)) << lines[1];
        EXPECT_TRUE(lines.back().starts_with(row.last)) << lines.back();
        ASSERT_GT(lines.back().size(), strlen(row.last));
        EXPECT_EQ(lines.back()[strlen(row.last)], ' ') << lines.back();
        EXPECT_EQ(by_id.status, 0);
    }
    ctl(0, stats_text(names_of(kEgressNames), std::vector<uint64_t>(18, 0)),
        "", {"stats", "egress-scheduler", "1"});
    /* Every queue up to the max queue id 255 is present once polled. */
    ASSERT_NO_FATAL_FAILURE(wait_nic_queues_polled(1));
    const Names names = nic_names(256);
    ctl(0, stats_text(names, std::vector<uint64_t>(names.size(), 0)), "",
        {"stats", "nic", "1"});
}

TEST_F(LhctlBase2, LoopbackGetAndSet)
{
    ctl(0, "disable-all\n", "", {"loopback", "1"});
    ctl(0, "pma-near\n", "", {"loopback", "1", "pma-near"});
    ctl(0, "pma-near\n", "", {"loopback", "1"});
    ctl(0, "{\"pipe\":1,\"mask\":4,\"types\":[\"pma-near\"]}\n", "",
        {"--json", "loopback", "1"});
    /* Another type needs disable-all first. */
    ctl(1, "", "lhctl: LOOPBACK FAILED\n", {"loopback", "1", "pcs-far"});
    ctl(0, "{\"pipe\":1,\"mask\":0,\"types\":[\"disable-all\"]}\n", "",
        {"--json", "loopback", "1", "disable-all"});
    ctl(0, "{\"pipe\":1,\"mask\":16,\"types\":[\"pcs-far\"]}\n", "",
        {"--json", "loopback", "1", "pcs-far"});
    ctl(0, "pcs-far\n", "", {"loopback", "1"});
    ctl(0, "disable-all\n", "", {"loopback", "1", "disable-all"});
    ctl(0, "{\"pipe\":1,\"mask\":0,\"types\":[\"disable-all\"]}\n", "",
        {"--json", "loopback", "1"});
}

TEST_F(LhctlBase2, QosGetAndSet)
{
    ctl(0, "high\n", "", {"qos", "1", "9", "high"});
    ctl(0, "high\n", "", {"qos", "1", "9"});
    ctl(0, "{\"pipe\":1,\"profile\":9,\"priority\":\"med\"}\n", "",
        {"--json", "qos", "1", "9", "med"});
    ctl(0, "{\"pipe\":1,\"profile\":9,\"priority\":\"med\"}\n", "",
        {"--json", "qos", "1", "9"});
    ctl(0, "low\n", "", {"qos", "1", "0x9", "low"});
    ctl(0, "low\n", "", {"qos", "1", "9"});
}

TEST_F(LhctlBase2, ErrorRepliesExit1)
{
    const struct {
        Args args;
        const char *err;
    } cases[] = {
        {{"reg", "read", "0x2A100"}, "lhctl: READ FAILED\n"},
        {{"reg", "write", "0x2A100", "1"}, "lhctl: WRITE FAILED\n"},
        {{"loopback", "2"}, "lhctl: LOOPBACK FAILED\n"},
        {{"loopback", "2", "pma-far"}, "lhctl: LOOPBACK FAILED\n"},
        {{"stats", "ddr4", "0"}, "lhctl: GET STATS FAILED\n"},
        {{"stats", "eth", "0"}, "lhctl: GET STATS FAILED\n"},
        {{"stats", "caui", "2", "--clear"}, "lhctl: GET STATS FAILED\n"},
        {{"pipe", "2", "up"}, "lhctl: SET PIPE FAILED\n"},
        {{"qos", "0", "200", "high"}, "lhctl: SET INGR QOS FAILED\n"},
        {{"qos", "2", "5"}, "lhctl: GET INGR QOS FAILED\n"},
    };

    for (const auto &c : cases)
        ctl(1, "", c.err, c.args);
    ctl(1, "", "lhctl: READ FAILED\n", {"--json", "reg", "read", "0x2A100"});
}

TEST_F(LhctlBase2, MetricsPrometheus)
{
    std::vector<uint64_t> values;

    ASSERT_NO_FATAL_FAILURE(load_caui_counters(1, &values));
    ASSERT_NO_FATAL_FAILURE(wait_nic_queues_polled(0));
    ASSERT_NO_FATAL_FAILURE(wait_nic_queues_polled(1));
    Result r = run_ctl(socket_, {"metrics"});
    EXPECT_EQ(r.err, "");
    ASSERT_EQ(r.status, 0);
    EXPECT_EQ(python_check(kMetricsCheck, r.out),
              "pellin_module_failed gauge 16\n"
              "pellin_pipe_up gauge 2\n"
              "pellin_block_counter counter 1886\n");
    EXPECT_TRUE(r.out.starts_with("# HELP pellin_module_failed "));
    expect_has_line(r.out, "# TYPE pellin_module_failed gauge");
    expect_has_line(r.out, "# TYPE pellin_pipe_up gauge");
    expect_has_line(r.out, "# TYPE pellin_block_counter_total counter");
    expect_has_line(r.out,
                    "pellin_module_failed{module=\"caui\",pipe=\"1\"} 0");
    expect_has_line(r.out,
                    "pellin_module_failed{module=\"global\",pipe=\"0\"} 0");
    expect_has_line(r.out, "pellin_pipe_up{pipe=\"0\"} 1");
    expect_has_line(r.out, "pellin_pipe_up{pipe=\"1\"} 1");
    expect_has_line(r.out,
                    "pellin_block_counter_total{module=\"nic\",pipe="
                    "\"0\",counter=\"queue_255_reg_0xc4_0xc8_bank2\"} 0");
    expect_has_line(r.out,
                    format_text("pellin_block_counter_total{module=\"caui\","
                                "pipe=\"1\",counter=\"reg_0x504_0x500\"} "
                                "%" PRIu64,
                                values[0]));
    expect_has_line(r.out,
                    format_text("pellin_block_counter_total{module=\"caui\","
                                "pipe=\"1\",counter=\"reg_0x858\"} %" PRIu64,
                                values[26]));
    EXPECT_EQ(r.out.find("module=\"ddr4\",pipe=\"0\",counter"),
              std::string::npos);
}

TEST_F(LhctlBase2, MetricsJson)
{
    static const char first_module[] =
        "{\"modules\":[{\"id\":0,\"name\":\"global\",\"pipe\":0,"
        "\"state\":\"OK\"},";

    ASSERT_NO_FATAL_FAILURE(wait_nic_queues_polled(0));
    ASSERT_NO_FATAL_FAILURE(wait_nic_queues_polled(1));
    Result r = run_ctl(socket_, {"--json", "metrics"});
    ASSERT_EQ(r.status, 0);
    EXPECT_TRUE(r.out.starts_with(first_module));
    EXPECT_NE(r.out.find("],\"pipes\":[{\"pipe\":0,\"state\":\"up\"},"
                         "{\"pipe\":1,\"state\":\"up\"}],\"stats\":"
                         "[{\"module\":\"pcie\",\"module_id\":1,"
                         "\"pipe\":0,\"counters\":{\"reg_0x50\":"),
              std::string::npos);
    EXPECT_EQ(python_check(kJsonCheck, r.out),
              "['modules', 'pipes', 'stats'] 16 2 13\n"
              "1886\n");
}

/* lhctl as nobody, refused by the socket's mode alone. nobody gets a copy
 * of lhctl in a directory it can reach, since the build may lie where it
 * cannot (a checkout under a mode 700 home). */
TEST_F(LhctlBase2, PermissionDeniedExit3)
{
    std::string why;
    struct stat st;
    std::error_code error;

    if (!can_become(kNobody, &why))
        GTEST_SKIP() << why;
    ASSERT_EQ(stat(socket_.c_str(), &st), 0);
    ASSERT_EQ(st.st_mode & 0777, 0660u);
    /* Only the socket's own mode stands in the way. */
    ASSERT_EQ(chmod(parent_.path().c_str(), 0755), 0);
    ASSERT_EQ(chmod(sim_board_path(board(), SIM_PATH_ROOT), 0755), 0);
    ASSERT_EQ(chmod(sim_board_path(board(), SIM_PATH_RUN), 0755), 0);
    TempDir bin("/tmp/lhctl_nobody_");
    ASSERT_TRUE(bin.made()) << "no directory for lhctl in /tmp";
    ASSERT_EQ(chmod(bin.path().c_str(), 0755), 0);
    const std::string program = bin.file("lhctl");
    fs::copy_file(LHCTL_PATH, program, error);
    ASSERT_FALSE(error) << LHCTL_PATH << ": " << error.message();
    ASSERT_EQ(chmod(program.c_str(), 0755), 0);
    Result r = finish(spawn_ctl(socket_, {"modules"}, kNobody, program));
    EXPECT_EQ(r.err, "lhctl: permission denied: " + socket_ + "\n");
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.status, 3);
}

/* Without a daemon */

TEST_F(LhctlOffline, UsageErrorsExit2)
{
    const std::string usage = kUsagePrefix;
    const struct {
        Args args;
        std::string err;
    } cases[] = {
        {{"reg", "read", "0xZZ"},
         "lhctl: bad OFFSET \"0xZZ\"\n" + usage + "reg read OFFSET\n"},
        {{"reg", "write", "0x10", "-1"},
         "lhctl: bad VALUE \"-1\"\n" + usage + "reg write OFFSET VALUE\n"},
        {{"reg", "write", "0x10", "0x100000000"},
         "lhctl: bad VALUE \"0x100000000\"\n" + usage +
             "reg write OFFSET VALUE\n"},
        {{"stats", "foo", "0"},
         "lhctl: unknown module \"foo\"\n" + usage +
             "stats MODULE PIPE [--clear]\n"},
        {{"stats", "15", "0"},
         "lhctl: unknown module \"15\"\n" + usage +
             "stats MODULE PIPE [--clear]\n"},
        {{"stats", "caui", "x"},
         "lhctl: bad PIPE \"x\"\n" + usage + "stats MODULE PIPE [--clear]\n"},
        {{"loopback", "0", "far"},
         "lhctl: unknown loopback type \"far\"\n" + usage +
             "loopback PIPE [disable-all|pcs-near|pma-near|pma-far|pcs-far]\n"},
        {{"qos", "0", "5", "urgent"},
         "lhctl: unknown priority \"urgent\"\n" + usage +
             "qos PIPE PROFILE [low|med|high]\n"},
        {{"pipe", "0", "sideways"},
         "lhctl: unknown pipe state \"sideways\"\n" + usage +
             "pipe PIPE up|down\n"},
        {{"pipe", "0"},
         "lhctl: missing argument\n" + usage + "pipe PIPE up|down\n"},
        {{"modules", "extra"},
         "lhctl: unexpected argument \"extra\"\n" + usage + "modules\n"},
        {{"metrics", "--clear"},
         "lhctl: unexpected argument \"--clear\"\n" + usage + "metrics\n"},
    };
    /* Errors before a command is known print the whole usage. */
    const struct {
        Args args;
        std::string first_line;
    } general[] = {
        {{"frobnicate"}, "lhctl: unknown command \"frobnicate\"\n"},
        {{"reg"}, "lhctl: unknown command \"reg\"\n"},
        {{"--bogus", "modules"}, "lhctl: unknown option \"--bogus\"\n"},
        {{"--timeout", "abc", "modules"}, "lhctl: bad timeout \"abc\"\n"},
        {{"--timeout", "0", "modules"}, "lhctl: bad timeout \"0\"\n"},
        {{"modules", "--timeout"}, "lhctl: option --timeout needs a value\n"},
        {{}, "lhctl: no command\n"},
    };

    /* Never a request: the socket does not exist, yet the exit is 2. */
    for (const auto &c : cases)
        expect_ctl(kNoSocket, 2, "", c.err.c_str(), c.args);
    for (const auto &g : general) {
        SCOPED_TRACE("lhctl " + joined(g.args));
        Result r = run_ctl(kNoSocket, g.args);

        EXPECT_EQ(r.status, 2);
        EXPECT_EQ(r.out, "");
        EXPECT_TRUE(r.err.starts_with(g.first_line + usage + "COMMAND ...\n"))
            << r.err;
        EXPECT_NE(r.err.find("\n  metrics "), std::string::npos) << r.err;
    }
}

TEST_F(LhctlOffline, HelpExit0)
{
    Result r = run_ctl(kNoSocket, {"--help"});

    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.err, "");
    EXPECT_TRUE(r.out.starts_with(std::string(kUsagePrefix) + "COMMAND ...\n"))
        << r.out;
    EXPECT_NE(r.out.find("\n  stats MODULE PIPE [--clear] "),
              std::string::npos);
    EXPECT_NE(r.out.find("\n  --timeout SECONDS "), std::string::npos);
}

/* Each command's --help: its usage line and what it does, on standard
 * output; a group lists its commands. Never a request. */
TEST_F(LhctlOffline, HelpOfEveryCommand)
{
    const std::string usage = kUsagePrefix;
    const struct {
        Args args;
        std::string out;
    } cases[] = {
        {{"modules", "--help"},
         usage + "modules\nEach module instance of the image: id, name, pipe "
                 "and OK, or FAILED once it has reported a fatal hardware "
                 "error.\n"},
        {{"pipes", "-h"}, usage + "pipes\nEach traffic pipe, up or down.\n"},
        {{"pipe", "--help"},
         usage + "pipe PIPE up|down\nUp waits until the port is aligned or "
                 "has been reset three times; `pipes` tells whether the link "
                 "came up.\n"},
        {{"stats", "caui", "--help"},
         usage + "stats MODULE PIPE [--clear]\nEvery counter of the "
                 "instance, named by its register source; --clear clears "
                 "them after reading.\n"},
        {{"reg", "read", "--help"},
         usage + "reg read OFFSET\nReads the 32-bit word at OFFSET of the "
                 "FPGA's window.\n"},
        {{"--json", "reg", "write", "-h"},
         usage + "reg write OFFSET VALUE\nWrites VALUE to the 32-bit word at "
                 "OFFSET of the FPGA's window.\n"},
        {{"reg", "--help"},
         usage + "reg read OFFSET\n  read a register\n" + usage +
             "reg write OFFSET VALUE\n  write a register\n"},
        {{"loopback", "--help"},
         usage + "loopback PIPE [disable-all|pcs-near|pma-near|pma-far|"
                 "pcs-far]\nAnother type than the one on needs disable-all "
                 "first.\n"},
        {{"qos", "--help"},
         usage + "qos PIPE PROFILE [low|med|high]\nPROFILE is 0 to 127.\n"},
        {{"metrics", "--help"},
         usage + "metrics\nModule health, pipe states and every counter, in "
                 "the Prometheus text format (one JSON object with "
                 "--json).\n"},
    };

    for (const auto &c : cases)
        expect_ctl(kNoSocket, 0, c.out.c_str(), "", c.args);
}

TEST_F(LhctlOffline, DaemonNotRunningExit3)
{
    const std::string dead = scratch_file("dead.sock");

    expect_ctl(kNoSocket, 3, "",
               format_text("lhctl: daemon not running: no socket at %s\n",
                           kNoSocket)
                   .c_str(),
               {"pipes"});
    /* A socket file that nobody serves. */
    {
        UniqueFd fd;
        ASSERT_NO_FATAL_FAILURE(bind_socket(dead, 0, &fd));
    }
    expect_ctl(dead, 3, "",
               ("lhctl: daemon not running: nothing serves " + dead + "\n")
                   .c_str(),
               {"--json", "modules"});
    unlink(dead.c_str());
}

TEST_F(LhctlOffline, NoAnswerTimesOutExit3)
{
    const std::string path = scratch_file("silent.sock");
    UniqueFd listener, conn;
    uint32_t op = 0;

    ASSERT_NO_FATAL_FAILURE(bind_socket(path, 4, &listener));
    long long start = now_ms();
    Child child = spawn_ctl(path, {"--timeout", "1", "pipes"});
    ASSERT_NO_FATAL_FAILURE(read_request_op(listener.get(), &conn, &op));
    EXPECT_EQ(op, 0xdb000au);
    Result r = finish(std::move(child));
    EXPECT_GE(now_ms() - start, 950);
    EXPECT_LT(now_ms() - start, 5000);
    EXPECT_EQ(r.err, "lhctl: no answer from the daemon within 1 s\n");
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.status, 3);
    unlink(path.c_str());
}

/* Answers the daemon never gives, from a server of the test's own. */
TEST_F(LhctlOffline, UnusableAnswers)
{
    const struct {
        Args args;
        uint32_t request_op;
        uint32_t reply_op; /* 0: the connection closes instead */
        uint32_t reply[3];
        uint32_t reply_length;
        int status;
        const char *out;
        const char *err;
    } cases[] = {
        {{"--timeout=1.5", "pipes"},
         0xdb000a,
         0,
         {0},
         0,
         3,
         "",
         "lhctl: the daemon closed the connection\n"},
        {{"reg", "read", "0x10"},
         0xdb0002,
         0xdb0002,
         {0x10},
         4,
         1,
         "",
         "lhctl: malformed reply to op 0xdb0002: unexpected length\n"},
        {{"reg", "read", "0x10"},
         0xdb0002,
         0xdb0001,
         {0xdb0002, 8, 99},
         12,
         1,
         "",
         "lhctl: --\n"},
        {{"pipes"},
         0xdb000a,
         0xdb0002,
         {0, 1},
         8,
         1,
         "",
         "lhctl: malformed reply to op 0xdb000a: reply to another operation\n"},
        {{"modules"},
         0xdb0008,
         0xdb0008,
         {20, 0, 1},
         12,
         0,
         "ID  NAME  PIPE  STATE\n20  20    0     FAILED\n",
         ""},
    };
    const std::string path = scratch_file("fake.sock");
    UniqueFd listener;

    ASSERT_NO_FATAL_FAILURE(bind_socket(path, 4, &listener));
    for (const auto &c : cases) {
        SCOPED_TRACE("lhctl " + joined(c.args));
        Child child = spawn_ctl(path, c.args);
        UniqueFd conn;
        uint32_t op = 0;

        ASSERT_NO_FATAL_FAILURE(read_request_op(listener.get(), &conn, &op));
        EXPECT_EQ(op, c.request_op);
        if (c.reply_op == 0)
            conn.reset();
        else
            send_reply(conn.get(), c.reply_op, c.reply, c.reply_length);
        Result r = finish(std::move(child));
        EXPECT_EQ(r.err, c.err);
        EXPECT_EQ(r.out, c.out);
        EXPECT_EQ(r.status, c.status);
    }
    unlink(path.c_str());
}

/* LHX board */

TEST_F(LhctlLhx, LhxModules)
{
    ctl(0,
        "ID  NAME                    PIPE  STATE\n"
        "9   lhx-global              0     OK\n"
        "10  lhx-pcie                0     OK\n"
        "11  eth                     0     OK\n"
        "12  lhx-nic                 0     OK\n"
        "13  lhx-ingress-pkt-parser  0     OK\n"
        "14  lhx-egress-scheduler    0     OK\n",
        "", {"modules"});
    ctl(0, "PIPE  STATE\n0     up\n", "", {"pipes"});
}

TEST_F(LhctlLhx, LhxEthStats)
{
    const Names names = eth_names();
    const std::vector<uint64_t> zeros(75, 0);

    ASSERT_EQ(names.size(), 75u);
    EXPECT_EQ(names[0], "reg_0x50c_0x508");
    ctl(0, stats_text(names, zeros), "", {"stats", "eth", "0"});
    ctl(0, stats_json("eth", 11, 0, names, zeros, false), "",
        {"--json", "stats", "11", "0"});
}

/* The LHX NIC polls queues 0..128. The simulated select does not change
 * the data words, so every queue adds the same per poll; a fatal error
 * then stops polling the block, which freezes its counters and shows
 * FAILED. */
TEST_F(LhctlLhx, LhxNicQueuesAndFailedModule)
{
    const size_t queues = 129, queue0 = 21 * 8 + 8;
    const Names names = nic_names(queues);
    std::vector<uint64_t> values(names.size(), 0);

    write_window(0x120C4, 0x00050002); /* counter 0: 5; 1 and 2: 2 */
    write_window(0x120C8, 3);          /* above 3 */
    ASSERT_TRUE(wait_raw_word(kModLhxNic, 0, queue0).has_value());
    write_window(0x12000, 1); /* "NIC TOP TM RX Missing SOP Error" */
    ASSERT_NO_FATAL_FAILURE(wait_module_failed(
        "{\"id\":12,\"name\":\"lhx-nic\",\"pipe\":0,\"state\":\"FAILED\"}"));
    std::optional<uint64_t> sum = raw_word(kModLhxNic, 0, queue0);
    ASSERT_TRUE(sum.has_value());
    uint64_t k = *sum / 5;
    for (size_t q = 0; q < queues; q++) {
        values[21 + 3 * q] = 5 * k;
        values[21 + 3 * q + 1] = ((2ull << 32) | 3) * k;
        values[21 + 3 * q + 2] = ((2ull << 32) | 3) * k;
    }
    ctl(0, stats_text(names, values), "", {"stats", "lhx-nic", "0"});
    ctl(0,
        "ID  NAME                    PIPE  STATE\n"
        "9   lhx-global              0     OK\n"
        "10  lhx-pcie                0     OK\n"
        "11  eth                     0     OK\n"
        "12  lhx-nic                 0     FAILED\n"
        "13  lhx-ingress-pkt-parser  0     OK\n"
        "14  lhx-egress-scheduler    0     OK\n",
        "", {"modules"});
}

} // namespace
