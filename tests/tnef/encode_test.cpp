#include <fcntl.h>
#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "support/test_home.h"
#include "support/tnef_builder.h"
#include "tnef/platform/cust_flags.h"
#include "tnef/platform/dstring.h"
#include "tnef/platform/er_escape.h"
#include "tnef/platform/im_items.h"
#include "tnef/platform/mp_stored.h"
#include "tnef/platform/msg_builder.h"
#include "tnef/platform/msg_store.h"
#include "tnef/platform/os_file.h"
#include "tnef/platform/tf_msgfile.h"
#include "tnef/tnef.h"
#include "tnef_defs.h"

using namespace tnefbuild;
using namespace std::string_literals;
namespace fs = std::filesystem;

namespace {

// One attribute record of an encoded stream.
struct Rec {
    uint8_t level;
    uint32_t id;
    std::string data;
};

uint32_t u32(const std::string& s, size_t at) {
    uint32_t v = 0;
    for (int i = 3; i >= 0; --i) v = (v << 8) | static_cast<uint8_t>(s[at + i]);
    return v;
}

// Splits a stream after its 6-byte head into records, checking every checksum.
std::vector<Rec> records(const std::string& s) {
    std::vector<Rec> out;
    size_t at = 6;
    while (at + 9 <= s.size()) {
        Rec r{static_cast<uint8_t>(s[at]), u32(s, at + 1), {}};
        const uint32_t length = u32(s, at + 5);
        EXPECT_LE(at + 9 + length + 2, s.size()) << "record cut short at " << at;
        if (at + 9 + length + 2 > s.size()) break;
        r.data = s.substr(at + 9, length);
        uint16_t sum = 0;
        for (unsigned char c : r.data) sum = static_cast<uint16_t>(sum + c);
        EXPECT_EQ(sum, static_cast<uint8_t>(s[at + 9 + length]) |
                           static_cast<uint8_t>(s[at + 10 + length]) << 8)
            << "checksum of record " << std::hex << r.id;
        out.push_back(r);
        at += 9 + length + 2;
    }
    EXPECT_EQ(at, s.size()) << "bytes after the last record";
    return out;
}

// The value of a one-property attMAPIProps record with the given tag, or empty.
std::string propValue(const std::vector<Rec>& recs, uint32_t tag) {
    for (const Rec& r : recs)
        if (r.id == attMAPIProps && r.data.size() >= 12 && u32(r.data, 4) == tag)
            return r.data.substr(8);
    return {};
}

const Rec* find(const std::vector<Rec>& recs, uint32_t id) {
    for (const Rec& r : recs)
        if (r.id == id) return &r;
    return nullptr;
}

// A message held by the server, written record by record.
class Message {
public:
    Message() : msg_(Msg_Create()), tf_(tf_CreateFile()) {}
    ~Message() {
        tf_CloseFile(tf_);
        Msg_Close(msg_);
    }

    Message& header(uint32_t flags, bool oofTemplate = false) {
        TFREC r;
        tf_InitRecord(&r, 1100);
        tf_PutINT32(&r, 24, flags);
        tf_PutINT32(&r, 42, oofTemplate ? 1 : 0);
        return append(r);
    }
    Message& text(uint32_t type, const std::string& value) {
        TFREC r;
        tf_InitRecord(&r, type);
        tf_PutString(&r, 16, nullptr, value.c_str());
        return append(r);
    }
    Message& reports(uint16_t level) {
        TFREC r;
        tf_InitRecord(&r, 40000);
        tf_PutINT16(&r, 16, level);
        return append(r);
    }
    Message& mark(uint32_t type) {
        TFREC r;
        tf_InitRecord(&r, type);
        return append(r);
    }
    Message& props(const std::string& text) {
        dstring d{text};
        mp_PutMAPIPropsData(1, 0, &d, tf_, 1, 0, 0);
        return *this;
    }
    // A body part: its content becomes the message's next part.
    Message& part(uint16_t type, const std::string& name, const std::string& content,
                  uint32_t flags = 0) {
        if ((flags & 1) == 0) attach(content);
        const TFREC_content_file description{type, flags, static_cast<uint32_t>(content.size()),
                                             "", name, ""};
        TFREC r;
        tf_ContentFileRecFromStruc(&r, &description);
        return append(r);
    }
    Message& object(const std::string& tnef) {
        ItemRef ref = item(tnef);
        mp_PutObjectFile(MP_OBJECT_PROPERTIES, ref, tf_, 1, 0);
        im_UnlinkItem(ref);
        return *this;
    }

    // Encodes into a file and returns the result and the bytes.
    std::pair<int, std::string> encode(const TestHome& home) {
        const std::string path = home.file("tmp/out.tnef");
        fs::create_directories(home.file("tmp"));
        OsFd out(os_open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0600));
        uint32_t word = 7;
        const int result = tnef_Encode(tf_, out.get(), 0, &word, msg_);
        EXPECT_EQ(word, 0u);
        out.close();
        return {result, readFileBytes(path)};
    }

private:
    Message& append(const TFREC& r) {
        tf_AppendRecord(tf_, &r);
        return *this;
    }
    static ItemRef item(const std::string& bytes) {
        uint32_t kind = 0;
        ItemRef ref{};
        im_CrNewDataItem(&kind, &ref);
        SflFileOwner f(sfl_fOpenItem(ref, "w"));
        sfl_fWrite(bytes.data(), 1, bytes.size(), f.get());
        return ref;
    }
    void attach(const std::string& content) {
        ItemRef ref = item(content);
        Msg_AttachFile(msg_, ref);
        im_UnlinkItem(ref);
    }

    int16_t msg_;
    int16_t tf_;
};

std::string renddata() { return "\x01\0"s + std::string(12, '\0'); }

// An object file with one attachment per name, each without data of its own.
std::string objectWith(const std::vector<std::pair<std::string, std::string>>& longAndShort) {
    Stream s;
    s.header().tnefVersion().oemCodepage(1252);
    s.record(1, attMAPIProps, PropList().string8(0x0037001E, "kept").bytes());
    for (const auto& [longName, shortName] : longAndShort) {
        s.record(2, attAttachRenddata, renddata());
        PropList p;
        p.binary(0x0FF90102, "recordkey-recordkey!");  // PR_RECORD_KEY, dropped on the way
        if (!longName.empty()) p.string8(0x3707001E, longName);
        if (!shortName.empty()) p.string8(0x3704001E, shortName);
        s.record(2, attAttachment, p.bytes());
    }
    return s.bytes();
}

// The data records that follow each attAttachRenddata, in order ("" when none does).
std::vector<std::string> dataAfterRenddata(const std::vector<Rec>& recs) {
    std::vector<std::string> out;
    for (size_t i = 0; i < recs.size(); ++i)
        if (recs[i].id == attAttachRenddata)
            out.push_back(i + 1 < recs.size() && recs[i + 1].id == attAttachData ? recs[i + 1].data
                                                                                  : "");
    return out;
}

TEST(Encode, StartsOnlyForMessagesWithContent) {
    TestHome home;
    {
        Message m;
        m.header(0);
        const auto [result, bytes] = m.encode(home);
        EXPECT_EQ(result, 0);
        EXPECT_TRUE(bytes.empty());
    }
    {
        Message m;
        m.header(0, true);
        const auto [result, bytes] = m.encode(home);
        EXPECT_EQ(result, 1);
        EXPECT_EQ(bytes.substr(0, 4), "\x78\x9f\x3e\x22"s);
        const auto recs = records(bytes);
        ASSERT_EQ(recs.size(), 5u);  // version, class, then priority, importance, sensitivity
        EXPECT_EQ(recs[0].id, attTnefVersion);
        EXPECT_EQ(recs[1].id, attMessageClass);
        EXPECT_EQ(recs[1].data, "IPM.Note.Rules.OofTemplate.Microsoft\0"s);
        EXPECT_EQ(recs[1].data.size(), 37u);
    }
}

TEST(Encode, TemplateMarkerIsCutFromTheClass) {
    TestHome home;
    for (const auto& [stored, written] :
         std::vector<std::pair<std::string, std::string>>{{"IPM.Note.WKATT", "IPM.Note"},
                                                          {".WKATT", ".WKATT"}}) {
        Message m;
        m.props("").text(11200, stored);
        const auto recs = records(m.encode(home).second);
        const Rec* cls = find(recs, attMessageClass);
        ASSERT_NE(cls, nullptr) << stored;
        EXPECT_EQ(cls->data, written + '\0');
    }
}

TEST(Encode, HeaderFlagsBecomePriorityImportanceAndSensitivity) {
    TestHome home;
    struct Case {
        uint32_t flags;
        uint16_t priority;
        uint32_t importance;
        uint32_t sensitivity;
    };
    for (const Case& c : {Case{1 | (1 << 6) | (4 << 3), 3, 0, 0}, Case{2 | (2 << 6) | (2 << 3), 1, 2, 2},
                          Case{0 | (3 << 6) | (3 << 3), 2, 1, 3}}) {
        Message m;
        m.props("").header(c.flags | 0x1000);
        const auto recs = records(m.encode(home).second);
        const Rec* prio = find(recs, attPriority);
        ASSERT_NE(prio, nullptr);
        EXPECT_EQ(prio->data, std::string({static_cast<char>(c.priority), '\0'})) << c.flags;
        EXPECT_EQ(u32(propValue(recs, PR_IMPORTANCE), 0), c.importance) << c.flags;
        EXPECT_EQ(u32(propValue(recs, PR_SENSITIVITY), 0), c.sensitivity) << c.flags;
        EXPECT_EQ(propValue(recs, PR_AUTO_FORWARDED).substr(0, 2), "\x01\0"s);
    }
}

TEST(Encode, OnlyTheFirstReportRequestCounts) {
    TestHome home;
    cust_Set("UX_PRE_5_20_COMPATIBILITY_MODE", "true");
    Message m;
    m.props("").reports(9).reports(0x2000);
    const auto recs = records(m.encode(home).second);
    size_t groups = 0;
    for (const Rec& r : recs) groups += r.id == attMAPIProps && u32(r.data, 4) == PR_READ_RECEIPT_REQUESTED;
    EXPECT_EQ(groups, 1u);
    ASSERT_NE(find(recs, attRequestRes), nullptr);
    EXPECT_EQ(find(recs, attRequestRes)->data, "\x01\0"s);
    EXPECT_EQ(propValue(recs, PR_READ_RECEIPT_REQUESTED).substr(0, 2), "\x01\0"s);
    EXPECT_EQ(propValue(recs, PR_ORIGINATOR_DELIVERY_REPORT_REQUESTED).substr(0, 2), "\x01\0"s);
}

TEST(Encode, PropertyTextsBecomePropertyRecords) {
    TestHome home;
    Message m;
    m.props("37001e\x1dHi\x1e").text(11100, "subject");
    const auto recs = records(m.encode(home).second);
    EXPECT_EQ(propValue(recs, 0x0037001E), "\x01\0\0\0\x03\0\0\0Hi\0\0"s);
    ASSERT_NE(find(recs, attSubject), nullptr);
    EXPECT_EQ(find(recs, attSubject)->data, "subject\0"s);
}

// The first two parts (the body and the TNEF file) never carry attachment data.
Message& receivedParts(Message& m) {
    return m.part(1167, "BDY.TXT", "body\n").part(2130, "winmail.dat", "tnef");
}

TEST(Encode, AttachmentDataComesFromTheBodyPartOfTheSameName) {
    TestHome home;
    Message m;
    receivedParts(m);
    m.part(1, "second.bin", "BIN2").part(1167, "first.txt", "a\nb").part(1, "dup.bin", "D1");
    m.part(1, "dup.bin", "D2");
    m.object(objectWith({{"first.txt", ""}, {"", "second.bin"}, {"dup.bin", ""}, {"dup.bin", ""}}));
    const auto [result, bytes] = m.encode(home);
    EXPECT_EQ(result, 1);
    const auto recs = records(bytes);
    EXPECT_EQ(dataAfterRenddata(recs), (std::vector<std::string>{"a\r\nb", "BIN2", "D1", "D2"}));
    EXPECT_EQ(propValue(recs, 0x0037001E), "\x01\0\0\0\x05\0\0\0kept\0\0\0\0"s);
    for (const Rec& r : recs) {
        if (r.id != attAttachment) continue;
        EXPECT_EQ(r.data.find("recordkey"), std::string::npos);
    }
}

TEST(Encode, EncodedPartNamesMatchTheirDecodedForm) {
    TestHome home;
    Message m;
    receivedParts(m);
    m.part(1, "=?utf-8?Q?caf=C3=A9.txt?=", "CAFE");
    m.object(objectWith({{"caf\xc3\xa9.txt", ""}}));
    EXPECT_EQ(dataAfterRenddata(records(m.encode(home).second)), std::vector<std::string>{"CAFE"});
}

TEST(Encode, PartNumbersCountNestedPartsButNotSkippedOnes) {
    TestHome home;
    Message m;
    receivedParts(m);
    m.part(1, "skipped.bin", "S", 1);
    m.mark(30100).part(1, "nested.bin", "N").mark(39000);
    m.part(1, "after.bin", "AFTER");
    m.object(objectWith({{"nested.bin", ""}, {"after.bin", ""}}));
    const auto recs = records(m.encode(home).second);
    // The nested part is no candidate: the first attachment stays without data and ends the merge.
    EXPECT_EQ(dataAfterRenddata(recs), std::vector<std::string>(2, ""));
    EXPECT_NE(home.read("tmp/server.log").find("nested.bin"), std::string::npos);

    Message m2;
    receivedParts(m2);
    m2.part(1, "skipped.bin", "S", 1);
    m2.mark(30100).part(1, "nested.bin", "N").mark(39000);
    m2.part(1, "after.bin", "AFTER");
    m2.object(objectWith({{"after.bin", ""}}));
    EXPECT_EQ(dataAfterRenddata(records(m2.encode(home).second)), std::vector<std::string>{"AFTER"});
    // after.bin is the fourth counted part: number 4, logged as 2.
    EXPECT_NE(home.read("tmp/server.log").find("body part 2 (type 1"), std::string::npos);
}

TEST(Encode, UnreadablePartIsSkippedAndTheRestStillWritten) {
    TestHome home;
    Message m;
    receivedParts(m);
    m.part(1, "gone.bin", "GONE").part(1, "ok.bin", "OK");
    m.object(objectWith({{"gone.bin", ""}, {"ok.bin", ""}}));
    // The stored content of part 3 disappears before the encode.
    fs::path gone;
    for (const auto& e : fs::recursive_directory_iterator(home.file("store")))
        if (e.path().filename() == "part-3") gone = e.path();
    ASSERT_FALSE(gone.empty());
    fs::remove(gone);
    const auto [result, bytes] = m.encode(home);
    EXPECT_EQ(result, 1);
    const auto data = dataAfterRenddata(records(bytes));
    ASSERT_EQ(data.size(), 2u);
    EXPECT_EQ(data[1], "OK");
}

TEST(Encode, DropRuleAndKeptObjectFile) {
    TestHome home;
    const std::string object = objectWith({});
    {
        // A MAPI message whose object lists no attachment but whose second part is one.
        Message m;
        m.part(1167, "BDY.TXT", "body").part(1, "report.pdf", "PDF");
        m.object(object);
        EXPECT_EQ(m.encode(home).first, 0);
    }
    {
        // With a special second part the rule cannot apply.
        Message m;
        receivedParts(m);
        m.object(object);
        EXPECT_EQ(m.encode(home).first, 1);
    }
}

TEST(Encode, KeepTnefAttachInMimeCopiesTheObjectFileUnchanged) {
    TestHome home;
    cust_Set("INET_KEEP_TNEF_ATTACH_IN_MIME", "true");
    const std::string object = objectWith({{"a.txt", ""}});
    Message m;
    receivedParts(m);
    m.part(1, "a.txt", "A").object(object);
    // Head copied, no message-level record of its own, then the object's rest, PR_RECORD_KEY and all.
    EXPECT_TRUE(sameBytes(m.encode(home).second, object));
}

}  // namespace
