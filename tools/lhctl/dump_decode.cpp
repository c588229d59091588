/* A register dump decoded with the drivers' own tables: each module
 * instance's base, its recorded state, the set rows of its fatal-error
 * table, a port's control and status, and its counters named as lhctl
 * stats names them. The NIC queue counters sit behind a bank select and
 * are not in a dump. */
#include <algorithm>

#include <nlohmann/json.hpp>

#include "dump.hpp"
#include "lh_tables.hpp"

namespace lhctl::dump {
namespace {

using Json = nlohmann::ordered_json;

/* The dump's words as registers of one block. */
class Block {
public:
    Block(const Dump &dump, uint32_t base) : dump_(dump), base_(base) {}

    StatusRegister reg(uint32_t offset) const
    {
        uint32_t at = base_ + offset;
        size_t index = at / 4;

        /* The tables keep every register inside its image's window. */
        return {at, index < dump_.words.size() ? dump_.words[index] : 0};
    }
    bool test(lh::Bit bit) const
    {
        return (reg(bit.reg.offset).value >> bit.pos & 1u) != 0;
    }

private:
    const Dump &dump_;
    uint32_t base_;
};

std::vector<StatusRegister> status_registers(const Block &block,
                                             const lhtables::Layout &layout)
{
    std::vector<StatusRegister> regs;

    for (const lhtables::ErrorRow &row : layout.errors) {
        StatusRegister r = block.reg(row.reg);
        if (std::ranges::none_of(regs, [&](const StatusRegister &seen) {
                return seen.offset == r.offset;
            }))
            regs.push_back(r);
    }
    return regs;
}

/* Every row whose bit is set, in the order the driver tests them. */
std::vector<ErrorBit> set_errors(const Block &block,
                                 const lhtables::Layout &layout)
{
    std::vector<ErrorBit> errors;

    for (const lhtables::ErrorRow &row : layout.errors)
        if (block.test(row.flag()))
            errors.push_back({block.reg(row.reg).offset, row.bit, row.text,
                              errors.empty()});
    return errors;
}

std::string loopback_name(uint32_t code)
{
    for (const lh_loopback_type &type : port_loopback_types)
        if (type.code == code)
            return type.name;
    return format("code-%u", code);
}

Port port_of(const Block &block, const lh_port_regs &regs)
{
    uint32_t control = block.reg(regs.control.offset).value;

    return {block.reg(regs.control.offset), block.reg(regs.status.offset),
            block.test(regs.enable()), loopback_name(regs.loopback().bits.of(control)),
            block.test(regs.aligned())};
}

uint64_t counter_value(const Block &block,
                       const lhtables::CounterSource &source)
{
    uint64_t low = block.reg(source.low).value;

    if (source.high == lhtables::kNoRegister)
        return low;
    return uint64_t{block.reg(source.high).value} << 32 | low;
}

Instance decode(const Dump &dump, const Entry &entry)
{
    const lhtables::Layout layout = *lh::block_layout(entry.module_id);
    Instance instance{entry, layout.offsets[entry.pipe], {}, {}, {}, {}};
    Block block(dump, instance.base);

    instance.status_registers = status_registers(block, layout);
    instance.errors = set_errors(block, layout);
    if (layout.port != nullptr)
        instance.port = port_of(block, *layout.port);
    for (const lhtables::CounterSource &source : layout.counters)
        instance.counters.push_back(
            {counter_name(source), counter_value(block, source)});
    return instance;
}

uint32_t pipe_count(const Dump &dump)
{
    uint32_t pipes = 1;

    for (const Entry &e : dump.modules)
        pipes = std::max(pipes, e.pipe + 1);
    return pipes;
}

/* Text */

std::string indented(const std::string &text, const char *indent)
{
    std::string out;
    size_t start = 0;

    while (start < text.size()) {
        size_t end = text.find('\n', start);
        out += indent + text.substr(start, end + 1 - start);
        start = end + 1;
    }
    return out;
}

std::string reg_text(const char *what, const StatusRegister &r)
{
    return format("  %s 0x%05x = 0x%08x", what, r.offset, r.value);
}

std::string port_text(const Port &p)
{
    return reg_text("port control", p.control) +
           format(": %s, loopback %s\n", p.enabled ? "enabled" : "disabled",
                  p.loopback.c_str()) +
           reg_text("port status", p.status) +
           format(": receive %s\n", p.aligned ? "aligned" : "not aligned");
}

std::string instance_text(const Instance &i)
{
    std::string text =
        format("\n%s pipe %u at 0x%05x: %s\n",
               lhtables::module_name(i.entry.module_id), i.entry.pipe, i.base,
               module_state(i.entry.failed));

    for (const StatusRegister &r : i.status_registers)
        text += reg_text("fatal-error status", r) + "\n";
    for (const ErrorBit &e : i.errors)
        text += format("  error 0x%05x bit %u: %s%s\n", e.offset, e.bit, e.text,
                       e.reported ? " (reported)" : "");
    if (i.port)
        text += port_text(*i.port);
    if (!i.counters.empty())
        text += indented(counters_text(i.counters), "  ");
    return text;
}

/* JSON */

Json reg_json(const StatusRegister &r)
{
    return {{"offset", r.offset}, {"value", r.value}};
}

Json port_json(const std::optional<Port> &p)
{
    if (!p)
        return nullptr;
    return {{"control", reg_json(p->control)},
            {"status", reg_json(p->status)},
            {"enabled", p->enabled},
            {"loopback", p->loopback},
            {"rx_aligned", p->aligned}};
}

Json instance_json(const Instance &i)
{
    Json regs = Json::array(), errors = Json::array(), counters = Json::object();

    for (const StatusRegister &r : i.status_registers)
        regs.push_back(reg_json(r));
    for (const ErrorBit &e : i.errors)
        errors.push_back({{"offset", e.offset},
                          {"bit", e.bit},
                          {"text", e.text},
                          {"reported", e.reported}});
    for (const Counter &c : i.counters)
        counters[c.name] = c.value;
    return {{"id", i.entry.module_id},
            {"name", lhtables::module_name(i.entry.module_id)},
            {"pipe", i.entry.pipe},
            {"base", i.base},
            {"state", module_state(i.entry.failed)},
            {"status_registers", regs},
            {"errors", errors},
            {"port", port_json(i.port)},
            {"counters", counters}};
}

} // namespace

Decoded decode_last(const std::string &path)
{
    File file = read_file(path);
    const Dump &dump = file.last;
    Decoded d{path, file.count, file.count, dump.line, dump.image,
              pipe_count(dump), {}};

    for (const Entry &entry : dump.modules)
        d.instances.push_back(decode(dump, entry));
    return d;
}

namespace {

/* One line per failed instance, with the error its driver reported, so
 * the reader sees first what went wrong. */
std::string failed_text(const Decoded &d)
{
    std::string text;

    for (const Instance &i : d.instances) {
        if (!i.entry.failed)
            continue;
        const auto reported = std::ranges::find(i.errors, true,
                                                &ErrorBit::reported);
        text += format("failed: %s pipe %u%s%s%s\n",
                       lhtables::module_name(i.entry.module_id), i.entry.pipe,
                       reported != i.errors.end() ? " (" : "",
                       reported != i.errors.end() ? reported->text : "",
                       reported != i.errors.end() ? ")" : "");
    }
    return text.empty() ? "failed: none\n" : text;
}

} // namespace

std::string text(const Decoded &d)
{
    std::string text =
        format("dump %zu of %zu in %s, from line %zu%s\n", d.number, d.count,
               d.path.c_str(), d.line,
               d.count > 1 ? " (the last one is decoded)" : "");

    text += format("image %s, %u pipe%s, window 0x%05x\n", image_name(d.image),
                   d.pipes, d.pipes == 1 ? "" : "s", window_size(d.image));
    text += failed_text(d);
    for (const Instance &i : d.instances)
        text += instance_text(i);
    return text;
}

std::string json(const Decoded &d)
{
    Json modules = Json::array();

    for (const Instance &i : d.instances)
        modules.push_back(instance_json(i));
    Json j = {{"file", d.path},
              {"dump", d.number},
              {"dumps", d.count},
              {"line", d.line},
              {"image", image_name(d.image)},
              {"pipes", d.pipes},
              {"window_size", window_size(d.image)},
              {"modules", modules}};
    return j.dump(-1, ' ', false, Json::error_handler_t::replace) + "\n";
}

} // namespace lhctl::dump

std::string lhctl::dump_view(const std::string &path, bool json)
{
    dump::Decoded decoded = dump::decode_last(path);

    return json ? dump::json(decoded) : dump::text(decoded);
}
