#include "sys_poll.hpp"

#include <pthread.h>
#include <stdlib.h>
#include <unistd.h>

#include "ipc_server.hpp"
#include "plm_log.hpp"
#include "thread_monitor.hpp"

constinit std::atomic<uint8_t> plm_fatal_flag{0};
constinit std::atomic<uint8_t> plm_fatal_reported{0};

namespace
{

constexpr useconds_t poll_interval_us = 500000;

constinit pthread_t poll_thread = {};

const char *pipe_state_name(uint8_t state)
{
    return state != 0 ? "UP" : "DOWN";
}

/* A module already failed when the daemon starts raises the alarm too. */
void scan_failed_modules(void)
{
    const lh_module_entry *list = NULL;
    lh_get_module_list(&list);
    for (; list != NULL && list->module_id != LH_MOD_END; list++) {
        uint8_t state = 0;
        if (lh_get_module_state(*list, &state) == 0 && state != 0) {
            plm_fatal_flag.store(1);
            return;
        }
    }
}

} // namespace

void plm_fatal_error_handler(lh_fatal_error_t report)
{
    plm_fatal_flag.store(1);
    if (report.module_id >= LH_MOD_COUNT)
        plm_log(LOG_CRIT,
                "NPU fatal error handler: (unknown module) %d pipe %d (%s)",
                report.module_id, report.pipe, report.error_text);
    else
        plm_log(LOG_CRIT, "NPU fatal error handler: %s pipe %d (%s)",
                lh_module_names[report.module_id], report.pipe,
                report.error_text);
}

void plm_sys_poll_pass(uint8_t *last, uint32_t count)
{
    if (plm_fatal_reported.load() == 0 && plm_fatal_flag.load() == 1) {
        plm_fatal_reported.store(1);
        plm_log(LOG_CRIT, "%s - Pellin FAILED", PLM_TAG(FATAL));
    }
    for (uint32_t pipe = 0; pipe < count; pipe++) {
        uint8_t state;
        if (lh_get_traffic_pipe_state(pipe, &state) != 0 || state == last[pipe])
            continue;
        last[pipe] = state;
        plm_log(LOG_INFO, "%s - traffic pipe %d changed to %s", PLM_TAG(INFO),
                pipe, pipe_state_name(state));
    }
}

uint8_t *plm_sys_poll_setup(uint32_t *count_out)
{
    const uint32_t count = lh_get_traffic_pipe_count();
    /* One byte even for no pipe, so that 0 pipes is not a failure. */
    auto *last = static_cast<uint8_t *>(calloc(count > 0 ? count : 1, 1));

    if (last == NULL) {
        plm_log(LOG_CRIT, "%s: PLM sys poll thread", PLM_TAG(NO_MEMORY));
        return NULL;
    }
    for (uint32_t pipe = 0; pipe < count; pipe++) {
        lh_get_traffic_pipe_state(pipe, &last[pipe]);
        plm_log(LOG_INFO, "%s - traffic pipe %d is %s", PLM_TAG(INFO), pipe,
                pipe_state_name(last[pipe]));
    }
    lh_register_fatal_error_cb(plm_fatal_error_handler);
    scan_failed_modules();
    *count_out = count;
    return last;
}

void *plm_sys_poll_thread(void *)
{
    uint32_t count = 0;
    pthread_setname_np(pthread_self(), "plm_sys_poll");
    const plm::Payload last(plm_sys_poll_setup(&count));
    if (!last)
        return NULL;
    for (;;) {
        plm_sys_poll_pass(last.get(), count);
        usleep(poll_interval_us);
    }
}

int plm_sys_poll_init(void)
{
    return plm_start_monitored_thread(&poll_thread, plm_sys_poll_thread,
                                      "system poll", "pellin sys poll",
                                      __func__);
}
