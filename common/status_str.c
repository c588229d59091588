/* The tag tables of Part 1.2, indexed by code. */
#include "lh_log.h"
#include "plm_log.h"

#define ARRAY_SIZE(a) (sizeof(a) / sizeof((a)[0]))

static const char *const unknown_status = "Unknown error";

static const char *const plm_status_texts[] = {
    [PLM_STATUS_ERROR] = "Error",
    [PLM_STATUS_NO_MEMORY] = "Out of memory",
    [PLM_STATUS_NULL_POINTER] = "Null pointer",
    [PLM_STATUS_MONITOR_ENQUEUE_FAILED] = "Thread monitor enqueue failed",
    [PLM_STATUS_MONITOR_DETECTED_FAILURE] = "Thread monitor detected failure",
    [PLM_STATUS_UNRECOVERABLE] =
        "Unrecoverable program error detected, exiting",
    [PLM_STATUS_INFO] = "Informational",
    [PLM_STATUS_ALERT] = "Alert",
    [PLM_STATUS_FATAL] = "FATAL",
};

static const char *const lh_status_texts[] = {
    [LH_STATUS_ERROR] = "Error",
    [LH_STATUS_NO_MEMORY] = "Out of memory",
    [LH_STATUS_NULL_POINTER] = "Null pointer",
    [LH_STATUS_INFO] = "Informational",
    [LH_STATUS_ALERT] = "Alert",
    [LH_STATUS_PCI] = "PCI",
    [LH_STATUS_FATAL] = "FATAL",
};

static const char *status_text(const char *const *texts, size_t count,
                               unsigned int code)
{
    if (code >= count || texts[code] == NULL)
        return unknown_status;
    return texts[code];
}

const char *plm_status_str(unsigned int code)
{
    return status_text(plm_status_texts, ARRAY_SIZE(plm_status_texts), code);
}

const char *lh_status_str(unsigned int code)
{
    return status_text(lh_status_texts, ARRAY_SIZE(lh_status_texts), code);
}
