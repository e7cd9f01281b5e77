#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <tuple>
#include <vector>

#include "support/store_checks.h"
#include "support/test_home.h"
#include "tnef/platform/cust_flags.h"
#include "tnef/platform/dstring.h"
#include "tnef/platform/im_items.h"
#include "tnef/platform/mp_stored.h"
#include "tnef/platform/os_file.h"
#include "tnef/platform/tf_msgfile.h"
#include "tnef/tnef.h"
#include "tnef_decode/tnef_update.h"

using namespace storecheck;

namespace {

using Types = std::vector<uint32_t>;
using Texts = std::vector<std::string>;
const Types kStored = {19000, 19500, 19510, 19600, 19610};

// What a parse collected; the defaults are "the stream had none".
struct Collected {
    std::string messageClass, subject;
    uint16_t priority = 0xFFFF;
    uint32_t importance = 0xFFFFFFFF, sensitivity = 0xFFFFFFFF;
    uint32_t deferred = 0, expiry = 0;
    uint16_t deferredCompanion = 0, expiryCompanion = 0;
    uint32_t addressUpdate = 0, autoForwarded = 0, recurrence = 0;
    std::string mainText = "37001e\x1dHi\x1e", secondaryText = "63000b\x1d" "1\x1e";
};

// A record of the type with texts from offset; flags (if any) at flagsAt.
TFREC rec(uint32_t type, uint32_t offset = 16, const Texts& texts = {}, uint32_t flagsAt = 0,
          uint32_t flags = 0) {
    TFREC r;
    tf_InitRecord(&r, type);
    if (flagsAt != 0) tf_PutINT32(&r, flagsAt, flags);
    for (const std::string& t : texts) tf_PutString(&r, offset, &offset, t.c_str());
    return r;
}

TFREC header(uint32_t flags) { return rec(TFREC_HEADER, 16, {}, 24, flags); }

int16_t fileOf(const std::vector<TFREC>& records) {
    const int16_t tf = tf_CreateFile();
    for (const TFREC& r : records) tf_AppendRecord(tf, &r);
    return tf;
}

ItemRef objectFile(const std::string& bytes = "OBJECT") {
    ItemRef ref;
    os_write(OsFd(im_CrNewDataItem(nullptr, &ref)).get(), bytes.data(), static_cast<int64_t>(bytes.size()));
    return ref;
}

// Runs tnef_UpdateTF as the decode entry does; *tf becomes the new file's handle.
void update(int16_t* tf, const Collected& c, const ItemRef& object) {
    dstring mainText, secondaryText;
    dstring_init(&mainText);
    dstring_init(&secondaryText);
    dstring_append1(&mainText, c.mainText.c_str());
    dstring_append1(&secondaryText, c.secondaryText.c_str());
    tnef_UpdateTF(tf, object.w[0], object.w[1], object.w[2], object.w[3], &mainText,
                  &secondaryText, c.messageClass.c_str(), c.priority, c.subject.c_str(),
                  c.importance, c.sensitivity, c.deferred, c.deferredCompanion, c.expiry,
                  c.expiryCompanion, c.addressUpdate, c.autoForwarded, c.recurrence);
}

std::vector<TFREC> updated(const std::vector<TFREC>& old, const Collected& c,
                           const ItemRef& object = objectFile()) {
    TfFileOwner oldFile(fileOf(old));
    int16_t tf = oldFile.get();
    update(&tf, c, object);
    TfFileOwner newFile(tf);
    return recordsOf(tf);
}

Types typesIn(const std::vector<TFREC>& records) {
    Types types;
    for (const TFREC& r : records) types.push_back(tf_GetType(&r));
    return types;
}

const TFREC& only(const std::vector<TFREC>& records, uint32_t type) {
    const Types types = typesIn(records);
    EXPECT_EQ(std::count(types.begin(), types.end(), type), 1) << type;
    return *std::find_if(records.begin(), records.end(),
                         [&](const TFREC& r) { return tf_GetType(&r) == type; });
}

Texts textsAt(const TFREC& r, uint32_t offset, int count, uint32_t* next = nullptr) {
    Texts texts;
    for (int i = 0; i < count; ++i) texts.emplace_back(tf_GetStrPtr(&r, offset, &offset));
    if (next != nullptr) *next = offset;
    return texts;
}

Types concat(std::initializer_list<Types> parts) {
    Types all;
    for (const Types& p : parts) all.insert(all.end(), p.begin(), p.end());
    return all;
}

}  // namespace

TEST(MessageFileUpdate, NewRecordsGoBeforeTheFirstRecordPastTheHeaderAndAddresses) {
    TestHome home;
    Collected c;
    c.subject = "Subject";
    c.messageClass = "IPM.Note";
    c.expiry = 1000;
    c.expiryCompanion = 1;
    c.deferred = 2000;
    const auto records = updated({header(0), rec(TFREC_ORIGINATOR, 36, {"a@x", "", ""}),
                                  rec(TFREC_RECIPIENT, 24, {"b@x", "", ""}), rec(TFREC_CONTENT_FILE)},
                                 c);
    EXPECT_EQ(typesIn(records), concat({{1100, 10000, 11100, 11200, 13700, 14100}, kStored, {15000, 30500}}));
    EXPECT_STREQ(tf_GetStrPtr(&only(records, 11100), 16, nullptr), "Subject");
    EXPECT_STREQ(tf_GetStrPtr(&only(records, 11200), 16, nullptr), "IPM.Note");
    EXPECT_EQ(tf_GetINT32(&only(records, 13700), 16), 1000u);
    EXPECT_EQ(tf_GetINT16(&only(records, 13700), 20), 1u);
    EXPECT_EQ(tf_GetINT32(&only(records, 14100), 16), 2000u);

    // Nothing past the addresses: the new records go at the end.
    EXPECT_EQ(typesIn(updated({header(0), rec(TFREC_ENVELOPE_ADDRESS, 36, {"e", "", ""})}, c)),
              concat({{1100, 10005, 11100, 11200, 13700, 14100}, kStored}));
}

TEST(MessageFileUpdate, OnlyRecordsBeforeTheInsertionPointCountAsSeen) {
    TestHome home;
    tnefSuppressMapiData = 1;
    Collected c;
    c.subject = "new";
    c.messageClass = "IPM.Note";
    c.expiry = 5;
    c.deferred = 6;
    // The subject (or expiry) is the first record past the addresses: seen, not added again.
    const auto a = updated({header(0), rec(TFREC_SUBJECT, 16, {"old", ""}), rec(TFREC_CONTENT_FILE)}, c);
    EXPECT_EQ(typesIn(a), (Types{1100, 11200, 13700, 14100, 11100, 30500}));
    EXPECT_STREQ(tf_GetStrPtr(&only(a, 11100), 16, nullptr), "old");
    EXPECT_EQ(typesIn(updated({header(0), rec(TFREC_EXPIRY_TIME)}, c)),
              (Types{1100, 11100, 11200, 14100, 13700}));
    // Behind the insertion point they do not stop it: the file then holds two of each.
    EXPECT_EQ(typesIn(updated({header(0), rec(TFREC_RECIPIENT), rec(TFREC_SUBJECT),
                               rec(TFREC_EXPIRY_TIME), rec(TFREC_DEFERRED_TIME)},
                              c)),
              (Types{1100, 11100, 11200, 13700, 14100, 15000, 11100, 13700, 14100}));
    // The class is added whatever class the file has; empty texts and zero times add nothing.
    Collected classOnly;
    classOnly.messageClass = "IPM.Note";
    EXPECT_EQ(typesIn(updated({header(0), rec(TFREC_CLASS, 16, {"IPM.Old"})}, classOnly)),
              (Types{1100, 11200, 11200}));
    EXPECT_EQ(typesIn(updated({header(0), rec(TFREC_CONTENT_FILE)}, Collected{})), (Types{1100, 30500}));
}

TEST(MessageFileUpdate, HeaderFlagsWordTakesOnlyTheCodesTheStreamGave) {
    TestHome home;
    tnefSuppressMapiData = 1;
    const struct {
        uint32_t before;
        uint16_t priority;
        uint32_t importance, sensitivity, autoForwarded, after;
    } cases[] = {
        {0x5A5, 0xFFFF, 0xFFFFFFFF, 0xFFFFFFFF, 0, 0x5A5},  // nothing known: unchanged
        {0, 0xFFFF, 2, 3, 0, 0x98},                         // 2 << 6 | 3 << 3
        {0x1FF, 2, 0xFFFFFFFF, 0xFFFFFFFF, 0, 0x1FA},       // priority: bits 0-2 only
        {0, 0x000F, 0x0F, 0x0F, 0, 0x1FF},                  // only the low 3 bits of a code
        {0x1FF, 0, 0, 0, 0, 0},                             // a known 0 clears its bits
        {0x8001, 0xFFFF, 0xFFFFFFFF, 0xFFFFFFFF, 1, 0x9001},
    };
    for (const auto& k : cases) {
        Collected c;
        c.priority = k.priority;
        c.importance = k.importance;
        c.sensitivity = k.sensitivity;
        c.autoForwarded = k.autoForwarded;
        const auto records = updated({header(k.before)}, c);
        EXPECT_EQ(tf_GetINT32(&records.at(0), 24), k.after) << std::hex << k.before;
    }
}

TEST(MessageFileUpdate, AddressesOfTheLocalNodeBecomeLocalOnlyWhenAsked) {
    TestHome home;
    tnefSuppressMapiData = 1;
    home.write("sys/mailnode", "Local.Example\n");
    const std::vector<TFREC> old = {
        header(0),
        rec(TFREC_ORIGINATOR, 36, {"Joe@LOCAL.example", "second", "third"}),
        rec(TFREC_ENVELOPE_ADDRESS, 36, {"x@remote.example", "", ""}),
        rec(TFREC_RECIPIENT, 24, {"amy@local.example", "Amy", "z"}, 20, 0x10),
        rec(TFREC_LIST_ADDRESS, 24, {"list@local.example"}),
        rec(22000, 24, {"dl@local.example", "", "", "", "4th"}),
    };
    Collected c;
    cust_Set(TNEF_FLAG_PASSIVE_RECIPS, "true");
    const auto untouched = updated(old, c);
    for (size_t i = 0; i < old.size(); ++i)
        EXPECT_EQ(bytesOf(untouched.at(i)), bytesOf(old[i])) << "record " << i << " changed";

    c.addressUpdate = 1;
    cust_Clear(TNEF_FLAG_PASSIVE_RECIPS);
    const auto r = updated(old, c);
    EXPECT_EQ(textsAt(only(r, 10000), 36, 3), (Texts{"Joe", "second", "third"}))
        << "the texts behind the address move up with it";
    EXPECT_EQ(textsAt(only(r, 10005), 36, 1), Texts{"x@remote.example"});
    EXPECT_EQ(textsAt(only(r, 15000), 24, 3), (Texts{"amy", "Amy", "z"}));
    EXPECT_EQ(tf_GetINT32(&only(r, 15000), 20), 0x10u);
    EXPECT_EQ(textsAt(only(r, 16100), 24, 1), Texts{"list"});
    EXPECT_EQ(bytesOf(only(r, 22000)), bytesOf(old[5])) << "list entries are tnef_UpdateDL's";

    cust_Set(TNEF_FLAG_PASSIVE_RECIPS, "false");
    EXPECT_EQ(tf_GetINT32(&only(updated(old, c), 15000), 20), 0x10u);
    cust_Set(TNEF_FLAG_PASSIVE_RECIPS, "yes");
    EXPECT_EQ(tf_GetINT32(&only(updated(old, c), 15000), 20), 0x11u);
    home.write("sys/mailnode", "");  // no default node: no address is local
    EXPECT_EQ(textsAt(only(updated(old, c), 10000), 36, 1), Texts{"Joe@LOCAL.example"});
}

TEST(MessageFileUpdate, StoredDataReadsBackOutlivesTheDecoderAndIsSuppressible) {
    TestHome home;
    const ItemRef object = objectFile("OBJECT");
    Collected c;
    c.secondaryText = std::string(100000, 's');  // too long for a record
    c.recurrence = 1;
    TfFileOwner old(fileOf({header(0)}));
    int16_t tf = old.get();
    update(&tf, c, object);
    TfFileOwner file(tf);
    im_UnlinkItem(object);
    const auto records = recordsOf(tf);
    OsFd fd(mp_BuildObjectFile(tf, &only(records, TFREC_OBJECT), 0, MP_OBJECT_PROPERTIES, 1));
    char kept[8] = {};
    EXPECT_EQ(os_read(fd.get(), kept, sizeof kept), 6);
    EXPECT_STREQ(kept, "OBJECT");
    for (const auto& [type, text, flags] : {std::tuple{TFREC_PROPS_DATA, c.mainText, 1u},
                                            std::tuple{TFREC_PROPS2_DATA, c.secondaryText, 2u}}) {
        char* buffer = nullptr;
        uint32_t length = 0, storedFlags = 0;
        mp_BuildMAPIProps(tf, &only(records, type), type, &buffer, &length, &storedFlags);
        EXPECT_EQ(std::string(buffer, length), text);
        EXPECT_EQ(storedFlags, flags) << type;
        os_free(buffer);
    }
    EXPECT_EQ(tf_GetINT32(&only(updated({}, Collected{}), TFREC_PROPS2), 16), 0u) << "not recurring";

    tnefSuppressMapiData = 1;
    const size_t objects = filesIn(home.file("store/objects")).size();
    c.subject = "S";
    EXPECT_EQ(typesIn(updated({header(0)}, c)), (Types{1100, 11100}));
    EXPECT_EQ(filesIn(home.file("store/objects")).size(), objects);
}

TEST(MessageFileUpdate, AnEscapeLeavesTheCallersFileAndNoNewFileBehind) {
    TestHome home;
    tnefSuppressMapiData = 0;
    TfFileOwner old(fileOf({header(0)}));
    const size_t items = filesIn(home.file("store/items")).size();
    const ItemRef gone = objectFile();
    im_UnlinkItem(gone);
    int16_t tf = old.get();
    EXPECT_THROW(update(&tf, Collected{}, gone), Escape);
    EXPECT_EQ(tf, old.get());
    EXPECT_EQ(tf_OpenHandleCount(), 1);
    EXPECT_EQ(filesIn(home.file("store/items")).size(), items);
}

TEST(DistributionListUpdate, RewritesEntriesIntoANewFileAndLeavesTheOldOne) {
    TestHome home;
    home.write("sys/mailnode", "local.example");
    auto entry = [](uint32_t type, const std::string& address) {
        TFREC r = rec(type, 24, {address, "Name", "x"});
        const uint32_t flagsAt = tf_GetLength(&r);
        tf_PutINT32(&r, flagsAt, 0x1);
        tf_PutString(&r, flagsAt + 4, nullptr, "fourth");
        return r;
    };
    ItemRef original;
    tf_GetRef(TfFileOwner(fileOf({header(0), entry(22000, "dl@local.example"),
                                  entry(22300, "far@remote.example"),
                                  entry(22150, "odd@local.example"),  // between the entry types
                                  rec(TFREC_RECIPIENT, 24, {"r@local.example"})}))
                  .get(),
              &original);
    const std::string oldBytes = readFileBytes(im_ItemRef2FName(original));

    for (const auto& [flag, flags] : {std::pair{"on", 0x1001u}, std::pair{"", 0x1u}}) {
        cust_Set(TNEF_FLAG_PASSIVE_RECIPS, flag);
        ItemRef ref = original;
        tnef_UpdateDL(&ref);
        EXPECT_FALSE(ref == original);
        EXPECT_EQ(readFileBytes(im_ItemRef2FName(original)), oldBytes);
        EXPECT_EQ(tf_OpenHandleCount(), 0);
        const auto r = recordsOf(TfFileOwner(tf_OpenFile(ref, TF_OPEN_READONLY)).get());
        uint32_t at = 0;
        EXPECT_EQ(textsAt(r.at(1), 24, 3, &at), (Texts{"dl", "Name", "x"}));
        EXPECT_EQ(tf_GetINT32(&r[1], at), flags) << "flags follow the moved texts";
        EXPECT_STREQ(tf_GetStrPtr(&r[1], at + 4, nullptr), "fourth");
        EXPECT_EQ(textsAt(r[2], 24, 1), Texts{"far@remote.example"});
        EXPECT_EQ(textsAt(r[3], 24, 1), Texts{"odd@local.example"});
        EXPECT_EQ(textsAt(r[4], 24, 1), Texts{"r@local.example"});
    }
}
