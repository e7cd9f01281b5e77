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

TEST(CodePage, CodePageNamesAreChosenWhenNoAliasNamesThem) {
    TestHome home;
    home.write(kAliasFile, "MRTF850 = CP1252\n");
    EXPECT_EQ(choose(437).name, "CP437");
    EXPECT_EQ(choose(437).recognised, 1);
    EXPECT_EQ(choose(1252).name, "CP1252");
    EXPECT_EQ(choose(37).name, "CP037") << "at least three digits";
    EXPECT_EQ(choose(37).recognised, 1);
}

TEST(CodePage, SiteAliasWinsEvenForNamesIconvDoesNotKnow) {
    TestHome home;
    home.write(kAliasFile, "mrtf437 = CP850\nMRTF1252 = X-SITE-PRIVATE\n");
    EXPECT_EQ(choose(437).name, "CP850");
    EXPECT_EQ(choose(437).recognised, 1);
    EXPECT_EQ(choose(1252).name, "X-SITE-PRIVATE");
    EXPECT_EQ(choose(1252).recognised, 1);
}

TEST(CodePage, UnknownCodePageFallsBackToLatin1Unrecognised) {
    TestHome home;
    for (uint32_t codePage : {99999u, 0xFFFFFFFFu}) {
        EXPECT_EQ(choose(codePage).name, "ISO8859_1") << codePage;
        EXPECT_EQ(choose(codePage).recognised, 0) << codePage;
    }
}

TEST(CodePage, OverlongMappedNameIsIgnored) {
    TestHome home;
    const std::string name39 = "X-" + std::string(37, 'Y');
    home.write(kAliasFile, "MRTF1252 = X-" + std::string(38, 'Y') + "\nMRTF437 = " + name39 + "\n");
    EXPECT_EQ(choose(1252).name, "CP1252") << "40 characters cannot fit";
    EXPECT_EQ(choose(437).name, name39) << "39 characters fit";
}

TEST(AttachName, RecognisedCharsetEncodesInItsOwnLabel) {
    TestHome home;
    EXPECT_EQ(attachName(1252, "plain name.txt"), "plain name.txt");
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

TEST(AttachName, FallbackEncodesLatin1WhenTheNameConverts) {
    TestHome home;
    EXPECT_EQ(attachName(99999, "r\xE9sum\xE9.doc"), "=?ISO-8859-1?B?culzdW3pLmRvYw==?=");
    EXPECT_EQ(attachName(99999, "plain name.txt"), "plain name.txt");
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
