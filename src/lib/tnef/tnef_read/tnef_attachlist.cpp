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
#include "tnef_read/tnef_readtext.h"
#include "tnef_propstream.h"
#include "tnef_read/tnef_readfile.h"
#include "tnef/tnef_reader.h"

namespace {

constexpr uint64_t kInterfaceIdSize = 16;  // in front of every PR_ATTACH_DATA_OBJ value
constexpr uint32_t kDateRecordSize = 12;   // year .. second of a date attribute

// Attachment properties the listing reads; the rest are stepped over.
constexpr uint16_t kIdAttachData = PROP_ID(PR_ATTACH_DATA_BIN);
constexpr uint16_t kIdAttachFilename = PROP_ID(PR_ATTACH_FILENAME);
constexpr uint16_t kIdAttachLongFilename = PROP_ID(PR_ATTACH_LONG_FILENAME);
constexpr uint16_t kIdDisplayName = PROP_ID(PR_DISPLAY_NAME);
constexpr uint16_t kIdAttachMimeTag = 0x370E;    // PR_ATTACH_MIME_TAG
constexpr uint16_t kIdAttachContentId = 0x3712;  // PR_ATTACH_CONTENT_ID
constexpr uint16_t kIdConversationTopic = 0x0070;  // PR_CONVERSATION_TOPIC
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
    TnefAttachList& list;
    std::string propSubject;  // PR_SUBJECT, else PR_CONVERSATION_TOPIC, of the top level
    bool hasAttSubject = false;
};

struct Level {
    const TnefRecordCursor* records;
    uint32_t depth = 0;
    uint32_t parent = 0;
    uint32_t codePage = 0;
    Pending pending;
};

void listStream(Walk& walk, const TnefRecordCursor* outer, uint64_t start, uint64_t length,
                uint32_t parent, uint32_t codePage);

// A text of the file as UTF-8: at most TNEF_ATTACH_NAME_LIMIT of its size bytes.
std::string readText(const Level& level, uint64_t at, uint64_t size, uint64_t declared,
                     bool unicode, uint32_t& flags) {
    if (declared > TNEF_ATTACH_NAME_LIMIT) flags |= TNEF_ATTACH_NAME_CUT;
    std::string raw(static_cast<size_t>(std::min<uint64_t>(size, TNEF_ATTACH_NAME_LIMIT)), '\0');
    raw.resize(tnef_ReadBytes(level.records, at, raw.data(), raw.size()));
    return unicode ? tnef_TextFromUtf16(raw) : tnef_TextFrom8Bit(raw, level.codePage);
}

std::string readRecordText(const Level& level, const TnefRecord& r, uint32_t& flags) {
    return readText(level, r.offset, r.available, r.available, false, flags);
}

// Unix seconds of a date attribute (year, month, day, hour, minute, second as 16-bit
// words), 0 when it names no real time.
int64_t readDate(const Level& level, const TnefRecord& r) {
    uint8_t b[kDateRecordSize];
    if (r.available < sizeof b || tnef_ReadBytes(level.records, r.offset, b, sizeof b) != sizeof b)
        return 0;
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

void takeDataValue(const Level& level, Pending& p, uint16_t type, const TnefValue& v) {
    if (type == PT_BINARY) {
        p.bin = {true, v.cut, v.offset, v.length};
        return;
    }
    // The identifier names the interface the object was saved through; what other programs
    // open (a compound file, or for an embedded message a TNEF stream) starts after it.
    if (v.length < kInterfaceIdSize) return;  // an object without even its identifier
    p.obj = {true, v.cut, v.offset + kInterfaceIdSize, v.length - kInterfaceIdSize};
    uint8_t signature[4];
    p.objIsTnef = tnef_ReadBytes(level.records, p.obj.offset, signature, sizeof signature) ==
                      sizeof signature &&
                  tnef_GetU32(signature) == TNEF_SIGNATURE;
}

// The first value of a variable-size property.
void takeValue(Level& level, const TnefProp& prop, const TnefValue& v) {
    Pending& p = level.pending;
    if (prop.id == kIdAttachData && (prop.type == PT_BINARY || prop.type == PT_OBJECT)) {
        takeDataValue(level, p, prop.type, v);
        return;
    }
    if (prop.type != PT_STRING8 && prop.type != PT_UNICODE) return;
    std::string* into = prop.id == kIdAttachLongFilename ? &p.info.longFileName
                        : prop.id == kIdAttachFilename   ? &p.info.fileName
                        : prop.id == kIdDisplayName      ? &p.info.displayName
                        : prop.id == kIdAttachMimeTag    ? &p.info.mimeTag
                        : prop.id == kIdAttachContentId  ? &p.info.contentId
                                                         : nullptr;
    if (into != nullptr)
        *into = readText(level, v.offset, v.length, v.declared, prop.type == PT_UNICODE,
                         p.info.flags);
}

// A single fixed-size value the listing wants.
void takeFixed(Level& level, uint32_t tag, const TnefValue& v) {
    if (tag == PR_ATTACH_METHOD) level.pending.info.method = static_cast<uint32_t>(v.integer);
    if (tag == PR_LAST_MODIFICATION_TIME)
        level.pending.lastModification = unixFromMapiTime(v.mapiTime);
}

void walkProps(Walk& walk, Level& level, const TnefRecord& r) {
    Pending& p = level.pending;
    p.info.propsOffset = r.offset;
    p.info.propsLength = r.available;
    TnefPropCursor pc;
    tnef_OpenProps(&pc, level.records, &r);
    TnefProp prop;
    TnefValue v;
    while (tnef_NextProp(&pc, &prop)) {
        if (!tnef_NextValue(&pc, &v)) continue;
        if (tnef_PropTypeInfo(prop.type).lengthPrefixed)
            takeValue(level, prop, v);
        else if (!tnef_PropTypeInfo(prop.type).hasValueCount)
            takeFixed(level, prop.tag, v);
    }
    const bool recordCut = r.available < r.length;
    if ((pc.flags & TNEF_READ_BAD_PROPS) != 0 && !recordCut)
        walk.list.flags |= TNEF_LIST_BAD_PROPS;
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
        listStream(walk, level.records, kept.dataOffset, kept.dataLength, kept.index,
                   level.codePage);
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

// A message without attSubject is still known by its PR_SUBJECT (or, failing that, its
// PR_CONVERSATION_TOPIC), as clients that write only properties leave it.
void takeSubjectProps(Walk& walk, const Level& level, const TnefRecord& r) {
    TnefPropCursor pc;
    tnef_OpenProps(&pc, level.records, &r);
    TnefProp prop;
    TnefValue v;
    while (tnef_NextProp(&pc, &prop)) {
        const bool text = prop.type == PT_STRING8 || prop.type == PT_UNICODE;
        const bool subject = prop.id == PROP_ID(PR_SUBJECT);
        if (!text || (!subject && prop.id != kIdConversationTopic) || !tnef_NextValue(&pc, &v))
            continue;
        if (subject || walk.propSubject.empty())
            walk.propSubject = tnef_ValueText(level.records, &v, TNEF_ATTACH_NAME_LIMIT);
        if (subject) return;
    }
}

// One record's data, of which the stream holds r.available bytes.
void takeRecord(Walk& walk, Level& level, const TnefRecord& r) {
    uint32_t ignored = 0;
    switch (normalisedAttribute(r.id)) {
        case attOemCodepage: {
            uint8_t b[4];
            if (tnef_ReadBytes(level.records, r.offset, b, r.available >= 4 ? 4 : 0) == 4)
                level.codePage = tnef_GetU32(b);
            if (level.depth == 0) walk.list.codePage = level.codePage;
            break;
        }
        case attSubject:
            if (level.depth == 0) walk.list.subject = readRecordText(level, r, ignored);
            walk.hasAttSubject |= level.depth == 0;
            break;
        case attMessageClass:
            if (level.depth == 0) walk.list.messageClass = readRecordText(level, r, ignored);
            break;
        case attMAPIProps:
            if (level.depth == 0) takeSubjectProps(walk, level, r);
            break;
        case attAttachRenddata: {
            startAttachment(walk, level);
            uint8_t b[2];
            if (tnef_ReadBytes(level.records, r.offset, b, r.available >= 2 ? 2 : 0) == 2)
                level.pending.info.renderType = tnef_GetU16(b);
            break;
        }
        case attAttachTitle: {
            Pending& p = attachmentFor(walk, level, level.pending.hasTitle);
            p.hasTitle = true;
            p.info.title = readRecordText(level, r, p.info.flags);
            break;
        }
        case attAttachTransportFilename: {
            Pending& p = attachmentFor(walk, level, !level.pending.info.transportName.empty());
            p.info.transportName = readRecordText(level, r, p.info.flags);
            break;
        }
        case attAttachData: {
            Pending& p = attachmentFor(walk, level, level.pending.attachData.present);
            p.attachData = {true, r.available < r.length, r.offset, r.available};
            break;
        }
        case attAttachModifyDate:
            attachmentFor(walk, level, false).modifyDate = readDate(level, r);
            break;
        case attAttachment: {
            Pending& p = attachmentFor(walk, level, level.pending.hasProps);
            p.hasProps = true;
            walkProps(walk, level, r);
            break;
        }
        default:
            break;
    }
}

// Lists the attachments of the records a cursor walks: the whole file, or an embedded
// message inside it.
void listRecords(Walk& walk, TnefRecordCursor& rc, uint32_t parent, uint32_t codePage) {
    Level level;
    level.records = &rc;
    level.depth = rc.depth;
    level.parent = parent;
    level.codePage = codePage;
    TnefRecord r;
    while (tnef_NextRecord(&rc, &r)) takeRecord(walk, level, r);
    // A record the stream cuts short still gives what it holds.
    if (r.flags & TNEF_RECORD_CUT) takeRecord(walk, level, r);
    walk.list.flags |= tnef_ListFlagsFromRead(rc.flags);
    finishAttachment(walk, level);
}

void listStream(Walk& walk, const TnefRecordCursor* outer, uint64_t start, uint64_t length,
                uint32_t parent, uint32_t codePage) {
    TnefRecordCursor rc;
    if (!tnef_OpenEmbedded(&rc, outer, start, length)) return;
    listRecords(walk, rc, parent, codePage);
}

}  // namespace

void tnef_ListAttachments(int fd, TnefAttachList* list) {
    ErTraceScope trace(TNEF_TRACE_CLASS_PROP, "tnef_ListAttachments");
    *list = TnefAttachList{};
    TnefRecordCursor rc;
    tnef_OpenRecords(&rc, fd);
    Walk walk{*list, {}, false};
    listRecords(walk, rc, 0, 0);
    if (!walk.hasAttSubject) list->subject = walk.propSubject;
}
std::string tnef_AttachBestName(const TnefAttachInfo& a) {
    if (a.kind == TNEF_ATTACH_MESSAGE && !a.displayName.empty()) return a.displayName;
    for (const std::string* name :
         {&a.longFileName, &a.fileName, &a.transportName, &a.title, &a.displayName})
        if (!name->empty()) return *name;
    return {};
}
