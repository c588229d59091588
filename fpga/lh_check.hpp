/* Argument checks shared by the library's entry points. */
#ifndef LH_CHECK_H
#define LH_CHECK_H

#include "lh_device.hpp"
#include "lh_log.hpp"

/* Refuses a call before the bring-up set the initialised flag, with
 * "<tag> - <words>, - system not initialized". */
#define LH_REQUIRE_INITIALIZED(words, failure)                                \
    do {                                                                      \
        if (!lh_initialized.load(std::memory_order_relaxed)) {   \
            lh_log(LOG_ERR, "%s - " words ", - system not initialized",       \
                   LH_TAG(ERROR));                                            \
            return failure;                                                   \
        }                                                                     \
    } while (0)

/* Refuses a null pointer argument with "<tag> - <words>". */
#define LH_REQUIRE_POINTER(pointer, words, failure)                           \
    do {                                                                      \
        if ((pointer) == NULL) {                                              \
            lh_log(LOG_ERR, "%s - " words, LH_TAG(NULL_POINTER));             \
            return failure;                                                   \
        }                                                                     \
    } while (0)

/* Refuses a pipe not below the device's pipe count with
 * "<tag> - <words>, - invalid pipe <pipe>". */
#define LH_REQUIRE_PIPE(pipe, words, failure)                                 \
    do {                                                                      \
        if ((pipe) >= lh_get_traffic_pipe_count()) {                          \
            lh_log(LOG_ERR, "%s - " words ", - invalid pipe %d",              \
                   LH_TAG(ERROR), (pipe));                                    \
            return failure;                                                   \
        }                                                                     \
    } while (0)

/* The CSR device, or null (discovery failed or found nothing). */
static inline lh_device_desc *lh_csr_device(void)
{
    lh_device_desc *desc = NULL;

    if (lh_pci_get_csr_device(&desc) != 0)
        return NULL;
    return desc;
}

#endif
