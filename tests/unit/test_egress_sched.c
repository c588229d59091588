/* Part 4.2: the egress scheduler drivers (egress_sched, lhx_egress_sched)
 * against a model of the block's hardware: clear-on-read counters, a
 * status register that can change between reads, and a count of the reads
 * of every register. */
#include <errno.h>
#include <pthread.h>
#include <stdarg.h>
#include <stdbool.h>
#include <stdio.h>
#include <string.h>

#include "cmocka_all.h"
#include "mutex_wrap.h"
#include "lh_drivers.h"
#include "egress_sched.h"
#include "fake_device.h"
#include "lh_log.h"
#include "log_expect.h"
#include "private_tmp.h"
#include "syslog_capture.h"

/* Block registers, offsets from the block base (Part 4.2). */
#define STATUS     0x00u
#define BLOCK_SPAN 0x100u

#define ARRAY_SIZE(a) (sizeof(a) / sizeof((a)[0]))

#define STATS_BYTES       144
#define COUNTERS          18
#define COUNTER_REGISTERS 24
#define ERROR_ROWS        14

/* The two egress scheduler blocks of the base window, pipe 0's and pipe
 * 1's (Part 2.4); the LHX window has only the first. A test may put either
 * driver's context on either site. */
#define SITES 2
static const uint32_t site_offsets[SITES] = { 0x19000, 0x29000 };

static struct reg_model *model;
static unsigned long reads_of[SITES][BLOCK_SPAN / 4];
/* Successive reads of a status register return these, then the last one;
 * with no script a read returns the stored word. */
static uint32_t status_script[32];
static size_t status_script_length;


struct driver {
    const char *name;
    const struct lh_block_ops *ops;
};

static const struct driver sched = { "Egress Scheduler", &egress_sched_ops };
static const struct driver lhx = { "LHX Egress Scheduler",
                                   &lhx_egress_sched_ops };
static const struct driver *const drivers[] = { &sched, &lhx };

/* Part 4.2's statistics table: the register of bits 63..32 (0: none) and
 * the register of bits 31..0. */
static const struct {
    uint32_t high, low;
} counter_sources[COUNTERS] = {
    { 0x30, 0x34 }, { 0x38, 0x3C }, { 0x40, 0x44 }, { 0, 0x50 },
    { 0, 0x54 },    { 0, 0x60 },    { 0, 0x64 },    { 0x70, 0x74 },
    { 0x78, 0x7C }, { 0x80, 0x84 }, { 0, 0x90 },    { 0, 0x94 },
    { 0, 0x98 },    { 0, 0x9C },    { 0, 0xA0 },    { 0, 0xA4 },
    { 0, 0xA8 },    { 0, 0xAC },
};

/* Part 4.2's fatal error table, in test order. */
static const struct {
    unsigned int bit;
    const char *text;
} error_rows[ERROR_ROWS] = {
    { 13, "SCHE Out FIFO Overflow" },
    { 12, "SCHE Out FIFO Underflow" },
    { 11, "Packet Buffer FIFO (x86 Path) Double bit ECC error" },
    { 10, "Packet Buffer (x86 Path) Overflow" },
    { 9, "Packet Buffer (x86 Path) Underflow" },
    { 8, "SCHE FIFO (x86 Path) Double bit ECC error" },
    { 7, "SCHE FIFO (x86 Path) Overflow" },
    { 6, "SCHE FIFO (x86 Path) Underflow" },
    { 5, "Packet Buffer FIFO (Ingress Path) Double bit ECC error" },
    { 4, "Packet Buffer (Ingress Path) Overflow" },
    { 3, "Packet Buffer (Ingress Path) Underflow" },
    { 2, "SCHE FIFO (Ingress Path) Double bit ECC error" },
    { 1, "SCHE FIFO (Ingress Path) Overflow" },
    { 0, "SCHE FIFO (Ingress Path) Underflow" },
};

static bool is_counter_register(uint32_t reg)
{
    for (size_t i = 0; i < COUNTERS; i++)
        if (reg == counter_sources[i].low ||
            (counter_sources[i].high != 0 && reg == counter_sources[i].high))
            return true;
    return false;
}

/* The site holding window offset `offset`, with the block register in
 * `reg`; -1 outside both blocks. */
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

static void block_store(int site, uint32_t reg, uint32_t value)
{
    reg_model_store(model, site_offsets[site] + reg, value);
}

static volatile void *site_base(int site)
{
    return (uint8_t *)model->words + site_offsets[site];
}

static uint32_t scripted_status(int site, uint32_t stored)
{
    size_t read = reads_of[site][STATUS / 4] - 1;

    if (status_script_length == 0)
        return stored;
    if (read >= status_script_length)
        read = status_script_length - 1;
    return status_script[read];
}

static uint32_t hardware_read(struct reg_model *window, uint32_t offset,
                              uint32_t stored)
{
    uint32_t reg;
    int site = site_of(offset, &reg);

    if (site < 0)
        return stored;
    reads_of[site][reg / 4]++;
    if (reg == STATUS)
        return scripted_status(site, stored);
    if (is_counter_register(reg))
        reg_model_store(window, offset, 0);
    return stored;
}

static void forget_reads(void)
{
    memset(reads_of, 0, sizeof(reads_of));
}

static void start(lh_device_desc *desc)
{
    model = fake_device_start(desc, 1);
    model->on_read = hardware_read;
    forget_reads();
    status_script_length = 0;
}

static int teardown(void **state)
{
    mutex_init_fails = false;
    return fake_device_teardown(state);
}

static void create(const struct driver *driver, uint32_t pipe, int site)
{
    assert_int_equal(driver->ops->context_create(pipe, site_base(site)), 0);
    expect_logf(LOG_INFO, "Informational - %s module %u context created",
                driver->name, pipe);
}

/* Every operation but context_create fails on `pipe` with "invalid <what>"
 * at severity 2, touching no register; clear stats words its refusal as
 * update stats (Part 4.2). */
static void expect_refused_everywhere(const struct driver *driver,
                                      uint32_t pipe, const char *what)
{
    const char *name = driver->name;
    uint64_t stats[COUNTERS];
    lh_fatal_error_t report = { 0, 0, NULL };
    unsigned long reads = model->reads;
    unsigned long writes = model->writes;

    memset(stats, 0xEE, sizeof(stats));
    driver->ops->update_stats(pipe);
    expect_logf(LOG_CRIT, "Error - %s update stats - invalid %s %u", name,
                what, pipe);
    assert_int_equal(driver->ops->get_stats(pipe, stats, STATS_BYTES), -1);
    expect_logf(LOG_CRIT, "Error - %s get stats - invalid %s %u", name, what,
                pipe);
    assert_int_equal(stats[0], 0xEEEEEEEEEEEEEEEE);
    assert_int_equal(driver->ops->clear_stats(pipe), -1);
    expect_logf(LOG_CRIT, "Error - %s update stats - invalid %s %u", name,
                what, pipe);
    assert_int_equal(driver->ops->fatal_error_detect(pipe, &report), 0);
    expect_logf(LOG_CRIT, "Error - %s fatal error detection - invalid %s %u",
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
        assert_int_equal(drivers[d]->ops->context_create(0, site_base(0)),
                         -1);
        expect_logf(LOG_CRIT, "Error - %s module context create - mutex init "
                              "failed", drivers[d]->name);
    }
    mutex_init_fails = false;
    assert_int_equal(model->reads, 0);
    assert_int_equal(model->writes, 0);
    expect_refused_everywhere(&sched, 0, "context");
    expect_refused_everywhere(&lhx, 0, "context");
    expect_no_more_logs();
}

static void test_pipe_1_refused_on_one_pipe_device(void **state)
{
    (void)state;
    start(&lh_desc_base_one_pipe);
    assert_int_equal(egress_sched_context_create(1, site_base(1)), -1);
    expect_log(LOG_CRIT,
               "Error - Egress Scheduler module context create - "
               "invalid pipe 1");
    assert_int_equal(model->writes, 0);
    expect_refused_everywhere(&sched, 1, "context");
    expect_no_more_logs();
}

static void test_lhx_context_is_not_the_base_context(void **state)
{
    uint64_t stats[COUNTERS];

    (void)state;
    start(&lh_desc_lhx);
    create(&lhx, 0, 0);
    assert_int_equal(lhx_egress_sched_get_stats(0, stats, STATS_BYTES), 0);
    assert_int_equal(egress_sched_get_stats(0, stats, STATS_BYTES), -1);
    expect_log(LOG_CRIT,
               "Error - Egress Scheduler get stats - invalid context 0");
    expect_no_more_logs();
}

/* ---- Context creation. lhx_egress_sched pipe 1 is never created. ---- */

static void test_ops_tables_wire_the_operations(void **state)
{
    (void)state;
    assert_true(egress_sched_ops.context_create == egress_sched_context_create);
    assert_true(egress_sched_ops.update_stats == egress_sched_update_stats);
    assert_true(egress_sched_ops.get_stats == egress_sched_get_stats);
    assert_true(egress_sched_ops.clear_stats == egress_sched_clear_stats);
    assert_true(egress_sched_ops.fatal_error_detect ==
                egress_sched_fatal_error_detect);
    assert_true(lhx_egress_sched_ops.context_create ==
                lhx_egress_sched_context_create);
    assert_true(lhx_egress_sched_ops.update_stats ==
                lhx_egress_sched_update_stats);
    assert_true(lhx_egress_sched_ops.get_stats == lhx_egress_sched_get_stats);
    assert_true(lhx_egress_sched_ops.clear_stats ==
                lhx_egress_sched_clear_stats);
    assert_true(lhx_egress_sched_ops.fatal_error_detect ==
                lhx_egress_sched_fatal_error_detect);
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
    assert_int_equal(egress_sched_context_create(0, site_base(0)), 0);
    expect_log(LOG_INFO,
               "Informational - Egress Scheduler module 0 context created");
    assert_int_equal(egress_sched_context_create(1, site_base(1)), 0);
    expect_log(LOG_INFO,
               "Informational - Egress Scheduler module 1 context created");
    assert_int_equal(lhx_egress_sched_context_create(0, site_base(1)), 0);
    expect_log(LOG_INFO, "Informational - LHX Egress Scheduler module 0 "
                         "context created");
    assert_int_equal(model->reads, 0);
    assert_int_equal(model->writes, 0);
    expect_no_more_logs();
}

static void load_counters(int site, uint32_t poll);

static void test_create_zeroes_the_counters(void **state)
{
    uint64_t stats[COUNTERS];
    static const uint64_t zeros[COUNTERS];

    (void)state;
    start(&lh_desc_base_two_pipes);
    for (size_t d = 0; d < 2; d++) {
        create(drivers[d], 0, 0);
        load_counters(0, 0);
        drivers[d]->ops->update_stats(0);
        create(drivers[d], 0, 0);
        assert_int_equal(drivers[d]->ops->get_stats(0, stats, STATS_BYTES), 0);
        assert_memory_equal(stats, zeros, sizeof(zeros));
    }
    expect_no_more_logs();
}

static void test_create_refusals(void **state)
{
    (void)state;
    start(&lh_desc_base_two_pipes);
    for (size_t d = 0; d < 2; d++) {
        const struct driver *driver = drivers[d];

        assert_int_equal(driver->ops->context_create(2, NULL), -1);
        expect_logf(LOG_ERR, "Null pointer - %s module context create",
                    driver->name);
        assert_int_equal(driver->ops->context_create(0, NULL), -1);
        expect_logf(LOG_ERR, "Null pointer - %s module context create",
                    driver->name);
        assert_int_equal(driver->ops->context_create(2, site_base(0)), -1);
        expect_logf(LOG_CRIT, "Error - %s module context create - "
                              "invalid pipe 2", driver->name);
    }
    assert_int_equal(model->writes, 0);
    expect_no_more_logs();
}

static void test_create_before_initialisation(void **state)
{
    (void)state;
    model = fake_device_start(&lh_desc_base_two_pipes, 0);
    assert_int_equal(egress_sched_context_create(0, site_base(0)), -1);
    expect_log(LOG_ERR, "Error - get traffic pipe count failed, - system not "
                        "initialized");
    expect_log(LOG_CRIT, "Error - Egress Scheduler module context create - "
                         "invalid pipe 0");
    assert_int_equal(model->writes, 0);
    expect_no_more_logs();
}

/* ---- Statistics ---- */

/* Distinct in every register, site and poll, so a wrong source, a swapped
 * high and low word, another pipe's block or a second read shows. */
static uint32_t counter_value(int site, uint32_t reg, uint32_t poll)
{
    return (poll + 1) << 28 | (uint32_t)site << 24 | reg << 8 |
           ((reg & 0xFF) ^ 0xA5);
}

static void load_counters(int site, uint32_t poll)
{
    for (size_t i = 0; i < COUNTERS; i++) {
        if (counter_sources[i].high != 0)
            block_store(site, counter_sources[i].high,
                        counter_value(site, counter_sources[i].high, poll));
        block_store(site, counter_sources[i].low,
                    counter_value(site, counter_sources[i].low, poll));
    }
}

static void add_expected(uint64_t *expected, int site, uint32_t poll)
{
    for (size_t i = 0; i < COUNTERS; i++) {
        uint64_t high =
            counter_sources[i].high == 0
                ? 0
                : counter_value(site, counter_sources[i].high, poll);

        expected[i] +=
            high << 32 | counter_value(site, counter_sources[i].low, poll);
    }
}

static void assert_stats(const struct driver *driver, uint32_t pipe,
                         const uint64_t *expected)
{
    uint64_t stats[COUNTERS];

    assert_int_equal(driver->ops->get_stats(pipe, stats, STATS_BYTES), 0);
    for (size_t i = 0; i < COUNTERS; i++)
        assert_int_equal(stats[i], expected[i]);
}

/* Each counter register of `site` was read `times`, no other register. */
static void assert_counter_reads(int site, unsigned long times)
{
    unsigned long total = 0;

    for (uint32_t reg = 0; reg < BLOCK_SPAN; reg += 4) {
        unsigned long expected = is_counter_register(reg) ? times : 0;

        assert_int_equal(reads_of[site][reg / 4], expected);
        total += reads_of[site][reg / 4];
    }
    assert_int_equal(total, COUNTER_REGISTERS * times);
}

static void test_every_counter_composed_from_its_registers(void **state)
{
    static const uint64_t expected[COUNTERS] = {
        0x1000309510003491, 0x1000389D10003C99, 0x100040E5100044E1,
        0x00000000100050F5, 0x00000000100054F1, 0x00000000100060C5,
        0x00000000100064C1, 0x100070D5100074D1, 0x100078DD10007CD9,
        0x1000802510008421, 0x0000000010009035, 0x0000000010009431,
        0x000000001000983D, 0x0000000010009C39, 0x000000001000A005,
        0x000000001000A401, 0x000000001000A80D, 0x000000001000AC09,
    };

    (void)state;
    start(&lh_desc_base_two_pipes);
    for (size_t d = 0; d < 2; d++) {
        create(drivers[d], 0, 0);
        load_counters(0, 0);
        forget_reads();
        drivers[d]->ops->update_stats(0);
        assert_counter_reads(0, 1);
        assert_stats(drivers[d], 0, expected);
    }
    expect_no_more_logs();
}

static void test_counters_accumulate_over_polls(void **state)
{
    (void)state;
    start(&lh_desc_base_two_pipes);
    create(&sched, 0, 0);
    create(&lhx, 0, 1);
    for (size_t d = 0; d < 2; d++) {
        uint64_t expected[COUNTERS] = { 0 };
        int site = (int)d;

        forget_reads();
        for (uint32_t poll = 0; poll < 3; poll++) {
            load_counters(site, poll);
            drivers[d]->ops->update_stats(0);
            add_expected(expected, site, poll);
            assert_stats(drivers[d], 0, expected);
        }
        /* The reads cleared the counters: a poll without traffic adds
         * nothing. */
        drivers[d]->ops->update_stats(0);
        assert_counter_reads(site, 4);
        assert_stats(drivers[d], 0, expected);
    }
    expect_no_more_logs();
}

static void test_counter_totals_wrap(void **state)
{
    uint64_t expected[COUNTERS] = { 0 };

    (void)state;
    start(&lh_desc_base_two_pipes);
    create(&sched, 0, 0);
    expected[0] = 0xFFFFFFFFFFFFFFFE;
    expected[3] = 0x1FFFFFFFE;
    for (int poll = 0; poll < 2; poll++) {
        block_store(0, 0x30, 0xFFFFFFFF);
        block_store(0, 0x34, 0xFFFFFFFF);
        block_store(0, 0x50, 0xFFFFFFFF);
        egress_sched_update_stats(0);
    }
    assert_stats(&sched, 0, expected);
    expect_no_more_logs();
}

static void test_clear_then_get_yields_zeros(void **state)
{
    static const uint64_t zeros[COUNTERS];

    (void)state;
    start(&lh_desc_base_two_pipes);
    create(&sched, 0, 0);
    create(&lhx, 0, 1);
    for (size_t d = 0; d < 2; d++) {
        uint64_t expected[COUNTERS] = { 0 };
        int site = (int)d;
        unsigned long reads, writes;

        load_counters(site, 0);
        drivers[d]->ops->update_stats(0);
        load_counters(site, 1);
        reads = model->reads;
        writes = model->writes;
        assert_int_equal(drivers[d]->ops->clear_stats(0), 0);
        assert_int_equal(model->reads, reads);
        assert_int_equal(model->writes, writes);
        assert_stats(drivers[d], 0, zeros);
        /* The counts still in the hardware are not lost. */
        drivers[d]->ops->update_stats(0);
        add_expected(expected, site, 1);
        assert_stats(drivers[d], 0, expected);
    }
    expect_no_more_logs();
}

static void test_get_stats_wants_exactly_144_bytes(void **state)
{
    static const uint64_t sizes[] = { 120, 143, 145, 0, 152 };
    uint8_t buffer[160];
    uint8_t untouched[160];

    (void)state;
    start(&lh_desc_base_two_pipes);
    create(&sched, 0, 0);
    create(&lhx, 0, 1);
    load_counters(0, 0);
    load_counters(1, 0);
    egress_sched_update_stats(0);
    lhx_egress_sched_update_stats(0);
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
        memcpy(buffer, untouched, sizeof(buffer));
        assert_int_equal(drivers[d]->ops->get_stats(0, buffer, STATS_BYTES),
                         0);
        assert_memory_not_equal(buffer, untouched, STATS_BYTES);
        assert_memory_equal(buffer + STATS_BYTES, untouched + STATS_BYTES,
                            sizeof(buffer) - STATS_BYTES);
    }
    expect_no_more_logs();
}

static void test_pipes_keep_their_own_counters(void **state)
{
    uint64_t expected0[COUNTERS] = { 0 };
    uint64_t expected1[COUNTERS] = { 0 };

    (void)state;
    start(&lh_desc_base_two_pipes);
    create(&sched, 0, 0);
    create(&sched, 1, 1);
    load_counters(0, 0);
    load_counters(1, 2);
    egress_sched_update_stats(0);
    egress_sched_update_stats(1);
    add_expected(expected0, 0, 0);
    add_expected(expected1, 1, 2);
    assert_stats(&sched, 0, expected0);
    assert_stats(&sched, 1, expected1);
    assert_int_equal(egress_sched_clear_stats(1), 0);
    memset(expected1, 0, sizeof(expected1));
    assert_stats(&sched, 0, expected0);
    assert_stats(&sched, 1, expected1);
    expect_no_more_logs();
}

static void test_lhx_and_base_keep_apart(void **state)
{
    static const uint64_t zeros[COUNTERS];
    uint64_t expected_lhx[COUNTERS] = { 0 };
    lh_fatal_error_t report = { 0, 0, NULL };

    (void)state;
    start(&lh_desc_base_two_pipes);
    create(&sched, 0, 0);
    create(&lhx, 0, 1);
    load_counters(0, 0);
    load_counters(1, 1);
    egress_sched_update_stats(0);
    lhx_egress_sched_update_stats(0);
    assert_int_equal(egress_sched_clear_stats(0), 0);
    add_expected(expected_lhx, 1, 1);
    assert_stats(&sched, 0, zeros);
    assert_stats(&lhx, 0, expected_lhx);

    block_store(1, STATUS, 1u << 13);
    assert_int_equal(egress_sched_fatal_error_detect(0, &report), 0);
    assert_null(report.error_text);
    assert_int_equal(lhx_egress_sched_fatal_error_detect(0, &report), 1);
    expect_log(LOG_CRIT,
               "FATAL - LHX Egress Scheduler pipe 0: SCHE Out FIFO Overflow");
    expect_no_more_logs();
}

/* ---- Fatal error detection ---- */

static void expect_fatal_on(const struct driver *driver, uint32_t pipe,
                            int site, uint32_t status, const char *text)
{
    lh_fatal_error_t report = { 77, 88, NULL };

    block_store(site, STATUS, status);
    assert_int_equal(driver->ops->fatal_error_detect(pipe, &report), 1);
    assert_string_equal(report.error_text, text);
    assert_int_equal(report.module_id, 77);
    assert_int_equal(report.pipe, 88);
    expect_logf(LOG_CRIT, "FATAL - %s pipe %u: %s", driver->name, pipe, text);
}

static void start_both_on_pipe_0(void)
{
    start(&lh_desc_base_two_pipes);
    create(&sched, 0, 0);
    create(&lhx, 0, 1);
}

static void test_each_error_bit_alone_reports_its_text(void **state)
{
    unsigned long writes;

    (void)state;
    start_both_on_pipe_0();
    create(&sched, 1, 1);
    writes = model->writes;
    for (size_t i = 0; i < ERROR_ROWS; i++) {
        uint32_t status = 1u << error_rows[i].bit;

        expect_fatal_on(&sched, 0, 0, status, error_rows[i].text);
        expect_fatal_on(&sched, 1, 1, status, error_rows[i].text);
        expect_fatal_on(&lhx, 0, 1, status, error_rows[i].text);
    }
    /* The status register is only ever read. */
    assert_int_equal(model->writes, writes);
    expect_no_more_logs();
}

static void test_first_set_bit_wins(void **state)
{
    (void)state;
    start_both_on_pipe_0();
    expect_fatal_on(&sched, 0, 0, 1u << 13 | 1u << 0, "SCHE Out FIFO Overflow");
    expect_fatal_on(&lhx, 0, 1, 1u << 13 | 1u << 0, "SCHE Out FIFO Overflow");
    expect_fatal_on(&sched, 0, 0, 0xFFFFFFFF, "SCHE Out FIFO Overflow");
    expect_fatal_on(&sched, 0, 0, 1u << 4 | 1u << 5,
                    "Packet Buffer FIFO (Ingress Path) Double bit ECC error");
    expect_fatal_on(&sched, 0, 0, 1u << 0 | 1u << 1,
                    "SCHE FIFO (Ingress Path) Overflow");
    expect_fatal_on(&sched, 0, 0, 0xFFFFC000 | 1u << 0,
                    "SCHE FIFO (Ingress Path) Underflow");
    expect_no_more_logs();
}

static void expect_no_fatal(uint32_t status)
{
    lh_fatal_error_t report = { 0, 0, "untouched" };
    unsigned long writes = model->writes;

    block_store(0, STATUS, status);
    forget_reads();
    assert_int_equal(egress_sched_fatal_error_detect(0, &report), 0);
    assert_string_equal(report.error_text, "untouched");
    assert_int_equal(reads_of[0][STATUS / 4], ERROR_ROWS);
    assert_int_equal(model->writes, writes);
}

static void test_bits_31_to_14_report_nothing(void **state)
{
    (void)state;
    start_both_on_pipe_0();
    expect_no_fatal(0);
    for (unsigned int bit = 14; bit < 32; bit++)
        expect_no_fatal(1u << bit);
    expect_no_fatal(0xFFFFC000);
    expect_no_more_logs();
}

static void run_status_script(const uint32_t *script, size_t length)
{
    memcpy(status_script, script, length * sizeof(*script));
    status_script_length = length;
    forget_reads();
}

static void test_status_is_read_again_for_every_row(void **state)
{
    /* Bit 0 only at the fourteenth read, the row of bit 0. */
    static const uint32_t late[] = { 0, 0, 0, 0, 0, 0, 0,
                                     0, 0, 0, 0, 0, 0, 1u << 0 };
    /* Bit 0 at the first read only: gone when its row reads again. */
    static const uint32_t gone[] = { 1u << 0, 0 };
    /* Bit 12 from the second read on: found by its own row's read. */
    static const uint32_t second[] = { 0, 1u << 12 | 1u << 13 };
    lh_fatal_error_t report = { 0, 0, NULL };

    (void)state;
    start_both_on_pipe_0();
    run_status_script(late, ARRAY_SIZE(late));
    assert_int_equal(egress_sched_fatal_error_detect(0, &report), 1);
    assert_string_equal(report.error_text,
                        "SCHE FIFO (Ingress Path) Underflow");
    assert_int_equal(reads_of[0][STATUS / 4], 14);
    expect_log(LOG_CRIT, "FATAL - Egress Scheduler pipe 0: SCHE FIFO "
                         "(Ingress Path) Underflow");

    report.error_text = NULL;
    run_status_script(gone, ARRAY_SIZE(gone));
    assert_int_equal(egress_sched_fatal_error_detect(0, &report), 0);
    assert_null(report.error_text);
    assert_int_equal(reads_of[0][STATUS / 4], 14);

    run_status_script(second, ARRAY_SIZE(second));
    assert_int_equal(egress_sched_fatal_error_detect(0, &report), 1);
    assert_string_equal(report.error_text, "SCHE Out FIFO Underflow");
    assert_int_equal(reads_of[0][STATUS / 4], 2);
    expect_log(LOG_CRIT,
               "FATAL - Egress Scheduler pipe 0: SCHE Out FIFO Underflow");
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
        expect_logf(LOG_ERR, "Null pointer - %s fatal error detection",
                    driver->name);
    }
    expect_no_more_logs();
}

static void test_invalid_pipe_refused_by_every_operation(void **state)
{
    (void)state;
    start_both_on_pipe_0();
    expect_refused_everywhere(&sched, 2, "pipe");
    expect_refused_everywhere(&lhx, 2, "pipe");
    expect_no_more_logs();
}

static void test_invalid_context_refused_by_every_operation(void **state)
{
    (void)state;
    start(&lh_desc_lhx);
    assert_int_equal(lhx_egress_sched_context_create(1, site_base(0)), -1);
    expect_log(LOG_CRIT, "Error - LHX Egress Scheduler module context "
                         "create - invalid pipe 1");
    expect_refused_everywhere(&lhx, 1, "context");
    expect_no_more_logs();
}

static void test_clear_stats_refuses_with_update_words(void **state)
{
    uint64_t expected[COUNTERS] = { 0 };

    (void)state;
    start_both_on_pipe_0();
    load_counters(0, 0);
    egress_sched_update_stats(0);
    assert_int_equal(egress_sched_clear_stats(2), -1);
    expect_log(LOG_CRIT, "Error - Egress Scheduler update stats - invalid "
                         "pipe 2");
    assert_int_equal(lhx_egress_sched_clear_stats(1), -1);
    expect_log(LOG_CRIT, "Error - LHX Egress Scheduler update stats - "
                         "invalid context 1");
    add_expected(expected, 0, 0);
    assert_stats(&sched, 0, expected);
    expect_no_more_logs();
}

static void test_exact_invalid_lines(void **state)
{
    uint64_t stats[COUNTERS];
    lh_fatal_error_t report;

    (void)state;
    start(&lh_desc_base_two_pipes);
    egress_sched_update_stats(2);
    expect_log(LOG_CRIT, "Error - Egress Scheduler update stats - "
                         "invalid pipe 2");
    assert_int_equal(egress_sched_get_stats(3, stats, STATS_BYTES), -1);
    expect_log(LOG_CRIT, "Error - Egress Scheduler get stats - "
                         "invalid pipe 3");
    assert_int_equal(egress_sched_fatal_error_detect(2, &report), 0);
    expect_log(LOG_CRIT, "Error - Egress Scheduler fatal error detection "
                         "- invalid pipe 2");
    lhx_egress_sched_update_stats(1);
    expect_log(LOG_CRIT, "Error - LHX Egress Scheduler update stats - "
                         "invalid context 1");
    assert_int_equal(lhx_egress_sched_get_stats(1, stats, STATS_BYTES), -1);
    expect_log(LOG_CRIT, "Error - LHX Egress Scheduler get stats - "
                         "invalid context 1");
    assert_int_equal(lhx_egress_sched_fatal_error_detect(1, &report), 0);
    expect_log(LOG_CRIT, "Error - LHX Egress Scheduler fatal error detection "
                         "- invalid context 1");
    expect_no_more_logs();
}

int main(void)
{
#define T(name) cmocka_unit_test_teardown(name, teardown)
    /* Contexts are static and never cleared, so the cases that need a
     * context nobody has created run first, in this order. */
    const struct CMUnitTest never_created[] = {
        T(test_mutex_failure_leaves_context_invalid),
        T(test_pipe_1_refused_on_one_pipe_device),
        T(test_lhx_context_is_not_the_base_context),
    };
    const struct CMUnitTest tests[] = {
        T(test_ops_tables_wire_the_operations),
        T(test_create_logs_the_created_line),
        T(test_create_zeroes_the_counters),
        T(test_create_refusals),
        T(test_create_before_initialisation),
        T(test_every_counter_composed_from_its_registers),
        T(test_counters_accumulate_over_polls),
        T(test_counter_totals_wrap),
        T(test_clear_then_get_yields_zeros),
        T(test_get_stats_wants_exactly_144_bytes),
        T(test_pipes_keep_their_own_counters),
        T(test_lhx_and_base_keep_apart),
        T(test_each_error_bit_alone_reports_its_text),
        T(test_first_set_bit_wins),
        T(test_bits_31_to_14_report_nothing),
        T(test_status_is_read_again_for_every_row),
        T(test_null_pointers_come_first),
        T(test_invalid_pipe_refused_by_every_operation),
        T(test_invalid_context_refused_by_every_operation),
        T(test_clear_stats_refuses_with_update_words),
        T(test_exact_invalid_lines),
    };
    int failed;

    if (enter_private_tmp() != 0)
        return 1;
    failed = cmocka_run_group_tests_name("never created contexts",
                                         never_created, NULL, NULL);
    failed += cmocka_run_group_tests_name("egress scheduler", tests, NULL,
                                          NULL);
    return failed;
}
