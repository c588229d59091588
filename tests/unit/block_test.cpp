/* The core every block driver shares, on a block of the test's own: a
 * context that is never created refuses every operation and touches no
 * register; the statistics lock reports a failed init. */
#include <stdint.h>

#include <mutex>
#include <type_traits>

#include <gtest/gtest.h>

#include "lh_block.hpp"
#include "lh_log.hpp"
#include "log_expect.hpp"
#include "mutex_wrap.hpp"

namespace {

struct Extra {
    uint32_t word;
};

using PlainCtx = lh::Context<lh::NoStats>;
using CountingCtx = lh::Context<lh::Counters<3>, Extra>;

static_assert(std::is_standard_layout_v<PlainCtx> &&
              std::is_trivially_destructible_v<PlainCtx>);
static_assert(std::is_standard_layout_v<CountingCtx> &&
              std::is_trivially_destructible_v<CountingCtx>);
static_assert(sizeof(CountingCtx::stats) == 3 * sizeof(uint64_t));

constexpr lh_error_bit errors[] = {{0x00, 1, "Test error"}};
constexpr lh_counter_source counters[] = {
    lh::counter32(0x10), lh::counter64(0x14, 0x18), lh::counter32(0x1C)};

constinit std::array<CountingCtx, LH_MAX_PIPES> contexts;

constexpr lh::Block<CountingCtx> block{
    {"Test", LH_MOD_PCIE, errors, counters, sizeof(CountingCtx::stats),
     {"module fatal error detection", "update stats", "get stats",
      "clear stats"}},
    &contexts,
};

class BlockCoreTest : public ::testing::Test {
protected:
    void SetUp() override { log_expect_start(&lh_log_file); }
    void TearDown() override
    {
        expect_no_more_logs();
        log_expect_stop();
    }
};

} // namespace

TEST_F(BlockCoreTest, NeverCreatedContextRefusesEveryOperation)
{
    lh_fatal_error_t report = {7, 7, nullptr};
    uint64_t record[3] = {1, 2, 3};

    EXPECT_EQ(lh::fatal_error_detect(block, 0, &report), 0);
    expect_log(LOG_CRIT, "Error - Test module fatal error detection - "
                         "invalid context 0");
    EXPECT_EQ(report.error_text, nullptr);
    lh::update_stats(block, 1);
    expect_log(LOG_CRIT, "Error - Test update stats - invalid context 1");
    EXPECT_EQ(lh::get_stats(block, 0, record, sizeof(record)), -1);
    expect_log(LOG_CRIT, "Error - Test get stats - invalid context 0");
    EXPECT_EQ(record[0], 1u);
    EXPECT_EQ(lh::clear_stats(block, 1), -1);
    expect_log(LOG_CRIT, "Error - Test clear stats - invalid context 1");
    EXPECT_FALSE(contexts[0].block.window);
    EXPECT_EQ(contexts[0].block.valid, 0);
}

TEST_F(BlockCoreTest, PipeAboveOneIsRefusedBeforeTheContext)
{
    EXPECT_EQ(lh::clear_stats(block, 2), -1);
    expect_log(LOG_CRIT, "Error - Test clear stats - invalid pipe 2");
}

TEST_F(BlockCoreTest, StatsLockInitCanFail)
{
    lh::StatsLock lock;
    unsigned int before = mutex_inits;

    mutex_init_fails = true;
    EXPECT_FALSE(lock.init());
    mutex_init_fails = false;
    EXPECT_TRUE(lock.init());
    {
        std::lock_guard guard(lock);
    }
    EXPECT_EQ(mutex_inits - before, 2u);
}
