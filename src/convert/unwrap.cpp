// The mail filter: GMime parses the mail and writes it back; the TNEF parts in it are read
// with the codec's reader from an anonymous in-memory file and replaced by what they hold.
#include "tnef/tnef_unwrap.h"

#include <fcntl.h>
#include <gmime/gmime.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "convert_internal.h"
#include "tnef/platform/er_escape.h"
#include "tnef/tnef_attachments.h"
#include "tnef/tnef_body.h"
#include "tnef/tnef_convert.h"
#include "tnef/tnef_reader.h"

using namespace tnefconv;

namespace {

constexpr uint16_t PR_INTERNET_MESSAGE_ID = 0x1035;

// PT_SYSTIME (100 ns since 1601) as Unix seconds.
int64_t unixOfMapi(uint64_t t) { return static_cast<int64_t>(t / 10000000ULL) - 11644473600LL; }

// GObject references, dropped when the holder goes.
template <typename T>
struct Ref {
    T* p = nullptr;
    explicit Ref(T* q = nullptr) : p(q) {}
    Ref(const Ref&) = delete;
    Ref& operator=(const Ref&) = delete;
    ~Ref() {
        if (p) g_object_unref(p);
    }
    T* get() const { return p; }
    T* release() { return std::exchange(p, nullptr); }
};

// A file descriptor closed when the holder goes.
struct Fd {
    int fd = -1;
    explicit Fd(int f) : fd(f) {}
    Fd(const Fd&) = delete;
    Fd& operator=(const Fd&) = delete;
    ~Fd() {
        if (fd >= 0) ::close(fd);
    }
};

void initGMime() {
    static std::once_flag once;
    std::call_once(once, [] { g_mime_init(); });
}

bool typeIs(GMimeObject* o, const char* type, const char* subtype) {
    GMimeContentType* ct = g_mime_object_get_content_type(o);
    return ct && g_mime_content_type_is_type(ct, type, subtype);
}

// application/ms-tnef (and its vnd. name), or winmail.dat sent with a type that says nothing.
bool isTnefPart(GMimeObject* o) {
    if (!GMIME_IS_PART(o)) return false;
    if (typeIs(o, "application", "ms-tnef") || typeIs(o, "application", "vnd.ms-tnef")) return true;
    const char* name = g_mime_part_get_filename(GMIME_PART(o));
    if (name == nullptr || g_ascii_strcasecmp(name, "winmail.dat") != 0) return false;
    return typeIs(o, "application", "octet-stream") || typeIs(o, "application", "x-unknown") ||
           typeIs(o, "text", "plain");
}

bool isSigned(GMimeObject* o) { return GMIME_IS_MULTIPART_SIGNED(o) || GMIME_IS_APPLICATION_PKCS7_MIME(o); }

// A part's content, decoded from its transfer encoding.
std::string decodedContent(GMimePart* part) {
    GMimeDataWrapper* content = g_mime_part_get_content(part);
    if (content == nullptr) return {};
    Ref<GMimeStream> mem(g_mime_stream_mem_new());
    g_mime_data_wrapper_write_to_stream(content, mem.get());
    GByteArray* bytes = g_mime_stream_mem_get_byte_array(GMIME_STREAM_MEM(mem.get()));
    return std::string(reinterpret_cast<const char*>(bytes->data), bytes->len);
}

// The reader wants a regular file it can read at any offset: an anonymous one in memory.
int memoryFile(const std::string& bytes) {
    const int fd = memfd_create("tnef-part", MFD_CLOEXEC);
    if (fd < 0) er_TracedEscape(ER_GROUP_IO, errno, __FILE__, __LINE__);
    size_t done = 0;
    while (done < bytes.size()) {
        const ssize_t w = ::write(fd, bytes.data() + done, bytes.size() - done);
        if (w < 0 && errno == EINTR) continue;
        if (w < 0) {
            const int err = errno;
            ::close(fd);
            er_TracedEscape(ER_GROUP_IO, err, __FILE__, __LINE__);
        }
        done += static_cast<size_t>(w);
    }
    return fd;
}

std::string lowerExtension(const std::string& name) {
    const size_t dot = name.rfind('.');
    if (dot == std::string::npos || dot + 1 == name.size()) return {};
    std::string ext = name.substr(dot + 1);
    for (char& c : ext) c = static_cast<char>(g_ascii_tolower(c));
    return ext;
}

// Types of the extensions mail carries most; the rest go as application/octet-stream.
const char* typeOfExtension(const std::string& ext) {
    static constexpr struct { const char* ext; const char* type; } kTypes[] = {
        {"pdf", "application/pdf"},   {"zip", "application/zip"},     {"gz", "application/gzip"},
        {"doc", "application/msword"}, {"xls", "application/vnd.ms-excel"},
        {"ppt", "application/vnd.ms-powerpoint"},
        {"docx", "application/vnd.openxmlformats-officedocument.wordprocessingml.document"},
        {"xlsx", "application/vnd.openxmlformats-officedocument.spreadsheetml.sheet"},
        {"pptx", "application/vnd.openxmlformats-officedocument.presentationml.presentation"},
        {"rtf", "application/rtf"},   {"xml", "application/xml"},     {"json", "application/json"},
        {"txt", "text/plain"},        {"csv", "text/csv"},            {"htm", "text/html"},
        {"html", "text/html"},        {"ics", "text/calendar"},       {"vcf", "text/vcard"},
        {"eml", "message/rfc822"},    {"jpg", "image/jpeg"},          {"jpeg", "image/jpeg"},
        {"png", "image/png"},         {"gif", "image/gif"},           {"bmp", "image/bmp"},
        {"tif", "image/tiff"},        {"tiff", "image/tiff"},         {"svg", "image/svg+xml"},
        {"mp3", "audio/mpeg"},        {"wav", "audio/wav"},           {"mp4", "video/mp4"},
    };
    for (const auto& t : kTypes)
        if (ext == t.ext) return t.type;
    return "application/octet-stream";
}

// A type as the sender's client tagged it, when it is a well-formed type/subtype.
std::string usableMimeTag(const std::string& tag) {
    const size_t slash = tag.find('/');
    if (slash == 0 || slash == std::string::npos || slash + 1 == tag.size()) return {};
    for (char c : tag)
        if (c <= ' ' || c >= 0x7F || c == ';' || c == '"') return {};
    return tag;
}

std::string rfc822Date(int64_t unixSeconds) {
    GDateTime* t = g_date_time_new_from_unix_utc(unixSeconds);
    if (t == nullptr) return {};
    char* text = g_mime_utils_header_format_date(t);
    g_date_time_unref(t);
    std::string out = text ? text : "";
    g_free(text);
    return out;
}

// What the outer mail already shows: whether it has a body of its own, and HTML.
struct OuterBody {
    bool text = false;  // a text part with more than white space in it
    bool html = false;
};

void weighOuterBody(GMimeObject* o, OuterBody* body) {
    if (GMIME_IS_MULTIPART(o)) {
        GMimeMultipart* m = GMIME_MULTIPART(o);
        for (int i = 0; i < g_mime_multipart_get_count(m); ++i) weighOuterBody(g_mime_multipart_get_part(m, i), body);
        return;
    }
    if (!(typeIs(o, "text", "plain") || typeIs(o, "text", "html")) || isTnefPart(o)) return;
    if (g_mime_part_is_attachment(GMIME_PART(o))) return;
    if (typeIs(o, "text", "html")) body->html = true;
    const std::string text = decodedContent(GMIME_PART(o));
    if (std::any_of(text.begin(), text.end(), [](char c) { return !g_ascii_isspace(c); })) body->text = true;
}

GMimeTextPart* textPart(const char* subtype, const std::string& utf8) {
    GMimeTextPart* t = g_mime_text_part_new_with_subtype(subtype);
    g_mime_text_part_set_text(t, utf8.c_str());
    return t;
}

// Builds the parts one TNEF message stands for.
class Converter {
public:
    Converter(int fd, TnefUnwrapResult* result) : fd_(fd), result_(result) {}

    // Parts for the message in view, appended to *out. withBody: the body is wanted (the
    // outer mail shows none, or shows less).
    void messageParts(const TnefMessageView& view, bool withBody, bool htmlWanted, std::vector<GMimeObject*>* out) {
        TnefBody html, text;
        if (withBody || htmlWanted) {
            html = tnef_MessageBody(fd_, view, TNEF_BODY_HTML);
            if (withBody) text = tnef_MessageBody(fd_, view, TNEF_BODY_TEXT);
        }
        GMimeObject* body = nullptr;
        const bool hasHtml = html.kind == TNEF_BODY_HTML && !html.text.empty();
        const bool hasText = text.kind == TNEF_BODY_TEXT && !text.text.empty();
        if (hasHtml && hasText) {
            GMimeMultipart* alt = g_mime_multipart_new_with_subtype("alternative");
            Ref<GMimeTextPart> t(textPart("plain", text.text)), h(textPart("html", html.text));
            g_mime_multipart_add(alt, GMIME_OBJECT(t.get()));
            g_mime_multipart_add(alt, GMIME_OBJECT(h.get()));
            body = GMIME_OBJECT(alt);
        } else if (hasHtml) {
            body = GMIME_OBJECT(textPart("html", html.text));
        } else if (hasText) {
            body = GMIME_OBJECT(textPart("plain", text.text));
        }
        if (body) out->push_back(body);

        const TnefConverted converted = tnef_ConvertMessage(fd_, view);
        if (converted.kind == TNEF_CONVERT_ICALENDAR || converted.kind == TNEF_CONVERT_VCARD) {
            const bool ical = converted.kind == TNEF_CONVERT_ICALENDAR;
            GMimeTextPart* cal = textPart(ical ? "calendar" : "vcard", converted.text);
            if (ical && !converted.method.empty())
                g_mime_object_set_content_type_parameter(GMIME_OBJECT(cal), "method", converted.method.c_str());
            out->push_back(GMIME_OBJECT(cal));
        }

        size_t embedded = 0;
        for (size_t i = 0; i < view.attachments.size(); ++i) {
            const TnefAttachInfo& a = view.attachments[i];
            const Entries* props = i < view.attachmentProperties.size() ? &view.attachmentProperties[i] : nullptr;
            if (a.kind == TNEF_ATTACH_MESSAGE) {
                if (embedded < view.embedded.size()) out->push_back(messagePart(a, view.embedded[embedded]));
                ++embedded;
            } else if (a.kind != TNEF_ATTACH_NONE) {
                out->push_back(attachmentPart(a, props, hasHtml ? html.text : std::string()));
            }
        }
    }

private:
    GMimeObject* attachmentPart(const TnefAttachInfo& a, const Entries* props, const std::string& html) {
        const std::string name = tnef_AttachBestName(a);
        std::string type = usableMimeTag(a.mimeTag);
        if (type.empty()) type = typeOfExtension(lowerExtension(name));
        GMimeContentType* ct = g_mime_content_type_parse(nullptr, type.c_str());
        GMimePart* part = g_mime_part_new_with_type(g_mime_content_type_get_media_type(ct),
                                                    g_mime_content_type_get_media_subtype(ct));
        g_object_unref(ct);

        Ref<GMimeStream> data(g_mime_stream_mem_new());
        std::vector<char> buffer(std::min<uint64_t>(a.dataLength, 1 << 20));
        for (uint64_t at = 0; at < a.dataLength;) {
            const size_t want = static_cast<size_t>(std::min<uint64_t>(buffer.size(), a.dataLength - at));
            const ssize_t n = ::pread(fd_, buffer.data(), want, static_cast<off_t>(a.dataOffset + at));
            if (n < 0 && errno == EINTR) continue;
            if (n < 0) er_TracedEscape(ER_GROUP_IO, errno, __FILE__, __LINE__);
            if (n == 0) er_TracedEscape(ER_GROUP_IO, EIO, __FILE__, __LINE__);
            g_mime_stream_write(data.get(), buffer.data(), static_cast<size_t>(n));
            at += static_cast<uint64_t>(n);
        }
        g_mime_stream_reset(data.get());
        Ref<GMimeDataWrapper> wrapper(g_mime_data_wrapper_new_with_stream(data.get(), GMIME_CONTENT_ENCODING_DEFAULT));
        g_mime_part_set_content(part, wrapper.get());
        g_mime_part_set_content_encoding(part, GMIME_CONTENT_ENCODING_BASE64);

        // Inline only when the HTML shows it; everything else is there to be saved.
        const bool shown = !a.contentId.empty() && html.find("cid:" + a.contentId) != std::string::npos;
        g_mime_object_set_disposition(GMIME_OBJECT(part), shown ? "inline" : "attachment");
        if (!name.empty()) g_mime_part_set_filename(part, name.c_str());
        if (!a.contentId.empty()) g_mime_object_set_content_id(GMIME_OBJECT(part), a.contentId.c_str());
        GMimeContentDisposition* disposition = g_mime_object_get_content_disposition(GMIME_OBJECT(part));
        const std::optional<uint64_t> created = props ? timeOf(findTag(*props, PR_CREATION_TIME)) : std::nullopt;
        const struct { const char* name; int64_t when; } dates[] = {
            {"creation-date", created ? unixOfMapi(*created) : 0},
            {"modification-date", a.modified},
        };
        for (const auto& d : dates) {
            const std::string date = d.when != 0 && disposition ? rfc822Date(d.when) : std::string();
            if (!date.empty()) g_mime_content_disposition_set_parameter(disposition, d.name, date.c_str());
        }
        if (a.flags & TNEF_ATTACH_DATA_CUT)
            result_->warnings.push_back("attachment " + std::to_string(a.index) + " (" + name +
                                        ") is cut short: written as far as it goes");
        return GMIME_OBJECT(part);
    }

    static void addRecipients(GMimeMessage* msg, const TnefMessageView& view) {
        for (const Entries& row : view.recipients) {
            const std::optional<int64_t> kind = integerOf(findTag(row, PR_RECIPIENT_TYPE));
            GMimeAddressType type = GMIME_ADDRESS_TYPE_TO;
            if (kind == 2) type = GMIME_ADDRESS_TYPE_CC;
            else if (kind == 3) type = GMIME_ADDRESS_TYPE_BCC;
            std::optional<std::string> addr = textOf(findTag(row, PR_SMTP_ADDRESS));
            if (!addr) addr = textOf(findTag(row, PR_EMAIL_ADDRESS));
            if (!addr || !isAddress(*addr)) continue;
            const std::string name = textOf(findTag(row, PR_DISPLAY_NAME)).value_or("");
            g_mime_message_add_mailbox(msg, type, name.c_str(), addr->c_str());
        }
    }

    static void addSender(GMimeMessage* msg, const Entries& props) {
        std::optional<std::string> addr = textOf(findTag(props, PR_SENT_REPRESENTING_SMTP_ADDRESS));
        if (!addr) addr = textOf(findTag(props, PR_SENDER_SMTP_ADDRESS));
        if (!addr || !isAddress(*addr)) addr = textOf(findTag(props, PR_SENT_REPRESENTING_EMAIL_ADDRESS));
        if (!addr || !isAddress(*addr)) addr = textOf(findTag(props, PR_SENDER_EMAIL_ADDRESS));
        if (!addr || !isAddress(*addr)) return;
        std::optional<std::string> name = textOf(findTag(props, PR_SENT_REPRESENTING_NAME));
        if (!name) name = textOf(findTag(props, PR_SENDER_NAME));
        g_mime_message_add_mailbox(msg, GMIME_ADDRESS_TYPE_FROM, name.value_or("").c_str(), addr->c_str());
    }

    // An embedded message as message/rfc822, its headers rebuilt from its properties and its
    // content made the way the outer message's is.
    GMimeObject* messagePart(const TnefAttachInfo& a, const TnefMessageView& view) {
        Ref<GMimeMessage> msg(g_mime_message_new(FALSE));
        addSender(msg.get(), view.properties);
        addRecipients(msg.get(), view);
        if (!view.subject.empty()) g_mime_message_set_subject(msg.get(), view.subject.c_str(), "utf-8");
        if (const std::optional<uint64_t> t = timeOf(findTag(view.properties, PR_CLIENT_SUBMIT_TIME))) {
            GDateTime* date = g_date_time_new_from_unix_utc(unixOfMapi(*t));
            if (date) {
                g_mime_message_set_date(msg.get(), date);
                g_date_time_unref(date);
            }
        }
        if (std::optional<std::string> id = textOf(findTag(view.properties, PR_INTERNET_MESSAGE_ID))) {
            std::string bare = *id;
            if (bare.size() > 2 && bare.front() == '<' && bare.back() == '>') bare = bare.substr(1, bare.size() - 2);
            g_mime_message_set_message_id(msg.get(), bare.c_str());
        }
        std::vector<GMimeObject*> parts;
        messageParts(view, true, true, &parts);
        g_mime_message_set_mime_part(msg.get(), wrapMixed(parts));

        GMimeMessagePart* part = g_mime_message_part_new_with_message("rfc822", msg.get());
        g_mime_object_set_disposition(GMIME_OBJECT(part), "attachment");
        const std::string name = tnef_AttachBestName(a);
        if (!name.empty()) {
            GMimeContentDisposition* d = g_mime_object_get_content_disposition(GMIME_OBJECT(part));
            if (d) g_mime_content_disposition_set_parameter(d, "filename", (name + ".eml").c_str());
        }
        return GMIME_OBJECT(part);
    }

public:
    // One object for a list of parts: the part itself when there is one, else a
    // multipart/mixed (empty text when there is none). Takes the list's references.
    static GMimeObject* wrapMixed(std::vector<GMimeObject*>& parts) {
        if (parts.size() == 1) return std::exchange(parts[0], nullptr);
        if (parts.empty()) return GMIME_OBJECT(textPart("plain", ""));
        GMimeMultipart* mixed = g_mime_multipart_new_with_subtype("mixed");
        for (GMimeObject*& p : parts) {
            g_mime_multipart_add(mixed, p);
            g_object_unref(std::exchange(p, nullptr));
        }
        parts.clear();
        return GMIME_OBJECT(mixed);
    }

private:
    int fd_;
    TnefUnwrapResult* result_;
};

constexpr uint32_t kDamage = TNEF_READ_TRUNCATED | TNEF_READ_BAD_CHECKSUM | TNEF_READ_COUNT_BEYOND |
                             TNEF_READ_BAD_PROPS | TNEF_READ_NO_RECORDS | TNEF_READ_TOO_DEEP | TNEF_READ_TOO_MANY;

std::string damageText(uint32_t flags) {
    static constexpr struct { uint32_t flag; const char* text; } kTexts[] = {
        {TNEF_READ_TRUNCATED, "cut short"},
        {TNEF_READ_BAD_CHECKSUM, "a record's checksum is wrong"},
        {TNEF_READ_COUNT_BEYOND, "a count passes its data"},
        {TNEF_READ_BAD_PROPS, "a property list cannot be read to its end"},
        {TNEF_READ_NO_RECORDS, "no record"},
        {TNEF_READ_TOO_DEEP, "embedded messages nested too deep"},
        {TNEF_READ_TOO_MANY, "too many values"},
    };
    std::string out;
    for (const auto& t : kTexts)
        if (flags & t.flag) out += (out.empty() ? "" : ", ") + std::string(t.text);
    return out;
}

// Walks the mail and replaces its TNEF parts.
class Unwrapper {
public:
    Unwrapper(TnefUnwrapResult* result, OuterBody outer) : result_(result), outer_(outer) {}

    void walk(GMimeObject* o, bool inSigned) {
        if (isSigned(o)) inSigned = true;
        if (GMIME_IS_MULTIPART(o)) {
            GMimeMultipart* m = GMIME_MULTIPART(o);
            for (int i = 0; i < g_mime_multipart_get_count(m); ++i) {
                GMimeObject* child = g_mime_multipart_get_part(m, i);
                if (!isTnefPart(child)) {
                    walk(child, inSigned);
                    continue;
                }
                std::vector<GMimeObject*> parts = replacement(child, inSigned);
                if (parts.empty()) continue;
                // Into a multipart/mixed the parts go side by side; any other multipart
                // (alternative, related) gets them as one mixed part in the TNEF part's place.
                if (!typeIs(o, "multipart", "mixed")) {
                    GMimeObject* one = Converter::wrapMixed(parts);
                    parts.assign(1, one);
                }
                g_object_unref(g_mime_multipart_remove_at(m, i));
                for (size_t k = 0; k < parts.size(); ++k) {
                    g_mime_multipart_insert(m, i + static_cast<int>(k), parts[k]);
                    g_object_unref(parts[k]);
                }
                i += static_cast<int>(parts.size()) - 1;
                // A multipart the mail cut off (no closing boundary) is closed once its
                // content has changed, so that readers do not take it for damage.
                m->write_end_boundary = TRUE;
            }
        } else if (GMIME_IS_MESSAGE_PART(o)) {
            if (GMimeMessage* inner = g_mime_message_part_get_message(GMIME_MESSAGE_PART(o))) walkMessage(inner, inSigned);
        }
    }

    void walkMessage(GMimeMessage* msg, bool inSigned) {
        GMimeObject* top = g_mime_message_get_mime_part(msg);
        if (top == nullptr) return;
        if (!isTnefPart(top)) return walk(top, inSigned);
        std::vector<GMimeObject*> parts = replacement(top, inSigned);
        if (parts.empty()) return;
        Ref<GMimeObject> one(Converter::wrapMixed(parts));
        g_mime_message_set_mime_part(msg, one.get());
    }

private:
    // What takes the TNEF part's place (new references), or nothing to leave it as it is.
    std::vector<GMimeObject*> replacement(GMimeObject* tnef, bool inSigned) {
        ++result_->tnefParts;
        const std::string label = "TNEF part " + std::to_string(result_->tnefParts);
        std::vector<GMimeObject*> parts;
        if (inSigned) {
            ++result_->kept;
            result_->warnings.push_back(label + " is inside a signed part: left as it is");
            return parts;
        }
        const std::string bytes = decodedContent(GMIME_PART(tnef));
        try {
            Fd fd(memoryFile(bytes));
            TnefMessageView view;
            tnef_ReadMessage(fd.fd, &view);
            Converter c(fd.fd, result_);
            c.messageParts(view, !outer_.text && !outer_.html, !outer_.html, &parts);
            if (parts.empty()) {
                // Nothing the mail does not show already: the part stays, so nothing it may
                // hold beyond what the reader knows is lost.
                ++result_->kept;
                result_->warnings.push_back(label + " holds nothing to convert: kept as it was");
                return parts;
            }
            result_->parts += static_cast<uint32_t>(parts.size());
            if (view.flags & kDamage) {
                // What a damaged stream gave goes out, and the stream itself beside it, so
                // that nothing it may still hold is lost.
                ++result_->kept;
                result_->warnings.push_back(label + " is damaged (" + damageText(view.flags) + "): kept beside what it gave");
                parts.push_back(GMIME_OBJECT(g_object_ref(tnef)));
            }
            ++result_->converted;
        } catch (const Escape& e) {
            for (GMimeObject* p : parts) g_object_unref(p);
            parts.clear();
            ++result_->kept;
            result_->warnings.push_back(label + " cannot be read (" + e.what() + "): kept as it was");
        }
        return parts;
    }

    TnefUnwrapResult* result_;
    OuterBody outer_;
};

TnefUnwrapResult unwrap(const std::string& mail, std::string* out) {
    initGMime();
    TnefUnwrapResult result;
    *out = mail;
    Ref<GMimeStream> in(g_mime_stream_mem_new_with_buffer(mail.data(), mail.size()));
    Ref<GMimeParser> parser(g_mime_parser_new_with_stream(in.get()));
    Ref<GMimeMessage> msg(g_mime_parser_construct_message(parser.get(), nullptr));
    if (msg.get() == nullptr || g_mime_message_get_mime_part(msg.get()) == nullptr) {
        result.status = TNEF_UNWRAP_FAILED;
        result.warnings.push_back("not a MIME message: written as it came");
        return result;
    }
    OuterBody outer;
    weighOuterBody(g_mime_message_get_mime_part(msg.get()), &outer);
    Unwrapper u(&result, outer);
    u.walkMessage(msg.get(), false);
    if (result.converted == 0) return result;

    const std::string record = std::to_string(result.converted) + " TNEF part" + (result.converted > 1 ? "s" : "") +
                               " replaced by " + std::to_string(result.parts) + " part" +
                               (result.parts == 1 ? "" : "s") +
                               (result.kept ? ", " + std::to_string(result.kept) + " kept" : std::string());
    g_mime_object_set_header(GMIME_OBJECT(msg.get()), TNEF_UNWRAP_HEADER, record.c_str(), nullptr);
    Ref<GMimeStream> written(g_mime_stream_mem_new());
    if (g_mime_object_write_to_stream(GMIME_OBJECT(msg.get()), nullptr, written.get()) < 0) {
        result.status = TNEF_UNWRAP_FAILED;
        result.warnings.push_back("the converted mail could not be written: written as it came");
        return result;
    }
    GByteArray* bytes = g_mime_stream_mem_get_byte_array(GMIME_STREAM_MEM(written.get()));
    out->assign(reinterpret_cast<const char*>(bytes->data), bytes->len);
    result.status = TNEF_UNWRAP_CONVERTED;
    return result;
}

void writeAll(int fd, const std::string& bytes) {
    size_t done = 0;
    while (done < bytes.size()) {
        const ssize_t w = ::write(fd, bytes.data() + done, bytes.size() - done);
        if (w < 0 && errno == EINTR) continue;
        if (w < 0) er_TracedEscape(ER_GROUP_IO, errno, __FILE__, __LINE__);
        done += static_cast<size_t>(w);
    }
}

}  // namespace

TnefUnwrapResult tnef_UnwrapBytes(const std::string& mail, std::string* out) {
    try {
        return unwrap(mail, out);
    } catch (const std::exception& e) {
        // Whatever went wrong inside, the mail goes on as it came.
        *out = mail;
        TnefUnwrapResult r;
        r.status = TNEF_UNWRAP_FAILED;
        r.warnings.push_back(std::string("conversion failed (") + e.what() + "): written as it came");
        return r;
    }
}

TnefUnwrapResult tnef_UnwrapMail(int inFd, int outFd) {
    std::string mail;
    char buffer[65536];
    for (;;) {
        const ssize_t n = ::read(inFd, buffer, sizeof buffer);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) er_TracedEscape(ER_GROUP_IO, errno, __FILE__, __LINE__);
        if (n == 0) break;
        mail.append(buffer, static_cast<size_t>(n));
    }
    std::string out;
    TnefUnwrapResult r = tnef_UnwrapBytes(mail, &out);
    writeAll(outFd, out);
    return r;
}

TnefUnwrapResult tnef_UnwrapStream(GMimeStream* in, GMimeStream* out) {
    initGMime();
    Ref<GMimeStream> mem(g_mime_stream_mem_new());
    if (g_mime_stream_write_to_stream(in, mem.get()) < 0) er_TracedEscape(ER_GROUP_IO, EIO, __FILE__, __LINE__);
    GByteArray* bytes = g_mime_stream_mem_get_byte_array(GMIME_STREAM_MEM(mem.get()));
    const std::string mail(reinterpret_cast<const char*>(bytes->data), bytes->len);
    std::string result;
    TnefUnwrapResult r = tnef_UnwrapBytes(mail, &result);
    if (g_mime_stream_write(out, result.data(), result.size()) < 0 || g_mime_stream_flush(out) < 0)
        er_TracedEscape(ER_GROUP_IO, EIO, __FILE__, __LINE__);
    return r;
}
