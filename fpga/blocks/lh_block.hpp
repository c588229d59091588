/* What every block driver shares: the tables' rows, the context, the
 * description and the operations over them. A driver is its tables, one
 * description, its contexts and its named entry points, each one call into
 * the core below. */
#ifndef LH_BLOCK_H
#define LH_BLOCK_H

#include <pthread.h>
#include <stddef.h>
#include <stdint.h>
#include <string.h>
#include <syslog.h>

#include <array>
#include <mutex>
#include <span>
#include <type_traits>

#include "lh_fpga.h"
#include "lh_regs.hpp"

/* One row of a fatal-error table, in test order. */
struct lh_error_bit {
    uint32_t reg;
    uint32_t bit;
    const char *text;

    constexpr lh::Bit flag() const { return {{reg}, bit}; }
};

/* A counter: bits 63..32 from `high` (LH_NO_REGISTER: none, the counter is
 * the zero-extended `low`), bits 31..0 from `low`. */
inline constexpr uint32_t LH_NO_REGISTER = 0xFFFFFFFFu;

struct lh_counter_source {
    uint32_t high;
    uint32_t low;
};

/* The words an operation's messages carry after the display name. */
struct lh_block_words {
    const char *fatal;  /* "module fatal error detection" or without "module" */
    const char *update; /* "update stats" */
    const char *get;    /* "get stats", "get interface stats" */
    const char *clear;  /* "clear stats", "clear interface stats" */
};

struct lh_port_regs;

/* What a block is, whatever its contexts: what tools and messages see. */
struct lh_block_desc {
    const char *name; /* display name, "CAUI" */
    uint32_t module_id;
    std::span<const lh_error_bit> errors;
    std::span<const lh_counter_source> counters;
    size_t stats_size; /* bytes of the statistics record, 0 for none */
    lh_block_words words;
    const lh_port_regs *port = nullptr; /* a port's control and status */
};

namespace lh {

constexpr lh_counter_source counter32(uint32_t low)
{
    return {LH_NO_REGISTER, low};
}
constexpr lh_counter_source counter64(uint32_t high, uint32_t low)
{
    return {high, low};
}

/* The lock of a context's statistics: a mutex made at create, whose
 * failure the create reports. */
class StatsLock {
public:
    bool init() { return pthread_mutex_init(&mutex_, nullptr) == 0; }
    void lock() { pthread_mutex_lock(&mutex_); }
    void unlock() { pthread_mutex_unlock(&mutex_); }

private:
    pthread_mutex_t mutex_ = PTHREAD_MUTEX_INITIALIZER;
};

/* What every context starts with. */
struct BlockState {
    uint8_t valid = 0;
    Window window;
    StatsLock lock; /* guards the statistics only */
};

template <size_t N> using Counters = std::array<uint64_t, N>;
struct NoStats {};
struct NoState {};

/* The context of one pipe of a block: its statistics record and what
 * else the driver keeps. */
template <class Record, class State = NoState> struct Context {
    BlockState block;
    Record stats{};
    State state{};
};

/* When create sets valid: once the block is ready, or before the mutex
 * (a failed mutex then leaves the context valid; the ports keep it so). */
enum class ValidAt { created, before_mutex };

template <class Ctx> struct Block {
    static_assert(std::is_standard_layout_v<Ctx> &&
                  std::is_trivially_destructible_v<Ctx>);

    lh_block_desc info;
    std::array<Ctx, LH_MAX_PIPES> *contexts;
    ValidAt valid_at = ValidAt::created;
    /* After the checks, before anything is kept: may refuse (false). */
    bool (*prepare)(const lh_block_desc &, Ctx &, Window) = nullptr;
    /* Once the statistics exist, before the created line. */
    void (*finish)(Ctx &) = nullptr;
};

template <class Record> constexpr size_t stats_size()
{
    return std::is_same_v<Record, NoStats> ? 0 : sizeof(Record);
}

/* ---- The parts that do not depend on the context's type ---- */

/* A null base or a pipe not below 2 and the pipe count is logged. */
bool create_allowed(const lh_block_desc &desc, uint32_t pipe,
                    volatile void *regs);
/* Makes the mutex; a failure is logged. */
bool init_lock(const lh_block_desc &desc, BlockState &state);
/* Sets valid and logs "<tag> - <name> module <pipe> context created". */
void mark_created(const lh_block_desc &desc, BlockState &state, uint32_t pipe);
/* Logs "<tag> - <name> <words>" for a null pointer argument. */
void log_null(const lh_block_desc &desc, const char *words);
/* Logs "<words> - invalid pipe %d" at `severity`. */
void log_bad_pipe(const lh_block_desc &desc, uint32_t pipe, const char *words,
                  int severity);
/* A context never created is logged "<words> - invalid context %d". */
bool context_valid(const lh_block_desc &desc, const BlockState &state,
                   uint32_t pipe, const char *words, int severity);
/* Walks the error table; the first set bit is reported (1). */
int detect_fatal(const lh_block_desc &desc, Window window, uint32_t pipe,
                 lh_fatal_error_t *report);
/* Composes the counters from the block's registers, each register read
 * once, the lower address of a pair first. */
void read_counters(Window window, std::span<const lh_counter_source> sources,
                   std::span<uint64_t> values);
/* The "unexpected memory size" refusal of get_stats. */
bool size_matches(const lh_block_desc &desc, uint64_t size);

/* ---- The operations, over a block's own contexts ---- */

/* The valid context of `pipe`, or null once the refusal is logged. */
template <class Ctx>
Ctx *context(const Block<Ctx> &b, uint32_t pipe, const char *words,
             int severity = LOG_CRIT)
{
    if (pipe > 1) {
        log_bad_pipe(b.info, pipe, words, severity);
        return nullptr;
    }
    Ctx &ctx = (*b.contexts)[pipe];
    return context_valid(b.info, ctx.block, pipe, words, severity) ? &ctx
                                                                   : nullptr;
}

template <class Ctx>
bool init_stats(const Block<Ctx> &b, Ctx &ctx)
{
    if (b.info.stats_size == 0)
        return true;
    ctx.stats = {};
    return init_lock(b.info, ctx.block);
}

template <class Ctx>
int create(const Block<Ctx> &b, uint32_t pipe, volatile void *regs)
{
    if (!create_allowed(b.info, pipe, regs))
        return -1;
    Ctx &ctx = (*b.contexts)[pipe];
    if (b.prepare != nullptr && !b.prepare(b.info, ctx, regs))
        return -1;
    ctx.block.window = regs;
    if (b.valid_at == ValidAt::before_mutex)
        ctx.block.valid = 1;
    if (!init_stats(b, ctx))
        return -1;
    if (b.finish != nullptr)
        b.finish(ctx);
    mark_created(b.info, ctx.block, pipe);
    return 0;
}

template <class Ctx>
int fatal_error_detect(const Block<Ctx> &b, uint32_t pipe,
                       lh_fatal_error_t *report)
{
    if (report == nullptr) {
        log_null(b.info, b.info.words.fatal);
        return 0;
    }
    Ctx *ctx = context(b, pipe, b.info.words.fatal);
    if (ctx == nullptr)
        return 0;
    return detect_fatal(b.info, ctx->block.window, pipe, report);
}

/* Adds `values` to the record under the lock. */
template <class Ctx>
void add_stats(Ctx &ctx, const decltype(Ctx::stats) &values)
{
    std::lock_guard guard(ctx.block.lock);
    for (size_t i = 0; i < ctx.stats.size(); i++)
        ctx.stats[i] += values[i];
}

template <class Ctx> void update_stats(const Block<Ctx> &b, uint32_t pipe)
{
    Ctx *ctx = context(b, pipe, b.info.words.update);
    decltype(Ctx::stats) values;

    if (ctx == nullptr)
        return;
    read_counters(ctx->block.window, b.info.counters, values);
    add_stats(*ctx, values);
}

template <class Ctx>
int get_stats(const Block<Ctx> &b, uint32_t pipe, void *buffer, uint64_t size)
{
    if (buffer == nullptr) {
        log_null(b.info, b.info.words.get);
        return -1;
    }
    Ctx *ctx = context(b, pipe, b.info.words.get);
    if (ctx == nullptr || !size_matches(b.info, size))
        return -1;
    std::lock_guard guard(ctx->block.lock);
    memcpy(buffer, &ctx->stats, sizeof(ctx->stats));
    return 0;
}

template <class Ctx> int clear_stats(const Block<Ctx> &b, uint32_t pipe)
{
    Ctx *ctx = context(b, pipe, b.info.words.clear);
    if (ctx == nullptr)
        return -1;
    std::lock_guard guard(ctx->block.lock);
    ctx->stats = {};
    return 0;
}

} // namespace lh

#endif
