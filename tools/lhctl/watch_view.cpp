/* The frame of lhctl watch: a title with the health counts, a grid of
 * module states by pipe under the pipes' link states, and a table of
 * counters with their rates per second. Nothing here talks to the daemon,
 * reads a clock or looks at the terminal: what it needs comes in. */
#include <algorithm>
#include <map>
#include <set>
#include <sstream>
#include <tuple>

#include "watch.hpp"

namespace lhctl {
namespace {

using Rows = std::vector<std::vector<std::string>>;
using Lines = std::vector<std::string>;

constexpr char kHome[] = "\033[H";
constexpr char kEraseLine[] = "\033[K";
constexpr char kEraseBelow[] = "\033[J";
constexpr char kFailedOnTerminal[] = "\033[7mFAILED\033[0m"; /* reverse video */

Lines lines_of(const std::string &text)
{
    std::istringstream in(text);
    Lines lines;
    std::string line;

    while (std::getline(in, line))
        lines.push_back(line.substr(0, line.find_last_not_of(' ') + 1));
    return lines;
}

void append(Lines &to, const Lines &lines)
{
    to.insert(to.end(), lines.begin(), lines.end());
}

std::string title(const WatchView &view, const WatchSample &now)
{
    std::string text =
        format("%s  every %g s", now.clock.c_str(), view.interval_s);
    const Snapshot &s = now.snapshot;

    if (!now.failure.empty())
        return text;
    auto failed = std::ranges::count_if(s.modules, &Module::failed);
    auto up = std::ranges::count_if(s.pipes, &Pipe::up);
    return text +
           format("  modules: %zu OK, %zu FAILED  pipes: %zu up, %zu down",
                  s.modules.size() - failed, static_cast<size_t>(failed),
                  static_cast<size_t>(up), s.pipes.size() - up);
}

/* Every pipe a module or a link state names, in order. */
std::vector<uint32_t> pipe_columns(const Snapshot &s)
{
    std::set<uint32_t> pipes;

    for (const Module &m : s.modules)
        pipes.insert(m.pipe);
    for (const Pipe &p : s.pipes)
        pipes.insert(p.pipe);
    return {pipes.begin(), pipes.end()};
}

/* One row per module id, in the order the daemon lists them, with its
 * state under each pipe it has; the first row is the links. */
Lines health_grid(const WatchView &view, const Snapshot &s)
{
    const std::vector<uint32_t> pipes = pipe_columns(s);
    auto column = [&](uint32_t pipe) {
        return 1 + (std::ranges::find(pipes, pipe) - pipes.begin());
    };
    Rows rows = {{"MODULE"}, {"link"}};
    std::vector<uint32_t> ids;

    for (uint32_t pipe : pipes)
        rows[0].push_back(format("PIPE %u", pipe));
    rows[1].resize(rows[0].size());
    for (const Pipe &p : s.pipes)
        rows[1][column(p.pipe)] = pipe_state(p.up);
    for (const Module &m : s.modules) {
        auto at = std::ranges::find(ids, m.id) - ids.begin();
        if (at == static_cast<ptrdiff_t>(ids.size())) {
            ids.push_back(m.id);
            rows.push_back({module_name(m.id)});
            rows.back().resize(rows[0].size());
        }
        rows[2 + at][column(m.pipe)] = module_state(m.failed);
    }
    Lines lines = lines_of(table(rows));
    if (view.terminal)
        for (std::string &line : lines)
            for (size_t at; (at = line.find(" FAILED")) != std::string::npos;)
                line.replace(at + 1, 6, kFailedOnTerminal);
    return lines;
}

using CounterKey = std::tuple<uint32_t, uint32_t, std::string>;
using CounterValues = std::map<CounterKey, uint64_t>;

CounterValues counter_values(const Snapshot &s)
{
    CounterValues values;

    for (size_t i = 0; i < s.modules.size() && i < s.stats.size(); i++)
        for (const Counter &c : s.stats[i])
            values[{s.modules[i].id, s.modules[i].pipe, c.name}] = c.value;
    return values;
}

/* A rate needs the counter's value of before, no smaller than now's: a
 * counter that went back was cleared or restarted, and starts afresh. */
std::string rate_text(const CounterValues &before,
                      const CounterKey &key, uint64_t value, double elapsed)
{
    auto prior = before.find(key);

    if (prior == before.end() || value < prior->second || elapsed <= 0)
        return "-";
    return format("%.1f", static_cast<double>(value - prior->second) / elapsed);
}

bool is_target(const WatchView &view, const Module &m)
{
    return view.target && view.target->module_id == m.id &&
           view.target->pipe == m.pipe;
}

/* The target's counters, all of them; else those that changed. */
Lines counter_table(const WatchView &view, const WatchSample *before,
                    const WatchSample &now)
{
    const Snapshot &s = now.snapshot;
    const CounterValues prior =
        before ? counter_values(before->snapshot) : CounterValues{};
    const double elapsed = before ? now.seconds - before->seconds : 0;
    Rows rows = {{"MODULE", "PIPE", "COUNTER", "VALUE", "RATE/S"}};

    if (!before && !view.target)
        return {"counters: rates from the next sample on"};
    for (size_t i = 0; i < s.modules.size() && i < s.stats.size(); i++) {
        const Module &m = s.modules[i];
        if (view.target && !is_target(view, m))
            continue;
        for (const Counter &c : s.stats[i]) {
            const CounterKey key{m.id, m.pipe, c.name};
            auto was = prior.find(key);
            if (!view.target && (was == prior.end() || was->second == c.value))
                continue;
            rows.push_back({module_name(m.id), std::to_string(m.pipe), c.name,
                            std::to_string(c.value),
                            rate_text(prior, key, c.value, elapsed)});
        }
    }
    if (rows.size() == 1)
        return {view.target ? "counters: none" : "counters: none changed"};
    return lines_of(table(rows));
}

/* On a terminal: from the top left, each line erased to its end, the rest
 * of the screen erased, and no more lines than fit (the last one saying
 * how many were left out). */
std::string terminal_text(Lines lines, int rows)
{
    const size_t fit = rows > 1 ? static_cast<size_t>(rows - 1) : lines.size();
    std::string text = kHome;

    if (lines.size() > fit && fit > 0) {
        size_t left_out = lines.size() - fit + 1;
        lines.resize(fit - 1);
        lines.push_back(format("... %zu more lines", left_out));
    }
    for (const std::string &line : lines)
        text += line + kEraseLine + "\n";
    return text + kEraseBelow;
}

} // namespace

std::string watch_frame(const WatchView &view, const WatchSample *before,
                        const WatchSample &now)
{
    Lines lines = {title(view, now)};

    if (!now.failure.empty()) {
        lines.push_back(now.failure + "; retrying");
    } else {
        append(lines, health_grid(view, now.snapshot));
        append(lines, counter_table(view, before, now));
    }
    if (view.terminal)
        return terminal_text(std::move(lines), view.rows);
    std::string text;
    for (const std::string &line : lines)
        text += line + "\n";
    return text + "\n";
}

double parse_interval(const std::string &text)
{
    return parse_seconds("interval", text, kMinIntervalS, kMaxIntervalS);
}

} // namespace lhctl
