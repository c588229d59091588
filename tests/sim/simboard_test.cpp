/* Tests of the simulated board, its sandbox and the syslog listener. */
#ifndef _GNU_SOURCE
#endif

#include <errno.h>
#include <fcntl.h>
#include <ftw.h>
#include <grp.h>
#include <limits.h>
#include <setjmp.h>
#include <signal.h>
#include <stdarg.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <syslog.h>
#include <time.h>
#include <unistd.h>

#include <cmocka.h>
#include <pciaccess.h>

#include "simboard.hpp"

#define NELEM(a)          (sizeof(a) / sizeof((a)[0]))
#define CHILD_TIMEOUT_MS  10000
#define SYSLOG_TIMEOUT_MS 3000
#define NOBODY            65534
#define EXIT_SKIP         77
#define LIVE_POLLS        2000
#define LIVE_POLL_US      1000

/* One board kind and what must hold for it. */
struct reg_row {
    uint32_t offset;
    uint32_t value;
};

struct kind_case {
    enum sim_board_kind kind;
    const char *name;
    uint16_t device;
    uint16_t subsys_device;
    unsigned bar;
    uint32_t bar_addr;
    size_t size;
    const char *idprom;
    const struct reg_row *rows;
    size_t nrows;
    const struct extent *extents;
    size_t nextents;
    const struct reg_row *nonzero;
    size_t nnonzero;
};

struct fixture {
    const struct kind_case *kc;
    char dir[64];
    char root[PATH_MAX];
    struct sim_board *b;
};

static const struct reg_row base_rows[] = {
    {0x00000, 0x00010203},                        /* revision */
    {0x00004, 0x00000000}, {0x00010, 0x24031510}, /* image timestamp */
    {0x000FC, 0x00000000},                        /* scratch */
    {0x001FC, 0x00000000},                        /* last word of global */
    {0x00200, 0xDEADBEEF}, {0x00FFC, 0xDEADBEEF},
    {0x01000, 0x00000000},                        /* pcie */
    {0x01100, 0xDEADBEEF}, {0x10000, 0x00000000}, /* caui pipe 0 */
    {0x10820, 0x00000000},                        /* caui port control */
    {0x10824, 0x01000000}, /* caui port status: rx aligned */
    {0x108FC, 0x00000000}, {0x10900, 0xDEADBEEF},
    {0x12000, 0x00000000},                        /* nic */
    {0x16000, 0x00000000},                        /* ingress-pkt-parser */
    {0x177FC, 0x00000000},                        /* ingress-pkt-classifier */
    {0x17800, 0xDEADBEEF}, {0x18000, 0x00000000}, /* ingress-pkt-processor */
    {0x19000, 0x00000000},                        /* egress-scheduler */
    {0x1A0FC, 0x00000000},                        /* ddr4 */
    {0x1A100, 0xDEADBEEF}, {0x20820, 0x00000000}, /* caui pipe 1 */
    {0x20824, 0x01000000}, {0x22000, 0x00000000},
    {0x26000, 0x00000000}, {0x27000, 0x00000000},
    {0x28000, 0x00000000}, {0x29000, 0x00000000},
    {0x2A0FC, 0x00000000}, {0x2A100, 0xDEADBEEF},
    {0x3FFFC, 0xDEADBEEF}, /* last word of the window */
};

static const struct reg_row lhx_rows[] = {
    {0x00000, 0x00010203}, {0x00010, 0x24031510},
    {0x000FC, 0x00000000}, {0x00200, 0xDEADBEEF},
    {0x01000, 0x00000000}, /* lhx-pcie */
    {0x10000, 0x00000000}, /* eth */
    {0x10824, 0x00000000}, /* no caui here */
    {0x11020, 0x00000000}, /* eth port control */
    {0x11024, 0x00000008}, /* eth port status: rx aligned */
    {0x110FC, 0x00000000}, {0x11100, 0xDEADBEEF},
    {0x12000, 0x00000000},                        /* lhx-nic */
    {0x16000, 0x00000000},                        /* lhx-ingress-pkt-parser */
    {0x17000, 0xDEADBEEF},                        /* no classifier on LHX */
    {0x190FC, 0x00000000},                        /* lhx-egress-scheduler */
    {0x19100, 0xDEADBEEF}, {0x1A000, 0xDEADBEEF}, /* no ddr4 on LHX */
    {0x1FFFC, 0xDEADBEEF},
};

/* Implemented extents {offset, length}, restated from host.md 4. */
struct extent {
    uint32_t offset;
    uint32_t length;
};

static const struct extent base_extents[] = {
    {0x00000, 0x200}, {0x01000, 0x100}, {0x10000, 0x900}, {0x20000, 0x900},
    {0x12000, 0x100}, {0x22000, 0x100}, {0x16000, 0x100}, {0x26000, 0x100},
    {0x17000, 0x800}, {0x27000, 0x800}, {0x18000, 0x100}, {0x28000, 0x100},
    {0x19000, 0x100}, {0x29000, 0x100}, {0x1A000, 0x100}, {0x2A000, 0x100},
};

static const struct extent lhx_extents[] = {
    {0x00000, 0x200}, {0x01000, 0x100}, {0x10000, 0x1100},
    {0x12000, 0x100}, {0x16000, 0x100}, {0x19000, 0x100},
};

static const struct reg_row base_nonzero[] = {
    {0x00000, 0x00010203},
    {0x00010, 0x24031510},
    {0x10824, 0x01000000},
    {0x20824, 0x01000000},
};

static const struct reg_row lhx_nonzero[] = {
    {0x00000, 0x00010203},
    {0x00010, 0x24031510},
    {0x11024, 0x00000008},
};

static const struct kind_case case_base2 = {
    SIM_BOARD_BASE2,
    "base2",
    0x01d7,
    0x01d7,
    0,
    0xf0000000,
    0x40000,
    "CONTROLLER_TYPE=4358\nBOARD_TYPE=4\n",
    base_rows,
    NELEM(base_rows),
    base_extents,
    NELEM(base_extents),
    base_nonzero,
    NELEM(base_nonzero),
};

static const struct kind_case case_base1 = {
    SIM_BOARD_BASE1,
    "base1",
    0x01d7,
    0x01d7,
    0,
    0xf0000000,
    0x40000,
    "CONTROLLER_TYPE=4361\nBOARD_TYPE=4\n",
    base_rows,
    NELEM(base_rows),
    base_extents,
    NELEM(base_extents),
    base_nonzero,
    NELEM(base_nonzero),
};

static const struct kind_case case_lhx = {
    SIM_BOARD_LHX,
    "lhx",
    0x01d9,
    0x01d9,
    2,
    0xf1000000,
    0x20000,
    "CONTROLLER_TYPE=4390\nBOARD_TYPE=4\n",
    lhx_rows,
    NELEM(lhx_rows),
    lhx_extents,
    NELEM(lhx_extents),
    lhx_nonzero,
    NELEM(lhx_nonzero),
};

/* ---- helpers ---- */

static int rm_entry(const char *path, const struct stat *st, int flag,
                    struct FTW *ftw)
{
    (void)st;
    (void)flag;
    (void)ftw;
    return remove(path);
}

static void remove_dir(const char *dir)
{
    nftw(dir, rm_entry, 16, FTW_DEPTH | FTW_PHYS | FTW_MOUNT);
}

static void path_join(char *dst, const char *a, const char *b)
{
    int n = snprintf(dst, PATH_MAX, "%s/%s", a, b);

    assert_true(n > 0 && n < PATH_MAX);
}

static ssize_t read_text(const char *path, char *buf, size_t size)
{
    int fd = open(path, O_RDONLY | O_CLOEXEC);
    ssize_t n, len = 0;

    if (fd < 0)
        return -1;
    while ((n = read(fd, buf + len, size - 1 - (size_t)len)) > 0)
        len += n;
    close(fd);
    buf[len] = '\0';
    return n < 0 ? -1 : len;
}

static void assert_file_text(const char *path, const char *expected)
{
    char buf[4096];

    assert_int_not_equal(read_text(path, buf, sizeof(buf)), -1);
    assert_string_equal(buf, expected);
}

static int exit_code(int status)
{
    if (WIFEXITED(status))
        return WEXITSTATUS(status);
    return 128 + WTERMSIG(status);
}

static int run_argv(const struct sim_board *b,
                    const struct sim_sandbox_opts *opts, char *const argv[])
{
    int status;
    pid_t pid = sim_board_spawn(b, opts, argv);

    assert_true(pid > 0);
    assert_int_equal(sim_wait(pid, CHILD_TIMEOUT_MS, &status), 0);
    return exit_code(status);
}

static int run_sh(const struct sim_board *b,
                  const struct sim_sandbox_opts *opts, const char *script)
{
    char *const argv[] = {"/bin/sh", "-c", (char *)script, NULL};

    return run_argv(b, opts, argv);
}

/* Runs fn in a forked child inside the sandbox; returns its exit code. */
static int run_fn(const struct sim_board *b,
                  const struct sim_sandbox_opts *opts,
                  int (*fn)(const void *arg), const void *arg, pid_t *child)
{
    int status;
    pid_t pid = fork();

    assert_true(pid >= 0);
    if (pid == 0) {
        if (sim_board_enter(b, opts) < 0) {
            fprintf(stderr, "enter: %s\n", sim_board_last_error());
            _exit(126);
        }
        _exit(fn(arg));
    }
    if (child)
        *child = pid;
    assert_int_equal(sim_wait(pid, CHILD_TIMEOUT_MS, &status), 0);
    return exit_code(status);
}

/* ---- fixtures ---- */

static int make_fixture(void **state, const struct kind_case *kc)
{
    struct fixture *f = calloc(1, sizeof(*f));

    if (!f)
        return -1;
    f->kc = kc;
    strcpy(f->dir, "/tmp/simboard-test-XXXXXX");
    if (!mkdtemp(f->dir)) {
        free(f);
        return -1;
    }
    snprintf(f->root, sizeof(f->root), "%s/board", f->dir);
    if (sim_board_create(f->root, kc->kind, &f->b) < 0) {
        fprintf(stderr, "sim_board_create: %s\n", strerror(errno));
        remove_dir(f->dir);
        free(f);
        return -1;
    }
    *state = f;
    return 0;
}

static int setup_board(void **state)
{
    const struct kind_case *kc = *state ? *state : &case_base2;

    return make_fixture(state, kc);
}

static int teardown_board(void **state)
{
    struct fixture *f = *state;
    int rc = sim_board_destroy(f->b);

    remove_dir(f->dir);
    free(f);
    return rc;
}

/* ---- the board tree ---- */

static void test_window_content(void **state)
{
    struct fixture *f = *state;
    const struct kind_case *kc = f->kc;
    struct stat st;
    uint32_t v;

    assert_int_equal(sim_board_window_size(f->b), kc->size);
    assert_int_equal(stat(sim_board_path(f->b, SIM_PATH_WINDOW), &st), 0);
    assert_int_equal(st.st_size, kc->size);
    for (size_t i = 0; i < kc->nrows; i++) {
        if (kc->rows[i].offset >= kc->size)
            continue;
        assert_int_equal(sim_board_read(f->b, kc->rows[i].offset, &v), 0);
        if (v != kc->rows[i].value)
            fail_msg("offset 0x%05x: 0x%08x, expected 0x%08x",
                     kc->rows[i].offset, v, kc->rows[i].value);
    }
}

static uint32_t expected_word(const struct kind_case *kc, uint32_t off)
{
    for (size_t i = 0; i < kc->nnonzero; i++)
        if (kc->nonzero[i].offset == off)
            return kc->nonzero[i].value;
    for (size_t i = 0; i < kc->nextents; i++)
        if (off - kc->extents[i].offset < kc->extents[i].length)
            return 0;
    return SIM_BOARD_FILLER;
}

/* Every word of the window, against the block list of the design. */
static void test_window_every_word(void **state)
{
    struct fixture *f = *state;
    const struct kind_case *kc = f->kc;
    uint32_t v;

    for (uint32_t off = 0; off < kc->size; off += 4) {
        assert_int_equal(sim_board_read(f->b, off, &v), 0);
        if (v != expected_word(kc, off))
            fail_msg("offset 0x%05x: 0x%08x, expected 0x%08x", off, v,
                     expected_word(kc, off));
    }
}

static void test_window_little_endian(void **state)
{
    struct fixture *f = *state;
    static const uint8_t revision[4] = {0x03, 0x02, 0x01, 0x00};
    static const uint8_t filler[4] = {0xEF, 0xBE, 0xAD, 0xDE};
    uint8_t buf[4];
    int fd = open(sim_board_path(f->b, SIM_PATH_WINDOW), O_RDONLY);

    assert_true(fd >= 0);
    assert_int_equal(pread(fd, buf, 4, 0), 4);
    assert_memory_equal(buf, revision, 4);
    assert_int_equal(pread(fd, buf, 4, 0x200), 4);
    assert_memory_equal(buf, filler, 4);
    close(fd);
}

static void test_window_bounds(void **state)
{
    struct fixture *f = *state;
    uint32_t v;

    errno = 0;
    assert_int_equal(sim_board_read(f->b, f->kc->size, &v), -1);
    assert_int_equal(errno, EINVAL);
    errno = 0;
    assert_int_equal(sim_board_read(f->b, 0x102, &v), -1);
    assert_int_equal(errno, EINVAL);
    errno = 0;
    assert_int_equal(sim_board_write(f->b, f->kc->size, 1), -1);
    assert_int_equal(errno, EINVAL);
    assert_int_equal(sim_board_read(f->b, f->kc->size - 4, &v), 0);
    assert_int_equal(v, SIM_BOARD_FILLER);
}

static void test_id_files(void **state)
{
    struct fixture *f = *state;
    const char *dev = sim_board_path(f->b, SIM_PATH_DEVICE);
    char path[PATH_MAX], want[32];
    const struct {
        const char *name;
        unsigned value;
    } rows[] = {
        {"device", f->kc->device},
        {"subsystem_device", f->kc->subsys_device},
    };

    path_join(path, dev, "vendor");
    assert_file_text(path, "0x1c7a\n");
    path_join(path, dev, "class");
    assert_file_text(path, "0x058000\n");
    path_join(path, dev, "revision");
    assert_file_text(path, "0x00\n");
    path_join(path, dev, "subsystem_vendor");
    assert_file_text(path, "0x1c7a\n");
    path_join(path, dev, "irq");
    assert_file_text(path, "0\n");
    for (size_t i = 0; i < NELEM(rows); i++) {
        snprintf(want, sizeof(want), "0x%04x\n", rows[i].value);
        path_join(path, dev, rows[i].name);
        assert_file_text(path, want);
    }
}

static uint32_t le32(const uint8_t *p)
{
    return (uint32_t)p[0] | (uint32_t)p[1] << 8 | (uint32_t)p[2] << 16 |
           (uint32_t)p[3] << 24;
}

static void test_config_space(void **state)
{
    struct fixture *f = *state;
    uint8_t cfg[512];
    int fd = open(sim_board_path(f->b, SIM_PATH_CONFIG), O_RDONLY);
    uint16_t v;

    assert_true(fd >= 0);
    assert_int_equal(read(fd, cfg, sizeof(cfg)), 256);
    close(fd);
    assert_int_equal(cfg[0] | cfg[1] << 8, 0x1c7a);
    assert_int_equal(cfg[2] | cfg[3] << 8, f->kc->device);
    assert_int_equal(cfg[4] | cfg[5] << 8, 0);
    for (unsigned bar = 0; bar < 6; bar++)
        assert_int_equal(le32(cfg + 0x10 + 4 * bar),
                         bar == f->kc->bar ? f->kc->bar_addr : 0);
    assert_int_equal(cfg[44] | cfg[45] << 8, 0x1c7a);
    assert_int_equal(cfg[46] | cfg[47] << 8, f->kc->subsys_device);
    assert_int_equal(sim_board_config_read16(f->b, 2, &v), 0);
    assert_int_equal(v, f->kc->device);
    assert_int_equal(sim_board_config_read16(f->b, 255, &v), -1);
}

static void test_resource_file(void **state)
{
    struct fixture *f = *state;
    char path[PATH_MAX], want[13 * 64];
    size_t len = 0;

    for (unsigned i = 0; i < 13; i++) {
        unsigned long long start = 0, end = 0, flags = 0;

        if (i == f->kc->bar) {
            start = f->kc->bar_addr;
            end = start + f->kc->size - 1;
            flags = 0x40200;
        }
        len += (size_t)snprintf(want + len, sizeof(want) - len,
                                "0x%016llx 0x%016llx 0x%016llx\n", start, end,
                                flags);
    }
    path_join(path, sim_board_path(f->b, SIM_PATH_DEVICE), "resource");
    assert_file_text(path, want);
    snprintf(want, sizeof(want), "resource%u", f->kc->bar);
    path_join(path, sim_board_path(f->b, SIM_PATH_DEVICE), want);
    assert_string_equal(sim_board_path(f->b, SIM_PATH_WINDOW), path);
}

static void test_idprom_file(void **state)
{
    struct fixture *f = *state;
    char path[PATH_MAX];

    path_join(path, f->root, "tmp/idprom_cache.conf");
    assert_string_equal(sim_board_path(f->b, SIM_PATH_IDPROM), path);
    assert_file_text(path, f->kc->idprom);
}

static void test_tree_layout(void **state)
{
    struct fixture *f = *state;
    char path[PATH_MAX];
    struct stat st;
    const struct {
        enum sim_board_path_id id;
        const char *rel;
        mode_t mode;
    } rows[] = {
        {SIM_PATH_SYS, "sys", 0755},
        {SIM_PATH_TMP, "tmp", 01777},
        {SIM_PATH_OPT, "opt", 0755},
        {SIM_PATH_LOGS, "opt/platform/logs", 0755},
        {SIM_PATH_RUN, "run", 0755},
    };

    for (size_t i = 0; i < NELEM(rows); i++) {
        path_join(path, f->root, rows[i].rel);
        assert_string_equal(sim_board_path(f->b, rows[i].id), path);
        assert_int_equal(stat(path, &st), 0);
        assert_true(S_ISDIR(st.st_mode));
        assert_int_equal(st.st_mode & 07777, rows[i].mode);
    }
    path_join(path, f->root, "sys/" SIM_BOARD_SLOT);
    assert_string_equal(sim_board_path(f->b, SIM_PATH_DEVICE), path);
}

static void test_set_idprom(void **state)
{
    struct fixture *f = *state;
    const char *path = sim_board_path(f->b, SIM_PATH_IDPROM);

    assert_int_equal(sim_board_set_idprom(f->b, "CONTROLLER_TYPE=\"4358\"\n"),
                     0);
    assert_file_text(path, "CONTROLLER_TYPE=\"4358\"\n");
    assert_int_equal(sim_board_set_idprom(f->b, ""), 0);
    assert_file_text(path, "");
    assert_int_equal(sim_board_set_idprom(f->b, NULL), 0);
    assert_int_equal(access(path, F_OK), -1);
    assert_int_equal(sim_board_set_idprom(f->b, NULL), 0);
}

static void test_read_write(void **state)
{
    struct fixture *f = *state;
    uint8_t buf[4];
    uint32_t v;
    int fd;

    assert_int_equal(sim_board_write(f->b, 0xFC, 0x80000000), 0);
    assert_int_equal(sim_board_read(f->b, 0xFC, &v), 0);
    assert_int_equal(v, 0x80000000);
    assert_int_equal(sim_board_write(f->b, 0x10824, 0x12345678), 0);
    fd = open(sim_board_path(f->b, SIM_PATH_WINDOW), O_RDONLY);
    assert_true(fd >= 0);
    assert_int_equal(pread(fd, buf, 4, 0x10824), 4);
    close(fd);
    assert_int_equal(le32(buf), 0x12345678);
    assert_int_equal(sim_board_read(f->b, 0x10820, &v), 0);
    assert_int_equal(v, 0);
}

static void test_create_errors(void **state)
{
    char dir[] = "/tmp/simboard-test-XXXXXX";
    char path[PATH_MAX];
    struct sim_board *b = NULL;
    int fd;

    (void)state;
    assert_non_null(mkdtemp(dir));
    path_join(path, dir, "stray");
    fd = open(path, O_WRONLY | O_CREAT, 0644);
    assert_true(fd >= 0);
    close(fd);
    errno = 0;
    assert_int_equal(sim_board_create(dir, SIM_BOARD_LHX, &b), -1);
    assert_int_equal(errno, ENOTEMPTY);
    assert_null(b);
    errno = 0;
    assert_int_equal(sim_board_create(dir, SIM_BOARD_KIND_COUNT, &b), -1);
    assert_int_equal(errno, EINVAL);
    assert_int_equal(unlink(path), 0);
    assert_int_equal(sim_board_create(dir, SIM_BOARD_BASE1, &b), 0);
    assert_int_equal(sim_board_controller_type(b), 0x1109);
    assert_int_equal(sim_board_destroy(b), 0);
    assert_int_equal(access(dir, F_OK), -1);
}

static void test_kind_names(void **state)
{
    static const struct {
        const char *name;
        enum sim_board_kind kind;
    } rows[] = {
        {"base2", SIM_BOARD_BASE2},
        {"base1", SIM_BOARD_BASE1},
        {"lhx", SIM_BOARD_LHX},
    };
    enum sim_board_kind k;

    (void)state;
    for (size_t i = 0; i < NELEM(rows); i++) {
        assert_string_equal(sim_board_kind_name(rows[i].kind), rows[i].name);
        assert_int_equal(sim_board_kind_from_name(rows[i].name, &k), 0);
        assert_int_equal(k, rows[i].kind);
    }
    assert_int_equal(sim_board_kind_from_name("base", &k), -1);
    assert_null(sim_board_kind_name(SIM_BOARD_KIND_COUNT));
}

/* ---- the sandbox ---- */

static void test_sandbox_view(void **state)
{
    struct fixture *f = *state;
    char path[PATH_MAX];

    assert_int_equal(
        run_sh(f->b, NULL,
               "ls -A /sys/bus/pci/devices > /run/orvel/ls.out && "
               "cat /tmp/idprom_cache.conf > /run/orvel/idprom.out && "
               "echo log > /opt/orvel/platform/logs/x && "
               "echo tmp > /tmp/t"),
        0);
    path_join(path, f->root, "run/ls.out");
    assert_file_text(path, SIM_BOARD_SLOT "\n");
    path_join(path, f->root, "run/idprom.out");
    assert_file_text(path, f->kc->idprom);
    path_join(path, f->root, "opt/platform/logs/x");
    assert_file_text(path, "log\n");
    path_join(path, f->root, "tmp/t");
    assert_file_text(path, "tmp\n");
}

static void test_sandbox_dev(void **state)
{
    struct fixture *f = *state;
    struct sim_sandbox_opts opts;
    char sock[PATH_MAX];
    int fd;

    path_join(sock, f->root, "log.sock");
    fd = sim_syslog_open(sock);
    assert_true(fd >= 0);
    opts.syslog_socket = sock;
    assert_int_equal(run_sh(f->b, &opts,
                            "echo x > /dev/null && "
                            "test \"$(head -c 5 /dev/zero | wc -c)\" = 5 && "
                            "test -c /dev/urandom && test -c /dev/random && "
                            "test -c /dev/full && test -S /dev/log && "
                            "test -d /dev/pts && test -L /dev/ptmx && "
                            "test ! -e /dev/kmsg"),
                     0);
    sim_syslog_close(fd, sock);
}

static void test_spawn_exec_failure(void **state)
{
    struct fixture *f = *state;
    char *const argv[] = {"/nonexistent/program", NULL};

    assert_int_equal(run_argv(f->b, NULL, argv), 127);
}

/* The sandbox shows the board's own /tmp: a program that lives under the
 * host's /tmp (a build there) must still run. */
static void test_spawn_program_hidden_by_sandbox_tmp(void **state)
{
    struct fixture *f = *state;
    char dir[] = "/tmp/simboard_prog_XXXXXX";
    char program[64];
    char *const argv[] = {program, "-c", "exit 7", NULL};

    assert_non_null(mkdtemp(dir));
    snprintf(program, sizeof(program), "%s/sh", dir);
    assert_int_equal(symlink("/bin/sh", program), 0);
    assert_int_equal(run_argv(f->b, NULL, argv), 7);
    unlink(program);
    rmdir(dir);
}

static void test_setpci_command(void **state)
{
    struct fixture *f = *state;
    uint16_t cmd;

    assert_int_equal(
        run_sh(f->b, NULL, "setpci -d 1c7a:1d9 COMMAND=0x2 2>/dev/null"), 0);
    assert_int_equal(sim_board_config_read16(f->b, 4, &cmd), 0);
    assert_int_equal(cmd, f->kc->kind == SIM_BOARD_LHX ? 0x0002 : 0x0000);
}

static void test_lspci(void **state)
{
    struct fixture *f = *state;
    char path[PATH_MAX], want[128];

    assert_int_equal(run_sh(f->b, NULL, "lspci -n > /tmp/lspci.out"), 0);
    snprintf(want, sizeof(want), "03:00.0 0580: 1c7a:%04x\n", f->kc->device);
    path_join(path, f->root, "tmp/lspci.out");
    assert_file_text(path, want);
}

static void test_lspci_region(void **state)
{
    struct fixture *f = *state;
    char path[PATH_MAX], want[128];

    assert_int_equal(
        run_sh(f->b, NULL,
               "lspci -vv -s 03:00.0 2>/dev/null | grep Region > /tmp/r.out"),
        0);
    snprintf(want, sizeof(want),
             "\tRegion %u: Memory at %x (32-bit, non-prefetchable) "
             "[disabled] [size=%zuK]\n",
             f->kc->bar, f->kc->bar_addr, f->kc->size / 1024);
    path_join(path, f->root, "tmp/r.out");
    assert_file_text(path, want);
}

enum probe_result {
    PROBE_MAPPED,
    PROBE_INIT_FAILED = 10,
    PROBE_NOT_FOUND,
    PROBE_PROBE_FAILED,
    PROBE_BAD_REGION,
    PROBE_MAP_FAILED,
    PROBE_BAD_REVISION,
    PROBE_NO_WRITE_SEEN,
};

/* Discovery as the library does it (Part 2.1), with the real libpciaccess. */
static int map_bar(const struct kind_case *kc, volatile uint32_t **win)
{
    struct pci_id_match match = {
        0x1c7a,
        kc->device,
        PCI_MATCH_ANY,
        kc->kind == SIM_BOARD_LHX ? PCI_MATCH_ANY : kc->subsys_device,
        0,
        0,
        0,
    };
    struct pci_device_iterator *it;
    struct pci_device *dev;
    void *p = NULL;

    if (pci_system_init() != 0)
        return PROBE_INIT_FAILED;
    it = pci_id_match_iterator_create(&match);
    dev = it ? pci_device_next(it) : NULL;
    if (!dev)
        return PROBE_NOT_FOUND;
    if (pci_device_probe(dev) != 0)
        return PROBE_PROBE_FAILED;
    if (dev->regions[kc->bar].base_addr != kc->bar_addr ||
        dev->regions[kc->bar].size != kc->size)
        return PROBE_BAD_REGION;
    if (pci_device_map_range(dev, dev->regions[kc->bar].base_addr,
                             dev->regions[kc->bar].size,
                             PCI_DEV_MAP_FLAG_WRITABLE, &p) != 0)
        return PROBE_MAP_FAILED;
    *win = p;
    return PROBE_MAPPED;
}

static int pciaccess_probe(const void *arg)
{
    volatile uint32_t *win;
    int rc = map_bar(arg, &win);

    if (rc != PROBE_MAPPED)
        return rc;
    if (win[0] != 0x00010203)
        return PROBE_BAD_REVISION;
    win[0xFC / 4] = 0xA5A50001;
    return PROBE_MAPPED;
}

static void test_pciaccess_map(void **state)
{
    struct fixture *f = *state;
    uint32_t v;

    assert_int_equal(run_fn(f->b, NULL, pciaccess_probe, f->kc, NULL),
                     PROBE_MAPPED);
    assert_int_equal(sim_board_read(f->b, 0xFC, &v), 0);
    assert_int_equal(v, 0xA5A50001);
}

/* Both sides see the other's writes at once, as with the real BAR. */
static int pciaccess_live(const void *arg)
{
    volatile uint32_t *win;
    int rc = map_bar(arg, &win);

    if (rc != PROBE_MAPPED)
        return rc;
    win[0xFC / 4] = 1;
    for (int i = 0; i < LIVE_POLLS; i++) {
        if (win[0x100 / 4] == 0xC0FFEE)
            return PROBE_MAPPED;
        usleep(LIVE_POLL_US);
    }
    return PROBE_NO_WRITE_SEEN;
}

static void test_pciaccess_live(void **state)
{
    struct fixture *f = *state;
    uint32_t v = 0;
    int status, i;
    pid_t pid = fork();

    assert_true(pid >= 0);
    if (pid == 0) {
        if (sim_board_enter(f->b, NULL) < 0)
            _exit(126);
        _exit(pciaccess_live(f->kc));
    }
    for (i = 0; i < LIVE_POLLS && v != 1; i++) {
        assert_int_equal(sim_board_read(f->b, 0xFC, &v), 0);
        usleep(LIVE_POLL_US);
    }
    assert_int_equal(v, 1);
    assert_int_equal(sim_board_write(f->b, 0x100, 0xC0FFEE), 0);
    assert_int_equal(sim_wait(pid, CHILD_TIMEOUT_MS, &status), 0);
    assert_int_equal(exit_code(status), PROBE_MAPPED);
}

static void test_break_window(void **state)
{
    struct fixture *f = *state;
    uint32_t v;

    assert_int_equal(sim_board_break_window(f->b), 0);
    assert_int_equal(access(sim_board_path(f->b, SIM_PATH_WINDOW), F_OK), -1);
    assert_int_equal(run_fn(f->b, NULL, pciaccess_probe, f->kc, NULL),
                     PROBE_MAP_FAILED);
    assert_int_equal(sim_board_read(f->b, 0, &v), 0);
    assert_int_equal(v, 0x00010203);
    assert_int_equal(sim_board_break_window(f->b), 0);
}

static void test_wait_timeout(void **state)
{
    struct fixture *f = *state;
    char *const argv[] = {"sleep", "100", NULL};
    struct timespec t0, t1;
    int status = 0;
    pid_t pid = sim_board_spawn(f->b, NULL, argv);

    assert_true(pid > 0);
    clock_gettime(CLOCK_MONOTONIC, &t0);
    errno = 0;
    assert_int_equal(sim_wait(pid, 200, &status), -1);
    assert_int_equal(errno, ETIMEDOUT);
    clock_gettime(CLOCK_MONOTONIC, &t1);
    assert_true(WIFSIGNALED(status));
    assert_int_equal(WTERMSIG(status), SIGKILL);
    assert_true(t1.tv_sec - t0.tv_sec < 3);
    assert_int_equal(waitpid(pid, NULL, WNOHANG), -1);
    assert_int_equal(errno, ECHILD);
}

/* ---- syslog ---- */

struct syslog_fixture {
    struct sim_sandbox_opts opts;
    char sock[PATH_MAX];
    int fd;
};

static void open_listener(struct fixture *f, struct syslog_fixture *s)
{
    path_join(s->sock, f->root, "log.sock");
    s->fd = sim_syslog_open(s->sock);
    assert_true(s->fd >= 0);
    s->opts.syslog_socket = s->sock;
}

static void test_syslog_logger(void **state)
{
    struct fixture *f = *state;
    struct syslog_fixture s;
    struct sim_syslog_msg m;
    char *const argv[] = {"logger", "-t",          "Pellin Manager",
                          "-p",     "daemon.crit", "hello world",
                          NULL};

    open_listener(f, &s);
    assert_int_equal(run_argv(f->b, &s.opts, argv), 0);
    assert_int_equal(sim_syslog_next(s.fd, SYSLOG_TIMEOUT_MS, &m), 0);
    assert_int_equal(m.facility, 3);
    assert_int_equal(m.severity, 2);
    assert_string_equal(m.ident, "Pellin Manager");
    assert_int_equal(m.pid, 0);
    assert_string_equal(m.text, "hello world");
    errno = 0;
    assert_int_equal(sim_syslog_next(s.fd, 50, &m), -1);
    assert_int_equal(errno, ETIMEDOUT);
    sim_syslog_close(s.fd, s.sock);
}

static int glibc_syslog(const void *arg)
{
    (void)arg;
    openlog("larks-hollow-fpga", 0, LOG_DAEMON);
    syslog(LOG_INFO, "%s - Found %d traffic pipes", "Informational", 2);
    closelog();
    openlog("Pellin Manager", LOG_PID, LOG_DAEMON);
    syslog(LOG_ERR, "Error initializing IPC for %s\n", "pellin_mgr");
    closelog();
    return 0;
}

static void test_syslog_glibc(void **state)
{
    struct fixture *f = *state;
    struct syslog_fixture s;
    struct sim_syslog_msg m;
    pid_t child;

    open_listener(f, &s);
    assert_int_equal(run_fn(f->b, &s.opts, glibc_syslog, NULL, &child), 0);
    assert_int_equal(sim_syslog_next(s.fd, SYSLOG_TIMEOUT_MS, &m), 0);
    assert_int_equal(m.facility, 3);
    assert_int_equal(m.severity, 6);
    assert_string_equal(m.ident, "larks-hollow-fpga");
    assert_int_equal(m.pid, 0);
    assert_string_equal(m.text, "Informational - Found 2 traffic pipes");
    assert_int_equal(sim_syslog_next(s.fd, SYSLOG_TIMEOUT_MS, &m), 0);
    assert_int_equal(m.facility, 3);
    assert_int_equal(m.severity, 3);
    assert_string_equal(m.ident, "Pellin Manager");
    assert_int_equal(m.pid, child);
    assert_string_equal(m.text, "Error initializing IPC for pellin_mgr");
    sim_syslog_close(s.fd, s.sock);
}

static void test_syslog_parse(void **state)
{
    static const struct {
        const char *line;
        int rc;
        int facility, severity;
        const char *ident;
        pid_t pid;
        const char *text;
    } rows[] = {
        {"<26>Nov  1 09:05:07 Pellin Manager[42]: a: b", 0, 3, 2,
         "Pellin Manager", 42, "a: b"},
        {"<30>Mar 15 10:00:00 larks-hollow-fpga: x [7]: y\n", 0, 3, 6,
         "larks-hollow-fpga", 0, "x [7]: y"},
        {"<31>Mar 15 10:00:00 tag[x]: z", 0, 3, 7, "tag[x]", 0, "z"},
        {"<27>Mar 15 10:00:00 [5]: empty ident", 0, 3, 3, "", 5, "empty ident"},
        {"<13>no timestamp: text", 0, 1, 5, "no timestamp", 0, "text"},
        {"<191>Mar 15 10:00:00 t: ", 0, 23, 7, "t", 0, ""},
        {"<192>Mar 15 10:00:00 t: x", -1, 0, 0, "", 0, ""},
        {"Mar 15 10:00:00 t: x", -1, 0, 0, "", 0, ""},
        {"<30>Mar 15 10:00:00 no colon", -1, 3, 6, "", 0, ""},
    };
    struct sim_syslog_msg m;

    (void)state;
    for (size_t i = 0; i < NELEM(rows); i++) {
        assert_int_equal(sim_syslog_parse(rows[i].line, &m), rows[i].rc);
        assert_string_equal(m.raw, rows[i].line);
        if (rows[i].rc < 0)
            continue;
        assert_int_equal(m.facility, rows[i].facility);
        assert_int_equal(m.severity, rows[i].severity);
        assert_string_equal(m.ident, rows[i].ident);
        assert_int_equal(m.pid, rows[i].pid);
        assert_string_equal(m.text, rows[i].text);
    }
}

static void test_syslog_truncates(void **state)
{
    char line[3000];
    struct sim_syslog_msg m;
    size_t n;

    (void)state;
    n = (size_t)snprintf(line, sizeof(line), "<30>Mar 15 10:00:00 ");
    memset(line + n, 'i', 100);
    n += 100;
    memcpy(line + n, ": ", 2);
    n += 2;
    memset(line + n, 't', sizeof(line) - n - 1);
    line[sizeof(line) - 1] = '\0';
    assert_int_equal(sim_syslog_parse(line, &m), 0);
    assert_int_equal(strlen(m.ident), SIM_SYSLOG_IDENT_MAX - 1);
    assert_int_equal(strlen(m.raw), SIM_SYSLOG_RAW_MAX - 1);
    assert_int_equal(strlen(m.text), SIM_SYSLOG_RAW_MAX - 1 - (20 + 100 + 2));
}

/* ---- without CAP_SYS_ADMIN: the user-namespace path ---- */

static int chown_entry(const char *path, const struct stat *st, int flag,
                       struct FTW *ftw)
{
    (void)st;
    (void)flag;
    (void)ftw;
    return lchown(path, NOBODY, NOBODY);
}

static int unprivileged_view(const struct fixture *f,
                             const struct sim_sandbox_opts *opts)
{
    char buf[256];

    if (setgroups(0, NULL) < 0 || setresgid(NOBODY, NOBODY, NOBODY) < 0 ||
        setresuid(NOBODY, NOBODY, NOBODY) < 0)
        return 20;
    /* Dropping root made us undumpable, which hides /proc/self/uid_map. */
    if (prctl(PR_SET_DUMPABLE, 1) < 0)
        return 20;
    if (sim_board_enter(f->b, opts) < 0) {
        fprintf(stderr, "enter: %s\n", sim_board_last_error());
        return strstr(sim_board_last_error(), "user and mount") ? EXIT_SKIP
                                                                : 21;
    }
    if (getuid() != 0)
        return 22;
    if (read_text("/sys/bus/pci/devices/" SIM_BOARD_SLOT "/vendor", buf,
                  sizeof(buf)) < 0 ||
        strcmp(buf, "0x1c7a\n"))
        return 23;
    if (read_text("/tmp/idprom_cache.conf", buf, sizeof(buf)) < 0 ||
        strcmp(buf, f->kc->idprom))
        return 24;
    if (mkdir("/opt/orvel/platform/logs/u", 0755) < 0 ||
        mkdir("/run/orvel/ipc", 0755) < 0)
        return 25;
    openlog("unprivileged", 0, LOG_DAEMON);
    syslog(LOG_NOTICE, "in a user namespace");
    closelog();
    return 0;
}

static void test_unprivileged_enter(void **state)
{
    struct fixture *f = *state;
    struct syslog_fixture s;
    struct sim_syslog_msg m;
    char path[PATH_MAX];
    int status;
    pid_t pid;

    if (geteuid() != 0)
        skip(); /* every other case already took this path */
    open_listener(f, &s);
    assert_int_equal(nftw(f->dir, chown_entry, 16, FTW_PHYS), 0);
    pid = fork();
    assert_true(pid >= 0);
    if (pid == 0)
        _exit(unprivileged_view(f, &s.opts));
    assert_int_equal(sim_wait(pid, CHILD_TIMEOUT_MS, &status), 0);
    if (exit_code(status) == EXIT_SKIP) {
        sim_syslog_close(s.fd, s.sock);
        skip();
    }
    assert_int_equal(exit_code(status), 0);
    path_join(path, f->root, "opt/platform/logs/u");
    assert_int_equal(access(path, F_OK), 0);
    path_join(path, f->root, "run/ipc");
    assert_int_equal(access(path, F_OK), 0);
    assert_int_equal(sim_syslog_next(s.fd, SYSLOG_TIMEOUT_MS, &m), 0);
    assert_int_equal(m.severity, 5);
    assert_string_equal(m.ident, "unprivileged");
    assert_string_equal(m.text, "in a user namespace");
    sim_syslog_close(s.fd, s.sock);
}

#define KIND_TEST(fn, kc)                                                      \
    {                                                                          \
#fn "/" #kc, fn, setup_board, teardown_board, (void *)&kc              \
    }
#define BOARD_TEST(fn)                                                         \
    {                                                                          \
#fn, fn, setup_board, teardown_board, NULL                             \
    }

int main(void)
{
    const struct CMUnitTest tests[] = {
        KIND_TEST(test_window_content, case_base2),
        KIND_TEST(test_window_content, case_base1),
        KIND_TEST(test_window_content, case_lhx),
        KIND_TEST(test_window_every_word, case_base2),
        KIND_TEST(test_window_every_word, case_base1),
        KIND_TEST(test_window_every_word, case_lhx),
        KIND_TEST(test_window_bounds, case_base2),
        KIND_TEST(test_window_bounds, case_lhx),
        BOARD_TEST(test_window_little_endian),
        KIND_TEST(test_id_files, case_base2),
        KIND_TEST(test_id_files, case_lhx),
        KIND_TEST(test_config_space, case_base2),
        KIND_TEST(test_config_space, case_lhx),
        KIND_TEST(test_resource_file, case_base2),
        KIND_TEST(test_resource_file, case_lhx),
        KIND_TEST(test_idprom_file, case_base2),
        KIND_TEST(test_idprom_file, case_base1),
        KIND_TEST(test_idprom_file, case_lhx),
        BOARD_TEST(test_tree_layout),
        BOARD_TEST(test_set_idprom),
        BOARD_TEST(test_read_write),
        cmocka_unit_test(test_create_errors),
        cmocka_unit_test(test_kind_names),
        KIND_TEST(test_sandbox_view, case_base2),
        KIND_TEST(test_sandbox_view, case_lhx),
        BOARD_TEST(test_sandbox_dev),
        BOARD_TEST(test_spawn_exec_failure),
        BOARD_TEST(test_spawn_program_hidden_by_sandbox_tmp),
        KIND_TEST(test_setpci_command, case_lhx),
        KIND_TEST(test_setpci_command, case_base2),
        KIND_TEST(test_lspci, case_base2),
        KIND_TEST(test_lspci, case_lhx),
        KIND_TEST(test_lspci_region, case_base2),
        KIND_TEST(test_lspci_region, case_lhx),
        KIND_TEST(test_pciaccess_map, case_base2),
        KIND_TEST(test_pciaccess_map, case_base1),
        KIND_TEST(test_pciaccess_map, case_lhx),
        KIND_TEST(test_pciaccess_live, case_lhx),
        KIND_TEST(test_break_window, case_base2),
        KIND_TEST(test_break_window, case_lhx),
        BOARD_TEST(test_wait_timeout),
        BOARD_TEST(test_syslog_logger),
        BOARD_TEST(test_syslog_glibc),
        cmocka_unit_test(test_syslog_parse),
        cmocka_unit_test(test_syslog_truncates),
        BOARD_TEST(test_unprivileged_enter),
    };

    return cmocka_run_group_tests(tests, NULL, NULL);
}
