/* What the daemon's tests share. */
#ifndef DAEMON_SUPPORT_H
#define DAEMON_SUPPORT_H

/* The daemon never frees a thread monitor entry (Part 1.3); a test that
 * starts the list again frees the ones it made. */
void free_monitor_entries(void);

#endif
