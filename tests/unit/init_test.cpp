/* Part 2.4: lh_fpga_init, the device bring-ups and lh_fpga_shutdown, on a
 * register model; the PCI bus scan is left out at link time. */
#include <errno.h>
#include <pthread.h>
#include <stdlib.h>
#include <string.h>

#include "cmocka_all.h"
#include "mutex_wrap.hpp"
#include "fake_device.hpp"
#include "lh_log.hpp"
#include "log_expect.hpp"
#include "private_tmp.hpp"
#include "syslog_capture.hpp"


/* The fake device already stands where the bus would show one. */
int __wrap_lh_pci_system_init(lh_device_desc *descs, uint32_t count)
{
    (void)descs;
    (void)count;
    return 0;
}

int __wrap_system(const char *command)
{
    (void)command;
    return 0;
}

#define REVISION_LINE                                                         \
    "revision: 0x00010203, image timestamp (M/D/Y Hour): 03/15/2024 10:00"
#define UNSUPPORTED(id)                                                       \
    "Null pointer - unsupported module " #id                                  \
    " encountered during initializtion"
#define CREATED(name, pipe)                                                   \
    "Informational - " name " module " #pipe " context created"
#define POLL_STARTED "Larks Hollow FPGA system poll thread started..."
#define POLL_TERMINATED "Larks Hollow FPGA system poll thread terminated..."
#define INITIALIZED "Informational - Larks Hollow FPGA Initialized"

struct logged {
    int severity;
    const char *text;
};

static void expect_logs(const struct logged *lines, size_t count)
{
    for (size_t i = 0; i < count; i++)
        expect_log(lines[i].severity, lines[i].text);
}

static struct reg_model *start(lh_device_desc *desc)
{
    struct reg_model *model = fake_device_start(desc, 0);

    reg_model_store(model, 0x000, 0x00010203);
    reg_model_store(model, 0x010, 0x24031510);
    mutex_inits = 0;
    mutex_init_failing_call = 0;
    return model;
}

static int teardown(void **state)
{
    lh_fpga_shutdown();
    lh_desc_base_two_pipes.device_type = LH_DEV_TYPE_BASE;
    return fake_device_teardown(state);
}

static void test_two_pipe_base_device(void **state)
{
    static const struct logged lines[] = {
        { LOG_INFO, REVISION_LINE },
        { LOG_INFO, CREATED("Global", 0) },
        { LOG_INFO, CREATED("PCIe", 0) },
        { LOG_INFO, CREATED("DDR4", 0) },
        { LOG_INFO, CREATED("DDR4", 1) },
        { LOG_INFO, CREATED("CAUI", 0) },
        { LOG_INFO, CREATED("CAUI", 1) },
        { LOG_INFO, CREATED("NIC", 0) },
        { LOG_INFO, CREATED("NIC", 1) },
        { LOG_INFO, CREATED("Ingress Pkt Parser", 0) },
        { LOG_INFO, CREATED("Ingress Pkt Parser", 1) },
        { LOG_INFO, CREATED("Ingress Pkt Classifier", 0) },
        { LOG_INFO, CREATED("Ingress Pkt Classifier", 1) },
        { LOG_INFO, CREATED("Ingress Pkt Processor", 0) },
        { LOG_INFO, CREATED("Ingress Pkt Processor", 1) },
        { LOG_INFO, CREATED("Egress Scheduler", 0) },
        { LOG_INFO, CREATED("Egress Scheduler", 1) },
        { LOG_DEBUG, POLL_STARTED },
        { LOG_INFO, INITIALIZED },
    };

    (void)state;
    start(&lh_desc_base_two_pipes);
    assert_int_equal(lh_fpga_init(log_expect_path()), 0);
    expect_logs(lines, sizeof(lines) / sizeof(lines[0]));
    assert_int_equal(atomic_load(&lh_initialized), 1);
    lh_fpga_shutdown();
    /* The thread ends after its current sleep and scan. */
    assert_int_equal(syslog_capture_count(), 20);
    assert_string_equal(syslog_capture_get(19)->text, POLL_TERMINATED);
    assert_false(log_sink_is_open(&lh_log_file));
}

static void test_one_pipe_base_device(void **state)
{
    static const struct logged lines[] = {
        { LOG_INFO, REVISION_LINE },
        { LOG_INFO, CREATED("Global", 0) },
        { LOG_INFO, CREATED("PCIe", 0) },
        { LOG_INFO, CREATED("DDR4", 0) },
        { LOG_INFO, CREATED("CAUI", 0) },
        { LOG_INFO, CREATED("NIC", 0) },
        { LOG_INFO, CREATED("Ingress Pkt Parser", 0) },
        { LOG_INFO, CREATED("Ingress Pkt Classifier", 0) },
        { LOG_INFO, CREATED("Ingress Pkt Processor", 0) },
        { LOG_INFO, CREATED("Egress Scheduler", 0) },
        { LOG_DEBUG, POLL_STARTED },
        { LOG_INFO, INITIALIZED },
    };

    (void)state;
    start(&lh_desc_base_one_pipe);
    assert_int_equal(lh_fpga_init(log_expect_path()), 0);
    expect_logs(lines, sizeof(lines) / sizeof(lines[0]));
}

static void test_lhx_device(void **state)
{
    static const struct logged lines[] = {
        { LOG_INFO, REVISION_LINE },
        { LOG_INFO, CREATED("LHX Global", 0) },
        { LOG_INFO, CREATED("LHX PCIe", 0) },
        { LOG_INFO, CREATED("Eth", 0) },
        { LOG_INFO, CREATED("LHX NIC", 0) },
        { LOG_INFO, CREATED("LHX Ingress Pkt Parser", 0) },
        { LOG_INFO, CREATED("LHX Egress Scheduler", 0) },
        { LOG_DEBUG, POLL_STARTED },
        { LOG_INFO, INITIALIZED },
    };

    (void)state;
    start(&lh_desc_lhx);
    assert_int_equal(lh_fpga_init(log_expect_path()), 0);
    expect_logs(lines, sizeof(lines) / sizeof(lines[0]));
}

static void test_failed_context_stops_bring_up_but_leaves_it_initialised(
    void **state)
{
    static const struct logged lines[] = {
        { LOG_INFO, REVISION_LINE },
        { LOG_INFO, CREATED("Global", 0) },
        { LOG_INFO, CREATED("PCIe", 0) },
        { LOG_INFO, CREATED("DDR4", 0) },
        { LOG_INFO, CREATED("DDR4", 1) },
        { LOG_INFO, CREATED("CAUI", 0) },
        { LOG_CRIT, "Error - CAUI module context create - mutex init failed" },
        { LOG_DEBUG, "read register - addr 0xf0000010, data 0x24031510" },
    };
    uint32_t value = 0;

    (void)state;
    start(&lh_desc_base_two_pipes);
    mutex_init_failing_call = 3; /* PCIe, CAUI 0, then CAUI 1 */
    assert_int_equal(lh_fpga_init(log_expect_path()), -1);
    assert_int_equal(lh_read_register(0x010, &value), 0);
    assert_int_equal(value, 0x24031510);
    expect_logs(lines, sizeof(lines) / sizeof(lines[0]));
    expect_no_more_logs();
    /* No poll thread was started: shutdown only closes the log. */
    lh_fpga_shutdown();
    assert_false(log_sink_is_open(&lh_log_file));
    assert_int_equal(syslog_capture_count(), 8);
}

/* An id of the other image or none at all is refused and the walk goes
 * on; a per-pipe block on a pipe above 1 is skipped without a word. */
static void test_unsupported_modules_are_refused_and_skipped(void **state)
{
    static const lh_module_entry odd_list[] = {
        { LH_MOD_LHX_GLOBAL, 0 }, { LH_MOD_DDR4, 2 }, { 16, 0 },
        { LH_MOD_GLOBAL, 0 }, { LH_MOD_END, 0 },
    };
    const lh_module_entry *list = lh_desc_base_one_pipe.module_list;

    (void)state;
    start(&lh_desc_base_one_pipe);
    lh_desc_base_one_pipe.module_list = odd_list;
    assert_int_equal(lh_base_device_init(), 0);
    lh_desc_base_one_pipe.module_list = list;
    expect_log(LOG_INFO, REVISION_LINE);
    expect_log(LOG_ERR, UNSUPPORTED(9));
    expect_log(LOG_ERR, UNSUPPORTED(16));
    expect_log(LOG_INFO, CREATED("Global", 0));
    expect_no_more_logs();
}

static void test_unsupported_device_type_fails_silently(void **state)
{
    (void)state;
    start(&lh_desc_base_two_pipes);
    lh_desc_base_two_pipes.device_type = LH_DEV_TYPE_UNSUPPORTED;
    assert_int_equal(lh_fpga_init(log_expect_path()), -1);
    expect_no_more_logs();
    assert_int_equal(atomic_load(&lh_initialized), 0);
}

static void test_unknown_device_type(void **state)
{
    (void)state;
    start(&lh_desc_base_two_pipes);
    lh_desc_base_two_pipes.device_type = 7;
    assert_int_equal(lh_fpga_init(log_expect_path()), -1);
    expect_log(LOG_CRIT, "PCI - unknown device type (7)");
    expect_no_more_logs();
}

static void test_default_log_path(void **state)
{
    char *content;

    (void)state;
    start(&lh_desc_lhx);
    log_expect_stop();
    assert_int_equal(lh_fpga_init(NULL), 0);
    lh_fpga_shutdown();
    content = read_whole_file(LH_LOG_DEFAULT_PATH, NULL);
    assert_non_null(content);
    assert_non_null(strstr(content, ": " INITIALIZED "\n"));
    assert_non_null(strstr(content, ": " POLL_TERMINATED "\n"));
    free(content);
}

static void test_unwritable_log_leaves_syslog(void **state)
{
    (void)state;
    start(&lh_desc_lhx);
    log_expect_stop();
    syslog_capture_reset();
    assert_int_equal(lh_fpga_init("/tmp/no/such/dir/lh.log"), 0);
    assert_false(log_sink_is_open(&lh_log_file));
    assert_string_equal(syslog_capture_get(syslog_capture_count() - 1)->text,
                        INITIALIZED);
}

int main(void)
{
#define T(name) cmocka_unit_test_teardown(name, teardown)
    const struct CMUnitTest tests[] = {
        T(test_two_pipe_base_device),
        T(test_one_pipe_base_device),
        T(test_lhx_device),
        T(test_failed_context_stops_bring_up_but_leaves_it_initialised),
        T(test_unsupported_modules_are_refused_and_skipped),
        T(test_unsupported_device_type_fails_silently),
        T(test_unknown_device_type),
        T(test_default_log_path),
        T(test_unwritable_log_leaves_syslog),
    };

    if (enter_private_dirs() != 0)
        return 1;
    return cmocka_run_group_tests(tests, NULL, NULL);
}
