/* Egress scheduler: the traffic counters and the fatal-error
 * bits of the block. `egress_sched` (base image) and `lhx_egress_sched`
 * (LHX image) differ only in display name, module id and contexts;
 * everything else is the tables below and the shared core. */
#include "egress_sched.hpp"

#include "lh_block.hpp"
#include "lh_drivers.hpp"

/* Register map, offsets from the block base. */
#define EGRESS_SCHED_FATAL_STATUS 0x00

#define FATAL(bit, text)                                                       \
    {                                                                          \
        EGRESS_SCHED_FATAL_STATUS, (bit), (text)                               \
    }

static const struct lh_error_bit fatal_errors[] = {
    FATAL(13, "SCHE Out FIFO Overflow"),
    FATAL(12, "SCHE Out FIFO Underflow"),
    FATAL(11, "Packet Buffer FIFO (x86 Path) Double bit ECC error"),
    FATAL(10, "Packet Buffer (x86 Path) Overflow"),
    FATAL(9, "Packet Buffer (x86 Path) Underflow"),
    FATAL(8, "SCHE FIFO (x86 Path) Double bit ECC error"),
    FATAL(7, "SCHE FIFO (x86 Path) Overflow"),
    FATAL(6, "SCHE FIFO (x86 Path) Underflow"),
    FATAL(5, "Packet Buffer FIFO (Ingress Path) Double bit ECC error"),
    FATAL(4, "Packet Buffer (Ingress Path) Overflow"),
    FATAL(3, "Packet Buffer (Ingress Path) Underflow"),
    FATAL(2, "SCHE FIFO (Ingress Path) Double bit ECC error"),
    FATAL(1, "SCHE FIFO (Ingress Path) Overflow"),
    FATAL(0, "SCHE FIFO (Ingress Path) Underflow"),
};

/* The statistics record, in order. */
static const struct lh_counter_source counters[] = {
    LH_COUNTER64(0x30, 0x34), LH_COUNTER64(0x38, 0x3C),
    LH_COUNTER64(0x40, 0x44), LH_COUNTER32(0x50),
    LH_COUNTER32(0x54),       LH_COUNTER32(0x60),
    LH_COUNTER32(0x64),       LH_COUNTER64(0x70, 0x74),
    LH_COUNTER64(0x78, 0x7C), LH_COUNTER64(0x80, 0x84),
    LH_COUNTER32(0x90),       LH_COUNTER32(0x94),
    LH_COUNTER32(0x98),       LH_COUNTER32(0x9C),
    LH_COUNTER32(0xA0),       LH_COUNTER32(0xA4),
    LH_COUNTER32(0xA8),       LH_COUNTER32(0xAC),
};

static_assert(LH_ARRAY_SIZE(counters) == EGRESS_SCHED_COUNTER_COUNT,
               "one source per counter of the statistics record");

struct egress_sched_ctx {
    struct lh_block_ctx block;
    uint64_t stats[EGRESS_SCHED_COUNTER_COUNT] = {};
};

/* clear_stats words its refusals as update stats: the hardware keeps it so. */
#define EGRESS_SCHED_BLOCK(display_name, module, ctxs)                         \
    {                                                                          \
        .name = (display_name), .module_id = (module),                         \
        .contexts = {&(ctxs)[0].block, &(ctxs)[1].block},                      \
        .errors = fatal_errors, .error_count = LH_ARRAY_SIZE(fatal_errors),    \
        .counters = counters, .counter_count = LH_ARRAY_SIZE(counters),        \
        .stats_size = EGRESS_SCHED_STATS_SIZE,                                 \
        .words = {"fatal error detection", "update stats", "get stats",        \
                  "update stats"},                                             \
    }

static struct egress_sched_ctx egress_sched_ctxs[LH_MAX_PIPES] = {
    {.block = {.stats = egress_sched_ctxs[0].stats}},
    {.block = {.stats = egress_sched_ctxs[1].stats}},
};
static const struct lh_block_desc egress_sched = EGRESS_SCHED_BLOCK(
    "Egress Scheduler", LH_MOD_EGRESS_SCHEDULER, egress_sched_ctxs);

static struct egress_sched_ctx lhx_egress_sched_ctxs[LH_MAX_PIPES] = {
    {.block = {.stats = lhx_egress_sched_ctxs[0].stats}},
    {.block = {.stats = lhx_egress_sched_ctxs[1].stats}},
};
static const struct lh_block_desc lhx_egress_sched = EGRESS_SCHED_BLOCK(
    "LHX Egress Scheduler", LH_MOD_LHX_EGRESS_SCHEDULER, lhx_egress_sched_ctxs);

int egress_sched_context_create(uint32_t pipe, volatile void *regs)
{
    return lh_block_context_create(&egress_sched, pipe, regs);
}

void egress_sched_update_stats(uint32_t pipe)
{
    lh_block_update_stats(&egress_sched, pipe);
}

int egress_sched_get_stats(uint32_t pipe, void *buffer, uint64_t size)
{
    return lh_block_get_stats(&egress_sched, pipe, buffer, size);
}

int egress_sched_clear_stats(uint32_t pipe)
{
    return lh_block_clear_stats(&egress_sched, pipe);
}

int egress_sched_fatal_error_detect(uint32_t pipe, lh_fatal_error_t *report)
{
    return lh_block_fatal_error_detect(&egress_sched, pipe, report);
}

int lhx_egress_sched_context_create(uint32_t pipe, volatile void *regs)
{
    return lh_block_context_create(&lhx_egress_sched, pipe, regs);
}

void lhx_egress_sched_update_stats(uint32_t pipe)
{
    lh_block_update_stats(&lhx_egress_sched, pipe);
}

int lhx_egress_sched_get_stats(uint32_t pipe, void *buffer, uint64_t size)
{
    return lh_block_get_stats(&lhx_egress_sched, pipe, buffer, size);
}

int lhx_egress_sched_clear_stats(uint32_t pipe)
{
    return lh_block_clear_stats(&lhx_egress_sched, pipe);
}

int lhx_egress_sched_fatal_error_detect(uint32_t pipe, lh_fatal_error_t *report)
{
    return lh_block_fatal_error_detect(&lhx_egress_sched, pipe, report);
}

const struct lh_block_ops egress_sched_ops = {
    .desc = &egress_sched,
    .context_create = egress_sched_context_create,
    .update_stats = egress_sched_update_stats,
    .get_stats = egress_sched_get_stats,
    .clear_stats = egress_sched_clear_stats,
    .fatal_error_detect = egress_sched_fatal_error_detect,
};

const struct lh_block_ops lhx_egress_sched_ops = {
    .desc = &lhx_egress_sched,
    .context_create = lhx_egress_sched_context_create,
    .update_stats = lhx_egress_sched_update_stats,
    .get_stats = lhx_egress_sched_get_stats,
    .clear_stats = lhx_egress_sched_clear_stats,
    .fatal_error_detect = lhx_egress_sched_fatal_error_detect,
};
