// tnef_Decode on a received message around the input, in a fresh server home per run.
#include "fuzz_support.h"
#include "tnef/platform/im_items.h"
#include "tnef/platform/msg_builder.h"
#include "tnef/platform/msg_store.h"
#include "tnef/platform/tf_msgfile.h"
#include "tnef/tnef.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzzsupport::DescriptorCheck descriptors;
    fuzzsupport::ScratchHome home;
    const std::string path = home.file("winmail.dat");
    fuzzsupport::writeFile(path, data, size);
    ReceivedMessage received;
    received.tnefPath = path;
    int16_t messageFile = 0;
    const int16_t message = Msg_BuildReceived(received, &messageFile);
    const int16_t receivedFile = messageFile;
    uint16_t receipt = 0;
    uint32_t reply = 0;
    try {
        tnef_Decode(message, &messageFile, path.c_str(), &receipt, &reply, size % 2, 0);
        Msg_Save(message, messageFile);
    } catch (const Escape&) {
        // Bad input ends in an escape; the checks below still apply.
    }
    if (messageFile != receivedFile) tf_CloseFile(messageFile);
    tf_CloseFile(receivedFile);
    Msg_Close(message);
    if (tf_OpenHandleCount() != 0 || Msg_OpenHandleCount() != 0) std::abort();
    return 0;
}
