/* The public API: checks in their fixed order, then one driver
 * operation, chosen by device type for the port and QoS calls and by
 * module id for statistics. */
#include "lh_block_ops.hpp"
#include "lh_check.hpp"

namespace {

constexpr uint32_t loopback_type_max = 4;

/* The module whose driver serves a per-device operation. */
struct DeviceModules {
    uint32_t port;
    uint32_t qos;
};

/* Indexed by device type; the unsupported type has no drivers. */
constexpr DeviceModules device_modules[] = {
    {LH_MOD_CAUI, LH_MOD_INGRESS_PKT_PARSER},   /* LH_DEV_TYPE_BASE */
    {LH_MOD_END, LH_MOD_END},                   /* LH_DEV_TYPE_UNSUPPORTED */
    {LH_MOD_ETH, LH_MOD_LHX_INGRESS_PKT_PARSER}, /* LH_DEV_TYPE_LHX */
};

/* The driver of the CSR device's port or QoS module, or false (no device,
 * or a type without drivers), silently. */
bool device_ops(uint32_t DeviceModules::*module, const lh_block_ops *&ops)
{
    const lh_device_desc *desc = lh::csr_device();

    if (desc == nullptr || (desc->device_type != LH_DEV_TYPE_BASE &&
                            desc->device_type != LH_DEV_TYPE_LHX))
        return false;
    ops = lh_block_ops_of(device_modules[desc->device_type].*module);
    return ops != nullptr;
}

bool port_ops(const lh_block_ops *&ops)
{
    return device_ops(&DeviceModules::port, ops);
}

bool qos_ops(const lh_block_ops *&ops)
{
    return device_ops(&DeviceModules::qos, ops);
}

/* The driver of a module id that keeps statistics, silently. */
bool stats_ops(uint32_t module_id, const lh_block_ops *&ops)
{
    ops = lh_block_ops_of(module_id);
    return ops != nullptr && ops->get_stats != nullptr;
}

/* ": " after the tag, unlike its neighbours: kept as shipped. */
bool loopback_type_known(uint32_t type)
{
    if (type <= loopback_type_max)
        return true;
    lh_log(LOG_ERR, "%s: set loopback failed - unknown loopback type (%d)",
           LH_TAG(ERROR), type);
    return false;
}

int driver_result(int result)
{
    return result != 0 ? -1 : 0;
}

} // namespace

int lh_set_traffic_pipe_state(uint32_t pipe, uint32_t state)
{
    constexpr const char *words = "traffic pipe state change failed";
    const lh_block_ops *ops = nullptr;

    if (!(lh::initialized(words) && lh::pipe_exists(pipe, words) &&
          port_ops(ops)))
        return -1;
    return driver_result(ops->set_interface_state(pipe, state & 0xFF));
}

int lh_get_traffic_pipe_state(uint32_t pipe, uint8_t *state_out)
{
    constexpr const char *words = "traffic pipe get state change failed";
    const lh_block_ops *ops = nullptr;

    if (!(lh::initialized(words) &&
          lh::present(state_out, "get traffic pipe state") &&
          lh::pipe_exists(pipe, words) && port_ops(ops)))
        return -1;
    return driver_result(ops->get_interface_state(pipe, state_out));
}

int lh_set_ingress_qos(uint32_t pipe, lh_qos_profile_t qos)
{
    const lh_block_ops *ops = nullptr;

    if (!(lh::initialized("set ingress QoS failed") && qos_ops(ops)))
        return -1;
    return driver_result(ops->qos_set_profile(pipe, qos));
}

int lh_get_ingress_qos(uint32_t pipe, lh_qos_profile_t *qos)
{
    const lh_block_ops *ops = nullptr;

    if (!(lh::initialized("get ingress QoS failed") && qos_ops(ops)))
        return -1;
    return driver_result(ops->qos_get_profile(pipe, qos));
}

int lh_set_loopback(uint32_t type, uint32_t pipe)
{
    constexpr const char *words = "set loopback call failed";
    const lh_block_ops *ops = nullptr;

    if (!(lh::initialized(words) && lh::pipe_exists(pipe, words) &&
          port_ops(ops) && loopback_type_known(type)))
        return -1;
    return driver_result(ops->set_loopback(type, pipe));
}

int lh_get_loopback(uint32_t *type_out, uint32_t pipe)
{
    constexpr const char *words = "get loopback call failed";
    const lh_block_ops *ops = nullptr;
    uint32_t mask = 0;

    if (!(lh::initialized(words) && lh::pipe_exists(pipe, words) &&
          lh::present(type_out, "get loopback")))
        return -1;
    *type_out = 0;
    if (!port_ops(ops) || ops->get_loopback(&mask, pipe) != 0)
        return -1;
    *type_out |= mask;
    return 0;
}

int lh_get_statistics(uint32_t module_id, uint32_t pipe, void *buffer,
                      uint64_t size)
{
    constexpr const char *words = "get statistics call failed";
    const lh_block_ops *ops = nullptr;

    if (!(lh::initialized(words) && lh::pipe_exists(pipe, words) &&
          lh::present(buffer, "get statistics") && stats_ops(module_id, ops)))
        return -1;
    return ops->get_stats(pipe, buffer, size);
}

int lh_clear_statistics(uint32_t module_id, uint32_t pipe)
{
    constexpr const char *words = "clear statistics call failed";
    const lh_block_ops *ops = nullptr;

    if (!(lh::initialized(words) && lh::pipe_exists(pipe, words) &&
          stats_ops(module_id, ops)))
        return -1;
    return ops->clear_stats(pipe);
}
