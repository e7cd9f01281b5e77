// unwrap: a whole mail in, the same mail out with its TNEF parts replaced by what they hold.
// Made to run as a mail filter, so a mail is never held back for what is wrong inside it.

#include <fcntl.h>
#include <unistd.h>

#include <nlohmann/json.hpp>

#include <string>

#include "tnef/platform/er_escape.h"
#include "tnef/tnef_unwrap.h"
#include "tool.h"

namespace {

// What a mail server reads as "try again later" (EX_TEMPFAIL).
constexpr int kExitTempFail = 75;

bool readInput(const std::string& file, std::string* mail) {
    if (file != "-") return readWholeFile(file, mail);
    char buffer[65536];
    for (;;) {
        const ssize_t n = ::read(STDIN_FILENO, buffer, sizeof buffer);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) {
            reportError("standard input", errnoText(errno));
            return false;
        }
        if (n == 0) return true;
        mail->append(buffer, static_cast<size_t>(n));
    }
}

const char* statusName(TnefUnwrapStatus s) {
    switch (s) {
        case TNEF_UNWRAP_CONVERTED: return "converted";
        case TNEF_UNWRAP_FAILED: return "failed";
        default: return "unchanged";
    }
}

int cmdUnwrap(const GlobalOptions& g, const ParsedArgs& p) {
    const std::string onError = p.get("--on-error", "keep");
    if (onError != "keep" && onError != "tempfail") return usageError("unwrap", "--on-error is keep or tempfail");
    if (g.json && !p.has("-o")) return usageError("unwrap", "--json needs -o OUT for the mail");
    const std::string file = p.operands.empty() ? "-" : p.operands[0];
    std::string mail;
    if (!readInput(file, &mail)) return kExitError;

    std::string out;
    const TnefUnwrapResult r = tnef_UnwrapBytes(mail, &out);
    if (!passWarnings(g, file, r.warnings)) return kExitError;
    const bool written = p.has("-o") ? writeWholeFile(p.get("-o"), out) : writeOut(out);
    if (!written) return kExitError;
    if (g.json) {
        const nlohmann::json report = {{"file", file},         {"status", statusName(r.status)},
                                       {"tnef_parts", r.tnefParts}, {"converted", r.converted},
                                       {"kept", r.kept},       {"parts", r.parts},
                                       {"output", p.get("-o")}, {"warnings", r.warnings}};
        if (!writeOut(report.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) + "\n")) return kExitError;
    }
    if (r.status == TNEF_UNWRAP_FAILED && onError == "tempfail") return kExitTempFail;
    return kExitOk;
}

}  // namespace

const CommandSpec kUnwrapCommand = {
    "unwrap", "[IN]", 0, 1,
    "a whole mail with its TNEF parts (winmail.dat) replaced by real MIME parts",
    "Reads a mail (IN, or standard input when IN is '-' or absent) and writes it with every\n"
    "application/ms-tnef part (or winmail.dat sent with a generic type) replaced by what it\n"
    "holds: its attachments, embedded messages as message/rfc822, a meeting or task as\n"
    "text/calendar, a contact as text/vcard, and its body as text/plain and text/html when the\n"
    "mail shows none of its own. Every other part and header is written as it came, and a\n"
    "header X-TNEF-Unwrapped says what was converted; a mail without TNEF is written back\n"
    "byte for byte. A TNEF part that cannot be read, or lies inside a signed part, is kept as\n"
    "it was; a damaged one is converted as far as it reads and kept beside what it gave. Each\n"
    "is a warning. A mail that is not MIME at all is written back unchanged, with exit status\n"
    "0, or 75 (a mail server's \"try again later\") with --on-error tempfail.\n"
    "\n"
    "With --json: {\"file\",\"status\",\"tnef_parts\",\"converted\",\"kept\",\"parts\",\"output\",\n"
    "\"warnings\"}; the mail goes to OUT (required with --json).",
    {
        {"-o", "OUT", "write the mail to OUT instead of standard output"},
        {"--on-error", "keep|tempfail", "when the mail cannot be read as MIME: exit 0 (keep, the default) or 75"},
    },
    cmdUnwrap,
};
