#include <cerrno>
#include <cstring>

#include "tnef/platform/cust_flags.h"
#include "tnef/platform/er_escape.h"
#include "tnef/platform/mapi_date.h"
#include "tnef/platform/os_file.h"
#include "tnef/tnef.h"
#include "tnef_defs.h"
#include "tnef_prop/tnef_blobwriter.h"
#include "tnef_prop/tnef_proplog.h"
#include "tnef_propstream.h"

namespace {

constexpr uint8_t kZeros[4] = {0, 0, 0, 0};
constexpr uint32_t kRendDataLength = 14;
constexpr uint32_t kDateRecordLength = 14;

[[noreturn]] void outOfMemory(int line) {
    er_TracedEscape(ER_GROUP_IO, ENOMEM, TNEF_UNIT_PROP, line);
}

// A writable copy of a table blob: the row and value splitters cut it in place, and the
// caller's text stays untouched.
TnefBlobText mutableCopy(const char* blob) {
    const size_t n = std::strlen(blob);
    TnefBlobText copy(static_cast<char*>(mdc_malloc(n + 1)));
    if (!copy) outOfMemory(__LINE__);
    std::memcpy(copy.get(), blob, n + 1);
    return copy;
}

void writeU32(int fd, uint32_t v) {
    uint8_t b[4];
    tnef_PutU32(b, v);
    os_write(fd, b, 4);
}

// Level, id, length, data, checksum; the padding (zero bytes) adds nothing to the sum.
void writeRecord(int fd, uint8_t level, uint32_t attribute, const uint8_t* data, uint32_t n,
                 uint32_t padding = 0) {
    uint8_t head[9];
    head[0] = level;
    tnef_PutU32(head + 1, attribute);
    tnef_PutU32(head + 5, n + padding);
    os_write(fd, head, sizeof head);
    os_write(fd, data, n);
    os_write(fd, kZeros, padding);
    uint8_t sum[2];
    tnef_PutU16(sum, tnef_Checksum(data, static_cast<int32_t>(n)));
    os_write(fd, sum, 2);
}

void addRendData(int fd, const char* value, uint8_t level) {
    uint32_t n = 0;
    const uint8_t* bytes = tnef_DecodeBlobText(value, &n);
    uint8_t rend[kRendDataLength] = {};
    std::memcpy(rend, bytes, n < kRendDataLength ? n : kRendDataLength);
    writeRecord(fd, level, attAttachRenddata, rend, kRendDataLength);
}

// The title record's length counts its padding.
void addTitle(int fd, const char* value, uint8_t level) {
    uint32_t n = 0;
    const uint8_t* bytes = tnef_DecodeBlobText(value, &n);
    writeRecord(fd, level, attAttachTitle, bytes, n, tnef_Pad4(n));
}

// The attachment attributes that tnef_GetProp renders under MAPI tags, turned back into the
// attributes they came from. The tags are compared as the exact texts it writes.
bool addAttachAttribute(int fd, const char* id, const char* value, uint8_t level) {
    if (std::strcmp(id, "RENDDATA") == 0) {
        addRendData(fd, value, level);
    } else if (std::strcmp(id, "30070040") == 0) {
        tnef_AddAttachDateAttr(fd, value, attAttachCreateDate, level);
    } else if (std::strcmp(id, "30080040") == 0) {
        tnef_AddAttachDateAttr(fd, value, attAttachModifyDate, level);
    } else if (std::strcmp(id, "37090102") == 0) {
        tnef_AddAttachBytesAttr(fd, value, attAttachMetaFile, level);
    } else if (std::strcmp(id, "37010102") == 0 || std::strcmp(id, "3701000d") == 0) {
        tnef_AddAttachBytesAttr(fd, value, attAttachData, level);
    } else if (std::strcmp(id, "3704001e") == 0) {
        addTitle(fd, value, level);
    } else {
        return false;
    }
    return true;
}

void addAttachRow(int fd, const char* row, uint8_t level) {
    const char* cursor = row;
    TnefBlobText id;
    TnefBlobText values;
    const char* next = nullptr;
    while (tnef_GetNextMAPIPropAndValues(cursor, &id, &values, &next)) {
        tnef_PropLogf("  tnef_AddAttachTableFromBlob propid=[%s]\n", id.get());
        tnef_PropLogf("  tnef_AddAttachTableFromBlob values=[%s]\n", values.get());
        // The first entry that is no attachment attribute starts the property list.
        if (!addAttachAttribute(fd, id.get(), values.get(), level)) break;
        cursor = next;
    }
    const int64_t lengthPosition = tnef_BeginBlobAttribute(fd, level, attAttachment);
    tnef_AddPropSequence(fd, cursor);
    tnef_EndBlobAttribute(fd, lengthPosition);
}

// Whether the saved file's record is one the blob writer writes itself.
bool writtenByBlobWriter(uint32_t attribute) {
    return attribute == attMAPIProps || attribute == attRecipTable || attribute == attOemCodepage ||
           attribute == attTnefVersion;
}

// A heap buffer that grows with the data actually read, so a record's claimed length never
// sizes an allocation by itself.
class GrowingBuffer {
  public:
    GrowingBuffer() = default;
    GrowingBuffer(const GrowingBuffer&) = delete;
    GrowingBuffer& operator=(const GrowingBuffer&) = delete;

    uint8_t* data() { return bytes_.get(); }
    // Makes room for at least capacity bytes, keeping the first `keep`.
    void reserve(uint64_t capacity, uint64_t keep) {
        if (capacity <= capacity_) return;
        uint64_t grown = capacity_ < TNEF_COPY_CHUNK ? TNEF_COPY_CHUNK : capacity_ * 2;
        if (grown < capacity) grown = capacity;
        TnefBlobBytes bigger(static_cast<uint8_t*>(mdc_malloc(grown)));
        if (!bigger) outOfMemory(__LINE__);
        if (keep > 0) std::memcpy(bigger.get(), bytes_.get(), keep);
        bytes_ = std::move(bigger);
        capacity_ = grown;
    }

  private:
    TnefBlobBytes bytes_;
    uint64_t capacity_ = 0;
};

// Reads n bytes of the saved file into the buffer, in chunks; false when the file ends first.
bool readWhole(int savedFd, GrowingBuffer& buffer, uint64_t n, int* eof) {
    uint64_t have = 0;
    while (have < n) {
        const uint64_t left = n - have;
        const uint32_t want =
            left < TNEF_COPY_CHUNK ? static_cast<uint32_t>(left) : TNEF_COPY_CHUNK;
        buffer.reserve(have + want, have);
        uint32_t got = 0;
        if (!tnef_PropRead(savedFd, buffer.data() + have, want, &got, eof) || got == 0)
            return false;
        have += got;
    }
    return true;
}

bool readExactly(int savedFd, void* buffer, uint32_t n, int* eof) {
    uint32_t got = 0;
    return tnef_PropRead(savedFd, buffer, n, &got, eof) && got == n;
}

void copySavedRecords(int fd, int savedFd) {
    int eof = 0;
    if (tnef_PropSeek(savedFd, 6, 0, &eof) < 0) return;
    GrowingBuffer buffer;
    uint8_t head[9];
    // Every pass reads at least the 9 head bytes or ends, so a file ends the loop.
    while (readExactly(savedFd, head, sizeof head, &eof)) {
        const uint32_t attribute = tnef_GetU32(head + 1);
        const uint64_t rest = uint64_t{tnef_GetU32(head + 5)} + 2;  // data and checksum
        if (writtenByBlobWriter(attribute)) {
            if (tnef_PropSeek(savedFd, static_cast<int64_t>(rest), 1, &eof) < 0) break;
            continue;
        }
        // A record cut short is not copied, and nothing after it is read.
        if (!readWhole(savedFd, buffer, rest, &eof)) break;
        mdc_write(fd, head, sizeof head);
        mdc_write(fd, buffer.data(), static_cast<int64_t>(rest));
    }
}

}  // namespace

void tnef_AddAttachDateAttr(int fd, const char* value, uint32_t attribute, uint8_t level) {
    TnefBlobBytes bytes;
    uint32_t n = 0;
    tnef_ConvertBlobValue(value, PT_SYSTIME, &bytes, &n);
    // A FILETIME, low word first; bytes the text lacks count as zero.
    uint8_t fileTime[8] = {};
    std::memcpy(fileTime, bytes.get(), n < sizeof fileTime ? n : sizeof fileTime);
    uint16_t fields[7];
    mapi_DateToDTR(tnef_GetU32(fileTime), tnef_GetU32(fileTime + 4), fields);
    uint8_t record[kDateRecordLength];
    for (int i = 0; i < 7; ++i) tnef_PutU16(record + 2 * i, fields[i]);
    writeRecord(fd, level, attribute, record, kDateRecordLength);
}

void tnef_AddAttachBytesAttr(int fd, const char* value, uint32_t attribute, uint8_t level) {
    uint32_t n = 0;
    const uint8_t* bytes = tnef_DecodeBlobText(value, &n);
    writeRecord(fd, level, attribute, bytes, n);
}

void tnef_AddAttachTableFromBlob(int fd, const char* blob, uint8_t level) {
    ErTraceScope trace(TNEF_TRACE_CLASS, "tnef_AddAttachTableFromBlob");
    if (blob == nullptr || blob[0] == '\0') return;
    TnefBlobText table = mutableCopy(blob);
    char* row = nullptr;
    char* cursor = table.get();
    while (tnef_GetNextRowInTable(cursor, &row, &cursor)) addAttachRow(fd, row, level);
}

void tnef_AddRecipTableFromBlob(int fd, const char* blob, uint8_t level) {
    ErTraceScope trace(TNEF_TRACE_CLASS, "tnef_AddRecipTableFromBlob");
    if (blob == nullptr) return;
    if (blob[0] == '\0' && cust_GetBoolean("MAPIXML_GEN_EMPTY_RECIP_TABLE", 0, 0, 0) != 1) return;

    const int64_t lengthPosition = tnef_BeginBlobAttribute(fd, level, attRecipTable);
    const int64_t countPosition = os_lseek64(fd, 0, 1);
    writeU32(fd, 0);
    TnefBlobText table = mutableCopy(blob);
    uint32_t rows = 0;
    char* row = nullptr;
    char* cursor = table.get();
    while (tnef_GetNextRowInTable(cursor, &row, &cursor)) {
        ++rows;
        tnef_AddPropSequence(fd, row);
    }
    const int64_t end = os_lseek64(fd, 0, 1);
    os_lseek64(fd, countPosition, 0);
    writeU32(fd, rows);
    os_lseek64(fd, end, 0);
    tnef_EndBlobAttribute(fd, lengthPosition);
}

void tnef_WriteSavedAttribs2Tnef(int fd, int savedFd) {
    ErTraceScope trace(TNEF_TRACE_CLASS, "tnef_WriteSavedAttribs2Tnef");
    if (savedFd == -1) return;
    try {
        copySavedRecords(fd, savedFd);
    } catch (Escape& e) {
        tnef_PropLogf("** tnef_WriteSavedAttribs2Tnef Error detected: %d/%d\n", er_GetGroup(e),
                      er_GetReason(e));
        er_Accept(e, 7);
        if (er_GetLive(e)) {
            er_TraceBeforeJump(TNEF_UNIT_PROP, __LINE__);
            throw;
        }
    }
}
