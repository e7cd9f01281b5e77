// Calendar items and contacts laid out as TNEF streams, field by field, for the conversion
// tests and the fuzz target's seeds: time zone definitions, recurrence patterns with their
// exceptions, one-off list members, and messages that carry them as named properties.
#pragma once

#include <chrono>
#include <string>
#include <utility>
#include <vector>

#include "support/tnef_builder.h"

namespace calbuild {

using tnefbuild::PropList;
using tnefbuild::Stream;
using namespace std::string_literals;

using Guid = tnefbuild::Guid;
constexpr Guid kAppointment = {0x02, 0x20, 0x06, 0, 0, 0, 0, 0, 0xC0, 0, 0, 0, 0, 0, 0, 0x46};
constexpr Guid kTask = {0x03, 0x20, 0x06, 0, 0, 0, 0, 0, 0xC0, 0, 0, 0, 0, 0, 0, 0x46};
constexpr Guid kAddress = {0x04, 0x20, 0x06, 0, 0, 0, 0, 0, 0xC0, 0, 0, 0, 0, 0, 0, 0x46};
constexpr Guid kCommon = {0x08, 0x20, 0x06, 0, 0, 0, 0, 0, 0xC0, 0, 0, 0, 0, 0, 0, 0x46};
constexpr Guid kMeeting = {0x90, 0xDA, 0xD8, 0x6E, 0x0B, 0x45, 0x1B, 0x10,
                           0x98, 0xDA, 0x00, 0xAA, 0x00, 0x3F, 0x13, 0x05};

// ---- Times, computed with the standard library's calendar --------------------------------

// Minutes since 1601-01-01 of a civil date and time.
inline uint32_t minutes1601(int y, unsigned mo, unsigned d, unsigned h = 0, unsigned mi = 0) {
    using namespace std::chrono;
    const auto days = sys_days(year(y) / month(mo) / day(d)) - sys_days(year(1601) / January / 1);
    return static_cast<uint32_t>(days.count() * 1440 + h * 60 + mi);
}
inline uint64_t mapiTime(int y, unsigned mo, unsigned d, unsigned h = 0, unsigned mi = 0) {
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

inline void systemTime(Blob& b, const Transition& t) {
    b.u16(0).u16(t.month).u16(t.dayOfWeek).u16(t.week).u16(t.hour).u16(0).u16(0).u16(0);
}

// A time zone definition: version 2.1, the key name, one rule from 1601 on.
inline std::string tzDefinition(const Zone& z) {
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

inline std::string recurrence(const Pattern& p) {
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
    b.u16(p.announcedChanges == 0xFFFF ? static_cast<uint16_t>(p.changes.size())
                                       : p.announcedChanges);
    for (const Change& c : p.changes) {
        b.u32(c.start).u32(c.end).u32(c.original).u16(c.location.empty() ? 0 : 0x0010);
        if (!c.location.empty())
            b.u16(static_cast<uint16_t>(c.location.size() + 1))
                .u16(static_cast<uint16_t>(c.location.size()))
                .raw(c.location);
    }
    b.u32(0);  // reserved block
    for (const Change& c : p.changes) {
        b.u32(4).u32(0).u32(0);  // change highlight, reserved block
        if (c.location.empty()) continue;
        const std::string wide = tnefbuild::utf16le(c.location);
        b.u32(c.start)
            .u32(c.end)
            .u32(c.original)
            .u16(static_cast<uint16_t>(c.location.size()))
            .raw(wide)
            .u32(0);
    }
    return b.u32(0).bytes();
}

// A one-off entry identifier of a list member, in UTF-16.
inline std::string oneOff(const std::string& name, const std::string& type,
                          const std::string& address) {
    Blob b;
    b.u32(0)
        .raw("\x81\x2B\x1F\xA4\xBE\xA3\x10\x19\x9D\x6E\x00\xDD\x01\x0F\x54\x02"s)
        .u16(0)
        .u16(0x8000);
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
    Message& time(const Guid& set, uint32_t lid, uint64_t t) {
        props.i8(named(set, lid, 0x0040), t);
        return *this;
    }
    Message& number(const Guid& set, uint32_t lid, uint32_t v) {
        props.long32(named(set, lid, 0x0003), v);
        return *this;
    }
    Message& flag(const Guid& set, uint32_t lid, bool v) {
        props.i2(named(set, lid, 0x000B), v);
        return *this;
    }
    Message& text(const Guid& set, uint32_t lid, const std::string& v) {
        props.string8(named(set, lid, 0x001E), v);
        return *this;
    }
    Message& binary(const Guid& set, uint32_t lid, const std::string& v) {
        props.binary(named(set, lid, 0x0102), v);
        return *this;
    }
    Message& text(uint32_t tag, const std::string& v) {
        props.string8(tag, v);
        return *this;
    }
    Message& number(uint32_t tag, uint32_t v) {
        props.long32(tag, v);
        return *this;
    }

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
inline Message meeting(const std::string& cls, const Zone& zone, uint64_t start, uint64_t end) {
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
    goid.raw("\x04\x00\x00\x00\x82\x00\xE0\x00\x74\xC5\xB7\x10\x1A\x82\xE0\x08"s)
        .zeros(4)
        .u64(0)
        .zeros(8)
        .u32(4)
        .u32(0xA1B2C3D4);
    m.binary(kMeeting, 0x0003, goid.bytes());
    return m;
}

inline Message recurring(const Zone& zone, uint64_t start, uint64_t end, const Pattern& p) {
    Message m = meeting("IPM.Appointment", zone, start, end);
    m.binary(kAppointment, 0x8216, recurrence(p)).flag(kAppointment, 0x8223, true);
    return m;
}

inline PropList recipient(const std::string& name, const std::string& address, uint32_t type,
                          uint32_t track = 0, uint32_t flags = 0) {
    PropList r;
    r.long32(0x0C150003, type)
        .string8(PR_DISPLAY_NAME, name)
        .string8(0x3002001E, "SMTP")
        .string8(0x3003001E, address);
    if (track != 0) r.long32(0x5FFF0003, track);
    if (flags != 0) r.long32(0x5FFD0003, flags);
    return r;
}

inline Message contact() {
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
                                PropList()
                                    .long32(0x37050003, 1)
                                    .string8(0x3707001E, "ContactPicture.jpg")
                                    .i2(0x7FFF000B, 1)
                                    .bytes())
                        .bytes();
    return m;
}

// A few streams of each kind, for seeding the fuzz target.
inline std::vector<std::pair<std::string, std::string>> calendarSeeds() {
    const uint32_t apr1 = minutes1601(2024, 4, 1);
    Message request = meeting("IPM.Schedule.Meeting.Request", kBerlin, mapiTime(2024, 6, 3, 8),
                              mapiTime(2024, 6, 3, 9));
    request.recipients = {recipient("Bo Chen", "bo@example.org", 1),
                          recipient("Room 1", "room1@example.org", 3)};
    Message list;
    list.cls = "IPM.DistList";
    list.text(0x3001001E, "Team");
    list.props.namedId(kAddress, 0x8054)
        .mvBinary(uint32_t{list.next++} << 16 | 0x1102, {oneOff("Bo", "SMTP", "bo@example.org")});
    return {
        {"request", request.bytes()},
        {"series", recurring(kSydney, mapiTime(2024, 4, 1, 7), mapiTime(2024, 4, 1, 8),
                             {0x200A,
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
                              {{apr1 + 2 * 1440 + 840, apr1 + 2 * 1440 + 900, apr1 + 2 * 1440 + 540,
                                "Room 2"}}})
                       .bytes()},
        {"nth",
         recurring(kNewYork, mapiTime(2024, 1, 9, 14), mapiTime(2024, 1, 9, 15),
                   {0x200D, 3, 12, {0x3E, 5}, 0x2022, 10, apr1, 0x5AE980DF, 540, 600, {}, {}, {}})
             .bytes()},
        {"contact", contact().bytes()},
        {"list", list.bytes()},
    };
}

}  // namespace calbuild
