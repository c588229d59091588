/* Part 4.3: the NIC block drivers (nic, lhx_nic) against a model of the
 * block: clear-on-read global counters, per-queue counters served through
 * the queue select register with the data pair latched by the high word,
 * and status registers that can change between reads. */
#include <stdbool.h>
#include <string.h>

#include "block_fixture.hpp"
#include "cmocka_all.h"
#include "fake_device.hpp"
#include "lh_drivers.hpp"
#include "lh_log.hpp"
#include "log_expect.hpp"
#include "mutex_wrap.hpp"
#include "nic.hpp"

/* Block registers, offsets from the block base (Part 4.3). */
#define STATUS0      0x00u
#define STATUS1      0x20u
#define STATUS2      0x30u
#define QUEUE_SELECT 0xC0u
#define QUEUE_HIGH   0xC4u
#define QUEUE_LOW    0xC8u

#define STATS_BYTES  8360
#define GLOBALS      21
#define QUEUES       256
#define QUEUE_ENTRY0 168
#define ENTRY_BYTES  32

/* What the low data register reads when no high read latched it. */
#define STALE_LOW 0x57A1E000u

#define SITES       2
#define MAX_SELECTS 1024

/* Part 4.3's table of global counters: the register of bits 63..32 (0:
 * none) and the register of bits 31..0, at byte 8 x i of the record. */
static const struct bt_counter global_sources[GLOBALS] = {
    {0x50, 0x54}, {0x58, 0x5C}, {0x60, 0x64}, {0x68, 0x6C}, {0, 0x88},
    {0, 0x8C},    {0, 0x70},    {0, 0x74},    {0, 0x78},    {0, 0x7C},
    {0, 0x80},    {0, 0x84},    {0, 0xF8},    {0, 0x90},    {0, 0x94},
    {0, 0x98},    {0, 0x9C},    {0, 0xA0},    {0, 0xA4},    {0, 0xA8},
    {0, 0xAC},
};

/* ---- The queue registers of the model ---- */

/* The select field each site's hardware decodes: its top bit is the bank,
 * the bits below the queue. */
static unsigned int select_width[SITES];
/* The queue counters change with the generation, so polls differ. */
static uint32_t generation[SITES];
static uint32_t latched_low[SITES];
static uint32_t selects[SITES][MAX_SELECTS];
static size_t select_count[SITES];
static unsigned long stray_reads;
static unsigned long stray_writes;

static uint32_t saved_max_queue_id[2];

/* Queue counters of (queue, bank) in this generation, distinct in every
 * field so a wrong bank, queue, half or register shows. */
static uint32_t queue_high(uint32_t queue, uint32_t bank, uint32_t gen)
{
    uint32_t counter16 = 0x8000 | queue << 4 | bank << 3 | gen;
    uint32_t upper48 = 0x4000 | queue << 4 | bank << 3 | gen;

    return counter16 << 16 | upper48;
}

static uint32_t queue_low(uint32_t queue, uint32_t bank, uint32_t gen)
{
    return 0x20000000 | queue << 16 | bank << 12 | gen << 8 | 0xA5;
}

static void selected_queue(int site, uint32_t *queue, uint32_t *bank)
{
    unsigned int index_bits = select_width[site] - 1;
    uint32_t select = bt_peek(site, QUEUE_SELECT);

    *queue = select & ((1u << index_bits) - 1);
    *bank = (select >> index_bits) & 1;
}

static uint32_t read_queue_high(int site)
{
    uint32_t queue, bank;

    selected_queue(site, &queue, &bank);
    latched_low[site] = queue_low(queue, bank, generation[site]);
    return queue_high(queue, bank, generation[site]);
}

static uint32_t read_queue_low(int site)
{
    uint32_t low = latched_low[site];

    latched_low[site] = STALE_LOW;
    return low;
}

/* The registers of a block that are neither status nor global counters. */
static uint32_t queue_read(int site, uint32_t reg, uint32_t stored)
{
    if (reg == QUEUE_HIGH)
        return read_queue_high(site);
    if (reg == QUEUE_LOW)
        return read_queue_low(site);
    if (reg != QUEUE_SELECT)
        stray_reads++;
    return stored;
}

static void queue_write(int site, uint32_t reg, uint32_t value)
{
    if (site >= 0 && reg == QUEUE_SELECT) {
        if (select_count[site] < MAX_SELECTS)
            selects[site][select_count[site]] = value;
        select_count[site]++;
    } else {
        stray_writes++;
    }
}

/* The NIC blocks of the window: pipe 0's and pipe 1's on the base image;
 * the LHX image has the first only. A test may put either driver's context
 * on either site. */
static const struct bt_layout layout = {
    .sites = {0x12000, 0x22000},
    .site_count = SITES,
    .span = 0x100,
    .status = {STATUS0, STATUS1, STATUS2},
    .status_count = 3,
    .counters = global_sources,
    .counter_count = GLOBALS,
    .value = bt_value_by_reg,
    .on_read = queue_read,
    .on_write = queue_write,
};

static const struct bt_driver nic = {
    .name = "NIC",
    .ops = &nic_ops,
    .site = 0,
    .device = &lh_desc_base_two_pipes,
    .stats_bytes = STATS_BYTES,
};
static const struct bt_driver lhx = {
    .name = "LHX NIC",
    .ops = &lhx_nic_ops,
    .site = 1,
    .device = &lh_desc_lhx,
    .stats_bytes = STATS_BYTES,
};
static const struct bt_driver *const drivers[] = {&nic, &lhx};

static const struct bt_call refusals[] = {
    BT_STATS_REFUSALS("clear stats", "module fatal error detection"),
};

static const struct bt_call null_refusals[] = {
    {"get stats", LOG_ERR, -1, bt_null_get_stats_wrong_size},
    {"module fatal error detection", LOG_ERR, 0, bt_null_fatal_error_detect},
};

static struct reg_model *model;

static void start(lh_device_desc *desc)
{
    model = bt_start(&layout, desc);
    for (int site = 0; site < SITES; site++) {
        select_width[site] = 9;
        generation[site] = 0;
        latched_low[site] = STALE_LOW;
        select_count[site] = 0;
    }
    stray_reads = 0;
    stray_writes = 0;
}

static int teardown(void **state)
{
    mutex_init_fails = false;
    lh_desc_base_two_pipes.max_queue_id = saved_max_queue_id[0];
    lh_desc_lhx.max_queue_id = saved_max_queue_id[1];
    return fake_device_teardown(state);
}

/* The select field is 9 bits on a nic block, 8 on an lhx_nic block. */
static void create(const struct bt_driver *driver, uint32_t pipe, int site)
{
    select_width[site] = driver == &nic ? 9 : 8;
    bt_create(driver, pipe, site);
}

/* ---- The expected record, built from Part 4.3's byte offsets ---- */

static uint64_t get_u64(const uint8_t *record, size_t offset)
{
    uint64_t value = 0;

    for (int i = 7; i >= 0; i--)
        value = value << 8 | record[offset + i];
    return value;
}

static void put_u64(uint8_t *record, size_t offset, uint64_t value)
{
    for (int i = 0; i < 8; i++)
        record[offset + i] = (uint8_t)(value >> (8 * i));
}

static void add_u64(uint8_t *record, size_t offset, uint64_t value)
{
    put_u64(record, offset, get_u64(record, offset) + value);
}

static void add_globals(uint8_t *record, uint32_t poll)
{
    uint64_t sums[GLOBALS] = {0};

    bt_add_expected(sums, 0, poll);
    for (size_t i = 0; i < GLOBALS; i++)
        add_u64(record, 8 * i, sums[i]);
}

static size_t entry_offset(uint32_t entry)
{
    return QUEUE_ENTRY0 + ENTRY_BYTES * entry;
}

/* Entry `entry` polled with its first read from (queue, first_bank) and
 * its second from (queue, second_bank) of the hardware. */
static void add_queue(uint8_t *record, uint32_t entry, uint32_t queue,
                      uint32_t first_bank, uint32_t second_bank, uint32_t gen)
{
    size_t at = entry_offset(entry);
    uint32_t high1 = queue_high(queue, first_bank, gen);
    uint32_t high2 = queue_high(queue, second_bank, gen);

    record[at] = 1;
    add_u64(record, at + 8, high1 >> 16);
    add_u64(record, at + 16,
            (uint64_t)(high1 & 0xFFFF) << 32 |
                queue_low(queue, first_bank, gen));
    add_u64(record, at + 24,
            (uint64_t)(high2 & 0xFFFF) << 32 |
                queue_low(queue, second_bank, gen));
}

static void add_nic_queues(uint8_t *record, uint32_t max_queue_id, uint32_t gen)
{
    for (uint32_t q = 0; q <= max_queue_id; q++)
        add_queue(record, q, q, 0, 1, gen);
}

/* Queues 0..127, then queue 128: the first select (128) is bank 1 of
 * queue 0, the second ((128 + 0x80) mod 256 = 0) bank 0 of queue 0. */
static void add_lhx_queues(uint8_t *record, uint32_t gen)
{
    for (uint32_t q = 0; q < 128; q++)
        add_queue(record, q, q, 0, 1, gen);
    add_queue(record, 128, 0, 1, 0, gen);
}

static size_t present_entries(const struct bt_driver *driver, uint32_t pipe)
{
    uint8_t record[STATS_BYTES];
    size_t present = 0;

    bt_get_stats(driver, pipe, record);
    for (uint32_t q = 0; q < QUEUES; q++)
        present += record[entry_offset(q)] == 1;
    return present;
}

/* ---- Contexts never created before: these run first, in this order. ---- */

static void test_mutex_failure_leaves_context_invalid(void **state)
{
    (void)state;
    start(&lh_desc_base_two_pipes);
    mutex_init_fails = true;
    for (size_t d = 0; d < BT_ARRAY_SIZE(drivers); d++)
        bt_expect_mutex_failure(drivers[d], 0, bt_site_base(0));
    mutex_init_fails = false;
    assert_int_equal(model->reads, 0);
    assert_int_equal(model->writes, 0);
    bt_expect_refusals(&nic, refusals, BT_ARRAY_SIZE(refusals), 0, "context");
    bt_expect_refusals(&lhx, refusals, BT_ARRAY_SIZE(refusals), 0, "context");
    expect_no_more_logs();
}

static void test_max_queue_id_256_refused(void **state)
{
    (void)state;
    start(&lh_desc_base_two_pipes);
    lh_desc_base_two_pipes.max_queue_id = 256;
    assert_int_equal(nic_context_create(1, bt_site_base(1)), -1);
    expect_log(LOG_CRIT, "Error - NIC module context create -  max queue id "
                         "(256) is out of bounds (255)");
    assert_int_equal(model->reads, 0);
    assert_int_equal(model->writes, 0);
    bt_expect_refusals(&nic, refusals, BT_ARRAY_SIZE(refusals), 1, "context");
    expect_no_more_logs();
}

static void test_pipe_1_refused_on_one_pipe_device(void **state)
{
    (void)state;
    start(&lh_desc_base_one_pipe);
    for (size_t d = 0; d < BT_ARRAY_SIZE(drivers); d++) {
        bt_expect_create_refused(drivers[d], 1, bt_site_base(1));
        bt_expect_refusals(drivers[d], refusals, BT_ARRAY_SIZE(refusals), 1,
                           "context");
    }
    assert_int_equal(model->writes, 0);
    expect_no_more_logs();
}

static void test_lhx_context_is_not_the_nic_context(void **state)
{
    uint8_t record[STATS_BYTES];

    (void)state;
    start(&lh_desc_lhx);
    create(&lhx, 0, 0);
    assert_int_equal(lhx_nic_get_stats(0, record, STATS_BYTES), 0);
    assert_int_equal(nic_get_stats(0, record, STATS_BYTES), -1);
    expect_log(LOG_CRIT, "Error - NIC get stats - invalid context 0");
    expect_no_more_logs();
}

/* ---- Context creation. lhx_nic pipe 1 is never created anywhere. ---- */

static void test_ops_tables_wire_the_operations(void **state)
{
    static const struct lh_block_ops expected_nic = {
        .context_create = nic_context_create,
        .update_stats = nic_update_stats,
        .get_stats = nic_get_stats,
        .clear_stats = nic_clear_stats,
        .fatal_error_detect = nic_fatal_error_detect,
    };
    static const struct lh_block_ops expected_lhx = {
        .context_create = lhx_nic_context_create,
        .update_stats = lhx_nic_update_stats,
        .get_stats = lhx_nic_get_stats,
        .clear_stats = lhx_nic_clear_stats,
        .fatal_error_detect = lhx_nic_fatal_error_detect,
    };

    (void)state;
    bt_assert_ops(&nic_ops, &expected_nic);
    bt_assert_ops(&lhx_nic_ops, &expected_lhx);
}

static void test_create_logs_the_created_line(void **state)
{
    (void)state;
    start(&lh_desc_base_two_pipes);
    assert_int_equal(nic_context_create(0, bt_site_base(0)), 0);
    expect_log(LOG_INFO, "Informational - NIC module 0 context created");
    assert_int_equal(nic_context_create(1, bt_site_base(1)), 0);
    expect_log(LOG_INFO, "Informational - NIC module 1 context created");
    assert_int_equal(lhx_nic_context_create(0, bt_site_base(1)), 0);
    expect_log(LOG_INFO, "Informational - LHX NIC module 0 context created");
    assert_int_equal(model->reads, 0);
    assert_int_equal(model->writes, 0);
    expect_no_more_logs();
}

static void test_create_refusals(void **state)
{
    (void)state;
    start(&lh_desc_base_two_pipes);
    lh_desc_base_two_pipes.max_queue_id = 256;
    for (size_t d = 0; d < BT_ARRAY_SIZE(drivers); d++) {
        const struct bt_driver *driver = drivers[d];

        /* The pipe is checked before the max queue id. */
        bt_expect_create_refusals(driver);
        assert_int_equal(driver->ops->context_create(0, bt_site_base(0)), -1);
        expect_logf(LOG_CRIT,
                    "Error - %s module context create -  max queue id "
                    "(256) is out of bounds (255)",
                    driver->name);
    }
    lh_desc_base_two_pipes.max_queue_id = 0xFFFFFFFF;
    assert_int_equal(nic_context_create(0, bt_site_base(0)), -1);
    expect_log(LOG_CRIT, "Error - NIC module context create -  max queue id "
                         "(-1) is out of bounds (255)");
    assert_int_equal(model->reads, 0);
    assert_int_equal(model->writes, 0);
    expect_no_more_logs();
}

static void test_refused_create_keeps_the_context(void **state)
{
    uint8_t expected[STATS_BYTES] = {0};

    (void)state;
    start(&lh_desc_base_two_pipes);
    create(&nic, 0, 0);
    bt_load_counters(0, 0);
    nic_update_stats(0);
    add_globals(expected, 0);
    add_nic_queues(expected, 255, 0);
    lh_desc_base_two_pipes.max_queue_id = 256;
    assert_int_equal(nic_context_create(0, bt_site_base(1)), -1);
    expect_log(LOG_CRIT, "Error - NIC module context create -  max queue id "
                         "(256) is out of bounds (255)");
    bt_assert_stats(&nic, 0, expected);
    select_count[0] = 0;
    nic_update_stats(0);
    assert_int_equal(select_count[0], 512);
    expect_no_more_logs();
}

static void test_create_before_initialisation(void **state)
{
    (void)state;
    bt_expect_create_before_init(&layout, &nic);
}

static void test_create_zeroes_the_record(void **state)
{
    (void)state;
    start(&lh_desc_base_two_pipes);
    create(&nic, 0, 0);
    bt_check_create_zeroes(&nic, 0, 0);
    expect_no_more_logs();
}

/* ---- Statistics ---- */

static void test_every_global_counter_composed_from_its_registers(void **state)
{
    static const uint8_t zeros[STATS_BYTES - QUEUE_ENTRY0];
    uint8_t record[STATS_BYTES];

    (void)state;
    start(&lh_desc_base_two_pipes);
    lh_desc_base_two_pipes.max_queue_id = 0;
    for (size_t d = 0; d < BT_ARRAY_SIZE(drivers); d++) {
        uint8_t expected[STATS_BYTES] = {0};

        create(drivers[d], 0, (int)d);
        bt_load_counters((int)d, 0);
        drivers[d]->ops->update_stats(0);
        add_globals(expected, 0);
        bt_get_stats(drivers[d], 0, record);
        assert_memory_equal(record, expected, QUEUE_ENTRY0);
        /* Spot checks of the odd order against the table above. */
        assert_int_equal(get_u64(record, 0), 0x010050F5010054F1);
        assert_int_equal(get_u64(record, 24), 0x010068CD01006CC9);
        assert_int_equal(get_u64(record, 32), 0x000000000100882D);
        assert_int_equal(get_u64(record, 40), 0x0000000001008C29);
        assert_int_equal(get_u64(record, 48), 0x00000000010070D5);
        assert_int_equal(get_u64(record, 88), 0x0000000001008421);
        assert_int_equal(get_u64(record, 96), 0x000000000100F85D);
        assert_int_equal(get_u64(record, 104), 0x0000000001009035);
        assert_int_equal(get_u64(record, 160), 0x000000000100AC09);
        /* Queue 0 alone is present. */
        assert_int_equal(record[QUEUE_ENTRY0], 1);
        assert_memory_equal(record + entry_offset(1), zeros,
                            STATS_BYTES - entry_offset(1));
    }
    assert_int_equal(stray_reads, 0);
    expect_no_more_logs();
}

static void test_max_queue_id_255_polls_every_queue(void **state)
{
    uint8_t expected[STATS_BYTES] = {0};
    unsigned long reads;

    (void)state;
    start(&lh_desc_base_two_pipes);
    create(&nic, 0, 0);
    bt_store(0, QUEUE_SELECT, 0xA5A5A400 | 0x1C3);
    bt_load_counters(0, 0);
    generation[0] = 5;
    reads = model->reads;
    nic_update_stats(0);
    /* 25 global reads; per queue 2 select read-modify-writes, 4 data. */
    assert_int_equal(model->reads - reads, 25 + 256 * 6);
    assert_int_equal(select_count[0], 512);
    for (uint32_t q = 0; q < QUEUES; q++) {
        assert_int_equal(selects[0][2 * q], 0xA5A5A400 | q);
        assert_int_equal(selects[0][2 * q + 1], 0xA5A5A400 | (q + 0x100));
    }
    add_globals(expected, 0);
    add_nic_queues(expected, 255, 5);
    bt_assert_stats(&nic, 0, expected);
    assert_int_equal(present_entries(&nic, 0), 256);
    assert_int_equal(stray_reads, 0);
    assert_int_equal(stray_writes, 0);
    expect_no_more_logs();
}

static void test_max_queue_id_is_taken_at_create(void **state)
{
    uint8_t expected[STATS_BYTES] = {0};

    (void)state;
    start(&lh_desc_base_two_pipes);
    lh_desc_base_two_pipes.max_queue_id = 3;
    create(&nic, 1, 1);
    lh_desc_base_two_pipes.max_queue_id = 255;
    generation[1] = 2;
    nic_update_stats(1);
    assert_int_equal(select_count[1], 8);
    assert_int_equal(select_count[0], 0);
    add_nic_queues(expected, 3, 2);
    bt_assert_stats(&nic, 1, expected);
    assert_int_equal(present_entries(&nic, 1), 4);
    expect_no_more_logs();
}

static void test_lhx_queue_128_aliases_queue_0_banks_swapped(void **state)
{
    uint8_t expected[STATS_BYTES] = {0};
    uint8_t record[STATS_BYTES];

    (void)state;
    start(&lh_desc_lhx);
    create(&lhx, 0, 0);
    /* Bit 8 lies outside lhx_nic's field and must be kept. */
    bt_store(0, QUEUE_SELECT, 0xFFFFFF00 | 0x3C);
    generation[0] = 3;
    lhx_nic_update_stats(0);
    assert_int_equal(select_count[0], 2 * 129);
    for (uint32_t q = 0; q <= 128; q++) {
        assert_int_equal(selects[0][2 * q], 0xFFFFFF00 | q);
        assert_int_equal(selects[0][2 * q + 1],
                         0xFFFFFF00 | ((q + 0x80) % 256));
    }
    add_lhx_queues(expected, 3);
    bt_assert_stats(&lhx, 0, expected);
    assert_int_equal(present_entries(&lhx, 0), 129);
    /* Entry 128 holds queue 0's counters with the banks swapped. */
    bt_get_stats(&lhx, 0, record);
    assert_int_equal(get_u64(record, entry_offset(128) + 24),
                     (uint64_t)(queue_high(0, 0, 3) & 0xFFFF) << 32 |
                         queue_low(0, 0, 3));
    assert_int_equal(get_u64(record, entry_offset(128) + 16),
                     get_u64(record, entry_offset(0) + 24));
    assert_int_equal(get_u64(record, entry_offset(128) + 24),
                     get_u64(record, entry_offset(0) + 16));
    assert_int_equal(stray_writes, 0);
    expect_no_more_logs();
}

static void test_counters_accumulate_over_polls(void **state)
{
    uint8_t expected[STATS_BYTES] = {0};

    (void)state;
    start(&lh_desc_lhx);
    create(&lhx, 0, 0);
    for (uint32_t poll = 0; poll < 3; poll++) {
        bt_load_counters(0, poll);
        generation[0] = poll + 1;
        lhx_nic_update_stats(0);
        add_globals(expected, poll);
        add_lhx_queues(expected, poll + 1);
        bt_assert_stats(&lhx, 0, expected);
    }
    /* The reads cleared the global counters: without traffic they add
     * nothing, while the queues add their latest values again. */
    lhx_nic_update_stats(0);
    add_lhx_queues(expected, 3);
    bt_assert_stats(&lhx, 0, expected);
    expect_no_more_logs();
}

static void test_global_totals_wrap(void **state)
{
    uint8_t record[STATS_BYTES];

    (void)state;
    start(&lh_desc_base_two_pipes);
    lh_desc_base_two_pipes.max_queue_id = 0;
    create(&nic, 0, 0);
    for (int poll = 0; poll < 2; poll++) {
        bt_store(0, 0x50, 0xFFFFFFFF);
        bt_store(0, 0x54, 0xFFFFFFFF);
        bt_store(0, 0x88, 0xFFFFFFFF);
        nic_update_stats(0);
    }
    bt_get_stats(&nic, 0, record);
    assert_int_equal(get_u64(record, 0), 0xFFFFFFFFFFFFFFFE);
    assert_int_equal(get_u64(record, 32), 0x1FFFFFFFE);
    expect_no_more_logs();
}

static void test_clear_stats_zeroes_without_touching_hardware(void **state)
{
    static const uint8_t zeros[STATS_BYTES];
    uint8_t expected[STATS_BYTES] = {0};
    unsigned long reads, writes;

    (void)state;
    start(&lh_desc_lhx);
    create(&lhx, 0, 0);
    bt_load_counters(0, 0);
    generation[0] = 1;
    lhx_nic_update_stats(0);
    bt_load_counters(0, 1);
    reads = model->reads;
    writes = model->writes;
    assert_int_equal(lhx_nic_clear_stats(0), 0);
    assert_int_equal(model->reads, reads);
    assert_int_equal(model->writes, writes);
    assert_int_equal(bt_peek(0, 0x50), bt_value_by_reg(0, 0x50, 1));
    bt_assert_stats(&lhx, 0, zeros);
    generation[0] = 2;
    lhx_nic_update_stats(0);
    add_globals(expected, 1);
    add_lhx_queues(expected, 2);
    bt_assert_stats(&lhx, 0, expected);
    expect_no_more_logs();
}

static void test_get_stats_takes_exactly_8360_bytes(void **state)
{
    static const uint64_t sizes[] = {8359, 8361, 0, 168};
    uint8_t expected[STATS_BYTES] = {0};

    (void)state;
    start(&lh_desc_base_two_pipes);
    create(&nic, 0, 0);
    create(&lhx, 0, 1);
    bt_load_counters(0, 0);
    nic_update_stats(0);
    for (size_t d = 0; d < BT_ARRAY_SIZE(drivers); d++)
        bt_expect_wrong_sizes(drivers[d], 0, sizes, BT_ARRAY_SIZE(sizes));
    add_globals(expected, 0);
    add_nic_queues(expected, 255, 0);
    /* The whole record, and not one byte past it. */
    bt_assert_stats(&nic, 0, expected);
    expect_no_more_logs();
}

static void test_pipes_keep_their_own_counters(void **state)
{
    uint8_t expected0[STATS_BYTES] = {0};
    uint8_t expected1[STATS_BYTES] = {0};

    (void)state;
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
    bt_assert_stats(&nic, 0, expected0);
    bt_assert_stats(&nic, 1, expected1);
    assert_int_equal(select_count[0], 512);
    assert_int_equal(select_count[1], 512);
    expect_no_more_logs();
}

static void test_lhx_and_nic_keep_apart(void **state)
{
    static const uint8_t zeros[STATS_BYTES];
    uint8_t expected[STATS_BYTES] = {0};
    lh_fatal_error_t report = {0, 0, NULL};

    (void)state;
    start(&lh_desc_base_two_pipes);
    lh_desc_base_two_pipes.max_queue_id = 128;
    create(&nic, 0, 0);
    create(&lhx, 0, 1);
    bt_load_counters(0, 0);
    bt_load_counters(1, 1);
    generation[1] = 7;
    nic_update_stats(0);
    lhx_nic_update_stats(0);
    assert_int_equal(nic_clear_stats(0), 0);
    add_globals(expected, 1);
    add_lhx_queues(expected, 7);
    bt_assert_stats(&nic, 0, zeros);
    bt_assert_stats(&lhx, 0, expected);

    bt_store(1, STATUS2, 1u << 4);
    assert_int_equal(nic_fatal_error_detect(0, &report), 0);
    assert_int_equal(lhx_nic_fatal_error_detect(0, &report), 1);
    expect_log(LOG_CRIT, "FATAL - LHX NIC pipe 0: QDMA H2C Data Parity Error");
    expect_no_more_logs();
}

/* ---- Fatal error detection ---- */

/* Part 4.3's error table as lhx_nic tests it; nic differs at two rows. */
static const struct bt_error_row error_rows[] = {
    {STATUS0, 19, "H2C Descriptor Memory Double bit ECC Error"},
    {STATUS0, 18, "C2H Descriptor Memory Double bit ECC Error"},
    {STATUS0, 17, "NIC Egr Path FIFO Double bit ECC Error"},
    {STATUS0, 16, "TM Out Packet Buffer Double bit ECC Error"},
    {STATUS0, 15,
     "NIC Ingr In-band Input Packet Buffer Double bit ECC "
     "Error"},
    {STATUS0, 14,
     "NIC Ingr Normal Traffic Input Packet Buffer Double bit "
     "ECC Error"},
    {STATUS0, 13, "TM Counters per Q Parity Error"},
    {STATUS0, 12, "TM Shared Memory (URAMs) Parity Error"},
    {STATUS0, 11, "NIC Egr Path FIFO Overflow"},
    {STATUS0, 10, "NIC Egr Path FIFO Underflow"},
    {STATUS0, 9, "TM Out Packet Buffer Overflow"},
    {STATUS0, 8, "TM Out Packet Buffer Underflow"},
    {STATUS0, 7, "NIC Ingr In-band Input FIFO Overflow"},
    {STATUS0, 6, "NIC Ingr In-band Input FIFO Underflow"},
    {STATUS0, 5, "NIC Ingr Normal Traffic Input Packet Buffer Overflow"},
    {STATUS0, 4, "NIC Ingr Normal Traffic Input Packet Buffer Underflow"},
    {STATUS0, 3, "NIC TOP TM TX Missing EOP Error"},
    {STATUS0, 2, "NIC TOP TM TX Missing SOP Error"},
    {STATUS0, 1, "NIC TOP TM RX Missing EOP Error"},
    {STATUS0, 0, "NIC TOP TM RX Missing SOP Error"},
    {STATUS1, 29, "BudM Linked List Parity Error"},
    {STATUS1, 28, "BudM Tail Bud Parity Error"},
    {STATUS1, 27, "BudM Memory Parity Error"},
    {STATUS1, 26, "BudM Tail Pointer Parity Error"},
    {STATUS1, 25, "BudM Head Pointer Parity Error"},
    {STATUS1, 24, "BudM Free List Parity Error"},
    {STATUS1, 23, "Credit FIFO Overflow"},
    {STATUS1, 22, "Credit FIFO Underflow"},
    {STATUS1, 21, "BudM Free List Overflow"},
    {STATUS1, 20, "BudM Free List Underflow"},
    {STATUS1, 19, "C2H Descriptor Memory Overflow"},
    {STATUS1, 18, "C2H Descriptor Memory Underflow"},
    {STATUS1, 17, "QM Guaranteed List Overflow"},
    {STATUS1, 16, "QM Queue Underflow"},
    {STATUS1, 15, "QM Linked List Parity Error"},
    {STATUS1, 14, "QM Tail Pointer Parity Error"},
    {STATUS1, 13, "QM Head Pointer Parity Error"},
    {STATUS1, 12, "QM Free List Parity Error"},
    {STATUS1, 11, "Data Rd Request FIFO Overflow"},
    {STATUS1, 10, "Data Rd Request FIFO Underflow"},
    {STATUS1, 9, "Data Wr Request FIFO Overflow"},
    {STATUS1, 8, "Data Wr Request FIFO Underflow"},
    {STATUS1, 7, "Dequeue Request FIFO Overflow"},
    {STATUS1, 6, "Dequeue Request FIFO Underflow"},
    {STATUS1, 5, "Enqueue Request FIFO Overflow"},
    {STATUS1, 4, "Enqueue Request FIFO Underflow"},
    {STATUS1, 3, "Free List Request FIFO Overflow"},
    {STATUS1, 2, "Free List Request FIFO Underflow"},
    {STATUS1, 1, "QM Free List Overflow"},
    {STATUS1, 0, "QM Free List Underflow"},
    {STATUS2, 19, "H2C Descriptor Out FIFO Overflow"},
    {STATUS2, 18, "H2C Descriptor Out FIFO Underflow"},
    {STATUS2, 17, "H2C Descriptor In FIFO Overflow"},
    {STATUS2, 16, "H2C Descriptor In FIFO Underflow"},
    {STATUS2, 15, "Credit Out FIFO Overflow"},
    {STATUS2, 14, "Credit Out FIFO Underflow"},
    {STATUS2, 13, "Credit In FIFO Overflow"},
    {STATUS2, 12, "Credit In FIFO Underflow"},
    {STATUS2, 11, "Credit Request FIFO Overflow"},
    {STATUS2, 10, "Credit Request FIFO Underflow"},
    {STATUS2, 9, "Descriptor Update FIFO Overflow"},
    {STATUS2, 8, "Descriptor Update FIFO Underflow"},
    {STATUS2, 7, "QDMA C2H Bypass Descriptor Size Error"},
    {STATUS2, 6, "QDMA C2H Bypass Descriptor Path Error"},
    {STATUS2, 5, "QDMA Credit Update Error"},
    {STATUS2, 4, "QDMA H2C Data Parity Error"},
    {STATUS2, 3, "QDMA H2C Path Error"},
    {STATUS2, 2, "QDMA H2C Empty Beat Error"},
    {STATUS2, 1, "QDMA H2C Bypass Descriptor Size Error"},
    {STATUS2, 0, "QDMA H2C Bypass Descriptor Path Error"},
};

/* The text `driver` gives the row, null for a row it does not test. */
static const char *row_text(const struct bt_driver *driver,
                            const struct bt_error_row *row)
{
    if (driver != &nic)
        return row->text;
    if (row->reg == STATUS0 && row->bit == 12)
        return "TM Shared Memory (URAMs) Double bit ECC Error";
    if (row->reg == STATUS2 && row->bit == 4)
        return NULL;
    return row->text;
}

/* The table as nic tests it, built by build_nic_rows. */
static struct bt_error_row nic_rows[BT_ARRAY_SIZE(error_rows) - 1];

static size_t build_nic_rows(void)
{
    size_t n = 0;

    for (size_t i = 0; i < BT_ARRAY_SIZE(error_rows); i++) {
        const char *text = row_text(&nic, &error_rows[i]);

        if (text == NULL)
            continue;
        if (n == BT_ARRAY_SIZE(nic_rows))
            return n + 1;
        nic_rows[n] = error_rows[i];
        nic_rows[n++].text = text;
    }
    return n;
}

static void set_status(const struct bt_driver *driver, uint32_t status0,
                       uint32_t status1, uint32_t status2)
{
    bt_set_statuses(driver->site, status0, status1, status2);
}

static void expect_fatal(const struct bt_driver *driver, const char *text)
{
    bt_expect_fatal(driver, 0, text);
}

static void expect_no_fatal(const struct bt_driver *driver)
{
    bt_expect_no_fatal(driver, 0);
}

static void start_both_on_pipe_0(void)
{
    start(&lh_desc_base_two_pipes);
    create(&nic, 0, nic.site);
    create(&lhx, 0, lhx.site);
}

static void test_each_error_bit_alone_reports_its_row(void **state)
{
    unsigned long writes;

    (void)state;
    start_both_on_pipe_0();
    writes = model->writes;
    bt_walk_error_rows(&nic, 0, nic.site, nic_rows, BT_ARRAY_SIZE(nic_rows));
    /* The row nic does not test: its bit alone reports nothing. */
    set_status(&nic, 0, 0, 1u << 4);
    expect_no_fatal(&nic);
    bt_walk_error_rows(&lhx, 0, lhx.site, error_rows,
                       BT_ARRAY_SIZE(error_rows));
    assert_int_equal(model->writes, writes);
    expect_no_more_logs();
}

static void test_rows_where_the_drivers_differ(void **state)
{
    (void)state;
    start_both_on_pipe_0();
    set_status(&nic, 1u << 12, 0, 0);
    expect_fatal(&nic, "TM Shared Memory (URAMs) Double bit ECC Error");
    set_status(&lhx, 1u << 12, 0, 0);
    expect_fatal(&lhx, "TM Shared Memory (URAMs) Parity Error");
    /* On nic, register 0x30 bit 4 alone reports nothing. */
    set_status(&nic, 0, 0, 1u << 4);
    bt_forget_reads();
    expect_no_fatal(&nic);
    assert_int_equal(bt_status_reads(0), 69);
    set_status(&nic, 0, 0, 1u << 4 | 1u << 3);
    expect_fatal(&nic, "QDMA H2C Path Error");
    set_status(&lhx, 0, 0, 1u << 4 | 1u << 3);
    expect_fatal(&lhx, "QDMA H2C Data Parity Error");
    expect_no_more_logs();
}

static void test_first_set_bit_wins_within_a_register(void **state)
{
    (void)state;
    start_both_on_pipe_0();
    for (size_t d = 0; d < BT_ARRAY_SIZE(drivers); d++) {
        set_status(drivers[d], 1u << 19 | 1u << 0, 0, 0);
        expect_fatal(drivers[d], "H2C Descriptor Memory Double bit ECC Error");
        set_status(drivers[d], 1u << 11 | 1u << 10, 0, 0);
        expect_fatal(drivers[d], "NIC Egr Path FIFO Overflow");
        set_status(drivers[d], 0, 0x3FFFFFFF, 0);
        expect_fatal(drivers[d], "BudM Linked List Parity Error");
        set_status(drivers[d], 0, 1u << 17 | 1u << 16, 0);
        expect_fatal(drivers[d], "QM Guaranteed List Overflow");
        set_status(drivers[d], 0, 0, 0xFFFFF);
        expect_fatal(drivers[d], "H2C Descriptor Out FIFO Overflow");
        set_status(drivers[d], 0, 0, 1u << 1 | 1u << 0);
        expect_fatal(drivers[d], "QDMA H2C Bypass Descriptor Size Error");
    }
    expect_no_more_logs();
}

static void test_first_set_bit_wins_across_registers(void **state)
{
    (void)state;
    start_both_on_pipe_0();
    for (size_t d = 0; d < BT_ARRAY_SIZE(drivers); d++) {
        set_status(drivers[d], 1u << 0, 1u << 29, 0);
        expect_fatal(drivers[d], "NIC TOP TM RX Missing SOP Error");
        set_status(drivers[d], 0, 1u << 0, 1u << 19);
        expect_fatal(drivers[d], "QM Free List Underflow");
        set_status(drivers[d], 1u << 0, 0, 1u << 19);
        expect_fatal(drivers[d], "NIC TOP TM RX Missing SOP Error");
        set_status(drivers[d], 0xFFFFFFFF, 0xFFFFFFFF, 0xFFFFFFFF);
        expect_fatal(drivers[d], "H2C Descriptor Memory Double bit ECC Error");
    }
    expect_no_more_logs();
}

static void test_untested_bits_report_nothing(void **state)
{
    static const uint32_t other_regs[] = {0x04, 0x10, 0x1C, 0x24,
                                          0x2C, 0x34, 0x40, 0x4C};
    unsigned long writes;

    (void)state;
    start_both_on_pipe_0();
    for (size_t d = 0; d < BT_ARRAY_SIZE(drivers); d++) {
        int site = drivers[d]->site;

        for (size_t i = 0; i < BT_ARRAY_SIZE(other_regs); i++)
            bt_store(site, other_regs[i], 0xFFFFFFFF);
        writes = model->writes;
        bt_forget_reads();
        set_status(drivers[d], 0, 0, 0);
        expect_no_fatal(drivers[d]);
        set_status(drivers[d], 0xFFF00000, 0xC0000000, 0xFFF00000);
        expect_no_fatal(drivers[d]);
        /* Every row reads its register anew: 70 rows, 69 on nic. */
        assert_int_equal(bt_status_reads(site), d == 0 ? 2 * 69 : 2 * 70);
        assert_int_equal(stray_reads, 0);
        assert_int_equal(model->writes, writes);
    }
    set_status(&nic, 0xFFF00000, 0xC0000000, 0xFFF00000 | 1u << 4);
    expect_no_fatal(&nic);
    expect_no_more_logs();
}

static void test_status_register_read_again_for_every_row(void **state)
{
    /* Rows 19..1 of register 0x00 read 0; the twentieth read sees bit 0. */
    static const uint32_t late0[20] = {[19] = 1u << 0};
    /* Register 0x20 shows bits 29 and 28 from its second read (row 28). */
    static const uint32_t late1[2] = {0, 1u << 29 | 1u << 28};

    (void)state;
    start_both_on_pipe_0();
    bt_script(STATUS0, late0, BT_ARRAY_SIZE(late0));
    expect_fatal(&nic, "NIC TOP TM RX Missing SOP Error");
    assert_int_equal(bt_script_reads(), 20);
    assert_int_equal(bt_status_reads(0), 20);

    bt_script(STATUS1, late1, BT_ARRAY_SIZE(late1));
    expect_fatal(&nic, "BudM Tail Bud Parity Error");
    assert_int_equal(bt_script_reads(), 2);
    expect_no_more_logs();
}

/* ---- Refusals ---- */

static void test_null_pointers_come_first(void **state)
{
    (void)state;
    start(&lh_desc_base_two_pipes);
    for (size_t d = 0; d < BT_ARRAY_SIZE(drivers); d++)
        bt_expect_null_refusals(drivers[d], null_refusals,
                                BT_ARRAY_SIZE(null_refusals), 2);
    assert_int_equal(model->reads, 0);
    expect_no_more_logs();
}

static void test_invalid_pipe_refused_by_every_operation(void **state)
{
    (void)state;
    start_both_on_pipe_0();
    bt_expect_refusals(&nic, refusals, BT_ARRAY_SIZE(refusals), 2, "pipe");
    bt_expect_refusals(&lhx, refusals, BT_ARRAY_SIZE(refusals), 2, "pipe");
    expect_no_more_logs();
}

static void test_invalid_context_refused_by_every_operation(void **state)
{
    uint8_t record[STATS_BYTES];

    (void)state;
    start(&lh_desc_lhx);
    create(&lhx, 0, 0);
    bt_expect_refusals(&lhx, refusals, BT_ARRAY_SIZE(refusals), 1, "context");
    /* The size is checked after the context. */
    assert_int_equal(lhx_nic_get_stats(1, record, 1), -1);
    expect_log(LOG_CRIT, "Error - LHX NIC get stats - invalid context 1");
    expect_no_more_logs();
}

int main(void)
{
#define T(name) cmocka_unit_test_teardown(name, teardown)
    const struct CMUnitTest never_created[] = {
        T(test_mutex_failure_leaves_context_invalid),
        T(test_max_queue_id_256_refused),
        T(test_pipe_1_refused_on_one_pipe_device),
        T(test_lhx_context_is_not_the_nic_context),
    };
    const struct CMUnitTest tests[] = {
        T(test_ops_tables_wire_the_operations),
        T(test_create_logs_the_created_line),
        T(test_create_refusals),
        T(test_refused_create_keeps_the_context),
        T(test_create_before_initialisation),
        T(test_create_zeroes_the_record),
        T(test_every_global_counter_composed_from_its_registers),
        T(test_max_queue_id_255_polls_every_queue),
        T(test_max_queue_id_is_taken_at_create),
        T(test_lhx_queue_128_aliases_queue_0_banks_swapped),
        T(test_counters_accumulate_over_polls),
        T(test_global_totals_wrap),
        T(test_clear_stats_zeroes_without_touching_hardware),
        T(test_get_stats_takes_exactly_8360_bytes),
        T(test_pipes_keep_their_own_counters),
        T(test_lhx_and_nic_keep_apart),
        T(test_each_error_bit_alone_reports_its_row),
        T(test_rows_where_the_drivers_differ),
        T(test_first_set_bit_wins_within_a_register),
        T(test_first_set_bit_wins_across_registers),
        T(test_untested_bits_report_nothing),
        T(test_status_register_read_again_for_every_row),
        T(test_null_pointers_come_first),
        T(test_invalid_pipe_refused_by_every_operation),
        T(test_invalid_context_refused_by_every_operation),
    };

    saved_max_queue_id[0] = lh_desc_base_two_pipes.max_queue_id;
    saved_max_queue_id[1] = lh_desc_lhx.max_queue_id;
    if (build_nic_rows() != BT_ARRAY_SIZE(nic_rows))
        return 1;
    return BT_RUN_GROUPS("nic", never_created, tests);
}
