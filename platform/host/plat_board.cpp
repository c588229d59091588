/* On a host the board facts come from decimal keys of the IDPROM cache. */
#include "plat_board.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#define IDPROM_CACHE_PATH  "/tmp/idprom_cache.conf"
#define DEFAULT_BOARD_TYPE 4

/* The value of the first "KEY=decimal" line for `key`, or `otherwise`. */
static long decimal_key(const char *key, long otherwise)
{
    FILE *file = fopen(IDPROM_CACHE_PATH, "r");
    char *line = NULL, *end = NULL;
    size_t capacity = 0, key_length = strlen(key);
    long value = otherwise;

    while (file != NULL && getline(&line, &capacity, file) != -1) {
        if (strncmp(line, key, key_length) != 0 || line[key_length] != '=')
            continue;
        long read = strtol(line + key_length + 1, &end, 10);
        if (end != line + key_length + 1) {
            value = read;
            break;
        }
    }
    free(line);
    if (file != NULL)
        fclose(file);
    return value;
}

int get_platform_board_type(void)
{
    return (int)decimal_key("BOARD_TYPE", DEFAULT_BOARD_TYPE);
}

int is_bramble_sim(void)
{
    return decimal_key("BRAMBLE_SIM", 0) != 0;
}

int is_qrn_sim(void)
{
    return decimal_key("QRN_SIM", 0) != 0;
}
