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

// The head copy takes the signature, then a version record of length 4 and a code page
// record, in that order and each only when whole; the input stops at the first record left
// for the record loop. Without a code page record the code page is 437.
TEST(OemCodePage, TheHeadRecordsAreCopiedWholeAndTheRestLeftUnread) {
    std::string attachLevel = kSubject, oddVersion = kVersion;
    attachLevel[0] = '\x02';
    oddVersion[5] = '\x02';  // a version of length 2 is not understood here
    const struct {
        const char* what;
        std::string stream;
        uint32_t codepage;
        std::string copied;
    } cases[] = {
        {"version then code page", kHeader + kVersion + kCodepage + kSubject, 1252, kHeader + kVersion + kCodepage},
        {"version alone", kHeader + kVersion + kSubject, 437, kHeader + kVersion},
        {"code page alone", kHeader + kCodepage + kSubject, 1252, kHeader + kCodepage},
        {"attachment level first", kHeader + attachLevel, 437, kHeader},
        {"another message attribute first", kHeader + kSubject, 437, kHeader},
        {"odd version", kHeader + oddVersion, 437, kHeader},
        {"header only", kHeader, 437, kHeader},
        {"version, nothing after", kHeader + kVersion, 437, kHeader + kVersion},
        {"code page cut short", kHeader + kVersion + kCodepage.substr(0, 12), 437, kHeader + kVersion},
        {"header cut short", kHeader.substr(0, 5), 437, kHeader.substr(0, 5)},
    };
    TestHome home;
    for (const auto& c : cases) {
        const CopyResult r = copyHeader(home, c.stream);
        EXPECT_EQ(r.codepage, c.codepage) << c.what;
        EXPECT_EQ(r.copied, c.copied) << c.what;
        EXPECT_EQ(r.inputPos, static_cast<int64_t>(c.copied.size())) << c.what;
    }
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
