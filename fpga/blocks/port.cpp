/* The Ethernet port blocks. eth and caui are one design with two
 * register maps: every operation is written once and driven by the block's
 * variant, which holds only what differs (offsets, the receive-aligned bit,
 * the counters, the error table, the display name). */
#include "port.hpp"

#include <stdbool.h>
#include <unistd.h>

#include "lh_block.hpp"
#include "lh_drivers.hpp"
#include "lh_log.hpp"
#include "lh_regs.hpp"

/* Port control bits, at the same positions in both blocks. */
#define PORT_LOOPBACK_LSB   0
#define PORT_LOOPBACK_WIDTH 3
#define PORT_ENABLE_BIT     8
#define PORT_LINK_RESET_BIT 10
#define PORT_DISABLE_BIT    11

#define PORT_ALIGN_ATTEMPTS 3
#define PORT_ALIGN_POLLS    500
#define PORT_DELAY_US       100

#define PORT_MAX_COUNTERS ETH_STATS_COUNT

#define ETH_SNAPSHOT     0x0020
#define ETH_FATAL_STATUS 0x1000
#define ETH_CONTROL      0x1020
#define ETH_STATUS       0x1024
#define ETH_ALIGNED_BIT  3

#define CAUI_SNAPSHOT     0x02B0
#define CAUI_FATAL_STATUS 0x0800
#define CAUI_CONTROL      0x0820
#define CAUI_STATUS       0x0824
#define CAUI_ALIGNED_BIT  24

#define WORDS_SET_STATE    "set interface state"
#define WORDS_GET_STATE    "get interface state"
#define WORDS_SET_LOOPBACK "set loopback"
#define WORDS_GET_LOOPBACK "get loopback"

#define PORT_WORDS                                                             \
    {                                                                          \
        .fatal = "module fatal error detection", .update = "update stats",     \
        .get = "get interface stats", .clear = "clear interface stats",        \
    }

struct port_ctx {
    struct lh_block_ctx block;
    uint8_t loopback_on = 0; /* a loopback type other than disable-all is set */
};

struct port_variant {
    struct lh_block_desc block;
    uint32_t snapshot;
    uint32_t control;
    uint32_t status;
    unsigned int aligned_bit;
};

static const struct {
    const char *name;
    uint32_t code; /* control bits 2..0 */
} loopback_types[] = {
    {"disable-all", 0},
    {"pcs-near", 1},
    {"pma-near", 2},
    {"pma-far", 4},
    {"pcs-far", 6},
};

/* A MAC counter: the low word first, the high word 4 above. */
#define MAC_COUNTER(low) LH_COUNTER64((low) + 4, (low))

static const struct lh_counter_source eth_counters[] = {
    MAC_COUNTER(0x508),
    MAC_COUNTER(0x510),
    MAC_COUNTER(0x518),
    MAC_COUNTER(0x520),
    MAC_COUNTER(0x5A8),
    MAC_COUNTER(0x5B0),
    MAC_COUNTER(0x5B8),
    MAC_COUNTER(0x5C0),
    MAC_COUNTER(0x660),
    MAC_COUNTER(0x6A0),
    /* 10-27 */
    MAC_COUNTER(0x700),
    MAC_COUNTER(0x708),
    MAC_COUNTER(0x710),
    MAC_COUNTER(0x718),
    MAC_COUNTER(0x720),
    MAC_COUNTER(0x728),
    MAC_COUNTER(0x730),
    MAC_COUNTER(0x738),
    MAC_COUNTER(0x740),
    MAC_COUNTER(0x748),
    MAC_COUNTER(0x750),
    MAC_COUNTER(0x758),
    MAC_COUNTER(0x760),
    MAC_COUNTER(0x768),
    MAC_COUNTER(0x770),
    MAC_COUNTER(0x778),
    MAC_COUNTER(0x780),
    MAC_COUNTER(0x788),
    /* 28 */
    MAC_COUNTER(0x7B8),
    /* 29-34 */
    MAC_COUNTER(0x7D0),
    MAC_COUNTER(0x7D8),
    MAC_COUNTER(0x7E0),
    MAC_COUNTER(0x7E8),
    MAC_COUNTER(0x7F0),
    MAC_COUNTER(0x7F8),
    /* 35-51 */
    MAC_COUNTER(0x808),
    MAC_COUNTER(0x810),
    MAC_COUNTER(0x818),
    MAC_COUNTER(0x820),
    MAC_COUNTER(0x828),
    MAC_COUNTER(0x830),
    MAC_COUNTER(0x838),
    MAC_COUNTER(0x840),
    MAC_COUNTER(0x848),
    MAC_COUNTER(0x850),
    MAC_COUNTER(0x858),
    MAC_COUNTER(0x860),
    MAC_COUNTER(0x868),
    MAC_COUNTER(0x870),
    MAC_COUNTER(0x878),
    MAC_COUNTER(0x880),
    MAC_COUNTER(0x888),
    /* 52-67 */
    MAC_COUNTER(0x898),
    MAC_COUNTER(0x8A0),
    MAC_COUNTER(0x8A8),
    MAC_COUNTER(0x8B0),
    MAC_COUNTER(0x8B8),
    MAC_COUNTER(0x8C0),
    MAC_COUNTER(0x8C8),
    MAC_COUNTER(0x8D0),
    MAC_COUNTER(0x8D8),
    MAC_COUNTER(0x8E0),
    MAC_COUNTER(0x8E8),
    MAC_COUNTER(0x8F0),
    MAC_COUNTER(0x8F8),
    MAC_COUNTER(0x900),
    MAC_COUNTER(0x908),
    MAC_COUNTER(0x910),
    /* 68-74, the wrapper: high word at the lower address. */
    LH_COUNTER64(0x1050, 0x1054),
    LH_COUNTER32(0x1058),
    LH_COUNTER64(0x105C, 0x1060),
    LH_COUNTER32(0x1064),
    LH_COUNTER32(0x1068),
    LH_COUNTER32(0x106C),
    LH_COUNTER32(0x1070),
};

static const struct lh_counter_source caui_counters[] = {
    MAC_COUNTER(0x500),
    MAC_COUNTER(0x508),
    MAC_COUNTER(0x510),
    MAC_COUNTER(0x518),
    MAC_COUNTER(0x5F0),
    MAC_COUNTER(0x5F8),
    /* 6-9 */
    MAC_COUNTER(0x608),
    MAC_COUNTER(0x610),
    MAC_COUNTER(0x618),
    MAC_COUNTER(0x620),
    /* 10-20 */
    MAC_COUNTER(0x698),
    MAC_COUNTER(0x6A0),
    MAC_COUNTER(0x6A8),
    MAC_COUNTER(0x6B0),
    MAC_COUNTER(0x6B8),
    MAC_COUNTER(0x6C0),
    MAC_COUNTER(0x6C8),
    MAC_COUNTER(0x6D0),
    MAC_COUNTER(0x6D8),
    MAC_COUNTER(0x6E0),
    MAC_COUNTER(0x6E8),
    /* 21-24 */
    MAC_COUNTER(0x6F8),
    MAC_COUNTER(0x700),
    MAC_COUNTER(0x708),
    MAC_COUNTER(0x710),
    /* 25-31, the wrapper: high word at the lower address. */
    LH_COUNTER64(0x850, 0x854),
    LH_COUNTER32(0x858),
    LH_COUNTER64(0x85C, 0x860),
    LH_COUNTER32(0x864),
    LH_COUNTER32(0x868),
    LH_COUNTER32(0x86C),
    LH_COUNTER32(0x870),
};

static_assert(LH_ARRAY_SIZE(eth_counters) == ETH_STATS_COUNT,
               "eth counter table");
static_assert(LH_ARRAY_SIZE(caui_counters) == CAUI_STATS_COUNT,
               "caui counter table");

/* Bit 1 is not tested. */
static const struct lh_error_bit eth_errors[] = {
    {ETH_FATAL_STATUS, 8, "RX Straddle AXI4 Interface Multiple SOP error"},
    {ETH_FATAL_STATUS, 7, "RX Buffer FIFO Double bit ECC error"},
    {ETH_FATAL_STATUS, 6, "TX Buffer FIFO Double bit ECC error"},
    {ETH_FATAL_STATUS, 5, "RX Buffer FIFO Overflow"},
    {ETH_FATAL_STATUS, 4, "RX Buffer FIFO Underflow"},
    {ETH_FATAL_STATUS, 3, "TX Buffer FIFO Overflow"},
    {ETH_FATAL_STATUS, 2, "TX Buffer FIFO Underflow"},
    {ETH_FATAL_STATUS, 0, "Eth IP TX Underflow"},
};

/* Bit 0 is not tested, and the texts sit at other bits than eth's; both
 * as the hardware has them. */
static const struct lh_error_bit caui_errors[] = {
    {CAUI_FATAL_STATUS, 9, "TX Buffer FIFO Underflow"},
    {CAUI_FATAL_STATUS, 8, "RX Buffer FIFO Underflow"},
    {CAUI_FATAL_STATUS, 7, "CAUI RX LBus Multiple SOP error"},
    {CAUI_FATAL_STATUS, 6, "TX Buffer FIFO Double bit ECC error"},
    {CAUI_FATAL_STATUS, 5, "TX Buffer FIFO Overflow"},
    {CAUI_FATAL_STATUS, 4, "RX Buffer FIFO Double bit ECC error"},
    {CAUI_FATAL_STATUS, 3, "RX Buffer FIFO Overflow"},
    {CAUI_FATAL_STATUS, 2, "CAUI IP TX Overflow"},
    {CAUI_FATAL_STATUS, 1, "CAUI IP TX Underflow"},
};

static uint64_t eth_stats[LH_MAX_PIPES][ETH_STATS_COUNT];
static uint64_t caui_stats[LH_MAX_PIPES][CAUI_STATS_COUNT];

static struct port_ctx eth_ports[LH_MAX_PIPES] = {
    {.block = {.stats = eth_stats[0]}},
    {.block = {.stats = eth_stats[1]}},
};
static struct port_ctx caui_ports[LH_MAX_PIPES] = {
    {.block = {.stats = caui_stats[0]}},
    {.block = {.stats = caui_stats[1]}},
};

static const struct port_variant eth = {
    .block =
        {
            .name = "Eth",
            .module_id = LH_MOD_ETH,
            .contexts = {&eth_ports[0].block, &eth_ports[1].block},
            .errors = eth_errors,
            .error_count = LH_ARRAY_SIZE(eth_errors),
            .counters = eth_counters,
            .counter_count = LH_ARRAY_SIZE(eth_counters),
            .stats_size = sizeof(eth_stats[0]),
            .words = PORT_WORDS,
        },
    .snapshot = ETH_SNAPSHOT,
    .control = ETH_CONTROL,
    .status = ETH_STATUS,
    .aligned_bit = ETH_ALIGNED_BIT,
};

static const struct port_variant caui = {
    .block =
        {
            .name = "CAUI",
            .module_id = LH_MOD_CAUI,
            .contexts = {&caui_ports[0].block, &caui_ports[1].block},
            .errors = caui_errors,
            .error_count = LH_ARRAY_SIZE(caui_errors),
            .counters = caui_counters,
            .counter_count = LH_ARRAY_SIZE(caui_counters),
            .stats_size = sizeof(caui_stats[0]),
            .words = PORT_WORDS,
        },
    .snapshot = CAUI_SNAPSHOT,
    .control = CAUI_CONTROL,
    .status = CAUI_STATUS,
    .aligned_bit = CAUI_ALIGNED_BIT,
};

static struct port_ctx *port_ctx(struct lh_block_ctx *ctx)
{
    return (struct port_ctx *)ctx;
}

static int port_context_create(const struct port_variant *port, uint32_t pipe,
                               volatile void *regs)
{
    struct lh_block_ctx *ctx;

    if (lh_block_check_create(&port->block, pipe, regs) != 0)
        return -1;
    ctx = port->block.contexts[pipe];
    ctx->regs = regs;
    /* Before the mutex: a failed init leaves the context valid. */
    ctx->valid = 1;
    if (lh_block_init_stats(&port->block, ctx) != 0)
        return -1;
    port_ctx(ctx)->loopback_on = 0;
    lh_reg_write_field(regs, port->control, PORT_LOOPBACK_LSB,
                       PORT_LOOPBACK_WIDTH, 0);
    lh_block_mark_created(&port->block, ctx, pipe);
    return 0;
}

static bool port_is_aligned(const struct port_variant *port,
                            volatile void *regs)
{
    return lh_reg_test_bit(regs, port->status, port->aligned_bit);
}

static bool port_is_enabled(const struct port_variant *port,
                            volatile void *regs)
{
    return lh_reg_test_bit(regs, port->control, PORT_ENABLE_BIT);
}

static void port_pulse_link_reset(const struct port_variant *port,
                                  volatile void *regs)
{
    lh_reg_set_bit(regs, port->control, PORT_LINK_RESET_BIT);
    usleep(PORT_DELAY_US);
    lh_reg_clear_bit(regs, port->control, PORT_LINK_RESET_BIT);
}

/* One attempt of the enable's wait: a port already aligned costs no sleep. */
static bool port_wait_aligned(const struct port_variant *port,
                              volatile void *regs)
{
    for (int poll = 0; poll < PORT_ALIGN_POLLS; poll++) {
        if (port_is_aligned(port, regs))
            return true;
        usleep(PORT_DELAY_US);
    }
    return false;
}

static void port_log_aligned(const struct port_variant *port, uint32_t pipe)
{
    lh_log(LOG_INFO, "%s - %s interface %d receive aligned", LH_TAG(INFO),
           port->block.name, pipe);
}

/* Succeeds whether or not the port aligns: the caller learns the link
 * state from get_interface_state. */
static int port_enable(const struct port_variant *port, volatile void *regs,
                       uint32_t pipe)
{
    const char *name = port->block.name;

    lh_reg_set_bit(regs, port->control, PORT_ENABLE_BIT);
    lh_reg_clear_bit(regs, port->control, PORT_DISABLE_BIT);
    lh_log(LOG_INFO, "%s - %s interface %d enabled", LH_TAG(INFO), name, pipe);
    for (int attempt = 1; attempt <= PORT_ALIGN_ATTEMPTS; attempt++) {
        if (port_wait_aligned(port, regs)) {
            port_log_aligned(port, pipe);
            return 0;
        }
        lh_log(LOG_DEBUG, "%s - %s interface %d - attempting link reset %d",
               LH_TAG(INFO), name, pipe, attempt);
        port_pulse_link_reset(port, regs);
    }
    lh_log(LOG_INFO, "%s - %s interface %d failed to receive align",
           LH_TAG(ERROR), name, pipe);
    return 0;
}

static int port_disable(const struct port_variant *port, volatile void *regs,
                        uint32_t pipe)
{
    lh_reg_set_bit(regs, port->control, PORT_DISABLE_BIT);
    lh_reg_clear_bit(regs, port->control, PORT_ENABLE_BIT);
    lh_log(LOG_INFO, "%s - %s interface %d disabled", LH_TAG(INFO),
           port->block.name, pipe);
    return 0;
}

static int port_set_interface_state(const struct port_variant *port,
                                    uint32_t pipe, uint8_t state)
{
    struct lh_block_ctx *ctx =
        lh_block_context(&port->block, pipe, WORDS_SET_STATE, LOG_CRIT);

    if (ctx == NULL)
        return -1;
    if (state != 0)
        return port_enable(port, ctx->regs, pipe);
    return port_disable(port, ctx->regs, pipe);
}

static int port_get_interface_state(const struct port_variant *port,
                                    uint32_t pipe, uint8_t *state)
{
    struct lh_block_ctx *ctx;

    if (state == NULL) {
        lh_block_log_null(&port->block, WORDS_GET_STATE);
        return -1;
    }
    ctx = lh_block_context(&port->block, pipe, WORDS_GET_STATE, LOG_CRIT);
    if (ctx == NULL)
        return -1;
    *state =
        port_is_enabled(port, ctx->regs) && port_is_aligned(port, ctx->regs);
    return 0;
}

static int port_disable_loopback(const struct port_variant *port,
                                 struct lh_block_ctx *ctx, uint32_t pipe)
{
    port_ctx(ctx)->loopback_on = 0;
    lh_reg_write_field(ctx->regs, port->control, PORT_LOOPBACK_LSB,
                       PORT_LOOPBACK_WIDTH, 0);
    lh_log(LOG_INFO, "%s - %s interface %d loopback disabled", LH_TAG(INFO),
           port->block.name, pipe);
    return 0;
}

/* Another type needs a "disable-all" first. */
static int port_enable_loopback(const struct port_variant *port,
                                struct lh_block_ctx *ctx, uint32_t pipe,
                                uint32_t type)
{
    if (port_ctx(ctx)->loopback_on) {
        lh_log(LOG_CRIT,
               "%s - %s enable loopback on pipe %d failed - loopback already "
               "enabled",
               LH_TAG(ERROR), port->block.name, pipe);
        return -1;
    }
    port_ctx(ctx)->loopback_on = 1;
    lh_reg_write_field(ctx->regs, port->control, PORT_LOOPBACK_LSB,
                       PORT_LOOPBACK_WIDTH, loopback_types[type].code);
    lh_log(LOG_INFO, "%s - %s interface %d loopback (%s) enabled", LH_TAG(INFO),
           port->block.name, pipe, loopback_types[type].name);
    return 0;
}

static int port_set_loopback(const struct port_variant *port, uint32_t type,
                             uint32_t pipe)
{
    struct lh_block_ctx *ctx;

    /* The type is checked after the pipe and before the context. */
    if (pipe < LH_MAX_PIPES && type >= LH_ARRAY_SIZE(loopback_types)) {
        lh_log(LOG_CRIT, "%s - %s set loopback - invalid loopback type %d",
               LH_TAG(ERROR), port->block.name, type);
        return -1;
    }
    ctx = lh_block_context(&port->block, pipe, WORDS_SET_LOOPBACK, LOG_CRIT);
    if (ctx == NULL)
        return -1;
    if (type == PORT_LOOPBACK_DISABLE_ALL)
        return port_disable_loopback(port, ctx, pipe);
    return port_enable_loopback(port, ctx, pipe, type);
}

/* ORs the bit of the type whose code is in force; the unused codes 3, 5
 * and 7 and code 0 add nothing. The mask is never cleared here. */
static int port_get_loopback(const struct port_variant *port, uint32_t *mask,
                             uint32_t pipe)
{
    struct lh_block_ctx *ctx;
    uint32_t code;

    if (mask == NULL) {
        lh_block_log_null(&port->block, WORDS_GET_LOOPBACK);
        return -1;
    }
    ctx = lh_block_context(&port->block, pipe, WORDS_GET_LOOPBACK, LOG_CRIT);
    if (ctx == NULL)
        return -1;
    code = lh_reg_read_field(ctx->regs, port->control, PORT_LOOPBACK_LSB,
                             PORT_LOOPBACK_WIDTH);
    for (uint32_t type = PORT_LOOPBACK_PCS_NEAR;
         type < LH_ARRAY_SIZE(loopback_types); type++)
        if (loopback_types[type].code == code)
            *mask |= 1u << type;
    return 0;
}

/* No snapshot is taken while the port is down. */
static void port_update_stats(const struct port_variant *port, uint32_t pipe)
{
    struct lh_block_ctx *ctx = lh_block_context(
        &port->block, pipe, port->block.words.update, LOG_CRIT);
    uint64_t values[PORT_MAX_COUNTERS];
    uint8_t up;

    if (ctx == NULL)
        return;
    if (port_get_interface_state(port, pipe, &up) != 0 || !up)
        return;
    (void)lh_reg_read(ctx->regs, port->snapshot);
    lh_reg_write(ctx->regs, port->snapshot, 1);
    lh_block_read_counters(ctx->regs, port->block.counters,
                           port->block.counter_count, values);
    lh_block_add_stats(ctx, values, port->block.counter_count);
}

/* Silent on a bad pipe or context: the poll thread calls it every cycle. */
static void port_rx_align_monitor(const struct port_variant *port,
                                  uint32_t pipe)
{
    struct lh_block_ctx *ctx;

    if (pipe >= LH_MAX_PIPES)
        return;
    ctx = port->block.contexts[pipe];
    if (!ctx->valid || ctx->regs == NULL)
        return;
    if (!port_is_enabled(port, ctx->regs) || port_is_aligned(port, ctx->regs))
        return;
    port_pulse_link_reset(port, ctx->regs);
    if (port_is_aligned(port, ctx->regs))
        port_log_aligned(port, pipe);
}

int eth_context_create(uint32_t pipe, volatile void *regs)
{
    return port_context_create(&eth, pipe, regs);
}

int eth_set_interface_state(uint32_t pipe, uint8_t state)
{
    return port_set_interface_state(&eth, pipe, state);
}

int eth_get_interface_state(uint32_t pipe, uint8_t *state)
{
    return port_get_interface_state(&eth, pipe, state);
}

int eth_set_loopback(uint32_t type, uint32_t pipe)
{
    return port_set_loopback(&eth, type, pipe);
}

int eth_get_loopback(uint32_t *mask, uint32_t pipe)
{
    return port_get_loopback(&eth, mask, pipe);
}

void eth_update_stats(uint32_t pipe)
{
    port_update_stats(&eth, pipe);
}

int eth_get_stats(uint32_t pipe, void *buffer, uint64_t size)
{
    return lh_block_get_stats(&eth.block, pipe, buffer, size);
}

int eth_clear_stats(uint32_t pipe)
{
    return lh_block_clear_stats(&eth.block, pipe);
}

int eth_fatal_error_detect(uint32_t pipe, lh_fatal_error_t *report)
{
    return lh_block_fatal_error_detect(&eth.block, pipe, report);
}

void eth_rx_align_monitor(uint32_t pipe)
{
    port_rx_align_monitor(&eth, pipe);
}

int caui_context_create(uint32_t pipe, volatile void *regs)
{
    return port_context_create(&caui, pipe, regs);
}

int caui_set_interface_state(uint32_t pipe, uint8_t state)
{
    return port_set_interface_state(&caui, pipe, state);
}

int caui_get_interface_state(uint32_t pipe, uint8_t *state)
{
    return port_get_interface_state(&caui, pipe, state);
}

int caui_set_loopback(uint32_t type, uint32_t pipe)
{
    return port_set_loopback(&caui, type, pipe);
}

int caui_get_loopback(uint32_t *mask, uint32_t pipe)
{
    return port_get_loopback(&caui, mask, pipe);
}

void caui_update_stats(uint32_t pipe)
{
    port_update_stats(&caui, pipe);
}

int caui_get_stats(uint32_t pipe, void *buffer, uint64_t size)
{
    return lh_block_get_stats(&caui.block, pipe, buffer, size);
}

int caui_clear_stats(uint32_t pipe)
{
    return lh_block_clear_stats(&caui.block, pipe);
}

int caui_fatal_error_detect(uint32_t pipe, lh_fatal_error_t *report)
{
    return lh_block_fatal_error_detect(&caui.block, pipe, report);
}

void caui_rx_align_monitor(uint32_t pipe)
{
    port_rx_align_monitor(&caui, pipe);
}

/* Only caui's align monitor is called by the poll thread. */
const struct lh_block_ops eth_ops = {
    .desc = &eth.block,
    .context_create = eth_context_create,
    .set_interface_state = eth_set_interface_state,
    .get_interface_state = eth_get_interface_state,
    .set_loopback = eth_set_loopback,
    .get_loopback = eth_get_loopback,
    .update_stats = eth_update_stats,
    .get_stats = eth_get_stats,
    .clear_stats = eth_clear_stats,
    .fatal_error_detect = eth_fatal_error_detect,
    .rx_align_monitor = NULL,
};

const struct lh_block_ops caui_ops = {
    .desc = &caui.block,
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
