#include "tnef/tnef.h"

uint16_t tnef_Checksum(const void* data, int32_t length) {
    const auto* bytes = static_cast<const unsigned char*>(data);
    uint32_t sum = 0;
    for (int32_t i = 0; i < length; ++i) sum += bytes[i];
    return static_cast<uint16_t>(sum);
}

TnefMapiTime tnef_ConvertDate(uint32_t seconds, uint16_t) {
    // Seconds from 1601-01-01 to 1970-01-01: 369 years of 365 days plus 89 leap days.
    constexpr uint64_t kEpochDelta = 31536000ull * 369 + 7689600ull;
    const uint64_t ticks = (static_cast<uint64_t>(seconds) + kEpochDelta) * 10000000ull;
    return {static_cast<uint32_t>(ticks), static_cast<uint32_t>(ticks >> 32)};
}
