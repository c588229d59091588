/* The host IPC transport's own types, behind the C interface of plat_ipc.h:
 * owned descriptors and buffers, the frame reader, the limits a server
 * keeps and the rate-limited reports of what it refused or dropped. */
#ifndef IPC_TRANSPORT_HPP
#define IPC_TRANSPORT_HPP

#include <string.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <climits>
#include <deque>
#include <map>
#include <mutex>

#include "owned.hpp"
#include "plat_ipc.h"

namespace plat::ipc
{

using Clock = std::chrono::steady_clock;
using pellin::MallocBytes;
using pellin::UniqueFd;

/* The record on the wire: the fields of ipc_msg_t up to its payload
 * pointer, which travels as 0, as does the padding. */
inline constexpr size_t kPayloadLenAt = offsetof(ipc_msg_t, payload_len);
inline constexpr size_t kPaddingAt = offsetof(ipc_msg_t, padding);

using Header = std::array<uint8_t, IPC_MSG_HEADER_SIZE>;

inline Header encode_header(const ipc_msg_t &msg)
{
    Header wire{};
    memcpy(wire.data(), &msg, kPaddingAt);
    return wire;
}

/* realloc for owned bytes: false, the bytes unchanged, when out of memory. */
inline bool grow(MallocBytes &bytes, size_t size)
{
    auto *grown = static_cast<uint8_t *>(realloc(bytes.get(), size));
    if (grown == nullptr)
        return false;
    (void)bytes.release();
    bytes.reset(grown);
    return true;
}

/* One message being read: its record, then its payload. fill() reads from
 * `ssize_t read(void *buf, size_t len)` (bytes read, 0 when none are
 * waiting, a negative errno otherwise), never past the end of the message.
 * The announced length is checked before any payload memory is taken, and
 * that grows as bytes come: a peer that announces much and sends little
 * holds little. */
class FrameReader
{
  public:
    /* 1: a whole message is in (complete() until it is taken); 0: more is
     * to come; else a negative errno, which stays (the stream is out of
     * step for good). */
    template <class Source> int fill(Source &&read)
    {
        while (error_ == 0 && !complete()) {
            bool in_header = have_ < header_.size();
            size_t at = in_header ? have_ : have_ - header_.size();

            if (!in_header && at == room_) {
                room_ = std::min<size_t>(
                    length(), std::max<size_t>(2 * room_, kFirstRoom));
                if (!grow(payload_, room_))
                    return error_ = -ENOMEM;
            }
            ssize_t n = in_header
                            ? read(header_.data() + at, header_.size() - at)
                            : read(payload_.get() + at, room_ - at);
            if (n == 0)
                return 0;
            if (n < 0)
                return error_ = static_cast<int>(n);
            have_ += static_cast<size_t>(n);
            if (have_ == header_.size() && length() > IPC_MAX_PAYLOAD)
                return error_ = -EMSGSIZE;
        }
        return error_ != 0 ? error_ : 1;
    }

    bool complete() const
    {
        return have_ >= header_.size() && have_ - header_.size() == length();
    }
    bool started() const
    {
        return have_ > 0;
    }
    uint32_t length() const
    {
        uint32_t len;
        memcpy(&len, header_.data() + kPayloadLenAt, sizeof(len));
        return len;
    }

    /* The whole message into msg (its payload is the caller's now); the
     * reader starts again. */
    void take(ipc_msg_t *msg)
    {
        *msg = ipc_msg_t{};
        memcpy(msg, header_.data(), kPaddingAt);
        msg->payload = payload_.release();
        *this = FrameReader();
    }

  private:
    static constexpr size_t kFirstRoom = 4096;
    Header header_{};
    size_t have_ = 0; /* bytes of the message, record and payload */
    MallocBytes payload_;
    size_t room_ = 0;
    int error_ = 0;
};

/* A caller's timeout in milliseconds (-1: none) from now, in real time. */
inline Clock::time_point deadline_after(int timeout_ms)
{
    using std::chrono::milliseconds;

    return timeout_ms < 0 ? Clock::time_point::max()
                          : Clock::now() + milliseconds(timeout_ms);
}

/* Milliseconds from `from` until t, for a poll timeout: -1 for never. */
inline int ms_until(Clock::time_point t, Clock::time_point from)
{
    if (t == Clock::time_point::max())
        return -1;
    auto left = std::chrono::ceil<std::chrono::milliseconds>(t - from);
    return static_cast<int>(std::clamp<int64_t>(left.count(), 0, INT_MAX));
}

/* Bytes read from a non-blocking socket: 0 when none are waiting,
 * -ECONNRESET at end of stream. */
ssize_t read_some(int fd, void *buf, size_t len);

/* What a server keeps to, set apart so that tests can shorten it. */
struct Limits {
    /* A connection holding part of a message this long is closed. */
    Clock::duration partial_message = std::chrono::seconds(10);
    /* A kind of refusal or drop is logged at most once in this time. */
    Clock::duration report_interval = std::chrono::seconds(60);
    /* Unread replies of all connections together. */
    size_t pending_output_total = 8u * 1024u * 1024u;
    /* 0: as many as the open-file limit leaves room for. */
    size_t connections = 0;
    /* The clock every deadline is taken from (nullptr: steady_clock). */
    Clock::time_point (*now)() = nullptr;
};
extern constinit Limits limits;

Clock::time_point now();

/* Kinds of refusal and drop. The first of a kind is logged in full at
 * once; the ones after it within the interval are counted, and one line
 * gives that count when the interval is over. */
enum class Drop {
    no_memory_for_connection,
    accept_failed,
    connection_limit,
    payload_too_long,
    no_memory_for_payload,
    unread_replies,
    unread_replies_total,
    partial_message,
    count
};

/* The endpoint of a server: its directory, lock and listening socket. */
struct Endpoint {
    UniqueFd dir;
    UniqueFd lock;
    UniqueFd listener;
    uint32_t app_id = 0;
    char name[32] = {0}; /* the socket's name in dir */
};

/* Opens app_id's endpoint (logged when it fails): 0 or a negative errno. */
int open_endpoint(uint32_t app_id, Endpoint *out);
/* Removes the socket file, then lets go of the lock. */
void close_endpoint(Endpoint *endpoint);

/* A connection of a server: what it is reading, what waits to go out. */
struct Conn {
    uint32_t id = 0;
    UniqueFd fd;
    FrameReader in;
    /* When the part of a message `in` holds runs out of time. */
    Clock::time_point partial_deadline = Clock::time_point::max();
    bool peer_done = false; /* sent its last byte: close when replies are out */
    uint32_t polled = 0;    /* the epoll events asked for */
    MallocBytes out;        /* replies, written from out_sent on */
    size_t out_len = 0;
    size_t out_sent = 0;

    size_t pending() const
    {
        return out_len - out_sent;
    }
};

/* A server context: its endpoint, its connections and the loop serving
 * them on an epoll set, woken through an eventfd when another thread sends.
 * Methods with `locked` in their name expect the lock held. */
class Server
{
  public:
    ~Server()
    {
        conns_.clear();
        close_endpoint(&endpoint_);
    }
    bool init();

    std::mutex lock;
    ipc_recv_cb callback = nullptr;

    int add_endpoint_locked(uint32_t app_id);
    int receive_locked(ipc_msg_t *msg, int timeout_ms);
    int send_locked(const ipc_msg_t &msg);

  private:
    Conn *find(uint32_t id);
    void add_conn(UniqueFd fd);
    void close_conn(Conn *conn);
    void accept_connections();
    void set_accepting(bool on);
    void watch(Conn &conn);
    int flush(Conn &conn);
    int queue(Conn &conn, const ipc_msg_t &msg, size_t sent);
    int read_frame(Conn &conn);
    void service(Conn &conn, uint32_t events);
    void expire_partial_messages();
    void tidy_up();
    void report(Drop kind, const char *format, ...)
        __attribute__((format(printf, 3, 4)));
    void flush_reports();
    Clock::time_point next_report() const;
    int poll_once(int left_ms);

    UniqueFd wake_fd_;
    UniqueFd epoll_;
    Endpoint endpoint_;
    std::map<uint32_t, std::unique_ptr<Conn>> conns_;
    uint32_t last_id_ = 0;
    size_t max_conns_ = 0;
    Clock::time_point accept_resume_ = Clock::time_point::max();
    std::deque<uint32_t> ready_; /* whole messages, in arrival order */
    Clock::time_point next_expiry_ = Clock::time_point::max();
    size_t pending_total_ = 0;
    size_t freed_since_trim_ = 0;
    struct DropCount {
        Clock::time_point quiet_until{};
        uint64_t unreported = 0;
    };
    std::array<DropCount, static_cast<size_t>(Drop::count)> drops_{};
};

} // namespace plat::ipc

#endif
