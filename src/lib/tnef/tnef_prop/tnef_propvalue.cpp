// Property value rendering: one encoded MAPI property list, read from the TNEF file, as
// property blob text (tnef_GetPropValue walks the list, tnef_GetAsBlob renders one entry).

#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "tnef/platform/dstring.h"
#include "tnef/platform/er_escape.h"
#include "tnef/platform/mapi_blob.h"
#include "tnef/platform/os_file.h"
#include "tnef/tnef_reader.h"
#include "tnef_defs.h"
#include "tnef_prop/tnef_extract.h"
#include "tnef_prop/tnef_proplog.h"
#include "tnef_propstream.h"

namespace {

// Published names of the property types, for the prop log only.
const char* symbolicType(uint16_t type) {
    const char* name = tnef_PropTypeName(type);
    return name != nullptr ? name : "unknown";
}

void appendHex(dstring* text, uint32_t value) {
    char digits[33];
    os_ul2str(value, 16, 1, digits, nullptr);
    dstring_append1(text, digits);
}

// A failed seek leaves the position unknown, so it ends the walk like the end of the file.
bool seekForward(int fd, uint64_t count) {
    if (tnef_PropSeek(fd, static_cast<int64_t>(count), 1, &hitTnefEof) >= 0) return true;
    hitTnefEof = 1;
    return false;
}

// Extraction reads a list at the descriptor's own position, as a source of the shared list
// steps: reads that come short and seeks that fail set hitTnefEof and end the walk. It
// knows no bound but the file's, and nothing it renders needs its position.
struct PropSource {
    int fd;

    uint64_t at() const { return 0; }
    uint64_t left() const { return UINT64_MAX; }
    bool bytes(void* out, size_t n) { return tnef_PropReadExact(fd, out, static_cast<uint32_t>(n)); }
    bool u32(uint32_t& value) {
        uint8_t b[4];
        if (!bytes(b, sizeof b)) return false;
        value = tnef_GetU32(b);
        return true;
    }
    bool skip(uint64_t n) { return seekForward(fd, n); }
};

bool readU32(int fd, uint32_t& value) {
    PropSource s{fd};
    return s.u32(value);
}

bool isNamedId(uint16_t id) {
    return id >= NAMED_PROP_FIRST_ID && id <= NAMED_PROP_LAST_ID;
}

// How a value is rendered. Multi-valued PT_ERROR and PT_BOOLEAN are no stream types, but
// their values are rendered like those of their single-valued bases.
TnefPropTypeInfo renderLayout(uint16_t type) {
    if (type == (MV_FLAG | PT_ERROR)) return {true, true, false, 4, 4};
    if (type == (MV_FLAG | PT_BOOLEAN)) return {true, true, false, 2, 4};
    return tnef_PropTypeInfo(type);
}

// ---- Reading one property's values -----------------------------------------------------

// 2- and 4-byte values as hexadecimal, wider ones as the blob encoding of their bytes.
bool appendFixedValues(int fd, const TnefPropTypeInfo& layout, dstring* text) {
    PropSource s{fd};
    uint32_t count = 1;
    if (!tnef_ReadValueCount(s, layout, count)) return false;
    std::array<uint8_t, 16> slot{};
    // Each value is read from the file, so a lying count ends at the end of the file.
    for (uint32_t i = 0; i < count; ++i) {
        if (i != 0) dstring_appendChar(text, BLOB_VALUE_SEP);
        if (!tnef_PropReadExact(fd, slot.data(), layout.slotSize)) return false;
        if (layout.dataSize == 2)
            appendHex(text, tnef_GetU16(slot.data()));
        else if (layout.dataSize == 4)
            appendHex(text, tnef_GetU32(slot.data()));
        else
            mapi_BlobEncodeToDstring(slot.data(), layout.dataSize, text);
    }
    return true;
}

// Steps over the rest of a multi-valued property after an oversized value, so that the
// next property is read where it starts.
bool passOverLengthPrefixed(int fd, uint32_t remaining) {
    PropSource s{fd};
    for (uint32_t i = 0; i < remaining; ++i) {
        uint32_t length = 0;
        if (!tnef_SkipLengthPrefixedValue(s, length)) return false;
    }
    return true;
}

// The count-and-length layout (strings, binaries, objects, their multi-valued forms and
// unknown types). Sets tooBig when a value is over the limit.
bool appendLengthPrefixedValues(int fd, uint16_t type, uint32_t attLen, dstring* text,
                                int& tooBig) {
    uint32_t count = 0;
    if (!readU32(fd, count)) return false;
    // No value, and so no length word: reading one would eat the next property's tag.
    if (count == 0) return true;
    uint32_t length = 0;
    if (!readU32(fd, length)) return false;
    // Wraps below 16 on purpose: a short attribute gets no clamp.
    const uint32_t limit = attLen - 16;
    if (count > limit || length > limit) {
        count = 1;
        length = limit;
    }
    const uint16_t base = type & 0x0FFF;
    std::array<uint8_t, TNEF_PROP_VALUE_LIMIT> value;
    for (uint32_t i = 0;;) {
        uint32_t used = 0;
        if (length > TNEF_PROP_VALUE_LIMIT) {
            if (!seekForward(fd, length)) return false;
            tooBig = 1;
        } else if (length != 0) {
            if (!tnef_PropReadExact(fd, value.data(), length)) return false;
            used = length;
        }
        std::array<uint8_t, 3> padding;
        if (!tnef_PropReadExact(fd, padding.data(), tnef_Pad4(length))) return false;
        if (tooBig) return passOverLengthPrefixed(fd, count - i - 1);

        if (base == PT_STRING8) {
            while (used != 0 && value[used - 1] == 0) --used;
        } else if (base == PT_UNICODE) {
            used = used >= 2 ? used - 2 : 0;  // the 16-bit terminator
        }
        mapi_BlobEncodeToDstring(value.data(), used, text);
        if (++i == count) return true;
        dstring_appendChar(text, BLOB_VALUE_SEP);
        if (!readU32(fd, length)) return false;
    }
}

bool appendValueText(int fd, uint32_t tag, uint32_t attLen, dstring* text, int& tooBig) {
    const uint16_t type = PROP_TYPE(tag);
    const TnefPropTypeInfo layout = renderLayout(type);
    if (layout.known && !layout.lengthPrefixed) return appendFixedValues(fd, layout, text);
    return appendLengthPrefixedValues(fd, type, attLen, text, tooBig);
}

void appendIdPart(dstring* text, uint32_t tag, const uint8_t* guid, uint32_t kind,
                  uint32_t numericId, const uint8_t* name, uint32_t nameLength) {
    if (!isNamedId(PROP_ID(tag))) {
        appendHex(text, tag);
        return;
    }
    // Every named property carries its own property set entry.
    static constexpr std::array<uint8_t, 16> kNoGuid{};
    dstring_append1(text, "GUID");
    dstring_appendChar(text, BLOB_VALUE_SEP);
    mapi_BlobEncodeToDstring(guid != nullptr ? guid : kNoGuid.data(), 16, text);
    dstring_appendChar(text, BLOB_ENTRY_SEP);
    if (kind == MNID_ID) {
        dstring_appendChar(text, '#');
        appendHex(text, PROP_TYPE(tag));
        dstring_appendChar(text, '/');
        appendHex(text, numericId);
        return;
    }
    dstring_appendChar(text, ':');
    appendHex(text, PROP_TYPE(tag));
    dstring_appendChar(text, '/');
    // The stored length counts the 16-bit terminator, which the text leaves out.
    if (name != nullptr && nameLength > 2) mapi_BlobEncodeToDstring(name, nameLength - 2, text);
}

// ---- Walking a list ----------------------------------------------------------------------

struct NamedHeader {
    std::array<uint8_t, 16> guid{};
    uint32_t kind = MNID_ID;
    uint32_t numericId = 0;
    uint32_t nameLength = 0;
    std::array<uint8_t, TNEF_PROP_NAME_LIMIT + 1> name{};
};

// False when the header is cut short or its name is over the limit: the list ends there.
bool readNamedHeader(int fd, NamedHeader& named) {
    PropSource s{fd};
    TnefNamedPropHeader head;
    const bool whole = tnef_ReadNamedPropHead(s, head);
    named.guid = head.guid;
    named.kind = head.kind;
    named.numericId = head.lid;
    named.nameLength = head.nameLength;
    if (!whole) return false;
    if (named.kind == MNID_ID) return true;
    if (named.nameLength > TNEF_PROP_NAME_LIMIT) return false;
    std::array<uint8_t, 3> padding;
    return tnef_PropReadExact(fd, named.name.data(), named.nameLength) &&
           tnef_PropReadExact(fd, padding.data(), tnef_Pad4(named.nameLength));
}

// Steps over a value that is not rendered. False for a type the stream does not define
// (its layout is unknown) and when the file ends.
bool passOverValue(int fd, uint32_t tag) {
    const TnefPropTypeInfo layout = tnef_PropTypeInfo(PROP_TYPE(tag));
    if (!layout.known) return false;
    PropSource s{fd};
    uint32_t count = 1;
    if (!tnef_ReadValueCount(s, layout, count)) return false;
    uint64_t size = 0;
    if (layout.lengthPrefixed) {
        // One length word is read per value, so a lying count ends at the end of the file.
        for (uint32_t i = 0; i < count; ++i) {
            uint32_t length = 0;
            if (!tnef_SkipLengthPrefixedValue(s, length)) return false;
            size += static_cast<uint64_t>(length) + tnef_Pad4(length);
        }
    } else {
        size = static_cast<uint64_t>(count) * layout.slotSize;
        if (!tnef_SkipPropValues(s, PROP_TYPE(tag), count)) return false;
    }
    tnef_PropLogf("  Size = %d\n", static_cast<int>(size));
    return true;
}

void walkPropList(int fd, uint16_t wantType, uint16_t wantId, int& found, uint32_t attLen,
                  dstring* text) {
    const bool renderAll = wantType == 0 && wantId == 0;
    uint32_t count = 0;
    if (!readU32(fd, count)) return;
    tnef_PropLogf("  No. Props  -- %d\n", static_cast<int>(count));
    for (uint32_t p = 0; p < count && found == 0; ++p) {
        uint32_t tag = 0;
        if (!readU32(fd, tag)) return;
        const uint16_t type = PROP_TYPE(tag);
        const uint16_t id = PROP_ID(tag);
        NamedHeader named;
        bool matches = false;
        if (isNamedId(id)) {
            if (!readNamedHeader(fd, named)) return;
            matches = named.kind == MNID_ID && type == wantType && named.numericId == wantId;
        } else {
            matches = type == wantType && id == wantId;
        }
        // Rendering everything looks for nothing: a property whose tag happens to be 0
        // must not stop the walk.
        if (renderAll) matches = false;
        found = matches ? 1 : 0;

        const size_t before = dstring_length(text);
        if (matches) {
            tnef_PropLogf("%c   Prop Type/Id: 0x%x [%s] /0x%x AttLen = %lu\n", '*',
                          static_cast<unsigned>(wantType), symbolicType(wantType),
                          static_cast<unsigned>(wantId), static_cast<unsigned long>(attLen));
        } else if (renderAll) {
            tnef_PropLogf("Prop Type/Id: 0x%x [%s]/0x%x AttLen = %lu\n",
                          static_cast<unsigned>(type), symbolicType(type),
                          static_cast<unsigned>(id), static_cast<unsigned long>(attLen));
        } else {
            if (!passOverValue(fd, tag)) return;
            continue;
        }
        if (before != 0) dstring_appendChar(text, BLOB_ENTRY_SEP);
        if (!tnef_GetAsBlob(fd, tag, text, named.guid.data(), named.kind, named.numericId,
                            named.name.data(), named.nameLength, attLen))
            dstring_setLength(text, before);
    }
}

}  // namespace

int tnef_PropReadExact(int fd, void* buffer, uint32_t length) {
    uint32_t got = 0;
    if (!tnef_PropRead(fd, buffer, length, &got, &hitTnefEof)) return 0;
    if (got < length) {
        hitTnefEof = 1;
        return 0;
    }
    return 1;
}

char* tnef_NewText(const dstring* text) {
    const size_t length = dstring_length(text);
    auto* copy = static_cast<char*>(std::malloc(length + 1));
    if (copy == nullptr) er_TracedEscape(ER_GROUP_IO, ENOMEM, TNEF_UNIT_PROP, __LINE__);
    std::memcpy(copy, dstring_str(text), length + 1);
    return copy;
}

int tnef_GetAsBlob(int fd, uint32_t tag, dstring* text, const uint8_t* guid, uint32_t kind,
                   uint32_t numericId, const uint8_t* name, uint32_t nameLength, uint32_t attLen) {
    ErTraceScope trace(TNEF_TRACE_CLASS, "tnef_GetAsBlob");
    const size_t entryLength = dstring_length(text);
    int tooBig = 0;
    try {
        appendIdPart(text, tag, guid, kind, numericId, name, nameLength);
        dstring_appendChar(text, BLOB_VALUE_SEP);
        // A failed read or seek has set hitTnefEof, which the check below sees.
        appendValueText(fd, tag, attLen, text, tooBig);
    } catch (Escape& e) {
        tnef_PropLogf("** tnef_GetAsBlob Error detected: %d/%d\n", er_GetGroup(e), er_GetReason(e));
        dstring_setLength(text, entryLength);
        er_Accept(e, 7);
        if (er_GetLive(e)) {
            er_TraceBeforeJump(TNEF_UNIT_PROP, __LINE__);
            throw;
        }
        // Where in the list the file now stands is unknown: end the list as a failed read.
        hitTnefEof = 1;
        return 0;
    }
    if (hitTnefEof || tooBig) {
        tnef_PropLogf("** tnef_GetAsBlob abandon property %08x hitTnefEof=%d TooBig=%d\n", tag,
                      hitTnefEof, tooBig);
        dstring_setLength(text, entryLength);
        return 0;
    }
    return 1;
}

void tnef_GetPropValue(int fd, uint16_t wantType, uint16_t wantId, int* found, uint32_t attLen,
                       char** out) {
    ErTraceScope trace(TNEF_TRACE_CLASS_PROP, "tnef_GetPropValue");
    *out = nullptr;
    dstring text;
    dstring_init(&text);
    try {
        walkPropList(fd, wantType, wantId, *found, attLen, &text);
    } catch (Escape& e) {
        tnef_PropLogf("** tnef_GetPropValue Error detected: %d/%d\n", er_GetGroup(e),
                      er_GetReason(e));
        dstring_free(&text);
        er_Accept(e, 7);
        if (er_GetLive(e)) {
            er_TraceBeforeJump(TNEF_UNIT_PROP, __LINE__);
            throw;
        }
        return;
    }
    if (wantType == 0 && wantId == 0 && dstring_length(&text) != 0) *found = 1;
    if (*found == 1) *out = tnef_NewText(&text);
    dstring_free(&text);
}
