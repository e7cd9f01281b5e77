// Message files: the server's files of typed records, one item each.
//
// Record layout (all numbers little-endian):
//   offset 0  u32  record length in bytes, 8 to 16384, header included
//   offset 4  u32  record type
//   offset 8       reserved (zero); the fields of each type begin at 16
// On disk a message file is its records back to back, nothing else. A record's length is
// the high-water mark of what was written into it: field writes raise it, never lower it,
// so a text rewritten shorter leaves stale bytes behind the last text (readers stop at NULs).
//
// Handles: tf_CreateFile, tf_CreateFromItemRef and tf_OpenFile return a 16-bit handle that
// stays valid until tf_CloseFile; a closed handle is refused (escape 103/2) even after its
// slot is reused. Closing never removes the item: the item's owner does (im_UnlinkItem),
// or TfFileOwner::discardItem. Writes go straight to the file (nothing is buffered), so a
// second handle on the same item sees them at once.
//
// Escapes:
//   102/1546  a field write that would pass the record's 16384 bytes (the record is unchanged),
//             a text longer than the caller's buffer in tf_GetString
//   103/3     a file that ends inside a record, a record length below 8 or above 16384, a text
//             without its NUL: the text names the file (or the record type) and the offset
//   103/2     a handle that is not open; 103/4 tf_OverwriteRecord with no record last read
//   100/errno the file system's refusals, naming the path
#pragma once

#include <cstdint>
#include <string>

#include "tnef/platform/im_items.h"

// Everything this header declares is part of the library's exported interface.
#pragma GCC visibility push(default)

// The largest record the codec writes: four texts of 4080 bytes and their fields (a
// distribution-list entry), so that no text the codec accepts fails for want of room.
inline constexpr uint32_t TF_RECORD_MAX = 16384;
inline constexpr uint32_t TF_RECORD_HEADER = 8;
inline constexpr uint32_t TF_TEXT_CAPACITY = 4080;

struct TFREC {
    alignas(4) unsigned char bytes[TF_RECORD_MAX];
};

// Record types.
inline constexpr uint32_t TFREC_HEADER = 1100;
inline constexpr uint32_t TFREC_ORIGINATOR = 10000;
inline constexpr uint32_t TFREC_ENVELOPE_ADDRESS = 10005;
inline constexpr uint32_t TFREC_SUBJECT = 11100;
inline constexpr uint32_t TFREC_CLASS = 11200;
inline constexpr uint32_t TFREC_CREATION_TIME = 13000;
inline constexpr uint32_t TFREC_SUBMISSION_ID = 13100;
inline constexpr uint32_t TFREC_EXPIRY_TIME = 13700;
inline constexpr uint32_t TFREC_DEFERRED_TIME = 14100;
inline constexpr uint32_t TFREC_RECIPIENT = 15000;
inline constexpr uint32_t TFREC_LIST_ADDRESS = 16100;
inline constexpr uint32_t TFREC_OBJECT = 19000;
inline constexpr uint32_t TFREC_PROPS = 19500;
inline constexpr uint32_t TFREC_PROPS_DATA = 19510;
inline constexpr uint32_t TFREC_PROPS2 = 19600;
inline constexpr uint32_t TFREC_PROPS2_DATA = 19610;
inline constexpr uint32_t TFREC_DL_ENTRY_FIRST = 22000;  // 22000, 22100, 22200, 22300
inline constexpr uint32_t TFREC_DL_ENTRY_LAST = 22300;
inline constexpr uint32_t TFREC_START_PACKAGE = 30100;
inline constexpr uint32_t TFREC_CONTENT_FILE = 30500;
inline constexpr uint32_t TFREC_END_PACKAGE = 39000;
inline constexpr uint32_t TFREC_DELIVERY = 40000;

// Content types of a 30500 record.
inline constexpr uint32_t TF_CONTENT_FILE = 0;
inline constexpr uint32_t TF_CONTENT_TEXT = 1167;
inline constexpr uint32_t TF_CONTENT_HTML = 1736;
inline constexpr uint32_t TF_CONTENT_TNEF = 2130;
// Bit 0 of the flags at 24 of a 30500 record: the part is not counted among the message's
// parts (it has no attached item).
inline constexpr uint32_t TF_CONTENT_NOT_COUNTED = 0x1;

// tf_OpenFile modes.
inline constexpr int TF_OPEN_UPDATE = 0;
inline constexpr int TF_OPEN_READONLY = 1;

// ---- Files ------------------------------------------------------------------------------------

// A new, empty message file on a new data item.
int16_t tf_CreateFile();
// An empty message file on the given item (created when missing, emptied when not).
int16_t tf_CreateFromItemRef(const ItemRef& ref);
// The existing message file on the item, for reading and appending (TF_OPEN_UPDATE) or
// reading only (TF_OPEN_READONLY); positioned at its first record.
int16_t tf_OpenFile(const ItemRef& ref, int mode);
// Rewinds to the first record; forgets the record last read.
void tf_UnreadFile(int16_t tf);
// Reads the next record into *record (bytes past its length are zeroed). Returns 1 when a
// record was read, 0 at the end of the file. Raises 103/3 for a damaged file.
int tf_ReadRecord(int16_t tf, TFREC* record);
// Appends the record at the end of the file; the reading position does not move. A failed
// write leaves the file as it was.
void tf_AppendRecord(int16_t tf, const TFREC* record);
// Replaces the record last read by this one, which may be longer or shorter; the records
// behind it move. Reading goes on after the new record.
void tf_OverwriteRecord(int16_t tf, const TFREC* record);
// Makes the writes so far durable.
void tf_FlushFile(int16_t tf);
// Releases the handle; the item stays.
void tf_CloseFile(int16_t tf);
// The item that holds the message file.
void tf_GetRef(int16_t tf, ItemRef* ref);
// Its path, for messages and dumps.
std::string tf_GetFileName(int16_t tf);
// Number of open message file handles (for leak checks).
int tf_OpenHandleCount();

// ---- Records ------------------------------------------------------------------------------------

// An empty record of the type: 8 bytes long, every other byte zero.
void tf_InitRecord(TFREC* record, uint32_t type);
// Copies the record, its length rounded up to a multiple of 4 (the padding zeroed), ready to
// be appended.
void tf_WrapRecord(const TFREC* record, TFREC* wrapped);
uint32_t tf_GetType(const TFREC* record);
uint32_t tf_GetLength(const TFREC* record);

// Fixed-size fields at a byte offset. Reads and writes past the record's end raise 102/1546.
void tf_PutINT16(TFREC* record, uint32_t offset, uint16_t value);
void tf_PutINT32(TFREC* record, uint32_t offset, uint32_t value);
uint16_t tf_GetINT16(const TFREC* record, uint32_t offset);
uint32_t tf_GetINT32(const TFREC* record, uint32_t offset);

// Writes text and its NUL at offset and stores the offset just past them in *next (may be
// null). A null text is written as an empty one.
void tf_PutString(TFREC* record, uint32_t offset, uint32_t* next, const char* text);
// Copies the text at offset, with its NUL, into buffer (capacity bytes) and stores the
// offset just past it in *next. Returns the text's length. Raises 102/1546 when the text
// does not fit the buffer, 103/3 when it has no NUL within the record.
uint32_t tf_GetString(const TFREC* record, uint32_t offset, uint32_t* next, char* buffer,
                      uint32_t capacity);
// The text at offset, in place; *next receives the offset just past it. Raises 103/3 when
// the text has no NUL within the record.
const char* tf_GetStrPtr(const TFREC* record, uint32_t offset, uint32_t* next);

// Subject record: first text at 16, the second right after it, then at the next multiple of
// 4 the four numbers. Null texts are written empty.
void tf_MakeSubjectRec(TFREC* record, uint32_t type, const char* subject, const char* second,
                       uint32_t n1, uint32_t n2, uint32_t n3, uint32_t n4);
// Start of a package (30100): kind at 16, then n1 at 20, n2 at 24, n3 at 28, n4 at 32, n5 at
// 36 and the subject and two further texts from 40.
void tf_MakeStartPkgRec(TFREC* record, uint32_t kind, const char* subject, const char* text2,
                        const char* text3, uint32_t n1, uint32_t n2, uint32_t n3, int32_t n4,
                        uint32_t n5);

// The group of a record type: 1 message header (1000-1999), 2 originator and envelope
// addresses (10000-10999), 3 message details (11000-14999), 4 recipients and address lists
// (15000-18999, 22000-22999), 5 stored MAPI data (19000-19999), 6 content tree
// (30000-39999), 7 delivery options (40000-49999); 0 for any other type.
int tf_WhichGroup(uint32_t type);

// ---- Content files ------------------------------------------------------------------------------

// A body part as the codec describes it before it becomes a 30500 record.
struct TFREC_content_file {
    uint32_t contentType;   // low 16 bits at 20
    uint32_t flags;         // at 24; TF_CONTENT_NOT_COUNTED
    uint32_t size;          // at 28; 0 lets Msg_Save fill it from the attached item
    std::string partName;   // first text, at 36
    std::string fileName;   // second text, right after it (the name readers prefer)
    std::string extraText;  // third text
};

// Empties the description and sets its content type.
void tf_initTFREC_content_file(TFREC_content_file* description, uint32_t contentType);
// The 30500 record of the description (wrapped). Raises 102/1546 when the texts do not fit.
void tf_ContentFileRecFromStruc(TFREC* record, const TFREC_content_file* description);

// ---- Ownership --------------------------------------------------------------------------------

// Closes a message file handle on destruction without raising; with discardItem() it also
// removes the item then, for files that are only kept when the work that fills them
// succeeds.
class TfFileOwner {
public:
    TfFileOwner() = default;
    explicit TfFileOwner(int16_t tf) : tf_(tf) {}
    ~TfFileOwner();
    TfFileOwner(const TfFileOwner&) = delete;
    TfFileOwner& operator=(const TfFileOwner&) = delete;

    int16_t get() const { return tf_; }
    TfFileOwner& discardItem() {
        discard_ = true;
        return *this;
    }
    // Gives up ownership: nothing happens on destruction.
    int16_t release() {
        const int16_t tf = tf_;
        tf_ = 0;
        return tf;
    }
    // Closes now (reporting failure) and keeps the item.
    void close();

private:
    int16_t tf_ = 0;
    bool discard_ = false;
};

#pragma GCC visibility pop
