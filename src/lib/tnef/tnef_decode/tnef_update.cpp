#include "tnef_decode/tnef_update.h"

#include <array>
#include <cstdint>
#include <string>

#include "tnef/platform/address.h"
#include "tnef/platform/cust_flags.h"
#include "tnef/platform/dstring.h"
#include "tnef/platform/er_escape.h"
#include "tnef/platform/im_items.h"
#include "tnef/platform/mp_stored.h"
#include "tnef/platform/os_file.h"
#include "tnef/platform/tf_msgfile.h"
#include "tnef_defs.h"

int tnefSuppressMapiData = 0;

namespace {

using TextBuffer = std::array<char, TNEF_TEXT_CAPACITY>;

constexpr uint16_t kNoPriority = 0xFFFF;
constexpr uint32_t kNoCode = 0xFFFFFFFF;

// Field offsets of the records rewritten here.
constexpr uint32_t kHeaderFlags = 24;
constexpr uint32_t kAddressTexts = 36;    // 10000, 10005
constexpr uint32_t kRecipientFlags = 20;  // 15000
constexpr uint32_t kRecipientTexts = 24;  // 15000, 16100, 22000-22300
constexpr uint32_t kClassText = 16;
constexpr uint32_t kTimeSeconds = 16;
constexpr uint32_t kTimeCompanion = 20;

// What the parse collected, as tnef_UpdateTF received it.
struct CollectedValues {
    ItemRef objectFile;
    const dstring* mainText;
    const dstring* secondaryText;
    const char* messageClass;
    uint16_t priority;
    const char* subject;
    uint32_t importance;
    uint32_t sensitivity;
    uint32_t deferredSeconds;
    uint16_t deferredCompanion;
    uint32_t expirySeconds;
    uint16_t expiryCompanion;
    uint32_t autoForwarded;
    uint32_t recurrence;
};

// Which of the records that tnef_UpdateTF may add the file already had before the
// insertion point.
struct SeenSoFar {
    bool subject = false;
    bool expiry = false;
    bool deferred = false;
};

bool isEmpty(const char* text) { return text == nullptr || *text == '\0'; }

uint32_t withCode(uint32_t flags, uint32_t shift, uint32_t code) {
    return (flags & ~(7u << shift)) | ((code & 7u) << shift);
}

void rewriteHeaderFlags(TFREC* record, const CollectedValues& v) {
    uint32_t flags = tf_GetINT32(record, kHeaderFlags);
    if (v.priority != kNoPriority) flags = withCode(flags, TNEF_HDR_PRIORITY_SHIFT, v.priority);
    if (v.importance != kNoCode) flags = withCode(flags, TNEF_HDR_IMPORTANCE_SHIFT, v.importance);
    if (v.sensitivity != kNoCode)
        flags = withCode(flags, TNEF_HDR_SENSITIVITY_SHIFT, v.sensitivity);
    if (v.autoForwarded != 0) flags |= TNEF_HDR_AUTO_FORWARDED;
    tf_PutINT32(record, kHeaderFlags, flags);
}

// Reads count consecutive texts from offset; *next receives the offset after the last.
void readTexts(const TFREC* record, uint32_t offset, TextBuffer* texts, int count,
               uint32_t* next) {
    for (int i = 0; i < count; ++i)
        tf_GetString(record, offset, &offset, texts[i].data(), TNEF_TEXT_CAPACITY);
    *next = offset;
}

// Writes them back one after the other, so a text that changed length moves the ones behind.
void writeTexts(TFREC* record, uint32_t offset, const TextBuffer* texts, int count,
                uint32_t* next) {
    for (int i = 0; i < count; ++i) tf_PutString(record, offset, &offset, texts[i].data());
    *next = offset;
}

// Runs tnef_UpdateMN on the first of count texts at offset and lays them out again.
void rewriteAddressTexts(TFREC* record, uint32_t offset, int count) {
    std::array<TextBuffer, 3> texts;
    uint32_t next = 0;
    readTexts(record, offset, texts.data(), count, &next);
    tnef_UpdateMN(texts[0].data());
    writeTexts(record, offset, texts.data(), count, &next);
}

void rewriteRecipient(TFREC* record) {
    rewriteAddressTexts(record, kRecipientTexts, 3);
    if (cust_PresentAndTrue(TNEF_FLAG_PASSIVE_RECIPS))
        tf_PutINT32(record, kRecipientFlags,
                    tf_GetINT32(record, kRecipientFlags) | TNEF_RECIP_PASSIVE);
}

// Rewrites a record of the old file by its type and notes the ones the new records stand in
// for.
void rewriteRecord(TFREC* record, const CollectedValues& v, uint32_t addressUpdate,
                   SeenSoFar* seen) {
    switch (tf_GetType(record)) {
        case TFREC_HEADER: rewriteHeaderFlags(record, v); break;
        case TFREC_ORIGINATOR:
        case TFREC_ENVELOPE_ADDRESS:
            if (addressUpdate != 0) rewriteAddressTexts(record, kAddressTexts, 3);
            break;
        case TFREC_RECIPIENT:
            if (addressUpdate != 0) rewriteRecipient(record);
            break;
        case TFREC_LIST_ADDRESS:
            if (addressUpdate != 0) rewriteAddressTexts(record, kRecipientTexts, 1);
            break;
        case TFREC_SUBJECT: seen->subject = true; break;
        case TFREC_EXPIRY_TIME: seen->expiry = true; break;
        case TFREC_DEFERRED_TIME: seen->deferred = true; break;
        default: break;
    }
}

void appendTimeRecord(int16_t file, uint32_t type, uint32_t seconds, uint16_t companion) {
    TFREC record;
    tf_InitRecord(&record, type);
    tf_PutINT32(&record, kTimeSeconds, seconds);
    tf_PutINT16(&record, kTimeCompanion, companion);
    tf_AppendRecord(file, &record);
}

void appendNewRecords(int16_t file, const CollectedValues& v, const SeenSoFar& seen) {
    TFREC record;
    if (!seen.subject && !isEmpty(v.subject)) {
        tf_MakeSubjectRec(&record, TFREC_SUBJECT, v.subject, nullptr, 0, 0, 0, 0);
        tf_AppendRecord(file, &record);
    }
    if (!isEmpty(v.messageClass)) {
        tf_InitRecord(&record, TFREC_CLASS);
        tf_PutString(&record, kClassText, nullptr, v.messageClass);
        tf_AppendRecord(file, &record);
    }
    if (!seen.expiry && v.expirySeconds != 0)
        appendTimeRecord(file, TFREC_EXPIRY_TIME, v.expirySeconds, v.expiryCompanion);
    if (!seen.deferred && v.deferredSeconds != 0)
        appendTimeRecord(file, TFREC_DEFERRED_TIME, v.deferredSeconds, v.deferredCompanion);
    if (tnefSuppressMapiData != 0) return;
    mp_PutObjectFile(MP_OBJECT_PROPERTIES, v.objectFile, file, 1, 0);
    mp_PutMAPIPropsData(TNEF_PROPS_MAIN, 0, v.mainText, file, 1, 0, 0);
    mp_PutMAPIPropsData(v.recurrence != 0 ? TNEF_PROPS_RECURRING : 0, 0, v.secondaryText, file, 1,
                        0, 1);
}

// 22000, 22100, 22200 and 22300; the types between them are no list entries.
bool isListEntry(uint32_t type) {
    return type >= TFREC_DL_ENTRY_FIRST && type <= TFREC_DL_ENTRY_LAST && type % 100 == 0;
}

// Three texts from 24, the flags word right after them, a fourth text 4 bytes after that.
void rewriteListEntry(TFREC* record) {
    std::array<TextBuffer, 4> texts;
    uint32_t flagsOffset = 0;
    readTexts(record, kRecipientTexts, texts.data(), 3, &flagsOffset);
    uint32_t flags = tf_GetINT32(record, flagsOffset);
    uint32_t end = 0;
    tf_GetString(record, flagsOffset + 4, &end, texts[3].data(), TNEF_TEXT_CAPACITY);
    if (cust_PresentAndTrue(TNEF_FLAG_PASSIVE_RECIPS)) flags |= TNEF_DL_ENTRY_PASSIVE;
    tnef_UpdateMN(texts[0].data());
    writeTexts(record, kRecipientTexts, texts.data(), 3, &flagsOffset);
    tf_PutINT32(record, flagsOffset, flags);
    tf_PutString(record, flagsOffset + 4, &end, texts[3].data());
}

}  // namespace

void tnef_UpdateTF(int16_t* messageFile, uint32_t objectRef0, uint32_t objectRef1,
                   uint32_t objectRef2, uint32_t objectRef3, const dstring* mainText,
                   const dstring* secondaryText, const char* messageClass, uint16_t priority,
                   const char* subject, uint32_t importance, uint32_t sensitivity,
                   uint32_t deferredSeconds, uint16_t deferredCompanion, uint32_t expirySeconds,
                   uint16_t expiryCompanion, uint32_t addressUpdate, uint32_t autoForwarded,
                   uint32_t recurrence) {
    ErTraceScope trace(TNEF_TRACE_CLASS, "tnef_UpdateTF");
    // Field-by-field I/O is buffered for the call; offsets are exact again on return.
    OsIoBatch ioBatch;
    const CollectedValues values{ItemRef{{objectRef0, objectRef1, objectRef2, objectRef3}},
                                 mainText,
                                 secondaryText,
                                 messageClass,
                                 priority,
                                 subject,
                                 importance,
                                 sensitivity,
                                 deferredSeconds,
                                 deferredCompanion,
                                 expirySeconds,
                                 expiryCompanion,
                                 autoForwarded,
                                 recurrence};
    const int16_t oldFile = *messageFile;
    // Until it replaces the caller's file the new one is ours: an escape removes it.
    TfFileOwner newFile(tf_CreateFile());
    newFile.discardItem();
    tf_UnreadFile(oldFile);

    SeenSoFar seen;
    bool inserted = false;
    TFREC record;
    while (tf_ReadRecord(oldFile, &record) != 0) {
        rewriteRecord(&record, values, addressUpdate, &seen);
        const int group = tf_WhichGroup(tf_GetType(&record));
        // The new records go before the first record past the header and address groups.
        if (group != 1 && group != 2 && !inserted) {
            appendNewRecords(newFile.get(), values, seen);
            inserted = true;
        }
        tf_AppendRecord(newFile.get(), &record);
    }
    if (!inserted) appendNewRecords(newFile.get(), values, seen);
    *messageFile = newFile.release();
}

void tnef_UpdateDL(ItemRef* messageFileRef) {
    ErTraceScope trace(TNEF_TRACE_CLASS, "tnef_UpdateDL");
    // Field-by-field I/O is buffered for the call; offsets are exact again on return.
    OsIoBatch ioBatch;
    TfFileOwner oldFile(tf_OpenFile(*messageFileRef, TF_OPEN_UPDATE));
    TfFileOwner newFile(tf_CreateFile());
    newFile.discardItem();
    TFREC record;
    while (tf_ReadRecord(oldFile.get(), &record) != 0) {
        if (isListEntry(tf_GetType(&record))) rewriteListEntry(&record);
        tf_AppendRecord(newFile.get(), &record);
    }
    tf_FlushFile(newFile.get());
    oldFile.close();
    tf_GetRef(newFile.get(), messageFileRef);
    newFile.close();
}

void tnef_UpdateMN(char* address) {
    ErTraceScope trace(TNEF_TRACE_CLASS, "tnef_UpdateMN");
    NmORName name;
    int status = 0;
    nm_ParseORN(address, &name, &status);
    std::string node;
    cl_ReadDefMNode(1, &node);
    if (!node.empty() && nm_CompareMailnodes(address, node.c_str(), 2, 1) != 0)
        mim_SetOrgUAddress(address, &name, 7);
}
