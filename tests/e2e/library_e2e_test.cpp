/* End to end: lh_fpga_init on simulated boards with the real libpciaccess,
 * the poll thread finding a fatal bit written into the window file, the
 * dump file, the callback, and shutdown. */
#include <signal.h>

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <ostream>
#include <span>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "lh_log.hpp"
#include "log_file.hpp"
#include "sim_board_fixture.hpp"
#include "simboard.hpp"

namespace {

constexpr int start_timeout_ms = 10000;
constexpr int found_within_ms = 1000;
constexpr int exit_timeout_ms = 5000;

constexpr const char *dump_prefix = "lark_hollow_dump__";
constexpr const char *poll_thread_ended =
    "Larks Hollow FPGA system poll thread terminated...";

/* The library probe running on a board: callbacks.txt gets one line per
 * fatal-error report. */
class LibraryE2e : public SimBoardTest {
protected:
    void start_probe(enum sim_board_kind kind)
    {
        ASSERT_NO_FATAL_FAILURE(board_.create("lh_lib_e2e", kind));
        log_path_ = board_.log_file("larks_hollow_fpga.log");
        callbacks_path_ = board_.log_file("callbacks.txt");
        ASSERT_TRUE(board_.spawn(nullptr, {LIBRARY_PROBE_PATH}, &probe_));
        ASSERT_TRUE(text_appears(log_path_, "Larks Hollow FPGA Initialized",
                                 start_timeout_ms));
    }

    /* SIGTERM, and the probe's wait status once it ended (0: a clean
     * exit); null when it had to be killed. */
    std::optional<int> stop_probe()
    {
        return probe_.stop(SIGTERM, exit_timeout_ms);
    }

    /* The dump files in the log directory, in directory order. */
    std::vector<std::string> dump_files() const
    {
        std::vector<std::string> dumps;
        std::error_code error;

        for (const auto &entry : std::filesystem::directory_iterator(
                 board_.path(SIM_PATH_LOGS), error))
            if (entry.path().filename().string().starts_with(dump_prefix))
                dumps.push_back(entry.path().string());
        EXPECT_FALSE(error) << board_.path(SIM_PATH_LOGS) << ": "
                            << error.message();
        return dumps;
    }

    /* Every dump file's content, one after the other. */
    std::string all_dumps() const
    {
        std::string all;

        for (const std::string &path : dump_files())
            all += text_of(path);
        return all;
    }

    /* Clears the snapshot register of a port and waits for the poll
     * thread's statistics update to write it again. */
    bool snapshot_rewritten(uint32_t snapshot_offset, int timeout_ms) const
    {
        using namespace std::chrono;
        const auto deadline = steady_clock::now() + milliseconds(timeout_ms);

        EXPECT_TRUE(board_.write(snapshot_offset, 0));
        while (steady_clock::now() < deadline) {
            if (board_.read(snapshot_offset) == 1u)
                return true;
            std::this_thread::sleep_for(milliseconds(10));
        }
        return false;
    }

    SimBoard board_;
    BoardProcess probe_; /* ends before its board goes */
    std::string log_path_;
    std::string callbacks_path_;
};

TEST_F(LibraryE2e, FatalErrorFoundDumpedAndReportedOnce)
{
    long long took = 0;

    ASSERT_NO_FATAL_FAILURE(start_probe(SIM_BOARD_BASE2));
    /* CAUI pipe 1, fatal status 0x800 bit 9. */
    ASSERT_TRUE(board_.set_bit(0x20800, 9));
    ASSERT_TRUE(text_appears(log_path_,
                             "FATAL - CAUI pipe 1: TX Buffer FIFO Underflow",
                             found_within_ms, &took));
    EXPECT_LE(took, found_within_ms);
    ASSERT_TRUE(text_appears(callbacks_path_,
                             "module 3 pipe 1: TX Buffer FIFO Underflow\n",
                             2000));
    /* Two more polls: the failed block is left alone, the others go on. */
    EXPECT_TRUE(snapshot_rewritten(0x102B0, 2000));
    EXPECT_FALSE(snapshot_rewritten(0x202B0, 1200));
    EXPECT_EQ(count_in_file(callbacks_path_, "module "), 1);
    EXPECT_EQ(count_in_file(log_path_, "FATAL - "), 1);
    const std::vector<std::string> dumps = dump_files();
    ASSERT_EQ(dumps.size(), 1u);
    const std::string dump = text_of(dumps[0]);
    EXPECT_NE(dump.find("module: caui, pipe: 0, status: OK\n"
                        "module: caui, pipe: 1, status: FAILED\n"),
              std::string::npos)
        << dump;
    EXPECT_NE(dump.find("\n----------- Register Dump -----------\n"
                        "0x00000: 0x00010203\n"),
              std::string::npos)
        << dump;
    EXPECT_EQ(stop_probe(), 0);
    assert_log_file_has_line(log_path_.c_str(), LH_LOG_STAMP_FORMAT,
                             poll_thread_ended);
}

TEST_F(LibraryE2e, LhxFatalError)
{
    ASSERT_NO_FATAL_FAILURE(start_probe(SIM_BOARD_LHX));
    /* Eth fatal status 0x1000 bits 3 and 8: bit 8 is tested first. */
    ASSERT_TRUE(board_.set_bit(0x11000, 3));
    ASSERT_TRUE(board_.set_bit(0x11000, 8));
    ASSERT_TRUE(text_appears(callbacks_path_,
                             "module 11 pipe 0: RX Straddle AXI4 Interface "
                             "Multiple SOP error\n",
                             2000));
    EXPECT_EQ(dump_files().size(), 1u);
    EXPECT_EQ(stop_probe(), 0);
    EXPECT_EQ(count_in_file(callbacks_path_, "module "), 1);
}

TEST_F(LibraryE2e, OnePipeBoardStartsAndStops)
{
    ASSERT_NO_FATAL_FAILURE(start_probe(SIM_BOARD_BASE1));
    assert_log_file_has_line(log_path_.c_str(), LH_LOG_STAMP_FORMAT,
                             "Informational - CAUI module 0 context created");
    EXPECT_TRUE(snapshot_rewritten(0x102B0, 2000));
    EXPECT_EQ(stop_probe(), 0);
    EXPECT_EQ(dump_files().size(), 0u);
    assert_log_file_has_line(log_path_.c_str(), LH_LOG_STAMP_FORMAT,
                             poll_thread_ended);
}

/* A fatal bit of one block instance and what it must produce. */
struct InjectedError {
    uint32_t offset; /* of the status register in the window */
    unsigned bit;
    const char *fatal_line;
    const char *callback_line;
    const char *status_line; /* in the dump */
};

constexpr InjectedError base_errors[] = {
    {0x00100, 0,
     "FATAL - Global pipe 0: die 0 SEM controller 0 heartbeat has stopped",
     "module 0 pipe 0: die 0 SEM controller 0 heartbeat has stopped",
     "module: global, pipe: 0, status: FAILED"},
    {0x01000, 5, "FATAL - PCIe pipe 0: PBUS Trgt FIFO Overflow",
     "module 1 pipe 0: PBUS Trgt FIFO Overflow",
     "module: pcie, pipe: 0, status: FAILED"},
    {0x2A000, 16,
     "FATAL - DDR4 pipe 1: Uncorrectable ecc error has been detected in the "
     "DDR4",
     "module 2 pipe 1: Uncorrectable ecc error has been detected in the DDR4",
     "module: ddr4, pipe: 1, status: FAILED"},
    {0x10800, 9, "FATAL - CAUI pipe 0: TX Buffer FIFO Underflow",
     "module 3 pipe 0: TX Buffer FIFO Underflow",
     "module: caui, pipe: 0, status: FAILED"},
    {0x22020, 29, "FATAL - NIC pipe 1: BudM Linked List Parity Error",
     "module 4 pipe 1: BudM Linked List Parity Error",
     "module: nic, pipe: 1, status: FAILED"},
    {0x16000, 16,
     "FATAL - Ingress Pkt Parser pipe 0: Meta Data FIFO Parity Error",
     "module 5 pipe 0: Meta Data FIFO Parity Error",
     "module: ingress-pkt-parser, pipe: 0, status: FAILED"},
    {0x27700, 4,
     "FATAL - Ingress Pkt Classifier pipe 1: Reorder FIFO Underflow",
     "module 6 pipe 1: Reorder FIFO Underflow",
     "module: ingress-pkt-classifier, pipe: 1, status: FAILED"},
    {0x18000, 30,
     "FATAL - Ingress Pkt Processor pipe 0: Input Packet FIFO Double bit ECC "
     "error",
     "module 7 pipe 0: Input Packet FIFO Double bit ECC error",
     "module: ingress-pkt-processor, pipe: 0, status: FAILED"},
    {0x29000, 13, "FATAL - Egress Scheduler pipe 1: SCHE Out FIFO Overflow",
     "module 8 pipe 1: SCHE Out FIFO Overflow",
     "module: egress-scheduler, pipe: 1, status: FAILED"},
};

constexpr InjectedError lhx_errors[] = {
    {0x00100, 1,
     "FATAL - LHX Global pipe 0: die 0 SEM controller 0 has detected a fatal "
     "error",
     "module 9 pipe 0: die 0 SEM controller 0 has detected a fatal error",
     "module: lhx-global, pipe: 0, status: FAILED"},
    {0x01000, 0, "FATAL - LHX PCIe pipe 0: AXI-lite Command FIFO Underflow",
     "module 10 pipe 0: AXI-lite Command FIFO Underflow",
     "module: lhx-pcie, pipe: 0, status: FAILED"},
    {0x11000, 0, "FATAL - Eth pipe 0: Eth IP TX Underflow",
     "module 11 pipe 0: Eth IP TX Underflow",
     "module: eth, pipe: 0, status: FAILED"},
    {0x12030, 4, "FATAL - LHX NIC pipe 0: QDMA H2C Data Parity Error",
     "module 12 pipe 0: QDMA H2C Data Parity Error",
     "module: lhx-nic, pipe: 0, status: FAILED"},
    {0x16000, 0,
     "FATAL - LHX Ingress Pkt Parser pipe 0: Priority Table Parity Error",
     "module 13 pipe 0: Priority Table Parity Error",
     "module: lhx-ingress-pkt-parser, pipe: 0, status: FAILED"},
    {0x19000, 0,
     "FATAL - LHX Egress Scheduler pipe 0: SCHE FIFO (Ingress Path) "
     "Underflow",
     "module 14 pipe 0: SCHE FIFO (Ingress Path) Underflow",
     "module: lhx-egress-scheduler, pipe: 0, status: FAILED"},
};

/* One board and every block type's fatal error on it. */
struct BlockTypesCase {
    const char *name;
    enum sim_board_kind kind;
    std::span<const InjectedError> errors;
};

void PrintTo(const BlockTypesCase &param, std::ostream *out)
{
    *out << param.name;
}

const BlockTypesCase block_types_cases[] = {
    {"EveryBaseBlockTypeReportsOnce", SIM_BOARD_BASE2, base_errors},
    {"EveryLhxBlockTypeReportsOnce", SIM_BOARD_LHX, lhx_errors},
};

class LibraryE2eBlockTypes
    : public LibraryE2e,
      public ::testing::WithParamInterface<BlockTypesCase> {};

/* One block after the other fails; each gives its FATAL line, one more
 * callback and one more dump (two dumps in one second share a file, so
 * dumps are counted by their status sections). */
TEST_P(LibraryE2eBlockTypes, ReportOnce)
{
    const BlockTypesCase &c = GetParam();
    int reported = 0;

    ASSERT_NO_FATAL_FAILURE(start_probe(c.kind));
    for (const InjectedError &e : c.errors) {
        SCOPED_TRACE(e.fatal_line);
        ASSERT_TRUE(board_.set_bit(e.offset, e.bit));
        ASSERT_TRUE(text_appears(log_path_, e.fatal_line, found_within_ms));
        ASSERT_TRUE(text_appears(callbacks_path_,
                                 std::string(e.callback_line) + "\n", 2000));
        reported++;
        EXPECT_EQ(count_in_file(callbacks_path_, "module "), reported);
        const std::string dumps = all_dumps();
        EXPECT_NE(dumps.find(e.status_line), std::string::npos) << dumps;
        EXPECT_EQ(count_in_string(dumps, "----------- Module Status"),
                  reported);
    }
    EXPECT_EQ(count_in_file(log_path_, "FATAL - "),
              static_cast<int>(c.errors.size()));
    EXPECT_EQ(stop_probe(), 0);
}

INSTANTIATE_TEST_SUITE_P(
    Boards, LibraryE2eBlockTypes, ::testing::ValuesIn(block_types_cases),
    [](const ::testing::TestParamInfo<BlockTypesCase> &info) {
        return std::string(info.param.name);
    });

/* The context-created lines of a bring-up, in list order. */
struct ContextsCase {
    const char *name;
    enum sim_board_kind kind;
    std::vector<std::string> lines;
};

void PrintTo(const ContextsCase &param, std::ostream *out)
{
    *out << param.name;
}

const ContextsCase contexts_cases[] = {
    {"TwoPipeBoardCreates16ContextsInListOrder",
     SIM_BOARD_BASE2,
     {
         "Informational - Global module 0 context created\n",
         "Informational - PCIe module 0 context created\n",
         "Informational - DDR4 module 0 context created\n",
         "Informational - DDR4 module 1 context created\n",
         "Informational - CAUI module 0 context created\n",
         "Informational - CAUI module 1 context created\n",
         "Informational - NIC module 0 context created\n",
         "Informational - NIC module 1 context created\n",
         "Informational - Ingress Pkt Parser module 0 context created\n",
         "Informational - Ingress Pkt Parser module 1 context created\n",
         "Informational - Ingress Pkt Classifier module 0 context created\n",
         "Informational - Ingress Pkt Classifier module 1 context created\n",
         "Informational - Ingress Pkt Processor module 0 context created\n",
         "Informational - Ingress Pkt Processor module 1 context created\n",
         "Informational - Egress Scheduler module 0 context created\n",
         "Informational - Egress Scheduler module 1 context created\n",
     }},
    {"OnePipeBoardCreates9Contexts",
     SIM_BOARD_BASE1,
     {
         "Informational - Global module 0 context created\n",
         "Informational - PCIe module 0 context created\n",
         "Informational - DDR4 module 0 context created\n",
         "Informational - CAUI module 0 context created\n",
         "Informational - NIC module 0 context created\n",
         "Informational - Ingress Pkt Parser module 0 context created\n",
         "Informational - Ingress Pkt Classifier module 0 context created\n",
         "Informational - Ingress Pkt Processor module 0 context created\n",
         "Informational - Egress Scheduler module 0 context created\n",
     }},
    {"LhxBoardCreates6Contexts",
     SIM_BOARD_LHX,
     {
         "Informational - LHX Global module 0 context created\n",
         "Informational - LHX PCIe module 0 context created\n",
         "Informational - Eth module 0 context created\n",
         "Informational - LHX NIC module 0 context created\n",
         "Informational - LHX Ingress Pkt Parser module 0 context created\n",
         "Informational - LHX Egress Scheduler module 0 context created\n",
     }},
};

class LibraryE2eContexts : public LibraryE2e,
                           public ::testing::WithParamInterface<ContextsCase> {
};

/* Every context of the board, in list order, and no module refused. */
TEST_P(LibraryE2eContexts, Created)
{
    const ContextsCase &c = GetParam();

    ASSERT_NO_FATAL_FAILURE(start_probe(c.kind));
    const std::string log = text_of(log_path_);
    EXPECT_TRUE(in_order(log, c.lines)) << log;
    EXPECT_EQ(count_in_string(log, "context created"),
              static_cast<int>(c.lines.size()));
    EXPECT_EQ(log.find("unsupported module"), std::string::npos) << log;
}

INSTANTIATE_TEST_SUITE_P(
    Boards, LibraryE2eContexts, ::testing::ValuesIn(contexts_cases),
    [](const ::testing::TestParamInfo<ContextsCase> &info) {
        return std::string(info.param.name);
    });

} // namespace
