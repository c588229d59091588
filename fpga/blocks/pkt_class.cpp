/* Ingress packet classifier: the traffic counters and the
 * fatal-error bits of the block's three status registers; the operations
 * are the shared core's. */
#include "pkt_class.hpp"

#include "lh_block.hpp"
#include "lh_drivers.hpp"

namespace {

/* Register map, offsets from the block base. */
constexpr uint32_t fatal_status0 = 0x000;
constexpr uint32_t fatal_status1 = 0x200;
constexpr uint32_t fatal_status2 = 0x700;

/* Test order. Status 0 bits 24..0 come before its bits 30..25, and
 * status 2 bit 4 repeats bit 6's text: the hardware keeps both so. Bits not
 * listed (status 0 bit 31, status 1 bits 31..14, status 2 bits 31..17) are
 * never tested. */
constexpr lh_error_bit fatal_errors[] = {
    {fatal_status0, 24, "VF/DMA QID RAM Double bit ECC Error"},
    {fatal_status0, 23,
     "Ingress Packet Classification Packet Bus Missing EOP Error"},
    {fatal_status0, 22,
     "Ingress Packet Classification Packet Bus Missing SOP Error"},
    {fatal_status0, 21, "Response FIFO4 Overflow"},
    {fatal_status0, 20, "Response FIFO4 Underflow"},
    {fatal_status0, 19, "Control FIFO4 Overflow"},
    {fatal_status0, 18, "Control FIFO4 Underflow"},
    {fatal_status0, 17, "Response FIFO3 Overflow"},
    {fatal_status0, 16, "Response FIFO3 Underflow"},
    {fatal_status0, 15, "Control FIFO3 Overflow"},
    {fatal_status0, 14, "Control FIFO3 Underflow"},
    {fatal_status0, 13, "Four Tuple Table Double bit ECC Error"},
    {fatal_status0, 12, "Response FIFO2 Overflow"},
    {fatal_status0, 11, "Response FIFO2 Underflow"},
    {fatal_status0, 10, "Control FIFO2 Overflow"},
    {fatal_status0, 9, "Control FIFO2 Underflow"},
    {fatal_status0, 8, "Six Tuple Table Double bit ECC Error"},
    {fatal_status0, 7, "Response FIFO1 Overflow"},
    {fatal_status0, 6, "Response FIFO1 Underflow"},
    {fatal_status0, 5, "Control FIFO1 Overflow"},
    {fatal_status0, 4, "Control FIFO1 Underflow"},
    {fatal_status0, 3, "Tunnel Table Double bit ECC Error"},
    {fatal_status0, 2, "Control FIFO0 Overflow"},
    {fatal_status0, 1, "Control FIFO0 Underflow"},
    {fatal_status0, 0, "Option Table Double bit ECC Error"},
    {fatal_status0, 30, "In-band Access Action Table Timeout Error"},
    {fatal_status0, 29, "Inband Flow Manager Packet Bus Missing EOP Error"},
    {fatal_status0, 28, "Inband Flow Manager Packet Bus Missing SOP Error"},
    {fatal_status0, 27, "Inband Flow Manager FIFO Overflow"},
    {fatal_status0, 26, "Inband Flow Manager FIFO Underflow"},
    {fatal_status0, 25, "Inband Flow Manager RAM/FIFO Double bit ECC Error"},
    {fatal_status1, 13, "Inband Stat Collection Timeout Error"},
    {fatal_status1, 12, "Inband Stat Manager Packet Bus Missing EOP Error"},
    {fatal_status1, 11, "Inband Stat Manager Packet Bus Missing SOP Error"},
    {fatal_status1, 10, "Inband Stat Manager FIFO Overflow"},
    {fatal_status1, 9, "Inband Stat Manager FIFO Underflow"},
    {fatal_status1, 8, "Inband Stat Manager RAM/FIFO Double bit ECC Error"},
    /* "statitics": the hardware keeps it so. */
    {fatal_status1, 7,
     "Time-out Error when reading statitics from hbm and acc_cache"},
    {fatal_status1, 6,
     "Stat Read Flow Missing Error. Flow id mismatch between read "
     "request and response from stat table"},
    {fatal_status1, 5, "Stat FIFO Overflow"},
    {fatal_status1, 4, "Stat FIFO Underflow"},
    {fatal_status1, 3, "Stat FIFO Parity Error"},
    {fatal_status1, 2, "Statistics AG RAM Double bit ECC Error"},
    {fatal_status1, 1, "Statistics ACC RAM Double bit ECC Error"},
    {fatal_status1, 0, "Statistics HBM_RL RAM Double bit ECC Error"},
    {fatal_status2, 16, "Key Table (Cache) Double bit ECC Error"},
    {fatal_status2, 15, "Timestamp Table (Cache) Double bit ECC Error"},
    {fatal_status2, 14, "Action Rule Table (Cache) Double bit ECC error"},
    {fatal_status2, 13, "Lookup FIFO Overflow"},
    {fatal_status2, 12, "Lookup FIFO Underflow"},
    {fatal_status2, 11, "Key Pending FIFO Overflow"},
    {fatal_status2, 10, "Key Pending FIFO Underflow"},
    {fatal_status2, 9, "DDR4 Read FIFO Overflow"},
    {fatal_status2, 8, "DDR4 Read FIFO Underflow"},
    {fatal_status2, 7, "Reorder FIFO Overflow"},
    {fatal_status2, 6, "Reorder FIFO Underflow"},
    {fatal_status2, 5, "Insert FIFO Overflow"},
    {fatal_status2, 4, "Reorder FIFO Underflow"},
    {fatal_status2, 3, "Cache Response FIFO Overflow"},
    {fatal_status2, 2, "Cache Response FIFO Underflow"},
    {fatal_status2, 1, "DDR4 Response FIFO Overflow"},
    {fatal_status2, 0, "DDR4 Response FIFO Underflow"},
};

/* The statistics record, in order, written out: 83
 * registers in all. Counters 0..11 are the pairs 0x20/0x24 .. 0x78/0x7C;
 * then runs of single registers: 12..22 from 0x80, 23..35 from 0xF0,
 * 36..54 from 0x220, 55..64 from 0x288, 65..70 from 0x720. */
constexpr lh_counter_source counters[] = {
    lh::counter64(0x20, 0x24), lh::counter64(0x28, 0x2C),
    lh::counter64(0x30, 0x34), lh::counter64(0x38, 0x3C),
    lh::counter64(0x40, 0x44), lh::counter64(0x48, 0x4C),
    lh::counter64(0x50, 0x54), lh::counter64(0x58, 0x5C),
    lh::counter64(0x60, 0x64), lh::counter64(0x68, 0x6C),
    lh::counter64(0x70, 0x74), lh::counter64(0x78, 0x7C),
    lh::counter32(0x80),       lh::counter32(0x84),
    lh::counter32(0x88),       lh::counter32(0x8C),
    lh::counter32(0x90),       lh::counter32(0x94),
    lh::counter32(0x98),       lh::counter32(0x9C),
    lh::counter32(0xA0),       lh::counter32(0xA4),
    lh::counter32(0xA8),       lh::counter32(0xF0),
    lh::counter32(0xF4),       lh::counter32(0xF8),
    lh::counter32(0xFC),       lh::counter32(0x100),
    lh::counter32(0x104),      lh::counter32(0x108),
    lh::counter32(0x10C),      lh::counter32(0x110),
    lh::counter32(0x114),      lh::counter32(0x118),
    lh::counter32(0x11C),      lh::counter32(0x120),
    lh::counter32(0x220),      lh::counter32(0x224),
    lh::counter32(0x228),      lh::counter32(0x22C),
    lh::counter32(0x230),      lh::counter32(0x234),
    lh::counter32(0x238),      lh::counter32(0x23C),
    lh::counter32(0x240),      lh::counter32(0x244),
    lh::counter32(0x248),      lh::counter32(0x24C),
    lh::counter32(0x250),      lh::counter32(0x254),
    lh::counter32(0x258),      lh::counter32(0x25C),
    lh::counter32(0x260),      lh::counter32(0x264),
    lh::counter32(0x268),      lh::counter32(0x288),
    lh::counter32(0x28C),      lh::counter32(0x290),
    lh::counter32(0x294),      lh::counter32(0x298),
    lh::counter32(0x29C),      lh::counter32(0x2A0),
    lh::counter32(0x2A4),      lh::counter32(0x2A8),
    lh::counter32(0x2AC),      lh::counter32(0x720),
    lh::counter32(0x724),      lh::counter32(0x728),
    lh::counter32(0x72C),      lh::counter32(0x730),
    lh::counter32(0x734),
};

static_assert(std::size(counters) == PKT_CLASS_COUNTER_COUNT,
              "one source per counter of the statistics record");

using Ctx = lh::Context<lh::Counters<PKT_CLASS_COUNTER_COUNT>>;
static_assert(sizeof(Ctx::stats) == PKT_CLASS_STATS_SIZE);

constinit std::array<Ctx, LH_MAX_PIPES> pkt_class_contexts;

constexpr lh::Block<Ctx> pkt_class{
    {"Ingress Pkt Classifier", LH_MOD_INGRESS_PKT_CLASSIFIER, fatal_errors,
     counters, PKT_CLASS_STATS_SIZE,
     {"fatal error detection", "update stats", "get stats", "clear stats"}},
    &pkt_class_contexts,
};

} // namespace

int pkt_class_context_create(uint32_t pipe, volatile void *regs)
{
    return lh::create(pkt_class, pipe, regs);
}

void pkt_class_update_stats(uint32_t pipe)
{
    lh::update_stats(pkt_class, pipe);
}

int pkt_class_get_stats(uint32_t pipe, void *buffer, uint64_t size)
{
    return lh::get_stats(pkt_class, pipe, buffer, size);
}

int pkt_class_clear_stats(uint32_t pipe)
{
    return lh::clear_stats(pkt_class, pipe);
}

int pkt_class_fatal_error_detect(uint32_t pipe, lh_fatal_error_t *report)
{
    return lh::fatal_error_detect(pkt_class, pipe, report);
}

constexpr lh_block_ops pkt_class_ops = lh::stats_ops(
    pkt_class.info, pkt_class_context_create, pkt_class_fatal_error_detect,
    pkt_class_update_stats, pkt_class_get_stats, pkt_class_clear_stats);
