/* The library's public interface as a C program sees it: the header
 * compiles as C, the library links, and a few calls answer as they do
 * from C++. The syslog side is this file's, so the refusals are read
 * back whole. */
#include <stdarg.h>
#include <stdio.h>
#include <string.h>

#include "lh_fpga.h"

static char last_line[256];
static int lines;
static int failures;

void plat_syslog(int severity, const char *ident, int option,
                 const char *format, ...)
{
    va_list args;

    (void)severity;
    (void)ident;
    (void)option;
    va_start(args, format);
    vsnprintf(last_line, sizeof(last_line), format, args);
    va_end(args);
    lines++;
}

static void expect(int ok, const char *what)
{
    if (!ok) {
        fprintf(stderr, "c_abi_test: %s (last line: \"%s\")\n", what,
                last_line);
        failures++;
    }
}

static void on_fatal_error(lh_fatal_error_t report)
{
    (void)report;
}

int main(void)
{
    lh_module_entry entry = {LH_MOD_GLOBAL, 0};
    uint32_t value = 0;
    uint8_t state = 0;

    lh_register_fatal_error_cb(on_fatal_error);
    expect(lh_get_traffic_pipe_count() == 0, "pipe count before bring-up");
    expect(strcmp(last_line, "Error - get traffic pipe count failed, - "
                             "system not initialized") == 0,
           "pipe count refusal");
    expect(lh_read_register(0, &value) == -1 && value == 0,
           "register read before bring-up");
    expect(strcmp(last_line, "Error - read register failed, - system not "
                             "initialized") == 0,
           "register read refusal");
    expect(lh_get_module_state(entry, &state) == -1, "module state");
    expect(strcmp(lh_module_names[LH_MOD_ETH], "eth") == 0, "module name");
    expect(lh_module_names[LH_MOD_COUNT] == NULL, "module names end");
    expect(lines == 3, "one line per refusal");
    return failures == 0 ? 0 : 1;
}
