/* Device descriptors, library-wide state and discovery,
 * shared inside the library. */
#ifndef LH_DEVICE_H
#define LH_DEVICE_H

#include <pciaccess.h>
#include <atomic>
#include <stdint.h>
#include <stdio.h>

#include "lh_fpga.h"

enum lh_device_type {
    LH_DEV_TYPE_BASE = 0,
    LH_DEV_TYPE_UNSUPPORTED = 1,
    LH_DEV_TYPE_LHX = 2,
};

#define LH_SYSFS_PATH_SIZE 64

typedef struct lh_device_desc {
    uint8_t found = 0;
    uint32_t device_type = 0;
    const char *name = nullptr;
    struct pci_device *device = nullptr;
    struct pci_id_match match = {};
    uint32_t bar = 0;
    void *mapped_base = nullptr;
    uint64_t window_size = 0;
    char sysfs_path[LH_SYSFS_PATH_SIZE] = {};
    uint32_t traffic_pipe_count = 0;
    uint32_t max_queue_id = 0;
    uint32_t qos_profile_count = 0;
    const lh_module_entry *module_list = nullptr;
} lh_device_desc;

extern lh_device_desc lh_desc_lhx;
extern lh_device_desc lh_desc_base_two_pipes;
extern lh_device_desc lh_desc_base_one_pipe;

/* Set by the device bring-up; "system not initialized" means it is clear. */
extern std::atomic<uint8_t> lh_initialized;

/* Module state per (module id, pipe): 0 OK, non-zero FAILED. */
extern std::atomic<uint8_t> lh_module_state[LH_MOD_COUNT][LH_MAX_PIPES];

#define LH_IDPROM_CACHE_PATH "/tmp/idprom_cache.conf"

/* lh_idprom_cache_get results. */
enum {
    LH_IDPROM_OK = 0,
    LH_IDPROM_BAD_ARGUMENT = 1,
    LH_IDPROM_NO_FILE = 2,
    LH_IDPROM_COPY_FAILED = 3,
    LH_IDPROM_NOT_FOUND = 6,
};

int lh_idprom_cache_get(const char *key, char **value_out);
int lh_get_controller_type(void);
int lh_pci_get_map(lh_device_desc **desc_out, uint32_t *count_out);
/* C linkage: tests replace it at link time (--wrap). */
extern "C" int lh_pci_system_init(lh_device_desc *descs, uint32_t count);
int lh_pci_get_csr_device(lh_device_desc **desc_out);

/* Forgets the discovery caches; for tests that run discovery repeatedly. */
void lh_pci_cache_reset(void);

/* The checks every device bring-up runs first: on LHX the PCI
 * command write, then device lookup, scratch test, revision and timestamp
 * report; then the initialised flag is set. Returns 0 or -1. */
int lh_bringup_checks(uint32_t device_type);

/* Device bring-ups: the checks, then a context per block. */
int lh_base_device_init(void);
int lh_lhx_device_init(void);
int lh_unsupported_device_init(void);

/* The library poll thread and the register dump. */
int lh_sys_poll_init(void);
/* Stops the poll thread (if started) and waits for it. */
void lh_sys_poll_stop(void);
/* One pass over the device's module list, as the poll thread makes it. */
void lh_sys_poll_scan(const lh_device_desc *desc, lh_fatal_error_t *report);
void lh_register_dump(void);
/* The dump's content: module status and the compressed register window. */
void lh_register_dump_write(FILE *file, const lh_device_desc *desc);

#endif
