/* The public API: checks in their fixed order, then one driver
 * operation, chosen by device type for the port and QoS calls and by
 * module id for statistics. */
#include "lh_block_ops.hpp"
#include "lh_check.hpp"

#define LH_LOOPBACK_TYPE_MAX 4

/* The module whose driver serves a per-device operation. */
struct device_modules {
    uint32_t port;
    uint32_t qos;
};

/* Indexed by device type; the unsupported type has no drivers. */
static const struct device_modules device_modules[] = {
    { LH_MOD_CAUI, LH_MOD_INGRESS_PKT_PARSER },    /* LH_DEV_TYPE_BASE */
    { LH_MOD_END, LH_MOD_END },                     /* LH_DEV_TYPE_UNSUPPORTED */
    { LH_MOD_ETH, LH_MOD_LHX_INGRESS_PKT_PARSER },  /* LH_DEV_TYPE_LHX */
};

/* The modules of the CSR device's type, or null (no device, or a type
 * without drivers), silently. */
static const struct device_modules *csr_device_modules(void)
{
    lh_device_desc *desc = lh_csr_device();

    if (desc == NULL || (desc->device_type != LH_DEV_TYPE_BASE &&
                         desc->device_type != LH_DEV_TYPE_LHX))
        return NULL;
    return &device_modules[desc->device_type];
}

static const struct lh_block_ops *port_ops(void)
{
    const struct device_modules *modules = csr_device_modules();

    return modules == NULL ? NULL : lh_block_ops_of(modules->port);
}

static const struct lh_block_ops *qos_ops(void)
{
    const struct device_modules *modules = csr_device_modules();

    return modules == NULL ? NULL : lh_block_ops_of(modules->qos);
}

static int driver_result(int result)
{
    return result != 0 ? -1 : 0;
}

int lh_set_traffic_pipe_state(uint32_t pipe, uint32_t state)
{
    const struct lh_block_ops *ops;

    LH_REQUIRE_INITIALIZED("traffic pipe state change failed", -1);
    LH_REQUIRE_PIPE(pipe, "traffic pipe state change failed", -1);
    ops = port_ops();
    if (ops == NULL)
        return -1;
    return driver_result(ops->set_interface_state(pipe, state & 0xFF));
}

int lh_get_traffic_pipe_state(uint32_t pipe, uint8_t *state_out)
{
    const struct lh_block_ops *ops;

    LH_REQUIRE_INITIALIZED("traffic pipe get state change failed", -1);
    LH_REQUIRE_POINTER(state_out, "get traffic pipe state", -1);
    LH_REQUIRE_PIPE(pipe, "traffic pipe get state change failed", -1);
    ops = port_ops();
    if (ops == NULL)
        return -1;
    return driver_result(ops->get_interface_state(pipe, state_out));
}

int lh_set_ingress_qos(uint32_t pipe, lh_qos_profile_t qos)
{
    const struct lh_block_ops *ops;

    LH_REQUIRE_INITIALIZED("set ingress QoS failed", -1);
    ops = qos_ops();
    if (ops == NULL)
        return -1;
    return driver_result(ops->qos_set_profile(pipe, qos));
}

int lh_get_ingress_qos(uint32_t pipe, lh_qos_profile_t *qos)
{
    const struct lh_block_ops *ops;

    LH_REQUIRE_INITIALIZED("get ingress QoS failed", -1);
    ops = qos_ops();
    if (ops == NULL)
        return -1;
    return driver_result(ops->qos_get_profile(pipe, qos));
}

int lh_set_loopback(uint32_t type, uint32_t pipe)
{
    const struct lh_block_ops *ops;

    LH_REQUIRE_INITIALIZED("set loopback call failed", -1);
    LH_REQUIRE_PIPE(pipe, "set loopback call failed", -1);
    ops = port_ops();
    if (ops == NULL)
        return -1;
    if (type > LH_LOOPBACK_TYPE_MAX) {
        /* ": " after the tag, unlike its neighbours: kept as shipped. */
        lh_log(LOG_ERR, "%s: set loopback failed - unknown loopback type (%d)",
               LH_TAG(ERROR), type);
        return -1;
    }
    return driver_result(ops->set_loopback(type, pipe));
}

int lh_get_loopback(uint32_t *type_out, uint32_t pipe)
{
    const struct lh_block_ops *ops;
    uint32_t mask = 0;

    LH_REQUIRE_INITIALIZED("get loopback call failed", -1);
    LH_REQUIRE_PIPE(pipe, "get loopback call failed", -1);
    LH_REQUIRE_POINTER(type_out, "get loopback", -1);
    *type_out = 0;
    ops = port_ops();
    if (ops == NULL)
        return -1;
    if (ops->get_loopback(&mask, pipe) != 0)
        return -1;
    *type_out |= mask;
    return 0;
}

int lh_get_statistics(uint32_t module_id, uint32_t pipe, void *buffer,
                      uint64_t size)
{
    const struct lh_block_ops *ops;

    LH_REQUIRE_INITIALIZED("get statistics call failed", -1);
    LH_REQUIRE_PIPE(pipe, "get statistics call failed", -1);
    LH_REQUIRE_POINTER(buffer, "get statistics", -1);
    ops = lh_block_ops_of(module_id);
    if (ops == NULL || ops->get_stats == NULL)
        return -1;
    return ops->get_stats(pipe, buffer, size);
}

int lh_clear_statistics(uint32_t module_id, uint32_t pipe)
{
    const struct lh_block_ops *ops;

    LH_REQUIRE_INITIALIZED("clear statistics call failed", -1);
    LH_REQUIRE_PIPE(pipe, "clear statistics call failed", -1);
    ops = lh_block_ops_of(module_id);
    if (ops == NULL || ops->clear_stats == NULL)
        return -1;
    return ops->clear_stats(pipe);
}
