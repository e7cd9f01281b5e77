// The object file's records copied to the output one attachment at a time: each call stops
// right after the attAttachRenddata that opens the next attachment, so that the driver can
// put that attachment's data record behind it.
#include <array>
#include <cstdio>
#include <memory>

#include "tnef/platform/er_escape.h"
#include "tnef/platform/os_file.h"
#include "tnef/tnef.h"
#include "tnef_defs.h"
#include "tnef_encode.h"
#include "tnef_propstream.h"

namespace {

// Bytes after the identifier of the two head records: length, data, checksum.
constexpr int64_t kVersionTail = 4 + 4 + 2;
constexpr int64_t kCodepageTail = 4 + 8 + 2;

struct MdcFree {
    void operator()(uint8_t* block) const { mdc_free(block); }
};
using MdcBlock = std::unique_ptr<uint8_t, MdcFree>;

void writeU32(int fd, uint32_t v) {
    uint8_t b[4];
    tnef_PutU32(b, v);
    os_write(fd, b, sizeof b);
}

void writeU16(int fd, uint16_t v) {
    uint8_t b[2];
    tnef_PutU16(b, v);
    os_write(fd, b, sizeof b);
}

// Skips the next record when it is the level-1 record id; otherwise leaves the position.
bool skipHeadRecord(int fd, uint32_t id, int64_t tail) {
    const int64_t at = os_lseek64(fd, 0, 1);
    uint8_t head[5];
    if (os_read(fd, head, sizeof head) == sizeof head && head[0] == LVL_MESSAGE &&
        tnef_GetU32(head + 1) == id) {
        os_lseek64(fd, tail, 1);
        return true;
    }
    os_lseek64(fd, at, 0);
    return false;
}

// The signature, the key and the leading records that tnef_SetOemCodePage already wrote.
void skipStreamHead(int fd) {
    os_lseek64(fd, 4 + 2, 0);
    skipHeadRecord(fd, attTnefVersion, kVersionTail);
    skipHeadRecord(fd, attOemCodepage, kCodepageTail);
}

// Copies length data bytes; false when the object file ends first.
bool copyData(int inFd, int outFd, uint32_t length) {
    std::array<uint8_t, TNEF_TEXT_CAPACITY> chunk;
    for (uint32_t left = length; left != 0;) {
        const uint32_t want = left < chunk.size() ? left : static_cast<uint32_t>(chunk.size());
        const int64_t got = os_read(inFd, chunk.data(), want);
        if (got <= 0) return false;
        os_write(outFd, chunk.data(), got);
        left -= static_cast<uint32_t>(got);
    }
    return true;
}

bool copyChecksum(int inFd, int outFd) {
    uint8_t sum[2];
    if (os_read(inFd, sum, sizeof sum) != sizeof sum) return false;
    os_write(outFd, sum, sizeof sum);
    return true;
}

// The length, data and checksum of a record, unchanged.
bool copyRecordTail(int inFd, int outFd, uint32_t length) {
    writeU32(outFd, length);
    return copyData(inFd, outFd, length) && copyChecksum(inFd, outFd);
}

// A length past the end of the file cannot be read whole anyway; refusing it here keeps a
// damaged length from asking for gigabytes. An unknown file size is refused the same way.
bool fitsInFile(int fd, uint32_t length) {
    const int64_t size = os_fsize(fd);
    const int64_t at = os_lseek64(fd, 0, 1);
    return size >= 0 && at <= size && length <= size - at;
}

MdcBlock allocateProps(uint32_t length) {
    MdcBlock block(static_cast<uint8_t*>(mdc_malloc(length)));
    if (block == nullptr) {
        std::array<char, 96> text;
        std::snprintf(text.data(), text.size(),
                      "tnef_encode: Could not malloc %d bytes for attAttachment props.\n",
                      static_cast<int>(length));
        er_LogMsg(ER_SEVERITY_ERROR, ER_GROUP_IO, 24070, text.data(),
                  static_cast<const char*>(nullptr));
    }
    return block;
}

void traceLengths(uint32_t oldLength, uint16_t oldSum, uint32_t newLength, uint16_t newSum) {
    if (TraceF == nullptr) return;
    std::fprintf(TraceF, "tnef_encode: attAttachment Props Old Len/Checksum: %d/%d\n",
                 static_cast<int>(oldLength), static_cast<int>(oldSum));
    std::fprintf(TraceF, "tnef_encode: attAttachment Props New Len/Checksum: %d/%d\n",
                 static_cast<int>(newLength), static_cast<int>(newSum));
    std::fflush(TraceF);
}

// An attAttachment record with PR_RECORD_KEY taken out of its list; copied unchanged when
// its data cannot be held in memory.
bool copyAttachmentProps(int inFd, int outFd, uint32_t length) {
    MdcBlock props = fitsInFile(inFd, length) ? allocateProps(length) : nullptr;
    if (props == nullptr) return copyRecordTail(inFd, outFd, length);
    if (os_read(inFd, props.get(), length) != length) return false;
    uint32_t newLength = length;
    uint16_t newSum = 0;
    tnef_StripProps(props.get(), length, &newLength, &newSum);
    writeU32(outFd, newLength);
    os_write(outFd, props.get(), newLength);
    props.reset();
    uint8_t oldSum[2];
    if (os_read(inFd, oldSum, sizeof oldSum) != sizeof oldSum) return false;
    traceLengths(length, tnef_GetU16(oldSum), newLength, newSum);
    writeU16(outFd, newSum);
    return true;
}

}  // namespace

int tnef_getPastRendData(int outFd, int objectFd, int first) {
    ErTraceScope scope(TNEF_TRACE_CLASS, "tnef_getPastRendData");
    if (TraceF != nullptr) {
        std::fputs("tnef_encode: tnef_getPastRendData...\n", TraceF);
        std::fflush(TraceF);
    }
    if (first != 0) skipStreamHead(objectFd);
    for (;;) {
        // Level and identifier go out as soon as they are read; a record cut short in the
        // object file stays cut short in the output.
        uint8_t level = 0;
        if (os_read(objectFd, &level, 1) != 1) return 0;
        os_write(outFd, &level, 1);
        uint8_t idBytes[4];
        if (os_read(objectFd, idBytes, sizeof idBytes) != sizeof idBytes) return 0;
        os_write(outFd, idBytes, sizeof idBytes);
        uint8_t lengthBytes[4];
        if (os_read(objectFd, lengthBytes, sizeof lengthBytes) != sizeof lengthBytes) return 0;

        const uint32_t id = tnef_GetU32(idBytes);
        const uint32_t length = tnef_GetU32(lengthBytes);
        const bool whole = id == attAttachment ? copyAttachmentProps(objectFd, outFd, length)
                                               : copyRecordTail(objectFd, outFd, length);
        if (!whole) return 0;
        if (level == LVL_ATTACHMENT && id == attAttachRenddata) return 1;
    }
}
