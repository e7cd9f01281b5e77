// The MAPI calendar formats the decoder derives calendar properties from: the global object
// identifier of a meeting, the 48-byte time zone structure of the legacy time zone numbers,
// and the appointment recurrence pattern built from the legacy recurrence values.
//
// Times: a MAPI time (FILETIME) counts 100-nanosecond intervals since 1601-01-01 UTC; the
// recurrence pattern and the helpers below count whole minutes since 1601-01-01, in UTC or
// in a zone's local time as each one says. Texts returned as char* are escaped value texts
// from mdc_malloc (mdc_free them); null means none.
#pragma once

#include <cstddef>
#include <cstdint>

#include "tnef/platform/dstring.h"

// Everything this header declares is part of the library's exported interface.
#pragma GCC visibility push(default)

// ---- Global object identifier ------------------------------------------------------------

// Fixed part of the identifier: class id 16, instance date 4, creation time 8, reserved 8,
// data size 4.
inline constexpr size_t MAPI_GOID_FIXED_SIZE = 40;

// The identifier of a meeting and its instances. The instance date names the instance of a
// recurring meeting the identifier stands for: a month of 1 to 12 marks an exception, any
// other month (0) the series. On the wire the year is big-endian (high byte first), unlike
// every other number in the identifier.
struct MAPI_GLOBAL_OBJECT_ID {
    uint8_t classId[16];
    uint16_t year;
    uint8_t month;
    uint8_t day;
    uint64_t creationTime;  // MAPI time
    uint8_t reserved[8];
    uint32_t dataSize;
    uint8_t* data;  // dataSize bytes from mdc_malloc, null when dataSize is 0
};

void mapi_init_MAPI_GLOBAL_OBJECT_ID(MAPI_GLOBAL_OBJECT_ID* id);
// Frees the data and clears the structure.
void mapi_free_MAPI_GLOBAL_OBJECT_ID(MAPI_GLOBAL_OBJECT_ID* id);
// Reads the identifier from length bytes into id (whose earlier data it frees). False, with
// id cleared, when the bytes are shorter than the fixed part or than the data size claims;
// bytes after the data are ignored.
bool mapi_raw_GlobalObjectIdToStruc(const uint8_t* bytes, size_t length,
                                    MAPI_GLOBAL_OBJECT_ID* id);
// Appends the identifier's bytes (the fixed part and dataSize bytes of data) to out. False,
// with out unchanged, when dataSize is not 0 and data is null.
bool mapi_raw_GlobalObjectIdFromStruc(const MAPI_GLOBAL_OBJECT_ID* id, dstring* out);

// ---- Time zones --------------------------------------------------------------------------

inline constexpr size_t MAPI_TIMEZONE_DATA_SIZE = 48;

// A transition as the structure stores it. Relative form (year 0): month, the day of week
// (0 Sunday), day the week of the month (1 to 4, 5 the last), and the local time of day.
// Absolute form (year set): that date in that year only. Month 0: no transition.
struct MAPI_SYSTEMTIME {
    uint16_t year;
    uint16_t month;
    uint16_t dayOfWeek;
    uint16_t day;
    uint16_t hour;
    uint16_t minute;
    uint16_t second;
    uint16_t milliseconds;
};

// The 48-byte structure, little-endian: bias 4, standard bias 4, daylight bias 4, standard
// year 2, standard date 16, daylight year 2, daylight date 16. Biases are minutes, with
// UTC = local time + bias + the standard or daylight bias in effect.
struct MAPI_TIMEZONE {
    int32_t bias;
    int32_t standardBias;
    int32_t daylightBias;
    uint16_t standardYear;
    MAPI_SYSTEMTIME standardDate;  // the change back to standard time, on the daylight clock
    uint16_t daylightYear;
    MAPI_SYSTEMTIME daylightDate;  // the change to daylight time, on the standard clock
};

// Fills the 48 bytes for a legacy time zone number (Meeting 0x000C): its low 16 bits index
// the table, bit 31 set means the zone keeps standard time all year, the other bits are not
// read. False, data untouched, for a number the table does not hold.
bool mapi_raw_timezone_data_from_tzNum(uint32_t tzNum, uint8_t* data);
// The description of the same number ("(UTC-05:00) Eastern Time (US & Canada)"), a static
// text; null for a number the table does not hold.
const char* mapi_tzNum_toIcalTZID(uint32_t tzNum);

// Reads the structure; false when length is not MAPI_TIMEZONE_DATA_SIZE.
bool mapi_TimezoneFromRaw(const uint8_t* data, size_t length, MAPI_TIMEZONE* tz);
void mapi_TimezoneToRaw(const MAPI_TIMEZONE* tz, uint8_t* data);
// Local minutes to UTC minutes and back, with daylight time where the zone's transitions put
// it in the year of the time. A local time skipped at the change to daylight time counts as
// daylight time.
int64_t mapi_LocalToUtcMinutes(const MAPI_TIMEZONE* tz, int64_t localMinutes);
int64_t mapi_UtcToLocalMinutes(const MAPI_TIMEZONE* tz, int64_t utcMinutes);

// ---- Recurrence ----------------------------------------------------------------------------

// Recurrence types of Appointment 0x8231.
inline constexpr uint32_t MAPI_RECURTYPE_NONE = 0;
inline constexpr uint32_t MAPI_RECURTYPE_DAILY = 1;
inline constexpr uint32_t MAPI_RECURTYPE_WEEKLY = 2;
inline constexpr uint32_t MAPI_RECURTYPE_MONTHLY = 3;
inline constexpr uint32_t MAPI_RECURTYPE_YEARLY = 4;

// The legacy recurrence values as value texts of the main property text (from mdc_malloc,
// owned by the structure, null when absent), and what mapi_PropFromWmRecurrenceProps works
// out from them. Dates are packed as year * 512 + month * 32 + day, times as
// hour * 4096 + minute * 64 + second, both in the zone of the legacy time zone number.
struct WM_RECURRENCE_PROPS {
    char* startDate;        // PR_START_DATE (PT_SYSTIME), the first instance's start
    char* endDate;          // PR_END_DATE, its end
    char* startRecurDate;   // Meeting 0x000D, first day of the range
    char* startRecurTime;   // Meeting 0x000E, start time of each instance
    char* endRecurDate;     // Meeting 0x000F, last day of the range
    char* endRecurTime;     // Meeting 0x0010, end time of each instance
    char* dayInterval;      // Meeting 0x0011
    char* weekInterval;     // Meeting 0x0012
    char* monthInterval;    // Meeting 0x0013
    char* yearInterval;     // Meeting 0x0014
    char* dayOfWeekMask;    // Meeting 0x0015, bit 0 Sunday to bit 6 Saturday
    char* dayOfMonthMask;   // Meeting 0x0016, bit 0 the 1st to bit 30 the 31st
    char* monthOfYearMask;  // Meeting 0x0017, bit 0 January to bit 11 December
    char* allDay;           // Appointment 0x8215, non-zero for an all-day event

    uint32_t recurrenceType;  // MAPI_RECURTYPE_*
    char* clipStart;          // PT_SYSTIME value texts, null when none
    char* clipEnd;
};

void mapi_init_WM_RECURRENCE_PROPS(WM_RECURRENCE_PROPS* props);
// Frees every text and clears the structure.
void mapi_free_WM_RECURRENCE_PROPS(WM_RECURRENCE_PROPS* props);

// Builds the appointment recurrence pattern (Appointment 0x8216) from the legacy values,
// read in the zone of tzData (MAPI_TIMEZONE_DATA_SIZE bytes), and sets recurrenceType,
// clipStart and clipEnd. Returns the pattern's value text, or null, with recurrenceType 0
// and no clip times, when no zone is given or the values do not name one pattern, range and
// time of day without guessing.
char* mapi_PropFromWmRecurrenceProps(WM_RECURRENCE_PROPS* props, const uint8_t* tzData);
// The original start (UTC, a PT_SYSTIME value text) of the instance an exception replaces:
// the instance date of goid with the series' start time of day in the zone of tzData. Null
// when the identifier names no instance, the start time is missing or no zone is given.
char* mapi_RecurrenceBaseFromWmRecurrenceProps(const WM_RECURRENCE_PROPS* props,
                                               const uint8_t* tzData,
                                               const MAPI_GLOBAL_OBJECT_ID* goid);

#pragma GCC visibility pop
