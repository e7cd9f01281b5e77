#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "support/store_checks.h"
#include "support/test_home.h"
#include "tnef/platform/cust_flags.h"
#include "tnef/platform/dstring.h"
#include "tnef/platform/er_escape.h"
#include "tnef/platform/im_items.h"
#include "tnef/platform/mp_stored.h"
#include "tnef/platform/os_file.h"
#include "tnef/platform/tf_msgfile.h"
#include "tnef/tnef.h"
#include "tnef_decode/tnef_update.h"

using storecheck::filesIn;
using storecheck::recordsOf;
using storecheck::typesOf;

namespace {

// What a parse collected; the defaults are "the stream had none".
struct Collected {
    std::string messageClass;
    uint16_t priority = 0xFFFF;
    std::string subject;
    uint32_t importance = 0xFFFFFFFF;
    uint32_t sensitivity = 0xFFFFFFFF;
    uint32_t deferred = 0;
    uint16_t deferredCompanion = 0;
    uint32_t expiry = 0;
    uint16_t expiryCompanion = 0;
    uint32_t addressUpdate = 0;
    uint32_t autoForwarded = 0;
    uint32_t recurrence = 0;
    std::string mainText = "37001e\x1dHi\x1e";
    std::string secondaryText = "63000b\x1d" "1\x1e";
};

TFREC record(uint32_t type) {
    TFREC r;
    tf_InitRecord(&r, type);
    return r;
}

TFREC withTexts(uint32_t type, uint32_t offset, const std::vector<std::string>& texts,
                uint32_t flagsAt20 = 0) {
    TFREC r = record(type);
    if (type == TFREC_RECIPIENT) tf_PutINT32(&r, 20, flagsAt20);
    for (const std::string& t : texts) tf_PutString(&r, offset, &offset, t.c_str());
    return r;
}

TFREC headerRecord(uint32_t flags) {
    TFREC r = record(TFREC_HEADER);
    tf_PutINT16(&r, 16, 3);
    tf_PutINT32(&r, 24, flags);
    tf_PutINT32(&r, 28, 1);
    return r;
}

TFREC listEntry(uint32_t type, const std::vector<std::string>& texts, uint32_t flags,
                const std::string& fourth) {
    TFREC r = record(type);
    uint32_t at = 24;
    for (const std::string& t : texts) tf_PutString(&r, at, &at, t.c_str());
    tf_PutINT32(&r, at, flags);
    tf_PutString(&r, at + 4, nullptr, fourth.c_str());
    return r;
}

int16_t fileOf(const std::vector<TFREC>& records) {
    const int16_t tf = tf_CreateFile();
    for (const TFREC& r : records) tf_AppendRecord(tf, &r);
    return tf;
}

ItemRef objectFile(const std::string& bytes = "\x78\x9f\x3e\x22 object") {
    ItemRef ref;
    OsFd fd(im_CrNewDataItem(nullptr, &ref));
    os_write(fd.get(), bytes.data(), static_cast<int64_t>(bytes.size()));
    return ref;
}

dstring textOf(const std::string& bytes) {
    dstring d;
    dstring_init(&d);
    dstring_appendN(&d, bytes.data(), bytes.size());
    return d;
}

// Runs tnef_UpdateTF as the decode entry does and returns the new file's handle.
int16_t update(int16_t oldFile, const Collected& c, const ItemRef& object) {
    const dstring mainText = textOf(c.mainText), secondaryText = textOf(c.secondaryText);
    int16_t tf = oldFile;
    tnef_UpdateTF(&tf, object.w[0], object.w[1], object.w[2], object.w[3], &mainText,
                  &secondaryText, c.messageClass.c_str(), c.priority, c.subject.c_str(),
                  c.importance, c.sensitivity, c.deferred, c.deferredCompanion, c.expiry,
                  c.expiryCompanion, c.addressUpdate, c.autoForwarded, c.recurrence);
    return tf;
}

std::vector<TFREC> readAll(int16_t tf) {
    std::vector<TFREC> out;
    for (const std::string& bytes : recordsOf(tf)) {
        TFREC r;
        std::memcpy(r.bytes, bytes.data(), bytes.size());
        std::memset(r.bytes + bytes.size(), 0, TF_RECORD_MAX - bytes.size());
        out.push_back(r);
    }
    return out;
}

const TFREC& only(const std::vector<TFREC>& records, uint32_t type) {
    const auto n = std::count_if(records.begin(), records.end(),
                                 [&](const TFREC& r) { return tf_GetType(&r) == type; });
    EXPECT_EQ(n, 1) << "records of type " << type;
    return *std::find_if(records.begin(), records.end(),
                         [&](const TFREC& r) { return tf_GetType(&r) == type; });
}

std::vector<std::string> textsAt(const TFREC& r, uint32_t offset, int count) {
    std::vector<std::string> texts;
    for (int i = 0; i < count; ++i) texts.emplace_back(tf_GetStrPtr(&r, offset, &offset));
    return texts;
}

using Types = std::vector<uint32_t>;
const Types kStored = {19000, 19500, 19510, 19600, 19610};

Types concat(std::initializer_list<Types> parts) {
    Types all;
    for (const Types& p : parts) all.insert(all.end(), p.begin(), p.end());
    return all;
}

}  // namespace

TEST(MessageFileUpdate, NewRecordsGoBeforeTheFirstRecordPastTheHeaderAndAddresses) {
    TestHome home;
    const int16_t old = fileOf({headerRecord(0), withTexts(TFREC_ORIGINATOR, 36, {"a@x", "", ""}),
                                withTexts(TFREC_RECIPIENT, 24, {"b@x", "", ""}),
                                record(TFREC_CONTENT_FILE)});
    const Types oldTypes = typesOf(old);
    Collected c;
    c.subject = "Subject";
    c.messageClass = "IPM.Note";
    c.expiry = 1000;
    c.expiryCompanion = 1;
    c.deferred = 2000;
    c.deferredCompanion = 2;
    TfFileOwner tf(update(old, c, objectFile()));

    ASSERT_NE(tf.get(), old);
    EXPECT_EQ(typesOf(tf.get()),
              concat({{1100, 10000, 11100, 11200, 13700, 14100}, kStored, {15000, 30500}}));
    const auto records = readAll(tf.get());
    EXPECT_STREQ(tf_GetStrPtr(&only(records, 11100), 16, nullptr), "Subject");
    EXPECT_STREQ(tf_GetStrPtr(&only(records, 11200), 16, nullptr), "IPM.Note");
    EXPECT_EQ(tf_GetINT32(&only(records, 13700), 16), 1000u);
    EXPECT_EQ(tf_GetINT16(&only(records, 13700), 20), 1u);
    EXPECT_EQ(tf_GetINT32(&only(records, 14100), 16), 2000u);
    EXPECT_EQ(tf_GetINT16(&only(records, 14100), 20), 2u);
    EXPECT_STREQ(tf_GetStrPtr(&only(records, 19000), 24, nullptr), MP_OBJECT_PROPERTIES);

    // The caller's file is still open and as it was.
    EXPECT_EQ(typesOf(old), oldTypes);
    tf_CloseFile(old);
}

TEST(MessageFileUpdate, WithoutRecordsPastTheAddressesTheNewRecordsGoAtTheEnd) {
    TestHome home;
    Collected c;
    c.subject = "S";
    const ItemRef object = objectFile();
    TfFileOwner old(fileOf({headerRecord(0), withTexts(TFREC_ORIGINATOR, 36, {"a", "", ""}),
                            withTexts(TFREC_ENVELOPE_ADDRESS, 36, {"e", "", ""})}));
    TfFileOwner tf(update(old.get(), c, object));
    EXPECT_EQ(typesOf(tf.get()), concat({{1100, 10000, 10005, 11100}, kStored}));

    TfFileOwner empty(fileOf({}));
    TfFileOwner fromEmpty(update(empty.get(), c, object));
    EXPECT_EQ(typesOf(fromEmpty.get()), concat({{11100}, kStored}));
}

TEST(MessageFileUpdate, OnlyRecordsBeforeTheInsertionPointCountAsSeen) {
    TestHome home;
    tnefSuppressMapiData = 1;
    const ItemRef object = objectFile();
    Collected c;
    c.subject = "new";
    c.messageClass = "IPM.Note";
    c.expiry = 5;
    c.deferred = 6;

    // The first record past the addresses is the subject: it is seen, no second subject.
    TfFileOwner a(fileOf({headerRecord(0), withTexts(TFREC_SUBJECT, 16, {"old", ""}),
                          record(TFREC_CONTENT_FILE)}));
    TfFileOwner ta(update(a.get(), c, object));
    EXPECT_EQ(typesOf(ta.get()), (Types{1100, 11200, 13700, 14100, 11100, 30500}));
    EXPECT_STREQ(tf_GetStrPtr(&only(readAll(ta.get()), 11100), 16, nullptr), "old");

    // The same for the expiry time; the deferred time is still added.
    TfFileOwner b(fileOf({headerRecord(0), record(TFREC_EXPIRY_TIME)}));
    TfFileOwner tb(update(b.get(), c, object));
    EXPECT_EQ(typesOf(tb.get()), (Types{1100, 11100, 11200, 14100, 13700}));

    // Records behind the insertion point do not stop it: the file then holds two of each.
    TfFileOwner d(fileOf({headerRecord(0), withTexts(TFREC_RECIPIENT, 24, {"r", "", ""}),
                          withTexts(TFREC_SUBJECT, 16, {"old", ""}), record(TFREC_EXPIRY_TIME),
                          record(TFREC_DEFERRED_TIME)}));
    TfFileOwner td(update(d.get(), c, object));
    EXPECT_EQ(typesOf(td.get()),
              (Types{1100, 11100, 11200, 13700, 14100, 15000, 11100, 13700, 14100}));

    // The class is added whatever class record the file has.
    TfFileOwner e(fileOf({headerRecord(0), withTexts(TFREC_CLASS, 16, {"IPM.Old"})}));
    Collected classOnly;
    classOnly.messageClass = "IPM.Note";
    TfFileOwner te(update(e.get(), classOnly, object));
    EXPECT_EQ(typesOf(te.get()), (Types{1100, 11200, 11200}));

    // Empty texts and zero times add nothing.
    TfFileOwner f(fileOf({headerRecord(0), record(TFREC_CONTENT_FILE)}));
    TfFileOwner tf2(update(f.get(), Collected{}, object));
    EXPECT_EQ(typesOf(tf2.get()), (Types{1100, 30500}));
}

TEST(MessageFileUpdate, HeaderFlagsWordTakesOnlyTheCodesTheStreamGave) {
    TestHome home;
    tnefSuppressMapiData = 1;
    const ItemRef object = objectFile();
    const struct {
        const char* what;
        uint32_t before;
        uint16_t priority;
        uint32_t importance, sensitivity, autoForwarded;
        uint32_t after;
    } cases[] = {
        {"nothing known", 0x5A5, 0xFFFF, 0xFFFFFFFF, 0xFFFFFFFF, 0, 0x5A5},
        {"importance 2, sensitivity 3", 0, 0xFFFF, 2, 3, 0, 0x98},
        {"priority replaces bits 0-2 only", 0x1FF, 2, 0xFFFFFFFF, 0xFFFFFFFF, 0, 0x1FA},
        {"only the low 3 bits of a code count", 0, 0x000F, 0x0F, 0x0F, 0, 0x1FF},
        {"a known 0 clears its bits", 0x1FF, 0, 0, 0, 0, 0},
        {"auto-forwarded sets bit 12", 0x8001, 0xFFFF, 0xFFFFFFFF, 0xFFFFFFFF, 1, 0x9001},
    };
    for (const auto& k : cases) {
        TfFileOwner old(fileOf({headerRecord(k.before)}));
        Collected c;
        c.priority = k.priority;
        c.importance = k.importance;
        c.sensitivity = k.sensitivity;
        c.autoForwarded = k.autoForwarded;
        TfFileOwner tf(update(old.get(), c, object));
        const auto records = readAll(tf.get());
        const TFREC& h = only(records, TFREC_HEADER);
        EXPECT_EQ(tf_GetINT32(&h, 24), k.after) << k.what;
        EXPECT_EQ(tf_GetINT16(&h, 16), 3u) << k.what << ": other fields stay";
        EXPECT_EQ(tf_GetINT32(&h, 28), 1u) << k.what;
    }
}

TEST(MessageFileUpdate, AddressesOfTheLocalNodeBecomeLocalOnlyWhenAsked) {
    TestHome home;
    tnefSuppressMapiData = 1;
    const ItemRef object = objectFile();
    home.write("sys/mailnode", "Local.Example\n");
    const std::vector<TFREC> records = {
        headerRecord(0),
        withTexts(TFREC_ORIGINATOR, 36, {"Joe@LOCAL.example", "second", "third"}),
        withTexts(TFREC_ENVELOPE_ADDRESS, 36, {"x@remote.example", "", ""}),
        withTexts(TFREC_RECIPIENT, 24, {"amy@local.example", "Amy", "z"}, 0x10),
        withTexts(TFREC_LIST_ADDRESS, 24, {"list@local.example"}),
        listEntry(22000, {"dl@local.example", "", ""}, 0, "4th"),
    };
    auto run = [&](uint32_t addressUpdate) {
        TfFileOwner old(fileOf(records));
        Collected c;
        c.addressUpdate = addressUpdate;
        TfFileOwner tf(update(old.get(), c, object));
        return readAll(tf.get());
    };
    auto bytes = [](const TFREC& r) {
        return std::string(reinterpret_cast<const char*>(r.bytes), tf_GetLength(&r));
    };

    cust_Set(TNEF_FLAG_PASSIVE_RECIPS, "true");
    const auto untouched = run(0);
    ASSERT_EQ(untouched.size(), records.size());
    for (size_t i = 0; i < records.size(); ++i)
        EXPECT_EQ(bytes(untouched[i]), bytes(records[i])) << "record " << i << " changed";

    cust_Clear(TNEF_FLAG_PASSIVE_RECIPS);
    auto rewritten = run(1);
    EXPECT_EQ(textsAt(only(rewritten, 10000), 36, 3),
              (std::vector<std::string>{"Joe", "second", "third"}))
        << "the texts behind the address move up with it";
    EXPECT_EQ(textsAt(only(rewritten, 10005), 36, 1)[0], "x@remote.example");
    EXPECT_EQ(textsAt(only(rewritten, 15000), 24, 3), (std::vector<std::string>{"amy", "Amy", "z"}));
    EXPECT_EQ(tf_GetINT32(&only(rewritten, 15000), 20), 0x10u);
    EXPECT_EQ(textsAt(only(rewritten, 16100), 24, 1)[0], "list");
    EXPECT_EQ(bytes(only(rewritten, 22000)), bytes(records[5])) << "list entries are UpdateDL's";

    cust_Set(TNEF_FLAG_PASSIVE_RECIPS, "false");
    EXPECT_EQ(tf_GetINT32(&only(run(1), 15000), 20), 0x10u);
    cust_Set(TNEF_FLAG_PASSIVE_RECIPS, "yes");
    EXPECT_EQ(tf_GetINT32(&only(run(1), 15000), 20), 0x11u);

    // Without a default mail node no address is local.
    home.write("sys/mailnode", "");
    EXPECT_EQ(textsAt(only(run(1), 10000), 36, 1)[0], "Joe@LOCAL.example");
}

TEST(MessageFileUpdate, StoredDataReadsBackAndOutlivesTheDecodersUnlink) {
    TestHome home;
    tnefSuppressMapiData = 0;
    const std::string objectBytes = std::string("\x78\x9f\x3e\x22", 4) + std::string(9000, 'o');
    const ItemRef object = objectFile(objectBytes);
    TfFileOwner old(fileOf({headerRecord(0)}));
    Collected c;
    c.secondaryText = std::string(100000, 's');  // too long for a record
    c.recurrence = 1;
    TfFileOwner tf(update(old.get(), c, object));
    im_UnlinkItem(object);

    TFREC r;
    tf_UnreadFile(tf.get());
    tf_ReadRecord(tf.get(), &r);  // 1100
    ASSERT_EQ(tf_ReadRecord(tf.get(), &r), 1);
    OsFd fd(mp_BuildObjectFile(tf.get(), &r, 0, MP_OBJECT_PROPERTIES, 1));
    std::string kept(objectBytes.size() + 1, '\0');
    EXPECT_EQ(os_read(fd.get(), kept.data(), static_cast<int64_t>(kept.size())),
              static_cast<int64_t>(objectBytes.size()));
    EXPECT_EQ(kept.substr(0, objectBytes.size()), objectBytes);

    const struct {
        uint32_t headType;
        const std::string& text;
        uint32_t flags;
    } texts[] = {{TFREC_PROPS, c.mainText, 1}, {TFREC_PROPS2, c.secondaryText, 2}};
    for (const auto& t : texts) {
        TFREC head, data;
        ASSERT_EQ(tf_ReadRecord(tf.get(), &head), 1);
        ASSERT_EQ(tf_GetType(&head), t.headType);
        tf_ReadRecord(tf.get(), &data);
        char* buffer = nullptr;
        uint32_t length = tf_GetINT32(&head, 28), flags = 0;
        mp_BuildMAPIProps(tf.get(), &data, t.headType + 10, &buffer, &length, &flags);
        EXPECT_EQ(std::string(buffer, length), t.text);
        EXPECT_EQ(flags, t.flags);
        os_free(buffer);
    }

    TfFileOwner again(fileOf({}));
    Collected plain;
    TfFileOwner notRecurring(update(again.get(), plain, objectFile()));
    EXPECT_EQ(tf_GetINT32(&only(readAll(notRecurring.get()), TFREC_PROPS2), 16), 0u);
}

TEST(MessageFileUpdate, SuppressedMapiDataStoresNeitherObjectNorTexts) {
    TestHome home;
    tnefSuppressMapiData = 1;
    const ItemRef object = objectFile();
    TfFileOwner old(fileOf({headerRecord(0), record(TFREC_CONTENT_FILE)}));
    Collected c;
    c.subject = "S";
    c.expiry = 9;
    TfFileOwner tf(update(old.get(), c, object));
    EXPECT_EQ(typesOf(tf.get()), (Types{1100, 11100, 13700, 30500}));
    EXPECT_TRUE(filesIn(home.file("store/objects")).empty());
    EXPECT_TRUE(os_fexists(im_ItemRef2FName(object).c_str())) << "the decoder's item is its own";
}

TEST(MessageFileUpdate, AnEscapeLeavesTheCallersFileAndNoNewFileBehind) {
    TestHome home;
    tnefSuppressMapiData = 0;
    const int16_t old = fileOf({headerRecord(0)});
    const size_t items = filesIn(home.file("store/items")).size();
    const int handles = tf_OpenHandleCount();
    ItemRef gone = objectFile();
    im_UnlinkItem(gone);
    const Collected c;
    const dstring mainText = textOf(c.mainText), secondaryText = textOf(c.secondaryText);
    int16_t tf = old;
    EXPECT_THROW(tnef_UpdateTF(&tf, gone.w[0], gone.w[1], gone.w[2], gone.w[3], &mainText,
                               &secondaryText, "", 0xFFFF, "", 0xFFFFFFFF, 0xFFFFFFFF, 0, 0, 0, 0,
                               0, 0, 0),
                 Escape);
    EXPECT_EQ(tf, old);
    EXPECT_EQ(tf_OpenHandleCount(), handles);
    EXPECT_EQ(filesIn(home.file("store/items")).size(), items);
    tf_CloseFile(old);
}

TEST(DistributionListUpdate, RewritesEntriesIntoANewFileAndLeavesTheOldOne) {
    TestHome home;
    home.write("sys/mailnode", "local.example");
    const std::vector<TFREC> records = {
        headerRecord(0),
        listEntry(22000, {"dl@local.example", "Name", "x"}, 0x1, "fourth"),
        listEntry(22300, {"far@remote.example", "", ""}, 0, "4"),
        listEntry(22150, {"odd@local.example", "", ""}, 0, "4"),  // between the entry types
        withTexts(TFREC_RECIPIENT, 24, {"r@local.example", "", ""}),
    };
    ItemRef original;
    {
        TfFileOwner tf(fileOf(records));
        tf_GetRef(tf.get(), &original);
    }
    const std::string oldBytes = readFileBytes(im_ItemRef2FName(original));
    const int handles = tf_OpenHandleCount();

    cust_Set(TNEF_FLAG_PASSIVE_RECIPS, "on");
    ItemRef ref = original;
    tnef_UpdateDL(&ref);
    EXPECT_FALSE(ref == original);
    EXPECT_EQ(readFileBytes(im_ItemRef2FName(original)), oldBytes);
    EXPECT_EQ(tf_OpenHandleCount(), handles);

    TfFileOwner tf(tf_OpenFile(ref, TF_OPEN_READONLY));
    const auto updated = readAll(tf.get());
    ASSERT_EQ(updated.size(), records.size());
    uint32_t at = 0;
    EXPECT_EQ(textsAt(updated[1], 24, 3), (std::vector<std::string>{"dl", "Name", "x"}));
    tf_GetStrPtr(&updated[1], 24, &at);
    tf_GetStrPtr(&updated[1], at, &at);
    tf_GetStrPtr(&updated[1], at, &at);
    EXPECT_EQ(tf_GetINT32(&updated[1], at), 0x1001u) << "flags follow the moved texts";
    EXPECT_STREQ(tf_GetStrPtr(&updated[1], at + 4, nullptr), "fourth");
    EXPECT_EQ(textsAt(updated[2], 24, 1)[0], "far@remote.example");
    EXPECT_EQ(textsAt(updated[3], 24, 1)[0], "odd@local.example");
    EXPECT_EQ(textsAt(updated[4], 24, 1)[0], "r@local.example");

    cust_Clear(TNEF_FLAG_PASSIVE_RECIPS);
    ItemRef second = original;
    tnef_UpdateDL(&second);
    TfFileOwner plain(tf_OpenFile(second, TF_OPEN_READONLY));
    const auto unflagged = readAll(plain.get());
    tf_GetStrPtr(&unflagged[1], 24, &at);
    tf_GetStrPtr(&unflagged[1], at, &at);
    tf_GetStrPtr(&unflagged[1], at, &at);
    EXPECT_EQ(tf_GetINT32(&unflagged[1], at), 0x1u) << "bit 12 only when the flag is true";
}

TEST(MailNodeUpdate, OnlyAddressesOfTheDefaultNodeBecomeLocal) {
    TestHome home;
    const struct {
        const char* node;  // null: no mailnode file
        const char* in;
        const char* out;
    } cases[] = {
        {"mail.example", "joe@MAIL.Example", "joe"},
        {"mail.example", "joe@other.example", "joe@other.example"},
        {"mail.example", "joe", "joe"},
        {"mail.example", "\"a@b\"@mail.example", "\"a@b\""},
        {nullptr, "joe@mail.example", "joe@mail.example"},
        {"   ", "joe@mail.example", "joe@mail.example"},
    };
    for (const auto& c : cases) {
        std::remove(home.file("sys/mailnode").c_str());
        if (c.node != nullptr) home.write("sys/mailnode", c.node);
        char address[TF_TEXT_CAPACITY] = {};
        std::strcpy(address, c.in);
        tnef_UpdateMN(address);
        EXPECT_STREQ(address, c.out) << c.in << " with node " << (c.node ? c.node : "(none)");
    }
}
