/* The block layouts the tools read: where each block sits, its error table
 * and its statistics, from the drivers' own tables (Parts 2.4, 3.x, 4.x). */
#include "cmocka_all.h"
#include "lh_block_ops.hpp"
#include "lh_device.hpp"

struct expected_layout {
    const char *name;
    uint32_t device_type;
    bool per_pipe;
    uint32_t offset0;
    size_t error_count;
    size_t stats_size;
};

static const struct expected_layout expected[LH_MOD_COUNT] = {
    { "Global", LH_DEV_TYPE_BASE, false, 0x00000, 6, 0 },
    { "PCIe", LH_DEV_TYPE_BASE, false, 0x01000, 6, 16 },
    { "DDR4", LH_DEV_TYPE_BASE, true, 0x1A000, 17, 0 },
    { "CAUI", LH_DEV_TYPE_BASE, true, 0x10000, 9, 256 },
    { "NIC", LH_DEV_TYPE_BASE, true, 0x12000, 69, 8360 },
    { "Ingress Pkt Parser", LH_DEV_TYPE_BASE, true, 0x16000, 17, 120 },
    { "Ingress Pkt Classifier", LH_DEV_TYPE_BASE, true, 0x17000, 62, 568 },
    { "Ingress Pkt Processor", LH_DEV_TYPE_BASE, true, 0x18000, 31, 136 },
    { "Egress Scheduler", LH_DEV_TYPE_BASE, true, 0x19000, 14, 144 },
    { "LHX Global", LH_DEV_TYPE_LHX, false, 0x00000, 2, 0 },
    { "LHX PCIe", LH_DEV_TYPE_LHX, false, 0x01000, 6, 16 },
    { "Eth", LH_DEV_TYPE_LHX, false, 0x10000, 8, 600 },
    { "LHX NIC", LH_DEV_TYPE_LHX, false, 0x12000, 70, 8360 },
    { "LHX Ingress Pkt Parser", LH_DEV_TYPE_LHX, false, 0x16000, 17, 120 },
    { "LHX Egress Scheduler", LH_DEV_TYPE_LHX, false, 0x19000, 14, 144 },
};

static void test_every_module_has_its_layout(void **state)
{
    (void)state;
    for (uint32_t id = 0; id < LH_MOD_COUNT; id++) {
        struct lh_block_layout layout;

        assert_int_equal(lh_block_layout_of(id, &layout), 0);
        assert_string_equal(layout.name, expected[id].name);
        assert_int_equal(layout.device_type, expected[id].device_type);
        assert_int_equal(layout.per_pipe, expected[id].per_pipe);
        assert_int_equal(layout.offsets[0], expected[id].offset0);
        assert_int_equal(layout.offsets[1],
                         expected[id].offset0 +
                             (expected[id].per_pipe ? 0x10000 : 0));
        assert_int_equal(layout.error_count, expected[id].error_count);
        assert_int_equal(layout.stats_size, expected[id].stats_size);
    }
}

static void test_caui_tables(void **state)
{
    struct lh_block_layout layout;

    (void)state;
    assert_int_equal(lh_block_layout_of(LH_MOD_CAUI, &layout), 0);
    assert_int_equal(layout.errors[0].reg, 0x800);
    assert_int_equal(layout.errors[0].bit, 9);
    assert_string_equal(layout.errors[0].text, "TX Buffer FIFO Underflow");
    assert_int_equal(layout.counter_count, 32);
    assert_int_equal(layout.counters[25].high, 0x850);
    assert_int_equal(layout.counters[25].low, 0x854);
}

static void test_no_layout_without_a_module(void **state)
{
    struct lh_block_layout layout;

    (void)state;
    assert_int_equal(lh_block_layout_of(LH_MOD_END, &layout), -1);
    assert_int_equal(lh_block_layout_of(0xFFFFFFFF, &layout), -1);
    assert_int_equal(lh_block_layout_of(LH_MOD_CAUI, NULL), -1);
}

int main(void)
{
    const struct CMUnitTest tests[] = {
        cmocka_unit_test(test_every_module_has_its_layout),
        cmocka_unit_test(test_caui_tables),
        cmocka_unit_test(test_no_layout_without_a_module),
    };

    return cmocka_run_group_tests(tests, NULL, NULL);
}
