// zeloctl: command-line access to the power-management firmware and to what
// the daemon has recorded, through the exported zelo interface alone.
#include "zeloctl.h"

#include <CLI/CLI.hpp>

#include <fcntl.h>
#include <functional>
#include <unistd.h>
#include <vector>

namespace zeloctl {
namespace {

struct Command {
    const char *name;
    const char *synopsis; // arguments and options after the name
    const char *help;
    int argc;            // exact number of arguments; -1: options only
    const char *details; // more lines for 'COMMAND --help', or null
};

constexpr Command kCommands[] = {
    {"discover", "", "find the firmware instance and show its module handle", 0, nullptr},
    {"registers", "", "list the register names, their access and width", 0, nullptr},
    {"read", "NAME", "read a named register", 1,
     "  NAME is one of the names 'zeloctl registers' lists.\n"},
    {"write", "NAME VALUE", "write a writable register; VALUE must fit its width", 2,
     "  NAME is one of the names 'zeloctl registers' lists.\n"},
    {"raw", "ELEMENT REGISTER LENGTH", "read any register by number (LENGTH 1-8 bytes)", 3,
     nullptr},
    {"psu", "", "power supplies: presence, input voltage, output label power", 0, nullptr},
    {"redundancy", "", "redundancy configurations: description, allowed, active", 0, nullptr},
    {"expansion", "", "total input and standby power of the expansion unit", 0, nullptr},
    {"power", "[--window W]", "AC and DC power now, minimum, average, maximum and energy", -1,
     "  --window W  30s, 1h, 6h, 12h, 24h or a number of seconds up to 86400\n"
     "              (default 1h), ending at the newest metric record\n"},
    {"history", "[--performance] [--hours N] [--csv]",
     "the 24-hour power (or performance) history, dated, oldest first", -1,
     "  --performance  utilisation instead of power\n"
     "  --hours N      the last N hours, 1-24 (default 24)\n"
     "  --csv          comma-separated values; unknown intervals are empty fields\n"},
    {"metrics", "[--last N]", "the metric log's records, every field, oldest first", -1,
     "  --last N  only the newest N records, 1-120 (default all)\n"},
    {"chart", "[--hours N] [--out FILE]", "an SVG chart of power and utilisation", -1,
     "  --hours N   the last N hours, 1-24 (default 24)\n"
     "  --out FILE  where to write the SVG (default standard output)\n"},
};

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
                  "  --json        print results as one JSON object\n"
                  "  --verbose     show the library's diagnostics on stderr\n"
                  "  --instance N  firmware instance for discover, read, write, raw, psu:\n"
                  "                0 the server (default), 1 the expansion unit\n"
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
        return std::string("usage: zeloctl [--json] [--instance N] ") + c->name +
               (*c->synopsis ? " " : "") + c->synopsis + "\n  " + c->help + "\n" +
               (c->details != nullptr ? c->details : "");
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

struct Options {
    bool verbose = false;
    std::string instance = "0";
    std::vector<std::string> args;
    std::string window = "1h";
    std::string hours = "24";
    std::string last = "120";
    std::string out;
    bool performance = false;
    bool csv = false;
};

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

int run(int argc, char **argv) {
    CLI::App app("zeloctl", "zeloctl");
    app.formatter(std::make_shared<Help>());
    app.set_help_flag("-h,--help");
    app.allow_extras();
    app.require_subcommand(0, 1);
    Options o;
    app.add_flag("--json", gOutput.json);
    app.add_flag("--verbose", o.verbose);
    app.add_option("--instance", o.instance);
    for (const Command &c : kCommands) {
        CLI::App *sub = app.add_subcommand(c.name, c.help);
        sub->fallthrough();
        sub->add_option("args", o.args)->expected(0, 8);
        const std::string name = c.name;
        if (name == "power")
            sub->add_option("--window", o.window);
        if (name == "history" || name == "chart")
            sub->add_option("--hours", o.hours);
        if (name == "history") {
            sub->add_flag("--performance", o.performance);
            sub->add_flag("--csv", o.csv);
        }
        if (name == "metrics")
            sub->add_option("--last", o.last);
        if (name == "chart")
            sub->add_option("--out", o.out);
    }
    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp &) {
        std::fputs(app.help().c_str(), gOutput.out);
        return 0;
    } catch (const CLI::ParseError &e) {
        // An option that needs a value and was given none.
        const std::string what = e.what();
        const auto quote = what.find("--");
        return usageError("bad option '" +
                          (quote != std::string::npos
                               ? what.substr(quote, what.find_first_of(" :", quote) - quote)
                               : printable(what)) +
                          "'");
    }
    for (const std::string &extra : app.remaining())
        return usageError((extra.rfind('-', 0) == 0 ? "bad option '" : "unknown command '") +
                          printable(extra) + "'");
    const auto selected = app.get_subcommands();
    if (selected.empty()) {
        std::fputs(topUsage().c_str(), stderr);
        return kExitUsage;
    }
    const Command &c = *findCommand(selected.front()->get_name());
    uint64_t instance = 0;
    if (!parseNumber(o.instance, 1, &instance)) {
        const bool number = parseNumber(o.instance, UINT64_MAX, &instance);
        return usageError((number ? "--instance " + o.instance + " is out of range"
                                  : "bad value '" + printable(o.instance) + "' for --instance") +
                          " (0 the server, 1 the expansion unit)");
    }
    gOutput.instance = static_cast<int32_t>(instance);
    if (c.argc >= 0 ? o.args.size() != static_cast<std::size_t>(c.argc) : !o.args.empty())
        return usageError(std::string("wrong number of arguments for '") + c.name + "'");
    if (o.csv && gOutput.json)
        return usageError("choose one of --json and --csv");
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
