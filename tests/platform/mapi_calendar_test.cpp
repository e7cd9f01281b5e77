#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "tnef/platform/dstring.h"
#include "tnef/platform/mapi_calendar.h"
#include "tnef/platform/mapi_date.h"
#include "tnef/platform/mapi_props.h"
#include "tnef/platform/os_file.h"

namespace {

// ---- Helpers written apart from the platform --------------------------------------------------

std::string unescape(const char* text) {
    std::string out;
    for (const char* p = text; *p != '\0'; ++p) {
        if (*p == '\x1b' && p[1] != '\0') out.push_back(static_cast<char>(*++p - 0x40));
        else out.push_back(*p);
    }
    return out;
}

std::string escape(const std::string& bytes) {
    std::string out;
    for (unsigned char c : bytes) {
        if (c < 0x20) out += {'\x1b', static_cast<char>(c + 0x40)};
        else out.push_back(static_cast<char>(c));
    }
    return out;
}

int64_t minutes(int y, unsigned mo, unsigned d, int h = 0, int mi = 0) {
    return (mapi_DaysFromCivil(y, mo, d) + 134774) * 1440 + h * 60 + mi;
}

std::string systime(int64_t mins) {
    const uint64_t ticks = static_cast<uint64_t>(mins) * 600000000ULL;
    std::string b;
    for (int i = 0; i < 8; ++i) b.push_back(static_cast<char>(ticks >> (8 * i)));
    return escape(b);
}

std::string hex(uint32_t v) {
    char buf[16];
    std::snprintf(buf, sizeof buf, "%x", v);
    return buf;
}
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
    const std::string bytes = unescape(valueText);
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
    uint8_t raw[MAPI_TIMEZONE_DATA_SIZE];
    ASSERT_TRUE(mapi_raw_timezone_data_from_tzNum(10, raw));
    Zone z = readZone(raw);
    EXPECT_EQ(z.bias, 300);
    EXPECT_EQ(z.standardBias, 0);
    EXPECT_EQ(z.daylightBias, -60);
    const uint16_t firstSundayNov2am[8] = {0, 11, 0, 1, 2, 0, 0, 0};
    const uint16_t secondSundayMar2am[8] = {0, 3, 0, 2, 2, 0, 0, 0};
    EXPECT_EQ(0, std::memcmp(z.std, firstSundayNov2am, sizeof z.std));
    EXPECT_EQ(0, std::memcmp(z.dlt, secondSundayMar2am, sizeof z.dlt));
    EXPECT_STREQ(mapi_tzNum_toIcalTZID(10), "(UTC-05:00) Eastern Time (US & Canada)");

    ASSERT_TRUE(mapi_raw_timezone_data_from_tzNum(1, raw));
    z = readZone(raw);
    EXPECT_EQ(z.bias, 0);
    EXPECT_EQ(z.std[1], 10);
    EXPECT_EQ(z.std[3], 5) << "last Sunday";
    EXPECT_EQ(z.std[4], 2);
    EXPECT_EQ(z.dlt[1], 3);
    EXPECT_EQ(z.dlt[4], 1);

    ASSERT_TRUE(mapi_raw_timezone_data_from_tzNum(57, raw));
    z = readZone(raw);
    EXPECT_EQ(z.bias, -600);
    EXPECT_EQ(z.std[1], 4) << "southern hemisphere: standard time from April";
    EXPECT_EQ(z.dlt[1], 10);

    // Bit 31 keeps the zone on standard time; the other high bits are not read.
    ASSERT_TRUE(mapi_raw_timezone_data_from_tzNum(0x8000000Au, raw));
    z = readZone(raw);
    EXPECT_EQ(z.bias, 300);
    EXPECT_EQ(z.daylightBias, 0);
    EXPECT_EQ(z.dlt[1], 0);
    EXPECT_EQ(z.std[1], 0);
    ASSERT_TRUE(mapi_raw_timezone_data_from_tzNum(0x0001000Au, raw));
    EXPECT_EQ(readZone(raw).dlt[1], 3);

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
    const MAPI_TIMEZONE eastern = zoneOf(10);
    // 2024: daylight time from 10 March 02:00 to 3 November 02:00.
    EXPECT_EQ(mapi_LocalToUtcMinutes(&eastern, minutes(2024, 3, 10, 1, 59)), minutes(2024, 3, 10, 6, 59));
    EXPECT_EQ(mapi_LocalToUtcMinutes(&eastern, minutes(2024, 3, 10, 3, 0)), minutes(2024, 3, 10, 7, 0));
    EXPECT_EQ(mapi_LocalToUtcMinutes(&eastern, minutes(2024, 11, 3, 0, 30)), minutes(2024, 11, 3, 4, 30));
    EXPECT_EQ(mapi_LocalToUtcMinutes(&eastern, minutes(2024, 11, 3, 2, 0)), minutes(2024, 11, 3, 7, 0));
    EXPECT_EQ(mapi_UtcToLocalMinutes(&eastern, minutes(2024, 3, 10, 6, 59)), minutes(2024, 3, 10, 1, 59));
    EXPECT_EQ(mapi_UtcToLocalMinutes(&eastern, minutes(2024, 3, 10, 7, 0)), minutes(2024, 3, 10, 3, 0));
    EXPECT_EQ(mapi_UtcToLocalMinutes(&eastern, minutes(2024, 11, 3, 6, 0)), minutes(2024, 11, 3, 1, 0));

    // Sydney keeps daylight time over the new year.
    const MAPI_TIMEZONE sydney = zoneOf(57);
    EXPECT_EQ(mapi_LocalToUtcMinutes(&sydney, minutes(2025, 1, 15, 12)), minutes(2025, 1, 15, 1));
    EXPECT_EQ(mapi_LocalToUtcMinutes(&sydney, minutes(2025, 7, 15, 12)), minutes(2025, 7, 15, 2));
    EXPECT_EQ(mapi_UtcToLocalMinutes(&sydney, minutes(2025, 1, 15, 1)), minutes(2025, 1, 15, 12));

    // A structure whose transitions name no real day keeps standard time.
    MAPI_TIMEZONE broken = eastern;
    broken.daylightDate.day = 9;
    EXPECT_EQ(mapi_LocalToUtcMinutes(&broken, minutes(2024, 7, 1)), minutes(2024, 7, 1, 5));
    uint8_t raw[MAPI_TIMEZONE_DATA_SIZE] = {};
    EXPECT_FALSE(mapi_TimezoneFromRaw(raw, 47, &broken));
}

TEST(MapiRecurrence, WeeklyPatternReadsBackWithItsDaysRangeAndTimes) {
    Recurrence r;
    r.in(10)
        .set(&R::startDate, systime(minutes(2024, 1, 1, 15)))
        .set(&R::endDate, systime(minutes(2024, 1, 1, 16)))
        .set(&R::startRecurDate, packedDate(2024, 1, 1))
        .set(&R::startRecurTime, packedTime(10, 0))
        .set(&R::endRecurDate, packedDate(2024, 3, 31))
        .set(&R::weekInterval, "2")
        .set(&R::dayOfWeekMask, "a");  // Monday and Wednesday
    const std::string text = r.build();
    ASSERT_FALSE(text.empty());
    const Pattern p = readPattern(text.c_str());
    EXPECT_TRUE(p.wholeAndExact);
    EXPECT_EQ(p.readerVersion, 0x3004);
    EXPECT_EQ(p.writerVersion, 0x3004);
    EXPECT_EQ(p.frequency, 0x200B);
    EXPECT_EQ(p.patternType, 1);
    EXPECT_EQ(p.period, 2u);
    EXPECT_EQ(p.specific, 0x0Au);
    EXPECT_EQ(p.endType, 0x2021u);
    // Every other week from 1 January to 31 March: 7 weeks, two days each, the last 27 March.
    EXPECT_EQ(p.occurrences, 14u);
    EXPECT_EQ(p.startDate, minutes(2024, 1, 1));
    EXPECT_EQ(p.endDate, minutes(2024, 3, 27));
    EXPECT_EQ(p.firstDow, 0u);
    // FirstDateTime names the series' weeks: the first week (from Sunday 31 December) is a
    // whole number of periods after it.
    const uint32_t periodMinutes = 2 * 10080;
    EXPECT_LT(p.firstDateTime, periodMinutes);
    EXPECT_EQ((minutes(2023, 12, 31) - p.firstDateTime) % periodMinutes, 0);
    EXPECT_EQ(p.startOffset, 600u);
    EXPECT_EQ(p.endOffset, 660u);
    EXPECT_EQ(p.readerVersion2, 0x3006u);
    EXPECT_EQ(p.exceptions, 0);

    EXPECT_EQ(r.p.recurrenceType, MAPI_RECURTYPE_WEEKLY);
    ASSERT_NE(r.p.clipStart, nullptr);
    ASSERT_NE(r.p.clipEnd, nullptr);
    EXPECT_EQ(std::string(r.p.clipStart), systime(minutes(2024, 1, 1, 5))) << "local midnight, EST";
    EXPECT_EQ(std::string(r.p.clipEnd), systime(minutes(2024, 3, 27, 4))) << "local midnight, EDT";
}

TEST(MapiRecurrence, DailyMonthlyAndYearlyPatternsReadBack) {
    {  // Every third day without end; the time of day from PR_START_DATE in London (GMT).
        Recurrence r;
        r.in(1)
            .set(&R::startDate, systime(minutes(2024, 2, 28, 14, 30)))
            .set(&R::endDate, systime(minutes(2024, 2, 28, 15)))
            .set(&R::startRecurDate, packedDate(2024, 2, 28))
            .set(&R::endRecurDate, packedDate(4500, 12, 31))
            .set(&R::dayInterval, "3");
        const Pattern p = readPattern(r.build().c_str());
        EXPECT_TRUE(p.wholeAndExact);
        EXPECT_EQ(p.frequency, 0x200A);
        EXPECT_EQ(p.patternType, 0);
        EXPECT_EQ(p.period, 3u * 1440);
        EXPECT_EQ(p.endType, 0x2023u);
        EXPECT_EQ(p.occurrences, 10u);
        EXPECT_EQ(p.endDate, 0x5AE980DFu);
        EXPECT_EQ((p.startDate - p.firstDateTime) % p.period, 0u);
        EXPECT_EQ(p.startOffset, 870u);
        EXPECT_EQ(p.endOffset, 900u);
        EXPECT_EQ(r.p.recurrenceType, MAPI_RECURTYPE_DAILY);
        EXPECT_EQ(std::string(r.p.clipEnd), systime(minutes(4500, 8, 31, 23, 59)));
    }
    {  // The 31st of every month, cut to the month's end; times from the legacy values (Tokyo).
        Recurrence r;
        r.in(20)
            .set(&R::startRecurDate, packedDate(2024, 1, 15))
            .set(&R::startRecurTime, packedTime(9, 0))
            .set(&R::endRecurTime, packedTime(10, 30))
            .set(&R::endRecurDate, packedDate(2024, 6, 30))
            .set(&R::monthInterval, "1")
            .set(&R::dayOfMonthMask, hex(1u << 30));
        const Pattern p = readPattern(r.build().c_str());
        EXPECT_TRUE(p.wholeAndExact);
        EXPECT_EQ(p.frequency, 0x200C);
        EXPECT_EQ(p.patternType, 2);
        EXPECT_EQ(p.specific, 31u);
        EXPECT_EQ(p.firstDateTime, 0u);
        EXPECT_EQ(p.startDate, minutes(2024, 1, 31));
        EXPECT_EQ(p.endDate, minutes(2024, 6, 30));
        EXPECT_EQ(p.occurrences, 6u) << "Jan 31, Feb 29, Mar 31, Apr 30, May 31, Jun 30";
        EXPECT_EQ(p.startOffset, 540u);
        EXPECT_EQ(p.endOffset, 630u);
        EXPECT_EQ(std::string(r.p.clipStart), systime(minutes(2024, 1, 30, 15)));
    }
    {  // 15 March every year, an all-day event, in Sydney; the range opens after this year's.
        Recurrence r;
        r.in(57)
            .set(&R::startDate, systime(minutes(2025, 3, 14, 13)))
            .set(&R::endDate, systime(minutes(2025, 3, 15, 13)))
            .set(&R::startRecurDate, packedDate(2024, 5, 1))
            .set(&R::endRecurDate, packedDate(2030, 12, 31))
            .set(&R::yearInterval, "1")
            .set(&R::monthOfYearMask, "4")
            .set(&R::dayOfMonthMask, hex(1u << 14))
            .set(&R::allDay, "1");
        const Pattern p = readPattern(r.build().c_str());
        EXPECT_TRUE(p.wholeAndExact);
        EXPECT_EQ(p.frequency, 0x200D);
        EXPECT_EQ(p.patternType, 2);
        EXPECT_EQ(p.period, 12u);
        EXPECT_EQ(p.specific, 15u);
        EXPECT_EQ(p.firstDateTime, (31u + 28u) * 1440u) << "March of 1601";
        EXPECT_EQ(p.startDate, minutes(2025, 3, 15));
        EXPECT_EQ(p.occurrences, 6u);
        EXPECT_EQ(p.startOffset, 0u);
        EXPECT_EQ(p.endOffset, 1440u);
        EXPECT_EQ(r.p.recurrenceType, MAPI_RECURTYPE_YEARLY);
        EXPECT_EQ(std::string(r.p.clipStart), systime(minutes(2025, 3, 14, 13))) << "AEDT";
    }
}

TEST(MapiRecurrence, ValuesThatNameNoSinglePatternBuildNothing) {
    struct Case {
        const char* why;
        char* WM_RECURRENCE_PROPS::*member;
        std::string value;
    };
    const Case cases[] = {
        {"a second interval", &R::dayInterval, "1"},
        {"no day of the week", &R::dayOfWeekMask, "0"},
        {"a day beyond Saturday", &R::dayOfWeekMask, "80"},
        {"an interval that is no number", &R::weekInterval, "zz"},
        {"a start month 13", &R::startRecurDate, packedDate(2024, 13, 1)},
        {"an end before the start", &R::endRecurDate, packedDate(2023, 12, 1)},
        {"an end date of 0", &R::endRecurDate, "0"},
        {"a start hour 24", &R::startRecurTime, packedTime(24, 0)},
        {"an interval of 100 weeks", &R::weekInterval, "64"},
    };
    for (const Case& c : cases) {
        Recurrence r;
        r.in(10)
            .set(&R::startDate, systime(minutes(2024, 1, 1, 15)))
            .set(&R::endDate, systime(minutes(2024, 1, 1, 16)))
            .set(&R::startRecurDate, packedDate(2024, 1, 1))
            .set(&R::startRecurTime, packedTime(10, 0))
            .set(&R::endRecurDate, packedDate(2024, 3, 31))
            .set(&R::weekInterval, "1")
            .set(&R::dayOfWeekMask, "2");
        ASSERT_FALSE(r.build().empty()) << "the base case builds";
        r.set(c.member, c.value);
        EXPECT_TRUE(r.build().empty()) << c.why;
        EXPECT_EQ(r.p.recurrenceType, 0u) << c.why;
        EXPECT_EQ(r.p.clipStart, nullptr) << c.why;
        EXPECT_EQ(r.p.clipEnd, nullptr) << c.why;
    }

    Recurrence nth;  // a weekday of the month: which week is not among the legacy values
    nth.in(10)
        .set(&R::startRecurDate, packedDate(2024, 1, 1))
        .set(&R::startRecurTime, packedTime(10, 0))
        .set(&R::endRecurTime, packedTime(11, 0))
        .set(&R::endRecurDate, packedDate(2024, 12, 31))
        .set(&R::monthInterval, "1")
        .set(&R::dayOfWeekMask, "2");
    EXPECT_TRUE(nth.build().empty());
    nth.set(&R::dayOfWeekMask, "0").set(&R::dayOfMonthMask, "3");  // two days of the month
    EXPECT_TRUE(nth.build().empty());
    nth.set(&R::dayOfMonthMask, "1");
    EXPECT_FALSE(nth.build().empty());
    EXPECT_EQ(mapi_PropFromWmRecurrenceProps(&nth.p, nullptr), nullptr) << "no zone";
    mdc_free(nth.p.endRecurDate);
    nth.p.endRecurDate = nullptr;
    EXPECT_TRUE(nth.build().empty()) << "a missing end date is not taken for no end";
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
