#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "support/test_home.h"
#include "tnef/platform/charset.h"
#include "tnef/platform/inet_header.h"

namespace {

const char* const kAliasFile = "sys/charsets.map";

std::string mapped(const char* alias) {
    char buffer[CHARSET_NAME_CAPACITY] = "untouched";
    return sdl_MapSysChar(alias, buffer) == 1 ? std::string(buffer)
                                              : "(unknown) " + std::string(buffer);
}

std::string toRfc2047(const std::string& text, const char* charset) {
    dstring out;
    inet_2Subjects_toRfc2047_dstring(&out, text.c_str(), charset, 0, 0);
    return out.text;
}

// Decodes into a heap buffer of exactly strlen + 1 bytes, so any overrun shows under asan.
std::string decode(const std::string& text) {
    std::vector<char> buffer(text.size() + 1);
    int length = mim_DecodeMimeCharStr(text.c_str(), buffer.data(), 0);
    std::string result(buffer.data());
    EXPECT_EQ(static_cast<size_t>(length), result.size()) << text;
    return result;
}

std::vector<std::string> words(const std::string& header) {
    std::vector<std::string> result;
    size_t pos = 0;
    while (pos <= header.size()) {
        size_t space = header.find(' ', pos);
        if (space == std::string::npos) space = header.size();
        result.push_back(header.substr(pos, space - pos));
        pos = space + 1;
    }
    return result;
}

// Converts strictly; the status says whether bytes form whole characters of the charset.
uint16_t convert(const std::string& bytes, const char* from, const char* to, std::string* out,
                 int* bad, int flags = CVC_FLAG_STRICT) {
    dstring d;
    int length = -7;
    uint16_t status =
        cvc_CnvString(CVC_MODE_NAMED, flags, bytes.data(), static_cast<int>(bytes.size()), from, to,
                      &d, &length, bad, CVC_OUT_ALL);
    if (status != CVC_ERR_CHARSET) {
        EXPECT_EQ(static_cast<size_t>(length), d.text.size());
    }
    if (out != nullptr) *out = d.text;
    return status;
}

}  // namespace

TEST(Charset, AliasFileIsReadCaseInsensitivelyFirstLineWinsOverlongNamesIgnored) {
    TestHome home;
    EXPECT_EQ(mapped("MRTF1252"), "(unknown) untouched") << "no file";

    const std::string name39(39, 'N');
    home.write(kAliasFile, R"(# site aliases

  mrtf1252 =  CP1252   # trailing comment
MRTF1252 = CP850
MRTF437 = )" + name39 + "X" + R"(
MRTF437 = IBM437
LONG = )" + name39 + R"(
no equals sign here
 = NAMELESS
EMPTY =
)");
    EXPECT_EQ(mapped("MRTF1252"), "CP1252") << "case, blanks, comment, first line";
    EXPECT_EQ(mapped("Mrtf1252"), "CP1252");
    EXPECT_EQ(mapped("MRTF437"), "IBM437") << "a 40-character name is dropped";
    EXPECT_EQ(mapped("LONG"), name39) << "39 characters fit";
    EXPECT_EQ(mapped("EMPTY"), "(unknown) untouched");
    EXPECT_EQ(mapped(""), "(unknown) untouched");
    EXPECT_EQ(mapped("MRTF850"), "(unknown) untouched");

    // A changed file is seen by the same process.
    home.write(kAliasFile, "MRTF850 = CP850\n");
    std::filesystem::last_write_time(
        home.file(kAliasFile),
        std::filesystem::file_time_type::clock::now() + std::chrono::seconds(5));
    EXPECT_EQ(mapped("MRTF850"), "CP850");
    EXPECT_EQ(mapped("MRTF1252"), "(unknown) untouched");
}

TEST(Charset, ServerNamesAreRecognisedThroughAliasesAndServerSpellings) {
    TestHome home;
    for (const char* name : {"CP437", "CP850", "CP1252", "ISO8859_1", "iso8859_15", "UTF8"})
        EXPECT_TRUE(cvc_iconv_recognised_charset(name)) << name;
    for (const char* name : {"NO-SUCH-SET", "MY-LATIN", "ISO8859_", "CP99999", ""})
        EXPECT_FALSE(cvc_iconv_recognised_charset(name)) << name;
    EXPECT_FALSE(cvc_iconv_recognised_charset(nullptr));
    EXPECT_EQ(cvc_IconvCharsetName("ISO8859_1"), "ISO-8859-1");

    home.write(kAliasFile, "MY-LATIN = ISO8859_2\nCP850 = NO-SUCH-SET\n");
    EXPECT_TRUE(cvc_iconv_recognised_charset("my-latin"));
    EXPECT_EQ(cvc_IconvCharsetName("MY-LATIN"), "ISO-8859-2") << "mapped, then respelled";
    EXPECT_FALSE(cvc_iconv_recognised_charset("CP850")) << "an alias can retire a name";
}

TEST(Charset, ConversionReportsTextLengthAndUnconvertedBytes) {
    TestHome home;
    std::string out;
    int bad = -1;
    EXPECT_EQ(convert("caf\xE9", "ISO8859_1", "UTF8", &out, &bad), CVC_OK);
    EXPECT_EQ(out, "caf\xC3\xA9");
    EXPECT_EQ(bad, 0);
    EXPECT_EQ(convert("\x82t\x82", "CP437", "UTF8", &out, &bad), CVC_OK);
    EXPECT_EQ(out, "\xC3\xA9t\xC3\xA9");
    EXPECT_EQ(convert(std::string("a\0b", 3), "UTF8", "UTF8", &out, &bad), CVC_OK)
        << "an explicit length carries a NUL";
    EXPECT_EQ(out, std::string("a\0b", 3));

    // Strict: stops at the first invalid byte and counts it and everything after it.
    EXPECT_EQ(convert("ab\xFF" + std::string("cd"), "UTF8", "ISO8859_1", &out, &bad),
              CVC_ERR_INVALID);
    EXPECT_EQ(out, "ab");
    EXPECT_EQ(bad, 3);
    EXPECT_EQ(convert("ab\xC3", "UTF8", "UTF8", &out, &bad), CVC_ERR_INVALID) << "cut short";
    EXPECT_EQ(bad, 1);
    EXPECT_EQ(convert("\xE2\x82\xAC", "UTF8", "ISO8859_1", &out, &bad), CVC_ERR_INVALID)
        << "no euro sign in Latin-1";

    // Skipping: invalid bytes are left out, counted, and are no error.
    std::string mixed = "a\xFF" + std::string("b\xFE") + "c\xC3";
    EXPECT_EQ(convert(mixed, "UTF8", "UTF8", &out, &bad, CVC_FLAG_SKIP_INVALID), CVC_OK);
    EXPECT_EQ(out, "abc");
    EXPECT_EQ(bad, 3);

    EXPECT_EQ(convert("x", "NO-SUCH-SET", "UTF8", &out, &bad), CVC_ERR_CHARSET);
    EXPECT_EQ(convert("x", "UTF8", "NO-SUCH-SET", &out, &bad), CVC_ERR_CHARSET);
}

TEST(Charset, MimeLabelsUseRegisteredNames) {
    TestHome home;
    home.write(kAliasFile, "ISO8859_1 = NO-SUCH-SET\n");
    // Aliases choose converters, not labels.
    const std::pair<const char*, const char*> cases[] = {
        {"cp1252", "windows-1252"},  {"CP1259", "CP1259"}, {"CP437", "IBM437"},
        {"ISO8859_1", "ISO-8859-1"}, {"UTF8", "UTF-8"},    {"CP12a2", "CP12a2"},
    };
    for (const auto& [name, label] : cases) EXPECT_EQ(cvc_MimeCharsetLabel(name), label) << name;
}

TEST(Rfc2047, PrintableAsciiStaysAsItIsAndAnythingElseIsEncoded) {
    TestHome home;
    for (const char* plain : {"report.pdf", "", " ~ spaces ~ ", "a=b?c", "100% done!"}) {
        EXPECT_EQ(toRfc2047(plain, "CP1252"), plain);
        EXPECT_FALSE(inet_is2047Encoded(plain)) << plain;
    }
    EXPECT_EQ(toRfc2047("tab\there", "CP1252"), "=?windows-1252?B?dGFiCWhlcmU=?=");
    EXPECT_EQ(toRfc2047("\x7F", "CP1252"), "=?windows-1252?B?fw==?=");
    // Text that reads like a word is encoded, so that decoding gives it back unchanged.
    std::string lookalike = "=?UTF-8?Q?x?=";
    EXPECT_NE(toRfc2047(lookalike, "UTF8"), lookalike);
    EXPECT_EQ(decode(toRfc2047(lookalike, "UTF8")), lookalike);
}

TEST(Rfc2047, EncodedWordsStayWithinTheLimitAndDecodeToTheSameBytes) {
    TestHome home;
    std::string allBytes;
    for (int c = 1; c <= 0xFF; ++c) allBytes += static_cast<char>(c);
    const std::pair<std::string, const char*> cases[] = {
        {"r\xE9sum\xE9.doc", "ISO8859_1"},
        {allBytes, "ISO8859_1"},
        {allBytes, "CP437"},
        {std::string(200, '\xE9'), "CP1252"},
    };
    for (const auto& [text, charset] : cases) {
        std::string header = toRfc2047(text, charset);
        std::string prefix = "=?" + cvc_MimeCharsetLabel(charset) + "?B?";
        for (const std::string& word : words(header)) {
            EXPECT_LE(word.size(), RFC2047_WORD_LIMIT) << word;
            EXPECT_EQ(word.rfind(prefix, 0), 0u) << word;
        }
        // Single-byte sets fill every word but the last: as many bytes as base64 fits.
        size_t perWord = (RFC2047_WORD_LIMIT - 7 - cvc_MimeCharsetLabel(charset).size()) / 4 * 3;
        EXPECT_EQ(words(header).size(), (text.size() + perWord - 1) / perWord) << charset;
        EXPECT_TRUE(inet_is2047Encoded(header.c_str())) << header;
        EXPECT_EQ(decode(header), text) << charset;
    }
}

TEST(Rfc2047, WordsEndOnlyOnCharacterBoundaries) {
    TestHome home;
    std::string utf8;  // characters of 4, 3 and 2 bytes and ASCII
    for (int i = 0; i < 10; ++i) utf8 += std::string("\xF0\x9F\x93\x8E\xE2\x82\xAC\xC3\xA9") + "a";
    std::string sjis;
    for (int i = 0; i < 60; ++i) sjis += "\x93\xFA\x96{";  // two double-byte characters
    for (const auto& [text, charset] : {std::pair{utf8, "UTF8"}, std::pair{sjis, "CP932"}}) {
        std::string header = toRfc2047(text, charset);
        EXPECT_EQ(decode(header), text) << charset;
        EXPECT_GT(words(header).size(), 1u) << charset;
        for (const std::string& word : words(header)) {
            EXPECT_LE(word.size(), RFC2047_WORD_LIMIT) << word;
            int bad = -1;
            EXPECT_EQ(convert(decode(word), charset, "UTF8", nullptr, &bad), CVC_OK)
                << charset << " word " << word << " ends inside a character";
        }
    }

    // No cut is safe in shift-state text or in a set iconv does not know: one long word.
    std::string jis = "\x1B$B" + std::string(80, '\x30') + "\x1B(B";
    for (const auto& [text, charset] :
         {std::pair{jis, "ISO-2022-JP"}, std::pair{std::string(100, '\xE9'), "NO-SUCH-SET"}}) {
        std::string header = toRfc2047(text, charset);
        EXPECT_EQ(words(header).size(), 1u) << charset;
        EXPECT_EQ(decode(header), text) << charset;
    }
}

TEST(Rfc2047, QAndBWordsDecodeAndBlanksBetweenWordsAreDropped) {
    TestHome home;
    EXPECT_EQ(decode("=?iso-8859-1?q?caf=e9_au=20lait?="), "caf\xE9 au lait");
    EXPECT_EQ(decode("=?UTF-8*en?b?w6k=?="), "\xC3\xA9") << "language suffix, lower-case b";
    EXPECT_EQ(decode("=?a?Q?one?= \t\r\n =?a?B?dHdv?="), "onetwo");
    EXPECT_EQ(decode("=?a?Q?one?=  and =?a?Q?two?=."), "one  and two.");
    EXPECT_EQ(decode("name =?a?Q?x?=  "), "name x  ") << "blanks next to plain text stay";
    EXPECT_EQ(decode("=?a?Q?x?=\t=?bad"), "x\t=?bad");

    EXPECT_TRUE(inet_is2047Encoded("=?a?Q?x?="));
    EXPECT_TRUE(inet_is2047Encoded("=?a?B?YQ==?=\r\n\t=?b?q?y_z?="));
    EXPECT_FALSE(inet_is2047Encoded("=?a?B?YQ==?==?a?Q?x?=")) << "words must be apart";
    EXPECT_FALSE(inet_is2047Encoded(" =?a?Q?x?="));
    EXPECT_FALSE(inet_is2047Encoded("=?a?Q?x?= "));
    EXPECT_FALSE(inet_is2047Encoded("=?a?Q?x?= tail"));
    EXPECT_FALSE(inet_is2047Encoded(nullptr));
}

TEST(Rfc2047, MalformedWordsStayLiteral) {
    TestHome home;
    // Unfinished; no charset; language only; unknown or long encoding; base64 with a short
    // group, too much padding, padding inside, a foreign byte, a NUL; Q with a short or
    // non-hex escape, a NUL; blanks and control bytes inside.
    for (const char* text :
         {"=?", "=?a?B?YQ==", "=?a?B?YQ==?", "=?a?B?\?=", "=??B?YQ==?=", "=?*en?B?YQ==?=",
          "=?a?X?YQ==?=", "=?a?BB?YQ==?=", "=?a?B?YQ=?=", "=?a?B?Y===?=", "=?a?B?YQ==YQ==?=",
          "=?a?B?Y!Q=?=", "=?a?B?AA==?=", "=?a?Q?x=?=", "=?a?Q?=G1?=", "=?a?Q?=00?=", "=?a b?Q?x?=",
          "=?a?Q?x y?=", "=?a?Q?x\x01?="}) {
        EXPECT_EQ(decode(text), text);
        EXPECT_FALSE(inet_is2047Encoded(text)) << text;
    }
    EXPECT_EQ(decode("=?a?B?YQ=?= =?a?Q?b?="), "=?a?B?YQ=?= b") << "only the good word decodes";
}

TEST(Rfc2047, DecodingWorksInPlaceAndToUtf8) {
    TestHome home;
    char text[] = "x =?ISO-8859-1?Q?caf=E9?= =?ISO-8859-1?B?IOk=?= y";
    int length = mim_DecodeMimeCharStr(text, text, 0);
    EXPECT_EQ(std::string(text), "x caf\xE9 \xE9 y");
    EXPECT_EQ(length, 10);

    dstring utf8;
    mim_DecodeMimeToUtf8("=?ISO-8859-1?Q?caf=E9?= ok =?NO-SUCH-SET?Q?x?= =?CP437?B?gg==?=", &utf8);
    EXPECT_EQ(utf8.text, "caf\xC3\xA9 ok =?NO-SUCH-SET?Q?x?=\xC3\xA9");
}
