/* lhctl watch: its frame drawn from fixed samples (rates, FAILED marked,
 * the counters that changed, escape codes only for a terminal), then the
 * command through a pipe and on a terminal against the real pellin_mgr on
 * a board run by "lhsim run" while lhsim changes its counters, links and
 * health; a daemon stopped and started again mid-watch; the exit on
 * SIGINT and SIGTERM; the command line. */
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <optional>
/* GCC 12 warns inside <regex> itself when it is built with sanitizers. */
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#include <regex>
#pragma GCC diagnostic pop
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "file_watch.hpp"
#include "log_expect.hpp"
#include "plat_ipc.h"
#include "tool_support.hpp"
#include "owned.hpp"
#include "watch.hpp"

namespace {

using namespace lhctl;
using Lines = std::vector<std::string>;
using Args = std::vector<std::string>;

Lines lines_of(const std::string &text)
{
    std::istringstream in(text);
    Lines lines;
    std::string line;

    while (std::getline(in, line))
        lines.push_back(line);
    return lines;
}

std::string joined(const Lines &lines)
{
    std::string text;

    for (const std::string &line : lines)
        text += line + "\n";
    return text;
}

/* --- The frame, from fixed samples ----------------------------------- */

constexpr char kHealthGrid[] = "MODULE  PIPE 0  PIPE 1\n"
                               "link    up      down\n"
                               "global  OK\n"
                               "caui    OK      FAILED\n"
                               "nic     OK\n";

/* global on pipe 0; caui on both pipes, pipe 1 FAILED; nic on pipe 0. */
WatchSample sample(double seconds, uint64_t frames, uint64_t drops,
                   uint64_t other, uint64_t nic)
{
    WatchSample s;

    s.seconds = seconds;
    s.clock = "12:00:00";
    s.snapshot.modules = {
        {0, 0, false}, {3, 0, false}, {3, 1, true}, {4, 0, false}};
    s.snapshot.pipes = {{0, true}, {1, false}};
    s.snapshot.stats = {{},
                        {{"reg_0x504_0x500", frames}, {"reg_0x858", drops}},
                        {{"reg_0x504_0x500", other}},
                        {{"reg_0x50_0x54", nic}}};
    return s;
}

constexpr char kTitle[] =
    "12:00:00  every 1 s  modules: 3 OK, 1 FAILED  pipes: 1 up, 1 down\n";

TEST(WatchFrame, FirstSampleWaitsForRates)
{
    WatchView view;

    EXPECT_EQ(watch_frame(view, nullptr, sample(10, 100, 5, 7, 9)),
              std::string(kTitle) + kHealthGrid +
                  "counters: rates from the next sample on\n\n");
}

/* Only what changed, with its rate per second over the time between the
 * samples; an unchanged counter is left out. */
TEST(WatchFrame, ChangedCountersWithTheirRates)
{
    WatchView view;
    const WatchSample before = sample(10, 100, 5, 7, 9);

    EXPECT_EQ(watch_frame(view, &before, sample(12, 1100, 8, 7, 10)),
              std::string(kTitle) + kHealthGrid +
                  "MODULE  PIPE  COUNTER          VALUE  RATE/S\n"
                  "caui    0     reg_0x504_0x500  1100   500.0\n"
                  "caui    0     reg_0x858        8      1.5\n"
                  "nic     0     reg_0x50_0x54    10     0.5\n\n");
    EXPECT_EQ(lines_of(watch_frame(view, &before, sample(10.5, 100, 5, 7, 9)))
                  .at(6),
              "counters: none changed");
}

/* A counter that went back (cleared, or a daemon restarted between two
 * samples) shows its value and no rate, never a negative or a huge one. */
TEST(WatchFrame, CounterThatWentBackStartsAfresh)
{
    WatchView view;
    const WatchSample before = sample(10, 1000, 5, 7, 9);
    Lines lines = lines_of(watch_frame(view, &before, sample(11, 3, 6, 7, 9)));

    ASSERT_EQ(lines.size(), 10u);
    EXPECT_EQ(lines[6], "MODULE  PIPE  COUNTER          VALUE  RATE/S");
    EXPECT_EQ(lines[7], "caui    0     reg_0x504_0x500  3      -");
    EXPECT_EQ(lines[8], "caui    0     reg_0x858        6      1.0");
    EXPECT_EQ(lines[9], "");
}

/* MODULE PIPE: every counter of that instance, unchanged ones at 0.0,
 * and no rate before a second sample. */
TEST(WatchFrame, TargetShowsEveryCounterOfItsInstance)
{
    WatchView view;
    const WatchSample before = sample(10, 100, 5, 7, 9);

    view.interval_s = 0.5;
    view.target = WatchTarget{3, 0};
    const std::string title =
        "12:00:00  every 0.5 s  modules: 3 OK, 1 FAILED  pipes: 1 up, 1 down\n";
    EXPECT_EQ(watch_frame(view, &before, sample(10.5, 150, 5, 8, 10)),
              title + kHealthGrid +
                  "MODULE  PIPE  COUNTER          VALUE  RATE/S\n"
                  "caui    0     reg_0x504_0x500  150    100.0\n"
                  "caui    0     reg_0x858        5      0.0\n\n");
    EXPECT_EQ(watch_frame(view, nullptr, sample(10.5, 150, 5, 8, 10)),
              title + kHealthGrid +
                  "MODULE  PIPE  COUNTER          VALUE  RATE/S\n"
                  "caui    0     reg_0x504_0x500  150    -\n"
                  "caui    0     reg_0x858        5      -\n\n");
    view.target = WatchTarget{0, 0}; /* global keeps no counters */
    EXPECT_EQ(
        lines_of(watch_frame(view, &before, sample(11, 1, 1, 1, 1))).at(6),
        "counters: none");
}

TEST(WatchFrame, DaemonNotRunning)
{
    WatchView view;
    WatchSample s;

    s.clock = "12:00:01";
    s.failure = "daemon not running: no socket at /run/x.sock";
    EXPECT_EQ(watch_frame(view, nullptr, s),
              "12:00:01  every 1 s\n"
              "daemon not running: no socket at /run/x.sock; retrying\n\n");
}

/* On a terminal: drawn from the top left, each line erased to its end,
 * the rest of the screen erased; FAILED in reverse video. */
TEST(WatchFrame, TerminalRedrawsInPlace)
{
    WatchView view;

    view.terminal = true;
    view.rows = 24;
    EXPECT_EQ(watch_frame(view, nullptr, sample(10, 1, 2, 3, 4)),
              "\033[H"
              "12:00:00  every 1 s  modules: 3 OK, 1 FAILED  pipes: 1 up, 1 "
              "down\033[K\n"
              "MODULE  PIPE 0  PIPE 1\033[K\n"
              "link    up      down\033[K\n"
              "global  OK\033[K\n"
              "caui    OK      \033[7mFAILED\033[0m\033[K\n"
              "nic     OK\033[K\n"
              "counters: rates from the next sample on\033[K\n"
              "\033[J");
}

/* No more lines than the terminal has, less one so that it never
 * scrolls; the last says how many were left out. */
TEST(WatchFrame, TerminalFrameFitsTheScreen)
{
    WatchView view;

    view.terminal = true;
    view.rows = 6;
    EXPECT_EQ(watch_frame(view, nullptr, sample(10, 1, 2, 3, 4)),
              "\033[H"
              "12:00:00  every 1 s  modules: 3 OK, 1 FAILED  pipes: 1 up, 1 "
              "down\033[K\n"
              "MODULE  PIPE 0  PIPE 1\033[K\n"
              "link    up      down\033[K\n"
              "global  OK\033[K\n"
              "... 3 more lines\033[K\n"
              "\033[J");
}

TEST(WatchFrame, NoEscapeCodesForAPipe)
{
    WatchView view;
    const WatchSample before = sample(10, 100, 5, 7, 9);
    WatchSample failed;

    failed.failure = "the daemon closed the connection";
    for (bool target : {false, true}) {
        view.target = target ? std::optional(WatchTarget{3, 1}) : std::nullopt;
        for (const std::string &frame :
             {watch_frame(view, nullptr, before),
              watch_frame(view, &before, sample(11, 200, 5, 9, 9)),
              watch_frame(view, nullptr, failed)})
            EXPECT_EQ(frame.find('\033'), std::string::npos) << frame;
    }
}

TEST(WatchInterval, FractionsWithinBounds)
{
    EXPECT_EQ(parse_interval("0.5"), 0.5);
    EXPECT_EQ(parse_interval("0.1"), 0.1);
    EXPECT_EQ(parse_interval("3600"), 3600.0);
    for (const char *bad : {"0", "0.05", "3600.5", "-1", " 1", "1s", "", "nan",
                            "inf"}) {
        try {
            parse_interval(bad);
            ADD_FAILURE() << "\"" << bad << "\" taken";
        } catch (const Failure &f) {
            EXPECT_EQ(f.exit(), Exit::usage);
            EXPECT_EQ(f.what(), "bad interval \"" + std::string(bad) + "\"");
        }
    }
}

/* --- The command ------------------------------------------------------ */

constexpr int kCommandTimeoutMs = 10000;
constexpr int kStartTimeoutMs = 15000;
constexpr int kFrameTimeoutMs = 8000;
constexpr char kNoSocket[] = "/nonexistent/lhctl_watch.sock";
constexpr char kUsage[] = "usage: lhctl [--socket PATH] [--timeout SECONDS] "
                          "[--json] watch [--interval SECONDS] [MODULE PIPE]\n";

/* The frames lhctl printed through a pipe: blocks of lines between blank
 * lines; a frame still being written is not one yet. */
std::vector<Lines> frames_of(const std::string &text)
{
    std::vector<Lines> frames;
    size_t at = 0;

    for (size_t end; (end = text.find("\n\n", at)) != std::string::npos;
         at = end + 2)
        frames.push_back(lines_of(text.substr(at, end + 1 - at)));
    return frames;
}

const std::regex kHealthyTitle(
    "[0-9]{2}:[0-9]{2}:[0-9]{2}  every 0\\.5 s  modules: 16 OK, 0 FAILED  "
    "pipes: 2 up, 0 down");

/* The counter row of caui pipe 0's reg_0x858 in a frame: value and rate
 * ("-" for none); false when the frame has no such row. */
bool caui_drops(const Lines &frame, uint64_t *value, std::string *rate)
{
    static const std::regex row(
        "caui    0     reg_0x858  ([0-9]+) +([-0-9.]+)");
    std::smatch m;

    for (const std::string &line : frame)
        if (std::regex_match(line, m, row)) {
            *value = std::stoull(m[1]);
            *rate = m[2];
            return true;
        }
    return false;
}

class WatchCommand : public ::testing::Test {
protected:
    void SetUp() override
    {
        signal(SIGPIPE, SIG_IGN);
        ASSERT_TRUE(parent_.made()) << "no directory in /tmp";
        dir_ = parent_.file("board");
        socket_ = dir_ + "/run/ipc/219.sock";
        out_ = parent_.file("watch.out");
        err_ = parent_.file("watch.err");
    }

    void TearDown() override
    {
        watch_.stop();
        stop_daemon();
    }

    Child spawn_lhsim(const Args &args, const std::string &out) const
    {
        Args argv = {"lhsim"};
        SpawnOptions options;

        argv.insert(argv.end(), args.begin(), args.end());
        options.out = out;
        options.err = out + ".err";
        options.own_group = true;
        std::string bin = KEEPER_SVC_PATH;
        ScopedEnv path("PATH", bin.substr(0, bin.rfind('/')) + ":" +
                                   getenv("PATH"));
        return spawn_program(LHSIM_PATH, argv, options);
    }

    /* lhsim args... to its end, exit 0 expected. */
    void lhsim(const Args &args) const
    {
        const std::string out = parent_.file("lhsim.out");
        int status = 0;

        ASSERT_TRUE(spawn_lhsim(args, out).wait(kCommandTimeoutMs, &status))
            << "lhsim " << args.at(0) << " did not end";
        ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0)
            << "lhsim " << args.at(0) << ": " << text_of(out + ".err");
    }

    /* The daemon on a base2 board, answering. */
    void start_daemon()
    {
        std::string why;
        struct ipc_client *client = NULL;
        long long start = now_ms();

        if (!sandbox_ready(&why))
            GTEST_SKIP() << why;
        if (access(dir_.c_str(), F_OK) != 0) {
            ASSERT_NO_FATAL_FAILURE(
                lhsim({"create", "--board", "base2", dir_}));
        }
        run_ = spawn_lhsim({"run", "--dir", dir_, "--", PELLIN_MGR_PATH},
                           parent_.file("run.out"));
        while (ipc_client_open(socket_.c_str(), &client) != 0) {
            ASSERT_FALSE(run_.ended()) << text_of(parent_.file("run.out.err"));
            ASSERT_LT(now_ms() - start, kStartTimeoutMs) << "no daemon";
            usleep(20000);
        }
        ipc_client_close(client);
    }

    /* As a user stops it: SIGINT to lhsim run. */
    void stop_daemon()
    {
        int status = 0;

        if (!run_.running())
            return;
        run_.signal(SIGINT);
        EXPECT_TRUE(run_.wait(kStartTimeoutMs, &status)) << "lhsim run killed";
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    }

    void start_watch(const std::string &socket, const Args &args,
                     const std::string &out)
    {
        Args argv = {LHCTL_PATH, "--socket", socket, "watch"};
        SpawnOptions options;

        argv.insert(argv.end(), args.begin(), args.end());
        options.out = out;
        options.err = err_;
        watch_ = spawn_program(LHCTL_PATH, argv, options);
    }

    /* Sends sig to the watch: its exit code, -1 when it did not end by
     * itself. */
    int stop_watch(int sig)
    {
        int status = 0;

        EXPECT_EQ(watch_.signal(sig), 0);
        if (!watch_.wait(kCommandTimeoutMs, &status)) {
            ADD_FAILURE() << "lhctl watch did not end on signal " << sig;
            return -1;
        }
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

    /* The frames so far once there are at least `count` from frame
     * `from` on matching pred; each frame was flushed as it was drawn. */
    template <typename Pred>
    std::vector<Lines> wait_frames(size_t from, size_t count, Pred pred) const
    {
        long long start = now_ms();

        for (;;) {
            std::vector<Lines> frames = frames_of(text_of(out_));
            size_t matched = 0;
            for (size_t i = from; i < frames.size(); i++)
                matched += pred(frames[i]);
            if (matched >= count)
                return frames;
            if (now_ms() - start > kFrameTimeoutMs) {
                ADD_FAILURE() << "not " << count << " such frames from "
                              << from << " in:\n"
                              << text_of(out_);
                return frames;
            }
            usleep(50000);
        }
    }

    TempDir parent_{"/tmp/lhctl_watch_test_"};
    std::string dir_;
    std::string socket_;
    std::string out_;
    std::string err_;
    Child run_;
    Child watch_;
};

auto has_line(const std::string &line)
{
    return [line](const Lines &frame) {
        return std::ranges::find(frame, line) != frame.end();
    };
}

bool answered(const Lines &frame)
{
    return !frame.empty() &&
           std::regex_search(frame[0], std::regex("modules: "));
}

/* While lhsim adds 7 to caui pipe 0's reg_0x858 at each 500 ms poll of
 * the daemon, every frame through the pipe shows the health of the whole
 * board, and from the second on that counter alone, its rate the change
 * of its value over the interval. */
TEST_F(WatchCommand, ThroughAPipeCountersAndTheirRates)
{
    ASSERT_NO_FATAL_FAILURE(start_daemon());
    if (IsSkipped())
        return;
    ASSERT_NO_FATAL_FAILURE(lhsim({"counter", dir_, "caui", "0", "26", "7"}));
    start_watch(socket_, {"--interval", "0.5"}, out_);
    std::vector<Lines> frames = wait_frames(0, 6, [](const Lines &f) {
        uint64_t value;
        std::string rate;
        return caui_drops(f, &value, &rate);
    });
    EXPECT_EQ(stop_watch(SIGINT), 0);
    EXPECT_EQ(text_of(err_), "");
    const std::string all = text_of(out_);
    EXPECT_EQ(all.find('\033'), std::string::npos);
    ASSERT_GE(frames.size(), 7u);
    ASSERT_EQ(frames[0].size(), 13u);
    EXPECT_TRUE(std::regex_match(frames[0][0], kHealthyTitle));
    EXPECT_EQ(joined(Lines(frames[0].begin() + 1, frames[0].end())),
              "MODULE                  PIPE 0  PIPE 1\n"
              "link                    up      up\n"
              "global                  OK\n"
              "pcie                    OK\n"
              "ddr4                    OK      OK\n"
              "caui                    OK      OK\n"
              "nic                     OK      OK\n"
              "ingress-pkt-parser      OK      OK\n"
              "ingress-pkt-classifier  OK      OK\n"
              "ingress-pkt-processor   OK      OK\n"
              "egress-scheduler        OK      OK\n"
              "counters: rates from the next sample on\n");
    /* A frame without the row says that the counter did not change. The
     * first frame shows no counter, so rates are checked from the second
     * frame that has the row on. */
    std::optional<uint64_t> last;
    size_t rates = 0;
    for (size_t i = 1; i < frames.size(); i++) {
        const Lines &frame = frames[i];
        uint64_t value;
        std::string rate;
        SCOPED_TRACE(joined(frame));
        ASSERT_GE(frame.size(), 13u);
        EXPECT_TRUE(std::regex_match(frame[0], kHealthyTitle));
        EXPECT_EQ(Lines(frame.begin() + 1, frame.begin() + 12),
                  Lines(frames[0].begin() + 1, frames[0].begin() + 12));
        if (!caui_drops(frame, &value, &rate)) {
            EXPECT_EQ(joined(Lines(frame.begin() + 12, frame.end())),
                      "counters: none changed\n");
            continue;
        }
        ASSERT_EQ(frame.size(), 14u);
        EXPECT_EQ(frame[12], "MODULE  PIPE  COUNTER    VALUE  RATE/S");
        EXPECT_EQ(value % 7, 0u);
        if (last) {
            /* The change over the time between the samples: the interval,
             * give or take how late a busy machine let a sample be. */
            const double change = static_cast<double>(value - *last);
            ASSERT_GT(value, *last);
            EXPECT_GE(std::stod(rate), change / 0.75) << change;
            EXPECT_LE(std::stod(rate), change / 0.25) << change;
            rates++;
        }
        last = value;
    }
    EXPECT_GE(rates, 4u);
}

/* A link dropped and a fatal error raised show in the next frames: the
 * link's state, FAILED under its pipe, the counts in the title. */
TEST_F(WatchCommand, LinkDropAndFatalErrorShow)
{
    ASSERT_NO_FATAL_FAILURE(start_daemon());
    if (IsSkipped())
        return;
    start_watch(socket_, {"--interval=0.3", "caui", "1"}, out_);
    wait_frames(0, 1, answered);
    ASSERT_NO_FATAL_FAILURE(lhsim({"link", dir_, "1", "down"}));
    ASSERT_NO_FATAL_FAILURE(
        lhsim({"fatal", dir_, "caui", "1", "TX Buffer FIFO Underflow"}));
    std::vector<Lines> frames =
        wait_frames(0, 1, has_line("caui                    OK      FAILED"));
    EXPECT_EQ(stop_watch(SIGTERM), 0);
    const Lines &last = frames.back();
    ASSERT_GE(last.size(), 15u) << joined(last);
    EXPECT_TRUE(std::regex_match(
        last[0], std::regex("[0-9:]{8}  every 0\\.3 s  modules: 15 OK, 1 "
                            "FAILED  pipes: 1 up, 1 down")))
        << last[0];
    EXPECT_EQ(last[2], "link                    up      down");
    EXPECT_EQ(last[12], "MODULE  PIPE  COUNTER          VALUE  RATE/S");
    /* Every counter of caui pipe 1, the first of them in the driver's
     * order. */
    EXPECT_EQ(last.size(), 13u + 32u);
    EXPECT_TRUE(std::regex_match(
        last[13], std::regex("caui    1     reg_0x504_0x500  0      0\\.0")))
        << last[12];
}

/* The daemon stopped mid-watch: "daemon not running" each interval; it
 * starts again and the watch picks it up, its counters starting afresh. */
TEST_F(WatchCommand, DaemonStoppedAndStartedAgain)
{
    ASSERT_NO_FATAL_FAILURE(start_daemon());
    if (IsSkipped())
        return;
    ASSERT_NO_FATAL_FAILURE(lhsim({"counter", dir_, "caui", "0", "26", "7"}));
    start_watch(socket_, {"--interval", "0.3"}, out_);
    wait_frames(0, 3, answered);
    stop_daemon();
    const std::string down =
        "daemon not running: nothing serves " + socket_ + "; retrying";
    std::vector<Lines> frames = wait_frames(0, 2, has_line(down));
    size_t resumed_from = frames.size();
    ASSERT_NO_FATAL_FAILURE(start_daemon());
    frames = wait_frames(resumed_from, 3, answered);
    EXPECT_EQ(stop_watch(SIGINT), 0);
    EXPECT_EQ(text_of(err_), "");

    /* Down frames are the title and the reason; the first frame back has
     * no rates; none is ever negative. */
    size_t down_frames = 0, back = 0;
    for (size_t i = 0; i < frames.size(); i++) {
        const Lines &frame = frames[i];
        uint64_t value;
        std::string rate;
        SCOPED_TRACE(joined(frame));
        if (!answered(frame)) {
            ASSERT_EQ(frame.size(), 2u);
            EXPECT_TRUE(std::regex_match(
                frame[0], std::regex("[0-9:]{8}  every 0\\.3 s")));
            EXPECT_TRUE(frame[1] == down ||
                        frame[1] == "daemon not running: no socket at " +
                                        socket_ + "; retrying")
                << frame[1];
            down_frames++;
            back = 0;
            continue;
        }
        if (down_frames > 0 && back++ == 0) {
            EXPECT_EQ(frame.back(), "counters: rates from the next sample on");
        }
        if (caui_drops(frame, &value, &rate)) {
            EXPECT_NE(rate, "-");
            EXPECT_GE(std::stod(rate), 0.0);
            EXPECT_LT(std::stod(rate), 100.0);
        }
    }
    EXPECT_GE(down_frames, 2u);
    EXPECT_GE(back, 3u);
}

/* SIGINT and SIGTERM end the watch with exit 0, also while the daemon
 * is not there; each frame is out as soon as it is drawn. */
TEST_F(WatchCommand, SignalsEndItWithExit0)
{
    const std::string down = std::string("daemon not running: no socket at ") +
                             kNoSocket + "; retrying";

    for (int sig : {SIGINT, SIGTERM}) {
        SCOPED_TRACE(strsignal(sig));
        unlink(out_.c_str()); /* only this run's frames count */
        start_watch(kNoSocket, {"--interval", "0.2"}, out_);
        wait_frames(0, 2, has_line(down));
        EXPECT_EQ(stop_watch(sig), 0);
        EXPECT_EQ(text_of(err_), "");
    }
}

/* On a terminal: the screen cleared and the cursor hidden first, each
 * frame redrawn from the top, the cursor shown again after Ctrl-C. */
TEST_F(WatchCommand, TerminalRestoredAfterCtrlC)
{
    pellin::UniqueFd master(posix_openpt(O_RDWR | O_NOCTTY));
    ASSERT_TRUE(master.valid());
    ASSERT_EQ(grantpt(master.get()), 0);
    ASSERT_EQ(unlockpt(master.get()), 0);
    ScopedEnv term("TERM", "xterm");
    start_watch(kNoSocket, {"--interval", "0.2"}, ptsname(master.get()));
    std::string screen;
    long long start = now_ms();
    auto read_some = [&](int ms) {
        struct pollfd p = {master.get(), POLLIN, 0};
        char buf[4096];
        if (poll(&p, 1, ms) == 1) {
            ssize_t n = read(master.get(), buf, sizeof(buf));
            if (n > 0)
                screen.append(buf, static_cast<size_t>(n));
            return n > 0;
        }
        return false;
    };
    while (count_in_text(screen.c_str(), "\033[H") < 2 &&
           now_ms() - start < kFrameTimeoutMs)
        read_some(100);
    EXPECT_EQ(stop_watch(SIGINT), 0);
    while (read_some(200)) {
    }
    const std::string frame =
        std::string("daemon not running: no socket at ") + kNoSocket +
        "; retrying\033[K\r\n\033[J";
    EXPECT_TRUE(screen.starts_with(std::string(kStartScreen) + "\033[H"))
        << screen;
    EXPECT_TRUE(screen.ends_with(frame + kShowCursor)) << screen;
    EXPECT_GE(count_in_text(screen.c_str(), frame.c_str()), 2);
}

TEST_F(WatchCommand, UsageErrorsExit2)
{
    /* Each message is followed by watch's usage line. */
    const struct {
        Args args;
        const char *message;
    } cases[] = {
        {{"--interval", "0"}, "bad interval \"0\""},
        {{"--interval", "0.05"}, "bad interval \"0.05\""},
        {{"--interval=3601"}, "bad interval \"3601\""},
        {{"--interval", "1x"}, "bad interval \"1x\""},
        {{"caui"}, "missing argument"},
        {{"caui", "0", "1"}, "unexpected argument \"1\""},
        {{"cauí", "0"}, "unknown module \"cauí\""},
        {{"caui", "-1"}, "bad PIPE \"-1\""},
        {{"--json"}, "unexpected option \"--json\""},
        {{"--clear"}, "unexpected argument \"--clear\""},
    };

    for (const auto &c : cases) {
        SCOPED_TRACE(joined(c.args));
        start_watch(kNoSocket, c.args, out_);
        int status = 0;
        ASSERT_TRUE(watch_.wait(kCommandTimeoutMs, &status));
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 2) << status;
        EXPECT_EQ(text_of(out_), "");
        EXPECT_EQ(text_of(err_),
                  "lhctl: " + std::string(c.message) + "\n" + kUsage);
    }
}

TEST_F(WatchCommand, Help)
{
    int status = 0;

    start_watch(kNoSocket, {"--help"}, out_);
    ASSERT_TRUE(watch_.wait(kCommandTimeoutMs, &status));
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    EXPECT_EQ(text_of(out_),
              std::string(kUsage) +
                  "Redraws module health, pipe states and counter rates per "
                  "second every interval (default 1 s, 0.1 to 3600) until "
                  "Ctrl-C: every counter of MODULE PIPE, or else those that "
                  "changed. Without a terminal, one snapshot per interval.\n");
}

} // namespace
