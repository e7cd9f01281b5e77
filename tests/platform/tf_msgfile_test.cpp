#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "support/store_checks.h"
#include "support/test_home.h"
#include "tnef/platform/im_items.h"
#include "tnef/platform/os_file.h"
#include "tnef/platform/tf_msgfile.h"

using namespace storecheck;

namespace {

std::vector<std::string> bytesOfAll(int16_t tf) {
    std::vector<std::string> out;
    for (const TFREC& r : recordsOf(tf)) out.push_back(bytesOf(r));
    return out;
}

std::string le32(uint32_t v) { return std::string{char(v), char(v >> 8), char(v >> 16), char(v >> 24)}; }

}  // namespace

TEST(MessageFile, RecordsReadBackInOrderAfterCloseAndReopen) {
    TestHome home;
    // Header only, the largest record, an odd length, a type the store does not know.
    const std::vector<TFREC> written = {makeRecord(1100, 8, 0), makeRecord(11100, TF_RECORD_MAX, 0x5A),
                                        makeRecord(30500, 37, 0xFF), makeRecord(99999, 16, 1)};
    ItemRef ref;
    {
        TfFileOwner tf(tf_CreateFile());
        for (const TFREC& r : written) tf_AppendRecord(tf.get(), &r);
        tf_GetRef(tf.get(), &ref);
    }
    EXPECT_EQ(readFileBytes(im_ItemRef2FName(ref)).size(), 8u + TF_RECORD_MAX + 37 + 16);
    TfFileOwner tf(tf_OpenFile(ref, TF_OPEN_READONLY));
    TFREC r;
    std::memset(r.bytes, 0xEE, sizeof r.bytes);
    for (const TFREC& expected : written) {
        ASSERT_EQ(tf_ReadRecord(tf.get(), &r), 1);
        EXPECT_EQ(bytesOf(r), bytesOf(expected));
        EXPECT_EQ(r.bytes[TF_RECORD_MAX - 1], tf_GetLength(&r) == TF_RECORD_MAX ? 0x5A : 0)
            << "bytes past a record are zero, not left from the previous read";
    }
    EXPECT_EQ(tf_ReadRecord(tf.get(), &r), 0);
    EXPECT_EQ(tf_ReadRecord(tf.get(), &r), 0) << "the end stays the end";
}

TEST(MessageFile, OverwriteReplacesExactlyTheRecordLastRead) {
    TestHome home;
    TfFileOwner tf(tf_CreateFile());
    const TFREC a = makeRecord(1100, 20, 'a'), b = makeRecord(11100, 24, 'b'),
                c = makeRecord(15000, 28, 'c'), longer = makeRecord(11100, 100, 'B'),
                shorter = makeRecord(1100, 8, 0), same = makeRecord(15000, 28, 'C');
    for (const TFREC* r : {&a, &b, &c}) tf_AppendRecord(tf.get(), r);
    TFREC r;
    tf_ReadRecord(tf.get(), &r);
    tf_ReadRecord(tf.get(), &r);
    tf_OverwriteRecord(tf.get(), &longer);  // in the middle: the rest moves down
    ASSERT_EQ(tf_ReadRecord(tf.get(), &r), 1);
    EXPECT_EQ(bytesOf(r), bytesOf(c)) << "reading goes on after the new record";
    EXPECT_EQ(bytesOfAll(tf.get()), (std::vector<std::string>{bytesOf(a), bytesOf(longer), bytesOf(c)}));

    tf_ReadRecord(tf.get(), &r);
    tf_OverwriteRecord(tf.get(), &shorter);  // at the front: the rest moves up
    tf_ReadRecord(tf.get(), &r);
    tf_ReadRecord(tf.get(), &r);
    tf_OverwriteRecord(tf.get(), &same);  // at the end, same length: in place
    EXPECT_EQ(tf_ReadRecord(tf.get(), &r), 0);
    EXPECT_EQ(bytesOfAll(tf.get()),
              (std::vector<std::string>{bytesOf(shorter), bytesOf(longer), bytesOf(same)}));
    // bytesOfAll rewound the file: nothing was read since.
    EXPECT_EQ(escapeOf([&] { tf_OverwriteRecord(tf.get(), &same); }).reason, ER_STORE_NO_RECORD);
}

TEST(MessageFile, FieldsThatWouldPassTheRecordEscapeAndChangeNothing) {
    TFREC r;
    tf_InitRecord(&r, 11100);
    tf_PutINT32(&r, TF_RECORD_MAX - 4, 0xA1B2C3D4);
    EXPECT_EQ(tf_GetLength(&r), TF_RECORD_MAX);
    char buffer[9];
    const std::function<void()> overflows[] = {
        [&] { tf_PutINT32(&r, TF_RECORD_MAX - 3, 1); },
        [&] { tf_PutINT16(&r, TF_RECORD_MAX - 1, 1); },
        [&] { tf_PutINT32(&r, 0xFFFFFFFE, 1); },  // an offset that would wrap
        [&] { tf_PutString(&r, TF_RECORD_MAX - 3, nullptr, "abc"); },
        [&] { tf_GetINT32(&r, TF_RECORD_MAX - 3); },
        [&] { tf_GetString(&r, 16, nullptr, buffer, 8); },  // "joe@node" needs 9 bytes
    };
    tf_PutString(&r, 16, nullptr, "joe@node");
    const std::string withText = bytesOf(r);
    for (size_t i = 0; i < std::size(overflows); ++i) {
        const Escape e = escapeOf(overflows[i]);
        EXPECT_EQ(e.group, ER_GROUP_TNEF) << "case " << i;
        EXPECT_EQ(e.reason, ER_TNEF_TOO_LONG) << "case " << i;
        EXPECT_EQ(bytesOf(r), withText) << "case " << i;
    }
    EXPECT_EQ(tf_GetString(&r, 16, nullptr, buffer, 9), 8u) << "an exact fit, NUL included";
    // A text without its NUL up to the record's end is damage, not an overflow.
    std::memset(r.bytes + 16, 'z', TF_RECORD_MAX - 16);
    EXPECT_EQ(escapeOf([&] { tf_GetStrPtr(&r, 16, nullptr); }).reason, ER_STORE_CORRUPT);
}

TEST(MessageFile, DamagedFilesEscapeNamingTheFileAfterTheGoodRecords) {
    TestHome home;
    const std::string good = le32(12) + le32(1100) + le32(7);
    const std::string damaged[] = {
        good + std::string("\x10\x00\x00", 3),                    // header cut short
        good + le32(7) + le32(1100),                               // length below the header
        good + le32(0) + le32(1100),                               // length zero
        good + le32(TF_RECORD_MAX + 1) + le32(1100) + std::string(TF_RECORD_MAX - 7, 'x'),  // too long
        good + le32(40) + le32(1100) + "abc",                      // body cut short
    };
    for (const std::string& bytes : damaged) {
        ItemRef ref;
        os_write(OsFd(im_CrNewTempItem(&ref)).get(), bytes.data(), static_cast<int64_t>(bytes.size()));
        const int fds = openFdCount();
        {
            TfFileOwner tf(tf_OpenFile(ref, TF_OPEN_READONLY));
            TFREC r;
            ASSERT_EQ(tf_ReadRecord(tf.get(), &r), 1);
            const Escape e = escapeOf([&] { tf_ReadRecord(tf.get(), &r); });
            EXPECT_EQ(e.reason, ER_STORE_CORRUPT);
            EXPECT_NE(std::string(e.what()).find(im_ItemRef2FName(ref) + ": "), std::string::npos);
            EXPECT_NE(std::string(e.what()).find("offset 12"), std::string::npos) << e.what();
        }
        EXPECT_EQ(openFdCount(), fds);
    }
}

TEST(MessageFile, ClosedHandlesAreRefusedAndOwnersLeakNothingWhenAnEscapePasses) {
    TestHome home;
    const int fds = openFdCount();
    const int16_t stale = tf_CreateFile();
    tf_CloseFile(stale);
    ItemRef ref;
    OsFd(im_CrNewTempItem(&ref)).close();
    int16_t reuse = 0;  // open and close until the stale handle's slot is taken again
    for (int i = 0; i < 1100 && (reuse == 0 || (reuse & 1023) != (stale & 1023)); ++i) {
        if (reuse != 0) tf_CloseFile(reuse);
        reuse = tf_OpenFile(ref, TF_OPEN_READONLY);
    }
    ASSERT_EQ(reuse & 1023, stale & 1023);
    TFREC r;
    EXPECT_EQ(escapeOf([&] { tf_ReadRecord(stale, &r); }).reason, ER_STORE_BAD_HANDLE);
    tf_CloseFile(reuse);

    ItemRef discarded;
    escapeOf([&] {
        TfFileOwner tf(tf_CreateFile());
        tf.discardItem();
        tf_GetRef(tf.get(), &discarded);
        tf_PutINT32(&r, TF_RECORD_MAX, 1);
    });
    EXPECT_EQ(tf_OpenHandleCount(), 0);
    EXPECT_EQ(openFdCount(), fds);
    EXPECT_FALSE(os_fexists(im_ItemRef2FName(discarded).c_str()));
}

TEST(MessageFile, AFailedAppendLeavesTheFileAsItWas) {
    TestHome home;
    TfFileOwner tf(tf_CreateFile());
    const TFREC first = makeRecord(1100, 40, 1), second = makeRecord(11100, 3000, 2);
    tf_AppendRecord(tf.get(), &first);
    {
        FailingWrites full(1);
        EXPECT_EQ(escapeOf([&] { tf_AppendRecord(tf.get(), &second); }).reason, ENOSPC);
    }
    EXPECT_EQ(bytesOfAll(tf.get()), std::vector<std::string>{bytesOf(first)});
}

// Inside a batch appended records wait and go in one write; whatever reads the file, by
// handle or by name, and the end of the batch find them there.
TEST(MessageFile, RecordsAppendedInABatchReachTheFile) {
    TestHome home;
    TfFileOwner tf(tf_CreateFile());
    const TFREC first = makeRecord(1100, 40, 1), second = makeRecord(11100, 3000, 2);
    const std::string path = tf_GetFileName(tf.get());
    {
        OsIoBatch batch;
        tf_AppendRecord(tf.get(), &first);
        tf_AppendRecord(tf.get(), &second);
        EXPECT_EQ(std::filesystem::file_size(tf_GetFileName(tf.get())), 3040u);
        EXPECT_EQ(bytesOfAll(tf.get()), (std::vector<std::string>{bytesOf(first), bytesOf(second)}));
        tf_AppendRecord(tf.get(), &first);
    }
    EXPECT_EQ(std::filesystem::file_size(path), 3080u);  // the handle is still open
}

TEST(MessageFile, AFailedWriteOfWaitingRecordsTakesThemAllBack) {
    TestHome home;
    TfFileOwner tf(tf_CreateFile());
    const TFREC first = makeRecord(1100, 40, 1), second = makeRecord(11100, 3000, 2);
    tf_AppendRecord(tf.get(), &first);
    {
        OsIoBatch batch;
        tf_AppendRecord(tf.get(), &second);
        tf_AppendRecord(tf.get(), &second);
        // The disk fills half way through the write.
        static bool wrote;
        wrote = false;
        OsSysCalls calls = os_GetSysCalls();
        calls.write = [](int fd, const void* buffer, size_t count) -> ssize_t {
            if (!wrote) {
                wrote = true;
                return ::write(fd, buffer, count / 2);
            }
            errno = ENOSPC;
            return -1;
        };
        os_SetSysCalls(&calls);
        EXPECT_EQ(escapeOf([&] { tf_UnreadFile(tf.get()); }).reason, ENOSPC);
        os_SetSysCalls(nullptr);
        EXPECT_TRUE(wrote);
    }
    EXPECT_EQ(bytesOfAll(tf.get()), std::vector<std::string>{bytesOf(first)});
}
