#include <gtest/gtest.h>

#include <bit>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "support/test_home.h"
#include "support/tnef_builder.h"
#include "tnef_defs.h"
#include "tnef_propstream.h"

namespace {

using namespace std::string_literals;
using tnefbuild::bytesOf;
using tnefbuild::PropList;
using tnefbuild::sameBytes;
using tnefbuild::Stream;
using tnefbuild::utf16le;

// IID_IMessage, the interface id an embedded message carries in PT_OBJECT values.
constexpr TnefGuid kIidMessage = {0x07, 0x03, 0x02, 0x00, 0x00, 0x00, 0x00, 0x00,
                                  0xC0, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x46};

// Bytes in an allocation of exactly their size, so that a read one byte past the end is a
// heap overflow the sanitizer build reports instead of a read of string slack.
class ExactBytes {
public:
    explicit ExactBytes(std::string_view b)
        : size_(b.size()), data_(std::make_unique<uint8_t[]>(b.size())) {
        if (size_ != 0) std::memcpy(data_.get(), b.data(), size_);
    }
    TnefCursor cursor(size_t from = 0) const { return TnefCursor{data_.get(), size_, from}; }
    const uint8_t* at(size_t offset) const { return data_.get() + offset; }

private:
    size_t size_;
    std::unique_ptr<uint8_t[]> data_;
};

// Walks a whole list the way every in-memory reader does: the count, then that many
// properties. False as soon as one property cannot be read.
bool readList(TnefCursor& cur, std::vector<TnefPropView>& props) {
    uint32_t count = 0;
    if (!cur.u32(count)) return false;
    for (uint32_t i = 0; i < count; ++i) {
        TnefPropView view;
        if (!tnef_NextPropInList(cur, view)) return false;
        props.push_back(view);
    }
    return true;
}

bool listReads(std::string_view list) {
    ExactBytes b(list);
    TnefCursor cur = b.cursor();
    std::vector<TnefPropView> props;
    return readList(cur, props);
}

}  // namespace

// ---- The builder itself --------------------------------------------------------------------

TEST(TnefBuilder, VersionRecordIsByteExact) {
    const std::string expected = bytesOf({
        0x01,                    // level: message
        0x06, 0x90, 0x08, 0x00,  // attTnefVersion 0x00089006
        0x04, 0x00, 0x00, 0x00,  // length 4
        0x00, 0x00, 0x01, 0x00,  // version 0x00010000
        0x01, 0x00,              // checksum: byte sum of the data
    });
    EXPECT_TRUE(sameBytes(Stream().tnefVersion().bytes(), expected));
    EXPECT_TRUE(sameBytes(Stream().header().tnefVersion().bytes(),
                          bytesOf({0x78, 0x9F, 0x3E, 0x22, 0xD2, 0x04}) + expected));
}

TEST(TnefBuilder, RecordModifiersChangeOnlyTheirField) {
    const std::string title = "ab\0"s;
    const std::string good = bytesOf({
        0x02,                    // level: attachment
        0x10, 0x80, 0x01, 0x00,  // attAttachTitle
        0x03, 0x00, 0x00, 0x00,  // length 3
        0x61, 0x62, 0x00,        // "ab" NUL
        0xC3, 0x00,              // checksum 0x61 + 0x62
    });
    EXPECT_TRUE(sameBytes(Stream().record(2, attAttachTitle, title).bytes(), good));

    std::string wrong = good;
    wrong[12] = '\xEF';
    wrong[13] = '\xBE';
    EXPECT_TRUE(
        sameBytes(Stream().record(2, attAttachTitle, title).checksum(0xBEEF).bytes(), wrong));

    // The length lies; the data and its checksum stay as written, and a later checksum
    // change still finds the checksum after the real data.
    std::string lying = good;
    lying.replace(5, 4, bytesOf({0x00, 0x01, 0x00, 0x00}));
    EXPECT_TRUE(
        sameBytes(Stream().record(2, attAttachTitle, title).lengthField(0x100).bytes(), lying));
    lying.replace(12, 2, bytesOf({0x01, 0x00}));
    EXPECT_TRUE(sameBytes(
        Stream().record(2, attAttachTitle, title).lengthField(0x100).checksum(1).bytes(), lying));

    // Truncation is relative to the record's level byte, after whatever came before it.
    const Stream two =
        Stream().header().tnefVersion().record(2, attAttachTitle, title).truncateRecord(7);
    EXPECT_EQ(two.size(), 6u + 15u + 7u);
    EXPECT_TRUE(sameBytes(two.bytes().substr(21), good.substr(0, 7)));
    EXPECT_THROW(Stream().header().checksum(0), std::logic_error) << "no record yet";

    EXPECT_TRUE(sameBytes(Stream().headerWithSignature(0x12345678, 7).bytes(),
                          bytesOf({0x78, 0x56, 0x34, 0x12, 0x07, 0x00})));
    const std::string codepage = bytesOf({
        0x01,                    // level
        0x07, 0x90, 0x06, 0x00,  // attOemCodepage
        0x08, 0x00, 0x00, 0x00,  // length 8
        0xE4, 0x04, 0x00, 0x00,  // code page 1252
        0x00, 0x00, 0x00, 0x00,  // second word
        0xE8, 0x00,              // checksum
    });
    EXPECT_TRUE(sameBytes(Stream().oemCodepage(1252).bytes(), codepage));
    // 258 bytes of 0xFF sum to 65790, which wraps to 254.
    EXPECT_EQ(tnefbuild::byteSum16(std::string(258, '\xFF')), 254);
}

TEST(TnefBuilder, RecipientTableIsRowCountThenPropertyLists) {
    const std::string table = tnefbuild::RecipTable()
                                  .row(PropList().long32(0x0C150003, 1))  // PR_RECIPIENT_TYPE
                                  .row(PropList())
                                  .bytes();
    const std::string expected = bytesOf({
        0x02, 0x00, 0x00, 0x00,  // two rows
        0x01, 0x00, 0x00, 0x00,  // row 1: one property
        0x03, 0x00, 0x15, 0x0C,  // PR_RECIPIENT_TYPE
        0x01, 0x00, 0x00, 0x00,  // MAPI_TO
        0x00, 0x00, 0x00, 0x00,  // row 2: no property
    });
    EXPECT_TRUE(sameBytes(table, expected));
    EXPECT_EQ(tnefbuild::RecipTable().rowCount(5).bytes(), bytesOf({5, 0, 0, 0}));
}

TEST(TnefBuilder, HelpersMakeUtf16HexAndFiles) {
    EXPECT_EQ(utf16le("Hi"), "H\0i\0"s);
    EXPECT_EQ(tnefbuild::hexDump(bytesOf({0x78, 0x9F})), "0000: 78 9f");
    EXPECT_EQ(tnefbuild::hexDump(std::string(17, 'A')),
              "0000: 41 41 41 41 41 41 41 41 41 41 41 41 41 41 41 41\n0010: 41");
    EXPECT_FALSE(sameBytes("ab", "ac"));

    TestHome home;
    const std::string stream = Stream().header().tnefVersion().bytes();
    tnefbuild::writeFile(home.file("in/winmail.dat"), stream);
    EXPECT_EQ(home.read("in/winmail.dat"), stream);
}

// ---- Property list layout ------------------------------------------------------------------

TEST(PropStream, EmptyListHoldsOnlyItsCount) {
    EXPECT_EQ(PropList().bytes(), bytesOf({0x00, 0x00, 0x00, 0x00}));
    // In an attribute the checksum follows the count directly.
    const std::string record = bytesOf({
        0x01,                    // level
        0x03, 0x90, 0x06, 0x00,  // attMAPIProps
        0x04, 0x00, 0x00, 0x00,  // length 4
        0x00, 0x00, 0x00, 0x00,  // no property
        0x00, 0x00,              // checksum
    });
    EXPECT_TRUE(sameBytes(Stream().record(1, attMAPIProps, PropList().bytes()).bytes(), record));

    // A count of 0 ends the list even when bytes follow it.
    ExactBytes b(PropList().long32(PR_IMPORTANCE, 2).count(0).bytes());
    TnefCursor cur = b.cursor();
    std::vector<TnefPropView> props;
    ASSERT_TRUE(readList(cur, props));
    EXPECT_TRUE(props.empty());
    EXPECT_EQ(cur.pos, 4u);
}

TEST(PropStream, KeywordsNameIsEighteenBytesThenTwoPadding) {
    const std::string list = PropList()
                                 .namedString(PS_PUBLIC_STRINGS, utf16le("Keywords"))
                                 .mvString8(0x8000101E, {"a", "bc"})
                                 .bytes();
    const std::string expected = bytesOf({
        0x01, 0x00, 0x00, 0x00,                          // one property
        0x1E, 0x10, 0x00, 0x80,                          // id 0x8000, PT_MV_STRING8
        0x29, 0x03, 0x02, 0x00, 0x00, 0x00, 0x00, 0x00,  // PS_PUBLIC_STRINGS
        0xC0, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x46,  //
        0x01, 0x00, 0x00, 0x00,                          // kind: string name
        0x12, 0x00, 0x00, 0x00,                          // name length 18
        'K',  0,    'e',  0,    'y',  0,    'w',  0,     // "Keywords", offset 32
        'o',  0,    'r',  0,    'd',  0,    's',  0,     //
        0x00, 0x00,                                      // 16-bit NUL
        0x00, 0x00,                                      // padding to 20
        0x02, 0x00, 0x00, 0x00,                          // two values, offset 52
        0x02, 0x00, 0x00, 0x00, 'a',  0x00, 0x00, 0x00,  // "a" NUL, 2 padding
        0x03, 0x00, 0x00, 0x00, 'b',  'c',  0x00, 0x00,  // "bc" NUL, 1 padding
    });
    ASSERT_TRUE(sameBytes(list, expected));

    ExactBytes b(list);
    TnefCursor cur = b.cursor(4);
    TnefPropView p;
    ASSERT_TRUE(tnef_NextPropInList(cur, p));
    EXPECT_EQ(p.tag, 0x8000101Eu);
    EXPECT_TRUE(p.named);
    EXPECT_EQ(p.namedHeader.guid, PS_PUBLIC_STRINGS);
    EXPECT_EQ(p.namedHeader.kind, MNID_STRING);
    EXPECT_EQ(p.namedHeader.nameLength, 18u);
    EXPECT_EQ(p.namedHeader.name, b.at(32));
    EXPECT_EQ(p.valueCount, 2u);
    EXPECT_EQ(p.valuesPos, 56u) << "the padding after the name is stepped over";
    EXPECT_EQ(p.valuesEnd, list.size());

    // The header alone ends where the value count begins.
    cur = b.cursor(8);
    TnefNamedPropHeader h;
    ASSERT_TRUE(tnef_ReadNamedPropHeader(cur, h));
    EXPECT_EQ(cur.pos, 52u);
}

TEST(PropStream, NamedHeaderReadsNumericNamesAndTakesOtherKindsAsStrings) {
    const std::string numeric =
        PropList().namedId(PSETID_Common, 0x8502).long32(0x80010003, 7).bytes();
    const std::string expected = bytesOf({
        0x01, 0x00, 0x00, 0x00,                          // one property
        0x03, 0x00, 0x01, 0x80,                          // id 0x8001, PT_LONG
        0x08, 0x20, 0x06, 0x00, 0x00, 0x00, 0x00, 0x00,  // set
        0xC0, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x46,  //
        0x00, 0x00, 0x00, 0x00,                          // kind: numeric
        0x02, 0x85, 0x00, 0x00,                          // name 0x8502
        0x07, 0x00, 0x00, 0x00,                          // value
    });
    ASSERT_TRUE(sameBytes(numeric, expected));
    ExactBytes b(numeric);
    TnefCursor cur = b.cursor(4);
    TnefPropView p;
    ASSERT_TRUE(tnef_NextPropInList(cur, p));
    EXPECT_EQ(p.namedHeader.guid, PSETID_Common);
    EXPECT_EQ(p.namedHeader.kind, MNID_ID);
    EXPECT_EQ(p.namedHeader.lid, 0x8502u);
    EXPECT_EQ(p.valuesPos, 32u);
    EXPECT_EQ(p.valuesEnd, 36u);

    // Any kind but 0 names by string; a 4-byte name ("x" and NUL) needs no padding.
    ExactBytes k(
        PropList().namedString(PSETID_Meeting, utf16le("x"), 2).long32(0x80020003, 1).bytes());
    cur = k.cursor(4);
    ASSERT_TRUE(tnef_NextPropInList(cur, p));
    EXPECT_EQ(p.namedHeader.kind, 2u);
    EXPECT_EQ(p.namedHeader.nameLength, 4u);
    EXPECT_EQ(p.namedHeader.name, k.at(32));
    EXPECT_EQ(p.valuesPos, 36u);

    // Ids below 0x8000 carry no header, even with set-like bytes after the tag.
    ExactBytes plain(PropList().clsid(0x7FFF0048, PSETID_Common).bytes());
    cur = plain.cursor(4);
    ASSERT_TRUE(tnef_NextPropInList(cur, p));
    EXPECT_FALSE(p.named);
    EXPECT_EQ(p.valuesEnd, 24u);
}

// Each case: the list the builder makes, the bytes it must be, and where the reader must find
// the values of its one property.
TEST(PropStream, EachValueIsReadToItsLastPaddingByte) {
    struct Case {
        const char* what;
        std::string built;
        std::string expected;
        uint32_t valueCount;
        size_t valuesPos;
    };
    const Case cases[] = {
        {"PT_STRING8 of three characters: length 4, no padding",
         PropList().string8(PR_SUBJECT, "abc").bytes(),
         bytesOf({0x01, 0x00, 0x00, 0x00,    // one property
                  0x1E, 0x00, 0x37, 0x00,    // PR_SUBJECT
                  0x01, 0x00, 0x00, 0x00,    // value count
                  0x04, 0x00, 0x00, 0x00,    // length 4
                  'a',  'b',  'c',  0x00}),  // text and NUL
         1, 12},
        {"PT_BINARY of 5 bytes: 3 padding bytes",
         PropList().binary(PR_MESSAGE_SUBMISSION_ID, bytesOf({1, 2, 3, 4, 5})).bytes(),
         bytesOf({0x01, 0x00, 0x00, 0x00,                            // one property
                  0x02, 0x01, 0x47, 0x00,                            // PR_MESSAGE_SUBMISSION_ID
                  0x01, 0x00, 0x00, 0x00,                            // value count
                  0x05, 0x00, 0x00, 0x00,                            // length 5
                  0x01, 0x02, 0x03, 0x04, 0x05, 0x00, 0x00, 0x00}),  // data, padding
         1, 12},
        {"PT_OBJECT of length 20: interface id and 4 data bytes",
         PropList().object(PR_ATTACH_DATA_OBJ, kIidMessage, "DATA").bytes(),
         bytesOf({0x01, 0x00, 0x00, 0x00,                          // one property
                  0x0D, 0x00, 0x01, 0x37,                          // PR_ATTACH_DATA_OBJ
                  0x01, 0x00, 0x00, 0x00,                          // value count
                  0x14, 0x00, 0x00, 0x00,                          // length 20
                  0x07, 0x03, 0x02, 0x00, 0x00, 0x00, 0x00, 0x00,  // IID_IMessage
                  0xC0, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x46,  //
                  'D',  'A',  'T',  'A'}),                         // object data, no padding
         1, 12},
        {"PT_UNICODE: 16-bit NUL counted, then padding",
         PropList().unicode(0x0037001F, utf16le("Hi")).bytes(),
         bytesOf({0x01, 0x00, 0x00, 0x00,                            // one property
                  0x1F, 0x00, 0x37, 0x00,                            // PR_SUBJECT_W
                  0x01, 0x00, 0x00, 0x00,                            // value count
                  0x06, 0x00, 0x00, 0x00,                            // length 6
                  'H',  0,    'i',  0,    0x00, 0x00, 0x00, 0x00}),  // text, NUL, padding
         1, 12},
        {"empty PT_BINARY: length 0, no padding",
         PropList().binary(PR_MESSAGE_SUBMISSION_ID, "").bytes(),
         bytesOf({0x01, 0x00, 0x00, 0x00,    // one property
                  0x02, 0x01, 0x47, 0x00,    // PR_MESSAGE_SUBMISSION_ID
                  0x01, 0x00, 0x00, 0x00,    // value count
                  0x00, 0x00, 0x00, 0x00}),  // length 0
         1, 12},
        {"PT_BOOLEAN: 2 bytes and 2 padding, no value count",
         PropList().i2(PR_READ_RECEIPT_REQUESTED, 1).bytes(),
         bytesOf({0x01, 0x00, 0x00, 0x00,    // one property
                  0x0B, 0x00, 0x29, 0x00,    // PR_READ_RECEIPT_REQUESTED
                  0x01, 0x00, 0x00, 0x00}),  // true, padding
         1, 8},
        {"PT_MV_I2: every value 2 bytes and 2 padding",
         PropList().mvI2(0x66001002, {1, 0xFFFF, 0x8000}).bytes(),
         bytesOf({0x01, 0x00, 0x00, 0x00,    // one property
                  0x02, 0x10, 0x00, 0x66,    // PT_MV_I2
                  0x03, 0x00, 0x00, 0x00,    // three values
                  0x01, 0x00, 0x00, 0x00,    // 1
                  0xFF, 0xFF, 0x00, 0x00,    // -1
                  0x00, 0x80, 0x00, 0x00}),  // -32768
         3, 12},
        {"padding is stepped over without being looked at",
         PropList()
             .count(1)
             .u32(PR_MESSAGE_SUBMISSION_ID)
             .u32(1)
             .u32(5)
             .raw("12345\xEE\xEE\xEE")
             .bytes(),
         bytesOf({0x01, 0x00, 0x00, 0x00,                           // one property
                  0x02, 0x01, 0x47, 0x00,                           // PR_MESSAGE_SUBMISSION_ID
                  0x01, 0x00, 0x00, 0x00,                           // value count
                  0x05, 0x00, 0x00, 0x00,                           // length 5
                  '1',  '2',  '3',  '4',  '5', 0xEE, 0xEE, 0xEE}),  // data, padding not zero
         1, 12},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        ASSERT_TRUE(sameBytes(c.built, c.expected));
        ExactBytes b(c.built);
        TnefCursor cur = b.cursor();
        std::vector<TnefPropView> props;
        ASSERT_TRUE(readList(cur, props));
        ASSERT_EQ(props.size(), 1u);
        EXPECT_EQ(props[0].valueCount, c.valueCount);
        EXPECT_EQ(props[0].valuesPos, c.valuesPos);
        EXPECT_EQ(props[0].valuesEnd, c.built.size());
        EXPECT_EQ(cur.pos, c.built.size());
    }

    EXPECT_EQ(tnef_Pad4(0), 0u);
    EXPECT_EQ(tnef_Pad4(1), 3u);
    EXPECT_EQ(tnef_Pad4(2), 2u);
    EXPECT_EQ(tnef_Pad4(3), 1u);
    EXPECT_EQ(tnef_Pad4(18), 2u);
    EXPECT_EQ(tnef_Pad4(0xFFFFFFFFu), 1u);
    EXPECT_EQ(tnef_Pad4(0x100000000ull), 0u);
}

// One property of every type of the tables, multi-valued ones with several values. The value
// byte counts are worked out by hand, so the builder and the reader are both held to them.
TEST(PropStream, EveryTypeOfTheTablesIsSteppedOverExactly) {
    struct Case {
        uint16_t type;
        std::function<void(PropList&, uint32_t)> add;
        uint32_t valueCount;
        size_t valueBytes;
    };
    const TnefGuid g = PSETID_Meeting;
    const Case cases[] = {
        {PT_I2, [](PropList& l, uint32_t t) { l.i2(t, 0x7FFF); }, 1, 4},
        {PT_BOOLEAN, [](PropList& l, uint32_t t) { l.i2(t, 1); }, 1, 4},
        {PT_LONG, [](PropList& l, uint32_t t) { l.long32(t, 0xFFFFFFFF); }, 1, 4},
        {PT_R4, [](PropList& l, uint32_t t) { l.r4(t, 1.5f); }, 1, 4},
        {PT_ERROR, [](PropList& l, uint32_t t) { l.long32(t, 0x8004010F); }, 1, 4},
        {PT_DOUBLE, [](PropList& l, uint32_t t) { l.r8(t, 2.25); }, 1, 8},
        {PT_CURRENCY, [](PropList& l, uint32_t t) { l.i8(t, 12345); }, 1, 8},
        {PT_APPTIME, [](PropList& l, uint32_t t) { l.r8(t, 45000.5); }, 1, 8},
        {PT_I8, [](PropList& l, uint32_t t) { l.i8(t, ~0ull); }, 1, 8},
        {PT_SYSTIME, [](PropList& l, uint32_t t) { l.i8(t, 0x019DB1DED53E8000ull); }, 1, 8},
        {PT_CLSID, [g](PropList& l, uint32_t t) { l.clsid(t, g); }, 1, 16},
        {PT_STRING8, [](PropList& l, uint32_t t) { l.string8(t, "abcde"); }, 1, 4 + 6 + 2},
        {PT_UNICODE, [](PropList& l, uint32_t t) { l.unicode(t, utf16le("abc")); }, 1, 4 + 8},
        {PT_BINARY, [](PropList& l, uint32_t t) { l.binary(t, "x"); }, 1, 4 + 1 + 3},
        {PT_OBJECT, [](PropList& l, uint32_t t) { l.object(t, kIidMessage, "ab"); }, 1, 4 + 18 + 2},
        {PT_MV_I2,
         [](PropList& l, uint32_t t) {
             l.mvI2(t, {1, 2});
         },
         2, 8},
        {PT_MV_LONG,
         [](PropList& l, uint32_t t) {
             l.mvLong(t, {1, 2, 3});
         },
         3, 12},
        {PT_MV_R4,
         [](PropList& l, uint32_t t) {
             l.mvLong(t, {std::bit_cast<uint32_t>(0.5f), std::bit_cast<uint32_t>(-1.0f)});
         },
         2, 8},
        {PT_MV_DOUBLE,
         [](PropList& l, uint32_t t) {
             l.mvI8(t, {std::bit_cast<uint64_t>(0.5), 0});
         },
         2, 16},
        {PT_MV_CURRENCY,
         [](PropList& l, uint32_t t) {
             l.mvI8(t, {1, 2, 3});
         },
         3, 24},
        {PT_MV_APPTIME,
         [](PropList& l, uint32_t t) {
             l.mvI8(t, {4, 5});
         },
         2, 16},
        {PT_MV_I8,
         [](PropList& l, uint32_t t) {
             l.mvI8(t, {6, 7});
         },
         2, 16},
        {PT_MV_SYSTIME,
         [](PropList& l, uint32_t t) {
             l.mvI8(t, {8, 9});
         },
         2, 16},
        {PT_MV_CLSID,
         [g](PropList& l, uint32_t t) {
             l.mvClsid(t, {g, kIidMessage});
         },
         2, 32},
        {PT_MV_STRING8,
         [](PropList& l, uint32_t t) {
             l.mvString8(t, {"", "abcd"});
         },
         2, 8 + 12},
        {PT_MV_UNICODE,
         [](PropList& l, uint32_t t) {
             l.mvUnicode(t, {utf16le("a"), ""});
         },
         2, 8 + 8},
        {PT_MV_BINARY,
         [](PropList& l, uint32_t t) {
             l.mvBinary(t, {"", "xyz"});
         },
         2, 4 + 8},
    };

    PropList all;
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message() << "type 0x" << std::hex << c.type);
        const uint32_t tag = PROP_TAG(c.type, 0x6600);
        c.add(all, tag);
        PropList one;
        c.add(one, tag);
        const std::string list = one.bytes();

        ExactBytes b(list);
        TnefCursor cur = b.cursor();
        std::vector<TnefPropView> props;
        ASSERT_TRUE(readList(cur, props));
        ASSERT_EQ(props.size(), 1u);
        EXPECT_EQ(props[0].tag, tag);
        EXPECT_EQ(props[0].valueCount, c.valueCount);
        EXPECT_EQ(props[0].valuesEnd - props[0].valuesPos, c.valueBytes);
        EXPECT_EQ(props[0].valuesEnd, list.size()) << tnefbuild::hexDump(list);
        EXPECT_EQ(tnef_PropTypeInfo(c.type).hasValueCount, props[0].valuesPos == 12);
    }

    // All of them in one list: each property starts where the one before it ended.
    const std::string list = all.bytes();
    ExactBytes b(list);
    TnefCursor cur = b.cursor();
    std::vector<TnefPropView> props;
    ASSERT_TRUE(readList(cur, props));
    ASSERT_EQ(props.size(), std::size(cases));
    for (size_t i = 0; i < props.size(); ++i) {
        EXPECT_EQ(PROP_TYPE(props[i].tag), cases[i].type);
        EXPECT_EQ(props[i].valuesEnd - props[i].valuesPos, cases[i].valueBytes);
    }
    EXPECT_EQ(cur.pos, list.size());
}

TEST(PropStream, SingleValuedVariableTypesHonourAnyValueCount) {
    const std::string list = PropList()
                                 .lengthPrefixed(PR_MESSAGE_SUBMISSION_ID, {"ab", "cde"})
                                 .lengthPrefixed(PR_SUBJECT, {})
                                 .long32(PR_IMPORTANCE, 2)
                                 .bytes();
    ExactBytes b(list);
    TnefCursor cur = b.cursor();
    std::vector<TnefPropView> props;
    ASSERT_TRUE(readList(cur, props));
    ASSERT_EQ(props.size(), 3u);
    EXPECT_EQ(props[0].valueCount, 2u);
    EXPECT_EQ(props[0].valuesEnd - props[0].valuesPos, 16u);
    EXPECT_EQ(props[1].valueCount, 0u);
    EXPECT_EQ(props[1].valuesEnd, props[1].valuesPos) << "no value, no bytes";
    EXPECT_EQ(props[2].tag, PR_IMPORTANCE);
    EXPECT_EQ(cur.pos, list.size());
}

TEST(PropStream, UnknownTypeStopsTheInMemoryWalk) {
    const std::string list = PropList()
                                 .long32(PR_IMPORTANCE, 2)
                                 .lengthPrefixed(0x66000099, {"xy"})  // not in the tables
                                 .long32(PR_SENSITIVITY, 0)
                                 .bytes();
    ExactBytes b(list);
    TnefCursor cur = b.cursor(4);
    TnefPropView p;
    ASSERT_TRUE(tnef_NextPropInList(cur, p));
    EXPECT_FALSE(tnef_NextPropInList(cur, p)) << "well-formed, but of a type no table holds";
    EXPECT_FALSE(listReads(list));

    // Reported with the layout the decoder reads such a type by, and never skipped here.
    const TnefPropTypeInfo info = tnef_PropTypeInfo(0x0099);
    EXPECT_FALSE(info.known);
    EXPECT_TRUE(info.hasValueCount);
    EXPECT_TRUE(info.lengthPrefixed);
    cur = b.cursor(20);
    EXPECT_FALSE(tnef_SkipPropValues(cur, 0x0099, 1));

    // Neighbours of table types are not in it: types 0 and 1, no multi-valued null, error,
    // boolean or object, and no type bits above the multi-value flag.
    const uint16_t neighbours[] = {0x0000, 0x0001, 0x1001, 0x100A, 0x100B, 0x100D, 0x2003, 0x3003};
    for (uint16_t type : neighbours) EXPECT_FALSE(tnef_IsKnownPropType(type)) << std::hex << type;

    // A named property of an unknown type stops the walk too, after its header.
    EXPECT_FALSE(
        listReads(PropList().namedId(PSETID_Common, 1).lengthPrefixed(0x80000099, {"a"}).bytes()));
}

TEST(PropStream, TruncatedListFailsAtEveryCutPoint) {
    const std::string list = PropList()
                                 .i2(PR_READ_RECEIPT_REQUESTED, 1)
                                 .long32(PR_IMPORTANCE, 2)
                                 .i8(PR_CREATION_TIME, 0x01D0000000000000ull)
                                 .clsid(0x66010048, PSETID_Meeting)
                                 .string8(PR_SUBJECT, "abc")
                                 .unicode(0x3001001F, utf16le("Hi"))
                                 .binary(PR_MESSAGE_SUBMISSION_ID, "12345")
                                 .object(PR_ATTACH_DATA_OBJ, kIidMessage, "data")
                                 .mvI2(0x66021002, {1, 2})
                                 .mvString8(0x6603101E, {"a", "bc"})
                                 .namedId(PSETID_Common, 0x8503)
                                 .i2(0x8000000B, 1)
                                 .namedString(PS_PUBLIC_STRINGS, utf16le("Keywords"))
                                 .mvString8(0x8001101E, {"k"})
                                 .bytes();
    ExactBytes whole(list);
    TnefCursor cur = whole.cursor();
    std::vector<TnefPropView> props;
    ASSERT_TRUE(readList(cur, props));
    EXPECT_EQ(props.size(), 12u);
    EXPECT_EQ(cur.pos, list.size());

    for (size_t cut = 0; cut < list.size(); ++cut) {
        EXPECT_FALSE(listReads(list.substr(0, cut))) << "list cut to " << cut << " bytes";
    }
}

TEST(PropStream, HugeLengthsAndCountsAreRejectedWithoutOverflow) {
    const TnefGuid g = PSETID_Common;
    struct Case {
        const char* what;
        std::string list;
    };
    // Several of these wrap to 0 bytes to skip in 32-bit arithmetic, which would make a
    // short list look complete.
    const Case cases[] = {
        {"value length 0xFFFFFFFF (length + padding is 2^32)",
         PropList().count(1).u32(PR_MESSAGE_SUBMISSION_ID).u32(1).u32(0xFFFFFFFF).u32(0).bytes()},
        {"value length 0xFFFFFFFD (length + padding is 2^32)",
         PropList().count(1).u32(PR_MESSAGE_SUBMISSION_ID).u32(1).u32(0xFFFFFFFD).u32(0).bytes()},
        {"name length 0xFFFFFFFF",
         PropList().count(1).u32(0x8000001E).raw(g).u32(1).u32(0xFFFFFFFF).zeros(12).bytes()},
        {"name length 0xFFFFFFFE",
         PropList().count(1).u32(0x8000001E).raw(g).u32(1).u32(0xFFFFFFFE).zeros(12).bytes()},
        {"value count 0xFFFFFFFF of PT_MV_STRING8",
         PropList().mvString8(0x6600101E, {"a", "b"}).valueCount(0xFFFFFFFF).bytes()},
        {"value count 0xFFFFFFFF of PT_BINARY",
         PropList().binary(PR_MESSAGE_SUBMISSION_ID, "a").valueCount(0xFFFFFFFF).bytes()},
        {"value count 0xFFFFFFFF of PT_MV_I2",
         PropList().mvI2(0x66001002, {1, 2}).valueCount(0xFFFFFFFF).bytes()},
        {"value count 2^28 of PT_MV_CLSID (16 bytes each: 2^32)",
         PropList().mvClsid(0x66001048, {g, g}).valueCount(0x10000000).bytes()},
        {"value count 2^29 of PT_MV_I8 (8 bytes each: 2^32)",
         PropList().mvI8(0x66001014, {1, 2}).valueCount(0x20000000).bytes()},
        {"value count 2^30 of PT_MV_LONG (4 bytes each: 2^32)",
         PropList().mvLong(0x66001003, {1, 2}).valueCount(0x40000000).bytes()},
        {"property count 0xFFFFFFFF over one property",
         PropList().long32(PR_IMPORTANCE, 1).count(0xFFFFFFFF).bytes()},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        EXPECT_FALSE(listReads(c.list));
    }

    // Skipping fixed-size values: the product is taken in 64 bits.
    ExactBytes sixteen(std::string(16, '\0'));
    TnefCursor cur = sixteen.cursor();
    EXPECT_FALSE(tnef_SkipPropValues(cur, PT_MV_CLSID, 0x10000001));
    cur = sixteen.cursor();
    EXPECT_FALSE(tnef_SkipPropValues(cur, PT_MV_CLSID, 0xFFFFFFFF));
    cur = sixteen.cursor();
    EXPECT_TRUE(tnef_SkipPropValues(cur, PT_MV_CLSID, 1));
    EXPECT_EQ(cur.pos, 16u);
    // Sixteen zero bytes are four empty values; a count of 0xFFFFFFFF ends at the data's end.
    cur = sixteen.cursor();
    EXPECT_FALSE(tnef_SkipPropValues(cur, PT_MV_BINARY, 0xFFFFFFFF));
    cur = sixteen.cursor();
    EXPECT_TRUE(tnef_SkipPropValues(cur, PT_MV_BINARY, 4));
    EXPECT_EQ(cur.pos, 16u);
}
