/* Runs discovery and the bring-up checks of the library against whatever
 * PCI bus it sees (a simulated board in the tests), then reads the image
 * timestamp register through the public API. The exit status names the
 * step that failed. */
#include <stdio.h>

#include "lh_device.hpp"
#include "lh_log.hpp"

enum probe_status {
    PROBE_OK = 0,
    PROBE_NO_MAP = 2,
    PROBE_NO_PCI = 3,
    PROBE_NO_DEVICE = 4,
    PROBE_BRINGUP_FAILED = 5,
    PROBE_READ_FAILED = 6,
};

int main(int argc, char **argv)
{
    lh_device_desc *descs = NULL;
    lh_device_desc *desc = NULL;
    uint32_t count = 0;
    uint32_t value;

    log_sink_open(&lh_log_file, argc > 1 ? argv[1] : LH_LOG_DEFAULT_PATH);
    if (lh_pci_get_map(&descs, &count) != 0 || descs == NULL)
        return PROBE_NO_MAP;
    if (lh_pci_system_init(descs, count) != 0)
        return PROBE_NO_PCI;
    if (lh_pci_get_csr_device(&desc) != 0 || desc == NULL)
        return PROBE_NO_DEVICE;
    if (lh_bringup_checks(desc->device_type) != 0)
        return PROBE_BRINGUP_FAILED;
    if (lh_read_register(0x010, &value) != 0)
        return PROBE_READ_FAILED;
    log_sink_close(&lh_log_file);
    return PROBE_OK;
}
