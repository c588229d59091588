/* Reading a register dump file, line by line and strictly: every line is
 * exactly what the library writes, every word of the window is accounted
 * for once, in order. An error names the file and the line. */
#include <cctype>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string_view>

#include "dump.hpp"
#include "lh_tables.hpp"

namespace lhctl::dump {
namespace {

constexpr std::string_view kStatusHeader = lh::dump_status_header;
constexpr std::string_view kDumpHeader = lh::dump_register_header;
constexpr uint32_t kFiller = lh::dump_filler;
/* Longer than any line a dump has; a longer one is not read whole. */
constexpr size_t kMaxLine = 160;
constexpr size_t kQuotedLength = 48;
/* Far more than the daemon ever writes in one second (one per module
 * instance); every dump is read whole, so this bounds the work. */
constexpr size_t kMaxDumps = 64;

struct Image {
    uint32_t type;
    const char *name;
    const lh_device_desc &desc;
};

const Image kImages[] = {
    {lhtables::kBaseImage, "base", lh_desc_base_two_pipes},
    {lhtables::kLhxImage, "lhx", lh_desc_lhx},
};

const Image *find_image(uint32_t type)
{
    for (const Image &image : kImages)
        if (image.type == type)
            return &image;
    return nullptr;
}

/* A line as an error quotes it: printable ASCII, other bytes as \xNN,
 * cut after kQuotedLength characters. */
std::string quote_line(std::string_view line)
{
    std::string text = "\"";

    for (size_t i = 0; i < line.size() && i < kQuotedLength; i++) {
        unsigned char c = static_cast<unsigned char>(line[i]);
        if (c == '"' || c == '\\')
            text += format("\\%c", c);
        else if (isprint(c))
            text += static_cast<char>(c);
        else
            text += format("\\x%02x", c);
    }
    return text + (line.size() > kQuotedLength ? "\"..." : "\"");
}

/* `digits` lowercase hex digits exactly, as "%0Nx" prints them. */
std::optional<uint32_t> hex_field(std::string_view text, size_t digits)
{
    uint32_t value = 0;

    if (text.size() != digits)
        return std::nullopt;
    for (char c : text)
        if (!isdigit(static_cast<unsigned char>(c)) && (c < 'a' || c > 'f'))
            return std::nullopt;
    std::from_chars(text.data(), text.data() + text.size(), value, 16);
    return value;
}

/* "0x" and five digits, the way offsets are printed. */
std::optional<uint32_t> offset_field(std::string_view text)
{
    if (!text.starts_with("0x"))
        return std::nullopt;
    return hex_field(text.substr(2), 5);
}

std::optional<uint32_t> decimal_field(std::string_view text)
{
    uint32_t value = 0;

    if (text.empty() || (text.size() > 1 && text[0] == '0'))
        return std::nullopt;
    auto [end, error] =
        std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size())
        return std::nullopt;
    return value;
}

/* One line of the register part. */
struct WordLine {
    uint32_t first;
    uint32_t last;   /* first, or the run's last word */
    uint32_t value;  /* the filler for a run */
    bool run;        /* "0x%05x-0x%05x: ", or open */
    bool open;       /* "0x%05x-": a run to the window's end */
};

std::optional<WordLine> word_line(std::string_view line)
{
    if (line.size() == 8 && line[7] == '-') {
        auto first = offset_field(line.substr(0, 7));
        if (first)
            return WordLine{*first, *first, kFiller, true, true};
        return std::nullopt;
    }
    std::string_view run_end;
    if (line.size() == 27 && line[7] == '-')
        run_end = line.substr(8, 7);
    else if (line.size() != 19)
        return std::nullopt;
    size_t colon = line.size() - 12;
    auto first = offset_field(line.substr(0, 7));
    auto value = line.substr(colon, 4) == ": 0x"
                     ? hex_field(line.substr(colon + 4), 8)
                     : std::nullopt;
    auto last = run_end.empty() ? first : offset_field(run_end);
    if (!first || !last || !value)
        return std::nullopt;
    return WordLine{*first, *last, *value, !run_end.empty(), false};
}

/* The file's lines, one at a time, from a stream the reader owns. */
class Lines {
public:
    explicit Lines(const std::string &path) : path_(path), in_(path)
    {
        std::error_code error;

        if (std::filesystem::is_directory(path, error))
            throw Failure(Exit::refused,
                          format("%s is a directory", path.c_str()));
        if (!in_.is_open())
            throw Failure(Exit::refused, format("cannot open %s: %s",
                                                path.c_str(), strerror(errno)));
    }

    /* The next line, without its end; none at the end of the file. */
    std::optional<std::string> next()
    {
        std::string line;
        int c;

        while ((c = in_.get()) != std::char_traits<char>::eof() && c != '\n') {
            if (line.size() == kMaxLine)
                fail(format("a line longer than %zu bytes", kMaxLine), number_ + 1);
            line += static_cast<char>(c);
        }
        if (in_.bad())
            throw Failure(Exit::refused,
                          format("cannot read %s", path_.c_str()));
        if (c == std::char_traits<char>::eof() && line.empty())
            return std::nullopt;
        number_++;
        ended_ = c == '\n';
        return line;
    }

    size_t number() const { return number_; }
    /* Whether the last line read had its line end. */
    bool ended() const { return ended_; }

    [[noreturn]] void fail(const std::string &what, size_t line) const
    {
        throw Failure(Exit::refused,
                      format("%s:%zu: %s", path_.c_str(), line, what.c_str()));
    }
    [[noreturn]] void fail(const std::string &what) const
    {
        fail(what, number_);
    }
    const std::string &path() const { return path_; }

private:
    std::string path_;
    std::ifstream in_;
    size_t number_ = 0;
    bool ended_ = true;
};

/* The reading of one dump after its module status header. */
class DumpReader {
public:
    DumpReader(Lines &lines, size_t first_line) : lines_(lines)
    {
        dump_.line = first_line;
    }

    /* Reads the dump up to the next dump's status header (true) or the end
     * of the file (false). */
    bool read()
    {
        read_modules();
        return read_words();
    }

    Dump take() { return std::move(dump_); }

private:
    void read_modules();
    Entry module_line(std::string_view line) const;
    void set_image();
    bool read_words();
    void add_words(const WordLine &w);
    void finish(bool next_dump);

    Lines &lines_;
    Dump dump_{};
    uint32_t window_ = 0;
};

/* "module: %s, pipe: %d, status: %s" */
Entry DumpReader::module_line(std::string_view line) const
{
    constexpr std::string_view kModule = "module: ", kPipe = ", pipe: ",
                               kStatus = ", status: ";
    size_t pipe_at = line.find(kPipe);
    size_t status_at = line.find(kStatus);

    if (!line.starts_with(kModule) || pipe_at == std::string_view::npos ||
        status_at == std::string_view::npos || status_at < pipe_at)
        lines_.fail("not a module status line: " + quote_line(line));
    std::string_view name = line.substr(kModule.size(), pipe_at - kModule.size());
    auto pipe = decimal_field(line.substr(pipe_at + kPipe.size(),
                                          status_at - pipe_at - kPipe.size()));
    std::string_view status = line.substr(status_at + kStatus.size());
    auto id = lh::module_by_name(name);
    if (!id || !lh::block_layout(*id))
        lines_.fail(format("unknown module %s", quote_line(name).c_str()));
    if (!pipe || *pipe >= LH_MAX_PIPES)
        lines_.fail("bad pipe in " + quote_line(line));
    if (status != "OK" && status != "FAILED")
        lines_.fail("bad status in " + quote_line(line));
    return {*id, *pipe, status == "FAILED"};
}

void DumpReader::read_modules()
{
    while (auto line = lines_.next()) {
        if (!lines_.ended())
            lines_.fail("cut short in the module status");
        if (line->empty()) {
            set_image();
            return;
        }
        dump_.modules.push_back(module_line(*line));
    }
    lines_.fail("cut short in the module status");
}

/* The image is the one every listed module belongs to. */
void DumpReader::set_image()
{
    if (dump_.modules.empty())
        lines_.fail("no module in the module status");
    dump_.image = lh::block_layout(dump_.modules[0].module_id)->device_type;
    for (const Entry &e : dump_.modules)
        if (lh::block_layout(e.module_id)->device_type != dump_.image)
            lines_.fail(format("module %s of the other image in the list of "
                               "the %s image",
                               lhtables::module_name(e.module_id),
                               image_name(dump_.image)),
                        dump_.line + 1 + (&e - dump_.modules.data()) + 1);
    window_ = window_size(dump_.image);
    auto header = lines_.next();
    if (!header)
        lines_.fail("cut short before the register dump");
    if (!lines_.ended())
        lines_.fail("cut short: " + quote_line(*header));
    if (*header != kDumpHeader)
        lines_.fail(format("\"%s\" expected", std::string(kDumpHeader).c_str()));
}

void DumpReader::add_words(const WordLine &w)
{
    uint32_t expected = static_cast<uint32_t>(dump_.words.size() * 4);
    uint32_t last = w.open ? window_ - 4 : w.last;

    if (w.first != expected)
        lines_.fail(format("offset 0x%05x where 0x%05x was expected", w.first,
                           expected));
    if (last >= window_ || last % 4 != 0 || last < w.first)
        lines_.fail(format("words 0x%05x-0x%05x outside the %s window of "
                           "0x%05x bytes",
                           w.first, last, image_name(dump_.image), window_));
    if (w.run && w.value != kFiller)
        lines_.fail(format("a run of 0x%08x, not of the filler word", w.value));
    dump_.words.resize((last + 4) / 4, w.value);
}

/* Lines up to the end of the window: an open run ends the dump, and so
 * does an empty line before the next dump's header. */
bool DumpReader::read_words()
{
    while (auto line = lines_.next()) {
        auto w = word_line(*line);

        if (line->empty() && lines_.ended()) {
            finish(true);
            return true;
        }
        if (!w)
            lines_.fail(lines_.ended() ? "not a register line: " + quote_line(*line)
                                       : "cut short: " + quote_line(*line));
        if (!w->open && !lines_.ended())
            lines_.fail("cut short: " + quote_line(*line));
        add_words(*w);
        if (w->open) {
            /* The next dump's first line end closed this line. */
            finish(lines_.ended());
            return lines_.ended();
        }
    }
    finish(false);
    return false;
}

void DumpReader::finish(bool next_dump)
{
    if (dump_.words.size() * 4 != window_)
        lines_.fail(format("cut short: the register dump ends at 0x%05zx, "
                           "below the end of the %s window, 0x%05x",
                           dump_.words.size() * 4, image_name(dump_.image),
                           window_));
    if (!next_dump)
        return;
    auto header = lines_.next();
    if (!header || !lines_.ended() || *header != kStatusHeader)
        lines_.fail(format("\"%s\" expected for the next dump",
                           std::string(kStatusHeader).c_str()));
}

/* The empty line and the header a file begins with. */
void read_start(Lines &lines)
{
    auto first = lines.next();

    if (!first)
        throw Failure(Exit::refused, format("%s: not a register dump: the "
                                            "file is empty",
                                            lines.path().c_str()));
    auto header = first->empty() ? lines.next() : std::nullopt;
    if (!header || *header != kStatusHeader || !lines.ended())
        lines.fail(format("not a register dump: it does not begin with an "
                          "empty line and \"%s\"",
                          std::string(kStatusHeader).c_str()));
}

} // namespace

const char *image_name(uint32_t image)
{
    const Image *found = find_image(image);

    return found != nullptr ? found->name : "unknown";
}

uint32_t window_size(uint32_t image)
{
    const Image *found = find_image(image);

    return found != nullptr ? static_cast<uint32_t>(found->desc.window_size)
                            : 0;
}

File read_file(const std::string &path)
{
    Lines lines(path);
    File file{{}, 0};
    bool more = true;

    read_start(lines);
    while (more) {
        if (file.count == kMaxDumps)
            lines.fail(format("more than %zu dumps in one file", kMaxDumps));
        DumpReader reader(lines, lines.number() - 1);

        more = reader.read();
        file.last = reader.take();
        file.count++;
    }
    return file;
}

} // namespace lhctl::dump
