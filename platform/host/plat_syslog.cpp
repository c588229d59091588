#include "plat_syslog.h"

#include <errno.h>
#include <paths.h>
#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>
#include <time.h>
#include <unistd.h>

#include <memory>

#include "plat_syslog_sender.hpp"

namespace plat {
namespace {

/* The log reader's side parses the stamp in the C locale. */
constexpr const char *month_names[] = {"Jan", "Feb", "Mar", "Apr",
                                       "May", "Jun", "Jul", "Aug",
                                       "Sep", "Oct", "Nov", "Dec"};

constexpr size_t short_line_size = 2048;

/* A reader busy with a burst gets this long to make room before a line is
 * dropped; after a drop no line waits for a while, so that a reader that
 * has stopped or crawls costs the sender nothing. */
constexpr int catch_up_ms = 250;
constexpr int64_t no_wait_after_drop_ms = 10000;

int64_t now_ms()
{
    struct timespec now {};

    clock_gettime(CLOCK_MONOTONIC, &now);
    return int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1000000;
}

/* errno as the caller left it, given back when the object goes. */
class ErrnoKeeper {
public:
    ErrnoKeeper() : saved_(errno) {}
    ~ErrnoKeeper() { errno = saved_; }
    ErrnoKeeper(const ErrnoKeeper &) = delete;
    ErrnoKeeper &operator=(const ErrnoKeeper &) = delete;
    int saved() const { return saved_; }

private:
    int saved_;
};

/* One formatted line: on the stack, or on the heap when it is longer. */
class Line {
public:
    /* "<pri>Mmm dd hh:mm:ss ident[pid]: " and the message; %m reads
     * `caller_errno`. */
    Line(int pri, const char *ident, int caller_errno, const char *format,
         va_list args) __attribute__((format(printf, 5, 0)))
    {
        header_ = format_header(pri, ident);
        if (header_ >= sizeof(short_)) {
            header_ = sizeof(short_) - 1;
            length_ = header_;
            return;
        }
        va_list copy;
        va_copy(copy, args);
        errno = caller_errno;
        int text = vsnprintf(short_ + header_, sizeof(short_) - header_,
                             format, copy);
        va_end(copy);
        length_ = header_ + (text > 0 ? static_cast<size_t>(text) : 0);
        if (length_ >= sizeof(short_))
            format_long(caller_errno, format, args);
    }

    const char *data() const { return long_ ? long_.get() : short_; }
    size_t length() const { return length_; }

private:
    size_t format_header(int pri, const char *ident)
    {
        const time_t now = time(nullptr);
        struct tm local {};
        int written;

        if (localtime_r(&now, &local) == nullptr)
            local = {};
        written = snprintf(short_, sizeof(short_),
                           "<%d>%s %2d %02d:%02d:%02d %s[%d]: ", pri,
                           month_names[local.tm_mon % 12], local.tm_mday,
                           local.tm_hour, local.tm_min, local.tm_sec,
                           ident, static_cast<int>(getpid()));
        return written > 0 ? static_cast<size_t>(written) : 0;
    }

    /* A line too long for the stack; cut to the stack's size when there
     * is no memory for it. */
    void format_long(int caller_errno, const char *format, va_list args)
        __attribute__((format(printf, 3, 0)))
    {
        long_.reset(static_cast<char *>(malloc(length_ + 1)));
        if (!long_) {
            length_ = sizeof(short_) - 1;
            return;
        }
        memcpy(long_.get(), short_, header_);
        errno = caller_errno;
        vsnprintf(long_.get() + header_, length_ + 1 - header_, format,
                  args);
    }

    struct Free {
        void operator()(char *bytes) const { free(bytes); }
    };

    char short_[short_line_size];
    std::unique_ptr<char, Free> long_;
    size_t header_ = 0;
    size_t length_ = 0;
};

/* The sender's lock, held for the object's life. */
class Hold {
public:
    explicit Hold(pthread_mutex_t *mutex) : mutex_(mutex)
    {
        pthread_mutex_lock(mutex_);
    }
    ~Hold() { pthread_mutex_unlock(mutex_); }
    Hold(const Hold &) = delete;
    Hold &operator=(const Hold &) = delete;

private:
    pthread_mutex_t *mutex_;
};

} // namespace

void SyslogSender::send(int severity, const char *ident, const char *format,
                        va_list args)
{
    const ErrnoKeeper keeper;
    const int pri = (severity & LOG_FACMASK) != 0 ? severity
                                                  : severity | LOG_DAEMON;
    if (ident == nullptr)
        ident = program_invocation_short_name;
    const Line line(pri, ident, keeper.saved(), format, args);
    const Hold hold(&lock_);

    if ((dropped_ > 0 && !report_dropped(pri, ident)) ||
        send_line(line.data(), line.length()) == Sent::full) {
        dropped_++;
        waits_from_ms_ = now_ms() + no_wait_after_drop_ms;
    }
}

uint64_t SyslogSender::dropped()
{
    const Hold hold(&lock_);

    return dropped_;
}

void SyslogSender::disconnect()
{
    if (fd_ >= 0)
        close(fd_);
    fd_ = -1;
}

bool SyslogSender::report_dropped(int pri, const char *ident)
{
    if (!send_now((pri & LOG_FACMASK) | LOG_WARNING, ident,
                  "syslog: %llu lines dropped while the log socket was full",
                  static_cast<unsigned long long>(dropped_)))
        return false;
    dropped_ = 0;
    return true;
}

bool SyslogSender::send_now(int pri, const char *ident, const char *format,
                            ...)
{
    va_list args;

    va_start(args, format);
    const Line line(pri, ident, errno, format, args);
    va_end(args);
    return send_line(line.data(), line.length()) == Sent::delivered;
}

/* A connection that went away (the reader restarted) is opened again once,
 * as syslog(3) does. */
SyslogSender::Sent SyslogSender::send_line(const char *line, size_t length)
{
    const bool was_connected = fd_ >= 0;
    Sent sent = send_once(line, length);

    if (sent == Sent::full && now_ms() >= waits_from_ms_ &&
        reader_made_room())
        sent = send_once(line, length);
    if (sent == Sent::failed && was_connected) {
        disconnect();
        sent = send_once(line, length);
    }
    if (sent == Sent::failed)
        disconnect();
    return sent;
}

SyslogSender::Sent SyslogSender::send_once(const char *line, size_t length)
{
    if (fd_ < 0 && !connect_socket())
        return Sent::failed;
    /* A stream reader ends each record at a NUL; the line keeps one past
     * its end. */
    const size_t total = length + (stream_ ? 1 : 0);
    const ssize_t sent =
        ::send(fd_, line, total, MSG_DONTWAIT | MSG_NOSIGNAL);

    if (sent < 0)
        return errno == EAGAIN || errno == EWOULDBLOCK || errno == ENOBUFS
                   ? Sent::full
                   : Sent::failed;
    /* A record cut short would run into the next one. */
    if (static_cast<size_t>(sent) < total)
        disconnect();
    return Sent::delivered;
}

bool SyslogSender::reader_made_room()
{
    struct pollfd writable = {fd_, POLLOUT, 0};

    return poll(&writable, 1, catch_up_ms) == 1 &&
           (writable.revents & POLLOUT) != 0;
}

bool SyslogSender::connect_socket()
{
    struct sockaddr_un address {};

    address.sun_family = AF_UNIX;
    strncpy(address.sun_path, socket_path_, sizeof(address.sun_path) - 1);
    for (;;) {
        const int type = stream_ ? SOCK_STREAM : SOCK_DGRAM;

        fd_ = socket(AF_UNIX, type | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
        if (fd_ < 0)
            return false;
        if (connect(fd_, reinterpret_cast<const sockaddr *>(&address),
                    sizeof(address)) == 0)
            return true;
        const int error = errno;
        disconnect();
        if (error != EPROTOTYPE || stream_)
            return false;
        stream_ = true;
    }
}

} // namespace plat

namespace {

constinit plat::SyslogSender dev_log(_PATH_LOG);

} // namespace

void plat_syslog(int severity, const char *ident, int option,
                 const char *format, ...)
{
    va_list args;

    (void)option;
    va_start(args, format);
    dev_log.send(severity, ident, format, args);
    va_end(args);
}
