#include "tnef_propstream.h"

bool tnef_ReadNamedPropHeader(TnefCursor& cur, TnefNamedPropHeader& out) {
    if (!cur.bytes(out.guid.data(), out.guid.size()) || !cur.u32(out.kind)) return false;
    if (out.kind == MNID_ID) return cur.u32(out.lid);
    if (!cur.u32(out.nameLength) || !cur.has(out.nameLength)) return false;
    out.name = cur.here();
    return cur.skip(static_cast<uint64_t>(out.nameLength) + tnef_Pad4(out.nameLength));
}

bool tnef_SkipPropValues(TnefCursor& cur, uint16_t type, uint32_t count) {
    if (!tnef_IsKnownPropType(type)) return false;
    const TnefPropTypeInfo info = tnef_PropTypeInfo(type);
    if (!info.lengthPrefixed) return cur.skip(static_cast<uint64_t>(info.slotSize) * count);
    for (uint32_t i = 0; i < count; ++i) {
        uint32_t length = 0;
        if (!cur.u32(length) || !cur.skip(static_cast<uint64_t>(length) + tnef_Pad4(length)))
            return false;
    }
    return true;
}

bool tnef_NextPropInList(TnefCursor& cur, TnefPropView& out) {
    out = TnefPropView{};
    if (!cur.u32(out.tag)) return false;
    out.named = tnef_IsNamedPropId(PROP_ID(out.tag));
    if (out.named && !tnef_ReadNamedPropHeader(cur, out.namedHeader)) return false;
    const uint16_t type = PROP_TYPE(out.tag);
    if (!tnef_IsKnownPropType(type)) return false;
    if (tnef_PropTypeInfo(type).hasValueCount && !cur.u32(out.valueCount)) return false;
    out.valuesPos = cur.pos;
    if (!tnef_SkipPropValues(cur, type, out.valueCount)) return false;
    out.valuesEnd = cur.pos;
    return true;
}
