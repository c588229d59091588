/* The request dispatcher. Each operation is one row of the op
 * table: its checked request length and its handler. A handler ends in one
 * reply or one error reply, or, when its reply cannot be allocated, in a
 * log line only. */
#include "dispatcher.hpp"

#include <stdlib.h>
#include <string.h>

#include <array>

#include "ipc_server.hpp"
#include "lh_fpga.h"
#include "plm_log.hpp"

#define UNCHECKED_LENGTH 0xFFFFFFFFu
#define MODULE_ENTRY_SIZE 12
#define PIPE_ENTRY_SIZE 8
#define STATS_HEADER_SIZE 16

/* The two cached module lists (one for checks, one for replies), fetched
 * on first use. */
static const lh_module_entry *module_list_for_checks;
static const lh_module_entry *module_list_for_replies;

/* Statistics record size by module id; 0: no statistics. */
static constexpr auto stats_sizes = [] {
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

static uint32_t request_word(const plm_ipc_msg *msg, size_t index)
{
    uint32_t word;

    memcpy(&word, (const uint8_t *)msg->payload + 4 * index, sizeof(word));
    return word;
}

static uint8_t request_byte(const plm_ipc_msg *msg, size_t offset)
{
    return ((const uint8_t *)msg->payload)[offset];
}

static void put_word(uint8_t *payload, size_t offset, uint32_t word)
{
    memcpy(payload + offset, &word, sizeof(word));
}

/* A zero-filled reply payload, or null after logging `failure` with the
 * "Out of memory" tag. */
static uint8_t *reply_payload(size_t length, const char *failure)
{
    uint8_t *payload = static_cast<uint8_t*>(calloc(1, length));

    if (payload == NULL)
        plm_log(LOG_ERR, "%s: %s", PLM_TAG(NO_MEMORY), failure);
    return payload;
}

/* A reply of the request's own payload bytes. */
static void reply_echo(const plm_ipc_msg *msg, const char *failure)
{
    uint8_t *payload = reply_payload(msg->payload_len, failure);

    if (payload == NULL)
        return;
    memcpy(payload, msg->payload, msg->payload_len);
    plm_send_reply(msg, payload, msg->payload_len);
}

/* A reply of `length` bytes that begins with two words, zeros after. */
static void reply_words(const plm_ipc_msg *msg, uint32_t first,
                        uint32_t second, uint32_t length, const char *failure)
{
    uint8_t *payload = reply_payload(length, failure);

    if (payload == NULL)
        return;
    put_word(payload, 0, first);
    put_word(payload, 4, second);
    plm_send_reply(msg, payload, length);
}

static void read_register(plm_ipc_msg *msg)
{
    uint32_t value;

    if (lh_read_register(request_word(msg, 0), &value) != 0) {
        plm_send_error_msg(msg, PLM_IPC_ERR_READ_FAILED);
        return;
    }
    reply_words(msg, request_word(msg, 0), value, 8,
                "PLM process IPC read register failed");
}

static void write_register(plm_ipc_msg *msg)
{
    if (lh_write_register(request_word(msg, 0), request_word(msg, 1)) != 0) {
        plm_send_error_msg(msg, PLM_IPC_ERR_WRITE_FAILED);
        return;
    }
    reply_echo(msg, "PLM process IPC write register failed");
}

static void set_loopback(plm_ipc_msg *msg)
{
    if (lh_set_loopback(request_word(msg, 0), request_word(msg, 1)) != 0) {
        plm_send_error_msg(msg, PLM_IPC_ERR_LOOPBACK_FAILED);
        return;
    }
    reply_echo(msg, "PLM process IPC set loopback failed");
}

static void get_loopback(plm_ipc_msg *msg)
{
    uint32_t type;

    if (lh_get_loopback(&type, request_word(msg, 1)) != 0) {
        plm_send_error_msg(msg, PLM_IPC_ERR_LOOPBACK_FAILED);
        return;
    }
    reply_words(msg, type, request_word(msg, 1), 8,
                "PLM process IPC get loopback failed");
}

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

/* The module/pipe check of both statistics ops; clear stats keeps the get
 * stats message. */
static bool stats_target_valid(plm_ipc_msg *msg)
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

static void get_stats(plm_ipc_msg *msg)
{
    uint32_t module_id = request_word(msg, 0), pipe = request_word(msg, 1);
    uint64_t size;
    uint8_t *payload;

    if (!stats_target_valid(msg))
        return;
    size = module_id < LH_MOD_COUNT ? stats_sizes[module_id] : 0;
    if (size == 0) {
        plm_send_error_msg(msg, PLM_IPC_ERR_GET_STATS_FAILED);
        return;
    }
    payload = reply_payload(STATS_HEADER_SIZE + size,
                            "PLM process IPC get stats failed");
    if (payload == NULL)
        return;
    if (lh_get_statistics(module_id, pipe, payload + STATS_HEADER_SIZE,
                          size) != 0) {
        free(payload);
        plm_send_error_msg(msg, PLM_IPC_ERR_GET_STATS_FAILED);
        return;
    }
    put_word(payload, 0, module_id);
    put_word(payload, 4, pipe);
    memcpy(payload + 8, &size, sizeof(size));
    plm_send_reply(msg, payload, (uint32_t)(STATS_HEADER_SIZE + size));
}

static void clear_stats(plm_ipc_msg *msg)
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

static size_t count_modules(const lh_module_entry *list)
{
    size_t count = 0;

    while (list != NULL && list[count].module_id != LH_MOD_END)
        count++;
    return count;
}

/* A module whose state cannot be read is reported OK (state 0). */
static void get_module_list(plm_ipc_msg *msg)
{
    size_t count;
    uint8_t *payload;

    if (module_list_for_replies == NULL &&
        lh_get_module_list(&module_list_for_replies) != 0) {
        module_list_for_replies = NULL;
        plm_log(LOG_ERR, "%s: failed to retrieve module list",
                PLM_TAG(ERROR));
        plm_send_error_msg(msg, PLM_IPC_ERR_GET_MODULE_LIST_FAILED);
        return;
    }
    count = count_modules(module_list_for_replies);
    if (count == 0) {
        plm_send_reply(msg, NULL, 0);
        return;
    }
    payload = reply_payload(count * MODULE_ENTRY_SIZE,
                            "PLM process IPC module list failed");
    if (payload == NULL)
        return;
    for (size_t i = 0; i < count; i++) {
        uint8_t *entry = payload + i * MODULE_ENTRY_SIZE;
        uint8_t state = 0;

        put_word(entry, 0, module_list_for_replies[i].module_id);
        put_word(entry, 4, module_list_for_replies[i].pipe);
        lh_get_module_state(module_list_for_replies[i], &state);
        entry[8] = state;
    }
    plm_send_reply(msg, payload, (uint32_t)(count * MODULE_ENTRY_SIZE));
}

static void set_pipe(plm_ipc_msg *msg)
{
    uint32_t pipe = request_word(msg, 0);
    uint8_t state = request_byte(msg, 4);
    uint8_t *payload;

    if (lh_set_traffic_pipe_state(pipe, state) != 0) {
        plm_send_error_msg(msg, PLM_IPC_ERR_SET_PIPE_FAILED);
        return;
    }
    payload = reply_payload(8, "PLM process set pipe failed");
    if (payload == NULL)
        return;
    put_word(payload, 0, pipe);
    payload[4] = state;
    plm_send_reply(msg, payload, 8);
}

/* The whole list or only the error: no partial reply. */
static void get_pipe(plm_ipc_msg *msg)
{
    uint32_t count = lh_get_traffic_pipe_count();
    uint8_t *payload;

    if (count == 0) {
        plm_send_reply(msg, NULL, 0);
        return;
    }
    payload = reply_payload((size_t)count * PIPE_ENTRY_SIZE,
                            "PLM process get pipe failed");
    if (payload == NULL)
        return;
    for (uint32_t pipe = 0; pipe < count; pipe++) {
        uint8_t *entry = payload + pipe * PIPE_ENTRY_SIZE;

        put_word(entry, 0, pipe);
        if (lh_get_traffic_pipe_state(pipe, &entry[4]) != 0) {
            free(payload);
            plm_send_error_msg(msg, PLM_IPC_ERR_GET_PIPE_FAILED);
            return;
        }
    }
    plm_send_reply(msg, payload, count * PIPE_ENTRY_SIZE);
}

static void set_ingress_qos(plm_ipc_msg *msg)
{
    lh_qos_profile_t qos = { request_word(msg, 1), request_word(msg, 2) };

    if (lh_set_ingress_qos(request_word(msg, 0), qos) != 0) {
        plm_send_error_msg(msg, PLM_IPC_ERR_SET_INGR_QOS_FAILED);
        return;
    }
    reply_echo(msg, "PLM process set ingress QoS failed");
}

static void get_ingress_qos(plm_ipc_msg *msg)
{
    lh_qos_profile_t qos = { request_word(msg, 1), 0 };
    uint8_t *payload;

    if (lh_get_ingress_qos(request_word(msg, 0), &qos) != 0) {
        plm_send_error_msg(msg, PLM_IPC_ERR_GET_INGR_QOS_FAILED);
        return;
    }
    payload = reply_payload(12, "PLM process get ingress QoS failed");
    if (payload == NULL)
        return;
    put_word(payload, 0, request_word(msg, 0));
    put_word(payload, 4, qos.profile_id);
    put_word(payload, 8, qos.priority);
    plm_send_reply(msg, payload, 12);
}

struct op_handler {
    uint32_t op_id;
    uint32_t length; /* the exact request length, or UNCHECKED_LENGTH */
    void (*handle)(plm_ipc_msg *msg);
};

static const struct op_handler op_handlers[] = {
    { PLM_IPC_OP_READ_REG, 8, read_register },
    { PLM_IPC_OP_WRITE_REG, 8, write_register },
    { PLM_IPC_OP_SET_LOOPBACK, 8, set_loopback },
    { PLM_IPC_OP_GET_LOOPBACK, 8, get_loopback },
    { PLM_IPC_OP_GET_STATS, 16, get_stats },
    { PLM_IPC_OP_CLEAR_STATS, 16, clear_stats },
    { PLM_IPC_OP_GET_MODULE_LIST, UNCHECKED_LENGTH, get_module_list },
    { PLM_IPC_OP_SET_PIPE, 8, set_pipe },
    { PLM_IPC_OP_GET_PIPE, UNCHECKED_LENGTH, get_pipe },
    { PLM_IPC_OP_SET_INGRESS_QOS, 12, set_ingress_qos },
    { PLM_IPC_OP_GET_INGRESS_QOS, 12, get_ingress_qos },
};

static const struct op_handler *find_handler(uint32_t op_id)
{
    for (size_t i = 0; i < sizeof(op_handlers) / sizeof(op_handlers[0]); i++)
        if (op_handlers[i].op_id == op_id)
            return &op_handlers[i];
    return NULL;
}

void plm_process_ipc_msg(plm_ipc_msg *msg)
{
    const struct op_handler *handler;

    if (msg == NULL) {
        plm_log(LOG_ERR, "%s - PLM process IPC message", PLM_TAG(NULL_POINTER));
        return;
    }
    handler = find_handler(msg->op_id);
    if (handler == NULL) {
        plm_log(LOG_ERR, "%s: PLM IPC request - invalid op id %d",
                PLM_TAG(ERROR), msg->op_id);
        return;
    }
    if (handler->length != UNCHECKED_LENGTH &&
        !plm_ipc_check_recv_length(msg, handler->length))
        return;
    handler->handle(msg);
}
