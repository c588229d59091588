/* The benchmark measures polling, not logging: its syslog goes nowhere. */
#include "plat_syslog.h"

void plat_syslog(int severity, const char *ident, int option,
                 const char *format, ...)
{
    (void)severity;
    (void)ident;
    (void)option;
    (void)format;
}
