// tnef_Encode over a message whose object file and property texts are the input: the object
// file first, then (after two 0xFF bytes) the main text, then the secondary text.
#include <string>

#include "fuzz_support.h"
#include "tnef/platform/dstring.h"
#include "tnef/platform/im_items.h"
#include "tnef/platform/mp_stored.h"
#include "tnef/platform/msg_builder.h"
#include "tnef/platform/msg_store.h"
#include "tnef/platform/tf_msgfile.h"
#include "tnef/tnef.h"

namespace {

void buildAndEncode(const fuzzsupport::ScratchHome& home, const std::string& object,
                    const std::string& mainText, const std::string& secondaryText) {
    ReceivedMessage received;
    received.tnefBytes = object;
    int16_t messageFile = 0;
    const int16_t message = Msg_BuildReceived(received, &messageFile);
    TfFileOwner file(messageFile);
    MsgOwner owner(message);
    // The object file is the message's second part, as the decoder would keep it.
    ItemRef ref{};
    Msg_GetAttachedFile(message, &ref, 2);
    mp_PutObjectFile(MP_OBJECT_PROPERTIES, ref, messageFile, 1, 0);
    dstring main{mainText};
    dstring secondary{secondaryText};
    mp_PutMAPIPropsData(1, 0, &main, messageFile, 1, 0, 0);
    mp_PutMAPIPropsData(2, 0, &secondary, messageFile, 1, 0, 1);
    OsFd out(fuzzsupport::openScratch(home.file("out.tnef")));
    uint32_t word = 0;
    tnef_Encode(messageFile, out.get(), 0, &word, message);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzzsupport::DescriptorCheck descriptors;
    fuzzsupport::ScratchHome home;
    const size_t a = fuzzsupport::splitAt(data, size, 0);
    const size_t b = fuzzsupport::splitAt(data, size, a + 2 < size ? a + 2 : size);
    const auto piece = [&](size_t from, size_t to) {
        return from < to ? std::string(reinterpret_cast<const char*>(data) + from, to - from)
                         : std::string();
    };
    try {
        buildAndEncode(home, piece(0, a), piece(a + 2, b), piece(b + 2, size));
    } catch (const Escape&) {
    }
    if (tf_OpenHandleCount() != 0 || Msg_OpenHandleCount() != 0) std::abort();
    return 0;
}
