// The TNEF codec: exported functions and data.
//
// Every function runs to completion on the caller's thread. Failures are escapes
// (tnef/platform/er_escape.h): group 102 reason 1546 when data is longer than the buffer it
// is read into, group 102 reason 1531 for a stream that does not begin with the TNEF
// signature, group 100 (reason errno) when a file operation fails. The codec keeps some
// process-wide state (the class map, the writer state), so one process runs one codec
// operation at a time.
#pragma once

#include <cstdint>
#include <cstdio>

// Everything this header declares is part of the library's exported interface.
#pragma GCC visibility push(default)

// ---- Stream helpers ------------------------------------------------------------------------

// 16-bit sum of length data bytes, wrapping; 0 when length is 0 or less.
uint16_t tnef_Checksum(const void* data, int32_t length);

// A MAPI time: 100-nanosecond intervals since 1601-01-01 UTC, as its two 32-bit halves.
struct TnefMapiTime {
    uint32_t low;
    uint32_t high;
};

// Unix seconds (the 16-bit companion is ignored) to MAPI time.
TnefMapiTime tnef_ConvertDate(uint32_t seconds, uint16_t companion);
// MAPI time to Unix seconds, clamped above at 2147483647; the companion is always set to 0.
void tnef_ConvertDateToUX(uint32_t* seconds, uint16_t* companion, uint32_t low, int32_t high);

// Checks the signature of the stream on inFd (escape 102/1531, before anything is written,
// when it is missing), copies the header and the leading attTnefVersion and attOemCodepage
// records to outFd, and returns the stream's OEM code page (437 when it names none). The
// input is left at the first record not copied.
uint32_t tnef_SetOemCodePage(int outFd, int inFd);

// ---- Decoding ------------------------------------------------------------------------------

// Decodes the TNEF file at path, received with message, into the server's form: attachments
// become data items linked to message, embedded messages packages of records, header values
// records of the message file, and the MAPI properties two property texts stored with it
// together with the object file that keeps the stream's other records (unless
// suppressMapiData is non-zero). *messageFile is read, not changed: on return it is replaced
// by the handle of the new message file (the caller closes both). receipt becomes 4 when a
// delivery report is asked for and 7 when a read receipt is; replyRequested becomes 1 when
// a reply is; both are left alone otherwise. addressUpdate non-zero rewrites local addresses.
// Escapes: 102/1531 (not TNEF), 102/1546 (data longer than its buffer), 100/errno, the
// store's 103/x. On an escape every descriptor is closed and every item the decode made and
// had not linked to the message is removed; the caller's message file is untouched.
void tnef_Decode(int16_t message, int16_t* messageFile, const char* path, uint16_t* receipt,
                 uint32_t* replyRequested, uint32_t addressUpdate, uint32_t suppressMapiData);

// What the last tnef_Decode of this process did not store as parts of the message, so a
// caller can say so. Counting changes nothing the decode does; a decode that escapes leaves
// the counts of what it had read.
struct TnefDecodeReport {
    uint32_t records;                // top-level records read whole
    uint32_t attachmentsLinked;      // attachment data linked to the message, at every depth
    uint32_t dataWithoutProperties;  // attachment data no attAttachment completed: dropped
    uint32_t propertiesWithoutData;  // file attachments whose data never came
    uint32_t keptInObjectFile;       // attachment data kept only in the object file (OLE
                                     // objects, data before any rendering record)
    uint32_t embeddedCutShort;       // embedded messages whose stream ends inside a record
    int64_t cutAt;                   // offset of the record the end of the file cuts short,
                                     // -1 when the stream ends between records
    uint64_t bytesNotDecoded;        // from cutAt to the end of the file
    uint64_t fileBytes;              // the file's size; below 17 it holds no whole record
};
void tnef_GetDecodeReport(TnefDecodeReport* report);

// ---- Message class map ("~/sys/mapiclass.map", loaded once per process) -------------------

// Replaces a MAPI class by the server's class, in place; unknown classes stay unchanged.
// The buffer must hold 256 bytes.
void tnef_InMapMsgClass(char* messageClass);
// Replaces a server class by the MAPI class, in place.
void tnef_OutMapMsgClass(char* messageClass);

// ---- Property texts ------------------------------------------------------------------------

// Escapes length bytes of source into destination (which holds 2 * length bytes): bytes
// below 0x20 become 0x1B and the byte plus 0x40. Returns the bytes written.
int32_t tnef_EncodeBinary(char* destination, const void* source, int32_t length);

// ---- Attribute writers ---------------------------------------------------------------------
// They write straight to fd, at its end, and raise the platform's escapes on I/O failure.

// The stream header and the attTnefVersion record (21 bytes).
void tnef_Create(int fd);
// One message-level record: level 1, id, length, data, checksum.
void tnef_AddMsgAttribute(int fd, uint32_t attribute, uint32_t length, const void* data);
// An attMAPIProps record holding one property (nothing for the suppressed tags). For
// PT_STRING8 the length includes the NUL; for PT_I2 and PT_BOOLEAN it is 2.
void tnef_AddMAPIPropsAttribute(int fd, uint32_t tag, int32_t length, const void* value);
// The value part of such a record (value count, value length, value, padding).
void tnef_AddMAPIPropsData(int fd, uint32_t tag, int32_t length, const void* value);
// An attMAPIProps record holding one named property; its id is the next of the process's
// named-property ids (0x8000 up to 0xFFFE, then 0x8000 again). kind 0: name holds the 4-byte
// numeric name; kind 1: the UTF-16LE name with its 2-byte NUL.
void tnef_AddMAPINamedPropsAttr(int fd, const void* name, int32_t nameLength, uint16_t type,
                                const uint8_t guid[16], int32_t valueLength, const void* value,
                                uint32_t kind);
// Appends one more value to the record written last and patches its length, value count
// (the new total) and checksum. fixedSize non-zero: no value-length field is written.
void tnef_UpdateMAPIPropsData(int fd, uint32_t valueCount, int32_t length, const void* value,
                              int fixedSize);

// ---- Encoding ------------------------------------------------------------------------------

// Writes the message held in the message file messageFile (of message messageId) as a TNEF
// stream to outFd, which is empty and open for reading, writing and seeking. *resultWord is
// set to 0. Returns 0 when nothing is to be sent (no content for a TNEF, or the stream is to
// be dropped), 1 otherwise. Escapes from a body part's content are accepted and the part is
// skipped; others (102/1531 for an object file that is not TNEF, 100/errno) reach the caller.
int tnef_Encode(int16_t messageFile, int outFd, uint32_t reserved, uint32_t* resultWord,
                int16_t messageId);

// Writes every property of a stored property text (length bytes, NUL-terminated) as
// attMAPIProps records to outFd. The text is changed in place (separators become NUL).
void tnef_ParseData(int outFd, char* text, uint32_t length);

// Copies the object file on objectFd to outFd, without the stream header and the leading
// attTnefVersion and attOemCodepage records (which tnef_SetOemCodePage already wrote).
void tnef_ParseObject(int outFd, int objectFd, uint32_t objectSize);

// ---- Scanning ------------------------------------------------------------------------------

// One per attAttachment record of a scanned file, linked in stream order.
struct TnefAttachScan {
    TnefAttachScan* next;
    uint32_t hasData;    // 1 when PR_ATTACH_DATA_OBJ or PR_ATTACH_DATA_BIN is present
    char* longFileName;  // PR_ATTACH_LONG_FILENAME (else the transport name or title), or null
    char* fileName;      // PR_ATTACH_FILENAME, or null
};

// Walks the TNEF file on fd attribute by attribute and returns 1 when an attribute id or
// property tag equals wantedTag, else 0. Appends one attachment scan record per attAttachment
// to *list (the caller frees it with tnef_FreeScanList). Writes a line per attribute to
// TraceF when "~/tmp/tnefout.log" exists. The file is left at offset 0.
int tnef_ScanTnef(int fd, uint32_t wantedTag, TnefAttachScan** list);
// Frees every record of the list and its names, and sets *list to null.
void tnef_FreeScanList(TnefAttachScan** list);
// Owns a scan list: pass &head to tnef_ScanTnef; the list is freed when the owner goes.
struct TnefScanList {
    TnefAttachScan* head = nullptr;
    TnefScanList() = default;
    TnefScanList(const TnefScanList&) = delete;
    TnefScanList& operator=(const TnefScanList&) = delete;
    ~TnefScanList() { tnef_FreeScanList(&head); }
};

// ---- Property extraction -------------------------------------------------------------------

// Walks the TNEF file on fd and returns, as property blob text, the requested property or
// (request "GET-ALL") every message property through *propsOut, the recipient table through
// *recipsOut and the attachment table through *attachOut (each may be null when not wanted).
// request is "GET-ALL", a hexadecimal property tag ("37010102") or "#type/id" for a named
// property with a numeric name ("#3/8205"). Returned texts are new strings the caller frees
// with free(). Returns 1 when the property was found (for "GET-ALL": when a message property
// was rendered), else 0. The file is left at offset 0. fileName is used only in the log.
int tnef_GetProp(int fd, const char* request, char** propsOut, char** recipsOut,
                 char** attachOut, const char* fileName);

// ---- Blob writer ---------------------------------------------------------------------------

// Writes a complete TNEF stream at fd's position from the property, attachment-table and
// recipient-table blobs that tnef_GetProp returns (each may be null). savedFd is a TNEF file
// whose attachment attributes are kept when the attachment blob is not written, or -1. fd
// must be readable too: checksums are computed by reading back. Returns 1.
int tnef_WriteBrenvoProps2ObjectFile(int fd, int savedFd, const char* propsBlob,
                                     const char* attachBlob, const char* recipsBlob);

// ---- Message file update -------------------------------------------------------------------
// The message file is the platform's (tnef/platform/tf_msgfile.h); these run after a decode.

struct dstring;
struct ItemRef;

// Copies the message file *messageFile record by record into a new one and stores the new
// handle through messageFile; the old file is neither closed nor removed (the caller owns
// it). On the way: the header record's flags word (1100) takes the priority (unless 0xFFFF),
// importance and sensitivity (unless 0xFFFFFFFF) codes and the auto-forwarded bit; with
// addressUpdate non-zero, addresses of the local default mail node are rewritten to the
// local form (10000, 10005, 15000, 16100) and, when UXI_PASSIVE_RECIPS_MAPI_ENABLED is
// true, recipients (15000) get bit 0 of their flags word. Before the first record outside
// the header and address groups (or at the end) it inserts a subject (11100), class
// (11200), expiry (13700) and deferred delivery (14100) record where the values are given
// and no such record came before, then, unless the decode suppresses MAPI data, the object
// file (stored as "MAPI.ObjectProperties") and the two property texts (the secondary one
// flagged 2 when recurrence is non-zero). Raises the platform's escapes (100/errno, 103/x,
// 102/1546 for a text that no longer fits its record); the new file is removed then.
void tnef_UpdateTF(int16_t* messageFile, uint32_t objectRef0, uint32_t objectRef1,
                   uint32_t objectRef2, uint32_t objectRef3, const dstring* mainText,
                   const dstring* secondaryText, const char* messageClass, uint16_t priority,
                   const char* subject, uint32_t importance, uint32_t sensitivity,
                   uint32_t deferredSeconds, uint16_t deferredCompanion, uint32_t expirySeconds,
                   uint16_t expiryCompanion, uint32_t addressUpdate, uint32_t autoForwarded,
                   uint32_t recurrence);

// Rewrites the distribution-list entries (22000, 22100, 22200, 22300) of the message file
// the reference names into a new message file, whose reference replaces *messageFileRef:
// the entry's address as tnef_UpdateMN does, and bit 12 of its flags word when
// UXI_PASSIVE_RECIPS_MAPI_ENABLED is true. The old file's item stays (the caller's).
void tnef_UpdateDL(ItemRef* messageFileRef);

// Rewrites address (a NUL-terminated text in a buffer of 4080 bytes) in place to the local
// form when it names the local default mail node (~/sys/mailnode); otherwise, and when no
// node is configured, leaves it unchanged.
void tnef_UpdateMN(char* address);

// ---- Exported data -------------------------------------------------------------------------

// The scan log stream; null while the scan log is not open.
extern FILE* TraceF;

// Recurrence structures kept for callers that link against them; no codec function reads
// or writes them.
extern unsigned char MAPI_DAILY_RECURRENCE[16];
extern unsigned char MAPI_WEEKLY_RECURRENCE[16];
extern unsigned char MAPI_MONTHLY_RECURRENCE[20];
extern unsigned char MAPI_YEARLY_RECURRENCE[20];

#pragma GCC visibility pop
