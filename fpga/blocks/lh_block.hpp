/* What every block driver shares: the context, the
 * create steps, the pipe and context checks, the walk of a fatal-error
 * table and the statistics kept under the context's mutex. A driver is then
 * its tables, its display name and its few real differences. */
#ifndef LH_BLOCK_H
#define LH_BLOCK_H

#include <pthread.h>
#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

#include "lh_fpga.h"

/* One row of a fatal-error table, in test order. */
struct lh_error_bit {
    uint32_t reg;
    uint32_t bit;
    const char *text;
};

/* A counter: bits 63..32 from `high` (LH_NO_REGISTER: none, the counter is
 * the zero-extended `low`), bits 31..0 from `low`. */
#define LH_NO_REGISTER 0xFFFFFFFFu
#define LH_COUNTER32(low) { LH_NO_REGISTER, (low) }
#define LH_COUNTER64(high, low) { (high), (low) }

struct lh_counter_source {
    uint32_t high;
    uint32_t low;
};

/* The per-pipe context of a block. Drivers that keep more embed it as the
 * first member of their own context. */
struct lh_block_ctx {
    uint8_t valid = 0;
    volatile void *regs = nullptr;
    pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER; /* guards stats only */
    uint64_t *stats = nullptr; /* the statistics record, null for none */
};

/* The words an operation's messages carry after the display name. */
struct lh_block_words {
    const char *fatal = nullptr;  /* "module fatal error detection" or without "module" */
    const char *update = nullptr; /* "update stats" */
    const char *get = nullptr;    /* "get stats", "get interface stats" */
    const char *clear = nullptr;  /* "clear stats", "clear interface stats" */
};

struct lh_block_desc {
    const char *name = nullptr; /* display name, "CAUI" */
    uint32_t module_id = 0;
    struct lh_block_ctx *contexts[LH_MAX_PIPES] = {}; /* indexed by pipe */
    const struct lh_error_bit *errors = nullptr;
    size_t error_count = 0;
    const struct lh_counter_source *counters = nullptr;
    size_t counter_count = 0;
    size_t stats_size = 0; /* bytes of the statistics record, 0 for none */
    struct lh_block_words words = {};
};

#define LH_ARRAY_SIZE(a) (sizeof(a) / sizeof((a)[0]))

/* context_create, step by step; drivers call them in their own order. */
/* A null base or a pipe not below 2 and the pipe count: logged, -1. */
int lh_block_check_create(const struct lh_block_desc *desc, uint32_t pipe,
                          volatile void *regs);
/* Zeroes the statistics and makes the mutex; a failure is logged, -1. */
int lh_block_init_stats(const struct lh_block_desc *desc,
                        struct lh_block_ctx *ctx);
/* Sets valid and logs "<tag> - <name> module <pipe> context created". */
void lh_block_mark_created(const struct lh_block_desc *desc,
                           struct lh_block_ctx *ctx, uint32_t pipe);
/* The whole create of a block without further state: checks, base,
 * statistics (if any), valid (after the mutex), the created line. */
int lh_block_context_create(const struct lh_block_desc *desc, uint32_t pipe,
                            volatile void *regs);

/* Logs "<tag> - <name> <words>" for a null pointer argument. */
void lh_block_log_null(const struct lh_block_desc *desc, const char *words);
/* The valid context of `pipe`, or null after "<words> - invalid pipe %d"
 * (pipe > 1) or "<words> - invalid context %d" at `severity`. */
struct lh_block_ctx *lh_block_context(const struct lh_block_desc *desc,
                                      uint32_t pipe, const char *words,
                                      int severity);

/* Walks the error table; the first set bit is reported (1) with its FATAL
 * line. Bad calls are logged with words.fatal and give 0. */
int lh_block_fatal_error_detect(const struct lh_block_desc *desc,
                                uint32_t pipe, lh_fatal_error_t *report);

/* Composes the counters of `sources` from the block's registers, each
 * register read once, the lower address of a pair first. */
void lh_block_read_counters(volatile void *regs,
                            const struct lh_counter_source *sources,
                            size_t count, uint64_t *values);
/* Adds `values` to the first `count` statistics words under the mutex. */
void lh_block_add_stats(struct lh_block_ctx *ctx, const uint64_t *values,
                        size_t count);
/* Checks with words.update, reads every counter, adds them. */
void lh_block_update_stats(const struct lh_block_desc *desc, uint32_t pipe);
/* Checks with words.get, then the exact record size, then copies. */
int lh_block_get_stats(const struct lh_block_desc *desc, uint32_t pipe,
                       void *buffer, uint64_t size);
/* Checks with words.clear, zeroes the record. Hardware is not touched. */
int lh_block_clear_stats(const struct lh_block_desc *desc, uint32_t pipe);

#endif
