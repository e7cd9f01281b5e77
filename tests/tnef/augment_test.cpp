#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>

#include "support/blob_text.h"
#include "support/test_home.h"
#include "tnef/platform/dstring.h"
#include "tnef/platform/mapi_calendar.h"
#include "tnef/platform/mapi_date.h"
#include "tnef/platform/mapi_props.h"
#include "tnef/platform/os_file.h"
#include "tnef_decode/tnef_augment.h"
#include "tnef_defs.h"

using namespace blobtext;

namespace {

// A global object identifier with the given instance date and 4 bytes of data.
std::string goidBytes(uint16_t year, uint8_t month, uint8_t day) {
    std::string b = {0x04, 0x00, 0x00, 0x00, '\x82', 0x00, '\xE0', 0x00,
                     0x74, '\xC5', '\xB7', 0x10, 0x1A, '\x82', '\xE0', 0x08};
    b += {static_cast<char>(year >> 8), static_cast<char>(year), static_cast<char>(month),
          static_cast<char>(day)};
    b += std::string("\x01\x02\x03\x04\x05\x06\x07\x08", 8) + std::string(8, '\0');
    b += std::string("\x04\0\0\0", 4) + "UID1";
    return b;
}

// A weekly meeting on Mondays, 10:00 to 11:00 Eastern, 1 January to 31 March 2024, in the
// legacy values, with its time zone number and first instance.
std::string weeklyMeeting(const std::string& goid) {
    return setEntry(PSETID_Meeting) + entry("#102/3", escape(goid)) + entry("#3/c", "a") +
           entry("#3/d", hex(2024 * 512 + 1 * 32 + 1)) + entry("#3/e", hex(10 * 4096)) +
           entry("#3/f", hex(2024 * 512 + 3 * 32 + 31)) + entry("#2/12", "1") +
           entry("#3/15", "2") + entry("600040", systime(minutes(2024, 1, 1, 15))) +
           entry("610040", systime(minutes(2024, 1, 1, 16)));
}

struct Slot {
    uint8_t bytes[16];
    Slot() { std::memset(bytes, 0x20, sizeof bytes); }  // as the library loads it
    explicit Slot(const TnefGuid& g) { std::memcpy(bytes, g.data(), sizeof bytes); }
    bool holds(const TnefGuid& g) const { return std::memcmp(bytes, g.data(), 16) == 0; }
};

std::string valueOf(const dstring& text, const TnefGuid& set, uint32_t lid) {
    char* v = mapi_getValueFor_guidf_num(dstring_str(&text), set.data(), lid, nullptr);
    const std::string s = v != nullptr ? v : "<none>";
    mdc_free(v);
    return s;
}

uint32_t augment(dstring& text, Slot& slot) {
    uint32_t flag = 99;
    tnef_AugmentMAPIProps(&text, slot.bytes, &flag);
    return flag;
}

int32_t zoneBias(const std::string& valueText) {
    const std::string b = unescape(valueText);
    EXPECT_EQ(b.size(), MAPI_TIMEZONE_DATA_SIZE);
    if (b.size() < 4) return 0;
    return static_cast<int32_t>(static_cast<uint8_t>(b[0]) | static_cast<uint8_t>(b[1]) << 8 |
                                static_cast<uint8_t>(b[2]) << 16 |
                                static_cast<uint32_t>(static_cast<uint8_t>(b[3])) << 24);
}

}  // namespace

TEST(CalendarAugment, StartDateAloneGainsAppointmentAndCommonStartsAndNoRecurrence) {
    TestHome home;
    const std::string start = systime(minutes(2024, 6, 3, 9, 30));
    dstring text;
    text.text = entry("600040", start);
    Slot slot;
    EXPECT_EQ(augment(text, slot), 0u) << "the flag is written, not left as preset";
    EXPECT_EQ(text.text, entry("600040", start) + setEntry(PSETID_Appointment) +
                             entry("#40/820d", start) + entry("#40/8235", start) +
                             setEntry(PSETID_Common) + entry("#40/8516", start));
    EXPECT_TRUE(slot.holds(PSETID_Common));

    // Run again: every derived entry is there, nothing more is added.
    const std::string once = text.text;
    EXPECT_EQ(augment(text, slot), 0u);
    EXPECT_EQ(text.text, once);
}

TEST(CalendarAugment, EntriesAlreadyPresentKeepTheirValues) {
    TestHome home;
    const std::string kept = systime(minutes(2020, 1, 1));
    const std::string start = systime(minutes(2024, 6, 3, 9));
    const std::string end = systime(minutes(2024, 6, 3, 10));
    dstring text;
    text.text = setEntry(PSETID_Appointment) + entry("#40/820d", kept) + entry("600040", start) +
                entry("610040", end);
    Slot slot(PSETID_Appointment);
    augment(text, slot);
    EXPECT_EQ(text.text, setEntry(PSETID_Appointment) + entry("#40/820d", kept) +
                             entry("600040", start) + entry("610040", end) +
                             entry("#40/8235", start) + entry("#40/820e", end) +
                             entry("#40/8236", end) + setEntry(PSETID_Common) +
                             entry("#40/8516", start) + entry("#40/8517", end))
        << "the slot already held Appointment, so no set entry before 0x8235";
}

TEST(CalendarAugment, SeriesIdentifierBuildsPatternAndExceptionGetsRecurrenceBase) {
    TestHome home;
    {  // Month 0: the series. The pattern is built and wins over the plain clip times.
        dstring text;
        text.text = weeklyMeeting(goidBytes(0, 0, 0));
        Slot slot(PSETID_Meeting);
        EXPECT_EQ(augment(text, slot), 1u);
        EXPECT_EQ(zoneBias(valueOf(text, PSETID_Appointment, 0x8233)), 300);
        EXPECT_EQ(valueOf(text, PSETID_Appointment, 0x8234),
                  "(UTC-05:00) Eastern Time (US & Canada)");
        const std::string pattern = unescape(valueOf(text, PSETID_Appointment, 0x8216));
        ASSERT_GE(pattern.size(), 26u);
        EXPECT_EQ(pattern.substr(4, 4), std::string("\x0b\x20\x01\x00", 4)) << "weekly, by week";
        EXPECT_EQ(pattern.substr(22, 4), std::string("\x02\0\0\0", 4)) << "Mondays";
        EXPECT_EQ(valueOf(text, PSETID_Appointment, 0x8231), "2");
        EXPECT_EQ(valueOf(text, PSETID_Appointment, 0x8235), systime(minutes(2024, 1, 1, 5)));
        EXPECT_EQ(valueOf(text, PSETID_Appointment, 0x8236), systime(minutes(2024, 3, 25, 4)));
        EXPECT_EQ(valueOf(text, PSETID_Appointment, 0x820D), systime(minutes(2024, 1, 1, 15)));
        EXPECT_EQ(valueOf(text, PSETID_Meeting, 0x0029), "<none>");
        EXPECT_EQ(valueOf(text, PSETID_Meeting, 0x0023), escape(goidBytes(0, 0, 0)));
        EXPECT_EQ(valueOf(text, PSETID_Common, 0x8516), systime(minutes(2024, 1, 1, 15)));
    }
    {  // Month 1: an exception. No pattern; the replaced instance's start becomes 0x0029 and
       // the clean identifier loses its date.
        dstring text;
        text.text = weeklyMeeting(goidBytes(2024, 1, 15));
        Slot slot(PSETID_Meeting);
        EXPECT_EQ(augment(text, slot), 0u);
        EXPECT_EQ(valueOf(text, PSETID_Appointment, 0x8216), "<none>");
        EXPECT_EQ(valueOf(text, PSETID_Appointment, 0x8231), "<none>");
        EXPECT_EQ(valueOf(text, PSETID_Meeting, 0x0029), systime(minutes(2024, 1, 15, 15)));
        EXPECT_EQ(valueOf(text, PSETID_Meeting, 0x0023), escape(goidBytes(0, 0, 0)));
        EXPECT_EQ(valueOf(text, PSETID_Appointment, 0x8235), systime(minutes(2024, 1, 1, 15)))
            << "no pattern: the clip start is the start";
        EXPECT_EQ(zoneBias(valueOf(text, PSETID_Appointment, 0x8233)), 300);
    }
    {  // Without the time zone number nothing of the recurrence is looked at.
        dstring text;
        std::string meeting = weeklyMeeting(goidBytes(0, 0, 0));
        meeting.erase(meeting.find("#3/c"), 7);
        text.text = meeting;
        Slot slot(PSETID_Meeting);
        EXPECT_EQ(augment(text, slot), 0u);
        EXPECT_EQ(valueOf(text, PSETID_Appointment, 0x8216), "<none>");
        EXPECT_EQ(valueOf(text, PSETID_Appointment, 0x8233), "<none>");
        EXPECT_EQ(valueOf(text, PSETID_Meeting, 0x0023), escape(goidBytes(0, 0, 0)));
    }
}

TEST(CalendarAugment, PatternOrZoneAlreadyInTheTextIsKept) {
    TestHome home;
    {  // A pattern present: the flag says recurring, nothing is rebuilt or replaced.
        dstring text;
        text.text = weeklyMeeting(goidBytes(0, 0, 0)) + setEntry(PSETID_Appointment) +
                    entry("#102/8216", "given");
        Slot slot(PSETID_Appointment);
        EXPECT_EQ(augment(text, slot), 1u);
        EXPECT_EQ(valueOf(text, PSETID_Appointment, 0x8216), "given");
        EXPECT_EQ(valueOf(text, PSETID_Appointment, 0x8231), "<none>");
    }
    {  // A zone structure present (Pacific, beside number 10): kept, no description added,
       // and the pattern placed in it, so the clip start is Pacific midnight.
        uint8_t pacific[MAPI_TIMEZONE_DATA_SIZE];
        ASSERT_TRUE(mapi_raw_timezone_data_from_tzNum(13, pacific));
        const std::string zone =
            escape(std::string(reinterpret_cast<const char*>(pacific), sizeof pacific));
        dstring text;
        text.text = setEntry(PSETID_Appointment) + entry("#102/8233", zone) +
                    weeklyMeeting(goidBytes(0, 0, 0));
        Slot slot(PSETID_Meeting);
        EXPECT_EQ(augment(text, slot), 1u);
        EXPECT_EQ(valueOf(text, PSETID_Appointment, 0x8233), zone);
        EXPECT_EQ(valueOf(text, PSETID_Appointment, 0x8234), "<none>");
        EXPECT_EQ(valueOf(text, PSETID_Appointment, 0x8235), systime(minutes(2024, 1, 1, 8)));
    }
}

TEST(CalendarAugment, LocationIsCopiedWithTheTypeItWasFoundWith) {
    TestHome home;
    const std::string wide = escape(std::string("R\0m\0 \0" "4\0", 8));
    dstring text;
    text.text = setEntry(PSETID_Meeting) + entry("#1f/2", wide);
    Slot slot(PSETID_Meeting);
    augment(text, slot);
    EXPECT_TRUE(text.text.ends_with(setEntry(PSETID_Appointment) + entry("#1f/8208", wide)));

    text.text = setEntry(PSETID_Meeting) + entry("#1e/2", "Room 4");
    Slot fresh(PSETID_Meeting);  // the slot that wrote this text
    augment(text, fresh);
    EXPECT_EQ(valueOf(text, PSETID_Appointment, 0x8208), "Room 4");
    EXPECT_NE(text.text.find(entry("#1e/8208", "Room 4")), std::string::npos);
}

TEST(CalendarAugment, IdentifierThatDoesNotDecodeIsTakenAsAbsent) {
    TestHome home;
    dstring text;
    std::string meeting = weeklyMeeting(goidBytes(0, 0, 0));
    const size_t at = meeting.find("#102/3\x1d") + 7;
    meeting.replace(at, meeting.find('\x1e', at) - at, "short");
    text.text = meeting;
    Slot slot(PSETID_Meeting);
    EXPECT_EQ(augment(text, slot), 0u);
    EXPECT_EQ(valueOf(text, PSETID_Meeting, 0x0023), "<none>");
    EXPECT_EQ(valueOf(text, PSETID_Appointment, 0x8216), "<none>");
    EXPECT_EQ(zoneBias(valueOf(text, PSETID_Appointment, 0x8233)), 300) << "the zone still comes";
}

TEST(CalendarAugment, AddEntryWritesSetEntryOnlyWhenTheSlotDiffers) {
    TestHome home;
    BV_MAPI_PROP_ID id;
    mapi_init_BV_MAPI_PROP_ID(&id, PSETID_Appointment.data());
    id.type = PT_LONG;
    id.lid = 0x8231;
    dstring text;
    Slot slot(PSETID_Meeting);

    tnef_AugmentAddEntry(&text, nullptr, &id, slot.bytes);
    EXPECT_EQ(text.text, "") << "no value, no entry";

    tnef_AugmentAddEntry(&text, "2", &id, slot.bytes);
    EXPECT_EQ(text.text, setEntry(PSETID_Appointment) + entry("#3/8231", "2"));
    EXPECT_TRUE(slot.holds(PSETID_Appointment));

    id.type = PT_I2;
    tnef_AugmentAddEntry(&text, "3", &id, slot.bytes);
    EXPECT_EQ(text.text, setEntry(PSETID_Appointment) + entry("#3/8231", "2"))
        << "present under another type is present";

    id.lid = 0x8232;
    tnef_AugmentAddEntry(&text, "3", &id, slot.bytes);
    EXPECT_TRUE(text.text.ends_with("\x1e" + entry("#2/8232", "3"))) << "same set: key only";

    BV_MAPI_PROP_ID plain;
    mapi_init_BV_MAPI_PROP_ID(&plain, nullptr);
    plain.type = PT_SYSTIME;
    plain.lid = 0x0060;
    tnef_AugmentAddEntry(&text, "t", &plain, slot.bytes);
    EXPECT_TRUE(text.text.ends_with(entry("#2/8232", "3") + entry("600040", "t")));
    EXPECT_TRUE(slot.holds(PSETID_Appointment)) << "a plain entry leaves the slot alone";
}
