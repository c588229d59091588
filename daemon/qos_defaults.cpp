#include "qos_defaults.hpp"

#include <stddef.h>

#include "lh_fpga.h"

constexpr plm_qos_default plm_qos_default_table[PLM_QOS_DEFAULT_COUNT] = {
    { 0, 5, LH_QOS_PRIO_HIGH }, { 0, 4, LH_QOS_PRIO_MED },
    { 0, 3, LH_QOS_PRIO_MED },  { 0, 2, LH_QOS_PRIO_LOW },
    { 0, 0, LH_QOS_PRIO_LOW },  { 1, 5, LH_QOS_PRIO_HIGH },
    { 1, 4, LH_QOS_PRIO_MED },  { 1, 3, LH_QOS_PRIO_MED },
    { 1, 2, LH_QOS_PRIO_LOW },  { 1, 0, LH_QOS_PRIO_LOW },
};

void plm_qos_default_table_get(const plm_qos_default **table_out,
                               uint32_t *count_out)
{
    if (table_out == NULL || count_out == NULL)
        return;
    *table_out = plm_qos_default_table;
    *count_out = PLM_QOS_DEFAULT_COUNT;
}
