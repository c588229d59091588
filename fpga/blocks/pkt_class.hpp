/* The ingress packet classifier driver: `pkt_class`, module 6,
 * base image only. */
#ifndef PKT_CLASS_H
#define PKT_CLASS_H

#include <stdint.h>

#include "lh_fpga.h"

/* The statistics record of get_stats: 71 counters, 568 bytes. */
#define PKT_CLASS_COUNTER_COUNT 71
#define PKT_CLASS_STATS_SIZE    (PKT_CLASS_COUNTER_COUNT * sizeof(uint64_t))

int pkt_class_context_create(uint32_t pipe, volatile void *regs);
void pkt_class_update_stats(uint32_t pipe);
int pkt_class_get_stats(uint32_t pipe, void *buffer, uint64_t size);
int pkt_class_clear_stats(uint32_t pipe);
int pkt_class_fatal_error_detect(uint32_t pipe, lh_fatal_error_t *report);


#endif
