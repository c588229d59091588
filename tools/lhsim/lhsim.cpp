/* lhsim: the simulated Larks Hollow board as a tool: make a board
 * directory, run the daemon or a shell on it in its sandbox, and do what
 * hardware does while the daemon runs. One table of commands; CLI11 reads
 * the command line from it, and every command takes --help. docs/lhsim.md
 * has the details.
 *
 * Exit status: 0 done, 1 no board (or it could not be changed), 2 a usage
 * error or a target the board does not have; run and shell give their
 * program's. */
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <map>

#include <CLI/CLI.hpp>

#include "lhsim.hpp"

namespace lhsim {

uint64_t parse_u64(const std::string &text)
{
    char *end;

    if (text.empty() || text[0] == '-' || text[0] == '+')
        throw UsageError{};
    errno = 0;
    unsigned long long value = strtoull(text.c_str(), &end, 0);
    if (errno != 0 || *end != '\0')
        throw UsageError{};
    return value;
}

uint32_t parse_u32(const std::string &text)
{
    uint64_t value = parse_u64(text);

    if (value > UINT32_MAX)
        throw UsageError{};
    return static_cast<uint32_t>(value);
}

namespace {

/* The words of each command, as CLI11 is to read them. */
void dir_only(CLI::App &c, Args &a) { c.add_option("DIR", a.dir)->required(); }

void block(CLI::App &c, Args &a)
{
    dir_only(c, a);
    c.add_option("MODULE", a.module)->required();
    c.add_option("PIPE", a.pipe)->required();
}

const struct Command {
    const char *name;
    const char *usage; /* the words after the name */
    const char *does;  /* what it does to the board, for --help */
    void (*words)(CLI::App &, Args &);
    Exit (*run)(const Args &);
} kCommands[] = {
    {"create", "[--board base2|base1|lhx] DIR",
     "Makes a board directory (base2 unless --board says otherwise); it "
     "stays until destroy.",
     [](CLI::App &c, Args &a) {
         c.add_option("--board", a.board);
         dir_only(c, a);
     },
     create},
    {"run", "[--board base2|base1|lhx] [--dir DIR] [--keep] -- PROGRAM [ARG...]",
     "Runs PROGRAM on the board in its sandbox and prints the daemon's log; "
     "Ctrl-C stops it, and a board the run made is removed unless --keep.",
     [](CLI::App &c, Args &a) {
         c.add_option("--board", a.board);
         c.add_option("--dir", a.dir);
         c.add_flag("--keep", a.keep);
         c.add_option("PROGRAM", a.program)->required();
     },
     run},
    {"shell", "DIR",
     "Starts $SHELL in the board's sandbox, where the board is the PCI bus.",
     dir_only, shell},
    {"destroy", "DIR",
     "Removes the board directory; refused while a daemon serves it.",
     dir_only, destroy},
    {"fatal", "DIR MODULE PIPE (TEXT|--bit [REG:]N)",
     "Raises a fatal error bit in the block; the daemon's poll finds it "
     "within 500 ms, marks the module FAILED and writes a register dump.",
     [](CLI::App &c, Args &a) {
         block(c, a);
         c.add_option("TEXT", a.text);
         c.add_option("--bit", a.bit);
     },
     fatal},
    {"clear-fatal", "DIR MODULE PIPE",
     "Clears every error bit of the block; a daemon started later sees it "
     "healthy.",
     block, clear_fatal},
    {"link", "DIR PIPE up|down",
     "Sets or clears the port's receive-aligned bit; the daemon's poll logs "
     "the pipe's change within 500 ms.",
     [](CLI::App &c, Args &a) {
         dir_only(c, a);
         c.add_option("PIPE", a.pipe)->required();
         c.add_option("STATE", a.state)->required();
     },
     link},
    {"counter", "DIR MODULE PIPE INDEX VALUE",
     "Puts VALUE in the registers of a counter; each poll of the daemon adds "
     "it to the statistics again.",
     [](CLI::App &c, Args &a) {
         block(c, a);
         c.add_option("INDEX", a.index)->required();
         c.add_option("VALUE", a.value)->required();
     },
     counter},
    {"peek", "DIR OFFSET", "Reads a 32-bit word of the register window.",
     [](CLI::App &c, Args &a) {
         dir_only(c, a);
         c.add_option("OFFSET", a.offset)->required();
     },
     peek},
    {"poke", "DIR OFFSET VALUE", "Writes a 32-bit word of the register window.",
     [](CLI::App &c, Args &a) {
         dir_only(c, a);
         c.add_option("OFFSET", a.offset)->required();
         c.add_option("VALUE", a.value)->required();
     },
     poke},
    {"errors", "MODULE",
     "Lists the module's fatal errors in the order the driver tests them; "
     "no board is needed.",
     [](CLI::App &c, Args &a) { c.add_option("MODULE", a.module)->required(); },
     errors},
};

std::string usage_line(const Command &c)
{
    return format("usage: lhsim %s %s\n", c.name, c.usage);
}

std::string usage_all()
{
    std::string text;

    for (const Command &c : kCommands)
        text += format("%s lhsim %s %s\n", text.empty() ? "usage:" : "      ",
                       c.name, c.usage);
    return text;
}

class CommandLine {
public:
    CommandLine()
    {
        app_.formatter_fn([this](const CLI::App *app, std::string,
                                 CLI::AppFormatMode) { return help(app); });
        for (const Command &c : kCommands) {
            CLI::App *sub = app_.add_subcommand(c.name);
            c.words(*sub, args_);
            commands_[sub] = &c;
        }
    }

    Exit main(int argc, char **argv)
    {
        if (argc >= 2 && std::string(argv[1]) == "help") {
            fputs(usage_all().c_str(), stdout);
            return Exit::ok;
        }
        try {
            app_.parse(argc, argv);
            return chosen() ? chosen()->run(args_) : usage_error();
        } catch (const CLI::CallForHelp &) {
            fputs(app_.help().c_str(), stdout);
            return Exit::ok;
        } catch (const CLI::ParseError &) {
            return usage_error();
        } catch (const UsageError &) {
            return usage_error();
        } catch (const Failure &f) {
            if (*f.what() != '\0')
                fprintf(stderr, "lhsim: %s\n", f.what());
            return f.exit();
        }
    }

private:
    const Command *chosen() const
    {
        auto given = app_.get_subcommands();

        return given.empty() ? nullptr : commands_.at(given[0]);
    }

    /* The chosen command's usage line, or all of them. */
    Exit usage_error() const
    {
        fputs(chosen() ? usage_line(*chosen()).c_str() : usage_all().c_str(),
              stderr);
        return Exit::usage;
    }

    std::string help(const CLI::App *app) const
    {
        auto found = commands_.find(app);

        if (found == commands_.end())
            return usage_all();
        return usage_line(*found->second) + found->second->does + "\n";
    }

    CLI::App app_{"", "lhsim"};
    Args args_;
    std::map<const CLI::App *, const Command *> commands_;
};

} // namespace
} // namespace lhsim

int main(int argc, char **argv)
{
    try {
        return static_cast<int>(lhsim::CommandLine().main(argc, argv));
    } catch (const std::exception &e) {
        fprintf(stderr, "lhsim: %s\n", e.what());
        return static_cast<int>(lhsim::Exit::failed);
    }
}
