/* A server context: connections accepted up to the open-file limit, read
 * one whole message at a time, replies queued up to a cap, partial messages
 * closed after a deadline, all on one epoll set; refusals and drops logged
 * at most once per interval and kind, with a count of what happened since. */
#include <inttypes.h>
#include <stdarg.h>
#include <stdio.h>
#include <malloc.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <syslog.h>

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
constexpr auto kNever = Clock::time_point::max();

struct DropText {
    int severity;
    const char *what; /* "<what>: N since the last report" */
};

constexpr std::array<DropText, static_cast<size_t>(Drop::count)> kDropTexts = {{
    {LOG_ERR, "IPC connections refused for lack of memory"},
    {LOG_ERR, "IPC accepts failed"},
    {LOG_WARNING, "IPC connection limit reached, new clients waited"},
    {LOG_WARNING, "IPC connections closed for a payload length above 65536"},
    {LOG_ERR, "IPC connections closed for lack of payload memory"},
    {LOG_WARNING, "IPC connections closed for replies left unread"},
    {LOG_WARNING,
     "IPC connections closed for replies left unread by all clients together"},
    {LOG_WARNING, "IPC connections closed for holding a partial message"},
}};

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

int epoll_set(int epoll_fd, int op, int fd, uint32_t events, uint64_t key)
{
    epoll_event ev{.events = events, .data = {.u64 = key}};
    return epoll_ctl(epoll_fd, op, fd, &ev) == 0 ? 0 : -errno;
}

} // namespace

constinit Limits limits;

Clock::time_point now()
{
    return limits.now != nullptr ? limits.now() : Clock::now();
}

void Server::report(Drop kind, const char *format, ...)
{
    DropCount &k = drops_[static_cast<size_t>(kind)];
    Clock::time_point t = now();
    char text[256];
    va_list args;
    if (t < k.quiet_until || k.unreported > 0) {
        k.unreported++;
        return;
    }
    k.quiet_until = t + limits.report_interval;
    va_start(args, format);
    vsnprintf(text, sizeof(text), format, args);
    va_end(args);
    plat_syslog(kDropTexts[static_cast<size_t>(kind)].severity, kIdent, 0, "%s",
                text);
}

void Server::flush_reports()
{
    Clock::time_point t = now();
    for (size_t i = 0; i < drops_.size(); i++) {
        DropCount &k = drops_[i];
        if (k.unreported == 0 || t < k.quiet_until)
            continue;
        plat_syslog(kDropTexts[i].severity, kIdent, 0,
                    "%s: %" PRIu64 " since the last report", kDropTexts[i].what,
                    k.unreported);
        k.unreported = 0;
        k.quiet_until = t + limits.report_interval;
    }
}

Clock::time_point Server::next_report() const
{
    Clock::time_point next = kNever;
    for (const DropCount &k : drops_)
        if (k.unreported > 0)
            next = std::min(next, k.quiet_until);
    return next;
}

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
    return 0;
}

Conn *Server::find(uint32_t id)
{
    auto it = conns_.find(id);
    return it != conns_.end() ? it->second.get() : nullptr;
}

void Server::add_conn(UniqueFd fd)
{
    std::unique_ptr<Conn> conn(new (std::nothrow) Conn);
    if (!conn) {
        report(Drop::no_memory_for_connection,
               "IPC connection refused: out of memory");
        return;
    }
    do
        last_id_++;
    while (last_id_ == 0 || conns_.contains(last_id_));
    conn->id = last_id_;
    conn->fd = std::move(fd);
    conn->polled = EPOLLIN;
    if (epoll_set(epoll_.get(), EPOLL_CTL_ADD, conn->fd.get(), EPOLLIN,
                  last_id_) == 0)
        conns_.emplace(last_id_, std::move(conn));
}

void Server::close_conn(Conn *conn)
{
    uint32_t id = conn->id;
    pending_total_ -= conn->pending();
    freed_since_trim_ += conn->out_len;
    /* Its descriptor leaves the epoll set as it closes. */
    conns_.erase(id);
    /* Accepting stops only at the limit or after a failed accept. */
    if (accept_resume_ == kNever && conns_.size() + 1 == max_conns_)
        set_accepting(true);
}

void Server::set_accepting(bool on)
{
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
        report(Drop::accept_failed, "IPC accept failed: %s",
               strerror_r(errno, buf, sizeof(buf)));
        set_accepting(false);
        accept_resume_ = now() + kAcceptRetry;
        return;
    }
    set_accepting(false);
    report(Drop::connection_limit,
           "IPC connections at the limit of %zu: new clients wait until one "
           "closes",
           max_conns_);
}

void Server::watch(Conn &conn)
{
    uint32_t events =
        (conn.peer_done ? 0u : static_cast<uint32_t>(EPOLLIN)) |
        (conn.pending() > 0 ? static_cast<uint32_t>(EPOLLOUT) : 0u);
    if (events != conn.polled && epoll_set(epoll_.get(), EPOLL_CTL_MOD,
                                           conn.fd.get(), events, conn.id) == 0)
        conn.polled = events;
}

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
    size_t kept = conn.pending();
    if (kept + rest > IPC_MAX_PENDING_OUTPUT) {
        report(Drop::unread_replies,
               "IPC connection closed: more than %u bytes of replies unread",
               IPC_MAX_PENDING_OUTPUT);
        return -ENOBUFS;
    }
    if (pending_total_ + rest > limits.pending_output_total) {
        report(Drop::unread_replies_total,
               "IPC connection closed: more than %zu bytes of replies unread "
               "by all clients together",
               limits.pending_output_total);
        return -ENOBUFS;
    }
    if (conn.out_sent > 0) {
        memmove(conn.out.get(), conn.out.get() + conn.out_sent, kept);
        conn.out_sent = 0;
        conn.out_len = kept;
    }
    if (!grow(conn.out, kept + rest))
        return -ENOMEM;
    conn.out_len = kept + rest;
    for (size_t i = sent; i < header.size(); i++)
        conn.out[kept++] = header[i];
    size_t from = sent > header.size() ? sent - header.size() : 0;
    memcpy(conn.out.get() + kept,
           static_cast<const uint8_t *>(msg.payload) + from,
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
    eventfd_write(wake_fd_.get(), 1); /* fails only with wakes pending */
    return rc;
}

int Server::read_frame(Conn &conn)
{
    int rc = conn.in.fill([&conn](void *buf, size_t len) {
        return read_some(conn.fd.get(), buf, len);
    });
    if (rc == 1) {
        conn.partial_deadline = kNever;
        ready_.push_back(conn.id);
        return 0;
    }
    if (rc == 0) {
        if (conn.in.started() && conn.partial_deadline == kNever) {
            conn.partial_deadline = now() + limits.partial_message;
            next_expiry_ = std::min(next_expiry_, conn.partial_deadline);
        }
        return 0;
    }
    /* A peer that shut its side after whole requests still gets the
     * replies already queued. */
    if (rc == -ECONNRESET && !conn.in.started() && conn.pending() > 0) {
        conn.peer_done = true;
        return 0;
    }
    if (rc == -EMSGSIZE)
        report(Drop::payload_too_long,
               "IPC connection closed: payload length %" PRIu32 " above %u",
               conn.in.length(), IPC_MAX_PAYLOAD);
    if (rc == -ENOMEM)
        report(Drop::no_memory_for_payload,
               "IPC connection closed: no memory for %" PRIu32 " payload bytes",
               conn.in.length());
    return rc;
}

void Server::service(Conn &conn, uint32_t events)
{
    int rc = 0;
    if (conn.pending() > 0 && (events & (EPOLLOUT | EPOLLERR | EPOLLHUP)))
        rc = flush(conn);
    if (rc == 0 && !conn.peer_done && !conn.in.complete() &&
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
    if (t < next_expiry_)
        return;
    next_expiry_ = kNever;
    for (auto it = conns_.begin(); it != conns_.end();) {
        Conn *conn = (it++)->second.get(); /* before it may be erased */

        if (t < conn->partial_deadline) {
            next_expiry_ = std::min(next_expiry_, conn->partial_deadline);
            continue;
        }
        report(Drop::partial_message,
               "IPC connection closed: part of a message held for %lld s",
               static_cast<long long>(limits.partial_message /
                                      std::chrono::seconds(1)));
        close_conn(conn);
    }
}

/* After each poll: deadlines, reports, accepting again, memory back. */
void Server::tidy_up()
{
    expire_partial_messages();
    flush_reports();
    if (accept_resume_ != kNever && now() >= accept_resume_) {
        accept_resume_ = kNever;
        set_accepting(true);
    }
    if (freed_since_trim_ >= kTrimAfter && pending_total_ == 0) {
        malloc_trim(0);
        freed_since_trim_ = 0;
    }
}

/* Drops the lock while waiting. Another thread's ipc_send may close a
 * connection meanwhile, so each event finds its connection again by id. */
int Server::poll_once(int left_ms)
{
    epoll_event events[kEventsPerPoll];
    eventfd_t wakes;
    int next_ms = ms_until(
        std::min({next_expiry_, next_report(), accept_resume_}), now());
    /* Taken as unsigned, -1 (no timeout) is the longest. */
    auto timeout_ms = std::min(static_cast<unsigned>(left_ms),
                               static_cast<unsigned>(next_ms));

    lock.unlock();
    int n = epoll_wait(epoll_.get(), events, kEventsPerPoll,
                       static_cast<int>(timeout_ms));
    int err = errno;
    lock.lock();
    if (n < 0)
        return err == EINTR ? 0 : -err;
    for (int i = 0; i < n; i++) {
        uint64_t key = events[i].data.u64;
        if (key == kWakeKey)
            eventfd_read(wake_fd_.get(), &wakes); /* or another poller did */
        else if (key == kListenKey)
            accept_connections();
        else if (Conn *conn = find(static_cast<uint32_t>(key)))
            service(*conn, events[i].events);
    }
    tidy_up();
    return 0;
}

int Server::receive_locked(ipc_msg_t *msg, int timeout_ms)
{
    /* The caller's time is real time, whatever clock deadlines use. */
    Clock::time_point deadline = deadline_after(timeout_ms);
    bool polled = false;
    if (!endpoint_.listener.valid())
        return -ENOTCONN;
    for (;;) {
        /* Messages are taken in the order they came in, one per connection
         * at a time, so no client can starve the others. */
        while (!ready_.empty()) {
            Conn *conn = find(ready_.front());
            ready_.pop_front();
            if (conn != nullptr && conn->in.complete()) {
                conn->in.take(msg);
                msg->addr0 = conn->id;
                msg->addr1 = endpoint_.app_id;
                return 0;
            }
        }
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
