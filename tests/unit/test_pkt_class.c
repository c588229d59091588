/* Part 4.5: the ingress packet classifier driver (pkt_class) against a
 * model of the block's hardware: clear-on-read counters, three status
 * registers that can change between reads, a count of the reads of every
 * register and the order in which the status registers are read. */
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
#include "pkt_class.h"
#include "private_tmp.h"
#include "syslog_capture.h"

/* Block registers, offsets from the block base (Part 4.5). */
#define STATUS0    0x000u
#define STATUS1    0x200u
#define STATUS2    0x700u
#define BLOCK_SPAN 0x800u

#define ARRAY_SIZE(a) (sizeof(a) / sizeof((a)[0]))

#define NAME              "Ingress Pkt Classifier"
#define STATS_BYTES       568
#define COUNTERS          71
#define COUNTER_REGISTERS 83
#define ERROR_ROWS        62
/* Rows per status register. */
#define STATUS0_ROWS 31
#define STATUS1_ROWS 14
#define STATUS2_ROWS 17

/* The classifier blocks of the base window, pipe 0's and pipe 1's
 * (Part 2.4). */
#define SITES 2
static const uint32_t site_offsets[SITES] = { 0x17000, 0x27000 };

static struct reg_model *model;
static unsigned long reads_of[SITES][BLOCK_SPAN / 4];
/* The status registers in the order they were read. */
static uint32_t status_reads[128];
static size_t status_read_count;
/* Successive reads of status register `scripted_status_reg` return these,
 * then the last one; other registers return the stored word. */
static uint32_t scripted_status_reg;
static uint32_t status_script[32];
static size_t status_script_length;


/* Part 4.5's statistics rule: 12 pairs, then runs of single registers. */
#define PAIRS 12
static const struct {
    uint32_t first;
    size_t count;
} single_runs[] = {
    { 0x80, 11 }, { 0xF0, 13 }, { 0x220, 19 }, { 0x288, 10 }, { 0x720, 6 },
};

/* The register of bits 63..32 (0: none) and of bits 31..0, built from the
 * rule by build_counter_sources. */
static struct {
    uint32_t high, low;
} counter_sources[COUNTERS];

/* Returns the number of counters the rule gives. */
static size_t build_counter_sources(void)
{
    size_t n = 0;

    for (uint32_t k = 0; k < PAIRS; k++, n++) {
        counter_sources[n].high = 0x20 + 8 * k;
        counter_sources[n].low = 0x24 + 8 * k;
    }
    for (size_t run = 0; run < ARRAY_SIZE(single_runs); run++) {
        for (uint32_t i = 0; i < single_runs[run].count; i++, n++) {
            counter_sources[n].high = 0;
            counter_sources[n].low = single_runs[run].first + 4 * i;
        }
    }
    return n;
}

/* Part 4.5's fatal error table, in test order. */
static const struct {
    uint32_t reg;
    unsigned int bit;
    const char *text;
} error_rows[ERROR_ROWS] = {
    { STATUS0, 24, "VF/DMA QID RAM Double bit ECC Error" },
    { STATUS0, 23,
      "Ingress Packet Classification Packet Bus Missing EOP Error" },
    { STATUS0, 22,
      "Ingress Packet Classification Packet Bus Missing SOP Error" },
    { STATUS0, 21, "Response FIFO4 Overflow" },
    { STATUS0, 20, "Response FIFO4 Underflow" },
    { STATUS0, 19, "Control FIFO4 Overflow" },
    { STATUS0, 18, "Control FIFO4 Underflow" },
    { STATUS0, 17, "Response FIFO3 Overflow" },
    { STATUS0, 16, "Response FIFO3 Underflow" },
    { STATUS0, 15, "Control FIFO3 Overflow" },
    { STATUS0, 14, "Control FIFO3 Underflow" },
    { STATUS0, 13, "Four Tuple Table Double bit ECC Error" },
    { STATUS0, 12, "Response FIFO2 Overflow" },
    { STATUS0, 11, "Response FIFO2 Underflow" },
    { STATUS0, 10, "Control FIFO2 Overflow" },
    { STATUS0, 9, "Control FIFO2 Underflow" },
    { STATUS0, 8, "Six Tuple Table Double bit ECC Error" },
    { STATUS0, 7, "Response FIFO1 Overflow" },
    { STATUS0, 6, "Response FIFO1 Underflow" },
    { STATUS0, 5, "Control FIFO1 Overflow" },
    { STATUS0, 4, "Control FIFO1 Underflow" },
    { STATUS0, 3, "Tunnel Table Double bit ECC Error" },
    { STATUS0, 2, "Control FIFO0 Overflow" },
    { STATUS0, 1, "Control FIFO0 Underflow" },
    { STATUS0, 0, "Option Table Double bit ECC Error" },
    { STATUS0, 30, "In-band Access Action Table Timeout Error" },
    { STATUS0, 29, "Inband Flow Manager Packet Bus Missing EOP Error" },
    { STATUS0, 28, "Inband Flow Manager Packet Bus Missing SOP Error" },
    { STATUS0, 27, "Inband Flow Manager FIFO Overflow" },
    { STATUS0, 26, "Inband Flow Manager FIFO Underflow" },
    { STATUS0, 25, "Inband Flow Manager RAM/FIFO Double bit ECC Error" },
    { STATUS1, 13, "Inband Stat Collection Timeout Error" },
    { STATUS1, 12, "Inband Stat Manager Packet Bus Missing EOP Error" },
    { STATUS1, 11, "Inband Stat Manager Packet Bus Missing SOP Error" },
    { STATUS1, 10, "Inband Stat Manager FIFO Overflow" },
    { STATUS1, 9, "Inband Stat Manager FIFO Underflow" },
    { STATUS1, 8, "Inband Stat Manager RAM/FIFO Double bit ECC Error" },
    { STATUS1, 7,
      "Time-out Error when reading statitics from hbm and acc_cache" },
    { STATUS1, 6,
      "Stat Read Flow Missing Error. Flow id mismatch between read request "
      "and response from stat table" },
    { STATUS1, 5, "Stat FIFO Overflow" },
    { STATUS1, 4, "Stat FIFO Underflow" },
    { STATUS1, 3, "Stat FIFO Parity Error" },
    { STATUS1, 2, "Statistics AG RAM Double bit ECC Error" },
    { STATUS1, 1, "Statistics ACC RAM Double bit ECC Error" },
    { STATUS1, 0, "Statistics HBM_RL RAM Double bit ECC Error" },
    { STATUS2, 16, "Key Table (Cache) Double bit ECC Error" },
    { STATUS2, 15, "Timestamp Table (Cache) Double bit ECC Error" },
    { STATUS2, 14, "Action Rule Table (Cache) Double bit ECC error" },
    { STATUS2, 13, "Lookup FIFO Overflow" },
    { STATUS2, 12, "Lookup FIFO Underflow" },
    { STATUS2, 11, "Key Pending FIFO Overflow" },
    { STATUS2, 10, "Key Pending FIFO Underflow" },
    { STATUS2, 9, "DDR4 Read FIFO Overflow" },
    { STATUS2, 8, "DDR4 Read FIFO Underflow" },
    { STATUS2, 7, "Reorder FIFO Overflow" },
    { STATUS2, 6, "Reorder FIFO Underflow" },
    { STATUS2, 5, "Insert FIFO Overflow" },
    { STATUS2, 4, "Reorder FIFO Underflow" },
    { STATUS2, 3, "Cache Response FIFO Overflow" },
    { STATUS2, 2, "Cache Response FIFO Underflow" },
    { STATUS2, 1, "DDR4 Response FIFO Overflow" },
    { STATUS2, 0, "DDR4 Response FIFO Underflow" },
};

static bool is_status_register(uint32_t reg)
{
    return reg == STATUS0 || reg == STATUS1 || reg == STATUS2;
}

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

static uint32_t scripted_status(int site, uint32_t reg, uint32_t stored)
{
    size_t read = reads_of[site][reg / 4] - 1;

    if (status_script_length == 0 || reg != scripted_status_reg)
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
    if (is_status_register(reg)) {
        if (status_read_count < ARRAY_SIZE(status_reads))
            status_reads[status_read_count++] = reg;
        return scripted_status(site, reg, stored);
    }
    if (is_counter_register(reg))
        reg_model_store(window, offset, 0);
    return stored;
}

static void forget_reads(void)
{
    memset(reads_of, 0, sizeof(reads_of));
    status_read_count = 0;
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
    assert_int_equal(pkt_class_context_create(pipe, site_base((int)pipe)), 0);
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
    pkt_class_update_stats(pipe);
    expect_logf(LOG_CRIT, "Error - " NAME " update stats - invalid %s %u", what,
                pipe);
    assert_int_equal(pkt_class_get_stats(pipe, stats, STATS_BYTES), -1);
    expect_logf(LOG_CRIT, "Error - " NAME " get stats - invalid %s %u", what,
                pipe);
    assert_int_equal(stats[0], 0xEEEEEEEEEEEEEEEE);
    assert_int_equal(pkt_class_clear_stats(pipe), -1);
    expect_logf(LOG_CRIT, "Error - " NAME " clear stats - invalid %s %u", what,
                pipe);
    assert_int_equal(pkt_class_fatal_error_detect(pipe, &report), 0);
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
    assert_int_equal(pkt_class_context_create(0, site_base(0)), -1);
    mutex_init_fails = false;
    expect_log(LOG_CRIT, "Error - Ingress Pkt Classifier module context "
                         "create - mutex init failed");
    assert_int_equal(model->reads, 0);
    assert_int_equal(model->writes, 0);
    expect_refused_everywhere(0, "context");
    expect_no_more_logs();
}

static void test_pipe_1_refused_on_one_pipe_device(void **state)
{
    (void)state;
    start(&lh_desc_base_one_pipe);
    assert_int_equal(pkt_class_context_create(1, site_base(1)), -1);
    expect_log(LOG_CRIT, "Error - Ingress Pkt Classifier module context "
                         "create - invalid pipe 1");
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
    pkt_class_update_stats(1);
    expect_log(LOG_CRIT, "Error - Ingress Pkt Classifier update stats - "
                         "invalid context 1");
    assert_int_equal(pkt_class_get_stats(1, stats, STATS_BYTES), -1);
    expect_log(LOG_CRIT, "Error - Ingress Pkt Classifier get stats - "
                         "invalid context 1");
    assert_int_equal(pkt_class_clear_stats(1), -1);
    expect_log(LOG_CRIT, "Error - Ingress Pkt Classifier clear stats - "
                         "invalid context 1");
    assert_int_equal(pkt_class_fatal_error_detect(1, &report), 0);
    expect_log(LOG_CRIT, "Error - Ingress Pkt Classifier fatal error "
                         "detection - invalid context 1");
    expect_no_more_logs();
}

/* ---- Context creation ---- */

static void test_ops_table_wires_the_operations(void **state)
{
    (void)state;
    assert_true(pkt_class_ops.context_create == pkt_class_context_create);
    assert_true(pkt_class_ops.update_stats == pkt_class_update_stats);
    assert_true(pkt_class_ops.get_stats == pkt_class_get_stats);
    assert_true(pkt_class_ops.clear_stats == pkt_class_clear_stats);
    assert_true(pkt_class_ops.fatal_error_detect ==
                pkt_class_fatal_error_detect);
    assert_null(pkt_class_ops.set_interface_state);
    assert_null(pkt_class_ops.get_interface_state);
    assert_null(pkt_class_ops.set_loopback);
    assert_null(pkt_class_ops.get_loopback);
    assert_null(pkt_class_ops.qos_set_profile);
    assert_null(pkt_class_ops.qos_get_profile);
    assert_null(pkt_class_ops.rx_align_monitor);
}

static void test_create_logs_the_created_line(void **state)
{
    (void)state;
    start(&lh_desc_base_two_pipes);
    assert_int_equal(pkt_class_context_create(0, site_base(0)), 0);
    expect_log(LOG_INFO, "Informational - Ingress Pkt Classifier module 0 "
                         "context created");
    assert_int_equal(pkt_class_context_create(1, site_base(1)), 0);
    expect_log(LOG_INFO, "Informational - Ingress Pkt Classifier module 1 "
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
    create(0);
    load_counters(0, 0);
    pkt_class_update_stats(0);
    create(0);
    assert_int_equal(pkt_class_get_stats(0, stats, STATS_BYTES), 0);
    assert_memory_equal(stats, zeros, sizeof(zeros));
    expect_no_more_logs();
}

static void test_create_refusals(void **state)
{
    (void)state;
    start(&lh_desc_base_two_pipes);
    assert_int_equal(pkt_class_context_create(2, NULL), -1);
    expect_log(LOG_ERR,
               "Null pointer - Ingress Pkt Classifier module context create");
    assert_int_equal(pkt_class_context_create(0, NULL), -1);
    expect_log(LOG_ERR,
               "Null pointer - Ingress Pkt Classifier module context create");
    assert_int_equal(pkt_class_context_create(2, site_base(0)), -1);
    expect_log(LOG_CRIT, "Error - Ingress Pkt Classifier module context "
                         "create - invalid pipe 2");
    assert_int_equal(model->writes, 0);
    expect_no_more_logs();
}

static void test_create_before_initialisation(void **state)
{
    (void)state;
    model = fake_device_start(&lh_desc_base_two_pipes, 0);
    assert_int_equal(pkt_class_context_create(0, site_base(0)), -1);
    expect_log(LOG_ERR, "Error - get traffic pipe count failed, - system not "
                        "initialized");
    expect_log(LOG_CRIT, "Error - Ingress Pkt Classifier module context "
                         "create - invalid pipe 0");
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

/* Loads every counter register, and the registers inside the counter
 * ranges' gaps, which are not counters. */
static void load_counters(int site, uint32_t poll)
{
    for (uint32_t reg = 0x04; reg < BLOCK_SPAN; reg += 4)
        if (!is_status_register(reg))
            block_store(site, reg, counter_value(site, reg, poll));
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

    assert_int_equal(pkt_class_get_stats(pipe, stats, STATS_BYTES), 0);
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
    /* The first and last counter of each row of the rule, written out. */
    static const struct {
        size_t index;
        uint64_t value;
    } spot_checks[] = {
        { 0, 0x1000208510002481 },  { 11, 0x100078DD10007CD9 },
        { 12, 0x0000000010008025 }, { 22, 0x000000001000A80D },
        { 23, 0x000000001000F055 }, { 35, 0x0000000010012085 },
        { 36, 0x0000000010022085 }, { 54, 0x00000000100268CD },
        { 55, 0x000000001002882D }, { 64, 0x000000001002AC09 },
        { 65, 0x0000000010072085 }, { 70, 0x0000000010073491 },
    };
    uint64_t expected[COUNTERS] = { 0 };
    uint64_t stats[COUNTERS];

    (void)state;
    start(&lh_desc_base_two_pipes);
    create(0);
    load_counters(0, 0);
    forget_reads();
    pkt_class_update_stats(0);
    assert_counter_reads(0, 1);
    add_expected(expected, 0, 0);
    assert_stats(0, expected);
    assert_int_equal(pkt_class_get_stats(0, stats, STATS_BYTES), 0);
    for (size_t i = 0; i < ARRAY_SIZE(spot_checks); i++)
        assert_int_equal(stats[spot_checks[i].index], spot_checks[i].value);
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
        pkt_class_update_stats(0);
        add_expected(expected, 0, poll);
        assert_stats(0, expected);
    }
    /* The reads cleared the counters: a poll without traffic adds nothing. */
    pkt_class_update_stats(0);
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
    expected[11] = 0xFFFFFFFFFFFFFFFE;
    expected[70] = 0x1FFFFFFFE;
    for (int poll = 0; poll < 2; poll++) {
        block_store(0, 0x78, 0xFFFFFFFF);
        block_store(0, 0x7C, 0xFFFFFFFF);
        block_store(0, 0x734, 0xFFFFFFFF);
        pkt_class_update_stats(0);
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
    pkt_class_update_stats(0);
    load_counters(0, 1);
    reads = model->reads;
    writes = model->writes;
    assert_int_equal(pkt_class_clear_stats(0), 0);
    assert_int_equal(model->reads, reads);
    assert_int_equal(model->writes, writes);
    assert_stats(0, zeros);
    /* The counts still in the hardware are not lost. */
    pkt_class_update_stats(0);
    add_expected(expected, 0, 1);
    assert_stats(0, expected);
    expect_no_more_logs();
}

static void test_get_stats_wants_exactly_568_bytes(void **state)
{
    static const uint64_t sizes[] = { 560, 576, 567, 569, 0 };
    uint8_t buffer[584];
    uint8_t untouched[584];

    (void)state;
    start(&lh_desc_base_two_pipes);
    create(0);
    load_counters(0, 0);
    pkt_class_update_stats(0);
    memset(untouched, 0xEE, sizeof(untouched));
    for (size_t i = 0; i < ARRAY_SIZE(sizes); i++) {
        memcpy(buffer, untouched, sizeof(buffer));
        assert_int_equal(pkt_class_get_stats(0, buffer, sizes[i]), -1);
        expect_logf(LOG_ERR,
                    "Error - " NAME " get stats failed, unexpected memory "
                    "size %lu",
                    (unsigned long)sizes[i]);
        assert_memory_equal(buffer, untouched, sizeof(buffer));
    }
    assert_int_equal(pkt_class_get_stats(0, buffer, STATS_BYTES), 0);
    assert_memory_not_equal(buffer + STATS_BYTES - 8,
                            untouched + STATS_BYTES - 8, 8);
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
    pkt_class_update_stats(0);
    pkt_class_update_stats(1);
    add_expected(expected0, 0, 0);
    add_expected(expected1, 1, 2);
    assert_stats(0, expected0);
    assert_stats(1, expected1);
    assert_int_equal(pkt_class_clear_stats(1), 0);
    memset(expected1, 0, sizeof(expected1));
    assert_stats(0, expected0);
    assert_stats(1, expected1);
    expect_no_more_logs();
}

/* ---- Fatal error detection ---- */

static void store_statuses(int site, uint32_t status0, uint32_t status1,
                           uint32_t status2)
{
    block_store(site, STATUS0, status0);
    block_store(site, STATUS1, status1);
    block_store(site, STATUS2, status2);
}

static void expect_fatal(uint32_t pipe, const char *text)
{
    lh_fatal_error_t report = { 77, 88, NULL };

    assert_int_equal(pkt_class_fatal_error_detect(pipe, &report), 1);
    assert_string_equal(report.error_text, text);
    assert_int_equal(report.module_id, 77);
    assert_int_equal(report.pipe, 88);
    expect_logf(LOG_CRIT, "FATAL - " NAME " pipe %u: %s", pipe, text);
}

static void expect_fatal_from(uint32_t status0, uint32_t status1,
                              uint32_t status2, const char *text)
{
    store_statuses(0, status0, status1, status2);
    expect_fatal(0, text);
}

static void start_both_pipes(void)
{
    start(&lh_desc_base_two_pipes);
    create(0);
    create(1);
}

/* Rows up to `row` were tested on `site`: each read its register once. */
static void assert_reads_through_row(int site, size_t row)
{
    unsigned long expected[3] = { 0, 0, 0 };

    for (size_t i = 0; i <= row; i++)
        expected[error_rows[i].reg == STATUS0   ? 0
                 : error_rows[i].reg == STATUS1 ? 1
                                                : 2]++;
    assert_int_equal(reads_of[site][STATUS0 / 4], expected[0]);
    assert_int_equal(reads_of[site][STATUS1 / 4], expected[1]);
    assert_int_equal(reads_of[site][STATUS2 / 4], expected[2]);
}

static void test_each_error_bit_alone_reports_its_text(void **state)
{
    unsigned long writes;

    (void)state;
    start_both_pipes();
    writes = model->writes;
    for (size_t i = 0; i < ERROR_ROWS; i++) {
        for (uint32_t pipe = 0; pipe < 2; pipe++) {
            int site = (int)pipe;

            store_statuses(site, 0, 0, 0);
            block_store(site, error_rows[i].reg, 1u << error_rows[i].bit);
            forget_reads();
            expect_fatal(pipe, error_rows[i].text);
            /* The walk stopped at this row: the two rows of "Reorder FIFO
             * Underflow" are told apart by their reads. */
            assert_reads_through_row(site, i);
        }
    }
    /* The status registers are only ever read. */
    assert_int_equal(model->writes, writes);
    expect_no_more_logs();
}

static void test_first_set_bit_wins(void **state)
{
    (void)state;
    start_both_pipes();
    /* Bit 0 is tested before bit 30 (Part 4.5). */
    expect_fatal_from(1u << 30 | 1u << 0, 0, 0,
                      "Option Table Double bit ECC Error");
    expect_fatal_from(1u << 25 | 1u << 24, 0, 0,
                      "VF/DMA QID RAM Double bit ECC Error");
    expect_fatal_from(0xFFFFFFFF, 0xFFFFFFFF, 0xFFFFFFFF,
                      "VF/DMA QID RAM Double bit ECC Error");
    expect_fatal_from(0xFE000000, 0xFFFFFFFF, 0xFFFFFFFF,
                      "In-band Access Action Table Timeout Error");
    expect_fatal_from(1u << 25, 1u << 13, 1u << 16,
                      "Inband Flow Manager RAM/FIFO Double bit ECC Error");
    expect_fatal_from(1u << 31, 1u << 0, 1u << 16,
                      "Statistics HBM_RL RAM Double bit ECC Error");
    expect_fatal_from(1u << 31, 0xFFFFC000, 1u << 0 | 1u << 16,
                      "Key Table (Cache) Double bit ECC Error");
    expect_fatal_from(0, 0, 1u << 5 | 1u << 4, "Insert FIFO Overflow");
    expect_fatal_from(0, 0, 1u << 4 | 1u << 3, "Reorder FIFO Underflow");
    expect_fatal_from(0, 1u << 7 | 1u << 6,
                      0, "Time-out Error when reading statitics from hbm and "
                         "acc_cache");
    expect_no_more_logs();
}

static void test_status2_bit_4_reports_reorder_underflow(void **state)
{
    (void)state;
    start_both_pipes();
    expect_fatal_from(0, 0, 1u << 4, "Reorder FIFO Underflow");
    expect_no_more_logs();
}

static void expect_no_fatal(uint32_t status0, uint32_t status1,
                            uint32_t status2)
{
    lh_fatal_error_t report = { 0, 0, "untouched" };
    unsigned long writes = model->writes;

    store_statuses(0, status0, status1, status2);
    forget_reads();
    assert_int_equal(pkt_class_fatal_error_detect(0, &report), 0);
    assert_string_equal(report.error_text, "untouched");
    assert_int_equal(reads_of[0][STATUS0 / 4], STATUS0_ROWS);
    assert_int_equal(reads_of[0][STATUS1 / 4], STATUS1_ROWS);
    assert_int_equal(reads_of[0][STATUS2 / 4], STATUS2_ROWS);
    assert_int_equal(model->writes, writes);
}

static void test_unlisted_bits_report_nothing(void **state)
{
    (void)state;
    start_both_pipes();
    expect_no_fatal(0, 0, 0);
    expect_no_fatal(1u << 31, 0, 0);
    for (unsigned int bit = 14; bit < 32; bit++)
        expect_no_fatal(0, 1u << bit, 0);
    for (unsigned int bit = 17; bit < 32; bit++)
        expect_no_fatal(0, 0, 1u << bit);
    expect_no_fatal(1u << 31, 0xFFFFC000, 0xFFFE0000);
    expect_no_more_logs();
}

static void test_status_registers_read_in_table_order(void **state)
{
    lh_fatal_error_t report = { 0, 0, NULL };

    (void)state;
    start_both_pipes();
    store_statuses(0, 0, 0, 0);
    forget_reads();
    assert_int_equal(pkt_class_fatal_error_detect(0, &report), 0);
    assert_int_equal(status_read_count, ERROR_ROWS);
    for (size_t i = 0; i < ERROR_ROWS; i++)
        assert_int_equal(status_reads[i], error_rows[i].reg);
    expect_no_more_logs();
}

static void run_status_script(uint32_t reg, const uint32_t *script,
                              size_t length)
{
    scripted_status_reg = reg;
    memcpy(status_script, script, length * sizeof(*script));
    status_script_length = length;
    forget_reads();
}

static void test_status_is_read_again_for_every_row(void **state)
{
    /* Status 1 bit 0 only at its 14th read, the row of bit 0. */
    static const uint32_t late[] = { 0, 0, 0, 0, 0, 0, 0,
                                     0, 0, 0, 0, 0, 0, 1u << 0 };
    /* Status 0 bit 0 at the first read only: gone when its row reads. */
    static const uint32_t gone[] = { 1u << 0, 0 };
    /* Status 2 bits 16 and 15 from the second read on. */
    static const uint32_t second[] = { 0, 1u << 16 | 1u << 15 };
    lh_fatal_error_t report = { 0, 0, NULL };

    (void)state;
    start_both_pipes();
    store_statuses(0, 0, 0, 0);
    run_status_script(STATUS1, late, ARRAY_SIZE(late));
    expect_fatal(0, "Statistics HBM_RL RAM Double bit ECC Error");
    assert_int_equal(reads_of[0][STATUS1 / 4], STATUS1_ROWS);
    assert_int_equal(reads_of[0][STATUS2 / 4], 0);

    run_status_script(STATUS0, gone, ARRAY_SIZE(gone));
    assert_int_equal(pkt_class_fatal_error_detect(0, &report), 0);
    assert_null(report.error_text);

    run_status_script(STATUS2, second, ARRAY_SIZE(second));
    expect_fatal(0, "Timestamp Table (Cache) Double bit ECC Error");
    assert_int_equal(reads_of[0][STATUS2 / 4], 2);
    expect_no_more_logs();
}

/* ---- Refusals ---- */

static void test_null_pointers_come_first(void **state)
{
    (void)state;
    start(&lh_desc_base_two_pipes);
    assert_int_equal(pkt_class_get_stats(2, NULL, 1), -1);
    expect_log(LOG_ERR, "Null pointer - Ingress Pkt Classifier get stats");
    assert_int_equal(pkt_class_fatal_error_detect(2, NULL), 0);
    expect_log(LOG_ERR,
               "Null pointer - Ingress Pkt Classifier fatal error detection");
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
    pkt_class_update_stats(2);
    expect_log(LOG_CRIT, "Error - Ingress Pkt Classifier update stats - "
                         "invalid pipe 2");
    assert_int_equal(pkt_class_get_stats(3, stats, STATS_BYTES), -1);
    expect_log(LOG_CRIT, "Error - Ingress Pkt Classifier get stats - "
                         "invalid pipe 3");
    assert_int_equal(pkt_class_clear_stats(2), -1);
    expect_log(LOG_CRIT, "Error - Ingress Pkt Classifier clear stats - "
                         "invalid pipe 2");
    assert_int_equal(pkt_class_fatal_error_detect(2, &report), 0);
    expect_log(LOG_CRIT, "Error - Ingress Pkt Classifier fatal error "
                         "detection - invalid pipe 2");
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
        T(test_get_stats_wants_exactly_568_bytes),
        T(test_pipes_keep_their_own_counters),
        T(test_each_error_bit_alone_reports_its_text),
        T(test_first_set_bit_wins),
        T(test_status2_bit_4_reports_reorder_underflow),
        T(test_unlisted_bits_report_nothing),
        T(test_status_registers_read_in_table_order),
        T(test_status_is_read_again_for_every_row),
        T(test_null_pointers_come_first),
        T(test_invalid_pipe_refused_by_every_operation),
        T(test_exact_invalid_pipe_lines),
    };
    int failed;

    if (enter_private_tmp() != 0)
        return 1;
    if (build_counter_sources() != COUNTERS)
        return 1;
    failed = cmocka_run_group_tests_name("never created contexts",
                                         never_created, NULL, NULL);
    failed += cmocka_run_group_tests_name("ingress packet classifier", tests,
                                          NULL, NULL);
    return failed;
}
