/* The block layouts the tools read: where each block sits, its error table
 * and its statistics, from the drivers' own tables. */
#include <stddef.h>
#include <stdint.h>

#include <gtest/gtest.h>

#include "lh_device.hpp"
#include "lh_layout.hpp"

namespace {

struct ExpectedLayout {
    const char *name;
    uint32_t device_type;
    bool per_pipe;
    uint32_t offset0;
    size_t error_count;
    size_t counter_count;
    size_t stats_size;
};

const ExpectedLayout expected[LH_MOD_COUNT] = {
    { "Global", LH_DEV_TYPE_BASE, false, 0x00000, 6, 0, 0 },
    { "PCIe", LH_DEV_TYPE_BASE, false, 0x01000, 6, 2, 16 },
    { "DDR4", LH_DEV_TYPE_BASE, true, 0x1A000, 17, 0, 0 },
    { "CAUI", LH_DEV_TYPE_BASE, true, 0x10000, 9, 32, 256 },
    { "NIC", LH_DEV_TYPE_BASE, true, 0x12000, 69, 21, 8360 },
    { "Ingress Pkt Parser", LH_DEV_TYPE_BASE, true, 0x16000, 17, 15, 120 },
    { "Ingress Pkt Classifier", LH_DEV_TYPE_BASE, true, 0x17000, 62, 71, 568 },
    { "Ingress Pkt Processor", LH_DEV_TYPE_BASE, true, 0x18000, 31, 17, 136 },
    { "Egress Scheduler", LH_DEV_TYPE_BASE, true, 0x19000, 14, 18, 144 },
    { "LHX Global", LH_DEV_TYPE_LHX, false, 0x00000, 2, 0, 0 },
    { "LHX PCIe", LH_DEV_TYPE_LHX, false, 0x01000, 6, 2, 16 },
    { "Eth", LH_DEV_TYPE_LHX, false, 0x10000, 8, 75, 600 },
    { "LHX NIC", LH_DEV_TYPE_LHX, false, 0x12000, 70, 21, 8360 },
    { "LHX Ingress Pkt Parser", LH_DEV_TYPE_LHX, false, 0x16000, 17, 15, 120 },
    { "LHX Egress Scheduler", LH_DEV_TYPE_LHX, false, 0x19000, 14, 18, 144 },
};

} // namespace

TEST(LayoutTest, EveryModuleHasItsLayout)
{
    for (uint32_t id = 0; id < LH_MOD_COUNT; id++) {
        const ExpectedLayout &e = expected[id];

        SCOPED_TRACE(e.name);
        std::optional<lh::BlockLayout> layout = lh::block_layout(id);
        ASSERT_TRUE(layout.has_value());
        ASSERT_STREQ(layout->name, e.name);
        ASSERT_EQ(layout->device_type, e.device_type);
        ASSERT_EQ(layout->per_pipe, e.per_pipe);
        ASSERT_EQ(layout->offsets[0], e.offset0);
        ASSERT_EQ(layout->offsets[1], e.offset0 + (e.per_pipe ? 0x10000u : 0u));
        ASSERT_EQ(layout->errors.size(), e.error_count);
        ASSERT_EQ(layout->counters.size(), e.counter_count);
        ASSERT_EQ(layout->stats_size, e.stats_size);
    }
}

TEST(LayoutTest, CauiTables)
{
    std::optional<lh::BlockLayout> layout = lh::block_layout(LH_MOD_CAUI);

    ASSERT_TRUE(layout.has_value());
    ASSERT_EQ(layout->errors[0].reg, 0x800u);
    ASSERT_EQ(layout->errors[0].bit, 9u);
    ASSERT_STREQ(layout->errors[0].text, "TX Buffer FIFO Underflow");
    ASSERT_EQ(layout->counters.size(), 32u);
    ASSERT_EQ(layout->counters[25].high, 0x850u);
    ASSERT_EQ(layout->counters[25].low, 0x854u);
}

/* The spans view the driver's own tables: every call sees the same rows. */
TEST(LayoutTest, SpansViewTheDriversTables)
{
    std::optional<lh::BlockLayout> first = lh::block_layout(LH_MOD_NIC);
    std::optional<lh::BlockLayout> again = lh::block_layout(LH_MOD_NIC);

    ASSERT_TRUE(first.has_value());
    ASSERT_TRUE(again.has_value());
    ASSERT_EQ(first->errors.data(), again->errors.data());
    ASSERT_EQ(first->counters.data(), again->counters.data());
}

TEST(LayoutTest, NoLayoutWithoutAModule)
{
    ASSERT_FALSE(lh::block_layout(LH_MOD_END).has_value());
    ASSERT_FALSE(lh::block_layout(0xFFFFFFFF).has_value());
}
