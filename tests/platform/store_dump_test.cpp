#include <gtest/gtest.h>

#include <string>

#include "support/test_home.h"
#include "tnef/platform/dstring.h"
#include "tnef/platform/im_items.h"
#include "tnef/platform/mp_stored.h"
#include "tnef/platform/msg_builder.h"
#include "tnef/platform/msg_store.h"
#include "tnef/platform/os_file.h"
#include "tnef/platform/store_dump.h"
#include "tnef/platform/tf_msgfile.h"

TEST(StoreDump, ShowsRecordsPartsAndStoredDataAndWhereADamagedFileStops) {
    TestHome home;
    ReceivedMessage received;
    received.bodyText = "Hi\n";
    received.headerFlags = 0x98 | 0x1000;
    int16_t tf = 0;
    MsgOwner msg(Msg_BuildReceived(received, &tf));
    TfFileOwner file(tf);
    TFREC r;
    tf_MakeSubjectRec(&r, TFREC_SUBJECT, "Tab\there \"q\"", "", 0, 0, 0, 0);
    tf_AppendRecord(tf, &r);
    ItemRef object;
    OsFd(im_CrNewDataItem(nullptr, &object)).close();
    mp_PutObjectFile(MP_OBJECT_PROPERTIES, object, tf, 1, 0);
    im_UnlinkItem(object);
    dstring big;
    dstring_init(&big);
    dstring_appendN(&big, std::string(5000, 'p').data(), 5000);
    mp_PutMAPIPropsData(1, 0, &big, tf, 1, 0, 0);
    Msg_Save(msg.get(), tf);

    const std::string dump = Msg_Dump(msg.get());
    for (const std::string& line : {
             "message " + Msg_GetId(msg.get()) + "\n",
             std::string("part 1: size=3 links=1\n"),
             std::string("  1100 g1 header flags=0x1098 prio=0 sens=3 imp=2 autofwd=1 w16=3 w28=1 "
                         "w42=0x2\n"),
             std::string("  15000 g4 recipient flags=0x0 texts=\"user@local.example\" \"\" \"\"\n"),
             std::string("  30500 g6 part type=1167 flags=0x0 size=3 names=\"BDY.TXT\" \"BDY.TXT\" "
                         "\"\"\n"),
             std::string("  11100 g3 subject texts=\"Tab\\x09here \\\"q\\\"\" \"\"\n"),
             std::string("  19500 g5 text flags=0x1/0x0 keep=1 nested=0 length=5000\n"),
             std::string("  object \"MAPI.ObjectProperties\": size=0 links=1\n"),
             std::string("  text 19510: size=5000 links=1\n"),
         })
        EXPECT_NE(dump.find(line), std::string::npos) << line << "in\n" << dump;

    // Cut the saved file inside its last record: every whole record is still shown.
    ItemRef saved;
    Msg_GetFileRef(msg.get(), &saved);
    const std::string path = im_ItemRef2FName(saved);
    const std::string bytes = readFileBytes(path);
    home.write(path.substr(home.path().size() + 1), bytes.substr(0, bytes.size() - 2));
    const std::string damaged = Msg_Dump(msg.get());
    const size_t bang = damaged.find("  ! ");
    ASSERT_NE(bang, std::string::npos) << damaged;
    EXPECT_NE(damaged.find(path, bang), std::string::npos);
    EXPECT_NE(damaged.rfind("  19500 g5", bang), std::string::npos);
}
