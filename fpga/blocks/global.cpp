/* Global blocks: one SEM status register per die, a heartbeat
 * bit and a fatal-error bit each. `global` (base image) watches three dies,
 * `lhx_global` (LHX image) the first only; both are this one table walked
 * by the shared core, cut after their last die. */
#include "global.hpp"

#include "lh_block.hpp"
#include "lh_drivers.hpp"

namespace {

/* SEM status of die n, offsets from the block base. */
constexpr uint32_t sem_status(uint32_t die) { return 0x100 + 0x40 * die; }
constexpr uint32_t heartbeat_bit = 0; /* set: the heartbeat has stopped */
constexpr uint32_t fatal_bit = 1;

constexpr size_t base_dies = 3;
constexpr size_t lhx_dies = 1;
constexpr size_t rows_per_die = 2;

/* Per die, the heartbeat before the fatal error. */
constexpr lh_error_bit sem_errors[] = {
    {sem_status(0), heartbeat_bit,
     "die 0 SEM controller 0 heartbeat has stopped"},
    {sem_status(0), fatal_bit,
     "die 0 SEM controller 0 has detected a fatal error"},
    {sem_status(1), heartbeat_bit,
     "die 1 SEM controller 0 heartbeat has stopped"},
    {sem_status(1), fatal_bit,
     "die 1 SEM controller 0 has detected a fatal error"},
    {sem_status(2), heartbeat_bit,
     "die 2 SEM controller 0 heartbeat has stopped"},
    {sem_status(2), fatal_bit,
     "die 2 SEM controller 0 has detected a fatal error"},
};

static_assert(std::size(sem_errors) == base_dies * rows_per_die,
              "two rows per die of the base image");

using Ctx = lh::Context<lh::NoStats>;
constinit std::array<Ctx, LH_MAX_PIPES> global_contexts;
constinit std::array<Ctx, LH_MAX_PIPES> lhx_global_contexts;

/* The table cut after the block's last die. */
constexpr lh_block_desc describe(const char *name, uint32_t module_id,
                                 size_t dies)
{
    return {name, module_id, std::span(sem_errors).first(rows_per_die * dies),
            {}, 0, {"module fatal error detection", nullptr, nullptr, nullptr}};
}

constexpr lh::Block<Ctx> global{describe("Global", LH_MOD_GLOBAL, base_dies),
                                &global_contexts};
constexpr lh::Block<Ctx> lhx_global{
    describe("LHX Global", LH_MOD_LHX_GLOBAL, lhx_dies), &lhx_global_contexts};

} // namespace

int global_context_create(uint32_t pipe, volatile void *regs)
{
    return lh::create(global, pipe, regs);
}

int global_fatal_error_detect(uint32_t pipe, lh_fatal_error_t *report)
{
    return lh::fatal_error_detect(global, pipe, report);
}

int lhx_global_context_create(uint32_t pipe, volatile void *regs)
{
    return lh::create(lhx_global, pipe, regs);
}

int lhx_global_fatal_error_detect(uint32_t pipe, lh_fatal_error_t *report)
{
    return lh::fatal_error_detect(lhx_global, pipe, report);
}

constexpr lh_block_ops global_ops = lh::fatal_ops(
    global.info, global_context_create, global_fatal_error_detect);
constexpr lh_block_ops lhx_global_ops = lh::fatal_ops(
    lhx_global.info, lhx_global_context_create, lhx_global_fatal_error_detect);
