/* The views of a command's result: aligned text tables, one-line JSON
 * objects (nlohmann::json, keys in the order written) and the Prometheus
 * text exposition (prometheus-cpp's TextSerializer). */
#include <algorithm>

#include <nlohmann/json.hpp>
#include <prometheus/text_serializer.h>

#include "lhctl.hpp"

namespace lhctl {

using Json = nlohmann::ordered_json;
using Rows = std::vector<std::vector<std::string>>;

/* Text tables */

constexpr size_t kTableGap = 2;

/* Every column but the last padded to its widest cell and a gap. */
std::string table(const Rows &rows)
{
    std::vector<size_t> widths(rows.at(0).size(), 0);
    std::string text;

    for (const auto &row : rows)
        for (size_t c = 0; c < row.size(); c++)
            widths[c] = std::max(widths[c], row[c].size() + kTableGap);
    for (const auto &row : rows) {
        for (size_t c = 0; c + 1 < row.size(); c++)
            text += row[c] + std::string(widths[c] - row[c].size(), ' ');
        text += row.back() + "\n";
    }
    return text;
}

std::string modules_text(const Modules &modules)
{
    Rows rows = {{"ID", "NAME", "PIPE", "STATE"}};

    for (const Module &m : modules)
        rows.push_back({std::to_string(m.id), module_name(m.id),
                        std::to_string(m.pipe), module_state(m.failed)});
    return table(rows);
}

std::string pipes_text(const Pipes &pipes)
{
    Rows rows = {{"PIPE", "STATE"}};

    for (const Pipe &p : pipes)
        rows.push_back({std::to_string(p.pipe), pipe_state(p.up)});
    return table(rows);
}

std::string counters_text(const Counters &counters)
{
    Rows rows = {{"COUNTER", "VALUE"}};

    for (const Counter &c : counters)
        rows.push_back({c.name, std::to_string(c.value)});
    return table(rows);
}

/* JSON */

/* One object on one line; bytes that are not UTF-8 become U+FFFD rather
 * than ending the run. */
static std::string line(const Json &j)
{
    return j.dump(-1, ' ', false, Json::error_handler_t::replace) + "\n";
}

static Json modules_array(const Modules &modules)
{
    Json list = Json::array();

    for (const Module &m : modules)
        list.push_back({{"id", m.id},
                        {"name", module_name(m.id)},
                        {"pipe", m.pipe},
                        {"state", module_state(m.failed)}});
    return list;
}

static Json pipes_array(const Pipes &pipes)
{
    Json list = Json::array();

    for (const Pipe &p : pipes)
        list.push_back({{"pipe", p.pipe}, {"state", pipe_state(p.up)}});
    return list;
}

static Json stats_object(uint32_t module_id, uint32_t pipe,
                         const Counters &counters)
{
    Json values = Json::object();

    for (const Counter &c : counters)
        values[c.name] = c.value;
    return {{"module", module_name(module_id)},
            {"module_id", module_id},
            {"pipe", pipe},
            {"counters", values}};
}

std::string modules_json(const Modules &modules)
{
    return line({{"modules", modules_array(modules)}});
}

std::string pipes_json(const Pipes &pipes)
{
    return line({{"pipes", pipes_array(pipes)}});
}

std::string pipe_json(uint32_t pipe, bool up)
{
    return line({{"pipe", pipe}, {"state", pipe_state(up)}});
}

std::string stats_json(uint32_t module_id, uint32_t pipe,
                       const Counters &counters, bool cleared)
{
    Json j = stats_object(module_id, pipe, counters);

    j["cleared"] = cleared;
    return line(j);
}

std::string reg_json(uint32_t offset, uint32_t value)
{
    return line({{"offset", offset}, {"value", value}});
}

std::string loopback_json(uint32_t pipe, uint32_t mask)
{
    return line(
        {{"pipe", pipe}, {"mask", mask}, {"types", loopback_types(mask)}});
}

std::string qos_json(uint32_t pipe, uint32_t profile, uint32_t priority)
{
    return line({{"pipe", pipe},
                 {"profile", profile},
                 {"priority", priority_name(priority)}});
}

std::string snapshot_json(const Snapshot &s)
{
    Json stats = Json::array();

    for (size_t i = 0; i < s.modules.size(); i++)
        if (has_stats(s.modules[i].id))
            stats.push_back(
                stats_object(s.modules[i].id, s.modules[i].pipe, s.stats[i]));
    return line({{"modules", modules_array(s.modules)},
                 {"pipes", pipes_array(s.pipes)},
                 {"stats", stats}});
}

/* Prometheus text */

namespace prom = prometheus;

static prom::ClientMetric sample(std::vector<prom::ClientMetric::Label> labels,
                                 prom::MetricType type, double value)
{
    prom::ClientMetric metric;

    metric.label = std::move(labels);
    if (type == prom::MetricType::Counter)
        metric.counter.value = value;
    else
        metric.gauge.value = value;
    return metric;
}

std::string snapshot_metrics(const Snapshot &s)
{
    prom::MetricFamily failed{
        "pellin_module_failed",
        "1 when the module instance has reported a fatal hardware error "
        "(FAILED), 0 when OK.",
        prom::MetricType::Gauge,
        {}};
    prom::MetricFamily up{"pellin_pipe_up",
                          "1 when the traffic pipe is up, 0 when it is down.",
                          prom::MetricType::Gauge,
                          {}};
    prom::MetricFamily counters{"pellin_block_counter_total",
                                "Statistics counter of a hardware block, "
                                "named by its register source.",
                                prom::MetricType::Counter,
                                {}};

    for (size_t i = 0; i < s.modules.size(); i++) {
        const std::string module = module_name(s.modules[i].id);
        const std::string pipe = std::to_string(s.modules[i].pipe);

        failed.metric.push_back(sample({{"module", module}, {"pipe", pipe}},
                                       failed.type, s.modules[i].failed));
        for (const Counter &c : s.stats[i])
            counters.metric.push_back(sample(
                {{"module", module}, {"pipe", pipe}, {"counter", c.name}},
                counters.type, static_cast<double>(c.value)));
    }
    for (const Pipe &p : s.pipes)
        up.metric.push_back(
            sample({{"pipe", std::to_string(p.pipe)}}, up.type, p.up));
    return prom::TextSerializer().Serialize({failed, up, counters});
}

} // namespace lhctl
