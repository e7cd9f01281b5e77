#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "support/store_checks.h"
#include "support/test_home.h"
#include "tnef/platform/dstring.h"
#include "tnef/platform/er_escape.h"
#include "tnef/platform/im_items.h"
#include "tnef/platform/mp_stored.h"
#include "tnef/platform/os_file.h"
#include "tnef/platform/tf_msgfile.h"

using storecheck::filesIn;
using storecheck::recordsOf;
using storecheck::typesOf;

namespace {

ItemRef dataItem(const std::string& bytes) {
    ItemRef ref;
    OsFd fd(im_CrNewDataItem(nullptr, &ref));
    os_write(fd.get(), bytes.data(), static_cast<int64_t>(bytes.size()));
    return ref;
}

std::string readFd(int fd) {
    std::string out;
    char chunk[4096];
    for (int64_t n; (n = os_read(fd, chunk, sizeof chunk)) > 0;) out.append(chunk, static_cast<size_t>(n));
    return out;
}

dstring textOf(const std::string& bytes) {
    dstring d;
    dstring_init(&d);
    dstring_appendN(&d, bytes.data(), bytes.size());
    return d;
}

// Reads the next pair back as the encoder does: the announcing record, then its data record.
std::string readBack(int16_t tf, uint32_t headType, uint32_t* flags) {
    TFREC head, data;
    EXPECT_EQ(tf_ReadRecord(tf, &head), 1);
    EXPECT_EQ(tf_GetType(&head), headType);
    EXPECT_EQ(tf_ReadRecord(tf, &data), 1);
    // A buffer of the caller's that is far too small: it must be grown, not overrun.
    char* buffer = static_cast<char*>(os_malloc(2));
    uint32_t length = tf_GetINT32(&head, 28);
    EXPECT_EQ(mp_BuildMAPIProps(tf, &data, headType + 10, &buffer, &length, flags), 1);
    EXPECT_EQ(buffer[length], '\0') << "the text is NUL-terminated for the reader";
    std::string text(buffer, length);
    os_free(buffer);
    return text;
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

}  // namespace

TEST(StoredObject, OutlivesTheDecodersUnlinkAndIsNeverCopied) {
    TestHome home;
    TfFileOwner tf(tf_CreateFile());
    const std::string content = std::string("\x78\x9f\x3e\x22", 4) + std::string(50000, 'o');
    const ItemRef object = dataItem(content);
    struct stat original;
    ASSERT_EQ(::stat(im_ItemRef2FName(object).c_str(), &original), 0);

    mp_PutObjectFile(MP_OBJECT_PROPERTIES, object, tf.get(), 1, 0);
    im_UnlinkItem(object);

    TFREC r;
    tf_UnreadFile(tf.get());
    ASSERT_EQ(tf_ReadRecord(tf.get(), &r), 1);
    EXPECT_EQ(tf_GetType(&r), TFREC_OBJECT);
    EXPECT_EQ(tf_GetINT32(&r, 16), content.size());
    EXPECT_STREQ(tf_GetStrPtr(&r, 24, nullptr), MP_OBJECT_PROPERTIES);
    OsFd fd(mp_BuildObjectFile(tf.get(), &r, 0, MP_OBJECT_PROPERTIES, 1));
    struct stat kept;
    ASSERT_EQ(::fstat(fd.get(), &kept), 0);
    EXPECT_EQ(kept.st_ino, original.st_ino) << "the object was copied instead of linked";
    EXPECT_EQ(readFd(fd.get()), content);
    EXPECT_EQ(filesIn(home.file("store/objects")).size(), 1u);

    // The name must match, and so must the record type.
    EXPECT_EQ(escapeOf([&] { mp_BuildObjectFile(tf.get(), &r, 0, "Other", 1); }).reason,
              ER_STORE_NO_OBJECT);
    TFREC subject;
    tf_MakeSubjectRec(&subject, TFREC_SUBJECT, MP_OBJECT_PROPERTIES, "", 0, 0, 0, 0);
    EXPECT_EQ(escapeOf([&] { mp_BuildObjectFile(tf.get(), &subject, 0, MP_OBJECT_PROPERTIES, 1); })
                  .reason,
              ER_STORE_NO_OBJECT);

    // Storing an item that is gone changes nothing.
    const Escape gone = escapeOf([&] { mp_PutObjectFile(MP_OBJECT_PROPERTIES, object, tf.get(), 1, 0); });
    EXPECT_EQ(gone.group, ER_GROUP_IO);
    EXPECT_EQ(gone.reason, ENOENT);
    EXPECT_EQ(typesOf(tf.get()), std::vector<uint32_t>{TFREC_OBJECT});
    EXPECT_EQ(filesIn(home.file("store/objects")).size(), 1u);
}

TEST(StoredTexts, SurviveByteForByteAtEveryLength) {
    TestHome home;
    std::string every;
    for (int i = 0; i < 256; ++i) every += static_cast<char>(i);
    std::string megabytes;
    while (megabytes.size() < 3 * 1024 * 1024) megabytes += every;
    const std::string texts[] = {
        "",
        std::string("\0", 1),
        std::string(MP_INLINE_TEXT_MAX, 'i'),      // the longest text kept in its record
        std::string(MP_INLINE_TEXT_MAX + 1, 'x'),  // the shortest kept apart
        megabytes,
    };
    TfFileOwner tf(tf_CreateFile());
    for (const std::string& t : texts) {
        dstring d = textOf(t);
        mp_PutMAPIPropsData(1, 0, &d, tf.get(), 1, 0, 0);
        mp_PutMAPIPropsData(2, 0, &d, tf.get(), 1, 1, 1);
    }
    tf_UnreadFile(tf.get());
    for (const std::string& t : texts) {
        uint32_t flags = 0;
        EXPECT_EQ(readBack(tf.get(), TFREC_PROPS, &flags), t) << t.size() << " bytes";
        EXPECT_EQ(flags, 1u);
        EXPECT_EQ(readBack(tf.get(), TFREC_PROPS2, &flags), t) << t.size() << " bytes";
        EXPECT_EQ(flags, 2u);
    }
    // The two long texts, twice each, went to items of their own.
    EXPECT_EQ(filesIn(home.file("store/objects")).size(), 4u);
    TFREC r;
    EXPECT_EQ(tf_ReadRecord(tf.get(), &r), 0);
}

TEST(StoredTexts, AreStoredWholeOrNotAtAll) {
    TestHome home;
    TfFileOwner tf(tf_CreateFile());
    dstring longText = textOf(std::string(MP_INLINE_TEXT_MAX + 1, 'x'));
    const Escape refused = escapeOf([&] { mp_PutMAPIPropsData(1, 0, &longText, tf.get(), 0, 0, 0); });
    EXPECT_EQ(refused.reason, ER_TNEF_TOO_LONG) << "keep 0 allows no item of its own";
    EXPECT_EQ(escapeOf([&] { mp_PutMAPIPropsData(1, 0, &longText, tf.get(), 1, 0, 2); }).reason,
              ER_STORE_BAD_ARGUMENT);

    // The item is written (write 1), the announcing record appended (2), its data record
    // fails (3): neither record nor item may stay.
    {
        storecheck::FailingWrites full(3);
        EXPECT_THROW(mp_PutMAPIPropsData(1, 0, &longText, tf.get(), 1, 0, 0), Escape);
    }
    EXPECT_TRUE(recordsOf(tf.get()).empty());
    EXPECT_TRUE(filesIn(home.file("store/objects")).empty());
}

TEST(StoredTexts, ReadingADamagedTextEscapesInsteadOfReadingPastIt) {
    TestHome home;
    TfFileOwner tf(tf_CreateFile());
    dstring big = textOf(std::string(10000, 'b'));
    mp_PutMAPIPropsData(1, 0, &big, tf.get(), 1, 0, 0);
    TFREC head, data;
    tf_UnreadFile(tf.get());
    tf_ReadRecord(tf.get(), &head);
    tf_ReadRecord(tf.get(), &data);
    char* buffer = nullptr;
    uint32_t length = 0;

    // The item lost its tail.
    ItemRef item;
    for (int i = 0; i < 4; ++i) item.w[i] = tf_GetINT32(&data, 28 + 4 * i);
    ASSERT_EQ(::truncate(im_ItemRef2FName(item).c_str(), 5000), 0);
    EXPECT_EQ(escapeOf([&] { mp_BuildMAPIProps(tf.get(), &data, TFREC_PROPS_DATA, &buffer, &length, nullptr); })
                  .reason,
              ER_STORE_CORRUPT);

    // An inline text that claims more than its record holds.
    TFREC inlineRec;
    tf_InitRecord(&inlineRec, TFREC_PROPS_DATA);
    tf_PutINT32(&inlineRec, 20, 200);
    tf_PutINT32(&inlineRec, 24, MP_WHERE_INLINE);
    tf_PutString(&inlineRec, 28, nullptr, "short");
    EXPECT_EQ(escapeOf([&] { mp_BuildMAPIProps(tf.get(), &inlineRec, TFREC_PROPS_DATA, &buffer, &length, nullptr); })
                  .reason,
              ER_STORE_CORRUPT);
    // A 19610 record where a 19510 one is asked for.
    tf_PutINT32(&inlineRec, 4, TFREC_PROPS2_DATA);
    EXPECT_EQ(escapeOf([&] { mp_BuildMAPIProps(tf.get(), &inlineRec, TFREC_PROPS_DATA, &buffer, &length, nullptr); })
                  .reason,
              ER_STORE_NO_OBJECT);
    os_free(buffer);
}

TEST(PropsOrigin, IsTheValueOfTheFirstEntryWhoseIdBeginsWithC) {
    const struct {
        const char* text;
        const char* origin;  // null: none
    } cases[] = {
        {"37001e\x1dHi\x1e", nullptr},                              // as the decoder writes
        {"CORIGIN\x1dmapi\x1e", "mapi"},
        {"37001e\x1dHi\x1e" "CORIGIN\x1dsmtp\x1e", "smtp"},         // not first
        {"CORIGIN\x1dsmtp", "smtp"},                                // no closing separator
        {"CORIGIN\x1dgw\x1b\x40x\x1e", "gw"},                       // an escaped NUL ends it
        {"c17000b\x1d" "1\x1e", nullptr},                           // a lower-case tag is a tag
        {"GUID\x1d" "C\x1e", nullptr},                              // a value beginning with C
        {"CA\x1d" "first\x1dsecond\x1e" "CB\x1dthird\x1e", "first"},
        {"", nullptr},
    };
    for (const auto& c : cases) {
        char* origin = mapi_GetMapiPropsOrigin(c.text);
        if (c.origin == nullptr) {
            EXPECT_EQ(origin, nullptr) << c.text;
        } else {
            ASSERT_NE(origin, nullptr) << c.text;
            EXPECT_STREQ(origin, c.origin);
        }
        os_free(origin);
    }
    EXPECT_EQ(mapi_GetMapiPropsOrigin(nullptr), nullptr);
}
