/* The host IPC transport (host.md section 3, Part 1.5): a server context
 * served by a thread of the test, clients through the client API or raw
 * sockets for malformed and split frames. Runs with a private /run. */
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <grp.h>
#include <poll.h>
#include <pthread.h>
#include <stdatomic.h>
#include <stdbool.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <syslog.h>
#include <time.h>
#include <unistd.h>

#include "cmocka_all.h"
#include "plat_ipc.h"
#include "simboard.hpp"
#include "syslog_capture.hpp"

static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__,
               "the wire bytes below are written little-endian");

#define APP_ID         219
#define RUN_ORVEL      "/run/orvel"
#define SOCKET_DIR     "/run/orvel/ipc"
#define SOCKET_PATH    "/run/orvel/ipc/219.sock"
#define OTHER_APP_ID   220
#define OTHER_PATH     "/run/orvel/ipc/220.sock"
#define NOBODY         65534
#define OP_READ_REG    0xdb0002u
#define OP_WRITE_REG   0xdb0003u
#define OP_GET_STATS   0xdb0006u
#define NIC_STATS_SIZE 8360u
#define REPLY_XOR      0x5a
#define WAIT_MS        5000 /* no wait of a test lasts longer */
#define QUIET_MS       100  /* enough for a message that is not coming */
#define SERVER_POLL_MS 20
#define MAX_SEEN       128
#define HEADER         IPC_MSG_HEADER_SIZE

/* Allocation watch: linked with -Wl,--wrap=malloc (and calloc, realloc)
 * every allocation of the transport passes here; without it the __real_
 * symbols are null and the size checks are skipped. */
extern void *__real_malloc(size_t size) __attribute__((weak));
extern void *__real_calloc(size_t n, size_t size) __attribute__((weak));
extern void *__real_realloc(void *p, size_t size) __attribute__((weak));
void *__wrap_malloc(size_t size);
void *__wrap_calloc(size_t n, size_t size);
void *__wrap_realloc(void *p, size_t size);

static atomic_size_t largest_allocation;

static void note_allocation(size_t size)
{
    size_t seen = atomic_load(&largest_allocation);

    while (size > seen &&
           !atomic_compare_exchange_weak(&largest_allocation, &seen, size)) {
    }
}

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

static bool allocations_watched(void)
{
    return __real_malloc != NULL;
}

static void *must_alloc(size_t size)
{
    void *p = malloc(size);

    if (p == NULL)
        abort(); /* test code only */
    return p;
}

/* Time */

static int64_t now_ms(void)
{
    struct timespec ts;

    clock_gettime(CLOCK_MONOTONIC, &ts);
    return (int64_t)ts.tv_sec * 1000 + ts.tv_nsec / 1000000;
}

static struct timespec deadline_in(int ms)
{
    struct timespec ts;

    clock_gettime(CLOCK_MONOTONIC, &ts);
    ts.tv_sec += ms / 1000;
    ts.tv_nsec += (long)(ms % 1000) * 1000000;
    if (ts.tv_nsec >= 1000000000) {
        ts.tv_sec++;
        ts.tv_nsec -= 1000000000;
    }
    return ts;
}

static void sleep_ms(int ms)
{
    struct timespec ts = {.tv_sec = ms / 1000,
                          .tv_nsec = (long)(ms % 1000) * 1000000};

    nanosleep(&ts, NULL);
}

/* The server thread */

enum reply_mode { REPLY_NONE, REPLY_ECHO, REPLY_AFTER_GATE };

struct seen_msg {
    ipc_msg_t record; /* as the callback got it */
    uint8_t *bytes;   /* a copy of its payload */
};

static struct test_server {
    uint64_t ctx;
    pthread_t thread;
    atomic_bool stop;
    pthread_mutex_t lock;
    pthread_cond_t changed;
    enum reply_mode mode;
    bool gate_open;
    struct seen_msg seen[MAX_SEEN];
    size_t seen_count;
    int send_results[MAX_SEEN];
    size_t send_count;
    int recv_failures;
} server = {
    .lock = PTHREAD_MUTEX_INITIALIZER,
};

static uint8_t stats_byte(size_t i)
{
    return (uint8_t)(i * 7 + 3);
}

/* Part 1.4's get stats reply for the nic: module id and pipe echoed, N,
 * then N bytes. */
static void *nic_stats_reply(const ipc_msg_t *request, uint32_t *len)
{
    uint64_t size = NIC_STATS_SIZE;
    uint8_t *payload = must_alloc(16 + NIC_STATS_SIZE);

    memcpy(payload, request->payload, 8);
    memcpy(payload + 8, &size, sizeof(size));
    for (size_t i = 0; i < NIC_STATS_SIZE; i++)
        payload[16 + i] = stats_byte(i);
    *len = 16 + NIC_STATS_SIZE;
    return payload;
}

static void *echo_reply(const ipc_msg_t *request, uint32_t *len)
{
    const uint8_t *bytes = request->payload;
    uint8_t *payload;

    *len = request->payload_len;
    if (*len == 0)
        return NULL;
    payload = must_alloc(*len);
    for (size_t i = 0; i < *len; i++)
        payload[i] = bytes[i] ^ REPLY_XOR;
    return payload;
}

static int answer(uint64_t ctx, const ipc_msg_t *request)
{
    ipc_msg_t reply = {
        .addr0 = request->addr1,
        .addr1 = request->addr0,
        .op_id = request->op_id,
        .aux_byte = 1,
        .msg_type = 2,
        .padding = 0xaaaaaaaa, /* "not set" (Part 1.4): never on the wire */
    };

    if (request->op_id == OP_GET_STATS)
        reply.payload = nic_stats_reply(request, &reply.payload_len);
    else
        reply.payload = echo_reply(request, &reply.payload_len);
    return ipc_send(ctx, &reply, 1);
}

static void record_locked(const ipc_msg_t *msg)
{
    struct seen_msg *m;

    if (server.seen_count == MAX_SEEN)
        return;
    m = &server.seen[server.seen_count++];
    m->record = *msg;
    m->bytes = NULL;
    if (msg->payload_len > 0 && msg->payload != NULL) {
        m->bytes = must_alloc(msg->payload_len);
        memcpy(m->bytes, msg->payload, msg->payload_len);
    }
}

static void wait_for_gate(void)
{
    struct timespec deadline = deadline_in(WAIT_MS);

    pthread_mutex_lock(&server.lock);
    while (!server.gate_open &&
           pthread_cond_timedwait(&server.changed, &server.lock, &deadline) !=
               ETIMEDOUT) {
    }
    pthread_mutex_unlock(&server.lock);
}

static void record_send_result(int rc)
{
    pthread_mutex_lock(&server.lock);
    if (server.send_count < MAX_SEEN)
        server.send_results[server.send_count++] = rc;
    pthread_cond_broadcast(&server.changed);
    pthread_mutex_unlock(&server.lock);
}

static void record_and_answer(void *unused, ipc_msg_t *msg)
{
    enum reply_mode mode;

    (void)unused;
    pthread_mutex_lock(&server.lock);
    record_locked(msg);
    mode = server.mode;
    pthread_cond_broadcast(&server.changed);
    pthread_mutex_unlock(&server.lock);
    if (mode == REPLY_AFTER_GATE)
        wait_for_gate();
    if (mode != REPLY_NONE)
        record_send_result(answer(server.ctx, msg));
}

/* The daemon's loop (Part 1.5), with a timeout so that it can stop. */
static void *serve(void *unused)
{
    (void)unused;
    while (!atomic_load(&server.stop)) {
        ipc_msg_t msg;
        int rc = ipc_recv(server.ctx, &msg, SERVER_POLL_MS);

        if (rc == 0) {
            free(msg.payload);
        } else if (rc != -ETIMEDOUT) {
            pthread_mutex_lock(&server.lock);
            server.recv_failures++;
            pthread_mutex_unlock(&server.lock);
        }
    }
    return NULL;
}

static void set_mode(enum reply_mode mode)
{
    pthread_mutex_lock(&server.lock);
    server.mode = mode;
    pthread_mutex_unlock(&server.lock);
}

static void open_gate(void)
{
    pthread_mutex_lock(&server.lock);
    server.gate_open = true;
    pthread_cond_broadcast(&server.changed);
    pthread_mutex_unlock(&server.lock);
}

static void forget_seen_locked(void)
{
    for (size_t i = 0; i < server.seen_count; i++)
        free(server.seen[i].bytes);
    server.seen_count = 0;
    server.send_count = 0;
    server.recv_failures = 0;
    server.gate_open = false;
    server.mode = REPLY_ECHO;
}

static int start_server(void **state)
{
    (void)state;
    syslog_capture_reset();
    pthread_mutex_lock(&server.lock);
    forget_seen_locked();
    pthread_mutex_unlock(&server.lock);
    server.ctx = ipc_ctx_init(APP_ID);
    if (server.ctx == 0)
        return -1;
    if (ipc_ctx_init_proxy(server.ctx, 1, record_and_answer, 0) != 0 ||
        ipc_ctx_add_endpoint(server.ctx, APP_ID, IPC_SOCK_SERVER, 1) < 0) {
        ipc_ctx_destroy(server.ctx);
        return -1;
    }
    atomic_store(&server.stop, false);
    if (pthread_create(&server.thread, NULL, serve, NULL) != 0) {
        ipc_ctx_destroy(server.ctx);
        return -1;
    }
    return 0;
}

static int stop_server(void **state)
{
    int failures;

    (void)state;
    atomic_store(&server.stop, true);
    pthread_join(server.thread, NULL);
    ipc_ctx_destroy(server.ctx);
    pthread_mutex_lock(&server.lock);
    failures = server.recv_failures;
    forget_seen_locked();
    pthread_mutex_unlock(&server.lock);
    return failures == 0 ? 0 : -1;
}

static int reset_capture(void **state)
{
    (void)state;
    syslog_capture_reset();
    return 0;
}

/* Waits until *counter reaches n; false after WAIT_MS. */
static bool wait_for_count(const size_t *counter, size_t n)
{
    struct timespec deadline = deadline_in(WAIT_MS);
    bool reached;

    pthread_mutex_lock(&server.lock);
    while (*counter < n && pthread_cond_timedwait(&server.changed, &server.lock,
                                                  &deadline) != ETIMEDOUT) {
    }
    reached = *counter >= n;
    pthread_mutex_unlock(&server.lock);
    return reached;
}

static void wait_for_seen(size_t n)
{
    assert_true(wait_for_count(&server.seen_count, n));
}

static size_t seen_now(void)
{
    size_t count;

    pthread_mutex_lock(&server.lock);
    count = server.seen_count;
    pthread_mutex_unlock(&server.lock);
    return count;
}

/* Entries below a count waited for are no longer written. */
static const struct seen_msg *seen_at(size_t index)
{
    return &server.seen[index];
}

static int send_result_at(size_t index)
{
    assert_true(wait_for_count(&server.send_count, index + 1));
    return server.send_results[index];
}

/* Frames and assertions */

static ipc_msg_t request_header(uint32_t op_id, uint32_t len)
{
    return (ipc_msg_t){
        .addr0 = 0xdeadbeef, /* the server replaces both addresses */
        .addr1 = 0x12345678,
        .op_id = op_id,
        .msg_type = 1,
        .payload_len = len,
    };
}

static size_t put_frame(uint8_t *dst, uint32_t op_id, const void *payload,
                        uint32_t len)
{
    ipc_msg_t header = request_header(op_id, len);

    memcpy(dst, &header, HEADER);
    if (len > 0)
        memcpy(dst + HEADER, payload, len);
    return HEADER + len;
}

static void fill_pattern(uint8_t *dst, size_t len, unsigned seed)
{
    for (size_t i = 0; i < len; i++)
        dst[i] = (uint8_t)(seed + i * 13);
}

/* What the server thread recorded: the transport's addressing, the rest as
 * sent. */
static void assert_seen(size_t index, uint32_t op_id, const void *payload,
                        uint32_t len)
{
    const struct seen_msg *m = seen_at(index);

    assert_int_not_equal(m->record.addr0, 0);
    assert_int_equal(m->record.addr1, APP_ID);
    assert_int_equal(m->record.op_id, op_id);
    assert_int_equal(m->record.aux_byte, 0);
    assert_int_equal(m->record.msg_type, 1);
    assert_int_equal(m->record.reserved, 0);
    assert_int_equal(m->record.payload_len, len);
    if (len == 0) {
        assert_null(m->record.payload);
        return;
    }
    assert_non_null(m->record.payload);
    assert_memory_equal(m->bytes, payload, len);
}

static void assert_reply_header(const ipc_msg_t *reply, uint32_t conn_id,
                                uint32_t op_id, uint32_t len)
{
    assert_int_equal(reply->addr0, APP_ID);
    assert_int_equal(reply->addr1, conn_id);
    assert_int_equal(reply->op_id, op_id);
    assert_int_equal(reply->aux_byte, 1);
    assert_int_equal(reply->msg_type, 2);
    assert_int_equal(reply->reserved, 0);
    assert_int_equal(reply->payload_len, len);
    assert_int_equal(reply->padding, 0);
}

static void assert_echo_bytes(const uint8_t *reply, const uint8_t *request,
                              uint32_t len)
{
    for (uint32_t i = 0; i < len; i++)
        assert_int_equal(reply[i], request[i] ^ REPLY_XOR);
}

/* Raw sockets */

static int raw_connect_to(const char *path)
{
    struct sockaddr_un addr = {.sun_family = AF_UNIX};
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);

    assert_true(fd >= 0);
    snprintf(addr.sun_path, sizeof(addr.sun_path), "%s", path);
    assert_int_equal(connect(fd, (struct sockaddr *)&addr, sizeof(addr)), 0);
    return fd;
}

static int raw_connect(void)
{
    return raw_connect_to(SOCKET_PATH);
}

static void write_bytes(int fd, const void *buf, size_t len)
{
    assert_int_equal(send(fd, buf, len, MSG_NOSIGNAL), (ssize_t)len);
}

/* Reads exactly len bytes; false at end of stream or after WAIT_MS. */
static bool read_bytes(int fd, void *buf, size_t len)
{
    int64_t deadline = now_ms() + WAIT_MS;
    uint8_t *next = buf;

    while (len > 0) {
        struct pollfd p = {.fd = fd, .events = POLLIN};
        int64_t left = deadline - now_ms();
        ssize_t n;

        if (left <= 0 || poll(&p, 1, (int)left) != 1)
            return false;
        n = recv(fd, next, len, MSG_DONTWAIT);
        if (n <= 0)
            return false;
        next += n;
        len -= (size_t)n;
    }
    return true;
}

/* One reply frame; its payload into buf. */
static void read_reply(int fd, ipc_msg_t *reply, uint8_t *buf, size_t size)
{
    assert_true(read_bytes(fd, reply, HEADER));
    assert_null(reply->payload); /* sent as 0 */
    assert_true(reply->payload_len <= size);
    assert_true(read_bytes(fd, buf, reply->payload_len));
}

static bool nothing_to_read(int fd)
{
    struct pollfd p = {.fd = fd, .events = POLLIN};

    return poll(&p, 1, QUIET_MS) == 0;
}

/* The server closed the connection without sending anything first. */
static bool closed_by_server(int fd)
{
    struct pollfd p = {.fd = fd, .events = POLLIN};
    uint8_t byte;
    ssize_t n;

    if (poll(&p, 1, WAIT_MS) != 1)
        return false;
    n = recv(fd, &byte, 1, MSG_DONTWAIT);
    return n == 0 || (n < 0 && errno == ECONNRESET);
}

/* Client API */

static struct ipc_client *client_open(void)
{
    struct ipc_client *c = NULL;

    assert_int_equal(ipc_client_open(SOCKET_PATH, &c), 0);
    assert_non_null(c);
    return c;
}

static void client_send(struct ipc_client *c, uint32_t op_id,
                        const void *payload, uint32_t len)
{
    ipc_msg_t msg = request_header(op_id, len);

    msg.payload = (void *)payload;
    assert_int_equal(ipc_client_send(c, &msg), 0);
}

/* Sends a request and checks the echo that comes back. */
static void assert_round_trip(struct ipc_client *c, size_t seen_index)
{
    uint8_t request[8] = {1, 2, 3, 4, 5, 6, 7, 8};
    ipc_msg_t reply;

    client_send(c, OP_WRITE_REG, request, sizeof(request));
    wait_for_seen(seen_index + 1);
    assert_seen(seen_index, OP_WRITE_REG, request, sizeof(request));
    assert_int_equal(ipc_client_recv(c, &reply, WAIT_MS), 0);
    assert_reply_header(&reply, seen_at(seen_index)->record.addr0, OP_WRITE_REG,
                        sizeof(request));
    assert_echo_bytes(reply.payload, request, sizeof(request));
    free(reply.payload);
}

/* Files */

static void remove_run_orvel(void)
{
    DIR *dir = opendir(SOCKET_DIR);
    struct dirent *entry;

    if (dir != NULL) {
        while ((entry = readdir(dir)) != NULL)
            if (entry->d_name[0] != '.')
                unlinkat(dirfd(dir), entry->d_name, 0);
        closedir(dir);
    }
    rmdir(SOCKET_DIR);
    rmdir(RUN_ORVEL);
    assert_int_equal(access(RUN_ORVEL, F_OK), -1);
}

static void make_socket_dir(void)
{
    assert_true(mkdir(RUN_ORVEL, 0755) == 0 || errno == EEXIST);
    assert_true(mkdir(SOCKET_DIR, 0755) == 0 || errno == EEXIST);
}

/* A socket file that nobody serves any more. */
static void make_stale_socket(const char *path)
{
    struct sockaddr_un addr = {.sun_family = AF_UNIX};
    int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    struct stat st;

    assert_true(fd >= 0);
    snprintf(addr.sun_path, sizeof(addr.sun_path), "%s", path);
    assert_int_equal(bind(fd, (struct sockaddr *)&addr, sizeof(addr)), 0);
    close(fd);
    assert_int_equal(lstat(path, &st), 0);
    assert_true(S_ISSOCK(st.st_mode));
}

static size_t count_open_fds(void)
{
    DIR *dir = opendir("/proc/self/fd");
    size_t count = 0;

    assert_non_null(dir);
    while (readdir(dir) != NULL)
        count++;
    closedir(dir);
    return count;
}

static void assert_single_log(int severity, const char *text)
{
    const struct captured_syslog *entry;

    assert_int_equal(syslog_capture_count(), 1);
    entry = syslog_capture_get(0);
    assert_int_equal(entry->severity, severity);
    assert_string_equal(entry->ident, "orvel-ipc");
    assert_string_equal(entry->text, text);
}

/* Tests: one request, one reply */

static void test_request_and_reply_exact_bytes(void **state)
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
    int fd = raw_connect();

    (void)state;
    write_bytes(fd, request, sizeof(request));
    wait_for_seen(1);
    assert_seen(0, OP_READ_REG, request + HEADER, 8);
    assert_int_equal(seen_at(0)->record.padding, 0);
    conn_id = seen_at(0)->record.addr0;
    memcpy(expected + 4, &conn_id, sizeof(conn_id));
    assert_true(read_bytes(fd, reply, sizeof(reply)));
    assert_memory_equal(reply, expected, sizeof(expected));
    assert_true(nothing_to_read(fd));
    assert_int_equal(send_result_at(0), 0);
    close(fd);
}

static void test_server_sets_addresses(void **state)
{
    struct ipc_client *a = client_open();
    struct ipc_client *b = client_open();
    uint8_t payload_a[4] = {0xa1, 0xa2, 0xa3, 0xa4};
    uint8_t payload_b[4] = {0xb1, 0xb2, 0xb3, 0xb4};
    ipc_msg_t msg = request_header(OP_READ_REG, 4), reply;
    uint32_t id_a, id_b;

    (void)state;
    msg.addr0 = 0;
    msg.addr1 = 0;
    msg.payload = payload_a;
    assert_int_equal(ipc_client_send(a, &msg), 0);
    wait_for_seen(1);
    msg.addr0 = APP_ID; /* a client claiming to be the server */
    msg.addr1 = 0xffffffff;
    msg.payload = payload_b;
    assert_int_equal(ipc_client_send(b, &msg), 0);
    wait_for_seen(2);
    assert_seen(0, OP_READ_REG, payload_a, 4);
    assert_seen(1, OP_READ_REG, payload_b, 4);
    id_a = seen_at(0)->record.addr0;
    id_b = seen_at(1)->record.addr0;
    assert_int_not_equal(id_a, id_b);

    assert_int_equal(ipc_client_recv(b, &reply, WAIT_MS), 0);
    assert_reply_header(&reply, id_b, OP_READ_REG, 4);
    assert_echo_bytes(reply.payload, payload_b, 4);
    free(reply.payload);
    assert_int_equal(ipc_client_recv(a, &reply, WAIT_MS), 0);
    assert_reply_header(&reply, id_a, OP_READ_REG, 4);
    assert_echo_bytes(reply.payload, payload_a, 4);
    free(reply.payload);
    ipc_client_close(a);
    ipc_client_close(b);
}

/* Framing */

static void test_frame_split_into_single_bytes(void **state)
{
    uint8_t payload[8] = {9, 8, 7, 6, 5, 4, 3, 2};
    uint8_t frame[HEADER + sizeof(payload)], reply_bytes[sizeof(payload)];
    size_t len = put_frame(frame, OP_WRITE_REG, payload, sizeof(payload));
    ipc_msg_t reply;
    int fd = raw_connect();

    (void)state;
    for (size_t i = 0; i + 1 < len; i++) {
        write_bytes(fd, frame + i, 1);
        sleep_ms(1);
    }
    sleep_ms(QUIET_MS);
    assert_int_equal(seen_now(), 0);
    write_bytes(fd, frame + len - 1, 1);
    wait_for_seen(1);
    assert_seen(0, OP_WRITE_REG, payload, sizeof(payload));
    read_reply(fd, &reply, reply_bytes, sizeof(reply_bytes));
    assert_reply_header(&reply, seen_at(0)->record.addr0, OP_WRITE_REG,
                        sizeof(payload));
    assert_echo_bytes(reply_bytes, payload, sizeof(payload));
    close(fd);
}

static const struct frame_case {
    uint32_t op_id;
    uint32_t len;
} three_frames[] = {
    {OP_READ_REG, 8},
    {0xdb0008, 0}, /* get module list: no payload */
    {0xdb000b, 12},
};

static void test_several_frames_in_one_write(void **state)
{
    uint8_t buf[3 * HEADER + 20], payloads[3][12], reply_bytes[12];
    size_t len = 0;
    ipc_msg_t reply;
    int fd = raw_connect();

    (void)state;
    for (size_t i = 0; i < 3; i++) {
        fill_pattern(payloads[i], sizeof(payloads[i]), (unsigned)i * 50);
        len += put_frame(buf + len, three_frames[i].op_id, payloads[i],
                         three_frames[i].len);
    }
    assert_int_equal(len, sizeof(buf));
    write_bytes(fd, buf, len);
    wait_for_seen(3);
    for (size_t i = 0; i < 3; i++) {
        assert_seen(i, three_frames[i].op_id, payloads[i], three_frames[i].len);
        assert_int_equal(seen_at(i)->record.addr0, seen_at(0)->record.addr0);
    }
    for (size_t i = 0; i < 3; i++) {
        read_reply(fd, &reply, reply_bytes, sizeof(reply_bytes));
        assert_reply_header(&reply, seen_at(0)->record.addr0,
                            three_frames[i].op_id, three_frames[i].len);
        assert_echo_bytes(reply_bytes, payloads[i], three_frames[i].len);
    }
    close(fd);
}

/* Several clients */

static void test_two_clients_interleaved(void **state)
{
    uint8_t pa[8] = "AAAAaaaa", pb[8] = "BBBBbbbb", reply_bytes[8];
    uint8_t fa[HEADER + 8], fb[HEADER + 8];
    ipc_msg_t reply;
    int a = raw_connect(), b = raw_connect();

    (void)state;
    put_frame(fa, 0xdb0004, pa, 8);
    put_frame(fb, 0xdb0005, pb, 8);
    write_bytes(a, fa, 20);
    write_bytes(b, fb, 10);
    sleep_ms(QUIET_MS);
    assert_int_equal(seen_now(), 0);
    write_bytes(a, fa + 20, sizeof(fa) - 20);
    wait_for_seen(1);
    write_bytes(b, fb + 10, sizeof(fb) - 10);
    wait_for_seen(2);
    assert_seen(0, 0xdb0004, pa, 8);
    assert_seen(1, 0xdb0005, pb, 8);
    assert_int_not_equal(seen_at(0)->record.addr0, seen_at(1)->record.addr0);

    read_reply(b, &reply, reply_bytes, sizeof(reply_bytes));
    assert_reply_header(&reply, seen_at(1)->record.addr0, 0xdb0005, 8);
    assert_echo_bytes(reply_bytes, pb, 8);
    read_reply(a, &reply, reply_bytes, sizeof(reply_bytes));
    assert_reply_header(&reply, seen_at(0)->record.addr0, 0xdb0004, 8);
    assert_echo_bytes(reply_bytes, pa, 8);
    close(a);
    close(b);
}

static void test_stalled_client_does_not_hold_up_others(void **state)
{
    uint8_t payload[8] = {0x51, 0x52, 0x53, 0x54, 0x55, 0x56, 0x57, 0x58};
    uint8_t frame[HEADER + 8], reply_bytes[8];
    struct ipc_client *other = client_open();
    ipc_msg_t reply;
    int stalled = raw_connect();

    (void)state;
    put_frame(frame, OP_WRITE_REG, payload, sizeof(payload));
    write_bytes(stalled, frame, HEADER - 1);
    assert_round_trip(other, 0);
    assert_round_trip(other, 1);
    assert_int_equal(seen_now(), 2);

    write_bytes(stalled, frame + HEADER - 1, sizeof(frame) - (HEADER - 1));
    wait_for_seen(3);
    assert_seen(2, OP_WRITE_REG, payload, sizeof(payload));
    read_reply(stalled, &reply, reply_bytes, sizeof(reply_bytes));
    assert_echo_bytes(reply_bytes, payload, sizeof(payload));
    ipc_client_close(other);
    close(stalled);
}

static void test_client_gone_before_reply(void **state)
{
    uint8_t payload[8] = {0};
    struct ipc_client *gone = client_open();
    struct ipc_client *other;
    ipc_msg_t late;

    (void)state;
    set_mode(REPLY_AFTER_GATE);
    client_send(gone, OP_READ_REG, payload, sizeof(payload));
    wait_for_seen(1);
    ipc_client_close(gone);
    open_gate();
    assert_int_equal(send_result_at(0), -EPIPE);

    late = (ipc_msg_t){.addr1 = seen_at(0)->record.addr0,
                       .payload_len = 4,
                       .payload = must_alloc(4)};
    assert_int_equal(ipc_send(server.ctx, &late, 1), -ENOTCONN);
    assert_null(late.payload);

    set_mode(REPLY_ECHO);
    other = client_open();
    assert_round_trip(other, 1);
    ipc_client_close(other);
}

/* Limits */

static void assert_length_closes_connection(uint32_t len)
{
    ipc_msg_t header = request_header(OP_READ_REG, len);
    struct ipc_client *other;
    char text[128];
    int fd = raw_connect();

    atomic_store(&largest_allocation, 0);
    write_bytes(fd, &header, HEADER);
    assert_true(closed_by_server(fd));
    close(fd);
    assert_int_equal(seen_now(), 0);
    if (allocations_watched())
        assert_true(atomic_load(&largest_allocation) <= IPC_MAX_PAYLOAD);
    snprintf(text, sizeof(text),
             "IPC connection closed: payload length %u above 65536", len);
    assert_single_log(LOG_WARNING, text);

    other = client_open();
    assert_round_trip(other, 0);
    ipc_client_close(other);
}

static void test_payload_len_ffffffff_closes_connection(void **state)
{
    (void)state;
    assert_length_closes_connection(0xffffffffu);
}

static void test_payload_len_65537_closes_connection(void **state)
{
    (void)state;
    assert_length_closes_connection(65537);
}

static void test_payload_len_65536_is_accepted(void **state)
{
    uint8_t *payload = must_alloc(65536);
    struct ipc_client *c = client_open();
    ipc_msg_t reply;

    (void)state;
    fill_pattern(payload, 65536, 7);
    client_send(c, OP_WRITE_REG, payload, 65536);
    wait_for_seen(1);
    assert_seen(0, OP_WRITE_REG, payload, 65536);
    assert_int_equal(ipc_client_recv(c, &reply, WAIT_MS), 0);
    assert_reply_header(&reply, seen_at(0)->record.addr0, OP_WRITE_REG, 65536);
    assert_echo_bytes(reply.payload, payload, 65536);
    free(reply.payload);
    free(payload);
    ipc_client_close(c);
}

static void test_zero_length_payload(void **state)
{
    struct ipc_client *c = client_open();
    ipc_msg_t reply;

    (void)state;
    client_send(c, 0xdb000a, NULL, 0);
    wait_for_seen(1);
    assert_seen(0, 0xdb000a, NULL, 0);
    assert_int_equal(ipc_client_recv(c, &reply, WAIT_MS), 0);
    assert_reply_header(&reply, seen_at(0)->record.addr0, 0xdb000a, 0);
    assert_null(reply.payload);
    assert_int_equal(ipc_client_recv(c, &reply, QUIET_MS), -ETIMEDOUT);
    assert_null(reply.payload);
    ipc_client_close(c);
}

/* Replies */

static void test_replies_in_order_on_one_connection(void **state)
{
    static const uint32_t ops[] = {0xdb0002, 0xdb0003, 0xdb0004, 0xdb0005,
                                   0xdb0007};
    uint8_t payloads[5][5];
    struct ipc_client *c = client_open();
    ipc_msg_t reply;

    (void)state;
    for (size_t i = 0; i < 5; i++) {
        fill_pattern(payloads[i], i + 1, (unsigned)i + 100);
        client_send(c, ops[i], payloads[i], (uint32_t)i + 1);
    }
    for (size_t i = 0; i < 5; i++) {
        assert_int_equal(ipc_client_recv(c, &reply, WAIT_MS), 0);
        assert_reply_header(&reply, seen_at(0)->record.addr0, ops[i],
                            (uint32_t)i + 1);
        assert_echo_bytes(reply.payload, payloads[i], (uint32_t)i + 1);
        free(reply.payload);
    }
    ipc_client_close(c);
}

static void test_nic_stats_reply_of_16_plus_8360_bytes(void **state)
{
    uint8_t request[16] = {4, 0, 0, 0, 1, 0, 0, 0}; /* nic, pipe 1 */
    static const uint8_t head[16] = {
        0x04, 0x00, 0x00, 0x00,                         /* module id: nic */
        0x01, 0x00, 0x00, 0x00,                         /* pipe 1 */
        0xa8, 0x20, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, /* N: 8360 */
    };
    uint8_t expected[16 + NIC_STATS_SIZE];
    struct ipc_client *c = client_open();
    ipc_msg_t reply;

    (void)state;
    memcpy(expected, head, sizeof(head));
    for (size_t i = 0; i < NIC_STATS_SIZE; i++)
        expected[16 + i] = stats_byte(i);
    client_send(c, OP_GET_STATS, request, sizeof(request));
    assert_int_equal(ipc_client_recv(c, &reply, WAIT_MS), 0);
    assert_reply_header(&reply, seen_at(0)->record.addr0, OP_GET_STATS,
                        16 + NIC_STATS_SIZE);
    assert_memory_equal(reply.payload, expected, sizeof(expected));
    free(reply.payload);
    ipc_client_close(c);
}

static uint32_t silent_request(struct ipc_client *c)
{
    set_mode(REPLY_NONE);
    client_send(c, OP_READ_REG, "\0\0\0\0\0\0\0", 8);
    wait_for_seen(1);
    return seen_at(0)->record.addr0;
}

static int send_pattern(uint32_t conn_id, unsigned seed)
{
    ipc_msg_t reply = {
        .addr0 = APP_ID,
        .addr1 = conn_id,
        .op_id = OP_READ_REG,
        .aux_byte = 1,
        .msg_type = 2,
        .payload_len = IPC_MAX_PAYLOAD,
        .payload = must_alloc(IPC_MAX_PAYLOAD),
    };

    fill_pattern(reply.payload, IPC_MAX_PAYLOAD, seed);
    return ipc_send(server.ctx, &reply, 1);
}

static void assert_pattern_reply(const ipc_msg_t *reply, uint32_t conn_id,
                                 unsigned seed)
{
    uint8_t *expected = must_alloc(IPC_MAX_PAYLOAD);

    fill_pattern(expected, IPC_MAX_PAYLOAD, seed);
    assert_reply_header(reply, conn_id, OP_READ_REG, IPC_MAX_PAYLOAD);
    assert_memory_equal(reply->payload, expected, IPC_MAX_PAYLOAD);
    free(expected);
}

/* Sent from this thread while the server thread waits in ipc_recv: more
 * than the socket takes, so the rest goes out as the client reads. */
static void test_replies_wait_for_a_slow_reader(void **state)
{
    struct ipc_client *c = client_open();
    uint32_t id = silent_request(c);
    ipc_msg_t reply;

    (void)state;
    for (unsigned i = 0; i < 8; i++)
        assert_int_equal(send_pattern(id, i), 0);
    sleep_ms(QUIET_MS);
    for (unsigned i = 0; i < 8; i++) {
        assert_int_equal(ipc_client_recv(c, &reply, WAIT_MS), 0);
        assert_pattern_reply(&reply, id, i);
        free(reply.payload);
    }
    ipc_client_close(c);
}

static void test_client_that_never_reads_is_dropped(void **state)
{
    struct ipc_client *c = client_open();
    uint32_t id = silent_request(c);
    unsigned sent = 0, received = 0;
    ipc_msg_t reply;
    int rc;

    (void)state;
    while ((rc = send_pattern(id, sent)) == 0 && sent < 40)
        sent++;
    assert_int_equal(rc, -ENOBUFS);
    assert_true(sent * (HEADER + IPC_MAX_PAYLOAD) > IPC_MAX_PENDING_OUTPUT);
    assert_int_equal(send_pattern(id, 0), -ENOTCONN);
    assert_single_log(LOG_WARNING, "IPC connection closed: more than 1048576 "
                                   "bytes of replies unread");

    while ((rc = ipc_client_recv(c, &reply, WAIT_MS)) == 0) {
        assert_pattern_reply(&reply, id, received++);
        free(reply.payload);
    }
    assert_int_equal(rc, -ECONNRESET);
    assert_true(received >= 1 && received < sent);
    ipc_client_close(c);
}

static void test_half_closed_client_gets_its_replies(void **state)
{
    uint8_t buf[3 * HEADER + 20], payloads[3][12], reply_bytes[12];
    size_t len = 0;
    ipc_msg_t reply;
    int fd = raw_connect();

    (void)state;
    for (size_t i = 0; i < 3; i++) {
        fill_pattern(payloads[i], sizeof(payloads[i]), (unsigned)i);
        len += put_frame(buf + len, three_frames[i].op_id, payloads[i],
                         three_frames[i].len);
    }
    write_bytes(fd, buf, len);
    assert_int_equal(shutdown(fd, SHUT_WR), 0);
    for (size_t i = 0; i < 3; i++) {
        read_reply(fd, &reply, reply_bytes, sizeof(reply_bytes));
        assert_int_equal(reply.op_id, three_frames[i].op_id);
        assert_echo_bytes(reply_bytes, payloads[i], three_frames[i].len);
    }
    assert_true(closed_by_server(fd));
    close(fd);
}

/* The replies queued when the client shuts its side still go out. */
static void test_half_closed_client_gets_queued_replies(void **state)
{
    uint8_t frame[HEADER + 8] = {0};
    uint8_t *bytes = must_alloc(IPC_MAX_PAYLOAD);
    ipc_msg_t reply;
    uint32_t id;
    int fd = raw_connect();

    (void)state;
    set_mode(REPLY_NONE);
    write_bytes(fd, frame, put_frame(frame, OP_READ_REG, "1234567", 8));
    wait_for_seen(1);
    id = seen_at(0)->record.addr0;
    for (unsigned i = 0; i < 8; i++)
        assert_int_equal(send_pattern(id, i), 0);
    assert_int_equal(shutdown(fd, SHUT_WR), 0);
    sleep_ms(QUIET_MS);
    for (unsigned i = 0; i < 8; i++) {
        read_reply(fd, &reply, bytes, IPC_MAX_PAYLOAD);
        reply.payload = bytes;
        assert_pattern_reply(&reply, id, i);
    }
    assert_true(closed_by_server(fd));
    free(bytes);
    close(fd);
}

/* Connections */

static bool fds_back_to(size_t baseline)
{
    int64_t deadline = now_ms() + WAIT_MS;

    while (count_open_fds() != baseline) {
        if (now_ms() > deadline)
            return false;
        sleep_ms(5);
    }
    return true;
}

static void test_closed_connections_are_released(void **state)
{
    uint8_t frame[HEADER + 8] = {0};
    size_t baseline = count_open_fds();
    int half = raw_connect(), whole = raw_connect(), idle = raw_connect();

    (void)state;
    put_frame(frame, OP_READ_REG, "12345678", 8);
    write_bytes(half, frame, 20);
    write_bytes(whole, frame, sizeof(frame));
    wait_for_seen(1);
    close(half);
    close(whole);
    close(idle);
    assert_true(fds_back_to(baseline));
}

static void test_connections_beyond_the_limit_are_closed(void **state)
{
    int fds[IPC_MAX_CONNECTIONS + 1];
    uint8_t frame[HEADER + 8], reply_bytes[8];
    ipc_msg_t reply;

    (void)state;
    for (size_t i = 0; i <= IPC_MAX_CONNECTIONS; i++)
        fds[i] = raw_connect();
    assert_true(closed_by_server(fds[IPC_MAX_CONNECTIONS]));
    assert_single_log(LOG_WARNING,
                      "IPC connection refused: 64 connections open");
    put_frame(frame, OP_WRITE_REG, "abcdefgh", 8);
    write_bytes(fds[IPC_MAX_CONNECTIONS - 1], frame, sizeof(frame));
    read_reply(fds[IPC_MAX_CONNECTIONS - 1], &reply, reply_bytes, 8);
    assert_echo_bytes(reply_bytes, (const uint8_t *)"abcdefgh", 8);
    for (size_t i = 0; i <= IPC_MAX_CONNECTIONS; i++)
        close(fds[i]);
}

/* Endpoint */

static void test_endpoint_creates_directories_and_modes(void **state)
{
    struct group *group = getgrnam(IPC_SOCKET_GROUP);
    gid_t expected_gid = group != NULL ? group->gr_gid : 0;
    uint64_t ctx = ipc_ctx_init(APP_ID);
    mode_t old_mask;
    struct stat st;

    (void)state;
    remove_run_orvel();
    old_mask = umask(077);
    assert_int_equal(ipc_ctx_add_endpoint(ctx, APP_ID, IPC_SOCK_SERVER, 1), 0);
    umask(old_mask);
    assert_int_equal(stat(RUN_ORVEL, &st), 0);
    assert_true(S_ISDIR(st.st_mode));
    assert_int_equal(st.st_mode & 07777, 0755);
    assert_int_equal(stat(SOCKET_DIR, &st), 0);
    assert_true(S_ISDIR(st.st_mode));
    assert_int_equal(st.st_mode & 07777, 0755);
    assert_int_equal(lstat(SOCKET_PATH, &st), 0);
    assert_true(S_ISSOCK(st.st_mode));
    assert_int_equal(st.st_mode & 07777, 0660);
    assert_int_equal(st.st_gid, expected_gid);
    ipc_ctx_destroy(ctx);
    assert_int_equal(lstat(SOCKET_PATH, &st), -1);
    assert_int_equal(errno, ENOENT);
}

static int inline_callbacks;
static void *inline_payload_seen;

static void count_callback(void *unused, ipc_msg_t *msg)
{
    (void)unused;
    inline_callbacks++;
    inline_payload_seen = msg->payload;
}

/* One request and its reply with ipc_recv on this thread. */
static void assert_serves_inline(uint64_t ctx)
{
    uint8_t request[8] = {0x0f, 0x1e, 0x2d, 0x3c, 0x4b, 0x5a, 0x69, 0x78};
    struct ipc_client *c = client_open();
    ipc_msg_t msg, reply;

    inline_callbacks = 0;
    assert_int_equal(ipc_ctx_init_proxy(ctx, 1, count_callback, 0), 0);
    client_send(c, OP_READ_REG, request, sizeof(request));
    assert_int_equal(ipc_recv(ctx, &msg, WAIT_MS), 0);
    assert_int_equal(inline_callbacks, 1);
    assert_ptr_equal(inline_payload_seen, msg.payload);
    assert_int_not_equal(msg.addr0, 0);
    assert_int_equal(msg.addr1, APP_ID);
    assert_int_equal(msg.payload_len, sizeof(request));
    assert_memory_equal(msg.payload, request, sizeof(request));
    assert_int_equal(answer(ctx, &msg), 0);
    assert_int_equal(ipc_client_recv(c, &reply, WAIT_MS), 0);
    assert_reply_header(&reply, msg.addr0, OP_READ_REG, sizeof(request));
    assert_echo_bytes(reply.payload, request, sizeof(request));
    free(reply.payload);
    free(msg.payload);
    ipc_client_close(c);
}

static void test_stale_socket_is_replaced(void **state)
{
    uint64_t ctx = ipc_ctx_init(APP_ID);

    (void)state;
    make_socket_dir();
    unlink(SOCKET_PATH);
    make_stale_socket(SOCKET_PATH);
    assert_int_equal(ipc_ctx_add_endpoint(ctx, APP_ID, IPC_SOCK_SERVER, 1), 0);
    assert_serves_inline(ctx);
    ipc_ctx_destroy(ctx);
}

static void test_file_that_is_not_a_socket_is_kept(void **state)
{
    uint64_t ctx = ipc_ctx_init(APP_ID);
    char content[8] = {0};
    int fd;

    (void)state;
    make_socket_dir();
    unlink(SOCKET_PATH);
    fd = open(SOCKET_PATH, O_WRONLY | O_CREAT | O_EXCL, 0644);
    assert_true(fd >= 0);
    assert_int_equal(write(fd, "keep", 4), 4);
    close(fd);
    assert_int_equal(ipc_ctx_add_endpoint(ctx, APP_ID, IPC_SOCK_SERVER, 1),
                     -EEXIST);
    fd = open(SOCKET_PATH, O_RDONLY);
    assert_true(fd >= 0);
    assert_int_equal(read(fd, content, sizeof(content)), 4);
    assert_string_equal(content, "keep");
    close(fd);
    unlink(SOCKET_PATH);
    ipc_ctx_destroy(ctx);
}

static void test_live_socket_is_not_replaced(void **state)
{
    uint64_t second = ipc_ctx_init(APP_ID);
    struct ipc_client *c;
    struct stat st;

    (void)state;
    assert_int_equal(ipc_ctx_add_endpoint(second, APP_ID, IPC_SOCK_SERVER, 1),
                     -EADDRINUSE);
    assert_single_log(LOG_ERR,
                      "IPC endpoint 219 not opened: Address already in use");
    ipc_ctx_destroy(second);
    assert_int_equal(lstat(SOCKET_PATH, &st), 0);
    c = client_open();
    assert_round_trip(c, 0);
    ipc_client_close(c);
}

/* A server that does not take the transport's lock is still seen. */
static void test_foreign_live_socket_is_not_replaced(void **state)
{
    struct sockaddr_un addr = {.sun_family = AF_UNIX, .sun_path = OTHER_PATH};
    uint64_t ctx = ipc_ctx_init(OTHER_APP_ID);
    int listener = socket(AF_UNIX, SOCK_STREAM, 0), client, accepted;

    (void)state;
    make_socket_dir();
    unlink(OTHER_PATH);
    assert_int_equal(bind(listener, (struct sockaddr *)&addr, sizeof(addr)), 0);
    assert_int_equal(listen(listener, 4), 0);
    assert_int_equal(
        ipc_ctx_add_endpoint(ctx, OTHER_APP_ID, IPC_SOCK_SERVER, 1),
        -EADDRINUSE);
    ipc_ctx_destroy(ctx);
    client = raw_connect_to(OTHER_PATH);
    accepted = accept(listener, NULL, NULL);
    assert_true(accepted >= 0);
    close(accepted);
    close(client);
    close(listener);
    unlink(OTHER_PATH);
}

/* Client side */

static void test_socket_path_of_an_app_id(void **state)
{
    char path[64], small[16];

    (void)state;
    assert_int_equal(ipc_socket_path(APP_ID, path, sizeof(path)), 0);
    assert_string_equal(path, "/run/orvel/ipc/219.sock");
    assert_int_equal(ipc_socket_path(APP_ID, small, sizeof(small)),
                     -ENAMETOOLONG);
}

static int open_as_nobody(void)
{
    struct ipc_client *c = NULL;

    if (setgroups(0, NULL) != 0 || setgid(NOBODY) != 0 || setuid(NOBODY) != 0)
        return 1;
    return ipc_client_open(SOCKET_PATH, &c) == -EACCES && c == NULL ? 0 : 2;
}

static void test_client_open_errors(void **state)
{
    char long_path[200];
    struct ipc_client *c = (struct ipc_client *)&c; /* any non-null */
    uint64_t ctx = ipc_ctx_init(APP_ID);
    int status;
    pid_t pid;

    (void)state;
    make_socket_dir();
    unlink(SOCKET_PATH);
    assert_int_equal(ipc_client_open(SOCKET_PATH, &c), -ENOENT);
    assert_null(c);
    make_stale_socket(SOCKET_PATH);
    assert_int_equal(ipc_client_open(SOCKET_PATH, &c), -ECONNREFUSED);
    memset(long_path, 'x', sizeof(long_path) - 1);
    long_path[sizeof(long_path) - 1] = '\0';
    assert_int_equal(ipc_client_open(long_path, &c), -ENAMETOOLONG);

    assert_int_equal(ipc_ctx_add_endpoint(ctx, APP_ID, IPC_SOCK_SERVER, 1), 0);
    pid = fork();
    assert_true(pid >= 0);
    if (pid == 0)
        _exit(open_as_nobody());
    assert_int_equal(sim_wait(pid, WAIT_MS, &status), 0);
    assert_true(WIFEXITED(status));
    assert_int_equal(WEXITSTATUS(status), 0);
    ipc_ctx_destroy(ctx);
}

/* Arguments, timeouts, diagnostics */

static void assert_all_zero(const ipc_msg_t *msg)
{
    static const ipc_msg_t zero;

    assert_memory_equal(msg, &zero, sizeof(zero));
}

static void test_recv_timeout_and_bad_arguments(void **state)
{
    uint64_t ctx = ipc_ctx_init(APP_ID);
    ipc_msg_t msg;
    int64_t start;

    (void)state;
    assert_int_not_equal(ctx, 0);
    memset(&msg, 0xff, sizeof(msg));
    assert_int_equal(ipc_recv(ctx, &msg, 10), -ENOTCONN);
    assert_all_zero(&msg);
    assert_int_equal(ipc_ctx_add_endpoint(ctx, APP_ID, 1, 1), -EINVAL);
    assert_int_equal(ipc_ctx_add_endpoint(ctx, APP_ID, IPC_SOCK_SERVER, 1), 0);
    assert_int_equal(ipc_ctx_add_endpoint(ctx, APP_ID, IPC_SOCK_SERVER, 1),
                     -EEXIST);
    memset(&msg, 0xff, sizeof(msg));
    start = now_ms();
    assert_int_equal(ipc_recv(ctx, &msg, 50), -ETIMEDOUT);
    assert_true(now_ms() - start >= 49);
    assert_true(now_ms() - start < WAIT_MS);
    assert_all_zero(&msg);

    assert_int_equal(ipc_recv(0, &msg, 10), -EINVAL);
    assert_int_equal(ipc_recv(ctx, NULL, 10), -EINVAL);
    assert_int_equal(ipc_ctx_init_proxy(0, 1, count_callback, 0), -EINVAL);
    assert_int_equal(ipc_ctx_add_endpoint(0, APP_ID, IPC_SOCK_SERVER, 1),
                     -EINVAL);
    ipc_ctx_destroy(ctx);
}

/* ipc_send frees the payload on every path; LeakSanitizer checks it. */
static void test_send_refusals_free_the_payload(void **state)
{
    uint64_t ctx = ipc_ctx_init(APP_ID);
    ipc_msg_t msg;

    (void)state;
    assert_int_equal(ipc_ctx_add_endpoint(ctx, APP_ID, IPC_SOCK_SERVER, 1), 0);
    msg = (ipc_msg_t){.addr1 = 1,
                      .payload_len = IPC_MAX_PAYLOAD + 1,
                      .payload = must_alloc(IPC_MAX_PAYLOAD + 1)};
    assert_int_equal(ipc_send(ctx, &msg, 1), -EMSGSIZE);
    assert_null(msg.payload);
    msg = (ipc_msg_t){.addr1 = 7, .payload_len = 4, .payload = must_alloc(4)};
    assert_int_equal(ipc_send(ctx, &msg, 1), -ENOTCONN);
    assert_null(msg.payload);
    msg = (ipc_msg_t){.addr1 = 7, .payload_len = 4, .payload = must_alloc(4)};
    assert_int_equal(ipc_send(0, &msg, 1), -EINVAL);
    assert_null(msg.payload);
    msg = (ipc_msg_t){.addr1 = 7, .payload_len = 4};
    assert_int_equal(ipc_send(ctx, &msg, 1), -EINVAL);
    assert_int_equal(ipc_send(ctx, NULL, 1), -EINVAL);
    ipc_ctx_destroy(ctx);
}

static void test_debug_msg_prints_one_line(void **state)
{
    const ipc_msg_t msg = {.addr0 = 1,
                           .addr1 = APP_ID,
                           .op_id = OP_READ_REG,
                           .aux_byte = 1,
                           .msg_type = 2,
                           .payload_len = 0};
    char out[512] = {0};
    int pipe_fds[2], saved;

    (void)state;
    assert_int_equal(pipe(pipe_fds), 0);
    saved = dup(STDERR_FILENO);
    dup2(pipe_fds[1], STDERR_FILENO);
    ipc_debug_msg(&msg);
    ipc_debug_msg(NULL);
    dup2(saved, STDERR_FILENO);
    close(saved);
    close(pipe_fds[1]);
    assert_true(read(pipe_fds[0], out, sizeof(out) - 1) > 0);
    close(pipe_fds[0]);
    assert_string_equal(out, "ipc msg: addr0 0x00000001 addr1 0x000000db "
                             "op_id 0x00db0002 aux_byte 1 msg_type 2 "
                             "reserved 0 payload_len 0 payload (nil)\n"
                             "ipc msg: null\n");
}

static int enter_private_run(void)
{
    if (sim_enter_mount_namespace() != 0) {
        fprintf(stderr, "private /run: %s\n", sim_board_last_error());
        return -1;
    }
    if (mount("tmpfs", "/run", "tmpfs", 0, "mode=0755") != 0) {
        fprintf(stderr, "private /run: mount: %s\n", strerror(errno));
        return -1;
    }
    return 0;
}

static int init_server_cond(void)
{
    pthread_condattr_t attr;
    int rc;

    if (pthread_condattr_init(&attr) != 0)
        return -1;
    rc = pthread_condattr_setclock(&attr, CLOCK_MONOTONIC);
    if (rc == 0)
        rc = pthread_cond_init(&server.changed, &attr);
    pthread_condattr_destroy(&attr);
    return rc == 0 ? 0 : -1;
}

#define SERVED(test)                                                           \
    cmocka_unit_test_setup_teardown(test, start_server, stop_server)
#define ALONE(test) cmocka_unit_test_setup(test, reset_capture)

int main(void)
{
    const struct CMUnitTest tests[] = {
        SERVED(test_request_and_reply_exact_bytes),
        SERVED(test_server_sets_addresses),
        SERVED(test_frame_split_into_single_bytes),
        SERVED(test_several_frames_in_one_write),
        SERVED(test_two_clients_interleaved),
        SERVED(test_stalled_client_does_not_hold_up_others),
        SERVED(test_client_gone_before_reply),
        SERVED(test_payload_len_ffffffff_closes_connection),
        SERVED(test_payload_len_65537_closes_connection),
        SERVED(test_payload_len_65536_is_accepted),
        SERVED(test_zero_length_payload),
        SERVED(test_replies_in_order_on_one_connection),
        SERVED(test_nic_stats_reply_of_16_plus_8360_bytes),
        SERVED(test_replies_wait_for_a_slow_reader),
        SERVED(test_client_that_never_reads_is_dropped),
        SERVED(test_half_closed_client_gets_its_replies),
        SERVED(test_half_closed_client_gets_queued_replies),
        SERVED(test_closed_connections_are_released),
        SERVED(test_connections_beyond_the_limit_are_closed),
        SERVED(test_live_socket_is_not_replaced),
        ALONE(test_endpoint_creates_directories_and_modes),
        ALONE(test_stale_socket_is_replaced),
        ALONE(test_file_that_is_not_a_socket_is_kept),
        ALONE(test_foreign_live_socket_is_not_replaced),
        ALONE(test_socket_path_of_an_app_id),
        ALONE(test_client_open_errors),
        ALONE(test_recv_timeout_and_bad_arguments),
        ALONE(test_send_refusals_free_the_payload),
        ALONE(test_debug_msg_prints_one_line),
    };

    if (enter_private_run() != 0 || init_server_cond() != 0)
        return 1;
    return cmocka_run_group_tests(tests, NULL, NULL);
}
