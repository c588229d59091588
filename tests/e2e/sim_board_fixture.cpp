#include "sim_board_fixture.hpp"

#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>
#include <utility>

namespace {

constexpr int reap_timeout_ms = 10000;

std::string errno_text(int error)
{
    return std::strerror(error);
}

} // namespace

/* BoardProcess */

BoardProcess::~BoardProcess()
{
    kill_and_reap();
}

BoardProcess::BoardProcess(BoardProcess &&other) noexcept
    : pid_(std::exchange(other.pid_, 0))
{
}

BoardProcess &BoardProcess::operator=(BoardProcess &&other) noexcept
{
    if (this != &other) {
        kill_and_reap();
        pid_ = std::exchange(other.pid_, 0);
    }
    return *this;
}

void BoardProcess::kill_and_reap()
{
    if (pid_ <= 0)
        return;
    kill(pid_, SIGKILL);
    sim_wait(pid_, reap_timeout_ms, nullptr);
    pid_ = 0;
}

std::optional<int> BoardProcess::wait(int timeout_ms)
{
    int status = 0;

    if (pid_ <= 0)
        return std::nullopt;
    const int rc = sim_wait(pid_, timeout_ms, &status);
    pid_ = 0; /* reaped, or killed and reaped */
    if (rc != 0)
        return std::nullopt;
    return status;
}

std::optional<int> BoardProcess::stop(int signal, int timeout_ms)
{
    if (pid_ <= 0)
        return std::nullopt;
    kill(pid_, signal);
    return wait(timeout_ms);
}

std::optional<int> BoardProcess::ended()
{
    int status = 0;

    if (pid_ <= 0)
        return std::nullopt;
    pid_t r;
    do
        r = waitpid(pid_, &status, WNOHANG);
    while (r < 0 && errno == EINTR);
    if (r != pid_)
        return std::nullopt;
    pid_ = 0;
    return status;
}

/* SimBoard */

void SimBoard::create(const char *prefix, enum sim_board_kind kind)
{
    reset();
    std::string tmpl = std::string("/tmp/") + prefix + "_XXXXXX";
    ASSERT_NE(mkdtemp(tmpl.data()), nullptr)
        << "mkdtemp " << tmpl << ": " << errno_text(errno);
    parent_ = tmpl;
    const std::string root = parent_ + "/board";
    ASSERT_EQ(sim_board_create(root.c_str(), kind, &board_), 0)
        << "board " << root << ": " << sim_board_last_error();
}

void SimBoard::reset()
{
    if (board_ != nullptr)
        sim_board_destroy(board_);
    board_ = nullptr;
    if (!parent_.empty()) {
        std::error_code error;
        std::filesystem::remove_all(parent_, error);
    }
    parent_.clear();
}

std::string SimBoard::path(sim_board_path_id id) const
{
    return sim_board_path(board_, id);
}

std::string SimBoard::log_file(const char *name) const
{
    return path(SIM_PATH_LOGS) + "/" + name;
}

std::optional<uint32_t> SimBoard::read(uint32_t offset) const
{
    uint32_t value = 0;

    if (sim_board_read(board_, offset, &value) != 0)
        return std::nullopt;
    return value;
}

::testing::AssertionResult SimBoard::write(uint32_t offset,
                                           uint32_t value) const
{
    if (sim_board_write(board_, offset, value) != 0)
        return ::testing::AssertionFailure()
               << "window write at 0x" << std::hex << offset << ": "
               << errno_text(errno);
    return ::testing::AssertionSuccess();
}

::testing::AssertionResult SimBoard::set_bit(uint32_t offset,
                                             unsigned bit) const
{
    const std::optional<uint32_t> value = read(offset);

    if (!value)
        return ::testing::AssertionFailure()
               << "window read at 0x" << std::hex << offset << ": "
               << errno_text(errno);
    return write(offset, *value | 1u << bit);
}

std::optional<uint16_t> SimBoard::config16(uint32_t offset) const
{
    uint16_t value = 0;

    if (sim_board_config_read16(board_, offset, &value) != 0)
        return std::nullopt;
    return value;
}

::testing::AssertionResult SimBoard::spawn(
    const sim_sandbox_opts *opts, const std::vector<std::string> &argv,
    BoardProcess *out) const
{
    std::vector<char *> args;

    for (const std::string &arg : argv)
        args.push_back(const_cast<char *>(arg.c_str()));
    args.push_back(nullptr);
    const pid_t pid = sim_board_spawn(board_, opts, args.data());
    if (pid <= 0)
        return ::testing::AssertionFailure()
               << "spawn " << argv.at(0) << ": " << sim_board_last_error()
               << " (" << errno_text(errno) << ")";
    *out = BoardProcess(pid);
    return ::testing::AssertionSuccess();
}

/* SyslogListener */

::testing::AssertionResult SyslogListener::open(const std::string &path)
{
    close();
    fd_ = sim_syslog_open(path.c_str());
    if (fd_ < 0)
        return ::testing::AssertionFailure()
               << "syslog socket " << path << ": " << errno_text(errno);
    path_ = path;
    return ::testing::AssertionSuccess();
}

void SyslogListener::close()
{
    if (fd_ >= 0)
        sim_syslog_close(fd_, path_.c_str());
    fd_ = -1;
    path_.clear();
}

sim_sandbox_opts SyslogListener::sandbox_opts() const
{
    sim_sandbox_opts opts{};

    opts.syslog_socket = fd_ >= 0 ? path_.c_str() : nullptr;
    return opts;
}

std::optional<sim_syslog_msg> SyslogListener::next(int timeout_ms) const
{
    sim_syslog_msg message{};

    if (sim_syslog_next(fd_, timeout_ms, &message) != 0)
        return std::nullopt;
    return message;
}

/* Files */

std::string text_of(const std::string &path)
{
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;

    if (!in)
        return "";
    text << in.rdbuf();
    return text.str();
}

int count_in_string(const std::string &content, const std::string &text)
{
    int count = 0;

    if (text.empty())
        return 0;
    for (size_t at = content.find(text); at != std::string::npos;
         at = content.find(text, at + text.size()))
        count++;
    return count;
}

int count_in_file(const std::string &path, const std::string &text)
{
    return count_in_string(text_of(path), text);
}

::testing::AssertionResult text_appears(const std::string &path,
                                        const std::string &text,
                                        int timeout_ms, long long *took)
{
    using namespace std::chrono;
    const auto start = steady_clock::now();
    const auto elapsed = [&start] {
        return duration_cast<milliseconds>(steady_clock::now() - start)
            .count();
    };

    while (text_of(path).find(text) == std::string::npos) {
        if (elapsed() > timeout_ms)
            return ::testing::AssertionFailure()
                   << "\"" << text << "\" not in " << path << " after "
                   << timeout_ms << " ms";
        std::this_thread::sleep_for(milliseconds(10));
    }
    if (took != nullptr)
        *took = elapsed();
    return ::testing::AssertionSuccess();
}

::testing::AssertionResult in_order(const std::string &content,
                                    const std::vector<std::string> &texts)
{
    size_t at = 0;

    for (const std::string &text : texts) {
        at = content.find(text, at);
        if (at == std::string::npos)
            return ::testing::AssertionFailure()
                   << "no \"" << text << "\" after the earlier ones";
    }
    return ::testing::AssertionSuccess();
}

/* The sandbox check */

namespace {

struct SandboxCheck {
    bool ready = true;
    std::string why;
};

/* Enters the sandbox of a throw-away board in a child, which sends back
 * what failed. A board that cannot be made is left for the case to
 * report. */
SandboxCheck check_sandbox()
{
    SandboxCheck check;
    char parent[] = "/tmp/lh_sandbox_XXXXXX";

    if (mkdtemp(parent) == nullptr)
        return check;
    const std::string root = std::string(parent) + "/board";
    sim_board *board = nullptr;
    int fds[2] = {-1, -1};

    if (sim_board_create(root.c_str(), SIM_BOARD_BASE2, &board) == 0 &&
        pipe2(fds, O_CLOEXEC) == 0) {
        const pid_t pid = fork();

        if (pid == 0) {
            ::close(fds[0]);
            if (sim_board_enter(board, nullptr) == 0)
                _exit(0);
            const char *error = sim_board_last_error();
            ssize_t written = ::write(fds[1], error, std::strlen(error));
            _exit(written >= 0 ? 1 : 2);
        }
        ::close(fds[1]);
        std::string error;
        char buffer[512];
        ssize_t n;
        while ((n = ::read(fds[0], buffer, sizeof(buffer))) > 0 ||
               (n < 0 && errno == EINTR))
            if (n > 0)
                error.append(buffer, static_cast<size_t>(n));
        ::close(fds[0]);
        int status = 0;
        pid_t r = -1;
        if (pid > 0) {
            do
                r = waitpid(pid, &status, 0);
            while (r < 0 && errno == EINTR);
        }
        if (r == pid && !(WIFEXITED(status) && WEXITSTATUS(status) == 0)) {
            if (error.empty())
                error = "the check ended with wait status " +
                        std::to_string(status);
            check.ready = false;
            check.why = "the simulated board's sandbox cannot be entered (" +
                        error +
                        "): run the tests as root, or allow unprivileged "
                        "user namespaces (sysctl user.max_user_namespaces, "
                        "kernel.unprivileged_userns_clone, "
                        "kernel.apparmor_restrict_unprivileged_userns)";
        }
    }
    if (board != nullptr)
        sim_board_destroy(board);
    std::error_code ignored;
    std::filesystem::remove_all(parent, ignored);
    return check;
}

} // namespace

bool sandbox_ready(std::string *why)
{
    static const SandboxCheck check = check_sandbox();

    if (!check.ready && why != nullptr)
        *why = check.why;
    return check.ready;
}
