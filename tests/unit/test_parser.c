/* Part 4.1: the ingress packet parser drivers (parser, lhx_parser) against a
 * model of the block's hardware: a QoS table behind the index and priority
 * registers, clear-on-read counters and a status register that can change
 * between reads. */
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
#include "parser.h"
#include "private_tmp.h"
#include "syslog_capture.h"

/* Block registers, offsets from the block base (Part 4.1). */
#define STATUS        0x00u
#define COUNTER_FIRST 0x50u
#define COUNTER_LAST  0x94u
#define QOS_INDEX     0xE0u
#define QOS_PRIO      0xE4u
#define BLOCK_SPAN    0x100u

#define ARRAY_SIZE(a) (sizeof(a) / sizeof((a)[0]))

#define QOS_ROWS    128
#define STATS_BYTES 120
#define COUNTERS    15

/* Two parser blocks of the window: pipe 0's and pipe 1's on the base
 * image. A test may put either driver's context on either site. */
#define SITES 2
static const uint32_t site_offsets[SITES] = { 0x16000, 0x26000 };

static struct reg_model *model;
static uint8_t qos_rows[SITES][QOS_ROWS];
/* Successive reads of a status register return these, then the last one;
 * with no script a read returns the stored word. */
static uint32_t status_script[32];
static size_t status_script_length;
static size_t status_reads;


struct driver {
    const char *name;
    const struct lh_block_ops *ops;
};

static const struct driver parser = { "Ingress Pkt Parser", &parser_ops };
static const struct driver lhx = { "LHX Ingress Pkt Parser",
                                   &lhx_parser_ops };
static const struct driver *const drivers[] = { &parser, &lhx };

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

static uint32_t selected_row(int site)
{
    return block_peek(site, QOS_INDEX) & 0x7Fu;
}

static uint32_t scripted_status(uint32_t stored)
{
    size_t read = status_reads++;

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
    if (reg == STATUS)
        return scripted_status(stored);
    if (reg == QOS_PRIO)
        return (stored & ~3u) | qos_rows[site][selected_row(site)];
    if (reg >= COUNTER_FIRST && reg <= COUNTER_LAST)
        reg_model_store(window, offset, 0);
    return stored;
}

static void hardware_write(struct reg_model *window, uint32_t offset,
                           uint32_t value)
{
    uint32_t reg;
    int site = site_of(offset, &reg);

    if (site >= 0 && reg == QOS_PRIO)
        qos_rows[site][selected_row(site)] = value & 3u;
    reg_model_store(window, offset, value);
}

static void start(lh_device_desc *desc)
{
    model = fake_device_start(desc, 1);
    model->on_read = hardware_read;
    model->on_write = hardware_write;
    memset(qos_rows, 0, sizeof(qos_rows));
    status_script_length = 0;
    status_reads = 0;
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

static void fill_qos_rows(int site, uint8_t priority)
{
    memset(qos_rows[site], priority, QOS_ROWS);
}

static void assert_qos_rows(int site, uint8_t priority)
{
    for (int id = 0; id < QOS_ROWS; id++)
        assert_int_equal(qos_rows[site][id], priority);
}

/* Every operation but context_create fails on `pipe` with "invalid <what>",
 * at 2 for statistics and fatal detection, at 3 for QoS. */
static void expect_refused_everywhere(const struct driver *driver,
                                      uint32_t pipe, const char *what)
{
    const char *name = driver->name;
    uint64_t stats[COUNTERS];
    lh_fatal_error_t report = { 0, 0, NULL };
    lh_qos_profile_t qos = { 1, LH_QOS_PRIO_HIGH };

    driver->ops->update_stats(pipe);
    expect_logf(LOG_CRIT, "Error - %s update stats - invalid %s %u", name,
                what, pipe);
    assert_int_equal(driver->ops->get_stats(pipe, stats, STATS_BYTES), -1);
    expect_logf(LOG_CRIT, "Error - %s get stats - invalid %s %u", name, what,
                pipe);
    assert_int_equal(driver->ops->clear_stats(pipe), -1);
    expect_logf(LOG_CRIT, "Error - %s clear stats - invalid %s %u", name,
                what, pipe);
    assert_int_equal(driver->ops->fatal_error_detect(pipe, &report), 0);
    expect_logf(LOG_CRIT, "Error - %s fatal error detection - invalid %s %u",
                name, what, pipe);
    assert_null(report.error_text);
    assert_int_equal(driver->ops->qos_set_profile(pipe, qos), -1);
    expect_logf(LOG_ERR, "Error - %s QoS set profile - invalid %s %u", name,
                what, pipe);
    assert_int_equal(driver->ops->qos_get_profile(pipe, &qos), -1);
    expect_logf(LOG_ERR, "Error - %s QoS get profile - invalid %s %u", name,
                what, pipe);
    assert_int_equal(qos.priority, LH_QOS_PRIO_HIGH);
}

/* ---- Contexts never created before: these run first, in this order. ---- */

static void test_mutex_failure_leaves_context_invalid(void **state)
{
    (void)state;
    start(&lh_desc_base_two_pipes);
    fill_qos_rows(0, LH_QOS_PRIO_HIGH);
    mutex_init_fails = true;
    assert_int_equal(parser_context_create(0, site_base(0)), -1);
    mutex_init_fails = false;
    expect_log(LOG_CRIT, "Error - Ingress Pkt Parser module context create - "
                         "mutex init failed");
    assert_qos_rows(0, LH_QOS_PRIO_LOW);
    expect_refused_everywhere(&parser, 0, "context");
    expect_no_more_logs();
}

static void test_pipe_1_refused_on_one_pipe_device(void **state)
{
    (void)state;
    start(&lh_desc_base_one_pipe);
    fill_qos_rows(1, LH_QOS_PRIO_HIGH);
    assert_int_equal(parser_context_create(1, site_base(1)), -1);
    expect_log(LOG_CRIT,
               "Error - Ingress Pkt Parser module context create - "
               "invalid pipe 1");
    assert_int_equal(model->writes, 0);
    assert_qos_rows(1, LH_QOS_PRIO_HIGH);
    expect_refused_everywhere(&parser, 1, "context");
    expect_no_more_logs();
}

static void test_lhx_context_is_not_the_parser_context(void **state)
{
    uint64_t stats[COUNTERS];

    (void)state;
    start(&lh_desc_lhx);
    create(&lhx, 0, 0);
    assert_int_equal(lhx_parser_get_stats(0, stats, STATS_BYTES), 0);
    assert_int_equal(parser_get_stats(0, stats, STATS_BYTES), -1);
    expect_log(LOG_CRIT,
               "Error - Ingress Pkt Parser get stats - invalid context 0");
    expect_no_more_logs();
}

/* ---- Context creation. lhx_parser pipe 1 is never created anywhere. ---- */

static void test_ops_tables_wire_the_operations(void **state)
{
    (void)state;
    assert_true(parser_ops.context_create == parser_context_create);
    assert_true(parser_ops.update_stats == parser_update_stats);
    assert_true(parser_ops.get_stats == parser_get_stats);
    assert_true(parser_ops.clear_stats == parser_clear_stats);
    assert_true(parser_ops.fatal_error_detect == parser_fatal_error_detect);
    assert_true(parser_ops.qos_set_profile == parser_qos_set_profile);
    assert_true(parser_ops.qos_get_profile == parser_qos_get_profile);
    assert_true(lhx_parser_ops.context_create == lhx_parser_context_create);
    assert_true(lhx_parser_ops.update_stats == lhx_parser_update_stats);
    assert_true(lhx_parser_ops.get_stats == lhx_parser_get_stats);
    assert_true(lhx_parser_ops.clear_stats == lhx_parser_clear_stats);
    assert_true(lhx_parser_ops.fatal_error_detect ==
                lhx_parser_fatal_error_detect);
    assert_true(lhx_parser_ops.qos_set_profile == lhx_parser_qos_set_profile);
    assert_true(lhx_parser_ops.qos_get_profile == lhx_parser_qos_get_profile);
    for (size_t i = 0; i < 2; i++) {
        const struct lh_block_ops *ops = drivers[i]->ops;

        assert_null(ops->set_interface_state);
        assert_null(ops->get_interface_state);
        assert_null(ops->set_loopback);
        assert_null(ops->get_loopback);
        assert_null(ops->rx_align_monitor);
    }
}

static void test_create_logs_the_created_line(void **state)
{
    (void)state;
    start(&lh_desc_base_two_pipes);
    assert_int_equal(parser_context_create(0, site_base(0)), 0);
    expect_log(LOG_INFO,
               "Informational - Ingress Pkt Parser module 0 context created");
    assert_int_equal(parser_context_create(1, site_base(1)), 0);
    expect_log(LOG_INFO,
               "Informational - Ingress Pkt Parser module 1 context created");
    assert_int_equal(lhx_parser_context_create(0, site_base(1)), 0);
    expect_log(LOG_INFO, "Informational - LHX Ingress Pkt Parser module 0 "
                         "context created");
    expect_no_more_logs();
}

static void test_create_resets_every_qos_row_to_low(void **state)
{
    (void)state;
    start(&lh_desc_base_two_pipes);
    for (int site = 0; site < SITES; site++) {
        fill_qos_rows(site, LH_QOS_PRIO_HIGH);
        block_store(site, QOS_INDEX, 0xA5A5A533);
        block_store(site, QOS_PRIO, 0x5A5A5A58);
    }
    create(&parser, 0, 0);
    create(&lhx, 0, 1);
    for (int site = 0; site < SITES; site++) {
        assert_qos_rows(site, LH_QOS_PRIO_LOW);
        assert_int_equal(block_peek(site, QOS_INDEX), 0xA5A5A500 | 0x7F);
        assert_int_equal(block_peek(site, QOS_PRIO) & ~3u, 0x5A5A5A58);
    }
    expect_no_more_logs();
}

static void load_counters(int site, uint32_t poll);

static void test_create_zeroes_the_counters(void **state)
{
    uint64_t stats[COUNTERS];
    static const uint64_t zeros[COUNTERS];

    (void)state;
    start(&lh_desc_base_two_pipes);
    create(&parser, 0, 0);
    load_counters(0, 0);
    parser_update_stats(0);
    create(&parser, 0, 0);
    assert_int_equal(parser_get_stats(0, stats, STATS_BYTES), 0);
    assert_memory_equal(stats, zeros, sizeof(zeros));
    expect_no_more_logs();
}

static void test_create_refusals(void **state)
{
    (void)state;
    start(&lh_desc_base_two_pipes);
    for (size_t i = 0; i < 2; i++) {
        const struct driver *driver = drivers[i];

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
    assert_int_equal(parser_context_create(0, site_base(0)), -1);
    expect_log(LOG_ERR, "Error - get traffic pipe count failed, - system not "
                        "initialized");
    expect_log(LOG_CRIT, "Error - Ingress Pkt Parser module context create - "
                         "invalid pipe 0");
    assert_int_equal(model->writes, 0);
    expect_no_more_logs();
}

/* ---- Statistics ---- */

/* Distinct in every register and poll, so a wrong source, a swapped high
 * and low word or a second read shows. */
static uint32_t counter_value(uint32_t reg, uint32_t poll)
{
    return (poll + 1) << 24 | reg << 8 | (reg ^ 0xA5);
}

static void load_counters(int site, uint32_t poll)
{
    for (uint32_t reg = COUNTER_FIRST; reg <= COUNTER_LAST; reg += 4)
        block_store(site, reg, counter_value(reg, poll));
}

/* Part 4.1's statistics table: the register of bits 63..32 (0: none) and
 * the register of bits 31..0. */
static const struct {
    uint32_t high, low;
} counter_sources[COUNTERS] = {
    { 0x50, 0x54 }, { 0, 0x58 }, { 0, 0x5C }, { 0x60, 0x64 }, { 0, 0x68 },
    { 0, 0x6C },    { 0x70, 0x74 }, { 0, 0x78 }, { 0, 0x7C }, { 0, 0x80 },
    { 0, 0x84 },    { 0, 0x88 }, { 0, 0x8C }, { 0, 0x90 }, { 0, 0x94 },
};

static void add_expected(uint64_t *expected, uint32_t poll)
{
    for (size_t i = 0; i < COUNTERS; i++) {
        uint64_t high = counter_sources[i].high == 0
                            ? 0
                            : counter_value(counter_sources[i].high, poll);

        expected[i] += high << 32 | counter_value(counter_sources[i].low, poll);
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

static void test_every_counter_composed_from_its_registers(void **state)
{
    static const uint64_t expected[COUNTERS] = {
        0x010050F5010054F1, 0x00000000010058FD, 0x0000000001005CF9,
        0x010060C5010064C1, 0x00000000010068CD, 0x0000000001006CC9,
        0x010070D5010074D1, 0x00000000010078DD, 0x0000000001007CD9,
        0x0000000001008025, 0x0000000001008421, 0x000000000100882D,
        0x0000000001008C29, 0x0000000001009035, 0x0000000001009431,
    };
    unsigned long reads;

    (void)state;
    start(&lh_desc_base_two_pipes);
    for (size_t i = 0; i < 2; i++) {
        create(drivers[i], 0, (int)i);
        load_counters((int)i, 0);
        reads = model->reads;
        drivers[i]->ops->update_stats(0);
        assert_int_equal(model->reads - reads, 18);
        assert_stats(drivers[i], 0, expected);
    }
    expect_no_more_logs();
}

static void test_counters_accumulate_over_polls(void **state)
{
    uint64_t expected[COUNTERS] = { 0 };

    (void)state;
    start(&lh_desc_base_two_pipes);
    create(&parser, 0, 0);
    for (uint32_t poll = 0; poll < 3; poll++) {
        load_counters(0, poll);
        parser_update_stats(0);
        add_expected(expected, poll);
        assert_stats(&parser, 0, expected);
    }
    /* The reads cleared the counters: a poll without traffic adds nothing. */
    parser_update_stats(0);
    assert_stats(&parser, 0, expected);
    expect_no_more_logs();
}

static void test_counter_totals_wrap(void **state)
{
    uint64_t expected[COUNTERS] = { 0xFFFFFFFFFFFFFFFE, 0x1FFFFFFFE };

    (void)state;
    start(&lh_desc_base_two_pipes);
    create(&parser, 0, 0);
    for (int poll = 0; poll < 2; poll++) {
        block_store(0, 0x50, 0xFFFFFFFF);
        block_store(0, 0x54, 0xFFFFFFFF);
        block_store(0, 0x58, 0xFFFFFFFF);
        parser_update_stats(0);
    }
    assert_stats(&parser, 0, expected);
    expect_no_more_logs();
}

static void test_clear_then_get_yields_zeros(void **state)
{
    static const uint64_t zeros[COUNTERS];
    uint64_t expected[COUNTERS] = { 0 };
    unsigned long writes;

    (void)state;
    start(&lh_desc_base_two_pipes);
    create(&parser, 0, 0);
    load_counters(0, 0);
    parser_update_stats(0);
    load_counters(0, 1);
    writes = model->writes;
    assert_int_equal(parser_clear_stats(0), 0);
    assert_int_equal(model->writes, writes);
    assert_int_equal(block_peek(0, 0x50), counter_value(0x50, 1));
    assert_stats(&parser, 0, zeros);
    parser_update_stats(0);
    add_expected(expected, 1);
    assert_stats(&parser, 0, expected);
    expect_no_more_logs();
}

static void test_get_stats_refuses_other_sizes(void **state)
{
    static const uint64_t sizes[] = { 112, 128, 0 };
    uint8_t buffer[128];
    uint8_t untouched[128];

    (void)state;
    start(&lh_desc_base_two_pipes);
    create(&parser, 0, 0);
    create(&lhx, 0, 1);
    load_counters(0, 0);
    parser_update_stats(0);
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
    expect_no_more_logs();
}

static void test_pipes_keep_their_own_counters(void **state)
{
    uint64_t expected0[COUNTERS] = { 0 };
    uint64_t expected1[COUNTERS] = { 0 };

    (void)state;
    start(&lh_desc_base_two_pipes);
    create(&parser, 0, 0);
    create(&parser, 1, 1);
    load_counters(0, 0);
    load_counters(1, 2);
    parser_update_stats(0);
    parser_update_stats(1);
    add_expected(expected0, 0);
    add_expected(expected1, 2);
    assert_stats(&parser, 0, expected0);
    assert_stats(&parser, 1, expected1);
    expect_no_more_logs();
}

static void test_lhx_and_parser_keep_apart(void **state)
{
    static const uint64_t zeros[COUNTERS];
    uint64_t expected_lhx[COUNTERS] = { 0 };
    lh_fatal_error_t report = { 0, 0, NULL };
    lh_qos_profile_t qos = { 3, LH_QOS_PRIO_HIGH };

    (void)state;
    start(&lh_desc_base_two_pipes);
    create(&parser, 0, 0);
    create(&lhx, 0, 1);
    load_counters(0, 0);
    load_counters(1, 1);
    parser_update_stats(0);
    lhx_parser_update_stats(0);
    assert_int_equal(parser_clear_stats(0), 0);
    add_expected(expected_lhx, 1);
    assert_stats(&parser, 0, zeros);
    assert_stats(&lhx, 0, expected_lhx);

    assert_int_equal(lhx_parser_qos_set_profile(0, qos), 0);
    expect_log(LOG_INFO, "Informational - LHX Ingress Pkt Parser set QoS "
                         "profile id 0x03 on pipe 0 with priority HIGH");
    assert_int_equal(qos_rows[1][3], LH_QOS_PRIO_HIGH);
    assert_int_equal(qos_rows[0][3], LH_QOS_PRIO_LOW);

    block_store(1, STATUS, 1u << 16);
    assert_int_equal(parser_fatal_error_detect(0, &report), 0);
    assert_int_equal(lhx_parser_fatal_error_detect(0, &report), 1);
    expect_log(LOG_CRIT, "FATAL - LHX Ingress Pkt Parser pipe 0: "
                         "Meta Data FIFO Parity Error");
    expect_no_more_logs();
}

/* ---- Fatal error detection ---- */

/* Every row whose bit alone reports its text; row 9 (bit 9 again) needs a
 * changing register, see below. */
static const struct {
    unsigned int bit;
    const char *text;
} lone_bits[] = {
    { 16, "Meta Data FIFO Parity Error" },
    { 15, "Packet Length FIFO Parity Error" },
    { 14, "Meta Data FIFO Overflow" },
    { 13, "Packet Length FIFO Overflow" },
    { 12, "High Priority Burst buffer Overflow" },
    { 11, "Medium Priority Burst buffer Overflow" },
    { 10, "Low Priority Burst buffer Overflow" },
    { 9, "Meta Data FIFO Underflow" },
    { 7, "High Priority Burst buffer Underflow" },
    { 6, "Medium Priority Burst buffer Underflow" },
    { 5, "Low Priority Burst buffer Underflow" },
    { 4, "High Priority Burst buffer Double bit ECC Error" },
    { 3, "Medium Priority Burst buffer Double bit ECC Error" },
    { 2, "Low Priority Burst buffer Double bit ECC Error" },
    { 1, "Parser Engine Meta Data Cycle Number Error" },
    { 0, "Priority Table Parity Error" },
};

static void expect_fatal(const struct driver *driver, uint32_t status,
                         const char *text)
{
    lh_fatal_error_t report = { 0, 0, NULL };

    block_store(driver == &parser ? 0 : 1, STATUS, status);
    assert_int_equal(driver->ops->fatal_error_detect(0, &report), 1);
    assert_string_equal(report.error_text, text);
    expect_logf(LOG_CRIT, "FATAL - %s pipe 0: %s", driver->name, text);
}

static void start_both_on_pipe_0(void)
{
    start(&lh_desc_base_two_pipes);
    create(&parser, 0, 0);
    create(&lhx, 0, 1);
}

static void test_each_error_bit_alone_reports_its_text(void **state)
{
    (void)state;
    start_both_on_pipe_0();
    for (size_t d = 0; d < 2; d++)
        for (size_t i = 0; i < ARRAY_SIZE(lone_bits); i++)
            expect_fatal(drivers[d], 1u << lone_bits[i].bit,
                         lone_bits[i].text);
    expect_no_more_logs();
}

static void test_first_row_in_table_order_wins(void **state)
{
    (void)state;
    start_both_on_pipe_0();
    expect_fatal(&parser, 1u << 9 | 1u << 0, "Meta Data FIFO Underflow");
    expect_fatal(&parser, 0x1FFFF, "Meta Data FIFO Parity Error");
    expect_fatal(&parser, 1u << 10 | 1u << 11,
                 "Medium Priority Burst buffer Overflow");
    expect_fatal(&lhx, 1u << 9 | 1u << 0, "Meta Data FIFO Underflow");
    expect_no_more_logs();
}

static void expect_no_fatal(uint32_t status)
{
    lh_fatal_error_t report = { 0, 0, "untouched" };

    block_store(0, STATUS, status);
    status_reads = 0;
    assert_int_equal(parser_fatal_error_detect(0, &report), 0);
    assert_string_equal(report.error_text, "untouched");
    assert_int_equal(status_reads, 17);
}

static void test_unlisted_bits_report_nothing(void **state)
{
    unsigned long writes;

    (void)state;
    start_both_on_pipe_0();
    writes = model->writes;
    expect_no_fatal(0);
    expect_no_fatal(1u << 8);
    expect_no_fatal(0xFFFE0000 | 1u << 8);
    assert_int_equal(model->writes, writes);
    expect_no_more_logs();
}

static void run_status_script(const uint32_t *script, size_t length)
{
    memcpy(status_script, script, length * sizeof(*script));
    status_script_length = length;
    status_reads = 0;
}

static void test_bit_9_is_read_again_for_the_second_row(void **state)
{
    /* Rows 1-8 read 0; the ninth read (row 9) sees bit 9. */
    static const uint32_t late[] = { 0, 0, 0, 0, 0, 0, 0, 0, 1u << 9 };
    /* Bit 9 already at the eighth read (row 8). */
    static const uint32_t early[] = { 0, 0, 0, 0, 0, 0, 0, 1u << 9 };
    unsigned long writes;

    (void)state;
    start_both_on_pipe_0();
    writes = model->writes;
    for (size_t d = 0; d < 2; d++) {
        lh_fatal_error_t report = { 0, 0, NULL };

        run_status_script(late, ARRAY_SIZE(late));
        assert_int_equal(drivers[d]->ops->fatal_error_detect(0, &report), 1);
        assert_string_equal(report.error_text, "Packet Length FIFO Underflow");
        assert_int_equal(status_reads, 9);
        expect_logf(LOG_CRIT, "FATAL - %s pipe 0: Packet Length FIFO Underflow",
                    drivers[d]->name);

        run_status_script(early, ARRAY_SIZE(early));
        assert_int_equal(drivers[d]->ops->fatal_error_detect(0, &report), 1);
        assert_string_equal(report.error_text, "Meta Data FIFO Underflow");
        assert_int_equal(status_reads, 8);
        expect_logf(LOG_CRIT, "FATAL - %s pipe 0: Meta Data FIFO Underflow",
                    drivers[d]->name);
    }
    assert_int_equal(model->writes, writes);
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
        assert_int_equal(driver->ops->qos_get_profile(2, NULL), -1);
        expect_logf(LOG_ERR, "Null pointer - %s QoS get profile",
                    driver->name);
    }
    expect_no_more_logs();
}

static void test_invalid_pipe_refused_by_every_operation(void **state)
{
    (void)state;
    start_both_on_pipe_0();
    expect_refused_everywhere(&parser, 2, "pipe");
    expect_refused_everywhere(&lhx, 2, "pipe");
    expect_no_more_logs();
}

static void test_invalid_context_refused_by_every_operation(void **state)
{
    (void)state;
    start(&lh_desc_lhx);
    assert_int_equal(lhx_parser_context_create(1, site_base(0)), -1);
    expect_log(LOG_CRIT, "Error - LHX Ingress Pkt Parser module context "
                         "create - invalid pipe 1");
    expect_refused_everywhere(&lhx, 1, "context");
    assert_int_equal(model->writes, 0);
    expect_no_more_logs();
}

static void test_exact_invalid_lines(void **state)
{
    uint64_t stats[COUNTERS];
    lh_fatal_error_t report;
    lh_qos_profile_t qos = { 0, 0 };

    (void)state;
    start(&lh_desc_base_two_pipes);
    parser_update_stats(2);
    expect_log(LOG_CRIT, "Error - Ingress Pkt Parser update stats - "
                         "invalid pipe 2");
    assert_int_equal(parser_get_stats(3, stats, STATS_BYTES), -1);
    expect_log(LOG_CRIT, "Error - Ingress Pkt Parser get stats - "
                         "invalid pipe 3");
    assert_int_equal(parser_clear_stats(2), -1);
    expect_log(LOG_CRIT, "Error - Ingress Pkt Parser clear stats - "
                         "invalid pipe 2");
    assert_int_equal(parser_fatal_error_detect(2, &report), 0);
    expect_log(LOG_CRIT, "Error - Ingress Pkt Parser fatal error detection "
                         "- invalid pipe 2");
    assert_int_equal(lhx_parser_qos_set_profile(1, qos), -1);
    expect_log(LOG_ERR, "Error - LHX Ingress Pkt Parser QoS set profile - "
                        "invalid context 1");
    assert_int_equal(lhx_parser_qos_get_profile(1, &qos), -1);
    expect_log(LOG_ERR, "Error - LHX Ingress Pkt Parser QoS get profile - "
                        "invalid context 1");
    expect_no_more_logs();
}

/* ---- QoS profiles ---- */

static void test_profile_id_0x7f_accepted_0x80_refused(void **state)
{
    lh_qos_profile_t qos = { 0x7F, LH_QOS_PRIO_HIGH };
    unsigned long writes;

    (void)state;
    start_both_on_pipe_0();
    assert_int_equal(parser_qos_set_profile(0, qos), 0);
    expect_log(LOG_INFO, "Informational - Ingress Pkt Parser set QoS profile "
                         "id 0x7f on pipe 0 with priority HIGH");
    assert_int_equal(qos_rows[0][0x7F], LH_QOS_PRIO_HIGH);
    qos.priority = LH_QOS_PRIO_LOW;
    assert_int_equal(parser_qos_get_profile(0, &qos), 0);
    assert_int_equal(qos.priority, LH_QOS_PRIO_HIGH);

    writes = model->writes;
    qos = (lh_qos_profile_t){ 0x80, LH_QOS_PRIO_MED };
    assert_int_equal(parser_qos_set_profile(0, qos), -1);
    expect_log(LOG_ERR, "Error - Ingress Pkt Parser QoS set profile on pipe 0 "
                        "- invalid QoS profile id 0x80 (valid range is "
                        "[0x00-0x7f])");
    assert_int_equal(parser_qos_get_profile(0, &qos), -1);
    expect_log(LOG_ERR, "Error - Ingress Pkt Parser QoS get profile on pipe 0 "
                        "- invalid QoS profile id 0x80 (valid range is "
                        "[0x00-0x7f])");
    assert_int_equal(qos.priority, LH_QOS_PRIO_MED);
    qos.profile_id = 0x80000000;
    assert_int_equal(lhx_parser_qos_set_profile(0, qos), -1);
    expect_log(LOG_ERR, "Error - LHX Ingress Pkt Parser QoS set profile on "
                        "pipe 0 - invalid QoS profile id 0x80000000 (valid "
                        "range is [0x00-0x7f])");
    assert_int_equal(model->writes, writes);
    expect_no_more_logs();
}

static void test_priority_3_refused(void **state)
{
    lh_qos_profile_t qos = { 5, 3 };
    unsigned long writes;

    (void)state;
    start_both_on_pipe_0();
    writes = model->writes;
    assert_int_equal(parser_qos_set_profile(0, qos), -1);
    expect_log(LOG_ERR, "Error - Ingress Pkt Parser QoS set profile on pipe 0 "
                        "- invalid QoS priority 3 for profile id 0x05");
    /* The profile id is checked before the priority. */
    qos.profile_id = 0x80;
    assert_int_equal(lhx_parser_qos_set_profile(0, qos), -1);
    expect_log(LOG_ERR, "Error - LHX Ingress Pkt Parser QoS set profile on "
                        "pipe 0 - invalid QoS profile id 0x80 (valid range "
                        "is [0x00-0x7f])");
    assert_int_equal(model->writes, writes);
    assert_qos_rows(0, LH_QOS_PRIO_LOW);
    expect_no_more_logs();
}

static void test_field_value_3_reads_low(void **state)
{
    lh_qos_profile_t qos = { 9, 7 };

    (void)state;
    start_both_on_pipe_0();
    qos_rows[0][9] = 3;
    assert_int_equal(parser_qos_get_profile(0, &qos), 0);
    assert_int_equal(qos.profile_id, 9);
    assert_int_equal(qos.priority, LH_QOS_PRIO_LOW);
    expect_no_more_logs();
}

static void test_set_names_every_priority(void **state)
{
    static const char *const names[] = { "LOW", "MED", "HIGH" };

    (void)state;
    start_both_on_pipe_0();
    fill_qos_rows(0, 3);
    fill_qos_rows(1, 3);
    for (size_t d = 0; d < 2; d++) {
        for (uint32_t priority = 0; priority < 3; priority++) {
            lh_qos_profile_t qos = { 0x10 + priority, priority };

            assert_int_equal(drivers[d]->ops->qos_set_profile(0, qos), 0);
            expect_logf(LOG_INFO, "Informational - %s set QoS profile id "
                                  "0x%02x on pipe 0 with priority %s",
                        drivers[d]->name, 0x10 + priority, names[priority]);
        }
    }
    for (int site = 0; site < SITES; site++)
        for (int id = 0; id < QOS_ROWS; id++)
            assert_int_equal(qos_rows[site][id],
                             id >= 0x10 && id <= 0x12 ? id - 0x10 : 3);
    expect_no_more_logs();
}

static void test_get_reads_the_row_it_selects(void **state)
{
    static const uint8_t rows[] = { LH_QOS_PRIO_MED, LH_QOS_PRIO_HIGH,
                                    LH_QOS_PRIO_LOW };
    static const uint32_t ids[] = { 0x40, 0x00, 0x41 };

    (void)state;
    start_both_on_pipe_0();
    qos_rows[0][0x40] = LH_QOS_PRIO_MED;
    qos_rows[0][0x00] = LH_QOS_PRIO_HIGH;
    for (size_t i = 0; i < ARRAY_SIZE(ids); i++) {
        lh_qos_profile_t qos = { ids[i], 7 };

        assert_int_equal(parser_qos_get_profile(0, &qos), 0);
        assert_int_equal(qos.priority, rows[i]);
        assert_int_equal(block_peek(0, QOS_INDEX) & 0x7F, ids[i]);
    }
    expect_no_more_logs();
}

static void test_qos_keeps_bits_outside_the_fields(void **state)
{
    lh_qos_profile_t qos = { 0x2A, LH_QOS_PRIO_HIGH };

    (void)state;
    start_both_on_pipe_0();
    block_store(0, QOS_INDEX, 0xDEADBE80 | 0x15);
    block_store(0, QOS_PRIO, 0xCAFEF00C | 1);
    assert_int_equal(parser_qos_set_profile(0, qos), 0);
    expect_log(LOG_INFO, "Informational - Ingress Pkt Parser set QoS profile "
                         "id 0x2a on pipe 0 with priority HIGH");
    assert_int_equal(block_peek(0, QOS_INDEX), 0xDEADBE80 | 0x2A);
    assert_int_equal(block_peek(0, QOS_PRIO), 0xCAFEF00C | LH_QOS_PRIO_HIGH);

    qos = (lh_qos_profile_t){ 0x33, 7 };
    assert_int_equal(parser_qos_get_profile(0, &qos), 0);
    assert_int_equal(qos.priority, LH_QOS_PRIO_LOW);
    assert_int_equal(block_peek(0, QOS_INDEX), 0xDEADBE80 | 0x33);
    assert_int_equal(block_peek(0, QOS_PRIO), 0xCAFEF00C | LH_QOS_PRIO_HIGH);
    expect_no_more_logs();
}

static void test_each_pipe_has_its_own_table(void **state)
{
    lh_qos_profile_t qos = { 0x22, LH_QOS_PRIO_MED };

    (void)state;
    start(&lh_desc_base_two_pipes);
    create(&parser, 0, 0);
    create(&parser, 1, 1);
    assert_int_equal(parser_qos_set_profile(1, qos), 0);
    expect_log(LOG_INFO, "Informational - Ingress Pkt Parser set QoS profile "
                         "id 0x22 on pipe 1 with priority MED");
    assert_int_equal(qos_rows[1][0x22], LH_QOS_PRIO_MED);
    assert_qos_rows(0, LH_QOS_PRIO_LOW);
    qos.priority = 7;
    assert_int_equal(parser_qos_get_profile(0, &qos), 0);
    assert_int_equal(qos.priority, LH_QOS_PRIO_LOW);
    assert_int_equal(parser_qos_get_profile(1, &qos), 0);
    assert_int_equal(qos.priority, LH_QOS_PRIO_MED);
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
        T(test_lhx_context_is_not_the_parser_context),
    };
    const struct CMUnitTest tests[] = {
        T(test_ops_tables_wire_the_operations),
        T(test_create_logs_the_created_line),
        T(test_create_resets_every_qos_row_to_low),
        T(test_create_zeroes_the_counters),
        T(test_create_refusals),
        T(test_create_before_initialisation),
        T(test_every_counter_composed_from_its_registers),
        T(test_counters_accumulate_over_polls),
        T(test_counter_totals_wrap),
        T(test_clear_then_get_yields_zeros),
        T(test_get_stats_refuses_other_sizes),
        T(test_pipes_keep_their_own_counters),
        T(test_lhx_and_parser_keep_apart),
        T(test_each_error_bit_alone_reports_its_text),
        T(test_first_row_in_table_order_wins),
        T(test_unlisted_bits_report_nothing),
        T(test_bit_9_is_read_again_for_the_second_row),
        T(test_null_pointers_come_first),
        T(test_invalid_pipe_refused_by_every_operation),
        T(test_invalid_context_refused_by_every_operation),
        T(test_exact_invalid_lines),
        T(test_profile_id_0x7f_accepted_0x80_refused),
        T(test_priority_3_refused),
        T(test_field_value_3_reads_low),
        T(test_set_names_every_priority),
        T(test_get_reads_the_row_it_selects),
        T(test_qos_keeps_bits_outside_the_fields),
        T(test_each_pipe_has_its_own_table),
    };
    int failed;

    if (enter_private_tmp() != 0)
        return 1;
    failed = cmocka_run_group_tests_name("never created contexts",
                                         never_created, NULL, NULL);
    failed += cmocka_run_group_tests_name("parser", tests, NULL, NULL);
    return failed;
}
