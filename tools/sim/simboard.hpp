/*
 * simboard: a simulated accelerator board for running the daemon, setpci,
 * lspci and libpciaccess unmodified on a host without the FPGA.
 *
 * A board is a directory tree:
 *   ROOT/sys/0000:03:00.0/   one sysfs PCI function; resourceN is the window
 *   ROOT/tmp/                seen as /tmp (holds idprom_cache.conf)
 *   ROOT/opt/                seen as /opt/orvel (platform/logs/)
 *   ROOT/run/                seen as /run/orvel
 * and a sandbox is a private mount namespace in which ROOT/sys appears at
 * /sys/bus/pci/devices and the other directories at their places.
 *
 * Every function returns 0 (or a valid value) on success and -1 with errno
 * set on failure; none of them exits or aborts.
 */
#ifndef SIMBOARD_H
#define SIMBOARD_H

#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

#include <string>

#define SIM_BOARD_SLOT   "0000:03:00.0"
#define SIM_BOARD_VENDOR 0x1c7a
#define SIM_BOARD_FILLER 0xDEADBEEFu

enum sim_board_kind {
    SIM_BOARD_BASE2, /* base image, two traffic pipes */
    SIM_BOARD_BASE1, /* base image, one traffic pipe */
    SIM_BOARD_LHX,   /* LHX image */
    SIM_BOARD_KIND_COUNT
};

struct sim_board;

/*
 * Board tree.  create builds it under root (made if missing; must be empty
 * or absent) and fills the window with the image's power-on content.
 */
int sim_board_create(const char *root, enum sim_board_kind kind,
                     struct sim_board **out);
int sim_board_destroy(struct sim_board *b); /* removes the tree, frees */
void sim_board_free(struct sim_board *b);   /* frees, keeps the tree */

/* "base2", "base1", "lhx" */
const char *sim_board_kind_name(enum sim_board_kind kind);
int sim_board_kind_from_name(const char *name, enum sim_board_kind *kind);

/* Getters; b must be a board from sim_board_create. */
enum sim_board_kind sim_board_kind(const struct sim_board *b);
unsigned sim_board_bar(const struct sim_board *b);
size_t sim_board_window_size(const struct sim_board *b);
unsigned sim_board_controller_type(const struct sim_board *b);

/* Places of a board, on the host. */
enum sim_board_path_id {
    SIM_PATH_ROOT,     /* the board directory */
    SIM_PATH_SYS,      /* ROOT/sys, seen as /sys/bus/pci/devices */
    SIM_PATH_DEVICE,   /* ROOT/sys/0000:03:00.0 */
    SIM_PATH_WINDOW,   /* the register window, resourceN */
    SIM_PATH_CONFIG,   /* the PCI configuration space */
    SIM_PATH_TMP,      /* ROOT/tmp, seen as /tmp */
    SIM_PATH_OPT,      /* ROOT/opt, seen as /opt/orvel */
    SIM_PATH_PLATFORM, /* ROOT/opt/platform */
    SIM_PATH_LOGS,     /* ROOT/opt/platform/logs */
    SIM_PATH_RUN,      /* ROOT/run, seen as /run/orvel */
    SIM_PATH_IDPROM,   /* ROOT/tmp/idprom_cache.conf */
    SIM_PATH_COUNT
};

const char *sim_board_path(const struct sim_board *b,
                           enum sim_board_path_id id);

/* 32-bit little-endian window words; offset aligned and inside the BAR. */
int sim_board_read(const struct sim_board *b, uint32_t offset, uint32_t *value);
int sim_board_write(const struct sim_board *b, uint32_t offset, uint32_t value);
/* A 16-bit word of the config file, e.g. the command word at 4. */
int sim_board_config_read16(const struct sim_board *b, uint32_t offset,
                            uint16_t *value);
/* Replaces idprom_cache.conf with exactly text; NULL removes it. */
int sim_board_set_idprom(const struct sim_board *b, const char *text);
/* The device is still found and probed, but its BAR cannot be mapped. */
int sim_board_break_window(const struct sim_board *b);

/* Sandbox: a private mount namespace showing the board */
struct sim_sandbox_opts {
    const char *syslog_socket; /* bound at /dev/log when not NULL */
};

/*
 * Whether this process can enter the sandbox here.  A child tries what the
 * sandbox needs (a mount namespace, through a user namespace when
 * unprivileged, and a tmpfs and a bind mount in it) and is reaped; the
 * caller is left as it was.  Takes a few milliseconds.  When it cannot,
 * returns false and, when why is not NULL, sets *why to one line saying
 * which step failed and what to do, e.g.
 *   the sandbox cannot be entered here: unshare (user and mount namespace):
 *   Operation not permitted; run as root, or allow unprivileged user
 *   namespaces (sysctl kernel.unprivileged_userns_clone=1 /
 *   user.max_user_namespaces), or in a container grant CAP_SYS_ADMIN
 * Programs check it before they make a board and spawn (lhsim run), tests
 * before they need the sandbox (skipped with *why).
 */
bool sim_sandbox_available(std::string *why);

/* A mount namespace of the caller's own (through a user namespace when
 * unprivileged), its mounts not propagated back. */
int sim_enter_mount_namespace(void);
/*
 * Moves the calling process into the sandbox (opts may be NULL).  Without
 * CAP_SYS_ADMIN it uses a user namespace in which the caller is root.  Call
 * it before starting threads.
 */
int sim_board_enter(const struct sim_board *b,
                    const struct sim_sandbox_opts *opts);
/*
 * fork + sim_board_enter + execvp.  Returns once the child has entered the
 * sandbox: a child that could not is reaped at once and -1 returned, with
 * its errno and sim_board_last_error() saying which step failed.  A child
 * whose exec fails says why on stderr and exits 127.  Makes no files.
 */
pid_t sim_board_spawn(const struct sim_board *b,
                      const struct sim_sandbox_opts *opts, char *const argv[]);
/* Waits at most timeout_ms, then kills with SIGKILL, reaps, ETIMEDOUT. */
int sim_wait(pid_t pid, int timeout_ms, int *status);
/* Which step of this thread's last sim_board_enter or sim_board_spawn
 * failed, and why. */
const char *sim_board_last_error(void);

/* Syslog listener: a datagram socket standing in for /dev/log */
#define SIM_SYSLOG_IDENT_MAX 64
#define SIM_SYSLOG_TEXT_MAX  1024
#define SIM_SYSLOG_RAW_MAX   1100

struct sim_syslog_msg {
    int facility; /* PRI >> 3 */
    int severity; /* PRI & 7 */
    pid_t pid;    /* 0 when the line has none */
    char ident[SIM_SYSLOG_IDENT_MAX];
    char text[SIM_SYSLOG_TEXT_MAX]; /* without trailing newline */
    char raw[SIM_SYSLOG_RAW_MAX];   /* the datagram as received */
};

/* Binds a datagram socket at path (mode 0666) and returns its fd. */
int sim_syslog_open(const char *path);
/* Receives and parses one message; -1 with ETIMEDOUT when none came. */
int sim_syslog_next(int fd, int timeout_ms, struct sim_syslog_msg *m);
/* "<PRI>Mmm dd hh:mm:ss IDENT[PID]: TEXT", the PID part optional. */
int sim_syslog_parse(const char *line, struct sim_syslog_msg *m);
/* Closes fd and, when path is not NULL, removes the socket file. */
int sim_syslog_close(int fd, const char *path);

#endif
