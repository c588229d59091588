/* Placeholder until the driver lands. */
#include "lh_drivers.h"

const struct lh_block_ops caui_ops;
const struct lh_block_ops eth_ops;
