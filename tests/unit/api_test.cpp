/* Part 2.5: the public API's checks in order, and its dispatch by device
 * type and by module id, down to the drivers on a register model. */
#include <string.h>

#include "cmocka_all.h"
#include "fake_device.hpp"
#include "lh_log.hpp"
#include "log_expect.hpp"
#include "private_tmp.hpp"

#define CAUI_CONTROL(pipe) (0x10000u * ((pipe) + 1) + 0x820)
#define CAUI_STATUS(pipe) (0x10000u * ((pipe) + 1) + 0x824)
#define ETH_CONTROL 0x11020u
#define ETH_STATUS 0x11024u

int __wrap_system(const char *command)
{
    (void)command;
    return 0;
}

/* A device with its blocks created and its ports aligned, expectations
 * started after the bring-up's lines. */
static struct reg_model *bring_up(lh_device_desc *desc)
{
    struct reg_model *model = fake_device_install(desc, 0);

    if (desc == &lh_desc_lhx) {
        reg_model_store(model, ETH_STATUS, 1u << 3);
    } else {
        reg_model_store(model, CAUI_STATUS(0), 1u << 24);
        reg_model_store(model, CAUI_STATUS(1), 1u << 24);
    }
    assert_int_equal(desc == &lh_desc_lhx ? lh_lhx_device_init()
                                          : lh_base_device_init(),
                     0);
    log_expect_start(&lh_log_file);
    return model;
}

static int teardown(void **state)
{
    lh_desc_base_two_pipes.device_type = LH_DEV_TYPE_BASE;
    return fake_device_teardown(state);
}

static void test_not_initialised_comes_first_even_with_null(void **state)
{
    lh_qos_profile_t qos = { 5, 2 };

    (void)state;
    fake_device_start(&lh_desc_base_two_pipes, 0);
    assert_int_equal(lh_set_traffic_pipe_state(0, 1), -1);
    assert_int_equal(lh_get_traffic_pipe_state(0, NULL), -1);
    assert_int_equal(lh_set_ingress_qos(0, qos), -1);
    assert_int_equal(lh_get_ingress_qos(0, NULL), -1);
    assert_int_equal(lh_set_loopback(0, 0), -1);
    assert_int_equal(lh_get_loopback(NULL, 0), -1);
    assert_int_equal(lh_get_statistics(3, 0, NULL, 0), -1);
    assert_int_equal(lh_clear_statistics(3, 0), -1);
    expect_log(LOG_ERR, "Error - traffic pipe state change failed, - system "
                        "not initialized");
    expect_log(LOG_ERR, "Error - traffic pipe get state change failed, - "
                        "system not initialized");
    expect_log(LOG_ERR,
               "Error - set ingress QoS failed, - system not initialized");
    expect_log(LOG_ERR,
               "Error - get ingress QoS failed, - system not initialized");
    expect_log(LOG_ERR,
               "Error - set loopback call failed, - system not initialized");
    expect_log(LOG_ERR,
               "Error - get loopback call failed, - system not initialized");
    expect_log(LOG_ERR,
               "Error - get statistics call failed, - system not initialized");
    expect_log(LOG_ERR, "Error - clear statistics call failed, - system not "
                        "initialized");
    expect_no_more_logs();
}

static void test_one_pipe_device_refuses_pipe_1_everywhere(void **state)
{
    uint8_t pipe_state = 7;
    uint32_t type = 7;
    uint64_t buffer[32];

    (void)state;
    bring_up(&lh_desc_base_one_pipe);
    assert_int_equal(lh_set_traffic_pipe_state(1, 1), -1);
    assert_int_equal(lh_get_traffic_pipe_state(1, &pipe_state), -1);
    assert_int_equal(lh_set_loopback(0, 1), -1);
    assert_int_equal(lh_get_loopback(&type, 1), -1);
    assert_int_equal(lh_get_statistics(3, 1, buffer, sizeof(buffer)), -1);
    assert_int_equal(lh_clear_statistics(3, 1), -1);
    assert_int_equal(pipe_state, 7);
    assert_int_equal(type, 7);
    expect_log(LOG_ERR,
               "Error - traffic pipe state change failed, - invalid pipe 1");
    expect_log(LOG_ERR, "Error - traffic pipe get state change failed, - "
                        "invalid pipe 1");
    expect_log(LOG_ERR, "Error - set loopback call failed, - invalid pipe 1");
    expect_log(LOG_ERR, "Error - get loopback call failed, - invalid pipe 1");
    expect_log(LOG_ERR,
               "Error - get statistics call failed, - invalid pipe 1");
    expect_log(LOG_ERR,
               "Error - clear statistics call failed, - invalid pipe 1");
    expect_no_more_logs();
}

static void test_unknown_loopback_type_after_the_device(void **state)
{
    (void)state;
    bring_up(&lh_desc_base_two_pipes);
    assert_int_equal(lh_set_loopback(5, 0), -1);
    expect_log(LOG_ERR, "Error: set loopback failed - unknown loopback type (5)");
    assert_int_equal(lh_set_loopback(0, 0), 0);
    expect_log(LOG_INFO, "Informational - CAUI interface 0 loopback disabled");
    expect_no_more_logs();
}

static void test_order_of_null_and_pipe_checks(void **state)
{
    (void)state;
    bring_up(&lh_desc_base_two_pipes);
    assert_int_equal(lh_get_traffic_pipe_state(2, NULL), -1);
    assert_int_equal(lh_get_loopback(NULL, 2), -1);
    assert_int_equal(lh_get_statistics(3, 2, NULL, 0), -1);
    assert_int_equal(lh_get_statistics(3, 0, NULL, 0), -1);
    expect_log(LOG_ERR, "Null pointer - get traffic pipe state");
    expect_log(LOG_ERR, "Error - get loopback call failed, - invalid pipe 2");
    expect_log(LOG_ERR,
               "Error - get statistics call failed, - invalid pipe 2");
    expect_log(LOG_ERR, "Null pointer - get statistics");
    expect_no_more_logs();
}

static void test_modules_without_statistics_fail_silently(void **state)
{
    static const uint32_t silent[] = { 0, 2, 9, 15, 16, 0xFFFFFFFF };
    uint64_t buffer[32];

    (void)state;
    bring_up(&lh_desc_base_two_pipes);
    for (size_t i = 0; i < sizeof(silent) / sizeof(silent[0]); i++) {
        assert_int_equal(lh_get_statistics(silent[i], 0, buffer, 8), -1);
        assert_int_equal(lh_clear_statistics(silent[i], 0), -1);
    }
    expect_no_more_logs();
}

static void test_statistics_by_module_id(void **state)
{
    uint64_t caui[32], parser[15];

    (void)state;
    bring_up(&lh_desc_base_two_pipes);
    memset(caui, 0xAA, sizeof(caui));
    memset(parser, 0xAA, sizeof(parser));
    assert_int_equal(lh_get_statistics(3, 1, caui, sizeof(caui)), 0);
    assert_int_equal(lh_get_statistics(5, 1, parser, sizeof(parser)), 0);
    assert_int_equal(caui[0] | caui[31] | parser[0] | parser[14], 0);
    assert_int_equal(lh_clear_statistics(5, 0), 0);
    /* The driver's refusal is handed back unchanged. */
    assert_int_equal(lh_get_statistics(3, 0, caui, 255), -1);
    expect_log(LOG_ERR, "Error - CAUI get interface stats failed, unexpected "
                        "memory size 255");
    expect_no_more_logs();
}

static void test_statistics_of_the_other_image_reach_its_driver(void **state)
{
    uint64_t buffer[15];

    (void)state;
    bring_up(&lh_desc_base_two_pipes);
    assert_int_equal(lh_get_statistics(13, 1, buffer, sizeof(buffer)), -1);
    expect_log(LOG_CRIT, "Error - LHX Ingress Pkt Parser get stats - invalid "
                         "context 1");
    expect_no_more_logs();
}

static void test_pipe_state_goes_to_caui_on_base(void **state)
{
    struct reg_model *model = bring_up(&lh_desc_base_two_pipes);
    uint8_t pipe_state = 7;

    (void)state;
    assert_int_equal(lh_set_traffic_pipe_state(1, 1), 0);
    assert_int_equal(reg_model_peek(model, CAUI_CONTROL(1)) & 0x900, 0x100);
    assert_int_equal(reg_model_peek(model, CAUI_CONTROL(0)), 0);
    expect_log(LOG_INFO, "Informational - CAUI interface 1 enabled");
    expect_log(LOG_INFO, "Informational - CAUI interface 1 receive aligned");
    assert_int_equal(lh_get_traffic_pipe_state(1, &pipe_state), 0);
    assert_int_equal(pipe_state, 1);
    /* Only the low 8 bits of the state reach the driver. */
    assert_int_equal(lh_set_traffic_pipe_state(1, 0x100), 0);
    expect_log(LOG_INFO, "Informational - CAUI interface 1 disabled");
    assert_int_equal(lh_get_traffic_pipe_state(1, &pipe_state), 0);
    assert_int_equal(pipe_state, 0);
    expect_no_more_logs();
}

static void test_pipe_state_and_loopback_go_to_eth_on_lhx(void **state)
{
    struct reg_model *model = bring_up(&lh_desc_lhx);
    uint32_t type = 0xFF;

    (void)state;
    assert_int_equal(lh_set_traffic_pipe_state(0, 1), 0);
    assert_int_equal(reg_model_peek(model, ETH_CONTROL) & 0x900, 0x100);
    expect_log(LOG_INFO, "Informational - Eth interface 0 enabled");
    expect_log(LOG_INFO, "Informational - Eth interface 0 receive aligned");
    assert_int_equal(lh_set_loopback(3, 0), 0);
    expect_log(LOG_INFO,
               "Informational - Eth interface 0 loopback (pma-far) enabled");
    assert_int_equal(lh_get_loopback(&type, 0), 0);
    assert_int_equal(type, 0x08);
    expect_no_more_logs();
}

static void test_loopback_output_is_zeroed_then_ored(void **state)
{
    uint32_t type = 0xFFFFFFFF;

    (void)state;
    bring_up(&lh_desc_base_two_pipes);
    assert_int_equal(lh_get_loopback(&type, 0), 0);
    assert_int_equal(type, 0);
    assert_int_equal(lh_set_loopback(1, 0), 0);
    type = 0xFFFFFFFF;
    assert_int_equal(lh_get_loopback(&type, 0), 0);
    assert_int_equal(type, 0x02);
}

static void test_qos_goes_to_the_parser_without_a_pipe_check(void **state)
{
    lh_qos_profile_t qos = { 5, 2 };
    lh_qos_profile_t read_back = { 5, 9 };

    (void)state;
    bring_up(&lh_desc_base_two_pipes);
    assert_int_equal(lh_set_ingress_qos(1, qos), 0);
    expect_log(LOG_INFO, "Informational - Ingress Pkt Parser set QoS profile "
                         "id 0x05 on pipe 1 with priority HIGH");
    assert_int_equal(lh_get_ingress_qos(1, &read_back), 0);
    assert_int_equal(read_back.priority, 2);
    assert_int_equal(lh_set_ingress_qos(2, qos), -1);
    expect_log(LOG_ERR,
               "Error - Ingress Pkt Parser QoS set profile - invalid pipe 2");
    qos.priority = 3;
    assert_int_equal(lh_set_ingress_qos(0, qos), -1);
    expect_log(LOG_ERR, "Error - Ingress Pkt Parser QoS set profile on pipe 0 "
                        "- invalid QoS priority 3 for profile id 0x05");
    expect_no_more_logs();
}

static void test_qos_goes_to_the_lhx_parser_on_lhx(void **state)
{
    lh_qos_profile_t qos = { 0x7F, 1 };

    (void)state;
    bring_up(&lh_desc_lhx);
    assert_int_equal(lh_set_ingress_qos(0, qos), 0);
    expect_log(LOG_INFO, "Informational - LHX Ingress Pkt Parser set QoS "
                         "profile id 0x7f on pipe 0 with priority MED");
    expect_no_more_logs();
}

static void test_other_device_type_fails_silently(void **state)
{
    lh_qos_profile_t qos = { 5, 2 };
    uint8_t pipe_state;
    uint32_t type;

    (void)state;
    bring_up(&lh_desc_base_two_pipes);
    lh_desc_base_two_pipes.device_type = LH_DEV_TYPE_UNSUPPORTED;
    assert_int_equal(lh_set_traffic_pipe_state(0, 1), -1);
    assert_int_equal(lh_get_traffic_pipe_state(0, &pipe_state), -1);
    assert_int_equal(lh_set_ingress_qos(0, qos), -1);
    assert_int_equal(lh_get_ingress_qos(0, &qos), -1);
    assert_int_equal(lh_set_loopback(9, 0), -1);
    assert_int_equal(lh_get_loopback(&type, 0), -1);
    expect_no_more_logs();
}

int main(void)
{
#define T(name) cmocka_unit_test_teardown(name, teardown)
    const struct CMUnitTest tests[] = {
        T(test_not_initialised_comes_first_even_with_null),
        T(test_one_pipe_device_refuses_pipe_1_everywhere),
        T(test_unknown_loopback_type_after_the_device),
        T(test_order_of_null_and_pipe_checks),
        T(test_modules_without_statistics_fail_silently),
        T(test_statistics_by_module_id),
        T(test_statistics_of_the_other_image_reach_its_driver),
        T(test_pipe_state_goes_to_caui_on_base),
        T(test_pipe_state_and_loopback_go_to_eth_on_lhx),
        T(test_loopback_output_is_zeroed_then_ored),
        T(test_qos_goes_to_the_parser_without_a_pipe_check),
        T(test_qos_goes_to_the_lhx_parser_on_lhx),
        T(test_other_device_type_fails_silently),
    };

    if (enter_private_dirs() != 0)
        return 1;
    return cmocka_run_group_tests(tests, NULL, NULL);
}
