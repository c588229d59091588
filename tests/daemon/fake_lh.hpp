/* The FPGA access library as the daemon's unit tests set it: every call is
 * recorded as text, every result and output is set by the test. */
#ifndef FAKE_LH_H
#define FAKE_LH_H

#include <stddef.h>
#include <stdint.h>

#include "lh_fpga.h"

#define FAKE_LH_MAX_CALLS 64

struct fake_lh {
    int result;            /* of every call that returns int */
    int fail_call;         /* 1-based call that returns -1 instead; 0: none */
    uint32_t register_value;
    uint32_t loopback_type;
    const lh_module_entry *module_list;
    int module_list_result;
    uint8_t module_states[LH_MOD_COUNT][LH_MAX_PIPES];
    int module_state_result;
    uint32_t pipe_count;
    uint8_t pipe_states[LH_MAX_PIPES];
    uint32_t qos_priority;
    uint8_t stats_fill;    /* every byte of a statistics record */
    lh_fatal_error_cb fatal_error_cb;
    char calls[FAKE_LH_MAX_CALLS][96];
    size_t call_count;
};

extern struct fake_lh fake_lh;

void fake_lh_reset(void);

#endif
