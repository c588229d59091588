/* The IPC server: the thread that owns the daemon's IPC context, the
 * receive callback, the request length check and the senders of replies
 * and error replies. */
#ifndef PLM_IPC_SERVER_H
#define PLM_IPC_SERVER_H

#include <utility>

#include "ipc_msg.hpp"
#include "owned.hpp"

namespace plm
{

/* A payload that crosses the transport's C interface: malloc-backed, freed
 * with its owner unless released to a reply. */
using Payload = pellin::Malloced<uint8_t>;

/* A message that a failing client could repeat for every request: the
 * first of each interval is logged, the rest are counted and their number
 * given with the next one logged. */
class LogThrottle
{
  public:
    static constexpr int64_t interval_ms = 60000;

    /* Whether the event at `now_ms` is logged; `*unlogged` is then the
     * number held back since the last one logged. */
    bool admit(int64_t now_ms, uint64_t *unlogged)
    {
        if (now_ms < next_ms_) {
            held_back_++;
            return false;
        }
        next_ms_ = now_ms + interval_ms;
        *unlogged = std::exchange(held_back_, 0);
        return true;
    }

  private:
    int64_t next_ms_ = INT64_MIN; /* the first is always logged */
    uint64_t held_back_ = 0;
};

} // namespace plm

/* The daemon's IPC context, written once by the IPC thread. */
extern uint64_t plm_ipc_context;

int plm_ipc_server_init(void);
void *plm_ipc_server_thread(void *arg);
void plm_ipc_server_callback(void *unused, plm_ipc_msg *msg);

/* True when the request's length is exactly `expected_len` and it has a
 * payload; otherwise the error reply has been sent (codes 1, 2). */
bool plm_ipc_check_recv_length(plm_ipc_msg *msg, uint32_t expected_len);

void plm_send_error_msg(plm_ipc_msg *msg, uint32_t code);

/* Answers `request` with `payload` (heap, taken over; null when `length`
 * is 0). */
void plm_send_reply(const plm_ipc_msg *request, void *payload, uint32_t length);

#endif
