#include "stored_message.h"

#include <cstdlib>
#include <memory>

#include "json_writer.h"
#include "tnef/platform/dstring.h"
#include "tnef/platform/er_escape.h"
#include "tnef/platform/inet_header.h"
#include "tnef/platform/mp_stored.h"
#include "tnef/platform/msg_store.h"
#include "tnef/platform/os_file.h"
#include "tnef/platform/tf_msgfile.h"
#include "tool.h"

namespace {

// Offsets of the fields read here, in the records that hold them.
constexpr uint32_t kHeaderFlagsAt = 24;     // 1100
constexpr uint32_t kFirstTextAt = 16;       // 11100 subject, 11200 class
constexpr uint32_t kPackageSubjectAt = 40;  // 30100
constexpr uint32_t kContentTypeAt = 20;     // 30500, low 16 bits
constexpr uint32_t kContentFlagsAt = 24;
constexpr uint32_t kContentSizeAt = 28;
constexpr uint32_t kContentNamesAt = 36;
constexpr uint32_t kTextLengthAt = 28;  // 19500, 19600

// Records of the message's own message file, in order.
class MessageRecords {
  public:
    explicit MessageRecords(int16_t message) {
        ItemRef ref{};
        Msg_GetFileRef(message, &ref);
        tf_.reset(new TfFileOwner(tf_OpenFile(ref, TF_OPEN_READONLY)));
    }
    bool next(TFREC* record) { return tf_ReadRecord(tf_->get(), record) != 0; }
    int16_t handle() const { return tf_->get(); }

  private:
    std::unique_ptr<TfFileOwner> tf_;
};

std::string decodedSubject(const char* text) {
    dstring out;
    dstring_init(&out);
    mim_DecodeMimeToUtf8(text, &out);
    std::string subject = out.text;
    dstring_free(&out);
    return subject;
}

StoredPart partOf(int16_t message, const TFREC* r, uint32_t number, uint32_t depth) {
    StoredPart part;
    part.number = number;
    part.depth = depth;
    part.contentType = tf_GetINT32(r, kContentTypeAt) & 0xFFFF;
    part.size = tf_GetINT32(r, kContentSizeAt);
    uint32_t next = 0;
    const std::string first = tf_GetStrPtr(r, kContentNamesAt, &next);
    part.name = tf_GetStrPtr(r, next, nullptr);
    if (part.name.empty()) part.name = first;
    try {
        ItemRef ref{};
        Msg_GetAttachedFile(message, &ref, number);
        part.path = absolutePath(im_ItemRef2FName(ref));
    } catch (const Escape&) {
        // A record without its part: the report shows it without a place.
    }
    return part;
}

}  // namespace

StoredSummary readStoredSummary(int16_t message) {
    StoredSummary s;
    s.id = Msg_GetId(message);
    s.folder = absolutePath(os_ResolvePath("~/store/messages/" + s.id));
    MessageRecords records(message);
    bool haveHeader = false;
    bool haveSubject = false;
    bool haveClass = false;
    uint32_t depth = 0;
    uint32_t counted = 0;
    for (TFREC r; records.next(&r);) {
        const uint32_t type = tf_GetType(&r);
        if (type == TFREC_START_PACKAGE) {
            ++depth;
            s.embedded.emplace_back(decodedSubject(tf_GetStrPtr(&r, kPackageSubjectAt, nullptr)),
                                    depth);
        } else if (type == TFREC_END_PACKAGE) {
            if (depth > 0) --depth;
        } else if (type == TFREC_CONTENT_FILE) {
            if ((tf_GetINT32(&r, kContentFlagsAt) & TF_CONTENT_NOT_COUNTED) == 0)
                s.parts.push_back(partOf(message, &r, ++counted, depth));
        } else if (depth == 0 && type == TFREC_HEADER && !haveHeader) {
            haveHeader = true;
            s.headerFlags = tf_GetINT32(&r, kHeaderFlagsAt);
        } else if (depth == 0 && type == TFREC_SUBJECT && !haveSubject) {
            haveSubject = true;
            s.subject = decodedSubject(tf_GetStrPtr(&r, kFirstTextAt, nullptr));
        } else if (depth == 0 && type == TFREC_CLASS && !haveClass) {
            haveClass = true;
            s.messageClass = tf_GetStrPtr(&r, kFirstTextAt, nullptr);
        }
    }
    return s;
}

std::vector<StoredText> readStoredTexts(int16_t message) {
    std::vector<StoredText> texts;
    MessageRecords records(message);
    uint32_t depth = 0;
    uint32_t announced = 0;
    for (TFREC r; records.next(&r);) {
        const uint32_t type = tf_GetType(&r);
        if (type == TFREC_START_PACKAGE) ++depth;
        if (type == TFREC_END_PACKAGE && depth > 0) --depth;
        if (type == TFREC_PROPS || type == TFREC_PROPS2) announced = tf_GetINT32(&r, kTextLengthAt);
        if (type != TFREC_PROPS_DATA && type != TFREC_PROPS2_DATA) continue;
        char* buffer = nullptr;
        uint32_t length = announced;
        StoredText t;
        t.secondary = type == TFREC_PROPS2_DATA;
        t.depth = depth;
        try {
            mp_BuildMAPIProps(records.handle(), &r, type, &buffer, &length, &t.flags);
        } catch (...) {
            os_free(buffer);
            throw;
        }
        t.text.assign(buffer, length);
        os_free(buffer);
        texts.push_back(std::move(t));
    }
    return texts;
}

// Priority and importance share their codes: 0 normal, 1 low, 2 high.
static const char* levelName(uint32_t code) {
    switch (code) {
        case 0:
            return "normal";
        case 1:
            return "low";
        case 2:
            return "high";
        default:
            return "unknown";
    }
}

const char* priorityName(uint32_t flags) { return levelName(flags & 7); }

const char* importanceName(uint32_t flags) { return levelName((flags >> 6) & 7); }

const char* sensitivityName(uint32_t flags) {
    switch ((flags >> 3) & 7) {
        case 0:
            return "none";
        case 1:
            return "personal";
        case 2:
            return "private";
        case 3:
            return "confidential";
        default:
            return "unknown";
    }
}

const char* contentTypeName(uint32_t contentType) {
    switch (contentType) {
        case TF_CONTENT_FILE:
            return "file";
        case TF_CONTENT_TEXT:
            return "text";
        case TF_CONTENT_HTML:
            return "html";
        case TF_CONTENT_TNEF:
            return "tnef";
        default:
            return "other";
    }
}

void jsonSummaryFields(JsonWriter& j, const StoredSummary& s) {
    j.field("message", s.id)
        .field("folder", s.folder)
        .field("subject", s.subject)
        .field("class", s.messageClass)
        .field("priority", priorityName(s.headerFlags))
        .field("importance", importanceName(s.headerFlags))
        .field("sensitivity", sensitivityName(s.headerFlags));
    j.key("embedded_messages").beginArray();
    for (const auto& [subject, depth] : s.embedded)
        j.beginObject().field("subject", subject).field("depth", depth).endObject();
    j.endArray();
}

void jsonParts(JsonWriter& j, const std::vector<StoredPart>& parts, uint32_t fromPart) {
    j.beginArray();
    for (const StoredPart& p : parts) {
        if (p.number < fromPart) continue;
        j.beginObject()
            .field("part", p.number)
            .field("type", contentTypeName(p.contentType))
            .field("name", p.name)
            .field("size", p.size)
            .field("depth", p.depth)
            .field("path", p.path)
            .endObject();
    }
    j.endArray();
}

std::string renderParts(const std::vector<StoredPart>& parts, uint32_t fromPart) {
    std::string out;
    for (const StoredPart& p : parts) {
        if (p.number < fromPart) continue;
        out += "  part " + std::to_string(p.number) + "  " + contentTypeName(p.contentType) + "  " +
               std::to_string(p.size) + " bytes  " + std::string(2 * p.depth, ' ') +
               readableText(p.name) + "\n";
        out += "         stored at " + (p.path.empty() ? std::string("(no part)") : p.path) + "\n";
    }
    return out;
}

std::string renderSummary(const StoredSummary& s) {
    std::string out;
    const auto line = [&](const char* name, const std::string& value) {
        std::string l = name;
        l.resize(13, ' ');
        out += l + value + '\n';
    };
    line("message", s.id);
    line("folder", s.folder);
    line("subject", readableText(s.subject));
    line("class", readableText(s.messageClass));
    line("priority", priorityName(s.headerFlags));
    line("importance", importanceName(s.headerFlags));
    line("sensitivity", sensitivityName(s.headerFlags));
    return out;
}
