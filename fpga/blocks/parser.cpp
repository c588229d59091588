/* Ingress packet parser: the QoS profile table, the traffic
 * counters and the fatal-error bits of the block. `parser` (base image) and
 * `lhx_parser` (LHX image) differ only in display name, module id and
 * contexts; everything else is the tables below and the shared core. */
#include "parser.hpp"

#include <stddef.h>

#include "lh_block.hpp"
#include "lh_device.hpp"
#include "lh_drivers.hpp"
#include "lh_log.hpp"
#include "lh_regs.hpp"

/* Register map, offsets from the block base. */
#define PARSER_FATAL_STATUS   0x00
#define PARSER_QOS_INDEX      0xE0 /* selects the row seen at PARSER_QOS_PRIO */
#define PARSER_QOS_INDEX_LSB  0
#define PARSER_QOS_INDEX_BITS 7
#define PARSER_QOS_PRIO       0xE4
#define PARSER_QOS_PRIO_LSB   0
#define PARSER_QOS_PRIO_BITS  2

#define QOS_SET_WORDS "QoS set profile"
#define QOS_GET_WORDS "QoS get profile"

#define FATAL(bit, text)                                                       \
    {                                                                          \
        PARSER_FATAL_STATUS, (bit), (text)                                     \
    }

static const struct lh_error_bit fatal_errors[] = {
    FATAL(16, "Meta Data FIFO Parity Error"),
    FATAL(15, "Packet Length FIFO Parity Error"),
    FATAL(14, "Meta Data FIFO Overflow"),
    FATAL(13, "Packet Length FIFO Overflow"),
    FATAL(12, "High Priority Burst buffer Overflow"),
    FATAL(11, "Medium Priority Burst buffer Overflow"),
    FATAL(10, "Low Priority Burst buffer Overflow"),
    /* Bit 9 twice and bit 8 never: the hardware keeps them so. */
    FATAL(9, "Meta Data FIFO Underflow"),
    FATAL(9, "Packet Length FIFO Underflow"),
    FATAL(7, "High Priority Burst buffer Underflow"),
    FATAL(6, "Medium Priority Burst buffer Underflow"),
    FATAL(5, "Low Priority Burst buffer Underflow"),
    FATAL(4, "High Priority Burst buffer Double bit ECC Error"),
    FATAL(3, "Medium Priority Burst buffer Double bit ECC Error"),
    FATAL(2, "Low Priority Burst buffer Double bit ECC Error"),
    FATAL(1, "Parser Engine Meta Data Cycle Number Error"),
    FATAL(0, "Priority Table Parity Error"),
};

/* The statistics record, in order. */
static const struct lh_counter_source counters[] = {
    LH_COUNTER64(0x50, 0x54), LH_COUNTER32(0x58), LH_COUNTER32(0x5C),
    LH_COUNTER64(0x60, 0x64), LH_COUNTER32(0x68), LH_COUNTER32(0x6C),
    LH_COUNTER64(0x70, 0x74), LH_COUNTER32(0x78), LH_COUNTER32(0x7C),
    LH_COUNTER32(0x80),       LH_COUNTER32(0x84), LH_COUNTER32(0x88),
    LH_COUNTER32(0x8C),       LH_COUNTER32(0x90), LH_COUNTER32(0x94),
};

static_assert(LH_ARRAY_SIZE(counters) == PARSER_COUNTER_COUNT,
               "one source per counter of the statistics record");

/* Names of lh_qos_priority_t, which is also the value of the priority
 * field. */
static const char *const priority_names[] = {"LOW", "MED", "HIGH"};

/* The priority a field value reads as: 3 is never written and reads LOW. */
static const lh_qos_priority_t priority_of_field[] = {
    LH_QOS_PRIO_LOW,
    LH_QOS_PRIO_MED,
    LH_QOS_PRIO_HIGH,
    LH_QOS_PRIO_LOW,
};

struct parser_ctx {
    struct lh_block_ctx block;
    uint32_t qos_profile_count = 0;
    uint64_t stats[PARSER_COUNTER_COUNT] = {};
};

#define PARSER_BLOCK(display_name, module, ctxs)                               \
    {                                                                          \
        .name = (display_name), .module_id = (module),                         \
        .contexts = {&(ctxs)[0].block, &(ctxs)[1].block},                      \
        .errors = fatal_errors, .error_count = LH_ARRAY_SIZE(fatal_errors),    \
        .counters = counters, .counter_count = LH_ARRAY_SIZE(counters),        \
        .stats_size = PARSER_STATS_SIZE,                                       \
        .words = {"fatal error detection", "update stats", "get stats",        \
                  "clear stats"},                                              \
    }

static struct parser_ctx parser_ctxs[LH_MAX_PIPES] = {
    {.block = {.stats = parser_ctxs[0].stats}},
    {.block = {.stats = parser_ctxs[1].stats}},
};
static const struct lh_block_desc parser =
    PARSER_BLOCK("Ingress Pkt Parser", LH_MOD_INGRESS_PKT_PARSER, parser_ctxs);

static struct parser_ctx lhx_parser_ctxs[LH_MAX_PIPES] = {
    {.block = {.stats = lhx_parser_ctxs[0].stats}},
    {.block = {.stats = lhx_parser_ctxs[1].stats}},
};
static const struct lh_block_desc lhx_parser = PARSER_BLOCK(
    "LHX Ingress Pkt Parser", LH_MOD_LHX_INGRESS_PKT_PARSER, lhx_parser_ctxs);

static struct parser_ctx *parser_ctx(struct lh_block_ctx *ctx)
{
    return (struct parser_ctx *)ctx;
}

static void select_profile(volatile void *regs, uint32_t profile_id)
{
    lh_reg_write_field(regs, PARSER_QOS_INDEX, PARSER_QOS_INDEX_LSB,
                       PARSER_QOS_INDEX_BITS, profile_id);
}

static void write_priority(volatile void *regs, uint32_t priority)
{
    lh_reg_write_field(regs, PARSER_QOS_PRIO, PARSER_QOS_PRIO_LSB,
                       PARSER_QOS_PRIO_BITS, priority);
}

static uint32_t read_priority(volatile void *regs)
{
    return lh_reg_read_field(regs, PARSER_QOS_PRIO, PARSER_QOS_PRIO_LSB,
                             PARSER_QOS_PRIO_BITS);
}

static void reset_qos_table(volatile void *regs, uint32_t profile_count)
{
    for (uint32_t id = 0; id < profile_count; id++) {
        select_profile(regs, id);
        write_priority(regs, LH_QOS_PRIO_LOW);
    }
}

static int context_create(const struct lh_block_desc *block, uint32_t pipe,
                          volatile void *regs)
{
    lh_device_desc *device = NULL;
    struct lh_block_ctx *ctx;

    if (lh_block_check_create(block, pipe, regs) != 0)
        return -1;
    if (lh_pci_get_csr_device(&device) != 0 || device == NULL)
        return -1;
    ctx = block->contexts[pipe];
    ctx->regs = regs;
    parser_ctx(ctx)->qos_profile_count = device->qos_profile_count;
    reset_qos_table(regs, device->qos_profile_count);
    if (lh_block_init_stats(block, ctx) != 0)
        return -1;
    lh_block_mark_created(block, ctx, pipe);
    return 0;
}

/* The context of a QoS operation on `profile_id`, or null once the refusal
 * is logged; `words` names the operation in its messages. */
static struct lh_block_ctx *qos_context(const struct lh_block_desc *block,
                                        uint32_t pipe, uint32_t profile_id,
                                        const char *words)
{
    struct lh_block_ctx *ctx = lh_block_context(block, pipe, words, LOG_ERR);
    uint32_t count;

    if (ctx == NULL)
        return NULL;
    count = parser_ctx(ctx)->qos_profile_count;
    if (profile_id >= count) {
        lh_log(LOG_ERR,
               "%s - %s %s on pipe %d - invalid QoS profile id 0x%02x "
               "(valid range is [0x00-0x%02x])",
               LH_TAG(ERROR), block->name, words, pipe, profile_id, count - 1);
        return NULL;
    }
    return ctx;
}

static int qos_set_profile(const struct lh_block_desc *block, uint32_t pipe,
                           lh_qos_profile_t qos)
{
    const char *name = block->name;
    struct lh_block_ctx *ctx =
        qos_context(block, pipe, qos.profile_id, QOS_SET_WORDS);

    if (ctx == NULL)
        return -1;
    if (qos.priority >= LH_ARRAY_SIZE(priority_names)) {
        lh_log(LOG_ERR,
               "%s - %s QoS set profile on pipe %d - invalid QoS priority %d "
               "for profile id 0x%02x",
               LH_TAG(ERROR), name, pipe, qos.priority, qos.profile_id);
        return -1;
    }
    select_profile(ctx->regs, qos.profile_id);
    write_priority(ctx->regs, qos.priority);
    lh_log(LOG_INFO,
           "%s - %s set QoS profile id 0x%02x on pipe %d with priority %s",
           LH_TAG(INFO), name, qos.profile_id, pipe,
           priority_names[qos.priority]);
    return 0;
}

static int qos_get_profile(const struct lh_block_desc *block, uint32_t pipe,
                           lh_qos_profile_t *qos)
{
    struct lh_block_ctx *ctx;

    if (qos == NULL) {
        lh_block_log_null(block, QOS_GET_WORDS);
        return -1;
    }
    ctx = qos_context(block, pipe, qos->profile_id, QOS_GET_WORDS);
    if (ctx == NULL)
        return -1;
    select_profile(ctx->regs, qos->profile_id);
    qos->priority = priority_of_field[read_priority(ctx->regs)];
    return 0;
}

int parser_context_create(uint32_t pipe, volatile void *regs)
{
    return context_create(&parser, pipe, regs);
}

void parser_update_stats(uint32_t pipe)
{
    lh_block_update_stats(&parser, pipe);
}

int parser_get_stats(uint32_t pipe, void *buffer, uint64_t size)
{
    return lh_block_get_stats(&parser, pipe, buffer, size);
}

int parser_clear_stats(uint32_t pipe)
{
    return lh_block_clear_stats(&parser, pipe);
}

int parser_fatal_error_detect(uint32_t pipe, lh_fatal_error_t *report)
{
    return lh_block_fatal_error_detect(&parser, pipe, report);
}

int parser_qos_set_profile(uint32_t pipe, lh_qos_profile_t qos)
{
    return qos_set_profile(&parser, pipe, qos);
}

int parser_qos_get_profile(uint32_t pipe, lh_qos_profile_t *qos)
{
    return qos_get_profile(&parser, pipe, qos);
}

int lhx_parser_context_create(uint32_t pipe, volatile void *regs)
{
    return context_create(&lhx_parser, pipe, regs);
}

void lhx_parser_update_stats(uint32_t pipe)
{
    lh_block_update_stats(&lhx_parser, pipe);
}

int lhx_parser_get_stats(uint32_t pipe, void *buffer, uint64_t size)
{
    return lh_block_get_stats(&lhx_parser, pipe, buffer, size);
}

int lhx_parser_clear_stats(uint32_t pipe)
{
    return lh_block_clear_stats(&lhx_parser, pipe);
}

int lhx_parser_fatal_error_detect(uint32_t pipe, lh_fatal_error_t *report)
{
    return lh_block_fatal_error_detect(&lhx_parser, pipe, report);
}

int lhx_parser_qos_set_profile(uint32_t pipe, lh_qos_profile_t qos)
{
    return qos_set_profile(&lhx_parser, pipe, qos);
}

int lhx_parser_qos_get_profile(uint32_t pipe, lh_qos_profile_t *qos)
{
    return qos_get_profile(&lhx_parser, pipe, qos);
}

const struct lh_block_ops parser_ops = {
    .desc = &parser,
    .context_create = parser_context_create,
    .update_stats = parser_update_stats,
    .get_stats = parser_get_stats,
    .clear_stats = parser_clear_stats,
    .fatal_error_detect = parser_fatal_error_detect,
    .qos_set_profile = parser_qos_set_profile,
    .qos_get_profile = parser_qos_get_profile,
};

const struct lh_block_ops lhx_parser_ops = {
    .desc = &lhx_parser,
    .context_create = lhx_parser_context_create,
    .update_stats = lhx_parser_update_stats,
    .get_stats = lhx_parser_get_stats,
    .clear_stats = lhx_parser_clear_stats,
    .fatal_error_detect = lhx_parser_fatal_error_detect,
    .qos_set_profile = lhx_parser_qos_set_profile,
    .qos_get_profile = lhx_parser_qos_get_profile,
};
