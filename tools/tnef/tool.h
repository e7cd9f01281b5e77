// What the subcommands of the tnef tool share: the run's global options, the parsed command
// line of one subcommand, exit statuses and the one-line error report.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

class Escape;

inline constexpr int kExitOk = 0;
inline constexpr int kExitNotFound = 1;  // a search found nothing
inline constexpr int kExitError = 2;

// Options that hold for every subcommand.
struct GlobalOptions {
    bool json = false;
};

// One option a subcommand accepts: "--name" or "-n", with a value or without.
struct OptionInfo {
    const char* name;
    bool takesValue;
};

// A subcommand's command line after parsing: the options given (in order, so repeated ones
// stay) and the operands.
struct ParsedArgs {
    std::vector<std::pair<std::string, std::string>> options;
    std::vector<std::string> operands;
    bool help = false;

    bool has(std::string_view name) const;
    // The last value given for name, or fallback.
    std::string get(std::string_view name, std::string_view fallback = {}) const;
};

// Parses args against known ("--name value", "--name=value", "-n value"; "--" ends the
// options; "--help" and "-h" set help). On an unknown option or a missing value it reports
// the fault for command and returns false.
bool parseArgs(const std::string& command, const std::vector<std::string>& args,
               const std::vector<OptionInfo>& known, ParsedArgs* parsed);

// "tnef: <subject>: <what>" on stderr, one line.
void reportError(std::string_view subject, std::string_view what);
// The same for an escape, its group and reason named: "... (escape 102/1531)".
void reportEscape(std::string_view subject, const Escape& e);
// What an escape means, in words, without its group and reason.
std::string escapeText(const Escape& e);
// "... (escape G/R)" text for JSON reports and messages.
std::string escapeLine(const Escape& e);
// "<errno text>" for a failed system call on a path the tool opened itself.
std::string errnoText(int err);

// Writes bytes to stdout; false when stdout fails.
bool writeOut(std::string_view bytes);
// The last fault reportError was given ("subject: what"), and whether writeOut wrote.
std::string tool_LastFault();
bool tool_WroteOut();

// Whole file into *bytes; on failure reports it and returns false.
bool readWholeFile(const std::string& path, std::string* bytes);
// Creates or truncates path and writes bytes; on failure reports it and returns false.
bool writeWholeFile(const std::string& path, std::string_view bytes);

// True when the file on fd begins with the TNEF signature; otherwise reports, as the library
// would (102/1531), and returns false. For the entries that read a file without checking.
bool checkTnefSignature(int fd, const std::string& path);

// The message id a command-line operand names: the id itself or the path of the message's
// folder (its last component).
std::string messageId(const std::string& operand);
// Message ids are sixteen lower-case hexadecimal digits; nothing else names a message
// folder (and so nothing can name a folder outside the store).
bool isMessageId(const std::string& id);

// Creates dir and every missing folder above it; false (errno set) on failure.
bool makeFolders(const std::string& dir);
// path made absolute against the current folder (reports name files wherever they are read).
std::string absolutePath(const std::string& path);

// Opens a TNEF input for reading; on failure reports it (naming path), puts the fault in
// *error when given, and returns -1. A folder is refused. "-" is standard input, spooled to
// a temporary file without a name when it cannot seek (a pipe).
int openInput(const std::string& path, std::string* error = nullptr);
// The path an entry that opens files by name reads an input at: the operand, or for "-"
// the open descriptor's own name under /proc.
std::string inputPath(const std::string& operand, int fd);

// Bytes as readable text: printable ASCII as it stands, a backslash doubled, every other
// byte as \xNN.
std::string readableBytes(std::string_view bytes);

// UTF-8 text as readable text: as it stands but for control bytes (\xNN) and backslashes
// (doubled).
std::string readableText(std::string_view text);

// What a damage flag means to a reader of the tool's warnings.
struct FlagText {
    uint32_t flag;
    const char* text;
};

// The texts of the flags set, in the table's order.
template <size_t N>
std::vector<std::string> flagTexts(uint32_t flags, const FlagText (&table)[N]) {
    std::vector<std::string> out;
    for (const FlagText& f : table)
        if (flags & f.flag) out.emplace_back(f.text);
    return out;
}

// Usage text helpers: each subcommand prints its own.
int printHelp(std::string_view text);
int usageError(const std::string& command, std::string_view what);

// The subcommands. Each returns the process's exit status.
int cmdList(const GlobalOptions& g, const std::vector<std::string>& args);
int cmdExtract(const GlobalOptions& g, const std::vector<std::string>& args);
int cmdDecode(const GlobalOptions& g, const std::vector<std::string>& args);
int cmdShow(const GlobalOptions& g, const std::vector<std::string>& args);
int cmdGetprop(const GlobalOptions& g, const std::vector<std::string>& args);
int cmdWriteblob(const GlobalOptions& g, const std::vector<std::string>& args);
int cmdScan(const GlobalOptions& g, const std::vector<std::string>& args);
int cmdEncode(const GlobalOptions& g, const std::vector<std::string>& args);
int cmdProps(const GlobalOptions& g, const std::vector<std::string>& args);
int cmdBody(const GlobalOptions& g, const std::vector<std::string>& args);
int cmdRtf(const GlobalOptions& g, const std::vector<std::string>& args);
int cmdStore(const GlobalOptions& g, const std::vector<std::string>& args);
