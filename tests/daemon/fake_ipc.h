/* The platform IPC library as the daemon's unit tests set it: every sent
 * record is kept with a copy of its payload. */
#ifndef FAKE_IPC_H
#define FAKE_IPC_H

#include <stddef.h>
#include <stdint.h>

#include "ipc_msg.h"

#define FAKE_IPC_MAX_SENT 8
#define FAKE_IPC_MAX_PAYLOAD 9000

struct fake_sent {
    plm_ipc_msg record;
    uint8_t payload[FAKE_IPC_MAX_PAYLOAD];
};

struct fake_ipc {
    int send_result;
    struct fake_sent sent[FAKE_IPC_MAX_SENT];
    size_t sent_count;
};

extern struct fake_ipc fake_ipc;

void fake_ipc_reset(void);

#endif
