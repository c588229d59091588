/* lhsim, the simulated board as a tool: every subcommand as a user runs it,
 * and each injection reaching the real pellin_mgr, started with
 * "lhsim run" on a board made by "lhsim create". */
#include <dirent.h>
#include <signal.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "file_watch.hpp"
#include "log_expect.hpp"
#include "plat_ipc.h"
#include "tool_support.hpp"

namespace {

namespace fs = std::filesystem;

constexpr int kCommandTimeoutMs = 10000;
constexpr int kStartTimeoutMs = 15000;
constexpr int kLogTimeoutMs = 5000;
constexpr int kStopTimeoutMs = 15000;

constexpr char kDumpPrefix[] = "lark_hollow_dump__";

using Args = std::vector<std::string>;

struct ClientClose {
    void operator()(struct ipc_client *c) const { ipc_client_close(c); }
};
using ClientPtr = std::unique_ptr<struct ipc_client, ClientClose>;

/* Each case has a directory of its own for its board and the output of
 * the commands it runs; a "lhsim run" still going at the end is stopped
 * as a user would stop it, then killed with all it started. */
class Lhsim : public ::testing::Test {
protected:
    void SetUp() override
    {
        signal(SIGPIPE, SIG_IGN);
        ASSERT_TRUE(parent_.made()) << "no directory in /tmp";
        dir_ = parent_.file("board");
        log_ = dir_ + "/opt/platform/logs/pellin_mgr.log";
        socket_ = dir_ + "/run/ipc/219.sock";
        run_out_ = parent_.file("run.out");
        run_err_ = parent_.file("run.err");
        out_ = parent_.file("cmd.out");
        err_ = parent_.file("cmd.err");
    }

    void TearDown() override
    {
        if (run_.running()) {
            run_.signal(SIGINT);
            run_.wait(kStopTimeoutMs, nullptr);
        }
        run_.stop();
        /* A board the run made for itself, should the run not have
         * removed it. */
        if (fresh_root_.starts_with("/tmp/lhsim_"))
            remove_tree(fs::path(fresh_root_).parent_path());
    }

    /* lhsim args..., with the daemon's "keeper_svc" on its PATH. */
    Child spawn_lhsim(const Args &args, const std::string &input,
                      const std::string &out, const std::string &err) const
    {
        Args argv = {"lhsim"};
        SpawnOptions options;

        argv.insert(argv.end(), args.begin(), args.end());
        options.in = input.empty() ? "/dev/null" : input;
        options.out = out;
        options.err = err;
        options.own_group = true;
        ScopedEnv path("PATH",
                       fs::path(KEEPER_SVC_PATH).parent_path().string() + ":" +
                           getenv("PATH"));
        return spawn_program(LHSIM_PATH, argv, options);
    }

    /* Runs lhsim to its end and returns its exit code (-1: it did not
     * end by itself); its output is in out_text_ and err_text_. */
    int lhsim_with_input(const std::string &input, const Args &args)
    {
        int status = 0;
        Child child = spawn_lhsim(args, input, out_, err_);
        bool ended = child.wait(kCommandTimeoutMs, &status);

        out_text_ = text_of(out_);
        err_text_ = text_of(err_);
        const std::string name = args.empty() ? "" : args[0];
        if (!ended) {
            ADD_FAILURE() << "lhsim " << name << " killed after "
                          << kCommandTimeoutMs << " ms";
            return -1;
        }
        EXPECT_TRUE(WIFEXITED(status))
            << "lhsim " << name << " ended by signal " << WTERMSIG(status);
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

    int lhsim(const Args &args) { return lhsim_with_input("", args); }

    std::optional<uint32_t> peek(const char *offset)
    {
        unsigned value = 0;

        EXPECT_EQ(lhsim({"peek", dir_, offset}), 0) << err_text_;
        int parsed = sscanf(out_text_.c_str(), "0x%x", &value);
        EXPECT_EQ(parsed, 1) << out_text_;
        if (parsed != 1)
            return std::nullopt;
        return value;
    }

    void expect_err_has(const char *text) const
    {
        EXPECT_NE(err_text_.find(text), std::string::npos)
            << "\"" << text << "\" not in: " << err_text_;
    }

    void create_board(const char *kind)
    {
        ASSERT_EQ(lhsim({"create", "--board", kind, dir_}), 0) << err_text_;
    }

    /* The table of rows with "DIR" standing for dir. */
    static Args with_dir(const Args &row, const std::string &dir)
    {
        Args args;

        for (const std::string &arg : row)
            args.push_back(arg == "DIR" ? dir : arg);
        return args;
    }

    static void wait_for_count(const std::string &path, const char *text,
                               int count)
    {
        long long start = now_ms();

        while (count_in(path.c_str(), text) < count) {
            if (now_ms() - start > kLogTimeoutMs)
                FAIL() << format_text("\"%s\" not %d times in %s after %d ms",
                                      text, count, path.c_str(),
                                      kLogTimeoutMs);
            usleep(20000);
        }
    }

    static void expect_nothing_mounted(const std::string &dir)
    {
        std::string mounts = text_of("/proc/self/mountinfo");

        EXPECT_EQ(mounts.find(dir), std::string::npos)
            << dir << " is still mounted: " << mounts;
    }

    int count_dumps() const
    {
        const std::string logs = dir_ + "/opt/platform/logs";
        DIR *d = opendir(logs.c_str());
        int count = 0;

        EXPECT_NE(d, nullptr) << logs;
        if (d == nullptr)
            return -1;
        while (const struct dirent *entry = readdir(d))
            count += strncmp(entry->d_name, kDumpPrefix,
                             strlen(kDumpPrefix)) == 0;
        closedir(d);
        return count;
    }

    static bool is_empty_dir(const std::string &path)
    {
        std::error_code error;
        bool empty = fs::is_empty(path, error);

        EXPECT_FALSE(error) << path << ": " << error.message();
        return empty && !error;
    }

    TempDir parent_{"/tmp/lhsim_test_"};
    std::string dir_; /* parent/board */
    std::string log_;
    std::string socket_;
    std::string run_out_; /* lhsim run's standard output */
    std::string run_err_;
    std::string out_; /* the last command's */
    std::string err_;
    std::string out_text_;
    std::string err_text_;
    std::string fresh_root_; /* a board "lhsim run" made on its own */
    Child run_;              /* declared last: it ends before its files go */
};

/* The cases that need the board's sandbox, skipped where this user
 * cannot have it. */
class LhsimSandboxed : public Lhsim {
protected:
    void SetUp() override
    {
        std::string why;

        Lhsim::SetUp();
        if (HasFatalFailure())
            return;
        if (!sandbox_ready(&why))
            GTEST_SKIP() << why;
    }

    void start_run(const Args &args)
    {
        unlink(run_err_.c_str()); /* only this run's banner counts */
        run_ = spawn_lhsim(args, "", run_out_, run_err_);
    }

    ClientPtr connect_client()
    {
        struct ipc_client *client = NULL;
        long long start = now_ms();

        while (ipc_client_open(socket_.c_str(), &client) != 0) {
            if (run_.ended()) {
                ADD_FAILURE() << "lhsim run ended: " << text_of(run_err_);
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

    /* The daemon on the board in dir_, up with its pipes reported. */
    void start_daemon()
    {
        const int before =
            count_in(log_.c_str(), "Informational - traffic pipe 0 is ");

        start_run({"run", "--dir", dir_, "--", PELLIN_MGR_PATH});
        ASSERT_TRUE(connect_client() != nullptr);
        ASSERT_NO_FATAL_FAILURE(wait_for_count(
            log_, "Informational - traffic pipe 0 is ", before + 1));
    }

    /* SIGINT, as a terminal sends it; the run's exit code, -1 when it did
     * not end by itself. */
    int stop_run()
    {
        int status = 0;

        EXPECT_EQ(run_.signal(SIGINT), 0);
        if (!run_.wait(kStopTimeoutMs, &status)) {
            ADD_FAILURE() << "lhsim run killed after " << kStopTimeoutMs
                          << " ms";
            return -1;
        }
        EXPECT_TRUE(WIFEXITED(status))
            << "lhsim run ended by signal " << WTERMSIG(status);
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

    /* A counter of a block's statistics record, from the daemon. */
    std::optional<uint64_t> daemon_counter(uint32_t module, uint32_t pipe,
                                           size_t index) const
    {
        std::vector<uint8_t> record = daemon_stats(socket_, module, pipe);
        uint64_t value = 0;

        EXPECT_GE(record.size(), 8 * (index + 1))
            << "module " << module << " pipe " << pipe;
        if (record.size() < 8 * (index + 1))
            return std::nullopt;
        memcpy(&value, record.data() + 8 * index, sizeof(value));
        return value;
    }

    void wait_counter_nonzero(uint32_t module, uint32_t pipe, size_t index)
    {
        long long start = now_ms();
        std::optional<uint64_t> value;

        while ((value = daemon_counter(module, pipe, index)) == 0u) {
            if (now_ms() - start > kLogTimeoutMs)
                FAIL() << format_text("counter %zu of module %u pipe %u "
                                      "stayed 0",
                                      index, module, pipe);
            usleep(50000);
        }
        ASSERT_TRUE(value.has_value());
    }

    /* The board root "lhsim run" names in its banner. */
    std::string wait_banner() const
    {
        long long start = now_ms();
        std::string text;
        size_t at, end;

        while ((at = (text = text_of(run_err_)).find(" board in ")) ==
                   std::string::npos ||
               (end = text.find("; socket ", at)) == std::string::npos) {
            if (now_ms() - start > kStartTimeoutMs) {
                ADD_FAILURE() << "no banner from lhsim run";
                return "";
            }
            usleep(20000);
        }
        at += strlen(" board in ");
        return text.substr(at, end - at);
    }
};

/* --- Without a daemon ------------------------------------------------- */

TEST_F(Lhsim, ErrorsListsCauiInTestOrder)
{
    static const char expected[] =
        "0x0800  9 TX Buffer FIFO Underflow\n"
        "0x0800  8 RX Buffer FIFO Underflow\n"
        "0x0800  7 CAUI RX LBus Multiple SOP error\n"
        "0x0800  6 TX Buffer FIFO Double bit ECC error\n"
        "0x0800  5 TX Buffer FIFO Overflow\n"
        "0x0800  4 RX Buffer FIFO Double bit ECC error\n"
        "0x0800  3 RX Buffer FIFO Overflow\n"
        "0x0800  2 CAUI IP TX Overflow\n"
        "0x0800  1 CAUI IP TX Underflow\n";

    ASSERT_EQ(lhsim({"errors", "caui"}), 0);
    EXPECT_EQ(out_text_, expected);
    ASSERT_EQ(lhsim({"errors", "3"}), 0);
    EXPECT_EQ(out_text_, expected);
    ASSERT_EQ(lhsim({"errors", "nosuch"}), 2);
    expect_err_has("no module \"nosuch\"");
    EXPECT_EQ(lhsim({"errors", "15"}), 2);
}

TEST_F(Lhsim, UsageErrorsExit2)
{
    const Args cases[] = {
        {},
        {"bogus"},
        {"create"},
        {"create", "--board", "base3", "DIR"},
        {"create", "DIR", "extra"},
        {"run", "--dir", "DIR"},
        {"run", "--speed", "--", "/bin/true"},
        {"shell"},
        {"destroy", "DIR", "extra"},
        {"fatal", "DIR", "caui", "1"},
        {"fatal", "DIR", "caui", "1", "--bit", "32"},
        {"fatal", "DIR", "caui", "one", "--bit", "9"},
        {"fatal", "DIR", "caui", "1", "--bit", "9", "text"},
        {"clear-fatal", "DIR", "caui"},
        {"link", "DIR", "1", "sideways"},
        {"link", "DIR", "-1", "up"},
        {"counter", "DIR", "caui", "0", "1"},
        {"counter", "DIR", "caui", "0", "1", "lots"},
        {"peek", "DIR"},
        {"peek", "DIR", "0x1g"},
        {"poke", "DIR", "0"},
        {"poke", "DIR", "0", "0x100000000"},
        {"errors"},
    };

    for (size_t i = 0; i < std::size(cases); i++) {
        const Args args = with_dir(cases[i], dir_);

        EXPECT_EQ(lhsim_with_input("", args), 2)
            << format_text("case %zu (%s) did not exit 2", i,
                           args.empty() ? "none" : args[0].c_str());
        expect_err_has("usage: lhsim ");
    }
}

/* Each command's --help: its usage line and what it does to the board,
 * on standard output, exit 0; nothing is touched. */
TEST_F(Lhsim, HelpOfEveryCommand)
{
    const struct {
        Args args;
        const char *out;
    } cases[] = {
        {{"create", "--help"},
         "usage: lhsim create [--board base2|base1|lhx] DIR\n"
         "Makes a board directory (base2 unless --board says otherwise); it "
         "stays until destroy.\n"},
        {{"run", "--help"},
         "usage: lhsim run [--board base2|base1|lhx] [--dir DIR] [--keep] -- "
         "PROGRAM [ARG...]\n"
         "Runs PROGRAM on the board in its sandbox and prints the daemon's "
         "log; Ctrl-C stops it, and a board the run made is removed unless "
         "--keep.\n"},
        {{"shell", "-h"},
         "usage: lhsim shell DIR\n"
         "Starts $SHELL in the board's sandbox, where the board is the PCI "
         "bus.\n"},
        {{"destroy", "--help"},
         "usage: lhsim destroy DIR\n"
         "Removes the board directory; refused while a daemon serves it.\n"},
        {{"fatal", "DIR", "--help"},
         "usage: lhsim fatal DIR MODULE PIPE (TEXT|--bit [REG:]N)\n"
         "Raises a fatal error bit in the block; the daemon's poll finds it "
         "within 500 ms, marks the module FAILED and writes a register "
         "dump.\n"},
        {{"clear-fatal", "--help"},
         "usage: lhsim clear-fatal DIR MODULE PIPE\n"
         "Clears every error bit of the block; a daemon started later sees "
         "it healthy.\n"},
        {{"link", "--help"},
         "usage: lhsim link DIR PIPE up|down\n"
         "Sets or clears the port's receive-aligned bit; the daemon's poll "
         "logs the pipe's change within 500 ms.\n"},
        {{"counter", "--help"},
         "usage: lhsim counter DIR MODULE PIPE INDEX VALUE\n"
         "Puts VALUE in the registers of a counter; each poll of the daemon "
         "adds it to the statistics again.\n"},
        {{"peek", "--help"},
         "usage: lhsim peek DIR OFFSET\n"
         "Reads a 32-bit word of the register window.\n"},
        {{"poke", "--help"},
         "usage: lhsim poke DIR OFFSET VALUE\n"
         "Writes a 32-bit word of the register window.\n"},
        {{"errors", "--help"},
         "usage: lhsim errors MODULE\n"
         "Lists the module's fatal errors in the order the driver tests "
         "them; no board is needed.\n"},
    };

    for (const auto &c : cases) {
        SCOPED_TRACE("lhsim " + c.args[0] + " --help");
        EXPECT_EQ(lhsim(with_dir(c.args, dir_)), 0);
        EXPECT_EQ(out_text_, c.out);
        EXPECT_EQ(err_text_, "");
    }
    /* lhsim --help and lhsim help list every command. */
    ASSERT_EQ(lhsim({"--help"}), 0);
    const std::string list = out_text_;
    EXPECT_TRUE(list.starts_with("usage: lhsim create ")) << list;
    EXPECT_NE(list.find("\n       lhsim errors MODULE\n"), std::string::npos);
    ASSERT_EQ(lhsim({"help"}), 0);
    EXPECT_EQ(out_text_, list);
}

/* A bit in several registers of a block needs its register named. */
TEST_F(Lhsim, BitInSeveralRegistersNeedsItsRegister)
{
    ASSERT_NO_FATAL_FAILURE(create_board("base2"));
    ASSERT_EQ(lhsim({"fatal", dir_, "global", "0", "--bit", "1"}), 2);
    EXPECT_EQ(err_text_, "lhsim: bit 1 is in more than one register: 0x100 "
                         "0x140 0x180; say which: --bit REG:1\n");
    EXPECT_EQ(out_text_, "");
}

/* Every command on a board directory says so when there is none. */
TEST_F(Lhsim, MissingOrNonBoardDirExits1)
{
    const Args cases[] = {
        {"shell", "DIR"},
        {"destroy", "DIR"},
        {"fatal", "DIR", "caui", "0", "--bit", "9"},
        {"clear-fatal", "DIR", "caui", "0"},
        {"link", "DIR", "0", "down"},
        {"counter", "DIR", "caui", "0", "0", "1"},
        {"peek", "DIR", "0"},
        {"poke", "DIR", "0", "1"},
    };
    const std::string missing = parent_.file("none");

    for (const Args &row : cases) {
        SCOPED_TRACE("lhsim " + row[0]);
        Args args = with_dir(row, parent_.path());

        EXPECT_EQ(lhsim_with_input("", args), 1);
        expect_err_has(": not a simulated board");
        args[1] = missing;
        EXPECT_EQ(lhsim_with_input("", args), 1);
        expect_err_has(": no such directory");
    }
}

TEST_F(Lhsim, CreateAndDestroyLeaveNothing)
{
    static const struct {
        const char *kind;
        const char *window;
        const char *device;
    } kinds[] = {
        {"base2", "resource0", "0x01d7"},
        {"base1", "resource0", "0x01d7"},
        {"lhx", "resource2", "0x01d9"},
    };

    for (const auto &k : kinds) {
        SCOPED_TRACE(k.kind);
        ASSERT_NO_FATAL_FAILURE(create_board(k.kind));
        EXPECT_NE(out_text_.find(k.kind), std::string::npos) << out_text_;
        EXPECT_NE(out_text_.find("/run/ipc/219.sock"), std::string::npos)
            << out_text_;
        const std::string window =
            dir_ + "/sys/0000:03:00.0/" + std::string(k.window);
        EXPECT_EQ(access(window.c_str(), R_OK | W_OK), 0) << window;
        const std::string device = dir_ + "/sys/0000:03:00.0/device";
        EXPECT_EQ(count_in(device.c_str(), k.device), 1);
        EXPECT_EQ(lhsim({"create", dir_}), 1); /* not empty now */
        ASSERT_EQ(lhsim({"destroy", dir_}), 0) << err_text_;
        EXPECT_EQ(access(dir_.c_str(), F_OK), -1);
    }
    unlink(out_.c_str());
    unlink(err_.c_str());
    EXPECT_TRUE(is_empty_dir(parent_.path()));
}

TEST_F(Lhsim, PeekAndPokeAnyWord)
{
    ASSERT_NO_FATAL_FAILURE(create_board("base2"));
    EXPECT_EQ(peek("0x000"), 0x00010203u);
    EXPECT_EQ(peek("0x10"), 0x24031510u);
    EXPECT_EQ(peek("0x2A100"), 0xDEADBEEFu); /* no block there */
    EXPECT_EQ(peek("0x3fffc"), 0xDEADBEEFu);
    ASSERT_EQ(lhsim({"poke", dir_, "0x2A0FC", "0x12345678"}), 0);
    EXPECT_EQ(peek("0x2A0FC"), 0x12345678u);
    ASSERT_EQ(lhsim({"poke", dir_, "4", "305419896"}), 0);
    EXPECT_EQ(peek("4"), 305419896u);
    EXPECT_EQ(lhsim({"peek", dir_, "0x2"}), 2);
    EXPECT_EQ(lhsim({"peek", dir_, "0x40000"}), 2);
    expect_err_has("not a word of the 0x40000-byte window");
    ASSERT_EQ(lhsim({"destroy", dir_}), 0);
    ASSERT_NO_FATAL_FAILURE(create_board("lhx"));
    EXPECT_EQ(peek("0"), 0x00010203u);
    EXPECT_EQ(peek("0x1fffc"), 0xDEADBEEFu);
    EXPECT_EQ(lhsim({"poke", dir_, "0x20000", "1"}), 2);
}

/* Each injection sets exactly the register and bit the driver tests. */
TEST_F(Lhsim, InjectionsLandWhereTheDriverLooks)
{
    ASSERT_NO_FATAL_FAILURE(create_board("base2"));
    ASSERT_EQ(lhsim({"fatal", dir_, "caui", "1", "TX Buffer FIFO Underflow"}),
              0);
    EXPECT_EQ(out_text_, "CAUI pipe 1: 0x20800 bit 9 set (TX "
                         "Buffer FIFO Underflow)\n");
    EXPECT_EQ(peek("0x20800"), 1u << 9);
    ASSERT_EQ(lhsim({"clear-fatal", dir_, "caui", "1"}), 0);
    EXPECT_EQ(peek("0x20800"), 0u);
    /* A repeated text takes its first row; --bit picks exactly. */
    ASSERT_EQ(lhsim({"fatal", dir_, "ingress-pkt-classifier", "0",
                     "Reorder FIFO Underflow"}),
              0);
    EXPECT_EQ(peek("0x17700"), 1u << 6);
    ASSERT_EQ(lhsim({"fatal", dir_, "6", "0", "--bit", "0x700:4"}), 0);
    EXPECT_EQ(peek("0x17700"), 1u << 6 | 1u << 4);
    EXPECT_EQ(lhsim({"fatal", dir_, "6", "0", "--bit", "4"}), 2);
    expect_err_has("bit 4 is in more than one register: 0x0 0x200 0x700");
    ASSERT_EQ(lhsim({"clear-fatal", dir_, "6", "0"}), 0);
    EXPECT_EQ(peek("0x17700"), 0u);
    EXPECT_EQ(lhsim({"fatal", dir_, "global", "0", "--bit", "1"}), 2);
    expect_err_has("bit 1 is in more than one register: 0x100 0x140 0x180");
    ASSERT_EQ(lhsim({"fatal", dir_, "global", "0", "--bit", "0x140:1"}), 0);
    EXPECT_EQ(peek("0x140"), 1u << 1);
    /* The link: bit 24 of the CAUI port status. */
    ASSERT_EQ(lhsim({"link", dir_, "1", "down"}), 0);
    EXPECT_EQ(peek("0x20824"), 0u);
    ASSERT_EQ(lhsim({"link", dir_, "1", "up"}), 0);
    EXPECT_EQ(peek("0x20824"), 1u << 24);
    /* MAC counters: low word first; wrapper counters: high word first. */
    ASSERT_EQ(lhsim({"counter", dir_, "caui", "0", "0", "0x500000009"}), 0);
    EXPECT_EQ(peek("0x10500"), 9u);
    EXPECT_EQ(peek("0x10504"), 5u);
    ASSERT_EQ(lhsim({"counter", dir_, "caui", "1", "25", "0x300000007"}), 0);
    EXPECT_EQ(peek("0x20850"), 3u);
    EXPECT_EQ(peek("0x20854"), 7u);
    ASSERT_EQ(lhsim({"counter", dir_, "caui", "1", "26", "0xffffffff"}), 0);
    EXPECT_EQ(peek("0x20858"), 0xffffffffu);
}

TEST_F(Lhsim, EthOnLhx)
{
    ASSERT_NO_FATAL_FAILURE(create_board("lhx"));
    ASSERT_EQ(lhsim({"link", dir_, "0", "down"}), 0);
    EXPECT_EQ(out_text_, "Eth pipe 0: link down (0x11024 bit 3 clear)\n");
    EXPECT_EQ(peek("0x11024"), 0u);
    ASSERT_EQ(lhsim({"link", dir_, "0", "up"}), 0);
    EXPECT_EQ(peek("0x11024"), 1u << 3);
    ASSERT_EQ(lhsim({"fatal", dir_, "eth", "0", "--bit", "0"}), 0);
    EXPECT_EQ(peek("0x11000"), 1u);
    ASSERT_EQ(lhsim({"counter", dir_, "eth", "0", "68", "0x100000002"}), 0);
    EXPECT_EQ(peek("0x11050"), 1u);
    EXPECT_EQ(peek("0x11054"), 2u);
}

/* Targets the board does not have are refused, exit 2, nothing written. */
TEST_F(Lhsim, TargetsTheBoardLacksAreRefused)
{
    const struct {
        const char *kind;
        Args args;
        const char *message;
    } cases[] = {
        {"lhx",
         {"fatal", "DIR", "caui", "0", "--bit", "9"},
         "of the base image"},
        {"base2",
         {"fatal", "DIR", "eth", "0", "--bit", "2"},
         "of the LHX image"},
        {"base1",
         {"fatal", "DIR", "caui", "1", "--bit", "9"},
         "no caui pipe 1"},
        {"base2",
         {"fatal", "DIR", "global", "1", "--bit", "1"},
         "no global pipe 1"},
        {"lhx", {"link", "DIR", "1", "down"}, "no eth pipe 1"},
        {"base1", {"link", "DIR", "1", "down"}, "no caui pipe 1"},
        {"base2",
         {"fatal", "DIR", "caui", "0", "No Such Error"},
         "caui has no fatal error \"No Such Error\""},
        {"base2",
         {"fatal", "DIR", "caui", "0", "--bit", "0"},
         "no fatal error at bit 0"},
        {"base2", {"counter", "DIR", "caui", "0", "32", "1"}, "no counter 32"},
        {"base2",
         {"counter", "DIR", "caui", "0", "26", "0x100000000"},
         "is 32-bit"},
        {"base2", {"counter", "DIR", "ddr4", "0", "0", "1"}, "no counter 0"},
        {"base2", {"clear-fatal", "DIR", "nosuch", "0"}, "no module"},
    };

    for (size_t i = 0; i < std::size(cases); i++) {
        SCOPED_TRACE(format_text("case %zu", i));
        ASSERT_NO_FATAL_FAILURE(create_board(cases[i].kind));
        EXPECT_EQ(lhsim_with_input("", with_dir(cases[i].args, dir_)), 2)
            << format_text("case %zu did not exit 2", i);
        expect_err_has(cases[i].message);
        ASSERT_EQ(lhsim({"destroy", dir_}), 0);
    }
}

TEST_F(LhsimSandboxed, ShellRunsInTheSandbox)
{
    const std::string input = parent_.file("script");
    FILE *script = fopen(input.c_str(), "w");

    ASSERT_NE(script, nullptr) << input;
    fputs("cat /sys/bus/pci/devices/0000:03:00.0/device\n"
          "ls /opt/orvel\n"
          "exit 7\n",
          script);
    fclose(script);
    ASSERT_NO_FATAL_FAILURE(create_board("lhx"));
    ScopedEnv shell("SHELL", "/bin/sh");
    EXPECT_EQ(lhsim_with_input(input, {"shell", dir_}), 7) << err_text_;
    EXPECT_EQ(out_text_, "0x01d9\nplatform\n");
    expect_nothing_mounted(dir_);
}

/* --- With the daemon -------------------------------------------------- */

TEST_F(LhsimSandboxed, FatalErrorReachesTheDaemon)
{
    ASSERT_NO_FATAL_FAILURE(create_board("base2"));
    ASSERT_NO_FATAL_FAILURE(start_daemon());
    ASSERT_EQ(lhsim({"fatal", dir_, "caui", "1", "TX Buffer FIFO Underflow"}),
              0);
    wait_for_text(log_.c_str(), ": FATAL - Pellin FAILED\n", kLogTimeoutMs);
    EXPECT_EQ(count_in(log_.c_str(),
                       ": FATAL - CAUI pipe 1: TX Buffer FIFO Underflow\n"),
              1);
    EXPECT_EQ(count_in(log_.c_str(), ": NPU fatal error handler: caui pipe 1 "
                                     "(TX Buffer FIFO Underflow)\n"),
              1);
    EXPECT_EQ(count_dumps(), 1);
    /* Another block, by bit. */
    ASSERT_EQ(
        lhsim({"fatal", dir_, "ingress-pkt-parser", "0", "--bit", "16"}), 0);
    wait_for_text(log_.c_str(),
                  ": NPU fatal error handler: ingress-pkt-parser pipe 0 "
                  "(Meta Data FIFO Parity Error)\n",
                  kLogTimeoutMs);
    EXPECT_EQ(count_in(log_.c_str(), "Pellin FAILED"), 1);
    /* lhsim run streamed the log as it grew. */
    wait_for_text(run_out_.c_str(), ": FATAL - Pellin FAILED\n",
                  kLogTimeoutMs);
    EXPECT_EQ(lhsim({"destroy", dir_}), 1);
    expect_err_has("a daemon is serving");
    stop_run();
    expect_nothing_mounted(dir_);
    EXPECT_EQ(access(dir_.c_str(), F_OK), 0); /* made by create: it stays */
}

/* After clear-fatal, a later daemon on the same board sees it healthy. */
TEST_F(LhsimSandboxed, ClearedBoardIsHealthyForALaterDaemon)
{
    ASSERT_NO_FATAL_FAILURE(create_board("base2"));
    ASSERT_EQ(lhsim({"fatal", dir_, "caui", "0", "--bit", "5"}), 0);
    ASSERT_NO_FATAL_FAILURE(start_daemon());
    wait_for_text(log_.c_str(), ": FATAL - Pellin FAILED\n", kLogTimeoutMs);
    stop_run();
    ASSERT_EQ(lhsim({"clear-fatal", dir_, "caui", "0"}), 0);
    ASSERT_NO_FATAL_FAILURE(start_daemon());
    usleep(1500000); /* three poll cycles */
    EXPECT_EQ(count_in(log_.c_str(), "FATAL"), 2);
    EXPECT_EQ(count_in(log_.c_str(), "Informational - traffic pipe 0 is UP"),
              2);
    EXPECT_EQ(count_dumps(), 1);
    stop_run();
    ASSERT_EQ(lhsim({"destroy", dir_}), 0);
    EXPECT_EQ(access(dir_.c_str(), F_OK), -1);
}

TEST_F(LhsimSandboxed, LinkChangeIsSeenByTheDaemonPoll)
{
    ASSERT_NO_FATAL_FAILURE(create_board("base2"));
    ASSERT_NO_FATAL_FAILURE(start_daemon());
    ASSERT_EQ(lhsim({"link", dir_, "1", "down"}), 0);
    wait_for_text(log_.c_str(),
                  ": Informational - traffic pipe 1 changed to DOWN\n",
                  kLogTimeoutMs);
    ASSERT_EQ(lhsim({"link", dir_, "1", "up"}), 0);
    wait_for_text(log_.c_str(),
                  ": Informational - traffic pipe 1 changed to UP\n",
                  kLogTimeoutMs);
    EXPECT_EQ(count_in(log_.c_str(), "traffic pipe 0 changed"), 0);
}

/* The window's counters are counts since the last snapshot and reads have
 * no side effect, so every poll adds VALUE again: the daemon's sum is a
 * whole multiple of it, which only the right high/low split gives. The
 * value is written while the link is down, when the driver reads no
 * counter, so that no poll sees half of it. */
TEST_F(LhsimSandboxed, CounterReachesTheDaemonStatistics)
{
    const uint64_t value = 0x300000007ull;

    ASSERT_NO_FATAL_FAILURE(create_board("base2"));
    ASSERT_NO_FATAL_FAILURE(start_daemon());
    ASSERT_EQ(daemon_counter(3, 1, 25), 0u);
    ASSERT_EQ(lhsim({"link", dir_, "1", "down"}), 0);
    wait_for_text(log_.c_str(), "traffic pipe 1 changed to DOWN\n",
                  kLogTimeoutMs);
    ASSERT_EQ(lhsim({"counter", dir_, "caui", "1", "25", "0x300000007"}), 0);
    ASSERT_EQ(lhsim({"link", dir_, "1", "up"}), 0);
    ASSERT_NO_FATAL_FAILURE(wait_counter_nonzero(3, 1, 25));
    ASSERT_EQ(lhsim({"link", dir_, "1", "down"}), 0);
    ASSERT_NO_FATAL_FAILURE(
        wait_for_count(log_, "traffic pipe 1 changed to DOWN\n", 2));
    std::optional<uint64_t> sum = daemon_counter(3, 1, 25);
    ASSERT_TRUE(sum.has_value());
    EXPECT_EQ(*sum % value, 0u);
    EXPECT_TRUE(*sum / value >= 1 && *sum / value < 100) << *sum;
    EXPECT_EQ(daemon_counter(3, 0, 25), 0u);
    /* A 32-bit counter of another block. */
    ASSERT_EQ(lhsim({"counter", dir_, "ingress-pkt-parser", "0", "1", "0x2a"}),
              0);
    ASSERT_NO_FATAL_FAILURE(wait_counter_nonzero(5, 0, 1));
    std::optional<uint64_t> parsed = daemon_counter(5, 0, 1);
    ASSERT_TRUE(parsed.has_value());
    EXPECT_EQ(*parsed % 0x2a, 0u);
}

/* A board made by the run goes with it, unless --keep; nothing stays
 * mounted. */
TEST_F(LhsimSandboxed, SigintStopsRunAndRemovesItsBoard)
{
    start_run({"run", "--board", "base1", "--", PELLIN_MGR_PATH});
    const std::string root = wait_banner();
    ASSERT_FALSE(root.empty());
    fresh_root_ = root;
    socket_ = root + "/run/ipc/219.sock";
    ASSERT_TRUE(connect_client() != nullptr);
    stop_run();
    /* /tmp/lhsim_XXXXXX */
    const std::string made = fs::path(root).parent_path();
    EXPECT_EQ(access(root.c_str(), F_OK), -1);
    EXPECT_EQ(access(made.c_str(), F_OK), -1);
    expect_nothing_mounted(made);

    socket_ = dir_ + "/run/ipc/219.sock";
    start_run({"run", "--dir", dir_, "--keep", "--", PELLIN_MGR_PATH});
    ASSERT_TRUE(connect_client() != nullptr);
    stop_run();
    expect_nothing_mounted(dir_);
    EXPECT_EQ(peek("0"), 0x00010203u); /* kept, still a board */
    EXPECT_EQ(count_in(log_.c_str(), "Found 2 traffic pipes"), 1);
}

/* A board made in --dir by the run goes too; one made before stays. */
TEST_F(LhsimSandboxed, RunRemovesOnlyTheBoardItMade)
{
    const std::string made = parent_.file("made");

    start_run({"run", "--dir", made, "--", "/bin/sleep", "30"});
    wait_for_text(run_err_.c_str(), "; socket ", kLogTimeoutMs);
    EXPECT_EQ(stop_run(), 0);
    EXPECT_EQ(last_line_of(run_err_), "lhsim: stopped; the board is removed");
    EXPECT_EQ(access(made.c_str(), F_OK), -1);
    expect_nothing_mounted(made);
    ASSERT_NO_FATAL_FAILURE(create_board("base1"));
    start_run({"run", "--dir", dir_, "--", "/bin/sleep", "30"});
    wait_for_text(run_err_.c_str(), "; socket ", kLogTimeoutMs);
    EXPECT_EQ(stop_run(), 0);
    EXPECT_EQ(last_line_of(run_err_),
              "lhsim: stopped; the board stays in " + dir_);
    expect_nothing_mounted(dir_);
    EXPECT_EQ(peek("0"), 0x00010203u);
}

/* After the board line, the commands to try on this very board, with the
 * paths of this build; nothing about a stop when the program ends by
 * itself, and its exit status is the run's. */
TEST_F(LhsimSandboxed, RunPrintsTheCommandsToTryOnItsBoard)
{
    const std::string bin = fs::path(LHSIM_PATH).parent_path();
    const std::string socket = dir_ + "/run/ipc/219.sock";

    ASSERT_NO_FATAL_FAILURE(create_board("lhx"));
    EXPECT_EQ(lhsim({"run", "--dir", dir_, "--", "/bin/sh", "-c", "exit 3"}),
              3);
    EXPECT_EQ(err_text_,
              "lhsim: lhx board in " + dir_ + "; socket " + socket + "\n" +
                  "lhsim: try from another terminal:\n" +
                  "lhsim:   " + bin + "/lhctl --socket " + socket +
                  " modules\n" +
                  "lhsim:   " + bin + "/lhctl --socket " + socket +
                  " pipes\n" +
                  "lhsim:   " + bin + "/lhctl --socket " + socket +
                  " stats eth 0\n" +
                  "lhsim:   " + bin + "/lhsim link " + dir_ + " 0 down\n" +
                  "lhsim:   " + bin + "/lhsim link " + dir_ + " 0 up\n" +
                  "lhsim:   " + bin + "/lhsim fatal " + dir_ +
                  " eth 0 \"TX Buffer FIFO Underflow\"\n" +
                  "lhsim: Ctrl-C stops the program and keeps the board\n");
}

/* A program that ignores SIGTERM is killed after 5 s, and the run says
 * so and fails. */
TEST_F(LhsimSandboxed, ProgramThatIgnoresTheStopIsKilled)
{
    ASSERT_NO_FATAL_FAILURE(create_board("base1"));
    start_run({"run", "--dir", dir_, "--", "/bin/sh", "-c",
               "trap '' TERM; exec /bin/sleep 30"});
    wait_for_text(run_err_.c_str(), "; socket ", kLogTimeoutMs);
    usleep(200000); /* the trap is set */
    EXPECT_EQ(stop_run(), 1);
    const std::string err = text_of(run_err_);
    EXPECT_NE(err.find("\nlhsim: /bin/sh did not stop within 5 s; killed\n"
                       "lhsim: stopped; the board stays in " +
                       dir_ + "\n"),
              std::string::npos)
        << err;
    expect_nothing_mounted(dir_);
}

TEST_F(LhsimSandboxed, RunKeepsTheKindOfAnExistingBoard)
{
    ASSERT_NO_FATAL_FAILURE(create_board("lhx"));
    EXPECT_EQ(lhsim({"run", "--board", "base2", "--dir", dir_, "--",
                     "/bin/true"}),
              2);
    expect_err_has("is lhx, not base2");
    EXPECT_EQ(
        lhsim({"run", "--board", "lhx", "--dir", dir_, "--", "/bin/true"}),
        0);
    EXPECT_EQ(access(dir_.c_str(), F_OK), 0);
}

} // namespace
