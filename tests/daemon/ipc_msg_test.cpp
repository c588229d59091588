/* Operation ids, error codes and their texts. */
#include <string.h>

#include <gtest/gtest.h>

#include "ipc_msg.hpp"

namespace {

TEST(IpcMsgTest, ErrorTexts)
{
    static const char *const expected[] = {
        "--", "INVALID LENGTH", "NULL PAYLOAD", "READ FAILED", "WRITE FAILED",
        "LOOPBACK FAILED", "GET STATS FAILED", "CLEAR STATS FAILED",
        "GET MODULE LIST FAILED", "SET PIPE FAILED", "GET PIPE FAILED",
        "SET INGR QOS FAILED", "GET INGR QOS FAILED", "--",
    };

    for (uint32_t code = 0; code < 14; code++)
        EXPECT_STREQ(plm_ipc_error_str(code), expected[code]) << "code " << code;
    EXPECT_STREQ(plm_ipc_error_str(0xFFFFFFFFu), "--");
}

TEST(IpcMsgTest, OperationIds)
{
    EXPECT_EQ(PLM_IPC_APP_ID, 219);
    EXPECT_EQ(PLM_IPC_OP_ERROR, 0xdb0001u);
    EXPECT_EQ(PLM_IPC_OP_READ_REG, 0xdb0002u);
    EXPECT_EQ(PLM_IPC_OP_WRITE_REG, 0xdb0003u);
    EXPECT_EQ(PLM_IPC_OP_SET_LOOPBACK, 0xdb0004u);
    EXPECT_EQ(PLM_IPC_OP_GET_LOOPBACK, 0xdb0005u);
    EXPECT_EQ(PLM_IPC_OP_GET_STATS, 0xdb0006u);
    EXPECT_EQ(PLM_IPC_OP_CLEAR_STATS, 0xdb0007u);
    EXPECT_EQ(PLM_IPC_OP_GET_MODULE_LIST, 0xdb0008u);
    EXPECT_EQ(PLM_IPC_OP_SET_PIPE, 0xdb0009u);
    EXPECT_EQ(PLM_IPC_OP_GET_PIPE, 0xdb000au);
    EXPECT_EQ(PLM_IPC_OP_SET_INGRESS_QOS, 0xdb000bu);
    EXPECT_EQ(PLM_IPC_OP_GET_INGRESS_QOS, 0xdb000cu);
}

TEST(IpcMsgTest, ReplyTypeBytesReadAs0x0201)
{
    plm_ipc_msg reply = {};
    uint8_t bytes[sizeof(reply)];

    reply.aux_byte = 1;
    reply.msg_type = PLM_IPC_MSG_REPLY;
    memcpy(bytes, &reply, sizeof(reply));
    EXPECT_EQ(bytes[12] | bytes[13] << 8, 0x0201);
}

} // namespace
