/* Sends one request to the daemon and prints the reply:
 *   ipc_request SOCKET OP_ID [WORD...]
 * OP_ID and the 32-bit payload words in any strtoul base (0xdb0002 0x10).
 * Prints "op 0x%x len %u:" and the payload bytes in hex; exit 0 on a
 * reply, 1 on an error reply (its code is printed), 3 on no answer. */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "plat_ipc.h"

#define TIMEOUT_MS 3000
#define MAX_WORDS 8

static void print_reply(const ipc_msg_t *reply)
{
    const uint8_t *bytes = reply->payload;

    printf("op 0x%x len %u:", reply->op_id, reply->payload_len);
    for (uint32_t i = 0; i < reply->payload_len; i++)
        printf(" %02x", bytes[i]);
    printf("\n");
}

int main(int argc, char **argv)
{
    uint32_t words[MAX_WORDS];
    ipc_msg_t request = { .msg_type = 1 };
    ipc_msg_t reply;
    struct ipc_client *client;
    int count = argc - 3;
    int result;

    if (argc < 3 || count > MAX_WORDS) {
        fprintf(stderr, "usage: ipc_request SOCKET OP_ID [WORD...]\n");
        return 2;
    }
    for (int i = 0; i < count; i++)
        words[i] = (uint32_t)strtoul(argv[3 + i], NULL, 0);
    request.op_id = (uint32_t)strtoul(argv[2], NULL, 0);
    request.payload_len = 4u * (uint32_t)count;
    request.payload = count > 0 ? words : NULL;
    result = ipc_client_open(argv[1], &client);
    if (result != 0) {
        fprintf(stderr, "ipc_request: %s: %s\n", argv[1], strerror(-result));
        return 3;
    }
    result = ipc_client_send(client, &request);
    if (result == 0)
        result = ipc_client_recv(client, &reply, TIMEOUT_MS);
    ipc_client_close(client);
    if (result != 0) {
        fprintf(stderr, "ipc_request: no answer (%s)\n", strerror(-result));
        return 3;
    }
    print_reply(&reply);
    result = reply.op_id == 0xdb0001 ? 1 : 0;
    free(reply.payload);
    return result;
}
