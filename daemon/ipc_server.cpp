#include "ipc_server.hpp"

#include <inttypes.h>
#include <pthread.h>
#include <stdlib.h>

#include <chrono>

#include "dispatcher.hpp"
#include "plat_notify.h"
#include "plm_log.hpp"
#include "thread_monitor.hpp"

constinit uint64_t plm_ipc_context = 0;

namespace
{

constexpr uint32_t error_payload_size = 12;
constexpr int wait_forever = -1;

constinit pthread_t ipc_thread = {};

/* Replies and error replies fail together when a client leaves without
 * reading; each kind has its own throttle. Only the IPC thread sends. */
constinit plm::LogThrottle reply_failures;
constinit plm::LogThrottle error_reply_failures;

int64_t monotonic_ms()
{
    using namespace std::chrono;

    return duration_cast<milliseconds>(steady_clock::now().time_since_epoch())
        .count();
}

/* Sends the reply's record: addresses swapped, `op_id`. The transport takes
 * the payload whatever the result. A failure is logged as `what`, the
 * line's text after the tag, kept as shipped. */
void send_record(const plm_ipc_msg *request, uint32_t op_id, void *payload,
                 uint32_t length, plm::LogThrottle &throttle, const char *what)
{
    plm_ipc_msg reply = {.addr0 = request->addr1,
                         .addr1 = request->addr0,
                         .op_id = op_id,
                         .aux_byte = 1,
                         .msg_type = PLM_IPC_MSG_REPLY,
                         .reserved = 0,
                         .payload_len = length,
                         .padding = 0,
                         .payload = payload};
    const int result = ipc_send(plm_ipc_context, &reply, 1);
    uint64_t unlogged = 0;
    if (result == 0 || !throttle.admit(monotonic_ms(), &unlogged))
        return;
    if (unlogged > 0)
        plm_log(LOG_ERR,
                "%s: %s - %" PRIu64 " send failures not logged "
                "since the last one",
                PLM_TAG(ERROR), what, unlogged);
    plm_log(LOG_ERR, "%s: %s - send failure %d", PLM_TAG(ERROR), what, result);
}

} // namespace

void plm_send_reply(const plm_ipc_msg *request, void *payload, uint32_t length)
{
    send_record(request, request->op_id, payload, length, reply_failures,
                "PLM IPC request");
}

void plm_send_error_msg(plm_ipc_msg *msg, uint32_t code)
{
    if (msg == NULL) {
        plm_log(LOG_ERR, "PLM send error message: %s", PLM_TAG(NULL_POINTER));
        return;
    }
    auto *payload = static_cast<uint32_t *>(calloc(1, error_payload_size));
    if (payload == NULL) {
        plm_log(LOG_ERR, "%s: PLM send error message", PLM_TAG(NO_MEMORY));
        return;
    }
    payload[0] = msg->op_id;
    payload[1] = msg->payload_len;
    payload[2] = code;
    send_record(msg, PLM_IPC_OP_ERROR, payload, error_payload_size,
                error_reply_failures, "PLM send error message");
}

bool plm_ipc_check_recv_length(plm_ipc_msg *msg, uint32_t expected_len)
{
    if (msg == NULL) {
        plm_log(LOG_ERR, "IPC check recv IPC length: %s",
                PLM_TAG(NULL_POINTER));
        return false;
    }
    if (msg->payload_len != expected_len)
        plm_send_error_msg(msg, PLM_IPC_ERR_INVALID_LENGTH);
    else if (msg->payload == NULL)
        plm_send_error_msg(msg, PLM_IPC_ERR_NULL_PAYLOAD);
    else
        return true;
    return false;
}

void plm_ipc_server_callback(void *, plm_ipc_msg *msg)
{
    if (msg == NULL) {
        plm_log(LOG_ERR, "IPC Server Callback: %s", PLM_TAG(NULL_POINTER));
        return;
    }
    if (msg->msg_type != PLM_IPC_MSG_REQUEST) {
        plm_log(LOG_ERR, "%s: IPC Server Callback - unsupported msg type %d",
                PLM_TAG(ERROR), msg->msg_type);
        return;
    }
    plm_process_ipc_msg(msg);
}

/* Receives forever once the endpoint is open; the callback runs inside
 * ipc_recv and the received payload is freed here. */
void *plm_ipc_server_thread(void *)
{
    pthread_setname_np(pthread_self(), "plm_ipc");
    plm_ipc_context = ipc_ctx_init(PLM_IPC_APP_ID);
    ipc_ctx_init_proxy(plm_ipc_context, 1, plm_ipc_server_callback, 0);
    if (ipc_ctx_add_endpoint(plm_ipc_context, PLM_IPC_APP_ID, IPC_SOCK_SERVER,
                             1) < 0) {
        plm_log(LOG_ERR, "Error adding IPC_SOCK_SERVER endpoint");
        plm_log(LOG_CRIT, "Error initializing IPC for %s\n", PLM_LOG_IDENT);
        return NULL;
    }
    plat_notify_ready();
    for (;;) {
        plm_ipc_msg msg = {};
        const int result = ipc_recv(plm_ipc_context, &msg, wait_forever);
        const plm::Payload received(static_cast<uint8_t *>(msg.payload));

        if (result != 0) {
            plm_log(LOG_ERR, "Error during ipc_recv: %d", result);
            ipc_debug_msg(&msg);
        }
    }
}

int plm_ipc_server_init(void)
{
    return plm_start_monitored_thread(&ipc_thread, plm_ipc_server_thread,
                                      "IPC server", "pellin IPC server",
                                      __func__);
}
