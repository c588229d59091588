/* The PCIe block drivers: `pcie` for the base image (module 1)
 * and `lhx_pcie` for the LHX image (module 10), one implementation with
 * the same registers, two counters and the same error bits. */
#ifndef PCIE_H
#define PCIE_H

#include <stdint.h>

#include "lh_fpga.h"

/* The statistics record of get_stats: counter 0 (from 0x50), then counter
 * 1 (from 0x54), 16 bytes. */
#define PCIE_COUNTER_COUNT 2
#define PCIE_STATS_SIZE    (PCIE_COUNTER_COUNT * sizeof(uint64_t))

int pcie_context_create(uint32_t pipe, volatile void *regs);
void pcie_update_stats(uint32_t pipe);
int pcie_get_stats(uint32_t pipe, void *buffer, uint64_t size);
int pcie_clear_stats(uint32_t pipe);
int pcie_fatal_error_detect(uint32_t pipe, lh_fatal_error_t *report);

int lhx_pcie_context_create(uint32_t pipe, volatile void *regs);
void lhx_pcie_update_stats(uint32_t pipe);
int lhx_pcie_get_stats(uint32_t pipe, void *buffer, uint64_t size);
int lhx_pcie_clear_stats(uint32_t pipe);
int lhx_pcie_fatal_error_detect(uint32_t pipe, lh_fatal_error_t *report);

#endif
