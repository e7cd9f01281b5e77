#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <string>
#include <vector>

#include "support/store_checks.h"
#include "support/test_home.h"
#include "tnef/platform/er_escape.h"
#include "tnef/platform/im_items.h"
#include "tnef/platform/msg_builder.h"
#include "tnef/platform/msg_store.h"
#include "tnef/platform/os_file.h"
#include "tnef/platform/tf_msgfile.h"

using storecheck::filesIn;
using storecheck::openFdCount;
using storecheck::typesOf;

namespace {

ItemRef dataItem(const std::string& bytes) {
    ItemRef ref;
    OsFd fd(im_CrNewDataItem(nullptr, &ref));
    os_write(fd.get(), bytes.data(), static_cast<int64_t>(bytes.size()));
    return ref;
}

std::string itemBytes(const ItemRef& ref) { return readFileBytes(im_ItemRef2FName(ref)); }

ino_t inodeOf(const std::string& path) {
    struct stat st;
    return ::stat(path.c_str(), &st) == 0 ? st.st_ino : 0;
}

void appendPart(int16_t tf, uint32_t flags, uint32_t size, uint32_t contentType = 0) {
    TFREC_content_file d;
    tf_initTFREC_content_file(&d, contentType);
    d.flags = flags;
    d.size = size;
    d.fileName = "f";
    TFREC r;
    tf_ContentFileRecFromStruc(&r, &d);
    tf_AppendRecord(tf, &r);
}

std::vector<uint32_t> savedSizes(int16_t msg) {
    std::vector<uint32_t> sizes;
    TfFileOwner tf(Msg_OpenFile(msg));
    TFREC r;
    while (tf_ReadRecord(tf.get(), &r) != 0)
        if (tf_GetType(&r) == TFREC_CONTENT_FILE) sizes.push_back(tf_GetINT32(&r, 28));
    return sizes;
}

}  // namespace

TEST(Messages, PartsAreLinkedInOrderAndOutliveTheItemsOwnName) {
    TestHome home;
    MsgOwner msg(Msg_Create());
    const std::vector<std::string> contents = {"body", "tnef bytes", std::string(100000, 'z')};
    std::vector<ItemRef> items;
    for (const std::string& c : contents) {
        items.push_back(dataItem(c));
        EXPECT_EQ(Msg_AttachFile(msg.get(), items.back()), static_cast<int>(items.size()));
    }
    EXPECT_EQ(Msg_GetPartCount(msg.get()), 3u);
    for (uint32_t n = 1; n <= 3; ++n) {
        ItemRef part;
        Msg_GetAttachedFile(msg.get(), &part, n);
        EXPECT_EQ(inodeOf(im_ItemRef2FName(part)), inodeOf(im_ItemRef2FName(items[n - 1])))
            << "part " << n << " is a link, not a copy";
        im_UnlinkItem(items[n - 1]);
        EXPECT_EQ(itemBytes(part), contents[n - 1]);
    }
    for (uint32_t missing : {0u, 4u}) {
        ItemRef part;
        try {
            Msg_GetAttachedFile(msg.get(), &part, missing);
            FAIL() << "part " << missing << " found";
        } catch (const Escape& e) {
            EXPECT_EQ(e.group, ER_GROUP_STORE);
            EXPECT_EQ(e.reason, ER_STORE_NO_PART);
        }
    }
}

TEST(Messages, SaveFillsOnlyCountedPartsThatHaveNoSizeYet) {
    TestHome home;
    MsgOwner msg(Msg_Create());
    for (const char* c : {"12345", "1234567", "123"}) Msg_AttachFile(msg.get(), dataItem(c));

    TfFileOwner tf(tf_CreateFile());
    tf.discardItem();
    TFREC header;
    tf_InitRecord(&header, TFREC_HEADER);
    tf_AppendRecord(tf.get(), &header);
    appendPart(tf.get(), 0, 0);                       // part 1: filled with 5
    appendPart(tf.get(), TF_CONTENT_NOT_COUNTED, 0);  // not a part: stays 0
    TFREC start;
    tf_MakeStartPkgRec(&start, 1, "", "", "", 0, 0, 3, -100, 0);
    tf_AppendRecord(tf.get(), &start);
    appendPart(tf.get(), 0, 99);  // part 2, inside a package: has a size, keeps it
    TFREC end;
    tf_InitRecord(&end, TFREC_END_PACKAGE);
    tf_AppendRecord(tf.get(), &end);
    appendPart(tf.get(), 0x2, 0);  // part 3 (other flag bits do not matter): filled with 3
    appendPart(tf.get(), 0, 0);    // part 4 does not exist: stays 0

    Msg_Save(msg.get(), tf.get());
    EXPECT_EQ(savedSizes(msg.get()), (std::vector<uint32_t>{5, 0, 99, 3, 0}));
    EXPECT_EQ(typesOf(tf.get()), typesOf(TfFileOwner(Msg_OpenFile(msg.get())).get()));

    // Saving the message's own file fills in place and keeps the reader where it was.
    TfFileOwner own(Msg_OpenFile(msg.get()));
    TFREC r;
    tf_ReadRecord(own.get(), &r);
    Msg_AttachFile(msg.get(), dataItem("four"));
    Msg_Save(msg.get(), own.get());
    ASSERT_EQ(tf_ReadRecord(own.get(), &r), 1);
    EXPECT_EQ(tf_GetType(&r), TFREC_CONTENT_FILE) << "the reading position moved";
    EXPECT_EQ(savedSizes(msg.get()), (std::vector<uint32_t>{5, 0, 99, 3, 4}));
}

TEST(Messages, AFailedSaveKeepsTheOldMessageFileAndLeavesNoTemporaryBehind) {
    TestHome home;
    MsgOwner msg(Msg_Create());
    TfFileOwner first(tf_CreateFile());
    first.discardItem();
    appendPart(first.get(), 0, 0);
    Msg_Save(msg.get(), first.get());
    const std::string folder = home.file("store/messages/" + Msg_GetId(msg.get()));
    const std::string saved = readFileBytes(folder + "/msgfile");

    TfFileOwner second(tf_CreateFile());
    second.discardItem();
    for (int i = 0; i < 5; ++i) appendPart(second.get(), 0, 7);
    const int fds = openFdCount();
    {
        storecheck::FailingWrites full(1);
        EXPECT_THROW(Msg_Save(msg.get(), second.get()), Escape);
    }
    EXPECT_EQ(readFileBytes(folder + "/msgfile"), saved);
    EXPECT_EQ(filesIn(folder), std::vector<std::string>{"msgfile"});
    EXPECT_EQ(openFdCount(), fds);
}

TEST(Messages, AreListedOpenedByIdAndRemovedWithoutTouchingItemsLinkedElsewhere) {
    TestHome home;
    EXPECT_TRUE(Msg_List().empty());
    const int handles = Msg_OpenHandleCount();
    std::string id;
    ItemRef item = dataItem("kept");
    {
        MsgOwner a(Msg_Create());
        MsgOwner b(Msg_Create());
        id = Msg_GetId(b.get());
        EXPECT_EQ(id.size(), 16u);
        std::vector<std::string> ids = {Msg_GetId(a.get()), id};
        std::sort(ids.begin(), ids.end());
        EXPECT_EQ(Msg_List(), ids);
        Msg_AttachFile(b.get(), item);
    }
    EXPECT_EQ(Msg_OpenHandleCount(), handles);

    const int16_t again = Msg_Open(id.c_str());
    EXPECT_EQ(Msg_GetPartCount(again), 1u);
    Msg_Delete(again);
    EXPECT_EQ(Msg_List().size(), 1u);
    EXPECT_EQ(itemBytes(item), "kept");
    EXPECT_EQ(Msg_OpenHandleCount(), handles);

    try {
        Msg_Open(id.c_str());
        FAIL() << "a removed message opened";
    } catch (const Escape& e) {
        EXPECT_EQ(e.group, ER_GROUP_IO);
        EXPECT_EQ(e.reason, ENOENT);
    }
    for (const char* bad : {"", "123", "0123456789abcdeg", "../../../etc/xx"}) {
        try {
            Msg_Open(bad);
            FAIL() << bad;
        } catch (const Escape& e) {
            EXPECT_EQ(e.reason, ER_STORE_BAD_ARGUMENT) << bad;
        }
    }
}

TEST(ReceivedMessage, HasTheShapeTheCodecExpects) {
    TestHome home;
    ReceivedMessage spec;
    spec.recipients = {"a@local", "b@local"};
    spec.bodyText = "Hello\n";
    spec.tnefBytes = std::string("\x78\x9f\x3e\x22\xd2\x04", 6);
    spec.headerFlags = 0x42;
    int16_t tf = 0;
    MsgOwner msg(Msg_BuildReceived(spec, &tf));
    TfFileOwner file(tf);

    EXPECT_EQ(typesOf(tf), (std::vector<uint32_t>{1100, 10000, 15000, 15000, 30500, 30500}));
    TFREC r;
    ASSERT_EQ(tf_ReadRecord(tf, &r), 1) << "the handle starts at the first record";
    EXPECT_EQ(tf_GetINT32(&r, 24), 0x42u);
    EXPECT_EQ(tf_GetINT32(&r, 42) & 1, 0u);
    tf_ReadRecord(tf, &r);
    EXPECT_STREQ(tf_GetStrPtr(&r, 36, nullptr), spec.originator.c_str());
    tf_ReadRecord(tf, &r);
    EXPECT_STREQ(tf_GetStrPtr(&r, 24, nullptr), "a@local");
    EXPECT_EQ(tf_GetINT32(&r, 20), 0u);

    EXPECT_EQ(savedSizes(msg.get()), (std::vector<uint32_t>{6, 6}));
    ItemRef part;
    Msg_GetAttachedFile(msg.get(), &part, 1);
    EXPECT_EQ(itemBytes(part), spec.bodyText);
    Msg_GetAttachedFile(msg.get(), &part, 2);
    EXPECT_EQ(itemBytes(part), spec.tnefBytes);
    // The only data item left is the working message file the caller holds.
    EXPECT_EQ(filesIn(home.file("store/items")).size(), 1u);
}

TEST(ReceivedMessage, LeavesNothingBehindWhenItCannotBeBuilt) {
    TestHome home;
    ReceivedMessage spec;
    spec.tnefPath = home.file("no-such-winmail.dat");
    const int fds = openFdCount();
    const int handles = tf_OpenHandleCount() + Msg_OpenHandleCount();
    int16_t tf = 0;
    try {
        Msg_BuildReceived(spec, &tf);
        FAIL() << "built from a missing file";
    } catch (const Escape& e) {
        EXPECT_EQ(e.reason, ENOENT);
        EXPECT_NE(std::string(e.what()).find("no-such-winmail.dat"), std::string::npos);
    }
    EXPECT_TRUE(Msg_List().empty());
    EXPECT_TRUE(filesIn(home.file("store/items")).empty());
    EXPECT_EQ(openFdCount(), fds);
    EXPECT_EQ(tf_OpenHandleCount() + Msg_OpenHandleCount(), handles);
}
