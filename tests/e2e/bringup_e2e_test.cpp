/* End to end on simulated boards: the real libpciaccess finds and maps the
 * board, the real setpci writes its configuration space, syslog(3) carries
 * the lines. */
#include <sys/wait.h>

#include <array>
#include <cstdint>
#include <optional>
#include <ostream>
#include <string>

#include <gtest/gtest.h>

#include "lh_log.hpp"
#include "log_file.hpp"
#include "sim_board_fixture.hpp"
#include "simboard.hpp"

namespace {

constexpr int probe_timeout_ms = 20000;

class BringupE2e : public SimBoardTest {
protected:
    void make_board(enum sim_board_kind kind)
    {
        ASSERT_NO_FATAL_FAILURE(board_.create("lh_e2e", kind));
        log_path_ = board_.log_file("larks_hollow_fpga.log");
    }

    /* Runs the probe on the board; `exit_code` gets its exit status. */
    void run_probe(const sim_sandbox_opts *opts, int *exit_code)
    {
        BoardProcess probe;

        ASSERT_TRUE(board_.spawn(opts, {BRINGUP_PROBE_PATH}, &probe));
        const std::optional<int> status = probe.wait(probe_timeout_ms);
        ASSERT_TRUE(status.has_value())
            << "the probe did not end within " << probe_timeout_ms << " ms";
        ASSERT_TRUE(WIFEXITED(*status)) << "wait status " << *status;
        *exit_code = WEXITSTATUS(*status);
    }

    /* The log file holds exactly these lines, in this order. */
    template <size_t N>
    void expect_log_lines(const std::array<const char *, N> &lines) const
    {
        assert_log_file_lines(log_path_.c_str(), LH_LOG_STAMP_FORMAT,
                              lines.data(), lines.size());
    }

    SimBoard board_;
    std::string log_path_;
};

/* What bring-up logs and leaves on each kind of board. */
struct BoardCase {
    const char *name;
    enum sim_board_kind kind;
    std::array<const char *, 5> lines;
    uint16_t command_word; /* after bring-up */
};

void PrintTo(const BoardCase &param, std::ostream *out)
{
    *out << param.name;
}

const BoardCase board_cases[] = {
    {"BaseTwoPipeBoard",
     SIM_BOARD_BASE2,
     {"Informational - pci get map, found controller type 0x1106",
      "Informational - PCI device found: name 'Control Status', fs: "
      "/sys/bus/pci/devices/0000:03:00.0, addr 0xf0000000, "
      "size(bytes) 262144",
      "Found CSR device - Control Status, type (0)",
      "revision: 0x00010203, image timestamp (M/D/Y Hour): 03/15/2024 10:00",
      "read register - addr 0xf0000010, data 0x24031510"},
     0x0000},
    {"BaseOnePipeBoard",
     SIM_BOARD_BASE1,
     {"Informational - pci get map, found controller type 0x1109",
      "Informational - PCI device found: name 'Control Status', fs: "
      "/sys/bus/pci/devices/0000:03:00.0, addr 0xf0000000, "
      "size(bytes) 262144",
      "Found CSR device - Control Status, type (0)",
      "revision: 0x00010203, image timestamp (M/D/Y Hour): 03/15/2024 10:00",
      "read register - addr 0xf0000010, data 0x24031510"},
     0x0000},
    /* setpci enables memory space; the read line shows region 0's address,
     * which the LHX image does not use. */
    {"LhxBoard",
     SIM_BOARD_LHX,
     {"Informational - pci get map, found controller type 0x1126",
      "Informational - PCI device found: name 'Control Status', fs: "
      "/sys/bus/pci/devices/0000:03:00.0, addr 0xf1000000, "
      "size(bytes) 131072",
      "Found CSR device - Control Status, type (2)",
      "revision: 0x00010203, image timestamp (M/D/Y Hour): 03/15/2024 10:00",
      "read register - addr 0x00000010, data 0x24031510"},
     0x0002},
};

class BringupE2eBoards : public BringupE2e,
                         public ::testing::WithParamInterface<BoardCase> {};

TEST_P(BringupE2eBoards, BringsUp)
{
    const BoardCase &c = GetParam();
    int exit_code = -1;

    ASSERT_NO_FATAL_FAILURE(make_board(c.kind));
    EXPECT_EQ(board_.config16(4), uint16_t{0x0000});
    ASSERT_NO_FATAL_FAILURE(run_probe(nullptr, &exit_code));
    EXPECT_EQ(exit_code, 0);
    expect_log_lines(c.lines);
    EXPECT_EQ(board_.read(0x0FC), 0x80000000u);
    EXPECT_EQ(board_.config16(4), c.command_word);
}

INSTANTIATE_TEST_SUITE_P(Boards, BringupE2eBoards,
                         ::testing::ValuesIn(board_cases),
                         [](const ::testing::TestParamInfo<BoardCase> &info) {
                             return std::string(info.param.name);
                         });

TEST_F(BringupE2e, UnmappableBoardHasNoCsrDevice)
{
    static constexpr std::array<const char *, 4> lines = {
        "Informational - pci get map, found controller type 0x1106",
        "PCI - PCI device mapping failed for 'Control Status' failed",
        "",
        "Control Status Register device not found",
    };
    int exit_code = -1;

    ASSERT_NO_FATAL_FAILURE(make_board(SIM_BOARD_BASE2));
    ASSERT_EQ(sim_board_break_window(board_.get()), 0);
    ASSERT_NO_FATAL_FAILURE(run_probe(nullptr, &exit_code));
    EXPECT_EQ(exit_code, 4);
    expect_log_lines(lines);
}

TEST_F(BringupE2e, MissingIdpromIsUnknownTypeZero)
{
    static constexpr std::array<const char *, 2> lines = {
        "Informational - pci get map, found controller type 0x0000",
        "PCI - pci get map, unknown controller type 0x0000",
    };
    int exit_code = -1;

    ASSERT_NO_FATAL_FAILURE(make_board(SIM_BOARD_BASE2));
    ASSERT_EQ(sim_board_set_idprom(board_.get(), nullptr), 0);
    ASSERT_NO_FATAL_FAILURE(run_probe(nullptr, &exit_code));
    EXPECT_EQ(exit_code, 2);
    expect_log_lines(lines);
    EXPECT_EQ(board_.read(0x0FC), 0u);
}

TEST_F(BringupE2e, Type1124OutsideSimulationFindsNothing)
{
    static constexpr std::array<const char *, 1> lines = {
        "Informational - pci get map, found controller type 0x1124",
    };
    int exit_code = -1;

    ASSERT_NO_FATAL_FAILURE(make_board(SIM_BOARD_BASE2));
    ASSERT_EQ(sim_board_set_idprom(board_.get(),
                                   "CONTROLLER_TYPE=4388\nQRN_SIM=0\n"),
              0);
    ASSERT_NO_FATAL_FAILURE(run_probe(nullptr, &exit_code));
    EXPECT_EQ(exit_code, 2);
    expect_log_lines(lines);
}

TEST_F(BringupE2e, Type1124InSimulationMapsTheBaseBoard)
{
    int exit_code = -1;

    ASSERT_NO_FATAL_FAILURE(make_board(SIM_BOARD_BASE2));
    ASSERT_EQ(sim_board_set_idprom(board_.get(),
                                   "CONTROLLER_TYPE=4388\nQRN_SIM=1\n"),
              0);
    ASSERT_NO_FATAL_FAILURE(run_probe(nullptr, &exit_code));
    EXPECT_EQ(exit_code, 0);
    EXPECT_EQ(board_.read(0x0FC), 0x80000000u);
}

TEST_F(BringupE2e, SyslogCarriesIdentSeverityAndText)
{
    struct ExpectedSyslog {
        int severity;
        const char *text;
    };
    static constexpr ExpectedSyslog expected[] = {
        {6, "Informational - pci get map, found controller type 0x1106"},
        {6, "Informational - PCI device found: name 'Control Status', fs: "
            "/sys/bus/pci/devices/0000:03:00.0, addr 0xf0000000, "
            "size(bytes) 262144"},
        {7, "Found CSR device - Control Status, type (0)"},
        {6, "revision: 0x00010203, image timestamp (M/D/Y Hour): "
            "03/15/2024 10:00"},
        {7, "read register - addr 0xf0000010, data 0x24031510"},
    };
    SyslogListener syslog;
    int exit_code = -1;

    ASSERT_NO_FATAL_FAILURE(make_board(SIM_BOARD_BASE2));
    ASSERT_TRUE(syslog.open(board_.parent() + "/log.sock"));
    const sim_sandbox_opts opts = syslog.sandbox_opts();
    ASSERT_NO_FATAL_FAILURE(run_probe(&opts, &exit_code));
    EXPECT_EQ(exit_code, 0);
    for (const ExpectedSyslog &e : expected) {
        SCOPED_TRACE(e.text);
        const std::optional<sim_syslog_msg> message = syslog.next(2000);
        ASSERT_TRUE(message.has_value()) << "no syslog message";
        EXPECT_STREQ(message->ident, "larks-hollow-fpga");
        EXPECT_EQ(message->facility, 3);
        EXPECT_EQ(message->severity, e.severity);
        EXPECT_STREQ(message->text, e.text);
        EXPECT_GT(message->pid, 0);
    }
    const std::optional<sim_syslog_msg> extra = syslog.next(100);
    EXPECT_FALSE(extra.has_value()) << "one more message: " << extra->raw;
}

} // namespace
