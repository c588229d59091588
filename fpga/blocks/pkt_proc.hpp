/* The ingress packet processor driver: `pkt_proc`, module 7,
 * base image only. */
#ifndef PKT_PROC_H
#define PKT_PROC_H

#include <stdint.h>

#include "lh_fpga.h"

/* The statistics record of get_stats: 17 counters, 136 bytes. */
#define PKT_PROC_COUNTER_COUNT 17
#define PKT_PROC_STATS_SIZE    (PKT_PROC_COUNTER_COUNT * sizeof(uint64_t))

int pkt_proc_context_create(uint32_t pipe, volatile void *regs);
void pkt_proc_update_stats(uint32_t pipe);
int pkt_proc_get_stats(uint32_t pipe, void *buffer, uint64_t size);
int pkt_proc_clear_stats(uint32_t pipe);
int pkt_proc_fatal_error_detect(uint32_t pipe, lh_fatal_error_t *report);


#endif
