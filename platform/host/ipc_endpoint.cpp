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

/* IPC_SOCKET_DIR, one directory below the other. */
constexpr const char *kRoot = "/run";
constexpr std::array<const char *, 2> kDirs = {"orvel", "ipc"};
static_assert(std::string_view(IPC_SOCKET_DIR) == "/run/orvel/ipc");

/* Why an endpoint was not opened, when the error number does not say. */
struct Refusal {
    char text[160] = {0};
};

/* The path of a name in the directory open at dir_fd, resolved through
 * the descriptor. */
int path_in(int dir_fd, const char *name, sockaddr_un *addr)
{
    *addr = sockaddr_un{};
    addr->sun_family = AF_UNIX;
    int n = snprintf(addr->sun_path, sizeof(addr->sun_path),
                     "/proc/self/fd/%d/%s", dir_fd, name);

    return n > 0 && static_cast<size_t>(n) < sizeof(addr->sun_path)
               ? 0
               : -ENAMETOOLONG;
}

/* Opens (creating it 0755 if missing) the directory name below parent:
 * it must belong to this server's user, and no one else may write it (a
 * directory others could write is made 0755). */
int open_safe_dir(int parent, const char *name, const char *path, UniqueFd *out,
                  Refusal *why)
{
    bool created = mkdirat(parent, name, kDirMode) == 0;
    struct stat st;

    if (!created && errno != EEXIST)
        return -errno;
    UniqueFd fd(
        openat(parent, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!fd.valid())
        return -errno;
    if (fstat(fd.get(), &st) != 0)
        return -errno;
    if (st.st_uid != geteuid()) {
        snprintf(why->text, sizeof(why->text), "%s is owned by uid %u, not %u",
                 path, static_cast<unsigned>(st.st_uid),
                 static_cast<unsigned>(geteuid()));
        return -EPERM;
    }
    /* mkdir applies the umask; clients must be able to reach the socket. */
    if (created || (st.st_mode & 022) != 0) {
        if (fchmod(fd.get(), kDirMode) != 0)
            return -errno;
        if (!created)
            plat_syslog(LOG_WARNING, "orvel-ipc", 0,
                        "IPC socket directory %s was mode %04o, others could "
                        "write it: now %04o",
                        path, static_cast<unsigned>(st.st_mode & 07777),
                        static_cast<unsigned>(kDirMode));
    }
    *out = std::move(fd);
    return 0;
}

int open_socket_dir(UniqueFd *out, Refusal *why)
{
    UniqueFd dir(open(kRoot, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    char path[64];

    if (!dir.valid())
        return -errno;
    snprintf(path, sizeof(path), "%s", kRoot);
    for (const char *name : kDirs) {
        UniqueFd next;

        snprintf(path + strlen(path), sizeof(path) - strlen(path), "/%s", name);
        int rc = open_safe_dir(dir.get(), name, path, &next, why);
        if (rc < 0)
            return rc;
        dir = std::move(next);
    }
    *out = std::move(dir);
    return 0;
}

/* A lock held for the endpoint's lifetime, so that two servers starting
 * together cannot both take a stale socket file for their own. A symbolic
 * link in its place is removed, never followed. */
int take_lock(const Endpoint &ep, UniqueFd *out)
{
    char name[48];

    snprintf(name, sizeof(name), "%s.lock", ep.name);
    UniqueFd fd(openat(ep.dir.get(), name,
                       O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (!fd.valid() && errno == ELOOP && unlinkat(ep.dir.get(), name, 0) == 0) {
        plat_syslog(LOG_WARNING, "orvel-ipc", 0,
                    "IPC endpoint %" PRIu32 ": removed a symbolic link at "
                    "%s/%s",
                    ep.app_id, IPC_SOCKET_DIR, name);
        fd.reset(openat(ep.dir.get(), name,
                        O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC,
                        0600));
    }
    if (!fd.valid())
        return -errno;
    if (flock(fd.get(), LOCK_EX | LOCK_NB) != 0)
        return errno == EWOULDBLOCK ? -EADDRINUSE : -errno;
    *out = std::move(fd);
    return 0;
}

/* 0 when nothing serves the socket: absent, or a socket file that nobody
 * answers (stale). Anything but a socket is never taken over. */
int check_no_live_server(const Endpoint &ep)
{
    struct stat st;
    sockaddr_un addr;

    if (fstatat(ep.dir.get(), ep.name, &st, AT_SYMLINK_NOFOLLOW) != 0)
        return errno == ENOENT ? 0 : -errno;
    if (!S_ISSOCK(st.st_mode))
        return -EEXIST;
    int rc = path_in(ep.dir.get(), ep.name, &addr);
    UniqueFd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (rc < 0 || !fd.valid())
        return rc < 0 ? rc : -errno;
    if (connect(fd.get(), reinterpret_cast<sockaddr *>(&addr), sizeof(addr)) ==
        0)
        return -EADDRINUSE;
    if (errno == EAGAIN) /* a live server with a full backlog */
        return -EADDRINUSE;
    return errno == ECONNREFUSED || errno == ENOENT ? 0 : -errno;
}

/* 1 and the gid when the group exists, 0 when it does not. */
int lookup_group(const char *name, gid_t *gid)
{
    for (size_t size = 1024;; size *= 2) {
        MallocBytes buf(static_cast<uint8_t *>(malloc(size)));
        struct group grp, *found = nullptr;

        if (!buf)
            return -ENOMEM;
        int rc = getgrnam_r(name, &grp, reinterpret_cast<char *>(buf.get()),
                            size, &found);
        if (rc == 0 && found != nullptr)
            *gid = found->gr_gid;
        if (rc != ERANGE)
            return rc != 0 ? -rc : found != nullptr;
        if (size >= kGroupBufferMax)
            return -ERANGE;
    }
}

int set_socket_access(int dir, const char *name)
{
    gid_t gid = 0;

    if (fchmodat(dir, name, kSocketMode, 0) != 0)
        return -errno;
    int found = lookup_group(IPC_SOCKET_GROUP, &gid);
    if (found < 0)
        return found;
    if (found && fchownat(dir, name, static_cast<uid_t>(-1), gid,
                          AT_SYMLINK_NOFOLLOW) != 0)
        return -errno;
    return 0;
}

/* Bound and set up under a temporary name, then renamed into place, so
 * clients only ever see a listening socket with its final mode, and a
 * stale file is replaced in one step. */
int bind_and_publish(const Endpoint &ep, int fd)
{
    char tmp[48];
    sockaddr_un addr;

    snprintf(tmp, sizeof(tmp), "%s.new", ep.name);
    int rc = path_in(ep.dir.get(), tmp, &addr);
    if (rc < 0)
        return rc;
    unlinkat(ep.dir.get(), tmp, 0); /* left by a server that died here */
    if (bind(fd, reinterpret_cast<sockaddr *>(&addr), sizeof(addr)) != 0)
        return -errno;
    rc = set_socket_access(ep.dir.get(), tmp);
    if (rc == 0 && listen(fd, SOMAXCONN) != 0)
        rc = -errno;
    if (rc == 0 && renameat(ep.dir.get(), tmp, ep.dir.get(), ep.name) != 0)
        rc = -errno;
    if (rc < 0)
        unlinkat(ep.dir.get(), tmp, 0);
    return rc;
}

int listen_at(const Endpoint &ep, UniqueFd *out)
{
    UniqueFd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));

    if (!fd.valid())
        return -errno;
    int rc = bind_and_publish(ep, fd.get());
    if (rc == 0)
        *out = std::move(fd);
    return rc;
}

int open_steps(Endpoint *ep, Refusal *why)
{
    int rc = open_socket_dir(&ep->dir, why);

    if (rc == 0)
        rc = take_lock(*ep, &ep->lock);
    if (rc == 0)
        rc = check_no_live_server(*ep);
    if (rc == 0)
        rc = listen_at(*ep, &ep->listener);
    return rc;
}

} // namespace

int open_endpoint(uint32_t app_id, Endpoint *out)
{
    Endpoint ep;
    Refusal why;
    char buf[64];

    ep.app_id = app_id;
    snprintf(ep.name, sizeof(ep.name), "%" PRIu32 ".sock", app_id);
    int rc = open_steps(&ep, &why);
    if (rc < 0) {
        plat_syslog(LOG_ERR, "orvel-ipc", 0,
                    "IPC endpoint %" PRIu32 " not opened: %s", app_id,
                    why.text[0] != 0 ? why.text
                                     : strerror_r(-rc, buf, sizeof(buf)));
        return rc;
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
