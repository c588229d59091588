/* Part 2.1: IDPROM cache, controller type, descriptor choice, CSR device. */
#include <stdlib.h>
#include <string.h>

#include "board_stub.hpp"
#include "cmocka_all.h"
#include "lh_device.hpp"
#include "lh_log.hpp"
#include "log_expect.hpp"
#include "private_tmp.hpp"

static int setup(void **state)
{
    (void)state;
    lh_pci_cache_reset();
    stub_qrn_sim = 0;
    stub_qrn_sim_calls = 0;
    write_text_file(LH_IDPROM_CACHE_PATH, NULL);
    log_expect_start(&lh_log_file);
    return 0;
}

static int teardown(void **state)
{
    (void)state;
    log_expect_stop();
    lh_desc_base_two_pipes.found = 0;
    lh_pci_cache_reset();
    return 0;
}

static void assert_idprom_value(const char *file, const char *key,
                                const char *expected)
{
    char *value = (char *)"untouched";

    write_text_file(LH_IDPROM_CACHE_PATH, file);
    assert_int_equal(lh_idprom_cache_get(key, &value), LH_IDPROM_OK);
    if (expected == NULL) {
        assert_null(value);
    } else {
        assert_non_null(value);
        assert_string_equal(value, expected);
    }
    free(value);
}

static void test_idprom_plain_and_quoted_values(void **state)
{
    (void)state;
    assert_idprom_value("CONTROLLER_TYPE=4358\n", "CONTROLLER_TYPE", "4358");
    assert_idprom_value("CONTROLLER_TYPE=\"4358\"\n", "CONTROLLER_TYPE",
                        "4358");
    assert_idprom_value("A=1\nCONTROLLER_TYPE=4361\nB=2\n", "CONTROLLER_TYPE",
                        "4361");
    assert_idprom_value("CONTROLLER_TYPE=4358", "CONTROLLER_TYPE", "4358");
}

static void test_idprom_keeps_what_is_not_a_quote_pair(void **state)
{
    (void)state;
    assert_idprom_value("K=\"\n", "K", "\"");
    assert_idprom_value("K=\"x\n", "K", "\"x");
    assert_idprom_value("K=\"\"\n", "K", "");
    assert_idprom_value("K= 12 \r\n", "K", " 12 \r");
    /* strtok skips leading separators, so "=K=v" still names K. */
    assert_idprom_value("=K=v\n", "K", "v");
    /* The first matching line wins. */
    assert_idprom_value("K=first\nK=second\n", "K", "first");
}

static void test_idprom_empty_value_is_found_and_null(void **state)
{
    (void)state;
    assert_idprom_value("CONTROLLER_TYPE=\n", "CONTROLLER_TYPE", NULL);
    assert_idprom_value("CONTROLLER_TYPE=", "CONTROLLER_TYPE", NULL);
}

static void test_idprom_blanks_around_equals_do_not_match(void **state)
{
    char *value = NULL;

    (void)state;
    write_text_file(LH_IDPROM_CACHE_PATH, "CONTROLLER_TYPE = 4358\n");
    assert_int_equal(lh_idprom_cache_get("CONTROLLER_TYPE", &value),
                     LH_IDPROM_NOT_FOUND);
    assert_null(value);
    write_text_file(LH_IDPROM_CACHE_PATH, "controller_type=4358\n");
    assert_int_equal(lh_idprom_cache_get("CONTROLLER_TYPE", &value),
                     LH_IDPROM_NOT_FOUND);
}

static void test_idprom_refuses_bad_arguments(void **state)
{
    char *value = (char *)"untouched";

    (void)state;
    write_text_file(LH_IDPROM_CACHE_PATH, "K=1\n");
    assert_int_equal(lh_idprom_cache_get(NULL, &value),
                     LH_IDPROM_BAD_ARGUMENT);
    assert_int_equal(lh_idprom_cache_get("", &value), LH_IDPROM_BAD_ARGUMENT);
    assert_string_equal(value, "untouched");
    assert_int_equal(lh_idprom_cache_get("K", NULL), LH_IDPROM_BAD_ARGUMENT);
}

static void test_idprom_missing_file(void **state)
{
    char *value = (char *)"untouched";

    (void)state;
    assert_int_equal(lh_idprom_cache_get("CONTROLLER_TYPE", &value),
                     LH_IDPROM_NO_FILE);
    assert_null(value);
}

static void test_controller_type_is_decimal(void **state)
{
    (void)state;
    write_text_file(LH_IDPROM_CACHE_PATH, "CONTROLLER_TYPE=4358\n");
    assert_int_equal(lh_get_controller_type(), 0x1106);
    write_text_file(LH_IDPROM_CACHE_PATH, "CONTROLLER_TYPE=\"4390\"\n");
    assert_int_equal(lh_get_controller_type(), 0x1126);
    write_text_file(LH_IDPROM_CACHE_PATH, "CONTROLLER_TYPE=0x1106\n");
    assert_int_equal(lh_get_controller_type(), 0);
    write_text_file(LH_IDPROM_CACHE_PATH, "CONTROLLER_TYPE=\n");
    assert_int_equal(lh_get_controller_type(), 0);
    write_text_file(LH_IDPROM_CACHE_PATH, "OTHER=4358\n");
    assert_int_equal(lh_get_controller_type(), 0);
}

struct map_case {
    const char *idprom;
    int qrn_sim;
    lh_device_desc *expected; /* null: result 0 and no descriptor */
    unsigned int qrn_sim_calls;
    const char *found_line;
};

static void assert_map_case(const struct map_case *c)
{
    lh_device_desc *desc = NULL;
    uint32_t count = 0;

    lh_pci_cache_reset();
    stub_qrn_sim = c->qrn_sim;
    stub_qrn_sim_calls = 0;
    write_text_file(LH_IDPROM_CACHE_PATH, c->idprom);
    assert_int_equal(lh_pci_get_map(&desc, &count), 0);
    assert_ptr_equal(desc, c->expected);
    assert_int_equal(count, c->expected == NULL ? 0 : 1);
    assert_int_equal(stub_qrn_sim_calls, c->qrn_sim_calls);
    expect_log(LOG_INFO, c->found_line);
}

static void test_map_choice_for_every_controller_type(void **state)
{
    static const char f1106[] =
        "Informational - pci get map, found controller type 0x1106";
    static const char f1109[] =
        "Informational - pci get map, found controller type 0x1109";
    static const char f110a[] =
        "Informational - pci get map, found controller type 0x110a";
    static const char f1124[] =
        "Informational - pci get map, found controller type 0x1124";
    static const char f1125[] =
        "Informational - pci get map, found controller type 0x1125";
    static const char f1126[] =
        "Informational - pci get map, found controller type 0x1126";
    static const char f1127[] =
        "Informational - pci get map, found controller type 0x1127";
    lh_device_desc *two = &lh_desc_base_two_pipes;
    lh_device_desc *one = &lh_desc_base_one_pipe;
    lh_device_desc *lhx = &lh_desc_lhx;
    const struct map_case cases[] = {
        { "CONTROLLER_TYPE=4358\n", 0, two, 0, f1106 },
        { "CONTROLLER_TYPE=4358\n", 1, two, 0, f1106 },
        { "CONTROLLER_TYPE=\"4358\"\n", 0, two, 0, f1106 },
        { "CONTROLLER_TYPE=4361\n", 0, one, 0, f1109 },
        { "CONTROLLER_TYPE=4361\n", 1, one, 0, f1109 },
        { "CONTROLLER_TYPE=4362\n", 0, one, 0, f110a },
        { "CONTROLLER_TYPE=4362\n", 1, one, 0, f110a },
        { "CONTROLLER_TYPE=4388\n", 0, NULL, 1, f1124 },
        { "CONTROLLER_TYPE=4388\n", 1, two, 1, f1124 },
        { "CONTROLLER_TYPE=4389\n", 0, NULL, 1, f1125 },
        { "CONTROLLER_TYPE=4389\n", 1, two, 1, f1125 },
        { "CONTROLLER_TYPE=4390\n", 0, lhx, 1, f1126 },
        { "CONTROLLER_TYPE=4390\n", 1, two, 1, f1126 },
        { "CONTROLLER_TYPE=4391\n", 0, lhx, 1, f1127 },
        { "CONTROLLER_TYPE=4391\n", 1, two, 1, f1127 },
    };

    (void)state;
    for (size_t i = 0; i < sizeof(cases) / sizeof(cases[0]); i++)
        assert_map_case(&cases[i]);
    expect_no_more_logs();
}

static void test_map_unknown_controller_type(void **state)
{
    lh_device_desc *desc = NULL;
    uint32_t count = 0;

    (void)state;
    write_text_file(LH_IDPROM_CACHE_PATH, "CONTROLLER_TYPE=4359\n");
    assert_int_equal(lh_pci_get_map(&desc, &count), -1);
    assert_null(desc);
    expect_log(LOG_INFO,
               "Informational - pci get map, found controller type 0x1107");
    expect_log(LOG_CRIT, "PCI - pci get map, unknown controller type 0x1107");
    expect_no_more_logs();
}

static void test_map_hex_text_is_unknown_type_zero(void **state)
{
    lh_device_desc *desc = NULL;
    uint32_t count = 0;

    (void)state;
    write_text_file(LH_IDPROM_CACHE_PATH, "CONTROLLER_TYPE=0x1106\n");
    assert_int_equal(lh_pci_get_map(&desc, &count), -1);
    expect_log(LOG_INFO,
               "Informational - pci get map, found controller type 0x0000");
    expect_log(LOG_CRIT, "PCI - pci get map, unknown controller type 0x0000");
    expect_no_more_logs();
}

static void test_map_missing_file_is_read_again_next_call(void **state)
{
    lh_device_desc *desc = NULL;
    uint32_t count = 0;

    (void)state;
    assert_int_equal(lh_pci_get_map(&desc, &count), -1);
    expect_log(LOG_INFO,
               "Informational - pci get map, found controller type 0x0000");
    expect_log(LOG_CRIT, "PCI - pci get map, unknown controller type 0x0000");
    write_text_file(LH_IDPROM_CACHE_PATH, "CONTROLLER_TYPE=4358\n");
    assert_int_equal(lh_pci_get_map(&desc, &count), 0);
    assert_ptr_equal(desc, &lh_desc_base_two_pipes);
    expect_log(LOG_INFO,
               "Informational - pci get map, found controller type 0x1106");
    /* A known type is remembered: no further read, no further line. */
    write_text_file(LH_IDPROM_CACHE_PATH, NULL);
    assert_int_equal(lh_pci_get_map(&desc, &count), 0);
    assert_ptr_equal(desc, &lh_desc_base_two_pipes);
    expect_no_more_logs();
}

static void test_map_null_arguments(void **state)
{
    lh_device_desc *desc = NULL;
    uint32_t count = 0;

    (void)state;
    assert_int_equal(lh_pci_get_map(NULL, &count), -1);
    assert_int_equal(lh_pci_get_map(&desc, NULL), -1);
    expect_log(LOG_ERR, "Null pointer - pci get map");
    expect_log(LOG_ERR, "Null pointer - pci get map");
    expect_no_more_logs();
}

static void test_csr_device_null_argument(void **state)
{
    (void)state;
    assert_int_equal(lh_pci_get_csr_device(NULL), -1);
    expect_log(LOG_ERR, "Null pointer - pci get csr device");
    expect_no_more_logs();
}

static void test_csr_device_1124_on_hardware_fails(void **state)
{
    lh_device_desc *desc = NULL;

    (void)state;
    write_text_file(LH_IDPROM_CACHE_PATH, "CONTROLLER_TYPE=4388\n");
    assert_int_equal(lh_pci_get_csr_device(&desc), -1);
    assert_null(desc);
    expect_log(LOG_INFO,
               "Informational - pci get map, found controller type 0x1124");
    expect_no_more_logs();
}

static void test_csr_device_not_found_when_not_mapped(void **state)
{
    lh_device_desc *desc = &lh_desc_lhx;

    (void)state;
    write_text_file(LH_IDPROM_CACHE_PATH, "CONTROLLER_TYPE=4358\n");
    assert_int_equal(lh_pci_get_csr_device(&desc), 0);
    assert_null(desc);
    expect_log(LOG_INFO,
               "Informational - pci get map, found controller type 0x1106");
    expect_log(LOG_DEBUG, "Control Status Register device not found");
    /* Nothing is cached: the next call looks again. */
    assert_int_equal(lh_pci_get_csr_device(&desc), 0);
    expect_log(LOG_DEBUG, "Control Status Register device not found");
    expect_no_more_logs();
}

static void test_csr_device_found_is_cached_and_logged_once(void **state)
{
    lh_device_desc *desc = NULL;

    (void)state;
    write_text_file(LH_IDPROM_CACHE_PATH, "CONTROLLER_TYPE=4358\n");
    lh_desc_base_two_pipes.found = 1;
    assert_int_equal(lh_pci_get_csr_device(&desc), 0);
    assert_ptr_equal(desc, &lh_desc_base_two_pipes);
    expect_log(LOG_INFO,
               "Informational - pci get map, found controller type 0x1106");
    expect_log(LOG_DEBUG, "Found CSR device - Control Status, type (0)");
    desc = NULL;
    assert_int_equal(lh_pci_get_csr_device(&desc), 0);
    assert_ptr_equal(desc, &lh_desc_base_two_pipes);
    expect_no_more_logs();
}

int main(void)
{
#define T(name) cmocka_unit_test_setup_teardown(name, setup, teardown)
    const struct CMUnitTest tests[] = {
        T(test_idprom_plain_and_quoted_values),
        T(test_idprom_keeps_what_is_not_a_quote_pair),
        T(test_idprom_empty_value_is_found_and_null),
        T(test_idprom_blanks_around_equals_do_not_match),
        T(test_idprom_refuses_bad_arguments),
        T(test_idprom_missing_file),
        T(test_controller_type_is_decimal),
        T(test_map_choice_for_every_controller_type),
        T(test_map_unknown_controller_type),
        T(test_map_hex_text_is_unknown_type_zero),
        T(test_map_missing_file_is_read_again_next_call),
        T(test_map_null_arguments),
        T(test_csr_device_null_argument),
        T(test_csr_device_1124_on_hardware_fails),
        T(test_csr_device_not_found_when_not_mapped),
        T(test_csr_device_found_is_cached_and_logged_once),
    };

    if (enter_private_tmp() != 0)
        return 1;
    return cmocka_run_group_tests(tests, NULL, NULL);
}
