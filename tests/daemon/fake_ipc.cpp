#include "fake_ipc.hpp"

#include <pthread.h>
#include <stdlib.h>
#include <string.h>

#include "plat_ipc.h"

struct fake_ipc fake_ipc;

void fake_ipc_reset(void)
{
    memset(&fake_ipc, 0, sizeof(fake_ipc));
}

uint64_t ipc_ctx_init(uint32_t app_id)
{
    return app_id;
}

int ipc_ctx_init_proxy(uint64_t ctx, int mode,
                       void (*cb)(void *unused, ipc_msg_t *msg), int flags)
{
    (void)ctx;
    (void)mode;
    (void)cb;
    (void)flags;
    return 0;
}

int ipc_ctx_add_endpoint(uint64_t ctx, uint32_t app_id, int type, int flags)
{
    (void)ctx;
    (void)app_id;
    (void)type;
    (void)flags;
    return fake_ipc.add_endpoint_result;
}

int ipc_recv(uint64_t ctx, ipc_msg_t *msg, int timeout_ms)
{
    int call = fake_ipc.recv_calls++;

    (void)ctx;
    (void)timeout_ms;
    memset(msg, 0, sizeof(*msg));
    if (call >= fake_ipc.recv_scripted)
        pthread_exit(NULL);
    return fake_ipc.recv_results[call];
}

/* Takes the payload over, as the real one does. */
int ipc_send(uint64_t ctx, ipc_msg_t *msg, int flags)
{
    (void)ctx;
    (void)flags;
    if (fake_ipc.sent_count < FAKE_IPC_MAX_SENT) {
        struct fake_sent *sent = &fake_ipc.sent[fake_ipc.sent_count];

        sent->record = *msg;
        if (msg->payload != NULL && msg->payload_len <= FAKE_IPC_MAX_PAYLOAD)
            memcpy(sent->payload, msg->payload, msg->payload_len);
    }
    fake_ipc.sent_count++;
    free(msg->payload);
    return fake_ipc.send_result;
}

void ipc_debug_msg(const ipc_msg_t *msg)
{
    (void)msg;
}
