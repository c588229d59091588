/* The thread monitor: the daemon's long-running threads, so that main
 * notices when one of them has ended. */
#ifndef PLM_THREAD_MONITOR_H
#define PLM_THREAD_MONITOR_H

#include <pthread.h>

#define PLM_THREAD_NAME_SIZE 64

typedef struct plm_thread_monitor_entry {
    pthread_t *thread = nullptr;
    char name[PLM_THREAD_NAME_SIZE] = {};
    struct plm_thread_monitor_entry *next = nullptr;
    struct plm_thread_monitor_entry *prev = nullptr;
} plm_thread_monitor_entry;

/* A circular list; the newest entry follows the head. */
extern plm_thread_monitor_entry plm_thread_monitor_list;

/* Makes the list empty; main calls it before the first enqueue. */
void plm_thread_monitor_init(void);

/* Registers the thread whose handle is at `thread` under `name` (null:
 * "unknown", cut to 63 characters). Returns 0 or -1. */
int plm_thread_monitor_enqueue(pthread_t *thread, const char *name);

/* The first entry, newest first, whose thread has ended (it is then
 * joined), or null while all are alive. */
plm_thread_monitor_entry *plm_thread_monitor_find_ended(void);

/* Starts `body` on `*thread`, registered as `name`; `what` names it in the
 * log lines, `caller` is the init function. Returns 0 or -1. */
int plm_start_monitored_thread(pthread_t *thread, void *(*body)(void *),
                               const char *what, const char *name,
                               const char *caller);

#endif
