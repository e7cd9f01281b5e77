#include "json_writer.h"

#include <cstdio>

namespace {

// Length of the UTF-8 sequence at text[i], 0 when the bytes there are not one.
size_t utf8Sequence(std::string_view text, size_t i) {
    const auto at = [&](size_t k) { return static_cast<unsigned char>(text[k]); };
    const unsigned char c = at(i);
    const size_t n = c < 0x80           ? 1
                     : (c >> 5) == 0x6  ? 2
                     : (c >> 4) == 0xE  ? 3
                     : (c >> 3) == 0x1E ? 4
                                        : 0;
    if (n == 0 || i + n > text.size()) return 0;
    uint32_t cp = n == 1 ? c : c & (0x7Fu >> n);
    for (size_t k = 1; k < n; ++k) {
        if ((at(i + k) & 0xC0) != 0x80) return 0;
        cp = cp << 6 | (at(i + k) & 0x3F);
    }
    const bool overlong =
        (n == 2 && cp < 0x80) || (n == 3 && cp < 0x800) || (n == 4 && cp < 0x10000);
    if (overlong || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) return 0;
    return n;
}

void appendEscaped(std::string& out, unsigned char c) {
    switch (c) {
        case '"':
            out += "\\\"";
            return;
        case '\\':
            out += "\\\\";
            return;
        case '\n':
            out += "\\n";
            return;
        case '\r':
            out += "\\r";
            return;
        case '\t':
            out += "\\t";
            return;
        default:
            break;
    }
    char hex[8];
    std::snprintf(hex, sizeof hex, "\\u%04x", c);
    out += hex;
}

}  // namespace

std::string jsonQuote(std::string_view text) {
    std::string out = "\"";
    for (size_t i = 0; i < text.size();) {
        const auto c = static_cast<unsigned char>(text[i]);
        if (c < 0x20 || c == '"' || c == '\\' || c == 0x7F) {
            appendEscaped(out, c);
            ++i;
            continue;
        }
        const size_t n = utf8Sequence(text, i);
        if (n == 0) {
            out += "\xEF\xBF\xBD";  // U+FFFD
            ++i;
        } else {
            out.append(text.substr(i, n));
            i += n;
        }
    }
    return out + "\"";
}

void JsonWriter::beforeValue() {
    if (afterKey_) {
        afterKey_ = false;
        return;
    }
    if (!first_.empty()) {
        if (!first_.back()) out_ += ',';
        first_.back() = false;
    }
}

JsonWriter& JsonWriter::beginObject() {
    beforeValue();
    out_ += '{';
    first_.push_back(true);
    return *this;
}

JsonWriter& JsonWriter::endObject() {
    out_ += '}';
    first_.pop_back();
    if (first_.empty()) out_ += '\n';
    return *this;
}

JsonWriter& JsonWriter::beginArray() {
    beforeValue();
    out_ += '[';
    first_.push_back(true);
    return *this;
}

JsonWriter& JsonWriter::endArray() {
    out_ += ']';
    first_.pop_back();
    if (first_.empty()) out_ += '\n';
    return *this;
}

JsonWriter& JsonWriter::key(std::string_view name) {
    beforeValue();
    out_ += jsonQuote(name);
    out_ += ':';
    afterKey_ = true;
    return *this;
}

JsonWriter& JsonWriter::value(std::string_view text) {
    beforeValue();
    out_ += jsonQuote(text);
    return *this;
}

JsonWriter& JsonWriter::value(uint64_t number) {
    beforeValue();
    out_ += std::to_string(number);
    return *this;
}

JsonWriter& JsonWriter::value(int64_t number) {
    beforeValue();
    out_ += std::to_string(number);
    return *this;
}

JsonWriter& JsonWriter::value(bool flag) {
    beforeValue();
    out_ += flag ? "true" : "false";
    return *this;
}

JsonWriter& JsonWriter::null() {
    beforeValue();
    out_ += "null";
    return *this;
}
