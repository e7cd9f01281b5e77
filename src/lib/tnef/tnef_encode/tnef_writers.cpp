#include "tnef_writers.h"

#include <array>
#include <cstring>

#include "tnef/platform/cust_flags.h"
#include "tnef/platform/er_escape.h"
#include "tnef/platform/os_file.h"
#include "tnef_defs.h"
#include "tnef_propstream.h"

TnefWriterState tnefWriterState = {0, 0, 0, 0, NAMED_PROP_FIRST_ID};

namespace {

// INET_KEEP_RTF_SYNC_PROPS, read on the first property record of the process: -1 unread,
// 1 when the flag is present and false (the RTF sync properties are then left out).
int g_dropRtfSyncProps = -1;

constexpr uint8_t kZeros[4] = {0, 0, 0, 0};

uint16_t byteSum(const void* data, int64_t length) {
    const auto* p = static_cast<const uint8_t*>(data);
    uint32_t sum = 0;
    for (int64_t i = 0; i < length; ++i) sum += p[i];
    return static_cast<uint16_t>(sum);
}

uint16_t byteSum32(uint32_t v) {
    return static_cast<uint16_t>((v & 0xFF) + ((v >> 8) & 0xFF) + ((v >> 16) & 0xFF) + (v >> 24));
}

// Negative lengths come only from broken callers; they write nothing.
uint32_t lengthOf(int32_t n) { return n > 0 ? static_cast<uint32_t>(n) : 0u; }

void writeU16(int fd, uint16_t v) {
    uint8_t b[2];
    tnef_PutU16(b, v);
    os_write(fd, b, 2);
}

void writeU32(int fd, uint32_t v) {
    uint8_t b[4];
    tnef_PutU32(b, v);
    os_write(fd, b, 4);
}

bool isSuppressed(uint32_t tag) {
    static constexpr uint32_t kNeverWritten[] = {
        PR_SENT_REPRESENTING_ADDRTYPE, PR_SENT_REPRESENTING_EMAIL_ADDRESS,
        PR_SENT_REPRESENTING_ENTRYID,  PR_SENT_REPRESENTING_NAME,
        PR_SENT_REPRESENTING_SEARCH_KEY, PR_REPLY_RECIPIENT_ENTRIES};
    static constexpr uint32_t kRtfSync[] = {PR_RTF_SYNC_BODY_CRC, PR_RTF_SYNC_BODY_COUNT,
                                            PR_RTF_SYNC_BODY_TAG, PR_RTF_SYNC_PREFIX_COUNT,
                                            PR_RTF_SYNC_TRAILING_COUNT};
    if (g_dropRtfSyncProps < 0)
        g_dropRtfSyncProps = cust_PresentAndFalse("INET_KEEP_RTF_SYNC_PROPS") ? 1 : 0;
    if (g_dropRtfSyncProps == 1)
        for (uint32_t t : kRtfSync)
            if (t == tag) return true;
    for (uint32_t t : kNeverWritten)
        if (t == tag) return true;
    return false;
}

// Bytes of the value part: value count, value length, value, padding.
uint32_t valuePartLength(uint32_t tag, uint32_t n) {
    return n + tnef_Pad4(n) + (tnef_HasValueCount(tag) ? 4 : 0) + (tnef_IsVariableSize(tag) ? 4 : 0);
}

// Byte sum of the value part's fields other than the value bytes.
uint16_t valuePartFieldSum(uint32_t tag, uint32_t n) {
    uint16_t sum = 0;
    if (tnef_HasValueCount(tag)) sum = static_cast<uint16_t>(sum + 1);
    if (tnef_IsVariableSize(tag)) sum = static_cast<uint16_t>(sum + byteSum32(n));
    return sum;
}

// Level 1 and attMAPIProps, then the length, the property count 1 and the tag; remembers
// where the length field lies for later updates.
void beginPropertyRecord(int fd, uint32_t tag) {
    uint8_t head[5];
    head[0] = LVL_MESSAGE;
    tnef_PutU32(head + 1, attMAPIProps);
    os_write(fd, head, sizeof head);
    tnefWriterState.lengthFieldPos = os_lseek64(fd, 0, 1);
    uint8_t fields[12];
    tnef_PutU32(fields, tnefWriterState.attrLength);
    tnef_PutU32(fields + 4, 1);
    tnef_PutU32(fields + 8, tag);
    os_write(fd, fields, sizeof fields);
}

}  // namespace

uint16_t tnef_NextNamedPropId(uint16_t id) {
    return id == NAMED_PROP_LAST_ID ? NAMED_PROP_FIRST_ID : static_cast<uint16_t>(id + 1);
}

void tnef_Create(int fd) {
    ErTraceScope trace(TNEF_TRACE_CLASS, "tnef_Create");
    uint8_t head[21];
    tnef_PutU32(head, TNEF_SIGNATURE);
    tnef_PutU16(head + 4, TNEF_KEY);
    head[6] = LVL_MESSAGE;
    tnef_PutU32(head + 7, attTnefVersion);
    tnef_PutU32(head + 11, 4);
    tnef_PutU32(head + 15, TNEF_VERSION_VALUE);
    tnef_PutU16(head + 19, tnef_Checksum(head + 15, 4));
    os_write(fd, head, sizeof head);
}

void tnef_AddMsgAttribute(int fd, uint32_t attribute, uint32_t length, const void* data) {
    ErTraceScope trace(TNEF_TRACE_CLASS, "tnef_AddMsgAttribute");
    uint8_t head[9];
    head[0] = LVL_MESSAGE;
    tnef_PutU32(head + 1, attribute);
    tnef_PutU32(head + 5, length);
    os_write(fd, head, sizeof head);
    os_write(fd, data, length);
    uint32_t sum = 0;
    const auto* p = static_cast<const uint8_t*>(data);
    for (uint32_t i = 0; i < length; ++i) sum += p[i];
    writeU16(fd, static_cast<uint16_t>(sum));
}

void tnef_AddMAPIPropsAttribute(int fd, uint32_t tag, int32_t length, const void* value) {
    ErTraceScope trace(TNEF_TRACE_CLASS, "tnef_AddMAPIPropsAttribute");
    if (isSuppressed(tag)) return;
    const uint32_t n = lengthOf(length);
    TnefWriterState& st = tnefWriterState;
    // The property count (1) and the tag are the record's first counted bytes.
    st.checksum = static_cast<uint16_t>(1 + byteSum32(tag) + byteSum(value, n) +
                                        valuePartFieldSum(tag, n));
    st.attrLength = 8 + valuePartLength(tag, n);
    beginPropertyRecord(fd, tag);
    tnef_AddMAPIPropsData(fd, tag, length, value);
    writeU16(fd, st.checksum);
}

void tnef_AddMAPIPropsData(int fd, uint32_t tag, int32_t length, const void* value) {
    const uint32_t n = lengthOf(length);
    if (tnef_HasValueCount(tag)) {
        tnefWriterState.valueCountPos = os_lseek64(fd, 0, 1);
        writeU32(fd, 1);
    }
    if (tnef_IsVariableSize(tag)) writeU32(fd, n);
    os_write(fd, value, n);
    os_write(fd, kZeros, tnef_Pad4(n));
}

void tnef_AddMAPINamedPropsAttr(int fd, const void* name, int32_t nameLength, uint16_t type,
                                const uint8_t guid[16], int32_t valueLength, const void* value,
                                uint32_t kind) {
    ErTraceScope trace(TNEF_TRACE_CLASS, "tnef_AddMAPINamedPropsAttr");
    TnefWriterState& st = tnefWriterState;
    const uint32_t m = lengthOf(nameLength);
    const uint32_t n = lengthOf(valueLength);
    const uint32_t tag = PROP_TAG(type, st.nextNamedId);
    st.nextNamedId = tnef_NextNamedPropId(st.nextNamedId);
    const bool stringName = kind != MNID_ID;

    uint32_t sum = 1u + byteSum32(tag) + byteSum(name, m) + byteSum(value, n) +
                   byteSum(guid, 16) + byteSum32(kind) + valuePartFieldSum(tag, n);
    if (stringName) sum += byteSum32(m);
    st.checksum = static_cast<uint16_t>(sum);
    st.attrLength = 28 + m + (stringName ? 4 + tnef_Pad4(m) : 0) + valuePartLength(tag, n);

    beginPropertyRecord(fd, tag);
    os_write(fd, guid, 16);
    writeU32(fd, kind);
    if (stringName) writeU32(fd, m);
    os_write(fd, name, m);
    os_write(fd, kZeros, tnef_Pad4(m));
    tnef_AddMAPIPropsData(fd, tag, valueLength, value);
    writeU16(fd, st.checksum);
}

void tnef_UpdateMAPIPropsData(int fd, uint32_t valueCount, int32_t length, const void* value,
                              int fixedSize) {
    ErTraceScope trace(TNEF_TRACE_CLASS, "tnef_UpdateMAPIPropsData");
    TnefWriterState& st = tnefWriterState;
    const uint32_t n = lengthOf(length);
    const int64_t end = os_lseek64(fd, 0, 1);

    st.attrLength += n + tnef_Pad4(n) + (fixedSize ? 0 : 4);
    os_lseek64(fd, st.lengthFieldPos, 0);
    writeU32(fd, st.attrLength);
    os_lseek64(fd, st.valueCountPos, 0);
    writeU32(fd, valueCount);
    // The new value goes where the old checksum stood.
    os_lseek64(fd, end - 2, 0);
    if (!fixedSize) writeU32(fd, n);
    os_write(fd, value, n);
    os_write(fd, kZeros, tnef_Pad4(n));

    // The count field held the previous total, one less than the new one.
    uint32_t sum = st.checksum + byteSum32(valueCount) - byteSum32(valueCount - 1) +
                   byteSum(value, n);
    if (!fixedSize) sum += byteSum32(n);
    st.checksum = static_cast<uint16_t>(sum);
    writeU16(fd, st.checksum);
}
