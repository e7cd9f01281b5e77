#include <fcntl.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "support/test_home.h"
#include "support/tnef_builder.h"
#include "tnef/platform/cust_flags.h"
#include "tnef/platform/er_escape.h"
#include "tnef/platform/im_items.h"
#include "tnef/platform/msg_builder.h"
#include "tnef/platform/msg_store.h"
#include "tnef/platform/os_file.h"
#include "tnef/platform/store_dump.h"
#include "tnef/platform/tf_msgfile.h"
#include "tnef/tnef.h"
#include "tnef_defs.h"

using namespace tnefbuild;
using namespace std::string_literals;
namespace fs = std::filesystem;

namespace {

constexpr uint32_t kAttachType1 = 1;  // a by-value file attachment

size_t countFiles(const std::string& dir) {
    std::error_code ec;
    size_t n = 0;
    for (auto it = fs::recursive_directory_iterator(dir, ec); !ec && it != fs::recursive_directory_iterator(); ++it)
        if (it->is_regular_file()) ++n;
    return n;
}

// A received message around a TNEF file, decoded; what came out.
struct Decoded {
    int16_t message = 0;
    int16_t messageFile = 0;
    uint16_t receipt = 0;
    uint32_t reply = 0;
    std::string dump;
    std::vector<std::string> parts;  // attachment bytes, from the third part on (the first two are the body and the TNEF file)
    long newItems = 0;               // data items the decode left, beyond the new message file
};

Decoded decode(const TestHome& home, const std::string& tnef, uint32_t suppress = 0) {
    ReceivedMessage received;
    received.tnefBytes = tnef;
    Decoded d;
    d.message = Msg_BuildReceived(received, &d.messageFile);
    home.write("tmp/winmail.dat", tnef);
    const std::string path = home.file("tmp/winmail.dat");
    const long before = static_cast<long>(countFiles(home.file("store/items")));
    tnef_Decode(d.message, &d.messageFile, path.c_str(), &d.receipt, &d.reply, 0, suppress);
    d.newItems = static_cast<long>(countFiles(home.file("store/items"))) - before - 1;
    Msg_Save(d.message, d.messageFile);
    d.dump = tf_DumpFile(d.messageFile);
    for (uint32_t n = 3; n <= Msg_GetPartCount(d.message); ++n) {
        ItemRef ref{};
        Msg_GetAttachedFile(d.message, &ref, n);
        d.parts.push_back(readFileBytes(im_ItemRef2FName(ref)));
    }
    return d;
}

std::string renddata(uint16_t type) {
    return PropList().bytes().substr(0, 0) + std::string(1, static_cast<char>(type)) + "\0"s +
           std::string(12, '\0');
}

Stream& attachment(Stream& s, const std::string& data, const std::string& displayName,
                   bool dataFirst = true, uint16_t type = kAttachType1) {
    s.record(2, 0x00069002, renddata(type));
    PropList props;
    if (!displayName.empty()) props.string8(PR_DISPLAY_NAME, displayName);
    props.long32(0x0E200003, static_cast<uint32_t>(data.size()));
    if (dataFirst) s.record(2, 0x0006800F, data).record(2, 0x00069005, props.bytes());
    else s.record(2, 0x00069005, props.bytes()).record(2, 0x0006800F, data);
    return s;
}

}  // namespace

TEST(Decode, HeaderOnlyStreamKeepsPresetsAndStoresTheHeader) {
    TestHome home;
    const Decoded d = decode(home, Stream().header().tnefVersion().bytes());
    EXPECT_EQ(d.receipt, 0);
    EXPECT_EQ(d.reply, 0u);
    EXPECT_TRUE(d.parts.empty());
    EXPECT_EQ(d.dump.find("30500 g6 part type=0"), std::string::npos);
    EXPECT_NE(d.dump.find("19000"), std::string::npos) << d.dump;
}

TEST(Decode, FileAttachmentsCompleteInEitherOrder) {
    TestHome home;
    Stream s;
    s.header().tnefVersion();
    s.record(1, 0x00018004, "Subject\0"s);
    attachment(s, "first bytes", "one.txt", true);
    attachment(s, "second bytes", "two.txt", false);
    const Decoded d = decode(home, s.bytes());
    ASSERT_EQ(d.parts.size(), 2u);
    EXPECT_EQ(d.parts[0], "first bytes");
    EXPECT_EQ(d.parts[1], "second bytes");
    EXPECT_NE(d.dump.find("names=\"\" \"one.txt\" \"one.txt\""), std::string::npos) << d.dump;
    EXPECT_NE(d.dump.find("\"two.txt\""), std::string::npos);
    EXPECT_NE(d.dump.find("Subject"), std::string::npos);
}

TEST(Decode, UnnamedAttachmentTakesTitleOrUntitled) {
    TestHome home;
    Stream s;
    s.header().tnefVersion();
    attachment(s, "x", "");
    s.record(2, 0x00069002, renddata(1)).record(2, 0x00018010, "title.doc\0"s);
    s.record(2, 0x0006800F, "y").record(2, 0x00069005, PropList().long32(0x0E200003, 1).bytes());
    const Decoded d = decode(home, s.bytes());
    EXPECT_NE(d.dump.find("\"untitled-attachment\""), std::string::npos) << d.dump;
    EXPECT_NE(d.dump.find("\"title.doc\""), std::string::npos);
}

TEST(Decode, OleAttachmentsAndRecordsBeforeRenddataStayInTheObjectFile) {
    TestHome home;
    Stream s;
    s.header().tnefVersion();
    s.record(2, 0x0006800F, "early data").record(2, 0x00069005, PropList().bytes());
    attachment(s, "ole bytes", "ole.bin", true, 2);
    const Decoded d = decode(home, s.bytes());
    EXPECT_TRUE(d.parts.empty());
    EXPECT_EQ(d.newItems, 0) << "no data item for a kept attachment";
}

TEST(Decode, EmbeddedMarkerMakesNoAttachment) {
    TestHome home;
    Stream s;
    s.header().tnefVersion();
    s.record(2, 0x00069002, renddata(1)).record(2, 0x0006800F, "MAPI 1.0 embedded message\0"s);
    const Decoded d = decode(home, s.bytes());
    EXPECT_TRUE(d.parts.empty());
    EXPECT_EQ(d.newItems, 0);
}

TEST(Decode, ReceiptsReplyAndPriorityReachTheCaller) {
    TestHome home;
    PropList props;
    props.i2(PR_ORIGINATOR_DELIVERY_REPORT_REQUESTED, 1).i2(PR_READ_RECEIPT_REQUESTED, 1);
    Stream s;
    s.header().tnefVersion().record(1, 0x00069003, props.bytes());
    s.record(1, 0x00040009, "\x01\x00\x09\x00"s).record(1, 0x0004800D, "\x03\x00"s);
    const Decoded d = decode(home, s.bytes());
    EXPECT_EQ(d.receipt, 7);
    EXPECT_EQ(d.reply, 1u);
    EXPECT_NE(d.dump.find("prio=1"), std::string::npos) << d.dump;
}

TEST(Decode, OverlongRecordsEscapeAndLeaveTheStoreAsItWas) {
    TestHome home;
    for (const std::string& bad :
         {Stream().header().tnefVersion().record(1, 0x0002800C, std::string(4081, 'b')).bytes(),
          Stream().header().record(1, 0x00040009, "\x01\x00\x00"s).bytes()}) {
        ReceivedMessage received;
        int16_t tf = 0;
        const int16_t msg = Msg_BuildReceived(received, &tf);
        const std::string before = tf_DumpFile(tf);
        const size_t tempBefore = countFiles(home.file("tmp/items"));
        const size_t itemsBefore = countFiles(home.file("store/items"));
        home.write("tmp/bad.dat", bad);
        uint16_t receipt = 0;
        uint32_t reply = 0;
        try {
            tnef_Decode(msg, &tf, home.file("tmp/bad.dat").c_str(), &receipt, &reply, 0, 0);
            FAIL() << "no escape";
        } catch (const Escape& e) {
            EXPECT_EQ(e.group, 102);
            EXPECT_EQ(e.reason, 1546);
        }
        EXPECT_EQ(tf_DumpFile(tf), before);
        EXPECT_EQ(countFiles(home.file("tmp/items")), tempBefore);
        EXPECT_EQ(countFiles(home.file("store/items")), itemsBefore);
        tf_CloseFile(tf);
        Msg_Close(msg);
    }
    EXPECT_EQ(tf_OpenHandleCount(), 0);
}

TEST(Decode, NestedMessagesBecomePackagesAtAnyDepth) {
    TestHome home;
    const Guid iid{};
    Stream inner;
    inner.header().tnefVersion().record(1, 0x00018004, "inner\0"s).record(1, 0x0002800C, "inner body");
    Stream middle;
    middle.header().tnefVersion().record(1, 0x00018004, "middle\0"s);
    middle.record(1, 0x00069003, PropList().long32(PR_IMPORTANCE, 2).bytes());
    middle.record(1, 0x0004800D, "\x03\x00"s);
    middle.record(2, 0x00069002, renddata(1));
    middle.record(2, 0x00069005, PropList().object(PR_ATTACH_DATA_OBJ, iid, inner.bytes()).bytes());
    Stream outer;
    outer.header().tnefVersion();
    outer.record(2, 0x00069002, renddata(1));
    outer.record(2, 0x00069005, PropList().object(PR_ATTACH_DATA_OBJ, iid, middle.bytes()).bytes());
    const Decoded d = decode(home, outer.bytes());
    const size_t outerStart = d.dump.find("30100");
    ASSERT_NE(outerStart, std::string::npos) << d.dump;
    const size_t innerStart = d.dump.find("30100", outerStart + 1);
    ASSERT_NE(innerStart, std::string::npos) << d.dump;
    const size_t innerEnd = d.dump.find("39000", innerStart);
    const size_t outerEnd = d.dump.find("39000", innerEnd + 1);
    EXPECT_NE(outerEnd, std::string::npos) << "the inner package lies inside the outer one";
    EXPECT_NE(d.dump.find("prio=1"), std::string::npos) << "priority after attMAPIProps rewrites 1100";
    ASSERT_EQ(d.parts.size(), 1u);
    EXPECT_EQ(d.parts[0], "inner body");
    EXPECT_NE(d.dump.find("\"BDY.TXT\" \"BDY.TXT\""), std::string::npos);
}

TEST(Decode, SuppressedMapiDataStoresNoObjectOrTexts) {
    TestHome home;
    Stream s;
    s.header().tnefVersion().record(1, 0x00069003, PropList().string8(PR_SUBJECT, "s").bytes());
    const Decoded d = decode(home, s.bytes(), 1);
    EXPECT_EQ(d.dump.find("19000"), std::string::npos) << d.dump;
    EXPECT_EQ(d.dump.find("19500"), std::string::npos);
    EXPECT_EQ(countFiles(home.file("tmp/items")), 0u);
}

