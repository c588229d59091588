#include "fake_ipc.hpp"

#include <pthread.h>
#include <stdlib.h>
#include <string.h>

#include "plat_ipc.h"

FakeIpc fake_ipc;

void fake_ipc_reset()
{
    fake_ipc = FakeIpc{};
}

uint64_t ipc_ctx_init(uint32_t app_id)
{
    return app_id;
}

int ipc_ctx_init_proxy(uint64_t, int, ipc_recv_cb, int)
{
    return 0;
}

int ipc_ctx_add_endpoint(uint64_t, uint32_t, int, int)
{
    return fake_ipc.add_endpoint_result;
}

int ipc_recv(uint64_t, ipc_msg_t *msg, int)
{
    size_t call = fake_ipc.recv_calls++;

    memset(msg, 0, sizeof(*msg));
    if (call >= fake_ipc.recv_results.size())
        pthread_exit(nullptr);
    return fake_ipc.recv_results[call];
}

/* Takes the payload over, as the real one does. */
int ipc_send(uint64_t, ipc_msg_t *msg, int)
{
    FakeSent &sent = fake_ipc.sent.emplace_back();
    const uint8_t *bytes = static_cast<const uint8_t *>(msg->payload);

    sent.record = *msg;
    if (bytes != nullptr)
        sent.payload.assign(bytes, bytes + msg->payload_len);
    free(msg->payload);
    return fake_ipc.send_result;
}

void ipc_debug_msg(const ipc_msg_t *)
{
}
