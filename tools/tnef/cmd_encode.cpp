// encode: a stored message written out as a TNEF stream, as the server does for a MAPI
// recipient.

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <vector>

#include "json_writer.h"
#include "tnef/platform/er_escape.h"
#include "tnef/platform/msg_store.h"
#include "tnef/platform/os_file.h"
#include "tnef/platform/tf_msgfile.h"
#include "tnef/tnef.h"
#include "tool.h"

namespace {

struct Encoded {
    int result = 0;
    uint32_t resultWord = 0;
    int64_t size = 0;
};

Encoded encodeTo(const std::string& id, const std::string& out) {
    MsgOwner message(Msg_Open(id.c_str()));
    ItemRef ref{};
    Msg_GetFileRef(message.get(), &ref);
    TfFileOwner messageFile(tf_OpenFile(ref, TF_OPEN_READONLY));
    // Opened here rather than with os_open, which would make missing folders on the way.
    OsFd fd(::open(out.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0666));
    if (fd.get() < 0) er_TracedEscapeText(ER_GROUP_IO, errno, "tnef encode", __LINE__, out);
    Encoded e;
    try {
        e.result = tnef_Encode(messageFile.get(), fd.get(), 0, &e.resultWord, message.get());
        e.size = os_lseek64(fd.get(), 0, 2);
        fd.close();
    } catch (const Escape&) {
        ::unlink(out.c_str());
        throw;
    }
    if (e.result == 0) ::unlink(out.c_str());
    return e;
}

int cmdEncode(const GlobalOptions& g, const ParsedArgs& p) {
    if (!p.has("-o")) return usageError("encode", "no output file (-o OUT)");
    const std::string id = messageId(p.operands.front());
    if (!isMessageId(id)) return usageError("encode", "'" + id + "' is not a message id");
    const std::string out = p.get("-o");

    Encoded e;
    try {
        e = encodeTo(id, out);
    } catch (const Escape& x) {
        if (x.group == ER_GROUP_IO && x.reason == ENOENT &&
            x.detail.find(id) != std::string::npos) {
            reportError(id, "no such message in the store under " + absolutePath(os_GetHome()));
            return kExitError;
        }
        if (x.detail == out) {
            reportError(out, errnoText(x.reason));
            return kExitError;
        }
        reportEscape(id, x);
        return kExitError;
    }
    if (g.json) {
        JsonWriter j;
        j.beginObject()
            .field("message", id)
            .field("output", out)
            .field("written", e.result == 1)
            .field("result", e.result)
            .field("result_word", e.resultWord)
            .field("size", e.result == 1 ? e.size : int64_t{0})
            .endObject();
        return writeOut(j.text()) ? kExitOk : kExitError;
    }
    const std::string report =
        e.result == 1 ? "wrote " + out + " (" + std::to_string(e.size) +
                            " bytes), result 1, result word " + std::to_string(e.resultWord) + "\n"
                      : "nothing to send as TNEF (result 0, result word " +
                            std::to_string(e.resultWord) + "); " + out + " not kept\n";
    return writeOut(report) ? kExitOk : kExitError;
}

}  // namespace

const CommandSpec kEncodeCommand = {
    "encode", "MESSAGE", 1, 1,
    "write a stored message as a TNEF file (-o OUT)",
    "Writes the stored message MESSAGE (its id, or the path of its folder) as a TNEF stream to\n"
    "OUT, from its message file, the object file and property texts stored with it and its\n"
    "parts. When the message has nothing to send as TNEF (or the stream is to be dropped), OUT is\n"
    "not kept and the report says so.\n"
    "\n"
    "With --json: {\"message\",\"output\",\"written\",\"result\",\"result_word\",\"size\"}.",
    {
        {"-o", "OUT", "the TNEF file to write"},
    },
    cmdEncode,
};
