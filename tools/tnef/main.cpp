// tnefx: list, extract and decode TNEF files ("winmail.dat"), and read and write their MAPI
// properties, from the command line.

#include <CLI/CLI.hpp>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "tnef/platform/cust_flags.h"
#include "tnef/platform/er_escape.h"
#include "tnef/platform/os_file.h"
#include "tool.h"

#include <nlohmann/json.hpp>

#ifndef TNEF_TOOL_VERSION
#define TNEF_TOOL_VERSION "unknown"
#endif

namespace {

const CommandSpec* const kCommands[] = {
    &kListCommand,  &kExtractCommand, &kBodyCommand,      &kPropsCommand, &kDecodeCommand, &kShowCommand,
    &kGetpropCommand, &kWriteblobCommand, &kScanCommand, &kEncodeCommand, &kRtfCommand,
    &kCalendarCommand, &kContactCommand, &kStoreCommand, &kUnwrapCommand,
};

constexpr const char* kDescription =
    "Reads TNEF files (winmail.dat): their attachments, properties, bodies, meetings and contacts,\n"
    "and decodes them into the server's message store and encodes stored messages back.";

constexpr const char* kFooter =
    "Every command that reads a TNEF file reads standard input for '-'.\n"
    "Exit status: 0 success, 1 nothing found where a search was asked, 2 error (with --strict,\n"
    "also any warning). 'tnefx COMMAND --help' describes a command.";

// Help as the tool has always printed it: the usage line first, then what the command does,
// its options, and its details.
class HelpFormatter : public CLI::Formatter {
  public:
    std::map<const CLI::App*, std::string> operands;

    std::string make_usage(const CLI::App* app, std::string) const override {
        std::string line = "usage: " + std::string(kToolName);
        if (app->get_parent() == nullptr) return line + " [OPTIONS] COMMAND [ARGS]\n";
        line += " " + app->get_name() + " [OPTIONS]";
        const auto it = operands.find(app);
        if (it != operands.end() && !it->second.empty()) line += " " + it->second;
        return line + "\n";
    }

    std::string make_help(const CLI::App* app, std::string name, CLI::AppFormatMode mode) const override {
        std::ostringstream out;
        out << make_usage(app, name) << "\n" << app->get_description() << "\n";
        out << make_groups(app, mode);
        if (app->get_parent() == nullptr) out << make_subcommands(app, CLI::AppFormatMode::Normal);
        out << "\n" << make_footer(app) << "\n";
        // --help-all (the man page's source) describes every command after the tool.
        if (mode == CLI::AppFormatMode::All)
            for (const CLI::App* sub : app->get_subcommands({}))
                out << "\n" << make_help(sub, sub->get_name(), CLI::AppFormatMode::Normal);
        return out.str();
    }
};

struct CommandLine {
    GlobalOptions global;
    std::string home;
    std::vector<std::string> flags;  // --set values
    std::vector<ParsedArgs> parsed;  // one per command
};

void addGlobals(CLI::App& app, CommandLine& line) {
    app.add_option("--home", line.home, "the server home (default: $TNEF_HOME, else ./tnef-home)")
        ->type_name("DIR");
    app.add_option("--set", line.flags, "set a customisation flag for this run (repeatable)")
        ->type_name("NAME=VALUE");
    app.add_flag("--json", line.global.json, "a machine-readable report on stdout");
    app.add_flag("--strict", line.global.strict, "any warning is an error: exit 2 before writing");
    app.add_flag("-q,--quiet", line.global.quiet, "no progress line");
}

CLI::App* addCommand(CLI::App& app, HelpFormatter& help, const CommandSpec& command, ParsedArgs& parsed) {
    CLI::App* sub = app.add_subcommand(command.name, command.summary);
    sub->fallthrough();
    sub->set_help_all_flag();
    sub->footer(command.details);
    help.operands[sub] = command.operands;
    for (const OptionSpec& o : command.options) {
        const std::string name = o.name;
        if (o.value == nullptr) {
            sub->add_flag_callback(name, [&parsed, name] { parsed.options.emplace_back(name, ""); }, o.help);
            continue;
        }
        sub->add_option_function<std::vector<std::string>>(
               name,
               [&parsed, name](const std::vector<std::string>& values) {
                   for (const std::string& v : values) parsed.options.emplace_back(name, v);
               },
               o.help)
            ->type_name(o.value)
            ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll)
            ->allow_extra_args(false);
    }
    // The operands are shown by the usage line, not as a group of their own.
    sub->add_option("operands", parsed.operands)->group("");
    return sub;
}

// What a parse fault means in the tool's words: the first argument of the command that is
// an option it does not know, or the option left without its value.
std::string describeFault(const CLI::ParseError& e, const std::vector<std::string>& args, const CLI::App* sub) {
    for (const std::string& arg : args) {
        if (arg == "--") break;
        const std::string name = arg.substr(0, arg.find('='));
        if (arg.size() < 2 || arg[0] != '-') continue;
        const bool known = sub != nullptr && (sub->get_option_no_throw(name) != nullptr ||
                                              sub->get_parent()->get_option_no_throw(name) != nullptr);
        if (!known && name != "-h" && name != "--help") return "unknown option '" + name + "'";
    }
    if (dynamic_cast<const CLI::ArgumentMismatch*>(&e) != nullptr && !args.empty())
        return "option '" + args.back() + "' needs a value";
    return e.what();
}

// The command named on the line (the first operand before any command), for faults found
// before a command was chosen.
std::string firstOperand(const std::vector<std::string>& args) {
    for (size_t i = 0; i < args.size(); ++i) {
        if (args[i] == "--home" || args[i] == "--set") {
            ++i;
            continue;
        }
        if (args[i].empty() || args[i][0] != '-') return args[i];
    }
    return {};
}

int checkOperands(const CommandSpec& command, const ParsedArgs& p) {
    const size_t n = p.operands.size();
    if (n >= command.minOperands && n <= command.maxOperands) return kExitOk;
    if (n > command.maxOperands && command.maxOperands == 0)
        return usageError(command.name, "unexpected operand '" + p.operands[0] + "'");
    if (n == 0) {
        const std::string first = std::string(command.operands).substr(0, std::string(command.operands).find_first_of(" ."));
        // An operand in capitals names what to give (FILE); in small letters it is the word itself.
        if (!first.empty() && std::islower(static_cast<unsigned char>(first[0])))
            return usageError(command.name, std::string("'") + kToolName + " " + command.name + " " + first + "' wanted");
        return usageError(command.name, "no " + first + " given");
    }
    return usageError(command.name, std::string(command.operands) + " wanted");
}

int applyGlobals(const CommandLine& line) {
    for (const std::string& flag : line.flags)
        if (flag.find('=') == std::string::npos || flag[0] == '=')
            return usageError("", "--set wants NAME=VALUE, not '" + flag + "'");
    if (!line.home.empty()) os_SetHome(line.home);
    for (const std::string& flag : line.flags) {
        const size_t eq = flag.find('=');
        cust_Set(flag.substr(0, eq).c_str(), flag.substr(eq + 1).c_str());
    }
    return kExitOk;
}

int run(int argc, char** argv) {
    CommandLine line;
    line.parsed.resize(std::size(kCommands));
    auto help = std::make_shared<HelpFormatter>();
    CLI::App app{kDescription, kToolName};
    app.formatter(help);
    app.footer(kFooter);
    app.set_help_all_flag("--help-all", "every command's help, one after another");
    app.set_version_flag("--version", std::string(kToolName) + " " TNEF_TOOL_VERSION);
    addGlobals(app, line);
    std::vector<CLI::App*> subs;
    for (size_t i = 0; i < std::size(kCommands); ++i)
        subs.push_back(addCommand(app, *help, *kCommands[i], line.parsed[i]));
    app.add_subcommand("help", "describe a command: 'tnefx help COMMAND'");

    std::vector<std::string> args(argv + 1, argv + argc);
    // "help COMMAND" is "COMMAND --help"; "help" alone is "--help".
    if (!args.empty() && args[0] == "help") {
        args.erase(args.begin());
        if (!args.empty() && std::none_of(std::begin(kCommands), std::end(kCommands),
                                          [&](const CommandSpec* c) { return args[0] == c->name; }))
            return usageError("", "unknown command '" + args[0] + "'");
        if (args.size() > 1) args.resize(1);
        args.push_back("--help");
    }
    try {
        app.parse(std::vector<std::string>(args.rbegin(), args.rend()));
    } catch (const CLI::Success& e) {
        // --help, --help-all and --version go to stdout.
        std::ostringstream out, err;
        app.exit(e, out, err);
        writeOut(out.str());
        return kExitOk;
    } catch (const CLI::ParseError& e) {
        const std::vector<CLI::App*> chosen = app.get_subcommands();
        if (chosen.empty()) {
            const std::string word = firstOperand(args);
            if (!word.empty()) return usageError("", "unknown command '" + word + "'");
            return usageError("", describeFault(e, args, nullptr));
        }
        return usageError(chosen.front()->get_name(), describeFault(e, args, chosen.front()));
    }
    for (size_t i = 0; i < subs.size(); ++i) {
        if (!subs[i]->parsed()) continue;
        if (checkOperands(*kCommands[i], line.parsed[i]) != kExitOk) return kExitError;
        if (applyGlobals(line) != kExitOk) return kExitError;
        const int status = kCommands[i]->run(line.global, line.parsed[i]);
        // A --json run that failed before its report still answers with a JSON document.
        if (line.global.json && status == kExitError && !tool_WroteOut())
            writeOut(nlohmann::json({{"error", tool_LastFault()}})
                         .dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) + "\n");
        return status;
    }
    std::fputs(app.help().c_str(), stderr);
    return kExitError;
}

}  // namespace

int main(int argc, char** argv) {
    try {
        return run(argc, argv);
    } catch (const Escape& e) {
        // Each command reports the escapes it expects; one that gets this far is still one
        // line, not a stack.
        reportEscape("", e);
    } catch (const std::exception& e) {
        reportError("", e.what());
    }
    return kExitError;
}
