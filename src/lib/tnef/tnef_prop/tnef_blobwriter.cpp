#include "tnef_prop/tnef_blobwriter.h"

#include "tnef/platform/cust_flags.h"
#include "tnef/platform/er_escape.h"
#include "tnef/platform/os_file.h"
#include "tnef/tnef.h"
#include "tnef_defs.h"
#include "tnef_prop/tnef_proplog.h"
#include "tnef_propstream.h"

namespace {

// The blob writer always declares the Western code page, whatever the texts hold: they
// carry no code page of their own.
constexpr uint32_t kBlobCodePage = 1252;

// Closes the prop log however the call ends, so an escape does not leave it open for the
// next call of the process.
struct PropLogSession {
    PropLogSession() { tnef_OpenPropLog(); }
    ~PropLogSession() { tnef_ClosePropLog(); }
    PropLogSession(const PropLogSession&) = delete;
    PropLogSession& operator=(const PropLogSession&) = delete;
};

// A flag counts as set only when the lookup gives exactly 1.
bool flagIsTrue(const char* name) {
    return cust_GetBoolean(name, 1, 0, 0) == 1;
}

}  // namespace

void tnef_WriteOemCodePageAttr(int fd, uint32_t codePage, uint8_t level) {
    uint8_t record[9 + 8 + 2];
    record[0] = level;
    tnef_PutU32(record + 1, attOemCodepage);
    tnef_PutU32(record + 5, 8);
    tnef_PutU32(record + 9, codePage);
    tnef_PutU32(record + 13, 0);
    tnef_PutU16(record + 17, tnef_Checksum(record + 9, 8));
    os_write(fd, record, sizeof record);
}

void tnef_AddPropsFromBlob(int fd, const char* blob, uint8_t level) {
    ErTraceScope trace(TNEF_TRACE_CLASS, "tnef_AddPropsFromBlob");
    if (blob == nullptr || blob[0] == '\0') return;
    const int64_t lengthPosition = tnef_BeginBlobAttribute(fd, level, attMAPIProps);
    tnef_AddPropSequence(fd, blob);
    tnef_EndBlobAttribute(fd, lengthPosition);
}

int tnef_WriteBrenvoProps2ObjectFile(int fd, int savedFd, const char* propsBlob,
                                     const char* attachBlob, const char* recipsBlob) {
    ErTraceScope trace(TNEF_TRACE_CLASS, "tnef_WriteBrenvoProps2ObjectFile");
    // Field-by-field I/O is buffered for the call; offsets are exact again on return.
    OsIoBatch ioBatch;
    PropLogSession log;
    tnef_Create(fd);
    tnef_WriteOemCodePageAttr(fd, kBlobCodePage, LVL_MESSAGE);
    tnef_AddRecipTableFromBlob(fd, recipsBlob, LVL_MESSAGE);
    tnef_AddPropsFromBlob(fd, propsBlob, LVL_MESSAGE);
    if (attachBlob != nullptr && flagIsTrue("MAPIXML_WRITE_ATTACHTABLE")) {
        tnef_AddAttachTableFromBlob(fd, attachBlob, LVL_ATTACHMENT);
    } else if (flagIsTrue("MAPIXML_PRESERVE_ATTACHMENT_ATTRIBS")) {
        tnef_WriteSavedAttribs2Tnef(fd, savedFd);
    }
    return 1;
}
