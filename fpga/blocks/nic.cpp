/* The NIC blocks: global and per-queue counters and the fatal
 * error bits of the QDMA, buffer, queue and traffic managers. `nic` and
 * `lhx_nic` share every operation; their variants hold what differs: the
 * display name, the queue select field and two error-table rows. */
#include "nic.hpp"

#include "lh_block.hpp"
#include "lh_drivers.hpp"
#include "lh_log.hpp"

namespace {

/* Register map, offsets from the block base. */
constexpr uint32_t status0 = 0x00;
constexpr uint32_t status1 = 0x20;
constexpr uint32_t status2 = 0x30;
constexpr lh::Reg queue_select{0xC0}; /* picks the queue and bank seen below */
constexpr lh::Reg queue_data_high{0xC4};
constexpr lh::Reg queue_data_low{0xC8};

/* Fields of the high data word: a 16-bit counter above bits 47..32 of
 * the 48-bit counter whose low word is the low data word. */
constexpr lh::Bits counter16_bits{16, 16};
constexpr lh::Bits counter48_bits{0, 16};

/* The last index of the queue array. */
constexpr uint32_t max_queue_index = NIC_QUEUES - 1;

/* The record, in order: 0x88 and 0x8C before 0x70, and 0xF8 between 0x84
 * and 0x90 (the hardware keeps it so). */
constexpr lh_counter_source global_counters[] = {
    lh::counter64(0x50, 0x54),
    lh::counter64(0x58, 0x5C),
    lh::counter64(0x60, 0x64),
    lh::counter64(0x68, 0x6C),
    lh::counter32(0x88),
    lh::counter32(0x8C),
    lh::counter32(0x70),
    lh::counter32(0x74),
    lh::counter32(0x78),
    lh::counter32(0x7C),
    lh::counter32(0x80),
    lh::counter32(0x84),
    lh::counter32(0xF8),
    lh::counter32(0x90),
    lh::counter32(0x94),
    lh::counter32(0x98),
    lh::counter32(0x9C),
    lh::counter32(0xA0),
    lh::counter32(0xA4),
    lh::counter32(0xA8),
    lh::counter32(0xAC),
};

static_assert(std::size(global_counters) == NIC_GLOBAL_COUNTERS,
              "one source per global counter of the record");

constexpr lh_error_bit lhx_nic_errors[] = {
    {status0, 19, "H2C Descriptor Memory Double bit ECC Error"},
    {status0, 18, "C2H Descriptor Memory Double bit ECC Error"},
    {status0, 17, "NIC Egr Path FIFO Double bit ECC Error"},
    {status0, 16, "TM Out Packet Buffer Double bit ECC Error"},
    {status0, 15, "NIC Ingr In-band Input Packet Buffer Double bit ECC "
                  "Error"},
    {status0, 14, "NIC Ingr Normal Traffic Input Packet Buffer Double bit "
                  "ECC Error"},
    {status0, 13, "TM Counters per Q Parity Error"},
    {status0, 12, "TM Shared Memory (URAMs) Parity Error"},
    {status0, 11, "NIC Egr Path FIFO Overflow"},
    {status0, 10, "NIC Egr Path FIFO Underflow"},
    {status0, 9, "TM Out Packet Buffer Overflow"},
    {status0, 8, "TM Out Packet Buffer Underflow"},
    {status0, 7, "NIC Ingr In-band Input FIFO Overflow"},
    {status0, 6, "NIC Ingr In-band Input FIFO Underflow"},
    {status0, 5, "NIC Ingr Normal Traffic Input Packet Buffer Overflow"},
    {status0, 4, "NIC Ingr Normal Traffic Input Packet Buffer Underflow"},
    {status0, 3, "NIC TOP TM TX Missing EOP Error"},
    {status0, 2, "NIC TOP TM TX Missing SOP Error"},
    {status0, 1, "NIC TOP TM RX Missing EOP Error"},
    {status0, 0, "NIC TOP TM RX Missing SOP Error"},
    /* Bit 17 is tested once: a second test of it could never report. */
    {status1, 29, "BudM Linked List Parity Error"},
    {status1, 28, "BudM Tail Bud Parity Error"},
    {status1, 27, "BudM Memory Parity Error"},
    {status1, 26, "BudM Tail Pointer Parity Error"},
    {status1, 25, "BudM Head Pointer Parity Error"},
    {status1, 24, "BudM Free List Parity Error"},
    {status1, 23, "Credit FIFO Overflow"},
    {status1, 22, "Credit FIFO Underflow"},
    {status1, 21, "BudM Free List Overflow"},
    {status1, 20, "BudM Free List Underflow"},
    {status1, 19, "C2H Descriptor Memory Overflow"},
    {status1, 18, "C2H Descriptor Memory Underflow"},
    {status1, 17, "QM Guaranteed List Overflow"},
    {status1, 16, "QM Queue Underflow"},
    {status1, 15, "QM Linked List Parity Error"},
    {status1, 14, "QM Tail Pointer Parity Error"},
    {status1, 13, "QM Head Pointer Parity Error"},
    {status1, 12, "QM Free List Parity Error"},
    {status1, 11, "Data Rd Request FIFO Overflow"},
    {status1, 10, "Data Rd Request FIFO Underflow"},
    {status1, 9, "Data Wr Request FIFO Overflow"},
    {status1, 8, "Data Wr Request FIFO Underflow"},
    {status1, 7, "Dequeue Request FIFO Overflow"},
    {status1, 6, "Dequeue Request FIFO Underflow"},
    {status1, 5, "Enqueue Request FIFO Overflow"},
    {status1, 4, "Enqueue Request FIFO Underflow"},
    {status1, 3, "Free List Request FIFO Overflow"},
    {status1, 2, "Free List Request FIFO Underflow"},
    {status1, 1, "QM Free List Overflow"},
    {status1, 0, "QM Free List Underflow"},
    {status2, 19, "H2C Descriptor Out FIFO Overflow"},
    {status2, 18, "H2C Descriptor Out FIFO Underflow"},
    {status2, 17, "H2C Descriptor In FIFO Overflow"},
    {status2, 16, "H2C Descriptor In FIFO Underflow"},
    {status2, 15, "Credit Out FIFO Overflow"},
    {status2, 14, "Credit Out FIFO Underflow"},
    {status2, 13, "Credit In FIFO Overflow"},
    {status2, 12, "Credit In FIFO Underflow"},
    {status2, 11, "Credit Request FIFO Overflow"},
    {status2, 10, "Credit Request FIFO Underflow"},
    {status2, 9, "Descriptor Update FIFO Overflow"},
    {status2, 8, "Descriptor Update FIFO Underflow"},
    {status2, 7, "QDMA C2H Bypass Descriptor Size Error"},
    {status2, 6, "QDMA C2H Bypass Descriptor Path Error"},
    {status2, 5, "QDMA Credit Update Error"},
    {status2, 4, "QDMA H2C Data Parity Error"},
    {status2, 3, "QDMA H2C Path Error"},
    {status2, 2, "QDMA H2C Empty Beat Error"},
    {status2, 1, "QDMA H2C Bypass Descriptor Size Error"},
    {status2, 0, "QDMA H2C Bypass Descriptor Path Error"},
};

/* nic's table: bit 4 of the third register is not tested, and bit 12 of
 * the first says ECC (the hardware keeps both so). */
constexpr auto nic_errors = [] {
    std::array<lh_error_bit, std::size(lhx_nic_errors) - 1> table{};
    size_t count = 0;

    for (lh_error_bit row : lhx_nic_errors) {
        if (row.reg == status2 && row.bit == 4)
            continue;
        if (row.reg == status0 && row.bit == 12)
            row.text = "TM Shared Memory (URAMs) Double bit ECC Error";
        table[count++] = row;
    }
    return table;
}();

struct QueueState {
    uint32_t max_queue_id;
};

using Ctx = lh::Context<nic_stats, QueueState>;

constinit std::array<Ctx, LH_MAX_PIPES> nic_contexts;
constinit std::array<Ctx, LH_MAX_PIPES> lhx_nic_contexts;

/* The queues polled: refused above the record's last queue. */
bool keep_max_queue_id(const lh_block_desc &desc, Ctx &ctx, lh::Window)
{
    uint32_t max_queue_id = lh_get_max_queue_id();

    if (max_queue_id > max_queue_index) {
        lh_log(LOG_CRIT,
               "%s - %s module context create -  max queue id (%d) is out of "
               "bounds (%d)",
               LH_TAG(ERROR), desc.name, max_queue_id, max_queue_index);
        return false;
    }
    ctx.state.max_queue_id = max_queue_id;
    return true;
}

constexpr lh_block_desc describe(const char *name, uint32_t module_id,
                                 std::span<const lh_error_bit> errors)
{
    return {name, module_id, errors, global_counters, sizeof(nic_stats),
            {"module fatal error detection", "update stats", "get stats",
             "clear stats"}};
}

/* A NIC block with its queue select field. */
struct Nic {
    lh::Block<Ctx> block;
    lh::Field select;            /* the queue select field */
    uint32_t second_bank_offset; /* added to the queue id, modulo the field */
};

constexpr Nic nic{
    {describe("NIC", LH_MOD_NIC, nic_errors), &nic_contexts,
     lh::ValidAt::created, keep_max_queue_id},
    {queue_select, {0, 9}},
    0x100,
};

/* The 8-bit field makes queue 128 alias queue 0 with its banks swapped
 * (the hardware keeps it so). */
constexpr Nic lhx_nic{
    {describe("LHX NIC", LH_MOD_LHX_NIC, lhx_nic_errors), &lhx_nic_contexts,
     lh::ValidAt::created, keep_max_queue_id},
    {queue_select, {0, 8}},
    0x80,
};

template <const Nic &variant>
void select_queue(lh::Window regs, uint32_t select)
{
    regs.write(variant.select, select);
}

template <const Nic &variant> uint32_t second_bank(uint32_t queue)
{
    return (queue + variant.second_bank_offset) & variant.select.bits.mask();
}

/* The data pair of the selected queue and bank, the high word first. */
void read_bank(lh::Window regs, uint32_t &high, uint32_t &low)
{
    high = regs.read(queue_data_high);
    low = regs.read(queue_data_low);
}

uint64_t counter48(uint32_t high, uint32_t low)
{
    return uint64_t{counter48_bits.of(high)} << 32 | low;
}

/* The second bank's 16-bit counter is not used. */
template <const Nic &variant>
void read_queue(lh::Window regs, uint32_t queue, nic_queue_stats &entry)
{
    uint32_t high, low;

    select_queue<variant>(regs, queue);
    read_bank(regs, high, low);
    entry.counters[0] = counter16_bits.of(high);
    entry.counters[1] = counter48(high, low);
    select_queue<variant>(regs, second_bank<variant>(queue));
    read_bank(regs, high, low);
    entry.counters[2] = counter48(high, low);
}

void add_queue(nic_queue_stats &total, const nic_queue_stats &polled)
{
    total.present = 1;
    for (size_t i = 0; i < NIC_QUEUE_COUNTERS; i++)
        total.counters[i] += polled.counters[i];
}

/* The lock covers the additions only; the registers are read before.
 * One copy per variant, so that its select field is a constant. */
template <const Nic &variant> void update_stats(uint32_t pipe)
{
    const lh::Block<Ctx> &b = variant.block;
    Ctx *ctx = lh::context(b, pipe, b.info.words.update);
    uint64_t global[NIC_GLOBAL_COUNTERS];
    nic_queue_stats polled[NIC_QUEUES]; /* read up to max_queue_id */

    if (ctx == nullptr)
        return;
    uint32_t max_queue_id = ctx->state.max_queue_id;
    lh::read_counters(ctx->block.window, b.info.counters, global);
    for (uint32_t queue = 0; queue <= max_queue_id; queue++)
        read_queue<variant>(ctx->block.window, queue, polled[queue]);

    std::lock_guard guard(ctx->block.lock);
    for (size_t i = 0; i < NIC_GLOBAL_COUNTERS; i++)
        ctx->stats.global[i] += global[i];
    for (uint32_t queue = 0; queue <= max_queue_id; queue++)
        add_queue(ctx->stats.queues[queue], polled[queue]);
}

} // namespace

int nic_context_create(uint32_t pipe, volatile void *regs)
{
    return lh::create(nic.block, pipe, regs);
}

void nic_update_stats(uint32_t pipe)
{
    update_stats<nic>(pipe);
}

int nic_get_stats(uint32_t pipe, void *buffer, uint64_t size)
{
    return lh::get_stats(nic.block, pipe, buffer, size);
}

int nic_clear_stats(uint32_t pipe)
{
    return lh::clear_stats(nic.block, pipe);
}

int nic_fatal_error_detect(uint32_t pipe, lh_fatal_error_t *report)
{
    return lh::fatal_error_detect(nic.block, pipe, report);
}

int lhx_nic_context_create(uint32_t pipe, volatile void *regs)
{
    return lh::create(lhx_nic.block, pipe, regs);
}

void lhx_nic_update_stats(uint32_t pipe)
{
    update_stats<lhx_nic>(pipe);
}

int lhx_nic_get_stats(uint32_t pipe, void *buffer, uint64_t size)
{
    return lh::get_stats(lhx_nic.block, pipe, buffer, size);
}

int lhx_nic_clear_stats(uint32_t pipe)
{
    return lh::clear_stats(lhx_nic.block, pipe);
}

int lhx_nic_fatal_error_detect(uint32_t pipe, lh_fatal_error_t *report)
{
    return lh::fatal_error_detect(lhx_nic.block, pipe, report);
}

constexpr lh_block_ops nic_ops = lh::stats_ops(
    nic.block.info, nic_context_create, nic_fatal_error_detect,
    nic_update_stats, nic_get_stats, nic_clear_stats);

constexpr lh_block_ops lhx_nic_ops = lh::stats_ops(
    lhx_nic.block.info, lhx_nic_context_create, lhx_nic_fatal_error_detect,
    lhx_nic_update_stats, lhx_nic_get_stats, lhx_nic_clear_stats);
