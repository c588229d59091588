/* libplatipc on a host: one Unix stream socket per server, one framed
 * record per message. */
#include "plat_ipc.h"

#include <errno.h>
#include <fcntl.h>
#include <grp.h>
#include <inttypes.h>
#include <limits.h>
#include <poll.h>
#include <pthread.h>
#include <stdbool.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/eventfd.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <syslog.h>
#include <time.h>
#include <unistd.h>

#include "plat_syslog.h"

#define IPC_LOG_IDENT      "orvel-ipc"
#define IPC_RUN_DIR        "/run/orvel"
#define IPC_DIR_MODE       0755
#define IPC_SOCKET_MODE    0660
#define IPC_LISTEN_BACKLOG 16
#define ACCEPT_RETRY_MS    100
#define GROUP_BUFFER_MAX   (1024 * 1024)

#define SUN_PATH_SIZE sizeof(((struct sockaddr_un *)0)->sun_path)

/* A message being read: its record first, then its payload. */
struct frame_reader {
    uint8_t header[IPC_MSG_HEADER_SIZE];
    size_t header_have;
    uint8_t *payload;
    size_t payload_have;
    int error; /* once set, the stream is out of step for good */
};

struct ipc_conn {
    uint32_t id;
    int fd;
    struct frame_reader in;
    bool frame_ready; /* reading pauses until ipc_recv takes it */
    bool peer_done;   /* the peer sent its last byte; close once flushed */
    uint8_t *out;     /* framed replies, written from out_sent on */
    size_t out_len;
    size_t out_sent;
};

struct ipc_ctx {
    pthread_mutex_t lock;
    uint32_t app_id;
    ipc_recv_cb callback;
    int wake_fd; /* lets ipc_send on another thread refresh a waiting poll */
    int pollers;
    int listen_fd;
    int lock_fd;
    uint32_t endpoint_app_id;
    char path[SUN_PATH_SIZE];
    struct ipc_conn *conns[IPC_MAX_CONNECTIONS];
    size_t conn_count;
    uint32_t last_id;
    int64_t accept_resume_ms;
};

struct ipc_client {
    int fd;
    struct frame_reader in;
};

enum { WAKE_ENTRY, LISTEN_ENTRY, FIRST_CONN_ENTRY };

struct poll_set {
    struct pollfd fds[FIRST_CONN_ENTRY + IPC_MAX_CONNECTIONS];
    uint32_t ids[FIRST_CONN_ENTRY + IPC_MAX_CONNECTIONS];
    size_t count;
};

/* Time */

static int64_t now_ms(void)
{
    struct timespec ts;

    clock_gettime(CLOCK_MONOTONIC, &ts);
    return (int64_t)ts.tv_sec * 1000 + ts.tv_nsec / 1000000;
}

static int64_t deadline_after(int timeout_ms)
{
    return timeout_ms < 0 ? -1 : now_ms() + timeout_ms;
}

/* -1 for no deadline, else the milliseconds left, 0 when passed. */
static int remaining_ms(int64_t deadline)
{
    int64_t left;

    if (deadline < 0)
        return -1;
    left = deadline - now_ms();
    if (left <= 0)
        return 0;
    return left > INT_MAX ? INT_MAX : (int)left;
}

static const char *error_text(int negative_errno, char *buf, size_t size)
{
    return strerror_r(-negative_errno, buf, size);
}

/* Framing */

static uint32_t header_payload_len(const uint8_t *header)
{
    uint32_t len;

    memcpy(&len, header + offsetof(ipc_msg_t, payload_len), sizeof(len));
    return len;
}

static void encode_header(uint8_t *dst, const ipc_msg_t *msg)
{
    ipc_msg_t wire = *msg;

    wire.padding = 0;
    wire.payload = NULL;
    memcpy(dst, &wire, IPC_MSG_HEADER_SIZE);
}

static int check_outgoing(const ipc_msg_t *msg)
{
    if (msg->payload_len > IPC_MAX_PAYLOAD)
        return -EMSGSIZE;
    if (msg->payload_len > 0 && msg->payload == NULL)
        return -EINVAL;
    return 0;
}

static void reader_reset(struct frame_reader *r)
{
    free(r->payload);
    memset(r, 0, sizeof(*r));
}

static bool reader_complete(const struct frame_reader *r)
{
    return r->header_have == IPC_MSG_HEADER_SIZE &&
           r->payload_have == header_payload_len(r->header);
}

/* Bytes read, 0 when none are waiting, -ECONNRESET at end of stream. */
static ssize_t read_some(int fd, void *buf, size_t len)
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

/* The length is checked before anything is allocated for the payload. */
static int reader_start_payload(struct frame_reader *r)
{
    uint32_t len = header_payload_len(r->header);

    if (len > IPC_MAX_PAYLOAD)
        return -EMSGSIZE;
    if (len == 0)
        return 0;
    r->payload = static_cast<uint8_t*>(malloc(len));
    return r->payload != NULL ? 0 : -ENOMEM;
}

static ssize_t reader_read_step(struct frame_reader *r, int fd)
{
    ssize_t n;

    if (r->header_have < IPC_MSG_HEADER_SIZE) {
        n = read_some(fd, r->header + r->header_have,
                      IPC_MSG_HEADER_SIZE - r->header_have);
        if (n <= 0)
            return n;
        r->header_have += (size_t)n;
        if (r->header_have == IPC_MSG_HEADER_SIZE) {
            int rc = reader_start_payload(r);

            if (rc < 0)
                return rc;
        }
        return n;
    }
    n = read_some(fd, r->payload + r->payload_have,
                  header_payload_len(r->header) - r->payload_have);
    if (n > 0)
        r->payload_have += (size_t)n;
    return n;
}

/* Reads what has arrived but never past the end of one message, so each
 * message waits in the socket until the one before is taken: 1 when a
 * whole message is in, 0 when more is to come, else a negative errno. */
static int reader_fill(struct frame_reader *r, int fd)
{
    if (r->error != 0)
        return r->error;
    while (!reader_complete(r)) {
        ssize_t n = reader_read_step(r, fd);

        if (n == 0)
            return 0;
        if (n < 0) {
            r->error = (int)n;
            return r->error;
        }
    }
    return 1;
}

static void reader_take(struct frame_reader *r, ipc_msg_t *msg)
{
    memcpy(msg, r->header, IPC_MSG_HEADER_SIZE);
    msg->padding = 0;
    msg->payload = r->payload;
    r->payload = NULL;
    reader_reset(r);
}

/* Sockets */

static int unix_address(const char *path, struct sockaddr_un *addr)
{
    size_t len = strlen(path);

    if (len >= sizeof(addr->sun_path))
        return -ENAMETOOLONG;
    memset(addr, 0, sizeof(*addr));
    addr->sun_family = AF_UNIX;
    memcpy(addr->sun_path, path, len + 1);
    return 0;
}

static int set_send_timeout(int fd, int timeout_ms)
{
    struct timeval tv = {
        .tv_sec = timeout_ms / 1000,
        .tv_usec = (timeout_ms % 1000) * 1000,
    };

    if (setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof(tv)) != 0)
        return -errno;
    return 0;
}

/* send_timeout_ms 0: a non-blocking socket, connect does not wait. */
static int connect_unix(const char *path, int send_timeout_ms, int *fd_out)
{
    int flags = SOCK_STREAM | SOCK_CLOEXEC;
    struct sockaddr_un addr;
    int fd, rc;

    rc = unix_address(path, &addr);
    if (rc < 0)
        return rc;
    fd = socket(AF_UNIX, flags | (send_timeout_ms > 0 ? 0 : SOCK_NONBLOCK), 0);
    if (fd < 0)
        return -errno;
    if (send_timeout_ms > 0)
        rc = set_send_timeout(fd, send_timeout_ms);
    if (rc == 0 && connect(fd, (struct sockaddr *)&addr, sizeof(addr)) != 0)
        rc = -errno;
    if (rc < 0) {
        close(fd);
        return rc;
    }
    *fd_out = fd;
    return 0;
}

int ipc_socket_path(uint32_t app_id, char *buf, size_t size)
{
    int n;

    if (buf == NULL)
        return -EINVAL;
    n = snprintf(buf, size, IPC_SOCKET_DIR "/%" PRIu32 ".sock", app_id);
    if (n < 0 || (size_t)n >= size)
        return -ENAMETOOLONG;
    return 0;
}

/* Server context */

static struct ipc_ctx *ctx_from_handle(uint64_t handle)
{
    return (struct ipc_ctx *)(uintptr_t)handle;
}

uint64_t ipc_ctx_init(uint32_t app_id)
{
    struct ipc_ctx *ctx = static_cast<ipc_ctx*>(calloc(1, sizeof(*ctx)));

    if (ctx == NULL) {
        plat_syslog(LOG_ERR, IPC_LOG_IDENT, 0, "IPC context: out of memory");
        return 0;
    }
    ctx->wake_fd = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    if (ctx->wake_fd < 0 || pthread_mutex_init(&ctx->lock, NULL) != 0) {
        plat_syslog(LOG_ERR, IPC_LOG_IDENT, 0, "IPC context: no event fd");
        if (ctx->wake_fd >= 0)
            close(ctx->wake_fd);
        free(ctx);
        return 0;
    }
    ctx->app_id = app_id;
    ctx->listen_fd = -1;
    ctx->lock_fd = -1;
    return (uint64_t)(uintptr_t)ctx;
}

int ipc_ctx_init_proxy(uint64_t handle, int mode, ipc_recv_cb cb, int flags)
{
    struct ipc_ctx *ctx = ctx_from_handle(handle);

    (void)mode;
    (void)flags;
    if (ctx == NULL)
        return -EINVAL;
    pthread_mutex_lock(&ctx->lock);
    ctx->callback = cb;
    pthread_mutex_unlock(&ctx->lock);
    return 0;
}

/* Connections */

static struct ipc_conn *find_conn(const struct ipc_ctx *ctx, uint32_t id)
{
    for (size_t i = 0; i < ctx->conn_count; i++)
        if (ctx->conns[i]->id == id)
            return ctx->conns[i];
    return NULL;
}

/* Terminates: at most IPC_MAX_CONNECTIONS ids are in use. */
static uint32_t unused_conn_id(struct ipc_ctx *ctx)
{
    do
        ctx->last_id++;
    while (ctx->last_id == 0 || find_conn(ctx, ctx->last_id) != NULL);
    return ctx->last_id;
}

static void close_conn(struct ipc_ctx *ctx, struct ipc_conn *conn)
{
    size_t i = 0;

    while (ctx->conns[i] != conn)
        i++;
    memmove(&ctx->conns[i], &ctx->conns[i + 1],
            (ctx->conn_count - i - 1) * sizeof(ctx->conns[0]));
    ctx->conn_count--;
    close(conn->fd);
    reader_reset(&conn->in);
    free(conn->out);
    free(conn);
}

static int add_conn(struct ipc_ctx *ctx, int fd)
{
    struct ipc_conn *conn;

    if (ctx->conn_count == IPC_MAX_CONNECTIONS) {
        plat_syslog(LOG_WARNING, IPC_LOG_IDENT, 0,
                    "IPC connection refused: %d connections open",
                    IPC_MAX_CONNECTIONS);
        return -EMFILE;
    }
    conn = static_cast<ipc_conn*>(calloc(1, sizeof(*conn)));
    if (conn == NULL) {
        plat_syslog(LOG_ERR, IPC_LOG_IDENT, 0,
                    "IPC connection refused: out of memory");
        return -ENOMEM;
    }
    conn->fd = fd;
    conn->id = unused_conn_id(ctx);
    ctx->conns[ctx->conn_count++] = conn;
    return 0;
}

static bool accepting(const struct ipc_ctx *ctx)
{
    return now_ms() >= ctx->accept_resume_ms;
}

/* Out of descriptors the listening socket stays readable: waiting a little
 * before the next accept keeps that from spinning. */
static void pause_accepting(struct ipc_ctx *ctx, int err)
{
    char buf[64];

    plat_syslog(LOG_ERR, IPC_LOG_IDENT, 0, "IPC accept failed: %s",
                error_text(-err, buf, sizeof(buf)));
    ctx->accept_resume_ms = now_ms() + ACCEPT_RETRY_MS;
}

static void accept_connections(struct ipc_ctx *ctx)
{
    for (;;) {
        int fd =
            accept4(ctx->listen_fd, NULL, NULL, SOCK_NONBLOCK | SOCK_CLOEXEC);

        if (fd >= 0) {
            if (add_conn(ctx, fd) < 0)
                close(fd);
            continue;
        }
        if (errno == EINTR || errno == ECONNABORTED)
            continue;
        if (errno != EAGAIN && errno != EWOULDBLOCK)
            pause_accepting(ctx, errno);
        return;
    }
}

static bool has_output(const struct ipc_conn *conn)
{
    return conn->out_sent < conn->out_len;
}

/* Writes queued bytes until the socket takes no more: 0 or a negative
 * errno (the peer is gone). */
static int flush_output(struct ipc_conn *conn)
{
    while (has_output(conn)) {
        ssize_t n =
            send(conn->fd, conn->out + conn->out_sent,
                 conn->out_len - conn->out_sent, MSG_NOSIGNAL | MSG_DONTWAIT);

        if (n < 0) {
            if (errno == EINTR)
                continue;
            return errno == EAGAIN || errno == EWOULDBLOCK ? 0 : -errno;
        }
        conn->out_sent += (size_t)n;
    }
    free(conn->out);
    conn->out = NULL;
    conn->out_len = 0;
    conn->out_sent = 0;
    return 0;
}

static int queue_frame(struct ipc_conn *conn, const ipc_msg_t *msg)
{
    size_t pending = conn->out_len - conn->out_sent;
    size_t frame = IPC_MSG_HEADER_SIZE + (size_t)msg->payload_len;
    uint8_t *grown;

    if (pending + frame > IPC_MAX_PENDING_OUTPUT)
        return -ENOBUFS;
    if (conn->out_sent > 0) {
        memmove(conn->out, conn->out + conn->out_sent, pending);
        conn->out_sent = 0;
        conn->out_len = pending;
    }
    grown = static_cast<uint8_t*>(realloc(conn->out, pending + frame));
    if (grown == NULL)
        return -ENOMEM;
    conn->out = grown;
    encode_header(conn->out + pending, msg);
    if (msg->payload_len > 0)
        memcpy(conn->out + pending + IPC_MSG_HEADER_SIZE, msg->payload,
               msg->payload_len);
    conn->out_len = pending + frame;
    return 0;
}

static void wake_poller(struct ipc_ctx *ctx)
{
    uint64_t one = 1;

    if (ctx->pollers > 0 && write(ctx->wake_fd, &one, sizeof(one)) < 0) {
        /* Only fails when wakes are already pending. */
    }
}

static void drain_wakes(struct ipc_ctx *ctx)
{
    uint64_t count;

    if (read(ctx->wake_fd, &count, sizeof(count)) < 0) {
        /* Nothing pending: another poller drained it. */
    }
}

/* Sending */

static int send_to_conn(struct ipc_ctx *ctx, const ipc_msg_t *msg)
{
    struct ipc_conn *conn = find_conn(ctx, msg->addr1);
    int rc;

    if (conn == NULL)
        return -ENOTCONN;
    rc = queue_frame(conn, msg);
    if (rc == -ENOMEM)
        return rc; /* nothing was queued: the stream is still in step */
    if (rc == -ENOBUFS)
        plat_syslog(LOG_WARNING, IPC_LOG_IDENT, 0,
                    "IPC connection closed: more than %u bytes of replies "
                    "unread",
                    IPC_MAX_PENDING_OUTPUT);
    if (rc == 0)
        rc = flush_output(conn);
    if (rc < 0)
        close_conn(ctx, conn);
    wake_poller(ctx);
    return rc;
}

int ipc_send(uint64_t handle, ipc_msg_t *msg, int flags)
{
    struct ipc_ctx *ctx = ctx_from_handle(handle);
    int rc;

    (void)flags;
    if (msg == NULL)
        return -EINVAL;
    rc = ctx != NULL ? check_outgoing(msg) : -EINVAL;
    if (rc == 0) {
        pthread_mutex_lock(&ctx->lock);
        rc = send_to_conn(ctx, msg);
        pthread_mutex_unlock(&ctx->lock);
    }
    free(msg->payload);
    msg->payload = NULL;
    return rc;
}

/* Receiving */

static void log_read_failure(int rc, const struct ipc_conn *conn)
{
    if (rc == -EMSGSIZE)
        plat_syslog(LOG_WARNING, IPC_LOG_IDENT, 0,
                    "IPC connection closed: payload length %" PRIu32
                    " above %u",
                    header_payload_len(conn->in.header), IPC_MAX_PAYLOAD);
    else if (rc == -ENOMEM)
        plat_syslog(LOG_ERR, IPC_LOG_IDENT, 0,
                    "IPC connection closed: no memory for %" PRIu32
                    " payload bytes",
                    header_payload_len(conn->in.header));
}

static int read_frame(struct ipc_conn *conn)
{
    int rc = reader_fill(&conn->in, conn->fd);

    if (rc == 1) {
        conn->frame_ready = true;
        return 0;
    }
    /* A peer that shut its side after whole requests still gets the
     * replies already queued. */
    if (rc == -ECONNRESET && conn->in.header_have == 0 && has_output(conn)) {
        conn->peer_done = true;
        return 0;
    }
    log_read_failure(rc, conn);
    return rc;
}

static void service_conn(struct ipc_ctx *ctx, struct ipc_conn *conn,
                         short revents)
{
    int rc = 0;

    if (has_output(conn) && (revents & (POLLOUT | POLLERR | POLLHUP)))
        rc = flush_output(conn);
    if (rc == 0 && !conn->peer_done && (revents & (POLLIN | POLLERR | POLLHUP)))
        rc = read_frame(conn);
    if (rc < 0 || (conn->peer_done && !has_output(conn)))
        close_conn(ctx, conn);
}

static void build_poll_set(const struct ipc_ctx *ctx, struct poll_set *set)
{
    set->fds[WAKE_ENTRY] =
        pollfd{.fd = ctx->wake_fd, .events = POLLIN, .revents = 0};
    set->fds[LISTEN_ENTRY] = pollfd{
        .fd = accepting(ctx) ? ctx->listen_fd : -1, .events = POLLIN, .revents = 0};
    set->count = FIRST_CONN_ENTRY;
    for (size_t i = 0; i < ctx->conn_count; i++) {
        const struct ipc_conn *conn = ctx->conns[i];
        short events = 0;

        if (!conn->peer_done)
            events |= POLLIN;
        if (has_output(conn))
            events |= POLLOUT;
        set->ids[set->count] = conn->id;
        set->fds[set->count++] =
            pollfd{.fd = conn->fd, .events = events, .revents = 0};
    }
}

/* Another thread's ipc_send may have closed a connection during the poll,
 * so each entry is looked up again by id and descriptor. */
static void handle_events(struct ipc_ctx *ctx, const struct poll_set *set)
{
    if (set->fds[WAKE_ENTRY].revents != 0)
        drain_wakes(ctx);
    if (set->fds[LISTEN_ENTRY].revents != 0)
        accept_connections(ctx);
    for (size_t i = FIRST_CONN_ENTRY; i < set->count; i++) {
        struct ipc_conn *conn;

        if (set->fds[i].revents == 0)
            continue;
        conn = find_conn(ctx, set->ids[i]);
        if (conn != NULL && conn->fd == set->fds[i].fd)
            service_conn(ctx, conn, set->fds[i].revents);
    }
}

static int poll_timeout(const struct ipc_ctx *ctx, int left_ms)
{
    int64_t pause_ms = ctx->accept_resume_ms - now_ms();

    if (pause_ms <= 0 || (left_ms >= 0 && left_ms < pause_ms))
        return left_ms;
    return (int)pause_ms;
}

/* Called and returns with the lock held; drops it while waiting. */
static int poll_once(struct ipc_ctx *ctx, int left_ms)
{
    struct poll_set set;
    int timeout_ms = poll_timeout(ctx, left_ms);
    int n, err;

    build_poll_set(ctx, &set);
    ctx->pollers++;
    pthread_mutex_unlock(&ctx->lock);
    n = poll(set.fds, set.count, timeout_ms);
    err = errno;
    pthread_mutex_lock(&ctx->lock);
    ctx->pollers--;
    if (n < 0)
        return err == EINTR ? 0 : -err;
    handle_events(ctx, &set);
    return 0;
}

/* A connection holds at most one whole message and every one is taken
 * before the next poll, so no client can starve the others. */
static bool take_ready_frame(struct ipc_ctx *ctx, ipc_msg_t *msg)
{
    for (size_t i = 0; i < ctx->conn_count; i++) {
        struct ipc_conn *conn = ctx->conns[i];

        if (!conn->frame_ready)
            continue;
        reader_take(&conn->in, msg);
        conn->frame_ready = false;
        msg->addr0 = conn->id;
        msg->addr1 = ctx->endpoint_app_id;
        return true;
    }
    return false;
}

static int wait_for_frame(struct ipc_ctx *ctx, ipc_msg_t *msg, int timeout_ms)
{
    int64_t deadline = deadline_after(timeout_ms);
    bool polled = false;

    if (ctx->listen_fd < 0)
        return -ENOTCONN;
    for (;;) {
        int rc;

        if (take_ready_frame(ctx, msg))
            return 0;
        if (polled && remaining_ms(deadline) == 0)
            return -ETIMEDOUT;
        rc = poll_once(ctx, remaining_ms(deadline));
        if (rc < 0)
            return rc;
        polled = true;
    }
}

int ipc_recv(uint64_t handle, ipc_msg_t *msg, int timeout_ms)
{
    struct ipc_ctx *ctx = ctx_from_handle(handle);
    ipc_recv_cb callback;
    int rc;

    if (msg == NULL)
        return -EINVAL;
    memset(msg, 0, sizeof(*msg));
    if (ctx == NULL)
        return -EINVAL;
    pthread_mutex_lock(&ctx->lock);
    rc = wait_for_frame(ctx, msg, timeout_ms);
    callback = ctx->callback;
    pthread_mutex_unlock(&ctx->lock);
    /* Unlocked: the callback answers through ipc_send. */
    if (rc == 0 && callback != NULL)
        callback(NULL, msg);
    return rc;
}

/* Endpoint */

static int make_dir(const char *path)
{
    if (mkdir(path, IPC_DIR_MODE) != 0)
        return errno == EEXIST ? 0 : -errno;
    /* mkdir applies the umask; clients must be able to reach the socket. */
    return chmod(path, IPC_DIR_MODE) == 0 ? 0 : -errno;
}

static int make_socket_dir(void)
{
    int rc = make_dir(IPC_RUN_DIR);

    return rc < 0 ? rc : make_dir(IPC_SOCKET_DIR);
}

/* A lock held for the endpoint's lifetime, so that two servers starting
 * together cannot both take a stale socket file for their own. */
static int take_endpoint_lock(const char *socket_path, int *lock_fd)
{
    char path[PATH_MAX];
    int fd;

    snprintf(path, sizeof(path), "%s.lock", socket_path);
    fd = open(path, O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (fd < 0)
        return -errno;
    if (flock(fd, LOCK_EX | LOCK_NB) != 0) {
        int rc = errno == EWOULDBLOCK ? -EADDRINUSE : -errno;

        close(fd);
        return rc;
    }
    *lock_fd = fd;
    return 0;
}

/* 0 when nothing serves socket_path: absent, or a socket file that nobody
 * answers (stale). Anything but a socket is never taken over. */
static int check_no_live_server(const char *socket_path)
{
    struct stat st;
    int fd, rc;

    if (lstat(socket_path, &st) != 0)
        return errno == ENOENT ? 0 : -errno;
    if (!S_ISSOCK(st.st_mode))
        return -EEXIST;
    rc = connect_unix(socket_path, 0, &fd);
    if (rc == 0) {
        close(fd);
        return -EADDRINUSE;
    }
    if (rc == -EAGAIN) /* a live server with a full backlog */
        return -EADDRINUSE;
    return rc == -ECONNREFUSED || rc == -ENOENT ? 0 : rc;
}

/* 1 and the gid when the group exists, 0 when it does not. */
static int lookup_group(const char *name, gid_t *gid)
{
    size_t size = 1024;

    for (;;) {
        struct group grp, *found = NULL;
        char *buf = static_cast<char*>(malloc(size));
        int rc;

        if (buf == NULL)
            return -ENOMEM;
        rc = getgrnam_r(name, &grp, buf, size, &found);
        if (rc == 0 && found != NULL)
            *gid = found->gr_gid;
        free(buf);
        if (rc != ERANGE)
            return rc != 0 ? -rc : found != NULL;
        if (size >= GROUP_BUFFER_MAX)
            return -ERANGE;
        size *= 2;
    }
}

static int set_socket_access(const char *path)
{
    gid_t gid = 0;
    int found;

    if (chmod(path, IPC_SOCKET_MODE) != 0)
        return -errno;
    found = lookup_group(IPC_SOCKET_GROUP, &gid);
    if (found < 0)
        return found;
    if (found && chown(path, (uid_t)-1, gid) != 0)
        return -errno;
    return 0;
}

/* Bound and set up under a temporary name, then renamed into place, so
 * clients only ever see a listening socket with its final mode, and a
 * stale file is replaced in one step. */
static int bind_and_publish(int fd, const char *path)
{
    char tmp[SUN_PATH_SIZE];
    struct sockaddr_un addr;
    int rc;

    if ((size_t)snprintf(tmp, sizeof(tmp), "%s.new", path) >= sizeof(tmp))
        return -ENAMETOOLONG;
    rc = unix_address(tmp, &addr);
    if (rc < 0)
        return rc;
    unlink(tmp); /* left by a server that died here; we hold the lock */
    if (bind(fd, (struct sockaddr *)&addr, sizeof(addr)) != 0)
        return -errno;
    rc = set_socket_access(tmp);
    if (rc == 0 && listen(fd, IPC_LISTEN_BACKLOG) != 0)
        rc = -errno;
    if (rc == 0 && rename(tmp, path) != 0)
        rc = -errno;
    if (rc < 0)
        unlink(tmp);
    return rc;
}

static int listen_at(const char *path, int *listen_fd)
{
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    int rc;

    if (fd < 0)
        return -errno;
    rc = bind_and_publish(fd, path);
    if (rc < 0) {
        close(fd);
        return rc;
    }
    *listen_fd = fd;
    return 0;
}

static int open_endpoint(struct ipc_ctx *ctx, uint32_t app_id)
{
    char path[SUN_PATH_SIZE], buf[64];
    int lock_fd = -1, listen_fd = -1;
    int rc;

    rc = ipc_socket_path(app_id, path, sizeof(path));
    if (rc == 0)
        rc = make_socket_dir();
    if (rc == 0)
        rc = take_endpoint_lock(path, &lock_fd);
    if (rc == 0)
        rc = check_no_live_server(path);
    if (rc == 0)
        rc = listen_at(path, &listen_fd);
    if (rc < 0) {
        if (lock_fd >= 0)
            close(lock_fd);
        plat_syslog(LOG_ERR, IPC_LOG_IDENT, 0,
                    "IPC endpoint %" PRIu32 " not opened: %s", app_id,
                    error_text(rc, buf, sizeof(buf)));
        return rc;
    }
    ctx->lock_fd = lock_fd;
    ctx->listen_fd = listen_fd;
    ctx->endpoint_app_id = app_id;
    memcpy(ctx->path, path, sizeof(path));
    return 0;
}

int ipc_ctx_add_endpoint(uint64_t handle, uint32_t app_id, int type, int flags)
{
    struct ipc_ctx *ctx = ctx_from_handle(handle);
    int rc;

    (void)flags;
    if (ctx == NULL || type != IPC_SOCK_SERVER)
        return -EINVAL;
    pthread_mutex_lock(&ctx->lock);
    rc = ctx->listen_fd >= 0 ? -EEXIST : open_endpoint(ctx, app_id);
    pthread_mutex_unlock(&ctx->lock);
    return rc;
}

/* The socket file goes before the lock is released, so it can never
 * remove the socket of a server that started after us. */
static void close_endpoint(struct ipc_ctx *ctx)
{
    if (ctx->listen_fd < 0)
        return;
    unlink(ctx->path);
    close(ctx->listen_fd);
    close(ctx->lock_fd);
    ctx->listen_fd = -1;
    ctx->lock_fd = -1;
}

void ipc_ctx_destroy(uint64_t handle)
{
    struct ipc_ctx *ctx = ctx_from_handle(handle);

    if (ctx == NULL)
        return;
    while (ctx->conn_count > 0)
        close_conn(ctx, ctx->conns[ctx->conn_count - 1]);
    close_endpoint(ctx);
    close(ctx->wake_fd);
    pthread_mutex_destroy(&ctx->lock);
    free(ctx);
}

void ipc_debug_msg(const ipc_msg_t *msg)
{
    if (msg == NULL) {
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

int ipc_client_open(const char *socket_path, struct ipc_client **out)
{
    struct ipc_client *c;
    int fd, rc;

    if (socket_path == NULL || out == NULL)
        return -EINVAL;
    *out = NULL;
    rc = connect_unix(socket_path, IPC_CLIENT_SEND_TIMEOUT_MS, &fd);
    if (rc < 0)
        return rc == -EAGAIN ? -ETIMEDOUT : rc;
    c = static_cast<ipc_client*>(calloc(1, sizeof(*c)));
    if (c == NULL) {
        close(fd);
        return -ENOMEM;
    }
    c->fd = fd;
    *out = c;
    return 0;
}

static int send_all(int fd, const void *buf, size_t len)
{
    const uint8_t *next = static_cast<const uint8_t*>(buf);

    while (len > 0) {
        ssize_t n = send(fd, next, len, MSG_NOSIGNAL);

        if (n < 0) {
            if (errno == EINTR)
                continue;
            return errno == EAGAIN || errno == EWOULDBLOCK ? -ETIMEDOUT
                                                           : -errno;
        }
        next += n;
        len -= (size_t)n;
    }
    return 0;
}

int ipc_client_send(struct ipc_client *c, const ipc_msg_t *msg)
{
    uint8_t header[IPC_MSG_HEADER_SIZE];
    int rc;

    if (c == NULL || msg == NULL)
        return -EINVAL;
    rc = check_outgoing(msg);
    if (rc < 0)
        return rc;
    encode_header(header, msg);
    rc = send_all(c->fd, header, sizeof(header));
    if (rc == 0 && msg->payload_len > 0)
        rc = send_all(c->fd, msg->payload, msg->payload_len);
    return rc;
}

static int wait_readable(int fd, int timeout_ms)
{
    struct pollfd p = {.fd = fd, .events = POLLIN, .revents = 0};

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

int ipc_client_recv(struct ipc_client *c, ipc_msg_t *msg, int timeout_ms)
{
    int64_t deadline = deadline_after(timeout_ms);

    if (c == NULL || msg == NULL)
        return -EINVAL;
    memset(msg, 0, sizeof(*msg));
    for (;;) {
        int rc = reader_fill(&c->in, c->fd);

        if (rc == 1) {
            reader_take(&c->in, msg);
            return 0;
        }
        if (rc == 0)
            rc = wait_readable(c->fd, remaining_ms(deadline));
        if (rc < 0)
            return rc;
    }
}

void ipc_client_close(struct ipc_client *c)
{
    if (c == NULL)
        return;
    close(c->fd);
    reader_reset(&c->in);
    free(c);
}
