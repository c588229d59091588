/* What hardware does, done to a board's window while the daemon runs: fatal
 * errors, link changes, counter values and plain register access. Every
 * block is found through the FPGA library's own layout tables
 * (lh_block_layout_of), so a fault lands exactly where the driver looks. */
#include <errno.h>
#include <getopt.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "lh_device.hpp"
#include "lhsim.hpp"

/* A block of one pipe on an open board. */
struct target {
    struct lhsim_board board;
    uint32_t module_id;
    uint32_t pipe;
    struct lh_block_layout layout;
    uint32_t base; /* the block's offset in the window */
};

/* The receive-aligned bit of each port block. */
static const struct port_status {
    uint32_t module_id;
    uint32_t reg;
    unsigned bit;
} ports[] = {
    {LH_MOD_CAUI, 0x0824, 24},
    {LH_MOD_ETH, 0x1024, 3},
};

static const char *image_name(uint32_t device_type)
{
    return device_type == LH_DEV_TYPE_LHX ? "LHX" : "base";
}

/* MODULE by name or id; says why not and returns -1. */
static int find_module(const char *text, uint32_t *module_id,
                       struct lh_block_layout *layout)
{
    uint32_t id = LH_MOD_COUNT;

    for (uint32_t i = 0; i < LH_MOD_COUNT && id == LH_MOD_COUNT; i++)
        if (strcmp(text, lh_module_names[i]) == 0)
            id = i;
    if (id == LH_MOD_COUNT && lhsim_parse_u32(text, &id) < 0)
        id = LH_MOD_COUNT;
    if (id >= LH_MOD_COUNT || lh_block_layout_of(id, layout) < 0) {
        fprintf(stderr,
                "lhsim: no module \"%s\" (names: global, pcie, ddr4, "
                "caui, nic, ingress-pkt-parser, ... or ids 0-14)\n",
                text);
        return -1;
    }
    *module_id = id;
    return 0;
}

/* Refuses a block of the other image or a pipe the board does not have. */
static int check_target(const struct target *t)
{
    const char *module = lh_module_names[t->module_id];
    uint32_t pipes = t->layout.per_pipe ? t->board.kind->pipes : 1;

    if (t->layout.device_type != t->board.kind->device_type) {
        fprintf(stderr,
                "lhsim: %s is a module of the %s image, not of the %s board "
                "in %s\n",
                module, image_name(t->layout.device_type),
                sim_board_kind_name(t->board.kind->kind), t->board.root);
        return -1;
    }
    if (t->pipe >= pipes) {
        fprintf(stderr, "lhsim: the %s board in %s has no %s pipe %u\n",
                sim_board_kind_name(t->board.kind->kind), t->board.root, module,
                t->pipe);
        return -1;
    }
    return 0;
}

/* Places the named block on the open board, or refuses it and closes the
 * board: LHSIM_OK or the exit status. */
static int place_target(struct target *t, uint32_t pipe)
{
    t->pipe = pipe;
    if (check_target(t) < 0) {
        lhsim_board_close(&t->board);
        return LHSIM_USAGE;
    }
    t->base = t->layout.offsets[pipe];
    return LHSIM_OK;
}

/* DIR MODULE PIPE as the arguments give them. */
static int open_block(const struct lhsim_command *command, char **args,
                      struct target *t)
{
    uint32_t pipe;

    if (lhsim_parse_u32(args[2], &pipe) < 0)
        return lhsim_usage(command);
    if (find_module(args[1], &t->module_id, &t->layout) < 0)
        return LHSIM_USAGE;
    if (lhsim_board_open(args[0], &t->board) < 0)
        return LHSIM_FAILED;
    return place_target(t, pipe);
}

static int write_failed(struct target *t, uint32_t offset)
{
    fprintf(stderr, "lhsim: cannot write 0x%05x of %s: %s\n", offset,
            t->board.window, strerror(errno));
    lhsim_board_close(&t->board);
    return LHSIM_FAILED;
}

/* --bit N, or --bit REG:N for a block with that bit in several registers. */
struct bit_choice {
    int given = {};
    int has_reg = {};
    uint32_t reg = {};
    uint32_t bit = {};
};

static int parse_bit(const char *text, struct bit_choice *choice)
{
    const char *colon = strchr(text, ':');
    char reg[32];

    choice->given = 1;
    choice->has_reg = colon != NULL;
    if (colon != NULL) {
        if ((size_t)(colon - text) >= sizeof(reg))
            return -1;
        memcpy(reg, text, (size_t)(colon - text));
        reg[colon - text] = '\0';
        if (lhsim_parse_u32(reg, &choice->reg) < 0)
            return -1;
        text = colon + 1;
    }
    return lhsim_parse_u32(text, &choice->bit) < 0 || choice->bit > 31 ? -1 : 0;
}

static const struct lh_error_bit *row_by_text(const struct lh_block_layout *l,
                                              const char *text)
{
    for (size_t i = 0; i < l->error_count; i++)
        if (strcmp(l->errors[i].text, text) == 0)
            return &l->errors[i]; /* the first of a repeated text */
    return NULL;
}

static int row_matches(const struct lh_error_bit *row,
                       const struct bit_choice *choice)
{
    return row->bit == choice->bit &&
           (!choice->has_reg || row->reg == choice->reg);
}

static void say_ambiguous(const struct lh_block_layout *l,
                          const struct bit_choice *choice)
{
    fprintf(stderr, "lhsim: bit %u is in more than one register:", choice->bit);
    for (size_t i = 0; i < l->error_count; i++)
        if (row_matches(&l->errors[i], choice))
            fprintf(stderr, " 0x%x", l->errors[i].reg);
    fprintf(stderr, "; say which: --bit REG:%u\n", choice->bit);
}

/* The one row at the chosen bit; none or several are said, give null. */
static const struct lh_error_bit *row_by_bit(const struct lh_block_layout *l,
                                             const struct bit_choice *choice)
{
    const struct lh_error_bit *found = NULL;

    for (size_t i = 0; i < l->error_count; i++) {
        if (!row_matches(&l->errors[i], choice) ||
            (found != NULL && found->reg == l->errors[i].reg))
            continue; /* a bit listed twice is reported by its first row */
        if (found != NULL) {
            say_ambiguous(l, choice);
            return NULL;
        }
        found = &l->errors[i];
    }
    if (found == NULL)
        fprintf(stderr, "lhsim: no fatal error at bit %u\n", choice->bit);
    return found;
}

static const struct lh_error_bit *choose_row(const struct target *t,
                                             const char *text,
                                             const struct bit_choice *choice)
{
    const struct lh_error_bit *row;

    if (choice->given)
        return row_by_bit(&t->layout, choice);
    row = row_by_text(&t->layout, text);
    if (row == NULL)
        fprintf(stderr,
                "lhsim: %s has no fatal error \"%s\" (lhsim errors "
                "%s lists them)\n",
                lh_module_names[t->module_id], text,
                lh_module_names[t->module_id]);
    return row;
}

/* The row the driver reports for row's bit: the first that tests it. */
static const struct lh_error_bit *reported_row(const struct lh_block_layout *l,
                                               const struct lh_error_bit *row)
{
    for (size_t i = 0; i < l->error_count; i++)
        if (l->errors[i].reg == row->reg && l->errors[i].bit == row->bit)
            return &l->errors[i];
    return row;
}

static void say_raised(const struct target *t, const struct lh_error_bit *row)
{
    const struct lh_error_bit *reported = reported_row(&t->layout, row);

    printf("%s pipe %u: 0x%05x bit %u set (%s", t->layout.name, t->pipe,
           t->base + row->reg, row->bit, row->text);
    if (reported != row)
        printf("; the driver reports it as %s", reported->text);
    printf(")\n");
}

static int raise_fatal(const struct lhsim_command *command, char **args,
                       const char *text, const struct bit_choice *choice)
{
    const struct lh_error_bit *row;
    struct target t;
    int rc = open_block(command, args, &t);

    if (rc != LHSIM_OK)
        return rc;
    row = choose_row(&t, text, choice);
    if (row == NULL) {
        lhsim_board_close(&t.board);
        return LHSIM_USAGE;
    }
    if (lhsim_board_set_bit(&t.board, t.base + row->reg, row->bit, 1) < 0)
        return write_failed(&t, t.base + row->reg);
    say_raised(&t, row);
    lhsim_board_close(&t.board);
    return LHSIM_OK;
}

int lhsim_fatal(const struct lhsim_command *command, int argc, char **argv)
{
    static const struct option long_options[] = {
        {"bit", required_argument, NULL, 'n'},
        {NULL, 0, NULL, 0},
    };
    struct bit_choice choice = {};
    int option, wanted;

    while ((option = getopt_long(argc, argv, "", long_options, NULL)) != -1)
        if (option != 'n' || parse_bit(optarg, &choice) < 0)
            return lhsim_usage(command);
    wanted = choice.given ? 3 : 4; /* DIR MODULE PIPE [TEXT] */
    if (argc - optind != wanted)
        return lhsim_usage(command);
    return raise_fatal(command, &argv[optind],
                       choice.given ? NULL : argv[optind + 3], &choice);
}

int lhsim_clear_fatal(const struct lhsim_command *command, int argc,
                      char **argv)
{
    struct target t;
    int rc;

    if (argc != 4)
        return lhsim_usage(command);
    rc = open_block(command, &argv[1], &t);
    if (rc != LHSIM_OK)
        return rc;
    for (size_t i = 0; i < t.layout.error_count; i++) {
        const struct lh_error_bit *row = &t.layout.errors[i];

        if (lhsim_board_set_bit(&t.board, t.base + row->reg, row->bit, 0) < 0)
            return write_failed(&t, t.base + row->reg);
    }
    printf("%s pipe %u: fatal error bits cleared\n", t.layout.name, t.pipe);
    lhsim_board_close(&t.board);
    return LHSIM_OK;
}

static int parse_state(const char *text, int *up)
{
    *up = strcmp(text, "up") == 0;
    return *up || strcmp(text, "down") == 0 ? 0 : -1;
}

/* The port block of the board's image. */
static const struct port_status *port_of(const struct lhsim_board *board,
                                         struct lh_block_layout *layout)
{
    for (size_t i = 0; i < sizeof(ports) / sizeof(ports[0]); i++)
        if (lh_block_layout_of(ports[i].module_id, layout) == 0 &&
            layout->device_type == board->kind->device_type)
            return &ports[i];
    return NULL;
}

int lhsim_link(const struct lhsim_command *command, int argc, char **argv)
{
    const struct port_status *port;
    struct target t;
    uint32_t pipe;
    int up, rc;

    if (argc != 4 || lhsim_parse_u32(argv[2], &pipe) < 0 ||
        parse_state(argv[3], &up) < 0)
        return lhsim_usage(command);
    if (lhsim_board_open(argv[1], &t.board) < 0)
        return LHSIM_FAILED;
    port = port_of(&t.board, &t.layout);
    if (port == NULL) {
        fprintf(stderr, "lhsim: %s has no port block\n", t.board.root);
        lhsim_board_close(&t.board);
        return LHSIM_FAILED;
    }
    t.module_id = port->module_id;
    rc = place_target(&t, pipe);
    if (rc != LHSIM_OK)
        return rc;
    if (lhsim_board_set_bit(&t.board, t.base + port->reg, port->bit, up) < 0)
        return write_failed(&t, t.base + port->reg);
    printf("%s pipe %u: link %s (0x%05x bit %u %s)\n", t.layout.name, pipe,
           argv[3], t.base + port->reg, port->bit, up ? "set" : "clear");
    lhsim_board_close(&t.board);
    return LHSIM_OK;
}

/* Checks INDEX and VALUE against the block's counter table. */
static const struct lh_counter_source *
choose_counter(const struct target *t, uint32_t index, uint64_t value)
{
    const struct lh_counter_source *source;

    if (index >= t->layout.counter_count) {
        fprintf(stderr, "lhsim: %s has %zu counters, no counter %u\n",
                lh_module_names[t->module_id], t->layout.counter_count, index);
        return NULL;
    }
    source = &t->layout.counters[index];
    if (source->high == LH_NO_REGISTER && value > UINT32_MAX) {
        fprintf(stderr,
                "lhsim: counter %u of %s is 32-bit; 0x%llx does not "
                "fit\n",
                index, lh_module_names[t->module_id],
                (unsigned long long)value);
        return NULL;
    }
    return source;
}

static int put_counter(struct target *t, const struct lh_counter_source *s,
                       uint64_t value)
{
    if (s->high != LH_NO_REGISTER &&
        lhsim_board_write(&t->board, t->base + s->high,
                          (uint32_t)(value >> 32)) < 0)
        return write_failed(t, t->base + s->high);
    if (lhsim_board_write(&t->board, t->base + s->low, (uint32_t)value) < 0)
        return write_failed(t, t->base + s->low);
    return LHSIM_OK;
}

int lhsim_counter(const struct lhsim_command *command, int argc, char **argv)
{
    const struct lh_counter_source *source;
    struct target t;
    uint32_t index;
    uint64_t value;
    int rc;

    if (argc != 6 || lhsim_parse_u32(argv[4], &index) < 0 ||
        lhsim_parse_u64(argv[5], &value) < 0)
        return lhsim_usage(command);
    rc = open_block(command, &argv[1], &t);
    if (rc != LHSIM_OK)
        return rc;
    source = choose_counter(&t, index, value);
    if (source == NULL) {
        lhsim_board_close(&t.board);
        return LHSIM_USAGE;
    }
    rc = put_counter(&t, source, value);
    if (rc != LHSIM_OK)
        return rc;
    printf("%s pipe %u: counter %u = 0x%llx\n", t.layout.name, t.pipe, index,
           (unsigned long long)value);
    lhsim_board_close(&t.board);
    return LHSIM_OK;
}

/* Opens DIR for a word of its window: LHSIM_OK or the exit status. */
static int open_word(const char *dir, uint32_t offset,
                     struct lhsim_board *board)
{
    if (lhsim_board_open(dir, board) < 0)
        return LHSIM_FAILED;
    if (offset % 4 != 0 || offset > board->window_size - 4) {
        fprintf(stderr, "lhsim: 0x%x is not a word of the 0x%x-byte window\n",
                offset, board->window_size);
        lhsim_board_close(board);
        return LHSIM_USAGE;
    }
    return LHSIM_OK;
}

int lhsim_peek(const struct lhsim_command *command, int argc, char **argv)
{
    struct lhsim_board board;
    uint32_t offset, value;
    int rc;

    if (argc != 3 || lhsim_parse_u32(argv[2], &offset) < 0)
        return lhsim_usage(command);
    rc = open_word(argv[1], offset, &board);
    if (rc != LHSIM_OK)
        return rc;
    rc = lhsim_board_read(&board, offset, &value);
    if (rc == 0)
        printf("0x%08x\n", value);
    else
        fprintf(stderr, "lhsim: cannot read %s: %s\n", board.window,
                strerror(errno));
    lhsim_board_close(&board);
    return rc == 0 ? LHSIM_OK : LHSIM_FAILED;
}

int lhsim_poke(const struct lhsim_command *command, int argc, char **argv)
{
    struct lhsim_board board;
    uint32_t offset, value;
    int rc;

    if (argc != 4 || lhsim_parse_u32(argv[2], &offset) < 0 ||
        lhsim_parse_u32(argv[3], &value) < 0)
        return lhsim_usage(command);
    rc = open_word(argv[1], offset, &board);
    if (rc != LHSIM_OK)
        return rc;
    rc = lhsim_board_write(&board, offset, value);
    if (rc != 0)
        fprintf(stderr, "lhsim: cannot write %s: %s\n", board.window,
                strerror(errno));
    lhsim_board_close(&board);
    return rc == 0 ? LHSIM_OK : LHSIM_FAILED;
}

int lhsim_errors(const struct lhsim_command *command, int argc, char **argv)
{
    struct lh_block_layout layout;
    uint32_t module_id;

    if (argc != 2)
        return lhsim_usage(command);
    if (find_module(argv[1], &module_id, &layout) < 0)
        return LHSIM_USAGE;
    for (size_t i = 0; i < layout.error_count; i++)
        printf("0x%04x %2u %s\n", layout.errors[i].reg, layout.errors[i].bit,
               layout.errors[i].text);
    return LHSIM_OK;
}
