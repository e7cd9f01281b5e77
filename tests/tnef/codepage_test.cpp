#include <gtest/gtest.h>

#include <array>
#include <string>
#include <vector>

#include "support/test_home.h"
#include "tnef/platform/inet_header.h"
#include "tnef_decode/tnef_codepage.h"
#include "tnef_defs.h"

namespace {

const char* const kAliasFile = "sys/charsets.map";

struct Choice {
    std::string name;
    int recognised;
};

Choice choose(uint32_t codePage) {
    std::array<char, TNEF_CHARSET_CAPACITY> buffer{};
    int recognised = -1;
    char* result = tnef_CharsetForCodePage(codePage, buffer.data(), &recognised);
    EXPECT_EQ(result, buffer.data());
    return {buffer.data(), recognised};
}

std::string attachName(uint32_t codePage, const std::string& name) {
    dstring out;
    tnef_EncodeAttachName(codePage, name.c_str(), &out);
    return out.text;
}

std::string decode(const std::string& header) {
    std::vector<char> buffer(header.size() + 1);
    mim_DecodeMimeCharStr(header.c_str(), buffer.data(), 0);
    return buffer.data();
}

}  // namespace

// A site alias wins (even for a name iconv does not know, up to 39 characters), then the
// code page's own name of at least three digits; what iconv does not know is Latin-1,
// unrecognised.
TEST(CodePage, CharsetIsTheSiteAliasElseTheCodePagesNameElseLatin1) {
    TestHome home;
    const std::string name39 = "X-" + std::string(37, 'Y');
    home.write(kAliasFile, "mrtf850 = " + name39 + "\nMRTF1252 = X-SITE-PRIVATE\nMRTF1250 = X-" +
                               std::string(38, 'Y') + "\n");
    const struct {
        uint32_t codePage;
        std::string name;
        int recognised;
    } rows[] = {
        {437, "CP437", 1},       {37, "CP037", 1},           {850, name39, 1},
        {1252, "X-SITE-PRIVATE", 1}, {1250, "CP1250", 1},    // 40 characters cannot fit
        {99999, "ISO8859_1", 0}, {0xFFFFFFFF, "ISO8859_1", 0},
    };
    for (const auto& r : rows) {
        const Choice c = choose(r.codePage);
        EXPECT_EQ(c.name, r.name) << r.codePage;
        EXPECT_EQ(c.recognised, r.recognised) << r.codePage;
    }
}

TEST(AttachName, NamesAreEncodedInTheirCharsetsOwnLabel) {
    TestHome home;
    EXPECT_EQ(attachName(1252, "plain name.txt"), "plain name.txt");
    EXPECT_EQ(attachName(99999, "r\xE9sum\xE9.doc"), "=?ISO-8859-1?B?culzdW3pLmRvYw==?=") << "fallback";
    EXPECT_EQ(attachName(1252, "caf\xE9.txt"), "=?windows-1252?B?Y2Fm6S50eHQ=?=");
    std::string oem = attachName(437, "\x82t\x82.doc");
    EXPECT_EQ(oem.rfind("=?IBM437?B?", 0), 0u) << oem;
    EXPECT_EQ(decode(oem), "\x82t\x82.doc");

    // A long name stays one name: several words that decode back to it.
    std::string longName(250, '\xE9');
    std::string header = attachName(1252, longName);
    EXPECT_TRUE(inet_is2047Encoded(header.c_str()));
    EXPECT_EQ(decode(header), longName);
}

TEST(AttachName, FallbackWithFailingConversionStarsUnsafeBytes) {
    TestHome home;
    // iconv cannot read the fallback set any more, so its conversion fails.
    home.write(kAliasFile, "ISO8859_1 = NO-SUCH-SET\n");
    EXPECT_EQ(attachName(99999, "r\xE9sum\xE9.doc"), "r*sum*.doc");
    EXPECT_EQ(attachName(99999, "plain name.txt"), "plain name.txt");
    EXPECT_EQ(attachName(99999, "\x01\x1F \x7E\x7F\x80\xFF"), "** ~***");
    EXPECT_EQ(attachName(99999, "=?a?Q?x?="), "=?a?Q?x?=") << "left as it stands";
    EXPECT_EQ(attachName(99999, ""), "");
}
