#include <array>
#include <cstring>
#include <string>

#include "tnef/platform/address.h"
#include "tnef/platform/cust_flags.h"
#include "tnef/platform/er_escape.h"
#include "tnef/platform/im_items.h"
#include "tnef/platform/mp_stored.h"
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
constexpr const char* kBodyName = "BDY.TXT";

// One embedded message's header values and groups, per call.
struct Nested {
    std::array<char, TNEF_TEXT_CAPACITY + 1> subject{};
    std::array<char, TNEF_TEXT_CAPACITY + 1> submissionId{};
    std::array<char, TNEF_TEXT_CAPACITY + 1> senderAddress{};
    std::array<char, TNEF_TEXT_CAPACITY + 1> scratch{};
    uint16_t priority = 0xFFFF;
    uint32_t importance = 0xFFFFFFFF;
    uint32_t sensitivity = 0xFFFFFFFF;
    uint32_t deferredTime = 0, expiryTime = 0, creationTime = 0;
    uint16_t deferredCompanion = 0, expiryCompanion = 0, creationCompanion = 0;
    TnefGroupFile header, detail, content;
};

// Priority, sensitivity and importance in the header record's flags word, each only when
// the stream gave it.
uint32_t headerFlags(const Nested& n) {
    uint32_t flags = 0;
    if (n.priority != 0xFFFF) flags |= (n.priority & 7u) << TNEF_HDR_PRIORITY_SHIFT;
    if (n.sensitivity != 0xFFFFFFFF) flags |= (n.sensitivity & 7u) << TNEF_HDR_SENSITIVITY_SHIFT;
    if (n.importance != 0xFFFFFFFF) flags |= (n.importance & 7u) << TNEF_HDR_IMPORTANCE_SHIFT;
    return flags;
}

void appendWrapped(int16_t tf, const TFREC& record) {
    TFREC wrapped;
    tf_WrapRecord(&record, &wrapped);
    tf_AppendRecord(tf, &wrapped);
}

void appendTimeRecord(int16_t tf, uint32_t type, uint32_t seconds, uint16_t companion) {
    if (seconds == 0) return;
    TFREC record;
    tf_InitRecord(&record, type);
    tf_PutINT32(&record, 16, seconds);
    tf_PutINT16(&record, 20, companion);
    appendWrapped(tf, record);
}

// The header record and the detail records of one attMAPIProps.
void appendPropertyRecords(Nested& n) {
    TFREC record;
    tf_InitRecord(&record, TFREC_HEADER);
    tf_PutINT16(&record, 16, 3);
    tf_PutINT32(&record, 24, headerFlags(n));
    tf_PutINT32(&record, 28, 1);
    tf_PutINT32(&record, 42, 2);
    appendWrapped(n.header.get(), record);

    const int16_t detail = n.detail.get();
    std::string address(std::strlen(n.senderAddress.data()) + 1, '\0');
    std::string scratch(address.size(), '\0');
    mim_ArpaToORN(n.senderAddress.data(), address.data(), scratch.data(), 1);
    tf_InitRecord(&record, TFREC_ORIGINATOR);
    tf_PutString(&record, 36, nullptr, address.c_str());
    appendWrapped(detail, record);
    if (n.submissionId[0] != '\0') {
        tf_InitRecord(&record, TFREC_SUBMISSION_ID);
        tf_PutString(&record, 18, nullptr, n.submissionId.data());
        appendWrapped(detail, record);
    }
    appendTimeRecord(detail, TFREC_CREATION_TIME, n.creationTime, n.creationCompanion);
    appendTimeRecord(detail, TFREC_EXPIRY_TIME, n.expiryTime, n.expiryCompanion);
    appendTimeRecord(detail, TFREC_DEFERRED_TIME, n.deferredTime, n.deferredCompanion);
}

// A priority that arrives after attMAPIProps rewrites the header record already written.
void updateHeaderPriority(Nested& n) {
    if (!n.header.exists()) return;
    const int16_t tf = n.header.get();
    tf_UnreadFile(tf);
    TFREC record;
    if (tf_ReadRecord(tf, &record) == 0) return;
    const uint32_t flags = (tf_GetINT32(&record, 24) & ~7u) | (n.priority & 7u);
    tf_PutINT32(&record, 24, flags);
    tf_OverwriteRecord(tf, &record);
}

bool readText(int fd, char* buffer) {
    uint32_t length = 0;
    if (!tnef_ReadU32(fd, &length)) return false;
    const int64_t n = tnef_ReadBounded(fd, buffer, length, TNEF_TEXT_CAPACITY);
    buffer[n > 0 ? n : 0] = '\0';
    return n == static_cast<int64_t>(length) && tnef_SkipChecksum(fd);
}

bool takeBody(int fd, int16_t message, Nested& n) {
    uint32_t length = 0;
    if (!tnef_ReadU32(fd, &length)) return false;
    TnefDataItem body;
    tnef_StreamToDataItem(fd, length, &body);
    tnef_AppendContentFile(n.content.get(), TF_CONTENT_TEXT, kBodyName, kBodyName, "");
    Msg_AttachFile(message, body.item->ref());
    body.item->release();
    return body.complete && tnef_SkipChecksum(fd);
}

bool takeSubject(int fd, Nested& n) {
    const bool whole = readText(fd, n.subject.data());
    TFREC record;
    tf_MakeSubjectRec(&record, TFREC_SUBJECT, n.subject.data(), n.subject.data(), 0, 0, 0, 0);
    tf_AppendRecord(n.detail.get(), &record);
    return whole;
}

bool takeMessageClass(int fd, Nested& n) {
    const bool whole = readText(fd, n.scratch.data());
    if (!cust_PresentAndTrue("UXI_PRESERVE_MAPI_MSG_CLASS")) tnef_InMapMsgClass(n.scratch.data());
    TFREC record;
    tf_InitRecord(&record, TFREC_CLASS);
    tf_PutString(&record, 16, nullptr, n.scratch.data());
    appendWrapped(n.detail.get(), record);
    return whole;
}

// attRequestRes inside an embedded message: a 16-bit value only.
bool takeRequestRes(int fd, dstring* secondaryText) {
    tnef_AppendHexKey(secondaryText, PR_RESPONSE_REQUESTED);
    uint32_t length = 0;
    if (!tnef_ReadU32(fd, &length)) return false;
    uint8_t value[2] = {};
    const int64_t n = tnef_ReadBounded(fd, value, length, 2);
    tnef_AppendHexValueEnd(secondaryText, tnef_GetU16(value));
    return n == static_cast<int64_t>(length) && tnef_SkipChecksum(fd);
}

// The attachment property item's whole content, after the header, into the object file.
void copyPropertyItem(int propFd, int objectFd) {
    os_lseek64(propFd, 0, 0);
    std::array<uint8_t, TNEF_COPY_CHUNK> chunk;
    for (int64_t n; (n = os_read(propFd, chunk.data(), TNEF_COPY_CHUNK)) > 0;)
        os_write(objectFd, chunk.data(), n);
}

// The package: start record, groups that received records, end record.
void appendPackage(int16_t messageFile, Nested& n) {
    TFREC record;
    tf_MakeStartPkgRec(&record, 1, n.subject.data(), "", "", 0, 0, 3, -100, 0);
    tf_AppendRecord(messageFile, &record);
    if (n.header.exists()) tnef_CopyRecords(messageFile, n.header.get());
    tnef_CopyRecords(messageFile, n.detail.get());
    if (n.content.exists()) tnef_CopyRecords(messageFile, n.content.get());
    tf_InitRecord(&record, TFREC_END_PACKAGE);
    tf_AppendRecord(messageFile, &record);
}

}  // namespace

void tnef_ParseNestedTNEF(int streamFd, int16_t messageFile, int16_t message, int attachPropFd,
                          dstring* mainText, dstring* secondaryText, uint32_t codePage) {
    ErTraceScope trace(TNEF_TRACE_CLASS, "tnef_ParseNestedTNEF");
    const TnefSlotsForgotten slots;
    ItemRef objectRef{};
    OsFd object(im_CrNewTempItem(&objectRef));
    ImItemOwner objectItem(objectRef);
    tnef_SetOemCodePage(object.get(), streamFd);
    copyPropertyItem(attachPropFd, object.get());

    Nested n;
    const TnefAttachTarget target{object.get(), streamFd, message, &n.content, codePage, true};
    TnefAttachState st;
    uint32_t autoForwarded = 0, recurrence = 0;
    uint16_t deliveryReport = 0, readReceipt = 0;

    uint8_t level = 0;
    uint32_t id = 0;
    bool more = true;
    int64_t recordAt = os_lseek64(streamFd, 0, 1);
    while (more && tnef_ReadRecordHead(streamFd, &level, &id)) {
        switch (id) {
            case attAidOwner: more = tnef_TakeAidOwner(streamFd, secondaryText); break;
            case attBody: more = takeBody(streamFd, message, n); break;
            case attSubject: more = takeSubject(streamFd, n); break;
            case attAttachTitle:
            case attRecipTable: more = tnef_AddToObjectFile(object.get(), streamFd, id, level); break;
            case attRequestRes: more = takeRequestRes(streamFd, secondaryText); break;
            case attPriority:
                n.scratch.fill(0);
                more = readText(streamFd, n.scratch.data());
                n.priority = tnef_MapPriority(tnef_GetU16(reinterpret_cast<uint8_t*>(n.scratch.data())));
                updateHeaderPriority(n);
                break;
            case attMAPIProps:
                tnef_ParseMAPIProps(object.get(), streamFd, mainText, secondaryText, &n.importance,
                                    &n.sensitivity, &deliveryReport, &readReceipt, &n.deferredTime,
                                    &n.deferredCompanion, &n.expiryTime, &n.expiryCompanion,
                                    &n.creationTime, &n.creationCompanion, n.submissionId.data(),
                                    n.senderAddress.data(), &autoForwarded, &recurrence);
                appendPropertyRecords(n);
                more = tnef_SkipChecksum(streamFd);
                break;
            case attMessageClass: more = takeMessageClass(streamFd, n); break;
            case attAttachRenddata: {
                uint16_t type = 0;
                more = tnef_TakeRenddata(object.get(), streamFd, level, &type);
                st.extract = type != 2 ? 1 : 0;
                break;
            }
            case attAttachData:
                if (!st.extract) ++tnefDecodeReport.keptInObjectFile;
                more = st.extract ? tnef_TakeAttachData(st, target)
                                  : tnef_AddToObjectFile(object.get(), streamFd, id, level);
                break;
            case attAttachment:
                if (st.extract) {
                    bool file = false;
                    more = tnef_TakeAttachment(st, target, kUntitled, &file);
                } else {
                    more = tnef_AddToObjectFile(object.get(), streamFd, id, level);
                }
                break;
            default: more = readText(streamFd, n.scratch.data()); break;
        }
        if (more) recordAt = os_lseek64(streamFd, 0, 1);
    }
    if (tnef_EndedInsideRecord(streamFd, recordAt, more)) ++tnefDecodeReport.embeddedCutShort;
    tnef_EndAttachment(st);

    object.close();
    const int16_t detail = n.detail.get();
    if (!tnefSuppressMapiData) {
        mp_PutObjectFile("MAPI.ObjectProperties", objectRef, detail, 1, 1);
        mp_PutMAPIPropsData(1, 0, mainText, detail, 1, 1, 0);
        mp_PutMAPIPropsData(0, 0, secondaryText, detail, 1, 1, 1);
    }
    appendPackage(messageFile, n);
    dstring_free(mainText);
    dstring_free(secondaryText);
}
