/* syslog(3) with an ident of its own on every line, that never holds up
 * the caller. A line is formatted at once and queued; one writer thread,
 * the only caller of openlog and syslog(3) in the process, sends it. A
 * caller that finds the queue full waits for room only while the writer
 * still gets lines through (a reader that is busy, not stopped); otherwise
 * its line is dropped and counted, and the count goes out as a line of its
 * own before the next line that gets in. At exit the writer gets a moment
 * to send what is queued. */
#include "plat_syslog.h"

#include <errno.h>
#include <pthread.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <syslog.h>

#include <array>
#include <chrono>

namespace
{

using Clock = std::chrono::steady_clock;

constexpr size_t queue_lines = 64;
constexpr size_t ident_max = 48;
constexpr size_t text_max = 2048; /* longer text is cut */
/* A writer that has sent nothing for this long is held by the reader. */
constexpr auto stalled_after = std::chrono::milliseconds(250);
constexpr auto exit_grace = std::chrono::milliseconds(1000);

struct Line {
    int priority;
    char ident[ident_max];
    char text[text_max];
};

/* False when `until` came first. The steady clock is CLOCK_MONOTONIC. */
bool wait_until(pthread_cond_t *cond, pthread_mutex_t *lock,
                Clock::time_point until)
{
    auto ns = std::chrono::nanoseconds(until.time_since_epoch()).count();
    timespec at = {ns / 1000000000, ns % 1000000000};

    return pthread_cond_clockwait(cond, lock, CLOCK_MONOTONIC, &at) == 0;
}

class Writer;
extern Writer writer; /* for the exit and fork handlers */

class Writer
{
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
        const Clock::time_point until = Clock::now() + exit_grace;

        pthread_mutex_lock(&lock_);
        while (count_ > 0 && wait_until(&sent_, &lock_, until)) {
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
        last_sent_ = Clock::now();
        if (!at_exit_set_) {
            at_exit_set_ = true;
            atexit([] { writer.drain(); });
            pthread_atfork(nullptr, nullptr, [] { writer.forget_in_child(); });
        }
        return started_ = true;
    }

    bool room_locked(size_t lines)
    {
        while (queue_lines - count_ < lines &&
               Clock::now() < last_sent_ + stalled_after &&
               wait_until(&sent_, &lock_, last_sent_ + stalled_after)) {
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

    Line &push_locked()
    {
        return lines_[(head_ + count_++) % queue_lines];
    }

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
            w->last_sent_ = Clock::now();
            pthread_cond_broadcast(&w->sent_);
        }
        return nullptr;
    }

    pthread_mutex_t lock_ = PTHREAD_MUTEX_INITIALIZER;
    pthread_cond_t queued_ = PTHREAD_COND_INITIALIZER;
    pthread_cond_t sent_ = PTHREAD_COND_INITIALIZER;
    std::array<Line, queue_lines> lines_{};
    size_t head_ = 0;
    size_t count_ = 0;
    uint64_t dropped_ = 0;
    Clock::time_point last_sent_{}; /* when the writer last got a line out */
    bool started_ = false;
    bool at_exit_set_ = false;
    char ident_[ident_max] = {0}; /* openlog keeps this pointer */
};

constinit Writer writer;

} // namespace

void plat_syslog(int severity, const char *ident, int, const char *format, ...)
{
    va_list args;

    va_start(args, format);
    writer.queue(severity,
                 ident != nullptr ? ident : program_invocation_short_name,
                 format, args);
    va_end(args);
}
