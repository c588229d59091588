/* A server context: connections accepted up to the open-file limit, read
 * one whole message at a time, replies queued up to a cap, partial
 * messages closed after a deadline; all on one epoll set. */
#include <inttypes.h>
#include <malloc.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <syslog.h>

#include <algorithm>
#include <climits>
#include <new>

#include "ipc_transport.hpp"
#include "plat_syslog.h"

namespace plat::ipc
{

namespace
{

constexpr const char *kIdent = "orvel-ipc";
/* Descriptors left for the rest of the process (logs, dumps, the device)
 * when the open-file limit sets the number of connections. */
constexpr size_t kReservedFds = 64;
constexpr auto kAcceptRetry = std::chrono::milliseconds(100);
constexpr int kEventsPerPoll = 64;
/* Freed reply memory worth giving back to the system. */
constexpr size_t kTrimAfter = 1024 * 1024;
constexpr uint64_t kWakeKey = 1ull << 32;
constexpr uint64_t kListenKey = 2ull << 32;

size_t connections_allowed()
{
    rlimit lim;

    if (limits.connections != 0)
        return limits.connections;
    if (getrlimit(RLIMIT_NOFILE, &lim) != 0 || lim.rlim_cur == RLIM_INFINITY)
        return SIZE_MAX;
    return lim.rlim_cur > 2 * kReservedFds ? lim.rlim_cur - kReservedFds
                                           : kReservedFds;
}

int min_timeout(int a, int b)
{
    if (a < 0)
        return b;
    return b < 0 ? a : std::min(a, b);
}

int epoll_set(int epoll_fd, int op, int fd, uint32_t events, uint64_t key)
{
    epoll_event ev{};

    ev.events = events;
    ev.data.u64 = key;
    return epoll_ctl(epoll_fd, op, fd, &ev) == 0 ? 0 : -errno;
}

} // namespace

bool Server::init()
{
    wake_fd_.reset(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC));
    epoll_.reset(epoll_create1(EPOLL_CLOEXEC));
    return wake_fd_.valid() && epoll_.valid() &&
           epoll_set(epoll_.get(), EPOLL_CTL_ADD, wake_fd_.get(), EPOLLIN,
                     kWakeKey) == 0;
}

int Server::add_endpoint_locked(uint32_t app_id)
{
    if (endpoint_.listener.valid())
        return -EEXIST;
    int rc = open_endpoint(app_id, &endpoint_);
    if (rc < 0)
        return rc;
    rc = epoll_set(epoll_.get(), EPOLL_CTL_ADD, endpoint_.listener.get(),
                   EPOLLIN, kListenKey);
    if (rc < 0) {
        close_endpoint(&endpoint_);
        return rc;
    }
    max_conns_ = connections_allowed();
    accepting_ = true;
    return 0;
}

/* Connections */

/* Where a connection of this id is, or would go. */
Server::ConnSlot Server::slot(uint32_t id)
{
    return std::lower_bound(conns_.begin(), conns_.end(), id,
                            [](const std::unique_ptr<Conn> &c, uint32_t key) {
                                return c->id < key;
                            });
}

Conn *Server::find(uint32_t id)
{
    auto it = slot(id);
    return it != conns_.end() && (*it)->id == id ? it->get() : nullptr;
}

void Server::add_conn(UniqueFd fd)
{
    std::unique_ptr<Conn> conn(new (std::nothrow) Conn);

    if (!conn) {
        if (reports_.admit(Drop::no_memory_for_connection))
            plat_syslog(LOG_ERR, kIdent, 0,
                        "IPC connection refused: out of memory");
        return;
    }
    do
        last_id_++;
    while (last_id_ == 0 || find(last_id_) != nullptr);
    conn->id = last_id_;
    conn->fd = std::move(fd);
    if (epoll_set(epoll_.get(), EPOLL_CTL_ADD, conn->fd.get(), EPOLLIN,
                  conn->id) < 0)
        return;
    conn->polled = EPOLLIN;
    conns_.insert(slot(conn->id), std::move(conn));
}

void Server::close_conn(Conn *conn)
{
    pending_total_ -= conn->pending();
    freed_since_trim_ += conn->out_len;
    /* Its descriptor leaves the epoll set as it closes. */
    conns_.erase(slot(conn->id));
    if (!accepting_ && accept_resume_ == Clock::time_point::max() &&
        conns_.size() < max_conns_)
        set_accepting(true);
}

void Server::set_accepting(bool on)
{
    accepting_ = on;
    epoll_set(epoll_.get(), EPOLL_CTL_MOD, endpoint_.listener.get(),
              on ? static_cast<uint32_t>(EPOLLIN) : 0u, kListenKey);
}

/* At the limit, clients wait in the listen backlog until one closes. Out of
 * descriptors, accepting waits a little, or the listening socket, still
 * readable, would keep the loop spinning. */
void Server::accept_connections()
{
    while (conns_.size() < max_conns_) {
        UniqueFd fd(accept4(endpoint_.listener.get(), nullptr, nullptr,
                            SOCK_NONBLOCK | SOCK_CLOEXEC));
        char buf[64];

        if (fd.valid()) {
            add_conn(std::move(fd));
            continue;
        }
        if (errno == EINTR || errno == ECONNABORTED)
            continue;
        if (errno == EAGAIN || errno == EWOULDBLOCK)
            return;
        if (reports_.admit(Drop::accept_failed))
            plat_syslog(LOG_ERR, kIdent, 0, "IPC accept failed: %s",
                        strerror_r(errno, buf, sizeof(buf)));
        set_accepting(false);
        accept_resume_ = now() + kAcceptRetry;
        return;
    }
    set_accepting(false);
    if (reports_.admit(Drop::connection_limit))
        plat_syslog(LOG_WARNING, kIdent, 0,
                    "IPC connections at the limit of %zu: new clients wait "
                    "until one closes",
                    max_conns_);
}

/* Asks epoll for what the connection waits for now. */
void Server::watch(Conn &conn)
{
    uint32_t events =
        (conn.peer_done ? 0u : static_cast<uint32_t>(EPOLLIN)) |
        (conn.pending() > 0 ? static_cast<uint32_t>(EPOLLOUT) : 0u);

    if (events != conn.polled && epoll_set(epoll_.get(), EPOLL_CTL_MOD,
                                           conn.fd.get(), events, conn.id) == 0)
        conn.polled = events;
}

/* Sending */

/* Writes queued bytes until the socket takes no more: 0 or a negative
 * errno (the peer is gone). A drained queue gives its memory back. */
int Server::flush(Conn &conn)
{
    while (conn.pending() > 0) {
        ssize_t n = send(conn.fd.get(), conn.out.get() + conn.out_sent,
                         conn.pending(), MSG_NOSIGNAL | MSG_DONTWAIT);

        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0)
            return errno == EAGAIN || errno == EWOULDBLOCK ? 0 : -errno;
        conn.out_sent += static_cast<size_t>(n);
        pending_total_ -= static_cast<size_t>(n);
    }
    freed_since_trim_ += conn.out_len;
    conn.out.reset();
    conn.out_len = conn.out_sent = 0;
    return 0;
}

/* Queues what the socket did not take of the frame (sent bytes of it went
 * out already): 0, -ENOBUFS over a cap, or -ENOMEM with nothing queued. */
int Server::queue(Conn &conn, const ipc_msg_t &msg, size_t sent)
{
    Header header = encode_header(msg);
    size_t rest = header.size() + msg.payload_len - sent;

    if (conn.pending() + rest > IPC_MAX_PENDING_OUTPUT) {
        if (reports_.admit(Drop::unread_replies))
            plat_syslog(LOG_WARNING, kIdent, 0,
                        "IPC connection closed: more than %u bytes of "
                        "replies unread",
                        IPC_MAX_PENDING_OUTPUT);
        return -ENOBUFS;
    }
    if (pending_total_ + rest > limits.pending_output_total) {
        if (reports_.admit(Drop::unread_replies_total))
            plat_syslog(LOG_WARNING, kIdent, 0,
                        "IPC connection closed: more than %zu bytes of "
                        "replies unread by all clients together",
                        limits.pending_output_total);
        return -ENOBUFS;
    }
    size_t kept = conn.pending();
    if (conn.out_sent > 0) {
        memmove(conn.out.get(), conn.out.get() + conn.out_sent, kept);
        conn.out_sent = 0;
        conn.out_len = kept;
    }
    auto *grown = static_cast<uint8_t *>(realloc(conn.out.get(), kept + rest));
    if (grown == nullptr)
        return -ENOMEM;
    (void)conn.out.release();
    conn.out.reset(grown);
    conn.out_len = kept + rest;
    for (size_t i = sent; i < header.size(); i++)
        grown[kept++] = header[i];
    size_t from = sent > header.size() ? sent - header.size() : 0;
    memcpy(grown + kept, static_cast<const uint8_t *>(msg.payload) + from,
           msg.payload_len - from);
    pending_total_ += rest;
    return 0;
}

/* With nothing queued, the frame goes straight to the socket; what it
 * does not take waits for the loop. */
int Server::send_locked(const ipc_msg_t &msg)
{
    Conn *conn = find(msg.addr1);
    ssize_t sent = 0;

    if (conn == nullptr)
        return -ENOTCONN;
    if (conn->pending() == 0) {
        Header header = encode_header(msg);
        iovec iov[2] = {{header.data(), header.size()},
                        {msg.payload, msg.payload_len}};
        msghdr mh{};

        mh.msg_iov = iov;
        mh.msg_iovlen = msg.payload_len > 0 ? 2 : 1;
        do
            sent = sendmsg(conn->fd.get(), &mh, MSG_NOSIGNAL | MSG_DONTWAIT);
        while (sent < 0 && errno == EINTR);
        if (sent < 0 && errno != EAGAIN && errno != EWOULDBLOCK) {
            int rc = -errno;

            close_conn(conn);
            return rc;
        }
        sent = std::max<ssize_t>(sent, 0);
        if (static_cast<size_t>(sent) == header.size() + msg.payload_len)
            return 0;
    }
    int rc = queue(*conn, msg, static_cast<size_t>(sent));
    if (rc == -ENOMEM && sent == 0)
        return rc; /* nothing went out: the stream is still in step */
    if (rc < 0)
        close_conn(conn);
    else
        watch(*conn);
    wake();
    return rc;
}

void Server::wake()
{
    uint64_t one = 1;

    if (pollers_ > 0 && write(wake_fd_.get(), &one, sizeof(one)) < 0) {
        /* Only fails when wakes are already pending. */
    }
}

void Server::drain_wakes()
{
    uint64_t count;

    if (read(wake_fd_.get(), &count, sizeof(count)) < 0) {
        /* Nothing pending: another poller drained it. */
    }
}

/* Receiving */

int Server::read_frame(Conn &conn)
{
    int rc = conn.in.fill([&conn](void *buf, size_t len) {
        return read_some(conn.fd.get(), buf, len);
    });
    if (rc == 1) {
        conn.frame_ready = true;
        conn.partial = false;
        ready_.push_back(conn.id);
        return 0;
    }
    if (rc == 0) {
        if (conn.in.started() && !conn.partial) {
            conn.partial = true;
            conn.partial_since = now();
            next_expiry_ = std::min(next_expiry_, conn.partial_since +
                                                      limits.partial_message);
        }
        return 0;
    }
    /* A peer that shut its side after whole requests still gets the
     * replies already queued. */
    if (rc == -ECONNRESET && !conn.in.started() && conn.pending() > 0) {
        conn.peer_done = true;
        return 0;
    }
    if (rc == -EMSGSIZE && reports_.admit(Drop::payload_too_long))
        plat_syslog(LOG_WARNING, kIdent, 0,
                    "IPC connection closed: payload length %" PRIu32
                    " above %u",
                    conn.in.length(), IPC_MAX_PAYLOAD);
    if (rc == -ENOMEM && reports_.admit(Drop::no_memory_for_payload))
        plat_syslog(LOG_ERR, kIdent, 0,
                    "IPC connection closed: no memory for %" PRIu32
                    " payload bytes",
                    conn.in.length());
    return rc;
}

void Server::service(Conn &conn, uint32_t events)
{
    int rc = 0;

    if (conn.pending() > 0 && (events & (EPOLLOUT | EPOLLERR | EPOLLHUP)))
        rc = flush(conn);
    if (rc == 0 && !conn.peer_done && !conn.frame_ready &&
        (events & (EPOLLIN | EPOLLERR | EPOLLHUP)))
        rc = read_frame(conn);
    if (rc < 0 || (conn.peer_done && conn.pending() == 0))
        close_conn(&conn);
    else
        watch(conn);
}

/* A connection that has held part of a message for the whole deadline is
 * closed: its slot and memory go to clients that finish their messages. */
void Server::expire_partial_messages()
{
    Clock::time_point t = now();
    std::vector<Conn *> expired;

    if (t < next_expiry_)
        return;
    next_expiry_ = Clock::time_point::max();
    for (const auto &c : conns_) {
        if (!c->partial)
            continue;
        Clock::time_point deadline = c->partial_since + limits.partial_message;
        if (t >= deadline)
            expired.push_back(c.get());
        else
            next_expiry_ = std::min(next_expiry_, deadline);
    }
    for (Conn *c : expired) {
        if (reports_.admit(Drop::partial_message))
            plat_syslog(LOG_WARNING, kIdent, 0,
                        "IPC connection closed: part of a message held for "
                        "%lld s",
                        static_cast<long long>(
                            std::chrono::duration_cast<std::chrono::seconds>(
                                limits.partial_message)
                                .count()));
        close_conn(c);
    }
}

/* After each poll: deadlines, reports, accepting again, memory back. */
void Server::tidy_up()
{
    expire_partial_messages();
    reports_.flush();
    if (accept_resume_ != Clock::time_point::max() && now() >= accept_resume_) {
        accept_resume_ = Clock::time_point::max();
        set_accepting(true);
    }
    if (freed_since_trim_ >= kTrimAfter && pending_total_ == 0) {
        malloc_trim(0);
        freed_since_trim_ = 0;
    }
}

int Server::poll_timeout(int left_ms) const
{
    int ms = min_timeout(left_ms, ms_until(next_expiry_, now()));

    ms = min_timeout(ms, ms_until(reports_.next_flush(), now()));
    return min_timeout(ms, ms_until(accept_resume_, now()));
}

/* Drops the lock while waiting. Another thread's ipc_send may close a
 * connection meanwhile, so each event finds its connection again by id. */
int Server::poll_once(int left_ms)
{
    epoll_event events[kEventsPerPoll];
    int timeout_ms = poll_timeout(left_ms);

    pollers_++;
    lock.unlock();
    int n = epoll_wait(epoll_.get(), events, kEventsPerPoll, timeout_ms);
    int err = errno;
    lock.lock();
    pollers_--;
    if (n < 0)
        return err == EINTR ? 0 : -err;
    for (int i = 0; i < n; i++) {
        uint64_t key = events[i].data.u64;

        if (key == kWakeKey)
            drain_wakes();
        else if (key == kListenKey)
            accept_connections();
        else if (Conn *conn = find(static_cast<uint32_t>(key)))
            service(*conn, events[i].events);
    }
    tidy_up();
    return 0;
}

/* Messages are taken in the order they came in, one per connection at a
 * time, so no client can starve the others. */
bool Server::take_ready(ipc_msg_t *msg)
{
    while (ready_head_ < ready_.size()) {
        Conn *conn = find(ready_[ready_head_++]);

        if (conn == nullptr || !conn->frame_ready)
            continue;
        conn->in.take(msg);
        conn->frame_ready = false;
        msg->addr0 = conn->id;
        msg->addr1 = endpoint_.app_id;
        return true;
    }
    ready_.clear();
    ready_head_ = 0;
    return false;
}

int Server::receive_locked(ipc_msg_t *msg, int timeout_ms)
{
    /* The caller's time is real time, whatever clock deadlines use. */
    Clock::time_point deadline = deadline_after(timeout_ms);
    bool polled = false;

    if (!endpoint_.listener.valid())
        return -ENOTCONN;
    for (;;) {
        if (take_ready(msg))
            return 0;
        int left = ms_until(deadline, Clock::now());
        if (polled && left == 0)
            return -ETIMEDOUT;
        int rc = poll_once(left);
        if (rc < 0)
            return rc;
        polled = true;
    }
}

} // namespace plat::ipc
