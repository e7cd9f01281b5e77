// Property lookup: walks the attribute records of a TNEF file and returns the requested
// MAPI property, or all of them with the attachment and recipient tables, as blob text.

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <new>
#include <string>

#include "tnef/platform/dstring.h"
#include "tnef/platform/er_escape.h"
#include "tnef/platform/mapi_blob.h"
#include "tnef/platform/mapi_date.h"
#include "tnef/platform/os_file.h"
#include "tnef/tnef.h"
#include "tnef_defs.h"
#include "tnef_prop/tnef_extract.h"
#include "tnef_prop/tnef_proplog.h"
#include "tnef_propstream.h"

namespace {

// The attachment attributes are written under the MAPI tags that carry the same data, as
// the exact eight-digit texts the blob writer compares.
constexpr const char* kTagCreationTime = "30070040";          // PR_CREATION_TIME
constexpr const char* kTagLastModificationTime = "30080040";  // PR_LAST_MODIFICATION_TIME
constexpr const char* kTagAttachFilename = "3704001e";        // PR_ATTACH_FILENAME
constexpr const char* kTagAttachRendering = "37090102";       // PR_ATTACH_RENDERING
constexpr const char* kTagAttachDataBin = "37010102";         // PR_ATTACH_DATA_BIN

// Offset of the first record: the 4-byte signature and the 2-byte key come first.
constexpr int64_t kFirstRecordOffset = 6;

struct FreeText {
    void operator()(char* text) const { std::free(text); }
};
using OwnedText = std::unique_ptr<char, FreeText>;

struct MdcFreeText {
    void operator()(char* text) const { mdc_free(text); }
};

struct PropRequest {
    uint32_t tag = 0;  // a plain request's whole tag; 0 for "GET-ALL" and named requests
    uint16_t type = 0;
    uint16_t id = 0;
};

PropRequest parseRequest(const char* request) {
    PropRequest parsed;
    if (request == nullptr || std::strcmp(request, "GET-ALL") == 0) return parsed;
    if (request[0] != '#') {
        parsed.tag = os_str2ul(request, 16);
        parsed.type = PROP_TYPE(parsed.tag);
        parsed.id = PROP_ID(parsed.tag);
        return parsed;
    }
    // "#type/id"; anything past the buffer is dropped, and without "/" it asks for all.
    std::array<char, TNEF_NAMED_REQUEST_CAPACITY> named{};
    std::memcpy(named.data(), request, strnlen(request, named.size() - 1));
    const char* slash = std::strchr(named.data(), '/');
    if (slash != nullptr) {
        parsed.type = static_cast<uint16_t>(os_str2ul(named.data() + 1, 16));
        parsed.id = static_cast<uint16_t>(os_str2ul(slash + 1, 16));
    }
    return parsed;
}

// Working state of one tnef_GetProp call.
struct GetPropWalk {
    int fd;
    PropRequest request;
    char** propsOut;
    char** recipsOut;  // null: the recipient table is not wanted
    bool attachWanted;
    int found = 0;
    // 0 at start, 1 once attAttachRenddata opened a row, 2 once an attAttachment list was added.
    int rowState = 0;
    dstring attach;
    dstring recips;
};

bool readU32(int fd, uint32_t& value) {
    uint8_t bytes[4];
    if (!tnef_PropReadExact(fd, bytes, sizeof bytes)) return false;
    value = tnef_GetU32(bytes);
    return true;
}

void logScanHead(const char* fileName, uint32_t tag) {
    if (tnefPropLog == nullptr) return;
    const std::time_t now = std::time(nullptr);
    char when[64] = "\n";
    if (ctime_r(&now, when) == nullptr) std::strcpy(when, "\n");
    const char* name = fileName != nullptr ? fileName : "";
    if (tag != 0)
        tnef_PropLogf("\nTNEF file scan of %s for 0x%x: %s", name, tag, when);
    else
        tnef_PropLogf("\nTNEF file scan of %s for all props: %s", name, when);
}

void renderMessageProps(GetPropWalk& w, uint32_t length) {
    tnef_PropLogf("Processing attMAPIProps\n");
    char* rendered = nullptr;
    tnef_GetPropValue(w.fd, w.request.type, w.request.id, &w.found, length, &rendered);
    OwnedText text(rendered);
    // A text is kept only once found is set, and after that a list renders nothing: the
    // first text is the one to return.
    if (text != nullptr && *w.propsOut == nullptr) *w.propsOut = text.release();
}

void renderRenddata(GetPropWalk& w, uint32_t length) {
    w.rowState = 1;
    tnef_PropLogf("Processing attAttachRenddata len=%lu\n", static_cast<unsigned long>(length));
    // A longer record is not a rendering record we know: it stands as zeros.
    std::array<uint8_t, TNEF_RENDDATA_SIZE> record{};
    if (length <= record.size() && !tnef_PropReadExact(w.fd, record.data(), length)) return;
    if (dstring_length(&w.attach) != 0) dstring_appendChar(&w.attach, BLOB_ROW_SEP);
    dstring_append1(&w.attach, "RENDDATA");
    dstring_appendChar(&w.attach, BLOB_VALUE_SEP);
    mapi_BlobEncodeToDstring(record.data(), record.size(), &w.attach);
}

void renderAttachment(GetPropWalk& w, uint32_t length) {
    tnef_PropLogf("Processing attAttachment\n");
    int found = 0;
    char* rendered = nullptr;
    tnef_GetPropValue(w.fd, w.request.type, w.request.id, &found, length, &rendered);
    OwnedText text(rendered);
    if (text == nullptr) return;
    if (w.rowState != 2)
        dstring_appendChar(&w.attach, BLOB_ENTRY_SEP);
    else if (dstring_length(&w.attach) != 0)
        dstring_appendChar(&w.attach, BLOB_ROW_SEP);
    w.rowState = 2;
    dstring_append1(&w.attach, text.get());
}

void renderRecipTable(GetPropWalk& w, uint32_t length) {
    uint32_t rows = 0;
    if (!readU32(w.fd, rows)) return;
    dstring_set1(&w.recips, "");
    for (uint32_t r = 0; r < rows; ++r) {
        tnef_PropLogf("Processing attRecipTable row %d:\n", static_cast<int>(r));
        // Every property of every row, whatever was asked for.
        int found = 0;
        char* rendered = nullptr;
        tnef_GetPropValue(w.fd, 0, 0, &found, length, &rendered);
        OwnedText text(rendered);
        if (text != nullptr) dstring_append1(&w.recips, text.get());
        // The row count is the file's word: rows end where the file does.
        if (hitTnefEof) break;
        if (r + 1 < rows) dstring_appendChar(&w.recips, BLOB_ROW_SEP);
    }
    // A later table replaces an earlier one.
    OwnedText previous(*w.recipsOut);
    *w.recipsOut = nullptr;
    *w.recipsOut = tnef_NewText(&w.recips);
}

void actOnAttribute(GetPropWalk& w, uint32_t attribute, uint32_t length) {
    const int fd = w.fd;
    switch (attribute) {
        case attMAPIProps:
            renderMessageProps(w, length);
            return;
        case attRecipTable:
            if (w.recipsOut != nullptr) renderRecipTable(w, length);
            return;
        default:
            break;
    }
    if (!w.attachWanted) return;
    switch (attribute) {
        case attAttachRenddata:
            renderRenddata(w, length);
            break;
        case attAttachCreateDate:
            tnef_GetAttachDate(fd, kTagCreationTime, length, &w.attach);
            break;
        case attAttachModifyDate:
            tnef_GetAttachDate(fd, kTagLastModificationTime, length, &w.attach);
            break;
        case attAttachTitle:
            tnef_GetAttachAttr(fd, kTagAttachFilename, "attAttachTitle", length, 1, &w.attach);
            break;
        case attAttachMetaFile:
            tnef_GetAttachAttr(fd, kTagAttachRendering, "attAttachMetaFile", length, 0, &w.attach);
            break;
        case attAttachData:
            tnef_GetAttachAttr(fd, kTagAttachDataBin, "attAttachData", length, 0, &w.attach);
            break;
        case attAttachment:
            renderAttachment(w, length);
            break;
        default:
            break;
    }
}

// Walks the records until the file ends. Every record is found from its own header, however
// much of its data the action read, and each one moves the walk at least 11 bytes on.
void walkRecords(GetPropWalk& w) {
    hitTnefEof = 0;
    tnef_PropSeek(w.fd, kFirstRecordOffset, 0, &hitTnefEof);
    for (;;) {
        uint8_t level = 0;  // not used
        if (!tnef_PropReadExact(w.fd, &level, 1)) return;
        const int64_t at = tnef_PropSeek(w.fd, 0, 1, &hitTnefEof);
        uint8_t head[8];
        if (at < 0 || !tnef_PropReadExact(w.fd, head, sizeof head)) return;
        const uint32_t attribute = tnef_GetU32(head);
        const uint32_t length = tnef_GetU32(head + 4);

        char marker = ' ';
        // Request 0 is "GET-ALL", which asks for no attribute.
        if (w.found == 0 && w.request.tag != 0 && attribute == w.request.tag) {
            w.found = 1;
            marker = '*';
        }
        tnef_PropLogf("%c Attrib: 0x%.8x, Size = %-7d offset = %d\n", marker, attribute,
                      static_cast<int>(length), static_cast<int>(at));
        actOnAttribute(w, attribute, length);
        // The 2-byte checksum after the data is not verified.
        const int64_t next = at + 8 + static_cast<int64_t>(length) + 2;
        if (tnef_PropSeek(w.fd, next, 0, &hitTnefEof) < 0) return;
    }
}

// Leaves the process and the file as tnef_GetProp found them: log closed, flag clear,
// file at offset 0.
void endWalk(int fd) {
    tnef_ClosePropLog();
    hitTnefEof = 0;
    tnef_PropSeek(fd, 0, 0, &hitTnefEof);
}

void dropText(char** text) {
    if (text == nullptr) return;
    std::free(*text);
    *text = nullptr;
}

}  // namespace

void tnef_GetAttachDate(int fd, const char* tagText, uint32_t length, dstring* text) {
    tnef_PropLogf("Processing date attachment %s len=%lu\n", tagText,
                  static_cast<unsigned long>(length));
    if (length >= TNEF_ATTACH_DATE_LIMIT) {
        tnef_PropSeek(fd, static_cast<int64_t>(length) + 2, 1, &hitTnefEof);
        return;
    }
    // Year, month, day, hour, minute, second, day of week; fields past the data stay 0.
    std::array<uint8_t, TNEF_ATTACH_DATE_LIMIT> record{};
    if (!tnef_PropReadExact(fd, record.data(), length)) return;
    tnef_PropSeek(fd, 2, 1, &hitTnefEof);
    uint16_t field[6];
    for (int i = 0; i < 6; ++i) field[i] = tnef_GetU16(record.data() + 2 * i);

    char iso[64];
    std::snprintf(iso, sizeof iso, "%d-%02d-%02dT%02d:%02d:%02dZ", field[0], field[1], field[2],
                  field[3], field[4], field[5]);
    char* encoded = nullptr;
    mapi_BlobEncodeSYSTIME(iso, &encoded);
    const std::unique_ptr<char, MdcFreeText> result(encoded);
    if (result == nullptr) return;
    dstring_appendChar(text, BLOB_ENTRY_SEP);
    dstring_append1(text, tagText);
    dstring_appendChar(text, BLOB_VALUE_SEP);
    dstring_append1(text, result.get());
}

void tnef_GetAttachAttr(int fd, const char* tagText, const char* attributeName, uint32_t length,
                        int stripTrailingNuls, dstring* text) {
    tnef_PropLogf("Processing %s len=%lu\n", attributeName, static_cast<unsigned long>(length));
    // The length is the file's claim: read in bounded chunks, so memory grows only by what
    // the file really holds. Without trailing NULs to strip, each chunk is encoded as it
    // comes, so the text is the only copy of the data.
    const size_t rollback = dstring_length(text);
    dstring_appendChar(text, BLOB_ENTRY_SEP);
    dstring_append1(text, tagText);
    dstring_appendChar(text, BLOB_VALUE_SEP);
    text->text.reserve(text->text.size() + length + length / 4);
    std::string data;
    std::array<char, TNEF_COPY_CHUNK> chunk;
    for (uint32_t left = length; left != 0;) {
        const uint32_t n = left < TNEF_COPY_CHUNK ? left : TNEF_COPY_CHUNK;
        // Data cut by the end of the file gives no entry; the walk ends after it.
        if (!tnef_PropReadExact(fd, chunk.data(), n)) {
            dstring_setLength(text, rollback);
            return;
        }
        if (stripTrailingNuls == 1)
            data.append(chunk.data(), n);
        else
            mapi_BlobEncodeToDstring(chunk.data(), n, text);
        left -= n;
    }
    tnef_PropSeek(fd, 2, 1, &hitTnefEof);
    size_t used = data.size();
    while (used != 0 && data[used - 1] == '\0') --used;
    mapi_BlobEncodeToDstring(data.data(), used, text);
}

int tnef_GetProp(int fd, const char* request, char** propsOut, char** recipsOut, char** attachOut,
                 const char* fileName) {
    ErTraceScope trace(TNEF_TRACE_CLASS_PROP, "tnef_GetProp");
    // Field-by-field I/O is buffered for the call; offsets are exact again on return.
    OsIoBatch ioBatch;
    if (propsOut == nullptr) return 0;
    *propsOut = nullptr;
    if (recipsOut != nullptr) *recipsOut = nullptr;
    if (attachOut != nullptr) *attachOut = nullptr;

    GetPropWalk w{fd, parseRequest(request), propsOut, recipsOut, attachOut != nullptr, 0, 0, {},
                  {}};
    dstring_init(&w.attach);
    dstring_init(&w.recips);
    tnef_OpenPropLog();
    logScanHead(fileName, w.request.tag);

    try {
        try {
            walkRecords(w);
        } catch (Escape& e) {
            tnef_PropLogf("** Error detected: %d/%d\n", er_GetGroup(e), er_GetReason(e));
            er_Accept(e, 7);
            if (er_GetLive(e)) {
                er_TraceBeforeJump(TNEF_UNIT_PROP, __LINE__);
                throw;
            }
        }
        endWalk(fd);
        if (attachOut != nullptr && dstring_length(&w.attach) != 0)
            *attachOut = tnef_NewText(&w.attach);
    } catch (const Escape&) {
        // The caller's handler gets the escape and no text to free.
        endWalk(fd);
        dropText(propsOut);
        dropText(recipsOut);
        throw;
    } catch (const std::bad_alloc&) {
        endWalk(fd);
        dropText(propsOut);
        dropText(recipsOut);
        er_TracedEscape(ER_GROUP_IO, ENOMEM, TNEF_UNIT_PROP, __LINE__);
    }
    dstring_free(&w.attach);
    dstring_free(&w.recips);
    if (w.found == 0) dropText(propsOut);
    return w.found;
}
