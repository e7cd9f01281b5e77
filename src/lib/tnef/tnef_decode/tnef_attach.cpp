#include "tnef_decode/tnef_attach.h"

#include <fcntl.h>

#include <cstring>
#include <string>

#include "tnef/platform/er_escape.h"
#include "tnef/platform/msg_store.h"
#include "tnef/platform/os_file.h"
#include "tnef_decode/tnef_codepage.h"
#include "tnef_decode/tnef_downlevel.h"
#include "tnef_decode/tnef_parse.h"
#include "tnef_defs.h"

std::vector<TnefLinkedPart> tnefLinkedParts;
TnefDecodeReport tnefDecodeReport{};

void tnef_GetDecodeReport(TnefDecodeReport* report) { *report = tnefDecodeReport; }

void tnef_EndAttachment(TnefAttachState& st) {
    if (st.awaitingData) ++tnefDecodeReport.propertiesWithoutData;
    st.awaitingData = 0;
    if (st.data.item) {
        if (!st.dataSuperseded) ++tnefDecodeReport.dataWithoutProperties;
        st.data.item.reset();
    }
}

bool tnef_EndedInsideRecord(int streamFd, int64_t lastRecordAt, bool lastWhole) {
    const int64_t size = os_fsize(streamFd);
    return !lastWhole || (size >= 0 && lastRecordAt < size);
}

int16_t TnefGroupFile::get() {
    if (existing_ != 0) return existing_;
    if (!owner_) {
        owner_.emplace(tnef_NewTempMessageFile());
        owner_->discardItem();
    }
    return owner_->get();
}

void tnef_CompleteAttachment(TnefAttachState& st, const TnefAttachTarget& target) {
    const char* name = dstring_str(&st.name);
    tnef_AppendContentFile(target.content->get(), TF_CONTENT_FILE, "", name, name);
    if (st.data.item) {
        const ItemRef ref = st.data.item->ref();
        tnefLinkedParts.reserve(tnefLinkedParts.size() + 1);
        const int part = Msg_AttachFile(target.message, ref);
        tnefLinkedParts.push_back({target.message, static_cast<uint32_t>(part), ref});
        st.data.item->release();
        st.data.item.reset();
        ++tnefDecodeReport.attachmentsLinked;
    }
    st.awaitingData = 0;
    if (target.nested) {
        st.dataReady = 0;
        st.propertiesDone = 0;
        st.embeddedMarker = 0;
    }
}

namespace {

// Whether the stream still holds length data bytes and the checksum: nothing is taken from a
// record that the end of the stream cuts short.
bool restIsWhole(int tnefFd, uint32_t length) {
    const int64_t size = os_fsize(tnefFd);
    return size < 0 || os_lseek64(tnefFd, 0, 1) + static_cast<int64_t>(length) + 2 <= size;
}

}  // namespace

bool tnef_TakeAttachData(TnefAttachState& st, const TnefAttachTarget& target) {
    uint32_t length = 0;
    if (!tnef_ReadU32(target.tnefFd, &length) || !restIsWhole(target.tnefFd, length)) return false;
    // A new data item replaces (and removes) one that never found its properties.
    if (st.data.item && !st.dataSuperseded) ++tnefDecodeReport.dataWithoutProperties;
    st.dataSuperseded = 0;
    tnef_StreamToDataItem(target.tnefFd, length, &st.data);
    if (!st.data.complete) {
        st.data.item.reset();
        return false;
    }
    st.dataReady = 1;
    if (tnef_IsEmbeddedMarker(st.data)) {
        // The embedded message itself arrives in attAttachment.
        st.embeddedMarker = 1;
        st.dataReady = 0;
        st.propertiesDone = 0;
        st.data.item.reset();
    } else if (st.propertiesDone) {
        tnef_CompleteAttachment(st, target);
    }
    return st.data.complete && tnef_SkipChecksum(target.tnefFd);
}

namespace {

// Each level of embedding costs stack; a hostile stream could nest messages until the stack
// runs out. Real mail nests a few levels.
constexpr int kMaxEmbeddingDepth = 32;
int g_embeddingDepth = 0;

struct EmbeddingLevel {
    EmbeddingLevel() {
        if (g_embeddingDepth >= kMaxEmbeddingDepth)
            er_TracedEscapeText(ER_GROUP_TNEF, ER_TNEF_TOO_LONG, TNEF_UNIT_DECODE, __LINE__,
                                "embedded messages nested deeper than " +
                                    std::to_string(kMaxEmbeddingDepth) + " levels");
        ++g_embeddingDepth;
    }
    ~EmbeddingLevel() { --g_embeddingDepth; }
    EmbeddingLevel(const EmbeddingLevel&) = delete;
    EmbeddingLevel& operator=(const EmbeddingLevel&) = delete;
};

// Parses the embedded message held in the attached object's item into a package appended
// to the content file.
void takeEmbeddedMessage(const std::string& streamFile, int propFd, TnefAttachState& st,
                         const TnefAttachTarget& target) {
    EmbeddingLevel level;
    OsFd stream(os_open(streamFile.c_str(), O_RDONLY, 0));
    TnefGroupFile package;
    tnef_ParseNestedTNEF(stream.get(), package.get(), target.message, propFd, &st.mainText,
                         &st.secondaryText, target.codePage);
    stream.close();
    tnef_CopyRecords(target.content->get(), package.get());
}

}  // namespace

bool tnef_TakeAttachment(TnefAttachState& st, const TnefAttachTarget& target,
                         const char* startName, bool* fileAttachment) {
    *fileAttachment = false;
    const int64_t lengthPos = os_lseek64(target.tnefFd, 0, 1);
    uint32_t length = 0;
    if (!tnef_ReadU32(target.tnefFd, &length) || !restIsWhole(target.tnefFd, length)) return false;
    const int64_t checksumPos = lengthPos + 4 + length;

    ItemRef propRef{};
    OsFd propFd(im_CrNewTempItem(&propRef));
    ImItemOwner propItem(propRef);

    char name[TNEF_NAME_CAPACITY + 1] = {};
    std::strncpy(name, startName, TNEF_NAME_CAPACITY - 1);
    std::string objectFile;
    ItemRef objectRef{};
    const int embedded = tnef_ParseDownLevelMAPIProps(
        target.tnefFd, &st.mainText, &st.secondaryText, propFd.get(), &objectFile, length, name,
        TNEF_NAME_CAPACITY, &objectRef);
    std::optional<ImItemOwner> objectItem;
    if (!objectFile.empty()) objectItem.emplace(objectRef);

    if (embedded == 0) {
        tnef_EncodeAttachName(target.codePage, name, &st.name);
        st.propertiesDone = 1;
        *fileAttachment = true;
        if (st.dataReady)
            tnef_CompleteAttachment(st, target);
        else
            st.awaitingData = 1;
    } else {
        st.dataSuperseded = st.data.item ? 1 : 0;
        takeEmbeddedMessage(objectFile, propFd.get(), st, target);
    }

    // The attachment's own record is kept whole in the object file.
    os_lseek64(target.tnefFd, lengthPos, 0);
    const bool whole = tnef_AddToObjectFile(target.objectFd, target.tnefFd, attAttachment, LVL_ATTACHMENT);
    propFd.close();
    os_lseek64(target.tnefFd, checksumPos + 2, 0);
    return whole;
}
