/* DDR4 block: the command, read-info and per-agent data FIFOs
 * and the memory's uncorrectable ECC error, all in one status register.
 * The driver is this table walked by the shared core. */
#include "ddr4.hpp"

#include "lh_block.hpp"
#include "lh_drivers.hpp"

namespace {

constexpr uint32_t fatal_status = 0x00;

/* From bit 16 down: the ECC error outranks every FIFO error. */
constexpr lh_error_bit fatal_errors[] = {
    {fatal_status, 16,
     "Uncorrectable ecc error has been detected in the DDR4"},
    {fatal_status, 15, "Agent1 rdata fifo overflow"},
    {fatal_status, 14, "Agent1 rdata fifo underflow"},
    {fatal_status, 13, "Agent0 rdata fifo overflow"},
    {fatal_status, 12, "Agent0 rdata fifo underflow"},
    {fatal_status, 11, "Agent1 cmd fifo overflow"},
    {fatal_status, 10, "Agent1 cmd fifo underflow"},
    {fatal_status, 9, "Agent0 cmd fifo overflow"},
    {fatal_status, 8, "Agent0 cmd fifo underflow"},
    {fatal_status, 7, "Agent1 wdata fifo overflow"},
    {fatal_status, 6, "Agent1 wdata fifo underflow"},
    {fatal_status, 5, "Agent0 wdata fifo overflow"},
    {fatal_status, 4, "Agent0 wdata fifo underflow"},
    {fatal_status, 3, "Cmd fifo overflow"},
    {fatal_status, 2, "Cmd fifo underflow"},
    {fatal_status, 1, "Read info fifo overflow"},
    {fatal_status, 0, "Read info fifo underflow"},
};

using Ctx = lh::Context<lh::NoStats>;
constinit std::array<Ctx, LH_MAX_PIPES> contexts;

constexpr lh::Block<Ctx> ddr4{
    {"DDR4", LH_MOD_DDR4, fatal_errors, {}, 0,
     {"module fatal error detection", nullptr, nullptr, nullptr}},
    &contexts,
};

} // namespace

int ddr4_context_create(uint32_t pipe, volatile void *regs)
{
    return lh::create(ddr4, pipe, regs);
}

int ddr4_fatal_error_detect(uint32_t pipe, lh_fatal_error_t *report)
{
    return lh::fatal_error_detect(ddr4, pipe, report);
}

constexpr lh_block_ops ddr4_ops =
    lh::fatal_ops(ddr4.info, ddr4_context_create, ddr4_fatal_error_detect);
