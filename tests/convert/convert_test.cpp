// Meetings, tasks and contacts converted from TNEF streams laid out byte by byte: each case
// says, in hand-computed facts, what a calendar or address book must read from the output,
// and every output is parsed back with libical (and its iTIP restrictions) and with Python's
// icalendar and vobject.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <libical/ical.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

#include "support/test_home.h"
#include "support/tnef_builder.h"
#include "tnef/platform/os_file.h"
#include "tnef/tnef_convert.h"

using tnefbuild::PropList;
using tnefbuild::Stream;
using namespace std::string_literals;

namespace {

using Guid = tnefbuild::Guid;
constexpr Guid kAppointment = {0x02, 0x20, 0x06, 0, 0, 0, 0, 0, 0xC0, 0, 0, 0, 0, 0, 0, 0x46};
constexpr Guid kTask = {0x03, 0x20, 0x06, 0, 0, 0, 0, 0, 0xC0, 0, 0, 0, 0, 0, 0, 0x46};
constexpr Guid kAddress = {0x04, 0x20, 0x06, 0, 0, 0, 0, 0, 0xC0, 0, 0, 0, 0, 0, 0, 0x46};
constexpr Guid kCommon = {0x08, 0x20, 0x06, 0, 0, 0, 0, 0, 0xC0, 0, 0, 0, 0, 0, 0, 0x46};
constexpr Guid kMeeting = {0x90, 0xDA, 0xD8, 0x6E, 0x0B, 0x45, 0x1B, 0x10,
                           0x98, 0xDA, 0x00, 0xAA, 0x00, 0x3F, 0x13, 0x05};
constexpr Guid kIMessage = {0x07, 0x03, 0x02, 0, 0, 0, 0, 0, 0xC0, 0, 0, 0, 0, 0, 0, 0x46};

// ---- Times, computed with the standard library's calendar --------------------------------

// Minutes since 1601-01-01 of a civil date and time.
uint32_t minutes1601(int y, unsigned mo, unsigned d, unsigned h = 0, unsigned mi = 0) {
    using namespace std::chrono;
    const auto days = sys_days(year(y) / month(mo) / day(d)) - sys_days(year(1601) / January / 1);
    return static_cast<uint32_t>(days.count() * 1440 + h * 60 + mi);
}
uint64_t mapiTime(int y, unsigned mo, unsigned d, unsigned h = 0, unsigned mi = 0) {
    return uint64_t{minutes1601(y, mo, d, h, mi)} * 600000000ULL;
}

// ---- Calendar structures, laid out field by field ------------------------------------------

class Blob : public tnefbuild::Appender<Blob> {};

struct Transition {
    uint16_t month, dayOfWeek, week, hour;
};
struct Zone {
    const char* key;
    int32_t bias, daylightBias;
    Transition toStandard, toDaylight;  // month 0: none
};
constexpr Zone kNewYork = {"Eastern Standard Time", 300, -60, {11, 0, 1, 2}, {3, 0, 2, 2}};
constexpr Zone kBerlin = {"W. Europe Standard Time", -60, -60, {10, 0, 5, 3}, {3, 0, 5, 2}};
constexpr Zone kTokyo = {"Tokyo Standard Time", -540, 0, {0, 0, 0, 0}, {0, 0, 0, 0}};
constexpr Zone kSydney = {"AUS Eastern Standard Time", -600, -60, {4, 0, 1, 3}, {10, 0, 1, 2}};
constexpr Zone kMonth13 = {"Broken Time", -60, -60, {13, 0, 5, 3}, {3, 0, 5, 2}};

void systemTime(Blob& b, const Transition& t) {
    b.u16(0).u16(t.month).u16(t.dayOfWeek).u16(t.week).u16(t.hour).u16(0).u16(0).u16(0);
}

// A time zone definition: version 2.1, the key name, one rule from 1601 on.
std::string tzDefinition(const Zone& z) {
    const std::string key = tnefbuild::utf16le(z.key);
    Blob b;
    b.u8(2).u8(1).u16(static_cast<uint16_t>(6 + key.size())).u16(2);
    b.u16(static_cast<uint16_t>(key.size() / 2)).raw(key).u16(1);
    b.u8(2).u8(1).u16(0x3E).u16(0x0002).u16(1601).zeros(14);
    b.u32(static_cast<uint32_t>(z.bias)).u32(0).u32(static_cast<uint32_t>(z.daylightBias));
    systemTime(b, z.toStandard);
    systemTime(b, z.toDaylight);
    return b.bytes();
}

struct Change {
    uint32_t start, end, original;  // local minutes
    std::string location;           // empty: not overridden
};

struct Pattern {
    uint16_t frequency, patternType;
    uint32_t period;
    std::vector<uint32_t> specific;  // week mask, day, or mask and nth
    uint32_t endType, occurrences;
    uint32_t startDate, endDate;  // local midnights
    uint32_t startOffset, endOffset;
    std::vector<uint32_t> deleted, modified;
    std::vector<Change> changes;
    uint16_t announcedChanges = 0xFFFF;  // 0xFFFF: as many as given
};

std::string recurrence(const Pattern& p) {
    Blob b;
    b.u16(0x3004).u16(0x3004).u16(p.frequency).u16(p.patternType).u16(0);
    b.u32(0).u32(p.period).u32(0);
    for (uint32_t v : p.specific) b.u32(v);
    b.u32(p.endType).u32(p.occurrences).u32(0);
    b.u32(static_cast<uint32_t>(p.deleted.size()));
    for (uint32_t d : p.deleted) b.u32(d);
    b.u32(static_cast<uint32_t>(p.modified.size()));
    for (uint32_t d : p.modified) b.u32(d);
    b.u32(p.startDate).u32(p.endDate).u32(0x3006).u32(0x3009).u32(p.startOffset).u32(p.endOffset);
    b.u16(p.announcedChanges == 0xFFFF ? static_cast<uint16_t>(p.changes.size()) : p.announcedChanges);
    for (const Change& c : p.changes) {
        b.u32(c.start).u32(c.end).u32(c.original).u16(c.location.empty() ? 0 : 0x0010);
        if (!c.location.empty())
            b.u16(static_cast<uint16_t>(c.location.size() + 1)).u16(static_cast<uint16_t>(c.location.size())).raw(c.location);
    }
    b.u32(0);  // reserved block
    for (const Change& c : p.changes) {
        b.u32(4).u32(0).u32(0);  // change highlight, reserved block
        if (c.location.empty()) continue;
        const std::string wide = tnefbuild::utf16le(c.location);
        b.u32(c.start).u32(c.end).u32(c.original).u16(static_cast<uint16_t>(c.location.size())).raw(wide).u32(0);
    }
    return b.u32(0).bytes();
}

// A one-off entry identifier of a list member, in UTF-16.
std::string oneOff(const std::string& name, const std::string& type, const std::string& address) {
    Blob b;
    b.u32(0).raw("\x81\x2B\x1F\xA4\xBE\xA3\x10\x19\x9D\x6E\x00\xDD\x01\x0F\x54\x02"s).u16(0).u16(0x8000);
    for (const std::string& s : {name, type, address}) b.raw(tnefbuild::utf16le(s)).u16(0);
    return b.bytes();
}

// ---- Messages ----------------------------------------------------------------------------

// A message's properties, named ones numbered in the order they are added.
struct Message {
    std::string cls;
    PropList props;
    uint16_t next = 0x8001;
    std::vector<PropList> recipients;
    std::string attachments;  // records of level 2

    uint32_t named(const Guid& set, uint32_t lid, uint16_t type) {
        props.namedId(set, lid);
        return uint32_t{next++} << 16 | type;
    }
    Message& time(const Guid& set, uint32_t lid, uint64_t t) { props.i8(named(set, lid, 0x0040), t); return *this; }
    Message& number(const Guid& set, uint32_t lid, uint32_t v) { props.long32(named(set, lid, 0x0003), v); return *this; }
    Message& flag(const Guid& set, uint32_t lid, bool v) { props.i2(named(set, lid, 0x000B), v); return *this; }
    Message& text(const Guid& set, uint32_t lid, const std::string& v) { props.string8(named(set, lid, 0x001E), v); return *this; }
    Message& binary(const Guid& set, uint32_t lid, const std::string& v) { props.binary(named(set, lid, 0x0102), v); return *this; }
    Message& text(uint32_t tag, const std::string& v) { props.string8(tag, v); return *this; }
    Message& number(uint32_t tag, uint32_t v) { props.long32(tag, v); return *this; }

    std::string bytes() const {
        Stream s;
        s.header().tnefVersion().oemCodepage(1252).record(1, 0x00078008, cls + "\0"s);
        if (!recipients.empty()) {
            tnefbuild::RecipTable t;
            for (const PropList& r : recipients) t.row(r);
            s.record(1, 0x00069004, t.bytes());
        }
        s.record(1, 0x00069003, props.bytes());
        return s.bytes() + attachments;
    }
};

constexpr uint32_t PR_SUBJECT = 0x0037001E;
constexpr uint32_t PR_SENT_REPRESENTING_NAME = 0x0042001E;
constexpr uint32_t PR_SENT_REPRESENTING_EMAIL = 0x0065001E;
constexpr uint32_t PR_SENT_REPRESENTING_ADDRTYPE = 0x0064001E;
constexpr uint32_t PR_DISPLAY_NAME = 0x3001001E;

// A meeting of the given class, zone and UTC start and end, organised by ana@example.org.
Message meeting(const std::string& cls, const Zone& zone, uint64_t start, uint64_t end) {
    Message m;
    m.cls = cls;
    m.text(PR_SUBJECT, "Planning")
        .text(PR_SENT_REPRESENTING_NAME, "Ana Lima")
        .text(PR_SENT_REPRESENTING_ADDRTYPE, "SMTP")
        .text(PR_SENT_REPRESENTING_EMAIL, "ana@example.org")
        .time(kAppointment, 0x820D, start)
        .time(kAppointment, 0x820E, end)
        .binary(kAppointment, 0x825E, tzDefinition(zone))
        .number(kAppointment, 0x8205, 2)
        .text(kAppointment, 0x8208, "Room 1");
    Blob goid;
    goid.raw("\x04\x00\x00\x00\x82\x00\xE0\x00\x74\xC5\xB7\x10\x1A\x82\xE0\x08"s).zeros(4).u64(0).zeros(8).u32(4).u32(0xA1B2C3D4);
    m.binary(kMeeting, 0x0003, goid.bytes());
    return m;
}

Message recurring(const Zone& zone, uint64_t start, uint64_t end, const Pattern& p) {
    Message m = meeting("IPM.Appointment", zone, start, end);
    m.binary(kAppointment, 0x8216, recurrence(p)).flag(kAppointment, 0x8223, true);
    return m;
}

PropList recipient(const std::string& name, const std::string& address, uint32_t type, uint32_t track = 0,
                   uint32_t flags = 0) {
    PropList r;
    r.long32(0x0C150003, type).string8(PR_DISPLAY_NAME, name).string8(0x3002001E, "SMTP").string8(0x3003001E, address);
    if (track != 0) r.long32(0x5FFF0003, track);
    if (flags != 0) r.long32(0x5FFD0003, flags);
    return r;
}

Message contact() {
    Message m;
    m.cls = "IPM.Contact";
    m.text(PR_SUBJECT, "Lima, Ana")
        .text(PR_DISPLAY_NAME, "Ana Lima")
        .text(0x3A11001E, "Lima")
        .text(0x3A06001E, "Ana")
        .text(0x3A16001E, "Example; Co")
        .text(0x3A17001E, "Engineer")
        .text(0x3A1C001E, "+55 11 5555-0101")
        .text(0x3A08001E, "+55 11 5555-0100")
        .text(0x3A5D001E, "Rua A, 1")
        .text(0x3A59001E, "Sao Paulo")
        .text(kAddress, 0x8083, "ana@example.org")
        .text(kAddress, 0x8093, "ana.lima@example.net")
        .text(kAddress, 0x80A3, "al@example.com");
    // Birthday 1990-05-04, kept as local midnight of a zone east of UTC: 22:00 UTC the day before.
    m.props.i8(0x3A420040, mapiTime(1990, 5, 3, 22));
    const std::string png = "\x89PNG\r\n\x1A\n\x00\x00\x00\x0DIHDR"s;
    m.attachments = Stream()
                        .record(2, 0x00069002, "\x01\x00\x00\x00"s)
                        .record(2, 0x0006800F, png)
                        .record(2, 0x00069005,
                                PropList().long32(0x37050003, 1).string8(0x3707001E, "ContactPicture.jpg").i2(0x7FFF000B, 1).bytes())
                        .bytes();
    return m;
}

// ---- Reading the output back -------------------------------------------------------------

struct Output {
    TnefConverted converted;
    std::string unfolded;  // content lines, unfolded, each ending in \n
};

Output convert(const TestHome& home, const std::string& name, const std::string& tnef) {
    home.write(name + ".tnef", tnef);
    OsFd in(os_open(home.file(name + ".tnef").c_str(), O_RDONLY, 0));
    TnefMessageView view;
    tnef_ReadMessage(in.get(), &view);
    Output out{tnef_ConvertMessage(in.get(), view), {}};
    const std::string& t = out.converted.text;
    for (size_t i = 0; i < t.size(); ++i) {
        if (t.compare(i, 3, "\r\n ") == 0) i += 2;
        else if (t.compare(i, 2, "\r\n") == 0) out.unfolded += "\n", ++i;
        else out.unfolded += t[i];
    }
    return out;
}

// The local starts of the first n instances of the series, as libical expands it through
// the calendar's own VTIMEZONE (UNTIL in UTC, EXDATEs left out).
std::vector<std::string> instances(icalcomponent* cal, size_t n) {
    std::vector<std::string> out;
    icalcomponent* ev = icalcomponent_get_first_component(cal, ICAL_VEVENT_COMPONENT);
    icalproperty* start = ev ? icalcomponent_get_first_property(ev, ICAL_DTSTART_PROPERTY) : nullptr;
    if (start == nullptr || icalcomponent_get_first_property(ev, ICAL_RRULE_PROPERTY) == nullptr) return out;
    icalparameter* tzid = icalproperty_get_first_parameter(start, ICAL_TZID_PARAMETER);
    icaltimezone* zone = tzid ? icalcomponent_get_timezone(cal, icalparameter_get_tzid(tzid)) : nullptr;
    std::vector<time_t> starts;
    icaltimezone* utc = icaltimezone_get_utc_timezone();
    icalcomponent_foreach_recurrence(
        ev, icaltime_from_timet_with_zone(0, 0, utc), icaltime_from_timet_with_zone(4102444800, 0, utc),
        [](icalcomponent*, struct icaltime_span* span, void* data) {
            static_cast<std::vector<time_t>*>(data)->push_back(span->start);
        },
        &starts);
    for (time_t t : starts) {
        if (out.size() == n) break;
        const icaltimetype l = icaltime_from_timet_with_zone(t, 0, zone ? zone : utc);
        char text[32];
        std::snprintf(text, sizeof text, "%04d%02d%02dT%02d%02d%02d", l.year, l.month, l.day, l.hour, l.minute, l.second);
        out.push_back(text);
    }
    return out;
}

struct Case {
    const char* name;
    std::function<Message()> make;
    std::vector<std::string> lines;      // content lines the output must hold, unfolded
    std::vector<std::string> absent;     // property names it must not hold ("RRULE")
    std::vector<std::string> instances;  // the series' first local starts
    uint32_t flags = 0;
};

constexpr uint32_t kWeekly = 0x200B, kMonthly = 0x200C, kDaily = 0x200A;

std::vector<Case> cases() {
    const uint32_t jan9 = minutes1601(2024, 1, 9);
    const uint32_t apr1 = minutes1601(2024, 4, 1);
    return {
        {"all-day event across the change to daylight time",
         [] {
             Message m = meeting("IPM.Appointment", kNewYork, mapiTime(2024, 3, 9, 5), mapiTime(2024, 3, 11, 4));
             return m.flag(kAppointment, 0x8215, true), m;
         },
         {"DTSTART;VALUE=DATE:20240309", "DTEND;VALUE=DATE:20240311", "METHOD:PUBLISH",
          "TZOFFSETFROM:-0500", "TZOFFSETTO:-0400", "RRULE:FREQ=YEARLY;BYDAY=2SU;BYMONTH=3"},
         {},
         {}},
        {"weekly on Tuesday and Thursday, ten times",
         [=] {
             return recurring(kBerlin, mapiTime(2024, 1, 9, 9), mapiTime(2024, 1, 9, 10),
                              {kWeekly, 1, 1, {0x14}, 0x2022, 10, jan9, minutes1601(2024, 2, 8), 600, 660, {}, {}, {}});
         },
         {"DTSTART;TZID=W. Europe Standard Time:20240109T100000", "TZOFFSETTO:+0100"},
         {"EXDATE"},
         {"20240109T100000", "20240111T100000", "20240116T100000", "20240118T100000", "20240123T100000",
          "20240125T100000", "20240130T100000", "20240201T100000", "20240206T100000", "20240208T100000"}},
        {"monthly on the second Tuesday, without end",
         [=] {
             return recurring(kNewYork, mapiTime(2024, 1, 9, 14), mapiTime(2024, 1, 9, 15),
                              {kMonthly, 3, 1, {0x04, 2}, 0x2023, 10, jan9, 0x5AE980DF, 540, 600, {}, {}, {}});
         },
         {"DTSTART;TZID=Eastern Standard Time:20240109T090000"},
         {},
         {"20240109T090000", "20240213T090000", "20240312T090000", "20240409T090000"}},
        {"daily until a date, one instance deleted and one moved",
         [=] {
             return recurring(kBerlin, mapiTime(2024, 4, 1, 7), mapiTime(2024, 4, 1, 8),
                              {kDaily, 0, 1440, {}, 0x2021, 5, apr1, apr1 + 4 * 1440, 540, 600,
                               {apr1 + 1440, apr1 + 2 * 1440}, {apr1 + 2 * 1440},
                               {{apr1 + 2 * 1440 + 840, apr1 + 2 * 1440 + 900, apr1 + 2 * 1440 + 540, "Room 2"}}});
         },
         {"EXDATE;TZID=W. Europe Standard Time:20240402T090000",
          "RECURRENCE-ID;TZID=W. Europe Standard Time:20240403T090000",
          "DTSTART;TZID=W. Europe Standard Time:20240403T140000",
          "DTEND;TZID=W. Europe Standard Time:20240403T150000", "LOCATION:Room 2"},
         {},
         {"20240401T090000", "20240403T090000", "20240404T090000", "20240405T090000"}},
        {"a zone without daylight time",
         [] { return meeting("IPM.Appointment", kTokyo, mapiTime(2024, 7, 1, 0), mapiTime(2024, 7, 1, 1)); },
         {"DTSTART;TZID=Tokyo Standard Time:20240701T090000", "TZOFFSETFROM:+0900", "TZOFFSETTO:+0900"},
         {"DAYLIGHT"},
         {}},
        {"the southern hemisphere keeps daylight time over new year",
         [] { return meeting("IPM.Appointment", kSydney, mapiTime(2024, 1, 15, 1), mapiTime(2024, 1, 15, 2)); },
         {"DTSTART;TZID=AUS Eastern Standard Time:20240115T120000", "RRULE:FREQ=YEARLY;BYDAY=1SU;BYMONTH=10",
          "TZOFFSETTO:+1100"},
         {},
         {}},
        {"a meeting request to two attendees and a room",
         [] {
             Message m = meeting("IPM.Schedule.Meeting.Request", kBerlin, mapiTime(2024, 6, 3, 8), mapiTime(2024, 6, 3, 9));
             m.recipients = {recipient("Bo Chen", "bo@example.org", 1), recipient("Cy", "cy@example.org", 2),
                             recipient("Room 1", "room1@example.org", 3),
                             recipient("Ana Lima", "ana@example.org", 1, 1, 0x0003)};
             m.number(0x00170003, 2).number(kAppointment, 0x8201, 3);
             return m.flag(kCommon, 0x8503, true).number(kCommon, 0x8501, 15), m;
         },
         {"METHOD:REQUEST", "ORGANIZER;CN=Ana Lima:mailto:ana@example.org",
          "ATTENDEE;CN=Bo Chen;ROLE=REQ-PARTICIPANT;PARTSTAT=NEEDS-ACTION;RSVP=TRUE:mailto:bo@example.org",
          "ATTENDEE;CN=Cy;ROLE=OPT-PARTICIPANT;PARTSTAT=NEEDS-ACTION;RSVP=TRUE:mailto:cy@example.org",
          "ATTENDEE;CN=Room 1;ROLE=NON-PARTICIPANT;CUTYPE=RESOURCE;PARTSTAT=NEEDS-ACTION;RSVP=TRUE:mailto:room1@example.org",
          "UID:040000008200E00074C5B7101A82E008000000000000000000000000000000000000000004000000D4C3B2A1",
          "PRIORITY:1", "SEQUENCE:3", "TRIGGER:-PT15M", "LOCATION:Room 1", "X-MICROSOFT-CDO-BUSYSTATUS:BUSY"},
         {"ATTENDEE;CN=Ana Lima"},
         {}},
        {"a cancellation",
         [] {
             Message m = meeting("IPM.Schedule.Meeting.Canceled", kBerlin, mapiTime(2024, 6, 3, 8), mapiTime(2024, 6, 3, 9));
             m.recipients = {recipient("Bo Chen", "bo@example.org", 1)};
             return m.text(0x0070001E, "Planning"), m;
         },
         {"METHOD:CANCEL", "STATUS:CANCELLED", "SUMMARY:Planning", "ORGANIZER;CN=Ana Lima:mailto:ana@example.org"},
         {"RSVP"},
         {}},
        {"a declined meeting goes back to the organizer",
         [] {
             Message m = meeting("IPM.Schedule.Meeting.Resp.Neg", kBerlin, mapiTime(2024, 6, 3, 8), mapiTime(2024, 6, 3, 9));
             m.recipients = {recipient("Org", "org@example.org", 1)};
             return m;
         },
         {"METHOD:REPLY", "ORGANIZER;CN=Org:mailto:org@example.org",
          "ATTENDEE;CN=Ana Lima;ROLE=REQ-PARTICIPANT;PARTSTAT=DECLINED:mailto:ana@example.org"},
         {},
         {}},
        {"a task in progress",
         [] {
             Message m;
             m.cls = "IPM.Task";
             m.text(PR_SUBJECT, "Report").text(PR_SENT_REPRESENTING_EMAIL, "ana@example.org").time(kTask, 0x8104, mapiTime(2024, 2, 1)).time(kTask, 0x8105, mapiTime(2024, 2, 9));
             m.number(kTask, 0x8101, 1);
             m.props.r8(m.named(kTask, 0x8102, 0x0005), 0.25);
             return m;
         },
         {"BEGIN:VTODO", "DTSTART;VALUE=DATE:20240201", "DUE;VALUE=DATE:20240209", "STATUS:IN-PROCESS",
          "PERCENT-COMPLETE:25", "SUMMARY:Report"},
         {"COMPLETED"},
         {}},
        {"a contact with three addresses and a picture", contact,
         {"FN:Ana Lima", "N:Lima;Ana;;;", "EMAIL;PREF=1:ana@example.org", "EMAIL;PREF=2:ana.lima@example.net",
          "EMAIL;PREF=3:al@example.com", "ORG:Example\\; Co", "TITLE:Engineer", "BDAY:19900504",
          "TEL;VALUE=text;TYPE=cell:+55 11 5555-0101", "TEL;VALUE=text;TYPE=work,voice:+55 11 5555-0100",
          "ADR;TYPE=home:;;Rua A\\, 1;Sao Paulo;;;", "PHOTO:data:image/png;base64,iVBORw0KGgoAAAANSUhEUg=="},
         {"KIND"},
         {}},
        {"a distribution list",
         [] {
             Message m;
             m.cls = "IPM.DistList";
             m.text(PR_DISPLAY_NAME, "Team");
             m.props.namedId(kAddress, 0x8054).mvBinary(uint32_t{m.next++} << 16 | 0x1102,
                                                        {oneOff("Bo", "SMTP", "bo@example.org"),
                                                         oneOff("Cy", "SMTP", "cy@example.org"),
                                                         oneOff("Dee", "EX", "/o=Org/cn=Dee"), "short"});
             return m;
         },
         {"KIND:group", "FN:Team", "MEMBER:mailto:bo@example.org", "MEMBER:mailto:cy@example.org"},
         {"MEMBER:mailto:/o"},
         {},
         TNEF_CONVERT_NO_ADDRESS},
        // Hostile structures: each is named in the flags, and the rest is written.
        {"a count near 2^32 is no series",
         [=] {
             return recurring(kBerlin, mapiTime(2024, 1, 9, 9), mapiTime(2024, 1, 9, 10),
                              {kWeekly, 1, 1, {0x04}, 0x2022, 0xFFFFFFFF, jan9, jan9, 600, 660, {}, {}, {}});
         },
         {"DTSTART;TZID=W. Europe Standard Time:20240109T100000"},
         {"RRULE:FREQ=WEEKLY", "COUNT"},
         {},
         TNEF_CONVERT_BAD_RECURRENCE},
        {"more exceptions announced than the pattern holds",
         [=] {
             Pattern p{kDaily, 0, 1440, {}, 0x2022, 3, apr1, apr1, 540, 600, {apr1}, {apr1},
                       {{apr1 + 600, apr1 + 660, apr1 + 540, "Hall"}}};
             p.announcedChanges = 5;
             return recurring(kBerlin, mapiTime(2024, 4, 1, 7), mapiTime(2024, 4, 1, 8), p);
         },
         {"RRULE:FREQ=DAILY;COUNT=3", "RECURRENCE-ID;TZID=W. Europe Standard Time:20240401T090000"},
         {},
         {"20240401T090000", "20240402T090000", "20240403T090000"},
         TNEF_CONVERT_EXCEPTIONS_CUT},
        {"a deleted-instance count beyond the data",
         [=] {
             std::string blob = recurrence({kDaily, 0, 1440, {}, 0x2022, 3, apr1, apr1, 540, 600, {}, {}, {}});
             blob.replace(34, 4, "\x00\x00\x00\x40"s);  // deleted instances: 2^30
             Message m = meeting("IPM.Appointment", kBerlin, mapiTime(2024, 4, 1, 7), mapiTime(2024, 4, 1, 8));
             return m.binary(kAppointment, 0x8216, blob), m;
         },
         {"DTSTART;TZID=W. Europe Standard Time:20240401T090000"},
         {"RRULE:FREQ=DAILY", "EXDATE"},
         {},
         TNEF_CONVERT_BAD_RECURRENCE},
        {"a time zone rule in month 13",
         [] { return meeting("IPM.Appointment", kMonth13, mapiTime(2024, 6, 3, 8), mapiTime(2024, 6, 3, 9)); },
         {"DTSTART:20240603T080000Z", "DTEND:20240603T090000Z"},
         {"VTIMEZONE", "TZID"},
         {},
         TNEF_CONVERT_BAD_TIMEZONE},
    };
}

// Runs the Python checks over a folder of outputs; true when they all pass.
bool pythonAccepts(const std::string& dir) {
    const std::string cmd = "/usr/bin/python3 " TNEF_SOURCE_DIR "/tests/convert/check_outputs.py " + dir;
    return std::system(cmd.c_str()) == 0;
}

void expectParses(const std::string& name, const Output& out, bool itip = true) {
    if (out.converted.kind != TNEF_CONVERT_ICALENDAR) return;
    icalcomponent* cal = icalparser_parse_string(out.converted.text.c_str());
    ASSERT_NE(cal, nullptr) << name;
    EXPECT_EQ(icalcomponent_count_errors(cal), 0) << name << "\n" << icalcomponent_as_ical_string(cal);
    // Without an organizer or a start no item can satisfy iTIP; the flags say so.
    if (itip && !(out.converted.flags & (TNEF_CONVERT_NO_ORGANIZER | TNEF_CONVERT_NO_START))) {
        EXPECT_TRUE(icalrestriction_check(cal)) << name << "\n" << out.converted.text;
    }
    icalcomponent_free(cal);
}

TEST(Convert, GeneratedItemsReadAsTheSenderMeantThem) {
    TestHome home;
    int n = 0;
    for (const Case& c : cases()) {
        SCOPED_TRACE(c.name);
        const Output out = convert(home, "case" + std::to_string(n), c.make().bytes());
        ASSERT_NE(out.converted.kind, TNEF_CONVERT_NONE);
        for (const std::string& line : c.lines)
            EXPECT_NE(out.unfolded.find(line + "\n"), std::string::npos) << line << "\n" << out.unfolded;
        for (const std::string& name : c.absent) EXPECT_EQ(out.unfolded.find(name), std::string::npos) << name;
        EXPECT_EQ(out.converted.flags, c.flags);
        expectParses(c.name, out);
        if (!c.instances.empty()) {
            // A series without end is compared over its first instances, any other whole.
            icalcomponent* cal = icalparser_parse_string(out.converted.text.c_str());
            std::vector<std::string> got = instances(cal, 50);
            if (got.size() == 50) got.resize(c.instances.size());
            EXPECT_EQ(got, c.instances);
            icalcomponent_free(cal);
        }
        home.write("out/case" + std::to_string(n++) + (out.converted.kind == TNEF_CONVERT_VCARD ? ".vcf" : ".ics"),
                   out.converted.text);
    }
    EXPECT_TRUE(pythonAccepts(home.file("out")));
}

// Broken structures never stop a conversion, and what comes out still parses.
TEST(Convert, CutStreamsStillGiveParsableCalendars) {
    TestHome home;
    const std::string whole = cases()[3].make().bytes();
    for (size_t keep = 40; keep < whole.size(); keep += 37) {
        const Output out = convert(home, "cut", whole.substr(0, keep));
        if (out.converted.kind == TNEF_CONVERT_NONE) continue;
        expectParses("cut at " + std::to_string(keep), out, false);
    }
}

// The shared corpus's meetings, reply and task: the facts their own properties state.
TEST(Convert, CorpusItemsKeepTheirFacts) {
    const std::string corpus = corpusDir();
    if (corpus.empty()) GTEST_SKIP() << "no shared corpus beside this checkout (set TNEF_CORPUS)";
    TestHome home;
    struct Row {
        const char* file;
        std::vector<std::string> lines;
    };
    const Row rows[] = {
        {"content/files/horde__winmail2.dat",
         {"METHOD:REQUEST", "DTSTART;TZID=Eastern Standard Time:20150128T080000",
          "DTEND;TZID=Eastern Standard Time:20150128T083000", "LOCATION:Clayton\\, NJ", "SUMMARY:Test Meeting",
          "DESCRIPTION:This is a test meeting.", "ORGANIZER:mailto:mike@theupstairsroom.com",
          "ATTENDEE;CN=Michael Rubinsky (mrubinsk@horde.org);ROLE=REQ-PARTICIPANT;PARTSTAT=NEEDS-ACTION;RSVP=TRUE:"
          "mailto:mrubinsk@horde.org",
          "UID:040000008200E00074C5B7101A82E0080000000070D004D7863AD00100000000000000001000000000CC90FBB0AF5E4084B8"
          "519538A2DF6D",
          "X-MICROSOFT-CDO-BUSYSTATUS:TENTATIVE"}},
        {"content/files/horde__tnef_vnote.tnef",
         {"BEGIN:VTODO", "SUMMARY:Some important task.", "DUE;VALUE=DATE:20150109", "DTSTART;VALUE=DATE:20150101",
          "PERCENT-COMPLETE:10", "STATUS:IN-PROCESS"}},
        {"files/tnefparse__tests__examples__IPM-DistList.tnef", {}},
    };
    for (const Row& r : rows) {
        SCOPED_TRACE(r.file);
        OsFd in(os_open((corpus + "/" + r.file).c_str(), O_RDONLY, 0));
        TnefMessageView view;
        tnef_ReadMessage(in.get(), &view);
        // The task travels inside its request; the list inside a note.
        const TnefMessageView& item = view.embedded.empty() || view.messageClass == "IPM.TaskRequest" ? view : view.embedded[0];
        const TnefConverted c = tnef_ConvertMessage(in.get(), item);
        ASSERT_NE(c.kind, TNEF_CONVERT_NONE);
        Output out{c, {}};
        for (size_t i = 0; i < c.text.size(); ++i) {
            if (c.text.compare(i, 3, "\r\n ") == 0) i += 2;
            else if (c.text.compare(i, 2, "\r\n") == 0) out.unfolded += "\n", ++i;
            else out.unfolded += c.text[i];
        }
        for (const std::string& line : r.lines)
            EXPECT_NE(out.unfolded.find(line + "\n"), std::string::npos) << line << "\n" << out.unfolded;
        expectParses(r.file, out);
        EXPECT_EQ(c.flags, 0u);
    }
}

}  // namespace
