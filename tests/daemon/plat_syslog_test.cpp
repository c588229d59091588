/* The syslog sender: lines as syslog(3) writes them, sent to a log socket
 * that may stop reading without the sender ever waiting for it. A datagram
 * socket of the test stands in for the log reader. */
#include <errno.h>
#include <poll.h>
#include <sched.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <syslog.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "plat_syslog.h"
#include "plat_syslog_sender.hpp"

namespace {

constexpr int wait_ms = 2000;

/* A socket bound at a path, closed and removed with the object. */
class Reader {
public:
    explicit Reader(std::string path, int type = SOCK_DGRAM)
        : path_(std::move(path))
    {
        struct sockaddr_un address {};

        address.sun_family = AF_UNIX;
        snprintf(address.sun_path, sizeof(address.sun_path), "%s",
                 path_.c_str());
        unlink(path_.c_str());
        fd_ = socket(AF_UNIX, type | SOCK_CLOEXEC, 0);
        if (fd_ >= 0 &&
            bind(fd_, reinterpret_cast<const sockaddr *>(&address),
                 sizeof(address)) != 0) {
            close(fd_);
            fd_ = -1;
        }
        if (fd_ >= 0 && type == SOCK_STREAM && listen(fd_, 4) != 0) {
            close(fd_);
            fd_ = -1;
        }
    }
    ~Reader()
    {
        if (fd_ >= 0)
            close(fd_);
        unlink(path_.c_str());
    }
    Reader(const Reader &) = delete;
    Reader &operator=(const Reader &) = delete;

    int fd() const { return fd_; }

    /* The next datagram, or nothing within `timeout_ms`. */
    std::optional<std::string> next(int timeout_ms = wait_ms) const
    {
        return receive_from(fd_, timeout_ms);
    }

    /* Every datagram waiting now. */
    std::vector<std::string> drain() const
    {
        std::vector<std::string> lines;

        while (std::optional<std::string> line = next(0))
            lines.push_back(*line);
        return lines;
    }

    static std::optional<std::string> receive_from(int fd, int timeout_ms)
    {
        struct pollfd waiting = {fd, POLLIN, 0};
        std::vector<char> bytes(1 << 16);

        if (poll(&waiting, 1, timeout_ms) != 1)
            return std::nullopt;
        const ssize_t got = recv(fd, bytes.data(), bytes.size(), 0);
        if (got < 0)
            return std::nullopt;
        return std::string(bytes.data(), static_cast<size_t>(got));
    }

private:
    std::string path_;
    int fd_ = -1;
};

/* A socket path of the test's own. */
std::string socket_path(const char *name)
{
    return "/tmp/plat_syslog_test." + std::to_string(getpid()) + "." + name;
}

void send(plat::SyslogSender &sender, int severity, const char *ident,
          const char *format, ...) __attribute__((format(printf, 4, 5)));

void send(plat::SyslogSender &sender, int severity, const char *ident,
          const char *format, ...)
{
    va_list args;

    va_start(args, format);
    sender.send(severity, ident, format, args);
    va_end(args);
}

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

/* The line `sender` sends for `text`, with the header of the second it was
 * sent in (tried again when the second turned meanwhile). */
void expect_line(plat::SyslogSender &sender, const Reader &reader,
                 int severity, const char *ident, const char *text,
                 const std::string &expected_text)
{
    for (int attempt = 0; attempt < 3; attempt++) {
        const std::string before = header_now(0);
        send(sender, severity, ident, "%s", text);
        const std::optional<std::string> line = reader.next();
        ASSERT_TRUE(line.has_value());
        if (header_now(0) != before)
            continue;
        EXPECT_EQ(*line, header_now(severity | LOG_DAEMON) + ident + "[" +
                             std::to_string(getpid()) + "]: " +
                             expected_text);
        return;
    }
    FAIL() << "the clock turned on every attempt";
}

/* Sends lines until the reader's queue is full and `count` more were
 * dropped; returns the number sent. */
int fill_and_drop(plat::SyslogSender &sender, uint64_t count)
{
    int sent = 0;

    while (sender.dropped() < count && sent < 100000)
        send(sender, LOG_INFO, "filler", "line %d", sent++);
    return sent;
}

TEST(SyslogSender, LineHasTheFormOfSyslog3)
{
    const std::string path = socket_path("form");
    Reader reader(path);
    ASSERT_GE(reader.fd(), 0) << strerror(errno);
    plat::SyslogSender sender(path.c_str());

    expect_line(sender, reader, LOG_ERR, "Pellin Manager",
                "Informational - Found 2 traffic pipes",
                "Informational - Found 2 traffic pipes");
    expect_line(sender, reader, LOG_CRIT, "larks-hollow-fpga",
                "Error initializing IPC for Pellin Manager\n",
                "Error initializing IPC for Pellin Manager\n");
}

TEST(SyslogSender, ReaderThatStopsLosesLinesButNeverHoldsTheSender)
{
    const std::string path = socket_path("stopped");
    Reader reader(path);
    ASSERT_GE(reader.fd(), 0) << strerror(errno);
    plat::SyslogSender sender(path.c_str());

    const int sent = fill_and_drop(sender, 50);
    ASSERT_EQ(sender.dropped(), 50u);
    const std::vector<std::string> queued = reader.drain();
    EXPECT_EQ(queued.size() + 50, static_cast<size_t>(sent));
    ASSERT_FALSE(queued.empty());
    EXPECT_NE(queued.back().find("]: line " +
                                 std::to_string(queued.size() - 1)),
              std::string::npos)
        << queued.back();

    send(sender, LOG_INFO, "Pellin Manager", "after");
    const std::optional<std::string> report = reader.next();
    ASSERT_TRUE(report.has_value());
    const std::string tail =
        "]: syslog: 50 lines dropped while the log socket was full";
    EXPECT_EQ(report->substr(0, 4), "<28>");
    EXPECT_EQ(report->substr(report->size() - tail.size()), tail);
    EXPECT_NE(report->find(" Pellin Manager["), std::string::npos);
    const std::optional<std::string> after = reader.next();
    ASSERT_TRUE(after.has_value());
    EXPECT_EQ(after->substr(after->size() - 8), "]: after");
    EXPECT_EQ(sender.dropped(), 0u);
}

TEST(SyslogSender, BurstToABusyReaderIsNotLost)
{
    const std::string path = socket_path("burst");
    Reader reader(path);
    ASSERT_GE(reader.fd(), 0) << strerror(errno);
    plat::SyslogSender sender(path.c_str());
    std::vector<std::string> received;
    std::thread busy([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        while (received.size() < 100)
            if (std::optional<std::string> line = reader.next())
                received.push_back(*line);
            else
                break;
    });

    for (int i = 0; i < 100; i++)
        send(sender, LOG_INFO, "ident", "burst %d", i);
    busy.join();
    EXPECT_EQ(sender.dropped(), 0u);
    ASSERT_EQ(received.size(), 100u);
    EXPECT_NE(received.back().find("]: burst 99"), std::string::npos);
}

TEST(SyslogSender, BurstSoonAfterADropDoesNotWaitForTheReader)
{
    const std::string path = socket_path("soon");
    Reader reader(path);
    ASSERT_GE(reader.fd(), 0) << strerror(errno);
    plat::SyslogSender sender(path.c_str());

    fill_and_drop(sender, 1);
    reader.drain();
    send(sender, LOG_INFO, "ident", "delivered again");
    ASSERT_EQ(reader.drain().size(), 2u);
    std::atomic<bool> sending{true};
    std::thread busy([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        while (sending)
            reader.drain();
    });
    for (int i = 0; i < 100; i++)
        send(sender, LOG_INFO, "ident", "burst %d", i);
    sending = false;
    busy.join();
    EXPECT_GT(sender.dropped(), 0u);
}

TEST(SyslogSender, CountIsReportedOnce)
{
    const std::string path = socket_path("once");
    Reader reader(path);
    ASSERT_GE(reader.fd(), 0) << strerror(errno);
    plat::SyslogSender sender(path.c_str());

    fill_and_drop(sender, 3);
    reader.drain();
    send(sender, LOG_INFO, "ident", "first");
    send(sender, LOG_INFO, "ident", "second");
    const std::vector<std::string> lines = reader.drain();
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_NE(lines[0].find("]: syslog: 3 lines dropped"), std::string::npos)
        << lines[0];
    EXPECT_NE(lines[1].find("]: first"), std::string::npos) << lines[1];
    EXPECT_NE(lines[2].find("]: second"), std::string::npos) << lines[2];
}

TEST(SyslogSender, LineWhileStillFullIsCountedToo)
{
    const std::string path = socket_path("still");
    Reader reader(path);
    ASSERT_GE(reader.fd(), 0) << strerror(errno);
    plat::SyslogSender sender(path.c_str());

    fill_and_drop(sender, 1);
    send(sender, LOG_INFO, "ident", "still full");
    EXPECT_EQ(sender.dropped(), 2u);
}

TEST(SyslogSender, ReaderThatRestartsGetsTheNextLine)
{
    const std::string path = socket_path("restart");
    plat::SyslogSender sender(path.c_str());
    {
        Reader first(path);
        ASSERT_GE(first.fd(), 0) << strerror(errno);
        send(sender, LOG_INFO, "ident", "to the first");
        ASSERT_TRUE(first.next().has_value());
    }
    Reader second(path);
    ASSERT_GE(second.fd(), 0) << strerror(errno);
    send(sender, LOG_INFO, "ident", "to the second");
    const std::optional<std::string> line = second.next();
    ASSERT_TRUE(line.has_value());
    EXPECT_NE(line->find("]: to the second"), std::string::npos) << *line;
    EXPECT_EQ(sender.dropped(), 0u);
}

TEST(SyslogSender, NoReaderIsNoDrop)
{
    const std::string path = socket_path("none");
    plat::SyslogSender sender(path.c_str());

    send(sender, LOG_INFO, "ident", "nobody listens");
    EXPECT_EQ(sender.dropped(), 0u);
    Reader reader(path);
    ASSERT_GE(reader.fd(), 0) << strerror(errno);
    send(sender, LOG_INFO, "ident", "now someone does");
    const std::optional<std::string> line = reader.next();
    ASSERT_TRUE(line.has_value());
    EXPECT_NE(line->find("]: now someone does"), std::string::npos) << *line;
}

TEST(SyslogSender, LongLineGoesWhole)
{
    const std::string path = socket_path("long");
    Reader reader(path);
    ASSERT_GE(reader.fd(), 0) << strerror(errno);
    plat::SyslogSender sender(path.c_str());
    const std::string text(5000, 'x');

    expect_line(sender, reader, LOG_INFO, "ident", text.c_str(), text);
}

TEST(SyslogSender, ErrnoIsTheCallersForPercentMAndKept)
{
    const std::string path = socket_path("errno");
    Reader reader(path);
    ASSERT_GE(reader.fd(), 0) << strerror(errno);
    plat::SyslogSender sender(path.c_str());

    errno = ENOENT;
    send(sender, LOG_INFO, "ident", "open: %m");
    EXPECT_EQ(errno, ENOENT);
    const std::optional<std::string> line = reader.next();
    ASSERT_TRUE(line.has_value());
    EXPECT_NE(line->find("]: open: No such file or directory"),
              std::string::npos)
        << *line;
}

TEST(SyslogSender, StreamReaderGetsRecordsEndedByNul)
{
    const std::string path = socket_path("stream");
    Reader reader(path, SOCK_STREAM);
    ASSERT_GE(reader.fd(), 0) << strerror(errno);
    plat::SyslogSender sender(path.c_str());

    send(sender, LOG_INFO, "ident", "over a stream");
    const int accepted = accept4(reader.fd(), nullptr, nullptr, SOCK_CLOEXEC);
    ASSERT_GE(accepted, 0) << strerror(errno);
    const std::optional<std::string> bytes =
        Reader::receive_from(accepted, wait_ms);
    close(accepted);
    ASSERT_TRUE(bytes.has_value());
    EXPECT_EQ(bytes->back(), '\0');
    EXPECT_NE(bytes->find("]: over a stream"), std::string::npos);
}

/* plat_syslog itself sends to /dev/log: in a mount namespace of its own,
 * a tmpfs over /dev holds the test's socket there, and syslog(3) with the
 * daemon's options sends the same bytes. */
TEST(PlatSyslog, SendsWhatSyslog3SendsToDevLog)
{
    if (unshare(CLONE_NEWNS) != 0 ||
        mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        mount("tmpfs", "/dev", "tmpfs", 0, "mode=0755") != 0)
        GTEST_SKIP() << "no mount namespace here: " << strerror(errno);
    Reader reader("/dev/log");
    ASSERT_GE(reader.fd(), 0) << strerror(errno);

    for (int attempt = 0; attempt < 3; attempt++) {
        const std::string before = header_now(0);
        plat_syslog(LOG_ERR, "Pellin Manager", 0, "%s: pipe %d", "Error", 3);
        openlog("Pellin Manager", LOG_PID, LOG_DAEMON);
        syslog(LOG_ERR, "%s: pipe %d", "Error", 3);
        closelog();
        const std::optional<std::string> ours = reader.next();
        const std::optional<std::string> theirs = reader.next();
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

} // namespace
