/* Register access and bring-up checks. */
#include <stdlib.h>

#include "lh_check.hpp"
#include "lh_regs.hpp"

/* Registers common to both images, from the window base. */
constexpr lh::Reg revision_reg{0x000};
constexpr lh::Reg image_timestamp_reg{0x010};
constexpr lh::Reg scratch_reg{0x0FC};

constexpr const char *setpci_command = "setpci -d 1c7a:1d9 COMMAND=0x2";

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

constexpr access_words read_words = {"read register failed",
                                     "read register failed"};
constexpr access_words write_words = {"write register failed",
                                      "writing register failed"};

static bool word_aligned(uint32_t offset, const access_words &words)
{
    if (offset % 4 == 0)
        return true;
    lh_log(LOG_ERR, "%s - %s, - offset not word aligned", LH_TAG(ERROR),
           words.failed);
    return false;
}

static bool inside_window(const lh_device_desc *desc, uint32_t offset,
                          const access_words &words)
{
    if (uint64_t{offset} <= desc->window_size - 4)
        return true;
    lh_log(LOG_ERR, "%s - %s, - offset too large", LH_TAG(ERROR),
           words.bound_failed);
    return false;
}

int lh_read_register(uint32_t offset, uint32_t *value_out)
{
    lh_device_desc *desc = nullptr;

    if (!(lh::initialized("read register failed") &&
          lh::present(value_out, "read register") &&
          word_aligned(offset, read_words) && lh::csr_device_found(desc) &&
          inside_window(desc, offset, read_words)))
        return -1;
    *value_out = lh::Window(desc->mapped_base).read(lh::Reg{offset});
    lh_log(LOG_DEBUG, "read register - addr 0x%08x, data 0x%08x",
           logged_address(desc, offset), *value_out);
    return 0;
}

int lh_write_register(uint32_t offset, uint32_t value)
{
    lh_device_desc *desc = nullptr;

    if (!(lh::initialized("write register failed") &&
          word_aligned(offset, write_words) && lh::csr_device_found(desc) &&
          inside_window(desc, offset, write_words)))
        return -1;
    lh::Window(desc->mapped_base).write(lh::Reg{offset}, value);
    lh_log(LOG_DEBUG, "wrote register - addr 0x%08x, data 0x%08x",
           logged_address(desc, offset), value);
    return 0;
}

/* Walks a single one through the scratch register; after a pass it holds
 * 0x80000000. */
static int scratch_test(lh::Window window)
{
    for (unsigned int bit = 0; bit < 32; bit++) {
        uint32_t pattern = 1u << bit;

        window.write(scratch_reg, pattern);
        if (window.read(scratch_reg) != pattern) {
            lh_log(LOG_CRIT, "%s - scratch register test failed",
                   LH_TAG(PCI));
            return -1;
        }
    }
    return 0;
}

/* The timestamp holds year, month, day and hour as two decimal digits a
 * byte, printed as hexadecimal. */
static void report_revision(lh::Window window)
{
    constexpr lh::Bits year{24, 8}, month{16, 8}, day{8, 8}, hour{0, 8};
    uint32_t revision = window.read(revision_reg);
    uint32_t stamp = window.read(image_timestamp_reg);

    lh_log(LOG_INFO,
           "revision: 0x%08x, image timestamp (M/D/Y Hour): "
           "%02x/%02x/20%02x %02x:00",
           revision, month.of(stamp), day.of(stamp), year.of(stamp),
           hour.of(stamp));
}

int lh_bringup_checks(uint32_t device_type)
{
    lh_device_desc *desc = nullptr;

    if (device_type == LH_DEV_TYPE_LHX) {
        /* Memory space enable; the result is not looked at. */
        int ignored = system(setpci_command);
        (void)ignored;
    }
    if (!lh::csr_device_found(desc) || scratch_test(desc->mapped_base) != 0)
        return -1;
    report_revision(desc->mapped_base);
    lh_initialized.store(1, std::memory_order_relaxed);
    return 0;
}
