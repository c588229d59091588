/* The start-up QoS table: (pipe, profile id, priority) rows
 * applied to every ingress parser block. */
#ifndef PLM_QOS_DEFAULTS_H
#define PLM_QOS_DEFAULTS_H

#include <stdint.h>

typedef struct {
    uint32_t pipe;
    uint32_t profile_id;
    uint32_t priority;
} plm_qos_default;

#define PLM_QOS_DEFAULT_COUNT 10

/* Stores the table's address and its row count; nothing when either
 * pointer is null. */
void plm_qos_default_table_get(const plm_qos_default **table_out,
                               uint32_t *count_out);

#endif
