/* Part 2.2: register access and the bring-up checks. */
#include <string.h>

#include "cmocka_all.h"
#include "fake_device.hpp"
#include "lh_log.hpp"
#include "log_expect.hpp"
#include "private_tmp.hpp"

static struct reg_model *model;
static char system_command[128];
static unsigned int system_calls;

/* system() runs only the PCI command write; record it instead. */
int __wrap_system(const char *command)
{
    system_calls++;
    strncpy(system_command, command, sizeof(system_command) - 1);
    return 0;
}


static int teardown(void **state)
{
    system_calls = 0;
    system_command[0] = '\0';
    return fake_device_teardown(state);
}

static void test_not_initialized_comes_first(void **state)
{
    uint32_t value = 0;

    (void)state;
    model = fake_device_start(&lh_desc_base_two_pipes, 0);
    assert_int_equal(lh_read_register(2, NULL), -1);
    assert_int_equal(lh_read_register(0, &value), -1);
    assert_int_equal(lh_write_register(2, 1), -1);
    expect_log(LOG_ERR, "Error - read register failed, - system not initialized");
    expect_log(LOG_ERR, "Error - read register failed, - system not initialized");
    expect_log(LOG_ERR,
               "Error - write register failed, - system not initialized");
    expect_no_more_logs();
}

static void test_null_value_comes_before_alignment(void **state)
{
    (void)state;
    model = fake_device_start(&lh_desc_base_two_pipes, 1);
    assert_int_equal(lh_read_register(2, NULL), -1);
    expect_log(LOG_ERR, "Null pointer - read register");
    expect_no_more_logs();
}

static void test_alignment_comes_before_device_lookup(void **state)
{
    uint32_t value = 0;

    (void)state;
    /* Initialised but without a device: a lookup would log lines. */
    atomic_store(&lh_initialized, 1);
    write_text_file(LH_IDPROM_CACHE_PATH, "CONTROLLER_TYPE=4388\n");
    log_expect_start(&lh_log_file);
    assert_int_equal(lh_read_register(2, &value), -1);
    assert_int_equal(lh_write_register(0x2A0FE, 1), -1);
    expect_log(LOG_ERR, "Error - read register failed, - offset not word aligned");
    expect_log(LOG_ERR,
               "Error - write register failed, - offset not word aligned");
    expect_no_more_logs();
    /* Aligned, the lookup runs and fails without a message of its own. */
    assert_int_equal(lh_read_register(0x2A100, &value), -1);
    assert_int_equal(lh_write_register(0x2A100, 1), -1);
    expect_log(LOG_INFO,
               "Informational - pci get map, found controller type 0x1124");
    expect_no_more_logs();
    atomic_store(&lh_initialized, 0);
    lh_pci_cache_reset();
}

static void assert_window_bounds(lh_device_desc *desc, uint32_t last,
                                 const char *read_line, const char *wrote_line)
{
    uint32_t value = 0;

    model = fake_device_start(desc, 1);
    reg_model_store(model, last, 0x12345678);
    assert_int_equal(lh_read_register(last, &value), 0);
    assert_int_equal(value, 0x12345678);
    expect_log(LOG_DEBUG, read_line);
    assert_int_equal(lh_write_register(last, 0xCAFEF00D), 0);
    assert_int_equal(reg_model_peek(model, last), 0xCAFEF00D);
    expect_log(LOG_DEBUG, wrote_line);
    value = 7;
    assert_int_equal(lh_read_register(last + 4, &value), -1);
    assert_int_equal(value, 7);
    expect_log(LOG_ERR, "Error - read register failed, - offset too large");
    assert_int_equal(lh_write_register(last + 4, 1), -1);
    expect_log(LOG_ERR, "Error - writing register failed, - offset too large");
    assert_int_equal(lh_read_register(0xFFFFFFFC, &value), -1);
    expect_log(LOG_ERR, "Error - read register failed, - offset too large");
    expect_no_more_logs();
}

static void test_base_window_bounds(void **state)
{
    (void)state;
    assert_window_bounds(&lh_desc_base_two_pipes, 0x2A0FC,
                         "read register - addr 0xf002a0fc, data 0x12345678",
                         "wrote register - addr 0xf002a0fc, data 0xcafef00d");
}

static void test_lhx_window_bounds(void **state)
{
    (void)state;
    /* The address shown is region 0's whatever BAR is mapped. */
    assert_window_bounds(&lh_desc_lhx, 0x197FC,
                         "read register - addr 0xf00197fc, data 0x12345678",
                         "wrote register - addr 0xf00197fc, data 0xcafef00d");
}

static void test_write_has_no_read_back(void **state)
{
    (void)state;
    model = fake_device_start(&lh_desc_base_two_pipes, 1);
    assert_int_equal(lh_write_register(0x100, 1), 0);
    assert_int_equal(model->writes, 1);
    assert_int_equal(model->reads, 0);
}

static void prepare_bringup(lh_device_desc *desc)
{
    model = fake_device_start(desc, 0);
    reg_model_store(model, 0x000, 0x00010203);
    reg_model_store(model, 0x010, 0x24031510);
}

static void test_bringup_checks_base(void **state)
{
    (void)state;
    prepare_bringup(&lh_desc_base_two_pipes);
    assert_int_equal(lh_bringup_checks(LH_DEV_TYPE_BASE), 0);
    assert_int_equal(system_calls, 0);
    assert_int_equal(reg_model_peek(model, 0x0FC), 0x80000000);
    assert_int_equal(atomic_load(&lh_initialized), 1);
    expect_log(LOG_INFO, "revision: 0x00010203, image timestamp "
                         "(M/D/Y Hour): 03/15/2024 10:00");
    expect_no_more_logs();
}

static void test_bringup_checks_lhx_writes_pci_command_first(void **state)
{
    (void)state;
    prepare_bringup(&lh_desc_lhx);
    assert_int_equal(lh_bringup_checks(LH_DEV_TYPE_LHX), 0);
    assert_int_equal(system_calls, 1);
    assert_string_equal(system_command, "setpci -d 1c7a:1d9 COMMAND=0x2");
    assert_int_equal(reg_model_peek(model, 0x0FC), 0x80000000);
    expect_log(LOG_INFO, "revision: 0x00010203, image timestamp "
                         "(M/D/Y Hour): 03/15/2024 10:00");
    expect_no_more_logs();
}

/* Scratch bit 5 stuck at 0. */
static void stuck_scratch_write(struct reg_model *m, uint32_t offset,
                                uint32_t value)
{
    if (offset == 0x0FC)
        value &= ~(1u << 5);
    reg_model_store(m, offset, value);
}

static void test_scratch_test_fails_on_stuck_bit(void **state)
{
    uint32_t value;

    (void)state;
    prepare_bringup(&lh_desc_base_two_pipes);
    model->on_write = stuck_scratch_write;
    assert_int_equal(lh_bringup_checks(LH_DEV_TYPE_BASE), -1);
    /* Bits 0..5 written, the test ends at the first mismatch. */
    assert_int_equal(model->writes, 6);
    assert_int_equal(atomic_load(&lh_initialized), 0);
    expect_log(LOG_CRIT, "PCI - scratch register test failed");
    expect_no_more_logs();
    assert_int_equal(lh_read_register(0, &value), -1);
    expect_log(LOG_ERR, "Error - read register failed, - system not initialized");
}

static void test_bringup_without_device_fails_silently(void **state)
{
    (void)state;
    write_text_file(LH_IDPROM_CACHE_PATH, "CONTROLLER_TYPE=4390\n");
    log_expect_start(&lh_log_file);
    assert_int_equal(lh_bringup_checks(LH_DEV_TYPE_LHX), -1);
    assert_int_equal(system_calls, 1);
    assert_int_equal(atomic_load(&lh_initialized), 0);
    expect_log(LOG_INFO,
               "Informational - pci get map, found controller type 0x1126");
    expect_log(LOG_DEBUG, "Control Status Register device not found");
    expect_no_more_logs();
    lh_pci_cache_reset();
}

static void test_timestamp_digits_print_as_hex(void **state)
{
    (void)state;
    prepare_bringup(&lh_desc_base_one_pipe);
    reg_model_store(model, 0x000, 0xA5A5A5A5);
    reg_model_store(model, 0x010, 0x99123123);
    assert_int_equal(lh_bringup_checks(LH_DEV_TYPE_BASE), 0);
    expect_log(LOG_INFO, "revision: 0xa5a5a5a5, image timestamp "
                         "(M/D/Y Hour): 12/31/2099 23:00");
}

int main(void)
{
#define T(name) cmocka_unit_test_teardown(name, teardown)
    const struct CMUnitTest tests[] = {
        T(test_not_initialized_comes_first),
        T(test_null_value_comes_before_alignment),
        T(test_alignment_comes_before_device_lookup),
        T(test_base_window_bounds),
        T(test_lhx_window_bounds),
        T(test_write_has_no_read_back),
        T(test_bringup_checks_base),
        T(test_bringup_checks_lhx_writes_pci_command_first),
        T(test_scratch_test_fails_on_stuck_bit),
        T(test_bringup_without_device_fails_silently),
        T(test_timestamp_digits_print_as_hex),
    };

    if (enter_private_tmp() != 0)
        return 1;
    return cmocka_run_group_tests(tests, NULL, NULL);
}
