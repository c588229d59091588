/* Both sinks of a message, both tag tables. */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "lh_log.hpp"
#include "log_expect.hpp"
#include "owned.hpp"
#include "plm_log.hpp"
#include "private_tmp.hpp"
#include "syslog_capture.hpp"

namespace {

using FileText = pellin::Malloced<char>;

/* An empty file made from a mkstemp template, removed at the end. */
class TempFile {
public:
    explicit TempFile(const char *name_template) : path_(name_template)
    {
        int fd = mkstemp(path_.data());

        EXPECT_GE(fd, 0) << path_;
        if (fd >= 0)
            close(fd);
    }
    ~TempFile() { unlink(path_.c_str()); }
    TempFile(const TempFile &) = delete;
    TempFile &operator=(const TempFile &) = delete;

    const char *path() const { return path_.c_str(); }

private:
    std::string path_;
};

constexpr int lines_per_writer = 2000;

void write_lines(const char *who)
{
    for (int i = 0; i < lines_per_writer; i++)
        lh_log(LOG_DEBUG, "%s writes line %04d of the concurrency test", who,
               i);
}

} // namespace

TEST(LogTagsTest, DaemonTagTable)
{
    static const char *const expected[] = {
        "Unknown error", "Error", "Out of memory", "Null pointer",
        "Thread monitor enqueue failed", "Thread monitor detected failure",
        "Unrecoverable program error detected, exiting", "Informational",
        "Alert", "FATAL", "Unknown error",
    };

    for (unsigned int code = 0; code < 11; code++)
        ASSERT_STREQ(plm_status_str(code), expected[code]) << "code " << code;
    ASSERT_STREQ(plm_status_str(0xFFFFFFFFu), "Unknown error");
}

TEST(LogTagsTest, LibraryTagTable)
{
    static const char *const expected[] = {
        "Unknown error", "Error", "Out of memory", "Null pointer",
        "Informational", "Alert", "PCI", "FATAL", "Unknown error",
    };

    for (unsigned int code = 0; code < 9; code++)
        ASSERT_STREQ(lh_status_str(code), expected[code]) << "code " << code;
    ASSERT_STREQ(lh_status_str(0xFFFFFFFFu), "Unknown error");
}

TEST(LogTagsTest, Code4DiffersBetweenComponents)
{
    ASSERT_STREQ(plm_status_str(4), "Thread monitor enqueue failed");
    ASSERT_STREQ(lh_status_str(4), "Informational");
}

/* Messages through the sinks, with the files in a private /tmp; both
 * sinks closed at the end. */
class LogTest : public PrivateTmpTest {
protected:
    void TearDown() override
    {
        if (IsSkipped())
            return;
        log_expect_stop();
        log_sink_close(&plm_log_file);
        log_sink_close(&lh_log_file);
    }
};

TEST_F(LogTest, DaemonMessageReachesBothSinks)
{
    log_expect_start(&plm_log_file);
    plm_log(LOG_INFO, "%s - Found %d traffic pipes", PLM_TAG(INFO), 2);
    expect_log(LOG_INFO, "Informational - Found 2 traffic pipes");
    expect_no_more_logs();
}

TEST_F(LogTest, LibraryMessageReachesBothSinks)
{
    log_expect_start(&lh_log_file);
    lh_log(LOG_CRIT, "%s - scratch register test failed", LH_TAG(PCI));
    lh_log(LOG_DEBUG, "read register - addr 0x%08x, data 0x%08x", 0x10u,
           0xdeadbeefu);
    expect_log(LOG_CRIT, "PCI - scratch register test failed");
    expect_log(LOG_DEBUG, "read register - addr 0x00000010, data 0xdeadbeef");
    expect_no_more_logs();
}

TEST_F(LogTest, FileLineHasStampOfItsComponent)
{
    TempFile file("/tmp/stamp_XXXXXX");
    const char *rest;

    ASSERT_EQ(log_sink_open(&plm_log_file, file.path()), 0);
    ASSERT_EQ(log_sink_open(&lh_log_file, file.path()), 0);
    plm_log(LOG_INFO, "daemon line");
    lh_log(LOG_INFO, "library line");
    log_sink_close(&plm_log_file);
    log_sink_close(&lh_log_file);
    FileText content(read_whole_file(file.path(), nullptr));
    ASSERT_NE(content, nullptr);
    rest = after_log_stamp(content.get(), "%Y %b %d %X PELLIN MGR");
    ASSERT_NE(rest, nullptr) << content.get();
    ASSERT_EQ(strncmp(rest, "daemon line\n", 12), 0) << rest;
    rest = after_log_stamp(rest + 12, "%Y %b %d %X LH FPGA");
    ASSERT_NE(rest, nullptr) << content.get();
    ASSERT_STREQ(rest, "library line\n");
    ASSERT_EQ(after_log_stamp(content.get(), "%Y %b %d %X LH FPGA"), nullptr);
}

TEST_F(LogTest, SyslogFormatEndingInNewlineDoublesItInFile)
{
    log_expect_start(&plm_log_file);
    plm_log(LOG_CRIT, "Error initializing IPC for %s\n", PLM_LOG_IDENT);
    expect_log(LOG_CRIT, "Error initializing IPC for Pellin Manager\n");
    expect_no_more_logs();
}

TEST_F(LogTest, ClosedSinkLogsToSyslogOnly)
{
    syslog_capture_reset();
    log_sink_close(&lh_log_file);
    ASSERT_FALSE(log_sink_is_open(&lh_log_file));
    lh_log(LOG_ERR, "%s - get module list", LH_TAG(NULL_POINTER));
    ASSERT_EQ(syslog_capture_count(), 1u);
    ASSERT_STREQ(syslog_capture_get(0)->text,
                 "Null pointer - get module list");
    ASSERT_STREQ(syslog_capture_get(0)->ident, "larks-hollow-fpga");
}

TEST_F(LogTest, UnwritableLogFileLeavesSyslogWorking)
{
    syslog_capture_reset();
    ASSERT_EQ(log_sink_open(&plm_log_file, "/tmp/no/such/dir/pellin_mgr.log"),
              -1);
    ASSERT_FALSE(log_sink_is_open(&plm_log_file));
    plm_log(LOG_INFO, "%s - LH FPGA initialization start", PLM_TAG(INFO));
    ASSERT_EQ(syslog_capture_count(), 1u);
    ASSERT_STREQ(syslog_capture_get(0)->text,
                 "Informational - LH FPGA initialization start");
    ASSERT_STREQ(syslog_capture_get(0)->ident, "Pellin Manager");
    ASSERT_EQ(syslog_capture_get(0)->severity, LOG_INFO);
}

TEST_F(LogTest, LinesStayWholeAcrossThreads)
{
    TempFile file("/tmp/threads_XXXXXX");
    char *line, *save = nullptr;
    int lines = 0;

    ASSERT_EQ(log_sink_open(&lh_log_file, file.path()), 0);
    {
        std::thread first(write_lines, "poll");
        std::thread second(write_lines, "ipc");

        first.join();
        second.join();
    }
    log_sink_close(&lh_log_file);
    FileText content(read_whole_file(file.path(), nullptr));
    ASSERT_NE(content, nullptr);
    for (line = strtok_r(content.get(), "\n", &save); line != nullptr;
         line = strtok_r(nullptr, "\n", &save), lines++) {
        const char *text = after_log_stamp(line, LH_LOG_STAMP_FORMAT);
        int number;
        char who[8];

        ASSERT_NE(text, nullptr) << "line " << lines << ": " << line;
        ASSERT_EQ(sscanf(text,
                         "%7s writes line %4d of the concurrency test", who,
                         &number),
                  2)
            << "line " << lines << ": " << line;
    }
    ASSERT_EQ(lines, 2 * lines_per_writer);
}
