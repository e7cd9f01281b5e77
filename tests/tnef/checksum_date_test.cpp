#include <gtest/gtest.h>

#include <vector>

#include "tnef/tnef.h"

TEST(Checksum, SumsDataBytesWrappingAt16Bits) {
    EXPECT_EQ(tnef_Checksum(nullptr, 0), 0);
    const unsigned char version[] = {0x00, 0x00, 0x01, 0x00};
    EXPECT_EQ(tnef_Checksum(version, 4), 0x0001);
    std::vector<unsigned char> ff(256, 0xFF);
    EXPECT_EQ(tnef_Checksum(ff.data(), 256), 0xFF00);
    // 258 * 255 = 65790 wraps to 254.
    std::vector<unsigned char> wrap(258, 0xFF);
    EXPECT_EQ(tnef_Checksum(wrap.data(), 258), 254);
    EXPECT_EQ(tnef_Checksum(ff.data(), -5), 0);
}

TEST(ConvertDate, UnixEpochIsTheKnownFileTime) {
    TnefMapiTime t = tnef_ConvertDate(0, 0x1234);
    EXPECT_EQ((static_cast<uint64_t>(t.high) << 32) | t.low, 0x019DB1DED53E8000ull);
    t = tnef_ConvertDate(0xFFFFFFFFu, 0);
    // The widening happens before the arithmetic: no 32-bit overflow.
    EXPECT_EQ((static_cast<uint64_t>(t.high) << 32) | t.low,
              (0xFFFFFFFFull + 11644473600ull) * 10000000ull);
}

TEST(ConvertDateToUX, RoundTripsAndClampsAfter2038) {
    uint32_t seconds = 99;
    uint16_t companion = 99;
    tnef_ConvertDateToUX(&seconds, &companion, 0xD53E8000u, 0x019DB1DE);
    EXPECT_EQ(seconds, 0u);
    EXPECT_EQ(companion, 0);

    TnefMapiTime t = tnef_ConvertDate(1700000000u, 0);
    tnef_ConvertDateToUX(&seconds, &companion, t.low, static_cast<int32_t>(t.high));
    EXPECT_EQ(seconds, 1700000000u);

    // 2038-01-19 03:14:08 is one second past the limit.
    t = tnef_ConvertDate(2147483648u, 0);
    tnef_ConvertDateToUX(&seconds, &companion, t.low, static_cast<int32_t>(t.high));
    EXPECT_EQ(seconds, 2147483647u);
    companion = 7;
    tnef_ConvertDateToUX(&seconds, &companion, 0xFFFFFFFFu, 0x7FFFFFFF);
    EXPECT_EQ(seconds, 2147483647u);
    EXPECT_EQ(companion, 0);

    // Before 1970 there is no lower bound: one second earlier is -1 as 32 bits.
    const uint64_t epoch = 0x019DB1DED53E8000ull - 10000000ull;
    tnef_ConvertDateToUX(&seconds, &companion, static_cast<uint32_t>(epoch),
                         static_cast<int32_t>(epoch >> 32));
    EXPECT_EQ(seconds, 0xFFFFFFFFu);
}
