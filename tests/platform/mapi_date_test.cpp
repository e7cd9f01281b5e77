#include <gtest/gtest.h>

#include <cstdio>
#include <string>

#include "tnef/platform/dstring.h"
#include "tnef/platform/mapi_blob.h"
#include "tnef/platform/mapi_date.h"
#include "tnef/platform/os_file.h"
#include "tnef/tnef.h"

namespace {

// The blob text mapi_BlobEncodeSYSTIME should give: the escaped 8 bytes of the MAPI time.
std::string expectedText(uint32_t unixSeconds) {
    TnefMapiTime t = tnef_ConvertDate(unixSeconds, 0);
    uint8_t bytes[8];
    for (int i = 0; i < 4; ++i) {
        bytes[i] = static_cast<uint8_t>(t.low >> (8 * i));
        bytes[4 + i] = static_cast<uint8_t>(t.high >> (8 * i));
    }
    dstring d;
    mapi_BlobEncodeToDstring(bytes, 8, &d);
    return d.text;
}

std::string encode(const char* iso) {
    char* out = nullptr;
    if (!mapi_BlobEncodeSYSTIME(iso, &out)) return "<none>";
    std::string s(out);
    mdc_free(out);
    return s;
}

}  // namespace

TEST(MapiDate, DateTextsBecomeTheBlobTextOfTheirMapiTime) {
    EXPECT_EQ(encode("1970-01-01T00:00:00Z"), expectedText(0));
    // 2009-03-07 14:05:09 UTC.
    EXPECT_EQ(encode("2009-03-07T14:05:09Z"), expectedText(1236434709u));
    EXPECT_EQ(encode("2000-02-29T23:59:59Z"), expectedText(951868799u));
    for (const char* bad : {"2009-02-29T00:00:00Z", "2009-13-01T00:00:00Z", "2009-00-10T00:00:00Z",
                            "0-00-00T00:00:00Z", "2009-03-07T24:00:00Z", "2009-03-07T14:05:09",
                            "2009-03-07 14:05:09Z", "", "1600-12-31T23:59:59Z", "2009-04-31T00:00:00Z",
                            "2009-06-31T00:00:00Z", "2009-09-31T00:00:00Z", "2009-11-31T00:00:00Z"})
        EXPECT_EQ(encode(bad), "<none>") << bad;
}

TEST(MapiDate, DateRecordsSurviveTextAndBack) {
    const uint16_t dates[][6] = {{1601, 1, 1, 0, 0, 0},    {1969, 12, 31, 23, 59, 59},
                                 {2009, 3, 7, 14, 5, 9},   {2038, 1, 19, 3, 14, 8},
                                 {2400, 2, 29, 12, 0, 0},  {30827, 12, 31, 23, 59, 59}};
    for (const auto& d : dates) {
        char iso[40];
        std::snprintf(iso, sizeof iso, "%d-%02d-%02dT%02d:%02d:%02dZ", d[0], d[1], d[2], d[3], d[4],
                      d[5]);
        char* text = nullptr;
        ASSERT_EQ(mapi_BlobEncodeSYSTIME(iso, &text), 1) << iso;
        size_t n = 0;
        const unsigned char* raw = os_GraphicToControl2(text, std::string(text).size(), &n);
        ASSERT_EQ(n, 8u);
        uint32_t low = raw[0] | raw[1] << 8 | raw[2] << 16 | static_cast<uint32_t>(raw[3]) << 24;
        uint32_t high = raw[4] | raw[5] << 8 | raw[6] << 16 | static_cast<uint32_t>(raw[7]) << 24;
        mdc_free(text);
        uint16_t record[7];
        mapi_DateToDTR(low, high, record);
        for (int i = 0; i < 6; ++i) EXPECT_EQ(record[i], d[i]) << iso << " field " << i;
    }
    uint16_t record[7];
    TnefMapiTime t = tnef_ConvertDate(1236434709u, 0);  // a Saturday
    mapi_DateToDTR(t.low, t.high, record);
    EXPECT_EQ(record[6], 6);
    t = tnef_ConvertDate(0, 0);  // a Thursday
    mapi_DateToDTR(t.low, t.high, record);
    EXPECT_EQ(record[6], 4);
}
