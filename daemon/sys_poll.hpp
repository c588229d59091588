/* The daemon system poll: pipe states at start and on change, and the
 * one-time FAILED alarm. */
#ifndef PLM_SYS_POLL_H
#define PLM_SYS_POLL_H

#include <atomic>

#include "lh_fpga.h"

/* Set by the handler or the start-up scan; never cleared. */
extern std::atomic<uint8_t> plm_fatal_flag;
/* Set once the FAILED line is logged; never cleared. */
extern std::atomic<uint8_t> plm_fatal_reported;

int plm_sys_poll_init(void);
void *plm_sys_poll_thread(void *arg);
void plm_fatal_error_handler(lh_fatal_error_t report);

/* The thread's start: the pipe states read and reported, the handler
 * registered, the modules already failed scanned. Returns the last-state
 * array (heap) and the pipe count, or null after logging. */
uint8_t *plm_sys_poll_setup(uint32_t *count_out);

void plm_sys_poll_pass(uint8_t *last, uint32_t count);

#endif
