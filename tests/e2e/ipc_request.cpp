/* Sends one request to the daemon and prints the reply:
 *   ipc_request SOCKET OP_ID [WORD...]
 * OP_ID and the 32-bit payload words in any strtoul base (0xdb0002 0x10).
 * Prints "op 0x%x len %u:" and the payload bytes in hex; exit 0 on a
 * reply, 1 on an error reply (its code is printed), 3 on no answer. */
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "plat_ipc.h"

namespace {

constexpr int timeout_ms = 3000;
constexpr int max_words = 8;
constexpr uint32_t error_reply_op = 0xdb0001;

void print_reply(const ipc_msg_t &reply)
{
    const auto *bytes = static_cast<const uint8_t *>(reply.payload);

    std::printf("op 0x%x len %u:", reply.op_id, reply.payload_len);
    for (uint32_t i = 0; i < reply.payload_len; i++)
        std::printf(" %02x", bytes[i]);
    std::printf("\n");
}

uint32_t number(const char *text)
{
    return static_cast<uint32_t>(std::strtoul(text, nullptr, 0));
}

} // namespace

int main(int argc, char **argv)
{
    if (argc < 3 || argc - 3 > max_words) {
        std::fprintf(stderr, "usage: ipc_request SOCKET OP_ID [WORD...]\n");
        return 2;
    }

    std::vector<uint32_t> words;
    for (int i = 3; i < argc; i++)
        words.push_back(number(argv[i]));

    ipc_msg_t request{};
    request.op_id = number(argv[2]);
    request.msg_type = 1;
    request.payload_len = static_cast<uint32_t>(4 * words.size());
    request.payload = words.empty() ? nullptr : words.data();

    struct ipc_client *client = nullptr;
    int result = ipc_client_open(argv[1], &client);
    if (result != 0) {
        std::fprintf(stderr, "ipc_request: %s: %s\n", argv[1],
                     std::strerror(-result));
        return 3;
    }

    ipc_msg_t reply{};
    result = ipc_client_send(client, &request);
    if (result == 0)
        result = ipc_client_recv(client, &reply, timeout_ms);
    ipc_client_close(client);
    if (result != 0) {
        std::fprintf(stderr, "ipc_request: no answer (%s)\n",
                     std::strerror(-result));
        return 3;
    }
    print_reply(reply);
    result = reply.op_id == error_reply_op ? 1 : 0;
    std::free(reply.payload);
    return result;
}
