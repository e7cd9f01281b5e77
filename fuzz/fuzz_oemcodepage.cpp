// tnef_SetOemCodePage: the head copy of a stream.
#include "fuzz_support.h"
#include "tnef/tnef.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static fuzzsupport::ScratchHome home;
    fuzzsupport::DescriptorCheck descriptors;
    const std::string path = home.file("input.tnef");
    fuzzsupport::writeFile(path, data, size);
    const int in = fuzzsupport::openInput(path);
    const int out = fuzzsupport::openScratch(home.file("out.tnef"));
    try {
        tnef_SetOemCodePage(out, in);
    } catch (const Escape&) {
    }
    ::close(in);
    ::close(out);
    return 0;
}
