// RTF back to what a client encapsulated in it: the HTML of \fromhtml1 RTF, the text of
// \fromtext RTF, and for any other RTF its plain text, read minimally.

#include <algorithm>
#include <array>
#include <cctype>
#include <string>
#include <vector>

#include "tnef/tnef_body.h"
#include "tnef_read/tnef_readtext.h"

namespace {

constexpr size_t kDepthLimit = 1024;   // groups deeper than this share their parent's state
constexpr size_t kWordLimit = 32;      // letters of a control word that are kept
constexpr uint32_t kDefaultCodePage = 1252;
// A token left unfinished at the end of a piece waits for the next one, up to this many bytes;
// a longer one (a control word of 64 KiB) is read as it stands.
constexpr size_t kCarryLimit = 64 * 1024;

enum class Dest : uint8_t { Text, Skip, HtmlTag, FontTable, Font };

struct GroupState {
    Dest dest = Dest::Text;
    bool suppressed = false;  // \htmlrtf
    uint32_t uc = 1;          // fallback characters after \uN
    int32_t font = -1;
};

// A font's code page from its \fcharset, 0 when it has none of its own.
uint32_t charsetCodePage(int32_t charset) {
    switch (charset) {
        case 0: return 1252;
        case 77: return 10000;
        case 128: return 932;
        case 129: return 949;
        case 130: return 1361;
        case 134: return 936;
        case 136: return 950;
        case 161: return 1253;
        case 162: return 1254;
        case 163: return 1258;
        case 177: return 1255;
        case 178: return 1256;
        case 186: return 1257;
        case 204: return 1251;
        case 222: return 874;
        case 238: return 1250;
        case 254: return 437;
        case 255: return 850;
        default: return 0;
    }
}

bool isDoubleByte(uint32_t codePage) {
    return codePage == 932 || codePage == 936 || codePage == 949 || codePage == 950 || codePage == 1361;
}

bool isLetter(char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }
bool isDigit(char c) { return c >= '0' && c <= '9'; }

struct Reader {
    std::string_view rtf;
    size_t pos = 0;
    bool final = true;   // no more RTF follows what rtf holds
    std::string carry;   // streaming: the unread end of the pieces so far
    TnefByteSink sink;   // streaming: where out goes after each piece
    std::vector<GroupState> stack{GroupState{}};
    size_t overflow = 0;  // groups opened past kDepthLimit
    bool html = false;
    bool encapsulated = false;
    uint32_t documentCodePage = kDefaultCodePage;
    std::array<uint32_t, 4096> fontCodePage{};  // by font number, 0: the document's
    int32_t definingFont = -1;
    std::string out;
    // UTF-8 of each byte 0x80 to 0xFF of the single-byte code page last used, made with one
    // conversion rather than one per byte.
    uint32_t tableCodePage = 0;
    std::array<std::string, 128> table;
    std::string pending;       // \'hh bytes not yet converted (a double-byte pair may follow)
    uint32_t pendingCodePage = 0;
    uint32_t highSurrogate = 0;
    uint32_t skipFallback = 0;  // characters of a \uN fallback still to drop

    GroupState& state() { return stack.back(); }

    bool emitting() const {
        const GroupState& g = stack.back();
        if (g.dest == Dest::Skip || g.dest == Dest::FontTable || g.dest == Dest::Font) return false;
        if (!encapsulated) return g.dest == Dest::Text;
        return g.dest == Dest::HtmlTag || !g.suppressed;
    }
    uint32_t codePage() const {
        const int32_t f = stack.back().font;
        const uint32_t cp = f >= 0 && f < 4096 ? fontCodePage[static_cast<size_t>(f)] : 0;
        return cp != 0 ? cp : documentCodePage;
    }

    void flushPending() {
        if (pending.empty()) return;
        out += tnef_TextFrom8Bit(pending, pendingCodePage);
        pending.clear();
    }
    void makeTable(uint32_t cp) {
        std::string bytes;
        for (int b = 0x80; b <= 0xFF; ++b) (bytes += static_cast<char>(b)) += '\x01';
        const std::string utf8 = tnef_TextFrom8Bit(bytes, cp);
        size_t from = 0;
        for (size_t i = 0; i < table.size(); ++i) {
            const size_t end = utf8.find('\x01', from);
            table[i] = utf8.substr(from, end == std::string::npos ? std::string::npos : end - from);
            from = end == std::string::npos ? utf8.size() : end + 1;
        }
        tableCodePage = cp;
    }
    void text(char c) {
        if (skipFallback > 0) {
            --skipFallback;
            return;
        }
        if (!emitting()) return;
        flushPending();
        out += c;
    }
    void byte(uint8_t b) {
        if (skipFallback > 0) {
            --skipFallback;
            return;
        }
        if (!emitting()) return;
        // A client encapsulating HTML writes &nbsp; as a non-breaking space byte.
        if (html && b == 0xA0 && !isDoubleByte(codePage())) {
            nbsp();
            return;
        }
        const uint32_t cp = codePage();
        if (!isDoubleByte(cp)) {
            flushPending();
            if (b < 0x80) {
                out += static_cast<char>(b);
                return;
            }
            if (tableCodePage != cp) makeTable(cp);
            out += table[b - 0x80];
            return;
        }
        if (!pending.empty() && pendingCodePage != cp) flushPending();
        pendingCodePage = cp;
        pending += static_cast<char>(b);
    }
    void nbsp() {
        flushPending();
        if (html)
            out += "&nbsp;";
        else
            tnef_AppendUtf8(out, 0xA0);
    }
    void unicode(int32_t n) {
        skipFallback = state().uc;
        if (!emitting()) return;
        flushPending();
        const uint32_t u = static_cast<uint32_t>(n < 0 ? n + 65536 : n) & 0xFFFF;
        if (u >= 0xD800 && u <= 0xDBFF) {
            highSurrogate = u;
            return;
        }
        if (u >= 0xDC00 && u <= 0xDFFF && highSurrogate != 0) {
            tnef_AppendUtf8(out, 0x10000 + ((highSurrogate - 0xD800) << 10) + (u - 0xDC00));
        } else {
            tnef_AppendUtf8(out, u >= 0xD800 && u <= 0xDFFF ? 0xFFFD : u);
        }
        highSurrogate = 0;
    }

    void open() {
        if (stack.size() >= kDepthLimit) {
            ++overflow;
            return;
        }
        stack.push_back(stack.back());
        skipFallback = 0;
    }
    void close() {
        if (overflow > 0) {
            --overflow;
            return;
        }
        if (stack.size() > 1) stack.pop_back();
        skipFallback = 0;
    }

    void word(std::string_view w, bool hasParam, int32_t param);
    void symbol(char c);
    // True when the token that began at start needs bytes the next piece will bring.
    bool waitFrom(size_t start) {
        if (final || rtf.size() - start > kCarryLimit) return false;
        pos = start;
        return true;
    }
    void run();
};

// Destinations whose text is never the body.
bool isSkippedDestination(std::string_view w) {
    static constexpr std::string_view kSkipped[] = {
        "colortbl", "stylesheet", "info",   "pict",     "object",  "header", "footer",
        "headerl",  "headerr",    "footerl", "footerr", "listtable", "listoverridetable",
        "rsidtbl",  "generator",  "xmlnstbl", "themedata", "datastore", "latentstyles",
        "fldinst",  "mhtmltag",   "filetbl",  "revtbl",  "bkmkstart", "bkmkend"};
    return std::find(std::begin(kSkipped), std::end(kSkipped), w) != std::end(kSkipped);
}

void Reader::word(std::string_view w, bool hasParam, int32_t param) {
    GroupState& g = state();
    if (w == "fromhtml") { html = encapsulated = true; return; }
    if (w == "fromtext") { encapsulated = true; return; }
    if (w == "ansicpg" && hasParam && param > 0) { documentCodePage = static_cast<uint32_t>(param); return; }
    if (w == "htmlrtf") { g.suppressed = !hasParam || param != 0; return; }
    if (w == "htmltag") { g.dest = Dest::HtmlTag; return; }
    if (w == "fonttbl") { g.dest = Dest::FontTable; return; }
    if (w == "uc" && hasParam && param >= 0) { g.uc = static_cast<uint32_t>(std::min(param, 16)); return; }
    if (w == "u" && hasParam) { unicode(param); return; }
    if (w == "f" && hasParam) {
        if (g.dest == Dest::FontTable || g.dest == Dest::Font) {
            g.dest = Dest::Font;
            definingFont = param;
        } else {
            g.font = param;
        }
        return;
    }
    if (w == "fcharset" && hasParam && g.dest == Dest::Font && definingFont >= 0 && definingFont < 4096) {
        fontCodePage[static_cast<size_t>(definingFont)] = charsetCodePage(param);
        return;
    }
    if (w == "cpg" && hasParam && g.dest == Dest::Font && definingFont >= 0 && definingFont < 4096) {
        fontCodePage[static_cast<size_t>(definingFont)] = static_cast<uint32_t>(param);
        return;
    }
    if (isSkippedDestination(w)) { g.dest = Dest::Skip; return; }
    if (w == "par" || w == "line") { text('\n'); return; }
    if (w == "tab") { text('\t'); return; }
    if (!encapsulated && (w == "emdash" || w == "endash" || w == "bullet" || w == "lquote" ||
                          w == "rquote" || w == "ldblquote" || w == "rdblquote")) {
        static constexpr uint32_t kChars[] = {0x2014, 0x2013, 0x2022, 0x2018, 0x2019, 0x201C, 0x201D};
        static constexpr std::string_view kWords[] = {"emdash", "endash", "bullet", "lquote",
                                                       "rquote", "ldblquote", "rdblquote"};
        if (!emitting()) return;
        flushPending();
        for (size_t i = 0; i < std::size(kWords); ++i)
            if (w == kWords[i]) tnef_AppendUtf8(out, kChars[i]);
    }
}

void Reader::symbol(char c) {
    switch (c) {
        case '{': case '}': case '\\': text(c); break;
        case '~': if (emitting()) nbsp(); break;
        case '*':
            // An optional destination: skipped unless it is one this reader knows.
            if (rtf.substr(pos, 8) != "\\htmltag") state().dest = Dest::Skip;
            break;
        case '\n': case '\r': text('\n'); break;  // "\" before a line end is \par
        default: break;
    }
}

void Reader::run() {
    while (pos < rtf.size()) {
        const size_t start = pos;
        const char c = rtf[pos++];
        if (c == '{') { open(); continue; }
        if (c == '}') { close(); continue; }
        if (c == '\r' || c == '\n') continue;  // line ends of the RTF itself are not text
        if (c != '\\') {
            if (state().dest == Dest::Font && c == ';') definingFont = -1;
            if (skipFallback == 0 && emitting()) {
                // A run of plain characters goes out in one piece.
                size_t end = pos;
                while (end < rtf.size() && rtf[end] != '\\' && rtf[end] != '{' && rtf[end] != '}' &&
                       rtf[end] != '\r' && rtf[end] != '\n')
                    ++end;
                flushPending();
                out.append(rtf.data() + pos - 1, end - pos + 1);
                pos = end;
                continue;
            }
            text(c);
            continue;
        }
        if (pos == rtf.size()) {
            if (waitFrom(start)) return;
            break;
        }
        const char d = rtf[pos];
        if (d == '\'') {
            uint8_t b = 0;
            int digits = 0;
            for (pos += 1; digits < 2 && pos < rtf.size() && std::isxdigit(static_cast<unsigned char>(rtf[pos])); ++digits, ++pos)
                b = static_cast<uint8_t>(b * 16 + (isDigit(rtf[pos]) ? rtf[pos] - '0' : (rtf[pos] | 0x20) - 'a' + 10));
            if (digits < 2 && pos == rtf.size() && waitFrom(start)) return;
            if (digits > 0) byte(b);  // a "\'" the RTF cuts short gives nothing
            continue;
        }
        if (!isLetter(d)) {
            // "\*" looks ahead for "\htmltag".
            if (d == '*' && rtf.size() - pos < 9 && waitFrom(start)) return;
            ++pos;
            symbol(d);
            continue;
        }
        const size_t wordStart = pos;
        while (pos < rtf.size() && isLetter(rtf[pos])) ++pos;
        const std::string_view w = rtf.substr(wordStart, std::min(pos - wordStart, kWordLimit));
        bool negative = false, hasParam = false;
        int64_t param = 0;
        if (pos < rtf.size() && rtf[pos] == '-') { negative = true; ++pos; }
        for (; pos < rtf.size() && isDigit(rtf[pos]); ++pos) {
            hasParam = true;
            if (param < (1 << 24)) param = param * 10 + (rtf[pos] - '0');
        }
        // The word ends at its delimiter, which may be in the next piece.
        if (pos == rtf.size() && waitFrom(start)) return;
        if (pos < rtf.size() && rtf[pos] == ' ') ++pos;
        word(w, hasParam, static_cast<int32_t>(negative ? -param : param));
    }
    if (final) flushPending();
}

}  // namespace

struct TnefDeencapReader : Reader {};

void tnef_DeencapBegin(TnefDeencapStream* stream, TnefByteSink sink) {
    stream->reader.reset(new TnefDeencapReader);
    stream->reader->final = false;
    stream->reader->sink = sink;
}

void tnef_DeencapFeed(TnefDeencapStream* stream, const char* bytes, size_t n) {
    Reader& r = *stream->reader;
    r.carry.erase(0, r.pos);
    r.carry.append(bytes, n);
    r.rtf = r.carry;
    r.pos = 0;
    r.run();
    if (!r.out.empty()) r.sink.write(r.sink.context, r.out.data(), r.out.size());
    r.out.clear();
}

TnefDeencapsulated tnef_DeencapEnd(TnefDeencapStream* stream) {
    Reader& r = *stream->reader;
    r.final = true;
    r.run();
    if (!r.out.empty()) r.sink.write(r.sink.context, r.out.data(), r.out.size());
    TnefDeencapsulated result;
    result.kind = r.html ? TNEF_BODY_HTML : TNEF_BODY_TEXT;
    result.encapsulated = r.encapsulated;
    stream->reader.reset();
    return result;
}

void TnefDeencapStream::Free::operator()(TnefDeencapReader* r) const { delete r; }

TnefDeencapsulated tnef_DeencapsulateRtf(std::string_view rtf) {
    Reader r;
    r.rtf = rtf;
    r.run();
    TnefDeencapsulated result;
    result.kind = r.html ? TNEF_BODY_HTML : TNEF_BODY_TEXT;
    result.encapsulated = r.encapsulated;
    result.text = std::move(r.out);
    return result;
}
