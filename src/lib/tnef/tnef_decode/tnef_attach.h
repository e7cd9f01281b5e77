// Assembling one attachment from its data (attAttachData) and its properties (attAttachment),
// which may come in either order: whichever arrives second completes it.
#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include "tnef/platform/dstring.h"
#include "tnef/platform/im_items.h"
#include "tnef/platform/tf_msgfile.h"
#include "tnef/tnef.h"
#include "tnef_decode/tnef_records.h"

// A message file that receives records: the caller's, or one of an embedded message's groups,
// made on a temporary item on first use and removed with its owner.
class TnefGroupFile {
public:
    TnefGroupFile() = default;
    explicit TnefGroupFile(int16_t existing) : existing_(existing) {}
    TnefGroupFile(const TnefGroupFile&) = delete;
    TnefGroupFile& operator=(const TnefGroupFile&) = delete;

    int16_t get();
    bool exists() const { return existing_ != 0 || owner_.has_value(); }

private:
    int16_t existing_ = 0;
    std::optional<TfFileOwner> owner_;
};

// The parts the decode under way linked to its message, in order, so that an escape can take
// them back (tnef_Decode clears it at the start and rolls it back on an escape).
struct TnefLinkedPart {
    int16_t message;
    uint32_t part;
    ItemRef ref;
};
extern std::vector<TnefLinkedPart> tnefLinkedParts;

// What the decode under way left out (tnef_Decode resets it; the parses and the attachment
// steps count; tnef_GetDecodeReport reads it).
extern TnefDecodeReport tnefDecodeReport;

struct TnefAttachState {
    int extract = 0;         // set by attAttachRenddata: 0 keeps the attachment's records whole
    int dataReady = 0;       // attAttachData arrived
    int propertiesDone = 0;  // attAttachment of a file attachment arrived
    int embeddedMarker = 0;  // the data was the embedded-message marker
    int awaitingData = 0;    // a file attachment's properties wait for its data
    int dataSuperseded = 0;  // the data was an embedded message's copy, decoded from its
                             // properties instead: not a loss when it is dropped
    TnefDataItem data;       // the data item, removed again unless linked
    dstring name;            // the encoded name of the last file attachment
    dstring mainText;        // the parse's own attachment property texts
    dstring secondaryText;
};

// Where an attachment's records and completion go.
struct TnefAttachTarget {
    int objectFd;
    int tnefFd;
    int16_t message;          // for Msg_AttachFile
    TnefGroupFile* content;   // receives content-file records and embedded packages
    uint32_t codePage;
    bool nested;              // completion clears the flags only inside embedded messages
};

// attAttachData with the extract flag set (stream at the length field). Returns false when
// the stream ended inside the record.
bool tnef_TakeAttachData(TnefAttachState& st, const TnefAttachTarget& target);

// attAttachment with the extract flag set (stream at the length field); startName is the
// name the attachment has until its display name is read. Returns false when the stream
// ended inside the record. Sets *fileAttachment when it was a file attachment.
bool tnef_TakeAttachment(TnefAttachState& st, const TnefAttachTarget& target,
                         const char* startName, bool* fileAttachment);

// Records the content file and links the data item to the message.
void tnef_CompleteAttachment(TnefAttachState& st, const TnefAttachTarget& target);

// At a new attAttachRenddata and at the end of a parse: counts what the attachment so far
// leaves out (data that can no longer complete is dropped now rather than later).
void tnef_EndAttachment(TnefAttachState& st);

// After a parse's record loop: whether the stream ended inside a record, given where the
// last record began and whether its handler read it whole.
bool tnef_EndedInsideRecord(int streamFd, int64_t lastRecordAt, bool lastWhole);
