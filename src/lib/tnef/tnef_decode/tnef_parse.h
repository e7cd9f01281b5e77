// The decode entry, the top-level record loop and the nested-message parse.
#pragma once

#include <cstdint>

#include "tnef/platform/dstring.h"

// The top-level record loop over a TNEF stream positioned after its header records. Out
// values are written only when the stream carries them; the caller presets them.
// messageClass and subject hold TNEF_TEXT_CAPACITY + 1 bytes.
void tnef_ParseTNEF(int objectFd, int tnefFd, dstring* mainText, dstring* secondaryText,
                    char* messageClass, uint16_t* priority, char* subject,
                    uint16_t* replyRequested, uint32_t* importance, uint32_t* sensitivity,
                    uint16_t* deliveryReport, uint16_t* readReceipt, uint32_t* deferredTime,
                    uint16_t* deferredCompanion, uint32_t* expiryTime, uint16_t* expiryCompanion,
                    int16_t message, int16_t messageFile, uint32_t codePage,
                    uint32_t* autoForwarded, uint32_t* recurrence);

// Decodes an embedded message's TNEF stream (read from its start) into a package of records
// appended to messageFile: start record, header, detail and content groups, end record. Its
// body and file attachments become data items linked to message; embedded messages inside
// it become packages in its content group. attachPropFd is the property item of the
// attachment that carried it; the two texts receive its properties and are emptied.
void tnef_ParseNestedTNEF(int streamFd, int16_t messageFile, int16_t message, int attachPropFd,
                          dstring* mainText, dstring* secondaryText, uint32_t codePage);
