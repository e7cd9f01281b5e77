// The MAPI property list of one attachment (attAttachment).
#pragma once

#include <cstdint>
#include <string>

#include "tnef/platform/dstring.h"
#include "tnef/platform/im_items.h"

// Reads the attAttachment data the stream is at (its length, attrLength, already read):
// the display name into nameBuffer (escape 102/1546 when it does not fit below
// nameCapacity), an attached object (PR_ATTACH_DATA_OBJ) into a new temporary item whose
// file name goes to *objectFileName and reference to *objectItem, every other property into
// the attachment texts (values over 512 bytes as records into attachPropFd). Returns 1 when
// the attached object begins with the TNEF signature: an embedded message.
int tnef_ParseDownLevelMAPIProps(int tnefFd, dstring* mainText, dstring* secondaryText,
                                 int attachPropFd, std::string* objectFileName,
                                 uint32_t attrLength, char* nameBuffer, uint32_t nameCapacity,
                                 ItemRef* objectItem = nullptr);
