/* libplatipc on a host: the C interface over the transport of
 * ipc_transport.hpp, and the client side. */
#include "plat_ipc.h"

#include <inttypes.h>
#include <poll.h>
#include <stdio.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>

#include <algorithm>
#include <new>

#include "ipc_transport.hpp"
#include "plat_syslog.h"

using plat::ipc::Clock;
using plat::ipc::ms_until;
using plat::ipc::FrameReader;
using plat::ipc::Server;
using plat::ipc::UniqueFd;

struct ipc_client {
    UniqueFd fd;
    FrameReader in;
};

namespace plat::ipc
{

ssize_t read_some(int fd, void *buf, size_t len)
{
    for (;;) {
        ssize_t n = recv(fd, buf, len, MSG_DONTWAIT);

        if (n > 0)
            return n;
        if (n == 0)
            return -ECONNRESET;
        if (errno == EAGAIN || errno == EWOULDBLOCK)
            return 0;
        if (errno != EINTR)
            return -errno;
    }
}

} // namespace plat::ipc

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

int unix_address(const char *path, sockaddr_un *addr)
{
    size_t len = strlen(path);

    if (len >= sizeof(addr->sun_path))
        return -ENAMETOOLONG;
    *addr = sockaddr_un{};
    addr->sun_family = AF_UNIX;
    memcpy(addr->sun_path, path, len + 1);
    return 0;
}

/* A blocking socket connected to path whose sends wait at most
 * timeout_ms: the descriptor or a negative errno. */
int connect_unix(const char *path, int timeout_ms)
{
    timeval tv = {.tv_sec = timeout_ms / 1000,
                  .tv_usec = (timeout_ms % 1000) * 1000};
    sockaddr_un addr;
    int rc = unix_address(path, &addr);

    if (rc < 0)
        return rc;
    UniqueFd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!fd.valid())
        return -errno;
    if (setsockopt(fd.get(), SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof(tv)) != 0 ||
        connect(fd.get(), reinterpret_cast<sockaddr *>(&addr), sizeof(addr)) !=
            0)
        return -errno;
    return fd.release();
}

int send_all(int fd, const void *buf, size_t len)
{
    const auto *next = static_cast<const uint8_t *>(buf);

    while (len > 0) {
        ssize_t n = send(fd, next, len, MSG_NOSIGNAL);

        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0)
            return errno == EAGAIN || errno == EWOULDBLOCK ? -ETIMEDOUT
                                                           : -errno;
        next += n;
        len -= static_cast<size_t>(n);
    }
    return 0;
}

int wait_readable(int fd, int timeout_ms)
{
    pollfd p = {.fd = fd, .events = POLLIN, .revents = 0};

    for (;;) {
        int n = poll(&p, 1, timeout_ms);

        if (n > 0)
            return 0;
        if (n == 0)
            return -ETIMEDOUT;
        if (errno != EINTR)
            return -errno;
    }
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

    if (!s) {
        plat_syslog(LOG_ERR, "orvel-ipc", 0, "IPC context: out of memory");
        return 0;
    }
    if (!s->init()) {
        plat_syslog(LOG_ERR, "orvel-ipc", 0, "IPC context: no event fd");
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
    ipc_recv_cb callback;
    int rc;

    if (msg == nullptr)
        return -EINVAL;
    *msg = ipc_msg_t{};
    if (s == nullptr)
        return -EINVAL;
    {
        std::lock_guard hold(s->lock);
        rc = s->receive_locked(msg, timeout_ms);
        callback = s->callback;
    }
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
    plat::ipc::MallocBytes payload(static_cast<uint8_t *>(msg->payload));
    msg->payload = nullptr;
    if (s == nullptr)
        return -EINVAL;
    ipc_msg_t out = *msg;
    out.payload = payload.get();
    int rc = check_outgoing(&out);
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
    if (socket_path == nullptr || out == nullptr)
        return -EINVAL;
    *out = nullptr;
    int fd = connect_unix(socket_path, IPC_CLIENT_SEND_TIMEOUT_MS);
    if (fd < 0)
        return fd == -EAGAIN ? -ETIMEDOUT : fd;
    UniqueFd owned(fd);
    auto *c = new (std::nothrow) ipc_client;
    if (c == nullptr)
        return -ENOMEM;
    c->fd = std::move(owned);
    *out = c;
    return 0;
}

int ipc_client_send(ipc_client *c, const ipc_msg_t *msg)
{
    if (c == nullptr || msg == nullptr)
        return -EINVAL;
    int rc = check_outgoing(msg);
    if (rc < 0)
        return rc;
    plat::ipc::Header header = plat::ipc::encode_header(*msg);
    rc = send_all(c->fd.get(), header.data(), header.size());
    if (rc == 0 && msg->payload_len > 0)
        rc = send_all(c->fd.get(), msg->payload, msg->payload_len);
    return rc;
}

int ipc_client_recv(ipc_client *c, ipc_msg_t *msg, int timeout_ms)
{
    Clock::time_point deadline = plat::ipc::deadline_after(timeout_ms);

    if (c == nullptr || msg == nullptr)
        return -EINVAL;
    *msg = ipc_msg_t{};
    for (;;) {
        int rc = c->in.fill([c](void *buf, size_t len) {
            return plat::ipc::read_some(c->fd.get(), buf, len);
        });

        if (rc == 1) {
            c->in.take(msg);
            return 0;
        }
        if (rc == 0)
            rc = wait_readable(c->fd.get(), ms_until(deadline, Clock::now()));
        if (rc < 0)
            return rc;
    }
}

void ipc_client_close(ipc_client *c)
{
    delete c;
}
