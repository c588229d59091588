#include "fake_device.hpp"

#include <string.h>

#include <gtest/gtest.h>

#include "lh_log.hpp"
#include "log_expect.hpp"
#include "private_tmp.hpp"

static struct pci_device fake_pci_device;
static struct reg_model model;
static lh_device_desc *installed;

const char *fake_device_idprom(const lh_device_desc *desc)
{
    if (desc == &lh_desc_lhx)
        return "CONTROLLER_TYPE=4390\n";
    if (desc == &lh_desc_base_one_pipe)
        return "CONTROLLER_TYPE=4361\n";
    return "CONTROLLER_TYPE=4358\n";
}

struct reg_model *fake_device_install(lh_device_desc *desc, int initialized)
{
    lh_device_desc *found = NULL;
    void *window;

    fake_device_remove();
    memset(&model, 0, sizeof(model));
    window = reg_model_attach(&model, desc->window_size);
    installed = desc;

    fake_pci_device.regions[0].base_addr = FAKE_REGION0_ADDRESS;
    write_text_file(LH_IDPROM_CACHE_PATH, fake_device_idprom(desc));
    lh_pci_cache_reset();
    desc->found = 1;
    desc->device = &fake_pci_device;
    desc->mapped_base = window;
    EXPECT_EQ(lh_pci_get_csr_device(&found), 0);
    EXPECT_EQ(found, desc);
    lh_initialized.store(initialized ? 1 : 0);
    return &model;
}

void fake_device_remove(void)
{
    if (installed != NULL) {
        installed->found = 0;
        installed->device = NULL;
        installed->mapped_base = NULL;
        reg_model_detach(&model);
        installed = NULL;
    }
    lh_pci_cache_reset();
    lh_initialized.store(0);
    for (int module = 0; module < LH_MOD_COUNT; module++)
        for (int pipe = 0; pipe < LH_MAX_PIPES; pipe++)
            lh_module_state[module][pipe].store(0);
    write_text_file(LH_IDPROM_CACHE_PATH, NULL);
}

struct reg_model *fake_device_model(void)
{
    return installed != NULL ? &model : NULL;
}

struct reg_model *fake_device_start(lh_device_desc *desc, int initialized)
{
    struct reg_model *window = fake_device_install(desc, initialized);

    log_expect_start(&lh_log_file);
    return window;
}

void fake_device_stop(void)
{
    log_expect_stop();
    fake_device_remove();
}
