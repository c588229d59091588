/* lhsim: the simulated Larks Hollow board as a tool. The commands share
 * this header: their arguments as the command line gave them, a board
 * directory opened from its files, and how a command ends early. */
#ifndef LHSIM_HPP
#define LHSIM_HPP

#include <sys/types.h>

#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

#include "simboard.hpp"
#include "tool_failure.hpp"

namespace lhsim {

using KindId = enum sim_board_kind;

/* Exit statuses of every command. */
enum class Exit : int {
    ok = 0,
    failed = 1, /* no board, or the board could not be changed */
    usage = 2,  /* bad arguments, or a target the board does not have */
};

/* Thrown where a command ends early; main prints "lhsim: " and the text
 * unless it is empty (said already). */
using Failure = tools::Failure<Exit>;

/* Bad arguments: main prints the command's usage line, exit 2. */
struct UsageError {};

using tools::format;
/* Numbers as C writes them (0x1f, 31); a usage error otherwise. */
uint32_t parse_u32(const std::string &text);
uint64_t parse_u64(const std::string &text);

/* Every command's words; each command reads its own. */
struct Args {
    std::string board; /* --board KIND */
    std::string dir;   /* DIR, or run's --dir */
    bool keep = false;
    std::vector<std::string> program;
    std::string module, pipe, text, bit, state, index, value, offset;
};

/* lifecycle.cpp */
Exit create(const Args &a);
Exit run(const Args &a);
Exit shell(const Args &a);
Exit destroy(const Args &a);

/* inject.cpp */
Exit fatal(const Args &a);
Exit clear_fatal(const Args &a);
Exit link(const Args &a);
Exit counter(const Args &a);
Exit peek(const Args &a);
Exit poke(const Args &a);
Exit errors(const Args &a);

/* board.cpp: a board directory made by simboard, opened from its files. */
struct Kind {
    KindId kind;
    uint16_t device_id;       /* the sysfs "device" file */
    unsigned controller_type; /* CONTROLLER_TYPE of idprom_cache.conf */
    uint32_t device_type;     /* the image, as the block layouts have it */
    uint32_t pipes;
};

/* The row of a kind that sim_board_create makes. */
const Kind &kind_of(KindId kind);
KindId parse_kind(const std::string &name);

class Board {
public:
    /* Says why not on stderr and throws Failure(failed). */
    explicit Board(const std::string &dir);
    ~Board();
    Board(const Board &) = delete;
    Board &operator=(const Board &) = delete;

    /* Whether dir holds a board (quietly). */
    static bool exists(const std::string &dir);

    /* Window words; false with errno EINVAL for an offset that is not a
     * word of it. */
    bool read(uint32_t offset, uint32_t *value) const;
    bool write(uint32_t offset, uint32_t value) const;
    /* One bit of a word, read-modify-write. */
    bool set_bit(uint32_t offset, unsigned bit, bool on) const;
    /* Whether a daemon answers on the board's socket. */
    bool served() const;
    /* Removes the board's whole tree, the directory included. */
    bool remove() const;
    /* sim_board_spawn for a board that is only a directory. */
    pid_t spawn(char *const argv[]) const;

    const std::string &root() const { return root_; }
    const std::string &window() const { return window_; }
    const Kind &kind() const { return *kind_; }
    uint32_t window_size() const { return window_size_; }

private:
    Board() = default;
    bool open_window();

    std::string root_;
    std::string window_;
    const Kind *kind_ = nullptr;
    uint32_t window_size_ = 0;
    int window_fd_ = -1;
};

/* The log file and socket of a board directory, on the host. */
#define LHSIM_DAEMON_LOG "opt/platform/logs/pellin_mgr.log"
#define LHSIM_SOCKET     "run/ipc/219.sock"

} // namespace lhsim

#endif
