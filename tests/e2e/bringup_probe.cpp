/* Runs discovery and the bring-up checks of the library against whatever
 * PCI bus it sees (a simulated board in the tests), then reads the image
 * timestamp register through the public API. The exit status names the
 * step that failed. */
#include <cstdint>

#include "lh_device.hpp"
#include "lh_log.hpp"

namespace {

enum class ProbeStatus : int {
    ok = 0,
    no_map = 2,
    no_pci = 3,
    no_device = 4,
    bringup_failed = 5,
    read_failed = 6,
};

ProbeStatus probe()
{
    lh_device_desc *descs = nullptr;
    lh_device_desc *desc = nullptr;
    uint32_t count = 0;
    uint32_t value = 0;

    if (lh_pci_get_map(&descs, &count) != 0 || descs == nullptr)
        return ProbeStatus::no_map;
    if (lh_pci_system_init(descs, count) != 0)
        return ProbeStatus::no_pci;
    if (lh_pci_get_csr_device(&desc) != 0 || desc == nullptr)
        return ProbeStatus::no_device;
    if (lh_bringup_checks(desc->device_type) != 0)
        return ProbeStatus::bringup_failed;
    if (lh_read_register(0x010, &value) != 0)
        return ProbeStatus::read_failed;
    return ProbeStatus::ok;
}

} // namespace

/* bringup_probe [LOG_FILE] */
int main(int argc, char **argv)
{
    log_sink_open(&lh_log_file, argc > 1 ? argv[1] : LH_LOG_DEFAULT_PATH);

    const ProbeStatus status = probe();

    log_sink_close(&lh_log_file);
    return static_cast<int>(status);
}
