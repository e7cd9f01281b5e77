#include "tnef/platform/msg_builder.h"

#include <fcntl.h>

#include <array>
#include <string>

#include "store_internal.h"
#include "tnef/platform/er_escape.h"
#include "tnef/platform/im_items.h"
#include "tnef/platform/msg_store.h"
#include "tnef/platform/os_file.h"
#include "tnef/platform/tf_msgfile.h"

namespace {

constexpr size_t kCopyChunk = 8192;

// Attaches a new data item holding what fill writes; the item's own name goes afterwards,
// the message's link keeps the bytes.
template <typename Fill>
void attachNewItem(int16_t msg, Fill fill) {
    ItemRef ref;
    OsFd fd(im_CrNewDataItem(nullptr, &ref));
    ImItemOwner item(ref);
    fill(fd.get());
    fd.close();
    Msg_AttachFile(msg, ref);
}

void copyFile(const std::string& path, int out) {
    OsFd in(os_open(path.c_str(), O_RDONLY, 0));
    while (os_CopyRange(in.get(), out, kCopyChunk * 1024) > 0) {
    }
}

void appendAddressRecord(int16_t tf, uint32_t type, uint32_t textOffset, const std::string& address) {
    TFREC record;
    tf_InitRecord(&record, type);
    uint32_t next = 0;
    tf_PutString(&record, textOffset, &next, address.c_str());
    tf_PutString(&record, next, &next, "");
    tf_PutString(&record, next, &next, "");
    tf_WrapRecord(&record, &record);
    tf_AppendRecord(tf, &record);
}

void appendContentFile(int16_t tf, uint32_t contentType, const std::string& name) {
    TFREC_content_file description;
    tf_initTFREC_content_file(&description, contentType);
    description.partName = name;
    description.fileName = name;
    TFREC record;
    tf_ContentFileRecFromStruc(&record, &description);
    tf_AppendRecord(tf, &record);
}

void appendRecords(int16_t tf, const ReceivedMessage& received) {
    TFREC header;
    tf_InitRecord(&header, TFREC_HEADER);
    tf_PutINT16(&header, 16, 3);
    tf_PutINT32(&header, 24, received.headerFlags);
    tf_PutINT32(&header, 28, 1);
    tf_PutINT32(&header, 42, 2u | (received.outOfOfficeTemplate ? 1u : 0u));
    tf_WrapRecord(&header, &header);
    tf_AppendRecord(tf, &header);

    appendAddressRecord(tf, TFREC_ORIGINATOR, 36, received.originator);
    for (const std::string& recipient : received.recipients)
        appendAddressRecord(tf, TFREC_RECIPIENT, 24, recipient);
    // Sizes stay 0: Msg_Save takes them from the parts.
    appendContentFile(tf, TF_CONTENT_TEXT, "BDY.TXT");
    appendContentFile(tf, TF_CONTENT_TNEF, received.tnefName);
}

}  // namespace

int16_t Msg_BuildReceived(const ReceivedMessage& received, int16_t* messageFile) {
    MsgOwner msg(Msg_Create());
    try {
        attachNewItem(msg.get(), [&](int fd) {
            os_write(fd, received.bodyText.data(), static_cast<int64_t>(received.bodyText.size()));
        });
        attachNewItem(msg.get(), [&](int fd) {
            if (!received.tnefPath.empty())
                copyFile(received.tnefPath, fd);
            else
                os_write(fd, received.tnefBytes.data(), static_cast<int64_t>(received.tnefBytes.size()));
        });
        TfFileOwner tf(tf_CreateFile());
        tf.discardItem();
        appendRecords(tf.get(), received);
        // Staged: the caller's Msg_Save after the decode publishes the message whole.
        store::msgSave(msg.get(), tf.get(), false);
        tf_UnreadFile(tf.get());
        *messageFile = tf.release();
        return msg.release();
    } catch (const Escape&) {
        try {
            Msg_Delete(msg.release());
        } catch (const Escape&) {
            // The escape that stopped the build is the one to report.
        }
        throw;
    }
}
