/* The FPGA library's own tables as the tools see them: module names, block
 * layouts (offsets, error rows, counter sources) and the NIC record's queue
 * entries. lhctl and lhsim reach the library's tables through here and
 * through lh_layout.hpp, so they follow the drivers wherever the tables
 * live. */
#ifndef LH_TABLES_HPP
#define LH_TABLES_HPP

#include <cstddef>
#include <cstdint>

#include "lh_device.hpp"
#include "lh_layout.hpp"
#include "nic.hpp"
#include "port.hpp"

namespace lhtables {

inline constexpr uint32_t kModuleCount = LH_MOD_COUNT;
inline constexpr uint32_t kCaui = LH_MOD_CAUI;
inline constexpr uint32_t kEth = LH_MOD_ETH;
inline constexpr uint32_t kNoRegister = LH_NO_REGISTER;
inline constexpr uint32_t kBaseImage = LH_DEV_TYPE_BASE;
inline constexpr uint32_t kLhxImage = LH_DEV_TYPE_LHX;

using Layout = lh::BlockLayout;
using ErrorRow = lh_error_bit;
using CounterSource = lh_counter_source;

/* The name of a module id below kModuleCount. */
inline const char *module_name(uint32_t id) { return lh::module_names()[id]; }

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
