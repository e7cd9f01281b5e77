#include <cstdint>

#include "tnef/tnef.h"

void tnef_ConvertDateToUX(uint32_t* seconds, uint16_t* companion, uint32_t low, int32_t high) {
    double value = static_cast<double>(high) * 4294967296.0 + static_cast<double>(low);
    value = value / 10000000.0;
    value = value - (31536000.0 * 369.0 + 7689600.0);
    // Times past 2038-01-19 03:14:07 do not fit the server's signed seconds.
    if (value > 2147483647.0) value = 2147483647.0;
    // Far below 1601 the double leaves the 64-bit range; keep the cast defined there.
    if (value < -9.2e18) value = -9.2e18;
    *seconds = static_cast<uint32_t>(static_cast<uint64_t>(static_cast<int64_t>(value)));
    *companion = 0;
}
