// Meetings, tasks and contacts converted from TNEF streams laid out byte by byte: each case
// says, in hand-computed facts, what a calendar or address book must read from the output,
// and every output is parsed back with libical (and its iTIP restrictions) and with Python's
// icalendar and vobject.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <libical/ical.h>

#include <cstdlib>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

#include "support/calendar_builder.h"
#include "support/test_home.h"
#include "support/tnef_builder.h"
#include "tnef/platform/os_file.h"
#include "tnef/tnef_convert.h"

using tnefbuild::PropList;
using tnefbuild::Stream;
using namespace std::string_literals;

namespace {

using namespace calbuild;

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
        if (t.compare(i, 3, "\r\n ") == 0)
            i += 2;
        else if (t.compare(i, 2, "\r\n") == 0)
            out.unfolded += "\n", ++i;
        else
            out.unfolded += t[i];
    }
    return out;
}

// The local starts of the first n instances of the series, as libical expands it through
// the calendar's own VTIMEZONE (UNTIL in UTC, EXDATEs left out).
std::vector<std::string> instances(icalcomponent* cal, size_t n) {
    std::vector<std::string> out;
    icalcomponent* ev = icalcomponent_get_first_component(cal, ICAL_VEVENT_COMPONENT);
    icalproperty* start =
        ev ? icalcomponent_get_first_property(ev, ICAL_DTSTART_PROPERTY) : nullptr;
    if (start == nullptr || icalcomponent_get_first_property(ev, ICAL_RRULE_PROPERTY) == nullptr)
        return out;
    icalparameter* tzid = icalproperty_get_first_parameter(start, ICAL_TZID_PARAMETER);
    icaltimezone* zone =
        tzid ? icalcomponent_get_timezone(cal, icalparameter_get_tzid(tzid)) : nullptr;
    std::vector<time_t> starts;
    icaltimezone* utc = icaltimezone_get_utc_timezone();
    icalcomponent_foreach_recurrence(
        ev, icaltime_from_timet_with_zone(0, 0, utc),
        icaltime_from_timet_with_zone(4102444800, 0, utc),
        [](icalcomponent*, struct icaltime_span* span, void* data) {
            static_cast<std::vector<time_t>*>(data)->push_back(span->start);
        },
        &starts);
    for (time_t t : starts) {
        if (out.size() == n) break;
        const icaltimetype l = icaltime_from_timet_with_zone(t, 0, zone ? zone : utc);
        char text[32];
        std::snprintf(text, sizeof text, "%04d%02d%02dT%02d%02d%02d", l.year, l.month, l.day,
                      l.hour, l.minute, l.second);
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
             Message m = meeting("IPM.Appointment", kNewYork, mapiTime(2024, 3, 9, 5),
                                 mapiTime(2024, 3, 11, 4));
             return m.flag(kAppointment, 0x8215, true), m;
         },
         {"DTSTART;VALUE=DATE:20240309", "DTEND;VALUE=DATE:20240311", "METHOD:PUBLISH",
          "TZOFFSETFROM:-0500", "TZOFFSETTO:-0400", "RRULE:FREQ=YEARLY;BYDAY=2SU;BYMONTH=3"},
         {},
         {}},
        {"weekly on Tuesday and Thursday, ten times",
         [=] {
             return recurring(kBerlin, mapiTime(2024, 1, 9, 9), mapiTime(2024, 1, 9, 10),
                              {kWeekly,
                               1,
                               1,
                               {0x14},
                               0x2022,
                               10,
                               jan9,
                               minutes1601(2024, 2, 8),
                               600,
                               660,
                               {},
                               {},
                               {}});
         },
         {"DTSTART;TZID=W. Europe Standard Time:20240109T100000", "TZOFFSETTO:+0100"},
         {"EXDATE"},
         {"20240109T100000", "20240111T100000", "20240116T100000", "20240118T100000",
          "20240123T100000", "20240125T100000", "20240130T100000", "20240201T100000",
          "20240206T100000", "20240208T100000"}},
        {"monthly on the second Tuesday, without end",
         [=] {
             return recurring(
                 kNewYork, mapiTime(2024, 1, 9, 14), mapiTime(2024, 1, 9, 15),
                 {kMonthly, 3, 1, {0x04, 2}, 0x2023, 10, jan9, 0x5AE980DF, 540, 600, {}, {}, {}});
         },
         {"DTSTART;TZID=Eastern Standard Time:20240109T090000"},
         {},
         {"20240109T090000", "20240213T090000", "20240312T090000", "20240409T090000"}},
        {"daily until a date, one instance deleted and one moved",
         [=] {
             return recurring(kBerlin, mapiTime(2024, 4, 1, 7), mapiTime(2024, 4, 1, 8),
                              {kDaily,
                               0,
                               1440,
                               {},
                               0x2021,
                               5,
                               apr1,
                               apr1 + 4 * 1440,
                               540,
                               600,
                               {apr1 + 1440, apr1 + 2 * 1440},
                               {apr1 + 2 * 1440},
                               {{apr1 + 2 * 1440 + 840, apr1 + 2 * 1440 + 900,
                                 apr1 + 2 * 1440 + 540, "Room 2"}}});
         },
         {"EXDATE;TZID=W. Europe Standard Time:20240402T090000",
          "RECURRENCE-ID;TZID=W. Europe Standard Time:20240403T090000",
          "DTSTART;TZID=W. Europe Standard Time:20240403T140000",
          "DTEND;TZID=W. Europe Standard Time:20240403T150000", "LOCATION:Room 2"},
         {},
         {"20240401T090000", "20240403T090000", "20240404T090000", "20240405T090000"}},
        {"a zone without daylight time",
         [] {
             return meeting("IPM.Appointment", kTokyo, mapiTime(2024, 7, 1, 0),
                            mapiTime(2024, 7, 1, 1));
         },
         {"DTSTART;TZID=Tokyo Standard Time:20240701T090000", "TZOFFSETFROM:+0900",
          "TZOFFSETTO:+0900"},
         {"DAYLIGHT"},
         {}},
        {"an unusable zone definition gives way to the zone structure",
         [] {
             Message m = meeting("IPM.Appointment", kMonth13, mapiTime(2024, 7, 1, 0),
                                 mapiTime(2024, 7, 1, 1));
             Blob tz;  // bias, standard and daylight bias, then two empty transitions
             tz.u32(static_cast<uint32_t>(-540)).u32(0).u32(0).zeros(36);
             return m.binary(kAppointment, 0x8233, tz.bytes()), m;
         },
         {"DTSTART;TZID=Custom:20240701T090000"},
         {"DAYLIGHT"},
         {}},
        {"the southern hemisphere keeps daylight time over new year",
         [] {
             return meeting("IPM.Appointment", kSydney, mapiTime(2024, 1, 15, 1),
                            mapiTime(2024, 1, 15, 2));
         },
         {"DTSTART;TZID=AUS Eastern Standard Time:20240115T120000",
          "RRULE:FREQ=YEARLY;BYDAY=1SU;BYMONTH=10", "TZOFFSETTO:+1100"},
         {},
         {}},
        {"a meeting request to two attendees and a room",
         [] {
             Message m = meeting("IPM.Schedule.Meeting.Request", kBerlin, mapiTime(2024, 6, 3, 8),
                                 mapiTime(2024, 6, 3, 9));
             m.recipients = {recipient("Bo Chen", "bo@example.org", 1),
                             recipient("Cy", "cy@example.org", 2),
                             recipient("Room 1", "room1@example.org", 3),
                             recipient("Ana Lima", "ana@example.org", 1, 1, 0x0003)};
             m.number(0x00170003, 2).number(kAppointment, 0x8201, 3);
             return m.flag(kCommon, 0x8503, true).number(kCommon, 0x8501, 15), m;
         },
         {"METHOD:REQUEST", "ORGANIZER;CN=Ana Lima:mailto:ana@example.org",
          "ATTENDEE;CN=Bo "
          "Chen;ROLE=REQ-PARTICIPANT;PARTSTAT=NEEDS-ACTION;RSVP=TRUE:mailto:bo@example.org",
          "ATTENDEE;CN=Cy;ROLE=OPT-PARTICIPANT;PARTSTAT=NEEDS-ACTION;RSVP=TRUE:mailto:cy@example."
          "org",
          "ATTENDEE;CN=Room "
          "1;ROLE=NON-PARTICIPANT;CUTYPE=RESOURCE;PARTSTAT=NEEDS-ACTION;RSVP=TRUE:mailto:room1@"
          "example.org",
          "UID:"
          "040000008200E00074C5B7101A82E008000000000000000000000000000000000000000004000000D4C3B2A"
          "1",
          "PRIORITY:1", "SEQUENCE:3", "TRIGGER:-PT15M", "LOCATION:Room 1",
          "X-MICROSOFT-CDO-BUSYSTATUS:BUSY"},
         {"ATTENDEE;CN=Ana Lima"},
         {}},
        {"a cancellation",
         [] {
             Message m = meeting("IPM.Schedule.Meeting.Canceled", kBerlin, mapiTime(2024, 6, 3, 8),
                                 mapiTime(2024, 6, 3, 9));
             m.recipients = {recipient("Bo Chen", "bo@example.org", 1)};
             return m.text(0x0070001E, "Planning"), m;
         },
         {"METHOD:CANCEL", "STATUS:CANCELLED", "SUMMARY:Planning",
          "ORGANIZER;CN=Ana Lima:mailto:ana@example.org"},
         {"RSVP"},
         {}},
        {"a declined meeting goes back to the organizer",
         [] {
             Message m = meeting("IPM.Schedule.Meeting.Resp.Neg", kBerlin, mapiTime(2024, 6, 3, 8),
                                 mapiTime(2024, 6, 3, 9));
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
             m.text(PR_SUBJECT, "Report")
                 .text(PR_SENT_REPRESENTING_EMAIL, "ana@example.org")
                 .time(kTask, 0x8104, mapiTime(2024, 2, 1))
                 .time(kTask, 0x8105, mapiTime(2024, 2, 9));
             m.number(kTask, 0x8101, 1);
             m.props.r8(m.named(kTask, 0x8102, 0x0005), 0.25);
             return m;
         },
         {"BEGIN:VTODO", "DTSTART;VALUE=DATE:20240201", "DUE;VALUE=DATE:20240209",
          "STATUS:IN-PROCESS", "PERCENT-COMPLETE:25", "SUMMARY:Report"},
         {"COMPLETED"},
         {}},
        {"a contact with three addresses and a picture",
         contact,
         {"FN:Ana Lima", "N:Lima;Ana;;;", "EMAIL;PREF=1:ana@example.org",
          "EMAIL;PREF=2:ana.lima@example.net", "EMAIL;PREF=3:al@example.com", "ORG:Example\\; Co",
          "TITLE:Engineer", "BDAY:19900504", "TEL;VALUE=text;TYPE=cell:+55 11 5555-0101",
          "TEL;VALUE=text;TYPE=work,voice:+55 11 5555-0100",
          "ADR;TYPE=home:;;Rua A\\, 1;Sao Paulo;;;",
          "PHOTO:data:image/png;base64,iVBORw0KGgoAAAANSUhEUg=="},
         {"KIND"},
         {}},
        {"a distribution list",
         [] {
             Message m;
             m.cls = "IPM.DistList";
             m.text(PR_DISPLAY_NAME, "Team");
             m.props.namedId(kAddress, 0x8054)
                 .mvBinary(uint32_t{m.next++} << 16 | 0x1102,
                           {oneOff("Bo", "SMTP", "bo@example.org"),
                            oneOff("Cy", "SMTP", "cy@example.org"),
                            oneOff("Dee", "EX", "/o=Org/cn=Dee"), "short"});
             return m;
         },
         {"KIND:group", "FN:Team", "MEMBER:mailto:bo@example.org", "MEMBER:mailto:cy@example.org"},
         {"MEMBER:mailto:/o"},
         {},
         TNEF_CONVERT_NO_ADDRESS},
        {"line breaks in names and addresses start no property",
         [] {
             Message m = meeting("IPM.Schedule.Meeting.Request", kBerlin, mapiTime(2024, 6, 3, 8),
                                 mapiTime(2024, 6, 3, 9));
             // A bad SMTP address gives way to the plain one.
             m.text(0x5D02001E, "ana@example.org\r\nATTENDEE:mailto:evil@example.org");
             m.recipients = {recipient("Bo\r\nX-EVIL:1\"", "bo@example.org", 1)};
             return m;
         },
         {"ATTENDEE;CN=\"Bo "
          "X-EVIL:1'\";ROLE=REQ-PARTICIPANT;PARTSTAT=NEEDS-ACTION;RSVP=TRUE:mailto:bo@example.org",
          "ORGANIZER;CN=Ana Lima:mailto:ana@example.org"},
         {"\nX-EVIL", "evil@"},
         {}},
        // Hostile structures: each is named in the flags, and the rest is written.
        {"a count near 2^32 is no series",
         [=] {
             return recurring(
                 kBerlin, mapiTime(2024, 1, 9, 9), mapiTime(2024, 1, 9, 10),
                 {kWeekly, 1, 1, {0x04}, 0x2022, 0xFFFFFFFF, jan9, jan9, 600, 660, {}, {}, {}});
         },
         {"DTSTART;TZID=W. Europe Standard Time:20240109T100000"},
         {"RRULE:FREQ=WEEKLY", "COUNT"},
         {},
         TNEF_CONVERT_BAD_RECURRENCE},
        {"more exceptions announced than the pattern holds",
         [=] {
             Pattern p{kDaily,
                       0,
                       1440,
                       {},
                       0x2022,
                       3,
                       apr1,
                       apr1,
                       540,
                       600,
                       {apr1},
                       {apr1},
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
             std::string blob =
                 recurrence({kDaily, 0, 1440, {}, 0x2022, 3, apr1, apr1, 540, 600, {}, {}, {}});
             blob.replace(34, 4, "\x00\x00\x00\x40"s);  // deleted instances: 2^30
             Message m = meeting("IPM.Appointment", kBerlin, mapiTime(2024, 4, 1, 7),
                                 mapiTime(2024, 4, 1, 8));
             return m.binary(kAppointment, 0x8216, blob), m;
         },
         {"DTSTART;TZID=W. Europe Standard Time:20240401T090000"},
         {"RRULE:FREQ=DAILY", "EXDATE"},
         {},
         TNEF_CONVERT_BAD_RECURRENCE},
        {"a subject of blanks and a start libical cannot write",
         [] {
             Message m;
             m.cls = "IPM.Appointment";
             return m.text(PR_SUBJECT, " \t").time(kAppointment, 0x820D, mapiTime(3100, 1, 1)), m;
         },
         {"METHOD:PUBLISH"},
         {"SUMMARY", "DTSTART", "00000000"},
         {},
         TNEF_CONVERT_NO_START | TNEF_CONVERT_NO_ORGANIZER},
        {"an instance that starts after its day",
         [=] {
             return recurring(kBerlin, mapiTime(2024, 4, 1, 7), mapiTime(2024, 4, 1, 8),
                              {kDaily, 0, 1440, {}, 0x2022, 3, apr1, apr1, 2000, 2060, {}, {}, {}});
         },
         {"DTSTART;TZID=W. Europe Standard Time:20240401T090000"},
         {"RRULE:FREQ=DAILY"},
         {},
         TNEF_CONVERT_BAD_RECURRENCE},
        {"a time zone rule in month 13",
         [] {
             return meeting("IPM.Appointment", kMonth13, mapiTime(2024, 6, 3, 8),
                            mapiTime(2024, 6, 3, 9));
         },
         {"DTSTART:20240603T080000Z", "DTEND:20240603T090000Z"},
         {"VTIMEZONE", "TZID"},
         {},
         TNEF_CONVERT_BAD_TIMEZONE},
    };
}

// Runs the Python checks over a folder of outputs; true when they all pass.
bool pythonAccepts(const std::string& dir) {
    const std::string cmd =
        "/usr/bin/python3 " TNEF_SOURCE_DIR "/tests/convert/check_outputs.py " + dir;
    return std::system(cmd.c_str()) == 0;
}

void expectParses(const std::string& name, const Output& out, bool itip = true) {
    if (out.converted.kind != TNEF_CONVERT_ICALENDAR) return;
    icalcomponent* cal = icalparser_parse_string(out.converted.text.c_str());
    ASSERT_NE(cal, nullptr) << name;
    EXPECT_EQ(icalcomponent_count_errors(cal), 0) << name << "\n"
                                                  << icalcomponent_as_ical_string(cal);
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
            EXPECT_NE(out.unfolded.find(line + "\n"), std::string::npos) << line << "\n"
                                                                         << out.unfolded;
        for (const std::string& name : c.absent)
            EXPECT_EQ(out.unfolded.find(name), std::string::npos) << name;
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
        home.write("out/case" + std::to_string(n++) +
                       (out.converted.kind == TNEF_CONVERT_VCARD ? ".vcf" : ".ics"),
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

// The shared corpus's meeting request, task and list convert whole and satisfy iTIP; the
// facts their own properties state are checked by check_outputs.py, which reads the reply
// out of its mail too.
TEST(Convert, CorpusItemsConvertWholeAndSatisfyItip) {
    const std::string corpus = corpusDir();
    if (corpus.empty()) GTEST_SKIP() << "no shared corpus beside this checkout (set TNEF_CORPUS)";
    for (const char* file :
         {"content/files/horde__winmail2.dat", "content/files/horde__tnef_vnote.tnef",
          "files/tnefparse__tests__examples__IPM-DistList.tnef"}) {
        SCOPED_TRACE(file);
        OsFd in(os_open((corpus + "/" + file).c_str(), O_RDONLY, 0));
        TnefMessageView view;
        tnef_ReadMessage(in.get(), &view);
        // The task travels inside its request; the list inside a note.
        const TnefMessageView& item =
            view.embedded.empty() || view.messageClass == "IPM.TaskRequest" ? view
                                                                            : view.embedded[0];
        const Output out{tnef_ConvertMessage(in.get(), item), {}};
        ASSERT_NE(out.converted.kind, TNEF_CONVERT_NONE);
        EXPECT_EQ(out.converted.flags, 0u);
        expectParses(file, out);
    }
}

}  // namespace
