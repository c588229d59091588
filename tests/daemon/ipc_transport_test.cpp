/* The host IPC transport: a server context served by a thread of the test,
 * clients through the client API or raw sockets for malformed and split
 * frames. Each case gets a fresh, empty /run of its own, unmounted when the
 * case ends. */
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <grp.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "ipc_transport.hpp"
#include "log_expect.hpp"
#include "plat_ipc.h"
#include "private_tmp.hpp"
#include "simboard.hpp"
#include "syslog_capture.hpp"

static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__,
              "the wire bytes below are written little-endian");

namespace
{

constexpr uint32_t kAppId = 219;
constexpr const char *kRunOrvel = "/run/orvel";
constexpr const char *kSocketDir = "/run/orvel/ipc";
constexpr const char *kSocketPath = "/run/orvel/ipc/219.sock";
constexpr uint32_t kOtherAppId = 220;
constexpr const char *kOtherPath = "/run/orvel/ipc/220.sock";
constexpr uid_t kNobody = 65534;
constexpr uint32_t kOpReadReg = 0xdb0002u;
constexpr uint32_t kOpWriteReg = 0xdb0003u;
constexpr uint32_t kOpGetStats = 0xdb0006u;
constexpr uint32_t kNicStatsSize = 8360u;
constexpr uint8_t kReplyXor = 0x5a;
constexpr int kWaitMs = 5000; /* no wait of a test lasts longer */
constexpr int kQuietMs = 100; /* enough for a message that is not coming */
constexpr int kServerPollMs = 20;
constexpr size_t kMaxSeen = 128;
constexpr size_t kHeader = IPC_MSG_HEADER_SIZE;

} // namespace

/* Allocation watch: linked with -Wl,--wrap=malloc (and calloc, realloc)
 * every allocation of the transport passes here; without it the __real_
 * symbols are null and the size checks are skipped. No allocation is ever
 * refused: the wraps only note the largest size asked for. */
extern "C" {
extern void *__real_malloc(size_t size) __attribute__((weak));
extern void *__real_calloc(size_t n, size_t size) __attribute__((weak));
extern void *__real_realloc(void *p, size_t size) __attribute__((weak));
void *__wrap_malloc(size_t size);
void *__wrap_calloc(size_t n, size_t size);
void *__wrap_realloc(void *p, size_t size);
}

namespace
{

constinit std::atomic<size_t> largest_allocation{0};

void note_allocation(size_t size)
{
    size_t seen = largest_allocation.load();

    while (size > seen &&
           !largest_allocation.compare_exchange_weak(seen, size)) {
    }
}

} // namespace

void *__wrap_malloc(size_t size)
{
    note_allocation(size);
    return __real_malloc(size);
}

void *__wrap_calloc(size_t n, size_t size)
{
    note_allocation(n * size);
    return __real_calloc(n, size);
}

void *__wrap_realloc(void *p, size_t size)
{
    note_allocation(size);
    return __real_realloc(p, size);
}

namespace
{

bool allocations_watched()
{
    return __real_malloc != nullptr;
}

/* Heap bytes in the transport's own currency: ipc_send takes them over and
 * frees them. */
uint8_t *must_alloc(size_t size)
{
    void *p = malloc(size);

    if (p == nullptr)
        abort(); /* test code only */
    return static_cast<uint8_t *>(p);
}

using MallocBytes = pellin::Malloced<uint8_t>;

/* Time */

using Clock = std::chrono::steady_clock;

int64_t now_ms()
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(
               Clock::now().time_since_epoch())
        .count();
}

Clock::time_point deadline_in(int ms)
{
    return Clock::now() + std::chrono::milliseconds(ms);
}

void sleep_ms(int ms)
{
    std::this_thread::sleep_for(std::chrono::milliseconds(ms));
}

/* Owned resources: whatever a case's outcome, they are released. */

using pellin::UniqueFd;

struct ClientCloser {
    void operator()(ipc_client *c) const
    {
        ipc_client_close(c);
    }
};
using Client = std::unique_ptr<ipc_client, ClientCloser>;

/* A server context, destroyed (its socket file removed) with the guard. */
class Ctx
{
  public:
    explicit Ctx(uint32_t app_id) : handle_(ipc_ctx_init(app_id))
    {
    }
    Ctx(const Ctx &) = delete;
    Ctx &operator=(const Ctx &) = delete;
    ~Ctx()
    {
        destroy();
    }

    uint64_t get() const
    {
        return handle_;
    }
    void destroy()
    {
        ipc_ctx_destroy(std::exchange(handle_, 0));
    }

  private:
    uint64_t handle_;
};

/* A received message that owns its payload. */
struct Received {
    ipc_msg_t msg{};

    Received() = default;
    Received(const Received &) = delete;
    Received &operator=(const Received &) = delete;
    ~Received()
    {
        free(msg.payload);
    }

    const uint8_t *bytes() const
    {
        return static_cast<const uint8_t *>(msg.payload);
    }
};

/* A child process, killed and reaped unless it was waited for. */
class Child
{
  public:
    explicit Child(pid_t pid) : pid_(pid)
    {
    }
    Child(const Child &) = delete;
    Child &operator=(const Child &) = delete;
    ~Child()
    {
        if (pid_ > 0) {
            kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
        }
    }

    /* sim_wait: 0 and the status, or -1 (reaped too after a timeout). */
    int wait(int timeout_ms, int *status)
    {
        int rc = sim_wait(pid_, timeout_ms, status);

        if (rc == 0 || errno == ETIMEDOUT)
            pid_ = -1;
        return rc;
    }

  private:
    pid_t pid_;
};

/* Byte comparisons that name the first difference. */

testing::AssertionResult same_bytes(const void *actual, const void *expected,
                                    size_t len)
{
    const auto *a = static_cast<const uint8_t *>(actual);
    const auto *e = static_cast<const uint8_t *>(expected);

    if (len > 0 && a == nullptr)
        return testing::AssertionFailure()
               << "no bytes where " << len << " were expected";
    for (size_t i = 0; i < len; i++)
        if (a[i] != e[i])
            return testing::AssertionFailure()
                   << format_text("byte %zu of %zu is 0x%02x, expected 0x%02x",
                                  i, len, a[i], e[i]);
    return testing::AssertionSuccess();
}

/* The reply's bytes are the request's, each xor-ed with kReplyXor. */
testing::AssertionResult is_echo_of(const uint8_t *reply,
                                    const uint8_t *request, uint32_t len)
{
    if (len > 0 && reply == nullptr)
        return testing::AssertionFailure() << "no reply bytes";
    for (uint32_t i = 0; i < len; i++)
        if (reply[i] != (request[i] ^ kReplyXor))
            return testing::AssertionFailure()
                   << format_text("reply byte %u is 0x%02x, expected 0x%02x", i,
                                  reply[i], request[i] ^ kReplyXor);
    return testing::AssertionSuccess();
}

/* Replies the server sends */

uint8_t stats_byte(size_t i)
{
    return static_cast<uint8_t>(i * 7 + 3);
}

/* The get stats reply for the nic: module id and pipe echoed, N, then N
 * bytes. */
uint8_t *nic_stats_reply(const ipc_msg_t *request, uint32_t *len)
{
    uint64_t size = kNicStatsSize;
    uint8_t *payload = must_alloc(16 + kNicStatsSize);

    memcpy(payload, request->payload, 8);
    memcpy(payload + 8, &size, sizeof(size));
    for (size_t i = 0; i < kNicStatsSize; i++)
        payload[16 + i] = stats_byte(i);
    *len = 16 + kNicStatsSize;
    return payload;
}

uint8_t *echo_reply(const ipc_msg_t *request, uint32_t *len)
{
    const auto *bytes = static_cast<const uint8_t *>(request->payload);
    uint8_t *payload;

    *len = request->payload_len;
    if (*len == 0)
        return nullptr;
    payload = must_alloc(*len);
    for (size_t i = 0; i < *len; i++)
        payload[i] = bytes[i] ^ kReplyXor;
    return payload;
}

int answer(uint64_t ctx, const ipc_msg_t *request)
{
    ipc_msg_t reply = {
        .addr0 = request->addr1,
        .addr1 = request->addr0,
        .op_id = request->op_id,
        .aux_byte = 1,
        .msg_type = 2,
        .reserved = 0,
        .payload_len = 0,
        .padding = 0xaaaaaaaa, /* a field the sender never sets: not sent */
        .payload = nullptr,
    };

    if (request->op_id == kOpGetStats)
        reply.payload = nic_stats_reply(request, &reply.payload_len);
    else
        reply.payload = echo_reply(request, &reply.payload_len);
    return ipc_send(ctx, &reply, 1);
}

/* The server thread */

enum class ReplyMode { none, echo, after_gate };

struct SeenMsg {
    ipc_msg_t record{};         /* as the callback got it */
    std::vector<uint8_t> bytes; /* a copy of its payload */
};

class TestServer;
TestServer *running_server; /* the callback's server */

class TestServer
{
  public:
    TestServer() = default;
    TestServer(const TestServer &) = delete;
    TestServer &operator=(const TestServer &) = delete;

    /* Opens the endpoint of kAppId and starts serving it. */
    bool start()
    {
        ctx_ = ipc_ctx_init(kAppId);
        if (ctx_ == 0)
            return false;
        running_server = this;
        if (ipc_ctx_init_proxy(ctx_, 1, record_and_answer, 0) != 0 ||
            ipc_ctx_add_endpoint(ctx_, kAppId, IPC_SOCK_SERVER, 1) < 0) {
            ipc_ctx_destroy(std::exchange(ctx_, 0));
            return false;
        }
        thread_ = std::thread([this] { serve(); });
        return true;
    }

    /* Stops the thread, destroys the context; the receive failures seen. */
    int stop()
    {
        open_gate(); /* a callback still waiting for it must not hold us */
        stop_.store(true);
        if (thread_.joinable())
            thread_.join();
        ipc_ctx_destroy(std::exchange(ctx_, 0));
        running_server = nullptr;
        std::lock_guard l(lock_);
        return recv_failures_;
    }

    uint64_t ctx() const
    {
        return ctx_;
    }

    void set_mode(ReplyMode mode)
    {
        std::lock_guard l(lock_);
        mode_ = mode;
    }

    void open_gate()
    {
        std::lock_guard l(lock_);
        gate_open_ = true;
        changed_.notify_all();
    }

    /* Waits until n messages were seen; false after kWaitMs. */
    bool wait_for_seen(size_t n)
    {
        return wait_for(seen_count_, n);
    }

    size_t seen_now()
    {
        std::lock_guard l(lock_);
        return seen_count_;
    }

    /* The index-th message, once seen; entries below the count are no
     * longer written. */
    const SeenMsg &seen_at(size_t index)
    {
        static const SeenMsg none;

        if (index >= kMaxSeen || !wait_for(seen_count_, index + 1)) {
            ADD_FAILURE() << "message " << index << " never reached the server";
            return none;
        }
        return seen_[index];
    }

    /* What ipc_send returned for the index-th answer. */
    int send_result_at(size_t index)
    {
        if (index >= kMaxSeen || !wait_for(send_count_, index + 1)) {
            ADD_FAILURE() << "answer " << index << " never sent";
            return 1;
        }
        return send_results_[index];
    }

  private:
    static void record_and_answer(void *, ipc_msg_t *msg) noexcept
    {
        running_server->on_message(msg);
    }

    void on_message(const ipc_msg_t *msg)
    {
        ReplyMode mode;

        {
            std::lock_guard l(lock_);
            record_locked(msg);
            mode = mode_;
            changed_.notify_all();
        }
        if (mode == ReplyMode::after_gate)
            wait_for_gate();
        if (mode != ReplyMode::none)
            record_send_result(answer(ctx_, msg));
    }

    void record_locked(const ipc_msg_t *msg)
    {
        if (seen_count_ == kMaxSeen)
            return;
        SeenMsg &m = seen_[seen_count_++];
        m.record = *msg;
        if (msg->payload_len > 0 && msg->payload != nullptr) {
            const auto *p = static_cast<const uint8_t *>(msg->payload);
            m.bytes.assign(p, p + msg->payload_len);
        }
    }

    void wait_for_gate()
    {
        std::unique_lock l(lock_);
        changed_.wait_until(l, deadline_in(kWaitMs),
                            [this] { return gate_open_; });
    }

    void record_send_result(int rc)
    {
        std::lock_guard l(lock_);
        if (send_count_ < kMaxSeen)
            send_results_[send_count_++] = rc;
        changed_.notify_all();
    }

    bool wait_for(const size_t &counter, size_t n)
    {
        std::unique_lock l(lock_);
        return changed_.wait_until(l, deadline_in(kWaitMs),
                                   [&] { return counter >= n; });
    }

    /* The daemon's loop, with a timeout so that it can stop. */
    void serve()
    {
        while (!stop_.load()) {
            ipc_msg_t msg;
            int rc = ipc_recv(ctx_, &msg, kServerPollMs);

            if (rc == 0) {
                free(msg.payload);
            } else if (rc != -ETIMEDOUT) {
                std::lock_guard l(lock_);
                recv_failures_++;
            }
        }
    }

    uint64_t ctx_ = 0;
    std::thread thread_;
    std::atomic<bool> stop_{false};
    std::mutex lock_;
    std::condition_variable changed_;
    ReplyMode mode_ = ReplyMode::echo;
    bool gate_open_ = false;
    std::array<SeenMsg, kMaxSeen> seen_;
    size_t seen_count_ = 0;
    std::array<int, kMaxSeen> send_results_{};
    size_t send_count_ = 0;
    int recv_failures_ = 0;
};

/* Frames */

ipc_msg_t request_header(uint32_t op_id, uint32_t len)
{
    return ipc_msg_t{
        .addr0 = 0xdeadbeef, /* the server replaces both addresses */
        .addr1 = 0x12345678,
        .op_id = op_id,
        .aux_byte = 0,
        .msg_type = 1,
        .reserved = 0,
        .payload_len = len,
        .padding = 0,
        .payload = nullptr,
    };
}

size_t put_frame(uint8_t *dst, uint32_t op_id, const void *payload,
                 uint32_t len)
{
    ipc_msg_t header = request_header(op_id, len);

    memcpy(dst, &header, kHeader);
    if (len > 0)
        memcpy(dst + kHeader, payload, len);
    return kHeader + len;
}

/* A message for connection addr1, all else zero. */
ipc_msg_t message_to(uint32_t addr1, uint32_t len, void *payload)
{
    ipc_msg_t msg{};

    msg.addr1 = addr1;
    msg.payload_len = len;
    msg.payload = payload;
    return msg;
}

void fill_pattern(uint8_t *dst, size_t len, unsigned seed)
{
    for (size_t i = 0; i < len; i++)
        dst[i] = static_cast<uint8_t>(seed + i * 13);
}

void expect_reply_header(const ipc_msg_t &reply, uint32_t conn_id,
                         uint32_t op_id, uint32_t len)
{
    EXPECT_EQ(reply.addr0, kAppId);
    EXPECT_EQ(reply.addr1, conn_id);
    EXPECT_EQ(reply.op_id, op_id);
    EXPECT_EQ(reply.aux_byte, 1u);
    EXPECT_EQ(reply.msg_type, 2u);
    EXPECT_EQ(reply.reserved, 0u);
    EXPECT_EQ(reply.payload_len, len);
    EXPECT_EQ(reply.padding, 0u);
}

/* Raw sockets */

sockaddr_un unix_address(const char *path)
{
    sockaddr_un addr{};

    addr.sun_family = AF_UNIX;
    snprintf(addr.sun_path, sizeof(addr.sun_path), "%s", path);
    return addr;
}

UniqueFd raw_connect_to(const char *path)
{
    sockaddr_un addr = unix_address(path);
    UniqueFd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));

    if (!fd.valid()) {
        ADD_FAILURE() << "socket: " << strerror(errno);
        return fd;
    }
    if (connect(fd.get(), reinterpret_cast<sockaddr *>(&addr), sizeof(addr)) !=
        0) {
        ADD_FAILURE() << "connect " << path << ": " << strerror(errno);
        fd.reset();
    }
    return fd;
}

UniqueFd raw_connect()
{
    return raw_connect_to(kSocketPath);
}

void write_bytes(const UniqueFd &fd, const void *buf, size_t len)
{
    EXPECT_EQ(send(fd.get(), buf, len, MSG_NOSIGNAL), static_cast<ssize_t>(len))
        << strerror(errno);
}

/* Reads exactly len bytes; false at end of stream or after kWaitMs. */
bool read_bytes(const UniqueFd &fd, void *buf, size_t len)
{
    int64_t deadline = now_ms() + kWaitMs;
    auto *next = static_cast<uint8_t *>(buf);

    while (len > 0) {
        pollfd p = {.fd = fd.get(), .events = POLLIN, .revents = 0};
        int64_t left = deadline - now_ms();
        ssize_t n;

        if (left <= 0 || poll(&p, 1, static_cast<int>(left)) != 1)
            return false;
        n = recv(fd.get(), next, len, MSG_DONTWAIT);
        if (n <= 0)
            return false;
        next += n;
        len -= static_cast<size_t>(n);
    }
    return true;
}

/* One reply frame; its payload into buf. */
void read_reply(const UniqueFd &fd, ipc_msg_t *reply, uint8_t *buf, size_t size)
{
    ASSERT_TRUE(read_bytes(fd, reply, kHeader));
    ASSERT_EQ(reply->payload, nullptr); /* sent as 0 */
    ASSERT_LE(reply->payload_len, size);
    ASSERT_TRUE(read_bytes(fd, buf, reply->payload_len));
}

bool nothing_to_read(const UniqueFd &fd)
{
    pollfd p = {.fd = fd.get(), .events = POLLIN, .revents = 0};

    return poll(&p, 1, kQuietMs) == 0;
}

/* The server closed the connection without sending anything first. */
bool closed_by_server(const UniqueFd &fd)
{
    pollfd p = {.fd = fd.get(), .events = POLLIN, .revents = 0};
    uint8_t byte;
    ssize_t n;

    if (poll(&p, 1, kWaitMs) != 1)
        return false;
    n = recv(fd.get(), &byte, 1, MSG_DONTWAIT);
    return n == 0 || (n < 0 && errno == ECONNRESET);
}

/* Client API */

Client client_open()
{
    ipc_client *c = nullptr;

    EXPECT_EQ(ipc_client_open(kSocketPath, &c), 0);
    EXPECT_NE(c, nullptr);
    return Client(c);
}

void client_send(const Client &c, uint32_t op_id, const void *payload,
                 uint32_t len)
{
    ipc_msg_t msg = request_header(op_id, len);

    msg.payload = const_cast<void *>(payload);
    EXPECT_EQ(ipc_client_send(c.get(), &msg), 0);
}

/* ipc_client_recv into r, whose earlier payload is freed first. */
int client_recv(const Client &c, Received &r, int timeout_ms)
{
    free(std::exchange(r.msg.payload, nullptr));
    return ipc_client_recv(c.get(), &r.msg, timeout_ms);
}

/* Files */

void make_socket_dir()
{
    ASSERT_TRUE(mkdir(kRunOrvel, 0755) == 0 || errno == EEXIST)
        << strerror(errno);
    ASSERT_TRUE(mkdir(kSocketDir, 0755) == 0 || errno == EEXIST)
        << strerror(errno);
}

/* A socket file that nobody serves any more. */
void make_stale_socket(const char *path)
{
    sockaddr_un addr = unix_address(path);
    UniqueFd fd(socket(AF_UNIX, SOCK_STREAM, 0));
    struct stat st;

    ASSERT_TRUE(fd.valid()) << strerror(errno);
    ASSERT_EQ(bind(fd.get(), reinterpret_cast<sockaddr *>(&addr), sizeof(addr)),
              0)
        << path << ": " << strerror(errno);
    fd.reset();
    ASSERT_EQ(lstat(path, &st), 0);
    ASSERT_TRUE(S_ISSOCK(st.st_mode));
}

size_t count_open_fds()
{
    DIR *dir = opendir("/proc/self/fd");
    size_t count = 0;

    if (dir == nullptr) {
        ADD_FAILURE() << "/proc/self/fd: " << strerror(errno);
        return 0;
    }
    while (readdir(dir) != nullptr)
        count++;
    closedir(dir);
    return count;
}

void expect_single_log(int severity, const char *text)
{
    const captured_syslog *entry;

    EXPECT_EQ(syslog_capture_count(), 1u);
    entry = syslog_capture_get(0);
    ASSERT_NE(entry, nullptr);
    EXPECT_EQ(entry->severity, severity);
    EXPECT_STREQ(entry->ident, "orvel-ipc");
    EXPECT_STREQ(entry->text, text);
}

/* Each case in a fresh, empty /run, a tmpfs of its own in the private mount
 * namespace of the process, unmounted when the case ends: nothing a case
 * leaves there (sockets, their lock files, directories) reaches the next. */
class IpcTransportEndpoint : public testing::Test
{
  protected:
    void SetUp() override
    {
        std::string why;

        if (!private_tmp_ready(&why))
            GTEST_SKIP() << why;
        ASSERT_EQ(mount("tmpfs", "/run", "tmpfs", 0, "mode=0755"), 0)
            << "private /run: " << strerror(errno);
        run_mounted_ = true;
        syslog_capture_reset();
    }

    void TearDown() override
    {
        if (run_mounted_) {
            EXPECT_EQ(umount2("/run", MNT_DETACH), 0)
                << "private /run: " << strerror(errno);
        }
    }

  private:
    bool run_mounted_ = false;
};

/* The same with the endpoint of kAppId served by a thread of the test. */
class IpcTransportServed : public IpcTransportEndpoint
{
  protected:
    void SetUp() override
    {
        IpcTransportEndpoint::SetUp();
        if (IsSkipped() || HasFatalFailure())
            return;
        set_limits(plat::ipc::limits);
        ASSERT_TRUE(server_.start()) << "the test server did not start";
        started_ = true;
    }

    void TearDown() override
    {
        if (started_) {
            EXPECT_EQ(server_.stop(), 0) << "ipc_recv failures in the server";
        }
        plat::ipc::limits = plat::ipc::Limits();
        IpcTransportEndpoint::TearDown();
    }

    /* Before the server starts: the limits a fixture serves with. */
    virtual void set_limits(plat::ipc::Limits &)
    {
    }

    /* What the server thread recorded: the transport's addressing, the rest
     * as sent. */
    void expect_seen(size_t index, uint32_t op_id, const void *payload,
                     uint32_t len)
    {
        const SeenMsg &m = server_.seen_at(index);

        EXPECT_NE(m.record.addr0, 0u);
        EXPECT_EQ(m.record.addr1, kAppId);
        EXPECT_EQ(m.record.op_id, op_id);
        EXPECT_EQ(m.record.aux_byte, 0u);
        EXPECT_EQ(m.record.msg_type, 1u);
        EXPECT_EQ(m.record.reserved, 0u);
        EXPECT_EQ(m.record.payload_len, len);
        if (len == 0) {
            EXPECT_EQ(m.record.payload, nullptr);
            return;
        }
        EXPECT_NE(m.record.payload, nullptr);
        ASSERT_EQ(m.bytes.size(), len);
        EXPECT_TRUE(same_bytes(m.bytes.data(), payload, len));
    }

    uint32_t conn_of(size_t index)
    {
        return server_.seen_at(index).record.addr0;
    }

    /* Sends a request and checks the echo that comes back. */
    void round_trip(const Client &c, size_t seen_index)
    {
        uint8_t request[8] = {1, 2, 3, 4, 5, 6, 7, 8};
        Received reply;

        client_send(c, kOpWriteReg, request, sizeof(request));
        ASSERT_TRUE(server_.wait_for_seen(seen_index + 1));
        expect_seen(seen_index, kOpWriteReg, request, sizeof(request));
        ASSERT_EQ(client_recv(c, reply, kWaitMs), 0);
        expect_reply_header(reply.msg, conn_of(seen_index), kOpWriteReg,
                            sizeof(request));
        EXPECT_TRUE(is_echo_of(reply.bytes(), request, sizeof(request)));
    }

    /* A frame announcing len bytes closes its connection, allocates no
     * more than the largest payload, logs once; others are still served. */
    void length_closes_connection(uint32_t len)
    {
        ipc_msg_t header = request_header(kOpReadReg, len);
        UniqueFd fd = raw_connect();

        largest_allocation.store(0);
        write_bytes(fd, &header, kHeader);
        EXPECT_TRUE(closed_by_server(fd));
        fd.reset();
        EXPECT_EQ(server_.seen_now(), 0u);
        if (allocations_watched()) {
            EXPECT_LE(largest_allocation.load(), IPC_MAX_PAYLOAD);
        }
        expect_single_log(LOG_WARNING,
                          format_text("IPC connection closed: payload length "
                                      "%u above 65536",
                                      len)
                              .c_str());

        Client other = client_open();
        ASSERT_NO_FATAL_FAILURE(round_trip(other, 0));
    }

    /* Asks for a reply that the test thread sends itself; the connection. */
    uint32_t silent_request(const Client &c)
    {
        server_.set_mode(ReplyMode::none);
        client_send(c, kOpReadReg, "\0\0\0\0\0\0\0", 8);
        return conn_of(0);
    }

    /* A largest-size reply of a pattern, sent from the test thread. */
    int send_pattern(uint32_t conn_id, unsigned seed)
    {
        ipc_msg_t reply = {
            .addr0 = kAppId,
            .addr1 = conn_id,
            .op_id = kOpReadReg,
            .aux_byte = 1,
            .msg_type = 2,
            .reserved = 0,
            .payload_len = IPC_MAX_PAYLOAD,
            .padding = 0,
            .payload = must_alloc(IPC_MAX_PAYLOAD),
        };

        fill_pattern(static_cast<uint8_t *>(reply.payload), IPC_MAX_PAYLOAD,
                     seed);
        return ipc_send(server_.ctx(), &reply, 1);
    }

    TestServer server_;

  private:
    bool started_ = false;
};

void expect_pattern_reply(const ipc_msg_t &reply, uint32_t conn_id,
                          unsigned seed)
{
    std::vector<uint8_t> expected(IPC_MAX_PAYLOAD);

    fill_pattern(expected.data(), expected.size(), seed);
    expect_reply_header(reply, conn_id, kOpReadReg, IPC_MAX_PAYLOAD);
    EXPECT_TRUE(same_bytes(reply.payload, expected.data(), IPC_MAX_PAYLOAD))
        << "reply " << seed;
}

/* Tests: one request, one reply */

TEST_F(IpcTransportServed, RequestAndReplyExactBytes)
{
    static const uint8_t request[] = {
        0xef, 0xbe, 0xad, 0xde, /* addr0: anything */
        0x78, 0x56, 0x34, 0x12, /* addr1: anything */
        0x02, 0x00, 0xdb, 0x00, /* op_id 0xdb0002 */
        0x00, 0x01, 0x00, 0x00, /* aux_byte, msg_type 1, reserved */
        0x08, 0x00, 0x00, 0x00, /* payload_len 8 */
        0x55, 0x55, 0x55, 0x55, /* padding: anything */
        0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, /* payload field */
        0x10, 0x20, 0x30, 0x40, 0x01, 0x02, 0x03, 0x04,
    };
    uint8_t expected[] = {
        0xdb, 0x00, 0x00, 0x00, /* addr0: the request's addr1 */
        0x00, 0x00, 0x00, 0x00, /* addr1: the connection id, set below */
        0x02, 0x00, 0xdb, 0x00, /* op_id */
        0x01, 0x02, 0x00, 0x00, /* aux_byte 1, msg_type 2: 0x0201 */
        0x08, 0x00, 0x00, 0x00, /* payload_len */
        0x00, 0x00, 0x00, 0x00, /* padding */
        0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, /* payload field */
        0x4a, 0x7a, 0x6a, 0x1a, 0x5b, 0x58, 0x59, 0x5e,
    };
    uint8_t reply[sizeof(expected)];
    uint32_t conn_id;
    UniqueFd fd = raw_connect();

    write_bytes(fd, request, sizeof(request));
    ASSERT_TRUE(server_.wait_for_seen(1));
    expect_seen(0, kOpReadReg, request + kHeader, 8);
    EXPECT_EQ(server_.seen_at(0).record.padding, 0u);
    conn_id = conn_of(0);
    memcpy(expected + 4, &conn_id, sizeof(conn_id));
    ASSERT_TRUE(read_bytes(fd, reply, sizeof(reply)));
    EXPECT_TRUE(same_bytes(reply, expected, sizeof(expected)));
    EXPECT_TRUE(nothing_to_read(fd));
    EXPECT_EQ(server_.send_result_at(0), 0);
}

TEST_F(IpcTransportServed, ServerSetsAddresses)
{
    Client a = client_open();
    Client b = client_open();
    uint8_t payload_a[4] = {0xa1, 0xa2, 0xa3, 0xa4};
    uint8_t payload_b[4] = {0xb1, 0xb2, 0xb3, 0xb4};
    ipc_msg_t msg = request_header(kOpReadReg, 4);
    Received reply;
    uint32_t id_a, id_b;

    msg.addr0 = 0;
    msg.addr1 = 0;
    msg.payload = payload_a;
    ASSERT_EQ(ipc_client_send(a.get(), &msg), 0);
    ASSERT_TRUE(server_.wait_for_seen(1));
    msg.addr0 = kAppId; /* a client claiming to be the server */
    msg.addr1 = 0xffffffff;
    msg.payload = payload_b;
    ASSERT_EQ(ipc_client_send(b.get(), &msg), 0);
    ASSERT_TRUE(server_.wait_for_seen(2));
    expect_seen(0, kOpReadReg, payload_a, 4);
    expect_seen(1, kOpReadReg, payload_b, 4);
    id_a = conn_of(0);
    id_b = conn_of(1);
    EXPECT_NE(id_a, id_b);

    ASSERT_EQ(client_recv(b, reply, kWaitMs), 0);
    expect_reply_header(reply.msg, id_b, kOpReadReg, 4);
    EXPECT_TRUE(is_echo_of(reply.bytes(), payload_b, 4));
    ASSERT_EQ(client_recv(a, reply, kWaitMs), 0);
    expect_reply_header(reply.msg, id_a, kOpReadReg, 4);
    EXPECT_TRUE(is_echo_of(reply.bytes(), payload_a, 4));
}

/* Framing */

TEST_F(IpcTransportServed, FrameSplitIntoSingleBytes)
{
    uint8_t payload[8] = {9, 8, 7, 6, 5, 4, 3, 2};
    uint8_t frame[kHeader + sizeof(payload)], reply_bytes[sizeof(payload)];
    size_t len = put_frame(frame, kOpWriteReg, payload, sizeof(payload));
    ipc_msg_t reply;
    UniqueFd fd = raw_connect();

    for (size_t i = 0; i + 1 < len; i++) {
        write_bytes(fd, frame + i, 1);
        sleep_ms(1);
    }
    sleep_ms(kQuietMs);
    EXPECT_EQ(server_.seen_now(), 0u);
    write_bytes(fd, frame + len - 1, 1);
    ASSERT_TRUE(server_.wait_for_seen(1));
    expect_seen(0, kOpWriteReg, payload, sizeof(payload));
    ASSERT_NO_FATAL_FAILURE(
        read_reply(fd, &reply, reply_bytes, sizeof(reply_bytes)));
    expect_reply_header(reply, conn_of(0), kOpWriteReg, sizeof(payload));
    EXPECT_TRUE(is_echo_of(reply_bytes, payload, sizeof(payload)));
}

struct FrameCase {
    uint32_t op_id;
    uint32_t len;
};

constexpr FrameCase three_frames[] = {
    {kOpReadReg, 8},
    {0xdb0008, 0}, /* get module list: no payload */
    {0xdb000b, 12},
};

TEST_F(IpcTransportServed, SeveralFramesInOneWrite)
{
    uint8_t buf[3 * kHeader + 20], payloads[3][12], reply_bytes[12];
    size_t len = 0;
    ipc_msg_t reply;
    UniqueFd fd = raw_connect();

    for (size_t i = 0; i < 3; i++) {
        fill_pattern(payloads[i], sizeof(payloads[i]),
                     static_cast<unsigned>(i) * 50);
        len += put_frame(buf + len, three_frames[i].op_id, payloads[i],
                         three_frames[i].len);
    }
    ASSERT_EQ(len, sizeof(buf));
    write_bytes(fd, buf, len);
    ASSERT_TRUE(server_.wait_for_seen(3));
    for (size_t i = 0; i < 3; i++) {
        expect_seen(i, three_frames[i].op_id, payloads[i], three_frames[i].len);
        EXPECT_EQ(conn_of(i), conn_of(0));
    }
    for (size_t i = 0; i < 3; i++) {
        ASSERT_NO_FATAL_FAILURE(
            read_reply(fd, &reply, reply_bytes, sizeof(reply_bytes)));
        expect_reply_header(reply, conn_of(0), three_frames[i].op_id,
                            three_frames[i].len);
        EXPECT_TRUE(is_echo_of(reply_bytes, payloads[i], three_frames[i].len));
    }
}

/* Several clients */

TEST_F(IpcTransportServed, TwoClientsInterleaved)
{
    uint8_t pa[8] = {'A', 'A', 'A', 'A', 'a', 'a', 'a', 'a'};
    uint8_t pb[8] = {'B', 'B', 'B', 'B', 'b', 'b', 'b', 'b'};
    uint8_t fa[kHeader + 8], fb[kHeader + 8], reply_bytes[8];
    ipc_msg_t reply;
    UniqueFd a = raw_connect(), b = raw_connect();

    put_frame(fa, 0xdb0004, pa, 8);
    put_frame(fb, 0xdb0005, pb, 8);
    write_bytes(a, fa, 20);
    write_bytes(b, fb, 10);
    sleep_ms(kQuietMs);
    EXPECT_EQ(server_.seen_now(), 0u);
    write_bytes(a, fa + 20, sizeof(fa) - 20);
    ASSERT_TRUE(server_.wait_for_seen(1));
    write_bytes(b, fb + 10, sizeof(fb) - 10);
    ASSERT_TRUE(server_.wait_for_seen(2));
    expect_seen(0, 0xdb0004, pa, 8);
    expect_seen(1, 0xdb0005, pb, 8);
    EXPECT_NE(conn_of(0), conn_of(1));

    ASSERT_NO_FATAL_FAILURE(
        read_reply(b, &reply, reply_bytes, sizeof(reply_bytes)));
    expect_reply_header(reply, conn_of(1), 0xdb0005, 8);
    EXPECT_TRUE(is_echo_of(reply_bytes, pb, 8));
    ASSERT_NO_FATAL_FAILURE(
        read_reply(a, &reply, reply_bytes, sizeof(reply_bytes)));
    expect_reply_header(reply, conn_of(0), 0xdb0004, 8);
    EXPECT_TRUE(is_echo_of(reply_bytes, pa, 8));
}

TEST_F(IpcTransportServed, StalledClientDoesNotHoldUpOthers)
{
    uint8_t payload[8] = {0x51, 0x52, 0x53, 0x54, 0x55, 0x56, 0x57, 0x58};
    uint8_t frame[kHeader + 8], reply_bytes[8];
    Client other = client_open();
    ipc_msg_t reply;
    UniqueFd stalled = raw_connect();

    put_frame(frame, kOpWriteReg, payload, sizeof(payload));
    write_bytes(stalled, frame, kHeader - 1);
    ASSERT_NO_FATAL_FAILURE(round_trip(other, 0));
    ASSERT_NO_FATAL_FAILURE(round_trip(other, 1));
    EXPECT_EQ(server_.seen_now(), 2u);

    write_bytes(stalled, frame + kHeader - 1, sizeof(frame) - (kHeader - 1));
    ASSERT_TRUE(server_.wait_for_seen(3));
    expect_seen(2, kOpWriteReg, payload, sizeof(payload));
    ASSERT_NO_FATAL_FAILURE(
        read_reply(stalled, &reply, reply_bytes, sizeof(reply_bytes)));
    EXPECT_TRUE(is_echo_of(reply_bytes, payload, sizeof(payload)));
}

TEST_F(IpcTransportServed, ClientGoneBeforeReply)
{
    uint8_t payload[8] = {0};
    Client gone = client_open();
    ipc_msg_t late;

    server_.set_mode(ReplyMode::after_gate);
    client_send(gone, kOpReadReg, payload, sizeof(payload));
    ASSERT_TRUE(server_.wait_for_seen(1));
    gone.reset();
    server_.open_gate();
    EXPECT_EQ(server_.send_result_at(0), -EPIPE);

    late = message_to(conn_of(0), 4, must_alloc(4));
    EXPECT_EQ(ipc_send(server_.ctx(), &late, 1), -ENOTCONN);
    EXPECT_EQ(late.payload, nullptr);

    server_.set_mode(ReplyMode::echo);
    Client other = client_open();
    ASSERT_NO_FATAL_FAILURE(round_trip(other, 1));
}

/* Limits */

TEST_F(IpcTransportServed, PayloadLenFfffffffClosesConnection)
{
    length_closes_connection(0xffffffffu);
}

TEST_F(IpcTransportServed, PayloadLen65537ClosesConnection)
{
    length_closes_connection(65537);
}

TEST_F(IpcTransportServed, PayloadLen65536IsAccepted)
{
    std::vector<uint8_t> payload(65536);
    Client c = client_open();
    Received reply;

    fill_pattern(payload.data(), payload.size(), 7);
    client_send(c, kOpWriteReg, payload.data(), 65536);
    ASSERT_TRUE(server_.wait_for_seen(1));
    expect_seen(0, kOpWriteReg, payload.data(), 65536);
    ASSERT_EQ(client_recv(c, reply, kWaitMs), 0);
    expect_reply_header(reply.msg, conn_of(0), kOpWriteReg, 65536);
    EXPECT_TRUE(is_echo_of(reply.bytes(), payload.data(), 65536));
}

/* A payload announced but not sent holds memory only for what came. */
TEST_F(IpcTransportServed, AnnouncedPayloadHoldsOnlyWhatCame)
{
    std::vector<uint8_t> frame(kHeader + 65536);
    std::vector<uint8_t> payload(65536);
    uint8_t reply_head[kHeader];
    UniqueFd fd = raw_connect();

    if (!allocations_watched())
        GTEST_SKIP() << "allocations are not watched in this build";
    fill_pattern(payload.data(), payload.size(), 3);
    put_frame(frame.data(), kOpWriteReg, payload.data(), 65536);
    largest_allocation.store(0);
    write_bytes(fd, frame.data(), kHeader + 10);
    sleep_ms(kQuietMs);
    EXPECT_LE(largest_allocation.load(), 4096u);
    write_bytes(fd, frame.data() + kHeader + 10, 65536 - 10);
    ASSERT_TRUE(server_.wait_for_seen(1));
    expect_seen(0, kOpWriteReg, payload.data(), 65536);
    ASSERT_TRUE(read_bytes(fd, reply_head, kHeader));
}

TEST_F(IpcTransportServed, ZeroLengthPayload)
{
    Client c = client_open();
    Received reply;

    client_send(c, 0xdb000a, nullptr, 0);
    ASSERT_TRUE(server_.wait_for_seen(1));
    expect_seen(0, 0xdb000a, nullptr, 0);
    ASSERT_EQ(client_recv(c, reply, kWaitMs), 0);
    expect_reply_header(reply.msg, conn_of(0), 0xdb000a, 0);
    EXPECT_EQ(reply.msg.payload, nullptr);
    EXPECT_EQ(client_recv(c, reply, kQuietMs), -ETIMEDOUT);
    EXPECT_EQ(reply.msg.payload, nullptr);
}

/* Replies */

TEST_F(IpcTransportServed, RepliesInOrderOnOneConnection)
{
    static const uint32_t ops[] = {0xdb0002, 0xdb0003, 0xdb0004, 0xdb0005,
                                   0xdb0007};
    uint8_t payloads[5][5];
    Client c = client_open();
    Received reply;

    for (size_t i = 0; i < 5; i++) {
        fill_pattern(payloads[i], i + 1, static_cast<unsigned>(i) + 100);
        client_send(c, ops[i], payloads[i], static_cast<uint32_t>(i) + 1);
    }
    for (size_t i = 0; i < 5; i++) {
        ASSERT_EQ(client_recv(c, reply, kWaitMs), 0);
        expect_reply_header(reply.msg, conn_of(0), ops[i],
                            static_cast<uint32_t>(i) + 1);
        EXPECT_TRUE(is_echo_of(reply.bytes(), payloads[i],
                               static_cast<uint32_t>(i) + 1));
    }
}

TEST_F(IpcTransportServed, NicStatsReplyOf16Plus8360Bytes)
{
    uint8_t request[16] = {4, 0, 0, 0, 1, 0, 0, 0}; /* nic, pipe 1 */
    static const uint8_t head[16] = {
        0x04, 0x00, 0x00, 0x00,                         /* module id: nic */
        0x01, 0x00, 0x00, 0x00,                         /* pipe 1 */
        0xa8, 0x20, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, /* N: 8360 */
    };
    std::vector<uint8_t> expected(16 + kNicStatsSize);
    Client c = client_open();
    Received reply;

    memcpy(expected.data(), head, sizeof(head));
    for (size_t i = 0; i < kNicStatsSize; i++)
        expected[16 + i] = stats_byte(i);
    client_send(c, kOpGetStats, request, sizeof(request));
    ASSERT_EQ(client_recv(c, reply, kWaitMs), 0);
    expect_reply_header(reply.msg, conn_of(0), kOpGetStats, 16 + kNicStatsSize);
    EXPECT_TRUE(same_bytes(reply.bytes(), expected.data(), expected.size()));
}

/* Largest replies: more than the socket takes, within a connection's cap. */
constexpr unsigned kSlowReplies = 5;
static_assert(kSlowReplies * (kHeader + IPC_MAX_PAYLOAD) > 212992);

/* Sent from this thread while the server thread waits in ipc_recv: more
 * than the socket takes, so the rest goes out as the client reads. */
TEST_F(IpcTransportServed, RepliesWaitForASlowReader)
{
    Client c = client_open();
    uint32_t id = silent_request(c);
    Received reply;

    for (unsigned i = 0; i < kSlowReplies; i++)
        ASSERT_EQ(send_pattern(id, i), 0) << "reply " << i;
    sleep_ms(kQuietMs);
    for (unsigned i = 0; i < kSlowReplies; i++) {
        ASSERT_EQ(client_recv(c, reply, kWaitMs), 0) << "reply " << i;
        expect_pattern_reply(reply.msg, id, i);
    }
}

/* Closed at its cap with one line, while another client is served. */
TEST_F(IpcTransportServed, ClientThatNeverReadsIsDropped)
{
    Client c = client_open();
    uint32_t id = silent_request(c);
    unsigned sent = 0, received = 0;
    Received reply;
    int rc;

    while ((rc = send_pattern(id, sent)) == 0 && sent < 40)
        sent++;
    EXPECT_EQ(rc, -ENOBUFS);
    EXPECT_GT(sent * (kHeader + IPC_MAX_PAYLOAD), IPC_MAX_PENDING_OUTPUT);
    EXPECT_EQ(send_pattern(id, 0), -ENOTCONN);
    expect_single_log(LOG_WARNING, "IPC connection closed: more than 262272 "
                                   "bytes of replies unread");
    server_.set_mode(ReplyMode::echo);
    Client other = client_open();
    ASSERT_NO_FATAL_FAILURE(round_trip(other, 1));

    while ((rc = client_recv(c, reply, kWaitMs)) == 0 && received <= sent)
        expect_pattern_reply(reply.msg, id, received++);
    EXPECT_EQ(rc, -ECONNRESET);
    EXPECT_GE(received, 1u);
    EXPECT_LT(received, sent);
    EXPECT_EQ(syslog_capture_count(), 1u);
}

/* The unread replies of all connections together have a cap too. */
class IpcTransportTotalCap : public IpcTransportServed
{
    void set_limits(plat::ipc::Limits &l) override
    {
        l.pending_output_total = 128 * 1024;
    }
};

TEST_F(IpcTransportTotalCap, ClientsTogetherOverTheCapAreClosed)
{
    Client c = client_open();
    uint32_t id = silent_request(c);
    unsigned sent = 0;
    int rc;

    while ((rc = send_pattern(id, sent)) == 0 && sent < 40)
        sent++;
    EXPECT_EQ(rc, -ENOBUFS);
    EXPECT_EQ(send_pattern(id, 0), -ENOTCONN);
    expect_single_log(LOG_WARNING,
                      "IPC connection closed: more than 131072 bytes of "
                      "replies unread by all clients together");
    server_.set_mode(ReplyMode::echo);
    Client other = client_open();
    ASSERT_NO_FATAL_FAILURE(round_trip(other, 1));
}

TEST_F(IpcTransportServed, HalfClosedClientGetsItsReplies)
{
    uint8_t buf[3 * kHeader + 20], payloads[3][12], reply_bytes[12];
    size_t len = 0;
    ipc_msg_t reply;
    UniqueFd fd = raw_connect();

    for (size_t i = 0; i < 3; i++) {
        fill_pattern(payloads[i], sizeof(payloads[i]),
                     static_cast<unsigned>(i));
        len += put_frame(buf + len, three_frames[i].op_id, payloads[i],
                         three_frames[i].len);
    }
    write_bytes(fd, buf, len);
    ASSERT_EQ(shutdown(fd.get(), SHUT_WR), 0);
    for (size_t i = 0; i < 3; i++) {
        ASSERT_NO_FATAL_FAILURE(
            read_reply(fd, &reply, reply_bytes, sizeof(reply_bytes)));
        EXPECT_EQ(reply.op_id, three_frames[i].op_id);
        EXPECT_TRUE(is_echo_of(reply_bytes, payloads[i], three_frames[i].len));
    }
    EXPECT_TRUE(closed_by_server(fd));
}

/* The replies queued when the client shuts its side still go out. */
TEST_F(IpcTransportServed, HalfClosedClientGetsQueuedReplies)
{
    uint8_t frame[kHeader + 8] = {0};
    std::vector<uint8_t> bytes(IPC_MAX_PAYLOAD);
    ipc_msg_t reply;
    uint32_t id;
    UniqueFd fd = raw_connect();

    server_.set_mode(ReplyMode::none);
    write_bytes(fd, frame, put_frame(frame, kOpReadReg, "1234567", 8));
    ASSERT_TRUE(server_.wait_for_seen(1));
    id = conn_of(0);
    for (unsigned i = 0; i < kSlowReplies; i++)
        ASSERT_EQ(send_pattern(id, i), 0) << "reply " << i;
    ASSERT_EQ(shutdown(fd.get(), SHUT_WR), 0);
    sleep_ms(kQuietMs);
    for (unsigned i = 0; i < kSlowReplies; i++) {
        ASSERT_NO_FATAL_FAILURE(
            read_reply(fd, &reply, bytes.data(), bytes.size()))
            << "reply " << i;
        reply.payload = bytes.data();
        expect_pattern_reply(reply, id, i);
    }
    EXPECT_TRUE(closed_by_server(fd));
}

/* Connections */

bool fds_back_to(size_t baseline)
{
    int64_t deadline = now_ms() + kWaitMs;

    while (count_open_fds() != baseline) {
        if (now_ms() > deadline)
            return false;
        sleep_ms(5);
    }
    return true;
}

TEST_F(IpcTransportServed, ClosedConnectionsAreReleased)
{
    uint8_t frame[kHeader + 8] = {0};
    size_t baseline = count_open_fds();
    UniqueFd half = raw_connect(), whole = raw_connect(), idle = raw_connect();

    put_frame(frame, kOpReadReg, "12345678", 8);
    write_bytes(half, frame, 20);
    write_bytes(whole, frame, sizeof(frame));
    ASSERT_TRUE(server_.wait_for_seen(1));
    half.reset();
    whole.reset();
    idle.reset();
    EXPECT_TRUE(fds_back_to(baseline))
        << count_open_fds() << " fds open, " << baseline << " before";
}

/* Served with room for four connections. */
class IpcTransportFourConnections : public IpcTransportServed
{
    void set_limits(plat::ipc::Limits &l) override
    {
        l.connections = 4;
    }
};

/* Beyond the limit, clients wait to be accepted (one line says so) and
 * are served as others leave. */
TEST_F(IpcTransportFourConnections, ConnectionsBeyondTheLimitWait)
{
    std::vector<UniqueFd> fds;
    uint8_t frame[kHeader + 8], reply_bytes[8];
    const auto *sent = reinterpret_cast<const uint8_t *>("abcdefgh");
    ipc_msg_t reply;

    put_frame(frame, kOpWriteReg, sent, 8);
    for (size_t i = 0; i < 6; i++) {
        fds.push_back(raw_connect());
        ASSERT_TRUE(fds.back().valid()) << "connection " << i;
    }
    write_bytes(fds[3], frame, sizeof(frame));
    ASSERT_NO_FATAL_FAILURE(read_reply(fds[3], &reply, reply_bytes, 8));
    EXPECT_TRUE(is_echo_of(reply_bytes, sent, 8));
    write_bytes(fds[4], frame, sizeof(frame));
    EXPECT_TRUE(nothing_to_read(fds[4]));
    expect_single_log(LOG_WARNING, "IPC connections at the limit of 4: new "
                                   "clients wait until one closes");

    fds[0].reset();
    ASSERT_NO_FATAL_FAILURE(read_reply(fds[4], &reply, reply_bytes, 8));
    EXPECT_TRUE(is_echo_of(reply_bytes, sent, 8));
    write_bytes(fds[5], frame, sizeof(frame));
    EXPECT_TRUE(nothing_to_read(fds[5]));
    fds[1].reset();
    ASSERT_NO_FATAL_FAILURE(read_reply(fds[5], &reply, reply_bytes, 8));
    EXPECT_TRUE(is_echo_of(reply_bytes, sent, 8));
    EXPECT_EQ(syslog_capture_count(), 1u);
}

/* A thousand clients at once, each answered with its own bytes. */
TEST_F(IpcTransportServed, ThousandConnectionsAllGetReplies)
{
    constexpr size_t kClients = 1000;
    rlimit lim;

    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &lim), 0);
    lim.rlim_cur = lim.rlim_max;
    if (lim.rlim_max < 2 * kClients + 200 || setrlimit(RLIMIT_NOFILE, &lim))
        GTEST_SKIP() << "needs " << 2 * kClients + 200
                     << " open files, the hard limit is " << lim.rlim_max;
    std::vector<UniqueFd> fds;
    for (size_t i = 0; i < kClients; i++) {
        fds.push_back(raw_connect());
        ASSERT_TRUE(fds.back().valid()) << "connection " << i;
    }
    for (unsigned round = 0; round < 2; round++) {
        uint8_t frame[kHeader + 8], payload[8], reply_bytes[8];
        ipc_msg_t reply;

        for (size_t i = 0; i < kClients; i++) {
            fill_pattern(payload, 8, static_cast<unsigned>(i + round));
            put_frame(frame, kOpWriteReg, payload, 8);
            write_bytes(fds[i], frame, sizeof(frame));
        }
        for (size_t i = 0; i < kClients; i++) {
            fill_pattern(payload, 8, static_cast<unsigned>(i + round));
            ASSERT_NO_FATAL_FAILURE(read_reply(fds[i], &reply, reply_bytes, 8))
                << "client " << i << " round " << round;
            ASSERT_EQ(reply.op_id, kOpWriteReg);
            ASSERT_TRUE(is_echo_of(reply_bytes, payload, 8)) << "client " << i;
        }
    }
    EXPECT_EQ(syslog_capture_count(), 0u);
}

/* A partial message is given a second before its connection is closed. */
class IpcTransportShortDeadline : public IpcTransportServed
{
    void set_limits(plat::ipc::Limits &l) override
    {
        l.partial_message = std::chrono::seconds(1);
    }
};

TEST_F(IpcTransportShortDeadline, PartialMessageClosedAfterItsDeadline)
{
    uint8_t frame[kHeader + 8];
    UniqueFd stalled = raw_connect(), idle = raw_connect();
    Client other = client_open();
    int64_t start = now_ms();

    put_frame(frame, kOpWriteReg, "12345678", 8);
    write_bytes(stalled, frame, kHeader + 3);
    ASSERT_NO_FATAL_FAILURE(round_trip(other, 0));
    EXPECT_TRUE(closed_by_server(stalled));
    EXPECT_GE(now_ms() - start, 1000);
    expect_single_log(LOG_WARNING,
                      "IPC connection closed: part of a message held for 1 s");
    EXPECT_TRUE(nothing_to_read(idle)) << "a connection with nothing begun "
                                          "stays open";
    ASSERT_NO_FATAL_FAILURE(round_trip(other, 1));
}

/* A clock the test moves on. */
constinit std::atomic<int64_t> clock_ahead_s{0};

plat::ipc::Clock::time_point moved_clock()
{
    return plat::ipc::Clock::now() + std::chrono::seconds(clock_ahead_s.load());
}

class IpcTransportMovedClock : public IpcTransportServed
{
    void set_limits(plat::ipc::Limits &l) override
    {
        clock_ahead_s.store(0);
        l.now = moved_clock;
    }
};

/* Each of n connections announces a payload too long and is closed. */
void too_long_from(size_t n)
{
    ipc_msg_t header = request_header(kOpReadReg, IPC_MAX_PAYLOAD + 1);

    for (size_t i = 0; i < n; i++) {
        UniqueFd fd = raw_connect();

        write_bytes(fd, &header, kHeader);
        EXPECT_TRUE(closed_by_server(fd)) << "connection " << i;
    }
}

bool log_count_reaches(size_t n)
{
    int64_t deadline = now_ms() + kWaitMs;

    while (syslog_capture_count() < n && now_ms() < deadline)
        sleep_ms(5);
    return syslog_capture_count() >= n;
}

TEST_F(IpcTransportMovedClock, FloodOfDropsGivesOneLineAMinute)
{
    too_long_from(20);
    EXPECT_EQ(syslog_capture_count(), 1u);
    EXPECT_STREQ(syslog_capture_get(0)->text,
                 "IPC connection closed: payload length 65537 above 65536");
    clock_ahead_s.store(59);
    too_long_from(1);
    sleep_ms(kQuietMs);
    EXPECT_EQ(syslog_capture_count(), 1u) << "a line before the minute";
    clock_ahead_s.store(60);
    ASSERT_TRUE(log_count_reaches(2));
    EXPECT_STREQ(syslog_capture_get(1)->text,
                 "IPC connections closed for a payload length above 65536: "
                 "20 since the last report");
    EXPECT_EQ(syslog_capture_get(1)->severity, LOG_WARNING);
    too_long_from(5);
    sleep_ms(kQuietMs);
    EXPECT_EQ(syslog_capture_count(), 2u);
    clock_ahead_s.store(120);
    ASSERT_TRUE(log_count_reaches(3));
    EXPECT_STREQ(syslog_capture_get(2)->text,
                 "IPC connections closed for a payload length above 65536: "
                 "5 since the last report");
    sleep_ms(kQuietMs);
    EXPECT_EQ(syslog_capture_count(), 3u);
}

TEST_F(IpcTransportServed, LiveSocketIsNotReplaced)
{
    Ctx second(kAppId);
    struct stat st;

    EXPECT_EQ(ipc_ctx_add_endpoint(second.get(), kAppId, IPC_SOCK_SERVER, 1),
              -EADDRINUSE);
    expect_single_log(LOG_ERR,
                      "IPC endpoint 219 not opened: Address already in use");
    second.destroy();
    EXPECT_EQ(lstat(kSocketPath, &st), 0);
    Client c = client_open();
    ASSERT_NO_FATAL_FAILURE(round_trip(c, 0));
}

/* Endpoint */

/* Sets the umask for a scope. */
class UmaskScope
{
  public:
    explicit UmaskScope(mode_t mask) : old_(umask(mask))
    {
    }
    UmaskScope(const UmaskScope &) = delete;
    UmaskScope &operator=(const UmaskScope &) = delete;
    ~UmaskScope()
    {
        umask(old_);
    }

  private:
    mode_t old_;
};

TEST_F(IpcTransportEndpoint, EndpointCreatesDirectoriesAndModes)
{
    group *grp = getgrnam(IPC_SOCKET_GROUP);
    gid_t expected_gid = grp != nullptr ? grp->gr_gid : 0;
    Ctx ctx(kAppId);
    struct stat st;

    ASSERT_EQ(access(kRunOrvel, F_OK), -1) << "a fresh /run has no /run/orvel";
    {
        UmaskScope mask(077);

        ASSERT_EQ(ipc_ctx_add_endpoint(ctx.get(), kAppId, IPC_SOCK_SERVER, 1),
                  0);
    }
    ASSERT_EQ(stat(kRunOrvel, &st), 0);
    EXPECT_TRUE(S_ISDIR(st.st_mode));
    EXPECT_EQ(st.st_mode & 07777, 0755u);
    ASSERT_EQ(stat(kSocketDir, &st), 0);
    EXPECT_TRUE(S_ISDIR(st.st_mode));
    EXPECT_EQ(st.st_mode & 07777, 0755u);
    ASSERT_EQ(lstat(kSocketPath, &st), 0);
    EXPECT_TRUE(S_ISSOCK(st.st_mode));
    EXPECT_EQ(st.st_mode & 07777, 0660u);
    EXPECT_EQ(st.st_gid, expected_gid);
    ctx.destroy();
    EXPECT_EQ(lstat(kSocketPath, &st), -1);
    EXPECT_EQ(errno, ENOENT);
}

int inline_callbacks;
void *inline_payload_seen;

void count_callback(void *, ipc_msg_t *msg) noexcept
{
    inline_callbacks++;
    inline_payload_seen = msg->payload;
}

/* One request and its reply with ipc_recv on this thread. */
void serves_inline(uint64_t ctx)
{
    uint8_t request[8] = {0x0f, 0x1e, 0x2d, 0x3c, 0x4b, 0x5a, 0x69, 0x78};
    Client c = client_open();
    Received msg, reply;

    inline_callbacks = 0;
    ASSERT_EQ(ipc_ctx_init_proxy(ctx, 1, count_callback, 0), 0);
    client_send(c, kOpReadReg, request, sizeof(request));
    ASSERT_EQ(ipc_recv(ctx, &msg.msg, kWaitMs), 0);
    EXPECT_EQ(inline_callbacks, 1);
    EXPECT_EQ(inline_payload_seen, msg.msg.payload);
    EXPECT_NE(msg.msg.addr0, 0u);
    EXPECT_EQ(msg.msg.addr1, kAppId);
    ASSERT_EQ(msg.msg.payload_len, sizeof(request));
    EXPECT_TRUE(same_bytes(msg.msg.payload, request, sizeof(request)));
    ASSERT_EQ(answer(ctx, &msg.msg), 0);
    ASSERT_EQ(client_recv(c, reply, kWaitMs), 0);
    expect_reply_header(reply.msg, msg.msg.addr0, kOpReadReg, sizeof(request));
    EXPECT_TRUE(is_echo_of(reply.bytes(), request, sizeof(request)));
}

/* A socket directory that others may write is made 0755, said once. */
TEST_F(IpcTransportEndpoint, SocketDirectoryOthersCouldWriteIsRepaired)
{
    Ctx ctx(kAppId);
    struct stat st;

    ASSERT_NO_FATAL_FAILURE(make_socket_dir());
    ASSERT_EQ(chmod(kSocketDir, 0777), 0);
    ASSERT_EQ(ipc_ctx_add_endpoint(ctx.get(), kAppId, IPC_SOCK_SERVER, 1), 0);
    ASSERT_EQ(stat(kSocketDir, &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0755u);
    expect_single_log(LOG_WARNING, "IPC socket directory /run/orvel/ipc was "
                                   "mode 0777, others could write it: now "
                                   "0755");
    serves_inline(ctx.get());
}

/* A socket directory of another user is refused, as a failed endpoint. */
TEST_F(IpcTransportEndpoint, SocketDirectoryOfAnotherUserIsRefused)
{
    Ctx ctx(kAppId);
    struct stat st;

    ASSERT_NO_FATAL_FAILURE(make_socket_dir());
    if (geteuid() != 0)
        GTEST_SKIP() << "only root can give the directory to another user";
    ASSERT_EQ(chown(kSocketDir, kNobody, kNobody), 0) << strerror(errno);
    EXPECT_EQ(ipc_ctx_add_endpoint(ctx.get(), kAppId, IPC_SOCK_SERVER, 1),
              -EPERM);
    expect_single_log(LOG_ERR, "IPC endpoint 219 not opened: /run/orvel/ipc "
                               "is owned by uid 65534, not 0");
    EXPECT_EQ(lstat(kSocketPath, &st), -1);
    EXPECT_EQ(errno, ENOENT);
}

/* A link planted at the lock's path is removed, never followed. */
TEST_F(IpcTransportEndpoint, LinkAtTheLockPathIsNotFollowed)
{
    constexpr const char *kLockPath = "/run/orvel/ipc/219.sock.lock";
    constexpr const char *kTarget = "/run/planted-target";
    Ctx ctx(kAppId);
    struct stat st;

    ASSERT_NO_FATAL_FAILURE(make_socket_dir());
    ASSERT_EQ(symlink(kTarget, kLockPath), 0) << strerror(errno);
    ASSERT_EQ(ipc_ctx_add_endpoint(ctx.get(), kAppId, IPC_SOCK_SERVER, 1), 0);
    EXPECT_EQ(lstat(kTarget, &st), -1) << "the link was followed";
    ASSERT_EQ(lstat(kLockPath, &st), 0);
    EXPECT_TRUE(S_ISREG(st.st_mode));
    expect_single_log(LOG_WARNING, "IPC endpoint 219: removed a symbolic link "
                                   "at /run/orvel/ipc/219.sock.lock");
    serves_inline(ctx.get());
}

TEST_F(IpcTransportEndpoint, StaleSocketIsReplaced)
{
    Ctx ctx(kAppId);

    ASSERT_NO_FATAL_FAILURE(make_socket_dir());
    unlink(kSocketPath);
    ASSERT_NO_FATAL_FAILURE(make_stale_socket(kSocketPath));
    ASSERT_EQ(ipc_ctx_add_endpoint(ctx.get(), kAppId, IPC_SOCK_SERVER, 1), 0);
    serves_inline(ctx.get());
}

TEST_F(IpcTransportEndpoint, FileThatIsNotASocketIsKept)
{
    Ctx ctx(kAppId);
    char content[8] = {0};

    ASSERT_NO_FATAL_FAILURE(make_socket_dir());
    unlink(kSocketPath);
    {
        UniqueFd fd(
            open(kSocketPath, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644));

        ASSERT_TRUE(fd.valid()) << strerror(errno);
        ASSERT_EQ(write(fd.get(), "keep", 4), 4);
    }
    EXPECT_EQ(ipc_ctx_add_endpoint(ctx.get(), kAppId, IPC_SOCK_SERVER, 1),
              -EEXIST);
    {
        UniqueFd fd(open(kSocketPath, O_RDONLY | O_CLOEXEC));

        ASSERT_TRUE(fd.valid()) << strerror(errno);
        EXPECT_EQ(read(fd.get(), content, sizeof(content)), 4);
    }
    EXPECT_STREQ(content, "keep");
    unlink(kSocketPath);
}

/* A server that does not take the transport's lock is still seen. */
TEST_F(IpcTransportEndpoint, ForeignLiveSocketIsNotReplaced)
{
    sockaddr_un addr = unix_address(kOtherPath);
    Ctx ctx(kOtherAppId);
    UniqueFd listener(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));

    ASSERT_TRUE(listener.valid()) << strerror(errno);
    ASSERT_NO_FATAL_FAILURE(make_socket_dir());
    unlink(kOtherPath);
    ASSERT_EQ(
        bind(listener.get(), reinterpret_cast<sockaddr *>(&addr), sizeof(addr)),
        0)
        << strerror(errno);
    ASSERT_EQ(listen(listener.get(), 4), 0);
    EXPECT_EQ(ipc_ctx_add_endpoint(ctx.get(), kOtherAppId, IPC_SOCK_SERVER, 1),
              -EADDRINUSE);
    ctx.destroy();
    UniqueFd client = raw_connect_to(kOtherPath);
    UniqueFd accepted(accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
    EXPECT_TRUE(accepted.valid()) << strerror(errno);
    unlink(kOtherPath);
}

/* Client side */

TEST(IpcTransport, SocketPathOfAnAppId)
{
    char path[64], small[16];

    ASSERT_EQ(ipc_socket_path(kAppId, path, sizeof(path)), 0);
    EXPECT_STREQ(path, "/run/orvel/ipc/219.sock");
    EXPECT_EQ(ipc_socket_path(kAppId, small, sizeof(small)), -ENAMETOOLONG);
}

/* Exit codes of the child that tries the socket as nobody. */
constexpr int kRefusedAsExpected = 0;
constexpr int kCannotBecomeNobody = 1;
constexpr int kNotRefused = 2;

/* In a child: becomes nobody and must be refused the socket. Says on
 * report_fd why it could not become nobody, or what it got instead. */
[[noreturn]] void open_as_nobody(int report_fd)
{
    const char *step = nullptr;
    ipc_client *c = nullptr;
    int rc;

    if (setgroups(0, nullptr) != 0)
        step = "setgroups";
    else if (setgid(kNobody) != 0)
        step = "setgid";
    else if (setuid(kNobody) != 0)
        step = "setuid";
    if (step != nullptr) {
        dprintf(report_fd, "%s: %s", step, strerror(errno));
        _exit(kCannotBecomeNobody);
    }
    rc = ipc_client_open(kSocketPath, &c);
    if (rc != -EACCES || c != nullptr) {
        dprintf(report_fd, "ipc_client_open returned %d (%s), client %s", rc,
                strerror(-rc), c != nullptr ? "set" : "null");
        _exit(kNotRefused);
    }
    if (unlink(kSocketPath) == 0 || errno != EACCES) {
        dprintf(report_fd, "unlink of the socket: %s", strerror(errno));
        _exit(kNotRefused);
    }
    sockaddr_un addr = unix_address(kOtherPath);
    int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    if (bind(fd, reinterpret_cast<sockaddr *>(&addr), sizeof(addr)) == 0 ||
        errno != EACCES) {
        dprintf(report_fd, "a socket of its own beside it: %s",
                strerror(errno));
        _exit(kNotRefused);
    }
    _exit(kRefusedAsExpected);
}

std::string read_report(const UniqueFd &fd)
{
    std::string text;
    char buf[256];
    ssize_t n;

    while ((n = read(fd.get(), buf, sizeof(buf))) > 0)
        text.append(buf, static_cast<size_t>(n));
    return text;
}

TEST_F(IpcTransportEndpoint, ClientOpenErrors)
{
    std::string long_path(199, 'x');
    ipc_client *c = reinterpret_cast<ipc_client *>(&c); /* any non-null */
    Ctx ctx(kAppId);
    int pipe_fds[2];
    int status = 0;

    ASSERT_NO_FATAL_FAILURE(make_socket_dir());
    unlink(kSocketPath);
    EXPECT_EQ(ipc_client_open(kSocketPath, &c), -ENOENT);
    EXPECT_EQ(c, nullptr);
    ASSERT_NO_FATAL_FAILURE(make_stale_socket(kSocketPath));
    EXPECT_EQ(ipc_client_open(kSocketPath, &c), -ECONNREFUSED);
    EXPECT_EQ(ipc_client_open(long_path.c_str(), &c), -ENAMETOOLONG);

    ASSERT_EQ(ipc_ctx_add_endpoint(ctx.get(), kAppId, IPC_SOCK_SERVER, 1), 0);
    ASSERT_EQ(pipe2(pipe_fds, O_CLOEXEC), 0) << strerror(errno);
    UniqueFd report(pipe_fds[0]), report_w(pipe_fds[1]);
    pid_t pid = fork();
    ASSERT_GE(pid, 0) << "fork: " << strerror(errno);
    if (pid == 0)
        open_as_nobody(report_w.get());
    Child child(pid);
    report_w.reset();
    ASSERT_EQ(child.wait(kWaitMs, &status), 0) << strerror(errno);
    std::string why = read_report(report);
    ASSERT_TRUE(WIFEXITED(status)) << "status " << status;
    if (WEXITSTATUS(status) == kCannotBecomeNobody)
        GTEST_SKIP() << "cannot become nobody (uid " << kNobody
                     << ") to be refused the socket: " << why
                     << " (run as root outside a user namespace)";
    EXPECT_EQ(WEXITSTATUS(status), kRefusedAsExpected) << why;
}

/* Arguments, timeouts, diagnostics */

void expect_all_zero(const ipc_msg_t &msg)
{
    static const ipc_msg_t zero{};

    EXPECT_TRUE(same_bytes(&msg, &zero, sizeof(zero)));
}

TEST_F(IpcTransportEndpoint, RecvTimeoutAndBadArguments)
{
    Ctx ctx(kAppId);
    ipc_msg_t msg;
    int64_t start;

    ASSERT_NE(ctx.get(), 0u);
    memset(&msg, 0xff, sizeof(msg));
    EXPECT_EQ(ipc_recv(ctx.get(), &msg, 10), -ENOTCONN);
    expect_all_zero(msg);
    EXPECT_EQ(ipc_ctx_add_endpoint(ctx.get(), kAppId, 1, 1), -EINVAL);
    ASSERT_EQ(ipc_ctx_add_endpoint(ctx.get(), kAppId, IPC_SOCK_SERVER, 1), 0);
    EXPECT_EQ(ipc_ctx_add_endpoint(ctx.get(), kAppId, IPC_SOCK_SERVER, 1),
              -EEXIST);
    memset(&msg, 0xff, sizeof(msg));
    start = now_ms();
    EXPECT_EQ(ipc_recv(ctx.get(), &msg, 50), -ETIMEDOUT);
    EXPECT_GE(now_ms() - start, 49);
    EXPECT_LT(now_ms() - start, kWaitMs);
    expect_all_zero(msg);

    EXPECT_EQ(ipc_recv(0, &msg, 10), -EINVAL);
    EXPECT_EQ(ipc_recv(ctx.get(), nullptr, 10), -EINVAL);
    EXPECT_EQ(ipc_ctx_init_proxy(0, 1, count_callback, 0), -EINVAL);
    EXPECT_EQ(ipc_ctx_add_endpoint(0, kAppId, IPC_SOCK_SERVER, 1), -EINVAL);
}

/* ipc_send frees the payload on every path; LeakSanitizer checks it. */
TEST_F(IpcTransportEndpoint, SendRefusalsFreeThePayload)
{
    Ctx ctx(kAppId);
    ipc_msg_t msg;

    ASSERT_EQ(ipc_ctx_add_endpoint(ctx.get(), kAppId, IPC_SOCK_SERVER, 1), 0);
    msg = message_to(1, IPC_MAX_PAYLOAD + 1, must_alloc(IPC_MAX_PAYLOAD + 1));
    EXPECT_EQ(ipc_send(ctx.get(), &msg, 1), -EMSGSIZE);
    EXPECT_EQ(msg.payload, nullptr);
    msg = message_to(7, 4, must_alloc(4));
    EXPECT_EQ(ipc_send(ctx.get(), &msg, 1), -ENOTCONN);
    EXPECT_EQ(msg.payload, nullptr);
    msg = message_to(7, 4, must_alloc(4));
    EXPECT_EQ(ipc_send(0, &msg, 1), -EINVAL);
    EXPECT_EQ(msg.payload, nullptr);
    msg = message_to(7, 4, nullptr);
    EXPECT_EQ(ipc_send(ctx.get(), &msg, 1), -EINVAL);
    EXPECT_EQ(ipc_send(ctx.get(), nullptr, 1), -EINVAL);
}

/* Points stderr at another fd for a scope. */
class StderrTo
{
  public:
    explicit StderrTo(int fd) : saved_(dup(STDERR_FILENO))
    {
        dup2(fd, STDERR_FILENO);
    }
    StderrTo(const StderrTo &) = delete;
    StderrTo &operator=(const StderrTo &) = delete;
    ~StderrTo()
    {
        dup2(saved_.get(), STDERR_FILENO);
    }

  private:
    UniqueFd saved_;
};

TEST(IpcTransport, DebugMsgPrintsOneLine)
{
    const ipc_msg_t msg = {.addr0 = 1,
                           .addr1 = kAppId,
                           .op_id = kOpReadReg,
                           .aux_byte = 1,
                           .msg_type = 2,
                           .reserved = 0,
                           .payload_len = 0,
                           .padding = 0,
                           .payload = nullptr};
    int pipe_fds[2];

    ASSERT_EQ(pipe2(pipe_fds, O_CLOEXEC), 0);
    UniqueFd out(pipe_fds[0]), in(pipe_fds[1]);
    {
        StderrTo redirect(in.get());

        ipc_debug_msg(&msg);
        ipc_debug_msg(nullptr);
    }
    in.reset();
    EXPECT_EQ(read_report(out), "ipc msg: addr0 0x00000001 addr1 0x000000db "
                                "op_id 0x00db0002 aux_byte 1 msg_type 2 "
                                "reserved 0 payload_len 0 payload (nil)\n"
                                "ipc msg: null\n");
}

} // namespace
