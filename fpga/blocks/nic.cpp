/* The NIC blocks: global and per-queue counters and the fatal
 * error bits of the QDMA, buffer, queue and traffic managers. `nic` and
 * `lhx_nic` share every operation; their variants hold what differs: the
 * display name, the queue select field and two error-table rows. */
#include "nic.hpp"

#include <pthread.h>
#include <string.h>

#include "lh_block.hpp"
#include "lh_drivers.hpp"
#include "lh_field.hpp"
#include "lh_log.hpp"
#include "lh_regs.hpp"

/* Register map, offsets from the block base. */
#define NIC_FATAL_STATUS0    0x00
#define NIC_FATAL_STATUS1    0x20
#define NIC_FATAL_STATUS2    0x30
#define NIC_QUEUE_SELECT     0xC0 /* picks the queue and bank seen below */
#define NIC_QUEUE_DATA_HIGH  0xC4
#define NIC_QUEUE_DATA_LOW   0xC8
#define NIC_QUEUE_SELECT_LSB 0

/* Fields of NIC_QUEUE_DATA_HIGH: a 16-bit counter above bits 47..32 of
 * the 48-bit counter whose low word is NIC_QUEUE_DATA_LOW. */
#define NIC_COUNTER16_LSB   16
#define NIC_COUNTER16_WIDTH 16
#define NIC_COUNTER48_LSB   0
#define NIC_COUNTER48_WIDTH 16

/* The last index of the queue array. */
#define NIC_MAX_QUEUE_ID (NIC_QUEUES - 1)

struct nic_ctx {
    struct lh_block_ctx block;
    struct nic_stats stats = {};
    uint32_t max_queue_id = 0;
};

struct nic_variant {
    struct lh_block_desc block;
    unsigned int select_width;   /* of the queue select field */
    uint32_t second_bank_offset; /* added to the queue id, modulo the field */
};

/* The record, in order: 0x88 and 0x8C before 0x70, and 0xF8 between 0x84
 * and 0x90 (the hardware keeps it so). */
static const struct lh_counter_source global_counters[] = {
    LH_COUNTER64(0x50, 0x54),
    LH_COUNTER64(0x58, 0x5C),
    LH_COUNTER64(0x60, 0x64),
    LH_COUNTER64(0x68, 0x6C),
    LH_COUNTER32(0x88),
    LH_COUNTER32(0x8C),
    LH_COUNTER32(0x70),
    LH_COUNTER32(0x74),
    LH_COUNTER32(0x78),
    LH_COUNTER32(0x7C),
    LH_COUNTER32(0x80),
    LH_COUNTER32(0x84),
    LH_COUNTER32(0xF8),
    LH_COUNTER32(0x90),
    LH_COUNTER32(0x94),
    LH_COUNTER32(0x98),
    LH_COUNTER32(0x9C),
    LH_COUNTER32(0xA0),
    LH_COUNTER32(0xA4),
    LH_COUNTER32(0xA8),
    LH_COUNTER32(0xAC),
};

static_assert(LH_ARRAY_SIZE(global_counters) == NIC_GLOBAL_COUNTERS,
               "one source per global counter of the record");

/* The error table is written once in pieces around the two rows where the
 * drivers differ: register 0x00 bit 12 and register 0x30 bit 4. */
#define STATUS0(bit, text) {NIC_FATAL_STATUS0, (bit), (text)}
#define STATUS1(bit, text) {NIC_FATAL_STATUS1, (bit), (text)}
#define STATUS2(bit, text) {NIC_FATAL_STATUS2, (bit), (text)}

#define STATUS0_BITS_19_TO_13                                                  \
    STATUS0(19, "H2C Descriptor Memory Double bit ECC Error"),                 \
        STATUS0(18, "C2H Descriptor Memory Double bit ECC Error"),             \
        STATUS0(17, "NIC Egr Path FIFO Double bit ECC Error"),                 \
        STATUS0(16, "TM Out Packet Buffer Double bit ECC Error"),              \
        STATUS0(15, "NIC Ingr In-band Input Packet Buffer Double bit ECC "     \
                    "Error"),                                                  \
        STATUS0(14, "NIC Ingr Normal Traffic Input Packet Buffer Double bit "  \
                    "ECC Error"),                                              \
        STATUS0(13, "TM Counters per Q Parity Error")

#define STATUS0_BITS_11_TO_0                                                   \
    STATUS0(11, "NIC Egr Path FIFO Overflow"),                                 \
        STATUS0(10, "NIC Egr Path FIFO Underflow"),                            \
        STATUS0(9, "TM Out Packet Buffer Overflow"),                           \
        STATUS0(8, "TM Out Packet Buffer Underflow"),                          \
        STATUS0(7, "NIC Ingr In-band Input FIFO Overflow"),                    \
        STATUS0(6, "NIC Ingr In-band Input FIFO Underflow"),                   \
        STATUS0(5, "NIC Ingr Normal Traffic Input Packet Buffer Overflow"),    \
        STATUS0(4, "NIC Ingr Normal Traffic Input Packet Buffer Underflow"),   \
        STATUS0(3, "NIC TOP TM TX Missing EOP Error"),                         \
        STATUS0(2, "NIC TOP TM TX Missing SOP Error"),                         \
        STATUS0(1, "NIC TOP TM RX Missing EOP Error"),                         \
        STATUS0(0, "NIC TOP TM RX Missing SOP Error")

/* Bit 17 is tested once: a second test of it could never report. */
#define STATUS1_BITS_29_TO_0                                                   \
    STATUS1(29, "BudM Linked List Parity Error"),                              \
        STATUS1(28, "BudM Tail Bud Parity Error"),                             \
        STATUS1(27, "BudM Memory Parity Error"),                               \
        STATUS1(26, "BudM Tail Pointer Parity Error"),                         \
        STATUS1(25, "BudM Head Pointer Parity Error"),                         \
        STATUS1(24, "BudM Free List Parity Error"),                            \
        STATUS1(23, "Credit FIFO Overflow"),                                   \
        STATUS1(22, "Credit FIFO Underflow"),                                  \
        STATUS1(21, "BudM Free List Overflow"),                                \
        STATUS1(20, "BudM Free List Underflow"),                               \
        STATUS1(19, "C2H Descriptor Memory Overflow"),                         \
        STATUS1(18, "C2H Descriptor Memory Underflow"),                        \
        STATUS1(17, "QM Guaranteed List Overflow"),                            \
        STATUS1(16, "QM Queue Underflow"),                                     \
        STATUS1(15, "QM Linked List Parity Error"),                            \
        STATUS1(14, "QM Tail Pointer Parity Error"),                           \
        STATUS1(13, "QM Head Pointer Parity Error"),                           \
        STATUS1(12, "QM Free List Parity Error"),                              \
        STATUS1(11, "Data Rd Request FIFO Overflow"),                          \
        STATUS1(10, "Data Rd Request FIFO Underflow"),                         \
        STATUS1(9, "Data Wr Request FIFO Overflow"),                           \
        STATUS1(8, "Data Wr Request FIFO Underflow"),                          \
        STATUS1(7, "Dequeue Request FIFO Overflow"),                           \
        STATUS1(6, "Dequeue Request FIFO Underflow"),                          \
        STATUS1(5, "Enqueue Request FIFO Overflow"),                           \
        STATUS1(4, "Enqueue Request FIFO Underflow"),                          \
        STATUS1(3, "Free List Request FIFO Overflow"),                         \
        STATUS1(2, "Free List Request FIFO Underflow"),                        \
        STATUS1(1, "QM Free List Overflow"),                                   \
        STATUS1(0, "QM Free List Underflow")

#define STATUS2_BITS_19_TO_5                                                   \
    STATUS2(19, "H2C Descriptor Out FIFO Overflow"),                           \
        STATUS2(18, "H2C Descriptor Out FIFO Underflow"),                      \
        STATUS2(17, "H2C Descriptor In FIFO Overflow"),                        \
        STATUS2(16, "H2C Descriptor In FIFO Underflow"),                       \
        STATUS2(15, "Credit Out FIFO Overflow"),                               \
        STATUS2(14, "Credit Out FIFO Underflow"),                              \
        STATUS2(13, "Credit In FIFO Overflow"),                                \
        STATUS2(12, "Credit In FIFO Underflow"),                               \
        STATUS2(11, "Credit Request FIFO Overflow"),                           \
        STATUS2(10, "Credit Request FIFO Underflow"),                          \
        STATUS2(9, "Descriptor Update FIFO Overflow"),                         \
        STATUS2(8, "Descriptor Update FIFO Underflow"),                        \
        STATUS2(7, "QDMA C2H Bypass Descriptor Size Error"),                   \
        STATUS2(6, "QDMA C2H Bypass Descriptor Path Error"),                   \
        STATUS2(5, "QDMA Credit Update Error")

#define STATUS2_BITS_3_TO_0                                                    \
    STATUS2(3, "QDMA H2C Path Error"),                                         \
        STATUS2(2, "QDMA H2C Empty Beat Error"),                               \
        STATUS2(1, "QDMA H2C Bypass Descriptor Size Error"),                   \
        STATUS2(0, "QDMA H2C Bypass Descriptor Path Error")

static const struct lh_error_bit nic_errors[] = {
    STATUS0_BITS_19_TO_13,
    STATUS0(12, "TM Shared Memory (URAMs) Double bit ECC Error"),
    STATUS0_BITS_11_TO_0,
    STATUS1_BITS_29_TO_0,
    STATUS2_BITS_19_TO_5,
    /* Bit 4 is not tested on nic (the hardware keeps it so). */
    STATUS2_BITS_3_TO_0,
};

static const struct lh_error_bit lhx_nic_errors[] = {
    STATUS0_BITS_19_TO_13,
    STATUS0(12, "TM Shared Memory (URAMs) Parity Error"),
    STATUS0_BITS_11_TO_0,
    STATUS1_BITS_29_TO_0,
    STATUS2_BITS_19_TO_5,
    STATUS2(4, "QDMA H2C Data Parity Error"),
    STATUS2_BITS_3_TO_0,
};

#define NIC_BLOCK(display_name, module, ctxs, error_table)                     \
    {                                                                          \
        .name = (display_name), .module_id = (module),                         \
        .contexts = {&(ctxs)[0].block, &(ctxs)[1].block},                      \
        .errors = (error_table), .error_count = LH_ARRAY_SIZE(error_table),    \
        .counters = global_counters,                                           \
        .counter_count = LH_ARRAY_SIZE(global_counters),                       \
        .stats_size = sizeof(struct nic_stats),                                \
        .words = {"module fatal error detection", "update stats",              \
                  "get stats", "clear stats"},                                 \
    }

/* The core sees the record as 64-bit words from its start. */
static struct nic_ctx nic_ctxs[LH_MAX_PIPES] = {
    {.block = {.stats = nic_ctxs[0].stats.global}},
    {.block = {.stats = nic_ctxs[1].stats.global}},
};
static const struct nic_variant nic = {
    .block = NIC_BLOCK("NIC", LH_MOD_NIC, nic_ctxs, nic_errors),
    .select_width = 9,
    .second_bank_offset = 0x100,
};

static struct nic_ctx lhx_nic_ctxs[LH_MAX_PIPES] = {
    {.block = {.stats = lhx_nic_ctxs[0].stats.global}},
    {.block = {.stats = lhx_nic_ctxs[1].stats.global}},
};
/* The 8-bit field makes queue 128 alias queue 0 with its banks swapped
 * (the hardware keeps it so). */
static const struct nic_variant lhx_nic = {
    .block = NIC_BLOCK("LHX NIC", LH_MOD_LHX_NIC, lhx_nic_ctxs,
                       lhx_nic_errors),
    .select_width = 8,
    .second_bank_offset = 0x80,
};

static struct nic_ctx *nic_ctx(struct lh_block_ctx *ctx)
{
    return (struct nic_ctx *)ctx;
}

static int context_create(const struct nic_variant *variant, uint32_t pipe,
                          volatile void *regs)
{
    const struct lh_block_desc *block = &variant->block;
    struct lh_block_ctx *ctx;
    uint32_t max_queue_id;

    if (lh_block_check_create(block, pipe, regs) != 0)
        return -1;
    max_queue_id = lh_get_max_queue_id();
    if (max_queue_id > NIC_MAX_QUEUE_ID) {
        lh_log(LOG_CRIT,
               "%s - %s module context create -  max queue id (%d) is out of "
               "bounds (%d)",
               LH_TAG(ERROR), block->name, max_queue_id, NIC_MAX_QUEUE_ID);
        return -1;
    }
    ctx = block->contexts[pipe];
    ctx->regs = regs;
    if (lh_block_init_stats(block, ctx) != 0)
        return -1;
    nic_ctx(ctx)->max_queue_id = max_queue_id;
    lh_block_mark_created(block, ctx, pipe);
    return 0;
}

static void select_queue(const struct nic_variant *variant,
                         volatile void *regs, uint32_t select)
{
    lh_reg_write_field(regs, NIC_QUEUE_SELECT, NIC_QUEUE_SELECT_LSB,
                       variant->select_width, select);
}

static uint32_t second_bank(const struct nic_variant *variant, uint32_t queue)
{
    return (queue + variant->second_bank_offset) &
           lh_field_mask(variant->select_width);
}

/* The data pair of the selected queue and bank, the high word first. */
static void read_bank(volatile void *regs, uint32_t *high, uint32_t *low)
{
    *high = lh_reg_read(regs, NIC_QUEUE_DATA_HIGH);
    *low = lh_reg_read(regs, NIC_QUEUE_DATA_LOW);
}

static uint64_t counter48(uint32_t high, uint32_t low)
{
    uint64_t upper =
        lh_field_get(high, NIC_COUNTER48_LSB, NIC_COUNTER48_WIDTH);

    return upper << 32 | low;
}

/* The second bank's 16-bit counter is not used. */
static void read_queue(const struct nic_variant *variant, volatile void *regs,
                       uint32_t queue, struct nic_queue_stats *entry)
{
    uint32_t high, low;

    select_queue(variant, regs, queue);
    read_bank(regs, &high, &low);
    entry->counters[0] =
        lh_field_get(high, NIC_COUNTER16_LSB, NIC_COUNTER16_WIDTH);
    entry->counters[1] = counter48(high, low);
    entry->present = 1;
    select_queue(variant, regs, second_bank(variant, queue));
    read_bank(regs, &high, &low);
    entry->counters[2] = counter48(high, low);
}

static void add_queue(struct nic_queue_stats *total,
                      const struct nic_queue_stats *polled)
{
    total->present = 1;
    for (size_t i = 0; i < NIC_QUEUE_COUNTERS; i++)
        total->counters[i] += polled->counters[i];
}

/* The mutex covers the additions only; the registers are read before. */
static void update_stats(const struct nic_variant *variant, uint32_t pipe)
{
    const struct lh_block_desc *block = &variant->block;
    struct lh_block_ctx *ctx =
        lh_block_context(block, pipe, block->words.update, LOG_CRIT);
    uint64_t global[NIC_GLOBAL_COUNTERS];
    struct nic_queue_stats polled[NIC_QUEUES];
    struct nic_stats *stats;
    uint32_t max_queue_id;

    if (ctx == NULL)
        return;
    stats = &nic_ctx(ctx)->stats;
    max_queue_id = nic_ctx(ctx)->max_queue_id;
    lh_block_read_counters(ctx->regs, block->counters, block->counter_count,
                           global);
    memset(polled, 0, sizeof(polled));
    for (uint32_t queue = 0; queue <= max_queue_id; queue++)
        read_queue(variant, ctx->regs, queue, &polled[queue]);

    pthread_mutex_lock(&ctx->lock);
    for (size_t i = 0; i < NIC_GLOBAL_COUNTERS; i++)
        stats->global[i] += global[i];
    for (uint32_t queue = 0; queue <= max_queue_id; queue++)
        if (polled[queue].present)
            add_queue(&stats->queues[queue], &polled[queue]);
    pthread_mutex_unlock(&ctx->lock);
}

int nic_context_create(uint32_t pipe, volatile void *regs)
{
    return context_create(&nic, pipe, regs);
}

void nic_update_stats(uint32_t pipe)
{
    update_stats(&nic, pipe);
}

int nic_get_stats(uint32_t pipe, void *buffer, uint64_t size)
{
    return lh_block_get_stats(&nic.block, pipe, buffer, size);
}

int nic_clear_stats(uint32_t pipe)
{
    return lh_block_clear_stats(&nic.block, pipe);
}

int nic_fatal_error_detect(uint32_t pipe, lh_fatal_error_t *report)
{
    return lh_block_fatal_error_detect(&nic.block, pipe, report);
}

int lhx_nic_context_create(uint32_t pipe, volatile void *regs)
{
    return context_create(&lhx_nic, pipe, regs);
}

void lhx_nic_update_stats(uint32_t pipe)
{
    update_stats(&lhx_nic, pipe);
}

int lhx_nic_get_stats(uint32_t pipe, void *buffer, uint64_t size)
{
    return lh_block_get_stats(&lhx_nic.block, pipe, buffer, size);
}

int lhx_nic_clear_stats(uint32_t pipe)
{
    return lh_block_clear_stats(&lhx_nic.block, pipe);
}

int lhx_nic_fatal_error_detect(uint32_t pipe, lh_fatal_error_t *report)
{
    return lh_block_fatal_error_detect(&lhx_nic.block, pipe, report);
}

const struct lh_block_ops nic_ops = {
    .desc = &nic.block,
    .context_create = nic_context_create,
    .update_stats = nic_update_stats,
    .get_stats = nic_get_stats,
    .clear_stats = nic_clear_stats,
    .fatal_error_detect = nic_fatal_error_detect,
};

const struct lh_block_ops lhx_nic_ops = {
    .desc = &lhx_nic.block,
    .context_create = lhx_nic_context_create,
    .update_stats = lhx_nic_update_stats,
    .get_stats = lhx_nic_get_stats,
    .clear_stats = lhx_nic_clear_stats,
    .fatal_error_detect = lhx_nic_fatal_error_detect,
};
