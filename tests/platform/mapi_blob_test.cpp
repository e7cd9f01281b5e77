#include <gtest/gtest.h>

#include <string>

#include "tnef/platform/dstring.h"
#include "tnef/platform/mapi_blob.h"
#include "tnef/tnef.h"

TEST(BlobEncoding, ControlBytesAreEscapedAndEverythingElseStands) {
    dstring out;
    const unsigned char value[] = {0x41, 0x1D, 0x42};
    mapi_BlobEncodeToDstring(value, 3, &out);
    EXPECT_EQ(out.text, std::string("\x41\x1B\x5D\x42"));

    std::string all;
    for (int c = 0; c < 256; ++c) all.push_back(static_cast<char>(c));
    dstring enc;
    mapi_BlobEncodeToDstring(all.data(), all.size(), &enc);
    EXPECT_EQ(enc.text.size(), all.size() + 32);
    for (char sep : {'\0', '\x1c', '\x1d', '\x1e'})
        EXPECT_EQ(enc.text.find(sep), std::string::npos) << int(sep);
    EXPECT_EQ(enc.text.substr(0, 4), std::string("\x1B\x40\x1B\x41"));
    EXPECT_EQ(enc.text.substr(2 * 0x1B, 2), std::string("\x1B\x5B"));

    // The codec's escaping writes the same text.
    std::string codec(2 * all.size(), '\0');
    codec.resize(static_cast<size_t>(
        tnef_EncodeBinary(codec.data(), all.data(), static_cast<int32_t>(all.size()))));
    EXPECT_EQ(codec, enc.text);
}

TEST(BlobEncoding, DecodersAreExactInversesAndTolerateADanglingEscape) {
    std::string all;
    for (int c = 255; c >= 0; --c) all.push_back(static_cast<char>(c));
    dstring enc;
    mapi_BlobEncodeToDstring(all.data(), all.size(), &enc);
    dstring dec;
    mapi_BlobDecodeToDstring(enc.text.data(), enc.text.size(), &dec);
    EXPECT_EQ(dec.text, all);
    size_t n = 0;
    const unsigned char* raw = os_GraphicToControl2(enc.text.data(), enc.text.size(), &n);
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(raw), n), all);
    EXPECT_EQ(raw[n], 0);

    dstring tail;
    mapi_BlobDecodeToDstring("ab\x1b", 3, &tail);
    EXPECT_EQ(tail.text, "ab");
    raw = os_GraphicToControl2("\x1b", 1, &n);
    EXPECT_EQ(n, 0u);
    EXPECT_EQ(tnef_EncodeBinary(nullptr, nullptr, 0), 0);
}

TEST(Dstring, AppendsAnyBytesAndTruncates) {
    dstring d;
    dstring_init(&d);
    dstring_set1(&d, "ab");
    dstring_appendN(&d, "\0c", 2);
    dstring_appendChar(&d, 'd');
    dstring_appendPrintf(&d, "%x/%s", 0x8205u, "x");
    EXPECT_EQ(d.text, std::string("ab\0cd8205/x", 11));
    dstring_setLength(&d, 2);
    EXPECT_STREQ(dstring_str(&d), "ab");
    dstring_free(&d);
    EXPECT_EQ(dstring_length(&d), 0u);
}
