// Which body a message has, and in which character set: the HTML and text the client wrote,
// else what its compressed RTF holds.

#include <algorithm>
#include <cctype>
#include <string>

#include "tnef/tnef_body.h"
#include "tnef_body/tnef_bodyio.h"
#include "tnef_defs.h"
#include "tnef_read/tnef_readtext.h"

namespace {

constexpr uint32_t PR_BODY_A = 0x1000001E;
constexpr uint32_t PR_BODY_HTML_A = 0x1013001E;
constexpr uint32_t PR_HTML = 0x10130102;
constexpr uint32_t PR_INTERNET_CPID = 0x3FDE0003;
constexpr uint32_t kUtf16CodePage = 1200;

std::string bytesAt(int fd, uint64_t offset, uint64_t length) {
    std::string out(static_cast<size_t>(length), '\0');
    out.resize(tnef_BodyReadAt(fd, offset, out.data(), out.size()));
    return out;
}

// The charset an HTML document names in its head (<meta charset=...> or content="...;
// charset=..."), as a code page; 0 when it names none this reader knows.
uint32_t metaCodePage(std::string_view html) {
    std::string head(html.substr(0, 4096));
    std::transform(head.begin(), head.end(), head.begin(), [](unsigned char c) { return std::tolower(c); });
    const size_t at = head.find("charset=");
    if (at == std::string::npos) return 0;
    size_t from = at + 8;
    while (from < head.size() && (head[from] == '"' || head[from] == '\'')) ++from;
    std::string name;
    while (from < head.size() && (std::isalnum(static_cast<unsigned char>(head[from])) || head[from] == '-' || head[from] == '_'))
        name += head[from++];
    static constexpr struct { const char* name; uint32_t codePage; } kNames[] = {
        {"utf-8", 65001}, {"us-ascii", 20127}, {"iso-8859-1", 28591}, {"iso-8859-2", 28592},
        {"iso-8859-5", 28595}, {"iso-8859-15", 28605}, {"koi8-r", 20866}, {"koi8-u", 21866},
        {"shift_jis", 932}, {"gb2312", 936}, {"gbk", 936}, {"big5", 950}, {"euc-kr", 949},
        {"windows-1250", 1250}, {"windows-1251", 1251}, {"windows-1252", 1252},
        {"windows-1253", 1253}, {"windows-1254", 1254}, {"windows-1255", 1255},
        {"windows-1256", 1256}, {"windows-1257", 1257}};
    for (const auto& n : kNames)
        if (name == n.name) return n.codePage;
    return 0;
}

uint32_t internetCodePage(const TnefMessageView& v) {
    const TnefPropEntry* e = tnef_FindProp(v.properties, PR_INTERNET_CPID);
    return e != nullptr && !e->values.empty() ? static_cast<uint32_t>(e->values[0].integer) : 0;
}

// An 8-bit or Unicode text value (or a binary holding 8-bit text) as UTF-8.
std::string textOf(int fd, const TnefMessageView& v, const TnefPropEntry& e, bool html) {
    const TnefValue& value = e.values.at(0);
    if ((e.prop.type & 0x0FFF) == PT_UNICODE) return e.texts.at(0);
    std::string raw = bytesAt(fd, value.offset, value.length);
    uint32_t cp = internetCodePage(v);
    if (cp == 0 && html) cp = metaCodePage(raw);
    if (cp == 0) cp = v.codePage;
    if (cp == kUtf16CodePage) return tnef_TextFromUtf16(raw);
    return tnef_TextFrom8Bit(raw, cp);
}

const TnefPropEntry* firstValued(const TnefMessageView& v, uint32_t tag) {
    const TnefPropEntry* e = tnef_FindProp(v.properties, tag);
    return e != nullptr && !e->values.empty() ? e : nullptr;
}

void appendTo(void* context, const char* bytes, size_t n) {
    static_cast<std::string*>(context)->append(bytes, n);
}

void feedDeencap(void* context, const char* bytes, size_t n) {
    tnef_DeencapFeed(static_cast<TnefDeencapStream*>(context), bytes, n);
}

void put(TnefByteSink sink, const std::string& text) {
    if (!text.empty()) sink.write(sink.context, text.data(), text.size());
}

// Compressed bytes read to judge what the RTF encapsulates: \fromhtml1 and \fromtext stand
// in its header, long before this much.
constexpr uint64_t kPeek = 64 * 1024;

// PR_RTF_COMPRESSED's value, when the message has one whose form this reader knows.
const TnefValue* rtfValue(int fd, const TnefMessageView& v, TnefDeencapsulated* kind) {
    const TnefPropEntry* e = firstValued(v, PR_RTF_COMPRESSED);
    if (e == nullptr) return nullptr;
    const TnefValue& value = e->values[0];
    std::string head;
    uint32_t flags = 0;
    if (tnef_DecompressRtfFile(fd, value.offset, std::min<uint64_t>(value.length, kPeek), TnefByteSink{appendTo, &head},
                               &flags) != TNEF_RTF_OK)
        return nullptr;
    *kind = tnef_DeencapsulateRtf(head);
    return &value;
}

// The RTF, or what it encapsulates, to sink a piece at a time.
TnefBody streamRtf(int fd, const TnefValue& value, TnefBodyKind kind, TnefByteSink sink) {
    TnefBody b{kind, {}, "PR_RTF_COMPRESSED", 0};
    if (kind == TNEF_BODY_RTF) {
        tnef_DecompressRtfFile(fd, value.offset, value.length, sink, &b.rtfFlags);
        return b;
    }
    TnefDeencapStream stream;
    tnef_DeencapBegin(&stream, sink);
    tnef_DecompressRtfFile(fd, value.offset, value.length, TnefByteSink{feedDeencap, &stream}, &b.rtfFlags);
    tnef_DeencapEnd(&stream);
    return b;
}

TnefBody htmlBody(int fd, const TnefMessageView& v, TnefByteSink sink) {
    const TnefPropEntry* e = firstValued(v, PR_BODY_HTML_A);
    if (e == nullptr) e = firstValued(v, PR_HTML);
    if (e != nullptr) {
        put(sink, textOf(fd, v, *e, true));
        return {TNEF_BODY_HTML, {}, "PR_BODY_HTML", 0};
    }
    TnefDeencapsulated kind;
    const TnefValue* rtf = rtfValue(fd, v, &kind);
    if (rtf != nullptr && kind.encapsulated && kind.kind == TNEF_BODY_HTML)
        return streamRtf(fd, *rtf, TNEF_BODY_HTML, sink);
    return {};
}

TnefBody textBody(int fd, const TnefMessageView& v, TnefByteSink sink) {
    if (const TnefPropEntry* e = firstValued(v, PR_BODY_A)) {
        put(sink, textOf(fd, v, *e, false));
        return {TNEF_BODY_TEXT, {}, "PR_BODY", 0};
    }
    if (v.hasAttBody) {
        put(sink, tnef_TextFrom8Bit(bytesAt(fd, v.attBodyOffset, v.attBodyLength), v.codePage));
        return {TNEF_BODY_TEXT, {}, "attBody", 0};
    }
    TnefDeencapsulated kind;
    const TnefValue* rtf = rtfValue(fd, v, &kind);
    if (rtf != nullptr && kind.kind == TNEF_BODY_TEXT) return streamRtf(fd, *rtf, TNEF_BODY_TEXT, sink);
    return {};
}

}  // namespace

TnefBody tnef_WriteMessageBody(int fd, const TnefMessageView& v, TnefBodyKind want, TnefByteSink sink) {
    if (want == TNEF_BODY_RTF) {
        TnefDeencapsulated kind;
        const TnefValue* rtf = rtfValue(fd, v, &kind);
        return rtf != nullptr ? streamRtf(fd, *rtf, TNEF_BODY_RTF, sink) : TnefBody{};
    }
    if (want == TNEF_BODY_HTML) return htmlBody(fd, v, sink);
    if (want == TNEF_BODY_TEXT) return textBody(fd, v, sink);
    TnefBody best = htmlBody(fd, v, sink);
    return best.kind != TNEF_BODY_NONE ? best : textBody(fd, v, sink);
}

TnefBody tnef_MessageBody(int fd, const TnefMessageView& v, TnefBodyKind want) {
    std::string text;
    TnefBody body = tnef_WriteMessageBody(fd, v, want, TnefByteSink{appendTo, &text});
    body.text = std::move(text);
    return body;
}
