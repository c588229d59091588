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

void plm_thread_monitor_init(void)
{
    plm_thread_monitor_list.next = &plm_thread_monitor_list;
    plm_thread_monitor_list.prev = &plm_thread_monitor_list;
}

namespace {

constinit pthread_mutex_t monitor_lock = PTHREAD_MUTEX_INITIALIZER;

void link_after_head(plm_thread_monitor_entry *entry)
{
    plm_thread_monitor_entry *head = &plm_thread_monitor_list;

    entry->next = head->next;
    entry->prev = head;
    head->next->prev = entry;
    head->next = entry;
}

/* At most 63 characters. The bound is the source's own length, since
 * libsafec refuses one longer than a source whose size it can see. */
void copy_name(char name[PLM_THREAD_NAME_SIZE], const char *source)
{
    strncpy_s(name, PLM_THREAD_NAME_SIZE, source,
              strnlen(source, PLM_THREAD_NAME_SIZE - 1));
}

} // namespace

int plm_thread_monitor_enqueue(pthread_t *thread, const char *name)
{
    plm_thread_monitor_entry *entry;

    if (thread == NULL) {
        plm_log(LOG_ERR, "Thread Monitor Enqueue: %s", PLM_TAG(NULL_POINTER));
        return -1;
    }
    entry = static_cast<plm_thread_monitor_entry*>(calloc(1, sizeof(*entry)));
    if (entry == NULL) {
        /* Reported as "Null pointer", not "Out of memory": kept as shipped. */
        plm_log(LOG_ERR, "%s", PLM_TAG(NULL_POINTER));
        return -1;
    }
    entry->thread = thread;
    copy_name(entry->name, name != NULL ? name : "unknown");
    pthread_mutex_lock(&monitor_lock);
    link_after_head(entry);
    plm_log(LOG_DEBUG, "Thread Monitoring: %s", entry->name);
    pthread_mutex_unlock(&monitor_lock);
    return 0;
}

/* Entries are only added, all before main walks: no lock. */
plm_thread_monitor_entry *plm_thread_monitor_find_ended(void)
{
    plm_thread_monitor_entry *head = &plm_thread_monitor_list;

    for (plm_thread_monitor_entry *entry = head->next; entry != head;
         entry = entry->next) {
        if (entry->thread == NULL)
            continue;
        if (pthread_tryjoin_np(*entry->thread, NULL) != EBUSY)
            return entry;
    }
    return NULL;
}
