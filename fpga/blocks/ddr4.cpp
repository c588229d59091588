/* DDR4 block: the command, read-info and per-agent data FIFOs
 * and the memory's uncorrectable ECC error, all in one status register.
 * The driver is this table walked by the shared core. */
#include "ddr4.hpp"

#include "lh_block.hpp"
#include "lh_drivers.hpp"

#define DDR4_FATAL_STATUS 0x00

#define FATAL(bit, text)                                                       \
    {                                                                          \
        DDR4_FATAL_STATUS, (bit), (text)                                       \
    }

/* From bit 16 down: the ECC error outranks every FIFO error. */
static const struct lh_error_bit fatal_errors[] = {
    FATAL(16, "Uncorrectable ecc error has been detected in the DDR4"),
    FATAL(15, "Agent1 rdata fifo overflow"),
    FATAL(14, "Agent1 rdata fifo underflow"),
    FATAL(13, "Agent0 rdata fifo overflow"),
    FATAL(12, "Agent0 rdata fifo underflow"),
    FATAL(11, "Agent1 cmd fifo overflow"),
    FATAL(10, "Agent1 cmd fifo underflow"),
    FATAL(9, "Agent0 cmd fifo overflow"),
    FATAL(8, "Agent0 cmd fifo underflow"),
    FATAL(7, "Agent1 wdata fifo overflow"),
    FATAL(6, "Agent1 wdata fifo underflow"),
    FATAL(5, "Agent0 wdata fifo overflow"),
    FATAL(4, "Agent0 wdata fifo underflow"),
    FATAL(3, "Cmd fifo overflow"),
    FATAL(2, "Cmd fifo underflow"),
    FATAL(1, "Read info fifo overflow"),
    FATAL(0, "Read info fifo underflow"),
};

static struct lh_block_ctx ddr4_ctxs[LH_MAX_PIPES];

static const struct lh_block_desc ddr4 = {
    .name = "DDR4",
    .module_id = LH_MOD_DDR4,
    .contexts = {&ddr4_ctxs[0], &ddr4_ctxs[1]},
    .errors = fatal_errors,
    .error_count = LH_ARRAY_SIZE(fatal_errors),
    .words = {.fatal = "module fatal error detection"},
};

int ddr4_context_create(uint32_t pipe, volatile void *regs)
{
    return lh_block_context_create(&ddr4, pipe, regs);
}

int ddr4_fatal_error_detect(uint32_t pipe, lh_fatal_error_t *report)
{
    return lh_block_fatal_error_detect(&ddr4, pipe, report);
}

const struct lh_block_ops ddr4_ops = {
    .desc = &ddr4,
    .context_create = ddr4_context_create,
    .fatal_error_detect = ddr4_fatal_error_detect,
};
