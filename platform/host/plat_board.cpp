/* On a host the board facts come from decimal keys of the IDPROM cache. */
#include "plat_board.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#define IDPROM_CACHE_PATH "/tmp/idprom_cache.conf"
#define DEFAULT_BOARD_TYPE 4

/* Parses "KEY=decimal" for `key`; returns 0 and the value, or -1. */
static int read_decimal_key(const char *key, long *value)
{
    FILE *file = fopen(IDPROM_CACHE_PATH, "r");
    char *line = NULL;
    size_t capacity = 0;
    size_t key_length = strlen(key);
    int result = -1;

    if (file == NULL)
        return -1;
    while (result != 0 && getline(&line, &capacity, file) != -1) {
        char *end;

        if (strncmp(line, key, key_length) != 0 || line[key_length] != '=')
            continue;
        *value = strtol(line + key_length + 1, &end, 10);
        if (end != line + key_length + 1)
            result = 0;
    }
    free(line);
    fclose(file);
    return result;
}

static int read_flag(const char *key)
{
    long value = 0;

    if (read_decimal_key(key, &value) != 0)
        return 0;
    return value != 0;
}

int get_platform_board_type(void)
{
    long value;

    if (read_decimal_key("BOARD_TYPE", &value) != 0)
        return DEFAULT_BOARD_TYPE;
    return (int)value;
}

int is_bramble_sim(void)
{
    return read_flag("BRAMBLE_SIM");
}

int is_qrn_sim(void)
{
    return read_flag("QRN_SIM");
}
