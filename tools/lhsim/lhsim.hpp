/* lhsim: the simulated Larks Hollow board as a tool. The subcommands share
 * this header: the table entry each one runs from, a board directory opened
 * from its files, and the block a fault is aimed at. */
#ifndef LHSIM_H
#define LHSIM_H

#include <limits.h>
#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

#include "lh_block_ops.hpp"
#include "simboard.hpp"

/* Exit statuses of every subcommand. */
enum {
    LHSIM_OK = 0,
    LHSIM_FAILED = 1, /* no board, or the board could not be changed */
    LHSIM_USAGE = 2,  /* bad arguments, or a target the board does not have */
};

struct lhsim_command {
    const char *name;
    int (*handler)(const struct lhsim_command *command, int argc,
                   char **argv); /* argv[0] is the subcommand's name */
    const char *usage;           /* the arguments after the name */
};

/* Prints "usage: lhsim NAME USAGE" and returns LHSIM_USAGE. */
int lhsim_usage(const struct lhsim_command *command);
/* Numbers as C writes them (0x1f, 31); 0, or -1 when text is not one. */
int lhsim_parse_u32(const char *text, uint32_t *value);
int lhsim_parse_u64(const char *text, uint64_t *value);

/* lifecycle.c */
int lhsim_create(const struct lhsim_command *command, int argc, char **argv);
int lhsim_run(const struct lhsim_command *command, int argc, char **argv);
int lhsim_shell(const struct lhsim_command *command, int argc, char **argv);
int lhsim_destroy(const struct lhsim_command *command, int argc, char **argv);

/* inject.c */
int lhsim_fatal(const struct lhsim_command *command, int argc, char **argv);
int lhsim_clear_fatal(const struct lhsim_command *command, int argc,
                      char **argv);
int lhsim_link(const struct lhsim_command *command, int argc, char **argv);
int lhsim_counter(const struct lhsim_command *command, int argc, char **argv);
int lhsim_peek(const struct lhsim_command *command, int argc, char **argv);
int lhsim_poke(const struct lhsim_command *command, int argc, char **argv);
int lhsim_errors(const struct lhsim_command *command, int argc, char **argv);

/* board.c: a board directory made by simboard, opened from its files. */
struct lhsim_kind {
    enum sim_board_kind kind;
    uint16_t device_id;       /* the sysfs "device" file */
    unsigned controller_type; /* CONTROLLER_TYPE of idprom_cache.conf */
    uint32_t device_type;     /* the image, as lh_block_layout has it */
    uint32_t pipes;
};

struct lhsim_board {
    char root[PATH_MAX];
    char window[PATH_MAX];
    const struct lhsim_kind *kind;
    uint32_t window_size;
    int window_fd;
};

/* The row of a kind that sim_board_create makes. */
const struct lhsim_kind *lhsim_kind_of(enum sim_board_kind kind);
/* Whether dir holds a board (quietly). */
int lhsim_board_exists(const char *dir);
/* Opens dir's board; says why not on stderr and returns -1. */
int lhsim_board_open(const char *dir, struct lhsim_board *board);
void lhsim_board_close(struct lhsim_board *board);
/* Window words; -1 with EINVAL for an offset that is not a word of it. */
int lhsim_board_read(const struct lhsim_board *board, uint32_t offset,
                     uint32_t *value);
int lhsim_board_write(const struct lhsim_board *board, uint32_t offset,
                      uint32_t value);
/* One bit of a word, read-modify-write. */
int lhsim_board_set_bit(const struct lhsim_board *board, uint32_t offset,
                        unsigned bit, int on);
/* Whether a daemon answers on the board's socket. */
int lhsim_board_served(const struct lhsim_board *board);
/* Removes the board's whole tree, dir included. */
int lhsim_board_remove(const struct lhsim_board *board);
/* sim_board_spawn for a board that is only a directory. */
pid_t lhsim_board_spawn(const struct lhsim_board *board, char *const argv[]);

/* The log file and socket of a board directory, on the host. */
#define LHSIM_DAEMON_LOG "opt/platform/logs/pellin_mgr.log"
#define LHSIM_SOCKET     "run/ipc/219.sock"

#endif
