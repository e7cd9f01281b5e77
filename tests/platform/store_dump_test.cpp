#include <gtest/gtest.h>

#include <algorithm>
#include <sstream>
#include <string>
#include <vector>

#include "support/test_home.h"
#include "tnef/platform/dstring.h"
#include "tnef/platform/im_items.h"
#include "tnef/platform/mp_stored.h"
#include "tnef/platform/msg_builder.h"
#include "tnef/platform/msg_store.h"
#include "tnef/platform/os_file.h"
#include "tnef/platform/store_dump.h"
#include "tnef/platform/tf_msgfile.h"

namespace {

std::vector<std::string> linesOf(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
}

bool contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

}  // namespace

TEST(StoreDump, ShowsOneLinePerRecordWithTheFieldsTheCodecUses) {
    TestHome home;
    ReceivedMessage spec;
    spec.recipients = {"joe@local"};
    spec.bodyText = "Hi\n";
    spec.tnefBytes = "TNEF";
    spec.headerFlags = 0x98 | 0x1000;
    int16_t tf = 0;
    MsgOwner msg(Msg_BuildReceived(spec, &tf));
    TfFileOwner file(tf);

    TFREC r;
    tf_MakeSubjectRec(&r, TFREC_SUBJECT, "Tab\there \"q\"", "", 0, 0, 0, 0);
    tf_AppendRecord(tf, &r);
    tf_InitRecord(&r, TFREC_EXPIRY_TIME);
    tf_PutINT32(&r, 16, 86400);
    tf_AppendRecord(tf, &r);

    TFREC first;
    ASSERT_EQ(tf_ReadRecord(tf, &first), 1);
    const std::vector<std::string> lines = linesOf(tf_DumpFile(tf));
    ASSERT_EQ(lines.size(), 7u);
    EXPECT_EQ(lines[0],
              "1100 g1 header flags=0x1098 prio=0 sens=3 imp=2 autofwd=1 w16=3 w28=1 w42=0x2");
    EXPECT_EQ(lines[1], "10000 g2 address texts=\"sender@remote.example\" \"\" \"\"");
    EXPECT_EQ(lines[2], "15000 g4 recipient flags=0x0 texts=\"joe@local\" \"\" \"\"");
    EXPECT_EQ(lines[3], "30500 g6 part type=1167 flags=0x0 size=3 names=\"BDY.TXT\" \"BDY.TXT\" \"\"");
    EXPECT_EQ(lines[4],
              "30500 g6 part type=2130 flags=0x0 size=4 names=\"winmail.dat\" \"winmail.dat\" \"\"");
    EXPECT_EQ(lines[5], "11100 g3 subject texts=\"Tab\\x09here \\\"q\\\"\" \"\"");
    EXPECT_EQ(lines[6], "13700 g3 expiry time=86400/0 (1970-01-02 00:00:00Z)");
    ASSERT_EQ(tf_ReadRecord(tf, &r), 1);
    EXPECT_EQ(tf_GetType(&r), TFREC_ORIGINATOR) << "the dump moved the caller's position";
}

TEST(StoreDump, ShowsPartsStoredDataAndWhereADamagedFileStops) {
    TestHome home;
    int16_t tf = 0;
    MsgOwner msg(Msg_BuildReceived(ReceivedMessage{}, &tf));
    TfFileOwner file(tf);
    ItemRef object;
    {
        OsFd fd(im_CrNewDataItem(nullptr, &object));
        os_write(fd.get(), "OBJ", 3);
    }
    mp_PutObjectFile(MP_OBJECT_PROPERTIES, object, tf, 1, 0);
    dstring big;
    dstring_init(&big);
    dstring_appendN(&big, std::string(5000, 'p').data(), 5000);
    mp_PutMAPIPropsData(1, 0, &big, tf, 1, 0, 0);
    Msg_Save(msg.get(), tf);
    im_UnlinkItem(object);

    const std::string dump = Msg_Dump(msg.get());
    EXPECT_TRUE(contains(dump, "message " + Msg_GetId(msg.get()) + "\n")) << dump;
    EXPECT_TRUE(contains(dump, "part 1: size=0 links=1")) << dump;
    EXPECT_TRUE(contains(dump, "  19000 g5 object \"MAPI.ObjectProperties\" size=3 kept=1")) << dump;
    EXPECT_TRUE(contains(dump, "  19500 g5 text flags=0x1/0x0 keep=1 nested=0 length=5000")) << dump;
    EXPECT_TRUE(contains(dump, "  object \"MAPI.ObjectProperties\": size=3 links=1")) << dump;
    EXPECT_TRUE(contains(dump, "  text 19510: size=5000 links=1")) << dump;

    // Cut the saved file inside its last record.
    ItemRef saved;
    Msg_GetFileRef(msg.get(), &saved);
    const std::string path = im_ItemRef2FName(saved);
    const std::string bytes = readFileBytes(path);
    home.write(path.substr(home.path().size() + 1), bytes.substr(0, bytes.size() - 2));
    const std::vector<std::string> lines = linesOf(Msg_Dump(msg.get()));
    const auto bang = std::find_if(lines.begin(), lines.end(),
                                   [](const std::string& l) { return contains(l, "! "); });
    ASSERT_NE(bang, lines.end());
    EXPECT_TRUE(contains(*bang, path)) << *bang;
    EXPECT_TRUE(contains(*(bang - 1), "19500")) << "every whole record before the damage is shown";
}
