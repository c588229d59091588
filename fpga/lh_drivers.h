/* The operations of every block driver (fpga/blocks/). */
#ifndef LH_DRIVERS_H
#define LH_DRIVERS_H

#include "lh_block_ops.h"

extern const struct lh_block_ops caui_ops;
extern const struct lh_block_ops eth_ops;
extern const struct lh_block_ops parser_ops;
extern const struct lh_block_ops lhx_parser_ops;

#endif
