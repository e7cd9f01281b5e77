// tnef: list, extract and decode TNEF files ("winmail.dat"), and read and write their MAPI
// properties, from the command line.

#include <cstdio>
#include <cstring>
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

constexpr const char* kUsage =
    "usage: tnef [--home DIR] [--set NAME=VALUE]... [--json] COMMAND [ARGS]\n"
    "\n"
    "Commands:\n"
    "  list FILE...        the attachments of TNEF files, with names, sizes and types\n"
    "  extract FILE...     write the attachments into a folder (-C DIR)\n"
    "  decode FILE         decode a TNEF file into a new message of the store\n"
    "  show MESSAGE        the records, parts and stored objects of a stored message\n"
    "  props FILE          every MAPI property of a TNEF file, readable\n"
    "  body FILE           the message's body: HTML, text or RTF\n"
    "  rtf FILE            RTF out of a compressed RTF value, and what it encapsulates\n"
    "  store check         what interrupted work left in the store; --repair removes it\n"
    "  getprop FILE [REQ]  MAPI properties of a TNEF file as property text\n"
    "  writeblob -o OUT    a TNEF file from property texts\n"
    "  scan FILE           walk a TNEF file attribute by attribute\n"
    "  encode MESSAGE      write a stored message as a TNEF file (-o OUT)\n"
    "\n"
    "Global options:\n"
    "  --home DIR          the server home (default: $TNEF_HOME, else ./tnef-home)\n"
    "  --set NAME=VALUE    set a customisation flag for this run (repeatable)\n"
    "  --json              machine-readable report on stdout\n"
    "  --version           print the version\n"
    "\n"
    "Exit status: 0 success, 1 nothing found where a search was asked, 2 error.\n"
    "'tnef COMMAND --help' describes a command.\n";

struct Command {
    const char* name;
    int (*run)(const GlobalOptions&, const std::vector<std::string>&);
};

constexpr Command kCommands[] = {
    {"list", cmdList}, {"extract", cmdExtract}, {"decode", cmdDecode},
    {"show", cmdShow}, {"getprop", cmdGetprop}, {"writeblob", cmdWriteblob},
    {"scan", cmdScan}, {"encode", cmdEncode}, {"props", cmdProps},
    {"body", cmdBody},     {"rtf", cmdRtf},
    {"store", cmdStore},
};

const Command* findCommand(const std::string& name) {
    for (const Command& c : kCommands)
        if (name == c.name) return &c;
    return nullptr;
}

// Takes the global options out of the command line wherever they stand (up to "--") and
// finds the command; the rest is the command's.
struct CommandLine {
    GlobalOptions global;
    std::string home;
    bool homeGiven = false;
    std::vector<std::string> flags;  // --set values
    std::string command;
    std::vector<std::string> args;
    bool help = false;
    bool version = false;
};

bool splitCommandLine(int argc, char** argv, CommandLine* line) {
    bool optionsEnded = false;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        const bool option = !optionsEnded && arg.size() > 1 && arg[0] == '-';
        if (option && arg == "--") optionsEnded = true;
        auto valueOf = [&](const std::string& name, std::string* out) {
            if (arg.rfind(name + "=", 0) == 0) {
                *out = arg.substr(name.size() + 1);
                return true;
            }
            if (i + 1 >= argc) return false;
            *out = argv[++i];
            return true;
        };
        auto is = [&](const char* name) {
            return arg == name || arg.rfind(std::string(name) + "=", 0) == 0;
        };
        if (option && arg == "--json") {
            line->global.json = true;
        } else if (option && is("--home")) {
            if (!valueOf("--home", &line->home))
                return usageError("", "option '--home' needs a value"), false;
            line->homeGiven = true;
        } else if (option && is("--set")) {
            std::string flag;
            if (!valueOf("--set", &flag))
                return usageError("", "option '--set' needs a value"), false;
            if (flag.find('=') == std::string::npos || flag[0] == '=')
                return usageError("", "--set wants NAME=VALUE, not '" + flag + "'"), false;
            line->flags.push_back(flag);
        } else if (line->command.empty() && option && arg == "--version") {
            line->version = true;
        } else if (line->command.empty() && option && (arg == "--help" || arg == "-h")) {
            line->help = true;
        } else if (line->command.empty() && !option) {
            line->command = arg;
        } else {
            line->args.push_back(arg);
        }
    }
    return true;
}

void applyGlobals(const CommandLine& line) {
    if (line.homeGiven) os_SetHome(line.home);
    for (const std::string& flag : line.flags) {
        const size_t eq = flag.find('=');
        cust_Set(flag.substr(0, eq).c_str(), flag.substr(eq + 1).c_str());
    }
}

int run(int argc, char** argv) {
    CommandLine line;
    if (!splitCommandLine(argc, argv, &line)) return kExitError;
    if (line.version) return printHelp("tnef " TNEF_TOOL_VERSION "\n");
    if (line.command == "help") {
        if (line.args.empty()) return printHelp(kUsage);
        line.command = line.args.front();
        line.args = {"--help"};
    }
    if (line.command.empty()) {
        if (line.help) return printHelp(kUsage);
        std::fputs(kUsage, stderr);
        return kExitError;
    }
    const Command* command = findCommand(line.command);
    if (command == nullptr) return usageError("", "unknown command '" + line.command + "'");
    applyGlobals(line);
    const int status = command->run(line.global, line.args);
    // A --json run that failed before its report still answers with a JSON document.
    if (line.global.json && status == kExitError && !tool_WroteOut())
        writeOut(nlohmann::json({{"error", tool_LastFault()}})
                     .dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) + "\n");
    return status;
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
