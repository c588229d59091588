/* Makes a device descriptor the library's CSR device without a PCI bus:
 * the IDPROM names it, its window is a register model and its PCI device a
 * plain record. Needs a private /tmp (private_tmp.h). */
#ifndef FAKE_DEVICE_H
#define FAKE_DEVICE_H

#include "lh_device.h"
#include "reg_model.h"

#define FAKE_REGION0_ADDRESS 0xf0000000u

/* Installs `desc` with a zeroed window in `model`, fills the discovery
 * cache (its log lines are left behind in the syslog capture) and, when
 * `initialized`, sets the initialised flag. Returns the window base. */
void *fake_device_install(lh_device_desc *desc, struct reg_model *model,
                          int initialized);
/* Undoes the install: no device, nothing cached, not initialised, every
 * module OK. */
void fake_device_remove(lh_device_desc *desc, struct reg_model *model);

/* The decimal controller type that selects `desc` on real hardware. */
const char *fake_device_idprom(const lh_device_desc *desc);

#endif
