/* The client side of the daemon's socket. Every failure becomes a Failure
 * with the text and exit code docs/lhctl.md gives it. */
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "ipc_msg.hpp"
#include "lhctl.hpp"
#include "plat_ipc.h"

namespace lhctl {

void usage_error(const std::string &text) { throw Failure(Exit::usage, text); }

void malformed(uint32_t op, const char *what)
{
    throw Failure(Exit::refused,
                  format("malformed reply to op 0x%06x: %s", op, what));
}

uint32_t get32(std::span<const uint8_t> bytes, size_t at)
{
    uint32_t value;

    memcpy(&value, bytes.subspan(at, sizeof(value)).data(), sizeof(value));
    return value;
}

uint64_t get64(std::span<const uint8_t> bytes, size_t at)
{
    uint64_t value;

    memcpy(&value, bytes.subspan(at, sizeof(value)).data(), sizeof(value));
    return value;
}

void Client::Close::operator()(ipc_client *c) const { ipc_client_close(c); }

Client::Client(std::string socket_path, int timeout_ms)
    : socket_path_(std::move(socket_path)), timeout_ms_(timeout_ms)
{
}

[[noreturn]] static void connect_failed(const std::string &path, int rc)
{
    const char *p = path.c_str();

    switch (rc) {
    case -ENOENT:
        throw Failure(Exit::unreachable,
                      format("daemon not running: no socket at %s", p));
    case -ECONNREFUSED:
        throw Failure(Exit::unreachable,
                      format("daemon not running: nothing serves %s", p));
    case -EACCES:
    case -EPERM:
        throw Failure(Exit::unreachable, format("permission denied: %s", p));
    default:
        throw Failure(Exit::unreachable, format("cannot connect to %s: %s", p,
                                                strerror(-rc)));
    }
}

void Client::connect()
{
    ipc_client *client = nullptr;
    int rc = ipc_client_open(socket_path_.c_str(), &client);

    if (rc != 0)
        connect_failed(socket_path_, rc);
    client_.reset(client);
}

[[noreturn]] static void transfer_failed(int timeout_ms, int rc)
{
    if (rc == -ETIMEDOUT)
        throw Failure(Exit::unreachable,
                      format("no answer from the daemon within %g s",
                             timeout_ms / 1000.0));
    if (rc == -ECONNRESET || rc == -EPIPE)
        throw Failure(Exit::unreachable, "the daemon closed the connection");
    throw Failure(Exit::unreachable,
                  format("talking to the daemon failed: %s", strerror(-rc)));
}

/* An error reply carries its code at byte 8; its text is the message. */
static void check_reply(uint32_t op, const ipc_msg_t &msg, const Bytes &payload)
{
    if (msg.msg_type != PLM_IPC_MSG_REPLY)
        malformed(op, "not a reply");
    if (msg.op_id == PLM_IPC_OP_ERROR && payload.size() != 12)
        malformed(op, "error reply of the wrong length");
    if (msg.op_id == PLM_IPC_OP_ERROR)
        throw Failure(Exit::refused, plm_ipc_error_str(get32(payload, 8)));
    if (msg.op_id != op)
        malformed(op, "reply to another operation");
}

Bytes Client::request(uint32_t op, std::span<const uint8_t> payload)
{
    ipc_msg_t request = {};
    ipc_msg_t reply = {};

    request.op_id = op;
    request.msg_type = PLM_IPC_MSG_REQUEST;
    request.payload_len = static_cast<uint32_t>(payload.size());
    request.payload = const_cast<uint8_t *>(payload.data());
    if (!client_)
        connect();
    int rc = ipc_client_send(client_.get(), &request);
    if (rc == 0)
        rc = ipc_client_recv(client_.get(), &reply, timeout_ms_);
    if (rc < 0)
        transfer_failed(timeout_ms_, rc);
    std::unique_ptr<void, decltype(&free)> owned(reply.payload, free);
    const auto *bytes = static_cast<const uint8_t *>(reply.payload);
    Bytes result(bytes, bytes + (bytes != nullptr ? reply.payload_len : 0));
    check_reply(op, reply, result);
    return result;
}

Bytes Client::request(uint32_t op, std::span<const uint8_t> payload,
                      size_t length)
{
    Bytes reply = request(op, payload);

    if (reply.size() != length)
        malformed(op, "unexpected length");
    return reply;
}

} // namespace lhctl
