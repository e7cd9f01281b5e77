// The calendar structures held in binary values: time zone definitions, the appointment
// recurrence pattern with its exceptions, and the global object identifier as a UID. Every
// read goes through a bounded cursor, so no count or length can lead outside the value.
#include <algorithm>
#include <cstring>
#include <string>

#include "convert_internal.h"

namespace tnefconv {

namespace {

class Cursor {
  public:
    explicit Cursor(std::string_view bytes) : bytes_(bytes) {}

    bool u16(uint16_t* v) {
        if (left() < 2) return fail();
        *v = static_cast<uint16_t>(at(0) | at(1) << 8);
        pos_ += 2;
        return true;
    }
    bool u32(uint32_t* v) {
        if (left() < 4) return fail();
        *v = uint32_t{at(0)} | uint32_t{at(1)} << 8 | uint32_t{at(2)} << 16 | uint32_t{at(3)} << 24;
        pos_ += 4;
        return true;
    }
    bool i32(int32_t* v) {
        uint32_t u = 0;
        if (!u32(&u)) return false;
        *v = static_cast<int32_t>(u);
        return true;
    }
    bool take(size_t n, std::string_view* out) {
        if (left() < n) return fail();
        *out = bytes_.substr(pos_, n);
        pos_ += n;
        return true;
    }
    bool skip(size_t n) {
        std::string_view ignored;
        return take(n, &ignored);
    }
    // A 32-bit count of 32-bit values, none of which may lie beyond the bytes.
    bool u32Array(std::vector<uint32_t>* out) {
        uint32_t n = 0;
        if (!u32(&n) || n > left() / 4) return fail();
        out->resize(n);
        for (uint32_t& v : *out) u32(&v);
        return true;
    }
    // A block announced by its 32-bit size, stepped over.
    bool sizedBlock() {
        uint32_t n = 0;
        return u32(&n) && skip(n);
    }
    size_t left() const { return bytes_.size() - pos_; }

  private:
    unsigned at(size_t i) const { return static_cast<uint8_t>(bytes_[pos_ + i]); }
    bool fail() {
        pos_ = bytes_.size();
        return false;
    }
    std::string_view bytes_;
    size_t pos_ = 0;
};

bool systemTime(Cursor& c, MAPI_SYSTEMTIME* st) {
    uint16_t* fields[] = {&st->year, &st->month,  &st->dayOfWeek, &st->day,
                          &st->hour, &st->minute, &st->second,    &st->milliseconds};
    for (uint16_t* f : fields)
        if (!c.u16(f)) return false;
    return true;
}

bool usableTransition(const MAPI_SYSTEMTIME& st) {
    // Relative form only: an absolute date stands for one year, not a rule.
    return st.year == 0 && st.month >= 1 && st.month <= 12 && st.dayOfWeek <= 6 && st.day >= 1 &&
           st.day <= 5 && st.hour <= 23 && st.minute <= 59 && st.second <= 59;
}

// Offsets beyond a day are no zone on Earth, and iCalendar cannot write them.
bool usableOffset(int64_t minutes) {
    return minutes > -24 * 60 && minutes < 24 * 60;
}

constexpr uint8_t kTzDefinitionMajor = 2;
constexpr uint16_t kTzRuleSize = 66;
constexpr uint16_t kRulesLimit = 1024;

// "vCal-Uid", version 1: a UID from a non-MAPI client, kept inside the identifier.
constexpr char kVcalUid[] = "vCal-Uid\x01\x00\x00\x00";
constexpr size_t kVcalUidSize = sizeof kVcalUid - 1;

constexpr uint16_t kRecurVersion = 0x3004;

bool patternSpecific(Cursor& c, Recurrence* r) {
    switch (r->patternType) {
        case 0:  // day
            return true;
        case 1:  // week
            return c.u32(&r->weekMask);
        case 2:  // month
        case 4:  // month end
        case 0xA:
        case 0xC:
            return c.u32(&r->dayOfMonth);
        case 3:  // nth weekday
        case 0xB:
            return c.u32(&r->weekMask) && c.u32(&r->nth);
        default:
            return false;
    }
}

// An 8-bit text announced twice (the two lengths must agree).
bool ansiText(Cursor& c, const char* charset, std::string* out) {
    uint16_t n = 0;
    uint16_t n2 = 0;
    std::string_view bytes;
    if (!c.u16(&n) || !c.u16(&n2) || n2 + 1 != n || !c.take(n2, &bytes)) return false;
    *out = toUtf8(bytes, charset);
    return true;
}

bool wideText(Cursor& c, std::string* out) {
    uint16_t chars = 0;
    std::string_view bytes;
    if (!c.u16(&chars) || !c.take(size_t{chars} * 2, &bytes)) return false;
    *out = toUtf8(bytes, "UTF-16LE");
    return true;
}

bool exceptionInfo(Cursor& c, const char* charset, RecurException* e) {
    uint32_t ignored = 0;
    if (!c.u32(&e->start) || !c.u32(&e->end) || !c.u32(&e->originalStart) || !c.u16(&e->overrides))
        return false;
    const uint16_t f = e->overrides;
    return (!(f & ARO_SUBJECT) || ansiText(c, charset, &e->subject)) &&
           (!(f & ARO_MEETINGTYPE) || c.u32(&ignored)) &&
           (!(f & ARO_REMINDERDELTA) || c.u32(&e->reminderDelta)) &&
           (!(f & ARO_REMINDER) || c.u32(&e->reminderSet)) &&
           (!(f & ARO_LOCATION) || ansiText(c, charset, &e->location)) &&
           (!(f & ARO_BUSYSTATUS) || c.u32(&e->busyStatus)) &&
           (!(f & ARO_ATTACHMENT) || c.u32(&ignored)) &&
           (!(f & ARO_SUBTYPE) || c.u32(&e->subType)) && (!(f & ARO_APPTCOLOR) || c.u32(&ignored));
}

// The extended form of an exception: its texts in UTF-16, which replace the 8-bit ones.
bool extendedException(Cursor& c, uint32_t writerVersion2, RecurException* e) {
    constexpr uint32_t kChangeHighlightVersion = 0x3009;
    if (writerVersion2 >= kChangeHighlightVersion && !c.sizedBlock()) return false;
    if (!c.sizedBlock()) return false;
    if ((e->overrides & (ARO_SUBJECT | ARO_LOCATION)) == 0) return true;
    uint32_t times[3];
    if (!c.u32(&times[0]) || !c.u32(&times[1]) || !c.u32(&times[2])) return false;
    if ((e->overrides & ARO_SUBJECT) && !wideText(c, &e->subject)) return false;
    if ((e->overrides & ARO_LOCATION) && !wideText(c, &e->location)) return false;
    return c.sizedBlock();
}

// The exceptions, then their extended forms; as many as the bytes hold.
void readExceptions(Cursor& c, uint16_t count, uint32_t writer2, const char* charset,
                    Recurrence* r) {
    for (uint16_t i = 0; i < count; ++i) {
        RecurException e;
        if (!exceptionInfo(c, charset, &e)) {
            r->exceptionsCut = true;
            return;
        }
        r->exceptions.push_back(e);
    }
    if (!c.sizedBlock()) return;
    for (RecurException& e : r->exceptions) {
        // The 8-bit texts already read stand when the extended ones are missing.
        RecurException extended = e;
        if (!extendedException(c, writer2, &extended)) return;
        e = extended;
    }
}

// Each exception replaces one of the modified instances, and there are as many of each: an
// exception that names no modified instance, or ends before it starts, is damage read as
// data, and is left out.
void dropStrayExceptions(Recurrence* r) {
    constexpr uint32_t kMinutesPerDay = 1440;
    if (r->exceptions.size() != r->modified.size()) r->exceptionsCut = true;
    std::vector<RecurException> kept;
    for (const RecurException& e : r->exceptions) {
        const uint32_t day = e.originalStart - e.originalStart % kMinutesPerDay;
        const bool named =
            std::find(r->modified.begin(), r->modified.end(), day) != r->modified.end();
        if (named && e.start <= e.end)
            kept.push_back(e);
        else
            r->exceptionsCut = true;
    }
    r->exceptions = std::move(kept);
}

}  // namespace

bool keepsDaylight(const MAPI_TIMEZONE& tz) {
    return tz.standardDate.month != 0 && tz.daylightDate.month != 0;
}

bool usableZone(const MAPI_TIMEZONE& tz) {
    if (!usableOffset(-int64_t{tz.bias} - tz.standardBias)) return false;
    if (tz.standardDate.month == 0 && tz.daylightDate.month == 0) return true;
    return usableTransition(tz.standardDate) && usableTransition(tz.daylightDate) &&
           usableOffset(-int64_t{tz.bias} - tz.daylightBias) &&
           !(tz.standardDate.month == tz.daylightDate.month &&
             tz.standardDate.day == tz.daylightDate.day);
}

bool parseTzDefinition(std::string_view bytes, TzDefinition* out) {
    Cursor c(bytes);
    std::string_view version;
    uint16_t headerSize = 0;
    uint16_t ignored = 0;
    uint16_t keyChars = 0;
    if (!c.take(2, &version) || static_cast<uint8_t>(version[0]) != kTzDefinitionMajor ||
        !c.u16(&headerSize) || !c.u16(&ignored) || !c.u16(&keyChars))
        return false;
    std::string_view key;
    uint16_t rules = 0;
    if (!c.take(size_t{keyChars} * 2, &key) || !c.u16(&rules) || rules == 0 || rules > kRulesLimit)
        return false;
    // Fields a later version adds to the header are stepped over.
    const size_t known = 6 + size_t{keyChars} * 2;
    if (headerSize > known && !c.skip(headerSize - known)) return false;
    out->keyName = toUtf8(key, "UTF-16LE");
    out->rules.clear();
    for (uint16_t i = 0; i < rules; ++i) {
        std::string_view rule;
        if (!c.take(kTzRuleSize, &rule)) return false;
        Cursor r(rule);
        TzRule tr;
        uint16_t flags = 0;
        if (!r.skip(4) || !r.u16(&flags) || !r.u16(&tr.year) || !r.skip(14) ||
            !r.i32(&tr.tz.bias) || !r.i32(&tr.tz.standardBias) || !r.i32(&tr.tz.daylightBias) ||
            !systemTime(r, &tr.tz.standardDate) || !systemTime(r, &tr.tz.daylightDate))
            return false;
        if (!out->rules.empty() && tr.year <= out->rules.back().year) return false;
        out->rules.push_back(tr);
    }
    return true;
}

bool parseRecurrence(std::string_view bytes, const char* charset, Recurrence* out) {
    Cursor c(bytes);
    Recurrence& r = *out;
    uint16_t reader = 0;
    uint16_t writer = 0;
    uint32_t firstDateTime = 0;
    uint32_t sliding = 0;
    if (!c.u16(&reader) || !c.u16(&writer) || reader != kRecurVersion || writer != kRecurVersion ||
        !c.u16(&r.frequency) || !c.u16(&r.patternType) || !c.u16(&r.calendarType) ||
        !c.u32(&firstDateTime) || !c.u32(&r.period) || !c.u32(&sliding) ||
        !patternSpecific(c, &r) || !c.u32(&r.endType) || !c.u32(&r.occurrences) ||
        !c.u32(&r.firstDow) || !c.u32Array(&r.deleted) || !c.u32Array(&r.modified) ||
        !c.u32(&r.startDate) || !c.u32(&r.endDate))
        return false;

    // What follows belongs to appointments: the time of day and the exceptions.
    uint32_t reader2 = 0;
    uint32_t writer2 = 0;
    uint16_t count = 0;
    // Each instance starts within its day and ends after it starts.
    if (!c.u32(&reader2) || !c.u32(&writer2) || !c.u32(&r.startOffset) || !c.u32(&r.endOffset) ||
        !c.u16(&count) || r.startOffset >= 1440 || r.endOffset < r.startOffset)
        return false;
    r.exceptions.clear();
    readExceptions(c, count, writer2, charset, &r);
    dropStrayExceptions(&r);
    return true;
}

std::string uidOfGlobalObjectId(std::string_view bytes) {
    MAPI_GLOBAL_OBJECT_ID id;
    mapi_init_MAPI_GLOBAL_OBJECT_ID(&id);
    std::string uid;
    if (mapi_raw_GlobalObjectIdToStruc(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size(),
                                       &id)) {
        const std::string_view data(reinterpret_cast<const char*>(id.data), id.dataSize);
        if (data.size() > kVcalUidSize &&
            data.substr(0, kVcalUidSize) == std::string_view(kVcalUid, kVcalUidSize)) {
            uid = std::string(data.substr(kVcalUidSize));
            uid.resize(std::strlen(uid.c_str()));  // up to its NUL
        }
        if (uid.empty()) {
            // The instance date cleared: every instance of a series shares the UID.
            id.year = 0;
            id.month = 0;
            id.day = 0;
            dstring clean;
            mapi_raw_GlobalObjectIdFromStruc(&id, &clean);
            static constexpr char kHex[] = "0123456789ABCDEF";
            for (const char ch : clean.text) {
                uid.push_back(kHex[static_cast<uint8_t>(ch) >> 4]);
                uid.push_back(kHex[static_cast<uint8_t>(ch) & 0x0F]);
            }
        }
    }
    mapi_free_MAPI_GLOBAL_OBJECT_ID(&id);
    return cleanText(uid);
}

}  // namespace tnefconv
