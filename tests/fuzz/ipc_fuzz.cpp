/* libFuzzer: bytes as a client sends them, read by the transport's frame
 * reader in pieces of a size the input chooses, each whole message handed
 * to the daemon's IPC callback and dispatcher over the fake library.
 * Input: one byte choosing how the library answers, one the piece size,
 * then the stream. */
#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>

#include "fake_ipc.hpp"
#include "fake_lh.hpp"
#include "ipc_server.hpp"
#include "ipc_transport.hpp"
#include "syslog_capture.hpp"

namespace
{

constexpr lh_module_entry kModules[] = {
    {LH_MOD_GLOBAL, 0}, {LH_MOD_CAUI, 0},
    {LH_MOD_NIC, 0},    {LH_MOD_INGRESS_PKT_PARSER, 0},
    {LH_MOD_NIC, 1},    {LH_MOD_END, 0},
};

/* The library as the first byte says: every call fails, one call fails,
 * or all succeed; the register and statistics values vary with it. */
void set_library(uint8_t mode)
{
    fake_lh_reset();
    fake_lh.module_list = kModules;
    fake_lh.pipe_count = 2;
    fake_lh.result = (mode & 1) != 0 ? -1 : 0;
    fake_lh.fail_call = (mode >> 1) & 3;
    fake_lh.module_list_result = (mode & 8) != 0 ? -1 : 0;
    fake_lh.register_value = mode * 0x01010101u;
    fake_lh.stats_fill = mode;
}

/* The stream, at most `piece` bytes per read. */
struct Stream {
    const uint8_t *next;
    size_t left;
    size_t piece;

    ssize_t operator()(void *buf, size_t len)
    {
        size_t n = std::min({len, left, piece});

        if (n == 0)
            return 0;
        memcpy(buf, next, n);
        next += n;
        left -= n;
        return static_cast<ssize_t>(n);
    }
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 2)
        return 0;
    set_library(data[0]);
    fake_ipc_reset();
    syslog_capture_reset();
    Stream stream{data + 2, size - 2, static_cast<size_t>(data[1] % 64) + 1};
    plat::ipc::FrameReader reader;

    while (reader.fill(stream) == 1) {
        ipc_msg_t msg;

        reader.take(&msg);
        msg.addr0 = 1;
        msg.addr1 = PLM_IPC_APP_ID;
        plm_ipc_server_callback(nullptr, &msg);
        free(msg.payload);
        fake_ipc.sent.clear();
        fake_lh.calls.clear();
    }
    return 0;
}
