#include "block_fixture.hpp"

#include <string.h>

#include "fake_device.hpp"
#include "log_expect.hpp"
#include "private_tmp.hpp"

#define UNTOUCHED 0xEE
#define TAIL      16 /* bytes past the largest record */

struct traced_read {
    int site;
    uint32_t reg;
};

static struct {
    const struct bt_layout *layout;
    struct reg_model *model;
    unsigned long reads_of[BT_MAX_SITES][BT_MAX_SPAN / 4];
    unsigned long other_reads;
    struct traced_read trace[BT_MAX_TRACE];
    size_t trace_count;
    uint32_t script_reg;
    uint32_t script[BT_MAX_SCRIPT];
    size_t script_length;
    size_t script_reads;
} bt;

/* Records and buffers of the checks, static so a failed check leaks
 * nothing. */
static uint8_t buffer[BT_MAX_RECORD + TAIL];
static uint8_t untouched[BT_MAX_RECORD + TAIL];
static uint8_t record[BT_MAX_RECORD];
static const uint8_t zeros[BT_MAX_RECORD] = {};
static uint64_t scratch[2][BT_MAX_RECORD / 8];

/* ---- The window model ---- */

uint32_t bt_value_by_reg(int site, uint32_t reg, uint32_t poll)
{
    (void)site;
    return (poll + 1) << 24 | reg << 8 | (reg ^ 0xA5);
}

uint32_t bt_value_by_site(int site, uint32_t reg, uint32_t poll)
{
    return (poll + 1) << 28 | (uint32_t)site << 24 | reg << 8 |
           ((reg & 0xFF) ^ 0xA5);
}

/* The copy holding window offset `offset`, with the block register in
 * `reg`; -1 outside every copy. */
static int site_of(uint32_t offset, uint32_t *reg)
{
    const struct bt_layout *layout = bt.layout;

    for (size_t site = 0; site < layout->site_count; site++) {
        if (offset >= layout->sites[site] &&
            offset < layout->sites[site] + layout->span) {
            *reg = offset - layout->sites[site];
            return (int)site;
        }
    }
    return -1;
}

static bool is_status(uint32_t reg)
{
    for (size_t i = 0; i < bt.layout->status_count; i++)
        if (reg == bt.layout->status[i])
            return true;
    return false;
}

bool bt_is_counter(uint32_t reg)
{
    for (size_t i = 0; i < bt.layout->counter_count; i++) {
        const struct bt_counter *counter = &bt.layout->counters[i];

        if (reg == counter->low || (counter->high != 0 && reg == counter->high))
            return true;
    }
    return false;
}

static uint32_t status_read(int site, uint32_t reg, uint32_t stored)
{
    size_t limit = bt.layout->max_status_reads != 0
                       ? bt.layout->max_status_reads
                       : BT_MAX_TRACE;
    size_t read;

    /* Past the limit the read is reported once and no longer traced. */
    if (bt.trace_count == limit)
        ADD_FAILURE() << format_text("more than %zu status reads", limit);
    if (bt.trace_count < BT_MAX_TRACE)
        bt.trace[bt.trace_count] = traced_read{site, reg};
    bt.trace_count++;
    if (bt.script_length == 0 ||
        (bt.script_reg != BT_EVERY_STATUS && reg != bt.script_reg))
        return stored;
    read = bt.script_reads++;
    if (read >= bt.script_length)
        read = bt.script_length - 1;
    return bt.script[read];
}

static uint32_t window_read(struct reg_model *model, uint32_t offset,
                            uint32_t stored)
{
    uint32_t reg;
    int site = site_of(offset, &reg);

    if (site < 0) {
        bt.other_reads++;
        return stored;
    }
    bt.reads_of[site][reg / 4]++;
    if (is_status(reg))
        return status_read(site, reg, stored);
    bt.other_reads++;
    if (bt_is_counter(reg)) {
        reg_model_store(model, offset, 0);
        return stored;
    }
    if (bt.layout->on_read != NULL)
        return bt.layout->on_read(site, reg, stored);
    return stored;
}

static void window_write(struct reg_model *model, uint32_t offset,
                         uint32_t value)
{
    uint32_t reg = offset;
    int site = site_of(offset, &reg);

    bt.layout->on_write(site, reg, value);
    reg_model_store(model, offset, value);
}

static struct reg_model *start(const struct bt_layout *layout,
                               lh_device_desc *device, int initialized)
{
    EXPECT_TRUE(layout->site_count <= BT_MAX_SITES);
    EXPECT_TRUE(layout->span <= BT_MAX_SPAN);
    EXPECT_TRUE(layout->status_count <= BT_MAX_STATUS);
    EXPECT_TRUE(layout->max_status_reads <= BT_MAX_TRACE);
    bt.layout = layout;
    bt.model = fake_device_start(device, initialized);
    bt.model->on_read = window_read;
    bt.model->on_write = layout->on_write != NULL ? window_write : NULL;
    bt.script_length = 0;
    bt_forget_reads();
    return bt.model;
}

struct reg_model *bt_start(const struct bt_layout *layout,
                           lh_device_desc *device)
{
    return start(layout, device, 1);
}

volatile void *bt_site_base(int site)
{
    return (uint8_t *)bt.model->words + bt.layout->sites[site];
}

void bt_store(int site, uint32_t reg, uint32_t value)
{
    reg_model_store(bt.model, bt.layout->sites[site] + reg, value);
}

uint32_t bt_peek(int site, uint32_t reg)
{
    return reg_model_peek(bt.model, bt.layout->sites[site] + reg);
}

void bt_set_statuses(int site, uint32_t status0, uint32_t status1,
                     uint32_t status2)
{
    const uint32_t values[BT_MAX_STATUS] = {status0, status1, status2};

    for (size_t i = 0; i < bt.layout->status_count; i++)
        bt_store(site, bt.layout->status[i], values[i]);
}

void bt_forget_reads(void)
{
    memset(bt.reads_of, 0, sizeof(bt.reads_of));
    bt.other_reads = 0;
    bt.trace_count = 0;
    bt.script_reads = 0;
}

unsigned long bt_reads(int site, uint32_t reg)
{
    return bt.reads_of[site][reg / 4];
}

unsigned long bt_status_reads(int site)
{
    unsigned long reads = 0;

    for (size_t i = 0; i < bt.layout->status_count; i++)
        reads += bt_reads(site, bt.layout->status[i]);
    return reads;
}

unsigned long bt_other_reads(void)
{
    return bt.other_reads;
}

void bt_assert_status_trace(int site, const uint32_t *regs, size_t count)
{
    ASSERT_EQ(bt.trace_count, count);
    for (size_t i = 0; i < count; i++) {
        ASSERT_EQ(bt.trace[i].site, site);
        ASSERT_EQ(bt.trace[i].reg, regs[i]);
    }
    ASSERT_EQ(bt.other_reads, 0);
}

void bt_script(uint32_t reg, const uint32_t *values, size_t length)
{
    ASSERT_TRUE(length <= BT_MAX_SCRIPT);
    memcpy(bt.script, values, length * sizeof(*values));
    bt.script_reg = reg;
    bt.script_length = length;
    bt_forget_reads();
}

size_t bt_script_reads(void)
{
    return bt.script_reads;
}

void bt_load_counters(int site, uint32_t poll)
{
    const struct bt_layout *layout = bt.layout;

    for (size_t i = 0; i < layout->counter_count; i++) {
        const struct bt_counter *counter = &layout->counters[i];

        if (counter->high != 0)
            bt_store(site, counter->high,
                     layout->value(site, counter->high, poll));
        bt_store(site, counter->low, layout->value(site, counter->low, poll));
    }
}

void bt_load_poll(int site, uint32_t poll)
{
    if (bt.layout->load != NULL)
        bt.layout->load(site, poll);
    else
        bt_load_counters(site, poll);
}

void bt_assert_counter_reads(int site, unsigned long times, size_t registers)
{
    unsigned long total = 0;

    for (uint32_t reg = 0; reg < bt.layout->span; reg += 4) {
        unsigned long expected = bt_is_counter(reg) ? times : 0;

        ASSERT_EQ(bt_reads(site, reg), expected);
        total += bt_reads(site, reg);
    }
    ASSERT_EQ(total, registers * times);
}

void bt_add_counters(uint64_t *sums, const struct bt_counter *sources,
                     size_t count, bt_value_fn value, int site, uint32_t poll)
{
    for (size_t i = 0; i < count; i++) {
        uint64_t high =
            sources[i].high == 0 ? 0 : value(site, sources[i].high, poll);

        sums[i] += high << 32 | value(site, sources[i].low, poll);
    }
}

void bt_add_expected(uint64_t *sums, int site, uint32_t poll)
{
    bt_add_counters(sums, bt.layout->counters, bt.layout->counter_count,
                    bt.layout->value, site, poll);
}

/* ---- A driver ---- */

void bt_assert_ops(const struct lh_block_ops *ops,
                   const struct lh_block_ops *expected)
{
    ASSERT_EQ(ops->context_create, expected->context_create);
    ASSERT_EQ(ops->set_interface_state, expected->set_interface_state);
    ASSERT_EQ(ops->get_interface_state, expected->get_interface_state);
    ASSERT_EQ(ops->set_loopback, expected->set_loopback);
    ASSERT_EQ(ops->get_loopback, expected->get_loopback);
    ASSERT_EQ(ops->update_stats, expected->update_stats);
    ASSERT_EQ(ops->get_stats, expected->get_stats);
    ASSERT_EQ(ops->clear_stats, expected->clear_stats);
    ASSERT_EQ(ops->fatal_error_detect, expected->fatal_error_detect);
    ASSERT_EQ(ops->qos_set_profile, expected->qos_set_profile);
    ASSERT_EQ(ops->qos_get_profile, expected->qos_get_profile);
    ASSERT_EQ(ops->rx_align_monitor, expected->rx_align_monitor);
}

void bt_create_at(const struct bt_driver *d, uint32_t pipe, volatile void *base)
{
    ASSERT_EQ(d->ops->context_create(pipe, base), 0);
    expect_logf(LOG_INFO, "Informational - %s module %u context created",
                d->name, pipe);
}

void bt_create(const struct bt_driver *d, uint32_t pipe, int site)
{
    bt_create_at(d, pipe, bt_site_base(site));
}

void bt_expect_create_null(const struct bt_driver *d, uint32_t pipe)
{
    ASSERT_EQ(d->ops->context_create(pipe, NULL), -1);
    expect_logf(LOG_ERR, "Null pointer - %s module context create", d->name);
}

void bt_expect_create_refused(const struct bt_driver *d, uint32_t pipe,
                              volatile void *base)
{
    ASSERT_EQ(d->ops->context_create(pipe, base), -1);
    expect_logf(LOG_CRIT, "Error - %s module context create - invalid pipe %d",
                d->name, (int)pipe);
}

void bt_expect_mutex_failure(const struct bt_driver *d, uint32_t pipe,
                             volatile void *base)
{
    ASSERT_EQ(d->ops->context_create(pipe, base), -1);
    expect_logf(LOG_CRIT,
                "Error - %s module context create - mutex init failed",
                d->name);
}

void bt_expect_create_refusals(const struct bt_driver *d)
{
    struct reg_model *model = fake_device_model();
    unsigned long reads = model->reads;
    unsigned long writes = model->writes;

    bt_expect_create_null(d, 2);
    bt_expect_create_null(d, 0);
    bt_expect_create_refused(d, 2, bt_site_base(0));
    ASSERT_EQ(model->reads, reads);
    ASSERT_EQ(model->writes, writes);
}

void bt_expect_create_before_init(const struct bt_layout *layout,
                                  const struct bt_driver *d)
{
    struct reg_model *model = start(layout, d->device, 0);

    ASSERT_EQ(d->ops->context_create(0, bt_site_base(0)), -1);
    expect_log(LOG_ERR, "Error - get traffic pipe count failed, - system not "
                        "initialized");
    expect_logf(LOG_CRIT, "Error - %s module context create - invalid pipe 0",
                d->name);
    ASSERT_EQ(model->reads, 0);
    ASSERT_EQ(model->writes, 0);
    expect_no_more_logs();
}

/* ---- Refusals ---- */

static const char *get_words(const struct bt_driver *d)
{
    return d->get_words != NULL ? d->get_words : "get stats";
}

/* The buffer of a call, larger than any record, every byte UNTOUCHED. */
static uint8_t *fresh_buffer(const struct bt_driver *d)
{
    EXPECT_TRUE(d->stats_bytes + TAIL <= sizeof(buffer));
    memset(buffer, UNTOUCHED, sizeof(buffer));
    memset(untouched, UNTOUCHED, sizeof(untouched));
    return buffer;
}

/* Not one byte of the buffer was written from `from` on. */
static void assert_untouched_from(size_t from)
{
    ASSERT_EQ(memcmp(buffer + from, untouched + from, sizeof(buffer) - from), 0);
}

int bt_call_update_stats(const struct bt_driver *d, uint32_t pipe)
{
    d->ops->update_stats(pipe);
    return 0;
}

int bt_call_get_stats(const struct bt_driver *d, uint32_t pipe)
{
    int result = d->ops->get_stats(pipe, fresh_buffer(d), d->stats_bytes);

    assert_untouched_from(0);
    return result;
}

int bt_call_get_stats_wrong_size(const struct bt_driver *d, uint32_t pipe)
{
    int result = d->ops->get_stats(pipe, fresh_buffer(d), 1);

    assert_untouched_from(0);
    return result;
}

int bt_call_clear_stats(const struct bt_driver *d, uint32_t pipe)
{
    return d->ops->clear_stats(pipe);
}

int bt_call_fatal_error_detect(const struct bt_driver *d, uint32_t pipe)
{
    lh_fatal_error_t report = {77, 88, "untouched"};
    int result = d->ops->fatal_error_detect(pipe, &report);

    EXPECT_STREQ(report.error_text, "untouched");
    EXPECT_EQ(report.module_id, 77u);
    EXPECT_EQ(report.pipe, 88u);
    return result;
}

int bt_null_get_stats(const struct bt_driver *d, uint32_t pipe)
{
    return d->ops->get_stats(pipe, NULL, d->stats_bytes);
}

int bt_null_get_stats_wrong_size(const struct bt_driver *d, uint32_t pipe)
{
    return d->ops->get_stats(pipe, NULL, 1);
}

int bt_null_fatal_error_detect(const struct bt_driver *d, uint32_t pipe)
{
    return d->ops->fatal_error_detect(pipe, NULL);
}

/* The calls refused on `pipe` with their null pointer lines (`what`
 * null) or their "invalid <what>" lines, no register read or written. */
static void expect_refused(const struct bt_driver *d,
                           const struct bt_call *calls, size_t count,
                           uint32_t pipe, const char *what)
{
    struct reg_model *model = fake_device_model();
    unsigned long reads = model->reads;
    unsigned long writes = model->writes;

    for (size_t i = 0; i < count; i++) {
        ASSERT_EQ(calls[i].call(d, pipe), calls[i].refused);
        if (what == NULL)
            expect_logf(calls[i].severity, "Null pointer - %s %s", d->name,
                        calls[i].words);
        else
            expect_logf(calls[i].severity, "Error - %s %s - invalid %s %d",
                        d->name, calls[i].words, what, (int)pipe);
    }
    ASSERT_EQ(model->reads, reads);
    ASSERT_EQ(model->writes, writes);
}

void bt_expect_refusals(const struct bt_driver *d, const struct bt_call *calls,
                        size_t count, uint32_t pipe, const char *what)
{
    expect_refused(d, calls, count, pipe, what);
}

void bt_expect_null_refusals(const struct bt_driver *d,
                             const struct bt_call *calls, size_t count,
                             uint32_t pipe)
{
    expect_refused(d, calls, count, pipe, NULL);
}

/* ---- The statistics record ---- */

void bt_expect_wrong_sizes(const struct bt_driver *d, uint32_t pipe,
                           const uint64_t *sizes, size_t count)
{
    for (size_t i = 0; i < count; i++) {
        ASSERT_EQ(d->ops->get_stats(pipe, fresh_buffer(d), sizes[i]), -1);
        expect_logf(LOG_ERR, "Error - %s %s failed, unexpected memory size %lu",
                    d->name, get_words(d), (unsigned long)sizes[i]);
        assert_untouched_from(0);
    }
}

void bt_get_stats(const struct bt_driver *d, uint32_t pipe, void *out)
{
    ASSERT_EQ(d->ops->get_stats(pipe, fresh_buffer(d), d->stats_bytes), 0);
    assert_untouched_from(d->stats_bytes);
    memcpy(out, buffer, d->stats_bytes);
}

void bt_assert_stats(const struct bt_driver *d, uint32_t pipe,
                     const void *expected)
{
    const uint8_t *want = static_cast<const uint8_t*>(expected);

    bt_get_stats(d, pipe, record);
    for (size_t at = 0; at < d->stats_bytes; at += 8) {
        size_t length = d->stats_bytes - at < 8 ? d->stats_bytes - at : 8;
        uint64_t got = 0, wanted = 0;

        if (memcmp(record + at, want + at, length) == 0)
            continue;
        memcpy(&got, record + at, length);
        memcpy(&wanted, want + at, length);
        ADD_FAILURE() << format_text("%s counter %zu is 0x%016llx, expected 0x%016llx", d->name, at / 8, (unsigned long long)got, (unsigned long long)wanted);
    }
}

/* ---- Statistics scenarios ---- */

/* Zeroed sums for the record of `d`. */
static uint64_t *no_counts(const struct bt_driver *d, int which)
{
    EXPECT_TRUE(d->stats_bytes <= sizeof(scratch[which]));
    memset(scratch[which], 0, sizeof(scratch[which]));
    return scratch[which];
}

void bt_check_composition(const struct bt_driver *d, uint32_t pipe, int site,
                          const uint64_t *expected, size_t registers)
{
    unsigned long reads;

    bt_load_poll(site, 0);
    bt_forget_reads();
    reads = bt.model->reads;
    d->ops->update_stats(pipe);
    ASSERT_EQ(bt.model->reads - reads, registers);
    bt_assert_counter_reads(site, 1, registers);
    bt_assert_stats(d, pipe, expected);
}

void bt_check_create_zeroes(const struct bt_driver *d, uint32_t pipe, int site)
{
    bt_load_poll(site, 0);
    d->ops->update_stats(pipe);
    bt_create(d, pipe, site);
    bt_assert_stats(d, pipe, zeros);
}

void bt_check_polls_accumulate(const struct bt_driver *d, uint32_t pipe,
                               int site)
{
    uint64_t *expected = no_counts(d, 0);

    for (uint32_t poll = 0; poll < 3; poll++) {
        bt_load_poll(site, poll);
        d->ops->update_stats(pipe);
        bt_add_expected(expected, site, poll);
        bt_assert_stats(d, pipe, expected);
    }
    d->ops->update_stats(pipe);
    bt_assert_stats(d, pipe, expected);
}

/* Every counter register of `site` holds its value of poll `poll`. */
static void assert_counters_hold(int site, uint32_t poll)
{
    const struct bt_layout *layout = bt.layout;

    for (size_t i = 0; i < layout->counter_count; i++) {
        const struct bt_counter *counter = &layout->counters[i];

        if (counter->high != 0) {
            ASSERT_EQ(bt_peek(site, counter->high),
                      layout->value(site, counter->high, poll));
        }
        ASSERT_EQ(bt_peek(site, counter->low),
                  layout->value(site, counter->low, poll));
    }
}

void bt_check_clear(const struct bt_driver *d, uint32_t pipe, int site)
{
    uint64_t *expected = no_counts(d, 0);
    unsigned long reads, writes;

    bt_load_poll(site, 0);
    d->ops->update_stats(pipe);
    bt_load_poll(site, 1);
    reads = bt.model->reads;
    writes = bt.model->writes;
    ASSERT_EQ(d->ops->clear_stats(pipe), 0);
    ASSERT_EQ(bt.model->reads, reads);
    ASSERT_EQ(bt.model->writes, writes);
    assert_counters_hold(site, 1);
    bt_assert_stats(d, pipe, zeros);
    d->ops->update_stats(pipe);
    bt_add_expected(expected, site, 1);
    bt_assert_stats(d, pipe, expected);
}

void bt_check_pipes_apart(const struct bt_driver *d, uint32_t pipe1_poll)
{
    uint64_t *expected0 = no_counts(d, 0);
    uint64_t *expected1 = no_counts(d, 1);

    bt_load_poll(0, 0);
    bt_load_poll(1, pipe1_poll);
    d->ops->update_stats(0);
    d->ops->update_stats(1);
    bt_add_expected(expected0, 0, 0);
    bt_add_expected(expected1, 1, pipe1_poll);
    bt_assert_stats(d, 0, expected0);
    bt_assert_stats(d, 1, expected1);
    ASSERT_EQ(d->ops->clear_stats(1), 0);
    bt_assert_stats(d, 0, expected0);
    bt_assert_stats(d, 1, zeros);
}

void bt_check_totals(const struct bt_driver *d, uint32_t pipe, int site,
                     const struct bt_word *words, size_t word_count,
                     const struct bt_total *totals, size_t total_count)
{
    uint64_t *expected = no_counts(d, 0);

    for (int poll = 0; poll < 2; poll++) {
        for (size_t i = 0; i < word_count; i++)
            bt_store(site, words[i].reg, words[i].value);
        d->ops->update_stats(pipe);
    }
    for (size_t i = 0; i < total_count; i++)
        expected[totals[i].index] = totals[i].value;
    bt_assert_stats(d, pipe, expected);
}

/* ---- Fatal errors ---- */

void bt_expect_fatal(const struct bt_driver *d, uint32_t pipe, const char *text)
{
    lh_fatal_error_t report = {77, 88, NULL};

    ASSERT_EQ(d->ops->fatal_error_detect(pipe, &report), 1);
    ASSERT_NE(report.error_text, nullptr);
    ASSERT_STREQ(report.error_text, text);
    ASSERT_EQ(report.module_id, 77);
    ASSERT_EQ(report.pipe, 88);
    expect_logf(LOG_CRIT, "FATAL - %s pipe %u: %s", d->name, pipe, text);
}

void bt_expect_no_fatal(const struct bt_driver *d, uint32_t pipe)
{
    ASSERT_EQ(bt_call_fatal_error_detect(d, pipe), 0);
}

/* The first row of the table with the bit of row `row`. */
static size_t first_row_with_bit(const struct bt_error_row *rows, size_t row)
{
    for (size_t i = 0; i < row; i++)
        if (rows[i].reg == rows[row].reg && rows[i].bit == rows[row].bit)
            return i;
    return row;
}

void bt_walk_error_rows(const struct bt_driver *d, uint32_t pipe, int site,
                        const struct bt_error_row *rows, size_t count)
{
    unsigned long writes = bt.model->writes;
    uint32_t read[BT_MAX_TRACE];

    ASSERT_TRUE(count <= BT_MAX_TRACE);
    for (size_t i = 0; i < count; i++) {
        size_t first = first_row_with_bit(rows, i);

        bt_set_statuses(site, 0, 0, 0);
        bt_store(site, rows[i].reg, 1u << rows[i].bit);
        bt_forget_reads();
        bt_expect_fatal(d, pipe, rows[first].text);
        /* The walk stopped at the row, reading each register anew. */
        for (size_t r = 0; r <= first; r++)
            read[r] = rows[r].reg;
        bt_assert_status_trace(site, read, first + 1);
    }
    ASSERT_EQ(bt.model->writes, writes);
}
