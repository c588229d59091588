/* Command-line arguments: numbers, module, loopback and priority names. */
#include <errno.h>
#include <limits.h>
#include <math.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "lh_fpga.h"
#include "lhctl.hpp"

/* Indexed by loopback type; bit n of a get mask is type n. */
const char *const lhctl_loopback_names[LHCTL_LOOPBACK_TYPES] = {
    "disable-all", "pcs-near", "pma-near", "pma-far", "pcs-far",
};

/* Indexed by lh_qos_priority_t. */
const char *const lhctl_priority_names[LHCTL_PRIORITIES] = {
    "low",
    "med",
    "high",
};

/* The longest timeout lhctl waits for one answer, in seconds. */
#define MAX_TIMEOUT_S 3600.0

int lhctl_usage_error(const char *format, ...)
{
    va_list args;

    fputs("lhctl: ", stderr);
    va_start(args, format);
    vfprintf(stderr, format, args);
    va_end(args);
    fputc('\n', stderr);
    return LHCTL_EXIT_USAGE;
}

/* Decimal, or hexadecimal after "0x"; no sign, no blanks, 32 bits. */
int lhctl_parse_u32(const char *what, const char *text, uint32_t *out)
{
    int base = 10;
    const char *digits = text;
    char *end;
    unsigned long long value;

    if (strncmp(text, "0x", 2) == 0 || strncmp(text, "0X", 2) == 0) {
        base = 16;
        digits = text + 2;
    }
    if (*digits == '\0' || strchr("+- \t", *digits) != NULL)
        return lhctl_usage_error("bad %s \"%s\"", what, text);
    errno = 0;
    value = strtoull(digits, &end, base);
    if (errno != 0 || *end != '\0' || value > UINT32_MAX)
        return lhctl_usage_error("bad %s \"%s\"", what, text);
    *out = (uint32_t)value;
    return LHCTL_EXIT_OK;
}

int lhctl_parse_name(const char *what, const char *text,
                     const char *const *names, size_t count, uint32_t *out)
{
    for (size_t i = 0; i < count; i++) {
        if (strcmp(text, names[i]) == 0) {
            *out = (uint32_t)i;
            return LHCTL_EXIT_OK;
        }
    }
    return lhctl_usage_error("unknown %s \"%s\"", what, text);
}

/* A module name, or an id below LH_MOD_COUNT. */
int lhctl_parse_module(const char *text, uint32_t *module_id)
{
    uint32_t id;

    if (text[0] >= '0' && text[0] <= '9') {
        if (lhctl_parse_u32("module id", text, &id) != LHCTL_EXIT_OK)
            return LHCTL_EXIT_USAGE;
        if (id >= LH_MOD_COUNT)
            return lhctl_usage_error("unknown module \"%s\"", text);
        *module_id = id;
        return LHCTL_EXIT_OK;
    }
    return lhctl_parse_name("module", text, lh_module_names, LH_MOD_COUNT,
                            module_id);
}

/* Seconds, fractions allowed, above 0 and at most MAX_TIMEOUT_S. */
int lhctl_parse_seconds(const char *text, int *ms)
{
    char *end;
    double seconds;

    if (*text == '\0' || strchr("+- \t", *text) != NULL)
        return lhctl_usage_error("bad timeout \"%s\"", text);
    errno = 0;
    seconds = strtod(text, &end);
    if (errno != 0 || *end != '\0' || !isfinite(seconds) || seconds <= 0 ||
        seconds > MAX_TIMEOUT_S)
        return lhctl_usage_error("bad timeout \"%s\"", text);
    *ms = (int)(seconds * 1000.0);
    if (*ms < seconds * 1000.0)
        (*ms)++; /* rounded up: 0.0001 s still waits */
    return LHCTL_EXIT_OK;
}

const char *lhctl_module_name(uint32_t module_id, char *buf, size_t size)
{
    if (module_id < LH_MOD_COUNT)
        return lh_module_names[module_id];
    snprintf(buf, size, "%u", module_id);
    return buf;
}
