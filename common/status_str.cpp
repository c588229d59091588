/* The tag tables of both components, indexed by code. */
#include "lh_log.hpp"
#include "plm_log.hpp"

#define ARRAY_SIZE(a) (sizeof(a) / sizeof((a)[0]))

static const char *const unknown_status = "Unknown error";

/* Indexed by code; codes begin at 1. */
static const char *const plm_status_texts[] = {
    nullptr,
    "Error",
    "Out of memory",
    "Null pointer",
    "Thread monitor enqueue failed",
    "Thread monitor detected failure",
    "Unrecoverable program error detected, exiting",
    "Informational",
    "Alert",
    "FATAL",
};

static const char *const lh_status_texts[] = {
    nullptr,
    "Error",
    "Out of memory",
    "Null pointer",
    "Informational",
    "Alert",
    "PCI",
    "FATAL",
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
