// scan: the library's scan of a TNEF file, with its log (one line per attribute and
// property) sent to stdout, and the attachments it finds for the encoder.

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "json_writer.h"
#include "tnef/platform/er_escape.h"
#include "tnef/platform/os_file.h"
#include "tnef/tnef.h"
#include "tool.h"

namespace {

bool parseTag(const std::string& text, uint32_t* tag) {
    if (text.empty()) return false;
    char* end = nullptr;
    const unsigned long long v = std::strtoull(text.c_str(), &end, 16);
    if (*end != '\0' || v > 0xFFFFFFFFULL || text[0] == '-') return false;
    *tag = static_cast<uint32_t>(v);
    return true;
}

// The scan log goes wherever TraceF points while the scan runs; the library opens its own
// log file only when TraceF is null.
class ScanLogTo {
  public:
    explicit ScanLogTo(FILE* stream) { TraceF = stream; }
    ~ScanLogTo() { TraceF = nullptr; }
    ScanLogTo(const ScanLogTo&) = delete;
    ScanLogTo& operator=(const ScanLogTo&) = delete;
};

std::string nameOrDash(const char* name) {
    return name != nullptr ? readableBytes(name) : "-";
}

struct ScanResult {
    int found = 0;
    std::string log;  // the log, when it was collected
    TnefScanList list;
};

// Runs the scan with its log on stdout, or collected into result->log. False (reported) on
// an escape.
bool runScan(int fd, const std::string& path, uint32_t wanted, bool collect, ScanResult* result) {
    char* logText = nullptr;
    size_t logSize = 0;
    FILE* log = collect ? ::open_memstream(&logText, &logSize) : stdout;
    if (log == nullptr) {
        reportError(path, errnoText(errno));
        return false;
    }
    bool ok = true;
    try {
        ScanLogTo to(log);
        result->found = tnef_ScanTnef(fd, wanted, &result->list.head);
    } catch (const Escape& e) {
        reportEscape(path, e);
        ok = false;
    }
    std::fflush(stdout);
    if (collect) {
        std::fclose(log);
        result->log.assign(logText, logSize);
        std::free(logText);
    }
    return ok;
}

std::string jsonScan(const std::string& path, const ParsedArgs& p, uint32_t wanted,
                     const ScanResult& r, const std::vector<std::string>& warnings) {
    JsonWriter j;
    j.beginObject().field("file", path);
    if (p.has("--want"))
        j.field("want", static_cast<uint64_t>(wanted));
    else
        j.key("want").null();
    j.field("found", r.found == 1).key("log").beginArray();
    size_t from = 0;
    while (from < r.log.size()) {
        size_t nl = r.log.find('\n', from);
        if (nl == std::string::npos) nl = r.log.size();
        if (nl > from) j.value(readableText(r.log.substr(from, nl - from)));
        from = nl + 1;
    }
    j.endArray().key("attachments").beginArray();
    for (const TnefAttachScan* a = r.list.head; a != nullptr; a = a->next)
        j.beginObject()
            .field("long_file_name", a->longFileName != nullptr ? a->longFileName : "")
            .field("file_name", a->fileName != nullptr ? a->fileName : "")
            .field("has_data", a->hasData != 0)
            .endObject();
    j.endArray().key("warnings").beginArray();
    for (const std::string& w : warnings) j.value(w);
    j.endArray().endObject();
    return j.text();
}

std::string renderScan(const ParsedArgs& p, const ScanResult& r) {
    std::string out = "attachments:\n";
    for (const TnefAttachScan* a = r.list.head; a != nullptr; a = a->next)
        out += "  " + nameOrDash(a->longFileName) + "  file name " + nameOrDash(a->fileName) +
               (a->hasData != 0 ? "  data\n" : "  no data\n");
    if (p.has("--want")) out += r.found == 1 ? "found\n" : "not found\n";
    return out;
}

int cmdScan(const GlobalOptions& g, const ParsedArgs& p) {
    uint32_t wanted = 0;
    if (p.has("--want") && !parseTag(p.get("--want"), &wanted))
        return usageError("scan", "--want wants a hexadecimal tag, not '" + p.get("--want") + "'");
    const std::string& path = p.operands[0];
    const int fd = openInput(path);
    if (fd < 0) return kExitError;
    ScanResult r;
    std::vector<std::string> warnings;
    const bool ok = checkTnefSignature(fd, path) && weighStream(g, fd, path, &warnings) &&
                    runScan(fd, path, wanted, g.json, &r);
    ::close(fd);
    if (!ok) return kExitError;
    if (!writeOut(g.json ? jsonScan(path, p, wanted, r, warnings) : renderScan(p, r))) return kExitError;
    return !p.has("--want") || r.found == 1 ? kExitOk : kExitNotFound;
}

}  // namespace

const CommandSpec kScanCommand = {
    "scan", "FILE", 1, 1,
    "walk a TNEF file attribute by attribute",
    "Walks a TNEF file attribute by attribute as the encoder's scan does, printing a line per\n"
    "attribute and property (the wanted one marked '*'), then the attachments found: their long\n"
    "file name, file name and whether they carry data. Exit status 0 when TAG was found (or none\n"
    "was asked for), 1 when not.\n"
    "\n"
    "With --json: {\"file\",\"want\",\"found\",\"log\":[lines],\"attachments\":[{\"long_file_name\",\n"
    "\"file_name\",\"has_data\"}]}.",
    {
        {"--want", "TAG", "an attribute id or property tag in hexadecimal (0x0037001e or 37001e) to look for"},
    },
    cmdScan,
};
