/* Module names, descriptors, module lists and registry queries. */
#include <stdint.h>

#include <vector>

#include <gtest/gtest.h>

#include "fake_device.hpp"
#include "lh_layout.hpp"
#include "lh_log.hpp"
#include "log_expect.hpp"
#include "private_tmp.hpp"

namespace {

/* {module id, pipe} entries before the end of a list. */
struct Entry {
    uint32_t module_id;
    uint32_t pipe;
};

void assert_module_list(const lh_module_entry *list,
                        const std::vector<Entry> &expected)
{
    size_t count = expected.size();

    for (size_t i = 0; i < count; i++) {
        SCOPED_TRACE(format_text("entry %zu", i));
        ASSERT_EQ(list[i].module_id, expected[i].module_id);
        ASSERT_EQ(list[i].pipe, expected[i].pipe);
    }
    ASSERT_EQ(list[count].module_id, static_cast<uint32_t>(LH_MOD_END));
    ASSERT_EQ(list[count].pipe, 0u);
}

struct DescriptorFacts {
    const lh_device_desc *desc;
    uint32_t device_type, device_id, subdevice_id, bar;
    uint64_t window_size;
    uint32_t pipes, max_queue_id;
};

} // namespace

/* The tables, which need no device. */
TEST(RegistryTablesTest, ModuleNames)
{
    static const char *const expected[] = {
        "global", "pcie", "ddr4", "caui", "nic", "ingress-pkt-parser",
        "ingress-pkt-classifier", "ingress-pkt-processor",
        "egress-scheduler", "lhx-global", "lhx-pcie", "eth", "lhx-nic",
        "lhx-ingress-pkt-parser", "lhx-egress-scheduler",
    };

    for (int id = 0; id < LH_MOD_COUNT; id++)
        ASSERT_STREQ(lh_module_names[id], expected[id]) << "module id " << id;
    ASSERT_EQ(lh_module_names[LH_MOD_END], nullptr);
}

TEST(RegistryTablesTest, ModuleNamesAsSpan)
{
    std::span<const char *const, LH_MOD_COUNT> names = lh::module_names();

    ASSERT_EQ(names.data(), lh_module_names);
    ASSERT_STREQ(names[LH_MOD_CAUI], "caui");
    ASSERT_STREQ(names[LH_MOD_COUNT - 1], "lhx-egress-scheduler");
}

TEST(RegistryTablesTest, ModuleByName)
{
    ASSERT_EQ(lh::module_by_name("global"), std::optional<uint32_t>(0));
    ASSERT_EQ(lh::module_by_name("ingress-pkt-classifier"),
              std::optional<uint32_t>(LH_MOD_INGRESS_PKT_CLASSIFIER));
    ASSERT_EQ(lh::module_by_name("lhx-egress-scheduler"),
              std::optional<uint32_t>(LH_MOD_LHX_EGRESS_SCHEDULER));
    ASSERT_EQ(lh::module_by_name("CAUI"), std::nullopt);
    ASSERT_EQ(lh::module_by_name("caui "), std::nullopt);
    ASSERT_EQ(lh::module_by_name(""), std::nullopt);
}

TEST(RegistryTablesTest, ModuleLists)
{
    {
        SCOPED_TRACE("two-pipe base");
        ASSERT_NO_FATAL_FAILURE(assert_module_list(
            lh_desc_base_two_pipes.module_list,
            { { 0, 0 }, { 1, 0 }, { 2, 0 }, { 2, 1 }, { 3, 0 }, { 3, 1 },
              { 4, 0 }, { 4, 1 }, { 5, 0 }, { 5, 1 }, { 6, 0 }, { 6, 1 },
              { 7, 0 }, { 7, 1 }, { 8, 0 }, { 8, 1 } }));
    }
    {
        SCOPED_TRACE("one-pipe base");
        ASSERT_NO_FATAL_FAILURE(assert_module_list(
            lh_desc_base_one_pipe.module_list,
            { { 0, 0 }, { 1, 0 }, { 2, 0 }, { 3, 0 }, { 4, 0 }, { 5, 0 },
              { 6, 0 }, { 7, 0 }, { 8, 0 } }));
    }
    {
        SCOPED_TRACE("LHX");
        ASSERT_NO_FATAL_FAILURE(assert_module_list(
            lh_desc_lhx.module_list,
            { { 9, 0 }, { 10, 0 }, { 11, 0 }, { 12, 0 }, { 13, 0 },
              { 14, 0 } }));
    }
}

TEST(RegistryTablesTest, Descriptors)
{
    const DescriptorFacts facts[] = {
        { &lh_desc_lhx, 2, 0x01D9, 0xFFFFFFFF, 2, 0x19800, 1, 0x80 },
        { &lh_desc_base_two_pipes, 0, 0x01D7, 0x01D7, 0, 0x2A100, 2, 0xFF },
        { &lh_desc_base_one_pipe, 0, 0x01D7, 0x01D7, 0, 0x2A100, 1, 0xFF },
    };

    for (const DescriptorFacts &f : facts) {
        const lh_device_desc *d = f.desc;

        SCOPED_TRACE(format_text("descriptor of device 0x%04x, %u pipes",
                                 f.device_id, f.pipes));
        ASSERT_STREQ(d->name, "Control Status");
        ASSERT_EQ(d->device_type, f.device_type);
        ASSERT_EQ(d->match.vendor_id, 0x1c7au);
        ASSERT_EQ(d->match.device_id, f.device_id);
        ASSERT_EQ(d->match.subvendor_id, 0xFFFFFFFFu);
        ASSERT_EQ(d->match.subdevice_id, f.subdevice_id);
        ASSERT_EQ(d->match.device_class, 0u);
        ASSERT_EQ(d->match.device_class_mask, 0u);
        ASSERT_EQ(d->match.match_data, 0);
        ASSERT_EQ(d->bar, f.bar);
        ASSERT_EQ(d->window_size, f.window_size);
        ASSERT_EQ(d->traffic_pipe_count, f.pipes);
        ASSERT_EQ(d->max_queue_id, f.max_queue_id);
        ASSERT_EQ(d->qos_profile_count, 128u);
    }
}

/* The queries, on a fake device in a private /tmp. */
class RegistryTest : public PrivateTmpTest {
protected:
    void TearDown() override
    {
        if (IsSkipped())
            return;
        fake_device_stop();
    }

    static void assert_queries(lh_device_desc *desc, uint32_t pipes,
                               uint32_t max_queue_id)
    {
        const lh_module_entry *list = nullptr;

        fake_device_start(desc, 1);
        ASSERT_EQ(lh_get_traffic_pipe_count(), pipes);
        ASSERT_EQ(lh_get_max_queue_id(), max_queue_id);
        ASSERT_EQ(lh_get_module_list(&list), 0);
        ASSERT_EQ(list, desc->module_list);
        expect_no_more_logs();
        fake_device_stop();
    }
};

TEST_F(RegistryTest, QueriesBeforeInitialisation)
{
    const lh_module_entry *list = nullptr;
    lh_module_entry entry = { 0, 0 };
    uint8_t module_state = 9;

    fake_device_start(&lh_desc_base_two_pipes, 0);
    ASSERT_EQ(lh_get_traffic_pipe_count(), 0u);
    ASSERT_EQ(lh_get_max_queue_id(), 0u);
    ASSERT_EQ(lh_get_module_list(&list), -1);
    ASSERT_EQ(lh_get_module_list(nullptr), -1);
    ASSERT_EQ(lh_get_module_state(entry, &module_state), -1);
    ASSERT_EQ(lh_get_module_state(entry, nullptr), -1);
    ASSERT_EQ(list, nullptr);
    ASSERT_EQ(module_state, 9);
    expect_log(LOG_ERR,
               "Error - get traffic pipe count failed, - system not initialized");
    expect_log(LOG_ERR, "Error - get max queue id supported failed, - system "
                        "not initialized");
    expect_log(LOG_ERR, "Error - get module list, - system not initialized");
    expect_log(LOG_ERR, "Error - get module list, - system not initialized");
    expect_log(LOG_ERR, "Error - get module state, - system not initialized");
    expect_log(LOG_ERR, "Error - get module state, - system not initialized");
    expect_no_more_logs();
}

TEST_F(RegistryTest, QueriesFollowTheDevice)
{
    {
        SCOPED_TRACE("two-pipe base");
        ASSERT_NO_FATAL_FAILURE(
            assert_queries(&lh_desc_base_two_pipes, 2, 255));
    }
    {
        SCOPED_TRACE("one-pipe base");
        ASSERT_NO_FATAL_FAILURE(
            assert_queries(&lh_desc_base_one_pipe, 1, 255));
    }
    {
        SCOPED_TRACE("LHX");
        ASSERT_NO_FATAL_FAILURE(assert_queries(&lh_desc_lhx, 1, 128));
    }
}

TEST_F(RegistryTest, ModuleListNullOutput)
{
    fake_device_start(&lh_desc_lhx, 1);
    ASSERT_EQ(lh_get_module_list(nullptr), -1);
    expect_log(LOG_ERR, "Null pointer - get module list");
    expect_no_more_logs();
}

TEST_F(RegistryTest, QueriesWithoutDeviceAreSilent)
{
    const lh_module_entry *list = nullptr;

    lh_initialized.store(1);
    write_text_file(LH_IDPROM_CACHE_PATH, "CONTROLLER_TYPE=4388\n");
    ASSERT_EQ(lh_get_traffic_pipe_count(), 0u); /* reads the type */
    log_expect_start(&lh_log_file);
    ASSERT_EQ(lh_get_traffic_pipe_count(), 0u);
    ASSERT_EQ(lh_get_max_queue_id(), 0u);
    ASSERT_EQ(lh_get_module_list(&list), -1);
    expect_no_more_logs();
    lh_initialized.store(0);
    lh_pci_cache_reset();
}

TEST_F(RegistryTest, ModuleStateOfAbsentModuleOnBase)
{
    lh_module_entry entry = { LH_MOD_LHX_EGRESS_SCHEDULER, 1 };
    uint8_t module_state = 9;

    fake_device_start(&lh_desc_base_two_pipes, 1);
    ASSERT_EQ(lh_get_module_state(entry, &module_state), 0);
    ASSERT_EQ(module_state, 0);
    expect_no_more_logs();
}

TEST_F(RegistryTest, ModuleStateReportsFailed)
{
    lh_module_entry entry = { LH_MOD_CAUI, 1 };
    uint8_t module_state = 0;

    fake_device_start(&lh_desc_base_two_pipes, 1);
    lh_module_state[LH_MOD_CAUI][1].store(1);
    ASSERT_EQ(lh_get_module_state(entry, &module_state), 0);
    ASSERT_EQ(module_state, 1);
    entry.pipe = 0;
    ASSERT_EQ(lh_get_module_state(entry, &module_state), 0);
    ASSERT_EQ(module_state, 0);
}

TEST_F(RegistryTest, ModuleStateOutOfRange)
{
    lh_module_entry module_15 = { 15, 0 };
    lh_module_entry pipe_2 = { 0, 2 };
    uint8_t module_state = 9;

    fake_device_start(&lh_desc_base_two_pipes, 1);
    ASSERT_EQ(lh_get_module_state(module_15, &module_state), -1);
    ASSERT_EQ(lh_get_module_state(pipe_2, &module_state), -1);
    ASSERT_EQ(lh_get_module_state(pipe_2, nullptr), -1);
    ASSERT_EQ(module_state, 9);
    expect_log(LOG_ERR, "Error - get module state - invalid module/pipe (15/0)");
    expect_log(LOG_ERR, "Error - get module state - invalid module/pipe (0/2)");
    expect_log(LOG_ERR, "Null pointer - get module state");
    expect_no_more_logs();
}
