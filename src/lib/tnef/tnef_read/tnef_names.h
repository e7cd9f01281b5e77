// The name tables behind tnef_PropName and its kin, exposed for the test that checks their
// order.
#pragma once

#include <cstdint>
#include <span>

#include "tnef/tnef_reader.h"

struct TnefPropNameEntry {
    uint32_t tag;  // with its published type
    const char* name;
};
struct TnefTypeNameEntry {
    uint16_t type;
    const char* name;
};
struct TnefSetNameEntry {
    TnefGuid guid;  // in the stream's binary form
    const char* name;
};
struct TnefNamedPropNameEntry {
    uint16_t set;  // index into the set table
    uint16_t lid;
    const char* name;
};

std::span<const TnefPropNameEntry> tnef_PropNameTable();
std::span<const TnefNamedPropNameEntry> tnef_NamedPropNameTable();
