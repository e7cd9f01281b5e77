#include <fcntl.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "support/store_checks.h"
#include "support/test_home.h"
#include "support/tnef_builder.h"
#include "tnef/platform/er_escape.h"
#include "tnef/platform/os_file.h"
#include "tnef/platform/msg_builder.h"
#include "tnef/platform/msg_store.h"
#include "tnef/platform/tf_msgfile.h"
#include "tnef/tnef.h"
#include "tnef/tnef_reader.h"
#include "tnef_defs.h"
#include "tnef_read/tnef_names.h"

using tnefbuild::PropList;
using tnefbuild::Stream;
using namespace std::string_literals;

namespace {

constexpr uint32_t PR_BODY_W = 0x1000001F;
constexpr uint32_t PR_ATTACH_METHOD = 0x37050003;
constexpr tnefbuild::Guid kIMessage = {0x07, 0x03, 0x02, 0, 0, 0, 0, 0, 0xC0, 0, 0, 0, 0, 0, 0, 0x46};

Stream start() {
    Stream s;
    s.header().tnefVersion().oemCodepage(1252);
    return s;
}

TnefMessageView view(const TestHome& home, const std::string& tnef) {
    home.write("in.tnef", tnef);
    OsFd in(os_open(home.file("in.tnef").c_str(), O_RDONLY, 0));
    TnefMessageView v;
    tnef_ReadMessage(in.get(), &v);
    return v;
}

// Runs a stream through every entry that walks property lists: the view, the listing, the
// decoder, extraction and the scan. Each may escape for bad TNEF (group 102) and nothing
// else, and leaves no descriptor or message file open.
void everyEntry(const TestHome& home, const std::string& tnef) {
    const int fdsBefore = storecheck::openFdCount();
    home.write("in.tnef", tnef);
    const std::string path = home.file("in.tnef");
    const auto entry = [&](const char* name, auto&& work) {
        try {
            work();
        } catch (const Escape& e) {
            EXPECT_EQ(er_GetGroup(e), ER_GROUP_TNEF) << name << ": " << e.what();
        }
    };
    OsFd in(os_open(path.c_str(), O_RDONLY, 0));
    entry("view", [&] { TnefMessageView v; tnef_ReadMessage(in.get(), &v); });
    // Every attachment listed lies inside the file, and copying it gives all its bytes.
    entry("list", [&] {
        TnefAttachList list;
        tnef_ListAttachments(in.get(), &list);
        OsFd out(os_open(home.file("copy").c_str(), O_RDWR | O_CREAT | O_TRUNC, 0600));
        for (const TnefAttachInfo& a : list.attachments) {
            EXPECT_LE(a.dataOffset + a.dataLength, tnef.size());
            const uint64_t copied = a.kind == TNEF_ATTACH_NONE ? a.dataLength : tnef_CopyAttachment(in.get(), &a, out.get());
            EXPECT_EQ(copied, a.dataLength);
        }
    });
    entry("getprop", [&] {
        char *props = nullptr, *recips = nullptr, *attach = nullptr;
        tnef_GetProp(in.get(), "GET-ALL", &props, &recips, &attach, "in.tnef");
        std::free(props), std::free(recips), std::free(attach);
    });
    entry("scan", [&] {
        TnefAttachScan* list = nullptr;
        try {
            tnef_ScanTnef(in.get(), PR_ATTACH_DATA_OBJ, &list);
        } catch (const Escape&) {
            tnef_FreeScanList(&list);
            throw;
        }
        tnef_FreeScanList(&list);
        EXPECT_EQ(os_lseek64(in.get(), 0, 1), 0) << "scan: the file is rewound";
    });
    in.close();
    entry("decode", [&] {
        ReceivedMessage received;
        int16_t tf = 0;
        const int16_t msg = Msg_BuildReceived(received, &tf);
        const int16_t before = tf;
        uint16_t receipt = 0;
        uint32_t reply = 0;
        try {
            tnef_Decode(msg, &tf, path.c_str(), &receipt, &reply, 0, 0);
        } catch (const Escape&) {
            tf_CloseFile(tf);
            Msg_Delete(msg);
            throw;
        }
        if (tf != before) tf_CloseFile(before);
        tf_CloseFile(tf);
        Msg_Delete(msg);
    });
    EXPECT_EQ(tf_OpenHandleCount(), 0);
    EXPECT_EQ(storecheck::openFdCount(), fdsBefore);
}

TEST(Reader, PropertiesComeTypedWithTheirNamedIdentity) {
    const std::string props = PropList()
                                  .string8(PR_SUBJECT, "Caf\xE9")
                                  .unicode(PR_BODY_W, tnefbuild::utf16le("hi"))
                                  .long32(PR_IMPORTANCE, 0xFFFFFFFE)
                                  .i2(PR_READ_RECEIPT_REQUESTED, 1)
                                  .i8(PR_CREATION_TIME, 132223104000000000ULL)  // 2020-01-01
                                  .r8(0x00070005, 2.5)
                                  .clsid(0x00080048, PSETID_Meeting)
                                  .binary(0x00090102, "\x01\x02\x03"s)
                                  .mvLong(0x000A1003, {1, 2, 3})
                                  .mvUnicode(0x000B101F, {tnefbuild::utf16le("a"), tnefbuild::utf16le("bc")})
                                  .namedId(PSETID_Appointment, 0x8205)
                                  .long32(0x80010003, 2)
                                  .namedString(PS_PUBLIC_STRINGS, tnefbuild::utf16le("Keywords"))
                                  .mvString8(0x8002101E, {"x"})
                                  .bytes();
    TestHome home;
    const TnefMessageView v = view(home, start().record(1, attMAPIProps, props).bytes());
    EXPECT_EQ(v.flags, 0u);
    EXPECT_EQ(v.codePage, 1252u);
    ASSERT_EQ(v.properties.size(), 12u);
    const auto& p = v.properties;
    EXPECT_EQ(p[0].texts, std::vector<std::string>{"Caf\xC3\xA9"});
    EXPECT_EQ(v.subject, "Caf\xC3\xA9");  // from PR_SUBJECT: the stream has no attSubject
    TnefAttachList list;
    tnef_ListAttachments(OsFd(os_open(home.file("in.tnef").c_str(), O_RDONLY, 0)).get(), &list);
    EXPECT_EQ(list.subject, v.subject);
    EXPECT_EQ(p[1].texts, std::vector<std::string>{"hi"});
    EXPECT_EQ(p[2].values[0].integer, -2);
    EXPECT_TRUE(p[3].values[0].boolean);
    EXPECT_EQ(p[4].values[0].unixTime, 1577836800);
    EXPECT_EQ(p[5].values[0].real, 2.5);
    EXPECT_EQ(p[6].values[0].guid, PSETID_Meeting);
    EXPECT_EQ(p[7].values[0].length, 3u);
    EXPECT_EQ(p[8].values.size(), 3u);
    EXPECT_EQ(p[8].values[2].integer, 3);
    EXPECT_EQ(p[9].texts, (std::vector<std::string>{"a", "bc"}));
    EXPECT_TRUE(p[10].prop.named && !p[10].prop.stringName);
    EXPECT_EQ(p[10].prop.set, PSETID_Appointment);
    EXPECT_EQ(p[10].prop.lid, 0x8205u);
    EXPECT_TRUE(p[11].prop.stringName);
    EXPECT_EQ(p[11].prop.name, "Keywords");
    EXPECT_EQ(tnef_FindProp(p, 0x0037001F), &p[0]);  // 8-bit and Unicode text alike
}

TEST(Reader, RecipientsAttachmentsAndEmbeddedMessages) {
    const std::string inner = start()
                                  .record(1, attSubject, "Inner\0"s)
                                  .record(2, attAttachRenddata, std::string(14, '\0'))
                                  .record(2, attAttachData, "deep")
                                  .bytes();
    const std::string tnef =
        start()
            .record(1, attSubject, "Outer\0"s)
            .record(1, attRecipTable,
                    tnefbuild::RecipTable()
                        .row(PropList().string8(PR_DISPLAY_NAME, "Ann"))
                        .row(PropList().string8(PR_DISPLAY_NAME, "Bob").long32(0x0C150003, 2))
                        .bytes())
            .record(2, attAttachRenddata, std::string(14, '\0'))
            .record(2, attAttachData, "file bytes")
            .record(2, attAttachment, PropList().long32(PR_ATTACH_METHOD, 1).bytes())
            .record(2, attAttachRenddata, std::string(14, '\0'))
            .record(2, attAttachment, PropList().object(PR_ATTACH_DATA_OBJ, kIMessage, inner).bytes())
            .bytes();
    TestHome home;
    const TnefMessageView v = view(home, tnef);
    EXPECT_EQ(v.subject, "Outer");
    ASSERT_EQ(v.recipients.size(), 2u);
    EXPECT_EQ(v.recipients[1].size(), 2u);
    EXPECT_EQ(v.recipients[1][0].texts[0], "Bob");
    ASSERT_EQ(v.attachments.size(), 2u);  // the embedded message's own attachment is its own
    EXPECT_EQ(v.attachmentProperties[0][0].values[0].integer, 1);
    ASSERT_EQ(v.embedded.size(), 1u);
    EXPECT_EQ(v.embedded[0].depth, 1u);
    EXPECT_EQ(v.embedded[0].subject, "Inner");
    ASSERT_EQ(v.embedded[0].attachments.size(), 1u);
    EXPECT_EQ(v.embedded[0].attachments[0].dataLength, 4u);
}

// Each hostile stream ends with the flags it names, keeps what came before the damage, and
// never faults (the asan preset checks the reads).
TEST(Reader, HostileStreamsEndInFlagsNotFaults) {
    struct Case {
        const char* what;
        std::string props;
        uint32_t flags;
        size_t kept;  // properties of the view
    };
    const std::vector<Case> cases = {
        {"count near 2^32", PropList().long32(PR_IMPORTANCE, 1).count(0xFFFFFFFF).bytes(),
         TNEF_READ_COUNT_BEYOND | TNEF_READ_BAD_PROPS, 1},
        {"value length 0xFFFFFFFF", PropList().binary(0x00090102, "abcd").bytes().substr(0, 12) +
                                        "\xFF\xFF\xFF\xFF"s + "abcd",
         TNEF_READ_BAD_PROPS, 1},
        {"value count beyond the data", PropList().mvLong(0x000A1003, {1}).valueCount(1u << 30).bytes(),
         TNEF_READ_COUNT_BEYOND | TNEF_READ_BAD_PROPS, 0},
        {"text values beyond the data", PropList().mvString8(0x000B101E, {"a"}).valueCount(0xFFFFFFF0).bytes(),
         TNEF_READ_COUNT_BEYOND | TNEF_READ_BAD_PROPS, 1},
        {"unknown type", PropList().long32(PR_IMPORTANCE, 1).count(2).bytes() + "\x33\x00\x01\x00"s + "\0\0\0\0"s, TNEF_READ_BAD_PROPS, 1},
        {"string name longer than the list",
         PropList().namedString(PS_PUBLIC_STRINGS, tnefbuild::utf16le("K")).long32(0x80010003, 1).bytes().substr(0, 28) +
             "\xFF\xFF\xFF\x7F"s,
         TNEF_READ_BAD_PROPS, 0},
        {"zero-length and unterminated strings",
         PropList().lengthPrefixed(PR_SUBJECT, {""}).lengthPrefixed(0x0E1D001F, {"a\0b"s}).bytes(), 0, 2},
        {"list without its count", "\x01\x00"s, TNEF_READ_BAD_PROPS, 0},
        {"property count near 2^32 before a name", PropList().string8(PR_ATTACH_FILENAME, "x").count(0xFFFFFFFF).bytes(),
         TNEF_READ_COUNT_BEYOND | TNEF_READ_BAD_PROPS, 1},
        {"binary value count near 2^32", PropList().binary(PR_ATTACH_DATA_BIN, "data").valueCount(0xFFFFFFFF).bytes(),
         TNEF_READ_COUNT_BEYOND | TNEF_READ_BAD_PROPS, 1},
        {"unknown type with a counted value", PropList().lengthPrefixed(0x00010099, {"unknown"}).bytes(), TNEF_READ_BAD_PROPS, 0},
        {"CLSID values 16 x 2^28", PropList().mvClsid(0x66001048, {PSETID_Common, PSETID_Common}).valueCount(0x10000000).bytes(),
         TNEF_READ_COUNT_BEYOND | TNEF_READ_BAD_PROPS, 0},
        {"8-byte values 8 x 2^29", PropList().mvI8(0x66001014, {1, 2}).valueCount(0x20000000).bytes(),
         TNEF_READ_COUNT_BEYOND | TNEF_READ_BAD_PROPS, 0},
        {"binary values beyond the data", PropList().mvBinary(0x00011102, {"x"}).valueCount(0xFFFFFFFF).bytes(),
         TNEF_READ_COUNT_BEYOND | TNEF_READ_BAD_PROPS, 1},
        {"binary length 2^32 - 3", PropList().count(1).u32(0x00010102).u32(1).u32(0xFFFFFFFD).bytes(), TNEF_READ_BAD_PROPS, 1},
        {"string name length 2^32 - 1",
         PropList().count(1).u32(0x8000001E).raw(PSETID_Common).u32(1).u32(0xFFFFFFFF).zeros(12).bytes(),
         TNEF_READ_BAD_PROPS, 0},
    };
    TestHome home;
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        const TnefMessageView v = view(home, start().record(1, attMAPIProps, c.props).bytes());
        EXPECT_EQ(v.flags & ~TNEF_READ_BAD_CHECKSUM, c.flags);
        EXPECT_EQ(v.properties.size(), c.kept);
        // The same list as the message's, an attachment's and a recipient's, for every entry.
        everyEntry(home, start().record(1, attMAPIProps, c.props).bytes());
        everyEntry(home, start().record(2, attAttachRenddata, std::string(14, '\0'))
                             .record(2, attAttachment, c.props).bytes());
        everyEntry(home, start().record(1, attRecipTable, "\x01\0\0\0"s + c.props).bytes());
    }
}

TEST(Reader, DamagedFilesAreFlagsAndCutsAtEveryOffsetStayInBounds) {
    const std::string tnef =
        start()
            .record(1, attMAPIProps, PropList().string8(PR_SUBJECT, "s").mvLong(0x000A1003, {1, 2}).bytes())
            .record(1, attRecipTable, tnefbuild::RecipTable().row(PropList().long32(PR_IMPORTANCE, 2)).bytes())
            .record(2, attAttachRenddata, std::string(14, '\0'))
            .record(2, attAttachData, "abc")
            .bytes();
    TestHome home;
    EXPECT_EQ(view(home, tnef).flags, 0u);
    EXPECT_EQ(view(home, Stream(start()).record(1, attSubject, "x").checksum(7).bytes()).flags,
              TNEF_READ_BAD_CHECKSUM);
    EXPECT_EQ(view(home, tnef + "\r\n").flags, TNEF_READ_TRAILING);
    EXPECT_EQ(view(home, Stream().header().bytes() + "\r\n\r\n").flags,
              TNEF_READ_TRAILING | TNEF_READ_NO_RECORDS);
    const TnefMessageView cut = view(home, Stream(start()).record(2, attAttachData, "abcdef").lengthField(1000).bytes());
    EXPECT_EQ(cut.flags & TNEF_READ_TRUNCATED, TNEF_READ_TRUNCATED);
    ASSERT_EQ(cut.attachments.size(), 1u);
    EXPECT_EQ(cut.attachments[0].dataLength, 8u);  // the data and the cut checksum's bytes
    // Only a cut at one of the six record boundaries leaves a whole, shorter stream.
    size_t whole = 0;
    for (size_t n = 4; n < tnef.size(); ++n) {
        whole += (view(home, tnef.substr(0, n)).flags & (TNEF_READ_TRUNCATED | TNEF_READ_TRAILING)) == 0;
        everyEntry(home, tnef.substr(0, n));
    }
    EXPECT_EQ(whole, 6u);
    try {
        view(home, "MZ\x90\0"s);
        ADD_FAILURE() << "no escape for a file that is not TNEF";
    } catch (const Escape& e) {
        EXPECT_EQ(er_GetReason(e), ER_TNEF_BAD_SIGNATURE);
    }
}

TEST(Reader, PublishedNamesAreFoundBothWays) {
    // Both tables are strictly sorted (one name per tag or set and number), and name a text
    // property by its 8-bit form, which the lookup finds for the Unicode form too.
    const auto props = tnef_PropNameTable();
    EXPECT_TRUE(std::adjacent_find(props.begin(), props.end(), [](auto& a, auto& b) { return a.tag >= b.tag; }) ==
                props.end());
    for (const auto& p : props) EXPECT_NE(p.tag & 0xEFFF, PT_UNICODE) << p.name;
    const auto named = tnef_NamedPropNameTable();
    EXPECT_TRUE(std::adjacent_find(named.begin(), named.end(), [](auto& a, auto& b) {
                    return a.set != b.set ? a.set > b.set : a.lid >= b.lid;
                }) == named.end());
    EXPECT_STREQ(tnef_PropName(0x0037001F), "PR_SUBJECT");  // the Unicode form of an 8-bit name
    EXPECT_STREQ(tnef_PropName(0x3A56101F), "PR_CONTACT_EMAIL_ADDRESSES");
    EXPECT_STREQ(tnef_PropName(PR_ATTACH_DATA_BIN), "PR_ATTACH_DATA_BIN");
    EXPECT_STREQ(tnef_PropName(PR_ATTACH_DATA_OBJ), "PR_ATTACH_DATA_OBJ");
    EXPECT_EQ(tnef_PropName(0x66000003), nullptr);
    EXPECT_EQ(tnef_PropTagByName("pr_subject"), PR_SUBJECT);
    EXPECT_EQ(tnef_PropTagByName("PR_SUBJECTX"), 0u);
    EXPECT_STREQ(tnef_PropTypeName(PT_MV_UNICODE), "PT_MV_UNICODE");
    EXPECT_STREQ(tnef_PropSetName(PSETID_Meeting), "PSETID_Meeting");
    EXPECT_STREQ(tnef_NamedPropName(PSETID_Appointment, 0x8205), "PidLidBusyStatus");
    EXPECT_STREQ(tnef_NamedPropName(PSETID_Meeting, 0x0003), "PidLidGlobalObjectId");
    EXPECT_EQ(tnef_NamedPropName(PSETID_Meeting, 0x8205), nullptr);
    EXPECT_EQ(tnef_GuidText(PSETID_Meeting), "6ED8DA90-450B-101B-98DA-00AA003F1305");
}

// Every corpus file gives a view; its attachments are the listing's, and every property
// list is read to its end unless the file is damaged there (oom.tnef is made to be).
TEST(Reader, CorpusFilesReadWhole) {
    const std::string corpus = corpusDir();
    if (corpus.empty()) GTEST_SKIP() << "no shared corpus beside this checkout (set TNEF_CORPUS)";
    size_t files = 0;
    size_t properties = 0;
    for (const auto& entry : std::filesystem::directory_iterator(corpus + "/files")) {
        SCOPED_TRACE(entry.path().filename().string());
        OsFd in(os_open(entry.path().c_str(), O_RDONLY, 0));
        TnefMessageView v;
        TnefAttachList list;
        tnef_ReadMessage(in.get(), &v);
        tnef_ListAttachments(in.get(), &list);
        size_t listed = v.attachments.size();
        for (const TnefMessageView& e : v.embedded) listed += e.attachments.size();
        EXPECT_LE(listed, list.attachments.size());
        const bool damaged = (v.flags & (TNEF_READ_TRUNCATED | TNEF_READ_TRAILING)) != 0 ||
                             entry.path().filename() == "poi__test-data__hmef__oom.tnef";
        if (!damaged) {
            EXPECT_EQ(v.flags & TNEF_READ_BAD_PROPS, 0u);
        }
        properties += v.properties.size();
        ++files;
    }
    EXPECT_GE(files, 30u);
    EXPECT_GT(properties, 1000u);
}

}  // namespace
