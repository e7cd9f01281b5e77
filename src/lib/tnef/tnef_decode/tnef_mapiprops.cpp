#include "tnef_decode/tnef_mapiprops.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <memory>
#include <string>

#include "tnef/platform/cust_flags.h"
#include "tnef/platform/er_escape.h"
#include "tnef/platform/mapi_blob.h"
#include "tnef/platform/os_file.h"
#include "tnef/tnef.h"
#include "tnef_decode/tnef_augment.h"
#include "tnef_decode/tnef_bounded_read.h"
#include "tnef_decode/tnef_records.h"
#include "tnef_propstream.h"

namespace {
// What a slot holds before any set entry was written: matches no property set.
constexpr const TnefGuid& kUnsetSlot = TNEF_UNSET_SLOT;
}  // namespace

TnefGuid tnefLastSetMsgMain = kUnsetSlot;
TnefGuid tnefLastSetMsgSecondary = kUnsetSlot;
TnefGuid tnefLastSetAttachMain = kUnsetSlot;
TnefGuid tnefLastSetAttachSecondary = kUnsetSlot;

void tnef_ForgetSetSlots() {
    tnefLastSetMsgMain = kUnsetSlot;
    tnefLastSetMsgSecondary = kUnsetSlot;
    tnefLastSetAttachMain = kUnsetSlot;
    tnefLastSetAttachSecondary = kUnsetSlot;
}

namespace {

// ---- Stream reads --------------------------------------------------------------------------

bool readU16Padded(int fd, uint16_t& value) {
    uint8_t b[4] = {};
    const bool whole = os_read(fd, b, 4) == 4;
    value = tnef_GetU16(b);
    return whole;
}

void skipPadding(int fd, uint64_t length) {
    const uint32_t pad = tnef_Pad4(length);
    if (pad != 0) os_lseek64(fd, pad, 1);
}

// ---- Text pieces ---------------------------------------------------------------------------

void appendPiece(dstring* text, const char* data, size_t n) {
    if (n > TNEF_PIECE_MAX)
        er_TracedEscapeText(ER_GROUP_TNEF, ER_TNEF_TOO_LONG, TNEF_UNIT_DECODE, __LINE__,
                            "property text piece of " + std::to_string(n) + " bytes");
    dstring_appendN(text, data, n);
}

void appendChar(dstring* text, char c) { dstring_appendChar(text, c); }

void appendHex(dstring* text, uint32_t value) {
    char digits[33];
    int length = 0;
    os_ul2str(value, 16, 1, digits, &length);
    appendPiece(text, digits, static_cast<size_t>(length));
}

// Escaped bytes, at most one text buffer's worth at a time.
void appendEscaped(dstring* text, const uint8_t* bytes, uint32_t n) {
    std::array<char, 2 * TNEF_TEXT_CAPACITY> out;
    while (n > 0) {
        const uint32_t take = n < TNEF_TEXT_CAPACITY ? n : TNEF_TEXT_CAPACITY;
        appendPiece(text, out.data(), static_cast<size_t>(tnef_EncodeBinary(
                                          out.data(), bytes, static_cast<int32_t>(take))));
        bytes += take;
        n -= take;
    }
}

void appendSetEntry(dstring* text, const uint8_t* set) {
    appendPiece(text, "GUID", 4);
    appendChar(text, BLOB_VALUE_SEP);
    appendEscaped(text, set, 16);
    appendChar(text, BLOB_ENTRY_SEP);
}

// ---- Values --------------------------------------------------------------------------------

// One fixed-size value's text: 16-bit types and 32-bit types as hexadecimal numbers, wider
// ones as their escaped bytes.
void appendFixedValue(dstring* text, int fd, const TnefPropTypeInfo& info) {
    uint8_t value[16] = {};
    os_read(fd, value, info.slotSize);
    if (info.dataSize == 2)
        appendHex(text, tnef_GetU16(value));
    else if (info.dataSize == 4)
        appendHex(text, tnef_GetU32(value));
    else
        appendEscaped(text, value, info.dataSize);
}

TnefPropTypeInfo fixedInfo(uint16_t type) {
    const uint16_t base = type & static_cast<uint16_t>(~MV_FLAG);
    return tnef_PropTypeInfo(base);
}

// Multi-valued fixed-size types: the values joined by the value separator. A count that
// cannot fit in the attribute is corrupt; it is cut to what the attribute can hold, and the
// loop ends where the stream does.
void appendFixedValues(dstring* text, int fd, uint16_t type, uint32_t attrLength) {
    const TnefPropTypeInfo info = fixedInfo(type);
    TnefDecodeSource s{fd};
    uint32_t count = 0;
    if (!tnef_ReadValueCount(s, tnef_PropTypeInfo(type), count)) return;
    const uint32_t fits = attrLength / info.slotSize;
    if (count > fits) count = fits;
    for (uint32_t i = 0; i < count; ++i) {
        if (i > 0) appendChar(text, BLOB_VALUE_SEP);
        const int64_t before = os_lseek64(fd, 0, 1);
        appendFixedValue(text, fd, info);
        if (os_lseek64(fd, 0, 1) - before < info.slotSize) break;
    }
}

// The 16-bit, 32-bit and wide fixed types of the decoder's text; every other type takes the
// general path of counted, length-prefixed values.
bool isFixedTextType(uint16_t type) {
    switch (type) {
        case PT_I2: case PT_BOOLEAN: case PT_LONG: case PT_R4: case PT_ERROR:
        case PT_DOUBLE: case PT_CURRENCY: case PT_APPTIME: case PT_I8: case PT_SYSTIME:
        case PT_CLSID:
        case PT_MV_I2: case MV_FLAG | PT_BOOLEAN: case PT_MV_LONG: case PT_MV_R4:
        case MV_FLAG | PT_ERROR: case PT_MV_DOUBLE: case PT_MV_CURRENCY: case PT_MV_APPTIME:
        case PT_MV_I8: case PT_MV_SYSTIME: case PT_MV_CLSID:
            return true;
        default:
            return false;
    }
}

// Where a property of the general path is written when its value is too long for the text.
struct ObjectTarget {
    int fd;
    uint32_t tag;
    const uint8_t* set;  // null for a plain property
    uint32_t kind;
    uint32_t lid;
    const uint8_t* name;
    uint32_t nameLength;
};

// Reads a long value and writes it to the object file as an attMAPIProps record of its own.
// A value claiming more bytes than the stream still holds is taken as what is there, so a
// lying length never makes a huge allocation or a record of uninitialised bytes.
void writeValueToObjectFile(const ObjectTarget& target, int tnefFd, uint32_t length) {
    uint64_t take = length;
    const int64_t size = os_fsize(tnefFd);
    if (size >= 0) {
        const int64_t left = size - os_lseek64(tnefFd, 0, 1);
        if (left < 0) take = 0;
        else if (static_cast<uint64_t>(left) < take) take = static_cast<uint64_t>(left);
    }
    std::unique_ptr<uint8_t, decltype(&os_free)> buffer(
        static_cast<uint8_t*>(os_malloc(static_cast<size_t>(take))), &os_free);
    if (!buffer)
        er_TracedEscapeText(ER_GROUP_IO, ENOMEM, TNEF_UNIT_DECODE, __LINE__,
                            "no memory for a property value of " + std::to_string(take) + " bytes");
    const auto n = static_cast<int32_t>(os_read(tnefFd, buffer.get(), static_cast<int64_t>(take)));
    const uint16_t type = PROP_TYPE(target.tag);
    if (target.set == nullptr) {
        tnef_AddMAPIPropsAttribute(target.fd, target.tag, n, buffer.get());
    } else if (target.kind != MNID_ID) {
        tnef_AddMAPINamedPropsAttr(target.fd, target.name, static_cast<int32_t>(target.nameLength),
                                   type, target.set, n, buffer.get(), MNID_STRING);
    } else {
        uint8_t lid[4];
        tnef_PutU32(lid, target.lid);
        tnef_AddMAPINamedPropsAttr(target.fd, lid, 4, type, target.set, n, buffer.get(), MNID_ID);
    }
    // Skip what the length claimed beyond the stream, so the padding read stays aligned.
    if (take < length) os_lseek64(tnefFd, static_cast<int64_t>(length - take), 1);
}

// Bytes of the terminator a string value carries and its text leaves out.
uint32_t terminatorBytes(uint16_t type) {
    const uint16_t base = type & 0x0FFF;
    if (base == PT_STRING8) return 1;
    if (base == PT_UNICODE) return 2;
    return 0;
}

// The general path: counted, length-prefixed values. Returns false when the property went
// to the object file (the text was rolled back and gets nothing more from it).
bool appendVariableValues(dstring* text, size_t rollback, const ObjectTarget& target,
                          int tnefFd, uint32_t attrLength) {
    TnefDecodeSource s{tnefFd};
    uint32_t count = 0;
    if (!tnef_ReadValueCount(s, tnef_PropTypeInfo(PROP_TYPE(target.tag)), count) || count == 0)
        return true;
    uint32_t length = 0;
    s.u32(length);
    // A count or length beyond the attribute is read as one value filling the attribute.
    const uint32_t limit = attrLength >= 16 ? attrLength - 16 : 0;
    if (length > limit || count > limit) {
        count = 1;
        length = limit;
    }
    const bool alwaysObject = target.tag == PR_MESSAGE_RECIPIENTS ||
                              target.tag == PR_MESSAGE_ATTACHMENTS;
    const uint32_t terminator = terminatorBytes(PROP_TYPE(target.tag));
    bool inText = true;
    std::array<uint8_t, TNEF_VALUE_BUFFER> value;
    for (uint32_t i = 0; i < count; ++i) {
        if (length <= TNEF_VALUE_INLINE_MAX && !alwaysObject) {
            value.fill(0);
            tnef_ReadBounded(tnefFd, value.data(), length, TNEF_VALUE_BUFFER);
            if (inText) {
                if (i > 0) appendChar(text, BLOB_VALUE_SEP);
                appendEscaped(text, value.data(), length > terminator ? length - terminator : 0);
            }
        } else {
            writeValueToObjectFile(target, tnefFd, length);
            dstring_setLength(text, rollback);
            inText = false;
        }
        skipPadding(tnefFd, length);
        if (i + 1 < count) {
            // A stream that ends inside the list ends the values; no loop over a bogus count.
            if (!s.u32(length)) break;
            if (length > limit) length = limit;
        }
    }
    return inText;
}

// The key of a named property, with a set entry first when the set changed. Returns the
// length the text rolls back to if the value goes to the object file.
size_t appendNamedKey(dstring* text, int tnefFd, uint16_t type, const uint8_t* set,
                      uint8_t* slot, uint32_t kind, uint32_t lid, const uint8_t* name,
                      uint32_t nameLength) {
    size_t rollback = dstring_length(text);
    if (slot != nullptr && std::memcmp(set, slot, 16) != 0) {
        std::memcpy(slot, set, 16);
        appendSetEntry(text, set);
        rollback = dstring_length(text);
    }
    if (kind != MNID_ID) {
        appendChar(text, ':');
        appendHex(text, type);
        appendChar(text, '/');
        skipPadding(tnefFd, nameLength);
        appendEscaped(text, name, nameLength > 2 ? nameLength - 2 : 0);
    } else {
        appendChar(text, '#');
        appendHex(text, type);
        appendChar(text, '/');
        appendHex(text, lid);
    }
    return rollback;
}

}  // namespace

void tnef_AddToMAPIProps(int objectFd, int tnefFd, uint32_t tag, dstring* text,
                         const uint8_t* set, uint8_t* slot, uint32_t kind, uint32_t lid,
                         const uint8_t* name, uint32_t nameLength, uint32_t attrLength) {
    ErTraceScope trace(TNEF_TRACE_CLASS, "tnef_AddToMAPIProps");
    const uint16_t type = PROP_TYPE(tag);
    size_t rollback = dstring_length(text);
    if (set == nullptr)
        appendHex(text, tag);
    else
        rollback = appendNamedKey(text, tnefFd, type, set, slot, kind, lid, name, nameLength);
    appendChar(text, BLOB_VALUE_SEP);

    if (isFixedTextType(type)) {
        if (type & MV_FLAG)
            appendFixedValues(text, tnefFd, type, attrLength);
        else
            appendFixedValue(text, tnefFd, fixedInfo(type));
    } else {
        const ObjectTarget target{objectFd, tag, set, kind, lid, name, nameLength};
        if (!appendVariableValues(text, rollback, target, tnefFd, attrLength)) return;
    }
    appendChar(text, BLOB_ENTRY_SEP);
}

TnefPropRoute tnef_RoutePlainProp(uint32_t tag) {
    const uint16_t id = PROP_ID(tag);
    return id >= 0x1080 && id <= 0x10FF ? TnefPropRoute::Secondary : TnefPropRoute::Main;
}

TnefPropRoute tnef_RouteNamedProp(const TnefGuid& set, uint32_t kind, uint32_t lid,
                                  const uint8_t* name, uint32_t nameLength) {
    // "Keywords" in UTF-16LE with its terminator.
    static constexpr uint8_t kKeywords[18] = {'K', 0, 'e', 0, 'y', 0, 'w', 0, 'o', 0,
                                              'r', 0, 'd', 0, 's', 0, 0,   0};
    if (kind != MNID_ID)
        return set == PS_PUBLIC_STRINGS && nameLength >= sizeof kKeywords &&
                       std::memcmp(name, kKeywords, sizeof kKeywords) == 0
                   ? TnefPropRoute::Secondary
                   : TnefPropRoute::Main;
    const bool commonSecondary = lid == 0x8560 || lid == 0x8502 || lid == 0x8530 || lid == 0x8503;
    return set == PSETID_Common && commonSecondary ? TnefPropRoute::Secondary : TnefPropRoute::Main;
}

bool tnef_AddRoutedProp(int objectFd, int tnefFd, uint32_t tag, dstring* mainText,
                        dstring* secondaryText, uint8_t* mainSlot, uint8_t* secondarySlot,
                        uint32_t attrLength) {
    if (!tnef_IsNamedPropId(PROP_ID(tag))) {
        dstring* text =
            tnef_RoutePlainProp(tag) == TnefPropRoute::Secondary ? secondaryText : mainText;
        tnef_AddToMAPIProps(objectFd, tnefFd, tag, text, nullptr, nullptr, 0, 0, nullptr, 0,
                            attrLength);
        return true;
    }
    std::array<uint8_t, TNEF_TEXT_CAPACITY> name;
    TnefGuid set;
    uint32_t kind = 0;
    uint32_t lid = 0;
    uint32_t nameLength = 0;
    if (!tnef_ReadNamedHeader(tnefFd, set, kind, lid, name.data(), nameLength)) return false;
    const bool secondary =
        tnef_RouteNamedProp(set, kind, lid, name.data(), nameLength) == TnefPropRoute::Secondary;
    tnef_AddToMAPIProps(objectFd, tnefFd, tag, secondary ? secondaryText : mainText, set.data(),
                        secondary ? secondarySlot : mainSlot, kind, lid, name.data(), nameLength,
                        attrLength);
    return true;
}

bool tnef_ReadNamedHeader(int tnefFd, TnefGuid& set, uint32_t& kind, uint32_t& lid,
                          uint8_t* nameBuffer, uint32_t& nameLength) {
    TnefDecodeSource s{tnefFd};
    TnefNamedPropHeader head;
    const bool whole = tnef_ReadNamedPropHead(s, head);
    set = head.guid;
    kind = head.kind;
    lid = head.lid;
    nameLength = head.nameLength;
    if (!whole) return false;
    if (kind == MNID_ID) return true;
    std::memset(nameBuffer, 0, nameLength <= TNEF_TEXT_CAPACITY ? nameLength : 0);
    return tnef_ReadBounded(tnefFd, nameBuffer, nameLength, TNEF_TEXT_CAPACITY) ==
           static_cast<int64_t>(nameLength);
}

namespace {

// The decoder's header values taken from a message's property list.
struct PlainValueOuts {
    uint32_t* importance;
    uint32_t* sensitivity;
    uint16_t* deliveryReport;
    uint16_t* readReceipt;
    uint32_t* deferredTime;
    uint16_t* deferredCompanion;
    uint32_t* expiryTime;
    uint16_t* expiryCompanion;
    uint32_t* creationTime;
    uint16_t* creationCompanion;
    char* submissionId;
    char* senderAddress;
    uint32_t* autoForwarded;
};

void readTime(int fd, uint32_t* seconds, uint16_t* companion) {
    uint8_t b[8] = {};
    os_read(fd, b, 8);
    tnef_ConvertDateToUX(seconds, companion, tnef_GetU32(b), static_cast<int32_t>(tnef_GetU32(b + 4)));
}

// The first value of a counted property into a caller buffer of TNEF_TEXT_CAPACITY + 1.
void readFirstValueInto(int fd, char* buffer) {
    TnefDecodeSource s{fd};
    uint32_t count = 0;
    uint32_t length = 0;
    tnef_ReadValueCount(s, tnef_PropTypeInfo(PT_BINARY), count);
    s.u32(length);
    const int64_t n = tnef_ReadBounded(fd, buffer, length, TNEF_TEXT_CAPACITY);
    buffer[n > 0 ? n : 0] = '\0';
    skipPadding(fd, length);
}

uint32_t importanceCode(uint32_t v) { return v == 0 ? 1 : v == 2 ? 2 : 0; }
uint32_t sensitivityCode(uint32_t v) { return v >= 1 && v <= 3 ? v : 0; }

// Handles the ten properties that become header values. False for any other tag.
bool takePlainValue(uint32_t tag, int fd, const PlainValueOuts& out) {
    uint16_t u16 = 0;
    uint32_t u32 = 0;
    switch (tag) {
        case PR_AUTO_FORWARDED: readU16Padded(fd, u16); *out.autoForwarded = u16; return true;
        case PR_DEFERRED_DELIVERY_TIME: readTime(fd, out.deferredTime, out.deferredCompanion); return true;
        case PR_EXPIRY_TIME: readTime(fd, out.expiryTime, out.expiryCompanion); return true;
        case PR_CREATION_TIME: readTime(fd, out.creationTime, out.creationCompanion); return true;
        case PR_IMPORTANCE: tnef_ReadU32(fd, &u32); *out.importance = importanceCode(u32); return true;
        case PR_SENSITIVITY: tnef_ReadU32(fd, &u32); *out.sensitivity = sensitivityCode(u32); return true;
        case PR_ORIGINATOR_DELIVERY_REPORT_REQUESTED: readU16Padded(fd, *out.deliveryReport); return true;
        case PR_READ_RECEIPT_REQUESTED: readU16Padded(fd, *out.readReceipt); return true;
        case PR_MESSAGE_SUBMISSION_ID: readFirstValueInto(fd, out.submissionId); return true;
        case PR_SENDER_EMAIL_ADDRESS: readFirstValueInto(fd, out.senderAddress); return true;
        default: return false;
    }
}

// Plain properties the encoder handles itself: kept out of the main text.
bool isSecondaryPlainTag(uint32_t tag) {
    switch (tag) {
        case PR_REPLY_TIME: case PR_RESPONSE_REQUESTED: case PR_REPLY_REQUESTED:
        case PR_MESSAGE_RECIPIENTS: case PR_MESSAGE_ATTACHMENTS: case PR_ATTACH_DATA_OBJ:
        case PR_ATTACH_DATA_BIN:
            return true;
        default:
            return false;
    }
}

}  // namespace

void tnef_ParseMAPIProps(int objectFd, int tnefFd, dstring* mainText, dstring* secondaryText,
                         uint32_t* importance, uint32_t* sensitivity, uint16_t* deliveryReport,
                         uint16_t* readReceipt, uint32_t* deferredTime,
                         uint16_t* deferredCompanion, uint32_t* expiryTime,
                         uint16_t* expiryCompanion, uint32_t* creationTime,
                         uint16_t* creationCompanion, char* submissionId, char* senderAddress,
                         uint32_t* autoForwarded, uint32_t* recurrenceFlag) {
    ErTraceScope trace(TNEF_TRACE_CLASS, "tnef_ParseMAPIProps");
    const PlainValueOuts outs{importance,   sensitivity,       deliveryReport, readReceipt,
                              deferredTime, deferredCompanion, expiryTime,     expiryCompanion,
                              creationTime, creationCompanion, submissionId,   senderAddress,
                              autoForwarded};
    // A text that is still empty opens its first named property with a set entry, whatever
    // an earlier message left in the slot: the lookups of the calendar augmentation and of the
    // encoder can only place a named entry by a set entry in the same text.
    if (dstring_length(mainText) == 0) tnefLastSetMsgMain = kUnsetSlot;
    if (dstring_length(secondaryText) == 0) tnefLastSetMsgSecondary = kUnsetSlot;
    uint32_t attrLength = 0;
    tnef_ReadU32(tnefFd, &attrLength);
    const int64_t end = os_lseek64(tnefFd, 0, 1) + attrLength;
    TnefDecodeSource s{tnefFd};
    uint32_t count = 0;
    s.u32(count);

    // The list ends at its count, at the end of the stream, or where the attribute ends: a
    // count larger than the attribute holds would otherwise read the records after it.
    for (; count != 0 && os_lseek64(tnefFd, 0, 1) < end; --count) {
        uint32_t tag = 0;
        if (!s.u32(tag)) break;
        if (takePlainValue(tag, tnefFd, outs)) continue;
        if (isSecondaryPlainTag(tag)) {
            tnef_AddToMAPIProps(objectFd, tnefFd, tag, secondaryText, nullptr, nullptr, 0, 0,
                                nullptr, 0, attrLength);
        } else if (!tnef_AddRoutedProp(objectFd, tnefFd, tag, mainText, secondaryText,
                                       tnefLastSetMsgMain.data(), tnefLastSetMsgSecondary.data(),
                                       attrLength)) {
            break;
        }
    }
    os_lseek64(tnefFd, end, 0);
    if (cust_GetBoolean("TNEF_AUGMENT_PROPS", 1, 0, 0))
        tnef_AugmentMAPIProps(mainText, tnefLastSetMsgMain.data(), recurrenceFlag);
}
