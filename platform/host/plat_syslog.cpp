/* syslog(3) with an ident of its own on every line, that never holds up
 * the caller. A line is formatted at once and queued; one writer thread,
 * the only caller of openlog and syslog(3) in the process, sends it. When
 * the log reader stops reading, only the writer waits. A caller that finds
 * the queue full waits for room only while the writer still gets lines
 * through (a reader that is busy, not stopped); otherwise its line is
 * dropped and counted, and the count goes out as a line of its own before
 * the next line that gets in. At exit the writer gets a moment to send
 * what is queued. */
#include "plat_syslog.h"

#include <errno.h>
#include <pthread.h>
#include <stdarg.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <syslog.h>
#include <time.h>

#include <array>

namespace {

constexpr size_t queue_lines = 64;
constexpr size_t ident_max = 48;
constexpr size_t text_max = 2048; /* longer text is cut */
/* A writer that has sent nothing for this long is held by the reader. */
constexpr long stalled_after_ms = 250;
constexpr long exit_grace_ms = 1000;

struct Line {
    int priority;
    char ident[ident_max];
    char text[text_max];
};

timespec realtime_now()
{
    timespec t{};

    clock_gettime(CLOCK_REALTIME, &t);
    return t;
}

timespec after(timespec t, long ms)
{
    const long nsec = t.tv_nsec + (ms % 1000) * 1000000;

    t.tv_sec += ms / 1000 + nsec / 1000000000;
    t.tv_nsec = nsec % 1000000000;
    return t;
}

bool passed(const timespec &t)
{
    const timespec now = realtime_now();

    return now.tv_sec != t.tv_sec ? now.tv_sec > t.tv_sec
                                  : now.tv_nsec >= t.tv_nsec;
}

class Writer {
public:
    void queue(int priority, const char *ident, const char *format,
               va_list args) __attribute__((format(printf, 4, 0)))
    {
        const int caller_errno = errno;
        Line line{priority, {}, {}};

        snprintf(line.ident, sizeof(line.ident), "%s", ident);
        errno = caller_errno; /* for %m */
        vsnprintf(line.text, sizeof(line.text), format, args);
        pthread_mutex_lock(&lock_);
        if (started_ || start_locked())
            queue_locked(line);
        pthread_mutex_unlock(&lock_);
        errno = caller_errno;
    }

    /* At exit: what is queued goes out unless the reader has stopped. */
    void drain()
    {
        const timespec until = after(realtime_now(), exit_grace_ms);

        pthread_mutex_lock(&lock_);
        while (count_ > 0 &&
               pthread_cond_timedwait(&sent_, &lock_, &until) == 0) {
        }
        pthread_mutex_unlock(&lock_);
    }

    /* A child of fork has no writer: it starts its own when it logs. */
    void forget_in_child()
    {
        lock_ = PTHREAD_MUTEX_INITIALIZER;
        queued_ = sent_ = PTHREAD_COND_INITIALIZER;
        started_ = false;
        count_ = dropped_ = 0;
    }

private:
    bool start_locked()
    {
        pthread_t thread;

        if (pthread_create(&thread, nullptr, run, this) != 0)
            return false;
        pthread_detach(thread);
        last_sent_ = realtime_now();
        if (!at_exit_set_) {
            at_exit_set_ = true;
            atexit(drain_at_exit);
            pthread_atfork(nullptr, nullptr, forget_after_fork);
        }
        started_ = true;
        return true;
    }

    bool room_locked(size_t lines)
    {
        while (queue_lines - count_ < lines) {
            const timespec until = after(last_sent_, stalled_after_ms);

            if (passed(until) ||
                pthread_cond_timedwait(&sent_, &lock_, &until) != 0)
                break;
        }
        return queue_lines - count_ >= lines;
    }

    void queue_locked(const Line &line)
    {
        if (!room_locked(dropped_ > 0 ? 2 : 1)) {
            dropped_++;
            return;
        }
        if (dropped_ > 0) {
            Line &count = push_locked();
            count.priority = (line.priority & LOG_FACMASK) | LOG_WARNING;
            memcpy(count.ident, line.ident, sizeof(count.ident));
            snprintf(count.text, sizeof(count.text),
                     "syslog: %llu lines dropped while the log socket "
                     "was full",
                     static_cast<unsigned long long>(dropped_));
            dropped_ = 0;
        }
        push_locked() = line;
        pthread_cond_signal(&queued_);
    }

    Line &push_locked() { return lines_[(head_ + count_++) % queue_lines]; }

    /* The front line stays queued while it is sent, so that no caller
     * writes over it. */
    void send_front()
    {
        const Line &line = lines_[head_];

        memcpy(ident_, line.ident, sizeof(ident_));
        openlog(ident_, LOG_PID, LOG_DAEMON);
        syslog(line.priority, "%s", line.text);
    }

    static void *run(void *self)
    {
        auto *w = static_cast<Writer *>(self);

        pthread_setname_np(pthread_self(), "plat_syslog");
        pthread_mutex_lock(&w->lock_);
        for (;;) {
            while (w->count_ == 0)
                pthread_cond_wait(&w->queued_, &w->lock_);
            pthread_mutex_unlock(&w->lock_);
            w->send_front();
            pthread_mutex_lock(&w->lock_);
            w->head_ = (w->head_ + 1) % queue_lines;
            w->count_--;
            w->last_sent_ = realtime_now();
            pthread_cond_broadcast(&w->sent_);
        }
        return nullptr;
    }

    static void drain_at_exit();
    static void forget_after_fork();

    pthread_mutex_t lock_ = PTHREAD_MUTEX_INITIALIZER;
    pthread_cond_t queued_ = PTHREAD_COND_INITIALIZER;
    pthread_cond_t sent_ = PTHREAD_COND_INITIALIZER;
    std::array<Line, queue_lines> lines_{};
    size_t head_ = 0;
    size_t count_ = 0;
    uint64_t dropped_ = 0;
    timespec last_sent_{}; /* when the writer last got a line through */
    bool started_ = false;
    bool at_exit_set_ = false;
    char ident_[ident_max] = {0}; /* openlog keeps this pointer */
};

constinit Writer writer;

void Writer::drain_at_exit() { writer.drain(); }
void Writer::forget_after_fork() { writer.forget_in_child(); }

} // namespace

void plat_syslog(int severity, const char *ident, int option,
                 const char *format, ...)
{
    va_list args;

    (void)option;
    va_start(args, format);
    writer.queue(severity,
                 ident != nullptr ? ident : program_invocation_short_name,
                 format, args);
    va_end(args);
}
