/* The egress scheduler drivers: `egress_sched` for the base
 * image (module 8) and `lhx_egress_sched` for the LHX image (module 14), one
 * implementation with the same registers, statistics and error bits. */
#ifndef EGRESS_SCHED_H
#define EGRESS_SCHED_H

#include <stdint.h>

#include "lh_fpga.h"

/* The statistics record of get_stats: 18 counters, 144 bytes. */
#define EGRESS_SCHED_COUNTER_COUNT 18
#define EGRESS_SCHED_STATS_SIZE    (EGRESS_SCHED_COUNTER_COUNT * sizeof(uint64_t))

int egress_sched_context_create(uint32_t pipe, volatile void *regs);
void egress_sched_update_stats(uint32_t pipe);
int egress_sched_get_stats(uint32_t pipe, void *buffer, uint64_t size);
int egress_sched_clear_stats(uint32_t pipe);
int egress_sched_fatal_error_detect(uint32_t pipe, lh_fatal_error_t *report);

int lhx_egress_sched_context_create(uint32_t pipe, volatile void *regs);
void lhx_egress_sched_update_stats(uint32_t pipe);
int lhx_egress_sched_get_stats(uint32_t pipe, void *buffer, uint64_t size);
int lhx_egress_sched_clear_stats(uint32_t pipe);
int lhx_egress_sched_fatal_error_detect(uint32_t pipe,
                                        lh_fatal_error_t *report);


#endif
