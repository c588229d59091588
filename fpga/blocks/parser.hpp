/* The ingress packet parser drivers: `parser` for the base image
 * (module 5) and `lhx_parser` for the LHX image (module 13), one
 * implementation with the same registers, statistics and QoS table. */
#ifndef PARSER_H
#define PARSER_H

#include <stdint.h>

#include "lh_fpga.h"

/* The statistics record of get_stats: 15 counters, 120 bytes. */
#define PARSER_COUNTER_COUNT 15
#define PARSER_STATS_SIZE (PARSER_COUNTER_COUNT * sizeof(uint64_t))

int parser_context_create(uint32_t pipe, volatile void *regs);
void parser_update_stats(uint32_t pipe);
int parser_get_stats(uint32_t pipe, void *buffer, uint64_t size);
int parser_clear_stats(uint32_t pipe);
int parser_fatal_error_detect(uint32_t pipe, lh_fatal_error_t *report);
int parser_qos_set_profile(uint32_t pipe, lh_qos_profile_t qos);
int parser_qos_get_profile(uint32_t pipe, lh_qos_profile_t *qos);

int lhx_parser_context_create(uint32_t pipe, volatile void *regs);
void lhx_parser_update_stats(uint32_t pipe);
int lhx_parser_get_stats(uint32_t pipe, void *buffer, uint64_t size);
int lhx_parser_clear_stats(uint32_t pipe);
int lhx_parser_fatal_error_detect(uint32_t pipe, lh_fatal_error_t *report);
int lhx_parser_qos_set_profile(uint32_t pipe, lh_qos_profile_t qos);
int lhx_parser_qos_get_profile(uint32_t pipe, lh_qos_profile_t *qos);

#endif
