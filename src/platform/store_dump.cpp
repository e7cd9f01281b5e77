#include "tnef/platform/store_dump.h"

#include <sys/stat.h>

#include <cstdio>
#include <ctime>
#include <string>
#include <string_view>

#include "tnef/platform/er_escape.h"
#include "tnef/platform/mp_stored.h"
#include "tnef/platform/msg_store.h"

namespace {

// Longer texts are cut in a dump line; the line says how long they were.
constexpr size_t kShownText = 64;

std::string hex(uint32_t value) {
    char text[16];
    std::snprintf(text, sizeof text, "0x%x", value);
    return text;
}

std::string quote(std::string_view text) {
    std::string out = "\"";
    const size_t shown = text.size() > kShownText ? kShownText : text.size();
    for (size_t i = 0; i < shown; ++i) {
        const auto c = static_cast<unsigned char>(text[i]);
        if (c == '"' || c == '\\') {
            out += '\\';
            out += static_cast<char>(c);
        } else if (c >= 0x20 && c < 0x7F) {
            out += static_cast<char>(c);
        } else {
            char esc[8];
            std::snprintf(esc, sizeof esc, "\\x%02x", c);
            out += esc;
        }
    }
    out += '"';
    if (shown < text.size()) out += "...(" + std::to_string(text.size()) + " bytes)";
    return out;
}

// count consecutive texts from offset, quoted and separated by blanks; *next gets the
// offset after the last.
std::string texts(const TFREC* r, uint32_t offset, int count, uint32_t* next = nullptr) {
    std::string out;
    for (int i = 0; i < count; ++i) {
        if (i > 0) out += ' ';
        out += quote(tf_GetStrPtr(r, offset, &offset));
    }
    if (next != nullptr) *next = offset;
    return out;
}

std::string timeField(const TFREC* r) {
    const uint32_t seconds = tf_GetINT32(r, 16);
    const std::time_t t = seconds;
    std::tm tm{};
    char when[32] = "?";
    if (gmtime_r(&t, &tm) != nullptr) std::strftime(when, sizeof when, "%Y-%m-%d %H:%M:%SZ", &tm);
    return "time=" + std::to_string(seconds) + "/" + std::to_string(tf_GetINT16(r, 20)) + " (" +
           when + ")";
}

std::string refAt(const TFREC* r, uint32_t offset) {
    ItemRef ref;
    for (uint32_t i = 0; i < 4; ++i) ref.w[i] = tf_GetINT32(r, offset + 4 * i);
    return im_ItemRefText(ref);
}

std::string fields(const TFREC* r) {
    const uint32_t type = tf_GetType(r);
    switch (type) {
        case TFREC_HEADER: {
            const uint32_t f = tf_GetINT32(r, 24);
            return "header flags=" + hex(f) + " prio=" + std::to_string(f & 7) +
                   " sens=" + std::to_string((f >> 3) & 7) + " imp=" + std::to_string((f >> 6) & 7) +
                   " autofwd=" + std::to_string((f >> 12) & 1) +
                   " w16=" + std::to_string(tf_GetINT16(r, 16)) +
                   " w28=" + std::to_string(tf_GetINT32(r, 28)) + " w42=" + hex(tf_GetINT32(r, 42));
        }
        case TFREC_ORIGINATOR:
        case TFREC_ENVELOPE_ADDRESS: return "address texts=" + texts(r, 36, 3);
        case TFREC_SUBJECT: return "subject texts=" + texts(r, 16, 2);
        case TFREC_CLASS: return "class " + quote(tf_GetStrPtr(r, 16, nullptr));
        case TFREC_CREATION_TIME: return "created " + timeField(r);
        case TFREC_SUBMISSION_ID: return "submission " + quote(tf_GetStrPtr(r, 18, nullptr));
        case TFREC_EXPIRY_TIME: return "expiry " + timeField(r);
        case TFREC_DEFERRED_TIME: return "deferred " + timeField(r);
        case TFREC_RECIPIENT:
            return "recipient flags=" + hex(tf_GetINT32(r, 20)) + " texts=" + texts(r, 24, 3);
        case TFREC_LIST_ADDRESS: return "list address " + quote(tf_GetStrPtr(r, 24, nullptr));
        case TFREC_OBJECT: {
            uint32_t next = 0;
            const std::string name = quote(tf_GetStrPtr(r, 24, &next));
            return "object " + name + " size=" + std::to_string(tf_GetINT32(r, 16)) +
                   " kept=" + std::to_string(tf_GetINT16(r, 20)) +
                   " nested=" + std::to_string(tf_GetINT16(r, 22)) +
                   " ref=" + refAt(r, (next + 3) & ~3u);
        }
        case TFREC_PROPS:
        case TFREC_PROPS2:
            return "text flags=" + hex(tf_GetINT32(r, 16)) + "/" + hex(tf_GetINT32(r, 20)) +
                   " keep=" + std::to_string(tf_GetINT16(r, 24)) +
                   " nested=" + std::to_string(tf_GetINT16(r, 26)) +
                   " length=" + std::to_string(tf_GetINT32(r, 28));
        case TFREC_PROPS_DATA:
        case TFREC_PROPS2_DATA: {
            const uint32_t length = tf_GetINT32(r, 20);
            std::string out = "text data flags=" + hex(tf_GetINT32(r, 16)) +
                              " length=" + std::to_string(length);
            if (tf_GetINT32(r, 24) != MP_WHERE_INLINE) return out + " item=" + refAt(r, 28);
            const uint32_t shown = length > MP_INLINE_TEXT_MAX ? MP_INLINE_TEXT_MAX : length;
            return out + " inline " +
                   quote(std::string_view(reinterpret_cast<const char*>(r->bytes + 28), shown));
        }
        case TFREC_START_PACKAGE:
            return "package kind=" + std::to_string(tf_GetINT32(r, 16)) +
                   " n=" + std::to_string(tf_GetINT32(r, 20)) + "," +
                   std::to_string(tf_GetINT32(r, 24)) + "," + std::to_string(tf_GetINT32(r, 28)) +
                   "," + std::to_string(static_cast<int32_t>(tf_GetINT32(r, 32))) + "," +
                   std::to_string(tf_GetINT32(r, 36)) + " texts=" + texts(r, 40, 3);
        case TFREC_CONTENT_FILE:
            return "part type=" + std::to_string(tf_GetINT32(r, 20) & 0xFFFF) +
                   " flags=" + hex(tf_GetINT32(r, 24)) + " size=" + std::to_string(tf_GetINT32(r, 28)) +
                   " names=" + texts(r, 36, 3);
        case TFREC_END_PACKAGE: return "end of package";
        case TFREC_DELIVERY: return "delivery w16=" + hex(tf_GetINT16(r, 16));
        default: break;
    }
    if (type >= TFREC_DL_ENTRY_FIRST && type <= TFREC_DL_ENTRY_LAST && type % 100 == 0) {
        uint32_t next = 0;
        std::string out = "list entry texts=" + texts(r, 24, 3, &next);
        out += " flags=" + hex(tf_GetINT32(r, next));
        return out + " text4=" + quote(tf_GetStrPtr(r, next + 4, nullptr));
    }
    std::string out = "bytes";
    const uint32_t length = tf_GetLength(r);
    for (uint32_t i = TF_RECORD_HEADER; i < length && i < TF_RECORD_HEADER + 24; ++i) {
        char byte[4];
        std::snprintf(byte, sizeof byte, " %02x", r->bytes[i]);
        out += byte;
    }
    return length > TF_RECORD_HEADER + 24 ? out + " ..." : out;
}

std::string presence(const std::string& path) {
    struct stat st;
    if (::stat(path.c_str(), &st) != 0) return "MISSING " + path;
    return "size=" + std::to_string(st.st_size) + " links=" + std::to_string(st.st_nlink);
}

}  // namespace

std::string tf_DumpRecord(const TFREC* record) {
    const uint32_t type = tf_GetType(record);
    std::string line = std::to_string(type) + " g" + std::to_string(tf_WhichGroup(type)) + " ";
    try {
        line += fields(record);
    } catch (const Escape& e) {
        line += std::string("! ") + e.what();
    }
    return line + "\n";
}

std::string tf_DumpFile(int16_t tf) {
    ItemRef ref;
    tf_GetRef(tf, &ref);
    std::string out;
    try {
        TfFileOwner reader(tf_OpenFile(ref, TF_OPEN_READONLY));
        TFREC record;
        while (tf_ReadRecord(reader.get(), &record) != 0) out += tf_DumpRecord(&record);
    } catch (const Escape& e) {
        out += std::string("! ") + e.what() + "\n";
    }
    return out;
}

std::string Msg_Dump(int16_t msg) {
    std::string out = "message " + Msg_GetId(msg) + "\n";
    const uint32_t parts = Msg_GetPartCount(msg);
    for (uint32_t n = 1; n <= parts; ++n) {
        ItemRef ref;
        Msg_GetAttachedFile(msg, &ref, n);
        out += "part " + std::to_string(n) + ": " + presence(im_ItemRef2FName(ref)) + "\n";
    }
    ItemRef fileRef;
    Msg_GetFileRef(msg, &fileRef);
    out += "records:\n";
    std::string stored;
    try {
        TfFileOwner reader(tf_OpenFile(fileRef, TF_OPEN_READONLY));
        TFREC record;
        while (tf_ReadRecord(reader.get(), &record) != 0) {
            out += "  " + tf_DumpRecord(&record);
            const uint32_t type = tf_GetType(&record);
            if (type == TFREC_OBJECT) {
                uint32_t next = 0;
                const std::string name = tf_GetStrPtr(&record, 24, &next);
                ItemRef ref;
                for (uint32_t i = 0; i < 4; ++i)
                    ref.w[i] = tf_GetINT32(&record, ((next + 3) & ~3u) + 4 * i);
                stored += "  object " + quote(name) + ": " + presence(im_ItemRef2FName(ref)) + "\n";
            } else if ((type == TFREC_PROPS_DATA || type == TFREC_PROPS2_DATA) &&
                       tf_GetINT32(&record, 24) == MP_WHERE_ITEM) {
                ItemRef ref;
                for (uint32_t i = 0; i < 4; ++i) ref.w[i] = tf_GetINT32(&record, 28 + 4 * i);
                stored += "  text " + std::to_string(type) + ": " + presence(im_ItemRef2FName(ref)) + "\n";
            } else if (type == TFREC_PROPS_DATA || type == TFREC_PROPS2_DATA) {
                stored += "  text " + std::to_string(type) + ": inline, " +
                          std::to_string(tf_GetINT32(&record, 20)) + " bytes\n";
            }
        }
    } catch (const Escape& e) {
        out += std::string("  ! ") + e.what() + "\n";
    }
    return out + "stored:\n" + stored;
}
