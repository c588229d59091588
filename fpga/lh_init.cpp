/* Library initialisation and shutdown. */
#include "lh_block_ops.hpp"
#include "lh_check.hpp"
#include "lh_regs.hpp"

/* Creates the context of every block in the descriptor's module list, at
 * the window base plus the block's offset. */
static int create_block_contexts(const lh_device_desc *desc,
                                 uint32_t device_type)
{
    const lh_module_entry *entry;

    for (entry = desc->module_list; entry->module_id != LH_MOD_END; entry++) {
        const struct lh_block_site *site = lh_block_site(entry->module_id);
        uint32_t offset;

        if (site == NULL || site->device_type != device_type ||
            site->ops == NULL) {
            /* The "Null pointer" tag and the spelling are kept as shipped. */
            lh_log(LOG_ERR,
                   "%s - unsupported module %d encountered during "
                   "initializtion",
                   LH_TAG(NULL_POINTER), entry->module_id);
            continue;
        }
        if (site->per_pipe && entry->pipe >= LH_MAX_PIPES)
            continue;
        offset = site->offsets[site->per_pipe ? entry->pipe : 0];
        lh::Window block = lh::Window(desc->mapped_base).at(offset);
        if (site->ops->context_create(entry->pipe, block.base()) != 0)
            return -1;
    }
    return 0;
}

static int device_init(uint32_t device_type)
{
    lh_device_desc *desc = nullptr;

    if (lh_bringup_checks(device_type) != 0 || !lh::csr_device_found(desc))
        return -1;
    return create_block_contexts(desc, device_type);
}

int lh_base_device_init(void)
{
    return device_init(LH_DEV_TYPE_BASE);
}

int lh_lhx_device_init(void)
{
    return device_init(LH_DEV_TYPE_LHX);
}

int lh_unsupported_device_init(void)
{
    return -1;
}

static int bring_up(const lh_device_desc *desc)
{
    switch (desc->device_type) {
    case LH_DEV_TYPE_BASE:
        return lh_base_device_init();
    case LH_DEV_TYPE_LHX:
        return lh_lhx_device_init();
    case LH_DEV_TYPE_UNSUPPORTED:
        return lh_unsupported_device_init();
    default:
        lh_log(LOG_CRIT, "%s - unknown device type (%d)", LH_TAG(PCI),
               desc->device_type);
        return -1;
    }
}

int lh_fpga_init(const char *log_path)
{
    lh_device_desc *descs = NULL;
    lh_device_desc *desc = NULL;
    uint32_t count = 0;

    /* A log that cannot be opened leaves syslog alone; not an error. */
    log_sink_open(&lh_log_file,
                  log_path != NULL ? log_path : LH_LOG_DEFAULT_PATH);
    if (lh_pci_get_map(&descs, &count) != 0)
        return -1;
    if (lh_pci_system_init(descs, count) != 0)
        return -1;
    if (lh_pci_get_csr_device(&desc) != 0 || desc == NULL)
        return -1;
    if (bring_up(desc) != 0)
        return -1;
    if (lh_sys_poll_init() != 0)
        return -1;
    lh_log(LOG_INFO, "%s - Larks Hollow FPGA Initialized", LH_TAG(INFO));
    return 0;
}

void lh_fpga_shutdown(void)
{
    lh_sys_poll_stop();
    /* Closing also forgets the stream, so a late line goes to syslog only. */
    log_sink_close(&lh_log_file);
}
