// getprop and writeblob: MAPI properties of a TNEF file as property texts, and a TNEF file
// written from such texts (the two directions of one round trip).

#include <fcntl.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "blob_text.h"
#include "json_writer.h"
#include "tnef/platform/er_escape.h"
#include "tnef/platform/os_file.h"
#include "tnef/tnef.h"
#include "tnef/tnef_reader.h"
#include "tool.h"

namespace {

struct FreeText {
    void operator()(char* text) const { std::free(text); }
};
using OwnedText = std::unique_ptr<char, FreeText>;

struct Texts {
    OwnedText props;
    OwnedText recips;
    OwnedText attach;
};

std::string_view viewOf(const OwnedText& text) {
    return text ? std::string_view(text.get()) : std::string_view();
}

// Writes a text to its file when one was named; false (reported) when that fails.
bool writeTextFile(const ParsedArgs& p, const char* option, const OwnedText& text) {
    return !p.has(option) || writeWholeFile(p.get(option), viewOf(text));
}

std::string renderGetprop(const ParsedArgs& p, const Texts& t) {
    std::string out;
    if (!p.has("-o") && t.props) out += "properties:\n" + renderBlobText(viewOf(t.props), false);
    if (!p.has("--attach-out") && t.attach && *t.attach != '\0')
        out += "attachments:\n" + renderBlobText(viewOf(t.attach), true);
    if (!p.has("--recips-out") && t.recips && *t.recips != '\0')
        out += "recipients:\n" + renderBlobText(viewOf(t.recips), true);
    return out;
}

std::string jsonGetprop(const ParsedArgs& p, const std::string& request, int found,
                        const Texts& t, const std::vector<std::string>& warnings) {
    JsonWriter j;
    j.beginObject()
        .field("file", p.operands[0])
        .field("request", request)
        .field("found", found == 1);
    if (!p.has("-o")) {
        j.key("properties");
        jsonBlobText(j, viewOf(t.props), false);
    }
    if (!p.has("--attach-out")) {
        j.key("attachments");
        jsonBlobText(j, viewOf(t.attach), true);
    }
    if (!p.has("--recips-out")) {
        j.key("recipients");
        jsonBlobText(j, viewOf(t.recips), true);
    }
    j.key("warnings").beginArray();
    for (const std::string& w : warnings) j.value(w);
    j.endArray().endObject();
    return j.text();
}

struct OptionalText {
    bool given = false;
    std::string bytes;
    const char* text() const { return given ? bytes.c_str() : nullptr; }
};

struct BlobInputs {
    OptionalText props, attach, recips;
};

// The bytes of the file an option names, when it was given. False (reported) on failure.
bool readOptionalText(const ParsedArgs& p, const char* option, OptionalText* text) {
    text->given = p.has(option);
    return !text->given || readWholeFile(p.get(option), &text->bytes);
}

// Writes the TNEF file out from the texts (and the saved TNEF file, when named); *size gets
// its size. On failure it is reported and out is removed.
bool writeBlobFile(const std::string& out, const std::string& saved, const BlobInputs& in,
                   int64_t* size) {
    int savedFd = -1;
    if (!saved.empty() && (savedFd = openInput(saved)) < 0) return false;
    OsFd savedOwner(savedFd);
    OsFd fd(::open(out.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0666));
    if (fd.get() < 0) {
        reportError(out, errnoText(errno));
        return false;
    }
    try {
        tnef_WriteBrenvoProps2ObjectFile(fd.get(), savedFd, in.props.text(), in.attach.text(),
                                         in.recips.text());
        *size = os_lseek64(fd.get(), 0, SEEK_END);
        fd.close();
        return true;
    } catch (const Escape& e) {
        reportEscape(out, e);
    }
    ::unlink(out.c_str());
    return false;
}

bool isHex(std::string_view text, size_t most) {
    if (text.empty() || text.size() > most) return false;
    for (char c : text)
        if (!std::isxdigit(static_cast<unsigned char>(c))) return false;
    return true;
}

// The request as the library takes it: GET-ALL, a hexadecimal tag or #TYPE/ID as they
// stand, a published name (PR_SUBJECT) as its tag. Empty when it is none of them.
std::string libraryRequest(const std::string& request) {
    if (request == "GET-ALL" || isHex(request, 8)) return request;
    const size_t slash = request.find('/');
    if (request.size() > 1 && request[0] == '#' && slash != std::string::npos &&
        isHex(std::string_view(request).substr(1, slash - 1), 4) &&
        isHex(std::string_view(request).substr(slash + 1), 4))
        return request;
    const uint32_t tag = tnef_PropTagByName(request);
    if (tag == 0) return {};
    char hex[16];
    std::snprintf(hex, sizeof hex, "%x", tag);
    return hex;
}

int cmdGetprop(const GlobalOptions& g, const ParsedArgs& p) {
    const std::string& path = p.operands[0];
    const std::string request = p.operands.size() > 1 ? p.operands[1] : "GET-ALL";
    const std::string asked = libraryRequest(request);
    if (asked.empty())
        return usageError("getprop", "request '" + request +
                                         "' is neither GET-ALL, a hexadecimal tag, #TYPE/ID nor "
                                         "a published property name");
    const int fd = openInput(path);
    if (fd < 0) return kExitError;
    std::vector<std::string> warnings;
    if (!checkTnefSignature(fd, path) || !weighStream(g, fd, path, &warnings)) {
        ::close(fd);
        return kExitError;
    }

    Texts t;
    int found = 0;
    try {
        char* props = nullptr;
        char* recips = nullptr;
        char* attach = nullptr;
        // The tables come with GET-ALL, or when a file was named for them.
        const bool all = asked == "GET-ALL";
        found = tnef_GetProp(fd, asked.c_str(), &props,
                             all || p.has("--recips-out") ? &recips : nullptr,
                             all || p.has("--attach-out") ? &attach : nullptr, path.c_str());
        t.props.reset(props);
        t.recips.reset(recips);
        t.attach.reset(attach);
    } catch (const Escape& e) {
        ::close(fd);
        reportEscape(path, e);
        return kExitError;
    }
    ::close(fd);
    if (!writeTextFile(p, "-o", t.props) || !writeTextFile(p, "--attach-out", t.attach) ||
        !writeTextFile(p, "--recips-out", t.recips))
        return kExitError;
    const std::string out = g.json ? jsonGetprop(p, request, found, t, warnings) : renderGetprop(p, t);
    if (!writeOut(out)) return kExitError;
    return found == 1 ? kExitOk : kExitNotFound;
}

int cmdWriteblob(const GlobalOptions& g, const ParsedArgs& p) {
    if (!p.has("-o")) return usageError("writeblob", "no output file (-o OUT)");
    BlobInputs in;
    if (!readOptionalText(p, "--props", &in.props) ||
        !readOptionalText(p, "--attach", &in.attach) ||
        !readOptionalText(p, "--recips", &in.recips))
        return kExitError;
    for (const OptionalText* text : {&in.props, &in.attach, &in.recips})
        if (text->bytes.find('\0') != std::string::npos)
            return usageError("writeblob",
                              "a property text holds a NUL byte; it is not a property text");
    const std::string out = p.get("-o");
    int64_t size = 0;
    if (!writeBlobFile(out, p.has("--saved") ? p.get("--saved") : std::string(), in, &size))
        return kExitError;
    if (g.json) {
        JsonWriter j;
        j.beginObject().field("output", out).field("size", size).endObject();
        return writeOut(j.text()) ? kExitOk : kExitError;
    }
    return writeOut("wrote " + out + " (" + std::to_string(size) + " bytes)\n") ? kExitOk
                                                                                : kExitError;
}

}  // namespace

const CommandSpec kGetpropCommand = {
    "getprop", "FILE [REQUEST]", 1, 2,
    "MAPI properties of a TNEF file as property text",
    "Reads MAPI properties of a TNEF file as property text. REQUEST is GET-ALL (the default:\n"
    "every message property, with the attachment and recipient tables), a property tag in\n"
    "hexadecimal (37001e) or by its published name (PR_SUBJECT), or #TYPE/ID for a named property\n"
    "with a numeric name (#3/8205). Texts are printed one entry per line (\"id = value | value\",\n"
    "bytes outside printable ASCII as \\xNN) unless written byte for byte to a file. Exit status 0\n"
    "when the property was found (GET-ALL: when the message has properties), 1 when not.\n"
    "\n"
    "With --json: {\"file\",\"request\",\"found\",\"properties\":[{\"id\",\"values\"}],\n"
    "\"attachments\":[[entries]],\"recipients\":[[entries]]} (a text written to a file is left out).",
    {
        {"-o", "F", "write the message properties to F"},
        {"--attach-out", "F", "write the attachment table to F"},
        {"--recips-out", "F", "write the recipient table to F"},
    },
    cmdGetprop,
};

const CommandSpec kWriteblobCommand = {
    "writeblob", "", 0, 0,
    "a TNEF file from property texts",
    "Writes a TNEF file OUT from property texts as getprop writes them (-o, --attach-out,\n"
    "--recips-out): the message properties, the attachment table and the recipient table.\n"
    "\n"
    "With --json: {\"output\",\"size\"}.",
    {
        {"-o", "OUT", "the TNEF file to write"},
        {"--props", "F", "the message properties"},
        {"--attach", "F", "the attachment table"},
        {"--recips", "F", "the recipient table"},
        {"--saved", "TNEF", "a TNEF file whose attachments are kept when no attachment table is written (flag MAPIXML_WRITE_ATTACHTABLE false)"},
    },
    cmdWriteblob,
};
