// list and extract: the attachments of TNEF files, read straight from the files with the
// library's attachment reader (no message store involved).

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <chrono>
#include <deque>
#include <set>
#include <string>
#include <vector>

#include "converted.h"
#include "json_writer.h"
#include "names.h"
#include "tnef/platform/er_escape.h"
#include "tnef/tnef_attachments.h"
#include "tnef/tnef_body.h"
#include "tool.h"

namespace {

// A message body written beside the attachments is listed as an attachment of kind "body".
inline constexpr uint32_t kKindBody = 100;
// So is a calendar or card made of the message, of kind "converted".
inline constexpr uint32_t kKindConverted = 101;

const char* kindName(uint32_t kind) {
    if (kind == kKindBody) return "body";
    if (kind == kKindConverted) return "converted";
    return attachKindName(kind);
}

const char* sourceName(uint32_t source) {
    switch (source) {
        case TNEF_DATA_ATTACH_DATA:
            return "attAttachData";
        case TNEF_DATA_BIN:
            return "PR_ATTACH_DATA_BIN";
        case TNEF_DATA_OBJ:
            return "PR_ATTACH_DATA_OBJ";
        default:
            return "none";
    }
}


// What is odd about a file, for the report.
std::vector<std::string> warningsOf(const TnefAttachList& list) {
    std::vector<std::string> w;
    if (list.flags & TNEF_LIST_TRUNCATED) w.push_back("the stream ends inside a record");
    if (list.flags & TNEF_LIST_NO_RECORDS) w.push_back("the file holds no record");
    if (list.flags & TNEF_LIST_BAD_CHECKSUM) w.push_back("a record's checksum is wrong");
    if (list.flags & TNEF_LIST_TRAILING) w.push_back("bytes too few for a record follow the last record");
    if (list.flags & TNEF_LIST_BAD_PROPS)
        w.push_back("an attachment's properties could not be read to the end");
    if (list.flags & TNEF_LIST_TOO_MANY)
        w.push_back("too many attachments; the rest are not listed");
    for (const TnefAttachInfo& a : list.attachments)
        if (a.flags & TNEF_ATTACH_TOO_DEEP)
            w.push_back("attachment " + std::to_string(a.index) +
                        ": embedded messages nested too deep; not listed inside");
    return w;
}

// Opens and lists path (standard input read once already is reopened at spooled); on
// failure reports it, sets *error and returns false.
bool listFile(const std::string& path, int* fd, TnefAttachList* list, std::string* error, int spooled = -1) {
    *fd = path == "-" && spooled >= 0 ? ::dup(spooled) : openInput(path, error);
    if (*fd < 0) return false;
    try {
        tnef_ListAttachments(*fd, list);
        return true;
    } catch (const Escape& e) {
        *error = escapeLine(e);
        reportError(path, *error);
    }
    ::close(*fd);
    *fd = -1;
    return false;
}

// ---- list ----------------------------------------------------------------------------------

// The bodies a message can have, as extract --body writes them.
struct BodyKind {
    TnefBodyKind kind;
    const char* kindName;
    const char* name;
    const char* type;
};
constexpr BodyKind kBodies[] = {{TNEF_BODY_HTML, "html", "message.html", "text/html"},
                                {TNEF_BODY_TEXT, "text", "message.txt", "text/plain"},
                                {TNEF_BODY_RTF, "rtf", "message.rtf", "application/rtf"}};

struct FoundBody {
    const BodyKind* kind;
    TnefBody body;
    std::string name;  // message.html; message-2.html for the second embedded message
};

// Each body of the message in view (and, with embedded, of every message embedded in it,
// depth first), in the table's order.
void collectBodies(int fd, const TnefMessageView& view, bool embedded, size_t* messages,
                   std::vector<FoundBody>* found) {
    const std::string suffix = *messages == 0 ? "" : "-" + std::to_string(*messages + 1);
    ++*messages;
    for (const BodyKind& b : kBodies) {
        TnefBody body = tnef_MessageBody(fd, view, b.kind);
        if (body.kind == TNEF_BODY_NONE) continue;
        std::string name = b.name;
        name.insert(name.find('.'), suffix);
        found->push_back({&b, std::move(body), std::move(name)});
    }
    if (embedded)
        for (const TnefMessageView& inner : view.embedded) collectBodies(fd, inner, true, messages, found);
}

// The bodies of the TNEF file on fd: its message's, and with embedded those of the messages
// inside it. Escapes as the reader's.
std::vector<FoundBody> bodiesOf(int fd, bool embedded = false) {
    TnefMessageView view;
    tnef_ReadMessage(fd, &view);
    std::vector<FoundBody> found;
    size_t messages = 0;
    collectBodies(fd, view, embedded, &messages, &found);
    return found;
}

std::string bodyLine(const FoundBody& f) {
    char head[64];
    std::snprintf(head, sizeof head, "%4u  %-7s %10zu  ", 0u, "body", f.body.text.size());
    std::string line = head + std::string(f.kind->type);
    line.resize(std::max<size_t>(line.size() + 2, 60), ' ');
    return line + f.name + "  (" + f.body.source + ")\n";
}

std::string listLine(const TnefAttachInfo& a) {
    char head[64];
    std::snprintf(head, sizeof head, "%4u  %-7s %10" PRIu64 "  ", a.index, kindName(a.kind),
                  a.dataLength);
    std::string line = head + attachType(a);
    line.resize(std::max<size_t>(line.size() + 2, 60), ' ');
    line += std::string(2 * a.depth, ' ') + readableText(attachName(a));
    if (a.flags & TNEF_ATTACH_DATA_CUT) line += "  [cut short]";
    return line + '\n';
}

void jsonAttachment(JsonWriter& j, const TnefAttachInfo& a) {
    j.beginObject()
        .field("index", a.index)
        .field("parent", a.parent)
        .field("depth", a.depth)
        .field("kind", kindName(a.kind))
        .field("name", attachName(a))
        .field("size", a.dataLength)
        .field("offset", a.dataOffset)
        .field("type", attachType(a))
        .field("source", sourceName(a.source))
        .field("method", a.method)
        .field("modified", a.modified)
        .field("data_cut", (a.flags & TNEF_ATTACH_DATA_CUT) != 0)
        .field("content_id", a.contentId);
    j.key("names")
        .beginObject()
        .field("long_file_name", a.longFileName)
        .field("file_name", a.fileName)
        .field("transport_name", a.transportName)
        .field("title", a.title)
        .field("display_name", a.displayName)
        .endObject();
    j.endObject();
}

void jsonList(JsonWriter& j, const std::string& path, const TnefAttachList& list,
              const std::vector<std::string>& warnings, const std::vector<FoundBody>& bodies) {
    j.beginObject()
        .field("file", path)
        .field("subject", list.subject)
        .field("message_class", list.messageClass)
        .field("code_page", list.codePage)
        .field("truncated", (list.flags & TNEF_LIST_TRUNCATED) != 0)
        .field("trailing_bytes", (list.flags & TNEF_LIST_TRAILING) != 0);
    j.key("warnings").beginArray();
    for (const std::string& w : warnings) j.value(w);
    j.endArray().key("bodies").beginArray();
    for (const FoundBody& b : bodies)
        j.beginObject()
            .field("kind", b.kind->kindName)
            .field("source", b.body.source)
            .field("size", static_cast<uint64_t>(b.body.text.size()))
            .endObject();
    j.endArray();
    j.key("attachments").beginArray();
    for (const TnefAttachInfo& a : list.attachments) jsonAttachment(j, a);
    j.endArray().endObject();
}

// ---- extract -------------------------------------------------------------------------------

struct ExtractTarget {
    int dirFd = -1;
    std::string dir;
    bool overwrite = false;
    std::set<std::string> written;  // names this run created, never replaced
};

// Opens a new file for name in the folder: the name itself when free (or, with overwrite,
// a regular file that was there before the run), else the first free "name (n).ext".
int createOutput(ExtractTarget& t, const std::string& name, std::string* chosen, int* err) {
    constexpr unsigned kMaxCandidates = 10000;
    for (unsigned n = 1; n <= kMaxCandidates; ++n) {
        const std::string candidate = n == 1 ? name : numberedName(name, n);
        if (t.written.count(candidate) != 0) continue;
        int fd = ::openat(t.dirFd, candidate.c_str(),
                          O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0666);
        if (fd < 0 && errno == EEXIST && t.overwrite) {
            struct stat st {};
            if (::fstatat(t.dirFd, candidate.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0 &&
                S_ISREG(st.st_mode))
                fd = ::openat(t.dirFd, candidate.c_str(),
                              O_WRONLY | O_TRUNC | O_CLOEXEC | O_NOFOLLOW);
        }
        if (fd >= 0) {
            t.written.insert(candidate);
            *chosen = candidate;
            return fd;
        }
        if (errno != EEXIST) {
            *err = errno;
            *chosen = candidate;
            return -1;
        }
    }
    *err = EEXIST;
    *chosen = name;
    return -1;
}


struct Extracted {
    const TnefAttachInfo* attachment;
    std::string path;
};

// What extracting one file gave: the attachments written, the faults reported about them,
// and the fault that kept the file from being read at all.
struct FileResult {
    std::deque<TnefAttachInfo> bodies;  // what the bodies written are listed as
    std::vector<Extracted> done;
    std::vector<std::string> errors;
    std::vector<std::string> warnings;
    std::string error;
};

void fault(FileResult& r, const std::string& subject, const std::string& what) {
    reportError(subject, what);
    r.errors.push_back(subject + ": " + what);
}

// Writes one attachment; false (reported) when it could not be written, or only in part
// because the file ends inside it (what there is stays written: it may be all there is).
bool extractOne(ExtractTarget& t, int inFd, const std::string& file, const TnefAttachInfo& a,
                FileResult& r) {
    std::string chosen;
    int err = 0;
    const int outFd = createOutput(t, attachFileName(a), &chosen, &err);
    const std::string path = t.dir + "/" + chosen;
    if (outFd < 0) {
        fault(r, path, errnoText(err));
        return false;
    }
    try {
        tnef_CopyAttachment(inFd, &a, outFd);
    } catch (const Escape& e) {
        ::close(outFd);
        ::unlinkat(t.dirFd, chosen.c_str(), 0);
        fault(r, file,
              "attachment " + std::to_string(a.index) + " to " + path + ": " + escapeLine(e));
        return false;
    }
    if (a.modified > 0) {
        const timespec times[2] = {{0, UTIME_OMIT}, {static_cast<time_t>(a.modified), 0}};
        ::futimens(outFd, times);
    }
    if (::close(outFd) != 0) {
        fault(r, path, errnoText(errno));
        ::unlinkat(t.dirFd, chosen.c_str(), 0);
        return false;
    }
    r.done.push_back({&a, path});
    if ((a.flags & TNEF_ATTACH_DATA_CUT) == 0) return true;
    fault(r, file,
          "attachment " + std::to_string(a.index) + " is cut short: " + path + " holds the " +
              std::to_string(a.dataLength) + " bytes the file has");
    return false;
}

// Writes a document the run made (a body, a calendar, a card) under a free name, listed as
// an attachment of the given kind.
bool writeDocument(ExtractTarget& t, const char* name, const std::string& type, uint32_t kind,
                   const std::string& text, FileResult& r) {
    std::string chosen;
    int err = 0;
    const int outFd = createOutput(t, name, &chosen, &err);
    const std::string path = t.dir + "/" + chosen;
    const bool written = outFd >= 0 && ::write(outFd, text.data(), text.size()) ==
                                           static_cast<ssize_t>(text.size());
    if (outFd >= 0 && !written) err = errno;
    if (outFd >= 0 && ::close(outFd) != 0 && written) err = errno;
    if (!written || err != 0) {
        fault(r, path, errnoText(err));
        return false;
    }
    TnefAttachInfo& info = r.bodies.emplace_back();
    info.kind = kind;
    info.longFileName = name;
    info.mimeTag = type;
    info.dataLength = text.size();
    r.done.push_back({&info, path});
    return true;
}

// Writes the message's HTML, text and RTF bodies, each it has, as message.html, .txt, .rtf.
bool extractBodies(ExtractTarget& t, int inFd, const std::string& file, FileResult& r) {
    bool ok = true;
    try {
        for (const FoundBody& f : bodiesOf(inFd, true))
            ok = writeDocument(t, f.name.c_str(), f.kind->type, kKindBody, f.body.text, r) && ok;
    } catch (const Escape& e) {
        fault(r, file, "bodies: " + escapeLine(e));
        return false;
    }
    return ok;
}

// Writes invite.ics or contact.vcf for the message and each embedded message that is a
// meeting, appointment, task, contact or distribution list.
bool extractConverted(ExtractTarget& t, int inFd, const std::string& file, FileResult& r) {
    bool ok = true;
    try {
        for (const ConvertedFile& c : tool_ConvertedFiles(inFd)) {
            for (const std::string& w : c.warnings) reportError(file, "warning: " + c.name + ": " + w);
            ok = writeDocument(t, c.name.c_str(), c.type, kKindConverted, c.bytes, r) && ok;
        }
    } catch (const Escape& e) {
        fault(r, file, "calendar and contacts: " + escapeLine(e));
        return false;
    }
    return ok;
}

bool openTarget(const std::string& dir, ExtractTarget& t) {
    t.dir = dir;
    t.dirFd = ::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (t.dirFd < 0 && errno == ENOENT && makeFolders(dir))
        t.dirFd = ::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (t.dirFd < 0) {
        reportError(dir, errnoText(errno));
        return false;
    }
    return true;
}

// Extracts every attachment of one file into the target; false when anything failed. An
// embedded message is what its own attachments are in: those are what a reader wants, so
// they are written and the message itself only on request.
bool extractFile(ExtractTarget& target, const std::string& path, bool embedded, bool bodies,
                 TnefAttachList& list, FileResult& r, int spooled, bool weighed) {
    int fd = -1;
    if (!listFile(path, &fd, &list, &r.error, spooled)) return false;
    r.warnings = warningsOf(list);
    // Under --strict the warnings were reported by the first pass.
    if (!weighed)
        for (const std::string& w : r.warnings) reportError(path, "warning: " + w);
    bool ok = true;
    for (const TnefAttachInfo& a : list.attachments) {
        if (a.kind == TNEF_ATTACH_NONE || (a.kind == TNEF_ATTACH_MESSAGE && !embedded)) continue;
        ok = extractOne(target, fd, path, a, r) && ok;
    }
    // What the tool makes of the message comes after the sender's attachments, so that their
    // names are never the ones that give way.
    if (bodies) ok = extractBodies(target, fd, path, r) && ok;
    ok = extractConverted(target, fd, path, r) && ok;
    ::close(fd);
    return ok;
}

std::string renderExtracted(const FileResult& r) {
    std::string out;
    for (const Extracted& e : r.done)
        out += e.path + "  (" + std::to_string(e.attachment->dataLength) + " bytes)\n";
    return out;
}

void jsonExtracted(JsonWriter& j, const std::string& path, const FileResult& r) {
    j.beginObject().field("file", path);
    if (!r.error.empty()) j.field("error", r.error);
    j.key("extracted").beginArray();
    for (const Extracted& e : r.done)
        j.beginObject()
            .field("index", e.attachment->index)
            .field("kind", kindName(e.attachment->kind))
            .field("name", attachName(*e.attachment))
            .field("path", e.path)
            .field("size", e.attachment->dataLength)
            .field("type", attachType(*e.attachment))
            .endObject();
    j.endArray().key("errors").beginArray();
    for (const std::string& e : r.errors) j.value(e);
    j.endArray().key("warnings").beginArray();
    for (const std::string& w : r.warnings) j.value(w);
    j.endArray().endObject();
}

int cmdList(const GlobalOptions& g, const ParsedArgs& p) {
    int status = kExitOk;
    std::string text;
    JsonWriter j;
    j.beginObject().key("files").beginArray();
    for (const std::string& path : p.operands) {
        TnefAttachList list;
        int fd = -1;
        std::string error;
        if (!listFile(path, &fd, &list, &error)) {
            status = kExitError;
            if (g.json) j.beginObject().field("file", path).field("error", error).endObject();
            continue;
        }
        std::vector<std::string> warnings = warningsOf(list);
        std::vector<FoundBody> bodies;
        try {
            bodies = bodiesOf(fd);
        } catch (const Escape& e) {
            warnings.push_back("the bodies could not be read: " + escapeLine(e));
        }
        ::close(fd);
        if (!passWarnings(g, path, warnings)) return kExitError;
        if (g.json) {
            jsonList(j, path, list, warnings, bodies);
            continue;
        }
        if (p.operands.size() > 1) text += path + ":\n";
        for (const FoundBody& b : bodies) text += bodyLine(b);
        for (const TnefAttachInfo& a : list.attachments) text += listLine(a);
        // Under --strict nothing is written until every file has been weighed.
        if (!g.strict && !writeOut(text)) return kExitError;
        if (!g.strict) text.clear();
    }
    j.endArray().endObject();
    if (!writeOut(g.json ? j.text() : text)) return kExitError;
    return status;
}

// --strict: every file is listed and weighed before the first byte is written. Standard input
// cannot be read twice, so its spooled copy is kept open (*spooled) for the writing pass.
bool weighFiles(const GlobalOptions& g, const ParsedArgs& p, int* spooled) {
    bool ok = true;
    for (const std::string& path : p.operands) {
        TnefAttachList list;
        int fd = -1;
        std::string error;
        if (!listFile(path, &fd, &list, &error, *spooled)) return false;
        ok = passWarnings(g, path, warningsOf(list)) && ok;
        if (path == "-" && *spooled < 0)
            *spooled = fd;
        else
            ::close(fd);
    }
    return ok;
}

// The attachment --stdout writes: the one --index names, else the file's only attachment
// with data (an embedded message counts only with --embedded).
const TnefAttachInfo* chooseOne(const ParsedArgs& p, const TnefAttachList& list, std::string* why) {
    const bool embedded = p.has("--embedded");
    std::vector<const TnefAttachInfo*> candidates;
    for (const TnefAttachInfo& a : list.attachments) {
        if (p.has("--index") && std::to_string(a.index) == p.get("--index")) return &a;
        if (a.kind == TNEF_ATTACH_FILE || a.kind == TNEF_ATTACH_OLE || (embedded && a.kind == TNEF_ATTACH_MESSAGE))
            candidates.push_back(&a);
    }
    if (p.has("--index"))
        *why = "no attachment " + p.get("--index") + " (see 'tnefx list')";
    else if (candidates.size() != 1)
        *why = std::to_string(candidates.size()) + " attachments; choose one with --index N (see 'tnefx list')";
    return candidates.size() == 1 && !p.has("--index") ? candidates[0] : nullptr;
}

// A line on the terminal while many files are extracted: files done, bytes written, rate. Only
// on a terminal, never with --quiet; cleared before each report line so the two never mix.
class Progress {
  public:
    Progress(const GlobalOptions& g, size_t files)
        : on_(!g.quiet && !g.json && files > 1 && ::isatty(STDERR_FILENO) == 1), files_(files),
          start_(std::chrono::steady_clock::now()) {}
    ~Progress() { clear(); }

    void clear() const {
        if (on_) std::fputs("\r\x1b[K", stderr);
    }
    void fileDone(const FileResult& r) {
        ++done_;
        for (const Extracted& e : r.done) bytes_ += e.attachment->dataLength;
        if (!on_) return;
        const double seconds =
            std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count();
        std::fprintf(stderr, "\r%zu/%zu files, %.1f MiB, %.1f MiB/s\x1b[K", done_, files_, bytes_ / 1048576.0,
                     seconds > 0 ? bytes_ / 1048576.0 / seconds : 0.0);
    }

  private:
    bool on_;
    size_t files_;
    size_t done_ = 0;
    uint64_t bytes_ = 0;
    std::chrono::steady_clock::time_point start_;
};

// extract --stdout: one attachment's bytes to standard output, for a pipeline.
int extractToStdout(const GlobalOptions& g, const ParsedArgs& p) {
    if (p.operands.size() != 1) return usageError("extract", "--stdout takes one FILE");
    if (g.json) return usageError("extract", "--stdout and --json both want standard output");
    const std::string& path = p.operands[0];
    TnefAttachList list;
    int fd = -1;
    std::string error;
    if (!listFile(path, &fd, &list, &error)) return kExitError;
    std::string why;
    const TnefAttachInfo* a = chooseOne(p, list, &why);
    int status = kExitError;
    if (a == nullptr) {
        reportError(path, why);
    } else if (passWarnings(g, path, warningsOf(list))) {
        try {
            tnef_CopyAttachment(fd, a, STDOUT_FILENO);
            status = kExitOk;
            if (a->flags & TNEF_ATTACH_DATA_CUT) {
                reportError(path, "attachment " + std::to_string(a->index) + " is cut short");
                status = kExitError;
            }
        } catch (const Escape& e) {
            reportError("standard output", escapeLine(e));
        }
    }
    ::close(fd);
    return status;
}

int cmdExtract(const GlobalOptions& g, const ParsedArgs& p) {
    if (p.has("--stdout")) return extractToStdout(g, p);
    int spooled = -1;
    if (g.strict && !weighFiles(g, p, &spooled)) {
        if (spooled >= 0) ::close(spooled);
        return kExitError;
    }
    ExtractTarget target;
    target.overwrite = p.has("--overwrite");
    if (!openTarget(p.get("-C", "."), target)) {
        if (spooled >= 0) ::close(spooled);
        return kExitError;
    }
    const bool embedded = p.has("--embedded");

    int status = kExitOk;
    JsonWriter j;
    j.beginObject().field("directory", target.dir).key("files").beginArray();
    Progress progress(g, p.operands.size());
    for (const std::string& path : p.operands) {
        TnefAttachList list;  // the results point into it
        FileResult r;
        progress.clear();
        if (!extractFile(target, path, embedded, p.has("--body"), list, r, spooled, g.strict)) status = kExitError;
        if (g.json)
            jsonExtracted(j, path, r);
        else if (!writeOut(renderExtracted(r)))
            status = kExitError;
        progress.fileDone(r);
    }
    progress.clear();
    ::close(target.dirFd);
    if (spooled >= 0) ::close(spooled);
    j.endArray().endObject();
    if (g.json && !writeOut(j.text())) return kExitError;
    return status;
}

}  // namespace

const CommandSpec kListCommand = {
    "list", "FILE...", 1, kManyOperands,
    "the attachments of TNEF files, with names, sizes and types",
    "Lists the attachments of each TNEF file: number, kind (file, ole, message, none), size in\n"
    "bytes, MIME type and name. Attachments of embedded messages follow their message,\n"
    "indented. The files are read directly; the store is not used.\n"
    "\n"
    "With --json: {\"files\":[{\"file\",\"subject\",\"message_class\",\"code_page\",\"truncated\",\n"
    "\"trailing_bytes\",\"warnings\",\"attachments\":[{\"index\",\"parent\",\"depth\",\"kind\",\"name\",\n"
    "\"size\",\"offset\",\"type\",\"source\",\"method\",\"modified\",\"data_cut\",\"content_id\",\n"
    "\"names\":{\"long_file_name\",\"file_name\",\"transport_name\",\"title\",\"display_name\"}}]}]};\n"
    "a file that cannot be read has \"error\" instead.",
    {},
    cmdList,
};

const CommandSpec kExtractCommand = {
    "extract", "FILE...", 1, kManyOperands,
    "write the attachments into a folder",
    "Writes the attachments of each TNEF file into DIR (default: the current folder, created\n"
    "when missing), attachments of embedded messages included. Names are made safe (no\n"
    "folders, no control bytes, no leading dots) and never replace a file: a taken name\n"
    "becomes \"name (2).ext\". An attachment without a name is written as \"attachment-N.dat\".\n"
    "An OLE object is written as its storage, without the 16-byte interface identifier in\n"
    "front of it. An attachment that the file cuts short is written as far as it goes, and\n"
    "the exit status is 2. A meeting, appointment or task (the message or an embedded one)\n"
    "is also written as invite.ics, a contact or distribution list as contact.vcf (kind\n"
    "\"converted\" in JSON).\n"
    "\n"
    "With --json: {\"directory\",\"files\":[{\"file\",\"extracted\":[{\"index\",\"kind\",\"name\",\n"
    "\"path\",\"size\",\"type\"}],\"errors\":[lines],\"error\"}]}; \"error\" when the file could not\n"
    "be read at all, \"errors\" for attachments that were not written whole.",
    {
        {"-C", "DIR", "the folder to write into"},
        {"--overwrite", nullptr,
         "replace files that were there before this run (files written by this run are still never replaced)"},
        {"--embedded", nullptr,
         "also write each embedded message as a TNEF file of its own (\"<subject>.tnef\"), which this tool reads in turn"},
        {"--stdout", nullptr,
         "write one attachment's bytes to standard output instead: the file's only attachment, or the one --index names"},
        {"--index", "N", "the attachment --stdout writes, numbered as list numbers them"},
        {"--body", nullptr,
         "also write the message's bodies: message.html, message.txt and message.rtf, each that it has "
         "(index 0, kind \"body\" in JSON), and message-2.html, ... for each embedded message"},
    },
    cmdExtract,
};
