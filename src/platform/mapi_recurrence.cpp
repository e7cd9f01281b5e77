#include <cstring>
#include <optional>
#include <string>

#include "tnef/platform/mapi_blob.h"
#include "tnef/platform/mapi_calendar.h"
#include "tnef/platform/mapi_date.h"
#include "tnef/platform/mapi_props.h"
#include "tnef/platform/os_file.h"

namespace {

constexpr int64_t kDays1601To1970 = 134774;
constexpr int64_t kMinutesPerDay = 1440;
constexpr int64_t kMinutesPerWeek = 10080;
constexpr uint64_t kTicksPerMinute = 600000000ULL;
// Latest day a pattern may name: 4500-12-31, the published "no end" date.
constexpr int64_t kLastYear = 4500;
// Published markers of a series without end.
constexpr uint32_t kNoEndDate = 0x5AE980DF;  // 4500-12-31 23:59 in minutes
constexpr uint32_t kNoEndOccurrences = 10;
constexpr int64_t kNoEndClipYear = 4500;      // clip end 4500-08-31 23:59 UTC

// Fields of the pattern.
constexpr uint16_t kRecurVersion = 0x3004;
constexpr uint32_t kReaderVersion2 = 0x3006;
constexpr uint32_t kWriterVersion2 = 0x3008;
constexpr uint32_t kEndAfterDate = 0x2021;
constexpr uint32_t kEndNever = 0x2023;
constexpr uint32_t kFirstDowSunday = 0;

enum class Kind { Daily, Weekly, Monthly, Yearly };

struct Pattern {
    Kind kind;
    uint16_t frequency;    // 0x200A daily to 0x200D yearly
    uint16_t patternType;  // 0 day, 1 week, 2 month
    uint32_t period;       // minutes (daily), weeks, or months
    uint32_t interval;     // in days, weeks, months or years
    uint32_t weekMask;     // weekly: bit 0 Sunday
    unsigned day;          // monthly, yearly: day of the month
    unsigned month;        // yearly: 1 to 12
    uint32_t recurType;
};

// ---- Reading the value texts ----------------------------------------------------------------

// A hexadecimal value text: one to eight digits and nothing else, or none.
std::optional<uint32_t> hexValue(const char* text) {
    if (text == nullptr) return std::nullopt;
    const size_t n = std::strlen(text);
    if (n == 0 || n > 8) return std::nullopt;
    uint32_t v = 0;
    for (size_t i = 0; i < n; ++i) {
        const char c = text[i];
        int d = -1;
        if (c >= '0' && c <= '9') d = c - '0';
        else if (c >= 'a' && c <= 'f') d = c - 'a' + 10;
        else if (c >= 'A' && c <= 'F') d = c - 'A' + 10;
        if (d < 0) return std::nullopt;
        v = v << 4 | static_cast<uint32_t>(d);
    }
    return v;
}

// A PT_SYSTIME value text as whole minutes since 1601 (seconds dropped), or none.
std::optional<int64_t> systimeMinutes(const char* text) {
    if (text == nullptr) return std::nullopt;
    dstring bytes;
    mapi_BlobDecodeToDstring(text, std::strlen(text), &bytes);
    if (bytes.text.size() != 8) return std::nullopt;
    uint64_t ticks = 0;
    for (int i = 7; i >= 0; --i)
        ticks = ticks << 8 | static_cast<uint8_t>(bytes.text[static_cast<size_t>(i)]);
    return static_cast<int64_t>(ticks / kTicksPerMinute);
}

bool isLeap(int64_t y) { return (y % 4 == 0 && y % 100 != 0) || y % 400 == 0; }

unsigned daysInMonth(int64_t y, unsigned m) {
    static constexpr unsigned kDays[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    return m == 2 && isLeap(y) ? 29 : kDays[m - 1];
}

int64_t dayNumber(int64_t y, unsigned m, unsigned d) {
    return mapi_DaysFromCivil(y, m, d) + kDays1601To1970;
}

struct Civil {
    int64_t year;
    unsigned month;
    unsigned day;
};

Civil civilOf(int64_t dayNum) {
    Civil c{};
    mapi_CivilFromDays(dayNum - kDays1601To1970, &c.year, &c.month, &c.day);
    return c;
}

int64_t floorDiv(int64_t a, int64_t b) { return a / b - ((a % b != 0) && ((a < 0) != (b < 0))); }

// 0 Sunday; 1601-01-01 (day 0) was a Monday.
unsigned dayOfWeek(int64_t dayNum) { return static_cast<unsigned>((dayNum % 7 + 8) % 7); }

// A packed legacy date (year * 512 + month * 32 + day) as a day number, or none.
std::optional<int64_t> packedDate(uint32_t v, bool allowLater) {
    const int64_t y = v >> 9;
    const unsigned m = (v >> 5) & 0x0F;
    const unsigned d = v & 0x1F;
    if (y < 1601 || m < 1 || m > 12 || d < 1 || d > daysInMonth(y, m)) return std::nullopt;
    if (y > kLastYear && !allowLater) return std::nullopt;
    return dayNumber(y, m, d);
}

// A packed legacy time (hour * 4096 + minute * 64 + second) as minutes of the day, or none.
std::optional<int64_t> packedTime(uint32_t v) {
    const uint32_t h = v >> 12;
    const uint32_t m = (v >> 6) & 0x3F;
    const uint32_t s = v & 0x3F;
    if (h > 23 || m > 59 || s > 59) return std::nullopt;
    return int64_t{h} * 60 + m;
}

int singleBit(uint32_t mask, int bits) {
    if (mask == 0 || (mask & (mask - 1)) != 0) return -1;
    for (int i = 0; i < bits; ++i)
        if (mask == (1u << i)) return i;
    return -1;
}

// ---- The pattern ----------------------------------------------------------------------------

// Exactly one interval names the kind; the masks that kind needs must name it whole. A day
// of week mask beside a month or year interval would mean "the nth weekday", whose week the
// legacy values do not carry, so that is no pattern either.
std::optional<Pattern> patternOf(const WM_RECURRENCE_PROPS* p) {
    const uint32_t days = hexValue(p->dayInterval).value_or(0);
    const uint32_t weeks = hexValue(p->weekInterval).value_or(0);
    const uint32_t months = hexValue(p->monthInterval).value_or(0);
    const uint32_t years = hexValue(p->yearInterval).value_or(0);
    if ((days != 0) + (weeks != 0) + (months != 0) + (years != 0) != 1) return std::nullopt;
    const uint32_t dow = hexValue(p->dayOfWeekMask).value_or(0);
    const uint32_t dom = hexValue(p->dayOfMonthMask).value_or(0);
    const uint32_t moy = hexValue(p->monthOfYearMask).value_or(0);

    Pattern pat{};
    if (days != 0) {
        if (days > 999 || (dow != 0 && dow != 0x7F)) return std::nullopt;
        pat = {Kind::Daily, 0x200A, 0, days * static_cast<uint32_t>(kMinutesPerDay), days, 0, 0,
               0, MAPI_RECURTYPE_DAILY};
    } else if (weeks != 0) {
        if (weeks > 99 || dow == 0 || dow > 0x7F) return std::nullopt;
        pat = {Kind::Weekly, 0x200B, 1, weeks, weeks, dow, 0, 0, MAPI_RECURTYPE_WEEKLY};
    } else if (months != 0) {
        const int day = singleBit(dom, 31);
        if (months > 99 || dow != 0 || day < 0) return std::nullopt;
        pat = {Kind::Monthly, 0x200C, 2, months, months, 0, static_cast<unsigned>(day + 1), 0,
               MAPI_RECURTYPE_MONTHLY};
    } else {
        const int day = singleBit(dom, 31);
        const int month = singleBit(moy, 12);
        if (years > 99 || dow != 0 || day < 0 || month < 0) return std::nullopt;
        // Day 31 of a 30-day month never comes; 29 February does, in leap years.
        if (static_cast<unsigned>(day + 1) > daysInMonth(2000, static_cast<unsigned>(month + 1)))
            return std::nullopt;
        pat = {Kind::Yearly, 0x200D, 2, years * 12, years, 0, static_cast<unsigned>(day + 1),
               static_cast<unsigned>(month + 1), MAPI_RECURTYPE_YEARLY};
    }
    return pat;
}

// The instance of a month pattern in the month with index monthIndex (year * 12 + month - 1),
// the day clamped to the month's end as readers of the pattern do.
int64_t dayInMonth(int64_t monthIndex, unsigned day) {
    const int64_t y = floorDiv(monthIndex, 12);
    const auto m = static_cast<unsigned>(monthIndex - y * 12 + 1);
    const unsigned dim = daysInMonth(y, m);
    return dayNumber(y, m, day < dim ? day : dim);
}

int64_t monthIndexOf(int64_t dayNum) {
    const Civil c = civilOf(dayNum);
    return c.year * 12 + c.month - 1;
}

int64_t weekStart(int64_t dayNum) {
    return dayNum - static_cast<int64_t>((dayOfWeek(dayNum) + 7 - kFirstDowSunday) % 7);
}

// The instances of a pattern from its first one on: first() gives the first instance on or
// after the range start, then next() steps through them in order.
class Instances {
public:
    Instances(const Pattern& pat, int64_t rangeStart) : pat_(pat) {
        switch (pat.kind) {
            case Kind::Daily:
                current_ = rangeStart;
                break;
            case Kind::Weekly:
                current_ = rangeStart;
                while ((pat.weekMask & (1u << dayOfWeek(current_))) == 0) ++current_;
                anchorWeek_ = weekStart(current_);
                break;
            case Kind::Monthly:
                month_ = monthIndexOf(rangeStart);
                if (dayInMonth(month_, pat.day) < rangeStart) ++month_;
                current_ = dayInMonth(month_, pat.day);
                break;
            case Kind::Yearly: {
                month_ = civilOf(rangeStart).year * 12 + pat.month - 1;
                if (dayInMonth(month_, pat.day) < rangeStart) month_ += 12;
                current_ = dayInMonth(month_, pat.day);
                break;
            }
        }
    }

    int64_t day() const { return current_; }

    void next() {
        switch (pat_.kind) {
            case Kind::Daily:
                current_ += pat_.interval;
                break;
            case Kind::Weekly:
                // The rest of this week, then the first day of the next week of the pattern.
                for (;;) {
                    ++current_;
                    if (current_ - anchorWeek_ >= 7) {
                        anchorWeek_ += 7 * static_cast<int64_t>(pat_.interval);
                        current_ = anchorWeek_;
                    }
                    if ((pat_.weekMask & (1u << dayOfWeek(current_))) != 0) break;
                }
                break;
            case Kind::Monthly:
                month_ += pat_.interval;
                current_ = dayInMonth(month_, pat_.day);
                break;
            case Kind::Yearly:
                month_ += 12 * static_cast<int64_t>(pat_.interval);
                current_ = dayInMonth(month_, pat_.day);
                break;
        }
    }

private:
    Pattern pat_;
    int64_t current_ = 0;
    int64_t anchorWeek_ = 0;
    int64_t month_ = 0;
};

// Minutes from 1601-01-01 to the first day, week or month of the series, reduced by the
// period, as readers of the pattern compute it.
uint32_t firstDateTime(const Pattern& pat, int64_t firstDay) {
    switch (pat.kind) {
        case Kind::Daily:
            return static_cast<uint32_t>(firstDay * kMinutesPerDay % pat.period);
        case Kind::Weekly:
            return static_cast<uint32_t>(weekStart(firstDay) * kMinutesPerDay %
                                         (static_cast<int64_t>(pat.period) * kMinutesPerWeek));
        default: {
            const int64_t months = (monthIndexOf(firstDay) - 1601 * 12) % pat.period;
            return static_cast<uint32_t>(dayInMonth(1601 * 12 + months, 1) * kMinutesPerDay);
        }
    }
}

// ---- Writing ----------------------------------------------------------------------------------

void putU16(std::string& out, uint32_t v) {
    out.push_back(static_cast<char>(v & 0xFF));
    out.push_back(static_cast<char>((v >> 8) & 0xFF));
}

void putU32(std::string& out, uint32_t v) {
    putU16(out, v & 0xFFFF);
    putU16(out, v >> 16);
}

char* valueText(const std::string& bytes) {
    dstring text;
    mapi_BlobEncodeToDstring(bytes.data(), bytes.size(), &text);
    return mapi_DupText(text.text.data(), text.text.size());
}

char* systimeText(int64_t minutes) {
    std::string bytes;
    const uint64_t ticks = static_cast<uint64_t>(minutes) * kTicksPerMinute;
    putU32(bytes, static_cast<uint32_t>(ticks));
    putU32(bytes, static_cast<uint32_t>(ticks >> 32));
    return valueText(bytes);
}

struct Range {
    int64_t firstDay;
    bool noEnd;
    int64_t lastDay;  // when it ends
    uint32_t count;
};

// The range from the first instance on or after startDay to the last one on or before
// endDay. None when no instance falls in it.
std::optional<Range> rangeOf(const Pattern& pat, int64_t startDay, std::optional<int64_t> endDay) {
    const int64_t lastAllowed = dayNumber(kLastYear, 12, 31);
    Instances it(pat, startDay);
    Range r{it.day(), !endDay.has_value(), 0, 0};
    if (r.firstDay > lastAllowed) return std::nullopt;
    if (r.noEnd) return r;
    if (r.firstDay > *endDay) return std::nullopt;
    for (; it.day() <= *endDay; it.next()) {
        r.lastDay = it.day();
        ++r.count;
    }
    return r;
}

struct TimeOfDay {
    int64_t startOffset;  // minutes after local midnight
    int64_t duration;
};

std::optional<TimeOfDay> timeOfDay(const WM_RECURRENCE_PROPS* p, const MAPI_TIMEZONE& tz) {
    const std::optional<int64_t> start = systimeMinutes(p->startDate);
    const std::optional<int64_t> end = systimeMinutes(p->endDate);
    std::optional<int64_t> offset;
    if (auto t = hexValue(p->startRecurTime)) offset = packedTime(*t);
    else if (start) {
        const int64_t local = mapi_UtcToLocalMinutes(&tz, *start);
        offset = local - floorDiv(local, kMinutesPerDay) * kMinutesPerDay;
    }
    if (!offset) return std::nullopt;

    std::optional<int64_t> duration;
    if (start && end && *end >= *start) {
        duration = *end - *start;
    } else if (auto t = hexValue(p->endRecurTime)) {
        if (auto e = packedTime(*t)) duration = (*e - *offset + kMinutesPerDay) % kMinutesPerDay;
    }
    if (!duration) return std::nullopt;

    if (hexValue(p->allDay).value_or(0) != 0) {
        // An all-day event runs from midnight over whole days.
        offset = 0;
        duration = *duration <= kMinutesPerDay
                       ? kMinutesPerDay
                       : (*duration + kMinutesPerDay - 1) / kMinutesPerDay * kMinutesPerDay;
    }
    if (*duration > 0xFFFFFFFFLL - *offset) return std::nullopt;
    return TimeOfDay{*offset, *duration};
}

void clearWorkedOut(WM_RECURRENCE_PROPS* props) {
    props->recurrenceType = MAPI_RECURTYPE_NONE;
    mdc_free(props->clipStart);
    mdc_free(props->clipEnd);
    props->clipStart = nullptr;
    props->clipEnd = nullptr;
}

}  // namespace

void mapi_init_WM_RECURRENCE_PROPS(WM_RECURRENCE_PROPS* props) { *props = WM_RECURRENCE_PROPS{}; }

void mapi_free_WM_RECURRENCE_PROPS(WM_RECURRENCE_PROPS* props) {
    char* texts[] = {props->startDate,      props->endDate,         props->startRecurDate,
                     props->startRecurTime, props->endRecurDate,    props->endRecurTime,
                     props->dayInterval,    props->weekInterval,    props->monthInterval,
                     props->yearInterval,   props->dayOfWeekMask,   props->dayOfMonthMask,
                     props->monthOfYearMask, props->allDay,         props->clipStart,
                     props->clipEnd};
    for (char* t : texts) mdc_free(t);
    *props = WM_RECURRENCE_PROPS{};
}

char* mapi_PropFromWmRecurrenceProps(WM_RECURRENCE_PROPS* props, const uint8_t* tzData) {
    clearWorkedOut(props);
    MAPI_TIMEZONE tz{};
    if (tzData == nullptr || !mapi_TimezoneFromRaw(tzData, MAPI_TIMEZONE_DATA_SIZE, &tz))
        return nullptr;
    const std::optional<Pattern> pat = patternOf(props);
    if (!pat) return nullptr;

    // The range starts on the legacy start date, else on the local day of the first start.
    std::optional<int64_t> startDay;
    if (auto v = hexValue(props->startRecurDate)) startDay = packedDate(*v, false);
    else if (auto s = systimeMinutes(props->startDate))
        startDay = floorDiv(mapi_UtcToLocalMinutes(&tz, *s), kMinutesPerDay);
    if (!startDay || *startDay < 0) return nullptr;

    // An end year past 4500 is how a series without end is written; a missing end is not.
    const std::optional<uint32_t> endValue = hexValue(props->endRecurDate);
    if (!endValue) return nullptr;
    const std::optional<int64_t> endDay = packedDate(*endValue, true);
    if (!endDay) return nullptr;
    const bool noEnd = civilOf(*endDay).year >= kLastYear;

    const std::optional<TimeOfDay> tod = timeOfDay(props, tz);
    if (!tod) return nullptr;
    const std::optional<Range> range =
        rangeOf(*pat, *startDay, noEnd ? std::nullopt : endDay);
    if (!range) return nullptr;

    std::string b;
    putU16(b, kRecurVersion);
    putU16(b, kRecurVersion);
    putU16(b, pat->frequency);
    putU16(b, pat->patternType);
    putU16(b, 0);  // Gregorian calendar
    putU32(b, firstDateTime(*pat, range->firstDay));
    putU32(b, pat->period);
    putU32(b, 0);  // sliding flag
    if (pat->kind == Kind::Weekly) putU32(b, pat->weekMask);
    if (pat->kind == Kind::Monthly || pat->kind == Kind::Yearly) putU32(b, pat->day);
    putU32(b, range->noEnd ? kEndNever : kEndAfterDate);
    putU32(b, range->noEnd ? kNoEndOccurrences : range->count);
    putU32(b, kFirstDowSunday);
    putU32(b, 0);  // deleted instances
    putU32(b, 0);  // modified instances
    putU32(b, static_cast<uint32_t>(range->firstDay * kMinutesPerDay));
    putU32(b, range->noEnd ? kNoEndDate : static_cast<uint32_t>(range->lastDay * kMinutesPerDay));
    putU32(b, kReaderVersion2);
    putU32(b, kWriterVersion2);
    putU32(b, static_cast<uint32_t>(tod->startOffset));
    putU32(b, static_cast<uint32_t>(tod->startOffset + tod->duration));
    putU16(b, 0);  // exceptions
    putU32(b, 0);  // reserved block 1
    putU32(b, 0);  // reserved block 2

    char* pattern = valueText(b);
    props->recurrenceType = pat->recurType;
    // Clip times: local midnight of the first and the last instance, kept in UTC.
    props->clipStart =
        systimeText(mapi_LocalToUtcMinutes(&tz, range->firstDay * kMinutesPerDay));
    props->clipEnd = range->noEnd
                         ? systimeText(dayNumber(kNoEndClipYear, 8, 31) * kMinutesPerDay +
                                       kMinutesPerDay - 1)
                         : systimeText(mapi_LocalToUtcMinutes(&tz, range->lastDay * kMinutesPerDay));
    return pattern;
}

char* mapi_RecurrenceBaseFromWmRecurrenceProps(const WM_RECURRENCE_PROPS* props,
                                               const uint8_t* tzData,
                                               const MAPI_GLOBAL_OBJECT_ID* goid) {
    MAPI_TIMEZONE tz{};
    if (goid == nullptr || tzData == nullptr ||
        !mapi_TimezoneFromRaw(tzData, MAPI_TIMEZONE_DATA_SIZE, &tz))
        return nullptr;
    if (goid->year < 1601 || goid->year > kLastYear || goid->month < 1 || goid->month > 12 ||
        goid->day < 1 || goid->day > daysInMonth(goid->year, goid->month))
        return nullptr;
    const std::optional<uint32_t> t = hexValue(props->startRecurTime);
    const std::optional<int64_t> offset = t ? packedTime(*t) : std::nullopt;
    if (!offset) return nullptr;

    // The identifier's instance date is the UTC date of the original start; the series' start
    // time is local, so the local day is the one whose start falls on that UTC date.
    const int64_t utcDay = dayNumber(goid->year, goid->month, goid->day);
    for (int64_t localDay = utcDay - 1; localDay <= utcDay + 1; ++localDay) {
        const int64_t utc = mapi_LocalToUtcMinutes(&tz, localDay * kMinutesPerDay + *offset);
        if (floorDiv(utc, kMinutesPerDay) == utcDay) return systimeText(utc);
    }
    return nullptr;
}
