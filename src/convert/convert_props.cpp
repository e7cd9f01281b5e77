// Typed access to the entries of a message view, and the small conversions every converter
// needs.
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <string>

#include "convert_internal.h"
#include "tnef/platform/charset.h"
#include "tnef/platform/er_escape.h"
#include "tnef/platform/mapi_date.h"

namespace tnefconv {

namespace {

constexpr uint16_t PT_I2 = 0x0002;
constexpr uint16_t PT_LONG = 0x0003;
constexpr uint16_t PT_DOUBLE = 0x0005;
constexpr uint16_t PT_BOOLEAN = 0x000B;
constexpr uint16_t PT_I8 = 0x0014;
constexpr uint16_t PT_SYSTIME = 0x0040;
constexpr uint16_t PT_BINARY = 0x0102;
constexpr uint16_t MV_FLAG = 0x1000;
constexpr int64_t kDays1601To1970 = 134774;

const TnefValue* firstValue(const TnefPropEntry* e) {
    return e != nullptr && !e->values.empty() ? &e->values.front() : nullptr;
}

}  // namespace

const TnefPropEntry* findTag(const Entries& entries, uint16_t id) {
    for (const TnefPropEntry& e : entries)
        if (!e.prop.named && e.prop.id == id) return &e;
    return nullptr;
}

const TnefPropEntry* findNamed(const Entries& entries, NamedId name) {
    for (const TnefPropEntry& e : entries)
        if (e.prop.named && !e.prop.stringName && e.prop.lid == name.lid && e.prop.set == *name.set)
            return &e;
    return nullptr;
}

std::optional<std::string> textOf(const TnefPropEntry* e) {
    if (e == nullptr || e->texts.empty() || e->texts.front().empty()) return std::nullopt;
    return e->texts.front();
}

std::optional<int64_t> integerOf(const TnefPropEntry* e) {
    const TnefValue* v = firstValue(e);
    if (v == nullptr) return std::nullopt;
    switch (v->type) {
        case PT_I2:
        case PT_LONG:
        case PT_I8:
            return v->integer;
        case PT_BOOLEAN:
            return v->boolean ? 1 : 0;
        default:
            return std::nullopt;
    }
}

std::optional<double> realOf(const TnefPropEntry* e) {
    const TnefValue* v = firstValue(e);
    if (v == nullptr || v->type != PT_DOUBLE) return std::nullopt;
    return v->real;
}

std::optional<uint64_t> timeOf(const TnefPropEntry* e) {
    const TnefValue* v = firstValue(e);
    if (v == nullptr || v->type != PT_SYSTIME) return std::nullopt;
    return v->mapiTime;
}

std::string readRange(int fd, uint64_t offset, uint64_t length, uint64_t limit) {
    std::string out(static_cast<size_t>(std::min(length, limit)), '\0');
    size_t done = 0;
    while (done < out.size()) {
        const ssize_t n =
            ::pread(fd, out.data() + done, out.size() - done, static_cast<off_t>(offset + done));
        if (n < 0 && errno == EINTR) continue;
        if (n < 0)
            er_TracedEscapeText(ER_GROUP_IO, errno, "src/convert/convert_props", __LINE__,
                                "cannot read a calendar or contact value");
        if (n == 0) break;
        done += static_cast<size_t>(n);
    }
    out.resize(done);
    return out;
}

std::optional<std::string> bytesOf(int fd, const TnefPropEntry* e, uint32_t limit) {
    const TnefValue* v = firstValue(e);
    if (v == nullptr || (e->prop.type & ~MV_FLAG) != PT_BINARY) return std::nullopt;
    return readRange(fd, v->offset, v->length, limit);
}

std::vector<std::string> allBytesOf(int fd, const TnefPropEntry* e, uint32_t limit) {
    std::vector<std::string> out;
    if (e == nullptr || (e->prop.type & ~MV_FLAG) != PT_BINARY) return out;
    for (const TnefValue& v : e->values) out.push_back(readRange(fd, v.offset, v.length, limit));
    return out;
}

std::string toUtf8(std::string_view bytes, const char* charset) {
    if (bytes.empty()) return {};
    dstring out;
    const uint16_t status = cvc_CnvString(CVC_MODE_NAMED, CVC_FLAG_SKIP_INVALID, bytes.data(),
                                          static_cast<int>(bytes.size()), charset, "UTF-8", &out,
                                          nullptr, nullptr, CVC_OUT_TEXT | CVC_OUT_FINISH);
    return status == CVC_OK ? out.text : std::string();
}

Civil civilOfMinutes(int64_t minutes) {
    const int64_t days = minutes >= 0 ? minutes / 1440 : -((-minutes + 1439) / 1440);
    const int64_t rest = minutes - days * 1440;
    Civil c{};
    mapi_CivilFromDays(days - kDays1601To1970, &c.year, &c.month, &c.day);
    c.hour = static_cast<unsigned>(rest / 60);
    c.minute = static_cast<unsigned>(rest % 60);
    return c;
}

int64_t minutesOfCivil(int64_t year, unsigned month, unsigned day) {
    return (mapi_DaysFromCivil(year, month, day) + kDays1601To1970) * 1440;
}

std::string cleanText(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    for (size_t i = 0; i < text.size(); ++i) {
        const auto c = static_cast<unsigned char>(text[i]);
        if (c == '\r') {
            if (i + 1 < text.size() && text[i + 1] == '\n') continue;
            out.push_back('\n');
        } else if (c >= 0x20 || c == '\n' || c == '\t') {
            if (c != 0x7F) out.push_back(static_cast<char>(c));
        }
    }
    return out;
}

std::string paramText(std::string_view text) {
    std::string out = cleanText(text);
    for (char& c : out) {
        if (static_cast<unsigned char>(c) < 0x20) c = ' ';
        if (c == '"') c = '\'';
    }
    return out;
}

bool isAddress(std::string_view s) {
    const size_t at = s.find('@');
    if (at == std::string_view::npos || at == 0 || at + 1 >= s.size()) return false;
    for (const char ch : s) {
        const auto c = static_cast<unsigned char>(ch);
        if (c <= 0x20 || c == 0x7F ||
            std::string_view("<>()\"/,;:\\[]").find(ch) != std::string_view::npos)
            return false;
    }
    return true;
}

}  // namespace tnefconv
