#include "tnef_decode/tnef_classmap.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

#include "tnef/platform/dstring.h"
#include "tnef/platform/os_file.h"
#include "tnef/platform/tfo_tagfile.h"
#include "tnef/tnef.h"

TnefClassMap tnefClassMap = {nullptr, 0, 0, false};
std::array<char, TNEF_CLASS_CAPACITY> tnefMapiClassValue = {};
std::array<char, TNEF_CLASS_CAPACITY> tnefServerClassValue = {};

namespace {

std::string_view textOf(const dstring& d) {
    return {dstring_str(&d), dstring_length(&d)};
}

// A class that cannot be stored whole is left out rather than cut: a truncated class, or one
// cut short by a NUL byte, would map messages of some other class. An empty value names no
// class and would otherwise turn every message without a class into one of this kind.
bool storableClass(std::string_view value) {
    return !value.empty() && value.size() < TNEF_CLASS_CAPACITY &&
           value.find('\0') == std::string_view::npos;
}

char* readClassTag(FILE* file, std::string_view wanted,
                   std::array<char, TNEF_CLASS_CAPACITY>& buffer) {
    dstring tag;
    dstring value;
    dstring_init(&tag);
    dstring_init(&value);
    while (tfo_FindTagValue(file, &tag, &value) != 0) {
        if (textOf(tag) != wanted) continue;
        const std::string_view found = textOf(value);
        buffer[0] = '\0';
        if (storableClass(found)) {
            std::memcpy(buffer.data(), found.data(), found.size());
            buffer[found.size()] = '\0';
        }
        return buffer.data();
    }
    return nullptr;
}

// Makes room for entry [count]: one more entry at a time. False when memory runs out; the
// entries already loaded stay valid.
bool roomForOneMore() {
    TnefClassMap& map = tnefClassMap;
    if (map.count < map.capacity) return true;
    // Out of reach of any real file, but a wrapped size would hand back a block too small.
    if (map.capacity >= std::min<size_t>(UINT32_MAX, SIZE_MAX / sizeof(TnefClassPair) - 1))
        return false;
    void* grown = os_realloc(map.entries, (size_t{map.capacity} + 1) * sizeof(TnefClassPair));
    if (grown == nullptr) return false;
    map.entries = static_cast<TnefClassPair*>(grown);
    map.capacity += 1;
    return true;
}

void copyClass(std::array<char, TNEF_CLASS_CAPACITY>& to, const char* from) {
    to.fill('\0');
    std::memcpy(to.data(), from, std::strlen(from));
}

void ensureLoaded() {
    if (tnefClassMap.loaded) return;
    tnef_LoadMsgClassMap();
    tnefClassMap.loaded = true;
}

// Inward compares with the MAPI classes and gives the server's; outward the reverse.
void mapClass(char* messageClass, bool inward) {
    if (messageClass == nullptr) return;
    ensureLoaded();
    for (uint32_t i = 0; i < tnefClassMap.count; ++i) {
        const TnefClassPair& entry = tnefClassMap.entries[i];
        const auto& from = inward ? entry.mapiClass : entry.serverClass;
        const auto& to = inward ? entry.serverClass : entry.mapiClass;
        if (std::strcmp(messageClass, from.data()) == 0) {
            std::strcpy(messageClass, to.data());
            return;
        }
    }
}

}  // namespace

char* tnef_ReadMapiClassTag(FILE* file) {
    return readClassTag(file, TNEF_CLASSMAP_MAPI_TAG, tnefMapiClassValue);
}

char* tnef_ReadServerClassTag(FILE* file) {
    tnefServerClassValue[0] = '\0';
    return readClassTag(file, TNEF_CLASSMAP_SERVER_TAG, tnefServerClassValue);
}

void tnef_LoadMsgClassMap() {
    if (!os_fexists(TNEF_CLASSMAP_PATH)) return;
    FILE* file = os_fopen(TNEF_CLASSMAP_PATH, "r");
    if (file == nullptr) return;
    if (tnefClassMap.entries == nullptr) {
        tnefClassMap.entries = static_cast<TnefClassPair*>(os_malloc(sizeof(TnefClassPair)));
        if (tnefClassMap.entries == nullptr) {
            os_fclose(file);
            return;
        }
        tnefClassMap.capacity = 1;
    }
    for (;;) {
        const char* mapiClass = tnef_ReadMapiClassTag(file);
        if (mapiClass == nullptr) break;
        const char* serverClass = tnef_ReadServerClassTag(file);
        if (serverClass == nullptr) break;
        if (mapiClass[0] == '\0' || serverClass[0] == '\0') continue;
        if (!roomForOneMore()) break;
        TnefClassPair& entry = tnefClassMap.entries[tnefClassMap.count];
        copyClass(entry.mapiClass, mapiClass);
        copyClass(entry.serverClass, serverClass);
        tnefClassMap.count += 1;
    }
    os_fclose(file);
}

void tnef_InMapMsgClass(char* messageClass) {
    mapClass(messageClass, true);
}

void tnef_OutMapMsgClass(char* messageClass) {
    mapClass(messageClass, false);
}
