/* lh_fpga_init, the device bring-ups and lh_fpga_shutdown, on a register
 * model; the PCI bus scan is left out at link time. */
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <initializer_list>
#include <memory>

#include <gtest/gtest.h>

#include "fake_device.hpp"
#include "lh_log.hpp"
#include "log_expect.hpp"
#include "owned.hpp"
#include "mutex_wrap.hpp"
#include "private_tmp.hpp"
#include "syslog_capture.hpp"

/* The fake device already stands where the bus would show one. */
extern "C" int __wrap_lh_pci_system_init(lh_device_desc *descs,
                                         uint32_t count)
{
    (void)descs;
    (void)count;
    return 0;
}

/* The LHX PCI command write is not run. */
extern "C" int __wrap_system(const char *command)
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

namespace {

struct Logged {
    int severity;
    const char *text;
};

void expect_logs(std::initializer_list<Logged> lines)
{
    for (const Logged &line : lines)
        expect_log(line.severity, line.text);
}

using FileText = pellin::Malloced<char>;

} // namespace

class InitTest : public PrivateDirsTest {
protected:
    void TearDown() override
    {
        if (IsSkipped())
            return;
        lh_fpga_shutdown();
        lh_desc_base_two_pipes.device_type = LH_DEV_TYPE_BASE;
        fake_device_stop();
    }

    /* The device with its revision and image timestamp, expectations
     * started, every mutex initialisation succeeding. */
    static reg_model *start(lh_device_desc *desc)
    {
        reg_model *model = fake_device_start(desc, 0);

        reg_model_store(model, 0x000, 0x00010203);
        reg_model_store(model, 0x010, 0x24031510);
        mutex_inits = 0;
        mutex_init_failing_call = 0;
        return model;
    }
};

TEST_F(InitTest, TwoPipeBaseDevice)
{
    start(&lh_desc_base_two_pipes);
    ASSERT_EQ(lh_fpga_init(log_expect_path()), 0);
    expect_logs({
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
    });
    ASSERT_EQ(lh_initialized.load(), 1);
    lh_fpga_shutdown();
    /* The thread ends after its current sleep and scan. */
    ASSERT_EQ(syslog_capture_count(), 20u);
    ASSERT_STREQ(syslog_capture_get(19)->text, POLL_TERMINATED);
    ASSERT_FALSE(log_sink_is_open(&lh_log_file));
}

TEST_F(InitTest, OnePipeBaseDevice)
{
    start(&lh_desc_base_one_pipe);
    ASSERT_EQ(lh_fpga_init(log_expect_path()), 0);
    expect_logs({
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
    });
}

TEST_F(InitTest, LhxDevice)
{
    start(&lh_desc_lhx);
    ASSERT_EQ(lh_fpga_init(log_expect_path()), 0);
    expect_logs({
        { LOG_INFO, REVISION_LINE },
        { LOG_INFO, CREATED("LHX Global", 0) },
        { LOG_INFO, CREATED("LHX PCIe", 0) },
        { LOG_INFO, CREATED("Eth", 0) },
        { LOG_INFO, CREATED("LHX NIC", 0) },
        { LOG_INFO, CREATED("LHX Ingress Pkt Parser", 0) },
        { LOG_INFO, CREATED("LHX Egress Scheduler", 0) },
        { LOG_DEBUG, POLL_STARTED },
        { LOG_INFO, INITIALIZED },
    });
}

TEST_F(InitTest, FailedContextStopsBringUpButLeavesItInitialised)
{
    uint32_t value = 0;

    start(&lh_desc_base_two_pipes);
    mutex_init_failing_call = 3; /* PCIe, CAUI 0, then CAUI 1 */
    ASSERT_EQ(lh_fpga_init(log_expect_path()), -1);
    ASSERT_EQ(lh_read_register(0x010, &value), 0);
    ASSERT_EQ(value, 0x24031510u);
    expect_logs({
        { LOG_INFO, REVISION_LINE },
        { LOG_INFO, CREATED("Global", 0) },
        { LOG_INFO, CREATED("PCIe", 0) },
        { LOG_INFO, CREATED("DDR4", 0) },
        { LOG_INFO, CREATED("DDR4", 1) },
        { LOG_INFO, CREATED("CAUI", 0) },
        { LOG_CRIT,
          "Error - CAUI module context create - mutex init failed" },
        { LOG_DEBUG, "read register - addr 0xf0000010, data 0x24031510" },
    });
    expect_no_more_logs();
    /* No poll thread was started: shutdown only closes the log. */
    lh_fpga_shutdown();
    ASSERT_FALSE(log_sink_is_open(&lh_log_file));
    ASSERT_EQ(syslog_capture_count(), 8u);
}

/* An id of the other image or none at all is refused and the walk goes
 * on; a per-pipe block on a pipe above 1 is skipped without a word. */
TEST_F(InitTest, UnsupportedModulesAreRefusedAndSkipped)
{
    static const lh_module_entry odd_list[] = {
        { LH_MOD_LHX_GLOBAL, 0 }, { LH_MOD_DDR4, 2 }, { 16, 0 },
        { LH_MOD_GLOBAL, 0 }, { LH_MOD_END, 0 },
    };
    const lh_module_entry *list = lh_desc_base_one_pipe.module_list;

    start(&lh_desc_base_one_pipe);
    lh_desc_base_one_pipe.module_list = odd_list;
    int result = lh_base_device_init();
    lh_desc_base_one_pipe.module_list = list;
    ASSERT_EQ(result, 0);
    expect_log(LOG_INFO, REVISION_LINE);
    expect_log(LOG_ERR, UNSUPPORTED(9));
    expect_log(LOG_ERR, UNSUPPORTED(16));
    expect_log(LOG_INFO, CREATED("Global", 0));
    expect_no_more_logs();
}

TEST_F(InitTest, UnsupportedDeviceTypeFailsSilently)
{
    start(&lh_desc_base_two_pipes);
    lh_desc_base_two_pipes.device_type = LH_DEV_TYPE_UNSUPPORTED;
    ASSERT_EQ(lh_fpga_init(log_expect_path()), -1);
    expect_no_more_logs();
    ASSERT_EQ(lh_initialized.load(), 0);
}

TEST_F(InitTest, UnknownDeviceType)
{
    start(&lh_desc_base_two_pipes);
    lh_desc_base_two_pipes.device_type = 7;
    ASSERT_EQ(lh_fpga_init(log_expect_path()), -1);
    expect_log(LOG_CRIT, "PCI - unknown device type (7)");
    expect_no_more_logs();
}

TEST_F(InitTest, DefaultLogPath)
{
    start(&lh_desc_lhx);
    log_expect_stop();
    ASSERT_EQ(lh_fpga_init(nullptr), 0);
    lh_fpga_shutdown();
    FileText content(read_whole_file(LH_LOG_DEFAULT_PATH, nullptr));
    ASSERT_NE(content, nullptr);
    ASSERT_NE(strstr(content.get(), ": " INITIALIZED "\n"), nullptr);
    ASSERT_NE(strstr(content.get(), ": " POLL_TERMINATED "\n"), nullptr);
}

TEST_F(InitTest, UnwritableLogLeavesSyslog)
{
    start(&lh_desc_lhx);
    log_expect_stop();
    syslog_capture_reset();
    ASSERT_EQ(lh_fpga_init("/tmp/no/such/dir/lh.log"), 0);
    ASSERT_FALSE(log_sink_is_open(&lh_log_file));
    ASSERT_GT(syslog_capture_count(), 0u);
    ASSERT_STREQ(syslog_capture_get(syslog_capture_count() - 1)->text,
                 INITIALIZED);
}
