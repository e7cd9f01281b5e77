#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>
#include <string>
#include <vector>

#include "support/store_checks.h"
#include "support/test_home.h"
#include "tnef/platform/im_items.h"
#include "tnef/platform/msg_builder.h"
#include "tnef/platform/msg_store.h"
#include "tnef/platform/os_file.h"
#include "tnef/platform/tf_msgfile.h"

using namespace storecheck;

namespace {

ItemRef dataItem(const std::string& bytes) {
    ItemRef ref;
    os_write(OsFd(im_CrNewDataItem(nullptr, &ref)).get(), bytes.data(), static_cast<int64_t>(bytes.size()));
    return ref;
}

std::string partBytes(int16_t msg, uint32_t n) {
    ItemRef part;
    Msg_GetAttachedFile(msg, &part, n);
    return readFileBytes(im_ItemRef2FName(part));
}

void appendPart(int16_t tf, uint32_t flags, uint32_t size) {
    TFREC_content_file d;
    tf_initTFREC_content_file(&d, 0);
    d.flags = flags;
    d.size = size;
    TFREC r;
    tf_ContentFileRecFromStruc(&r, &d);
    tf_AppendRecord(tf, &r);
}

std::vector<uint32_t> sizesIn(int16_t tf) {
    std::vector<uint32_t> sizes;
    for (const TFREC& r : recordsOf(tf))
        if (tf_GetType(&r) == TFREC_CONTENT_FILE) sizes.push_back(tf_GetINT32(&r, 28));
    return sizes;
}

std::vector<uint32_t> savedSizes(int16_t msg) { return sizesIn(TfFileOwner(Msg_OpenFile(msg)).get()); }

}  // namespace

TEST(Messages, PartsAreLinksInOrderAndOutliveTheItemsOwnName) {
    TestHome home;
    MsgOwner msg(Msg_Create());
    const std::string contents[] = {"body", "tnef", std::string(100000, 'z')};
    for (const std::string& c : contents) {
        const ItemRef item = dataItem(c);
        const int n = Msg_AttachFile(msg.get(), item);
        ItemRef part;
        Msg_GetAttachedFile(msg.get(), &part, static_cast<uint32_t>(n));
        struct stat a, b;
        ::stat(im_ItemRef2FName(item).c_str(), &a);
        ::stat(im_ItemRef2FName(part).c_str(), &b);
        EXPECT_EQ(a.st_ino, b.st_ino) << "part " << n << " is a copy, not a link";
        im_UnlinkItem(item);
    }
    for (uint32_t n = 1; n <= 3; ++n) EXPECT_EQ(partBytes(msg.get(), n), contents[n - 1]);
    for (uint32_t missing : {0u, 4u})
        EXPECT_EQ(escapeOf([&] { partBytes(msg.get(), missing); }).reason, ER_STORE_NO_PART);
}

TEST(Messages, OnlyTheLastPartDetachesAndCountsFollow) {
    TestHome home;
    MsgOwner msg(Msg_Create());
    for (const char* c : {"one", "two", "three"}) Msg_AttachFile(msg.get(), dataItem(c));
    EXPECT_EQ(Msg_GetPartCount(msg.get()), 3u);
    for (uint32_t notLast : {0u, 1u, 2u, 4u})
        EXPECT_EQ(escapeOf([&] { Msg_DetachFile(msg.get(), notLast); }).reason, ER_STORE_NO_PART);
    Msg_DetachFile(msg.get(), 3);
    EXPECT_EQ(Msg_GetPartCount(msg.get()), 2u) << "a remembered count must not outlive its part";
    EXPECT_EQ(Msg_AttachFile(msg.get(), dataItem("again")), 3);
    EXPECT_EQ(partBytes(msg.get(), 3), "again");
}

TEST(Messages, SaveFillsOnlyCountedPartsThatHaveNoSizeYet) {
    TestHome home;
    MsgOwner msg(Msg_Create());
    for (const char* c : {"12345", "1234567", "123"}) Msg_AttachFile(msg.get(), dataItem(c));
    TfFileOwner tf(tf_CreateFile());
    appendPart(tf.get(), 0, 0);                       // part 1: gets 5
    appendPart(tf.get(), TF_CONTENT_NOT_COUNTED, 0);  // no part: stays 0
    TFREC r;
    tf_MakeStartPkgRec(&r, 1, "", "", "", 0, 0, 3, -100, 0);
    tf_AppendRecord(tf.get(), &r);
    appendPart(tf.get(), 0, 99);  // part 2, inside a package: keeps its size
    tf_InitRecord(&r, TFREC_END_PACKAGE);
    tf_AppendRecord(tf.get(), &r);
    appendPart(tf.get(), 0x2, 0);  // part 3 (other flag bits do not matter): gets 3
    appendPart(tf.get(), 0, 0);    // part 4 does not exist: stays 0
    Msg_Save(msg.get(), tf.get());
    EXPECT_EQ(savedSizes(msg.get()), (std::vector<uint32_t>{5, 0, 99, 3, 0}));
    EXPECT_EQ(sizesIn(tf.get()), savedSizes(msg.get())) << "the caller's file learns the sizes";

    // Saving the message's own file fills in place and keeps the reader where it was.
    TfFileOwner own(Msg_OpenFile(msg.get()));
    tf_ReadRecord(own.get(), &r);
    Msg_AttachFile(msg.get(), dataItem("four"));
    Msg_Save(msg.get(), own.get());
    ASSERT_EQ(tf_ReadRecord(own.get(), &r), 1);
    EXPECT_EQ(tf_GetINT32(&r, 24), TF_CONTENT_NOT_COUNTED) << "the reading position moved";
    EXPECT_EQ(savedSizes(msg.get()), (std::vector<uint32_t>{5, 0, 99, 3, 4}));
}

TEST(Messages, AFailedSaveKeepsTheOldMessageFileAndLeavesNoTemporaryBehind) {
    TestHome home;
    MsgOwner msg(Msg_Create());
    TfFileOwner first(tf_CreateFile()), second(tf_CreateFile());
    appendPart(first.get(), 0, 7);
    for (int i = 0; i < 5; ++i) appendPart(second.get(), 0, 7);
    Msg_Save(msg.get(), first.get());
    const std::string folder = home.file("store/messages/" + Msg_GetId(msg.get()));
    const std::string saved = readFileBytes(folder + "/msgfile");
    const int fds = openFdCount();
    {
        FailingWrites full(1);
        EXPECT_EQ(escapeOf([&] { Msg_Save(msg.get(), second.get()); }).reason, ENOSPC);
    }
    EXPECT_EQ(readFileBytes(folder + "/msgfile"), saved);
    EXPECT_EQ(filesIn(folder), std::vector<std::string>{"msgfile"});
    EXPECT_EQ(openFdCount(), fds);
}

TEST(Messages, OpenOnlyWellFormedIdsAndDeleteLeavesItemsLinkedElsewhere) {
    TestHome home;
    const ItemRef item = dataItem("kept");
    std::string id;
    {
        MsgOwner a(Msg_Create());
        id = Msg_GetId(a.get());
        Msg_AttachFile(a.get(), item);
        TfFileOwner own(Msg_OpenFile(a.get()));
        Msg_Save(a.get(), own.get());
    }
    EXPECT_EQ(Msg_List(), std::vector<std::string>{id});
    Msg_Delete(Msg_Open(id.c_str()));
    EXPECT_TRUE(Msg_List().empty());
    EXPECT_EQ(readFileBytes(im_ItemRef2FName(item)), "kept");
    EXPECT_EQ(escapeOf([&] { Msg_Open(id.c_str()); }).reason, ENOENT);
    for (const char* bad : {"", "0123456789abcdeg", "../../../etc/xx"})
        EXPECT_EQ(escapeOf([&] { Msg_Open(bad); }).reason, ER_STORE_BAD_ARGUMENT) << bad;
    EXPECT_EQ(Msg_OpenHandleCount(), 0);
}

TEST(ReceivedMessage, HasTheShapeTheCodecExpectsOrLeavesNothingBehind) {
    TestHome home;
    ReceivedMessage received;
    received.recipients = {"a@local", "b@local"};
    received.bodyText = "Hello\n";
    received.tnefBytes = "TNEF";
    int16_t tf = 0;
    {
        MsgOwner msg(Msg_BuildReceived(received, &tf));
        TfFileOwner file(tf);
        EXPECT_EQ(typesOf(tf), (std::vector<uint32_t>{1100, 10000, 15000, 15000, 30500, 30500}));
        EXPECT_EQ(savedSizes(msg.get()), (std::vector<uint32_t>{6, 4}));
        EXPECT_EQ(partBytes(msg.get(), 1), received.bodyText);
        EXPECT_EQ(partBytes(msg.get(), 2), received.tnefBytes);
        EXPECT_EQ(filesIn(home.file("store/items")).size(), 1u) << "only the caller's message file";
        Msg_Delete(msg.release());
        file.discardItem();
    }
    received.tnefPath = home.file("no-such-winmail.dat");
    const int fds = openFdCount();
    const Escape e = escapeOf([&] { Msg_BuildReceived(received, &tf); });
    EXPECT_NE(std::string(e.what()).find("no-such-winmail.dat"), std::string::npos);
    EXPECT_TRUE(Msg_List().empty());
    EXPECT_TRUE(filesIn(home.file("store/items")).empty());
    EXPECT_EQ(openFdCount(), fds);
    EXPECT_EQ(tf_OpenHandleCount() + Msg_OpenHandleCount(), 0);
}
