#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "support/test_home.h"
#include "support/tnef_builder.h"
#include "tnef/platform/os_file.h"
#include "tnef_defs.h"
#include "tnef_prop/tnef_extract.h"
#include "tnef_prop/tnef_proplog.h"

using tnefbuild::PropList;
using tnefbuild::utf16le;

namespace {

const std::string GS = "\x1d", RS = "\x1e", Z = "\x1b@";  // Z: an encoded zero byte
// Printable property set bytes keep the expected texts readable.
const tnefbuild::Guid kSet = {'A', 'B', 'C', 'D', 'E', 'F', 'G', 'H',
                              'I', 'J', 'K', 'L', 'M', 'N', 'O', 'P'};
const std::string kGuidEntry = "GUID" + GS + "ABCDEFGHIJKLMNOP" + RS;

std::string e(const std::string& id, const std::string& value) {
    return id + GS + value;
}

struct Rendered {
    int found;
    bool hasText;
    std::string text;
};

// Renders a list held alone in a file; attLen 0 stands for the list's own size.
Rendered render(const TestHome& home, const std::string& list, uint16_t type, uint16_t id,
                int found = 0, uint32_t attLen = 0) {
    home.write("tmp/list", list);
    OsFd fd(os_open("~/tmp/list", O_RDONLY, 0));
    hitTnefEof = 0;
    char* out = nullptr;
    tnef_GetPropValue(fd.get(), type, id, &found, attLen ? attLen : uint32_t(list.size()), &out);
    Rendered r{found, out != nullptr, out != nullptr ? out : ""};
    std::free(out);
    return r;
}

}  // namespace

TEST(PropValue, RendersEveryValueLayoutAsItsBlobText) {
    TestHome home;
    const std::string list = PropList()
                                 .long32(0x00170003, 2)
                                 .string8(0x0037001E, "abc")
                                 .i2(0x0063000B, 1)
                                 .i2(0x00010002, 0xFFFF)
                                 .r4(0x00050004, 1.0f)
                                 .unicode(0x3001001F, utf16le("Hi"))
                                 .lengthPrefixed(0x3002001F, {""})
                                 .i8(0x30070040, 0x4847464544434241ULL)
                                 .clsid(0x00060048, kSet)
                                 .binary(0x00470102, "\x41\x1d\x42")
                                 .object(0x3701000D, kSet, "data")
                                 .mvLong(0x00011003, {1, 2, 0x10})
                                 .mvI2(0x00021002, {7, 0xABCD})
                                 .mvI8(0x00041014, {0x4847464544434241ULL, 0x504F4E4D4C4B4A49ULL})
                                 .mvString8(0x0003101E, {"a", "bc"})
                                 .bytes();
    const Rendered r = render(home, list, 0, 0);
    EXPECT_EQ(r.found, 1);
    EXPECT_EQ(r.text,
              e("170003", "2") + RS + e("37001e", "abc") + RS + e("63000b", "1") + RS +
                  e("10002", "ffff") + RS + e("50004", "3f800000") + RS +
                  e("3001001f", "H" + Z + "i" + Z) + RS + e("3002001f", "") + RS +
                  e("30070040", "ABCDEFGH") + RS + e("60048", "ABCDEFGHIJKLMNOP") + RS +
                  e("470102", "A\x1b]B") + RS + e("3701000d", "ABCDEFGHIJKLMNOPdata") + RS +
                  e("11003", "1" + GS + "2" + GS + "10") + RS + e("21002", "7" + GS + "abcd") + RS +
                  e("41014", "ABCDEFGH" + GS + "IJKLMNOP") + RS + e("3101e", "a" + GS + "bc"));
}

TEST(PropValue, NamedPropertiesEachCarryTheirPropertySetEntry) {
    TestHome home;
    const std::string list = PropList()
                                 .namedId(kSet, 0x8205)
                                 .long32(0x80010003, 5)
                                 .namedString(kSet, utf16le("Keywords"))
                                 .mvUnicode(0x8002101F, {utf16le("x"), utf16le("yz")})
                                 .namedString(kSet, "")
                                 .long32(0x80030003, 6)
                                 .long32(0xFFFF0003, 9)
                                 .bytes();
    std::string keywords;
    for (char c : std::string("Keywords")) keywords += c + Z;
    EXPECT_EQ(render(home, list, 0, 0).text,
              kGuidEntry + e("#3/8205", "5") + RS + kGuidEntry +
                  e(":101f/" + keywords, "x" + Z + GS + "y" + Z + "z" + Z) + RS + kGuidEntry +
                  e(":3/", "6") + RS + e("ffff0003", "9"));
}

TEST(PropValue, SearchStopsAtFirstMatchAfterSteppingOverEveryLayout) {
    TestHome home;
    const std::string list = PropList()
                                 .mvI2(0x00011002, {1, 2, 3})
                                 .string8(0x0005001E, "hello")
                                 .mvBinary(0x00081102, {"a", "bcdef"})
                                 .i8(0x000A0040, 1)
                                 .namedString(kSet, utf16le("Keywords"))
                                 .long32(0x80010003, 1)
                                 .namedId(kSet, 0x8205)
                                 .long32(0x80020003, 0x42)
                                 .long32(0x00170003, 7)
                                 .long32(0x00170003, 8)
                                 .bytes();
    const Rendered plain = render(home, list, PT_LONG, 0x0017);
    EXPECT_EQ(plain.found, 1);
    EXPECT_EQ(plain.text, e("170003", "7")) << "only the first of two equal tags";
    EXPECT_EQ(render(home, list, PT_LONG, 0x8205).text, kGuidEntry + e("#3/8205", "42"));

    const Rendered byStreamId = render(home, list, PT_LONG, 0x8001);
    EXPECT_EQ(byStreamId.found, 0) << "a named property is known by its name, not its id";
    EXPECT_FALSE(byStreamId.hasText);
    EXPECT_EQ(render(home, list, PT_LONG, 0x0017, 1).text, "") << "a set flag stops the walk";
}

TEST(PropValue, OversizedValueIsAbandonedAndTheListStaysAligned) {
    TestHome home;
    home.write("sys/tnef.dbg", "");
    tnef_OpenPropLog();
    const std::string list = PropList()
                                 .binary(0x00470102, std::string(8193, 'x'))
                                 .long32(0x00170003, 2)
                                 .mvBinary(0x00081102, {"0123", std::string(9000, 'y'), "abcde"})
                                 .string8(0x0037001E, "ok")
                                 .binary(0x00090102, std::string(8192, 'z'))
                                 .bytes();
    const Rendered r = render(home, list, 0, 0);
    tnef_ClosePropLog();
    EXPECT_EQ(r.text,
              e("170003", "2") + RS + e("37001e", "ok") + RS + e("90102", std::string(8192, 'z')));
    const std::string log = home.read("tmp/tnef.log." + std::to_string(::getpid()));
    EXPECT_NE(log.find("** tnef_GetAsBlob abandon property 00470102 hitTnefEof=0 TooBig=1\n"),
              std::string::npos);
    EXPECT_NE(log.find("abandon property 00081102 hitTnefEof=0 TooBig=1"), std::string::npos);
}

TEST(PropValue, MalformedListsEndWithinTheFileAndKeepCompletedEntries) {
    TestHome home;
    // A count beyond the attribute takes one value of the attribute length minus 16.
    const std::string clamped =
        PropList().binary(0x00470102, "WXYZ").valueCount(1000).raw("abcd").bytes();
    EXPECT_EQ(render(home, clamped, 0, 0, 0, 24).text, e("470102", "WXYZabcd"));

    // A count of 0 has no length word after it.
    EXPECT_EQ(
        render(home, PropList().lengthPrefixed(0x0037001E, {}).long32(0x00170003, 2).bytes(), 0, 0)
            .text,
        e("37001e", "") + RS + e("170003", "2"));

    // Types outside the stream's tables (tag 0 too) render as counted values; a search
    // cannot step over them and stops.
    const std::string odd = PropList()
                                .lengthPrefixed(0x00000000, {"q"})
                                .lengthPrefixed(0x00AA0099, {"r"})
                                .long32(0x00170003, 2)
                                .bytes();
    EXPECT_EQ(render(home, odd, 0, 0).text,
              e("0", "q") + RS + e("aa0099", "r") + RS + e("170003", "2"));
    EXPECT_EQ(render(home, odd, PT_LONG, 0x0017).found, 0);

    // Counts that promise more than the file holds end at its end.
    EXPECT_FALSE(
        render(home, PropList().mvLong(0x00011003, {1}).valueCount(0xFFFFFFFF).bytes(), 0, 0)
            .hasText);
    EXPECT_FALSE(render(home, PropList().mvBinary(0x00081102, {"a"}).valueCount(0xFFFFFFFF).bytes(),
                        PT_LONG, 0x0017)
                     .hasText);
    EXPECT_FALSE(render(home, PropList().count(0xFFFFFFFF).bytes(), 0, 0).hasText);

    // A string name over 511 bytes ends the list.
    const std::string longName = PropList()
                                     .long32(0x00170003, 2)
                                     .namedString(kSet, std::string(512, 'k'))
                                     .long32(0x80010003, 1)
                                     .long32(0x00180003, 3)
                                     .bytes();
    EXPECT_EQ(render(home, longName, 0, 0).text, e("170003", "2"));

    // A list cut inside a value keeps the entries before it and drops the cut one.
    PropList cut;
    cut.long32(0x00170003, 2).string8(0x0037001E, "hello").long32(0x00180003, 3);
    EXPECT_EQ(render(home, cut.bytes().substr(0, cut.size() - 10), 0, 0).text, e("170003", "2"));
    EXPECT_EQ(hitTnefEof, 1);
}
