/* A plat_syslog that records every message instead of sending it; unit
 * tests link it in place of platsyslog. */
#ifndef SYSLOG_CAPTURE_H
#define SYSLOG_CAPTURE_H

#include <stddef.h>

#define CAPTURED_TEXT_SIZE 512

struct captured_syslog {
    int severity;
    char ident[64];
    char text[CAPTURED_TEXT_SIZE];
};

void syslog_capture_reset(void);
size_t syslog_capture_count(void);
/* The index-th message since the last reset, or null. */
const struct captured_syslog *syslog_capture_get(size_t index);

#endif
