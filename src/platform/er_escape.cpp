#include "tnef/platform/er_escape.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>

#include "tnef/platform/os_file.h"

namespace {

int severityFor(int group, int reason) {
    if (group == ER_GROUP_IO && reason == ENOMEM) return ER_SEVERITY_EXHAUSTED;
    return ER_SEVERITY_ERROR;
}

std::string describe(int group, int reason, const char* source, int line,
                     const std::string& detail) {
    std::string text = "escape " + std::to_string(group) + "/" + std::to_string(reason);
    if (group == ER_GROUP_TNEF && reason == ER_TNEF_TOO_LONG)
        text += " (data longer than its buffer)";
    else if (group == ER_GROUP_TNEF && reason == ER_TNEF_BAD_SIGNATURE)
        text += " (not a TNEF stream)";
    else if (group == ER_GROUP_IO)
        text += std::string(" (") + std::strerror(reason) + ")";
    if (!detail.empty()) text += ": " + detail;
    text += " [" + std::string(source ? source : "?") + ":" + std::to_string(line) + "]";
    return text;
}

// Tracing state, decided once per process from TNEF_TRACE.
enum class TraceMode { Unknown, Off, On };
TraceMode g_traceMode = TraceMode::Unknown;
FILE* g_traceFile = nullptr;

void decideTracing() {
    const char* v = std::getenv("TNEF_TRACE");
    if (v == nullptr || *v == '\0') {
        g_traceMode = TraceMode::Off;
        return;
    }
    g_traceMode = TraceMode::On;
    if (std::strcmp(v, "1") == 0 || std::strcmp(v, "stderr") == 0) {
        g_traceFile = stderr;
    } else {
        g_traceFile = std::fopen(v, "a");
        if (g_traceFile == nullptr) g_traceFile = stderr;
    }
}

}  // namespace

Escape::Escape(int group_, int reason_, const char* source_, int line_, std::string detail_)
    : group(group_),
      reason(reason_),
      source(source_),
      line(line_),
      detail(std::move(detail_)),
      severity(severityFor(group_, reason_)),
      text_(describe(group_, reason_, source_, line_, detail)) {}

void er_TracedEscape(int group, int reason, const char* source, int line) {
    er_TracedEscapeText(group, reason, source, line, {});
}

void er_TracedEscapeText(int group, int reason, const char* source, int line,
                         std::string detail) {
    Escape e(group, reason, source, line, std::move(detail));
    if (er_TracingOn()) std::fprintf(g_traceFile, "escape: %s\n", e.what());
    throw e;
}

int er_GetGroup(const Escape& e) { return e.group; }
int er_GetReason(const Escape& e) { return e.reason; }

void er_Accept(Escape& e, int level) {
    if (e.severity <= level) e.accepted = true;
}

bool er_GetLive(const Escape& e) { return !e.accepted; }

void er_TraceBeforeJump(const char* source, int line) {
    if (er_TracingOn()) std::fprintf(g_traceFile, "rethrow: %s:%d\n", source, line);
}

bool er_TracingOn() {
    if (g_traceMode == TraceMode::Unknown) decideTracing();
    return g_traceMode == TraceMode::On;
}

void er_RealLogProc(int traceClass, const char* name, int entering) {
    if (!er_TracingOn()) return;
    std::fprintf(g_traceFile, "%s %d %s\n", entering ? ">" : "<", traceClass, name);
}

const char* er_CatalogueText(int group, int number) {
    struct Entry {
        int group;
        int number;
        const char* text;
    };
    static constexpr Entry catalogue[] = {
        {102, 1167, "TNEF: body part %s (type %s, name \"%s\") matched to an attachment"},
        {102, 1168, "TNEF: no unmatched body part carries the attachment name \"%s\""},
        {102, 1169, "TNEF: no further attachment in the object file for the body parts"},
        {100, 24070, "%s"},
    };
    for (const Entry& entry : catalogue)
        if (entry.group == group && entry.number == number) return entry.text;
    return nullptr;
}

namespace {

// Expands %s (and %d, taken as text) from the argument list; other bytes stand as they are.
// The null pointer ends the arguments: places after it stay empty and nothing past it is read.
std::string formatCatalogue(const char* text, va_list args) {
    std::string out;
    bool ended = false;
    for (const char* p = text; *p != '\0'; ++p) {
        if (p[0] == '%' && (p[1] == 's' || p[1] == 'd')) {
            const char* arg = ended ? nullptr : va_arg(args, const char*);
            if (arg == nullptr) ended = true;
            out += arg != nullptr ? arg : "";
            ++p;
        } else {
            out += *p;
        }
    }
    return out;
}

}  // namespace

void er_LogMsg(int level, int group, int number, ...) {
    va_list args;
    va_start(args, number);
    std::string line;
    if (const char* text = er_CatalogueText(group, number)) {
        line = formatCatalogue(text, args);
    } else {
        for (const char* arg = va_arg(args, const char*); arg != nullptr;
             arg = va_arg(args, const char*)) {
            if (!line.empty()) line += ' ';
            line += arg;
        }
    }
    va_end(args);
    while (!line.empty() && line.back() == '\n') line.pop_back();

    FILE* log = os_fopen("~/tmp/server.log", "a");
    if (log == nullptr) return;
    char stamp[32];
    std::time_t now = std::time(nullptr);
    std::strftime(stamp, sizeof stamp, "%Y-%m-%d %H:%M:%S", std::localtime(&now));
    std::fprintf(log, "%s L%d %d/%d %s\n", stamp, level, group, number, line.c_str());
    std::fclose(log);
}
