/* The FPGA library's own tables as the tools see them: module names, block
 * layouts (offsets, error rows, counter sources) and the NIC record's queue
 * entries. Every use of the library's tables by lhctl and lhsim goes
 * through here, so they follow the drivers wherever the tables live. */
#ifndef LH_TABLES_HPP
#define LH_TABLES_HPP

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string_view>

#include "lh_block_ops.hpp"
#include "lh_device.hpp"
#include "nic.hpp"

namespace lhtables {

inline constexpr uint32_t kModuleCount = LH_MOD_COUNT;
inline constexpr uint32_t kCaui = LH_MOD_CAUI;
inline constexpr uint32_t kEth = LH_MOD_ETH;
inline constexpr uint32_t kNoRegister = LH_NO_REGISTER;
inline constexpr uint32_t kBaseImage = LH_DEV_TYPE_BASE;
inline constexpr uint32_t kLhxImage = LH_DEV_TYPE_LHX;

using Layout = lh_block_layout;
using ErrorRow = lh_error_bit;
using CounterSource = lh_counter_source;

/* The name of a module id below kModuleCount. */
inline const char *module_name(uint32_t id) { return lh_module_names[id]; }

inline std::optional<uint32_t> module_by_name(std::string_view name)
{
    for (uint32_t id = 0; id < kModuleCount; id++)
        if (name == lh_module_names[id])
            return id;
    return std::nullopt;
}

/* The layout of a module id, none for an id without a driver. */
inline std::optional<Layout> layout_of(uint32_t id)
{
    Layout layout;

    if (lh_block_layout_of(id, &layout) != 0)
        return std::nullopt;
    return layout;
}

inline std::span<const ErrorRow> errors_of(const Layout &layout)
{
    return {layout.errors, layout.error_count};
}

inline std::span<const CounterSource> counters_of(const Layout &layout)
{
    return {layout.counters, layout.counter_count};
}

/* The NIC record: its global counters, then one entry per queue with a
 * present flag and three counters. */
namespace nic {
inline constexpr size_t kQueues = NIC_QUEUES;
inline constexpr size_t kQueueCounters = NIC_QUEUE_COUNTERS;

inline bool has_queues(uint32_t id)
{
    return id == LH_MOD_NIC || id == LH_MOD_LHX_NIC;
}

inline constexpr size_t entry(size_t queue)
{
    return offsetof(nic_stats, queues) + queue * sizeof(nic_queue_stats);
}

inline constexpr size_t kPresent = offsetof(nic_queue_stats, present);
inline constexpr size_t kCounters = offsetof(nic_queue_stats, counters);
} // namespace nic

} // namespace lhtables

#endif
