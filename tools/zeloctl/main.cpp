// zeloctl: command-line access to the power-management firmware and to what
// the daemon has recorded, through the exported zelo interface alone.
#include "zeloctl.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <fcntl.h>
#include <functional>
#include <string_view>
#include <unistd.h>
#include <vector>

namespace zeloctl {
namespace {

struct Command {
    const char *name;
    const char *synopsis; // arguments and options after the name
    const char *help;
    int argc;            // exact number of arguments; -1: options only
    bool json;           // prints JSON with --json
    bool instance;       // asks the firmware instance --instance names
    const char *details; // more lines for 'COMMAND --help', or null
};

constexpr Command kCommands[] = {
    {"discover", "", "find the firmware instance and show its module handle", 0, true, true,
     nullptr},
    {"registers", "", "list the register names, their access and width", 0, true, false, nullptr},
    {"read", "NAME", "read a named register", 1, true, true,
     "  NAME is one of the names 'zeloctl registers' lists.\n"},
    {"write", "NAME VALUE", "write a writable register; VALUE must fit its width", 2, true, true,
     "  NAME is one of the names 'zeloctl registers' lists.\n"},
    {"raw", "ELEMENT REGISTER LENGTH", "read any register by number (LENGTH 1-8 bytes)", 3, true,
     true, nullptr},
    {"psu", "", "power supplies: presence, input voltage, output label power", 0, true, true,
     nullptr},
    {"redundancy", "", "redundancy configurations of the server: description, allowed, active", 0,
     true, false, nullptr},
    {"expansion", "", "total input and standby power of the expansion unit", 0, true, false,
     nullptr},
    {"power", "[--window W]", "AC and DC power now, minimum, average, maximum and energy", -1, true,
     false,
     "  --window W  the window ending at the newest metric record (default 1h):\n"
     "              a number with a unit, s, m or h (30s, 90m, 2h, 24h), or\n"
     "              seconds alone (3600); from 1 second to 24 hours\n"},
    {"history", "[--performance] [--hours N] [--csv]",
     "the 24-hour power (or performance) history, dated, oldest first", -1, true, false,
     "  --performance  utilisation instead of power\n"
     "  --hours N      the last N hours, 1-24 (default 24)\n"
     "  --csv          comma-separated values; unknown intervals are empty fields\n"},
    {"metrics", "[--last N]", "the metric log's records, every field, oldest first", -1, true,
     false, "  --last N  only the newest N records, 1-120 (default all)\n"},
    {"chart", "[--hours N] [--out FILE]", "an SVG chart of power and utilisation", -1, false, false,
     "  --hours N   the last N hours, 1-24 (default 24)\n"
     "  --out FILE  where to write the SVG (default standard output)\n"},
};

struct Options {
    bool json = false;
    bool verbose = false;
    bool version = false;
    std::string instance = "0";
    std::vector<std::string> args;
    std::string window = "1h";
    std::string hours = "24";
    std::string last = "120";
    std::string out;
    bool performance = false;
    bool csv = false;
};

// Every option: where its value goes (a flag has none), and the commands that
// take it (none: it goes before the command, and may follow it too).
struct OptionSpec {
    const char *name;
    std::string Options::*value;
    bool Options::*flag;
    const char *commands;
};

constexpr OptionSpec kOptions[] = {
    {"--json", nullptr, &Options::json, nullptr},
    {"--verbose", nullptr, &Options::verbose, nullptr},
    {"--instance", &Options::instance, nullptr, nullptr},
    {"--version", nullptr, &Options::version, nullptr},
    {"--help", nullptr, nullptr, nullptr}, // CLI11's own
    {"--window", &Options::window, nullptr, "power"},
    {"--hours", &Options::hours, nullptr, "history chart"},
    {"--performance", nullptr, &Options::performance, "history"},
    {"--csv", nullptr, &Options::csv, "history"},
    {"--last", &Options::last, nullptr, "metrics"},
    {"--out", &Options::out, nullptr, "chart"},
};

const OptionSpec *findOption(std::string_view name) {
    for (const auto &o : kOptions)
        if (name == o.name)
            return &o;
    return nullptr;
}

bool belongsTo(const OptionSpec &option, std::string_view command) {
    const std::string_view list = option.commands != nullptr ? option.commands : "";
    for (std::size_t at = 0; at < list.size();) {
        const std::size_t end = std::min(list.find(' ', at), list.size());
        if (list.substr(at, end - at) == command)
            return true;
        at = end + 1;
    }
    return false;
}

// CLI11 would take "--window --json" for a window named "--json" and
// "--json=1" for --json; such forms are refused first, naming the option, as
// is a value given twice.
std::string checkForms(int argc, char **argv) {
    std::vector<const OptionSpec *> valued;
    for (int i = 1; i < argc; ++i) {
        const std::string_view arg = argv[i];
        if (arg == "--")
            break;
        const std::size_t equals = arg.find('=');
        const OptionSpec *option = findOption(arg.substr(0, equals));
        if (option == nullptr)
            continue;
        const std::string named = std::string("option '") + option->name + "'";
        if (option->value == nullptr) {
            if (equals != std::string_view::npos)
                return named + " takes no value";
            continue;
        }
        if (std::find(valued.begin(), valued.end(), option) != valued.end())
            return named + " is given twice";
        valued.push_back(option);
        if (equals != std::string_view::npos) {
            if (equals + 1 == arg.size())
                return named + " needs a value";
            continue;
        }
        if (i + 1 == argc || std::string_view(argv[i + 1]).rfind("--", 0) == 0)
            return named + " needs a value";
        ++i; // the value
    }
    return {};
}

std::string topUsage() {
    std::string text =
        "usage: zeloctl [--json] [--verbose] [--instance N] COMMAND [ARGS]\n\ncommands:\n";
    for (const auto &c : kCommands) {
        const std::string synopsis = std::string(c.name) + (*c.synopsis ? " " : "") + c.synopsis;
        // A long synopsis puts its help on the next line, in the same column.
        text += "  " + synopsis +
                (synopsis.size() <= 33 ? std::string(34 - synopsis.size(), ' ')
                                       : "\n" + std::string(36, ' ')) +
                c.help + "\n";
    }
    return text + "\noptions:\n"
                  "  --json        print results as one JSON object (every command but chart)\n"
                  "  --verbose     show the library's diagnostics, and what lies behind a\n"
                  "                failure, on stderr\n"
                  "  --instance N  firmware instance for discover, read, write, raw, psu:\n"
                  "                0 the server (default), 1 the expansion unit\n"
                  "  --version     show zeloctl's version\n"
                  "  --help        show this text; 'zeloctl COMMAND --help' shows one command\n"
                  "\nNumbers are decimal or 0x-prefixed hexadecimal. Exit status: 0 success,\n"
                  "1 the firmware or library failed (the result code is shown) or nothing is\n"
                  "recorded yet, 2 bad usage.\n";
}

const Command *findCommand(const std::string &name) {
    for (const auto &c : kCommands)
        if (name == c.name)
            return &c;
    return nullptr;
}

// Help in zeloctl's own words, for the whole program and for each command.
class Help : public CLI::Formatter {
  public:
    std::string make_help(const CLI::App *app, std::string, CLI::AppFormatMode) const override {
        const Command *c = app->get_parent() != nullptr ? findCommand(app->get_name()) : nullptr;
        if (c == nullptr)
            return topUsage();
        return std::string("usage: zeloctl ") + (c->json ? "[--json] " : "") + "[--verbose] " +
               (c->instance ? "[--instance N] " : "") + c->name + (*c->synopsis ? " " : "") +
               c->synopsis + "\n  " + c->help + "\n" + (c->details != nullptr ? c->details : "");
    }
};

// Keeps standard output for results and sends what the library prints to
// stderr (--verbose) or nowhere, so scripts can parse the output.
void separateLibraryOutput(bool verbose) {
    std::fflush(stdout);
    const int results = ::dup(STDOUT_FILENO);
    const int sink = verbose ? ::dup(STDERR_FILENO) : ::open("/dev/null", O_WRONLY);
    if (results < 0 || sink < 0 || ::dup2(sink, STDOUT_FILENO) < 0) {
        gOutput.out = stdout; // cannot separate: everything stays on stdout
        return;
    }
    ::close(sink);
    gOutput.out = ::fdopen(results, "w");
    if (gOutput.out == nullptr)
        gOutput.out = stdout;
    // Line by line, so diagnostics and zeloctl's own errors keep their order.
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
}

int runCommand(const Command &c, const Options &o) {
    const std::string name = c.name;
    const auto &a = o.args;
    if (name == "discover")
        return cmdDiscover();
    if (name == "registers")
        return cmdRegisters();
    if (name == "read")
        return cmdRead(a[0]);
    if (name == "write")
        return cmdWrite(a[0], a[1]);
    if (name == "raw")
        return cmdRaw(a[0], a[1], a[2]);
    if (name == "psu")
        return cmdPsu();
    if (name == "redundancy")
        return cmdRedundancy();
    if (name == "expansion")
        return cmdExpansion();
    if (name == "power")
        return cmdPower(o.window);
    if (name == "history")
        return cmdHistory(o.performance, o.hours,
                          gOutput.json ? HistoryFormat::Json
                          : o.csv      ? HistoryFormat::Csv
                                       : HistoryFormat::Text);
    if (name == "metrics")
        return cmdMetrics(o.last);
    return cmdChart(o.hours, o.out);
}

// One command's options given to another, or before the command.
int misplaced(const std::string &extra, const Command *c) {
    const OptionSpec *option = findOption(extra.substr(0, extra.find('=')));
    if (option == nullptr || option->commands == nullptr || c == nullptr)
        return usageError("bad option '" + printable(extra) + "'");
    const std::string named = std::string("option '") + option->name + "'";
    if (belongsTo(*option, c->name))
        return usageError(named + " goes after the command: zeloctl " + c->name + " " +
                          option->name + (option->value != nullptr ? " ..." : ""));
    return usageError(named + " does not apply to '" + c->name + "'");
}

int run(int argc, char **argv) {
    if (const std::string wrong = checkForms(argc, argv); !wrong.empty())
        return usageError(wrong);
    CLI::App app("zeloctl", "zeloctl");
    app.formatter(std::make_shared<Help>());
    app.set_help_flag("-h,--help");
    app.allow_extras();
    app.require_subcommand(0, 1);
    Options o;
    const auto add = [&o](CLI::App &to, const OptionSpec &option) {
        if (option.value != nullptr)
            to.add_option(option.name, o.*option.value);
        else if (option.flag != nullptr)
            to.add_flag(option.name, o.*option.flag);
    };
    for (const OptionSpec &option : kOptions)
        if (option.commands == nullptr)
            add(app, option);
    for (const Command &c : kCommands) {
        CLI::App *sub = app.add_subcommand(c.name, c.help);
        sub->fallthrough();
        sub->add_option("args", o.args)->expected(0, CLI::detail::expected_max_vector_size);
        for (const OptionSpec &option : kOptions)
            if (belongsTo(option, c.name))
                add(*sub, option);
    }
    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp &) {
        std::fputs(app.help().c_str(), gOutput.out);
        return 0;
    } catch (const CLI::ParseError &e) {
        // The forms checked above leave CLI11 little to refuse.
        return usageError("bad command line: " + printable(e.what()));
    }
    if (o.version) {
        std::fputs("zeloctl " ZELO_VERSION "\n", gOutput.out);
        return 0;
    }
    const auto selected = app.get_subcommands();
    const Command *command = selected.empty() ? nullptr : findCommand(selected.front()->get_name());
    for (const std::string &extra : app.remaining()) {
        if (extra.rfind('-', 0) == 0)
            return misplaced(extra, command);
        return usageError("unknown command '" + printable(extra) + "'");
    }
    uint64_t instance = 0;
    if (!parseNumber(o.instance, 1, &instance)) {
        const bool number = parseNumber(o.instance, UINT64_MAX, &instance);
        return usageError((number ? "--instance " + o.instance + " is out of range"
                                  : "bad value '" + printable(o.instance) + "' for --instance") +
                          " (0 the server, 1 the expansion unit)");
    }
    gOutput.instance = static_cast<int32_t>(instance);
    if (command == nullptr) {
        std::fputs(topUsage().c_str(), stderr);
        return kExitUsage;
    }
    const Command &c = *command;
    if (o.json && !c.json)
        return usageError(std::string("option '--json' does not apply to '") + c.name + "'");
    if (app.get_option("--instance")->count() != 0 && !c.instance)
        return usageError(std::string("option '--instance' does not apply to '") + c.name +
                          "' (only to discover, read, write, raw and psu)");
    if (c.argc >= 0 ? o.args.size() != static_cast<std::size_t>(c.argc) : !o.args.empty())
        return usageError(std::string("wrong number of arguments for '") + c.name + "'");
    if (o.csv && o.json)
        return usageError("choose one of --json and --csv");
    gOutput.json = o.json;
    gOutput.verbose = o.verbose;
    separateLibraryOutput(o.verbose);
    return runCommand(c, o);
}

} // namespace
} // namespace zeloctl

int main(int argc, char **argv) {
    try {
        return zeloctl::run(argc, argv);
    } catch (const std::exception &e) {
        std::fprintf(stderr, "zeloctl: %s\n", e.what());
        return zeloctl::kExitFailure;
    }
}
