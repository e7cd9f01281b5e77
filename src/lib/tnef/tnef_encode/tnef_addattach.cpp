// An attachment's data record written from the body part that carried its content.
#include <array>

#include "tnef/platform/er_escape.h"
#include "tnef/platform/im_items.h"
#include "tnef/platform/os_file.h"
#include "tnef/tnef.h"
#include "tnef_defs.h"
#include "tnef_encode.h"
#include "tnef_propstream.h"
#include "tnef_writers.h"

namespace {

constexpr size_t kReadChunk = 4096;
// Every byte of a chunk may gain a carriage return in front of it.
constexpr size_t kConvertedChunk = 2 * kReadChunk;
static_assert(kConvertedChunk == TNEF_COPY_CHUNK);

void writeU32(int fd, uint32_t v) {
    uint8_t b[4];
    tnef_PutU32(b, v);
    os_write(fd, b, sizeof b);
}

bool isTextPart(uint16_t partType) {
    return partType == TNEF_PART_TYPE_TEXT || partType == TNEF_PART_TYPE_TEXT_ALT;
}

// Puts CR before every LF that does not already follow one; *previous carries the last byte
// across chunks (0 before the first, which is not CR). Returns the bytes in out.
size_t toCrLf(const uint8_t* in, size_t n, uint8_t* out, uint8_t* previous) {
    size_t k = 0;
    for (size_t i = 0; i < n; ++i) {
        if (in[i] == '\n' && *previous != '\r') out[k++] = '\r';
        out[k++] = in[i];
        *previous = in[i];
    }
    return k;
}

void addToChecksum(const uint8_t* data, size_t n) {
    uint16_t& sum = tnefWriterState.checksum;
    sum = static_cast<uint16_t>(sum + tnef_Checksum(data, static_cast<int32_t>(n)));
}

// Overwrites the length field at lengthAt and returns to the end of the stream.
void patchLength(int fd, int64_t lengthAt, uint32_t length) {
    const int64_t end = os_lseek64(fd, 0, 1);
    os_lseek64(fd, lengthAt, 0);
    writeU32(fd, length);
    os_lseek64(fd, end, 0);
}

}  // namespace

void tnef_AddAttachment(int outFd, SflFile* item, uint32_t size, uint16_t partType) {
    ErTraceScope scope(TNEF_TRACE_CLASS, "tnef_AddAttachment");
    uint8_t head[5];
    head[0] = LVL_ATTACHMENT;
    tnef_PutU32(head + 1, attAttachData);
    os_write(outFd, head, sizeof head);
    const int64_t lengthAt = os_lseek64(outFd, 0, 1);
    writeU32(outFd, size);

    const bool text = isTextPart(partType);
    tnefWriterState.checksum = 0;
    std::array<uint8_t, kReadChunk> chunk;
    std::array<uint8_t, kConvertedChunk> converted;
    uint8_t previous = 0;
    uint32_t written = 0;
    for (uint32_t remaining = size; remaining != 0;) {
        const size_t want = remaining < chunk.size() ? remaining : chunk.size();
        const size_t got = sfl_fRead(chunk.data(), 1, want, item);
        if (got == 0) break;
        const uint8_t* out = chunk.data();
        size_t n = got;
        if (text) {
            n = toCrLf(chunk.data(), got, converted.data(), &previous);
            out = converted.data();
        }
        os_write(outFd, out, static_cast<int64_t>(n));
        addToChecksum(out, n);
        written += static_cast<uint32_t>(n);
        remaining -= static_cast<uint32_t>(got);
    }
    // Text grows by its added carriage returns; a binary part only differs when the item
    // delivered fewer bytes than announced, and the length then tells the truth too.
    if (text || written != size) patchLength(outFd, lengthAt, written);
    uint8_t sum[2];
    tnef_PutU16(sum, tnefWriterState.checksum);
    os_write(outFd, sum, sizeof sum);
}
