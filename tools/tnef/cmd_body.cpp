// body and rtf: a message's body as people read it (its HTML or text, or the RTF it carries
// compressed), and the RTF of a file that holds a compressed RTF value or RTF itself.

#include <fcntl.h>
#include <unistd.h>

#include <nlohmann/json.hpp>

#include <string>
#include <vector>

#include "tnef/platform/er_escape.h"
#include "tnef/tnef_body.h"
#include "tool.h"

namespace {

constexpr FlagText kRtfDamage[] = {
    {TNEF_RTF_BAD_CRC, "the compressed RTF's checksum is wrong"},
    {TNEF_RTF_CUT, "the compressed RTF is cut short"},
    {TNEF_RTF_SIZE_DIFFERS, "the RTF's size differs from the size its header gives"},
    {TNEF_RTF_TOO_LONG, "the RTF is longer than the reader's limit; the rest is left out"},
};

bool kindOf(const std::string& format, TnefBodyKind* kind) {
    static constexpr struct { const char* name; TnefBodyKind kind; } kFormats[] = {
        {"best", TNEF_BODY_NONE}, {"html", TNEF_BODY_HTML}, {"text", TNEF_BODY_TEXT}, {"rtf", TNEF_BODY_RTF}};
    for (const auto& f : kFormats)
        if (format == f.name) {
            *kind = f.kind;
            return true;
        }
    return false;
}

// The stream's damage and the compressed RTF's, together.
std::vector<std::string> bodyWarnings(uint32_t readFlags, uint32_t rtfFlags) {
    std::vector<std::string> warnings = readWarnings(readFlags);
    for (std::string& w : flagTexts(rtfFlags, kRtfDamage)) warnings.push_back(std::move(w));
    return warnings;
}

const char* kindName(TnefBodyKind kind) {
    switch (kind) {
        case TNEF_BODY_HTML: return "html";
        case TNEF_BODY_TEXT: return "text";
        case TNEF_BODY_RTF: return "rtf";
        default: return "none";
    }
}

// The body to OUT or stdout, and the report; the exit status.
int deliver(const GlobalOptions& g, const ParsedArgs& p, const std::string& file, const std::string& bytes,
            nlohmann::json report, const std::vector<std::string>& warnings) {
    if (!passWarnings(g, file, warnings)) return kExitError;
    const bool toFile = p.has("-o");
    if (toFile && !writeWholeFile(p.get("-o"), bytes)) return kExitError;
    if (!g.json) return toFile || writeOut(bytes) ? kExitOk : kExitError;
    report["bytes"] = bytes.size();
    report["output"] = toFile ? nlohmann::json(p.get("-o")) : nlohmann::json();
    report["warnings"] = warnings;
    return writeOut(report.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) + "\n") ? kExitOk
                                                                                                  : kExitError;
}

// Where a streamed body goes: OUT, made on the first piece (so that no body makes no file),
// or standard output.
struct BodyOutput {
    std::string path;  // empty: standard output
    int fd = -1;
    bool failed = false;
    uint64_t bytes = 0;

    bool open() {
        if (path.empty() || fd >= 0 || failed) return !failed;
        fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
        if (fd < 0) fail(errno);
        return fd >= 0;
    }
    void fail(int err) {
        reportError(path, errnoText(err));
        failed = true;
    }
    static void write(void* context, const char* bytes, size_t n) {
        BodyOutput& o = *static_cast<BodyOutput*>(context);
        if (!o.open()) return;
        o.bytes += n;
        if (o.path.empty()) {
            o.failed = !writeOut(std::string_view(bytes, n));
            return;
        }
        while (n > 0 && !o.failed) {
            const ssize_t w = ::write(o.fd, bytes, n);
            if (w < 0 && errno == EINTR) continue;
            if (w < 0) return o.fail(errno);
            bytes += w;
            n -= static_cast<size_t>(w);
        }
    }
    // Closes OUT (made now when the body is empty); false when anything failed.
    bool finish() {
        open();
        if (fd >= 0 && ::close(fd) != 0 && !failed) fail(errno);
        fd = -1;
        return !failed;
    }
};

// The report of a streamed body, once it is written; the exit status.
int reportStreamed(const GlobalOptions& g, const ParsedArgs& p, const std::string& file, BodyOutput& out,
                   nlohmann::json report, const std::vector<std::string>& warnings) {
    const bool ok = out.finish();
    for (const std::string& w : warnings) reportError(file, "warning: " + w);
    if (!ok) return kExitError;
    if (!g.json) return kExitOk;
    report["bytes"] = out.bytes;
    report["output"] = p.has("-o") ? nlohmann::json(p.get("-o")) : nlohmann::json();
    report["warnings"] = warnings;
    return writeOut(report.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) + "\n") ? kExitOk
                                                                                                  : kExitError;
}

int failed(const GlobalOptions& g, const std::string& file, const Escape& e) {
    if (g.json) writeOut(nlohmann::json({{"file", file}, {"error", escapeLine(e)}}).dump() + "\n");
    reportEscape(file, e);
    return kExitError;
}

int cmdBody(const GlobalOptions& g, const ParsedArgs& p) {
    TnefBodyKind want = TNEF_BODY_NONE;
    if (!kindOf(p.get("--format", "best"), &want)) return usageError("body", "--format is best, html, text or rtf");
    if (g.json && !p.has("-o")) return usageError("body", "--json needs -o OUT for the body");
    const std::string& file = p.operands[0];
    const int fd = openInput(file);
    if (fd < 0) return kExitError;
    try {
        TnefMessageView view;
        tnef_ReadMessage(fd, &view);
        // --strict weighs every warning, the compressed RTF's too, before writing: the body is
        // read whole first. Otherwise it streams, in memory that does not grow with it.
        BodyOutput out{p.get("-o")};
        const TnefBody body = g.strict ? tnef_MessageBody(fd, view, want)
                                       : tnef_WriteMessageBody(fd, view, want, TnefByteSink{BodyOutput::write, &out});
        ::close(fd);
        if (body.kind == TNEF_BODY_NONE) {
            if (g.json) writeOut(nlohmann::json({{"file", file}, {"kind", "none"}}).dump() + "\n");
            return kExitNotFound;
        }
        const nlohmann::json report = {{"file", file}, {"kind", kindName(body.kind)}, {"source", body.source}};
        if (g.strict) return deliver(g, p, file, body.text, report, bodyWarnings(view.flags, body.rtfFlags));
        return reportStreamed(g, p, file, out, report, bodyWarnings(view.flags, body.rtfFlags));
    } catch (const Escape& e) {
        ::close(fd);
        return failed(g, file, e);
    }
}

int cmdRtf(const GlobalOptions& g, const ParsedArgs& p) {
    const std::string format = p.get("--format", "rtf");
    if (format != "rtf" && format != "html" && format != "text")
        return usageError("rtf", "--format is rtf, html or text");
    const std::string& file = p.operands[0];
    std::string bytes;
    if (!readWholeFile(file, &bytes)) return kExitError;
    uint32_t flags = 0;
    std::string rtf = bytes;
    if (bytes.rfind("{\\rtf", 0) != 0) {
        const TnefRtfStatus s = tnef_DecompressRtf(bytes.data(), bytes.size(), &rtf, &flags);
        if (s != TNEF_RTF_OK) {
            reportError(file, s == TNEF_RTF_TOO_SHORT ? "too short for a compressed RTF header"
                                                      : "neither RTF nor compressed RTF (LZFu or MELA)");
            if (g.json) writeOut(nlohmann::json({{"file", file}, {"error", "not compressed RTF"}}).dump() + "\n");
            return kExitError;
        }
    }
    nlohmann::json report = {{"file", file}, {"kind", format}};
    if (format == "rtf") return deliver(g, p, file, rtf, report, flagTexts(flags, kRtfDamage));
    const TnefDeencapsulated d = tnef_DeencapsulateRtf(rtf);
    if (format == "html" && d.kind != TNEF_BODY_HTML) {
        reportError(file, "the RTF encapsulates no HTML");
        return kExitNotFound;
    }
    report["encapsulated"] = d.encapsulated;
    return deliver(g, p, file, d.text, report, flagTexts(flags, kRtfDamage));
}

}  // namespace

const CommandSpec kBodyCommand = {
    "body", "FILE", 1, 1,
    "the message's body: HTML, text or RTF",
    "Writes the message's body: best (the default) is its HTML when it has any, else its text;\n"
    "html, text and rtf ask for that kind. HTML and text are UTF-8; HTML encapsulated in the\n"
    "compressed RTF is given back as the client wrote it. Exit status 1 when the message has no\n"
    "body of that kind.\n"
    "\n"
    "With --json: {\"file\",\"kind\",\"source\",\"bytes\",\"output\",\"warnings\"}; the body goes to OUT\n"
    "(required with --json).",
    {
        {"--format", "best|html|text|rtf", "the kind of body to write"},
        {"-o", "OUT", "write the body to OUT instead of standard output"},
    },
    cmdBody,
};

const CommandSpec kRtfCommand = {
    "rtf", "FILE", 1, 1,
    "RTF out of a compressed RTF value, and what it encapsulates",
    "Reads a file that holds a compressed RTF value (PR_RTF_COMPRESSED, LZFu or MELA) or RTF\n"
    "itself, and writes the RTF, or the HTML or text encapsulated in it (else its plain text).\n"
    "\n"
    "With --json: {\"file\",\"kind\",\"encapsulated\",\"bytes\",\"output\",\"warnings\"}.",
    {
        {"--format", "rtf|html|text", "what to write"},
        {"-o", "OUT", "write to OUT instead of standard output"},
    },
    cmdRtf,
};
