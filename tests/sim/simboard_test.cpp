/* Tests of the simulated board, its sandbox and the syslog listener. */
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <ftw.h>
#include <grp.h>
#include <limits.h>
#include <linux/audit.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <signal.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <syslog.h>
#include <poll.h>
#include <time.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <functional>
#include <initializer_list>
#include <memory>
#include <set>
#include <span>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <pciaccess.h>

#include "log_expect.hpp"
#include "private_tmp.hpp"
#include "simboard.hpp"

namespace {

constexpr int CHILD_TIMEOUT_MS = 10000;
constexpr int SYSLOG_TIMEOUT_MS = 3000;
constexpr uid_t NOBODY = 65534;
constexpr int EXIT_SKIP = 77;
constexpr int LIVE_POLLS = 2000;
constexpr useconds_t LIVE_POLL_US = 1000;
/* A spawn whose child cannot enter the sandbox returns well within this,
 * not after a caller's timeout. */
constexpr long SPAWN_FAILURE_MS = 2000;

/* ---- what must hold for each board kind ---- */

struct RegRow {
    uint32_t offset;
    uint32_t value;
};

/* Implemented extents {offset, length} of an image. */
struct Extent {
    uint32_t offset;
    uint32_t length;
};

struct KindCase {
    enum sim_board_kind kind;
    const char *name;
    uint16_t device;
    uint16_t subsys_device;
    unsigned bar;
    uint32_t bar_addr;
    size_t size;
    const char *idprom;
    std::span<const RegRow> rows;
    std::span<const Extent> extents;
    std::span<const RegRow> nonzero;
};

constexpr RegRow base_rows[] = {
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

constexpr RegRow lhx_rows[] = {
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

constexpr Extent base_extents[] = {
    {0x00000, 0x200}, {0x01000, 0x100}, {0x10000, 0x900}, {0x20000, 0x900},
    {0x12000, 0x100}, {0x22000, 0x100}, {0x16000, 0x100}, {0x26000, 0x100},
    {0x17000, 0x800}, {0x27000, 0x800}, {0x18000, 0x100}, {0x28000, 0x100},
    {0x19000, 0x100}, {0x29000, 0x100}, {0x1A000, 0x100}, {0x2A000, 0x100},
};

constexpr Extent lhx_extents[] = {
    {0x00000, 0x200}, {0x01000, 0x100}, {0x10000, 0x1100},
    {0x12000, 0x100}, {0x16000, 0x100}, {0x19000, 0x100},
};

constexpr RegRow base_nonzero[] = {
    {0x00000, 0x00010203},
    {0x00010, 0x24031510},
    {0x10824, 0x01000000},
    {0x20824, 0x01000000},
};

constexpr RegRow lhx_nonzero[] = {
    {0x00000, 0x00010203},
    {0x00010, 0x24031510},
    {0x11024, 0x00000008},
};

const KindCase case_base2 = {
    .kind = SIM_BOARD_BASE2,
    .name = "base2",
    .device = 0x01d7,
    .subsys_device = 0x01d7,
    .bar = 0,
    .bar_addr = 0xf0000000,
    .size = 0x40000,
    .idprom = "CONTROLLER_TYPE=4358\nBOARD_TYPE=4\n",
    .rows = base_rows,
    .extents = base_extents,
    .nonzero = base_nonzero,
};

const KindCase case_base1 = {
    .kind = SIM_BOARD_BASE1,
    .name = "base1",
    .device = 0x01d7,
    .subsys_device = 0x01d7,
    .bar = 0,
    .bar_addr = 0xf0000000,
    .size = 0x40000,
    .idprom = "CONTROLLER_TYPE=4361\nBOARD_TYPE=4\n",
    .rows = base_rows,
    .extents = base_extents,
    .nonzero = base_nonzero,
};

const KindCase case_lhx = {
    .kind = SIM_BOARD_LHX,
    .name = "lhx",
    .device = 0x01d9,
    .subsys_device = 0x01d9,
    .bar = 2,
    .bar_addr = 0xf1000000,
    .size = 0x20000,
    .idprom = "CONTROLLER_TYPE=4390\nBOARD_TYPE=4\n",
    .rows = lhx_rows,
    .extents = lhx_extents,
    .nonzero = lhx_nonzero,
};

/* Cases and their names show the kind, not an address. */
void PrintTo(const KindCase *kc, std::ostream *os)
{
    *os << kc->name;
}

std::string kind_name(const ::testing::TestParamInfo<const KindCase *> &info)
{
    return info.param->name;
}

/* ---- helpers ---- */

int remove_entry(const char *path, const struct stat *, int, struct FTW *)
{
    return remove(path);
}

/* A directory made by mkdtemp, removed with all it holds at scope end. */
class TempDir {
public:
    explicit TempDir(const char *pattern = "/tmp/simboard-test-XXXXXX")
        : path_(pattern)
    {
        if (mkdtemp(path_.data()) == nullptr) {
            ADD_FAILURE() << "mkdtemp " << pattern << ": " << strerror(errno);
            path_.clear();
        }
    }
    TempDir(const TempDir &) = delete;
    TempDir &operator=(const TempDir &) = delete;
    ~TempDir() { remove(); }

    bool ok() const { return !path_.empty(); }
    const std::string &path() const { return path_; }
    std::string operator/(const std::string &name) const
    {
        return path_ + "/" + name;
    }
    void remove()
    {
        if (!path_.empty())
            nftw(path_.c_str(), remove_entry, 16,
                 FTW_DEPTH | FTW_PHYS | FTW_MOUNT);
        path_.clear();
    }

private:
    std::string path_;
};

/* A child process, killed and reaped at scope end unless waited for. */
class ChildGuard {
public:
    explicit ChildGuard(pid_t pid = -1) : pid_(pid) {}
    ChildGuard(const ChildGuard &) = delete;
    ChildGuard &operator=(const ChildGuard &) = delete;
    ~ChildGuard()
    {
        if (pid_ > 0) {
            kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
        }
    }

    pid_t get() const { return pid_; }
    /* sim_wait, which reaps the child whatever it returns. */
    int wait(int timeout_ms, int *status)
    {
        pid_t pid = pid_;

        pid_ = -1;
        return sim_wait(pid, timeout_ms, status);
    }

private:
    pid_t pid_;
};

/* A board freed at scope end (its tree stays: it lies in a TempDir). */
struct BoardFree {
    void operator()(sim_board *b) const { sim_board_free(b); }
};
using BoardPtr = std::unique_ptr<sim_board, BoardFree>;

/* An argument vector for exec from plain strings. */
class Argv {
public:
    Argv(std::initializer_list<std::string> args) : args_(args)
    {
        for (std::string &a : args_)
            pointers_.push_back(a.data());
        pointers_.push_back(nullptr);
    }
    char *const *get() { return pointers_.data(); }

private:
    std::vector<std::string> args_;
    std::vector<char *> pointers_;
};

std::string join_path(const std::string &a, const std::string &b)
{
    return a + "/" + b;
}

/* The file's whole text; a marker text when it cannot be read, so that a
 * comparison fails and says why. */
std::string read_text(const std::string &path)
{
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;

    if (!in)
        return "<cannot read " + path + ": " + strerror(errno) + ">";
    text << in.rdbuf();
    return text.str();
}

void expect_file_text(const std::string &path, const std::string &expected)
{
    EXPECT_EQ(read_text(path), expected) << path;
}

int exit_code(int status)
{
    if (WIFEXITED(status))
        return WEXITSTATUS(status);
    return 128 + WTERMSIG(status);
}

/* Milliseconds since `since` (negative: until it). */
long elapsed_ms(std::chrono::steady_clock::time_point since)
{
    return (long)std::chrono::duration_cast<std::chrono::milliseconds>(
               std::chrono::steady_clock::now() - since)
        .count();
}

/* Names in a directory, without "." and "..". */
std::set<std::string> dir_entries(const char *path)
{
    std::set<std::string> names;
    DIR *d = opendir(path);

    if (d == nullptr) {
        ADD_FAILURE() << "opendir " << path << ": " << strerror(errno);
        return names;
    }
    while (const struct dirent *de = readdir(d))
        if (strcmp(de->d_name, ".") != 0 && strcmp(de->d_name, "..") != 0)
            names.insert(de->d_name);
    closedir(d);
    return names;
}

/* Spawns argv in the sandbox and waits; its exit code, -1 when it did
 * not start. */
int run_argv(const sim_board *b, const sim_sandbox_opts *opts, Argv argv)
{
    int status = 0;
    ChildGuard child(sim_board_spawn(b, opts, argv.get()));

    if (child.get() <= 0) {
        ADD_FAILURE() << "spawn " << argv.get()[0] << ": "
                      << sim_board_last_error();
        return -1;
    }
    if (child.wait(CHILD_TIMEOUT_MS, &status) != 0) {
        ADD_FAILURE() << "wait " << argv.get()[0] << ": " << strerror(errno);
        return -1;
    }
    return exit_code(status);
}

int run_sh(const sim_board *b, const sim_sandbox_opts *opts,
           const std::string &script)
{
    return run_argv(b, opts, {"/bin/sh", "-c", script});
}

/* Runs fn in a forked child inside the sandbox; returns its exit code. */
int run_fn(const sim_board *b, const sim_sandbox_opts *opts,
           const std::function<int()> &fn, pid_t *child_pid = nullptr)
{
    int status = 0;
    pid_t pid = fork();

    if (pid < 0) {
        ADD_FAILURE() << "fork: " << strerror(errno);
        return -1;
    }
    if (pid == 0) {
        if (sim_board_enter(b, opts) < 0) {
            fprintf(stderr, "enter: %s\n", sim_board_last_error());
            _exit(126);
        }
        _exit(fn());
    }
    ChildGuard child(pid);
    if (child_pid)
        *child_pid = pid;
    if (child.wait(CHILD_TIMEOUT_MS, &status) != 0) {
        ADD_FAILURE() << "wait: " << strerror(errno);
        return -1;
    }
    return exit_code(status);
}

/* Runs fn in a forked child, handing it a descriptor whose bytes come back
 * in *out.  Returns the child's exit code, -1 when it did not run or end. */
int run_child(const std::function<int(int out_fd)> &fn, std::string *out)
{
    const auto deadline = std::chrono::steady_clock::now() +
                          std::chrono::milliseconds(CHILD_TIMEOUT_MS);
    int status = 0;
    int fds[2];

    out->clear();
    if (pipe2(fds, O_CLOEXEC) < 0) {
        ADD_FAILURE() << "pipe: " << strerror(errno);
        return -1;
    }
    pid_t pid = fork();
    if (pid == 0) {
        close(fds[0]);
        _exit(fn(fds[1]));
    }
    close(fds[1]);
    ChildGuard child(pid);
    bool timed_out = false;
    for (;;) {
        struct pollfd pfd = {fds[0], POLLIN, 0};
        char buf[4096];
        const long left = -elapsed_ms(deadline);
        int ready = poll(&pfd, 1, left > 0 ? (int)left : 0);

        if (ready < 0 && errno == EINTR)
            continue;
        timed_out = ready == 0;
        ssize_t n = ready > 0 ? read(fds[0], buf, sizeof(buf)) : -1;
        if (n <= 0)
            break;
        out->append(buf, (size_t)n);
    }
    close(fds[0]);
    if (pid < 0) {
        ADD_FAILURE() << "fork: " << strerror(errno);
        return -1;
    }
    /* At end of file the child is ending; at the deadline it is killed. */
    if (child.wait(timed_out ? 0 : CHILD_TIMEOUT_MS, &status) != 0) {
        ADD_FAILURE() << "the child did not end in " << CHILD_TIMEOUT_MS
                      << " ms";
        return -1;
    }
    return exit_code(status);
}

uint32_t le32(const uint8_t *p)
{
    return (uint32_t)p[0] | (uint32_t)p[1] << 8 | (uint32_t)p[2] << 16 |
           (uint32_t)p[3] << 24;
}

/* The value of a "Name:" line of /proc/self/status, "" when absent. */
std::string proc_status(const std::string &name)
{
    std::ifstream status("/proc/self/status");
    std::string line;

    while (std::getline(status, line)) {
        if (line.rfind(name + ":", 0) != 0)
            continue;
        size_t start = line.find_first_not_of(" \t", name.size() + 1);
        return start == std::string::npos ? "" : line.substr(start);
    }
    return "";
}

/* What, besides the sandbox code itself, may refuse this process a mount
 * namespace: not root, no CAP_SYS_ADMIN, a seccomp filter, a security
 * module's confinement.  "" when none of them. */
std::string what_may_refuse_namespaces()
{
    std::ifstream attr("/proc/self/attr/current");
    std::string label;

    if (geteuid() != 0)
        return "not root";
    if (((std::stoull("0" + proc_status("CapEff"), nullptr, 16) >> 21) & 1) ==
        0)
        return "root without CAP_SYS_ADMIN";
    if (proc_status("Seccomp") != "0")
        return "under a seccomp filter";
    if (std::getline(attr, label) && !label.empty() &&
        label.find("unconfined") == std::string::npos)
        return "confined by a security module (" + label + ")";
    return "";
}

/* ---- fixtures ---- */

/* A board of one kind in a directory of its own, both gone at the end. */
class BoardTest : public ::testing::Test {
protected:
    /* With sandbox, skipped with the reason when it cannot be entered. */
    void start(const KindCase &kc, bool sandbox)
    {
        std::string why;

        if (sandbox && !sim_sandbox_available(&why))
            GTEST_SKIP() << why;
        kc_ = &kc;
        ASSERT_TRUE(dir_.ok());
        root_ = dir_ / "board";
        ASSERT_EQ(sim_board_create(root_.c_str(), kc.kind, &b_), 0)
            << "sim_board_create: " << strerror(errno);
    }

    void TearDown() override
    {
        if (b_ != nullptr) {
            EXPECT_EQ(sim_board_destroy(b_), 0) << strerror(errno);
            b_ = nullptr;
        }
    }

    std::string path(sim_board_path_id id) const
    {
        return sim_board_path(b_, id);
    }

    const KindCase *kc_ = nullptr;
    TempDir dir_;
    std::string root_;
    sim_board *b_ = nullptr;
};

/* The board tree alone: a base2 board. */
class SimBoard : public BoardTest {
protected:
    void SetUp() override { start(case_base2, false); }
};

/* A board tree of each kind. */
class SimBoardEachKind
    : public BoardTest,
      public ::testing::WithParamInterface<const KindCase *> {
protected:
    void SetUp() override { start(*GetParam(), false); }
};

/* The board tree of a base2 and of an LHX board. */
class SimBoardTwoKinds : public SimBoardEachKind {};

/* A base2 board whose sandbox can be entered. */
class SimSandbox : public BoardTest {
protected:
    void SetUp() override { start(case_base2, true); }
};

/* An LHX board whose sandbox can be entered. */
class SimSandboxLhx : public BoardTest {
protected:
    void SetUp() override { start(case_lhx, true); }
};

/* The sandbox of a board of each kind. */
class SimSandboxEachKind
    : public BoardTest,
      public ::testing::WithParamInterface<const KindCase *> {
protected:
    void SetUp() override { start(*GetParam(), true); }
};

/* The sandbox of a base2 and of an LHX board. */
class SimSandboxTwoKinds : public SimSandboxEachKind {};

INSTANTIATE_TEST_SUITE_P(Kinds, SimBoardEachKind,
                         ::testing::Values(&case_base2, &case_base1, &case_lhx),
                         kind_name);
INSTANTIATE_TEST_SUITE_P(Kinds, SimBoardTwoKinds,
                         ::testing::Values(&case_base2, &case_lhx), kind_name);
INSTANTIATE_TEST_SUITE_P(Kinds, SimSandboxEachKind,
                         ::testing::Values(&case_base2, &case_base1, &case_lhx),
                         kind_name);
INSTANTIATE_TEST_SUITE_P(Kinds, SimSandboxTwoKinds,
                         ::testing::Values(&case_base2, &case_lhx), kind_name);

/* ---- the board tree ---- */

TEST_P(SimBoardEachKind, WindowContent)
{
    struct stat st;
    uint32_t v;

    EXPECT_EQ(sim_board_window_size(b_), kc_->size);
    ASSERT_EQ(stat(path(SIM_PATH_WINDOW).c_str(), &st), 0);
    EXPECT_EQ((size_t)st.st_size, kc_->size);
    for (const RegRow &row : kc_->rows) {
        if (row.offset >= kc_->size)
            continue;
        ASSERT_EQ(sim_board_read(b_, row.offset, &v), 0);
        ASSERT_EQ(v, row.value)
            << format_text("offset 0x%05x: 0x%08x, expected 0x%08x",
                           row.offset, v, row.value);
    }
}

uint32_t expected_word(const KindCase &kc, uint32_t off)
{
    for (const RegRow &row : kc.nonzero)
        if (row.offset == off)
            return row.value;
    for (const Extent &e : kc.extents)
        if (off - e.offset < e.length)
            return 0;
    return SIM_BOARD_FILLER;
}

/* Every word of the window, against the block list of the design. */
TEST_P(SimBoardEachKind, WindowEveryWord)
{
    uint32_t v;

    for (uint32_t off = 0; off < kc_->size; off += 4) {
        ASSERT_EQ(sim_board_read(b_, off, &v), 0);
        ASSERT_EQ(v, expected_word(*kc_, off))
            << format_text("offset 0x%05x: 0x%08x, expected 0x%08x", off, v,
                           expected_word(*kc_, off));
    }
}

TEST_F(SimBoard, WindowLittleEndian)
{
    static const uint8_t revision[4] = {0x03, 0x02, 0x01, 0x00};
    static const uint8_t filler[4] = {0xEF, 0xBE, 0xAD, 0xDE};
    uint8_t buf[4];
    int fd = open(path(SIM_PATH_WINDOW).c_str(), O_RDONLY | O_CLOEXEC);

    ASSERT_GE(fd, 0);
    EXPECT_EQ(pread(fd, buf, 4, 0), 4);
    EXPECT_EQ(memcmp(buf, revision, 4), 0);
    EXPECT_EQ(pread(fd, buf, 4, 0x200), 4);
    EXPECT_EQ(memcmp(buf, filler, 4), 0);
    close(fd);
}

TEST_P(SimBoardTwoKinds, WindowBounds)
{
    const uint32_t size = (uint32_t)kc_->size;
    uint32_t v;

    errno = 0;
    EXPECT_EQ(sim_board_read(b_, size, &v), -1);
    EXPECT_EQ(errno, EINVAL);
    errno = 0;
    EXPECT_EQ(sim_board_read(b_, 0x102, &v), -1);
    EXPECT_EQ(errno, EINVAL);
    errno = 0;
    EXPECT_EQ(sim_board_write(b_, size, 1), -1);
    EXPECT_EQ(errno, EINVAL);
    ASSERT_EQ(sim_board_read(b_, size - 4, &v), 0);
    EXPECT_EQ(v, SIM_BOARD_FILLER);
}

TEST_P(SimBoardTwoKinds, IdFiles)
{
    const std::string dev = path(SIM_PATH_DEVICE);

    expect_file_text(join_path(dev, "vendor"), "0x1c7a\n");
    expect_file_text(join_path(dev, "class"), "0x058000\n");
    expect_file_text(join_path(dev, "revision"), "0x00\n");
    expect_file_text(join_path(dev, "subsystem_vendor"), "0x1c7a\n");
    expect_file_text(join_path(dev, "irq"), "0\n");
    expect_file_text(join_path(dev, "device"),
                     format_text("0x%04x\n", kc_->device));
    expect_file_text(join_path(dev, "subsystem_device"),
                     format_text("0x%04x\n", kc_->subsys_device));
}

TEST_P(SimBoardTwoKinds, ConfigSpace)
{
    uint8_t cfg[512];
    int fd = open(path(SIM_PATH_CONFIG).c_str(), O_RDONLY | O_CLOEXEC);
    uint16_t v;

    ASSERT_GE(fd, 0);
    ssize_t n = read(fd, cfg, sizeof(cfg));
    close(fd);
    ASSERT_EQ(n, 256);
    EXPECT_EQ(cfg[0] | cfg[1] << 8, 0x1c7a);
    EXPECT_EQ(cfg[2] | cfg[3] << 8, kc_->device);
    EXPECT_EQ(cfg[4] | cfg[5] << 8, 0);
    for (unsigned bar = 0; bar < 6; bar++)
        EXPECT_EQ(le32(cfg + 0x10 + 4 * bar),
                  bar == kc_->bar ? kc_->bar_addr : 0u)
            << "BAR " << bar;
    EXPECT_EQ(cfg[44] | cfg[45] << 8, 0x1c7a);
    EXPECT_EQ(cfg[46] | cfg[47] << 8, kc_->subsys_device);
    ASSERT_EQ(sim_board_config_read16(b_, 2, &v), 0);
    EXPECT_EQ(v, kc_->device);
    EXPECT_EQ(sim_board_config_read16(b_, 255, &v), -1);
}

TEST_P(SimBoardTwoKinds, ResourceFile)
{
    std::string want;

    for (unsigned i = 0; i < 13; i++) {
        unsigned long long start = 0, end = 0, flags = 0;

        if (i == kc_->bar) {
            start = kc_->bar_addr;
            end = start + kc_->size - 1;
            flags = 0x40200;
        }
        want += format_text("0x%016llx 0x%016llx 0x%016llx\n", start, end,
                            flags);
    }
    expect_file_text(join_path(path(SIM_PATH_DEVICE), "resource"), want);
    EXPECT_EQ(path(SIM_PATH_WINDOW),
              join_path(path(SIM_PATH_DEVICE),
                        format_text("resource%u", kc_->bar)));
}

TEST_P(SimBoardEachKind, IdpromFile)
{
    const std::string file = join_path(root_, "tmp/idprom_cache.conf");

    EXPECT_EQ(path(SIM_PATH_IDPROM), file);
    expect_file_text(file, kc_->idprom);
}

TEST_F(SimBoard, TreeLayout)
{
    struct stat st;
    const struct {
        sim_board_path_id id;
        const char *rel;
        mode_t mode;
    } rows[] = {
        {SIM_PATH_SYS, "sys", 0755},
        {SIM_PATH_TMP, "tmp", 01777},
        {SIM_PATH_OPT, "opt", 0755},
        {SIM_PATH_LOGS, "opt/platform/logs", 0755},
        {SIM_PATH_RUN, "run", 0755},
    };

    for (const auto &row : rows) {
        const std::string want = join_path(root_, row.rel);

        SCOPED_TRACE(row.rel);
        EXPECT_EQ(path(row.id), want);
        ASSERT_EQ(stat(want.c_str(), &st), 0);
        EXPECT_TRUE(S_ISDIR(st.st_mode));
        EXPECT_EQ(st.st_mode & 07777, row.mode);
    }
    EXPECT_EQ(path(SIM_PATH_DEVICE), join_path(root_, "sys/" SIM_BOARD_SLOT));
}

TEST_F(SimBoard, SetIdprom)
{
    const std::string file = path(SIM_PATH_IDPROM);

    ASSERT_EQ(sim_board_set_idprom(b_, "CONTROLLER_TYPE=\"4358\"\n"), 0);
    expect_file_text(file, "CONTROLLER_TYPE=\"4358\"\n");
    ASSERT_EQ(sim_board_set_idprom(b_, ""), 0);
    expect_file_text(file, "");
    ASSERT_EQ(sim_board_set_idprom(b_, nullptr), 0);
    EXPECT_EQ(access(file.c_str(), F_OK), -1);
    EXPECT_EQ(sim_board_set_idprom(b_, nullptr), 0);
}

TEST_F(SimBoard, ReadWrite)
{
    uint8_t buf[4];
    uint32_t v;
    int fd;

    ASSERT_EQ(sim_board_write(b_, 0xFC, 0x80000000), 0);
    ASSERT_EQ(sim_board_read(b_, 0xFC, &v), 0);
    EXPECT_EQ(v, 0x80000000u);
    ASSERT_EQ(sim_board_write(b_, 0x10824, 0x12345678), 0);
    fd = open(path(SIM_PATH_WINDOW).c_str(), O_RDONLY | O_CLOEXEC);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(pread(fd, buf, 4, 0x10824), 4);
    close(fd);
    EXPECT_EQ(le32(buf), 0x12345678u);
    ASSERT_EQ(sim_board_read(b_, 0x10820, &v), 0);
    EXPECT_EQ(v, 0u);
}

TEST(SimBoardCreate, CreateErrors)
{
    TempDir dir;
    sim_board *b = nullptr;

    ASSERT_TRUE(dir.ok());
    const std::string stray = dir / "stray";
    int fd = open(stray.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
    ASSERT_GE(fd, 0);
    close(fd);
    errno = 0;
    EXPECT_EQ(sim_board_create(dir.path().c_str(), SIM_BOARD_LHX, &b), -1);
    EXPECT_EQ(errno, ENOTEMPTY);
    EXPECT_EQ(b, nullptr);
    errno = 0;
    EXPECT_EQ(sim_board_create(dir.path().c_str(), SIM_BOARD_KIND_COUNT, &b),
              -1);
    EXPECT_EQ(errno, EINVAL);
    ASSERT_EQ(unlink(stray.c_str()), 0);
    ASSERT_EQ(sim_board_create(dir.path().c_str(), SIM_BOARD_BASE1, &b), 0);
    EXPECT_EQ(sim_board_controller_type(b), 0x1109u);
    EXPECT_EQ(sim_board_destroy(b), 0);
    EXPECT_EQ(access(dir.path().c_str(), F_OK), -1);
}

TEST(SimBoardCreate, KindNames)
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

    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        EXPECT_STREQ(sim_board_kind_name(row.kind), row.name);
        ASSERT_EQ(sim_board_kind_from_name(row.name, &k), 0);
        EXPECT_EQ(k, row.kind);
    }
    EXPECT_EQ(sim_board_kind_from_name("base", &k), -1);
    EXPECT_EQ(sim_board_kind_name(SIM_BOARD_KIND_COUNT), nullptr);
}

/* ---- the sandbox ---- */

TEST_P(SimSandboxTwoKinds, SandboxView)
{
    EXPECT_EQ(run_sh(b_, nullptr,
                     "ls -A /sys/bus/pci/devices > /run/orvel/ls.out && "
                     "cat /tmp/idprom_cache.conf > /run/orvel/idprom.out && "
                     "echo log > /opt/orvel/platform/logs/x && "
                     "echo tmp > /tmp/t"),
              0);
    expect_file_text(join_path(root_, "run/ls.out"), SIM_BOARD_SLOT "\n");
    expect_file_text(join_path(root_, "run/idprom.out"), kc_->idprom);
    expect_file_text(join_path(root_, "opt/platform/logs/x"), "log\n");
    expect_file_text(join_path(root_, "tmp/t"), "tmp\n");
}

/* The syslog socket of a test: bound at /dev/log in the sandbox, closed
 * and removed at scope end. */
class SyslogListener {
public:
    explicit SyslogListener(const std::string &socket_path)
        : path_(socket_path), fd_(sim_syslog_open(path_.c_str()))
    {
        opts_.syslog_socket = path_.c_str();
    }
    SyslogListener(const SyslogListener &) = delete;
    SyslogListener &operator=(const SyslogListener &) = delete;
    ~SyslogListener()
    {
        if (fd_ >= 0)
            sim_syslog_close(fd_, path_.c_str());
    }

    int fd() const { return fd_; }
    const sim_sandbox_opts *opts() const { return &opts_; }

private:
    std::string path_;
    int fd_;
    sim_sandbox_opts opts_{};
};

TEST_F(SimSandbox, SandboxDev)
{
    SyslogListener log(join_path(root_, "log.sock"));

    ASSERT_GE(log.fd(), 0) << strerror(errno);
    EXPECT_EQ(run_sh(b_, log.opts(),
                     "echo x > /dev/null && "
                     "test \"$(head -c 5 /dev/zero | wc -c)\" = 5 && "
                     "test -c /dev/urandom && test -c /dev/random && "
                     "test -c /dev/full && test -S /dev/log && "
                     "test -d /dev/pts && test -L /dev/ptmx && "
                     "test ! -e /dev/kmsg"),
              0);
}

TEST_F(SimSandbox, SpawnExecFailure)
{
    EXPECT_EQ(run_argv(b_, nullptr, {"/nonexistent/program"}), 127);
}

/* The sandbox shows the board's own /tmp: a program that lives under the
 * host's /tmp (a build there) must still run. */
TEST_F(SimSandbox, SpawnProgramHiddenBySandboxTmp)
{
    TempDir dir("/tmp/simboard_prog_XXXXXX");

    ASSERT_TRUE(dir.ok());
    const std::string program = dir / "sh";
    ASSERT_EQ(symlink("/bin/sh", program.c_str()), 0);
    EXPECT_EQ(run_argv(b_, nullptr, {program, "-c", "exit 7"}), 7);
}

TEST_P(SimSandboxTwoKinds, SetpciCommand)
{
    uint16_t cmd;

    EXPECT_EQ(run_sh(b_, nullptr, "setpci -d 1c7a:1d9 COMMAND=0x2 2>/dev/null"),
              0);
    ASSERT_EQ(sim_board_config_read16(b_, 4, &cmd), 0);
    EXPECT_EQ(cmd, kc_->kind == SIM_BOARD_LHX ? 0x0002 : 0x0000);
}

TEST_P(SimSandboxTwoKinds, Lspci)
{
    EXPECT_EQ(run_sh(b_, nullptr, "lspci -n > /tmp/lspci.out"), 0);
    expect_file_text(join_path(root_, "tmp/lspci.out"),
                     format_text("03:00.0 0580: 1c7a:%04x\n", kc_->device));
}

TEST_P(SimSandboxTwoKinds, LspciRegion)
{
    EXPECT_EQ(
        run_sh(b_, nullptr,
               "lspci -vv -s 03:00.0 2>/dev/null | grep Region > /tmp/r.out"),
        0);
    expect_file_text(join_path(root_, "tmp/r.out"),
                     format_text("\tRegion %u: Memory at %x (32-bit, "
                                 "non-prefetchable) [disabled] [size=%zuK]\n",
                                 kc_->bar, kc_->bar_addr, kc_->size / 1024));
}

enum ProbeResult {
    PROBE_MAPPED,
    PROBE_INIT_FAILED = 10,
    PROBE_NOT_FOUND,
    PROBE_PROBE_FAILED,
    PROBE_BAD_REGION,
    PROBE_MAP_FAILED,
    PROBE_BAD_REVISION,
    PROBE_NO_WRITE_SEEN,
};

/* Discovery as the library does it, with the real libpciaccess. */
int map_bar(const KindCase &kc, volatile uint32_t **win)
{
    struct pci_id_match match = {
        .vendor_id = 0x1c7a,
        .device_id = kc.device,
        .subvendor_id = PCI_MATCH_ANY,
        .subdevice_id =
            kc.kind == SIM_BOARD_LHX ? PCI_MATCH_ANY : kc.subsys_device,
        .device_class = 0,
        .device_class_mask = 0,
        .match_data = 0,
    };
    struct pci_device_iterator *it;
    struct pci_device *dev;
    void *p = nullptr;

    if (pci_system_init() != 0)
        return PROBE_INIT_FAILED;
    it = pci_id_match_iterator_create(&match);
    dev = it ? pci_device_next(it) : nullptr;
    if (!dev)
        return PROBE_NOT_FOUND;
    if (pci_device_probe(dev) != 0)
        return PROBE_PROBE_FAILED;
    if (dev->regions[kc.bar].base_addr != kc.bar_addr ||
        dev->regions[kc.bar].size != kc.size)
        return PROBE_BAD_REGION;
    if (pci_device_map_range(dev, dev->regions[kc.bar].base_addr,
                             dev->regions[kc.bar].size,
                             PCI_DEV_MAP_FLAG_WRITABLE, &p) != 0)
        return PROBE_MAP_FAILED;
    *win = static_cast<volatile uint32_t *>(p);
    return PROBE_MAPPED;
}

int pciaccess_probe(const KindCase &kc)
{
    volatile uint32_t *win;
    int rc = map_bar(kc, &win);

    if (rc != PROBE_MAPPED)
        return rc;
    if (win[0] != 0x00010203)
        return PROBE_BAD_REVISION;
    win[0xFC / 4] = 0xA5A50001;
    return PROBE_MAPPED;
}

TEST_P(SimSandboxEachKind, PciaccessMap)
{
    uint32_t v;

    EXPECT_EQ(run_fn(b_, nullptr, [&] { return pciaccess_probe(*kc_); }),
              PROBE_MAPPED);
    ASSERT_EQ(sim_board_read(b_, 0xFC, &v), 0);
    EXPECT_EQ(v, 0xA5A50001u);
}

/* Both sides see the other's writes at once, as with the real BAR. */
int pciaccess_live(const KindCase &kc)
{
    volatile uint32_t *win;
    int rc = map_bar(kc, &win);

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

TEST_F(SimSandboxLhx, PciaccessLive)
{
    uint32_t v = 0;
    int status = 0;
    pid_t pid = fork();

    ASSERT_GE(pid, 0) << strerror(errno);
    if (pid == 0) {
        if (sim_board_enter(b_, nullptr) < 0)
            _exit(126);
        _exit(pciaccess_live(*kc_));
    }
    ChildGuard child(pid);
    for (int i = 0; i < LIVE_POLLS && v != 1; i++) {
        ASSERT_EQ(sim_board_read(b_, 0xFC, &v), 0);
        usleep(LIVE_POLL_US);
    }
    ASSERT_EQ(v, 1u);
    ASSERT_EQ(sim_board_write(b_, 0x100, 0xC0FFEE), 0);
    ASSERT_EQ(child.wait(CHILD_TIMEOUT_MS, &status), 0);
    EXPECT_EQ(exit_code(status), PROBE_MAPPED);
}

TEST_P(SimSandboxTwoKinds, BreakWindow)
{
    uint32_t v;

    ASSERT_EQ(sim_board_break_window(b_), 0);
    EXPECT_EQ(access(path(SIM_PATH_WINDOW).c_str(), F_OK), -1);
    EXPECT_EQ(run_fn(b_, nullptr, [&] { return pciaccess_probe(*kc_); }),
              PROBE_MAP_FAILED);
    ASSERT_EQ(sim_board_read(b_, 0, &v), 0);
    EXPECT_EQ(v, 0x00010203u);
    EXPECT_EQ(sim_board_break_window(b_), 0);
}

TEST_F(SimSandbox, WaitTimeout)
{
    Argv argv{"sleep", "100"};
    int status = 0;
    ChildGuard child(sim_board_spawn(b_, nullptr, argv.get()));
    const pid_t pid = child.get();

    ASSERT_GT(pid, 0) << sim_board_last_error();
    const auto t0 = std::chrono::steady_clock::now();
    errno = 0;
    EXPECT_EQ(child.wait(200, &status), -1);
    EXPECT_EQ(errno, ETIMEDOUT);
    const long ms = elapsed_ms(t0);
    EXPECT_TRUE(WIFSIGNALED(status));
    EXPECT_EQ(WTERMSIG(status), SIGKILL);
    EXPECT_LT(ms, 3000);
    EXPECT_EQ(waitpid(pid, nullptr, WNOHANG), -1);
    EXPECT_EQ(errno, ECHILD);
}

/* ---- syslog ---- */

TEST_F(SimSandbox, SyslogLogger)
{
    SyslogListener log(join_path(root_, "log.sock"));
    sim_syslog_msg m;

    ASSERT_GE(log.fd(), 0) << strerror(errno);
    ASSERT_EQ(run_argv(b_, log.opts(),
                       {"logger", "-t", "Pellin Manager", "-p", "daemon.crit",
                        "hello world"}),
              0);
    ASSERT_EQ(sim_syslog_next(log.fd(), SYSLOG_TIMEOUT_MS, &m), 0);
    EXPECT_EQ(m.facility, 3);
    EXPECT_EQ(m.severity, 2);
    EXPECT_STREQ(m.ident, "Pellin Manager");
    EXPECT_EQ(m.pid, 0);
    EXPECT_STREQ(m.text, "hello world");
    errno = 0;
    EXPECT_EQ(sim_syslog_next(log.fd(), 50, &m), -1);
    EXPECT_EQ(errno, ETIMEDOUT);
}

int glibc_syslog()
{
    openlog("larks-hollow-fpga", 0, LOG_DAEMON);
    syslog(LOG_INFO, "%s - Found %d traffic pipes", "Informational", 2);
    closelog();
    openlog("Pellin Manager", LOG_PID, LOG_DAEMON);
    syslog(LOG_ERR, "Error initializing IPC for %s\n", "pellin_mgr");
    closelog();
    return 0;
}

TEST_F(SimSandbox, SyslogGlibc)
{
    SyslogListener log(join_path(root_, "log.sock"));
    sim_syslog_msg m;
    pid_t child = 0;

    ASSERT_GE(log.fd(), 0) << strerror(errno);
    ASSERT_EQ(run_fn(b_, log.opts(), glibc_syslog, &child), 0);
    ASSERT_EQ(sim_syslog_next(log.fd(), SYSLOG_TIMEOUT_MS, &m), 0);
    EXPECT_EQ(m.facility, 3);
    EXPECT_EQ(m.severity, 6);
    EXPECT_STREQ(m.ident, "larks-hollow-fpga");
    EXPECT_EQ(m.pid, 0);
    EXPECT_STREQ(m.text, "Informational - Found 2 traffic pipes");
    ASSERT_EQ(sim_syslog_next(log.fd(), SYSLOG_TIMEOUT_MS, &m), 0);
    EXPECT_EQ(m.facility, 3);
    EXPECT_EQ(m.severity, 3);
    EXPECT_STREQ(m.ident, "Pellin Manager");
    EXPECT_EQ(m.pid, child);
    EXPECT_STREQ(m.text, "Error initializing IPC for pellin_mgr");
}

TEST(SimSyslog, SyslogParse)
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
    sim_syslog_msg m;

    for (const auto &row : rows) {
        SCOPED_TRACE(row.line);
        EXPECT_EQ(sim_syslog_parse(row.line, &m), row.rc);
        EXPECT_STREQ(m.raw, row.line);
        if (row.rc < 0)
            continue;
        EXPECT_EQ(m.facility, row.facility);
        EXPECT_EQ(m.severity, row.severity);
        EXPECT_STREQ(m.ident, row.ident);
        EXPECT_EQ(m.pid, row.pid);
        EXPECT_STREQ(m.text, row.text);
    }
}

TEST(SimSyslog, SyslogTruncates)
{
    std::string line = "<30>Mar 15 10:00:00 ";
    sim_syslog_msg m;

    line += std::string(100, 'i') + ": ";
    line += std::string(3000 - 1 - line.size(), 't');
    ASSERT_EQ(sim_syslog_parse(line.c_str(), &m), 0);
    EXPECT_EQ(strlen(m.ident), SIM_SYSLOG_IDENT_MAX - 1u);
    EXPECT_EQ(strlen(m.raw), SIM_SYSLOG_RAW_MAX - 1u);
    EXPECT_EQ(strlen(m.text), SIM_SYSLOG_RAW_MAX - 1u - (20 + 100 + 2));
}

/* ---- without CAP_SYS_ADMIN: the user-namespace path ---- */

int chown_entry(const char *path, const struct stat *, int, struct FTW *)
{
    return lchown(path, NOBODY, NOBODY);
}

/* Drops root for nobody, keeping /proc/self/uid_map writable. */
bool become_nobody()
{
    if (setgroups(0, nullptr) < 0 || setresgid(NOBODY, NOBODY, NOBODY) < 0 ||
        setresuid(NOBODY, NOBODY, NOBODY) < 0)
        return false;
    /* Dropping root made us undumpable, which hides /proc/self/uid_map. */
    return prctl(PR_SET_DUMPABLE, 1) == 0;
}

/* Says on out_fd why nobody could not enter. */
int unprivileged_view(const sim_board *b, const KindCase &kc,
                      const sim_sandbox_opts *opts, int out_fd)
{
    if (!become_nobody())
        return 20;
    if (sim_board_enter(b, opts) < 0) {
        dprintf(out_fd, "%s", sim_board_last_error());
        return strstr(sim_board_last_error(), "user and mount") ? EXIT_SKIP
                                                                : 21;
    }
    if (getuid() != 0)
        return 22;
    if (read_text("/sys/bus/pci/devices/" SIM_BOARD_SLOT "/vendor") !=
        "0x1c7a\n")
        return 23;
    if (read_text("/tmp/idprom_cache.conf") != kc.idprom)
        return 24;
    if (mkdir("/opt/orvel/platform/logs/u", 0755) < 0 ||
        mkdir("/run/orvel/ipc", 0755) < 0)
        return 25;
    openlog("unprivileged", 0, LOG_DAEMON);
    syslog(LOG_NOTICE, "in a user namespace");
    closelog();
    return 0;
}

TEST_F(SimSandbox, UnprivilegedEnter)
{
    std::string why;

    if (geteuid() != 0)
        GTEST_SKIP() << "needs root to become nobody; as an ordinary user "
                        "every other case already takes this path";
    SyslogListener log(join_path(root_, "log.sock"));
    sim_syslog_msg m;

    ASSERT_GE(log.fd(), 0) << strerror(errno);
    ASSERT_EQ(nftw(dir_.path().c_str(), chown_entry, 16, FTW_PHYS), 0);
    const int code = run_child(
        [&](int out_fd) {
            return unprivileged_view(b_, *kc_, log.opts(), out_fd);
        },
        &why);
    if (code == EXIT_SKIP)
        GTEST_SKIP() << "nobody cannot have a user namespace here: " << why;
    ASSERT_EQ(code, 0) << why;
    EXPECT_EQ(access(join_path(root_, "opt/platform/logs/u").c_str(), F_OK), 0);
    EXPECT_EQ(access(join_path(root_, "run/ipc").c_str(), F_OK), 0);
    ASSERT_EQ(sim_syslog_next(log.fd(), SYSLOG_TIMEOUT_MS, &m), 0);
    EXPECT_EQ(m.severity, 5);
    EXPECT_STREQ(m.ident, "unprivileged");
    EXPECT_STREQ(m.text, "in a user namespace");
}

/* ---- whether the sandbox can be entered, and saying so at once ---- */

/* Whether a child can enter b's sandbox, the probe aside. */
bool child_enters(const sim_board *b)
{
    int status = 0;
    pid_t pid = fork();

    if (pid < 0) {
        ADD_FAILURE() << "fork: " << strerror(errno);
        return false;
    }
    if (pid == 0)
        _exit(sim_board_enter(b, nullptr) == 0 ? 0 : 1);
    ChildGuard child(pid);
    if (child.wait(CHILD_TIMEOUT_MS, &status) != 0) {
        ADD_FAILURE() << "wait: " << strerror(errno);
        return false;
    }
    EXPECT_TRUE(WIFEXITED(status)) << format_text("status 0x%x", status);
    return exit_code(status) == 0;
}

/* A board made by the test itself, for the probe's cases. */
class SimSandboxProbe : public BoardTest {
protected:
    void SetUp() override { start(case_base2, false); }
};

const char *const ADVICE =
    "run as root, or allow unprivileged user namespaces (sysctl "
    "kernel.unprivileged_userns_clone=1 / user.max_user_namespaces), or in a "
    "container grant CAP_SYS_ADMIN";

TEST_F(SimSandboxProbe, AvailableToUnconfinedRoot)
{
    const std::string refusal = what_may_refuse_namespaces();
    std::string why = "untouched";

    if (!refusal.empty())
        GTEST_SKIP() << "needs root with CAP_SYS_ADMIN, unconfined; here "
                     << refusal;
    EXPECT_TRUE(sim_sandbox_available(&why));
    EXPECT_EQ(why, "untouched");
    EXPECT_TRUE(sim_sandbox_available(nullptr));
}

/* Here, whoever runs it: the probe says what entering would do. */
TEST_F(SimSandboxProbe, AgreesWithEnter)
{
    std::string why;
    const bool available = sim_sandbox_available(&why);

    EXPECT_EQ(available, child_enters(b_)) << why;
    if (available) {
        EXPECT_EQ(why, "");
    } else {
        EXPECT_EQ(why.rfind("the sandbox cannot be entered here: ", 0), 0u)
            << why;
        EXPECT_NE(why.find(ADVICE), std::string::npos) << why;
    }
}

/* The user-namespace path: nobody gets the answer entering would give. */
TEST_F(SimSandboxProbe, AsNobodyAgreesWithEnter)
{
    std::string answer;

    if (geteuid() != 0)
        GTEST_SKIP() << "needs root to become nobody";
    ASSERT_EQ(nftw(dir_.path().c_str(), chown_entry, 16, FTW_PHYS), 0);
    ASSERT_EQ(run_child(
                  [&](int out_fd) {
                      std::string why;

                      if (!become_nobody())
                          return 2;
                      const bool available = sim_sandbox_available(&why);
                      dprintf(out_fd, "probe %d, enter %d: %s",
                              (int)available, (int)child_enters(b_),
                              why.c_str());
                      return 0;
                  },
                  &answer),
              0);
    ASSERT_GE(answer.size(), 16u) << answer;
    EXPECT_EQ(answer[6], answer[15]) << answer;
}

/* Makes unshare(2) fail with EPERM in this process and its children, as
 * where namespaces are not allowed (a container without CAP_SYS_ADMIN).
 * False on an architecture this filter does not know. */
bool forbid_unshare()
{
#if defined(__x86_64__)
    constexpr uint32_t arch = AUDIT_ARCH_X86_64;
#elif defined(__aarch64__)
    constexpr uint32_t arch = AUDIT_ARCH_AARCH64;
#else
    constexpr uint32_t arch = 0;
    return false;
#endif
    struct sock_filter filter[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(struct seccomp_data, arch)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, arch, 1, 0),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(struct seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, __NR_unshare, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | EPERM),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    };
    struct sock_fprog program = {
        .len = (unsigned short)(sizeof(filter) / sizeof(filter[0])),
        .filter = filter,
    };

    return prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
           prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) == 0;
}

/* What a process without namespaces saw, sent back from the child. */
struct NoNamespaceView {
    int filtered;
    int available;
    char why[1024];
    pid_t spawned;
    int spawn_errno;
    char spawn_error[512];
    long spawn_ms;
    int children_left;
};

NoNamespaceView view_without_namespaces(const sim_board *b)
{
    NoNamespaceView v{};
    std::string why;
    Argv argv{"/bin/true"};

    v.filtered = forbid_unshare();
    if (!v.filtered)
        return v;
    v.available = sim_sandbox_available(&why);
    snprintf(v.why, sizeof(v.why), "%s", why.c_str());
    const auto t0 = std::chrono::steady_clock::now();
    v.spawned = sim_board_spawn(b, nullptr, argv.get());
    v.spawn_errno = errno;
    v.spawn_ms = elapsed_ms(t0);
    snprintf(v.spawn_error, sizeof(v.spawn_error), "%s",
             sim_board_last_error());
    if (v.spawned > 0)
        sim_wait(v.spawned, CHILD_TIMEOUT_MS, nullptr);
    v.children_left = !(waitpid(-1, nullptr, WNOHANG) < 0 && errno == ECHILD);
    return v;
}

/* Where no namespace may be made: the probe says so and what to do, and a
 * spawn fails at once, its child reaped. */
TEST_F(SimSandboxProbe, WithoutNamespacesSaysWhy)
{
    NoNamespaceView v{};
    std::string bytes;

    ASSERT_EQ(run_child(
                  [&](int out_fd) {
                      const NoNamespaceView seen = view_without_namespaces(b_);

                      return write(out_fd, &seen, sizeof(seen)) ==
                                     (ssize_t)sizeof(seen)
                                 ? 0
                                 : 3;
                  },
                  &bytes),
              0);
    ASSERT_EQ(bytes.size(), sizeof(v));
    memcpy(&v, bytes.data(), sizeof(v));
    if (!v.filtered)
        GTEST_SKIP() << "cannot install a seccomp filter here";
    EXPECT_EQ(v.available, 0);
    EXPECT_EQ(std::string(v.why),
              std::string("the sandbox cannot be entered here: unshare (user "
                          "and mount namespace): Operation not permitted; ") +
                  ADVICE);
    EXPECT_EQ(v.spawned, -1);
    EXPECT_EQ(v.spawn_errno, EPERM);
    EXPECT_STREQ(v.spawn_error,
                 "unshare (user and mount namespace): Operation not permitted");
    EXPECT_LT(v.spawn_ms, SPAWN_FAILURE_MS);
    EXPECT_EQ(v.children_left, 0);
}

/* No child of this process is left, running or unreaped. */
void expect_no_children()
{
    errno = 0;
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
    EXPECT_EQ(errno, ECHILD);
}

/* A child that cannot bind the syslog socket fails in the sandbox: the
 * spawn says so at once, the child already reaped. */
TEST_F(SimSandbox, SpawnReportsSandboxFailureAtOnce)
{
    const sim_sandbox_opts opts = {"/nonexistent/log.sock"};
    Argv argv{"/bin/true"};

    const auto t0 = std::chrono::steady_clock::now();
    errno = 0;
    EXPECT_EQ(sim_board_spawn(b_, &opts, argv.get()), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_LT(elapsed_ms(t0), SPAWN_FAILURE_MS);
    EXPECT_STREQ(sim_board_last_error(),
                 "open /nonexistent/log.sock: No such file or directory");
    expect_no_children();
}

/* A board whose directories are gone cannot be shown. */
TEST_F(SimSandbox, SpawnReportsUnusableBoardAtOnce)
{
    const std::string run = path(SIM_PATH_RUN);
    Argv argv{"/bin/true"};

    ASSERT_EQ(rmdir(run.c_str()), 0);
    const auto t0 = std::chrono::steady_clock::now();
    errno = 0;
    EXPECT_EQ(sim_board_spawn(b_, nullptr, argv.get()), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_LT(elapsed_ms(t0), SPAWN_FAILURE_MS);
    EXPECT_EQ(std::string(sim_board_last_error()),
              "open " + run + ": No such file or directory");
    expect_no_children();
}

/* In a /tmp of its own, so that nothing else's files count: spawning,
 * whatever its outcome, leaves nothing in /tmp, and the board and the
 * test's directories go with their owners. */
class SimSpawnCleanup : public PrivateTmpTest {};

TEST_F(SimSpawnCleanup, NoTempDirLeftAfterSpawns)
{
    std::string why;

    if (!sim_sandbox_available(&why))
        GTEST_SKIP() << why;
    ASSERT_EQ(dir_entries("/tmp"), std::set<std::string>{});
    {
        TempDir dir;
        TempDir prog("/tmp/simboard_prog_XXXXXX");
        sim_board *created = nullptr;
        int status = 0;

        ASSERT_TRUE(dir.ok() && prog.ok());
        ASSERT_EQ(sim_board_create((dir / "board").c_str(), SIM_BOARD_BASE2,
                                   &created),
                  0);
        BoardPtr board(created);
        const sim_board *b = board.get();
        const std::string sh = prog / "sh";
        ASSERT_EQ(symlink("/bin/sh", sh.c_str()), 0);
        const std::set<std::string> before = dir_entries("/tmp");

        /* Success. */
        EXPECT_EQ(run_argv(b, nullptr, {sh, "-c", "exit 0"}), 0);
        EXPECT_EQ(dir_entries("/tmp"), before);
        /* The sandbox cannot be entered. */
        const sim_sandbox_opts bad = {"/nonexistent/log.sock"};
        Argv argv{sh, "-c", "exit 0"};
        EXPECT_EQ(sim_board_spawn(b, &bad, argv.get()), -1);
        EXPECT_EQ(dir_entries("/tmp"), before);
        /* The program cannot be run. */
        EXPECT_EQ(run_argv(b, nullptr, {"/nonexistent/program"}), 127);
        EXPECT_EQ(dir_entries("/tmp"), before);
        /* Killed. */
        Argv sleeper{"sleep", "100"};
        ChildGuard child(sim_board_spawn(b, nullptr, sleeper.get()));
        EXPECT_GT(child.get(), 0) << sim_board_last_error();
        if (child.get() > 0) {
            EXPECT_EQ(child.wait(100, &status), -1);
            EXPECT_TRUE(WIFSIGNALED(status));
        }
        EXPECT_EQ(dir_entries("/tmp"), before);
        EXPECT_EQ(sim_board_destroy(board.release()), 0);
    }
    EXPECT_EQ(dir_entries("/tmp"), std::set<std::string>{});
    expect_no_children();
}

} // namespace
