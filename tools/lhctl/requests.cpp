/* The daemon's IPC operations as calls: each builds its request payload,
 * checks the reply's shape and hands back what it carries. */
#include <cstring>
#include <initializer_list>

#include "ipc_msg.hpp"
#include "lhctl.hpp"

namespace lhctl {

namespace {

constexpr size_t kModuleEntry = 12;
constexpr size_t kPipeEntry = 8;
constexpr size_t kStatsHeader = 16;

/* 32-bit payload fields in host byte order. */
Bytes words(std::initializer_list<uint32_t> values)
{
    Bytes bytes(4 * values.size());
    size_t at = 0;

    for (uint32_t value : values) {
        memcpy(bytes.data() + at, &value, sizeof(value));
        at += sizeof(value);
    }
    return bytes;
}

/* A list reply: whole entries of `size` bytes, none when empty. */
template <typename Entry, typename Decode>
std::vector<Entry> request_list(Client &c, uint32_t op, size_t size,
                                Decode decode)
{
    Bytes reply = c.request(op, {});
    std::vector<Entry> list;

    if (reply.size() % size != 0)
        malformed(op, "not whole entries");
    for (size_t at = 0; at < reply.size(); at += size)
        list.push_back(decode(std::span<const uint8_t>(reply).subspan(at, size)));
    return list;
}

} // namespace

uint32_t read_reg(Client &c, uint32_t offset)
{
    return get32(c.request(PLM_IPC_OP_READ_REG, words({offset, 0}), 8), 4);
}

void write_reg(Client &c, uint32_t offset, uint32_t value)
{
    c.request(PLM_IPC_OP_WRITE_REG, words({offset, value}), 8);
}

void set_loopback(Client &c, uint32_t pipe, uint32_t type)
{
    c.request(PLM_IPC_OP_SET_LOOPBACK, words({type, pipe}), 8);
}

uint32_t get_loopback(Client &c, uint32_t pipe)
{
    return get32(c.request(PLM_IPC_OP_GET_LOOPBACK, words({0, pipe}), 8), 0);
}

/* 16 bytes of header, then the N bytes its length field announces. */
Counters get_stats(Client &c, uint32_t module_id, uint32_t pipe)
{
    const uint32_t op = PLM_IPC_OP_GET_STATS;
    Bytes reply = c.request(op, words({module_id, pipe, 0, 0}));

    if (reply.size() < kStatsHeader ||
        get64(reply, 8) != reply.size() - kStatsHeader)
        malformed(op, "statistics length");
    return decode_counters(
        module_id, std::span<const uint8_t>(reply).subspan(kStatsHeader));
}

void clear_stats(Client &c, uint32_t module_id, uint32_t pipe)
{
    c.request(PLM_IPC_OP_CLEAR_STATS, words({module_id, pipe, 0, 0}), 16);
}

Modules get_modules(Client &c)
{
    return request_list<Module>(
        c, PLM_IPC_OP_GET_MODULE_LIST, kModuleEntry,
        [](std::span<const uint8_t> e) {
            return Module{get32(e, 0), get32(e, 4), e[8] != 0};
        });
}

void set_pipe(Client &c, uint32_t pipe, bool up)
{
    Bytes request = words({pipe, 0});

    request[4] = up;
    c.request(PLM_IPC_OP_SET_PIPE, request, 8);
}

Pipes get_pipes(Client &c)
{
    return request_list<Pipe>(c, PLM_IPC_OP_GET_PIPE, kPipeEntry,
                              [](std::span<const uint8_t> e) {
                                  return Pipe{get32(e, 0), e[4] != 0};
                              });
}

void set_qos(Client &c, uint32_t pipe, uint32_t profile, uint32_t priority)
{
    c.request(PLM_IPC_OP_SET_INGRESS_QOS, words({pipe, profile, priority}), 12);
}

uint32_t get_qos(Client &c, uint32_t pipe, uint32_t profile)
{
    return get32(
        c.request(PLM_IPC_OP_GET_INGRESS_QOS, words({pipe, profile, 0}), 12),
        8);
}

Snapshot take_snapshot(Client &c)
{
    Snapshot snap{get_modules(c), get_pipes(c), {}};

    for (const Module &m : snap.modules)
        snap.stats.push_back(has_stats(m.id) ? get_stats(c, m.id, m.pipe)
                                             : Counters{});
    return snap;
}

} // namespace lhctl
