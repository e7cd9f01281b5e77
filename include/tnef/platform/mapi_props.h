// Lookups and edits in a property text (the property blob form): entries separated by 0x1E,
// an id part ended by 0x1D, then the value text. A "GUID" entry names the property set of
// the named entries ("#type/lid", ":type/name") that follow it, up to the next "GUID" entry;
// a named entry before any "GUID" entry, or after one whose value is not 16 bytes, belongs
// to no set these lookups can tell and is never matched.
//
// The texts are read as hostile: an entry without 0x1D, an id part that is no key, an escape
// byte at the end of a value or a truncated text is skipped or taken as it stands, and no
// lookup reads past the text's end. Returned value texts are still escaped, NUL-terminated
// and allocated with mdc_malloc; the caller frees them with mdc_free. Running out of memory
// raises escape 100/ENOMEM rather than passing for a missing property.
#pragma once

#include <cstddef>
#include <cstdint>

#include "tnef/platform/dstring.h"

// Everything this header declares is part of the library's exported interface.
#pragma GCC visibility push(default)

// "{00062002-0000-0000-C000-000000000046}" and its NUL.
inline constexpr size_t MAPI_GUID_TEXT_SIZE = 39;
// The text of a PT_LONG value ("ffffffff") and its NUL.
inline constexpr size_t MAPI_LONG_TEXT_SIZE = 9;

// A property as the calendar writers name it: a plain property (guid empty, lid the 16-bit
// property id) or a property named by a number in the set that guid names. Properties named
// by a string are not expressed here. Matching ignores the type: a property is one entry
// whatever type it was written with.
struct BV_MAPI_PROP_ID {
    uint16_t type;                   // PT_* written into a key this identifier makes
    uint32_t lid;                    // numeric name, or the property id of a plain property
    char guid[MAPI_GUID_TEXT_SIZE];  // mapi_Guid2String text of the set; "" for plain
};

// Clears the identifier and, when set is given (16 bytes), fills guid with its text; type and
// lid are left 0 for the caller to set before each write.
void mapi_init_BV_MAPI_PROP_ID(BV_MAPI_PROP_ID* id, const uint8_t* set);

// Writes the 16-byte set (first field and the next two little-endian, as in the stream) as
// "{XXXXXXXX-XXXX-XXXX-XXXX-XXXXXXXXXXXX}" in upper case into text (MAPI_GUID_TEXT_SIZE
// bytes). Returns text.
char* mapi_Guid2String(const uint8_t* guid, char* text);
// Reads that form back (braces optional, hex digits in either case, nothing after it) into
// the 16 bytes of guid. False when the text is no such GUID; guid is then untouched and, when
// error is given, the reason is appended to it.
bool mapi_string_to_MAPI_GUID(const char* text, uint8_t* guid, dstring* error);
// Non-zero when both 16-byte sets are given and equal.
int mapi_sameAsGuid(const uint8_t* a, const uint8_t* b);

// The value text of a PT_LONG: lower-case hexadecimal without leading zeros, into buffer
// (MAPI_LONG_TEXT_SIZE bytes). Returns buffer.
char* mapi_BlobValueForPT_LONG(uint32_t value, char* buffer);

// Value text of the first entry named by the number lid in set (16 bytes), or null. With type
// given, an entry of type *type is preferred when several carry the name (PT_UNSPECIFIED
// prefers none), and *type receives the type of the entry found.
char* mapi_getValueFor_guidf_num(const char* text, const uint8_t* set, uint32_t lid,
                                 uint16_t* type);
// Value text of the first plain entry whose property id is propId and, unless type is
// PT_UNSPECIFIED (0), whose type is type; or null.
char* mapi_getValueFor_id(const char* text, uint16_t propId, uint16_t type);
// Value text of the entry the identifier names, or null.
char* mapi_getValueForBV_MAPI_PROP_ID(const char* text, const BV_MAPI_PROP_ID* id);

// Makes the key the decoder writes for the identifier into key (replacing its contents): the
// plain tag ("37001e") or "#type/lid", lower-case hexadecimal without leading zeros. For a
// named property whose set differs from lastSet (a mapi_Guid2String text of
// MAPI_GUID_TEXT_SIZE bytes, updated in place), a "GUID" entry for the set comes first, ended
// by 0x1E, so the key text can be appended to a text whose last set was lastSet. False (key
// empty, lastSet untouched) when the identifier has no type, a plain id above 0xFFFF or a
// guid that is no GUID text.
bool mapi_BV_MAPI_PROP_ID_to_blobId(const BV_MAPI_PROP_ID* id, char* lastSet, dstring* key);

// Sets the property's entry to value (an escaped value text) with the identifier's type: the
// first entry for the property is rewritten in place and any later ones removed; a missing
// one is added where its set is already in effect (at the end when the text ends in that
// set, else right after the text's last "GUID" entry for it), or else at the end behind a
// new "GUID" entry, followed, when the text ended in a set it could tell, by one restoring
// that set, so that a writer keeping the last set (the decoder's slot) stays right. Entries
// added end with 0x1E. False when the identifier makes no key or value is null (text
// unchanged).
bool mapi_replacePropInBlobD(dstring* text, const BV_MAPI_PROP_ID* id, const char* value);

// A NUL-terminated copy of length bytes in a block from mdc_malloc; raises 100/ENOMEM when
// there is no memory.
char* mapi_DupText(const char* bytes, size_t length);

#pragma GCC visibility pop
