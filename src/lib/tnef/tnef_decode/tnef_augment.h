// Calendar property augmentation: after a message's attMAPIProps is decoded, the calendar
// properties a reader of the message expects (appointment start and end, location, time
// zone, recurrence, clean global object identifier) are derived from the meeting properties
// and PR_START_DATE / PR_END_DATE found in the main property text, where missing.
#pragma once

#include <cstdint>

#include "tnef/platform/dstring.h"
#include "tnef/platform/mapi_props.h"
#include "tnef_defs.h"

// Plain properties the augmentation reads.
inline constexpr uint32_t PR_START_DATE = 0x00600040;
inline constexpr uint32_t PR_END_DATE = 0x00610040;

// Numeric names in PSETID_Meeting.
inline constexpr uint32_t PidLidWhere = 0x0002;
inline constexpr uint32_t PidLidGlobalObjectId = 0x0003;
inline constexpr uint32_t PidLidTimeZone = 0x000C;
inline constexpr uint32_t PidLidStartRecurrenceDate = 0x000D;
inline constexpr uint32_t PidLidStartRecurrenceTime = 0x000E;
inline constexpr uint32_t PidLidEndRecurrenceDate = 0x000F;
inline constexpr uint32_t PidLidEndRecurrenceTime = 0x0010;
inline constexpr uint32_t PidLidDayInterval = 0x0011;
inline constexpr uint32_t PidLidWeekInterval = 0x0012;
inline constexpr uint32_t PidLidMonthInterval = 0x0013;
inline constexpr uint32_t PidLidYearInterval = 0x0014;
inline constexpr uint32_t PidLidDayOfWeekMask = 0x0015;
inline constexpr uint32_t PidLidDayOfMonthMask = 0x0016;
inline constexpr uint32_t PidLidMonthOfYearMask = 0x0017;
inline constexpr uint32_t PidLidCleanGlobalObjectId = 0x0023;
// The original start of the instance an exception replaces.
inline constexpr uint32_t LID_MEETING_RECURRENCE_BASE = 0x0029;

// Numeric names in PSETID_Appointment.
inline constexpr uint32_t PidLidLocation = 0x8208;
inline constexpr uint32_t PidLidAppointmentStartWhole = 0x820D;
inline constexpr uint32_t PidLidAppointmentEndWhole = 0x820E;
inline constexpr uint32_t PidLidAppointmentSubType = 0x8215;
inline constexpr uint32_t PidLidAppointmentRecur = 0x8216;
inline constexpr uint32_t PidLidRecurrenceType = 0x8231;
inline constexpr uint32_t PidLidTimeZoneStruct = 0x8233;
inline constexpr uint32_t PidLidTimeZoneDescription = 0x8234;
inline constexpr uint32_t PidLidClipStart = 0x8235;
inline constexpr uint32_t PidLidClipEnd = 0x8236;

// Numeric names in PSETID_Common.
inline constexpr uint32_t PidLidCommonStart = 0x8516;
inline constexpr uint32_t PidLidCommonEnd = 0x8517;

// Adds the derived calendar entries that mainText lacks. lastSetSlot is the main text's last
// property set slot (16 bytes), kept in step with the "GUID" entries written. Writes 1 to
// *recurrenceFlag when the message carries a recurrence pattern (found or built), else 0.
// Raises nothing of its own: a value it cannot read or derive leaves its entries out.
void tnef_AugmentMAPIProps(dstring* mainText, uint8_t* lastSetSlot, uint32_t* recurrenceFlag);

// Appends the entry (key, 0x1D, value, 0x1E) for the property id names, unless value is null
// or the text already holds the property. A named property's entry is preceded by a "GUID"
// entry when its set differs from lastSetSlot, which then takes the set.
void tnef_AugmentAddEntry(dstring* text, const char* value, const BV_MAPI_PROP_ID* id,
                          uint8_t* lastSetSlot);
