// The attribute writers' process-wide state, shared by every stream the process writes.
#pragma once

#include <cstdint>

#include "tnef/tnef.h"

struct TnefWriterState {
    uint16_t checksum;       // running byte sum of the data of the record being written
    uint32_t attrLength;     // value in the length field of the last property record begun
    int64_t lengthFieldPos;  // stream position of that length field
    int64_t valueCountPos;   // stream position of the last value-count field written
    uint16_t nextNamedId;    // id for the next named property: 0x8000..0xFFFE, then 0x8000
};

// Set by tnef_AddMAPIPropsAttribute and tnef_AddMAPINamedPropsAttr (a record begun),
// tnef_AddMAPIPropsData (the value-count position) and tnef_UpdateMAPIPropsData (a value
// appended); the attachment-data writer reuses checksum for its own record. Lives for the
// process and is never reset, so named-property ids continue across streams.
extern TnefWriterState tnefWriterState;

// The id tnef_AddMAPINamedPropsAttr gives next, and the one after it.
uint16_t tnef_NextNamedPropId(uint16_t id);
