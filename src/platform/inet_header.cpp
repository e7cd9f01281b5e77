#include "tnef/platform/inet_header.h"

#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "tnef/platform/charset.h"

namespace {

constexpr char kBase64[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
// "=?" + "?B?" + "?=" around every word's charset and text.
constexpr size_t kWordOverhead = 7;

bool isBlank(char c) {
    return c == ' ' || c == '\t' || c == '\r' || c == '\n';
}

// Printable ASCII that no reader could mistake for an encoded word.
bool isPlainHeaderText(std::string_view text) {
    for (char c : text)
        if (c < 0x20 || c > 0x7E) return false;
    return text.find("=?") == std::string_view::npos;
}

void appendBase64(std::string& out, std::string_view bytes) {
    size_t i = 0;
    for (; i + 3 <= bytes.size(); i += 3) {
        uint32_t v = (uint32_t{static_cast<uint8_t>(bytes[i])} << 16) |
                     (uint32_t{static_cast<uint8_t>(bytes[i + 1])} << 8) |
                     static_cast<uint8_t>(bytes[i + 2]);
        for (int shift = 18; shift >= 0; shift -= 6) out += kBase64[(v >> shift) & 0x3F];
    }
    size_t rest = bytes.size() - i;
    if (rest == 0) return;
    uint32_t v = uint32_t{static_cast<uint8_t>(bytes[i])} << 16;
    if (rest == 2) v |= uint32_t{static_cast<uint8_t>(bytes[i + 1])} << 8;
    out += kBase64[(v >> 18) & 0x3F];
    out += kBase64[(v >> 12) & 0x3F];
    out += rest == 2 ? kBase64[(v >> 6) & 0x3F] : '=';
    out += '=';
}

int base64Value(char c) {
    const char* p = std::strchr(kBase64, c);
    return c != '\0' && p != nullptr ? static_cast<int>(p - kBase64) : -1;
}

// Whole groups of four, padding only at the very end.
bool decodeBase64(std::string_view text, std::string& bytes) {
    if (text.size() % 4 != 0) return false;
    for (size_t i = 0; i < text.size(); i += 4) {
        bool last = i + 4 == text.size();
        int pad = 0;
        if (last && text[i + 3] == '=') pad = text[i + 2] == '=' ? 2 : 1;
        uint32_t v = 0;
        for (size_t k = 0; k < 4; ++k) {
            int d = k < 4 - static_cast<size_t>(pad) ? base64Value(text[i + k]) : 0;
            if (d < 0) return false;
            v = (v << 6) | static_cast<uint32_t>(d);
        }
        bytes += static_cast<char>(v >> 16);
        if (pad < 2) bytes += static_cast<char>((v >> 8) & 0xFF);
        if (pad < 1) bytes += static_cast<char>(v & 0xFF);
    }
    return true;
}

int hexValue(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    return -1;
}

bool decodeQ(std::string_view text, std::string& bytes) {
    for (size_t i = 0; i < text.size(); ++i) {
        char c = text[i];
        if (c == '_') {
            bytes += ' ';
        } else if (c == '=') {
            if (i + 2 >= text.size()) return false;
            int hi = hexValue(text[i + 1]);
            int lo = hexValue(text[i + 2]);
            if (hi < 0 || lo < 0) return false;
            bytes += static_cast<char>(hi * 16 + lo);
            i += 2;
        } else {
            bytes += c;
        }
    }
    return true;
}

struct EncodedWord {
    std::string_view charset;  // without any "*language" suffix
    std::string bytes;         // what the word carries
    size_t length = 0;         // of the whole word in the text
};

// Reads the encoded word at the start of s; false when s does not start with a well-formed
// one.
bool readWord(std::string_view s, EncodedWord& word) {
    if (s.size() < 2 || s[0] != '=' || s[1] != '?') return false;
    size_t charsetEnd = s.find('?', 2);
    if (charsetEnd == std::string_view::npos) return false;
    std::string_view charset = s.substr(2, charsetEnd - 2);
    if (charset.empty() || charset[0] == '*') return false;
    for (char c : charset)
        if (c <= 0x20 || c >= 0x7F) return false;
    if (charsetEnd + 2 >= s.size() || s[charsetEnd + 2] != '?') return false;
    char encoding = s[charsetEnd + 1];
    size_t textStart = charsetEnd + 3;
    size_t textEnd = s.find('?', textStart);
    if (textEnd == std::string_view::npos || textEnd == textStart || textEnd + 1 >= s.size() ||
        s[textEnd + 1] != '=')
        return false;
    std::string_view text = s.substr(textStart, textEnd - textStart);
    for (char c : text)
        if (c <= 0x20 || c >= 0x7F) return false;

    word.bytes.clear();
    bool ok = (encoding == 'B' || encoding == 'b')   ? decodeBase64(text, word.bytes)
              : (encoding == 'Q' || encoding == 'q') ? decodeQ(text, word.bytes)
                                                     : false;
    // A NUL would end the callers' C strings early.
    if (!ok || word.bytes.find('\0') != std::string::npos) return false;
    word.charset = charset.substr(0, charset.find('*'));
    word.length = textEnd + 2;
    return true;
}

// Walks in, handing literal runs and decoded words to the sink in order. Blanks between two
// adjacent words are dropped. Reads never reach back before the current position, so a sink
// may overwrite what lies behind it (decoding in place).
template <typename Sink>
void walkEncodedText(std::string_view in, Sink& sink) {
    EncodedWord word;
    bool afterWord = false;
    size_t pos = 0;
    while (pos < in.size()) {
        if (readWord(in.substr(pos), word)) {
            sink.word(word, in.substr(pos, word.length));
            pos += word.length;
            afterWord = true;
            continue;
        }
        size_t end = pos + 1;
        if (afterWord && isBlank(in[pos])) {
            while (end < in.size() && isBlank(in[end])) ++end;
            if (end < in.size() && readWord(in.substr(end), word)) {
                pos = end;
                continue;
            }
        }
        sink.literal(in.substr(pos, end - pos));
        pos = end;
        afterWord = false;
    }
}

// Writes into a caller's buffer that may be the input itself.
struct BufferSink {
    char* out;
    size_t written = 0;
    void literal(std::string_view text) {
        std::memmove(out + written, text.data(), text.size());
        written += text.size();
    }
    void word(const EncodedWord& w, std::string_view) {
        std::memcpy(out + written, w.bytes.data(), w.bytes.size());
        written += w.bytes.size();
    }
};

struct Utf8Sink {
    std::string out;
    void literal(std::string_view text) { out.append(text); }
    void word(const EncodedWord& w, std::string_view source) {
        std::string charset(w.charset);
        dstring converted;
        int length = 0;
        int bad = 0;
        uint16_t status = cvc_CnvString(CVC_MODE_NAMED, CVC_FLAG_STRICT, w.bytes.data(),
                                        static_cast<int>(w.bytes.size()), charset.c_str(), "UTF8",
                                        &converted, &length, &bad, CVC_OUT_ALL);
        out.append(status == CVC_OK ? std::string_view(converted.text) : source);
    }
};

}  // namespace

void inet_2Subjects_toRfc2047_dstring(dstring* out, const char* text, const char* charset, int,
                                      int) {
    if (out == nullptr) return;
    std::string_view t = text != nullptr ? text : "";
    if (isPlainHeaderText(t)) {
        out->text.assign(t);
        return;
    }
    const char* set = charset != nullptr ? charset : "UTF8";
    std::string label = cvc_MimeCharsetLabel(set);
    size_t room = RFC2047_WORD_LIMIT > kWordOverhead + label.size()
                      ? RFC2047_WORD_LIMIT - kWordOverhead - label.size()
                      : 0;
    size_t bytesPerWord = room / 4 * 3;
    std::vector<size_t> characters = cvc_CharacterLengths(t, set);
    if (characters.empty()) characters.push_back(t.size());

    std::string header;
    size_t pos = 0;
    size_t next = 0;
    while (pos < t.size()) {
        // At least one character per word, even when a label leaves no room for it.
        size_t end = pos + characters[next++];
        while (next < characters.size() && end + characters[next] - pos <= bytesPerWord)
            end += characters[next++];
        if (!header.empty()) header += ' ';
        header += "=?" + label + "?B?";
        appendBase64(header, t.substr(pos, end - pos));
        header += "?=";
        pos = end;
    }
    out->text = std::move(header);
}

bool inet_is2047Encoded(const char* text) {
    if (text == nullptr) return false;
    std::string_view s(text);
    EncodedWord word;
    size_t pos = 0;
    while (true) {
        if (!readWord(s.substr(pos), word)) return false;
        pos += word.length;
        if (pos == s.size()) return true;
        if (!isBlank(s[pos])) return false;
        while (pos < s.size() && isBlank(s[pos])) ++pos;
    }
}

int mim_DecodeMimeCharStr(const char* in, char* out, int) {
    if (out == nullptr) return 0;
    if (in == nullptr) {
        out[0] = '\0';
        return 0;
    }
    BufferSink sink{out};
    walkEncodedText(std::string_view(in), sink);
    out[sink.written] = '\0';
    return static_cast<int>(sink.written);
}

void mim_DecodeMimeToUtf8(const char* in, dstring* out) {
    if (out == nullptr) return;
    Utf8Sink sink;
    if (in != nullptr) walkEncodedText(std::string_view(in), sink);
    out->text = std::move(sink.out);
}
