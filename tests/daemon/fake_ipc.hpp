/* The platform IPC library as the daemon's unit tests set it: every sent
 * record is kept with a copy of its payload. */
#ifndef FAKE_IPC_H
#define FAKE_IPC_H

#include <stddef.h>
#include <stdint.h>

#include "ipc_msg.hpp"

#define FAKE_IPC_MAX_SENT 8
#define FAKE_IPC_MAX_PAYLOAD 9000

struct fake_sent {
    plm_ipc_msg record;
    uint8_t payload[FAKE_IPC_MAX_PAYLOAD];
};

#define FAKE_IPC_MAX_RECV 4

struct fake_ipc {
    int send_result;
    int add_endpoint_result;
    /* What each ipc_recv returns, in turn; past the last one the calling
     * thread ends, so a test can join the IPC server thread. */
    int recv_results[FAKE_IPC_MAX_RECV];
    int recv_scripted;
    int recv_calls;
    struct fake_sent sent[FAKE_IPC_MAX_SENT];
    size_t sent_count;
};

extern struct fake_ipc fake_ipc;

void fake_ipc_reset(void);

#endif
