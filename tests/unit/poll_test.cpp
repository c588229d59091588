/* One poll scan over the module list, fatal reports, FAILED marking, the
 * dump and the callback. */
#include <dirent.h>
#include <stdint.h>
#include <string.h>
#include <unistd.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "fake_device.hpp"
#include "lh_log.hpp"
#include "log_expect.hpp"
#include "private_tmp.hpp"

#define LOGS "/opt/orvel/platform/logs"

/* The LHX PCI command write is not run. */
extern "C" int __wrap_system(const char *command)
{
    (void)command;
    return 0;
}

namespace {

constexpr uint32_t caui1_fatal = 0x20000 + 0x800;
constexpr uint32_t parser0_counter = 0x16000 + 0x50;

/* What the callbacks were given. */
std::vector<lh_fatal_error_t> reports;
int other_reports;

void record_report(lh_fatal_error_t report) noexcept
{
    reports.push_back(report);
}

void record_other(lh_fatal_error_t report) noexcept
{
    (void)report;
    other_reports++;
}

/* Reads of the CAUI 1 fatal-error register and of a parser 0 counter. */
constexpr uint32_t watched[2] = { caui1_fatal, parser0_counter };
unsigned int reads_at[2];

uint32_t count_reads(reg_model *model, uint32_t offset, uint32_t stored)
{
    (void)model;
    for (int i = 0; i < 2; i++)
        if (offset == watched[i])
            reads_at[i]++;
    return stored;
}

/* The dump files in the log directory, or -1 when it cannot be read. */
int count_dumps()
{
    DIR *dir = opendir(LOGS);
    struct dirent *entry;
    int count = 0;

    EXPECT_NE(dir, nullptr) << LOGS;
    if (dir == nullptr)
        return -1;
    while ((entry = readdir(dir)) != nullptr)
        count += strncmp(entry->d_name, "lark_hollow_dump__", 18) == 0;
    closedir(dir);
    return count;
}

void remove_dumps()
{
    DIR *dir = opendir(LOGS);
    struct dirent *entry;

    if (dir == nullptr)
        return;
    while ((entry = readdir(dir)) != nullptr) {
        if (entry->d_name[0] == '.')
            continue;
        unlink((std::string(LOGS "/") + entry->d_name).c_str());
    }
    closedir(dir);
}

} // namespace

class PollTest : public PrivateDirsTest {
protected:
    void TearDown() override
    {
        if (IsSkipped())
            return;
        lh_register_fatal_error_cb(nullptr);
        remove_dumps();
        fake_device_stop();
    }

    /* A device with its block contexts created, the watched registers
     * counted, no report yet. */
    static reg_model *bring_up(lh_device_desc *desc)
    {
        reg_model *model = fake_device_install(desc, 0);

        EXPECT_EQ(desc == &lh_desc_lhx ? lh_lhx_device_init()
                                       : lh_base_device_init(),
                  0);
        reads_at[0] = reads_at[1] = 0;
        model->on_read = count_reads;
        reports.clear();
        other_reports = 0;
        log_expect_start(&lh_log_file);
        return model;
    }
};

TEST_F(PollTest, FatalBlockIsFailedDumpedAndReportedOnce)
{
    reg_model *model = bring_up(&lh_desc_base_two_pipes);
    lh_fatal_error_t report = { 0, 0, nullptr };
    lh_module_entry caui1 = { LH_MOD_CAUI, 1 };
    uint8_t module_state = 0;

    lh_register_fatal_error_cb(record_report);
    reg_model_store(model, caui1_fatal, 1u << 9);
    lh_sys_poll_scan(&lh_desc_base_two_pipes, &report);
    expect_log(LOG_CRIT, "FATAL - CAUI pipe 1: TX Buffer FIFO Underflow");
    expect_no_more_logs();
    ASSERT_EQ(reports.size(), 1u);
    ASSERT_EQ(reports[0].module_id, static_cast<uint32_t>(LH_MOD_CAUI));
    ASSERT_EQ(reports[0].pipe, 1u);
    ASSERT_STREQ(reports[0].error_text, "TX Buffer FIFO Underflow");
    ASSERT_EQ(lh_get_module_state(caui1, &module_state), 0);
    ASSERT_EQ(module_state, 1);
    ASSERT_EQ(count_dumps(), 1);
    /* The parser after it was polled in the same scan: one read by the
     * dump of the whole window, one by its update. */
    ASSERT_EQ(reads_at[1], 2u);

    /* Never called again: no read, no report, no second dump. */
    reads_at[0] = 0;
    lh_sys_poll_scan(&lh_desc_base_two_pipes, &report);
    ASSERT_EQ(reads_at[0], 0u);
    ASSERT_EQ(reads_at[1], 3u);
    ASSERT_EQ(reports.size(), 1u);
    ASSERT_EQ(count_dumps(), 1);
    expect_no_more_logs();
}

TEST_F(PollTest, WithoutCallbackStateAndDumpStillHappen)
{
    reg_model *model = bring_up(&lh_desc_base_two_pipes);
    lh_fatal_error_t report = { 0, 0, nullptr };

    lh_register_fatal_error_cb(nullptr);
    reg_model_store(model, caui1_fatal, 1u << 1);
    lh_sys_poll_scan(&lh_desc_base_two_pipes, &report);
    expect_log(LOG_CRIT, "FATAL - CAUI pipe 1: CAUI IP TX Underflow");
    ASSERT_EQ(lh_module_state[LH_MOD_CAUI][1].load(), 1);
    ASSERT_EQ(count_dumps(), 1);
}

TEST_F(PollTest, LaterCallbackReplacesTheEarlier)
{
    reg_model *model = bring_up(&lh_desc_lhx);
    lh_fatal_error_t report = { 0, 0, nullptr };

    lh_register_fatal_error_cb(record_report);
    lh_register_fatal_error_cb(record_other);
    reg_model_store(model, 0x10000 + 0x1000, 1u << 0);
    lh_sys_poll_scan(&lh_desc_lhx, &report);
    expect_log(LOG_CRIT, "FATAL - Eth pipe 0: Eth IP TX Underflow");
    ASSERT_EQ(reports.size(), 0u);
    ASSERT_EQ(other_reports, 1);
}

TEST_F(PollTest, FailedModuleIsSkippedWithoutAnyCall)
{
    reg_model *model = bring_up(&lh_desc_base_two_pipes);
    lh_fatal_error_t report = { 0, 0, nullptr };

    lh_register_fatal_error_cb(record_report);
    lh_module_state[LH_MOD_CAUI][1].store(1);
    reg_model_store(model, caui1_fatal, 1u << 9);
    lh_sys_poll_scan(&lh_desc_base_two_pipes, &report);
    ASSERT_EQ(reads_at[0], 0u);
    ASSERT_EQ(reports.size(), 0u);
    ASSERT_EQ(count_dumps(), 0);
    expect_no_more_logs();
}

TEST_F(PollTest, UnknownModuleIdInTheList)
{
    static const lh_module_entry odd_list[] = {
        { 16, 0 }, { LH_MOD_CAUI, 0 }, { LH_MOD_END, 0 }
    };
    lh_fatal_error_t report = { 0, 0, nullptr };

    bring_up(&lh_desc_base_two_pipes);
    lh_device_desc odd = lh_desc_base_two_pipes;
    odd.module_list = odd_list;
    lh_sys_poll_scan(&odd, &report);
    expect_log(LOG_ERR,
               "Error - unsupported module 16 encountered during sys poll");
    expect_no_more_logs();
}

TEST_F(PollTest, NoFatalResultRunsTheUpdates)
{
    /* Nothing creates the LHX parser's pipe 1: detection refuses it
     * (result 0), and the update runs and refuses it too. */
    static const lh_module_entry list[] = {
        { LH_MOD_LHX_INGRESS_PKT_PARSER, 1 }, { LH_MOD_END, 0 }
    };
    lh_fatal_error_t report = { 0, 0, nullptr };

    bring_up(&lh_desc_base_one_pipe);
    lh_device_desc odd = lh_desc_base_one_pipe;
    odd.module_list = list;
    lh_sys_poll_scan(&odd, &report);
    expect_log(LOG_CRIT, "Error - LHX Ingress Pkt Parser fatal error "
                         "detection - invalid context 1");
    expect_log(LOG_CRIT, "Error - LHX Ingress Pkt Parser update stats - "
                         "invalid context 1");
    expect_no_more_logs();
}
