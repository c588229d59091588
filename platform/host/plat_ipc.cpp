/* libplatipc on a host: the C interface over the transport of
 * ipc_transport.hpp, and the client side. */
#include "plat_ipc.h"

#include <inttypes.h>
#include <poll.h>
#include <stdio.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>

#include <new>

#include "ipc_transport.hpp"
#include "plat_syslog.h"

using namespace plat::ipc;

struct ipc_client {
    UniqueFd fd;
    FrameReader in;
};

ssize_t plat::ipc::read_some(int fd, void *buf, size_t len)
{
    ssize_t n = TEMP_FAILURE_RETRY(recv(fd, buf, len, MSG_DONTWAIT));

    if (n >= 0)
        return n > 0 ? n : -ECONNRESET;
    return errno == EAGAIN || errno == EWOULDBLOCK ? 0 : -errno;
}

namespace
{

Server *server_of(uint64_t handle)
{
    return reinterpret_cast<Server *>(static_cast<uintptr_t>(handle));
}

int check_outgoing(const ipc_msg_t *msg)
{
    if (msg->payload_len > IPC_MAX_PAYLOAD)
        return -EMSGSIZE;
    if (msg->payload_len > 0 && msg->payload == nullptr)
        return -EINVAL;
    return 0;
}

int send_all(int fd, const void *buf, size_t len)
{
    const auto *bytes = static_cast<const uint8_t *>(buf);

    for (size_t sent = 0; sent < len;) {
        ssize_t n = TEMP_FAILURE_RETRY(
            send(fd, bytes + sent, len - sent, MSG_NOSIGNAL));

        if (n < 0)
            return errno == EAGAIN || errno == EWOULDBLOCK ? -ETIMEDOUT
                                                           : -errno;
        sent += static_cast<size_t>(n);
    }
    return 0;
}

} // namespace

int ipc_socket_path(uint32_t app_id, char *buf, size_t size)
{
    if (buf == nullptr)
        return -EINVAL;
    int n = snprintf(buf, size, IPC_SOCKET_DIR "/%" PRIu32 ".sock", app_id);
    return n < 0 || static_cast<size_t>(n) >= size ? -ENAMETOOLONG : 0;
}

/* Server context */

/* The endpoint's app id is the one that counts (ipc_ctx_add_endpoint). */
uint64_t ipc_ctx_init(uint32_t)
{
    std::unique_ptr<Server> s(new (std::nothrow) Server);

    if (!s || !s->init()) {
        plat_syslog(LOG_ERR, "orvel-ipc", 0,
                    s ? "IPC context: no event fd"
                      : "IPC context: out of memory");
        return 0;
    }
    return static_cast<uint64_t>(reinterpret_cast<uintptr_t>(s.release()));
}

void ipc_ctx_destroy(uint64_t handle)
{
    delete server_of(handle);
}

int ipc_ctx_init_proxy(uint64_t handle, int, ipc_recv_cb cb, int)
{
    Server *s = server_of(handle);

    if (s == nullptr)
        return -EINVAL;
    std::lock_guard hold(s->lock);
    s->callback = cb;
    return 0;
}

int ipc_ctx_add_endpoint(uint64_t handle, uint32_t app_id, int type, int)
{
    Server *s = server_of(handle);

    if (s == nullptr || type != IPC_SOCK_SERVER)
        return -EINVAL;
    std::lock_guard hold(s->lock);
    return s->add_endpoint_locked(app_id);
}

int ipc_recv(uint64_t handle, ipc_msg_t *msg, int timeout_ms)
{
    Server *s = server_of(handle);

    if (msg == nullptr)
        return -EINVAL;
    *msg = ipc_msg_t{};
    if (s == nullptr)
        return -EINVAL;
    std::unique_lock hold(s->lock);
    int rc = s->receive_locked(msg, timeout_ms);
    ipc_recv_cb callback = s->callback;
    hold.unlock();
    /* Unlocked: the callback answers through ipc_send. */
    if (rc == 0 && callback != nullptr)
        callback(nullptr, msg);
    return rc;
}

int ipc_send(uint64_t handle, ipc_msg_t *msg, int)
{
    Server *s = server_of(handle);

    if (msg == nullptr)
        return -EINVAL;
    MallocBytes payload(
        static_cast<uint8_t *>(std::exchange(msg->payload, nullptr)));
    ipc_msg_t out = *msg;
    out.payload = payload.get();
    int rc = s == nullptr ? -EINVAL : check_outgoing(&out);
    if (rc < 0)
        return rc;
    std::lock_guard hold(s->lock);
    return s->send_locked(out);
}

void ipc_debug_msg(const ipc_msg_t *msg)
{
    if (msg == nullptr) {
        fprintf(stderr, "ipc msg: null\n");
        return;
    }
    fprintf(stderr,
            "ipc msg: addr0 0x%08" PRIx32 " addr1 0x%08" PRIx32
            " op_id 0x%08" PRIx32 " aux_byte %u msg_type %u reserved %u"
            " payload_len %" PRIu32 " payload %p\n",
            msg->addr0, msg->addr1, msg->op_id, msg->aux_byte, msg->msg_type,
            msg->reserved, msg->payload_len, msg->payload);
}

/* Client side */

int ipc_client_open(const char *socket_path, ipc_client **out)
{
    constexpr int kMs = IPC_CLIENT_SEND_TIMEOUT_MS;
    timeval tv = {.tv_sec = kMs / 1000, .tv_usec = (kMs % 1000) * 1000};
    sockaddr_un addr = {.sun_family = AF_UNIX, .sun_path = {}};

    if (socket_path == nullptr || out == nullptr)
        return -EINVAL;
    *out = nullptr;
    if (strlen(socket_path) >= sizeof(addr.sun_path))
        return -ENAMETOOLONG;
    memcpy(addr.sun_path, socket_path, strlen(socket_path));
    /* Blocking, but its sends wait at most IPC_CLIENT_SEND_TIMEOUT_MS. */
    UniqueFd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!fd.valid() ||
        setsockopt(fd.get(), SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof(tv)) != 0 ||
        connect(fd.get(), reinterpret_cast<sockaddr *>(&addr), sizeof(addr)) !=
            0)
        return errno == EAGAIN ? -ETIMEDOUT : -errno;
    *out = new (std::nothrow) ipc_client{std::move(fd), {}};
    return *out != nullptr ? 0 : -ENOMEM;
}

int ipc_client_send(ipc_client *c, const ipc_msg_t *msg)
{
    if (c == nullptr || msg == nullptr)
        return -EINVAL;
    int rc = check_outgoing(msg);
    if (rc < 0)
        return rc;
    Header header = encode_header(*msg);
    rc = send_all(c->fd.get(), header.data(), header.size());
    if (rc == 0 && msg->payload_len > 0)
        rc = send_all(c->fd.get(), msg->payload, msg->payload_len);
    return rc;
}

int ipc_client_recv(ipc_client *c, ipc_msg_t *msg, int timeout_ms)
{
    Clock::time_point deadline = deadline_after(timeout_ms);

    if (c == nullptr || msg == nullptr)
        return -EINVAL;
    *msg = ipc_msg_t{};
    for (;;) {
        pollfd p = {.fd = c->fd.get(), .events = POLLIN, .revents = 0};
        int rc = c->in.fill([c](void *buf, size_t len) {
            return read_some(c->fd.get(), buf, len);
        });

        if (rc == 1) {
            c->in.take(msg);
            return 0;
        }
        if (rc < 0)
            return rc;
        int n =
            TEMP_FAILURE_RETRY(poll(&p, 1, ms_until(deadline, Clock::now())));
        if (n <= 0)
            return n < 0 ? -errno : -ETIMEDOUT;
    }
}

void ipc_client_close(ipc_client *c)
{
    delete c;
}
