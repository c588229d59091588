/* Register access and bring-up checks. */
#include <stdlib.h>

#include "lh_check.hpp"
#include "lh_regs.hpp"

/* Registers common to both images, from the window base. */
#define LH_REG_REVISION 0x000
#define LH_REG_IMAGE_TIMESTAMP 0x010
#define LH_REG_SCRATCH 0x0FC

#define LH_SETPCI_COMMAND "setpci -d 1c7a:1d9 COMMAND=0x2"

/* The logged address follows region 0 whichever BAR is mapped (on the LHX
 * image too: kept as shipped). */
static uint32_t logged_address(const lh_device_desc *desc, uint32_t offset)
{
    return (uint32_t)desc->device->regions[0].base_addr + offset;
}

/* What the access checks say for reads or writes (the write's bound
 * message says "writing", unlike the others). */
struct access_words {
    const char *failed;
    const char *bound_failed;
};

static const struct access_words read_words = { "read register failed",
                                                "read register failed" };
static const struct access_words write_words = { "write register failed",
                                                 "writing register failed" };

/* The CSR device when `offset` is a word inside its window, else null
 * (logged, except a failed device lookup, which is silent). */
static lh_device_desc *checked_window(uint32_t offset,
                                      const struct access_words *words)
{
    lh_device_desc *desc;

    if (offset % 4 != 0) {
        lh_log(LOG_ERR, "%s - %s, - offset not word aligned", LH_TAG(ERROR),
               words->failed);
        return NULL;
    }
    desc = lh_csr_device();
    if (desc == NULL)
        return NULL;
    if ((uint64_t)offset > desc->window_size - 4) {
        lh_log(LOG_ERR, "%s - %s, - offset too large", LH_TAG(ERROR),
               words->bound_failed);
        return NULL;
    }
    return desc;
}

int lh_read_register(uint32_t offset, uint32_t *value_out)
{
    lh_device_desc *desc;

    LH_REQUIRE_INITIALIZED("read register failed", -1);
    LH_REQUIRE_POINTER(value_out, "read register", -1);
    desc = checked_window(offset, &read_words);
    if (desc == NULL)
        return -1;
    *value_out = lh_reg_read(desc->mapped_base, offset);
    lh_log(LOG_DEBUG, "read register - addr 0x%08x, data 0x%08x",
           logged_address(desc, offset), *value_out);
    return 0;
}

int lh_write_register(uint32_t offset, uint32_t value)
{
    lh_device_desc *desc;

    LH_REQUIRE_INITIALIZED("write register failed", -1);
    desc = checked_window(offset, &write_words);
    if (desc == NULL)
        return -1;
    lh_reg_write(desc->mapped_base, offset, value);
    lh_log(LOG_DEBUG, "wrote register - addr 0x%08x, data 0x%08x",
           logged_address(desc, offset), value);
    return 0;
}

/* Walks a single one through the scratch register; after a pass it holds
 * 0x80000000. */
static int scratch_test(volatile void *window)
{
    for (unsigned int bit = 0; bit < 32; bit++) {
        uint32_t pattern = 1u << bit;

        lh_reg_write(window, LH_REG_SCRATCH, pattern);
        if (lh_reg_read(window, LH_REG_SCRATCH) != pattern) {
            lh_log(LOG_CRIT, "%s - scratch register test failed",
                   LH_TAG(PCI));
            return -1;
        }
    }
    return 0;
}

/* The timestamp holds year, month, day and hour as two decimal digits a
 * byte, printed as hexadecimal. */
static void report_revision(volatile void *window)
{
    uint32_t revision = lh_reg_read(window, LH_REG_REVISION);
    uint32_t stamp = lh_reg_read(window, LH_REG_IMAGE_TIMESTAMP);

    lh_log(LOG_INFO,
           "revision: 0x%08x, image timestamp (M/D/Y Hour): "
           "%02x/%02x/20%02x %02x:00",
           revision, lh_field_get(stamp, 16, 8), lh_field_get(stamp, 8, 8),
           lh_field_get(stamp, 24, 8), lh_field_get(stamp, 0, 8));
}

int lh_bringup_checks(uint32_t device_type)
{
    lh_device_desc *desc;

    if (device_type == LH_DEV_TYPE_LHX) {
        /* Memory space enable; the result is not looked at. */
        int ignored = system(LH_SETPCI_COMMAND);
        (void)ignored;
    }
    desc = lh_csr_device();
    if (desc == NULL)
        return -1;
    if (scratch_test(desc->mapped_base) != 0)
        return -1;
    report_revision(desc->mapped_base);
    lh_initialized.store(1, std::memory_order_relaxed);
    return 0;
}
