#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>
#include <memory>
#include <string>

#include "support/store_checks.h"
#include "support/test_home.h"
#include "tnef/platform/dstring.h"
#include "tnef/platform/im_items.h"
#include "tnef/platform/mp_stored.h"
#include "tnef/platform/os_file.h"
#include "tnef/platform/tf_msgfile.h"

using namespace storecheck;

namespace {

dstring textOf(const std::string& bytes) {
    dstring d;
    dstring_init(&d);
    dstring_appendN(&d, bytes.data(), bytes.size());
    return d;
}

// Reads the next pair back as the encoder does, into a caller's buffer far too small.
std::string readBack(int16_t tf, uint32_t* flags) {
    TFREC head, data;
    tf_ReadRecord(tf, &head);
    tf_ReadRecord(tf, &data);
    char* buffer = static_cast<char*>(os_malloc(2));
    // The buffer stays the caller's whatever happens, an escape included.
    std::unique_ptr<char*, void (*)(char**)> owner(&buffer, [](char** b) { os_free(*b); });
    uint32_t length = tf_GetINT32(&head, 28);
    mp_BuildMAPIProps(tf, &data, tf_GetType(&head) + 10, &buffer, &length, flags);
    EXPECT_EQ(buffer[length], '\0') << "the text is NUL-terminated for the reader";
    return std::string(buffer, length);
}

}  // namespace

TEST(StoredObject, OutlivesTheDecodersUnlinkAndIsNeverCopied) {
    TestHome home;
    TfFileOwner tf(tf_CreateFile());
    const std::string content(50000, 'o');
    ItemRef object;
    os_write(OsFd(im_CrNewDataItem(nullptr, &object)).get(), content.data(), 50000);
    struct stat original, kept;
    ::stat(im_ItemRef2FName(object).c_str(), &original);
    mp_PutObjectFile(MP_OBJECT_PROPERTIES, object, tf.get(), 1, 0);
    im_UnlinkItem(object);

    const TFREC r = recordsOf(tf.get()).at(0);
    EXPECT_EQ(tf_GetINT32(&r, 16), content.size());
    OsFd fd(mp_BuildObjectFile(tf.get(), &r, 0, MP_OBJECT_PROPERTIES, 1));
    ::fstat(fd.get(), &kept);
    EXPECT_EQ(kept.st_ino, original.st_ino) << "the object was copied instead of linked";
    std::string read(content.size(), '\0');
    EXPECT_EQ(os_read(fd.get(), read.data(), 50001), 50000);
    EXPECT_EQ(read, content);
    EXPECT_EQ(escapeOf([&] { mp_BuildObjectFile(tf.get(), &r, 0, "Other", 1); }).reason,
              ER_STORE_NO_OBJECT);

    // Storing an item that is gone changes nothing.
    EXPECT_EQ(escapeOf([&] { mp_PutObjectFile(MP_OBJECT_PROPERTIES, object, tf.get(), 1, 0); }).reason,
              ENOENT);
    EXPECT_EQ(typesOf(tf.get()), std::vector<uint32_t>{TFREC_OBJECT});
    EXPECT_EQ(filesIn(home.file("store/objects")).size(), 1u);
}

TEST(StoredTexts, SurviveByteForByteAtEveryLength) {
    TestHome home;
    std::string megabytes;
    while (megabytes.size() < 3 * 1024 * 1024) megabytes += static_cast<char>(megabytes.size() * 7);
    const std::string texts[] = {"", std::string("\0", 1),
                                 std::string(MP_INLINE_TEXT_MAX, 'i'),      // longest inline
                                 std::string(MP_INLINE_TEXT_MAX + 1, 'x'),  // shortest kept apart
                                 megabytes};
    TfFileOwner tf(tf_CreateFile());
    for (const std::string& t : texts) {
        dstring d = textOf(t);
        mp_PutMAPIPropsData(1, 0, &d, tf.get(), 1, 0, 0);
        mp_PutMAPIPropsData(2, 0, &d, tf.get(), 1, 1, 1);
    }
    tf_UnreadFile(tf.get());
    for (const std::string& t : texts) {
        uint32_t flags = 0;
        EXPECT_EQ(readBack(tf.get(), &flags), t) << t.size() << " bytes";
        EXPECT_EQ(flags, 1u);
        EXPECT_EQ(readBack(tf.get(), &flags), t) << t.size() << " bytes";
        EXPECT_EQ(flags, 2u);
    }
    EXPECT_EQ(filesIn(home.file("store/objects")).size(), 4u) << "two long texts, twice each";
}

TEST(StoredTexts, AreStoredWholeOrNotAtAllAndDamageIsNamed) {
    TestHome home;
    TfFileOwner tf(tf_CreateFile());
    dstring text = textOf(std::string(10000, 'x'));
    EXPECT_EQ(escapeOf([&] { mp_PutMAPIPropsData(1, 0, &text, tf.get(), 0, 0, 0); }).reason,
              ER_TNEF_TOO_LONG)
        << "keep 0 allows no item of its own";
    {
        // Item written (write 1), first record appended (2), its data record fails (3).
        FailingWrites full(3);
        EXPECT_EQ(escapeOf([&] { mp_PutMAPIPropsData(1, 0, &text, tf.get(), 1, 0, 0); }).reason, ENOSPC);
    }
    EXPECT_TRUE(recordsOf(tf.get()).empty());
    EXPECT_TRUE(filesIn(home.file("store/objects")).empty());

    // A kept text that lost its tail is an escape naming it, never a read past it.
    mp_PutMAPIPropsData(1, 0, &text, tf.get(), 1, 0, 0);
    const std::string item = home.file("store/objects/" + filesIn(home.file("store/objects"))[0]);
    ASSERT_EQ(::truncate(item.c_str(), 5000), 0);
    const Escape e = escapeOf([&] {
        uint32_t flags;
        readBack(tf.get(), &flags);
    });
    EXPECT_EQ(e.reason, ER_STORE_CORRUPT);
    EXPECT_NE(std::string(e.what()).find(item), std::string::npos);
}

TEST(PropsOrigin, IsTheValueOfTheFirstEntryWhoseIdBeginsWithC) {
    const std::pair<const char*, const char*> cases[] = {
        {"37001e\x1dHi\x1e", nullptr},  // as the decoder writes
        {"37001e\x1dHi\x1e" "CORIGIN\x1dsmtp\x1e", "smtp"},
        {"CORIGIN\x1dsmtp", "smtp"},                  // no closing separator
        {"CORIGIN\x1dgw\x1b\x40x\x1e", "gw"},         // an escaped NUL ends it
        {"c17000b\x1d" "1\x1e", nullptr},             // a lower-case tag is a tag
        {"GUID\x1d" "C\x1e", nullptr},                // a value beginning with C
        {"CA\x1d" "first\x1dsecond\x1e" "CB\x1dthird\x1e", "first"},
    };
    for (const auto& [text, expected] : cases) {
        char* origin = mapi_GetMapiPropsOrigin(text);
        EXPECT_STREQ(origin, expected) << text;
        os_free(origin);
    }
}
