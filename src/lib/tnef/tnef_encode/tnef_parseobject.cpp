// The object file kept with a message, copied to the output behind the head that the
// output already has.
#include <array>
#include <cstdint>

#include "tnef/platform/er_escape.h"
#include "tnef/platform/os_file.h"
#include "tnef/tnef.h"
#include "tnef_defs.h"
#include "tnef_propstream.h"

namespace {

// Bytes after the identifier of the two leading records, taken at their usual sizes:
// length, data, checksum.
constexpr int64_t kVersionTail = 4 + 4 + 2;
constexpr int64_t kCodepageTail = 4 + 8 + 2;

// Reads and drops n bytes; false when the object file ends first.
bool drop(int fd, int64_t n) {
    std::array<uint8_t, kCodepageTail> sink;
    return os_read(fd, sink.data(), n) == n;
}

// Level byte and identifier of a record.
struct RecordHead {
    uint8_t level = 0;
    uint32_t id = 0;
};

bool readId(int fd, RecordHead& head) {
    uint8_t id[4];
    if (os_read(fd, id, 4) != 4) return false;
    head.id = tnef_GetU32(id);
    return true;
}

void writeHead(int fd, const RecordHead& head) {
    uint8_t bytes[5];
    bytes[0] = head.level;
    tnef_PutU32(bytes + 1, head.id);
    os_write(fd, bytes, sizeof bytes);
}

// Drops attTnefVersion and attOemCodepage at the start of the records and writes the first
// record head that is neither. False when the object file ends inside the head.
bool skipLeadingRecords(int outFd, int objectFd) {
    RecordHead head;
    if (os_read(objectFd, &head.level, 1) != 1) return false;
    if (head.level != LVL_MESSAGE) {
        os_write(outFd, &head.level, 1);
        return true;
    }
    if (!readId(objectFd, head)) return false;
    if (head.id == attTnefVersion) {
        if (!drop(objectFd, kVersionTail)) return false;
        if (os_read(objectFd, &head.level, 1) != 1 || !readId(objectFd, head)) return false;
        if (head.level == LVL_MESSAGE && head.id == attOemCodepage)
            return drop(objectFd, kCodepageTail);
        writeHead(outFd, head);
        return true;
    }
    if (head.id == attOemCodepage) return drop(objectFd, kCodepageTail);
    writeHead(outFd, head);
    return true;
}

}  // namespace

// The size is not needed: the copy runs to the end of the object file.
void tnef_ParseObject(int outFd, int objectFd, uint32_t /*objectSize*/) {
    ErTraceScope trace(TNEF_TRACE_CLASS, "tnef_ParseObject");
    // Field-by-field I/O is buffered for the call; offsets are exact again on return.
    OsIoBatch ioBatch;
    os_lseek64(objectFd, 0, 0);
    uint8_t streamHead[6];  // signature and key, which the output already has
    if (os_read(objectFd, streamHead, sizeof streamHead) != sizeof streamHead) return;
    if (!skipLeadingRecords(outFd, objectFd)) return;

    std::array<uint8_t, TNEF_TEXT_CAPACITY> chunk;
    for (int64_t n; (n = os_read(objectFd, chunk.data(), chunk.size())) > 0;)
        os_write(outFd, chunk.data(), n);
}
