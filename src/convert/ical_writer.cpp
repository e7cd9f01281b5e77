// Meetings, appointments and tasks as iCalendar, built and written with libical: the event
// in the sender's own time zone with a VTIMEZONE of its rules, the series as RRULE with
// EXDATE and an event per changed instance, people by address.
#include <libical/ical.h>

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdio>
#include <memory>
#include <string>

#include "convert_internal.h"
#include "tnef/tnef_body.h"

namespace tnefconv {

namespace {

// ---- What the message class asks for -------------------------------------------------------

enum class Method { Request, Cancel, Reply, Publish };

struct ClassInfo {
    Method method;
    icalparameter_partstat replyStatus;  // for replies
};

bool startsWithClass(std::string_view cls, std::string_view prefix) {
    if (cls.size() < prefix.size()) return false;
    for (size_t i = 0; i < prefix.size(); ++i)
        if (std::tolower(static_cast<unsigned char>(cls[i])) !=
            std::tolower(static_cast<unsigned char>(prefix[i])))
            return false;
    return cls.size() == prefix.size() || cls[prefix.size()] == '.';
}

ClassInfo classInfo(std::string_view cls) {
    struct Row {
        const char* prefix;
        ClassInfo info;
    };
    static constexpr Row kRows[] = {
        {"IPM.Schedule.Meeting.Request", {Method::Request, ICAL_PARTSTAT_NONE}},
        {"IPM.Microsoft Schedule.MtgReq", {Method::Request, ICAL_PARTSTAT_NONE}},
        {"IPM.Schedule.Meeting.Canceled", {Method::Cancel, ICAL_PARTSTAT_NONE}},
        {"IPM.Microsoft Schedule.MtgCncl", {Method::Cancel, ICAL_PARTSTAT_NONE}},
        {"IPM.Schedule.Meeting.Resp.Pos", {Method::Reply, ICAL_PARTSTAT_ACCEPTED}},
        {"IPM.Microsoft Schedule.MtgRespP", {Method::Reply, ICAL_PARTSTAT_ACCEPTED}},
        {"IPM.Schedule.Meeting.Resp.Neg", {Method::Reply, ICAL_PARTSTAT_DECLINED}},
        {"IPM.Microsoft Schedule.MtgRespN", {Method::Reply, ICAL_PARTSTAT_DECLINED}},
        {"IPM.Schedule.Meeting.Resp.Tent", {Method::Reply, ICAL_PARTSTAT_TENTATIVE}},
        {"IPM.Microsoft Schedule.MtgRespA", {Method::Reply, ICAL_PARTSTAT_TENTATIVE}},
    };
    for (const Row& r : kRows)
        if (startsWithClass(cls, r.prefix)) return r.info;
    return {Method::Publish, ICAL_PARTSTAT_NONE};
}

// ---- Time zones -----------------------------------------------------------------------------

struct Zone {
    bool utc = true;  // no usable zone: times in UTC
    std::string tzid;
    MAPI_TIMEZONE tz{};
};

int64_t standardOffset(const MAPI_TIMEZONE& tz) {
    return -int64_t{tz.bias} - tz.standardBias;
}
int64_t daylightOffset(const MAPI_TIMEZONE& tz) {
    return -int64_t{tz.bias} - tz.daylightBias;
}

// The zone the item was made in, for the year of its start: the definition's rule in force
// then, else the 48-byte structure, else the legacy zone number.
Zone zoneOf(int fd, const Entries& props, bool recurring, int64_t startYear, uint32_t* flags) {
    Zone z;
    bool damaged = false;  // a zone was given that cannot be used
    const std::optional<std::string> description =
        textOf(findNamed(props, PidLidTimeZoneDescription));
    auto choose = [&](const MAPI_TIMEZONE& tz, const std::string& tzid) {
        if (!usableZone(tz)) return damaged = true, false;
        z.utc = false;
        z.tz = tz;
        z.tzid = paramText(tzid);
        if (z.tzid.empty()) z.tzid = "Custom";
        return true;
    };
    const TnefPropEntry* defs[] = {
        recurring ? findNamed(props, PidLidTimeZoneDefinitionRecur) : nullptr,
        findNamed(props, PidLidTimeZoneDefinitionStartDisplay)};
    for (const TnefPropEntry* e : defs) {
        const std::optional<std::string> bytes = bytesOf(fd, e, 1u << 20);
        TzDefinition def;
        if (!bytes) continue;
        if (!parseTzDefinition(*bytes, &def)) {
            damaged = true;
            continue;
        }
        const TzRule* rule = &def.rules.front();
        for (const TzRule& r : def.rules)
            if (r.year <= startYear) rule = &r;
        if (choose(rule->tz, def.keyName.empty() ? description.value_or("") : def.keyName))
            return z;
    }
    if (const std::optional<std::string> raw =
            bytesOf(fd, findNamed(props, PidLidTimeZoneStruct), 64)) {
        MAPI_TIMEZONE tz{};
        const bool read =
            mapi_TimezoneFromRaw(reinterpret_cast<const uint8_t*>(raw->data()), raw->size(), &tz);
        if (read && choose(tz, description.value_or(""))) return z;
        damaged = damaged || !read;
    }
    if (const std::optional<int64_t> number = integerOf(findNamed(props, PidLidTimeZone))) {
        uint8_t data[MAPI_TIMEZONE_DATA_SIZE];
        const auto n = static_cast<uint32_t>(*number);
        MAPI_TIMEZONE tz{};
        if (mapi_raw_timezone_data_from_tzNum(n, data) &&
            mapi_TimezoneFromRaw(data, sizeof data, &tz) && choose(tz, mapi_tzNum_toIcalTZID(n)))
            return z;
    }
    if (damaged) *flags |= TNEF_CONVERT_BAD_TIMEZONE;
    return z;
}

icaltimetype civilTime(const Civil& c, bool isDate) {
    icaltimetype t = icaltime_null_time();
    t.year = static_cast<int>(c.year);
    t.month = static_cast<int>(c.month);
    t.day = static_cast<int>(c.day);
    if (isDate) {
        t.is_date = 1;
    } else {
        t.hour = static_cast<int>(c.hour);
        t.minute = static_cast<int>(c.minute);
    }
    return t;
}

// The first day, in 1601, on which a yearly rule falls: the onset VTIMEZONE starts from.
Civil onsetIn1601(const MAPI_SYSTEMTIME& st) {
    const int64_t first = minutesOfCivil(1601, st.month, 1) / 1440;
    const auto firstDow = static_cast<unsigned>((first % 7 + 8) % 7);  // 1601-01-01: Monday
    unsigned day = 1 + (st.dayOfWeek + 7 - firstDow) % 7 + (st.day - 1) * 7;
    const unsigned dim = static_cast<unsigned>(
        (minutesOfCivil(st.month == 12 ? 1602 : 1601, st.month == 12 ? 1 : st.month + 1u, 1) -
         minutesOfCivil(1601, st.month, 1)) /
        1440);
    while (day > dim) day -= 7;
    return Civil{1601, st.month, day, st.hour, st.minute};
}

icalcomponent* observance(icalcomponent_kind kind, const Civil& onset, int64_t from, int64_t to,
                          const MAPI_SYSTEMTIME* rule) {
    icalcomponent* c = icalcomponent_new(kind);
    icalcomponent_add_property(c, icalproperty_new_dtstart(civilTime(onset, false)));
    if (rule != nullptr) {
        static constexpr const char* kDays[] = {"SU", "MO", "TU", "WE", "TH", "FR", "SA"};
        const int nth = rule->day == 5 ? -1 : rule->day;
        const std::string text = "FREQ=YEARLY;BYMONTH=" + std::to_string(rule->month) +
                                 ";BYDAY=" + std::to_string(nth) + kDays[rule->dayOfWeek];
        icalcomponent_add_property(
            c, icalproperty_new_rrule(icalrecurrencetype_from_string(text.c_str())));
    }
    icalcomponent_add_property(c, icalproperty_new_tzoffsetfrom(static_cast<int>(from * 60)));
    icalcomponent_add_property(c, icalproperty_new_tzoffsetto(static_cast<int>(to * 60)));
    return c;
}

icalcomponent* vtimezone(const Zone& z) {
    icalcomponent* vtz = icalcomponent_new_vtimezone();
    icalcomponent_add_property(vtz, icalproperty_new_tzid(z.tzid.c_str()));
    const int64_t std = standardOffset(z.tz);
    if (!keepsDaylight(z.tz)) {
        icalcomponent_add_component(
            vtz, observance(ICAL_XSTANDARD_COMPONENT, Civil{1601, 1, 1, 0, 0}, std, std, nullptr));
        return vtz;
    }
    const int64_t dst = daylightOffset(z.tz);
    icalcomponent_add_component(
        vtz, observance(ICAL_XSTANDARD_COMPONENT, onsetIn1601(z.tz.standardDate), dst, std,
                        &z.tz.standardDate));
    icalcomponent_add_component(
        vtz, observance(ICAL_XDAYLIGHT_COMPONENT, onsetIn1601(z.tz.daylightDate), std, dst,
                        &z.tz.daylightDate));
    return vtz;
}

// ---- Times ----------------------------------------------------------------------------------

// A property of a moment given in UTC minutes: in the zone with its TZID, or in UTC.
icalproperty* momentProp(icalproperty* (*make)(icaltimetype), int64_t utcMinutes, const Zone& z) {
    if (z.utc) {
        icaltimetype t = civilTime(civilOfMinutes(utcMinutes), false);
        t.zone = icaltimezone_get_utc_timezone();
        return make(t);
    }
    icalproperty* p =
        make(civilTime(civilOfMinutes(mapi_UtcToLocalMinutes(&z.tz, utcMinutes)), false));
    icalproperty_add_parameter(p, icalparameter_new_tzid(z.tzid.c_str()));
    return p;
}

// The same for a moment given on the zone's clock (the recurrence pattern counts so).
icalproperty* localProp(icalproperty* (*make)(icaltimetype), int64_t localMinutes, const Zone& z,
                        bool allDay) {
    if (allDay) return make(civilTime(civilOfMinutes(localMinutes), true));
    if (z.utc) return momentProp(make, localMinutes, z);
    icalproperty* p = make(civilTime(civilOfMinutes(localMinutes), false));
    icalproperty_add_parameter(p, icalparameter_new_tzid(z.tzid.c_str()));
    return p;
}

int64_t localOf(const Zone& z, int64_t utcMinutes) {
    return z.utc ? utcMinutes : mapi_UtcToLocalMinutes(&z.tz, utcMinutes);
}

icaltimetype utcTime(uint64_t mapiTime) {
    icaltimetype t = civilTime(civilOfMinutes(minutesOf(mapiTime)), false);
    t.second = static_cast<int>(mapiTime / 10000000ULL % 60);
    t.zone = icaltimezone_get_utc_timezone();
    return t;
}

// libical writes no time past the year 3000; a time outside 1601 to 2998 (so that no zone's
// clock passes the limit) is left out as damage.
bool inRange(int64_t minutes) {
    const int64_t year = civilOfMinutes(minutes).year;
    return year >= 1601 && year <= 2998;
}
bool plausible(uint64_t mapiTime) {
    return inRange(minutesOf(mapiTime));
}

std::optional<uint64_t> timeProp(const Entries& props, NamedId id) {
    const std::optional<uint64_t> t = timeOf(findNamed(props, id));
    return t && plausible(*t) ? t : std::nullopt;
}

std::optional<uint64_t> timeProp(const Entries& props, uint16_t id) {
    const std::optional<uint64_t> t = timeOf(findTag(props, id));
    return t && plausible(*t) ? t : std::nullopt;
}

// ---- Recurrence -----------------------------------------------------------------------------

constexpr uint32_t kCountLimit = 99999;       // far beyond the 999 clients let a user set
constexpr uint32_t kLastMinute = 0x5AE980DF;  // 4500-12-31 23:59: the pattern's "no end"

const char* const kDayNames[] = {"SU", "MO", "TU", "WE", "TH", "FR", "SA"};

std::string dayList(uint32_t mask) {
    std::string out;
    for (int d = 0; d < 7; ++d)
        if (mask & (1u << d)) out += (out.empty() ? "" : ",") + std::string(kDayNames[d]);
    return out;
}

// The RRULE text of a pattern (without its end), or none when the pattern names no series
// an RRULE can say.
std::optional<std::string> ruleText(const Recurrence& r, uint32_t* flags) {
    const bool yearly = r.frequency == 0x200D;
    if (r.calendarType > 1 || r.patternType >= 0xA) {
        *flags |= TNEF_CONVERT_UNSUPPORTED;
        return std::nullopt;
    }
    const unsigned month = civilOfMinutes(r.startDate).month;
    const std::string byMonth = yearly ? ";BYMONTH=" + std::to_string(month) : "";
    auto months = [&](uint32_t period) -> std::optional<std::string> {
        if (yearly) {
            if (period % 12 != 0 || period / 12 == 0 || period / 12 > 99) return std::nullopt;
            return "FREQ=YEARLY;INTERVAL=" + std::to_string(period / 12);
        }
        if (period == 0 || period > 99) return std::nullopt;
        return "FREQ=MONTHLY;INTERVAL=" + std::to_string(period);
    };
    std::optional<std::string> head;
    switch (r.patternType) {
        case 0:
            if (r.period == 0 || r.period % 1440 != 0 || r.period / 1440 > 999) break;
            return "FREQ=DAILY;INTERVAL=" + std::to_string(r.period / 1440);
        case 1:
            if (r.period == 0 || r.period > 99 || r.weekMask == 0 || r.weekMask > 0x7F ||
                r.firstDow > 6)
                break;
            return "FREQ=WEEKLY;INTERVAL=" + std::to_string(r.period) +
                   ";BYDAY=" + dayList(r.weekMask) + ";WKST=" + kDayNames[r.firstDow];
        case 2:
            if (r.dayOfMonth < 1 || r.dayOfMonth > 31 || !(head = months(r.period))) break;
            // A day past the month's end means its last day, as MAPI clients read it.
            if (r.dayOfMonth <= 28)
                return *head + byMonth + ";BYMONTHDAY=" + std::to_string(r.dayOfMonth);
            {
                std::string days = "28";
                for (uint32_t d = 29; d <= r.dayOfMonth; ++d) days += "," + std::to_string(d);
                return *head + byMonth + ";BYMONTHDAY=" + days + ";BYSETPOS=-1";
            }
        case 3: {
            if (r.weekMask == 0 || r.weekMask > 0x7F || r.nth < 1 || r.nth > 5 ||
                !(head = months(r.period)))
                break;
            const int nth = r.nth == 5 ? -1 : static_cast<int>(r.nth);
            if ((r.weekMask & (r.weekMask - 1)) == 0)
                return *head + byMonth + ";BYDAY=" + std::to_string(nth) + dayList(r.weekMask);
            return *head + byMonth + ";BYDAY=" + dayList(r.weekMask) +
                   ";BYSETPOS=" + std::to_string(nth);
        }
        case 4:
            if (!(head = months(r.period))) break;
            return *head + byMonth + ";BYMONTHDAY=-1";
        default:
            break;
    }
    *flags |= TNEF_CONVERT_BAD_RECURRENCE;
    return std::nullopt;
}

std::string twoDigits(unsigned v) {
    return (v < 10 ? "0" : "") + std::to_string(v);
}

std::string dateText(const Civil& c) {
    char buf[32];
    std::snprintf(buf, sizeof buf, "%04lld%02u%02u", static_cast<long long>(c.year), c.month,
                  c.day);
    return buf;
}

// The end of the series: UNTIL the last instance's start (in UTC, or a date for all-day
// events), COUNT, or nothing for a series without end.
std::optional<std::string> endText(const Recurrence& r, const Zone& z, bool allDay,
                                   uint32_t* flags) {
    // A series that ends after libical's last year is written without end.
    if (r.endType == kEndByDate && r.endDate < kLastMinute && inRange(r.endDate)) {
        if (r.endDate < r.startDate) return std::nullopt;
        if (allDay) return ";UNTIL=" + dateText(civilOfMinutes(r.endDate));
        const int64_t local = int64_t{r.endDate} + r.startOffset;
        const int64_t utc = z.utc ? local : mapi_LocalToUtcMinutes(&z.tz, local);
        const Civil c = civilOfMinutes(utc);
        return ";UNTIL=" + dateText(c) + "T" + twoDigits(c.hour) + twoDigits(c.minute) + "00Z";
    }
    if (r.endType == kEndByCount) {
        if (r.occurrences == 0 || r.occurrences > kCountLimit) {
            *flags |= TNEF_CONVERT_BAD_RECURRENCE;
            return std::nullopt;
        }
        return ";COUNT=" + std::to_string(r.occurrences);
    }
    if (r.endType == kEndByDate || r.endType == 0x2023 || r.endType == 0xFFFFFFFF) return "";
    *flags |= TNEF_CONVERT_BAD_RECURRENCE;
    return std::nullopt;
}

// ---- People ---------------------------------------------------------------------------------

struct Person {
    std::string address;
    std::string name;
};

// An address from a property list: the SMTP address, else the e-mail address of an SMTP
// entry (an Exchange one names a directory entry, not a mailbox).
std::string addressOf(const Entries& e, uint16_t smtp, uint16_t email, uint16_t type) {
    if (auto s = textOf(findTag(e, smtp)); s && isAddress(*s)) return *s;
    const std::string addrType = textOf(findTag(e, type)).value_or("SMTP");
    if (auto s = textOf(findTag(e, email));
        s && isAddress(*s) && (addrType == "SMTP" || addrType == "smtp"))
        return *s;
    return {};
}

Person senderOf(const Entries& props) {
    Person p{addressOf(props, PR_SENT_REPRESENTING_SMTP_ADDRESS, PR_SENT_REPRESENTING_EMAIL_ADDRESS,
                       PR_SENT_REPRESENTING_ADDRTYPE),
             textOf(findTag(props, PR_SENT_REPRESENTING_NAME)).value_or("")};
    if (p.address.empty())
        p = {addressOf(props, PR_SENDER_SMTP_ADDRESS, PR_SENDER_EMAIL_ADDRESS, PR_SENDER_ADDRTYPE),
             textOf(findTag(props, PR_SENDER_NAME)).value_or(p.name)};
    if (p.address.empty()) {
        // The account it was sent from: "id \x01 address \x01 address".
        const std::string acct = textOf(findTag(props, PR_PRIMARY_SEND_ACCT)).value_or("");
        const size_t a = acct.find('\x01');
        const size_t b = a == std::string::npos ? a : acct.find('\x01', a + 1);
        if (b != std::string::npos && isAddress(acct.substr(a + 1, b - a - 1)))
            p.address = acct.substr(a + 1, b - a - 1);
    }
    return p;
}

struct Attendee {
    Person person;
    icalparameter_role role = ICAL_ROLE_REQPARTICIPANT;
    bool resource = false;
    icalparameter_partstat status = ICAL_PARTSTAT_NEEDSACTION;
};

constexpr int64_t kRecipOrganizer = 0x0002;

// "Name (address); other@example.org; Name <address>" as the attendee strings hold them.
std::vector<Person> parseAttendeeString(const std::string& text) {
    std::vector<Person> out;
    size_t pos = 0;
    while (pos <= text.size()) {
        size_t end = text.find(';', pos);
        if (end == std::string::npos) end = text.size();
        std::string item = text.substr(pos, end - pos);
        pos = end + 1;
        const size_t first = item.find_first_not_of(" \t");
        if (first == std::string::npos) continue;
        item = item.substr(first, item.find_last_not_of(" \t") - first + 1);
        Person p{{}, item};
        for (const char* brackets : {"()", "<>"}) {
            const size_t open = item.rfind(brackets[0]);
            const size_t close = item.rfind(brackets[1]);
            if (open != std::string::npos && close == item.size() - 1 && open < close &&
                isAddress(item.substr(open + 1, close - open - 1))) {
                p.address = item.substr(open + 1, close - open - 1);
                p.name = item;
            }
        }
        if (p.address.empty() && isAddress(item)) p = {item, {}};
        out.push_back(p);
    }
    return out;
}

icalparameter_partstat trackStatus(int64_t v) {
    switch (v) {
        case 2:
            return ICAL_PARTSTAT_TENTATIVE;
        case 3:
            return ICAL_PARTSTAT_ACCEPTED;
        case 4:
            return ICAL_PARTSTAT_DECLINED;
        default:
            return ICAL_PARTSTAT_NEEDSACTION;
    }
}

std::string mailto(const std::string& address) {
    return "mailto:" + address;
}

icalproperty* personProp(icalproperty* (*make)(const char*), const Person& p) {
    icalproperty* prop = make(mailto(p.address).c_str());
    const std::string name = paramText(p.name);
    if (!name.empty()) icalproperty_add_parameter(prop, icalparameter_new_cn(name.c_str()));
    return prop;
}

icalproperty* attendeeProp(const Attendee& a, bool rsvp) {
    icalproperty* prop = personProp(icalproperty_new_attendee, a.person);
    icalproperty_add_parameter(prop, icalparameter_new_role(a.role));
    if (a.resource)
        icalproperty_add_parameter(prop, icalparameter_new_cutype(ICAL_CUTYPE_RESOURCE));
    icalproperty_add_parameter(prop, icalparameter_new_partstat(a.status));
    if (rsvp) icalproperty_add_parameter(prop, icalparameter_new_rsvp(ICAL_RSVP_TRUE));
    return prop;
}

// ---- The event ------------------------------------------------------------------------------

struct Owner {
    icalcomponent* c;
    explicit Owner(icalcomponent* comp) : c(comp) {}
    ~Owner() {
        if (c != nullptr) icalcomponent_free(c);
    }
    Owner(const Owner&) = delete;
    Owner& operator=(const Owner&) = delete;
};

void addText(icalcomponent* c, icalproperty* (*make)(const char*),
             const std::optional<std::string>& v) {
    if (!v) return;
    // A value of blanks alone reads back as no value at all.
    const std::string text = cleanText(*v);
    if (text.find_first_not_of(" \t\n") != std::string::npos)
        icalcomponent_add_property(c, make(text.c_str()));
}

void addX(icalcomponent* c, const char* name, const char* value) {
    icalproperty* p = icalproperty_new_x(value);
    icalproperty_set_x_name(p, name);
    icalcomponent_add_property(c, p);
}

std::string hexOf(std::string_view bytes) {
    static constexpr char kHex[] = "0123456789ABCDEF";
    std::string out;
    for (const char ch : bytes) {
        out.push_back(kHex[static_cast<uint8_t>(ch) >> 4]);
        out.push_back(kHex[static_cast<uint8_t>(ch) & 0x0F]);
    }
    return out;
}

// The item's UID: from the meeting's identifier, else its search key, else made from what
// names it (so the same file always gives the same UID).
std::string uidOf(int fd, const Entries& props, std::string_view subject, uint64_t start) {
    for (NamedId id : {PidLidCleanGlobalObjectId, PidLidGlobalObjectId, PidLidTaskGlobalId}) {
        const std::optional<std::string> bytes = bytesOf(fd, findNamed(props, id), 4096);
        if (!bytes || bytes->empty()) continue;
        std::string uid = id.set == &PSETID_Meeting ? uidOfGlobalObjectId(*bytes) : hexOf(*bytes);
        if (!uid.empty()) return uid;
    }
    if (auto key = bytesOf(fd, findTag(props, PR_SEARCH_KEY), 256); key && !key->empty())
        return hexOf(*key);
    uint64_t h = 14695981039346656037ULL;  // FNV-1a
    for (const char ch : std::string(subject) + std::to_string(start))
        h = (h ^ static_cast<uint8_t>(ch)) * 1099511628211ULL;
    char buf[40];
    std::snprintf(buf, sizeof buf, "tnef-%016llx", static_cast<unsigned long long>(h));
    return buf;
}

void addCommon(icalcomponent* c, const Entries& props, const std::string& summary,
               const std::string& description, const std::string& uid, icaltimetype stamp) {
    icalcomponent_add_property(c, icalproperty_new_uid(uid.c_str()));
    icalcomponent_add_property(c, icalproperty_new_dtstamp(stamp));
    addText(c, icalproperty_new_summary, summary);
    addText(c, icalproperty_new_description, description);
    if (auto t = timeProp(props, PR_CREATION_TIME))
        icalcomponent_add_property(c, icalproperty_new_created(utcTime(*t)));
    if (auto t = timeProp(props, PR_LAST_MODIFICATION_TIME))
        icalcomponent_add_property(c, icalproperty_new_lastmodified(utcTime(*t)));
    if (auto s = integerOf(findTag(props, PR_SENSITIVITY)))
        icalcomponent_add_property(c, icalproperty_new_class(*s == 0   ? ICAL_CLASS_PUBLIC
                                                             : *s == 3 ? ICAL_CLASS_CONFIDENTIAL
                                                                       : ICAL_CLASS_PRIVATE));
    // PRIORITY 0 is "undefined": a published task must carry one.
    if (auto i = integerOf(findTag(props, PR_IMPORTANCE)); i && *i >= 0 && *i <= 2)
        icalcomponent_add_property(c, icalproperty_new_priority(*i == 0 ? 9 : *i == 1 ? 5 : 1));
    else if (icalcomponent_isa(c) == ICAL_VTODO_COMPONENT)
        icalcomponent_add_property(c, icalproperty_new_priority(0));
}

constexpr int64_t kReminderLimit = 525600;  // a year, in minutes

icalcomponent* alarm(const std::string& summary, icaltriggertype trigger) {
    icalcomponent* a = icalcomponent_new_valarm();
    icalcomponent_add_property(a, icalproperty_new_action(ICAL_ACTION_DISPLAY));
    icalcomponent_add_property(a, icalproperty_new_trigger(trigger));
    const std::string text = cleanText(summary.empty() ? "Reminder" : summary);
    icalcomponent_add_property(a, icalproperty_new_description(text.c_str()));
    return a;
}

std::string bodyText(int fd, const TnefMessageView& view) {
    std::string text = cleanText(tnef_MessageBody(fd, view, TNEF_BODY_TEXT).text);
    while (!text.empty() && (text.back() == '\n' || text.back() == ' ')) text.pop_back();
    return text;
}

std::string summaryOf(const TnefMessageView& view, Method m) {
    if (m == Method::Reply || m == Method::Cancel)
        for (uint16_t id : {PR_CONVERSATION_TOPIC, PR_NORMALIZED_SUBJECT})
            if (auto t = textOf(findTag(view.properties, id))) return *t;
    return view.subject;
}

const char* busyText(int64_t v) {
    static constexpr const char* kBusy[] = {"FREE", "TENTATIVE", "BUSY", "OOF", "WORKINGELSEWHERE"};
    return v >= 0 && v <= 4 ? kBusy[v] : nullptr;
}

struct EventParts {
    const TnefMessageView& view;
    int fd;
    Method method;
    ClassInfo info;
    Zone zone;
    bool allDay = false;
    uint32_t flags = 0;
};

void addPeople(icalcomponent* ev, EventParts& p) {
    const Entries& props = p.view.properties;
    const Person sender = senderOf(props);
    std::vector<Attendee> attendees;
    std::optional<Person> organizer;
    for (const Entries& row : p.view.recipients) {
        Attendee a;
        a.person = {addressOf(row, PR_SMTP_ADDRESS, PR_EMAIL_ADDRESS, PR_ADDRTYPE),
                    textOf(findTag(row, PR_DISPLAY_NAME)).value_or("")};
        if (a.person.address.empty()) {
            p.flags |= TNEF_CONVERT_NO_ADDRESS;
            continue;
        }
        if (integerOf(findTag(row, PR_RECIPIENT_FLAGS)).value_or(0) & kRecipOrganizer) {
            organizer = a.person;
            continue;
        }
        const int64_t type = integerOf(findTag(row, PR_RECIPIENT_TYPE)).value_or(1);
        a.role = type == 2   ? ICAL_ROLE_OPTPARTICIPANT
                 : type == 3 ? ICAL_ROLE_NONPARTICIPANT
                             : ICAL_ROLE_REQPARTICIPANT;
        a.resource = type == 3;
        a.status = trackStatus(integerOf(findTag(row, PR_RECIPIENT_TRACKSTATUS)).value_or(0));
        attendees.push_back(a);
    }

    if (p.method == Method::Reply) {
        // The reply comes from the attendee and goes to the organizer.
        if (!attendees.empty()) organizer = attendees.front().person;
        if (sender.address.empty())
            p.flags |= TNEF_CONVERT_NO_ADDRESS;
        else
            attendees = {Attendee{sender, ICAL_ROLE_REQPARTICIPANT, false, p.info.replyStatus}};
    } else {
        if (!sender.address.empty()) organizer = sender;
        if (attendees.empty()) {
            // No recipient table: the attendee strings the organizer's client kept.
            const std::pair<NamedId, icalparameter_role> lists[] = {
                {PidLidToAttendeesString, ICAL_ROLE_REQPARTICIPANT},
                {PidLidCcAttendeesString, ICAL_ROLE_OPTPARTICIPANT}};
            for (const auto& [id, role] : lists)
                for (const Person& person :
                     parseAttendeeString(textOf(findNamed(props, id)).value_or(""))) {
                    if (person.address.empty())
                        p.flags |= TNEF_CONVERT_NO_ADDRESS;
                    else
                        attendees.push_back(
                            Attendee{person, role, false, ICAL_PARTSTAT_NEEDSACTION});
                }
        }
    }
    if (organizer)
        icalcomponent_add_property(ev, personProp(icalproperty_new_organizer, *organizer));
    else
        p.flags |= TNEF_CONVERT_NO_ORGANIZER;
    const bool rsvp = p.method == Method::Request &&
                      integerOf(findTag(props, PR_RESPONSE_REQUESTED)).value_or(1) != 0;
    for (const Attendee& a : attendees) icalcomponent_add_property(ev, attendeeProp(a, rsvp));
}

// The start and end of an all-day event are the days of the zone's clock.
icalproperty* dayProp(icalproperty* (*make)(icaltimetype), int64_t localMinutes, bool roundUp) {
    int64_t day = localMinutes >= 0 ? localMinutes / 1440 : 0;
    if (roundUp && localMinutes % 1440 != 0) ++day;
    return make(civilTime(civilOfMinutes(day * 1440), true));
}

void addRecurrence(icalcomponent* cal, icalcomponent* master, EventParts& p, const Recurrence& r) {
    const std::optional<std::string> rule = ruleText(r, &p.flags);
    if (!rule) return;
    const std::optional<std::string> end = endText(r, p.zone, p.allDay, &p.flags);
    if (!end) return;
    const icalrecurrencetype rt = icalrecurrencetype_from_string((*rule + *end).c_str());
    if (rt.freq == ICAL_NO_RECURRENCE) {
        p.flags |= TNEF_CONVERT_BAD_RECURRENCE;
        return;
    }
    icalcomponent_add_property(master, icalproperty_new_rrule(rt));

    // Deleted instances include the modified ones, whose exceptions replace them.
    for (uint32_t day : r.deleted) {
        if (std::find(r.modified.begin(), r.modified.end(), day) != r.modified.end() ||
            !inRange(day))
            continue;
        icalcomponent_add_property(
            master, localProp(icalproperty_new_exdate,
                              int64_t{day} + (p.allDay ? 0 : r.startOffset), p.zone, p.allDay));
    }
    for (const RecurException& e : r.exceptions) {
        if (!inRange(e.start) || !inRange(e.end) || !inRange(e.originalStart)) {
            p.flags |= TNEF_CONVERT_EXCEPTIONS_CUT;
            continue;
        }
        icalcomponent* ev = icalcomponent_new_clone(master);
        for (icalproperty_kind k : {ICAL_RRULE_PROPERTY, ICAL_EXDATE_PROPERTY,
                                    ICAL_DTSTART_PROPERTY, ICAL_DTEND_PROPERTY})
            while (icalproperty* old = icalcomponent_get_first_property(ev, k)) {
                icalcomponent_remove_property(ev, old);
                icalproperty_free(old);
            }
        auto replaceText = [&](icalproperty_kind k, icalproperty* (*make)(const char*),
                               const std::string& v) {
            if (icalproperty* old = icalcomponent_get_first_property(ev, k)) {
                icalcomponent_remove_property(ev, old);
                icalproperty_free(old);
            }
            addText(ev, make, v);
        };
        if (e.overrides & ARO_SUBJECT)
            replaceText(ICAL_SUMMARY_PROPERTY, icalproperty_new_summary, e.subject);
        if (e.overrides & ARO_LOCATION)
            replaceText(ICAL_LOCATION_PROPERTY, icalproperty_new_location, e.location);
        icalcomponent_add_property(
            ev, localProp(icalproperty_new_recurrenceid, e.originalStart, p.zone, p.allDay));
        icalcomponent_add_property(ev,
                                   localProp(icalproperty_new_dtstart, e.start, p.zone, p.allDay));
        icalcomponent_add_property(ev, localProp(icalproperty_new_dtend, e.end, p.zone, p.allDay));
        icalcomponent_add_component(cal, ev);
    }
    if (r.exceptionsCut) p.flags |= TNEF_CONVERT_EXCEPTIONS_CUT;
}

void addEvent(icalcomponent* cal, EventParts& p) {
    const Entries& props = p.view.properties;
    icalcomponent* ev = icalcomponent_new_vevent();
    icalcomponent_add_component(cal, ev);

    const std::optional<uint64_t> start = timeProp(props, PidLidAppointmentStartWhole);
    // An end before the start is damage: the event is written with its start alone.
    const std::optional<uint64_t> endWhole = timeProp(props, PidLidAppointmentEndWhole);
    const uint64_t end = endWhole.value_or(0);
    const bool hasEnd = endWhole.has_value() && (!start || end >= *start);
    const std::string summary = summaryOf(p.view, p.method);

    std::optional<icaltimetype> stamp;
    // The stamp of the change the message announces: the organizer's, or the attendee's for
    // a reply.
    if (auto t = timeProp(props, p.method == Method::Reply ? PidLidAttendeeCriticalChange
                                                           : PidLidOwnerCriticalChange))
        stamp = utcTime(*t);
    for (uint16_t id : {PR_CLIENT_SUBMIT_TIME, PR_LAST_MODIFICATION_TIME, PR_CREATION_TIME})
        if (!stamp)
            if (auto t = timeProp(props, id)) stamp = utcTime(*t);
    if (!stamp && start) stamp = utcTime(*start);
    if (!stamp) stamp = icaltime_from_timet_with_zone(0, 0, icaltimezone_get_utc_timezone());

    const std::string uid = uidOf(p.fd, props, summary, start.value_or(0));
    addCommon(ev, props, summary, bodyText(p.fd, p.view), uid, *stamp);
    icalcomponent_add_property(
        ev,
        icalproperty_new_sequence(static_cast<int>(std::clamp<int64_t>(
            integerOf(findNamed(props, PidLidAppointmentSequence)).value_or(0), 0, INT32_MAX))));
    std::optional<std::string> location = textOf(findNamed(props, PidLidLocation));
    if (!location) location = textOf(findNamed(props, PidLidWhere));
    addText(ev, icalproperty_new_location, location);
    if (p.method == Method::Cancel)
        icalcomponent_add_property(ev, icalproperty_new_status(ICAL_STATUS_CANCELLED));

    if (start) {
        if (p.allDay) {
            icalcomponent_add_property(
                ev, dayProp(icalproperty_new_dtstart, localOf(p.zone, minutesOf(*start)), false));
            if (hasEnd)
                icalcomponent_add_property(
                    ev, dayProp(icalproperty_new_dtend, localOf(p.zone, minutesOf(end)), true));
        } else {
            icalcomponent_add_property(
                ev, momentProp(icalproperty_new_dtstart, minutesOf(*start), p.zone));
            if (hasEnd)
                icalcomponent_add_property(
                    ev, momentProp(icalproperty_new_dtend, minutesOf(end), p.zone));
        }
    } else {
        p.flags |= TNEF_CONVERT_NO_START;
    }

    // A single instance of a series: the instance it replaces.
    if (auto replaced = timeProp(props, PidLidExceptionReplaceTime); replaced && !p.allDay)
        icalcomponent_add_property(
            ev, momentProp(icalproperty_new_recurrenceid, minutesOf(*replaced), p.zone));

    const std::optional<int64_t> busy = integerOf(findNamed(props, PidLidBusyStatus));
    const std::optional<int64_t> intended = integerOf(findNamed(props, PidLidIntendedBusyStatus));
    const std::optional<int64_t> shown = intended && busyText(*intended) ? intended : busy;
    if (shown && busyText(*shown))
        icalcomponent_add_property(ev, icalproperty_new_transp(*shown == 0 ? ICAL_TRANSP_TRANSPARENT
                                                                           : ICAL_TRANSP_OPAQUE));
    if (busy && busyText(*busy)) addX(ev, "X-MICROSOFT-CDO-BUSYSTATUS", busyText(*busy));
    if (intended && busyText(*intended))
        addX(ev, "X-MICROSOFT-CDO-INTENDEDSTATUS", busyText(*intended));
    if (p.allDay) addX(ev, "X-MICROSOFT-CDO-ALLDAYEVENT", "TRUE");

    addPeople(ev, p);

    const std::optional<int64_t> delta = integerOf(findNamed(props, PidLidReminderDelta));
    if (integerOf(findNamed(props, PidLidReminderSet)).value_or(0) != 0 && delta && *delta >= 0 &&
        *delta <= kReminderLimit)
        icalcomponent_add_component(
            ev, alarm(summary, icaltriggertype_from_int(static_cast<int>(-*delta * 60))));

    if (const std::optional<std::string> blob =
            bytesOf(p.fd, findNamed(props, PidLidAppointmentRecur), 1u << 24)) {
        Recurrence r;
        const std::string charset =
            "CP" + std::to_string(p.view.codePage == 0 ? 1252 : p.view.codePage);
        if (parseRecurrence(*blob, charset.c_str(), &r))
            addRecurrence(cal, ev, p, r);
        else
            p.flags |= TNEF_CONVERT_BAD_RECURRENCE;
    }
}

uint32_t addTodo(icalcomponent* cal, int fd, const TnefMessageView& view) {
    const Entries& props = view.properties;
    icalcomponent* todo = icalcomponent_new_vtodo();
    icalcomponent_add_component(cal, todo);
    std::optional<icaltimetype> stamp;
    for (uint16_t id : {PR_LAST_MODIFICATION_TIME, PR_CLIENT_SUBMIT_TIME, PR_CREATION_TIME})
        if (!stamp)
            if (auto t = timeProp(props, id)) stamp = utcTime(*t);
    if (!stamp) stamp = icaltime_from_timet_with_zone(0, 0, icaltimezone_get_utc_timezone());
    addCommon(todo, props, view.subject, bodyText(fd, view), uidOf(fd, props, view.subject, 0),
              *stamp);

    // A task's start and due dates are days: the day is kept as midnight of that date.
    auto day = [&](NamedId id, icalproperty* (*make)(icaltimetype)) {
        if (auto t = timeProp(props, id))
            icalcomponent_add_property(todo, make(civilTime(civilOfMinutes(minutesOf(*t)), true)));
    };
    day(PidLidTaskStartDate, icalproperty_new_dtstart);
    day(PidLidTaskDueDate, icalproperty_new_due);

    const int64_t status = integerOf(findNamed(props, PidLidTaskStatus)).value_or(0);
    const bool complete =
        status == 2 || integerOf(findNamed(props, PidLidTaskComplete)).value_or(0) != 0;
    icalcomponent_add_property(todo,
                               icalproperty_new_status(complete      ? ICAL_STATUS_COMPLETED
                                                       : status == 1 ? ICAL_STATUS_INPROCESS
                                                                     : ICAL_STATUS_NEEDSACTION));
    if (auto pc = realOf(findNamed(props, PidLidPercentComplete)); pc && std::isfinite(*pc))
        icalcomponent_add_property(todo, icalproperty_new_percentcomplete(static_cast<int>(
                                             std::lround(std::clamp(*pc, 0.0, 1.0) * 100))));
    if (complete)
        if (auto t = timeProp(props, PidLidTaskDateCompleted))
            icalcomponent_add_property(todo, icalproperty_new_completed(utcTime(*t)));
    const Person owner = senderOf(props);
    if (owner.address.empty()) return TNEF_CONVERT_NO_ORGANIZER;
    icalcomponent_add_property(todo, personProp(icalproperty_new_organizer, owner));
    return 0;
}

std::string methodName(Method m) {
    switch (m) {
        case Method::Request:
            return "REQUEST";
        case Method::Cancel:
            return "CANCEL";
        case Method::Reply:
            return "REPLY";
        case Method::Publish:
            return "PUBLISH";
    }
    return "PUBLISH";
}

icalproperty_method methodOf(Method m) {
    switch (m) {
        case Method::Request:
            return ICAL_METHOD_REQUEST;
        case Method::Cancel:
            return ICAL_METHOD_CANCEL;
        case Method::Reply:
            return ICAL_METHOD_REPLY;
        case Method::Publish:
            return ICAL_METHOD_PUBLISH;
    }
    return ICAL_METHOD_PUBLISH;
}

bool isTask(std::string_view cls) {
    return startsWithClass(cls, "IPM.Task");
}

}  // namespace

TnefConverted toICalendar(int fd, const TnefMessageView& view, std::string_view cls) {
    // libical reports its errors through its own state; none of them may end the process.
    icalerror_set_errors_are_fatal(0);
    const bool task = isTask(cls) || startsWithClass(cls, "IPM.TaskRequest");
    const TnefMessageView* item = &view;
    if (startsWithClass(cls, "IPM.TaskRequest"))
        for (const TnefMessageView& e : view.embedded)
            if (isTask(e.messageClass)) item = &e;

    TnefConverted out;
    out.kind = TNEF_CONVERT_ICALENDAR;
    const ClassInfo info = task ? ClassInfo{Method::Publish, ICAL_PARTSTAT_NONE} : classInfo(cls);
    out.method = methodName(info.method);
    out.component = task ? "VTODO" : "VEVENT";

    Owner cal(icalcomponent_new_vcalendar());
    icalcomponent_add_property(cal.c, icalproperty_new_prodid("-//tnef//libtnef-convert//EN"));
    icalcomponent_add_property(cal.c, icalproperty_new_version("2.0"));
    icalcomponent_add_property(cal.c, icalproperty_new_method(methodOf(info.method)));
    if (task) {
        out.flags = addTodo(cal.c, fd, *item);
    } else {
        EventParts p{view, fd, info.method, info, {}, false, 0};
        const Entries& props = view.properties;
        const std::optional<uint64_t> start = timeProp(props, PidLidAppointmentStartWhole);
        const bool recurring = findNamed(props, PidLidAppointmentRecur) != nullptr;
        p.zone = zoneOf(fd, props, recurring, start ? civilOfMinutes(minutesOf(*start)).year : 0,
                        &p.flags);
        p.allDay = integerOf(findNamed(props, PidLidAppointmentSubType)).value_or(0) != 0;
        if (!p.zone.utc) icalcomponent_add_component(cal.c, vtimezone(p.zone));
        addEvent(cal.c, p);
        out.flags = p.flags;
    }
    char* text = icalcomponent_as_ical_string_r(cal.c);
    out.text = text != nullptr ? text : "";
    icalmemory_free_buffer(text);
    return out;
}

}  // namespace tnefconv
