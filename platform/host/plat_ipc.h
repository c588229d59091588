/* libplatipc: the platform IPC library on a host that is not the
 * appliance, with the operations the appliance's library offers servers and
 * a client side for tools and tests.
 *
 * Transport: a Unix domain stream socket per server at
 * IPC_SOCKET_DIR "/<app id>.sock". A message on the wire is the 32-byte
 * record below in host byte order, its payload and padding fields sent as
 * 0, followed at once by payload_len payload bytes; replies are framed the
 * same way.
 *
 * Results: every function returning int returns 0 on success and a
 * negative errno on failure. */
#ifndef PLAT_IPC_H
#define PLAT_IPC_H

#include <assert.h>
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define IPC_SOCK_SERVER 2

#define IPC_SOCKET_DIR "/run/orvel/ipc"
/* Besides root, this group may connect, when it exists. */
#define IPC_SOCKET_GROUP "orvel"

#define IPC_MSG_HEADER_SIZE 32
/* A larger payload_len closes the connection that announced it. */
#define IPC_MAX_PAYLOAD 65536u
/* A server connection whose unsent replies would exceed this (four of the
 * largest) is closed; so is one that would take all connections' unsent
 * replies together above a cap of the server's. */
#define IPC_MAX_PENDING_OUTPUT (4u * (IPC_MSG_HEADER_SIZE + IPC_MAX_PAYLOAD))
/* The longest a client waits for its socket to take a message. */
#define IPC_CLIENT_SEND_TIMEOUT_MS 5000

/* The message record (the daemon's plm_ipc_msg). */
typedef struct ipc_msg {
    uint32_t addr0;
    uint32_t addr1;
    uint32_t op_id;
    uint8_t aux_byte;
    uint8_t msg_type;
    uint16_t reserved;
    uint32_t payload_len;
    uint32_t padding;
    void *payload; /* heap bytes, or null when payload_len is 0 */
} ipc_msg_t;

/* No field needs padding before it, so the size pins the layout. */
static_assert(sizeof(ipc_msg_t) == IPC_MSG_HEADER_SIZE, "record is 32 bytes");

typedef void (*ipc_recv_cb)(void *unused, ipc_msg_t *msg);

/* Server side */

/* A new context for application app_id: an opaque non-zero handle, or 0
 * when it cannot be created (every other call then fails with -EINVAL). */
uint64_t ipc_ctx_init(uint32_t app_id);

/* Closes the context's connections and endpoint (its socket file is
 * removed) and frees it. No other call may be running on it. */
void ipc_ctx_destroy(uint64_t ctx);

/* Registers cb, run by ipc_recv with each received message (the first
 * argument is null). mode and flags are accepted and ignored. */
int ipc_ctx_init_proxy(uint64_t ctx, int mode, ipc_recv_cb cb, int flags);

/* Opens the server endpoint of app_id (type IPC_SOCK_SERVER, the only type;
 * flags ignored): creates IPC_SOCKET_DIR (0755) if missing, refuses it
 * (-EPERM) when another user owns it and makes it 0755 when others could
 * write it, replaces a stale socket file, never a live one (-EADDRINUSE),
 * and leaves the socket mode 0660, group IPC_SOCKET_GROUP when it exists.
 * No symbolic link in the directory is followed. One endpoint per context
 * (-EEXIST for a second). Connections are accepted up to what the
 * open-file limit leaves room for; beyond, clients wait to be accepted. */
int ipc_ctx_add_endpoint(uint64_t ctx, uint32_t app_id, int type, int flags);

/* Waits up to timeout_ms (-1: without limit) for one message from any
 * connection, fills msg and runs the registered callback with it before
 * returning. addr0 is the sending connection's id (non-zero, unique among
 * live connections), addr1 the endpoint's app id; msg->payload is heap
 * memory the caller frees (null when payload_len is 0). -ETIMEDOUT when
 * the time ran out; on any failure msg is all zero. */
int ipc_recv(uint64_t ctx, ipc_msg_t *msg, int timeout_ms);

/* Queues msg and its payload for the connection whose id is msg->addr1 and
 * writes what the socket takes without waiting; the rest goes out during
 * ipc_recv. Takes the payload over and frees it in every case. -ENOTCONN
 * when that connection is gone, -EPIPE or -ECONNRESET when its peer went
 * away (the connection is closed), -ENOBUFS when its unsent replies would
 * exceed IPC_MAX_PENDING_OUTPUT, or all connections' together the server's
 * cap (closed too), -EMSGSIZE above IPC_MAX_PAYLOAD. flags is ignored. */
int ipc_send(uint64_t ctx, ipc_msg_t *msg, int flags);

/* Prints the record's fields on one line of stderr. */
void ipc_debug_msg(const ipc_msg_t *msg);

/* Client side */

struct ipc_client;

/* The socket path of app_id's server into buf: -ENAMETOOLONG if it does
 * not fit. */
int ipc_socket_path(uint32_t app_id, char *buf, size_t size);

/* Connects to the server socket at socket_path. -ENOENT: no such socket
 * (server not running); -ECONNREFUSED: a socket file nobody serves;
 * -EACCES: not permitted; -ETIMEDOUT: the server's backlog stayed full. */
int ipc_client_open(const char *socket_path, struct ipc_client **out);

/* Sends msg and its payload (not taken over; addr0/addr1 are rewritten by
 * the server). Waits at most IPC_CLIENT_SEND_TIMEOUT_MS for the socket:
 * -ETIMEDOUT then, and the connection is no longer usable after any
 * failure. -EMSGSIZE above IPC_MAX_PAYLOAD, -EINVAL for a null payload
 * with a non-zero length. */
int ipc_client_send(struct ipc_client *c, const ipc_msg_t *msg);

/* Waits up to timeout_ms (-1: without limit) for one message and fills msg
 * (heap payload the caller frees, null when empty). -ETIMEDOUT when none
 * came in time (a partly received message is kept for the next call);
 * -ECONNRESET when the server closed the connection; -EMSGSIZE when it
 * announced a payload above IPC_MAX_PAYLOAD. */
int ipc_client_recv(struct ipc_client *c, ipc_msg_t *msg, int timeout_ms);

void ipc_client_close(struct ipc_client *c);

#ifdef __cplusplus
}
#endif

#endif
