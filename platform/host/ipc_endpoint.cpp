/* A server's endpoint: a socket file in a directory that only this
 * server's user may change, a lock beside it, and the listening socket.
 * Every file in the directory is reached through the directory's
 * descriptor, never through a symbolic link. */
#include <fcntl.h>
#include <grp.h>
#include <inttypes.h>
#include <stdio.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <syslog.h>

#include <string_view>

#include "ipc_transport.hpp"
#include "plat_syslog.h"

namespace plat::ipc
{

namespace
{

constexpr mode_t kDirMode = 0755;
constexpr mode_t kSocketMode = 0660;
constexpr size_t kGroupBufferMax = 1024 * 1024;

/* IPC_SOCKET_DIR, each directory opened below the one before. */
constexpr const char *kRoot = "/run";
constexpr const char *kDirs[] = {"/run/orvel", IPC_SOCKET_DIR};
static_assert(std::string_view(IPC_SOCKET_DIR) == "/run/orvel/ipc");

/* Why an endpoint was not opened, when the error number does not say. */
using Refusal = std::array<char, 160>;

/* bind or connect fd to a name in the directory open at dir, reached
 * through the descriptor. */
int at_name(int (*op)(int, const sockaddr *, socklen_t), int fd, int dir,
            const char *name)
{
    sockaddr_un addr = {.sun_family = AF_UNIX, .sun_path = {}};
    int n = snprintf(addr.sun_path, sizeof(addr.sun_path),
                     "/proc/self/fd/%d/%s", dir, name);

    if (n <= 0 || static_cast<size_t>(n) >= sizeof(addr.sun_path)) {
        errno = ENAMETOOLONG;
        return -1;
    }
    return op(fd, reinterpret_cast<sockaddr *>(&addr), sizeof(addr));
}

/* Replaces dir by the directory below it (created 0755 if missing): it
 * must belong to this server's user, and no one else may write it (a
 * directory others could write is made 0755). */
int open_safe_dir(UniqueFd &dir, const char *path, Refusal &why)
{
    const char *name = strrchr(path, '/') + 1;
    bool created = mkdirat(dir.get(), name, kDirMode) == 0;
    struct stat st;

    if (!created && errno != EEXIST)
        return -errno;
    dir.reset(openat(dir.get(), name,
                     O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!dir.valid() || fstat(dir.get(), &st) != 0)
        return -errno;
    if (st.st_uid != geteuid()) {
        snprintf(why.data(), why.size(), "%s is owned by uid %u, not %u", path,
                 static_cast<unsigned>(st.st_uid),
                 static_cast<unsigned>(geteuid()));
        return -EPERM;
    }
    bool others_write = !created && (st.st_mode & 022) != 0;
    /* mkdir applies the umask; clients must be able to reach the socket. */
    if ((created || others_write) && fchmod(dir.get(), kDirMode) != 0)
        return -errno;
    if (others_write)
        plat_syslog(LOG_WARNING, "orvel-ipc", 0,
                    "IPC socket directory %s was mode %04o, others could "
                    "write it: now %04o",
                    path, static_cast<unsigned>(st.st_mode & 07777),
                    static_cast<unsigned>(kDirMode));
    return 0;
}

int open_socket_dir(Endpoint &ep, Refusal &why)
{
    ep.dir.reset(open(kRoot, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!ep.dir.valid())
        return -errno;
    for (const char *path : kDirs) {
        if (int rc = open_safe_dir(ep.dir, path, why); rc < 0)
            return rc;
    }
    return 0;
}

/* A lock held for the endpoint's lifetime, so that two servers starting
 * together cannot both take a stale socket file for their own. A symbolic
 * link in its place is removed, never followed. */
int take_lock(Endpoint &ep, Refusal &)
{
    constexpr int kFlags = O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC;
    char name[48];

    snprintf(name, sizeof(name), "%s.lock", ep.name);
    ep.lock.reset(openat(ep.dir.get(), name, kFlags, 0600));
    if (!ep.lock.valid() && errno == ELOOP &&
        unlinkat(ep.dir.get(), name, 0) == 0) {
        plat_syslog(LOG_WARNING, "orvel-ipc", 0,
                    "IPC endpoint %" PRIu32 ": removed a symbolic link at "
                    "%s/%s",
                    ep.app_id, IPC_SOCKET_DIR, name);
        ep.lock.reset(openat(ep.dir.get(), name, kFlags | O_EXCL, 0600));
    }
    if (!ep.lock.valid())
        return -errno;
    if (flock(ep.lock.get(), LOCK_EX | LOCK_NB) != 0)
        return errno == EWOULDBLOCK ? -EADDRINUSE : -errno;
    return 0;
}

/* 0 when nothing serves the socket: absent, or a socket file that nobody
 * answers (stale). Anything but a socket is never taken over. */
int check_no_live_server(Endpoint &ep, Refusal &)
{
    struct stat st;

    if (fstatat(ep.dir.get(), ep.name, &st, AT_SYMLINK_NOFOLLOW) != 0)
        return errno == ENOENT ? 0 : -errno;
    if (!S_ISSOCK(st.st_mode))
        return -EEXIST;
    UniqueFd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (!fd.valid())
        return -errno;
    /* EAGAIN: a live server with a full backlog. */
    if (at_name(connect, fd.get(), ep.dir.get(), ep.name) == 0 ||
        errno == EAGAIN)
        return -EADDRINUSE;
    return errno == ECONNREFUSED || errno == ENOENT ? 0 : -errno;
}

/* The socket's mode, and its group IPC_SOCKET_GROUP when that exists. */
int set_socket_access(int dir, const char *name)
{
    struct group grp, *found = nullptr;
    int rc = ERANGE;

    if (fchmodat(dir, name, kSocketMode, 0) != 0)
        return -errno;
    for (size_t size = 1024; rc == ERANGE && size <= kGroupBufferMax;
         size *= 2) {
        MallocBytes buf(static_cast<uint8_t *>(malloc(size)));

        if (!buf)
            return -ENOMEM;
        rc = getgrnam_r(IPC_SOCKET_GROUP, &grp,
                        reinterpret_cast<char *>(buf.get()), size, &found);
    }
    if (rc != 0)
        return -rc;
    if (found != nullptr && fchownat(dir, name, static_cast<uid_t>(-1),
                                     grp.gr_gid, AT_SYMLINK_NOFOLLOW) != 0)
        return -errno;
    return 0;
}

/* Bound and set up under a temporary name, then renamed into place, so
 * clients only ever see a listening socket with its final mode, and a
 * stale file is replaced in one step. */
int listen_at(Endpoint &ep, Refusal &)
{
    int dir = ep.dir.get();
    char tmp[48];

    ep.listener.reset(
        socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (!ep.listener.valid())
        return -errno;
    snprintf(tmp, sizeof(tmp), "%s.new", ep.name);
    unlinkat(dir, tmp, 0); /* left by a server that died here */
    if (at_name(bind, ep.listener.get(), dir, tmp) != 0)
        return -errno;
    int rc = set_socket_access(dir, tmp);
    if (rc == 0 && (listen(ep.listener.get(), SOMAXCONN) != 0 ||
                    renameat(dir, tmp, dir, ep.name) != 0))
        rc = -errno;
    if (rc < 0)
        unlinkat(dir, tmp, 0);
    return rc;
}

/* In this order: the lock is held before a socket file is judged stale. */
using Step = int (*)(Endpoint &, Refusal &);
constexpr Step kSteps[] = {open_socket_dir, take_lock, check_no_live_server,
                           listen_at};

} // namespace

int open_endpoint(uint32_t app_id, Endpoint *out)
{
    Endpoint ep;
    Refusal why{};
    char buf[64];

    ep.app_id = app_id;
    snprintf(ep.name, sizeof(ep.name), "%" PRIu32 ".sock", app_id);
    for (Step step : kSteps) {
        if (int rc = step(ep, why); rc < 0) {
            plat_syslog(LOG_ERR, "orvel-ipc", 0,
                        "IPC endpoint %" PRIu32 " not opened: %s", app_id,
                        why[0] != 0 ? why.data()
                                    : strerror_r(-rc, buf, sizeof(buf)));
            return rc;
        }
    }
    *out = std::move(ep);
    return 0;
}

/* The socket file goes before the lock is released, so it can never
 * remove the socket of a server that started after us. */
void close_endpoint(Endpoint *ep)
{
    if (!ep->listener.valid())
        return;
    unlinkat(ep->dir.get(), ep->name, 0);
    ep->listener.reset();
    ep->lock.reset();
    ep->dir.reset();
}

} // namespace plat::ipc
