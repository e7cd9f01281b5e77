// tnef_ScanTnef for an embedded message tag, with the attachment list.
#include "fuzz_support.h"
#include "tnef/tnef.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static fuzzsupport::ScratchHome home;
    fuzzsupport::DescriptorCheck descriptors;
    const int fd = fuzzsupport::inputFd(home, data, size);
    TnefAttachScan* list = nullptr;
    try {
        tnef_ScanTnef(fd, 0x3701000D, &list);
    } catch (const Escape&) {
    }
    tnef_FreeScanList(&list);
    ::close(fd);
    return 0;
}
