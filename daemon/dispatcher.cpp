/* The request dispatcher. Each operation is one row of the op
 * table: its checked request length and its handler. A handler ends in one
 * reply or one error reply, or, when its reply cannot be allocated, in a
 * log line only. */
#include "dispatcher.hpp"

#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <array>
#include <optional>
#include <utility>

#include "ipc_server.hpp"
#include "lh_fpga.h"
#include "plm_log.hpp"

namespace {

constexpr size_t module_entry_size = 12;
constexpr size_t pipe_entry_size = 8;
constexpr size_t stats_header_size = 16;

/* The two cached module lists (one for checks, one for replies), fetched
 * on first use. */
constinit const lh_module_entry *module_list_for_checks = nullptr;
constinit const lh_module_entry *module_list_for_replies = nullptr;

/* Statistics record size by module id; 0: no statistics. */
constexpr auto stats_sizes = [] {
    std::array<uint32_t, LH_MOD_COUNT> sizes{};
    sizes[LH_MOD_PCIE] = 16;
    sizes[LH_MOD_CAUI] = 256;
    sizes[LH_MOD_NIC] = 8360;
    sizes[LH_MOD_INGRESS_PKT_PARSER] = 120;
    sizes[LH_MOD_INGRESS_PKT_CLASSIFIER] = 568;
    sizes[LH_MOD_INGRESS_PKT_PROCESSOR] = 136;
    sizes[LH_MOD_EGRESS_SCHEDULER] = 144;
    sizes[LH_MOD_LHX_PCIE] = 16;
    sizes[LH_MOD_ETH] = 600;
    sizes[LH_MOD_LHX_NIC] = 8360;
    sizes[LH_MOD_LHX_INGRESS_PKT_PARSER] = 120;
    sizes[LH_MOD_LHX_EGRESS_SCHEDULER] = 144;
    return sizes;
}();

uint32_t request_word(const plm_ipc_msg *msg, size_t index)
{
    uint32_t word;

    memcpy(&word, (const uint8_t *)msg->payload + 4 * index, sizeof(word));
    return word;
}

uint8_t request_byte(const plm_ipc_msg *msg, size_t offset)
{
    return ((const uint8_t *)msg->payload)[offset];
}

void put_word(uint8_t *payload, size_t offset, uint32_t word)
{
    memcpy(payload + offset, &word, sizeof(word));
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

/* Hands `payload` to the reply that carries it. */
void send_payload(const plm_ipc_msg *msg, plm::Payload payload,
                  size_t length)
{
    plm_send_reply(msg, payload.release(), static_cast<uint32_t>(length));
}

/* A reply of the request's own payload bytes. */
void reply_echo(const plm_ipc_msg *msg, const char *failure)
{
    plm::Payload payload = reply_payload(msg->payload_len, failure);

    if (!payload)
        return;
    memcpy(payload.get(), msg->payload, msg->payload_len);
    send_payload(msg, std::move(payload), msg->payload_len);
}

/* A reply of `length` bytes that begins with two words, zeros after. */
void reply_words(const plm_ipc_msg *msg, uint32_t first, uint32_t second,
                 uint32_t length, const char *failure)
{
    plm::Payload payload = reply_payload(length, failure);

    if (!payload)
        return;
    put_word(payload.get(), 0, first);
    put_word(payload.get(), 4, second);
    send_payload(msg, std::move(payload), length);
}

void read_register(plm_ipc_msg *msg)
{
    uint32_t value;

    if (lh_read_register(request_word(msg, 0), &value) != 0) {
        plm_send_error_msg(msg, PLM_IPC_ERR_READ_FAILED);
        return;
    }
    reply_words(msg, request_word(msg, 0), value, 8,
                "PLM process IPC read register failed");
}

void write_register(plm_ipc_msg *msg)
{
    if (lh_write_register(request_word(msg, 0), request_word(msg, 1)) != 0) {
        plm_send_error_msg(msg, PLM_IPC_ERR_WRITE_FAILED);
        return;
    }
    reply_echo(msg, "PLM process IPC write register failed");
}

void set_loopback(plm_ipc_msg *msg)
{
    if (lh_set_loopback(request_word(msg, 0), request_word(msg, 1)) != 0) {
        plm_send_error_msg(msg, PLM_IPC_ERR_LOOPBACK_FAILED);
        return;
    }
    reply_echo(msg, "PLM process IPC set loopback failed");
}

void get_loopback(plm_ipc_msg *msg)
{
    uint32_t type;

    if (lh_get_loopback(&type, request_word(msg, 1)) != 0) {
        plm_send_error_msg(msg, PLM_IPC_ERR_LOOPBACK_FAILED);
        return;
    }
    reply_words(msg, type, request_word(msg, 1), 8,
                "PLM process IPC get loopback failed");
}

} // namespace

bool plm_module_pipe_valid(uint32_t module_id, uint32_t pipe)
{
    if (module_list_for_checks == NULL &&
        lh_get_module_list(&module_list_for_checks) != 0) {
        module_list_for_checks = NULL;
        plm_log(LOG_CRIT, "%s: failed to retrieve module list",
                PLM_TAG(ERROR));
        return false;
    }
    if (module_list_for_checks == NULL)
        return false;
    for (const lh_module_entry *entry = module_list_for_checks;
         entry->module_id != LH_MOD_END; entry++)
        if (entry->module_id == module_id && entry->pipe == pipe)
            return true;
    return false;
}

namespace {

/* The module/pipe check of both statistics ops; clear stats keeps the get
 * stats message. */
bool stats_target_valid(plm_ipc_msg *msg)
{
    uint32_t module_id = request_word(msg, 0), pipe = request_word(msg, 1);

    if (plm_module_pipe_valid(module_id, pipe))
        return true;
    plm_log(LOG_ERR,
            "%s: PLM process IPC get stats failed - invalid module/pipe "
            "(%d/%d)",
            PLM_TAG(ERROR), module_id, pipe);
    plm_send_error_msg(msg, PLM_IPC_ERR_GET_STATS_FAILED);
    return false;
}

void get_stats(plm_ipc_msg *msg)
{
    const uint32_t module_id = request_word(msg, 0), pipe = request_word(msg, 1);

    if (!stats_target_valid(msg))
        return;
    const uint64_t size = module_id < LH_MOD_COUNT ? stats_sizes[module_id] : 0;
    if (size == 0) {
        plm_send_error_msg(msg, PLM_IPC_ERR_GET_STATS_FAILED);
        return;
    }
    plm::Payload payload = reply_payload(stats_header_size + size,
                                         "PLM process IPC get stats failed");
    if (!payload)
        return;
    if (lh_get_statistics(module_id, pipe, payload.get() + stats_header_size,
                          size) != 0) {
        plm_send_error_msg(msg, PLM_IPC_ERR_GET_STATS_FAILED);
        return;
    }
    put_word(payload.get(), 0, module_id);
    put_word(payload.get(), 4, pipe);
    memcpy(payload.get() + 8, &size, sizeof(size));
    send_payload(msg, std::move(payload), stats_header_size + size);
}

void clear_stats(plm_ipc_msg *msg)
{
    uint32_t module_id = request_word(msg, 0), pipe = request_word(msg, 1);

    if (!stats_target_valid(msg))
        return;
    if (lh_clear_statistics(module_id, pipe) != 0) {
        plm_send_error_msg(msg, PLM_IPC_ERR_CLEAR_STATS_FAILED);
        return;
    }
    reply_words(msg, module_id, pipe, 16, "PLM process IPC clear stats failed");
}

size_t count_modules(const lh_module_entry *list)
{
    size_t count = 0;

    while (list != NULL && list[count].module_id != LH_MOD_END)
        count++;
    return count;
}

/* A module whose state cannot be read is reported OK (state 0). */
void get_module_list(plm_ipc_msg *msg)
{
    if (module_list_for_replies == NULL &&
        lh_get_module_list(&module_list_for_replies) != 0) {
        module_list_for_replies = NULL;
        plm_log(LOG_ERR, "%s: failed to retrieve module list",
                PLM_TAG(ERROR));
        plm_send_error_msg(msg, PLM_IPC_ERR_GET_MODULE_LIST_FAILED);
        return;
    }
    const size_t count = count_modules(module_list_for_replies);
    if (count == 0) {
        plm_send_reply(msg, NULL, 0);
        return;
    }
    plm::Payload payload = reply_payload(count * module_entry_size,
                                         "PLM process IPC module list failed");
    if (!payload)
        return;
    for (size_t i = 0; i < count; i++) {
        uint8_t *entry = payload.get() + i * module_entry_size;
        uint8_t state = 0;

        put_word(entry, 0, module_list_for_replies[i].module_id);
        put_word(entry, 4, module_list_for_replies[i].pipe);
        lh_get_module_state(module_list_for_replies[i], &state);
        entry[8] = state;
    }
    send_payload(msg, std::move(payload), count * module_entry_size);
}

void set_pipe(plm_ipc_msg *msg)
{
    const uint32_t pipe = request_word(msg, 0);
    const uint8_t state = request_byte(msg, 4);

    if (lh_set_traffic_pipe_state(pipe, state) != 0) {
        plm_send_error_msg(msg, PLM_IPC_ERR_SET_PIPE_FAILED);
        return;
    }
    plm::Payload payload = reply_payload(8, "PLM process set pipe failed");
    if (!payload)
        return;
    put_word(payload.get(), 0, pipe);
    payload.get()[4] = state;
    send_payload(msg, std::move(payload), 8);
}

/* The whole list or only the error: no partial reply. */
void get_pipe(plm_ipc_msg *msg)
{
    const uint32_t count = lh_get_traffic_pipe_count();

    if (count == 0) {
        plm_send_reply(msg, NULL, 0);
        return;
    }
    plm::Payload payload = reply_payload(size_t{count} * pipe_entry_size,
                                         "PLM process get pipe failed");
    if (!payload)
        return;
    for (uint32_t pipe = 0; pipe < count; pipe++) {
        uint8_t *entry = payload.get() + pipe * pipe_entry_size;

        put_word(entry, 0, pipe);
        if (lh_get_traffic_pipe_state(pipe, &entry[4]) != 0) {
            plm_send_error_msg(msg, PLM_IPC_ERR_GET_PIPE_FAILED);
            return;
        }
    }
    send_payload(msg, std::move(payload), size_t{count} * pipe_entry_size);
}

void set_ingress_qos(plm_ipc_msg *msg)
{
    lh_qos_profile_t qos = { request_word(msg, 1), request_word(msg, 2) };

    if (lh_set_ingress_qos(request_word(msg, 0), qos) != 0) {
        plm_send_error_msg(msg, PLM_IPC_ERR_SET_INGR_QOS_FAILED);
        return;
    }
    reply_echo(msg, "PLM process set ingress QoS failed");
}

void get_ingress_qos(plm_ipc_msg *msg)
{
    lh_qos_profile_t qos = { request_word(msg, 1), 0 };

    if (lh_get_ingress_qos(request_word(msg, 0), &qos) != 0) {
        plm_send_error_msg(msg, PLM_IPC_ERR_GET_INGR_QOS_FAILED);
        return;
    }
    plm::Payload payload =
        reply_payload(12, "PLM process get ingress QoS failed");
    if (!payload)
        return;
    put_word(payload.get(), 0, request_word(msg, 0));
    put_word(payload.get(), 4, qos.profile_id);
    put_word(payload.get(), 8, qos.priority);
    send_payload(msg, std::move(payload), 12);
}

struct OpHandler {
    uint32_t op_id;
    std::optional<uint32_t> length; /* the exact request length, if checked */
    void (*handle)(plm_ipc_msg *msg);
};

constexpr OpHandler op_handlers[] = {
    { PLM_IPC_OP_READ_REG, 8, read_register },
    { PLM_IPC_OP_WRITE_REG, 8, write_register },
    { PLM_IPC_OP_SET_LOOPBACK, 8, set_loopback },
    { PLM_IPC_OP_GET_LOOPBACK, 8, get_loopback },
    { PLM_IPC_OP_GET_STATS, 16, get_stats },
    { PLM_IPC_OP_CLEAR_STATS, 16, clear_stats },
    { PLM_IPC_OP_GET_MODULE_LIST, std::nullopt, get_module_list },
    { PLM_IPC_OP_SET_PIPE, 8, set_pipe },
    { PLM_IPC_OP_GET_PIPE, std::nullopt, get_pipe },
    { PLM_IPC_OP_SET_INGRESS_QOS, 12, set_ingress_qos },
    { PLM_IPC_OP_GET_INGRESS_QOS, 12, get_ingress_qos },
};

const OpHandler *find_handler(uint32_t op_id)
{
    const auto found = std::ranges::find(op_handlers, op_id, &OpHandler::op_id);

    return found != std::end(op_handlers) ? found : nullptr;
}

} // namespace

void plm_process_ipc_msg(plm_ipc_msg *msg)
{
    if (msg == NULL) {
        plm_log(LOG_ERR, "%s - PLM process IPC message", PLM_TAG(NULL_POINTER));
        return;
    }
    const OpHandler *handler = find_handler(msg->op_id);
    if (handler == NULL) {
        plm_log(LOG_ERR, "%s: PLM IPC request - invalid op id %d",
                PLM_TAG(ERROR), msg->op_id);
        return;
    }
    if (handler->length && !plm_ipc_check_recv_length(msg, *handler->length))
        return;
    handler->handle(msg);
}
