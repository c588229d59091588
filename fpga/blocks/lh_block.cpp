#include "lh_block.hpp"

#include <string.h>

#include "lh_log.hpp"
#include "lh_regs.hpp"

int lh_block_check_create(const struct lh_block_desc *desc, uint32_t pipe,
                          volatile void *regs)
{
    if (regs == NULL) {
        lh_log(LOG_ERR, "%s - %s module context create", LH_TAG(NULL_POINTER),
               desc->name);
        return -1;
    }
    if (pipe >= LH_MAX_PIPES || pipe >= lh_get_traffic_pipe_count()) {
        lh_log(LOG_CRIT, "%s - %s module context create - invalid pipe %d",
               LH_TAG(ERROR), desc->name, pipe);
        return -1;
    }
    return 0;
}

int lh_block_init_stats(const struct lh_block_desc *desc,
                        struct lh_block_ctx *ctx)
{
    memset(ctx->stats, 0, desc->stats_size);
    if (pthread_mutex_init(&ctx->lock, NULL) != 0) {
        lh_log(LOG_CRIT, "%s - %s module context create - mutex init failed",
               LH_TAG(ERROR), desc->name);
        return -1;
    }
    return 0;
}

void lh_block_mark_created(const struct lh_block_desc *desc,
                           struct lh_block_ctx *ctx, uint32_t pipe)
{
    ctx->valid = 1;
    lh_log(LOG_INFO, "%s - %s module %d context created", LH_TAG(INFO),
           desc->name, pipe);
}

int lh_block_context_create(const struct lh_block_desc *desc, uint32_t pipe,
                            volatile void *regs)
{
    struct lh_block_ctx *ctx;

    if (lh_block_check_create(desc, pipe, regs) != 0)
        return -1;
    ctx = desc->contexts[pipe];
    ctx->regs = regs;
    if (desc->stats_size != 0 && lh_block_init_stats(desc, ctx) != 0)
        return -1;
    lh_block_mark_created(desc, ctx, pipe);
    return 0;
}

void lh_block_log_null(const struct lh_block_desc *desc, const char *words)
{
    lh_log(LOG_ERR, "%s - %s %s", LH_TAG(NULL_POINTER), desc->name, words);
}

struct lh_block_ctx *lh_block_context(const struct lh_block_desc *desc,
                                      uint32_t pipe, const char *words,
                                      int severity)
{
    struct lh_block_ctx *ctx;

    if (pipe > 1) {
        lh_log(severity, "%s - %s %s - invalid pipe %d", LH_TAG(ERROR),
               desc->name, words, pipe);
        return NULL;
    }
    ctx = desc->contexts[pipe];
    if (!ctx->valid || ctx->regs == NULL) {
        lh_log(severity, "%s - %s %s - invalid context %d", LH_TAG(ERROR),
               desc->name, words, pipe);
        return NULL;
    }
    return ctx;
}

int lh_block_fatal_error_detect(const struct lh_block_desc *desc,
                                uint32_t pipe, lh_fatal_error_t *report)
{
    struct lh_block_ctx *ctx;

    if (report == NULL) {
        lh_block_log_null(desc, desc->words.fatal);
        return 0;
    }
    ctx = lh_block_context(desc, pipe, desc->words.fatal, LOG_CRIT);
    if (ctx == NULL)
        return 0;
    /* The register is read anew for every row; nothing is ever cleared. */
    for (size_t i = 0; i < desc->error_count; i++) {
        const struct lh_error_bit *row = &desc->errors[i];

        if (lh_reg_test_bit(ctx->regs, row->reg, row->bit)) {
            report->error_text = row->text;
            lh_log(LOG_CRIT, "%s - %s pipe %d: %s", LH_TAG(FATAL), desc->name,
                   pipe, row->text);
            return 1;
        }
    }
    return 0;
}

static uint64_t read_counter(volatile void *regs,
                             const struct lh_counter_source *source)
{
    uint32_t high, low;

    if (source->high == LH_NO_REGISTER)
        return lh_reg_read(regs, source->low);
    if (source->high < source->low) {
        high = lh_reg_read(regs, source->high);
        low = lh_reg_read(regs, source->low);
    } else {
        low = lh_reg_read(regs, source->low);
        high = lh_reg_read(regs, source->high);
    }
    return ((uint64_t)high << 32) | low;
}

void lh_block_read_counters(volatile void *regs,
                            const struct lh_counter_source *sources,
                            size_t count, uint64_t *values)
{
    for (size_t i = 0; i < count; i++)
        values[i] = read_counter(regs, &sources[i]);
}

void lh_block_add_stats(struct lh_block_ctx *ctx, const uint64_t *values,
                        size_t count)
{
    pthread_mutex_lock(&ctx->lock);
    for (size_t i = 0; i < count; i++)
        ctx->stats[i] += values[i];
    pthread_mutex_unlock(&ctx->lock);
}

void lh_block_update_stats(const struct lh_block_desc *desc, uint32_t pipe)
{
    struct lh_block_ctx *ctx =
        lh_block_context(desc, pipe, desc->words.update, LOG_CRIT);
    uint64_t values[desc->counter_count > 0 ? desc->counter_count : 1];

    if (ctx == NULL)
        return;
    lh_block_read_counters(ctx->regs, desc->counters, desc->counter_count,
                           values);
    lh_block_add_stats(ctx, values, desc->counter_count);
}

int lh_block_get_stats(const struct lh_block_desc *desc, uint32_t pipe,
                       void *buffer, uint64_t size)
{
    struct lh_block_ctx *ctx;

    if (buffer == NULL) {
        lh_block_log_null(desc, desc->words.get);
        return -1;
    }
    ctx = lh_block_context(desc, pipe, desc->words.get, LOG_CRIT);
    if (ctx == NULL)
        return -1;
    if (size != desc->stats_size) {
        lh_log(LOG_ERR, "%s - %s %s failed, unexpected memory size %lu",
               LH_TAG(ERROR), desc->name, desc->words.get,
               (unsigned long)size);
        return -1;
    }
    pthread_mutex_lock(&ctx->lock);
    memcpy(buffer, ctx->stats, desc->stats_size);
    pthread_mutex_unlock(&ctx->lock);
    return 0;
}

int lh_block_clear_stats(const struct lh_block_desc *desc, uint32_t pipe)
{
    struct lh_block_ctx *ctx =
        lh_block_context(desc, pipe, desc->words.clear, LOG_CRIT);

    if (ctx == NULL)
        return -1;
    pthread_mutex_lock(&ctx->lock);
    memset(ctx->stats, 0, desc->stats_size);
    pthread_mutex_unlock(&ctx->lock);
    return 0;
}
