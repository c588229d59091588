/* Ingress packet classifier: the traffic counters and the
 * fatal-error bits of the block's three status registers; the operations
 * are the shared core's. */
#include "pkt_class.hpp"

#include "lh_block.hpp"
#include "lh_drivers.hpp"

/* Register map, offsets from the block base. */
#define PKT_CLASS_FATAL_STATUS0 0x000
#define PKT_CLASS_FATAL_STATUS1 0x200
#define PKT_CLASS_FATAL_STATUS2 0x700

#define FATAL0(bit, text)                                                      \
    {                                                                          \
        PKT_CLASS_FATAL_STATUS0, (bit), (text)                                 \
    }
#define FATAL1(bit, text)                                                      \
    {                                                                          \
        PKT_CLASS_FATAL_STATUS1, (bit), (text)                                 \
    }
#define FATAL2(bit, text)                                                      \
    {                                                                          \
        PKT_CLASS_FATAL_STATUS2, (bit), (text)                                 \
    }

/* Test order. Status 0 bits 24..0 come before its bits 30..25, and
 * status 2 bit 4 repeats bit 6's text: the hardware keeps both so. Bits not
 * listed (status 0 bit 31, status 1 bits 31..14, status 2 bits 31..17) are
 * never tested. */
static const struct lh_error_bit fatal_errors[] = {
    FATAL0(24, "VF/DMA QID RAM Double bit ECC Error"),
    FATAL0(23, "Ingress Packet Classification Packet Bus Missing EOP Error"),
    FATAL0(22, "Ingress Packet Classification Packet Bus Missing SOP Error"),
    FATAL0(21, "Response FIFO4 Overflow"),
    FATAL0(20, "Response FIFO4 Underflow"),
    FATAL0(19, "Control FIFO4 Overflow"),
    FATAL0(18, "Control FIFO4 Underflow"),
    FATAL0(17, "Response FIFO3 Overflow"),
    FATAL0(16, "Response FIFO3 Underflow"),
    FATAL0(15, "Control FIFO3 Overflow"),
    FATAL0(14, "Control FIFO3 Underflow"),
    FATAL0(13, "Four Tuple Table Double bit ECC Error"),
    FATAL0(12, "Response FIFO2 Overflow"),
    FATAL0(11, "Response FIFO2 Underflow"),
    FATAL0(10, "Control FIFO2 Overflow"),
    FATAL0(9, "Control FIFO2 Underflow"),
    FATAL0(8, "Six Tuple Table Double bit ECC Error"),
    FATAL0(7, "Response FIFO1 Overflow"),
    FATAL0(6, "Response FIFO1 Underflow"),
    FATAL0(5, "Control FIFO1 Overflow"),
    FATAL0(4, "Control FIFO1 Underflow"),
    FATAL0(3, "Tunnel Table Double bit ECC Error"),
    FATAL0(2, "Control FIFO0 Overflow"),
    FATAL0(1, "Control FIFO0 Underflow"),
    FATAL0(0, "Option Table Double bit ECC Error"),
    FATAL0(30, "In-band Access Action Table Timeout Error"),
    FATAL0(29, "Inband Flow Manager Packet Bus Missing EOP Error"),
    FATAL0(28, "Inband Flow Manager Packet Bus Missing SOP Error"),
    FATAL0(27, "Inband Flow Manager FIFO Overflow"),
    FATAL0(26, "Inband Flow Manager FIFO Underflow"),
    FATAL0(25, "Inband Flow Manager RAM/FIFO Double bit ECC Error"),
    FATAL1(13, "Inband Stat Collection Timeout Error"),
    FATAL1(12, "Inband Stat Manager Packet Bus Missing EOP Error"),
    FATAL1(11, "Inband Stat Manager Packet Bus Missing SOP Error"),
    FATAL1(10, "Inband Stat Manager FIFO Overflow"),
    FATAL1(9, "Inband Stat Manager FIFO Underflow"),
    FATAL1(8, "Inband Stat Manager RAM/FIFO Double bit ECC Error"),
    /* "statitics": the hardware keeps it so. */
    FATAL1(7, "Time-out Error when reading statitics from hbm and acc_cache"),
    FATAL1(6, "Stat Read Flow Missing Error. Flow id mismatch between read "
              "request and response from stat table"),
    FATAL1(5, "Stat FIFO Overflow"),
    FATAL1(4, "Stat FIFO Underflow"),
    FATAL1(3, "Stat FIFO Parity Error"),
    FATAL1(2, "Statistics AG RAM Double bit ECC Error"),
    FATAL1(1, "Statistics ACC RAM Double bit ECC Error"),
    FATAL1(0, "Statistics HBM_RL RAM Double bit ECC Error"),
    FATAL2(16, "Key Table (Cache) Double bit ECC Error"),
    FATAL2(15, "Timestamp Table (Cache) Double bit ECC Error"),
    FATAL2(14, "Action Rule Table (Cache) Double bit ECC error"),
    FATAL2(13, "Lookup FIFO Overflow"),
    FATAL2(12, "Lookup FIFO Underflow"),
    FATAL2(11, "Key Pending FIFO Overflow"),
    FATAL2(10, "Key Pending FIFO Underflow"),
    FATAL2(9, "DDR4 Read FIFO Overflow"),
    FATAL2(8, "DDR4 Read FIFO Underflow"),
    FATAL2(7, "Reorder FIFO Overflow"),
    FATAL2(6, "Reorder FIFO Underflow"),
    FATAL2(5, "Insert FIFO Overflow"),
    FATAL2(4, "Reorder FIFO Underflow"),
    FATAL2(3, "Cache Response FIFO Overflow"),
    FATAL2(2, "Cache Response FIFO Underflow"),
    FATAL2(1, "DDR4 Response FIFO Overflow"),
    FATAL2(0, "DDR4 Response FIFO Underflow"),
};

/* The statistics record, in order, written out: 83
 * registers in all. Counters 0..11 are the pairs 0x20/0x24 .. 0x78/0x7C;
 * then runs of single registers: 12..22 from 0x80, 23..35 from 0xF0,
 * 36..54 from 0x220, 55..64 from 0x288, 65..70 from 0x720. */
static const struct lh_counter_source counters[] = {
    LH_COUNTER64(0x20, 0x24), LH_COUNTER64(0x28, 0x2C),
    LH_COUNTER64(0x30, 0x34), LH_COUNTER64(0x38, 0x3C),
    LH_COUNTER64(0x40, 0x44), LH_COUNTER64(0x48, 0x4C),
    LH_COUNTER64(0x50, 0x54), LH_COUNTER64(0x58, 0x5C),
    LH_COUNTER64(0x60, 0x64), LH_COUNTER64(0x68, 0x6C),
    LH_COUNTER64(0x70, 0x74), LH_COUNTER64(0x78, 0x7C),
    LH_COUNTER32(0x80),       LH_COUNTER32(0x84),
    LH_COUNTER32(0x88),       LH_COUNTER32(0x8C),
    LH_COUNTER32(0x90),       LH_COUNTER32(0x94),
    LH_COUNTER32(0x98),       LH_COUNTER32(0x9C),
    LH_COUNTER32(0xA0),       LH_COUNTER32(0xA4),
    LH_COUNTER32(0xA8),       LH_COUNTER32(0xF0),
    LH_COUNTER32(0xF4),       LH_COUNTER32(0xF8),
    LH_COUNTER32(0xFC),       LH_COUNTER32(0x100),
    LH_COUNTER32(0x104),      LH_COUNTER32(0x108),
    LH_COUNTER32(0x10C),      LH_COUNTER32(0x110),
    LH_COUNTER32(0x114),      LH_COUNTER32(0x118),
    LH_COUNTER32(0x11C),      LH_COUNTER32(0x120),
    LH_COUNTER32(0x220),      LH_COUNTER32(0x224),
    LH_COUNTER32(0x228),      LH_COUNTER32(0x22C),
    LH_COUNTER32(0x230),      LH_COUNTER32(0x234),
    LH_COUNTER32(0x238),      LH_COUNTER32(0x23C),
    LH_COUNTER32(0x240),      LH_COUNTER32(0x244),
    LH_COUNTER32(0x248),      LH_COUNTER32(0x24C),
    LH_COUNTER32(0x250),      LH_COUNTER32(0x254),
    LH_COUNTER32(0x258),      LH_COUNTER32(0x25C),
    LH_COUNTER32(0x260),      LH_COUNTER32(0x264),
    LH_COUNTER32(0x268),      LH_COUNTER32(0x288),
    LH_COUNTER32(0x28C),      LH_COUNTER32(0x290),
    LH_COUNTER32(0x294),      LH_COUNTER32(0x298),
    LH_COUNTER32(0x29C),      LH_COUNTER32(0x2A0),
    LH_COUNTER32(0x2A4),      LH_COUNTER32(0x2A8),
    LH_COUNTER32(0x2AC),      LH_COUNTER32(0x720),
    LH_COUNTER32(0x724),      LH_COUNTER32(0x728),
    LH_COUNTER32(0x72C),      LH_COUNTER32(0x730),
    LH_COUNTER32(0x734),
};

static_assert(LH_ARRAY_SIZE(counters) == PKT_CLASS_COUNTER_COUNT,
               "one source per counter of the statistics record");

struct pkt_class_ctx {
    struct lh_block_ctx block;
    uint64_t stats[PKT_CLASS_COUNTER_COUNT] = {};
};

static struct pkt_class_ctx pkt_class_ctxs[LH_MAX_PIPES] = {
    {.block = {.stats = pkt_class_ctxs[0].stats}},
    {.block = {.stats = pkt_class_ctxs[1].stats}},
};

static const struct lh_block_desc pkt_class = {
    .name = "Ingress Pkt Classifier",
    .module_id = LH_MOD_INGRESS_PKT_CLASSIFIER,
    .contexts = {&pkt_class_ctxs[0].block, &pkt_class_ctxs[1].block},
    .errors = fatal_errors,
    .error_count = LH_ARRAY_SIZE(fatal_errors),
    .counters = counters,
    .counter_count = LH_ARRAY_SIZE(counters),
    .stats_size = PKT_CLASS_STATS_SIZE,
    .words = {"fatal error detection", "update stats", "get stats",
              "clear stats"},
};

int pkt_class_context_create(uint32_t pipe, volatile void *regs)
{
    return lh_block_context_create(&pkt_class, pipe, regs);
}

void pkt_class_update_stats(uint32_t pipe)
{
    lh_block_update_stats(&pkt_class, pipe);
}

int pkt_class_get_stats(uint32_t pipe, void *buffer, uint64_t size)
{
    return lh_block_get_stats(&pkt_class, pipe, buffer, size);
}

int pkt_class_clear_stats(uint32_t pipe)
{
    return lh_block_clear_stats(&pkt_class, pipe);
}

int pkt_class_fatal_error_detect(uint32_t pipe, lh_fatal_error_t *report)
{
    return lh_block_fatal_error_detect(&pkt_class, pipe, report);
}

const struct lh_block_ops pkt_class_ops = {
    .desc = &pkt_class,
    .context_create = pkt_class_context_create,
    .update_stats = pkt_class_update_stats,
    .get_stats = pkt_class_get_stats,
    .clear_stats = pkt_class_clear_stats,
    .fatal_error_detect = pkt_class_fatal_error_detect,
};
