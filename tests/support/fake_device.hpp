/* Makes a device descriptor the library's CSR device without a PCI bus:
 * the IDPROM names it, its window is a register model and its PCI device a
 * plain record. Needs a private /tmp (private_tmp.h). */
#ifndef FAKE_DEVICE_H
#define FAKE_DEVICE_H

#include "lh_device.hpp"
#include "reg_model.hpp"

#define FAKE_REGION0_ADDRESS 0xf0000000u

/* Installs `desc` with a zeroed register model as its window, fills the
 * discovery cache (its log lines are left in the syslog capture) and, when
 * `initialized`, sets the initialised flag. Returns the window's model. */
struct reg_model *fake_device_install(lh_device_desc *desc, int initialized);

/* Undoes the install, if any: no device, nothing cached, not initialised,
 * every module OK, no IDPROM file. */
void fake_device_remove(void);

/* The model of the installed device's window, or null. */
struct reg_model *fake_device_model(void);

/* fake_device_install, then log expectations on the library's sinks. */
struct reg_model *fake_device_start(lh_device_desc *desc, int initialized);
/* Ends the expectations and removes the device (a fixture's TearDown). */
void fake_device_stop(void);

/* The IDPROM text that selects `desc` on real hardware. */
const char *fake_device_idprom(const lh_device_desc *desc);

#endif
