/* Ingress packet processor: the traffic counters and the
 * fatal-error bits of the block; the operations are the shared core's. */
#include "pkt_proc.hpp"

#include "lh_block.hpp"
#include "lh_drivers.hpp"

/* Register map, offsets from the block base. */
#define PKT_PROC_FATAL_STATUS 0x00

#define FATAL(bit, text)                                                       \
    {                                                                          \
        PKT_PROC_FATAL_STATUS, (bit), (text)                                   \
    }

/* Bit 31 is never tested: the hardware keeps it so. */
static const struct lh_error_bit fatal_errors[] = {
    FATAL(30, "Input Packet FIFO Double bit ECC error"),
    FATAL(29, "Input Packet FIFO Overflow"),
    FATAL(28, "Input Packet FIFO Underflow"),
    FATAL(27, "Action Rule Instruction FIFO Double bit ECC error"),
    FATAL(26, "Action Rule Instruction FIFO Overflow"),
    FATAL(25, "Action Rule Instruction FIFO Underflow"),
    FATAL(24, "Rwe Data FIFO Double bit ECC error"),
    FATAL(23, "Rwe Data FIFO Overflow"),
    FATAL(22, "Rwe Data FIFO Underflow"),
    FATAL(21, "Checksum FIFO Double bit ECC error"),
    FATAL(20, "Checksum FIFO Overflow"),
    FATAL(19, "Checksum FIFO Underflow"),
    FATAL(18, "Output Packet FIFO Double bit ECC error"),
    FATAL(17, "Output Packet FIFO Overflow"),
    FATAL(16, "Output Packet FIFO Underflow"),
    FATAL(15, "Delete Replace Skip Insert FIFO Overflow"),
    FATAL(14, "Delete Replace Skip Insert FIFO Underflow"),
    FATAL(13, "Dh Shadow FIFO Overflow"),
    FATAL(12, "Dh Shadow FIFO Underflow"),
    FATAL(11, "Rwe Data Shadow FIFO Overflow"),
    FATAL(10, "Rwe Data Shadow FIFO Underflow"),
    FATAL(9, "Instruction Transform FIFO Overflow"),
    FATAL(8, "Instruction Transform FIFO Underflow"),
    FATAL(7, "Control Message FIFO Overflow"),
    FATAL(6, "Control Message FIFO Underflow"),
    FATAL(5, "Increase Decrease Command FIFO Overflow"),
    FATAL(4, "Increase Decrease Command FIFO Underflow"),
    FATAL(3, "Ingress Parser Packet Bus Missing SOP Error"),
    FATAL(2, "Ingress Parser Packet Bus Missing EOP Error"),
    FATAL(1, "Ingress Classification Packet Bus Missing SOP Error"),
    FATAL(0, "Ingress Classification Packet Bus Missing EOP Error"),
};

/* The statistics record, in order: 24 registers, 0x48 and 0x4C not among
 * them. */
static const struct lh_counter_source counters[] = {
    LH_COUNTER64(0x20, 0x24), LH_COUNTER64(0x28, 0x2C),
    LH_COUNTER64(0x30, 0x34), LH_COUNTER64(0x38, 0x3C),
    LH_COUNTER64(0x40, 0x44), LH_COUNTER64(0x50, 0x54),
    LH_COUNTER64(0x58, 0x5C), LH_COUNTER32(0x60),
    LH_COUNTER32(0x64),       LH_COUNTER32(0x68),
    LH_COUNTER32(0x6C),       LH_COUNTER32(0x70),
    LH_COUNTER32(0x74),       LH_COUNTER32(0x78),
    LH_COUNTER32(0x7C),       LH_COUNTER32(0x80),
    LH_COUNTER32(0x84),
};

static_assert(LH_ARRAY_SIZE(counters) == PKT_PROC_COUNTER_COUNT,
               "one source per counter of the statistics record");

struct pkt_proc_ctx {
    struct lh_block_ctx block;
    uint64_t stats[PKT_PROC_COUNTER_COUNT] = {};
};

static struct pkt_proc_ctx pkt_proc_ctxs[LH_MAX_PIPES] = {
    {.block = {.stats = pkt_proc_ctxs[0].stats}},
    {.block = {.stats = pkt_proc_ctxs[1].stats}},
};

static const struct lh_block_desc pkt_proc = {
    .name = "Ingress Pkt Processor",
    .module_id = LH_MOD_INGRESS_PKT_PROCESSOR,
    .contexts = {&pkt_proc_ctxs[0].block, &pkt_proc_ctxs[1].block},
    .errors = fatal_errors,
    .error_count = LH_ARRAY_SIZE(fatal_errors),
    .counters = counters,
    .counter_count = LH_ARRAY_SIZE(counters),
    .stats_size = PKT_PROC_STATS_SIZE,
    .words = {"fatal error detection", "update stats", "get stats",
              "clear stats"},
};

int pkt_proc_context_create(uint32_t pipe, volatile void *regs)
{
    return lh_block_context_create(&pkt_proc, pipe, regs);
}

void pkt_proc_update_stats(uint32_t pipe)
{
    lh_block_update_stats(&pkt_proc, pipe);
}

int pkt_proc_get_stats(uint32_t pipe, void *buffer, uint64_t size)
{
    return lh_block_get_stats(&pkt_proc, pipe, buffer, size);
}

int pkt_proc_clear_stats(uint32_t pipe)
{
    return lh_block_clear_stats(&pkt_proc, pipe);
}

int pkt_proc_fatal_error_detect(uint32_t pipe, lh_fatal_error_t *report)
{
    return lh_block_fatal_error_detect(&pkt_proc, pipe, report);
}

const struct lh_block_ops pkt_proc_ops = {
    .desc = &pkt_proc,
    .context_create = pkt_proc_context_create,
    .update_stats = pkt_proc_update_stats,
    .get_stats = pkt_proc_get_stats,
    .clear_stats = pkt_proc_clear_stats,
    .fatal_error_detect = pkt_proc_fatal_error_detect,
};
