/* The DDR4 memory-controller block driver, base image only
 * (module 2, one block per pipe). It reports the block's FIFO and ECC
 * errors; no statistics. */
#ifndef DDR4_H
#define DDR4_H

#include <stdint.h>

#include "lh_fpga.h"

int ddr4_context_create(uint32_t pipe, volatile void *regs);
int ddr4_fatal_error_detect(uint32_t pipe, lh_fatal_error_t *report);

#endif
