#include "lh_block.hpp"

#include "lh_log.hpp"

namespace lh {

bool create_allowed(const lh_block_desc &desc, uint32_t pipe,
                    volatile void *regs)
{
    if (regs == nullptr) {
        lh_log(LOG_ERR, "%s - %s module context create", LH_TAG(NULL_POINTER),
               desc.name);
        return false;
    }
    if (pipe >= LH_MAX_PIPES || pipe >= lh_get_traffic_pipe_count()) {
        lh_log(LOG_CRIT, "%s - %s module context create - invalid pipe %d",
               LH_TAG(ERROR), desc.name, pipe);
        return false;
    }
    return true;
}

bool init_lock(const lh_block_desc &desc, BlockState &state)
{
    if (state.lock.init())
        return true;
    lh_log(LOG_CRIT, "%s - %s module context create - mutex init failed",
           LH_TAG(ERROR), desc.name);
    return false;
}

void mark_created(const lh_block_desc &desc, BlockState &state, uint32_t pipe)
{
    state.valid = 1;
    lh_log(LOG_INFO, "%s - %s module %d context created", LH_TAG(INFO),
           desc.name, pipe);
}

void log_null(const lh_block_desc &desc, const char *words)
{
    lh_log(LOG_ERR, "%s - %s %s", LH_TAG(NULL_POINTER), desc.name, words);
}

void log_bad_pipe(const lh_block_desc &desc, uint32_t pipe, const char *words,
                  int severity)
{
    lh_log(severity, "%s - %s %s - invalid pipe %d", LH_TAG(ERROR), desc.name,
           words, pipe);
}

bool context_valid(const lh_block_desc &desc, const BlockState &state,
                   uint32_t pipe, const char *words, int severity)
{
    if (state.valid && state.window)
        return true;
    lh_log(severity, "%s - %s %s - invalid context %d", LH_TAG(ERROR),
           desc.name, words, pipe);
    return false;
}

int detect_fatal(const lh_block_desc &desc, Window window, uint32_t pipe,
                 lh_fatal_error_t *report)
{
    /* The register is read anew for every row; nothing is ever cleared. */
    for (const lh_error_bit &row : desc.errors) {
        if (window.test(row.flag())) {
            report->error_text = row.text;
            lh_log(LOG_CRIT, "%s - %s pipe %d: %s", LH_TAG(FATAL), desc.name,
                   pipe, row.text);
            return 1;
        }
    }
    return 0;
}

static uint64_t read_counter(Window window, const lh_counter_source &source)
{
    uint32_t high, low;

    if (source.high == LH_NO_REGISTER)
        return window.read(Reg{source.low});
    if (source.high < source.low) {
        high = window.read(Reg{source.high});
        low = window.read(Reg{source.low});
    } else {
        low = window.read(Reg{source.low});
        high = window.read(Reg{source.high});
    }
    return uint64_t{high} << 32 | low;
}

void read_counters(Window window, std::span<const lh_counter_source> sources,
                   std::span<uint64_t> values)
{
    for (size_t i = 0; i < sources.size() && i < values.size(); i++)
        values[i] = read_counter(window, sources[i]);
}

bool size_matches(const lh_block_desc &desc, uint64_t size)
{
    if (size == desc.stats_size)
        return true;
    lh_log(LOG_ERR, "%s - %s %s failed, unexpected memory size %lu",
           LH_TAG(ERROR), desc.name, desc.words.get, (unsigned long)size);
    return false;
}

} // namespace lh
