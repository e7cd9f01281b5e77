#include "tnef_read/tnef_readtext.h"

#include <string>

#include "tnef/platform/charset.h"
#include "tnef/platform/dstring.h"

namespace {

// The code page senders write names in when the stream names none: Windows' Western one.
constexpr uint32_t kDefaultCodePage = 1252;
constexpr uint32_t kUtf8CodePage = 65001;
constexpr char32_t kReplacement = 0xFFFD;


std::string_view upToNul(std::string_view text) {
    const size_t nul = text.find('\0');
    return nul == std::string_view::npos ? text : text.substr(0, nul);
}

bool isAscii(std::string_view text) {
    for (unsigned char c : text)
        if (c >= 0x80) return false;
    return true;
}

// Length of the valid UTF-8 sequence at text[i], 0 when there is none.
size_t utf8SequenceAt(std::string_view text, size_t i) {
    const auto byte = [&](size_t k) { return static_cast<unsigned char>(text[k]); };
    const unsigned char c = byte(i);
    size_t n = c < 0x80 ? 1 : (c >> 5) == 0x6 ? 2 : (c >> 4) == 0xE ? 3 : (c >> 3) == 0x1E ? 4 : 0;
    if (n == 0 || i + n > text.size()) return 0;
    char32_t cp = n == 1 ? c : c & (0x7F >> n);
    for (size_t k = 1; k < n; ++k) {
        if ((byte(i + k) & 0xC0) != 0x80) return 0;
        cp = cp << 6 | (byte(i + k) & 0x3F);
    }
    const bool overlong =
        (n == 2 && cp < 0x80) || (n == 3 && cp < 0x800) || (n == 4 && cp < 0x10000);
    if (overlong || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) return 0;
    return n;
}

std::string validUtf8(std::string_view text) {
    std::string out;
    for (size_t i = 0; i < text.size();) {
        const size_t n = utf8SequenceAt(text, i);
        if (n == 0) {
            tnef_AppendUtf8(out, kReplacement);
            ++i;
        } else {
            out.append(text.substr(i, n));
            i += n;
        }
    }
    return out;
}

bool convertWithIconv(std::string_view text, uint32_t codePage, std::string& out) {
    const std::string charset = "CP" + std::to_string(codePage);
    dstring converted;
    dstring_init(&converted);
    const uint16_t status = cvc_CnvString(CVC_MODE_NAMED, CVC_FLAG_SKIP_INVALID, text.data(),
                                          static_cast<int>(text.size()), charset.c_str(), "UTF-8",
                                          &converted, nullptr, nullptr, CVC_OUT_TEXT);
    if (status == CVC_OK) out = validUtf8(converted.text);
    dstring_free(&converted);
    return status == CVC_OK;
}

}  // namespace

std::string tnef_TextFromUtf16(std::string_view utf16le) {
    std::string out;
    const size_t units = utf16le.size() / 2;
    const auto unit = [&](size_t i) {
        return static_cast<char16_t>(static_cast<unsigned char>(utf16le[2 * i]) |
                                     static_cast<unsigned char>(utf16le[2 * i + 1]) << 8);
    };
    for (size_t i = 0; i < units; ++i) {
        const char16_t u = unit(i);
        if (u == 0) break;
        if (u >= 0xD800 && u <= 0xDBFF && i + 1 < units && unit(i + 1) >= 0xDC00 &&
            unit(i + 1) <= 0xDFFF) {
            tnef_AppendUtf8(out, 0x10000 + ((static_cast<char32_t>(u) - 0xD800) << 10) +
                                (unit(i + 1) - 0xDC00));
            ++i;
        } else if (u >= 0xD800 && u <= 0xDFFF) {
            tnef_AppendUtf8(out, kReplacement);
        } else {
            tnef_AppendUtf8(out, u);
        }
    }
    return out;
}

std::string tnef_TextFrom8Bit(std::string_view text, uint32_t codePage) {
    text = upToNul(text);
    if (isAscii(text)) return std::string(text);
    if (codePage == kUtf8CodePage) return validUtf8(text);
    std::string out;
    if (codePage != 0 && convertWithIconv(text, codePage, out)) return out;
    if (convertWithIconv(text, kDefaultCodePage, out)) return out;
    // Without a converter at all, every byte outside ASCII is unknown.
    for (unsigned char c : text) tnef_AppendUtf8(out, c < 0x80 ? c : kReplacement);
    return out;
}

void tnef_AppendUtf8(std::string& out, char32_t c) {
    if (c < 0x80) {
        out += static_cast<char>(c);
    } else if (c < 0x800) {
        out += static_cast<char>(0xC0 | (c >> 6));
        out += static_cast<char>(0x80 | (c & 0x3F));
    } else if (c < 0x10000) {
        out += static_cast<char>(0xE0 | (c >> 12));
        out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (c & 0x3F));
    } else {
        out += static_cast<char>(0xF0 | (c >> 18));
        out += static_cast<char>(0x80 | ((c >> 12) & 0x3F));
        out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (c & 0x3F));
    }
}
