#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "support/store_checks.h"
#include "support/test_home.h"
#include "tnef/platform/er_escape.h"
#include "tnef/platform/im_items.h"
#include "tnef/platform/os_file.h"
#include "tnef/platform/tf_msgfile.h"

using storecheck::makeRecord;
using storecheck::openFdCount;
using storecheck::recordsOf;

namespace {

std::string bytesOf(const TFREC& r) {
    return std::string(reinterpret_cast<const char*>(r.bytes), tf_GetLength(&r));
}

template <typename F>
Escape escapeOf(F work) {
    try {
        work();
    } catch (const Escape& e) {
        return e;
    }
    ADD_FAILURE() << "no escape";
    return Escape(0, 0, "none", 0);
}

// A message file item holding exactly these bytes.
ItemRef fileHolding(const std::string& bytes) {
    ItemRef ref;
    OsFd fd(im_CrNewTempItem(&ref));
    os_write(fd.get(), bytes.data(), static_cast<int64_t>(bytes.size()));
    return ref;
}

std::string le32(uint32_t v) {
    std::string s(4, '\0');
    for (int i = 0; i < 4; ++i) s[i] = static_cast<char>(v >> (8 * i));
    return s;
}

}  // namespace

TEST(MessageFile, RecordsReadBackInOrderAfterCloseAndReopen) {
    TestHome home;
    const std::vector<TFREC> written = {
        makeRecord(1100, 8, 0),           // header only
        makeRecord(11100, 4080, 0x5A),    // the largest record
        makeRecord(30500, 37, 0xFF),      // an odd length
        makeRecord(99999, 16, 0x01),      // a type the store does not know
    };
    ItemRef ref;
    {
        TfFileOwner tf(tf_CreateFile());
        for (const TFREC& r : written) tf_AppendRecord(tf.get(), &r);
        tf_GetRef(tf.get(), &ref);
        tf.close();
    }
    EXPECT_EQ(readFileBytes(im_ItemRef2FName(ref)).size(), 8u + 4080 + 37 + 16)
        << "records lie back to back and nothing else";

    TfFileOwner tf(tf_OpenFile(ref, TF_OPEN_READONLY));
    TFREC r;
    std::memset(r.bytes, 0xEE, sizeof r.bytes);
    for (const TFREC& expected : written) {
        ASSERT_EQ(tf_ReadRecord(tf.get(), &r), 1);
        EXPECT_EQ(bytesOf(r), bytesOf(expected));
        if (tf_GetLength(&r) < TF_RECORD_MAX) {
            EXPECT_EQ(r.bytes[TF_RECORD_MAX - 1] | r.bytes[tf_GetLength(&r)], 0)
                << "bytes past the record are zero, not left from the previous read";
        }
    }
    EXPECT_EQ(tf_ReadRecord(tf.get(), &r), 0);
    EXPECT_EQ(tf_ReadRecord(tf.get(), &r), 0) << "the end stays the end";
    tf_UnreadFile(tf.get());
    ASSERT_EQ(tf_ReadRecord(tf.get(), &r), 1);
    EXPECT_EQ(tf_GetType(&r), 1100u);
}

TEST(MessageFile, OverwriteReplacesExactlyTheRecordLastRead) {
    TestHome home;
    TfFileOwner tf(tf_CreateFile());
    const TFREC a = makeRecord(1100, 20, 'a'), b = makeRecord(11100, 24, 'b'),
                c = makeRecord(15000, 28, 'c');
    for (const TFREC* r : {&a, &b, &c}) tf_AppendRecord(tf.get(), r);

    TFREC r;
    tf_ReadRecord(tf.get(), &r);
    tf_ReadRecord(tf.get(), &r);
    const TFREC longer = makeRecord(11100, 100, 'B');
    tf_OverwriteRecord(tf.get(), &longer);
    ASSERT_EQ(tf_ReadRecord(tf.get(), &r), 1);
    EXPECT_EQ(bytesOf(r), bytesOf(c)) << "reading goes on after the new record";
    EXPECT_EQ(recordsOf(tf.get()), (std::vector<std::string>{bytesOf(a), bytesOf(longer), bytesOf(c)}));

    // Shorter, at the front: the rest moves up.
    tf_ReadRecord(tf.get(), &r);
    const TFREC shorter = makeRecord(1100, 8, 0);
    tf_OverwriteRecord(tf.get(), &shorter);
    // Same length, at the end: written in place.
    tf_ReadRecord(tf.get(), &r);
    tf_ReadRecord(tf.get(), &r);
    const TFREC same = makeRecord(15000, 28, 'C');
    tf_OverwriteRecord(tf.get(), &same);
    EXPECT_EQ(tf_ReadRecord(tf.get(), &r), 0);
    EXPECT_EQ(recordsOf(tf.get()),
              (std::vector<std::string>{bytesOf(shorter), bytesOf(longer), bytesOf(same)}));

    // recordsOf rewound the file: nothing was read since.
    EXPECT_EQ(escapeOf([&] { tf_OverwriteRecord(tf.get(), &same); }).reason, ER_STORE_NO_RECORD);
}

TEST(MessageFile, FieldWritesThatWouldPassTheRecordEscapeAndChangeNothing) {
    TFREC r;
    tf_InitRecord(&r, 11100);
    EXPECT_EQ(tf_GetLength(&r), 8u);
    tf_PutINT32(&r, TF_RECORD_MAX - 4, 0xA1B2C3D4);
    EXPECT_EQ(tf_GetLength(&r), TF_RECORD_MAX);
    EXPECT_EQ(tf_GetINT32(&r, TF_RECORD_MAX - 4), 0xA1B2C3D4u);
    const std::string before = bytesOf(r);

    const struct {
        const char* what;
        std::function<void()> write;
    } cases[] = {
        {"INT32 one byte over", [&] { tf_PutINT32(&r, TF_RECORD_MAX - 3, 1); }},
        {"INT16 one byte over", [&] { tf_PutINT16(&r, TF_RECORD_MAX - 1, 1); }},
        {"offset that would wrap", [&] { tf_PutINT32(&r, 0xFFFFFFFE, 1); }},
        {"string whose NUL passes", [&] { tf_PutString(&r, TF_RECORD_MAX - 3, nullptr, "abc"); }},
        {"read one byte over", [&] { tf_GetINT32(&r, TF_RECORD_MAX - 3); }},
    };
    for (const auto& c : cases) {
        const Escape e = escapeOf(c.write);
        EXPECT_EQ(e.group, ER_GROUP_TNEF) << c.what;
        EXPECT_EQ(e.reason, ER_TNEF_TOO_LONG) << c.what;
        EXPECT_EQ(bytesOf(r), before) << c.what;
    }
    // The largest text that fits ends exactly at the last byte.
    tf_InitRecord(&r, 11100);
    const std::string text(TF_RECORD_MAX - 16 - 1, 'x');
    uint32_t next = 0;
    tf_PutString(&r, 16, &next, text.c_str());
    EXPECT_EQ(next, TF_RECORD_MAX);
    EXPECT_EQ(tf_GetLength(&r), TF_RECORD_MAX);
}

TEST(MessageFile, DamagedFilesEscapeNamingTheFileAfterTheGoodRecords) {
    TestHome home;
    const std::string good = le32(12) + le32(1100) + le32(7);
    const struct {
        const char* what;
        std::string bytes;
    } cases[] = {
        {"header cut short", good + "\x10\x00\x00"},
        {"length below the header", good + le32(7) + le32(1100)},
        {"length zero", good + le32(0) + le32(1100)},
        {"length past 4080", good + le32(4081) + le32(1100) + std::string(4073, 'x')},
        {"body cut short", good + le32(40) + le32(1100) + "abc"},
    };
    for (const auto& c : cases) {
        const ItemRef ref = fileHolding(c.bytes);
        const int fds = openFdCount();
        {
            TfFileOwner tf(tf_OpenFile(ref, TF_OPEN_READONLY));
            TFREC r;
            ASSERT_EQ(tf_ReadRecord(tf.get(), &r), 1) << c.what;
            EXPECT_EQ(tf_GetINT32(&r, 8), 7u) << c.what;
            const Escape e = escapeOf([&] { tf_ReadRecord(tf.get(), &r); });
            EXPECT_EQ(e.group, ER_GROUP_STORE) << c.what;
            EXPECT_EQ(e.reason, ER_STORE_CORRUPT) << c.what;
            EXPECT_NE(std::string(e.what()).find(im_ItemRef2FName(ref)), std::string::npos)
                << c.what << ": " << e.what();
            EXPECT_NE(std::string(e.what()).find("offset 12"), std::string::npos) << e.what();
        }
        EXPECT_EQ(openFdCount(), fds) << c.what;
    }
}

TEST(MessageFile, TextsAreBoundedByTheRecordAndByTheCallersBuffer) {
    TFREC r;
    tf_InitRecord(&r, 15000);
    uint32_t next = 0;
    tf_PutString(&r, 24, &next, "joe@node");
    tf_PutString(&r, next, &next, nullptr);
    tf_PutString(&r, next, &next, "third");
    EXPECT_EQ(next, 24u + 9 + 1 + 6);

    char buffer[9];
    uint32_t at = 0;
    EXPECT_EQ(tf_GetString(&r, 24, &at, buffer, sizeof buffer), 8u) << "exact fit, NUL included";
    EXPECT_STREQ(buffer, "joe@node");
    EXPECT_STREQ(tf_GetStrPtr(&r, at, &at), "");
    EXPECT_STREQ(tf_GetStrPtr(&r, at, &at), "third");
    EXPECT_EQ(at, next);
    const Escape small = escapeOf([&] { tf_GetString(&r, 24, &at, buffer, 8); });
    EXPECT_EQ(small.reason, ER_TNEF_TOO_LONG);

    // A text that runs to the very end of the record without its NUL.
    std::memset(r.bytes + 16, 'z', TF_RECORD_MAX - 16);
    EXPECT_EQ(escapeOf([&] { tf_GetStrPtr(&r, 16, &at); }).reason, ER_STORE_CORRUPT);
    char big[TF_RECORD_MAX];
    EXPECT_EQ(escapeOf([&] { tf_GetString(&r, 16, &at, big, sizeof big); }).reason,
              ER_STORE_CORRUPT);
    EXPECT_EQ(escapeOf([&] { tf_GetStrPtr(&r, TF_RECORD_MAX, &at); }).reason, ER_STORE_CORRUPT);
}

TEST(MessageFile, ClosedHandlesAreRefusedAndOwnersLeakNothingWhenAnEscapePasses) {
    TestHome home;
    const int fds = openFdCount();
    const int handles = tf_OpenHandleCount();
    const int16_t stale = tf_CreateFile();
    tf_CloseFile(stale);
    EXPECT_EQ(escapeOf([&] { tf_CloseFile(stale); }).reason, ER_STORE_BAD_HANDLE);
    // Open and close until the stale handle's slot is taken again.
    int16_t reuse = 0;
    ItemRef ref;
    OsFd(im_CrNewTempItem(&ref)).close();
    for (int i = 0; i < 1100 && (reuse == 0 || (reuse & 1023) != (stale & 1023)); ++i) {
        if (reuse != 0) tf_CloseFile(reuse);
        reuse = tf_OpenFile(ref, TF_OPEN_READONLY);
    }
    ASSERT_EQ(reuse & 1023, stale & 1023);
    EXPECT_NE(reuse, stale);
    TFREC r;
    EXPECT_EQ(escapeOf([&] { tf_ReadRecord(stale, &r); }).reason, ER_STORE_BAD_HANDLE);
    tf_CloseFile(reuse);
    EXPECT_EQ(escapeOf([&] { tf_ReadRecord(0, &r); }).reason, ER_STORE_BAD_HANDLE);

    // A file that is only kept when the work succeeds: the escape takes handle, descriptor
    // and item away.
    ItemRef discarded;
    try {
        TfFileOwner tf(tf_CreateFile());
        tf.discardItem();
        tf_GetRef(tf.get(), &discarded);
        const TFREC big = makeRecord(1100, 100, 1);
        tf_AppendRecord(tf.get(), &big);
        tf_PutINT32(&r, 5000, 1);
    } catch (const Escape&) {
    }
    EXPECT_EQ(tf_OpenHandleCount(), handles);
    EXPECT_EQ(openFdCount(), fds);
    EXPECT_FALSE(os_fexists(im_ItemRef2FName(discarded).c_str()));
}

TEST(MessageFile, AFailedAppendLeavesTheFileAsItWas) {
    TestHome home;
    TfFileOwner tf(tf_CreateFile());
    const TFREC first = makeRecord(1100, 40, 1);
    tf_AppendRecord(tf.get(), &first);
    const TFREC second = makeRecord(11100, 3000, 2);
    {
        storecheck::FailingWrites full(1);
        const Escape e = escapeOf([&] { tf_AppendRecord(tf.get(), &second); });
        EXPECT_EQ(e.group, ER_GROUP_IO);
        EXPECT_EQ(e.reason, ENOSPC);
    }
    EXPECT_EQ(recordsOf(tf.get()), std::vector<std::string>{bytesOf(first)});
    TFREC bad = makeRecord(1100, 40, 1);
    bad.bytes[0] = 3;
    EXPECT_EQ(escapeOf([&] { tf_AppendRecord(tf.get(), &bad); }).reason, ER_STORE_CORRUPT)
        << "a record with a broken length is refused before it reaches the file";
}

TEST(MessageFile, RecordBuildersLayOutTheirFields) {
    TFREC r;
    tf_MakeSubjectRec(&r, 11100, "Hello", nullptr, 1, 2, 3, 4);
    EXPECT_EQ(tf_GetType(&r), 11100u);
    uint32_t next = 0;
    EXPECT_STREQ(tf_GetStrPtr(&r, 16, &next), "Hello");
    EXPECT_STREQ(tf_GetStrPtr(&r, next, &next), "");
    EXPECT_EQ(next, 23u);
    EXPECT_EQ(tf_GetINT32(&r, 24), 1u) << "numbers start at the next multiple of 4";
    EXPECT_EQ(tf_GetINT32(&r, 36), 4u);
    EXPECT_EQ(tf_GetLength(&r), 40u);

    tf_MakeStartPkgRec(&r, 1, "Sub", "", "", 0, 0, 3, -100, 0);
    EXPECT_EQ(tf_GetType(&r), TFREC_START_PACKAGE);
    EXPECT_EQ(tf_GetINT32(&r, 16), 1u);
    EXPECT_EQ(tf_GetINT32(&r, 28), 3u);
    EXPECT_EQ(static_cast<int32_t>(tf_GetINT32(&r, 32)), -100);
    EXPECT_STREQ(tf_GetStrPtr(&r, 40, nullptr), "Sub");

    TFREC_content_file d;
    tf_initTFREC_content_file(&d, 0x12345 /* only the low 16 bits are kept */);
    d.flags = TF_CONTENT_NOT_COUNTED;
    d.size = 77;
    d.partName = "a.txt";
    d.fileName = "long name.txt";
    tf_ContentFileRecFromStruc(&r, &d);
    EXPECT_EQ(tf_GetType(&r), TFREC_CONTENT_FILE);
    EXPECT_EQ(tf_GetINT32(&r, 20), 0x2345u);
    EXPECT_EQ(tf_GetINT32(&r, 24), 1u);
    EXPECT_EQ(tf_GetINT32(&r, 28), 77u);
    EXPECT_STREQ(tf_GetStrPtr(&r, 36, &next), "a.txt");
    EXPECT_STREQ(tf_GetStrPtr(&r, next, &next), "long name.txt");
    EXPECT_STREQ(tf_GetStrPtr(&r, next, &next), "");
    EXPECT_EQ(tf_GetLength(&r) % 4, 0u);
    d.extraText.assign(4080, 'x');
    EXPECT_EQ(escapeOf([&] { tf_ContentFileRecFromStruc(&r, &d); }).reason, ER_TNEF_TOO_LONG);

    tf_InitRecord(&r, 1100);
    tf_PutINT16(&r, 16, 3);  // length 18
    r.bytes[18] = 0x77;      // junk past the length must not survive wrapping
    TFREC wrapped;
    tf_WrapRecord(&r, &wrapped);
    EXPECT_EQ(tf_GetLength(&wrapped), 20u);
    EXPECT_EQ(wrapped.bytes[18], 0);
}

TEST(MessageFile, GroupsFollowTheRangesOfRecordTypes) {
    const std::pair<uint32_t, int> cases[] = {
        {999, 0},   {1000, 1},  {1100, 1},  {1999, 1},  {2000, 0},  {10000, 2}, {10999, 2},
        {11000, 3}, {14999, 3}, {15000, 4}, {18999, 4}, {19000, 5}, {19999, 5}, {20000, 0},
        {21999, 0}, {22000, 4}, {22999, 4}, {23000, 0}, {30000, 6}, {39999, 6}, {40000, 7},
        {49999, 7}, {50000, 0},
    };
    for (const auto& [type, group] : cases) EXPECT_EQ(tf_WhichGroup(type), group) << type;
}
