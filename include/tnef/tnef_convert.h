// Meetings, tasks and contacts out of a TNEF message: iCalendar (with iTIP methods) for
// meeting requests, cancellations, replies, appointments and tasks, vCard 4.0 for contacts
// and distribution lists. Part of libtnef-convert, which links libical; the codec library
// itself does not.
//
//   TnefMessageView view;
//   tnef_ReadMessage(fd, &view);
//   TnefConverted out = tnef_ConvertMessage(fd, view);
//   if (out.kind == TNEF_CONVERT_ICALENDAR) write(out.text) ...   // invite.ics
//
// Nothing here trusts a count or a length inside a calendar structure further than the
// bytes that hold it: a structure that cannot be read is left out and named in flags.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "tnef/tnef_reader.h"

// Everything this header declares is part of the library's exported interface.
#pragma GCC visibility push(default)

enum TnefConvertKind {
    TNEF_CONVERT_NONE = 0,       // the message is neither a calendar item nor a contact
    TNEF_CONVERT_ICALENDAR = 1,  // text/calendar, RFC 5545
    TNEF_CONVERT_VCARD = 2,      // text/vcard, RFC 6350
};

// What a conversion could not carry over; the rest of the item is written all the same.
inline constexpr uint32_t TNEF_CONVERT_BAD_RECURRENCE = 0x01;  // the recurrence pattern could
                                                               // not be read: no RRULE
inline constexpr uint32_t TNEF_CONVERT_EXCEPTIONS_CUT = 0x02;  // changed instances that could
                                                               // not be read, or that name no
                                                               // instance of the series, are
                                                               // left out
inline constexpr uint32_t TNEF_CONVERT_BAD_TIMEZONE = 0x04;    // the zone's rules are unusable:
                                                               // times written in UTC
inline constexpr uint32_t TNEF_CONVERT_NO_ORGANIZER = 0x08;    // no address for the organizer
                                                               // (iTIP wants one for every
                                                               // method)
inline constexpr uint32_t TNEF_CONVERT_NO_ADDRESS = 0x10;      // an attendee or list member
                                                               // without an address left out
inline constexpr uint32_t TNEF_CONVERT_NO_START = 0x20;        // an event without a start time
inline constexpr uint32_t TNEF_CONVERT_UNSUPPORTED = 0x40;     // a recurrence on a calendar
                                                               // other than the Gregorian one

struct TnefConverted {
    TnefConvertKind kind = TNEF_CONVERT_NONE;
    std::string text;       // the .ics or .vcf, UTF-8, CRLF line ends
    std::string method;     // METHOD of the iCalendar (REQUEST, CANCEL, REPLY, PUBLISH)
    std::string component;  // VEVENT, VTODO or VCARD
    uint32_t flags = 0;     // TNEF_CONVERT_ bits
};

// Which conversion a message class calls for: meeting requests, cancellations and replies
// (IPM.Schedule.Meeting.* and their older IPM.Microsoft Schedule.* names), appointments,
// tasks and task requests give iCalendar; contacts and distribution lists vCard.
TnefConvertKind tnef_ConvertKindOf(std::string_view messageClass);

// Converts the message read into view from the file on fd (binary values and the body are
// read from it). A task request converts the task it carries. kind NONE when the class
// calls for no conversion. Escapes 100/errno when the file cannot be read.
TnefConverted tnef_ConvertMessage(int fd, const TnefMessageView& view);

#pragma GCC visibility pop
