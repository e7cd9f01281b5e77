// The property list of one attAttachment record, as the scan sees it: whether the
// attachment has data, its two file names, and a log line per property.

#include <cerrno>
#include <cstring>

#include "tnef/platform/er_escape.h"
#include "tnef/platform/os_file.h"
#include "tnef_defs.h"
#include "tnef_propstream.h"
#include "tnef_scan/tnef_scan.h"

namespace {

constexpr uint32_t kInterfaceIdSize = 16;  // leads every PT_OBJECT value

// The scan reads a list at the descriptor's own position, as a source of the shared list
// steps. Its seeks may pass the end of the file (the next read then fails), so it knows no
// bound of its own; nor does it track where it is, as nothing it logs needs that.
struct ScanSource {
    int fd;

    uint64_t at() const { return 0; }
    uint64_t left() const { return UINT64_MAX; }
    bool bytes(void* out, size_t n) { return tnef_ScanRead(fd, out, static_cast<uint32_t>(n)); }
    bool u32(uint32_t& value) { return tnef_ScanReadU32(fd, value); }
    bool skip(uint64_t n) { return tnef_ScanSkip(fd, n); }
};

// PT_ERROR, PT_NULL and the types outside the stream's tables end the list: their layout
// cannot be trusted, so nothing after them can be found either.
bool scanSteps(uint16_t type) {
    return type != PT_ERROR && tnef_IsKnownPropType(type);
}

TnefAttachScan* newRecord() {
    auto* record = static_cast<TnefAttachScan*>(os_malloc(sizeof(TnefAttachScan)));
    if (record == nullptr) er_TracedEscape(ER_GROUP_IO, ENOMEM, TNEF_UNIT_SCAN, __LINE__);
    std::memset(record, 0, sizeof *record);
    return record;
}

void linkAtEnd(TnefAttachScan** list, TnefAttachScan* record) {
    while (*list != nullptr) list = &(*list)->next;
    *list = record;
}

// The first value of a file name property; a longer one than the limit is stepped over and
// the field keeps what it had.
bool keepFileName(ScanSource& s, char*& field) {
    uint32_t count = 0, length = 0;
    if (!tnef_ReadValueCount(s, tnef_PropTypeInfo(PT_STRING8), count) || !s.u32(length))
        return false;
    if (length > TNEF_SCAN_NAME_LIMIT) return s.skip(uint64_t{length} + tnef_Pad4(length));
    char* text = tnef_ScanReadText(s.fd, length);
    if (text == nullptr) return false;
    os_free(field);
    field = text;
    return s.skip(tnef_Pad4(length));
}

// Each value a length, the bytes and padding; of a PT_OBJECT value the 16-byte interface
// identifier is read and not counted. A value shorter than an identifier is read whole.
bool stepLengthPrefixed(ScanSource& s, bool object, uint32_t count, uint64_t& size) {
    for (uint32_t i = 0; i < count; ++i) {
        uint32_t length = 0;
        if (!s.u32(length)) return false;
        uint64_t rest = length;
        if (object) {
            uint8_t iid[kInterfaceIdSize];
            const uint32_t iidSize = length < kInterfaceIdSize ? length : kInterfaceIdSize;
            if (!s.bytes(iid, iidSize)) return false;
            rest -= iidSize;
        }
        rest += tnef_Pad4(length);
        if (!s.skip(rest)) return false;
        size += rest;
    }
    return true;
}

// Steps over one property after its tag; false when the list ends here.
bool stepProperty(ScanSource& s, uint32_t tag) {
    const uint16_t id = PROP_ID(tag);
    TnefNamedPropHeader named;
    if (id >= NAMED_PROP_FIRST_ID && id <= NAMED_PROP_LAST_ID && !tnef_ReadNamedPropHeader(s, named))
        return false;
    const uint16_t type = PROP_TYPE(tag);
    if (!scanSteps(type)) return false;
    const TnefPropTypeInfo info = tnef_PropTypeInfo(type);
    uint32_t count = 1;
    if (!tnef_ReadValueCount(s, info, count)) return false;

    uint64_t size = 0;
    if (info.lengthPrefixed) {
        if (!stepLengthPrefixed(s, type == PT_OBJECT, count, size)) return false;
    } else {
        // One seek for all values, so a huge count costs nothing but a seek past the end.
        size = uint64_t{count} * info.slotSize;
        if (!tnef_SkipPropValues(s, type, count)) return false;
    }
    tnef_ScanLogf(true, "  Size = %d\n", static_cast<int>(size));
    return true;
}

bool scanProperty(ScanSource& s, uint32_t wantedTag, TnefAttachScan& record) {
    uint32_t tag = 0;
    if (!s.u32(tag)) return false;
    const char mark = tnef_ScanMark(tag, wantedTag);
    tnef_ScanLogf(true, "%c   Property: 0x%08x", mark, tag);
    if (tag == PR_ATTACH_DATA_OBJ || tag == PR_ATTACH_DATA_BIN) record.hasData = 1;
    // The name properties write no size line: the next property line goes on the same line.
    if (tag == PR_ATTACH_LONG_FILENAME) return keepFileName(s, record.longFileName);
    if (tag == PR_ATTACH_FILENAME) return keepFileName(s, record.fileName);
    return stepProperty(s, tag);
}

}  // namespace

TnefAttachScan* tnef_ScanProps(int fd, uint32_t wantedTag, TnefAttachScan** list) {
    ErTraceScope trace(TNEF_TRACE_CLASS_SCAN, "tnef_ScanProps");
    ScanSource s{fd};
    uint32_t count = 0;
    if (list == nullptr || !s.u32(count)) return nullptr;
    tnef_ScanLogf(false, "  No. Props  -- %d\n", static_cast<int>(count));

    TnefAttachScan* record = newRecord();
    linkAtEnd(list, record);
    // The count is the file's word: every property reads at least its 4-byte tag, so the
    // loop ends with the file however large the count.
    for (uint32_t i = 0; i < count; ++i)
        if (!scanProperty(s, wantedTag, *record)) break;
    return record;
}
