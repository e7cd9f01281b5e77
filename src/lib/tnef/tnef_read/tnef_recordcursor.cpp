// The record cursor: the stream's records one by one, each header read and bounded by the
// bytes that remain, each checksum verified without keeping the data.

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>

#include "tnef/platform/er_escape.h"
#include "tnef_defs.h"
#include "tnef_propstream.h"
#include "tnef_read/tnef_readfile.h"

namespace {

constexpr uint64_t kStreamHeaderSize = 6;  // signature and key
constexpr uint64_t kRecordHeaderSize = 9;  // level, attribute, length
constexpr uint64_t kChecksumSize = 2;

uint64_t regularFileSize(int fd) {
    struct stat st {};
    int err = 0;
    if (::fstat(fd, &st) != 0) err = errno;
    else if (S_ISDIR(st.st_mode)) err = EISDIR;
    else if (!S_ISREG(st.st_mode)) err = ESPIPE;
    if (err != 0)
        er_TracedEscapeText(ER_GROUP_IO, err, TNEF_UNIT_READ, __LINE__, "TNEF file cannot be read");
    return static_cast<uint64_t>(st.st_size);
}

bool hasSignature(TnefReadFile& file, uint64_t at, uint64_t length) {
    uint8_t b[4];
    return length >= sizeof b && tnef_ReadFileAt(file, at, b, sizeof b) &&
           tnef_GetU32(b) == TNEF_SIGNATURE;
}

void startAt(TnefRecordCursor* c, uint64_t start, uint64_t end) {
    c->start = start;
    c->end = end;
    c->pos = std::min(end, start + kStreamHeaderSize);
    if (end - start < kStreamHeaderSize) c->flags |= TNEF_READ_TRUNCATED;
}

// Ends the walk at pos: what follows is either a few stray bytes or a record cut short.
bool endWith(TnefRecordCursor* c, uint64_t left) {
    if (left < kRecordHeaderSize) {
        c->flags |= TNEF_READ_TRAILING;
        c->trailing = left;
        if (c->records == 0) c->flags |= TNEF_READ_NO_RECORDS;
    } else {
        c->flags |= TNEF_READ_TRUNCATED;
    }
    c->pos = c->end;
    return false;
}

void verifyChecksum(TnefRecordCursor* c, TnefRecord* r) {
    uint8_t b[2];
    uint16_t sum = 0;
    if (!tnef_ReadFileAt(*c->file, r->offset + r->length, b, sizeof b) ||
        !tnef_SumFileRange(*c->file, r->offset, r->length, sum))
        return;
    r->checksum = tnef_GetU16(b);
    if (sum != r->checksum) {
        r->flags |= TNEF_RECORD_BAD_CHECKSUM;
        c->flags |= TNEF_READ_BAD_CHECKSUM;
    }
}

}  // namespace

void tnef_OpenRecords(TnefRecordCursor* c, int fd) {
    *c = TnefRecordCursor{};
    c->file = std::make_shared<TnefReadFile>();
    c->file->fd = fd;
    c->file->size = regularFileSize(fd);
    if (!hasSignature(*c->file, 0, c->file->size))
        er_TracedEscapeText(ER_GROUP_TNEF, ER_TNEF_BAD_SIGNATURE, TNEF_UNIT_READ, __LINE__,
                            "no TNEF signature");
    startAt(c, 0, c->file->size);
}

bool tnef_OpenEmbedded(TnefRecordCursor* inner, const TnefRecordCursor* outer, uint64_t offset,
                       uint64_t length) {
    *inner = TnefRecordCursor{};
    if (offset < outer->start || offset > outer->end || length > outer->end - offset ||
        !hasSignature(*outer->file, offset, length))
        return false;
    inner->file = outer->file;
    inner->depth = outer->depth + 1;
    inner->codePage = outer->codePage;
    startAt(inner, offset, offset + length);
    return true;
}

bool tnef_NextRecord(TnefRecordCursor* c, TnefRecord* r) {
    *r = TnefRecord{};
    const uint64_t left = c->end - c->pos;
    if (left == 0) {
        if (c->records == 0 && (c->flags & TNEF_READ_TRUNCATED) == 0) c->flags |= TNEF_READ_NO_RECORDS;
        return false;
    }
    uint8_t head[kRecordHeaderSize];
    if (left < sizeof head || !tnef_ReadFileAt(*c->file, c->pos, head, sizeof head))
        return endWith(c, left);
    r->level = head[0];
    r->id = tnef_GetU32(head + 1);
    r->length = tnef_GetU32(head + 5);
    r->offset = c->pos + sizeof head;
    const uint64_t room = c->end - r->offset;
    if (r->length > room || room - r->length < kChecksumSize) {
        r->available = std::min<uint64_t>(r->length, room);
        r->flags |= TNEF_RECORD_CUT;
        c->flags |= TNEF_READ_TRUNCATED;
        c->pos = c->end;
        return false;
    }
    r->available = r->length;
    if (c->verifyChecksums) verifyChecksum(c, r);
    c->pos = r->offset + r->length + kChecksumSize;
    ++c->records;
    if (r->id == attOemCodepage && r->length >= 4) {
        uint8_t b[4];
        if (tnef_ReadFileAt(*c->file, r->offset, b, sizeof b)) c->codePage = tnef_GetU32(b);
    }
    return true;
}

size_t tnef_ReadBytes(const TnefRecordCursor* c, uint64_t at, void* out, size_t n) {
    if (at < c->start || at >= c->end) return 0;
    const size_t take = static_cast<size_t>(std::min<uint64_t>(n, c->end - at));
    return tnef_ReadFileAt(*c->file, at, out, take) ? take : 0;
}
