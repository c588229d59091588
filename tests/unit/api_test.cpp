/* The public API's checks in order, and its dispatch by device type and by
 * module id, down to the drivers on a register model. */
#include <stdint.h>
#include <string.h>

#include <gtest/gtest.h>

#include "fake_device.hpp"
#include "lh_log.hpp"
#include "log_expect.hpp"
#include "private_tmp.hpp"

namespace {

constexpr uint32_t caui_control(uint32_t pipe)
{
    return 0x10000u * (pipe + 1) + 0x820;
}

constexpr uint32_t caui_status(uint32_t pipe)
{
    return 0x10000u * (pipe + 1) + 0x824;
}

constexpr uint32_t eth_control = 0x11020u;
constexpr uint32_t eth_status = 0x11024u;

} // namespace

/* The LHX PCI command write is not run. */
extern "C" int __wrap_system(const char *command)
{
    (void)command;
    return 0;
}

class ApiTest : public PrivateDirsTest {
protected:
    void TearDown() override
    {
        if (IsSkipped())
            return;
        lh_desc_base_two_pipes.device_type = LH_DEV_TYPE_BASE;
        fake_device_stop();
    }

    /* A device with its blocks created and its ports aligned, expectations
     * started after the bring-up's lines. */
    static reg_model *bring_up(lh_device_desc *desc)
    {
        reg_model *model = fake_device_install(desc, 0);

        if (desc == &lh_desc_lhx) {
            reg_model_store(model, eth_status, 1u << 3);
        } else {
            reg_model_store(model, caui_status(0), 1u << 24);
            reg_model_store(model, caui_status(1), 1u << 24);
        }
        EXPECT_EQ(desc == &lh_desc_lhx ? lh_lhx_device_init()
                                       : lh_base_device_init(),
                  0);
        log_expect_start(&lh_log_file);
        return model;
    }
};

TEST_F(ApiTest, NotInitialisedComesFirstEvenWithNull)
{
    lh_qos_profile_t qos = { 5, 2 };

    fake_device_start(&lh_desc_base_two_pipes, 0);
    ASSERT_EQ(lh_set_traffic_pipe_state(0, 1), -1);
    ASSERT_EQ(lh_get_traffic_pipe_state(0, nullptr), -1);
    ASSERT_EQ(lh_set_ingress_qos(0, qos), -1);
    ASSERT_EQ(lh_get_ingress_qos(0, nullptr), -1);
    ASSERT_EQ(lh_set_loopback(0, 0), -1);
    ASSERT_EQ(lh_get_loopback(nullptr, 0), -1);
    ASSERT_EQ(lh_get_statistics(3, 0, nullptr, 0), -1);
    ASSERT_EQ(lh_clear_statistics(3, 0), -1);
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

TEST_F(ApiTest, OnePipeDeviceRefusesPipe1Everywhere)
{
    uint8_t pipe_state = 7;
    uint32_t type = 7;
    uint64_t buffer[32];

    bring_up(&lh_desc_base_one_pipe);
    ASSERT_EQ(lh_set_traffic_pipe_state(1, 1), -1);
    ASSERT_EQ(lh_get_traffic_pipe_state(1, &pipe_state), -1);
    ASSERT_EQ(lh_set_loopback(0, 1), -1);
    ASSERT_EQ(lh_get_loopback(&type, 1), -1);
    ASSERT_EQ(lh_get_statistics(3, 1, buffer, sizeof(buffer)), -1);
    ASSERT_EQ(lh_clear_statistics(3, 1), -1);
    ASSERT_EQ(pipe_state, 7);
    ASSERT_EQ(type, 7u);
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

TEST_F(ApiTest, UnknownLoopbackTypeAfterTheDevice)
{
    bring_up(&lh_desc_base_two_pipes);
    ASSERT_EQ(lh_set_loopback(5, 0), -1);
    expect_log(LOG_ERR, "Error: set loopback failed - unknown loopback type (5)");
    ASSERT_EQ(lh_set_loopback(0, 0), 0);
    expect_log(LOG_INFO, "Informational - CAUI interface 0 loopback disabled");
    expect_no_more_logs();
}

TEST_F(ApiTest, OrderOfNullAndPipeChecks)
{
    bring_up(&lh_desc_base_two_pipes);
    ASSERT_EQ(lh_get_traffic_pipe_state(2, nullptr), -1);
    ASSERT_EQ(lh_get_loopback(nullptr, 2), -1);
    ASSERT_EQ(lh_get_statistics(3, 2, nullptr, 0), -1);
    ASSERT_EQ(lh_get_statistics(3, 0, nullptr, 0), -1);
    expect_log(LOG_ERR, "Null pointer - get traffic pipe state");
    expect_log(LOG_ERR, "Error - get loopback call failed, - invalid pipe 2");
    expect_log(LOG_ERR,
               "Error - get statistics call failed, - invalid pipe 2");
    expect_log(LOG_ERR, "Null pointer - get statistics");
    expect_no_more_logs();
}

TEST_F(ApiTest, ModulesWithoutStatisticsFailSilently)
{
    static constexpr uint32_t silent[] = { 0, 2, 9, 15, 16, 0xFFFFFFFF };
    uint64_t buffer[32];

    bring_up(&lh_desc_base_two_pipes);
    for (uint32_t module_id : silent) {
        SCOPED_TRACE(format_text("module id %u", module_id));
        ASSERT_EQ(lh_get_statistics(module_id, 0, buffer, 8), -1);
        ASSERT_EQ(lh_clear_statistics(module_id, 0), -1);
    }
    expect_no_more_logs();
}

TEST_F(ApiTest, StatisticsByModuleId)
{
    uint64_t caui[32], parser[15];

    bring_up(&lh_desc_base_two_pipes);
    memset(caui, 0xAA, sizeof(caui));
    memset(parser, 0xAA, sizeof(parser));
    ASSERT_EQ(lh_get_statistics(3, 1, caui, sizeof(caui)), 0);
    ASSERT_EQ(lh_get_statistics(5, 1, parser, sizeof(parser)), 0);
    ASSERT_EQ(caui[0] | caui[31] | parser[0] | parser[14], 0u);
    ASSERT_EQ(lh_clear_statistics(5, 0), 0);
    /* The driver's refusal is handed back unchanged. */
    ASSERT_EQ(lh_get_statistics(3, 0, caui, 255), -1);
    expect_log(LOG_ERR, "Error - CAUI get interface stats failed, unexpected "
                        "memory size 255");
    expect_no_more_logs();
}

TEST_F(ApiTest, StatisticsOfTheOtherImageReachItsDriver)
{
    uint64_t buffer[15];

    bring_up(&lh_desc_base_two_pipes);
    ASSERT_EQ(lh_get_statistics(13, 1, buffer, sizeof(buffer)), -1);
    expect_log(LOG_CRIT, "Error - LHX Ingress Pkt Parser get stats - invalid "
                         "context 1");
    expect_no_more_logs();
}

TEST_F(ApiTest, PipeStateGoesToCauiOnBase)
{
    reg_model *model = bring_up(&lh_desc_base_two_pipes);
    uint8_t pipe_state = 7;

    ASSERT_EQ(lh_set_traffic_pipe_state(1, 1), 0);
    ASSERT_EQ(reg_model_peek(model, caui_control(1)) & 0x900, 0x100u);
    ASSERT_EQ(reg_model_peek(model, caui_control(0)), 0u);
    expect_log(LOG_INFO, "Informational - CAUI interface 1 enabled");
    expect_log(LOG_INFO, "Informational - CAUI interface 1 receive aligned");
    ASSERT_EQ(lh_get_traffic_pipe_state(1, &pipe_state), 0);
    ASSERT_EQ(pipe_state, 1);
    /* Only the low 8 bits of the state reach the driver. */
    ASSERT_EQ(lh_set_traffic_pipe_state(1, 0x100), 0);
    expect_log(LOG_INFO, "Informational - CAUI interface 1 disabled");
    ASSERT_EQ(lh_get_traffic_pipe_state(1, &pipe_state), 0);
    ASSERT_EQ(pipe_state, 0);
    expect_no_more_logs();
}

TEST_F(ApiTest, PipeStateAndLoopbackGoToEthOnLhx)
{
    reg_model *model = bring_up(&lh_desc_lhx);
    uint32_t type = 0xFF;

    ASSERT_EQ(lh_set_traffic_pipe_state(0, 1), 0);
    ASSERT_EQ(reg_model_peek(model, eth_control) & 0x900, 0x100u);
    expect_log(LOG_INFO, "Informational - Eth interface 0 enabled");
    expect_log(LOG_INFO, "Informational - Eth interface 0 receive aligned");
    ASSERT_EQ(lh_set_loopback(3, 0), 0);
    expect_log(LOG_INFO,
               "Informational - Eth interface 0 loopback (pma-far) enabled");
    ASSERT_EQ(lh_get_loopback(&type, 0), 0);
    ASSERT_EQ(type, 0x08u);
    expect_no_more_logs();
}

TEST_F(ApiTest, LoopbackOutputIsZeroedThenOred)
{
    uint32_t type = 0xFFFFFFFF;

    bring_up(&lh_desc_base_two_pipes);
    ASSERT_EQ(lh_get_loopback(&type, 0), 0);
    ASSERT_EQ(type, 0u);
    ASSERT_EQ(lh_set_loopback(1, 0), 0);
    type = 0xFFFFFFFF;
    ASSERT_EQ(lh_get_loopback(&type, 0), 0);
    ASSERT_EQ(type, 0x02u);
}

TEST_F(ApiTest, QosGoesToTheParserWithoutAPipeCheck)
{
    lh_qos_profile_t qos = { 5, 2 };
    lh_qos_profile_t read_back = { 5, 9 };

    bring_up(&lh_desc_base_two_pipes);
    ASSERT_EQ(lh_set_ingress_qos(1, qos), 0);
    expect_log(LOG_INFO, "Informational - Ingress Pkt Parser set QoS profile "
                         "id 0x05 on pipe 1 with priority HIGH");
    ASSERT_EQ(lh_get_ingress_qos(1, &read_back), 0);
    ASSERT_EQ(read_back.priority, 2u);
    ASSERT_EQ(lh_set_ingress_qos(2, qos), -1);
    expect_log(LOG_ERR,
               "Error - Ingress Pkt Parser QoS set profile - invalid pipe 2");
    qos.priority = 3;
    ASSERT_EQ(lh_set_ingress_qos(0, qos), -1);
    expect_log(LOG_ERR, "Error - Ingress Pkt Parser QoS set profile on pipe 0 "
                        "- invalid QoS priority 3 for profile id 0x05");
    expect_no_more_logs();
}

TEST_F(ApiTest, QosGoesToTheLhxParserOnLhx)
{
    lh_qos_profile_t qos = { 0x7F, 1 };

    bring_up(&lh_desc_lhx);
    ASSERT_EQ(lh_set_ingress_qos(0, qos), 0);
    expect_log(LOG_INFO, "Informational - LHX Ingress Pkt Parser set QoS "
                         "profile id 0x7f on pipe 0 with priority MED");
    expect_no_more_logs();
}

TEST_F(ApiTest, OtherDeviceTypeFailsSilently)
{
    lh_qos_profile_t qos = { 5, 2 };
    uint8_t pipe_state;
    uint32_t type;

    bring_up(&lh_desc_base_two_pipes);
    lh_desc_base_two_pipes.device_type = LH_DEV_TYPE_UNSUPPORTED;
    ASSERT_EQ(lh_set_traffic_pipe_state(0, 1), -1);
    ASSERT_EQ(lh_get_traffic_pipe_state(0, &pipe_state), -1);
    ASSERT_EQ(lh_set_ingress_qos(0, qos), -1);
    ASSERT_EQ(lh_get_ingress_qos(0, &qos), -1);
    ASSERT_EQ(lh_set_loopback(9, 0), -1);
    ASSERT_EQ(lh_get_loopback(&type, 0), -1);
    expect_no_more_logs();
}
