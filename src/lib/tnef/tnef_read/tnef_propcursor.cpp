// The property cursor: the MAPI property list inside attMAPIProps, attAttachment and each
// row of attRecipTable. Every tag, count and length of a list is read here and nowhere else
// of the reader, each checked against the bytes the record holds.

#include <algorithm>
#include <cmath>
#include <cstring>

#include "tnef_defs.h"
#include "tnef_propstream.h"
#include "tnef_read/tnef_readfile.h"
#include "tnef_read/tnef_readtext.h"

namespace {

// Fewest bytes one property can take: its tag and a 4-byte value or count.
constexpr uint64_t kMinPropSize = 8;
constexpr uint64_t kMinRowSize = 4;
constexpr uint32_t kNameLimit = 1024;  // bytes of a string name that are converted
constexpr uint64_t kMapiTicksPerSecond = 10000000;
constexpr int64_t kSeconds1601To1970 = 11644473600LL;

TnefSpan spanOf(const TnefPropCursor* c) {
    return TnefSpan{c->records->file.get(), c->pos, c->end};
}

bool fail(TnefPropCursor* c, uint32_t flags) {
    c->flags |= flags;
    c->done = true;
    c->index = c->count;  // nothing more is read from this list
    c->values = c->valueIndex;
    return false;
}

bool openList(TnefPropCursor* c, const TnefRecordCursor* records, uint64_t at, uint64_t end) {
    *c = TnefPropCursor{};
    c->records = records;
    c->pos = at;
    c->end = end;
    TnefSpan s = spanOf(c);
    if (!s.u32(c->count)) return fail(c, TNEF_READ_BAD_PROPS);
    c->pos = s.pos;
    if (c->count > s.left() / kMinPropSize) c->flags |= TNEF_READ_COUNT_BEYOND;
    return true;
}

// A string name in UTF-8: its first kNameLimit bytes are converted.
std::string nameText(const TnefPropCursor* c, const TnefNamedPropHeader& h) {
    std::string raw(std::min(h.nameLength, kNameLimit), '\0');
    raw.resize(tnef_ReadBytes(c->records, h.nameAt, raw.data(), raw.size()));
    return tnef_TextFromUtf16(raw);
}

// Steps over the values of the current property that were not read.
bool skipRest(TnefPropCursor* c) {
    TnefValue ignored;
    while (!c->done && c->valueIndex < c->values)
        if (!tnef_NextValue(c, &ignored)) return !c->done;
    return true;
}

int64_t signedOf(const uint8_t* b, uint32_t size) {
    if (size == 2) return static_cast<int16_t>(tnef_GetU16(b));
    const uint64_t low = tnef_GetU32(b);
    if (size == 4) return static_cast<int32_t>(low);
    return static_cast<int64_t>(static_cast<uint64_t>(tnef_GetU32(b + 4)) << 32 | low);
}

int64_t unixFromMapi(uint64_t ticks) {
    const auto seconds = static_cast<int64_t>(ticks / kMapiTicksPerSecond);
    return seconds - kSeconds1601To1970;
}

void decodeFixed(uint16_t type, const uint8_t* b, TnefValue* v) {
    switch (type) {
        case PT_BOOLEAN: v->boolean = tnef_GetU16(b) != 0; v->integer = v->boolean; break;
        case PT_ERROR: v->integer = tnef_GetU32(b); break;
        case PT_I2: v->integer = signedOf(b, 2); break;
        case PT_LONG: v->integer = signedOf(b, 4); break;
        case PT_I8: case PT_CURRENCY: v->integer = signedOf(b, 8); break;
        case PT_R4: { float f; std::memcpy(&f, b, 4); v->real = f; break; }
        case PT_DOUBLE: case PT_APPTIME: std::memcpy(&v->real, b, 8); break;
        case PT_SYSTIME:
            v->mapiTime = static_cast<uint64_t>(signedOf(b, 8));
            v->unixTime = unixFromMapi(v->mapiTime);
            break;
        case PT_CLSID: std::memcpy(v->guid.data(), b, 16); break;
        default: break;
    }
}

bool nextFixedValue(TnefPropCursor* c, TnefSpan& s, const TnefPropTypeInfo& info, TnefValue* v) {
    uint8_t b[16];
    if (!s.bytes(b, info.slotSize)) return fail(c, TNEF_READ_BAD_PROPS);
    decodeFixed(v->type, b, v);
    return true;
}

// A length-prefixed value: an offset and a length; a length beyond the record gives what
// the record holds, marked cut, and ends the list.
bool nextVariableValue(TnefPropCursor* c, TnefSpan& s, TnefValue* v) {
    uint32_t length = 0;
    if (!s.u32(length)) return fail(c, TNEF_READ_BAD_PROPS);
    v->offset = s.pos;
    v->declared = length;
    if (length > s.left()) {
        v->length = static_cast<uint32_t>(s.left());
        v->cut = true;
        c->pos = s.end;
        fail(c, TNEF_READ_BAD_PROPS);
        return true;
    }
    v->length = length;
    s.skip(length);
    s.skip(std::min<uint64_t>(tnef_Pad4(length), s.left()));
    return true;
}

}  // namespace

bool tnef_OpenProps(TnefPropCursor* c, const TnefRecordCursor* records, const TnefRecord* r) {
    return openList(c, records, r->offset, r->offset + r->available);
}

bool tnef_NextProp(TnefPropCursor* c, TnefProp* p) {
    *p = TnefProp{};
    if (!skipRest(c) || c->index >= c->count) return false;
    TnefSpan s = spanOf(c);
    TnefPropView head;
    if (!tnef_ReadPropHead(s, head)) return fail(c, TNEF_READ_BAD_PROPS);
    p->tag = head.tag;
    p->id = PROP_ID(p->tag);
    p->type = PROP_TYPE(p->tag);
    p->named = head.named;
    p->set = head.namedHeader.guid;
    p->stringName = head.named && head.namedHeader.kind != MNID_ID;
    p->lid = head.namedHeader.lid;
    if (p->stringName) p->name = nameText(c, head.namedHeader);
    p->count = head.valueCount;
    p->offset = head.valuesPos;
    const TnefPropTypeInfo info = tnef_PropTypeInfo(p->type);
    const uint64_t least = info.lengthPrefixed ? 4 : info.slotSize;
    if (p->count > s.left() / least) {
        c->flags |= TNEF_READ_COUNT_BEYOND;
        if (!info.lengthPrefixed) return fail(c, TNEF_READ_BAD_PROPS);
    }
    c->pos = s.pos;
    c->type = p->type;
    c->values = p->count;
    c->valueIndex = 0;
    c->done = false;
    ++c->index;
    return true;
}

bool tnef_NextValue(TnefPropCursor* c, TnefValue* v) {
    *v = TnefValue{};
    if (c->done || c->valueIndex >= c->values) return false;
    const TnefPropTypeInfo info = tnef_PropTypeInfo(c->type);
    v->type = static_cast<uint16_t>(c->type & ~MV_FLAG);
    TnefSpan s = spanOf(c);
    const bool taken = info.lengthPrefixed ? nextVariableValue(c, s, v) : nextFixedValue(c, s, info, v);
    if (!taken) return false;
    if (!c->done) {
        c->pos = s.pos;
        ++c->valueIndex;
    }
    return true;
}

bool tnef_OpenRows(TnefRowCursor* c, const TnefRecordCursor* records, const TnefRecord* r) {
    *c = TnefRowCursor{};
    c->records = records;
    c->pos = r->offset;
    c->end = r->offset + r->available;
    TnefSpan s{records->file.get(), c->pos, c->end};
    if (!s.u32(c->count)) {
        c->flags |= TNEF_READ_BAD_PROPS;
        return false;
    }
    c->pos = s.pos;
    if (c->count > s.left() / kMinRowSize) c->flags |= TNEF_READ_COUNT_BEYOND;
    return true;
}

bool tnef_NextRow(TnefRowCursor* c, TnefPropCursor* row) {
    if (c->index > 0) {
        TnefProp ignored;
        while (tnef_NextProp(row, &ignored)) {
        }
        c->flags |= row->flags;
        if (row->flags & TNEF_READ_BAD_PROPS) c->index = c->count;
        c->pos = row->pos;
    }
    if (c->index >= c->count) return false;
    ++c->index;
    if (openList(row, c->records, c->pos, c->end)) return true;
    c->flags |= row->flags;
    c->index = c->count;
    return false;
}

std::string tnef_ValueText(const TnefRecordCursor* records, const TnefValue* v, uint32_t limit) {
    std::string raw(std::min(v->length, limit), '\0');
    raw.resize(tnef_ReadBytes(records, v->offset, raw.data(), raw.size()));
    if (v->type == PT_UNICODE) return tnef_TextFromUtf16(raw);
    if (v->type == PT_STRING8) return tnef_TextFrom8Bit(raw, records->codePage);
    return raw;
}
