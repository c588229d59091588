/* What the end-to-end tests read from the files the daemon writes. */
#ifndef FILE_WATCH_H
#define FILE_WATCH_H

/* CLOCK_MONOTONIC in milliseconds. */
long long now_ms(void);

/* The file's whole text (caller frees); "" when it cannot be read. */
char *file_text(const char *path);

/* How often `text` occurs in `content`, or in the file at `path`. */
int count_in_text(const char *content, const char *text);
int count_in(const char *path, const char *text);

/* Waits until the file holds `text` and returns the milliseconds it took;
 * fails the test after `timeout_ms`. */
long long wait_for_text(const char *path, const char *text, int timeout_ms);

#endif
