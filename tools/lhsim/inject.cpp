/* What hardware does, done to a board's window while the daemon runs: fatal
 * errors, link changes, counter values and plain register access. Every
 * block is found through the FPGA library's own layout tables, so a fault
 * lands exactly where the driver looks. */
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <optional>

#include "lh_tables.hpp"
#include "lhsim.hpp"

namespace lhsim {

namespace {

using lhtables::CounterSource;
using lhtables::ErrorRow;
using lhtables::Layout;

const char *image_name(uint32_t device_type)
{
    return device_type == lhtables::kLhxImage ? "LHX" : "base";
}

/* MODULE by name or id, with its layout. */
struct Module {
    uint32_t id;
    Layout layout;
};

Module find_module(const std::string &text)
{
    std::optional<uint32_t> id = lh::module_by_name(text);
    std::optional<Layout> layout;

    if (!id) {
        try {
            id = parse_u32(text);
        } catch (const UsageError &) {
        }
    }
    if (id && *id < lhtables::kModuleCount)
        layout = lh::block_layout(*id);
    if (!layout)
        throw Failure(Exit::usage,
                      format("no module \"%s\" (names: global, pcie, ddr4, "
                             "caui, nic, ingress-pkt-parser, ... or ids 0-14)",
                             text.c_str()));
    return {*id, *layout};
}

/* A block of one pipe on an open board. */
struct Target {
    Target(const Args &a, Module m, uint32_t pipe_number)
        : board(a.dir), module(m), pipe(pipe_number)
    {
        place();
    }
    const char *name() const { return lhtables::module_name(module.id); }
    const Layout &layout() const { return module.layout; }

    void write(uint32_t reg, uint32_t value) const
    {
        if (!board.write(base + reg, value))
            write_failed(reg);
    }
    void set_bit(uint32_t reg, unsigned bit, bool on) const
    {
        if (!board.set_bit(base + reg, bit, on))
            write_failed(reg);
    }

    Board board;
    Module module;
    uint32_t pipe;
    uint32_t base = 0; /* the block's offset in the window */

private:
    /* Refuses a block of the other image or a pipe the board lacks. */
    void place()
    {
        const Kind &kind = board.kind();
        const char *kind_name = sim_board_kind_name(kind.kind);

        if (layout().device_type != kind.device_type)
            throw Failure(Exit::usage,
                          format("%s is a module of the %s image, not of the "
                                 "%s board in %s",
                                 name(), image_name(layout().device_type),
                                 kind_name, board.root().c_str()));
        if (pipe >= (layout().per_pipe ? kind.pipes : 1))
            throw Failure(Exit::usage,
                          format("the %s board in %s has no %s pipe %u",
                                 kind_name, board.root().c_str(), name(), pipe));
        base = layout().offsets[pipe];
    }

    [[noreturn]] void write_failed(uint32_t reg) const
    {
        throw Failure(Exit::failed, format("cannot write 0x%05x of %s: %s",
                                           base + reg, board.window().c_str(),
                                           strerror(errno)));
    }
};

/* Both numbers are read before anything else is looked at. */
Target open_block(const Args &a)
{
    uint32_t pipe = parse_u32(a.pipe);

    return Target(a, find_module(a.module), pipe);
}

/* --bit N, or --bit REG:N for a block with that bit in several registers. */
struct BitChoice {
    std::optional<uint32_t> reg;
    uint32_t bit;
};

BitChoice parse_bit(const std::string &text)
{
    size_t colon = text.find(':');
    BitChoice choice{};

    if (colon != std::string::npos)
        choice.reg = parse_u32(text.substr(0, colon));
    choice.bit = parse_u32(text.substr(colon == std::string::npos ? 0 : colon + 1));
    if (choice.bit > 31)
        throw UsageError{};
    return choice;
}

bool matches(const ErrorRow &row, const BitChoice &choice)
{
    return row.bit == choice.bit && (!choice.reg || row.reg == *choice.reg);
}

/* The one row at the chosen bit; a bit listed twice in one register is
 * reported by its first row. */
const ErrorRow &row_by_bit(const Layout &l, const BitChoice &choice)
{
    const ErrorRow *found = nullptr;
    bool several = false;
    std::string registers;

    for (const ErrorRow &row : l.errors) {
        if (!matches(row, choice))
            continue;
        registers += format(" 0x%x", row.reg);
        several = several || (found != nullptr && found->reg != row.reg);
        found = found != nullptr ? found : &row;
    }
    if (found == nullptr)
        throw Failure(Exit::usage,
                      format("no fatal error at bit %u", choice.bit));
    if (several)
        throw Failure(Exit::usage,
                      format("bit %u is in more than one register:%s; say "
                             "which: --bit REG:%u",
                             choice.bit, registers.c_str(), choice.bit));
    return *found;
}

/* The first row of a text that a table lists more than once. */
const ErrorRow &row_by_text(const Target &t, const std::string &text)
{
    for (const ErrorRow &row : t.layout().errors)
        if (text == row.text)
            return row;
    throw Failure(Exit::usage,
                  format("%s has no fatal error \"%s\" (lhsim errors %s lists "
                         "them)",
                         t.name(), text.c_str(), t.name()));
}

/* The row the driver reports for row's bit: the first that tests it. */
const ErrorRow &reported_row(const Layout &l, const ErrorRow &row)
{
    for (const ErrorRow &each : l.errors)
        if (each.reg == row.reg && each.bit == row.bit)
            return each;
    return row;
}

} // namespace

Exit fatal(const Args &a)
{
    if (a.bit.empty() == a.text.empty())
        throw UsageError{};
    std::optional<BitChoice> choice;
    if (!a.bit.empty())
        choice = parse_bit(a.bit);
    Target t = open_block(a);
    const ErrorRow &row =
        choice ? row_by_bit(t.layout(), *choice) : row_by_text(t, a.text);
    const ErrorRow &reported = reported_row(t.layout(), row);

    t.set_bit(row.reg, row.bit, true);
    printf("%s pipe %u: 0x%05x bit %u set (%s", t.layout().name, t.pipe,
           t.base + row.reg, row.bit, row.text);
    if (&reported != &row)
        printf("; the driver reports it as %s", reported.text);
    printf(")\n");
    return Exit::ok;
}

Exit clear_fatal(const Args &a)
{
    Target t = open_block(a);

    for (const ErrorRow &row : t.layout().errors)
        t.set_bit(row.reg, row.bit, false);
    printf("%s pipe %u: fatal error bits cleared\n", t.layout().name, t.pipe);
    return Exit::ok;
}

Exit link(const Args &a)
{
    uint32_t pipe = parse_u32(a.pipe);

    if (a.state != "up" && a.state != "down")
        throw UsageError{};
    const bool up = a.state == "up";
    Board board(a.dir);
    /* The board's port block, its receive-aligned bit the driver's. */
    for (uint32_t module_id = 0; module_id < lhtables::kModuleCount;
         module_id++) {
        std::optional<Layout> layout = lh::block_layout(module_id);

        if (!layout || layout->port == nullptr ||
            layout->device_type != board.kind().device_type)
            continue;
        const lh::Bit aligned = layout->port->aligned();
        Target t(a, Module{module_id, *layout}, pipe);
        t.set_bit(aligned.reg.offset, aligned.pos, up);
        printf("%s pipe %u: link %s (0x%05x bit %u %s)\n", layout->name, pipe,
               a.state.c_str(), t.base + aligned.reg.offset, aligned.pos,
               up ? "set" : "clear");
        return Exit::ok;
    }
    throw Failure(Exit::failed, board.root() + " has no port block");
}

/* A 64-bit counter goes into both registers the driver composes it from. */
Exit counter(const Args &a)
{
    uint32_t index = parse_u32(a.index);
    uint64_t value = parse_u64(a.value);
    Target t = open_block(a);
    auto sources = t.layout().counters;

    if (index >= sources.size())
        throw Failure(Exit::usage, format("%s has %zu counters, no counter %u",
                                          t.name(), sources.size(), index));
    const CounterSource &source = sources[index];
    if (source.high == lhtables::kNoRegister && value > UINT32_MAX)
        throw Failure(Exit::usage,
                      format("counter %u of %s is 32-bit; 0x%llx does not fit",
                             index, t.name(),
                             static_cast<unsigned long long>(value)));
    if (source.high != lhtables::kNoRegister)
        t.write(source.high, static_cast<uint32_t>(value >> 32));
    t.write(source.low, static_cast<uint32_t>(value));
    printf("%s pipe %u: counter %u = 0x%llx\n", t.layout().name, t.pipe, index,
           static_cast<unsigned long long>(value));
    return Exit::ok;
}

/* OFFSET must be a word of the window. */
static void check_word(const Board &board, uint32_t offset)
{
    if (offset % 4 != 0 || offset > board.window_size() - 4)
        throw Failure(Exit::usage,
                      format("0x%x is not a word of the 0x%x-byte window",
                             offset, board.window_size()));
}

Exit peek(const Args &a)
{
    uint32_t offset = parse_u32(a.offset);
    Board board(a.dir);
    uint32_t value;

    check_word(board, offset);
    if (!board.read(offset, &value))
        throw Failure(Exit::failed, format("cannot read %s: %s",
                                           board.window().c_str(),
                                           strerror(errno)));
    printf("0x%08x\n", value);
    return Exit::ok;
}

Exit poke(const Args &a)
{
    uint32_t offset = parse_u32(a.offset);
    uint32_t value = parse_u32(a.value);
    Board board(a.dir);

    check_word(board, offset);
    if (!board.write(offset, value))
        throw Failure(Exit::failed, format("cannot write %s: %s",
                                           board.window().c_str(),
                                           strerror(errno)));
    return Exit::ok;
}

Exit errors(const Args &a)
{
    for (const ErrorRow &row : find_module(a.module).layout.errors)
        printf("0x%04x %2u %s\n", row.reg, row.bit, row.text);
    return Exit::ok;
}

} // namespace lhsim
