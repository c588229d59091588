/* Part 1.4: operation ids, error codes and their texts. */
#include "cmocka_all.h"
#include "ipc_msg.hpp"

static void test_error_texts(void **state)
{
    static const char *const expected[] = {
        "--", "INVALID LENGTH", "NULL PAYLOAD", "READ FAILED", "WRITE FAILED",
        "LOOPBACK FAILED", "GET STATS FAILED", "CLEAR STATS FAILED",
        "GET MODULE LIST FAILED", "SET PIPE FAILED", "GET PIPE FAILED",
        "SET INGR QOS FAILED", "GET INGR QOS FAILED", "--",
    };

    (void)state;
    for (uint32_t code = 0; code < 14; code++)
        assert_string_equal(plm_ipc_error_str(code), expected[code]);
    assert_string_equal(plm_ipc_error_str(0xFFFFFFFFu), "--");
}

static void test_operation_ids(void **state)
{
    (void)state;
    assert_int_equal(PLM_IPC_APP_ID, 219);
    assert_int_equal(PLM_IPC_OP_ERROR, 0xdb0001);
    assert_int_equal(PLM_IPC_OP_READ_REG, 0xdb0002);
    assert_int_equal(PLM_IPC_OP_WRITE_REG, 0xdb0003);
    assert_int_equal(PLM_IPC_OP_SET_LOOPBACK, 0xdb0004);
    assert_int_equal(PLM_IPC_OP_GET_LOOPBACK, 0xdb0005);
    assert_int_equal(PLM_IPC_OP_GET_STATS, 0xdb0006);
    assert_int_equal(PLM_IPC_OP_CLEAR_STATS, 0xdb0007);
    assert_int_equal(PLM_IPC_OP_GET_MODULE_LIST, 0xdb0008);
    assert_int_equal(PLM_IPC_OP_SET_PIPE, 0xdb0009);
    assert_int_equal(PLM_IPC_OP_GET_PIPE, 0xdb000a);
    assert_int_equal(PLM_IPC_OP_SET_INGRESS_QOS, 0xdb000b);
    assert_int_equal(PLM_IPC_OP_GET_INGRESS_QOS, 0xdb000c);
}

static void test_reply_type_bytes_read_as_0x0201(void **state)
{
    plm_ipc_msg reply = { .aux_byte = 1, .msg_type = PLM_IPC_MSG_REPLY };
    const uint8_t *bytes = (const uint8_t *)&reply;

    (void)state;
    assert_int_equal(bytes[12] | bytes[13] << 8, 0x0201);
}

int main(void)
{
    const struct CMUnitTest tests[] = {
        cmocka_unit_test(test_error_texts),
        cmocka_unit_test(test_operation_ids),
        cmocka_unit_test(test_reply_type_bytes_read_as_0x0201),
    };

    return cmocka_run_group_tests(tests, NULL, NULL);
}
