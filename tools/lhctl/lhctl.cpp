/* lhctl: the operator's command-line client of pellin_mgr.
 *
 *   lhctl [--socket PATH] [--timeout SECONDS] [--json] COMMAND ...
 *
 * One table of commands; CLI11 reads the command line from it, and every
 * command and subcommand takes --help. docs/lhctl.md has the rest. */
#include <unistd.h>

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <optional>

#include <CLI/CLI.hpp>

#include "ipc_msg.hpp"
#include "lhctl.hpp"
#include "plat_ipc.h"
#include "watch.hpp"

namespace lhctl {
namespace {

constexpr int kDefaultTimeoutMs = 2000;
constexpr char kOptionsUsage[] =
    "lhctl [--socket PATH] [--timeout SECONDS] [--json]";

using Words = std::vector<std::string>;

struct Session {
    Client client;
    bool json;
    bool clear; /* stats --clear */
    std::optional<std::string> interval; /* watch --interval */
};

/* Commands */

std::string cmd_modules(Session &s, const Words &)
{
    Modules modules = get_modules(s.client);

    return s.json ? modules_json(modules) : modules_text(modules);
}

std::string cmd_pipes(Session &s, const Words &)
{
    Pipes pipes = get_pipes(s.client);

    return s.json ? pipes_json(pipes) : pipes_text(pipes);
}

std::string cmd_pipe(Session &s, const Words &w)
{
    uint32_t pipe = parse_u32("PIPE", w[0]);
    bool up = parse_name("pipe state", w[1], kPipeStates) != 0;

    set_pipe(s.client, pipe, up);
    return s.json ? pipe_json(pipe, up) : pipe_state(up) + std::string("\n");
}

/* Reads, clears when asked, then prints what was read. */
std::string cmd_stats(Session &s, const Words &w)
{
    uint32_t module_id = parse_module(w[0]);
    uint32_t pipe = parse_u32("PIPE", w[1]);
    Counters counters = get_stats(s.client, module_id, pipe);

    if (s.clear)
        clear_stats(s.client, module_id, pipe);
    return s.json ? stats_json(module_id, pipe, counters, s.clear)
                  : counters_text(counters);
}

/* Escape codes only for a terminal that takes them. */
bool on_terminal()
{
    const char *term = getenv("TERM");

    return isatty(STDOUT_FILENO) &&
           (term == nullptr || strcmp(term, "dumb") != 0);
}

/* Draws until Ctrl-C; nothing is left to print after it. */
std::string cmd_watch(Session &s, const Words &w)
{
    WatchView view;

    if (w.size() == 1)
        usage_error("missing argument");
    if (s.json)
        usage_error("unexpected option \"--json\"");
    if (w.size() == 2)
        view.target = WatchTarget{parse_module(w[0]), parse_u32("PIPE", w[1])};
    if (s.interval)
        view.interval_s = parse_interval(*s.interval);
    view.terminal = on_terminal();
    watch(s.client, view);
    return "";
}

std::string reg_view(const Session &s, uint32_t offset, uint32_t value)
{
    return s.json ? reg_json(offset, value) : format("0x%08x\n", value);
}

std::string cmd_reg_read(Session &s, const Words &w)
{
    uint32_t offset = parse_u32("OFFSET", w[0]);

    return reg_view(s, offset, read_reg(s.client, offset));
}

std::string cmd_reg_write(Session &s, const Words &w)
{
    uint32_t offset = parse_u32("OFFSET", w[0]);
    uint32_t value = parse_u32("VALUE", w[1]);

    write_reg(s.client, offset, value);
    return reg_view(s, offset, value);
}

std::string cmd_loopback(Session &s, const Words &w)
{
    uint32_t pipe = parse_u32("PIPE", w[0]);
    uint32_t mask;

    if (w.size() == 1) {
        mask = get_loopback(s.client, pipe);
    } else {
        uint32_t type = parse_name("loopback type", w[1], kLoopbackNames);

        set_loopback(s.client, pipe, type);
        mask = type == 0 ? 0 : 1u << type;
    }
    if (s.json)
        return loopback_json(pipe, mask);
    std::string text;
    for (const std::string &type : loopback_types(mask))
        text += (text.empty() ? "" : " ") + type;
    return text + "\n";
}

std::string cmd_qos(Session &s, const Words &w)
{
    uint32_t pipe = parse_u32("PIPE", w[0]);
    uint32_t profile = parse_u32("PROFILE", w[1]);
    uint32_t priority;

    if (w.size() == 2) {
        priority = get_qos(s.client, pipe, profile);
    } else {
        priority = parse_name("priority", w[2], kPriorityNames);
        set_qos(s.client, pipe, profile, priority);
    }
    return s.json ? qos_json(pipe, profile, priority)
                  : priority_name(priority) + "\n";
}

/* Every request is made before anything is printed, so a failed run
 * leaves standard output empty. */
std::string cmd_metrics(Session &s, const Words &)
{
    Snapshot snap = take_snapshot(s.client);

    return s.json ? snapshot_json(snap) : snapshot_metrics(snap);
}

/* Offline: reads a dump file, never the daemon. */
std::string cmd_dump(Session &s, const Words &w)
{
    return dump_view(w[0], s.json);
}

struct Command {
    const char *name; /* one or two words */
    const char *args;
    const char *summary; /* the command list's line */
    const char *detail;  /* what --help adds */
    size_t min_args;
    size_t max_args;
    std::string (*run)(Session &, const Words &);
};

constexpr Command kCommands[] = {
    {"modules", "", "module list with health",
     "Each module instance of the image: id, name, pipe and OK, or FAILED "
     "once it has reported a fatal hardware error.",
     0, 0, cmd_modules},
    {"pipes", "", "traffic pipe states", "Each traffic pipe, up or down.", 0,
     0, cmd_pipes},
    {"pipe", "PIPE up|down", "take a traffic pipe up or down",
     "Up waits until the port is aligned or has been reset three times; "
     "`pipes` tells whether the link came up.",
     2, 2, cmd_pipe},
    {"stats", "MODULE PIPE [--clear]",
     "statistics of a module instance (MODULE: name or id)",
     "Every counter of the instance, named by its register source; --clear "
     "clears them after reading.",
     2, 2, cmd_stats},
    {"watch", "[--interval SECONDS] [MODULE PIPE]",
     "live view of health, pipes and counter rates",
     "Redraws module health, pipe states and counter rates per second every "
     "interval (default 1 s, 0.1 to 3600) until Ctrl-C: every counter of "
     "MODULE PIPE, or else those that changed. Without a terminal, one "
     "snapshot per interval.",
     0, 2, cmd_watch},
    {"reg read", "OFFSET", "read a register",
     "Reads the 32-bit word at OFFSET of the FPGA's window.", 1, 1,
     cmd_reg_read},
    {"reg write", "OFFSET VALUE", "write a register",
     "Writes VALUE to the 32-bit word at OFFSET of the FPGA's window.", 2, 2,
     cmd_reg_write},
    {"loopback", "PIPE [disable-all|pcs-near|pma-near|pma-far|pcs-far]",
     "get or set the loopback of a pipe",
     "Another type than the one on needs disable-all first.", 1, 2,
     cmd_loopback},
    {"qos", "PIPE PROFILE [low|med|high]",
     "get or set the priority of an ingress QoS profile",
     "PROFILE is 0 to 127.", 2, 3, cmd_qos},
    {"metrics", "", "Prometheus text exposition of health and counters",
     "Module health, pipe states and every counter, in the Prometheus text "
     "format (one JSON object with --json).",
     0, 0, cmd_metrics},
    {"dump", "FILE", "decode a register dump file (no daemon needed)",
     "Each module instance of the dump's image: its base, its state, the set "
     "bits of its fatal-error registers, a port's control and status, and "
     "its counters. Of several dumps in FILE, the last.",
     1, 1, cmd_dump},
};

/* Usage and help texts */

constexpr int kSummaryColumn = 32;

std::string command_line(const Command &c)
{
    return c.name + std::string(*c.args != '\0' ? " " : "") + c.args;
}

std::string command_usage(const Command &c)
{
    return format("usage: %s %s\n", kOptionsUsage, command_line(c).c_str());
}

/* Each command and what it does; a long one has its summary below it. The
 * options are explained for --help only. */
std::string usage(bool help)
{
    std::string text = format("usage: %s COMMAND ...\ncommands:\n", kOptionsUsage);

    for (const Command &c : kCommands) {
        std::string line = command_line(c);

        if (line.size() >= kSummaryColumn)
            text += "  " + line + "\n" + std::string(kSummaryColumn + 2, ' ');
        else
            text += format("  %-*s", kSummaryColumn, line.c_str());
        text += format("  %s\n", c.summary);
    }
    if (help)
        text += format(
            "options:\n"
            "  --socket PATH      the daemon's socket (default " IPC_SOCKET_DIR
            "/%d.sock)\n"
            "  --timeout SECONDS  the wait for each answer (default %d)\n"
            "  --json             print JSON\n"
            "  --help             this list; after a command, what it does\n",
            PLM_IPC_APP_ID, kDefaultTimeoutMs / 1000);
    return text;
}

/* The command line, read by CLI11 from the table. */
class CommandLine {
public:
    CommandLine();
    Exit main(int argc, char **argv);

private:
    std::string help(const CLI::App *app) const;
    const Command *selected() const;
    [[noreturn]] void extras_failed() const;
    std::string run(int argc, char **argv);

    CLI::App app_{"", "lhctl"};
    std::map<const CLI::App *, const Command *> leaves_;
    std::string socket_;
    std::string timeout_;
    bool json_ = false;
    bool clear_ = false;
    std::optional<std::string> interval_;
    Words words_; /* the selected command's arguments */
    const Command *command_ = nullptr; /* once known, for its usage line */
};

CommandLine::CommandLine()
{
    char path[PATH_MAX];

    if (ipc_socket_path(PLM_IPC_APP_ID, path, sizeof(path)) == 0)
        socket_ = path;
    app_.formatter_fn([this](const CLI::App *app, std::string, CLI::AppFormatMode) {
        return help(app);
    });
    app_.fallthrough(); /* global options after the command too */
    app_.add_option("--socket", socket_)
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeLast);
    app_.add_option("--timeout", timeout_)
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeLast);
    app_.add_flag("--json", json_);
    std::map<std::string, CLI::App *> groups;

    for (const Command &c : kCommands) {
        std::string name = c.name;
        CLI::App *parent = &app_;
        size_t space = name.find(' ');

        if (space != std::string::npos) {
            std::string group = name.substr(0, space);
            if (groups[group] == nullptr)
                groups[group] = app_.add_subcommand(group);
            parent = groups[group];
            name = name.substr(space + 1);
        }
        CLI::App *leaf = parent->add_subcommand(name);
        leaf->add_option("args", words_);
        if (c.run == cmd_stats)
            leaf->add_flag("--clear", clear_);
        if (c.run == cmd_watch)
            leaf->add_option("--interval", interval_)
                ->multi_option_policy(CLI::MultiOptionPolicy::TakeLast);
        leaves_[leaf] = &c;
    }
}

/* The list for lhctl itself, a command's usage and what it does, or the
 * commands of a group such as reg. */
std::string CommandLine::help(const CLI::App *app) const
{
    if (app == &app_)
        return usage(true);
    if (auto leaf = leaves_.find(app); leaf != leaves_.end())
        return command_usage(*leaf->second) + leaf->second->detail + "\n";
    std::string text;
    for (const auto &[sub, c] : leaves_)
        if (sub->get_parent() == app)
            text += command_usage(*c) + "  " + c->summary + "\n";
    return text;
}

/* The subcommands given, also those after "--". */
static std::vector<const CLI::App *> given(const CLI::App *app)
{
    return app->get_subcommands([](const CLI::App *a) { return a->parsed(); });
}

/* The command the words name, or a usage error. */
const Command *CommandLine::selected() const
{
    auto chosen = given(&app_);

    if (chosen.empty())
        usage_error("no command");
    auto below = given(chosen[0]);
    const CLI::App *leaf = below.empty() ? chosen[0] : below[0];
    if (auto found = leaves_.find(leaf); found != leaves_.end())
        return found->second;
    usage_error(format("unknown command \"%s\"", chosen[0]->get_name().c_str()));
}

/* Words nobody took: an unknown option or command. "--clear" is an
 * argument too many for any command but stats. */
void CommandLine::extras_failed() const
{
    std::string first = app_.remaining(true).at(0);

    if (first == "--clear" && !given(&app_).empty())
        usage_error("unexpected argument \"--clear\"");
    if (first.starts_with("-"))
        usage_error(format("unknown option \"%s\"", first.c_str()));
    if (!given(&app_).empty())
        first = given(&app_)[0]->get_name();
    usage_error(format("unknown command \"%s\"", first.c_str()));
}

std::string CommandLine::run(int argc, char **argv)
{
    try {
        app_.parse(argc, argv);
    } catch (const CLI::ArgumentMismatch &e) {
        std::string what = e.what();
        usage_error(format("option %s needs a value",
                           what.substr(0, what.find(':')).c_str()));
    } catch (const CLI::ExtrasError &) {
        if (!given(&app_).empty() &&
            app_.remaining(true).at(0) == "--clear")
            command_ = selected();
        extras_failed();
    }
    int timeout_ms = timeout_.empty() && app_.count("--timeout") == 0
                         ? kDefaultTimeoutMs
                         : parse_timeout_ms(timeout_);
    command_ = selected();
    if (words_.size() < command_->min_args)
        usage_error("missing argument");
    if (words_.size() > command_->max_args)
        usage_error(format("unexpected argument \"%s\"",
                           words_[command_->max_args].c_str()));
    Session session{Client(socket_, timeout_ms), json_, clear_, interval_};
    return command_->run(session, words_);
}

Exit CommandLine::main(int argc, char **argv)
{
    try {
        std::string out = run(argc, argv);

        fputs(out.c_str(), stdout);
    } catch (const CLI::CallForHelp &) {
        fputs(app_.help().c_str(), stdout);
    } catch (const CLI::ParseError &e) {
        fprintf(stderr, "lhctl: %s\n%s", e.what(), usage(false).c_str());
        return Exit::usage;
    } catch (const Failure &f) {
        fprintf(stderr, "lhctl: %s\n", f.what());
        if (f.exit() == Exit::usage)
            fputs(command_ ? command_usage(*command_).c_str()
                           : usage(false).c_str(),
                  stderr);
        return f.exit();
    }
    if (fflush(stdout) != 0) {
        perror("lhctl: standard output");
        return Exit::refused;
    }
    return Exit::ok;
}

} // namespace
} // namespace lhctl

int main(int argc, char **argv)
{
    try {
        return static_cast<int>(lhctl::CommandLine().main(argc, argv));
    } catch (const std::exception &e) {
        fprintf(stderr, "lhctl: %s\n", e.what());
        return static_cast<int>(lhctl::Exit::refused);
    }
}
