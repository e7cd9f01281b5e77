// The message file update: carries what a decode collected into the message file.
// tnef_UpdateTF, tnef_UpdateDL and tnef_UpdateMN are exported (tnef/tnef.h).
#pragma once

#include <cstdint>

#include "tnef/tnef.h"

// The suppress-MAPI-data flag. tnef_Decode stores its last argument here at the start of
// every decode; tnef_UpdateTF and the nested-message parse read it. While it is non-zero
// neither the object file nor the property texts are stored with any message, only the
// attachments and the header records. Nothing resets it: the next decode overwrites it.
extern int tnefSuppressMapiData;

// Customisation flag read for every recipient and distribution-list entry rewritten.
inline constexpr const char* TNEF_FLAG_PASSIVE_RECIPS = "UXI_PASSIVE_RECIPS_MAPI_ENABLED";

// Flags words of the records rewritten here.
inline constexpr uint32_t TNEF_HDR_PRIORITY_SHIFT = 0;     // 1100 at 24, bits 0-2
inline constexpr uint32_t TNEF_HDR_SENSITIVITY_SHIFT = 3;  // bits 3-5
inline constexpr uint32_t TNEF_HDR_IMPORTANCE_SHIFT = 6;   // bits 6-8
inline constexpr uint32_t TNEF_HDR_AUTO_FORWARDED = 0x1000;
inline constexpr uint32_t TNEF_RECIP_PASSIVE = 0x1;        // 15000 at 20
inline constexpr uint32_t TNEF_DL_ENTRY_PASSIVE = 0x1000;  // 22000-22300, after the texts

// Flags passed with the property texts: 1 marks the main text, 2 a recurring appointment.
inline constexpr uint32_t TNEF_PROPS_MAIN = 1;
inline constexpr uint32_t TNEF_PROPS_RECURRING = 2;
