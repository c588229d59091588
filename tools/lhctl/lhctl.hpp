/* lhctl, the operator's client of pellin_mgr: what its files share. The
 * requests and replies are the daemon's IPC records; docs/lhctl.md describes the
 * commands, their output and the exit codes. */
#ifndef LHCTL_H
#define LHCTL_H

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>

/* Exit codes: scripts rely on them. */
enum lhctl_exit {
    LHCTL_EXIT_OK = 0,
    LHCTL_EXIT_REFUSED = 1, /* an error reply, or a reply lhctl cannot use */
    LHCTL_EXIT_USAGE = 2,   /* bad command line */
    LHCTL_EXIT_UNREACHABLE = 3, /* not running, not permitted, no answer */
};

#define LHCTL_DEFAULT_TIMEOUT_MS 2000

struct ipc_client;

struct lhctl {
    const char *socket_path = {};
    int timeout_ms = {}; /* per request */
    bool json = {};
    struct ipc_client *client = {}; /* connected at the first request */
};

/* Wire helpers: payload fields are in host byte order. */
static inline void lhctl_put32(uint8_t *at, uint32_t value)
{
    memcpy(at, &value, sizeof(value));
}

static inline uint32_t lhctl_get32(const uint8_t *at)
{
    uint32_t value;

    memcpy(&value, at, sizeof(value));
    return value;
}

static inline uint64_t lhctl_get64(const uint8_t *at)
{
    uint64_t value;

    memcpy(&value, at, sizeof(value));
    return value;
}

/* client.c: one connection, one request at a time. Each call prints what
 * went wrong and returns an exit code. */
struct lhctl_reply {
    uint8_t *payload = {}; /* heap, the caller frees; null when length is 0 */
    uint32_t length = {};
};

int lhctl_request(struct lhctl *ctl, uint32_t op, const void *payload,
                  uint32_t length, struct lhctl_reply *reply);
/* A request whose reply must be exactly `reply_length` bytes, into reply. */
int lhctl_request_fixed(struct lhctl *ctl, uint32_t op, const void *payload,
                        uint32_t length, void *reply, uint32_t reply_length);
int lhctl_malformed(uint32_t op, const char *what);
int lhctl_out_of_memory(void);
void lhctl_disconnect(struct lhctl *ctl);

/* parse.c: arguments and the names lhctl prints. Each parser prints
 * "lhctl: ..." and returns LHCTL_EXIT_USAGE for a bad argument. */
#define LHCTL_LOOPBACK_TYPES 5
#define LHCTL_PRIORITIES     3
extern const char *const lhctl_loopback_names[LHCTL_LOOPBACK_TYPES];
extern const char *const lhctl_priority_names[LHCTL_PRIORITIES];

int lhctl_usage_error(const char *format, ...)
    __attribute__((format(printf, 1, 2)));
int lhctl_parse_u32(const char *what, const char *text, uint32_t *out);
int lhctl_parse_name(const char *what, const char *text,
                     const char *const *names, size_t count, uint32_t *out);
int lhctl_parse_module(const char *text, uint32_t *module_id);
int lhctl_parse_seconds(const char *text, int *ms);
/* The module's name, or its id in decimal for an id without a name. */
const char *lhctl_module_name(uint32_t module_id, char *buf, size_t size);

/* counters.c: a statistics record as named counters. */
#define LHCTL_NAME_MAX 40

struct lhctl_counter {
    char name[LHCTL_NAME_MAX];
    uint64_t value;
};

struct lhctl_counters {
    struct lhctl_counter *items = {};
    size_t count = {};
};

bool lhctl_module_has_stats(uint32_t module_id);
/* 0; -EINVAL when the record is not the size of the module's record,
 * -ENOMEM. */
int lhctl_counters_decode(uint32_t module_id, const uint8_t *record,
                          size_t size, struct lhctl_counters *out);
void lhctl_counters_free(struct lhctl_counters *counters);

/* requests.cpp: the daemon's IPC operations, each returning an exit code. */
struct lhctl_module {
    uint32_t id;
    uint32_t pipe;
    uint8_t state; /* 0 OK, non-zero FAILED */
};

struct lhctl_pipe {
    uint32_t pipe;
    uint8_t state; /* non-zero up */
};

int lhctl_read_reg(struct lhctl *ctl, uint32_t offset, uint32_t *value);
int lhctl_write_reg(struct lhctl *ctl, uint32_t offset, uint32_t value);
int lhctl_set_loopback(struct lhctl *ctl, uint32_t pipe, uint32_t type);
int lhctl_get_loopback(struct lhctl *ctl, uint32_t pipe, uint32_t *mask);
int lhctl_get_stats(struct lhctl *ctl, uint32_t module_id, uint32_t pipe,
                    struct lhctl_counters *out);
int lhctl_clear_stats(struct lhctl *ctl, uint32_t module_id, uint32_t pipe);
int lhctl_get_modules(struct lhctl *ctl, struct lhctl_module **list,
                      size_t *count);
int lhctl_set_pipe(struct lhctl *ctl, uint32_t pipe, uint8_t state);
int lhctl_get_pipes(struct lhctl *ctl, struct lhctl_pipe **list, size_t *count);
int lhctl_set_qos(struct lhctl *ctl, uint32_t pipe, uint32_t profile,
                  uint32_t priority);
int lhctl_get_qos(struct lhctl *ctl, uint32_t pipe, uint32_t profile,
                  uint32_t *priority);

/* output.c: aligned text tables, JSON and Prometheus text. */
#define LHCTL_CELL_MAX 48

struct lhctl_table {
    size_t columns = {};
    size_t rows = {}; /* the header included */
    size_t capacity = {};
    char (*cells)[LHCTL_CELL_MAX] = {};
};

int lhctl_table_init(struct lhctl_table *t, size_t columns,
                     const char *const *header);
int lhctl_table_add(struct lhctl_table *t, const char *const *cells);
void lhctl_table_print(const struct lhctl_table *t, FILE *out);
void lhctl_table_free(struct lhctl_table *t);

#define LHCTL_JSON_DEPTH 8

struct lhctl_json {
    FILE *out = {};
    int depth = {};
    char closer[LHCTL_JSON_DEPTH] = {}; /* '}' or ']' of each open level */
    bool first[LHCTL_JSON_DEPTH] = {};/* no member written yet at this level */
};

/* One top-level object per document, ended by a newline. */
void lhctl_json_begin(struct lhctl_json *j, FILE *out);
void lhctl_json_end(struct lhctl_json *j);
/* key is null inside an array. */
void lhctl_json_object(struct lhctl_json *j, const char *key);
void lhctl_json_array(struct lhctl_json *j, const char *key);
void lhctl_json_close(struct lhctl_json *j);
void lhctl_json_string(struct lhctl_json *j, const char *key,
                       const char *value);
void lhctl_json_uint(struct lhctl_json *j, const char *key, uint64_t value);
void lhctl_json_bool(struct lhctl_json *j, const char *key, bool value);

struct lhctl_label {
    const char *name;
    const char *value;
};

void lhctl_prom_family(FILE *out, const char *name, const char *type,
                       const char *help);
void lhctl_prom_sample(FILE *out, const char *name,
                       const struct lhctl_label *labels, size_t count,
                       uint64_t value);

/* commands.c and metrics.c: one handler per command of the table in
 * lhctl.c; argv holds the words after the command's name. */
int lhctl_cmd_modules(struct lhctl *ctl, int argc, char **argv);
int lhctl_cmd_pipes(struct lhctl *ctl, int argc, char **argv);
int lhctl_cmd_pipe(struct lhctl *ctl, int argc, char **argv);
int lhctl_cmd_stats(struct lhctl *ctl, int argc, char **argv);
int lhctl_cmd_reg_read(struct lhctl *ctl, int argc, char **argv);
int lhctl_cmd_reg_write(struct lhctl *ctl, int argc, char **argv);
int lhctl_cmd_loopback(struct lhctl *ctl, int argc, char **argv);
int lhctl_cmd_qos(struct lhctl *ctl, int argc, char **argv);
int lhctl_cmd_metrics(struct lhctl *ctl, int argc, char **argv);

/* JSON views shared by the commands and `metrics --json`. */
void lhctl_json_modules(struct lhctl_json *j, const struct lhctl_module *list,
                        size_t count);
void lhctl_json_pipes(struct lhctl_json *j, const struct lhctl_pipe *list,
                      size_t count);
void lhctl_json_stats_fields(struct lhctl_json *j, uint32_t module_id,
                             uint32_t pipe,
                             const struct lhctl_counters *counters);

/* Both names of a state byte, as the commands print them. */
const char *lhctl_module_state_name(uint8_t state);
const char *lhctl_pipe_state_name(uint8_t state);

#endif
