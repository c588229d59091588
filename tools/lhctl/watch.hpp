/* lhctl watch: a live view of module health, pipe states and counter rates,
 * one frame per interval. The frame is a pure function of two samples, so
 * it is the same on a terminal (redrawn in place) and on a pipe (one frame
 * after the other, without escape codes). */
#ifndef LHCTL_WATCH_HPP
#define LHCTL_WATCH_HPP

#include <cstdint>
#include <optional>
#include <string>

#include "lhctl.hpp"

namespace lhctl {

inline constexpr double kDefaultIntervalS = 1.0;
inline constexpr double kMinIntervalS = 0.1;
inline constexpr double kMaxIntervalS = 3600.0;

/* The instance whose counters are all shown; without one, the counters
 * that changed across all instances are. */
struct WatchTarget {
    uint32_t module_id;
    uint32_t pipe;
};

/* One look at the daemon. */
struct WatchSample {
    double seconds = 0;   /* steady clock, when the answers were in */
    std::string clock;    /* wall clock for the frame's title, "HH:MM:SS" */
    std::string failure;  /* why nothing could be asked; empty when answered */
    Snapshot snapshot;    /* stats per module entry, empty for none */
};

struct WatchView {
    double interval_s = kDefaultIntervalS;
    std::optional<WatchTarget> target;
    bool terminal = false; /* escape codes: redrawn in place, FAILED reversed */
    int rows = 0;          /* terminal lines the frame may fill; 0: any */
};

/* The frame for `now`; rates are per second since `before`, the last
 * sample that was answered (none after a failure, so that a restarted
 * daemon starts its rates afresh). */
std::string watch_frame(const WatchView &view, const WatchSample *before,
                        const WatchSample &now);

/* Written once around a terminal's frames: the cursor hidden and the
 * screen cleared before, the cursor shown after. */
inline constexpr char kStartScreen[] = "\033[?25l\033[2J";
inline constexpr char kShowCursor[] = "\033[?25h";

double parse_interval(const std::string &text);

/* Samples and draws until SIGINT or SIGTERM, then returns; a failure other
 * than an unreachable daemon ends the watch by a throw. */
void watch(Client &client, const WatchView &view);

} // namespace lhctl

#endif
