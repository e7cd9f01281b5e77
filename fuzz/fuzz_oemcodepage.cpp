// tnef_SetOemCodePage: the head copy of a stream.
#include "fuzz_support.h"
#include "tnef/tnef.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static fuzzsupport::ScratchHome home;
    fuzzsupport::DescriptorCheck descriptors;
    const int in = fuzzsupport::inputFd(home, data, size);
    const int out = fuzzsupport::openScratch(home.file("out.tnef"));
    try {
        tnef_SetOemCodePage(out, in);
    } catch (const Escape&) {
    }
    ::close(in);
    ::close(out);
    return 0;
}
