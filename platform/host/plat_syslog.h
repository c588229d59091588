/* libplatsyslog: syslog with an ident of its own on every call. */
#ifndef PLAT_SYSLOG_H
#define PLAT_SYSLOG_H

#ifdef __cplusplus
extern "C" {
#endif

/* Sends one message at syslog level `severity` under `ident`; `option` is
 * always 0 in this system. Safe from several threads with different idents. */
void plat_syslog(int severity, const char *ident, int option,
                 const char *format, ...)
    __attribute__((format(printf, 4, 5)));

#ifdef __cplusplus
}
#endif

#endif
