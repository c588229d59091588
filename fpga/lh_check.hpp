/* Argument checks shared by the library's entry points. Each logs its own
 * refusal and answers whether the call may go on, so that a call's checks
 * read as one expression in their fixed order. */
#ifndef LH_CHECK_H
#define LH_CHECK_H

#include "lh_device.hpp"
#include "lh_log.hpp"

namespace lh {

/* A call before the bring-up set the initialised flag is refused with
 * "<tag> - <words>, - system not initialized". */
inline bool initialized(const char *words)
{
    if (lh_initialized.load(std::memory_order_relaxed))
        return true;
    lh_log(LOG_ERR, "%s - %s, - system not initialized", LH_TAG(ERROR), words);
    return false;
}

/* A null pointer argument is refused with "<tag> - <words>". */
inline bool present(const void *pointer, const char *words)
{
    if (pointer != nullptr)
        return true;
    lh_log(LOG_ERR, "%s - %s", LH_TAG(NULL_POINTER), words);
    return false;
}

/* A pipe not below the device's pipe count is refused with
 * "<tag> - <words>, - invalid pipe <pipe>". */
inline bool pipe_exists(uint32_t pipe, const char *words)
{
    if (pipe < lh_get_traffic_pipe_count())
        return true;
    lh_log(LOG_ERR, "%s - %s, - invalid pipe %d", LH_TAG(ERROR), words, pipe);
    return false;
}

/* The CSR device, or null (discovery failed or found nothing). */
inline lh_device_desc *csr_device()
{
    lh_device_desc *desc = nullptr;

    return lh_pci_get_csr_device(&desc) == 0 ? desc : nullptr;
}

/* The CSR device into `desc`, or false, silently. */
inline bool csr_device_found(lh_device_desc *&desc)
{
    desc = csr_device();
    return desc != nullptr;
}

} // namespace lh

#endif
