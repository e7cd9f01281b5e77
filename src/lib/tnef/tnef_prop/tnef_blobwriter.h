// The blob writer: property blob texts (what tnef_GetProp returns) back into a TNEF stream.
//
// A sequence is a run of entries "id GS value [GS value ...]" separated by RS; a table blob is
// a run of such sequences separated by FS. Blob texts come from outside the library, so every
// reader here stays inside the NUL-terminated text, whatever separators it lacks.
#pragma once

#include <cstdint>
#include <memory>

#include "tnef/platform/os_file.h"

// Named-property id counter of the blob writer (the encoder's writers count their own).
// Holds the id given last; advanced before each named property is written, 0xfffe wrapping
// to 0x8000, so the first named property of a process gets 0x8001 and 0xffff is never given.
// Starts at 0x8000 when the library is loaded and is never reset. Process-wide, unguarded.
extern uint16_t tnefBlobNamedPropId;

// Owners of the heap pieces the blob writer hands around, freed on every path (escapes too).
struct TnefMdcFree {
    void operator()(void* block) const noexcept { mdc_free(block); }
};
using TnefBlobText = std::unique_ptr<char, TnefMdcFree>;      // NUL-terminated copy
using TnefBlobBytes = std::unique_ptr<uint8_t, TnefMdcFree>;  // converted value bytes

// Longest decoded value the writer takes: with its NULs and padding it still fits the
// stream's 32-bit length fields. A longer one raises 102/1546, as does an attribute whose
// data passes 32 bits.
inline constexpr uint64_t TNEF_BLOB_MAX_VALUE = 0x7FFFFFF0;

// ---- Sequences (tnef_blobseq.cpp) ----------------------------------------------------------

// Writes the sequence at fd's position as an encoded property list (count, then properties)
// and leaves fd after it. A null text, or one whose first entry has no value separator,
// writes the count 0 alone.
void tnef_AddPropSequence(int fd, const char* text);

// Takes the entry that starts at text (empty entries in front are passed over): copies of its id
// part and values part, and in *nextOut the position after its entry separator (null when it was
// the last). Returns 0, with null outputs, when text is null or the entry has no value separator
// before its end: the sequence ends there. text is not changed.
int tnef_GetNextMAPIPropAndValues(const char* text, TnefBlobText* idOut, TnefBlobText* valuesOut,
                                  const char** nextOut);

// Splits a values part in place: *valueOut is cursor, the next value separator becomes a NUL
// and *nextOut points after it (null when there was none). Returns 0 when cursor is null.
int tnef_GetNextValueInMulti(char* cursor, char** valueOut, char** nextOut);

// Splits a table blob in place: *rowOut is cursor, the next row separator becomes a NUL and
// *nextOut points after it, or at the text's end. Returns 0 when cursor is null or empty.
int tnef_GetNextRowInTable(char* cursor, char** rowOut, char** nextOut);

// The bytes one value text stands for in a property of the given type: 2 or 4 little-endian
// bytes of a hexadecimal number for the 16- and 32-bit integer types, the decoded bytes plus
// one (PT_STRING8) or two (PT_UNICODE) NUL bytes, or the decoded bytes for every other type.
void tnef_ConvertBlobValue(const char* text, uint16_t type, TnefBlobBytes* bufferOut,
                           uint32_t* lengthOut);

// Writes one value of the property tag: the value count (written with the first value,
// patched in place by later ones) where the type has one, the length where it is
// variable-size, the bytes and padding to 4. *valueIndex is 0 before the first value.
void tnef_WriteMapiPropsData(int fd, uint32_t tag, uint32_t length, const uint8_t* bytes,
                             uint32_t* valueIndex, int64_t* countPosition);

// The back-patched attribute frame, for records whose length is not known in advance.
// Begin writes the level, the attribute id and a length placeholder and returns the position
// of that placeholder. End, called with fd at the end of the data, patches the length,
// reads the data back to sum it and writes the checksum after it.
int64_t tnef_BeginBlobAttribute(int fd, uint8_t level, uint32_t attribute);
void tnef_EndBlobAttribute(int fd, int64_t lengthPosition);

// The 16-bit checksum of n bytes already written at fd's position, read back in chunks of
// 1024 bytes. A short read ends the sum with what was read.
uint16_t tnef_ReadBackChecksum(int fd, uint64_t n);

// Decodes a blob-encoded text; the bytes live in platform storage until the next decode.
// Raises 102/1546 when they exceed TNEF_BLOB_MAX_VALUE.
const uint8_t* tnef_DecodeBlobText(const char* text, uint32_t* lengthOut);

// ---- Tables (tnef_blobtables.cpp) ----------------------------------------------------------

// One attAttachment (and the attachment attributes in front of it) per row of the blob.
void tnef_AddAttachTableFromBlob(int fd, const char* blob, uint8_t level);
// attRecipTable: the row count and one property list per row. Nothing for a null blob, nor
// for an empty one unless MAPIXML_GEN_EMPTY_RECIP_TABLE is true.
void tnef_AddRecipTableFromBlob(int fd, const char* blob, uint8_t level);
// Copies the records of the saved TNEF file, except those the blob writer makes itself.
// Nothing when savedFd is -1.
void tnef_WriteSavedAttribs2Tnef(int fd, int savedFd);
// attAttachCreateDate / attAttachModifyDate from a blob-encoded PT_SYSTIME value.
void tnef_AddAttachDateAttr(int fd, const char* value, uint32_t attribute, uint8_t level);
// An attachment attribute holding the decoded value bytes.
void tnef_AddAttachBytesAttr(int fd, const char* value, uint32_t attribute, uint8_t level);

// ---- Driver (tnef_blobwriter.cpp) ----------------------------------------------------------

// attMAPIProps from the message's sequence; nothing for a null or empty blob.
void tnef_AddPropsFromBlob(int fd, const char* blob, uint8_t level);
// attOemCodepage: the code page and a 0 word.
void tnef_WriteOemCodePageAttr(int fd, uint32_t codePage, uint8_t level);
