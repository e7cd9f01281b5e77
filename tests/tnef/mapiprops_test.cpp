#include <fcntl.h>
#include <gtest/gtest.h>

#include <string>

#include "support/test_home.h"
#include "support/tnef_builder.h"
#include "tnef/platform/cust_flags.h"
#include "tnef/platform/er_escape.h"
#include "tnef/platform/os_file.h"
#include "tnef_decode/tnef_mapiprops.h"
#include "tnef_defs.h"

using namespace tnefbuild;
using namespace std::string_literals;

namespace {


// The decoder's outputs for one attMAPIProps record, with the caller's presets.
struct Decoded {
    std::string main, secondary, object;
    uint32_t importance = 99, sensitivity = 99;
    uint16_t deliveryReport = 99, readReceipt = 99;
    uint32_t deferred = 99, expiry = 99, creation = 99;
    uint16_t deferredC = 99, expiryC = 99, creationC = 99;
    char submissionId[TNEF_TEXT_CAPACITY + 1] = "preset";
    char sender[TNEF_TEXT_CAPACITY + 1] = "preset";
    uint32_t autoForwarded = 99, recurrence = 99;
    int64_t endPos = 0;
};

// Writes the record (with a following byte), decodes it from its length field, and returns
// every output. The object file starts empty.
Decoded decode(const TestHome& home, const PropList& list) {
    const std::string record = Stream().record(1, 0x00069003, list.bytes()).bytes();
    home.write("tmp/in.tnef", record + "X");
    OsFd in(os_open("~/tmp/in.tnef", O_RDONLY, 0));
    OsFd obj(os_open("~/tmp/obj.tnef", O_RDWR | O_CREAT | O_TRUNC, 0600));
    os_lseek64(in.get(), 5, 0);
    Decoded d;
    dstring mainText, secondaryText;
    tnef_ParseMAPIProps(obj.get(), in.get(), &mainText, &secondaryText, &d.importance,
                        &d.sensitivity, &d.deliveryReport, &d.readReceipt, &d.deferred,
                        &d.deferredC, &d.expiry, &d.expiryC, &d.creation, &d.creationC,
                        d.submissionId, d.sender, &d.autoForwarded, &d.recurrence);
    d.endPos = os_lseek64(in.get(), 0, 1);
    EXPECT_EQ(d.endPos, static_cast<int64_t>(record.size() - 2)) << "left at the checksum";
    d.main = mainText.text;
    d.secondary = secondaryText.text;
    d.object = home.read("tmp/obj.tnef");
    return d;
}

}  // namespace

TEST(MapiProps, PlainValuesRenderByType) {
    TestHome home;
    cust_Set("TNEF_AUGMENT_PROPS", "off");
    PropList list;
    list.string8(0x0037001E, "Hi")
        .binary(0x10000102, "\x00\x41"s)
        .i2(0x00020002, 0xFFFF)
        .long32(0x00040003, 0x1234ABCD)
        .mvLong(0x00051003, {1, 0x20})
        .mvI2(0x00061002, {7, 0xFFFF})
        .i8(0x00070014, 0x0102030405060708ull)
        .mvString8(0x0008101E, {"a", "", "b"})
        .unicode(0x0009001F, utf16le("Z"));
    const Decoded d = decode(home, list);
    const std::string expected = "37001e\x1dHi\x1e"s + "10000102\x1d\x1b\x40" "A\x1e" +
                                 "20002\x1d" "ffff\x1e" + "40003\x1d" "1234abcd\x1e" +
                                 "51003\x1d" "1\x1d" "20\x1e" + "61002\x1d" "7\x1d" "ffff\x1e" +
                                 "70014\x1d\x1b\x48\x1b\x47\x1b\x46\x1b\x45\x1b\x44\x1b\x43\x1b\x42\x1b\x41\x1e" +
                                 "8101e\x1d" "a\x1d\x1d" "b\x1e" + "9001f\x1dZ\x1b\x40\x1e";
    EXPECT_EQ(d.main, expected);
    EXPECT_EQ(d.secondary, "");
    EXPECT_EQ(d.object, "");
    EXPECT_EQ(d.recurrence, 99u) << "augmentation off leaves the flag as preset";
}

TEST(MapiProps, HeaderValuesAreTakenOutOfTheTexts) {
    TestHome home;
    cust_Set("TNEF_AUGMENT_PROPS", "off");
    PropList list;
    list.long32(PR_IMPORTANCE, 0)
        .long32(PR_SENSITIVITY, 7)
        .i2(PR_READ_RECEIPT_REQUESTED, 1)
        .i2(PR_AUTO_FORWARDED, 1)
        .i8(PR_EXPIRY_TIME, 0x019DB1DED53E8000ull + 10000000ull * 60)
        .string8(PR_SENDER_EMAIL_ADDRESS, "a@b")
        .binary(PR_MESSAGE_SUBMISSION_ID, "id-1");
    const Decoded d = decode(home, list);
    EXPECT_EQ(d.main, "");
    EXPECT_EQ(d.secondary, "");
    EXPECT_EQ(d.importance, 1u) << "low importance (0) is stored as 1";
    EXPECT_EQ(d.sensitivity, 0u) << "unknown sensitivity";
    EXPECT_EQ(d.readReceipt, 1);
    EXPECT_EQ(d.deliveryReport, 99) << "absent: left as preset";
    EXPECT_EQ(d.autoForwarded, 1u);
    EXPECT_EQ(d.expiry, 60u);
    EXPECT_EQ(d.expiryC, 0);
    EXPECT_EQ(d.deferred, 99u);
    EXPECT_STREQ(d.sender, "a@b");
    EXPECT_STREQ(d.submissionId, "id-1");

    PropList normal;
    normal.long32(PR_IMPORTANCE, 1).long32(PR_SENSITIVITY, 2);
    const Decoded n = decode(home, normal);
    EXPECT_EQ(n.importance, 0u) << "normal importance (1) is stored as 0";
    EXPECT_EQ(n.sensitivity, 2u);
}

TEST(MapiProps, SecondaryTextGetsItsTagsIdRangeAndNamedProperties) {
    TestHome home;
    cust_Set("TNEF_AUGMENT_PROPS", "off");
    PropList list;
    list.i2(PR_RESPONSE_REQUESTED, 1)
        .long32(0x10850003, 5)
        .long32(0x11000003, 6)
        .long32(0x107F0003, 7);
    list.namedString(PS_PUBLIC_STRINGS, utf16le("Keywords")).mvString8(0x8000101E, {"x"});
    list.namedString(PSETID_Common, utf16le("Keywords")).string8(0x8001001E, "y");
    list.namedId(PSETID_Common, 0x8560).long32(0x80020003, 1);
    list.namedId(PSETID_Common, 0x8561).long32(0x80030003, 2);
    const Decoded d = decode(home, list);
    const std::string kw = utf16le("Keywords");
    const std::string escapedKw = "K\x1b@e\x1b@y\x1b@w\x1b@o\x1b@r\x1b@d\x1b@s\x1b@";
    std::string commonEscaped = "\x1b\x48 \x1b\x46\x1b@\x1b@\x1b@\x1b@\x1b@\xc0\x1b@\x1b@\x1b@\x1b@\x1b@\x1b@F";
    std::string publicEscaped = ")\x1b\x43\x1b\x42\x1b@\x1b@\x1b@\x1b@\x1b@\xc0\x1b@\x1b@\x1b@\x1b@\x1b@\x1b@F";
    EXPECT_EQ(d.secondary, "63000b\x1d" "1\x1e"s + "10850003\x1d" "5\x1e" + "GUID\x1d" +
                               publicEscaped + "\x1e:101e/" + escapedKw + "\x1dx\x1e" + "GUID\x1d" +
                               commonEscaped + "\x1e#3/8560\x1d" "1\x1e");
    EXPECT_EQ(d.main, "11000003\x1d" "6\x1e"s + "107f0003\x1d" "7\x1e" + "GUID\x1d" + commonEscaped +
                          "\x1e:1e/" + escapedKw + "\x1dy\x1e" + "#3/8561\x1d" "2\x1e");
}

TEST(MapiProps, SetEntriesFollowTheProcessWideSlots) {
    TestHome home;
    cust_Set("TNEF_AUGMENT_PROPS", "off");
    PropList first;
    first.namedId(PSETID_Appointment, 0x8205).long32(0x80000003, 1);
    first.namedId(PSETID_Appointment, 0x8206).long32(0x80010003, 2);
    first.namedId(PSETID_Meeting, 0x0003).long32(0x80020003, 3);
    const Decoded a = decode(home, first);
    EXPECT_EQ(a.main.find("GUID"), 0u);
    EXPECT_EQ(a.main.find("GUID", 1), a.main.find("#3/8206") + 10) << "one set entry per change";
    // A new text names its set again even though the slot already holds it.
    PropList second;
    second.namedId(PSETID_Meeting, 0x0004).long32(0x80000003, 4);
    const Decoded b = decode(home, second);
    EXPECT_EQ(b.main.find("GUID\x1d"), 0u);
    EXPECT_EQ(b.main.substr(b.main.size() - 7), "#3/4\x1d" "4\x1e");
}

TEST(MapiProps, ValuesOver512BytesGoToTheObjectFile) {
    TestHome home;
    cust_Set("TNEF_AUGMENT_PROPS", "off");
    const std::string v512(512, 'a');
    const std::string v513(513, 'b');
    PropList list;
    list.binary(0x10000102, v512).binary(0x10010102, v513);
    list.namedId(PSETID_Meeting, 0x0003).binary(0x80000102, v513);
    PropList objects;
    objects.binary(PR_MESSAGE_RECIPIENTS, "tiny");
    const Decoded d = decode(home, list);
    EXPECT_EQ(d.main.substr(0, 9), "10000102\x1d");
    EXPECT_EQ(d.main.find("10010102"), std::string::npos);
    // The named property leaves its set entry but no entry of its own.
    EXPECT_NE(d.main.find("GUID"), std::string::npos);
    EXPECT_EQ(d.main.find("#102/3"), std::string::npos);
    // Two records in the object file: the plain 513-byte value and the named one.
    ASSERT_GE(d.object.size(), 9u);
    const uint32_t len1 = static_cast<uint8_t>(d.object[5]) | static_cast<uint8_t>(d.object[6]) << 8;
    EXPECT_EQ(len1, 8u + 4 + 4 + 513 + 3);
    const size_t second = 9 + len1 + 2;
    ASSERT_GT(d.object.size(), second + 9);
    EXPECT_EQ(d.object.size(), second + 9 + 28 + 4 + 4 + 4 + 513 + 3 + 2);

    const Decoded r = decode(home, objects);
    EXPECT_EQ(r.main, "");
    EXPECT_EQ(r.secondary, "") << "PR_MESSAGE_RECIPIENTS always goes to the object file";
    EXPECT_EQ(r.object.size(), 9u + 8 + 4 + 4 + 4 + 2);
}

TEST(MapiProps, OversizedNamesAndAddressesEscapeBeforeReading) {
    TestHome home;
    cust_Set("TNEF_AUGMENT_PROPS", "off");
    PropList longName;
    longName.namedString(PSETID_Common, std::string(4082, 'n')).long32(0x80000003, 1);
    EXPECT_THROW(decode(home, longName), Escape);
    PropList longSender;
    longSender.string8(PR_SENDER_EMAIL_ADDRESS, std::string(4080, 's'));
    try {
        decode(home, longSender);
        FAIL() << "no escape";
    } catch (const Escape& e) {
        EXPECT_EQ(e.reason, ER_TNEF_TOO_LONG);
    }
    PropList fits;
    fits.string8(PR_SENDER_EMAIL_ADDRESS, std::string(4079, 's'));
    EXPECT_EQ(std::string(decode(home, fits).sender).size(), 4079u);
}

TEST(MapiProps, CalendarPropertiesAreAugmentedUnlessTurnedOff) {
    TestHome home;
    PropList list;
    list.i8(0x00600040, 0x01D0000000000000ull);  // PR_START_DATE
    const Decoded on = decode(home, list);
    EXPECT_NE(on.main.find("#40/820d\x1d"), std::string::npos) << hexDump(on.main);
    EXPECT_NE(on.main.find("#40/8516\x1d"), std::string::npos);
    EXPECT_EQ(on.recurrence, 0u) << "no recurrence: the flag is written as 0";
    cust_Set("TNEF_AUGMENT_PROPS", "0");
    const Decoded off = decode(home, list);
    EXPECT_EQ(off.main, "600040\x1d\x1b@\x1b@\x1b@\x1b@\x1b@\x1b@\xd0\x1b\x41\x1e"s);
    EXPECT_EQ(off.recurrence, 99u);
}
