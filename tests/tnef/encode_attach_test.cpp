#include <fcntl.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <random>
#include <string>
#include <vector>

#include "support/test_home.h"
#include "support/tnef_builder.h"
#include "tnef/platform/im_items.h"
#include "tnef/platform/os_file.h"
#include "tnef/tnef.h"
#include "tnef_defs.h"
#include "tnef_encode/tnef_encode.h"
#include "tnef_writers.h"

using tnefbuild::PropList;
using tnefbuild::sameBytes;
using tnefbuild::Stream;

namespace {

constexpr uint32_t kAttachSize = 0x0E200003;

// An object file to read from and an output stream, in the test's own home.
struct Streams {
    explicit Streams(const std::string& object) {
        home.write("tmp/object.tnef", object);
        in = OsFd(os_open("~/tmp/object.tnef", O_RDONLY, 0));
        out = OsFd(os_open("~/tmp/out.tnef", O_RDWR | O_CREAT | O_TRUNC, 0600));
    }
    // What was written since the last call.
    std::string added() {
        std::string all = home.read("tmp/out.tnef");
        std::string tail = all.substr(seen);
        seen = all.size();
        return tail;
    }
    TestHome home;
    OsFd in, out;
    size_t seen = 0;
};

// A name, PR_RECORD_KEY with a 20-byte key, a size.
PropList attachList(bool withKey) {
    PropList l;
    l.string8(PR_DISPLAY_NAME, "a.txt");
    if (withKey) l.binary(PR_RECORD_KEY, std::string(20, 'K'));
    return l.long32(kAttachSize, 99);
}

struct Stripped {
    int removed;
    std::string list;   // the first newLength bytes of the buffer
    std::string whole;  // the whole buffer
};

// Also checks the checksum, which must describe the new list whatever the outcome.
Stripped strip(const std::string& list) {
    std::vector<uint8_t> buf(list.begin(), list.end());
    uint32_t newLength = 0;
    uint16_t sum = 0;
    const int removed = tnef_StripProps(buf.data(), uint32_t(buf.size()), &newLength, &sum);
    const std::string whole(buf.begin(), buf.end());
    EXPECT_LE(newLength, whole.size());
    EXPECT_EQ(sum, tnefbuild::byteSum16(whole.substr(0, newLength)));
    return {removed, whole.substr(0, newLength), whole};
}

void expectUnchanged(const std::string& list, const char* why) {
    const Stripped r = strip(list);
    EXPECT_EQ(r.removed, 0) << why;
    EXPECT_TRUE(sameBytes(r.list, list)) << why;
}

}  // namespace

TEST(GetPastRendData, CopiesOneAttachmentPerCallRewritingItsList) {
    const auto message = Stream()
                             .record(1, attSubject, std::string("Hi\0", 3))
                             .record(1, attAttachRenddata, "level one does not stop")
                             .record(2, attAttachRenddata, std::string(14, '\1'))
                             .bytes();
    // Both old checksums are stale; the output carries recomputed ones.
    const auto attachment = Stream()
                                .record(2, attAttachment, attachList(true).bytes())
                                .checksum(0xBEEF)
                                .record(2, attAttachment, attachList(false).bytes())
                                .checksum(0x1234)
                                .record(2, attAttachRenddata, "r")
                                .bytes();
    const auto tail = Stream().record(2, attAttachTitle, "b").bytes();
    Streams s(Stream().header().tnefVersion().oemCodepage(1252).bytes() + message +
              attachment + tail);
    EXPECT_EQ(tnef_getPastRendData(s.out.get(), s.in.get(), 1), 1);
    EXPECT_TRUE(sameBytes(s.added(), message));
    EXPECT_EQ(tnef_getPastRendData(s.out.get(), s.in.get(), 0), 1);
    const auto expected = Stream()
                              .record(2, attAttachment, attachList(false).bytes())
                              .record(2, attAttachment, attachList(false).bytes())
                              .record(2, attAttachRenddata, "r")
                              .bytes();
    EXPECT_TRUE(sameBytes(s.added(), expected));
    EXPECT_EQ(tnef_getPastRendData(s.out.get(), s.in.get(), 0), 0);
    EXPECT_TRUE(sameBytes(s.added(), tail));
}

TEST(GetPastRendData, FirstCallDropsOnlyTheHeadAndStopsAtCutRecords) {
    const auto version = Stream().tnefVersion().bytes();
    const auto codepage = Stream().oemCodepage(850).bytes();
    const auto subject = Stream().record(1, attSubject, "abcdef").bytes();
    const auto huge = Stream().record(2, attAttachment, "xyz").lengthField(0xFFFFFFF0).bytes();
    struct Case {
        std::string after;  // after signature and key
        std::string copied;
    } const cases[] = {
        {version + codepage + subject, subject},
        {codepage + subject, subject},
        {subject + version, subject + version},  // only a leading head is dropped
        {codepage + version, version},
        {version + subject.substr(0, 12), subject.substr(0, 12)},  // data cut short
        {version + subject.substr(0, 7), subject.substr(0, 5)},    // length cut short
        {version + huge, huge},  // never allocated: copied as it stands up to the end
    };
    for (const Case& c : cases) {
        Streams s(Stream().header().bytes() + c.after);
        EXPECT_EQ(tnef_getPastRendData(s.out.get(), s.in.get(), 1), 0);
        EXPECT_TRUE(sameBytes(s.added(), c.copied)) << tnefbuild::hexDump(c.after);
    }
}

TEST(StripProps, RemovesTheRecordKeyFromEveryKnownLayout) {
    TestHome home;
    const Stripped r = strip(attachList(true).bytes());
    EXPECT_EQ(r.removed, 1);
    EXPECT_EQ(r.list.size() + 32, r.whole.size());  // tag, count, length and 20 bytes gone
    EXPECT_TRUE(sameBytes(r.list, attachList(false).bytes()));
    expectUnchanged(attachList(false).bytes(), "no key");

    const tnefbuild::Guid iid = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16};
    auto every = [&](bool withKey) {
        PropList l;
        if (withKey) l.binary(PR_RECORD_KEY, "k");
        l.i2(PROP_TAG(PT_BOOLEAN, 0x0E21), 1)
            .i8(PROP_TAG(PT_I8, 0x0E22), 0x1122334455667788ull)
            .clsid(PROP_TAG(PT_CLSID, 0x0E24), iid)
            .mvI2(PROP_TAG(PT_MV_I2, 0x0E25), {1, 2, 3})
            .mvI8(PROP_TAG(PT_MV_SYSTIME, 0x0E27), {1, 2})
            .mvClsid(PROP_TAG(PT_MV_CLSID, 0x0E28), {iid})
            .unicode(PROP_TAG(PT_UNICODE, 0x3707), tnefbuild::utf16le("long.txt"))
            .mvString8(PROP_TAG(PT_MV_STRING8, 0x0E29), {"a", "bcde", ""})
            .mvBinary(PROP_TAG(PT_MV_BINARY, 0x0E2B), {"12345", ""})
            .object(PR_ATTACH_DATA_OBJ, iid, "embedded")
            .namedId(PSETID_Common, 0x8530)
            .long32(PROP_TAG(PT_LONG, 0x8000), 5)
            .namedString(PS_PUBLIC_STRINGS, tnefbuild::utf16le("Keywords"))
            .string8(PROP_TAG(PT_STRING8, 0x8001), "k");
        if (withKey) l.binary(PR_RECORD_KEY, "k");
        return l.bytes();
    };
    const Stripped all = strip(every(true));
    EXPECT_EQ(all.removed, 1);
    EXPECT_TRUE(sameBytes(all.list, every(false)));
}

TEST(StripProps, UnknownTypesAndOverrunsLeaveTheListUnchanged) {
    Streams s("");  // for its server log
    for (uint16_t type : {PT_ERROR, PT_NULL, uint16_t(0x1001)})
        expectUnchanged(
            PropList().binary(PR_RECORD_KEY, "k").long32(PROP_TAG(type, 0x0E30), 0).bytes(),
            "unknown type");
    EXPECT_NE(s.home.read("tmp/server.log").find("100/24070 tnef_encode - tnef_StripProps - "
                                                 "unknown prop type - no props stripped"),
              std::string::npos);

    const auto key = PropList().binary(PR_RECORD_KEY, "k");  // 20 bytes with the count
    const auto good = attachList(true).bytes();
    expectUnchanged(good.substr(0, good.size() - 1), "last value cut short");
    expectUnchanged(PropList(key).count(2).bytes(), "count too high");
    // Sizes that wrap to a fitting value in 32 bits must still be refused.
    expectUnchanged(PropList(key).mvLong(0x0E311003, {1}).valueCount(0x40000001).bytes(),
                    "value count times 4");
    expectUnchanged(
        PropList(key).binary(0x0E320102, "abcd").bytes().replace(28, 4, "\xFD\xFF\xFF\xFF"),
        "value length plus padding");
    expectUnchanged(PropList(key)
                        .namedString(PS_PUBLIC_STRINGS, tnefbuild::utf16le("ab"))
                        .long32(PROP_TAG(PT_LONG, 0x8000), 1)
                        .bytes()
                        .replace(44, 4, "\xFF\xFF\xFF\xFF"),
                    "name length plus padding");
    expectUnchanged(PropList(key).lengthPrefixed(PR_ATTACH_DATA_OBJ, {"short"}).bytes(),
                    "object shorter than its interface id");
}

TEST(StripProps, RandomListsNeverOverrunAndStrippingTwiceRemovesNothingMore) {
    TestHome home;
    std::mt19937 rng(20240611);
    auto pick = [&](uint32_t n) { return uint32_t(rng() % n); };
    int removals = 0;
    for (int round = 0; round < 400; ++round) {
        PropList l;
        for (uint32_t n = pick(6); n != 0; --n) {
            const uint16_t id = pick(4) == 0 ? uint16_t(0x8000) : uint16_t(0x0E40);
            if (id == 0x8000) l.namedString(PSETID_Common, std::string(2 * pick(5), 'n'));
            switch (pick(6)) {
                case 0: l.long32(PROP_TAG(PT_ERROR, id), rng()); break;
                case 1: l.i8(PROP_TAG(PT_I8, id), rng()); break;
                case 2: l.mvI2(PROP_TAG(PT_MV_I2, id), {1, 2}); break;
                case 3: l.mvBinary(PROP_TAG(PT_MV_BINARY, id), {"ab", std::string(pick(9), 'x')});
                        break;
                default: l.binary(pick(2) ? PR_RECORD_KEY : PROP_TAG(PT_BINARY, id), "key"); break;
            }
        }
        std::string list = l.bytes();
        if (pick(3) == 0) list.resize(pick(uint32_t(list.size())));
        for (uint32_t k = pick(3) == 0 ? pick(4) : 0; k != 0 && !list.empty(); --k)
            list[pick(uint32_t(list.size()))] = char(rng());

        const Stripped r = strip(list);
        if (r.removed == 0) {
            EXPECT_TRUE(sameBytes(r.whole, list));
            continue;
        }
        ++removals;
        EXPECT_LT(r.list.size(), list.size());
        EXPECT_EQ(strip(r.list).removed, 0) << tnefbuild::hexDump(list);
    }
    EXPECT_GT(removals, 20);  // the run exercised removal, not only refusals
}

TEST(AddAttachment, TextPartsGetCrBeforeBareLineFeedsOthersPassUnchanged) {
    // A CR ends the first 4096-byte chunk and a LF starts the second: already a line end.
    // The third chunk starts with a LF after a plain byte: it gains its CR.
    const std::string long_ = std::string(4095, 'x') + "\r\n" + std::string(4095, 'y') + "\nz";
    std::string longCrLf = long_;
    longCrLf.insert(8192, "\r");
    const std::string binary("\0a\nb\n\r\xFF", 7);
    struct Case {
        uint16_t type;
        std::string content;
        uint32_t size;
        std::string written;
    } const cases[] = {
        {TNEF_PART_TYPE_TEXT, "a\nb\r\nc", 6, "a\r\nb\r\nc"},
        {TNEF_PART_TYPE_TEXT_ALT, "a\nb", 3, "a\r\nb"},
        {TNEF_PART_TYPE_TEXT, long_, uint32_t(long_.size()), longCrLf},
        {TNEF_PART_TYPE_OTHER, binary, 7, binary},
        // Items shorter than announced: the length tells what was written.
        {TNEF_PART_TYPE_TEXT, "l1\nl2", 10, "l1\r\nl2"},
        {TNEF_PART_TYPE_OTHER, "l1\nl2", 10, "l1\nl2"},
        {TNEF_PART_TYPE_OTHER, "l1\nl2", 3, "l1\n"},
    };
    for (const Case& c : cases) {
        Streams s("");
        ItemRef ref{};
        OsFd(im_CrNewDataItem(nullptr, &ref)).close();
        tnefbuild::writeFile(im_ItemRef2FName(ref), c.content);
        SflFileOwner item(sfl_fOpenItem(ref, "r"));
        tnef_AddAttachment(s.out.get(), item.get(), c.size, c.type);
        EXPECT_TRUE(sameBytes(s.added(), Stream().record(2, attAttachData, c.written).bytes()))
            << c.type << " " << c.size;
    }
}
