/* The Ethernet port blocks. eth and caui are one design with two register
 * maps, so most cases run once on each block, described by a port_case;
 * the register window is a model whose control and status registers
 * behave like the hardware's (link-reset pulses, latched counters). */
#include <string.h>
#include <unistd.h>

#include <array>
#include <ostream>
#include <span>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "block_fixture.hpp"
#include "fake_device.hpp"
#include "lh_drivers.hpp"
#include "lh_log.hpp"
#include "log_expect.hpp"
#include "mutex_wrap.hpp"
#include "port.hpp"

namespace {

constexpr uint32_t BLOCK_BASE = 0x10000u; /* eth, and caui pipe 0 */
constexpr uint32_t CAUI_PIPE1_BASE = 0x20000u;

constexpr uint32_t ENABLE_BIT = 1u << 8;
constexpr uint32_t LINK_RESET_BIT = 1u << 10;
constexpr uint32_t DISABLE_BIT = 1u << 11;
constexpr uint32_t OTHER_CONTROL_BITS = 0xA5A5A5A0u; /* loopback field clear */

/* Every word of this range except control, status and fatal status gets a
 * distinct value, so a counter read from a wrong register shows. */
constexpr uint32_t FILL_START = 0x400u;
constexpr uint32_t FILL_END = 0x1100u;

constexpr size_t MAX_STATS = 80; /* room for the 601-byte request */

enum class word_order { low_first, high_first, low_only };

/* `count` counters from index `first` as the block lays them out:
 * low_first has the low word at start + 8k and the high word 4 above,
 * high_first the reverse, low_only one 32-bit word at start + 4k. */
struct counter_run {
    unsigned int first;
    unsigned int count;
    uint32_t start;
    word_order order;
};

/* The registers {high, low} of counter k of `run`; high 0 for a 32-bit
 * counter. */
constexpr bt_counter run_counter(const counter_run &run, unsigned int k)
{
    switch (run.order) {
    case word_order::low_first:
        return {run.start + 8 * k + 4, run.start + 8 * k};
    case word_order::high_first:
        return {run.start + 8 * k, run.start + 8 * k + 4};
    case word_order::low_only:
        break;
    }
    return {0, run.start + 4 * k};
}

/* Whether the runs give counters 0 to count - 1, in order. */
constexpr bool runs_cover(std::span<const counter_run> runs, size_t count)
{
    size_t next = 0;

    for (const counter_run &run : runs) {
        if (run.first != next)
            return false;
        next += run.count;
    }
    return next == count;
}

/* The runs spelt out, one {high, low} a counter. */
template <size_t N>
constexpr std::array<bt_counter, N> spell_out(std::span<const counter_run> runs)
{
    std::array<bt_counter, N> counters{};
    size_t next = 0;

    for (const counter_run &run : runs)
        for (unsigned int k = 0; k < run.count && next < N; k++)
            counters[next++] = run_counter(run, k);
    return counters;
}

constexpr counter_run eth_runs[] = {
    {0, 4, 0x508, word_order::low_first},
    {4, 4, 0x5A8, word_order::low_first},
    {8, 1, 0x660, word_order::low_first},
    {9, 1, 0x6A0, word_order::low_first},
    {10, 18, 0x700, word_order::low_first},
    {28, 1, 0x7B8, word_order::low_first},
    {29, 6, 0x7D0, word_order::low_first},
    {35, 17, 0x808, word_order::low_first},
    {52, 16, 0x898, word_order::low_first},
    {68, 1, 0x1050, word_order::high_first},
    {69, 1, 0x1058, word_order::low_only},
    {70, 1, 0x105C, word_order::high_first},
    {71, 4, 0x1064, word_order::low_only},
};

constexpr counter_run caui_runs[] = {
    {0, 4, 0x500, word_order::low_first},
    {4, 2, 0x5F0, word_order::low_first},
    {6, 4, 0x608, word_order::low_first},
    {10, 11, 0x698, word_order::low_first},
    {21, 4, 0x6F8, word_order::low_first},
    {25, 1, 0x850, word_order::high_first},
    {26, 1, 0x858, word_order::low_only},
    {27, 1, 0x85C, word_order::high_first},
    {28, 4, 0x864, word_order::low_only},
};

static_assert(runs_cover(eth_runs, 75));
static_assert(runs_cover(caui_runs, 32));
constexpr auto eth_counters = spell_out<75>(eth_runs);
constexpr auto caui_counters = spell_out<32>(caui_runs);

/* One counter spelt out, to show the word order at a glance. */
struct counter_sample {
    unsigned int index;
    uint32_t high;
    uint32_t low;
};

struct error_row {
    unsigned int bit;
    const char *text;
};

constexpr error_row eth_rows[] = {
    {8, "RX Straddle AXI4 Interface Multiple SOP error"},
    {7, "RX Buffer FIFO Double bit ECC error"},
    {6, "TX Buffer FIFO Double bit ECC error"},
    {5, "RX Buffer FIFO Overflow"},
    {4, "RX Buffer FIFO Underflow"},
    {3, "TX Buffer FIFO Overflow"},
    {2, "TX Buffer FIFO Underflow"},
    {0, "Eth IP TX Underflow"},
};

constexpr error_row caui_rows[] = {
    {9, "TX Buffer FIFO Underflow"},
    {8, "RX Buffer FIFO Underflow"},
    {7, "CAUI RX LBus Multiple SOP error"},
    {6, "TX Buffer FIFO Double bit ECC error"},
    {5, "TX Buffer FIFO Overflow"},
    {4, "RX Buffer FIFO Double bit ECC error"},
    {3, "RX Buffer FIFO Overflow"},
    {2, "CAUI IP TX Overflow"},
    {1, "CAUI IP TX Underflow"},
};

struct port_case {
    bt_driver d; /* name, ops, devices, record */
    void (*rx_align_monitor)(uint32_t pipe);
    uint32_t snapshot;
    uint32_t fatal_status;
    uint32_t control;
    uint32_t status;
    unsigned int aligned_bit;
    unsigned int other_aligned_bit; /* the other block's */
    unsigned int untested_bit;
    std::span<const bt_counter> counters; /* of the record, in order */
    counter_sample samples[3];
    std::span<const error_row> errors;
    uint64_t wrong_sizes[2];
};

constexpr port_case eth_case = {
    .d = {.name = "Eth",
          .ops = &eth_ops,
          .device = &lh_desc_lhx,
          .one_pipe_device = &lh_desc_lhx,
          .stats_bytes = 75 * 8,
          .get_words = "get interface stats"},
    .rx_align_monitor = eth_rx_align_monitor,
    .snapshot = 0x20,
    .fatal_status = 0x1000,
    .control = 0x1020,
    .status = 0x1024,
    .aligned_bit = 3,
    .other_aligned_bit = 24,
    .untested_bit = 1,
    .counters = eth_counters,
    .samples = {{0, 0x50C, 0x508}, {68, 0x1050, 0x1054}, {70, 0x105C, 0x1060}},
    .errors = eth_rows,
    .wrong_sizes = {599, 601},
};

constexpr port_case caui_case = {
    .d = {.name = "CAUI",
          .ops = &caui_ops,
          .device = &lh_desc_base_two_pipes,
          .one_pipe_device = &lh_desc_base_one_pipe,
          .stats_bytes = 32 * 8,
          .get_words = "get interface stats"},
    .rx_align_monitor = caui_rx_align_monitor,
    .snapshot = 0x2B0,
    .fatal_status = 0x800,
    .control = 0x820,
    .status = 0x824,
    .aligned_bit = 24,
    .other_aligned_bit = 3,
    .untested_bit = 0,
    .counters = caui_counters,
    .samples = {{0, 0x504, 0x500}, {25, 0x850, 0x854}, {27, 0x85C, 0x860}},
    .errors = caui_rows,
    .wrong_sizes = {255, 257},
};

constexpr const port_case *ports[] = {&eth_case, &caui_case};

/* The block under test and what its model has seen (the model's hooks are
 * plain functions, so this lives outside the fixture). */
struct port_model {
    const port_case *port = nullptr;
    reg_model *model = nullptr;
    uint8_t *regs = nullptr; /* pipe 0's block */
    bool hooks_installed = false;
    int align_after_resets = -1; /* -1: never aligns; else after that many */
    bool snapshot_written = false; /* counters read 0 until then */
    bool is_counter[FILL_END / 4] = {};
    unsigned long counter_registers = 0;
    unsigned long status_reads = 0;
    unsigned long snapshot_reads = 0;
    unsigned long counter_reads = 0;
    unsigned int link_reset_sets = 0;
    unsigned int link_reset_clears = 0;
    unsigned int sleeps_in_link_reset = 0;
    uint32_t control_writes[16] = {};
    unsigned int control_write_count = 0;
};

port_model fx;

unsigned long usleep_calls;
unsigned long usleep_total_us;

uint32_t reg(uint32_t offset)
{
    return reg_model_peek(fx.model, BLOCK_BASE + offset);
}

void set_reg(uint32_t offset, uint32_t value)
{
    reg_model_store(fx.model, BLOCK_BASE + offset, value);
}

} // namespace

/* Never sleeps; notes whether the sleep falls inside a link-reset pulse. */
extern "C" int __wrap_usleep(useconds_t usec)
{
    usleep_calls++;
    usleep_total_us += usec;
    if (fx.hooks_installed && (reg(fx.port->control) & LINK_RESET_BIT))
        fx.sleeps_in_link_reset++;
    return 0;
}

namespace {

void PrintTo(const port_case *port, std::ostream *os)
{
    *os << port->d.name;
}

void mark_counter_registers()
{
    for (const bt_counter &counter : fx.port->counters) {
        if (counter.high != 0) {
            fx.is_counter[counter.high / 4] = true;
            fx.counter_registers++;
        }
        fx.is_counter[counter.low / 4] = true;
        fx.counter_registers++;
    }
}

/* Distinct for every register of a round: an odd multiplier is a
 * bijection of the 32-bit words. */
uint32_t counter_value(uint32_t offset, unsigned int round)
{
    return 0x9E3779B9u * (offset + round * 0x2000u);
}

void fill_counters(unsigned int round)
{
    const port_case *port = fx.port;

    for (uint32_t offset = FILL_START; offset < FILL_END; offset += 4)
        if (offset != port->control && offset != port->status &&
            offset != port->fatal_status)
            set_reg(offset, counter_value(offset, round));
}

uint32_t round_value(int site, uint32_t offset, uint32_t round)
{
    (void)site;
    return counter_value(offset, round);
}

/* Adds the counters of a round, composed as the block composes them, to
 * `sums`. */
void add_expected_counters(unsigned int round, uint64_t *sums)
{
    bt_add_counters(sums, fx.port->counters.data(), fx.port->counters.size(),
                    round_value, 0, round);
}

bool link_aligned()
{
    return fx.align_after_resets >= 0 &&
           fx.link_reset_sets >= (unsigned int)fx.align_after_resets;
}

uint32_t port_read(reg_model *model, uint32_t offset, uint32_t stored)
{
    uint32_t offset_in_block = offset - BLOCK_BASE;
    uint32_t aligned = 1u << fx.port->aligned_bit;

    (void)model;
    if (offset_in_block == fx.port->status) {
        fx.status_reads++;
        return link_aligned() ? stored | aligned : stored & ~aligned;
    }
    if (offset_in_block == fx.port->snapshot)
        fx.snapshot_reads++;
    if (offset_in_block < FILL_END && fx.is_counter[offset_in_block / 4]) {
        fx.counter_reads++;
        return fx.snapshot_written ? stored : 0;
    }
    return stored;
}

void note_control_write(uint32_t old, uint32_t value)
{
    if (!(old & LINK_RESET_BIT) && (value & LINK_RESET_BIT))
        fx.link_reset_sets++;
    if ((old & LINK_RESET_BIT) && !(value & LINK_RESET_BIT))
        fx.link_reset_clears++;
    if (fx.control_write_count < BT_ARRAY_SIZE(fx.control_writes))
        fx.control_writes[fx.control_write_count] = value;
    fx.control_write_count++;
}

void port_write(reg_model *model, uint32_t offset, uint32_t value)
{
    uint32_t offset_in_block = offset - BLOCK_BASE;

    if (offset_in_block == fx.port->control)
        note_control_write(reg_model_peek(model, offset), value);
    if (offset_in_block == fx.port->snapshot && value == 1)
        fx.snapshot_written = true;
    reg_model_store(model, offset, value);
}

void make_port_up()
{
    set_reg(fx.port->control, ENABLE_BIT);
    fx.align_after_resets = 0;
}

void get_stats(uint64_t *stats)
{
    bt_get_stats(&fx.port->d, 0, stats);
}

void assert_stats(const uint64_t *expected)
{
    bt_assert_stats(&fx.port->d, 0, expected);
}

/* One call of each operation with the common checks, the other arguments
 * valid. */
int call_set_interface_state(const bt_driver *d, uint32_t pipe)
{
    return d->ops->set_interface_state(pipe, 1);
}

int call_get_interface_state(const bt_driver *d, uint32_t pipe)
{
    uint8_t up;

    return d->ops->get_interface_state(pipe, &up);
}

int call_set_loopback(const bt_driver *d, uint32_t pipe)
{
    return d->ops->set_loopback(PORT_LOOPBACK_PCS_NEAR, pipe);
}

int call_get_loopback(const bt_driver *d, uint32_t pipe)
{
    uint32_t mask = 0;

    return d->ops->get_loopback(&mask, pipe);
}

/* get interface stats with a wrong size as well: the pipe and context come
 * before the size. */
constexpr bt_call checked_calls[] = {
    {"set interface state", LOG_CRIT, -1, call_set_interface_state},
    {"get interface state", LOG_CRIT, -1, call_get_interface_state},
    {"set loopback", LOG_CRIT, -1, call_set_loopback},
    {"get loopback", LOG_CRIT, -1, call_get_loopback},
    {"update stats", LOG_CRIT, 0, bt_call_update_stats},
    {"get interface stats", LOG_CRIT, -1, bt_call_get_stats_wrong_size},
    {"clear interface stats", LOG_CRIT, -1, bt_call_clear_stats},
    {"module fatal error detection", LOG_CRIT, 0, bt_call_fatal_error_detect},
};

int null_get_interface_state(const bt_driver *d, uint32_t pipe)
{
    return d->ops->get_interface_state(pipe, nullptr);
}

int null_get_loopback(const bt_driver *d, uint32_t pipe)
{
    return d->ops->get_loopback(nullptr, pipe);
}

constexpr bt_call null_calls[] = {
    {"get interface state", LOG_ERR, -1, null_get_interface_state},
    {"get loopback", LOG_ERR, -1, null_get_loopback},
    {"get interface stats", LOG_ERR, -1, bt_null_get_stats},
    {"module fatal error detection", LOG_ERR, 0, bt_null_fatal_error_detect},
};

/* Contexts last as long as the process. ctest runs each case in a process
 * of its own; a run of the whole program skips the cases that need
 * contexts nobody created once another case has run before them. */
int cases_started;
constexpr const char *NEEDS_OWN_PROCESS =
    "needs contexts no earlier case created: run it alone, as ctest does";

/* A device with a port block at BLOCK_BASE; every case it started ends
 * with every message accounted for. */
class PortFixture : public BlockTest {
protected:
    void SetUp() override
    {
        cases_started++;
        BlockTest::SetUp();
    }

    void TearDown() override
    {
        if (started)
            expect_no_more_logs();
        fx.hooks_installed = false;
        mutex_init_fails = false;
        BlockTest::TearDown();
    }

    static bool first_case_of_process() { return cases_started == 1; }

    /* A device without a created context. */
    void start_device(const port_case *port, lh_device_desc *device)
    {
        fx = port_model{};
        fx.port = port;
        fx.model = fake_device_start(device, 1);
        fx.regs = (uint8_t *)fx.model->words + BLOCK_BASE;
        mutex_init_fails = false;
        usleep_calls = 0;
        usleep_total_us = 0;
        started = true;
    }

    /* A device with pipe 0's context created, the model's hooks in place
     * and its counts from zero. */
    void start_port(const port_case *port)
    {
        start_device(port, port->d.device);
        bt_create_at(&port->d, 0, fx.regs);
        mark_counter_registers();
        fx.model->on_read = port_read;
        fx.model->on_write = port_write;
        fx.model->reads = 0;
        fx.model->writes = 0;
        fx.hooks_installed = true;
    }

private:
    bool started = false;
};

std::string port_name(const testing::TestParamInfo<const port_case *> &info)
{
    return info.param->d.name;
}

/* Each case on each block, pipe 0's context created. */
class PortTest : public PortFixture,
                 public testing::WithParamInterface<const port_case *> {
protected:
    void SetUp() override
    {
        PortFixture::SetUp();
        if (!IsSkipped())
            start_port(port);
    }

    const port_case *const port = GetParam();
};

INSTANTIATE_TEST_SUITE_P(, PortTest, testing::ValuesIn(ports), port_name);

/* Each case on each block, no context created by the fixture: these
 * need contexts nobody created. */
class PortNoContextTest
    : public PortFixture,
      public testing::WithParamInterface<const port_case *> {
protected:
    const port_case *const port = GetParam();
};

INSTANTIATE_TEST_SUITE_P(, PortNoContextTest, testing::ValuesIn(ports),
                         port_name);

/* Cases of one block, or of the operations tables. */
class PortBlocksTest : public PortFixture {};

/* One case per row of both error tables. */
struct error_row_case {
    const port_case *port;
    const error_row *row;
};

void PrintTo(const error_row_case &c, std::ostream *os)
{
    *os << c.port->d.name << " bit " << c.row->bit;
}

std::vector<error_row_case> every_error_row()
{
    std::vector<error_row_case> rows;

    for (const port_case *port : ports)
        for (const error_row &row : port->errors)
            rows.push_back({port, &row});
    return rows;
}

class PortErrorTableTest
    : public PortFixture,
      public testing::WithParamInterface<error_row_case> {
protected:
    void SetUp() override
    {
        PortFixture::SetUp();
        if (!IsSkipped())
            start_port(GetParam().port);
    }
};

INSTANTIATE_TEST_SUITE_P(
    , PortErrorTableTest, testing::ValuesIn(every_error_row()),
    [](const testing::TestParamInfo<error_row_case> &info) {
        return std::string(info.param.port->d.name) + "_bit_" +
               std::to_string(info.param.row->bit);
    });

/* ---- Contexts nobody created ---- */

TEST_P(PortNoContextTest, FailedMutexInitLeavesContextValid)
{
    uint8_t up = 0xAA;

    if (!first_case_of_process())
        GTEST_SKIP() << NEEDS_OWN_PROCESS;
    start_device(port, port->d.device);
    EXPECT_EQ(port->d.ops->get_interface_state(0, &up), -1);
    expect_logf(LOG_CRIT, "Error - %s get interface state - invalid context 0",
                port->d.name);

    mutex_init_fails = true;
    bt_expect_mutex_failure(&port->d, 0, fx.regs);
    mutex_init_fails = false;
    EXPECT_EQ(fx.model->writes, 0u);

    /* Valid now: the same call passes its context check. */
    EXPECT_EQ(port->d.ops->get_interface_state(0, &up), 0);
    EXPECT_EQ(up, 0);
}

TEST_P(PortNoContextTest, Pipe1RefusedOnOnePipeBoard)
{
    if (!first_case_of_process())
        GTEST_SKIP() << NEEDS_OWN_PROCESS;
    start_device(port, port->d.one_pipe_device);
    bt_expect_create_refused(&port->d, 1, fx.regs);
    bt_expect_refusals(&port->d, checked_calls, BT_ARRAY_SIZE(checked_calls),
                       1, "context");
    /* The loopback type is checked before the context. */
    EXPECT_EQ(port->d.ops->set_loopback(5, 1), -1);
    expect_logf(LOG_CRIT, "Error - %s set loopback - invalid loopback type 5",
                port->d.name);
    port->rx_align_monitor(1);
    EXPECT_EQ(fx.model->reads, 0u);
    EXPECT_EQ(fx.model->writes, 0u);
}

/* ---- Operations table and context creation ---- */

TEST_F(PortBlocksTest, OpsTables)
{
    /* eth's monitor is not in its table: the poll thread never runs it. */
    static const lh_block_ops expected_eth = {
        .context_create = eth_context_create,
        .set_interface_state = eth_set_interface_state,
        .get_interface_state = eth_get_interface_state,
        .set_loopback = eth_set_loopback,
        .get_loopback = eth_get_loopback,
        .update_stats = eth_update_stats,
        .get_stats = eth_get_stats,
        .clear_stats = eth_clear_stats,
        .fatal_error_detect = eth_fatal_error_detect,
    };
    static const lh_block_ops expected_caui = {
        .context_create = caui_context_create,
        .set_interface_state = caui_set_interface_state,
        .get_interface_state = caui_get_interface_state,
        .set_loopback = caui_set_loopback,
        .get_loopback = caui_get_loopback,
        .update_stats = caui_update_stats,
        .get_stats = caui_get_stats,
        .clear_stats = caui_clear_stats,
        .fatal_error_detect = caui_fatal_error_detect,
        .rx_align_monitor = caui_rx_align_monitor,
    };

    bt_assert_ops(&eth_ops, &expected_eth);
    bt_assert_ops(&caui_ops, &expected_caui);
}

TEST_P(PortTest, CreateRefusesNullRegs)
{
    bt_expect_create_null(&port->d, 0);
    /* The null base comes before the pipe. */
    bt_expect_create_null(&port->d, 2);
}

TEST_P(PortTest, CreateRefusesPipe2)
{
    bt_expect_create_refused(&port->d, 2, fx.regs);
    EXPECT_EQ(fx.model->writes, 0u);
}

TEST_P(PortTest, CreateClearsLoopbackFieldAndFlag)
{
    ASSERT_EQ(port->d.ops->set_loopback(PORT_LOOPBACK_PCS_NEAR, 0), 0);
    expect_logf(LOG_INFO,
                "Informational - %s interface 0 loopback (pcs-near) "
                "enabled",
                port->d.name);
    set_reg(port->control, 0xF0000D07);
    fx.model->writes = 0;

    bt_create_at(&port->d, 0, fx.regs);
    EXPECT_EQ(reg(port->control), 0xF0000D00u);
    EXPECT_EQ(fx.model->writes, 1u);

    /* loopback_on is 0 again: another type needs no "disable-all". */
    EXPECT_EQ(port->d.ops->set_loopback(PORT_LOOPBACK_PMA_NEAR, 0), 0);
    expect_logf(LOG_INFO,
                "Informational - %s interface 0 loopback (pma-near) "
                "enabled",
                port->d.name);
}

TEST_F(PortBlocksTest, CauiPipe1UsesItsOwnRegisters)
{
    lh_fatal_error_t report = {0, 0, nullptr};

    start_port(&caui_case);
    uint8_t *pipe1 = (uint8_t *)fx.model->words + CAUI_PIPE1_BASE;

    ASSERT_EQ(caui_context_create(1, pipe1), 0);
    expect_log(LOG_INFO, "Informational - CAUI module 1 context created");

    reg_model_store(fx.model, CAUI_PIPE1_BASE + 0x820, ENABLE_BIT);
    EXPECT_EQ(caui_set_interface_state(1, 0), 0);
    expect_log(LOG_INFO, "Informational - CAUI interface 1 disabled");
    EXPECT_EQ(reg_model_peek(fx.model, CAUI_PIPE1_BASE + 0x820), DISABLE_BIT);
    EXPECT_EQ(reg(0x820), 0u);

    reg_model_store(fx.model, CAUI_PIPE1_BASE + 0x800, 1u << 9);
    EXPECT_EQ(caui_fatal_error_detect(1, &report), 1);
    expect_log(LOG_CRIT, "FATAL - CAUI pipe 1: TX Buffer FIFO Underflow");
    EXPECT_EQ(caui_fatal_error_detect(0, &report), 0);
}

/* ---- Common checks ---- */

TEST_P(PortTest, NullOutputRefusedBeforePipe)
{
    bt_expect_null_refusals(&port->d, null_calls, BT_ARRAY_SIZE(null_calls),
                            2);
    EXPECT_EQ(fx.model->reads, 0u);
}

TEST_P(PortTest, InvalidPipeRefused)
{
    bt_expect_refusals(&port->d, checked_calls, BT_ARRAY_SIZE(checked_calls),
                       2, "pipe");
    /* The pipe is checked before the loopback type. */
    EXPECT_EQ(port->d.ops->set_loopback(5, 2), -1);
    expect_logf(LOG_CRIT, "Error - %s set loopback - invalid pipe 2",
                port->d.name);
    port->rx_align_monitor(2);
    EXPECT_EQ(fx.model->reads, 0u);
    EXPECT_EQ(fx.model->writes, 0u);
    EXPECT_EQ(usleep_calls, 0u);
}

TEST_P(PortTest, InvalidLoopbackTypeRefused)
{
    EXPECT_EQ(port->d.ops->set_loopback(5, 0), -1);
    expect_logf(LOG_CRIT, "Error - %s set loopback - invalid loopback type 5",
                port->d.name);
    EXPECT_EQ(fx.model->writes, 0u);
}

/* ---- Interface state ---- */

TEST_P(PortTest, DisableSetsBit11ThenClearsBit8)
{
    set_reg(port->control, ENABLE_BIT | 0x3);
    EXPECT_EQ(port->d.ops->set_interface_state(0, 0), 0);
    expect_logf(LOG_INFO, "Informational - %s interface 0 disabled",
                port->d.name);
    ASSERT_EQ(fx.control_write_count, 2u);
    EXPECT_EQ(fx.control_writes[0], ENABLE_BIT | DISABLE_BIT | 0x3);
    EXPECT_EQ(fx.control_writes[1], DISABLE_BIT | 0x3);
    EXPECT_EQ(fx.status_reads, 0u);
    EXPECT_EQ(usleep_calls, 0u);
}

TEST_P(PortTest, EnableAlreadyAlignedDoesNotSleep)
{
    uint8_t up = 0;

    set_reg(port->control, DISABLE_BIT | 0x3);
    fx.align_after_resets = 0;
    EXPECT_EQ(port->d.ops->set_interface_state(0, 1), 0);
    expect_logf(LOG_INFO, "Informational - %s interface 0 enabled",
                port->d.name);
    expect_logf(LOG_INFO, "Informational - %s interface 0 receive aligned",
                port->d.name);
    ASSERT_EQ(fx.control_write_count, 2u);
    EXPECT_EQ(fx.control_writes[0], ENABLE_BIT | DISABLE_BIT | 0x3);
    EXPECT_EQ(fx.control_writes[1], ENABLE_BIT | 0x3);
    EXPECT_EQ(fx.status_reads, 1u);
    EXPECT_EQ(usleep_calls, 0u);
    EXPECT_EQ(fx.link_reset_sets, 0u);

    EXPECT_EQ(port->d.ops->get_interface_state(0, &up), 0);
    EXPECT_EQ(up, 1);
}

TEST_P(PortTest, EnableAlignedAfterSecondLinkReset)
{
    set_reg(port->control, DISABLE_BIT);
    fx.align_after_resets = 2;
    EXPECT_EQ(port->d.ops->set_interface_state(0, 1), 0);
    expect_logf(LOG_INFO, "Informational - %s interface 0 enabled",
                port->d.name);
    expect_logf(LOG_DEBUG,
                "Informational - %s interface 0 - attempting link reset 1",
                port->d.name);
    expect_logf(LOG_DEBUG,
                "Informational - %s interface 0 - attempting link reset 2",
                port->d.name);
    expect_logf(LOG_INFO, "Informational - %s interface 0 receive aligned",
                port->d.name);
    EXPECT_EQ(fx.status_reads, 500u + 500 + 1);
    EXPECT_EQ(usleep_calls, 500u + 1 + 500 + 1);
    EXPECT_EQ(usleep_total_us, 100200u);
    EXPECT_EQ(fx.link_reset_sets, 2u);
    EXPECT_EQ(fx.link_reset_clears, 2u);
    EXPECT_EQ(fx.sleeps_in_link_reset, 2u);
    EXPECT_EQ(reg(port->control), ENABLE_BIT);
}

TEST_P(PortTest, EnableNeverAlignedStillSucceeds)
{
    uint8_t up = 0xAA;

    set_reg(port->control, DISABLE_BIT);
    EXPECT_EQ(port->d.ops->set_interface_state(0, 1), 0);
    expect_logf(LOG_INFO, "Informational - %s interface 0 enabled",
                port->d.name);
    for (int attempt = 1; attempt <= 3; attempt++)
        expect_logf(LOG_DEBUG,
                    "Informational - %s interface 0 - attempting link reset "
                    "%d",
                    port->d.name, attempt);
    expect_logf(LOG_INFO, "Error - %s interface 0 failed to receive align",
                port->d.name);

    /* Not polled again after the third reset. */
    EXPECT_EQ(fx.status_reads, 3u * 500);
    EXPECT_EQ(usleep_calls, 3u * (500 + 1));
    EXPECT_EQ(usleep_total_us, 3u * (500 + 1) * 100);
    EXPECT_EQ(fx.link_reset_sets, 3u);
    EXPECT_EQ(fx.link_reset_clears, 3u);
    EXPECT_EQ(fx.sleeps_in_link_reset, 3u);
    ASSERT_EQ(fx.control_write_count, 2u + 3 * 2);
    EXPECT_EQ(fx.control_writes[2], ENABLE_BIT | LINK_RESET_BIT);
    EXPECT_EQ(fx.control_writes[3], ENABLE_BIT);
    EXPECT_EQ(reg(port->control), ENABLE_BIT);

    EXPECT_EQ(port->d.ops->get_interface_state(0, &up), 0);
    EXPECT_EQ(up, 0);
}

TEST_P(PortTest, GetInterfaceStateNeedsEnableAndAligned)
{
    const struct {
        uint32_t control;
        int align_after_resets;
        uint32_t status;
        uint8_t up;
    } rows[] = {
        {0, -1, 0, 0},
        {ENABLE_BIT, -1, 0, 0},
        {0, 0, 0, 0},
        {ENABLE_BIT, 0, 0, 1},
        {~ENABLE_BIT, 0, 0, 0},
        {ENABLE_BIT, -1, 1u << port->other_aligned_bit, 0},
    };

    for (size_t i = 0; i < BT_ARRAY_SIZE(rows); i++) {
        uint8_t up = 0xAA;

        set_reg(port->control, rows[i].control);
        set_reg(port->status, rows[i].status);
        fx.align_after_resets = rows[i].align_after_resets;
        EXPECT_EQ(port->d.ops->get_interface_state(0, &up), 0) << "row " << i;
        EXPECT_EQ(up, rows[i].up) << "row " << i;
    }
    EXPECT_EQ(fx.model->writes, 0u);
}

/* ---- Loopback ---- */

constexpr struct {
    uint32_t type;
    const char *name;
    uint32_t code;
    uint32_t mask;
} loopback_rows[] = {
    {1, "pcs-near", 1, 0x02},
    {2, "pma-near", 2, 0x04},
    {3, "pma-far", 4, 0x08},
    {4, "pcs-far", 6, 0x10},
};

TEST_P(PortTest, LoopbackEachType)
{
    set_reg(port->control, OTHER_CONTROL_BITS);
    for (const auto &row : loopback_rows) {
        uint32_t mask = 0;

        SCOPED_TRACE(row.name);
        fx.model->writes = 0;
        EXPECT_EQ(port->d.ops->set_loopback(row.type, 0), 0);
        expect_logf(LOG_INFO,
                    "Informational - %s interface 0 loopback (%s) enabled",
                    port->d.name, row.name);
        EXPECT_EQ(fx.model->writes, 1u);
        EXPECT_EQ(reg(port->control), OTHER_CONTROL_BITS | row.code);
        EXPECT_EQ(port->d.ops->get_loopback(&mask, 0), 0);
        EXPECT_EQ(mask, row.mask);

        EXPECT_EQ(port->d.ops->set_loopback(PORT_LOOPBACK_DISABLE_ALL, 0), 0);
        expect_logf(LOG_INFO,
                    "Informational - %s interface 0 loopback "
                    "disabled",
                    port->d.name);
        EXPECT_EQ(reg(port->control), OTHER_CONTROL_BITS);
        mask = 0;
        EXPECT_EQ(port->d.ops->get_loopback(&mask, 0), 0);
        EXPECT_EQ(mask, 0u);
    }
}

TEST_P(PortTest, LoopbackAlreadyEnabled)
{
    EXPECT_EQ(port->d.ops->set_loopback(PORT_LOOPBACK_PCS_NEAR, 0), 0);
    expect_logf(LOG_INFO,
                "Informational - %s interface 0 loopback (pcs-near) "
                "enabled",
                port->d.name);

    fx.model->writes = 0;
    EXPECT_EQ(port->d.ops->set_loopback(PORT_LOOPBACK_PMA_NEAR, 0), -1);
    expect_logf(LOG_CRIT,
                "Error - %s enable loopback on pipe 0 failed - "
                "loopback already enabled",
                port->d.name);
    EXPECT_EQ(port->d.ops->set_loopback(PORT_LOOPBACK_PCS_NEAR, 0), -1);
    expect_logf(LOG_CRIT,
                "Error - %s enable loopback on pipe 0 failed - "
                "loopback already enabled",
                port->d.name);
    EXPECT_EQ(fx.model->writes, 0u);
    EXPECT_EQ(reg(port->control), 1u);

    EXPECT_EQ(port->d.ops->set_loopback(PORT_LOOPBACK_DISABLE_ALL, 0), 0);
    expect_logf(LOG_INFO, "Informational - %s interface 0 loopback disabled",
                port->d.name);
    EXPECT_EQ(port->d.ops->set_loopback(PORT_LOOPBACK_PMA_NEAR, 0), 0);
    expect_logf(LOG_INFO,
                "Informational - %s interface 0 loopback (pma-near) "
                "enabled",
                port->d.name);
    EXPECT_EQ(reg(port->control), 2u);
}

TEST_P(PortTest, DisableAllWithoutLoopback)
{
    set_reg(port->control, OTHER_CONTROL_BITS | 0x7);
    EXPECT_EQ(port->d.ops->set_loopback(PORT_LOOPBACK_DISABLE_ALL, 0), 0);
    expect_logf(LOG_INFO, "Informational - %s interface 0 loopback disabled",
                port->d.name);
    EXPECT_EQ(reg(port->control), OTHER_CONTROL_BITS);
}

/* Codes 0, 3, 5 and 7 add nothing; the caller's bits are kept. */
TEST_P(PortTest, GetLoopbackCodes)
{
    static const uint32_t added[8] = {0, 0x02, 0x04, 0, 0x08, 0, 0x10, 0};

    for (uint32_t code = 0; code < 8; code++) {
        uint32_t mask = 0x100;

        set_reg(port->control, OTHER_CONTROL_BITS | code);
        EXPECT_EQ(port->d.ops->get_loopback(&mask, 0), 0) << "code " << code;
        EXPECT_EQ(mask, 0x100 | added[code]) << "code " << code;
    }
    EXPECT_EQ(fx.model->writes, 0u);
}

/* ---- Statistics ---- */

TEST_P(PortTest, UpdateStatsComposesEveryCounter)
{
    uint64_t expected[MAX_STATS] = {};
    uint64_t stats[MAX_STATS];

    make_port_up();
    fill_counters(1);
    port->d.ops->update_stats(0);

    EXPECT_EQ(fx.snapshot_reads, 1u);
    EXPECT_EQ(reg(port->snapshot), 1u);
    EXPECT_EQ(fx.counter_reads, fx.counter_registers);
    /* control, status, snapshot, then each counter register once */
    EXPECT_EQ(fx.model->reads, 3 + fx.counter_registers);
    EXPECT_EQ(fx.model->writes, 1u);

    add_expected_counters(1, expected);
    assert_stats(expected);
    get_stats(stats);
    for (const counter_sample &sample : port->samples)
        EXPECT_EQ(stats[sample.index],
                  (uint64_t)counter_value(sample.high, 1) << 32 |
                      counter_value(sample.low, 1))
            << "counter " << sample.index;
}

TEST_P(PortTest, UpdateStatsAccumulates)
{
    uint64_t expected[MAX_STATS] = {};

    make_port_up();
    for (unsigned int round = 1; round <= 3; round++) {
        fill_counters(round);
        fx.snapshot_written = false;
        port->d.ops->update_stats(0);
        add_expected_counters(round, expected);
    }
    assert_stats(expected);
}

TEST_P(PortTest, UpdateStatsWhileDownTakesNoSnapshot)
{
    uint64_t expected[MAX_STATS] = {};

    make_port_up();
    fill_counters(1);
    port->d.ops->update_stats(0);
    add_expected_counters(1, expected);

    fill_counters(2);
    fx.snapshot_written = false;
    fx.snapshot_reads = 0;
    fx.counter_reads = 0;
    fx.model->reads = 0;
    fx.model->writes = 0;
    set_reg(port->control, 0);
    port->d.ops->update_stats(0);
    EXPECT_EQ(fx.model->reads, 1u); /* the enable bit only */
    EXPECT_EQ(fx.model->writes, 0u);

    set_reg(port->control, ENABLE_BIT);
    fx.align_after_resets = -1;
    fx.model->reads = 0;
    port->d.ops->update_stats(0);
    EXPECT_EQ(fx.model->reads, 2u); /* enable bit, then status */
    EXPECT_EQ(fx.model->writes, 0u);

    EXPECT_EQ(fx.snapshot_reads, 0u);
    EXPECT_EQ(fx.counter_reads, 0u);
    EXPECT_FALSE(fx.snapshot_written);
    assert_stats(expected);
}

TEST_P(PortTest, GetStatsRefusesOtherSizes)
{
    uint64_t stats[MAX_STATS];

    bt_expect_wrong_sizes(&port->d, 0, port->wrong_sizes,
                          BT_ARRAY_SIZE(port->wrong_sizes));
    /* The exact size, and nothing written past the record. */
    get_stats(stats);
    for (size_t i = 0; i < port->counters.size(); i++)
        EXPECT_EQ(stats[i], 0u) << "counter " << i;
}

TEST_P(PortTest, ClearStatsDoesNotTouchHardware)
{
    uint64_t zero[MAX_STATS] = {};
    uint64_t stats[MAX_STATS];

    make_port_up();
    fill_counters(1);
    port->d.ops->update_stats(0);
    get_stats(stats);
    EXPECT_NE(stats[0], 0u);

    fx.model->reads = 0;
    fx.model->writes = 0;
    EXPECT_EQ(port->d.ops->clear_stats(0), 0);
    EXPECT_EQ(fx.model->reads, 0u);
    EXPECT_EQ(fx.model->writes, 0u);
    assert_stats(zero);
}

/* ---- Fatal errors ---- */

TEST_P(PortErrorTableTest, ErrorRow)
{
    const port_case *port = GetParam().port;
    const error_row *row = GetParam().row;

    set_reg(port->fatal_status, 1u << row->bit);
    bt_expect_fatal(&port->d, 0, row->text);
    EXPECT_EQ(fx.model->writes, 0u);
    EXPECT_EQ(reg(port->fatal_status), 1u << row->bit);
}

/* With a row's bit and every later row's bit set, the row's text wins. */
TEST_P(PortTest, ErrorPriority)
{
    for (size_t i = 0; i < port->errors.size(); i++) {
        uint32_t bits = 0;

        for (size_t later = i; later < port->errors.size(); later++)
            bits |= 1u << port->errors[later].bit;
        set_reg(port->fatal_status, bits);
        bt_expect_fatal(&port->d, 0, port->errors[i].text);
    }
    set_reg(port->fatal_status, 0xFFFFFFFF);
    bt_expect_fatal(&port->d, 0, port->errors[0].text);
    EXPECT_EQ(fx.model->writes, 0u);
}

TEST_F(PortBlocksTest, EthBits3And8ReportBit8EveryCall)
{
    start_port(&eth_case);
    set_reg(0x1000, (1u << 3) | (1u << 8));
    bt_expect_fatal(&eth_case.d, 0,
                    "RX Straddle AXI4 Interface Multiple SOP error");
    bt_expect_fatal(&eth_case.d, 0,
                    "RX Straddle AXI4 Interface Multiple SOP error");
}

TEST_P(PortTest, UntestedBitReportsNothing)
{
    set_reg(port->fatal_status, 1u << port->untested_bit);
    bt_expect_no_fatal(&port->d, 0);
    set_reg(port->fatal_status, 0);
    bt_expect_no_fatal(&port->d, 0);
}

/* ---- Receive-align monitor ---- */

TEST_P(PortTest, RxAlignMonitorLeavesDisabledPort)
{
    port->rx_align_monitor(0);
    EXPECT_EQ(fx.model->writes, 0u);
    EXPECT_EQ(usleep_calls, 0u);
}

TEST_P(PortTest, RxAlignMonitorLeavesAlignedPort)
{
    make_port_up();
    port->rx_align_monitor(0);
    EXPECT_EQ(fx.model->writes, 0u);
    EXPECT_EQ(usleep_calls, 0u);
}

TEST_P(PortTest, RxAlignMonitorPulseThatAligns)
{
    set_reg(port->control, ENABLE_BIT);
    fx.align_after_resets = 1;
    port->rx_align_monitor(0);
    expect_logf(LOG_INFO, "Informational - %s interface 0 receive aligned",
                port->d.name);
    EXPECT_EQ(fx.link_reset_sets, 1u);
    EXPECT_EQ(fx.link_reset_clears, 1u);
    EXPECT_EQ(fx.sleeps_in_link_reset, 1u);
    EXPECT_EQ(usleep_calls, 1u);
    EXPECT_EQ(usleep_total_us, 100u);
    EXPECT_EQ(reg(port->control), ENABLE_BIT);
}

TEST_P(PortTest, RxAlignMonitorPulseWithoutAlignIsSilent)
{
    set_reg(port->control, ENABLE_BIT);
    port->rx_align_monitor(0);
    EXPECT_EQ(fx.link_reset_sets, 1u);
    EXPECT_EQ(fx.link_reset_clears, 1u);
    EXPECT_EQ(fx.sleeps_in_link_reset, 1u);
    EXPECT_EQ(reg(port->control), ENABLE_BIT);
}

} // namespace
