/* Placeholder until the driver lands. */
#include "lh_drivers.h"

const struct lh_block_ops parser_ops;
const struct lh_block_ops lhx_parser_ops;
