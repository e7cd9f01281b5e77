#include <fcntl.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "support/blob_text.h"
#include "support/store_checks.h"
#include "support/test_home.h"
#include "support/tnef_builder.h"
#include "tnef/platform/er_escape.h"
#include "tnef/platform/mp_stored.h"
#include "tnef/platform/msg_builder.h"
#include "tnef/platform/msg_store.h"
#include "tnef/platform/os_file.h"
#include "tnef/platform/tf_msgfile.h"
#include "tnef/tnef.h"
#include "tnef_defs.h"
#include "tnef_writers.h"

using namespace tnefbuild;
using namespace std::string_literals;
namespace fs = std::filesystem;

namespace {

constexpr uint32_t kEntryId = 0x0FFF0102;  // PT_BINARY
constexpr uint32_t kDisplayName = 0x3001001E;
constexpr uint32_t kMvLong = 0x36E41003;

// What tnef_ParseData writes for the text into an empty stream; the buffer is exactly as
// long as the text, so a read past its end is caught under the address sanitizer.
std::string parsed(const TestHome& home, const std::string& text) {
    OsFd fd(os_open("~/tmp/out.tnef", O_RDWR | O_CREAT | O_TRUNC, 0600));
    std::unique_ptr<char[]> buffer(new char[text.size()]);
    std::memcpy(buffer.get(), text.data(), text.size());
    tnef_ParseData(fd.get(), buffer.get(), static_cast<uint32_t>(text.size()));
    return readFileBytes(home.file("tmp/out.tnef"));
}

// The expected bytes are made before the text is parsed, as named ids advance when written.
void expectParsed(const TestHome& home, const std::string& text, const std::string& expected,
                  const char* what = "") {
    EXPECT_TRUE(sameBytes(parsed(home, text), expected)) << what;
}

std::string props(const PropList& list) {
    return Stream().record(1, attMAPIProps, list.bytes()).bytes();
}

// The tag a named property of the type gets when it is the n-th written from here on.
uint32_t namedTag(uint16_t type, uint16_t n) {
    return PROP_TAG(type, static_cast<uint16_t>(tnefWriterState.nextNamedId + n));
}

// Test texts with the separators written as | (0x1D) and ; (0x1E).
std::string blob(std::string text) {
    for (char& c : text) c = c == '|' ? '\x1d' : c == ';' ? '\x1e' : c;
    return text;
}

struct Case {
    const char* what;
    std::string input;
    std::string expected;
};

// The records of a written stream; fails when a checksum is not the byte sum of its data
// or the records do not end where the stream does.
testing::AssertionResult splitRecords(const std::string& s, std::vector<std::string>* out) {
    for (size_t at = 0; at < s.size();) {
        uint32_t length = 0;
        if (s.size() - at >= 9) std::memcpy(&length, s.data() + at + 5, 4);
        if (s.size() - at < 11 || s.size() - at - 11 < length)
            return testing::AssertionFailure() << "record at " << at << " overruns the stream";
        const uint16_t stored = static_cast<uint8_t>(s[at + 9 + length]) |
                                static_cast<uint8_t>(s[at + 10 + length]) << 8;
        if (stored != byteSum16(std::string_view(s).substr(at + 9, length)))
            return testing::AssertionFailure() << "bad checksum at " << at << "\n" << hexDump(s);
        if (out != nullptr) out->push_back(s.substr(at, 11 + length));
        at += 11 + length;
    }
    return testing::AssertionSuccess();
}

}  // namespace

TEST(ParseData, EntriesBecomeRecordsLaidOutAsTheStreamExpects) {
    TestHome home;
    const std::vector<Case> cases = {
        {"empty text", "", ""},
        {"string", blob("37001e|Hi;"), props(PropList().string8(PR_SUBJECT, "Hi"))},
        {"empty string keeps its NUL", blob("3001001e|;"),
         props(PropList().string8(kDisplayName, ""))},
        {"empty binary", blob("fff0102|;"), props(PropList().binary(kEntryId, ""))},
        {"escaped binary", blob("fff0102|\x1b@A\x1b];"),
         props(PropList().binary(kEntryId, "\0A\x1d"s))},
        {"unicode gets two NULs", blob("3001001f|H\x1b@i\x1b@;"),
         props(PropList().unicode(0x3001001F, utf16le("Hi")))},
        {"long", blob("170003|2;"), props(PropList().long32(PR_IMPORTANCE, 2))},
        {"origin and V entries are skipped", blob("CORIGIN|smtp;Vx|y;37001e|Hi;"),
         props(PropList().string8(PR_SUBJECT, "Hi"))},
        {"three longs: count 3, 12 bytes", blob("36e41003|1|2|10;"),
         props(PropList().mvLong(kMvLong, {1, 2, 0x10}))},
        {"strings", blob("3a54101e|a|bcd;"), props(PropList().mvString8(0x3A54101E, {"a", "bcd"}))},
        {"wide fixed values carry no length",
         blob(
             "36e51040|\x1b\x41\x1b\x41\x1b\x41\x1b\x41\x1b\x41\x1b\x41\x1b\x41\x1b\x41|12345678;"),
         props(PropList().mvI8(0x36E51040, {0x0101010101010101, 0x3837363534333231}))},
        {"a single-valued string counts a second value", blob("37001e|a|b;"),
         props(PropList().lengthPrefixed(PR_SUBJECT, {"a\0"s, "b\0"s}))},
        {"a requested response requests a reply first", blob("63000b|1;"),
         props(PropList().i2(PR_REPLY_REQUESTED, 1)) +
             props(PropList().i2(PR_RESPONSE_REQUESTED, 1))},
        {"empty compressed body", blob("10090102|;"), ""},
        {"compressed body", blob("10090102|ab;"),
         props(PropList().binary(PR_RTF_COMPRESSED, "ab"))},
        {"owner appointment id", blob("620003|1234;"),
         Stream().record(1, attAidOwner, "\x34\x12\0\0"s).bytes()},
        // A text that ends after a key gives the property one zero byte.
        {"trailing string key", blob("37001e|"), props(PropList().string8(PR_SUBJECT, ""))},
        {"trailing long key", blob("170003|"), props(PropList().long32(PR_IMPORTANCE, 0))},
        {"trailing compressed body key", blob("10090102|"), ""},
        {"trailing property set key", blob("GUID|"), ""},
        // An unterminated last field ends its entry, so it is a value and never a key.
        {"bare last field", "37001e", ""},
        {"bare last value", blob("37001e|Hi"), props(PropList().string8(PR_SUBJECT, "Hi"))},
    };
    for (const Case& c : cases) expectParsed(home, c.input, c.expected, c.what);
}

// A further value with no record of its own to grow must not patch the record before it.
TEST(ParseData, FurtherValuesWithoutARecordToGrowAreDropped) {
    TestHome home;
    const std::string mv = props(PropList().mvLong(kMvLong, {1}));
    const std::vector<Case> cases = {
        {"single long", blob("36e41003|1;170003|5|6;"),
         mv + props(PropList().long32(PR_IMPORTANCE, 5))},
        {"never-written tag", blob("36e41003|1;42001e|me|you;"), mv},
        {"empty compressed body", blob("36e41003|1;10090102||abc;"), mv},
        {"owner appointment id", blob("36e41003|1;620003|7|8;"),
         mv + Stream().record(1, attAidOwner, "\x07\0\0\0"s).bytes()},
    };
    for (const Case& c : cases) expectParsed(home, c.input, c.expected, c.what);
}

TEST(ParseData, NamedEntriesTakeTheLastPropertySet) {
    TestHome home;
    const std::string common = blob("GUID|") +
                               blobtext::escape(std::string(PSETID_Common.begin(), PSETID_Common.end())) +
                               blob(";");
    const std::string keywords = utf16le("Keywords");
    expectParsed(home, common + blob("#3/8205|5;:1f/") + blobtext::escape(keywords) + blob("|a\x1b@;"),
                 props(PropList().namedId(PSETID_Common, 0x8205).long32(namedTag(PT_LONG, 0), 5)) +
                     props(PropList()
                               .namedString(PSETID_Common, keywords)
                               .unicode(namedTag(PT_UNICODE, 1), utf16le("a"))));
    expectParsed(home, blob("#b/1|1;"),
                 props(PropList().namedId(Guid{}, 1).i2(namedTag(PT_BOOLEAN, 0), 1)),
                 "before any property set entry the set is all zero");
    expectParsed(home, blob("#3/8205|"),
                 props(PropList().namedId(Guid{}, 0x8205).long32(namedTag(PT_LONG, 0), 0)),
                 "trailing named key");
    Guid patched = PSETID_Common;
    patched[0] = 'x', patched[1] = 'y';
    expectParsed(home, common + blob("GUID|xy;#3/1|1;"),
                 props(PropList().namedId(patched, 1).long32(namedTag(PT_LONG, 0), 1)),
                 "a short set replaces only its leading bytes");
}

TEST(ParseData, StringNamesLongerThanTheBufferAreRejectedWhole) {
    TestHome home;
    // The limit counts unescaped bytes: 1022 control bytes take 2044 bytes of text.
    for (const std::string& name : {std::string(1022, 'n'), std::string(1022, '\x01')})
        expectParsed(home, ":3/" + blobtext::escape(name) + blob("|1;"),
                     props(PropList().namedString(Guid{}, name).long32(namedTag(PT_LONG, 0), 1)));
    const std::string tooLong(1023, 'n');
    expectParsed(home, ":101e/" + tooLong + blob("|a|b;170003|2;"),
                 props(PropList().long32(PR_IMPORTANCE, 2)),
                 "no record for any of its values; the next entry is read as usual");
    EXPECT_EQ(parsed(home, ":3/" + tooLong + blob("|")), "");
}

// Random texts drawn mostly from the bytes that steer the parser: nothing may be read or
// written out of bounds, and what comes out is a chain of records whose checksums hold.
TEST(ParseData, HostileTextsStayInBoundsAndWriteConsistentRecords) {
    TestHome home;
    const std::string alphabet = "\x1d\x1e\x1b\x1d\x1e@]GCV#:/0123456789abcdef1e1f0102100330001b"s;
    std::mt19937 rng(20240611);
    for (int round = 0; round < 400; ++round) {
        std::string text(rng() % 200, '\0');
        for (char& c : text)
            c = rng() % 8 == 0 ? static_cast<char>(rng()) : alphabet[rng() % alphabet.size()];
        ASSERT_TRUE(splitRecords(parsed(home, text), nullptr)) << "round " << round;
    }
    for (const std::string text : {"\x1d\x1d\x1d\x1d", "\x1e\x1e\x1e", "\x1d\x1e\x1d\x1e\x1b",
                                   "#\x1d\x1d", ":\x1d\x1b", "G\x1d\x1b"})
        EXPECT_TRUE(splitRecords(parsed(home, text), nullptr));
}

TEST(ParseObject, DropsTheHeadTheOutputAlreadyHas) {
    TestHome home;
    const std::string rest = Stream()
                                 .record(1, attMessageClass, "IPM.Note\0"s)
                                 .record(2, attAttachData, std::string(9000, 'd'))
                                 .bytes();
    const std::string level2 = Stream().record(2, attAttachRenddata, std::string(14, '\1')).bytes();
    const std::vector<Case> cases = {
        {"version and code page", Stream().header().tnefVersion().oemCodepage(1252).bytes() + rest,
         rest},
        {"version alone", Stream().header().tnefVersion().bytes() + rest, rest},
        {"version, then level 2", Stream().header().tnefVersion().bytes() + level2 + rest,
         level2 + rest},
        {"code page alone", Stream().header().oemCodepage(1252).bytes() + rest, rest},
        {"another first record is kept whole", Stream().header().bytes() + rest, rest},
        {"a level-2 first record is kept whole", Stream().header().bytes() + level2, level2},
        {"header only", Stream().header().bytes(), ""},
        {"cut inside the header", "\x78\x9f\x3e"s, ""},
    };
    for (const Case& c : cases) {
        home.write("tmp/object.tnef", c.input);
        OsFd in(os_open("~/tmp/object.tnef", O_RDONLY, 0));
        os_lseek64(in.get(), 0, 2);  // wherever the caller left it
        OsFd out(os_open("~/tmp/out.tnef", O_RDWR | O_CREAT | O_TRUNC, 0600));
        tnef_ParseObject(out.get(), in.get(), static_cast<uint32_t>(c.input.size()));
        EXPECT_TRUE(sameBytes(readFileBytes(home.file("tmp/out.tnef")), c.expected)) << c.what;
    }
}
