/* lhctl dump: register dumps written by the real pellin_mgr on simulated
 * boards after faults injected with lhsim, decoded and compared field by
 * field with what was injected and with what the daemon itself reports;
 * small hand-written dumps for the folded runs, an open run at the end,
 * two dumps in one file and every kind of malformed file. lhctl runs as a
 * child process, as an operator runs it. */
#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "file_watch.hpp"
#include "log_expect.hpp"
#include "simboard.hpp"
#include "tool_support.hpp"
#include "owned.hpp"

namespace {

namespace fs = std::filesystem;
using Json = nlohmann::json;
using Args = std::vector<std::string>;
using pellin::UniqueFd;

constexpr int kRunTimeoutMs = 10000;
constexpr int kStartTimeoutMs = 15000;
constexpr int kFaultTimeoutMs = 5000; /* several 500 ms poll cycles */
constexpr char kDumpPrefix[] = "lark_hollow_dump__";
constexpr char kHandlerLine[] = "NPU fatal error handler: ";
constexpr char kPipeReported[] = "Informational - traffic pipe 0 is ";
constexpr uint64_t kFiller64 = 0xDEADBEEFDEADBEEFull;

struct Result {
    int status = -1; /* the exit code, -1 when killed */
    std::string out;
    std::string err;
};

struct BoardDestroy {
    void operator()(struct sim_board *b) const { sim_board_destroy(b); }
};
using BoardPtr = std::unique_ptr<struct sim_board, BoardDestroy>;

void write_file(const std::string &path, const std::string &text)
{
    std::ofstream out(path, std::ios::binary | std::ios::trunc);

    out << text;
    ASSERT_TRUE(out.good()) << path;
}

/* The head of every dump: its module status, then the register header. */
std::string dump_head(const std::vector<std::string> &modules)
{
    std::string text = "\n----------- Module Status -----------\n";

    for (const std::string &m : modules)
        text += "module: " + m + "\n";
    return text + "\n----------- Register Dump -----------\n";
}

/* An LHX dump: lhx-global and eth, eth's fatal status, control and status
 * set, everything else the filler, the last run left open. */
std::string lhx_dump(const char *eth_state, uint32_t fatal, uint32_t control,
                     uint32_t status)
{
    return dump_head({"lhx-global, pipe: 0, status: OK",
                      std::string("eth, pipe: 0, status: ") + eth_state}) +
           "0x00000: 0x00010203\n"
           "0x00004-0x000fc: 0xdeadbeef\n"
           "0x00100: 0x00000000\n"
           "0x00104-0x10ffc: 0xdeadbeef\n" +
           format_text("0x11000: 0x%08x\n", fatal) +
           "0x11004-0x1101c: 0xdeadbeef\n" +
           format_text("0x11020: 0x%08x\n0x11024: 0x%08x\n", control, status) +
           "0x11028-";
}

/* A base dump of one pipe's module list whose window is all filler: the
 * last word closes its run at once. */
std::string base_filler_dump()
{
    return dump_head({"global, pipe: 0, status: OK", "pcie, pipe: 0, status: OK",
                      "ddr4, pipe: 0, status: OK", "caui, pipe: 0, status: OK"}) +
           "0x00000-0x2a0f8: 0xdeadbeef\n"
           "0x2a0fc-0x2a0fc: 0xdeadbeef\n";
}

const Json &module_of(const Json &dump, const std::string &name, uint32_t pipe)
{
    static const Json none;

    for (const Json &m : dump.at("modules"))
        if (m.at("name") == name && m.at("pipe") == pipe)
            return m;
    ADD_FAILURE() << name << " pipe " << pipe << " not in the dump";
    return none;
}

Json error_row(uint32_t offset, uint32_t bit, const char *text, bool reported)
{
    return {{"offset", offset}, {"bit", bit}, {"text", text},
            {"reported", reported}};
}

/* lhctl run as a child, its output in files of a scratch directory. */
class LhctlDump : public ::testing::Test {
protected:
    void SetUp() override
    {
        signal(SIGPIPE, SIG_IGN);
        ASSERT_TRUE(scratch_.made()) << "no scratch directory in /tmp";
    }

    Result run(const Args &argv) const
    {
        SpawnOptions options;
        Result r;
        int status = 0;

        options.out = scratch_.file("out.txt");
        options.err = scratch_.file("err.txt");
        Child child = spawn_program(argv.at(0), argv, options);
        EXPECT_TRUE(child.wait(kRunTimeoutMs, &status))
            << argv.at(0) << " killed after " << kRunTimeoutMs << " ms";
        r.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
        r.out = text_of(options.out);
        r.err = text_of(options.err);
        return r;
    }

    Result lhctl(const Args &args) const
    {
        Args argv = {LHCTL_PATH};

        argv.insert(argv.end(), args.begin(), args.end());
        return run(argv);
    }

    /* lhctl --json dump PATH, exit 0 expected. */
    Json dump_json(const std::string &path) const
    {
        Result r = lhctl({"--json", "dump", path});

        EXPECT_EQ(r.status, 0) << r.err;
        EXPECT_EQ(r.err, "");
        return Json::parse(r.out, nullptr, false);
    }

    /* A file of `text` in the scratch directory. */
    std::string file(const char *name, const std::string &text) const
    {
        std::string path = scratch_.file(name);

        write_file(path, text);
        return path;
    }

    /* Exit 1, nothing on standard output, and exactly `err`. */
    void expect_refused(const std::string &path, const std::string &err) const
    {
        SCOPED_TRACE(path);
        for (const char *json : {"", "--json"}) {
            Args args = {"dump", path};
            if (*json != '\0')
                args.insert(args.begin(), json);
            Result r = lhctl(args);
            EXPECT_EQ(r.status, 1);
            EXPECT_EQ(r.out, "");
            EXPECT_EQ(r.err, "lhctl: " + err + "\n");
        }
    }

    TempDir scratch_{"/tmp/lhctl_dump_"};
};

/* Hand-written dumps */

TEST_F(LhctlDump, FoldedRunsAndAnOpenRunAtTheEnd)
{
    std::string path = file("lhx.log", lhx_dump("FAILED", 0x21, 0x102, 0x8));
    Result r = lhctl({"dump", path});

    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.err, "");
    std::string expected =
        "dump 1 of 1 in " + path + ", from line 1\n"
        "image lhx, 1 pipe, window 0x19800\n"
        "failed: eth pipe 0 (RX Buffer FIFO Overflow)\n"
        "\n"
        "lhx-global pipe 0 at 0x00000: OK\n"
        "  fatal-error status 0x00100 = 0x00000000\n"
        "\n"
        "eth pipe 0 at 0x10000: FAILED\n"
        "  fatal-error status 0x11000 = 0x00000021\n"
        "  error 0x11000 bit 5: RX Buffer FIFO Overflow (reported)\n"
        "  error 0x11000 bit 0: Eth IP TX Underflow\n"
        "  port control 0x11020 = 0x00000102: enabled, loopback pma-near\n"
        "  port status 0x11024 = 0x00000008: receive aligned\n"
        "  COUNTER            VALUE\n"
        "  reg_0x50c_0x508    16045690984833335023\n";
    EXPECT_EQ(r.out.substr(0, expected.size()), expected);
    EXPECT_TRUE(r.out.ends_with("  reg_0x1070         3735928559\n")) << r.out;

    Json j = dump_json(path);
    EXPECT_EQ(j.at("image"), "lhx");
    EXPECT_EQ(j.at("window_size"), 0x19800);
    const Json &eth = module_of(j, "eth", 0);
    EXPECT_EQ(eth.at("base"), 0x10000);
    EXPECT_EQ(eth.at("state"), "FAILED");
    EXPECT_EQ(eth.at("errors"),
              Json::array({error_row(0x11000, 5, "RX Buffer FIFO Overflow", true),
                           error_row(0x11000, 0, "Eth IP TX Underflow", false)}));
    EXPECT_EQ(eth.at("port"),
              Json({{"control", {{"offset", 0x11020}, {"value", 0x102}}},
                    {"status", {{"offset", 0x11024}, {"value", 0x8}}},
                    {"enabled", true},
                    {"loopback", "pma-near"},
                    {"rx_aligned", true}}));
    /* Counters inside the open run read the filler word. */
    EXPECT_EQ(eth.at("counters").size(), 75u);
    EXPECT_EQ(eth.at("counters").at("reg_0x50c_0x508"), kFiller64);
    EXPECT_EQ(eth.at("counters").at("reg_0x1070"), 0xDEADBEEFu);
    EXPECT_EQ(module_of(j, "lhx-global", 0).at("port"), nullptr);
}

/* Error bits set in a block the dump records OK are shown, but only a
 * FAILED instance is named on the line of failures. */
TEST_F(LhctlDump, NoFailedInstanceSaysNone)
{
    std::string path = file("ok.log", lhx_dump("OK", 0x21, 0x102, 0x8));
    Result r = lhctl({"dump", path});

    EXPECT_EQ(r.status, 0);
    EXPECT_TRUE(r.out.starts_with("dump 1 of 1 in " + path +
                                  ", from line 1\n"
                                  "image lhx, 1 pipe, window 0x19800\n"
                                  "failed: none\n\n"))
        << r.out;
    EXPECT_NE(r.out.find("\neth pipe 0 at 0x10000: OK\n"), std::string::npos);
}

TEST_F(LhctlDump, LastWordOfTheBaseWindowClosesItsRun)
{
    Json j = dump_json(file("base.log", base_filler_dump()));

    EXPECT_EQ(j.at("image"), "base");
    EXPECT_EQ(j.at("pipes"), 1);
    EXPECT_EQ(j.at("window_size"), 0x2A100);
    ASSERT_EQ(j.at("modules").size(), 4u);
    /* Registers read the filler: 14 of DDR4's 17 bits are set in it, the
     * enable bit is not, and the loopback code is one no type has. */
    EXPECT_EQ(module_of(j, "ddr4", 0).at("errors").size(), 14u);
    const Json &port = module_of(j, "caui", 0).at("port");
    EXPECT_EQ(port.at("loopback"), "code-7");
    EXPECT_EQ(port.at("enabled"), false);
    EXPECT_EQ(port.at("rx_aligned"), false);
}

/* Two dumps written in the same second share a file: the last one is
 * decoded, whatever the first ended with. */
TEST_F(LhctlDump, TwoDumpsInOneFileDecodeTheLast)
{
    std::string first = lhx_dump("OK", 0, 0x100, 0x8);

    for (const std::string &text :
         {first + lhx_dump("FAILED", 0x1, 0x104, 0x0),
          base_filler_dump() + lhx_dump("FAILED", 0x1, 0x104, 0x0)}) {
        std::string path = file("two.log", text);
        Json j = dump_json(path);
        EXPECT_EQ(j.at("dump"), 2);
        EXPECT_EQ(j.at("dumps"), 2);
        const Json &eth = module_of(j, "eth", 0);
        EXPECT_EQ(eth.at("state"), "FAILED");
        EXPECT_EQ(eth.at("errors"),
                  Json::array({error_row(0x11000, 0, "Eth IP TX Underflow", true)}));
        EXPECT_EQ(eth.at("port").at("loopback"), "pma-far");
        EXPECT_EQ(eth.at("port").at("rx_aligned"), false);
        Result r = lhctl({"dump", path});
        EXPECT_TRUE(r.out.starts_with("dump 2 of 2 in " + path)) << r.out;
        EXPECT_NE(r.out.find("(the last one is decoded)\n"), std::string::npos);
    }
}

TEST_F(LhctlDump, FilesThatAreNotDumps)
{
    std::string empty = file("empty", "");
    std::string text = file("text", "root:x:0:0:root:/root:/bin/bash\n");
    std::string binary = file("binary", std::string("\x7f" "ELF\x02\x01\x01\0\0", 9));
    std::string dir = scratch_.file("dir");
    ASSERT_EQ(mkdir(dir.c_str(), 0755), 0);
    const std::string not_dump = ":1: not a register dump: it does not begin "
                                 "with an empty line and \"----------- Module "
                                 "Status -----------\"";

    expect_refused(empty, empty + ": not a register dump: the file is empty");
    expect_refused(text, text + not_dump);
    expect_refused(binary, binary + not_dump);
    expect_refused(dir, dir + " is a directory");
    expect_refused(scratch_.file("missing"),
                   "cannot open " + scratch_.file("missing") +
                       ": No such file or directory");
    std::string tiny = lhx_dump("OK", 0, 0, 0);
    std::string many;
    for (int i = 0; i < 65; i++)
        many += tiny;
    std::string too_many = file("many", many);
    /* The 65th dump's header: 14 lines a dump, as each open run shares its
     * line end with the next dump. */
    expect_refused(too_many, too_many + format_text(":%d: more than 64 dumps "
                                                    "in one file",
                                                    2 + 14 * 64));
    std::string long_line = file("long", "\n" + std::string(100000, 'x'));
    expect_refused(long_line, long_line + ":2: a line longer than 160 bytes");
}

/* Each malformed line is named with its number. */
TEST_F(LhctlDump, MalformedLinesNamedByNumber)
{
    const std::string good = lhx_dump("OK", 0, 0x100, 0x8);
    auto replaced = [&](const std::string &from, const std::string &to) {
        std::string text = good;
        text.replace(text.find(from), from.size(), to);
        return text;
    };
    const struct {
        std::string text;
        std::string err;
    } cases[] = {
        {replaced("0x00004-0x000fc: 0xdeadbeef", "0x00004 0x1"),
         ":8: not a register line: \"0x00004 0x1\""},
        {replaced("0x00004-0x000fc: 0xdeadbeef", "0x00004-0x000fc: 0x12345678"),
         ":8: a run of 0x12345678, not of the filler word"},
        {replaced("0x00100: 0x00000000", "0x00100-0x00100: 0x00000000"),
         ":9: a run of 0x00000000, not of the filler word"},
        {replaced("0x00100: 0x00000000", "0x00104: 0x00000000"),
         ":9: offset 0x00104 where 0x00100 was expected"},
        {replaced("0x00100: 0x00000000", "0x00100:\t0x00000000"),
         ":9: not a register line: \"0x00100:\\x090x00000000\""},
        {replaced("0x00100: 0x00000000", "0x00100: 0x0000000A"),
         ":9: not a register line: \"0x00100: 0x0000000A\""},
        {replaced("0x11028-", "0x11028-0x19800: 0xdeadbeef\n"),
         ":15: words 0x11028-0x19800 outside the lhx window of 0x19800 bytes"},
        {replaced("eth, pipe: 0", "ethx, pipe: 0"),
         ":4: unknown module \"ethx\""},
        {replaced("eth, pipe: 0", "caui, pipe: 0"),
         ":4: module caui of the other image in the list of the lhx image"},
        {replaced("eth, pipe: 0", "eth, pipe: 2"), ":4: bad pipe in \"module: "
                                                   "eth, pipe: 2, status: OK\""},
        {replaced("status: OK\nmodule: eth", "status: BAD\nmodule: eth"),
         ":3: bad status in \"module: lhx-global, pipe: 0, status: BAD\""},
        {replaced("----------- Register Dump", "----------- Register Dumb"),
         ":6: \"----------- Register Dump -----------\" expected"},
        {good + "\n", ":15: \"----------- Module Status -----------\" expected "
                      "for the next dump"},
        {dump_head({}) + "0x00000-", ":3: no module in the module status"},
    };

    for (const auto &c : cases) {
        std::string path = file("bad.log", c.text);
        expect_refused(path, path + c.err);
    }
}

/* Cut anywhere: inside a line, at a line end, in the module status. */
TEST_F(LhctlDump, CutShort)
{
    const std::string good = lhx_dump("OK", 0, 0x100, 0x8);
    const size_t at_line_end = good.find("0x11020");
    const size_t after_modules = good.find("\n\n----------- Register") + 1;
    const struct {
        size_t length;
        std::string err;
    } cases[] = {
        {good.size() - 3, ":15: cut short: \"0x110\""},
        {at_line_end, ":12: cut short: the register dump ends at 0x11020, "
                      "below the end of the lhx window, 0x19800"},
        {at_line_end + 10, ":13: cut short: \"0x11020: 0\""},
        {after_modules + 1 + 11, ":6: cut short: \"-----------\""},
        {after_modules + 1, ":5: cut short before the register dump"},
        {after_modules, ":4: cut short in the module status"},
        {good.find("eth, pipe"), ":4: cut short in the module status"},
    };

    for (const auto &c : cases) {
        std::string path = file("cut.log", good.substr(0, c.length));
        expect_refused(path, path + c.err);
    }
}

/* The command's help, and its usage errors (exit 2). */
TEST_F(LhctlDump, HelpAndUsage)
{
    const std::string usage =
        "usage: lhctl [--socket PATH] [--timeout SECONDS] [--json] dump FILE\n";
    Result r = lhctl({"dump", "--help"});

    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out, usage + "Each module instance of the dump's image: its "
                             "base, its state, the set bits of its fatal-error "
                             "registers, a port's control and status, and its "
                             "counters. Of several dumps in FILE, the last.\n");
    r = lhctl({"--help"});
    EXPECT_NE(r.out.find("\n  dump FILE                         decode a "
                         "register dump file (no daemon needed)\n"),
              std::string::npos)
        << r.out;
    r = lhctl({"dump"});
    EXPECT_EQ(r.status, 2);
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err, "lhctl: missing argument\n" + usage);
    r = lhctl({"dump", "a", "b"});
    EXPECT_EQ(r.status, 2);
    EXPECT_EQ(r.err, "lhctl: unexpected argument \"b\"\n" + usage);
}

/* Dumps of the real daemon */

/* pellin_mgr on a board of its own, faults injected with lhsim. */
class LhctlDumpDaemon : public LhctlDump {
protected:
    void SetUp() override
    {
        std::string why;

        LhctlDump::SetUp();
        if (HasFatalFailure())
            return;
        if (!sandbox_ready(&why))
            GTEST_SKIP() << why;
    }

    void make_board(enum sim_board_kind kind)
    {
        struct sim_board *b = NULL;
        std::error_code error;

        ASSERT_TRUE(parent_.made()) << "no board directory in /tmp";
        dir_ = parent_.file("board");
        ASSERT_EQ(sim_board_create(dir_.c_str(), kind, &b), 0)
            << "board: " << sim_board_last_error();
        board_.reset(b);
        socket_ = std::string(sim_board_path(b, SIM_PATH_RUN)) + "/ipc/219.sock";
        logs_ = sim_board_path(b, SIM_PATH_LOGS);
        ASSERT_NO_FATAL_FAILURE(install_keeper_svc(b, KEEPER_SVC_PATH));
    }

    /* The daemon, up with its first pipe reported. */
    void start_daemon()
    {
        const pid_t pid = spawn_daemon(board_.get(), PELLIN_MGR_PATH,
                                       parent_.file("daemon.txt"));

        ASSERT_GT(pid, 0);
        daemon_ = Child(pid);
        ASSERT_NO_FATAL_FAILURE(wait_log(kPipeReported, 1, kStartTimeoutMs));
    }

    void wait_log(const char *text, int count, int timeout_ms) const
    {
        std::string log = logs_ + "/pellin_mgr.log";
        long long start = now_ms();

        while (count_in(log.c_str(), text) < count) {
            if (now_ms() - start > timeout_ms)
                FAIL() << format_text("\"%s\" not %d times in %s after %d ms",
                                      text, count, log.c_str(), timeout_ms);
            usleep(20000);
        }
    }

    void lhsim(const Args &args) const
    {
        Args argv = {LHSIM_PATH};

        argv.insert(argv.end(), args.begin(), args.end());
        Result r = run(argv);
        ASSERT_EQ(r.status, 0) << "lhsim " << args.at(0) << ": " << r.err;
    }

    void ctl(const Args &args) const
    {
        Args with_socket = {"--socket", socket_};

        with_socket.insert(with_socket.end(), args.begin(), args.end());
        Result r = lhctl(with_socket);
        ASSERT_EQ(r.status, 0) << r.err;
    }

    Json daemon_json(const Args &args) const
    {
        Args with_socket = {"--socket", socket_, "--json"};

        with_socket.insert(with_socket.end(), args.begin(), args.end());
        Result r = lhctl(with_socket);
        EXPECT_EQ(r.status, 0) << r.err;
        return Json::parse(r.out, nullptr, false);
    }

    /* The dump file written last, once the handler has run `failures`
     * times (the dump is complete before the handler runs). */
    std::string newest_dump(int failures) const
    {
        std::string newest;
        struct timespec newest_time = {0, 0};

        wait_log(kHandlerLine, failures, kFaultTimeoutMs);
        DIR *d = opendir(logs_.c_str());
        EXPECT_NE(d, nullptr) << logs_;
        if (d == nullptr)
            return "";
        while (const struct dirent *entry = readdir(d)) {
            struct stat st;
            std::string path = logs_ + "/" + entry->d_name;
            if (strncmp(entry->d_name, kDumpPrefix, strlen(kDumpPrefix)) != 0 ||
                stat(path.c_str(), &st) != 0)
                continue;
            if (newest.empty() || st.st_mtim.tv_sec > newest_time.tv_sec ||
                (st.st_mtim.tv_sec == newest_time.tv_sec &&
                 st.st_mtim.tv_nsec > newest_time.tv_nsec)) {
                newest = path;
                newest_time = st.st_mtim;
            }
        }
        closedir(d);
        EXPECT_FALSE(newest.empty()) << "no dump in " << logs_;
        return newest;
    }

    uint32_t window(uint32_t offset) const
    {
        uint32_t value = 0;

        EXPECT_EQ(sim_board_read(board_.get(), offset, &value), 0);
        return value;
    }

    /* The module instances and their states are the daemon's own; only
     * those injected carry set error bits. */
    void expect_modules_as_daemon(const Json &dump,
                                  const std::vector<std::string> &failed) const
    {
        Json modules = daemon_json({"modules"}).at("modules");

        ASSERT_EQ(dump.at("modules").size(), modules.size());
        for (size_t i = 0; i < modules.size(); i++) {
            const Json &d = dump.at("modules")[i];
            std::string instance = format_text(
                "%s %u", d.at("name").get<std::string>().c_str(),
                d.at("pipe").get<uint32_t>());
            SCOPED_TRACE(instance);
            EXPECT_EQ(d.at("id"), modules[i].at("id"));
            EXPECT_EQ(d.at("name"), modules[i].at("name"));
            EXPECT_EQ(d.at("pipe"), modules[i].at("pipe"));
            EXPECT_EQ(d.at("state"), modules[i].at("state"));
            bool injected =
                std::find(failed.begin(), failed.end(), instance) != failed.end();
            EXPECT_EQ(d.at("state"), injected ? "FAILED" : "OK");
            if (!injected) {
                EXPECT_EQ(d.at("errors"), Json::array());
            }
        }
    }

    /* Counter names as lhctl stats names them, in the same order. */
    void expect_counter_names_as_stats(const Json &dump, const char *module,
                                       uint32_t pipe) const
    {
        Json stats = daemon_json({"stats", module, std::to_string(pipe)});
        std::vector<std::string> names, dumped;

        /* The NIC queue counters sit behind a bank select: not in a dump. */
        for (const auto &[name, value] : stats.at("counters").items())
            if (!name.starts_with("queue_"))
                names.push_back(name);
        for (const auto &[name, value] :
             module_of(dump, module, pipe).at("counters").items())
            dumped.push_back(name);
        EXPECT_EQ(dumped, names);
    }

    TempDir parent_{"/tmp/lhctl_dump_board_"};
    std::string dir_;
    std::string socket_;
    std::string logs_;
    BoardPtr board_;
    Child daemon_; /* declared last: it ends before its board goes */
};

/* One block: DDR4 of pipe 1, the last block of the base window. */
TEST_F(LhctlDumpDaemon, BaseOneBlock)
{
    ASSERT_NO_FATAL_FAILURE(make_board(SIM_BOARD_BASE2));
    ASSERT_NO_FATAL_FAILURE(start_daemon());
    ASSERT_NO_FATAL_FAILURE(lhsim({"fatal", dir_, "ddr4", "1", "--bit", "3"}));
    std::string path = newest_dump(1);
    Json j = dump_json(path);

    EXPECT_EQ(j.at("dump"), 1);
    EXPECT_EQ(j.at("dumps"), 1);
    EXPECT_EQ(j.at("image"), "base");
    EXPECT_EQ(j.at("pipes"), 2);
    EXPECT_EQ(j.at("window_size"), 0x2A100);
    expect_modules_as_daemon(j, {"ddr4 1"});
    const Json &ddr4 = module_of(j, "ddr4", 1);
    EXPECT_EQ(ddr4.at("base"), 0x2A000);
    EXPECT_EQ(ddr4.at("status_registers"),
              Json::array({{{"offset", 0x2A000}, {"value", 1u << 3}}}));
    EXPECT_EQ(ddr4.at("errors"),
              Json::array({error_row(0x2A000, 3, "Cmd fifo overflow", true)}));
    EXPECT_EQ(ddr4.at("counters"), Json::object());
    EXPECT_EQ(module_of(j, "caui", 1).at("base"), 0x20000);
    EXPECT_EQ(module_of(j, "egress-scheduler", 0).at("base"), 0x19000);
    expect_counter_names_as_stats(j, "nic", 0);

    Result r = lhctl({"dump", path});
    EXPECT_EQ(r.status, 0);
    EXPECT_TRUE(r.out.starts_with("dump 1 of 1 in " + path +
                                  ", from line 1\nimage base, 2 pipes, window "
                                  "0x2a100\n"
                                  "failed: ddr4 pipe 1 (Cmd fifo overflow)\n"
                                  "\nglobal pipe 0 at 0x00000: OK\n"))
        << r.out;
    EXPECT_NE(r.out.find("\nddr4 pipe 1 at 0x2a000: FAILED\n"
                         "  fatal-error status 0x2a000 = 0x00000008\n"
                         "  error 0x2a000 bit 3: Cmd fifo overflow (reported)\n"
                         "\n"),
              std::string::npos)
        << r.out;

    /* The same dump cut short, inside a line and at a line end. */
    std::string whole = text_of(path);
    std::string cut1 = whole.substr(0, whole.size() - 5);
    size_t last_line = cut1.rfind('\n') + 1;
    expect_refused(file("cut1.log", cut1),
                   scratch_.file("cut1.log") + ":" +
                       std::to_string(std::count(cut1.begin(), cut1.end(), '\n') + 1) +
                       ": cut short: \"" + cut1.substr(last_line) + "\"");
    size_t line_end = whole.find("\n0x10000: ") + 1;
    std::string cut2 = file("cut2.log", whole.substr(0, line_end));
    Result c = lhctl({"dump", cut2});
    EXPECT_EQ(c.status, 1);
    EXPECT_EQ(c.out, "");
    EXPECT_NE(c.err.find(": cut short: the register dump ends at 0x10000, below "
                         "the end of the base window, 0x2a100\n"),
              std::string::npos)
        << c.err;
}

/* Several blocks, two bits in one, raised before the daemon starts: its
 * first poll fails all three, one dump each, the last with all three. */
TEST_F(LhctlDumpDaemon, BaseSeveralBlocks)
{
    ASSERT_NO_FATAL_FAILURE(make_board(SIM_BOARD_BASE2));
    for (const Args &fault : {Args{"caui", "1", "--bit", "9"},
                              Args{"caui", "1", "--bit", "8"},
                              Args{"ingress-pkt-parser", "0", "--bit", "9"},
                              Args{"global", "0", "--bit", "0x140:1"}}) {
        Args args = {"fatal", dir_};
        args.insert(args.end(), fault.begin(), fault.end());
        ASSERT_NO_FATAL_FAILURE(lhsim(args));
    }
    ASSERT_NO_FATAL_FAILURE(start_daemon());
    std::string path = newest_dump(3);
    int dumps = count_in(path.c_str(), "----------- Module Status -----------");
    Json j = dump_json(path);

    EXPECT_EQ(j.at("dump"), dumps);
    EXPECT_EQ(j.at("dumps"), dumps);
    expect_modules_as_daemon(j, {"global 0", "caui 1", "ingress-pkt-parser 0"});
    EXPECT_EQ(module_of(j, "global", 0).at("errors"),
              Json::array({error_row(0x140, 1,
                                     "die 1 SEM controller 0 has detected a "
                                     "fatal error",
                                     true)}));
    EXPECT_EQ(module_of(j, "global", 0).at("status_registers"),
              Json::array({{{"offset", 0x100}, {"value", 0}},
                           {{"offset", 0x140}, {"value", 2}},
                           {{"offset", 0x180}, {"value", 0}}}));
    EXPECT_EQ(module_of(j, "caui", 1).at("errors"),
              Json::array({error_row(0x20800, 9, "TX Buffer FIFO Underflow", true),
                           error_row(0x20800, 8, "RX Buffer FIFO Underflow",
                                     false)}));
    /* Bit 9 is two rows of the parser's table; the first is reported. */
    EXPECT_EQ(module_of(j, "ingress-pkt-parser", 0).at("errors"),
              Json::array({error_row(0x16000, 9, "Meta Data FIFO Underflow", true),
                           error_row(0x16000, 9, "Packet Length FIFO Underflow",
                                     false)}));
    Result r = lhctl({"dump", path});
    EXPECT_EQ(r.status, 0);
    EXPECT_NE(r.out.find("\ncaui pipe 1 at 0x20000: FAILED\n"
                         "  fatal-error status 0x20800 = 0x00000300\n"
                         "  error 0x20800 bit 9: TX Buffer FIFO Underflow "
                         "(reported)\n"
                         "  error 0x20800 bit 8: RX Buffer FIFO Underflow\n"
                         "  port control 0x20820 = "),
              std::string::npos)
        << r.out;
}

/* A port with loopback on and its link down, then a fault in it: the
 * dump shows the port as the driver left it, and its counters. */
TEST_F(LhctlDumpDaemon, BasePortLoopbackLinkDown)
{
    ASSERT_NO_FATAL_FAILURE(make_board(SIM_BOARD_BASE2));
    ASSERT_NO_FATAL_FAILURE(start_daemon());
    ASSERT_NO_FATAL_FAILURE(ctl({"loopback", "1", "pcs-near"}));
    ASSERT_NO_FATAL_FAILURE(lhsim({"link", dir_, "1", "down"}));
    ASSERT_NO_FATAL_FAILURE(
        lhsim({"counter", dir_, "caui", "1", "0", "0x500000009"}));
    ASSERT_NO_FATAL_FAILURE(
        lhsim({"counter", dir_, "caui", "1", "25", "0x300000007"}));
    ASSERT_NO_FATAL_FAILURE(
        lhsim({"fatal", dir_, "caui", "1", "CAUI IP TX Underflow"}));
    Json j = dump_json(newest_dump(1));

    expect_modules_as_daemon(j, {"caui 1"});
    const Json &caui = module_of(j, "caui", 1);
    EXPECT_EQ(caui.at("errors"),
              Json::array({error_row(0x20800, 1, "CAUI IP TX Underflow", true)}));
    EXPECT_EQ(caui.at("port"),
              Json({{"control", {{"offset", 0x20820}, {"value", window(0x20820)}}},
                    {"status", {{"offset", 0x20824}, {"value", window(0x20824)}}},
                    {"enabled", true},
                    {"loopback", "pcs-near"},
                    {"rx_aligned", false}}));
    EXPECT_EQ(caui.at("counters").at("reg_0x504_0x500"), 0x500000009u);
    EXPECT_EQ(caui.at("counters").at("reg_0x850_0x854"), 0x300000007u);
    expect_counter_names_as_stats(j, "caui", 1);
    /* Pipe 0's port is untouched: enabled, no loopback, aligned. */
    const Json &port0 = module_of(j, "caui", 0).at("port");
    EXPECT_EQ(port0.at("enabled"), true);
    EXPECT_EQ(port0.at("loopback"), "disable-all");
    EXPECT_EQ(port0.at("rx_aligned"), true);
}

/* The LHX image, told from the dump: its smaller window, its own blocks. */
TEST_F(LhctlDumpDaemon, LhxPortLoopbackLinkDown)
{
    ASSERT_NO_FATAL_FAILURE(make_board(SIM_BOARD_LHX));
    ASSERT_NO_FATAL_FAILURE(start_daemon());
    ASSERT_NO_FATAL_FAILURE(ctl({"loopback", "0", "pma-far"}));
    ASSERT_NO_FATAL_FAILURE(lhsim({"link", dir_, "0", "down"}));
    ASSERT_NO_FATAL_FAILURE(lhsim({"fatal", dir_, "eth", "0", "--bit", "0"}));
    std::string path = newest_dump(1);
    Json j = dump_json(path);

    /* The filler at the end of the LHX window leaves the last run open. */
    std::string whole = text_of(path);
    EXPECT_EQ(whole.substr(whole.rfind('\n') + 1), "0x19100-");
    EXPECT_EQ(j.at("image"), "lhx");
    EXPECT_EQ(j.at("pipes"), 1);
    EXPECT_EQ(j.at("window_size"), 0x19800);
    expect_modules_as_daemon(j, {"eth 0"});
    const Json &eth = module_of(j, "eth", 0);
    EXPECT_EQ(eth.at("base"), 0x10000);
    EXPECT_EQ(eth.at("errors"),
              Json::array({error_row(0x11000, 0, "Eth IP TX Underflow", true)}));
    EXPECT_EQ(eth.at("port"),
              Json({{"control", {{"offset", 0x11020}, {"value", window(0x11020)}}},
                    {"status", {{"offset", 0x11024}, {"value", window(0x11024)}}},
                    {"enabled", true},
                    {"loopback", "pma-far"},
                    {"rx_aligned", false}}));
    expect_counter_names_as_stats(j, "eth", 0);
    expect_counter_names_as_stats(j, "lhx-nic", 0);
}

} // namespace
