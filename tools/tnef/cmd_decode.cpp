// decode: a TNEF file decoded as the server decodes one that arrives with a message: the
// message is built around it in the store, decoded, saved, and reported.

#include <unistd.h>

#include <string>
#include <vector>

#include "json_writer.h"
#include "stored_message.h"
#include "tnef/platform/er_escape.h"
#include "tnef/platform/im_items.h"
#include "tnef/platform/msg_builder.h"
#include "tnef/platform/msg_store.h"
#include "tnef/platform/tf_msgfile.h"
#include "tnef/tnef.h"
#include "tool.h"

namespace {

// The first two parts of a received message are its body and the TNEF file itself.
constexpr uint32_t kFirstAttachmentPart = 3;
constexpr uint16_t kReceiptDelivery = 4;
constexpr uint16_t kReceiptRead = 7;

const char* receiptName(uint16_t receipt) {
    return receipt == kReceiptRead ? "read" : receipt == kReceiptDelivery ? "delivery" : "none";
}

std::string baseName(const std::string& path) {
    const size_t slash = path.rfind('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

struct DecodeResult {
    StoredSummary summary;
    uint16_t receipt = 0;
    uint32_t replyRequested = 0;
    TnefDecodeReport report{};
};

// "1 attachment" / "2 attachments".
std::string attachments(uint32_t n) {
    return std::to_string(n) + (n == 1 ? " attachment" : " attachments");
}

// What the library counted as not stored, in words.
std::vector<std::string> warningsOf(const TnefDecodeReport& r) {
    std::vector<std::string> w;
    if (r.dataWithoutProperties != 0)
        w.push_back(attachments(r.dataWithoutProperties) +
                    " with data but no attAttachment record: their data was not stored "
                    "(extract writes it)");
    if (r.propertiesWithoutData != 0)
        w.push_back(attachments(r.propertiesWithoutData) +
                    " with properties but no attAttachData record: no part stored (their "
                    "properties stay in the object file)");
    if (r.keptInObjectFile != 0)
        w.push_back(attachments(r.keptInObjectFile) +
                    " kept whole in the object file only (OLE objects, or data before any "
                    "rendering record), not as parts");
    if (r.embeddedCutShort != 0)
        w.push_back(std::to_string(r.embeddedCutShort) +
                    " embedded message(s) end inside a record; the rest of each was not decoded");
    if (r.cutAt >= 0)
        w.push_back("the stream ends inside a record: the last " + std::to_string(r.bytesNotDecoded) +
                    " bytes, from offset " + std::to_string(r.cutAt) + ", were not decoded");
    // The 6-byte header and one record of 11 bytes without data.
    if (r.fileBytes < 17) w.push_back("the file is too short to hold a TNEF record");
    return w;
}

// Builds, decodes and saves; on an escape the half-built message is removed again.
DecodeResult decodeIntoStore(const std::string& path, const std::string& name, uint32_t addressUpdate,
                             uint32_t suppress) {
    // What the decode stores outside the message goes again if the message is not published.
    const StoreUndoScope undo;
    ReceivedMessage received;
    received.tnefPath = path;
    received.tnefName = name;
    int16_t messageFile = 0;
    MsgOwner message(Msg_BuildReceived(received, &messageFile));
    TfFileOwner receivedFile(messageFile);
    receivedFile.discardItem();
    DecodeResult result;
    try {
        tnef_Decode(message.get(), &messageFile, path.c_str(), &result.receipt,
                    &result.replyRequested, addressUpdate, suppress);
        tnef_GetDecodeReport(&result.report);
        TfFileOwner decodedFile(messageFile);
        decodedFile.discardItem();  // Msg_Save copies it into the message
        Msg_Save(message.get(), decodedFile.get());
    } catch (const Escape&) {
        Msg_Delete(message.release());
        throw;
    }
    result.summary = readStoredSummary(message.get());
    return result;
}

std::string renderDecode(const DecodeResult& r) {
    std::string out = renderSummary(r.summary);
    out += "receipt      " + std::string(receiptName(r.receipt)) + "\n";
    out +=
        "reply        " + std::string(r.replyRequested != 0 ? "requested" : "not requested") + "\n";
    for (const auto& [subject, depth] : r.summary.embedded)
        out += "embedded     " + std::string(2 * (depth - 1), ' ') + readableText(subject) + "\n";
    uint32_t count = 0;
    for (const StoredPart& p : r.summary.parts) count += p.number >= kFirstAttachmentPart ? 1 : 0;
    out += "attachments  " + std::to_string(count) + "\n";
    return out + renderParts(r.summary.parts, kFirstAttachmentPart);
}

}  // namespace

namespace {

// The message is stored whether or not its report reaches stdout: say which one it is.
int reported(const DecodeResult& r, bool written) {
    if (written) return kExitOk;
    reportError("decode", "stored message " + r.summary.id + ", but its report could not be written");
    return kExitError;
}

int cmdDecode(const GlobalOptions& g, const ParsedArgs& p) {
    const std::string& path = p.operands.front();
    const int fd = openInput(path);
    if (fd < 0) return kExitError;
    // --strict weighs the stream (checksums included) before anything is stored; without it
    // decode reads the file once, as the server does, and reports what it did not store.
    std::vector<std::string> streamWarnings;
    if (g.strict && (!checkTnefSignature(fd, path) || !weighStream(g, fd, path, &streamWarnings))) {
        ::close(fd);
        return kExitError;
    }

    DecodeResult r;
    try {
        // Standard input arrives as the attachment it usually is.
        r = decodeIntoStore(inputPath(path, fd), path == "-" ? "winmail.dat" : baseName(path),
                            p.has("--update-addresses") ? 1 : 0, p.has("--suppress-mapi") ? 1 : 0);
    } catch (const Escape& e) {
        ::close(fd);
        reportEscape(path, e);
        return kExitError;
    }
    ::close(fd);
    const std::vector<std::string> warnings = warningsOf(r.report);
    for (const std::string& w : warnings) reportError(path, "warning: " + w);
    if (!g.json) return reported(r, writeOut(renderDecode(r)));
    JsonWriter j;
    j.beginObject();
    jsonSummaryFields(j, r.summary);
    j.field("receipt", receiptName(r.receipt))
        .field("receipt_code", static_cast<uint32_t>(r.receipt))
        .field("reply_requested", r.replyRequested != 0);
    j.key("attachments");
    jsonParts(j, r.summary.parts, kFirstAttachmentPart);
    j.key("warnings").beginArray();
    for (const std::string& w : warnings) j.value(w);
    j.endArray();
    j.endObject();
    return reported(r, writeOut(j.text()));
}

}  // namespace

const CommandSpec kDecodeCommand = {
    "decode", "FILE", 1, 1,
    "decode a TNEF file into a new message of the store",
    "Builds a received message around FILE in the store (under the server home), decodes the\n"
    "TNEF file into it and saves it, then reports the message: its id, subject, class, priority,\n"
    "importance, sensitivity, receipt request, reply request, and each part the decode added\n"
    "(attachments, and the bodies of embedded messages) with its size and where the store keeps\n"
    "it. 'tnefx show ID' shows the message again.\n"
    "\n"
    "With --json: {\"message\",\"folder\",\"subject\",\"class\",\"priority\",\"importance\",\"sensitivity\",\n"
    "\"embedded_messages\":[{\"subject\",\"depth\"}],\"receipt\",\"receipt_code\",\"reply_requested\",\n"
    "\"attachments\":[{\"part\",\"type\",\"name\",\"size\",\"depth\",\"path\"}]}.",
    {
        {"--suppress-mapi", nullptr, "store no object file and no property texts with the message"},
        {"--update-addresses", nullptr, "rewrite addresses of the local mail node to the local form"},
    },
    cmdDecode,
};
