/* The operations every block driver offers and the one table that wires each
 * module id to its driver, its image and its register offsets. */
#ifndef LH_BLOCK_OPS_H
#define LH_BLOCK_OPS_H

#include <stdbool.h>
#include <stdint.h>

#include "lh_block.hpp"
#include "lh_fpga.h"


struct lh_block_ops {
    const struct lh_block_desc *desc = nullptr; /* the block's tables and name */
    int (*context_create)(uint32_t pipe, volatile void *regs) = nullptr;
    int (*set_interface_state)(uint32_t pipe, uint8_t state) = nullptr;
    int (*get_interface_state)(uint32_t pipe, uint8_t *state) = nullptr;
    int (*set_loopback)(uint32_t type, uint32_t pipe) = nullptr;
    int (*get_loopback)(uint32_t *mask, uint32_t pipe) = nullptr;
    void (*update_stats)(uint32_t pipe) = nullptr;
    int (*get_stats)(uint32_t pipe, void *buffer, uint64_t size) = nullptr;
    int (*clear_stats)(uint32_t pipe) = nullptr;
    int (*fatal_error_detect)(uint32_t pipe, lh_fatal_error_t *report) = nullptr;
    int (*qos_set_profile)(uint32_t pipe, lh_qos_profile_t qos) = nullptr;
    int (*qos_get_profile)(uint32_t pipe, lh_qos_profile_t *qos) = nullptr;
    void (*rx_align_monitor)(uint32_t pipe) = nullptr;
};

namespace lh {

using CreateFn = int (*)(uint32_t pipe, volatile void *regs);
using FatalFn = int (*)(uint32_t pipe, lh_fatal_error_t *report);
using UpdateFn = void (*)(uint32_t pipe);
using GetFn = int (*)(uint32_t pipe, void *buffer, uint64_t size);
using ClearFn = int (*)(uint32_t pipe);

/* The operations of a block without statistics. */
constexpr lh_block_ops fatal_ops(const lh_block_desc &desc, CreateFn create,
                                 FatalFn fatal)
{
    lh_block_ops ops;
    ops.desc = &desc;
    ops.context_create = create;
    ops.fatal_error_detect = fatal;
    return ops;
}

/* The operations of a block with statistics. */
constexpr lh_block_ops stats_ops(const lh_block_desc &desc, CreateFn create,
                                 FatalFn fatal, UpdateFn update, GetFn get,
                                 ClearFn clear)
{
    lh_block_ops ops = fatal_ops(desc, create, fatal);
    ops.update_stats = update;
    ops.get_stats = get;
    ops.clear_stats = clear;
    return ops;
}

} // namespace lh

struct lh_block_site {
    uint32_t module_id;
    uint32_t device_type; /* the image that carries the block */
    bool per_pipe;        /* one instance per pipe, at offsets[pipe] */
    uint32_t offsets[LH_MAX_PIPES]; /* from the window base */
    const struct lh_block_ops *ops; /* null: no driver */
};

/* The site of a module id, or null for an id above 14. */
const struct lh_block_site *lh_block_site(uint32_t module_id);

/* The operations of a module id, or null (no such id, or no driver). */
const struct lh_block_ops *lh_block_ops_of(uint32_t module_id);

#endif
