#include "fake_lh.hpp"

#include <stdarg.h>
#include <stdio.h>
#include <string.h>

FakeLh fake_lh;

const char *const lh_module_names[LH_MOD_COUNT + 1] = {
    "global", "pcie", "ddr4", "caui", "nic", "ingress-pkt-parser",
    "ingress-pkt-classifier", "ingress-pkt-processor", "egress-scheduler",
    "lhx-global", "lhx-pcie", "eth", "lhx-nic", "lhx-ingress-pkt-parser",
    "lhx-egress-scheduler", nullptr,
};

void fake_lh_reset()
{
    fake_lh = FakeLh{};
}

/* Records the call; returns -1 for the failing call, else the result. */
__attribute__((format(printf, 1, 2))) static int record(const char *format,
                                                        ...)
{
    char text[128];
    va_list args;

    va_start(args, format);
    vsnprintf(text, sizeof(text), format, args);
    va_end(args);
    fake_lh.calls.emplace_back(text);
    if (fake_lh.fail_call == fake_lh.calls.size())
        return -1;
    return fake_lh.result;
}

int lh_fpga_init(const char *log_path)
{
    return record("lh_fpga_init(%s)", log_path);
}

void lh_fpga_shutdown(void)
{
    record("lh_fpga_shutdown()");
}

void lh_register_fatal_error_cb(lh_fatal_error_cb cb)
{
    fake_lh.fatal_error_cb = cb;
    record("lh_register_fatal_error_cb()");
}

int lh_read_register(uint32_t offset, uint32_t *value_out)
{
    *value_out = fake_lh.register_value;
    return record("lh_read_register(0x%x)", offset);
}

int lh_write_register(uint32_t offset, uint32_t value)
{
    return record("lh_write_register(0x%x, 0x%x)", offset, value);
}

int lh_set_loopback(uint32_t type, uint32_t pipe)
{
    return record("lh_set_loopback(%u, %u)", type, pipe);
}

int lh_get_loopback(uint32_t *type_out, uint32_t pipe)
{
    *type_out = fake_lh.loopback_type;
    return record("lh_get_loopback(%u)", pipe);
}

int lh_get_statistics(uint32_t module_id, uint32_t pipe, void *buffer,
                      uint64_t size)
{
    memset(buffer, fake_lh.stats_fill, size);
    return record("lh_get_statistics(%u, %u, %llu)", module_id, pipe,
                  static_cast<unsigned long long>(size));
}

int lh_clear_statistics(uint32_t module_id, uint32_t pipe)
{
    return record("lh_clear_statistics(%u, %u)", module_id, pipe);
}

int lh_get_module_list(const lh_module_entry **list_out)
{
    record("lh_get_module_list()");
    if (fake_lh.module_list_result != 0)
        return fake_lh.module_list_result;
    *list_out = fake_lh.module_list;
    return 0;
}

int lh_get_module_state(lh_module_entry entry, uint8_t *state_out)
{
    record("lh_get_module_state(%u, %u)", entry.module_id, entry.pipe);
    if (fake_lh.module_state_result != 0)
        return fake_lh.module_state_result;
    *state_out = fake_lh.module_states[entry.module_id][entry.pipe];
    return 0;
}

int lh_set_traffic_pipe_state(uint32_t pipe, uint32_t state)
{
    return record("lh_set_traffic_pipe_state(%u, %u)", pipe, state);
}

uint32_t lh_get_traffic_pipe_count(void)
{
    record("lh_get_traffic_pipe_count()");
    return fake_lh.pipe_count;
}

int lh_get_traffic_pipe_state(uint32_t pipe, uint8_t *state_out)
{
    int result = record("lh_get_traffic_pipe_state(%u)", pipe);

    if (result == 0)
        *state_out = fake_lh.pipe_states[pipe % LH_MAX_PIPES];
    return result;
}

int lh_set_ingress_qos(uint32_t pipe, lh_qos_profile_t qos)
{
    return record("lh_set_ingress_qos(%u, %u, %u)", pipe, qos.profile_id,
                  qos.priority);
}

int lh_get_ingress_qos(uint32_t pipe, lh_qos_profile_t *qos)
{
    qos->priority = fake_lh.qos_priority;
    return record("lh_get_ingress_qos(%u, %u)", pipe, qos->profile_id);
}
