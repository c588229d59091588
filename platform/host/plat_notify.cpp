#include "plat_notify.h"

#include <systemd/sd-daemon.h>

void plat_notify_ready(void) { sd_notify(0, "READY=1"); }

void plat_notify_alive(void) { sd_notify(0, "WATCHDOG=1"); }
