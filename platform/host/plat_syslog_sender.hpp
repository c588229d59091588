/* The sender behind plat_syslog: lines in the form syslog(3) writes
 * ("<pri>Mmm dd hh:mm:ss ident[pid]: text"), sent to the log socket without
 * waiting for a reader that has stopped. A line the socket cannot take
 * after a short wait is dropped and counted, and for a while later lines
 * do not wait; the next line that goes through is preceded by one giving
 * the count. */
#ifndef PLAT_SYSLOG_SENDER_HPP
#define PLAT_SYSLOG_SENDER_HPP

#include <pthread.h>
#include <stdarg.h>
#include <stddef.h>
#include <stdint.h>

namespace plat {

class SyslogSender {
public:
    constexpr explicit SyslogSender(const char *socket_path)
        : socket_path_(socket_path)
    {
    }

    /* One message at `severity` (facility daemon) under `ident`. */
    void send(int severity, const char *ident, const char *format,
              va_list args) __attribute__((format(printf, 4, 0)));

    /* Lines dropped since the last count was reported. */
    uint64_t dropped();

    /* Closes the connection; the next line opens it again. */
    void disconnect();

private:
    enum class Sent { delivered, full, failed };

    Sent send_line(const char *line, size_t length);
    Sent send_once(const char *line, size_t length);
    bool connect_socket();
    bool reader_made_room();
    bool report_dropped(int pri, const char *ident);
    bool send_now(int pri, const char *ident, const char *format, ...)
        __attribute__((format(printf, 4, 5)));

    const char *socket_path_;
    pthread_mutex_t lock_ = PTHREAD_MUTEX_INITIALIZER;
    int fd_ = -1;
    bool stream_ = false; /* the socket only takes streams */
    uint64_t dropped_ = 0;
    int64_t waits_from_ms_ = 0; /* monotonic; no wait for room before */
};

} // namespace plat

#endif
