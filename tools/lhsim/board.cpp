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

#include <climits>
#include <memory>

#include "lh_tables.hpp"
#include "lhsim.hpp"

namespace lhsim {

#define DEVICE_DIR     "sys/" SIM_BOARD_SLOT
#define IDPROM_FILE    "tmp/idprom_cache.conf"
#define RESOURCE_LINES 13

/* The places the stand-in board of Board::spawn takes. */
#define STANDIN_MOUNT "/tmp"
#define STANDIN_ROOT  "/tmp/board"

/* What sim_board_create writes for each kind (tools/sim/simboard.cpp);
 * the first row of a device id is its kind when the controller type is
 * none of these. */
constexpr Kind kKinds[] = {
    {SIM_BOARD_BASE2, 0x01d7, 0x1106, lhtables::kBaseImage, 2},
    {SIM_BOARD_BASE1, 0x01d7, 0x1109, lhtables::kBaseImage, 1},
    {SIM_BOARD_LHX, 0x01d9, 0x1126, lhtables::kLhxImage, 1},
};

/* A stdio file, closed when it goes. */
using File = std::unique_ptr<FILE, decltype(&fclose)>;

static File open_file(const std::string &root, const char *name)
{
    return File(fopen((root + "/" + name).c_str(), "re"), fclose);
}

/* The hex number that the sysfs file root/name holds. */
static bool read_hex(const std::string &root, const char *name,
                     unsigned *value)
{
    File file = open_file(root, name);

    return file && fscanf(file.get(), "%x", value) == 1;
}

static unsigned controller_type(const std::string &root)
{
    File file = open_file(root, IDPROM_FILE);
    char line[128];
    unsigned type = 0;

    while (file && fgets(line, sizeof(line), file.get()) != nullptr)
        if (sscanf(line, "CONTROLLER_TYPE=%u", &type) == 1)
            break;
    return type;
}

static const Kind *find_kind(const std::string &root)
{
    const Kind *found = nullptr;
    unsigned device_id;

    if (!read_hex(root, DEVICE_DIR "/device", &device_id))
        return nullptr;
    unsigned type = controller_type(root);
    for (const Kind &row : kKinds) {
        if (row.device_id != device_id)
            continue;
        if (row.controller_type == type)
            return &row;
        if (found == nullptr)
            found = &row;
    }
    return found;
}

const Kind &kind_of(KindId kind)
{
    for (const Kind &row : kKinds)
        if (row.kind == kind)
            return row;
    return kKinds[0];
}

KindId parse_kind(const std::string &name)
{
    KindId kind;

    if (sim_board_kind_from_name(name.c_str(), &kind) != 0)
        throw UsageError{};
    return kind;
}

/* The BAR is the one line of "resource" that has an end address. */
static bool find_bar(const std::string &root, unsigned *bar)
{
    File file = open_file(root, DEVICE_DIR "/resource");
    unsigned long long start, end, flags;

    for (unsigned i = 0; file && i < RESOURCE_LINES; i++) {
        if (fscanf(file.get(), "%llx %llx %llx", &start, &end, &flags) != 3)
            break;
        if (end != 0) {
            *bar = i;
            return true;
        }
    }
    return false;
}

bool Board::open_window()
{
    struct stat st;
    unsigned bar;

    if (!find_bar(root_, &bar))
        return false;
    window_ = root_ + format("/" DEVICE_DIR "/resource%u", bar);
    window_fd_ = open(window_.c_str(), O_RDWR | O_CLOEXEC);
    if (window_fd_ < 0 || fstat(window_fd_, &st) < 0 || !S_ISREG(st.st_mode) ||
        st.st_size < 4 || st.st_size > UINT32_MAX)
        return false;
    window_size_ = static_cast<uint32_t>(st.st_size);
    return true;
}

bool Board::exists(const std::string &dir)
{
    Board board;

    board.root_ = dir;
    return find_kind(dir) != nullptr && board.open_window();
}

Board::Board(const std::string &dir)
{
    struct stat st;
    char root[PATH_MAX];

    if (stat(dir.c_str(), &st) < 0 || !S_ISDIR(st.st_mode))
        throw Failure(Exit::failed, dir + ": no such directory");
    if (realpath(dir.c_str(), root) != nullptr) {
        root_ = root;
        kind_ = find_kind(root_);
    }
    if (kind_ == nullptr || !open_window()) {
        if (window_fd_ >= 0)
            close(window_fd_);
        throw Failure(Exit::failed, dir + ": not a simulated board");
    }
}

Board::~Board()
{
    if (window_fd_ >= 0)
        close(window_fd_);
}

static bool check_offset(uint32_t offset, uint32_t size)
{
    if (offset % 4 != 0 || offset > size - 4) {
        errno = EINVAL;
        return false;
    }
    return true;
}

/* Window words are little-endian, as the FPGA's. */
bool Board::read(uint32_t offset, uint32_t *value) const
{
    uint8_t bytes[4];

    if (!check_offset(offset, window_size_))
        return false;
    ssize_t n = pread(window_fd_, bytes, sizeof(bytes), offset);
    if (n != sizeof(bytes)) {
        errno = n < 0 ? errno : EIO;
        return false;
    }
    *value = uint32_t{bytes[0]} | uint32_t{bytes[1]} << 8 |
             uint32_t{bytes[2]} << 16 | uint32_t{bytes[3]} << 24;
    return true;
}

bool Board::write(uint32_t offset, uint32_t value) const
{
    const uint8_t bytes[4] = {
        static_cast<uint8_t>(value), static_cast<uint8_t>(value >> 8),
        static_cast<uint8_t>(value >> 16), static_cast<uint8_t>(value >> 24)};

    if (!check_offset(offset, window_size_))
        return false;
    ssize_t n = pwrite(window_fd_, bytes, sizeof(bytes), offset);
    if (n != sizeof(bytes)) {
        errno = n < 0 ? errno : EIO;
        return false;
    }
    return true;
}

bool Board::set_bit(uint32_t offset, unsigned bit, bool on) const
{
    uint32_t value;

    if (bit > 31 || !read(offset, &value))
        return false;
    return write(offset, on ? value | 1u << bit : value & ~(1u << bit));
}

bool Board::served() const
{
    struct sockaddr_un address = {};
    const std::string path = root_ + "/" LHSIM_SOCKET;

    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof(address.sun_path))
        return false;
    memcpy(address.sun_path, path.c_str(), path.size() + 1);
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return false;
    bool served = connect(fd, reinterpret_cast<sockaddr *>(&address),
                          sizeof(address)) == 0;
    close(fd);
    return served;
}

static int remove_entry(const char *path, const struct stat *, int,
                        struct FTW *)
{
    return ::remove(path) < 0 && errno != ENOENT ? -1 : 0;
}

bool Board::remove() const
{
    return nftw(root_.c_str(), remove_entry, 16,
                FTW_DEPTH | FTW_PHYS | FTW_MOUNT) == 0;
}

static int sandbox_failed(const char *what)
{
    dprintf(STDERR_FILENO, "lhsim: sandbox: %s: %s\n", what, strerror(errno));
    return -1;
}

/* simboard's sandbox takes only a board it created itself: the child
 * creates a stand-in on a tmpfs of its own mount namespace and binds the
 * board directory over it, so that the sandbox shows this board. */
static int enter_sandbox(const Board &board)
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
    fd = open(board.root().c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0)
        return sandbox_failed(board.root().c_str());
    if (mount("tmpfs", STANDIN_MOUNT, "tmpfs", 0, "mode=0700") < 0)
        return sandbox_failed("mount tmpfs on " STANDIN_MOUNT);
    if (sim_board_create(STANDIN_ROOT, board.kind().kind, &standin) < 0)
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

pid_t Board::spawn(char *const argv[]) const
{
    int program_fd;
    pid_t pid = fork();

    if (pid != 0)
        return pid;
    signal(SIGINT, SIG_DFL); /* lhsim run's stop handlers are not ours */
    signal(SIGTERM, SIG_DFL);
    /* A program named by a path may be hidden by the sandbox's mounts; an
     * inherited descriptor lets fexecve run a script too. */
    program_fd = strchr(argv[0], '/') != NULL ? open(argv[0], O_PATH) : -1;
    if (enter_sandbox(*this) < 0)
        _exit(127);
    if (program_fd >= 0)
        fexecve(program_fd, argv, ::environ);
    else
        execvp(argv[0], argv);
    dprintf(STDERR_FILENO, "lhsim: exec %s: %s\n", argv[0], strerror(errno));
    _exit(127);
}

} // namespace lhsim
