/* A board directory made by simboard, opened from its own
 * files: the sysfs "device" file names the image, the "resource" file the
 * BAR whose resourceN is the window, and idprom_cache.conf the kind. */
#include <errno.h>
#include <fcntl.h>
#include <ftw.h>
#include <sched.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include "lh_device.hpp"
#include "lhsim.hpp"

#define DEVICE_DIR     "sys/" SIM_BOARD_SLOT
#define IDPROM_FILE    "tmp/idprom_cache.conf"
#define RESOURCE_LINES 13

/* The places the stand-in board of lhsim_board_spawn takes. */
#define STANDIN_MOUNT "/tmp"
#define STANDIN_ROOT  "/tmp/board"

#define NELEM(a) (sizeof(a) / sizeof((a)[0]))

/* What sim_board_create writes for each kind (tools/sim/simboard.c);
 * the first row of a device id is its kind when the controller type is
 * none of these. */
static const struct lhsim_kind kinds[] = {
    {SIM_BOARD_BASE2, 0x01d7, 0x1106, LH_DEV_TYPE_BASE, 2},
    {SIM_BOARD_BASE1, 0x01d7, 0x1109, LH_DEV_TYPE_BASE, 1},
    {SIM_BOARD_LHX, 0x01d9, 0x1126, LH_DEV_TYPE_LHX, 1},
};

static int join(char *out, const char *root, const char *name)
{
    int n = snprintf(out, PATH_MAX, "%s/%s", root, name);

    if (n < 0 || n >= PATH_MAX) {
        errno = ENAMETOOLONG;
        return -1;
    }
    return 0;
}

/* The hex number that the sysfs file root/name holds. */
static int read_hex(const char *root, const char *name, unsigned *value)
{
    char path[PATH_MAX];
    FILE *file;
    int got;

    if (join(path, root, name) < 0 || (file = fopen(path, "re")) == NULL)
        return -1;
    got = fscanf(file, "%x", value);
    fclose(file);
    return got == 1 ? 0 : -1;
}

static unsigned controller_type(const char *root)
{
    char path[PATH_MAX];
    char line[128];
    unsigned type = 0;
    FILE *file;

    if (join(path, root, IDPROM_FILE) < 0 || (file = fopen(path, "re")) == NULL)
        return 0;
    while (fgets(line, sizeof(line), file) != NULL)
        if (sscanf(line, "CONTROLLER_TYPE=%u", &type) == 1)
            break;
    fclose(file);
    return type;
}

static const struct lhsim_kind *find_kind(const char *root)
{
    const struct lhsim_kind *found = NULL;
    unsigned device_id, type;

    if (read_hex(root, DEVICE_DIR "/device", &device_id) < 0)
        return NULL;
    type = controller_type(root);
    for (size_t i = 0; i < NELEM(kinds); i++) {
        if (kinds[i].device_id != device_id)
            continue;
        if (kinds[i].controller_type == type)
            return &kinds[i];
        if (found == NULL)
            found = &kinds[i];
    }
    return found;
}

const struct lhsim_kind *lhsim_kind_of(enum sim_board_kind kind)
{
    for (const struct lhsim_kind &row : kinds)
        if (row.kind == kind)
            return &row;
    return NULL;
}

/* The BAR is the one line of "resource" that has an end address. */
static int find_bar(const char *root, unsigned *bar)
{
    char path[PATH_MAX];
    unsigned long long start, end, flags;
    FILE *file;
    int rc = -1;

    if (join(path, root, DEVICE_DIR "/resource") < 0 ||
        (file = fopen(path, "re")) == NULL)
        return -1;
    for (unsigned i = 0; i < RESOURCE_LINES && rc < 0; i++) {
        if (fscanf(file, "%llx %llx %llx", &start, &end, &flags) != 3)
            break;
        if (end != 0) {
            *bar = i;
            rc = 0;
        }
    }
    fclose(file);
    return rc;
}

static int open_window(const char *root, struct lhsim_board *board)
{
    char name[64];
    struct stat st;
    unsigned bar;

    if (find_bar(root, &bar) < 0)
        return -1;
    snprintf(name, sizeof(name), DEVICE_DIR "/resource%u", bar);
    if (join(board->window, root, name) < 0)
        return -1;
    board->window_fd = open(board->window, O_RDWR | O_CLOEXEC);
    if (board->window_fd < 0 || fstat(board->window_fd, &st) < 0 ||
        !S_ISREG(st.st_mode) || st.st_size < 4 || st.st_size > UINT32_MAX)
        return -1;
    board->window_size = (uint32_t)st.st_size;
    return 0;
}

int lhsim_board_exists(const char *dir)
{
    struct lhsim_board board;
    int found;

    memset(&board, 0, sizeof(board));
    board.window_fd = -1;
    found = find_kind(dir) != NULL && open_window(dir, &board) == 0;
    lhsim_board_close(&board);
    return found;
}

int lhsim_board_open(const char *dir, struct lhsim_board *board)
{
    struct stat st;

    memset(board, 0, sizeof(*board));
    board->window_fd = -1;
    if (stat(dir, &st) < 0 || !S_ISDIR(st.st_mode)) {
        fprintf(stderr, "lhsim: %s: no such directory\n", dir);
        return -1;
    }
    if (realpath(dir, board->root) == NULL ||
        (board->kind = find_kind(board->root)) == NULL ||
        open_window(board->root, board) < 0) {
        fprintf(stderr, "lhsim: %s: not a simulated board\n", dir);
        lhsim_board_close(board);
        return -1;
    }
    return 0;
}

void lhsim_board_close(struct lhsim_board *board)
{
    if (board->window_fd >= 0)
        close(board->window_fd);
    board->window_fd = -1;
}

static int check_offset(const struct lhsim_board *board, uint32_t offset)
{
    if (offset % 4 != 0 || offset > board->window_size - 4) {
        errno = EINVAL;
        return -1;
    }
    return 0;
}

/* Window words are little-endian, as the FPGA's. */
int lhsim_board_read(const struct lhsim_board *board, uint32_t offset,
                     uint32_t *value)
{
    uint8_t bytes[4];
    ssize_t n;

    if (check_offset(board, offset) < 0)
        return -1;
    n = pread(board->window_fd, bytes, sizeof(bytes), offset);
    if (n != sizeof(bytes)) {
        errno = n < 0 ? errno : EIO;
        return -1;
    }
    *value = (uint32_t)bytes[0] | (uint32_t)bytes[1] << 8 |
             (uint32_t)bytes[2] << 16 | (uint32_t)bytes[3] << 24;
    return 0;
}

int lhsim_board_write(const struct lhsim_board *board, uint32_t offset,
                      uint32_t value)
{
    const uint8_t bytes[4] = {
        static_cast<uint8_t>(value), static_cast<uint8_t>(value >> 8),
        static_cast<uint8_t>(value >> 16), static_cast<uint8_t>(value >> 24)};
    ssize_t n;

    if (check_offset(board, offset) < 0)
        return -1;
    n = pwrite(board->window_fd, bytes, sizeof(bytes), offset);
    if (n != sizeof(bytes)) {
        errno = n < 0 ? errno : EIO;
        return -1;
    }
    return 0;
}

int lhsim_board_set_bit(const struct lhsim_board *board, uint32_t offset,
                        unsigned bit, int on)
{
    uint32_t value;

    if (bit > 31 || lhsim_board_read(board, offset, &value) < 0)
        return -1;
    value = on ? value | 1u << bit : value & ~(1u << bit);
    return lhsim_board_write(board, offset, value);
}

int lhsim_board_served(const struct lhsim_board *board)
{
    struct sockaddr_un address = {};

    address.sun_family = AF_UNIX;
    int n = snprintf(address.sun_path, sizeof(address.sun_path), "%s/%s",
                     board->root, LHSIM_SOCKET);
    int fd, served;

    if (n < 0 || (size_t)n >= sizeof(address.sun_path))
        return 0;
    fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return 0;
    served = connect(fd, (struct sockaddr *)&address, sizeof(address)) == 0;
    close(fd);
    return served;
}

static int remove_entry(const char *path, const struct stat *st, int flag,
                        struct FTW *ftw)
{
    (void)st;
    (void)flag;
    (void)ftw;
    return remove(path) < 0 && errno != ENOENT ? -1 : 0;
}

int lhsim_board_remove(const struct lhsim_board *board)
{
    return nftw(board->root, remove_entry, 16,
                FTW_DEPTH | FTW_PHYS | FTW_MOUNT);
}

static int sandbox_failed(const char *what)
{
    dprintf(STDERR_FILENO, "lhsim: sandbox: %s: %s\n", what, strerror(errno));
    return -1;
}

/* simboard's sandbox takes only a board it created itself: the child
 * creates a stand-in on a tmpfs of its own mount namespace and binds the
 * board directory over it, so that the sandbox shows this board. */
static int enter_sandbox(const struct lhsim_board *board)
{
    struct sim_board *standin;
    char source[64];
    int fd;

    if (sim_enter_mount_namespace() < 0) {
        dprintf(STDERR_FILENO, "lhsim: sandbox: %s\n", sim_board_last_error());
        return -1;
    }
    /* Opened in the new namespace, as a bind source must be, and before
     * the tmpfs may hide it. */
    fd = open(board->root, O_PATH | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0)
        return sandbox_failed(board->root);
    if (mount("tmpfs", STANDIN_MOUNT, "tmpfs", 0, "mode=0700") < 0)
        return sandbox_failed("mount tmpfs on " STANDIN_MOUNT);
    if (sim_board_create(STANDIN_ROOT, board->kind->kind, &standin) < 0)
        return sandbox_failed("create a stand-in board at " STANDIN_ROOT);
    snprintf(source, sizeof(source), "/proc/self/fd/%d", fd);
    if (mount(source, STANDIN_ROOT, NULL, MS_BIND, NULL) < 0)
        return sandbox_failed("bind the board over " STANDIN_ROOT);
    if (sim_board_enter(standin, NULL) < 0) {
        dprintf(STDERR_FILENO, "lhsim: sandbox: %s\n", sim_board_last_error());
        return -1;
    }
    return 0;
}

pid_t lhsim_board_spawn(const struct lhsim_board *board, char *const argv[])
{
    extern char **environ;
    int program_fd;
    pid_t pid = fork();

    if (pid != 0)
        return pid;
    signal(SIGINT, SIG_DFL); /* lhsim run's stop handlers are not ours */
    signal(SIGTERM, SIG_DFL);
    /* A program named by a path may be hidden by the sandbox's mounts; an
     * inherited descriptor lets fexecve run a script too. */
    program_fd = strchr(argv[0], '/') != NULL ? open(argv[0], O_PATH) : -1;
    if (enter_sandbox(board) < 0)
        _exit(127);
    if (program_fd >= 0)
        fexecve(program_fd, argv, environ);
    else
        execvp(argv[0], argv);
    dprintf(STDERR_FILENO, "lhsim: exec %s: %s\n", argv[0], strerror(errno));
    _exit(127);
}
