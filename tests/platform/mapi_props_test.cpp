#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <cstring>
#include <string>

#include "support/blob_text.h"
#include "tnef/platform/dstring.h"
#include "tnef/platform/mapi_props.h"
#include "tnef/platform/os_file.h"

using namespace blobtext;

namespace {

using Guid = std::array<uint8_t, 16>;
constexpr Guid kAppointment = {0x02, 0x20, 0x06, 0x00, 0x00, 0x00, 0x00, 0x00,
                               0xC0, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x46};
constexpr Guid kMeeting = {0x90, 0xDA, 0xD8, 0x6E, 0x0B, 0x45, 0x1B, 0x10,
                           0x98, 0xDA, 0x00, 0xAA, 0x00, 0x3F, 0x13, 0x05};
constexpr Guid kCommon = {0x08, 0x20, 0x06, 0x00, 0x00, 0x00, 0x00, 0x00,
                          0xC0, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x46};

// Takes a value text from the platform and frees it.
std::string take(char* value) {
    if (value == nullptr) return "<none>";
    std::string s(value);
    mdc_free(value);
    return s;
}

std::string named(const std::string& text, const Guid& set, uint32_t lid,
                  uint16_t* type = nullptr) {
    return take(mapi_getValueFor_guidf_num(text.c_str(), set.data(), lid, type));
}

BV_MAPI_PROP_ID idFor(const Guid* set, uint16_t type, uint32_t lid) {
    BV_MAPI_PROP_ID id;
    mapi_init_BV_MAPI_PROP_ID(&id, set != nullptr ? set->data() : nullptr);
    id.type = type;
    id.lid = lid;
    return id;
}

}  // namespace

TEST(MapiGuidText, WritesPublishedFormAndReadsItBackStrictly) {
    char text[MAPI_GUID_TEXT_SIZE];
    EXPECT_STREQ(mapi_Guid2String(kAppointment.data(), text),
                 "{00062002-0000-0000-C000-000000000046}");
    EXPECT_STREQ(mapi_Guid2String(kMeeting.data(), text), "{6ED8DA90-450B-101B-98DA-00AA003F1305}");

    Guid back{};
    dstring why;
    EXPECT_TRUE(mapi_string_to_MAPI_GUID(text, back.data(), &why));
    EXPECT_EQ(back, kMeeting);
    EXPECT_TRUE(mapi_string_to_MAPI_GUID("6ed8da90-450b-101b-98da-00aa003f1305", back.data(), nullptr))
        << "braces optional, either case";
    EXPECT_EQ(back, kMeeting);

    const Guid before = back;
    for (const char* bad : {"", "{6ED8DA90-450B-101B-98DA-00AA003F1305", "{6ED8DA90-450B-101B-98DA-00AA003F13G5}",
                            "{6ED8DA90-450B-101B-98DA+00AA003F1305}", "6ED8DA90-450B-101B-98DA-00AA003F1305x",
                            "{6ED8DA90450B-101B-98DA-00AA003F1305}}"}) {
        EXPECT_FALSE(mapi_string_to_MAPI_GUID(bad, back.data(), &why)) << bad;
        EXPECT_EQ(back, before) << "a refused text leaves the set untouched: " << bad;
    }
    EXPECT_NE(why.text.find("not a GUID"), std::string::npos);

    EXPECT_EQ(mapi_sameAsGuid(kCommon.data(), kCommon.data()), 1);
    EXPECT_EQ(mapi_sameAsGuid(kCommon.data(), kAppointment.data()), 0);
    EXPECT_EQ(mapi_sameAsGuid(nullptr, kAppointment.data()), 0);
}

TEST(MapiPropLookup, NamedEntriesBelongToTheSetOfTheGuidEntryBeforeThem) {
    const std::string text = entry("#3/2", "orphan") +  // before any set entry
                             setEntry(kMeeting) + entry("#1e/2", "Room 4") + entry("37001e", "Hi") +
                             setEntry(kAppointment) + entry("#1e/2", "other set") +
                             entry("#1f/8208", "wide") + entry("#1e/8208", "narrow");

    EXPECT_EQ(named(text, kMeeting, 2), "Room 4");
    EXPECT_EQ(named(text, kAppointment, 2), "other set");
    EXPECT_EQ(named(text, kCommon, 2), "<none>") << "the orphan entry is in no set we can tell";

    uint16_t type = 0x001E;
    EXPECT_EQ(named(text, kAppointment, 0x8208, &type), "narrow") << "the preferred type wins";
    EXPECT_EQ(type, 0x001E);
    type = 0;
    EXPECT_EQ(named(text, kAppointment, 0x8208, &type), "wide") << "no preference: the first";
    EXPECT_EQ(type, 0x001F);
    type = 0x0003;
    EXPECT_EQ(named(text, kMeeting, 2, &type), "Room 4") << "any type is found";
    EXPECT_EQ(type, 0x001E);

    // A set entry that does not hold 16 bytes cuts the named entries after it off from the
    // set before it.
    const std::string broken = setEntry(kMeeting) + entry("#3/c", "a") + "GUID\x1d" "short\x1e" +
                               entry("#3/d", "b");
    EXPECT_EQ(named(broken, kMeeting, 0xC), "a");
    EXPECT_EQ(named(broken, kMeeting, 0xD), "<none>");
}

TEST(MapiPropLookup, PlainLookupsMatchTheIdAndOptionallyTheType) {
    const std::string text = entry("#1e/37", "named") + entry("C0", "origin") +
                             entry("37001E", "upper") + entry("600040", "start") +
                             entry("37001e", "Hi") + entry("3701102", "multi\x1dvalue");
    EXPECT_EQ(take(mapi_getValueFor_id(text.c_str(), 0x0037, 0)), "Hi")
        << "neither a named key nor an upper-case id part is a plain tag";
    EXPECT_EQ(take(mapi_getValueFor_id(text.c_str(), 0x0037, 0x001F)), "<none>");
    EXPECT_EQ(take(mapi_getValueFor_id(text.c_str(), 0x0060, 0x0040)), "start");
    EXPECT_EQ(take(mapi_getValueFor_id(text.c_str(), 0x0370, 0)), "multi\x1dvalue")
        << "a multi-valued text comes back whole";
    EXPECT_EQ(take(mapi_getValueFor_id(text.c_str(), 0x0000, 0)), "<none>") << "C0 is no tag";
}

TEST(MapiPropLookup, HostileTextsAreReadWithinTheirBounds) {
    EXPECT_EQ(take(mapi_getValueFor_id(nullptr, 0x37, 0)), "<none>");
    EXPECT_EQ(take(mapi_getValueFor_id("", 0x37, 0)), "<none>");
    EXPECT_EQ(take(mapi_getValueFor_id("37001e", 0x37, 0)), "<none>") << "no value separator";
    EXPECT_EQ(take(mapi_getValueFor_id("37001e\x1d", 0x37, 0)), "") << "an empty value";
    EXPECT_EQ(take(mapi_getValueFor_id("\x1e\x1e" "37001e\x1dtail\x1b", 0x37, 0)), "tail\x1b")
        << "empty entries, no final separator, a dangling escape returned as it stands";
    EXPECT_EQ(take(mapi_getValueFor_id("137001e\x1dx\x1e" "000037001e\x1dy", 0x37, 0)), "<none>")
        << "seven digits give another id; ten are no tag";
    for (const char* key : {"#", "#/", "#3/", "#/2", "#3", "#3/2/", "#3/123456789", "#10000/2"}) {
        const std::string text = setEntry(kMeeting) + entry(key, "v");
        EXPECT_EQ(named(text, kMeeting, 2), "<none>") << key;
    }
    const std::string text = setEntry(kMeeting) + "#3/2\x1d";  // cut just after the separator
    EXPECT_EQ(named(text, kMeeting, 2), "");
    EXPECT_EQ(named(std::string("GUID\x1d") + "\x1b", kMeeting, 2), "<none>");
}

TEST(MapiPropKey, KeysAreTheDecodersFormWithASetEntryWhenTheSetChanges) {
    char lastSet[MAPI_GUID_TEXT_SIZE];
    mapi_Guid2String(kAppointment.data(), lastSet);
    dstring key;
    BV_MAPI_PROP_ID id = idFor(&kAppointment, 0x0040, 0x820D);
    ASSERT_TRUE(mapi_BV_MAPI_PROP_ID_to_blobId(&id, lastSet, &key));
    EXPECT_EQ(key.text, "#40/820d") << "same set: the key alone";

    id = idFor(&kCommon, 0x0102, 0x8516);
    ASSERT_TRUE(mapi_BV_MAPI_PROP_ID_to_blobId(&id, lastSet, &key));
    EXPECT_EQ(key.text, setEntry(kCommon) + "#102/8516");
    EXPECT_STREQ(lastSet, "{00062008-0000-0000-C000-000000000046}") << "the last set follows";

    std::strcpy(lastSet, "{20202020-2020-2020-2020-202020202020}");  // an unset slot
    id = idFor(&kMeeting, 0x0003, 0x3);
    ASSERT_TRUE(mapi_BV_MAPI_PROP_ID_to_blobId(&id, lastSet, &key));
    EXPECT_EQ(key.text, setEntry(kMeeting) + "#3/3");

    id = idFor(nullptr, 0x001E, 0x0037);
    ASSERT_TRUE(mapi_BV_MAPI_PROP_ID_to_blobId(&id, lastSet, &key));
    EXPECT_EQ(key.text, "37001e") << "plain: the tag, and the last set is not touched";
    EXPECT_STREQ(lastSet, "{6ED8DA90-450B-101B-98DA-00AA003F1305}");

    for (BV_MAPI_PROP_ID bad : {idFor(&kMeeting, 0, 3), idFor(nullptr, 0x3, 0x8000)}) {
        EXPECT_FALSE(mapi_BV_MAPI_PROP_ID_to_blobId(&bad, lastSet, &key));
        EXPECT_EQ(key.text, "");
    }
    id = idFor(&kMeeting, 3, 3);
    std::strcpy(id.guid, "{not a guid}");
    EXPECT_FALSE(mapi_BV_MAPI_PROP_ID_to_blobId(&id, lastSet, &key));
    EXPECT_STREQ(lastSet, "{6ED8DA90-450B-101B-98DA-00AA003F1305}");

    char value[MAPI_LONG_TEXT_SIZE];
    EXPECT_STREQ(mapi_BlobValueForPT_LONG(0, value), "0");
    EXPECT_STREQ(mapi_BlobValueForPT_LONG(0xFFFFFFFFu, value), "ffffffff");
    EXPECT_STREQ(mapi_BlobValueForPT_LONG(0x0A, value), "a");
}

TEST(MapiPropReplace, RewritesInPlaceOrAddsWhereTheSetIsInEffect) {
    const std::string base = setEntry(kAppointment) + entry("#3/8231", "1") + entry("#1e/8208", "x") +
                             setEntry(kMeeting) + entry("#3/c", "a") + entry("#3/8231", "meeting");
    dstring text;
    text.text = base + setEntry(kAppointment) + entry("#40/8231", "dup");

    // Rewritten in place with the new type; the later duplicate goes.
    BV_MAPI_PROP_ID type = idFor(&kAppointment, 0x0003, 0x8231);
    ASSERT_TRUE(mapi_replacePropInBlobD(&text, &type, "2"));
    EXPECT_EQ(text.text, setEntry(kAppointment) + entry("#3/8231", "2") + entry("#1e/8208", "x") +
                             setEntry(kMeeting) + entry("#3/c", "a") + entry("#3/8231", "meeting") +
                             setEntry(kAppointment));

    // Missing, and the text ends in its set: appended.
    BV_MAPI_PROP_ID clip = idFor(&kAppointment, 0x0040, 0x8235);
    ASSERT_TRUE(mapi_replacePropInBlobD(&text, &clip, "c1"));
    EXPECT_TRUE(text.text.ends_with(setEntry(kAppointment) + entry("#40/8235", "c1")));

    // Missing, the text ends in another set but holds a set entry for this one: the entry goes
    // in behind it and the text still ends in Meeting.
    text.text = base;
    ASSERT_TRUE(mapi_replacePropInBlobD(&text, &clip, "c2"));
    EXPECT_EQ(text.text, setEntry(kAppointment) + entry("#40/8235", "c2") + entry("#3/8231", "1") +
                             entry("#1e/8208", "x") + setEntry(kMeeting) + entry("#3/c", "a") +
                             entry("#3/8231", "meeting"));

    // No set entry for it at all: appended behind one, and the set the text ended in restored.
    BV_MAPI_PROP_ID start = idFor(&kCommon, 0x0040, 0x8516);
    ASSERT_TRUE(mapi_replacePropInBlobD(&text, &start, "s"));
    EXPECT_EQ(named(text.text, kCommon, 0x8516), "s");
    EXPECT_EQ(named(text.text, kMeeting, 0x8231), "meeting");
    EXPECT_EQ(named(text.text, kAppointment, 0x8231), "1");
    text.text += entry("#3/d", "next");  // a writer still holding Meeting as its last set
    EXPECT_EQ(named(text.text, kMeeting, 0xD), "next");

    // Plain properties ignore sets; a text without a final separator gets one first.
    text.text = "37001e\x1dHi";
    BV_MAPI_PROP_ID plain = idFor(nullptr, 0x0040, 0x0060);
    ASSERT_TRUE(mapi_replacePropInBlobD(&text, &plain, "t"));
    EXPECT_EQ(text.text, "37001e\x1dHi\x1e" + entry("600040", "t"));

    const std::string before = text.text;
    BV_MAPI_PROP_ID untyped = idFor(&kMeeting, 0, 2);
    EXPECT_FALSE(mapi_replacePropInBlobD(&text, &untyped, "v"));
    EXPECT_FALSE(mapi_replacePropInBlobD(&text, &plain, nullptr));
    EXPECT_EQ(text.text, before);
}
