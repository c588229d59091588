/* A statistics record as named counters. The drivers define the counters
 * only by their register sources, so that is what names them: a 64-bit
 * counter "reg_0x<high>_0x<low>", a 32-bit one "reg_0x<low>", offsets from
 * the block base as the driver's own table gives them. The NIC record adds
 * an entry per queue; only the queues whose present flag is set are
 * listed. */
#include "ipc_msg.hpp"
#include "lh_tables.hpp"
#include "lhctl.hpp"

namespace lhctl {

namespace nic = lhtables::nic;

/* Queue counter 0 is bits 31..16 of 0xC4; counters 1 and 2 are 0xC4 bits
 * 15..0 above 0xC8, read with the first and the second bank selected. */
constexpr const char *kQueueCounterNames[nic::kQueueCounters] = {
    "reg_0xc4_hi16",
    "reg_0xc4_0xc8",
    "reg_0xc4_0xc8_bank2",
};

bool has_stats(uint32_t module_id)
{
    auto layout = lh::block_layout(module_id);

    return layout && layout->stats_size > 0;
}

std::string counter_name(const lhtables::CounterSource &source)
{
    if (source.high == lhtables::kNoRegister)
        return format("reg_0x%x", source.low);
    return format("reg_0x%x_0x%x", source.high, source.low);
}

static void add_queues(Counters &out, std::span<const uint8_t> record)
{
    for (size_t q = 0; q < nic::kQueues; q++) {
        if (record[nic::entry(q) + nic::kPresent] == 0)
            continue;
        for (size_t i = 0; i < nic::kQueueCounters; i++)
            out.push_back({format("queue_%zu_%s", q, kQueueCounterNames[i]),
                           get64(record, nic::entry(q) + nic::kCounters + 8 * i)});
    }
}

Counters decode_counters(uint32_t module_id, std::span<const uint8_t> record)
{
    auto layout = lh::block_layout(module_id);
    Counters counters;

    if (!layout || layout->stats_size == 0 || record.size() != layout->stats_size)
        malformed(PLM_IPC_OP_GET_STATS, "not the module's statistics record");
    for (const auto &source : layout->counters)
        counters.push_back({counter_name(source), get64(record, 8 * counters.size())});
    if (nic::has_queues(module_id))
        add_queues(counters, record);
    return counters;
}

} // namespace lhctl
