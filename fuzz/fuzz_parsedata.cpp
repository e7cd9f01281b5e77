// tnef_ParseData over a stored property text.
#include <vector>

#include "fuzz_support.h"
#include "tnef/tnef.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static fuzzsupport::ScratchHome home;
    fuzzsupport::DescriptorCheck descriptors;
    // The text is NUL-terminated and exactly as long as the stored record says.
    std::vector<char> text(data, data + size);
    text.push_back('\0');
    const int out = fuzzsupport::openScratch(home.file("out.tnef"));
    try {
        tnef_Create(out);
        tnef_ParseData(out, text.data(), static_cast<uint32_t>(size));
    } catch (const Escape&) {
    }
    ::close(out);
    return 0;
}
