// Stored property texts back to TNEF: every property of a text that decoding kept with a
// message becomes an attMAPIProps record of the output stream, through the writers.
#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <memory>
#include <string>

#include "tnef/platform/er_escape.h"
#include "tnef/platform/mapi_blob.h"
#include "tnef/platform/os_file.h"
#include "tnef/tnef.h"
#include "tnef_defs.h"
#include "tnef_propstream.h"

namespace {

// A string name's UTF-16LE bytes plus the 2-byte NUL the named-property record carries.
constexpr size_t kNameCapacity = 1024;
constexpr size_t kNameMaxBytes = kNameCapacity - 2;

enum class KeyKind { None, Plain, NumericName, StringName };
enum class Pending { Nothing, Skip, PropertySet };

// The property the values being read belong to. None: no property (before the first key,
// after a "G", "C" or "V" key, or a rejected name); its values are dropped.
struct CurrentKey {
    KeyKind kind = KeyKind::None;
    uint32_t tag = 0;   // plain properties
    uint16_t type = 0;  // every kind
    uint8_t numericName[4] = {};
    std::array<uint8_t, kNameCapacity> name{};
    uint32_t nameLength = 0;  // bytes in name, its 2-byte NUL included
};

struct ParseState {
    bool inKey = false;  // an entry's key has been read and its last value has not
    bool valueSeen = false;
    Pending pending = Pending::Nothing;
    CurrentKey key;
    uint32_t valueCount = 0;
    int fixedSize = 0;
    // The record written last holds the current property and has a value count to grow.
    bool recordOpen = false;
    // Zero-initialised: a named entry before any "G" entry gets the all-zero property set.
    TnefGuid propertySet{};
};

// One field of the text: its bytes, and whether the value separator ended it.
struct Field {
    char* begin;
    size_t length;
    bool byValueSep;
};

// The value buffer: text length + 1 bytes, enough for any value a field can decode to plus
// the NUL bytes a string value gets.
struct ValueBuffer {
    uint8_t* bytes;
    size_t capacity;
};

// The field from p, whose separator is overwritten with NUL; p moves past it. A last field
// without a separator is taken as ended by the entry separator, so it closes its entry.
Field nextField(char*& p, char* end) {
    char* sep =
        std::find_if(p, end, [](char c) { return c == BLOB_VALUE_SEP || c == BLOB_ENTRY_SEP; });
    Field field{p, static_cast<size_t>(sep - p), false};
    if (sep == end) {
        p = end;
        return field;
    }
    field.byValueSep = *sep == BLOB_VALUE_SEP;
    *sep = '\0';
    p = sep + 1;
    return field;
}

// Unescapes the bytes [begin, begin + length) into destination, copying at most capacity
// bytes; returns the full decoded length, which the caller compares with what it can hold.
size_t unescapeInto(const char* begin, size_t length, uint8_t* destination, size_t capacity) {
    size_t decoded = 0;
    const unsigned char* bytes = os_GraphicToControl2(begin, length, &decoded);
    std::memcpy(destination, bytes, std::min(decoded, capacity));
    return decoded;
}

// A hexadecimal field, read from a NUL-terminated copy so that the number ends inside the
// buffer even for a last field that has no separator to overwrite.
uint32_t hexField(const Field& field, const ValueBuffer& scratch) {
    const size_t n = std::min(field.length, scratch.capacity - 1);
    std::memcpy(scratch.bytes, field.begin, n);
    scratch.bytes[n] = 0;
    return os_str2ul(reinterpret_cast<const char*>(scratch.bytes), 16);
}

// "#type/name": both hexadecimal.
void readNumericNameKey(CurrentKey& key, const Field& field) {
    key.type = static_cast<uint16_t>(os_str2ul(field.begin + 1, 16));
    const char* slash = static_cast<const char*>(std::memchr(field.begin, '/', field.length));
    tnef_PutU32(key.numericName, slash != nullptr ? os_str2ul(slash + 1, 16) : 0);
    key.kind = KeyKind::NumericName;
}

// ":type/name": the name is the escaped UTF-16LE bytes without their NUL.
void readStringNameKey(CurrentKey& key, const Field& field) {
    key.type = static_cast<uint16_t>(os_str2ul(field.begin + 1, 16));
    const char* slash = static_cast<const char*>(std::memchr(field.begin, '/', field.length));
    const char* name = slash != nullptr ? slash + 1 : field.begin + field.length;
    const size_t decoded =
        unescapeInto(name, static_cast<size_t>(field.begin + field.length - name), key.name.data(),
                     kNameMaxBytes);
    // A longer name is rejected, not cut: a truncated name would name another property.
    if (decoded > kNameMaxBytes) return;
    key.name[decoded] = 0;
    key.name[decoded + 1] = 0;
    key.nameLength = static_cast<uint32_t>(decoded + 2);
    key.kind = KeyKind::StringName;
}

void beginKey(ParseState& st, const Field& field) {
    st.inKey = true;
    st.valueSeen = false;
    st.valueCount = 0;
    st.recordOpen = false;
    st.pending = Pending::Nothing;
    st.key.kind = KeyKind::None;
    switch (field.begin[0]) {
        case 'C':
        case 'V':
            st.pending = Pending::Skip;
            break;
        case 'G':
            st.pending = Pending::PropertySet;
            break;
        case '#':
            readNumericNameKey(st.key, field);
            break;
        case ':':
            readStringNameKey(st.key, field);
            break;
        default:
            // Anything else is a tag; an unparsable one reads as 0 or a partial number.
            st.key.tag = os_str2ul(field.begin, 16);
            st.key.type = PROP_TYPE(st.key.tag);
            st.key.kind = KeyKind::Plain;
            break;
    }
    // Fixed-size here means what the writers lay out without a value length.
    st.fixedSize = tnef_IsVariableSize(st.key.type) ? 0 : 1;
}

// A property set of fewer than 16 bytes replaces only its leading bytes.
void readPropertySet(ParseState& st, const Field& field) {
    unescapeInto(field.begin, field.length, st.propertySet.data(), st.propertySet.size());
}

// The bytes one value field stands for, by the base type; returns their count.
uint32_t makeValue(uint16_t type, const Field& field, const ValueBuffer& value) {
    switch (type & 0x0FFF) {
        case PT_I2:
        case PT_BOOLEAN:
            tnef_PutU16(value.bytes, static_cast<uint16_t>(hexField(field, value)));
            return 2;
        case PT_LONG:
        case PT_R4:
        case PT_ERROR:
            tnef_PutU32(value.bytes, hexField(field, value));
            return 4;
        default:
            break;
    }
    const uint16_t base = type & 0x0FFF;
    const size_t terminator = base == PT_STRING8 ? 1 : base == PT_UNICODE ? 2 : 0;
    const size_t room = value.capacity > terminator ? value.capacity - terminator : 0;
    const size_t n = std::min(unescapeInto(field.begin, field.length, value.bytes, room), room);
    const size_t zeros = std::min(terminator, value.capacity - n);
    std::memset(value.bytes + n, 0, zeros);
    return static_cast<uint32_t>(n + zeros);
}

void writePlainProperty(int fd, uint32_t tag, uint32_t n, const uint8_t* value) {
    const auto length = static_cast<int32_t>(n);
    switch (tag) {
        case PR_RESPONSE_REQUESTED:
            // Readers look for a requested reply in either property, so both go out.
            tnef_AddMAPIPropsAttribute(fd, PR_REPLY_REQUESTED, 2, value);
            tnef_AddMAPIPropsAttribute(fd, PR_RESPONSE_REQUESTED, 2, value);
            break;
        case PR_RTF_COMPRESSED:
            // An empty compressed body would be an RTF stream without its header.
            if (n != 0) tnef_AddMAPIPropsAttribute(fd, tag, length, value);
            break;
        case PR_OWNER_APPT_ID:
            // The owner's appointment id travels as the message attribute, not as a property.
            tnef_AddMsgAttribute(fd, attAidOwner, n, value);
            break;
        default:
            tnef_AddMAPIPropsAttribute(fd, tag, length, value);
            break;
    }
}

void writeFirstValue(int fd, const ParseState& st, uint32_t n, const uint8_t* value) {
    const CurrentKey& key = st.key;
    const auto length = static_cast<int32_t>(n);
    switch (key.kind) {
        case KeyKind::NumericName:
            tnef_AddMAPINamedPropsAttr(fd, key.numericName, 4, key.type, st.propertySet.data(),
                                       length, value, MNID_ID);
            break;
        case KeyKind::StringName:
            tnef_AddMAPINamedPropsAttr(fd, key.name.data(), static_cast<int32_t>(key.nameLength),
                                       key.type, st.propertySet.data(), length, value, MNID_STRING);
            break;
        case KeyKind::Plain:
            writePlainProperty(fd, key.tag, n, value);
            break;
        case KeyKind::None:
            break;
    }
}

void readValueField(int fd, ParseState& st, const Field& field, const ValueBuffer& value) {
    st.valueSeen = true;
    ++st.valueCount;
    if (st.key.kind == KeyKind::None) return;
    if (st.valueCount > 1 && !st.recordOpen) {
        // A further value of a single-valued fixed-size property has no value count to grow,
        // and one whose first value the writers left out has no record: both are dropped
        // rather than patching whatever record came last.
        return;
    }
    const uint32_t n = makeValue(st.key.type, field, value);
    if (st.valueCount > 1) {
        // Variable-size single-valued properties carry a count too, and readers honour it,
        // so a second string or binary value grows the record as a multi-valued one would.
        tnef_UpdateMAPIPropsData(fd, st.valueCount, static_cast<int32_t>(n), value.bytes,
                                 st.fixedSize);
        return;
    }
    if (!tnef_HasValueCount(st.key.type)) {
        writeFirstValue(fd, st, n, value.bytes);
        return;
    }
    // Some tags are never written; only a record that is really there may be grown.
    const int64_t before = os_lseek64(fd, 0, 1);
    writeFirstValue(fd, st, n, value.bytes);
    st.recordOpen = os_lseek64(fd, 0, 1) != before;
}

// The text ended after a key: the property goes out with a single zero byte.
void writeTrailingKey(int fd, const ParseState& st) {
    static constexpr uint8_t kZero[1] = {0};
    if (st.key.kind == KeyKind::Plain) {
        if (st.key.tag != PR_RTF_COMPRESSED) tnef_AddMAPIPropsAttribute(fd, st.key.tag, 1, kZero);
        return;
    }
    writeFirstValue(fd, st, 1, kZero);
}

}  // namespace

void tnef_ParseData(int outFd, char* text, uint32_t length) {
    ErTraceScope trace(TNEF_TRACE_CLASS, "tnef_ParseData");
    // Field-by-field I/O is buffered for the call; offsets are exact again on return.
    OsIoBatch ioBatch;
    if (text == nullptr) return;
    const size_t capacity = static_cast<size_t>(length) + 1;
    std::unique_ptr<uint8_t, decltype(&os_free)> buffer(static_cast<uint8_t*>(os_malloc(capacity)),
                                                        &os_free);
    if (!buffer)
        er_TracedEscapeText(
            ER_GROUP_IO, ENOMEM, TNEF_UNIT_ENCODE, __LINE__,
            "no memory for a property text of " + std::to_string(length) + " bytes");
    const ValueBuffer value{buffer.get(), capacity};

    ParseState st;
    char* p = text;
    // The caller's length bounds the walk, so a text whose NUL is missing is not read past.
    char* const end = text + strnlen(text, length);
    while (p < end) {
        const Field field = nextField(p, end);
        if (field.byValueSep && !st.inKey)
            beginKey(st, field);
        else if (st.pending == Pending::Skip)
            st.pending = Pending::Nothing;
        else if (st.pending == Pending::PropertySet) {
            readPropertySet(st, field);
            st.pending = Pending::Nothing;
        } else
            readValueField(outFd, st, field, value);
        if (!field.byValueSep) st.inKey = false;
    }
    if (st.inKey && !st.valueSeen) writeTrailingKey(outFd, st);
}
