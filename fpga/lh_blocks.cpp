/* Every module id's driver, image and register offsets. On the
 * base image the second pipe's blocks sit 0x10000 above the first's;
 * global and PCIe exist once and take the pipe as listed. */
#include <algorithm>
#include <array>

#include "lh_block_ops.hpp"
#include "lh_device.hpp"
#include "lh_drivers.hpp"
#include "lh_layout.hpp"

namespace {

/* The struct shares its name with the lookup function. */
using Site = struct lh_block_site;

constexpr Site one_site(uint32_t module_id, uint32_t type,
                                 uint32_t offset, const lh_block_ops &ops)
{
    return {module_id, type, false, {offset, offset}, &ops};
}

constexpr Site per_pipe(uint32_t module_id, uint32_t type,
                                 uint32_t offset, const lh_block_ops &ops)
{
    return {module_id, type, true, {offset, offset + 0x10000}, &ops};
}

constexpr Site listed[] = {
    one_site(LH_MOD_GLOBAL, LH_DEV_TYPE_BASE, 0x00000, global_ops),
    one_site(LH_MOD_PCIE, LH_DEV_TYPE_BASE, 0x01000, pcie_ops),
    per_pipe(LH_MOD_DDR4, LH_DEV_TYPE_BASE, 0x1A000, ddr4_ops),
    per_pipe(LH_MOD_CAUI, LH_DEV_TYPE_BASE, 0x10000, caui_ops),
    per_pipe(LH_MOD_NIC, LH_DEV_TYPE_BASE, 0x12000, nic_ops),
    per_pipe(LH_MOD_INGRESS_PKT_PARSER, LH_DEV_TYPE_BASE, 0x16000, parser_ops),
    per_pipe(LH_MOD_INGRESS_PKT_CLASSIFIER, LH_DEV_TYPE_BASE, 0x17000,
             pkt_class_ops),
    per_pipe(LH_MOD_INGRESS_PKT_PROCESSOR, LH_DEV_TYPE_BASE, 0x18000,
             pkt_proc_ops),
    per_pipe(LH_MOD_EGRESS_SCHEDULER, LH_DEV_TYPE_BASE, 0x19000,
             egress_sched_ops),
    one_site(LH_MOD_LHX_GLOBAL, LH_DEV_TYPE_LHX, 0x00000, lhx_global_ops),
    one_site(LH_MOD_LHX_PCIE, LH_DEV_TYPE_LHX, 0x01000, lhx_pcie_ops),
    one_site(LH_MOD_ETH, LH_DEV_TYPE_LHX, 0x10000, eth_ops),
    one_site(LH_MOD_LHX_NIC, LH_DEV_TYPE_LHX, 0x12000, lhx_nic_ops),
    one_site(LH_MOD_LHX_INGRESS_PKT_PARSER, LH_DEV_TYPE_LHX, 0x16000,
             lhx_parser_ops),
    one_site(LH_MOD_LHX_EGRESS_SCHEDULER, LH_DEV_TYPE_LHX, 0x19000,
             lhx_egress_sched_ops),
};

constexpr bool each_module_id_once()
{
    std::array<int, LH_MOD_COUNT> count{};

    for (const Site &site : listed) {
        if (site.module_id >= LH_MOD_COUNT)
            return false;
        count[site.module_id]++;
    }
    return std::ranges::all_of(count, [](int n) { return n == 1; });
}

static_assert(each_module_id_once(), "one site per module id");

/* The sites indexed by module id. */
constexpr std::array<Site, LH_MOD_COUNT> by_module_id()
{
    std::array<Site, LH_MOD_COUNT> sites{};

    for (const Site &site : listed)
        sites[site.module_id] = site;
    return sites;
}

constexpr std::array<Site, LH_MOD_COUNT> sites = by_module_id();

} // namespace

const struct lh_block_site *lh_block_site(uint32_t module_id)
{
    return module_id < LH_MOD_COUNT ? &sites[module_id] : nullptr;
}

const struct lh_block_ops *lh_block_ops_of(uint32_t module_id)
{
    const struct lh_block_site *site = lh_block_site(module_id);

    return site == nullptr ? nullptr : site->ops;
}

std::optional<lh::BlockLayout> lh::block_layout(uint32_t module_id)
{
    const struct lh_block_site *site = lh_block_site(module_id);

    if (site == nullptr || site->ops == nullptr)
        return std::nullopt;
    const lh_block_desc &desc = *site->ops->desc;
    return BlockLayout{desc.name,
                       site->device_type,
                       site->per_pipe,
                       {site->offsets[0], site->offsets[1]},
                       desc.errors,
                       desc.counters,
                       desc.stats_size,
                       desc.port};
}
