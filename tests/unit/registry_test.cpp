/* Part 2.3: module names, descriptors, module lists and registry queries. */
#include <string.h>

#include "cmocka_all.h"
#include "fake_device.hpp"
#include "lh_log.hpp"
#include "log_expect.hpp"
#include "private_tmp.hpp"




static void test_module_names(void **state)
{
    static const char *const expected[] = {
        "global", "pcie", "ddr4", "caui", "nic", "ingress-pkt-parser",
        "ingress-pkt-classifier", "ingress-pkt-processor",
        "egress-scheduler", "lhx-global", "lhx-pcie", "eth", "lhx-nic",
        "lhx-ingress-pkt-parser", "lhx-egress-scheduler",
    };

    (void)state;
    for (int id = 0; id < LH_MOD_COUNT; id++)
        assert_string_equal(lh_module_names[id], expected[id]);
    assert_null(lh_module_names[LH_MOD_END]);
}

static void assert_module_list(const lh_module_entry *list,
                               const uint32_t (*expected)[2], size_t count)
{
    for (size_t i = 0; i < count; i++) {
        assert_int_equal(list[i].module_id, expected[i][0]);
        assert_int_equal(list[i].pipe, expected[i][1]);
    }
    assert_int_equal(list[count].module_id, LH_MOD_END);
    assert_int_equal(list[count].pipe, 0);
}

static void test_module_lists(void **state)
{
    static const uint32_t two[][2] = {
        { 0, 0 }, { 1, 0 }, { 2, 0 }, { 2, 1 }, { 3, 0 }, { 3, 1 },
        { 4, 0 }, { 4, 1 }, { 5, 0 }, { 5, 1 }, { 6, 0 }, { 6, 1 },
        { 7, 0 }, { 7, 1 }, { 8, 0 }, { 8, 1 },
    };
    static const uint32_t one[][2] = {
        { 0, 0 }, { 1, 0 }, { 2, 0 }, { 3, 0 }, { 4, 0 },
        { 5, 0 }, { 6, 0 }, { 7, 0 }, { 8, 0 },
    };
    static const uint32_t lhx[][2] = {
        { 9, 0 }, { 10, 0 }, { 11, 0 }, { 12, 0 }, { 13, 0 }, { 14, 0 },
    };

    (void)state;
    assert_module_list(lh_desc_base_two_pipes.module_list, two, 16);
    assert_module_list(lh_desc_base_one_pipe.module_list, one, 9);
    assert_module_list(lh_desc_lhx.module_list, lhx, 6);
}

struct descriptor_facts {
    const lh_device_desc *desc;
    uint32_t device_type, device_id, subdevice_id, bar;
    uint64_t window_size;
    uint32_t pipes, max_queue_id;
};

static void test_descriptors(void **state)
{
    const struct descriptor_facts facts[] = {
        { &lh_desc_lhx, 2, 0x01D9, 0xFFFFFFFF, 2, 0x19800, 1, 0x80 },
        { &lh_desc_base_two_pipes, 0, 0x01D7, 0x01D7, 0, 0x2A100, 2, 0xFF },
        { &lh_desc_base_one_pipe, 0, 0x01D7, 0x01D7, 0, 0x2A100, 1, 0xFF },
    };

    (void)state;
    for (size_t i = 0; i < 3; i++) {
        const lh_device_desc *d = facts[i].desc;

        assert_string_equal(d->name, "Control Status");
        assert_int_equal(d->device_type, facts[i].device_type);
        assert_int_equal(d->match.vendor_id, 0x1c7a);
        assert_int_equal(d->match.device_id, facts[i].device_id);
        assert_int_equal(d->match.subvendor_id, 0xFFFFFFFF);
        assert_int_equal(d->match.subdevice_id, facts[i].subdevice_id);
        assert_int_equal(d->match.device_class, 0);
        assert_int_equal(d->match.device_class_mask, 0);
        assert_int_equal(d->match.match_data, 0);
        assert_int_equal(d->bar, facts[i].bar);
        assert_int_equal(d->window_size, facts[i].window_size);
        assert_int_equal(d->traffic_pipe_count, facts[i].pipes);
        assert_int_equal(d->max_queue_id, facts[i].max_queue_id);
        assert_int_equal(d->qos_profile_count, 128);
    }
}

static void test_queries_before_initialisation(void **state)
{
    const lh_module_entry *list = NULL;
    lh_module_entry entry = { 0, 0 };
    uint8_t module_state = 9;

    (void)state;
    fake_device_start(&lh_desc_base_two_pipes, 0);
    assert_int_equal(lh_get_traffic_pipe_count(), 0);
    assert_int_equal(lh_get_max_queue_id(), 0);
    assert_int_equal(lh_get_module_list(&list), -1);
    assert_int_equal(lh_get_module_list(NULL), -1);
    assert_int_equal(lh_get_module_state(entry, &module_state), -1);
    assert_int_equal(lh_get_module_state(entry, NULL), -1);
    assert_null(list);
    assert_int_equal(module_state, 9);
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

static void assert_queries(lh_device_desc *desc, uint32_t pipes,
                           uint32_t max_queue_id)
{
    const lh_module_entry *list = NULL;

    fake_device_start(desc, 1);
    assert_int_equal(lh_get_traffic_pipe_count(), pipes);
    assert_int_equal(lh_get_max_queue_id(), max_queue_id);
    assert_int_equal(lh_get_module_list(&list), 0);
    assert_ptr_equal(list, desc->module_list);
    expect_no_more_logs();
    fake_device_teardown(NULL);
}

static void test_queries_follow_the_device(void **state)
{
    (void)state;
    assert_queries(&lh_desc_base_two_pipes, 2, 255);
    assert_queries(&lh_desc_base_one_pipe, 1, 255);
    assert_queries(&lh_desc_lhx, 1, 128);
}

static void test_module_list_null_output(void **state)
{
    (void)state;
    fake_device_start(&lh_desc_lhx, 1);
    assert_int_equal(lh_get_module_list(NULL), -1);
    expect_log(LOG_ERR, "Null pointer - get module list");
    expect_no_more_logs();
}

static void test_queries_without_device_are_silent(void **state)
{
    const lh_module_entry *list = NULL;

    (void)state;
    atomic_store(&lh_initialized, 1);
    write_text_file(LH_IDPROM_CACHE_PATH, "CONTROLLER_TYPE=4388\n");
    assert_int_equal(lh_get_traffic_pipe_count(), 0); /* reads the type */
    log_expect_start(&lh_log_file);
    assert_int_equal(lh_get_traffic_pipe_count(), 0);
    assert_int_equal(lh_get_max_queue_id(), 0);
    assert_int_equal(lh_get_module_list(&list), -1);
    expect_no_more_logs();
    atomic_store(&lh_initialized, 0);
    lh_pci_cache_reset();
}

static void test_module_state_of_absent_module_on_base(void **state)
{
    lh_module_entry entry = { LH_MOD_LHX_EGRESS_SCHEDULER, 1 };
    uint8_t module_state = 9;

    (void)state;
    fake_device_start(&lh_desc_base_two_pipes, 1);
    assert_int_equal(lh_get_module_state(entry, &module_state), 0);
    assert_int_equal(module_state, 0);
    expect_no_more_logs();
}

static void test_module_state_reports_failed(void **state)
{
    lh_module_entry entry = { LH_MOD_CAUI, 1 };
    uint8_t module_state = 0;

    (void)state;
    fake_device_start(&lh_desc_base_two_pipes, 1);
    atomic_store(&lh_module_state[LH_MOD_CAUI][1], 1);
    assert_int_equal(lh_get_module_state(entry, &module_state), 0);
    assert_int_equal(module_state, 1);
    entry.pipe = 0;
    assert_int_equal(lh_get_module_state(entry, &module_state), 0);
    assert_int_equal(module_state, 0);
}

static void test_module_state_out_of_range(void **state)
{
    lh_module_entry module_15 = { 15, 0 };
    lh_module_entry pipe_2 = { 0, 2 };
    uint8_t module_state = 9;

    (void)state;
    fake_device_start(&lh_desc_base_two_pipes, 1);
    assert_int_equal(lh_get_module_state(module_15, &module_state), -1);
    assert_int_equal(lh_get_module_state(pipe_2, &module_state), -1);
    assert_int_equal(lh_get_module_state(pipe_2, NULL), -1);
    assert_int_equal(module_state, 9);
    expect_log(LOG_ERR, "Error - get module state - invalid module/pipe (15/0)");
    expect_log(LOG_ERR, "Error - get module state - invalid module/pipe (0/2)");
    expect_log(LOG_ERR, "Null pointer - get module state");
    expect_no_more_logs();
}

int main(void)
{
#define T(name) cmocka_unit_test_teardown(name, fake_device_teardown)
    const struct CMUnitTest tests[] = {
        T(test_module_names),
        T(test_module_lists),
        T(test_descriptors),
        T(test_queries_before_initialisation),
        T(test_queries_follow_the_device),
        T(test_module_list_null_output),
        T(test_queries_without_device_are_silent),
        T(test_module_state_of_absent_module_on_base),
        T(test_module_state_reports_failed),
        T(test_module_state_out_of_range),
    };

    if (enter_private_tmp() != 0)
        return 1;
    return cmocka_run_group_tests(tests, NULL, NULL);
}
