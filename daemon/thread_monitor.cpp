#include "thread_monitor.hpp"

#include <errno.h>
#include <stdlib.h>
#include <string.h>

#include "orvel_safec.h"
#include "plm_log.hpp"

constinit plm_thread_monitor_entry plm_thread_monitor_list = {
    .next = &plm_thread_monitor_list,
    .prev = &plm_thread_monitor_list,
};

static constinit pthread_mutex_t monitor_lock = PTHREAD_MUTEX_INITIALIZER;

void plm_thread_monitor_init(void)
{
    plm_thread_monitor_list.next = &plm_thread_monitor_list;
    plm_thread_monitor_list.prev = &plm_thread_monitor_list;
}

int plm_thread_monitor_enqueue(pthread_t *thread, const char *name)
{
    plm_thread_monitor_entry *head = &plm_thread_monitor_list;
    if (thread == NULL) {
        plm_log(LOG_ERR, "Thread Monitor Enqueue: %s", PLM_TAG(NULL_POINTER));
        return -1;
    }
    auto *entry = static_cast<plm_thread_monitor_entry *>(
        calloc(1, sizeof(plm_thread_monitor_entry)));
    if (entry == NULL) {
        /* Reported as "Null pointer", not "Out of memory": kept as shipped. */
        plm_log(LOG_ERR, "%s", PLM_TAG(NULL_POINTER));
        return -1;
    }
    entry->thread = thread;
    name = name != NULL ? name : "unknown";
    /* The bound is the source's own length, since libsafec refuses one
     * longer than a source whose size it can see. */
    strncpy_s(entry->name, PLM_THREAD_NAME_SIZE, name,
              strnlen(name, PLM_THREAD_NAME_SIZE - 1));
    pthread_mutex_lock(&monitor_lock);
    entry->next = head->next;
    entry->prev = head;
    head->next->prev = entry;
    head->next = entry;
    plm_log(LOG_DEBUG, "Thread Monitoring: %s", entry->name);
    pthread_mutex_unlock(&monitor_lock);
    return 0;
}

/* Entries are only added, all before main walks: no lock. */
plm_thread_monitor_entry *plm_thread_monitor_find_ended(void)
{
    plm_thread_monitor_entry *head = &plm_thread_monitor_list;
    for (auto *entry = head->next; entry != head; entry = entry->next)
        if (entry->thread != NULL &&
            pthread_tryjoin_np(*entry->thread, NULL) != EBUSY)
            return entry;
    return NULL;
}

int plm_start_monitored_thread(pthread_t *thread, void *(*body)(void *),
                               const char *what, const char *name,
                               const char *caller)
{
    if (pthread_create(thread, NULL, body, NULL) != 0) {
        plm_log(LOG_CRIT, "%s: create %s thread failed", PLM_LOG_IDENT, what);
        return -1;
    }
    if (plm_thread_monitor_enqueue(thread, name) != 0)
        plm_log(LOG_CRIT, "%s: %s", caller, PLM_TAG(MONITOR_ENQUEUE_FAILED));
    plm_log(LOG_DEBUG, "Pellin Manager %s thread started...", what);
    return 0;
}
