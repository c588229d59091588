/* Ingress packet processor: the traffic counters and the
 * fatal-error bits of the block; the operations are the shared core's. */
#include "pkt_proc.hpp"

#include "lh_block.hpp"
#include "lh_drivers.hpp"

namespace {

/* Register map, offsets from the block base. */
constexpr uint32_t fatal_status = 0x00;

/* Bit 31 is never tested: the hardware keeps it so. */
constexpr lh_error_bit fatal_errors[] = {
    {fatal_status, 30, "Input Packet FIFO Double bit ECC error"},
    {fatal_status, 29, "Input Packet FIFO Overflow"},
    {fatal_status, 28, "Input Packet FIFO Underflow"},
    {fatal_status, 27, "Action Rule Instruction FIFO Double bit ECC error"},
    {fatal_status, 26, "Action Rule Instruction FIFO Overflow"},
    {fatal_status, 25, "Action Rule Instruction FIFO Underflow"},
    {fatal_status, 24, "Rwe Data FIFO Double bit ECC error"},
    {fatal_status, 23, "Rwe Data FIFO Overflow"},
    {fatal_status, 22, "Rwe Data FIFO Underflow"},
    {fatal_status, 21, "Checksum FIFO Double bit ECC error"},
    {fatal_status, 20, "Checksum FIFO Overflow"},
    {fatal_status, 19, "Checksum FIFO Underflow"},
    {fatal_status, 18, "Output Packet FIFO Double bit ECC error"},
    {fatal_status, 17, "Output Packet FIFO Overflow"},
    {fatal_status, 16, "Output Packet FIFO Underflow"},
    {fatal_status, 15, "Delete Replace Skip Insert FIFO Overflow"},
    {fatal_status, 14, "Delete Replace Skip Insert FIFO Underflow"},
    {fatal_status, 13, "Dh Shadow FIFO Overflow"},
    {fatal_status, 12, "Dh Shadow FIFO Underflow"},
    {fatal_status, 11, "Rwe Data Shadow FIFO Overflow"},
    {fatal_status, 10, "Rwe Data Shadow FIFO Underflow"},
    {fatal_status, 9, "Instruction Transform FIFO Overflow"},
    {fatal_status, 8, "Instruction Transform FIFO Underflow"},
    {fatal_status, 7, "Control Message FIFO Overflow"},
    {fatal_status, 6, "Control Message FIFO Underflow"},
    {fatal_status, 5, "Increase Decrease Command FIFO Overflow"},
    {fatal_status, 4, "Increase Decrease Command FIFO Underflow"},
    {fatal_status, 3, "Ingress Parser Packet Bus Missing SOP Error"},
    {fatal_status, 2, "Ingress Parser Packet Bus Missing EOP Error"},
    {fatal_status, 1, "Ingress Classification Packet Bus Missing SOP Error"},
    {fatal_status, 0, "Ingress Classification Packet Bus Missing EOP Error"},
};

/* The statistics record, in order: 24 registers, 0x48 and 0x4C not among
 * them. */
constexpr lh_counter_source counters[] = {
    lh::counter64(0x20, 0x24), lh::counter64(0x28, 0x2C),
    lh::counter64(0x30, 0x34), lh::counter64(0x38, 0x3C),
    lh::counter64(0x40, 0x44), lh::counter64(0x50, 0x54),
    lh::counter64(0x58, 0x5C), lh::counter32(0x60),
    lh::counter32(0x64),       lh::counter32(0x68),
    lh::counter32(0x6C),       lh::counter32(0x70),
    lh::counter32(0x74),       lh::counter32(0x78),
    lh::counter32(0x7C),       lh::counter32(0x80),
    lh::counter32(0x84),
};

static_assert(std::size(counters) == PKT_PROC_COUNTER_COUNT,
              "one source per counter of the statistics record");

using Ctx = lh::Context<lh::Counters<PKT_PROC_COUNTER_COUNT>>;
static_assert(sizeof(Ctx::stats) == PKT_PROC_STATS_SIZE);

constinit std::array<Ctx, LH_MAX_PIPES> pkt_proc_contexts;

constexpr lh::Block<Ctx> pkt_proc{
    {"Ingress Pkt Processor", LH_MOD_INGRESS_PKT_PROCESSOR, fatal_errors,
     counters, PKT_PROC_STATS_SIZE,
     {"fatal error detection", "update stats", "get stats", "clear stats"}},
    &pkt_proc_contexts,
};

} // namespace

int pkt_proc_context_create(uint32_t pipe, volatile void *regs)
{
    return lh::create(pkt_proc, pipe, regs);
}

void pkt_proc_update_stats(uint32_t pipe)
{
    lh::update_stats(pkt_proc, pipe);
}

int pkt_proc_get_stats(uint32_t pipe, void *buffer, uint64_t size)
{
    return lh::get_stats(pkt_proc, pipe, buffer, size);
}

int pkt_proc_clear_stats(uint32_t pipe)
{
    return lh::clear_stats(pkt_proc, pipe);
}

int pkt_proc_fatal_error_detect(uint32_t pipe, lh_fatal_error_t *report)
{
    return lh::fatal_error_detect(pkt_proc, pipe, report);
}

constexpr lh_block_ops pkt_proc_ops = lh::stats_ops(
    pkt_proc.info, pkt_proc_context_create, pkt_proc_fatal_error_detect,
    pkt_proc_update_stats, pkt_proc_get_stats, pkt_proc_clear_stats);
