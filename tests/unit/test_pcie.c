/* Part 3.3: the PCIe block drivers (pcie, lhx_pcie) against a model of the
 * block's hardware: two counters that clear when read and a fatal error
 * status register that can change between reads. */
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
#include "pcie.h"
#include "private_tmp.h"
#include "syslog_capture.h"


#define ARRAY_SIZE(a) (sizeof(a) / sizeof((a)[0]))

/* Block registers, offsets from the block base (Part 3.3). */
#define STATUS     0x00u
#define COUNTER_0  0x50u
#define COUNTER_1  0x54u
#define BLOCK_SPAN 0x100u

#define STATS_BYTES 16
#define COUNTERS    2
#define ROWS        6

/* The block sits at window offset 0x1000 on both images (Part 2.4); the
 * second site gives another context a block of its own. */
#define SITES 2
static const uint32_t site_offsets[SITES] = { 0x1000, 0x3000 };

static struct reg_model *model;
static unsigned long status_reads;
static unsigned long counter_reads;
/* Successive status reads return these, then the last one; none: the
 * stored word. */
static uint32_t script[16];
static size_t script_length;


struct driver {
    const char *name;
    const struct lh_block_ops *ops;
    lh_device_desc *device;
    lh_device_desc *one_pipe_device;
};

static const struct driver pcie = { "PCIe", &pcie_ops, &lh_desc_base_two_pipes,
                                    &lh_desc_base_one_pipe };
static const struct driver lhx = { "LHX PCIe", &lhx_pcie_ops, &lh_desc_lhx,
                                   &lh_desc_lhx };
static const struct driver *const drivers[] = { &pcie, &lhx };

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

static uint32_t scripted_status(uint32_t stored)
{
    size_t read = status_reads++;

    if (script_length == 0)
        return stored;
    if (read >= script_length)
        read = script_length - 1;
    return script[read];
}

static uint32_t hardware_read(struct reg_model *window, uint32_t offset,
                              uint32_t stored)
{
    uint32_t reg;

    if (site_of(offset, &reg) < 0)
        return stored;
    if (reg == STATUS)
        return scripted_status(stored);
    if (reg == COUNTER_0 || reg == COUNTER_1) {
        counter_reads++;
        reg_model_store(window, offset, 0);
    }
    return stored;
}

static void start(lh_device_desc *desc)
{
    model = fake_device_start(desc, 1);
    model->on_read = hardware_read;
    status_reads = 0;
    counter_reads = 0;
    script_length = 0;
    mutex_inits = 0;
}

static int teardown(void **state)
{
    mutex_init_fails = false;
    return fake_device_teardown(state);
}

/* Ends a device mid-test, every message accounted for. */
static void finish(void)
{
    expect_no_more_logs();
    fake_device_teardown(NULL);
}

static volatile void *site_base(int site)
{
    return (uint8_t *)model->words + site_offsets[site];
}

static void block_store(int site, uint32_t reg, uint32_t value)
{
    reg_model_store(model, site_offsets[site] + reg, value);
}

static uint32_t block_peek(int site, uint32_t reg)
{
    return reg_model_peek(model, site_offsets[site] + reg);
}

static void create(const struct driver *driver, uint32_t pipe, int site)
{
    assert_int_equal(driver->ops->context_create(pipe, site_base(site)), 0);
    expect_logf(LOG_INFO, "Informational - %s module %u context created",
                driver->name, pipe);
}

/* Both drivers on one base device: pcie at the real site, lhx_pcie at the
 * other. */
static void start_both(void)
{
    start(&lh_desc_base_two_pipes);
    create(&pcie, 0, 0);
    create(&lhx, 0, 1);
}

static int site_of_driver(const struct driver *driver)
{
    return driver == &pcie ? 0 : 1;
}

/* Every operation but context_create fails on `pipe` with "invalid <what>"
 * at 2, touching no register. */
static void expect_refused_everywhere(const struct driver *driver,
                                      uint32_t pipe, const char *what)
{
    const char *name = driver->name;
    uint8_t stats[STATS_BYTES];
    uint8_t untouched[STATS_BYTES];
    lh_fatal_error_t report = { 0, 0, NULL };
    unsigned long reads = model->reads;

    memset(stats, 0xEE, sizeof(stats));
    memset(untouched, 0xEE, sizeof(untouched));
    driver->ops->update_stats(pipe);
    expect_logf(LOG_CRIT, "Error - %s update stats - invalid %s %d", name,
                what, (int)pipe);
    assert_int_equal(driver->ops->get_stats(pipe, stats, STATS_BYTES), -1);
    expect_logf(LOG_CRIT, "Error - %s get stats - invalid %s %d", name, what,
                (int)pipe);
    assert_memory_equal(stats, untouched, sizeof(stats));
    assert_int_equal(driver->ops->clear_stats(pipe), -1);
    expect_logf(LOG_CRIT, "Error - %s clear stats - invalid %s %d", name, what,
                (int)pipe);
    assert_int_equal(driver->ops->fatal_error_detect(pipe, &report), 0);
    expect_logf(LOG_CRIT, "Error - %s module fatal error detection - "
                          "invalid %s %d",
                name, what, (int)pipe);
    assert_null(report.error_text);
    assert_int_equal(model->reads, reads);
}

/* ---- Statistics helpers ---- */

/* Distinct in every register and poll, so a wrong source or a second read
 * shows. */
static uint32_t counter_value(uint32_t reg, uint32_t poll)
{
    return (poll + 1) << 24 | reg << 8 | (reg ^ 0xA5);
}

/* The two counters and their neighbours, which must never be read. */
static void load_counters(int site, uint32_t poll)
{
    for (uint32_t reg = COUNTER_0 - 8; reg <= COUNTER_1 + 8; reg += 4)
        block_store(site, reg, counter_value(reg, poll));
}

static void add_expected(uint64_t *expected, uint32_t poll)
{
    expected[0] += counter_value(COUNTER_0, poll);
    expected[1] += counter_value(COUNTER_1, poll);
}

static void assert_stats(const struct driver *driver, uint32_t pipe,
                         const uint64_t *expected)
{
    uint64_t stats[COUNTERS];

    assert_int_equal(driver->ops->get_stats(pipe, stats, STATS_BYTES), 0);
    for (size_t i = 0; i < COUNTERS; i++)
        assert_int_equal(stats[i], expected[i]);
}

/* ---- Contexts never created before: these run first, in this order. ---- */

static void test_mutex_failure_leaves_context_invalid(void **state)
{
    (void)state;
    for (size_t d = 0; d < ARRAY_SIZE(drivers); d++) {
        const struct driver *driver = drivers[d];

        start(driver->device);
        load_counters(0, 0);
        block_store(0, STATUS, 1u << 5);
        mutex_init_fails = true;
        assert_int_equal(driver->ops->context_create(0, site_base(0)), -1);
        mutex_init_fails = false;
        expect_logf(LOG_CRIT, "Error - %s module context create - mutex init "
                              "failed",
                    driver->name);
        assert_int_equal(mutex_inits, 1);
        expect_refused_everywhere(driver, 0, "context");
        assert_int_equal(model->writes, 0);
        finish();
    }
}

static void test_pipe_1_refused_on_one_pipe_devices(void **state)
{
    (void)state;
    for (size_t d = 0; d < ARRAY_SIZE(drivers); d++) {
        const struct driver *driver = drivers[d];

        start(driver->one_pipe_device);
        assert_int_equal(driver->ops->context_create(1, site_base(1)), -1);
        expect_logf(LOG_CRIT, "Error - %s module context create - invalid "
                              "pipe 1",
                    driver->name);
        assert_int_equal(mutex_inits, 0);
        expect_refused_everywhere(driver, 1, "context");
        assert_int_equal(model->writes, 0);
        finish();
    }
}

/* ---- Context creation. lhx_pcie pipe 1 is never created anywhere. ---- */

static void test_ops_tables_wire_the_operations(void **state)
{
    (void)state;
    assert_true(pcie_ops.context_create == pcie_context_create);
    assert_true(pcie_ops.update_stats == pcie_update_stats);
    assert_true(pcie_ops.get_stats == pcie_get_stats);
    assert_true(pcie_ops.clear_stats == pcie_clear_stats);
    assert_true(pcie_ops.fatal_error_detect == pcie_fatal_error_detect);
    assert_true(lhx_pcie_ops.context_create == lhx_pcie_context_create);
    assert_true(lhx_pcie_ops.update_stats == lhx_pcie_update_stats);
    assert_true(lhx_pcie_ops.get_stats == lhx_pcie_get_stats);
    assert_true(lhx_pcie_ops.clear_stats == lhx_pcie_clear_stats);
    assert_true(lhx_pcie_ops.fatal_error_detect ==
                lhx_pcie_fatal_error_detect);
    for (size_t d = 0; d < ARRAY_SIZE(drivers); d++) {
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
    assert_int_equal(pcie_context_create(0, site_base(0)), 0);
    expect_log(LOG_INFO, "Informational - PCIe module 0 context created");
    assert_int_equal(pcie_context_create(1, site_base(1)), 0);
    expect_log(LOG_INFO, "Informational - PCIe module 1 context created");
    assert_int_equal(mutex_inits, 2);
    finish();

    start(&lh_desc_lhx);
    assert_int_equal(lhx_pcie_context_create(0, site_base(0)), 0);
    expect_log(LOG_INFO, "Informational - LHX PCIe module 0 context created");
    assert_int_equal(mutex_inits, 1);
    assert_int_equal(model->reads, 0);
    assert_int_equal(model->writes, 0);
    expect_no_more_logs();
}

static void test_create_zeroes_the_counters(void **state)
{
    static const uint64_t zeros[COUNTERS];

    (void)state;
    start_both();
    load_counters(0, 0);
    pcie_update_stats(0);
    create(&pcie, 0, 0);
    assert_stats(&pcie, 0, zeros);
    expect_no_more_logs();
}

static void test_create_refusals(void **state)
{
    (void)state;
    start(&lh_desc_base_two_pipes);
    for (size_t d = 0; d < ARRAY_SIZE(drivers); d++) {
        const struct driver *driver = drivers[d];

        assert_int_equal(driver->ops->context_create(2, NULL), -1);
        expect_logf(LOG_ERR, "Null pointer - %s module context create",
                    driver->name);
        assert_int_equal(driver->ops->context_create(0, NULL), -1);
        expect_logf(LOG_ERR, "Null pointer - %s module context create",
                    driver->name);
        assert_int_equal(driver->ops->context_create(2, site_base(0)), -1);
        expect_logf(LOG_CRIT, "Error - %s module context create - "
                              "invalid pipe 2",
                    driver->name);
    }
    assert_int_equal(mutex_inits, 0);
    assert_int_equal(model->reads, 0);
    assert_int_equal(model->writes, 0);
    expect_no_more_logs();
}

static void test_create_before_initialisation(void **state)
{
    (void)state;
    model = fake_device_start(&lh_desc_base_two_pipes, 0);
    assert_int_equal(pcie_context_create(0, site_base(0)), -1);
    expect_log(LOG_ERR, "Error - get traffic pipe count failed, - system not "
                        "initialized");
    expect_log(LOG_CRIT, "Error - PCIe module context create - "
                         "invalid pipe 0");
    expect_no_more_logs();
}

/* ---- Statistics ---- */

static void test_each_counter_from_its_register(void **state)
{
    /* Counter 0 from 0x50, counter 1 from 0x54, zero-extended. */
    static const uint64_t expected[COUNTERS] = { 0x00000000010050F5,
                                                 0x00000000010054F1 };
    uint8_t record[STATS_BYTES];

    (void)state;
    start_both();
    for (size_t d = 0; d < ARRAY_SIZE(drivers); d++) {
        int site = site_of_driver(drivers[d]);

        load_counters(site, 0);
        counter_reads = 0;
        drivers[d]->ops->update_stats(0);
        assert_int_equal(counter_reads, 2);
        assert_int_equal(status_reads, 0);
        assert_stats(drivers[d], 0, expected);
    }
    /* The record is the two counters, counter 0 first. */
    assert_int_equal(pcie_get_stats(0, record, sizeof(record)), 0);
    assert_memory_equal(record, expected, sizeof(record));
    assert_int_equal(model->writes, 0);
    expect_no_more_logs();
}

static void test_counters_accumulate_over_polls(void **state)
{
    uint64_t expected[COUNTERS] = { 0 };

    (void)state;
    start_both();
    for (uint32_t poll = 0; poll < 3; poll++) {
        load_counters(0, poll);
        pcie_update_stats(0);
        add_expected(expected, poll);
        assert_stats(&pcie, 0, expected);
    }
    /* The reads cleared the counters: a poll without traffic adds nothing. */
    pcie_update_stats(0);
    assert_stats(&pcie, 0, expected);
    expect_no_more_logs();
}

static void test_counters_widen_past_32_bits(void **state)
{
    static const uint64_t expected[COUNTERS] = { 0x1FFFFFFFE, 0x180000000 };

    (void)state;
    start_both();
    for (int poll = 0; poll < 2; poll++) {
        block_store(0, COUNTER_0, 0xFFFFFFFF);
        block_store(0, COUNTER_1, 0xC0000000);
        pcie_update_stats(0);
    }
    assert_stats(&pcie, 0, expected);
    expect_no_more_logs();
}

static void test_get_stats_refuses_other_sizes(void **state)
{
    static const uint64_t sizes[] = { 8, 32, 15, 17, 0, 0x100000010 };
    uint8_t buffer[32];
    uint8_t untouched[32];

    (void)state;
    start_both();
    load_counters(0, 0);
    load_counters(1, 1);
    pcie_update_stats(0);
    lhx_pcie_update_stats(0);
    memset(untouched, 0xEE, sizeof(untouched));
    for (size_t d = 0; d < ARRAY_SIZE(drivers); d++) {
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

static void test_get_stats_copies_exactly_16_bytes(void **state)
{
    uint8_t buffer[STATS_BYTES + 8];
    uint64_t expected[COUNTERS] = { 0 };

    (void)state;
    start_both();
    load_counters(0, 2);
    pcie_update_stats(0);
    add_expected(expected, 2);
    memset(buffer, 0xEE, sizeof(buffer));
    assert_int_equal(pcie_get_stats(0, buffer, STATS_BYTES), 0);
    assert_memory_equal(buffer, expected, STATS_BYTES);
    for (size_t i = STATS_BYTES; i < sizeof(buffer); i++)
        assert_int_equal(buffer[i], 0xEE);
    expect_no_more_logs();
}

static void test_clear_zeroes_without_touching_hardware(void **state)
{
    static const uint64_t zeros[COUNTERS];
    uint64_t expected[COUNTERS] = { 0 };
    unsigned long reads, writes;

    (void)state;
    start_both();
    load_counters(0, 0);
    pcie_update_stats(0);
    load_counters(0, 1);
    reads = model->reads;
    writes = model->writes;
    assert_int_equal(pcie_clear_stats(0), 0);
    assert_int_equal(model->reads, reads);
    assert_int_equal(model->writes, writes);
    assert_int_equal(block_peek(0, COUNTER_0), counter_value(COUNTER_0, 1));
    assert_int_equal(block_peek(0, COUNTER_1), counter_value(COUNTER_1, 1));
    assert_stats(&pcie, 0, zeros);
    pcie_update_stats(0);
    add_expected(expected, 1);
    assert_stats(&pcie, 0, expected);
    expect_no_more_logs();
}

static void test_pcie_and_lhx_pcie_keep_separate_counters(void **state)
{
    static const uint64_t zeros[COUNTERS];
    uint64_t expected_pcie[COUNTERS] = { 0 };
    uint64_t expected_lhx[COUNTERS] = { 0 };

    (void)state;
    start_both();
    load_counters(0, 0);
    load_counters(1, 1);
    pcie_update_stats(0);
    lhx_pcie_update_stats(0);
    add_expected(expected_pcie, 0);
    add_expected(expected_lhx, 1);
    assert_stats(&pcie, 0, expected_pcie);
    assert_stats(&lhx, 0, expected_lhx);

    assert_int_equal(pcie_clear_stats(0), 0);
    assert_stats(&pcie, 0, zeros);
    assert_stats(&lhx, 0, expected_lhx);

    load_counters(0, 2);
    pcie_update_stats(0);
    assert_int_equal(lhx_pcie_clear_stats(0), 0);
    memset(expected_pcie, 0, sizeof(expected_pcie));
    add_expected(expected_pcie, 2);
    assert_stats(&pcie, 0, expected_pcie);
    assert_stats(&lhx, 0, zeros);
    expect_no_more_logs();
}

static void test_pipes_keep_their_own_counters(void **state)
{
    uint64_t expected0[COUNTERS] = { 0 };
    uint64_t expected1[COUNTERS] = { 0 };

    (void)state;
    start(&lh_desc_base_two_pipes);
    create(&pcie, 0, 0);
    create(&pcie, 1, 1);
    load_counters(0, 0);
    load_counters(1, 3);
    pcie_update_stats(0);
    pcie_update_stats(1);
    add_expected(expected0, 0);
    add_expected(expected1, 3);
    assert_stats(&pcie, 0, expected0);
    assert_stats(&pcie, 1, expected1);
    expect_no_more_logs();
}

/* ---- Fatal error detection ---- */

/* Part 3.3's table, in test order. */
static const struct {
    unsigned int bit;
    const char *text;
} rows[ROWS] = {
    { 5, "PBUS Trgt FIFO Overflow" },
    { 4, "PBUS Trgt FIFO Underflow" },
    { 3, "AXI-lite Read Return FIFO Overflow" },
    { 2, "AXI-lite Read Return FIFO Underflow" },
    { 1, "AXI-lite Command FIFO Overflow" },
    { 0, "AXI-lite Command FIFO Underflow" },
};

static void expect_fatal(const struct driver *driver, uint32_t status,
                         const char *text)
{
    lh_fatal_error_t report = { 0, 0, NULL };

    block_store(site_of_driver(driver), STATUS, status);
    assert_int_equal(driver->ops->fatal_error_detect(0, &report), 1);
    assert_non_null(report.error_text);
    assert_string_equal(report.error_text, text);
    expect_logf(LOG_CRIT, "FATAL - %s pipe 0: %s", driver->name, text);
}

static void expect_no_fatal(const struct driver *driver)
{
    lh_fatal_error_t report = { 0, 0, "untouched" };

    assert_int_equal(driver->ops->fatal_error_detect(0, &report), 0);
    assert_string_equal(report.error_text, "untouched");
}

static void test_each_error_bit_alone_reports_its_text(void **state)
{
    (void)state;
    start_both();
    for (size_t d = 0; d < ARRAY_SIZE(drivers); d++) {
        for (size_t i = 0; i < ROWS; i++) {
            status_reads = 0;
            expect_fatal(drivers[d], 1u << rows[i].bit, rows[i].text);
            /* One read per row up to its own. */
            assert_int_equal(status_reads, i + 1);
        }
    }
    assert_int_equal(model->writes, 0);
    expect_no_more_logs();
}

static void test_first_bit_in_table_order_wins(void **state)
{
    (void)state;
    start_both();
    for (size_t d = 0; d < ARRAY_SIZE(drivers); d++) {
        expect_fatal(drivers[d], 1u << 5 | 1u << 0, "PBUS Trgt FIFO Overflow");
        expect_fatal(drivers[d], 0xFFFFFFFF, "PBUS Trgt FIFO Overflow");
        expect_fatal(drivers[d], 1u << 3 | 1u << 2,
                     "AXI-lite Read Return FIFO Overflow");
        expect_fatal(drivers[d], 1u << 4 | 1u << 1,
                     "PBUS Trgt FIFO Underflow");
    }
    expect_no_more_logs();
}

static void test_each_row_outranks_the_next(void **state)
{
    (void)state;
    start_both();
    for (size_t d = 0; d < ARRAY_SIZE(drivers); d++)
        for (size_t i = 0; i + 1 < ROWS; i++)
            expect_fatal(drivers[d], 1u << rows[i].bit | 1u << rows[i + 1].bit,
                         rows[i].text);
    expect_no_more_logs();
}

static void test_bits_6_to_31_report_nothing(void **state)
{
    (void)state;
    start_both();
    for (size_t d = 0; d < ARRAY_SIZE(drivers); d++) {
        block_store(site_of_driver(drivers[d]), STATUS, 0xFFFFFFC0);
        status_reads = 0;
        expect_no_fatal(drivers[d]);
        assert_int_equal(status_reads, ROWS);
    }
    block_store(0, STATUS, 0);
    expect_no_fatal(&pcie);
    assert_int_equal(model->writes, 0);
    expect_no_more_logs();
}

static void run_script(const uint32_t *values, size_t length)
{
    memcpy(script, values, length * sizeof(*values));
    script_length = length;
    status_reads = 0;
}

static void test_each_row_reads_the_register_anew(void **state)
{
    /* Bit 0 appears only at the sixth read, the last row's. */
    static const uint32_t late[] = { 0, 0, 0, 0, 0, 1u << 0 };
    /* Bit 4 shows at the first read (bit 5's row), gone by its own. */
    static const uint32_t gone[] = { 1u << 4, 0 };
    lh_fatal_error_t report = { 0, 0, NULL };

    (void)state;
    start_both();
    run_script(late, ARRAY_SIZE(late));
    assert_int_equal(lhx_pcie_fatal_error_detect(0, &report), 1);
    assert_string_equal(report.error_text, "AXI-lite Command FIFO Underflow");
    expect_log(LOG_CRIT, "FATAL - LHX PCIe pipe 0: AXI-lite Command FIFO "
                         "Underflow");
    assert_int_equal(status_reads, ROWS);

    run_script(gone, ARRAY_SIZE(gone));
    expect_no_fatal(&pcie);
    assert_int_equal(status_reads, ROWS);
    expect_no_more_logs();
}

static void test_standing_error_reported_on_every_call(void **state)
{
    (void)state;
    start_both();
    for (int call = 0; call < 3; call++)
        expect_fatal(&pcie, 1u << 2, "AXI-lite Read Return FIFO Underflow");
    assert_int_equal(block_peek(0, STATUS), 1u << 2);
    assert_int_equal(model->writes, 0);
    expect_no_more_logs();
}

static void test_pcie_and_lhx_pcie_read_their_own_blocks(void **state)
{
    (void)state;
    start_both();
    block_store(1, STATUS, 1u << 1);
    expect_no_fatal(&pcie);
    expect_fatal(&lhx, 1u << 1, "AXI-lite Command FIFO Overflow");
    expect_no_more_logs();
}

/* ---- Refusals ---- */

static void test_null_pointers_come_first(void **state)
{
    (void)state;
    start_both();
    block_store(0, STATUS, 1u << 5);
    for (size_t d = 0; d < ARRAY_SIZE(drivers); d++) {
        const struct driver *driver = drivers[d];

        assert_int_equal(driver->ops->get_stats(0, NULL, STATS_BYTES), -1);
        expect_logf(LOG_ERR, "Null pointer - %s get stats", driver->name);
        assert_int_equal(driver->ops->get_stats(2, NULL, 8), -1);
        expect_logf(LOG_ERR, "Null pointer - %s get stats", driver->name);
        assert_int_equal(driver->ops->fatal_error_detect(0, NULL), 0);
        expect_logf(LOG_ERR, "Null pointer - %s module fatal error detection",
                    driver->name);
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
    start_both();
    load_counters(0, 0);
    load_counters(1, 0);
    block_store(0, STATUS, 1u << 5);
    block_store(1, STATUS, 1u << 5);
    for (size_t d = 0; d < ARRAY_SIZE(drivers); d++) {
        expect_refused_everywhere(drivers[d], 2, "pipe");
        expect_refused_everywhere(drivers[d], 0xFFFFFFFF, "pipe");
    }
    expect_no_more_logs();
}

static void test_invalid_context_refused_by_every_operation(void **state)
{
    (void)state;
    start_both();
    expect_refused_everywhere(&lhx, 1, "context");
    expect_no_more_logs();
}

static void test_size_checked_after_pipe_and_context(void **state)
{
    uint64_t stats[COUNTERS];

    (void)state;
    start_both();
    assert_int_equal(pcie_get_stats(2, stats, 8), -1);
    expect_log(LOG_CRIT, "Error - PCIe get stats - invalid pipe 2");
    assert_int_equal(lhx_pcie_get_stats(1, stats, 32), -1);
    expect_log(LOG_CRIT, "Error - LHX PCIe get stats - invalid context 1");
    expect_no_more_logs();
}

static void test_exact_refusal_lines(void **state)
{
    uint64_t stats[COUNTERS];
    lh_fatal_error_t report;

    (void)state;
    start_both();
    pcie_update_stats(2);
    expect_log(LOG_CRIT, "Error - PCIe update stats - invalid pipe 2");
    assert_int_equal(pcie_get_stats(3, stats, STATS_BYTES), -1);
    expect_log(LOG_CRIT, "Error - PCIe get stats - invalid pipe 3");
    assert_int_equal(pcie_clear_stats(2), -1);
    expect_log(LOG_CRIT, "Error - PCIe clear stats - invalid pipe 2");
    assert_int_equal(pcie_fatal_error_detect(2, &report), 0);
    expect_log(LOG_CRIT, "Error - PCIe module fatal error detection - "
                         "invalid pipe 2");
    lhx_pcie_update_stats(1);
    expect_log(LOG_CRIT, "Error - LHX PCIe update stats - invalid context 1");
    assert_int_equal(lhx_pcie_clear_stats(1), -1);
    expect_log(LOG_CRIT, "Error - LHX PCIe clear stats - invalid context 1");
    assert_int_equal(lhx_pcie_fatal_error_detect(1, &report), 0);
    expect_log(LOG_CRIT, "Error - LHX PCIe module fatal error detection - "
                         "invalid context 1");
    assert_int_equal(pcie_get_stats(0, stats, 8), -1);
    expect_log(LOG_ERR, "Error - PCIe get stats failed, unexpected memory "
                        "size 8");
    assert_int_equal(lhx_pcie_get_stats(0, NULL, STATS_BYTES), -1);
    expect_log(LOG_ERR, "Null pointer - LHX PCIe get stats");
    expect_no_more_logs();
}

int main(void)
{
#define T(name) cmocka_unit_test_teardown(name, teardown)
    /* Contexts are static and never cleared, so the cases that need a
     * context nobody has created run first, in this order. */
    const struct CMUnitTest never_created[] = {
        T(test_mutex_failure_leaves_context_invalid),
        T(test_pipe_1_refused_on_one_pipe_devices),
    };
    const struct CMUnitTest tests[] = {
        T(test_ops_tables_wire_the_operations),
        T(test_create_logs_the_created_line),
        T(test_create_zeroes_the_counters),
        T(test_create_refusals),
        T(test_create_before_initialisation),
        T(test_each_counter_from_its_register),
        T(test_counters_accumulate_over_polls),
        T(test_counters_widen_past_32_bits),
        T(test_get_stats_refuses_other_sizes),
        T(test_get_stats_copies_exactly_16_bytes),
        T(test_clear_zeroes_without_touching_hardware),
        T(test_pcie_and_lhx_pcie_keep_separate_counters),
        T(test_pipes_keep_their_own_counters),
        T(test_each_error_bit_alone_reports_its_text),
        T(test_first_bit_in_table_order_wins),
        T(test_each_row_outranks_the_next),
        T(test_bits_6_to_31_report_nothing),
        T(test_each_row_reads_the_register_anew),
        T(test_standing_error_reported_on_every_call),
        T(test_pcie_and_lhx_pcie_read_their_own_blocks),
        T(test_null_pointers_come_first),
        T(test_invalid_pipe_refused_by_every_operation),
        T(test_invalid_context_refused_by_every_operation),
        T(test_size_checked_after_pipe_and_context),
        T(test_exact_refusal_lines),
    };
    int failed;

    if (enter_private_tmp() != 0)
        return 1;
    failed = cmocka_run_group_tests_name("never created contexts",
                                         never_created, NULL, NULL);
    failed += cmocka_run_group_tests_name("pcie", tests, NULL, NULL);
    return failed;
}
