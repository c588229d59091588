/* The simulated board's directory tree and its register window. */
#include "simboard.hpp"
#include "simboard_internal.hpp"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <ftw.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#define PCI_CONFIG_SIZE    256
#define PCI_RESOURCE_LINES 13
#define PCI_CLASS          0x058000u /* memory controller, other */
#define PCI_REVISION       0x00u
#define RESOURCE_FLAGS_MEM                                                     \
    0x40200u /* IORESOURCE_MEM | IORESOURCE_SIZEALIGN                          \
              */

#define REG_REVISION    0x000u
#define REG_TIMESTAMP   0x010u
#define REG_SCRATCH     0x0FCu
#define REVISION_VALUE  0x00010203u
#define TIMESTAMP_VALUE 0x24031510u /* 03/15/2024 10:00 */

#define CAUI_PORT_CONTROL 0x820u
#define CAUI_PORT_STATUS  0x824u
#define CAUI_RX_ALIGNED   (1u << 24)
#define ETH_PORT_STATUS   0x1024u
#define ETH_RX_ALIGNED    (1u << 3)

struct sim_block {
    const char *name;
    uint32_t offset;
    uint32_t length;
};

struct sim_reg {
    uint32_t offset;
    uint32_t value;
};

struct sim_image {
    uint16_t device_id;
    uint16_t subsys_device;
    unsigned bar;
    uint32_t bar_addr;
    uint32_t size;
    const struct sim_block *blocks;
    size_t nblocks;
    const struct sim_reg *regs;
    size_t nregs;
};

struct sim_kind_info {
    const char *name;
    const struct sim_image *image;
    unsigned controller_type;
};

struct sim_board {
    enum sim_board_kind kind;
    const struct sim_kind_info *info;
    int window_fd;
    char paths[SIM_PATH_COUNT][PATH_MAX];
};

static const struct sim_block base_blocks[] = {
    {"global", 0x00000, 0x200},
    {"pcie", 0x01000, 0x100},
    {"caui", 0x10000, 0x900},
    {"nic", 0x12000, 0x100},
    {"ingress-pkt-parser", 0x16000, 0x100},
    {"ingress-pkt-classifier", 0x17000, 0x800},
    {"ingress-pkt-processor", 0x18000, 0x100},
    {"egress-scheduler", 0x19000, 0x100},
    {"ddr4", 0x1A000, 0x100},
    {"caui", 0x20000, 0x900},
    {"nic", 0x22000, 0x100},
    {"ingress-pkt-parser", 0x26000, 0x100},
    {"ingress-pkt-classifier", 0x27000, 0x800},
    {"ingress-pkt-processor", 0x28000, 0x100},
    {"egress-scheduler", 0x29000, 0x100},
    {"ddr4", 0x2A000, 0x100},
};

static const struct sim_block lhx_blocks[] = {
    {"lhx-global", 0x00000, 0x200},
    {"lhx-pcie", 0x01000, 0x100},
    {"eth", 0x10000, 0x1100},
    {"lhx-nic", 0x12000, 0x100},
    {"lhx-ingress-pkt-parser", 0x16000, 0x100},
    {"lhx-egress-scheduler", 0x19000, 0x100},
};

/* Ports start with their link up: the receive-aligned bit is set. */
static const struct sim_reg base_regs[] = {
    {REG_REVISION, REVISION_VALUE},
    {REG_TIMESTAMP, TIMESTAMP_VALUE},
    {REG_SCRATCH, 0},
    {0x10000 + CAUI_PORT_CONTROL, 0},
    {0x10000 + CAUI_PORT_STATUS, CAUI_RX_ALIGNED},
    {0x20000 + CAUI_PORT_CONTROL, 0},
    {0x20000 + CAUI_PORT_STATUS, CAUI_RX_ALIGNED},
};

static const struct sim_reg lhx_regs[] = {
    {REG_REVISION, REVISION_VALUE},
    {REG_TIMESTAMP, TIMESTAMP_VALUE},
    {REG_SCRATCH, 0},
    {0x10000 + ETH_PORT_STATUS, ETH_RX_ALIGNED},
};

#define NELEM(a) (sizeof(a) / sizeof((a)[0]))

static const struct sim_image base_image = {
    .device_id = 0x01d7,
    .subsys_device = 0x01d7,
    .bar = 0,
    .bar_addr = 0xf0000000u,
    .size = 256 * 1024,
    .blocks = base_blocks,
    .nblocks = NELEM(base_blocks),
    .regs = base_regs,
    .nregs = NELEM(base_regs),
};

static const struct sim_image lhx_image = {
    .device_id = 0x01d9,
    .subsys_device = 0x01d9,
    .bar = 2,
    .bar_addr = 0xf1000000u,
    .size = 128 * 1024,
    .blocks = lhx_blocks,
    .nblocks = NELEM(lhx_blocks),
    .regs = lhx_regs,
    .nregs = NELEM(lhx_regs),
};

static const struct sim_kind_info kinds[SIM_BOARD_KIND_COUNT] = {
    [SIM_BOARD_BASE2] = {"base2", &base_image, 0x1106},
    [SIM_BOARD_BASE1] = {"base1", &base_image, 0x1109},
    [SIM_BOARD_LHX] = {"lhx", &lhx_image, 0x1126},
};

static void put_le16(uint8_t *p, uint16_t v)
{
    p[0] = v & 0xff;
    p[1] = v >> 8;
}

static void put_le32(uint8_t *p, uint32_t v)
{
    p[0] = v & 0xff;
    p[1] = (v >> 8) & 0xff;
    p[2] = (v >> 16) & 0xff;
    p[3] = v >> 24;
}

static uint32_t get_le32(const uint8_t *p)
{
    return (uint32_t)p[0] | (uint32_t)p[1] << 8 | (uint32_t)p[2] << 16 |
           (uint32_t)p[3] << 24;
}

static int join(char *dst, const char *base, const char *name)
{
    int n = snprintf(dst, PATH_MAX, "%s/%s", base, name);

    if (n < 0 || n >= PATH_MAX) {
        errno = ENAMETOOLONG;
        return -1;
    }
    return 0;
}

static int write_all(int fd, const void *buf, size_t len)
{
    const char *p = static_cast<const char*>(buf);

    while (len > 0) {
        ssize_t n = write(fd, p, len);

        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0)
            return -1;
        p += n;
        len -= (size_t)n;
    }
    return 0;
}

static int write_file(const char *path, const void *buf, size_t len,
                      mode_t mode)
{
    int fd = open(path, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, mode);
    int e;

    if (fd < 0)
        return -1;
    if (write_all(fd, buf, len) < 0 || fchmod(fd, mode) < 0) {
        e = errno;
        close(fd);
        unlink(path);
        errno = e;
        return -1;
    }
    return close(fd);
}

static int make_dir(const char *path, mode_t mode)
{
    if (mkdir(path, mode) < 0 && errno != EEXIST)
        return -1;
    return chmod(path, mode); /* undo the umask */
}

int sim_mkdir_p(const char *path, mode_t mode)
{
    char buf[PATH_MAX];
    size_t len = strlen(path);

    if (len >= sizeof(buf)) {
        errno = ENAMETOOLONG;
        return -1;
    }
    memcpy(buf, path, len + 1);
    for (char *p = buf + 1; *p; p++) {
        if (*p != '/')
            continue;
        *p = '\0';
        if (mkdir(buf, mode) < 0 && errno != EEXIST)
            return -1;
        *p = '/';
    }
    return mkdir(buf, mode) < 0 && errno != EEXIST ? -1 : 0;
}

static int dir_is_empty(const char *path)
{
    DIR *d = opendir(path);
    struct dirent *de;
    int empty = 1;

    if (!d)
        return -1;
    while ((de = readdir(d)) != NULL) {
        if (strcmp(de->d_name, ".") && strcmp(de->d_name, "..")) {
            empty = 0;
            break;
        }
    }
    closedir(d);
    return empty;
}

static int rm_entry(const char *path, const struct stat *st, int flag,
                    struct FTW *ftw)
{
    (void)st;
    (void)flag;
    (void)ftw;
    return remove(path) < 0 && errno != ENOENT ? -1 : 0;
}

static int rm_child(const char *path, const struct stat *st, int flag,
                    struct FTW *ftw)
{
    return ftw->level == 0 ? 0 : rm_entry(path, st, flag, ftw);
}

static int remove_tree(const char *path, bool keep_top)
{
    return nftw(path, keep_top ? rm_child : rm_entry, 16,
                FTW_DEPTH | FTW_PHYS | FTW_MOUNT);
}

static int check_root(const char *root, char *real)
{
    int empty;

    if (!realpath(root, real))
        return -1;
    empty = dir_is_empty(real);
    if (empty < 0)
        return -1;
    if (!empty) {
        errno = ENOTEMPTY;
        return -1;
    }
    return 0;
}

/* A root that this call made is removed again when it cannot be used. */
static int prepare_root(const char *root, char *real, bool *created)
{
    struct stat st;
    int e;

    *created = stat(root, &st) < 0;
    if (*created && sim_mkdir_p(root, 0755) < 0)
        return -1;
    if (check_root(root, real) == 0)
        return 0;
    e = errno;
    if (*created)
        rmdir(root);
    errno = e;
    return -1;
}

/* Each place of a board below its parent; a null name is the window,
 * resourceN of the image's BAR. */
static const struct path_part {
    enum sim_board_path_id id, parent;
    const char *name;
} path_parts[] = {
    {SIM_PATH_SYS, SIM_PATH_ROOT, "sys"},
    {SIM_PATH_DEVICE, SIM_PATH_SYS, SIM_BOARD_SLOT},
    {SIM_PATH_WINDOW, SIM_PATH_DEVICE, NULL},
    {SIM_PATH_CONFIG, SIM_PATH_DEVICE, "config"},
    {SIM_PATH_TMP, SIM_PATH_ROOT, "tmp"},
    {SIM_PATH_OPT, SIM_PATH_ROOT, "opt"},
    {SIM_PATH_PLATFORM, SIM_PATH_OPT, "platform"},
    {SIM_PATH_LOGS, SIM_PATH_PLATFORM, "logs"},
    {SIM_PATH_RUN, SIM_PATH_ROOT, "run"},
    {SIM_PATH_IDPROM, SIM_PATH_TMP, "idprom_cache.conf"},
};

static int build_paths(struct sim_board *b)
{
    char window[32];

    snprintf(window, sizeof(window), "resource%u", b->info->image->bar);
    for (size_t i = 0; i < NELEM(path_parts); i++) {
        const struct path_part *part = &path_parts[i];
        char path[PATH_MAX];

        if (join(path, b->paths[part->parent],
                 part->name != NULL ? part->name : window) < 0)
            return -1;
        memcpy(b->paths[part->id], path, sizeof(path));
    }
    return 0;
}

static int make_dirs(const struct sim_board *b)
{
    const struct {
        const char *path;
        mode_t mode;
    } dirs[] = {
        {b->paths[SIM_PATH_SYS], 0755},  {b->paths[SIM_PATH_DEVICE], 0755},
        {b->paths[SIM_PATH_TMP], 01777}, /* it is the sandbox's /tmp */
        {b->paths[SIM_PATH_OPT], 0755},  {b->paths[SIM_PATH_PLATFORM], 0755},
        {b->paths[SIM_PATH_LOGS], 0755}, {b->paths[SIM_PATH_RUN], 0755},
    };

    for (size_t i = 0; i < NELEM(dirs); i++)
        if (make_dir(dirs[i].path, dirs[i].mode) < 0)
            return -1;
    return 0;
}

static int write_id_files(const struct sim_board *b)
{
    const struct sim_image *img = b->info->image;
    const struct {
        const char *name;
        unsigned value;
        int digits; /* 0: decimal */
    } files[] = {
        {"vendor", SIM_BOARD_VENDOR, 4},
        {"device", img->device_id, 4},
        {"class", PCI_CLASS, 6},
        {"revision", PCI_REVISION, 2},
        {"subsystem_vendor", SIM_BOARD_VENDOR, 4},
        {"subsystem_device", img->subsys_device, 4},
        {"irq", 0, 0}, /* lspci -v */
    };
    char path[PATH_MAX];
    char text[32];

    for (size_t i = 0; i < NELEM(files); i++) {
        int n = files[i].digits
                    ? snprintf(text, sizeof(text), "0x%0*x\n", files[i].digits,
                               files[i].value)
                    : snprintf(text, sizeof(text), "%u\n", files[i].value);

        if (join(path, b->paths[SIM_PATH_DEVICE], files[i].name) < 0 ||
            write_file(path, text, (size_t)n, 0444) < 0)
            return -1;
    }
    return 0;
}

static int write_config(const struct sim_board *b)
{
    const struct sim_image *img = b->info->image;
    uint8_t cfg[PCI_CONFIG_SIZE] = {};

    put_le16(cfg + 0x00, SIM_BOARD_VENDOR);
    put_le16(cfg + 0x02, img->device_id);
    put_le16(cfg + 0x04, 0); /* command */
    cfg[0x08] = PCI_REVISION;
    cfg[0x09] = PCI_CLASS & 0xff;
    cfg[0x0a] = (PCI_CLASS >> 8) & 0xff;
    cfg[0x0b] = PCI_CLASS >> 16;
    put_le32(cfg + 0x10 + 4 * img->bar, img->bar_addr); /* 32-bit mem */
    put_le16(cfg + 0x2c, SIM_BOARD_VENDOR);
    put_le16(cfg + 0x2e, img->subsys_device);
    return write_file(b->paths[SIM_PATH_CONFIG], cfg, sizeof(cfg), 0644);
}

static int write_resource(const struct sim_board *b)
{
    const struct sim_image *img = b->info->image;
    char text[PCI_RESOURCE_LINES * 64];
    char path[PATH_MAX];
    size_t len = 0;

    for (unsigned i = 0; i < PCI_RESOURCE_LINES; i++) {
        uint64_t start = 0, end = 0, flags = 0;

        if (i == img->bar) {
            start = img->bar_addr;
            end = start + img->size - 1;
            flags = RESOURCE_FLAGS_MEM;
        }
        len += (size_t)snprintf(
            text + len, sizeof(text) - len, "0x%016llx 0x%016llx 0x%016llx\n",
            (unsigned long long)start, (unsigned long long)end,
            (unsigned long long)flags);
    }
    if (join(path, b->paths[SIM_PATH_DEVICE], "resource") < 0)
        return -1;
    return write_file(path, text, len, 0444);
}

static void fill_window(const struct sim_image *img, uint8_t *win)
{
    for (uint32_t off = 0; off < img->size; off += 4)
        put_le32(win + off, SIM_BOARD_FILLER);
    for (size_t i = 0; i < img->nblocks; i++)
        memset(win + img->blocks[i].offset, 0, img->blocks[i].length);
    for (size_t i = 0; i < img->nregs; i++)
        put_le32(win + img->regs[i].offset, img->regs[i].value);
}

static int write_window(struct sim_board *b)
{
    const struct sim_image *img = b->info->image;
    uint8_t *win = static_cast<uint8_t*>(malloc(img->size));
    int rc;

    if (!win)
        return -1;
    fill_window(img, win);
    rc = write_file(b->paths[SIM_PATH_WINDOW], win, img->size, 0600);
    free(win);
    if (rc < 0)
        return -1;
    b->window_fd = open(b->paths[SIM_PATH_WINDOW], O_RDWR | O_CLOEXEC);
    return b->window_fd < 0 ? -1 : 0;
}

static int write_idprom(const struct sim_board *b)
{
    char text[64];

    snprintf(text, sizeof(text), "CONTROLLER_TYPE=%u\nBOARD_TYPE=4\n",
             b->info->controller_type);
    return sim_board_set_idprom(b, text);
}

static int build_tree(struct sim_board *b)
{
    if (build_paths(b) < 0 || make_dirs(b) < 0 || write_id_files(b) < 0 ||
        write_config(b) < 0 || write_resource(b) < 0 || write_window(b) < 0 ||
        write_idprom(b) < 0)
        return -1;
    return 0;
}

int sim_board_create(const char *root, enum sim_board_kind kind,
                     struct sim_board **out)
{
    struct sim_board *b;
    bool created;
    int e;

    if (!root || !*root || !out || (unsigned)kind >= SIM_BOARD_KIND_COUNT) {
        errno = EINVAL;
        return -1;
    }
    b = static_cast<sim_board*>(calloc(1, sizeof(*b)));
    if (!b)
        return -1;
    b->kind = kind;
    b->info = &kinds[kind];
    b->window_fd = -1;
    if (prepare_root(root, b->paths[SIM_PATH_ROOT], &created) < 0) {
        e = errno;
        free(b);
        errno = e;
        return -1;
    }
    if (build_tree(b) < 0) {
        e = errno;
        remove_tree(b->paths[SIM_PATH_ROOT], !created);
        sim_board_free(b);
        errno = e;
        return -1;
    }
    *out = b;
    return 0;
}

void sim_board_free(struct sim_board *b)
{
    if (!b)
        return;
    if (b->window_fd >= 0)
        close(b->window_fd);
    free(b);
}

int sim_board_destroy(struct sim_board *b)
{
    int rc, e;

    if (!b) {
        errno = EINVAL;
        return -1;
    }
    rc = remove_tree(b->paths[SIM_PATH_ROOT], false);
    e = errno;
    sim_board_free(b);
    errno = e;
    return rc < 0 ? -1 : 0;
}

const char *sim_board_kind_name(enum sim_board_kind kind)
{
    if ((unsigned)kind >= SIM_BOARD_KIND_COUNT) {
        errno = EINVAL;
        return NULL;
    }
    return kinds[kind].name;
}

int sim_board_kind_from_name(const char *name, enum sim_board_kind *kind)
{
    for (unsigned i = 0; name && kind && i < SIM_BOARD_KIND_COUNT; i++) {
        if (strcmp(name, kinds[i].name) == 0) {
            *kind = (enum sim_board_kind)i;
            return 0;
        }
    }
    errno = EINVAL;
    return -1;
}

enum sim_board_kind sim_board_kind(const struct sim_board *b)
{
    return b->kind;
}

unsigned sim_board_bar(const struct sim_board *b)
{
    return b->info->image->bar;
}

size_t sim_board_window_size(const struct sim_board *b)
{
    return b->info->image->size;
}

unsigned sim_board_controller_type(const struct sim_board *b)
{
    return b->info->controller_type;
}

const char *sim_board_path(const struct sim_board *b, enum sim_board_path_id id)
{
    if (b == NULL || (unsigned)id >= SIM_PATH_COUNT) {
        errno = EINVAL;
        return NULL;
    }
    return b->paths[id];
}

static int check_offset(const struct sim_board *b, uint32_t offset)
{
    if (!b || offset % 4 || offset > b->info->image->size - 4) {
        errno = EINVAL;
        return -1;
    }
    return 0;
}

int sim_board_read(const struct sim_board *b, uint32_t offset, uint32_t *value)
{
    uint8_t buf[4];
    ssize_t n;

    if (check_offset(b, offset) < 0 || !value) {
        errno = EINVAL;
        return -1;
    }
    n = pread(b->window_fd, buf, sizeof(buf), offset);
    if (n < 0)
        return -1;
    if (n != sizeof(buf)) {
        errno = EIO;
        return -1;
    }
    *value = get_le32(buf);
    return 0;
}

int sim_board_write(const struct sim_board *b, uint32_t offset, uint32_t value)
{
    uint8_t buf[4];
    ssize_t n;

    if (check_offset(b, offset) < 0)
        return -1;
    put_le32(buf, value);
    n = pwrite(b->window_fd, buf, sizeof(buf), offset);
    if (n < 0)
        return -1;
    if (n != sizeof(buf)) {
        errno = EIO;
        return -1;
    }
    return 0;
}

int sim_board_config_read16(const struct sim_board *b, uint32_t offset,
                            uint16_t *value)
{
    uint8_t buf[2];
    ssize_t n;
    int fd, e;

    if (!b || !value || offset > PCI_CONFIG_SIZE - 2) {
        errno = EINVAL;
        return -1;
    }
    fd = open(b->paths[SIM_PATH_CONFIG], O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return -1;
    n = pread(fd, buf, sizeof(buf), offset);
    e = errno;
    close(fd);
    if (n != sizeof(buf)) {
        errno = n < 0 ? e : EIO;
        return -1;
    }
    *value = (uint16_t)(buf[0] | buf[1] << 8);
    return 0;
}

/* Replaced by rename so a reader never sees a half-written file. */
int sim_board_set_idprom(const struct sim_board *b, const char *text)
{
    char tmp[PATH_MAX];
    int e;

    if (!b) {
        errno = EINVAL;
        return -1;
    }
    if (!text)
        return unlink(b->paths[SIM_PATH_IDPROM]) < 0 && errno != ENOENT ? -1
                                                                        : 0;
    if (join(tmp, b->paths[SIM_PATH_TMP], ".idprom_cache.conf.new") < 0)
        return -1;
    unlink(tmp);
    if (write_file(tmp, text, strlen(text), 0644) < 0)
        return -1;
    if (rename(tmp, b->paths[SIM_PATH_IDPROM]) < 0) {
        e = errno;
        unlink(tmp);
        errno = e;
        return -1;
    }
    return 0;
}

/*
 * libpciaccess probes from config and resource; only the mapping opens
 * resourceN.  The board keeps its own descriptor, so sim_board_read and
 * sim_board_write still work afterwards.
 */
int sim_board_break_window(const struct sim_board *b)
{
    if (!b) {
        errno = EINVAL;
        return -1;
    }
    return unlink(b->paths[SIM_PATH_WINDOW]) < 0 && errno != ENOENT ? -1 : 0;
}
