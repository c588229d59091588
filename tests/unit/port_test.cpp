/* Part 3.1: the Ethernet port blocks. eth and caui are one design with two
 * register maps, so most cases run once on each block, described by a
 * port_case; the register window is a model whose control and status
 * registers behave like the hardware's (link-reset pulses, latched
 * counters). */
#include <stdbool.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include "block_fixture.hpp"
#include "cmocka_all.h"
#include "fake_device.hpp"
#include "lh_drivers.hpp"
#include "lh_log.hpp"
#include "log_expect.hpp"
#include "mutex_wrap.hpp"
#include "port.hpp"
#include "private_tmp.hpp"

#define ARRAY_SIZE(a) BT_ARRAY_SIZE(a)

#define BLOCK_BASE      0x10000u /* eth, and caui pipe 0 */
#define CAUI_PIPE1_BASE 0x20000u

#define ENABLE_BIT         (1u << 8)
#define LINK_RESET_BIT     (1u << 10)
#define DISABLE_BIT        (1u << 11)
#define OTHER_CONTROL_BITS 0xA5A5A5A0u /* loopback field clear */

/* Every word of this range except control, status and fatal status gets a
 * distinct value, so a counter read from a wrong register shows. */
#define FILL_START 0x400u
#define FILL_END   0x1100u

#define MAX_STATS 80 /* room for the 601-byte request */

enum word_order { LOW_FIRST, HIGH_FIRST, LOW_ONLY };

/* `count` counters from index `first` as Part 3.1 gives them: LOW_FIRST has
 * the low word at start + 8k and the high word 4 above, HIGH_FIRST the
 * reverse, LOW_ONLY one 32-bit word at start + 4k. */
struct counter_run {
    unsigned int first;
    unsigned int count;
    uint32_t start;
    enum word_order order;
};

/* One counter spelt out, to show the word order at a glance. */
struct counter_sample {
    unsigned int index;
    uint32_t high;
    uint32_t low;
};

struct port_case;

struct error_row {
    const struct port_case *port;
    unsigned int bit;
    const char *text;
};

struct port_case {
    struct bt_driver d; /* name, ops, devices, record */
    void (*rx_align_monitor)(uint32_t pipe);
    uint32_t snapshot;
    uint32_t fatal_status;
    uint32_t control;
    uint32_t status;
    unsigned int aligned_bit;
    unsigned int other_aligned_bit; /* the other block's */
    unsigned int untested_bit;
    size_t stats_count;
    const struct counter_run *runs;
    size_t run_count;
    struct bt_counter *counters; /* the runs, one a counter (build_counters) */
    struct counter_sample samples[3];
    const struct error_row *errors;
    size_t error_count;
    uint64_t wrong_sizes[2];
};

static const struct port_case eth_case;
static const struct port_case caui_case;

static const struct counter_run eth_runs[] = {
    {0, 4, 0x508, LOW_FIRST},   {4, 4, 0x5A8, LOW_FIRST},
    {8, 1, 0x660, LOW_FIRST},   {9, 1, 0x6A0, LOW_FIRST},
    {10, 18, 0x700, LOW_FIRST}, {28, 1, 0x7B8, LOW_FIRST},
    {29, 6, 0x7D0, LOW_FIRST},  {35, 17, 0x808, LOW_FIRST},
    {52, 16, 0x898, LOW_FIRST}, {68, 1, 0x1050, HIGH_FIRST},
    {69, 1, 0x1058, LOW_ONLY},  {70, 1, 0x105C, HIGH_FIRST},
    {71, 4, 0x1064, LOW_ONLY},
};

static const struct counter_run caui_runs[] = {
    {0, 4, 0x500, LOW_FIRST},  {4, 2, 0x5F0, LOW_FIRST},
    {6, 4, 0x608, LOW_FIRST},  {10, 11, 0x698, LOW_FIRST},
    {21, 4, 0x6F8, LOW_FIRST}, {25, 1, 0x850, HIGH_FIRST},
    {26, 1, 0x858, LOW_ONLY},  {27, 1, 0x85C, HIGH_FIRST},
    {28, 4, 0x864, LOW_ONLY},
};

static const struct error_row eth_rows[] = {
    {&eth_case, 8, "RX Straddle AXI4 Interface Multiple SOP error"},
    {&eth_case, 7, "RX Buffer FIFO Double bit ECC error"},
    {&eth_case, 6, "TX Buffer FIFO Double bit ECC error"},
    {&eth_case, 5, "RX Buffer FIFO Overflow"},
    {&eth_case, 4, "RX Buffer FIFO Underflow"},
    {&eth_case, 3, "TX Buffer FIFO Overflow"},
    {&eth_case, 2, "TX Buffer FIFO Underflow"},
    {&eth_case, 0, "Eth IP TX Underflow"},
};

static const struct error_row caui_rows[] = {
    {&caui_case, 9, "TX Buffer FIFO Underflow"},
    {&caui_case, 8, "RX Buffer FIFO Underflow"},
    {&caui_case, 7, "CAUI RX LBus Multiple SOP error"},
    {&caui_case, 6, "TX Buffer FIFO Double bit ECC error"},
    {&caui_case, 5, "TX Buffer FIFO Overflow"},
    {&caui_case, 4, "RX Buffer FIFO Double bit ECC error"},
    {&caui_case, 3, "RX Buffer FIFO Overflow"},
    {&caui_case, 2, "CAUI IP TX Overflow"},
    {&caui_case, 1, "CAUI IP TX Underflow"},
};

static struct bt_counter eth_counters[75];
static struct bt_counter caui_counters[32];

static const struct port_case eth_case = {
    .d = {.name = "Eth",
          .ops = &eth_ops,
          .device = &lh_desc_lhx,
          .one_pipe_device = &lh_desc_lhx,
          .stats_bytes = 75 * 8,
          .get_words = "get interface stats"},
    .rx_align_monitor = eth_rx_align_monitor,
    .snapshot = 0x20,
    .fatal_status = 0x1000,
    .control = 0x1020,
    .status = 0x1024,
    .aligned_bit = 3,
    .other_aligned_bit = 24,
    .untested_bit = 1,
    .stats_count = 75,
    .runs = eth_runs,
    .run_count = ARRAY_SIZE(eth_runs),
    .counters = eth_counters,
    .samples = {{0, 0x50C, 0x508}, {68, 0x1050, 0x1054}, {70, 0x105C, 0x1060}},
    .errors = eth_rows,
    .error_count = ARRAY_SIZE(eth_rows),
    .wrong_sizes = {599, 601},
};

static const struct port_case caui_case = {
    .d = {.name = "CAUI",
          .ops = &caui_ops,
          .device = &lh_desc_base_two_pipes,
          .one_pipe_device = &lh_desc_base_one_pipe,
          .stats_bytes = 32 * 8,
          .get_words = "get interface stats"},
    .rx_align_monitor = caui_rx_align_monitor,
    .snapshot = 0x2B0,
    .fatal_status = 0x800,
    .control = 0x820,
    .status = 0x824,
    .aligned_bit = 24,
    .other_aligned_bit = 3,
    .untested_bit = 0,
    .stats_count = 32,
    .runs = caui_runs,
    .run_count = ARRAY_SIZE(caui_runs),
    .counters = caui_counters,
    .samples = {{0, 0x504, 0x500}, {25, 0x850, 0x854}, {27, 0x85C, 0x860}},
    .errors = caui_rows,
    .error_count = ARRAY_SIZE(caui_rows),
    .wrong_sizes = {255, 257},
};

/* The block under test and what its model has seen. */
static struct {
    const struct port_case *port;
    struct reg_model *model;
    uint8_t *regs; /* pipe 0's block */
    bool hooks_installed;
    int align_after_resets; /* -1: never aligns; else after that many */
    bool snapshot_written;  /* counters read 0 until then */
    bool is_counter[FILL_END / 4];
    unsigned long counter_registers;
    unsigned long status_reads;
    unsigned long snapshot_reads;
    unsigned long counter_reads;
    unsigned int link_reset_sets;
    unsigned int link_reset_clears;
    unsigned int sleeps_in_link_reset;
    uint32_t control_writes[16];
    unsigned int control_write_count;
} fx;

static unsigned long usleep_calls;
static unsigned long usleep_total_us;

static uint32_t reg(uint32_t offset)
{
    return reg_model_peek(fx.model, BLOCK_BASE + offset);
}

static void set_reg(uint32_t offset, uint32_t value)
{
    reg_model_store(fx.model, BLOCK_BASE + offset, value);
}

/* Never sleeps; notes whether the sleep falls inside a link-reset pulse. */
int __wrap_usleep(useconds_t usec)
{
    usleep_calls++;
    usleep_total_us += usec;
    if (fx.hooks_installed && (reg(fx.port->control) & LINK_RESET_BIT))
        fx.sleeps_in_link_reset++;
    return 0;
}

/* The registers of counter k of `run`; false for a 32-bit counter. */
static bool run_registers(const struct counter_run *run, unsigned int k,
                          uint32_t *high, uint32_t *low)
{
    switch (run->order) {
    case LOW_FIRST:
        *low = run->start + 8 * k;
        *high = *low + 4;
        return true;
    case HIGH_FIRST:
        *high = run->start + 8 * k;
        *low = *high + 4;
        return true;
    default:
        *low = run->start + 4 * k;
        *high = 0;
        return false;
    }
}

/* Spells out the runs of `port`, one {high, low} a counter; false unless
 * they give counters 0 to stats_count - 1 in order. */
static bool build_counters(const struct port_case *port)
{
    unsigned int next = 0;

    for (size_t r = 0; r < port->run_count; r++) {
        const struct counter_run *run = &port->runs[r];

        if (run->first != next)
            return false;
        for (unsigned int k = 0; k < run->count; k++, next++) {
            struct bt_counter *counter = &port->counters[next];

            if (next >= port->stats_count)
                return false;
            run_registers(run, k, &counter->high, &counter->low);
        }
    }
    return next == port->stats_count;
}

static void mark_counter_registers(void)
{
    for (size_t i = 0; i < fx.port->stats_count; i++) {
        const struct bt_counter *counter = &fx.port->counters[i];

        if (counter->high != 0) {
            fx.is_counter[counter->high / 4] = true;
            fx.counter_registers++;
        }
        fx.is_counter[counter->low / 4] = true;
        fx.counter_registers++;
    }
}

/* Distinct for every register of a round: an odd multiplier is a
 * bijection of the 32-bit words. */
static uint32_t counter_value(uint32_t offset, unsigned int round)
{
    return 0x9E3779B9u * (offset + round * 0x2000u);
}

static void fill_counters(unsigned int round)
{
    const struct port_case *port = fx.port;

    for (uint32_t offset = FILL_START; offset < FILL_END; offset += 4)
        if (offset != port->control && offset != port->status &&
            offset != port->fatal_status)
            set_reg(offset, counter_value(offset, round));
}

static uint32_t round_value(int site, uint32_t offset, uint32_t round)
{
    (void)site;
    return counter_value(offset, round);
}

/* Adds the counters of a round, composed as Part 3.1 says, to `sums`. */
static void add_expected_counters(unsigned int round, uint64_t *sums)
{
    bt_add_counters(sums, fx.port->counters, fx.port->stats_count, round_value,
                    0, round);
}

static bool link_aligned(void)
{
    return fx.align_after_resets >= 0 &&
           fx.link_reset_sets >= (unsigned int)fx.align_after_resets;
}

static uint32_t port_read(struct reg_model *model, uint32_t offset,
                          uint32_t stored)
{
    uint32_t offset_in_block = offset - BLOCK_BASE;
    uint32_t aligned = 1u << fx.port->aligned_bit;

    (void)model;
    if (offset_in_block == fx.port->status) {
        fx.status_reads++;
        return link_aligned() ? stored | aligned : stored & ~aligned;
    }
    if (offset_in_block == fx.port->snapshot)
        fx.snapshot_reads++;
    if (offset_in_block < FILL_END && fx.is_counter[offset_in_block / 4]) {
        fx.counter_reads++;
        return fx.snapshot_written ? stored : 0;
    }
    return stored;
}

static void note_control_write(uint32_t old, uint32_t value)
{
    if (!(old & LINK_RESET_BIT) && (value & LINK_RESET_BIT))
        fx.link_reset_sets++;
    if ((old & LINK_RESET_BIT) && !(value & LINK_RESET_BIT))
        fx.link_reset_clears++;
    if (fx.control_write_count < ARRAY_SIZE(fx.control_writes))
        fx.control_writes[fx.control_write_count] = value;
    fx.control_write_count++;
}

static void port_write(struct reg_model *model, uint32_t offset, uint32_t value)
{
    uint32_t offset_in_block = offset - BLOCK_BASE;

    if (offset_in_block == fx.port->control)
        note_control_write(reg_model_peek(model, offset), value);
    if (offset_in_block == fx.port->snapshot && value == 1)
        fx.snapshot_written = true;
    reg_model_store(model, offset, value);
}

static void start_device(const struct port_case *port, lh_device_desc *device)
{
    memset(&fx, 0, sizeof(fx));
    fx.port = port;
    fx.align_after_resets = -1;
    fx.model = fake_device_start(device, 1);
    fx.regs = (uint8_t *)fx.model->words + BLOCK_BASE;
    mutex_init_fails = false;
    usleep_calls = 0;
    usleep_total_us = 0;
}

static void install_hooks(void)
{
    mark_counter_registers();
    fx.model->on_read = port_read;
    fx.model->on_write = port_write;
    fx.model->reads = 0;
    fx.model->writes = 0;
    fx.hooks_installed = true;
}

/* A device without a created context. */
static int setup_device(void **state)
{
    const struct port_case *port = *state;

    start_device(port, port->d.device);
    return 0;
}

static int setup_one_pipe_device(void **state)
{
    const struct port_case *port = *state;

    start_device(port, port->d.one_pipe_device);
    return 0;
}

/* A device with pipe 0's context created. */
static int start_port(const struct port_case *port)
{
    start_device(port, port->d.device);
    bt_create_at(&port->d, 0, fx.regs);
    install_hooks();
    return 0;
}

static int setup_port(void **state)
{
    return start_port(*state);
}

static int setup_error_row(void **state)
{
    const struct error_row *row = *state;

    return start_port(row->port);
}

static int teardown_port(void **state)
{
    expect_no_more_logs();
    fx.hooks_installed = false;
    return fake_device_teardown(state);
}

static void make_port_up(void)
{
    set_reg(fx.port->control, ENABLE_BIT);
    fx.align_after_resets = 0;
}

static void get_stats(uint64_t *stats)
{
    bt_get_stats(&fx.port->d, 0, stats);
}

static void assert_stats(const uint64_t *expected)
{
    bt_assert_stats(&fx.port->d, 0, expected);
}

/* One call of each operation with the common checks, the other arguments
 * valid. */
static int call_set_interface_state(const struct bt_driver *d, uint32_t pipe)
{
    return d->ops->set_interface_state(pipe, 1);
}

static int call_get_interface_state(const struct bt_driver *d, uint32_t pipe)
{
    uint8_t up;

    return d->ops->get_interface_state(pipe, &up);
}

static int call_set_loopback(const struct bt_driver *d, uint32_t pipe)
{
    return d->ops->set_loopback(PORT_LOOPBACK_PCS_NEAR, pipe);
}

static int call_get_loopback(const struct bt_driver *d, uint32_t pipe)
{
    uint32_t mask = 0;

    return d->ops->get_loopback(&mask, pipe);
}

/* get interface stats with a wrong size as well: the pipe and context come
 * before the size. */
static const struct bt_call checked_calls[] = {
    {"set interface state", LOG_CRIT, -1, call_set_interface_state},
    {"get interface state", LOG_CRIT, -1, call_get_interface_state},
    {"set loopback", LOG_CRIT, -1, call_set_loopback},
    {"get loopback", LOG_CRIT, -1, call_get_loopback},
    {"update stats", LOG_CRIT, 0, bt_call_update_stats},
    {"get interface stats", LOG_CRIT, -1, bt_call_get_stats_wrong_size},
    {"clear interface stats", LOG_CRIT, -1, bt_call_clear_stats},
    {"module fatal error detection", LOG_CRIT, 0, bt_call_fatal_error_detect},
};

static int null_get_interface_state(const struct bt_driver *d, uint32_t pipe)
{
    return d->ops->get_interface_state(pipe, NULL);
}

static int null_get_loopback(const struct bt_driver *d, uint32_t pipe)
{
    return d->ops->get_loopback(NULL, pipe);
}

static const struct bt_call null_calls[] = {
    {"get interface state", LOG_ERR, -1, null_get_interface_state},
    {"get loopback", LOG_ERR, -1, null_get_loopback},
    {"get interface stats", LOG_ERR, -1, bt_null_get_stats},
    {"module fatal error detection", LOG_ERR, 0, bt_null_fatal_error_detect},
};

/* ---- Contexts never created before (these run first) ---- */

static void test_failed_mutex_init_leaves_context_valid(void **state)
{
    const struct port_case *port = *state;
    uint8_t up = 0xAA;

    assert_int_equal(port->d.ops->get_interface_state(0, &up), -1);
    expect_logf(LOG_CRIT, "Error - %s get interface state - invalid context 0",
                port->d.name);

    mutex_init_fails = true;
    bt_expect_mutex_failure(&port->d, 0, fx.regs);
    mutex_init_fails = false;
    assert_int_equal(fx.model->writes, 0);

    /* Valid now: the same call passes its context check. */
    assert_int_equal(port->d.ops->get_interface_state(0, &up), 0);
    assert_int_equal(up, 0);
}

static void test_pipe_1_refused_on_one_pipe_board(void **state)
{
    const struct port_case *port = *state;

    bt_expect_create_refused(&port->d, 1, fx.regs);
    bt_expect_refusals(&port->d, checked_calls, ARRAY_SIZE(checked_calls), 1,
                       "context");
    /* The loopback type is checked before the context. */
    assert_int_equal(port->d.ops->set_loopback(5, 1), -1);
    expect_logf(LOG_CRIT, "Error - %s set loopback - invalid loopback type 5",
                port->d.name);
    port->rx_align_monitor(1);
    assert_int_equal(fx.model->reads, 0);
    assert_int_equal(fx.model->writes, 0);
}

/* ---- Operations table and context creation ---- */

static void test_ops_tables(void **state)
{
    /* eth's monitor is not in its table: the poll thread never runs it. */
    static const struct lh_block_ops expected_eth = {
        .context_create = eth_context_create,
        .set_interface_state = eth_set_interface_state,
        .get_interface_state = eth_get_interface_state,
        .set_loopback = eth_set_loopback,
        .get_loopback = eth_get_loopback,
        .update_stats = eth_update_stats,
        .get_stats = eth_get_stats,
        .clear_stats = eth_clear_stats,
        .fatal_error_detect = eth_fatal_error_detect,
    };
    static const struct lh_block_ops expected_caui = {
        .context_create = caui_context_create,
        .set_interface_state = caui_set_interface_state,
        .get_interface_state = caui_get_interface_state,
        .set_loopback = caui_set_loopback,
        .get_loopback = caui_get_loopback,
        .update_stats = caui_update_stats,
        .get_stats = caui_get_stats,
        .clear_stats = caui_clear_stats,
        .fatal_error_detect = caui_fatal_error_detect,
        .rx_align_monitor = caui_rx_align_monitor,
    };

    (void)state;
    bt_assert_ops(&eth_ops, &expected_eth);
    bt_assert_ops(&caui_ops, &expected_caui);
}

static void test_create_refuses_null_regs(void **state)
{
    const struct port_case *port = *state;

    bt_expect_create_null(&port->d, 0);
    /* The null base comes before the pipe. */
    bt_expect_create_null(&port->d, 2);
}

static void test_create_refuses_pipe_2(void **state)
{
    const struct port_case *port = *state;

    bt_expect_create_refused(&port->d, 2, fx.regs);
    assert_int_equal(fx.model->writes, 0);
}

static void test_create_clears_loopback_field_and_flag(void **state)
{
    const struct port_case *port = *state;

    assert_int_equal(port->d.ops->set_loopback(PORT_LOOPBACK_PCS_NEAR, 0), 0);
    expect_logf(LOG_INFO,
                "Informational - %s interface 0 loopback (pcs-near) "
                "enabled",
                port->d.name);
    set_reg(port->control, 0xF0000D07);
    fx.model->writes = 0;

    bt_create_at(&port->d, 0, fx.regs);
    assert_int_equal(reg(port->control), 0xF0000D00);
    assert_int_equal(fx.model->writes, 1);

    /* loopback_on is 0 again: another type needs no "disable-all". */
    assert_int_equal(port->d.ops->set_loopback(PORT_LOOPBACK_PMA_NEAR, 0), 0);
    expect_logf(LOG_INFO,
                "Informational - %s interface 0 loopback (pma-near) "
                "enabled",
                port->d.name);
}

static void test_caui_pipe_1_uses_its_own_registers(void **state)
{
    uint8_t *pipe1 = (uint8_t *)fx.model->words + CAUI_PIPE1_BASE;
    lh_fatal_error_t report = {0};

    (void)state;
    assert_int_equal(caui_context_create(1, pipe1), 0);
    expect_log(LOG_INFO, "Informational - CAUI module 1 context created");

    reg_model_store(fx.model, CAUI_PIPE1_BASE + 0x820, ENABLE_BIT);
    assert_int_equal(caui_set_interface_state(1, 0), 0);
    expect_log(LOG_INFO, "Informational - CAUI interface 1 disabled");
    assert_int_equal(reg_model_peek(fx.model, CAUI_PIPE1_BASE + 0x820),
                     DISABLE_BIT);
    assert_int_equal(reg(0x820), 0);

    reg_model_store(fx.model, CAUI_PIPE1_BASE + 0x800, 1u << 9);
    assert_int_equal(caui_fatal_error_detect(1, &report), 1);
    expect_log(LOG_CRIT, "FATAL - CAUI pipe 1: TX Buffer FIFO Underflow");
    assert_int_equal(caui_fatal_error_detect(0, &report), 0);
}

/* ---- Common checks ---- */

static void test_null_output_refused_before_pipe(void **state)
{
    const struct port_case *port = *state;

    bt_expect_null_refusals(&port->d, null_calls, ARRAY_SIZE(null_calls), 2);
    assert_int_equal(fx.model->reads, 0);
}

static void test_invalid_pipe_refused(void **state)
{
    const struct port_case *port = *state;

    bt_expect_refusals(&port->d, checked_calls, ARRAY_SIZE(checked_calls), 2,
                       "pipe");
    /* The pipe is checked before the loopback type. */
    assert_int_equal(port->d.ops->set_loopback(5, 2), -1);
    expect_logf(LOG_CRIT, "Error - %s set loopback - invalid pipe 2",
                port->d.name);
    port->rx_align_monitor(2);
    assert_int_equal(fx.model->reads, 0);
    assert_int_equal(fx.model->writes, 0);
    assert_int_equal(usleep_calls, 0);
}

static void test_invalid_loopback_type_refused(void **state)
{
    const struct port_case *port = *state;

    assert_int_equal(port->d.ops->set_loopback(5, 0), -1);
    expect_logf(LOG_CRIT, "Error - %s set loopback - invalid loopback type 5",
                port->d.name);
    assert_int_equal(fx.model->writes, 0);
}

/* ---- Interface state ---- */

static void test_disable_sets_bit_11_then_clears_bit_8(void **state)
{
    const struct port_case *port = *state;

    set_reg(port->control, ENABLE_BIT | 0x3);
    assert_int_equal(port->d.ops->set_interface_state(0, 0), 0);
    expect_logf(LOG_INFO, "Informational - %s interface 0 disabled",
                port->d.name);
    assert_int_equal(fx.control_write_count, 2);
    assert_int_equal(fx.control_writes[0], ENABLE_BIT | DISABLE_BIT | 0x3);
    assert_int_equal(fx.control_writes[1], DISABLE_BIT | 0x3);
    assert_int_equal(fx.status_reads, 0);
    assert_int_equal(usleep_calls, 0);
}

static void test_enable_already_aligned_does_not_sleep(void **state)
{
    const struct port_case *port = *state;
    uint8_t up = 0;

    set_reg(port->control, DISABLE_BIT | 0x3);
    fx.align_after_resets = 0;
    assert_int_equal(port->d.ops->set_interface_state(0, 1), 0);
    expect_logf(LOG_INFO, "Informational - %s interface 0 enabled",
                port->d.name);
    expect_logf(LOG_INFO, "Informational - %s interface 0 receive aligned",
                port->d.name);
    assert_int_equal(fx.control_write_count, 2);
    assert_int_equal(fx.control_writes[0], ENABLE_BIT | DISABLE_BIT | 0x3);
    assert_int_equal(fx.control_writes[1], ENABLE_BIT | 0x3);
    assert_int_equal(fx.status_reads, 1);
    assert_int_equal(usleep_calls, 0);
    assert_int_equal(fx.link_reset_sets, 0);

    assert_int_equal(port->d.ops->get_interface_state(0, &up), 0);
    assert_int_equal(up, 1);
}

static void test_enable_aligned_after_second_link_reset(void **state)
{
    const struct port_case *port = *state;

    set_reg(port->control, DISABLE_BIT);
    fx.align_after_resets = 2;
    assert_int_equal(port->d.ops->set_interface_state(0, 1), 0);
    expect_logf(LOG_INFO, "Informational - %s interface 0 enabled",
                port->d.name);
    expect_logf(LOG_DEBUG,
                "Informational - %s interface 0 - attempting link reset 1",
                port->d.name);
    expect_logf(LOG_DEBUG,
                "Informational - %s interface 0 - attempting link reset 2",
                port->d.name);
    expect_logf(LOG_INFO, "Informational - %s interface 0 receive aligned",
                port->d.name);
    assert_int_equal(fx.status_reads, 500 + 500 + 1);
    assert_int_equal(usleep_calls, 500 + 1 + 500 + 1);
    assert_int_equal(usleep_total_us, 100200);
    assert_int_equal(fx.link_reset_sets, 2);
    assert_int_equal(fx.link_reset_clears, 2);
    assert_int_equal(fx.sleeps_in_link_reset, 2);
    assert_int_equal(reg(port->control), ENABLE_BIT);
}

static void test_enable_never_aligned_still_succeeds(void **state)
{
    const struct port_case *port = *state;
    uint8_t up = 0xAA;

    set_reg(port->control, DISABLE_BIT);
    assert_int_equal(port->d.ops->set_interface_state(0, 1), 0);
    expect_logf(LOG_INFO, "Informational - %s interface 0 enabled",
                port->d.name);
    for (int attempt = 1; attempt <= 3; attempt++)
        expect_logf(LOG_DEBUG,
                    "Informational - %s interface 0 - attempting link reset "
                    "%d",
                    port->d.name, attempt);
    expect_logf(LOG_INFO, "Error - %s interface 0 failed to receive align",
                port->d.name);

    /* Not polled again after the third reset. */
    assert_int_equal(fx.status_reads, 3 * 500);
    assert_int_equal(usleep_calls, 3 * (500 + 1));
    assert_int_equal(usleep_total_us, 3 * (500 + 1) * 100);
    assert_int_equal(fx.link_reset_sets, 3);
    assert_int_equal(fx.link_reset_clears, 3);
    assert_int_equal(fx.sleeps_in_link_reset, 3);
    assert_int_equal(fx.control_write_count, 2 + 3 * 2);
    assert_int_equal(fx.control_writes[2], ENABLE_BIT | LINK_RESET_BIT);
    assert_int_equal(fx.control_writes[3], ENABLE_BIT);
    assert_int_equal(reg(port->control), ENABLE_BIT);

    assert_int_equal(port->d.ops->get_interface_state(0, &up), 0);
    assert_int_equal(up, 0);
}

static void test_get_interface_state_needs_enable_and_aligned(void **state)
{
    const struct port_case *port = *state;
    const struct {
        uint32_t control;
        int align_after_resets;
        uint32_t status;
        uint8_t up;
    } rows[] = {
        {0, -1, 0, 0},
        {ENABLE_BIT, -1, 0, 0},
        {0, 0, 0, 0},
        {ENABLE_BIT, 0, 0, 1},
        {~ENABLE_BIT, 0, 0, 0},
        {ENABLE_BIT, -1, 1u << port->other_aligned_bit, 0},
    };

    for (size_t i = 0; i < ARRAY_SIZE(rows); i++) {
        uint8_t up = 0xAA;

        set_reg(port->control, rows[i].control);
        set_reg(port->status, rows[i].status);
        fx.align_after_resets = rows[i].align_after_resets;
        assert_int_equal(port->d.ops->get_interface_state(0, &up), 0);
        assert_int_equal(up, rows[i].up);
    }
    assert_int_equal(fx.model->writes, 0);
}

/* ---- Loopback ---- */

static const struct {
    uint32_t type;
    const char *name;
    uint32_t code;
    uint32_t mask;
} loopback_rows[] = {
    {1, "pcs-near", 1, 0x02},
    {2, "pma-near", 2, 0x04},
    {3, "pma-far", 4, 0x08},
    {4, "pcs-far", 6, 0x10},
};

static void test_loopback_each_type(void **state)
{
    const struct port_case *port = *state;

    set_reg(port->control, OTHER_CONTROL_BITS);
    for (size_t i = 0; i < ARRAY_SIZE(loopback_rows); i++) {
        uint32_t mask = 0;

        fx.model->writes = 0;
        assert_int_equal(port->d.ops->set_loopback(loopback_rows[i].type, 0),
                         0);
        expect_logf(LOG_INFO,
                    "Informational - %s interface 0 loopback (%s) enabled",
                    port->d.name, loopback_rows[i].name);
        assert_int_equal(fx.model->writes, 1);
        assert_int_equal(reg(port->control),
                         OTHER_CONTROL_BITS | loopback_rows[i].code);
        assert_int_equal(port->d.ops->get_loopback(&mask, 0), 0);
        assert_int_equal(mask, loopback_rows[i].mask);

        assert_int_equal(
            port->d.ops->set_loopback(PORT_LOOPBACK_DISABLE_ALL, 0), 0);
        expect_logf(LOG_INFO,
                    "Informational - %s interface 0 loopback "
                    "disabled",
                    port->d.name);
        assert_int_equal(reg(port->control), OTHER_CONTROL_BITS);
        mask = 0;
        assert_int_equal(port->d.ops->get_loopback(&mask, 0), 0);
        assert_int_equal(mask, 0);
    }
}

static void test_loopback_already_enabled(void **state)
{
    const struct port_case *port = *state;

    assert_int_equal(port->d.ops->set_loopback(PORT_LOOPBACK_PCS_NEAR, 0), 0);
    expect_logf(LOG_INFO,
                "Informational - %s interface 0 loopback (pcs-near) "
                "enabled",
                port->d.name);

    fx.model->writes = 0;
    assert_int_equal(port->d.ops->set_loopback(PORT_LOOPBACK_PMA_NEAR, 0), -1);
    expect_logf(LOG_CRIT,
                "Error - %s enable loopback on pipe 0 failed - "
                "loopback already enabled",
                port->d.name);
    assert_int_equal(port->d.ops->set_loopback(PORT_LOOPBACK_PCS_NEAR, 0), -1);
    expect_logf(LOG_CRIT,
                "Error - %s enable loopback on pipe 0 failed - "
                "loopback already enabled",
                port->d.name);
    assert_int_equal(fx.model->writes, 0);
    assert_int_equal(reg(port->control), 1);

    assert_int_equal(port->d.ops->set_loopback(PORT_LOOPBACK_DISABLE_ALL, 0),
                     0);
    expect_logf(LOG_INFO, "Informational - %s interface 0 loopback disabled",
                port->d.name);
    assert_int_equal(port->d.ops->set_loopback(PORT_LOOPBACK_PMA_NEAR, 0), 0);
    expect_logf(LOG_INFO,
                "Informational - %s interface 0 loopback (pma-near) "
                "enabled",
                port->d.name);
    assert_int_equal(reg(port->control), 2);
}

static void test_disable_all_without_loopback(void **state)
{
    const struct port_case *port = *state;

    set_reg(port->control, OTHER_CONTROL_BITS | 0x7);
    assert_int_equal(port->d.ops->set_loopback(PORT_LOOPBACK_DISABLE_ALL, 0),
                     0);
    expect_logf(LOG_INFO, "Informational - %s interface 0 loopback disabled",
                port->d.name);
    assert_int_equal(reg(port->control), OTHER_CONTROL_BITS);
}

/* Codes 0, 3, 5 and 7 add nothing; the caller's bits are kept. */
static void test_get_loopback_codes(void **state)
{
    const struct port_case *port = *state;
    static const uint32_t added[8] = {0, 0x02, 0x04, 0, 0x08, 0, 0x10, 0};

    for (uint32_t code = 0; code < 8; code++) {
        uint32_t mask = 0x100;

        set_reg(port->control, OTHER_CONTROL_BITS | code);
        assert_int_equal(port->d.ops->get_loopback(&mask, 0), 0);
        assert_int_equal(mask, 0x100 | added[code]);
    }
    assert_int_equal(fx.model->writes, 0);
}

/* ---- Statistics ---- */

static void test_update_stats_composes_every_counter(void **state)
{
    const struct port_case *port = *state;
    uint64_t expected[MAX_STATS] = {0};
    uint64_t stats[MAX_STATS];

    make_port_up();
    fill_counters(1);
    port->d.ops->update_stats(0);

    assert_int_equal(fx.snapshot_reads, 1);
    assert_int_equal(reg(port->snapshot), 1);
    assert_int_equal(fx.counter_reads, fx.counter_registers);
    /* control, status, snapshot, then each counter register once */
    assert_int_equal(fx.model->reads, 3 + fx.counter_registers);
    assert_int_equal(fx.model->writes, 1);

    add_expected_counters(1, expected);
    assert_stats(expected);
    get_stats(stats);
    for (size_t i = 0; i < ARRAY_SIZE(port->samples); i++) {
        const struct counter_sample *sample = &port->samples[i];

        assert_int_equal(stats[sample->index],
                         (uint64_t)counter_value(sample->high, 1) << 32 |
                             counter_value(sample->low, 1));
    }
}

static void test_update_stats_accumulates(void **state)
{
    const struct port_case *port = *state;
    uint64_t expected[MAX_STATS] = {0};

    make_port_up();
    for (unsigned int round = 1; round <= 3; round++) {
        fill_counters(round);
        fx.snapshot_written = false;
        port->d.ops->update_stats(0);
        add_expected_counters(round, expected);
    }
    assert_stats(expected);
}

static void test_update_stats_while_down_takes_no_snapshot(void **state)
{
    const struct port_case *port = *state;
    uint64_t expected[MAX_STATS] = {0};

    make_port_up();
    fill_counters(1);
    port->d.ops->update_stats(0);
    add_expected_counters(1, expected);

    fill_counters(2);
    fx.snapshot_written = false;
    fx.snapshot_reads = 0;
    fx.counter_reads = 0;
    fx.model->reads = 0;
    fx.model->writes = 0;
    set_reg(port->control, 0);
    port->d.ops->update_stats(0);
    assert_int_equal(fx.model->reads, 1); /* the enable bit only */
    assert_int_equal(fx.model->writes, 0);

    set_reg(port->control, ENABLE_BIT);
    fx.align_after_resets = -1;
    fx.model->reads = 0;
    port->d.ops->update_stats(0);
    assert_int_equal(fx.model->reads, 2); /* enable bit, then status */
    assert_int_equal(fx.model->writes, 0);

    assert_int_equal(fx.snapshot_reads, 0);
    assert_int_equal(fx.counter_reads, 0);
    assert_false(fx.snapshot_written);
    assert_stats(expected);
}

static void test_get_stats_refuses_other_sizes(void **state)
{
    const struct port_case *port = *state;
    uint64_t stats[MAX_STATS];

    bt_expect_wrong_sizes(&port->d, 0, port->wrong_sizes,
                          ARRAY_SIZE(port->wrong_sizes));
    /* The exact size, and nothing written past the record. */
    get_stats(stats);
    for (size_t i = 0; i < port->stats_count; i++)
        assert_int_equal(stats[i], 0);
}

static void test_clear_stats_does_not_touch_hardware(void **state)
{
    const struct port_case *port = *state;
    uint64_t zero[MAX_STATS] = {0};
    uint64_t stats[MAX_STATS];

    make_port_up();
    fill_counters(1);
    port->d.ops->update_stats(0);
    get_stats(stats);
    assert_int_not_equal(stats[0], 0);

    fx.model->reads = 0;
    fx.model->writes = 0;
    assert_int_equal(port->d.ops->clear_stats(0), 0);
    assert_int_equal(fx.model->reads, 0);
    assert_int_equal(fx.model->writes, 0);
    assert_stats(zero);
}

/* ---- Fatal errors ---- */

static void assert_fatal_report(const struct port_case *port, const char *text)
{
    bt_expect_fatal(&port->d, 0, text);
}

static void test_error_row(void **state)
{
    const struct error_row *row = *state;

    set_reg(row->port->fatal_status, 1u << row->bit);
    assert_fatal_report(row->port, row->text);
    assert_int_equal(fx.model->writes, 0);
    assert_int_equal(reg(row->port->fatal_status), 1u << row->bit);
}

/* With a row's bit and every later row's bit set, the row's text wins. */
static void test_error_priority(void **state)
{
    const struct port_case *port = *state;

    for (size_t i = 0; i < port->error_count; i++) {
        uint32_t bits = 0;

        for (size_t later = i; later < port->error_count; later++)
            bits |= 1u << port->errors[later].bit;
        set_reg(port->fatal_status, bits);
        assert_fatal_report(port, port->errors[i].text);
    }
    set_reg(port->fatal_status, 0xFFFFFFFF);
    assert_fatal_report(port, port->errors[0].text);
    assert_int_equal(fx.model->writes, 0);
}

static void test_eth_bits_3_and_8_report_bit_8_every_call(void **state)
{
    (void)state;
    set_reg(0x1000, (1u << 3) | (1u << 8));
    assert_fatal_report(&eth_case,
                        "RX Straddle AXI4 Interface Multiple SOP error");
    assert_fatal_report(&eth_case,
                        "RX Straddle AXI4 Interface Multiple SOP error");
}

static void test_untested_bit_reports_nothing(void **state)
{
    const struct port_case *port = *state;

    set_reg(port->fatal_status, 1u << port->untested_bit);
    bt_expect_no_fatal(&port->d, 0);
    set_reg(port->fatal_status, 0);
    bt_expect_no_fatal(&port->d, 0);
}

/* ---- Receive-align monitor ---- */

static void test_rx_align_monitor_leaves_disabled_port(void **state)
{
    const struct port_case *port = *state;

    port->rx_align_monitor(0);
    assert_int_equal(fx.model->writes, 0);
    assert_int_equal(usleep_calls, 0);
}

static void test_rx_align_monitor_leaves_aligned_port(void **state)
{
    const struct port_case *port = *state;

    make_port_up();
    port->rx_align_monitor(0);
    assert_int_equal(fx.model->writes, 0);
    assert_int_equal(usleep_calls, 0);
}

static void test_rx_align_monitor_pulse_that_aligns(void **state)
{
    const struct port_case *port = *state;

    set_reg(port->control, ENABLE_BIT);
    fx.align_after_resets = 1;
    port->rx_align_monitor(0);
    expect_logf(LOG_INFO, "Informational - %s interface 0 receive aligned",
                port->d.name);
    assert_int_equal(fx.link_reset_sets, 1);
    assert_int_equal(fx.link_reset_clears, 1);
    assert_int_equal(fx.sleeps_in_link_reset, 1);
    assert_int_equal(usleep_calls, 1);
    assert_int_equal(usleep_total_us, 100);
    assert_int_equal(reg(port->control), ENABLE_BIT);
}

static void test_rx_align_monitor_pulse_without_align_is_silent(void **state)
{
    const struct port_case *port = *state;

    set_reg(port->control, ENABLE_BIT);
    port->rx_align_monitor(0);
    assert_int_equal(fx.link_reset_sets, 1);
    assert_int_equal(fx.link_reset_clears, 1);
    assert_int_equal(fx.sleeps_in_link_reset, 1);
    assert_int_equal(reg(port->control), ENABLE_BIT);
}

// clang-format off
#define CASE(f, setup, port) \
    { #f " (" #port ")", f, setup, teardown_port, (void *)&port }
// clang-format on
#define BOTH(f, setup) CASE(f, setup, eth_case), CASE(f, setup, caui_case)
#define BOTH_PORTS(f)  BOTH(f, setup_port)

/* Contexts are static and never destroyed: these need ones that no earlier
 * case has created, so they run first. */
static const struct CMUnitTest fresh_context_tests[] = {
    BOTH(test_failed_mutex_init_leaves_context_valid, setup_device),
    BOTH(test_pipe_1_refused_on_one_pipe_board, setup_one_pipe_device),
};

static const struct CMUnitTest tests[] = {
    cmocka_unit_test(test_ops_tables),
    BOTH_PORTS(test_create_refuses_null_regs),
    BOTH_PORTS(test_create_refuses_pipe_2),
    BOTH_PORTS(test_create_clears_loopback_field_and_flag),
    CASE(test_caui_pipe_1_uses_its_own_registers, setup_port, caui_case),
    BOTH_PORTS(test_null_output_refused_before_pipe),
    BOTH_PORTS(test_invalid_pipe_refused),
    BOTH_PORTS(test_invalid_loopback_type_refused),
    BOTH_PORTS(test_disable_sets_bit_11_then_clears_bit_8),
    BOTH_PORTS(test_enable_already_aligned_does_not_sleep),
    BOTH_PORTS(test_enable_aligned_after_second_link_reset),
    BOTH_PORTS(test_enable_never_aligned_still_succeeds),
    BOTH_PORTS(test_get_interface_state_needs_enable_and_aligned),
    BOTH_PORTS(test_loopback_each_type),
    BOTH_PORTS(test_loopback_already_enabled),
    BOTH_PORTS(test_disable_all_without_loopback),
    BOTH_PORTS(test_get_loopback_codes),
    BOTH_PORTS(test_update_stats_composes_every_counter),
    BOTH_PORTS(test_update_stats_accumulates),
    BOTH_PORTS(test_update_stats_while_down_takes_no_snapshot),
    BOTH_PORTS(test_get_stats_refuses_other_sizes),
    BOTH_PORTS(test_clear_stats_does_not_touch_hardware),
    BOTH_PORTS(test_error_priority),
    CASE(test_eth_bits_3_and_8_report_bit_8_every_call, setup_port, eth_case),
    BOTH_PORTS(test_untested_bit_reports_nothing),
    BOTH_PORTS(test_rx_align_monitor_leaves_disabled_port),
    BOTH_PORTS(test_rx_align_monitor_leaves_aligned_port),
    BOTH_PORTS(test_rx_align_monitor_pulse_that_aligns),
    BOTH_PORTS(test_rx_align_monitor_pulse_without_align_is_silent),
};

/* One case per row of both error tables, named after the row. */
static struct CMUnitTest
    error_row_tests[ARRAY_SIZE(eth_rows) + ARRAY_SIZE(caui_rows)];
static char error_row_names[ARRAY_SIZE(error_row_tests)][96];

static void add_error_rows(const struct error_row *rows, size_t count,
                           size_t *next)
{
    for (size_t i = 0; i < count; i++, (*next)++) {
        snprintf(error_row_names[*next], sizeof(error_row_names[*next]),
                 "test_error_row (%s bit %u)", rows[i].port->d.name,
                 rows[i].bit);
        error_row_tests[*next] = (struct CMUnitTest){
            error_row_names[*next], test_error_row,   setup_error_row,
            teardown_port,          (void *)&rows[i],
        };
    }
}

int main(void)
{
    size_t next = 0;
    int failures;

    if (enter_private_tmp() != 0 || !build_counters(&eth_case) ||
        !build_counters(&caui_case))
        return 1;
    add_error_rows(eth_rows, ARRAY_SIZE(eth_rows), &next);
    add_error_rows(caui_rows, ARRAY_SIZE(caui_rows), &next);
    failures = cmocka_run_group_tests_name("port fresh contexts",
                                           fresh_context_tests, NULL, NULL);
    failures += cmocka_run_group_tests_name("port", tests, NULL, NULL);
    failures += cmocka_run_group_tests_name("port error tables",
                                            error_row_tests, NULL, NULL);
    return failures;
}
