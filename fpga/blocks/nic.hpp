/* The NIC block drivers: `nic` for the base image (module 4) and
 * `lhx_nic` for the LHX image (module 12), one implementation with the same
 * registers and statistics record; they differ in the queue select field
 * and two rows of the error table. */
#ifndef NIC_H
#define NIC_H

#include <stdint.h>

#include "lh_fpga.h"

#define NIC_GLOBAL_COUNTERS 21
#define NIC_QUEUES          256
#define NIC_QUEUE_COUNTERS  3

/* One queue's totals. `present` is 1 once the queue has been polled. */
struct nic_queue_stats {
    uint8_t present;
    uint8_t reserved[7];
    uint64_t counters[NIC_QUEUE_COUNTERS];
};

/* The statistics record of get_stats, 8360 bytes. */
struct nic_stats {
    uint64_t global[NIC_GLOBAL_COUNTERS];
    struct nic_queue_stats queues[NIC_QUEUES];
};

#define NIC_STATS_SIZE 8360

static_assert(sizeof(struct nic_queue_stats) == 32, "NIC queue entry");
static_assert(sizeof(struct nic_stats) == NIC_STATS_SIZE, "NIC record");

int nic_context_create(uint32_t pipe, volatile void *regs);
void nic_update_stats(uint32_t pipe);
int nic_get_stats(uint32_t pipe, void *buffer, uint64_t size);
int nic_clear_stats(uint32_t pipe);
int nic_fatal_error_detect(uint32_t pipe, lh_fatal_error_t *report);

int lhx_nic_context_create(uint32_t pipe, volatile void *regs);
void lhx_nic_update_stats(uint32_t pipe);
int lhx_nic_get_stats(uint32_t pipe, void *buffer, uint64_t size);
int lhx_nic_clear_stats(uint32_t pipe);
int lhx_nic_fatal_error_detect(uint32_t pipe, lh_fatal_error_t *report);

#endif
