// Decoding a MAPI property list into the two property texts of a message or attachment.
#pragma once

#include <cstdint>

#include "tnef/platform/dstring.h"
#include "tnef_defs.h"

// The last property set written to each kind of property text: a set entry is written only
// when a named property's set differs from the slot. Initialised to sixteen spaces when the
// library loads. A slot stands for one text at a time, so it is forgotten (back to sixteen
// spaces) whenever it may stand for another: when a text is still empty, when a decode
// starts, and when an embedded message starts and ends (its properties go to the attachment's
// texts). Forgetting costs at most a repeated set entry; keeping a stale slot would leave a
// named property without its set.
inline constexpr TnefGuid TNEF_UNSET_SLOT = {0x20, 0x20, 0x20, 0x20, 0x20, 0x20, 0x20, 0x20,
                                             0x20, 0x20, 0x20, 0x20, 0x20, 0x20, 0x20, 0x20};
extern TnefGuid tnefLastSetMsgMain;
extern TnefGuid tnefLastSetMsgSecondary;
extern TnefGuid tnefLastSetAttachMain;
extern TnefGuid tnefLastSetAttachSecondary;

// Sets all four slots back to sixteen spaces.
void tnef_ForgetSetSlots();

// Forgets the slots when it begins and when it ends, however it ends.
class TnefSlotsForgotten {
public:
    TnefSlotsForgotten() { tnef_ForgetSetSlots(); }
    ~TnefSlotsForgotten() { tnef_ForgetSetSlots(); }
    TnefSlotsForgotten(const TnefSlotsForgotten&) = delete;
    TnefSlotsForgotten& operator=(const TnefSlotsForgotten&) = delete;
};

// Limits of the property decoder.
inline constexpr uint32_t TNEF_VALUE_INLINE_MAX = 512;   // longer values go to the object file
inline constexpr uint32_t TNEF_VALUE_BUFFER = 8192;      // the fixed value buffer
inline constexpr uint32_t TNEF_PIECE_MAX = 8191;         // one piece appended to a text

// Reads the attMAPIProps record whose length field the stream is at, sending each property
// to an out value, the main or the secondary text, or (values over 512 bytes) the object
// file; then augments the main text with calendar properties unless TNEF_AUGMENT_PROPS is
// off. The out values are written only for properties present. submissionId and
// senderAddress hold TNEF_TEXT_CAPACITY + 1 bytes. Leaves the stream at the checksum.
void tnef_ParseMAPIProps(int objectFd, int tnefFd, dstring* mainText, dstring* secondaryText,
                         uint32_t* importance, uint32_t* sensitivity, uint16_t* deliveryReport,
                         uint16_t* readReceipt, uint32_t* deferredTime,
                         uint16_t* deferredCompanion, uint32_t* expiryTime,
                         uint16_t* expiryCompanion, uint32_t* creationTime,
                         uint16_t* creationCompanion, char* submissionId, char* senderAddress,
                         uint32_t* autoForwarded, uint32_t* recurrenceFlag);

// Reads one property's value (the stream just after its tag, or after a named property's
// numeric name or string name, before the name's padding) and appends its entry to text, or
// writes it to the object file. set and slot are null for a plain property. attrLength, the
// length of the whole attribute, bounds the value count and lengths.
void tnef_AddToMAPIProps(int objectFd, int tnefFd, uint32_t tag, dstring* text,
                         const uint8_t* set, uint8_t* slot, uint32_t kind, uint32_t lid,
                         const uint8_t* name, uint32_t nameLength, uint32_t attrLength);

// Which text a property goes to.
enum class TnefPropRoute { Main, Secondary };
// Plain properties (ids below 0x8000): ids 0x1080 to 0x10FF go to the secondary text.
TnefPropRoute tnef_RoutePlainProp(uint32_t tag);
// Named properties: "Keywords" of PS_PUBLIC_STRINGS and four PSETID_Common names go to the
// secondary text.
TnefPropRoute tnef_RouteNamedProp(const TnefGuid& set, uint32_t kind, uint32_t lid,
                                  const uint8_t* name, uint32_t nameLength);

// Routes one plain or named property of a list (stream just after its tag) to the main or
// secondary text and reads it with tnef_AddToMAPIProps; the slots are those of the two texts.
// False when the stream ended inside a named property's header.
bool tnef_AddRoutedProp(int objectFd, int tnefFd, uint32_t tag, dstring* mainText,
                        dstring* secondaryText, uint8_t* mainSlot, uint8_t* secondarySlot,
                        uint32_t attrLength);

// Reads a named property's header after its tag (set, kind, numeric name or string name,
// not the name's padding) from the stream; the name goes into nameBuffer (capacity
// TNEF_TEXT_CAPACITY, escape 102/1546 when longer). False when the stream ended.
bool tnef_ReadNamedHeader(int tnefFd, TnefGuid& set, uint32_t& kind, uint32_t& lid,
                          uint8_t* nameBuffer, uint32_t& nameLength);
