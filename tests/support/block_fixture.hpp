/* What the block driver tests (tests/unit/<block>_test.cpp) share: a model
 * of a block's copies in the register window, a driver as the tests know
 * it, and the checks every driver takes from a table: the created line,
 * the refusal lines, the record size, the error-table walk and counters
 * composed from {high, low} sources. Each test keeps its own tables. */
#ifndef BLOCK_TEST_H
#define BLOCK_TEST_H

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>
#include <syslog.h>

#include <gtest/gtest.h>

#include "fake_device.hpp"
#include "lh_block_ops.hpp"
#include "lh_device.hpp"
#include "private_tmp.hpp"
#include "reg_model.hpp"

#define BT_ARRAY_SIZE(a) (sizeof(a) / sizeof((a)[0]))

#define BT_MAX_SITES  2
#define BT_MAX_SPAN   0x800u /* bytes of one copy of a block */
#define BT_MAX_STATUS 3
#define BT_MAX_SCRIPT 64
#define BT_MAX_TRACE  1024 /* status reads between two bt_forget_reads */
#define BT_MAX_RECORD 8400 /* bytes of the largest statistics record */

/* bt_script's register for every status register, in the order read. */
#define BT_EVERY_STATUS 0xFFFFFFFFu

/* ---- The window model ---- */

/* The value of counter register `reg` of the copy at `site` in poll
 * `poll`; distinct per register (and site, poll) so a wrong source, a
 * swapped half or a second read shows. */
typedef uint32_t (*bt_value_fn)(int site, uint32_t reg, uint32_t poll);
/* Stores the traffic of poll `poll` in the copy at `site`. */
typedef void (*bt_load_fn)(int site, uint32_t poll);

/* (poll + 1) << 24 | reg << 8 | (reg ^ 0xA5): the same on every site. */
uint32_t bt_value_by_reg(int site, uint32_t reg, uint32_t poll);
/* (poll + 1) << 28 | site << 24 | reg << 8 | ((reg & 0xFF) ^ 0xA5). */
uint32_t bt_value_by_site(int site, uint32_t reg, uint32_t poll);

/* A counter of a statistics record: bits 63..32 from `high` (0: none, the
 * bits are zero), bits 31..0 from `low`; offsets from the block base. */
struct bt_counter {
    uint32_t high;
    uint32_t low;
};

/* The copies of a block in the window and how their registers behave. */
struct bt_layout {
    uint32_t sites[BT_MAX_SITES] = {}; /* window offset of each copy */
    size_t site_count = 0;
    uint32_t span = 0; /* bytes of a copy */
    /* Status registers: every read is counted and traced in order, and
     * may follow a script; nothing else changes them. */
    uint32_t status[BT_MAX_STATUS] = {};
    size_t status_count = 0;
    size_t max_status_reads = 0; /* between forgets; 0: BT_MAX_TRACE */
    /* Counter registers (of the record, in order): cleared by a read. */
    const struct bt_counter *counters = nullptr;
    size_t counter_count = 0;
    bt_value_fn value = nullptr; /* what bt_load_counters stores */
    bt_load_fn load = nullptr;   /* a poll's traffic; null: bt_load_counters */
    /* Any other register of a copy: what a read yields (null: the word). */
    uint32_t (*on_read)(int site, uint32_t reg, uint32_t stored) = nullptr;
    /* Every write, before the word is stored; site -1 and the window
     * offset outside the copies. Null: stored as written. */
    void (*on_write)(int site, uint32_t reg, uint32_t value) = nullptr;
};

/* A device (fake_device_start, initialised) whose window is a model of
 * `layout`. Returns the model. */
struct reg_model *bt_start(const struct bt_layout *layout,
                           lh_device_desc *device);

volatile void *bt_site_base(int site);
void bt_store(int site, uint32_t reg, uint32_t value);
uint32_t bt_peek(int site, uint32_t reg);
/* Stores the first status registers of `site`, in the layout's order. */
void bt_set_statuses(int site, uint32_t status0, uint32_t status1,
                     uint32_t status2);

/* Forgets every read so far: counts, trace, script position. */
void bt_forget_reads(void);
/* Reads of register `reg` of `site` since bt_forget_reads. */
unsigned long bt_reads(int site, uint32_t reg);
/* Reads of the status registers of `site`. */
unsigned long bt_status_reads(int site);
/* Reads of anything but a status register, anywhere in the window. */
unsigned long bt_other_reads(void);
/* The status registers read were `regs` on `site`, in this order, and
 * nothing else was read. */
void bt_assert_status_trace(int site, const uint32_t *regs, size_t count);

/* Successive reads of status register `reg` (BT_EVERY_STATUS: of every
 * status register) return `values`, then the last one; forgets reads. */
void bt_script(uint32_t reg, const uint32_t *values, size_t length);
/* Reads the script has answered since bt_script. */
size_t bt_script_reads(void);

/* Whether `reg` is a counter register of the layout. */
bool bt_is_counter(uint32_t reg);
/* Stores the layout's value of poll `poll` in every counter register. */
void bt_load_counters(int site, uint32_t poll);
/* The traffic of poll `poll`: the layout's load, or bt_load_counters. */
void bt_load_poll(int site, uint32_t poll);
/* Each counter register of `site` was read `times`, nothing else of the
 * copy, and they are `registers` registers. */
void bt_assert_counter_reads(int site, unsigned long times, size_t registers);

/* Adds to `sums` the counters of `sources` composed of the values of poll
 * `poll` of the copy at `site`. */
void bt_add_counters(uint64_t *sums, const struct bt_counter *sources,
                     size_t count, bt_value_fn value, int site, uint32_t poll);
/* bt_add_counters with the layout's counters and values. */
void bt_add_expected(uint64_t *sums, int site, uint32_t poll);

/* ---- A driver as the tests describe it ---- */

struct bt_driver {
    const char *name = nullptr; /* the display name of every line */
    const struct lh_block_ops *ops = nullptr;
    int site = 0; /* its copy when the cases put two drivers on one device */
    lh_device_desc *device = nullptr;          /* the image that carries it */
    lh_device_desc *one_pipe_device = nullptr; /* a one-pipe image, if any */
    size_t stats_bytes = 0;                    /* of the record, 0 for none */
    const char *get_words = nullptr;           /* null: "get stats" */
};

/* Every operation of `ops` is the one of `expected` (null where null). */
void bt_assert_ops(const struct lh_block_ops *ops,
                   const struct lh_block_ops *expected);

/* context_create succeeds with "Informational - <name> module <pipe>
 * context created". */
void bt_create_at(const struct bt_driver *d, uint32_t pipe,
                  volatile void *base);
void bt_create(const struct bt_driver *d, uint32_t pipe, int site);
/* context_create(pipe, NULL) is refused with the null pointer line. */
void bt_expect_create_null(const struct bt_driver *d, uint32_t pipe);
/* context_create is refused with "... context create - invalid pipe". */
void bt_expect_create_refused(const struct bt_driver *d, uint32_t pipe,
                              volatile void *base);
/* context_create is refused with "... context create - mutex init
 * failed" (the caller makes pthread_mutex_init fail). */
void bt_expect_mutex_failure(const struct bt_driver *d, uint32_t pipe,
                             volatile void *base);
/* Null base on pipes 2 and 0, then pipe 2, none touching a register. */
void bt_expect_create_refusals(const struct bt_driver *d);
/* On a device not initialised, create is refused after the pipe count's
 * own error, touching no register; every line accounted for. */
void bt_expect_create_before_init(const struct bt_layout *layout,
                                  const struct bt_driver *d);

/* ---- Refusals, one table row a call ---- */

struct bt_call {
    const char *words; /* the operation's words in the line */
    int severity;
    int refused; /* what a refused call returns */
    int (*call)(const struct bt_driver *d, uint32_t pipe);
};

/* The calls with every other argument valid; the buffer and the report
 * must come back untouched. */
int bt_call_update_stats(const struct bt_driver *d, uint32_t pipe);
int bt_call_get_stats(const struct bt_driver *d, uint32_t pipe);
/* Size 1: the pipe and context are checked before the size. */
int bt_call_get_stats_wrong_size(const struct bt_driver *d, uint32_t pipe);
int bt_call_clear_stats(const struct bt_driver *d, uint32_t pipe);
int bt_call_fatal_error_detect(const struct bt_driver *d, uint32_t pipe);
/* The calls with a null output. */
int bt_null_get_stats(const struct bt_driver *d, uint32_t pipe);
int bt_null_get_stats_wrong_size(const struct bt_driver *d, uint32_t pipe);
int bt_null_fatal_error_detect(const struct bt_driver *d, uint32_t pipe);

/* The statistics and fatal-error operations of a block, in call order. */
// clang-format off
#define BT_STATS_REFUSALS(clear_words, fatal_words)                            \
    {"update stats", LOG_CRIT, 0, bt_call_update_stats},                       \
    {"get stats", LOG_CRIT, -1, bt_call_get_stats},                            \
    {(clear_words), LOG_CRIT, -1, bt_call_clear_stats},                        \
    {(fatal_words), LOG_CRIT, 0, bt_call_fatal_error_detect}
// clang-format on

/* Each call is refused with "Error - <name> <words> - invalid <what>
 * <pipe>", and no register is read or written. */
void bt_expect_refusals(const struct bt_driver *d, const struct bt_call *calls,
                        size_t count, uint32_t pipe, const char *what);
/* Each call is refused with "Null pointer - <name> <words>", and no
 * register is read or written. */
void bt_expect_null_refusals(const struct bt_driver *d,
                             const struct bt_call *calls, size_t count,
                             uint32_t pipe);

/* ---- The statistics record ---- */

/* get_stats refuses each size with its "unexpected memory size" line and
 * leaves the buffer untouched. */
void bt_expect_wrong_sizes(const struct bt_driver *d, uint32_t pipe,
                           const uint64_t *sizes, size_t count);
/* get_stats of the exact size succeeds, writes nothing past the record,
 * and the record is copied to `record`. */
void bt_get_stats(const struct bt_driver *d, uint32_t pipe, void *record);
/* bt_get_stats, and the record is `expected`. */
void bt_assert_stats(const struct bt_driver *d, uint32_t pipe,
                     const void *expected);

/* ---- Statistics, on the created context of `pipe` at `site` ---- */

/* A word stored before a poll, and a counter of the record after. */
struct bt_word {
    uint32_t reg;
    uint32_t value;
};
struct bt_total {
    size_t index;
    uint64_t value;
};

/* Poll 0 reads each counter register once and nothing else in the
 * window, `registers` reads in all, and the record is `expected`. */
void bt_check_composition(const struct bt_driver *d, uint32_t pipe, int site,
                          const uint64_t *expected, size_t registers);
/* After a poll, a second create leaves a zero record. */
void bt_check_create_zeroes(const struct bt_driver *d, uint32_t pipe, int site);
/* Polls 0 to 2 add up; one more without traffic adds nothing, as the
 * reads cleared the counters. */
void bt_check_polls_accumulate(const struct bt_driver *d, uint32_t pipe,
                               int site);
/* After poll 0, with poll 1's traffic waiting, clear zeroes the record
 * without reading or writing a register, and the next poll brings poll
 * 1's counts. */
void bt_check_clear(const struct bt_driver *d, uint32_t pipe, int site);
/* Pipes 0 and 1, at sites 0 and 1, count polls 0 and `pipe1_poll` apart,
 * and clearing pipe 1 leaves pipe 0's. */
void bt_check_pipes_apart(const struct bt_driver *d, uint32_t pipe1_poll);
/* Two polls of `words` wrap or widen the counters to `totals`, and leave
 * every other counter zero. */
void bt_check_totals(const struct bt_driver *d, uint32_t pipe, int site,
                     const struct bt_word *words, size_t word_count,
                     const struct bt_total *totals, size_t total_count);

/* ---- Fatal errors ---- */

/* A row of an error table, in test order. */
struct bt_error_row {
    uint32_t reg;
    unsigned int bit;
    const char *text;
};

/* One call reports `text`, touching only the text, with its FATAL line. */
void bt_expect_fatal(const struct bt_driver *d, uint32_t pipe,
                     const char *text);
/* One call reports nothing and leaves the report alone. */
void bt_expect_no_fatal(const struct bt_driver *d, uint32_t pipe);
/* Each row's bit alone (the other status registers clear) reports the
 * text of the first row with that bit, after reading the status registers
 * of the rows up to it in order; nothing is written. */
void bt_walk_error_rows(const struct bt_driver *d, uint32_t pipe, int site,
                        const struct bt_error_row *rows, size_t count);

/* ---- Running ---- */

/* Every driver case runs in a private /tmp (the fake device writes the
 * IDPROM file there) and its own process, so each context starts as
 * never created. Tear-down removes the device and ends the expectations;
 * a case skipped for want of a private /tmp touches nothing, as removing
 * the device would remove the host's IDPROM file. */
class BlockTest : public PrivateTmpTest {
protected:
    void TearDown() override
    {
        if (private_tmp_ready(nullptr))
            fake_device_stop();
    }
};

#endif
