// The encoder's internal steps: rebuilding attachments from the object file and body parts.
#pragma once

#include <cstdint>

struct SflFile;

// Server content type codes of text body parts, whose line ends become CR LF.
inline constexpr uint16_t TNEF_PART_TYPE_TEXT = 1167;
inline constexpr uint16_t TNEF_PART_TYPE_TEXT_ALT = 1736;
inline constexpr uint16_t TNEF_PART_TYPE_OTHER = 2130;

// Copies the object file's records to outFd up to and including the next attAttachRenddata
// at level 2, rewriting every attAttachment without PR_RECORD_KEY. first non-zero starts
// after the head that tnef_SetOemCodePage copied. Returns 1 when an attAttachRenddata was
// copied, 0 when the object file ended first.
int tnef_getPastRendData(int outFd, int objectFd, int first);

// Removes PR_RECORD_KEY from one attAttachment property list of length bytes in buffer.
// Returns 1 when something was removed; *newLength and *newChecksum describe the buffer
// after the call.
int tnef_StripProps(uint8_t* buffer, uint32_t length, uint32_t* newLength, uint16_t* newChecksum);

// Writes one attAttachData record from at most size bytes of item; text parts (1167, 1736)
// get CR before every bare LF, and the length field is patched to the bytes written.
void tnef_AddAttachment(int outFd, SflFile* item, uint32_t size, uint16_t partType);
