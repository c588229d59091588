/* Every module id's driver, image and register offsets. On the
 * base image the second pipe's blocks sit 0x10000 above the first's;
 * global and PCIe exist once and take the pipe as listed. */
#include <stddef.h>

#include "lh_block_ops.hpp"
#include "lh_device.hpp"
#include "lh_drivers.hpp"

#define ONE_SITE(type, offset, driver)                                         \
    {                                                                          \
        .device_type = (type), .per_pipe = false,                              \
        .offsets = {(offset), (offset)}, .ops = (driver),                      \
    }
#define PER_PIPE(type, offset, driver)                                         \
    {                                                                          \
        .device_type = (type), .per_pipe = true,                               \
        .offsets = {(offset), (offset) + 0x10000}, .ops = (driver),            \
    }

static const struct lh_block_site sites[LH_MOD_COUNT] = {
    ONE_SITE(LH_DEV_TYPE_BASE, 0x00000, &global_ops),
    ONE_SITE(LH_DEV_TYPE_BASE, 0x01000, &pcie_ops),
    PER_PIPE(LH_DEV_TYPE_BASE, 0x1A000, &ddr4_ops),
    PER_PIPE(LH_DEV_TYPE_BASE, 0x10000, &caui_ops),
    PER_PIPE(LH_DEV_TYPE_BASE, 0x12000, &nic_ops),
    PER_PIPE(LH_DEV_TYPE_BASE, 0x16000, &parser_ops),
    PER_PIPE(LH_DEV_TYPE_BASE, 0x17000, &pkt_class_ops),
    PER_PIPE(LH_DEV_TYPE_BASE, 0x18000, &pkt_proc_ops),
    PER_PIPE(LH_DEV_TYPE_BASE, 0x19000, &egress_sched_ops),
    ONE_SITE(LH_DEV_TYPE_LHX, 0x00000, &lhx_global_ops),
    ONE_SITE(LH_DEV_TYPE_LHX, 0x01000, &lhx_pcie_ops),
    ONE_SITE(LH_DEV_TYPE_LHX, 0x10000, &eth_ops),
    ONE_SITE(LH_DEV_TYPE_LHX, 0x12000, &lhx_nic_ops),
    ONE_SITE(LH_DEV_TYPE_LHX, 0x16000, &lhx_parser_ops),
    ONE_SITE(LH_DEV_TYPE_LHX, 0x19000, &lhx_egress_sched_ops),
};

const struct lh_block_site *lh_block_site(uint32_t module_id)
{
    return module_id < LH_MOD_COUNT ? &sites[module_id] : NULL;
}

const struct lh_block_ops *lh_block_ops_of(uint32_t module_id)
{
    const struct lh_block_site *site = lh_block_site(module_id);

    return site == NULL ? NULL : site->ops;
}

int lh_block_layout_of(uint32_t module_id, struct lh_block_layout *out)
{
    const struct lh_block_site *site = lh_block_site(module_id);
    const struct lh_block_desc *desc;

    if (site == NULL || site->ops == NULL || out == NULL)
        return -1;
    desc = site->ops->desc;
    *out = (struct lh_block_layout){
        .name = desc->name,
        .device_type = site->device_type,
        .per_pipe = site->per_pipe,
        .offsets = { site->offsets[0], site->offsets[1] },
        .errors = desc->errors,
        .error_count = desc->error_count,
        .counters = desc->counters,
        .counter_count = desc->counter_count,
        .stats_size = desc->stats_size,
    };
    return 0;
}
