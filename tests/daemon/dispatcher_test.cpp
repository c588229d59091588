/* Parts 1.5 and 1.6: the receive callback, the length check, error replies
 * and every operation of the dispatcher, against a fake library and a fake
 * transport. */
#include <stdlib.h>
#include <string.h>

#include "cmocka_all.h"
#include "dispatcher.hpp"
#include "fake_ipc.hpp"
#include "fake_lh.hpp"
#include "ipc_server.hpp"
#include "log_expect.hpp"
#include "plm_log.hpp"
#include "private_tmp.hpp"

#define CLIENT 0x11u
#define JUNK 0xA5A5A5A5u

static int fail_next_calloc;

void *__real_calloc(size_t count, size_t size);

void *__wrap_calloc(size_t count, size_t size)
{
    if (fail_next_calloc) {
        fail_next_calloc = 0;
        return NULL;
    }
    return __real_calloc(count, size);
}

/* The module list the dispatcher caches; tests change its content. */
static lh_module_entry module_list[17];

static const lh_module_entry base_two_pipes[17] = {
    { 0, 0 }, { 1, 0 }, { 2, 0 }, { 2, 1 }, { 3, 0 }, { 3, 1 },
    { 4, 0 }, { 4, 1 }, { 5, 0 }, { 5, 1 }, { 6, 0 }, { 6, 1 },
    { 7, 0 }, { 7, 1 }, { 8, 0 }, { 8, 1 }, { LH_MOD_END, 0 },
};

static int setup(void **state)
{
    (void)state;
    fake_lh_reset();
    fake_ipc_reset();
    memcpy(module_list, base_two_pipes, sizeof(module_list));
    fake_lh.module_list = module_list;
    log_expect_start(&plm_log_file);
    return 0;
}

static int teardown(void **state)
{
    (void)state;
    log_expect_stop();
    return 0;
}

/* Sends a request through the receive callback, as the IPC thread does. */
static void request_of_type(uint32_t op_id, const uint32_t *words,
                            uint32_t length, uint8_t msg_type)
{
    plm_ipc_msg msg = {
        .addr0 = CLIENT,
        .addr1 = PLM_IPC_APP_ID,
        .op_id = op_id,
        .msg_type = msg_type,
        .payload_len = length,
    };

    if (words != NULL) {
        msg.payload = malloc(length > 0 ? length : 1);
        memcpy(msg.payload, words, length);
    }
    plm_ipc_server_callback(NULL, &msg);
    free(msg.payload);
}

static void request(uint32_t op_id, const uint32_t *words, uint32_t length)
{
    request_of_type(op_id, words, length, PLM_IPC_MSG_REQUEST);
}

static void assert_record(const plm_ipc_msg *record, uint32_t op_id,
                          uint32_t length)
{
    assert_int_equal(record->addr0, PLM_IPC_APP_ID);
    assert_int_equal(record->addr1, CLIENT);
    assert_int_equal(record->op_id, op_id);
    assert_int_equal(record->aux_byte, 1);
    assert_int_equal(record->msg_type, PLM_IPC_MSG_REPLY);
    assert_int_equal(record->payload_len, length);
}

static void assert_reply(uint32_t op_id, const void *bytes, uint32_t length)
{
    assert_int_equal(fake_ipc.sent_count, 1);
    assert_record(&fake_ipc.sent[0].record, op_id, length);
    if (length == 0)
        assert_null(fake_ipc.sent[0].record.payload);
    else
        assert_memory_equal(fake_ipc.sent[0].payload, bytes, length);
}

static void assert_error_reply(uint32_t op_id, uint32_t length,
                               uint32_t code)
{
    const uint32_t expected[3] = { op_id, length, code };

    assert_reply(PLM_IPC_OP_ERROR, expected, sizeof(expected));
}

static void assert_calls(const char *const *calls, size_t count)
{
    assert_int_equal(fake_lh.call_count, count);
    for (size_t i = 0; i < count; i++)
        assert_string_equal(fake_lh.calls[i], calls[i]);
}

static void restart(void)
{
    fake_ipc_reset();
    fake_lh.call_count = 0;
}

/* Runs first: nothing has fetched the module list yet. */
static void test_module_list_fetch_failure_is_retried(void **state)
{
    static const uint32_t stats[4] = { 3, 1, 0, 0 };

    (void)state;
    fake_lh.module_list_result = -1;
    request(PLM_IPC_OP_GET_MODULE_LIST, NULL, 0);
    expect_log(LOG_ERR, "Error: failed to retrieve module list");
    assert_error_reply(PLM_IPC_OP_GET_MODULE_LIST, 0, 8);
    restart();
    request(PLM_IPC_OP_GET_STATS, stats, sizeof(stats));
    expect_log(LOG_CRIT, "Error: failed to retrieve module list");
    expect_log(LOG_ERR, "Error: PLM process IPC get stats failed - invalid "
                        "module/pipe (3/1)");
    assert_error_reply(PLM_IPC_OP_GET_STATS, 16, 6);
    expect_no_more_logs();

    /* Both caches fetch again, once each, and then keep the list. */
    fake_lh.module_list_result = 0;
    restart();
    request(PLM_IPC_OP_GET_STATS, stats, sizeof(stats));
    request(PLM_IPC_OP_GET_STATS, stats, sizeof(stats));
    request(PLM_IPC_OP_GET_MODULE_LIST, NULL, 0);
    request(PLM_IPC_OP_GET_MODULE_LIST, NULL, 0);
    assert_int_equal(fake_ipc.sent_count, 4);
    assert_string_equal(fake_lh.calls[0], "lh_get_module_list()");
    assert_string_equal(fake_lh.calls[1], "lh_get_statistics(3, 1, 256)");
    assert_string_equal(fake_lh.calls[2], "lh_get_statistics(3, 1, 256)");
    assert_string_equal(fake_lh.calls[3], "lh_get_module_list()");
    assert_string_equal(fake_lh.calls[4], "lh_get_module_state(0, 0)");
    expect_no_more_logs();
}

struct checked_op {
    uint32_t op_id;
    uint32_t length;
};

static const struct checked_op checked_ops[] = {
    { PLM_IPC_OP_READ_REG, 8 },        { PLM_IPC_OP_WRITE_REG, 8 },
    { PLM_IPC_OP_SET_LOOPBACK, 8 },    { PLM_IPC_OP_GET_LOOPBACK, 8 },
    { PLM_IPC_OP_GET_STATS, 16 },      { PLM_IPC_OP_CLEAR_STATS, 16 },
    { PLM_IPC_OP_SET_PIPE, 8 },        { PLM_IPC_OP_SET_INGRESS_QOS, 12 },
    { PLM_IPC_OP_GET_INGRESS_QOS, 12 },
};

static void test_length_one_off_answers_code_1_with_client_length(void **state)
{
    uint32_t words[8] = { 0 };

    (void)state;
    for (size_t i = 0; i < sizeof(checked_ops) / sizeof(checked_ops[0]);
         i++) {
        const struct checked_op *op = &checked_ops[i];

        restart();
        request(op->op_id, words, op->length - 1);
        assert_error_reply(op->op_id, op->length - 1, 1);
        restart();
        request(op->op_id, words, op->length + 1);
        assert_error_reply(op->op_id, op->length + 1, 1);
        restart();
        request(op->op_id, NULL, op->length);
        assert_error_reply(op->op_id, op->length, 2);
        assert_int_equal(fake_lh.call_count, 0);
    }
    expect_no_more_logs();
}

static void test_read_register(void **state)
{
    static const uint32_t words[2] = { 0x100, JUNK };
    static const uint32_t reply[2] = { 0x100, 0xCAFEF00D };
    static const char *const calls[] = { "lh_read_register(0x100)" };

    (void)state;
    fake_lh.register_value = 0xCAFEF00D;
    request(PLM_IPC_OP_READ_REG, words, 8);
    assert_reply(PLM_IPC_OP_READ_REG, reply, 8);
    assert_calls(calls, 1);
    restart();
    fake_lh.result = -1;
    request(PLM_IPC_OP_READ_REG, words, 8);
    assert_error_reply(PLM_IPC_OP_READ_REG, 8, 3);
    expect_no_more_logs();
}

static void test_write_register(void **state)
{
    static const uint32_t words[2] = { 0x104, 0x55 };
    static const char *const calls[] = { "lh_write_register(0x104, 0x55)" };

    (void)state;
    request(PLM_IPC_OP_WRITE_REG, words, 8);
    assert_reply(PLM_IPC_OP_WRITE_REG, words, 8);
    assert_calls(calls, 1);
    restart();
    fake_lh.result = -1;
    request(PLM_IPC_OP_WRITE_REG, words, 8);
    assert_error_reply(PLM_IPC_OP_WRITE_REG, 8, 4);
}

static void test_loopback(void **state)
{
    static const uint32_t set[2] = { 2, 1 };
    static const uint32_t get[2] = { JUNK, 1 };
    static const uint32_t got[2] = { 0x04, 1 };
    static const char *const calls[] = { "lh_set_loopback(2, 1)",
                                         "lh_get_loopback(1)" };

    (void)state;
    fake_lh.loopback_type = 0x04;
    request(PLM_IPC_OP_SET_LOOPBACK, set, 8);
    assert_reply(PLM_IPC_OP_SET_LOOPBACK, set, 8);
    restart();
    fake_lh.call_count = 0;
    request(PLM_IPC_OP_GET_LOOPBACK, get, 8);
    assert_reply(PLM_IPC_OP_GET_LOOPBACK, got, 8);
    assert_calls(&calls[1], 1);
    restart();
    fake_lh.result = -1;
    request(PLM_IPC_OP_SET_LOOPBACK, set, 8);
    assert_error_reply(PLM_IPC_OP_SET_LOOPBACK, 8, 5);
    restart();
    request(PLM_IPC_OP_GET_LOOPBACK, get, 8);
    assert_error_reply(PLM_IPC_OP_GET_LOOPBACK, 8, 5);
}

static void test_get_stats_reply_bytes(void **state)
{
    static const uint32_t words[4] = { 4, 1, JUNK, JUNK };
    static uint8_t expected[16 + 8360];
    static const char *const calls[] = { "lh_get_statistics(4, 1, 8360)" };
    const uint64_t size = 8360;

    (void)state;
    fake_lh.stats_fill = 0xAB;
    memcpy(expected, words, 8);
    memcpy(expected + 8, &size, 8);
    memset(expected + 16, 0xAB, 8360);
    request(PLM_IPC_OP_GET_STATS, words, 16);
    assert_reply(PLM_IPC_OP_GET_STATS, expected, sizeof(expected));
    assert_calls(calls, 1);
    restart();
    fake_lh.result = -1;
    request(PLM_IPC_OP_GET_STATS, words, 16);
    assert_error_reply(PLM_IPC_OP_GET_STATS, 16, 6);
    expect_no_more_logs();
}

static void test_get_stats_record_sizes(void **state)
{
    static const uint32_t sizes[][2] = {
        { 1, 16 }, { 3, 256 }, { 4, 8360 }, { 5, 120 },
        { 6, 568 }, { 7, 136 }, { 8, 144 },
    };

    (void)state;
    for (size_t i = 0; i < sizeof(sizes) / sizeof(sizes[0]); i++) {
        uint32_t words[4] = { sizes[i][0], 0, 0, 0 };
        char call[64];

        restart();
        request(PLM_IPC_OP_GET_STATS, words, 16);
        snprintf(call, sizeof(call), "lh_get_statistics(%u, 0, %u)",
                 sizes[i][0], sizes[i][1]);
        assert_string_equal(fake_lh.calls[0], call);
        assert_int_equal(fake_ipc.sent[0].record.payload_len,
                         16 + sizes[i][1]);
    }
}

static void test_get_stats_of_ddr4_answers_6_without_log(void **state)
{
    static const uint32_t words[4] = { 2, 1, 0, 0 };

    (void)state;
    request(PLM_IPC_OP_GET_STATS, words, 16);
    assert_error_reply(PLM_IPC_OP_GET_STATS, 16, 6);
    assert_int_equal(fake_lh.call_count, 0);
    expect_no_more_logs();
}

static void test_stats_of_absent_module_pipe(void **state)
{
    static const uint32_t absent[4] = { 11, 0, 0, 0 };
    static const uint32_t global_pipe_1[4] = { 0, 1, 0, 0 };

    (void)state;
    request(PLM_IPC_OP_GET_STATS, absent, 16);
    assert_error_reply(PLM_IPC_OP_GET_STATS, 16, 6);
    expect_log(LOG_ERR, "Error: PLM process IPC get stats failed - invalid "
                        "module/pipe (11/0)");
    restart();
    /* Clear stats keeps the get-stats message and code 6, not 7. */
    request(PLM_IPC_OP_CLEAR_STATS, global_pipe_1, 16);
    assert_error_reply(PLM_IPC_OP_CLEAR_STATS, 16, 6);
    expect_log(LOG_ERR, "Error: PLM process IPC get stats failed - invalid "
                        "module/pipe (0/1)");
    expect_no_more_logs();
    assert_int_equal(fake_lh.call_count, 0);
}

static void test_clear_stats(void **state)
{
    static const uint32_t words[4] = { 5, 1, JUNK, JUNK };
    static const uint32_t reply[4] = { 5, 1, 0, 0 };
    static const char *const calls[] = { "lh_clear_statistics(5, 1)" };

    (void)state;
    request(PLM_IPC_OP_CLEAR_STATS, words, 16);
    assert_reply(PLM_IPC_OP_CLEAR_STATS, reply, 16);
    assert_calls(calls, 1);
    restart();
    fake_lh.result = -1;
    request(PLM_IPC_OP_CLEAR_STATS, words, 16);
    assert_error_reply(PLM_IPC_OP_CLEAR_STATS, 16, 7);
}

static void test_module_list_reply(void **state)
{
    uint8_t expected[16 * 12];

    (void)state;
    memset(expected, 0, sizeof(expected));
    for (int i = 0; i < 16; i++) {
        memcpy(expected + 12 * i, &base_two_pipes[i].module_id, 4);
        memcpy(expected + 12 * i + 4, &base_two_pipes[i].pipe, 4);
    }
    fake_lh.module_states[3][1] = 1;
    expected[5 * 12 + 8] = 1;
    request(PLM_IPC_OP_GET_MODULE_LIST, (const uint32_t *)"any", 3);
    assert_reply(PLM_IPC_OP_GET_MODULE_LIST, expected, sizeof(expected));
    assert_string_equal(fake_lh.calls[5], "lh_get_module_state(3, 1)");
}

static void test_module_list_state_unreadable_is_0(void **state)
{
    (void)state;
    fake_lh.module_states[3][1] = 1;
    fake_lh.module_state_result = -1;
    request(PLM_IPC_OP_GET_MODULE_LIST, NULL, 0);
    assert_int_equal(fake_ipc.sent_count, 1);
    assert_int_equal(fake_ipc.sent[0].payload[5 * 12 + 8], 0);
}

static void test_empty_module_list_has_length_0(void **state)
{
    (void)state;
    module_list[0].module_id = LH_MOD_END;
    request(PLM_IPC_OP_GET_MODULE_LIST, NULL, 0);
    assert_reply(PLM_IPC_OP_GET_MODULE_LIST, NULL, 0);
}

static void test_set_pipe(void **state)
{
    static const uint32_t words[2] = { 1, 0xABABAB01 };
    static const uint32_t reply[2] = { 1, 0x01 };
    static const char *const calls[] = { "lh_set_traffic_pipe_state(1, 1)" };

    (void)state;
    request(PLM_IPC_OP_SET_PIPE, words, 8);
    assert_reply(PLM_IPC_OP_SET_PIPE, reply, 8);
    assert_calls(calls, 1);
    restart();
    fake_lh.result = -1;
    request(PLM_IPC_OP_SET_PIPE, words, 8);
    assert_error_reply(PLM_IPC_OP_SET_PIPE, 8, 9);
}

static void test_get_pipe(void **state)
{
    static const uint32_t reply[4] = { 0, 1, 1, 0 };

    (void)state;
    fake_lh.pipe_count = 2;
    fake_lh.pipe_states[0] = 1;
    request(PLM_IPC_OP_GET_PIPE, NULL, 0);
    assert_reply(PLM_IPC_OP_GET_PIPE, reply, 16);
}

static void test_get_pipe_failing_on_pipe_1_answers_only_10(void **state)
{
    (void)state;
    fake_lh.pipe_count = 2;
    fake_lh.fail_call = 3; /* count, pipe 0, pipe 1 */
    request(PLM_IPC_OP_GET_PIPE, NULL, 0);
    assert_error_reply(PLM_IPC_OP_GET_PIPE, 0, 10);
    assert_string_equal(fake_lh.calls[2], "lh_get_traffic_pipe_state(1)");
}

static void test_get_pipe_without_pipes_has_length_0(void **state)
{
    (void)state;
    request(PLM_IPC_OP_GET_PIPE, NULL, 0);
    assert_reply(PLM_IPC_OP_GET_PIPE, NULL, 0);
}

static void test_ingress_qos(void **state)
{
    static const uint32_t set[3] = { 1, 5, 2 };
    static const uint32_t get[3] = { 1, 5, JUNK };
    static const uint32_t got[3] = { 1, 5, 2 };

    (void)state;
    fake_lh.qos_priority = 2;
    request(PLM_IPC_OP_SET_INGRESS_QOS, set, 12);
    assert_reply(PLM_IPC_OP_SET_INGRESS_QOS, set, 12);
    assert_string_equal(fake_lh.calls[0], "lh_set_ingress_qos(1, 5, 2)");
    restart();
    request(PLM_IPC_OP_GET_INGRESS_QOS, get, 12);
    assert_reply(PLM_IPC_OP_GET_INGRESS_QOS, got, 12);
    assert_string_equal(fake_lh.calls[0], "lh_get_ingress_qos(1, 5)");
    restart();
    fake_lh.result = -1;
    request(PLM_IPC_OP_SET_INGRESS_QOS, set, 12);
    assert_error_reply(PLM_IPC_OP_SET_INGRESS_QOS, 12, 11);
    restart();
    request(PLM_IPC_OP_GET_INGRESS_QOS, get, 12);
    assert_error_reply(PLM_IPC_OP_GET_INGRESS_QOS, 12, 12);
}

static void test_unknown_op_ids_get_no_answer(void **state)
{
    (void)state;
    request(0xdb000d, NULL, 0);
    request(PLM_IPC_OP_ERROR, NULL, 0);
    assert_int_equal(fake_ipc.sent_count, 0);
    expect_log(LOG_ERR, "Error: PLM IPC request - invalid op id 14352397");
    expect_log(LOG_ERR, "Error: PLM IPC request - invalid op id 14352385");
    expect_no_more_logs();
}

static void test_reply_type_gets_no_answer(void **state)
{
    static const uint32_t words[2] = { 0x100, 0 };

    (void)state;
    request_of_type(PLM_IPC_OP_READ_REG, words, 8, PLM_IPC_MSG_REPLY);
    assert_int_equal(fake_ipc.sent_count, 0);
    assert_int_equal(fake_lh.call_count, 0);
    expect_log(LOG_ERR,
               "Error: IPC Server Callback - unsupported msg type 2");
    expect_no_more_logs();
}

static void test_null_records(void **state)
{
    (void)state;
    plm_ipc_server_callback(NULL, NULL);
    plm_process_ipc_msg(NULL);
    assert_false(plm_ipc_check_recv_length(NULL, 8));
    plm_send_error_msg(NULL, 1);
    expect_log(LOG_ERR, "IPC Server Callback: Null pointer");
    expect_log(LOG_ERR, "Null pointer - PLM process IPC message");
    expect_log(LOG_ERR, "IPC check recv IPC length: Null pointer");
    expect_log(LOG_ERR, "PLM send error message: Null pointer");
    expect_no_more_logs();
    assert_int_equal(fake_ipc.sent_count, 0);
}

static void test_send_failures_are_logged(void **state)
{
    static const uint32_t words[2] = { 0x100, 0 };

    (void)state;
    fake_ipc.send_result = 32;
    request(PLM_IPC_OP_READ_REG, words, 8);
    expect_log(LOG_ERR, "Error: PLM IPC request - send failure 32");
    request(PLM_IPC_OP_READ_REG, words, 7);
    expect_log(LOG_ERR, "Error: PLM send error message - send failure 32");
    expect_no_more_logs();
}

static void test_allocation_failures_leave_no_reply(void **state)
{
    static const uint32_t words[2] = { 0x100, 0 };

    (void)state;
    fail_next_calloc = 1;
    request(PLM_IPC_OP_READ_REG, words, 8);
    expect_log(LOG_ERR, "Out of memory: PLM process IPC read register failed");
    fail_next_calloc = 1;
    request(PLM_IPC_OP_READ_REG, words, 7);
    expect_log(LOG_ERR, "Out of memory: PLM send error message");
    fail_next_calloc = 1;
    fake_lh.pipe_count = 2;
    request(PLM_IPC_OP_GET_PIPE, NULL, 0);
    expect_log(LOG_ERR, "Out of memory: PLM process get pipe failed");
    expect_no_more_logs();
    assert_int_equal(fake_ipc.sent_count, 0);
}

int main(void)
{
#define T(name) cmocka_unit_test_setup_teardown(name, setup, teardown)
    const struct CMUnitTest tests[] = {
        T(test_module_list_fetch_failure_is_retried),
        T(test_length_one_off_answers_code_1_with_client_length),
        T(test_read_register),
        T(test_write_register),
        T(test_loopback),
        T(test_get_stats_reply_bytes),
        T(test_get_stats_record_sizes),
        T(test_get_stats_of_ddr4_answers_6_without_log),
        T(test_stats_of_absent_module_pipe),
        T(test_clear_stats),
        T(test_module_list_reply),
        T(test_module_list_state_unreadable_is_0),
        T(test_empty_module_list_has_length_0),
        T(test_set_pipe),
        T(test_get_pipe),
        T(test_get_pipe_failing_on_pipe_1_answers_only_10),
        T(test_get_pipe_without_pipes_has_length_0),
        T(test_ingress_qos),
        T(test_unknown_op_ids_get_no_answer),
        T(test_reply_type_gets_no_answer),
        T(test_null_records),
        T(test_send_failures_are_logged),
        T(test_allocation_failures_leave_no_reply),
    };

    if (enter_private_tmp() != 0)
        return 1;
    return cmocka_run_group_tests(tests, NULL, NULL);
}
