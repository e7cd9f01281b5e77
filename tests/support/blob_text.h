// Property texts laid out by the tests, apart from the platform's encoders: escaped bytes,
// entries and set entries, and the calendar's times.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>
#include <string_view>

#include "tnef/platform/mapi_date.h"

namespace blobtext {

// Bytes below 0x20 become ESC and the byte plus 0x40.
inline std::string escape(std::string_view bytes) {
    std::string out;
    for (unsigned char c : bytes) {
        if (c < 0x20) out += '\x1b', out += static_cast<char>(c + 0x40);
        else out += static_cast<char>(c);
    }
    return out;
}

inline std::string unescape(std::string_view text) {
    std::string out;
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '\x1b' && i + 1 < text.size()) out += static_cast<char>(text[++i] - 0x40);
        else out += text[i];
    }
    return out;
}

inline std::string entry(const std::string& key, const std::string& value) {
    return key + "\x1d" + value + "\x1e";
}

template <typename Guid>
std::string setEntry(const Guid& g) {
    return entry("GUID", escape(std::string_view(reinterpret_cast<const char*>(g.data()), g.size())));
}

// Minutes since 1601-01-01.
inline int64_t minutes(int y, unsigned mo, unsigned d, int h = 0, int mi = 0) {
    return (mapi_DaysFromCivil(y, mo, d) + 134774) * 1440 + h * 60 + mi;
}

// The escaped PT_SYSTIME value of a time in minutes since 1601.
inline std::string systime(int64_t mins) {
    const uint64_t ticks = static_cast<uint64_t>(mins) * 600000000ULL;
    std::string b;
    for (int i = 0; i < 8; ++i) b += static_cast<char>(ticks >> (8 * i));
    return escape(b);
}

inline std::string hex(uint32_t v) {
    char buf[16];
    std::snprintf(buf, sizeof buf, "%x", v);
    return buf;
}

}  // namespace blobtext
