/* lhctl: the operator's command-line client of pellin_mgr.
 *
 *   lhctl [--socket PATH] [--timeout SECONDS] [--json] COMMAND ...
 *
 * Exit codes: 0 success, 1 the daemon refused (error reply), 2 usage, 3 the
 * daemon could not be reached or did not answer. docs/lhctl.md has the
 * rest. */
#include <ctype.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "ipc_msg.hpp"
#include "lhctl.hpp"
#include "plat_ipc.h"

#define OPTIONS_USAGE "lhctl [--socket PATH] [--timeout SECONDS] [--json]"

struct command {
    const char *name; /* one or two words */
    const char *args;
    const char *summary;
    int min_args;
    int max_args;
    int (*run)(struct lhctl *ctl, int argc, char **argv);
};

static const struct command commands[] = {
    {"modules", "", "module list with health", 0, 0, lhctl_cmd_modules},
    {"pipes", "", "traffic pipe states", 0, 0, lhctl_cmd_pipes},
    {"pipe", "PIPE up|down", "take a traffic pipe up or down", 2, 2,
     lhctl_cmd_pipe},
    {"stats", "MODULE PIPE [--clear]",
     "statistics of a module instance (MODULE: name or id)", 2, 3,
     lhctl_cmd_stats},
    {"reg read", "OFFSET", "read a register", 1, 1, lhctl_cmd_reg_read},
    {"reg write", "OFFSET VALUE", "write a register", 2, 2,
     lhctl_cmd_reg_write},
    {"loopback", "PIPE [disable-all|pcs-near|pma-near|pma-far|pcs-far]",
     "get or set the loopback of a pipe", 1, 2, lhctl_cmd_loopback},
    {"qos", "PIPE PROFILE [low|med|high]",
     "get or set the priority of an ingress QoS profile", 2, 3, lhctl_cmd_qos},
    {"metrics", "", "Prometheus text exposition of health and counters", 0, 0,
     lhctl_cmd_metrics},
};

#define COMMAND_COUNT (sizeof(commands) / sizeof(commands[0]))

/* "name args", as the usage lines show a command. */
static int command_line(const struct command *cmd, char *buf, size_t size)
{
    return snprintf(buf, size, "%s%s%s", cmd->name,
                    cmd->args[0] != '\0' ? " " : "", cmd->args);
}

static void print_command_usage(FILE *out, const struct command *cmd)
{
    char line[128];

    command_line(cmd, line, sizeof(line));
    fprintf(out, "usage: " OPTIONS_USAGE " %s\n", line);
}

#define SUMMARY_COLUMN 32

/* Each command and what it does; a long one has its summary below it.
 * The options are explained for --help only. */
static void print_usage(FILE *out, bool help)
{
    fprintf(out, "usage: " OPTIONS_USAGE " COMMAND ...\ncommands:\n");
    for (size_t i = 0; i < COMMAND_COUNT; i++) {
        char line[128];
        int len = command_line(&commands[i], line, sizeof(line));

        if (len < SUMMARY_COLUMN)
            fprintf(out, "  %-*s  %s\n", SUMMARY_COLUMN, line,
                    commands[i].summary);
        else
            fprintf(out, "  %s\n  %-*s  %s\n", line, SUMMARY_COLUMN, "",
                    commands[i].summary);
    }
    if (help)
        fprintf(
            out,
            "options:\n"
            "  --socket PATH      the daemon's socket (default " IPC_SOCKET_DIR
            "/%d.sock)\n"
            "  --timeout SECONDS  the wait for each answer (default "
            "%d)\n"
            "  --json             print JSON\n",
            PLM_IPC_APP_ID, LHCTL_DEFAULT_TIMEOUT_MS / 1000);
}

/* The command whose words begin `words`; *used says how many it took. */
static const struct command *find_command(char **words, int count, int *used)
{
    for (size_t i = 0; i < COMMAND_COUNT; i++) {
        const char *name = commands[i].name;
        const char *space = strchr(name, ' ');

        if (space == NULL && strcmp(words[0], name) == 0) {
            *used = 1;
            return &commands[i];
        }
        if (space != NULL && count >= 2 &&
            strncmp(words[0], name, (size_t)(space - name)) == 0 &&
            words[0][space - name] == '\0' &&
            strcmp(words[1], space + 1) == 0) {
            *used = 2;
            return &commands[i];
        }
    }
    return NULL;
}

enum option_id { OPT_SOCKET, OPT_TIMEOUT, OPT_JSON, OPT_HELP, OPT_NONE };

static const struct {
    const char *name;
    bool takes_value; /* "--name VALUE" or "--name=VALUE" */
    enum option_id id;
} options[] = {
    {"--socket", true, OPT_SOCKET}, {"--timeout", true, OPT_TIMEOUT},
    {"--json", false, OPT_JSON},    {"--help", false, OPT_HELP},
    {"-h", false, OPT_HELP},
};

/* Which option argv[*i] is, its value in *value; *i moves past a value
 * given as the next word, which is null when there is none. */
static enum option_id match_option(int argc, char **argv, int *i,
                                   const char **value)
{
    for (size_t k = 0; k < sizeof(options) / sizeof(options[0]); k++) {
        size_t len = strlen(options[k].name);

        if (strncmp(argv[*i], options[k].name, len) != 0)
            continue;
        if (argv[*i][len] == '\0' && !options[k].takes_value)
            return options[k].id;
        if (argv[*i][len] == '=' && options[k].takes_value)
            *value = argv[*i] + len + 1;
        else if (argv[*i][len] == '\0' && options[k].takes_value)
            *value = *i + 1 < argc ? argv[++*i] : NULL;
        else
            continue;
        return options[k].id;
    }
    return OPT_NONE;
}

struct options {
    bool help = {};
    int word_count = {};
    char **words = {}; /* the command and its arguments, options taken out */
};

static int apply_option(struct lhctl *ctl, struct options *opts,
                        enum option_id id, const char *value)
{
    if ((id == OPT_SOCKET || id == OPT_TIMEOUT) && value == NULL)
        return lhctl_usage_error("option %s needs a value",
                                 id == OPT_SOCKET ? "--socket" : "--timeout");
    if (id == OPT_SOCKET)
        ctl->socket_path = value;
    else if (id == OPT_TIMEOUT)
        return lhctl_parse_seconds(value, &ctl->timeout_ms);
    else if (id == OPT_JSON)
        ctl->json = true;
    else
        opts->help = true;
    return LHCTL_EXIT_OK;
}

/* Global options may stand anywhere; "--clear" is left to its command and
 * "-1" to the number parsers, which refuse it. */
static int parse_options(struct lhctl *ctl, int argc, char **argv,
                         struct options *opts)
{
    bool only_words = false;

    for (int i = 1; i < argc; i++) {
        const char *value = NULL;
        enum option_id id;
        int rc;

        if (only_words || argv[i][0] != '-' ||
            isdigit((unsigned char)argv[i][1]) ||
            strcmp(argv[i], "--clear") == 0) {
            opts->words[opts->word_count++] = argv[i];
            continue;
        }
        if (strcmp(argv[i], "--") == 0) {
            only_words = true;
            continue;
        }
        id = match_option(argc, argv, &i, &value);
        if (id == OPT_NONE)
            return lhctl_usage_error("unknown option \"%s\"", argv[i]);
        rc = apply_option(ctl, opts, id, value);
        if (rc != LHCTL_EXIT_OK)
            return rc;
    }
    return LHCTL_EXIT_OK;
}

static int check_arg_count(const struct command *cmd, int count, char **args)
{
    if (count < cmd->min_args)
        return lhctl_usage_error("missing argument");
    if (count > cmd->max_args)
        return lhctl_usage_error("unexpected argument \"%s\"",
                                 args[cmd->max_args]);
    return LHCTL_EXIT_OK;
}

static int run(struct lhctl *ctl, struct options *opts)
{
    const struct command *cmd;
    int used, rc;

    if (opts->word_count == 0) {
        lhctl_usage_error("no command");
        print_usage(stderr, false);
        return LHCTL_EXIT_USAGE;
    }
    cmd = find_command(opts->words, opts->word_count, &used);
    if (cmd == NULL) {
        lhctl_usage_error("unknown command \"%s\"", opts->words[0]);
        print_usage(stderr, false);
        return LHCTL_EXIT_USAGE;
    }
    rc = check_arg_count(cmd, opts->word_count - used, opts->words + used);
    if (rc == LHCTL_EXIT_OK)
        rc = cmd->run(ctl, opts->word_count - used, opts->words + used);
    if (rc == LHCTL_EXIT_USAGE)
        print_command_usage(stderr, cmd);
    return rc;
}

int main(int argc, char **argv)
{
    char default_socket[PATH_MAX];
    char *words[argc > 0 ? argc : 1];
    struct options opts = {.words = words};
    struct lhctl ctl = {.timeout_ms = LHCTL_DEFAULT_TIMEOUT_MS};
    int rc;

    if (ipc_socket_path(PLM_IPC_APP_ID, default_socket,
                        sizeof(default_socket)) == 0)
        ctl.socket_path = default_socket;
    rc = parse_options(&ctl, argc, argv, &opts);
    if (rc != LHCTL_EXIT_OK) {
        print_usage(stderr, false);
        return rc;
    }
    if (opts.help) {
        print_usage(stdout, true);
        return LHCTL_EXIT_OK;
    }
    rc = run(&ctl, &opts);
    lhctl_disconnect(&ctl);
    if (fflush(stdout) != 0 && rc == LHCTL_EXIT_OK) {
        perror("lhctl: standard output");
        rc = LHCTL_EXIT_REFUSED;
    }
    return rc;
}
