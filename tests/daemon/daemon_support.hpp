/* What the daemon's tests share. */
#ifndef DAEMON_SUPPORT_HPP
#define DAEMON_SUPPORT_HPP

/* The daemon never frees a thread monitor entry; a test that starts the
 * list again frees the ones it made and leaves the list empty. */
void free_monitor_entries();

#endif
