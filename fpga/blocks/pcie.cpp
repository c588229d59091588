/* PCIe blocks: the host-bus bridge's FIFO errors and its two
 * 32-bit counters. `pcie` (base image) and `lhx_pcie` (LHX image) differ
 * only in display name, module id and contexts; the rest is the tables
 * below and the shared core, whose create sets valid only once the mutex
 * exists. */
#include "pcie.hpp"

#include "lh_block.hpp"
#include "lh_drivers.hpp"

#define PCIE_FATAL_STATUS 0x00

#define FATAL(bit, text)                                                       \
    {                                                                          \
        PCIE_FATAL_STATUS, (bit), (text)                                       \
    }

static const struct lh_error_bit fatal_errors[] = {
    FATAL(5, "PBUS Trgt FIFO Overflow"),
    FATAL(4, "PBUS Trgt FIFO Underflow"),
    FATAL(3, "AXI-lite Read Return FIFO Overflow"),
    FATAL(2, "AXI-lite Read Return FIFO Underflow"),
    FATAL(1, "AXI-lite Command FIFO Overflow"),
    FATAL(0, "AXI-lite Command FIFO Underflow"),
};

/* Counts since the previous read: no snapshot, no link check. */
static const struct lh_counter_source counters[] = {
    LH_COUNTER32(0x50),
    LH_COUNTER32(0x54),
};

static_assert(LH_ARRAY_SIZE(counters) == PCIE_COUNTER_COUNT,
               "one source per counter of the statistics record");

struct pcie_ctx {
    struct lh_block_ctx block;
    uint64_t stats[PCIE_COUNTER_COUNT] = {};
};

#define PCIE_BLOCK(display_name, module, ctxs)                                 \
    {                                                                          \
        .name = (display_name), .module_id = (module),                         \
        .contexts = {&(ctxs)[0].block, &(ctxs)[1].block},                      \
        .errors = fatal_errors, .error_count = LH_ARRAY_SIZE(fatal_errors),    \
        .counters = counters, .counter_count = LH_ARRAY_SIZE(counters),        \
        .stats_size = PCIE_STATS_SIZE,                                         \
        .words = {"module fatal error detection", "update stats", "get stats", \
                  "clear stats"},                                              \
    }

static struct pcie_ctx pcie_ctxs[LH_MAX_PIPES] = {
    {.block = {.stats = pcie_ctxs[0].stats}},
    {.block = {.stats = pcie_ctxs[1].stats}},
};
static const struct lh_block_desc pcie =
    PCIE_BLOCK("PCIe", LH_MOD_PCIE, pcie_ctxs);

static struct pcie_ctx lhx_pcie_ctxs[LH_MAX_PIPES] = {
    {.block = {.stats = lhx_pcie_ctxs[0].stats}},
    {.block = {.stats = lhx_pcie_ctxs[1].stats}},
};
static const struct lh_block_desc lhx_pcie =
    PCIE_BLOCK("LHX PCIe", LH_MOD_LHX_PCIE, lhx_pcie_ctxs);

int pcie_context_create(uint32_t pipe, volatile void *regs)
{
    return lh_block_context_create(&pcie, pipe, regs);
}

void pcie_update_stats(uint32_t pipe)
{
    lh_block_update_stats(&pcie, pipe);
}

int pcie_get_stats(uint32_t pipe, void *buffer, uint64_t size)
{
    return lh_block_get_stats(&pcie, pipe, buffer, size);
}

int pcie_clear_stats(uint32_t pipe)
{
    return lh_block_clear_stats(&pcie, pipe);
}

int pcie_fatal_error_detect(uint32_t pipe, lh_fatal_error_t *report)
{
    return lh_block_fatal_error_detect(&pcie, pipe, report);
}

int lhx_pcie_context_create(uint32_t pipe, volatile void *regs)
{
    return lh_block_context_create(&lhx_pcie, pipe, regs);
}

void lhx_pcie_update_stats(uint32_t pipe)
{
    lh_block_update_stats(&lhx_pcie, pipe);
}

int lhx_pcie_get_stats(uint32_t pipe, void *buffer, uint64_t size)
{
    return lh_block_get_stats(&lhx_pcie, pipe, buffer, size);
}

int lhx_pcie_clear_stats(uint32_t pipe)
{
    return lh_block_clear_stats(&lhx_pcie, pipe);
}

int lhx_pcie_fatal_error_detect(uint32_t pipe, lh_fatal_error_t *report)
{
    return lh_block_fatal_error_detect(&lhx_pcie, pipe, report);
}

const struct lh_block_ops pcie_ops = {
    .desc = &pcie,
    .context_create = pcie_context_create,
    .update_stats = pcie_update_stats,
    .get_stats = pcie_get_stats,
    .clear_stats = pcie_clear_stats,
    .fatal_error_detect = pcie_fatal_error_detect,
};

const struct lh_block_ops lhx_pcie_ops = {
    .desc = &lhx_pcie,
    .context_create = lhx_pcie_context_create,
    .update_stats = lhx_pcie_update_stats,
    .get_stats = lhx_pcie_get_stats,
    .clear_stats = lhx_pcie_clear_stats,
    .fatal_error_detect = lhx_pcie_fatal_error_detect,
};
