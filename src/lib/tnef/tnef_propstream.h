// The MAPI property stream inside attMAPIProps, attAttachment and attRecipTable: what every
// reader of a property list shares. Each reader keeps its own limits and its own answer to
// a type it does not know; this header only tells the layout.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "tnef_defs.h"

// Zero to three padding bytes bring a variable-length piece to a multiple of 4.
constexpr uint32_t tnef_Pad4(uint64_t n) { return static_cast<uint32_t>((4 - n % 4) % 4); }

// Layout of one value of a property type in the stream.
struct TnefPropTypeInfo {
    bool known;          // the type is in the type tables
    bool hasValueCount;  // a 32-bit value count precedes the values
    bool lengthPrefixed; // each value is a 32-bit length, the bytes and padding
    uint32_t dataSize;   // fixed-size types: meaningful bytes of one value (2 for PT_I2)
    uint32_t slotSize;   // fixed-size types: bytes one value occupies, padding included
};

// The type table of the stream. A type outside it is reported unknown, with the layout the
// decoder gives such a type (a counted list of length-prefixed values); each reader decides
// for itself whether to read it that way or to stop.
constexpr TnefPropTypeInfo tnef_PropTypeInfo(uint16_t type) {
    switch (type) {
        case PT_I2:
        case PT_BOOLEAN: return {true, false, false, 2, 4};
        case PT_LONG:
        case PT_R4:
        case PT_ERROR: return {true, false, false, 4, 4};
        case PT_DOUBLE:
        case PT_CURRENCY:
        case PT_APPTIME:
        case PT_I8:
        case PT_SYSTIME: return {true, false, false, 8, 8};
        case PT_CLSID: return {true, false, false, 16, 16};
        case PT_MV_I2: return {true, true, false, 2, 4};
        case PT_MV_LONG:
        case PT_MV_R4: return {true, true, false, 4, 4};
        case PT_MV_DOUBLE:
        case PT_MV_CURRENCY:
        case PT_MV_APPTIME:
        case PT_MV_I8:
        case PT_MV_SYSTIME: return {true, true, false, 8, 8};
        case PT_MV_CLSID: return {true, true, false, 16, 16};
        case PT_STRING8:
        case PT_UNICODE:
        case PT_BINARY:
        case PT_OBJECT:
        case PT_MV_STRING8:
        case PT_MV_UNICODE:
        case PT_MV_BINARY: return {true, true, true, 0, 0};
        default: return {false, true, true, 0, 0};
    }
}

constexpr bool tnef_IsKnownPropType(uint16_t type) { return tnef_PropTypeInfo(type).known; }

// A property carries a value count when it is multi-valued or variable-size.
constexpr bool tnef_HasValueCount(uint32_t tag) {
    const uint16_t type = PROP_TYPE(tag);
    const uint16_t base = type & 0x0FFF;
    return (type & MV_FLAG) != 0 || base == PT_STRING8 || base == PT_UNICODE ||
           base == PT_BINARY || base == PT_OBJECT;
}

// Variable-size: every value is length-prefixed.
constexpr bool tnef_IsVariableSize(uint32_t tag) {
    const uint16_t base = PROP_TYPE(tag) & 0x0FFF;
    return base == PT_STRING8 || base == PT_UNICODE || base == PT_BINARY || base == PT_OBJECT;
}

constexpr bool tnef_IsNamedPropId(uint16_t id) { return id >= NAMED_PROP_FIRST_ID; }

inline uint32_t tnef_GetU32(const uint8_t* p) {
    return static_cast<uint32_t>(p[0]) | static_cast<uint32_t>(p[1]) << 8 |
           static_cast<uint32_t>(p[2]) << 16 | static_cast<uint32_t>(p[3]) << 24;
}
inline uint16_t tnef_GetU16(const uint8_t* p) {
    return static_cast<uint16_t>(p[0] | p[1] << 8);
}
inline void tnef_PutU32(uint8_t* p, uint32_t v) {
    p[0] = static_cast<uint8_t>(v);
    p[1] = static_cast<uint8_t>(v >> 8);
    p[2] = static_cast<uint8_t>(v >> 16);
    p[3] = static_cast<uint8_t>(v >> 24);
}
inline void tnef_PutU16(uint8_t* p, uint16_t v) {
    p[0] = static_cast<uint8_t>(v);
    p[1] = static_cast<uint8_t>(v >> 8);
}

// A bounded cursor over bytes held in memory: no read can pass the end by construction.
struct TnefCursor {
    const uint8_t* data = nullptr;
    size_t size = 0;
    size_t pos = 0;

    size_t at() const { return pos; }
    size_t left() const { return size - pos; }
    bool has(size_t n) const { return n <= left(); }
    const uint8_t* here() const { return data + pos; }
    bool skip(uint64_t n) {
        if (n > left()) return false;
        pos += static_cast<size_t>(n);
        return true;
    }
    bool u32(uint32_t& out) {
        if (!has(4)) return false;
        out = tnef_GetU32(here());
        pos += 4;
        return true;
    }
    bool bytes(void* out, size_t n) {
        if (!has(n)) return false;
        std::memcpy(out, here(), n);
        pos += n;
        return true;
    }
};

// ---- Reading a list, for any source of bytes ------------------------------------------------
// Every reader of a property list takes these steps, written once here. A source is a
// bounded cursor with `at()` (its position), `left()`, `u32(v)`, `bytes(out, n)` and
// `skip(n)`: TnefCursor in memory, the reader's TnefSpan over a file, or a walker's own view
// of a descriptor. The source decides how reads are bounded and what the end of the data
// means; the steps never read a byte their source refuses, so every length and count is
// checked where it is read.

// The header of a named property (ids 0x8000 and above), after its tag.
struct TnefNamedPropHeader {
    TnefGuid guid{};
    uint32_t kind = MNID_ID;  // 0 numeric name, any other value string name
    uint32_t lid = 0;         // numeric name (kind 0)
    uint32_t nameLength = 0;  // string name: bytes including the 16-bit NUL (other kinds)
    uint64_t nameAt = 0;      // string name: its position in the source
};

// The fixed part: the property set, the kind, and the numeric name or the string name's
// length. The source then stands at the string name, for a walker that keeps it.
template <class Source>
bool tnef_ReadNamedPropHead(Source& s, TnefNamedPropHeader& out) {
    return s.bytes(out.guid.data(), out.guid.size()) && s.u32(out.kind) &&
           s.u32(out.kind == MNID_ID ? out.lid : out.nameLength);
}

// The whole header: the fixed part, then the string name and its padding stepped over.
// False when the data ends first.
template <class Source>
bool tnef_ReadNamedPropHeader(Source& s, TnefNamedPropHeader& out) {
    if (!tnef_ReadNamedPropHead(s, out)) return false;
    if (out.kind == MNID_ID) return true;
    if (out.nameLength > s.left()) return false;
    out.nameAt = s.at();
    return s.skip(static_cast<uint64_t>(out.nameLength) + tnef_Pad4(out.nameLength));
}

// The value count of a type that carries one; 1 for the others.
template <class Source>
bool tnef_ReadValueCount(Source& s, const TnefPropTypeInfo& info, uint32_t& count) {
    count = 1;
    return !info.hasValueCount || s.u32(count);
}

// One length-prefixed value: its length, then the bytes and padding stepped over (the last
// value's padding may be missing at the very end of the data).
template <class Source>
bool tnef_SkipLengthPrefixedValue(Source& s, uint32_t& length) {
    return s.u32(length) && s.skip(static_cast<uint64_t>(length) + tnef_Pad4(length));
}

// Steps over count values of a type; false when the data ends first or the type is unknown.
template <class Source>
bool tnef_SkipPropValues(Source& s, uint16_t type, uint32_t count) {
    if (!tnef_IsKnownPropType(type)) return false;
    const TnefPropTypeInfo info = tnef_PropTypeInfo(type);
    if (!info.lengthPrefixed) return s.skip(static_cast<uint64_t>(info.slotSize) * count);
    for (uint32_t i = 0; i < count; ++i) {
        uint32_t length = 0;
        if (!tnef_SkipLengthPrefixedValue(s, length)) return false;
    }
    return true;
}

// One property of a list, as its head tells it.
struct TnefPropView {
    uint32_t tag = 0;
    bool named = false;
    TnefNamedPropHeader namedHeader;
    uint32_t valueCount = 1;
    uint64_t valuesPos = 0;  // position of the first value in the source
    uint64_t valuesEnd = 0;  // just past the last value's padding (tnef_NextPropInList)
};

// The head of the next property: tag, named header (ids 0x8000 and above), value count.
// False when the data ends inside it or the type's layout is unknown.
template <class Source>
bool tnef_ReadPropHead(Source& s, TnefPropView& out) {
    out = TnefPropView{};
    if (!s.u32(out.tag)) return false;
    out.named = tnef_IsNamedPropId(PROP_ID(out.tag));
    if (out.named && !tnef_ReadNamedPropHeader(s, out.namedHeader)) return false;
    const TnefPropTypeInfo info = tnef_PropTypeInfo(PROP_TYPE(out.tag));
    if (!info.known || !tnef_ReadValueCount(s, info, out.valueCount)) return false;
    out.valuesPos = s.at();
    return true;
}

// The next property of a list, its values stepped over.
template <class Source>
bool tnef_NextPropInList(Source& s, TnefPropView& out) {
    if (!tnef_ReadPropHead(s, out) || !tnef_SkipPropValues(s, PROP_TYPE(out.tag), out.valueCount))
        return false;
    out.valuesEnd = s.at();
    return true;
}
