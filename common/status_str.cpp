/* The tag tables of both components, indexed by code. */
#include "lh_log.hpp"
#include "plm_log.hpp"

static constexpr const char *unknown_status = "Unknown error";

/* Indexed by code; codes begin at 1. */
static constexpr const char *plm_status_texts[] = {
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

static constexpr const char *lh_status_texts[] = {
    nullptr,
    "Error",
    "Out of memory",
    "Null pointer",
    "Informational",
    "Alert",
    "PCI",
    "FATAL",
};

template <size_t N>
static const char *status_text(const char *const (&texts)[N], unsigned code)
{
    return code < N && texts[code] != nullptr ? texts[code] : unknown_status;
}

const char *plm_status_str(unsigned int code)
{
    return status_text(plm_status_texts, code);
}

const char *lh_status_str(unsigned int code)
{
    return status_text(lh_status_texts, code);
}
