/* The commands: each parses its words, makes its requests and prints the
 * result as text or, with --json, as one JSON object (docs/lhctl.md). A
 * set prints what a get of the same thing prints. */
#include <inttypes.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "lhctl.hpp"

static const char *const pipe_state_words[] = {"down", "up"};

const char *lhctl_module_state_name(uint8_t state)
{
    return state == 0 ? "OK" : "FAILED";
}

const char *lhctl_pipe_state_name(uint8_t state)
{
    return pipe_state_words[state != 0];
}

/* JSON views */

void lhctl_json_modules(struct lhctl_json *j, const struct lhctl_module *list,
                        size_t count)
{
    char id[16];

    lhctl_json_array(j, "modules");
    for (size_t i = 0; i < count; i++) {
        lhctl_json_object(j, NULL);
        lhctl_json_uint(j, "id", list[i].id);
        lhctl_json_string(j, "name",
                          lhctl_module_name(list[i].id, id, sizeof(id)));
        lhctl_json_uint(j, "pipe", list[i].pipe);
        lhctl_json_string(j, "state", lhctl_module_state_name(list[i].state));
        lhctl_json_close(j);
    }
    lhctl_json_close(j);
}

void lhctl_json_pipes(struct lhctl_json *j, const struct lhctl_pipe *list,
                      size_t count)
{
    lhctl_json_array(j, "pipes");
    for (size_t i = 0; i < count; i++) {
        lhctl_json_object(j, NULL);
        lhctl_json_uint(j, "pipe", list[i].pipe);
        lhctl_json_string(j, "state", lhctl_pipe_state_name(list[i].state));
        lhctl_json_close(j);
    }
    lhctl_json_close(j);
}

void lhctl_json_stats_fields(struct lhctl_json *j, uint32_t module_id,
                             uint32_t pipe,
                             const struct lhctl_counters *counters)
{
    char id[16];

    lhctl_json_string(j, "module",
                      lhctl_module_name(module_id, id, sizeof(id)));
    lhctl_json_uint(j, "module_id", module_id);
    lhctl_json_uint(j, "pipe", pipe);
    lhctl_json_object(j, "counters");
    for (size_t i = 0; i < counters->count; i++)
        lhctl_json_uint(j, counters->items[i].name, counters->items[i].value);
    lhctl_json_close(j);
}

/* Text views */

static int print_modules(const struct lhctl_module *list, size_t count)
{
    static const char *const header[] = {"ID", "NAME", "PIPE", "STATE"};
    struct lhctl_table table;
    int rc = lhctl_table_init(&table, 4, header);

    for (size_t i = 0; rc == LHCTL_EXIT_OK && i < count; i++) {
        char id[16], name[16], pipe[16];
        const char *row[] = {
            id,
            lhctl_module_name(list[i].id, name, sizeof(name)),
            pipe,
            lhctl_module_state_name(list[i].state),
        };

        snprintf(id, sizeof(id), "%" PRIu32, list[i].id);
        snprintf(pipe, sizeof(pipe), "%" PRIu32, list[i].pipe);
        rc = lhctl_table_add(&table, row);
    }
    if (rc == LHCTL_EXIT_OK)
        lhctl_table_print(&table, stdout);
    lhctl_table_free(&table);
    return rc;
}

static int print_pipes(const struct lhctl_pipe *list, size_t count)
{
    static const char *const header[] = {"PIPE", "STATE"};
    struct lhctl_table table;
    int rc = lhctl_table_init(&table, 2, header);

    for (size_t i = 0; rc == LHCTL_EXIT_OK && i < count; i++) {
        char pipe[16];
        const char *row[] = {pipe, lhctl_pipe_state_name(list[i].state)};

        snprintf(pipe, sizeof(pipe), "%" PRIu32, list[i].pipe);
        rc = lhctl_table_add(&table, row);
    }
    if (rc == LHCTL_EXIT_OK)
        lhctl_table_print(&table, stdout);
    lhctl_table_free(&table);
    return rc;
}

static int print_counters(const struct lhctl_counters *counters)
{
    static const char *const header[] = {"COUNTER", "VALUE"};
    struct lhctl_table table;
    int rc = lhctl_table_init(&table, 2, header);

    for (size_t i = 0; rc == LHCTL_EXIT_OK && i < counters->count; i++) {
        char value[24];
        const char *row[] = {counters->items[i].name, value};

        snprintf(value, sizeof(value), "%" PRIu64, counters->items[i].value);
        rc = lhctl_table_add(&table, row);
    }
    if (rc == LHCTL_EXIT_OK)
        lhctl_table_print(&table, stdout);
    lhctl_table_free(&table);
    return rc;
}

/* Lists */

int lhctl_cmd_modules(struct lhctl *ctl, int argc, char **argv)
{
    struct lhctl_module *list;
    size_t count;
    int rc = lhctl_get_modules(ctl, &list, &count);

    (void)argc;
    (void)argv;
    if (rc != LHCTL_EXIT_OK)
        return rc;
    if (ctl->json) {
        struct lhctl_json j;

        lhctl_json_begin(&j, stdout);
        lhctl_json_modules(&j, list, count);
        lhctl_json_end(&j);
    } else {
        rc = print_modules(list, count);
    }
    free(list);
    return rc;
}

int lhctl_cmd_pipes(struct lhctl *ctl, int argc, char **argv)
{
    struct lhctl_pipe *list;
    size_t count;
    int rc = lhctl_get_pipes(ctl, &list, &count);

    (void)argc;
    (void)argv;
    if (rc != LHCTL_EXIT_OK)
        return rc;
    if (ctl->json) {
        struct lhctl_json j;

        lhctl_json_begin(&j, stdout);
        lhctl_json_pipes(&j, list, count);
        lhctl_json_end(&j);
    } else {
        rc = print_pipes(list, count);
    }
    free(list);
    return rc;
}

/* pipe PIPE up|down */

int lhctl_cmd_pipe(struct lhctl *ctl, int argc, char **argv)
{
    uint32_t pipe, state;
    int rc;

    (void)argc;
    if (lhctl_parse_u32("PIPE", argv[0], &pipe) != LHCTL_EXIT_OK ||
        lhctl_parse_name("pipe state", argv[1], pipe_state_words, 2, &state) !=
            LHCTL_EXIT_OK)
        return LHCTL_EXIT_USAGE;
    rc = lhctl_set_pipe(ctl, pipe, (uint8_t)state);
    if (rc != LHCTL_EXIT_OK)
        return rc;
    if (ctl->json) {
        struct lhctl_json j;

        lhctl_json_begin(&j, stdout);
        lhctl_json_uint(&j, "pipe", pipe);
        lhctl_json_string(&j, "state", lhctl_pipe_state_name((uint8_t)state));
        lhctl_json_end(&j);
    } else {
        printf("%s\n", lhctl_pipe_state_name((uint8_t)state));
    }
    return LHCTL_EXIT_OK;
}

/* stats MODULE PIPE [--clear]: read, clear when asked, then print. */

static int parse_stats_args(int argc, char **argv, uint32_t *module_id,
                            uint32_t *pipe, bool *clear)
{
    char *words[2];
    int count = 0;

    *clear = false;
    for (int i = 0; i < argc; i++) {
        if (strcmp(argv[i], "--clear") == 0)
            *clear = true;
        else if (count < 2)
            words[count++] = argv[i];
        else
            return lhctl_usage_error("unexpected argument \"%s\"", argv[i]);
    }
    if (count < 2)
        return lhctl_usage_error("missing argument");
    if (lhctl_parse_module(words[0], module_id) != LHCTL_EXIT_OK)
        return LHCTL_EXIT_USAGE;
    return lhctl_parse_u32("PIPE", words[1], pipe);
}

int lhctl_cmd_stats(struct lhctl *ctl, int argc, char **argv)
{
    struct lhctl_counters counters;
    uint32_t module_id, pipe;
    bool clear;
    int rc = parse_stats_args(argc, argv, &module_id, &pipe, &clear);

    if (rc != LHCTL_EXIT_OK)
        return rc;
    rc = lhctl_get_stats(ctl, module_id, pipe, &counters);
    if (rc == LHCTL_EXIT_OK && clear)
        rc = lhctl_clear_stats(ctl, module_id, pipe);
    if (rc == LHCTL_EXIT_OK && ctl->json) {
        struct lhctl_json j;

        lhctl_json_begin(&j, stdout);
        lhctl_json_stats_fields(&j, module_id, pipe, &counters);
        lhctl_json_bool(&j, "cleared", clear);
        lhctl_json_end(&j);
    } else if (rc == LHCTL_EXIT_OK) {
        rc = print_counters(&counters);
    }
    lhctl_counters_free(&counters);
    return rc;
}

/* reg read OFFSET, reg write OFFSET VALUE */

static void print_reg(const struct lhctl *ctl, uint32_t offset, uint32_t value)
{
    if (ctl->json) {
        struct lhctl_json j;

        lhctl_json_begin(&j, stdout);
        lhctl_json_uint(&j, "offset", offset);
        lhctl_json_uint(&j, "value", value);
        lhctl_json_end(&j);
    } else {
        printf("0x%08" PRIx32 "\n", value);
    }
}

int lhctl_cmd_reg_read(struct lhctl *ctl, int argc, char **argv)
{
    uint32_t offset, value;
    int rc;

    (void)argc;
    if (lhctl_parse_u32("OFFSET", argv[0], &offset) != LHCTL_EXIT_OK)
        return LHCTL_EXIT_USAGE;
    rc = lhctl_read_reg(ctl, offset, &value);
    if (rc == LHCTL_EXIT_OK)
        print_reg(ctl, offset, value);
    return rc;
}

int lhctl_cmd_reg_write(struct lhctl *ctl, int argc, char **argv)
{
    uint32_t offset, value;
    int rc;

    (void)argc;
    if (lhctl_parse_u32("OFFSET", argv[0], &offset) != LHCTL_EXIT_OK ||
        lhctl_parse_u32("VALUE", argv[1], &value) != LHCTL_EXIT_OK)
        return LHCTL_EXIT_USAGE;
    rc = lhctl_write_reg(ctl, offset, value);
    if (rc == LHCTL_EXIT_OK)
        print_reg(ctl, offset, value);
    return rc;
}

/* loopback PIPE [TYPE] */

/* The names of the types set in a loopback mask: bit n is type n, a bit
 * without a type is "type-n"; an empty mask is "disable-all". */
struct type_names {
    size_t count;
    char names[32][LHCTL_NAME_MAX];
};

static void mask_names(uint32_t mask, struct type_names *out)
{
    out->count = 0;
    for (unsigned int bit = 0; bit < 32; bit++) {
        if ((mask & (1u << bit)) == 0)
            continue;
        if (bit < LHCTL_LOOPBACK_TYPES)
            snprintf(out->names[out->count++], LHCTL_NAME_MAX, "%s",
                     lhctl_loopback_names[bit]);
        else
            snprintf(out->names[out->count++], LHCTL_NAME_MAX, "type-%u", bit);
    }
    if (out->count == 0)
        snprintf(out->names[out->count++], LHCTL_NAME_MAX, "%s",
                 lhctl_loopback_names[0]);
}

static void print_loopback(const struct lhctl *ctl, uint32_t pipe,
                           uint32_t mask)
{
    struct type_names types;
    struct lhctl_json j;

    mask_names(mask, &types);
    if (!ctl->json) {
        for (size_t i = 0; i < types.count; i++)
            printf("%s%s", i > 0 ? " " : "", types.names[i]);
        printf("\n");
        return;
    }
    lhctl_json_begin(&j, stdout);
    lhctl_json_uint(&j, "pipe", pipe);
    lhctl_json_uint(&j, "mask", mask);
    lhctl_json_array(&j, "types");
    for (size_t i = 0; i < types.count; i++)
        lhctl_json_string(&j, NULL, types.names[i]);
    lhctl_json_end(&j);
}

int lhctl_cmd_loopback(struct lhctl *ctl, int argc, char **argv)
{
    uint32_t pipe, type, mask = 0;
    int rc;

    if (lhctl_parse_u32("PIPE", argv[0], &pipe) != LHCTL_EXIT_OK)
        return LHCTL_EXIT_USAGE;
    if (argc == 1) {
        rc = lhctl_get_loopback(ctl, pipe, &mask);
    } else {
        if (lhctl_parse_name("loopback type", argv[1], lhctl_loopback_names,
                             LHCTL_LOOPBACK_TYPES, &type) != LHCTL_EXIT_OK)
            return LHCTL_EXIT_USAGE;
        rc = lhctl_set_loopback(ctl, pipe, type);
        mask = type == 0 ? 0 : 1u << type;
    }
    if (rc == LHCTL_EXIT_OK)
        print_loopback(ctl, pipe, mask);
    return rc;
}

/* qos PIPE PROFILE [low|med|high] */

static void print_qos(const struct lhctl *ctl, uint32_t pipe, uint32_t profile,
                      uint32_t priority)
{
    char buf[16];
    const char *name = buf;

    if (priority < LHCTL_PRIORITIES)
        name = lhctl_priority_names[priority];
    else
        snprintf(buf, sizeof(buf), "%" PRIu32, priority);
    if (ctl->json) {
        struct lhctl_json j;

        lhctl_json_begin(&j, stdout);
        lhctl_json_uint(&j, "pipe", pipe);
        lhctl_json_uint(&j, "profile", profile);
        lhctl_json_string(&j, "priority", name);
        lhctl_json_end(&j);
    } else {
        printf("%s\n", name);
    }
}

int lhctl_cmd_qos(struct lhctl *ctl, int argc, char **argv)
{
    uint32_t pipe, profile, priority;
    int rc;

    if (lhctl_parse_u32("PIPE", argv[0], &pipe) != LHCTL_EXIT_OK ||
        lhctl_parse_u32("PROFILE", argv[1], &profile) != LHCTL_EXIT_OK)
        return LHCTL_EXIT_USAGE;
    if (argc == 2) {
        rc = lhctl_get_qos(ctl, pipe, profile, &priority);
    } else {
        if (lhctl_parse_name("priority", argv[2], lhctl_priority_names,
                             LHCTL_PRIORITIES, &priority) != LHCTL_EXIT_OK)
            return LHCTL_EXIT_USAGE;
        rc = lhctl_set_qos(ctl, pipe, profile, priority);
    }
    if (rc == LHCTL_EXIT_OK)
        print_qos(ctl, pipe, profile, priority);
    return rc;
}
