#include "daemon_support.hpp"

#include <stdlib.h>

#include "thread_monitor.hpp"

void free_monitor_entries()
{
    plm_thread_monitor_entry *head = &plm_thread_monitor_list;

    while (head->next != head) {
        plm_thread_monitor_entry *entry = head->next;

        head->next = entry->next;
        free(entry);
    }
    plm_thread_monitor_init();
}
