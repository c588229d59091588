/* Global blocks: one SEM status register per die, a heartbeat
 * bit and a fatal-error bit each. `global` (base image) watches three dies,
 * `lhx_global` (LHX image) the first only; both are this one table walked
 * by the shared core, cut after their last die. */
#include "global.hpp"

#include "lh_block.hpp"
#include "lh_drivers.hpp"

/* SEM status of die n, offsets from the block base. */
#define SEM_STATUS(die)   (0x100 + 0x40 * (die))
#define SEM_HEARTBEAT_BIT 0 /* set: the heartbeat has stopped */
#define SEM_FATAL_BIT     1

#define BASE_DIES 3
#define LHX_DIES  1

/* Per die, the heartbeat before the fatal error. */
static const struct lh_error_bit sem_errors[] = {
    {SEM_STATUS(0), SEM_HEARTBEAT_BIT,
     "die 0 SEM controller 0 heartbeat has stopped"},
    {SEM_STATUS(0), SEM_FATAL_BIT,
     "die 0 SEM controller 0 has detected a fatal error"},
    {SEM_STATUS(1), SEM_HEARTBEAT_BIT,
     "die 1 SEM controller 0 heartbeat has stopped"},
    {SEM_STATUS(1), SEM_FATAL_BIT,
     "die 1 SEM controller 0 has detected a fatal error"},
    {SEM_STATUS(2), SEM_HEARTBEAT_BIT,
     "die 2 SEM controller 0 heartbeat has stopped"},
    {SEM_STATUS(2), SEM_FATAL_BIT,
     "die 2 SEM controller 0 has detected a fatal error"},
};

#define SEM_ROWS_PER_DIE 2

static_assert(LH_ARRAY_SIZE(sem_errors) == BASE_DIES * SEM_ROWS_PER_DIE,
               "two rows per die of the base image");

#define GLOBAL_BLOCK(display_name, module, ctxs, dies)                         \
    {                                                                          \
        .name = (display_name), .module_id = (module),                         \
        .contexts = {&(ctxs)[0], &(ctxs)[1]}, .errors = sem_errors,            \
        .error_count = SEM_ROWS_PER_DIE * (dies),                              \
        .words = {.fatal = "module fatal error detection"},                    \
    }

static struct lh_block_ctx global_ctxs[LH_MAX_PIPES];
static const struct lh_block_desc global =
    GLOBAL_BLOCK("Global", LH_MOD_GLOBAL, global_ctxs, BASE_DIES);

static struct lh_block_ctx lhx_global_ctxs[LH_MAX_PIPES];
static const struct lh_block_desc lhx_global =
    GLOBAL_BLOCK("LHX Global", LH_MOD_LHX_GLOBAL, lhx_global_ctxs, LHX_DIES);

int global_context_create(uint32_t pipe, volatile void *regs)
{
    return lh_block_context_create(&global, pipe, regs);
}

int global_fatal_error_detect(uint32_t pipe, lh_fatal_error_t *report)
{
    return lh_block_fatal_error_detect(&global, pipe, report);
}

int lhx_global_context_create(uint32_t pipe, volatile void *regs)
{
    return lh_block_context_create(&lhx_global, pipe, regs);
}

int lhx_global_fatal_error_detect(uint32_t pipe, lh_fatal_error_t *report)
{
    return lh_block_fatal_error_detect(&lhx_global, pipe, report);
}

const struct lh_block_ops global_ops = {
    .desc = &global,
    .context_create = global_context_create,
    .fatal_error_detect = global_fatal_error_detect,
};

const struct lh_block_ops lhx_global_ops = {
    .desc = &lhx_global,
    .context_create = lhx_global_context_create,
    .fatal_error_detect = lhx_global_fatal_error_detect,
};
