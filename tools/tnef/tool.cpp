#include "tool.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "tnef/platform/er_escape.h"
#include "tnef/tnef_reader.h"

bool ParsedArgs::has(std::string_view name) const {
    for (const auto& [n, v] : options)
        if (n == name) return true;
    return false;
}

std::string ParsedArgs::get(std::string_view name, std::string_view fallback) const {
    std::string value(fallback);
    for (const auto& [n, v] : options)
        if (n == name) value = v;
    return value;
}

namespace {
// What the run has said: the last fault reported, and whether stdout got anything, so that
// a --json run that failed before writing its report still writes a JSON document.
std::string lastFault;
bool wroteOut = false;
}  // namespace

std::string tool_LastFault() { return lastFault; }
bool tool_WroteOut() { return wroteOut; }

void reportError(std::string_view subject, std::string_view what) {
    lastFault = subject.empty() ? std::string(what) : std::string(subject) + ": " + std::string(what);
    std::string line = std::string(kToolName) + ": ";
    if (!subject.empty()) {
        line += subject;
        line += ": ";
    }
    line += what;
    line += '\n';
    std::fputs(line.c_str(), stderr);
}

std::string escapeText(const Escape& e) {
    if (e.group == ER_GROUP_TNEF && e.reason == ER_TNEF_BAD_SIGNATURE) return "not a TNEF stream";
    if (e.group == ER_GROUP_TNEF && e.reason == ER_TNEF_TOO_LONG)
        return "data longer than the buffer it is read into";
    std::string text;
    if (e.group == ER_GROUP_IO)
        text = std::strerror(e.reason);
    else if (e.group == 103)
        text = "message store error";
    else
        text = "error";
    if (!e.detail.empty()) text += " (" + e.detail + ")";
    return text;
}

std::string escapeLine(const Escape& e) {
    return escapeText(e) + " (escape " + std::to_string(e.group) + "/" + std::to_string(e.reason) +
           ")";
}

void reportEscape(std::string_view subject, const Escape& e) {
    reportError(subject, escapeLine(e));
}

std::string errnoText(int err) {
    return std::strerror(err);
}

bool writeOut(std::string_view bytes) {
    if (bytes.empty()) return true;
    wroteOut = true;
    errno = 0;
    const bool ok = std::fwrite(bytes.data(), 1, bytes.size(), stdout) == bytes.size() &&
                    std::fflush(stdout) == 0;
    // A closed or full standard output is said once, on stderr.
    static bool said = false;
    if (!ok && !said) {
        said = true;
        reportError("standard output", errno != 0 ? errnoText(errno) : "cannot be written");
    }
    return ok;
}

bool readWholeFile(const std::string& path, std::string* bytes) {
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        reportError(path, errnoText(errno));
        return false;
    }
    bytes->clear();
    char buffer[65536];
    for (;;) {
        const ssize_t n = ::read(fd, buffer, sizeof buffer);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) {
            reportError(path, errnoText(errno));
            ::close(fd);
            return false;
        }
        if (n == 0) break;
        bytes->append(buffer, static_cast<size_t>(n));
    }
    ::close(fd);
    return true;
}

bool writeWholeFile(const std::string& path, std::string_view bytes) {
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    if (fd < 0) {
        reportError(path, errnoText(errno));
        return false;
    }
    size_t done = 0;
    while (done < bytes.size()) {
        const ssize_t n = ::write(fd, bytes.data() + done, bytes.size() - done);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) {
            reportError(path, errnoText(errno));
            ::close(fd);
            return false;
        }
        done += static_cast<size_t>(n);
    }
    if (::close(fd) != 0) {
        reportError(path, errnoText(errno));
        return false;
    }
    return true;
}

namespace {

// Standard input as a file the reader can seek in: itself when it is a regular file, else
// its bytes copied into a temporary file that has no name (so nothing is left behind).
int stdinInput(int* err) {
    struct stat st {};
    if (::fstat(STDIN_FILENO, &st) == 0 && S_ISREG(st.st_mode)) return ::fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 0);
    const char* tmp = std::getenv("TMPDIR");
    const int fd = ::open(tmp != nullptr && *tmp != '\0' ? tmp : "/tmp", O_TMPFILE | O_RDWR | O_CLOEXEC, 0600);
    if (fd < 0) {
        *err = errno;
        return -1;
    }
    std::array<char, 65536> chunk;
    for (;;) {
        const ssize_t n = ::read(STDIN_FILENO, chunk.data(), chunk.size());
        if (n < 0 && errno == EINTR) continue;
        if (n < 0 || (n > 0 && ::write(fd, chunk.data(), static_cast<size_t>(n)) != n)) {
            *err = errno;
            ::close(fd);
            return -1;
        }
        if (n == 0) break;
    }
    ::lseek(fd, 0, SEEK_SET);
    return fd;
}

}  // namespace

std::string inputPath(const std::string& operand, int fd) {
    return operand == "-" ? "/proc/self/fd/" + std::to_string(fd) : operand;
}

int openInput(const std::string& path, std::string* error) {
    int stdinErr = 0;
    const int fd = path == "-" ? stdinInput(&stdinErr) : ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0 && stdinErr != 0) errno = stdinErr;
    int err = fd < 0 ? errno : 0;
    struct stat st {};
    if (fd >= 0 && ::fstat(fd, &st) == 0 && S_ISDIR(st.st_mode)) {
        ::close(fd);
        err = EISDIR;
    }
    if (err == 0) return fd;
    reportError(path, errnoText(err));
    if (error != nullptr) *error = errnoText(err);
    return -1;
}

namespace {

std::string readable(std::string_view bytes, bool keepHighBytes) {
    std::string out;
    out.reserve(bytes.size());
    for (unsigned char c : bytes) {
        if (c == '\\') {
            out += "\\\\";
        } else if ((c >= 0x20 && c < 0x7F) || (keepHighBytes && c >= 0x80)) {
            out += static_cast<char>(c);
        } else {
            char hex[5];
            std::snprintf(hex, sizeof hex, "\\x%02x", c);
            out += hex;
        }
    }
    return out;
}

}  // namespace

std::string readableBytes(std::string_view bytes) {
    return readable(bytes, false);
}
std::string readableText(std::string_view text) {
    return readable(text, true);
}

int usageError(const std::string& command, std::string_view what) {
    const std::string tool = kToolName;
    const std::string help = command.empty() ? tool + " --help" : tool + " " + command + " --help";
    reportError(command, std::string(what) + " (see '" + help + "')");
    return kExitError;
}

bool makeFolders(const std::string& dir) {
    size_t at = 0;
    while (at != std::string::npos) {
        at = dir.find('/', at + 1);
        const std::string sofar = dir.substr(0, at);
        if (::mkdir(sofar.c_str(), 0777) != 0 && errno != EEXIST) return false;
    }
    return true;
}

std::string absolutePath(const std::string& path) {
    if (path.empty() || path[0] == '/') return path;
    char cwd[4096];
    if (::getcwd(cwd, sizeof cwd) == nullptr) return path;
    std::string base = cwd;
    std::string rest = path;
    while (rest.rfind("./", 0) == 0) rest.erase(0, 2);
    return base == "/" ? "/" + rest : base + "/" + rest;
}

bool checkTnefSignature(int fd, const std::string& path) {
    constexpr unsigned char kSignature[4] = {0x78, 0x9F, 0x3E, 0x22};
    unsigned char head[4] = {};
    const ssize_t n = ::pread(fd, head, sizeof head, 0);
    if (n == static_cast<ssize_t>(sizeof head) && std::memcmp(head, kSignature, sizeof head) == 0)
        return true;
    if (n < 0)
        reportError(path, errnoText(errno));
    else
        reportError(path, "not a TNEF stream (escape 102/1531)");
    return false;
}

std::string messageId(const std::string& operand) {
    std::string id = operand;
    while (id.size() > 1 && id.back() == '/') id.pop_back();
    const size_t slash = id.rfind('/');
    return slash == std::string::npos ? id : id.substr(slash + 1);
}

bool isMessageId(const std::string& id) {
    constexpr size_t kIdLength = 16;
    if (id.size() != kIdLength) return false;
    for (char c : id)
        if (!std::isdigit(static_cast<unsigned char>(c)) && (c < 'a' || c > 'f')) return false;
    return true;
}

namespace {

constexpr FlagText kReadDamage[] = {
    {TNEF_READ_TRUNCATED, "the file ends inside a record"},
    {TNEF_READ_BAD_CHECKSUM, "a record's checksum is wrong"},
    {TNEF_READ_TRAILING, "bytes too few for a record follow the last record"},
    {TNEF_READ_NO_RECORDS, "the file holds no record"},
    {TNEF_READ_COUNT_BEYOND, "a count announces more than the data holds"},
    {TNEF_READ_BAD_PROPS, "a property list could not be read to its end"},
    {TNEF_READ_TOO_DEEP, "embedded messages nested too deep were not read"},
    {TNEF_READ_TOO_MANY, "too many values: the rest were not read"},
};

}  // namespace

std::vector<std::string> readWarnings(uint32_t readFlags) {
    return flagTexts(readFlags, kReadDamage);
}

uint32_t recordFlags(int fd) {
    TnefRecordCursor records;
    tnef_OpenRecords(&records, fd);
    TnefRecord record;
    while (tnef_NextRecord(&records, &record)) {
    }
    return records.flags;
}

bool passWarnings(const GlobalOptions& g, const std::string& file, const std::vector<std::string>& warnings) {
    for (const std::string& w : warnings) reportError(file, "warning: " + w);
    if (!g.strict || warnings.empty()) return true;
    reportError(file, "--strict: stopped on " + std::to_string(warnings.size()) +
                          (warnings.size() == 1 ? " warning" : " warnings") + "; nothing written");
    return false;
}

bool weighStream(const GlobalOptions& g, int fd, const std::string& file, std::vector<std::string>* warnings) {
    try {
        *warnings = readWarnings(recordFlags(fd));
    } catch (const Escape& e) {
        reportEscape(file, e);
        return false;
    }
    return passWarnings(g, file, *warnings);
}
