#include <gtest/gtest.h>

#include <string>
#include <vector>

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

const std::string kKeywords = utf16le("Keywords");

// IID_IMessage, the interface id an embedded message carries in PT_OBJECT values.
constexpr TnefGuid kIidMessage = {0x07, 0x03, 0x02, 0x00, 0x00, 0x00, 0x00, 0x00,
                                  0xC0, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x46};

// A copy of exactly the list's size: a read one past its end is a heap overflow the
// sanitizer build reports, not a read of string slack.
std::vector<uint8_t> exact(std::string_view b) { return {b.begin(), b.end()}; }

// Walks the count, then that many properties, as every in-memory reader does. Returns where
// the walk ended, or kFails when the reader refused the list.
constexpr size_t kFails = static_cast<size_t>(-1);
size_t listEnd(std::string_view list) {
    const auto b = exact(list);
    TnefCursor cur{b.data(), b.size()};
    uint32_t count = 0;
    TnefPropView p;
    if (!cur.u32(count)) return kFails;
    for (uint32_t i = 0; i < count; ++i)
        if (!tnef_NextPropInList(cur, p)) return kFails;
    return cur.pos;
}

// One property without the list's count; id 0x7FFF is the last with no named header.
std::string prop(const PropList& l) { return l.bytes().substr(4); }
constexpr uint32_t tag(uint16_t type) { return PROP_TAG(type, 0x7FFF); }

}  // namespace

TEST(PropStream, EachPieceIsLaidOutAndReadToItsLastPaddingByte) {
    EXPECT_EQ(PropList().bytes(), bytesOf({0, 0, 0, 0})) << "count 0 holds nothing else";

    struct Case {
        const char* what;
        std::string built, expected;
        uint32_t valueCount;
        size_t valuesPos;
    };
    const Case cases[] = {
        {"\"Keywords\": name length 18, then 2 padding",
         PropList().namedString(PS_PUBLIC_STRINGS, kKeywords).mvString8(0x8000101E, {"a", "bc"})
             .bytes(),
         bytesOf({1, 0, 0, 0, 0x1E, 0x10, 0x00, 0x80,            // id 0x8000, PT_MV_STRING8
                  0x29, 0x03, 0x02, 0x00, 0x00, 0x00, 0x00, 0x00,  // PS_PUBLIC_STRINGS
                  0xC0, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x46,  //
                  1, 0, 0, 0, 18, 0, 0, 0,                         // string name of 18 bytes
                  'K', 0, 'e', 0, 'y', 0, 'w', 0, 'o', 0, 'r', 0, 'd', 0, 's', 0, 0, 0,  //
                  0, 0, 2, 0, 0, 0,                                // padding, two values
                  2, 0, 0, 0, 'a', 0, 0, 0,                        // "a" NUL, 2 padding
                  3, 0, 0, 0, 'b', 'c', 0, 0}),                    // "bc" NUL, 1 padding
         2, 56},
        {"PT_STRING8 of three characters: count 1, length 4, no padding",
         PropList().string8(PR_SUBJECT, "abc").bytes(),
         bytesOf({1, 0, 0, 0, 0x1E, 0x00, 0x37, 0x00, 1, 0, 0, 0, 4, 0, 0, 0, 'a', 'b', 'c', 0}),
         1, 12},
        {"PT_BINARY of 5 bytes: 3 padding",
         PropList().binary(PR_MESSAGE_SUBMISSION_ID, "12345").bytes(),
         bytesOf({1, 0, 0, 0, 0x02, 0x01, 0x47, 0x00, 1, 0, 0, 0, 5, 0, 0, 0,  //
                  '1', '2', '3', '4', '5', 0, 0, 0}),
         1, 12},
        {"PT_OBJECT of length 20: 16-byte interface id, then 4 data bytes",
         PropList().object(PR_ATTACH_DATA_OBJ, kIidMessage, "DATA").bytes(),
         bytesOf({1, 0, 0, 0, 0x0D, 0x00, 0x01, 0x37, 1, 0, 0, 0, 20, 0, 0, 0,  //
                  0x07, 0x03, 0x02, 0x00, 0x00, 0x00, 0x00, 0x00,               // IID_IMessage
                  0xC0, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x46, 'D', 'A', 'T', 'A'}),
         1, 12},
        {"PT_MV_I2: 2 bytes and 2 padding per value",
         PropList().mvI2(0x66001002, {1, 0xFFFF, 0x8000}).bytes(),
         bytesOf({1, 0, 0, 0, 0x02, 0x10, 0x00, 0x66, 3, 0, 0, 0,  //
                  0x01, 0x00, 0, 0, 0xFF, 0xFF, 0, 0, 0x00, 0x80, 0, 0}),
         3, 12},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        ASSERT_TRUE(sameBytes(c.built, c.expected));
        const auto b = exact(c.built);
        TnefCursor cur{b.data(), b.size(), 4};
        TnefPropView p;
        ASSERT_TRUE(tnef_NextPropInList(cur, p));
        EXPECT_EQ(p.valueCount, c.valueCount);
        EXPECT_EQ(p.valuesPos, c.valuesPos);
        EXPECT_EQ(p.valuesEnd, c.built.size());
        if (p.named) {
            EXPECT_EQ(std::string(reinterpret_cast<const char*>(b.data() + p.namedHeader.nameAt), 18),
                      kKeywords + "\0\0"s);
        }
    }
    std::string dirtyPadding = cases[2].built;
    dirtyPadding.replace(21, 3, "\xEE\xEE\xEE");
    EXPECT_EQ(listEnd(dirtyPadding), dirtyPadding.size()) << "padding is never looked at";
}

// The bytes after each tag are counted by hand, holding builder and reader to them.
TEST(PropStream, EveryTypeOfTheTableIsSteppedOverExactly) {
    const TnefGuid g = PSETID_Meeting;
    const struct {
        uint16_t type;
        std::string bytes;
        size_t consumed;
    } cases[] = {
        {PT_I2, prop(PropList().i2(tag(PT_I2), 0x7FFF)), 4},
        {PT_BOOLEAN, prop(PropList().i2(tag(PT_BOOLEAN), 1)), 4},
        {PT_LONG, prop(PropList().long32(tag(PT_LONG), 0xFFFFFFFF)), 4},
        {PT_R4, prop(PropList().r4(tag(PT_R4), 1.5f)), 4},
        {PT_ERROR, prop(PropList().long32(tag(PT_ERROR), 0x8004010F)), 4},
        {PT_DOUBLE, prop(PropList().r8(tag(PT_DOUBLE), 2.25)), 8},
        {PT_CURRENCY, prop(PropList().i8(tag(PT_CURRENCY), 12345)), 8},
        {PT_APPTIME, prop(PropList().r8(tag(PT_APPTIME), 45000.5)), 8},
        {PT_I8, prop(PropList().i8(tag(PT_I8), ~0ull)), 8},
        {PT_SYSTIME, prop(PropList().i8(tag(PT_SYSTIME), 0x019DB1DED53E8000ull)), 8},
        {PT_CLSID, prop(PropList().clsid(tag(PT_CLSID), g)), 16},
        {PT_STRING8, prop(PropList().string8(tag(PT_STRING8), "abcde")), 4 + 4 + 8},
        {PT_STRING8, prop(PropList().lengthPrefixed(tag(PT_STRING8), {})), 4},
        {PT_UNICODE, prop(PropList().unicode(tag(PT_UNICODE), utf16le("abc"))), 4 + 4 + 8},
        {PT_BINARY, prop(PropList().binary(tag(PT_BINARY), "x")), 4 + 4 + 4},
        {PT_BINARY, prop(PropList().lengthPrefixed(tag(PT_BINARY), {"ab", "cde"})), 4 + 16},
        {PT_OBJECT, prop(PropList().object(tag(PT_OBJECT), kIidMessage, "ab")), 4 + 4 + 20},
        {PT_MV_I2, prop(PropList().mvI2(tag(PT_MV_I2), {1, 2})), 4 + 8},
        {PT_MV_LONG, prop(PropList().mvLong(tag(PT_MV_LONG), {1, 2, 3})), 4 + 12},
        {PT_MV_R4, prop(PropList().mvLong(tag(PT_MV_R4), {0x3F000000, 0})), 4 + 8},
        {PT_MV_DOUBLE, prop(PropList().mvI8(tag(PT_MV_DOUBLE), {1, 0})), 4 + 16},
        {PT_MV_CURRENCY, prop(PropList().mvI8(tag(PT_MV_CURRENCY), {1, 2, 3})), 4 + 24},
        {PT_MV_APPTIME, prop(PropList().mvI8(tag(PT_MV_APPTIME), {4, 5})), 4 + 16},
        {PT_MV_I8, prop(PropList().mvI8(tag(PT_MV_I8), {6, 7})), 4 + 16},
        {PT_MV_SYSTIME, prop(PropList().mvI8(tag(PT_MV_SYSTIME), {8, 9})), 4 + 16},
        {PT_MV_CLSID, prop(PropList().mvClsid(tag(PT_MV_CLSID), {g, kIidMessage})), 4 + 32},
        {PT_MV_STRING8, prop(PropList().mvString8(tag(PT_MV_STRING8), {"", "abcd"})), 4 + 20},
        {PT_MV_UNICODE, prop(PropList().mvUnicode(tag(PT_MV_UNICODE), {utf16le("a"), ""})), 20},
        {PT_MV_BINARY, prop(PropList().mvBinary(tag(PT_MV_BINARY), {"", "xyz"})), 4 + 12},
    };
    // All in one list, so each must end exactly where the next tag begins.
    PropList all;
    for (const auto& c : cases) all.raw(c.bytes);
    const std::string list = all.count(std::size(cases)).bytes();
    const auto b = exact(list);
    TnefCursor cur{b.data(), b.size(), 4};
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << "type 0x" << std::hex << c.type);
        const size_t start = cur.pos;
        TnefPropView p;
        ASSERT_TRUE(tnef_NextPropInList(cur, p));
        EXPECT_EQ(p.tag, tag(c.type));
        ASSERT_EQ(cur.pos - start - 4, c.consumed) << tnefbuild::hexDump(c.bytes);
    }
    EXPECT_EQ(cur.pos, list.size());
}

TEST(PropStream, UnknownTypeStopsTheWalk) {
    EXPECT_EQ(listEnd(PropList().lengthPrefixed(0x66000099, {"x"}).bytes()), kFails);
    EXPECT_EQ(listEnd(PropList().namedId(PSETID_Common, 1).lengthPrefixed(0x80000099, {}).bytes()),
              kFails);
    // Other readers may still read it, as a counted list of length-prefixed values.
    const TnefPropTypeInfo info = tnef_PropTypeInfo(0x0099);
    EXPECT_TRUE(!info.known && info.hasValueCount && info.lengthPrefixed);
    // Neighbours of table types: no multi-valued null, error, boolean or object, no high bits.
    for (uint16_t type : {0x0000, 0x0001, 0x1001, 0x100A, 0x100B, 0x100D, 0x2003, 0x3003})
        EXPECT_FALSE(tnef_IsKnownPropType(type)) << std::hex << type;
}

TEST(PropStream, TruncatedListFailsAtEveryCutPoint) {
    const std::string list = PropList()
                                 .i2(PR_READ_RECEIPT_REQUESTED, 1)
                                 .clsid(0x66010048, PSETID_Meeting)
                                 .binary(PR_MESSAGE_SUBMISSION_ID, "12345")
                                 .object(PR_ATTACH_DATA_OBJ, kIidMessage, "data")
                                 .mvI2(0x66021002, {1, 2})
                                 .mvString8(0x6603101E, {"a", "bc"})
                                 .namedId(PSETID_Common, 0x8503)
                                 .i2(0x8000000B, 1)
                                 .namedString(PS_PUBLIC_STRINGS, kKeywords)
                                 .mvString8(0x8001101E, {"k"})
                                 .namedString(PSETID_Meeting, utf16le("x"), 2)  // any kind but 0
                                 .long32(0x80020003, 1)
                                 .bytes();
    ASSERT_EQ(listEnd(list), list.size());
    for (size_t cut = 0; cut < list.size(); ++cut)
        EXPECT_EQ(listEnd(list.substr(0, cut)), kFails) << "list cut to " << cut << " bytes";
}

