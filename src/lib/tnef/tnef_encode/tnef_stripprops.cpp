// PR_RECORD_KEY taken out of an attachment's property list before the list is sent on: the
// key identifies the attachment in the store it came from and means nothing elsewhere.
#include <cstdio>
#include <cstring>
#include <memory>

#include "tnef/platform/er_escape.h"
#include "tnef/platform/os_file.h"
#include "tnef/tnef.h"
#include "tnef_defs.h"
#include "tnef_encode.h"
#include "tnef_propstream.h"

namespace {

// The output list, never longer than the input it is built from.
struct OutCursor {
    uint8_t* data = nullptr;
    size_t size = 0;
    size_t pos = 0;
};

// Copies n bytes out of the input into to and advances the input; false when fewer remain.
bool cursorGet(TnefCursor& in, void* to, size_t n) { return in.bytes(to, n); }

// Copies n bytes to the output and advances it; false when they do not fit.
bool cursorPut(OutCursor& out, const void* from, size_t n) {
    if (n > out.size - out.pos) return false;
    if (n != 0) std::memcpy(out.data + out.pos, from, n);
    out.pos += n;
    return true;
}

// How the values of a type are stepped over here. The table is narrower than the decoder's:
// PT_ERROR, PT_NULL and every other type outside it stop the walk.
enum class ValueLayout { Unknown, Fixed4, Fixed8, Fixed16, LengthPrefixed, Object };

constexpr ValueLayout valueLayout(uint16_t type) {
    switch (type) {
        case PT_I2:
        case PT_LONG:
        case PT_R4:
        case PT_BOOLEAN:
        case PT_MV_I2:  // 2 bytes and 2 padding bytes each
        case PT_MV_LONG:
        case PT_MV_R4: return ValueLayout::Fixed4;
        case PT_DOUBLE:
        case PT_CURRENCY:
        case PT_APPTIME:
        case PT_I8:
        case PT_SYSTIME:
        case PT_MV_DOUBLE:
        case PT_MV_CURRENCY:
        case PT_MV_APPTIME:
        case PT_MV_I8:
        case PT_MV_SYSTIME: return ValueLayout::Fixed8;
        case PT_CLSID:
        case PT_MV_CLSID: return ValueLayout::Fixed16;
        case PT_STRING8:
        case PT_UNICODE:
        case PT_BINARY:
        case PT_MV_STRING8:
        case PT_MV_UNICODE:
        case PT_MV_BINARY: return ValueLayout::LengthPrefixed;
        case PT_OBJECT: return ValueLayout::Object;
        default: return ValueLayout::Unknown;
    }
}

// 0xFFFF is MAPI's invalid property id; only the ids the writers hand out carry a header.
constexpr bool hasNamedHeader(uint32_t tag) {
    return PROP_ID(tag) >= NAMED_PROP_FIRST_ID && PROP_ID(tag) <= NAMED_PROP_LAST_ID;
}

enum class Step { Done, UnknownType, Overrun };

// One walk over a list: every field read is passed on to the output unless the property it
// belongs to is being removed.
// It is a source for the shared list steps: whatever they read is passed on as well.
struct StripWalk {
    TnefCursor in;
    OutCursor out;
    bool keep = true;

    size_t at() const { return in.at(); }
    size_t left() const { return in.left(); }
    bool bytes(void* to, size_t n) {
        const size_t from = in.pos;
        return cursorGet(in, to, n) && (!keep || cursorPut(out, in.data + from, n));
    }
    bool u32(uint32_t& value) {
        uint8_t b[4];
        if (!bytes(b, sizeof b)) return false;
        value = tnef_GetU32(b);
        return true;
    }
    bool skip(uint64_t n) { return pass(n); }
    // n is 64-bit, and compared as such, so that a length near 4 GiB plus its padding wraps
    // neither here nor in a 32-bit size_t.
    bool pass(uint64_t n) {
        if (n > in.left()) return false;
        if (keep && !cursorPut(out, in.here(), static_cast<size_t>(n))) return false;
        return in.skip(n);
    }
};

void trace(const char* format, uint64_t value) {
    if (TraceF == nullptr) return;
    std::fprintf(TraceF, format, static_cast<int>(value));
    std::fflush(TraceF);
}

// Steps over the values; *size gets the value bytes for the trace.
Step passValues(StripWalk& w, uint16_t type, uint32_t count, uint64_t* size) {
    switch (valueLayout(type)) {
        case ValueLayout::Unknown: return Step::UnknownType;
        case ValueLayout::Fixed4:
        case ValueLayout::Fixed8:
        case ValueLayout::Fixed16:
            *size = static_cast<uint64_t>(tnef_PropTypeInfo(type).slotSize) * count;
            return tnef_SkipPropValues(w, type, count) ? Step::Done : Step::Overrun;
        case ValueLayout::LengthPrefixed:
            *size = 0;
            for (uint32_t i = 0; i < count; ++i) {
                uint32_t length = 0;
                if (!tnef_SkipLengthPrefixedValue(w, length)) return Step::Overrun;
                *size += length;
            }
            return Step::Done;
        case ValueLayout::Object: {
            // One value whatever the count: its length covers the 16-byte interface id.
            uint32_t length = 0;
            if (!tnef_SkipLengthPrefixedValue(w, length) || length < 16) return Step::Overrun;
            *size = length - 16;
            return Step::Done;
        }
    }
    return Step::Overrun;
}

Step passProperty(StripWalk& w, uint32_t* removed) {
    // The tag decides whether the property is kept, so it is read before anything is passed.
    const size_t tagAt = w.in.pos;
    uint32_t tag = 0;
    if (!w.in.u32(tag)) return Step::Overrun;
    trace("    Property: 0x%08x", tag);
    w.keep = tag != PR_RECORD_KEY;
    if (!w.keep) ++*removed;
    if (w.keep && !cursorPut(w.out, w.in.data + tagAt, 4)) return Step::Overrun;
    TnefNamedPropHeader named;
    if (hasNamedHeader(tag) && !tnef_ReadNamedPropHeader(w, named)) return Step::Overrun;
    const uint16_t type = PROP_TYPE(tag);
    // Of a type outside the stream's tables, the count is read only when the multi-value bit
    // announces one; the walk then stops at the type either way.
    TnefPropTypeInfo counted = tnef_PropTypeInfo(type);
    if (!counted.known) counted.hasValueCount = (type & MV_FLAG) != 0;
    uint32_t count = 1;
    if (!tnef_ReadValueCount(w, counted, count)) return Step::Overrun;
    uint64_t size = 0;
    const Step step = passValues(w, type, count, &size);
    if (step != Step::Done) return step;
    if (TraceF != nullptr) {
        std::fprintf(TraceF, "  Size = %d", static_cast<int>(size));
        if (!w.keep) std::fputs("  *** this prop skipped", TraceF);
        std::fputc('\n', TraceF);
        std::fflush(TraceF);
    }
    return Step::Done;
}

// Lists are never near 2 GiB in practice, but the byte sum must not depend on that.
uint16_t checksumOf(const uint8_t* data, uint32_t length) {
    constexpr uint32_t kSlice = 1u << 30;
    uint16_t sum = 0;
    for (uint32_t done = 0; done < length;) {
        const uint32_t n = length - done < kSlice ? length - done : kSlice;
        sum = static_cast<uint16_t>(sum + tnef_Checksum(data + done, static_cast<int32_t>(n)));
        done += n;
    }
    return sum;
}

constexpr const char* kUnknownType =
    "tnef_encode - tnef_StripProps - unknown prop type - no props stripped";
// A count or length reaching past the list ends the walk like an unknown type does.
constexpr const char* kCutShort =
    "tnef_encode - tnef_StripProps - property list cut short - no props stripped";

void logNoneStripped(const char* why) {
    er_LogMsg(ER_SEVERITY_ERROR, ER_GROUP_IO, 24070, why, static_cast<const char*>(nullptr));
}

struct MdcFree {
    void operator()(uint8_t* block) const { mdc_free(block); }
};

// Walks the list into out; returns the number of properties removed, 0 when the walk could
// not finish (the caller then leaves the list as it was).
uint32_t stripInto(const uint8_t* buffer, uint32_t length, OutCursor& outList) {
    StripWalk w;
    w.in = TnefCursor{buffer, length, 0};
    w.out = outList;
    uint32_t count = 0;
    if (!w.u32(count)) {
        logNoneStripped(kCutShort);
        return 0;
    }
    trace("  No. Props  -- %d\n", count);
    uint32_t removed = 0;
    for (uint32_t i = 0; i < count; ++i) {
        switch (passProperty(w, &removed)) {
            case Step::Done: continue;
            case Step::UnknownType:
                logNoneStripped(kUnknownType);
                return 0;
            case Step::Overrun:
                logNoneStripped(kCutShort);
                return 0;
        }
    }
    if (removed != 0) tnef_PutU32(w.out.data, count - removed);
    outList = w.out;
    return removed;
}

}  // namespace

int tnef_StripProps(uint8_t* buffer, uint32_t length, uint32_t* newLength, uint16_t* newChecksum) {
    ErTraceScope scope(TNEF_TRACE_CLASS_PROP, "tnef_StripProps");
    std::unique_ptr<uint8_t, MdcFree> outBlock(static_cast<uint8_t*>(mdc_calloc(1, length)));
    OutCursor out{outBlock.get(), length, 0};
    uint32_t removed = 0;
    if (outBlock == nullptr)
        logNoneStripped("tnef_encode - tnef_StripProps calloc failure - no props stripped");
    else
        removed = stripInto(buffer, length, out);
    *newLength = length;
    if (removed != 0) {
        std::memcpy(buffer, out.data, out.pos);
        *newLength = static_cast<uint32_t>(out.pos);
    }
    *newChecksum = checksumOf(buffer, *newLength);
    return removed != 0 ? 1 : 0;
}
