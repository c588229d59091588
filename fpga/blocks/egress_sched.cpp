/* Egress scheduler: the traffic counters and the fatal-error
 * bits of the block. `egress_sched` (base image) and `lhx_egress_sched`
 * (LHX image) differ only in display name, module id and contexts;
 * everything else is the tables below and the shared core. */
#include "egress_sched.hpp"

#include "lh_block.hpp"
#include "lh_drivers.hpp"

namespace {

/* Register map, offsets from the block base. */
constexpr uint32_t fatal_status = 0x00;

constexpr lh_error_bit fatal_errors[] = {
    {fatal_status, 13, "SCHE Out FIFO Overflow"},
    {fatal_status, 12, "SCHE Out FIFO Underflow"},
    {fatal_status, 11, "Packet Buffer FIFO (x86 Path) Double bit ECC error"},
    {fatal_status, 10, "Packet Buffer (x86 Path) Overflow"},
    {fatal_status, 9, "Packet Buffer (x86 Path) Underflow"},
    {fatal_status, 8, "SCHE FIFO (x86 Path) Double bit ECC error"},
    {fatal_status, 7, "SCHE FIFO (x86 Path) Overflow"},
    {fatal_status, 6, "SCHE FIFO (x86 Path) Underflow"},
    {fatal_status, 5, "Packet Buffer FIFO (Ingress Path) Double bit ECC error"},
    {fatal_status, 4, "Packet Buffer (Ingress Path) Overflow"},
    {fatal_status, 3, "Packet Buffer (Ingress Path) Underflow"},
    {fatal_status, 2, "SCHE FIFO (Ingress Path) Double bit ECC error"},
    {fatal_status, 1, "SCHE FIFO (Ingress Path) Overflow"},
    {fatal_status, 0, "SCHE FIFO (Ingress Path) Underflow"},
};

/* The statistics record, in order. */
constexpr lh_counter_source counters[] = {
    lh::counter64(0x30, 0x34), lh::counter64(0x38, 0x3C),
    lh::counter64(0x40, 0x44), lh::counter32(0x50),
    lh::counter32(0x54),       lh::counter32(0x60),
    lh::counter32(0x64),       lh::counter64(0x70, 0x74),
    lh::counter64(0x78, 0x7C), lh::counter64(0x80, 0x84),
    lh::counter32(0x90),       lh::counter32(0x94),
    lh::counter32(0x98),       lh::counter32(0x9C),
    lh::counter32(0xA0),       lh::counter32(0xA4),
    lh::counter32(0xA8),       lh::counter32(0xAC),
};

static_assert(std::size(counters) == EGRESS_SCHED_COUNTER_COUNT,
              "one source per counter of the statistics record");

using Ctx = lh::Context<lh::Counters<EGRESS_SCHED_COUNTER_COUNT>>;
static_assert(sizeof(Ctx::stats) == EGRESS_SCHED_STATS_SIZE);

constinit std::array<Ctx, LH_MAX_PIPES> egress_sched_contexts;
constinit std::array<Ctx, LH_MAX_PIPES> lhx_egress_sched_contexts;

/* clear_stats words its refusals as update stats: the hardware keeps it so. */
constexpr lh_block_desc describe(const char *name, uint32_t module_id)
{
    return {name, module_id, fatal_errors, counters, EGRESS_SCHED_STATS_SIZE,
            {"fatal error detection", "update stats", "get stats",
             "update stats"}};
}

constexpr lh::Block<Ctx> egress_sched{
    describe("Egress Scheduler", LH_MOD_EGRESS_SCHEDULER),
    &egress_sched_contexts};
constexpr lh::Block<Ctx> lhx_egress_sched{
    describe("LHX Egress Scheduler", LH_MOD_LHX_EGRESS_SCHEDULER),
    &lhx_egress_sched_contexts};

} // namespace

int egress_sched_context_create(uint32_t pipe, volatile void *regs)
{
    return lh::create(egress_sched, pipe, regs);
}

void egress_sched_update_stats(uint32_t pipe)
{
    lh::update_stats(egress_sched, pipe);
}

int egress_sched_get_stats(uint32_t pipe, void *buffer, uint64_t size)
{
    return lh::get_stats(egress_sched, pipe, buffer, size);
}

int egress_sched_clear_stats(uint32_t pipe)
{
    return lh::clear_stats(egress_sched, pipe);
}

int egress_sched_fatal_error_detect(uint32_t pipe, lh_fatal_error_t *report)
{
    return lh::fatal_error_detect(egress_sched, pipe, report);
}

int lhx_egress_sched_context_create(uint32_t pipe, volatile void *regs)
{
    return lh::create(lhx_egress_sched, pipe, regs);
}

void lhx_egress_sched_update_stats(uint32_t pipe)
{
    lh::update_stats(lhx_egress_sched, pipe);
}

int lhx_egress_sched_get_stats(uint32_t pipe, void *buffer, uint64_t size)
{
    return lh::get_stats(lhx_egress_sched, pipe, buffer, size);
}

int lhx_egress_sched_clear_stats(uint32_t pipe)
{
    return lh::clear_stats(lhx_egress_sched, pipe);
}

int lhx_egress_sched_fatal_error_detect(uint32_t pipe, lh_fatal_error_t *report)
{
    return lh::fatal_error_detect(lhx_egress_sched, pipe, report);
}

constexpr lh_block_ops egress_sched_ops = lh::stats_ops(
    egress_sched.info, egress_sched_context_create,
    egress_sched_fatal_error_detect, egress_sched_update_stats,
    egress_sched_get_stats, egress_sched_clear_stats);

constexpr lh_block_ops lhx_egress_sched_ops = lh::stats_ops(
    lhx_egress_sched.info, lhx_egress_sched_context_create,
    lhx_egress_sched_fatal_error_detect, lhx_egress_sched_update_stats,
    lhx_egress_sched_get_stats, lhx_egress_sched_clear_stats);
