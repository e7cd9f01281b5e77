#include <cstring>

#include "tnef/platform/mapi_calendar.h"
#include "tnef/platform/mapi_date.h"

namespace {

// Days from 1601-01-01 to 1970-01-01.
constexpr int64_t kDays1601To1970 = 134774;
constexpr int64_t kMinutesPerDay = 1440;
// Bit 31 of a legacy number: the zone keeps standard time all year.
constexpr uint32_t kNoDaylightFlag = 0x80000000u;

// Transition rules, as the structure stores them (relative form: month, day of week, week of
// the month with 5 the last, hour).
struct Rule {
    MAPI_SYSTEMTIME standardDate;
    MAPI_SYSTEMTIME daylightDate;
};
constexpr Rule kNoDst = {};
// United States and Canada since 2007: second Sunday of March to first Sunday of November,
// both at 02:00 local.
constexpr Rule kNorthAmerica = {{0, 11, 0, 1, 2, 0, 0, 0}, {0, 3, 0, 2, 2, 0, 0, 0}};
// European Union: last Sunday of March to last Sunday of October, both at 01:00 UTC, which
// is a different local hour in each zone.
constexpr Rule kEuWestern = {{0, 10, 0, 5, 2, 0, 0, 0}, {0, 3, 0, 5, 1, 0, 0, 0}};
constexpr Rule kEuCentral = {{0, 10, 0, 5, 3, 0, 0, 0}, {0, 3, 0, 5, 2, 0, 0, 0}};
constexpr Rule kEuAzores = {{0, 10, 0, 5, 1, 0, 0, 0}, {0, 3, 0, 5, 0, 0, 0, 0}};
// South-eastern Australia since 2008: first Sunday of October to first Sunday of April.
constexpr Rule kAustralia = {{0, 4, 0, 1, 3, 0, 0, 0}, {0, 10, 0, 1, 2, 0, 0, 0}};
// New Zealand since 2007: last Sunday of September to first Sunday of April.
constexpr Rule kNewZealand = {{0, 4, 0, 1, 3, 0, 0, 0}, {0, 9, 0, 5, 2, 0, 0, 0}};

struct LegacyZone {
    uint16_t number;
    int32_t bias;  // minutes, UTC = local + bias
    const Rule* rule;
    const char* name;
};

// The legacy numbers with the rules in force today (so Brasilia, Mexico City, Tehran and
// Moscow keep standard time all year). Numbers whose zone or rules are in doubt (2, 5, 7,
// Jerusalem's Friday rule, Cairo, Fiji, ...) are left out: better no structure than a
// wrong one.
constexpr LegacyZone kZones[] = {
    {1, 0, &kEuWestern, "(UTC) Dublin, Edinburgh, Lisbon, London"},
    {3, -60, &kEuCentral, "(UTC+01:00) Brussels, Copenhagen, Madrid, Paris"},
    {4, -60, &kEuCentral, "(UTC+01:00) Amsterdam, Berlin, Bern, Rome, Stockholm, Vienna"},
    {6, -60, &kEuCentral, "(UTC+01:00) Belgrade, Bratislava, Budapest, Ljubljana, Prague"},
    {8, 180, &kNoDst, "(UTC-03:00) Brasilia"},
    {9, 240, &kNorthAmerica, "(UTC-04:00) Atlantic Time (Canada)"},
    {10, 300, &kNorthAmerica, "(UTC-05:00) Eastern Time (US & Canada)"},
    {11, 360, &kNorthAmerica, "(UTC-06:00) Central Time (US & Canada)"},
    {12, 420, &kNorthAmerica, "(UTC-07:00) Mountain Time (US & Canada)"},
    {13, 480, &kNorthAmerica, "(UTC-08:00) Pacific Time (US & Canada)"},
    {14, 540, &kNorthAmerica, "(UTC-09:00) Alaska"},
    {15, 600, &kNoDst, "(UTC-10:00) Hawaii"},
    {16, 660, &kNoDst, "(UTC-11:00) Midway Island"},
    {17, -720, &kNewZealand, "(UTC+12:00) Auckland, Wellington"},
    {18, -600, &kNoDst, "(UTC+10:00) Brisbane"},
    {19, -570, &kAustralia, "(UTC+09:30) Adelaide"},
    {20, -540, &kNoDst, "(UTC+09:00) Osaka, Sapporo, Tokyo"},
    {21, -480, &kNoDst, "(UTC+08:00) Kuala Lumpur, Singapore"},
    {22, -420, &kNoDst, "(UTC+07:00) Bangkok, Hanoi, Jakarta"},
    {23, -330, &kNoDst, "(UTC+05:30) Chennai, Kolkata, Mumbai, New Delhi"},
    {24, -240, &kNoDst, "(UTC+04:00) Abu Dhabi, Muscat"},
    {25, -210, &kNoDst, "(UTC+03:30) Tehran"},
    {26, -180, &kNoDst, "(UTC+03:00) Baghdad"},
    {28, 210, &kNorthAmerica, "(UTC-03:30) Newfoundland"},
    {29, 60, &kEuAzores, "(UTC-01:00) Azores"},
    {31, 0, &kNoDst, "(UTC) Monrovia, Reykjavik"},
    {32, 180, &kNoDst, "(UTC-03:00) Buenos Aires"},
    {33, 240, &kNoDst, "(UTC-04:00) Caracas, La Paz"},
    {34, 300, &kNorthAmerica, "(UTC-05:00) Indiana (East)"},
    {35, 300, &kNoDst, "(UTC-05:00) Bogota, Lima, Quito"},
    {36, 360, &kNoDst, "(UTC-06:00) Saskatchewan"},
    {37, 360, &kNoDst, "(UTC-06:00) Guadalajara, Mexico City, Monterrey"},
    {38, 420, &kNoDst, "(UTC-07:00) Arizona"},
    {39, 720, &kNoDst, "(UTC-12:00) International Date Line West"},
    {42, -600, &kAustralia, "(UTC+10:00) Hobart"},
    {43, -600, &kNoDst, "(UTC+10:00) Guam, Port Moresby"},
    {44, -570, &kNoDst, "(UTC+09:30) Darwin"},
    {45, -480, &kNoDst, "(UTC+08:00) Beijing, Chongqing, Hong Kong, Urumqi"},
    {47, -300, &kNoDst, "(UTC+05:00) Islamabad, Karachi, Tashkent"},
    {48, -270, &kNoDst, "(UTC+04:30) Kabul"},
    {50, -120, &kNoDst, "(UTC+02:00) Harare, Pretoria"},
    {51, -180, &kNoDst, "(UTC+03:00) Moscow, St. Petersburg"},
    {53, 60, &kNoDst, "(UTC-01:00) Cape Verde Is."},
    {54, -240, &kNoDst, "(UTC+04:00) Baku, Tbilisi, Yerevan"},
    {55, 360, &kNoDst, "(UTC-06:00) Central America"},
    {56, -180, &kNoDst, "(UTC+03:00) Nairobi"},
    {57, -600, &kAustralia, "(UTC+10:00) Canberra, Melbourne, Sydney"},
    {58, -300, &kNoDst, "(UTC+05:00) Ekaterinburg"},
    {59, -345, &kNoDst, "(UTC+05:45) Kathmandu"},
};

const LegacyZone* findZone(uint32_t tzNum) {
    const uint32_t index = tzNum & 0xFFFF;
    for (const LegacyZone& z : kZones)
        if (z.number == index) return &z;
    return nullptr;
}

uint16_t getU16(const uint8_t* p) { return static_cast<uint16_t>(p[0] | p[1] << 8); }
int32_t getI32(const uint8_t* p) {
    return static_cast<int32_t>(uint32_t{p[0]} | uint32_t{p[1]} << 8 | uint32_t{p[2]} << 16 |
                                uint32_t{p[3]} << 24);
}
void putU16(uint8_t* p, uint16_t v) {
    p[0] = static_cast<uint8_t>(v);
    p[1] = static_cast<uint8_t>(v >> 8);
}
void putI32(uint8_t* p, int32_t v) {
    const auto u = static_cast<uint32_t>(v);
    for (int i = 0; i < 4; ++i) p[i] = static_cast<uint8_t>(u >> (8 * i));
}

void getSystemTime(const uint8_t* p, MAPI_SYSTEMTIME& st) {
    uint16_t* fields[] = {&st.year, &st.month, &st.dayOfWeek, &st.day,
                          &st.hour, &st.minute, &st.second, &st.milliseconds};
    for (int i = 0; i < 8; ++i) *fields[i] = getU16(p + 2 * i);
}

void putSystemTime(uint8_t* p, const MAPI_SYSTEMTIME& st) {
    const uint16_t fields[] = {st.year, st.month,  st.dayOfWeek, st.day,
                               st.hour, st.minute, st.second,    st.milliseconds};
    for (int i = 0; i < 8; ++i) putU16(p + 2 * i, fields[i]);
}

bool isLeap(int64_t y) { return (y % 4 == 0 && y % 100 != 0) || y % 400 == 0; }

unsigned daysInMonth(int64_t y, unsigned m) {
    static constexpr unsigned kDays[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    return m == 2 && isLeap(y) ? 29 : kDays[m - 1];
}

int64_t daysFrom1601(int64_t y, unsigned m, unsigned d) {
    return mapi_DaysFromCivil(y, m, d) + kDays1601To1970;
}

int64_t floorDiv(int64_t a, int64_t b) { return a / b - ((a % b != 0) && ((a < 0) != (b < 0))); }

int64_t yearOfMinutes(int64_t minutes) {
    int64_t y = 0;
    unsigned m = 0;
    unsigned d = 0;
    mapi_CivilFromDays(floorDiv(minutes, kMinutesPerDay) - kDays1601To1970, &y, &m, &d);
    return y;
}

// Local minutes of a transition in the given year; false when the structure names none.
bool transitionIn(const MAPI_SYSTEMTIME& st, int64_t year, int64_t& minutes) {
    if (st.month < 1 || st.month > 12 || st.hour > 23 || st.minute > 59) return false;
    unsigned day = st.day;
    if (st.year != 0) {
        if (st.year != year || day < 1 || day > daysInMonth(year, st.month)) return false;
    } else {
        if (st.dayOfWeek > 6 || day < 1 || day > 5) return false;
        const int64_t first = daysFrom1601(year, st.month, 1);
        // 1601-01-01 was a Monday.
        const auto firstDow = static_cast<unsigned>((first % 7 + 8) % 7);
        day = 1 + (st.dayOfWeek + 7 - firstDow) % 7 + (day - 1) * 7;
        while (day > daysInMonth(year, st.month)) day -= 7;
    }
    minutes = daysFrom1601(year, st.month, day) * kMinutesPerDay + st.hour * 60 + st.minute;
    return true;
}

// Whether t falls in daylight time, given both transitions on the same clock as t.
bool inDaylight(int64_t t, int64_t toDaylight, int64_t toStandard) {
    if (toDaylight < toStandard) return t >= toDaylight && t < toStandard;
    return t >= toDaylight || t < toStandard;  // southern hemisphere: daylight spans new year
}

}  // namespace

bool mapi_raw_timezone_data_from_tzNum(uint32_t tzNum, uint8_t* data) {
    const LegacyZone* zone = findZone(tzNum);
    if (zone == nullptr) return false;
    MAPI_TIMEZONE tz{};
    tz.bias = zone->bias;
    tz.standardBias = 0;
    if ((tzNum & kNoDaylightFlag) == 0 && zone->rule->daylightDate.month != 0) {
        tz.daylightBias = -60;
        tz.standardDate = zone->rule->standardDate;
        tz.daylightDate = zone->rule->daylightDate;
    }
    mapi_TimezoneToRaw(&tz, data);
    return true;
}

const char* mapi_tzNum_toIcalTZID(uint32_t tzNum) {
    const LegacyZone* zone = findZone(tzNum);
    return zone != nullptr ? zone->name : nullptr;
}

bool mapi_TimezoneFromRaw(const uint8_t* data, size_t length, MAPI_TIMEZONE* tz) {
    if (data == nullptr || length != MAPI_TIMEZONE_DATA_SIZE) return false;
    tz->bias = getI32(data);
    tz->standardBias = getI32(data + 4);
    tz->daylightBias = getI32(data + 8);
    tz->standardYear = getU16(data + 12);
    getSystemTime(data + 14, tz->standardDate);
    tz->daylightYear = getU16(data + 30);
    getSystemTime(data + 32, tz->daylightDate);
    return true;
}

void mapi_TimezoneToRaw(const MAPI_TIMEZONE* tz, uint8_t* data) {
    putI32(data, tz->bias);
    putI32(data + 4, tz->standardBias);
    putI32(data + 8, tz->daylightBias);
    putU16(data + 12, tz->standardYear);
    putSystemTime(data + 14, tz->standardDate);
    putU16(data + 30, tz->daylightYear);
    putSystemTime(data + 32, tz->daylightDate);
}

int64_t mapi_LocalToUtcMinutes(const MAPI_TIMEZONE* tz, int64_t local) {
    const int64_t year = yearOfMinutes(local);
    int64_t toStandard = 0;
    int64_t toDaylight = 0;
    // The change to daylight time is given on the standard clock and the change back on the
    // daylight clock, both local, so a local time compares with them as they stand.
    const bool dst = transitionIn(tz->standardDate, year, toStandard) &&
                     transitionIn(tz->daylightDate, year, toDaylight) &&
                     inDaylight(local, toDaylight, toStandard);
    return local + tz->bias + (dst ? tz->daylightBias : tz->standardBias);
}

int64_t mapi_UtcToLocalMinutes(const MAPI_TIMEZONE* tz, int64_t utc) {
    const int64_t year = yearOfMinutes(utc - tz->bias);
    int64_t toStandard = 0;
    int64_t toDaylight = 0;
    const bool dst = transitionIn(tz->standardDate, year, toStandard) &&
                     transitionIn(tz->daylightDate, year, toDaylight) &&
                     inDaylight(utc, toDaylight + tz->bias + tz->standardBias,
                                toStandard + tz->bias + tz->daylightBias);
    return utc - tz->bias - (dst ? tz->daylightBias : tz->standardBias);
}
