#include "tnef_decode/tnef_records.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <memory>
#include <string>

#include "tnef/platform/er_escape.h"
#include "tnef/platform/mapi_blob.h"
#include "tnef/platform/os_file.h"
#include "tnef_decode/tnef_bounded_read.h"
#include "tnef_defs.h"
#include "tnef_propstream.h"

bool tnef_ReadU32(int tnefFd, uint32_t* value) {
    uint8_t b[4] = {};
    const bool whole = os_read(tnefFd, b, 4) == 4;
    *value = tnef_GetU32(b);
    return whole;
}

bool tnef_SkipChecksum(int tnefFd) {
    uint8_t b[2];
    return os_read(tnefFd, b, 2) == 2;
}

bool tnef_ReadRecordHead(int tnefFd, uint8_t* level, uint32_t* id) {
    uint8_t head[5];
    if (os_read(tnefFd, head, 1) != 1) return false;
    if (os_read(tnefFd, head + 1, 4) != 4) return false;
    *level = head[0];
    *id = tnef_GetU32(head + 1);
    return true;
}

bool tnef_AddToObjectFile(int objectFd, int tnefFd, uint32_t id, uint8_t level) {
    uint32_t length = 0;
    uint8_t head[9];
    head[0] = level;
    tnef_PutU32(head + 1, id);
    if (!tnef_ReadU32(tnefFd, &length)) return false;
    tnef_PutU32(head + 5, length);
    os_write(objectFd, head, sizeof head);
    const uint64_t block = static_cast<uint64_t>(length) + 2;  // data and checksum
    if (block <= TNEF_TEXT_CAPACITY) {
        std::array<uint8_t, TNEF_TEXT_CAPACITY> buffer;
        const int64_t n = os_read(tnefFd, buffer.data(), static_cast<int64_t>(block));
        os_write(objectFd, buffer.data(), n);
        return static_cast<uint64_t>(n) == block;
    }
    // A length the stream cannot hold must not size the buffer: copy what is there.
    uint64_t take = block;
    const int64_t size = os_fsize(tnefFd);
    if (size >= 0) {
        const int64_t left = size - os_lseek64(tnefFd, 0, 1);
        if (left >= 0 && static_cast<uint64_t>(left) < take) take = static_cast<uint64_t>(left);
    }
    std::unique_ptr<uint8_t, decltype(&os_free)> buffer(
        static_cast<uint8_t*>(os_malloc(static_cast<size_t>(take))), &os_free);
    if (!buffer)
        er_TracedEscapeText(ER_GROUP_IO, ENOMEM, TNEF_UNIT_DECODE, __LINE__,
                            "no memory to copy a record of " + std::to_string(take) + " bytes");
    const int64_t n = os_read(tnefFd, buffer.get(), static_cast<int64_t>(take));
    os_write(objectFd, buffer.get(), n);
    return static_cast<uint64_t>(n) == block;
}

int16_t tnef_NewTempMessageFile() {
    ItemRef ref{};
    OsFd created(im_CrNewTempItem(&ref));
    // Owned before the close, which can fail too.
    ImItemOwner item(ref);
    created.close();
    const int16_t tf = tf_CreateFromItemRef(ref);
    item.release();
    return tf;
}

void tnef_CopyRecords(int16_t destination, int16_t source) {
    tf_UnreadFile(source);
    TFREC record;
    while (tf_ReadRecord(source, &record) != 0) tf_AppendRecord(destination, &record);
}

uint16_t tnef_MapPriority(uint16_t tnefPriority) {
    if (tnefPriority == 3) return 1;
    if (tnefPriority == 1) return 2;
    return 0;
}

namespace {

void appendHex(dstring* text, uint32_t value) {
    // The text buffer of a hexadecimal number holds 4079 characters and its NUL.
    std::array<char, TNEF_TEXT_CAPACITY> digits;
    int length = 0;
    os_ul2str(value, 16, 1, digits.data(), &length);
    if (length > static_cast<int>(TNEF_TEXT_CAPACITY) - 1)
        er_TracedEscape(ER_GROUP_TNEF, ER_TNEF_TOO_LONG, TNEF_UNIT_DECODE, __LINE__);
    dstring_appendN(text, digits.data(), static_cast<size_t>(length));
}

}  // namespace

void tnef_AppendHexKey(dstring* text, uint32_t tag) {
    appendHex(text, tag);
    dstring_appendChar(text, BLOB_VALUE_SEP);
}

void tnef_AppendHexValueEnd(dstring* text, uint32_t value) {
    appendHex(text, value);
    dstring_appendChar(text, BLOB_ENTRY_SEP);
}

void tnef_AppendHexEntry(dstring* text, uint32_t tag, uint32_t value) {
    tnef_AppendHexKey(text, tag);
    tnef_AppendHexValueEnd(text, value);
}

void tnef_StreamToDataItem(int tnefFd, uint32_t length, TnefDataItem* out) {
    ItemRef ref{};
    uint32_t kind = 0;
    OsFd item(im_CrNewDataItem(&kind, &ref));
    out->item.emplace(ref);
    // The first bytes are read here, to tell the embedded-message marker; the rest is copied
    // without passing through the process, which keeps memory flat whatever the size.
    const int64_t headWant = std::min<int64_t>(length, sizeof out->head);
    const int64_t head = headWant > 0 ? os_read(tnefFd, out->head, headWant) : 0;
    if (head > 0) os_write(item.get(), out->head, head);
    out->copied = head > 0 ? static_cast<uint64_t>(head) : 0;
    if (head == headWant) out->copied += static_cast<uint64_t>(os_CopyRange(tnefFd, item.get(), length - head));
    out->complete = out->copied == length;
    item.close();
}

bool tnef_IsEmbeddedMarker(const TnefDataItem& data) {
    static constexpr char kMarker[] = "MAPI 1.0 embedded message";  // 26 bytes with its NUL
    static_assert(sizeof kMarker == sizeof TnefDataItem::head);
    return data.copied == sizeof kMarker && std::memcmp(data.head, kMarker, sizeof kMarker) == 0;
}

bool tnef_TakeRenddata(int objectFd, int tnefFd, uint8_t level, uint16_t* attachType) {
    const int64_t lengthPos = os_lseek64(tnefFd, 0, 1);
    uint32_t length = 0;
    if (!tnef_ReadU32(tnefFd, &length)) return false;
    uint8_t data[16] = {};
    if (tnef_ReadBounded(tnefFd, data, length, sizeof data) != static_cast<int64_t>(length))
        return false;
    *attachType = tnef_GetU16(data);
    os_lseek64(tnefFd, lengthPos, 0);
    return tnef_AddToObjectFile(objectFd, tnefFd, attAttachRenddata, level);
}

void tnef_AppendContentFile(int16_t tf, uint32_t contentType, const char* partName,
                            const char* fileName, const char* extraText) {
    TFREC_content_file description;
    tf_initTFREC_content_file(&description, contentType);
    description.partName = partName;
    description.fileName = fileName;
    description.extraText = extraText;
    TFREC record;
    tf_ContentFileRecFromStruc(&record, &description);
    tf_AppendRecord(tf, &record);
}

bool tnef_TakeAidOwner(int tnefFd, dstring* secondaryText) {
    // attAidOwner travels as PR_OWNER_APPT_ID.
    tnef_AppendHexKey(secondaryText, PR_OWNER_APPT_ID);
    uint32_t length = 0;
    if (!tnef_ReadU32(tnefFd, &length)) return false;
    uint8_t value[4] = {};
    const int64_t n = tnef_ReadBounded(tnefFd, value, length, 4);
    tnef_AppendHexValueEnd(secondaryText, tnef_GetU32(value));
    return n == static_cast<int64_t>(length) && tnef_SkipChecksum(tnefFd);
}
