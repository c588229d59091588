/* Daemon start-up and supervision. */
#include "pellin_mgr.hpp"

#include <stdlib.h>
#include <sys/resource.h>
#include <unistd.h>

#include "ipc_server.hpp"
#include "lh_fpga.h"
#include "plat_board.h"
#include "plat_notify.h"
#include "plm_log.hpp"
#include "qos_defaults.hpp"
#include "sys_poll.hpp"
#include "thread_monitor.hpp"

/* Board type 4 or 5; the type is read a second time for the second value,
 * as the shipped daemon does. */
static int board_is_served(void)
{
    return get_platform_board_type() == 4 || get_platform_board_type() == 5;
}

static void take_service_down(void)
{
    /* The result is not looked at. */
    int ignored = system(PLM_SERVICE_DOWN_COMMAND);
    (void)ignored;
}

/* Each IPC client holds a descriptor: the soft limit goes up to the hard
 * one, so that clients are limited by what the system allows. */
static void raise_open_file_limit(void)
{
    struct rlimit lim;

    if (getrlimit(RLIMIT_NOFILE, &lim) == 0 && lim.rlim_cur < lim.rlim_max) {
        lim.rlim_cur = lim.rlim_max;
        setrlimit(RLIMIT_NOFILE, &lim);
    }
}

static int unrecoverable(void)
{
    plm_log(LOG_CRIT, "%s - Unrecoverable error", PLM_TAG(UNRECOVERABLE));
    log_sink_close(&plm_log_file);
    lh_fpga_shutdown();
    return -1;
}

/* The parser blocks: id 5 on the base image, 13 on LHX (bit 3 apart). */
static int is_parser_block(uint32_t module_id)
{
    return (module_id & ~8u) == LH_MOD_INGRESS_PKT_PARSER;
}

static void provision_parser(uint32_t pipe)
{
    const plm_qos_default *table = NULL;
    uint32_t count = 0;

    plm_qos_default_table_get(&table, &count);
    for (uint32_t row = 0; row < count; row++) {
        lh_qos_profile_t qos = { table[row].profile_id, table[row].priority };

        if (table[row].pipe != pipe)
            continue;
        if (lh_set_ingress_qos(pipe, qos) != 0)
            plm_log(LOG_ERR, "%s - Failed to set QoS profile for pipe %d",
                    PLM_TAG(ERROR), pipe);
    }
}

static void provision_qos(const lh_module_entry *list)
{
    for (; list != NULL && list->module_id != LH_MOD_END; list++)
        if (is_parser_block(list->module_id))
            provision_parser(list->pipe);
}

static void enable_pipes(void)
{
    uint32_t count = lh_get_traffic_pipe_count();

    plm_log(LOG_INFO, "%s - Found %d traffic pipes", PLM_TAG(INFO), count);
    for (uint32_t pipe = 0; pipe != count; pipe++) {
        if (lh_set_traffic_pipe_state(pipe, 1) != 0)
            plm_log(LOG_CRIT, "%s - Failed to enable traffc pipe %d",
                    PLM_TAG(ERROR), pipe);
        else
            plm_log(LOG_INFO, "%s - Traffic pipe %d enabled", PLM_TAG(INFO),
                    pipe);
    }
}

/* Returns only when a monitored thread has ended. Each round tells the
 * service manager's watchdog that the loop still runs. */
static void supervise(void)
{
    for (;;) {
        plm_thread_monitor_entry *ended;

        plat_notify_alive();
        sleep(PLM_SUPERVISION_PERIOD_S);
        ended = plm_thread_monitor_find_ended();
        if (ended != NULL) {
            plm_log(LOG_CRIT, "%s: %s", ended->name,
                    PLM_TAG(MONITOR_DETECTED_FAILURE));
            return;
        }
    }
}

int plm_main(void)
{
    const lh_module_entry *list = NULL;

    if (!board_is_served() || is_bramble_sim()) {
        take_service_down();
        return 0;
    }
    raise_open_file_limit();
    /* A log that cannot be opened leaves syslog alone. */
    log_sink_open(&plm_log_file, PLM_LOG_PATH);
    plm_thread_monitor_init();
    plm_log(LOG_INFO, "%s - LH FPGA initialization start", PLM_TAG(INFO));
    if (lh_fpga_init(PLM_LOG_PATH) != 0) {
        plm_log(LOG_CRIT, "%s - Failed to initialize FPGA",
                PLM_TAG(UNRECOVERABLE));
        return unrecoverable();
    }
    plm_log(LOG_INFO, "%s - LH FPGA initialization complete", PLM_TAG(INFO));
    if (lh_get_module_list(&list) != 0) {
        plm_log(LOG_CRIT, "%s - Failed to retrieve module list",
                PLM_TAG(UNRECOVERABLE));
        return unrecoverable();
    }
    provision_qos(list);
    enable_pipes();
    if (plm_sys_poll_init() != 0 || plm_ipc_server_init() != 0)
        return unrecoverable();
    supervise();
    return unrecoverable();
}
