/* The NIC block drivers (nic, lhx_nic) against a model of the block:
 * clear-on-read global counters, per-queue counters served through the
 * queue select register with the data pair latched by the high word, and
 * status registers that can change between reads. */
#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <iterator>

#include <gtest/gtest.h>

#include "block_fixture.hpp"
#include "fake_device.hpp"
#include "lh_drivers.hpp"
#include "lh_log.hpp"
#include "log_expect.hpp"
#include "mutex_wrap.hpp"
#include "nic.hpp"

namespace {

/* Block registers, offsets from the block base. */
constexpr uint32_t kStatus0 = 0x00;
constexpr uint32_t kStatus1 = 0x20;
constexpr uint32_t kStatus2 = 0x30;
constexpr uint32_t kQueueSelect = 0xC0;
constexpr uint32_t kQueueHigh = 0xC4;
constexpr uint32_t kQueueLow = 0xC8;

constexpr size_t kStatsBytes = 8360;
constexpr size_t kGlobals = 21;
constexpr uint32_t kQueues = 256;
constexpr size_t kQueueEntry0 = 168;
constexpr size_t kEntryBytes = 32;

/* What the low data register reads when no high read latched it. */
constexpr uint32_t kStaleLow = 0x57A1E000;

constexpr int kSites = 2;
constexpr size_t kMaxSelects = 1024;

using Record = std::array<uint8_t, kStatsBytes>;

/* The table of global counters: the register of bits 63..32 (0: none) and
 * the register of bits 31..0, at byte 8 x i of the record. */
const bt_counter global_sources[kGlobals] = {
    {0x50, 0x54}, {0x58, 0x5C}, {0x60, 0x64}, {0x68, 0x6C}, {0, 0x88},
    {0, 0x8C},    {0, 0x70},    {0, 0x74},    {0, 0x78},    {0, 0x7C},
    {0, 0x80},    {0, 0x84},    {0, 0xF8},    {0, 0x90},    {0, 0x94},
    {0, 0x98},    {0, 0x9C},    {0, 0xA0},    {0, 0xA4},    {0, 0xA8},
    {0, 0xAC},
};

/* ---- The queue registers of the model ---- */

/* The select field each site's hardware decodes: its top bit is the bank,
 * the bits below the queue. */
unsigned int select_width[kSites];
/* The queue counters change with the generation, so polls differ. */
uint32_t generation[kSites];
uint32_t latched_low[kSites];
uint32_t selects[kSites][kMaxSelects];
size_t select_count[kSites];
unsigned long stray_reads;
unsigned long stray_writes;

/* Queue counters of (queue, bank) in this generation, distinct in every
 * field so a wrong bank, queue, half or register shows. */
uint32_t queue_high(uint32_t queue, uint32_t bank, uint32_t gen)
{
    uint32_t counter16 = 0x8000 | queue << 4 | bank << 3 | gen;
    uint32_t upper48 = 0x4000 | queue << 4 | bank << 3 | gen;

    return counter16 << 16 | upper48;
}

uint32_t queue_low(uint32_t queue, uint32_t bank, uint32_t gen)
{
    return 0x20000000 | queue << 16 | bank << 12 | gen << 8 | 0xA5;
}

void selected_queue(int site, uint32_t *queue, uint32_t *bank)
{
    unsigned int index_bits = select_width[site] - 1;
    uint32_t select = bt_peek(site, kQueueSelect);

    *queue = select & ((1u << index_bits) - 1);
    *bank = (select >> index_bits) & 1;
}

uint32_t read_queue_high(int site)
{
    uint32_t queue, bank;

    selected_queue(site, &queue, &bank);
    latched_low[site] = queue_low(queue, bank, generation[site]);
    return queue_high(queue, bank, generation[site]);
}

uint32_t read_queue_low(int site)
{
    uint32_t low = latched_low[site];

    latched_low[site] = kStaleLow;
    return low;
}

/* The registers of a block that are neither status nor global counters. */
uint32_t queue_read(int site, uint32_t reg, uint32_t stored)
{
    if (reg == kQueueHigh)
        return read_queue_high(site);
    if (reg == kQueueLow)
        return read_queue_low(site);
    if (reg != kQueueSelect)
        stray_reads++;
    return stored;
}

void queue_write(int site, uint32_t reg, uint32_t value)
{
    if (site >= 0 && reg == kQueueSelect) {
        if (select_count[site] < kMaxSelects)
            selects[site][select_count[site]] = value;
        select_count[site]++;
    } else {
        stray_writes++;
    }
}

/* The NIC blocks of the window: pipe 0's and pipe 1's on the base image;
 * the LHX image has the first only. A case may put either driver's context
 * on either site. */
const bt_layout layout = {
    .sites = {0x12000, 0x22000},
    .site_count = kSites,
    .span = 0x100,
    .status = {kStatus0, kStatus1, kStatus2},
    .status_count = 3,
    .counters = global_sources,
    .counter_count = kGlobals,
    .value = bt_value_by_reg,
    .on_read = queue_read,
    .on_write = queue_write,
};

const bt_driver nic = {
    .name = "NIC",
    .ops = &nic_ops,
    .site = 0,
    .device = &lh_desc_base_two_pipes,
    .stats_bytes = kStatsBytes,
};
const bt_driver lhx = {
    .name = "LHX NIC",
    .ops = &lhx_nic_ops,
    .site = 1,
    .device = &lh_desc_lhx,
    .stats_bytes = kStatsBytes,
};
const bt_driver *const drivers[] = {&nic, &lhx};

const bt_call refusals[] = {
    BT_STATS_REFUSALS("clear stats", "module fatal error detection"),
};

const bt_call null_refusals[] = {
    {"get stats", LOG_ERR, -1, bt_null_get_stats_wrong_size},
    {"module fatal error detection", LOG_ERR, 0, bt_null_fatal_error_detect},
};

/* ---- The expected record, built from the record's byte offsets ---- */

uint64_t get_u64(const Record &record, size_t offset)
{
    uint64_t value = 0;

    for (int i = 7; i >= 0; i--)
        value = value << 8 | record[offset + i];
    return value;
}

void put_u64(Record &record, size_t offset, uint64_t value)
{
    for (int i = 0; i < 8; i++)
        record[offset + i] = static_cast<uint8_t>(value >> (8 * i));
}

void add_u64(Record &record, size_t offset, uint64_t value)
{
    put_u64(record, offset, get_u64(record, offset) + value);
}

void add_globals(Record &record, uint32_t poll)
{
    uint64_t sums[kGlobals] = {};

    bt_add_expected(sums, 0, poll);
    for (size_t i = 0; i < kGlobals; i++)
        add_u64(record, 8 * i, sums[i]);
}

constexpr size_t entry_offset(uint32_t entry)
{
    return kQueueEntry0 + kEntryBytes * entry;
}

/* Entry `entry` polled with its first read from (queue, first_bank) and
 * its second from (queue, second_bank) of the hardware. */
void add_queue(Record &record, uint32_t entry, uint32_t queue,
               uint32_t first_bank, uint32_t second_bank, uint32_t gen)
{
    size_t at = entry_offset(entry);
    uint32_t high1 = queue_high(queue, first_bank, gen);
    uint32_t high2 = queue_high(queue, second_bank, gen);

    record[at] = 1;
    add_u64(record, at + 8, high1 >> 16);
    add_u64(record, at + 16,
            static_cast<uint64_t>(high1 & 0xFFFF) << 32 |
                queue_low(queue, first_bank, gen));
    add_u64(record, at + 24,
            static_cast<uint64_t>(high2 & 0xFFFF) << 32 |
                queue_low(queue, second_bank, gen));
}

void add_nic_queues(Record &record, uint32_t max_queue_id, uint32_t gen)
{
    for (uint32_t q = 0; q <= max_queue_id; q++)
        add_queue(record, q, q, 0, 1, gen);
}

/* Queues 0..127, then queue 128: the first select (128) is bank 1 of
 * queue 0, the second ((128 + 0x80) mod 256 = 0) bank 0 of queue 0. */
void add_lhx_queues(Record &record, uint32_t gen)
{
    for (uint32_t q = 0; q < 128; q++)
        add_queue(record, q, q, 0, 1, gen);
    add_queue(record, 128, 0, 1, 0, gen);
}

size_t present_entries(const bt_driver *driver, uint32_t pipe)
{
    Record record{};
    size_t present = 0;

    bt_get_stats(driver, pipe, record.data());
    for (uint32_t q = 0; q < kQueues; q++)
        present += record[entry_offset(q)] == 1;
    return present;
}

/* ---- The error table ---- */

/* The error table as lhx_nic tests it; nic differs at two rows. */
constexpr bt_error_row error_rows[] = {
    {kStatus0, 19, "H2C Descriptor Memory Double bit ECC Error"},
    {kStatus0, 18, "C2H Descriptor Memory Double bit ECC Error"},
    {kStatus0, 17, "NIC Egr Path FIFO Double bit ECC Error"},
    {kStatus0, 16, "TM Out Packet Buffer Double bit ECC Error"},
    {kStatus0, 15,
     "NIC Ingr In-band Input Packet Buffer Double bit ECC "
     "Error"},
    {kStatus0, 14,
     "NIC Ingr Normal Traffic Input Packet Buffer Double bit "
     "ECC Error"},
    {kStatus0, 13, "TM Counters per Q Parity Error"},
    {kStatus0, 12, "TM Shared Memory (URAMs) Parity Error"},
    {kStatus0, 11, "NIC Egr Path FIFO Overflow"},
    {kStatus0, 10, "NIC Egr Path FIFO Underflow"},
    {kStatus0, 9, "TM Out Packet Buffer Overflow"},
    {kStatus0, 8, "TM Out Packet Buffer Underflow"},
    {kStatus0, 7, "NIC Ingr In-band Input FIFO Overflow"},
    {kStatus0, 6, "NIC Ingr In-band Input FIFO Underflow"},
    {kStatus0, 5, "NIC Ingr Normal Traffic Input Packet Buffer Overflow"},
    {kStatus0, 4, "NIC Ingr Normal Traffic Input Packet Buffer Underflow"},
    {kStatus0, 3, "NIC TOP TM TX Missing EOP Error"},
    {kStatus0, 2, "NIC TOP TM TX Missing SOP Error"},
    {kStatus0, 1, "NIC TOP TM RX Missing EOP Error"},
    {kStatus0, 0, "NIC TOP TM RX Missing SOP Error"},
    {kStatus1, 29, "BudM Linked List Parity Error"},
    {kStatus1, 28, "BudM Tail Bud Parity Error"},
    {kStatus1, 27, "BudM Memory Parity Error"},
    {kStatus1, 26, "BudM Tail Pointer Parity Error"},
    {kStatus1, 25, "BudM Head Pointer Parity Error"},
    {kStatus1, 24, "BudM Free List Parity Error"},
    {kStatus1, 23, "Credit FIFO Overflow"},
    {kStatus1, 22, "Credit FIFO Underflow"},
    {kStatus1, 21, "BudM Free List Overflow"},
    {kStatus1, 20, "BudM Free List Underflow"},
    {kStatus1, 19, "C2H Descriptor Memory Overflow"},
    {kStatus1, 18, "C2H Descriptor Memory Underflow"},
    {kStatus1, 17, "QM Guaranteed List Overflow"},
    {kStatus1, 16, "QM Queue Underflow"},
    {kStatus1, 15, "QM Linked List Parity Error"},
    {kStatus1, 14, "QM Tail Pointer Parity Error"},
    {kStatus1, 13, "QM Head Pointer Parity Error"},
    {kStatus1, 12, "QM Free List Parity Error"},
    {kStatus1, 11, "Data Rd Request FIFO Overflow"},
    {kStatus1, 10, "Data Rd Request FIFO Underflow"},
    {kStatus1, 9, "Data Wr Request FIFO Overflow"},
    {kStatus1, 8, "Data Wr Request FIFO Underflow"},
    {kStatus1, 7, "Dequeue Request FIFO Overflow"},
    {kStatus1, 6, "Dequeue Request FIFO Underflow"},
    {kStatus1, 5, "Enqueue Request FIFO Overflow"},
    {kStatus1, 4, "Enqueue Request FIFO Underflow"},
    {kStatus1, 3, "Free List Request FIFO Overflow"},
    {kStatus1, 2, "Free List Request FIFO Underflow"},
    {kStatus1, 1, "QM Free List Overflow"},
    {kStatus1, 0, "QM Free List Underflow"},
    {kStatus2, 19, "H2C Descriptor Out FIFO Overflow"},
    {kStatus2, 18, "H2C Descriptor Out FIFO Underflow"},
    {kStatus2, 17, "H2C Descriptor In FIFO Overflow"},
    {kStatus2, 16, "H2C Descriptor In FIFO Underflow"},
    {kStatus2, 15, "Credit Out FIFO Overflow"},
    {kStatus2, 14, "Credit Out FIFO Underflow"},
    {kStatus2, 13, "Credit In FIFO Overflow"},
    {kStatus2, 12, "Credit In FIFO Underflow"},
    {kStatus2, 11, "Credit Request FIFO Overflow"},
    {kStatus2, 10, "Credit Request FIFO Underflow"},
    {kStatus2, 9, "Descriptor Update FIFO Overflow"},
    {kStatus2, 8, "Descriptor Update FIFO Underflow"},
    {kStatus2, 7, "QDMA C2H Bypass Descriptor Size Error"},
    {kStatus2, 6, "QDMA C2H Bypass Descriptor Path Error"},
    {kStatus2, 5, "QDMA Credit Update Error"},
    {kStatus2, 4, "QDMA H2C Data Parity Error"},
    {kStatus2, 3, "QDMA H2C Path Error"},
    {kStatus2, 2, "QDMA H2C Empty Beat Error"},
    {kStatus2, 1, "QDMA H2C Bypass Descriptor Size Error"},
    {kStatus2, 0, "QDMA H2C Bypass Descriptor Path Error"},
};
/* The text nic gives the row, null for the row it does not test. */
constexpr const char *nic_text(const bt_error_row &row)
{
    if (row.reg == kStatus0 && row.bit == 12)
        return "TM Shared Memory (URAMs) Double bit ECC Error";
    if (row.reg == kStatus2 && row.bit == 4)
        return nullptr;
    return row.text;
}

constexpr size_t nic_row_count()
{
    size_t n = 0;

    for (const bt_error_row &row : error_rows)
        n += nic_text(row) != nullptr;
    return n;
}
static_assert(nic_row_count() == std::size(error_rows) - 1,
              "nic leaves out one row");

/* The error table as nic tests it. */
constexpr std::array<bt_error_row, nic_row_count()> nic_rows = [] {
    std::array<bt_error_row, nic_row_count()> rows{};
    size_t n = 0;

    for (const bt_error_row &row : error_rows)
        if (const char *text = nic_text(row); text != nullptr)
            rows[n++] = {row.reg, row.bit, text};
    return rows;
}();

class NicTest : public BlockTest {
protected:
    void SetUp() override
    {
        saved_max_queue_id[0] = lh_desc_base_two_pipes.max_queue_id;
        saved_max_queue_id[1] = lh_desc_lhx.max_queue_id;
        BlockTest::SetUp();
    }

    void TearDown() override
    {
        mutex_init_fails = false;
        lh_desc_base_two_pipes.max_queue_id = saved_max_queue_id[0];
        lh_desc_lhx.max_queue_id = saved_max_queue_id[1];
        BlockTest::TearDown();
    }

    void start(lh_device_desc *desc)
    {
        model = bt_start(&layout, desc);
        for (int site = 0; site < kSites; site++) {
            select_width[site] = 9;
            generation[site] = 0;
            latched_low[site] = kStaleLow;
            select_count[site] = 0;
        }
        stray_reads = 0;
        stray_writes = 0;
    }

    /* The select field is 9 bits on a nic block, 8 on an lhx_nic block. */
    static void create(const bt_driver *driver, uint32_t pipe, int site)
    {
        select_width[site] = driver == &nic ? 9 : 8;
        bt_create(driver, pipe, site);
    }

    void start_both_on_pipe_0()
    {
        start(&lh_desc_base_two_pipes);
        create(&nic, 0, nic.site);
        create(&lhx, 0, lhx.site);
    }

    static void set_status(const bt_driver *driver, uint32_t status0,
                           uint32_t status1, uint32_t status2)
    {
        bt_set_statuses(driver->site, status0, status1, status2);
    }

    static void expect_fatal(const bt_driver *driver, const char *text)
    {
        bt_expect_fatal(driver, 0, text);
    }

    static void expect_no_fatal(const bt_driver *driver)
    {
        bt_expect_no_fatal(driver, 0);
    }

    reg_model *model = nullptr;
    uint32_t saved_max_queue_id[2] = {};
};

/* ---- Contexts never created before ---- */

TEST_F(NicTest, MutexFailureLeavesContextInvalid)
{
    start(&lh_desc_base_two_pipes);
    mutex_init_fails = true;
    for (const bt_driver *driver : drivers)
        bt_expect_mutex_failure(driver, 0, bt_site_base(0));
    mutex_init_fails = false;
    ASSERT_EQ(model->reads, 0u);
    ASSERT_EQ(model->writes, 0u);
    bt_expect_refusals(&nic, refusals, std::size(refusals), 0, "context");
    bt_expect_refusals(&lhx, refusals, std::size(refusals), 0, "context");
    expect_no_more_logs();
}

TEST_F(NicTest, MaxQueueId256Refused)
{
    start(&lh_desc_base_two_pipes);
    lh_desc_base_two_pipes.max_queue_id = 256;
    ASSERT_EQ(nic_context_create(1, bt_site_base(1)), -1);
    expect_log(LOG_CRIT, "Error - NIC module context create -  max queue id "
                         "(256) is out of bounds (255)");
    ASSERT_EQ(model->reads, 0u);
    ASSERT_EQ(model->writes, 0u);
    bt_expect_refusals(&nic, refusals, std::size(refusals), 1, "context");
    expect_no_more_logs();
}

TEST_F(NicTest, Pipe1RefusedOnOnePipeDevice)
{
    start(&lh_desc_base_one_pipe);
    for (const bt_driver *driver : drivers) {
        SCOPED_TRACE(driver->name);
        bt_expect_create_refused(driver, 1, bt_site_base(1));
        bt_expect_refusals(driver, refusals, std::size(refusals), 1,
                           "context");
    }
    ASSERT_EQ(model->writes, 0u);
    expect_no_more_logs();
}

TEST_F(NicTest, LhxContextIsNotTheNicContext)
{
    Record record{};

    start(&lh_desc_lhx);
    create(&lhx, 0, 0);
    ASSERT_EQ(lhx_nic_get_stats(0, record.data(), kStatsBytes), 0);
    ASSERT_EQ(nic_get_stats(0, record.data(), kStatsBytes), -1);
    expect_log(LOG_CRIT, "Error - NIC get stats - invalid context 0");
    expect_no_more_logs();
}

/* ---- Context creation. lhx_nic pipe 1 is never created anywhere. ---- */

TEST_F(NicTest, OpsTablesWireTheOperations)
{
    static const lh_block_ops expected_nic = {
        .context_create = nic_context_create,
        .update_stats = nic_update_stats,
        .get_stats = nic_get_stats,
        .clear_stats = nic_clear_stats,
        .fatal_error_detect = nic_fatal_error_detect,
    };
    static const lh_block_ops expected_lhx = {
        .context_create = lhx_nic_context_create,
        .update_stats = lhx_nic_update_stats,
        .get_stats = lhx_nic_get_stats,
        .clear_stats = lhx_nic_clear_stats,
        .fatal_error_detect = lhx_nic_fatal_error_detect,
    };

    bt_assert_ops(&nic_ops, &expected_nic);
    bt_assert_ops(&lhx_nic_ops, &expected_lhx);
}

TEST_F(NicTest, CreateLogsTheCreatedLine)
{
    start(&lh_desc_base_two_pipes);
    ASSERT_EQ(nic_context_create(0, bt_site_base(0)), 0);
    expect_log(LOG_INFO, "Informational - NIC module 0 context created");
    ASSERT_EQ(nic_context_create(1, bt_site_base(1)), 0);
    expect_log(LOG_INFO, "Informational - NIC module 1 context created");
    ASSERT_EQ(lhx_nic_context_create(0, bt_site_base(1)), 0);
    expect_log(LOG_INFO, "Informational - LHX NIC module 0 context created");
    ASSERT_EQ(model->reads, 0u);
    ASSERT_EQ(model->writes, 0u);
    expect_no_more_logs();
}

TEST_F(NicTest, CreateRefusals)
{
    start(&lh_desc_base_two_pipes);
    lh_desc_base_two_pipes.max_queue_id = 256;
    for (const bt_driver *driver : drivers) {
        SCOPED_TRACE(driver->name);
        /* The pipe is checked before the max queue id. */
        bt_expect_create_refusals(driver);
        ASSERT_EQ(driver->ops->context_create(0, bt_site_base(0)), -1);
        expect_logf(LOG_CRIT,
                    "Error - %s module context create -  max queue id "
                    "(256) is out of bounds (255)",
                    driver->name);
    }
    lh_desc_base_two_pipes.max_queue_id = 0xFFFFFFFF;
    ASSERT_EQ(nic_context_create(0, bt_site_base(0)), -1);
    expect_log(LOG_CRIT, "Error - NIC module context create -  max queue id "
                         "(-1) is out of bounds (255)");
    ASSERT_EQ(model->reads, 0u);
    ASSERT_EQ(model->writes, 0u);
    expect_no_more_logs();
}

TEST_F(NicTest, RefusedCreateKeepsTheContext)
{
    Record expected{};

    start(&lh_desc_base_two_pipes);
    create(&nic, 0, 0);
    bt_load_counters(0, 0);
    nic_update_stats(0);
    add_globals(expected, 0);
    add_nic_queues(expected, 255, 0);
    lh_desc_base_two_pipes.max_queue_id = 256;
    ASSERT_EQ(nic_context_create(0, bt_site_base(1)), -1);
    expect_log(LOG_CRIT, "Error - NIC module context create -  max queue id "
                         "(256) is out of bounds (255)");
    bt_assert_stats(&nic, 0, expected.data());
    select_count[0] = 0;
    nic_update_stats(0);
    ASSERT_EQ(select_count[0], 512u);
    expect_no_more_logs();
}

TEST_F(NicTest, CreateBeforeInitialisation)
{
    bt_expect_create_before_init(&layout, &nic);
}

TEST_F(NicTest, CreateZeroesTheRecord)
{
    start(&lh_desc_base_two_pipes);
    create(&nic, 0, 0);
    bt_check_create_zeroes(&nic, 0, 0);
    expect_no_more_logs();
}

/* ---- Statistics ---- */

TEST_F(NicTest, EveryGlobalCounterComposedFromItsRegisters)
{
    Record record{};

    start(&lh_desc_base_two_pipes);
    lh_desc_base_two_pipes.max_queue_id = 0;
    for (int d = 0; d < static_cast<int>(std::size(drivers)); d++) {
        const bt_driver *driver = drivers[d];
        Record expected{};

        SCOPED_TRACE(driver->name);
        create(driver, 0, d);
        bt_load_counters(d, 0);
        driver->ops->update_stats(0);
        add_globals(expected, 0);
        bt_get_stats(driver, 0, record.data());
        ASSERT_EQ(memcmp(record.data(), expected.data(), kQueueEntry0), 0);
        /* Spot checks of the odd order against the table above. */
        ASSERT_EQ(get_u64(record, 0), 0x010050F5010054F1u);
        ASSERT_EQ(get_u64(record, 24), 0x010068CD01006CC9u);
        ASSERT_EQ(get_u64(record, 32), 0x000000000100882Du);
        ASSERT_EQ(get_u64(record, 40), 0x0000000001008C29u);
        ASSERT_EQ(get_u64(record, 48), 0x00000000010070D5u);
        ASSERT_EQ(get_u64(record, 88), 0x0000000001008421u);
        ASSERT_EQ(get_u64(record, 96), 0x000000000100F85Du);
        ASSERT_EQ(get_u64(record, 104), 0x0000000001009035u);
        ASSERT_EQ(get_u64(record, 160), 0x000000000100AC09u);
        /* Queue 0 alone is present. */
        ASSERT_EQ(record[kQueueEntry0], 1u);
        ASSERT_TRUE(std::all_of(record.begin() + entry_offset(1),
                                record.end(),
                                [](uint8_t byte) { return byte == 0; }));
    }
    ASSERT_EQ(stray_reads, 0u);
    expect_no_more_logs();
}

TEST_F(NicTest, MaxQueueId255PollsEveryQueue)
{
    Record expected{};
    unsigned long reads;

    start(&lh_desc_base_two_pipes);
    create(&nic, 0, 0);
    bt_store(0, kQueueSelect, 0xA5A5A400 | 0x1C3);
    bt_load_counters(0, 0);
    generation[0] = 5;
    reads = model->reads;
    nic_update_stats(0);
    /* 25 global reads; per queue 2 select read-modify-writes, 4 data. */
    ASSERT_EQ(model->reads - reads, 25u + 256 * 6);
    ASSERT_EQ(select_count[0], 512u);
    for (uint32_t q = 0; q < kQueues; q++) {
        ASSERT_EQ(selects[0][2 * q], 0xA5A5A400 | q) << "queue " << q;
        ASSERT_EQ(selects[0][2 * q + 1], 0xA5A5A400 | (q + 0x100))
            << "queue " << q;
    }
    add_globals(expected, 0);
    add_nic_queues(expected, 255, 5);
    bt_assert_stats(&nic, 0, expected.data());
    ASSERT_EQ(present_entries(&nic, 0), 256u);
    ASSERT_EQ(stray_reads, 0u);
    ASSERT_EQ(stray_writes, 0u);
    expect_no_more_logs();
}

TEST_F(NicTest, MaxQueueIdIsTakenAtCreate)
{
    Record expected{};

    start(&lh_desc_base_two_pipes);
    lh_desc_base_two_pipes.max_queue_id = 3;
    create(&nic, 1, 1);
    lh_desc_base_two_pipes.max_queue_id = 255;
    generation[1] = 2;
    nic_update_stats(1);
    ASSERT_EQ(select_count[1], 8u);
    ASSERT_EQ(select_count[0], 0u);
    add_nic_queues(expected, 3, 2);
    bt_assert_stats(&nic, 1, expected.data());
    ASSERT_EQ(present_entries(&nic, 1), 4u);
    expect_no_more_logs();
}

TEST_F(NicTest, LhxQueue128AliasesQueue0BanksSwapped)
{
    Record expected{};
    Record record{};

    start(&lh_desc_lhx);
    create(&lhx, 0, 0);
    /* Bit 8 lies outside lhx_nic's field and must be kept. */
    bt_store(0, kQueueSelect, 0xFFFFFF00 | 0x3C);
    generation[0] = 3;
    lhx_nic_update_stats(0);
    ASSERT_EQ(select_count[0], 2u * 129);
    for (uint32_t q = 0; q <= 128; q++) {
        ASSERT_EQ(selects[0][2 * q], 0xFFFFFF00 | q) << "queue " << q;
        ASSERT_EQ(selects[0][2 * q + 1], 0xFFFFFF00 | ((q + 0x80) % 256))
            << "queue " << q;
    }
    add_lhx_queues(expected, 3);
    bt_assert_stats(&lhx, 0, expected.data());
    ASSERT_EQ(present_entries(&lhx, 0), 129u);
    /* Entry 128 holds queue 0's counters with the banks swapped. */
    bt_get_stats(&lhx, 0, record.data());
    ASSERT_EQ(get_u64(record, entry_offset(128) + 24),
              static_cast<uint64_t>(queue_high(0, 0, 3) & 0xFFFF) << 32 |
                  queue_low(0, 0, 3));
    ASSERT_EQ(get_u64(record, entry_offset(128) + 16),
              get_u64(record, entry_offset(0) + 24));
    ASSERT_EQ(get_u64(record, entry_offset(128) + 24),
              get_u64(record, entry_offset(0) + 16));
    ASSERT_EQ(stray_writes, 0u);
    expect_no_more_logs();
}

TEST_F(NicTest, CountersAccumulateOverPolls)
{
    Record expected{};

    start(&lh_desc_lhx);
    create(&lhx, 0, 0);
    for (uint32_t poll = 0; poll < 3; poll++) {
        SCOPED_TRACE(format_text("poll %u", poll));
        bt_load_counters(0, poll);
        generation[0] = poll + 1;
        lhx_nic_update_stats(0);
        add_globals(expected, poll);
        add_lhx_queues(expected, poll + 1);
        bt_assert_stats(&lhx, 0, expected.data());
    }
    /* The reads cleared the global counters: without traffic they add
     * nothing, while the queues add their latest values again. */
    lhx_nic_update_stats(0);
    add_lhx_queues(expected, 3);
    bt_assert_stats(&lhx, 0, expected.data());
    expect_no_more_logs();
}

TEST_F(NicTest, GlobalTotalsWrap)
{
    Record record{};

    start(&lh_desc_base_two_pipes);
    lh_desc_base_two_pipes.max_queue_id = 0;
    create(&nic, 0, 0);
    for (int poll = 0; poll < 2; poll++) {
        bt_store(0, 0x50, 0xFFFFFFFF);
        bt_store(0, 0x54, 0xFFFFFFFF);
        bt_store(0, 0x88, 0xFFFFFFFF);
        nic_update_stats(0);
    }
    bt_get_stats(&nic, 0, record.data());
    ASSERT_EQ(get_u64(record, 0), 0xFFFFFFFFFFFFFFFEu);
    ASSERT_EQ(get_u64(record, 32), 0x1FFFFFFFEu);
    expect_no_more_logs();
}

TEST_F(NicTest, ClearStatsZeroesWithoutTouchingHardware)
{
    static const Record zeros{};
    Record expected{};
    unsigned long reads, writes;

    start(&lh_desc_lhx);
    create(&lhx, 0, 0);
    bt_load_counters(0, 0);
    generation[0] = 1;
    lhx_nic_update_stats(0);
    bt_load_counters(0, 1);
    reads = model->reads;
    writes = model->writes;
    ASSERT_EQ(lhx_nic_clear_stats(0), 0);
    ASSERT_EQ(model->reads, reads);
    ASSERT_EQ(model->writes, writes);
    ASSERT_EQ(bt_peek(0, 0x50), bt_value_by_reg(0, 0x50, 1));
    bt_assert_stats(&lhx, 0, zeros.data());
    generation[0] = 2;
    lhx_nic_update_stats(0);
    add_globals(expected, 1);
    add_lhx_queues(expected, 2);
    bt_assert_stats(&lhx, 0, expected.data());
    expect_no_more_logs();
}

TEST_F(NicTest, GetStatsTakesExactly8360Bytes)
{
    static const uint64_t sizes[] = {8359, 8361, 0, 168};
    Record expected{};

    start(&lh_desc_base_two_pipes);
    create(&nic, 0, 0);
    create(&lhx, 0, 1);
    bt_load_counters(0, 0);
    nic_update_stats(0);
    for (const bt_driver *driver : drivers)
        bt_expect_wrong_sizes(driver, 0, sizes, std::size(sizes));
    add_globals(expected, 0);
    add_nic_queues(expected, 255, 0);
    /* The whole record, and not one byte past it. */
    bt_assert_stats(&nic, 0, expected.data());
    expect_no_more_logs();
}

TEST_F(NicTest, PipesKeepTheirOwnCounters)
{
    Record expected0{};
    Record expected1{};

    start(&lh_desc_base_two_pipes);
    create(&nic, 0, 0);
    create(&nic, 1, 1);
    bt_load_counters(0, 0);
    bt_load_counters(1, 2);
    generation[0] = 4;
    generation[1] = 6;
    nic_update_stats(0);
    nic_update_stats(1);
    add_globals(expected0, 0);
    add_globals(expected1, 2);
    add_nic_queues(expected0, 255, 4);
    add_nic_queues(expected1, 255, 6);
    bt_assert_stats(&nic, 0, expected0.data());
    bt_assert_stats(&nic, 1, expected1.data());
    ASSERT_EQ(select_count[0], 512u);
    ASSERT_EQ(select_count[1], 512u);
    expect_no_more_logs();
}

TEST_F(NicTest, LhxAndNicKeepApart)
{
    static const Record zeros{};
    Record expected{};
    lh_fatal_error_t report = {0, 0, nullptr};

    start(&lh_desc_base_two_pipes);
    lh_desc_base_two_pipes.max_queue_id = 128;
    create(&nic, 0, 0);
    create(&lhx, 0, 1);
    bt_load_counters(0, 0);
    bt_load_counters(1, 1);
    generation[1] = 7;
    nic_update_stats(0);
    lhx_nic_update_stats(0);
    ASSERT_EQ(nic_clear_stats(0), 0);
    add_globals(expected, 1);
    add_lhx_queues(expected, 7);
    bt_assert_stats(&nic, 0, zeros.data());
    bt_assert_stats(&lhx, 0, expected.data());

    bt_store(1, kStatus2, 1u << 4);
    ASSERT_EQ(nic_fatal_error_detect(0, &report), 0);
    ASSERT_EQ(lhx_nic_fatal_error_detect(0, &report), 1);
    expect_log(LOG_CRIT, "FATAL - LHX NIC pipe 0: QDMA H2C Data Parity Error");
    expect_no_more_logs();
}

/* ---- Fatal error detection ---- */

TEST_F(NicTest, EachErrorBitAloneReportsItsRow)
{
    unsigned long writes;

    start_both_on_pipe_0();
    writes = model->writes;
    bt_walk_error_rows(&nic, 0, nic.site, nic_rows.data(), nic_rows.size());
    /* The row nic does not test: its bit alone reports nothing. */
    set_status(&nic, 0, 0, 1u << 4);
    expect_no_fatal(&nic);
    bt_walk_error_rows(&lhx, 0, lhx.site, error_rows, std::size(error_rows));
    ASSERT_EQ(model->writes, writes);
    expect_no_more_logs();
}

TEST_F(NicTest, RowsWhereTheDriversDiffer)
{
    start_both_on_pipe_0();
    set_status(&nic, 1u << 12, 0, 0);
    expect_fatal(&nic, "TM Shared Memory (URAMs) Double bit ECC Error");
    set_status(&lhx, 1u << 12, 0, 0);
    expect_fatal(&lhx, "TM Shared Memory (URAMs) Parity Error");
    /* On nic, register 0x30 bit 4 alone reports nothing. */
    set_status(&nic, 0, 0, 1u << 4);
    bt_forget_reads();
    expect_no_fatal(&nic);
    ASSERT_EQ(bt_status_reads(0), 69u);
    set_status(&nic, 0, 0, 1u << 4 | 1u << 3);
    expect_fatal(&nic, "QDMA H2C Path Error");
    set_status(&lhx, 0, 0, 1u << 4 | 1u << 3);
    expect_fatal(&lhx, "QDMA H2C Data Parity Error");
    expect_no_more_logs();
}

TEST_F(NicTest, FirstSetBitWinsWithinARegister)
{
    start_both_on_pipe_0();
    for (const bt_driver *driver : drivers) {
        SCOPED_TRACE(driver->name);
        set_status(driver, 1u << 19 | 1u << 0, 0, 0);
        expect_fatal(driver, "H2C Descriptor Memory Double bit ECC Error");
        set_status(driver, 1u << 11 | 1u << 10, 0, 0);
        expect_fatal(driver, "NIC Egr Path FIFO Overflow");
        set_status(driver, 0, 0x3FFFFFFF, 0);
        expect_fatal(driver, "BudM Linked List Parity Error");
        set_status(driver, 0, 1u << 17 | 1u << 16, 0);
        expect_fatal(driver, "QM Guaranteed List Overflow");
        set_status(driver, 0, 0, 0xFFFFF);
        expect_fatal(driver, "H2C Descriptor Out FIFO Overflow");
        set_status(driver, 0, 0, 1u << 1 | 1u << 0);
        expect_fatal(driver, "QDMA H2C Bypass Descriptor Size Error");
    }
    expect_no_more_logs();
}

TEST_F(NicTest, FirstSetBitWinsAcrossRegisters)
{
    start_both_on_pipe_0();
    for (const bt_driver *driver : drivers) {
        SCOPED_TRACE(driver->name);
        set_status(driver, 1u << 0, 1u << 29, 0);
        expect_fatal(driver, "NIC TOP TM RX Missing SOP Error");
        set_status(driver, 0, 1u << 0, 1u << 19);
        expect_fatal(driver, "QM Free List Underflow");
        set_status(driver, 1u << 0, 0, 1u << 19);
        expect_fatal(driver, "NIC TOP TM RX Missing SOP Error");
        set_status(driver, 0xFFFFFFFF, 0xFFFFFFFF, 0xFFFFFFFF);
        expect_fatal(driver, "H2C Descriptor Memory Double bit ECC Error");
    }
    expect_no_more_logs();
}

TEST_F(NicTest, UntestedBitsReportNothing)
{
    static const uint32_t other_regs[] = {0x04, 0x10, 0x1C, 0x24,
                                          0x2C, 0x34, 0x40, 0x4C};
    unsigned long writes;

    start_both_on_pipe_0();
    for (const bt_driver *driver : drivers) {
        int site = driver->site;

        SCOPED_TRACE(driver->name);
        for (uint32_t reg : other_regs)
            bt_store(site, reg, 0xFFFFFFFF);
        writes = model->writes;
        bt_forget_reads();
        set_status(driver, 0, 0, 0);
        expect_no_fatal(driver);
        set_status(driver, 0xFFF00000, 0xC0000000, 0xFFF00000);
        expect_no_fatal(driver);
        /* Every row reads its register anew: 70 rows, 69 on nic. */
        ASSERT_EQ(bt_status_reads(site), driver == &nic ? 2 * 69u : 2 * 70u);
        ASSERT_EQ(stray_reads, 0u);
        ASSERT_EQ(model->writes, writes);
    }
    set_status(&nic, 0xFFF00000, 0xC0000000, 0xFFF00000 | 1u << 4);
    expect_no_fatal(&nic);
    expect_no_more_logs();
}

TEST_F(NicTest, StatusRegisterReadAgainForEveryRow)
{
    /* Rows 19..1 of register 0x00 read 0; the twentieth read sees bit 0. */
    std::array<uint32_t, 20> late0{};
    /* Register 0x20 shows bits 29 and 28 from its second read (row 28). */
    static const uint32_t late1[2] = {0, 1u << 29 | 1u << 28};

    late0[19] = 1u << 0;
    start_both_on_pipe_0();
    bt_script(kStatus0, late0.data(), late0.size());
    expect_fatal(&nic, "NIC TOP TM RX Missing SOP Error");
    ASSERT_EQ(bt_script_reads(), 20u);
    ASSERT_EQ(bt_status_reads(0), 20u);

    bt_script(kStatus1, late1, std::size(late1));
    expect_fatal(&nic, "BudM Tail Bud Parity Error");
    ASSERT_EQ(bt_script_reads(), 2u);
    expect_no_more_logs();
}

/* ---- Refusals ---- */

TEST_F(NicTest, NullPointersComeFirst)
{
    start(&lh_desc_base_two_pipes);
    for (const bt_driver *driver : drivers)
        bt_expect_null_refusals(driver, null_refusals,
                                std::size(null_refusals), 2);
    ASSERT_EQ(model->reads, 0u);
    expect_no_more_logs();
}

TEST_F(NicTest, InvalidPipeRefusedByEveryOperation)
{
    start_both_on_pipe_0();
    bt_expect_refusals(&nic, refusals, std::size(refusals), 2, "pipe");
    bt_expect_refusals(&lhx, refusals, std::size(refusals), 2, "pipe");
    expect_no_more_logs();
}

TEST_F(NicTest, InvalidContextRefusedByEveryOperation)
{
    Record record{};

    start(&lh_desc_lhx);
    create(&lhx, 0, 0);
    bt_expect_refusals(&lhx, refusals, std::size(refusals), 1, "context");
    /* The size is checked after the context. */
    ASSERT_EQ(lhx_nic_get_stats(1, record.data(), 1), -1);
    expect_log(LOG_CRIT, "Error - LHX NIC get stats - invalid context 1");
    expect_no_more_logs();
}

} // namespace
