/* libplatsyslog: syslog(3) with an ident of its own on every call. */
#ifndef PLAT_SYSLOG_H
#define PLAT_SYSLOG_H

#ifdef __cplusplus
extern "C" {
#endif

/* Sends one message at syslog level `severity` (facility daemon) under
 * `ident`; `option` is always 0 in this system. Safe from several threads
 * with different idents. Never waits for a log reader that has stopped:
 * what cannot be sent is dropped, and the count of dropped lines is sent
 * before the next line that goes out. Text beyond 2,047 bytes is cut. */
void plat_syslog(int severity, const char *ident, int option,
                 const char *format, ...)
    __attribute__((format(printf, 4, 5)));

#ifdef __cplusplus
}
#endif

#endif
