/* Gives the test process a private, empty /tmp (a tmpfs in a mount
 * namespace of its own), so tests can write the system's fixed paths such
 * as /tmp/idprom_cache.conf without touching the host's. */
#ifndef PRIVATE_TMP_H
#define PRIVATE_TMP_H

/* Returns 0, or -1 with a message on stderr. */
int enter_private_tmp(void);

/* enter_private_tmp, and an empty /opt/orvel/platform/logs of the test's
 * own (a tmpfs over /opt) for the log and dump files. */
int enter_private_dirs(void);

/* Writes `text` to `path` (null: removes the file). Asserts on failure. */
void write_text_file(const char *path, const char *text);

#endif
