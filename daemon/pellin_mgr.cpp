#include "pellin_mgr.hpp"

#include <stdlib.h>
#include <sys/resource.h>
#include <unistd.h>

#include <span>

#include "ipc_server.hpp"
#include "lh_fpga.h"
#include "plat_board.h"
#include "plat_notify.h"
#include "plm_log.hpp"
#include "sys_poll.hpp"
#include "thread_monitor.hpp"

constexpr plm_qos_default plm_qos_default_table[PLM_QOS_DEFAULT_COUNT] = {
    {0, 5, LH_QOS_PRIO_HIGH}, {0, 4, LH_QOS_PRIO_MED}, {0, 3, LH_QOS_PRIO_MED},
    {0, 2, LH_QOS_PRIO_LOW},  {0, 0, LH_QOS_PRIO_LOW}, {1, 5, LH_QOS_PRIO_HIGH},
    {1, 4, LH_QOS_PRIO_MED},  {1, 3, LH_QOS_PRIO_MED}, {1, 2, LH_QOS_PRIO_LOW},
    {1, 0, LH_QOS_PRIO_LOW},
};

void plm_qos_default_table_get(const plm_qos_default **table_out,
                               uint32_t *count_out)
{
    if (table_out == NULL || count_out == NULL)
        return;
    *table_out = plm_qos_default_table;
    *count_out = PLM_QOS_DEFAULT_COUNT;
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

/* The parser blocks (id 5 on the base image, 13 on LHX: bit 3 apart) get
 * the table's rows of their pipe, in table order. */
static void provision_qos(const lh_module_entry *list)
{
    for (; list != NULL && list->module_id != LH_MOD_END; list++) {
        if ((list->module_id & ~8u) != LH_MOD_INGRESS_PKT_PARSER)
            continue;
        const plm_qos_default *table = NULL;
        uint32_t count = 0;
        plm_qos_default_table_get(&table, &count);
        for (const plm_qos_default &row : std::span(table, count))
            if (row.pipe == list->pipe &&
                lh_set_ingress_qos(list->pipe,
                                   {row.profile_id, row.priority}) != 0)
                plm_log(LOG_ERR, "%s - Failed to set QoS profile for pipe %d",
                        PLM_TAG(ERROR), list->pipe);
    }
}

static void enable_pipes(void)
{
    const uint32_t count = lh_get_traffic_pipe_count();
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
        plat_notify_alive();
        sleep(PLM_SUPERVISION_PERIOD_S);
        if (const auto *ended = plm_thread_monitor_find_ended()) {
            plm_log(LOG_CRIT, "%s: %s", ended->name,
                    PLM_TAG(MONITOR_DETECTED_FAILURE));
            return;
        }
    }
}

int plm_main(void)
{
    /* Board type 4 or 5; the type is read a second time for the second
     * value, as the shipped daemon does. */
    if ((get_platform_board_type() != 4 && get_platform_board_type() != 5) ||
        is_bramble_sim()) {
        const int ignored = system(PLM_SERVICE_DOWN_COMMAND);
        (void)ignored;
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
    const lh_module_entry *list = NULL;
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
