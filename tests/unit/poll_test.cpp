/* Part 2.6: one poll scan over the module list, fatal reports, FAILED
 * marking, the dump and the callback. */
#include <dirent.h>
#include <string.h>
#include <unistd.h>

#include "cmocka_all.h"
#include "fake_device.hpp"
#include "lh_log.hpp"
#include "log_expect.hpp"
#include "private_tmp.hpp"

#define LOGS "/opt/orvel/platform/logs"
#define CAUI1_FATAL (0x20000 + 0x800)
#define PARSER0_COUNTER (0x16000 + 0x50)

int __wrap_system(const char *command)
{
    (void)command;
    return 0;
}

static lh_fatal_error_t reports[4];
static int report_count;

static void record_report(lh_fatal_error_t report)
{
    if (report_count < 4)
        reports[report_count] = report;
    report_count++;
}

static int other_reports;

static void record_other(lh_fatal_error_t report)
{
    (void)report;
    other_reports++;
}

static unsigned int reads_at[2];
static uint32_t watched[2];

static uint32_t count_reads(struct reg_model *model, uint32_t offset,
                            uint32_t stored)
{
    (void)model;
    for (int i = 0; i < 2; i++)
        if (offset == watched[i])
            reads_at[i]++;
    return stored;
}

static int count_dumps(void)
{
    DIR *dir = opendir(LOGS);
    struct dirent *entry;
    int count = 0;

    assert_non_null(dir);
    while ((entry = readdir(dir)) != NULL)
        count += strncmp(entry->d_name, "lark_hollow_dump__", 18) == 0;
    closedir(dir);
    return count;
}

static void remove_dumps(void)
{
    DIR *dir = opendir(LOGS);
    struct dirent *entry;
    char path[512];

    while (dir != NULL && (entry = readdir(dir)) != NULL) {
        if (entry->d_name[0] == '.')
            continue;
        snprintf(path, sizeof(path), LOGS "/%s", entry->d_name);
        unlink(path);
    }
    if (dir != NULL)
        closedir(dir);
}

/* A base two-pipe device with its block contexts created. */
static struct reg_model *bring_up(lh_device_desc *desc)
{
    struct reg_model *model = fake_device_install(desc, 0);

    assert_int_equal(desc == &lh_desc_lhx ? lh_lhx_device_init()
                                          : lh_base_device_init(),
                     0);
    watched[0] = CAUI1_FATAL;
    watched[1] = PARSER0_COUNTER;
    reads_at[0] = reads_at[1] = 0;
    model->on_read = count_reads;
    report_count = 0;
    other_reports = 0;
    log_expect_start(&lh_log_file);
    return model;
}

static int teardown(void **state)
{
    lh_register_fatal_error_cb(NULL);
    remove_dumps();
    return fake_device_teardown(state);
}

static void test_fatal_block_is_failed_dumped_and_reported_once(void **state)
{
    struct reg_model *model = bring_up(&lh_desc_base_two_pipes);
    lh_fatal_error_t report = { 0, 0, NULL };
    lh_module_entry caui1 = { LH_MOD_CAUI, 1 };
    uint8_t module_state = 0;

    (void)state;
    lh_register_fatal_error_cb(record_report);
    reg_model_store(model, CAUI1_FATAL, 1u << 9);
    lh_sys_poll_scan(&lh_desc_base_two_pipes, &report);
    expect_log(LOG_CRIT, "FATAL - CAUI pipe 1: TX Buffer FIFO Underflow");
    expect_no_more_logs();
    assert_int_equal(report_count, 1);
    assert_int_equal(reports[0].module_id, LH_MOD_CAUI);
    assert_int_equal(reports[0].pipe, 1);
    assert_string_equal(reports[0].error_text, "TX Buffer FIFO Underflow");
    assert_int_equal(lh_get_module_state(caui1, &module_state), 0);
    assert_int_equal(module_state, 1);
    assert_int_equal(count_dumps(), 1);
    /* The parser after it was polled in the same scan: one read by the
     * dump of the whole window, one by its update. */
    assert_int_equal(reads_at[1], 2);

    /* Never called again: no read, no report, no second dump. */
    reads_at[0] = 0;
    lh_sys_poll_scan(&lh_desc_base_two_pipes, &report);
    assert_int_equal(reads_at[0], 0);
    assert_int_equal(reads_at[1], 3);
    assert_int_equal(report_count, 1);
    assert_int_equal(count_dumps(), 1);
    expect_no_more_logs();
}

static void test_without_callback_state_and_dump_still_happen(void **state)
{
    struct reg_model *model = bring_up(&lh_desc_base_two_pipes);
    lh_fatal_error_t report = { 0, 0, NULL };

    (void)state;
    lh_register_fatal_error_cb(NULL);
    reg_model_store(model, CAUI1_FATAL, 1u << 1);
    lh_sys_poll_scan(&lh_desc_base_two_pipes, &report);
    expect_log(LOG_CRIT, "FATAL - CAUI pipe 1: CAUI IP TX Underflow");
    assert_int_equal(atomic_load(&lh_module_state[LH_MOD_CAUI][1]), 1);
    assert_int_equal(count_dumps(), 1);
}

static void test_later_callback_replaces_the_earlier(void **state)
{
    struct reg_model *model = bring_up(&lh_desc_lhx);
    lh_fatal_error_t report = { 0, 0, NULL };

    (void)state;
    lh_register_fatal_error_cb(record_report);
    lh_register_fatal_error_cb(record_other);
    reg_model_store(model, 0x10000 + 0x1000, 1u << 0);
    lh_sys_poll_scan(&lh_desc_lhx, &report);
    expect_log(LOG_CRIT, "FATAL - Eth pipe 0: Eth IP TX Underflow");
    assert_int_equal(report_count, 0);
    assert_int_equal(other_reports, 1);
}

static void test_failed_module_is_skipped_without_any_call(void **state)
{
    struct reg_model *model = bring_up(&lh_desc_base_two_pipes);
    lh_fatal_error_t report = { 0, 0, NULL };

    (void)state;
    lh_register_fatal_error_cb(record_report);
    atomic_store(&lh_module_state[LH_MOD_CAUI][1], 1);
    reg_model_store(model, CAUI1_FATAL, 1u << 9);
    lh_sys_poll_scan(&lh_desc_base_two_pipes, &report);
    assert_int_equal(reads_at[0], 0);
    assert_int_equal(report_count, 0);
    assert_int_equal(count_dumps(), 0);
    expect_no_more_logs();
}

static void test_unknown_module_id_in_the_list(void **state)
{
    static const lh_module_entry odd_list[] = {
        { 16, 0 }, { LH_MOD_CAUI, 0 }, { LH_MOD_END, 0 }
    };
    lh_device_desc odd;
    lh_fatal_error_t report = { 0, 0, NULL };

    (void)state;
    bring_up(&lh_desc_base_two_pipes);
    odd = lh_desc_base_two_pipes;
    odd.module_list = odd_list;
    lh_sys_poll_scan(&odd, &report);
    expect_log(LOG_ERR,
               "Error - unsupported module 16 encountered during sys poll");
    expect_no_more_logs();
}

static void test_no_fatal_result_runs_the_updates(void **state)
{
    /* No test here creates the LHX parser's pipe 1: detection refuses it
     * (result 0), and the update runs and refuses it too. */
    static const lh_module_entry list[] = {
        { LH_MOD_LHX_INGRESS_PKT_PARSER, 1 }, { LH_MOD_END, 0 }
    };
    lh_device_desc odd;
    lh_fatal_error_t report = { 0, 0, NULL };

    (void)state;
    bring_up(&lh_desc_base_one_pipe);
    odd = lh_desc_base_one_pipe;
    odd.module_list = list;
    lh_sys_poll_scan(&odd, &report);
    expect_log(LOG_CRIT, "Error - LHX Ingress Pkt Parser fatal error "
                         "detection - invalid context 1");
    expect_log(LOG_CRIT, "Error - LHX Ingress Pkt Parser update stats - "
                         "invalid context 1");
    expect_no_more_logs();
}

int main(void)
{
#define T(name) cmocka_unit_test_teardown(name, teardown)
    const struct CMUnitTest tests[] = {
        T(test_fatal_block_is_failed_dumped_and_reported_once),
        T(test_without_callback_state_and_dump_still_happen),
        T(test_later_callback_replaces_the_earlier),
        T(test_failed_module_is_skipped_without_any_call),
        T(test_unknown_module_id_in_the_list),
        T(test_no_fatal_result_runs_the_updates),
    };

    if (enter_private_dirs() != 0)
        return 1;
    return cmocka_run_group_tests(tests, NULL, NULL);
}
