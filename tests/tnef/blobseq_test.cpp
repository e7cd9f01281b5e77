// Blob property sequences written as encoded property lists. Expected lists are laid out with
// the stream builder, never with the writer under test.
#include <fcntl.h>
#include <gtest/gtest.h>

#include <initializer_list>
#include <string>
#include <vector>

#include "support/test_home.h"
#include "support/tnef_builder.h"
#include "tnef/platform/mapi_blob.h"
#include "tnef/platform/os_file.h"
#include "tnef_defs.h"
#include "tnef_prop/tnef_blobwriter.h"

using namespace std::string_literals;
using tnefbuild::bytesOf;
using tnefbuild::PropList;
using tnefbuild::sameBytes;
using tnefbuild::utf16le;

namespace {

const std::string RS = "\x1e";
const std::string GS = "\x1d";

std::string enc(std::string_view bytes) {
    dstring out;
    mapi_BlobEncodeToDstring(bytes.data(), bytes.size(), &out);
    return out.text;
}
std::string enc(const TnefGuid& g) {
    return enc({reinterpret_cast<const char*>(g.data()), g.size()});
}

// "id GS v1 GS v2 ..."
std::string entry(const std::string& id, std::initializer_list<std::string> values) {
    std::string out = id;
    for (const std::string& v : values) out += GS + v;
    return out;
}

std::string seq(std::initializer_list<std::string> entries) {
    std::string out;
    for (const std::string& e : entries) out += (out.empty() ? "" : RS) + e;
    return out;
}

// Runs tnef_AddPropSequence into a fresh file and returns what it wrote.
std::string written(const TestHome& home, const char* text) {
    OsFd fd(os_open("~/tmp/seq.bin", O_RDWR | O_CREAT | O_TRUNC, 0600));
    tnef_AddPropSequence(fd.get(), text);
    EXPECT_EQ(os_lseek64(fd.get(), 0, 1), os_lseek64(fd.get(), 0, 2)) << "fd left after the list";
    return readFileBytes(home.file("tmp/seq.bin"));
}
std::string written(const TestHome& home, const std::string& text) {
    return written(home, text.c_str());
}

}  // namespace

TEST(BlobSequence, ValuesTakeTheLayoutOfTheirType) {
    TestHome home;
    const std::string ctl = bytesOf({0x41, 0x1D, 0x42, 0x00, 0x1B});
    const struct {
        const char* what;
        std::string blob;
        PropList expected;
    } cases[] = {
        {"PT_STRING8: NUL added, length 6, 2 padding bytes", entry("37001e", {"hello"}),
         PropList().string8(PR_SUBJECT, "hello")},
        {"PT_STRING8, empty: length 1, 3 padding bytes", entry("37001e", {""}),
         PropList().string8(PR_SUBJECT, "")},
        {"PT_I2 keeps the low 16 bits", entry("10002", {"1ffff"}),
         PropList().i2(0x00010002, 0xFFFF)},
        {"PT_LONG, either case", entry("170003", {"DeadBeef"}),
         PropList().long32(PR_IMPORTANCE, 0xDEADBEEF)},
        {"PT_UNICODE: two NULs added", entry("3001001f", {enc(utf16le("Ab"))}),
         PropList().unicode(0x3001001F, utf16le("Ab"))},
        {"PT_BINARY: escapes undone, 3 padding bytes", entry("10102", {enc(ctl)}),
         PropList().binary(0x00010102, ctl)},
        {"PT_SYSTIME: 8 bare bytes", entry("300040", {enc("\x80\x58\x6c\xb9\x2d\x9f\xc9\x01")}),
         PropList().i8(PR_REPLY_TIME, 0x01C99F2DB96C5880ULL)},
        {"PT_MV_LONG: one count, bare values", entry("11003", {"1", "2"}),
         PropList().mvLong(0x00011003, {1, 2})},
        {"PT_MV_I2: each value padded to 4", entry("11002", {"7", "ffff"}),
         PropList().mvI2(0x00011002, {7, 0xFFFF})},
        {"PT_MV_STRING8", entry("1101e", {"a", "", "xyz"}),
         PropList().mvString8(0x0001101E, {"a", "", "xyz"})},
        {"a single-valued string with two values is counted", entry("1001e", {"a", "b"}),
         PropList().lengthPrefixed(0x0001001E, {"a\0"s, "b\0"s})},
    };
    for (const auto& c : cases)
        EXPECT_TRUE(sameBytes(written(home, c.blob), c.expected.bytes())) << c.what;
}

TEST(BlobSequence, NamedPropertiesCarryTheCurrentSetAndTheWritersOwnIds) {
    TestHome home;
    const std::string blob = seq({
        entry("GUID", {enc(PSETID_Common)}),
        entry("#3/8205", {"7"}),
        entry("GUID", {enc(PS_PUBLIC_STRINGS)}),
        entry(":101f/" + enc(utf16le("Keywords")), {enc(utf16le("a")), enc(utf16le("bc"))}),
        entry("GUID", {"\x7f\x7f"}),  // a short set replaces only its leading bytes
        entry("#b/1", {"1"}),
        entry("GUID", {enc(PSETID_Meeting) + "tail"}),  // a long one gives its first 16
        entry(":1e/", {"x"}),
    });
    TnefGuid shortened = PS_PUBLIC_STRINGS;
    shortened[0] = shortened[1] = 0x7F;
    const PropList expected = PropList()
                                  .namedId(PSETID_Common, 0x8205)
                                  .long32(0x80010003, 7)  // the first id of the process
                                  .namedString(PS_PUBLIC_STRINGS, utf16le("Keywords"))
                                  .mvUnicode(0x8002101F, {utf16le("a"), utf16le("bc")})
                                  .namedId(shortened, 1)
                                  .i2(0x8003000B, 1)
                                  .namedString(PSETID_Meeting, "")
                                  .string8(0x8004001E, "x");
    EXPECT_TRUE(sameBytes(written(home, blob), expected.bytes()));

    // The set starts all zero in every sequence; ids go on across sequences, skip 0xffff.
    tnefBlobNamedPropId = 0xFFFD;
    const TnefGuid zero{};
    EXPECT_TRUE(sameBytes(
        written(home, seq({entry("#3/1", {"1"}), entry("#3/2", {"2"}), entry("#3/3", {"3"})})),
        PropList()
            .namedId(zero, 1)
            .long32(0xFFFE0003, 1)
            .namedId(zero, 2)
            .long32(0x80000003, 2)
            .namedId(zero, 3)
            .long32(0x80010003, 3)
            .bytes()));
}

TEST(BlobSequence, GrammarStopsAtAnEntryWithoutValueSeparator) {
    TestHome home;
    const std::string countOnly = PropList().bytes();
    EXPECT_TRUE(sameBytes(written(home, nullptr), countOnly)) << "null text";
    EXPECT_TRUE(sameBytes(written(home, ""), countOnly)) << "empty text";
    EXPECT_TRUE(sameBytes(written(home, "170003"), countOnly)) << "no separator at all";

    const std::string stops = seq(
        {entry("170003", {"1"}), entry("360003", {"2"}), "37001e", entry("3001001e", {"never"})});
    EXPECT_TRUE(sameBytes(written(home, stops),
                          PropList().long32(PR_IMPORTANCE, 1).long32(PR_SENSITIVITY, 2).bytes()))
        << "nothing after the third entry, which has no value separator";

    const std::string skips =
        RS + seq({entry("", {"orphan"}), entry("#3", {"9"}), "", entry("170003", {"5"})}) + RS;
    EXPECT_TRUE(sameBytes(written(home, skips), PropList().long32(PR_IMPORTANCE, 5).bytes()))
        << "empty entries, empty ids and named ids without '/' are skipped; a final RS is fine";
    EXPECT_EQ(tnefBlobNamedPropId, NAMED_PROP_FIRST_ID) << "a skipped named id takes no id";
}

TEST(BlobSequence, HostileTextsStayInBounds) {
    TestHome home;
    // A tag beyond 32 bits reads as 0xffffffff: the multi-value bit and an unknown base type,
    // so a value count and no length.
    EXPECT_TRUE(sameBytes(written(home, entry("123456789abcdef", {"1"})),
                          PropList().mvLong(0xFFFFFFFF, {}).valueCount(1).raw("1").pad4().bytes()));
    EXPECT_TRUE(sameBytes(written(home, entry("37001e", {"ab\x1b"})),
                          PropList().string8(PR_SUBJECT, "ab").bytes()))
        << "an escape byte that ends the text stands for nothing";
    EXPECT_TRUE(sameBytes(written(home, entry("zz", {"q"})),
                          PropList().count(1).raw("\0\0\0\0q\0\0\0"s).bytes()))
        << "a tag that is no number is 0, a type outside the table keeps its bytes bare";
}
