#include <fcntl.h>

#include <algorithm>
#include <array>
#include <exception>
#include <cstring>
#include <string>

#include "tnef/platform/cust_flags.h"
#include "tnef/platform/er_escape.h"
#include "tnef/platform/im_items.h"
#include "tnef/platform/msg_store.h"
#include "tnef/platform/os_file.h"
#include "tnef/platform/tf_msgfile.h"
#include "tnef/tnef.h"
#include "tnef_decode/tnef_attach.h"
#include "tnef_decode/tnef_bounded_read.h"
#include "tnef_decode/tnef_classmap.h"
#include "tnef_decode/tnef_mapiprops.h"
#include "tnef_decode/tnef_parse.h"
#include "tnef_decode/tnef_records.h"
#include "tnef_decode/tnef_update.h"
#include "tnef_defs.h"
#include "tnef_propstream.h"

namespace {

constexpr const char* kUntitled = "untitled-attachment";

// The out values of the top-level parse.
struct TopOuts {
    char* messageClass;
    uint16_t* priority;
    char* subject;
    uint16_t* replyRequested;
    uint32_t* importance;
    uint32_t* sensitivity;
    uint16_t* deliveryReport;
    uint16_t* readReceipt;
    uint32_t* deferredTime;
    uint16_t* deferredCompanion;
    uint32_t* expiryTime;
    uint16_t* expiryCompanion;
    uint32_t* autoForwarded;
    uint32_t* recurrence;
};

// Reads a record's data into a text buffer of capacity + 1 bytes, NUL-terminated. False when
// the stream ended inside the record (checksum included).
bool readText(int fd, char* buffer, uint32_t capacity) {
    uint32_t length = 0;
    if (!tnef_ReadU32(fd, &length)) return false;
    const int64_t n = tnef_ReadBounded(fd, buffer, length, capacity);
    buffer[n > 0 ? n : 0] = '\0';
    return n == static_cast<int64_t>(length) && tnef_SkipChecksum(fd);
}

// attAttachTitle: copied whole into the object file, its text kept as the title.
bool takeTitle(int objectFd, int tnefFd, uint8_t level, char* title) {
    uint32_t length = 0;
    if (!tnef_ReadU32(tnefFd, &length)) return false;
    const int64_t n = tnef_ReadBounded(tnefFd, title, length, TNEF_NAME_CAPACITY);
    title[n > 0 ? n : 0] = '\0';
    uint8_t checksum[2] = {};
    const bool whole = n == static_cast<int64_t>(length) && os_read(tnefFd, checksum, 2) == 2;
    if (!whole) return false;
    uint8_t head[9];
    head[0] = level;
    tnef_PutU32(head + 1, attAttachTitle);
    tnef_PutU32(head + 5, length);
    os_write(objectFd, head, sizeof head);
    os_write(objectFd, title, length);
    os_write(objectFd, checksum, 2);
    return true;
}

// attRequestRes: a 16-bit flag, or two 16-bit words of which the first counts.
bool takeRequestRes(int tnefFd, dstring* secondaryText, uint16_t* replyRequested) {
    tnef_AppendHexKey(secondaryText, PR_RESPONSE_REQUESTED);
    uint32_t length = 0;
    if (!tnef_ReadU32(tnefFd, &length)) return false;
    uint8_t value[4] = {};
    const int64_t n = length == 4 ? os_read(tnefFd, value, 4) : tnef_ReadBounded(tnefFd, value, length, 2);
    const uint16_t flag = tnef_GetU16(value);
    tnef_AppendHexValueEnd(secondaryText, flag);
    *replyRequested = flag;
    return n == static_cast<int64_t>(length) && tnef_SkipChecksum(tnefFd);
}

bool takeMessageClass(int tnefFd, char* messageClass) {
    const bool whole = readText(tnefFd, messageClass, TNEF_TEXT_CAPACITY);
    if (!cust_PresentAndTrue("UXI_PRESERVE_MAPI_MSG_CLASS")) tnef_InMapMsgClass(messageClass);
    return whole;
}

bool skipRecord(int tnefFd) {
    uint32_t length = 0;
    if (!tnef_ReadU32(tnefFd, &length)) return false;
    const int64_t size = os_fsize(tnefFd);
    const int64_t to = os_lseek64(tnefFd, static_cast<int64_t>(length) + 2, 1);
    return size < 0 || to <= size;
}

bool isAttachmentAttribute(uint32_t id) {
    return id == attAttachData || id == attAttachMetaFile || id == attAttachTransportFilename ||
           id == attAttachCreateDate || id == attAttachModifyDate || id == attAttachment;
}

// Takes back, when an escape ends the decode, the parts it linked to the message and the
// names of their data items, last first, so the store is as the decode found it.
class LinkedPartsRollback {
public:
    LinkedPartsRollback() : escapes_(std::uncaught_exceptions()) { tnefLinkedParts.clear(); }
    ~LinkedPartsRollback() {
        if (std::uncaught_exceptions() > escapes_) {
            for (auto it = tnefLinkedParts.rbegin(); it != tnefLinkedParts.rend(); ++it) {
                try {
                    Msg_DetachFile(it->message, it->part);
                    im_UnlinkItem(it->ref);
                } catch (const Escape&) {
                    // The escape in flight is the one the caller gets.
                }
            }
        }
        tnefLinkedParts.clear();
    }
    LinkedPartsRollback(const LinkedPartsRollback&) = delete;
    LinkedPartsRollback& operator=(const LinkedPartsRollback&) = delete;

private:
    int escapes_;
};

}  // namespace

void tnef_ParseTNEF(int objectFd, int tnefFd, dstring* mainText, dstring* secondaryText,
                    char* messageClass, uint16_t* priority, char* subject,
                    uint16_t* replyRequested, uint32_t* importance, uint32_t* sensitivity,
                    uint16_t* deliveryReport, uint16_t* readReceipt, uint32_t* deferredTime,
                    uint16_t* deferredCompanion, uint32_t* expiryTime, uint16_t* expiryCompanion,
                    int16_t message, int16_t messageFile, uint32_t codePage,
                    uint32_t* autoForwarded, uint32_t* recurrence) {
    ErTraceScope trace(TNEF_TRACE_CLASS, "tnef_ParseTNEF");
    tnef_ForgetSetSlots();
    const TopOuts out{messageClass,  priority,     subject,        replyRequested, importance,
                      sensitivity,   deliveryReport, readReceipt,  deferredTime,
                      deferredCompanion, expiryTime, expiryCompanion, autoForwarded, recurrence};
    TnefGroupFile content(messageFile);
    const TnefAttachTarget target{objectFd, tnefFd, message, &content, codePage, false};
    TnefAttachState st;
    std::array<char, TNEF_NAME_CAPACITY + 1> title{};
    std::array<char, TNEF_TEXT_CAPACITY + 1> scratch;
    // Unused at the top level, but the property decoder fills them.
    std::array<char, TNEF_TEXT_CAPACITY + 1> submissionId{};
    std::array<char, TNEF_TEXT_CAPACITY + 1> senderAddress{};
    uint32_t creationTime = 0;
    uint16_t creationCompanion = 0;

    uint8_t level = 0;
    uint32_t id = 0;
    bool more = true;
    // Where each record begins, so that a stream cut short can be reported with its offset.
    int64_t recordAt = 0;
    const auto nextRecord = [&] {
        recordAt = os_lseek64(tnefFd, 0, 1);
        return tnef_ReadRecordHead(tnefFd, &level, &id);
    };
    while (more && nextRecord()) {
        ++tnefDecodeReport.records;
        if (isAttachmentAttribute(id)) {
            if (!st.extract) {
                if (id == attAttachData) ++tnefDecodeReport.keptInObjectFile;
                more = tnef_AddToObjectFile(objectFd, tnefFd, id, level);
            } else if (id == attAttachData) {
                more = tnef_TakeAttachData(st, target);
            } else if (id == attAttachment) {
                bool file = false;
                more = tnef_TakeAttachment(st, target, title[0] != '\0' ? title.data() : kUntitled, &file);
                if (file) title[0] = '\0';
            } else {
                more = skipRecord(tnefFd);
            }
            continue;
        }
        switch (id) {
            case attAttachTitle:
                more = takeTitle(objectFd, tnefFd, level, title.data());
                break;
            case attAttachRenddata: {
                uint16_t type = 0;
                tnef_EndAttachment(st);
                more = tnef_TakeRenddata(objectFd, tnefFd, level, &type);
                // An OLE object (type 2) is kept whole in the object file, never extracted.
                st.extract = type != 2 ? 1 : 0;
                st.dataReady = 0;
                st.propertiesDone = 0;
                break;
            }
            case attMAPIProps:
                tnef_ParseMAPIProps(objectFd, tnefFd, mainText, secondaryText, out.importance,
                                    out.sensitivity, out.deliveryReport, out.readReceipt,
                                    out.deferredTime, out.deferredCompanion, out.expiryTime,
                                    out.expiryCompanion, &creationTime, &creationCompanion,
                                    submissionId.data(), senderAddress.data(), out.autoForwarded,
                                    out.recurrence);
                more = tnef_SkipChecksum(tnefFd);
                break;
            case attRecipTable:
                more = tnef_AddToObjectFile(objectFd, tnefFd, id, level);
                break;
            case attRequestRes:
                more = takeRequestRes(tnefFd, secondaryText, out.replyRequested);
                break;
            case attAidOwner:
                more = tnef_TakeAidOwner(tnefFd, secondaryText);
                break;
            case attSubject:
                more = readText(tnefFd, out.subject, TNEF_TEXT_CAPACITY);
                break;
            case attPriority:
                scratch.fill(0);
                more = readText(tnefFd, scratch.data(), TNEF_TEXT_CAPACITY);
                *out.priority = tnef_MapPriority(tnef_GetU16(reinterpret_cast<uint8_t*>(scratch.data())));
                break;
            case attMessageClass:
                more = takeMessageClass(tnefFd, out.messageClass);
                break;
            default:
                more = readText(tnefFd, scratch.data(), TNEF_TEXT_CAPACITY);
                break;
        }
    }
    if (!more) --tnefDecodeReport.records;
    if (tnef_EndedInsideRecord(tnefFd, recordAt, more)) {
        tnefDecodeReport.cutAt = recordAt;
        tnefDecodeReport.bytesNotDecoded = static_cast<uint64_t>(os_fsize(tnefFd) - recordAt);
    }
    tnef_EndAttachment(st);
}

namespace {

// Header values as the decode presets them, before the stream says otherwise.
struct DecodeValues {
    std::array<char, TNEF_TEXT_CAPACITY + 1> messageClass{};
    std::array<char, TNEF_TEXT_CAPACITY + 1> subject{};
    uint16_t priority = 0xFFFF;
    uint16_t replyRequested = 0;
    uint32_t importance = 0xFFFFFFFF;
    uint32_t sensitivity = 0xFFFFFFFF;
    uint16_t deliveryReport = 0;
    uint16_t readReceipt = 0;
    uint32_t deferredTime = 0;
    uint16_t deferredCompanion = 0;
    uint32_t expiryTime = 0;
    uint16_t expiryCompanion = 0;
    uint32_t autoForwarded = 0;
    uint32_t recurrence = 0;
};

}  // namespace

void tnef_Decode(int16_t message, int16_t* messageFile, const char* path, uint16_t* receipt,
                 uint32_t* replyRequested, uint32_t addressUpdate, uint32_t suppressMapiData) {
    ErTraceScope trace(TNEF_TRACE_CLASS, "tnef_Decode");
    // Field-by-field I/O is buffered for the call; offsets are exact again on return.
    OsIoBatch ioBatch;
    tnefSuppressMapiData = static_cast<int>(suppressMapiData);
    tnefDecodeReport = TnefDecodeReport{};
    tnefDecodeReport.cutAt = -1;
    OsFd tnef(os_open(path, O_RDONLY, 0));
    tnefDecodeReport.fileBytes = static_cast<uint64_t>(std::max<int64_t>(os_fsize(tnef.get()), 0));

    const LinkedPartsRollback rollback;
    ItemRef objectRef{};
    uint32_t kind = 0;
    os_close(im_CrNewDataItem(&kind, &objectRef));
    // The decode's own name of the object file goes in the end, whatever happens; the
    // message keeps the object through the link that storing it makes.
    ImItemOwner objectItem(objectRef);
    OsFd object(os_open(im_ItemRef2FName(objectRef).c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0660));

    const uint32_t codePage = tnef_SetOemCodePage(object.get(), tnef.get());

    // The parse appends to a working copy of the caller's message file, so an escape leaves
    // the caller's file exactly as it was.
    TfFileOwner work(tnef_NewTempMessageFile());
    work.discardItem();
    tnef_CopyRecords(work.get(), *messageFile);
    dstring mainText;
    dstring secondaryText;
    DecodeValues v;
    tnef_ParseTNEF(object.get(), tnef.get(), &mainText, &secondaryText, v.messageClass.data(),
                   &v.priority, v.subject.data(), &v.replyRequested, &v.importance,
                   &v.sensitivity, &v.deliveryReport, &v.readReceipt, &v.deferredTime,
                   &v.deferredCompanion, &v.expiryTime, &v.expiryCompanion, message, work.get(),
                   codePage, &v.autoForwarded, &v.recurrence);
    object.close();

    int16_t updated = work.get();
    tnef_UpdateTF(&updated, objectRef.w[0], objectRef.w[1], objectRef.w[2], objectRef.w[3],
                  &mainText, &secondaryText, v.messageClass.data(), v.priority, v.subject.data(),
                  v.importance, v.sensitivity, v.deferredTime, v.deferredCompanion, v.expiryTime,
                  v.expiryCompanion, addressUpdate, v.autoForwarded, v.recurrence);
    *messageFile = updated;

    if (v.deliveryReport != 0) *receipt = 4;
    if (v.readReceipt != 0) *receipt = 7;
    if (v.replyRequested != 0) *replyRequested = 1;
}
