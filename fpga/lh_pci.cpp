/* Device discovery and register window. */
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <memory>

#include "lh_check.hpp"
#include "plat_board.h"

/* Controller type from the IDPROM; 0 = not read yet. */
static std::atomic<uint32_t> cached_controller_type;
static std::atomic<uint8_t> pci_initialized;
static std::atomic<lh_device_desc *> cached_csr_device;

void lh_pci_cache_reset(void)
{
    cached_controller_type.store(0);
    cached_csr_device.store(NULL);
}

/* The value after "KEY=", its surrounding double quotes dropped. */
static char *line_value(char **save)
{
    char *value = strtok_r(NULL, "\n", save);
    size_t length;

    if (value == NULL)
        return NULL;
    length = strlen(value);
    if (value[0] == '"' && length >= 2 && value[length - 1] == '"') {
        value[length - 1] = '\0';
        value++;
    }
    return value;
}

int lh_idprom_cache_get(const char *key, char **value_out)
{
    FILE *file;
    char *line = NULL;
    size_t capacity = 0;
    int result = LH_IDPROM_NOT_FOUND;

    if (key == NULL || key[0] == '\0' || value_out == NULL)
        return LH_IDPROM_BAD_ARGUMENT;
    *value_out = NULL;
    file = fopen(LH_IDPROM_CACHE_PATH, "r");
    if (file == NULL)
        return LH_IDPROM_NO_FILE;
    while (getline(&line, &capacity, file) != -1) {
        char *save = NULL;
        char *token = strtok_r(line, "=", &save);
        char *value;

        if (token == NULL || strcmp(token, key) != 0)
            continue;
        result = LH_IDPROM_OK;
        value = line_value(&save);
        if (value != NULL) {
            *value_out = strdup(value);
            if (*value_out == NULL)
                result = LH_IDPROM_COPY_FAILED;
        }
        break;
    }
    free(line);
    fclose(file);
    return result;
}

int lh_get_controller_type(void)
{
    char *value = NULL;
    int type;

    if (lh_idprom_cache_get("CONTROLLER_TYPE", &value) != LH_IDPROM_OK ||
        value == NULL)
        return 0;
    type = (int)strtol(value, NULL, 10);
    free(value);
    return type;
}

/* Which descriptor a controller type selects. Where the two columns differ
 * the choice depends on the platform simulation, and only there is it
 * asked. A null hardware choice finds nothing on purpose. */
struct controller_choice {
    uint32_t controller_type;
    lh_device_desc *simulated;
    lh_device_desc *hardware;
};

static const struct controller_choice controller_choices[] = {
    { 0x1106, &lh_desc_base_two_pipes, &lh_desc_base_two_pipes },
    { 0x1109, &lh_desc_base_one_pipe, &lh_desc_base_one_pipe },
    { 0x110A, &lh_desc_base_one_pipe, &lh_desc_base_one_pipe },
    { 0x1124, &lh_desc_base_two_pipes, NULL },
    { 0x1125, &lh_desc_base_two_pipes, NULL },
    { 0x1126, &lh_desc_base_two_pipes, &lh_desc_lhx },
    { 0x1127, &lh_desc_base_two_pipes, &lh_desc_lhx },
};

static const struct controller_choice *find_choice(uint32_t controller_type)
{
    for (const controller_choice &choice : controller_choices)
        if (choice.controller_type == controller_type)
            return &choice;
    return NULL;
}

static uint32_t controller_type(void)
{
    uint32_t type = cached_controller_type.load();

    if (type == 0) {
        type = (uint32_t)lh_get_controller_type();
        cached_controller_type.store(type);
        lh_log(LOG_INFO, "%s - pci get map, found controller type 0x%04x",
               LH_TAG(INFO), type);
    }
    return type;
}

int lh_pci_get_map(lh_device_desc **desc_out, uint32_t *count_out)
{
    const struct controller_choice *choice;
    lh_device_desc *desc;
    uint32_t type;

    if (desc_out == NULL || count_out == NULL) {
        lh_log(LOG_ERR, "%s - pci get map", LH_TAG(NULL_POINTER));
        return -1;
    }
    type = controller_type();
    choice = find_choice(type);
    if (choice == NULL) {
        lh_log(LOG_CRIT, "%s - pci get map, unknown controller type 0x%04x",
               LH_TAG(PCI), type);
        return -1;
    }
    desc = choice->hardware;
    if (choice->simulated != choice->hardware && is_qrn_sim())
        desc = choice->simulated;
    if (desc != NULL) {
        *desc_out = desc;
        *count_out = 1;
    }
    return 0;
}

static void record_mapping(lh_device_desc *desc)
{
    struct pci_device *device = desc->device;
    const struct pci_mem_region *region = &device->regions[desc->bar];

    desc->found = 1;
    snprintf(desc->sysfs_path, LH_SYSFS_PATH_SIZE - 1,
             "/sys/bus/pci/devices/%04x:%02x:%02x.%1x", device->domain,
             device->bus, device->dev, device->func);
    lh_log(LOG_INFO,
           "%s - PCI device found: name '%s', fs: %s, addr 0x%08x, "
           "size(bytes) %lu",
           LH_TAG(INFO), desc->name, desc->sysfs_path,
           (uint32_t)region->base_addr, (unsigned long)region->size);
}

struct IteratorDestroy {
    void operator()(pci_device_iterator *iterator) const
    {
        pci_iterator_destroy(iterator);
    }
};
using DeviceIterator = std::unique_ptr<pci_device_iterator, IteratorDestroy>;

/* Finds and maps one descriptor's device. Returns -1 only for the failures
 * that end discovery; a device that is absent or cannot be mapped is not
 * one of them. */
static int discover_device(lh_device_desc *desc)
{
    DeviceIterator iterator(pci_id_match_iterator_create(&desc->match));

    if (!iterator) {
        lh_log(LOG_CRIT, "%s -PCI iterator create failed for '%s'",
               LH_TAG(PCI), desc->name);
        return -1;
    }
    desc->device = pci_device_next(iterator.get());
    if (desc->device == NULL)
        return 0;
    if (pci_device_probe(desc->device) != 0) {
        lh_log(LOG_CRIT, "%s - PCI device probe for '%s' failed",
               LH_TAG(PCI), desc->name);
        return -1;
    }
    const pci_mem_region &region = desc->device->regions[desc->bar];
    if (pci_device_map_range(desc->device, region.base_addr, region.size,
                             PCI_DEV_MAP_FLAG_WRITABLE,
                             &desc->mapped_base) != 0) {
        lh_log(LOG_CRIT, "%s - PCI device mapping failed for '%s' failed\n",
               LH_TAG(PCI), desc->name);
        return 0;
    }
    iterator.reset();
    record_mapping(desc);
    return 0;
}

int lh_pci_system_init(lh_device_desc *descs, uint32_t count)
{
    if (!pci_initialized.load()) {
        int error = pci_system_init();

        if (error != 0) {
            lh_log(LOG_CRIT, "%s - system init failed - %s", LH_TAG(PCI),
                   strerror(error));
            return -1;
        }
        pci_initialized.store(1);
    }
    for (uint32_t i = 0; i < count; i++)
        if (discover_device(&descs[i]) != 0)
            return -1;
    return 0;
}

int lh_pci_get_csr_device(lh_device_desc **desc_out)
{
    lh_device_desc *descs = NULL;
    uint32_t count = 0;
    lh_device_desc *cached;

    if (desc_out == NULL) {
        lh_log(LOG_ERR, "%s - pci get csr device", LH_TAG(NULL_POINTER));
        return -1;
    }
    cached = cached_csr_device.load(std::memory_order_acquire);
    if (cached != NULL) {
        *desc_out = cached;
        return 0;
    }
    if (lh_pci_get_map(&descs, &count) != 0 || descs == NULL || count == 0)
        return -1;
    *desc_out = NULL;
    for (uint32_t i = 0; i < count && *desc_out == NULL; i++)
        if (descs[i].found)
            *desc_out = &descs[i];
    cached_csr_device.store(*desc_out, std::memory_order_release);
    if (*desc_out == NULL) {
        lh_log(LOG_DEBUG, "Control Status Register device not found");
        return 0;
    }
    lh_log(LOG_DEBUG, "Found CSR device - %s, type (%d)", (*desc_out)->name,
           (*desc_out)->device_type);
    return 0;
}
