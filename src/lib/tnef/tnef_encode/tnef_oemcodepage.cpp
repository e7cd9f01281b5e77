#include <cstdint>

#include "tnef/platform/er_escape.h"
#include "tnef/platform/os_file.h"
#include "tnef/tnef.h"
#include "tnef_defs.h"
#include "tnef_propstream.h"

namespace {

// Bytes after the identifier of the two leading records: length, data, checksum.
constexpr int kVersionTail = 4 + 4 + 2;
constexpr int kCodepageTail = 4 + 8 + 2;

// Steps the input back over bytes read but not copied, so the record loop sees them.
void unread(int inFd, int64_t bytes) {
    if (bytes > 0) os_lseek64(inFd, -bytes, 1);
}

// Reads the rest of an attOemCodepage record whose level and identifier are in head;
// copies the record and returns its code page, or the default code page (nothing copied,
// input back at the level byte) when the record is short or its length is not 8.
uint32_t copyCodepageRecord(int outFd, int inFd, const uint8_t head[5]) {
    uint8_t tail[kCodepageTail];
    const int64_t n = os_read(inFd, tail, sizeof tail);
    if (n < kCodepageTail || tnef_GetU32(tail) != 8) {
        unread(inFd, 5 + n);
        return TNEF_DEFAULT_CODEPAGE;
    }
    os_write(outFd, head, 5);
    os_write(outFd, tail, sizeof tail);
    return tnef_GetU32(tail + 4);
}

}  // namespace

uint32_t tnef_SetOemCodePage(int outFd, int inFd) {
    ErTraceScope trace(TNEF_TRACE_CLASS, "tnef_SetOemCodePage");
    // Field-by-field I/O is buffered for the call; offsets are exact again on return.
    OsIoBatch ioBatch;
    os_lseek64(inFd, 0, 0);
    uint8_t signature[4];
    if (os_read(inFd, signature, 4) != 4 || tnef_GetU32(signature) != TNEF_SIGNATURE)
        er_TracedEscapeText(ER_GROUP_TNEF, ER_TNEF_BAD_SIGNATURE, TNEF_UNIT_ENCODE, __LINE__,
                            "missing TNEF signature");
    os_write(outFd, signature, 4);

    uint8_t key[2];
    os_write(outFd, key, os_read(inFd, key, 2));

    uint8_t head[5];  // level byte and identifier
    int64_t n = os_read(inFd, head, 5);
    if (n == 0) return TNEF_DEFAULT_CODEPAGE;
    if (n < 5 || head[0] != LVL_MESSAGE) {
        unread(inFd, n);
        return TNEF_DEFAULT_CODEPAGE;
    }

    const uint32_t id = tnef_GetU32(head + 1);
    if (id == attOemCodepage) {
        return copyCodepageRecord(outFd, inFd, head);
    }
    if (id != attTnefVersion) {
        unread(inFd, 5);
        return TNEF_DEFAULT_CODEPAGE;
    }

    uint8_t tail[kVersionTail];
    n = os_read(inFd, tail, sizeof tail);
    if (n < kVersionTail || tnef_GetU32(tail) != 4) {
        // A short or malformed version record is left whole for the record loop.
        unread(inFd, 5 + n);
        return TNEF_DEFAULT_CODEPAGE;
    }
    os_write(outFd, head, 5);
    os_write(outFd, tail, sizeof tail);

    n = os_read(inFd, head, 5);
    if (n == 5 && head[0] == LVL_MESSAGE && tnef_GetU32(head + 1) == attOemCodepage) {
        return copyCodepageRecord(outFd, inFd, head);
    }
    unread(inFd, n);
    return TNEF_DEFAULT_CODEPAGE;
}
