// Property extraction: renders the MAPI property lists of a TNEF file, read straight from
// the open descriptor, as property blob text. tnef_GetProp (tnef.h) walks the records and
// calls these; every read and seek goes through tnef_PropRead / tnef_PropSeek with the
// process-wide hitTnefEof flag (tnef_proplog.h).
#pragma once

#include <cstdint>

#include "tnef/platform/dstring.h"

// A value longer than this many bytes is not rendered: its property is abandoned.
inline constexpr uint32_t TNEF_PROP_VALUE_LIMIT = 8192;
// A string name of a named property longer than this many bytes ends the list.
inline constexpr uint32_t TNEF_PROP_NAME_LIMIT = 511;
// The attachment rendering record (attAttachRenddata) is this many bytes.
inline constexpr uint32_t TNEF_RENDDATA_SIZE = 14;
// Attachment date records of this length or more are not dates we read.
inline constexpr uint32_t TNEF_ATTACH_DATE_LIMIT = 40;
// A named request ("#type/id") is copied into a buffer of this capacity (31 characters).
inline constexpr uint32_t TNEF_NAMED_REQUEST_CAPACITY = 32;

// Reads exactly length bytes through tnef_PropRead. A short read means the file ended
// inside the data, so it sets hitTnefEof like a failed read. Returns 1 on success, else 0.
int tnef_PropReadExact(int fd, void* buffer, uint32_t length);

// A new NUL-terminated copy of text that the caller frees with free(); raises the
// out-of-memory escape (group 100, ENOMEM) when no memory is left.
char* tnef_NewText(const dstring* text);

// Walks one encoded property list at fd's position (its 4-byte property count). With
// wantType and wantId both 0 every property is rendered, else the walk looks for that one
// (a named property by its numeric name). *found is shared with the caller: the walk stops
// once it is non-zero, and it becomes 1 when the property is met or, when every property
// is rendered, when the text is not empty. *out receives a new string (free with free())
// when *found is 1 at the end, else null. attLen is the holding attribute's length.
void tnef_GetPropValue(int fd, uint16_t wantType, uint16_t wantId, int* found, uint32_t attLen,
                       char** out);

// Appends one property, read at fd's position just after its tag and named header, as a
// blob entry (id part, value separator, value text) to text. guid, kind, numericId, name and
// nameLength (stored length, 2-byte terminator included) describe a named property (ids
// 0x8000 to 0xfffe) and are ignored otherwise. Returns 1 when the entry was appended, 0 when
// the property was abandoned (end of file, a value over TNEF_PROP_VALUE_LIMIT); the text is
// then as it was on entry.
int tnef_GetAsBlob(int fd, uint32_t tag, dstring* text, const uint8_t* guid, uint32_t kind,
                   uint32_t numericId, const uint8_t* name, uint32_t nameLength, uint32_t attLen);

// Appends RS, tagText, GS and the PT_SYSTIME blob value of the TNEF date record of length
// bytes at fd's position; nothing when the record is 40 bytes or more, cut short, or names
// no real time.
void tnef_GetAttachDate(int fd, const char* tagText, uint32_t length, dstring* text);

// Appends RS, tagText, GS and the blob encoding of the length bytes of attribute data at
// fd's position, trailing zero bytes dropped when stripTrailingNuls is 1; nothing when the
// data is cut short. attributeName is for the log.
void tnef_GetAttachAttr(int fd, const char* tagText, const char* attributeName, uint32_t length,
                        int stripTrailingNuls, dstring* text);
