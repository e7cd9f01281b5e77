// tnef_ScanTnef for an embedded message tag, with the attachment list.
#include "fuzz_support.h"
#include "tnef/tnef.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static fuzzsupport::ScratchHome home;
    fuzzsupport::DescriptorCheck descriptors;
    const std::string path = home.file("input.tnef");
    fuzzsupport::writeFile(path, data, size);
    const int fd = fuzzsupport::openInput(path);
    TnefAttachScan* list = nullptr;
    try {
        tnef_ScanTnef(fd, 0x3701000D, &list);
    } catch (const Escape&) {
    }
    tnef_FreeScanList(&list);
    ::close(fd);
    return 0;
}
