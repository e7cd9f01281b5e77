// Escapes: the platform's non-local error exits, as C++ exceptions.
//
// An escape carries a group, a reason, the source unit and line that raised it, and an
// optional detail text (a path, a length). A handler is a try/catch around the guarded
// work: it may read the group and reason, declare with er_Accept how far it tolerates the
// error, undo its partial output, and rethrow while er_GetLive says the escape is still live.
#pragma once

#include <cstdint>
#include <exception>
#include <string>

// Everything this header declares is part of the library's exported interface.
#pragma GCC visibility push(default)

// Groups raised by the platform and the codec.
inline constexpr int ER_GROUP_IO = 100;    // reason = errno of a failed file operation
inline constexpr int ER_GROUP_TNEF = 102;  // codec errors (bad or oversized input)

// Codec reasons.
inline constexpr int ER_TNEF_TOO_LONG = 1546;       // data longer than the buffer it goes into
inline constexpr int ER_TNEF_BAD_SIGNATURE = 1531;  // stream without the TNEF signature

// Severities: ordinary errors are accepted by a handler that accepts 5 or more; running
// out of memory is 9 and no handler in the codec accepts it.
inline constexpr int ER_SEVERITY_ERROR = 5;
inline constexpr int ER_SEVERITY_EXHAUSTED = 9;

class Escape : public std::exception {
public:
    Escape(int group, int reason, const char* source, int line, std::string detail = {});

    const char* what() const noexcept override { return text_.c_str(); }

    int group;
    int reason;
    const char* source;  // source unit, a string literal
    int line;
    std::string detail;
    int severity;
    bool accepted = false;

private:
    std::string text_;
};

// Raises an escape. Never returns.
[[noreturn]] void er_TracedEscape(int group, int reason, const char* source, int line);
// Raises an escape whose message names what failed (a path, a length).
[[noreturn]] void er_TracedEscapeText(int group, int reason, const char* source, int line,
                                      std::string detail);

int er_GetGroup(const Escape& e);
int er_GetReason(const Escape& e);

// Marks the escape accepted when its severity is at most level.
void er_Accept(Escape& e, int level);
// True while the escape has not been accepted: the handler must pass it on.
bool er_GetLive(const Escape& e);
// Traces a handler passing a live escape on to the next handler (the caller then rethrows).
void er_TraceBeforeJump(const char* source, int line);

// Entry/exit tracing: active only when the environment variable TNEF_TRACE is set when
// the process first traces ("1" or "stderr" traces to stderr, anything else names a file).
void er_RealLogProc(int traceClass, const char* name, int entering);
bool er_TracingOn();

// Traces entry on construction and exit on destruction, escape or not.
class ErTraceScope {
public:
    ErTraceScope(int traceClass, const char* name) : class_(traceClass), name_(name) {
        if (er_TracingOn()) er_RealLogProc(class_, name_, 1);
    }
    ~ErTraceScope() {
        if (er_TracingOn()) er_RealLogProc(class_, name_, 0);
    }
    ErTraceScope(const ErTraceScope&) = delete;
    ErTraceScope& operator=(const ErTraceScope&) = delete;

private:
    int class_;
    const char* name_;
};

// Writes one line to "~/tmp/server.log" from the built-in catalogue: level, group, number,
// then the message's text arguments (const char*), ended by a null pointer. A number that
// the catalogue does not hold is logged with its arguments as they stand.
void er_LogMsg(int level, int group, int number, ...);
// The catalogue text for group/number, or nullptr.
const char* er_CatalogueText(int group, int number);

#pragma GCC visibility pop
