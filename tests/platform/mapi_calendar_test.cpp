#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "support/blob_text.h"
#include "tnef/platform/dstring.h"
#include "tnef/platform/mapi_calendar.h"
#include "tnef/platform/mapi_date.h"
#include "tnef/platform/mapi_props.h"
#include "tnef/platform/os_file.h"

using namespace blobtext;

namespace {

std::string packedDate(uint32_t y, uint32_t m, uint32_t d) { return hex(y * 512 + m * 32 + d); }
std::string packedTime(uint32_t h, uint32_t m) { return hex(h * 4096 + m * 64); }

// Little-endian fields of a byte string, read in order; ok turns false past the end.
struct Cursor {
    const std::string& b;
    size_t at = 0;
    bool ok = true;
    uint32_t take(int n) {
        if (at + static_cast<size_t>(n) > b.size()) {
            ok = false;
            return 0;
        }
        uint32_t v = 0;
        for (int i = n - 1; i >= 0; --i) v = v << 8 | static_cast<uint8_t>(b[at + static_cast<size_t>(i)]);
        at += static_cast<size_t>(n);
        return v;
    }
    uint16_t u16() { return static_cast<uint16_t>(take(2)); }
    uint32_t u32() { return take(4); }
    int32_t i32() { return static_cast<int32_t>(take(4)); }
};

// The appointment recurrence pattern as a reader of the published layout sees it.
struct Pattern {
    uint16_t readerVersion, writerVersion, frequency, patternType, calendarType;
    uint32_t firstDateTime, period, slidingFlag, specific, nth;
    uint32_t endType, occurrences, firstDow, deleted, modified, startDate, endDate;
    uint32_t readerVersion2, writerVersion2, startOffset, endOffset;
    uint16_t exceptions;
    uint32_t reserved1, reserved2;
    bool wholeAndExact;
};

Pattern readPattern(const char* valueText) {
    const std::string bytes = unescape(std::string_view(valueText));
    Cursor c{bytes};
    Pattern p{};
    p.readerVersion = c.u16();
    p.writerVersion = c.u16();
    p.frequency = c.u16();
    p.patternType = c.u16();
    p.calendarType = c.u16();
    p.firstDateTime = c.u32();
    p.period = c.u32();
    p.slidingFlag = c.u32();
    if (p.patternType == 1 || p.patternType == 2 || p.patternType == 4) p.specific = c.u32();
    if (p.patternType == 3) {
        p.specific = c.u32();
        p.nth = c.u32();
    }
    p.endType = c.u32();
    p.occurrences = c.u32();
    p.firstDow = c.u32();
    p.deleted = c.u32();
    for (uint32_t i = 0; i < p.deleted && c.ok; ++i) c.u32();
    p.modified = c.u32();
    for (uint32_t i = 0; i < p.modified && c.ok; ++i) c.u32();
    p.startDate = c.u32();
    p.endDate = c.u32();
    p.readerVersion2 = c.u32();
    p.writerVersion2 = c.u32();
    p.startOffset = c.u32();
    p.endOffset = c.u32();
    p.exceptions = c.u16();
    p.reserved1 = c.u32();
    p.reserved2 = c.u32();
    p.wholeAndExact = c.ok && c.at == bytes.size();
    return p;
}

struct Zone {
    int32_t bias, standardBias, daylightBias;
    uint16_t standardYear, daylightYear;
    uint16_t std[8], dlt[8];  // year, month, day of week, day, hour, minute, second, ms
};

Zone readZone(const uint8_t* raw) {
    const std::string bytes(reinterpret_cast<const char*>(raw), MAPI_TIMEZONE_DATA_SIZE);
    Cursor c{bytes};
    Zone z{};
    z.bias = c.i32();
    z.standardBias = c.i32();
    z.daylightBias = c.i32();
    z.standardYear = c.u16();
    for (uint16_t& f : z.std) f = c.u16();
    z.daylightYear = c.u16();
    for (uint16_t& f : z.dlt) f = c.u16();
    EXPECT_EQ(c.at, bytes.size());
    return z;
}

MAPI_TIMEZONE zoneOf(uint32_t tzNum) {
    uint8_t raw[MAPI_TIMEZONE_DATA_SIZE];
    EXPECT_TRUE(mapi_raw_timezone_data_from_tzNum(tzNum, raw));
    MAPI_TIMEZONE tz{};
    EXPECT_TRUE(mapi_TimezoneFromRaw(raw, sizeof raw, &tz));
    return tz;
}

// Recurrence values owned for one test.
struct Recurrence {
    WM_RECURRENCE_PROPS p;
    uint8_t zone[MAPI_TIMEZONE_DATA_SIZE] = {};
    Recurrence() { mapi_init_WM_RECURRENCE_PROPS(&p); }
    ~Recurrence() { mapi_free_WM_RECURRENCE_PROPS(&p); }
    Recurrence(const Recurrence&) = delete;
    Recurrence& operator=(const Recurrence&) = delete;
    Recurrence& set(char* WM_RECURRENCE_PROPS::*member, const std::string& value) {
        mdc_free(p.*member);
        p.*member = mapi_DupText(value.data(), value.size());
        return *this;
    }
    Recurrence& in(uint32_t tzNum) {
        EXPECT_TRUE(mapi_raw_timezone_data_from_tzNum(tzNum, zone));
        return *this;
    }
    // The pattern's value text, or "" when none was built.
    std::string build() {
        char* text = mapi_PropFromWmRecurrenceProps(&p, zone);
        const std::string s = text != nullptr ? text : "";
        mdc_free(text);
        return s;
    }
};

using R = WM_RECURRENCE_PROPS;

}  // namespace

TEST(MapiGlobalObjectId, ReadsTheBigEndianYearAndWritesTheSameBytesBack) {
    std::string raw = {0x04, 0x00, 0x00, 0x00, '\x82', 0x00, '\xE0', 0x00,
                       0x74, '\xC5', '\xB7', 0x10, 0x1A, '\x82', '\xE0', 0x08};
    raw += {0x07, '\xE8', 0x05, 0x11};  // 2024, May, 17th
    raw += std::string("\x10\x20\x30\x40\x50\x60\x70\x01", 8);
    raw += std::string(8, '\0');
    raw += std::string("\x05\x00\x00\x00", 4);
    raw += "hello";

    MAPI_GLOBAL_OBJECT_ID id;
    mapi_init_MAPI_GLOBAL_OBJECT_ID(&id);
    ASSERT_TRUE(mapi_raw_GlobalObjectIdToStruc(reinterpret_cast<const uint8_t*>(raw.data()),
                                               raw.size(), &id));
    EXPECT_EQ(id.year, 2024);
    EXPECT_EQ(id.month, 5);
    EXPECT_EQ(id.day, 17);
    EXPECT_EQ(id.creationTime, 0x0170605040302010ULL);
    EXPECT_EQ(id.classId[4], 0x82);
    ASSERT_EQ(id.dataSize, 5u);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(id.data), 5), "hello");
    dstring back;
    ASSERT_TRUE(mapi_raw_GlobalObjectIdFromStruc(&id, &back));
    EXPECT_EQ(back.text, raw);

    // Bytes after the data are not part of the identifier.
    const std::string longer = raw + "xyz";
    ASSERT_TRUE(mapi_raw_GlobalObjectIdToStruc(reinterpret_cast<const uint8_t*>(longer.data()),
                                               longer.size(), &id));
    EXPECT_EQ(id.dataSize, 5u);

    // Too short for the fixed part, or for the data size it claims: refused and cleared.
    for (size_t cut : {size_t{0}, size_t{39}, raw.size() - 1}) {
        EXPECT_FALSE(mapi_raw_GlobalObjectIdToStruc(reinterpret_cast<const uint8_t*>(raw.data()),
                                                    cut, &id))
            << cut;
        EXPECT_EQ(id.data, nullptr);
        EXPECT_EQ(id.year, 0);
    }
    std::string huge = raw;
    huge[36] = '\xFF';
    huge[39] = '\xFF';
    EXPECT_FALSE(mapi_raw_GlobalObjectIdToStruc(reinterpret_cast<const uint8_t*>(huge.data()),
                                                huge.size(), &id));
    id.dataSize = 3;
    EXPECT_FALSE(mapi_raw_GlobalObjectIdFromStruc(&id, &back)) << "a size without data";
    mapi_free_MAPI_GLOBAL_OBJECT_ID(&id);
}

TEST(MapiTimeZone, KnownNumbersCarryThePublishedBiasAndTransitions) {
    // Transitions: year, month, day of week, week (5 = last), hour, minute, second, ms.
    const struct {
        uint32_t tzNum;
        int32_t bias, daylightBias;
        std::array<uint16_t, 8> standard, daylight;
    } zones[] = {
        {10, 300, -60, {0, 11, 0, 1, 2, 0, 0, 0}, {0, 3, 0, 2, 2, 0, 0, 0}},  // New York
        {1, 0, -60, {0, 10, 0, 5, 2, 0, 0, 0}, {0, 3, 0, 5, 1, 0, 0, 0}},     // London
        {57, -600, -60, {0, 4, 0, 1, 3, 0, 0, 0}, {0, 10, 0, 1, 2, 0, 0, 0}},  // Sydney
        {0x8000000Au, 300, 0, {}, {}},  // bit 31 keeps the zone on standard time
        {0x0001000Au, 300, -60, {0, 11, 0, 1, 2, 0, 0, 0}, {0, 3, 0, 2, 2, 0, 0, 0}},  // not read
    };
    for (const auto& zone : zones) {
        uint8_t raw[MAPI_TIMEZONE_DATA_SIZE];
        ASSERT_TRUE(mapi_raw_timezone_data_from_tzNum(zone.tzNum, raw)) << zone.tzNum;
        const Zone z = readZone(raw);
        EXPECT_EQ(z.bias, zone.bias) << zone.tzNum;
        EXPECT_EQ(z.daylightBias, zone.daylightBias) << zone.tzNum;
        EXPECT_EQ(0, std::memcmp(z.std, zone.standard.data(), sizeof z.std)) << zone.tzNum;
        EXPECT_EQ(0, std::memcmp(z.dlt, zone.daylight.data(), sizeof z.dlt)) << zone.tzNum;
    }
    EXPECT_STREQ(mapi_tzNum_toIcalTZID(10), "(UTC-05:00) Eastern Time (US & Canada)");
    uint8_t untouched[MAPI_TIMEZONE_DATA_SIZE];
    std::memset(untouched, 0xAB, sizeof untouched);
    for (uint32_t unknown : {0u, 2u, 0xFFFFu, 1000u}) {
        EXPECT_FALSE(mapi_raw_timezone_data_from_tzNum(unknown, untouched)) << unknown;
        EXPECT_EQ(mapi_tzNum_toIcalTZID(unknown), nullptr);
    }
    EXPECT_EQ(untouched[0], 0xAB);
    EXPECT_EQ(untouched[47], 0xAB);
}

TEST(MapiTimeZone, EveryTableEntryAgreesWithItsOwnName) {
    int known = 0;
    for (uint32_t n = 0; n < 0x200; ++n) {
        uint8_t raw[MAPI_TIMEZONE_DATA_SIZE];
        const char* name = mapi_tzNum_toIcalTZID(n);
        ASSERT_EQ(mapi_raw_timezone_data_from_tzNum(n, raw), name != nullptr) << n;
        if (name == nullptr) continue;
        ++known;
        const Zone z = readZone(raw);
        // "(UTC)" or "(UTC+hh:mm)": the offset the name states is minus the bias.
        int offset = 0;
        if (std::strncmp(name, "(UTC)", 5) != 0) {
            ASSERT_EQ(std::strncmp(name, "(UTC", 4), 0) << name;
            const int sign = name[4] == '-' ? -1 : 1;
            offset = sign * (std::atoi(name + 5) * 60 + std::atoi(name + 8));
        }
        EXPECT_EQ(-z.bias, offset) << name;
        EXPECT_EQ(z.standardBias, 0) << name;
        EXPECT_EQ(z.standardYear | z.daylightYear | z.std[0] | z.dlt[0], 0) << "relative rules";
        const bool hasDaylight = z.dlt[1] != 0;
        EXPECT_EQ(hasDaylight, z.std[1] != 0) << "both transitions or neither: " << name;
        if (hasDaylight) {
            EXPECT_EQ(z.daylightBias, -60) << name;
            EXPECT_NE(z.std[1], z.dlt[1]) << name;
            EXPECT_TRUE(z.std[3] >= 1 && z.std[3] <= 5 && z.dlt[3] >= 1 && z.dlt[3] <= 5) << name;
        } else {
            EXPECT_EQ(z.daylightBias, 0) << name;
        }
    }
    EXPECT_GE(known, 40);
}

TEST(MapiTimeZone, LocalTimesChangeOffsetAtTheTransitions) {
    const MAPI_TIMEZONE eastern = zoneOf(10), sydney = zoneOf(57);
    MAPI_TIMEZONE broken = eastern;  // transitions that name no real day: standard time
    broken.daylightDate.day = 9;
    MAPI_TIMEZONE dated = eastern;  // 2024's transitions as dates of that year only
    dated.daylightDate = {2024, 3, 0, 10, 2, 0, 0, 0};
    dated.standardDate = {2024, 11, 0, 3, 2, 0, 0, 0};
    // New York 2024: daylight time from 10 March 02:00 to 3 November 02:00; Sydney keeps
    // daylight time over the new year.
    const struct {
        const MAPI_TIMEZONE* zone;
        int64_t local, utc;
        bool both;  // UTC to local gives the local time back
    } rows[] = {
        {&eastern, minutes(2024, 3, 10, 1, 59), minutes(2024, 3, 10, 6, 59), true},
        {&eastern, minutes(2024, 3, 10, 3, 0), minutes(2024, 3, 10, 7, 0), true},
        {&eastern, minutes(2024, 11, 3, 0, 30), minutes(2024, 11, 3, 4, 30), true},
        {&eastern, minutes(2024, 11, 3, 2, 0), minutes(2024, 11, 3, 7, 0), true},
        {&eastern, minutes(2024, 11, 3, 1, 0), minutes(2024, 11, 3, 6, 0), false},
        {&sydney, minutes(2025, 1, 15, 12), minutes(2025, 1, 15, 1), true},
        {&sydney, minutes(2025, 7, 15, 12), minutes(2025, 7, 15, 2), true},
        {&broken, minutes(2024, 7, 1), minutes(2024, 7, 1, 5), true},
        {&dated, minutes(2024, 7, 1), minutes(2024, 7, 1, 4), true},
        {&dated, minutes(2025, 7, 1), minutes(2025, 7, 1, 5), true},
    };
    for (const auto& r : rows) {
        if (r.both) {
            EXPECT_EQ(mapi_LocalToUtcMinutes(r.zone, r.local), r.utc) << r.local;
        }
        EXPECT_EQ(mapi_UtcToLocalMinutes(r.zone, r.utc), r.local) << r.utc;
    }
    uint8_t raw[MAPI_TIMEZONE_DATA_SIZE] = {};
    EXPECT_FALSE(mapi_TimezoneFromRaw(raw, 47, &broken));
}

using Setting = std::pair<char* R::*, std::string>;

// Every other Monday and Wednesday, 10:00 to 11:00 in New York, 1 January to 31 March 2024.
const std::vector<Setting> kWeekly = {
    {&R::startDate, systime(minutes(2024, 1, 1, 15))}, {&R::endDate, systime(minutes(2024, 1, 1, 16))},
    {&R::startRecurDate, packedDate(2024, 1, 1)},     {&R::startRecurTime, packedTime(10, 0)},
    {&R::endRecurDate, packedDate(2024, 3, 31)},      {&R::weekInterval, "2"},
    {&R::dayOfWeekMask, "a"}};

// Each pattern as a reader of the published layout sees it, with the clip range the
// legacy values get.
TEST(MapiRecurrence, PatternsReadBackWithTheirDaysRangeAndTimes) {
    struct Case {
        const char* what;
        uint32_t zone;
        std::vector<Setting> settings;
        uint16_t frequency, patternType;
        uint32_t period, specific, endType, occurrences, startDate, endDate, startOffset, endOffset;
        std::string clipStart, clipEnd;
        uint32_t recurrenceType;
    };
    const Case cases[] = {
        // 7 weeks, two days each, the last 27 March; clips at local midnight, EST then EDT.
        {"weekly", 10, kWeekly, 0x200B, 1, 2, 0x0A, 0x2021, 14, uint32_t(minutes(2024, 1, 1)),
         uint32_t(minutes(2024, 3, 27)), 600, 660, systime(minutes(2024, 1, 1, 5)),
         systime(minutes(2024, 3, 27, 4)), MAPI_RECURTYPE_WEEKLY},
        // Every third day without end; the time of day from PR_START_DATE in London.
        {"daily",
         1,
         {{&R::startDate, systime(minutes(2024, 2, 28, 14, 30))},
          {&R::endDate, systime(minutes(2024, 2, 28, 15))},
          {&R::startRecurDate, packedDate(2024, 2, 28)},
          {&R::endRecurDate, packedDate(4500, 12, 31)},
          {&R::dayInterval, "3"}},
         0x200A, 0, 3 * 1440, 0, 0x2023, 10, uint32_t(minutes(2024, 2, 28)), 0x5AE980DF, 870, 900,
         systime(minutes(2024, 2, 28)), systime(minutes(4500, 8, 31, 23, 59)), MAPI_RECURTYPE_DAILY},
        // The 31st of every month, cut to the month's end; times from the legacy values (Tokyo).
        {"monthly",
         20,
         {{&R::startRecurDate, packedDate(2024, 1, 15)},
          {&R::startRecurTime, packedTime(9, 0)},
          {&R::endRecurTime, packedTime(10, 30)},
          {&R::endRecurDate, packedDate(2024, 6, 30)},
          {&R::monthInterval, "1"},
          {&R::dayOfMonthMask, hex(1u << 30)}},
         0x200C, 2, 1, 31, 0x2021, 6, uint32_t(minutes(2024, 1, 31)), uint32_t(minutes(2024, 6, 30)),
         540, 630, systime(minutes(2024, 1, 30, 15)), systime(minutes(2024, 6, 29, 15)),
         MAPI_RECURTYPE_MONTHLY},
        // 15 March every year, all day, in Sydney; the range opens after this year's.
        {"yearly",
         57,
         {{&R::startDate, systime(minutes(2025, 3, 14, 13))},
          {&R::endDate, systime(minutes(2025, 3, 15, 13))},
          {&R::startRecurDate, packedDate(2024, 5, 1)},
          {&R::endRecurDate, packedDate(2030, 12, 31)},
          {&R::yearInterval, "1"},
          {&R::monthOfYearMask, "4"},
          {&R::dayOfMonthMask, hex(1u << 14)},
          {&R::allDay, "1"}},
         0x200D, 2, 12, 15, 0x2021, 6, uint32_t(minutes(2025, 3, 15)), uint32_t(minutes(2030, 3, 15)),
         0, 1440, systime(minutes(2025, 3, 14, 13)), systime(minutes(2030, 3, 14, 13)),
         MAPI_RECURTYPE_YEARLY},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        Recurrence r;
        r.in(c.zone);
        for (const auto& [member, value] : c.settings) r.set(member, value);
        const std::string text = r.build();
        ASSERT_FALSE(text.empty());
        const Pattern p = readPattern(text.c_str());
        EXPECT_TRUE(p.wholeAndExact);
        EXPECT_EQ(p.readerVersion, 0x3004);
        EXPECT_EQ(p.writerVersion, 0x3004);
        EXPECT_EQ(p.readerVersion2, 0x3006u);
        EXPECT_EQ(p.frequency, c.frequency);
        EXPECT_EQ(p.patternType, c.patternType);
        EXPECT_EQ(p.period, c.period);
        EXPECT_EQ(p.specific, c.specific);
        EXPECT_EQ(p.endType, c.endType);
        EXPECT_EQ(p.occurrences, c.occurrences);
        EXPECT_EQ(p.startDate, c.startDate);
        EXPECT_EQ(p.endDate, c.endDate);
        EXPECT_EQ(p.startOffset, c.startOffset);
        EXPECT_EQ(p.endOffset, c.endOffset);
        EXPECT_EQ(p.firstDow, 0u);
        EXPECT_EQ(p.exceptions, 0);
        EXPECT_EQ(r.p.recurrenceType, c.recurrenceType);
        ASSERT_NE(r.p.clipStart, nullptr);
        ASSERT_NE(r.p.clipEnd, nullptr);
        EXPECT_EQ(std::string(r.p.clipStart), c.clipStart);
        EXPECT_EQ(std::string(r.p.clipEnd), c.clipEnd);
        // FirstDateTime names the series' periods: the first period (a week from Sunday 31
        // December, a day, the month or year of the first instance) is a whole number of
        // periods after it.
        if (c.frequency == 0x200B) {
            EXPECT_LT(p.firstDateTime, 2u * 10080);
            EXPECT_EQ((minutes(2023, 12, 31) - p.firstDateTime) % (2 * 10080), 0);
        } else if (c.frequency == 0x200A) {
            EXPECT_EQ((p.startDate - p.firstDateTime) % p.period, 0u);
        } else {
            EXPECT_EQ(p.firstDateTime, c.frequency == 0x200C ? 0u : (31u + 28u) * 1440u);
        }
    }
}

TEST(MapiRecurrence, ValuesThatNameNoSinglePatternBuildNothing) {
    const std::vector<Setting> cases = {
        {&R::dayInterval, "1"},                         // a second interval
        {&R::dayOfWeekMask, "0"},                       // no day of the week
        {&R::dayOfWeekMask, "80"},                      // a day beyond Saturday
        {&R::weekInterval, "zz"},                       // an interval that is no number
        {&R::startRecurDate, packedDate(2024, 13, 1)},  // a start month 13
        {&R::endRecurDate, packedDate(2023, 12, 1)},    // an end before the start
        {&R::endRecurDate, "0"},                        // an end date of 0
        {&R::startRecurTime, packedTime(24, 0)},        // a start hour 24
        {&R::weekInterval, "64"},                       // an interval of 100 weeks
        {&R::endRecurDate, ""},                         // no end is not taken for "never ends"
    };
    for (const auto& [member, value] : cases) {
        Recurrence r;
        r.in(10);
        for (const auto& [m, v] : kWeekly) r.set(m, v);
        ASSERT_FALSE(r.build().empty()) << "the base case builds";
        if (value.empty()) {
            mdc_free(r.p.*member);
            r.p.*member = nullptr;
        } else {
            r.set(member, value);
        }
        SCOPED_TRACE(value);
        EXPECT_TRUE(r.build().empty());
        EXPECT_EQ(r.p.recurrenceType, 0u);
        EXPECT_EQ(r.p.clipStart, nullptr);
        EXPECT_EQ(r.p.clipEnd, nullptr);
        EXPECT_EQ(mapi_PropFromWmRecurrenceProps(&r.p, nullptr), nullptr) << "no zone";
    }
    // A weekday of the month: which week is not among the legacy values; nor two days.
    Recurrence nth;
    nth.in(10);
    for (const auto& [m, v] : std::vector<Setting>{{&R::startRecurDate, packedDate(2024, 1, 1)},
                                                   {&R::startRecurTime, packedTime(10, 0)},
                                                   {&R::endRecurTime, packedTime(11, 0)},
                                                   {&R::endRecurDate, packedDate(2024, 12, 31)},
                                                   {&R::monthInterval, "1"},
                                                   {&R::dayOfWeekMask, "2"}})
        nth.set(m, v);
    EXPECT_TRUE(nth.build().empty());
    nth.set(&R::dayOfWeekMask, "0").set(&R::dayOfMonthMask, "3");
    EXPECT_TRUE(nth.build().empty());
    nth.set(&R::dayOfMonthMask, "1");
    EXPECT_FALSE(nth.build().empty());
}

TEST(MapiRecurrence, RecurrenceBaseIsTheOriginalStartOnTheIdentifiersUtcDate) {
    Recurrence r;
    r.in(13).set(&R::startRecurTime, packedTime(22, 0));  // 22:00 Pacific
    MAPI_GLOBAL_OBJECT_ID goid;
    mapi_init_MAPI_GLOBAL_OBJECT_ID(&goid);
    goid.year = 2024;
    goid.month = 7;
    goid.day = 11;
    auto base = [&] {
        char* text = mapi_RecurrenceBaseFromWmRecurrenceProps(&r.p, r.zone, &goid);
        const std::string s = text != nullptr ? text : "<none>";
        mdc_free(text);
        return s;
    };
    // 10 July 22:00 PDT is 11 July 05:00 UTC.
    EXPECT_EQ(base(), systime(minutes(2024, 7, 11, 5)));
    goid.month = 1;
    goid.day = 16;
    EXPECT_EQ(base(), systime(minutes(2024, 1, 16, 6))) << "15 January 22:00 PST is the 16th";

    for (auto [month, day] : {std::pair{0, 1}, std::pair{13, 1}, std::pair{2, 30}}) {
        goid.month = static_cast<uint8_t>(month);
        goid.day = static_cast<uint8_t>(day);
        EXPECT_EQ(base(), "<none>") << month << "/" << day;
    }
    goid.month = 7;
    goid.day = 11;
    EXPECT_EQ(mapi_RecurrenceBaseFromWmRecurrenceProps(&r.p, nullptr, &goid), nullptr);
    mdc_free(r.p.startRecurTime);
    r.p.startRecurTime = nullptr;
    EXPECT_EQ(base(), "<none>") << "no series start time";
}
