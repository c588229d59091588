/* The operations of every block driver (fpga/blocks/). */
#ifndef LH_DRIVERS_H
#define LH_DRIVERS_H

#include "lh_block_ops.hpp"

extern const struct lh_block_ops global_ops;
extern const struct lh_block_ops lhx_global_ops;
extern const struct lh_block_ops pcie_ops;
extern const struct lh_block_ops lhx_pcie_ops;
extern const struct lh_block_ops ddr4_ops;
extern const struct lh_block_ops caui_ops;
extern const struct lh_block_ops eth_ops;
extern const struct lh_block_ops nic_ops;
extern const struct lh_block_ops lhx_nic_ops;
extern const struct lh_block_ops parser_ops;
extern const struct lh_block_ops lhx_parser_ops;
extern const struct lh_block_ops pkt_class_ops;
extern const struct lh_block_ops pkt_proc_ops;
extern const struct lh_block_ops egress_sched_ops;
extern const struct lh_block_ops lhx_egress_sched_ops;

#endif
