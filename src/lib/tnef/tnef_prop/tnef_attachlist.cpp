// The attachment listing: one pass over a TNEF file that notes where each attachment's
// bytes lie and what it is called, seeking past the bytes themselves, and that follows
// embedded messages into the byte ranges that hold them.

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

#include "tnef/platform/er_escape.h"
#include "tnef/tnef_attachments.h"
#include "tnef_defs.h"
#include "tnef_prop/tnef_attachtext.h"
#include "tnef_propstream.h"

namespace {

constexpr uint64_t kStreamHeaderSize = 6;  // signature and key
constexpr uint64_t kRecordHeaderSize = 9;  // level, attribute, length
constexpr uint64_t kChecksumSize = 2;
constexpr uint64_t kInterfaceIdSize = 16;  // in front of every PR_ATTACH_DATA_OBJ value
constexpr uint32_t kDateRecordSize = 12;   // year .. second of a date attribute
constexpr size_t kReadAhead = 64 * 1024;

// Attachment properties the listing reads; the rest are stepped over.
constexpr uint16_t kIdAttachData = PROP_ID(PR_ATTACH_DATA_BIN);
constexpr uint16_t kIdAttachFilename = PROP_ID(PR_ATTACH_FILENAME);
constexpr uint16_t kIdAttachLongFilename = PROP_ID(PR_ATTACH_LONG_FILENAME);
constexpr uint16_t kIdDisplayName = PROP_ID(PR_DISPLAY_NAME);
constexpr uint16_t kIdAttachMimeTag = 0x370E;    // PR_ATTACH_MIME_TAG
constexpr uint16_t kIdAttachContentId = 0x3712;  // PR_ATTACH_CONTENT_ID
constexpr uint32_t PR_ATTACH_METHOD = 0x37050003;
constexpr uint32_t PR_LAST_MODIFICATION_TIME = 0x30080040;
constexpr uint32_t kAttachMethodOle = 6;
constexpr uint32_t kRenderOle = 2;

// Some writers leave the type half of an attribute identifier 0; the attribute number
// alone still tells which attribute it is, as the ones below have numbers of their own.
uint32_t normalisedAttribute(uint32_t id) {
    if ((id >> 16) != 0) return id;
    for (uint32_t known :
         {attSubject, attMessageClass, attOemCodepage, attAttachRenddata, attAttachTitle,
          attAttachData, attAttachModifyDate, attAttachTransportFilename, attAttachment})
        if ((known & 0xFFFF) == id) return known;
    return id;
}

[[noreturn]] void readFailed(int err, int line) {
    er_TracedEscapeText(ER_GROUP_IO, err, TNEF_UNIT_PROP, line, "attachment listing: read failed");
}

// Reads a file through a window of kReadAhead bytes, so that a walk over many small records
// costs few system calls; never reads past the file's size.
class FileWindow {
  public:
    FileWindow(int fd, uint64_t size) : fd_(fd), size_(size), buffer_(kReadAhead) {}

    uint64_t size() const { return size_; }

    // False when [at, at + n) is not inside the file.
    bool read(uint64_t at, void* out, size_t n) {
        if (at > size_ || n > size_ - at) return false;
        if (at >= bufferAt_ && at + n <= bufferAt_ + buffered_) {
            std::memcpy(out, buffer_.data() + (at - bufferAt_), n);
            return true;
        }
        if (n > buffer_.size()) return readDirect(at, static_cast<uint8_t*>(out), n);
        const size_t want = static_cast<size_t>(std::min<uint64_t>(buffer_.size(), size_ - at));
        if (!readDirect(at, buffer_.data(), want)) return false;
        bufferAt_ = at;
        buffered_ = want;
        std::memcpy(out, buffer_.data(), n);
        return true;
    }

  private:
    bool readDirect(uint64_t at, uint8_t* out, size_t n) {
        size_t done = 0;
        while (done < n) {
            const ssize_t got = ::pread(fd_, out + done, n - done, static_cast<off_t>(at + done));
            if (got < 0 && errno == EINTR) continue;
            if (got < 0) readFailed(errno, __LINE__);
            if (got == 0) return false;  // the file shrank under us: as if it ended here
            done += static_cast<size_t>(got);
        }
        return true;
    }

    int fd_;
    uint64_t size_;
    std::vector<uint8_t> buffer_;
    uint64_t bufferAt_ = 0;
    size_t buffered_ = 0;
};

// A bounded cursor over [pos, end) of the file: no read passes end.
struct Span {
    FileWindow& file;
    uint64_t pos;
    uint64_t end;

    uint64_t left() const { return end - pos; }
    bool bytes(void* out, size_t n) {
        if (n > left() || !file.read(pos, out, n)) return false;
        pos += n;
        return true;
    }
    bool u32(uint32_t& out) {
        uint8_t b[4];
        if (!bytes(b, sizeof b)) return false;
        out = tnef_GetU32(b);
        return true;
    }
    bool skip(uint64_t n) {
        if (n > left()) return false;
        pos += n;
        return true;
    }
};

// A byte range of the file that may hold an attachment's bytes.
struct Range {
    bool present = false;
    bool cut = false;
    uint64_t offset = 0;
    uint64_t length = 0;
};

// The attachment being gathered from its records.
struct Pending {
    bool open = false;
    TnefAttachInfo info;
    bool hasTitle = false;
    bool hasProps = false;
    Range attachData;  // attAttachData
    Range bin;         // PR_ATTACH_DATA_BIN
    Range obj;         // PR_ATTACH_DATA_OBJ, past its interface identifier
    bool objIsTnef = false;
    int64_t modifyDate = 0;
    int64_t lastModification = 0;
};

struct Walk {
    FileWindow& file;
    TnefAttachList& list;
};

struct Level {
    uint32_t depth = 0;
    uint32_t parent = 0;
    uint32_t codePage = 0;
    Pending pending;
};

void listStream(Walk& walk, uint64_t start, uint64_t end, uint32_t depth, uint32_t parent,
                uint32_t codePage);

// A text value announced as length bytes, as UTF-8: as much of it as the span holds, up to
// TNEF_ATTACH_NAME_LIMIT bytes. The span's position does not move.
std::string readText(Span& s, uint32_t length, bool unicode, uint32_t codePage, uint32_t& flags) {
    const uint32_t take =
        static_cast<uint32_t>(std::min<uint64_t>({length, s.left(), TNEF_ATTACH_NAME_LIMIT}));
    if (length > TNEF_ATTACH_NAME_LIMIT) flags |= TNEF_ATTACH_NAME_CUT;
    std::string raw(take, '\0');
    const uint64_t at = s.pos;
    if (!s.bytes(raw.data(), take)) return {};
    s.pos = at;
    return unicode ? tnef_AttachTextFromUtf16(raw) : tnef_AttachTextFrom8Bit(raw, codePage);
}

std::string readRecordText(FileWindow& file, uint64_t at, uint64_t size, uint32_t codePage,
                           uint32_t& flags) {
    Span s{file, at, at + size};
    return readText(s, static_cast<uint32_t>(std::min<uint64_t>(size, UINT32_MAX)), false, codePage,
                    flags);
}

// Unix seconds of a date attribute (year, month, day, hour, minute, second as 16-bit
// words), 0 when it names no real time.
int64_t readDate(FileWindow& file, uint64_t at, uint64_t size) {
    uint8_t b[kDateRecordSize];
    if (size < sizeof b || !file.read(at, b, sizeof b)) return 0;
    std::tm tm{};
    tm.tm_year = tnef_GetU16(b) - 1900;
    tm.tm_mon = tnef_GetU16(b + 2) - 1;
    tm.tm_mday = tnef_GetU16(b + 4);
    tm.tm_hour = tnef_GetU16(b + 6);
    tm.tm_min = tnef_GetU16(b + 8);
    tm.tm_sec = tnef_GetU16(b + 10);
    if (tm.tm_year < 70 || tm.tm_mon < 0 || tm.tm_mon > 11 || tm.tm_mday < 1 || tm.tm_mday > 31 ||
        tm.tm_hour > 23 || tm.tm_min > 59 || tm.tm_sec > 60)
        return 0;
    const time_t t = ::timegm(&tm);
    return t > 0 ? static_cast<int64_t>(t) : 0;
}

// Unix seconds of a MAPI time (100 ns since 1601), 0 before 1970.
int64_t unixFromMapiTime(uint64_t ticks) {
    constexpr uint64_t kTicksPerSecond = 10000000;
    constexpr uint64_t kSeconds1601To1970 = 11644473600ULL;
    const uint64_t seconds = ticks / kTicksPerSecond;
    return seconds > kSeconds1601To1970 ? static_cast<int64_t>(seconds - kSeconds1601To1970) : 0;
}

// ---- The attachment property list ---------------------------------------------------------

void takeDataValue(Walk& walk, Pending& p, uint16_t type, uint64_t at, uint32_t length,
                   uint64_t avail) {
    const bool cut = length > avail;
    const uint64_t have = cut ? avail : length;
    if (type == PT_BINARY) {
        p.bin = {true, cut, at, have};
        return;
    }
    // The identifier names the interface the object was saved through; what other programs
    // open (a compound file, or for an embedded message a TNEF stream) starts after it.
    if (have < kInterfaceIdSize) return;  // an object without even its identifier
    p.obj = {true, cut, at + kInterfaceIdSize, have - kInterfaceIdSize};
    uint8_t signature[4];
    p.objIsTnef = have >= kInterfaceIdSize + sizeof signature &&
                  walk.file.read(at + kInterfaceIdSize, signature, sizeof signature) &&
                  tnef_GetU32(signature) == TNEF_SIGNATURE;
}

// The first value of a variable-size property, at s.pos, length bytes announced.
void takeValue(Walk& walk, Level& level, Span& s, uint32_t tag, uint32_t length) {
    Pending& p = level.pending;
    const uint16_t id = PROP_ID(tag);
    const uint16_t type = PROP_TYPE(tag);
    if (id == kIdAttachData && (type == PT_BINARY || type == PT_OBJECT)) {
        takeDataValue(walk, p, type, s.pos, length, s.left());
        return;
    }
    if (type != PT_STRING8 && type != PT_UNICODE) return;
    std::string* into = id == kIdAttachLongFilename ? &p.info.longFileName
                        : id == kIdAttachFilename   ? &p.info.fileName
                        : id == kIdDisplayName      ? &p.info.displayName
                        : id == kIdAttachMimeTag    ? &p.info.mimeTag
                        : id == kIdAttachContentId  ? &p.info.contentId
                                                    : nullptr;
    if (into != nullptr)
        *into = readText(s, length, type == PT_UNICODE, level.codePage, p.info.flags);
}

// A single fixed-size value the listing wants, at s.pos.
void takeFixed(Level& level, Span& s, uint32_t tag) {
    uint8_t b[8];
    if (tag == PR_ATTACH_METHOD && s.left() >= 4 && s.file.read(s.pos, b, 4))
        level.pending.info.method = tnef_GetU32(b);
    if (tag == PR_LAST_MODIFICATION_TIME && s.left() >= 8 && s.file.read(s.pos, b, 8))
        level.pending.lastModification =
            unixFromMapiTime(static_cast<uint64_t>(tnef_GetU32(b + 4)) << 32 | tnef_GetU32(b));
}

bool skipNamedHeader(Span& s) {
    uint32_t kind = 0;
    uint32_t nameLength = 0;
    if (!s.skip(sizeof(TnefGuid)) || !s.u32(kind)) return false;
    if (kind == MNID_ID) return s.skip(4);
    return s.u32(nameLength) && s.skip(static_cast<uint64_t>(nameLength) + tnef_Pad4(nameLength));
}

// Steps over the values of one property, reading the ones the listing wants. False when
// the list cannot be read on (cut short, or a type whose layout is unknown).
bool walkValues(Walk& walk, Level& level, Span& s, uint32_t tag) {
    const TnefPropTypeInfo info = tnef_PropTypeInfo(PROP_TYPE(tag));
    if (!info.known) return false;
    if (!info.hasValueCount) {
        takeFixed(level, s, tag);
        return s.skip(info.slotSize);
    }
    uint32_t count = 0;
    if (!s.u32(count)) return false;
    if (!info.lengthPrefixed) return s.skip(static_cast<uint64_t>(count) * info.slotSize);
    // Each value takes at least its 4-byte length, so a count larger than the bytes left
    // ends the loop with them.
    for (uint32_t i = 0; i < count; ++i) {
        uint32_t length = 0;
        if (!s.u32(length)) return false;
        if (i == 0) takeValue(walk, level, s, tag, length);
        if (!s.skip(length)) return false;
        s.skip(std::min<uint64_t>(tnef_Pad4(length), s.left()));
    }
    return true;
}

void walkProps(Walk& walk, Level& level, uint64_t at, uint64_t end, bool recordCut) {
    Span s{walk.file, at, end};
    uint32_t count = 0;
    bool complete = s.u32(count);
    for (uint32_t i = 0; complete && i < count; ++i) {
        uint32_t tag = 0;
        complete = s.u32(tag) && (!tnef_IsNamedPropId(PROP_ID(tag)) || skipNamedHeader(s)) &&
                   walkValues(walk, level, s, tag);
    }
    if (!complete && !recordCut) walk.list.flags |= TNEF_LIST_BAD_PROPS;
}

// ---- Attachments ----------------------------------------------------------------------

void chooseData(Pending& p) {
    TnefAttachInfo& a = p.info;
    const Range* from = nullptr;
    if (p.obj.present) {
        from = &p.obj;
        a.source = TNEF_DATA_OBJ;
        a.kind = p.objIsTnef ? TNEF_ATTACH_MESSAGE : TNEF_ATTACH_OLE;
    } else if (p.attachData.present) {
        from = &p.attachData;
        a.source = TNEF_DATA_ATTACH_DATA;
    } else if (p.bin.present) {
        from = &p.bin;
        a.source = TNEF_DATA_BIN;
    }
    if (from == nullptr) return;
    if (a.kind == TNEF_ATTACH_NONE)
        a.kind = a.renderType == kRenderOle || a.method == kAttachMethodOle ? TNEF_ATTACH_OLE
                                                                            : TNEF_ATTACH_FILE;
    a.dataOffset = from->offset;
    a.dataLength = from->length;
    if (from->cut) a.flags |= TNEF_ATTACH_DATA_CUT;
}

void finishAttachment(Walk& walk, Level& level) {
    Pending& p = level.pending;
    if (!p.open) return;
    p.open = false;
    if (walk.list.attachments.size() >= TNEF_ATTACH_COUNT_LIMIT) {
        walk.list.flags |= TNEF_LIST_TOO_MANY;
        return;
    }
    chooseData(p);
    TnefAttachInfo& a = p.info;
    a.modified = p.modifyDate != 0 ? p.modifyDate : p.lastModification;
    a.index = static_cast<uint32_t>(walk.list.attachments.size() + 1);
    a.depth = level.depth;
    a.parent = level.parent;
    const bool descend = a.kind == TNEF_ATTACH_MESSAGE;
    if (descend && level.depth + 1 > TNEF_ATTACH_DEPTH_LIMIT) a.flags |= TNEF_ATTACH_TOO_DEEP;
    walk.list.attachments.push_back(a);
    const TnefAttachInfo& kept = walk.list.attachments.back();
    if (descend && (kept.flags & TNEF_ATTACH_TOO_DEEP) == 0)
        listStream(walk, kept.dataOffset, kept.dataOffset + kept.dataLength, level.depth + 1,
                   kept.index, level.codePage);
}

void startAttachment(Walk& walk, Level& level) {
    finishAttachment(walk, level);
    level.pending = Pending{};
    level.pending.open = true;
}

// The attachment a record belongs to: the open one, unless it already has what the record
// brings (attachments written without rendering records are told apart that way).
Pending& attachmentFor(Walk& walk, Level& level, bool alreadyHas) {
    if (!level.pending.open || alreadyHas) startAttachment(walk, level);
    return level.pending;
}

// One record's data: at is its first byte, size the bytes of it in the stream (fewer than
// announced when cut).
void takeRecord(Walk& walk, Level& level, uint32_t attribute, uint64_t at, uint64_t size,
                bool cut) {
    uint32_t ignored = 0;
    switch (normalisedAttribute(attribute)) {
        case attOemCodepage: {
            uint8_t b[4];
            if (size >= 4 && walk.file.read(at, b, 4)) level.codePage = tnef_GetU32(b);
            if (level.depth == 0) walk.list.codePage = level.codePage;
            break;
        }
        case attSubject:
            if (level.depth == 0)
                walk.list.subject = readRecordText(walk.file, at, size, level.codePage, ignored);
            break;
        case attMessageClass:
            if (level.depth == 0)
                walk.list.messageClass =
                    readRecordText(walk.file, at, size, level.codePage, ignored);
            break;
        case attAttachRenddata: {
            startAttachment(walk, level);
            uint8_t b[2];
            if (size >= 2 && walk.file.read(at, b, 2))
                level.pending.info.renderType = tnef_GetU16(b);
            break;
        }
        case attAttachTitle: {
            Pending& p = attachmentFor(walk, level, level.pending.hasTitle);
            p.hasTitle = true;
            p.info.title = readRecordText(walk.file, at, size, level.codePage, p.info.flags);
            break;
        }
        case attAttachTransportFilename: {
            Pending& p = attachmentFor(walk, level, !level.pending.info.transportName.empty());
            p.info.transportName =
                readRecordText(walk.file, at, size, level.codePage, p.info.flags);
            break;
        }
        case attAttachData: {
            Pending& p = attachmentFor(walk, level, level.pending.attachData.present);
            p.attachData = {true, cut, at, size};
            break;
        }
        case attAttachModifyDate:
            attachmentFor(walk, level, false).modifyDate = readDate(walk.file, at, size);
            break;
        case attAttachment: {
            Pending& p = attachmentFor(walk, level, level.pending.hasProps);
            p.hasProps = true;
            walkProps(walk, level, at, at + size, cut);
            break;
        }
        default:
            break;
    }
}

// Lists the attachments of the stream held in [start, end) of the file, whose signature
// the caller has checked.
void listStream(Walk& walk, uint64_t start, uint64_t end, uint32_t depth, uint32_t parent,
                uint32_t codePage) {
    Level level;
    level.depth = depth;
    level.parent = parent;
    level.codePage = codePage;
    if (end - start < kStreamHeaderSize) walk.list.flags |= TNEF_LIST_TRUNCATED;
    uint64_t pos = start + kStreamHeaderSize;
    while (pos < end) {
        uint8_t head[kRecordHeaderSize];
        if (end - pos < sizeof head || !walk.file.read(pos, head, sizeof head)) {
            walk.list.flags |= end - pos < sizeof head ? TNEF_LIST_TRAILING : TNEF_LIST_TRUNCATED;
            break;
        }
        const uint32_t attribute = tnef_GetU32(head + 1);  // the level byte is not used
        const uint64_t length = tnef_GetU32(head + 5);
        const uint64_t at = pos + sizeof head;
        const bool cut = length > end - at;
        takeRecord(walk, level, attribute, at, cut ? end - at : length, cut);
        if (cut || end - at - length < kChecksumSize) {
            walk.list.flags |= TNEF_LIST_TRUNCATED;
            break;
        }
        pos = at + length + kChecksumSize;
    }
    finishAttachment(walk, level);
}

uint64_t fileSizeOf(int fd) {
    struct stat st {};
    if (::fstat(fd, &st) != 0) readFailed(errno, __LINE__);
    if (S_ISDIR(st.st_mode)) readFailed(EISDIR, __LINE__);
    if (!S_ISREG(st.st_mode)) readFailed(ESPIPE, __LINE__);
    return static_cast<uint64_t>(st.st_size);
}

}  // namespace

void tnef_ListAttachments(int fd, TnefAttachList* list) {
    ErTraceScope trace(TNEF_TRACE_CLASS_PROP, "tnef_ListAttachments");
    *list = TnefAttachList{};
    FileWindow file(fd, fileSizeOf(fd));
    uint8_t signature[4];
    if (!file.read(0, signature, sizeof signature) || tnef_GetU32(signature) != TNEF_SIGNATURE)
        er_TracedEscapeText(ER_GROUP_TNEF, ER_TNEF_BAD_SIGNATURE, TNEF_UNIT_PROP, __LINE__,
                            "no TNEF signature");
    Walk walk{file, *list};
    listStream(walk, 0, file.size(), 0, 0, 0);
}

std::string tnef_AttachBestName(const TnefAttachInfo& a) {
    if (a.kind == TNEF_ATTACH_MESSAGE && !a.displayName.empty()) return a.displayName;
    for (const std::string* name :
         {&a.longFileName, &a.fileName, &a.transportName, &a.title, &a.displayName})
        if (!name->empty()) return *name;
    return {};
}
