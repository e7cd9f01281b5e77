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
    bool strict = false;  // a warning fails the run before anything is written
    bool quiet = false;   // no progress line
};

// The installed command's name: Debian's "tnef" package already has a /usr/bin/tnef.
inline constexpr const char* kToolName = "tnefx";

// A subcommand's command line after parsing: the options given (repeated ones in order) and
// the operands.
struct ParsedArgs {
    std::vector<std::pair<std::string, std::string>> options;
    std::vector<std::string> operands;

    bool has(std::string_view name) const;
    // The last value given for name, or fallback.
    std::string get(std::string_view name, std::string_view fallback = {}) const;
};

// One option a subcommand accepts: "--name" or "-n", with a value (named value) or a flag
// (value nullptr), and the line its help gives it.
struct OptionSpec {
    const char* name;
    const char* value;
    const char* help;
};

inline constexpr size_t kManyOperands = static_cast<size_t>(-1);

// A subcommand as the parser, its help and the man page know it; main.cpp declares each to
// CLI11 and calls run with what was parsed.
struct CommandSpec {
    const char* name;
    const char* operands;  // as the usage line shows them: "FILE...", "FILE [REQUEST]"
    size_t minOperands;
    size_t maxOperands;
    const char* summary;  // one line, for the command list
    const char* details;  // what it does and writes, after the options
    std::vector<OptionSpec> options;
    int (*run)(const GlobalOptions&, const ParsedArgs&);
};

// "tnefx: <subject>: <what>" on stderr, one line.
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

// What the reader's damage flags (TNEF_READ_) mean, as warnings.
std::vector<std::string> readWarnings(uint32_t readFlags);
// The damage flags of the records of the TNEF file on fd, from one pass over them (the
// checksums summed); escapes as tnef_OpenRecords.
uint32_t recordFlags(int fd);
// Reports each warning about file on stderr. With --strict a warning is an error: then it says
// so and returns false, and the command stops before it writes anything.
bool passWarnings(const GlobalOptions& g, const std::string& file, const std::vector<std::string>& warnings);

// recordFlags and passWarnings for a command that reads the file its own way: false when the
// file cannot be read (reported) or --strict stops on its warnings.
bool weighStream(const GlobalOptions& g, int fd, const std::string& file, std::vector<std::string>* warnings);

// A command-line fault: one line naming the command, and exit status 2.
int usageError(const std::string& command, std::string_view what);

// The subcommands.
extern const CommandSpec kListCommand, kExtractCommand, kDecodeCommand, kShowCommand,
    kGetpropCommand, kWriteblobCommand, kScanCommand, kEncodeCommand, kPropsCommand,
    kBodyCommand, kRtfCommand, kCalendarCommand, kContactCommand, kStoreCommand, kUnwrapCommand;
