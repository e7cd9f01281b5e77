// Bodies: the input as a compressed RTF value, decompressed; its output, and the input
// itself, read as RTF for what they encapsulate.
#include <string>
#include <string_view>

#include "fuzz_support.h"
#include "tnef/tnef_body.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string rtf;
    uint32_t flags = 0;
    if (tnef_DecompressRtf(data, size, &rtf, &flags) == TNEF_RTF_OK) {
        if (rtf.size() > TNEF_RTF_OUTPUT_LIMIT) std::abort();
        (void)tnef_DeencapsulateRtf(rtf);
    }
    (void)tnef_DeencapsulateRtf(std::string_view(reinterpret_cast<const char*>(data), size));
    return 0;
}
