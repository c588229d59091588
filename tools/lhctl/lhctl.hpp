/* lhctl, the operator's client of pellin_mgr: what its files share. The
 * requests and replies are the daemon's IPC records; docs/lhctl.md describes
 * the commands, their output and the exit codes. */
#ifndef LHCTL_HPP
#define LHCTL_HPP

#include <array>
#include <cstdint>
#include <memory>
#include <span>
#include <stdexcept>
#include <string>
#include <vector>

#include "lh_tables.hpp"
#include "tool_failure.hpp"

struct ipc_client;
struct lh_counter_source;

namespace lhctl {

/* Exit codes: scripts rely on them. */
enum class Exit : int {
    ok = 0,
    refused = 1,     /* an error reply, or a reply lhctl cannot use */
    usage = 2,       /* bad command line */
    unreachable = 3, /* not running, not permitted, no answer */
};

/* Thrown wherever a run ends early; main prints "lhctl: " and the text. */
using Failure = tools::Failure<Exit>;

using tools::format;
[[noreturn]] void usage_error(const std::string &text);

using Bytes = std::vector<uint8_t>;

/* One connection per run, made at the first request; one request at a
 * time, each answered within the timeout or not at all. */
class Client {
public:
    Client(std::string socket_path, int timeout_ms);
    /* The reply's payload; an error reply or a reply to another operation
     * throws. */
    Bytes request(uint32_t op, std::span<const uint8_t> payload);
    /* A reply that must be exactly `length` bytes long. */
    Bytes request(uint32_t op, std::span<const uint8_t> payload, size_t length);
    /* Drops the connection; the next request makes a new one. */
    void reset() { client_.reset(); }

private:
    struct Close {
        void operator()(ipc_client *c) const;
    };
    void connect();

    std::string socket_path_;
    int timeout_ms_;
    std::unique_ptr<ipc_client, Close> client_;
};

[[noreturn]] void malformed(uint32_t op, const char *what);

/* Payload fields are in host byte order. */
uint32_t get32(std::span<const uint8_t> bytes, size_t at);
uint64_t get64(std::span<const uint8_t> bytes, size_t at);

/* What the daemon reports, decoded. */
struct Module {
    uint32_t id;
    uint32_t pipe;
    bool failed;
};

struct Pipe {
    uint32_t pipe;
    bool up;
};

struct Counter {
    std::string name;
    uint64_t value;
};

using Modules = std::vector<Module>;
using Pipes = std::vector<Pipe>;
using Counters = std::vector<Counter>;

/* requests.cpp: the daemon's IPC operations. */
uint32_t read_reg(Client &c, uint32_t offset);
void write_reg(Client &c, uint32_t offset, uint32_t value);
void set_loopback(Client &c, uint32_t pipe, uint32_t type);
uint32_t get_loopback(Client &c, uint32_t pipe);
Counters get_stats(Client &c, uint32_t module_id, uint32_t pipe);
void clear_stats(Client &c, uint32_t module_id, uint32_t pipe);
Modules get_modules(Client &c);
void set_pipe(Client &c, uint32_t pipe, bool up);
Pipes get_pipes(Client &c);
void set_qos(Client &c, uint32_t pipe, uint32_t profile, uint32_t priority);
uint32_t get_qos(Client &c, uint32_t pipe, uint32_t profile);

/* counters.cpp: a statistics record as counters named by their register
 * sources; throws for a record that is not the module's. */
bool has_stats(uint32_t module_id);
Counters decode_counters(uint32_t module_id, std::span<const uint8_t> record);
std::string counter_name(const lh_counter_source &source);

/* dump_decode.cpp: the last register dump of a file, decoded as text or
 * JSON; a file that is not a dump throws (exit 1). */
std::string dump_view(const std::string &path, bool json);

/* names.cpp: the words lhctl reads and prints. */
/* The port driver's loopback type names, indexed by type. */
inline constexpr auto kLoopbackNames = [] {
    std::array<const char *, std::size(port_loopback_types)> names{};

    for (size_t type = 0; type < names.size(); type++)
        names[type] = port_loopback_types[type].name;
    return names;
}();
inline constexpr const char *kPriorityNames[] = {"low", "med", "high"};
inline constexpr const char *kPipeStates[] = {"down", "up"};

uint32_t parse_u32(const char *what, const std::string &text);
uint32_t parse_name(const char *what, const std::string &text,
                    std::span<const char *const> names);
uint32_t parse_module(const std::string &text);
double parse_seconds(const char *what, const std::string &text, double min,
                     double max);
int parse_timeout_ms(const std::string &text);
/* The module's name, or its id in decimal for an id without a name. */
std::string module_name(uint32_t id);
std::vector<std::string> loopback_types(uint32_t mask);
std::string priority_name(uint32_t priority);
inline const char *module_state(bool failed) { return failed ? "FAILED" : "OK"; }
inline const char *pipe_state(bool up) { return kPipeStates[up]; }

/* output.cpp: every view of a command's result, as text or JSON. */
std::string table(const std::vector<std::vector<std::string>> &rows);
std::string modules_text(const Modules &modules);
std::string pipes_text(const Pipes &pipes);
std::string counters_text(const Counters &counters);

struct Snapshot {
    Modules modules;
    Pipes pipes;
    std::vector<Counters> stats; /* per module entry, empty for none */
};

/* requests.cpp: the module list, the pipe states and the counters of
 * every module instance that has some. */
Snapshot take_snapshot(Client &c);

std::string modules_json(const Modules &modules);
std::string pipes_json(const Pipes &pipes);
std::string pipe_json(uint32_t pipe, bool up);
std::string stats_json(uint32_t module_id, uint32_t pipe,
                       const Counters &counters, bool cleared);
std::string reg_json(uint32_t offset, uint32_t value);
std::string loopback_json(uint32_t pipe, uint32_t mask);
std::string qos_json(uint32_t pipe, uint32_t profile, uint32_t priority);
std::string snapshot_json(const Snapshot &s);
/* The Prometheus text exposition of a snapshot. */
std::string snapshot_metrics(const Snapshot &s);

} // namespace lhctl

#endif
