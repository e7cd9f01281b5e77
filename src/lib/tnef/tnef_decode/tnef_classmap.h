// The message class map: pairs of a MAPI message class and the server's class, read once per
// process from "~/sys/mapiclass.map" (tnef_InMapMsgClass and tnef_OutMapMsgClass are
// declared in tnef/tnef.h).
#pragma once

#include <array>
#include <cstdint>
#include <cstdio>

inline constexpr const char* TNEF_CLASSMAP_PATH = "~/sys/mapiclass.map";
inline constexpr const char* TNEF_CLASSMAP_MAPI_TAG = "EXCHANGE_MSG_CLASS";
inline constexpr const char* TNEF_CLASSMAP_SERVER_TAG = "ZR_MSG_CLASS";
// One class with its NUL: values of 255 characters at most.
inline constexpr uint32_t TNEF_CLASS_CAPACITY = 256;

// One 512-byte entry of the table.
struct TnefClassPair {
    std::array<char, TNEF_CLASS_CAPACITY> mapiClass;
    std::array<char, TNEF_CLASS_CAPACITY> serverClass;
};
static_assert(sizeof(TnefClassPair) == 2 * TNEF_CLASS_CAPACITY);

struct TnefClassMap {
    TnefClassPair* entries;  // os_malloc / os_realloc block, never freed
    uint32_t count;          // filled entries
    uint32_t capacity;       // allocated entries: 1 after the first allocation, then +1 each
    bool loaded;             // the load has been tried, whether or not the file existed
};

// Filled by tnef_LoadMsgClassMap; loaded is set by the first tnef_InMapMsgClass or
// tnef_OutMapMsgClass of the process, which with every later call reads the entries. Never
// reset: a map file created or changed later is not seen by this process.
extern TnefClassMap tnefClassMap;

// The value last found for each tag while the table is filled; written only by
// tnef_ReadMapiClassTag and tnef_ReadServerClassTag, read by tnef_LoadMsgClassMap. Never
// reset.
extern std::array<char, TNEF_CLASS_CAPACITY> tnefMapiClassValue;
extern std::array<char, TNEF_CLASS_CAPACITY> tnefServerClassValue;

// Fills tnefClassMap from the map file; a missing file leaves the table empty. Sets no
// flag: the lookups do. Stops with what it has when memory runs out.
void tnef_LoadMsgClassMap();

// Read pairs from file until the tag of their own; copy its value into their buffer and
// return the buffer, or return nullptr at the end of the file. A value that does not fit the
// buffer leaves it empty, so that the caller can drop the pair.
char* tnef_ReadMapiClassTag(FILE* file);
char* tnef_ReadServerClassTag(FILE* file);
