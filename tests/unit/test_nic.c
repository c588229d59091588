/* Part 4.3: the NIC block drivers (nic, lhx_nic) against a model of the
 * block: clear-on-read global counters, per-queue counters served through
 * the queue select register with the data pair latched by the high word,
 * and status registers that can change between reads. */
#include <errno.h>
#include <pthread.h>
#include <stdarg.h>
#include <stdbool.h>
#include <stdio.h>
#include <string.h>

#include "cmocka_all.h"
#include "mutex_wrap.h"
#include "fake_device.h"
#include "lh_drivers.h"
#include "lh_log.h"
#include "log_expect.h"
#include "nic.h"
#include "private_tmp.h"
#include "syslog_capture.h"


/* Block registers, offsets from the block base (Part 4.3). */
#define STATUS0      0x00u
#define STATUS1      0x20u
#define STATUS2      0x30u
#define QUEUE_SELECT 0xC0u
#define QUEUE_HIGH   0xC4u
#define QUEUE_LOW    0xC8u
#define BLOCK_SPAN   0x100u

#define ARRAY_SIZE(a) (sizeof(a) / sizeof((a)[0]))

#define STATS_BYTES  8360
#define GLOBALS      21
#define QUEUES       256
#define QUEUE_ENTRY0 168
#define ENTRY_BYTES  32

/* What the low data register reads when no high read latched it. */
#define STALE_LOW 0x57A1E000u

/* The NIC blocks of the window: pipe 0's and pipe 1's on the base image;
 * the LHX image has the first only. A test may put either driver's context
 * on either site. */
#define SITES 2
static const uint32_t site_offsets[SITES] = { 0x12000, 0x22000 };

#define MAX_SELECTS 1024

static struct reg_model *model;
/* The select field each site's hardware decodes: its top bit is the bank,
 * the bits below the queue. 9 for a nic block, 8 for an lhx_nic block. */
static unsigned int select_width[SITES];
/* The queue counters change with the generation, so polls differ. */
static uint32_t generation[SITES];
static uint32_t latched_low[SITES];
static uint32_t selects[SITES][MAX_SELECTS];
static size_t select_count[SITES];
static unsigned long status_reads[SITES];
static unsigned long stray_reads;
static unsigned long stray_writes;
/* Successive reads of `script_reg` on site 0 return these, then the last. */
static uint32_t script_reg;
static uint32_t script[32];
static size_t script_length;
static size_t script_reads;

static uint32_t saved_max_queue_id[2];

struct driver {
    const char *name;
    const struct lh_block_ops *ops;
    unsigned int select_width;
};

static const struct driver nic = { "NIC", &nic_ops, 9 };
static const struct driver lhx = { "LHX NIC", &lhx_nic_ops, 8 };
static const struct driver *const drivers[] = { &nic, &lhx };

/* ---- The model ---- */

static int site_of(uint32_t offset, uint32_t *reg)
{
    for (int site = 0; site < SITES; site++) {
        if (offset >= site_offsets[site] &&
            offset < site_offsets[site] + BLOCK_SPAN) {
            *reg = offset - site_offsets[site];
            return site;
        }
    }
    return -1;
}

static uint32_t block_peek(int site, uint32_t reg)
{
    return reg_model_peek(model, site_offsets[site] + reg);
}

static void block_store(int site, uint32_t reg, uint32_t value)
{
    reg_model_store(model, site_offsets[site] + reg, value);
}

static volatile void *site_base(int site)
{
    return (uint8_t *)model->words + site_offsets[site];
}

static bool is_status(uint32_t reg)
{
    return reg == STATUS0 || reg == STATUS1 || reg == STATUS2;
}

static bool is_global_counter(uint32_t reg)
{
    return (reg >= 0x50 && reg <= 0xAC) || reg == 0xF8;
}

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
    uint32_t select = block_peek(site, QUEUE_SELECT);

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

static uint32_t scripted(int site, uint32_t reg, uint32_t stored)
{
    size_t read;

    if (site != 0 || reg != script_reg || script_length == 0)
        return stored;
    read = script_reads++;
    if (read >= script_length)
        read = script_length - 1;
    return script[read];
}

static uint32_t hardware_read(struct reg_model *window, uint32_t offset,
                              uint32_t stored)
{
    uint32_t reg;
    int site = site_of(offset, &reg);

    if (site < 0)
        return stored;
    if (is_status(reg)) {
        status_reads[site]++;
        return scripted(site, reg, stored);
    }
    if (reg == QUEUE_HIGH)
        return read_queue_high(site);
    if (reg == QUEUE_LOW)
        return read_queue_low(site);
    if (reg == QUEUE_SELECT)
        return stored;
    if (is_global_counter(reg)) {
        reg_model_store(window, offset, 0);
        return stored;
    }
    stray_reads++;
    return stored;
}

static void hardware_write(struct reg_model *window, uint32_t offset,
                           uint32_t value)
{
    uint32_t reg;
    int site = site_of(offset, &reg);

    if (site >= 0 && reg == QUEUE_SELECT) {
        if (select_count[site] < MAX_SELECTS)
            selects[site][select_count[site]] = value;
        select_count[site]++;
    } else {
        stray_writes++;
    }
    reg_model_store(window, offset, value);
}

static void start(lh_device_desc *desc)
{
    model = fake_device_start(desc, 1);
    model->on_read = hardware_read;
    model->on_write = hardware_write;
    for (int site = 0; site < SITES; site++) {
        select_width[site] = 9;
        generation[site] = 0;
        latched_low[site] = STALE_LOW;
        select_count[site] = 0;
        status_reads[site] = 0;
    }
    stray_reads = 0;
    stray_writes = 0;
    script_length = 0;
    script_reads = 0;
}

static int teardown(void **state)
{
    mutex_init_fails = false;
    lh_desc_base_two_pipes.max_queue_id = saved_max_queue_id[0];
    lh_desc_lhx.max_queue_id = saved_max_queue_id[1];
    return fake_device_teardown(state);
}

static void create(const struct driver *driver, uint32_t pipe, int site)
{
    select_width[site] = driver->select_width;
    assert_int_equal(driver->ops->context_create(pipe, site_base(site)), 0);
    expect_logf(LOG_INFO, "Informational - %s module %u context created",
                driver->name, pipe);
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

/* Distinct in every register and poll, so a wrong source, a swapped high
 * and low word or a second read shows. */
static uint32_t counter_value(uint32_t reg, uint32_t poll)
{
    return (poll + 1) << 24 | reg << 8 | (reg ^ 0xA5);
}

static void load_globals(int site, uint32_t poll)
{
    for (uint32_t reg = 0x50; reg <= 0xF8; reg += 4)
        if (is_global_counter(reg))
            block_store(site, reg, counter_value(reg, poll));
}

/* Part 4.3's table of global counters: the register of bits 63..32 (0:
 * none) and the register of bits 31..0, at byte 8 x i of the record. */
static const struct {
    uint32_t high, low;
} global_sources[GLOBALS] = {
    { 0x50, 0x54 }, { 0x58, 0x5C }, { 0x60, 0x64 }, { 0x68, 0x6C },
    { 0, 0x88 },    { 0, 0x8C },    { 0, 0x70 },    { 0, 0x74 },
    { 0, 0x78 },    { 0, 0x7C },    { 0, 0x80 },    { 0, 0x84 },
    { 0, 0xF8 },    { 0, 0x90 },    { 0, 0x94 },    { 0, 0x98 },
    { 0, 0x9C },    { 0, 0xA0 },    { 0, 0xA4 },    { 0, 0xA8 },
    { 0, 0xAC },
};

static void add_globals(uint8_t *record, uint32_t poll)
{
    for (size_t i = 0; i < GLOBALS; i++) {
        uint64_t high = global_sources[i].high == 0
                            ? 0
                            : counter_value(global_sources[i].high, poll);

        add_u64(record, 8 * i,
                high << 32 | counter_value(global_sources[i].low, poll));
    }
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

static void add_nic_queues(uint8_t *record, uint32_t max_queue_id,
                           uint32_t gen)
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

static void assert_record(const struct driver *driver, uint32_t pipe,
                          const uint8_t *expected)
{
    uint8_t record[STATS_BYTES];

    memset(record, 0xEE, sizeof(record));
    assert_int_equal(driver->ops->get_stats(pipe, record, STATS_BYTES), 0);
    assert_memory_equal(record, expected, STATS_BYTES);
}

static size_t present_entries(const struct driver *driver, uint32_t pipe)
{
    uint8_t record[STATS_BYTES];
    size_t present = 0;

    assert_int_equal(driver->ops->get_stats(pipe, record, STATS_BYTES), 0);
    for (uint32_t q = 0; q < QUEUES; q++)
        present += record[entry_offset(q)] == 1;
    return present;
}

/* Every operation but context_create fails on `pipe` with "invalid <what>"
 * at severity 2, and nothing is read or written. */
static void expect_refused_everywhere(const struct driver *driver,
                                      uint32_t pipe, const char *what)
{
    const char *name = driver->name;
    uint8_t record[STATS_BYTES];
    lh_fatal_error_t report = { 0, 0, NULL };
    unsigned long reads = model->reads;
    unsigned long writes = model->writes;

    memset(record, 0xEE, sizeof(record));
    driver->ops->update_stats(pipe);
    expect_logf(LOG_CRIT, "Error - %s update stats - invalid %s %u", name,
                what, pipe);
    assert_int_equal(driver->ops->get_stats(pipe, record, STATS_BYTES), -1);
    expect_logf(LOG_CRIT, "Error - %s get stats - invalid %s %u", name, what,
                pipe);
    assert_int_equal(record[0], 0xEE);
    assert_int_equal(driver->ops->clear_stats(pipe), -1);
    expect_logf(LOG_CRIT, "Error - %s clear stats - invalid %s %u", name,
                what, pipe);
    assert_int_equal(driver->ops->fatal_error_detect(pipe, &report), 0);
    expect_logf(LOG_CRIT,
                "Error - %s module fatal error detection - invalid %s %u",
                name, what, pipe);
    assert_null(report.error_text);
    assert_int_equal(model->reads, reads);
    assert_int_equal(model->writes, writes);
}

/* ---- Contexts never created before: these run first, in this order. ---- */

static void test_mutex_failure_leaves_context_invalid(void **state)
{
    (void)state;
    start(&lh_desc_base_two_pipes);
    mutex_init_fails = true;
    for (size_t d = 0; d < 2; d++) {
        assert_int_equal(drivers[d]->ops->context_create(0, site_base(0)), -1);
        expect_logf(LOG_CRIT,
                    "Error - %s module context create - mutex init failed",
                    drivers[d]->name);
    }
    mutex_init_fails = false;
    assert_int_equal(model->reads, 0);
    assert_int_equal(model->writes, 0);
    expect_refused_everywhere(&nic, 0, "context");
    expect_refused_everywhere(&lhx, 0, "context");
    expect_no_more_logs();
}

static void test_max_queue_id_256_refused(void **state)
{
    (void)state;
    start(&lh_desc_base_two_pipes);
    lh_desc_base_two_pipes.max_queue_id = 256;
    assert_int_equal(nic_context_create(1, site_base(1)), -1);
    expect_log(LOG_CRIT, "Error - NIC module context create -  max queue id "
                         "(256) is out of bounds (255)");
    assert_int_equal(model->reads, 0);
    assert_int_equal(model->writes, 0);
    expect_refused_everywhere(&nic, 1, "context");
    expect_no_more_logs();
}

static void test_pipe_1_refused_on_one_pipe_device(void **state)
{
    (void)state;
    start(&lh_desc_base_one_pipe);
    for (size_t d = 0; d < 2; d++) {
        assert_int_equal(drivers[d]->ops->context_create(1, site_base(1)), -1);
        expect_logf(LOG_CRIT,
                    "Error - %s module context create - invalid pipe 1",
                    drivers[d]->name);
        expect_refused_everywhere(drivers[d], 1, "context");
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
    (void)state;
    assert_true(nic_ops.context_create == nic_context_create);
    assert_true(nic_ops.update_stats == nic_update_stats);
    assert_true(nic_ops.get_stats == nic_get_stats);
    assert_true(nic_ops.clear_stats == nic_clear_stats);
    assert_true(nic_ops.fatal_error_detect == nic_fatal_error_detect);
    assert_true(lhx_nic_ops.context_create == lhx_nic_context_create);
    assert_true(lhx_nic_ops.update_stats == lhx_nic_update_stats);
    assert_true(lhx_nic_ops.get_stats == lhx_nic_get_stats);
    assert_true(lhx_nic_ops.clear_stats == lhx_nic_clear_stats);
    assert_true(lhx_nic_ops.fatal_error_detect == lhx_nic_fatal_error_detect);
    for (size_t d = 0; d < 2; d++) {
        const struct lh_block_ops *ops = drivers[d]->ops;

        assert_null(ops->set_interface_state);
        assert_null(ops->get_interface_state);
        assert_null(ops->set_loopback);
        assert_null(ops->get_loopback);
        assert_null(ops->qos_set_profile);
        assert_null(ops->qos_get_profile);
        assert_null(ops->rx_align_monitor);
    }
}

static void test_create_logs_the_created_line(void **state)
{
    (void)state;
    start(&lh_desc_base_two_pipes);
    assert_int_equal(nic_context_create(0, site_base(0)), 0);
    expect_log(LOG_INFO, "Informational - NIC module 0 context created");
    assert_int_equal(nic_context_create(1, site_base(1)), 0);
    expect_log(LOG_INFO, "Informational - NIC module 1 context created");
    assert_int_equal(lhx_nic_context_create(0, site_base(1)), 0);
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
    for (size_t d = 0; d < 2; d++) {
        const struct driver *driver = drivers[d];

        assert_int_equal(driver->ops->context_create(2, NULL), -1);
        expect_logf(LOG_ERR, "Null pointer - %s module context create",
                    driver->name);
        assert_int_equal(driver->ops->context_create(0, NULL), -1);
        expect_logf(LOG_ERR, "Null pointer - %s module context create",
                    driver->name);
        /* The pipe is checked before the max queue id. */
        assert_int_equal(driver->ops->context_create(2, site_base(0)), -1);
        expect_logf(LOG_CRIT,
                    "Error - %s module context create - invalid pipe 2",
                    driver->name);
        assert_int_equal(driver->ops->context_create(0, site_base(0)), -1);
        expect_logf(LOG_CRIT,
                    "Error - %s module context create -  max queue id "
                    "(256) is out of bounds (255)",
                    driver->name);
    }
    lh_desc_base_two_pipes.max_queue_id = 0xFFFFFFFF;
    assert_int_equal(nic_context_create(0, site_base(0)), -1);
    expect_log(LOG_CRIT, "Error - NIC module context create -  max queue id "
                         "(-1) is out of bounds (255)");
    assert_int_equal(model->reads, 0);
    assert_int_equal(model->writes, 0);
    expect_no_more_logs();
}

static void test_refused_create_keeps_the_context(void **state)
{
    uint8_t expected[STATS_BYTES] = { 0 };

    (void)state;
    start(&lh_desc_base_two_pipes);
    create(&nic, 0, 0);
    load_globals(0, 0);
    nic_update_stats(0);
    add_globals(expected, 0);
    add_nic_queues(expected, 255, 0);
    lh_desc_base_two_pipes.max_queue_id = 256;
    assert_int_equal(nic_context_create(0, site_base(1)), -1);
    expect_log(LOG_CRIT, "Error - NIC module context create -  max queue id "
                         "(256) is out of bounds (255)");
    assert_record(&nic, 0, expected);
    select_count[0] = 0;
    nic_update_stats(0);
    assert_int_equal(select_count[0], 512);
    expect_no_more_logs();
}

static void test_create_before_initialisation(void **state)
{
    (void)state;
    model = fake_device_start(&lh_desc_base_two_pipes, 0);
    assert_int_equal(nic_context_create(0, site_base(0)), -1);
    expect_log(LOG_ERR, "Error - get traffic pipe count failed, - system not "
                        "initialized");
    expect_log(LOG_CRIT,
               "Error - NIC module context create - invalid pipe 0");
    assert_int_equal(model->reads, 0);
    assert_int_equal(model->writes, 0);
    expect_no_more_logs();
}

static void test_create_zeroes_the_record(void **state)
{
    static const uint8_t zeros[STATS_BYTES];

    (void)state;
    start(&lh_desc_base_two_pipes);
    create(&nic, 0, 0);
    load_globals(0, 0);
    nic_update_stats(0);
    create(&nic, 0, 0);
    assert_record(&nic, 0, zeros);
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
    for (size_t d = 0; d < 2; d++) {
        uint8_t expected[STATS_BYTES] = { 0 };

        create(drivers[d], 0, (int)d);
        load_globals((int)d, 0);
        drivers[d]->ops->update_stats(0);
        add_globals(expected, 0);
        assert_int_equal(drivers[d]->ops->get_stats(0, record, STATS_BYTES),
                         0);
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
    uint8_t expected[STATS_BYTES] = { 0 };
    unsigned long reads;

    (void)state;
    start(&lh_desc_base_two_pipes);
    create(&nic, 0, 0);
    block_store(0, QUEUE_SELECT, 0xA5A5A400 | 0x1C3);
    load_globals(0, 0);
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
    assert_record(&nic, 0, expected);
    assert_int_equal(present_entries(&nic, 0), 256);
    assert_int_equal(stray_reads, 0);
    assert_int_equal(stray_writes, 0);
    expect_no_more_logs();
}

static void test_max_queue_id_is_taken_at_create(void **state)
{
    uint8_t expected[STATS_BYTES] = { 0 };

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
    assert_record(&nic, 1, expected);
    assert_int_equal(present_entries(&nic, 1), 4);
    expect_no_more_logs();
}

static void test_lhx_queue_128_aliases_queue_0_banks_swapped(void **state)
{
    uint8_t expected[STATS_BYTES] = { 0 };
    uint8_t record[STATS_BYTES];

    (void)state;
    start(&lh_desc_lhx);
    create(&lhx, 0, 0);
    /* Bit 8 lies outside lhx_nic's field and must be kept. */
    block_store(0, QUEUE_SELECT, 0xFFFFFF00 | 0x3C);
    generation[0] = 3;
    lhx_nic_update_stats(0);
    assert_int_equal(select_count[0], 2 * 129);
    for (uint32_t q = 0; q <= 128; q++) {
        assert_int_equal(selects[0][2 * q], 0xFFFFFF00 | q);
        assert_int_equal(selects[0][2 * q + 1],
                         0xFFFFFF00 | ((q + 0x80) % 256));
    }
    add_lhx_queues(expected, 3);
    assert_record(&lhx, 0, expected);
    assert_int_equal(present_entries(&lhx, 0), 129);
    /* Entry 128 holds queue 0's counters with the banks swapped. */
    assert_int_equal(lhx_nic_get_stats(0, record, STATS_BYTES), 0);
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
    uint8_t expected[STATS_BYTES] = { 0 };

    (void)state;
    start(&lh_desc_lhx);
    create(&lhx, 0, 0);
    for (uint32_t poll = 0; poll < 3; poll++) {
        load_globals(0, poll);
        generation[0] = poll + 1;
        lhx_nic_update_stats(0);
        add_globals(expected, poll);
        add_lhx_queues(expected, poll + 1);
        assert_record(&lhx, 0, expected);
    }
    /* The reads cleared the global counters: without traffic they add
     * nothing, while the queues add their latest values again. */
    lhx_nic_update_stats(0);
    add_lhx_queues(expected, 3);
    assert_record(&lhx, 0, expected);
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
        block_store(0, 0x50, 0xFFFFFFFF);
        block_store(0, 0x54, 0xFFFFFFFF);
        block_store(0, 0x88, 0xFFFFFFFF);
        nic_update_stats(0);
    }
    assert_int_equal(nic_get_stats(0, record, STATS_BYTES), 0);
    assert_int_equal(get_u64(record, 0), 0xFFFFFFFFFFFFFFFE);
    assert_int_equal(get_u64(record, 32), 0x1FFFFFFFE);
    expect_no_more_logs();
}

static void test_clear_stats_zeroes_without_touching_hardware(void **state)
{
    static const uint8_t zeros[STATS_BYTES];
    uint8_t expected[STATS_BYTES] = { 0 };
    unsigned long reads, writes;

    (void)state;
    start(&lh_desc_lhx);
    create(&lhx, 0, 0);
    load_globals(0, 0);
    generation[0] = 1;
    lhx_nic_update_stats(0);
    load_globals(0, 1);
    reads = model->reads;
    writes = model->writes;
    assert_int_equal(lhx_nic_clear_stats(0), 0);
    assert_int_equal(model->reads, reads);
    assert_int_equal(model->writes, writes);
    assert_int_equal(block_peek(0, 0x50), counter_value(0x50, 1));
    assert_record(&lhx, 0, zeros);
    generation[0] = 2;
    lhx_nic_update_stats(0);
    add_globals(expected, 1);
    add_lhx_queues(expected, 2);
    assert_record(&lhx, 0, expected);
    expect_no_more_logs();
}

static void test_get_stats_takes_exactly_8360_bytes(void **state)
{
    static const uint64_t sizes[] = { 8359, 8361, 0, 168 };
    uint8_t buffer[STATS_BYTES + 8];
    uint8_t untouched[STATS_BYTES + 8];
    uint8_t expected[STATS_BYTES] = { 0 };

    (void)state;
    start(&lh_desc_base_two_pipes);
    create(&nic, 0, 0);
    create(&lhx, 0, 1);
    load_globals(0, 0);
    nic_update_stats(0);
    memset(untouched, 0xEE, sizeof(untouched));
    for (size_t d = 0; d < 2; d++) {
        for (size_t i = 0; i < ARRAY_SIZE(sizes); i++) {
            memcpy(buffer, untouched, sizeof(buffer));
            assert_int_equal(drivers[d]->ops->get_stats(0, buffer, sizes[i]),
                             -1);
            expect_logf(LOG_ERR,
                        "Error - %s get stats failed, unexpected memory "
                        "size %lu",
                        drivers[d]->name, (unsigned long)sizes[i]);
            assert_memory_equal(buffer, untouched, sizeof(buffer));
        }
    }
    memcpy(buffer, untouched, sizeof(buffer));
    assert_int_equal(nic_get_stats(0, buffer, STATS_BYTES), 0);
    add_globals(expected, 0);
    add_nic_queues(expected, 255, 0);
    assert_memory_equal(buffer, expected, STATS_BYTES);
    assert_memory_equal(buffer + STATS_BYTES, untouched, 8);
    expect_no_more_logs();
}

static void test_pipes_keep_their_own_counters(void **state)
{
    uint8_t expected0[STATS_BYTES] = { 0 };
    uint8_t expected1[STATS_BYTES] = { 0 };

    (void)state;
    start(&lh_desc_base_two_pipes);
    create(&nic, 0, 0);
    create(&nic, 1, 1);
    load_globals(0, 0);
    load_globals(1, 2);
    generation[0] = 4;
    generation[1] = 6;
    nic_update_stats(0);
    nic_update_stats(1);
    add_globals(expected0, 0);
    add_globals(expected1, 2);
    add_nic_queues(expected0, 255, 4);
    add_nic_queues(expected1, 255, 6);
    assert_record(&nic, 0, expected0);
    assert_record(&nic, 1, expected1);
    assert_int_equal(select_count[0], 512);
    assert_int_equal(select_count[1], 512);
    expect_no_more_logs();
}

static void test_lhx_and_nic_keep_apart(void **state)
{
    static const uint8_t zeros[STATS_BYTES];
    uint8_t expected[STATS_BYTES] = { 0 };
    lh_fatal_error_t report = { 0, 0, NULL };

    (void)state;
    start(&lh_desc_base_two_pipes);
    lh_desc_base_two_pipes.max_queue_id = 128;
    create(&nic, 0, 0);
    create(&lhx, 0, 1);
    load_globals(0, 0);
    load_globals(1, 1);
    generation[1] = 7;
    nic_update_stats(0);
    lhx_nic_update_stats(0);
    assert_int_equal(nic_clear_stats(0), 0);
    add_globals(expected, 1);
    add_lhx_queues(expected, 7);
    assert_record(&nic, 0, zeros);
    assert_record(&lhx, 0, expected);

    block_store(1, STATUS2, 1u << 4);
    assert_int_equal(nic_fatal_error_detect(0, &report), 0);
    assert_int_equal(lhx_nic_fatal_error_detect(0, &report), 1);
    expect_log(LOG_CRIT, "FATAL - LHX NIC pipe 0: QDMA H2C Data Parity Error");
    expect_no_more_logs();
}

/* ---- Fatal error detection ---- */

/* Part 4.3's error table as lhx_nic tests it; nic differs at two rows. */
static const struct error_row {
    uint32_t reg;
    unsigned int bit;
    const char *text;
} error_rows[] = {
    { STATUS0, 19, "H2C Descriptor Memory Double bit ECC Error" },
    { STATUS0, 18, "C2H Descriptor Memory Double bit ECC Error" },
    { STATUS0, 17, "NIC Egr Path FIFO Double bit ECC Error" },
    { STATUS0, 16, "TM Out Packet Buffer Double bit ECC Error" },
    { STATUS0, 15, "NIC Ingr In-band Input Packet Buffer Double bit ECC "
                   "Error" },
    { STATUS0, 14, "NIC Ingr Normal Traffic Input Packet Buffer Double bit "
                   "ECC Error" },
    { STATUS0, 13, "TM Counters per Q Parity Error" },
    { STATUS0, 12, "TM Shared Memory (URAMs) Parity Error" },
    { STATUS0, 11, "NIC Egr Path FIFO Overflow" },
    { STATUS0, 10, "NIC Egr Path FIFO Underflow" },
    { STATUS0, 9, "TM Out Packet Buffer Overflow" },
    { STATUS0, 8, "TM Out Packet Buffer Underflow" },
    { STATUS0, 7, "NIC Ingr In-band Input FIFO Overflow" },
    { STATUS0, 6, "NIC Ingr In-band Input FIFO Underflow" },
    { STATUS0, 5, "NIC Ingr Normal Traffic Input Packet Buffer Overflow" },
    { STATUS0, 4, "NIC Ingr Normal Traffic Input Packet Buffer Underflow" },
    { STATUS0, 3, "NIC TOP TM TX Missing EOP Error" },
    { STATUS0, 2, "NIC TOP TM TX Missing SOP Error" },
    { STATUS0, 1, "NIC TOP TM RX Missing EOP Error" },
    { STATUS0, 0, "NIC TOP TM RX Missing SOP Error" },
    { STATUS1, 29, "BudM Linked List Parity Error" },
    { STATUS1, 28, "BudM Tail Bud Parity Error" },
    { STATUS1, 27, "BudM Memory Parity Error" },
    { STATUS1, 26, "BudM Tail Pointer Parity Error" },
    { STATUS1, 25, "BudM Head Pointer Parity Error" },
    { STATUS1, 24, "BudM Free List Parity Error" },
    { STATUS1, 23, "Credit FIFO Overflow" },
    { STATUS1, 22, "Credit FIFO Underflow" },
    { STATUS1, 21, "BudM Free List Overflow" },
    { STATUS1, 20, "BudM Free List Underflow" },
    { STATUS1, 19, "C2H Descriptor Memory Overflow" },
    { STATUS1, 18, "C2H Descriptor Memory Underflow" },
    { STATUS1, 17, "QM Guaranteed List Overflow" },
    { STATUS1, 16, "QM Queue Underflow" },
    { STATUS1, 15, "QM Linked List Parity Error" },
    { STATUS1, 14, "QM Tail Pointer Parity Error" },
    { STATUS1, 13, "QM Head Pointer Parity Error" },
    { STATUS1, 12, "QM Free List Parity Error" },
    { STATUS1, 11, "Data Rd Request FIFO Overflow" },
    { STATUS1, 10, "Data Rd Request FIFO Underflow" },
    { STATUS1, 9, "Data Wr Request FIFO Overflow" },
    { STATUS1, 8, "Data Wr Request FIFO Underflow" },
    { STATUS1, 7, "Dequeue Request FIFO Overflow" },
    { STATUS1, 6, "Dequeue Request FIFO Underflow" },
    { STATUS1, 5, "Enqueue Request FIFO Overflow" },
    { STATUS1, 4, "Enqueue Request FIFO Underflow" },
    { STATUS1, 3, "Free List Request FIFO Overflow" },
    { STATUS1, 2, "Free List Request FIFO Underflow" },
    { STATUS1, 1, "QM Free List Overflow" },
    { STATUS1, 0, "QM Free List Underflow" },
    { STATUS2, 19, "H2C Descriptor Out FIFO Overflow" },
    { STATUS2, 18, "H2C Descriptor Out FIFO Underflow" },
    { STATUS2, 17, "H2C Descriptor In FIFO Overflow" },
    { STATUS2, 16, "H2C Descriptor In FIFO Underflow" },
    { STATUS2, 15, "Credit Out FIFO Overflow" },
    { STATUS2, 14, "Credit Out FIFO Underflow" },
    { STATUS2, 13, "Credit In FIFO Overflow" },
    { STATUS2, 12, "Credit In FIFO Underflow" },
    { STATUS2, 11, "Credit Request FIFO Overflow" },
    { STATUS2, 10, "Credit Request FIFO Underflow" },
    { STATUS2, 9, "Descriptor Update FIFO Overflow" },
    { STATUS2, 8, "Descriptor Update FIFO Underflow" },
    { STATUS2, 7, "QDMA C2H Bypass Descriptor Size Error" },
    { STATUS2, 6, "QDMA C2H Bypass Descriptor Path Error" },
    { STATUS2, 5, "QDMA Credit Update Error" },
    { STATUS2, 4, "QDMA H2C Data Parity Error" },
    { STATUS2, 3, "QDMA H2C Path Error" },
    { STATUS2, 2, "QDMA H2C Empty Beat Error" },
    { STATUS2, 1, "QDMA H2C Bypass Descriptor Size Error" },
    { STATUS2, 0, "QDMA H2C Bypass Descriptor Path Error" },
};

/* The text `driver` gives the row, null for a row it does not test. */
static const char *row_text(const struct driver *driver,
                            const struct error_row *row)
{
    if (driver != &nic)
        return row->text;
    if (row->reg == STATUS0 && row->bit == 12)
        return "TM Shared Memory (URAMs) Double bit ECC Error";
    if (row->reg == STATUS2 && row->bit == 4)
        return NULL;
    return row->text;
}

static int site_of_driver(const struct driver *driver)
{
    return driver == &nic ? 0 : 1;
}

static void set_status(const struct driver *driver, uint32_t status0,
                       uint32_t status1, uint32_t status2)
{
    int site = site_of_driver(driver);

    block_store(site, STATUS0, status0);
    block_store(site, STATUS1, status1);
    block_store(site, STATUS2, status2);
}

static void expect_fatal(const struct driver *driver, const char *text)
{
    lh_fatal_error_t report = { 77, 88, NULL };

    assert_int_equal(driver->ops->fatal_error_detect(0, &report), 1);
    assert_string_equal(report.error_text, text);
    assert_int_equal(report.module_id, 77);
    assert_int_equal(report.pipe, 88);
    expect_logf(LOG_CRIT, "FATAL - %s pipe 0: %s", driver->name, text);
}

static void expect_no_fatal(const struct driver *driver)
{
    lh_fatal_error_t report = { 0, 0, "untouched" };

    assert_int_equal(driver->ops->fatal_error_detect(0, &report), 0);
    assert_string_equal(report.error_text, "untouched");
}

static void start_both_on_pipe_0(void)
{
    start(&lh_desc_base_two_pipes);
    create(&nic, 0, 0);
    create(&lhx, 0, 1);
}

static void test_each_error_bit_alone_reports_its_row(void **state)
{
    unsigned long writes;

    (void)state;
    start_both_on_pipe_0();
    writes = model->writes;
    for (size_t d = 0; d < 2; d++) {
        for (size_t i = 0; i < ARRAY_SIZE(error_rows); i++) {
            const struct error_row *row = &error_rows[i];
            const char *text = row_text(drivers[d], row);
            uint32_t bit = 1u << row->bit;

            set_status(drivers[d], row->reg == STATUS0 ? bit : 0,
                       row->reg == STATUS1 ? bit : 0,
                       row->reg == STATUS2 ? bit : 0);
            if (text != NULL)
                expect_fatal(drivers[d], text);
            else
                expect_no_fatal(drivers[d]);
        }
    }
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
    status_reads[0] = 0;
    expect_no_fatal(&nic);
    assert_int_equal(status_reads[0], 69);
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
    for (size_t d = 0; d < 2; d++) {
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
    for (size_t d = 0; d < 2; d++) {
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
    static const uint32_t other_regs[] = { 0x04, 0x10, 0x1C, 0x24,
                                           0x2C, 0x34, 0x40, 0x4C };
    unsigned long writes;

    (void)state;
    start_both_on_pipe_0();
    for (size_t d = 0; d < 2; d++) {
        int site = site_of_driver(drivers[d]);

        for (size_t i = 0; i < ARRAY_SIZE(other_regs); i++)
            block_store(site, other_regs[i], 0xFFFFFFFF);
        writes = model->writes;
        status_reads[site] = 0;
        set_status(drivers[d], 0, 0, 0);
        expect_no_fatal(drivers[d]);
        set_status(drivers[d], 0xFFF00000, 0xC0000000, 0xFFF00000);
        expect_no_fatal(drivers[d]);
        /* Every row reads its register anew: 70 rows, 69 on nic. */
        assert_int_equal(status_reads[site], d == 0 ? 2 * 69 : 2 * 70);
        assert_int_equal(stray_reads, 0);
        assert_int_equal(model->writes, writes);
    }
    set_status(&nic, 0xFFF00000, 0xC0000000, 0xFFF00000 | 1u << 4);
    expect_no_fatal(&nic);
    expect_no_more_logs();
}

static void run_script(uint32_t reg, const uint32_t *values, size_t length)
{
    script_reg = reg;
    memcpy(script, values, length * sizeof(*values));
    script_length = length;
    script_reads = 0;
}

static void test_status_register_read_again_for_every_row(void **state)
{
    /* Rows 19..1 of register 0x00 read 0; the twentieth read sees bit 0. */
    static const uint32_t late0[20] = { [19] = 1u << 0 };
    /* Register 0x20 shows bits 29 and 28 from its second read (row 28). */
    static const uint32_t late1[2] = { 0, 1u << 29 | 1u << 28 };

    (void)state;
    start_both_on_pipe_0();
    run_script(STATUS0, late0, ARRAY_SIZE(late0));
    expect_fatal(&nic, "NIC TOP TM RX Missing SOP Error");
    assert_int_equal(script_reads, 20);
    assert_int_equal(status_reads[0], 20);

    run_script(STATUS1, late1, ARRAY_SIZE(late1));
    expect_fatal(&nic, "BudM Tail Bud Parity Error");
    assert_int_equal(script_reads, 2);
    expect_no_more_logs();
}

/* ---- Refusals ---- */

static void test_null_pointers_come_first(void **state)
{
    (void)state;
    start(&lh_desc_base_two_pipes);
    for (size_t d = 0; d < 2; d++) {
        const struct driver *driver = drivers[d];

        assert_int_equal(driver->ops->get_stats(2, NULL, 1), -1);
        expect_logf(LOG_ERR, "Null pointer - %s get stats", driver->name);
        assert_int_equal(driver->ops->fatal_error_detect(2, NULL), 0);
        expect_logf(LOG_ERR, "Null pointer - %s module fatal error detection",
                    driver->name);
    }
    assert_int_equal(model->reads, 0);
    expect_no_more_logs();
}

static void test_invalid_pipe_refused_by_every_operation(void **state)
{
    (void)state;
    start_both_on_pipe_0();
    expect_refused_everywhere(&nic, 2, "pipe");
    expect_refused_everywhere(&lhx, 2, "pipe");
    expect_no_more_logs();
}

static void test_invalid_context_refused_by_every_operation(void **state)
{
    uint8_t record[STATS_BYTES];

    (void)state;
    start(&lh_desc_lhx);
    create(&lhx, 0, 0);
    expect_refused_everywhere(&lhx, 1, "context");
    /* The size is checked after the context. */
    assert_int_equal(lhx_nic_get_stats(1, record, 1), -1);
    expect_log(LOG_CRIT, "Error - LHX NIC get stats - invalid context 1");
    expect_no_more_logs();
}

int main(void)
{
#define T(name) cmocka_unit_test_teardown(name, teardown)
    /* Contexts are static and never cleared, so the cases that need a
     * context nobody has created run first, in this order. */
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
    int failed;

    saved_max_queue_id[0] = lh_desc_base_two_pipes.max_queue_id;
    saved_max_queue_id[1] = lh_desc_lhx.max_queue_id;
    if (enter_private_tmp() != 0)
        return 1;
    failed = cmocka_run_group_tests_name("never created contexts",
                                         never_created, NULL, NULL);
    failed += cmocka_run_group_tests_name("nic", tests, NULL, NULL);
    return failed;
}
