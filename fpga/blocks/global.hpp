/* The global block drivers: `global` for the base image
 * (module 0, three dies) and `lhx_global` for the LHX image (module 9, one
 * die). They watch the SEM controller of each die; no statistics. */
#ifndef GLOBAL_H
#define GLOBAL_H

#include <stdint.h>

#include "lh_fpga.h"

int global_context_create(uint32_t pipe, volatile void *regs);
int global_fatal_error_detect(uint32_t pipe, lh_fatal_error_t *report);

int lhx_global_context_create(uint32_t pipe, volatile void *regs);
int lhx_global_fatal_error_detect(uint32_t pipe, lh_fatal_error_t *report);

#endif
