/* lhctl metrics: module health, pipe states and every counter of every
 * module instance with statistics, in the Prometheus text format for
 * node_exporter's textfile collector (or, with --json, as one object).
 * Every request is made before anything is printed, so a failed run
 * leaves standard output empty. */
#include <inttypes.h>
#include <stdio.h>
#include <stdlib.h>

#include "lhctl.hpp"

#define METRIC_FAILED  "pellin_module_failed"
#define METRIC_PIPE_UP "pellin_pipe_up"
#define METRIC_COUNTER "pellin_block_counter_total"

struct snapshot {
    struct lhctl_module *modules = {};
    size_t module_count = {};
    struct lhctl_pipe *pipes = {};
    size_t pipe_count = {};
    struct lhctl_counters *stats = {}; /* per module entry, empty for none */
};

static void free_snapshot(struct snapshot *s)
{
    for (size_t i = 0; s->stats != NULL && i < s->module_count; i++)
        lhctl_counters_free(&s->stats[i]);
    free(s->stats);
    free(s->modules);
    free(s->pipes);
}

static int take_snapshot(struct lhctl *ctl, struct snapshot *s)
{
    int rc = lhctl_get_modules(ctl, &s->modules, &s->module_count);

    if (rc == LHCTL_EXIT_OK)
        rc = lhctl_get_pipes(ctl, &s->pipes, &s->pipe_count);
    if (rc != LHCTL_EXIT_OK)
        return rc;
    s->stats =
        static_cast<lhctl_counters*>(calloc(s->module_count > 0 ? s->module_count : 1, sizeof(*s->stats)));
    if (s->stats == NULL)
        return lhctl_out_of_memory();
    for (size_t i = 0; rc == LHCTL_EXIT_OK && i < s->module_count; i++) {
        const struct lhctl_module *m = &s->modules[i];

        if (lhctl_module_has_stats(m->id))
            rc = lhctl_get_stats(ctl, m->id, m->pipe, &s->stats[i]);
    }
    return rc;
}

static void prom_modules(const struct snapshot *s, FILE *out)
{
    lhctl_prom_family(out, METRIC_FAILED, "gauge",
                      "1 when the module instance has reported a fatal "
                      "hardware error (FAILED), 0 when OK.");
    for (size_t i = 0; i < s->module_count; i++) {
        char name[16], pipe[16];
        const struct lhctl_label labels[] = {
            {"module", lhctl_module_name(s->modules[i].id, name, sizeof(name))},
            {"pipe", pipe},
        };

        snprintf(pipe, sizeof(pipe), "%" PRIu32, s->modules[i].pipe);
        lhctl_prom_sample(out, METRIC_FAILED, labels, 2,
                          s->modules[i].state != 0);
    }
}

static void prom_pipes(const struct snapshot *s, FILE *out)
{
    lhctl_prom_family(out, METRIC_PIPE_UP, "gauge",
                      "1 when the traffic pipe is up, 0 when it is down.");
    for (size_t i = 0; i < s->pipe_count; i++) {
        char pipe[16];
        const struct lhctl_label labels[] = {{"pipe", pipe}};

        snprintf(pipe, sizeof(pipe), "%" PRIu32, s->pipes[i].pipe);
        lhctl_prom_sample(out, METRIC_PIPE_UP, labels, 1,
                          s->pipes[i].state != 0);
    }
}

static void prom_counters(const struct snapshot *s, FILE *out)
{
    lhctl_prom_family(out, METRIC_COUNTER, "counter",
                      "Statistics counter of a hardware block, named by its "
                      "register source.");
    for (size_t i = 0; i < s->module_count; i++) {
        const struct lhctl_counters *c = &s->stats[i];
        char name[16], pipe[16];
        struct lhctl_label labels[] = {
            {"module", lhctl_module_name(s->modules[i].id, name, sizeof(name))},
            {"pipe", pipe},
            {"counter", NULL},
        };

        snprintf(pipe, sizeof(pipe), "%" PRIu32, s->modules[i].pipe);
        for (size_t k = 0; k < c->count; k++) {
            labels[2].value = c->items[k].name;
            lhctl_prom_sample(out, METRIC_COUNTER, labels, 3,
                              c->items[k].value);
        }
    }
}

static void print_json(const struct snapshot *s, FILE *out)
{
    struct lhctl_json j;

    lhctl_json_begin(&j, out);
    lhctl_json_modules(&j, s->modules, s->module_count);
    lhctl_json_pipes(&j, s->pipes, s->pipe_count);
    lhctl_json_array(&j, "stats");
    for (size_t i = 0; i < s->module_count; i++) {
        if (!lhctl_module_has_stats(s->modules[i].id))
            continue;
        lhctl_json_object(&j, NULL);
        lhctl_json_stats_fields(&j, s->modules[i].id, s->modules[i].pipe,
                                &s->stats[i]);
        lhctl_json_close(&j);
    }
    lhctl_json_end(&j);
}

int lhctl_cmd_metrics(struct lhctl *ctl, int argc, char **argv)
{
    struct snapshot s = {};
    int rc = take_snapshot(ctl, &s);

    (void)argc;
    (void)argv;
    if (rc == LHCTL_EXIT_OK && ctl->json) {
        print_json(&s, stdout);
    } else if (rc == LHCTL_EXIT_OK) {
        prom_modules(&s, stdout);
        prom_pipes(&s, stdout);
        prom_counters(&s, stdout);
    }
    free_snapshot(&s);
    return rc;
}
