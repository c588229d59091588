/* Ingress packet parser: the QoS profile table, the traffic
 * counters and the fatal-error bits of the block. `parser` (base image) and
 * `lhx_parser` (LHX image) differ only in display name, module id and
 * contexts; everything else is the tables below and the shared core. */
#include "parser.hpp"

#include "lh_block.hpp"
#include "lh_device.hpp"
#include "lh_drivers.hpp"
#include "lh_log.hpp"

namespace {

/* Register map, offsets from the block base. */
constexpr uint32_t fatal_status = 0x00;
/* The index selects the row seen at the priority field. */
constexpr lh::Field qos_index{{0xE0}, {0, 7}};
constexpr lh::Field qos_priority{{0xE4}, {0, 2}};

constexpr const char *qos_set_words = "QoS set profile";
constexpr const char *qos_get_words = "QoS get profile";

constexpr lh_error_bit fatal_errors[] = {
    {fatal_status, 16, "Meta Data FIFO Parity Error"},
    {fatal_status, 15, "Packet Length FIFO Parity Error"},
    {fatal_status, 14, "Meta Data FIFO Overflow"},
    {fatal_status, 13, "Packet Length FIFO Overflow"},
    {fatal_status, 12, "High Priority Burst buffer Overflow"},
    {fatal_status, 11, "Medium Priority Burst buffer Overflow"},
    {fatal_status, 10, "Low Priority Burst buffer Overflow"},
    /* Bit 9 twice and bit 8 never: the hardware keeps them so. */
    {fatal_status, 9, "Meta Data FIFO Underflow"},
    {fatal_status, 9, "Packet Length FIFO Underflow"},
    {fatal_status, 7, "High Priority Burst buffer Underflow"},
    {fatal_status, 6, "Medium Priority Burst buffer Underflow"},
    {fatal_status, 5, "Low Priority Burst buffer Underflow"},
    {fatal_status, 4, "High Priority Burst buffer Double bit ECC Error"},
    {fatal_status, 3, "Medium Priority Burst buffer Double bit ECC Error"},
    {fatal_status, 2, "Low Priority Burst buffer Double bit ECC Error"},
    {fatal_status, 1, "Parser Engine Meta Data Cycle Number Error"},
    {fatal_status, 0, "Priority Table Parity Error"},
};

/* The statistics record, in order. */
constexpr lh_counter_source counters[] = {
    lh::counter64(0x50, 0x54), lh::counter32(0x58), lh::counter32(0x5C),
    lh::counter64(0x60, 0x64), lh::counter32(0x68), lh::counter32(0x6C),
    lh::counter64(0x70, 0x74), lh::counter32(0x78), lh::counter32(0x7C),
    lh::counter32(0x80),       lh::counter32(0x84), lh::counter32(0x88),
    lh::counter32(0x8C),       lh::counter32(0x90), lh::counter32(0x94),
};

static_assert(std::size(counters) == PARSER_COUNTER_COUNT,
              "one source per counter of the statistics record");

/* Names of lh_qos_priority_t, which is also the value of the priority
 * field. */
constexpr const char *priority_names[] = {"LOW", "MED", "HIGH"};

/* The priority a field value reads as: 3 is never written and reads LOW. */
constexpr lh_qos_priority_t priority_of_field[] = {
    LH_QOS_PRIO_LOW,
    LH_QOS_PRIO_MED,
    LH_QOS_PRIO_HIGH,
    LH_QOS_PRIO_LOW,
};

struct QosState {
    uint32_t profile_count;
};

using Ctx = lh::Context<lh::Counters<PARSER_COUNTER_COUNT>, QosState>;
static_assert(sizeof(Ctx::stats) == PARSER_STATS_SIZE);

constinit std::array<Ctx, LH_MAX_PIPES> parser_contexts;
constinit std::array<Ctx, LH_MAX_PIPES> lhx_parser_contexts;

void select_profile(lh::Window regs, uint32_t profile_id)
{
    regs.write(qos_index, profile_id);
}

/* Every profile of the device back to LOW, before the statistics exist. */
bool reset_qos_table(const lh_block_desc &, Ctx &ctx, lh::Window regs)
{
    lh_device_desc *device = nullptr;

    if (lh_pci_get_csr_device(&device) != 0 || device == nullptr)
        return false;
    ctx.state.profile_count = device->qos_profile_count;
    for (uint32_t id = 0; id < device->qos_profile_count; id++) {
        select_profile(regs, id);
        regs.write(qos_priority, LH_QOS_PRIO_LOW);
    }
    return true;
}

constexpr lh_block_desc describe(const char *name, uint32_t module_id)
{
    return {name, module_id, fatal_errors, counters, PARSER_STATS_SIZE,
            {"fatal error detection", "update stats", "get stats",
             "clear stats"}};
}

constexpr lh::Block<Ctx> parser{
    describe("Ingress Pkt Parser", LH_MOD_INGRESS_PKT_PARSER),
    &parser_contexts, lh::ValidAt::created, reset_qos_table};
constexpr lh::Block<Ctx> lhx_parser{
    describe("LHX Ingress Pkt Parser", LH_MOD_LHX_INGRESS_PKT_PARSER),
    &lhx_parser_contexts, lh::ValidAt::created, reset_qos_table};

bool profile_valid(const lh_block_desc &desc, const Ctx &ctx, uint32_t pipe,
                   uint32_t profile_id, const char *words)
{
    uint32_t count = ctx.state.profile_count;

    if (profile_id < count)
        return true;
    lh_log(LOG_ERR,
           "%s - %s %s on pipe %d - invalid QoS profile id 0x%02x "
           "(valid range is [0x00-0x%02x])",
           LH_TAG(ERROR), desc.name, words, pipe, profile_id, count - 1);
    return false;
}

/* The context of a QoS operation on `profile_id`, or null once the refusal
 * is logged; `words` names the operation in its messages. */
Ctx *qos_context(const lh::Block<Ctx> &b, uint32_t pipe, uint32_t profile_id,
                 const char *words)
{
    Ctx *ctx = lh::context(b, pipe, words, LOG_ERR);

    return ctx != nullptr &&
                   profile_valid(b.info, *ctx, pipe, profile_id, words)
               ? ctx
               : nullptr;
}

bool priority_valid(const lh_block_desc &desc, uint32_t pipe,
                    lh_qos_profile_t qos)
{
    if (qos.priority < std::size(priority_names))
        return true;
    lh_log(LOG_ERR,
           "%s - %s QoS set profile on pipe %d - invalid QoS priority %d "
           "for profile id 0x%02x",
           LH_TAG(ERROR), desc.name, pipe, qos.priority, qos.profile_id);
    return false;
}

int qos_set_profile(const lh::Block<Ctx> &b, uint32_t pipe,
                    lh_qos_profile_t qos)
{
    Ctx *ctx = qos_context(b, pipe, qos.profile_id, qos_set_words);

    if (ctx == nullptr || !priority_valid(b.info, pipe, qos))
        return -1;
    select_profile(ctx->block.window, qos.profile_id);
    ctx->block.window.write(qos_priority, qos.priority);
    lh_log(LOG_INFO,
           "%s - %s set QoS profile id 0x%02x on pipe %d with priority %s",
           LH_TAG(INFO), b.info.name, qos.profile_id, pipe,
           priority_names[qos.priority]);
    return 0;
}

int qos_get_profile(const lh::Block<Ctx> &b, uint32_t pipe,
                    lh_qos_profile_t *qos)
{
    if (qos == nullptr) {
        lh::log_null(b.info, qos_get_words);
        return -1;
    }
    Ctx *ctx = qos_context(b, pipe, qos->profile_id, qos_get_words);
    if (ctx == nullptr)
        return -1;
    select_profile(ctx->block.window, qos->profile_id);
    qos->priority = priority_of_field[ctx->block.window.read(qos_priority)];
    return 0;
}

constexpr lh_block_ops with_qos(lh_block_ops ops,
                                int (*set)(uint32_t, lh_qos_profile_t),
                                int (*get)(uint32_t, lh_qos_profile_t *))
{
    ops.qos_set_profile = set;
    ops.qos_get_profile = get;
    return ops;
}

} // namespace

int parser_context_create(uint32_t pipe, volatile void *regs)
{
    return lh::create(parser, pipe, regs);
}

void parser_update_stats(uint32_t pipe)
{
    lh::update_stats(parser, pipe);
}

int parser_get_stats(uint32_t pipe, void *buffer, uint64_t size)
{
    return lh::get_stats(parser, pipe, buffer, size);
}

int parser_clear_stats(uint32_t pipe)
{
    return lh::clear_stats(parser, pipe);
}

int parser_fatal_error_detect(uint32_t pipe, lh_fatal_error_t *report)
{
    return lh::fatal_error_detect(parser, pipe, report);
}

int parser_qos_set_profile(uint32_t pipe, lh_qos_profile_t qos)
{
    return qos_set_profile(parser, pipe, qos);
}

int parser_qos_get_profile(uint32_t pipe, lh_qos_profile_t *qos)
{
    return qos_get_profile(parser, pipe, qos);
}

int lhx_parser_context_create(uint32_t pipe, volatile void *regs)
{
    return lh::create(lhx_parser, pipe, regs);
}

void lhx_parser_update_stats(uint32_t pipe)
{
    lh::update_stats(lhx_parser, pipe);
}

int lhx_parser_get_stats(uint32_t pipe, void *buffer, uint64_t size)
{
    return lh::get_stats(lhx_parser, pipe, buffer, size);
}

int lhx_parser_clear_stats(uint32_t pipe)
{
    return lh::clear_stats(lhx_parser, pipe);
}

int lhx_parser_fatal_error_detect(uint32_t pipe, lh_fatal_error_t *report)
{
    return lh::fatal_error_detect(lhx_parser, pipe, report);
}

int lhx_parser_qos_set_profile(uint32_t pipe, lh_qos_profile_t qos)
{
    return qos_set_profile(lhx_parser, pipe, qos);
}

int lhx_parser_qos_get_profile(uint32_t pipe, lh_qos_profile_t *qos)
{
    return qos_get_profile(lhx_parser, pipe, qos);
}

constexpr lh_block_ops parser_ops = with_qos(
    lh::stats_ops(parser.info, parser_context_create, parser_fatal_error_detect,
                  parser_update_stats, parser_get_stats, parser_clear_stats),
    parser_qos_set_profile, parser_qos_get_profile);

constexpr lh_block_ops lhx_parser_ops = with_qos(
    lh::stats_ops(lhx_parser.info, lhx_parser_context_create,
                  lhx_parser_fatal_error_detect, lhx_parser_update_stats,
                  lhx_parser_get_stats, lhx_parser_clear_stats),
    lhx_parser_qos_set_profile, lhx_parser_qos_get_profile);
