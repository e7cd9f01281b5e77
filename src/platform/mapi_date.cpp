#include "tnef/platform/mapi_date.h"

#include <cstdio>
#include <cstring>

#include "tnef/platform/dstring.h"
#include "tnef/platform/mapi_blob.h"
#include "tnef/platform/os_file.h"

namespace {

// Seconds from 1601-01-01 to 1970-01-01.
constexpr int64_t kEpochDelta = 11644473600LL;
constexpr int64_t kTicksPerSecond = 10000000LL;

bool isLeap(int64_t y) { return (y % 4 == 0 && y % 100 != 0) || y % 400 == 0; }

unsigned daysInMonth(int64_t y, unsigned m) {
    static constexpr unsigned kDays[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    return m == 2 && isLeap(y) ? 29 : kDays[m - 1];
}

// Reads minWidth to maxWidth decimal digits into *out; null in, null out.
const char* readDigits(const char* p, int minWidth, int maxWidth, int* out) {
    if (p == nullptr) return nullptr;
    int value = 0;
    int n = 0;
    while (n < maxWidth && p[n] >= '0' && p[n] <= '9') value = value * 10 + (p[n++] - '0');
    if (n < minWidth) return nullptr;
    *out = value;
    return p + n;
}

const char* expect(const char* p, char c) { return p != nullptr && *p == c ? p + 1 : nullptr; }

}  // namespace

int64_t mapi_DaysFromCivil(int64_t y, unsigned m, unsigned d) {
    y -= m <= 2;
    const int64_t era = (y >= 0 ? y : y - 399) / 400;
    const auto yoe = static_cast<unsigned>(y - era * 400);
    const unsigned doy = (153 * (m > 2 ? m - 3 : m + 9) + 2) / 5 + d - 1;
    const unsigned doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
    return era * 146097 + static_cast<int64_t>(doe) - 719468;
}

void mapi_CivilFromDays(int64_t z, int64_t* year, unsigned* month, unsigned* day) {
    z += 719468;
    const int64_t era = (z >= 0 ? z : z - 146096) / 146097;
    const auto doe = static_cast<unsigned>(z - era * 146097);
    const unsigned yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
    const unsigned doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
    const unsigned mp = (5 * doy + 2) / 153;
    *day = doy - (153 * mp + 2) / 5 + 1;
    *month = mp < 10 ? mp + 3 : mp - 9;
    *year = static_cast<int64_t>(yoe) + era * 400 + (*month <= 2);
}

int mapi_BlobEncodeSYSTIME(const char* isoText, char** result) {
    *result = nullptr;
    if (isoText == nullptr) return 0;
    int f[6] = {};
    const char* p = readDigits(isoText, 4, 5, &f[0]);
    p = p ? readDigits(expect(p, '-'), 2, 2, &f[1]) : nullptr;
    p = p ? readDigits(expect(p, '-'), 2, 2, &f[2]) : nullptr;
    p = p ? readDigits(expect(p, 'T'), 2, 2, &f[3]) : nullptr;
    p = p ? readDigits(expect(p, ':'), 2, 2, &f[4]) : nullptr;
    p = p ? readDigits(expect(p, ':'), 2, 2, &f[5]) : nullptr;
    p = expect(p, 'Z');
    if (p == nullptr || *p != '\0') return 0;
    const int year = f[0];
    const auto month = static_cast<unsigned>(f[1]);
    const auto day = static_cast<unsigned>(f[2]);
    if (year < 1601 || year > 30827 || month < 1 || month > 12 || day < 1 ||
        day > daysInMonth(year, month) || f[3] > 23 || f[4] > 59 || f[5] > 59)
        return 0;

    const int64_t seconds = mapi_DaysFromCivil(year, month, day) * 86400 + f[3] * 3600 +
                            f[4] * 60 + f[5] + kEpochDelta;
    const auto ticks = static_cast<uint64_t>(seconds) * static_cast<uint64_t>(kTicksPerSecond);
    uint8_t bytes[8];
    for (int i = 0; i < 8; ++i) bytes[i] = static_cast<uint8_t>(ticks >> (8 * i));
    dstring text;
    mapi_BlobEncodeToDstring(bytes, sizeof bytes, &text);
    auto* copy = static_cast<char*>(mdc_malloc(text.text.size() + 1));
    if (copy == nullptr) return 0;
    std::memcpy(copy, text.text.c_str(), text.text.size() + 1);
    *result = copy;
    return 1;
}

void mapi_DateToDTR(uint32_t low, uint32_t high, uint16_t record[7]) {
    const uint64_t ticks = (static_cast<uint64_t>(high) << 32) | low;
    const auto seconds = static_cast<int64_t>(ticks / static_cast<uint64_t>(kTicksPerSecond));
    const int64_t unixSeconds = seconds - kEpochDelta;
    int64_t days = unixSeconds / 86400;
    int64_t rest = unixSeconds % 86400;
    if (rest < 0) {
        rest += 86400;
        days -= 1;
    }
    int64_t year = 0;
    unsigned month = 0;
    unsigned day = 0;
    mapi_CivilFromDays(days, &year, &month, &day);
    record[0] = static_cast<uint16_t>(year);
    record[1] = static_cast<uint16_t>(month);
    record[2] = static_cast<uint16_t>(day);
    record[3] = static_cast<uint16_t>(rest / 3600);
    record[4] = static_cast<uint16_t>(rest / 60 % 60);
    record[5] = static_cast<uint16_t>(rest % 60);
    // 1970-01-01 was a Thursday.
    record[6] = static_cast<uint16_t>(((days % 7) + 7 + 4) % 7);
}
