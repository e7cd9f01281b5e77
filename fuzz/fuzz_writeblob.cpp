// tnef_WriteBrenvoProps2ObjectFile from three blob texts (separated by two 0xFF bytes).
#include <string>

#include "fuzz_support.h"
#include "tnef/tnef.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static fuzzsupport::ScratchHome home;
    fuzzsupport::DescriptorCheck descriptors;
    const size_t a = fuzzsupport::splitAt(data, size, 0);
    const size_t b = fuzzsupport::splitAt(data, size, a + 2 < size ? a + 2 : size);
    const auto piece = [&](size_t from, size_t to) {
        return from < to ? std::string(reinterpret_cast<const char*>(data) + from, to - from)
                         : std::string();
    };
    const std::string props = piece(0, a);
    const std::string attach = piece(a + 2, b);
    const std::string recips = piece(b + 2, size);
    const int out = fuzzsupport::openScratch(home.file("out.tnef"));
    try {
        tnef_WriteBrenvoProps2ObjectFile(out, -1, props.c_str(), attach.empty() ? nullptr : attach.c_str(),
                                         recips.empty() ? nullptr : recips.c_str());
    } catch (const Escape&) {
    }
    ::close(out);
    return 0;
}
