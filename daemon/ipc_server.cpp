/* The IPC server. */
#include "ipc_server.hpp"

#include <inttypes.h>
#include <pthread.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include "dispatcher.hpp"
#include "plat_ipc.h"
#include "plat_notify.h"
#include "plm_log.hpp"
#include "thread_monitor.hpp"

namespace {

constexpr uint32_t error_payload_size = 12;
constexpr int wait_forever = -1;

constinit pthread_t ipc_thread = {};

/* Replies and error replies fail together when a client leaves without
 * reading; each kind has its own throttle. Only the IPC thread sends. */
constinit plm::LogThrottle reply_failures;
constinit plm::LogThrottle error_reply_failures;

int64_t monotonic_ms()
{
    struct timespec now {};

    clock_gettime(CLOCK_MONOTONIC, &now);
    return int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1000000;
}

/* `what` is the logged line's text after the tag, kept as shipped. */
void log_send_failure(plm::LogThrottle &throttle, const char *what,
                      int result)
{
    uint64_t unlogged = 0;

    if (!throttle.admit(monotonic_ms(), &unlogged))
        return;
    if (unlogged > 0)
        plm_log(LOG_ERR, "%s: %s - %" PRIu64 " send failures not logged "
                "since the last one", PLM_TAG(ERROR), what, unlogged);
    plm_log(LOG_ERR, "%s: %s - send failure %d", PLM_TAG(ERROR), what,
            result);
}

/* The reply's record: addresses swapped, the request's op id. Returns what
 * ipc_send returned. */
int send_record(const plm_ipc_msg *request, uint32_t op_id, void *payload,
                uint32_t length)
{
    plm_ipc_msg reply = {
        .addr0 = request->addr1,
        .addr1 = request->addr0,
        .op_id = op_id,
        .aux_byte = 1,
        .msg_type = PLM_IPC_MSG_REPLY,
        .reserved = 0,
        .payload_len = length,
        .padding = 0,
        .payload = payload,
    };

    return ipc_send(plm_ipc_context, &reply, 1);
}

} // namespace

constinit uint64_t plm_ipc_context = 0;

void plm_send_reply(const plm_ipc_msg *request, void *payload,
                    uint32_t length)
{
    const int result = send_record(request, request->op_id, payload, length);

    if (result != 0)
        log_send_failure(reply_failures, "PLM IPC request", result);
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
    /* The transport takes the payload whatever the result. */
    const int result =
        send_record(msg, PLM_IPC_OP_ERROR, payload, error_payload_size);
    if (result != 0)
        log_send_failure(error_reply_failures, "PLM send error message",
                         result);
}

bool plm_ipc_check_recv_length(plm_ipc_msg *msg, uint32_t expected_len)
{
    if (msg == NULL) {
        plm_log(LOG_ERR, "IPC check recv IPC length: %s",
                PLM_TAG(NULL_POINTER));
        return false;
    }
    if (msg->payload_len != expected_len) {
        plm_send_error_msg(msg, PLM_IPC_ERR_INVALID_LENGTH);
        return false;
    }
    if (msg->payload == NULL) {
        plm_send_error_msg(msg, PLM_IPC_ERR_NULL_PAYLOAD);
        return false;
    }
    return true;
}

void plm_ipc_server_callback(void *unused, plm_ipc_msg *msg)
{
    (void)unused;
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

namespace {

/* Receives forever; the callback runs inside ipc_recv. */
void serve_requests(void)
{
    for (;;) {
        plm_ipc_msg msg = {};
        const int result = ipc_recv(plm_ipc_context, &msg, wait_forever);

        if (result == 0) {
            const plm::Payload received(static_cast<uint8_t *>(msg.payload));
            continue;
        }
        plm_log(LOG_ERR, "Error during ipc_recv: %d", result);
        ipc_debug_msg(&msg);
    }
}

} // namespace

void *plm_ipc_server_thread(void *arg)
{
    (void)arg;
    pthread_setname_np(pthread_self(), "plm_ipc");
    plm_ipc_context = ipc_ctx_init(PLM_IPC_APP_ID);
    ipc_ctx_init_proxy(plm_ipc_context, 1, plm_ipc_server_callback, 0);
    if (ipc_ctx_add_endpoint(plm_ipc_context, PLM_IPC_APP_ID,
                             IPC_SOCK_SERVER, 1) < 0) {
        plm_log(LOG_ERR, "Error adding IPC_SOCK_SERVER endpoint");
        plm_log(LOG_CRIT, "Error initializing IPC for %s\n", PLM_LOG_IDENT);
        return NULL;
    }
    plat_notify_ready();
    serve_requests();
    return NULL;
}

int plm_ipc_server_init(void)
{
    if (pthread_create(&ipc_thread, NULL, plm_ipc_server_thread, NULL) != 0) {
        plm_log(LOG_CRIT, "%s: create IPC server thread failed",
                PLM_LOG_IDENT);
        return -1;
    }
    if (plm_thread_monitor_enqueue(&ipc_thread, "pellin IPC server") != 0)
        plm_log(LOG_CRIT, "%s: %s", "plm_ipc_server_init",
                PLM_TAG(MONITOR_ENQUEUE_FAILED));
    plm_log(LOG_DEBUG, "Pellin Manager IPC server thread started...");
    return 0;
}
