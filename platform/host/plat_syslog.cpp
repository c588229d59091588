#include "plat_syslog.h"

#include <pthread.h>
#include <stdarg.h>
#include <syslog.h>

/* openlog() keeps one ident per process: the ident and the message it labels
 * must be set and sent under one lock. */
static pthread_mutex_t syslog_lock = PTHREAD_MUTEX_INITIALIZER;

void plat_syslog(int severity, const char *ident, int option,
                 const char *format, ...)
{
    va_list args;

    (void)option;
    va_start(args, format);
    pthread_mutex_lock(&syslog_lock);
    openlog(ident, LOG_PID, LOG_DAEMON);
    vsyslog(severity, format, args);
    pthread_mutex_unlock(&syslog_lock);
    va_end(args);
}
