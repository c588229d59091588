/* Part 4.4: the ingress packet processor driver (pkt_proc) against a model
 * of the block's hardware: clear-on-read counters, a status register that
 * can change between reads, and a count of the reads of every register. */
#include <errno.h>
#include <pthread.h>
#include <stdarg.h>
#include <stdbool.h>
#include <stdio.h>
#include <string.h>

#include "cmocka_all.h"
#include "mutex_wrap.h"
#include "lh_drivers.h"
#include "fake_device.h"
#include "lh_log.h"
#include "log_expect.h"
#include "pkt_proc.h"
#include "private_tmp.h"
#include "syslog_capture.h"

/* Block registers, offsets from the block base (Part 4.4). */
#define STATUS     0x00u
#define BLOCK_SPAN 0x100u

#define ARRAY_SIZE(a) (sizeof(a) / sizeof((a)[0]))

#define NAME              "Ingress Pkt Processor"
#define STATS_BYTES       136
#define COUNTERS          17
/* Part 4.4's update_stats says 26, but its register map and statistics
 * table name 24 (0x20..0x44 and 0x50..0x84); the tables decide. */
#define COUNTER_REGISTERS 24
#define ERROR_ROWS        31

/* The processor blocks of the base window, pipe 0's and pipe 1's
 * (Part 2.4). */
#define SITES 2
static const uint32_t site_offsets[SITES] = { 0x18000, 0x28000 };

static struct reg_model *model;
static unsigned long reads_of[SITES][BLOCK_SPAN / 4];
/* Successive reads of a status register return these, then the last one;
 * with no script a read returns the stored word. */
static uint32_t status_script[40];
static size_t status_script_length;


/* Part 4.4's statistics table: the register of bits 63..32 (0: none) and
 * the register of bits 31..0. */
static const struct {
    uint32_t high, low;
} counter_sources[COUNTERS] = {
    { 0x20, 0x24 }, { 0x28, 0x2C }, { 0x30, 0x34 }, { 0x38, 0x3C },
    { 0x40, 0x44 }, { 0x50, 0x54 }, { 0x58, 0x5C }, { 0, 0x60 },
    { 0, 0x64 },    { 0, 0x68 },    { 0, 0x6C },    { 0, 0x70 },
    { 0, 0x74 },    { 0, 0x78 },    { 0, 0x7C },    { 0, 0x80 },
    { 0, 0x84 },
};

/* Part 4.4's fatal error table, in test order. */
static const struct {
    unsigned int bit;
    const char *text;
} error_rows[ERROR_ROWS] = {
    { 30, "Input Packet FIFO Double bit ECC error" },
    { 29, "Input Packet FIFO Overflow" },
    { 28, "Input Packet FIFO Underflow" },
    { 27, "Action Rule Instruction FIFO Double bit ECC error" },
    { 26, "Action Rule Instruction FIFO Overflow" },
    { 25, "Action Rule Instruction FIFO Underflow" },
    { 24, "Rwe Data FIFO Double bit ECC error" },
    { 23, "Rwe Data FIFO Overflow" },
    { 22, "Rwe Data FIFO Underflow" },
    { 21, "Checksum FIFO Double bit ECC error" },
    { 20, "Checksum FIFO Overflow" },
    { 19, "Checksum FIFO Underflow" },
    { 18, "Output Packet FIFO Double bit ECC error" },
    { 17, "Output Packet FIFO Overflow" },
    { 16, "Output Packet FIFO Underflow" },
    { 15, "Delete Replace Skip Insert FIFO Overflow" },
    { 14, "Delete Replace Skip Insert FIFO Underflow" },
    { 13, "Dh Shadow FIFO Overflow" },
    { 12, "Dh Shadow FIFO Underflow" },
    { 11, "Rwe Data Shadow FIFO Overflow" },
    { 10, "Rwe Data Shadow FIFO Underflow" },
    { 9, "Instruction Transform FIFO Overflow" },
    { 8, "Instruction Transform FIFO Underflow" },
    { 7, "Control Message FIFO Overflow" },
    { 6, "Control Message FIFO Underflow" },
    { 5, "Increase Decrease Command FIFO Overflow" },
    { 4, "Increase Decrease Command FIFO Underflow" },
    { 3, "Ingress Parser Packet Bus Missing SOP Error" },
    { 2, "Ingress Parser Packet Bus Missing EOP Error" },
    { 1, "Ingress Classification Packet Bus Missing SOP Error" },
    { 0, "Ingress Classification Packet Bus Missing EOP Error" },
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

static void create(uint32_t pipe)
{
    assert_int_equal(pkt_proc_context_create(pipe, site_base((int)pipe)), 0);
    expect_logf(LOG_INFO, "Informational - " NAME " module %u context created",
                pipe);
}

/* Every operation but context_create fails on `pipe` with "invalid <what>"
 * at severity 2, touching no register. */
static void expect_refused_everywhere(uint32_t pipe, const char *what)
{
    uint64_t stats[COUNTERS];
    lh_fatal_error_t report = { 0, 0, NULL };
    unsigned long reads = model->reads;
    unsigned long writes = model->writes;

    memset(stats, 0xEE, sizeof(stats));
    pkt_proc_update_stats(pipe);
    expect_logf(LOG_CRIT, "Error - " NAME " update stats - invalid %s %u", what,
                pipe);
    assert_int_equal(pkt_proc_get_stats(pipe, stats, STATS_BYTES), -1);
    expect_logf(LOG_CRIT, "Error - " NAME " get stats - invalid %s %u", what,
                pipe);
    assert_int_equal(stats[0], 0xEEEEEEEEEEEEEEEE);
    assert_int_equal(pkt_proc_clear_stats(pipe), -1);
    expect_logf(LOG_CRIT, "Error - " NAME " clear stats - invalid %s %u", what,
                pipe);
    assert_int_equal(pkt_proc_fatal_error_detect(pipe, &report), 0);
    expect_logf(LOG_CRIT,
                "Error - " NAME " fatal error detection - invalid %s %u", what,
                pipe);
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
    assert_int_equal(pkt_proc_context_create(0, site_base(0)), -1);
    mutex_init_fails = false;
    expect_log(LOG_CRIT, "Error - Ingress Pkt Processor module context create "
                         "- mutex init failed");
    assert_int_equal(model->reads, 0);
    assert_int_equal(model->writes, 0);
    expect_refused_everywhere(0, "context");
    expect_no_more_logs();
}

static void test_pipe_1_refused_on_one_pipe_device(void **state)
{
    (void)state;
    start(&lh_desc_base_one_pipe);
    assert_int_equal(pkt_proc_context_create(1, site_base(1)), -1);
    expect_log(LOG_CRIT, "Error - Ingress Pkt Processor module context create "
                         "- invalid pipe 1");
    assert_int_equal(model->writes, 0);
    expect_refused_everywhere(1, "context");
    expect_no_more_logs();
}

static void test_exact_invalid_context_lines(void **state)
{
    uint64_t stats[COUNTERS];
    lh_fatal_error_t report;

    (void)state;
    start(&lh_desc_base_one_pipe);
    pkt_proc_update_stats(1);
    expect_log(LOG_CRIT, "Error - Ingress Pkt Processor update stats - "
                         "invalid context 1");
    assert_int_equal(pkt_proc_get_stats(1, stats, STATS_BYTES), -1);
    expect_log(LOG_CRIT, "Error - Ingress Pkt Processor get stats - "
                         "invalid context 1");
    assert_int_equal(pkt_proc_clear_stats(1), -1);
    expect_log(LOG_CRIT, "Error - Ingress Pkt Processor clear stats - "
                         "invalid context 1");
    assert_int_equal(pkt_proc_fatal_error_detect(1, &report), 0);
    expect_log(LOG_CRIT, "Error - Ingress Pkt Processor fatal error detection "
                         "- invalid context 1");
    expect_no_more_logs();
}

/* ---- Context creation ---- */

static void test_ops_table_wires_the_operations(void **state)
{
    (void)state;
    assert_true(pkt_proc_ops.context_create == pkt_proc_context_create);
    assert_true(pkt_proc_ops.update_stats == pkt_proc_update_stats);
    assert_true(pkt_proc_ops.get_stats == pkt_proc_get_stats);
    assert_true(pkt_proc_ops.clear_stats == pkt_proc_clear_stats);
    assert_true(pkt_proc_ops.fatal_error_detect ==
                pkt_proc_fatal_error_detect);
    assert_null(pkt_proc_ops.set_interface_state);
    assert_null(pkt_proc_ops.get_interface_state);
    assert_null(pkt_proc_ops.set_loopback);
    assert_null(pkt_proc_ops.get_loopback);
    assert_null(pkt_proc_ops.qos_set_profile);
    assert_null(pkt_proc_ops.qos_get_profile);
    assert_null(pkt_proc_ops.rx_align_monitor);
}

static void test_create_logs_the_created_line(void **state)
{
    (void)state;
    start(&lh_desc_base_two_pipes);
    assert_int_equal(pkt_proc_context_create(0, site_base(0)), 0);
    expect_log(LOG_INFO,
               "Informational - Ingress Pkt Processor module 0 context "
               "created");
    assert_int_equal(pkt_proc_context_create(1, site_base(1)), 0);
    expect_log(LOG_INFO,
               "Informational - Ingress Pkt Processor module 1 context "
               "created");
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
    create(0);
    load_counters(0, 0);
    pkt_proc_update_stats(0);
    create(0);
    assert_int_equal(pkt_proc_get_stats(0, stats, STATS_BYTES), 0);
    assert_memory_equal(stats, zeros, sizeof(zeros));
    expect_no_more_logs();
}

static void test_create_refusals(void **state)
{
    (void)state;
    start(&lh_desc_base_two_pipes);
    assert_int_equal(pkt_proc_context_create(2, NULL), -1);
    expect_log(LOG_ERR,
               "Null pointer - Ingress Pkt Processor module context create");
    assert_int_equal(pkt_proc_context_create(0, NULL), -1);
    expect_log(LOG_ERR,
               "Null pointer - Ingress Pkt Processor module context create");
    assert_int_equal(pkt_proc_context_create(2, site_base(0)), -1);
    expect_log(LOG_CRIT, "Error - Ingress Pkt Processor module context create "
                         "- invalid pipe 2");
    assert_int_equal(model->writes, 0);
    expect_no_more_logs();
}

static void test_create_before_initialisation(void **state)
{
    (void)state;
    model = fake_device_start(&lh_desc_base_two_pipes, 0);
    assert_int_equal(pkt_proc_context_create(0, site_base(0)), -1);
    expect_log(LOG_ERR, "Error - get traffic pipe count failed, - system not "
                        "initialized");
    expect_log(LOG_CRIT, "Error - Ingress Pkt Processor module context create "
                         "- invalid pipe 0");
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

/* Loads every counter register, and the two registers between them that
 * are not counters. */
static void load_counters(int site, uint32_t poll)
{
    for (size_t i = 0; i < COUNTERS; i++) {
        if (counter_sources[i].high != 0)
            block_store(site, counter_sources[i].high,
                        counter_value(site, counter_sources[i].high, poll));
        block_store(site, counter_sources[i].low,
                    counter_value(site, counter_sources[i].low, poll));
    }
    block_store(site, 0x48, counter_value(site, 0x48, poll));
    block_store(site, 0x4C, counter_value(site, 0x4C, poll));
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

static void assert_stats(uint32_t pipe, const uint64_t *expected)
{
    uint64_t stats[COUNTERS];

    assert_int_equal(pkt_proc_get_stats(pipe, stats, STATS_BYTES), 0);
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
        0x1000208510002481, 0x1000288D10002C89, 0x1000309510003491,
        0x1000389D10003C99, 0x100040E5100044E1, 0x100050F5100054F1,
        0x100058FD10005CF9, 0x00000000100060C5, 0x00000000100064C1,
        0x00000000100068CD, 0x0000000010006CC9, 0x00000000100070D5,
        0x00000000100074D1, 0x00000000100078DD, 0x0000000010007CD9,
        0x0000000010008025, 0x0000000010008421,
    };

    (void)state;
    start(&lh_desc_base_two_pipes);
    create(0);
    load_counters(0, 0);
    forget_reads();
    pkt_proc_update_stats(0);
    assert_counter_reads(0, 1);
    assert_stats(0, expected);
    expect_no_more_logs();
}

static void test_counters_accumulate_over_polls(void **state)
{
    uint64_t expected[COUNTERS] = { 0 };

    (void)state;
    start(&lh_desc_base_two_pipes);
    create(0);
    for (uint32_t poll = 0; poll < 3; poll++) {
        load_counters(0, poll);
        pkt_proc_update_stats(0);
        add_expected(expected, 0, poll);
        assert_stats(0, expected);
    }
    /* The reads cleared the counters: a poll without traffic adds nothing. */
    pkt_proc_update_stats(0);
    assert_counter_reads(0, 4);
    assert_stats(0, expected);
    expect_no_more_logs();
}

static void test_counter_totals_wrap(void **state)
{
    uint64_t expected[COUNTERS] = { 0 };

    (void)state;
    start(&lh_desc_base_two_pipes);
    create(0);
    expected[0] = 0xFFFFFFFFFFFFFFFE;
    expected[7] = 0x1FFFFFFFE;
    for (int poll = 0; poll < 2; poll++) {
        block_store(0, 0x20, 0xFFFFFFFF);
        block_store(0, 0x24, 0xFFFFFFFF);
        block_store(0, 0x60, 0xFFFFFFFF);
        pkt_proc_update_stats(0);
    }
    assert_stats(0, expected);
    expect_no_more_logs();
}

static void test_clear_then_get_yields_zeros(void **state)
{
    static const uint64_t zeros[COUNTERS];
    uint64_t expected[COUNTERS] = { 0 };
    unsigned long reads, writes;

    (void)state;
    start(&lh_desc_base_two_pipes);
    create(0);
    load_counters(0, 0);
    pkt_proc_update_stats(0);
    load_counters(0, 1);
    reads = model->reads;
    writes = model->writes;
    assert_int_equal(pkt_proc_clear_stats(0), 0);
    assert_int_equal(model->reads, reads);
    assert_int_equal(model->writes, writes);
    assert_stats(0, zeros);
    /* The counts still in the hardware are not lost. */
    pkt_proc_update_stats(0);
    add_expected(expected, 0, 1);
    assert_stats(0, expected);
    expect_no_more_logs();
}

static void test_get_stats_wants_exactly_136_bytes(void **state)
{
    static const uint64_t sizes[] = { 144, 135, 137, 0, 128 };
    uint8_t buffer[152];
    uint8_t untouched[152];

    (void)state;
    start(&lh_desc_base_two_pipes);
    create(0);
    load_counters(0, 0);
    pkt_proc_update_stats(0);
    memset(untouched, 0xEE, sizeof(untouched));
    for (size_t i = 0; i < ARRAY_SIZE(sizes); i++) {
        memcpy(buffer, untouched, sizeof(buffer));
        assert_int_equal(pkt_proc_get_stats(0, buffer, sizes[i]), -1);
        expect_logf(LOG_ERR,
                    "Error - " NAME " get stats failed, unexpected memory "
                    "size %lu",
                    (unsigned long)sizes[i]);
        assert_memory_equal(buffer, untouched, sizeof(buffer));
    }
    assert_int_equal(pkt_proc_get_stats(0, buffer, STATS_BYTES), 0);
    assert_memory_not_equal(buffer, untouched, STATS_BYTES);
    assert_memory_equal(buffer + STATS_BYTES, untouched + STATS_BYTES,
                        sizeof(buffer) - STATS_BYTES);
    expect_no_more_logs();
}

static void test_pipes_keep_their_own_counters(void **state)
{
    uint64_t expected0[COUNTERS] = { 0 };
    uint64_t expected1[COUNTERS] = { 0 };

    (void)state;
    start(&lh_desc_base_two_pipes);
    create(0);
    create(1);
    load_counters(0, 0);
    load_counters(1, 2);
    pkt_proc_update_stats(0);
    pkt_proc_update_stats(1);
    add_expected(expected0, 0, 0);
    add_expected(expected1, 1, 2);
    assert_stats(0, expected0);
    assert_stats(1, expected1);
    assert_int_equal(pkt_proc_clear_stats(1), 0);
    memset(expected1, 0, sizeof(expected1));
    assert_stats(0, expected0);
    assert_stats(1, expected1);
    expect_no_more_logs();
}

/* ---- Fatal error detection ---- */

static void expect_fatal(uint32_t pipe, uint32_t status, const char *text)
{
    lh_fatal_error_t report = { 77, 88, NULL };

    block_store((int)pipe, STATUS, status);
    assert_int_equal(pkt_proc_fatal_error_detect(pipe, &report), 1);
    assert_string_equal(report.error_text, text);
    assert_int_equal(report.module_id, 77);
    assert_int_equal(report.pipe, 88);
    expect_logf(LOG_CRIT, "FATAL - " NAME " pipe %u: %s", pipe, text);
}

static void start_both_pipes(void)
{
    start(&lh_desc_base_two_pipes);
    create(0);
    create(1);
}

static void test_each_error_bit_alone_reports_its_text(void **state)
{
    unsigned long writes;

    (void)state;
    start_both_pipes();
    writes = model->writes;
    for (size_t i = 0; i < ERROR_ROWS; i++) {
        expect_fatal(0, 1u << error_rows[i].bit, error_rows[i].text);
        expect_fatal(1, 1u << error_rows[i].bit, error_rows[i].text);
    }
    /* The status register is only ever read. */
    assert_int_equal(model->writes, writes);
    expect_no_more_logs();
}

static void test_first_set_bit_wins(void **state)
{
    (void)state;
    start_both_pipes();
    expect_fatal(0, 1u << 30 | 1u << 0,
                 "Input Packet FIFO Double bit ECC error");
    expect_fatal(0, 0xFFFFFFFF, "Input Packet FIFO Double bit ECC error");
    expect_fatal(0, 1u << 15 | 1u << 16, "Output Packet FIFO Underflow");
    expect_fatal(1, 1u << 0 | 1u << 1,
                 "Ingress Classification Packet Bus Missing SOP Error");
    expect_fatal(0, 1u << 31 | 1u << 0,
                 "Ingress Classification Packet Bus Missing EOP Error");
    expect_no_more_logs();
}

static void expect_no_fatal(uint32_t status)
{
    lh_fatal_error_t report = { 0, 0, "untouched" };
    unsigned long writes = model->writes;

    block_store(0, STATUS, status);
    forget_reads();
    assert_int_equal(pkt_proc_fatal_error_detect(0, &report), 0);
    assert_string_equal(report.error_text, "untouched");
    assert_int_equal(reads_of[0][STATUS / 4], ERROR_ROWS);
    assert_int_equal(model->writes, writes);
}

static void test_bit_31_reports_nothing(void **state)
{
    (void)state;
    start_both_pipes();
    expect_no_fatal(0);
    expect_no_fatal(1u << 31);
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
    /* Bit 0 only from the 31st read, the row of bit 0. */
    uint32_t late[ERROR_ROWS] = { 0 };
    /* Bit 0 at the first read only: gone when its row reads again. */
    static const uint32_t gone[] = { 1u << 0, 0 };
    /* Bits 30 and 29 from the second read on: found by bit 29's read. */
    static const uint32_t second[] = { 0, 1u << 30 | 1u << 29 };
    lh_fatal_error_t report = { 0, 0, NULL };

    (void)state;
    start_both_pipes();
    late[ERROR_ROWS - 1] = 1u << 0;
    run_status_script(late, ARRAY_SIZE(late));
    assert_int_equal(pkt_proc_fatal_error_detect(0, &report), 1);
    assert_string_equal(report.error_text,
                        "Ingress Classification Packet Bus Missing EOP Error");
    assert_int_equal(reads_of[0][STATUS / 4], ERROR_ROWS);
    expect_log(LOG_CRIT, "FATAL - Ingress Pkt Processor pipe 0: Ingress "
                         "Classification Packet Bus Missing EOP Error");

    report.error_text = NULL;
    run_status_script(gone, ARRAY_SIZE(gone));
    assert_int_equal(pkt_proc_fatal_error_detect(0, &report), 0);
    assert_null(report.error_text);
    assert_int_equal(reads_of[0][STATUS / 4], ERROR_ROWS);

    run_status_script(second, ARRAY_SIZE(second));
    assert_int_equal(pkt_proc_fatal_error_detect(0, &report), 1);
    assert_string_equal(report.error_text, "Input Packet FIFO Overflow");
    assert_int_equal(reads_of[0][STATUS / 4], 2);
    expect_log(LOG_CRIT,
               "FATAL - Ingress Pkt Processor pipe 0: Input Packet FIFO "
               "Overflow");
    expect_no_more_logs();
}

/* ---- Refusals ---- */

static void test_null_pointers_come_first(void **state)
{
    (void)state;
    start(&lh_desc_base_two_pipes);
    assert_int_equal(pkt_proc_get_stats(2, NULL, 1), -1);
    expect_log(LOG_ERR, "Null pointer - Ingress Pkt Processor get stats");
    assert_int_equal(pkt_proc_fatal_error_detect(2, NULL), 0);
    expect_log(LOG_ERR,
               "Null pointer - Ingress Pkt Processor fatal error detection");
    expect_no_more_logs();
}

static void test_invalid_pipe_refused_by_every_operation(void **state)
{
    (void)state;
    start_both_pipes();
    expect_refused_everywhere(2, "pipe");
    expect_no_more_logs();
}

static void test_exact_invalid_pipe_lines(void **state)
{
    uint64_t stats[COUNTERS];
    lh_fatal_error_t report;

    (void)state;
    start(&lh_desc_base_two_pipes);
    pkt_proc_update_stats(2);
    expect_log(LOG_CRIT, "Error - Ingress Pkt Processor update stats - "
                         "invalid pipe 2");
    assert_int_equal(pkt_proc_get_stats(3, stats, STATS_BYTES), -1);
    expect_log(LOG_CRIT, "Error - Ingress Pkt Processor get stats - "
                         "invalid pipe 3");
    assert_int_equal(pkt_proc_clear_stats(2), -1);
    expect_log(LOG_CRIT, "Error - Ingress Pkt Processor clear stats - "
                         "invalid pipe 2");
    assert_int_equal(pkt_proc_fatal_error_detect(2, &report), 0);
    expect_log(LOG_CRIT, "Error - Ingress Pkt Processor fatal error detection "
                         "- invalid pipe 2");
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
        T(test_exact_invalid_context_lines),
    };
    const struct CMUnitTest tests[] = {
        T(test_ops_table_wires_the_operations),
        T(test_create_logs_the_created_line),
        T(test_create_zeroes_the_counters),
        T(test_create_refusals),
        T(test_create_before_initialisation),
        T(test_every_counter_composed_from_its_registers),
        T(test_counters_accumulate_over_polls),
        T(test_counter_totals_wrap),
        T(test_clear_then_get_yields_zeros),
        T(test_get_stats_wants_exactly_136_bytes),
        T(test_pipes_keep_their_own_counters),
        T(test_each_error_bit_alone_reports_its_text),
        T(test_first_set_bit_wins),
        T(test_bit_31_reports_nothing),
        T(test_status_is_read_again_for_every_row),
        T(test_null_pointers_come_first),
        T(test_invalid_pipe_refused_by_every_operation),
        T(test_exact_invalid_pipe_lines),
    };
    int failed;

    if (enter_private_tmp() != 0)
        return 1;
    failed = cmocka_run_group_tests_name("never created contexts",
                                         never_created, NULL, NULL);
    failed += cmocka_run_group_tests_name("ingress packet processor", tests,
                                          NULL, NULL);
    return failed;
}
