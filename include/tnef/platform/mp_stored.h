// Stored MAPI data: the object file and the two property texts that decoding keeps with a
// message, recorded in its message file and read back by encoding.
//
// Records (offsets in bytes; see tf_msgfile.h for the header):
//   19000  stored object: 16 u32 size in bytes; 20 u16 kept (1: the store holds a link of
//          its own); 22 u16 nested (1: the record belongs to an embedded message's package);
//          24 the name; then, at the next multiple of 4, the object's item reference (4 u32)
//   19500  property text (selector 0), 19600 (selector 1): 16 u32 flags; 20 u32 second flags
//          word; 24 u16 keep; 26 u16 nested; 28 u32 text length in bytes
//   19510 / 19610, right after it: 16 u32 flags (again, for the reader); 20 u32 text
//          length; 24 u32 where: 0 inline, 1 in an item; 28 the text and a NUL (inline), or
//          the item reference (4 u32)
// A text of up to MP_INLINE_TEXT_MAX bytes is inline; a longer one lives in a kept object of
// its own under ~/store/objects/. Texts are stored byte for byte, NUL bytes included.
//
// The flags words belong to the codec: it passes 1 for the main property text and, for the
// secondary text, 2 when the message is a recurring appointment. mp_BuildMAPIProps hands the
// flags back.
#pragma once

#include <cstdint>

#include "tnef/platform/dstring.h"
#include "tnef/platform/im_items.h"
#include "tnef/platform/tf_msgfile.h"

// Everything this header declares is part of the library's exported interface.
#pragma GCC visibility push(default)

inline constexpr const char* MP_OBJECT_PROPERTIES = "MAPI.ObjectProperties";
// Texts kept inline fit the 4080-byte records of earlier stores, so stored messages look
// the same whatever the record capacity.
inline constexpr uint32_t MP_INLINE_TEXT_MAX = 4080 - 28 - 1;  // 4051
inline constexpr uint32_t MP_WHERE_INLINE = 0;
inline constexpr uint32_t MP_WHERE_ITEM = 1;

// Appends a 19000 record naming the object to message file tf. keep 1 hard-links the item
// under ~/store/objects/ (no byte is copied), so the object outlives im_UnlinkItem of ref;
// keep 0 records ref as it stands. nested is recorded. The size is the item's size now.
// Raises 100/errno when the item is missing; the message file is unchanged then.
void mp_PutObjectFile(const char* name, ItemRef ref, int16_t tf, int keep, int nested);

// Appends the 19500/19510 pair (selector 0) or 19600/19610 pair (selector 1) holding text.
// keep 1 lets a text longer than MP_INLINE_TEXT_MAX go to an item of its own; with keep 0
// such a text raises 102/1546. Both records are appended or neither. Raises 103/8 for any
// other selector.
void mp_PutMAPIPropsData(uint32_t flags, uint32_t flags2, const dstring* text, int16_t tf,
                         int keep, int nested, int selector);

// Opens the object that the 19000 record names, for reading (readOnly 1) or reading and
// writing (0), positioned at its start; the caller closes the descriptor with os_close.
// reserved is ignored. Raises 103/6 when record is not a 19000 record of that name,
// 100/errno when the object's file cannot be opened.
int mp_BuildObjectFile(int16_t tf, const TFREC* record, int reserved, const char* name,
                       int readOnly);

// Reads the text that the 19510 or 19610 record (of type recordType) holds into *buffer,
// which is (re)allocated with os_realloc to the text's length plus a NUL; *buffer may be
// null, or a block of os_malloc that the caller keeps owning either way (free with os_free).
// *length comes in as the length the preceding record announced and goes out as the text's
// true length; *flags receives the flags word. Returns 1. Raises 103/6 for a record of
// another type, 103/3 for a stored text shorter than its record says, 100/ENOMEM when memory
// runs out.
int mp_BuildMAPIProps(int16_t tf, const TFREC* record, uint32_t recordType, char** buffer,
                      uint32_t* length, uint32_t* flags);

// Where a property text came from: the value of its first entry whose id part begins with
// "C" (for example "CORIGIN", value "smtp"), unescaped, as a NUL-terminated os_malloc block
// the caller frees with os_free; null when the text has no such entry (the decoder's texts
// never do) or text is null.
char* mapi_GetMapiPropsOrigin(const char* text);

#pragma GCC visibility pop
