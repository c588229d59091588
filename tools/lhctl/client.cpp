/* The client side of the daemon's socket: one
 * connection per run, one request at a time, each answered within the
 * timeout or not at all. Failures are reported here, once. */
#include <errno.h>
#include <inttypes.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "ipc_msg.hpp"
#include "lhctl.hpp"
#include "plat_ipc.h"

static int connect_failed(const char *path, int rc)
{
    switch (rc) {
    case -ENOENT:
        fprintf(stderr, "lhctl: daemon not running: no socket at %s\n", path);
        break;
    case -ECONNREFUSED:
        fprintf(stderr, "lhctl: daemon not running: nothing serves %s\n", path);
        break;
    case -EACCES:
    case -EPERM:
        fprintf(stderr, "lhctl: permission denied: %s\n", path);
        break;
    default:
        fprintf(stderr, "lhctl: cannot connect to %s: %s\n", path,
                strerror(-rc));
    }
    return LHCTL_EXIT_UNREACHABLE;
}

static int transfer_failed(const struct lhctl *ctl, int rc)
{
    if (rc == -ETIMEDOUT)
        fprintf(stderr, "lhctl: no answer from the daemon within %g s\n",
                ctl->timeout_ms / 1000.0);
    else if (rc == -ECONNRESET || rc == -EPIPE)
        fprintf(stderr, "lhctl: the daemon closed the connection\n");
    else
        fprintf(stderr, "lhctl: talking to the daemon failed: %s\n",
                strerror(-rc));
    return LHCTL_EXIT_UNREACHABLE;
}

int lhctl_malformed(uint32_t op, const char *what)
{
    fprintf(stderr, "lhctl: malformed reply to op 0x%06" PRIx32 ": %s\n", op,
            what);
    return LHCTL_EXIT_REFUSED;
}

int lhctl_out_of_memory(void)
{
    fprintf(stderr, "lhctl: out of memory\n");
    return LHCTL_EXIT_REFUSED;
}

static int connect_once(struct lhctl *ctl)
{
    int rc;

    if (ctl->client != NULL)
        return LHCTL_EXIT_OK;
    rc = ipc_client_open(ctl->socket_path, &ctl->client);
    return rc == 0 ? LHCTL_EXIT_OK : connect_failed(ctl->socket_path, rc);
}

/* An error reply prints its code's text. */
static int error_reply(uint32_t op, const ipc_msg_t *msg)
{
    const uint8_t *payload = static_cast<const uint8_t *>(msg->payload);

    if (msg->payload_len != 12)
        return lhctl_malformed(op, "error reply of the wrong length");
    fprintf(stderr, "lhctl: %s\n", plm_ipc_error_str(lhctl_get32(payload + 8)));
    return LHCTL_EXIT_REFUSED;
}

static int check_reply(uint32_t op, const ipc_msg_t *msg)
{
    if (msg->msg_type != PLM_IPC_MSG_REPLY)
        return lhctl_malformed(op, "not a reply");
    if (msg->op_id == PLM_IPC_OP_ERROR)
        return error_reply(op, msg);
    if (msg->op_id != op)
        return lhctl_malformed(op, "reply to another operation");
    return LHCTL_EXIT_OK;
}

int lhctl_request(struct lhctl *ctl, uint32_t op, const void *payload,
                  uint32_t length, struct lhctl_reply *reply)
{
    ipc_msg_t request = {};

    request.op_id = op;
    request.msg_type = PLM_IPC_MSG_REQUEST;
    request.payload_len = length;
    request.payload = const_cast<void *>(payload);
    ipc_msg_t msg;
    int rc = connect_once(ctl);

    *reply = lhctl_reply{};
    if (rc != LHCTL_EXIT_OK)
        return rc;
    rc = ipc_client_send(ctl->client, &request);
    if (rc == 0)
        rc = ipc_client_recv(ctl->client, &msg, ctl->timeout_ms);
    if (rc < 0)
        return transfer_failed(ctl, rc);
    rc = check_reply(op, &msg);
    if (rc != LHCTL_EXIT_OK) {
        free(msg.payload);
        return rc;
    }
    reply->payload = static_cast<uint8_t *>(msg.payload);
    reply->length = msg.payload_len;
    return LHCTL_EXIT_OK;
}

int lhctl_request_fixed(struct lhctl *ctl, uint32_t op, const void *payload,
                        uint32_t length, void *reply, uint32_t reply_length)
{
    struct lhctl_reply got;
    int rc = lhctl_request(ctl, op, payload, length, &got);

    if (rc != LHCTL_EXIT_OK)
        return rc;
    if (got.length != reply_length)
        rc = lhctl_malformed(op, "unexpected length");
    else
        memcpy(reply, got.payload, reply_length);
    free(got.payload);
    return rc;
}

void lhctl_disconnect(struct lhctl *ctl)
{
    ipc_client_close(ctl->client);
    ctl->client = NULL;
}
