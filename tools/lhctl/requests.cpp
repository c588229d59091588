/* The daemon's IPC operations as calls: each builds its request payload,
 * checks the reply's shape and hands back what it carries. */
#include <errno.h>
#include <stdlib.h>

#include "ipc_msg.hpp"
#include "lhctl.hpp"

#define MODULE_ENTRY_SIZE 12
#define PIPE_ENTRY_SIZE   8
#define STATS_HEADER_SIZE 16

int lhctl_read_reg(struct lhctl *ctl, uint32_t offset, uint32_t *value)
{
    uint8_t request[8] = {};
    uint8_t reply[8];
    int rc;

    lhctl_put32(request, offset);
    rc = lhctl_request_fixed(ctl, PLM_IPC_OP_READ_REG, request, sizeof(request),
                             reply, sizeof(reply));
    if (rc == LHCTL_EXIT_OK)
        *value = lhctl_get32(reply + 4);
    return rc;
}

int lhctl_write_reg(struct lhctl *ctl, uint32_t offset, uint32_t value)
{
    uint8_t request[8];
    uint8_t reply[8];

    lhctl_put32(request, offset);
    lhctl_put32(request + 4, value);
    return lhctl_request_fixed(ctl, PLM_IPC_OP_WRITE_REG, request,
                               sizeof(request), reply, sizeof(reply));
}

int lhctl_set_loopback(struct lhctl *ctl, uint32_t pipe, uint32_t type)
{
    uint8_t request[8];
    uint8_t reply[8];

    lhctl_put32(request, type);
    lhctl_put32(request + 4, pipe);
    return lhctl_request_fixed(ctl, PLM_IPC_OP_SET_LOOPBACK, request,
                               sizeof(request), reply, sizeof(reply));
}

int lhctl_get_loopback(struct lhctl *ctl, uint32_t pipe, uint32_t *mask)
{
    uint8_t request[8] = {};
    uint8_t reply[8];
    int rc;

    lhctl_put32(request + 4, pipe);
    rc = lhctl_request_fixed(ctl, PLM_IPC_OP_GET_LOOPBACK, request,
                             sizeof(request), reply, sizeof(reply));
    if (rc == LHCTL_EXIT_OK)
        *mask = lhctl_get32(reply);
    return rc;
}

static void stats_request(uint8_t request[16], uint32_t module_id,
                          uint32_t pipe)
{
    memset(request, 0, 16);
    lhctl_put32(request, module_id);
    lhctl_put32(request + 4, pipe);
}

/* 16 bytes of header, then the N bytes its length field announces. */
static int decode_stats(uint32_t module_id, const struct lhctl_reply *reply,
                        struct lhctl_counters *out)
{
    const uint32_t op = PLM_IPC_OP_GET_STATS;
    int rc;

    if (reply->length < STATS_HEADER_SIZE ||
        lhctl_get64(reply->payload + 8) != reply->length - STATS_HEADER_SIZE)
        return lhctl_malformed(op, "statistics length");
    rc = lhctl_counters_decode(module_id, reply->payload + STATS_HEADER_SIZE,
                               reply->length - STATS_HEADER_SIZE, out);
    if (rc == -ENOMEM)
        return lhctl_out_of_memory();
    if (rc != 0)
        return lhctl_malformed(op, "not the module's statistics record");
    return LHCTL_EXIT_OK;
}

int lhctl_get_stats(struct lhctl *ctl, uint32_t module_id, uint32_t pipe,
                    struct lhctl_counters *out)
{
    uint8_t request[16];
    struct lhctl_reply reply;
    int rc;

    *out = lhctl_counters{};
    stats_request(request, module_id, pipe);
    rc = lhctl_request(ctl, PLM_IPC_OP_GET_STATS, request, sizeof(request),
                       &reply);
    if (rc != LHCTL_EXIT_OK)
        return rc;
    rc = decode_stats(module_id, &reply, out);
    free(reply.payload);
    return rc;
}

int lhctl_clear_stats(struct lhctl *ctl, uint32_t module_id, uint32_t pipe)
{
    uint8_t request[16];
    uint8_t reply[16];

    stats_request(request, module_id, pipe);
    return lhctl_request_fixed(ctl, PLM_IPC_OP_CLEAR_STATS, request,
                               sizeof(request), reply, sizeof(reply));
}

/* A list reply: whole entries of entry_size bytes, none when empty. */
static int request_list(struct lhctl *ctl, uint32_t op, size_t entry_size,
                        struct lhctl_reply *reply, size_t *count)
{
    int rc = lhctl_request(ctl, op, NULL, 0, reply);

    if (rc != LHCTL_EXIT_OK)
        return rc;
    if (reply->length % entry_size != 0) {
        free(reply->payload);
        return lhctl_malformed(op, "not whole entries");
    }
    *count = reply->length / entry_size;
    return LHCTL_EXIT_OK;
}

int lhctl_get_modules(struct lhctl *ctl, struct lhctl_module **list,
                      size_t *count)
{
    struct lhctl_reply reply;
    int rc = request_list(ctl, PLM_IPC_OP_GET_MODULE_LIST, MODULE_ENTRY_SIZE,
                          &reply, count);

    *list = NULL;
    if (rc != LHCTL_EXIT_OK)
        return rc;
    *list = static_cast<lhctl_module*>(calloc(*count > 0 ? *count : 1, sizeof(**list)));
    for (size_t i = 0; *list != NULL && i < *count; i++) {
        const uint8_t *entry = reply.payload + MODULE_ENTRY_SIZE * i;

        (*list)[i] = lhctl_module{
            .id = lhctl_get32(entry),
            .pipe = lhctl_get32(entry + 4),
            .state = entry[8],
        };
    }
    free(reply.payload);
    return *list != NULL ? LHCTL_EXIT_OK : lhctl_out_of_memory();
}

int lhctl_set_pipe(struct lhctl *ctl, uint32_t pipe, uint8_t state)
{
    uint8_t request[8] = {};
    uint8_t reply[8];

    lhctl_put32(request, pipe);
    request[4] = state;
    return lhctl_request_fixed(ctl, PLM_IPC_OP_SET_PIPE, request,
                               sizeof(request), reply, sizeof(reply));
}

int lhctl_get_pipes(struct lhctl *ctl, struct lhctl_pipe **list, size_t *count)
{
    struct lhctl_reply reply;
    int rc =
        request_list(ctl, PLM_IPC_OP_GET_PIPE, PIPE_ENTRY_SIZE, &reply, count);

    *list = NULL;
    if (rc != LHCTL_EXIT_OK)
        return rc;
    *list = static_cast<lhctl_pipe*>(calloc(*count > 0 ? *count : 1, sizeof(**list)));
    for (size_t i = 0; *list != NULL && i < *count; i++) {
        const uint8_t *entry = reply.payload + PIPE_ENTRY_SIZE * i;

        (*list)[i] = lhctl_pipe{
            .pipe = lhctl_get32(entry),
            .state = entry[4],
        };
    }
    free(reply.payload);
    return *list != NULL ? LHCTL_EXIT_OK : lhctl_out_of_memory();
}

int lhctl_set_qos(struct lhctl *ctl, uint32_t pipe, uint32_t profile,
                  uint32_t priority)
{
    uint8_t request[12];
    uint8_t reply[12];

    lhctl_put32(request, pipe);
    lhctl_put32(request + 4, profile);
    lhctl_put32(request + 8, priority);
    return lhctl_request_fixed(ctl, PLM_IPC_OP_SET_INGRESS_QOS, request,
                               sizeof(request), reply, sizeof(reply));
}

int lhctl_get_qos(struct lhctl *ctl, uint32_t pipe, uint32_t profile,
                  uint32_t *priority)
{
    uint8_t request[12] = {};
    uint8_t reply[12];
    int rc;

    lhctl_put32(request, pipe);
    lhctl_put32(request + 4, profile);
    rc = lhctl_request_fixed(ctl, PLM_IPC_OP_GET_INGRESS_QOS, request,
                             sizeof(request), reply, sizeof(reply));
    if (rc == LHCTL_EXIT_OK)
        *priority = lhctl_get32(reply + 8);
    return rc;
}
