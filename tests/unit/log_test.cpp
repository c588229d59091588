/* Part 1.2: both sinks of a message, both tag tables. */
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "cmocka_all.h"
#include "lh_log.hpp"
#include "log_expect.hpp"
#include "plm_log.hpp"
#include "private_tmp.hpp"
#include "syslog_capture.hpp"

static void test_daemon_tag_table(void **state)
{
    static const char *const expected[] = {
        "Unknown error", "Error", "Out of memory", "Null pointer",
        "Thread monitor enqueue failed", "Thread monitor detected failure",
        "Unrecoverable program error detected, exiting", "Informational",
        "Alert", "FATAL", "Unknown error",
    };

    (void)state;
    for (unsigned int code = 0; code < 11; code++)
        assert_string_equal(plm_status_str(code), expected[code]);
    assert_string_equal(plm_status_str(0xFFFFFFFFu), "Unknown error");
}

static void test_library_tag_table(void **state)
{
    static const char *const expected[] = {
        "Unknown error", "Error", "Out of memory", "Null pointer",
        "Informational", "Alert", "PCI", "FATAL", "Unknown error",
    };

    (void)state;
    for (unsigned int code = 0; code < 9; code++)
        assert_string_equal(lh_status_str(code), expected[code]);
    assert_string_equal(lh_status_str(0xFFFFFFFFu), "Unknown error");
}

static void test_code_4_differs_between_components(void **state)
{
    (void)state;
    assert_string_equal(plm_status_str(4), "Thread monitor enqueue failed");
    assert_string_equal(lh_status_str(4), "Informational");
}

static void test_daemon_message_reaches_both_sinks(void **state)
{
    (void)state;
    log_expect_start(&plm_log_file);
    plm_log(LOG_INFO, "%s - Found %d traffic pipes", PLM_TAG(INFO), 2);
    expect_log(LOG_INFO, "Informational - Found 2 traffic pipes");
    expect_no_more_logs();
    log_expect_stop();
}

static void test_library_message_reaches_both_sinks(void **state)
{
    (void)state;
    log_expect_start(&lh_log_file);
    lh_log(LOG_CRIT, "%s - scratch register test failed", LH_TAG(PCI));
    lh_log(LOG_DEBUG, "read register - addr 0x%08x, data 0x%08x", 0x10u,
           0xdeadbeefu);
    expect_log(LOG_CRIT, "PCI - scratch register test failed");
    expect_log(LOG_DEBUG, "read register - addr 0x00000010, data 0xdeadbeef");
    expect_no_more_logs();
    log_expect_stop();
}

static void test_file_line_has_stamp_of_its_component(void **state)
{
    char path[] = "/tmp/stamp_XXXXXX";
    char *content;
    const char *rest;

    (void)state;
    close(mkstemp(path));
    assert_int_equal(log_sink_open(&plm_log_file, path), 0);
    assert_int_equal(log_sink_open(&lh_log_file, path), 0);
    plm_log(LOG_INFO, "daemon line");
    lh_log(LOG_INFO, "library line");
    log_sink_close(&plm_log_file);
    log_sink_close(&lh_log_file);
    content = read_whole_file(path, NULL);
    assert_non_null(content);
    rest = after_log_stamp(content, "%Y %b %d %X PELLIN MGR");
    assert_non_null(rest);
    assert_int_equal(strncmp(rest, "daemon line\n", 12), 0);
    rest = after_log_stamp(rest + 12, "%Y %b %d %X LH FPGA");
    assert_non_null(rest);
    assert_string_equal(rest, "library line\n");
    assert_null(after_log_stamp(content, "%Y %b %d %X LH FPGA"));
    free(content);
    unlink(path);
}

static void test_syslog_format_ending_in_newline_doubles_it_in_file(void **state)
{
    (void)state;
    log_expect_start(&plm_log_file);
    plm_log(LOG_CRIT, "Error initializing IPC for %s\n", PLM_LOG_IDENT);
    expect_log(LOG_CRIT, "Error initializing IPC for Pellin Manager\n");
    expect_no_more_logs();
    log_expect_stop();
}

static void test_closed_sink_logs_to_syslog_only(void **state)
{
    (void)state;
    syslog_capture_reset();
    log_sink_close(&lh_log_file);
    assert_false(log_sink_is_open(&lh_log_file));
    lh_log(LOG_ERR, "%s - get module list", LH_TAG(NULL_POINTER));
    assert_int_equal(syslog_capture_count(), 1);
    assert_string_equal(syslog_capture_get(0)->text,
                        "Null pointer - get module list");
    assert_string_equal(syslog_capture_get(0)->ident, "larks-hollow-fpga");
}

static void test_unwritable_log_file_leaves_syslog_working(void **state)
{
    (void)state;
    syslog_capture_reset();
    assert_int_equal(
        log_sink_open(&plm_log_file, "/tmp/no/such/dir/pellin_mgr.log"), -1);
    assert_false(log_sink_is_open(&plm_log_file));
    plm_log(LOG_INFO, "%s - LH FPGA initialization start", PLM_TAG(INFO));
    assert_int_equal(syslog_capture_count(), 1);
    assert_string_equal(syslog_capture_get(0)->text,
                        "Informational - LH FPGA initialization start");
    assert_string_equal(syslog_capture_get(0)->ident, "Pellin Manager");
    assert_int_equal(syslog_capture_get(0)->severity, LOG_INFO);
}

#define LINES_PER_WRITER 2000

static void *write_lines(void *arg)
{
    const char *who = arg;

    for (int i = 0; i < LINES_PER_WRITER; i++)
        lh_log(LOG_DEBUG, "%s writes line %04d of the concurrency test", who,
               i);
    return NULL;
}

static void test_lines_stay_whole_across_threads(void **state)
{
    char path[] = "/tmp/threads_XXXXXX";
    pthread_t first, second;
    char *content, *line, *save = NULL;
    int lines = 0;

    (void)state;
    close(mkstemp(path));
    assert_int_equal(log_sink_open(&lh_log_file, path), 0);
    pthread_create(&first, NULL, write_lines, "poll");
    pthread_create(&second, NULL, write_lines, "ipc");
    pthread_join(first, NULL);
    pthread_join(second, NULL);
    log_sink_close(&lh_log_file);
    content = read_whole_file(path, NULL);
    assert_non_null(content);
    for (line = strtok_r(content, "\n", &save); line != NULL;
         line = strtok_r(NULL, "\n", &save), lines++) {
        const char *text = after_log_stamp(line, LH_LOG_STAMP_FORMAT);
        int number;
        char who[8];

        assert_non_null(text);
        assert_int_equal(sscanf(text, "%7s writes line %4d of the "
                                      "concurrency test", who, &number), 2);
    }
    assert_int_equal(lines, 2 * LINES_PER_WRITER);
    free(content);
    unlink(path);
}

int main(void)
{
    const struct CMUnitTest tests[] = {
        cmocka_unit_test(test_daemon_tag_table),
        cmocka_unit_test(test_library_tag_table),
        cmocka_unit_test(test_code_4_differs_between_components),
        cmocka_unit_test(test_daemon_message_reaches_both_sinks),
        cmocka_unit_test(test_library_message_reaches_both_sinks),
        cmocka_unit_test(test_file_line_has_stamp_of_its_component),
        cmocka_unit_test(test_syslog_format_ending_in_newline_doubles_it_in_file),
        cmocka_unit_test(test_closed_sink_logs_to_syslog_only),
        cmocka_unit_test(test_unwritable_log_file_leaves_syslog_working),
        cmocka_unit_test(test_lines_stay_whole_across_threads),
    };

    if (enter_private_tmp() != 0)
        return 1;
    return cmocka_run_group_tests(tests, NULL, NULL);
}
