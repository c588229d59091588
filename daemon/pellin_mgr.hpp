/* Daemon start-up and supervision. */
#ifndef PLM_PELLIN_MGR_H
#define PLM_PELLIN_MGR_H

#include <stdint.h>

#define PLM_SERVICE_DOWN_COMMAND "keeper_svc down pellin_mgr"
#define PLM_SUPERVISION_PERIOD_S 3
#define PLM_QOS_DEFAULT_COUNT    10

/* A row of the start-up QoS table, applied to every ingress parser. */
typedef struct {
    uint32_t pipe;
    uint32_t profile_id;
    uint32_t priority;
} plm_qos_default;

/* Stores the table's address and its row count; nothing when either
 * pointer is null. */
void plm_qos_default_table_get(const plm_qos_default **table_out,
                               uint32_t *count_out);

/* The whole life of the daemon: 0 when the board is not served, -1 after
 * an unrecoverable error; otherwise it does not return. */
int plm_main(void);

#endif
