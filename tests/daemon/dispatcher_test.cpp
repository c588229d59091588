/* The receive callback, the length check, error replies and every
 * operation of the dispatcher, against a fake library and a fake
 * transport. */
#include <ctype.h>
#include <stdlib.h>
#include <string.h>

#include <array>
#include <ostream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "dispatcher.hpp"
#include "fake_ipc.hpp"
#include "fake_lh.hpp"
#include "ipc_server.hpp"
#include "log_expect.hpp"
#include "plm_log.hpp"
#include "private_tmp.hpp"

namespace {

constexpr uint32_t kClient = 0x11u;
constexpr uint32_t kJunk = 0xA5A5A5A5u;

/* The next calloc returns null when set; every later one succeeds. */
bool fail_next_calloc;

} // namespace

extern "C" void *__real_calloc(size_t count, size_t size);

extern "C" void *__wrap_calloc(size_t count, size_t size)
{
    if (fail_next_calloc) {
        fail_next_calloc = false;
        return nullptr;
    }
    return __real_calloc(count, size);
}

namespace {

using ModuleList = std::array<lh_module_entry, 17>;

constexpr ModuleList base_two_pipes = { {
    { 0, 0 }, { 1, 0 }, { 2, 0 }, { 2, 1 }, { 3, 0 }, { 3, 1 },
    { 4, 0 }, { 4, 1 }, { 5, 0 }, { 5, 1 }, { 6, 0 }, { 6, 1 },
    { 7, 0 }, { 7, 1 }, { 8, 0 }, { 8, 1 }, { LH_MOD_END, 0 },
} };

/* The module list the dispatcher caches; tests change its content. */
ModuleList module_list;

/* Sends a request through the receive callback, as the IPC thread does;
 * `bytes` null sends no payload. */
void request_of_type(uint32_t op_id, const void *bytes, uint32_t length,
                     uint8_t msg_type)
{
    std::vector<uint8_t> payload;
    plm_ipc_msg msg = {};

    msg.addr0 = kClient;
    msg.addr1 = PLM_IPC_APP_ID;
    msg.op_id = op_id;
    msg.msg_type = msg_type;
    msg.payload_len = length;
    if (bytes != nullptr) {
        const uint8_t *first = static_cast<const uint8_t *>(bytes);

        /* Exactly `length` bytes (one for none), so a read past the
         * request's end shows under the address sanitizer. */
        payload.assign(first, first + length);
        if (payload.empty())
            payload.push_back(0);
        msg.payload = payload.data();
    }
    plm_ipc_server_callback(nullptr, &msg);
}

void request(uint32_t op_id, const void *bytes, uint32_t length)
{
    request_of_type(op_id, bytes, length, PLM_IPC_MSG_REQUEST);
}

/* Equal bytes, or the first offset where they differ. */
::testing::AssertionResult same_bytes(const std::vector<uint8_t> &actual,
                                      const void *expected, size_t length)
{
    const uint8_t *bytes = static_cast<const uint8_t *>(expected);

    if (actual.size() != length)
        return ::testing::AssertionFailure()
               << actual.size() << " payload bytes, expected " << length;
    for (size_t i = 0; i < length; i++)
        if (actual[i] != bytes[i])
            return ::testing::AssertionFailure()
                   << "payload byte " << i << " is 0x" << std::hex
                   << unsigned{ actual[i] } << ", expected 0x"
                   << unsigned{ bytes[i] };
    return ::testing::AssertionSuccess();
}

void expect_record(const plm_ipc_msg &record, uint32_t op_id,
                   uint32_t length)
{
    EXPECT_EQ(record.addr0, uint32_t{ PLM_IPC_APP_ID });
    EXPECT_EQ(record.addr1, kClient);
    EXPECT_EQ(record.op_id, op_id);
    EXPECT_EQ(record.aux_byte, 1u);
    EXPECT_EQ(record.msg_type, uint8_t{ PLM_IPC_MSG_REPLY });
    EXPECT_EQ(record.payload_len, length);
}

/* The one record sent is the reply `op_id` with these payload bytes. */
void expect_reply(uint32_t op_id, const void *bytes, uint32_t length)
{
    ASSERT_EQ(fake_ipc.sent.size(), 1u);
    const FakeSent &sent = fake_ipc.sent[0];
    expect_record(sent.record, op_id, length);
    if (length == 0)
        EXPECT_EQ(sent.record.payload, nullptr);
    else
        EXPECT_TRUE(same_bytes(sent.payload, bytes, length));
}

/* The one record sent is an error reply to `op_id` carrying the request's
 * length and `code`. */
void expect_error_reply(uint32_t op_id, uint32_t length, uint32_t code)
{
    const uint32_t expected[3] = { op_id, length, code };

    expect_reply(PLM_IPC_OP_ERROR, expected, sizeof(expected));
}

void expect_calls(const std::vector<std::string> &calls)
{
    EXPECT_EQ(fake_lh.calls, calls);
}

/* Forgets what was sent and called, for the next request. */
void restart()
{
    fake_ipc_reset();
    fake_lh.calls.clear();
}

/* A dispatcher that has not fetched the module list yet. */
class DispatcherFirstUseTest : public PrivateTmpTest {
protected:
    void SetUp() override
    {
        PrivateTmpTest::SetUp();
        if (IsSkipped())
            return;
        fake_lh_reset();
        fake_ipc_reset();
        module_list = base_two_pipes;
        fake_lh.module_list = module_list.data();
        log_expect_start(&plm_log_file);
    }

    void TearDown() override
    {
        log_expect_stop();
    }
};

/* A dispatcher that has served requests before: both of its module lists
 * are fetched and cached (pointing at `module_list`), as the daemon runs
 * most of its life. */
class DispatcherTest : public DispatcherFirstUseTest {
protected:
    void SetUp() override
    {
        DispatcherFirstUseTest::SetUp();
        if (IsSkipped() || HasFatalFailure())
            return;
        request(PLM_IPC_OP_GET_MODULE_LIST, nullptr, 0);
        ASSERT_TRUE(plm_module_pipe_valid(0, 0));
        ASSERT_EQ(fake_ipc.sent.size(), 1u);
        restart();
    }
};

TEST_F(DispatcherFirstUseTest, ModuleListFetchFailureIsRetried)
{
    static const uint32_t stats[4] = { 3, 1, 0, 0 };

    fake_lh.module_list_result = -1;
    request(PLM_IPC_OP_GET_MODULE_LIST, nullptr, 0);
    expect_log(LOG_ERR, "Error: failed to retrieve module list");
    expect_error_reply(PLM_IPC_OP_GET_MODULE_LIST, 0, 8);
    restart();
    request(PLM_IPC_OP_GET_STATS, stats, sizeof(stats));
    expect_log(LOG_CRIT, "Error: failed to retrieve module list");
    expect_log(LOG_ERR, "Error: PLM process IPC get stats failed - invalid "
                        "module/pipe (3/1)");
    expect_error_reply(PLM_IPC_OP_GET_STATS, 16, 6);
    expect_no_more_logs();

    /* Both caches fetch again, once each, and then keep the list. */
    fake_lh.module_list_result = 0;
    restart();
    request(PLM_IPC_OP_GET_STATS, stats, sizeof(stats));
    request(PLM_IPC_OP_GET_STATS, stats, sizeof(stats));
    request(PLM_IPC_OP_GET_MODULE_LIST, nullptr, 0);
    request(PLM_IPC_OP_GET_MODULE_LIST, nullptr, 0);
    EXPECT_EQ(fake_ipc.sent.size(), 4u);
    EXPECT_EQ(fake_lh.call(0), "lh_get_module_list()");
    EXPECT_EQ(fake_lh.call(1), "lh_get_statistics(3, 1, 256)");
    EXPECT_EQ(fake_lh.call(2), "lh_get_statistics(3, 1, 256)");
    EXPECT_EQ(fake_lh.call(3), "lh_get_module_list()");
    EXPECT_EQ(fake_lh.call(4), "lh_get_module_state(0, 0)");
    expect_no_more_logs();
}

struct CheckedOp {
    const char *name;
    uint32_t op_id;
    uint32_t length;
};

constexpr CheckedOp checked_ops[] = {
    { "ReadReg", PLM_IPC_OP_READ_REG, 8 },
    { "WriteReg", PLM_IPC_OP_WRITE_REG, 8 },
    { "SetLoopback", PLM_IPC_OP_SET_LOOPBACK, 8 },
    { "GetLoopback", PLM_IPC_OP_GET_LOOPBACK, 8 },
    { "GetStats", PLM_IPC_OP_GET_STATS, 16 },
    { "ClearStats", PLM_IPC_OP_CLEAR_STATS, 16 },
    { "SetPipe", PLM_IPC_OP_SET_PIPE, 8 },
    { "SetIngressQos", PLM_IPC_OP_SET_INGRESS_QOS, 12 },
    { "GetIngressQos", PLM_IPC_OP_GET_INGRESS_QOS, 12 },
};

void PrintTo(const CheckedOp &op, std::ostream *out)
{
    *out << op.name << " (length " << op.length << ")";
}

class DispatcherLengthTest
    : public DispatcherTest,
      public ::testing::WithParamInterface<CheckedOp> {};

TEST_P(DispatcherLengthTest, LengthOneOffAnswersCode1WithClientLength)
{
    const CheckedOp &op = GetParam();
    const uint32_t words[8] = {};

    {
        SCOPED_TRACE("one byte short");
        request(op.op_id, words, op.length - 1);
        expect_error_reply(op.op_id, op.length - 1, 1);
    }
    restart();
    {
        SCOPED_TRACE("one byte long");
        request(op.op_id, words, op.length + 1);
        expect_error_reply(op.op_id, op.length + 1, 1);
    }
    restart();
    {
        SCOPED_TRACE("no payload");
        request(op.op_id, nullptr, op.length);
        expect_error_reply(op.op_id, op.length, 2);
    }
    EXPECT_EQ(fake_lh.calls.size(), 0u);
    expect_no_more_logs();
}

INSTANTIATE_TEST_SUITE_P(
    Ops, DispatcherLengthTest, ::testing::ValuesIn(checked_ops),
    [](const ::testing::TestParamInfo<CheckedOp> &info) {
        return std::string(info.param.name);
    });

TEST_F(DispatcherTest, ReadRegister)
{
    static const uint32_t words[2] = { 0x100, kJunk };
    static const uint32_t reply[2] = { 0x100, 0xCAFEF00D };

    fake_lh.register_value = 0xCAFEF00D;
    request(PLM_IPC_OP_READ_REG, words, 8);
    expect_reply(PLM_IPC_OP_READ_REG, reply, 8);
    expect_calls({ "lh_read_register(0x100)" });
    restart();
    fake_lh.result = -1;
    request(PLM_IPC_OP_READ_REG, words, 8);
    expect_error_reply(PLM_IPC_OP_READ_REG, 8, 3);
    expect_no_more_logs();
}

TEST_F(DispatcherTest, WriteRegister)
{
    static const uint32_t words[2] = { 0x104, 0x55 };

    request(PLM_IPC_OP_WRITE_REG, words, 8);
    expect_reply(PLM_IPC_OP_WRITE_REG, words, 8);
    expect_calls({ "lh_write_register(0x104, 0x55)" });
    restart();
    fake_lh.result = -1;
    request(PLM_IPC_OP_WRITE_REG, words, 8);
    expect_error_reply(PLM_IPC_OP_WRITE_REG, 8, 4);
}

TEST_F(DispatcherTest, Loopback)
{
    static const uint32_t set[2] = { 2, 1 };
    static const uint32_t get[2] = { kJunk, 1 };
    static const uint32_t got[2] = { 0x04, 1 };

    fake_lh.loopback_type = 0x04;
    request(PLM_IPC_OP_SET_LOOPBACK, set, 8);
    expect_reply(PLM_IPC_OP_SET_LOOPBACK, set, 8);
    expect_calls({ "lh_set_loopback(2, 1)" });
    restart();
    request(PLM_IPC_OP_GET_LOOPBACK, get, 8);
    expect_reply(PLM_IPC_OP_GET_LOOPBACK, got, 8);
    expect_calls({ "lh_get_loopback(1)" });
    restart();
    fake_lh.result = -1;
    request(PLM_IPC_OP_SET_LOOPBACK, set, 8);
    expect_error_reply(PLM_IPC_OP_SET_LOOPBACK, 8, 5);
    restart();
    request(PLM_IPC_OP_GET_LOOPBACK, get, 8);
    expect_error_reply(PLM_IPC_OP_GET_LOOPBACK, 8, 5);
}

TEST_F(DispatcherTest, GetStatsReplyBytes)
{
    static const uint32_t words[4] = { 4, 1, kJunk, kJunk };
    const uint64_t size = 8360;
    std::vector<uint8_t> expected(16 + size, 0xAB);

    fake_lh.stats_fill = 0xAB;
    memcpy(expected.data(), words, 8);
    memcpy(expected.data() + 8, &size, 8);
    request(PLM_IPC_OP_GET_STATS, words, 16);
    expect_reply(PLM_IPC_OP_GET_STATS, expected.data(),
                 static_cast<uint32_t>(expected.size()));
    expect_calls({ "lh_get_statistics(4, 1, 8360)" });
    restart();
    fake_lh.result = -1;
    request(PLM_IPC_OP_GET_STATS, words, 16);
    expect_error_reply(PLM_IPC_OP_GET_STATS, 16, 6);
    expect_no_more_logs();
}

/* "ingress-pkt-parser" -> "IngressPktParser", for case names. */
std::string camel_case(const char *name)
{
    std::string text;
    bool upper = true;

    for (; *name != '\0'; name++) {
        if (*name == '-') {
            upper = true;
            continue;
        }
        text += upper ? static_cast<char>(toupper(*name)) : *name;
        upper = false;
    }
    return text;
}

struct RecordSize {
    uint32_t module_id;
    uint32_t size;
};

void PrintTo(const RecordSize &row, std::ostream *out)
{
    *out << "module " << row.module_id << ", " << row.size << " bytes";
}

class DispatcherRecordSizeTest
    : public DispatcherTest,
      public ::testing::WithParamInterface<RecordSize> {};

TEST_P(DispatcherRecordSizeTest, GetStatsRecordSizes)
{
    const RecordSize &row = GetParam();
    const uint32_t words[4] = { row.module_id, 0, 0, 0 };

    request(PLM_IPC_OP_GET_STATS, words, 16);
    expect_calls({ format_text("lh_get_statistics(%u, 0, %u)", row.module_id,
                               row.size) });
    ASSERT_EQ(fake_ipc.sent.size(), 1u);
    EXPECT_EQ(fake_ipc.sent[0].record.payload_len, 16 + row.size);
}

INSTANTIATE_TEST_SUITE_P(
    Modules, DispatcherRecordSizeTest,
    ::testing::Values(RecordSize{ 1, 16 }, RecordSize{ 3, 256 },
                      RecordSize{ 4, 8360 }, RecordSize{ 5, 120 },
                      RecordSize{ 6, 568 }, RecordSize{ 7, 136 },
                      RecordSize{ 8, 144 }),
    [](const ::testing::TestParamInfo<RecordSize> &info) {
        return camel_case(lh_module_names[info.param.module_id]);
    });

TEST_F(DispatcherTest, GetStatsOfDdr4Answers6WithoutLog)
{
    static const uint32_t words[4] = { 2, 1, 0, 0 };

    request(PLM_IPC_OP_GET_STATS, words, 16);
    expect_error_reply(PLM_IPC_OP_GET_STATS, 16, 6);
    EXPECT_EQ(fake_lh.calls.size(), 0u);
    expect_no_more_logs();
}

TEST_F(DispatcherTest, StatsOfAbsentModulePipe)
{
    static const uint32_t absent[4] = { 11, 0, 0, 0 };
    static const uint32_t global_pipe_1[4] = { 0, 1, 0, 0 };

    request(PLM_IPC_OP_GET_STATS, absent, 16);
    expect_error_reply(PLM_IPC_OP_GET_STATS, 16, 6);
    expect_log(LOG_ERR, "Error: PLM process IPC get stats failed - invalid "
                        "module/pipe (11/0)");
    restart();
    /* Clear stats keeps the get-stats message and code 6, not 7. */
    request(PLM_IPC_OP_CLEAR_STATS, global_pipe_1, 16);
    expect_error_reply(PLM_IPC_OP_CLEAR_STATS, 16, 6);
    expect_log(LOG_ERR, "Error: PLM process IPC get stats failed - invalid "
                        "module/pipe (0/1)");
    expect_no_more_logs();
    EXPECT_EQ(fake_lh.calls.size(), 0u);
}

TEST_F(DispatcherTest, ClearStats)
{
    static const uint32_t words[4] = { 5, 1, kJunk, kJunk };
    static const uint32_t reply[4] = { 5, 1, 0, 0 };

    request(PLM_IPC_OP_CLEAR_STATS, words, 16);
    expect_reply(PLM_IPC_OP_CLEAR_STATS, reply, 16);
    expect_calls({ "lh_clear_statistics(5, 1)" });
    restart();
    fake_lh.result = -1;
    request(PLM_IPC_OP_CLEAR_STATS, words, 16);
    expect_error_reply(PLM_IPC_OP_CLEAR_STATS, 16, 7);
}

TEST_F(DispatcherTest, ModuleListReply)
{
    uint8_t expected[16 * 12] = {};

    for (size_t i = 0; i < 16; i++) {
        memcpy(expected + 12 * i, &base_two_pipes[i].module_id, 4);
        memcpy(expected + 12 * i + 4, &base_two_pipes[i].pipe, 4);
    }
    fake_lh.module_states[3][1] = 1;
    expected[5 * 12 + 8] = 1;
    request(PLM_IPC_OP_GET_MODULE_LIST, "any", 3);
    expect_reply(PLM_IPC_OP_GET_MODULE_LIST, expected, sizeof(expected));
    EXPECT_EQ(fake_lh.call(5), "lh_get_module_state(3, 1)");
}

TEST_F(DispatcherTest, ModuleListStateUnreadableIs0)
{
    fake_lh.module_states[3][1] = 1;
    fake_lh.module_state_result = -1;
    request(PLM_IPC_OP_GET_MODULE_LIST, nullptr, 0);
    ASSERT_EQ(fake_ipc.sent.size(), 1u);
    ASSERT_EQ(fake_ipc.sent[0].payload.size(), 16u * 12u);
    EXPECT_EQ(fake_ipc.sent[0].payload[5 * 12 + 8], 0u);
}

TEST_F(DispatcherTest, EmptyModuleListHasLength0)
{
    module_list[0].module_id = LH_MOD_END;
    request(PLM_IPC_OP_GET_MODULE_LIST, nullptr, 0);
    expect_reply(PLM_IPC_OP_GET_MODULE_LIST, nullptr, 0);
}

TEST_F(DispatcherTest, SetPipe)
{
    static const uint32_t words[2] = { 1, 0xABABAB01 };
    static const uint32_t reply[2] = { 1, 0x01 };

    request(PLM_IPC_OP_SET_PIPE, words, 8);
    expect_reply(PLM_IPC_OP_SET_PIPE, reply, 8);
    expect_calls({ "lh_set_traffic_pipe_state(1, 1)" });
    restart();
    fake_lh.result = -1;
    request(PLM_IPC_OP_SET_PIPE, words, 8);
    expect_error_reply(PLM_IPC_OP_SET_PIPE, 8, 9);
}

TEST_F(DispatcherTest, GetPipe)
{
    static const uint32_t reply[4] = { 0, 1, 1, 0 };

    fake_lh.pipe_count = 2;
    fake_lh.pipe_states[0] = 1;
    request(PLM_IPC_OP_GET_PIPE, nullptr, 0);
    expect_reply(PLM_IPC_OP_GET_PIPE, reply, 16);
}

TEST_F(DispatcherTest, GetPipeFailingOnPipe1AnswersOnly10)
{
    fake_lh.pipe_count = 2;
    fake_lh.fail_call = 3; /* count, pipe 0, pipe 1 */
    request(PLM_IPC_OP_GET_PIPE, nullptr, 0);
    expect_error_reply(PLM_IPC_OP_GET_PIPE, 0, 10);
    EXPECT_EQ(fake_lh.call(2), "lh_get_traffic_pipe_state(1)");
}

TEST_F(DispatcherTest, GetPipeWithoutPipesHasLength0)
{
    request(PLM_IPC_OP_GET_PIPE, nullptr, 0);
    expect_reply(PLM_IPC_OP_GET_PIPE, nullptr, 0);
}

TEST_F(DispatcherTest, IngressQos)
{
    static const uint32_t set[3] = { 1, 5, 2 };
    static const uint32_t get[3] = { 1, 5, kJunk };
    static const uint32_t got[3] = { 1, 5, 2 };

    fake_lh.qos_priority = 2;
    request(PLM_IPC_OP_SET_INGRESS_QOS, set, 12);
    expect_reply(PLM_IPC_OP_SET_INGRESS_QOS, set, 12);
    EXPECT_EQ(fake_lh.call(0), "lh_set_ingress_qos(1, 5, 2)");
    restart();
    request(PLM_IPC_OP_GET_INGRESS_QOS, get, 12);
    expect_reply(PLM_IPC_OP_GET_INGRESS_QOS, got, 12);
    EXPECT_EQ(fake_lh.call(0), "lh_get_ingress_qos(1, 5)");
    restart();
    fake_lh.result = -1;
    request(PLM_IPC_OP_SET_INGRESS_QOS, set, 12);
    expect_error_reply(PLM_IPC_OP_SET_INGRESS_QOS, 12, 11);
    restart();
    request(PLM_IPC_OP_GET_INGRESS_QOS, get, 12);
    expect_error_reply(PLM_IPC_OP_GET_INGRESS_QOS, 12, 12);
}

TEST_F(DispatcherTest, UnknownOpIdsGetNoAnswer)
{
    request(0xdb000d, nullptr, 0);
    request(PLM_IPC_OP_ERROR, nullptr, 0);
    EXPECT_EQ(fake_ipc.sent.size(), 0u);
    expect_log(LOG_ERR, "Error: PLM IPC request - invalid op id 14352397");
    expect_log(LOG_ERR, "Error: PLM IPC request - invalid op id 14352385");
    expect_no_more_logs();
}

TEST_F(DispatcherTest, ReplyTypeGetsNoAnswer)
{
    static const uint32_t words[2] = { 0x100, 0 };

    request_of_type(PLM_IPC_OP_READ_REG, words, 8, PLM_IPC_MSG_REPLY);
    EXPECT_EQ(fake_ipc.sent.size(), 0u);
    EXPECT_EQ(fake_lh.calls.size(), 0u);
    expect_log(LOG_ERR,
               "Error: IPC Server Callback - unsupported msg type 2");
    expect_no_more_logs();
}

TEST_F(DispatcherTest, NullRecords)
{
    plm_ipc_server_callback(nullptr, nullptr);
    plm_process_ipc_msg(nullptr);
    EXPECT_FALSE(plm_ipc_check_recv_length(nullptr, 8));
    plm_send_error_msg(nullptr, 1);
    expect_log(LOG_ERR, "IPC Server Callback: Null pointer");
    expect_log(LOG_ERR, "Null pointer - PLM process IPC message");
    expect_log(LOG_ERR, "IPC check recv IPC length: Null pointer");
    expect_log(LOG_ERR, "PLM send error message: Null pointer");
    expect_no_more_logs();
    EXPECT_EQ(fake_ipc.sent.size(), 0u);
}

TEST_F(DispatcherTest, SendFailuresAreLogged)
{
    static const uint32_t words[2] = { 0x100, 0 };

    fake_ipc.send_result = 32;
    request(PLM_IPC_OP_READ_REG, words, 8);
    expect_log(LOG_ERR, "Error: PLM IPC request - send failure 32");
    request(PLM_IPC_OP_READ_REG, words, 7);
    expect_log(LOG_ERR, "Error: PLM send error message - send failure 32");
    expect_no_more_logs();
}

/* A client that left without reading fails every reply: one line a
 * minute per kind, not one per request. */
TEST_F(DispatcherTest, RepeatedSendFailuresAreLoggedOnce)
{
    static const uint32_t words[2] = { 0x100, 0 };

    fake_ipc.send_result = 32;
    for (int i = 0; i < 3; i++) {
        request(PLM_IPC_OP_READ_REG, words, 8);
        request(PLM_IPC_OP_READ_REG, words, 7);
    }
    expect_log(LOG_ERR, "Error: PLM IPC request - send failure 32");
    expect_log(LOG_ERR, "Error: PLM send error message - send failure 32");
    expect_no_more_logs();
    EXPECT_EQ(fake_ipc.sent.size(), 6u);
}

TEST_F(DispatcherTest, AllocationFailuresLeaveNoReply)
{
    static const uint32_t words[2] = { 0x100, 0 };

    fail_next_calloc = true;
    request(PLM_IPC_OP_READ_REG, words, 8);
    expect_log(LOG_ERR, "Out of memory: PLM process IPC read register failed");
    fail_next_calloc = true;
    request(PLM_IPC_OP_READ_REG, words, 7);
    expect_log(LOG_ERR, "Out of memory: PLM send error message");
    fail_next_calloc = true;
    fake_lh.pipe_count = 2;
    request(PLM_IPC_OP_GET_PIPE, nullptr, 0);
    expect_log(LOG_ERR, "Out of memory: PLM process get pipe failed");
    expect_no_more_logs();
    EXPECT_EQ(fake_ipc.sent.size(), 0u);
}

} // namespace
