#include <fcntl.h>
#include <gtest/gtest.h>

#include <string>

#include "support/test_home.h"
#include "tnef/platform/er_escape.h"
#include "tnef/platform/os_file.h"
#include "tnef/tnef.h"
#include "tnef_decode/tnef_bounded_read.h"

namespace {

const std::string kHeader("\x78\x9F\x3E\x22\x34\x12", 6);  // signature, key 0x1234
const std::string kVersion("\x01\x06\x90\x08\x00\x04\x00\x00\x00\x00\x00\x01\x00\x01\x00", 15);
// attOemCodepage 1252 (0x04E4), second word 0, checksum 0xE4 + 0x04 = 0xE8.
const std::string kCodepage(
    "\x01\x07\x90\x06\x00\x08\x00\x00\x00\xE4\x04\x00\x00\x00\x00\x00\x00\xE8\x00", 19);
// attSubject "A" at message level.
const std::string kSubject("\x01\x04\x80\x01\x00\x02\x00\x00\x00\x41\x00\x41\x00", 13);

struct CopyResult {
    uint32_t codepage;
    std::string copied;
    int64_t inputPos;
};

CopyResult copyHeader(const TestHome& home, const std::string& stream) {
    home.write("tmp/in.tnef", stream);
    OsFd in(os_open("~/tmp/in.tnef", O_RDONLY, 0));
    OsFd out(os_open("~/tmp/out.tnef", O_RDWR | O_CREAT | O_TRUNC, 0600));
    const uint32_t cp = tnef_SetOemCodePage(out.get(), in.get());
    return {cp, home.read("tmp/out.tnef"), os_lseek64(in.get(), 0, 1)};
}

}  // namespace

TEST(OemCodePage, VersionThenCodepageIsCopiedAndNamesTheCodePage) {
    TestHome home;
    CopyResult r = copyHeader(home, kHeader + kVersion + kCodepage + kSubject);
    EXPECT_EQ(r.codepage, 1252u);
    EXPECT_EQ(r.copied, kHeader + kVersion + kCodepage);
    EXPECT_EQ(r.inputPos, static_cast<int64_t>(r.copied.size()));
}

TEST(OemCodePage, VersionWithoutCodepageKeepsTheNextRecordUnread) {
    TestHome home;
    CopyResult r = copyHeader(home, kHeader + kVersion + kSubject);
    EXPECT_EQ(r.codepage, 437u);
    EXPECT_EQ(r.copied, kHeader + kVersion);
    EXPECT_EQ(r.inputPos, 21);
}

TEST(OemCodePage, LeadingCodepageAloneIsCopied) {
    TestHome home;
    CopyResult r = copyHeader(home, kHeader + kCodepage + kSubject);
    EXPECT_EQ(r.codepage, 1252u);
    EXPECT_EQ(r.copied, kHeader + kCodepage);
}

TEST(OemCodePage, OtherFirstRecordsAreLeftForTheRecordLoop) {
    TestHome home;
    // Attachment level first: only the header is copied.
    std::string attachLevel = kSubject;
    attachLevel[0] = '\x02';
    CopyResult r = copyHeader(home, kHeader + attachLevel);
    EXPECT_EQ(r.codepage, 437u);
    EXPECT_EQ(r.copied, kHeader);
    EXPECT_EQ(r.inputPos, 6);
    // Another message attribute first.
    r = copyHeader(home, kHeader + kSubject);
    EXPECT_EQ(r.copied, kHeader);
    EXPECT_EQ(r.inputPos, 6);
    // A version record with a length other than 4 is not understood here.
    std::string oddVersion = kVersion;
    oddVersion[5] = '\x02';
    r = copyHeader(home, kHeader + oddVersion);
    EXPECT_EQ(r.copied, kHeader);
    EXPECT_EQ(r.inputPos, 6);
}

TEST(OemCodePage, StreamsEndingEarlyCopyWhatTheyHold) {
    TestHome home;
    CopyResult r = copyHeader(home, kHeader);
    EXPECT_EQ(r.codepage, 437u);
    EXPECT_EQ(r.copied, kHeader);
    r = copyHeader(home, kHeader + kVersion);
    EXPECT_EQ(r.copied, kHeader + kVersion);
    EXPECT_EQ(r.inputPos, 21);
    // A codepage record cut short is not copied and the input returns to its level byte.
    r = copyHeader(home, kHeader + kVersion + kCodepage.substr(0, 12));
    EXPECT_EQ(r.codepage, 437u);
    EXPECT_EQ(r.copied, kHeader + kVersion);
    EXPECT_EQ(r.inputPos, 21);
    r = copyHeader(home, kHeader.substr(0, 5));
    EXPECT_EQ(r.copied, kHeader.substr(0, 5));
}

TEST(OemCodePage, MissingSignatureEscapesBeforeWritingAnything) {
    TestHome home;
    for (const std::string& bad : {std::string("\x78\x9F\x3E\x23\x34\x12", 6), std::string("\x78\x9F"),
                                   std::string()}) {
        try {
            copyHeader(home, bad + kVersion);
            FAIL() << "no escape";
        } catch (const Escape& e) {
            EXPECT_EQ(e.group, 102);
            EXPECT_EQ(e.reason, 1531);
            EXPECT_STREQ(e.source, "src/lib/tnef/tnef_encode");
        }
        EXPECT_EQ(home.read("tmp/out.tnef"), "");
    }
}

TEST(BoundedRead, LengthAtCapacityReadsAndOneMoreEscapesBeforeReading) {
    TestHome home;
    home.write("tmp/data", "0123456789");
    OsFd fd(os_open("~/tmp/data", O_RDONLY, 0));
    char buf[5];
    EXPECT_EQ(tnef_ReadBounded(fd.get(), buf, 4, 4), 4);
    try {
        tnef_ReadBounded(fd.get(), buf, 5, 4);
        FAIL() << "no escape";
    } catch (const Escape& e) {
        EXPECT_EQ(e.group, 102);
        EXPECT_EQ(e.reason, 1546);
        EXPECT_STREQ(e.source, "src/lib/tnef/tnef_decode");
        EXPECT_GT(e.line, 0);
    }
    EXPECT_EQ(os_lseek64(fd.get(), 0, 1), 4) << "nothing read after the refused length";
    EXPECT_THROW(tnef_ReadBounded(fd.get(), buf, 0xFFFFFFFFu, 4), Escape);
    // Near the end the read returns what is there.
    EXPECT_EQ(tnef_ReadBounded(fd.get(), buf, 4, 4), 4);
    EXPECT_EQ(tnef_ReadBounded(fd.get(), buf, 4, 4), 2);
}
