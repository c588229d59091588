/* The loop of lhctl watch: a sample each interval, drawn at once. SIGINT
 * and SIGTERM stay blocked and are read from a signalfd while the loop
 * waits, so a stop that comes during a request is seen at the next wait
 * and none is lost between a look at a flag and the wait. */
#include <poll.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "owned.hpp"
#include "watch.hpp"

namespace lhctl {
namespace {

using Clock = std::chrono::steady_clock;

[[noreturn]] void system_failed(const char *what)
{
    throw Failure(Exit::refused, format("%s: %s", what, strerror(errno)));
}

/* SIGINT and SIGTERM blocked while the owner lives, and readable from a
 * descriptor; what arrived and was not read is dropped before they are
 * unblocked, so it cannot end the program afterwards. */
class StopSignals {
public:
    StopSignals()
    {
        sigemptyset(&set_);
        sigaddset(&set_, SIGINT);
        sigaddset(&set_, SIGTERM);
        if (sigprocmask(SIG_BLOCK, &set_, &saved_) != 0)
            system_failed("sigprocmask");
        fd_.reset(signalfd(-1, &set_, SFD_CLOEXEC | SFD_NONBLOCK));
        if (!fd_.valid()) {
            sigprocmask(SIG_SETMASK, &saved_, nullptr);
            system_failed("signalfd");
        }
    }
    ~StopSignals()
    {
        while (taken()) {
        }
        sigprocmask(SIG_SETMASK, &saved_, nullptr);
    }
    StopSignals(const StopSignals &) = delete;
    StopSignals &operator=(const StopSignals &) = delete;

    /* True when a stop came within `ms`. */
    bool wait(int ms)
    {
        struct pollfd p = {fd_.get(), POLLIN, 0};

        while (poll(&p, 1, ms) < 0 && errno == EINTR) {
        }
        return taken();
    }

private:
    bool taken()
    {
        struct signalfd_siginfo info;

        return read(fd_.get(), &info, sizeof(info)) == sizeof(info);
    }

    sigset_t set_;
    sigset_t saved_;
    pellin::UniqueFd fd_;
};

/* On a terminal, a cleared screen for the frames and the cursor hidden
 * while the owner lives. */
class TerminalScreen {
public:
    explicit TerminalScreen(bool terminal) : terminal_(terminal)
    {
        if (terminal_)
            fputs(kStartScreen, stdout);
    }
    ~TerminalScreen()
    {
        if (terminal_) {
            fputs(kShowCursor, stdout);
            fflush(stdout);
        }
    }
    TerminalScreen(const TerminalScreen &) = delete;
    TerminalScreen &operator=(const TerminalScreen &) = delete;

private:
    bool terminal_;
};

int terminal_rows()
{
    struct winsize size = {};

    return ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 ? size.ws_row : 0;
}

std::string wall_clock()
{
    time_t now = time(nullptr);
    struct tm local = {};
    char text[16] = "";

    if (localtime_r(&now, &local) != nullptr)
        strftime(text, sizeof(text), "%H:%M:%S", &local);
    return text;
}

/* Modules and pipes, and the counters of the target alone. */
Snapshot target_snapshot(Client &c, const WatchTarget &target)
{
    Snapshot snap{get_modules(c), get_pipes(c), {}};
    Counters counters = get_stats(c, target.module_id, target.pipe);

    snap.stats.resize(snap.modules.size());
    for (size_t i = 0; i < snap.modules.size(); i++)
        if (snap.modules[i].id == target.module_id &&
            snap.modules[i].pipe == target.pipe)
            snap.stats[i] = counters;
    return snap;
}

/* Each sample on a connection of its own, so a daemon that has gone says
 * "daemon not running" at once and a restarted one is found again. One
 * that cannot be reached is a frame that says so; any other failure ends
 * the watch. */
WatchSample sample(Client &c, const std::optional<WatchTarget> &target)
{
    WatchSample s;

    c.reset();
    try {
        s.snapshot = target ? target_snapshot(c, *target) : take_snapshot(c);
    } catch (const Failure &f) {
        if (f.exit() != Exit::unreachable)
            throw;
        s.failure = f.what();
    }
    s.seconds = std::chrono::duration<double>(Clock::now().time_since_epoch())
                    .count();
    s.clock = wall_clock();
    return s;
}

void show(const std::string &frame)
{
    if (fputs(frame.c_str(), stdout) < 0 || fflush(stdout) != 0)
        system_failed("standard output");
}

int ms_until(Clock::time_point deadline)
{
    auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline -
                                                             Clock::now());
    return static_cast<int>(std::max<long long>(left.count(), 0));
}

} // namespace

void watch(Client &client, const WatchView &options)
{
    StopSignals stop;
    TerminalScreen screen(options.terminal);
    const auto interval = std::chrono::duration_cast<Clock::duration>(
        std::chrono::duration<double>(options.interval_s));
    WatchSample before;
    bool answered = false; /* before: a sample the daemon answered */
    Clock::time_point deadline = Clock::now();

    do {
        WatchSample now = sample(client, options.target);
        WatchView view = options;

        if (view.terminal)
            view.rows = terminal_rows();
        show(watch_frame(view, answered ? &before : nullptr, now));
        answered = now.failure.empty();
        before = std::move(now);
        deadline = std::max(deadline + interval, Clock::now());
    } while (!stop.wait(ms_until(deadline)));
}

} // namespace lhctl
