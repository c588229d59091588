/* The request dispatcher. Each operation is one row of the op table: its
 * checked request length and its handler. A handler sends one reply, or
 * returns the code of the error reply to send; a reply that cannot be
 * allocated leaves a log line only. */
#include "dispatcher.hpp"

#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <initializer_list>
#include <optional>
#include <span>

#include "ipc_server.hpp"
#include "lh_fpga.h"
#include "plm_log.hpp"

namespace
{

constexpr uint32_t replied = 0;
constexpr size_t module_entry_size = 12;
constexpr size_t pipe_entry_size = 8;
constexpr size_t stats_header_size = 16;

/* The two cached module lists (one for checks, one for replies), fetched
 * on first use. */
constinit const lh_module_entry *module_list_for_checks = nullptr;
constinit const lh_module_entry *module_list_for_replies = nullptr;

/* Statistics record size by module id (global, PCIe, DDR4, CAUI, NIC,
 * parser, classifier, processor, scheduler, then the LHX image's global,
 * PCIe, Eth, NIC, parser, scheduler); 0: no statistics. */
constexpr uint32_t stats_sizes[LH_MOD_COUNT] = {
    0, 16, 0, 256, 8360, 120, 568, 136, 144, 0, 16, 600, 8360, 120, 144};

uint32_t word(const plm_ipc_msg *msg, size_t index)
{
    uint32_t value;
    memcpy(&value, (const uint8_t *)msg->payload + 4 * index, sizeof(value));
    return value;
}

/* A zero-filled reply payload, or null after logging `failure` with the
 * "Out of memory" tag. */
plm::Payload reply_payload(size_t length, const char *failure)
{
    plm::Payload payload(static_cast<uint8_t *>(calloc(1, length)));
    if (!payload)
        plm_log(LOG_ERR, "%s: %s", PLM_TAG(NO_MEMORY), failure);
    return payload;
}

/* A reply of `length` bytes that begins with the `size` bytes at `head`,
 * zeros after. */
uint32_t reply_with(const plm_ipc_msg *msg, const void *head, size_t size,
                    size_t length, const char *failure)
{
    plm::Payload payload = reply_payload(length, failure);
    if (payload) {
        memcpy(payload.get(), head, size);
        plm_send_reply(msg, payload.release(), static_cast<uint32_t>(length));
    }
    return replied;
}

uint32_t reply_words(const plm_ipc_msg *msg,
                     std::initializer_list<uint32_t> words, size_t length,
                     const char *failure)
{
    return reply_with(msg, words.begin(), words.size() * sizeof(uint32_t),
                      length, failure);
}

uint32_t reply_echo(const plm_ipc_msg *msg, const char *failure)
{
    return reply_with(msg, msg->payload, msg->payload_len, msg->payload_len,
                      failure);
}

uint32_t read_register(plm_ipc_msg *msg)
{
    uint32_t value;
    if (lh_read_register(word(msg, 0), &value) != 0)
        return PLM_IPC_ERR_READ_FAILED;
    return reply_words(msg, {word(msg, 0), value}, 8,
                       "PLM process IPC read register failed");
}

uint32_t write_register(plm_ipc_msg *msg)
{
    if (lh_write_register(word(msg, 0), word(msg, 1)) != 0)
        return PLM_IPC_ERR_WRITE_FAILED;
    return reply_echo(msg, "PLM process IPC write register failed");
}

uint32_t set_loopback(plm_ipc_msg *msg)
{
    if (lh_set_loopback(word(msg, 0), word(msg, 1)) != 0)
        return PLM_IPC_ERR_LOOPBACK_FAILED;
    return reply_echo(msg, "PLM process IPC set loopback failed");
}

uint32_t get_loopback(plm_ipc_msg *msg)
{
    uint32_t type;
    if (lh_get_loopback(&type, word(msg, 1)) != 0)
        return PLM_IPC_ERR_LOOPBACK_FAILED;
    return reply_words(msg, {type, word(msg, 1)}, 8,
                       "PLM process IPC get loopback failed");
}

/* Fetches `cache` on first use; false after logging at `severity`. */
bool fetch_module_list(const lh_module_entry *&cache, int severity)
{
    if (cache != nullptr || lh_get_module_list(&cache) == 0)
        return true;
    cache = nullptr;
    plm_log(severity, "%s: failed to retrieve module list", PLM_TAG(ERROR));
    return false;
}

std::span<const lh_module_entry> entries(const lh_module_entry *list)
{
    size_t count = 0;
    while (list != nullptr && list[count].module_id != LH_MOD_END)
        count++;
    return {list, count};
}

/* The module/pipe check of both statistics ops; clear stats keeps the get
 * stats message. */
bool stats_target_valid(plm_ipc_msg *msg)
{
    uint32_t module_id = word(msg, 0), pipe = word(msg, 1);
    if (plm_module_pipe_valid(module_id, pipe))
        return true;
    plm_log(LOG_ERR,
            "%s: PLM process IPC get stats failed - invalid module/pipe "
            "(%d/%d)",
            PLM_TAG(ERROR), module_id, pipe);
    return false;
}

uint32_t get_stats(plm_ipc_msg *msg)
{
    const uint32_t module_id = word(msg, 0), pipe = word(msg, 1);

    if (!stats_target_valid(msg))
        return PLM_IPC_ERR_GET_STATS_FAILED;
    const uint64_t size = module_id < LH_MOD_COUNT ? stats_sizes[module_id] : 0;
    if (size == 0)
        return PLM_IPC_ERR_GET_STATS_FAILED;
    plm::Payload payload = reply_payload(stats_header_size + size,
                                         "PLM process IPC get stats failed");
    if (!payload)
        return replied;
    if (lh_get_statistics(module_id, pipe, payload.get() + stats_header_size,
                          size) != 0)
        return PLM_IPC_ERR_GET_STATS_FAILED;
    /* The header: module id, pipe, then the record size as 64 bits. */
    memcpy(payload.get(), msg->payload, 8);
    memcpy(payload.get() + 8, &size, sizeof(size));
    plm_send_reply(msg, payload.release(), stats_header_size + size);
    return replied;
}

/* The reply is the module id and pipe of the request, zeros after. */
uint32_t clear_stats(plm_ipc_msg *msg)
{
    if (!stats_target_valid(msg))
        return PLM_IPC_ERR_GET_STATS_FAILED;
    if (lh_clear_statistics(word(msg, 0), word(msg, 1)) != 0)
        return PLM_IPC_ERR_CLEAR_STATS_FAILED;
    return reply_with(msg, msg->payload, 8, 16,
                      "PLM process IPC clear stats failed");
}

/* A module whose state cannot be read is reported OK (state 0). */
uint32_t get_module_list(plm_ipc_msg *msg)
{
    if (!fetch_module_list(module_list_for_replies, LOG_ERR))
        return PLM_IPC_ERR_GET_MODULE_LIST_FAILED;
    const auto list = entries(module_list_for_replies);
    if (list.empty()) {
        plm_send_reply(msg, NULL, 0);
        return replied;
    }
    plm::Payload payload = reply_payload(list.size() * module_entry_size,
                                         "PLM process IPC module list failed");
    if (!payload)
        return replied;
    for (size_t i = 0; i < list.size(); i++) {
        uint8_t *entry = payload.get() + i * module_entry_size;
        memcpy(entry, &list[i], sizeof(list[i]));
        lh_get_module_state(list[i], &entry[8]);
    }
    plm_send_reply(msg, payload.release(), list.size() * module_entry_size);
    return replied;
}

/* The reply is the pipe and the state byte of the request, zeros after. */
uint32_t set_pipe(plm_ipc_msg *msg)
{
    const uint8_t state = static_cast<const uint8_t *>(msg->payload)[4];
    if (lh_set_traffic_pipe_state(word(msg, 0), state) != 0)
        return PLM_IPC_ERR_SET_PIPE_FAILED;
    return reply_with(msg, msg->payload, 5, 8, "PLM process set pipe failed");
}

/* The whole list or only the error: no partial reply. */
uint32_t get_pipe(plm_ipc_msg *msg)
{
    const uint32_t count = lh_get_traffic_pipe_count();
    if (count == 0) {
        plm_send_reply(msg, NULL, 0);
        return replied;
    }
    plm::Payload payload = reply_payload(size_t{count} * pipe_entry_size,
                                         "PLM process get pipe failed");
    if (!payload)
        return replied;
    for (uint32_t pipe = 0; pipe < count; pipe++) {
        uint8_t *entry = payload.get() + pipe * pipe_entry_size;
        memcpy(entry, &pipe, sizeof(pipe));
        if (lh_get_traffic_pipe_state(pipe, &entry[4]) != 0)
            return PLM_IPC_ERR_GET_PIPE_FAILED;
    }
    plm_send_reply(msg, payload.release(), count * pipe_entry_size);
    return replied;
}

uint32_t set_ingress_qos(plm_ipc_msg *msg)
{
    lh_qos_profile_t qos = {word(msg, 1), word(msg, 2)};
    if (lh_set_ingress_qos(word(msg, 0), qos) != 0)
        return PLM_IPC_ERR_SET_INGR_QOS_FAILED;
    return reply_echo(msg, "PLM process set ingress QoS failed");
}

uint32_t get_ingress_qos(plm_ipc_msg *msg)
{
    lh_qos_profile_t qos = {word(msg, 1), 0};
    if (lh_get_ingress_qos(word(msg, 0), &qos) != 0)
        return PLM_IPC_ERR_GET_INGR_QOS_FAILED;
    return reply_words(msg, {word(msg, 0), qos.profile_id, qos.priority}, 12,
                       "PLM process get ingress QoS failed");
}

struct OpHandler {
    uint32_t op_id;
    std::optional<uint32_t> length; /* the exact request length, if checked */
    uint32_t (*handle)(plm_ipc_msg *msg);
};

constexpr OpHandler op_handlers[] = {
    {PLM_IPC_OP_READ_REG, 8, read_register},
    {PLM_IPC_OP_WRITE_REG, 8, write_register},
    {PLM_IPC_OP_SET_LOOPBACK, 8, set_loopback},
    {PLM_IPC_OP_GET_LOOPBACK, 8, get_loopback},
    {PLM_IPC_OP_GET_STATS, 16, get_stats},
    {PLM_IPC_OP_CLEAR_STATS, 16, clear_stats},
    {PLM_IPC_OP_GET_MODULE_LIST, std::nullopt, get_module_list},
    {PLM_IPC_OP_SET_PIPE, 8, set_pipe},
    {PLM_IPC_OP_GET_PIPE, std::nullopt, get_pipe},
    {PLM_IPC_OP_SET_INGRESS_QOS, 12, set_ingress_qos},
    {PLM_IPC_OP_GET_INGRESS_QOS, 12, get_ingress_qos},
};

} // namespace

bool plm_module_pipe_valid(uint32_t module_id, uint32_t pipe)
{
    if (!fetch_module_list(module_list_for_checks, LOG_CRIT))
        return false;
    return std::ranges::any_of(
        entries(module_list_for_checks), [&](const lh_module_entry &entry) {
            return entry.module_id == module_id && entry.pipe == pipe;
        });
}

void plm_process_ipc_msg(plm_ipc_msg *msg)
{
    if (msg == NULL) {
        plm_log(LOG_ERR, "%s - PLM process IPC message", PLM_TAG(NULL_POINTER));
        return;
    }
    const auto handler =
        std::ranges::find(op_handlers, msg->op_id, &OpHandler::op_id);
    if (handler == std::end(op_handlers)) {
        plm_log(LOG_ERR, "%s: PLM IPC request - invalid op id %d",
                PLM_TAG(ERROR), msg->op_id);
        return;
    }
    if (handler->length && !plm_ipc_check_recv_length(msg, *handler->length))
        return;
    if (const uint32_t code = handler->handle(msg); code != replied)
        plm_send_error_msg(msg, code);
}
