// Record-level helpers the top-level and the nested parse share.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>

#include "tnef/platform/dstring.h"
#include "tnef/platform/im_items.h"
#include "tnef/platform/os_file.h"
#include "tnef/platform/tf_msgfile.h"

// Copies one record whole into the object file: the level and identifier already read, then
// the length, data and checksum from the stream (positioned at the length field). Blocks of
// up to 4080 bytes go through a fixed buffer, larger ones through one heap buffer. Returns
// false when the stream ended inside the record (what was there is still copied).
bool tnef_AddToObjectFile(int objectFd, int tnefFd, uint32_t id, uint8_t level);

// A new, empty message file on a new temporary item (the caller removes both).
int16_t tnef_NewTempMessageFile();

// Appends every record of source to destination, source rewound first.
void tnef_CopyRecords(int16_t destination, int16_t source);

// The level and identifier of the next record; false at the end of the stream.
bool tnef_ReadRecordHead(int tnefFd, uint8_t* level, uint32_t* id);
// A 32-bit field; false when the stream ended first.
bool tnef_ReadU32(int tnefFd, uint32_t* value);
// The decoder reads a property list at the descriptor's own position, as a source of the
// shared list steps: a field the stream cuts short still gives the bytes there were (as
// tnef_ReadU32 does), and a relative seek may pass the end. It knows no bound but the
// file's, and nothing it writes needs its position.
struct TnefDecodeSource {
    int fd;

    uint64_t at() const { return 0; }
    uint64_t left() const { return UINT64_MAX; }
    bool bytes(void* out, size_t n) {
        return os_read(fd, out, static_cast<int64_t>(n)) == static_cast<int64_t>(n);
    }
    bool u32(uint32_t& value) { return tnef_ReadU32(fd, &value); }
    bool skip(uint64_t n) {
        if (n != 0) os_lseek64(fd, static_cast<int64_t>(n), 1);
        return true;
    }
};

// Reads and drops the 2-byte checksum; false when the stream ended first.
bool tnef_SkipChecksum(int tnefFd);

// attPriority's word to the server's priority code: 3 (low) to 1, 1 (high) to 2, else 0.
uint16_t tnef_MapPriority(uint16_t tnefPriority);

// Appends "<tag in hex>" 0x1D "<value in hex>" 0x1E; each hexadecimal text is checked
// against the 4079 characters of its buffer.
void tnef_AppendHexEntry(dstring* text, uint32_t tag, uint32_t value);
void tnef_AppendHexKey(dstring* text, uint32_t tag);
void tnef_AppendHexValueEnd(dstring* text, uint32_t value);

// attAidOwner (stream at the length field): its 32-bit value as a PR_OWNER_APPT_ID entry of
// the secondary text. False when the stream ended inside the record.
bool tnef_TakeAidOwner(int tnefFd, dstring* secondaryText);

// Streams length bytes of attribute data into a new data item, in 8192-byte chunks, stopping
// early when the stream ends. The item is removed again unless the caller releases it.
struct TnefDataItem {
    std::optional<ImItemOwner> item;
    uint64_t copied = 0;
    bool complete = false;  // every byte of the length arrived
    uint8_t head[26] = {};  // the first bytes, to tell the embedded-message marker
};
void tnef_StreamToDataItem(int tnefFd, uint32_t length, TnefDataItem* out);

// The 26-byte attAttachData that stands for an embedded message instead of data.
bool tnef_IsEmbeddedMarker(const TnefDataItem& data);

// Reads attAttachRenddata (stream at its length field): data with capacity 16, then copies
// the record whole into the object file. Returns the attachment type (the first 16-bit word);
// false when the stream ended.
bool tnef_TakeRenddata(int objectFd, int tnefFd, uint8_t level, uint16_t* attachType);

// A content-file record for a body part or a file attachment, appended to tf.
void tnef_AppendContentFile(int16_t tf, uint32_t contentType, const char* partName,
                            const char* fileName, const char* extraText);
