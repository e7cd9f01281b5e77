// MAPI times (100-nanosecond intervals since 1601-01-01 UTC) and the TNEF date record
// (seven 16-bit fields: year, month, day, hour, minute, second, day of week).
#pragma once

#include <cstdint>

// Everything this header declares is part of the library's exported interface.
#pragma GCC visibility push(default)

// Converts "YYYY-MM-DDTHH:MM:SSZ" (fields as "%d-%02d-%02dT%02d:%02d:%02dZ" writes them) to
// the blob text of the 8-byte PT_SYSTIME value, in a new string the caller frees with
// mdc_free. Returns 1 with *result set, or 0 with *result null when the text is not such a
// date or names no real time between 1601 and 30827 (a month 13, a 31st of April, ...).
int mapi_BlobEncodeSYSTIME(const char* isoText, char** result);

// Fills the TNEF date record from a MAPI time given as its low and high halves; the day of
// week counts from 0 for Sunday. The inverse of mapi_BlobEncodeSYSTIME over every date that
// it accepts.
void mapi_DateToDTR(uint32_t low, uint32_t high, uint16_t record[7]);

// Days since 1970-01-01 of a proleptic Gregorian date, and back.
int64_t mapi_DaysFromCivil(int64_t year, unsigned month, unsigned day);
void mapi_CivilFromDays(int64_t days, int64_t* year, unsigned* month, unsigned* day);

#pragma GCC visibility pop
