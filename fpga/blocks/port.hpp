/* The Ethernet port block drivers: eth on the LHX image, caui on
 * the base image. One design with two register maps; the library reaches
 * them through eth_ops and caui_ops (lh_drivers.h). */
#ifndef PORT_H
#define PORT_H

#include <stdint.h>

#include "lh_fpga.h"

/* The `type` argument of set_loopback; bit n of get_loopback's mask is
 * type n. */
enum port_loopback_type {
    PORT_LOOPBACK_DISABLE_ALL = 0,
    PORT_LOOPBACK_PCS_NEAR = 1,
    PORT_LOOPBACK_PMA_NEAR = 2,
    PORT_LOOPBACK_PMA_FAR = 3,
    PORT_LOOPBACK_PCS_FAR = 4,
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
