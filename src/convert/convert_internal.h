// What the converters share: the property sets and names they read, typed access to a
// message view's entries, and the calendar structures read from binary values.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tnef/platform/mapi_calendar.h"
#include "tnef/tnef_convert.h"
#include "tnef/tnef_reader.h"

namespace tnefconv {

using Entries = std::vector<TnefPropEntry>;

// Property sets, in their stream form (the first three fields little-endian).
inline constexpr TnefGuid PSETID_Appointment = {0x02, 0x20, 0x06, 0x00, 0x00, 0x00, 0x00, 0x00,
                                                0xC0, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x46};
inline constexpr TnefGuid PSETID_Task = {0x03, 0x20, 0x06, 0x00, 0x00, 0x00, 0x00, 0x00,
                                         0xC0, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x46};
inline constexpr TnefGuid PSETID_Address = {0x04, 0x20, 0x06, 0x00, 0x00, 0x00, 0x00, 0x00,
                                            0xC0, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x46};
inline constexpr TnefGuid PSETID_Common = {0x08, 0x20, 0x06, 0x00, 0x00, 0x00, 0x00, 0x00,
                                           0xC0, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x46};
inline constexpr TnefGuid PSETID_Meeting = {0x90, 0xDA, 0xD8, 0x6E, 0x0B, 0x45, 0x1B, 0x10,
                                            0x98, 0xDA, 0x00, 0xAA, 0x00, 0x3F, 0x13, 0x05};

// Property identifiers (the tag's upper half) of the tagged properties read.
enum TagId : uint16_t {
    PR_IMPORTANCE = 0x0017,
    PR_MESSAGE_CLASS = 0x001A,
    PR_SENSITIVITY = 0x0036,
    PR_SUBJECT = 0x0037,
    PR_CLIENT_SUBMIT_TIME = 0x0039,
    PR_SENT_REPRESENTING_NAME = 0x0042,
    PR_RESPONSE_REQUESTED = 0x0063,
    PR_SENT_REPRESENTING_ADDRTYPE = 0x0064,
    PR_SENT_REPRESENTING_EMAIL_ADDRESS = 0x0065,
    PR_CONVERSATION_TOPIC = 0x0070,
    PR_RECIPIENT_TYPE = 0x0C15,
    PR_SENDER_NAME = 0x0C1A,
    PR_SENDER_ADDRTYPE = 0x0C1E,
    PR_SENDER_EMAIL_ADDRESS = 0x0C1F,
    PR_NORMALIZED_SUBJECT = 0x0E1D,
    PR_PRIMARY_SEND_ACCT = 0x0E28,
    PR_SEARCH_KEY = 0x300B,
    PR_DISPLAY_NAME = 0x3001,
    PR_ADDRTYPE = 0x3002,
    PR_EMAIL_ADDRESS = 0x3003,
    PR_CREATION_TIME = 0x3007,
    PR_LAST_MODIFICATION_TIME = 0x3008,
    PR_SMTP_ADDRESS = 0x39FE,
    PR_SENDER_SMTP_ADDRESS = 0x5D01,
    PR_SENT_REPRESENTING_SMTP_ADDRESS = 0x5D02,
    PR_RECIPIENT_FLAGS = 0x5FFD,
    PR_RECIPIENT_TRACKSTATUS = 0x5FFF,
    PR_ATTACHMENT_CONTACTPHOTO = 0x7FFF,
};

// Numeric names read, with their sets.
struct NamedId {
    const TnefGuid* set;
    uint32_t lid;
};
inline constexpr NamedId PidLidAppointmentSequence{&PSETID_Appointment, 0x8201};
inline constexpr NamedId PidLidBusyStatus{&PSETID_Appointment, 0x8205};
inline constexpr NamedId PidLidLocation{&PSETID_Appointment, 0x8208};
inline constexpr NamedId PidLidAppointmentStartWhole{&PSETID_Appointment, 0x820D};
inline constexpr NamedId PidLidAppointmentEndWhole{&PSETID_Appointment, 0x820E};
inline constexpr NamedId PidLidAppointmentSubType{&PSETID_Appointment, 0x8215};
inline constexpr NamedId PidLidAppointmentRecur{&PSETID_Appointment, 0x8216};
inline constexpr NamedId PidLidIntendedBusyStatus{&PSETID_Appointment, 0x8224};
inline constexpr NamedId PidLidExceptionReplaceTime{&PSETID_Appointment, 0x8228};
inline constexpr NamedId PidLidTimeZoneStruct{&PSETID_Appointment, 0x8233};
inline constexpr NamedId PidLidTimeZoneDescription{&PSETID_Appointment, 0x8234};
inline constexpr NamedId PidLidToAttendeesString{&PSETID_Appointment, 0x823B};
inline constexpr NamedId PidLidCcAttendeesString{&PSETID_Appointment, 0x823C};
inline constexpr NamedId PidLidTimeZoneDefinitionStartDisplay{&PSETID_Appointment, 0x825E};
inline constexpr NamedId PidLidTimeZoneDefinitionRecur{&PSETID_Appointment, 0x8260};
inline constexpr NamedId PidLidTaskStatus{&PSETID_Task, 0x8101};
inline constexpr NamedId PidLidPercentComplete{&PSETID_Task, 0x8102};
inline constexpr NamedId PidLidTaskStartDate{&PSETID_Task, 0x8104};
inline constexpr NamedId PidLidTaskDueDate{&PSETID_Task, 0x8105};
inline constexpr NamedId PidLidTaskDateCompleted{&PSETID_Task, 0x810F};
inline constexpr NamedId PidLidTaskComplete{&PSETID_Task, 0x811C};
inline constexpr NamedId PidLidReminderDelta{&PSETID_Common, 0x8501};
inline constexpr NamedId PidLidReminderSet{&PSETID_Common, 0x8503};
inline constexpr NamedId PidLidTaskGlobalId{&PSETID_Common, 0x8519};
inline constexpr NamedId PidLidWhere{&PSETID_Meeting, 0x0002};
inline constexpr NamedId PidLidGlobalObjectId{&PSETID_Meeting, 0x0003};
inline constexpr NamedId PidLidTimeZone{&PSETID_Meeting, 0x000C};
inline constexpr NamedId PidLidAttendeeCriticalChange{&PSETID_Meeting, 0x0001};
inline constexpr NamedId PidLidOwnerCriticalChange{&PSETID_Meeting, 0x001A};
inline constexpr NamedId PidLidCleanGlobalObjectId{&PSETID_Meeting, 0x0023};

// ---- Typed access to a view's entries ----------------------------------------------------

// The first entry of the tagged property with this identifier, whatever its type.
const TnefPropEntry* findTag(const Entries& entries, uint16_t id);
const TnefPropEntry* findNamed(const Entries& entries, NamedId name);

// The first value as the type asks, none when absent or of another kind.
std::optional<std::string> textOf(const TnefPropEntry* e);  // a string; empty counts as none
std::optional<int64_t> integerOf(const TnefPropEntry* e);   // PT_I2, PT_LONG, PT_I8, PT_BOOLEAN
std::optional<double> realOf(const TnefPropEntry* e);
std::optional<uint64_t> timeOf(const TnefPropEntry* e);  // PT_SYSTIME, 100 ns since 1601
// A binary value's bytes (the first one of a multi-valued property), at most limit of them.
std::optional<std::string> bytesOf(int fd, const TnefPropEntry* e, uint32_t limit);
std::vector<std::string> allBytesOf(int fd, const TnefPropEntry* e, uint32_t limit);
// Bytes of a file range, at most limit.
std::string readRange(int fd, uint64_t offset, uint64_t length, uint64_t limit);

// Text in another encoding as UTF-8 (bytes it cannot convert are dropped).
std::string toUtf8(std::string_view bytes, const char* charset);

// Minutes since 1601-01-01 of a MAPI time, and the civil fields of such minutes.
inline int64_t minutesOf(uint64_t mapiTime) {
    return static_cast<int64_t>(mapiTime / 600000000ULL);
}
struct Civil {
    int64_t year;
    unsigned month, day, hour, minute;
};
Civil civilOfMinutes(int64_t minutes);
int64_t minutesOfCivil(int64_t year, unsigned month, unsigned day);

// ---- Calendar structures -----------------------------------------------------------------

// One rule of a time zone definition: the zone as the 48-byte structure describes it, from
// the given year on.
struct TzRule {
    uint16_t year = 0;
    MAPI_TIMEZONE tz{};
};
struct TzDefinition {
    std::string keyName;  // "W. Europe Standard Time"
    std::vector<TzRule> rules;
};
// Reads a time zone definition (version, key name, rules). False when any part of it lies
// beyond the bytes or its rules are not in order.
bool parseTzDefinition(std::string_view bytes, TzDefinition* out);
// Whether a zone's transitions can be read as yearly rules (or it keeps one offset all year)
// and its offsets lie within a day.
bool usableZone(const MAPI_TIMEZONE& tz);
bool keepsDaylight(const MAPI_TIMEZONE& tz);

struct RecurException {
    uint32_t start = 0, end = 0, originalStart = 0;  // local minutes since 1601
    uint16_t overrides = 0;                          // which of the fields below are given
    std::string subject, location;                   // UTF-8
    uint32_t busyStatus = 0, reminderDelta = 0, reminderSet = 0, subType = 0;
};

// Overrides of an exception.
inline constexpr uint16_t ARO_SUBJECT = 0x0001;
inline constexpr uint16_t ARO_MEETINGTYPE = 0x0002;
inline constexpr uint16_t ARO_REMINDERDELTA = 0x0004;
inline constexpr uint16_t ARO_REMINDER = 0x0008;
inline constexpr uint16_t ARO_LOCATION = 0x0010;
inline constexpr uint16_t ARO_BUSYSTATUS = 0x0020;
inline constexpr uint16_t ARO_ATTACHMENT = 0x0040;
inline constexpr uint16_t ARO_SUBTYPE = 0x0080;
inline constexpr uint16_t ARO_APPTCOLOR = 0x0100;

// The appointment recurrence pattern.
struct Recurrence {
    uint16_t frequency = 0;    // 0x200A daily, 0x200B weekly, 0x200C monthly, 0x200D yearly
    uint16_t patternType = 0;  // 0 day, 1 week, 2 month, 3 nth weekday, 4 month end, 0xA-0xC
                               // their Hijri forms
    uint16_t calendarType = 0;
    uint32_t period = 0;      // minutes (daily), weeks, or months
    uint32_t weekMask = 0;    // week and nth: bit 0 Sunday
    uint32_t dayOfMonth = 0;  // month
    uint32_t nth = 0;         // nth: 1 to 4, 5 the last
    uint32_t endType = 0;     // 0x2021 by date, 0x2022 by count, 0x2023 or ~0 never
    uint32_t occurrences = 0;
    uint32_t firstDow = 0;
    std::vector<uint32_t> deleted, modified;  // local midnights, minutes since 1601
    uint32_t startDate = 0, endDate = 0;      // local midnights of the range
    uint32_t startOffset = 0, endOffset = 0;  // minutes after midnight of each instance
    std::vector<RecurException> exceptions;
    bool exceptionsCut = false;  // the exceptions announced were not all there
};
inline constexpr uint32_t kEndByDate = 0x2021;
inline constexpr uint32_t kEndByCount = 0x2022;

// Reads the pattern; false when the pattern itself cannot be read (its exceptions may be
// cut: then exceptionsCut). 8-bit exception texts are read in charset.
bool parseRecurrence(std::string_view bytes, const char* charset, Recurrence* out);

// The UID other clients give a meeting: its global object identifier with the instance date
// cleared, in upper-case hexadecimal, or the UID a non-MAPI client gave it when the
// identifier carries one.
std::string uidOfGlobalObjectId(std::string_view bytes);

// ---- The converters ----------------------------------------------------------------------

TnefConverted toICalendar(int fd, const TnefMessageView& view, std::string_view messageClass);
TnefConverted toVCard(int fd, const TnefMessageView& view, std::string_view messageClass);

// Text with CR LF as LF, other control characters but tab dropped.
std::string cleanText(std::string_view text);
// Text for a parameter value, which cannot hold a line break or a double quote: control
// characters become spaces, double quotes single ones.
std::string paramText(std::string_view text);
// Whether text can stand as an e-mail address in a mailto: URI: local part, @, domain, and
// no blank, control character or character that would end or quote the value.
bool isAddress(std::string_view text);

}  // namespace tnefconv
