/* The Ethernet port block drivers: eth on the LHX image, caui on
 * the base image. One design with two register maps; the library reaches
 * them through eth_ops and caui_ops (lh_drivers.h). */
#ifndef PORT_H
#define PORT_H

#include <stdint.h>

#include "lh_fpga.h"
#include "lh_regs.hpp"

/* The `type` argument of set_loopback; bit n of get_loopback's mask is
 * type n. */
enum port_loopback_type {
    PORT_LOOPBACK_DISABLE_ALL = 0,
    PORT_LOOPBACK_PCS_NEAR = 1,
    PORT_LOOPBACK_PMA_NEAR = 2,
    PORT_LOOPBACK_PMA_FAR = 3,
    PORT_LOOPBACK_PCS_FAR = 4,
};

/* A loopback type's name and the code control bits 2..0 hold for it,
 * indexed by port_loopback_type. */
struct lh_loopback_type {
    const char *name;
    uint32_t code;
};

inline constexpr lh_loopback_type port_loopback_types[] = {
    {"disable-all", 0},
    {"pcs-near", 1},
    {"pma-near", 2},
    {"pma-far", 4},
    {"pcs-far", 6},
};

/* Where a port block keeps its snapshot trigger, control and status; the
 * two register maps differ only here. Control bits sit at the same
 * positions in both blocks. */
struct lh_port_regs {
    lh::Reg snapshot;
    lh::Reg control;
    lh::Reg status;
    uint32_t aligned_bit;

    constexpr lh::Field loopback() const { return {control, {0, 3}}; }
    constexpr lh::Bit enable() const { return {control, 8}; }
    constexpr lh::Bit link_reset() const { return {control, 10}; }
    constexpr lh::Bit disable() const { return {control, 11}; }
    constexpr lh::Bit aligned() const { return {status, aligned_bit}; }
};

/* 64-bit counters of the statistics record of each block. */
#define ETH_STATS_COUNT 75
#define CAUI_STATS_COUNT 32

int eth_context_create(uint32_t pipe, volatile void *regs);
int eth_set_interface_state(uint32_t pipe, uint8_t state);
int eth_get_interface_state(uint32_t pipe, uint8_t *state);
int eth_set_loopback(uint32_t type, uint32_t pipe);
int eth_get_loopback(uint32_t *mask, uint32_t pipe);
void eth_update_stats(uint32_t pipe);
int eth_get_stats(uint32_t pipe, void *buffer, uint64_t size);
int eth_clear_stats(uint32_t pipe);
int eth_fatal_error_detect(uint32_t pipe, lh_fatal_error_t *report);
void eth_rx_align_monitor(uint32_t pipe);

int caui_context_create(uint32_t pipe, volatile void *regs);
int caui_set_interface_state(uint32_t pipe, uint8_t state);
int caui_get_interface_state(uint32_t pipe, uint8_t *state);
int caui_set_loopback(uint32_t type, uint32_t pipe);
int caui_get_loopback(uint32_t *mask, uint32_t pipe);
void caui_update_stats(uint32_t pipe);
int caui_get_stats(uint32_t pipe, void *buffer, uint64_t size);
int caui_clear_stats(uint32_t pipe);
int caui_fatal_error_detect(uint32_t pipe, lh_fatal_error_t *report);
void caui_rx_align_monitor(uint32_t pipe);

#endif
