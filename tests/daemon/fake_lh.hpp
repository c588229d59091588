/* The FPGA access library as the daemon's unit tests set it: every call is
 * recorded as text, every result and output is set by the test. */
#ifndef FAKE_LH_HPP
#define FAKE_LH_HPP

#include <stddef.h>
#include <stdint.h>

#include <string>
#include <vector>

#include "lh_fpga.h"

struct FakeLh {
    int result = 0;        /* of every call that returns int */
    size_t fail_call = 0;  /* 1-based call that returns -1 instead; 0: none */
    uint32_t register_value = 0;
    uint32_t loopback_type = 0;
    const lh_module_entry *module_list = nullptr;
    int module_list_result = 0;
    uint8_t module_states[LH_MOD_COUNT][LH_MAX_PIPES] = {};
    int module_state_result = 0;
    uint32_t pipe_count = 0;
    uint8_t pipe_states[LH_MAX_PIPES] = {};
    uint32_t qos_priority = 0;
    uint8_t stats_fill = 0; /* every byte of a statistics record */
    lh_fatal_error_cb fatal_error_cb = nullptr;
    /* "lh_read_register(0x100)", ... in the order made. */
    std::vector<std::string> calls;

    /* The index-th call, or a text saying there is none. */
    std::string call(size_t index) const
    {
        return index < calls.size() ? calls[index]
                                    : "(no call " + std::to_string(index) + ")";
    }
};

extern FakeLh fake_lh;

void fake_lh_reset();

#endif
