/* The platform IPC library as the daemon's unit tests set it: every sent
 * record is kept with a copy of its payload, and ipc_recv returns what the
 * test scripted. */
#ifndef FAKE_IPC_HPP
#define FAKE_IPC_HPP

#include <stddef.h>
#include <stdint.h>

#include <vector>

#include "ipc_msg.hpp"

struct FakeSent {
    /* The record as sent; its payload pointer was freed by the send, the
     * bytes are kept in `payload`. */
    plm_ipc_msg record;
    std::vector<uint8_t> payload;
};

struct FakeIpc {
    int send_result = 0;
    int add_endpoint_result = 0;
    /* What each ipc_recv returns, in turn; past the last one the calling
     * thread ends, so a test can join the IPC server thread. */
    std::vector<int> recv_results;
    size_t recv_calls = 0;
    std::vector<FakeSent> sent;
};

extern FakeIpc fake_ipc;

void fake_ipc_reset();

#endif
