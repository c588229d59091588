/* lhctl dump: a register dump file as the daemon's library writes it, read
 * back (dump_file.cpp) and decoded with the drivers' own tables
 * (dump_decode.cpp).
 *
 * A file holds one dump, or several when more than one was written in the
 * same second (they are appended). Each dump is
 *
 *     (empty line)
 *     ----------- Module Status -----------
 *     module: caui, pipe: 1, status: FAILED        one per module instance
 *     (empty line)
 *     ----------- Register Dump -----------
 *     0x00000: 0x00010203                          one word
 *     0x01100-0x01ffc: 0xdeadbeef                  a run of the filler word
 *     0x19400-                                     a run open to the window's
 *                                                  end, without a line end */
#ifndef LHCTL_DUMP_HPP
#define LHCTL_DUMP_HPP

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "lhctl.hpp"

namespace lhctl::dump {

/* A module instance as the dump's module status lists it. */
struct Entry {
    uint32_t module_id;
    uint32_t pipe;
    bool failed;
};

/* One dump of a file, its register window complete. */
struct Dump {
    size_t line; /* of its first line in the file */
    uint32_t image; /* device type, told from its module list */
    std::vector<Entry> modules;
    std::vector<uint32_t> words; /* word n at offset 4n, the whole window */
};

/* The dumps of a file: each is read whole, the last one kept. */
struct File {
    Dump last;
    size_t count;
};

/* A file that is not a dump, or one cut short, throws a Failure (exit 1)
 * naming the file and the line. */
File read_file(const std::string &path);

/* The name of an image ("base", "lhx") and its window size in bytes. */
const char *image_name(uint32_t image);
uint32_t window_size(uint32_t image);

/* What a dump says of one module instance. */
struct StatusRegister {
    uint32_t offset; /* from the window base */
    uint32_t value;
};

struct ErrorBit {
    uint32_t offset;
    uint32_t bit;
    const char *text; /* the driver's own */
    bool reported;    /* the first set row: the one the driver reports */
};

struct Port {
    StatusRegister control;
    StatusRegister status;
    bool enabled;
    std::string loopback; /* a loopback type's name, or "code-N" */
    bool aligned;         /* receive aligned */
};

struct Instance {
    Entry entry;
    uint32_t base; /* the block's offset in the window */
    std::vector<StatusRegister> status_registers; /* fatal-error status */
    std::vector<ErrorBit> errors; /* every set row, in test order */
    std::optional<Port> port;
    Counters counters; /* named as lhctl stats names them */
};

struct Decoded {
    std::string path;
    size_t number; /* of the decoded dump, from 1 */
    size_t count;  /* dumps in the file */
    size_t line;
    uint32_t image;
    uint32_t pipes;
    std::vector<Instance> instances;
};

/* The last dump of the file, decoded. */
Decoded decode_last(const std::string &path);

std::string text(const Decoded &d);
std::string json(const Decoded &d);

} // namespace lhctl::dump

#endif
