#include "fake_device.h"

#include "cmocka_all.h"
#include "private_tmp.h"

static struct pci_device fake_pci_device;

const char *fake_device_idprom(const lh_device_desc *desc)
{
    if (desc == &lh_desc_lhx)
        return "CONTROLLER_TYPE=4390\n";
    if (desc == &lh_desc_base_one_pipe)
        return "CONTROLLER_TYPE=4361\n";
    return "CONTROLLER_TYPE=4358\n";
}

void *fake_device_install(lh_device_desc *desc, struct reg_model *model,
                          int initialized)
{
    lh_device_desc *found = NULL;
    void *window = reg_model_attach(model, desc->window_size);

    fake_pci_device.regions[0].base_addr = FAKE_REGION0_ADDRESS;
    write_text_file(LH_IDPROM_CACHE_PATH, fake_device_idprom(desc));
    lh_pci_cache_reset();
    desc->found = 1;
    desc->device = &fake_pci_device;
    desc->mapped_base = window;
    assert_int_equal(lh_pci_get_csr_device(&found), 0);
    assert_ptr_equal(found, desc);
    atomic_store(&lh_initialized, initialized ? 1 : 0);
    return window;
}

void fake_device_remove(lh_device_desc *desc, struct reg_model *model)
{
    desc->found = 0;
    desc->device = NULL;
    desc->mapped_base = NULL;
    reg_model_detach(model);
    lh_pci_cache_reset();
    atomic_store(&lh_initialized, 0);
    for (int module = 0; module < LH_MOD_COUNT; module++)
        for (int pipe = 0; pipe < LH_MAX_PIPES; pipe++)
            atomic_store(&lh_module_state[module][pipe], 0);
    write_text_file(LH_IDPROM_CACHE_PATH, NULL);
}
