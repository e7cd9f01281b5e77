// Attachments of a TNEF file, read in place: a listing pass that records where each
// attachment's bytes lie and what it is called, and a copy of those bytes. Neither reads an
// attachment into memory, so memory stays the same whatever the attachment's size.
//
//   TnefAttachList list;
//   tnef_ListAttachments(fd, &list);                 // escapes: 102/1531, 100/errno
//   for (const TnefAttachInfo& a : list.attachments)
//       if (a.kind != TNEF_ATTACH_NONE) tnef_CopyAttachment(fd, &a, outFd);
//
// Attachments are found the way every reader of the format groups them: an attachment
// begins at its attAttachRenddata record and takes the attachment-level records after it.
// Its bytes come from, in order of preference:
//   - PR_ATTACH_DATA_OBJ inside attAttachment: after the value's 16-byte interface
//     identifier either a TNEF stream (an embedded message, whose own attachments are listed
//     right after it) or an OLE object's storage;
//   - attAttachData (beside an embedded message it holds only a marker text, which the
//     preference above leaves aside);
//   - PR_ATTACH_DATA_BIN inside attAttachment.
// Names come from PR_ATTACH_LONG_FILENAME, PR_ATTACH_FILENAME, attAttachTransportFilename,
// attAttachTitle and PR_DISPLAY_NAME, 8-bit ones converted from the stream's code page
// (attOemCodepage; Windows-1252 when the stream names none) and Unicode ones from UTF-16,
// all to UTF-8.
//
// Damaged input never makes either function read outside the file or loop: every count and
// length is checked against the bytes that are left. A stream that ends inside a record
// gives the attachments found before it, with TNEF_LIST_TRUNCATED set (and
// TNEF_ATTACH_DATA_CUT on an attachment whose bytes the file cuts short); a few bytes after
// the last record that cannot even hold a record header set TNEF_LIST_TRAILING instead.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

// Everything this header declares is part of the library's exported interface.
#pragma GCC visibility push(default)

// What an attachment holds.
inline constexpr uint32_t TNEF_ATTACH_NONE = 0;  // no bytes at all (a rendering record only)
inline constexpr uint32_t TNEF_ATTACH_FILE = 1;  // a file's bytes
inline constexpr uint32_t TNEF_ATTACH_OLE = 2;   // an OLE object's storage, without its identifier
inline constexpr uint32_t TNEF_ATTACH_MESSAGE = 3;  // an embedded message: a TNEF stream

// Where its bytes were found.
inline constexpr uint32_t TNEF_DATA_NONE = 0;
inline constexpr uint32_t TNEF_DATA_ATTACH_DATA = 1;  // attAttachData
inline constexpr uint32_t TNEF_DATA_BIN = 2;          // PR_ATTACH_DATA_BIN
inline constexpr uint32_t TNEF_DATA_OBJ = 3;          // PR_ATTACH_DATA_OBJ

// Anomalies of one attachment.
inline constexpr uint32_t TNEF_ATTACH_DATA_CUT = 0x1;  // the file ends inside the bytes: the
                                                       // length covers what is there
inline constexpr uint32_t TNEF_ATTACH_NAME_CUT = 0x2;  // a name longer than
                                                       // TNEF_ATTACH_NAME_LIMIT was shortened
inline constexpr uint32_t TNEF_ATTACH_TOO_DEEP = 0x4;  // an embedded message nested deeper
                                                       // than TNEF_ATTACH_DEPTH_LIMIT: its own
                                                       // attachments are not listed

// Anomalies of the whole file.
inline constexpr uint32_t TNEF_LIST_TRUNCATED = 0x1;  // a stream ends inside a record
inline constexpr uint32_t TNEF_LIST_TOO_MANY = 0x2;   // more than TNEF_ATTACH_COUNT_LIMIT
                                                      // attachments: the rest are not listed
inline constexpr uint32_t TNEF_LIST_BAD_PROPS = 0x4;  // an attachment's property list could
                                                      // not be read to its end
inline constexpr uint32_t TNEF_LIST_TRAILING = 0x8;   // bytes too few for a record follow the
                                                      // last record (a mail system's line end)
inline constexpr uint32_t TNEF_LIST_BAD_CHECKSUM = 0x10;  // a record's checksum is wrong
inline constexpr uint32_t TNEF_LIST_NO_RECORDS = 0x20;    // the signature and not one record

inline constexpr uint32_t TNEF_ATTACH_NAME_LIMIT = 1024;     // bytes of a name that are read
inline constexpr uint32_t TNEF_ATTACH_DEPTH_LIMIT = 8;       // embedded messages within each other
inline constexpr uint32_t TNEF_ATTACH_COUNT_LIMIT = 100000;  // attachments listed per file

struct TnefAttachInfo {
    uint32_t index = 0;   // 1, 2, ... in stream order; an embedded message's attachments
                          // follow it directly
    uint32_t parent = 0;  // index of the embedded message that holds it, 0 at the top
    uint32_t depth = 0;   // 0 at the top, 1 inside an embedded message, ...
    uint32_t kind = TNEF_ATTACH_NONE;
    uint32_t source = TNEF_DATA_NONE;
    uint32_t renderType = 0;  // first word of attAttachRenddata: 1 file, 2 OLE; 0 without one
    uint32_t method = 0;      // PR_ATTACH_METHOD, 0 when absent
    uint64_t dataOffset = 0;  // file offset of the first byte
    uint64_t dataLength = 0;
    int64_t modified = 0;  // Unix seconds from attAttachModifyDate or
                           // PR_LAST_MODIFICATION_TIME, 0 when neither is there
    uint32_t flags = 0;    // TNEF_ATTACH_ bits
    // Names in UTF-8, empty when absent.
    std::string longFileName;   // PR_ATTACH_LONG_FILENAME
    std::string fileName;       // PR_ATTACH_FILENAME
    std::string transportName;  // attAttachTransportFilename
    std::string title;          // attAttachTitle
    std::string displayName;    // PR_DISPLAY_NAME (an embedded message's subject)
    std::string mimeTag;        // PR_ATTACH_MIME_TAG
    std::string contentId;      // PR_ATTACH_CONTENT_ID
    uint64_t propsOffset = 0;   // the data of its attAttachment record, when it has one
    uint64_t propsLength = 0;
};

struct TnefAttachList {
    std::vector<TnefAttachInfo> attachments;
    uint32_t codePage = 0;  // attOemCodepage of the top-level stream, 0 when absent
    uint32_t flags = 0;     // TNEF_LIST_ bits
    std::string subject;    // attSubject of the top-level message, else its PR_SUBJECT or
                            // PR_CONVERSATION_TOPIC, UTF-8
    std::string messageClass;
};

// Lists the attachments of the TNEF file open on fd (a regular file; its position is not
// used and is left where it was), replacing what *list held. Embedded messages are listed
// with their own attachments after them, down to TNEF_ATTACH_DEPTH_LIMIT levels.
// Escapes: 102/1531 when the file does not begin with the TNEF signature (*list is then
// empty), 100/errno when reading fails (ESPIPE for a descriptor that cannot seek).
void tnef_ListAttachments(int fd, TnefAttachList* list);

// The name an attachment is best known by: the long file name, else the file name, else
// the transport file name, else the title, else the display name; for an embedded message
// the display name (its subject) comes first. Empty when it has none of them.
std::string tnef_AttachBestName(const TnefAttachInfo& attachment);

// Copies the attachment's bytes from fd (the file it was listed from) to outFd at outFd's
// position, without changing fd's position, and returns the number of bytes copied
// (attachment.dataLength). Uses the kernel's in-place copy when source and destination lie
// alike within a page, else windows of TNEF_ATTACH_COPY_BUFFER bytes of fd mapped into
// memory, else (a pipe, a file that cannot be mapped) a buffer of that size. Escapes:
// 100/errno when a read or write fails, 100/EIO when fd ends before the bytes do (the file
// changed since it was listed). The size is checked before each mapped window; a file that
// another process truncates during the copy of that very window is beyond any such check
// (the system then ends the process, as for any mapped file), so copy only from files that
// are not being rewritten.
uint64_t tnef_CopyAttachment(int fd, const TnefAttachInfo* attachment, int outFd);

inline constexpr uint32_t TNEF_ATTACH_COPY_BUFFER = 1024 * 1024;

#pragma GCC visibility pop
