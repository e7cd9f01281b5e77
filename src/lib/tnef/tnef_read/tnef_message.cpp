// The message view: a whole TNEF file read for people who only want to look inside it.
// Attachments come from the listing; this walk adds each stream's own properties,
// recipients and names, and opens embedded messages as views of their own.

#include <algorithm>
#include <iterator>
#include <string>
#include <vector>

#include "tnef/platform/er_escape.h"
#include "tnef/tnef_reader.h"
#include "tnef_defs.h"
#include "tnef_read/tnef_readfile.h"

namespace {

constexpr uint32_t PR_MESSAGE_CLASS = 0x001A001E;
constexpr uint32_t PR_CONVERSATION_TOPIC = 0x0070001E;

struct ViewWalk {
    const TnefAttachList& list;
    uint32_t valuesLeft = TNEF_VIEW_VALUE_LIMIT;
    uint32_t flags = 0;
};

bool isText(uint16_t type) { return (type & ~MV_FLAG) == PT_STRING8 || (type & ~MV_FLAG) == PT_UNICODE; }

// Every property of one list with its values, within the walk's value budget.
std::vector<TnefPropEntry> readEntries(ViewWalk& walk, TnefPropCursor& pc) {
    std::vector<TnefPropEntry> entries;
    // Every property takes at least 8 bytes, so this never reserves more than the list holds.
    entries.reserve(static_cast<size_t>(std::min<uint64_t>(pc.count, (pc.end - pc.pos) / 8)));
    for (;;) {
        TnefPropEntry& entry = entries.emplace_back();
        if (!tnef_NextProp(&pc, &entry.prop)) {
            entries.pop_back();
            break;
        }
        TnefValue v;
        while (tnef_NextValue(&pc, &v)) {
            if (walk.valuesLeft == 0) {
                walk.flags |= TNEF_READ_TOO_MANY;
                break;
            }
            --walk.valuesLeft;
            entry.values.push_back(v);
            if (isText(entry.prop.type)) entry.texts.push_back(tnef_ValueText(pc.records, &v));
        }
    }
    walk.flags |= pc.flags;
    return entries;
}

std::vector<TnefPropEntry> readRecordEntries(ViewWalk& walk, const TnefRecordCursor& rc,
                                             const TnefRecord& r) {
    TnefPropCursor pc;
    if (!tnef_OpenProps(&pc, &rc, &r)) {
        walk.flags |= pc.flags;
        return {};
    }
    return readEntries(walk, pc);
}

void readRows(ViewWalk& walk, const TnefRecordCursor& rc, const TnefRecord& r,
              TnefMessageView* view) {
    TnefRowCursor rows;
    TnefPropCursor row;
    if (tnef_OpenRows(&rows, &rc, &r))
        while (tnef_NextRow(&rows, &row)) view->recipients.push_back(readEntries(walk, row));
    walk.flags |= rows.flags;
}

std::string recordText(const TnefRecordCursor& rc, const TnefRecord& r) {
    TnefValue v;
    v.type = PT_STRING8;
    v.offset = r.offset;
    v.length = static_cast<uint32_t>(r.available);
    return tnef_ValueText(&rc, &v, TNEF_TEXT_CAPACITY);
}

std::string firstText(const std::vector<TnefPropEntry>& entries, uint32_t tag) {
    const TnefPropEntry* e = tnef_FindProp(entries, tag);
    return e != nullptr && !e->texts.empty() ? e->texts.front() : std::string{};
}

void readLevel(ViewWalk& walk, TnefRecordCursor& rc, uint32_t parent, TnefMessageView* view);

void addAttachments(ViewWalk& walk, const TnefRecordCursor& rc, uint32_t parent,
                    TnefMessageView* view) {
    for (const TnefAttachInfo& a : walk.list.attachments) {
        if (a.parent != parent || a.depth != rc.depth) continue;
        view->attachments.push_back(a);
        TnefRecord props;
        props.offset = a.propsOffset;
        props.available = props.length = static_cast<uint32_t>(a.propsLength);
        view->attachmentProperties.push_back(
            a.propsLength != 0 ? readRecordEntries(walk, rc, props) : std::vector<TnefPropEntry>{});
        if (a.kind != TNEF_ATTACH_MESSAGE) continue;
        if (a.flags & TNEF_ATTACH_TOO_DEEP) walk.flags |= TNEF_READ_TOO_DEEP;
        TnefRecordCursor inner;
        view->embedded.emplace_back();
        if ((a.flags & TNEF_ATTACH_TOO_DEEP) == 0 &&
            tnef_OpenEmbedded(&inner, &rc, a.dataOffset, a.dataLength)) {
            inner.verifyChecksums = false;  // the listing summed these records already
            readLevel(walk, inner, a.index, &view->embedded.back());
        }
    }
}

void takeRecord(ViewWalk& walk, const TnefRecordCursor& rc, const TnefRecord& r,
                TnefMessageView* view) {
    if (r.id == attSubject) view->subject = recordText(rc, r);
    else if (r.id == attMessageClass) view->messageClass = recordText(rc, r);
    else if (r.id == attRecipTable) readRows(walk, rc, r, view);
    else if (r.id == attBody) {
        view->hasAttBody = true;
        view->attBodyOffset = r.offset;
        view->attBodyLength = r.available;
    }
    else if (r.id == attMAPIProps) {
        std::vector<TnefPropEntry> more = readRecordEntries(walk, rc, r);
        if (view->properties.empty())
            view->properties = std::move(more);
        else
            view->properties.insert(view->properties.end(), std::make_move_iterator(more.begin()),
                                    std::make_move_iterator(more.end()));
    }
}

void readLevel(ViewWalk& walk, TnefRecordCursor& rc, uint32_t parent, TnefMessageView* view) {
    view->depth = rc.depth;
    TnefRecord r;
    while (tnef_NextRecord(&rc, &r)) takeRecord(walk, rc, r, view);
    view->codePage = rc.codePage;
    if (view->subject.empty()) view->subject = firstText(view->properties, PR_SUBJECT);
    if (view->subject.empty()) view->subject = firstText(view->properties, PR_CONVERSATION_TOPIC);
    if (view->messageClass.empty()) view->messageClass = firstText(view->properties, PR_MESSAGE_CLASS);
    addAttachments(walk, rc, parent, view);
    view->flags = rc.flags;
}

}  // namespace

void tnef_ReadMessage(int fd, TnefMessageView* view) {
    ErTraceScope trace(TNEF_TRACE_CLASS_PROP, "tnef_ReadMessage");
    *view = TnefMessageView{};
    TnefAttachList list;
    tnef_ListAttachments(fd, &list);
    TnefRecordCursor rc;
    tnef_OpenRecords(&rc, fd);
    rc.verifyChecksums = false;
    ViewWalk walk{list};
    readLevel(walk, rc, 0, view);
    view->flags |= walk.flags | tnef_ReadFlagsFromList(list.flags);
}

const TnefPropEntry* tnef_FindProp(const std::vector<TnefPropEntry>& entries, uint32_t tag) {
    const auto textless = [](uint32_t t) {
        return (PROP_TYPE(t) & ~MV_FLAG) == PT_UNICODE ? t - 1 : t;  // 8-bit and Unicode alike
    };
    for (const TnefPropEntry& e : entries)
        if (!e.prop.named && textless(e.prop.tag) == textless(tag)) return &e;
    return nullptr;
}
