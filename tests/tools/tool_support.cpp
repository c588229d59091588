#include "tool_support.hpp"

#include <errno.h>
#include <fcntl.h>
#include <ftw.h>
#include <grp.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <memory>
#include <utility>

#include <gtest/gtest.h>

#include "file_watch.hpp"
#include "owned.hpp"
#include "plat_ipc.h"
#include "simboard.hpp"

namespace {

constexpr uint32_t kOpGetStats = 0xdb0006;
constexpr int kConnectTimeoutMs = 3000;
constexpr int kReplyTimeoutMs = 3000;
constexpr size_t kStatsHead = 16;

int remove_entry(const char *path, const struct stat *, int, struct FTW *)
{
    remove(path);
    return 0;
}

/* Runs `probe` in a child; true when it exits 0, else the text it wrote. */
bool in_child(bool (*probe)(uid_t, std::string *), uid_t arg,
              std::string *why)
{
    int fds[2];

    if (pipe(fds) != 0) {
        *why = std::string("pipe: ") + strerror(errno);
        return false;
    }
    fflush(NULL);
    pid_t pid = fork();
    if (pid < 0) {
        *why = std::string("fork: ") + strerror(errno);
        close(fds[0]);
        close(fds[1]);
        return false;
    }
    if (pid == 0) {
        std::string reason;
        bool ok = probe(arg, &reason);

        close(fds[0]);
        if (!ok && write(fds[1], reason.data(), reason.size()) < 0)
            _exit(2);
        _exit(ok ? 0 : 1);
    }
    close(fds[1]);
    std::string text;
    char buf[256];
    ssize_t n;
    while ((n = read(fds[0], buf, sizeof(buf))) > 0 ||
           (n < 0 && errno == EINTR))
        if (n > 0)
            text.append(buf, static_cast<size_t>(n));
    close(fds[0]);
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    if (WIFEXITED(status) && WEXITSTATUS(status) == 0)
        return true;
    *why = text.empty() ? "the probe did not finish" : text;
    return false;
}

bool probe_sandbox(uid_t, std::string *why)
{
    if (sim_enter_mount_namespace() == 0)
        return true;
    *why = sim_board_last_error();
    return false;
}

bool probe_user(uid_t uid, std::string *why)
{
    if (setgroups(0, NULL) != 0 || setgid(uid) != 0 || setuid(uid) != 0) {
        *why = strerror(errno);
        return false;
    }
    return true;
}

struct ClientClose {
    void operator()(struct ipc_client *c) const { ipc_client_close(c); }
};
using ClientPtr = std::unique_ptr<struct ipc_client, ClientClose>;

struct FreePayload {
    void operator()(void *p) const { free(p); }
};

} // namespace

TempDir::TempDir(const std::string &prefix)
{
    std::string pattern = prefix + "XXXXXX";

    if (mkdtemp(pattern.data()) != NULL)
        path_ = pattern;
}

TempDir::~TempDir()
{
    if (!path_.empty())
        remove_tree(path_);
}

void remove_tree(const std::string &path)
{
    nftw(path.c_str(), remove_entry, 16, FTW_DEPTH | FTW_PHYS | FTW_MOUNT);
}

ScopedEnv::ScopedEnv(const char *name, const std::string &value)
    : name_(name), was_set_(getenv(name) != NULL)
{
    if (was_set_)
        saved_ = getenv(name);
    setenv(name, value.c_str(), 1);
}

ScopedEnv::~ScopedEnv()
{
    if (was_set_)
        setenv(name_.c_str(), saved_.c_str(), 1);
    else
        unsetenv(name_.c_str());
}

Child::Child(Child &&other) noexcept
    : pid_(std::exchange(other.pid_, -1)),
      group_(std::exchange(other.group_, 0))
{
}

Child &Child::operator=(Child &&other) noexcept
{
    if (this != &other) {
        stop();
        pid_ = std::exchange(other.pid_, -1);
        group_ = std::exchange(other.group_, 0);
    }
    return *this;
}

bool Child::has_exited() const
{
    siginfo_t info = {};

    /* Looks without reaping: the exited child keeps its id until reap(). */
    return waitid(P_PID, static_cast<id_t>(pid_), &info,
                  WEXITED | WNOHANG | WNOWAIT) == 0 &&
           info.si_pid == pid_;
}

int Child::reap()
{
    int status = 0;

    /* The group first, while its leader (even a zombie) still holds the
     * id: whatever the child left running in it goes too. */
    if (group_ > 0)
        kill(-group_, SIGKILL);
    kill(pid_, SIGKILL);
    while (waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
    }
    pid_ = -1;
    group_ = 0;
    return status;
}

bool Child::wait(int timeout_ms, int *status)
{
    long long deadline = now_ms() + timeout_ms;
    useconds_t step = 1000;
    bool exited;

    if (pid_ <= 0)
        return false;
    while (!(exited = has_exited()) && now_ms() < deadline) {
        usleep(step);
        step = step < 32000 ? step * 2 : step;
    }
    int st = reap();
    if (status != NULL)
        *status = st;
    return exited;
}

bool Child::ended()
{
    if (pid_ > 0 && has_exited())
        reap();
    return pid_ <= 0;
}

int Child::signal(int sig) const
{
    return pid_ > 0 ? kill(pid_, sig) : -1;
}

void Child::stop()
{
    if (pid_ > 0)
        reap();
}

Child spawn_program(const std::string &program,
                    const std::vector<std::string> &argv,
                    const SpawnOptions &options)
{
    std::vector<char *> args;

    for (const std::string &arg : argv)
        args.push_back(const_cast<char *>(arg.c_str()));
    args.push_back(nullptr);
    fflush(NULL);
    pid_t pid = fork();
    if (pid < 0) {
        ADD_FAILURE() << "fork: " << strerror(errno);
        return Child();
    }
    if (pid == 0) {
        struct Stream {
            const std::string &path;
            int fd;
            int flags;
        } streams[] = {
            {options.in, STDIN_FILENO, O_RDONLY},
            {options.out, STDOUT_FILENO, O_WRONLY | O_CREAT | O_TRUNC},
            {options.err, STDERR_FILENO, O_WRONLY | O_CREAT | O_TRUNC},
        };

        if (options.own_group)
            setpgid(0, 0);
        for (const Stream &s : streams) {
            if (s.path.empty())
                continue;
            int fd = open(s.path.c_str(), s.flags, 0644);
            if (fd < 0 || dup2(fd, s.fd) < 0)
                _exit(126);
            close(fd);
        }
        /* Another user may not reach the caller's working directory. */
        if (options.uid != 0 &&
            (setgroups(0, NULL) != 0 || setgid(options.uid) != 0 ||
             setuid(options.uid) != 0 || chdir("/") != 0))
            _exit(126);
        execv(program.c_str(), args.data());
        _exit(127);
    }
    if (options.own_group)
        setpgid(pid, pid); /* whichever of the two runs first */
    return Child(pid, options.own_group);
}

bool sandbox_ready(std::string *why)
{
    static int state; /* 0 not tried, 1 ready, -1 not */
    static std::string reason;

    if (state == 0) {
        state = in_child(probe_sandbox, 0, &reason) ? 1 : -1;
        if (state < 0)
            reason = "needs a private mount namespace, which this user "
                     "cannot have here: " +
                     reason +
                     " (run as root, or allow unprivileged user namespaces)";
    }
    if (state < 0)
        *why = reason;
    return state > 0;
}

bool can_become(uid_t uid, std::string *why)
{
    if (geteuid() != 0) {
        *why = "needs root to run a program as uid " + std::to_string(uid);
        return false;
    }
    if (!in_child(probe_user, uid, why)) {
        *why = "cannot become uid " + std::to_string(uid) + " here: " + *why;
        return false;
    }
    return true;
}

std::vector<uint8_t> daemon_stats(const std::string &socket, uint32_t module,
                                  uint32_t pipe)
{
    uint32_t words[4] = {module, pipe, 0, 0};
    ipc_msg_t request = {};
    ipc_msg_t reply = {};
    struct ipc_client *raw = NULL;
    long long start = now_ms();

    request.op_id = kOpGetStats;
    request.msg_type = 1;
    request.payload_len = sizeof(words);
    request.payload = words;
    while (ipc_client_open(socket.c_str(), &raw) != 0) {
        if (now_ms() - start > kConnectTimeoutMs) {
            ADD_FAILURE() << "no daemon socket at " << socket;
            return {};
        }
        usleep(20000);
    }
    ClientPtr client(raw);
    int sent = ipc_client_send(client.get(), &request);
    EXPECT_EQ(sent, 0) << "request for module " << module << " pipe " << pipe;
    if (sent != 0)
        return {};
    int received = ipc_client_recv(client.get(), &reply, kReplyTimeoutMs);
    EXPECT_EQ(received, 0) << "reply for module " << module << " pipe "
                           << pipe;
    if (received != 0)
        return {};
    std::unique_ptr<void, FreePayload> payload(reply.payload);
    EXPECT_EQ(reply.op_id, kOpGetStats);
    EXPECT_GE(reply.payload_len, kStatsHead);
    if (reply.op_id != kOpGetStats || reply.payload_len < kStatsHead)
        return {};
    const uint8_t *bytes = static_cast<const uint8_t *>(reply.payload);
    return std::vector<uint8_t>(bytes + kStatsHead, bytes + reply.payload_len);
}

std::string text_of(const std::string &path)
{
    char *text = file_text(path.c_str());
    std::string copy(text);

    free(text);
    return copy;
}

std::string last_line_of(const std::string &path)
{
    std::string text = text_of(path);

    if (!text.empty() && text.back() == '\n')
        text.pop_back();
    return text.substr(text.rfind('\n') + 1);
}

void install_keeper_svc(struct sim_board *board, const std::string &keeper_svc)
{
    namespace fs = std::filesystem;
    const fs::path bin = fs::path(sim_board_path(board, SIM_PATH_TMP)) / "bin";
    std::error_code error;

    fs::create_directories(bin, error);
    if (!error)
        fs::copy_file(keeper_svc, bin / "keeper_svc",
                      fs::copy_options::overwrite_existing, error);
    if (error)
        ADD_FAILURE() << keeper_svc << " into " << bin << ": "
                      << error.message();
}

pid_t spawn_daemon(struct sim_board *board, const std::string &program,
                   const std::string &out_path)
{
    char *const argv[] = {const_cast<char *>(program.c_str()), NULL};
    pellin::UniqueFd out(
        open(out_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644));
    pellin::UniqueFd saved(dup(STDOUT_FILENO));
    pid_t pid;

    if (!out.valid() || !saved.valid()) {
        ADD_FAILURE() << out_path << ": " << strerror(errno);
        return -1;
    }
    fflush(stdout);
    dup2(out.get(), STDOUT_FILENO);
    {
        ScopedEnv path("PATH", "/tmp/bin:/usr/sbin:/usr/bin:/sbin:/bin");
        pid = sim_board_spawn(board, NULL, argv);
    }
    dup2(saved.get(), STDOUT_FILENO);
    if (pid <= 0) {
        ADD_FAILURE() << "daemon: " << sim_board_last_error();
        return -1;
    }
    return pid;
}
