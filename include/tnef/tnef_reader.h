// Reading a TNEF file: a bounded pull reader for anyone who holds a winmail.dat and wants
// what is inside, with no server home, store or handle.
//
//   TnefRecordCursor rc;
//   tnef_OpenRecords(&rc, fd);                  // escapes: 102/1531 no signature, 100/errno
//   TnefRecord r;
//   while (tnef_NextRecord(&rc, &r)) {
//       if (r.id != 0x00069003) continue;       // attMAPIProps
//       TnefPropCursor pc;
//       tnef_OpenProps(&pc, &rc, &r);
//       TnefProp p;
//       while (tnef_NextProp(&pc, &p)) {
//           TnefValue v;
//           while (tnef_NextValue(&pc, &v)) ...  // typed; strings on demand
//       }
//   }
//   if (rc.flags & TNEF_READ_TRUNCATED) ...     // damage is a flag, never an abort
//
// Or the whole message at once: tnef_ReadMessage(fd, &view).
//
// Every length and count is checked here, once, against the bytes that remain in the record
// and in the file: no input makes the reader read outside the file, allocate more than the
// file holds, or loop. Binary values are an offset and a length; their bytes are read only
// when asked for. The file must be a regular file (the reader uses positioned reads and
// leaves the descriptor's position alone); it must not change while it is read.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "tnef/tnef_attachments.h"

// Everything this header declares is part of the library's exported interface.
#pragma GCC visibility push(default)

using TnefGuid = std::array<uint8_t, 16>;

// ---- Damage --------------------------------------------------------------------------------
// Flags of a cursor (and of a message view), set as the damage is met; what was read before
// it stands.
inline constexpr uint32_t TNEF_READ_TRUNCATED = 0x01;     // the stream ends inside a record
inline constexpr uint32_t TNEF_READ_BAD_CHECKSUM = 0x02;  // a record's checksum is wrong
inline constexpr uint32_t TNEF_READ_TRAILING = 0x04;      // bytes too few for a record follow
                                                          // the last record
inline constexpr uint32_t TNEF_READ_COUNT_BEYOND = 0x08;  // a count announces more than the
                                                          // data can hold
inline constexpr uint32_t TNEF_READ_BAD_PROPS = 0x10;     // a property list could not be read
                                                          // to its end (cut short, or a type
                                                          // whose layout is unknown)
inline constexpr uint32_t TNEF_READ_NO_RECORDS = 0x20;    // the file holds the signature and
                                                          // not one whole record
inline constexpr uint32_t TNEF_READ_TOO_DEEP = 0x40;      // embedded messages nested deeper
                                                          // than TNEF_READ_DEPTH_LIMIT
inline constexpr uint32_t TNEF_READ_TOO_MANY = 0x80;      // a message view kept no more than
                                                          // TNEF_VIEW_VALUE_LIMIT values

// Flags of one record.
inline constexpr uint32_t TNEF_RECORD_CUT = 0x1;           // data or checksum cut by the end
inline constexpr uint32_t TNEF_RECORD_BAD_CHECKSUM = 0x2;  // the sum of the data differs

inline constexpr uint32_t TNEF_READ_DEPTH_LIMIT = TNEF_ATTACH_DEPTH_LIMIT;
// Values a message view keeps in all (each costs more memory than its bytes in the stream).
inline constexpr uint32_t TNEF_VIEW_VALUE_LIMIT = 1u << 20;

// ---- Records -------------------------------------------------------------------------------

struct TnefReadFile;  // the file and its read-ahead window, shared by every cursor on it

struct TnefRecordCursor {
    std::shared_ptr<TnefReadFile> file;
    uint64_t start = 0;    // the stream's first byte (its signature) in the file
    uint64_t end = 0;      // just past its last byte
    uint64_t pos = 0;      // the next record's first byte
    uint32_t depth = 0;    // 0 for the file's own stream, 1 inside an embedded message, ...
    uint32_t codePage = 0; // attOemCodepage once it was read, 0 before and without one
    uint32_t flags = 0;    // TNEF_READ_ bits
    uint32_t records = 0;  // records read so far
    uint64_t trailing = 0; // bytes after the last record (with TNEF_READ_TRAILING)
    bool verifyChecksums = true;  // false skips the sums (a second walk over the same file)
};

struct TnefRecord {
    uint8_t level = 0;        // 1 message, 2 attachment
    uint32_t id = 0;          // attribute identifier, as the stream holds it
    uint32_t length = 0;      // data bytes announced
    uint64_t offset = 0;      // file offset of the first data byte
    uint64_t available = 0;   // data bytes the stream holds (below length when cut)
    uint16_t checksum = 0;    // as stored (0 when cut)
    uint32_t flags = 0;       // TNEF_RECORD_ bits
};

// Opens the TNEF stream of the regular file on fd. Escapes: 102/1531 when the file does not
// begin with the signature, 100/errno when it cannot be read (ESPIPE when it is no regular
// file, EISDIR for a folder).
void tnef_OpenRecords(TnefRecordCursor* cursor, int fd);

// Opens the TNEF stream held in [offset, offset + length) of the file another cursor reads
// (an embedded message). False, with the cursor empty, when that range does not begin with
// the signature.
bool tnef_OpenEmbedded(TnefRecordCursor* inner, const TnefRecordCursor* outer, uint64_t offset,
                       uint64_t length);

// The next record: its header read, its checksum verified (summing the data without keeping
// it), the cursor moved past it. False at the end of the stream, or when the next record is
// cut short: then TNEF_READ_TRUNCATED or TNEF_READ_TRAILING is set and *record still
// describes the cut record when its header was whole (with TNEF_RECORD_CUT).
bool tnef_NextRecord(TnefRecordCursor* cursor, TnefRecord* record);

// Copies up to n bytes that start at file offset `at` into out, never past the stream's end;
// returns the number copied.
size_t tnef_ReadBytes(const TnefRecordCursor* cursor, uint64_t at, void* out, size_t n);

// ---- Properties ----------------------------------------------------------------------------

// A property list: the data of attMAPIProps or attAttachment, or one row of attRecipTable.
struct TnefPropCursor {
    const TnefRecordCursor* records = nullptr;
    uint64_t pos = 0;
    uint64_t end = 0;
    uint32_t count = 0;      // properties announced
    uint32_t index = 0;      // properties read so far
    uint32_t flags = 0;      // TNEF_READ_ bits of this list
    // The property being read: its values are read by tnef_NextValue, or skipped by the next
    // tnef_NextProp.
    uint16_t type = 0;
    uint32_t values = 0;     // values announced
    uint32_t valueIndex = 0; // values read so far
    bool done = true;
};

// The recipient table: a counted list of rows, each a property list.
struct TnefRowCursor {
    const TnefRecordCursor* records = nullptr;
    uint64_t pos = 0;
    uint64_t end = 0;
    uint32_t count = 0;  // rows announced
    uint32_t index = 0;  // rows opened so far
    uint32_t flags = 0;
};

struct TnefProp {
    uint32_t tag = 0;
    uint16_t id = 0;
    uint16_t type = 0;
    bool named = false;       // id 0x8000 and above: identified by set and name
    TnefGuid set{};           // named only
    bool stringName = false;  // named by a string (else by the number lid)
    uint32_t lid = 0;
    std::string name;         // the string name in UTF-8
    uint32_t count = 1;       // values announced (1 for types without a count)
    uint64_t offset = 0;      // file offset of the first value
};

struct TnefValue {
    uint16_t type = 0;        // the single-valued type of the value
    int64_t integer = 0;      // PT_I2, PT_LONG, PT_ERROR, PT_I8, PT_CURRENCY (in 1/10000)
    bool boolean = false;     // PT_BOOLEAN
    double real = 0;          // PT_R4, PT_DOUBLE, PT_APPTIME
    uint64_t mapiTime = 0;    // PT_SYSTIME: 100 ns since 1601-01-01 UTC
    int64_t unixTime = 0;     // PT_SYSTIME: seconds since 1970, floored (negative before)
    TnefGuid guid{};          // PT_CLSID
    uint64_t offset = 0;      // PT_STRING8, PT_UNICODE, PT_BINARY, PT_OBJECT: the bytes in the
    uint32_t length = 0;      // file, as many as the stream holds of the announced length
    uint32_t declared = 0;    // the announced length
    bool cut = false;         // the stream holds fewer bytes than announced
};

// Opens the property list of an attMAPIProps or attAttachment record. False (with
// TNEF_READ_BAD_PROPS) when the record cannot even hold the count.
bool tnef_OpenProps(TnefPropCursor* cursor, const TnefRecordCursor* records,
                    const TnefRecord* record);

// The next property: tag, named identity, value count. Values left unread of the previous
// property are stepped over first. False at the end of the list, or when the list cannot be
// read on (the flags then say why).
bool tnef_NextProp(TnefPropCursor* cursor, TnefProp* prop);

// The next value of the current property, typed. False after the last one or when the data
// ends (TNEF_READ_BAD_PROPS).
bool tnef_NextValue(TnefPropCursor* cursor, TnefValue* value);

// Opens the rows of an attRecipTable record; tnef_NextRow then opens each row as a property
// list in *row, stepping over what was left unread of the one before.
bool tnef_OpenRows(TnefRowCursor* cursor, const TnefRecordCursor* records,
                   const TnefRecord* record);
bool tnef_NextRow(TnefRowCursor* cursor, TnefPropCursor* row);

// A string value as UTF-8, up to its terminator: PT_STRING8 from the stream's code page
// (Windows-1252 when it names none), PT_UNICODE from UTF-16LE. At most `limit` bytes of the
// value are read.
std::string tnef_ValueText(const TnefRecordCursor* records, const TnefValue* value,
                           uint32_t limit = UINT32_MAX);

// ---- Names ---------------------------------------------------------------------------------

// The published name of a property tag (PR_SUBJECT), or null. A tag whose type differs from
// the published one only by 8-bit against Unicode text finds the same name.
const char* tnef_PropName(uint32_t tag);
// The tag of a published name (PR_SUBJECT -> 0x0037001E with its published type), 0 when
// the name is unknown. Names are compared without regard to case.
uint32_t tnef_PropTagByName(std::string_view name);
// PT_UNICODE, PT_MV_LONG, ...; null for a type outside the tables.
const char* tnef_PropTypeName(uint16_t type);
// PSETID_Appointment, PS_PUBLIC_STRINGS, ...; null when unknown.
const char* tnef_PropSetName(const TnefGuid& set);
// The published name of a named property given by set and numeric name (PidLidLocation),
// or null.
const char* tnef_NamedPropName(const TnefGuid& set, uint32_t lid);
// The canonical text of a GUID: "00062002-0000-0000-C000-000000000046".
std::string tnef_GuidText(const TnefGuid& guid);

// ---- The message view ----------------------------------------------------------------------

// One property with its values, read whole (binary values still as offsets).
struct TnefPropEntry {
    TnefProp prop;
    std::vector<TnefValue> values;
    std::vector<std::string> texts;  // PT_STRING8 / PT_UNICODE values in UTF-8, one per value
};

struct TnefMessageView {
    uint32_t depth = 0;
    uint32_t codePage = 0;   // attOemCodepage, 0 when absent
    uint32_t flags = 0;      // TNEF_READ_ bits of this stream and all it holds
    std::string subject;     // attSubject, else PR_SUBJECT, else PR_CONVERSATION_TOPIC
    std::string messageClass;
    uint64_t attBodyOffset = 0;  // attBody's data in the file, when the stream has one
    uint64_t attBodyLength = 0;
    bool hasAttBody = false;
    std::vector<TnefPropEntry> properties;               // attMAPIProps
    std::vector<std::vector<TnefPropEntry>> recipients;  // attRecipTable rows
    std::vector<TnefAttachInfo> attachments;             // this stream's own attachments
    std::vector<std::vector<TnefPropEntry>> attachmentProperties;  // attAttachment of each
    std::vector<TnefMessageView> embedded;  // one per attachment of kind
                                            // TNEF_ATTACH_MESSAGE, in the same order
};

// Reads the whole message of the TNEF file on fd: properties, recipients, attachments and
// embedded messages (down to TNEF_READ_DEPTH_LIMIT). Strings are converted, binaries are
// left in the file. Escapes as tnef_OpenRecords.
void tnef_ReadMessage(int fd, TnefMessageView* view);

// The first entry with this tag (the type compared too, but 8-bit and Unicode text alike),
// or null.
const TnefPropEntry* tnef_FindProp(const std::vector<TnefPropEntry>& entries, uint32_t tag);

#pragma GCC visibility pop
