/* libplatnotify: tells the service manager that started the daemon how it
 * is doing. Without one (no NOTIFY_SOCKET in the environment) nothing is
 * sent and nothing changes. */
#ifndef PLAT_NOTIFY_H
#define PLAT_NOTIFY_H

#ifdef __cplusplus
extern "C" {
#endif

/* The service is up: its IPC endpoint accepts connections. */
void plat_notify_ready(void);

/* The supervision loop is still going round. */
void plat_notify_alive(void);

#ifdef __cplusplus
}
#endif

#endif
