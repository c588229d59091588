/* PCIe blocks: the host-bus bridge's FIFO errors and its two
 * 32-bit counters. `pcie` (base image) and `lhx_pcie` (LHX image) differ
 * only in display name, module id and contexts; the rest is the tables
 * below and the shared core, whose create sets valid only once the mutex
 * exists. */
#include "pcie.hpp"

#include "lh_block.hpp"
#include "lh_drivers.hpp"

namespace {

constexpr uint32_t fatal_status = 0x00;

constexpr lh_error_bit fatal_errors[] = {
    {fatal_status, 5, "PBUS Trgt FIFO Overflow"},
    {fatal_status, 4, "PBUS Trgt FIFO Underflow"},
    {fatal_status, 3, "AXI-lite Read Return FIFO Overflow"},
    {fatal_status, 2, "AXI-lite Read Return FIFO Underflow"},
    {fatal_status, 1, "AXI-lite Command FIFO Overflow"},
    {fatal_status, 0, "AXI-lite Command FIFO Underflow"},
};

/* Counts since the previous read: no snapshot, no link check. */
constexpr lh_counter_source counters[] = {
    lh::counter32(0x50),
    lh::counter32(0x54),
};

static_assert(std::size(counters) == PCIE_COUNTER_COUNT,
              "one source per counter of the statistics record");

using Ctx = lh::Context<lh::Counters<PCIE_COUNTER_COUNT>>;
static_assert(sizeof(Ctx::stats) == PCIE_STATS_SIZE);

constinit std::array<Ctx, LH_MAX_PIPES> pcie_contexts;
constinit std::array<Ctx, LH_MAX_PIPES> lhx_pcie_contexts;

constexpr lh_block_desc describe(const char *name, uint32_t module_id)
{
    return {name, module_id, fatal_errors, counters, PCIE_STATS_SIZE,
            {"module fatal error detection", "update stats", "get stats",
             "clear stats"}};
}

constexpr lh::Block<Ctx> pcie{describe("PCIe", LH_MOD_PCIE),
                              &pcie_contexts};
constexpr lh::Block<Ctx> lhx_pcie{describe("LHX PCIe", LH_MOD_LHX_PCIE),
                                  &lhx_pcie_contexts};

} // namespace

int pcie_context_create(uint32_t pipe, volatile void *regs)
{
    return lh::create(pcie, pipe, regs);
}

void pcie_update_stats(uint32_t pipe)
{
    lh::update_stats(pcie, pipe);
}

int pcie_get_stats(uint32_t pipe, void *buffer, uint64_t size)
{
    return lh::get_stats(pcie, pipe, buffer, size);
}

int pcie_clear_stats(uint32_t pipe)
{
    return lh::clear_stats(pcie, pipe);
}

int pcie_fatal_error_detect(uint32_t pipe, lh_fatal_error_t *report)
{
    return lh::fatal_error_detect(pcie, pipe, report);
}

int lhx_pcie_context_create(uint32_t pipe, volatile void *regs)
{
    return lh::create(lhx_pcie, pipe, regs);
}

void lhx_pcie_update_stats(uint32_t pipe)
{
    lh::update_stats(lhx_pcie, pipe);
}

int lhx_pcie_get_stats(uint32_t pipe, void *buffer, uint64_t size)
{
    return lh::get_stats(lhx_pcie, pipe, buffer, size);
}

int lhx_pcie_clear_stats(uint32_t pipe)
{
    return lh::clear_stats(lhx_pcie, pipe);
}

int lhx_pcie_fatal_error_detect(uint32_t pipe, lh_fatal_error_t *report)
{
    return lh::fatal_error_detect(lhx_pcie, pipe, report);
}

constexpr lh_block_ops pcie_ops = lh::stats_ops(
    pcie.info, pcie_context_create,
    pcie_fatal_error_detect, pcie_update_stats,
    pcie_get_stats, pcie_clear_stats);

constexpr lh_block_ops lhx_pcie_ops = lh::stats_ops(
    lhx_pcie.info, lhx_pcie_context_create,
    lhx_pcie_fatal_error_detect, lhx_pcie_update_stats,
    lhx_pcie_get_stats, lhx_pcie_clear_stats);
