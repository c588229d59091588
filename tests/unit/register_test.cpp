/* Register access and the bring-up checks. */
#include <stdint.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "fake_device.hpp"
#include "lh_log.hpp"
#include "log_expect.hpp"
#include "private_tmp.hpp"

namespace {

/* The commands given to system(), in order. */
std::vector<std::string> system_commands;

/* Scratch bit 5 stuck at 0. */
void stuck_scratch_write(reg_model *m, uint32_t offset, uint32_t value)
{
    if (offset == 0x0FC)
        value &= ~(1u << 5);
    reg_model_store(m, offset, value);
}

} // namespace

/* system() runs only the PCI command write; recorded instead. */
extern "C" int __wrap_system(const char *command)
{
    system_commands.emplace_back(command);
    return 0;
}

class RegisterTest : public PrivateTmpTest {
protected:
    void TearDown() override
    {
        system_commands.clear();
        if (IsSkipped())
            return;
        fake_device_stop();
    }

    /* The device, not initialised, with its revision and image
     * timestamp. */
    void prepare_bringup(lh_device_desc *desc)
    {
        model = fake_device_start(desc, 0);
        reg_model_store(model, 0x000, 0x00010203);
        reg_model_store(model, 0x010, 0x24031510);
    }

    /* `last` is the last word of the window: read and written, the word
     * after it and the top of the address space refused. */
    void assert_window_bounds(lh_device_desc *desc, uint32_t last,
                              const char *read_line, const char *wrote_line)
    {
        uint32_t value = 0;

        model = fake_device_start(desc, 1);
        reg_model_store(model, last, 0x12345678);
        ASSERT_EQ(lh_read_register(last, &value), 0);
        ASSERT_EQ(value, 0x12345678u);
        expect_log(LOG_DEBUG, read_line);
        ASSERT_EQ(lh_write_register(last, 0xCAFEF00D), 0);
        ASSERT_EQ(reg_model_peek(model, last), 0xCAFEF00Du);
        expect_log(LOG_DEBUG, wrote_line);
        value = 7;
        ASSERT_EQ(lh_read_register(last + 4, &value), -1);
        ASSERT_EQ(value, 7u);
        expect_log(LOG_ERR, "Error - read register failed, - offset too large");
        ASSERT_EQ(lh_write_register(last + 4, 1), -1);
        expect_log(LOG_ERR,
                   "Error - writing register failed, - offset too large");
        ASSERT_EQ(lh_read_register(0xFFFFFFFC, &value), -1);
        expect_log(LOG_ERR, "Error - read register failed, - offset too large");
        expect_no_more_logs();
    }

    reg_model *model = nullptr;
};

TEST_F(RegisterTest, NotInitializedComesFirst)
{
    uint32_t value = 0;

    model = fake_device_start(&lh_desc_base_two_pipes, 0);
    ASSERT_EQ(lh_read_register(2, nullptr), -1);
    ASSERT_EQ(lh_read_register(0, &value), -1);
    ASSERT_EQ(lh_write_register(2, 1), -1);
    expect_log(LOG_ERR, "Error - read register failed, - system not initialized");
    expect_log(LOG_ERR, "Error - read register failed, - system not initialized");
    expect_log(LOG_ERR,
               "Error - write register failed, - system not initialized");
    expect_no_more_logs();
}

TEST_F(RegisterTest, NullValueComesBeforeAlignment)
{
    model = fake_device_start(&lh_desc_base_two_pipes, 1);
    ASSERT_EQ(lh_read_register(2, nullptr), -1);
    expect_log(LOG_ERR, "Null pointer - read register");
    expect_no_more_logs();
}

TEST_F(RegisterTest, AlignmentComesBeforeDeviceLookup)
{
    uint32_t value = 0;

    /* Initialised but without a device: a lookup would log lines. */
    lh_initialized.store(1);
    write_text_file(LH_IDPROM_CACHE_PATH, "CONTROLLER_TYPE=4388\n");
    log_expect_start(&lh_log_file);
    ASSERT_EQ(lh_read_register(2, &value), -1);
    ASSERT_EQ(lh_write_register(0x2A0FE, 1), -1);
    expect_log(LOG_ERR, "Error - read register failed, - offset not word aligned");
    expect_log(LOG_ERR,
               "Error - write register failed, - offset not word aligned");
    expect_no_more_logs();
    /* Aligned, the lookup runs and fails without a message of its own. */
    ASSERT_EQ(lh_read_register(0x2A100, &value), -1);
    ASSERT_EQ(lh_write_register(0x2A100, 1), -1);
    expect_log(LOG_INFO,
               "Informational - pci get map, found controller type 0x1124");
    expect_no_more_logs();
    lh_initialized.store(0);
    lh_pci_cache_reset();
}

TEST_F(RegisterTest, BaseWindowBounds)
{
    assert_window_bounds(&lh_desc_base_two_pipes, 0x2A0FC,
                         "read register - addr 0xf002a0fc, data 0x12345678",
                         "wrote register - addr 0xf002a0fc, data 0xcafef00d");
}

TEST_F(RegisterTest, LhxWindowBounds)
{
    /* The address shown is region 0's whatever BAR is mapped. */
    assert_window_bounds(&lh_desc_lhx, 0x197FC,
                         "read register - addr 0xf00197fc, data 0x12345678",
                         "wrote register - addr 0xf00197fc, data 0xcafef00d");
}

TEST_F(RegisterTest, WriteHasNoReadBack)
{
    model = fake_device_start(&lh_desc_base_two_pipes, 1);
    ASSERT_EQ(lh_write_register(0x100, 1), 0);
    ASSERT_EQ(model->writes, 1u);
    ASSERT_EQ(model->reads, 0u);
}

TEST_F(RegisterTest, BringupChecksBase)
{
    prepare_bringup(&lh_desc_base_two_pipes);
    ASSERT_EQ(lh_bringup_checks(LH_DEV_TYPE_BASE), 0);
    ASSERT_EQ(system_commands.size(), 0u);
    ASSERT_EQ(reg_model_peek(model, 0x0FC), 0x80000000u);
    ASSERT_EQ(lh_initialized.load(), 1);
    expect_log(LOG_INFO, "revision: 0x00010203, image timestamp "
                         "(M/D/Y Hour): 03/15/2024 10:00");
    expect_no_more_logs();
}

TEST_F(RegisterTest, BringupChecksLhxWritesPciCommandFirst)
{
    prepare_bringup(&lh_desc_lhx);
    ASSERT_EQ(lh_bringup_checks(LH_DEV_TYPE_LHX), 0);
    ASSERT_EQ(system_commands,
              std::vector<std::string>{ "setpci -d 1c7a:1d9 COMMAND=0x2" });
    ASSERT_EQ(reg_model_peek(model, 0x0FC), 0x80000000u);
    expect_log(LOG_INFO, "revision: 0x00010203, image timestamp "
                         "(M/D/Y Hour): 03/15/2024 10:00");
    expect_no_more_logs();
}

TEST_F(RegisterTest, ScratchTestFailsOnStuckBit)
{
    uint32_t value;

    prepare_bringup(&lh_desc_base_two_pipes);
    model->on_write = stuck_scratch_write;
    ASSERT_EQ(lh_bringup_checks(LH_DEV_TYPE_BASE), -1);
    /* Bits 0..5 written, the test ends at the first mismatch. */
    ASSERT_EQ(model->writes, 6u);
    ASSERT_EQ(lh_initialized.load(), 0);
    expect_log(LOG_CRIT, "PCI - scratch register test failed");
    expect_no_more_logs();
    ASSERT_EQ(lh_read_register(0, &value), -1);
    expect_log(LOG_ERR, "Error - read register failed, - system not initialized");
}

TEST_F(RegisterTest, BringupWithoutDeviceFailsSilently)
{
    write_text_file(LH_IDPROM_CACHE_PATH, "CONTROLLER_TYPE=4390\n");
    log_expect_start(&lh_log_file);
    ASSERT_EQ(lh_bringup_checks(LH_DEV_TYPE_LHX), -1);
    ASSERT_EQ(system_commands,
              std::vector<std::string>{ "setpci -d 1c7a:1d9 COMMAND=0x2" });
    ASSERT_EQ(lh_initialized.load(), 0);
    expect_log(LOG_INFO,
               "Informational - pci get map, found controller type 0x1126");
    expect_log(LOG_DEBUG, "Control Status Register device not found");
    expect_no_more_logs();
    lh_pci_cache_reset();
}

TEST_F(RegisterTest, TimestampDigitsPrintAsHex)
{
    prepare_bringup(&lh_desc_base_one_pipe);
    reg_model_store(model, 0x000, 0xA5A5A5A5);
    reg_model_store(model, 0x010, 0x99123123);
    ASSERT_EQ(lh_bringup_checks(LH_DEV_TYPE_BASE), 0);
    expect_log(LOG_INFO, "revision: 0xa5a5a5a5, image timestamp "
                         "(M/D/Y Hour): 12/31/2099 23:00");
}
