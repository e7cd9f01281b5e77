// show: a stored message as the store holds it: its records, parts and stored objects, and
// on request the property texts stored with it.

#include <cerrno>
#include <string>
#include <vector>

#include "blob_text.h"
#include "json_writer.h"
#include "stored_message.h"
#include "tnef/platform/er_escape.h"
#include "tnef/platform/msg_store.h"
#include "tnef/platform/os_file.h"
#include "tnef/platform/store_dump.h"
#include "tool.h"

namespace {

std::vector<std::string> lines(const std::string& text) {
    std::vector<std::string> out;
    size_t from = 0;
    while (from < text.size()) {
        size_t nl = text.find('\n', from);
        if (nl == std::string::npos) nl = text.size();
        out.push_back(text.substr(from, nl - from));
        from = nl + 1;
    }
    return out;
}

std::string textTitle(const StoredText& t) {
    return std::string(t.secondary ? "secondary" : "main") + " property text" +
           (t.depth > 0 ? " (embedded message, depth " + std::to_string(t.depth) + ")" : "") +
           ", " + std::to_string(t.text.size()) + " bytes:\n";
}

// Writes each text to DIR/main.txt, DIR/secondary.txt, DIR/main-2.txt, ...; the paths go
// to *written. False (reported) when one cannot be written.
bool writeRawTexts(const std::string& dir, const std::vector<StoredText>& texts,
                   std::vector<std::string>* written) {
    if (!makeFolders(dir)) {
        reportError(dir, errnoText(errno));
        return false;
    }
    unsigned mains = 0;
    unsigned secondaries = 0;
    for (const StoredText& t : texts) {
        const unsigned n = t.secondary ? ++secondaries : ++mains;
        const std::string path = dir + "/" + (t.secondary ? "secondary" : "main") +
                                 (n > 1 ? "-" + std::to_string(n) : "") + ".txt";
        if (!writeWholeFile(path, t.text)) return false;
        written->push_back(path);
    }
    return true;
}

struct Shown {
    std::string dump;
    std::vector<StoredText> texts;
    std::vector<std::string> written;  // raw text files
};

// Reads the message's dump (and its texts); false (reported) when it cannot be read.
bool readMessage(const std::string& id, bool withTexts, Shown* s) {
    try {
        MsgOwner message(Msg_Open(id.c_str()));
        s->dump = Msg_Dump(message.get());
        if (withTexts) s->texts = readStoredTexts(message.get());
        return true;
    } catch (const Escape& e) {
        if (e.group == ER_GROUP_IO && e.reason == ENOENT)
            reportError(id, "no such message in the store under " + absolutePath(os_GetHome()));
        else
            reportEscape(id, e);
    }
    return false;
}

std::string renderShown(const Shown& s, bool withTexts) {
    std::string out = s.dump;
    if (withTexts)
        for (const StoredText& t : s.texts)
            out += "\n" + textTitle(t) + renderBlobText(t.text, false, true);
    for (const std::string& path : s.written) out += "wrote " + path + "\n";
    return out;
}

std::string jsonShown(const std::string& id, const Shown& s, bool withTexts) {
    JsonWriter j;
    j.beginObject().field("message", id).key("dump").beginArray();
    for (const std::string& line : lines(s.dump)) j.value(line);
    j.endArray().key("texts").beginArray();
    for (const StoredText& t : s.texts) {
        if (!withTexts) break;
        j.beginObject()
            .field("kind", t.secondary ? "secondary" : "main")
            .field("depth", t.depth)
            .field("flags", t.flags)
            .field("length", static_cast<uint64_t>(t.text.size()))
            .key("entries");
        jsonBlobText(j, t.text, false);
        j.endObject();
    }
    j.endArray().key("raw_files").beginArray();
    for (const std::string& path : s.written) j.value(path);
    j.endArray().endObject();
    return j.text();
}

int cmdShow(const GlobalOptions& g, const ParsedArgs& p) {
    const std::string id = messageId(p.operands.front());
    if (!isMessageId(id)) return usageError("show", "'" + id + "' is not a message id");

    Shown s;
    if (!readMessage(id, p.has("--texts") || p.has("--raw-texts"), &s)) return kExitError;
    if (p.has("--raw-texts") && !writeRawTexts(p.get("--raw-texts"), s.texts, &s.written))
        return kExitError;
    const bool withTexts = p.has("--texts");
    return writeOut(g.json ? jsonShown(id, s, withTexts) : renderShown(s, withTexts)) ? kExitOk
                                                                                      : kExitError;
}

}  // namespace

const CommandSpec kShowCommand = {
    "show", "MESSAGE", 1, 1,
    "the records, parts and stored objects of a stored message",
    "Shows a message of the store (MESSAGE is its id, as decode reports it, or the path of its\n"
    "folder): its parts, the records of its message file and where its stored objects live.\n"
    "\n"
    "With --json: {\"message\",\"dump\":[lines],\"texts\":[{\"kind\",\"depth\",\"flags\",\"length\",\n"
    "\"entries\":[{\"id\",\"values\"}]}],\"raw_files\":[paths]}.",
    {
        {"--texts", nullptr, "add the property texts stored with the message, one entry per line (\"id = value | value\"), bytes outside printable ASCII as \\xNN"},
        {"--raw-texts", "DIR", "write the property texts byte for byte into DIR: main.txt, secondary.txt, then main-2.txt, ... for embedded messages"},
    },
    cmdShow,
};
