/* plat_syslog: lines as syslog(3) sends them to /dev/log, sent by a writer
 * thread so that a log reader that stops reading never holds up the
 * caller. Each case runs in a mount namespace of its own, where a tmpfs
 * over /dev holds the test's datagram socket at /dev/log. */
#include <errno.h>
#include <poll.h>
#include <sched.h>
#include <stdio.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <syslog.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "owned.hpp"
#include "plat_syslog.h"

namespace {

using pellin::UniqueFd;

constexpr int wait_ms = 2000;
constexpr const char *dropped_text =
    " lines dropped while the log socket was full";

/* What a datagram of syslog(3) carries. */
struct Record {
    int priority = -1;
    std::string ident;
    int pid = 0;
    std::string text;
};

/* "<pri>Mmm dd hh:mm:ss ident[pid]: text" */
std::optional<Record> parse(const std::string &line)
{
    Record r;
    const size_t stamp_end = line.find('>') + 1 + 16;
    const size_t open = line.find('[', stamp_end);
    const size_t close = line.find("]: ", open);

    if (line.empty() || line[0] != '<' || open == std::string::npos ||
        close == std::string::npos)
        return std::nullopt;
    r.priority = std::stoi(line.substr(1));
    r.ident = line.substr(stamp_end, open - stamp_end);
    r.pid = std::stoi(line.substr(open + 1));
    r.text = line.substr(close + 3);
    return r;
}

/* The test's socket at /dev/log, removed with the object. */
class Reader {
public:
    Reader() { open(); }
    ~Reader() { unlink("/dev/log"); }

    bool ready() const { return fd_.valid(); }

    void open()
    {
        sockaddr_un address{};

        address.sun_family = AF_UNIX;
        strcpy(address.sun_path, "/dev/log");
        unlink(address.sun_path);
        fd_.reset(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
        if (fd_.valid() &&
            bind(fd_.get(), reinterpret_cast<const sockaddr *>(&address),
                 sizeof(address)) != 0)
            fd_.reset();
    }

    void close()
    {
        fd_.reset();
        unlink("/dev/log");
    }

    /* The next datagram, or nothing within `timeout_ms`. */
    std::optional<std::string> next(int timeout_ms = wait_ms) const
    {
        pollfd waiting = {fd_.get(), POLLIN, 0};
        std::vector<char> bytes(1 << 16);

        if (poll(&waiting, 1, timeout_ms) != 1)
            return std::nullopt;
        const ssize_t got = recv(fd_.get(), bytes.data(), bytes.size(), 0);
        if (got < 0)
            return std::nullopt;
        return std::string(bytes.data(), static_cast<size_t>(got));
    }

    std::optional<Record> next_record(int timeout_ms = wait_ms) const
    {
        const std::optional<std::string> line = next(timeout_ms);

        return line ? parse(*line) : std::nullopt;
    }

    /* The texts of every record that comes until none does for 300 ms. */
    std::vector<std::string> drain() const
    {
        std::vector<std::string> texts;

        while (std::optional<Record> r = next_record(300))
            texts.push_back(r->text);
        return texts;
    }

private:
    UniqueFd fd_;
};

/* "<pri>Mmm dd hh:mm:ss " of this second, as syslog(3) writes it. */
std::string header_now(int pri)
{
    const time_t now = time(nullptr);
    struct tm local {};
    char stamp[32];

    localtime_r(&now, &local);
    strftime(stamp, sizeof(stamp), "%h %e %T ", &local);
    return "<" + std::to_string(pri) + ">" + stamp;
}

class PlatSyslog : public ::testing::Test {
protected:
    void SetUp() override
    {
        if (unshare(CLONE_NEWNS) != 0 ||
            mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
            mount("tmpfs", "/dev", "tmpfs", 0, "mode=0755") != 0)
            GTEST_SKIP() << "no mount namespace here (needs root): "
                         << strerror(errno);
        reader_.open();
        ASSERT_TRUE(reader_.ready()) << strerror(errno);
    }

    /* Lines "line 0" ... sent while the reader does not read; the number
     * sent. */
    int fill_and_drop(int lines)
    {
        for (int i = 0; i < lines; i++)
            plat_syslog(LOG_INFO, "filler", 0, "line %d", i);
        return lines;
    }

    Reader reader_;
};

TEST_F(PlatSyslog, SendsWhatSyslog3SendsToDevLog)
{
    for (int attempt = 0; attempt < 3; attempt++) {
        const std::string before = header_now(0);
        plat_syslog(LOG_ERR, "Pellin Manager", 0, "%s: pipe %d", "Error", 3);
        const std::optional<std::string> ours = reader_.next();
        openlog("Pellin Manager", LOG_PID, LOG_DAEMON);
        syslog(LOG_ERR, "%s: pipe %d", "Error", 3);
        closelog();
        const std::optional<std::string> theirs = reader_.next();
        ASSERT_TRUE(ours.has_value());
        ASSERT_TRUE(theirs.has_value());
        if (header_now(0) != before)
            continue;
        EXPECT_EQ(*ours, *theirs);
        EXPECT_EQ(*ours, header_now(LOG_ERR | LOG_DAEMON) +
                             "Pellin Manager[" + std::to_string(getpid()) +
                             "]: Error: pipe 3");
        return;
    }
    FAIL() << "the clock turned on every attempt";
}

TEST_F(PlatSyslog, ReaderThatStopsLosesLinesButNeverHoldsTheCaller)
{
    /* A caller held by the reader would never get here. */
    const int sent = fill_and_drop(2000);

    const std::vector<std::string> delivered = reader_.drain();
    ASSERT_LT(delivered.size(), static_cast<size_t>(sent));
    for (size_t i = 0; i < delivered.size(); i++)
        ASSERT_EQ(delivered[i], "line " + std::to_string(i));

    plat_syslog(LOG_ERR, "Pellin Manager", 0, "after");
    const std::optional<Record> count = reader_.next_record();
    ASSERT_TRUE(count.has_value());
    EXPECT_EQ(count->priority, LOG_WARNING | LOG_DAEMON);
    EXPECT_EQ(count->ident, "Pellin Manager");
    EXPECT_EQ(count->text,
              "syslog: " + std::to_string(sent - delivered.size()) +
                  dropped_text);
    const std::optional<Record> after = reader_.next_record();
    ASSERT_TRUE(after.has_value());
    EXPECT_EQ(after->priority, LOG_ERR | LOG_DAEMON);
    EXPECT_EQ(after->text, "after");
}

TEST_F(PlatSyslog, CountIsReportedOnce)
{
    fill_and_drop(2000);
    reader_.drain();

    plat_syslog(LOG_INFO, "x", 0, "first");
    plat_syslog(LOG_INFO, "x", 0, "second");
    const std::vector<std::string> texts = reader_.drain();
    ASSERT_EQ(texts.size(), 3u);
    EXPECT_NE(texts[0].find(dropped_text), std::string::npos) << texts[0];
    EXPECT_EQ(texts[1], "first");
    EXPECT_EQ(texts[2], "second");
}

/* A reader that is only busy gets a moment to catch up: a burst larger
 * than the queue arrives whole. */
TEST_F(PlatSyslog, BurstToABusyReaderIsNotLost)
{
    std::atomic<bool> done{false};
    std::vector<std::string> texts;
    std::thread reading([&] {
        while (std::optional<Record> r = reader_.next_record(done ? 300 : 2000)) {
            texts.push_back(r->text);
            usleep(200);
        }
    });

    for (int i = 0; i < 500; i++)
        plat_syslog(LOG_INFO, "burst", 0, "line %d", i);
    done = true;
    reading.join();
    ASSERT_EQ(texts.size(), 500u);
    for (size_t i = 0; i < texts.size(); i++)
        EXPECT_EQ(texts[i], "line " + std::to_string(i));
}

TEST_F(PlatSyslog, ReaderThatRestartsGetsTheNextLine)
{
    plat_syslog(LOG_INFO, "x", 0, "before");
    ASSERT_EQ(reader_.drain(), std::vector<std::string>{"before"});

    reader_.close();
    reader_.open();
    plat_syslog(LOG_INFO, "x", 0, "after the restart");
    const std::optional<Record> r = reader_.next_record();
    ASSERT_TRUE(r.has_value());
    EXPECT_EQ(r->text, "after the restart");
}

TEST_F(PlatSyslog, ErrnoIsTheCallersForPercentMAndKept)
{
    errno = ENOENT;
    plat_syslog(LOG_ERR, "x", 0, "open: %m");
    EXPECT_EQ(errno, ENOENT);
    const std::optional<Record> r = reader_.next_record();
    ASSERT_TRUE(r.has_value());
    EXPECT_EQ(r->text, std::string("open: ") + strerror(ENOENT));
}

TEST_F(PlatSyslog, TwoThreadsKeepTheirIdents)
{
    auto log_as = [](const char *ident) {
        for (int i = 0; i < 20; i++)
            plat_syslog(LOG_INFO, ident, 0, "%s %d", ident, i);
    };
    std::thread daemon(log_as, "Pellin Manager");
    std::thread library(log_as, "larks-hollow-fpga");
    int seen = 0;

    daemon.join();
    library.join();
    while (std::optional<Record> r = reader_.next_record(300)) {
        EXPECT_EQ(r->text.rfind(r->ident + " ", 0), 0u) << r->text;
        EXPECT_EQ(r->pid, getpid());
        seen++;
    }
    EXPECT_EQ(seen, 40);
}

TEST_F(PlatSyslog, LongTextIsCutAt2047Bytes)
{
    plat_syslog(LOG_INFO, "x", 0, "%s", std::string(3000, 'a').c_str());
    const std::optional<Record> r = reader_.next_record();
    ASSERT_TRUE(r.has_value());
    EXPECT_EQ(r->text, std::string(2047, 'a'));
}

/* What was queued when the process exits still goes out. */
TEST_F(PlatSyslog, QueuedLinesGoOutAtExit)
{
    const pid_t child = fork();
    ASSERT_GE(child, 0) << strerror(errno);
    if (child == 0) {
        for (int i = 0; i < 30; i++)
            plat_syslog(LOG_INFO, "child", 0, "line %d", i);
        exit(0);
    }
    int status = 0;
    std::vector<std::string> texts;
    while (std::optional<Record> r = reader_.next_record()) {
        texts.push_back(r->text);
        if (texts.size() == 30)
            break;
    }
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_EQ(texts.size(), 30u);
    EXPECT_EQ(texts.back(), "line 29");
}

/* A child of fork has no writer thread of its parent's: it starts one. */
TEST_F(PlatSyslog, ChildOfForkLogsToo)
{
#ifdef __SANITIZE_THREAD__
    GTEST_SKIP() << "ThreadSanitizer starts no thread in the child of a "
                    "process with threads";
#endif
    plat_syslog(LOG_INFO, "parent", 0, "before the fork");
    ASSERT_EQ(reader_.drain(), std::vector<std::string>{"before the fork"});

    const pid_t child = fork();
    ASSERT_GE(child, 0) << strerror(errno);
    if (child == 0) {
        plat_syslog(LOG_INFO, "child", 0, "from the child");
        exit(0);
    }
    const std::optional<Record> r = reader_.next_record();
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_TRUE(r.has_value());
    EXPECT_EQ(r->text, "from the child");
    EXPECT_EQ(r->pid, child);
}

} // namespace
