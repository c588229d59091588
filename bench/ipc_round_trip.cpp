/* Request/reply round trips against the real daemon on a simulated base
 * board, and in the same run against the floor: a raw AF_UNIX server of
 * the same framing and reply sizes, one thread and one poll loop like the
 * daemon's IPC thread. Both run in the board's sandbox with a reader at
 * /dev/log that keeps up. For a register read the floor also makes the
 * daemon's two log writes: one syslog(3) call and one flushed file line.
 * Daemon and floor take turns several times, each going first every other
 * round; each figure, the ratios too, is the median over the rounds.
 * Prints one "name: value unit" a line. */
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <syslog.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <latch>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "plat_ipc.h"
#include "simboard.hpp"

namespace {

using Clock = std::chrono::steady_clock;

constexpr uint32_t read_register_op = 0xdb0002;
constexpr uint32_t get_stats_op = 0xdb0006;
constexpr uint32_t nic_module = 4;
constexpr uint32_t version_offset = 0x10;
constexpr uint32_t version_value = 0x24031510;
constexpr uint32_t stats_reply_size = 16 + 8360;
constexpr uint32_t register_reply_size = 8;
constexpr size_t header_size = sizeof(ipc_msg_t);
constexpr int rounds = 15;
constexpr auto turn_length = std::chrono::milliseconds(200);
constexpr int start_timeout_ms = 10000;
constexpr const char *floor_socket = "/run/orvel/floor.sock";
constexpr const char *floor_log = "/opt/orvel/platform/logs/floor.log";

/* A descriptor closed with the object. */
class Fd {
public:
    explicit Fd(int fd = -1) : fd_(fd) {}
    ~Fd()
    {
        if (fd_ >= 0)
            close(fd_);
    }
    Fd(Fd &&other) noexcept : fd_(other.fd_) { other.fd_ = -1; }
    Fd &operator=(Fd &&other) noexcept
    {
        std::swap(fd_, other.fd_);
        return *this;
    }
    Fd(const Fd &) = delete;
    int get() const { return fd_; }

private:
    int fd_;
};

/* The floor's log line, as the daemon's file sink writes it. */
void write_log_line(FILE *log, uint32_t value)
{
    const time_t now = time(nullptr);
    struct tm local {};
    char stamp[64] = "";

    if (localtime_r(&now, &local) != nullptr)
        strftime(stamp, sizeof(stamp), "%Y %b %d %X PELLIN MGR", &local);
    flockfile(log);
    fprintf(log, "%s: read register - addr 0x%08x, data 0x%08x\n", stamp,
            0xf0000000u | version_offset, value);
    fflush(log);
    funlockfile(log);
}

/* The floor's side of a connection: the bytes received so far and one
 * reply frame of each size, built once. */
class FloorConnection {
public:
    explicit FloorConnection(int fd) : fd_(fd) {}

    int fd() const { return fd_.get(); }

    /* Reads what came and answers every whole request in it: false when
     * the client went away. */
    bool serve(FILE *log)
    {
        uint8_t bytes[4096];
        const ssize_t got = recv(fd_.get(), bytes, sizeof(bytes), 0);

        if (got <= 0)
            return got < 0 && errno == EINTR;
        in_.insert(in_.end(), bytes, bytes + got);
        size_t used = 0;
        while (in_.size() - used >= header_size) {
            ipc_msg_t request;
            memcpy(&request, in_.data() + used, header_size);
            if (in_.size() - used < header_size + request.payload_len)
                break;
            used += header_size + request.payload_len;
            if (!reply(request, log))
                return false;
        }
        in_.erase(in_.begin(), in_.begin() + used);
        return true;
    }

private:
    bool reply(const ipc_msg_t &request, FILE *log)
    {
        const bool stats = request.op_id == get_stats_op;
        std::vector<uint8_t> &frame = stats ? stats_frame_ : register_frame_;

        if (frame.empty())
            frame.resize(header_size +
                         (stats ? stats_reply_size : register_reply_size));
        ipc_msg_t header = request;
        header.addr0 = request.addr1;
        header.addr1 = request.addr0;
        header.aux_byte = 1;
        header.msg_type = 2;
        header.payload_len =
            static_cast<uint32_t>(frame.size() - header_size);
        header.payload = nullptr;
        memcpy(frame.data(), &header, header_size);
        if (!stats) {
            const uint32_t words[2] = {version_offset, version_value};
            memcpy(frame.data() + header_size, words, sizeof(words));
            syslog(LOG_INFO, "read register - addr 0x%08x, data 0x%08x",
                   0xf0000000u | version_offset, version_value);
            write_log_line(log, version_value);
        }
        return send(fd_.get(), frame.data(), frame.size(), MSG_NOSIGNAL) ==
               static_cast<ssize_t>(frame.size());
    }

    Fd fd_;
    std::vector<uint8_t> in_;
    std::vector<uint8_t> stats_frame_;
    std::vector<uint8_t> register_frame_;
};

/* The floor server: serves until killed. */
int run_floor(const char *socket_path, const char *log_path)
{
    struct sockaddr_un address {};
    Fd listener(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    FILE *log = fopen(log_path, "a+");

    address.sun_family = AF_UNIX;
    snprintf(address.sun_path, sizeof(address.sun_path), "%s", socket_path);
    unlink(socket_path);
    if (log == nullptr || listener.get() < 0 ||
        bind(listener.get(), reinterpret_cast<sockaddr *>(&address),
             sizeof(address)) != 0 ||
        listen(listener.get(), 64) != 0) {
        perror("floor");
        return 1;
    }
    openlog("larks-hollow-fpga", LOG_PID, LOG_DAEMON);
    std::vector<pollfd> watched{{listener.get(), POLLIN, 0}};
    std::vector<std::unique_ptr<FloorConnection>> connections;
    for (;;) {
        if (poll(watched.data(), watched.size(), -1) < 0)
            continue;
        for (size_t i = 1; i < watched.size(); i++) {
            if (watched[i].revents == 0 || connections[i - 1]->serve(log))
                continue;
            connections.erase(connections.begin() + (i - 1));
            watched.erase(watched.begin() + i);
            i--;
        }
        if (watched[0].revents & POLLIN) {
            connections.push_back(std::make_unique<FloorConnection>(
                accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC)));
            watched.push_back({connections.back()->fd(), POLLIN, 0});
        }
    }
}

/* A program in the board's sandbox, killed and reaped with the object. */
class Spawned {
public:
    Spawned(const sim_board *board, const sim_sandbox_opts *opts,
            std::vector<const char *> argv)
    {
        argv.push_back(nullptr);
        pid_ = sim_board_spawn(board, opts, const_cast<char *const *>(
                                                argv.data()));
    }
    ~Spawned()
    {
        int status;
        if (pid_ > 0) {
            kill(pid_, SIGKILL);
            waitpid(pid_, &status, 0);
        }
    }
    Spawned(const Spawned &) = delete;
    Spawned &operator=(const Spawned &) = delete;
    bool ok() const { return pid_ > 0; }
    pid_t pid() const { return pid_; }

private:
    pid_t pid_ = -1;
};

/* A board in a fresh directory, removed with the object, with a reader
 * at its /dev/log that keeps up. */
class Board {
public:
    bool create()
    {
        char parent[] = "/tmp/plm_bench_XXXXXX";
        if (mkdtemp(parent) == nullptr)
            return false;
        parent_ = parent;
        if (sim_board_create((parent_ + "/board").c_str(), SIM_BOARD_BASE2,
                             &board_) != 0)
            return false;
        log_socket_ = parent_ + "/log.sock";
        syslog_fd_ = sim_syslog_open(log_socket_.c_str());
        if (syslog_fd_ < 0)
            return false;
        reader_ = std::thread([this] { read_syslog(); });
        return true;
    }
    ~Board()
    {
        reading_ = false;
        if (reader_.joinable())
            reader_.join();
        if (syslog_fd_ >= 0)
            sim_syslog_close(syslog_fd_, log_socket_.c_str());
        if (board_ != nullptr)
            sim_board_destroy(board_);
        if (!parent_.empty()) {
            std::error_code ignored;
            std::filesystem::remove_all(parent_, ignored);
        }
    }

    const sim_board *get() const { return board_; }
    sim_sandbox_opts opts() const { return {log_socket_.c_str()}; }
    std::string run_path(const char *name) const
    {
        return std::string(sim_board_path(board_, SIM_PATH_RUN)) + "/" + name;
    }

private:
    void read_syslog()
    {
        char datagram[4096];
        struct pollfd waiting = {syslog_fd_, POLLIN, 0};

        while (reading_)
            if (poll(&waiting, 1, 100) == 1)
                (void)!recv(syslog_fd_, datagram, sizeof(datagram), 0);
    }

    std::string parent_;
    sim_board *board_ = nullptr;
    std::string log_socket_;
    int syslog_fd_ = -1;
    std::atomic<bool> reading_{true};
    std::thread reader_;
};

struct ClientClose {
    void operator()(ipc_client *client) const { ipc_client_close(client); }
};
using Client = std::unique_ptr<ipc_client, ClientClose>;

Client connect_to(const std::string &path)
{
    const auto deadline =
        Clock::now() + std::chrono::milliseconds(start_timeout_ms);
    ipc_client *client = nullptr;

    while (ipc_client_open(path.c_str(), &client) != 0) {
        if (Clock::now() > deadline)
            return nullptr;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return Client(client);
}

struct Case {
    const char *name;
    uint32_t op;
    uint32_t words[4];
    uint32_t length;
    uint32_t reply_length;
};

constexpr Case cases[] = {
    {"stats", get_stats_op, {nic_module, 0, 0, 0}, 16, stats_reply_size},
    {"readreg", read_register_op, {version_offset, 0, 0, 0}, 8,
     register_reply_size},
};

constexpr int client_counts[] = {1, 8};

/* The CPU time a process has used so far, in clock ticks. */
long cpu_ticks(pid_t pid)
{
    char path[64];
    char text[1024] = "";
    long user = 0, system = 0;

    snprintf(path, sizeof(path), "/proc/%d/stat", static_cast<int>(pid));
    FILE *stat = fopen(path, "r");
    if (stat == nullptr)
        return 0;
    const size_t got = fread(text, 1, sizeof(text) - 1, stat);
    fclose(stat);
    text[got] = '\0';
    /* Fields 14 and 15 (utime, stime) follow the command's closing ')'. */
    const char *fields = strrchr(text, ')');
    if (fields == nullptr ||
        sscanf(fields + 1, " %*c %*d %*d %*d %*d %*d %*u %*u %*u %*u %*u "
                           "%ld %ld", &user, &system) != 2)
        return 0;
    return user + system;
}

struct Turn {
    size_t requests = 0;
    double rps = 0;
    double p99_us = 0;
    long errors = 0;
};

/* One client's requests from `start_at` until `end`; latencies in
 * microseconds. */
void run_client(const std::string &path, const Case &what, std::latch &ready,
                Clock::time_point start_at, Clock::time_point end,
                std::vector<double> &latencies, long &errors)
{
    Client client = connect_to(path);
    ipc_msg_t request{};
    uint32_t words[4];

    memcpy(words, what.words, sizeof(words));
    request.op_id = what.op;
    request.msg_type = 1;
    request.payload_len = what.length;
    request.payload = words;
    ready.arrive_and_wait();
    std::this_thread::sleep_until(start_at);
    while (client && Clock::now() < end) {
        ipc_msg_t reply{};
        const auto start = Clock::now();
        if (ipc_client_send(client.get(), &request) != 0 ||
            ipc_client_recv(client.get(), &reply, start_timeout_ms) != 0) {
            errors++;
            return;
        }
        latencies.push_back(
            std::chrono::duration<double, std::micro>(Clock::now() - start)
                .count());
        if (reply.op_id != what.op || reply.payload_len != what.reply_length)
            errors++;
        free(reply.payload);
    }
    if (!client)
        errors++;
}

Turn run_turn(const std::string &path, const Case &what, int clients)
{
    std::latch ready(clients + 1);
    std::vector<std::vector<double>> latencies(clients);
    std::vector<long> errors(clients, 0);
    std::vector<std::thread> threads;
    Turn turn;

    /* Clients connect first; all start at once. */
    const auto start_at = Clock::now() + std::chrono::milliseconds(200);
    const auto end = start_at + turn_length;
    for (int i = 0; i < clients; i++)
        threads.emplace_back(run_client, std::cref(path), std::cref(what),
                             std::ref(ready), start_at, end,
                             std::ref(latencies[i]), std::ref(errors[i]));
    ready.arrive_and_wait();
    for (std::thread &thread : threads)
        thread.join();
    std::vector<double> all;
    for (int i = 0; i < clients; i++) {
        all.insert(all.end(), latencies[i].begin(), latencies[i].end());
        turn.errors += errors[i];
    }
    if (all.empty())
        return turn;
    const auto elapsed = std::chrono::duration<double>(turn_length).count();
    turn.requests = all.size();
    turn.rps = static_cast<double>(all.size()) / elapsed;
    const size_t p99 = all.size() * 99 / 100;
    std::nth_element(all.begin(), all.begin() + p99, all.end());
    turn.p99_us = all[p99];
    return turn;
}

double median(std::vector<double> values)
{
    std::sort(values.begin(), values.end());
    return values.empty() ? 0 : values[values.size() / 2];
}

void print(const std::string &name, double value, const char *unit)
{
    printf("%s: %.*f %s\n", name.c_str(), value < 10 ? 2 : 0, value, unit);
}

/* BENCH_IPC_VERBOSE set: every turn's figures on stderr too. */
int run_bench(const char *self, bool verbose)
{
    std::string why;

    if (!sim_sandbox_available(&why)) {
        fprintf(stderr, "bench_ipc: %s\n", why.c_str());
        return 1;
    }
    Board board;
    if (!board.create()) {
        fprintf(stderr, "bench_ipc: no board: %s\n", strerror(errno));
        return 1;
    }
    const sim_sandbox_opts opts = board.opts();
    Spawned daemon(board.get(), &opts, {PELLIN_MGR_PATH});
    Spawned floor(board.get(), &opts, {self, "--floor", floor_socket,
                                       floor_log});
    const std::string daemon_path = board.run_path("ipc/219.sock");
    const std::string floor_path = board.run_path("floor.sock");
    if (!daemon.ok() || !floor.ok() || !connect_to(daemon_path) ||
        !connect_to(floor_path)) {
        fprintf(stderr, "bench_ipc: daemon or floor did not start: %s\n",
                sim_board_last_error());
        return 1;
    }
    long errors = 0;
    for (const Case &what : cases)
        for (int clients : client_counts) {
            std::vector<double> rps[2], p99[2], rps_ratio, p99_ratio;
            const std::string paths[2] = {daemon_path, floor_path};
            const pid_t pids[2] = {daemon.pid(), floor.pid()};
            long ticks[2] = {0, 0};
            size_t requests[2] = {0, 0};
            run_turn(daemon_path, what, clients); /* warm-up */
            run_turn(floor_path, what, clients);
            for (int round = 0; round < rounds; round++) {
                Turn turns[2];
                /* Who goes first alternates too. */
                for (int step = 0; step < 2; step++) {
                    const int side = (round + step) % 2;
                    const long ticks_before = cpu_ticks(pids[side]);
                    turns[side] = run_turn(paths[side], what, clients);
                    ticks[side] += cpu_ticks(pids[side]) - ticks_before;
                    requests[side] += turns[side].requests;
                    rps[side].push_back(turns[side].rps);
                    p99[side].push_back(turns[side].p99_us);
                    errors += turns[side].errors;
                }
                if (verbose)
                    fprintf(stderr, "%s c%d round %d: daemon %.0f req/s "
                            "p99 %.0f us, floor %.0f req/s p99 %.0f us\n",
                            what.name, clients, round, turns[0].rps,
                            turns[0].p99_us, turns[1].rps, turns[1].p99_us);
                rps_ratio.push_back(turns[0].rps / turns[1].rps);
                p99_ratio.push_back(turns[0].p99_us / turns[1].p99_us);
            }
            const std::string name =
                std::string(what.name) + "_c" + std::to_string(clients);
            print(name + "_daemon_rps", median(rps[0]), "req/s");
            print(name + "_floor_rps", median(rps[1]), "req/s");
            print(name + "_rps_ratio", median(rps_ratio), "daemon/floor");
            print(name + "_daemon_p99", median(p99[0]), "us");
            print(name + "_floor_p99", median(p99[1]), "us");
            print(name + "_p99_ratio", median(p99_ratio), "daemon/floor");
            /* The server's own CPU time per request over all rounds: what
             * bounds throughput when the cores are busy. */
            const double tick_us =
                1e6 / static_cast<double>(sysconf(_SC_CLK_TCK));
            print(name + "_daemon_cpu", ticks[0] * tick_us /
                      static_cast<double>(std::max<size_t>(requests[0], 1)),
                  "us/req");
            print(name + "_floor_cpu", ticks[1] * tick_us /
                      static_cast<double>(std::max<size_t>(requests[1], 1)),
                  "us/req");
        }
    printf("errors: %ld requests\n", errors);
    return errors == 0 ? 0 : 1;
}

} // namespace

int main(int argc, char **argv)
{
    signal(SIGPIPE, SIG_IGN);
    if (argc == 4 && strcmp(argv[1], "--floor") == 0)
        return run_floor(argv[2], argv[3]);
    char self[4096];
    const ssize_t length = readlink("/proc/self/exe", self, sizeof(self) - 1);
    if (length <= 0)
        return 1;
    self[length] = '\0';
    return run_bench(self, getenv("BENCH_IPC_VERBOSE") != nullptr);
}
