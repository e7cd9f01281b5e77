#include <fcntl.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/test_home.h"
#include "tnef/platform/cust_flags.h"
#include "tnef/platform/os_file.h"
#include "tnef/tnef.h"
#include "tnef_defs.h"
#include "tnef_writers.h"

namespace {

using Bytes = std::vector<uint8_t>;

// A scratch stream in the test's home, read back as bytes.
class Stream {
public:
    explicit Stream(const TestHome& home)
        : path_(home.file("tmp/out.tnef")), fd_(os_open("~/tmp/out.tnef", O_RDWR | O_CREAT | O_TRUNC, 0600)) {}
    int fd() const { return fd_.get(); }
    Bytes bytes() const {
        std::string s = readFileBytes(path_);
        return Bytes(s.begin(), s.end());
    }

private:
    std::string path_;
    OsFd fd_;
};

uint32_t u32At(const Bytes& b, size_t at) {
    return b[at] | b[at + 1] << 8 | b[at + 2] << 16 | static_cast<uint32_t>(b[at + 3]) << 24;
}

// Checks one record starting at `at` against its own length field: the checksum after the
// data is the byte sum of the counted bytes. Returns the offset after the record.
size_t expectConsistentRecord(const Bytes& b, size_t at) {
    const uint32_t length = u32At(b, at + 5);
    EXPECT_LE(at + 9 + length + 2, b.size()) << "record overruns the stream";
    uint16_t sum = 0;
    for (size_t i = at + 9; i < at + 9 + length; ++i) sum = static_cast<uint16_t>(sum + b[i]);
    const uint16_t stored = static_cast<uint16_t>(b[at + 9 + length] | b[at + 10 + length] << 8);
    EXPECT_EQ(stored, sum) << "checksum of record at " << at;
    return at + 9 + length + 2;
}

}  // namespace

TEST(Writers, CreateWritesTheExactStreamHead) {
    TestHome home;
    Stream s(home);
    tnef_Create(s.fd());
    const Bytes expected = {
        0x78, 0x9F, 0x3E, 0x22,  // signature
        0xD2, 0x04,              // key 1234
        0x01,                    // level: message
        0x06, 0x90, 0x08, 0x00,  // attTnefVersion
        0x04, 0x00, 0x00, 0x00,  // length 4
        0x00, 0x00, 0x01, 0x00,  // version 0x00010000
        0x01, 0x00,              // checksum
    };
    EXPECT_EQ(s.bytes(), expected);
}

TEST(Writers, MsgAttributeIsLevelOneWithDataChecksum) {
    TestHome home;
    Stream s(home);
    const char subject[] = "Hi";
    tnef_AddMsgAttribute(s.fd(), attSubject, 3, subject);
    const Bytes expected = {0x01, 0x04, 0x80, 0x01, 0x00, 0x03, 0x00, 0x00, 0x00,
                            'H',  'i',  0x00, 0xB1, 0x00};
    EXPECT_EQ(s.bytes(), expected);
}

TEST(Writers, PropertyRecordLengthsFollowTheValueLayout) {
    TestHome home;
    Stream s(home);
    const uint8_t lng[4] = {0x78, 0x56, 0x34, 0x12};
    const uint8_t boolean[2] = {0x01, 0x00};
    tnef_AddMAPIPropsAttribute(s.fd(), PR_IMPORTANCE, 4, lng);
    tnef_AddMAPIPropsAttribute(s.fd(), PR_READ_RECEIPT_REQUESTED, 2, boolean);
    tnef_AddMAPIPropsAttribute(s.fd(), PR_SUBJECT, 4, "abc");
    tnef_AddMAPIPropsAttribute(s.fd(), 0x10000102, 0, "");
    const Bytes b = s.bytes();

    const Bytes longRecord = {0x01, 0x03, 0x90, 0x06, 0x00,  // level, attMAPIProps
                              0x0C, 0x00, 0x00, 0x00,        // length 12
                              0x01, 0x00, 0x00, 0x00,        // one property
                              0x03, 0x00, 0x17, 0x00,        // PR_IMPORTANCE
                              0x78, 0x56, 0x34, 0x12,        // value
                              0x2F, 0x01};                   // checksum 0x12F
    ASSERT_GE(b.size(), longRecord.size());
    EXPECT_EQ(Bytes(b.begin(), b.begin() + 23), longRecord);

    size_t at = expectConsistentRecord(b, 0);
    EXPECT_EQ(u32At(b, at + 5), 12u) << "PT_BOOLEAN: 2 value bytes and 2 padding bytes";
    EXPECT_EQ(b[at + 17], 0x01);
    EXPECT_EQ(b[at + 19], 0x00);
    EXPECT_EQ(b[at + 20], 0x00);
    at = expectConsistentRecord(b, at);
    EXPECT_EQ(u32At(b, at + 5), 20u) << "PT_STRING8 abc: count, length 4, no padding";
    EXPECT_EQ(u32At(b, at + 17), 1u);
    EXPECT_EQ(u32At(b, at + 21), 4u);
    at = expectConsistentRecord(b, at);
    EXPECT_EQ(u32At(b, at + 5), 16u) << "empty binary: count and length 0, no padding";
    EXPECT_EQ(u32At(b, at + 21), 0u);
    at = expectConsistentRecord(b, at);
    EXPECT_EQ(at, b.size());
}

TEST(Writers, MultiValuedUpdatesKeepLengthCountAndChecksumExact) {
    TestHome home;
    Stream s(home);
    const uint8_t one[4] = {1, 0, 0, 0};
    tnef_AddMAPIPropsAttribute(s.fd(), 0x80011003, 4, one);
    Bytes b = s.bytes();
    EXPECT_EQ(u32At(b, 5), 16u);
    tnef_UpdateMAPIPropsData(s.fd(), 2, 4, one, 1);
    b = s.bytes();
    EXPECT_EQ(u32At(b, 5), 20u);
    EXPECT_EQ(u32At(b, 17), 2u);
    expectConsistentRecord(b, 0);

    // Strings grow by length field, bytes and padding; the count passes 255 and 256.
    Stream t(home);
    tnef_AddMAPIPropsAttribute(t.fd(), 0x8002101E, 2, "x");
    uint32_t expectedLength = 8 + 4 + 4 + 2 + 2;
    const std::string values[] = {"ab", "abcd", "abcdefghi", ""};
    for (uint32_t count = 2; count <= 300; ++count) {
        const std::string& v = values[count % 4];
        tnef_UpdateMAPIPropsData(t.fd(), count, static_cast<int32_t>(v.size() + 1), v.c_str(), 0);
        const uint32_t n = static_cast<uint32_t>(v.size() + 1);
        expectedLength += 4 + n + (4 - n % 4) % 4;
        if (count == 255 || count == 256 || count == 300) {
            b = t.bytes();
            EXPECT_EQ(u32At(b, 5), expectedLength);
            EXPECT_EQ(u32At(b, 17), count);
            EXPECT_EQ(expectConsistentRecord(b, 0), b.size()) << "after count " << count;
        }
    }
}

TEST(Writers, NamedPropertiesTakeIdsFromThePerProcessCounter) {
    TestHome home;
    Stream s(home);
    const uint8_t lid[4] = {0x05, 0x82, 0x00, 0x00};
    const uint8_t value[4] = {7, 0, 0, 0};
    tnef_AddMAPINamedPropsAttr(s.fd(), lid, 4, PT_LONG, PSETID_Common.data(), 4, value, MNID_ID);
    // "Keywords" in UTF-16LE with its 2-byte NUL: 18 bytes, then 2 padding bytes.
    const char16_t keywords[] = u"Keywords";
    tnef_AddMAPINamedPropsAttr(s.fd(), keywords, 18, PT_STRING8, PS_PUBLIC_STRINGS.data(), 4,
                               "abc", MNID_STRING);
    const Bytes b = s.bytes();
    EXPECT_EQ(u32At(b, 5), 36u) << "numeric name: count, tag, GUID, kind, id, value";
    EXPECT_EQ(u32At(b, 13), 0x80000003u);
    EXPECT_EQ(Bytes(b.begin() + 17, b.begin() + 33),
              Bytes(PSETID_Common.begin(), PSETID_Common.end()));
    EXPECT_EQ(u32At(b, 33), 0u);
    EXPECT_EQ(u32At(b, 37), 0x8205u);
    size_t at = expectConsistentRecord(b, 0);
    // 28 + 18 + 4 + 2 padding + count 4 + length 4 + "abc\0" = 64.
    EXPECT_EQ(u32At(b, at + 5), 64u);
    EXPECT_EQ(u32At(b, at + 13), 0x8001001Eu);
    EXPECT_EQ(u32At(b, at + 37), 18u);
    EXPECT_EQ(b[at + 59], 0);
    EXPECT_EQ(b[at + 60], 0);
    EXPECT_EQ(expectConsistentRecord(b, at), b.size());
}

TEST(Writers, NamedPropertyIdsWrapAfter0xFFFEAndNever0xFFFF) {
    TestHome home;
    Stream s(home);
    tnefWriterState.nextNamedId = 0xFFFD;
    const uint8_t lid[4] = {1, 0, 0, 0};
    std::vector<uint32_t> ids;
    for (int i = 0; i < 3; ++i) {
        const int64_t start = os_lseek64(s.fd(), 0, 1);
        tnef_AddMAPINamedPropsAttr(s.fd(), lid, 4, PT_LONG, PSETID_Common.data(), 4, lid, 0);
        ids.push_back(u32At(s.bytes(), static_cast<size_t>(start) + 13) >> 16);
    }
    EXPECT_EQ(ids, (std::vector<uint32_t>{0xFFFD, 0xFFFE, 0x8000}));
}

// Sent-representing properties are never written; the RTF sync ones only unless the flag
// file says false (read once per process, so each flag file is a test of its own, and a
// later change of the file changes nothing).
class WritersWithFlags : public testing::TestWithParam<const char*> {};

TEST_P(WritersWithFlags, SentRepresentingNeverAndRtfSyncUnlessTheFlagIsFalse) {
    const uint8_t crc[4] = {1, 2, 3, 4};
    TestHome home;
    home.write("sys/custom.flags", GetParam());
    Stream s(home);
    tnef_AddMAPIPropsAttribute(s.fd(), PR_SENT_REPRESENTING_NAME, 2, "x");
    tnef_AddMAPIPropsAttribute(s.fd(), PR_REPLY_RECIPIENT_ENTRIES, 2, "x");
    EXPECT_TRUE(s.bytes().empty());
    home.write("sys/custom.flags", "INET_KEEP_RTF_SYNC_PROPS=yes\n");
    tnef_AddMAPIPropsAttribute(s.fd(), PR_RTF_SYNC_BODY_CRC, 4, crc);
    tnef_AddMAPIPropsAttribute(s.fd(), PR_RTF_SYNC_TRAILING_COUNT, 4, crc);
    EXPECT_EQ(s.bytes().size(), std::string(GetParam()).ends_with("no\n") ? 0u : 46u);
    tnef_AddMAPIPropsAttribute(s.fd(), PR_IMPORTANCE, 4, crc);
    EXPECT_EQ(s.bytes().size() % 23, 0u) << "a property record of 23 bytes follows";
}

INSTANTIATE_TEST_SUITE_P(Flags, WritersWithFlags,
                         testing::Values("", "INET_KEEP_RTF_SYNC_PROPS=yes\n",
                                         "INET_KEEP_RTF_SYNC_PROPS=no\n"));
