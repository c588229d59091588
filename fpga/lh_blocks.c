/* Every module id's driver, image and register offsets (Part 2.4). On the
 * base image the second pipe's blocks sit 0x10000 above the first's;
 * global and PCIe exist once and take the pipe as listed. */
#include <stddef.h>

#include "lh_block_ops.h"
#include "lh_device.h"
#include "lh_drivers.h"

#define ONE_SITE(offset) false, { (offset), (offset) }
#define PER_PIPE(offset) true, { (offset), (offset) + 0x10000 }

static const struct lh_block_site sites[LH_MOD_COUNT] = {
    [LH_MOD_GLOBAL] = { LH_DEV_TYPE_BASE, ONE_SITE(0x00000), NULL },
    [LH_MOD_PCIE] = { LH_DEV_TYPE_BASE, ONE_SITE(0x01000), NULL },
    [LH_MOD_DDR4] = { LH_DEV_TYPE_BASE, PER_PIPE(0x1A000), NULL },
    [LH_MOD_CAUI] = { LH_DEV_TYPE_BASE, PER_PIPE(0x10000), &caui_ops },
    [LH_MOD_NIC] = { LH_DEV_TYPE_BASE, PER_PIPE(0x12000), NULL },
    [LH_MOD_INGRESS_PKT_PARSER] = { LH_DEV_TYPE_BASE, PER_PIPE(0x16000),
                                    &parser_ops },
    [LH_MOD_INGRESS_PKT_CLASSIFIER] = { LH_DEV_TYPE_BASE, PER_PIPE(0x17000),
                                        NULL },
    [LH_MOD_INGRESS_PKT_PROCESSOR] = { LH_DEV_TYPE_BASE, PER_PIPE(0x18000),
                                       NULL },
    [LH_MOD_EGRESS_SCHEDULER] = { LH_DEV_TYPE_BASE, PER_PIPE(0x19000), NULL },
    [LH_MOD_LHX_GLOBAL] = { LH_DEV_TYPE_LHX, ONE_SITE(0x00000), NULL },
    [LH_MOD_LHX_PCIE] = { LH_DEV_TYPE_LHX, ONE_SITE(0x01000), NULL },
    [LH_MOD_ETH] = { LH_DEV_TYPE_LHX, ONE_SITE(0x10000), &eth_ops },
    [LH_MOD_LHX_NIC] = { LH_DEV_TYPE_LHX, ONE_SITE(0x12000), NULL },
    [LH_MOD_LHX_INGRESS_PKT_PARSER] = { LH_DEV_TYPE_LHX, ONE_SITE(0x16000),
                                        &lhx_parser_ops },
    [LH_MOD_LHX_EGRESS_SCHEDULER] = { LH_DEV_TYPE_LHX, ONE_SITE(0x19000),
                                      NULL },
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
