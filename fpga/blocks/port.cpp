/* The Ethernet port blocks. eth and caui are one design with two
 * register maps: every operation is written once and driven by the block's
 * variant, which holds only what differs (offsets, the receive-aligned bit,
 * the counters, the error table, the display name). */
#include "port.hpp"

#include <unistd.h>

#include "lh_block.hpp"
#include "lh_drivers.hpp"
#include "lh_log.hpp"

namespace {

constexpr int align_attempts = 3;
constexpr int align_polls = 500;
constexpr useconds_t delay_us = 100;

constexpr const char *set_state_words = "set interface state";
constexpr const char *get_state_words = "get interface state";
constexpr const char *set_loopback_words = "set loopback";
constexpr const char *get_loopback_words = "get loopback";

using PortRegs = lh_port_regs;

constexpr uint32_t eth_fatal_status = 0x1000;
constexpr PortRegs eth_regs{{0x0020}, {0x1020}, {0x1024}, 3};
constexpr uint32_t caui_fatal_status = 0x0800;
constexpr PortRegs caui_regs{{0x02B0}, {0x0820}, {0x0824}, 24};

constexpr std::span<const lh_loopback_type> loopback_types =
    port_loopback_types;

/* A MAC counter: the low word first, the high word 4 above. */
constexpr lh_counter_source mac_counter(uint32_t low)
{
    return lh::counter64(low + 4, low);
}

constexpr lh_counter_source eth_counters[] = {
    mac_counter(0x508),
    mac_counter(0x510),
    mac_counter(0x518),
    mac_counter(0x520),
    mac_counter(0x5A8),
    mac_counter(0x5B0),
    mac_counter(0x5B8),
    mac_counter(0x5C0),
    mac_counter(0x660),
    mac_counter(0x6A0),
    /* 10-27 */
    mac_counter(0x700),
    mac_counter(0x708),
    mac_counter(0x710),
    mac_counter(0x718),
    mac_counter(0x720),
    mac_counter(0x728),
    mac_counter(0x730),
    mac_counter(0x738),
    mac_counter(0x740),
    mac_counter(0x748),
    mac_counter(0x750),
    mac_counter(0x758),
    mac_counter(0x760),
    mac_counter(0x768),
    mac_counter(0x770),
    mac_counter(0x778),
    mac_counter(0x780),
    mac_counter(0x788),
    /* 28 */
    mac_counter(0x7B8),
    /* 29-34 */
    mac_counter(0x7D0),
    mac_counter(0x7D8),
    mac_counter(0x7E0),
    mac_counter(0x7E8),
    mac_counter(0x7F0),
    mac_counter(0x7F8),
    /* 35-51 */
    mac_counter(0x808),
    mac_counter(0x810),
    mac_counter(0x818),
    mac_counter(0x820),
    mac_counter(0x828),
    mac_counter(0x830),
    mac_counter(0x838),
    mac_counter(0x840),
    mac_counter(0x848),
    mac_counter(0x850),
    mac_counter(0x858),
    mac_counter(0x860),
    mac_counter(0x868),
    mac_counter(0x870),
    mac_counter(0x878),
    mac_counter(0x880),
    mac_counter(0x888),
    /* 52-67 */
    mac_counter(0x898),
    mac_counter(0x8A0),
    mac_counter(0x8A8),
    mac_counter(0x8B0),
    mac_counter(0x8B8),
    mac_counter(0x8C0),
    mac_counter(0x8C8),
    mac_counter(0x8D0),
    mac_counter(0x8D8),
    mac_counter(0x8E0),
    mac_counter(0x8E8),
    mac_counter(0x8F0),
    mac_counter(0x8F8),
    mac_counter(0x900),
    mac_counter(0x908),
    mac_counter(0x910),
    /* 68-74, the wrapper: high word at the lower address. */
    lh::counter64(0x1050, 0x1054),
    lh::counter32(0x1058),
    lh::counter64(0x105C, 0x1060),
    lh::counter32(0x1064),
    lh::counter32(0x1068),
    lh::counter32(0x106C),
    lh::counter32(0x1070),
};

constexpr lh_counter_source caui_counters[] = {
    mac_counter(0x500),
    mac_counter(0x508),
    mac_counter(0x510),
    mac_counter(0x518),
    mac_counter(0x5F0),
    mac_counter(0x5F8),
    /* 6-9 */
    mac_counter(0x608),
    mac_counter(0x610),
    mac_counter(0x618),
    mac_counter(0x620),
    /* 10-20 */
    mac_counter(0x698),
    mac_counter(0x6A0),
    mac_counter(0x6A8),
    mac_counter(0x6B0),
    mac_counter(0x6B8),
    mac_counter(0x6C0),
    mac_counter(0x6C8),
    mac_counter(0x6D0),
    mac_counter(0x6D8),
    mac_counter(0x6E0),
    mac_counter(0x6E8),
    /* 21-24 */
    mac_counter(0x6F8),
    mac_counter(0x700),
    mac_counter(0x708),
    mac_counter(0x710),
    /* 25-31, the wrapper: high word at the lower address. */
    lh::counter64(0x850, 0x854),
    lh::counter32(0x858),
    lh::counter64(0x85C, 0x860),
    lh::counter32(0x864),
    lh::counter32(0x868),
    lh::counter32(0x86C),
    lh::counter32(0x870),
};

static_assert(std::size(eth_counters) == ETH_STATS_COUNT, "eth counter table");
static_assert(std::size(caui_counters) == CAUI_STATS_COUNT,
              "caui counter table");

/* Bit 1 is not tested. */
constexpr lh_error_bit eth_errors[] = {
    {eth_fatal_status, 8, "RX Straddle AXI4 Interface Multiple SOP error"},
    {eth_fatal_status, 7, "RX Buffer FIFO Double bit ECC error"},
    {eth_fatal_status, 6, "TX Buffer FIFO Double bit ECC error"},
    {eth_fatal_status, 5, "RX Buffer FIFO Overflow"},
    {eth_fatal_status, 4, "RX Buffer FIFO Underflow"},
    {eth_fatal_status, 3, "TX Buffer FIFO Overflow"},
    {eth_fatal_status, 2, "TX Buffer FIFO Underflow"},
    {eth_fatal_status, 0, "Eth IP TX Underflow"},
};

/* Bit 0 is not tested, and the texts sit at other bits than eth's; both
 * as the hardware has them. */
constexpr lh_error_bit caui_errors[] = {
    {caui_fatal_status, 9, "TX Buffer FIFO Underflow"},
    {caui_fatal_status, 8, "RX Buffer FIFO Underflow"},
    {caui_fatal_status, 7, "CAUI RX LBus Multiple SOP error"},
    {caui_fatal_status, 6, "TX Buffer FIFO Double bit ECC error"},
    {caui_fatal_status, 5, "TX Buffer FIFO Overflow"},
    {caui_fatal_status, 4, "RX Buffer FIFO Double bit ECC error"},
    {caui_fatal_status, 3, "RX Buffer FIFO Overflow"},
    {caui_fatal_status, 2, "CAUI IP TX Overflow"},
    {caui_fatal_status, 1, "CAUI IP TX Underflow"},
};

struct LoopbackState {
    uint8_t on; /* a loopback type other than disable-all is set */
};

template <size_t N>
using PortCtx = lh::Context<lh::Counters<N>, LoopbackState>;
using EthCtx = PortCtx<ETH_STATS_COUNT>;
using CauiCtx = PortCtx<CAUI_STATS_COUNT>;

constinit std::array<EthCtx, LH_MAX_PIPES> eth_contexts;
constinit std::array<CauiCtx, LH_MAX_PIPES> caui_contexts;

/* The last step of create: no loopback. */
template <const PortRegs &regs, class Ctx> void clear_loopback(Ctx &ctx)
{
    ctx.state.on = 0;
    ctx.block.window.write(regs.loopback(), 0);
}

template <class Ctx> struct Port {
    lh::Block<Ctx> block;
    const PortRegs &regs;
};

constexpr lh_block_words port_words{"module fatal error detection",
                                    "update stats", "get interface stats",
                                    "clear interface stats"};

/* Valid is set before the mutex: a failed init leaves the context valid. */
constexpr Port<EthCtx> eth{
    {{"Eth", LH_MOD_ETH, eth_errors, eth_counters, sizeof(EthCtx::stats),
      port_words, &eth_regs},
     &eth_contexts, lh::ValidAt::before_mutex, nullptr,
     clear_loopback<eth_regs, EthCtx>},
    eth_regs,
};

constexpr Port<CauiCtx> caui{
    {{"CAUI", LH_MOD_CAUI, caui_errors, caui_counters,
      sizeof(CauiCtx::stats), port_words, &caui_regs},
     &caui_contexts, lh::ValidAt::before_mutex, nullptr,
     clear_loopback<caui_regs, CauiCtx>},
    caui_regs,
};

void pulse_link_reset(const PortRegs &regs, lh::Window window)
{
    window.set(regs.link_reset());
    usleep(delay_us);
    window.clear(regs.link_reset());
}

/* One attempt of the enable's wait: a port already aligned costs no sleep. */
bool wait_aligned(const PortRegs &regs, lh::Window window)
{
    for (int poll = 0; poll < align_polls; poll++) {
        if (window.test(regs.aligned()))
            return true;
        usleep(delay_us);
    }
    return false;
}

void log_aligned(const lh_block_desc &desc, uint32_t pipe)
{
    lh_log(LOG_INFO, "%s - %s interface %d receive aligned", LH_TAG(INFO),
           desc.name, pipe);
}

/* Succeeds whether or not the port aligns: the caller learns the link
 * state from get_interface_state. */
int enable(const lh_block_desc &desc, const PortRegs &regs, lh::Window window,
           uint32_t pipe)
{
    window.set(regs.enable());
    window.clear(regs.disable());
    lh_log(LOG_INFO, "%s - %s interface %d enabled", LH_TAG(INFO), desc.name,
           pipe);
    for (int attempt = 1; attempt <= align_attempts; attempt++) {
        if (wait_aligned(regs, window)) {
            log_aligned(desc, pipe);
            return 0;
        }
        lh_log(LOG_DEBUG, "%s - %s interface %d - attempting link reset %d",
               LH_TAG(INFO), desc.name, pipe, attempt);
        pulse_link_reset(regs, window);
    }
    lh_log(LOG_INFO, "%s - %s interface %d failed to receive align",
           LH_TAG(ERROR), desc.name, pipe);
    return 0;
}

int disable(const lh_block_desc &desc, const PortRegs &regs, lh::Window window,
            uint32_t pipe)
{
    window.set(regs.disable());
    window.clear(regs.enable());
    lh_log(LOG_INFO, "%s - %s interface %d disabled", LH_TAG(INFO), desc.name,
           pipe);
    return 0;
}

bool is_up(const PortRegs &regs, lh::Window window)
{
    return window.test(regs.enable()) && window.test(regs.aligned());
}

template <class Ctx>
int set_interface_state(const Port<Ctx> &port, uint32_t pipe, uint8_t state)
{
    Ctx *ctx = lh::context(port.block, pipe, set_state_words);

    if (ctx == nullptr)
        return -1;
    return state != 0
               ? enable(port.block.info, port.regs, ctx->block.window, pipe)
               : disable(port.block.info, port.regs, ctx->block.window, pipe);
}

template <class Ctx>
int get_interface_state(const Port<Ctx> &port, uint32_t pipe, uint8_t *state)
{
    if (state == nullptr) {
        lh::log_null(port.block.info, get_state_words);
        return -1;
    }
    Ctx *ctx = lh::context(port.block, pipe, get_state_words);
    if (ctx == nullptr)
        return -1;
    *state = is_up(port.regs, ctx->block.window);
    return 0;
}

template <class Ctx>
int disable_loopback(const Port<Ctx> &port, Ctx &ctx, uint32_t pipe)
{
    ctx.state.on = 0;
    ctx.block.window.write(port.regs.loopback(), 0);
    lh_log(LOG_INFO, "%s - %s interface %d loopback disabled", LH_TAG(INFO),
           port.block.info.name, pipe);
    return 0;
}

/* Another type needs a "disable-all" first. */
template <class Ctx>
int enable_loopback(const Port<Ctx> &port, Ctx &ctx, uint32_t pipe,
                    uint32_t type)
{
    if (ctx.state.on) {
        lh_log(LOG_CRIT,
               "%s - %s enable loopback on pipe %d failed - loopback already "
               "enabled",
               LH_TAG(ERROR), port.block.info.name, pipe);
        return -1;
    }
    ctx.state.on = 1;
    ctx.block.window.write(port.regs.loopback(), loopback_types[type].code);
    lh_log(LOG_INFO, "%s - %s interface %d loopback (%s) enabled",
           LH_TAG(INFO), port.block.info.name, pipe, loopback_types[type].name);
    return 0;
}

/* The type is checked after the pipe and before the context. */
bool loopback_type_valid(const lh_block_desc &desc, uint32_t type,
                         uint32_t pipe)
{
    if (pipe >= LH_MAX_PIPES || type < std::size(loopback_types))
        return true;
    lh_log(LOG_CRIT, "%s - %s set loopback - invalid loopback type %d",
           LH_TAG(ERROR), desc.name, type);
    return false;
}

template <class Ctx>
int set_loopback(const Port<Ctx> &port, uint32_t type, uint32_t pipe)
{
    if (!loopback_type_valid(port.block.info, type, pipe))
        return -1;
    Ctx *ctx = lh::context(port.block, pipe, set_loopback_words);
    if (ctx == nullptr)
        return -1;
    if (type == PORT_LOOPBACK_DISABLE_ALL)
        return disable_loopback(port, *ctx, pipe);
    return enable_loopback(port, *ctx, pipe, type);
}

/* ORs the bit of the type whose code is in force; the unused codes 3, 5
 * and 7 and code 0 add nothing. The mask is never cleared here. */
template <class Ctx>
int get_loopback(const Port<Ctx> &port, uint32_t *mask, uint32_t pipe)
{
    if (mask == nullptr) {
        lh::log_null(port.block.info, get_loopback_words);
        return -1;
    }
    Ctx *ctx = lh::context(port.block, pipe, get_loopback_words);
    if (ctx == nullptr)
        return -1;
    uint32_t code = ctx->block.window.read(port.regs.loopback());
    for (uint32_t type = PORT_LOOPBACK_PCS_NEAR;
         type < std::size(loopback_types); type++)
        if (loopback_types[type].code == code)
            *mask |= 1u << type;
    return 0;
}

/* No snapshot is taken while the port is down. */
template <class Ctx> void update_stats(const Port<Ctx> &port, uint32_t pipe)
{
    Ctx *ctx = lh::context(port.block, pipe, port.block.info.words.update);
    decltype(Ctx::stats) values;
    uint8_t up;

    if (ctx == nullptr)
        return;
    if (get_interface_state(port, pipe, &up) != 0 || !up)
        return;
    lh::Window window = ctx->block.window;
    (void)window.read(port.regs.snapshot);
    window.write(port.regs.snapshot, 1);
    lh::read_counters(window, port.block.info.counters, values);
    lh::add_stats(*ctx, values);
}

/* Silent on a bad pipe or context: the poll thread calls it every cycle. */
template <class Ctx> void rx_align_monitor(const Port<Ctx> &port, uint32_t pipe)
{
    if (pipe >= LH_MAX_PIPES)
        return;
    const lh::BlockState &state = (*port.block.contexts)[pipe].block;
    if (!state.valid || !state.window)
        return;
    if (!state.window.test(port.regs.enable()) ||
        state.window.test(port.regs.aligned()))
        return;
    pulse_link_reset(port.regs, state.window);
    if (state.window.test(port.regs.aligned()))
        log_aligned(port.block.info, pipe);
}

constexpr lh_block_ops port_ops(lh_block_ops ops,
                                int (*set_state)(uint32_t, uint8_t),
                                int (*get_state)(uint32_t, uint8_t *),
                                int (*set_type)(uint32_t, uint32_t),
                                int (*get_mask)(uint32_t *, uint32_t),
                                void (*align_monitor)(uint32_t))
{
    ops.set_interface_state = set_state;
    ops.get_interface_state = get_state;
    ops.set_loopback = set_type;
    ops.get_loopback = get_mask;
    ops.rx_align_monitor = align_monitor;
    return ops;
}

} // namespace

int eth_context_create(uint32_t pipe, volatile void *regs)
{
    return lh::create(eth.block, pipe, regs);
}

int eth_set_interface_state(uint32_t pipe, uint8_t state)
{
    return set_interface_state(eth, pipe, state);
}

int eth_get_interface_state(uint32_t pipe, uint8_t *state)
{
    return get_interface_state(eth, pipe, state);
}

int eth_set_loopback(uint32_t type, uint32_t pipe)
{
    return set_loopback(eth, type, pipe);
}

int eth_get_loopback(uint32_t *mask, uint32_t pipe)
{
    return get_loopback(eth, mask, pipe);
}

void eth_update_stats(uint32_t pipe)
{
    update_stats(eth, pipe);
}

int eth_get_stats(uint32_t pipe, void *buffer, uint64_t size)
{
    return lh::get_stats(eth.block, pipe, buffer, size);
}

int eth_clear_stats(uint32_t pipe)
{
    return lh::clear_stats(eth.block, pipe);
}

int eth_fatal_error_detect(uint32_t pipe, lh_fatal_error_t *report)
{
    return lh::fatal_error_detect(eth.block, pipe, report);
}

void eth_rx_align_monitor(uint32_t pipe)
{
    rx_align_monitor(eth, pipe);
}

int caui_context_create(uint32_t pipe, volatile void *regs)
{
    return lh::create(caui.block, pipe, regs);
}

int caui_set_interface_state(uint32_t pipe, uint8_t state)
{
    return set_interface_state(caui, pipe, state);
}

int caui_get_interface_state(uint32_t pipe, uint8_t *state)
{
    return get_interface_state(caui, pipe, state);
}

int caui_set_loopback(uint32_t type, uint32_t pipe)
{
    return set_loopback(caui, type, pipe);
}

int caui_get_loopback(uint32_t *mask, uint32_t pipe)
{
    return get_loopback(caui, mask, pipe);
}

void caui_update_stats(uint32_t pipe)
{
    update_stats(caui, pipe);
}

int caui_get_stats(uint32_t pipe, void *buffer, uint64_t size)
{
    return lh::get_stats(caui.block, pipe, buffer, size);
}

int caui_clear_stats(uint32_t pipe)
{
    return lh::clear_stats(caui.block, pipe);
}

int caui_fatal_error_detect(uint32_t pipe, lh_fatal_error_t *report)
{
    return lh::fatal_error_detect(caui.block, pipe, report);
}

void caui_rx_align_monitor(uint32_t pipe)
{
    rx_align_monitor(caui, pipe);
}

/* Only caui's align monitor is called by the poll thread. */
constexpr lh_block_ops eth_ops = port_ops(
    lh::stats_ops(eth.block.info, eth_context_create, eth_fatal_error_detect,
                  eth_update_stats, eth_get_stats, eth_clear_stats),
    eth_set_interface_state, eth_get_interface_state, eth_set_loopback,
    eth_get_loopback, nullptr);

constexpr lh_block_ops caui_ops = port_ops(
    lh::stats_ops(caui.block.info, caui_context_create,
                  caui_fatal_error_detect, caui_update_stats, caui_get_stats,
                  caui_clear_stats),
    caui_set_interface_state, caui_get_interface_state, caui_set_loopback,
    caui_get_loopback, caui_rx_align_monitor);
