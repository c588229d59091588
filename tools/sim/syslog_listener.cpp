/* A datagram socket that receives what syslog(3) sends to /dev/log. */
#include "simboard.hpp"

#include <ctype.h>
#include <errno.h>
#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#define SYSLOG_PRI_MAX 191 /* facility 23, severity 7 */
#define TIMESTAMP_LEN  15  /* "Mmm dd hh:mm:ss" */

static void copy_trunc(char *dst, size_t size, const char *src, size_t len)
{
    if (len >= size)
        len = size - 1;
    memcpy(dst, src, len);
    dst[len] = '\0';
}

int sim_syslog_open(const char *path)
{
    struct sockaddr_un addr = {};
    struct stat st;
    int fd, e;

    addr.sun_family = AF_UNIX;
    if (!path || strlen(path) >= sizeof(addr.sun_path)) {
        errno = path ? ENAMETOOLONG : EINVAL;
        return -1;
    }
    if (lstat(path, &st) == 0) {
        if (!S_ISSOCK(st.st_mode)) {
            errno = EEXIST;
            return -1;
        }
        if (unlink(path) < 0)
            return -1;
    }
    strcpy(addr.sun_path, path);
    fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return -1;
    if (bind(fd, (struct sockaddr *)&addr, sizeof(addr)) < 0 ||
        chmod(path, 0666) < 0) {
        e = errno;
        close(fd);
        errno = e;
        return -1;
    }
    return fd;
}

int sim_syslog_close(int fd, const char *path)
{
    int rc = close(fd);

    if (path && unlink(path) < 0)
        rc = -1;
    return rc;
}

/* glibc writes the time as "%h %e %T": fixed width, blank-padded day. */
static const char *skip_timestamp(const char *p)
{
    if (strnlen(p, TIMESTAMP_LEN + 1) <= TIMESTAMP_LEN)
        return p;
    if (p[3] != ' ' || p[6] != ' ' || p[9] != ':' || p[12] != ':' ||
        p[TIMESTAMP_LEN] != ' ')
        return p;
    return p + TIMESTAMP_LEN + 1;
}

static const char *parse_pri(const char *p, struct sim_syslog_msg *m)
{
    char *end;
    long pri;

    if (*p != '<' || !isdigit((unsigned char)p[1]))
        return NULL;
    pri = strtol(p + 1, &end, 10);
    if (*end != '>' || pri > SYSLOG_PRI_MAX)
        return NULL;
    m->facility = (int)(pri >> 3);
    m->severity = (int)(pri & 7);
    return end + 1;
}

/*
 * The tag ends at the first ": ".  When "[digits]" stands right before it,
 * those digits are the pid (LOG_PID); the text may hold ": " of its own.
 */
static void parse_tag(const char *tag, const char *colon,
                      struct sim_syslog_msg *m)
{
    const char *end = colon;
    const char *q = colon - 1;

    if (q > tag && *q == ']') {
        const char *d = q;

        while (d > tag && isdigit((unsigned char)d[-1]))
            d--;
        if (d < q && d > tag && d[-1] == '[') {
            m->pid = (pid_t)strtol(d, NULL, 10);
            end = d - 1;
        }
    }
    copy_trunc(m->ident, sizeof(m->ident), tag, (size_t)(end - tag));
}

int sim_syslog_parse(const char *line, struct sim_syslog_msg *m)
{
    const char *p, *colon;
    size_t len;

    if (!line || !m) {
        errno = EINVAL;
        return -1;
    }
    memset(m, 0, sizeof(*m));
    copy_trunc(m->raw, sizeof(m->raw), line, strlen(line));
    p = parse_pri(m->raw, m);
    if (p)
        p = skip_timestamp(p);
    colon = p ? strstr(p, ": ") : NULL;
    if (!colon) {
        errno = EBADMSG;
        return -1;
    }
    parse_tag(p, colon, m);
    p = colon + 2;
    len = strlen(p);
    while (len > 0 && p[len - 1] == '\n')
        len--;
    copy_trunc(m->text, sizeof(m->text), p, len);
    return 0;
}

int sim_syslog_next(int fd, int timeout_ms, struct sim_syslog_msg *m)
{
    struct pollfd pfd = {.fd = fd, .events = POLLIN, .revents = 0};
    char buf[SIM_SYSLOG_RAW_MAX];
    ssize_t n;
    int r;

    if (!m) {
        errno = EINVAL;
        return -1;
    }
    do
        r = poll(&pfd, 1, timeout_ms);
    while (r < 0 && errno == EINTR);
    if (r < 0)
        return -1;
    if (r == 0) {
        errno = ETIMEDOUT;
        return -1;
    }
    n = recv(fd, buf, sizeof(buf) - 1, MSG_DONTWAIT);
    if (n < 0)
        return -1;
    buf[n] = '\0';
    return sim_syslog_parse(buf, m);
}
