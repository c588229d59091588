/* lhsim: the simulated Larks Hollow board as a tool: make a
 * board directory, run the daemon or a shell on it in its sandbox, and do
 * what hardware does while the daemon runs. docs/lhsim.md has the details.
 *
 * Exit status: 0 done, 1 no board (or it could not be changed), 2 a usage
 * error or a target the board does not have; run and shell give their
 * program's. */
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "lhsim.hpp"

static const struct lhsim_command commands[] = {
    {"create", lhsim_create, "[--board base2|base1|lhx] DIR"},
    {"run", lhsim_run,
     "[--board base2|base1|lhx] [--dir DIR] [--keep] -- PROGRAM [ARG...]"},
    {"shell", lhsim_shell, "DIR"},
    {"destroy", lhsim_destroy, "DIR"},
    {"fatal", lhsim_fatal, "DIR MODULE PIPE (TEXT|--bit [REG:]N)"},
    {"clear-fatal", lhsim_clear_fatal, "DIR MODULE PIPE"},
    {"link", lhsim_link, "DIR PIPE up|down"},
    {"counter", lhsim_counter, "DIR MODULE PIPE INDEX VALUE"},
    {"peek", lhsim_peek, "DIR OFFSET"},
    {"poke", lhsim_poke, "DIR OFFSET VALUE"},
    {"errors", lhsim_errors, "MODULE"},
};

#define COMMAND_COUNT (sizeof(commands) / sizeof(commands[0]))

int lhsim_usage(const struct lhsim_command *command)
{
    fprintf(stderr, "usage: lhsim %s %s\n", command->name, command->usage);
    return LHSIM_USAGE;
}

static void usage_all(FILE *to)
{
    for (size_t i = 0; i < COMMAND_COUNT; i++)
        fprintf(to, "%s lhsim %s %s\n", i == 0 ? "usage:" : "      ",
                commands[i].name, commands[i].usage);
}

int lhsim_parse_u64(const char *text, uint64_t *value)
{
    unsigned long long parsed;
    char *end;

    if (text == NULL || *text == '\0' || *text == '-' || *text == '+')
        return -1;
    errno = 0;
    parsed = strtoull(text, &end, 0);
    if (errno != 0 || *end != '\0')
        return -1;
    *value = parsed;
    return 0;
}

int lhsim_parse_u32(const char *text, uint32_t *value)
{
    uint64_t parsed;

    if (lhsim_parse_u64(text, &parsed) < 0 || parsed > UINT32_MAX)
        return -1;
    *value = (uint32_t)parsed;
    return 0;
}

int main(int argc, char **argv)
{
    if (argc >= 2 &&
        (strcmp(argv[1], "help") == 0 || strcmp(argv[1], "--help") == 0)) {
        usage_all(stdout);
        return LHSIM_OK;
    }
    for (size_t i = 0; argc >= 2 && i < COMMAND_COUNT; i++)
        if (strcmp(argv[1], commands[i].name) == 0)
            return commands[i].handler(&commands[i], argc - 1, argv + 1);
    usage_all(stderr);
    return LHSIM_USAGE;
}
