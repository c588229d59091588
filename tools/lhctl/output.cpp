/* Output formats: aligned text tables, compact JSON and the Prometheus
 * text exposition format (version 0.0.4). */
#include <inttypes.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "lhctl.hpp"

/* Text tables */

#define TABLE_GAP 2

int lhctl_table_init(struct lhctl_table *t, size_t columns,
                     const char *const *header)
{
    *t = lhctl_table{.columns = columns};
    return lhctl_table_add(t, header);
}

int lhctl_table_add(struct lhctl_table *t, const char *const *cells)
{
    if (t->rows == t->capacity) {
        size_t capacity = t->capacity > 0 ? 2 * t->capacity : 16;
        void *grown =
            reallocarray(t->cells, capacity * t->columns, sizeof(*t->cells));

        if (grown == NULL)
            return lhctl_out_of_memory();
        t->cells = static_cast<char (*)[48]>(grown);
        t->capacity = capacity;
    }
    for (size_t c = 0; c < t->columns; c++)
        snprintf(t->cells[t->rows * t->columns + c], LHCTL_CELL_MAX, "%s",
                 cells[c]);
    t->rows++;
    return LHCTL_EXIT_OK;
}

static size_t column_width(const struct lhctl_table *t, size_t column)
{
    size_t width = 0;

    for (size_t r = 0; r < t->rows; r++) {
        size_t len = strlen(t->cells[r * t->columns + column]);

        if (len > width)
            width = len;
    }
    return width;
}

/* Every column but the last padded to its widest cell and a gap. */
void lhctl_table_print(const struct lhctl_table *t, FILE *out)
{
    size_t widths[t->columns > 0 ? t->columns : 1];

    for (size_t c = 0; c < t->columns; c++)
        widths[c] = column_width(t, c) + TABLE_GAP;
    for (size_t r = 0; r < t->rows; r++) {
        for (size_t c = 0; c + 1 < t->columns; c++)
            fprintf(out, "%-*s", (int)widths[c], t->cells[r * t->columns + c]);
        fprintf(out, "%s\n", t->cells[r * t->columns + t->columns - 1]);
    }
}

void lhctl_table_free(struct lhctl_table *t)
{
    free(t->cells);
    *t = lhctl_table{};
}

/* JSON */

static void json_write_string(FILE *out, const char *s)
{
    fputc('"', out);
    for (const unsigned char *c = (const unsigned char *)s; *c != '\0'; c++) {
        if (*c == '"' || *c == '\\')
            fprintf(out, "\\%c", *c);
        else if (*c == '\n')
            fputs("\\n", out);
        else if (*c == '\t')
            fputs("\\t", out);
        else if (*c < 0x20 || *c == 0x7f)
            fprintf(out, "\\u%04x", *c);
        else
            fputc(*c, out);
    }
    fputc('"', out);
}

/* The comma before a member and its key, when it has one. */
static void json_member(struct lhctl_json *j, const char *key)
{
    if (!j->first[j->depth])
        fputc(',', j->out);
    j->first[j->depth] = false;
    if (key != NULL) {
        json_write_string(j->out, key);
        fputc(':', j->out);
    }
}

static void json_open(struct lhctl_json *j, const char *key, char opener,
                      char closer)
{
    json_member(j, key);
    fputc(opener, j->out);
    if (j->depth + 1 < LHCTL_JSON_DEPTH)
        j->depth++;
    j->closer[j->depth] = closer;
    j->first[j->depth] = true;
}

void lhctl_json_begin(struct lhctl_json *j, FILE *out)
{
    *j = lhctl_json{.out = out, .first = {true}};
    fputc('{', out);
    j->closer[0] = '}';
}

void lhctl_json_end(struct lhctl_json *j)
{
    while (j->depth > 0)
        lhctl_json_close(j);
    fputs("}\n", j->out);
}

void lhctl_json_object(struct lhctl_json *j, const char *key)
{
    json_open(j, key, '{', '}');
}

void lhctl_json_array(struct lhctl_json *j, const char *key)
{
    json_open(j, key, '[', ']');
}

void lhctl_json_close(struct lhctl_json *j)
{
    if (j->depth == 0)
        return;
    fputc(j->closer[j->depth], j->out);
    j->depth--;
}

void lhctl_json_string(struct lhctl_json *j, const char *key, const char *value)
{
    json_member(j, key);
    json_write_string(j->out, value);
}

void lhctl_json_uint(struct lhctl_json *j, const char *key, uint64_t value)
{
    json_member(j, key);
    fprintf(j->out, "%" PRIu64, value);
}

void lhctl_json_bool(struct lhctl_json *j, const char *key, bool value)
{
    json_member(j, key);
    fputs(value ? "true" : "false", j->out);
}

/* Prometheus text format */

/* Metric names are [a-zA-Z_:][a-zA-Z0-9_:]*, label names the same without
 * ':'; anything else is written as '_' (a leading digit too). */
static void prom_write_name(FILE *out, const char *name, bool colon)
{
    for (const char *c = name; *c != '\0'; c++) {
        bool letter = (*c >= 'a' && *c <= 'z') || (*c >= 'A' && *c <= 'Z') ||
                      *c == '_' || (*c == ':' && colon);
        bool digit = *c >= '0' && *c <= '9';

        fputc(letter || (digit && c != name) ? *c : '_', out);
    }
}

/* Label values escape backslash, double quote and newline; HELP text only
 * backslash and newline. */
static void prom_write_escaped(FILE *out, const char *text, bool quote)
{
    for (const char *c = text; *c != '\0'; c++) {
        if (*c == '\\')
            fputs("\\\\", out);
        else if (*c == '\n')
            fputs("\\n", out);
        else if (*c == '"' && quote)
            fputs("\\\"", out);
        else
            fputc(*c, out);
    }
}

void lhctl_prom_family(FILE *out, const char *name, const char *type,
                       const char *help)
{
    fputs("# HELP ", out);
    prom_write_name(out, name, true);
    fputc(' ', out);
    prom_write_escaped(out, help, false);
    fputs("\n# TYPE ", out);
    prom_write_name(out, name, true);
    fprintf(out, " %s\n", type);
}

void lhctl_prom_sample(FILE *out, const char *name,
                       const struct lhctl_label *labels, size_t count,
                       uint64_t value)
{
    prom_write_name(out, name, true);
    for (size_t i = 0; i < count; i++) {
        fputc(i == 0 ? '{' : ',', out);
        prom_write_name(out, labels[i].name, false);
        fputs("=\"", out);
        prom_write_escaped(out, labels[i].value, true);
        fputc('"', out);
    }
    fprintf(out, "%s %" PRIu64 "\n", count > 0 ? "}" : "", value);
}
