// list and extract: the attachments of TNEF files, read straight from the files with the
// library's attachment reader (no message store involved).

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cinttypes>
#include <cstdio>
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

constexpr const char* kListHelp =
    "usage: tnef list FILE...\n"
    "\n"
    "Lists the attachments of each TNEF file: number, kind (file, ole, message, none),\n"
    "size in bytes, MIME type and name. Attachments of embedded messages follow their\n"
    "message, indented. The files are read directly; the store is not used.\n"
    "\n"
    "With --json: {\"files\":[{\"file\",\"subject\",\"message_class\",\"code_page\",\n"
    "\"truncated\",\"trailing_bytes\",\"warnings\",\"attachments\":[{\"index\",\"parent\","
    "\"depth\",\"kind\",\n"
    "\"name\",\"size\",\"offset\",\"type\",\"source\",\"method\",\"modified\",\"data_cut\","
    "\"content_id\",\n"
    "\"names\":{\"long_file_name\",\"file_name\",\"transport_name\",\"title\",\n"
    "\"display_name\"}}]}]}; a file that cannot be read has \"error\" instead.\n";

constexpr const char* kExtractHelp =
    "usage: tnef extract FILE... [-C DIR] [--overwrite] [--embedded] [--body]\n"
    "\n"
    "Writes the attachments of each TNEF file into DIR (default: the current folder,\n"
    "created when missing), attachments of embedded messages included. Names are made\n"
    "safe (no folders, no control bytes, no leading dots) and never replace a file: a\n"
    "taken name becomes \"name (2).ext\". An attachment without a name is written as\n"
    "\"attachment-N.dat\". An OLE object is written as its storage, without the 16-byte\n"
    "interface identifier in front of it. An attachment that the file cuts short is\n"
    "written as far as it goes, and the exit status is 2. A meeting, appointment or task\n"
    "(the message or an embedded one) is also written as invite.ics, a contact or\n"
    "distribution list as contact.vcf (kind \"converted\" in JSON).\n"
    "\n"
    "  -C DIR        the folder to write into\n"
    "  --overwrite   replace files that were there before this run (files written by\n"
    "                this run are still never replaced)\n"
    "  --embedded    also write each embedded message as a TNEF file of its own\n"
    "  --body        also write the message's bodies: message.html, message.txt and\n"
    "                message.rtf, each that it has (index 0, kind \"body\" in JSON)\n"
    "                (\"<subject>.tnef\"), which tnef can read in turn\n"
    "\n"
    "With --json: {\"directory\",\"files\":[{\"file\",\"extracted\":[{\"index\",\"kind\",\n"
    "\"name\",\"path\",\"size\",\"type\"}],\"errors\":[lines],\"error\"}]}; \"error\" when\n"
    "the file could not be read at all, \"errors\" for attachments that were not written\n"
    "whole.\n";

// A message body written beside the attachments is listed as an attachment of kind "body".
inline constexpr uint32_t kKindBody = 100;
// So is a calendar or card made of the message, of kind "converted".
inline constexpr uint32_t kKindConverted = 101;

const char* kindName(uint32_t kind) {
    switch (kind) {
        case kKindBody:
            return "body";
        case kKindConverted:
            return "converted";
        case TNEF_ATTACH_FILE:
            return "file";
        case TNEF_ATTACH_OLE:
            return "ole";
        case TNEF_ATTACH_MESSAGE:
            return "message";
        default:
            return "none";
    }
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

std::string defaultName(const TnefAttachInfo& a) {
    return "attachment-" + std::to_string(a.index) + ".dat";
}

std::string nameOf(const TnefAttachInfo& a) {
    const std::string best = tnef_AttachBestName(a);
    return best.empty() ? defaultName(a) : best;
}

std::string typeOf(const TnefAttachInfo& a) {
    if (a.kind == TNEF_ATTACH_MESSAGE) return "application/vnd.ms-tnef";
    if (!a.mimeTag.empty()) return a.mimeTag;
    return guessMimeType(nameOf(a));
}

// What is odd about a file, for the report. Trailing bytes are not among them: mail
// systems leave a line end after the stream often enough that it says nothing.
std::vector<std::string> warningsOf(const TnefAttachList& list) {
    std::vector<std::string> w;
    if (list.flags & TNEF_LIST_TRUNCATED) w.push_back("the stream ends inside a record");
    if (list.flags & TNEF_LIST_NO_RECORDS) w.push_back("the file holds no record");
    if (list.flags & TNEF_LIST_BAD_CHECKSUM) w.push_back("a record's checksum is wrong");
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

// Opens and lists path; on failure reports it, sets *error and returns false.
bool listFile(const std::string& path, int* fd, TnefAttachList* list, std::string* error) {
    *fd = openInput(path, error);
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

std::string listLine(const TnefAttachInfo& a) {
    char head[64];
    std::snprintf(head, sizeof head, "%4u  %-7s %10" PRIu64 "  ", a.index, kindName(a.kind),
                  a.dataLength);
    std::string line = head + typeOf(a);
    line.resize(std::max<size_t>(line.size() + 2, 60), ' ');
    line += std::string(2 * a.depth, ' ') + readableText(nameOf(a));
    if (a.flags & TNEF_ATTACH_DATA_CUT) line += "  [cut short]";
    return line + '\n';
}

void jsonAttachment(JsonWriter& j, const TnefAttachInfo& a) {
    j.beginObject()
        .field("index", a.index)
        .field("parent", a.parent)
        .field("depth", a.depth)
        .field("kind", kindName(a.kind))
        .field("name", nameOf(a))
        .field("size", a.dataLength)
        .field("offset", a.dataOffset)
        .field("type", typeOf(a))
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

void jsonList(JsonWriter& j, const std::string& path, const TnefAttachList& list) {
    j.beginObject()
        .field("file", path)
        .field("subject", list.subject)
        .field("message_class", list.messageClass)
        .field("code_page", list.codePage)
        .field("truncated", (list.flags & TNEF_LIST_TRUNCATED) != 0)
        .field("trailing_bytes", (list.flags & TNEF_LIST_TRAILING) != 0);
    j.key("warnings").beginArray();
    for (const std::string& w : warningsOf(list)) j.value(w);
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

std::string outputName(const TnefAttachInfo& a) {
    std::string name = safeFileName(nameOf(a), defaultName(a));
    if (a.kind == TNEF_ATTACH_MESSAGE) name = safeFileName(name + ".tnef", defaultName(a));
    return name;
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
    const int outFd = createOutput(t, outputName(a), &chosen, &err);
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
    static constexpr struct { TnefBodyKind kind; const char* name; const char* type; } kBodies[] = {
        {TNEF_BODY_HTML, "message.html", "text/html"},
        {TNEF_BODY_TEXT, "message.txt", "text/plain"},
        {TNEF_BODY_RTF, "message.rtf", "application/rtf"}};
    bool ok = true;
    try {
        TnefMessageView view;
        tnef_ReadMessage(inFd, &view);
        for (const auto& b : kBodies) {
            const TnefBody body = tnef_MessageBody(inFd, view, b.kind);
            if (body.kind != TNEF_BODY_NONE) ok = writeDocument(t, b.name, b.type, kKindBody, body.text, r) && ok;
        }
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
                 TnefAttachList& list, FileResult& r) {
    int fd = -1;
    if (!listFile(path, &fd, &list, &r.error)) return false;
    for (const std::string& w : warningsOf(list)) reportError(path, "warning: " + w);
    bool ok = !bodies || extractBodies(target, fd, path, r);
    ok = extractConverted(target, fd, path, r) && ok;
    for (const TnefAttachInfo& a : list.attachments) {
        if (a.kind == TNEF_ATTACH_NONE || (a.kind == TNEF_ATTACH_MESSAGE && !embedded)) continue;
        ok = extractOne(target, fd, path, a, r) && ok;
    }
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
            .field("name", nameOf(*e.attachment))
            .field("path", e.path)
            .field("size", e.attachment->dataLength)
            .field("type", typeOf(*e.attachment))
            .endObject();
    j.endArray().key("errors").beginArray();
    for (const std::string& e : r.errors) j.value(e);
    j.endArray().endObject();
}

}  // namespace

int cmdList(const GlobalOptions& g, const std::vector<std::string>& args) {
    ParsedArgs p;
    if (!parseArgs("list", args, {}, &p)) return kExitError;
    if (p.help) return printHelp(kListHelp);
    if (p.operands.empty()) return usageError("list", "no FILE given");
    int status = kExitOk;
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
        ::close(fd);
        for (const std::string& w : warningsOf(list)) reportError(path, "warning: " + w);
        if (g.json) {
            jsonList(j, path, list);
            continue;
        }
        std::string out;
        if (p.operands.size() > 1) out += path + ":\n";
        for (const TnefAttachInfo& a : list.attachments) out += listLine(a);
        if (!writeOut(out)) return kExitError;
    }
    j.endArray().endObject();
    if (g.json && !writeOut(j.text())) return kExitError;
    return status;
}

int cmdExtract(const GlobalOptions& g, const std::vector<std::string>& args) {
    ParsedArgs p;
    if (!parseArgs("extract", args,
                   {{"-C", true}, {"--overwrite", false}, {"--embedded", false}, {"--body", false}}, &p))
        return kExitError;
    if (p.help) return printHelp(kExtractHelp);
    if (p.operands.empty()) return usageError("extract", "no FILE given");
    ExtractTarget target;
    target.overwrite = p.has("--overwrite");
    if (!openTarget(p.get("-C", "."), target)) return kExitError;
    const bool embedded = p.has("--embedded");

    int status = kExitOk;
    JsonWriter j;
    j.beginObject().field("directory", target.dir).key("files").beginArray();
    for (const std::string& path : p.operands) {
        TnefAttachList list;  // the results point into it
        FileResult r;
        if (!extractFile(target, path, embedded, p.has("--body"), list, r)) status = kExitError;
        if (g.json)
            jsonExtracted(j, path, r);
        else if (!writeOut(renderExtracted(r)))
            status = kExitError;
    }
    ::close(target.dirFd);
    j.endArray().endObject();
    if (g.json && !writeOut(j.text())) return kExitError;
    return status;
}
